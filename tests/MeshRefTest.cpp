// The rules about what of a host mesh is read, and the mesh identity.
#include "common/MeshRef.h"
#include "common/Indices.h"
#include "common/MeshKeySet.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

using common::MeshKey;
using common::MeshRef;

TEST(MeshRef, IndexRuleAndCountCaps) {
    const float vertices[9] = {};
    const uint16_t indices[7] = {0, 1, 2, 2, 1, 0, 3};
    // Six indices below 3 plus a trailing partial triangle whose index is 3:
    // the tail counts for the rule although it is never drawn.
    EXPECT_FALSE((MeshRef{vertices, 3, indices, 7}.valid()));
    EXPECT_TRUE((MeshRef{vertices, 4, indices, 7}.valid()));
    EXPECT_TRUE((MeshRef{vertices, 3, indices, 6}.valid()));
    EXPECT_EQ(6u, (MeshRef{vertices, 4, indices, 7}.triangleIndexCount()));
    // No whole triangle is still a mesh (it covers nothing); no vertex is not.
    EXPECT_TRUE((MeshRef{vertices, 3, indices, 2}.valid()));
    EXPECT_TRUE((MeshRef{vertices, 3, indices, 0}.valid()));
    EXPECT_FALSE((MeshRef{vertices, 0, indices, 0}.valid()));
    EXPECT_FALSE((MeshRef{nullptr, 3, indices, 6}.valid()));
    EXPECT_FALSE((MeshRef{vertices, 3, nullptr, 6}.valid()));
    // 16-bit indices reach vertex 65,535 at most; the int-counting rasteriser
    // takes at most 2^31 - 2 indices, a whole number of triangles.
    const MeshRef huge{vertices, 0xFFFFFFFFu, indices, 0xFFFFFFFFu};
    EXPECT_EQ(65536u, huge.usableVertexCount());
    EXPECT_EQ(65535u, (MeshRef{vertices, 65535, indices, 6}.usableVertexCount()));
    EXPECT_EQ(2147483646u, huge.usableIndexCount());
    EXPECT_EQ(2147483646u, huge.triangleIndexCount());
    EXPECT_EQ((MeshKey{vertices, indices}), huge.key());
}

TEST(MeshRef, LargestIndexInEveryLaneAndTail) {
    // Every count 0..40 at every start offset 0..7 covers the eight-wide body,
    // the scalar tail and each lane; one large index moved through every
    // position catches a lost lane.
    const float vertices[3] = {};
    std::vector<uint16_t> pool(48, 5);
    EXPECT_EQ(0, common::largestIndex(pool.data(), 0));
    for (size_t offset = 0; offset < 8; ++offset)
        for (size_t n = 1; n <= 40; ++n)
            for (size_t at = offset; at < offset + n; ++at) {
                pool[at] = uint16_t(1000 + at);
                const uint16_t* p = pool.data() + offset;
                ASSERT_EQ(1000 + at, common::largestIndex(p, n)) << offset << " " << n << " " << at;
                EXPECT_FALSE((MeshRef{vertices, uint32_t(1000 + at), p, uint32_t(n)}.valid()));
                EXPECT_TRUE((MeshRef{vertices, uint32_t(1001 + at), p, uint32_t(n)}.valid()));
                pool[at] = 5;
            }
}

TEST(MeshKeySet, AgreesWithAnOrderedSetUnderRandomEdits) {
    // Keys crowd onto few vertex arrays (as meshes sharing one do) so that
    // probe runs grow long and deletions must shift members back; a std::set
    // of the same keys is the reference.
    const float arrays[4][3] = {};
    const uint16_t indexArrays[64] = {};
    std::mt19937 rng(7);
    common::MeshKeySet set;
    std::set<std::pair<const float*, const uint16_t*>> reference;
    for (int step = 0; step < 20000; ++step) {
        const MeshKey key{arrays[rng() % 4], indexArrays + rng() % 64};
        if (rng() % 3 == 0) {
            set.erase(key);
            reference.erase({key.vertices, key.indices});
        } else {
            set.insert(key);
            reference.insert({key.vertices, key.indices});
        }
        ASSERT_EQ(reference.size(), set.size()) << step;
        const MeshKey probe{arrays[rng() % 4], indexArrays + rng() % 64};
        ASSERT_EQ(reference.count({probe.vertices, probe.indices}) == 1, set.contains(probe)) << step;
    }
    set.insert(MeshKey{nullptr, indexArrays}); // no vertex array: never a member
    EXPECT_FALSE(set.contains(MeshKey{nullptr, indexArrays}));
}
