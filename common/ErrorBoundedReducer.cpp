#include "common/ErrorBoundedReducer.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "common/Checked.h"

namespace common {

namespace {

// Weight of the boundary constraint planes against the surface's own: a
// border moved sideways by d costs sqrt(kBorderWeight) d, so an open border
// keeps to its line ten times more tightly than the surface to its planes.
constexpr double kBorderWeight = 100.0;
// Two triangles on an edge whose normals are further apart than about 154
// degrees make a fold, kept like an open border.
constexpr double kFoldCosine = -0.9;
// A collapse may turn no remaining triangle's normal by more than about 75
// degrees (beyond that a sliver is on its way to folding over).
constexpr double kMinNormalCosine = 0.25;
// 16-bit indices reach no further.
constexpr uint32_t kMaxVertices = 65536;

struct D3 {
    double x, y, z;
};
inline D3 operator-(D3 a, D3 b) { return D3{a.x - b.x, a.y - b.y, a.z - b.z}; }
inline double dot(D3 a, D3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline D3 cross(D3 a, D3 b) { return D3{a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
inline bool isFinite(D3 a) { return std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(a.z); }

// Symmetric 4x4 error quadric, upper triangle by rows: aa ab ac ad bb bc bd cc cd dd.
struct Quadric {
    double q[10] = {};

    void addPlane(D3 n, double d, double weight) {
        const double plane[10] = {n.x * n.x, n.x * n.y, n.x * n.z, n.x * d, n.y * n.y,
                                  n.y * n.z, n.y * d,   n.z * n.z, n.z * d, d * d};
        for (int k = 0; k < 10; ++k) q[k] += weight * plane[k];
    }
    // Sum of the squared (weighted) distances of p to the planes.
    double at(const Quadric& other, D3 p) const {
        double s[10];
        for (int k = 0; k < 10; ++k) s[k] = q[k] + other.q[k];
        return s[0] * p.x * p.x + 2 * s[1] * p.x * p.y + 2 * s[2] * p.x * p.z + 2 * s[3] * p.x + s[4] * p.y * p.y +
               2 * s[5] * p.y * p.z + 2 * s[6] * p.y + s[7] * p.z * p.z + 2 * s[8] * p.z + s[9];
    }
};

enum Kind : uint8_t {
    kInterior, // every edge has two consistently wound triangles: moves anywhere
    kBorder,   // on exactly two open edges: moves only along one of them
    kLocked,   // non-finite, non-manifold or on a tangle of borders: never moves
    kGone,     // collapsed away
};

// Every vertex waits in a heap with its best move. Free collapses (rounding
// noise on flat ground) rank by squared edge length, below 1 in the unit box,
// so the shortest go first and a flat region thins out evenly instead of
// growing one huge fan; the others rank 2 + their cost. Equal ranks go by
// vertex numbers, so that the order of collapses depends on nothing but the
// input.
constexpr double kPricedRank = 2.0;
constexpr uint32_t kNotQueued = UINT32_MAX;

class Reduction {
public:
    bool load(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount);
    // Prices every move up to maxError (collapses costing at most freeError
    // are free), then collapses until the target stops it; later targets,
    // each at most as many triangles and at most maxError, go on from there.
    void start(double maxError, double freeError);
    void run(const ErrorBoundedReducer::Target& target);
    void write(const float* vertices, std::vector<float4>& outVertices, std::vector<uint32_t>& outIndices) const;

private:
    struct Tri {
        uint32_t v[3];
    };

    bool contains(uint32_t t, uint32_t v) const { return tris[t].v[0] == v || tris[t].v[1] == v || tris[t].v[2] == v; }
    // Live triangles around v: incident[first[v] .. first[v] + count[v]),
    // deleted ones skipped by the readers.
    template <class F> void forTriangles(uint32_t v, F f) const {
        for (uint32_t k = 0; k < count[v]; ++k) {
            const uint32_t t = incident[size_t(first[v]) + k];
            if (alive[t]) f(t);
        }
    }
    // Each neighbour of v once.
    template <class F> void forNeighbours(uint32_t v, F f) {
        const uint32_t stamp = nextStamp();
        forTriangles(v, [&](uint32_t t) {
            for (const uint32_t w : tris[t].v)
                if (w != v && seen[w] != stamp) {
                    seen[w] = stamp;
                    f(w);
                }
        });
    }
    uint32_t nextStamp() {
        if (++stamp == 0) { // wrapped: old marks could match again
            std::fill(seen.begin(), seen.end(), 0u);
            stamp = 1;
        }
        return stamp;
    }
    // Whether two triangles face (nearly) opposite ways: a fold that their
    // planes cannot show, as on the rim of a flat closed shell.
    bool folded(uint32_t t, uint32_t s) const {
        const D3 a = normalOf(t), b = normalOf(s);
        return dot(a, b) < kFoldCosine * std::sqrt(dot(a, a)) * std::sqrt(dot(b, b));
    }
    D3 normalOf(uint32_t t) const {
        const D3 p0 = position[tris[t].v[0]];
        return cross(position[tris[t].v[1]] - p0, position[tris[t].v[2]] - p0);
    }
    // An edge with one triangle, or a fold: borders slide only along these.
    bool openEdge(uint32_t a, uint32_t b, uint32_t& onEdge) const {
        uint32_t on[2] = {0, 0};
        onEdge = 0;
        forTriangles(a, [&](uint32_t t) {
            if (!contains(t, b)) return;
            if (onEdge < 2) on[onEdge] = t;
            ++onEdge;
        });
        return onEdge == 1 || (onEdge == 2 && folded(on[0], on[1]));
    }

    void classify();
    double cost(uint32_t from, uint32_t to) const;
    double rank(uint32_t from, uint32_t to) const;
    // Picks v's cheapest move (with the first allowed one among equally
    // cheap and dearer ones when allowedOnly) and queues v by its rank, or
    // takes v out of the queue when it has none.
    void update(uint32_t v, bool allowedOnly);
    bool allowed(uint32_t from, uint32_t to);
    void collapse(uint32_t from, uint32_t to);

    bool before(uint32_t a, uint32_t b) const { return bestRank[a] != bestRank[b] ? bestRank[a] < bestRank[b] : a < b; }
    void place(size_t i, uint32_t v) {
        heap[i] = v;
        heapIndex[v] = uint32_t(i);
    }
    void siftUp(size_t i);
    void siftDown(size_t i);
    void dequeue(uint32_t v);

    std::vector<D3> position; // box-normalised: centre at 0, diagonal 1
    std::vector<Quadric> quadric;
    std::vector<uint8_t> kind;    // Kind
    std::vector<double> bestRank; // per vertex: its best move (INFINITY: none within the bound)
    std::vector<uint32_t> bestTo;
    std::vector<uint8_t> refused; // a cheaper move than the best was refused
    std::vector<uint32_t> first, count, incident;
    std::vector<Tri> tris;
    std::vector<uint8_t> alive;
    std::vector<uint32_t> seen; // marks, by stamp
    uint32_t stamp = 0;
    std::vector<uint32_t> heap, heapIndex;          // vertices by best move; per vertex its place or kNotQueued
    std::vector<std::pair<double, uint32_t>> moves; // scratch: rank and target
    std::vector<uint32_t> fromRing, toRing;         // scratch
    struct WeldKey {
        uint64_t xy; // position bits, -0 as +0
        uint32_t z, vertex;
    };
    std::vector<WeldKey> keys;  // scratch
    std::vector<uint32_t> weld; // per input vertex: the first with its position
    size_t live = 0;
    double maxError = 0.0;
    double freeError = 0.0;
};

bool Reduction::load(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount) {
    const uint32_t n = std::min(vertexCount, kMaxVertices);
    const size_t used = size_t(indexCount / 3) * 3;
    for (size_t i = 0; i < used; ++i)
        if (indices[i] >= n) return false;

    // Weld equal positions (-0 and +0 alike) onto the first vertex that has
    // them: a seam of split vertices would otherwise be an open border.
    const auto bitsOf = [&](uint32_t v, int axis) {
        const float f = vertices[3 * size_t(v) + size_t(axis)] + 0.0f;
        uint32_t bits;
        std::memcpy(&bits, &f, sizeof bits);
        return bits;
    };
    keys.resize(n);
    weld.resize(n);
    for (uint32_t v = 0; v < n; ++v) keys[v] = WeldKey{uint64_t(bitsOf(v, 0)) << 32 | bitsOf(v, 1), bitsOf(v, 2), v};
    std::sort(keys.begin(), keys.end(), [](const WeldKey& a, const WeldKey& b) {
        if (a.xy != b.xy) return a.xy < b.xy;
        return a.z != b.z ? a.z < b.z : a.vertex < b.vertex;
    });
    for (size_t i = 0; i < keys.size(); ++i) {
        const bool same = i > 0 && keys[i].xy == keys[i - 1].xy && keys[i].z == keys[i - 1].z;
        weld[keys[i].vertex] = same ? weld[keys[i - 1].vertex] : keys[i].vertex;
    }

    tris.clear();
    for (size_t i = 0; i < used; i += 3) {
        const Tri t{{weld[indices[i]], weld[indices[i + 1]], weld[indices[i + 2]]}};
        if (t.v[0] != t.v[1] && t.v[1] != t.v[2] && t.v[2] != t.v[0]) tris.push_back(t);
    }
    alive.assign(tris.size(), 1);
    live = tris.size();

    // Errors are measured in the box of the finite vertices in use, so that
    // bounds are fractions of its diagonal.
    position.assign(n, D3{0.0, 0.0, 0.0});
    D3 lo{INFINITY, INFINITY, INFINITY}, hi{-INFINITY, -INFINITY, -INFINITY};
    for (const Tri& t : tris)
        for (const uint32_t v : t.v) {
            const D3 p{vertices[3 * size_t(v)], vertices[3 * size_t(v) + 1], vertices[3 * size_t(v) + 2]};
            position[v] = p;
            if (!isFinite(p)) continue;
            lo = D3{std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
            hi = D3{std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
        }
    const D3 centre{0.5 * (lo.x + hi.x), 0.5 * (lo.y + hi.y), 0.5 * (lo.z + hi.z)};
    double diagonal = std::sqrt(dot(hi - lo, hi - lo));
    if (!(diagonal > 0.0) || !std::isfinite(diagonal)) diagonal = 1.0;
    for (D3& p : position) {
        const D3 d = p - centre;
        p = D3{d.x / diagonal, d.y / diagonal, d.z / diagonal};
    }

    // Incident triangles per vertex, in triangle order; collapses append the
    // merged lists at the end.
    first.assign(n, 0);
    count.assign(n, 0);
    for (const Tri& t : tris)
        for (const uint32_t v : t.v) ++count[v];
    uint32_t running = 0;
    for (uint32_t v = 0; v < n; ++v) {
        first[v] = running;
        running = checkedAdd(running, count[v]);
        count[v] = 0;
    }
    incident.resize(running);
    incident.reserve(size_t(running) * 3);
    for (uint32_t t = 0; t < tris.size(); ++t)
        for (const uint32_t v : tris[t].v) incident[size_t(first[v]) + count[v]++] = t;

    seen.assign(n, 0);
    stamp = 0;
    bestRank.assign(n, INFINITY);
    bestTo.assign(n, kNotQueued);
    refused.assign(n, 0);
    heapIndex.assign(n, kNotQueued);
    quadric.assign(n, Quadric{});
    kind.assign(n, kGone);
    classify();
    return true;
}

// Plane quadrics of the triangles, unweighted, so that the root of a summed
// quadric bounds the distance to each plane in it; boundary constraint planes
// (through an open edge, perpendicular to its triangle) on open edges; and
// the kind of every vertex in use.
void Reduction::classify() {
    std::vector<D3> normal(tris.size());
    for (size_t t = 0; t < tris.size(); ++t) {
        const D3 p0 = position[tris[t].v[0]];
        const D3 n = cross(position[tris[t].v[1]] - p0, position[tris[t].v[2]] - p0);
        const double length = std::sqrt(dot(n, n));
        normal[t] = D3{0, 0, 0};
        if (!(length > 0.0) || !std::isfinite(length)) continue; // no plane: adds nothing
        normal[t] = D3{n.x / length, n.y / length, n.z / length};
        for (const uint32_t v : tris[t].v) quadric[v].addPlane(normal[t], -dot(normal[t], p0), 1.0);
    }

    // Per neighbour w of v: edges v->w (and the triangle that winds it) and
    // w->v in the windings around v. An open edge is wound one way only, so
    // its constraint plane is added once, from the end it leaves.
    struct Link {
        uint32_t forward, backward, ahead, behind; // the triangles winding v->w and w->v
    };
    std::vector<uint32_t> slot(position.size(), 0), neighbour;
    std::vector<Link> links;
    for (uint32_t v = 0; v < position.size(); ++v) {
        if (count[v] == 0) continue;
        neighbour.clear();
        links.clear();
        const uint32_t mark = nextStamp();
        const auto note = [&](uint32_t w) -> Link& {
            if (seen[w] != mark) {
                seen[w] = mark;
                slot[w] = uint32_t(neighbour.size());
                neighbour.push_back(w);
                links.push_back(Link{0, 0, 0, 0});
            }
            return links[slot[w]];
        };
        forTriangles(v, [&](uint32_t t) {
            const int c = tris[t].v[0] == v ? 0 : tris[t].v[1] == v ? 1 : 2;
            Link& ahead = note(tris[t].v[(c + 1) % 3]);
            ++ahead.forward;
            ahead.ahead = t;
            Link& behind = note(tris[t].v[(c + 2) % 3]);
            ++behind.backward;
            behind.behind = t;
        });
        uint32_t open = 0;
        bool tangled = !isFinite(position[v]);
        for (size_t i = 0; i < neighbour.size(); ++i) {
            const Link& link = links[i];
            const uint32_t w = neighbour[i];
            const bool manifold = link.forward == 1 && link.backward == 1;
            if (link.forward + link.backward != 1 && !manifold) {
                tangled = true; // three or more triangles, or two wound against each other
                continue;
            }
            if (manifold && !folded(link.ahead, link.behind)) continue;
            ++open;
            // Boundary constraint plane: through the open edge (or fold),
            // perpendicular to the triangle that leaves v along it; once.
            if (link.forward == 0 || (manifold && w < v)) continue;
            const D3 n = normal[link.ahead];
            const D3 m = cross(position[w] - position[v], n);
            const double length = std::sqrt(dot(m, m));
            if (!(length > 0.0) || !std::isfinite(length)) continue;
            const D3 unit{m.x / length, m.y / length, m.z / length};
            quadric[v].addPlane(unit, -dot(unit, position[v]), kBorderWeight);
            quadric[w].addPlane(unit, -dot(unit, position[v]), kBorderWeight);
        }
        kind[v] = tangled || (open != 0 && open != 2) ? kLocked : open == 2 ? kBorder : kInterior;
    }
}

// The error of moving `from` onto `to`, or infinity where that is not allowed
// by the kinds alone.
double Reduction::cost(uint32_t from, uint32_t to) const {
    if (kind[from] == kLocked || kind[from] == kGone || kind[to] == kGone) return INFINITY;
    if (!isFinite(position[to])) return INFINITY;
    uint32_t onEdge = 0;
    if (kind[from] == kBorder && !openEdge(from, to, onEdge)) return INFINITY; // slide along the border only
    const double e = quadric[from].at(quadric[to], position[to]);
    if (!(e == e)) return INFINITY;
    return std::sqrt(std::max(e, 0.0));
}

double Reduction::rank(uint32_t from, uint32_t to) const {
    const double c = cost(from, to);
    if (!(c <= maxError)) return INFINITY; // never taken
    if (c > freeError) return kPricedRank + c;
    const D3 edge = position[to] - position[from];
    return std::min(dot(edge, edge), 1.0);
}

void Reduction::siftUp(size_t i) {
    const uint32_t v = heap[i];
    while (i > 0 && before(v, heap[(i - 1) / 2])) {
        place(i, heap[(i - 1) / 2]);
        i = (i - 1) / 2;
    }
    place(i, v);
}

void Reduction::siftDown(size_t i) {
    const uint32_t v = heap[i];
    for (;;) {
        size_t child = 2 * i + 1;
        if (child >= heap.size()) break;
        if (child + 1 < heap.size() && before(heap[child + 1], heap[child])) ++child;
        if (!before(heap[child], v)) break;
        place(i, heap[child]);
        i = child;
    }
    place(i, v);
}

void Reduction::dequeue(uint32_t v) {
    const uint32_t i = heapIndex[v];
    if (i == kNotQueued) return;
    heapIndex[v] = kNotQueued;
    const uint32_t last = heap.back();
    heap.pop_back();
    if (last == v) return;
    place(i, last);
    siftDown(i);
    siftUp(heapIndex[last]);
}

void Reduction::update(uint32_t v, bool allowedOnly) {
    bestRank[v] = INFINITY;
    bestTo[v] = kNotQueued;
    refused[v] = 0;
    if (allowedOnly) {
        moves.clear();
        forNeighbours(v, [&](uint32_t w) {
            const double r = rank(v, w);
            if (r != INFINITY) moves.emplace_back(r, w);
        });
        std::sort(moves.begin(), moves.end());
        for (const auto& move : moves) {
            if (!allowed(v, move.second)) {
                refused[v] = 1; // the cheaper moves may be allowed once something around changes
                continue;
            }
            bestRank[v] = move.first;
            bestTo[v] = move.second;
            break;
        }
    } else {
        forNeighbours(v, [&](uint32_t w) {
            const double r = rank(v, w);
            if (r < bestRank[v] || (r == bestRank[v] && r != INFINITY && w < bestTo[v])) {
                bestRank[v] = r;
                bestTo[v] = w;
            }
        });
    }
    if (bestRank[v] == INFINITY) {
        dequeue(v);
    } else if (heapIndex[v] == kNotQueued) {
        heap.push_back(v);
        siftUp(heap.size() - 1);
    } else {
        siftDown(heapIndex[v]);
        siftUp(heapIndex[v]);
    }
}

// Topology (link condition: the ends share exactly the neighbours across the
// edge, and no triangle would be doubled) and geometry (no remaining triangle
// of `from` turns over or degenerates).
bool Reduction::allowed(uint32_t from, uint32_t to) {
    uint32_t onEdge = 0;
    const bool open = openEdge(from, to, onEdge);
    if (kind[from] == kBorder ? !open : onEdge != 2) return false;

    // Geometry first: it refuses most often, and costs least.
    bool ok = true;
    const D3 target = position[to];
    forTriangles(from, [&](uint32_t t) {
        if (!ok || contains(t, to)) return;
        const D3 p[3] = {position[tris[t].v[0]], position[tris[t].v[1]], position[tris[t].v[2]]};
        D3 q[3] = {p[0], p[1], p[2]};
        for (int k = 0; k < 3; ++k)
            if (tris[t].v[k] == from) q[k] = target;
        const D3 before = cross(p[1] - p[0], p[2] - p[0]);
        const D3 after = cross(q[1] - q[0], q[2] - q[0]);
        const double b2 = dot(before, before), a2 = dot(after, after);
        if (b2 == 0.0) {
            ok = a2 == 0.0; // a sliver stays one rather than open up somewhere new
            return;
        }
        // NaN fails too.
        ok = dot(before, after) > kMinNormalCosine * std::sqrt(b2) * std::sqrt(a2);
    });
    if (!ok) return false;

    fromRing.clear();
    toRing.clear();
    forNeighbours(from, [&](uint32_t w) { fromRing.push_back(w); });
    forNeighbours(to, [&](uint32_t w) { toRing.push_back(w); });
    const uint32_t mark = nextStamp();
    for (const uint32_t w : fromRing) seen[w] = mark;
    uint32_t shared = 0;
    for (const uint32_t w : toRing) shared += w != from && seen[w] == mark;
    if (shared != onEdge) return false;
    // Both ends of an inner edge holding a triangle on the two vertices across
    // it (a tetrahedron's faces): the collapse would lay two copies of it back
    // to back. Only the vertices across the edge are shared, so only they can
    // form such a pair.
    if (onEdge == 2) {
        uint32_t across[2] = {0, 0}, found = 0;
        forTriangles(from, [&](uint32_t t) {
            if (!contains(t, to)) return;
            for (const uint32_t w : tris[t].v)
                if (w != from && w != to && found < 2) across[found++] = w;
        });
        const auto holdsBoth = [&](uint32_t v, uint32_t skip) {
            bool holds = false;
            forTriangles(v, [&](uint32_t t) {
                holds = holds || (!contains(t, skip) && contains(t, across[0]) && contains(t, across[1]));
            });
            return holds;
        };
        if (found == 2 && holdsBoth(from, to) && holdsBoth(to, from)) return false;
    }

    return true;
}

void Reduction::collapse(uint32_t from, uint32_t to) {
    const size_t start = incident.size();
    forTriangles(to, [&](uint32_t t) {
        if (contains(t, from)) {
            alive[t] = 0;
            --live;
        } else {
            incident.push_back(t);
        }
    });
    forTriangles(from, [&](uint32_t t) {
        for (uint32_t& w : tris[t].v)
            if (w == from) w = to;
        incident.push_back(t);
    });
    first[to] = checkedCast<uint32_t>(start);
    count[to] = checkedCast<uint32_t>(incident.size() - start);
    count[from] = 0;
    for (int k = 0; k < 10; ++k) quadric[to].q[k] += quadric[from].q[k];
    kind[from] = kGone;

    // Every move of `to` and every move onto it has a new price. A neighbour
    // whose best move went to `from`, whose best move onto `to` got dearer,
    // or that refused a cheaper move (it may be allowed now) looks at all of
    // its moves again; any other only compares its best with the move onto
    // `to`.
    dequeue(from);
    std::vector<uint32_t>& around = toRing;
    around.clear();
    forNeighbours(to, [&](uint32_t w) { around.push_back(w); });
    update(to, false);
    for (const uint32_t w : around) {
        if (refused[w] || bestTo[w] == from) {
            update(w, false);
            continue;
        }
        const double r = rank(w, to);
        if (bestTo[w] == to) {
            // Still the best unless it got dearer (free ones keep their rank).
            if (r <= bestRank[w]) {
                bestRank[w] = r;
                siftUp(heapIndex[w]);
            } else {
                update(w, false);
            }
            continue;
        }
        if (r != INFINITY && (r < bestRank[w] || (r == bestRank[w] && to < bestTo[w]))) {
            bestRank[w] = r;
            bestTo[w] = to;
            if (heapIndex[w] == kNotQueued) {
                heap.push_back(w);
                heapIndex[w] = uint32_t(heap.size() - 1);
            }
            siftUp(heapIndex[w]);
        }
    }
}

void Reduction::start(double bound, double free) {
    maxError = bound;
    freeError = std::min(free, bound);
    heap.clear();
    for (uint32_t v = 0; v < position.size(); ++v)
        if (count[v] != 0) update(v, false);
}

void Reduction::run(const ErrorBoundedReducer::Target& target) {
    const double limit = kPricedRank + target.maxError;
    while (!heap.empty()) {
        const uint32_t from = heap.front();
        if (bestRank[from] >= kPricedRank && (live <= target.triangles || bestRank[from] > limit)) break;
        const uint32_t to = bestTo[from];
        if (allowed(from, to))
            collapse(from, to);
        else
            update(from, true); // the best move it is allowed, if any
    }
}

void Reduction::write(const float* vertices, std::vector<float4>& outVertices,
                      std::vector<uint32_t>& outIndices) const {
    std::vector<uint32_t> renumber(position.size(), UINT32_MAX);
    for (size_t t = 0; t < tris.size(); ++t)
        if (alive[t])
            for (const uint32_t v : tris[t].v) renumber[v] = 0;
    uint32_t next = 0;
    for (uint32_t v = 0; v < renumber.size(); ++v) {
        if (renumber[v] == UINT32_MAX) continue;
        renumber[v] = next++;
        const float* p = vertices + 3 * size_t(v);
        outVertices.push_back(make4(p[0], p[1], p[2], 1.0f));
    }
    for (size_t t = 0; t < tris.size(); ++t)
        if (alive[t])
            for (const uint32_t v : tris[t].v) outIndices.push_back(renumber[v]);
}

} // namespace

ErrorBoundedReducer::Target ErrorBoundedReducer::levelTarget(unsigned lod, uint32_t triangleCount) {
    // Half a pixel over the screen diagonal of a box that covers the level's
    // largest screen fraction f of 640 x 360: 0.5 / (sqrt(f) * 734.3).
    static const double kMaxError[3] = {6.8e-4, 9.6e-4, 1.36e-3};
    // Triangle counts near the default build's levels (a quarter, a seventh
    // and a thirteenth of the triangles), so that the frame costs the same.
    static const double kKeep[3] = {0.25, 0.15, 0.075};
    // Far below a pixel: collapses this cheap only remove rounding noise.
    constexpr double kFreeError = 1e-5;
    const unsigned level = lod < 3 ? lod : 0;
    return Target{uint32_t(kKeep[level] * double(triangleCount)), kMaxError[level], kFreeError};
}

namespace {

// Working storage of this thread, kept from call to call for its capacity.
Reduction& workspace() {
    static thread_local Reduction reduction;
    return reduction;
}

bool usable(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount) {
    return vertices && indices && vertexCount != 0 && indexCount >= 3;
}

// The levels of the last mesh this thread asked for, with a copy of the mesh
// to recognise it by.
struct LevelMemo {
    std::vector<float> vertices;
    std::vector<uint16_t> indices;
    std::vector<float4> levelVertices[3];
    std::vector<uint32_t> levelIndices[3];
    bool valid = false;

    bool holds(const float* v, const uint16_t* i, uint32_t vertexFloats, uint32_t indexCount) const {
        return valid && vertices.size() == vertexFloats && indices.size() == indexCount &&
               std::memcmp(vertices.data(), v, sizeof(float) * vertexFloats) == 0 &&
               std::memcmp(indices.data(), i, sizeof(uint16_t) * indexCount) == 0;
    }
};

} // namespace

void ErrorBoundedReducer::reduce(const float* vertices, const uint16_t* indices, uint32_t vertexCount,
                                 uint32_t indexCount, const Target& target, std::vector<float4>& outVertices,
                                 std::vector<uint32_t>& outIndices) {
    reduceLevels(vertices, indices, vertexCount, indexCount, &target, 1, &outVertices, &outIndices);
}

void ErrorBoundedReducer::reduceLevels(const float* vertices, const uint16_t* indices, uint32_t vertexCount,
                                       uint32_t indexCount, const Target* targets, size_t count,
                                       std::vector<float4>* outVertices, std::vector<uint32_t>* outIndices) {
    for (size_t k = 0; k < count; ++k) {
        outVertices[k].clear();
        outIndices[k].clear();
    }
    if (count == 0 || !usable(vertices, indices, vertexCount, indexCount)) return;
    Reduction& reduction = workspace();
    if (!reduction.load(vertices, indices, vertexCount, indexCount)) return;
    double bound = targets[0].maxError;
    for (size_t k = 1; k < count; ++k) bound = std::max(bound, targets[k].maxError);
    reduction.start(bound, targets[0].freeError);
    for (size_t k = 0; k < count; ++k) {
        reduction.run(targets[k]);
        reduction.write(vertices, outVertices[k], outIndices[k]);
    }
}

void ErrorBoundedReducer::level(const float* vertices, const uint16_t* indices, uint32_t vertexCount,
                                uint32_t indexCount, unsigned lod, std::vector<float4>& outVertices,
                                std::vector<uint32_t>& outIndices) {
    outVertices.clear();
    outIndices.clear();
    if (lod > 2 || !usable(vertices, indices, vertexCount, indexCount)) return;
    static thread_local LevelMemo memo;
    const uint32_t vertexFloats = 3 * std::min(vertexCount, kMaxVertices);
    if (!memo.holds(vertices, indices, vertexFloats, indexCount)) {
        memo.valid = false;
        memo.vertices.assign(vertices, vertices + vertexFloats);
        memo.indices.assign(indices, indices + indexCount);
        const Target targets[3] = {levelTarget(0, indexCount / 3), levelTarget(1, indexCount / 3),
                                   levelTarget(2, indexCount / 3)};
        reduceLevels(vertices, indices, vertexCount, indexCount, targets, 3, memo.levelVertices, memo.levelIndices);
        memo.valid = true;
    }
    outVertices = memo.levelVertices[lod];
    outIndices = memo.levelIndices[lod];
}

} // namespace common
