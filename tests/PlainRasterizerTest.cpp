#include "util/PlainRasterizer.h"

#include "support/TestMeshes.h"
#include "util/MaskedOcclusionCulling.h"

#include <gtest/gtest.h>

using util::MaskedOcclusionCulling;
using util::PlainRasterizer;

namespace {

// clip = (x, y, 0, 1): object space is the screen in normalized coordinates.
common::Matrix4x4 flatScreen() {
    common::Matrix4x4 m = common::Matrix4x4::zero();
    m.columns[0] = common::make4(1, 0, 0, 0);
    m.columns[1] = common::make4(0, 1, 0, 0);
    m.columns[3] = common::make4(0, 0, 0, 1);
    return m;
}

bool anythingIn(const MaskedOcclusionCulling& m, int tileX0, int tileX1) {
    MaskedOcclusionCulling::TileData t;
    for (int ty = 0; m.ReadTile(0, ty, t); ++ty)
        for (int tx = tileX0; tx < tileX1; ++tx) {
            m.ReadTile(tx, ty, t);
            for (int lane = 0; lane < 4; ++lane)
                if (t.coverageMask[lane] != 0 || t.referenceDepth[lane] != -1.0f) return true;
        }
    return false;
}

} // namespace

TEST(PlainRasterizer, RendersWholeTrianglesOnly) {
    PlainRasterizer r;
    ASSERT_NE(r.masked(), nullptr);
    r.setResolution(192, 32);
    r.clear();
    r.setModelViewProjection(flatScreen());
    // Three triangles, counter-clockwise in normalized coordinates, one in
    // each third of the screen (tile columns 0-1, 2-3, 4-5).
    const float v[27] = {-0.95f, -0.9f, 0,    -0.4f, -0.9f, 0,     -0.7f, 0.9f,  0,     -0.3f, -0.9f, 0,    0.3f, -0.9f,
                         0,      0.0f,  0.9f, 0,     0.4f,  -0.9f, 0,     0.95f, -0.9f, 0,     0.7f,  0.9f, 0};
    const uint16_t idx[9] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    r.render(v, idx, 9, 2); // two indices: no whole triangle
    EXPECT_FALSE(anythingIn(*r.masked(), 0, 6));
    r.render(nullptr, idx, 9, 9);
    r.render(v, nullptr, 9, 9);
    EXPECT_FALSE(anythingIn(*r.masked(), 0, 6));
    r.render(v, idx, 9, 7); // 7 / 3 = 2 triangles
    EXPECT_TRUE(anythingIn(*r.masked(), 0, 2));
    EXPECT_TRUE(anythingIn(*r.masked(), 2, 4));
    EXPECT_FALSE(anythingIn(*r.masked(), 4, 6));
    // Clockwise ones are back faces and are skipped.
    const uint16_t reversed[3] = {8, 7, 6};
    r.render(v, reversed, 9, 3);
    EXPECT_FALSE(anythingIn(*r.masked(), 4, 6));
    EXPECT_EQ(r.masked()->RenderTriangles(v, idx, 9, 0), MaskedOcclusionCulling::OutsideView);
}

TEST(PlainRasterizer, BoxOccluderHidesWhatIsBehind) {
    PlainRasterizer r;
    r.setResolution(128, 64);
    r.setNearPlane(1.0f);
    r.clear();
    // Perspective looking down -z, 90 degrees vertically, aspect 2, near 1,
    // far 100: clip w = -z.
    common::Matrix4x4 proj = common::Matrix4x4::zero();
    proj.columns[0] = common::make4(0.5f, 0, 0, 0);
    proj.columns[1] = common::make4(0, 1, 0, 0);
    proj.columns[2] = common::make4(0, 0, -101.0f / 99.0f, -1);
    proj.columns[3] = common::make4(0, 0, -200.0f / 99.0f, 0);
    r.setModelViewProjection(proj);
    const testing_support::Mesh box = testing_support::makeBox(-2, -2, -6, 2, 2, -5);
    r.render(box.vertices.data(), box.indices.data(), int(box.vertexCount()), int(box.indexCount()));

    // The front face (w = 5) is what was drawn: depth 1/5 in the middle.
    MaskedOcclusionCulling::TileData t;
    ASSERT_TRUE(r.masked()->ReadTile(2, 8, t));
    EXPECT_NEAR(t.referenceDepth[0], 0.2f, 1e-4);

    const float behindLo[3] = {-0.5f, -0.5f, -10}, behindHi[3] = {0.5f, 0.5f, -9};
    const float frontLo[3] = {-0.5f, -0.5f, -4}, frontHi[3] = {0.5f, 0.5f, -3};
    const float sideLo[3] = {5, -0.5f, -10}, sideHi[3] = {6, 0.5f, -9};
    EXPECT_FALSE(r.query(behindLo, behindHi));
    EXPECT_TRUE(r.query(frontLo, frontHi));
    EXPECT_TRUE(r.query(sideLo, sideHi));
    EXPECT_FALSE(r.query(nullptr, behindHi));
    EXPECT_FALSE(r.query(frontLo, nullptr));

    r.clear();
    EXPECT_TRUE(r.query(behindLo, behindHi));
}
