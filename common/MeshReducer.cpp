#include "common/MeshReducer.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <mutex>

#include "common/Checked.h"
#include "common/Vec3.h"

namespace common {

namespace {

// Positions live apart, in MeshReducerPrivate::positions: the flip test reads
// the positions of many vertices and nothing else of them.
struct Vertex {
    float quadric[10]; // symmetric 4x4: aa ab ac ad bb bc bd cc cd dd
    uint32_t firstRef; // first incident corner in refs
    uint32_t refCount; // incident corners; in the final compaction: vertex in use
    bool border;       // on an open boundary of the mesh
};

// What the flip test reads of every neighbouring triangle, 16 bytes; the
// errors and normal sit in a parallel array (TriangleData).
struct Triangle {
    uint32_t vertex[3];
    bool deleted;
    bool dirty;          // changed in this iteration: not collapsed again until the next
    uint8_t knownErrors; // kErrorKnown bit j: error[j] is up to date; kAsLoaded: unchanged since the start
    uint8_t failedEdges; // bit j: failures[3 t + j] may hold a failed collapse of edge j
};

struct TriangleData {
    float error[3]; // error[j]: collapse error of edge (vertex[j], vertex[j+1 mod 3])
    Vec3 normal;
};

// Errors are computed when first read. A triangle unchanged since the start
// computes them as the start did, before borders were marked; a changed one
// with its vertices as they are when read, which is as they were at its last
// change: every move of a vertex changes all of its triangles.
constexpr uint8_t kErrorKnown[3] = {1, 2, 4};
constexpr uint8_t kAsLoaded = 8;

struct Ref {
    uint32_t triangle;
    uint32_t corner;
};

// Growable flag array with the semantics of a resized vector: growing clears
// the new entries, shrinking keeps nothing beyond the new size. Bytes, and
// the storage never shrinks, so a resize is at most a short memset.
class Flags {
public:
    void resize(size_t n) {
        if (n > size_) {
            if (bytes_.size() < n) bytes_.resize(n);
            std::fill(bytes_.begin() + std::ptrdiff_t(size_), bytes_.begin() + std::ptrdiff_t(n), uint8_t(0));
        }
        size_ = n;
    }
    void clear() { size_ = 0; }
    bool operator[](size_t i) const { return bytes_[i] != 0; }
    void set(size_t i, bool value) { bytes_[i] = value; }

private:
    std::vector<uint8_t> bytes_;
    size_t size_ = 0;
};

inline Vec3 operator-(Vec3 a, Vec3 b) { return Vec3{a.x - b.x, a.y - b.y, a.z - b.z}; }
inline bool operator==(Vec3 a, Vec3 b) { return a.x == b.x && a.y == b.y && a.z == b.z; }
inline float dot(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vec3 cross(Vec3 a, Vec3 b) { return Vec3{a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
// Divides by the length unless it is zero.
inline Vec3 normalized(Vec3 a) {
    const float length = std::sqrt(dot(a, a));
    if (length != 0.0f) return Vec3{a.x / length, a.y / length, a.z / length};
    return a;
}

// Lane-wise forms of the above: the same IEEE operations in the same order
// (dot3 sums x, y, then z), four lanes at a time.
inline float4 load(Vec3 a) { return make4(a.x, a.y, a.z, 0.0f); }
inline Vec3 toVec3(float4 a) { return Vec3{lane<0>(a), lane<1>(a), lane<2>(a)}; }
inline float4 normalized4(float4 a) {
    const float length = std::sqrt(dot3(a, a));
    if (length != 0.0f) return a / splat(length);
    return a;
}

// (iteration + 3)^aggressiveness * 1e-9 in double, rounded to float; the
// constant is 1e-9 rounded to float.
inline float thresholdAt(int iteration, float aggressiveness) {
    return float(std::pow(double(iteration + 3), double(aggressiveness)) * 9.999999717180685e-10);
}

class MeshReducerPrivate {
public:
    std::vector<Triangle> triangles;
    std::vector<TriangleData> triangleData; // parallel to triangles
    std::vector<Vertex> vertices;
    std::vector<float4> positions; // per vertex, w = 0
    std::vector<Ref> refs;
    // Scratch for border marking: occurrences per vertex and the vertices met.
    std::vector<uint32_t> neighbourCounts;
    std::vector<uint32_t> neighbourIds;
    // Failed collapses are remembered until something they looked at changes.
    // A collapse stamps the triangles it changes or deletes (changedAt) and
    // the vertex it moves (movedAt) with the current tick. A failure depends
    // on the position chosen for the edge (the ends' quadrics and positions:
    // unchanged while neither end moved), on its own triangle (which names the
    // ends) and on the triangles the flip tests looked at, in list order, up
    // to where they stopped (a neighbour vertex that moved changed them all).
    // A refresh drops deleted triangles and rebuilds every vertex's refs in
    // triangle order: the surviving refs keep their order unless a collapse
    // rewrote the list (the vertex moved), so records move with their
    // triangles and the vertices moved since the last refresh count as moved
    // again. Records are flagged per call (failedEdges); the clock runs on
    // across calls, so stamps of earlier calls are older than any record.
    struct Failure {
        uint64_t tick;  // clock + 1 when recorded
        Ref stop;       // the corner where the flip test stopped
        uint8_t ending; // kSecondEnd, kFirstMoved, kSliver
    };
    static constexpr uint8_t kSecondEnd = 1;  // the second end's test failed (the first passed)
    static constexpr uint8_t kFirstMoved = 2; // the first end's test ran (its position changes)
    static constexpr uint8_t kSliver = 4;     // the failing triangle would be a sliver, not a fold
    std::vector<Failure> failures;            // per triangle edge
    std::vector<uint64_t> changedAt;          // per triangle
    std::vector<uint64_t> movedAt;            // per vertex
    std::vector<uint32_t> renumbered;         // per triangle, in a refresh: its new index
    uint64_t clock = 0;
    uint64_t refreshedAt = 0;
    // Deleted-triangle flags of the two ends of the edge under test.
    Flags flags0, flags1;

    void reduce(const float* inVertices, const uint16_t* inIndices, uint32_t vertexCount, uint32_t indexCount,
                std::vector<float4>& outVertices, std::vector<uint32_t>& outIndices, uint32_t targetTriangles,
                float aggressiveness, bool normalize);

private:
    float calculateError(uint32_t i0, uint32_t i1, Vec3& result, bool ignoreBorders = false);
    // The position chosen when an error was last computed, for the collapse
    // attempt that usually follows at once; nothing changes in between.
    struct ChosenPosition {
        size_t triangle = SIZE_MAX;
        int edge = 0;
        Vec3 position{0.0f, 0.0f, 0.0f};
    } chosen;
    float errorOf(size_t ti, int j) {
        Triangle& t = triangles[ti];
        float& error = triangleData[ti].error[j];
        if (!(t.knownErrors & kErrorKnown[j])) {
            const uint32_t i0 = t.vertex[j], i1 = t.vertex[(j + 1) % 3];
            const bool asLoaded = t.knownErrors & kAsLoaded;
            Vec3 p = toVec3(positions[i0]);
            error = calculateError(i0, i1, p, asLoaded);
            t.knownErrors |= kErrorKnown[j];
            // Ignoring the borders changes the position only on a border edge.
            if (!(asLoaded && vertices[i0].border && vertices[i1].border)) chosen = ChosenPosition{ti, j, p};
        }
        return error;
    }
    // How a flip test ended: whether the vertex moves at all, and on a flip
    // the corner it stopped at and which of the two tests failed there.
    struct FlipReport {
        bool moved;
        bool sliver;
        uint32_t at;
    };
    bool flipped(Vec3 p, uint32_t otherEnd, uint32_t self, Flags& deletedFlags, FlipReport& report);
    bool replayFlags(uint32_t otherEnd, const Vertex& v, Flags& deletedFlags, uint64_t tick, bool failed, Ref stop,
                     bool sliver);
    void updateTriangles(uint32_t i0, Vertex& v, Flags& deletedFlags, uint32_t& deletedTriangles);
    void prefetchTriangles(const Vertex& v) const {
#if defined(__GNUC__)
        for (uint32_t k = 0; k < v.refCount; ++k) __builtin_prefetch(&triangles[refs[size_t(v.firstRef) + k].triangle]);
#else
        (void)v;
#endif
    }
    void refresh(int iteration);
    bool sameClassification(float a, float b);
    void markBorders();
    void compact();
};

// The quadric rows of both ends summed: (aa ab ac ad), (bb bc bd cc), (cd dd 0 0).
struct SummedQuadric {
    float4 r0, r1, r2;
};

// v^T Q v for v = (x, y, z, 1), that is
//   aa x x + 2 ab x y + 2 ac x z + 2 ad x + bb y y + 2 bc y z + 2 bd y + cc z z + 2 cd z + dd
// with each product associated left to right and the sum taken in this order;
// the products are formed four at a time (the extra factors of 1 are exact).
inline float vertexError(const SummedQuadric& q, float4 xyz1) {
    const float4 t0 = q.r0 * make4(1.0f, 2.0f, 2.0f, 2.0f) * splatLane<0>(xyz1) * xyz1;
    const float4 t1 = q.r1 * make4(1.0f, 2.0f, 2.0f, 1.0f) * swizzle<1, 1, 1, 2>(xyz1) * swizzle<1, 2, 3, 2>(xyz1);
    const float4 t2 = q.r2 * make4(2.0f, 1.0f, 1.0f, 1.0f) * swizzle<2, 3, 3, 3>(xyz1);
    return lane<0>(t0) + lane<1>(t0) + lane<2>(t0) + lane<3>(t0) + lane<0>(t1) + lane<1>(t1) + lane<2>(t1) +
           lane<3>(t1) + lane<0>(t2) + lane<1>(t2);
}

float MeshReducerPrivate::calculateError(uint32_t i0, uint32_t i1, Vec3& result, bool ignoreBorders) {
    const Vertex& v0 = vertices[i0];
    const Vertex& v1 = vertices[i1];
    SummedQuadric q;
    q.r0 = loadu4(v0.quadric) + loadu4(v1.quadric);
    q.r1 = loadu4(v0.quadric + 4) + loadu4(v1.quadric + 4);
    q.r2 = make4(v0.quadric[8], v0.quadric[9], 0.0f, 0.0f) + make4(v1.quadric[8], v1.quadric[9], 0.0f, 0.0f);

    if (ignoreBorders || !(v0.border && v1.border)) {
        // The minimiser of the quadric solves a 3x3 system (Cramer's rule). The
        // four determinants (system, then the numerators of x, y, z) side by
        // side, each lane expanded in the same order (the rounding matters):
        //   [aa ab ac]  [ab ac ad]  [aa ac ad]  [aa ab ad]
        //   [ab bb bc]  [bb bc bd]  [ab bc bd]  [ab bb bd]
        //   [ac bc cc]  [bc cc cd]  [ac cc cd]  [ac bc cd]
        const int4 second = makeInt4(0, -1, 0, 0), first = makeInt4(-1, 0, 0, 0);
        const float4 a11 = swizzle<0, 1, 0, 0>(q.r0), a12 = swizzle<1, 2, 2, 1>(q.r0), a13 = swizzle<2, 3, 3, 3>(q.r0);
        const float4 a21 = select(second, splatLane<0>(q.r1), splatLane<1>(q.r0));
        const float4 a22 = swizzle<0, 1, 1, 0>(q.r1), a23 = swizzle<1, 2, 2, 2>(q.r1);
        const float4 a31 = select(second, splatLane<1>(q.r1), splatLane<2>(q.r0));
        const float4 a32 = swizzle<1, 3, 3, 1>(q.r1);
        const float4 a33 = select(first, splatLane<3>(q.r1), splatLane<0>(q.r2));
        const float4 dets =
            a11 * a22 * a33 + a13 * a21 * a32 + a12 * a23 * a31 - a13 * a22 * a31 - a11 * a23 * a32 - a12 * a21 * a33;
        const float det = lane<0>(dets);
        if (det != 0.0f) {
            const float inverse = 1.0f / det;
            // (-inverse * x', inverse * y', -inverse * z', 1)
            const float4 xyz1 = select(makeInt4(0, 0, 0, -1), splat(1.0f),
                                       make4(-inverse, inverse, -inverse, 0.0f) * swizzle<1, 2, 3, 3>(dets));
            result = Vec3{lane<0>(xyz1), lane<1>(xyz1), lane<2>(xyz1)};
            return vertexError(q, xyz1);
        }
    }

    // Border edges (and singular systems) stay on the edge: an end or the
    // midpoint, their three errors lane-wise in the order of vertexError.
    const float4 p0 = positions[i0], p1 = positions[i1];
    const float4 mid = (p0 + p1) * splat(0.5f);
    float4 xs = p0, ys = p1, zs = mid, unused = zero4();
    transpose(xs, ys, zs, unused);
    const float aa = lane<0>(q.r0), ab = lane<1>(q.r0), ac = lane<2>(q.r0), ad = lane<3>(q.r0);
    const float bb = lane<0>(q.r1), bc = lane<1>(q.r1), bd = lane<2>(q.r1), cc = lane<3>(q.r1);
    const float cd = lane<0>(q.r2), dd = lane<1>(q.r2);
    const float4 errors = splat(aa) * xs * xs + splat(2 * ab) * xs * ys + splat(2 * ac) * xs * zs + splat(2 * ad) * xs +
                          splat(bb) * ys * ys + splat(2 * bc) * ys * zs + splat(2 * bd) * ys + splat(cc) * zs * zs +
                          splat(2 * cd) * zs + splat(dd);
    const float e0 = lane<0>(errors), e1 = lane<1>(errors), e2 = lane<2>(errors);
    const float inner = e2 < e1 ? e2 : e1;
    const float m = inner < e0 ? inner : e0;
    if (e0 == m)
        result = toVec3(p0);
    else if (e1 == m)
        result = toVec3(p1);
    else if (e2 == m)
        result = Vec3{lane<0>(mid), lane<1>(mid), lane<2>(mid)};
    return m;
}

// Would moving v to p fold one of its triangles over or make it a sliver?
// Marks the triangles that also hold otherEnd: they vanish in the collapse.
bool MeshReducerPrivate::flipped(Vec3 p, uint32_t otherEnd, uint32_t self, Flags& deletedFlags, FlipReport& report) {
    const Vertex& v = vertices[self];
    report.moved = !(p == toVec3(positions[self]));
    if (!report.moved) return false;
    const float4 p4 = load(p);
    for (uint32_t k = 0; k < v.refCount; ++k) {
        const Ref r = refs[size_t(v.firstRef) + k];
        const Triangle& t = triangles[r.triangle];
        if (t.deleted) continue;
        const uint32_t a = t.vertex[(r.corner + 1) % 3], b = t.vertex[(r.corner + 2) % 3];
        if (a == otherEnd || b == otherEnd) {
            deletedFlags.set(k, true);
            continue;
        }
        const float4 d1 = normalized4(positions[a] - p4);
        const float4 d2 = normalized4(positions[b] - p4);
        if (std::fabs(dot3(d1, d2)) > 0.999f) {
            report.at = k;
            report.sliver = true;
            return true;
        }
        deletedFlags.set(k, false);
        const float4 n = normalized4(cross3(d1, d2));
        if (dot3(n, load(triangleData[r.triangle].normal)) < 0.2f) {
            report.at = k;
            report.sliver = false;
            return true;
        }
    }
    return false;
}

// The flag writes of a flip test, recorded at `tick`, that passed every
// corner or, when `failed`, stopped at corner `stop` (after clearing its flag
// unless `sliver`). Returns false on meeting a triangle changed since: the
// test must run again (the flags written so far are the ones it writes too).
bool MeshReducerPrivate::replayFlags(uint32_t otherEnd, const Vertex& v, Flags& deletedFlags, uint64_t tick,
                                     bool failed, Ref stop, bool sliver) {
    for (uint32_t k = 0; k < v.refCount; ++k) {
        const Ref r = refs[size_t(v.firstRef) + k];
        if (changedAt[r.triangle] >= tick) return false;
        if (failed && r.triangle == stop.triangle && r.corner == stop.corner) {
            if (!sliver) deletedFlags.set(k, false);
            return true;
        }
        const Triangle& t = triangles[r.triangle];
        if (t.deleted) continue;
        const uint32_t a = t.vertex[(r.corner + 1) % 3], b = t.vertex[(r.corner + 2) % 3];
        deletedFlags.set(k, a == otherEnd || b == otherEnd);
    }
    return true;
}

void MeshReducerPrivate::updateTriangles(uint32_t i0, Vertex& v, Flags& deletedFlags, uint32_t& deletedTriangles) {
    for (uint32_t k = 0; k < v.refCount; ++k) {
        const Ref r = refs[size_t(v.firstRef) + k];
        Triangle& t = triangles[r.triangle];
        if (t.deleted) continue;
        changedAt[r.triangle] = clock;
        if (deletedFlags[k]) {
            t.deleted = true;
            ++deletedTriangles;
            continue;
        }
        t.vertex[r.corner] = i0;
        t.dirty = true;
        // Dirty for the rest of this pass, so nothing reads its errors before
        // the next one (often never: the pass that reaches the target is
        // usually the last).
        t.knownErrors = 0;
        refs.push_back(r);
    }
}

// True when every live edge compares the same way (below, above, equal) with
// threshold a as with threshold b.
bool MeshReducerPrivate::sameClassification(float a, float b) {
    if (a == b) return true;
    const float lo = std::min(a, b), hi = std::max(a, b);
    for (size_t ti = 0; ti < triangles.size(); ++ti) {
        if (triangles[ti].deleted) continue;
        for (int j = 0; j < 3; ++j) {
            const float e = errorOf(ti, j);
            if (e >= lo && e <= hi) return false;
        }
    }
    return true;
}

void MeshReducerPrivate::refresh(int iteration) {
    if (iteration > 0) {
        // Failure records move with their triangles and name the new numbers.
        renumbered.resize(triangles.size());
        size_t kept = 0;
        for (size_t i = 0; i < triangles.size(); ++i) {
            renumbered[i] = UINT32_MAX;
            if (triangles[i].deleted) continue;
            renumbered[i] = uint32_t(kept);
            if (kept != i) {
                triangles[kept] = triangles[i];
                triangleData[kept] = triangleData[i];
                changedAt[kept] = changedAt[i];
                for (size_t j = 0; j < 3; ++j) failures[3 * kept + j] = failures[3 * i + j];
            }
            ++kept;
        }
        triangles.resize(kept);
        triangleData.resize(kept);
        for (size_t i = 0; i < kept; ++i) {
            Triangle& t = triangles[i];
            for (size_t j = 0; j < 3; ++j) {
                if (!(t.failedEdges >> j & 1)) continue;
                Failure& failure = failures[3 * i + j];
                failure.stop.triangle = renumbered[failure.stop.triangle];
                // A deleted stop corner means a touched end: the record is dead.
                if (failure.stop.triangle == UINT32_MAX) t.failedEdges &= uint8_t(~(1u << j));
            }
        }
    }

    if (iteration == 0) {
        for (Vertex& v : vertices) std::fill(v.quadric, v.quadric + 10, 0.0f);
        for (size_t ti = 0; ti < triangles.size(); ++ti) {
            const Triangle& t = triangles[ti];
            const Vec3 p0 = toVec3(positions[t.vertex[0]]);
            const Vec3 n = normalized(cross(toVec3(positions[t.vertex[1]]) - p0, toVec3(positions[t.vertex[2]]) - p0));
            triangleData[ti].normal = n;
            // Plane quadric, unweighted by area.
            const float a = n.x, b = n.y, c = n.z, d = -dot(n, p0);
            const float plane[10] = {a * a, a * b, a * c, a * d, b * b, b * c, b * d, c * c, c * d, d * d};
            for (int j = 0; j < 3; ++j) {
                float* q = vertices[t.vertex[j]].quadric;
                for (int k = 0; k < 10; ++k) q[k] += plane[k];
            }
        }
        for (Triangle& t : triangles) t.knownErrors = kAsLoaded;
    }

    // Incident corners of every vertex, contiguous and in triangle order.
    for (Vertex& v : vertices) {
        v.firstRef = 0;
        v.refCount = 0;
    }
    for (const Triangle& t : triangles)
        for (int j = 0; j < 3; ++j) ++vertices[t.vertex[j]].refCount;
    uint32_t running = 0;
    for (Vertex& v : vertices) {
        v.firstRef = running;
        running = checkedAdd(running, v.refCount);
        v.refCount = 0;
    }
    refs.resize(checkedMul<size_t>(triangles.size(), 3));
    for (size_t i = 0; i < triangles.size(); ++i)
        for (uint32_t j = 0; j < 3; ++j) {
            Vertex& v = vertices[triangles[i].vertex[j]];
            refs[size_t(v.firstRef) + v.refCount] = Ref{uint32_t(i), j};
            ++v.refCount;
        }

    if (iteration == 0) markBorders();
}

// A vertex that occurs exactly once among the corners of the triangles around
// some vertex ends an open edge (a vertex with one triangle marks itself).
// Counting in a vertex-indexed array gives the same marks as a search of the
// neighbour list, without quadratic cost at high valence.
void MeshReducerPrivate::markBorders() {
    for (Vertex& v : vertices) v.border = false;
    neighbourCounts.assign(vertices.size(), 0);
    for (const Vertex& v : vertices) {
        neighbourIds.clear();
        for (uint32_t k = 0; k < v.refCount; ++k) {
            const Triangle& t = triangles[refs[size_t(v.firstRef) + k].triangle];
            for (int j = 0; j < 3; ++j) {
                const uint32_t id = t.vertex[j];
                if (neighbourCounts[id]++ == 0) neighbourIds.push_back(id);
            }
        }
        for (const uint32_t id : neighbourIds) {
            if (neighbourCounts[id] == 1) vertices[id].border = true;
            neighbourCounts[id] = 0;
        }
    }
}

// Drops deleted triangles and unused vertices, renumbering in array order.
void MeshReducerPrivate::compact() {
    for (Vertex& v : vertices) v.refCount = 0;
    size_t kept = 0;
    for (size_t i = 0; i < triangles.size(); ++i) {
        if (triangles[i].deleted) continue;
        triangles[kept] = triangles[i];
        for (int j = 0; j < 3; ++j) vertices[triangles[kept].vertex[j]].refCount = 1;
        ++kept;
    }
    triangles.resize(kept);
    uint32_t used = 0;
    for (size_t i = 0; i < vertices.size(); ++i) {
        if (vertices[i].refCount == 0) continue;
        vertices[i].firstRef = used;
        positions[used] = positions[i];
        ++used;
    }
    for (Triangle& t : triangles)
        for (int j = 0; j < 3; ++j) t.vertex[j] = vertices[t.vertex[j]].firstRef;
    vertices.resize(used);
    positions.resize(used);
}

void MeshReducerPrivate::reduce(const float* inVertices, const uint16_t* inIndices, uint32_t vertexCount,
                                uint32_t indexCount, std::vector<float4>& outVertices,
                                std::vector<uint32_t>& outIndices, uint32_t targetTriangles, float aggressiveness,
                                bool normalize) {
    const uint32_t triangleCount = indexCount / 3; // whole triangles only
    const size_t usedIndices = size_t(triangleCount) * 3;

    triangles.clear();
    vertices.clear();
    refs.clear();
    vertices.resize(vertexCount);
    positions.resize(vertexCount);
    for (uint32_t i = 0; i < vertexCount; ++i) {
        Vertex& v = vertices[i];
        v.border = false;
        v.firstRef = 0;
        v.refCount = 0;
        positions[i] =
            make4(inVertices[3 * size_t(i)], inVertices[3 * size_t(i) + 1], inVertices[3 * size_t(i) + 2], 0.0f);
        std::fill(v.quadric, v.quadric + 10, 0.0f);
    }
    triangles.resize(triangleCount);
    triangleData.resize(triangleCount);
    for (size_t i = 0, t = 0; i < usedIndices; i += 3, ++t) {
        Triangle& tri = triangles[t];
        tri.deleted = false;
        tri.dirty = false;
        tri.knownErrors = 0;
        tri.failedEdges = 0;
        tri.vertex[0] = inIndices[i];
        tri.vertex[1] = inIndices[i + 1];
        tri.vertex[2] = inIndices[i + 2];
    }

    // Pure scale about the origin so that the error threshold means the same
    // for every mesh size.
    float scale = 1.0f;
    if (normalize) {
        Vec3 lo = toVec3(positions[0]), hi = lo;
        for (const float4 position : positions) {
            const Vec3 p = toVec3(position);
            lo = Vec3{std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
            hi = Vec3{std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
        }
        scale = std::max(hi.x - lo.x, std::max(hi.y - lo.y, hi.z - lo.z));
        if (scale != 1.0f && scale != 0.0f) {
            const float inverse = 1.0f / scale;
            for (float4& p : positions)
                p = make4(lane<0>(p) * inverse, lane<1>(p) * inverse, lane<2>(p) * inverse, 0.0f);
        } else {
            scale = 1.0f;
        }
    }

    if (failures.size() < size_t(triangleCount) * 3) failures.resize(size_t(triangleCount) * 3);
    if (changedAt.size() < triangleCount) changedAt.resize(triangleCount);
    if (movedAt.size() < vertexCount) movedAt.resize(vertexCount);
    uint32_t deletedTriangles = 0;
    flags0.clear(); // each call starts with empty flag arrays
    flags1.clear();
    bool collapsedSinceRefresh = true;
    bool collapsedThisPass = false;
    for (int iteration = 0; iteration < 100; ++iteration) {
        if (triangleCount - deletedTriangles <= targetTriangles) break;
        if (iteration % 5 == 0) {
            refresh(iteration);
            const uint64_t previous = refreshedAt;
            refreshedAt = ++clock;
            if (iteration > 0 && collapsedSinceRefresh) {
                for (uint32_t v = 0; v < vertexCount; ++v)
                    if (movedAt[v] > previous) movedAt[v] = refreshedAt;
            }
            collapsedSinceRefresh = false;
        }
        for (Triangle& t : triangles) t.dirty = false;
        const float threshold = thresholdAt(iteration, aggressiveness);
        collapsedThisPass = false;

        for (size_t ti = 0; ti < triangles.size(); ++ti) {
            Triangle& t = triangles[ti];
            if (t.deleted || t.dirty) continue;
            chosen.triangle = SIZE_MAX; // a position is reused only within one triangle's turn
            if (errorOf(ti, 0) > threshold && errorOf(ti, 1) > threshold && errorOf(ti, 2) > threshold) continue;
            for (int j = 0; j < 3; ++j) {
                if (errorOf(ti, j) < threshold) {
                    const uint32_t i0 = t.vertex[j], i1 = t.vertex[(j + 1) % 3];
                    Vertex& v0 = vertices[i0];
                    Vertex& v1 = vertices[i1];
                    if (v0.border != v1.border) continue;

                    Failure& failure = failures[3 * ti + size_t(j)];
                    // The record is read only when flagged: most attempts have
                    // none, and the records are too many to stay in cache.
                    const bool recorded = t.failedEdges >> j & 1;
                    const uint64_t tick = recorded ? failure.tick : 0;
                    if (recorded && changedAt[ti] < tick && movedAt[i0] < tick && movedAt[i1] < tick) {
                        // If nothing this attempt reads has changed since it
                        // failed, it fails again: only its flag writes matter.
                        flags0.resize(v0.refCount);
                        flags1.resize(v1.refCount);
                        const bool sliver = failure.ending & kSliver;
                        bool replayed;
                        if (failure.ending & kSecondEnd) {
                            replayed = !(failure.ending & kFirstMoved) ||
                                       replayFlags(i1, v0, flags0, tick, false, failure.stop, false);
                            replayed = replayed && replayFlags(i0, v1, flags1, tick, true, failure.stop, sliver);
                        } else {
                            replayed = replayFlags(i1, v0, flags0, tick, true, failure.stop, sliver);
                        }
                        if (replayed) continue;
                    }

                    // The flip tests walk both vertices' triangles in scattered
                    // memory; start all those loads at once.
                    prefetchTriangles(v0);
                    prefetchTriangles(v1);
                    Vec3 p = toVec3(positions[i0]);
                    if (chosen.triangle == ti && chosen.edge == j)
                        p = chosen.position;
                    else
                        calculateError(i0, i1, p);
                    flags0.resize(v0.refCount);
                    flags1.resize(v1.refCount);
                    FlipReport first, second;
                    if (flipped(p, i1, i0, flags0, first)) {
                        failure = Failure{clock + 1, refs[size_t(v0.firstRef) + first.at],
                                          uint8_t(kFirstMoved | (first.sliver ? kSliver : 0))};
                        t.failedEdges |= uint8_t(1 << j);
                        continue;
                    }
                    if (flipped(p, i0, i1, flags1, second)) {
                        failure = Failure{
                            clock + 1, refs[size_t(v1.firstRef) + second.at],
                            uint8_t(kSecondEnd | (first.moved ? kFirstMoved : 0) | (second.sliver ? kSliver : 0))};
                        t.failedEdges |= uint8_t(1 << j);
                        continue;
                    }

                    collapsedSinceRefresh = collapsedThisPass = true;
                    ++clock;
                    movedAt[i0] = clock;
                    positions[i0] = load(p);
                    for (int k = 0; k < 10; ++k) v0.quadric[k] += v1.quadric[k];
                    const size_t start = refs.size();
                    updateTriangles(i0, v0, flags0, deletedTriangles);
                    updateTriangles(i0, v1, flags1, deletedTriangles);
                    const size_t added = refs.size() - start;
                    if (added <= v0.refCount) {
                        // Reuse the old run when the new one fits.
                        std::copy(refs.begin() + std::ptrdiff_t(start), refs.end(),
                                  refs.begin() + std::ptrdiff_t(v0.firstRef));
                    } else {
                        v0.firstRef = checkedCast<uint32_t>(start);
                    }
                    v0.refCount = checkedCast<uint32_t>(added);
                    break;
                }
                // The target is checked only here, so a pass may overshoot it.
                if (triangleCount - deletedTriangles <= targetTriangles) break;
            }
        }
        // A pass that collapsed nothing changed nothing but flag bits, and the
        // next pass makes the same decisions (so the same flag writes) unless
        // the threshold crosses a stored error: such passes are skipped. Once
        // no later threshold crosses one, every remaining pass is a no-op and
        // the loop ends. A refresh reorders refs and so the flag writes of the
        // passes after it; it is run, with its pass, unless nothing collapsed
        // since the last one, when it rebuilds the same refs.
        if (!collapsedThisPass) {
            // The live errors nearest the threshold on either side, found once:
            // no error lies between two thresholds exactly when neither of
            // these does. NaN thresholds keep the full scan.
            bool anyAbove = false, anyBelow = false;
            float above = 0.0f, below = 0.0f;
            for (size_t ti = 0; ti < triangles.size(); ++ti) {
                if (triangles[ti].deleted) continue;
                for (int j = 0; j < 3; ++j) {
                    const float e = errorOf(ti, j);
                    if (e >= threshold && (!anyAbove || e < above)) above = e, anyAbove = true;
                    if (e <= threshold && (!anyBelow || e > below)) below = e, anyBelow = true;
                }
            }
            const auto same = [&](float next) {
                if (std::isnan(threshold) || std::isnan(next)) return sameClassification(threshold, next);
                if (next > threshold) return !(anyAbove && above <= next);
                if (next < threshold) return !(anyBelow && below >= next);
                return true;
            };
            int next = iteration + 1;
            while (next < 100 && same(thresholdAt(next, aggressiveness))) ++next;
            if (next == 100) break;
            const int nextRefresh = (iteration / 5 + 1) * 5;
            iteration = (collapsedSinceRefresh ? std::min(next, nextRefresh) : next) - 1;
        }
    }

    compact();
    if (normalize && scale != 0.0f && scale != 1.0f)
        for (float4& p : positions) p = make4(lane<0>(p) * scale, lane<1>(p) * scale, lane<2>(p) * scale, 0.0f);

    if (vertices.empty() || triangles.empty()) return;
    outVertices.resize(vertices.size());
    for (size_t i = 0; i < vertices.size(); ++i) {
        const Vec3 p = toVec3(positions[i]);
        outVertices[i] = make4(p.x, p.y, p.z, 1.0f);
    }
    outIndices.resize(checkedMul<size_t>(triangles.size(), 3));
    for (size_t t = 0; t < triangles.size(); ++t)
        for (size_t j = 0; j < 3; ++j) outIndices[3 * t + j] = triangles[t].vertex[j];
}

// Working storage shared by every call; its arrays keep their capacity.
MeshReducerPrivate gStorage;
std::mutex gStorageMutex;

} // namespace

void MeshReducer::reduce(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount,
                         std::vector<float4>& outVertices, std::vector<uint32_t>& outIndices, uint32_t targetTriangles,
                         float aggressiveness, bool normalize) {
    if (!vertices || !indices || vertexCount == 0 || indexCount == 0 || targetTriangles == 0) return;
    // 16-bit indices cannot leave a vertex array of 65,536 or more.
    if (vertexCount < 65536) {
        const size_t usedIndices = size_t(indexCount / 3) * 3;
        for (size_t i = 0; i < usedIndices; ++i)
            if (indices[i] >= vertexCount) return;
    }
    const std::lock_guard<std::mutex> lock(gStorageMutex);
    gStorage.reduce(vertices, indices, vertexCount, indexCount, outVertices, outIndices, targetTriangles,
                    aggressiveness, normalize);
}

} // namespace common
