#include "util/Rasterizer.h"

#include "common/Checked.h"
#include "util/BoxDepthBound.h"
#include "util/ClippedBox.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace util {

using namespace common;

extern const uint64_t kRasterizationTable[Rasterizer::kTableSize];

namespace {

constexpr uint32_t kDepthScaleBits = 0x0F7FF000; // s = (1 - 2^-12) * 2^-96
constexpr uint32_t kDecompressBits = 0x6F000800; // 2^95 * (1 + 2^-12)
constexpr uint32_t kMinimumWBits = 0x00200000;   // keeps 1/w finite and positive
// Exact coverage: corners on a grid of 1/kSubpixel pixel, within kGuard pixels
// of the screen's centre (farther parts are clipped away first). These bounds
// keep the edge functions within 64 bits per quad and within 32 bits inside
// any block that an edge crosses.
constexpr int kSubpixelShift = 6;
constexpr int64_t kSubpixel = int64_t(1) << kSubpixelShift;
constexpr float kGuard = 8192.0f;

float depthScale() { return simd_detail::bitsFloat(kDepthScaleBits); }

int4 isFinite(float4 a) { return cmpEq(a - a, zero4()); }

// Two bits per lane for the first n lanes (n in 1..8).
unsigned runMask(unsigned n) { return n >= 8 ? 0xFFFFu : (1u << (2 * n)) - 1u; }

// Lane i all ones where bit (8i + 7 - r) of the coverage mask is set: row r
// of the block, one lane per pixel column.
ushort8 rowLanes(ushort8 highBytes, int r) {
    switch (r) {
    case 0: return topBitAfterShift<0>(highBytes);
    case 1: return topBitAfterShift<1>(highBytes);
    case 2: return topBitAfterShift<2>(highBytes);
    case 3: return topBitAfterShift<3>(highBytes);
    case 4: return topBitAfterShift<4>(highBytes);
    case 5: return topBitAfterShift<5>(highBytes);
    case 6: return topBitAfterShift<6>(highBytes);
    default: return topBitAfterShift<7>(highBytes);
    }
}

// True when any lane is negative (sign bit set, -0 included) and not NaN:
// the box lies wholly outside that plane. planes[0..2] carry the x, y, z
// coefficients, planes[3] the constant, signs[k] the sign bits of planes[k];
// e holds magnitudes, so OR-ing a sign in gives e with the plane's sign.
bool outsideAnyPlane(const float4 planes[4], const int4 signs[3], float4 c2x, float4 c2y, float4 c2z, float4 ex,
                     float4 ey, float4 ez) {
    const float4 v = planes[0] * (c2x + asFloat(asInt(ex) | signs[0])) +
                     planes[1] * (c2y + asFloat(asInt(ey) | signs[1])) +
                     planes[2] * (c2z + asFloat(asInt(ez) | signs[2])) + planes[3] * splat(2.0f);
    return signMask(andNot(asInt(v), isNaN(v))) != 0;
}

} // namespace

// Per-batch set-up of four screen-space quads, one lane per quad.
struct Rasterizer::ScreenBatch {
    float4 x[4], y[4], d[4]; // corner k: pixels (y up) and premultiplied depth
    int4 valid;
};

// One quad's set-up, read by the block loop.
struct Rasterizer::QuadSetup {
    float4 base, incX, incY; // the four edges' offsets in table units: block (0,0), per block x, per block y
    int4 slope;              // the four edges' table rows (slope row << 7 | sign of b)
    uint64_t force[4];       // all ones for a degenerate edge (it excludes nothing)
    float diagBase, diagIncX, diagIncY;
    int diagSlope;
    uint64_t diagForce;
    bool split;
    float depthOrigin, depthDx, depthDy, depthMax; // premultiplied depth plane in pixels
    uint16_t code;                                 // code of the nearest corner
    int bx0, bx1, by0, by1;
};

// One quad's set-up for exact coverage, in units of the corner grid. The
// edge from corner f to corner t is E(p) = a (p.x - x_f) + b (p.y - y_f) + tie
// with a = y_t - y_f, b = x_f - x_t: positive on its inner side (the right of
// its direction, y up). tie is 1 when that side faces +x, or +y for a
// horizontal edge: a pixel centre on an edge belongs to the side that a step
// of (1, epsilon) enters, which is one side for every pair of quads sharing
// the edge, so the centre is covered exactly once.
struct Rasterizer::ExactQuad {
    int32_t x[4], y[4];
    int from[2][4], to[2][4]; // the edges of each convex part: the quad, or its two triangles
    int edgeCount[2];
    int parts;
    // Per part, one lane per edge (a missing fourth edge excludes nothing):
    // E at the centre of pixel (0, 0) and its change per block in float, the
    // least and greatest change from a block's first pixel to the others, and
    // a margin that covers the rounding, so that most blocks are settled
    // without the exact values.
    float4 start[2], blockX[2], blockY[2], low[2], high[2], margin[2];
    float depthOrigin, depthDx, depthDy, depthMax;
    uint16_t code;
    int bx0, bx1, by0, by1;
};

namespace {

struct EdgeLanes {
    float4 base, incX, incY;
    int4 slope, degenerate;
};

// Edge from (x0, y0) to (x1, y1) in pixels, four quads at once. Inside is the
// right of the edge's direction (y up), the interior of a clockwise quad.
EdgeLanes setupEdge(float4 x0, float4 y0, float4 x1, float4 y1) {
    const float4 eighth = splat(0.125f);
    const float4 px = x0 * eighth, py = y0 * eighth;
    const float4 dx = (x1 - x0) * eighth, dy = (y1 - y0) * eighth;
    float4 a = -dy, b = dx;
    float4 c = dy * px - dx * py;
    const int4 degenerate = cmpEq(abs(a) + abs(b), zero4());
    float4 inv;
    Rasterizer::normalizeEdge(a, b, inv);
    c = c * inv;
    a = select(degenerate, zero4(), a);
    b = select(degenerate, zero4(), b);
    EdgeLanes e;
    const float4 seventy = splat(70.0f), half = splat(0.5f);
    e.base = select(degenerate, splat(-1.0e6f), seventy * ((a * half + b * half) + c) + splat(32.0f));
    e.incX = seventy * a;
    e.incY = seventy * b;
    e.slope = Rasterizer::quantizeSlopeLookup(a, b);
    e.degenerate = degenerate;
    return e;
}

struct DepthPlane {
    float4 origin, dx, dy; // premultiplied depth at pixel (0, 0) and per pixel
    float4 nearest;        // of the four corners
    // A bound on the error of the slopes over the quad's extent: it grows as
    // the triangle that defines the plane thins (its area is a difference of
    // products many times larger).
    float4 slack;
};

ZELK_INLINE DepthPlane setupDepthPlane(const float4* x, const float4* y, const float4* d, float4 area012,
                                       float4 area023, unsigned width, unsigned height) {
    // Depth plane through the larger of the two triangles (c0 c1 c2) and
    // (c0 c2 c3), lowered until the remaining corner is not nearer than it,
    // so that the plane never lies in front of either triangle.
    const int4 useFirst = cmpGe(abs(area012), abs(area023));
    const float4 x1 = select(useFirst, x[1], x[2]), y1 = select(useFirst, y[1], y[2]);
    const float4 x2 = select(useFirst, x[2], x[3]), y2 = select(useFirst, y[2], y[3]);
    const float4 d1 = select(useFirst, d[1], d[2]), d2 = select(useFirst, d[2], d[3]);
    const float4 xr = select(useFirst, x[3], x[1]), yr = select(useFirst, y[3], y[1]);
    const float4 dr = select(useFirst, d[3], d[1]);
    const float4 ux = x1 - x[0], uy = y1 - y[0], vx = x2 - x[0], vy = y2 - y[0];
    const float4 du = d1 - d[0], dv = d2 - d[0];
    const float4 area = select(useFirst, area012, area023);
    const float4 depthDx = (du * vy - dv * uy) / area;
    const float4 depthDy = (dv * ux - du * vx) / area;
    float4 origin = d[0] - depthDx * x[0] - depthDy * y[0];
    const float4 atRest = origin + depthDx * xr + depthDy * yr;
    origin = origin - max(atRest - dr, zero4());
    // Lowered a little more to cover rounding in the per-pixel evaluation.
    const float4 spread = abs(origin) + abs(depthDx) * splat(float(width)) + abs(depthDy) * splat(float(height));
    origin = origin - spread * splat(1.0f / 1048576.0f);
    const float4 errorDx = (abs(du * vy) + abs(dv * uy)) / abs(area),
                 errorDy = (abs(dv * ux) + abs(du * vx)) / abs(area);
    const float4 extentX = max(max(x[0], x[1]), max(x[2], x[3])) - min(min(x[0], x[1]), min(x[2], x[3]));
    const float4 extentY = max(max(y[0], y[1]), max(y[2], y[3])) - min(min(y[0], y[1]), min(y[2], y[3]));
    const float4 slack = (errorDx * extentX + errorDy * extentY) * splat(1.0f / 1048576.0f);
    return {origin, depthDx, depthDy, max(max(d[0], d[1]), max(d[2], d[3])), slack};
}

} // namespace

Rasterizer::Rasterizer() : localToClip(new RasterizerLocalToClip()) {
    rasterizationTable.assign(kRasterizationTable, kRasterizationTable + kTableSize);
    for (auto& group : planeLanes)
        for (float4& v : group) v = zero4();
    for (auto& group : planeSigns)
        for (int4& v : group) v = splatInt(0);
    for (auto& component : screenSplat)
        for (float4& v : component) v = zero4();
}

Rasterizer::~Rasterizer() { delete localToClip; }

const uint64_t* Rasterizer::storedRasterizationTable() { return kRasterizationTable; }

void Rasterizer::setResolution(unsigned newWidth, unsigned newHeight) {
    width = newWidth;
    height = newHeight;
    blocksX = width >> 3;
    blocksY = height >> 3;
    const uint32_t pixels = checkedMul<uint32_t>(width, height);
    depthBuffer.resize(pixels >> 3, splatU16(0));
    blockDepth.resize(size_t(blocksX) * blocksY + 8, 0);
}

void Rasterizer::clear() {
    std::fill(depthBuffer.begin(), depthBuffer.end(), splatU16(0));
    std::fill(blockDepth.begin(), blockDepth.end(), uint16_t(0));
}

void Rasterizer::setModelViewProjection(const Matrix4x4& m) {
    RasterizerLocalToClip& t = *localToClip;
    float4 r0 = m.columns[0], r1 = m.columns[1], r2 = m.columns[2], r3 = m.columns[3];
    transpose(r0, r1, r2, r3); // columns to rows
    t.clipRows[0] = r0;
    t.clipRows[1] = r1;
    t.clipRows[2] = r2;
    t.clipRows[3] = r3;
    float4 sx = (r0 + r3) * splat(float(width) * 0.5f);
    float4 sy = (r1 + r3) * splat(float(height) * 0.5f);
    float4 sz = (r3 - r2) * splat(depthScale());
    float4 sw = r3;
    transpose(sx, sy, sz, sw); // rows to columns
    t.screenColumns[0] = sx;
    t.screenColumns[1] = sy;
    t.screenColumns[2] = sz;
    t.screenColumns[3] = sw;
    for (int k = 0; k < 4; ++k)
        for (int c = 0; c < 4; ++c) screenSplat[c][k] = splat(lane(t.screenColumns[k], c));
    t.calcFrustum();
    for (size_t g = 0; g < 2; ++g) {
        float4 p0 = t.frustumPlanes[4 * g], p1 = t.frustumPlanes[4 * g + 1];
        float4 p2 = g == 0 ? t.frustumPlanes[2] : p0, p3 = g == 0 ? t.frustumPlanes[3] : p1;
        transpose(p0, p1, p2, p3);
        planeLanes[g][0] = p0;
        planeLanes[g][1] = p1;
        planeLanes[g][2] = p2;
        planeLanes[g][3] = p3;
        for (int k = 0; k < 3; ++k) planeSigns[g][k] = asInt(planeLanes[g][k]) & splatInt(int32_t(0x80000000u));
    }
}

uint16_t Rasterizer::pixelDepth(unsigned x, unsigned y) const {
    const size_t block = size_t(y >> 3) * blocksX + (x >> 3);
    alignas(16) uint16_t row[8];
    storeU16(row, depthBuffer[8 * block + (y & 7)]);
    return row[x & 7];
}

ushort8 Rasterizer::packDepthPremultiplied(float4 d) {
    const int4 c = shiftRightArithmetic<12>(asInt(d));
    return narrowSaturateUnsigned(c, c);
}

ushort8 Rasterizer::packDepthPremultiplied(float4 d0, float4 d1) {
    return narrowSaturateUnsigned(shiftRightArithmetic<12>(asInt(d0)), shiftRightArithmetic<12>(asInt(d1)));
}

float Rasterizer::decompressFloat(unsigned short code) {
    return simd_detail::bitsFloat(uint32_t(code) << 12) * simd_detail::bitsFloat(kDecompressBits);
}

void Rasterizer::normalizeEdge(float4& a, float4& b, float4& inv) {
    inv = rcp(abs(a) + abs(b));
    a = a * inv;
    b = b * inv;
}

int4 Rasterizer::quantizeSlopeLookup(float4 a, float4 b) {
    const int4 row = truncToInt(splat(16.0f) + splat(15.5f) * a);
    return shiftLeft<7>(row) + (cmpLt(b, zero4()) & splatInt(64));
}

int Rasterizer::quantizeOffsetLookup(float c) {
    const int4 column = truncToInt(splat(70.0f) * splat(c) + splat(32.0f));
    return lane<0>(min(max(column, splatInt(0)), splatInt(63)));
}

void Rasterizer::precomputeRasterizationTable() {
    rasterizationTable.resize(kTableSize, 0);
    precomputeRasterizationTableInto(rasterizationTable);
}

void Rasterizer::precomputeRasterizationTableInto(std::vector<uint64_t>& table) {
    if (table.size() < kTableSize) return;
    for (int i = 0; i < 2000; ++i) {
        const float theta = float(i) * 6.4f / 1999.0f - 0.1f;
        const float c = std::cos(theta), s = std::sin(theta);
        const float a = c / (std::fabs(c) + std::fabs(s)), b = s / (std::fabs(c) + std::fabs(s));
        const int row = int(16.0f + 15.5f * a);
        const size_t rowBase = size_t(row) * 128 + (b < 0.0f ? 64 : 0);
        for (int j = 0; j < 2000; ++j) {
            const float o = float(j) * 1.2f / 1999.0f - 0.6f;
            const int column = std::min(std::max(int(70.0f * o + 32.0f), 0), 63);
            uint64_t mask = 0;
            for (int col = 0; col < 8; ++col)
                for (int r = 0; r < 8; ++r)
                    if (o + a * (-0.4375f + 0.125f * float(col)) + b * (-0.4375f + 0.125f * float(r)) <= 0.0f)
                        mask |= uint64_t(1) << (8 * col + 7 - r);
            table[rowBase + size_t(column)] |= mask;
        }
    }
}

template <bool possiblyNearClipped> void Rasterizer::rasterize(const Occluder& occluder) {
    if (occluder.packedVertices.empty() || blocksX == 0 || blocksY == 0) return;
    const RasterizerLocalToClip& t = *localToClip;
    // The decode transform: dequantisation folded into the screen matrix.
    const float4 range = occluder.refMax - occluder.refMin;
    const float4 col0 = t.screenColumns[0] * splat(lane<0>(range) / 2047.0f);
    const float4 col1 = t.screenColumns[1] * splat(lane<1>(range) / 2047.0f);
    const float4 col2 = t.screenColumns[2] * splat(lane<2>(range) / 1023.0f);
    const float4 col3 = t.screenColumns[0] * splatLane<0>(occluder.refMin) +
                        t.screenColumns[1] * splatLane<1>(occluder.refMin) +
                        t.screenColumns[2] * splatLane<2>(occluder.refMin) + t.screenColumns[3];
    const float4 m[4][4] = {
        {splatLane<0>(col0), splatLane<0>(col1), splatLane<0>(col2), splatLane<0>(col3)},
        {splatLane<1>(col0), splatLane<1>(col1), splatLane<1>(col2), splatLane<1>(col3)},
        {splatLane<2>(col0), splatLane<2>(col1), splatLane<2>(col2), splatLane<2>(col3)},
        {splatLane<3>(col0), splatLane<3>(col1), splatLane<3>(col2), splatLane<3>(col3)},
    };
    // The same transform for unquantised corners (conservative builds).
    const float4 s[4][4] = {
        {splatLane<0>(t.screenColumns[0]), splatLane<0>(t.screenColumns[1]), splatLane<0>(t.screenColumns[2]),
         splatLane<0>(t.screenColumns[3])},
        {splatLane<1>(t.screenColumns[0]), splatLane<1>(t.screenColumns[1]), splatLane<1>(t.screenColumns[2]),
         splatLane<1>(t.screenColumns[3])},
        {splatLane<2>(t.screenColumns[0]), splatLane<2>(t.screenColumns[1]), splatLane<2>(t.screenColumns[2]),
         splatLane<2>(t.screenColumns[3])},
        {splatLane<3>(t.screenColumns[0]), splatLane<3>(t.screenColumns[1]), splatLane<3>(t.screenColumns[2]),
         splatLane<3>(t.screenColumns[3])},
    };
    const float4 twoS = splat(2.0f * depthScale());
    const float4 minW = splat(simd_detail::bitsFloat(kMinimumWBits));

    // Quads that cross the near plane are clipped one by one and drawn in
    // batches of their own; a clipped quad may become two.
    alignas(16) float pending[3][4][4]; // component, corner, lane
    int pendingCount = 0;
    const auto flushPending = [&]() {
        if (pendingCount == 0) return;
        ScreenBatch batch;
        for (int k = 0; k < 4; ++k) {
            batch.x[k] = load4(pending[0][k]);
            batch.y[k] = load4(pending[1][k]);
            batch.d[k] = load4(pending[2][k]);
        }
        batch.valid = maskFromBits((1u << pendingCount) - 1u);
        drawBatch(batch);
        pendingCount = 0;
    };
    const auto emit = [&](const float(*v)[3], int a, int b, int c, int d) {
        const int corners[4] = {a, b, c, d};
        for (int k = 0; k < 4; ++k)
            for (int comp = 0; comp < 3; ++comp) pending[comp][k][pendingCount] = v[corners[k]][comp];
        if (++pendingCount == 4) flushPending();
    };
    // Exact coverage: the guard band around the screen's centre, and the
    // clipping of one triangle of a quad against it and the near plane in
    // homogeneous space (x w, y w, D w, w).
    const float4 guard = splat(kGuard), guardX = splat(0.5f * float(width)), guardY = splat(0.5f * float(height));
    const auto clipTriangle = [&](const float* c0, const float* c1, const float* c2) {
        const float cx = 0.5f * float(width), cy = 0.5f * float(height);
        const auto distance = [&](const float* v, int plane) {
            switch (plane) {
            case 0: return 2.0f * depthScale() * v[3] - v[2];
            case 1: return v[0] - (cx - kGuard) * v[3];
            case 2: return (cx + kGuard) * v[3] - v[0];
            case 3: return v[1] - (cy - kGuard) * v[3];
            default: return (cy + kGuard) * v[3] - v[1];
            }
        };
        // A triangle cut by five planes keeps at most eight corners; rounding
        // can only add more for slivers lying in a plane, which are dropped.
        constexpr int kMaxCorners = 16;
        float polygon[2][kMaxCorners][4];
        int n = 3;
        std::memcpy(polygon[0][0], c0, sizeof(float) * 4);
        std::memcpy(polygon[0][1], c1, sizeof(float) * 4);
        std::memcpy(polygon[0][2], c2, sizeof(float) * 4);
        for (int plane = 0; plane < 5 && n >= 3; ++plane) {
            const float(*in)[4] = polygon[plane & 1];
            float(*out)[4] = polygon[(plane + 1) & 1];
            int m = 0;
            for (int i = 0; i < n; ++i) {
                if (m + 2 > kMaxCorners) return;
                const float* a = in[i];
                const float* b = in[i + 1 < n ? i + 1 : 0];
                const float da = distance(a, plane), db = distance(b, plane);
                if (da >= 0.0f) std::memcpy(out[m++], a, sizeof(float) * 4);
                if ((da >= 0.0f) != (db >= 0.0f)) {
                    // From the endpoint inside, so that the two quads sharing
                    // an edge cut it at the same point.
                    const float* p = da >= 0.0f ? a : b;
                    const float* o = da >= 0.0f ? b : a;
                    const float dp = da >= 0.0f ? da : db, dq = da >= 0.0f ? db : da;
                    const float t = dp / (dp - dq);
                    for (int c = 0; c < 4; ++c) out[m][c] = p[c] + t * (o[c] - p[c]);
                    ++m;
                }
            }
            n = m;
        }
        if (n < 3) return;
        const float(*clipped)[4] = polygon[1]; // after an odd number of planes
        float v[kMaxCorners][3];
        for (int i = 0; i < n; ++i) {
            const float w = clipped[i][3], r = 1.0f / w; // as the unclipped corners are divided
            if (!(w > 0.0f) || !std::isfinite(clipped[i][0]) || !std::isfinite(clipped[i][1]) ||
                !std::isfinite(clipped[i][2]) || !std::isfinite(w))
                return;
            for (int c = 0; c < 3; ++c) v[i][c] = clipped[i][c] * r;
        }
        // A fan of quads, each two of its triangles; an odd one repeats its last corner.
        for (int i = 1; i + 1 < n; i += 2) emit(v, 0, i, i + 1, i + 2 < n ? i + 2 : i + 1);
    };

    const size_t batches = occluder.packedVertices.size() / 4;
    const auto drawBatches = [&](size_t first, size_t last) {
        for (size_t b = first; b < last; ++b) {
            float4 h[4][4]; // component (x*w, y*w, D*w, w), corner
            int4 inFront = splatInt(-1);
            for (int k = 0; k < 4; ++k) {
                if (ZELK_CONSERVATIVE && occluder.exactCorners.size() == 3 * occluder.packedVertices.size()) {
                    const float4* corner = &occluder.exactCorners[12 * b + 3 * size_t(k)];
                    for (int c = 0; c < 4; ++c)
                        h[c][k] = ((corner[0] * s[c][0] + corner[1] * s[c][1]) + corner[2] * s[c][2]) + s[c][3];
                } else {
                    const int4 word = occluder.packedVertices[4 * b + size_t(k)];
                    const float4 qx = toFloat(shiftRightLogical<21>(word));
                    const float4 qy = toFloat(shiftRightLogical<10>(word) & splatInt(2047));
                    const float4 qz = toFloat(word & splatInt(1023));
                    for (int c = 0; c < 4; ++c) h[c][k] = ((qx * m[c][0] + qy * m[c][1]) + qz * m[c][2]) + m[c][3];
                }
                // Behind the near plane (w + z >= 0, that is 2 s w >= D w) and w > 0.
                inFront = inFront & cmpGe(twoS * h[3][k], h[2][k]) & cmpGt(h[3][k], zero4());
            }
            ScreenBatch batch;
            for (int k = 0; k < 4; ++k) {
                // For lanes in front the clamp changes nothing; it keeps the others' reciprocals finite.
                const float4 w = possiblyNearClipped ? max(abs(h[3][k]), minW) : h[3][k];
                // Exact coverage snaps the corners: a correctly rounded reciprocal
                // gives every vector backend the same grid points.
                const float4 r = ZELK_CONSERVATIVE ? splat(1.0f) / w : rcp(w);
                batch.x[k] = h[0][k] * r;
                batch.y[k] = h[1][k] * r;
                batch.d[k] = h[2][k] * r;
            }
            batch.valid = inFront;
            if (ZELK_CONSERVATIVE) {
                // Quads reaching past the guard band (NaN included) are clipped to it.
                for (int k = 0; k < 4; ++k)
                    batch.valid =
                        batch.valid & cmpLe(abs(batch.x[k] - guardX), guard) & cmpLe(abs(batch.y[k] - guardY), guard);
            }
            const unsigned direct = signMask(batch.valid);
            if (direct != 0) drawBatch(batch);
            if (direct == 0xF) continue;

            alignas(16) float lanes[4][4][4]; // component, corner, lane
            for (int c = 0; c < 4; ++c)
                for (int k = 0; k < 4; ++k) store4(lanes[c][k], h[c][k]);
            for (int j = 0; j < 4; ++j) {
                if (direct & (1u << j)) continue;
                if (ZELK_CONSERVATIVE) {
                    float corners[4][4];
                    for (int k = 0; k < 4; ++k)
                        for (int c = 0; c < 4; ++c) corners[k][c] = lanes[c][k][j];
                    clipTriangle(corners[0], corners[1], corners[2]);
                    clipTriangle(corners[0], corners[2], corners[3]);
                    continue;
                }
                // Sutherland-Hodgman against the near plane in homogeneous space.
                // A quad that is not flat can cross it four times (corners alternately
                // in front and behind), leaving six vertices.
                float out[6][4];
                int n = 0;
                for (int k = 0; k < 4; ++k) {
                    const int k1 = (k + 1) & 3;
                    const float a[4] = {lanes[0][k][j], lanes[1][k][j], lanes[2][k][j], lanes[3][k][j]};
                    const float b1[4] = {lanes[0][k1][j], lanes[1][k1][j], lanes[2][k1][j], lanes[3][k1][j]};
                    const float da = 2.0f * depthScale() * a[3] - a[2], db = 2.0f * depthScale() * b1[3] - b1[2];
                    if (da >= 0.0f) std::memcpy(out[n++], a, sizeof(a));
                    if ((da >= 0.0f) != (db >= 0.0f)) {
                        const float s = da / (da - db);
                        for (int c = 0; c < 4; ++c) out[n][c] = a[c] + s * (b1[c] - a[c]);
                        ++n;
                    }
                }
                if (n < 3) continue;
                float v[6][3];
                bool usable = true;
                for (int i = 0; i < n; ++i) {
                    const float w = out[i][3];
                    usable = usable && w > 0.0f && std::isfinite(out[i][0]) && std::isfinite(out[i][1]) &&
                             std::isfinite(out[i][2]) && std::isfinite(w);
                    for (int c = 0; c < 3; ++c) v[i][c] = out[i][c] / w;
                }
                if (!usable) continue;
                if (n == 3) emit(v, 0, 1, 2, 2);
                if (n >= 4) emit(v, 0, 1, 2, 3);
                if (n == 5) emit(v, 0, 3, 4, 4);
                if (n == 6) emit(v, 0, 3, 4, 5);
            }
        }
    };

    const size_t clusters = occluder.clusterMin.size();
    if (!ZELK_CONSERVATIVE || clusters == 0 || occluder.clusterMax.size() != clusters ||
        clusters != (batches + Occluder::kClusterBatches - 1) / Occluder::kClusterBatches) {
        drawBatches(0, batches);
        flushPending();
        return;
    }
    // Conservative builds draw a level's clusters nearest first and skip
    // those whose box is off screen or already hidden: the buffer keeps each
    // pixel's nearest code and a skipped cluster could change none, so this
    // changes no pixel of the result.
    clusterOrder.clear();
    const float4 wRow = make4(lane<0>(screenSplat[3][0]), lane<0>(screenSplat[3][1]), lane<0>(screenSplat[3][2]), 0.0f);
    const float wOrigin = lane<0>(screenSplat[3][3]);
    for (size_t c = 0; c < clusters; ++c) {
        const float4 centre = (occluder.clusterMin[c] + occluder.clusterMax[c]) * splat(0.5f);
        const float4 half = (occluder.clusterMax[c] - occluder.clusterMin[c]) * splat(0.5f);
        float nearest = dot3(wRow, centre) + wOrigin - dot3(abs(wRow), half);
        if (std::isnan(nearest)) nearest = -INFINITY;
        clusterOrder.push_back({nearest, uint32_t(c)});
    }
    std::sort(clusterOrder.begin(), clusterOrder.end(), [](const ClusterKey& a, const ClusterKey& b) {
        return a.nearest < b.nearest || (a.nearest == b.nearest && a.index < b.index);
    });
    for (const ClusterKey& key : clusterOrder) {
        bool needsClipping = false;
        float screenFraction = 0.0f;
        if (!testBox<false>(occluder.clusterMin[key.index], occluder.clusterMax[key.index], needsClipping,
                            screenFraction))
            continue;
        const size_t first = size_t(key.index) * Occluder::kClusterBatches;
        drawBatches(first, std::min(first + Occluder::kClusterBatches, batches));
        flushPending(); // clipped pieces count for the clusters behind
    }
}

template void Rasterizer::rasterize<false>(const Occluder&);
template void Rasterizer::rasterize<true>(const Occluder&);

void Rasterizer::drawBatch(const ScreenBatch& q) {
    if (ZELK_CONSERVATIVE) {
        drawBatchExact(q);
        return;
    }
    const float4 *x = q.x, *y = q.y, *d = q.d;
    // Twice the signed area; clockwise (negative) quads face the camera.
    const float4 ex1 = x[1] - x[0], ey1 = y[1] - y[0], ex2 = x[2] - x[0], ey2 = y[2] - y[0];
    const float4 ex3 = x[3] - x[0], ey3 = y[3] - y[0];
    const float4 area012 = ex1 * ey2 - ey1 * ex2, area023 = ex2 * ey3 - ey2 * ex3;
    const int4 front = cmpLt(area012 + area023, zero4());
    // A corner turning the other way (or a collinear one, -0) makes the quad two triangles.
    int4 turnSigns = splatInt(0);
    for (int k = 0; k < 4; ++k) {
        const int kp = (k + 3) & 3, kn = (k + 1) & 3;
        const float4 turn =
            (y[k] - y[kp]) * (x[kn] - x[k]) - (x[k] - x[kp]) * (y[kn] - y[k]); // positive when convex clockwise
        turnSigns = turnSigns | asInt(turn);
    }
    const unsigned split = signMask(turnSigns);

    EdgeLanes edges[4];
    for (int k = 0; k < 4; ++k) edges[k] = setupEdge(x[k], y[k], x[(k + 1) & 3], y[(k + 1) & 3]);
    const EdgeLanes diag = setupEdge(x[2], y[2], x[0], y[0]);

    const DepthPlane plane = setupDepthPlane(x, y, d, area012, area023, width, height);
    const float4 origin = plane.origin, depthDx = plane.dx, depthDy = plane.dy, depthMax = plane.nearest;

    const float4 minX = min(min(x[0], x[1]), min(x[2], x[3])), maxX = max(max(x[0], x[1]), max(x[2], x[3]));
    const float4 minY = min(min(y[0], y[1]), min(y[2], y[3])), maxY = max(max(y[0], y[1]), max(y[2], y[3]));
    const float4 w = splat(float(width)), hgt = splat(float(height));
    const int4 onScreen = cmpGe(maxX, zero4()) & cmpLt(minX, w) & cmpGe(maxY, zero4()) & cmpLt(minY, hgt);
    int4 finite = isFinite(origin) & isFinite(depthDx) & isFinite(depthDy) & isFinite(depthMax);
    for (int k = 0; k < 4; ++k)
        finite = finite & (isFinite(edges[k].base) & isFinite(edges[k].incX) & isFinite(edges[k].incY));
    const unsigned drawn = signMask(q.valid & front & onScreen & finite);
    if (drawn == 0) return;

    const float4 eighth = splat(0.125f);
    const int4 bx0 = truncToInt(max(minX, zero4()) * eighth), bx1 = truncToInt(min(maxX, w - splat(1.0f)) * eighth);
    const int4 by0 = truncToInt(max(minY, zero4()) * eighth), by1 = truncToInt(min(maxY, hgt - splat(1.0f)) * eighth);
    alignas(16) uint16_t codes[8];
    storeU16(codes, packDepthPremultiplied(depthMax));

    // Lanes per quad: transpose edge-major vectors to quad-major ones.
    float4 base[4] = {edges[0].base, edges[1].base, edges[2].base, edges[3].base};
    float4 incX[4] = {edges[0].incX, edges[1].incX, edges[2].incX, edges[3].incX};
    float4 incY[4] = {edges[0].incY, edges[1].incY, edges[2].incY, edges[3].incY};
    float4 slope[4] = {asFloat(edges[0].slope), asFloat(edges[1].slope), asFloat(edges[2].slope),
                       asFloat(edges[3].slope)};
    transpose(base[0], base[1], base[2], base[3]);
    transpose(incX[0], incX[1], incX[2], incX[3]);
    transpose(incY[0], incY[1], incY[2], incY[3]);
    transpose(slope[0], slope[1], slope[2], slope[3]);

    for (int j = 0; j < 4; ++j) {
        if (!(drawn & (1u << j))) continue;
        QuadSetup s;
        s.base = base[j];
        s.incX = incX[j];
        s.incY = incY[j];
        s.slope = asInt(slope[j]);
        for (int k = 0; k < 4; ++k) s.force[k] = lane(edges[k].degenerate, j) ? ~uint64_t(0) : 0;
        s.split = (split >> j) & 1u;
        s.diagBase = lane(diag.base, j);
        s.diagIncX = lane(diag.incX, j);
        s.diagIncY = lane(diag.incY, j);
        s.diagSlope = lane(diag.slope, j);
        s.diagForce = lane(diag.degenerate, j) ? ~uint64_t(0) : 0;
        s.depthOrigin = lane(origin, j);
        s.depthDx = lane(depthDx, j);
        s.depthDy = lane(depthDy, j);
        s.depthMax = lane(depthMax, j);
        s.code = codes[j];
        s.bx0 = lane(bx0, j);
        s.bx1 = lane(bx1, j);
        s.by0 = lane(by0, j);
        s.by1 = lane(by1, j);
        drawQuad(s);
    }
}

void Rasterizer::drawQuad(const QuadSetup& s) {
    const uint64_t* table = rasterizationTable.data();
    const ushort8 code = splatU16(s.code);
    const float4 laneLo = make4(0.5f, 1.5f, 2.5f, 3.5f) * splat(s.depthDx);
    const float4 laneHi = make4(4.5f, 5.5f, 6.5f, 7.5f) * splat(s.depthDx);
    const float4 rowStep = splat(s.depthDy), depthMax = splat(s.depthMax);
    const float4 sixtyThree = splat(63.0f);
    for (int by = s.by0; by <= s.by1; ++by) {
        const float4 rowBase = s.base + s.incY * splat(float(by));
        const float diagRow = s.diagBase + s.diagIncY * float(by);
        const size_t rowStart = size_t(by) * blocksX;
        for (int run = s.bx0; run <= s.bx1; run += 8) {
            // Blocks already at least as near as the quad's nearest corner are skipped unseen.
            const ushort8 depths = loaduU16(&blockDepth[rowStart + size_t(run)]);
            unsigned open = ~byteMask(cmpGe(depths, code)) & runMask(unsigned(s.bx1 - run + 1));
            while (open != 0) {
                const int i = __builtin_ctz(open) >> 1;
                open &= ~(3u << (2 * i));
                const int bx = run + i;
                const float4 offsets = rowBase + s.incX * splat(float(bx));
                if (!s.split && anyTrue(cmpGe(offsets, sixtyThree))) continue; // wholly outside an edge
                const int4 index = s.slope + min(max(truncToInt(offsets), splatInt(0)), splatInt(63));
                const uint64_t e0 = table[lane<0>(index)] | s.force[0], e1 = table[lane<1>(index)] | s.force[1];
                const uint64_t e2 = table[lane<2>(index)] | s.force[2], e3 = table[lane<3>(index)] | s.force[3];
                uint64_t mask;
                if (!s.split) {
                    mask = e0 & e1 & e2 & e3;
                } else {
                    const float diagOffset = diagRow + s.diagIncX * float(bx);
                    const int column = lane<0>(min(max(truncToInt(splat(diagOffset)), splatInt(0)), splatInt(63)));
                    const uint64_t diag = table[s.diagSlope + column] | s.diagForce;
                    mask = (e0 & e1 & diag) | (e2 & e3 & ~diag);
                }
                if (mask == 0) continue;

                const size_t block = rowStart + size_t(bx);
                ushort8* rows = &depthBuffer[8 * block];
                const float corner = s.depthOrigin + s.depthDx * float(8 * bx) + s.depthDy * float(8 * by);
                float4 lo = splat(corner) + (laneLo + rowStep * splat(0.5f));
                float4 hi = splat(corner) + (laneHi + rowStep * splat(0.5f));
                ushort8 farthest = splatU16(0xFFFF);
                const bool full = mask == ~uint64_t(0);
                const ushort8 highBytes = bytesToHighU16(mask);
                for (int r = 0; r < 8; ++r) {
                    // Never nearer than the quad's nearest corner; never negative (that packs as nearest).
                    ushort8 codes =
                        packDepthPremultiplied(max(min(lo, depthMax), zero4()), max(min(hi, depthMax), zero4()));
                    if (!full) codes = codes & rowLanes(highBytes, r);
                    rows[r] = max(rows[r], codes);
                    farthest = min(farthest, rows[r]);
                    lo = lo + rowStep;
                    hi = hi + rowStep;
                }
                blockDepth[block] = horizontalMin(farthest);
            }
        }
    }
}

void Rasterizer::drawBatchExact(const ScreenBatch& q) {
    const float4 *x = q.x, *y = q.y, *d = q.d;
    const float4 ex1 = x[1] - x[0], ey1 = y[1] - y[0], ex2 = x[2] - x[0], ey2 = y[2] - y[0];
    const float4 ex3 = x[3] - x[0], ey3 = y[3] - y[0];
    const float4 area012 = ex1 * ey2 - ey1 * ex2, area023 = ex2 * ey3 - ey2 * ex3;
    DepthPlane plane = setupDepthPlane(x, y, d, area012, area023, width, height);
    // Thin pieces are common here (clipping cuts triangles into fans), and a
    // pixel centre may lie up to half a grid step outside the float quad.
    plane.origin = plane.origin - plane.slack;
    int4 usable = q.valid & isFinite(plane.origin) & isFinite(plane.dx) & isFinite(plane.dy) & isFinite(plane.nearest);
    // Clipping leaves the corners within the guard band up to rounding; the
    // bound keeps the set-up's products within 64 bits whatever the input.
    const float4 limit = splat(1.01f * kGuard), grid = splat(float(kSubpixel));
    const float4 cx = splat(0.5f * float(width)), cy = splat(0.5f * float(height));
    alignas(16) int32_t gx[4][4], gy[4][4]; // corner, quad
    float4 fx[4], fy[4];                    // the same, exact in float
    for (int k = 0; k < 4; ++k) {
        usable = usable & cmpLe(abs(x[k] - cx), limit) & cmpLe(abs(y[k] - cy), limit);
        const int4 ix = roundToInt(x[k] * grid), iy = roundToInt(y[k] * grid);
        storeInt4(gx[k], ix);
        storeInt4(gy[k], iy);
        fx[k] = toFloat(ix);
        fy[k] = toFloat(iy);
    }
    {
        // A quad whose triangles (c0 c1 c2) and (c0 c2 c3) both turn
        // counter-clockwise faces away and draws nothing (see below): four at a
        // time here, by a margin above the products' rounding (the grid
        // differences are exact, each product is rounded once).
        const float4 dx1 = fx[1] - fx[0], dy1 = fy[1] - fy[0], dx2 = fx[2] - fx[0], dy2 = fy[2] - fy[0];
        const float4 dx3 = fx[3] - fx[0], dy3 = fy[3] - fy[0];
        const float4 p1 = dx1 * dy2, q1 = dy1 * dx2, p2 = dx2 * dy3, q2 = dy2 * dx3;
        const float4 margin = splat(1.0f / 1048576.0f);
        const int4 away = cmpGt(p1 - q1, (abs(p1) + abs(q1)) * margin) & cmpGt(p2 - q2, (abs(p2) + abs(q2)) * margin);
        usable = usable & ~away;
    }
    const unsigned drawn = signMask(usable);
    if (drawn == 0) return;
    transpose(fx[0], fx[1], fx[2], fx[3]); // per quad, one lane per corner
    transpose(fy[0], fy[1], fy[2], fy[3]);
    alignas(16) uint16_t codes[8];
    storeU16(codes, packDepthPremultiplied(plane.nearest));

    for (int j = 0; j < 4; ++j) {
        if (!(drawn & (1u << j))) continue;
        ExactQuad s;
        int64_t X[4], Y[4];
        for (int k = 0; k < 4; ++k) {
            s.x[k] = gx[k][j];
            s.y[k] = gy[k][j];
            X[k] = s.x[k];
            Y[k] = s.y[k];
        }
        // Pixels whose centres (c + 1/2 on the grid) lie within the corners' range.
        const int64_t half = kSubpixel / 2;
        const int64_t minX = std::min(std::min(X[0], X[1]), std::min(X[2], X[3]));
        const int64_t maxX = std::max(std::max(X[0], X[1]), std::max(X[2], X[3]));
        const int64_t minY = std::min(std::min(Y[0], Y[1]), std::min(Y[2], Y[3]));
        const int64_t maxY = std::max(std::max(Y[0], Y[1]), std::max(Y[2], Y[3]));
        const int64_t c0 = std::max<int64_t>((minX - half + kSubpixel - 1) >> kSubpixelShift, 0);
        const int64_t c1 = std::min<int64_t>((maxX - half) >> kSubpixelShift, int64_t(width) - 1);
        const int64_t r0 = std::max<int64_t>((minY - half + kSubpixel - 1) >> kSubpixelShift, 0);
        const int64_t r1 = std::min<int64_t>((maxY - half) >> kSubpixelShift, int64_t(height) - 1);
        if (c0 > c1 || r0 > r1) continue;
        s.bx0 = int(c0 >> 3);
        s.bx1 = int(c1 >> 3);
        s.by0 = int(r0 >> 3);
        s.by1 = int(r1 >> 3);

        // A quad whose corners all turn clockwise is convex and front-facing:
        // its four edges bound it. Any other is the union of its triangles
        // (c0 c1 c2) and (c0 c2 c3) that face the camera, which share the
        // diagonal c0 c2 with opposite directions.
        bool convex = true;
        for (int k = 0; k < 4; ++k) {
            const int kp = (k + 3) & 3, kn = (k + 1) & 3;
            convex = convex && (Y[k] - Y[kp]) * (X[kn] - X[k]) - (X[k] - X[kp]) * (Y[kn] - Y[k]) > 0;
        }
        const float4 qx = fx[j], qy = fy[j];
        const float4 blocksRight = splat(float(s.bx1 + 1)), blocksUp = splat(float(s.by1 + 1));
        // Part p's edges from corners `from` to `to` (lane 3 of a triangle runs
        // from corner 0 to itself and is made to exclude nothing).
        const auto part = [&](float4 x0, float4 y0, float4 x1, float4 y1, const int(&from)[4], const int(&to)[4],
                              int count) {
            const int p = s.parts++;
            for (int k = 0; k < 4; ++k) {
                s.from[p][k] = from[k];
                s.to[p][k] = to[k];
            }
            s.edgeCount[p] = count;
            // Exact: the corners are integers below 2^21 and the steps powers of two.
            const float4 a = y1 - y0, b = x0 - x1;
            const float4 tie =
                select(cmpGt(a, zero4()) | (cmpEq(a, zero4()) & cmpGt(b, zero4())), splat(1.0f), zero4());
            const float4 half4 = splat(float(half)), seven = splat(float(7 * kSubpixel));
            float4 start = (a * (half4 - x0) + b * (half4 - y0)) + tie;
            s.blockX[p] = a * splat(float(8 * kSubpixel));
            s.blockY[p] = b * splat(float(8 * kSubpixel));
            s.low[p] = min(a * seven, zero4()) + min(b * seven, zero4());
            s.high[p] = max(a * seven, zero4()) + max(b * seven, zero4());
            const float4 size =
                abs(start) + abs(s.blockX[p]) * blocksRight + abs(s.blockY[p]) * blocksUp + (s.high[p] - s.low[p]);
            // A few roundings of terms no larger than these make the estimates.
            s.margin[p] = size * splat(1.0f / 1048576.0f);
            if (count == 3) {
                const int4 pad = makeInt4(0, 0, 0, -1);
                start = select(pad, splat(1e30f), start);
                s.margin[p] = select(pad, zero4(), s.margin[p]);
            }
            s.start[p] = start;
        };
        s.parts = 0;
        if (convex) {
            part(qx, qy, swizzle<1, 2, 3, 0>(qx), swizzle<1, 2, 3, 0>(qy), {0, 1, 2, 3}, {1, 2, 3, 0}, 4);
        } else {
            const int64_t first = (X[1] - X[0]) * (Y[2] - Y[0]) - (Y[1] - Y[0]) * (X[2] - X[0]);
            const int64_t second = (X[2] - X[0]) * (Y[3] - Y[0]) - (Y[2] - Y[0]) * (X[3] - X[0]);
            if (first < 0)
                part(swizzle<0, 1, 2, 0>(qx), swizzle<0, 1, 2, 0>(qy), swizzle<1, 2, 0, 0>(qx), swizzle<1, 2, 0, 0>(qy),
                     {0, 1, 2, 0}, {1, 2, 0, 0}, 3);
            if (second < 0)
                part(swizzle<2, 3, 0, 0>(qx), swizzle<2, 3, 0, 0>(qy), swizzle<3, 0, 2, 0>(qx), swizzle<3, 0, 2, 0>(qy),
                     {2, 3, 0, 0}, {3, 0, 2, 0}, 3);
            if (s.parts == 0) continue; // facing away, or no area
        }
        s.depthOrigin = lane(plane.origin, j);
        s.depthDx = lane(plane.dx, j);
        s.depthDy = lane(plane.dy, j);
        s.depthMax = lane(plane.nearest, j);
        s.code = codes[j];
        drawQuadExact(s);
    }
}

void Rasterizer::drawQuadExact(const ExactQuad& s) {
    const ushort8 code = splatU16(s.code);
    const float4 laneLo = make4(0.5f, 1.5f, 2.5f, 3.5f) * splat(s.depthDx);
    const float4 laneHi = make4(4.5f, 5.5f, 6.5f, 7.5f) * splat(s.depthDx);
    const float4 rowStep = splat(s.depthDy), depthMax = splat(s.depthMax);
    const int4 zero = splatInt(0);
    struct Crossing {
        int4 lo, hi, step; // E at the row's columns 0-3 and 4-7, its change per row
    };
    for (int by = s.by0; by <= s.by1; ++by) {
        float4 rowEstimate[2];
        for (int p = 0; p < s.parts; ++p) rowEstimate[p] = s.start[p] + s.blockY[p] * splat(float(by));
        const size_t rowStart = size_t(by) * blocksX;
        for (int run = s.bx0; run <= s.bx1; run += 8) {
            // Blocks already at least as near as the quad's nearest corner are skipped unseen.
            const ushort8 depths = loaduU16(&blockDepth[rowStart + size_t(run)]);
            unsigned open = ~byteMask(cmpGe(depths, code)) & runMask(unsigned(s.bx1 - run + 1));
            while (open != 0) {
                const int i = __builtin_ctz(open) >> 1;
                open &= ~(3u << (2 * i));
                const int bx = run + i;

                // Per convex part: an edge with the whole block outside drops
                // the part, one with it inside needs no pixel test, and only
                // the edges crossing the block are evaluated per pixel.
                Crossing crossing[8];
                int count[2] = {0, 0}, parts = 0, total = 0;
                bool full = false;
                const float4 fx = splat(float(bx));
                for (int p = 0; p < s.parts && !full; ++p) {
                    const float4 estimate = rowEstimate[p] + s.blockX[p] * fx;
                    if (signMask(cmpLe(estimate + s.high[p], -s.margin[p])) != 0) continue;
                    unsigned unsure = ~signMask(cmpGt(estimate + s.low[p], s.margin[p])) & 0xFu;
                    int n = 0;
                    bool outside = false;
                    while (unsure != 0) {
                        const int k = __builtin_ctz(unsure);
                        unsure &= unsure - 1;
                        const int f = s.from[p][k], t = s.to[p][k];
                        const int64_t a = int64_t(s.y[t]) - s.y[f], b = int64_t(s.x[f]) - s.x[t];
                        const int64_t tie = a > 0 || (a == 0 && b > 0) ? 1 : 0;
                        const int64_t half = kSubpixel / 2;
                        const int64_t v =
                            a * (8 * kSubpixel * bx + half - s.x[f]) + b * (8 * kSubpixel * by + half - s.y[f]) + tie;
                        const int64_t stepX = a * kSubpixel, stepY = b * kSubpixel; // per pixel
                        if (v + 7 * (std::max<int64_t>(stepX, 0) + std::max<int64_t>(stepY, 0)) <= 0) {
                            outside = true;
                            break;
                        }
                        if (v + 7 * (std::min<int64_t>(stepX, 0) + std::min<int64_t>(stepY, 0)) > 0) continue;
                        // The edge crosses the block: its values there fit 32 bits.
                        const int4 first = splatInt(int32_t(v)), columns = splatInt(int32_t(stepX));
                        crossing[total + n++] = {first + columns * makeInt4(0, 1, 2, 3),
                                                 first + columns * makeInt4(4, 5, 6, 7), splatInt(int32_t(stepY))};
                    }
                    if (outside) continue;
                    full = n == 0;
                    count[parts++] = n;
                    total += n;
                }
                if (parts == 0) continue;
                const size_t block = rowStart + size_t(bx);
                ushort8* pixels = &depthBuffer[8 * block];
                const float corner = s.depthOrigin + s.depthDx * float(8 * bx) + s.depthDy * float(8 * by);
                // Writes the block, row r's codes limited to the pixels that cover(r) keeps.
                const auto write = [&](auto cover) {
                    float4 lo = splat(corner) + (laneLo + rowStep * splat(0.5f));
                    float4 hi = splat(corner) + (laneHi + rowStep * splat(0.5f));
                    ushort8 farthest = splatU16(0xFFFF);
                    for (int r = 0; r < 8; ++r) {
                        // Never nearer than the quad's nearest corner; never negative (that packs as nearest).
                        int4 codesLo = shiftRightArithmetic<12>(asInt(max(min(lo, depthMax), zero4())));
                        int4 codesHi = shiftRightArithmetic<12>(asInt(max(min(hi, depthMax), zero4())));
                        cover(codesLo, codesHi);
                        pixels[r] = max(pixels[r], narrowSaturateUnsigned(codesLo, codesHi));
                        farthest = min(farthest, pixels[r]);
                        lo = lo + rowStep;
                        hi = hi + rowStep;
                    }
                    blockDepth[block] = horizontalMin(farthest);
                };
                if (full) {
                    write([](int4&, int4&) {});
                } else if (total == 1) {
                    Crossing c = crossing[0];
                    write([&](int4& codesLo, int4& codesHi) {
                        codesLo = codesLo & cmpGt(c.lo, zero);
                        codesHi = codesHi & cmpGt(c.hi, zero);
                        c.lo += c.step;
                        c.hi += c.step;
                    });
                } else {
                    write([&](int4& codesLo, int4& codesHi) {
                        // Inside every crossing edge of some part.
                        int4 inLo = splatInt(0), inHi = splatInt(0);
                        for (int p = 0, k = 0; p < parts; ++p) {
                            int4 partLo = splatInt(-1), partHi = splatInt(-1);
                            for (const int end = k + count[p]; k < end; ++k) {
                                partLo = partLo & cmpGt(crossing[k].lo, zero);
                                partHi = partHi & cmpGt(crossing[k].hi, zero);
                                crossing[k].lo += crossing[k].step;
                                crossing[k].hi += crossing[k].step;
                            }
                            inLo = inLo | partLo;
                            inHi = inHi | partHi;
                        }
                        codesLo = codesLo & inLo;
                        codesHi = codesHi & inHi;
                    });
                }
            }
        }
    }
}

bool Rasterizer::queryVisibility(float4 boundsMin, float4 boundsMax, bool& needsClipping, float& screenFraction) const {
    return testBox<true>(boundsMin, boundsMax, needsClipping, screenFraction);
}

// The fraction costs a conversion and a division that plain queries, which
// discard it, need not pay.
template <bool withFraction>
bool Rasterizer::testBox(float4 boundsMin, float4 boundsMax, bool& needsClipping, float& screenFraction) const {
    // A box with a non-finite corner gives no reliable answer: visible.
    if (!allTrue(isFinite(boundsMin) & isFinite(boundsMax))) return true;
    const float4 c2 = boundsMin + boundsMax, e = boundsMax - boundsMin;
    const float4 c2x = splatLane<0>(c2), c2y = splatLane<1>(c2), c2z = splatLane<2>(c2);
    const float4 magnitude = abs(e); // an inverted box keeps its extents' size
    const float4 ex = splatLane<0>(magnitude), ey = splatLane<1>(magnitude), ez = splatLane<2>(magnitude);
    if (outsideAnyPlane(planeLanes[0], planeSigns[0], c2x, c2y, c2z, ex, ey, ez)) return false;
    if (outsideAnyPlane(planeLanes[1], planeSigns[1], c2x, c2y, c2z, ex, ey, ez)) return false;

    // The eight corners: x alternates fastest, then y; z is the second vector.
    const float4 xs = make4(lane<0>(boundsMin), lane<0>(boundsMax), lane<0>(boundsMin), lane<0>(boundsMax));
    const float4 ys = make4(lane<1>(boundsMin), lane<1>(boundsMin), lane<1>(boundsMax), lane<1>(boundsMax));
    const float4 zNear = splatLane<2>(boundsMin), zFar = splatLane<2>(boundsMax);
    float4 p[4][2];
    for (int c = 0; c < 4; ++c) {
        const float4 xy = xs * screenSplat[c][0] + ys * screenSplat[c][1];
        p[c][0] = (xy + zNear * screenSplat[c][2]) + screenSplat[c][3];
        p[c][1] = (xy + zFar * screenSplat[c][2]) + screenSplat[c][3];
    }
    // Near guard, relative to the box's size; written so that NaN counts as near.
    const float4 limit = splat(0.001f * std::max(std::max(lane<0>(e), lane<1>(e)), lane<2>(e)));
    if (anyTrue(~(cmpGe(p[3][0], limit) & cmpGe(p[3][1], limit)))) {
        needsClipping = true;
        // The documented guard calls such a box visible; conservative builds
        // test the part of it that is in front of the near plane on screen.
        return ZELK_CONSERVATIVE ? testClippedBox(boundsMin, boundsMax) : true;
    }
    needsClipping = false;
    if (width == 0 || height == 0) return true; // no buffer: nothing can hide the box

    const float4 r0 = rcp(p[3][0]), r1 = rcp(p[3][1]);
    const float4 x0 = p[0][0] * r0, x1 = p[0][1] * r1, y0 = p[1][0] * r0, y1 = p[1][1] * r1;
    // A corner that is not a number leaves nothing reliable: visible. Past
    // this check the extremes need no NaN handling.
    if (!allTrue(isFinite(x0) & isFinite(x1) & isFinite(y0) & isFinite(y1))) return true;
    // Lane-wise extremes of (x, y, x, y), then one transpose gathers
    // (min x, min y, max x, max y) across the four lanes.
    float4 a = minNumber(x0, x1), b = minNumber(y0, y1), c = maxNumber(x0, x1), d = maxNumber(y0, y1);
    transpose(a, b, c, d);
    const float4 lows = minNumber(minNumber(a, b), minNumber(c, d));
    const float4 highs = maxNumber(maxNumber(a, b), maxNumber(c, d));
    const float4 rect = select(makeInt4(-1, -1, 0, 0), lows, highs);
    const float4 limits = make4(float(width - 1), float(height - 1), float(width - 1), float(height - 1));
    const int4 bounds = roundToInt(maxNumber(minNumber(rect, limits), zero4()));
    const int minX = lane<0>(bounds), minY = lane<1>(bounds), maxX = lane<2>(bounds), maxY = lane<3>(bounds);
    if (minX > maxX || minY > maxY) return false;
    if (withFraction) screenFraction = float(unsigned(maxX - minX) * unsigned(maxY - minY)) / float(width * height);
    uint16_t depth = horizontalMax(packDepthPremultiplied(p[2][0] * r0, p[2][1] * r1));
    // Codes truncate, so a face lying on an occluder can share its code: two
    // steps nearer than its nearest corner, a box hides only behind a surface
    // that is really in front of it.
    if (!ZELK_CONSERVATIVE) return query2D(unsigned(minX), unsigned(maxX), unsigned(minY), unsigned(maxY), depth);
    depth = uint16_t(std::min(unsigned(depth) + 2u, 65535u));
    // Conservative builds ask again, block by block, of a box the nearest
    // corner leaves visible, with how near its faces can be in each block.
    // Not of a group's box before drawing it: on the city that cost more than
    // the quads it saved.
    return query2D(unsigned(minX), unsigned(maxX), unsigned(minY), unsigned(maxY), depth) &&
           (withFraction ||
            testFaces(boundsMin, boundsMax, unsigned(minX), unsigned(maxX), unsigned(minY), unsigned(maxY), depth));
}

void Rasterizer::screenMatrix(double (&screen)[4][4]) const {
    for (int c = 0; c < 4; ++c)
        for (int k = 0; k < 4; ++k) screen[c][k] = double(lane<0>(screenSplat[c][k]));
}

namespace {

// The code of a premultiplied depth, never that of a farther one: the depth
// rounded up to a float, then two codes nearer, as for a box's nearest corner.
uint16_t boxCode(double nearest) {
    float d = float(nearest);
    if (double(d) < nearest) d = std::nextafter(d, INFINITY);
    int32_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    // As packDepthPremultiplied: a negative depth (beyond the far plane) packs to the nearest code.
    const uint32_t code = bits < 0 ? 65535u : std::min(uint32_t(bits) >> 12, 65535u);
    return uint16_t(std::min(code + 2u, 65535u));
}

} // namespace

bool Rasterizer::testFaces(float4 boundsMin, float4 boundsMax, unsigned minX, unsigned maxX, unsigned minY,
                           unsigned maxY, uint16_t depth) const {
    if (blocksX == 0 || blocksY == 0) return true;
    double screen[4][4];
    screenMatrix(screen);
    alignas(16) float lo[4], hi[4];
    store4(lo, boundsMin);
    store4(hi, boundsMax);
    const BoxDepthBound bound(screen, lo, hi);
    maxX = std::min(maxX, width - 1);
    maxY = std::min(maxY, height - 1);
    for (unsigned by = minY >> 3; by <= maxY >> 3; ++by)
        for (unsigned bx = minX >> 3; bx <= maxX >> 3; ++bx) {
            const size_t block = size_t(by) * blocksX + bx;
            if (blockDepth[block] >= depth) continue; // hidden even behind the nearest corner
            const int xs = std::max(int(minX) - int(8 * bx), 0), xe = std::min(int(maxX) - int(8 * bx), 7);
            const int ys = std::max(int(minY) - int(8 * by), 0), ye = std::min(int(maxY) - int(8 * by), 7);
            const double nearest =
                bound.nearestIn(8.0 * bx + xs + 0.5, 8.0 * bx + xe + 0.5, 8.0 * by + ys + 0.5, 8.0 * by + ye + 0.5);
            const uint16_t q = nearest < INFINITY ? std::min(depth, boxCode(nearest)) : depth;
            if (blockDepth[block] >= q) continue;
            if (xs == 0 && xe == 7 && ys == 0 && ye == 7) return true;
            const unsigned selected = (0xFFFFu >> (2 * (7 - xe))) & (0xFFFFu << (2 * xs)) & 0xFFFFu;
            const ushort8 code = splatU16(q);
            const ushort8* rows = &depthBuffer[8 * block];
            for (int r = ys; r <= ye; ++r)
                if ((selected & ~byteMask(cmpGe(rows[r], code))) != 0) return true;
        }
    return false;
}

bool Rasterizer::testClippedBox(float4 boundsMin, float4 boundsMax) const {
    if (width == 0 || height == 0) return true; // no buffer: nothing can hide the box
    double screen[4][4];
    screenMatrix(screen);
    alignas(16) float lo[4], hi[4];
    store4(lo, boundsMin);
    store4(hi, boundsMax);
    const ClippedBox part = ClippedBox::clip(screen, width, height, 2.0 * double(depthScale()), lo, hi);
    if (part.kind != ClippedBox::kInside) return part.kind == ClippedBox::kReachesNear;
    const auto pixel = [](double v, unsigned size) {
        return int(std::nearbyint(std::min(std::max(v, 0.0), double(size - 1)))); // ties to even, as the vector path
    };
    const int minX = pixel(part.minX, width), maxX = pixel(part.maxX, width);
    const int minY = pixel(part.minY, height), maxY = pixel(part.maxY, height);
    if (minX > maxX || minY > maxY) return false;
    const uint16_t depth = boxCode(part.nearest);
    return query2D(unsigned(minX), unsigned(maxX), unsigned(minY), unsigned(maxY), depth) &&
           testFaces(boundsMin, boundsMax, unsigned(minX), unsigned(maxX), unsigned(minY), unsigned(maxY), depth);
}

bool Rasterizer::query2D(unsigned minX, unsigned maxX, unsigned minY, unsigned maxY, unsigned short depth) const {
    if (blocksX == 0 || blocksY == 0 || minX > maxX || minY > maxY) return true;
    maxX = std::min(maxX, width - 1);
    maxY = std::min(maxY, height - 1);
    const unsigned bx0 = minX >> 3, bx1 = maxX >> 3, by0 = minY >> 3, by1 = maxY >> 3;
    const ushort8 q = splatU16(depth);

    // The described coarse pass (is any block not nearer than the box?) is
    // implied by this one, which only ever looks inside blocks strictly
    // farther than the box: when none is, it reads no pixel and answers
    // hidden, as the coarse pass would. One pass gives the same answers.
    for (unsigned by = by0; by <= by1; ++by)
        for (unsigned run = bx0; run <= bx1; run += 8) {
            const size_t rowStart = size_t(by) * blocksX;
            unsigned open = ~byteMask(cmpGe(loaduU16(&blockDepth[rowStart + run]), q)) & runMask(bx1 - run + 1);
            while (open != 0) {
                const unsigned i = unsigned(__builtin_ctz(open)) >> 1;
                open &= ~(3u << (2 * i));
                const unsigned bx = run + i;
                const int xs = std::max(int(minX) - int(8 * bx), 0), xe = std::min(int(maxX) - int(8 * bx), 7);
                const int ys = std::max(int(minY) - int(8 * by), 0), ye = std::min(int(maxY) - int(8 * by), 7);
                if (xs == 0 && xe == 7 && ys == 0 && ye == 7) return true;
                // The default build reads lanes 8 - xe through 7 - xs: the
                // columns mirrored about the block's centre, xe exclusive, kept
                // so that its answers stay those of the system it replaces. The
                // conservative build reads the box's own columns, xs to xe.
                const unsigned selected = ZELK_CONSERVATIVE
                                              ? (0xFFFFu >> (2 * (7 - xe))) & (0xFFFFu << (2 * xs)) & 0xFFFFu
                                              : (0xFFFFu >> (2 * xs)) & (0xFFFFu << (2 * (8 - xe))) & 0xFFFFu;
                const ushort8* rows = &depthBuffer[8 * (rowStart + bx)];
                for (int r = ys; r <= ye; ++r)
                    if ((selected & ~byteMask(cmpGe(rows[r], q))) != 0) return true;
            }
        }
    return false;
}

bool Rasterizer::query(const float* boundsMin, const float* boundsMax) const {
    bool needsClipping = false;
    float screenFraction = 0.0f;
    const float4 one = make4(0.0f, 0.0f, 0.0f, 1.0f);
    const int4 xyz = makeInt4(-1, -1, -1, 0);
    return testBox<false>(select(xyz, load3(boundsMin), one), select(xyz, load3(boundsMax), one), needsClipping,
                          screenFraction);
}

} // namespace util
