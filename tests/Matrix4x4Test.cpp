#include "common/Matrix4x4.h"
#include "common/Checked.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>

using common::Matrix4x4;

namespace {

// Reference product on plain column-major arrays: (a*b)[row + 4*col].
void referenceProduct(const float* a, const float* b, float* out) {
    for (int col = 0; col < 4; ++col)
        for (int row = 0; row < 4; ++row) {
            float sum = 0.0f;
            for (int k = 0; k < 4; ++k) sum += a[row + 4 * k] * b[k + 4 * col];
            out[row + 4 * col] = sum;
        }
}

} // namespace

TEST(Matrix4x4, ColumnMajorProductAndTransform) {
    // A translation by (1, 2, 3) times a scale by 2: points are scaled first.
    const float translate[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 1, 2, 3, 1};
    const float scale[16] = {2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1};
    const Matrix4x4 m = Matrix4x4::fromColumnMajor(translate) * Matrix4x4::fromColumnMajor(scale);
    float out[16];
    m.toColumnMajor(out);
    const float expected[16] = {2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 1, 2, 3, 1};
    for (int i = 0; i < 16; ++i) EXPECT_EQ(expected[i], out[i]) << i;
    const common::float4 p = m.transformPoint(common::make4(1, 1, 1, 1));
    EXPECT_EQ(3.0f, common::lane<0>(p));
    EXPECT_EQ(4.0f, common::lane<1>(p));
    EXPECT_EQ(5.0f, common::lane<2>(p));
    EXPECT_EQ(1.0f, common::lane<3>(p));

    // Small integers keep every sum exact, so any summation order matches.
    float a[16], b[16], ref[16];
    for (int i = 0; i < 16; ++i) {
        a[i] = float((i * 7) % 11 - 5);
        b[i] = float((i * 5) % 13 - 6);
    }
    referenceProduct(a, b, ref);
    (Matrix4x4::fromColumnMajor(a) * Matrix4x4::fromColumnMajor(b)).toColumnMajor(out);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(ref[i], out[i]) << i;
    (Matrix4x4::identity() * Matrix4x4::fromColumnMajor(a)).toColumnMajor(out);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(a[i], out[i]) << i;
}

TEST(Matrix4x4, EqualityIsFloatEquality) {
    float a[16] = {};
    float b[16] = {};
    b[5] = -0.0f;
    EXPECT_TRUE(Matrix4x4::fromColumnMajor(a) == Matrix4x4::fromColumnMajor(b)); // +0 == -0
    b[15] = 1e-30f;
    EXPECT_TRUE(Matrix4x4::fromColumnMajor(a) != Matrix4x4::fromColumnMajor(b));
    a[9] = std::numeric_limits<float>::quiet_NaN();
    const Matrix4x4 withNaN = Matrix4x4::fromColumnMajor(a);
    EXPECT_FALSE(withNaN == withNaN); // a NaN element never compares equal
    EXPECT_TRUE(Matrix4x4::zero() == Matrix4x4::fromColumnMajor(std::array<float, 16>{}.data()));
}

TEST(Checked, OverflowEndsTheProcess) {
    EXPECT_EQ(7u, common::checkedAdd(3u, 4u));
    EXPECT_EQ(4294967295u, common::checkedMul(65535u, 65537u));
    EXPECT_EQ(-1, common::checkedSub(0, 1));
    EXPECT_EQ(200, common::checkedCast<int>(uint8_t(200)));
    EXPECT_DEATH(common::checkedAdd(4294967295u, 1u), "");
    EXPECT_DEATH(common::checkedMul(715827883u, 6u), ""); // the largest box count is 715,827,882
    EXPECT_DEATH(common::checkedSub(0u, 1u), "");
    EXPECT_DEATH(common::checkedCast<uint16_t>(70000), "");
    int64_t frames = INT64_MAX;
    EXPECT_DEATH(common::checkedIncrement(frames), "");
}
