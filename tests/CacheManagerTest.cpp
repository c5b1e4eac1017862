// Single-thread rules. The lock: AsyncLoaderTest and FrameAllocationTest look
// up while their loader stores, and the thread sanitizer flags either unlocked.
#include "common/CacheManager.h"

#include <gtest/gtest.h>

#include <memory>

using common::CacheManager;
using common::OccluderGroup;

TEST(CacheManager, IdentityIsTheAddressPairTheFirstGroupWinsAndClearReleases) {
    const float verts[2][3] = {};
    const uint16_t idx[2][3] = {};
    auto a = std::make_shared<OccluderGroup>(), b = std::make_shared<OccluderGroup>();
    {
        CacheManager cache;
        EXPECT_EQ(nullptr, cache.get({verts[0], idx[0]}));
        cache.cache({verts[0], idx[0]}, a);
        cache.cache({verts[0], idx[0]}, b); // dropped: a stays
        EXPECT_EQ(a, cache.get({verts[0], idx[0]}));
        EXPECT_EQ(1, b.use_count());
        // Same vertex array, other index array: a separate mesh.
        EXPECT_EQ(nullptr, cache.get({verts[0], idx[1]}));
        cache.cache({verts[0], idx[1]}, b);
        EXPECT_EQ(b, cache.get({verts[0], idx[1]}));
        EXPECT_EQ(a, cache.get({verts[0], idx[0]}));
        EXPECT_EQ(nullptr, cache.get({verts[1], idx[0]}));
        // Storing under null pointers is allowed, but a lookup never finds it.
        cache.cache({nullptr, idx[0]}, a);
        cache.cache({verts[0], nullptr}, a);
        EXPECT_EQ(nullptr, cache.get({nullptr, idx[0]}));
        EXPECT_EQ(nullptr, cache.get({verts[0], nullptr}));

        // clear drops every entry and frees the groups only the cache owned.
        const std::weak_ptr<OccluderGroup> cacheOnly = b;
        b.reset();
        cache.clear();
        EXPECT_TRUE(cacheOnly.expired());
        EXPECT_EQ(1, a.use_count());
        EXPECT_EQ(nullptr, cache.get({verts[0], idx[0]}));
        cache.clear(); // empty: nothing to do
        cache.cache({verts[0], idx[1]}, a);
        EXPECT_EQ(a, cache.get({verts[0], idx[1]}));
    }
    EXPECT_EQ(1, a.use_count()); // released with the cache
}
