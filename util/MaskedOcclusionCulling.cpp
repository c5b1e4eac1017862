#include "util/MaskedOcclusionCulling.h"

#include "common/AlignedAlloc.h"
#include "common/Checked.h"
#include "common/Indices.h"
#include "common/Simd.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <new>
#include <utility>

namespace util {

using common::float4;
using common::int4;

namespace {

struct MaskedTile {
    float4 referenceDepth;
    float4 workingDepth;
    int4 coverageMask;
};
static_assert(sizeof(MaskedTile) == 48, "three vectors per tile");

constexpr int kTileWidthShift = 5;
constexpr int kTileHeightShift = 2;
constexpr int kRingSize = 32;
constexpr int kMaxPolygon = 16; // a triangle clipped by five planes has at most 8; slack for rounding noise

// Edge events are 15.17 fixed point: the integer part is a pixel column, the
// 17 fraction bits hold the exact remainder of the edge's rational crossing
// (denominator 2*dy <= 2^14), so stepping them row by row never drifts.
constexpr int kEventFracBits = 17;
constexpr int32_t kEventFracMask = (1 << kEventFracBits) - 1;
// Snapped vertices must lie within +-kCoordLimit pixels: it keeps every event
// of the rows an edge spans within 15 integer bits. Larger triangles (only
// possible when guard-band clipping is off) are not drawn, which can only
// leave things visible.
constexpr float kCoordLimit = 4096.0f;
// Events of rows an edge does not span: beyond any screen in either direction.
constexpr int32_t kEventFar = int32_t(1) << 30;
constexpr float kDepthLimit = 1e30f;

struct ClippedTriangle {
    float4 v[3]; // (x, y, w, 1)
};

ZELK_INLINE int4 allOnes() {
    static const int4 kOnes = common::splatInt(-1);
    return kOnes;
}

// Lane-wise floor(num / den) and num - floor * den for 0 < den < 2^15 and
// |num / den| < 2^20: the float quotient is within one of the floor, and the
// integer remainder corrects it.
ZELK_INLINE void floorDivMod(int4 num, int4 den, int4& quotient, int4& remainder) {
    int4 q = common::truncToInt(common::toFloat(num) / common::toFloat(den));
    int4 r = num - q * den;
    const int4 low = common::cmpLt(r, common::splatInt(0));
    q = q + low; // -1 where low
    r = r + (den & low);
    const int4 high = common::cmpGe(r, den);
    q = q - high;
    r = r - (den & high);
    quotient = q;
    remainder = r;
}

ZELK_INLINE int4 swapPairs64(int4 a) { return common::asInt(common::swizzle<2, 3, 0, 1>(common::asFloat(a))); }
ZELK_INLINE int4 swapPairs32(int4 a) { return common::asInt(common::swizzle<1, 0, 3, 2>(common::asFloat(a))); }

ZELK_INLINE int32_t horizontalMinInt(int4 a) {
    const int4 m = common::min(a, swapPairs64(a));
    return common::lane<0>(common::min(m, swapPairs32(m)));
}

ZELK_INLINE int32_t horizontalMaxInt(int4 a) {
    const int4 m = common::max(a, swapPairs64(a));
    return common::lane<0>(common::max(m, swapPairs32(m)));
}

// 4x4 byte transpose: byte s of lane r moves to byte r of lane s. Turns four
// 32-pixel rows into four 8x4 subtile masks (bit 8*y + x).
ZELK_INLINE int4 transposeBytes(int4 rows) {
    // Split into the four byte columns, transpose them as a 4x4 matrix of
    // lanes, and pack the rows back together.
    const int4 low = common::splatInt(0xFF);
    float4 b0 = common::asFloat(rows & low);
    float4 b1 = common::asFloat(common::shiftRightLogical<8>(rows) & low);
    float4 b2 = common::asFloat(common::shiftRightLogical<16>(rows) & low);
    float4 b3 = common::asFloat(common::shiftRightLogical<24>(rows));
    common::transpose(b0, b1, b2, b3);
    return (common::asInt(b0) | common::shiftLeft<8>(common::asInt(b1))) |
           (common::shiftLeft<16>(common::asInt(b2)) | common::shiftLeft<24>(common::asInt(b3)));
}

// The masked layer update for one tile: a new layer zTri (per subtile, its
// farthest depth) with coverage cov folds into the finished layer (ref) and
// the working layer (work, mask). Shared by triangles and buffer merges.
ZELK_INLINE void updateLayers(MaskedTile& tile, float4 zTri, int4 cov) {
    static const float4 kFarWork = common::splat(FLT_MAX);
    const int4 zero = common::splatInt(0);
    const float4 ref = tile.referenceDepth;
    const float4 work = tile.workingDepth;
    const int4 mask = tile.coverageMask;

    const int4 dead = common::shiftRightArithmetic<31>(common::asInt(zTri - ref)) | common::cmpEq(cov, zero);
    const int4 covEff = common::andNot(cov, dead);
    const float4 h = common::splat(2.0f) * work - (zTri + ref);
    const int4 discard = common::cmpLt(h, common::zero4()) | common::cmpEq(covEff, allOnes());
    const int4 discardLive = common::andNot(discard, dead);
    const int4 newMask = common::andNot(mask, discardLive) | covEff;
    const float4 a = common::select(dead, work, zTri);
    const float4 b = common::select(discardLive, zTri, work);
    const float4 newWork = common::min(a, b);
    const int4 full = common::cmpEq(newMask, allOnes());
    tile.referenceDepth = common::select(full, newWork, ref);
    tile.workingDepth = common::select(full, kFarWork, newWork);
    tile.coverageMask = common::andNot(newMask, full);
}

#if ZELK_CONSERVATIVE
// Vertices keep 8 fraction bits: within +-kCoordLimit pixels a coordinate
// needs 21 bits, an edge's dy 22, and 2^8 dy (the denominator below) stays
// below 2^30, so remainders and their sums fit 32-bit lanes.
constexpr int kSubpixelBits = 8;
constexpr int32_t kSubpixelOne = 1 << kSubpixelBits;
constexpr int32_t kSubpixelHalf = kSubpixelOne / 2;
static_assert(int64_t(kCoordLimit) * kSubpixelOne * 2 * kSubpixelOne * 2 < (int64_t(1) << 31), "remainder range");

// Events hold the pixel column in the integer field and no fraction; the
// exact remainder of the crossing lives beside them in `remainder`, kept less
// the denominator (in [-denominator, 0)) so that its sign alone tells whether
// a step carries.
struct Edge {
    int32_t yTop, yBottom; // pixel rows [yTop, yBottom) whose centres it spans
    int4 event;
    int4 remainder;     // numerator - (column + 1) * denominator
    int4 step;          // four rows, column part, plus one column
    int4 stepRemainder; // four rows, remainder part
    int4 denominator;
    int4 outside;
};

// Exact floor quotient and remainder of num / den (den > 0) from an estimate q
// that is the floor or one more. Products wrap in 32 bits, but the true
// remainder lies in [-den, den) and den < 2^30, so the wrapped one is exact.
ZELK_INLINE void fixQuotient(int4 num, int4 den, int4& q, int4& r) {
    r = num - q * den;
    const int4 low = common::shiftRightArithmetic<31>(r);
    q = q + low; // -1 where low
    r = r + (den & low);
}

// The edges of a batch's four triangles, set up together (one triangle per
// lane) and picked up per triangle: 0 long (a-c), 1 upper (a-b), 2 lower
// (b-c), with the vertices sorted by y (a on top, c at the bottom).
struct EdgeBatch {
    int4 event[3][4]; // [edge][triangle]: its first tile row's four rows
    int4 remainder[3][4];
    alignas(16) int32_t yTop[3][4];
    alignas(16) int32_t yBottom[3][4];
    alignas(16) int32_t step[3][4];
    alignas(16) int32_t stepRemainder[3][4];
    alignas(16) int32_t denominator[3][4];
    alignas(16) int32_t x[3][4]; // [vertex][triangle], sorted by y
    alignas(16) int32_t y[3][4];
};

// One edge of each lane's triangle, from (ux, uy) down to (lx, ly), starting
// on pixel row firstRow (a tile row's first). Coordinates carry
// kSubpixelBits fraction bits. Pixel i of row j is right of the edge when its
// centre is at or right of the crossing:
//   i >= ((ux - h) dy + (S j + h - uy) dx) / (S dy), S = 2^bits, h = S/2.
// A row counts when its centre lies below the upper vertex and above the
// lower one; a centre level with the lower vertex counts only for the upper
// short edge (includeBottom), so centres on horizontal edges are never
// covered.
//
// Float estimates of the quotients are corrected by exact integer remainders:
// no division in the integers and no 64-bit lanes.
ZELK_INLINE void setupEdgeLanes(EdgeBatch& out, int e, int4 ux, int4 uy, int4 lx, int4 ly, bool includeBottom,
                                int4 firstRow) {
    const int4 zero = common::splatInt(0), one = common::splatInt(1), half = common::splatInt(kSubpixelHalf);
    const int4 dx = lx - ux, dy = ly - uy; // |dx|, dy < 2^21
    const int4 yTop = common::shiftRightArithmetic<kSubpixelBits>(uy - half) + one;
    const int4 yBottom = includeBottom ? common::shiftRightArithmetic<kSubpixelBits>(ly - half) + one
                                       : common::shiftRightArithmetic<kSubpixelBits>(ly + half - one);
    // Horizontal edges span no row; any denominator keeps their lanes tame.
    const int4 spans = common::cmpGt(dy, zero);
    const int4 divisor = common::select(spans, dy, one);
    const int4 den = common::shiftLeft<kSubpixelBits>(divisor);
    const float4 inv = common::splat(1.0f) / common::toFloat(divisor);

    // One row moves the crossing by dx / dy, four rows by 4 dx / dy: both
    // numerators are exact floats, so the estimates are within half a unit
    // and round to the floor or one more.
    int4 rowQuotient = common::roundToInt(common::toFloat(dx) * inv), rowRemainder;
    fixQuotient(dx, divisor, rowQuotient, rowRemainder);
    const int4 dx4 = common::shiftLeft<2>(dx);
    int4 stepQuotient = common::roundToInt(common::toFloat(dx4) * inv), stepRemainder;
    fixQuotient(dx4, divisor, stepQuotient, stepRemainder);
    rowRemainder = common::shiftLeft<kSubpixelBits>(rowRemainder);

    // The first row. Rows the edge will use lie at most four above its upper
    // vertex, so there the float numerator is within 2^21 of the true one and
    // the first estimate leaves a remainder that 32 bits hold; a second
    // estimate of its quotient rounds to the floor or one more. Rows it never
    // uses may come out wrong; they are replaced by `outside`.
    const int4 below = common::shiftLeft<kSubpixelBits>(firstRow) + half - uy;
    const int4 left = ux - half;
    const int4 num = (left * dy + below * dx) + (den - one);
    const float4 invDen = inv * common::splat(1.0f / float(kSubpixelOne));
    const float4 numEstimate =
        (common::toFloat(left) * common::toFloat(dy) + common::toFloat(below) * common::toFloat(dx)) +
        common::toFloat(den);
    int4 q = common::roundToInt(numEstimate * invDen), r;
    r = num - q * den;
    q = q + common::roundToInt(common::toFloat(r) * invDen);
    fixQuotient(num, den, q, r);

    // Rows 1-3 of the first tile row step from row 0 (remainders less den:
    // a sum that stays negative did not carry); then rows x lanes become
    // lanes x rows.
    int4 qs[4], rs[4];
    qs[0] = q;
    rs[0] = r - den;
    const int4 rowQuotientPlusOne = rowQuotient + one;
    for (int k = 1; k < 4; ++k) {
        const int4 sum = rs[k - 1] + rowRemainder;
        const int4 noCarry = common::shiftRightArithmetic<31>(sum);
        qs[k] = (qs[k - 1] + rowQuotientPlusOne) + noCarry;
        rs[k] = sum - common::andNot(den, noCarry);
    }
    float4 q0 = common::asFloat(common::shiftLeft<kEventFracBits>(qs[0]));
    float4 q1 = common::asFloat(common::shiftLeft<kEventFracBits>(qs[1]));
    float4 q2 = common::asFloat(common::shiftLeft<kEventFracBits>(qs[2]));
    float4 q3 = common::asFloat(common::shiftLeft<kEventFracBits>(qs[3]));
    float4 r0 = common::asFloat(rs[0]), r1 = common::asFloat(rs[1]), r2 = common::asFloat(rs[2]),
           r3 = common::asFloat(rs[3]);
    common::transpose(q0, q1, q2, q3);
    common::transpose(r0, r1, r2, r3);
    out.event[e][0] = common::asInt(q0);
    out.event[e][1] = common::asInt(q1);
    out.event[e][2] = common::asInt(q2);
    out.event[e][3] = common::asInt(q3);
    out.remainder[e][0] = common::asInt(r0);
    out.remainder[e][1] = common::asInt(r1);
    out.remainder[e][2] = common::asInt(r2);
    out.remainder[e][3] = common::asInt(r3);
    common::storeInt4(out.yTop[e], yTop);
    common::storeInt4(out.yBottom[e], yBottom);
    common::storeInt4(out.step[e], common::shiftLeft<kEventFracBits>((stepQuotient & spans) + one));
    common::storeInt4(out.stepRemainder[e], common::shiftLeft<kSubpixelBits>(stepRemainder) & spans);
    common::storeInt4(out.denominator[e], den);
}

// The three edges of a batch's triangles, with their vertices on the sub-pixel
// grid sorted by y (a swap only where strictly above). Each edge starts
// on the first tile row that uses it: the triangle's first one (firstRow),
// or for the lower edge the one holding its first row.
ZELK_INLINE void setupEdgeBatch(EdgeBatch& out, const float4 xs[3], const float4 ys[3], int4 firstRow) {
    const float4 scale = common::splat(float(kSubpixelOne));
    int4 x[3], y[3];
    for (int k = 0; k < 3; ++k) {
        x[k] = common::truncToInt(xs[k] * scale);
        y[k] = common::truncToInt(ys[k] * scale);
    }
    const auto order = [&x, &y](int i, int j) {
        const int4 swap = common::cmpLt(y[j], y[i]);
        const int4 xi = x[i], yi = y[i];
        x[i] = common::select(swap, x[j], xi);
        y[i] = common::select(swap, y[j], yi);
        x[j] = common::select(swap, xi, x[j]);
        y[j] = common::select(swap, yi, y[j]);
    };
    order(0, 1);
    order(1, 2);
    order(0, 1);
    for (int k = 0; k < 3; ++k) {
        common::storeInt4(out.x[k], x[k]);
        common::storeInt4(out.y[k], y[k]);
    }
    setupEdgeLanes(out, 0, x[0], y[0], x[2], y[2], false, firstRow);
    setupEdgeLanes(out, 1, x[0], y[0], x[1], y[1], true, firstRow);
    const int4 lowerTop = common::shiftRightArithmetic<kSubpixelBits>(y[1] - common::splatInt(kSubpixelHalf));
    const int4 lowerRow = common::max(common::shiftRightArithmetic<kTileHeightShift>(firstRow),
                                      common::shiftRightArithmetic<kTileHeightShift>(lowerTop + common::splatInt(1)));
    setupEdgeLanes(out, 2, x[1], y[1], x[2], y[2], false, common::shiftLeft<kTileHeightShift>(lowerRow));
}

ZELK_INLINE void loadEdge(Edge& edge, const EdgeBatch& batch, int e, int lane, int32_t outside) {
    edge.yTop = batch.yTop[e][lane];
    edge.yBottom = batch.yBottom[e][lane];
    edge.event = batch.event[e][lane];
    edge.remainder = batch.remainder[e][lane];
    edge.step = common::splatInt(batch.step[e][lane]);
    edge.stepRemainder = common::splatInt(batch.stepRemainder[e][lane]);
    edge.denominator = common::splatInt(batch.denominator[e][lane]);
    edge.outside = common::splatInt(outside);
}

// Edges start where they are set up.
ZELK_INLINE void startEdge(Edge&, int32_t) {}

ZELK_INLINE void advanceEdge(Edge& e) {
    const int4 remainder = e.remainder + e.stepRemainder;
    const int4 noCarry = common::shiftRightArithmetic<31>(remainder);
    e.remainder = remainder - common::andNot(e.denominator, noCarry);
    e.event = (e.event + e.step) + common::shiftLeft<kEventFracBits>(noCarry);
}
#else
// One triangle edge, walked down the tile rows it spans.
struct Edge {
    int32_t yTop, yBottom; // pixel rows [yTop, yBottom) whose centres it spans
    int32_t baseNumerator; // numerator of the event at row 0, less 2*dx*row
    int32_t twiceDx, denominator;
    int4 event;   // rows of the current tile row
    int4 step;    // four rows
    int4 outside; // event used for rows it does not span
};

ZELK_INLINE void setupEdge(Edge& e, int32_t ux, int32_t uy, int32_t lx, int32_t ly, int32_t outside, bool) {
    // Pixel i of row j is right of the edge when i >= ceil(t), with t the
    // crossing at the row centre less half a pixel:
    //   t = ((2ux - 1) dy + (2j + 1 - 2uy) dx) / (2 dy);
    // ceil(n / d) = floor((n + d - 1) / d). The same column is the first
    // covered one of a left edge (centres on it count) and the end of the
    // span of a right edge (centres on it do not).
    const int32_t dx = lx - ux, dy = ly - uy;
    e.yTop = uy;
    e.yBottom = ly;
    e.denominator = 2 * dy;
    e.twiceDx = 2 * dx;
    e.baseNumerator = (2 * ux - 1) * dy + (1 - 2 * uy) * dx + e.denominator - 1;
    e.outside = common::splatInt(outside);
    e.event = e.outside;
    e.step = common::splatInt(0);
    if (dy > 0) {
        int4 q, r;
        floorDivMod(common::splatInt(8 * dx), common::splatInt(e.denominator), q, r);
        e.step = common::shiftLeft<kEventFracBits>(q) + r;
    }
}

ZELK_INLINE void startEdge(Edge& e, int32_t firstRow) {
    static const int4 kRowLanes = common::makeInt4(0, 1, 2, 3);
    const int4 rows = common::splatInt(firstRow) + kRowLanes;
    int4 q, r;
    floorDivMod(common::splatInt(e.baseNumerator) + rows * common::splatInt(e.twiceDx), common::splatInt(e.denominator),
                q, r);
    e.event = common::shiftLeft<kEventFracBits>(q) + r;
}

ZELK_INLINE void advanceEdge(Edge& e) {
    // The remainders stay below 2 * denominator <= 2^15, so the fraction
    // field never carries on its own; wrapping in rows far outside the edge
    // is harmless because those rows are replaced by e.outside.
    const int4 ev = e.event + e.step;
    const int4 frac = ev & common::splatInt(kEventFracMask);
    const int4 carry = common::cmpGe(frac, common::splatInt(e.denominator));
    e.event = ev + (carry & common::splatInt((1 << kEventFracBits) - e.denominator));
}
#endif

ZELK_INLINE int4 rowEvent(const Edge& e, int4 rows) {
    const int4 inside =
        common::andNot(common::cmpGt(common::splatInt(e.yBottom), rows), common::cmpGt(common::splatInt(e.yTop), rows));
    return common::select(inside, e.event, e.outside);
}

class MaskedOcclusionCullingPrivate final : public MaskedOcclusionCulling {
public:
    MaskedOcclusionCullingPrivate(void* (*alloc)(size_t, size_t), void (*release)(void*))
        : allocCallback(alloc), freeCallback(release) {
        const float4 zero = common::zero4();
        halfWidth = halfHeight = centerX = centerY = zero;
        rectHalfSize = rectCenter = zero;
        screenMax = common::splatInt(-1);
        nearDist = 0.0f;
        width = height = 0;
        tilesWidth = tilesHeight = 0;
        modelViewProjection = common::Matrix4x4::zero();
        tileBuffer = nullptr;
        fullscreenScissor = {0, 0, 0, 0};
        clipPlanes[0] = common::make4(0.0f, 0.0f, 1.0f, 0.0f);
        setSidePlanes(0.0f, 0.0f);
    }

    ~MaskedOcclusionCullingPrivate() override {
        if (tileBuffer != nullptr) freeCallback(tileBuffer);
        if (transformed != nullptr) freeCallback(transformed);
    }

    void SetResolution(unsigned w, unsigned h) override;
    void GetResolution(unsigned& w, unsigned& h) const override {
        w = width;
        h = height;
    }
    void SetModelViewProjection(const common::Matrix4x4& matrix) override { modelViewProjection = matrix; }
    void SetNearClipPlane(float nearDistance) override {
        nearDist = nearDistance;
        clipPlanes[0] = common::make4(0.0f, 0.0f, 1.0f, -nearDistance);
    }
    float GetNearClipPlane() const override { return nearDist; }
    void ClearBuffer() override;
    void MergeBuffer(MaskedOcclusionCulling* other) override;
    int RenderTriangles(const float* vertices, const uint16_t* triangles, int triangleCount, const float* modelToClip,
                        BackfaceWinding winding, ClipPlanes clipPlaneMask, const VertexLayout& layout) override;
    int RenderTriangles(const float* vertices, const uint16_t* indices, int vertexCount, int triangleCount) override;
    int TestRect(float xmin, float ymin, float xmax, float ymax, float wmin) const override;
    bool Query(const float* boundsMin, const float* boundsMax) override;

    bool readTile(int tileX, int tileY, TileData& out) const;
    using ReleaseFunction = void (*)(void*);
    ReleaseFunction releaseCallback() const { return freeCallback; }

private:
    void setSidePlanes(float w, float h) {
        const float gx = 2.0f / w, gy = 2.0f / h;
        clipPlanes[1] = common::make4(1.0f - gx, 0.0f, 1.0f, 0.0f);
        clipPlanes[2] = common::make4(gx - 1.0f, 0.0f, 1.0f, 0.0f);
        clipPlanes[3] = common::make4(0.0f, 1.0f - gy, 1.0f, 0.0f);
        clipPlanes[4] = common::make4(0.0f, gy - 1.0f, 1.0f, 0.0f);
    }

    int ClipTriangleAndAddToBuffer(float4 vX[3], float4 vY[3], float4 vW[3], ClippedTriangle* ring, int& writeIndex,
                                   unsigned& laneMask, unsigned clipLanes, ClipPlanes clipPlaneMask) const;
    template <bool kReciprocalInZ>
    int renderTriangles(const float* vertices, const uint16_t* triangles, int triangleCount, const float* modelToClip,
                        BackfaceWinding winding, ClipPlanes clipPlaneMask, const VertexLayout& layout);
    int projectAndRasterize(float4 vX[3], float4 vY[3], float4 vW[3], const float4* reciprocals, unsigned laneMask,
                            BackfaceWinding winding);
    int RasterizeTriangleBatch(float4 pVtxX[3], float4 pVtxY[3], float4 pVtxZ[3], unsigned laneMask,
                               const ScissorRect& scissor);
    void rasterizeTriangle(const float* xs, const float* ys, const float* zs, float zx, float zy, int32_t bbMinX,
                           int32_t bbMaxX, int32_t bbMinY, int32_t bbMaxY
#if ZELK_CONSERVATIVE
                           ,
                           const EdgeBatch& batch, int lane
#endif
    );
    template <int NRight, int NLeft> void TraverseScanline(int first, int end, int rowBase, int rightIdx, int leftIdx,
                                                           const int4* events, const float4& zTriMin,
                                                           const float4& zTriMax, const float4& iz0, float zx);
    void reserveTransformed(size_t vertexCount);

    void* (*allocCallback)(size_t alignment, size_t size);
    void (*freeCallback)(void*);
    float4 halfWidth;
    float4 halfHeight;
    float4 centerX;
    float4 centerY;
    float4 clipPlanes[5];
    float4 rectHalfSize;
    float4 rectCenter;
    int4 screenMax;
    float nearDist;
    unsigned width, height;
    int32_t tilesWidth, tilesHeight;
    common::Matrix4x4 modelViewProjection;
    MaskedTile* tileBuffer;
    ScissorRect fullscreenScissor;
    // Object-space vertices of the four-argument RenderTriangles, transformed;
    // grows to the largest mesh seen and is reused.
    float* transformed = nullptr;
    size_t transformedCapacity = 0; // vertices
};

void MaskedOcclusionCullingPrivate::SetResolution(unsigned w, unsigned h) {
    if (tileBuffer != nullptr) freeCallback(tileBuffer);
    tileBuffer = nullptr;
    width = w;
    height = h;
    const unsigned paddedWidth = common::checkedAdd(w, 31u) & ~31u;
    const unsigned paddedHeight = common::checkedAdd(h, 3u) & ~3u;
    tilesWidth = common::checkedCast<int32_t>(paddedWidth >> kTileWidthShift);
    tilesHeight = common::checkedCast<int32_t>(paddedHeight >> kTileHeightShift);

    const float fw = float(int32_t(w)), fh = float(int32_t(h));
    halfWidth = common::splat(fw * 0.5f);
    halfHeight = common::splat(float(-int32_t(h)) * 0.5f);
    centerX = common::splat(fw * 0.5f);
    centerY = common::splat(fh * 0.5f);
    rectHalfSize = common::make4(fw * 0.5f, fw * 0.5f, -fh * 0.5f, -fh * 0.5f);
    rectCenter = common::make4(fw * 0.5f, fw * 0.5f, fh * 0.5f, fh * 0.5f);
    screenMax = common::makeInt4(int32_t(w - 1), int32_t(w - 1), int32_t(h - 1), int32_t(h - 1));
    fullscreenScissor = {0, 0, common::checkedCast<int32_t>(paddedWidth), common::checkedCast<int32_t>(paddedHeight)};
    setSidePlanes(fw, fh);

    const size_t tiles = common::checkedMul(size_t(tilesWidth), size_t(tilesHeight));
    if (tiles < 1) return;
    tileBuffer = static_cast<MaskedTile*>(allocCallback(64, common::checkedMul(tiles, sizeof(MaskedTile))));
}

void MaskedOcclusionCullingPrivate::ClearBuffer() {
    if (tileBuffer == nullptr) return;
    const float4 ref = common::splat(-1.0f);
    const float4 work = common::splat(FLT_MAX);
    const int4 mask = common::splatInt(0);
    const size_t tiles = size_t(tilesWidth) * size_t(tilesHeight);
    for (size_t i = 0; i < tiles; ++i) {
        tileBuffer[i].referenceDepth = ref;
        tileBuffer[i].workingDepth = work;
        tileBuffer[i].coverageMask = mask;
    }
}

void MaskedOcclusionCullingPrivate::MergeBuffer(MaskedOcclusionCulling* other) {
    auto* source = dynamic_cast<MaskedOcclusionCullingPrivate*>(other);
    if (source == nullptr) common::fatal();
    if (tileBuffer == nullptr || source->tileBuffer == nullptr) return;
    // Sizes are the caller's promise; never read past the other buffer anyway.
    const size_t ours = size_t(tilesWidth) * size_t(tilesHeight);
    const size_t theirs = size_t(source->tilesWidth) * size_t(source->tilesHeight);
    const size_t tiles = ours < theirs ? ours : theirs;
    const int4 zero = common::splatInt(0);
    for (size_t i = 0; i < tiles; ++i) {
        MaskedTile& a = tileBuffer[i];
        const MaskedTile& b = source->tileBuffer[i];
        if (!common::allTrue(common::asInt(b.referenceDepth))) {
            a.referenceDepth = common::max(a.referenceDepth, b.referenceDepth);
            const int4 behind = common::cmpLt(a.workingDepth - a.referenceDepth, common::zero4());
            a.coverageMask = common::andNot(a.coverageMask, behind);
        }
        if (common::allTrue(common::cmpEq(b.coverageMask, zero))) continue;
        // The other buffer's working layer acts as one more triangle.
        updateLayers(a, b.workingDepth, b.coverageMask);
    }
}

bool MaskedOcclusionCullingPrivate::readTile(int tileX, int tileY, TileData& out) const {
    if (tileBuffer == nullptr || tileX < 0 || tileY < 0 || tileX >= tilesWidth || tileY >= tilesHeight) return false;
    const MaskedTile& t = tileBuffer[size_t(tileY) * size_t(tilesWidth) + size_t(tileX)];
    common::storeu4(out.referenceDepth, t.referenceDepth);
    common::storeu4(out.workingDepth, t.workingDepth);
    int32_t mask[4];
    common::storeuInt4(mask, t.coverageMask);
    for (int i = 0; i < 4; ++i) out.coverageMask[i] = uint32_t(mask[i]);
    return true;
}

// ---------------------------------------------------------------- triangle set-up and clipping

int MaskedOcclusionCullingPrivate::ClipTriangleAndAddToBuffer(float4 vX[3], float4 vY[3], float4 vW[3],
                                                              ClippedTriangle* ring, int& writeIndex,
                                                              unsigned& laneMask, unsigned clipLanes,
                                                              ClipPlanes clipPlaneMask) const {
    if (clipLanes == 0) return 0;
    const float4 zero = common::zero4();
    unsigned straddle[5] = {0, 0, 0, 0, 0};
    for (int p = 0; p < 5; ++p) {
        if ((unsigned(clipPlaneMask) & (1u << p)) == 0) continue;
        float4 d[3];
        for (int k = 0; k < 3; ++k) {
            switch (p) {
            case 0: d[k] = vW[k] - common::splat(nearDist); break;
            case 1: d[k] = vW[k] + vX[k]; break;
            case 2: d[k] = vW[k] - vX[k]; break;
            case 3: d[k] = vW[k] + vY[k]; break;
            default: d[k] = vW[k] - vY[k]; break;
            }
        }
        const unsigned n0 = common::signMask(common::cmpLt(d[0], zero));
        const unsigned n1 = common::signMask(common::cmpLt(d[1], zero));
        const unsigned n2 = common::signMask(common::cmpLt(d[2], zero));
        const unsigned outside = n0 & n1 & n2;
        const unsigned inside = ~(n0 | n1 | n2) & 0xFu;
        laneMask &= ~outside;
        straddle[p] = ~(outside | inside) & 0xFu;
    }
    const unsigned active = laneMask & clipLanes;
    if (active == 0) {
        laneMask = 0;
        return 0;
    }
    if (((straddle[0] | straddle[1] | straddle[2] | straddle[3] | straddle[4]) & active) == 0) return 0;

    alignas(16) float xs[3][4], ys[3][4], ws[3][4];
    for (int k = 0; k < 3; ++k) {
        common::store4(xs[k], vX[k]);
        common::store4(ys[k], vY[k]);
        common::store4(ws[k], vW[k]);
    }
    int emitted = 0;
    for (int lane = 0; lane < 4; ++lane) {
        if ((active & (1u << lane)) == 0) continue;
        float4 polygons[2][kMaxPolygon];
        float4* in = polygons[0];
        float4* out = polygons[1];
        int n = 3;
        for (int k = 0; k < 3; ++k) in[k] = common::make4(xs[k][lane], ys[k][lane], ws[k][lane], 1.0f);
        for (int p = 0; p < 5 && n >= 1; ++p) {
            if ((unsigned(clipPlaneMask) & (1u << p)) == 0 || (straddle[p] & (1u << lane)) == 0) continue;
            // The plane's constant term is left out on purpose (the near
            // plane clips at w = 0; lanes were classified against w = near).
            const float4 plane = clipPlanes[p];
            int m = 0;
            float4 prev = in[n - 1];
            float dPrev = common::dot3(prev, plane);
            for (int i = 0; i < n; ++i) {
                const float4 cur = in[i];
                const float dCur = common::dot3(cur, plane);
                const bool prevIn = dPrev >= 0.0f, curIn = dCur >= 0.0f;
                if (prevIn && m < kMaxPolygon) out[m++] = prev;
                if (prevIn != curIn && m < kMaxPolygon) {
                    const float4 inV = prevIn ? prev : cur, outV = prevIn ? cur : prev;
                    const float dIn = prevIn ? dPrev : dCur, dOut = prevIn ? dCur : dPrev;
                    const float t = dIn / (dIn - dOut);
                    out[m++] = common::fmadd(outV - inV, common::splat(t), inV);
                }
                prev = cur;
                dPrev = dCur;
            }
            float4* swap = in;
            in = out;
            out = swap;
            n = m;
        }
        if (n < 3) continue;
        for (int k = 2; k < n; ++k) {
            ClippedTriangle& tri = ring[writeIndex];
            tri.v[0] = in[0];
            tri.v[1] = in[k - 1];
            tri.v[2] = in[k];
            writeIndex = (writeIndex + 1) & (kRingSize - 1);
            ++emitted;
        }
    }
    laneMask = 0;
    return emitted;
}

// reciprocals: 1/w of each vertex when the caller has them (conservative
// build only), else null.
int MaskedOcclusionCullingPrivate::projectAndRasterize(float4 vX[3], float4 vY[3], float4 vW[3],
                                                       [[maybe_unused]] const float4* reciprocals, unsigned laneMask,
                                                       BackfaceWinding winding) {
    float4 sx[3], sy[3], sz[3];
#if ZELK_CONSERVATIVE
    // Sub-pixel positions on the rasteriser's fixed-point grid; a true
    // division puts every backend on the same grid point.
    float4 exact[3];
    if (reciprocals != nullptr) {
        for (int k = 0; k < 3; ++k) exact[k] = reciprocals[k];
    } else {
        for (int k = 0; k < 3; ++k) exact[k] = common::splat(1.0f) / vW[k];
    }
    const float4 scale = common::splat(float(kSubpixelOne)), step = common::splat(1.0f / float(kSubpixelOne));
#endif
    for (int k = 0; k < 3; ++k) {
        const float4 r = common::rcp(vW[k]);
#if ZELK_CONSERVATIVE
        sx[k] = common::roundNearest((centerX + (vX[k] * halfWidth) * exact[k]) * scale) * step;
        sy[k] = common::roundNearest((centerY + (vY[k] * halfHeight) * exact[k]) * scale) * step;
#else
        sx[k] = common::roundNearest(centerX + (vX[k] * halfWidth) * r);
        sy[k] = common::roundNearest(centerY + (vY[k] * halfHeight) * r);
#endif
        sz[k] = r;
    }
    const float4 area = (sx[1] - sx[2]) * (sy[0] - sy[2]) - (sx[2] - sx[0]) * (sy[2] - sy[1]);
    const int4 positive = common::cmpGt(area, common::zero4());
    if ((unsigned(winding) & 1u) == 0) {
        // One orientation for everything that is drawn.
        const float4 x1 = sx[1], y1 = sy[1], z1 = sz[1];
        sx[1] = common::select(positive, sx[2], x1);
        sy[1] = common::select(positive, sy[2], y1);
        sz[1] = common::select(positive, sz[2], z1);
        sx[2] = common::select(positive, x1, sx[2]);
        sy[2] = common::select(positive, y1, sy[2]);
        sz[2] = common::select(positive, z1, sz[2]);
    }
    const unsigned positiveBits = common::signMask(positive);
    if (unsigned(winding) & 2u) laneMask &= ~positiveBits;
    if (unsigned(winding) & 1u) laneMask &= positiveBits;
    if (laneMask == 0) return OutsideView;
    return RasterizeTriangleBatch(sx, sy, sz, laneMask, fullscreenScissor);
}

int MaskedOcclusionCullingPrivate::RenderTriangles(const float* vertices, const uint16_t* triangles, int triangleCount,
                                                   const float* modelToClip, BackfaceWinding winding,
                                                   ClipPlanes clipPlaneMask, const VertexLayout& layout) {
    return renderTriangles<false>(vertices, triangles, triangleCount, modelToClip, winding, clipPlaneMask, layout);
}

// kReciprocalInZ: packed vertices carry 1/w in place of z (the four-argument
// form's own buffer); triangles drawn without clipping use it.
template <bool kReciprocalInZ>
int MaskedOcclusionCullingPrivate::renderTriangles(const float* vertices, const uint16_t* triangles, int triangleCount,
                                                   const float* modelToClip, BackfaceWinding winding,
                                                   ClipPlanes clipPlaneMask, const VertexLayout& layout) {
    const bool packed = layout.stride == 16 && layout.offsetY == 4 && layout.offsetW == 12;
    if (triangleCount < 1 || vertices == nullptr || triangles == nullptr) return OutsideView;

    int result = OutsideView;
    ClippedTriangle ring[kRingSize];
    int writeIndex = 0;
    for (int64_t first = 0; first < triangleCount; first += 4) {
        const int count = triangleCount - first < 4 ? int(triangleCount - first) : 4;
        const uint16_t* batch = triangles + size_t(first) * 3;
        float4 vX[3], vY[3], vW[3], vR[3];
        if (packed) {
            for (int k = 0; k < 3; ++k) {
                // Absent lanes repeat lane 0; they are masked off below.
                float4 rows[4];
                for (int lane = 0; lane < 4; ++lane) {
                    const size_t index = batch[(lane < count ? lane : 0) * 3 + k];
                    rows[lane] = common::loadu4(vertices + index * 4);
                }
                common::transpose(rows[0], rows[1], rows[2], rows[3]);
                vX[k] = rows[0];
                vY[k] = rows[1];
                vW[k] = rows[3];
                vR[k] = rows[2];
            }
        } else {
            for (int k = 0; k < 3; ++k) vX[k] = vY[k] = vW[k] = common::zero4();
            GatherVertices(vX, vY, vW, vertices, batch, count, layout);
        }
        if (modelToClip != nullptr) {
            const float* c = modelToClip;
            for (int k = 0; k < 3; ++k) {
                const float4 x = vX[k], y = vY[k], w = vW[k];
                vX[k] = (x * common::splat(c[0]) + y * common::splat(c[4])) + w * common::splat(c[12]);
                vY[k] = (x * common::splat(c[1]) + y * common::splat(c[5])) + w * common::splat(c[13]);
                vW[k] = (x * common::splat(c[3]) + y * common::splat(c[7])) + w * common::splat(c[15]);
            }
        }
        unsigned laneMask = (1u << count) - 1u;
        int clipped = 0;
        if ((unsigned(clipPlaneMask) & unsigned(ClipAll)) != 0) {
            clipped = ClipTriangleAndAddToBuffer(vX, vY, vW, ring, writeIndex, laneMask, laneMask, clipPlaneMask);
        }
        if (laneMask != 0)
            result &= projectAndRasterize(vX, vY, vW, kReciprocalInZ && packed ? vR : nullptr, laneMask, winding);

        // Drain what clipping produced; a ring overrun (only with degenerate
        // rounding) loses the oldest triangles, which only leaves things visible.
        if (clipped > kRingSize) clipped = kRingSize;
        int readIndex = (writeIndex - clipped) & (kRingSize - 1);
        while (clipped > 0) {
            const int n = clipped < 4 ? clipped : 4;
            for (int k = 0; k < 3; ++k) {
                float4 rows[4];
                for (int lane = 0; lane < 4; ++lane) rows[lane] = ring[(readIndex + (lane < n ? lane : 0)) & 31].v[k];
                common::transpose(rows[0], rows[1], rows[2], rows[3]);
                vX[k] = rows[0];
                vY[k] = rows[1];
                vW[k] = rows[2];
            }
            result &= projectAndRasterize(vX, vY, vW, nullptr, (1u << n) - 1u, winding);
            readIndex = (readIndex + n) & (kRingSize - 1);
            clipped -= n;
        }
    }
    return result;
}

void MaskedOcclusionCullingPrivate::reserveTransformed(size_t vertexCount) {
    if (vertexCount <= transformedCapacity) return;
    size_t capacity = transformedCapacity < 256 ? 256 : common::checkedMul(transformedCapacity, size_t(2));
    if (capacity < vertexCount) capacity = vertexCount;
    void* block = allocCallback(64, common::checkedMul(capacity, 4 * sizeof(float)));
    if (transformed != nullptr) freeCallback(transformed);
    transformed = static_cast<float*>(block);
    transformedCapacity = capacity;
}

int MaskedOcclusionCullingPrivate::RenderTriangles(const float* vertices, const uint16_t* indices, int vertexCount,
                                                   int triangleCount) {
    if (vertices == nullptr || indices == nullptr || triangleCount < 1) return OutsideView;
    const size_t indexCount = common::checkedMul(size_t(triangleCount), size_t(3));
    // Only vertices up to the largest index are read; indices past the vertex
    // count read zero vertices (w = 0, never drawn) instead of memory beyond
    // the host's array.
    const size_t needed = size_t(common::largestIndex(indices, indexCount)) + 1;
    const size_t available = vertexCount > 0 ? size_t(vertexCount) : 0;
    const size_t count = available < needed ? available : needed;
    reserveTransformed(needed);

    const float4 c0 = modelViewProjection.columns[0], c1 = modelViewProjection.columns[1];
    const float4 c2 = modelViewProjection.columns[2], c3 = modelViewProjection.columns[3];
    for (size_t i = 0; i < count; ++i) {
        const float* p = vertices + 3 * i;
        const float4 clip = (common::splat(p[0]) * c0 + common::splat(p[1]) * c1) + (c3 + common::splat(p[2]) * c2);
        common::store4(transformed + 4 * i, clip);
    }
    if (needed > count) std::memset(transformed + 4 * count, 0, (needed - count) * 4 * sizeof(float));

#if ZELK_CONSERVATIVE
    // Projection needs the exact 1/w; a vertex shared by several triangles
    // divides once here, four at a time, into the z slot (unused otherwise).
    size_t i = 0;
    for (; i + 4 <= needed; i += 4) {
        float* v = transformed + 4 * i;
        alignas(16) float r[4];
        common::store4(r, common::splat(1.0f) / common::make4(v[3], v[7], v[11], v[15]));
        v[2] = r[0], v[6] = r[1], v[10] = r[2], v[14] = r[3];
    }
    for (; i < needed; ++i) transformed[4 * i + 2] = 1.0f / transformed[4 * i + 3];
#endif
    static const VertexLayout kPacked = {16, 4, 12};
    return renderTriangles<ZELK_CONSERVATIVE != 0>(transformed, indices, triangleCount, nullptr, WindingKeepPositive,
                                                   ClipAll, kPacked);
}

// ---------------------------------------------------------------- rasterisation

int MaskedOcclusionCullingPrivate::RasterizeTriangleBatch(float4 pVtxX[3], float4 pVtxY[3], float4 pVtxZ[3],
                                                          unsigned laneMask, const ScissorRect& scissor) {
    static const int4 kTileMaskX = common::splatInt(~31);
    static const int4 kTileMaskY = common::splatInt(~3);

    const float4 fMinX = common::min(common::min(pVtxX[0], pVtxX[1]), pVtxX[2]);
    const float4 fMaxX = common::max(common::max(pVtxX[0], pVtxX[1]), pVtxX[2]);
    const float4 fMinY = common::min(common::min(pVtxY[0], pVtxY[1]), pVtxY[2]);
    const float4 fMaxY = common::max(common::max(pVtxY[0], pVtxY[1]), pVtxY[2]);
    const int4 bbMinX = common::max(common::truncToInt(fMinX) & kTileMaskX, common::splatInt(scissor.minX));
    const int4 bbMaxX =
        common::min((common::truncToInt(fMaxX) + common::splatInt(32)) & kTileMaskX, common::splatInt(scissor.maxX));
    const int4 bbMinY = common::max(common::truncToInt(fMinY) & kTileMaskY, common::splatInt(scissor.minY));
    const int4 bbMaxY =
        common::min((common::truncToInt(fMaxY) + common::splatInt(4)) & kTileMaskY, common::splatInt(scissor.maxY));
    const int4 columns =
        common::shiftRightArithmetic<kTileWidthShift>(bbMaxX) - common::shiftRightArithmetic<kTileWidthShift>(bbMinX);
    const int4 rows =
        common::shiftRightArithmetic<kTileHeightShift>(bbMaxY) - common::shiftRightArithmetic<kTileHeightShift>(bbMinY);
    const int4 zero = common::splatInt(0);
#if ZELK_CONSERVATIVE
    {
        // A triangle whose bounding box holds no pixel centre covers none:
        // most sub-pixel triangles (those snapping would flatten) end here.
        static const float4 kScale = common::splat(float(kSubpixelOne));
        static const int4 kBelowHalf = common::splatInt(kSubpixelHalf - 1);
        static const int4 kHalf = common::splatInt(kSubpixelHalf);
        const auto centres = [](float4 low, float4 high) {
            const int4 lo = common::truncToInt(low * kScale), hi = common::truncToInt(high * kScale);
            // First centre at or after lo, last at or before hi (whole pixels).
            return common::cmpGe(common::shiftRightArithmetic<kSubpixelBits>(hi - kHalf),
                                 common::shiftRightArithmetic<kSubpixelBits>(lo + kBelowHalf));
        };
        laneMask &= common::signMask(centres(fMinX, fMaxX) & centres(fMinY, fMaxY));
    }
#endif
    laneMask &= common::signMask(common::cmpGt(columns, zero) & common::cmpGt(rows, zero));
    if (laneMask == 0) return OutsideView;

    // Lanes that can be drawn exactly: finite, in range, finite depth.
    const float4 limit = common::splat(kCoordLimit);
    const float4 depthLimit = common::splat(kDepthLimit);
    int4 drawable = common::splatInt(-1);
    for (int k = 0; k < 3; ++k) {
        drawable = drawable & common::cmpLe(common::abs(pVtxX[k]), limit) &
                   common::cmpLe(common::abs(pVtxY[k]), limit) & common::cmpLe(common::abs(pVtxZ[k]), depthLimit);
    }
    const unsigned drawMask = laneMask & common::signMask(drawable);
    if (drawMask == 0) return Visible;

    // Depth planes of the four triangles: z = z0 + zx (x - x0) + zy (y - y0).
    const float4 dx1 = pVtxX[1] - pVtxX[0], dy1 = pVtxY[1] - pVtxY[0];
    const float4 dx2 = pVtxX[2] - pVtxX[0], dy2 = pVtxY[2] - pVtxY[0];
    const float4 dz1 = pVtxZ[1] - pVtxZ[0], dz2 = pVtxZ[2] - pVtxZ[0];
    const float4 det = dx1 * dy2 - dx2 * dy1;
    float4 zx = (dz1 * dy2 - dz2 * dy1) / det;
    float4 zy = (dx1 * dz2 - dx2 * dz1) / det;
    // A plane too steep to evaluate safely falls back to the triangle's
    // farthest depth everywhere, which is conservative.
    const int4 steep = ~(common::cmpLe(common::abs(zx), depthLimit) & common::cmpLe(common::abs(zy), depthLimit));
    zx = common::select(steep, common::zero4(), zx);
    zy = common::select(steep, common::zero4(), zy);

#if ZELK_CONSERVATIVE
    EdgeBatch edgeBatch;
    setupEdgeBatch(edgeBatch, pVtxX, pVtxY, bbMinY);
#endif
    alignas(16) float xs[3][4], ys[3][4], zs[3][4], zxs[4], zys[4];
    alignas(16) int32_t minXs[4], maxXs[4], minYs[4], maxYs[4], steeps[4];
    for (int k = 0; k < 3; ++k) {
        common::store4(xs[k], pVtxX[k]);
        common::store4(ys[k], pVtxY[k]);
        common::store4(zs[k], pVtxZ[k]);
    }
    common::store4(zxs, zx);
    common::store4(zys, zy);
    common::storeInt4(minXs, bbMinX);
    common::storeInt4(maxXs, bbMaxX);
    common::storeInt4(minYs, bbMinY);
    common::storeInt4(maxYs, bbMaxY);
    common::storeInt4(steeps, steep);

    for (int lane = 0; lane < 4; ++lane) {
        if ((drawMask & (1u << lane)) == 0) continue;
        float x[3] = {xs[0][lane], xs[1][lane], xs[2][lane]};
        float y[3] = {ys[0][lane], ys[1][lane], ys[2][lane]};
        float z[3] = {zs[0][lane], zs[1][lane], zs[2][lane]};
        if (steeps[lane]) {
            const float zMin = z[0] < z[1] ? (z[0] < z[2] ? z[0] : z[2]) : (z[1] < z[2] ? z[1] : z[2]);
            z[0] = z[1] = z[2] = zMin;
        }
        rasterizeTriangle(x, y, z, zxs[lane], zys[lane], minXs[lane], maxXs[lane], minYs[lane], maxYs[lane]
#if ZELK_CONSERVATIVE
                          ,
                          edgeBatch, lane
#endif
        );
    }
    return Visible;
}

void MaskedOcclusionCullingPrivate::rasterizeTriangle(const float* xs, const float* ys, const float* zs, float zx,
                                                      float zy, int32_t bbMinX, int32_t bbMaxX, int32_t bbMinY,
                                                      int32_t bbMaxY
#if ZELK_CONSERVATIVE
                                                      ,
                                                      const EdgeBatch& batch, int lane
#endif
) {
#if ZELK_CONSERVATIVE
    // Sorted by y on the sub-pixel grid with the batch's edges.
    const int32_t ax = batch.x[0][lane], ay = batch.y[0][lane];
    const int32_t bx = batch.x[1][lane], by = batch.y[1][lane];
    const int32_t cx = batch.x[2][lane], cy = batch.y[2][lane];
#else
    // Sort by y: a on top, c at the bottom.
    int ia = 0, ib = 1, ic = 2;
    if (ys[ib] < ys[ia]) std::swap(ia, ib);
    if (ys[ic] < ys[ib]) std::swap(ib, ic);
    if (ys[ib] < ys[ia]) std::swap(ia, ib);
    const float scale = 1.0f;
    const int32_t ax = int32_t(xs[ia] * scale), ay = int32_t(ys[ia] * scale);
    const int32_t bx = int32_t(xs[ib] * scale), by = int32_t(ys[ib] * scale);
    const int32_t cx = int32_t(xs[ic] * scale), cy = int32_t(ys[ic] * scale);
#endif
    const int64_t cross = int64_t(bx - ax) * (cy - ay) - int64_t(by - ay) * (cx - ax);
    if (cross == 0) return; // no area, no pixel centre inside
    const bool midRight = cross > 0;

    // events[]: right edges first, then left edges; the side holding the
    // middle vertex has two (upper, lower).
    Edge edges[3];
    Edge& longEdge = edges[midRight ? 2 : 0];
    Edge& upper = edges[midRight ? 0 : 1];
    Edge& lower = edges[midRight ? 1 : 2];
    // Rows outside the long edge lie outside the triangle (an empty span);
    // rows outside a short edge belong to the other short edge (not binding).
    // Either way the event is far right when the middle vertex is on the
    // right (long edge left), far left otherwise.
    const int32_t outside = midRight ? kEventFar : -kEventFar;
#if ZELK_CONSERVATIVE
    loadEdge(longEdge, batch, 0, lane, outside);
    loadEdge(upper, batch, 1, lane, outside);
    loadEdge(lower, batch, 2, lane, outside);
#else
    setupEdge(longEdge, ax, ay, cx, cy, outside, false);
    setupEdge(upper, ax, ay, bx, by, outside, true);
    setupEdge(lower, bx, by, cx, cy, outside, false);
#endif
    const int rightIdx = 0, leftIdx = midRight ? 2 : 1;

    // Depth at the farthest corner of each 8x4 subtile, as a plane over tile
    // columns (zxTile per tile) and rows.
    const float zMin = zs[0] < zs[1] ? (zs[0] < zs[2] ? zs[0] : zs[2]) : (zs[1] < zs[2] ? zs[1] : zs[2]);
    const float zMax = zs[0] > zs[1] ? (zs[0] > zs[2] ? zs[0] : zs[2]) : (zs[1] > zs[2] ? zs[1] : zs[2]);
    const float cornerX = zx > 0.0f ? 0.0f : 8.0f;
    const float cornerY = zy > 0.0f ? 0.0f : 4.0f;
    // Relative to vertex 0 to keep cancellation small.
    const float4 subtileX = common::make4(0.0f, 8.0f, 16.0f, 24.0f) + common::splat(cornerX - xs[0]);
    const float4 zColumn0 = common::splat(zx) * subtileX;
    const float zxTile = zx * 32.0f;
    const float4 zTriMin = common::splat(zMin), zTriMax = common::splat(zMax);

    const int tileColMin = bbMinX >> kTileWidthShift, tileColMax = bbMaxX >> kTileWidthShift;
    const int tileRowMin = bbMinY >> kTileHeightShift, tileRowMax = bbMaxY >> kTileHeightShift;
    static const int4 kRowLanes = common::makeInt4(0, 1, 2, 3);

    bool upperStarted = false, lowerStarted = false;
    startEdge(longEdge, tileRowMin << kTileHeightShift);
    for (int row = tileRowMin; row < tileRowMax; ++row) {
        const int32_t y0 = row << kTileHeightShift;
        const bool useUpper = upper.yTop < upper.yBottom && y0 < upper.yBottom;
        const bool useLower = lower.yTop < lower.yBottom && y0 + 4 > lower.yTop;
        if (useUpper && !upperStarted) {
            startEdge(upper, y0);
            upperStarted = true;
        }
        if (useLower && !lowerStarted) {
            startEdge(lower, y0);
            lowerStarted = true;
        }
        const int4 rowsV = common::splatInt(y0) + kRowLanes;
        int4 events[3];
        events[0] = rowEvent(edges[0], rowsV);
        events[1] = rowEvent(edges[1], rowsV);
        events[2] = rowEvent(edges[2], rowsV);

        // Run of tiles holding covered pixels of this row.
        int4 left, right;
        if (midRight) {
            left = events[2];
            right = useUpper && useLower ? common::min(events[0], events[1]) : events[useUpper ? 0 : 1];
        } else {
            right = events[0];
            left = useUpper && useLower ? common::max(events[1], events[2]) : events[useUpper ? 1 : 2];
        }
        left = common::shiftRightArithmetic<kEventFracBits>(left);
        right = common::shiftRightArithmetic<kEventFracBits>(right);
        const int4 nonEmpty = common::cmpLt(left, right);
        if (common::anyTrue(nonEmpty)) {
            const int32_t spanMin = horizontalMinInt(common::select(nonEmpty, left, common::splatInt(INT32_MAX)));
            const int32_t spanMax = horizontalMaxInt(common::select(nonEmpty, right, common::splatInt(INT32_MIN)));
            int first = spanMin >> kTileWidthShift, end = (spanMax + 31) >> kTileWidthShift;
            first = first < tileColMin ? tileColMin : first;
            end = end > tileColMax ? tileColMax : end;
            if (first < end) {
                const float4 iz0 = common::splat(zs[0] + zy * ((float(y0) + cornerY) - ys[0])) + zColumn0;
                const int rowBase = row * tilesWidth;
                if (useUpper && useLower) {
                    if (midRight)
                        TraverseScanline<2, 1>(first, end, rowBase, rightIdx, leftIdx, events, zTriMin, zTriMax, iz0,
                                               zxTile);
                    else
                        TraverseScanline<1, 2>(first, end, rowBase, rightIdx, leftIdx, events, zTriMin, zTriMax, iz0,
                                               zxTile);
                } else {
                    const int r = midRight ? (useUpper ? 0 : 1) : rightIdx;
                    const int l = midRight ? leftIdx : (useUpper ? 1 : 2);
                    TraverseScanline<1, 1>(first, end, rowBase, r, l, events, zTriMin, zTriMax, iz0, zxTile);
                }
            }
        }
        advanceEdge(longEdge);
        if (upperStarted && useUpper) advanceEdge(upper);
        if (lowerStarted) advanceEdge(lower);
    }
}

template <int NRight, int NLeft>
void MaskedOcclusionCullingPrivate::TraverseScanline(int first, int end, int rowBase, int rightIdx, int leftIdx,
                                                     const int4* events, const float4& zTriMin, const float4& zTriMax,
                                                     const float4& iz0, float zx) {
    const int4 zero = common::splatInt(0);
    int4 right = NRight == 2 ? common::min(events[rightIdx], events[rightIdx + 1]) : events[rightIdx];
    int4 left = NLeft == 2 ? common::max(events[leftIdx], events[leftIdx + 1]) : events[leftIdx];
    const int4 origin = common::splatInt(first << kTileWidthShift);
    right = common::max(common::shiftRightArithmetic<kEventFracBits>(right) - origin, zero);
    left = common::max(common::shiftRightArithmetic<kEventFracBits>(left) - origin, zero);
    float4 z = iz0 + common::splat(float(first) * zx);
    const float4 zStep = common::splat(zx);
    const int4 tileWidth = common::splatInt(32);

    for (int t = first; t < end; ++t) {
        MaskedTile& tile = tileBuffer[rowBase + t];
        if (!common::allTrue(common::cmpLt(zTriMax, tile.referenceDepth))) {
            const int4 rowCoverage =
                common::andNot(common::shiftLeftVar(allOnes(), left), common::shiftLeftVar(allOnes(), right));
            const int4 coverage = transposeBytes(rowCoverage);
            const float4 zTri = common::max(z, zTriMin);
            updateLayers(tile, zTri, coverage);
        }
        left = common::max(left - tileWidth, zero);
        right = common::max(right - tileWidth, zero);
        z = z + zStep;
    }
}

// ---------------------------------------------------------------- rectangle and box tests

int MaskedOcclusionCullingPrivate::TestRect(float xmin, float ymin, float xmax, float ymax, float wmin) const {
    static const int4 kTileOffset = common::makeInt4(0, 32, 0, 4);
    static const int4 kTileMask = common::makeInt4(~31, ~31, ~3, ~3);
    static const int4 kSubtileOffset = common::makeInt4(0, 8, 0, 4);
    static const int4 kSubtileMask = common::makeInt4(~7, ~7, ~3, ~3);
    static const int4 kLaneX = common::makeInt4(0, 8, 16, 24);
    // Nothing drawn can hide anything.
    if (tileBuffer == nullptr) return Visible;

    const float4 bounds = common::make4(xmin, xmax, ymax, ymin);
    const float4 pixels = common::fmadd(rectHalfSize, bounds, rectCenter);
    const int4 rect = common::max(common::min(common::truncToInt(pixels), screenMax), common::splatInt(0));
    alignas(16) int32_t tileRect[4], subRect[4];
    common::storeInt4(tileRect, (rect + kTileOffset) & kTileMask);
    common::storeInt4(subRect, (rect + kSubtileOffset) & kSubtileMask);
    if (tileRect[0] == tileRect[1] || tileRect[2] == tileRect[3]) return OutsideView;

    const float zNear = 1.0f / wmin;
    const float4 zNearV = common::splat(zNear);
    const int4 subMinX = common::splatInt(subRect[0] - 1), subMaxX = common::splatInt(subRect[1]);
    const int colFirst = tileRect[0] >> kTileWidthShift, colEnd = tileRect[1] >> kTileWidthShift;
    const int rowEnd = tileRect[3] >> kTileHeightShift;
    int row = tileRect[2] >> kTileHeightShift;
    do {
        const int y = row << kTileHeightShift;
        if (y >= subRect[2] && y < subRect[3]) {
            const MaskedTile* tiles = tileBuffer + size_t(row) * size_t(tilesWidth);
            for (int col = colFirst; col < colEnd; ++col) {
                const int4 x = common::splatInt(col << kTileWidthShift) + kLaneX;
                const int4 pass = common::cmpGt(x, subMinX) & common::cmpGt(subMaxX, x) &
                                  common::cmpGe(zNearV, tiles[col].referenceDepth);
                if (common::anyTrue(pass)) return Visible;
            }
        }
        ++row;
    } while (row < rowEnd);
    return Occluded;
}

bool MaskedOcclusionCullingPrivate::Query(const float* boundsMin, const float* boundsMax) {
    static const float kStart = [] {
        float f;
        const uint32_t bits = 0x7F7FC99Eu;
        std::memcpy(&f, &bits, sizeof f);
        return f;
    }();
    // The eight corners as two groups of four, one component per vector;
    // each lane follows (c3 + c0*x) + c1*y + c2*z.
    const float4 xs = common::make4(boundsMin[0], boundsMax[0], boundsMin[0], boundsMax[0]);
    const float4 ys = common::make4(boundsMin[1], boundsMin[1], boundsMax[1], boundsMax[1]);
    const float4 zLow = common::splat(boundsMin[2]), zHigh = common::splat(boundsMax[2]);
    alignas(16) float c[16];
    modelViewProjection.toColumnMajor(c);
    float4 clip[3][2]; // x, y, w
    const int components[3] = {0, 1, 3};
    for (int i = 0; i < 3; ++i) {
        const int k = components[i];
        const float4 base = (common::splat(c[12 + k]) + common::splat(c[k]) * xs) + common::splat(c[4 + k]) * ys;
        clip[i][0] = base + common::splat(c[8 + k]) * zLow;
        clip[i][1] = base + common::splat(c[8 + k]) * zHigh;
    }
    float4 ndcMinX = common::splat(kStart), ndcMinY = ndcMinX, wMin = ndcMinX;
    float4 ndcMaxX = common::splat(-kStart), ndcMaxY = ndcMaxX;
    for (int g = 0; g < 2; ++g) {
        const float4 w = clip[2][g];
        const float4 nx = clip[0][g] / w, ny = clip[1][g] / w;
        ndcMinX = common::min(ndcMinX, nx);
        ndcMinY = common::min(ndcMinY, ny);
        ndcMaxX = common::max(ndcMaxX, nx);
        ndcMaxY = common::max(ndcMaxY, ny);
        wMin = common::min(wMin, w);
    }
    return TestRect(common::horizontalMin(ndcMinX), common::horizontalMin(ndcMinY), common::horizontalMax(ndcMaxX),
                    common::horizontalMax(ndcMaxY), common::horizontalMin(wMin)) == Visible;
}

} // namespace

// ---------------------------------------------------------------- interface statics

bool MaskedOcclusionCulling::ReadTile(int tileX, int tileY, TileData& out) const {
    return static_cast<const MaskedOcclusionCullingPrivate*>(this)->readTile(tileX, tileY, out);
}

MaskedOcclusionCulling* MaskedOcclusionCulling::Create() { return Create(common::aligned_alloc, common::aligned_free); }

MaskedOcclusionCulling* MaskedOcclusionCulling::Create(void* (*alloc)(size_t alignment, size_t size),
                                                       void (*free)(void*)) {
    void* memory = alloc(64, sizeof(MaskedOcclusionCullingPrivate));
    return new (memory) MaskedOcclusionCullingPrivate(alloc, free);
}

void MaskedOcclusionCulling::Destroy(MaskedOcclusionCulling* object) {
    if (object == nullptr) return;
    auto* self = static_cast<MaskedOcclusionCullingPrivate*>(object);
    const auto release = self->releaseCallback();
    self->~MaskedOcclusionCullingPrivate();
    release(self);
}

void GatherVertices(float4 vX[3], float4 vY[3], float4 vW[3], const float* vertices, const uint16_t* indices, int count,
                    const MaskedOcclusionCulling::VertexLayout& layout) {
    alignas(16) float xs[3][4], ys[3][4], ws[3][4];
    for (int k = 0; k < 3; ++k) {
        common::store4(xs[k], vX[k]);
        common::store4(ys[k], vY[k]);
        common::store4(ws[k], vW[k]);
    }
    const auto* base = reinterpret_cast<const unsigned char*>(vertices);
    const int lanes = count < 4 ? count : 4;
    for (int lane = 0; lane < lanes; ++lane) {
        for (int k = 0; k < 3; ++k) {
            const int64_t index = indices[3 * lane + k];
            const int64_t offset = common::checkedMul(index, int64_t(layout.stride));
            const unsigned char* p = base + offset;
            std::memcpy(&xs[k][lane], p, sizeof(float));
            std::memcpy(&ys[k][lane], p + layout.offsetY, sizeof(float));
            std::memcpy(&ws[k][lane], p + layout.offsetW, sizeof(float));
        }
    }
    for (int k = 0; k < 3; ++k) {
        vX[k] = common::load4(xs[k]);
        vY[k] = common::load4(ys[k]);
        vW[k] = common::load4(ws[k]);
    }
}

} // namespace util
