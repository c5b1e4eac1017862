#include "common/QuadDecomposition.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/Checked.h"
#include "common/Matching.h"

namespace common {

namespace {

// Directed edges a->b with, for each, the triangles that run along it and
// their opposite corners, in triangle order. Grouped by a (counting sort,
// stable), then by b within each group (stable): the lists of one vertex sit
// together, which keeps look-ups of neighbouring triangles in cache, and a
// vertex of very high valence is still searched in logarithmic time.
class EdgeMap {
public:
    struct Entry {
        uint32_t to;
        uint32_t triangle;
        uint32_t opposite;
    };

    EdgeMap(const std::vector<uint32_t>& indices, size_t triangleCount, size_t vertexCount) {
        start.assign(checkedAdd<size_t>(vertexCount, 1), 0);
        for (size_t i = 0; i < triangleCount * 3; ++i) ++start[indices[i] + size_t(1)];
        for (size_t v = 0; v < vertexCount; ++v) start[v + 1] += start[v];
        entries.resize(triangleCount * 3);
        std::vector<uint32_t> cursor(start.begin(), start.end() - 1);
        // t (a, b, c) registers a->b with opposite c, b->c with a, c->a with b.
        for (size_t t = 0; t < triangleCount; ++t) {
            const uint32_t* c = &indices[3 * t];
            for (int j = 0; j < 3; ++j) entries[cursor[c[j]]++] = Entry{c[(j + 1) % 3], uint32_t(t), c[(j + 2) % 3]};
        }
        const auto byTarget = [](const Entry& x, const Entry& y) { return x.to < y.to; };
        for (size_t v = 0; v < vertexCount; ++v) {
            Entry* first = entries.data() + start[v];
            Entry* last = entries.data() + start[v + 1];
            if (last - first <= kLinear) {
                for (Entry* i = first + 1; i < last; ++i) // insertion sort: stable
                    for (Entry* j = i; j > first && byTarget(*j, *(j - 1)); --j) std::swap(*j, *(j - 1));
            } else {
                std::stable_sort(first, last, byTarget);
            }
        }
    }

    struct List {
        const Entry* first;
        const Entry* last;
    };

    // The list of edge from->to (empty when no triangle has it).
    List find(uint32_t from, uint32_t to) const {
        const Entry* first = entries.data() + start[from];
        const Entry* last = entries.data() + start[size_t(from) + 1];
        if (last - first > kLinear) {
            const auto range = std::equal_range(first, last, Entry{to, 0, 0},
                                                [](const Entry& x, const Entry& y) { return x.to < y.to; });
            return List{range.first, range.second};
        }
        while (first != last && first->to != to) ++first;
        const Entry* end = first;
        while (end != last && end->to == to) ++end;
        return List{first, end};
    }

private:
    static constexpr std::ptrdiff_t kLinear = 16;
    std::vector<uint32_t> start; // entries of vertex v: [start[v], start[v + 1])
    std::vector<Entry> entries;
};

// Pairs are looked for only across edges that at most this many triangles
// run along in each direction. A closed mesh has one each way; a pile of
// coincident triangles on one edge would make the pairing graph quadratic in
// their number (seconds for a few thousand), for no quad worth having.
constexpr std::ptrdiff_t kMaxTrianglesPerEdge = 16;

// The triangles running next->cur, when the edge is not crowded.
EdgeMap::List pairable(const EdgeMap& edges, uint32_t cur, uint32_t next) {
    const EdgeMap::List reversed = edges.find(next, cur);
    const EdgeMap::List along = edges.find(cur, next);
    if (reversed.last - reversed.first > kMaxTrianglesPerEdge || along.last - along.first > kMaxTrianglesPerEdge)
        return EdgeMap::List{reversed.first, reversed.first};
    return reversed;
}

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

    const EdgeMap edges(indices, triangleCount, vertices.size());

    // A pair is found once, by the later triangle, across an edge the two run
    // in opposite directions (consistent winding). Lists hold triangles in
    // ascending order, so stopping at a later triangle sees exactly those
    // registered so far.
    Graph graph(triangleCount);
    for (auto& list : graph.adjacency) list.reserve(3); // a manifold triangle has at most three neighbours
    for (size_t t = 0; t < triangleCount; ++t) {
        const uint32_t* corner = &indices[3 * t];
        for (int j = 0; j < 3; ++j) {
            const uint32_t cur = corner[j], next = corner[(j + 1) % 3], third = corner[(j + 2) % 3];
            const float4 vCur = vertices[cur], vNext = vertices[next], vThird = vertices[third];
            const EdgeMap::List list = pairable(edges, cur, next);
            for (const EdgeMap::Entry* e = list.first; e != list.last; ++e) {
                const EdgeMap::Entry& entry = *e;
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
            const EdgeMap::List list = pairable(edges, cur, next);
            const EdgeMap::Entry* e = list.first;
            const EdgeMap::Entry* scanEnd = emitted && list.first != list.last ? list.first + 1 : list.last;
            while (e != scanEnd && e->triangle != uint32_t(m)) ++e;
            if (e == scanEnd) continue;
            const uint32_t q[4] = {cur, third, next, e->opposite};
            quads.insert(quads.end(), q, q + 4);
            emitted = true;
        }
    }
    return quads;
}

} // namespace common
