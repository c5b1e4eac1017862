// The mesh stages on arbitrary meshes: reduction with any target, threshold
// exponent and normalisation, then quad decomposition of its output and of
// the raw input, and every second input the whole baker as the loader runs
// it. Checks the outputs' shape: every index in range, whole triangles and
// quads, a group exactly for the meshes the index rule accepts.
#include "FuzzStream.h"
#include "common/MeshReducer.h"
#include "common/OccluderBaker.h"
#include "common/QuadDecomposition.h"

#include <algorithm>
#include <cstdlib>

using namespace fuzzing;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

void decomposeAndCheck(const std::vector<uint32_t>& indices, const std::vector<common::float4>& vertices) {
    const std::vector<uint32_t> quads = common::QuadDecomposition::decompose(indices, vertices);
    require(quads.size() % 4 == 0);
    for (uint32_t i : quads) require(i < vertices.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    const uint8_t flags = in.u8();
    const uint32_t target = in.u32();
    const float aggressiveness = in.f32();
    const Mesh mesh = readMesh(in);
    const uint32_t vertexCount = uint32_t(mesh.vertices.size() / 3);
    // Bytes past the input read as zeros, so a large index count is mostly
    // triangles (0, 0, 0), and each collapse next to such a pile walks all of
    // it: a few seconds per input under the sanitizers. Only one input in
    // sixteen (flags bits 4-7 all set) keeps such a count.
    const uint32_t indexCount =
        (flags & 0xF0) == 0xF0 ? uint32_t(mesh.indices.size()) : std::min(uint32_t(mesh.indices.size()), 3u * 2048u);

    std::vector<common::float4> outVertices;
    std::vector<uint32_t> outIndices;
    common::MeshReducer::reduce(mesh.vertices.empty() ? nullptr : mesh.vertices.data(),
                                mesh.indices.empty() ? nullptr : mesh.indices.data(), vertexCount, indexCount,
                                outVertices, outIndices, target, aggressiveness, flags & 1);
    require(outIndices.size() % 3 == 0);
    require(outIndices.size() / 3 <= indexCount / 3);
    for (uint32_t i : outIndices) require(i < outVertices.size());
    decomposeAndCheck(outIndices, outVertices);

    // The raw input, out-of-range indices included (the decomposition must
    // refuse them, not read past the vertices).
    std::vector<common::float4> vertices(vertexCount);
    for (uint32_t v = 0; v < vertexCount; ++v)
        vertices[v] = common::make4(mesh.vertices[3 * v], mesh.vertices[3 * v + 1], mesh.vertices[3 * v + 2], 1.0f);
    decomposeAndCheck(std::vector<uint32_t>(mesh.indices.begin(), mesh.indices.end()), vertices);

    if (flags & 2) {
        const common::MeshRef ref{mesh.vertices.empty() ? nullptr : mesh.vertices.data(), vertexCount,
                                  mesh.indices.empty() ? nullptr : mesh.indices.data(), indexCount};
        common::OccluderBaker baker;
        const auto group = baker.bake(ref);
        require((group != nullptr) == ref.valid());
        require(group == nullptr || group->getOccluder(1.0f) != nullptr);
    }
    return 0;
}
