#include "common/CacheManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using common::CacheManager;
using common::OccluderGroup;

TEST(CacheManager, IdentityIsTheAddressPairAndTheFirstGroupWins) {
    CacheManager cache;
    const float vertsA[3] = {}, vertsB[3] = {};
    const uint16_t idxA[3] = {}, idxB[3] = {};
    const auto a = std::make_shared<OccluderGroup>(), b = std::make_shared<OccluderGroup>();

    EXPECT_EQ(nullptr, cache.get(vertsA, idxA));
    cache.cache(vertsA, idxA, a);
    cache.cache(vertsA, idxA, b); // dropped: A stays
    EXPECT_EQ(a, cache.get(vertsA, idxA));
    EXPECT_EQ(2, a.use_count());
    EXPECT_EQ(1, b.use_count());

    // Same vertex array, other index array: a separate mesh.
    EXPECT_EQ(nullptr, cache.get(vertsA, idxB));
    cache.cache(vertsA, idxB, b);
    EXPECT_EQ(b, cache.get(vertsA, idxB));
    EXPECT_EQ(a, cache.get(vertsA, idxA));
    EXPECT_EQ(nullptr, cache.get(vertsB, idxA));

    EXPECT_EQ(nullptr, cache.get(nullptr, idxA));
    EXPECT_EQ(nullptr, cache.get(vertsA, nullptr));
    // Storing under null pointers is allowed, but a lookup never finds it.
    cache.cache(nullptr, idxA, a);
    EXPECT_EQ(nullptr, cache.get(nullptr, idxA));
}

TEST(CacheManager, ClearReleasesGroupsOnlyTheCacheOwned) {
    CacheManager cache;
    const float verts[3] = {};
    const uint16_t idx1[3] = {}, idx2[3] = {};
    std::weak_ptr<OccluderGroup> cacheOnly;
    const auto kept = std::make_shared<OccluderGroup>();
    {
        auto g = std::make_shared<OccluderGroup>();
        cacheOnly = g;
        cache.cache(verts, idx1, std::move(g));
    }
    cache.cache(verts, idx2, kept);
    EXPECT_FALSE(cacheOnly.expired());
    cache.clear();
    EXPECT_TRUE(cacheOnly.expired());
    EXPECT_EQ(1, kept.use_count());
    EXPECT_EQ(nullptr, cache.get(verts, idx1));
    EXPECT_EQ(nullptr, cache.get(verts, idx2));
    cache.clear(); // empty: nothing to do
    cache.cache(verts, idx1, kept);
    EXPECT_EQ(kept, cache.get(verts, idx1));

    std::weak_ptr<OccluderGroup> destroyed;
    {
        CacheManager scoped;
        auto g = std::make_shared<OccluderGroup>();
        destroyed = g;
        scoped.cache(verts, idx1, std::move(g));
    }
    EXPECT_TRUE(destroyed.expired());
}

TEST(CacheManager, WriterAndReaderThreadsSeeWholeEntries) {
    // One thread stores while another looks up, as the loader and the render
    // thread do; run under the thread sanitizer this shows the lock suffices.
    CacheManager cache;
    constexpr int kMeshes = 2000;
    std::vector<float> verts(kMeshes);
    std::vector<uint16_t> idx(kMeshes);
    std::vector<std::shared_ptr<OccluderGroup>> groups(kMeshes);
    for (auto& g : groups) g = std::make_shared<OccluderGroup>();
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < kMeshes; ++i) cache.cache(&verts[i], &idx[i], groups[i]);
        done = true;
    });
    int wrong = 0;
    while (!done) {
        for (int i = 0; i < kMeshes; i += 7) {
            const auto g = cache.get(&verts[i], &idx[i]);
            if (g && g != groups[i]) ++wrong;
        }
    }
    writer.join();
    EXPECT_EQ(0, wrong);
    for (int i = 0; i < kMeshes; ++i) ASSERT_EQ(groups[i], cache.get(&verts[i], &idx[i]));
}
