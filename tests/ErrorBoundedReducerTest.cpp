// The simplifier of the conservative build: flat regions fold down, open
// borders and corners stay, closed shapes stay closed, the error bound holds,
// and on real meshes each level covers what the original covers, to within
// half a pixel at the screen size that selects it, and at least 95% of it.
#include "common/ErrorBoundedReducer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "support/CoverageMask.h"
#include "support/MeshCorpus.h"

using common::ErrorBoundedReducer;
using common::float4;
using common::lane;
using testing_support::Mesh;

namespace {

struct Result {
    std::vector<float4> vertices;
    std::vector<uint32_t> indices;
    size_t triangles() const { return indices.size() / 3; }
};

Result reduce(const Mesh& m, ErrorBoundedReducer::Target target) {
    Result r;
    ErrorBoundedReducer::reduce(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(), target,
                                r.vertices, r.indices);
    return r;
}

// Indices in range, every vertex used and bit-equal to an input vertex, w = 1.
void expectWellFormed(const Result& r, const Mesh& m) {
    ASSERT_EQ(0u, r.indices.size() % 3);
    std::vector<bool> used(r.vertices.size(), false);
    for (const uint32_t i : r.indices) {
        ASSERT_LT(i, r.vertices.size());
        used[i] = true;
    }
    EXPECT_EQ(0, std::count(used.begin(), used.end(), false));
    std::set<std::vector<uint32_t>> input;
    for (size_t v = 0; v < m.vertexCount(); ++v) {
        std::vector<uint32_t> bits(3);
        std::memcpy(bits.data(), &m.vertices[3 * v], 12);
        input.insert(bits);
    }
    for (const float4& v : r.vertices) {
        EXPECT_EQ(1.0f, lane<3>(v));
        std::vector<uint32_t> bits(3);
        const float xyz[3] = {lane<0>(v), lane<1>(v), lane<2>(v)};
        std::memcpy(bits.data(), xyz, 12);
        EXPECT_TRUE(input.count(bits));
    }
}

// Sum of the triangles' areas.
double area(const Result& r) {
    double sum = 0;
    for (size_t t = 0; t < r.indices.size(); t += 3) {
        double p[3][3];
        for (int k = 0; k < 3; ++k)
            for (int a = 0; a < 3; ++a) p[k][a] = lane(r.vertices[r.indices[t + size_t(k)]], a);
        const double u[3] = {p[1][0] - p[0][0], p[1][1] - p[0][1], p[1][2] - p[0][2]};
        const double v[3] = {p[2][0] - p[0][0], p[2][1] - p[0][1], p[2][2] - p[0][2]};
        const double n[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
        sum += 0.5 * std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    }
    return sum;
}

// Whether (x, y) lies inside or on one of the triangles, seen along z.
bool coveredAlongZ(const Result& r, double x, double y) {
    for (size_t t = 0; t < r.indices.size(); t += 3) {
        double px[3], py[3];
        for (int k = 0; k < 3; ++k) px[k] = lane<0>(r.vertices[r.indices[t + size_t(k)]]);
        for (int k = 0; k < 3; ++k) py[k] = lane<1>(r.vertices[r.indices[t + size_t(k)]]);
        const double s = (px[1] - px[0]) * (py[2] - py[0]) - (px[2] - px[0]) * (py[1] - py[0]) > 0 ? 1 : -1;
        bool inside = true;
        for (int k = 0; k < 3; ++k) {
            const int n = (k + 1) % 3;
            inside = inside && s * ((px[n] - px[k]) * (y - py[k]) - (py[n] - py[k]) * (x - px[k])) >= 0;
        }
        if (inside) return true;
    }
    return false;
}

std::set<std::array<float, 3>> positions(const Result& r) {
    std::set<std::array<float, 3>> out;
    for (const float4& v : r.vertices) out.insert({lane<0>(v), lane<1>(v), lane<2>(v)});
    return out;
}

// A unit grid of w x h cells at z = 0, counter-clockwise from +z, without the
// cells for which skip(i, j) holds.
template <class Skip> Mesh cells(int w, int h, Skip skip) {
    Mesh m;
    for (int j = 0; j <= h; ++j)
        for (int i = 0; i <= w; ++i) m.vertices.insert(m.vertices.end(), {float(i), float(j), 0.0f});
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
            if (skip(i, j)) continue;
            const auto a = uint16_t(j * (w + 1) + i), b = uint16_t(a + 1), c = uint16_t(a + w + 1), d = uint16_t(c + 1);
            m.indices.insert(m.indices.end(), {a, b, d, a, d, c});
        }
    return m;
}

// The unit cube with every face an n x n grid of its own: the edges' vertices
// exist once per face, and only welding joins the faces.
Mesh tessellatedCube(int n) {
    Mesh m;
    for (int axis = 0; axis < 3; ++axis)
        for (const int side : {0, 1}) {
            const auto base = uint16_t(m.vertexCount());
            for (int j = 0; j <= n; ++j)
                for (int i = 0; i <= n; ++i) {
                    float p[3];
                    p[axis] = float(side);
                    p[(axis + 1) % 3] = float(i) / float(n);
                    p[(axis + 2) % 3] = float(j) / float(n);
                    m.vertices.insert(m.vertices.end(), p, p + 3);
                }
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < n; ++i) {
                    const auto a = uint16_t(base + j * (n + 1) + i), b = uint16_t(a + 1), c = uint16_t(a + n + 1),
                               d = uint16_t(c + 1);
                    // (axis+1, axis+2) is right-handed about +axis: outward on side 1.
                    if (side == 1)
                        m.indices.insert(m.indices.end(), {a, b, d, a, d, c});
                    else
                        m.indices.insert(m.indices.end(), {a, d, b, a, c, d});
                }
        }
    return m;
}

constexpr ErrorBoundedReducer::Target kAll{1, 1e-3, 1e-5}; // as far as a small error allows
constexpr double kPi = 3.14159265358979323846;

#if defined(__aarch64__) || defined(__SANITIZE_ADDRESS__)
constexpr int kViews = 1; // qemu and the sanitizers are 10-30x slower
#else
constexpr int kViews = 2;
#endif

} // namespace

TEST(ErrorBoundedReducer, FlatRegionsFoldDownWithTheirOutlineExact) {
    // 8 x 8 cells of the unit square: two triangles on the four corners.
    const Mesh square = testing_support::makeGrid(8, 0, 0, 1, 1, 0);
    Result r = reduce(square, kAll);
    expectWellFormed(r, square);
    EXPECT_EQ(2u, r.triangles());
    EXPECT_EQ((std::set<std::array<float, 3>>{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}}), positions(r));
    EXPECT_EQ(1.0, area(r));
    // Free collapses go on past the target...
    r = reduce(square, {100, 1e-3, 1e-5});
    EXPECT_EQ(2u, r.triangles());
    // ...priced ones stop at it (a collapse removes one or two triangles).
    r = reduce(square, {64, 1e-3, -1.0});
    EXPECT_GE(r.triangles(), 63u);
    EXPECT_LE(r.triangles(), 64u);
    EXPECT_EQ(1.0, area(r));

    // The loader's tilted grid: 64 x 32 cells of 0.25, z = -10 - (y + 4) / 4.
    Mesh tilted;
    for (int j = 0; j <= 32; ++j)
        for (int i = 0; i <= 64; ++i) {
            const float x = -8.0f + 0.25f * float(i), y = -4.0f + 0.25f * float(j);
            tilted.vertices.insert(tilted.vertices.end(), {x, y, -10.0f - 0.25f * (y + 4.0f)});
        }
    for (int j = 0; j < 32; ++j)
        for (int i = 0; i < 64; ++i) {
            const auto a = uint16_t(j * 65 + i), b = uint16_t(a + 1), c = uint16_t(a + 65), d = uint16_t(c + 1);
            tilted.indices.insert(tilted.indices.end(), {a, b, d, a, d, c});
        }
    r = reduce(tilted, kAll);
    EXPECT_EQ(2u, r.triangles());
    EXPECT_EQ((std::set<std::array<float, 3>>{{-8, -4, -10}, {8, -4, -10}, {-8, 4, -12}, {8, 4, -12}}), positions(r));
}

TEST(ErrorBoundedReducer, OpenBordersKeepTheirCorners) {
    // An L of 12 unit cells: the 4 x 4 square without its top right 2 x 2.
    //   4 +---+
    //     |   |
    //   2 |   +---+      six outline corners, (2, 2) the inner one: the
    //     |       |      fewest triangles for a hexagon are four.
    //   0 +-------+
    //     0   2   4
    const Mesh ell = cells(4, 4, [](int i, int j) { return i >= 2 && j >= 2; });
    const Result r = reduce(ell, kAll);
    expectWellFormed(r, ell);
    EXPECT_EQ(4u, r.triangles());
    EXPECT_EQ((std::set<std::array<float, 3>>{{0, 0, 0}, {4, 0, 0}, {4, 2, 0}, {2, 2, 0}, {2, 4, 0}, {0, 4, 0}}),
              positions(r));
    EXPECT_EQ(12.0, area(r));
    // Covered exactly where the L is, probed off the cell lines.
    for (double y = 0.1; y < 4; y += 0.2)
        for (double x = 0.1; x < 4; x += 0.2) EXPECT_EQ(!(x > 2 && y > 2), coveredAlongZ(r, x, y)) << x << ", " << y;

    // A border with a slight kink: the far end of the middle row bulges out by
    // 0.01 in a strip 10 long (diagonal about 10.05), so the border planes
    // price its removal at about 10 x 0.01 x sqrt(2) / 10.05 = 0.014 (two
    // border edges meet there, each with its plane) and a bound of 1e-3 keeps
    // it; the straight rows fold down.
    Mesh strip = cells(10, 2, [](int, int) { return false; });
    strip.vertices[3 * 21] += 0.01f; // vertex (10, 1)
    Result kinked = reduce(strip, kAll);
    EXPECT_TRUE(positions(kinked).count({10.01f, 1, 0}));
    EXPECT_EQ(5u, positions(kinked).size()); // the four corners and the kink
}

TEST(ErrorBoundedReducer, FlatClosedShellsKeepTheirRim) {
    // Two sheets on the square [0, 4]^2 at z = 0 sharing their rim, the top
    // facing +z, the bottom facing -z with its inner vertices moved by (0.1,
    // 0.2) (so that they stay its own): closed, and flat, so the plane
    // quadrics see no cost in moving a rim vertex inwards. The rim is a fold
    // and holds like an open border: the corners stay, every vertex stays on
    // the rim, and the square stays covered.
    const int n = 4;
    Mesh shell = cells(n, n, [](int, int) { return false; });
    std::vector<uint16_t> bottom(size_t((n + 1) * (n + 1)));
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) {
            const auto top = uint16_t(j * (n + 1) + i);
            bottom[top] = top;
            if (i == 0 || j == 0 || i == n || j == n) continue;
            bottom[top] = uint16_t(shell.vertexCount());
            shell.vertices.insert(shell.vertices.end(), {float(i) + 0.1f, float(j) + 0.2f, 0.0f});
        }
    const size_t topIndices = shell.indices.size();
    for (size_t k = 0; k < topIndices; k += 3)
        shell.indices.insert(shell.indices.end(),
                             {bottom[shell.indices[k]], bottom[shell.indices[k + 2]], bottom[shell.indices[k + 1]]});
    const Result r = reduce(shell, kAll);
    expectWellFormed(r, shell);
    EXPECT_LT(r.triangles(), shell.indices.size() / 3);
    for (const float4& v : r.vertices)
        EXPECT_TRUE(lane<0>(v) == 0 || lane<0>(v) == n || lane<1>(v) == 0 || lane<1>(v) == n);
    for (const std::array<float, 3> corner : {std::array<float, 3>{0, 0, 0}, {4, 0, 0}, {0, 4, 0}, {4, 4, 0}})
        EXPECT_TRUE(positions(r).count(corner));
    for (double y = 0.1; y < n; y += 0.2)
        for (double x = 0.1; x < n; x += 0.2) EXPECT_TRUE(coveredAlongZ(r, x, y)) << x << ", " << y;
}

TEST(ErrorBoundedReducer, ClosedShapesStayClosed) {
    // A box's every collapse moves a corner by a whole edge off a plane.
    const Mesh box = testing_support::makeBox(0, 0, 0, 1, 2, 3);
    Result r = reduce(box, {1, 0.1, 1e-5});
    EXPECT_EQ(12u, r.triangles());
    EXPECT_EQ(8u, r.vertices.size());
    // The same box tessellated, its faces joined only by welding: back to
    // twelve triangles on the eight corners, every edge shared by two.
    const Mesh cube = tessellatedCube(6);
    r = reduce(cube, kAll);
    expectWellFormed(r, cube);
    EXPECT_EQ(12u, r.triangles());
    std::set<std::array<float, 3>> corners;
    for (int c = 0; c < 8; ++c) corners.insert({float(c & 1), float(c >> 1 & 1), float(c >> 2 & 1)});
    EXPECT_EQ(corners, positions(r));
    EXPECT_EQ(6.0, area(r));

    // A sphere and a torus reduced coarsely keep their topology: every edge
    // wound once each way by two triangles, V - E + F = 2 and 0.
    Mesh torus;
    constexpr int kAround = 24, kTube = 8;
    for (int i = 0; i < kAround; ++i)
        for (int j = 0; j < kTube; ++j) {
            const double u = 2 * kPi * i / kAround, v = 2 * kPi * j / kTube, r = 1.0 + 0.3 * std::cos(v);
            torus.vertices.insert(torus.vertices.end(),
                                  {float(r * std::cos(u)), float(r * std::sin(u)), float(0.3 * std::sin(v))});
        }
    for (int i = 0; i < kAround; ++i)
        for (int j = 0; j < kTube; ++j) {
            const auto at = [](int a, int b) { return uint16_t((a % kAround) * kTube + b % kTube); };
            torus.indices.insert(torus.indices.end(),
                                 {at(i, j), at(i + 1, j), at(i + 1, j + 1), at(i, j), at(i + 1, j + 1), at(i, j + 1)});
        }
    for (const double bound : {0.05, 0.2, 1.0})
        for (const bool ring : {false, true}) {
            r = reduce(ring ? torus : testing_support::makeCubeSphere(12, 1.0f, 0.0f), {1, bound, 1e-5});
            std::map<std::pair<uint32_t, uint32_t>, int> directed;
            for (size_t t = 0; t < r.indices.size(); t += 3)
                for (size_t k = 0; k < 3; ++k) ++directed[{r.indices[t + k], r.indices[t + (k + 1) % 3]}];
            for (const auto& edge : directed) {
                EXPECT_EQ(1, edge.second) << bound;
                EXPECT_EQ(1u, directed.count({edge.first.second, edge.first.first})) << bound;
            }
            EXPECT_EQ(ring ? 0 : 2, int(r.vertices.size()) - int(directed.size() / 2) + int(r.triangles())) << bound;
            EXPECT_GE(r.triangles(), 4u) << bound;
        }
}

TEST(ErrorBoundedReducer, ErrorBoundHolds) {
    // A tent: apex (0, 0, h) over the square [-1, 1]^2, four triangles.
    // Moving the apex onto a corner keeps it in the two faces at that corner
    // and lifts it 2h (vertically) off the two far faces' planes, 2h / sqrt(1
    // + h^2) each: error sqrt(2) 2h / sqrt(1 + h^2), over the box diagonal
    // sqrt(8 + h^2). For h = 0.1: 0.0994. The corners cannot move (each sits
    // on two border edges at a right angle).
    Mesh tent;
    tent.vertices = {-1, -1, 0, 1, -1, 0, 1, 1, 0, -1, 1, 0, 0, 0, 0.1f};
    tent.indices = {0, 1, 4, 1, 2, 4, 2, 3, 4, 3, 0, 4};
    EXPECT_EQ(4u, reduce(tent, {1, 0.098, 1e-5}).triangles());
    Result r = reduce(tent, {1, 0.101, 1e-5});
    EXPECT_EQ(2u, r.triangles());
    EXPECT_FALSE(positions(r).count({0, 0, 0.1f}));

    // A sphere (24 x 24 cells a face, so about 0.02 of the diagonal from one
    // vertex to the next): no collapse at all within 1e-4, then fewer
    // triangles for every looser bound, and never none.
    const Mesh sphere = testing_support::makeCubeSphere(24, 1.0f, 0.0f);
    const size_t input = sphere.indices.size() / 3;
    const size_t fine = reduce(sphere, {1, 1e-3, 1e-5}).triangles();
    const size_t medium = reduce(sphere, {1, 3e-3, 1e-5}).triangles();
    const size_t coarse = reduce(sphere, {1, 1e-2, 1e-5}).triangles();
    EXPECT_EQ(input, reduce(sphere, {1, 1e-4, 1e-5}).triangles());
    EXPECT_LT(fine, input);
    EXPECT_LT(medium, fine);
    EXPECT_LT(coarse, medium);
    EXPECT_GT(coarse, 100u);
}

TEST(ErrorBoundedReducer, HostileInputAndDeterminism) {
    const Mesh box = testing_support::makeBox(0, 0, 0, 1, 1, 1);
    const auto empty = [](const float* v, const uint16_t* i, uint32_t vc, uint32_t ic) {
        Result r{{common::splat(7.0f)}, {9, 9, 9}};
        ErrorBoundedReducer::reduce(v, i, vc, ic, kAll, r.vertices, r.indices);
        return r.vertices.empty() && r.indices.empty();
    };
    EXPECT_TRUE(empty(nullptr, box.indices.data(), 8, 36));
    EXPECT_TRUE(empty(box.vertices.data(), nullptr, 8, 36));
    EXPECT_TRUE(empty(box.vertices.data(), box.indices.data(), 0, 36));
    EXPECT_TRUE(empty(box.vertices.data(), box.indices.data(), 8, 2));
    EXPECT_TRUE(empty(box.vertices.data(), box.indices.data(), 7, 36)); // index 7 out of range

    // Soups with repeated, degenerate and non-finite triangles: well formed,
    // and the same twice.
    for (uint32_t seed = 0; seed < 500; ++seed) {
        const Mesh soup = testing_support::makeRandomSoup(seed);
        const Result a = reduce(soup, {seed % 7, 0.05, 1e-5}), b = reduce(soup, {seed % 7, 0.05, 1e-5});
        expectWellFormed(a, soup);
        ASSERT_EQ(a.indices, b.indices) << seed;
    }
}

// Pins the output across backends and compilers: all arithmetic is plain
// double precision, so x86 and Arm must agree. The hashes were recorded from
// this code (x86-64): they lock behaviour rather than prove it.
TEST(ErrorBoundedReducer, OutputHashes) {
    const auto hash = [](const Result& r) {
        uint64_t h = 14695981039346656037ull;
        const auto mix = [&](uint32_t word) {
            for (int b = 0; b < 4; ++b) h = (h ^ ((word >> (8 * b)) & 0xff)) * 1099511628211ull;
        };
        for (const float4& v : r.vertices)
            for (int k = 0; k < 3; ++k) {
                const float f = lane(v, k);
                uint32_t word;
                std::memcpy(&word, &f, 4);
                mix(word);
            }
        for (const uint32_t i : r.indices) mix(i);
        return h;
    };
    const Mesh bumpy = testing_support::makeBumpyGrid(40, 0.02f, 1);
    const Mesh sphere = testing_support::makeCubeSphere(16, 1.0f, 0.01f);
    const Result a = reduce(bumpy, {200, 2e-3, 1e-5}), b = reduce(sphere, {300, 2e-3, 1e-5});
    EXPECT_EQ(0xa6b2918616ab3876ull, hash(a)) << std::hex << hash(a);
    EXPECT_EQ(0xaf0b416e184ada2eull, hash(b)) << std::hex << hash(b);
}

// Every level of every real mesh, from random directions at the screen
// fraction that selects the level (the largest: 1, 0.5, 0.25), on both
// screens: what the level covers lies within half a pixel of what the mesh
// covers, and covers at least 95% of it. Sampled 4 x 4 per pixel, so a sample
// of the level may lie a sample's half-diagonal (0.18 px) further from the
// nearest sample of the original than its point from the original's edge.
TEST(ErrorBoundedReducer, LevelsCoverWhatTheMeshCoversOnRealMeshes) {
    const auto meshes = testing_support::loadRealMeshes();
    if (meshes.empty()) GTEST_SKIP() << "no real meshes installed";
    const double fractions[3] = {1.0, 0.5, 0.25};
    const int screens[2][2] = {{320, 192}, {640, 360}};
    std::mt19937 rng(7);
    std::normal_distribution<double> normal;
    for (const auto& named : meshes) {
        const Mesh& m = named.mesh;
        double lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
        for (size_t i = 0; i < m.vertices.size(); ++i) {
            lo[i % 3] = std::min(lo[i % 3], double(m.vertices[i]));
            hi[i % 3] = std::max(hi[i % 3], double(m.vertices[i]));
        }
        for (unsigned lod = 0; lod < 3; ++lod) {
            Result level;
            ErrorBoundedReducer::level(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(), lod,
                                       level.vertices, level.indices);
            for (const auto& screen : screens)
                for (int view = 0; view < kViews; ++view) {
                    const double dir[3] = {normal(rng), normal(rng), normal(rng)};
                    const auto camera =
                        testing_support::cameraAtFraction(lo, hi, dir, screen[0], screen[1], fractions[lod]);
                    testing_support::CoverageMask original(camera, 4), reduced(camera, 4);
                    original.draw(m.vertices, m.indices);
                    reduced.draw(level.vertices, level.indices);
                    SCOPED_TRACE(named.name + " level " + std::to_string(lod) + " at " + std::to_string(screen[0]));
                    EXPECT_EQ(0u, reduced.countFartherThan(original, 0.5 + 0.18));
                    EXPECT_GE(double(reduced.countShared(original)), 0.95 * double(original.count()));
                }
        }
    }
}
