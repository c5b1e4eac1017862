#include "common/OccluderBaker.h"

#include "common/ErrorBoundedReducer.h"
#include "common/MeshReducer.h"
#include "common/QuadDecomposition.h"

#include <algorithm>
#include <cmath>

namespace common {

namespace {

// Below this many vertices a level is not worth reducing: the mesh itself is
// baked and no coarser level follows.
constexpr float kMinReducedVertices = 300.0f;
// Whole batches of four quads for the packer.
constexpr size_t kBatchIndices = 16;

// Spreads the low 10 bits of v to every third bit.
uint32_t spread(uint32_t v) {
    v &= 0x3FF;
    v = (v | (v << 16)) & 0x030000FF;
    v = (v | (v << 8)) & 0x0300F00F;
    v = (v | (v << 4)) & 0x030C30C3;
    return (v | (v << 2)) & 0x09249249;
}

// Orders the quads (four indices each) by the Morton code of their centres
// in the mesh's box, so that runs of consecutive quads are compact pieces of
// surface (the rasteriser culls such runs whole). Equal codes keep their
// order. A non-finite centre sorts last.
void orderAlongCurve(std::vector<uint32_t>& quads, const std::vector<float4>& vertices) {
    const size_t count = quads.size() / 4;
    if (count < 2 || vertices.empty()) return;
    float4 lo = splat(INFINITY), hi = splat(-INFINITY);
    for (const float4& v : vertices) {
        lo = min(lo, v);
        hi = max(hi, v);
    }
    const float4 scale = splat(1023.0f) / max(hi - lo, splat(1e-30f));
    std::vector<std::pair<uint32_t, uint32_t>> keys(count); // code, quad
    for (size_t q = 0; q < count; ++q) {
        float4 centre = zero4();
        for (size_t k = 0; k < 4; ++k) centre = centre + vertices[quads[4 * q + k]];
        const float4 cell = (centre * splat(0.25f) - lo) * scale;
        uint32_t code = 0xFFFFFFFFu;
        if (allTrue(cmpEq(cell - cell, zero4()))) { // finite
            const int4 c = truncToInt(max(min(cell, splat(1023.0f)), zero4()));
            code = spread(uint32_t(lane<0>(c))) | spread(uint32_t(lane<1>(c))) << 1 | spread(uint32_t(lane<2>(c))) << 2;
        }
        keys[q] = {code, uint32_t(q)};
    }
    std::sort(keys.begin(), keys.end()); // code, then the quad's place: stable
    std::vector<uint32_t> sorted(quads.size());
    for (size_t q = 0; q < count; ++q)
        for (size_t k = 0; k < 4; ++k) sorted[4 * q + k] = quads[4 * size_t(keys[q].second) + k];
    quads.swap(sorted);
}

} // namespace

std::shared_ptr<OccluderGroup> OccluderBaker::bake(const MeshRef& mesh, const std::atomic<bool>* stop) {
    if (!mesh.valid()) return nullptr;
    auto group = std::make_shared<OccluderGroup>();
    for (unsigned lod = 0; lod < OccluderGroup::kLevelCount; ++lod) {
        if (stop != nullptr && *stop) return nullptr;
        const bool last = levelMesh(mesh, lod, levelVertices, levelIndices);
        group->addOccluder(bakeLevel(levelVertices, levelIndices, expanded), lod);
        if (last) break;
    }
    return group;
}

bool OccluderBaker::levelMesh(const MeshRef& mesh, unsigned lod, std::vector<float4>& vertices,
                              std::vector<uint32_t>& indices) {
    vertices.clear();
    indices.clear();
    const OccluderGroup::LODParam param = OccluderGroup::getLODParam(lod);
    const float target = param.ratio * float(mesh.vertexCount);
    const uint32_t vertexCount = mesh.usableVertexCount();
#if ZELK_CONSERVATIVE
    // Conservative levels keep occluders whole: every level is reduced within
    // an error bound that suits the screen size it is drawn at, open borders
    // stay in place, and flat regions fold down to a few triangles. The number
    // of levels follows the same rule as below.
    ErrorBoundedReducer::level(mesh.vertices, mesh.indices, vertexCount, mesh.usableIndexCount(), lod, vertices,
                               indices);
    return target < kMinReducedVertices;
#endif
    if (target < kMinReducedVertices) {
        vertices.resize(vertexCount);
        for (uint32_t v = 0; v < vertexCount; ++v) {
            const float* p = mesh.vertices + 3 * size_t(v);
            vertices[v] = make4(p[0], p[1], p[2], 1.0f);
        }
        indices.assign(mesh.indices, mesh.indices + mesh.triangleIndexCount());
        return true;
    }
    // The target counts vertices but is handed over as a triangle count,
    // which leaves each level about half the triangles its name suggests.
    MeshReducer::reduce(mesh.vertices, mesh.indices, vertexCount, mesh.usableIndexCount(), vertices, indices,
                        uint32_t(target), param.reducerParameter, true);
    return false;
}

std::shared_ptr<Occluder> OccluderBaker::bakeLevel(const std::vector<float4>& vertices,
                                                   const std::vector<uint32_t>& indices,
                                                   std::vector<float4>& expanded) {
    std::vector<uint32_t> quads = QuadDecomposition::decompose(indices, vertices);
    if (ZELK_CONSERVATIVE) orderAlongCurve(quads, vertices);
    if (!quads.empty()) quads.resize((quads.size() + kBatchIndices - 1) / kBatchIndices * kBatchIndices, quads[0]);

    float4 lo = zero4(), hi = zero4();
    if (!vertices.empty()) {
        lo = splat(INFINITY);
        hi = splat(-INFINITY);
        for (const float4& v : vertices) {
            lo = min(lo, v);
            hi = max(hi, v);
        }
    }
    expanded.resize(quads.size());
    for (size_t i = 0; i < quads.size(); ++i) expanded[i] = vertices[quads[i]];
    return Occluder::bake(expanded, lo, hi);
}

} // namespace common
