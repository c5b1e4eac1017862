#pragma once

#include "common/MeshRef.h"
#include "common/Occluder.h"
#include "common/OccluderGroup.h"
#include "common/Simd.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace common {

// Turns a host mesh into its group of baked levels: each level reduced (or
// the mesh itself), paired into quads and packed. No thread of its own; the
// background loader runs it, and tests call it directly. One baker reuses its
// scratch storage from mesh to mesh, so it is not to be shared between threads.
class OccluderBaker {
public:
    // Every level, most detailed first, or null when the mesh breaks the index
    // rule or stop becomes true (checked between levels: a stopping engine
    // discards the bake, so finishing the mesh would only delay the join).
    std::shared_ptr<OccluderGroup> bake(const MeshRef& mesh, const std::atomic<bool>* stop = nullptr);

    // The mesh of level lod: reduced to (ratio of the level) x vertexCount
    // triangles, or, when that target is under 300, the mesh itself as given
    // (w = 1), which makes it the last level. Returns true for the latter.
    static bool levelMesh(const MeshRef& mesh, unsigned lod, std::vector<float4>& vertices,
                          std::vector<uint32_t>& indices);

    // One level baked: paired into quads (padded to whole batches of four
    // with copies of the first index), expanded, and packed in the box of the
    // level's own vertices. expanded is scratch, passed in for its storage.
    static std::shared_ptr<Occluder> bakeLevel(const std::vector<float4>& vertices,
                                               const std::vector<uint32_t>& indices, std::vector<float4>& expanded);

private:
    std::vector<float4> levelVertices, expanded;
    std::vector<uint32_t> levelIndices;
};

} // namespace common
