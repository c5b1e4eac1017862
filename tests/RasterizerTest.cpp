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

TEST(Rasterizer, StoredTableEqualsTheSampledConstruction) {
    Rasterizer r;
    const std::vector<uint64_t> stored = r.getRasterizationTable();
    ASSERT_EQ(4096u, stored.size());
    std::vector<uint64_t> built(4096, 0);
    Rasterizer::precomputeRasterizationTableInto(built);
    EXPECT_EQ(built, stored);
    // Spot values derived by hand: an edge with a = 1 (slope row 31, b = 0)
    // and offset column 32 (o ~ 0) covers the pixels with x <= 0, columns 0-3.
    EXPECT_EQ(0x00000000FFFFFFFFull, stored[31 * 128 + 32]);
    // a = 0, b = 1 (row 16): rows below the centre, bits 0-3 of each byte... row r is bit 7 - r.
    EXPECT_EQ(0xF0F0F0F0F0F0F0F0ull, stored[16 * 128 + 32] & 0xF0F0F0F0F0F0F0F0ull);
    EXPECT_EQ(0ull, stored[31 * 128 + 63]); // wholly outside
    EXPECT_EQ(~0ull, stored[31 * 128 + 0]); // wholly inside
    r.precomputeRasterizationTable();       // OR-ing the same samples again changes nothing
    EXPECT_EQ(stored, r.getRasterizationTable());
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
    // the baked (dequantised) corners. The coverage table may reach past the
    // exact edge by its bucket rounding: measured here and bounded.
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const int width = 96, height = 64;
    double farthestOvercover = 0.0;
    size_t deepInside = 0, deepInsideDrawn = 0, overcovered = 0, covered = 0;
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
        ExactDepthBuffer exact(width, height);
        for (const auto& q : baked.quads) {
            exact.drawTriangle(q[0], q[1], q[2]);
            exact.drawTriangle(q[2], q[3], q[0]);
        }
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const uint16_t got = r.pixelDepth(unsigned(x), unsigned(y));
                if (got != 0) ++covered;
                // Near a quad's edge the table may cover a pixel that the quad does
                // not; there the quad's nearest corner bounds the code.
                double nearest = std::numeric_limits<double>::infinity();
                uint16_t allowed = exact.code(x, y);
                for (const auto& q : baked.quads) {
                    const double d = std::min(lineSlack(q[0], q[1], q[2], x + 0.5, y + 0.5),
                                              lineSlack(q[2], q[3], q[0], x + 0.5, y + 0.5));
                    if (d > 0.75) continue;
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
                // the depth) farther: the baked corners are no longer coplanar
                // after quantisation, and the plane is lowered to the lowest of them.
                bool inside = false;
                for (const auto& q : baked.quads) {
                    const auto inset = [&](const ScreenVertex& a, const ScreenVertex& b, const ScreenVertex& c) {
                        const double area = (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
                        if (!(std::fabs(area) > 1.0)) return false;
                        const ScreenVertex v[3] = {a, b, c};
                        for (int e = 0; e < 3; ++e) {
                            const ScreenVertex &p = v[e], &n = v[(e + 1) % 3];
                            const double f = ((n.x - p.x) * (y + 0.5 - p.y) - (n.y - p.y) * (x + 0.5 - p.x)) *
                                             (area > 0 ? 1 : -1) / std::hypot(n.x - p.x, n.y - p.y);
                            if (f < 1.0) return false;
                        }
                        return true;
                    };
                    inside = inside || inset(q[0], q[1], q[2]) || inset(q[2], q[3], q[0]);
                }
                if (inside && planar) {
                    ++deepInside;
                    if (got + 64 >= exact.code(x, y)) ++deepInsideDrawn;
                }
            }
    }
    std::printf("rapid coverage: %zu pixels drawn, %zu beyond exact coverage, farthest %.3f px outside an edge line; "
                "%zu of %zu pixels 1 px inside drawn within 64 codes\n",
                covered, overcovered, farthestOvercover, deepInsideDrawn, deepInside);
    EXPECT_LT(farthestOvercover, 0.75);
    EXPECT_GT(deepInside, 50000u);
    EXPECT_GE(double(deepInsideDrawn), 0.995 * double(deepInside));
}
