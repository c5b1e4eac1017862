#pragma once

#include "common/Matrix4x4.h"
#include "common/MeshRef.h"

namespace common {

// One submitted occluder: the mesh, where it stands, and whether it may be
// baked. A plain value, copied into the frame's lists and the loader's queue.
struct OccluderRaw : MeshRef {
    Matrix4x4 model = Matrix4x4::zero(); // all zeros when the host gave none
    bool rigid = false;

    // Same arrays, counts, rigidity and an element-wise equal model matrix.
    bool operator==(const OccluderRaw& o) const {
        return vertices == o.vertices && vertexCount == o.vertexCount && indices == o.indices &&
               indexCount == o.indexCount && model == o.model && rigid == o.rigid;
    }
};

} // namespace common
