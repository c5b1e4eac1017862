// The vector layer against plain scalar arithmetic. The same file runs on the
// SSE4.1, scalar and NEON builds, so every expectation is NEON's answer.
#include "common/Simd.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

using namespace common;

namespace {

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

// Equal as values, NaN matching any NaN, and zeros matching in sign.
::testing::AssertionResult sameFloat(float expected, float actual) {
    if (std::isnan(expected) && std::isnan(actual)) return ::testing::AssertionSuccess();
    if (bits(expected) == bits(actual)) return ::testing::AssertionSuccess();
    // AssertionResult formats each operand on its own, so std::hex would not stick.
    char text[96];
    std::snprintf(text, sizeof text, "expected %g (0x%08x) got %g (0x%08x)", double(expected), bits(expected),
                  double(actual), bits(actual));
    return ::testing::AssertionFailure() << text;
}

struct Lanes {
    float v[4];
};

Lanes toLanes(float4 a) {
    Lanes r;
    storeu4(r.v, a);
    return r;
}

// Every lane as sameFloat sees it (NaN for any NaN, zeros by sign).
void expectLanes(float4 v, Lanes expected, int line) {
    const Lanes got = toLanes(v);
    for (int k = 0; k < 4; ++k) EXPECT_TRUE(sameFloat(expected.v[k], got.v[k])) << "line " << line << " lane " << k;
}
#define EXPECT_LANES(v, ...) expectLanes(v, Lanes{{__VA_ARGS__}}, __LINE__)

std::vector<float> interestingFloats() {
    return {0.0f,          -0.0f,         1.0f,           -1.0f,          0.5f,        -2.5f, 3.5f,  1e-40f,
            -1e-40f,       1e30f,         -1e30f,         3.4e38f,        -3.4e38f,    kInf,  -kInf, kNaN,
            2147483520.0f, 2147483648.0f, -2147483648.0f, -2147483904.0f, 16777217.0f, 0.1f};
}

// Runs op lane-wise over every pair drawn from values, four pairs per call.
template <typename VectorOp, typename ScalarOp>
void checkBinary(const std::vector<float>& values, VectorOp vectorOp, ScalarOp scalarOp, const char* name) {
    std::vector<std::pair<float, float>> pairs;
    for (float a : values)
        for (float b : values) pairs.emplace_back(a, b);
    while (pairs.size() % 4 != 0) pairs.emplace_back(1.0f, 1.0f);
    for (size_t i = 0; i < pairs.size(); i += 4) {
        const float4 a = make4(pairs[i].first, pairs[i + 1].first, pairs[i + 2].first, pairs[i + 3].first);
        const float4 b = make4(pairs[i].second, pairs[i + 1].second, pairs[i + 2].second, pairs[i + 3].second);
        const Lanes r = toLanes(vectorOp(a, b));
        for (int k = 0; k < 4; ++k)
            EXPECT_TRUE(sameFloat(scalarOp(pairs[i + k].first, pairs[i + k].second), r.v[k]))
                << name << "(" << pairs[i + k].first << ", " << pairs[i + k].second << ")";
    }
}

} // namespace

TEST(Simd, ArithmeticMatchesScalarIEEE) {
    std::vector<float> values = interestingFloats();
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> dist(-1000.0f, 1000.0f);
    for (int i = 0; i < 40; ++i) values.push_back(dist(rng));
    checkBinary(
        values, [](float4 a, float4 b) { return a + b; }, [](float a, float b) { return a + b; }, "add");
    checkBinary(
        values, [](float4 a, float4 b) { return a - b; }, [](float a, float b) { return a - b; }, "sub");
    checkBinary(
        values, [](float4 a, float4 b) { return a * b; }, [](float a, float b) { return a * b; }, "mul");
    checkBinary(
        values, [](float4 a, float4 b) { return a / b; }, [](float a, float b) { return a / b; }, "div");

    EXPECT_LANES(-make4(1.0f, 0.0f, -kInf, -2.0f), -1.0f, -0.0f, kInf, 2.0f);
    EXPECT_LANES(abs(make4(-0.0f, -3.0f, -kInf, 2.0f)), 0.0f, 3.0f, kInf, 2.0f);
    EXPECT_LANES(sqrt(make4(4.0f, 2.0f, -1.0f, kInf)), 2.0f, std::sqrt(2.0f), kNaN, kInf);
}

TEST(Simd, FusedMultiplyAddRoundsOnce) {
    // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24 lies exactly between two floats; the
    // tiny addend tips the exact sum upward. A double-precision emulation
    // without round-to-odd lands on the midpoint and rounds to even (down).
    const float a = 1.0f + std::ldexp(1.0f, -12);
    const float c = std::ldexp(1.0f, -60);
    const float expectedUp = 1.0f + std::ldexp(1.0f, -11) + std::ldexp(1.0f, -23);
    EXPECT_EQ(expectedUp, lane<0>(fmadd(splat(a), splat(a), splat(c))));
    // The same with the tie broken downward.
    EXPECT_EQ(1.0f + std::ldexp(1.0f, -11), lane<0>(fmadd(splat(a), splat(a), splat(-c))));
    // A plain product then sum keeps the two roundings: the layer never fuses silently.
    EXPECT_EQ(1.0f + std::ldexp(1.0f, -11), lane<0>(splat(a) * splat(a) + splat(c)));

    std::mt19937 rng(77);
    std::uniform_real_distribution<float> dist(-10.0f, 10.0f);
    for (int i = 0; i < 2000; ++i) {
        const float x[4] = {dist(rng), dist(rng), dist(rng), dist(rng)};
        const float y[4] = {dist(rng), dist(rng), dist(rng), dist(rng)};
        const float z[4] = {dist(rng), -x[1] * y[1], dist(rng) * 1e-7f, dist(rng)};
        const Lanes r = toLanes(fmadd(loadu4(x), loadu4(y), loadu4(z)));
        for (int k = 0; k < 4; ++k) ASSERT_TRUE(sameFloat(std::fma(x[k], y[k], z[k]), r.v[k]));
    }
    EXPECT_LANES(fmadd(make4(kInf, 0.0f, kNaN, 1e30f), make4(1.0f, kInf, 1.0f, 1e30f), make4(-kInf, 1.0f, 1.0f, -kInf)),
                 kNaN, kNaN, kNaN, -kInf);
}

TEST(Simd, MinMaxPropagateNaNAndOrderSignedZeros) {
    auto refMin = [](float a, float b) {
        if (std::isnan(a) || std::isnan(b)) return kNaN;
        if (a == 0.0f && b == 0.0f) return (std::signbit(a) || std::signbit(b)) ? -0.0f : 0.0f;
        return a < b ? a : b;
    };
    auto refMax = [](float a, float b) {
        if (std::isnan(a) || std::isnan(b)) return kNaN;
        if (a == 0.0f && b == 0.0f) return (std::signbit(a) && std::signbit(b)) ? -0.0f : 0.0f;
        return a > b ? a : b;
    };
    const std::vector<float> values = interestingFloats();
    checkBinary(
        values, [](float4 a, float4 b) { return min(a, b); }, refMin, "min");
    checkBinary(
        values, [](float4 a, float4 b) { return max(a, b); }, refMax, "max");

    // The number-only forms agree wherever no NaN is involved (signed zeros compare equal).
    const auto numbersOnly = [](float a, float b, float r) { return std::isnan(a) || std::isnan(b) ? 0.0f : r; };
    checkBinary(
        values, [](float4 a, float4 b) { return select(isNaN(a) | isNaN(b), zero4(), minNumber(a, b) + zero4()); },
        [&](float a, float b) { return numbersOnly(a, b, refMin(a, b) + 0.0f); }, "minNumber");
    checkBinary(
        values, [](float4 a, float4 b) { return select(isNaN(a) | isNaN(b), zero4(), maxNumber(a, b) + zero4()); },
        [&](float a, float b) { return numbersOnly(a, b, refMax(a, b) + 0.0f); }, "maxNumber");

    EXPECT_TRUE(std::isnan(horizontalMin(make4(1.0f, kNaN, -5.0f, 3.0f))));
    EXPECT_TRUE(std::isnan(horizontalMax(make4(1.0f, 2.0f, 3.0f, kNaN))));
    EXPECT_EQ(-5.0f, horizontalMin(make4(1.0f, 7.0f, -5.0f, 3.0f)));
    EXPECT_EQ(7.0f, horizontalMax(make4(1.0f, 7.0f, -5.0f, 3.0f)));
}

TEST(Simd, ConversionsSaturateLikeNeon) {
    struct Case {
        float in;
        int32_t trunc, round;
    };
    const Case cases[] = {
        {2.5f, 2, 2},
        {3.5f, 3, 4},
        {-2.5f, -2, -2},
        {-0.5f, 0, 0},
        {-1.7f, -1, -2},
        {0.49999997f, 0, 0},
        {2147483520.0f, 2147483520, 2147483520}, // largest float below 2^31
        {2147483648.0f, INT32_MAX, INT32_MAX},
        {1e10f, INT32_MAX, INT32_MAX},
        {kInf, INT32_MAX, INT32_MAX},
        {-2147483648.0f, INT32_MIN, INT32_MIN},
        {-2147483904.0f, INT32_MIN, INT32_MIN},
        {-kInf, INT32_MIN, INT32_MIN},
        {kNaN, 0, 0},
        {-kNaN, 0, 0},
        {1e-40f, 0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.trunc, lane<0>(truncToInt(splat(c.in)))) << c.in;
        EXPECT_EQ(c.round, lane<0>(roundToInt(splat(c.in)))) << c.in;
        EXPECT_EQ(c.trunc, lane<3>(truncToInt(make4(0, 0, 0, c.in)))) << c.in;
    }
    EXPECT_LANES(roundNearest(make4(2.5f, -3.5f, 0.5f, -0.4f)), 2.0f, -4.0f, 0.0f, -0.0f);
    EXPECT_LANES(truncate(make4(2.9f, -2.9f, kInf, kNaN)), 2.0f, -2.0f, kInf, kNaN);
    // Ties to even: 16777217 and 0x80000080 lie halfway between floats.
    EXPECT_LANES(toFloat(makeInt4(16777217, -3, INT32_MIN, INT32_MAX)), 16777216.0f, -3.0f, -2147483648.0f,
                 2147483648.0f);
    EXPECT_LANES(toFloatUnsigned(makeInt4(-1, int32_t(0x80000001u), 16777217, int32_t(0x80000080u))), 4294967296.0f,
                 2147483648.0f, 16777216.0f, 2147483648.0f);

    std::mt19937 rng(5);
    std::uniform_int_distribution<uint32_t> any;
    for (int i = 0; i < 4000; ++i) {
        const uint32_t x = any(rng);
        EXPECT_EQ(float(x), lane<0>(toFloatUnsigned(splatInt(int32_t(x))))) << x;
    }
    const float bitsBack = lane<1>(asFloat(asInt(make4(0.0f, -1.5f, 0.0f, 0.0f))));
    EXPECT_EQ(-1.5f, bitsBack);
    EXPECT_EQ(int32_t(0xBFC00000u), lane<0>(asInt(splat(-1.5f))));
}

TEST(Simd, EstimatesAreCloseAndHandleSpecials) {
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> exponent(-60.0f, 60.0f);
    for (int i = 0; i < 1000; ++i) {
        const float x = std::exp2(exponent(rng)) * (i % 2 ? -1.0f : 1.0f);
        const double exact = 1.0 / double(x);
        // One refinement step: about 16 correct bits on NEON, 22 on SSE.
        EXPECT_NEAR(1.0, lane<0>(rcp(splat(x))) / exact, 1e-4) << x;
        EXPECT_NEAR(1.0, lane<0>(rcpEstimate(splat(x))) / exact, 4e-3) << x;
        const float ax = std::fabs(x);
        EXPECT_NEAR(1.0, lane<0>(rsqrtEstimate(splat(ax))) * std::sqrt(double(ax)), 4e-3) << x;
    }
    EXPECT_LANES(rcp(make4(0.0f, -0.0f, kInf, kNaN)), kInf, -kInf, 0.0f, kNaN);
    EXPECT_LANES(rsqrtEstimate(make4(0.0f, kInf, -1.0f, kNaN)), kInf, 0.0f, kNaN, kNaN);
}

TEST(Simd, ComparesSelectsAndLaneMasks) {
    const float4 a = make4(1.0f, kNaN, -0.0f, 5.0f);
    const float4 b = make4(2.0f, kNaN, 0.0f, 5.0f);
    EXPECT_EQ(0x1u, signMask(cmpLt(a, b)));
    EXPECT_EQ(0xDu, signMask(cmpLe(a, b)));
    EXPECT_EQ(0xCu, signMask(cmpEq(a, b))); // -0 == +0, NaN != NaN
    EXPECT_EQ(0x0u, signMask(cmpGt(a, b)));
    EXPECT_EQ(0xCu, signMask(cmpGe(a, b)));
    EXPECT_EQ(0x2u, signMask(isNaN(a)));
    EXPECT_EQ(0x4u, signMask(make4(1.0f, 0.0f, -0.0f, kNaN))); // sign bits only

    EXPECT_LANES(select(maskFromBits(0x5), make4(1, 2, 3, 4), make4(5, 6, 7, 8)), 1.0f, 6.0f, 3.0f, 8.0f);
    EXPECT_EQ(20, lane<3>(select(maskFromBits(0x8), splatInt(20), splatInt(10))));
    EXPECT_EQ(10, lane<2>(select(maskFromBits(0x8), splatInt(20), splatInt(10))));
    for (unsigned m = 0; m < 16; ++m) {
        EXPECT_EQ(m, signMask(maskFromBits(m)));
        EXPECT_EQ(m != 0, anyTrue(maskFromBits(m)));
        EXPECT_EQ(m == 15, allTrue(maskFromBits(m)));
    }
    EXPECT_EQ(0x0u, signMask(cmpGt(splatInt(-1), splatInt(0))));
    EXPECT_EQ(0xFu, signMask(cmpLt(splatInt(INT32_MIN), splatInt(INT32_MAX))));
    EXPECT_EQ(0xFu, signMask(cmpGe(splatInt(3), splatInt(3)) & cmpLe(splatInt(3), splatInt(3))));
}

TEST(Simd, IntegerArithmeticWrapsAndShiftsFollowNeon) {
    const int4 big = makeInt4(INT32_MAX, INT32_MIN, -1, 7);
    EXPECT_EQ(INT32_MIN, lane<0>(big + splatInt(1)));
    EXPECT_EQ(INT32_MAX, lane<1>(big - splatInt(1)));
    EXPECT_EQ(-7, lane<3>(big * splatInt(-1)));
    EXPECT_EQ(int32_t(0xFFFFFFFEu), lane<0>(big * splatInt(2))); // low 32 bits
    EXPECT_EQ(6, lane<0>(andNot(splatInt(7), splatInt(1))));
    EXPECT_EQ(~5, lane<0>(~splatInt(5)));
    EXPECT_EQ(-1, lane<2>(min(big, splatInt(0))));
    EXPECT_EQ(0, lane<2>(minUnsigned(big, splatInt(0)))); // 0xFFFFFFFF is the largest unsigned
    EXPECT_EQ(-1, lane<2>(maxUnsigned(big, splatInt(5))));
    EXPECT_EQ(INT32_MIN, lane<1>(maxUnsigned(big, splatInt(5))));
    EXPECT_EQ(7, lane<3>(max(big, splatInt(0))));

    EXPECT_EQ(int32_t(0xFFFFFFF0u), lane<0>(shiftLeft<4>(splatInt(-1))));
    EXPECT_EQ(0x0FFFFFFF, lane<0>(shiftRightLogical<4>(splatInt(-1))));
    EXPECT_EQ(-1, lane<0>(shiftRightArithmetic<4>(splatInt(-1))));
    EXPECT_EQ(-2, lane<0>(shiftRightArithmetic<2>(splatInt(-5)))); // rounds toward -inf
    EXPECT_EQ(0x3FFFFFFF, lane<0>(shiftRightArithmetic<1>(splatInt(INT32_MAX))));
    EXPECT_EQ(int32_t(0xC0000000u), lane<0>(shiftRightArithmetic<1>(splatInt(INT32_MIN))));

    // Counts of 32 or more give 0, also counts whose low byte is small (256)
    // and negative counts taken as unsigned.
    const int32_t counts[8] = {0, 1, 31, 32, 33, 256, -1, 8};
    const int32_t expectLeft[8] = {-1, -2, INT32_MIN, 0, 0, 0, 0, int32_t(0xFFFFFF00u)};
    const int32_t expectRight[8] = {-1, INT32_MAX, 1, 0, 0, 0, 0, 0x00FFFFFF};
    for (int half = 0; half < 2; ++half) {
        const int4 c = loaduInt4(counts + 4 * half);
        for (int k = 0; k < 4; ++k) {
            EXPECT_EQ(expectLeft[4 * half + k], lane(shiftLeftVar(splatInt(-1), c), k)) << counts[4 * half + k];
            EXPECT_EQ(expectRight[4 * half + k], lane(shiftRightVar(splatInt(-1), c), k)) << counts[4 * half + k];
        }
    }

    const int4 r = reverseBytes(makeInt4(0x03020100, 0x07060504, 0x0B0A0908, 0x0F0E0D0C));
    for (int k = 0; k < 4; ++k) EXPECT_EQ(0x0C0D0E0F - 0x04040404 * k, lane(r, k));
}

TEST(Simd, SixteenBitLanes) {
    const ushort8 n = narrowSaturate(makeInt4(-5, 70000, 65535, 0), makeInt4(1, INT32_MIN, INT32_MAX, 65536));
    alignas(16) uint16_t out[8];
    storeU16(out, n);
    const uint16_t expected[8] = {0, 65535, 65535, 0, 1, 0, 65535, 65535};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(expected[i], out[i]) << i;
    EXPECT_EQ(0, horizontalMin(n));
    EXPECT_EQ(65535, horizontalMax(n));

    alignas(16) const uint16_t a[8] = {10, 20, 30, 40, 50, 60, 70, 65535};
    alignas(16) const uint16_t b[8] = {40, 20, 10, 40, 0, 61, 70, 1};
    const ushort8 va = loadU16(a), vb = loadU16(b);
    EXPECT_EQ(10, horizontalMin(va));
    EXPECT_EQ(65535, horizontalMax(va));
    EXPECT_EQ(1, horizontalMax(splatU16(1)));
    // a >= b in lanes 1, 2, 3, 4, 6, 7: two bits per lane.
    EXPECT_EQ(0xF3FCu, byteMask(cmpGe(va, vb)));
    storeU16(out, max(va, vb));
    const uint16_t maxExpected[8] = {40, 20, 30, 40, 50, 61, 70, 65535};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(maxExpected[i], out[i]);
    storeU16(out, min(va, vb) & splatU16(0xFF0F));
    EXPECT_EQ(10, out[0]);
    EXPECT_EQ(1, out[7]);
    EXPECT_EQ(0, out[4]);
    EXPECT_EQ(0x0C, out[5]); // min 60 = 0x3C, masked by 0xFF0F

    // Unsigned view of signed lanes: negatives are huge, so they saturate high.
    storeU16(out, narrowSaturateUnsigned(makeInt4(-5, 70000, 65535, 0), makeInt4(1, INT32_MIN, INT32_MAX, 65536)));
    const uint16_t unsignedExpected[8] = {65535, 65535, 65535, 0, 1, 65535, 65535, 65535};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(unsignedExpected[i], out[i]) << i;
    // Byte i of a 64-bit mask into the top of lane i; then row r's lanes from bit 7 - r.
    const ushort8 bytes = bytesToHighU16(0x8001FF00402000F1ull);
    storeU16(out, bytes);
    EXPECT_EQ(0xF100, out[0]);
    EXPECT_EQ(0x8000, out[7]);
    storeU16(out, topBitAfterShift<2>(bytes)); // bit 5 of each byte: 0xF1, 0x00, 0x20, 0x40, 0x00, 0xFF, 0x01, 0x80
    const uint16_t row2[8] = {65535, 0, 65535, 0, 0, 65535, 0, 0};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(row2[i], out[i]) << i;
}

TEST(Simd, ShufflesAndGeometry) {
    EXPECT_LANES((swizzle<3, 0, 0, 2>(make4(1, 2, 3, 4))), 4.0f, 1.0f, 1.0f, 3.0f);
    EXPECT_EQ(3.0f, lane<2>(splatLane<2>(make4(1, 2, 3, 4))));

    float4 r0 = make4(0, 1, 2, 3), r1 = make4(4, 5, 6, 7), r2 = make4(8, 9, 10, 11), r3 = make4(12, 13, 14, 15);
    transpose(r0, r1, r2, r3);
    const float4 rows[4] = {r0, r1, r2, r3};
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) EXPECT_EQ(float(4 * j + i), lane(rows[i], j));

    EXPECT_EQ(32.0f, dot3(make4(1, 2, 3, 100), make4(4, 5, 6, 100))); // w ignored
    EXPECT_LANES(cross3(make4(1, 0, 0, 9), make4(0, 1, 0, 9)), 0.0f, 0.0f, 1.0f, 0.0f);
    EXPECT_LANES(cross3(make4(2, 3, 4, 0), make4(5, 6, 7, 0)), -3.0f, 6.0f, -3.0f, 0.0f);

    alignas(16) float stored[4];
    store4(stored, make4(1, 2, 3, 4));
    EXPECT_EQ(3.0f, lane<2>(load4(stored)));
    const float three[3] = {7, 8, 9};
    EXPECT_EQ(0.0f, lane<3>(load3(three)));
    EXPECT_EQ(9.0f, lane<2>(load3(three)));
    alignas(16) int32_t ints[4];
    storeInt4(ints, makeInt4(5, 6, 7, 8));
    EXPECT_EQ(8, lane<3>(loadInt4(ints)));
}
