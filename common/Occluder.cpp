#include "common/Occluder.h"

#include <algorithm>
#include <cfloat>

namespace common {

namespace {

// A quad is kept when its normal (the sum of its two triangles' cross
// products) can be normalised: finite, and a squared length in the normal
// float range. Normalising with the hardware estimate gives exactly this
// split on NEON except for denormal squared lengths, where x86's estimate
// differs; deciding on the length itself keeps every backend alike.
bool hasArea(float4 c0, float4 c1, float4 c2, float4 c3) {
    const float4 d1 = c1 - c0, d2 = c2 - c0, d3 = c3 - c0;
    const float4 n = cross3(d1, d2) + cross3(d2, d3);
    const float4 nxyz = n * make4(1.0f, 1.0f, 1.0f, 0.0f);
    if (!allTrue(cmpEq(nxyz - nxyz, zero4()))) return false; // inf or NaN component
    const float lengthSquared = dot3(n, n);
    return lengthSquared >= FLT_MIN; // +inf passes: the estimate's 0 keeps it finite
}

// Corner k of four quads, transposed to x, y, z rows, quantised and packed.
int4 packCorners(float4 v0, float4 v1, float4 v2, float4 v3, float4 refMin, float4 scale) {
    transpose(v0, v1, v2, v3); // v0..v2: the x, y, z rows
    const float4 half = splat(0.5f);
    // (v - refMin) * s * steps + 0.5, truncated; saturating, so a flat axis
    // (0 * inf = NaN) packs to 0.
    const int4 x = truncToInt((v0 - splatLane<0>(refMin)) * splatLane<0>(scale) * splat(2047.0f) + half);
    const int4 y = truncToInt((v1 - splatLane<1>(refMin)) * splatLane<1>(scale) * splat(2047.0f) + half);
    const int4 z = truncToInt((v2 - splatLane<2>(refMin)) * splatLane<2>(scale) * splat(1023.0f) + half);
    return shiftLeft<21>(x) | shiftLeft<10>(y) | z; // nothing clamped: out-of-box values spill
}

} // namespace

std::shared_ptr<Occluder> Occluder::bake(const std::vector<float4>& vertices, float4 refMin, float4 refMax) {
    const size_t quadCount = vertices.size() / 4;
    std::vector<uint32_t> kept;
    kept.reserve(quadCount);
    for (size_t q = 0; q < quadCount; ++q) {
        const float4* c = &vertices[4 * q];
        if (hasArea(c[0], c[1], c[2], c[3])) kept.push_back(uint32_t(q));
    }

    auto occluder = std::make_shared<Occluder>();
    occluder->refMin = refMin;
    occluder->refMax = refMax;
    const float4 scale = splat(1.0f) / (refMax - refMin);
    const size_t batches = (kept.size() + 3) / 4;
    occluder->packedVertices.resize(4 * batches);
    if (ZELK_CONSERVATIVE) occluder->exactCorners.resize(12 * batches);
    for (size_t b = 0; b < batches; ++b) {
        const float4* quads[4];
        for (size_t j = 0; j < 4; ++j) {
            // A missing lane of the last batch repeats the last kept quad.
            const size_t k = 4 * b + j < kept.size() ? 4 * b + j : kept.size() - 1;
            quads[j] = &vertices[4 * size_t(kept[k])];
        }
        for (size_t corner = 0; corner < 4; ++corner)
            occluder->packedVertices[4 * b + corner] =
                packCorners(quads[0][corner], quads[1][corner], quads[2][corner], quads[3][corner], refMin, scale);
        if (ZELK_CONSERVATIVE) {
            for (size_t corner = 0; corner < 4; ++corner) {
                float4 c[4] = {quads[0][corner], quads[1][corner], quads[2][corner], quads[3][corner]};
                transpose(c[0], c[1], c[2], c[3]); // x, y, z, w of the four quads
                for (size_t component = 0; component < 3; ++component)
                    occluder->exactCorners[12 * b + 3 * corner + component] = c[component];
            }
        }
    }

    if (ZELK_CONSERVATIVE) {
        const float4 wOne = make4(0.0f, 0.0f, 0.0f, 1.0f);
        const int4 xyz = makeInt4(-1, -1, -1, 0);
        for (size_t first = 0; first < kept.size(); first += 4 * kClusterBatches) {
            float4 lo = splat(INFINITY), hi = splat(-INFINITY);
            for (size_t k = first; k < std::min(first + 4 * kClusterBatches, kept.size()); ++k)
                for (size_t corner = 0; corner < 4; ++corner) {
                    lo = min(lo, vertices[4 * size_t(kept[k]) + corner]);
                    hi = max(hi, vertices[4 * size_t(kept[k]) + corner]);
                }
            occluder->clusterMin.push_back(select(xyz, lo, wOne));
            occluder->clusterMax.push_back(select(xyz, hi, wOne));
        }
    }

    float4 lo = splat(INFINITY), hi = splat(-INFINITY);
    for (size_t i = 0; i < 4 * kept.size(); ++i) {
        lo = min(lo, vertices[i]);
        hi = max(hi, vertices[i]);
    }
    const float4 wOne = make4(0.0f, 0.0f, 0.0f, 1.0f);
    const int4 xyz = makeInt4(-1, -1, -1, 0);
    occluder->boundsMin = select(xyz, lo, wOne);
    occluder->boundsMax = select(xyz, hi, wOne);
    occluder->center = (occluder->boundsMin + occluder->boundsMax) * splat(0.5f);
    return occluder;
}

} // namespace common
