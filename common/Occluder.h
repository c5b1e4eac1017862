#pragma once

#include "common/Simd.h"

#include <vector>

namespace common {

// One baked level of detail: quads quantised into 32-bit words
// (X:11 | Y:11 | Z:10 bits relative to [refMin, refMax]), four quads per batch
// in corner-major order so that a rasteriser decodes four quads per vector.
// Immutable once built; shared between the baking and the render thread.
struct Occluder {
    float4 center; // (boundsMin + boundsMax) / 2, w = 1
    float4 refMin; // quantisation box
    float4 refMax;
    float4 boundsMin; // w = 1
    float4 boundsMax; // w = 1
    std::vector<int4> packedVertices;
};

} // namespace common
