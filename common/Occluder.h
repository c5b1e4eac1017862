#pragma once

#include "common/Simd.h"

#include <memory>
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
    // Conservative builds only: the same corners unquantised, x, y and z of a
    // batch's four quads per corner (twelve vectors a batch). Rounding to the
    // packed grid moves edges and depths by up to half a step of the box, which
    // on a whole game level is several pixels near the camera.
    std::vector<float4> exactCorners;
    // Conservative builds only: the box (w = 1) of each run of kClusterBatches
    // batches, the last run possibly shorter. The baker orders a level's
    // quads along a space-filling curve, so that a run is a compact piece of
    // surface that can be culled whole.
    static constexpr size_t kClusterBatches = 16;
    std::vector<float4> clusterMin, clusterMax;

    // vertices: four per quad (a count that is not a multiple of four loses
    // its tail). Zero-area quads are dropped; a last partial batch repeats its
    // last quad. Components of refMax - refMin may be zero (a flat level): that
    // axis then packs to 0 and decodes to refMin. The bounds cover the first
    // 4 * keptQuads input vertices, not the kept list.
    static std::shared_ptr<Occluder> bake(const std::vector<float4>& vertices, float4 refMin, float4 refMax);
};

} // namespace common
