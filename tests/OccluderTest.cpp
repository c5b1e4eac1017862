#include "common/Occluder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using common::float4;
using common::make4;
using common::Occluder;

namespace {

uint32_t word(const Occluder& o, size_t vector, int laneIndex) {
    return uint32_t(common::lane(o.packedVertices[vector], laneIndex));
}

void addQuad(std::vector<float4>& v, float4 a, float4 b, float4 c, float4 d) { v.insert(v.end(), {a, b, c, d}); }

} // namespace

TEST(Occluder, PacksFieldsInBatchesOfFourQuadsCornerMajor) {
    const float4 lo = make4(-1, 0, 2, 1), hi = make4(3, 8, 4, 1);
    const float4 mid = make4(1, 4, 3, 1); // t = 0.5 on every axis
    std::vector<float4> v;
    // Quad 0 spans the box corners; quads 1..4 are unit squares whose corner 0
    // moves along x so that each lane can be told apart.
    addQuad(v, lo, make4(3, 0, 2, 1), hi, mid);
    for (int q = 1; q <= 4; ++q) {
        const float x = -1.0f + 0.5f * float(q);
        addQuad(v, make4(x, 0, 2, 1), make4(x + 0.5f, 0, 2, 1), make4(x + 0.5f, 1, 2, 1), make4(x, 1, 2, 1));
    }
    const auto o = Occluder::bake(v, lo, hi);
    ASSERT_EQ(8u, o->packedVertices.size()); // five quads: two batches, the second padded
    EXPECT_EQ(0u, word(*o, 0, 0));           // refMin
    EXPECT_EQ(0xFFE00000u, word(*o, 1, 0));  // x = refMax.x only: X = 2047 << 21
    EXPECT_EQ(0xFFFFFFFFu, word(*o, 2, 0));  // refMax
    // t = 0.5: X = Y = trunc(1023.5 + 0.5) = 1024, Z = trunc(511.5 + 0.5) = 512.
    EXPECT_EQ((1024u << 21) | (1024u << 10) | 512u, word(*o, 3, 0));
    // Lane j of vector k is corner k of quad j: corner 0 of quad q has
    // t.x = q / 8, so X = trunc(2047 q / 8 + 0.5).
    for (int q = 1; q <= 3; ++q) EXPECT_EQ(uint32_t(std::trunc(2047.0 * q / 8 + 0.5)) << 21, word(*o, 0, q));
    for (int j = 0; j < 4; ++j) // the last batch holds quad 4 in every lane
        EXPECT_EQ(uint32_t(std::trunc(2047.0 * 4 / 8 + 0.5)) << 21, word(*o, 4, j));
    EXPECT_EQ(word(*o, 6, 0), word(*o, 6, 3));
    // Bounds over every vertex (none dropped), w forced to 1.
    EXPECT_EQ(-1.0f, common::lane<0>(o->boundsMin));
    EXPECT_EQ(4.0f, common::lane<2>(o->boundsMax));
    EXPECT_EQ(1.0f, common::lane<3>(o->boundsMin));
    EXPECT_EQ(1.0f, common::lane<3>(o->center));
    EXPECT_EQ(4.0f, common::lane<1>(o->center));

    // Nothing is clamped: two steps below refMin, t.x * 2047 + 0.5 = -1.5
    // truncates to -1, whose sign bits fill the whole X field.
    const float step = 4.0f / 2047.0f;
    std::vector<float4> outside;
    const float4 p = make4(-1.0f - 2 * step, 0, 2, 1);
    addQuad(outside, p, make4(3, 0, 2, 1), hi, mid);
    EXPECT_EQ(0xFFE00000u, word(*Occluder::bake(outside, lo, hi), 0, 0));
}

TEST(Occluder, DropsZeroAreaQuadsAndTakesBoundsOverTheInputPrefix) {
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const float4 a = make4(0, 0, 0, 1), b = make4(1, 0, 0, 1), c = make4(1, 1, 0, 1), d = make4(0, 1, 0, 1);
    std::vector<float4> v;
    addQuad(v, a, a, a, a);                   // zero area: dropped
    addQuad(v, a, b, c, a);                   // a triangle given as a quad: kept
    addQuad(v, a, b, make4(nan, 1, 0, 1), d); // non-finite: dropped
    addQuad(v, make4(5, 5, 5, 1), make4(6, 5, 5, 1), make4(6, 7, 5, 1), make4(5, 7, 5, 1));
    addQuad(v, a, make4(1e-30f, 0, 0, 1), make4(0, 1e-30f, 0, 1), a); // area 1e-60: below float, dropped
    const auto o = Occluder::bake(v, make4(0, 0, 0, 1), make4(6, 7, 5, 1));
    ASSERT_EQ(4u, o->packedVertices.size()); // two kept quads, one batch
    // Kept: the triangle (lane 0) and the far square (lane 1, repeated in 2, 3).
    EXPECT_EQ(0u, word(*o, 0, 0));
    EXPECT_EQ(0xFFFFFFFFu, word(*o, 2, 1));
    EXPECT_EQ(word(*o, 2, 1), word(*o, 2, 3));
    // Bounds: the first 8 input vertices (the dropped quad 0 and the triangle).
    EXPECT_EQ(0.0f, common::lane<0>(o->boundsMin));
    EXPECT_EQ(1.0f, common::lane<0>(o->boundsMax));
    EXPECT_EQ(1.0f, common::lane<1>(o->boundsMax));

    // A flat level (a wall at z = 2: refMax.z == refMin.z) packs z to 0.
    std::vector<float4> wall;
    addQuad(wall, make4(0, 0, 2, 1), make4(4, 0, 2, 1), make4(4, 3, 2, 1), make4(0, 3, 2, 1));
    const auto flat = Occluder::bake(wall, make4(0, 0, 2, 1), make4(4, 3, 2, 1));
    ASSERT_EQ(4u, flat->packedVertices.size());
    EXPECT_EQ(0xFFFFFC00u, word(*flat, 2, 0)); // X = Y = 2047, Z = 0

    const auto empty = Occluder::bake({}, make4(0, 0, 0, 1), make4(1, 1, 1, 1));
    EXPECT_TRUE(empty->packedVertices.empty());
    EXPECT_EQ(inf, common::lane<0>(empty->boundsMin));
    EXPECT_EQ(-inf, common::lane<2>(empty->boundsMax));
    EXPECT_EQ(1.0f, common::lane<3>(empty->boundsMax));
}
