#pragma once

#include "common/Matrix4x4.h"

#include <cstdint>

namespace common {

// One submitted occluder. A plain value: it points at the host's arrays but
// never owns them; (vertices, indices) is the mesh's identity across frames.
struct OccluderRaw {
    const float* vertices = nullptr; // 3 floats per vertex
    uint32_t vertexCount = 0;
    const uint16_t* indices = nullptr; // 3 per triangle
    uint32_t indexCount = 0;
    Matrix4x4 model = Matrix4x4::zero(); // all zeros when the host gave none
    bool rigid = false;

    // Same arrays, counts, rigidity and an element-wise equal model matrix.
    bool operator==(const OccluderRaw& o) const {
        return vertices == o.vertices && vertexCount == o.vertexCount && indices == o.indices &&
               indexCount == o.indexCount && model == o.model && rigid == o.rigid;
    }
};

} // namespace common
