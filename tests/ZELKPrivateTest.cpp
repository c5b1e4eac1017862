// The exported functions' argument rules and the engine's lifetime.
#include "engine/ZELKPrivate.h"
#include "zelk.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

using ZELK::ZELKPrivate;

namespace {

struct EngineFixture : ::testing::Test {
    void SetUp() override { zelkDestroy(); }
    void TearDown() override { zelkDestroy(); }
};

const float kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
const float kParams[4] = {};

} // namespace

TEST_F(EngineFixture, InitLimits) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(1, zelkInit(1920, 1080, 0.0f));
    EXPECT_EQ(1920u, ZELKPrivate::peek()->getWidth());

    struct Bad {
        uint32_t w, h;
        float n;
    };
    for (const Bad& bad :
         {Bad{1928, 1080, 0.1f}, Bad{1920, 1088, 0.1f}, Bad{0, 8, 0.1f}, Bad{8, 0, 0.1f}, Bad{12, 8, 0.1f},
          Bad{8, 12, 0.1f}, Bad{8, 8, -0.001f}, Bad{8, 8, -INFINITY}, Bad{0xFFFFFFF8u, 8, 0.1f}}) {
        ASSERT_EQ(1, zelkInit(64, 64, 1.0f));
        EXPECT_EQ(0, zelkInit(bad.w, bad.h, bad.n)) << bad.w << "x" << bad.h << " " << bad.n;
        EXPECT_EQ(nullptr, ZELKPrivate::peek()); // the existing engine is gone too
        EXPECT_EQ(0, zelkInit(bad.w, bad.h, bad.n));
        EXPECT_EQ(nullptr, ZELKPrivate::peek());
    }
    EXPECT_EQ(1, zelkInit(8, 8, nan));
    EXPECT_TRUE(std::isnan(ZELKPrivate::peek()->getNearPlane()));
    EXPECT_EQ(1, zelkInit(8, 8, INFINITY));
}

TEST_F(EngineFixture, ConfigLeavesTheEngineAloneOnBadArguments) {
    EXPECT_EQ(0, zelkConfig(0, 8, 0.1f));
    EXPECT_EQ(nullptr, ZELKPrivate::peek()); // invalid: not even created
    EXPECT_EQ(1, zelkConfig(320, 192, 0.5f));
    ZELKPrivate* engine = ZELKPrivate::peek();
    ASSERT_NE(nullptr, engine);
    EXPECT_EQ(0, zelkConfig(321, 192, 0.5f));
    EXPECT_EQ(0, zelkConfig(320, 192, -1.0f));
    EXPECT_EQ(engine, ZELKPrivate::peek());
    EXPECT_EQ(320u, engine->getWidth());
    EXPECT_EQ(192u, engine->getHeight());
    EXPECT_EQ(0.5f, engine->getNearPlane());

    // A second init on a live engine keeps the engine and its cache.
    const auto cache = engine->getCacheManager();
    EXPECT_EQ(1, zelkInit(640, 360, 1.0f));
    EXPECT_EQ(engine, ZELKPrivate::peek());
    EXPECT_EQ(cache, ZELKPrivate::peek()->getCacheManager());
    EXPECT_EQ(640u, engine->getWidth());
    EXPECT_EQ(1.0f, engine->getNearPlane());
}

TEST_F(EngineFixture, LifetimeAndCacheOwnership) {
    EXPECT_EQ(1, zelkDestroy()); // none exists
    EXPECT_EQ(1, zelkDestroy());
    // Any per-frame call creates a 0 x 0 engine.
    EXPECT_EQ(1, zelkRenderOccluders());
    ASSERT_NE(nullptr, ZELKPrivate::peek());
    EXPECT_EQ(0u, ZELKPrivate::peek()->getWidth());
    std::weak_ptr<common::CacheManager> cache = ZELKPrivate::peek()->getCacheManager();
    EXPECT_FALSE(cache.expired());
    EXPECT_EQ(1, zelkDestroy());
    EXPECT_EQ(nullptr, ZELKPrivate::peek());
    EXPECT_TRUE(cache.expired()); // the engine was the cache's only owner
    EXPECT_EQ(1, zelkDestroy());
}

TEST_F(EngineFixture, PerFrameArgumentChecks) {
    ASSERT_EQ(1, zelkInit(64, 64, 0.1f));
    EXPECT_EQ(0, zelkStartNewFrame(nullptr, kIdentity));
    EXPECT_EQ(0, zelkStartNewFrame(kParams, nullptr));
    EXPECT_EQ(0, ZELKPrivate::peek()->getFrameInfo().frameIndex);
    const unsigned char prefix[4] = {7, 8, 9, 10};
    EXPECT_EQ(1, zelkStartNewFrame(reinterpret_cast<const float*>(prefix), kIdentity));
    EXPECT_EQ(1, ZELKPrivate::peek()->getFrameInfo().frameIndex);
    EXPECT_EQ(9, ZELKPrivate::peek()->getFrameInfo().frameParamsPrefix[2]);

    const float verts[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const uint16_t idx[3] = {0, 1, 2};
    const uint16_t badIdx[3] = {0, 1, 3};
    EXPECT_EQ(0, zelkSubmitOccluder(nullptr, idx, 3, 3, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0, zelkSubmitOccluder(verts, nullptr, 3, 3, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0, zelkSubmitOccluder(verts, idx, 0, 3, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0, zelkSubmitOccluder(verts, idx, 3, 0, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0, zelkSubmitOccluder(verts, badIdx, 3, 3, ZELK_RIGID, kIdentity));
    EXPECT_EQ(0u, ZELKPrivate::peek()->getFrameInfo().rawOccluders.size());
    EXPECT_EQ(1, zelkSubmitOccluder(verts, idx, 3, 3, ZELK_RIGID, nullptr)); // model is optional
    // A C host may pass any int; clang's undefined-behaviour sanitizer once
    // caught the library reading 2 as the enum (found by EngineFuzz).
    EXPECT_EQ(1, zelkSubmitOccluder(verts, idx, 3, 2, static_cast<RigidType>(2), kIdentity));
    ASSERT_EQ(2u, ZELKPrivate::peek()->getFrameInfo().rawOccluders.size());
    EXPECT_TRUE(ZELKPrivate::peek()->getFrameInfo().rawOccluders[0].rigid);
    EXPECT_FALSE(ZELKPrivate::peek()->getFrameInfo().rawOccluders[1].rigid); // 2 acts as non-rigid

    bool visible = true;
    const float box[6] = {0, 0, 0, 1, 1, 1};
    EXPECT_EQ(0, zelkQuery(nullptr, &visible, box + 3));
    EXPECT_TRUE(visible); // untouched
    EXPECT_EQ(0, zelkQuery(box, nullptr, box + 3));
    EXPECT_EQ(1, zelkQuery(box, &visible, nullptr)); // the max corner is never read
    EXPECT_FALSE(visible);                           // single-box query always answers not visible

    bool results[2] = {false, false};
    EXPECT_EQ(0, zelkBatchQuery(box, 0, results));
    EXPECT_FALSE(results[0]);
    EXPECT_EQ(0, zelkBatchQuery(nullptr, 1, results));
    EXPECT_EQ(0, zelkBatchQuery(box, 1, nullptr));
}

TEST(CombineVisibility, AsksTheFullerBufferFirstAndAndsTheAnswers) {
    std::string calls;
    auto ask = [&](uint32_t p, uint32_t r, bool plainAnswer, bool rapidAnswer) {
        calls.clear();
        return ZELK::combineVisibility(
            p, r,
            [&] {
                calls += 'p';
                return plainAnswer;
            },
            [&] {
                calls += 'r';
                return rapidAnswer;
            });
    };
    EXPECT_TRUE(ask(0, 0, false, false));
    EXPECT_EQ("", calls);
    EXPECT_FALSE(ask(0, 3, true, false));
    EXPECT_EQ("r", calls);
    EXPECT_FALSE(ask(3, 0, false, true));
    EXPECT_EQ("p", calls);
    EXPECT_FALSE(ask(2, 2, true, false)); // tie: rapid first, and it rejects
    EXPECT_EQ("r", calls);
    EXPECT_FALSE(ask(2, 5, false, true)); // hidden in one buffer only: hidden
    EXPECT_EQ("rp", calls);
    EXPECT_FALSE(ask(5, 2, false, true));
    EXPECT_EQ("p", calls);
    EXPECT_FALSE(ask(5, 2, true, false));
    EXPECT_EQ("pr", calls);
    EXPECT_TRUE(ask(5, 2, true, true));
    EXPECT_TRUE(ask(2, 5, true, true));
}

TEST(NearPlaneGuard, BoxesAreSortedAgainstTheNearDistance) {
    using Side = ZELK::NearPlaneSide;
    // The host's usual perspective: looking down -z, so clip w = -z.
    const float vp[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, -1.002f, -1, 0, 0, -0.2002f, 0};
    const common::Matrix4x4 m = common::Matrix4x4::fromColumnMajor(vp);
    const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        float box[6];
        float nearPlane;
        Side side;
    };
    const Case cases[] = {
        {{-1, -1, -5, 1, 1, -4}, 0.1f, Side::Beyond},          // w in [4, 5]
        {{-1, -1, -5, 1, 1, 1}, 0.1f, Side::Crossing},         // reaches behind the eye
        {{-1, -1, -5, 1, 1, -0.05f}, 0.1f, Side::Crossing},    // in front of the eye, nearer than 0.1
        {{-1, -1, -5, 1, 1, -0.1f}, 0.1f, Side::Beyond},       // exactly at the near distance
        {{-1, -1, -5, 1, 1, 0}, 0.0f, Side::Crossing},         // touches the eye: w = 0
        {{-1, -1, 2, 1, 1, 3}, 0.1f, Side::Nearer},            // wholly behind the eye
        {{-1, -1, -0.09f, 1, 1, -0.01f}, 0.1f, Side::Nearer},  // between the eye and the near distance
        {{-1, -1, -0.1f, 1, 1, -0.01f}, 0.1f, Side::Crossing}, // its far face at the near distance
        {{-1e30f, -1, -5, 1e30f, 1, -4}, 0.1f, Side::Beyond},  // huge but in front
        {{-1, -1, -5, 1, 1, -4}, nan, Side::Crossing},         // no usable near distance
        {{-1, -1, 2, 1, 1, 3}, nan, Side::Crossing},
        {{nan, -1, -5, 1, 1, -4}, 0.1f, Side::Crossing},
        {{-1, -1, -5, 1, inf, -4}, 0.1f, Side::Crossing},
        {{-1, -1, -inf, 1, 1, -4}, 0.1f, Side::Crossing},
    };
    for (const Case& c : cases)
        EXPECT_EQ(int(c.side), int(ZELK::nearPlaneSide(m, c.nearPlane, c.box)))
            << c.box[0] << " " << c.box[2] << " " << c.box[5] << " near " << c.nearPlane;

    // A camera translated along x and looking down +x: w = x - 10.
    const float side[16] = {0, 0, 0, 1, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0, -10};
    const common::Matrix4x4 s = common::Matrix4x4::fromColumnMajor(side);
    const float ahead[6] = {12, -1, -1, 13, 1, 1}, around[6] = {9, -1, -1, 13, 1, 1};
    EXPECT_EQ(int(Side::Beyond), int(ZELK::nearPlaneSide(s, 1.0f, ahead)));
    EXPECT_EQ(int(Side::Crossing), int(ZELK::nearPlaneSide(s, 1.0f, around)));
    EXPECT_EQ(int(Side::Crossing), int(ZELK::nearPlaneSide(s, 2.5f, ahead))); // w = 2 at the nearer face
    EXPECT_EQ(int(Side::Nearer), int(ZELK::nearPlaneSide(s, 3.5f, ahead)));   // w = 3 at the farther face
}
