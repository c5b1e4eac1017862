#pragma once

#include "common/Simd.h"

namespace util {

// The transforms of one model-view-projection matrix: clip rows for the
// frustum planes, and the clip-to-screen columns that map a local point to
// (x*w, y*w, D*w, w) in pixels and premultiplied depth.
struct alignas(16) RasterizerLocalToClip {
    common::float4 clipRows[4];      // row i: clip coordinate i = dot(row, (x, y, z, 1))
    common::float4 screenColumns[4]; // x*col0 + y*col1 + z*col2 + col3
    common::float4 frustumPlanes[6]; // left, right, bottom, top, near, far; inside: dot >= 0

    RasterizerLocalToClip();

    // Planes from the clip rows: w + x, w - x, w + y, w - y, w + z, w - z.
    void calcFrustum();
};

} // namespace util
