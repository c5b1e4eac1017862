#include "util/Rasterizer.h"

#include "support/RapidReference.h"
#include "util/RapidRasterizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

using common::float4;
using common::make4;
using testing_support::ExactDepthBuffer;
using testing_support::ScreenVertex;
using util::Rasterizer;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Clip w = local z, near plane at z = 1, far at z = 100 (column-major).
const float kPerspective[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 101.0f / 99.0f, 1, 0, 0, -200.0f / 99.0f, 0};

// A quad given on screen: corner k at pixel (x, y) and view depth z.
struct ScreenQuad {
    double x[4], y[4], z[4];
};

// Local point that the perspective above maps onto pixel (x, y) at depth z.
float4 unproject(double x, double y, double z, int width, int height) {
    return make4(float((2 * x / width - 1) * z), float((2 * y / height - 1) * z), float(z), 1.0f);
}

struct Baked {
    std::shared_ptr<common::Occluder> occluder;
    std::vector<std::array<ScreenVertex, 4>> quads; // the baked (dequantised) corners, projected exactly
};

Baked bake(const std::vector<ScreenQuad>& quads, int width, int height) {
    std::vector<float4> vertices;
    for (const ScreenQuad& q : quads)
        for (int k = 0; k < 4; ++k) vertices.push_back(unproject(q.x[k], q.y[k], q.z[k], width, height));
    float4 lo = common::splat(kInf), hi = common::splat(-kInf);
    for (const float4& v : vertices) {
        lo = common::min(lo, v);
        hi = common::max(hi, v);
    }
    Baked b;
    b.occluder = common::Occluder::bake(vertices, lo, hi);
    // Dequantise every lane back to local space and project it in double.
    const float* refMin = reinterpret_cast<const float*>(&b.occluder->refMin);
    const float* refMax = reinterpret_cast<const float*>(&b.occluder->refMax);
    const auto& packed = b.occluder->packedVertices;
    for (size_t batch = 0; batch < packed.size() / 4; ++batch)
        for (int j = 0; j < 4; ++j) {
            std::array<ScreenVertex, 4> q;
            for (int k = 0; k < 4; ++k) {
                const uint32_t w = uint32_t(common::lane(packed[4 * batch + size_t(k)], j));
                const double field[3] = {double(w >> 21), double((w >> 10) & 2047), double(w & 1023)};
                const double steps[3] = {2047, 2047, 1023};
                double p[3];
                for (int c = 0; c < 3; ++c) p[c] = refMin[c] + field[c] * (double(refMax[c]) - refMin[c]) / steps[c];
                const auto clip = testing_support::transformPoint(kPerspective, p[0], p[1], p[2]);
                q[size_t(k)] = {(clip[0] / clip[3] + 1) * width / 2, (clip[1] / clip[3] + 1) * height / 2,
                                (clip[3] - clip[2]) / clip[3] * testing_support::rapidDepthScale()};
            }
            b.quads.push_back(q);
        }
    return b;
}

// How far (px, py) lies outside the farthest of the lines through the
// triangle's edges, in pixels (0 inside). The coverage table rounds each edge
// on its own, so its error is bounded per line, not per distance to the
// triangle (near a sharp corner the two are far apart).
double lineSlack(const ScreenVertex& a, const ScreenVertex& b, const ScreenVertex& c, double px, double py) {
    const double area = (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
    if (!(std::fabs(area) > 0)) return std::numeric_limits<double>::infinity();
    const ScreenVertex v[3] = {a, b, c};
    double slack = 0.0;
    for (int e = 0; e < 3; ++e) {
        const ScreenVertex &p = v[e], &n = v[(e + 1) % 3];
        const double inside = ((n.x - p.x) * (py - p.y) - (n.y - p.y) * (px - p.x)) * (area > 0 ? 1 : -1) /
                              std::hypot(n.x - p.x, n.y - p.y);
        slack = std::max(slack, -inside);
    }
    return slack;
}

// A clockwise quad (on screen, y up) around (cx, cy); sometimes not convex.
// Planar ones lie on a random plane of view space; the others take a random
// depth per corner.
ScreenQuad randomQuad(std::mt19937& rng, double cx, double cy, double size, bool concave, bool planar, int width,
                      int height) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    for (;;) {
        ScreenQuad q;
        const double start = unit(rng) * 6.283;
        // Plane n . p = 1 through view space, n scaled so that the centre lies at depth 2 to 42.
        const double nx = unit(rng) - 0.5, ny = unit(rng) - 0.5, nz = 1.0;
        const double centreZ = 2.0 + 40.0 * unit(rng);
        const double cxNdc = 2 * cx / width - 1, cyNdc = 2 * cy / height - 1;
        const double scale = 1.0 / (centreZ * (nx * cxNdc + ny * cyNdc + nz));
        bool ok = true;
        for (int k = 0; k < 4; ++k) {
            const double angle = start - k * 1.5708 + (unit(rng) - 0.5) * 1.2; // decreasing: clockwise
            const double radius = size * (concave && k == 2 ? 0.1 + 0.2 * unit(rng) : 0.4 + 0.6 * unit(rng));
            q.x[k] = cx + radius * std::cos(angle);
            q.y[k] = cy + radius * std::sin(angle);
            const double ndcX = 2 * q.x[k] / width - 1, ndcY = 2 * q.y[k] / height - 1;
            q.z[k] = planar ? 1.0 / (scale * (nx * ndcX + ny * ndcY + nz)) : 2.0 + 40.0 * unit(rng);
            ok = ok && q.z[k] > 1.5 && q.z[k] < 90.0;
        }
        if (ok) return q;
    }
}

} // namespace

TEST(Rasterizer, DepthCodesAndQuantisers) {
    const float s = testing_support::rapidDepthScale();
    EXPECT_FLOAT_EQ(1.2618693e-29f, s);
    // Far plane (z/w = 1): D = 0. Near plane: D = 2s, bits 0x0FFFF000, code 0xFFFF.
    // Nearer than the near plane, and negative depths, saturate to 65535.
    const common::ushort8 codes =
        Rasterizer::packDepthPremultiplied(make4(0.0f, 2 * s, s, 2.0001f * s), make4(-s, -0.0f, kInf, 1.0f));
    alignas(16) uint16_t c[8];
    common::storeU16(c, codes);
    const uint16_t expected[8] = {0, 0xFFFF, 0xF7FF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(expected[i], c[i]) << i;
    common::storeU16(c, Rasterizer::packDepthPremultiplied(make4(s, 0, 2 * s, s * 0.5f)));
    EXPECT_EQ(0xF7FF, c[4]);         // the four codes repeat in the upper half
    EXPECT_EQ(0xF7FF - 0x800, c[7]); // half the depth: one exponent step (2^11 codes) less

    // decompressFloat inverts the packing to about (1 - z/w) / 2, within the 11
    // kept mantissa bits.
    EXPECT_EQ(0.0f, Rasterizer::decompressFloat(0));
    for (float ndc : {-1.0f, -0.5f, 0.0f, 0.3f, 0.9f, 0.999f}) {
        const float d = (1.0f - ndc) * s;
        common::storeU16(c, Rasterizer::packDepthPremultiplied(common::splat(d)));
        EXPECT_NEAR((1.0f - ndc) / 2, Rasterizer::decompressFloat(c[0]), (1.0f - ndc) / 2 * 1.0e-3f) << ndc;
    }

    EXPECT_EQ(0, Rasterizer::quantizeOffsetLookup(-1.0f));
    EXPECT_EQ(63, Rasterizer::quantizeOffsetLookup(1.0f));
    EXPECT_EQ(32, Rasterizer::quantizeOffsetLookup(0.0f));
    EXPECT_EQ(31, Rasterizer::quantizeOffsetLookup(-0.01f)); // trunc(31.3)
    EXPECT_EQ(0, Rasterizer::quantizeOffsetLookup(kNaN));    // trunc(NaN) saturates to 0, then clamps
    const common::int4 rows = Rasterizer::quantizeSlopeLookup(make4(1, -1, 0, 0.5f), make4(0, -0.0f, -1, 0.5f));
    EXPECT_EQ(3968, common::lane<0>(rows));    // 31 << 7
    EXPECT_EQ(0, common::lane<1>(rows));       // b = -0 is not negative
    EXPECT_EQ(2112, common::lane<2>(rows));    // 16 << 7 | 64
    EXPECT_EQ(23 << 7, common::lane<3>(rows)); // trunc(16 + 7.75)

    float4 a = make4(3, -1, 0.5f, 0), b = make4(-1, 3, -0.5f, 2), inv;
    Rasterizer::normalizeEdge(a, b, inv);
    const float ea[4] = {0.75f, -0.25f, 0.5f, 0.0f}, eb[4] = {-0.25f, 0.75f, -0.5f, 1.0f};
    for (int i = 0; i < 4; ++i) { // one Newton step on NEON's 8-bit estimate: about 16 bits
        EXPECT_NEAR(ea[i], common::lane(a, i), 1e-4f);
        EXPECT_NEAR(eb[i], common::lane(b, i), 1e-4f);
    }
    EXPECT_NEAR(0.25f, common::lane<0>(inv), 1e-4f);
}

TEST(Rasterizer, StoredTablesEqualTheirConstructions) {
    std::vector<uint64_t> built(4096, 0);
    Rasterizer::precomputeRasterizationTableInto(built);
    EXPECT_EQ(built, std::vector<uint64_t>(Rasterizer::storedRasterizationTable(),
                                           Rasterizer::storedRasterizationTable() + 4096));
    // Spot values derived by hand: an edge with a = 1 (slope row 31, b = 0)
    // and offset column 32 (o ~ 0) covers the pixels with x <= 0, columns 0-3.
    EXPECT_EQ(0x00000000FFFFFFFFull, built[31 * 128 + 32]);
    // a = 0, b = 1 (row 16): rows below the centre, bits 0-3 of each byte... row r is bit 7 - r.
    EXPECT_EQ(0xF0F0F0F0F0F0F0F0ull, built[16 * 128 + 32] & 0xF0F0F0F0F0F0F0F0ull);
    EXPECT_EQ(0ull, built[31 * 128 + 63]); // wholly outside
    EXPECT_EQ(~0ull, built[31 * 128 + 0]); // wholly inside

    // The conservative table: the stored copy equals its construction, with
    // the same spot entries (for a = 1 the bucket's edges reach at most
    // 1/70 + 0.033 * 0.4375 = 0.029 block units right of x = 0, short of the
    // centres of column 4 at 0.0625), and every pixel it marks lies inside
    // the actual edge that looks it up, for random edges at random offsets.
    std::vector<uint64_t> conservative(4096, 0);
    Rasterizer::precomputeConservativeTableInto(conservative);
    EXPECT_EQ(conservative, std::vector<uint64_t>(Rasterizer::storedConservativeTable(),
                                                  Rasterizer::storedConservativeTable() + 4096));
    EXPECT_EQ(0x00000000FFFFFFFFull, conservative[31 * 128 + 32]);
    EXPECT_EQ(0ull, conservative[31 * 128 + 63]);
    EXPECT_EQ(~0ull, conservative[31 * 128 + 0]);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> angle(0.0f, 6.2832f), offset(-0.6f, 0.6f);
    long marked = 0;
    for (int i = 0; i < 100000; ++i) {
        const float t = angle(rng), o = offset(rng);
        float4 a = common::splat(std::cos(t)), b = common::splat(std::sin(t)), inv;
        Rasterizer::normalizeEdge(a, b, inv);
        const float na = common::lane<0>(a), nb = common::lane<0>(b), no = o * common::lane<0>(inv);
        const int index = common::lane<0>(Rasterizer::quantizeSlopeLookup(a, b)) + Rasterizer::quantizeOffsetLookup(no);
        const uint64_t mask = conservative[size_t(index)];
        for (int bit = 0; bit < 64; ++bit) {
            if (!((mask >> bit) & 1u)) continue;
            ++marked;
            const int c = bit / 8, row = 7 - bit % 8;
            ASSERT_LE(double(no) + double(na) * (-0.4375 + 0.125 * c) + double(nb) * (-0.4375 + 0.125 * row), 0.0)
                << t << " " << o << " bit " << bit;
        }
    }
    EXPECT_GT(marked, 100000L * 16);

    // A rasteriser holds the table of its build; rebuilding ORs the samples in.
    Rasterizer r;
    EXPECT_EQ(ZELK_EXACT_COVERAGE ? conservative : built, r.getRasterizationTable());
    std::vector<uint64_t> merged = r.getRasterizationTable();
    for (size_t i = 0; i < merged.size(); ++i) merged[i] |= built[i];
    r.precomputeRasterizationTable();
    EXPECT_EQ(merged, r.getRasterizationTable());
}

TEST(Rasterizer, ResolutionKeepsSurvivingEntriesAndClearZeroes) {
    Rasterizer r;
    r.setResolution(0, 0);
    EXPECT_EQ(0u, r.depthBufferSize());
    EXPECT_EQ(8u, r.blockDepthSize());
    r.setResolution(16, 16);
    EXPECT_EQ(32u, r.depthBufferSize());
    r.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
    const Baked wall = bake({{{0, 0, 16, 16}, {0, 16, 16, 0}, {5, 5, 5, 5}}}, 16, 16); // whole screen, clockwise
    r.rasterize<false>(*wall.occluder);
    const uint16_t drawn = r.pixelDepth(3, 3);
    EXPECT_GT(drawn, 0);
    EXPECT_EQ(drawn, r.getBlockDepth(1, 1));
    r.setResolution(8, 16); // fewer entries: the first 16 vectors and 2 + 8 block entries survive
    EXPECT_EQ(drawn, r.pixelDepth(3, 3));
    r.setResolution(16, 24);
    EXPECT_EQ(drawn, r.pixelDepth(3, 3));
    EXPECT_EQ(0, r.pixelDepth(15, 23)); // newly added
    r.clear();
    EXPECT_EQ(0, r.pixelDepth(3, 3));
    EXPECT_EQ(0, r.getBlockDepth(0, 0));
}

TEST(Rasterizer, RandomQuadsStayWithinExactCoverageAndDepth) {
    // Quads of every shape and slant against exact pixel-centre coverage of
    // their two triangles (c0 c1 c2) and (c2 c3 c0), in double precision, at
    // the baked (dequantised) corners. The documented coverage table may
    // reach past the exact edge by its bucket rounding: measured here and
    // bounded. The conservative table of exact-coverage builds never does;
    // what it leaves out near edges is measured.
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const int width = 96, height = 64;
    double farthestOvercover = 0.0;
    size_t deepInside = 0, deepInsideDrawn = 0, overcovered = 0, covered = 0, exactlyCovered = 0, dropped = 0;
    for (int trial = 0; trial < 300; ++trial) {
        Rasterizer r;
        r.setResolution(width, height);
        r.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
        std::vector<ScreenQuad> quads;
        const int count = 1 + int(unit(rng) * 9);
        const bool planar = trial % 4 != 3;
        for (int i = 0; i < count; ++i) {
            const double size = trial % 3 == 0 ? 2 + 6 * unit(rng) : 8 + 40 * unit(rng);
            quads.push_back(randomQuad(rng, -10 + unit(rng) * (width + 20), -10 + unit(rng) * (height + 20), size,
                                       unit(rng) < 0.3, planar, width, height));
        }
        const Baked baked = bake(quads, width, height);
        r.rasterize<false>(*baked.occluder);
        ExactDepthBuffer exact(width, height), inner(width, height); // inner: centres 1 px inside
        for (const auto& q : baked.quads) {
            exact.drawTriangle(q[0], q[1], q[2]);
            exact.drawTriangle(q[2], q[3], q[0]);
            inner.drawTriangle(q[0], q[1], q[2], -1.0);
            inner.drawTriangle(q[2], q[3], q[0], -1.0);
        }
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const uint16_t got = r.pixelDepth(unsigned(x), unsigned(y));
                if (got != 0) ++covered;
                exactlyCovered += exact.covered(x, y);
                dropped += exact.covered(x, y) && got == 0;
                // Near a quad's edge the table may cover a pixel that the quad does
                // not; there the quad's nearest corner bounds the code.
                double nearest = std::numeric_limits<double>::infinity();
                uint16_t allowed = exact.code(x, y);
                for (const auto& q : baked.quads) {
                    const double d = std::min(lineSlack(q[0], q[1], q[2], x + 0.5, y + 0.5),
                                              lineSlack(q[2], q[3], q[0], x + 0.5, y + 0.5));
                    if (d > 0.75 || d == 0.0 || ZELK_EXACT_COVERAGE) continue; // inside: the exact depth holds
                    nearest = std::min(nearest, d);
                    const double dmax = std::max({q[0].d, q[1].d, q[2].d, q[3].d});
                    allowed = std::max(allowed, testing_support::rapidCode(float(dmax)));
                }
                ASSERT_LE(got, allowed + 1) << trial << " " << x << "," << y;
                if (got > exact.code(x, y) + 1) {
                    ++overcovered;
                    farthestOvercover = std::max(farthestOvercover, nearest);
                }
                // A pixel 1 px inside a planar quad is drawn, at most 64 codes (3% of
                // the depth) farther than that quad: the baked corners are no longer
                // coplanar after quantisation, and the plane is lowered to the lowest
                // of them. (Compared with the quad itself, not the exact buffer: a
                // nearer quad's edge may pass close by.)
                if (inner.covered(x, y) && planar) {
                    ++deepInside;
                    if (got + 64 >= inner.code(x, y)) ++deepInsideDrawn;
                }
            }
    }
    std::printf("rapid coverage (%s table): %zu pixels drawn, %zu beyond exact coverage, farthest %.3f px outside "
                "an edge line; %zu of %zu exactly covered pixels left undrawn; %zu of %zu pixels 1 px inside drawn "
                "within 64 codes\n",
                ZELK_EXACT_COVERAGE ? "conservative" : "documented", covered, overcovered, farthestOvercover, dropped,
                exactlyCovered, deepInsideDrawn, deepInside);
    EXPECT_LT(farthestOvercover, 0.75);
    if (ZELK_EXACT_COVERAGE) {
        EXPECT_EQ(0u, overcovered);
    }
    EXPECT_GT(deepInside, 50000u);
    EXPECT_GE(double(deepInsideDrawn), 0.995 * double(deepInside));
}

TEST(Rasterizer, BlockUpdatesOnlyEverMoveNearer) {
    const int width = 64, height = 32;
    Rasterizer r;
    r.setResolution(width, height);
    r.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
    r.rasterize<false>(common::Occluder()); // nothing packed: nothing drawn
    EXPECT_EQ(0, r.getBlockDepth(0, 0));
    // A wall tilted in depth over the left half (depth 4 at x = 0 to 8 at x = 32)
    // and a back-facing (counter-clockwise) quad on the right half.
    const Baked tilted = bake({{{0, 0, 32, 32}, {0, 32, 32, 0}, {4, 4, 8, 8}}}, width, height);
    const Baked back = bake({{{32, 64, 64, 32}, {0, 0, 32, 32}, {3, 3, 3, 3}}}, width, height);
    r.rasterize<false>(*tilted.occluder);
    r.rasterize<false>(*back.occluder);
    for (unsigned by = 0; by < 4; ++by)
        for (unsigned bx = 0; bx < 8; ++bx) {
            uint16_t farthest = 0xFFFF;
            for (unsigned y = 0; y < 8; ++y)
                for (unsigned x = 0; x < 8; ++x) farthest = std::min(farthest, r.pixelDepth(8 * bx + x, 8 * by + y));
            EXPECT_EQ(farthest, r.getBlockDepth(bx, by)) << bx << "," << by; // the exact minimum
            EXPECT_EQ(bx >= 4, farthest == 0) << bx;                         // back faces (right half) are not drawn
        }
    // Depth falls off to the right: larger codes (nearer) on the left.
    EXPECT_GT(r.pixelDepth(1, 5), r.pixelDepth(30, 5));
    std::vector<uint16_t> before;
    for (unsigned y = 0; y < 32; ++y)
        for (unsigned x = 0; x < 64; ++x) before.push_back(r.pixelDepth(x, y));
    const auto unchanged = [&]() {
        size_t i = 0;
        for (unsigned y = 0; y < 32; ++y)
            for (unsigned x = 0; x < 64; ++x)
                if (before[i++] != r.pixelDepth(x, y)) return false;
        return true;
    };
    r.rasterize<false>(*tilted.occluder); // drawing again is idempotent
    EXPECT_TRUE(unchanged());
    const Baked behind = bake({{{0, 0, 32, 32}, {0, 32, 32, 0}, {20, 20, 20, 20}}}, width, height);
    r.rasterize<true>(*behind.occluder); // farther everywhere: nothing changes
    EXPECT_TRUE(unchanged());
    // A nearer small quad raises only the pixels it covers.
    const Baked nearer = bake({{{8, 8, 16, 16}, {8, 16, 16, 8}, {2, 2, 2, 2}}}, width, height);
    r.rasterize<false>(*nearer.occluder);
    EXPECT_GT(r.pixelDepth(12, 12), before[12 * 64 + 12]);
    EXPECT_EQ(before[20 * 64 + 20], r.pixelDepth(20, 20));
    EXPECT_EQ(r.pixelDepth(12, 12), r.getBlockDepth(1, 1)); // block (1, 1) wholly covered at depth 2
}

TEST(Rasterizer, FlatWallDrawsExactlyWhereItIs) {
    // An axis-aligned wall: refMax.z == refMin.z, the commonest occluder.
    // Pixel centres inside [10, 50] x [6, 22] are covered at the wall's depth.
    const int width = 64, height = 32;
    Rasterizer r;
    r.setResolution(width, height);
    r.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
    const Baked wall = bake({{{10, 10, 50, 50}, {6, 22, 22, 6}, {7, 7, 7, 7}}}, width, height);
    ASSERT_EQ(0.0f, common::lane<2>(wall.occluder->refMax) - common::lane<2>(wall.occluder->refMin));
    r.rasterize<false>(*wall.occluder);
    const uint16_t expected =
        testing_support::rapidCode((1.0f - (101.0f / 99 - 200.0f / 99 / 7)) * testing_support::rapidDepthScale());
    for (unsigned y = 0; y < 32; ++y)
        for (unsigned x = 0; x < 64; ++x) {
            const bool inside = x >= 10 && x < 50 && y >= 6 && y < 22;
            const uint16_t got = r.pixelDepth(x, y);
            if (inside)
                EXPECT_NEAR(expected, got, 1) << x << "," << y;
            else
                EXPECT_EQ(0, got) << x << "," << y;
        }
}

TEST(Rasterizer, QuadsCrossingTheNearPlaneAreClipped) {
    // Quads reaching from depth 0.2 (in front of the near plane at 1) or from
    // behind the eye to depth 30, against the exact clipped triangles.
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const int width = 64, height = 48;
    size_t drawnPixels = 0, strictPixels = 0;
    for (int trial = 0; trial < 200; ++trial) {
        std::vector<float4> vertices;
        for (int q = 0; q < 3; ++q) {
            // Every fourth strip starts just below the eye so that its clipped-off
            // part would land on screen.
            const bool low = trial % 4 == 2;
            const double x0 = low ? -0.3 * unit(rng) : -8 + 16 * unit(rng);
            const double y0 = low ? -0.02 - 0.1 * unit(rng) : -8 + 7.5 * unit(rng);
            const double z0 = trial % 2 ? -5.0 : q == 0 ? 0.6 : 0.2; // behind the eye or in front of the near plane
            const double x1 = x0 + 4 * unit(rng), y1 = y0 + 4 * unit(rng), z1 = 5 + 25 * unit(rng);
            // A strip rising from below the eye (z0) to far away (z1): clockwise on screen.
            vertices.insert(vertices.end(),
                            {make4(float(x0), float(y0), float(z0), 1), make4(float(x0), float(y1), float(z1), 1),
                             make4(float(x1), float(y1), float(z1), 1), make4(float(x1), float(y0), float(z0), 1)});
        }
        float4 lo = common::splat(kInf), hi = common::splat(-kInf);
        for (const float4& v : vertices) {
            lo = common::min(lo, v);
            hi = common::max(hi, v);
        }
        const auto occluder = common::Occluder::bake(vertices, lo, hi);
        Rasterizer r;
        r.setResolution(width, height);
        r.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
        (trial % 3 ? r.rasterize<true>(*occluder) : r.rasterize<false>(*occluder));
        // The exact picture of the same (dequantised) quads, both windings, dilated
        // by the table's rounding.
        ExactDepthBuffer exact(width, height), strict(width, height);
        const float* refMin = reinterpret_cast<const float*>(&occluder->refMin);
        const float* refMax = reinterpret_cast<const float*>(&occluder->refMax);
        for (size_t b = 0; b < occluder->packedVertices.size() / 4; ++b)
            for (int j = 0; j < 4; ++j) {
                std::array<double, 4> c[4];
                for (int k = 0; k < 4; ++k) {
                    const uint32_t w = uint32_t(common::lane(occluder->packedVertices[4 * b + size_t(k)], j));
                    const double p[3] = {refMin[0] + (w >> 21) * (double(refMax[0]) - refMin[0]) / 2047,
                                         refMin[1] + ((w >> 10) & 2047) * (double(refMax[1]) - refMin[1]) / 2047,
                                         refMin[2] + (w & 1023) * (double(refMax[2]) - refMin[2]) / 1023};
                    c[k] = testing_support::transformPoint(kPerspective, p[0], p[1], p[2]);
                }
                exact.drawClipTriangle(c[0], c[1], c[2], 0.75);
                exact.drawClipTriangle(c[2], c[3], c[0], 0.75);
                strict.drawClipTriangle(c[0], c[1], c[2]);
                strict.drawClipTriangle(c[2], c[3], c[0]);
            }
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const uint16_t got = r.pixelDepth(unsigned(x), unsigned(y));
                strictPixels += strict.covered(x, y);
                drawnPixels += strict.covered(x, y) && got + 64 >= strict.code(x, y);
                // Never nearer than the visible part (the near plane itself packs to 65535).
                ASSERT_LE(got, exact.code(x, y) + 1) << trial << " " << x << "," << y;
            }
    }
    // Clipped quads are drawn, not dropped: nearly every exactly covered pixel
    // is drawn within 3% of its depth (the conservative table of exact builds
    // leaves pixels within about half a pixel of each edge undrawn: 92.5% here).
    EXPECT_GT(strictPixels, 30000u);
    EXPECT_GE(double(drawnPixels), (ZELK_EXACT_COVERAGE ? 0.91 : 0.97) * double(strictPixels));
}

TEST(Rasterizer, QueriesFollowTheBlockRules) {
    Rasterizer r;
    r.setResolution(32, 16);
    r.clear();
    // Cleared buffer (all codes 0): any box nearer than the far plane shows
    // through a whole block; a box at code 0 is hidden (0 >= 0).
    EXPECT_TRUE(r.query2D(0, 7, 0, 7, 1));
    EXPECT_FALSE(r.query2D(0, 31, 0, 15, 0));
    // One pixel column at x = 8: xs = xe = 0 selects no lane, so no pixel is
    // tested and the box reads as hidden; two columns (xe = 1) test lane 7.
    EXPECT_FALSE(r.query2D(8, 8, 0, 3, 1));
    EXPECT_TRUE(r.query2D(8, 9, 0, 3, 1));

    // Straightforward version of the two passes over random buffers: identical.
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    r.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
    for (int trial = 0; trial < 40; ++trial) {
        r.clear();
        std::vector<ScreenQuad> quads;
        for (int i = 0; i < 6; ++i)
            quads.push_back(randomQuad(rng, unit(rng) * 32, unit(rng) * 16, 4 + 12 * unit(rng), false, true, 32, 16));
        const Baked baked = bake(quads, 32, 16);
        r.rasterize<false>(*baked.occluder);
        for (int i = 0; i < 2000; ++i) {
            const unsigned x0 = unsigned(unit(rng) * 32), y0 = unsigned(unit(rng) * 16);
            const unsigned x1 = std::min(31u, x0 + unsigned(unit(rng) * 20)),
                           y1 = std::min(15u, y0 + unsigned(unit(rng) * 12));
            const uint16_t q = uint16_t(unit(rng) * 65536);
            bool expected = false;
            {
                // Written out directly from the rules, over pixelDepth and getBlockDepth.
                bool candidate = false;
                for (unsigned by = y0 / 8; by <= y1 / 8; ++by)
                    for (unsigned bx = x0 / 8; bx <= x1 / 8; ++bx)
                        candidate = candidate || r.getBlockDepth(bx, by) <= q;
                for (unsigned by = y0 / 8; candidate && !expected && by <= y1 / 8; ++by)
                    for (unsigned bx = x0 / 8; !expected && bx <= x1 / 8; ++bx) {
                        if (r.getBlockDepth(bx, by) >= q) continue;
                        const int xs = std::max(int(x0) - int(8 * bx), 0), xe = std::min(int(x1) - int(8 * bx), 7);
                        const int ys = std::max(int(y0) - int(8 * by), 0), ye = std::min(int(y1) - int(8 * by), 7);
                        if (xs == 0 && xe == 7 && ys == 0 && ye == 7) expected = true;
                        for (int y = ys; y <= ye; ++y)
                            for (int c = 8 - xe; c <= 7 - xs; ++c)
                                expected = expected || r.pixelDepth(8 * bx + unsigned(c), 8 * by + unsigned(y)) < q;
                    }
            }
            ASSERT_EQ(expected, r.query2D(x0, x1, y0, y1, q))
                << trial << " " << x0 << "-" << x1 << " " << y0 << "-" << y1;
        }
    }
}

TEST(Rasterizer, BoxTestsAgainstABakedWall) {
    const int width = 64, height = 32;
    Rasterizer r;
    r.setResolution(width, height);
    r.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
    // A wall at depth 10 over the screen's middle: x in [16, 48] px, y in [4, 28] px,
    // that is local x in [-5, 5], y in [-7.5, 7.5] (x_ndc = x / z).
    r.rasterize<false>(*bake({{{16, 16, 48, 48}, {4, 28, 28, 4}, {10, 10, 10, 10}}}, width, height).occluder);
    bool clip = true;
    float fraction = 7.0f;
    const auto ask = [&](float x0, float y0, float z0, float x1, float y1, float z1) {
        return r.queryVisibility(make4(x0, y0, z0, 1), make4(x1, y1, z1, 1), clip, fraction);
    };
    // Behind the wall's middle: hidden; the outputs are written on this path.
    EXPECT_FALSE(ask(-1, -1, 20, 1, 1, 22));
    EXPECT_FALSE(clip);
    // Its rectangle: x = (+-1/20 + 1) * 32 -> [30.4, 33.6] -> 30..34, y -> [14.8, 17.2] -> 15..17.
    EXPECT_FLOAT_EQ(float(4 * 2) / float(width * height), fraction);
    EXPECT_TRUE(ask(-1, -1, 5, 1, 1, 6));    // in front of the wall
    EXPECT_TRUE(ask(-1, -1, 8, 1, 1, 22));   // reaching in front of it
    EXPECT_TRUE(ask(12, -1, 20, 14, 1, 22)); // beside it (x_ndc 0.6 to 0.7)
    // Outside a side plane or beyond the far plane: rejected, outputs untouched.
    clip = true;
    fraction = 7.0f;
    EXPECT_FALSE(ask(30, -1, 20, 32, 1, 22));
    EXPECT_FALSE(ask(-1, -1, 150, 1, 1, 160));
    EXPECT_FALSE(ask(-1, -1, -9, 1, 1, -8)); // behind the eye
    EXPECT_TRUE(clip);
    EXPECT_EQ(7.0f, fraction);
    // Near guard: a corner at w < 0.001 x the largest extent (here behind the
    // eye) answers visible and flags clipping, the fraction untouched.
    clip = false;
    EXPECT_TRUE(ask(-1, -1, -0.5f, 1, 1, 30));
    EXPECT_TRUE(clip);
    EXPECT_EQ(7.0f, fraction);
    clip = false;
    EXPECT_TRUE(ask(-1, -1, 0.02f, 1, 1, 30)); // w = 0.02 < 0.001 * 29.98
    EXPECT_TRUE(clip);
    // A box in front of the near plane (w = 0.5 > 0.03) but not of the eye is not
    // guarded: its nearest code saturates to 65535, which no pixel reaches.
    EXPECT_TRUE(ask(-1, -1, 0.5f, 1, 1, 30));
    EXPECT_FALSE(clip);
    // Garbage corners answer visible (nothing reliable can be said).
    EXPECT_TRUE(ask(kNaN, -1, 20, 1, 1, 22));
    EXPECT_TRUE(ask(-1, -1, 20, 1, kInf, 22));
    // The pointer form reads three floats per corner.
    const float lo[3] = {-1, -1, 20}, hi[3] = {1, 1, 22};
    EXPECT_FALSE(r.query(lo, hi));

    // The front: the whole group culled when its box is hidden; a visible group
    // draws the level its screen fraction picks (level 0 from half the screen).
    util::RapidRasterizer front;
    front.setResolution(width, height);
    front.clear();
    front.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
    auto group = std::make_shared<common::OccluderGroup>();
    const Baked big = bake({{{0, 0, 64, 64}, {0, 32, 32, 0}, {10, 10, 10, 10}}}, width, height);
    const Baked small = bake({{{0, 0, 8, 8}, {0, 8, 8, 0}, {10, 10, 10, 10}}}, width, height);
    group->addOccluder(big.occluder, 0);
    group->addOccluder(small.occluder, 1);
    front.render(group);
    EXPECT_NE(0, front.rasterizer()->pixelDepth(60, 30)); // whole screen: level 0
    front.render(nullptr);
    const float behind[6] = {-1, -1, 20, 1, 1, 22};
    EXPECT_FALSE(front.query(behind, behind + 3));
    EXPECT_TRUE(front.query(nullptr, behind));
}

TEST(Rasterizer, TwistedQuadCrossingTheNearPlaneFourTimes) {
    // Corners alternately at z = 5 and z = 0.5 (behind the near plane z = 1):
    // clipping leaves a hexagon, symmetric about the screen centre, with
    // corners at NDC (-0.4,-0.4), (-0.578,0.133), (-0.133,0.578), (0.4,0.4),
    // (0.578,-0.133), (0.133,-0.578) (the crossings at t = 0.889 and 0.111
    // along the edges, by hand). Found by BakedFuzz: the sixth vertex was
    // written past the clip buffer, and the second half was never drawn.
    const std::vector<float4> quad = {make4(-2, -2, 5, 1), make4(-0.4f, 0.4f, 0.5f, 1), make4(2, 2, 5, 1),
                                      make4(0.4f, -0.4f, 0.5f, 1)};
    const auto occluder = common::Occluder::bake(quad, make4(-2, -2, 0.5f, 1), make4(2, 2, 5, 1));
    for (int clipped = 0; clipped < 2; ++clipped) {
        Rasterizer r;
        r.setResolution(32, 32);
        r.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
        (clipped ? r.rasterize<true>(*occluder) : r.rasterize<false>(*occluder));
        // Pixel (i, j) has its centre at NDC ((i + 0.5) / 16 - 1, (j + 0.5) / 16 - 1), row 0 at the bottom.
        EXPECT_GT(r.pixelDepth(11, 20), 0) << clipped; // (-0.28, 0.28): first half, k0 e01 e12 k2
        EXPECT_GT(r.pixelDepth(20, 11), 0) << clipped; // (0.28, -0.28): second half, k0 k2 e23 e30
        // Near the centre on both sides of the seam y = x between the halves (the
        // conservative table of exact-coverage builds leaves the seam itself open).
        EXPECT_GT(r.pixelDepth(13, 18), 0) << clipped; // (-0.16, 0.16)
        EXPECT_GT(r.pixelDepth(18, 13), 0) << clipped; // (0.16, -0.16)
        EXPECT_EQ(0, r.pixelDepth(27, 27)) << clipped; // (0.72, 0.72): beyond corner (0.4, 0.4)
        EXPECT_EQ(0, r.pixelDepth(4, 4)) << clipped;   // (-0.72, -0.72): beyond corner (-0.4, -0.4)
    }
}

TEST(Rasterizer, HostileInputStaysInBounds) {
    // Garbage packed words, reference boxes and matrices (NaN, infinities, huge
    // values): nothing may be written outside the buffers (address sanitizer)
    // and nothing may hang.
    std::mt19937 rng(5);
    const float specials[] = {kNaN, kInf, -kInf, 1e30f, -1e30f, 0.0f, -0.0f, 1e-30f, 3.0f, -3.0f};
    const auto any = [&]() { return specials[rng() % 10] * (rng() % 2 ? 1.0f : float(rng() % 1000) / 100.0f); };
    Rasterizer r;
    r.setResolution(24, 16);
    for (int trial = 0; trial < 400; ++trial) {
        common::Occluder o;
        o.refMin = make4(any(), any(), any(), 1);
        o.refMax = make4(any(), any(), any(), 1);
        for (int i = 0; i < 8; ++i)
            o.packedVertices.push_back(
                common::makeInt4(int32_t(rng()), int32_t(rng()), int32_t(rng()), int32_t(rng())));
        float m[16];
        for (float& v : m) v = rng() % 3 ? float(int(rng() % 7) - 3) : any();
        r.setModelViewProjection(common::Matrix4x4::fromColumnMajor(trial % 4 ? m : kPerspective));
        (trial % 2 ? r.rasterize<true>(o) : r.rasterize<false>(o));
        const float lo[3] = {any(), any(), any()}, hi[3] = {any(), any(), any()};
        r.query(lo, hi);
        r.query2D(0, 23, 0, 15, uint16_t(rng()));
        r.query2D(5, 1000, 3, 1000, uint16_t(rng())); // bounds past the screen are clamped
    }
    Rasterizer empty; // never sized: draws and answers without a buffer
    empty.setModelViewProjection(common::Matrix4x4::fromColumnMajor(kPerspective));
    empty.rasterize<false>(*bake({{{0, 0, 8, 8}, {0, 8, 8, 0}, {5, 5, 5, 5}}}, 8, 8).occluder);
    const float lo[3] = {-1, -1, 20}, hi[3] = {1, 1, 22};
    EXPECT_TRUE(empty.query(lo, hi));
}
