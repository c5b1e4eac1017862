#include "engine/ZELKFrameInfo.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <tuple>
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
    std::vector<uint16_t> idx = {0, 1, 2, 3, 4, 5, 6, 7, 9}, idx2 = {0, 1, 2};

    void SetUp() override { frame.cacheManager = cache; }
    bool submit(const std::vector<uint16_t>& i, bool rigid, const float* model, uint32_t vertexCount = 10) {
        return frame.submitOccluder(verts.data(), i.data(), vertexCount, uint32_t(i.size()), rigid, model);
    }
    void bake(const std::vector<uint16_t>& i) {
        cache->cache({verts.data(), i.data()}, std::make_shared<common::OccluderGroup>());
    }
};

} // namespace

TEST_F(FrameFixture, SubmissionsAreSortedByCacheStateAndRawIndicesChecked) {
    const float model[16] = {2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 5, 6, 7, 1};
    ASSERT_TRUE(submit(idx, true, model));
    ASSERT_EQ(1u, frame.rawOccluders.size()); // not cached yet
    EXPECT_TRUE(frame.rawOccluders[0].model == common::Matrix4x4::fromColumnMajor(model));
    EXPECT_EQ(9u, frame.rawOccluders[0].indexCount);

    bake(idx);
    EXPECT_TRUE(submit(idx, true, model));
    EXPECT_TRUE(submit(idx, true, nullptr)); // same mesh twice in a frame: two records
    EXPECT_TRUE(submit(idx, false, model));  // non-rigid: always raw
    EXPECT_TRUE(submit(idx2, true, model));  // other index array: not cached
    EXPECT_EQ(3u, frame.rawOccluders.size());
    ASSERT_EQ(2u, frame.cachedOccluders.size());
    EXPECT_TRUE(frame.cachedOccluders[1].model == common::Matrix4x4::zero()); // null model: zeros, not identity
    EXPECT_TRUE(frame.rawOccluders[0].rigid && !frame.rawOccluders[1].rigid);

    // 10 vertices: index 10 is one past the end (the scan itself: IndexScan below).
    const std::vector<uint16_t> past = {0, 1, 10}, top = {65535, 0, 0};
    EXPECT_FALSE(submit(past, false, model));
    EXPECT_FALSE(submit(top, false, nullptr, 65535));
    EXPECT_TRUE(submit(top, false, nullptr, 65536));
    EXPECT_TRUE(submit(top, false, nullptr, 4000000000u));
    EXPECT_EQ(5u, frame.rawOccluders.size());
    // A mesh already in the cache was checked before it was baked: no scan.
    bake(past);
    EXPECT_TRUE(submit(past, true, nullptr));
    EXPECT_EQ(3u, frame.cachedOccluders.size());
    EXPECT_FALSE(submit(past, false, nullptr));

    // Without a live cache every submission is raw.
    cache.reset();
    EXPECT_TRUE(submit(idx, true, model));
    EXPECT_EQ(6u, frame.rawOccluders.size());
    EXPECT_EQ(3u, frame.cachedOccluders.size());
}

TEST_F(FrameFixture, FrameStartRotatesListsAndDiffFrameComparesCameraAndCachedRecords) {
    bake(idx);
    bake(idx2);
    const float nan = std::numeric_limits<float>::quiet_NaN(), moved = std::nextafter(3.0f, 4.0f);
    // Camera (translation by x); cached (meshes 0, 1) and raw (mesh 2) submissions with their model's translation;
    // whether the rapid buffer must be redrawn.
    const std::tuple<float, std::vector<std::pair<int, float>>, bool> frames[] = {
        {0, {}, true}, // the previous matrix starts all zeros
        {0, {}, false},
        {0, {{2, 0}}, false}, // raw occluders never matter
        {0, {{0, 3}}, true},  // a mesh became cached
        {0, {{0, 3}}, false},
        {0, {{0, 3}, {1, 4}}, true},     // lengths differ
        {0, {{1, 4}, {0, 3}}, false},    // same records in another order
        {0, {{1, 4}, {0, moved}}, true}, // one float of one model matrix
        {0, {{1, 4}, {0, 3}}, true},
        {0, {{0, 3}, {0, 3}}, false}, // duplicates are not counted: [A, A] is contained in [B, A]
        {-0.0f, {}, true},            // the cached list emptied
        {0, {}, false},               // +0 and -0 are the same camera
        {nan, {}, true},
        {nan, {}, true}, // NaN is a change in every frame
    };
    const std::vector<uint16_t>* meshes[3] = {&idx, &idx2, &idx};
    common::Matrix4x4 previous = common::Matrix4x4::zero();
    size_t previousCached = 0;
    int64_t f = 0;
    for (const auto& [camera, subs, changed] : frames) {
        frame.startFrame(kPrefix, translation(camera));
        EXPECT_EQ(++f, frame.frameIndex);
        EXPECT_EQ(0, std::memcmp(&previous, &frame.previousViewProjection, sizeof previous)) << f;
        EXPECT_TRUE(frame.rawOccluders.empty() && frame.cachedOccluders.empty()) << f;
        EXPECT_EQ(previousCached, frame.previousCachedOccluders.size()) << f;
        for (const auto& [mesh, x] : subs) {
            float model[16];
            translation(x).toColumnMajor(model);
            ASSERT_TRUE(submit(*meshes[mesh], mesh != 2, model));
        }
        EXPECT_EQ(changed, frame.diffFrame()) << f;
        previous = translation(camera);
        previousCached = frame.cachedOccluders.size();
    }
}
