// The exported functions' argument rules and the engine's lifetime.
#include "engine/ZELKPrivate.h"
#include "zelk.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <tuple>

using ZELK::ZELKPrivate;

namespace {

struct EngineFixture : ::testing::Test {
    void SetUp() override { zelkDestroy(); }
    void TearDown() override { zelkDestroy(); }
};

const float kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};

} // namespace

TEST_F(EngineFixture, SizeRulesLifetimeAndCacheOwnership) {
    EXPECT_EQ(1, zelkDestroy()); // none exists
    EXPECT_EQ(0, zelkConfig(0, 8, 0.1f));
    EXPECT_EQ(nullptr, ZELKPrivate::peek()); // invalid: not even created
    const std::tuple<uint32_t, uint32_t, float> bad[] = {
        {1928, 1080, 0.1f}, {1920, 1088, 0.1f}, {0, 8, 0.1f},      {8, 0, 0.1f},          {12, 8, 0.1f},
        {8, 12, 0.1f},      {8, 8, -0.001f},    {8, 8, -INFINITY}, {0xFFFFFFF8u, 8, 0.1f}};
    for (const auto& [w, h, n] : bad) {
        ASSERT_EQ(1, zelkConfig(64, 32, 1.0f));
        const ZELKPrivate* engine = ZELKPrivate::peek();
        EXPECT_EQ(0, zelkConfig(w, h, n)) << w << "x" << h << " " << n;
        EXPECT_EQ(engine, ZELKPrivate::peek()); // config leaves the engine alone
        EXPECT_TRUE(engine->getWidth() == 64 && engine->getHeight() == 32 && engine->getNearPlane() == 1.0f);
        EXPECT_EQ(0, zelkInit(w, h, n));
        EXPECT_EQ(nullptr, ZELKPrivate::peek()); // init destroys it
    }

    // A second init on a live engine keeps the engine and its cache.
    ASSERT_EQ(1, zelkInit(1920, 1080, 0.0f));
    const ZELKPrivate* engine = ZELKPrivate::peek();
    std::weak_ptr<common::CacheManager> cache = engine->getCacheManager();
    EXPECT_EQ(1, zelkInit(1920, 360, std::numeric_limits<float>::quiet_NaN()));
    EXPECT_EQ(engine, ZELKPrivate::peek());
    EXPECT_EQ(cache.lock(), engine->getCacheManager());
    EXPECT_EQ(1920u, engine->getWidth());
    EXPECT_EQ(360u, engine->getHeight());
    EXPECT_TRUE(std::isnan(engine->getNearPlane()));
    EXPECT_EQ(1, zelkConfig(8, 8, INFINITY));
    EXPECT_EQ(INFINITY, engine->getNearPlane());
    EXPECT_EQ(1, zelkDestroy());
    EXPECT_EQ(nullptr, ZELKPrivate::peek());
    EXPECT_TRUE(cache.expired()); // the engine was the cache's only owner

    // Any per-frame call creates a 0 x 0 engine.
    EXPECT_EQ(1, zelkRenderOccluders());
    ASSERT_NE(nullptr, ZELKPrivate::peek());
    EXPECT_EQ(0u, ZELKPrivate::peek()->getWidth());
}

TEST_F(EngineFixture, PerFrameArgumentChecks) {
    ASSERT_EQ(1, zelkInit(64, 64, 0.1f));
    const ZELK::ZELKFrameInfo& info = ZELKPrivate::peek()->getFrameInfo();
    EXPECT_EQ(0, zelkStartNewFrame(nullptr, kIdentity));
    EXPECT_EQ(0, zelkStartNewFrame(kIdentity, nullptr));
    EXPECT_EQ(0, info.frameIndex);
    const unsigned char prefix[4] = {7, 8, 9, 10};
    EXPECT_EQ(1, zelkStartNewFrame(reinterpret_cast<const float*>(prefix), kIdentity));
    EXPECT_EQ(1, info.frameIndex);
    EXPECT_EQ(9, info.frameParamsPrefix[2]);

    const float verts[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const uint16_t idx[3] = {0, 1, 2}, badIdx[3] = {0, 1, 3};
    // Cached, so that the index scan cannot stand in for the argument checks.
    ZELKPrivate::peek()->getCacheManager()->cache({verts, idx}, std::make_shared<common::OccluderGroup>());
    EXPECT_EQ(0, zelkSubmitOccluder(nullptr, idx, 3, 3, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0, zelkSubmitOccluder(verts, nullptr, 3, 3, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0, zelkSubmitOccluder(verts, idx, 0, 3, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0, zelkSubmitOccluder(verts, idx, 3, 0, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0, zelkSubmitOccluder(verts, badIdx, 3, 3, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0u, info.rawOccluders.size() + info.cachedOccluders.size());
    EXPECT_EQ(1, zelkSubmitOccluder(verts, idx, 3, 3, ZELK_RIGID, nullptr)); // model is optional
    // A C host may pass any int; clang's undefined-behaviour sanitizer once
    // caught the library reading 2 as the enum (found by EngineFuzz).
    EXPECT_EQ(1, zelkSubmitOccluder(verts, idx, 3, 2, static_cast<RigidType>(2), kIdentity));
    EXPECT_EQ(1u, info.cachedOccluders.size());
    EXPECT_EQ(1u, info.rawOccluders.size()); // 2 acts as non-rigid

    bool visible = true, results[2] = {false, false};
    const float box[6] = {0, 0, 0, 1, 1, 1};
    EXPECT_EQ(0, zelkQuery(nullptr, &visible, box + 3));
    EXPECT_TRUE(visible); // untouched
    EXPECT_EQ(0, zelkQuery(box, nullptr, box + 3));
    EXPECT_EQ(1, zelkQuery(box, &visible, nullptr)); // the max corner is never read
    EXPECT_FALSE(visible);                           // single-box query always answers not visible
    EXPECT_EQ(0, zelkBatchQuery(box, 0, results));
    EXPECT_FALSE(results[0]);
    EXPECT_EQ(0, zelkBatchQuery(nullptr, 1, results));
    EXPECT_EQ(0, zelkBatchQuery(box, 1, nullptr));
}

TEST(CombineVisibility, AsksTheFullerBufferFirstAndAndsTheAnswers) {
    // Occluder counts and answers of the plain and rapid buffers; the combined answer and the order asked.
    const auto check = [](uint32_t plain, uint32_t rapid, bool plainSees, bool rapidSees, bool visible,
                          const std::string& order) {
        std::string calls;
        const auto ask = [&](char name, bool answer) {
            return [&calls, name, answer] { return calls += name, answer; };
        };
        EXPECT_EQ(visible, ZELK::combineVisibility(plain, rapid, ask('p', plainSees), ask('r', rapidSees)))
            << plain << " " << rapid;
        EXPECT_EQ(order, calls) << plain << " " << rapid;
    };
    check(0, 0, false, false, true, "");
    check(0, 3, true, false, false, "r");
    check(3, 0, false, true, false, "p");
    check(2, 2, true, false, false, "r");  // tie: rapid first, and it rejects
    check(2, 5, false, true, false, "rp"); // hidden in one buffer only: hidden
    check(5, 2, false, true, false, "p");
    check(5, 2, true, false, false, "pr");
    check(5, 2, true, true, true, "pr");
    check(2, 5, true, true, true, "rp");
}

TEST(NearPlaneGuard, BoxesAreSortedAgainstTheNearDistance) {
    using Side = ZELK::NearPlaneSide;
    const float cameras[3][16] = {
        {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, -1.002f, -1, 0, 0, -0.2002f, 0}, // the host's usual perspective: w = -z
        {0, 0, 0, 1, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, -10},             // translated, looking down +x: w = x - 10
        {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0},               // looking down +z: w = z
    };
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        int camera;
        float box[6];
        float nearPlane;
        Side side;
    };
    const Case cases[] = {
        {0, {-1, -1, -5, 1, 1, -4}, 0.1f, Side::Beyond},          // w in [4, 5]
        {0, {-1, -1, -5, 1, 1, 1}, 0.1f, Side::Crossing},         // reaches behind the eye
        {0, {-1, -1, -5, 1, 1, -0.0999f}, 0.1f, Side::Crossing},  // in front of the eye, 0.1% nearer than 0.1
        {0, {-1, -1, -5, 1, 1, -0.1f}, 0.1f, Side::Beyond},       // exactly at the near distance
        {0, {-1, -1, -5, 1, 1, 0}, 0.0f, Side::Crossing},         // touches the eye: w = 0
        {0, {-1, -1, 2, 1, 1, 3}, 0.1f, Side::Nearer},            // wholly behind the eye
        {0, {-1, -1, -0.09f, 1, 1, -0.01f}, 0.1f, Side::Nearer},  // between the eye and the near distance
        {0, {-1, -1, -0.1f, 1, 1, -0.01f}, 0.1f, Side::Crossing}, // its far face at the near distance
        {0, {-1e30f, -1, -5, 1e30f, 1, -4}, 0.1f, Side::Beyond},  // huge but in front
        {0, {-1, -1, -5, 1, 1, -4}, nan, Side::Crossing},         // no usable near distance
        {0, {-1, -1, 2, 1, 1, 3}, nan, Side::Crossing},
        {0, {-1, -1, -inf, 1, 1, -4}, 0.1f, Side::Crossing}, // not finite: unchecked, w = inf would pass
        {1, {12, -1, -1, 13, 1, 1}, 1.0f, Side::Beyond},
        {1, {9, -1, -1, 13, 1, 1}, 1.0f, Side::Crossing},
        {1, {12, -1, -1, 13, 1, 1}, 2.5f, Side::Crossing}, // w = 2 at the nearer face
        {1, {12, -1, -1, 13, 1, 1}, 3.5f, Side::Nearer},   // w = 3 at the farther face
        {1, {12, -1, -1, inf, 1, 1}, 1.0f, Side::Crossing},
        {2, {-1, -1, 0.05f, 1, 1, 5}, 0.1f, Side::Crossing},
        {2, {-1, -1, 0.1f, 1, 1, 5}, 0.1f, Side::Beyond},
    };
    for (const Case& c : cases)
        EXPECT_EQ(int(c.side),
                  int(ZELK::nearPlaneSide(common::Matrix4x4::fromColumnMajor(cameras[c.camera]), c.nearPlane, c.box)))
            << c.camera << ": " << c.box[0] << " " << c.box[2] << " " << c.box[5] << " near " << c.nearPlane;
}
