#include "common/QuadDecomposition.h"

#include <cmath>

#include "common/Checked.h"
#include "common/Matching.h"

namespace common {

namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;

// Directed edge a->b keyed (a << 32) | b, mapped to the triangles that run
// along it (with each one's opposite corner) in insertion order. Open
// addressing with linear probing; per-key lists are chained through the
// entry array.
class EdgeMap {
public:
    struct Entry {
        uint32_t triangle;
        uint32_t opposite;
        uint32_t next;
    };

    explicit EdgeMap(size_t edgeCount) {
        size_t capacity = 16;
        while (capacity < edgeCount * 2) capacity = checkedMul<size_t>(capacity, 2);
        slots.assign(capacity, Slot{0, kNone, kNone});
        mask = capacity - 1;
        shift = 64;
        for (size_t c = capacity; c > 1; c >>= 1) --shift;
        entries.reserve(edgeCount);
    }

    static uint64_t key(uint32_t a, uint32_t b) { return uint64_t(a) << 32 | b; }

    void add(uint64_t k, uint32_t triangle, uint32_t opposite) {
        const auto index = uint32_t(entries.size());
        entries.push_back(Entry{triangle, opposite, kNone});
        Slot& s = slots[probe(k)];
        if (s.head == kNone) {
            s.key = k;
            s.head = index;
        } else {
            entries[s.tail].next = index;
        }
        s.tail = index;
    }

    // First entry of the list for k, or kNone.
    uint32_t first(uint64_t k) const { return slots[probe(k)].head; }
    const Entry& entry(uint32_t index) const { return entries[index]; }

private:
    struct Slot {
        uint64_t key;
        uint32_t head; // kNone: empty slot
        uint32_t tail;
    };

    size_t probe(uint64_t k) const {
        size_t i = size_t((k * 0x9E3779B97F4A7C15ull) >> shift) & mask;
        while (slots[i].head != kNone && slots[i].key != k) i = (i + 1) & mask;
        return i;
    }

    std::vector<Slot> slots;
    std::vector<Entry> entries;
    size_t mask = 0;
    int shift = 64;
};

// n scaled by the unrefined reciprocal-square-root estimate of its squared
// length; the 0.5-unit test below tolerates its error. A zero n gives NaN,
// which no distance test rejects.
inline float4 roughNormal(float4 n) { return n * rsqrtEstimate(splat(dot3(n, n))); }

} // namespace

std::vector<uint32_t> QuadDecomposition::decompose(const std::vector<uint32_t>& indices,
                                                   const std::vector<float4>& vertices) {
    std::vector<uint32_t> quads;
    const size_t triangleCount = indices.size() / 3;
    if (triangleCount == 0) return quads;
    const size_t cornerCount = triangleCount * 3;
    for (size_t i = 0; i < cornerCount; ++i)
        if (indices[i] >= vertices.size()) return quads;
    // Triangle numbers are int32 in the graph and uint32 in the map.
    checkedCast<int32_t>(triangleCount);
    checkedCast<uint32_t>(cornerCount);

    // Every directed edge, in triangle order: t (a, b, c) registers a->b with
    // opposite c, b->c with a, c->a with b.
    EdgeMap edges(cornerCount);
    for (size_t t = 0; t < triangleCount; ++t) {
        const uint32_t* c = &indices[3 * t];
        edges.add(EdgeMap::key(c[0], c[1]), uint32_t(t), c[2]);
        edges.add(EdgeMap::key(c[1], c[2]), uint32_t(t), c[0]);
        edges.add(EdgeMap::key(c[2], c[0]), uint32_t(t), c[1]);
    }

    // A pair is found once, by the later triangle, across an edge the two run
    // in opposite directions (consistent winding). Lists hold triangles in
    // ascending order, so stopping at a later triangle sees exactly those
    // registered so far.
    Graph graph(triangleCount);
    for (size_t t = 0; t < triangleCount; ++t) {
        const uint32_t* corner = &indices[3 * t];
        for (int j = 0; j < 3; ++j) {
            const uint32_t cur = corner[j], next = corner[(j + 1) % 3], third = corner[(j + 2) % 3];
            const float4 vCur = vertices[cur], vNext = vertices[next], vThird = vertices[third];
            for (uint32_t e = edges.first(EdgeMap::key(next, cur)); e != kNone; e = edges.entry(e).next) {
                const EdgeMap::Entry& entry = edges.entry(e);
                if (entry.triangle > t) break;
                const float4 vOpp = vertices[entry.opposite];
                const float4 toOpp = vOpp - vThird;
                // Distance of third from the plane (cur, next, opp), then of opp
                // from the plane of t; an absolute limit in model units.
                const float d1 = dot3(toOpp, roughNormal(cross3(vOpp - vCur, vNext - vCur)));
                if (std::fabs(d1) > 0.5f) continue;
                const float d2 = dot3(toOpp, roughNormal(cross3(vThird - vNext, vCur - vNext)));
                if (std::fabs(d2) > 0.5f) continue;
                graph.adjacency[t].push_back(int32_t(entry.triangle));
                graph.adjacency[entry.triangle].push_back(int32_t(t));
            }
        }
    }

    const Matching matching(graph);

    quads.reserve(checkedMul<size_t>(triangleCount, 4));
    for (size_t t = 0; t < triangleCount; ++t) {
        const uint32_t* corner = &indices[3 * t];
        const int32_t m = matching.mate[t];
        if (m == -1) {
            const uint32_t q[4] = {corner[0], corner[2], corner[1], corner[0]};
            quads.insert(quads.end(), q, q + 4);
            continue;
        }
        // The pair is emitted by its lower triangle; a triangle paired with
        // itself (a degenerate one, through its own reversed edge) vanishes.
        if (size_t(m) <= t) continue;
        // Triangles sharing two or three reversed edges give one quad per such
        // edge: after the first, an edge counts when its list starts with m.
        bool emitted = false;
        for (int j = 0; j < 3; ++j) {
            const uint32_t cur = corner[j], next = corner[(j + 1) % 3], third = corner[(j + 2) % 3];
            uint32_t e = edges.first(EdgeMap::key(next, cur));
            for (; e != kNone; e = emitted ? kNone : edges.entry(e).next) {
                if (edges.entry(e).triangle == uint32_t(m)) break;
            }
            if (e == kNone) continue;
            const uint32_t q[4] = {cur, third, next, edges.entry(e).opposite};
            quads.insert(quads.end(), q, q + 4);
            emitted = true;
        }
    }
    return quads;
}

} // namespace common
