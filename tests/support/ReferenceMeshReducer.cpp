#include "support/ReferenceMeshReducer.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace testing_support {

namespace {

struct Vertex {
    bool border = false;
    uint32_t firstRef = 0;
    uint32_t refCount = 0;
    float p[3] = {0, 0, 0};
    float q[10] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}; // aa ab ac ad bb bc bd cc cd dd
};

struct Triangle {
    bool deleted = false;
    bool dirty = false;
    uint32_t v[3] = {0, 0, 0};
    float error[3] = {0, 0, 0};
    float normal[3] = {0, 0, 0};
};

struct Ref {
    uint32_t triangle, corner;
};

float dot(const float* a, const float* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

void cross(const float* a, const float* b, float* out) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

void normalize(float* a) {
    const float length = std::sqrt(dot(a, a));
    if (length != 0.0f)
        for (int k = 0; k < 3; ++k) a[k] /= length;
}

// Cofactor expansion in the order the library's results are defined by.
float det3(float a11, float a12, float a13, float a21, float a22, float a23, float a31, float a32, float a33) {
    return a11 * a22 * a33 + a13 * a21 * a32 + a12 * a23 * a31 - a13 * a22 * a31 - a11 * a23 * a32 - a12 * a21 * a33;
}

float vertexError(const float* q, float x, float y, float z) {
    return q[0] * x * x + 2 * q[1] * x * y + 2 * q[2] * x * z + 2 * q[3] * x + q[4] * y * y + 2 * q[5] * y * z +
           2 * q[6] * y + q[7] * z * z + 2 * q[8] * z + q[9];
}

class Reducer {
public:
    std::vector<Triangle> triangles;
    std::vector<Vertex> vertices;
    std::vector<Ref> refs;

    float calculateError(uint32_t i0, uint32_t i1, float* result) {
        float q[10];
        for (int k = 0; k < 10; ++k) q[k] = vertices[i0].q[k] + vertices[i1].q[k];
        if (!(vertices[i0].border && vertices[i1].border)) {
            const float det = det3(q[0], q[1], q[2], q[1], q[4], q[5], q[2], q[5], q[7]);
            if (det != 0.0f) {
                result[0] = -1 / det * det3(q[1], q[2], q[3], q[4], q[5], q[6], q[5], q[7], q[8]);
                result[1] = 1 / det * det3(q[0], q[2], q[3], q[1], q[5], q[6], q[2], q[7], q[8]);
                result[2] = -1 / det * det3(q[0], q[1], q[3], q[1], q[4], q[6], q[2], q[5], q[8]);
                return vertexError(q, result[0], result[1], result[2]);
            }
        }
        const float* a = vertices[i0].p;
        const float* b = vertices[i1].p;
        const float mid[3] = {(a[0] + b[0]) * 0.5f, (a[1] + b[1]) * 0.5f, (a[2] + b[2]) * 0.5f};
        const float e0 = vertexError(q, a[0], a[1], a[2]);
        const float e1 = vertexError(q, b[0], b[1], b[2]);
        const float e2 = vertexError(q, mid[0], mid[1], mid[2]);
        const float inner = e2 < e1 ? e2 : e1;
        const float m = inner < e0 ? inner : e0;
        if (e0 == m)
            std::copy(a, a + 3, result);
        else if (e1 == m)
            std::copy(b, b + 3, result);
        else if (e2 == m)
            std::copy(mid, mid + 3, result);
        return m;
    }

    void computeErrors(Triangle& t) {
        float unused[3];
        for (int j = 0; j < 3; ++j) t.error[j] = calculateError(t.v[j], t.v[(j + 1) % 3], unused);
    }

    bool flipped(const float* p, uint32_t otherEnd, const Vertex& v, std::vector<bool>& flags) {
        if (p[0] == v.p[0] && p[1] == v.p[1] && p[2] == v.p[2]) return false;
        for (uint32_t k = 0; k < v.refCount; ++k) {
            const Ref r = refs[v.firstRef + k];
            const Triangle& t = triangles[r.triangle];
            if (t.deleted) continue;
            const uint32_t a = t.v[(r.corner + 1) % 3], b = t.v[(r.corner + 2) % 3];
            if (a == otherEnd || b == otherEnd) {
                flags[k] = true;
                continue;
            }
            float d1[3], d2[3], n[3];
            for (int c = 0; c < 3; ++c) d1[c] = vertices[a].p[c] - p[c], d2[c] = vertices[b].p[c] - p[c];
            normalize(d1);
            normalize(d2);
            if (std::fabs(dot(d1, d2)) > 0.999f) return true;
            flags[k] = false;
            cross(d1, d2, n);
            normalize(n);
            if (dot(n, t.normal) < 0.2f) return true;
        }
        return false;
    }

    // The flagged triangles around v vanish; the others now meet at i0 and
    // are listed again at the end of refs.
    void updateTriangles(uint32_t i0, const Vertex& v, const std::vector<bool>& flags, uint32_t& deletedTriangles) {
        const std::vector<Ref> around(refs.begin() + long(v.firstRef), refs.begin() + long(v.firstRef + v.refCount));
        for (size_t k = 0; k < around.size(); ++k) {
            Triangle& t = triangles[around[k].triangle];
            if (t.deleted) continue;
            t.deleted = flags[k];
            deletedTriangles += flags[k] ? 1 : 0;
            if (t.deleted) continue;
            t.v[around[k].corner] = i0;
            t.dirty = true;
            computeErrors(t);
            refs.push_back(around[k]);
        }
    }

    void refresh(int iteration) {
        if (iteration > 0) {
            std::vector<Triangle> kept;
            for (const Triangle& t : triangles)
                if (!t.deleted) kept.push_back(t);
            triangles = kept;
        }
        if (iteration == 0) {
            for (Vertex& v : vertices) std::fill(v.q, v.q + 10, 0.0f);
            for (Triangle& t : triangles) {
                const float* p0 = vertices[t.v[0]].p;
                float e1[3], e2[3];
                for (int c = 0; c < 3; ++c)
                    e1[c] = vertices[t.v[1]].p[c] - p0[c], e2[c] = vertices[t.v[2]].p[c] - p0[c];
                cross(e1, e2, t.normal);
                normalize(t.normal);
                const float a = t.normal[0], b = t.normal[1], c = t.normal[2], d = -dot(t.normal, p0);
                const float plane[10] = {a * a, a * b, a * c, a * d, b * b, b * c, b * d, c * c, c * d, d * d};
                for (const uint32_t corner : t.v)
                    for (int k = 0; k < 10; ++k) vertices[corner].q[k] += plane[k];
            }
            for (Triangle& t : triangles) computeErrors(t);
        }
        for (Vertex& v : vertices) v.firstRef = v.refCount = 0;
        for (const Triangle& t : triangles)
            for (const uint32_t corner : t.v) ++vertices[corner].refCount;
        uint32_t running = 0;
        for (Vertex& v : vertices) {
            v.firstRef = running;
            running += v.refCount;
            v.refCount = 0;
        }
        refs.resize(triangles.size() * 3);
        for (uint32_t i = 0; i < triangles.size(); ++i)
            for (uint32_t j = 0; j < 3; ++j) {
                Vertex& v = vertices[triangles[i].v[j]];
                refs[v.firstRef + v.refCount++] = Ref{i, j};
            }
        if (iteration == 0) {
            for (Vertex& v : vertices) v.border = false;
            for (const Vertex& v : vertices) {
                std::vector<std::pair<uint32_t, int>> seen; // index, occurrences; first-seen order
                for (uint32_t k = 0; k < v.refCount; ++k)
                    for (const uint32_t id : triangles[refs[v.firstRef + k].triangle].v) {
                        size_t s = 0;
                        while (s < seen.size() && seen[s].first != id) ++s;
                        if (s == seen.size()) seen.emplace_back(id, 0);
                        ++seen[s].second;
                    }
                for (const auto& s : seen)
                    if (s.second == 1) vertices[s.first].border = true;
            }
        }
    }
};

} // namespace

void referenceReduce(const float* inVertices, const uint16_t* inIndices, uint32_t vertexCount, uint32_t indexCount,
                     std::vector<common::float4>& outVertices, std::vector<uint32_t>& outIndices,
                     uint32_t targetTriangles, float aggressiveness, bool normalize) {
    if (!inVertices || !inIndices || vertexCount == 0 || indexCount == 0 || targetTriangles == 0) return;
    const uint32_t triangleCount = indexCount / 3;
    for (uint32_t i = 0; i < triangleCount * 3; ++i)
        if (inIndices[i] >= vertexCount) return;

    Reducer r;
    r.vertices.resize(vertexCount);
    for (uint32_t i = 0; i < vertexCount; ++i)
        for (int c = 0; c < 3; ++c) r.vertices[i].p[c] = inVertices[3 * i + uint32_t(c)];
    r.triangles.resize(triangleCount);
    for (uint32_t t = 0; t < triangleCount; ++t)
        for (int j = 0; j < 3; ++j) r.triangles[t].v[j] = inIndices[3 * t + uint32_t(j)];

    float scale = 1.0f;
    if (normalize) {
        float lo[3], hi[3];
        for (int c = 0; c < 3; ++c) lo[c] = hi[c] = r.vertices[0].p[c];
        for (const Vertex& v : r.vertices)
            for (int c = 0; c < 3; ++c) lo[c] = std::min(lo[c], v.p[c]), hi[c] = std::max(hi[c], v.p[c]);
        scale = std::max(hi[0] - lo[0], std::max(hi[1] - lo[1], hi[2] - lo[2]));
        if (scale != 1.0f && scale != 0.0f) {
            for (Vertex& v : r.vertices)
                for (float& c : v.p) c *= 1 / scale;
        } else {
            scale = 1.0f;
        }
    }

    uint32_t deletedTriangles = 0;
    std::vector<bool> flags0, flags1;
    for (int iteration = 0; iteration < 100; ++iteration) {
        if (triangleCount - deletedTriangles <= targetTriangles) break;
        if (iteration % 5 == 0) r.refresh(iteration);
        for (Triangle& t : r.triangles) t.dirty = false;
        const auto threshold = float(std::pow(double(iteration + 3), double(aggressiveness)) * 9.999999717180685e-10);
        for (Triangle& t : r.triangles) {
            if (t.deleted || t.dirty) continue;
            if (t.error[0] > threshold && t.error[1] > threshold && t.error[2] > threshold) continue;
            for (int j = 0; j < 3; ++j) {
                if (t.error[j] < threshold) {
                    const uint32_t i0 = t.v[j], i1 = t.v[(j + 1) % 3];
                    Vertex& v0 = r.vertices[i0];
                    Vertex& v1 = r.vertices[i1];
                    if (v0.border != v1.border) continue;
                    float p[3];
                    r.calculateError(i0, i1, p);
                    flags0.resize(v0.refCount);
                    flags1.resize(v1.refCount);
                    if (r.flipped(p, i1, v0, flags0) || r.flipped(p, i0, v1, flags1)) continue;
                    std::copy(p, p + 3, v0.p);
                    for (int k = 0; k < 10; ++k) v0.q[k] += v1.q[k];
                    const size_t start = r.refs.size();
                    r.updateTriangles(i0, v0, flags0, deletedTriangles);
                    r.updateTriangles(i0, v1, flags1, deletedTriangles);
                    const size_t n = r.refs.size() - start;
                    if (n <= v0.refCount) {
                        std::copy(r.refs.begin() + long(start), r.refs.end(), r.refs.begin() + long(v0.firstRef));
                    } else {
                        v0.firstRef = uint32_t(start);
                    }
                    v0.refCount = uint32_t(n);
                    break;
                }
                if (triangleCount - deletedTriangles <= targetTriangles) break;
            }
        }
    }

    // Final compaction.
    for (Vertex& v : r.vertices) v.refCount = 0;
    std::vector<Triangle> kept;
    for (const Triangle& t : r.triangles)
        if (!t.deleted) {
            kept.push_back(t);
            for (const uint32_t corner : t.v) r.vertices[corner].refCount = 1;
        }
    uint32_t used = 0;
    for (uint32_t i = 0; i < r.vertices.size(); ++i) {
        if (r.vertices[i].refCount == 0) continue;
        r.vertices[i].firstRef = used;
        std::copy(r.vertices[i].p, r.vertices[i].p + 3, r.vertices[used].p);
        ++used;
    }
    for (Triangle& t : kept)
        for (uint32_t& corner : t.v) corner = r.vertices[corner].firstRef;
    r.vertices.resize(used);
    if (normalize && scale != 0.0f && scale != 1.0f)
        for (Vertex& v : r.vertices)
            for (float& c : v.p) c *= scale;

    if (r.vertices.empty() || kept.empty()) return;
    outVertices.clear();
    for (const Vertex& v : r.vertices) outVertices.push_back(common::make4(v.p[0], v.p[1], v.p[2], 1.0f));
    outIndices.clear();
    for (const Triangle& t : kept) outIndices.insert(outIndices.end(), t.v, t.v + 3);
}

} // namespace testing_support
