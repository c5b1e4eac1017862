#include "common/OccluderGroup.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using common::Occluder;
using common::OccluderGroup;

namespace {

std::shared_ptr<Occluder> occluderWithBounds(float lo, float hi) {
    auto o = std::make_shared<Occluder>();
    o->boundsMin = common::make4(lo, lo, lo, 1.0f);
    o->boundsMax = common::make4(hi, hi, hi, 1.0f);
    return o;
}

} // namespace

TEST(OccluderGroup, FirstOccluderPerLevelWinsAndOnlyLevelZeroSetsBounds) {
    OccluderGroup group;
    EXPECT_EQ(nullptr, group.getOccluder(1.0f));
    EXPECT_EQ(0.0f, common::lane<0>(group.MinBound()));

    const auto coarse = occluderWithBounds(-9, 9);
    group.addOccluder(coarse, 1);
    EXPECT_EQ(0.0f, common::lane<0>(group.MinBound())); // level 1 never sets bounds
    EXPECT_EQ(0.0f, common::lane<0>(group.MaxBound()));

    const auto first = occluderWithBounds(-1, 2);
    group.addOccluder(first, 0);
    group.addOccluder(occluderWithBounds(-5, 5), 0); // ignored: level 0 is taken
    group.addOccluder(occluderWithBounds(-7, 7), 3);
    group.addOccluder(occluderWithBounds(-7, 7), unsigned(-1));
    EXPECT_EQ(-1.0f, common::lane<0>(group.MinBound()));
    EXPECT_EQ(2.0f, common::lane<2>(group.MaxBound()));
    EXPECT_EQ(first, group.getOccluder(0.9f));
    EXPECT_EQ(coarse, group.getOccluder(0.3f));
    EXPECT_EQ(coarse, group.getOccluder(0.1f)); // no level 2: clamps to level 1
}

TEST(OccluderGroup, LevelSelectionByScreenFraction) {
    OccluderGroup single;
    const auto only = occluderWithBounds(0, 1);
    single.addOccluder(only, 0);
    for (float f : {1.0f, 0.5f, 0.3f, 0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN()})
        EXPECT_EQ(only, single.getOccluder(f)) << f;

    OccluderGroup full;
    const auto l0 = occluderWithBounds(0, 1), l1 = occluderWithBounds(0, 1), l2 = occluderWithBounds(0, 1);
    full.addOccluder(l2, 2);
    full.addOccluder(l0, 0);
    full.addOccluder(l1, 1);
    EXPECT_EQ(l0, full.getOccluder(0.5f));
    EXPECT_EQ(l1, full.getOccluder(0.49999997f));
    EXPECT_EQ(l1, full.getOccluder(0.25f));
    EXPECT_EQ(l2, full.getOccluder(0.2499f));
    EXPECT_EQ(l2, full.getOccluder(std::numeric_limits<float>::quiet_NaN()));
    EXPECT_EQ(l0, full.getOccluder(std::numeric_limits<float>::infinity()));
    EXPECT_EQ(l2, full.getOccluder(-std::numeric_limits<float>::infinity()));
}

TEST(OccluderGroup, ReductionParametersPerLevel) {
    EXPECT_EQ(0.55f, OccluderGroup::getLODParam(0).ratio);
    EXPECT_EQ(0.35f, OccluderGroup::getLODParam(1).ratio);
    EXPECT_EQ(0.15f, OccluderGroup::getLODParam(2).ratio);
    EXPECT_EQ(0.55f, OccluderGroup::getLODParam(7).ratio);
    EXPECT_EQ(0.55f, OccluderGroup::getLODParam(unsigned(-1)).ratio);
    for (unsigned lod : {0u, 1u, 2u, 7u}) EXPECT_EQ(35.0f, OccluderGroup::getLODParam(lod).reducerParameter);
    // The loader's targets: 0.55 * 3000 in single precision truncates to 1650.
    EXPECT_EQ(1650u, uint32_t(OccluderGroup::getLODParam(0).ratio * 3000.0f));
    EXPECT_EQ(450u, uint32_t(OccluderGroup::getLODParam(2).ratio * 3000.0f));
}
