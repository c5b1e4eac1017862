#include "engine/ZELKFrameInfo.h"

#include <gtest/gtest.h>

#include "common/Indices.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

using ZELK::ZELKFrameInfo;

namespace {

const uint8_t kPrefix[3] = {1, 2, 3};

common::Matrix4x4 translation(float x) {
    const float m[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, x, 0, 0, 1};
    return common::Matrix4x4::fromColumnMajor(m);
}

struct FrameFixture : ::testing::Test {
    std::shared_ptr<common::CacheManager> cache = std::make_shared<common::CacheManager>();
    ZELKFrameInfo frame;
    std::vector<float> verts = std::vector<float>(30, 0.0f); // 10 vertices
    std::vector<uint16_t> idx = {0, 1, 2, 3, 4, 5, 6, 7, 9};
    std::vector<uint16_t> idx2 = {0, 1, 2};

    void SetUp() override { frame.cacheManager = cache; }
    void submit(const std::vector<uint16_t>& i, bool rigid, const float* model) {
        ASSERT_TRUE(frame.submitOccluder(verts.data(), i.data(), 10, uint32_t(i.size()), rigid, model));
    }
};

} // namespace

TEST_F(FrameFixture, SubmissionsAreSortedByCacheState) {
    const float model[16] = {2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 5, 6, 7, 1};
    submit(idx, true, model);
    ASSERT_EQ(1u, frame.rawOccluders.size()); // not cached yet
    EXPECT_TRUE(frame.rawOccluders[0].model == common::Matrix4x4::fromColumnMajor(model));
    EXPECT_EQ(9u, frame.rawOccluders[0].indexCount);

    cache->cache(verts.data(), idx.data(), std::make_shared<common::OccluderGroup>());
    submit(idx, true, model);
    submit(idx, true, nullptr); // same mesh twice in a frame: two records
    submit(idx, false, model);  // non-rigid: always raw
    submit(idx2, true, model);  // other index array: not cached
    EXPECT_EQ(3u, frame.rawOccluders.size());
    ASSERT_EQ(2u, frame.cachedOccluders.size());
    EXPECT_TRUE(frame.cachedOccluders[1].model == common::Matrix4x4::zero()); // null model: zeros, not identity
    EXPECT_FALSE(frame.rawOccluders[1].rigid);

    // Without a live cache every submission is raw.
    cache.reset();
    submit(idx, true, model);
    EXPECT_EQ(4u, frame.rawOccluders.size());
    EXPECT_EQ(2u, frame.cachedOccluders.size());
}

TEST_F(FrameFixture, RawSubmissionsWithIndicesOutOfRangeAreRejected) {
    // 10 vertices: index 10 is one past the end. Put it at every position of
    // arrays whose lengths are not multiples of the scan width.
    for (size_t count : {1u, 3u, 7u, 8u, 9u, 17u, 33u}) {
        for (size_t bad = 0; bad < count; ++bad) {
            std::vector<uint16_t> indices(count, 9);
            indices[bad] = 10;
            EXPECT_FALSE(frame.submitOccluder(verts.data(), indices.data(), 10, uint32_t(count), false, nullptr))
                << count << " " << bad;
        }
    }
    EXPECT_TRUE(frame.rawOccluders.empty());
    const std::vector<uint16_t> top = {65535, 0, 0};
    EXPECT_FALSE(frame.submitOccluder(verts.data(), top.data(), 65535, 3, false, nullptr));
    EXPECT_TRUE(frame.submitOccluder(verts.data(), top.data(), 65536, 3, false, nullptr));
    EXPECT_TRUE(frame.submitOccluder(verts.data(), top.data(), 4000000000u, 3, false, nullptr));
    EXPECT_EQ(2u, frame.rawOccluders.size());

    // A mesh already in the cache was checked before it was baked: no scan.
    const std::vector<uint16_t> bad = {0, 1, 50};
    cache->cache(verts.data(), bad.data(), std::make_shared<common::OccluderGroup>());
    EXPECT_TRUE(frame.submitOccluder(verts.data(), bad.data(), 10, 3, true, nullptr));
    EXPECT_EQ(1u, frame.cachedOccluders.size());
    EXPECT_FALSE(frame.submitOccluder(verts.data(), bad.data(), 10, 3, false, nullptr));
}

TEST_F(FrameFixture, FrameStartRotatesListsAndMatrices) {
    cache->cache(verts.data(), idx.data(), std::make_shared<common::OccluderGroup>());
    frame.startFrame(kPrefix, translation(1));
    EXPECT_EQ(1, frame.frameIndex);
    EXPECT_EQ(2, frame.frameParamsPrefix[1]);
    EXPECT_TRUE(frame.previousViewProjection == common::Matrix4x4::zero());
    submit(idx, true, nullptr);
    submit(idx2, true, nullptr);
    frame.startFrame(kPrefix, translation(2));
    EXPECT_EQ(2, frame.frameIndex);
    EXPECT_TRUE(frame.previousViewProjection == translation(1));
    EXPECT_TRUE(frame.viewProjection == translation(2));
    EXPECT_TRUE(frame.rawOccluders.empty());
    EXPECT_TRUE(frame.cachedOccluders.empty());
    EXPECT_EQ(1u, frame.previousCachedOccluders.size());
    frame.startFrame(kPrefix, translation(2));
    EXPECT_TRUE(frame.previousCachedOccluders.empty());
}

TEST_F(FrameFixture, DiffFrameRules) {
    // First frame: the previous matrix is all zeros, so a real camera is a change.
    frame.startFrame(kPrefix, translation(0));
    EXPECT_TRUE(frame.diffFrame());
    // Same camera, nothing cached in either frame.
    frame.startFrame(kPrefix, translation(0));
    EXPECT_FALSE(frame.diffFrame());
    // Raw occluders never matter.
    submit(idx, false, nullptr);
    EXPECT_FALSE(frame.diffFrame());

    cache->cache(verts.data(), idx.data(), std::make_shared<common::OccluderGroup>());
    cache->cache(verts.data(), idx2.data(), std::make_shared<common::OccluderGroup>());
    const common::Matrix4x4 a = translation(3), b = translation(4);
    float am[16], bm[16];
    a.toColumnMajor(am);
    b.toColumnMajor(bm);

    frame.startFrame(kPrefix, translation(0));
    submit(idx, true, am);
    EXPECT_TRUE(frame.diffFrame()); // a mesh became cached
    frame.startFrame(kPrefix, translation(0));
    submit(idx, true, am);
    EXPECT_FALSE(frame.diffFrame());

    // Same records in another order.
    frame.startFrame(kPrefix, translation(0));
    submit(idx, true, am);
    submit(idx2, true, bm);
    EXPECT_TRUE(frame.diffFrame()); // lengths differ
    frame.startFrame(kPrefix, translation(0));
    submit(idx2, true, bm);
    submit(idx, true, am);
    EXPECT_FALSE(frame.diffFrame());

    // One float of one model matrix changes.
    float moved[16];
    std::copy(am, am + 16, moved);
    moved[13] = std::nextafter(moved[13], 1.0f);
    frame.startFrame(kPrefix, translation(0));
    submit(idx2, true, bm);
    submit(idx, true, moved);
    EXPECT_TRUE(frame.diffFrame());

    // Duplicates are not counted: [A, A] is contained in [B, A].
    frame.startFrame(kPrefix, translation(0));
    submit(idx2, true, bm);
    submit(idx, true, am);
    frame.startFrame(kPrefix, translation(0));
    submit(idx, true, am);
    submit(idx, true, am);
    EXPECT_FALSE(frame.diffFrame());

    // +0 and -0 are the same camera; NaN is a change in every frame.
    const float negZero[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, -0.0f, 0, 0, 1};
    frame.startFrame(kPrefix, common::Matrix4x4::fromColumnMajor(negZero));
    EXPECT_TRUE(frame.diffFrame()); // cached list changed from 2 to 0
    frame.startFrame(kPrefix, translation(0));
    EXPECT_FALSE(frame.diffFrame());
    const float nan[16] = {std::numeric_limits<float>::quiet_NaN(), 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    frame.startFrame(kPrefix, common::Matrix4x4::fromColumnMajor(nan));
    EXPECT_TRUE(frame.diffFrame());
    frame.startFrame(kPrefix, common::Matrix4x4::fromColumnMajor(nan));
    EXPECT_TRUE(frame.diffFrame());
}

TEST(IndexScan, AgreesWithBruteForce) {
    // Reference: std::max_element over the same span. Every count 0..40 at
    // every start offset 0..7 covers the eight-wide body, the scalar tail and
    // each lane; a single large index at each position catches a lost lane.
    std::mt19937 rng(11u);
    std::vector<uint16_t> pool(48);
    for (uint16_t& i : pool) i = uint16_t(rng() % 1000u);
    for (size_t offset = 0; offset < 8; ++offset)
        for (size_t n = 0; n <= 40; ++n) {
            const uint16_t* p = pool.data() + offset;
            const uint16_t expected = n == 0 ? 0 : *std::max_element(p, p + n);
            ASSERT_EQ(expected, common::largestIndex(p, n)) << offset << " " << n;
            EXPECT_TRUE(ZELK::indicesInRange(p, uint32_t(n), uint32_t(expected) + 1));
            if (n != 0) {
                EXPECT_FALSE(ZELK::indicesInRange(p, uint32_t(n), expected));
            }
        }
    std::vector<uint16_t> spike(37, 5);
    for (size_t at = 0; at < spike.size(); ++at) {
        spike[at] = 65535;
        EXPECT_EQ(65535, common::largestIndex(spike.data(), spike.size())) << at;
        spike[at] = 5;
    }
}
