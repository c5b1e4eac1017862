#pragma once

#include <cstddef>
#include <cstdint>

namespace common {

// A mesh's identity from frame to frame: the addresses of the host's vertex
// and index arrays, as a pair (one vertex array may serve several meshes).
struct MeshKey {
    const float* vertices = nullptr;
    const uint16_t* indices = nullptr;

    bool operator==(const MeshKey& o) const { return vertices == o.vertices && indices == o.indices; }
    bool operator!=(const MeshKey& o) const { return !(*this == o); }
};

// Mixes both addresses: meshes that share a vertex array must still spread.
struct MeshKeyHash {
    size_t operator()(const MeshKey& key) const noexcept;
};

// A host mesh as submitted: x, y, z per vertex and three 16-bit indices per
// triangle. It points at the host's arrays and never owns them. Every rule
// about what of a mesh the library reads lives here.
struct MeshRef {
    // 16-bit indices reach no further, so vertices past this count are never read.
    static constexpr uint32_t kMaxVertices = 65536;
    // The masked rasteriser counts indices in int; this is a whole number of triangles.
    static constexpr uint32_t kMaxIndices = 0x7FFFFFFE;

    const float* vertices = nullptr;
    uint32_t vertexCount = 0; // as given, so that a changed count reads as another submission
    const uint16_t* indices = nullptr;
    uint32_t indexCount = 0; // as given

    MeshKey key() const { return {vertices, indices}; }
    uint32_t usableVertexCount() const { return vertexCount < kMaxVertices ? vertexCount : kMaxVertices; }
    uint32_t usableIndexCount() const { return indexCount < kMaxIndices ? indexCount : kMaxIndices; }
    // Whole triangles only: a trailing partial triangle is never drawn or baked.
    uint32_t triangleIndexCount() const { return usableIndexCount() / 3 * 3; }

    // The one index rule: both arrays present, at least one vertex, and every
    // index given (a trailing partial triangle's too) below vertexCount. A
    // mesh with no whole triangle is valid and covers nothing.
    bool valid() const;
};

} // namespace common
