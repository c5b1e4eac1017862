// The read-only views tools and benchmarks take of the engine, on a 16 x 16
// engine and one quad over the top rows of the screen.
#include "engine/ZELKDiagnostics.h"
#include "support/BakeThroughFrames.h"
#include "support/TestMeshes.h"
#include "zelk.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

using testing_support::Mesh;
using ZELK::ZELKDiagnostics;

namespace {

constexpr uint32_t kSize = 16;
const float kParams[4] = {};
// Clip = (x, y, z, 2): every point at w = 2, so screen x = x / 2 and y = y / 2.
const float kViewProjection[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 2};
// x in [-4, 4], y in [-4, 0], z = 0, moved up by 4 by kModel: the top half of
// the screen (picture rows 0..7, clip y up), past both sides; counter-clockwise
// on screen.
const Mesh kTopHalf = {{-4, -4, 0, 4, -4, 0, 4, 0, 0, -4, 0, 0}, {0, 1, 2, 0, 2, 3}};
const float kModel[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 4, 0, 1};
// The same from y = 0.5 (screen y 0.25, pixel row 10 of 16 counted from the
// bottom): picture rows 0..5, so that the masked buffer's tile rows 4..7 are
// only half covered and their depth sits in its working layer.
const Mesh kTopRows = {{-4, -3.5f, 0, 4, -3.5f, 0, 4, 0, 0, -4, 0, 0}, {0, 1, 2, 0, 2, 3}};

// The rapid buffer's code for depth s * (w - z) / w with z = 0 is the bits of
// s = (1 - 2^-12) * 2^-96 shifted right by 12, 0xF7FF, or one code less where
// the interpolated depth rounds under s (the code truncates). 0xF7FF decodes
// to s * 2^95 * (1 + 2^-12) = (1 - 2^-24) / 2; a code less is 2^-13 less.
constexpr double kQuadRapid = 0.5, kCodeStep = 1.0 / 8192;

void frame(RigidType rigid, const Mesh& mesh = kTopHalf) {
    ASSERT_EQ(1, zelkStartNewFrame(kParams, kViewProjection));
    ASSERT_EQ(1, zelkSubmitOccluder(mesh.vertices.data(), mesh.indices.data(), mesh.vertexCount(), mesh.indexCount(),
                                    rigid, kModel));
    ASSERT_EQ(1, zelkRenderOccluders());
}

// Expects one value within [topLow, topHigh] over picture rows 0..topRows-1
// and bottom over the rest.
template <typename T> void expectRows(const std::vector<T>& image, uint32_t topRows, double topLow, double topHigh,
                                      T bottom, const char* what) {
    ASSERT_EQ(size_t(kSize * kSize), image.size()) << what;
    EXPECT_LE(topLow, double(image[0])) << what;
    EXPECT_GE(topHigh, double(image[0])) << what;
    int wrong = 0;
    for (uint32_t y = 0; y < kSize; ++y)
        for (uint32_t x = 0; x < kSize; ++x) wrong += image[y * kSize + x] != (y < topRows ? image[0] : bottom);
    EXPECT_EQ(0, wrong) << what;
}

struct DiagnosticsFixture : ::testing::Test {
    void SetUp() override { zelkDestroy(); }
    void TearDown() override { zelkDestroy(); }
};

} // namespace

TEST_F(DiagnosticsFixture, WithoutAnEngineEverythingIsEmpty) {
    std::vector<float> depth(5, 1.0f);
    std::vector<uint16_t> codes(5, 1);
    const float box[6] = {-1, -1, -1, 1, 1, 1};
    EXPECT_FALSE(ZELKDiagnostics::hasEngine());
    EXPECT_EQ(0u, ZELKDiagnostics::width());
    EXPECT_EQ(0u, ZELKDiagnostics::height());
    const ZELKDiagnostics::FrameStats stats = ZELKDiagnostics::frameStats();
    EXPECT_EQ(0, stats.frameIndex);
    EXPECT_EQ(0u, stats.plainCount + stats.rapidCount + stats.rawOccluders + stats.cachedOccluders);
    ZELKDiagnostics::maskedDepth(depth);
    EXPECT_TRUE(depth.empty());
    depth.assign(5, 1.0f);
    ZELKDiagnostics::rapidDepth(depth);
    EXPECT_TRUE(depth.empty());
    ZELKDiagnostics::rapidDepthCodes(codes);
    EXPECT_TRUE(codes.empty());
    EXPECT_FALSE(ZELKDiagnostics::rapidBufferHides(box));
    EXPECT_FALSE(ZELKDiagnostics::isCached(kTopHalf.vertices.data(), kTopHalf.indices.data()));
    EXPECT_FALSE(ZELKDiagnostics::loaderIdle());
    // None of them made an engine.
    EXPECT_FALSE(ZELKDiagnostics::hasEngine());
}

TEST_F(DiagnosticsFixture, RawQuadFillsTheTopRowsOfTheMaskedImage) {
    ASSERT_EQ(1, zelkInit(kSize, kSize, 0.1f));
    EXPECT_TRUE(ZELKDiagnostics::hasEngine());
    EXPECT_EQ(kSize, ZELKDiagnostics::width());
    EXPECT_EQ(kSize, ZELKDiagnostics::height());
    EXPECT_TRUE(ZELKDiagnostics::loaderIdle()); // nothing queued yet

    frame(ZELK_NON_RIGID, kTopRows);
    frame(ZELK_NON_RIGID, kTopRows);
    const ZELKDiagnostics::FrameStats stats = ZELKDiagnostics::frameStats();
    EXPECT_EQ(2, stats.frameIndex);
    EXPECT_EQ(1u, stats.plainCount);
    EXPECT_EQ(0u, stats.rapidCount);
    EXPECT_EQ(1u, stats.rawOccluders);
    EXPECT_EQ(0u, stats.cachedOccluders);

    std::vector<float> depth;
    ZELKDiagnostics::maskedDepth(depth);
    // One Newton step on NEON's 8-bit reciprocal estimate leaves about 2^-16.
    expectRows(depth, 6, 0.5 - 2e-5, 0.5 + 2e-5, 0.0f, "masked: 1/w with w = 2");
    ZELKDiagnostics::rapidDepth(depth);
    expectRows(depth, 8, 0.0, 0.0, 0.0f, "rapid: nothing cached");
    // No cached group drawn: the rapid buffer decides nothing.
    const float behind[6] = {-1, 1, 0.5f, 1, 3, 1};
    EXPECT_FALSE(ZELKDiagnostics::rapidBufferHides(behind));
    EXPECT_FALSE(ZELKDiagnostics::isCached(kTopHalf.vertices.data(), kTopHalf.indices.data()));
}

TEST_F(DiagnosticsFixture, BakedQuadFillsTheTopHalfOfTheRapidImage) {
    ASSERT_EQ(1, zelkInit(kSize, kSize, 0.1f));
    frame(ZELK_RIGID);
    ASSERT_TRUE(testing_support::bakeThroughFrames([] { frame(ZELK_RIGID); }, 30.0));
    EXPECT_TRUE(ZELKDiagnostics::isCached(kTopHalf.vertices.data(), kTopHalf.indices.data()));
    EXPECT_FALSE(ZELKDiagnostics::isCached(kTopHalf.vertices.data(), nullptr));
    const ZELKDiagnostics::FrameStats stats = ZELKDiagnostics::frameStats();
    EXPECT_EQ(0u, stats.plainCount);
    EXPECT_EQ(1u, stats.rapidCount);
    EXPECT_EQ(0u, stats.rawOccluders);
    EXPECT_EQ(1u, stats.cachedOccluders);
    // The loader counts the mesh done just after caching it.
    for (int i = 0; i < 3000 && !ZELKDiagnostics::loaderIdle(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(ZELKDiagnostics::loaderIdle());

    std::vector<uint16_t> codes;
    ZELKDiagnostics::rapidDepthCodes(codes);
    expectRows(codes, 8, 0xF7FE, 0xF7FF, uint16_t(0), "rapid codes");
    std::vector<float> depth;
    ZELKDiagnostics::rapidDepth(depth);
    expectRows(depth, 8, kQuadRapid - 2 * kCodeStep, kQuadRapid, 0.0f, "rapid depth");
    ZELKDiagnostics::maskedDepth(depth);
    expectRows(depth, 8, 0.0, 0.0, 0.0f, "masked: nothing drawn raw");

    // World boxes against the quad at z = 0 (larger z is farther): behind it
    // in the top half, below it, and in front of it. Asked before any batch
    // query, so at the frame's camera, not the last group's. The batch query,
    // with only the rapid buffer drawn, gives the same answers.
    const float boxes[18] = {-1, 1, 0.5f, 1, 3, 1, -1, -3, 0.5f, 1, -1, 1, -1, 1, -1, 1, 3, -0.5f};
    const bool hides[3] = {true, false, false};
    for (int b = 0; b < 3; ++b) EXPECT_EQ(hides[b], ZELKDiagnostics::rapidBufferHides(&boxes[6 * b])) << b;
    bool visible[3];
    ASSERT_EQ(1, zelkBatchQuery(boxes, 3, visible));
    for (int b = 0; b < 3; ++b) EXPECT_EQ(!hides[b], visible[b]) << b;
    EXPECT_FALSE(ZELKDiagnostics::rapidBufferHides(nullptr));
}
