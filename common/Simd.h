// Four-wide vector layer. The library ships on AArch64, so NEON defines every
// result; the SSE4.1 and scalar backends reproduce NEON's answers (saturating
// conversions, NaN-propagating min/max, -0 < +0 in min/max, shift counts of 32
// or more giving 0). Only the precision of the explicit estimates may differ.
#pragma once

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>

#if defined(ZELK_NO_SIMD)
#define ZELK_SCALAR 1
#elif defined(__aarch64__)
#define ZELK_NEON 1
#include <arm_neon.h>
#elif defined(__SSE4_1__)
#define ZELK_SSE41 1
#include <smmintrin.h>
#else
#define ZELK_SCALAR 1
#endif

#if defined(_MSC_VER)
#define ZELK_INLINE __forceinline
#else
#define ZELK_INLINE inline __attribute__((always_inline))
#endif

namespace common {

#if defined(ZELK_NEON)
struct float4 {
    float32x4_t v;
};
struct int4 {
    int32x4_t v;
};
struct ushort8 {
    uint16x8_t v;
};
#elif defined(ZELK_SSE41)
struct float4 {
    __m128 v;
};
struct int4 {
    __m128i v;
};
struct ushort8 {
    __m128i v;
};
#else
struct alignas(16) float4 {
    float v[4];
};
struct alignas(16) int4 {
    int32_t v[4];
};
struct alignas(16) ushort8 {
    uint16_t v[8];
};
#endif

namespace simd_detail {
ZELK_INLINE uint32_t floatBits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}
ZELK_INLINE float bitsFloat(uint32_t u) {
    float f;
    std::memcpy(&f, &u, 4);
    return f;
}
// Scalar models of the NEON instructions; the scalar backend is built from them.
ZELK_INLINE float minLane(float a, float b) {
    if (a != a) return a;
    if (b != b) return b;
    if (a == b) return bitsFloat(floatBits(a) | floatBits(b)); // -0 wins
    return a < b ? a : b;
}
ZELK_INLINE float maxLane(float a, float b) {
    if (a != a) return a;
    if (b != b) return b;
    if (a == b) return bitsFloat(floatBits(a) & floatBits(b)); // +0 wins
    return a > b ? a : b;
}
ZELK_INLINE int32_t saturateToInt(float t) { // t already integral
    if (t != t) return 0;
    if (t >= 2147483648.0f) return INT32_MAX;
    if (t < -2147483648.0f) return INT32_MIN;
    return static_cast<int32_t>(t);
}
ZELK_INLINE float roundEven(float a) { return std::nearbyintf(a); } // default mode is to-nearest-even
} // namespace simd_detail

// ---------------------------------------------------------------- construction

ZELK_INLINE float4 splat(float a) {
#if defined(ZELK_NEON)
    return {vdupq_n_f32(a)};
#elif defined(ZELK_SSE41)
    return {_mm_set1_ps(a)};
#else
    return {{a, a, a, a}};
#endif
}

ZELK_INLINE float4 make4(float x, float y, float z, float w) {
#if defined(ZELK_NEON)
    alignas(16) const float t[4] = {x, y, z, w};
    return {vld1q_f32(t)};
#elif defined(ZELK_SSE41)
    return {_mm_setr_ps(x, y, z, w)};
#else
    return {{x, y, z, w}};
#endif
}

ZELK_INLINE float4 zero4() { return splat(0.0f); }

ZELK_INLINE float4 load4(const float* p) { // p: 16-byte aligned
#if defined(ZELK_NEON)
    return {vld1q_f32(p)};
#elif defined(ZELK_SSE41)
    return {_mm_load_ps(p)};
#else
    return {{p[0], p[1], p[2], p[3]}};
#endif
}

ZELK_INLINE float4 loadu4(const float* p) {
#if defined(ZELK_NEON)
    return {vld1q_f32(p)};
#elif defined(ZELK_SSE41)
    return {_mm_loadu_ps(p)};
#else
    return {{p[0], p[1], p[2], p[3]}};
#endif
}

// Three floats, w = 0; never reads p[3] (host arrays end at a vertex's z).
ZELK_INLINE float4 load3(const float* p) { return make4(p[0], p[1], p[2], 0.0f); }

ZELK_INLINE void store4(float* p, float4 a) { // p: 16-byte aligned
#if defined(ZELK_NEON)
    vst1q_f32(p, a.v);
#elif defined(ZELK_SSE41)
    _mm_store_ps(p, a.v);
#else
    for (int i = 0; i < 4; ++i) p[i] = a.v[i];
#endif
}

ZELK_INLINE void storeu4(float* p, float4 a) {
#if defined(ZELK_NEON)
    vst1q_f32(p, a.v);
#elif defined(ZELK_SSE41)
    _mm_storeu_ps(p, a.v);
#else
    for (int i = 0; i < 4; ++i) p[i] = a.v[i];
#endif
}

template <int I> ZELK_INLINE float lane(float4 a) {
    static_assert(I >= 0 && I < 4, "lane index");
#if defined(ZELK_NEON)
    return vgetq_lane_f32(a.v, I);
#elif defined(ZELK_SSE41)
    return _mm_cvtss_f32(_mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(I, I, I, I)));
#else
    return a.v[I];
#endif
}

ZELK_INLINE float lane(float4 a, int i) {
    alignas(16) float t[4];
    store4(t, a);
    return t[i & 3];
}

ZELK_INLINE int4 splatInt(int32_t a) {
#if defined(ZELK_NEON)
    return {vdupq_n_s32(a)};
#elif defined(ZELK_SSE41)
    return {_mm_set1_epi32(a)};
#else
    return {{a, a, a, a}};
#endif
}

ZELK_INLINE int4 makeInt4(int32_t x, int32_t y, int32_t z, int32_t w) {
#if defined(ZELK_NEON)
    alignas(16) const int32_t t[4] = {x, y, z, w};
    return {vld1q_s32(t)};
#elif defined(ZELK_SSE41)
    return {_mm_setr_epi32(x, y, z, w)};
#else
    return {{x, y, z, w}};
#endif
}

ZELK_INLINE int4 loadInt4(const int32_t* p) { // p: 16-byte aligned
#if defined(ZELK_NEON)
    return {vld1q_s32(p)};
#elif defined(ZELK_SSE41)
    return {_mm_load_si128(reinterpret_cast<const __m128i*>(p))};
#else
    return {{p[0], p[1], p[2], p[3]}};
#endif
}

ZELK_INLINE int4 loaduInt4(const int32_t* p) {
#if defined(ZELK_NEON)
    return {vld1q_s32(p)};
#elif defined(ZELK_SSE41)
    return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))};
#else
    return {{p[0], p[1], p[2], p[3]}};
#endif
}

ZELK_INLINE void storeInt4(int32_t* p, int4 a) { // p: 16-byte aligned
#if defined(ZELK_NEON)
    vst1q_s32(p, a.v);
#elif defined(ZELK_SSE41)
    _mm_store_si128(reinterpret_cast<__m128i*>(p), a.v);
#else
    for (int i = 0; i < 4; ++i) p[i] = a.v[i];
#endif
}

ZELK_INLINE void storeuInt4(int32_t* p, int4 a) {
#if defined(ZELK_NEON)
    vst1q_s32(p, a.v);
#elif defined(ZELK_SSE41)
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), a.v);
#else
    for (int i = 0; i < 4; ++i) p[i] = a.v[i];
#endif
}

template <int I> ZELK_INLINE int32_t lane(int4 a) {
    static_assert(I >= 0 && I < 4, "lane index");
#if defined(ZELK_NEON)
    return vgetq_lane_s32(a.v, I);
#elif defined(ZELK_SSE41)
    return _mm_extract_epi32(a.v, I);
#else
    return a.v[I];
#endif
}

ZELK_INLINE int32_t lane(int4 a, int i) {
    alignas(16) int32_t t[4];
    storeInt4(t, a);
    return t[i & 3];
}

// ---------------------------------------------------------------- bit casts and conversions

ZELK_INLINE int4 asInt(float4 a) {
#if defined(ZELK_NEON)
    return {vreinterpretq_s32_f32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_castps_si128(a.v)};
#else
    int4 r;
    std::memcpy(r.v, a.v, 16);
    return r;
#endif
}

ZELK_INLINE float4 asFloat(int4 a) {
#if defined(ZELK_NEON)
    return {vreinterpretq_f32_s32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_castsi128_ps(a.v)};
#else
    float4 r;
    std::memcpy(r.v, a.v, 16);
    return r;
#endif
}

ZELK_INLINE float4 toFloat(int4 a) { // exact below 2^24, round-to-nearest-even above
#if defined(ZELK_NEON)
    return {vcvtq_f32_s32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_cvtepi32_ps(a.v)};
#else
    return {{float(a.v[0]), float(a.v[1]), float(a.v[2]), float(a.v[3])}};
#endif
}

// Unsigned 32-bit lanes to float, rounded to nearest even (NEON's UCVTF).
ZELK_INLINE float4 toFloatUnsigned(int4 a) {
#if defined(ZELK_NEON)
    return {vcvtq_f32_u32(vreinterpretq_u32_s32(a.v))};
#elif defined(ZELK_SSE41)
    // Split into 16-bit halves: each converts exactly, one rounding in the sum.
    const __m128i lo = _mm_and_si128(a.v, _mm_set1_epi32(0xFFFF));
    const __m128i hi = _mm_srli_epi32(a.v, 16);
    const __m128 fhi = _mm_mul_ps(_mm_cvtepi32_ps(hi), _mm_set1_ps(65536.0f));
    return {_mm_add_ps(fhi, _mm_cvtepi32_ps(lo))};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = float(uint32_t(a.v[i]));
    return r;
#endif
}

#if defined(ZELK_SSE41)
namespace simd_detail {
// cvt(t)ps gives 0x80000000 for NaN and for every out-of-range lane; NEON
// saturates and maps NaN to 0.
ZELK_INLINE __m128i fixConversion(__m128 a, __m128i r) {
    const __m128i tooBig = _mm_castps_si128(_mm_cmpge_ps(a, _mm_set1_ps(2147483648.0f)));
    r = _mm_xor_si128(r, tooBig); // 0x80000000 -> 0x7FFFFFFF
    return _mm_andnot_si128(_mm_castps_si128(_mm_cmpunord_ps(a, a)), r);
}
} // namespace simd_detail
#endif

// Truncating float-to-int conversion with NEON saturation (NaN gives 0).
ZELK_INLINE int4 truncToInt(float4 a) {
#if defined(ZELK_NEON)
    return {vcvtq_s32_f32(a.v)};
#elif defined(ZELK_SSE41)
    return {simd_detail::fixConversion(a.v, _mm_cvttps_epi32(a.v))};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = simd_detail::saturateToInt(std::trunc(a.v[i]));
    return r;
#endif
}

// Round-to-nearest-even float-to-int conversion with NEON saturation.
ZELK_INLINE int4 roundToInt(float4 a) {
#if defined(ZELK_NEON)
    return {vcvtnq_s32_f32(a.v)};
#elif defined(ZELK_SSE41)
    // MXCSR is assumed at its default, round to nearest even.
    return {simd_detail::fixConversion(a.v, _mm_cvtps_epi32(a.v))};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = simd_detail::saturateToInt(simd_detail::roundEven(a.v[i]));
    return r;
#endif
}

ZELK_INLINE float4 roundNearest(float4 a) { // to nearest even, result stays float
#if defined(ZELK_NEON)
    return {vrndnq_f32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_round_ps(a.v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = simd_detail::roundEven(a.v[i]);
    return r;
#endif
}

ZELK_INLINE float4 truncate(float4 a) { // toward zero, result stays float
#if defined(ZELK_NEON)
    return {vrndq_f32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_round_ps(a.v, _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = std::trunc(a.v[i]);
    return r;
#endif
}

// ---------------------------------------------------------------- float arithmetic

ZELK_INLINE float4 operator+(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vaddq_f32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_add_ps(a.v, b.v)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] + b.v[i];
    return r;
#endif
}

ZELK_INLINE float4 operator-(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vsubq_f32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_sub_ps(a.v, b.v)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] - b.v[i];
    return r;
#endif
}

ZELK_INLINE float4 operator*(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vmulq_f32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_mul_ps(a.v, b.v)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] * b.v[i];
    return r;
#endif
}

ZELK_INLINE float4 operator/(float4 a, float4 b) { // exact IEEE division
#if defined(ZELK_NEON)
    return {vdivq_f32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_div_ps(a.v, b.v)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] / b.v[i];
    return r;
#endif
}

ZELK_INLINE float4 operator-(float4 a) {
#if defined(ZELK_NEON)
    return {vnegq_f32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_xor_ps(a.v, _mm_set1_ps(-0.0f))};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = -a.v[i];
    return r;
#endif
}

ZELK_INLINE float4& operator+=(float4& a, float4 b) { return a = a + b; }
ZELK_INLINE float4& operator-=(float4& a, float4 b) { return a = a - b; }
ZELK_INLINE float4& operator*=(float4& a, float4 b) { return a = a * b; }

#if defined(ZELK_SSE41) && !defined(__FMA__)
namespace simd_detail {
// Fused a*b+c without an FMA unit: the product of two floats is exact in
// double; the sum is made round-to-odd (Boldo and Melquiond), so the final
// rounding to float is the single rounding of a true fused operation.
ZELK_INLINE __m128d fmaOdd(__m128d a, __m128d b, __m128d c) {
    const __m128d p = _mm_mul_pd(a, b);
    const __m128d s = _mm_add_pd(p, c);
    const __m128d bv = _mm_sub_pd(s, p); // TwoSum error term
    const __m128d e = _mm_add_pd(_mm_sub_pd(p, _mm_sub_pd(s, bv)), _mm_sub_pd(c, bv));
    const __m128i sBits = _mm_castpd_si128(s);
    const __m128i inexact = _mm_castpd_si128(_mm_and_pd(_mm_cmpneq_pd(e, _mm_setzero_pd()), _mm_cmpord_pd(e, e)));
    const __m128i evenLsb = _mm_cmpeq_epi64(_mm_and_si128(sBits, _mm_set1_epi64x(1)), _mm_setzero_si128());
    // Step one ulp toward the exact value: up in magnitude when e has s's sign.
    const __m128i opposite = _mm_srli_epi64(_mm_xor_si128(sBits, _mm_castpd_si128(e)), 63);
    const __m128i step = _mm_sub_epi64(_mm_set1_epi64x(1), _mm_slli_epi64(opposite, 1));
    const __m128i fix = _mm_and_si128(step, _mm_and_si128(inexact, evenLsb));
    return _mm_castsi128_pd(_mm_add_epi64(sBits, fix));
}
} // namespace simd_detail
#endif

// a*b + c with one rounding (NEON FMLA). Use only where a fused result is
// wanted; plain a*b + c stays unfused everywhere (-ffp-contract=off).
ZELK_INLINE float4 fmadd(float4 a, float4 b, float4 c) {
#if defined(ZELK_NEON)
    return {vfmaq_f32(c.v, a.v, b.v)};
#elif defined(ZELK_SSE41) && defined(__FMA__)
    return {_mm_fmadd_ps(a.v, b.v, c.v)};
#elif defined(ZELK_SSE41)
    using simd_detail::fmaOdd;
    const __m128 ah = _mm_movehl_ps(a.v, a.v), bh = _mm_movehl_ps(b.v, b.v), ch = _mm_movehl_ps(c.v, c.v);
    const __m128d lo = fmaOdd(_mm_cvtps_pd(a.v), _mm_cvtps_pd(b.v), _mm_cvtps_pd(c.v));
    const __m128d hi = fmaOdd(_mm_cvtps_pd(ah), _mm_cvtps_pd(bh), _mm_cvtps_pd(ch));
    return {_mm_movelh_ps(_mm_cvtpd_ps(lo), _mm_cvtpd_ps(hi))};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = std::fma(a.v[i], b.v[i], c.v[i]);
    return r;
#endif
}

// Minimum that propagates NaN and orders -0 below +0, as NEON FMIN.
ZELK_INLINE float4 min(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vminq_f32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    __m128 r = _mm_min_ps(a.v, b.v); // b when either is NaN or both are equal
    r = _mm_blendv_ps(r, _mm_or_ps(a.v, b.v), _mm_cmpeq_ps(a.v, b.v));
    return {_mm_blendv_ps(r, a.v, _mm_cmpunord_ps(a.v, a.v))};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = simd_detail::minLane(a.v[i], b.v[i]);
    return r;
#endif
}

// Maximum that propagates NaN and orders -0 below +0, as NEON FMAX.
ZELK_INLINE float4 max(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vmaxq_f32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    __m128 r = _mm_max_ps(a.v, b.v);
    r = _mm_blendv_ps(r, _mm_and_ps(a.v, b.v), _mm_cmpeq_ps(a.v, b.v));
    return {_mm_blendv_ps(r, a.v, _mm_cmpunord_ps(a.v, a.v))};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = simd_detail::maxLane(a.v[i], b.v[i]);
    return r;
#endif
}

// Minimum and maximum for lanes known to be numbers: where neither input is
// NaN they equal min and max above, save that of -0 and +0 either may come
// out. One instruction on every backend instead of three blends on x86.
ZELK_INLINE float4 minNumber(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vminq_f32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_min_ps(a.v, b.v)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] < b.v[i] ? a.v[i] : b.v[i];
    return r;
#endif
}

ZELK_INLINE float4 maxNumber(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vmaxq_f32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_max_ps(a.v, b.v)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] > b.v[i] ? a.v[i] : b.v[i];
    return r;
#endif
}

ZELK_INLINE float4 abs(float4 a) {
#if defined(ZELK_NEON)
    return {vabsq_f32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_andnot_ps(_mm_set1_ps(-0.0f), a.v)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = std::fabs(a.v[i]);
    return r;
#endif
}

ZELK_INLINE float4 sqrt(float4 a) {
#if defined(ZELK_NEON)
    return {vsqrtq_f32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_sqrt_ps(a.v)};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = std::sqrt(a.v[i]);
    return r;
#endif
}

// Hardware reciprocal estimate, unrefined: about 8 bits on NEON, 12 on SSE.
ZELK_INLINE float4 rcpEstimate(float4 a) {
#if defined(ZELK_NEON)
    return {vrecpeq_f32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_rcp_ps(a.v)};
#else
    return splat(1.0f) / a;
#endif
}

// Reciprocal estimate refined by one Newton-Raphson step. The step is NEON's
// FRECPS, which yields exactly 2 for 0 * inf so that rcp(0) stays infinite.
ZELK_INLINE float4 rcp(float4 a) {
#if defined(ZELK_NEON)
    const float32x4_t e = vrecpeq_f32(a.v);
    return {vmulq_f32(e, vrecpsq_f32(a.v, e))};
#elif defined(ZELK_SSE41)
    const __m128 e = _mm_rcp_ps(a.v);
    __m128 step = _mm_sub_ps(_mm_set1_ps(2.0f), _mm_mul_ps(a.v, e));
    const __m128 zeroTimesInf = _mm_andnot_ps(_mm_cmpunord_ps(a.v, a.v), _mm_cmpunord_ps(step, step));
    step = _mm_blendv_ps(step, _mm_set1_ps(2.0f), zeroTimesInf);
    return {_mm_mul_ps(e, step)};
#else
    return splat(1.0f) / a;
#endif
}

// Hardware reciprocal-square-root estimate, unrefined (about 8 bits on NEON).
ZELK_INLINE float4 rsqrtEstimate(float4 a) {
#if defined(ZELK_NEON)
    return {vrsqrteq_f32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_rsqrt_ps(a.v)};
#else
    return splat(1.0f) / sqrt(a);
#endif
}

// ---------------------------------------------------------------- float compares and selects

// Masks are int4 with all-ones (true) or zero lanes. Ordered: NaN compares false.
ZELK_INLINE int4 cmpEq(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vreinterpretq_s32_u32(vceqq_f32(a.v, b.v))};
#elif defined(ZELK_SSE41)
    return {_mm_castps_si128(_mm_cmpeq_ps(a.v, b.v))};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] == b.v[i] ? -1 : 0;
    return r;
#endif
}

ZELK_INLINE int4 cmpLt(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vreinterpretq_s32_u32(vcltq_f32(a.v, b.v))};
#elif defined(ZELK_SSE41)
    return {_mm_castps_si128(_mm_cmplt_ps(a.v, b.v))};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] < b.v[i] ? -1 : 0;
    return r;
#endif
}

ZELK_INLINE int4 cmpLe(float4 a, float4 b) {
#if defined(ZELK_NEON)
    return {vreinterpretq_s32_u32(vcleq_f32(a.v, b.v))};
#elif defined(ZELK_SSE41)
    return {_mm_castps_si128(_mm_cmple_ps(a.v, b.v))};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] <= b.v[i] ? -1 : 0;
    return r;
#endif
}

ZELK_INLINE int4 cmpGt(float4 a, float4 b) { return cmpLt(b, a); }
ZELK_INLINE int4 cmpGe(float4 a, float4 b) { return cmpLe(b, a); }
ZELK_INLINE int4 isNaN(float4 a) {
#if defined(ZELK_NEON)
    return {vreinterpretq_s32_u32(vmvnq_u32(vceqq_f32(a.v, a.v)))};
#elif defined(ZELK_SSE41)
    return {_mm_castps_si128(_mm_cmpunord_ps(a.v, a.v))};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] != a.v[i] ? -1 : 0;
    return r;
#endif
}

// ---------------------------------------------------------------- integer arithmetic and logic

ZELK_INLINE int4 operator+(int4 a, int4 b) {
#if defined(ZELK_NEON)
    return {vaddq_s32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_add_epi32(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = int32_t(uint32_t(a.v[i]) + uint32_t(b.v[i])); // wraps
    return r;
#endif
}

ZELK_INLINE int4 operator-(int4 a, int4 b) {
#if defined(ZELK_NEON)
    return {vsubq_s32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_sub_epi32(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = int32_t(uint32_t(a.v[i]) - uint32_t(b.v[i]));
    return r;
#endif
}

ZELK_INLINE int4 operator*(int4 a, int4 b) { // low 32 bits of the product
#if defined(ZELK_NEON)
    return {vmulq_s32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_mullo_epi32(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = int32_t(uint32_t(a.v[i]) * uint32_t(b.v[i]));
    return r;
#endif
}

ZELK_INLINE int4 operator&(int4 a, int4 b) {
#if defined(ZELK_NEON)
    return {vandq_s32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_and_si128(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] & b.v[i];
    return r;
#endif
}

ZELK_INLINE int4 operator|(int4 a, int4 b) {
#if defined(ZELK_NEON)
    return {vorrq_s32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_or_si128(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] | b.v[i];
    return r;
#endif
}

ZELK_INLINE int4 operator^(int4 a, int4 b) {
#if defined(ZELK_NEON)
    return {veorq_s32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_xor_si128(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] ^ b.v[i];
    return r;
#endif
}

ZELK_INLINE int4 operator~(int4 a) {
#if defined(ZELK_NEON)
    return {vmvnq_s32(a.v)};
#elif defined(ZELK_SSE41)
    return {_mm_xor_si128(a.v, _mm_set1_epi32(-1))};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = ~a.v[i];
    return r;
#endif
}

// a & ~b
ZELK_INLINE int4 andNot(int4 a, int4 b) {
#if defined(ZELK_NEON)
    return {vbicq_s32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_andnot_si128(b.v, a.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] & ~b.v[i];
    return r;
#endif
}

ZELK_INLINE int4& operator+=(int4& a, int4 b) { return a = a + b; }
ZELK_INLINE int4& operator-=(int4& a, int4 b) { return a = a - b; }
ZELK_INLINE int4& operator&=(int4& a, int4 b) { return a = a & b; }
ZELK_INLINE int4& operator|=(int4& a, int4 b) { return a = a | b; }

ZELK_INLINE int4 cmpEq(int4 a, int4 b) {
#if defined(ZELK_NEON)
    return {vreinterpretq_s32_u32(vceqq_s32(a.v, b.v))};
#elif defined(ZELK_SSE41)
    return {_mm_cmpeq_epi32(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] == b.v[i] ? -1 : 0;
    return r;
#endif
}

ZELK_INLINE int4 cmpGt(int4 a, int4 b) { // signed
#if defined(ZELK_NEON)
    return {vreinterpretq_s32_u32(vcgtq_s32(a.v, b.v))};
#elif defined(ZELK_SSE41)
    return {_mm_cmpgt_epi32(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] > b.v[i] ? -1 : 0;
    return r;
#endif
}

ZELK_INLINE int4 cmpLt(int4 a, int4 b) { return cmpGt(b, a); }
ZELK_INLINE int4 cmpGe(int4 a, int4 b) { return ~cmpGt(b, a); }
ZELK_INLINE int4 cmpLe(int4 a, int4 b) { return ~cmpGt(a, b); }

ZELK_INLINE int4 min(int4 a, int4 b) { // signed
#if defined(ZELK_NEON)
    return {vminq_s32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_min_epi32(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] < b.v[i] ? a.v[i] : b.v[i];
    return r;
#endif
}

ZELK_INLINE int4 max(int4 a, int4 b) { // signed
#if defined(ZELK_NEON)
    return {vmaxq_s32(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_max_epi32(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = a.v[i] > b.v[i] ? a.v[i] : b.v[i];
    return r;
#endif
}

ZELK_INLINE int4 minUnsigned(int4 a, int4 b) {
#if defined(ZELK_NEON)
    return {vreinterpretq_s32_u32(vminq_u32(vreinterpretq_u32_s32(a.v), vreinterpretq_u32_s32(b.v)))};
#elif defined(ZELK_SSE41)
    return {_mm_min_epu32(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = uint32_t(a.v[i]) < uint32_t(b.v[i]) ? a.v[i] : b.v[i];
    return r;
#endif
}

ZELK_INLINE int4 maxUnsigned(int4 a, int4 b) {
#if defined(ZELK_NEON)
    return {vreinterpretq_s32_u32(vmaxq_u32(vreinterpretq_u32_s32(a.v), vreinterpretq_u32_s32(b.v)))};
#elif defined(ZELK_SSE41)
    return {_mm_max_epu32(a.v, b.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = uint32_t(a.v[i]) > uint32_t(b.v[i]) ? a.v[i] : b.v[i];
    return r;
#endif
}

// ---------------------------------------------------------------- shifts

template <int N> ZELK_INLINE int4 shiftLeft(int4 a) {
    static_assert(N >= 0 && N < 32, "shift count");
#if defined(ZELK_NEON)
    return {vshlq_n_s32(a.v, N)};
#elif defined(ZELK_SSE41)
    return {_mm_slli_epi32(a.v, N)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = int32_t(uint32_t(a.v[i]) << N);
    return r;
#endif
}

template <int N> ZELK_INLINE int4 shiftRightLogical(int4 a) {
    static_assert(N >= 0 && N < 32, "shift count");
    if constexpr (N == 0) {
        return a;
    } else {
#if defined(ZELK_NEON)
        return {vreinterpretq_s32_u32(vshrq_n_u32(vreinterpretq_u32_s32(a.v), N))};
#elif defined(ZELK_SSE41)
        return {_mm_srli_epi32(a.v, N)};
#else
        int4 r;
        for (int i = 0; i < 4; ++i) r.v[i] = int32_t(uint32_t(a.v[i]) >> N);
        return r;
#endif
    }
}

template <int N> ZELK_INLINE int4 shiftRightArithmetic(int4 a) {
    static_assert(N >= 0 && N < 32, "shift count");
    if constexpr (N == 0) {
        return a;
    } else {
#if defined(ZELK_NEON)
        return {vshrq_n_s32(a.v, N)};
#elif defined(ZELK_SSE41)
        return {_mm_srai_epi32(a.v, N)};
#else
        int4 r;
        for (int i = 0; i < 4; ++i)
            r.v[i] = a.v[i] < 0 ? ~int32_t(~uint32_t(a.v[i]) >> N) : int32_t(uint32_t(a.v[i]) >> N);
        return r;
#endif
    }
}

#if defined(ZELK_SSE41)
namespace simd_detail {
// SSE4.1 has no per-lane shift; shift the whole vector by each lane's count
// (psrld/pslld give 0 for counts of 32 and more) and keep the matching lane.
template <bool Left> ZELK_INLINE __m128i shiftVar(__m128i a, __m128i counts) {
    const __m128i c = _mm_min_epu32(counts, _mm_set1_epi32(32));
    const __m128i low = _mm_setr_epi32(-1, 0, 0, 0);
    const __m128i c0 = _mm_and_si128(c, low);
    const __m128i c1 = _mm_and_si128(_mm_srli_si128(c, 4), low);
    const __m128i c2 = _mm_and_si128(_mm_srli_si128(c, 8), low);
    const __m128i c3 = _mm_srli_si128(c, 12);
    const __m128i r0 = Left ? _mm_sll_epi32(a, c0) : _mm_srl_epi32(a, c0);
    const __m128i r1 = Left ? _mm_sll_epi32(a, c1) : _mm_srl_epi32(a, c1);
    const __m128i r2 = Left ? _mm_sll_epi32(a, c2) : _mm_srl_epi32(a, c2);
    const __m128i r3 = Left ? _mm_sll_epi32(a, c3) : _mm_srl_epi32(a, c3);
    return _mm_blend_epi16(_mm_blend_epi16(r0, r1, 0x0C), _mm_blend_epi16(r2, r3, 0xC0), 0xF0);
}
} // namespace simd_detail
#endif

// Per-lane logical shifts; counts are unsigned and 32 or more gives 0 (NEON's
// USHL reads only a count's low byte, so counts are clamped first).
ZELK_INLINE int4 shiftLeftVar(int4 a, int4 counts) {
#if defined(ZELK_NEON)
    const uint32x4_t c = vminq_u32(vreinterpretq_u32_s32(counts.v), vdupq_n_u32(32));
    return {vreinterpretq_s32_u32(vshlq_u32(vreinterpretq_u32_s32(a.v), vreinterpretq_s32_u32(c)))};
#elif defined(ZELK_SSE41)
    return {simd_detail::shiftVar<true>(a.v, counts.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = uint32_t(counts.v[i]) >= 32 ? 0 : int32_t(uint32_t(a.v[i]) << counts.v[i]);
    return r;
#endif
}

ZELK_INLINE int4 shiftRightVar(int4 a, int4 counts) {
#if defined(ZELK_NEON)
    const uint32x4_t c = vminq_u32(vreinterpretq_u32_s32(counts.v), vdupq_n_u32(32));
    return {vreinterpretq_s32_u32(vshlq_u32(vreinterpretq_u32_s32(a.v), vnegq_s32(vreinterpretq_s32_u32(c))))};
#elif defined(ZELK_SSE41)
    return {simd_detail::shiftVar<false>(a.v, counts.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = uint32_t(counts.v[i]) >= 32 ? 0 : int32_t(uint32_t(a.v[i]) >> counts.v[i]);
    return r;
#endif
}

// Reverses the 16 bytes of the vector (byte 0 becomes byte 15).
ZELK_INLINE int4 reverseBytes(int4 a) {
#if defined(ZELK_NEON)
    const uint8x16_t r = vrev64q_u8(vreinterpretq_u8_s32(a.v));
    return {vreinterpretq_s32_u8(vextq_u8(r, r, 8))};
#elif defined(ZELK_SSE41)
    return {_mm_shuffle_epi8(a.v, _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0))};
#else
    int4 r;
    const auto* in = reinterpret_cast<const unsigned char*>(a.v);
    auto* out = reinterpret_cast<unsigned char*>(r.v);
    for (int i = 0; i < 16; ++i) out[i] = in[15 - i];
    return r;
#endif
}

// ---------------------------------------------------------------- selects and lane masks

// mask lanes are all-ones or zero; picks ifTrue where set.
ZELK_INLINE float4 select(int4 mask, float4 ifTrue, float4 ifFalse) {
#if defined(ZELK_NEON)
    return {vbslq_f32(vreinterpretq_u32_s32(mask.v), ifTrue.v, ifFalse.v)};
#elif defined(ZELK_SSE41)
    return {_mm_blendv_ps(ifFalse.v, ifTrue.v, _mm_castsi128_ps(mask.v))};
#else
    float4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = mask.v[i] ? ifTrue.v[i] : ifFalse.v[i];
    return r;
#endif
}

ZELK_INLINE int4 select(int4 mask, int4 ifTrue, int4 ifFalse) {
#if defined(ZELK_NEON)
    return {vbslq_s32(vreinterpretq_u32_s32(mask.v), ifTrue.v, ifFalse.v)};
#elif defined(ZELK_SSE41)
    return {_mm_blendv_epi8(ifFalse.v, ifTrue.v, mask.v)};
#else
    int4 r;
    for (int i = 0; i < 4; ++i) r.v[i] = mask.v[i] ? ifTrue.v[i] : ifFalse.v[i];
    return r;
#endif
}

// Bit i of the result is the sign bit of lane i.
ZELK_INLINE unsigned signMask(int4 a) {
#if defined(ZELK_NEON)
    static const int32x4_t shifts = {0, 1, 2, 3};
    const uint32x4_t bits = vshrq_n_u32(vreinterpretq_u32_s32(a.v), 31);
    return vaddvq_u32(vshlq_u32(bits, shifts));
#elif defined(ZELK_SSE41)
    return unsigned(_mm_movemask_ps(_mm_castsi128_ps(a.v)));
#else
    unsigned r = 0;
    for (int i = 0; i < 4; ++i) r |= (uint32_t(a.v[i]) >> 31) << i;
    return r;
#endif
}

ZELK_INLINE unsigned signMask(float4 a) { return signMask(asInt(a)); }

// Lane i all-ones where bit i of bits is set.
ZELK_INLINE int4 maskFromBits(unsigned bits) {
    const int4 laneBits = makeInt4(1, 2, 4, 8);
    return cmpEq(splatInt(int32_t(bits)) & laneBits, laneBits);
}

ZELK_INLINE bool anyTrue(int4 mask) { return signMask(mask) != 0; }
ZELK_INLINE bool allTrue(int4 mask) { return signMask(mask) == 0xF; }

// ---------------------------------------------------------------- shuffles and horizontal ops

template <int I0, int I1, int I2, int I3> ZELK_INLINE float4 swizzle(float4 a) {
    static_assert(I0 >= 0 && I0 < 4 && I1 >= 0 && I1 < 4 && I2 >= 0 && I2 < 4 && I3 >= 0 && I3 < 4, "lane index");
#if defined(ZELK_NEON) && defined(__clang__)
    return {__builtin_shufflevector(a.v, a.v, I0, I1, I2, I3)};
#elif defined(ZELK_NEON)
    return {__builtin_shuffle(a.v, uint32x4_t{I0, I1, I2, I3})}; // compiles to a few lane moves or one TBL
#elif defined(ZELK_SSE41)
    return {_mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(I3, I2, I1, I0))};
#else
    return {{a.v[I0], a.v[I1], a.v[I2], a.v[I3]}};
#endif
}

template <int I> ZELK_INLINE float4 splatLane(float4 a) {
#if defined(ZELK_NEON)
    return {vdupq_laneq_f32(a.v, I)};
#else
    return swizzle<I, I, I, I>(a);
#endif
}

// In-place 4x4 transpose: rows become columns.
ZELK_INLINE void transpose(float4& r0, float4& r1, float4& r2, float4& r3) {
#if defined(ZELK_NEON)
    const float32x4x2_t a = vtrnq_f32(r0.v, r1.v);
    const float32x4x2_t b = vtrnq_f32(r2.v, r3.v);
    r0.v = vcombine_f32(vget_low_f32(a.val[0]), vget_low_f32(b.val[0]));
    r1.v = vcombine_f32(vget_low_f32(a.val[1]), vget_low_f32(b.val[1]));
    r2.v = vcombine_f32(vget_high_f32(a.val[0]), vget_high_f32(b.val[0]));
    r3.v = vcombine_f32(vget_high_f32(a.val[1]), vget_high_f32(b.val[1]));
#elif defined(ZELK_SSE41)
    _MM_TRANSPOSE4_PS(r0.v, r1.v, r2.v, r3.v);
#else
    for (int i = 0; i < 4; ++i)
        for (int j = i + 1; j < 4; ++j) {
            float4* rows[4] = {&r0, &r1, &r2, &r3};
            const float t = rows[i]->v[j];
            rows[i]->v[j] = rows[j]->v[i];
            rows[j]->v[i] = t;
        }
#endif
}

// Horizontal min/max with the lane-wise NaN rule.
ZELK_INLINE float horizontalMin(float4 a) {
    const float4 m = min(a, swizzle<2, 3, 0, 1>(a));
    return lane<0>(min(m, swizzle<1, 0, 3, 2>(m)));
}

ZELK_INLINE float horizontalMax(float4 a) {
    const float4 m = max(a, swizzle<2, 3, 0, 1>(a));
    return lane<0>(max(m, swizzle<1, 0, 3, 2>(m)));
}

// a.x*b.x + a.y*b.y + a.z*b.z, summed in that order; w is ignored.
ZELK_INLINE float dot3(float4 a, float4 b) {
    const float4 p = a * b;
    return (lane<0>(p) + lane<1>(p)) + lane<2>(p);
}

// Cross product of the xyz lanes; w of the result is 0.
ZELK_INLINE float4 cross3(float4 a, float4 b) {
    const float4 aYzx = swizzle<1, 2, 0, 3>(a), bYzx = swizzle<1, 2, 0, 3>(b);
    const float4 c = a * bYzx - aYzx * b;
    return swizzle<1, 2, 0, 3>(c) * make4(1.0f, 1.0f, 1.0f, 0.0f);
}

// ---------------------------------------------------------------- eight unsigned 16-bit lanes

ZELK_INLINE ushort8 splatU16(uint16_t a) {
#if defined(ZELK_NEON)
    return {vdupq_n_u16(a)};
#elif defined(ZELK_SSE41)
    return {_mm_set1_epi16(int16_t(a))};
#else
    ushort8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = a;
    return r;
#endif
}

ZELK_INLINE ushort8 loadU16(const uint16_t* p) { // p: 16-byte aligned
#if defined(ZELK_NEON)
    return {vld1q_u16(p)};
#elif defined(ZELK_SSE41)
    return {_mm_load_si128(reinterpret_cast<const __m128i*>(p))};
#else
    ushort8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = p[i];
    return r;
#endif
}

ZELK_INLINE ushort8 loaduU16(const uint16_t* p) {
#if defined(ZELK_NEON)
    return {vld1q_u16(p)};
#elif defined(ZELK_SSE41)
    return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))};
#else
    ushort8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = p[i];
    return r;
#endif
}

ZELK_INLINE void storeU16(uint16_t* p, ushort8 a) { // p: 16-byte aligned
#if defined(ZELK_NEON)
    vst1q_u16(p, a.v);
#elif defined(ZELK_SSE41)
    _mm_store_si128(reinterpret_cast<__m128i*>(p), a.v);
#else
    for (int i = 0; i < 8; ++i) p[i] = a.v[i];
#endif
}

ZELK_INLINE ushort8 max(ushort8 a, ushort8 b) {
#if defined(ZELK_NEON)
    return {vmaxq_u16(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_max_epu16(a.v, b.v)};
#else
    ushort8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = a.v[i] > b.v[i] ? a.v[i] : b.v[i];
    return r;
#endif
}

ZELK_INLINE ushort8 min(ushort8 a, ushort8 b) {
#if defined(ZELK_NEON)
    return {vminq_u16(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_min_epu16(a.v, b.v)};
#else
    ushort8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = a.v[i] < b.v[i] ? a.v[i] : b.v[i];
    return r;
#endif
}

ZELK_INLINE ushort8 operator&(ushort8 a, ushort8 b) {
#if defined(ZELK_NEON)
    return {vandq_u16(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_and_si128(a.v, b.v)};
#else
    ushort8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = uint16_t(a.v[i] & b.v[i]);
    return r;
#endif
}

// Lanes all-ones where a >= b (unsigned).
ZELK_INLINE ushort8 cmpGe(ushort8 a, ushort8 b) {
#if defined(ZELK_NEON)
    return {vcgeq_u16(a.v, b.v)};
#elif defined(ZELK_SSE41)
    return {_mm_cmpeq_epi16(_mm_max_epu16(a.v, b.v), a.v)};
#else
    ushort8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = a.v[i] >= b.v[i] ? 0xFFFF : 0;
    return r;
#endif
}

// Signed 32-bit lanes narrowed to unsigned 16 bits with saturation (NEON
// SQXTUN): negatives give 0, values above 65535 give 65535. Lanes 0-3 from lo.
ZELK_INLINE ushort8 narrowSaturate(int4 lo, int4 hi) {
#if defined(ZELK_NEON)
    return {vcombine_u16(vqmovun_s32(lo.v), vqmovun_s32(hi.v))};
#elif defined(ZELK_SSE41)
    return {_mm_packus_epi32(lo.v, hi.v)};
#else
    ushort8 r;
    for (int i = 0; i < 4; ++i) {
        r.v[i] = uint16_t(lo.v[i] < 0 ? 0 : lo.v[i] > 65535 ? 65535 : lo.v[i]);
        r.v[i + 4] = uint16_t(hi.v[i] < 0 ? 0 : hi.v[i] > 65535 ? 65535 : hi.v[i]);
    }
    return r;
#endif
}

// Signed 32-bit lanes taken as unsigned and narrowed to 16 bits with
// saturation (NEON UQXTN): anything above 65535, negatives included, gives 65535.
ZELK_INLINE ushort8 narrowSaturateUnsigned(int4 lo, int4 hi) {
#if defined(ZELK_NEON)
    return {vcombine_u16(vqmovn_u32(vreinterpretq_u32_s32(lo.v)), vqmovn_u32(vreinterpretq_u32_s32(hi.v)))};
#elif defined(ZELK_SSE41)
    // Clamped to 65535 first, the lanes are non-negative and packus keeps them.
    const __m128i limit = _mm_set1_epi32(0xFFFF);
    return {_mm_packus_epi32(_mm_min_epu32(lo.v, limit), _mm_min_epu32(hi.v, limit))};
#else
    ushort8 r;
    for (int i = 0; i < 4; ++i) {
        r.v[i] = uint16_t(uint32_t(lo.v[i]) > 65535u ? 65535u : uint32_t(lo.v[i]));
        r.v[i + 4] = uint16_t(uint32_t(hi.v[i]) > 65535u ? 65535u : uint32_t(hi.v[i]));
    }
    return r;
#endif
}

// Lane i holds byte i of m in its upper byte (lower byte zero).
ZELK_INLINE ushort8 bytesToHighU16(uint64_t m) {
#if defined(ZELK_NEON)
    return {vshll_n_u8(vcreate_u8(m), 8)};
#elif defined(ZELK_SSE41)
    return {_mm_unpacklo_epi8(_mm_setzero_si128(), _mm_cvtsi64_si128(int64_t(m)))};
#else
    ushort8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = uint16_t(((m >> (8 * i)) & 0xFF) << 8);
    return r;
#endif
}

// Each lane shifted left by N, then every lane whose top bit is set becomes
// all ones and every other lane zero (arithmetic shift right by 15).
template <int N> ZELK_INLINE ushort8 topBitAfterShift(ushort8 a) {
    static_assert(N >= 0 && N < 16, "shift count");
#if defined(ZELK_NEON)
    return {vreinterpretq_u16_s16(vshrq_n_s16(vreinterpretq_s16_u16(vshlq_n_u16(a.v, N)), 15))};
#elif defined(ZELK_SSE41)
    return {_mm_srai_epi16(_mm_slli_epi16(a.v, N), 15)};
#else
    ushort8 r;
    for (int i = 0; i < 8; ++i) r.v[i] = (uint16_t(a.v[i] << N) & 0x8000) ? 0xFFFF : 0;
    return r;
#endif
}

// Smallest of the eight lanes.
ZELK_INLINE uint16_t horizontalMin(ushort8 a) {
#if defined(ZELK_NEON)
    return vminvq_u16(a.v);
#elif defined(ZELK_SSE41)
    return uint16_t(_mm_extract_epi16(_mm_minpos_epu16(a.v), 0));
#else
    uint16_t m = a.v[0];
    for (int i = 1; i < 8; ++i) m = a.v[i] < m ? a.v[i] : m;
    return m;
#endif
}

// Largest of the eight lanes.
ZELK_INLINE uint16_t horizontalMax(ushort8 a) {
#if defined(ZELK_NEON)
    return vmaxvq_u16(a.v);
#elif defined(ZELK_SSE41)
    // minpos finds the minimum only; the largest value is the smallest complement.
    const __m128i inverted = _mm_xor_si128(a.v, _mm_set1_epi16(-1));
    return uint16_t(0xFFFF ^ _mm_extract_epi16(_mm_minpos_epu16(inverted), 0));
#else
    uint16_t m = a.v[0];
    for (int i = 1; i < 8; ++i) m = a.v[i] > m ? a.v[i] : m;
    return m;
#endif
}

// The top bit of each of the sixteen bytes, in memory order: lane i gives
// bit 2i (its bit 7) and bit 2i+1 (its bit 15). For comparison results, whose
// lanes are all ones or all zeros, both bits of a lane agree.
ZELK_INLINE unsigned byteMask(ushort8 a) {
#if defined(ZELK_NEON)
    static const int8_t shifts[16] = {0, 1, 2, 3, 4, 5, 6, 7, 0, 1, 2, 3, 4, 5, 6, 7};
    const uint8x16_t bits = vshlq_u8(vshrq_n_u8(vreinterpretq_u8_u16(a.v), 7), vld1q_s8(shifts));
    return unsigned(vaddv_u8(vget_low_u8(bits))) | (unsigned(vaddv_u8(vget_high_u8(bits))) << 8);
#elif defined(ZELK_SSE41)
    return unsigned(_mm_movemask_epi8(a.v));
#else
    unsigned r = 0;
    for (int i = 0; i < 8; ++i) {
        r |= ((a.v[i] >> 7) & 1u) << (2 * i);
        r |= ((a.v[i] >> 15) & 1u) << (2 * i + 1);
    }
    return r;
#endif
}

} // namespace common
