#include "util/MaskedOcclusionCulling.h"

#include "common/AlignedAlloc.h"
#include "support/ReferenceRasterizer.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

using util::MaskedOcclusionCulling;
using testing_support::ReferenceRasterizer;
using testing_support::ScreenTriangle;

namespace {

using Moc = MaskedOcclusionCulling;
constexpr Moc::VertexLayout kPacked = {16, 4, 12};

struct MocDeleter {
    void operator()(Moc* m) const { Moc::Destroy(m); }
};
using MocPtr = std::unique_ptr<Moc, MocDeleter>;

MocPtr makeMoc(unsigned w, unsigned h) {
    MocPtr m(Moc::Create());
    m->SetResolution(w, h);
    m->ClearBuffer();
    return m;
}

// Screen triangle with one w per vertex (1/w is its depth).
struct Tri {
    int x[3], y[3];
    float w[3];
    ScreenTriangle screen() const {
        ScreenTriangle s;
        for (int k = 0; k < 3; ++k) {
            s.x[k] = x[k];
            s.y[k] = y[k];
            s.z[k] = 1.0 / double(w[k]);
        }
        return s;
    }
};

int render(Moc& m, const std::vector<Tri>& tris, Moc::BackfaceWinding winding = Moc::WindingKeepBoth,
           Moc::ClipPlanes clip = Moc::ClipNone) {
    unsigned w, h;
    m.GetResolution(w, h);
    std::vector<float> v;
    std::vector<uint16_t> idx;
    for (const Tri& t : tris)
        for (int k = 0; k < 3; ++k) {
            float c[4];
            testing_support::clipFromScreen(t.x[k], t.y[k], t.w[k], int(w), int(h), c);
            idx.push_back(uint16_t(v.size() / 4));
            v.insert(v.end(), c, c + 4);
        }
    return m.RenderTriangles(v.data(), idx.data(), int(tris.size()), nullptr, winding, clip, kPacked);
}

Moc::TileData tile(const Moc& m, int tx, int ty) {
    Moc::TileData t;
    EXPECT_TRUE(m.ReadTile(tx, ty, t));
    return t;
}

// Pixel of the working layer's mask, or of a promoted (full) subtile.
[[maybe_unused]] bool drawnAt(const Moc& m, int i, int j) {
    const Moc::TileData t = tile(m, i / 32, j / 4);
    const int lane = (i % 32) / 8;
    return ((t.coverageMask[lane] >> (8 * (j % 4) + i % 8)) & 1u) != 0 || t.referenceDepth[lane] > -1.0f;
}

uint32_t referenceMask(const ScreenTriangle& s, int tx, int ty, int lane) {
    uint32_t mask = 0;
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 8; ++x)
            if (ReferenceRasterizer::covers(s, tx * 32 + lane * 8 + x, ty * 4 + y)) mask |= 1u << (8 * y + x);
    return mask;
}

struct CountingAlloc {
    static int allocations, frees;
    static size_t lastAlignment;
    static void* alloc(size_t alignment, size_t size) {
        ++allocations;
        lastAlignment = alignment;
        return common::aligned_alloc(alignment, size);
    }
    static void release(void* p) {
        ++frees;
        common::aligned_free(p);
    }
};
int CountingAlloc::allocations = 0;
int CountingAlloc::frees = 0;
size_t CountingAlloc::lastAlignment = 0;

} // namespace

TEST(MaskedOcclusionCulling, ResolutionTilesAndCallbacks) {
    CountingAlloc::allocations = CountingAlloc::frees = 0;
    Moc* m = Moc::Create(CountingAlloc::alloc, CountingAlloc::release);
    EXPECT_EQ(CountingAlloc::allocations, 1);
    EXPECT_EQ(CountingAlloc::lastAlignment, 64u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(m) % 64, 0u);
    unsigned w = 1, h = 1;
    m->GetResolution(w, h);
    EXPECT_EQ(w, 0u);
    EXPECT_EQ(h, 0u);
    Moc::TileData t;
    EXPECT_FALSE(m->ReadTile(0, 0, t));

    // 33 x 5 pixels: 2 tile columns, 2 tile rows.
    m->SetResolution(33, 5);
    m->ClearBuffer();
    EXPECT_EQ(CountingAlloc::allocations, 2);
    EXPECT_TRUE(m->ReadTile(1, 1, t));
    EXPECT_FALSE(m->ReadTile(2, 0, t));
    EXPECT_FALSE(m->ReadTile(0, 2, t));
    EXPECT_EQ(t.referenceDepth[3], -1.0f);
    EXPECT_EQ(t.workingDepth[0], FLT_MAX);
    EXPECT_EQ(t.coverageMask[2], 0u);
    // A triangle over the padding pixel columns 33..63 still lands in tile 1
    // (the scissor is the padded size, 64 x 8).
    EXPECT_EQ(render(*m, {{{33, 33, 200}, {-10, 50, -10}, {1, 1, 1}}}), Moc::Visible);
    EXPECT_TRUE(m->ReadTile(1, 1, t));
    EXPECT_NEAR(t.referenceDepth[3], 1.0f, 1e-4);

    m->SetResolution(33, 5); // same size still reallocates
    EXPECT_EQ(CountingAlloc::allocations, 3);
    EXPECT_EQ(CountingAlloc::frees, 1);
    m->SetResolution(0, 0);
    EXPECT_EQ(CountingAlloc::frees, 2);
    m->ClearBuffer();
    EXPECT_FALSE(m->ReadTile(0, 0, t));
    EXPECT_EQ(render(*m, {{{0, 10, 0}, {0, 0, 10}, {1, 1, 1}}}), Moc::OutsideView);
    EXPECT_EQ(m->TestRect(-1, -1, 1, 1, 1), Moc::Visible);

    m->SetNearClipPlane(0.25f);
    EXPECT_EQ(m->GetNearClipPlane(), 0.25f);
    m->SetResolution(64, 8);
    Moc::Destroy(m);
    EXPECT_EQ(CountingAlloc::allocations, 4);
    EXPECT_EQ(CountingAlloc::frees, 4);
}

TEST(MaskedOcclusionCulling, LayerUpdateHandCases) {
    auto m = makeMoc(64, 8);
    // Subtile 0 of tile (0,0) is pixels [0,8) x [0,4). The diagonal from (0,0)
    // to (8,4) passes no pixel centre; above it (centre y < x/2) lie rows of
    // 7, 5, 3, 1 pixels from the right: bits 1-7, 11-15, 21-23, 31.
    const uint32_t upperHalf = 0x80E0F8FEu;
    const uint32_t lowerHalf = ~upperHalf;
    render(*m, {{{0, 8, 8}, {0, 0, 4}, {2, 2, 2}}}); // depth 0.5
    Moc::TileData t = tile(*m, 0, 0);
    EXPECT_EQ(t.coverageMask[0], upperHalf);
    EXPECT_NEAR(t.workingDepth[0], 0.5f, 1e-4 * std::fabs(0.5f));
    EXPECT_EQ(t.referenceDepth[0], -1.0f);
    EXPECT_EQ(t.coverageMask[1], 0u); // untouched neighbours
    EXPECT_EQ(t.workingDepth[1], FLT_MAX);

    // The other half, farther (0.25): the mask fills, so the farther depth
    // becomes the finished layer and the working layer empties.
    render(*m, {{{0, 8, 0}, {0, 4, 4}, {4, 4, 4}}});
    t = tile(*m, 0, 0);
    EXPECT_NEAR(t.referenceDepth[0], 0.25f, 1e-4 * std::fabs(0.25f));
    EXPECT_EQ(t.workingDepth[0], FLT_MAX);
    EXPECT_EQ(t.coverageMask[0], 0u);
    EXPECT_EQ(t.referenceDepth[1], -1.0f);

    // Behind the finished layer (0.125 < 0.25): nothing changes.
    render(*m, {{{0, 8, 8}, {0, 0, 4}, {8, 8, 8}}});
    t = tile(*m, 0, 0);
    EXPECT_NEAR(t.referenceDepth[0], 0.25f, 1e-4 * std::fabs(0.25f));
    EXPECT_EQ(t.coverageMask[0], 0u);
    EXPECT_EQ(t.workingDepth[0], FLT_MAX);

    // A near half (2.0) in front of the finished layer starts a working layer.
    render(*m, {{{0, 8, 8}, {0, 0, 4}, {0.5f, 0.5f, 0.5f}}});
    t = tile(*m, 0, 0);
    EXPECT_EQ(t.coverageMask[0], upperHalf);
    EXPECT_NEAR(t.workingDepth[0], 2.0f, 1e-4 * std::fabs(2.0f));

    // Subtile 1 (pixels 8..15): working layer at 0.25 over the upper half,
    // then a much nearer lower half (4.0): h = 2*0.25 - (4 + -1) < 0, so the
    // working layer is thrown away and replaced by the new one.
    render(*m, {{{8, 16, 16}, {0, 0, 4}, {4, 4, 4}}});
    render(*m, {{{8, 16, 8}, {0, 4, 4}, {0.25f, 0.25f, 0.25f}}});
    t = tile(*m, 0, 0);
    EXPECT_EQ(t.coverageMask[1], lowerHalf);
    EXPECT_NEAR(t.workingDepth[1], 4.0f, 1e-4 * std::fabs(4.0f));
    EXPECT_EQ(t.referenceDepth[1], -1.0f);

    // One triangle covering a whole subtile goes straight to the finished layer.
    render(*m, {{{32, 60, 32}, {0, 0, 40}, {2, 2, 2}}});
    t = tile(*m, 1, 0);
    EXPECT_NEAR(t.referenceDepth[0], 0.5f, 1e-4 * std::fabs(0.5f));
    EXPECT_EQ(t.workingDepth[0], FLT_MAX);
    EXPECT_EQ(t.coverageMask[0], 0u);
    // Tile (1, 1) is fully covered in its first two subtiles only.
    t = tile(*m, 1, 1);
    EXPECT_NEAR(t.referenceDepth[1], 0.5f, 1e-4 * std::fabs(0.5f));
    EXPECT_NE(t.coverageMask[2], 0u);
}

TEST(MaskedOcclusionCulling, MergeBuffer) {
    const uint32_t upperHalf = 0x80E0F8FEu;
    auto a = makeMoc(64, 8);
    auto b = makeMoc(64, 8);
    render(*a, {{{0, 8, 8}, {0, 0, 4}, {2, 2, 2}}});       // working 0.5, upper half
    render(*b, {{{0, 8, 0}, {0, 4, 4}, {4, 4, 4}}});       // working 0.25, lower half
    render(*b, {{{32, 100, 32}, {0, 0, 100}, {1, 1, 1}}}); // finished 1.0 over tile (1,0)
    render(*a, {{{40, 48, 48}, {0, 0, 4}, {0.8f, 0.8f, 0.8f}}}); // working 1.25 in (1,0) lane 1
    render(*a, {{{48, 56, 56}, {0, 0, 4}, {2, 2, 2}}});    // working 0.5 in (1,0) lane 2
    a->MergeBuffer(b.get());

    Moc::TileData t = tile(*a, 0, 0);
    EXPECT_NEAR(t.referenceDepth[0], 0.25f, 1e-4 * std::fabs(0.25f)); // halves complete each other
    EXPECT_EQ(t.coverageMask[0], 0u);
    EXPECT_EQ(t.workingDepth[0], FLT_MAX);
    EXPECT_EQ(t.referenceDepth[1], -1.0f); // untouched
    EXPECT_EQ(t.coverageMask[1], 0u);

    t = tile(*a, 1, 0);
    EXPECT_NEAR(t.referenceDepth[0], 1.0f, 1e-4 * std::fabs(1.0f));
    EXPECT_NEAR(t.referenceDepth[1], 1.0f, 1e-4 * std::fabs(1.0f));
    EXPECT_EQ(t.coverageMask[1], upperHalf); // nearer working layer kept
    EXPECT_NEAR(t.workingDepth[1], 1.25f, 1e-4 * std::fabs(1.25f));
    EXPECT_EQ(t.coverageMask[2], 0u);        // behind the merged finished layer
    EXPECT_NEAR(t.referenceDepth[2], 1.0f, 1e-4 * std::fabs(1.0f));

    t = tile(*a, 0, 1); // untouched in both
    EXPECT_EQ(t.referenceDepth[0], -1.0f);
    EXPECT_EQ(t.workingDepth[0], FLT_MAX);

    // Merging into a smaller buffer reads only what both have.
    auto small = makeMoc(32, 4);
    small->MergeBuffer(a.get());
    t = tile(*small, 0, 0);
    EXPECT_NEAR(t.referenceDepth[0], 0.25f, 1e-4 * std::fabs(0.25f));
}

TEST(MaskedOcclusionCulling, CoverageMatchesReferenceExactly) {
    // Random triangles, on and off a 96 x 40 screen, one at a time on a
    // cleared buffer: each subtile holds exactly the reference's pixels,
    // either as a partial mask or promoted when all 32 are covered.
    const int w = 96, h = 40;
    auto m = makeMoc(w, h);
    std::mt19937 rng(1234);
    std::uniform_int_distribution<int> coordX(-40, w + 40), coordY(-20, h + 20), small(0, 6);
    int fullSubtiles = 0, partialSubtiles = 0;
    for (int trial = 0; trial < 1500; ++trial) {
        Tri t;
        for (int k = 0; k < 3; ++k) {
            t.x[k] = coordX(rng);
            t.y[k] = coordY(rng);
            t.w[k] = 1.0f;
        }
        if (trial % 3 == 1) { // small or thin ones
            for (int k = 1; k < 3; ++k) {
                t.x[k] = t.x[0] + small(rng) - 3;
                t.y[k] = t.y[0] + (trial % 2 ? small(rng) * 9 : small(rng)) - 3;
            }
        }
        m->ClearBuffer();
        render(*m, {t});
        const ScreenTriangle s = t.screen();
        for (int ty = 0; ty < h / 4; ++ty)
            for (int tx = 0; tx < w / 32; ++tx) {
                const Moc::TileData d = tile(*m, tx, ty);
                for (int lane = 0; lane < 4; ++lane) {
                    const uint32_t expected = referenceMask(s, tx, ty, lane);
                    if (expected == 0xFFFFFFFFu) {
                        ++fullSubtiles;
                        ASSERT_NEAR(d.referenceDepth[lane], 1.0f, 1e-4) << trial;
                        ASSERT_EQ(d.coverageMask[lane], 0u);
                    } else {
                        partialSubtiles += expected != 0;
                        ASSERT_EQ(d.coverageMask[lane], expected) << "trial " << trial << " tile " << tx << "," << ty;
                        ASSERT_EQ(d.referenceDepth[lane], -1.0f);
                    }
                }
            }
    }
    EXPECT_GT(fullSubtiles, 1000);
    EXPECT_GT(partialSubtiles, 1000);
}

TEST(MaskedOcclusionCulling, SharedEdgesFillSubtiles) {
    // Quads split along diagonals that pass through pixel centres (slope 1
    // and 1/3): the two halves claim each centre once, so every subtile the
    // quad covers is promoted.
    auto m = makeMoc(64, 16);
    render(*m, {{{0, 32, 32}, {0, 0, 16}, {2, 2, 2}}, {{0, 32, 0}, {0, 16, 16}, {2, 2, 2}}});
    render(*m, {{{32, 64, 32}, {0, 16, 16}, {2, 2, 2}}, {{32, 64, 64}, {0, 0, 16}, {2, 2, 2}}});
    for (int ty = 0; ty < 4; ++ty)
        for (int tx = 0; tx < 2; ++tx) {
            const Moc::TileData d = tile(*m, tx, ty);
            for (int lane = 0; lane < 4; ++lane) {
                EXPECT_NEAR(d.referenceDepth[lane], 0.5f, 1e-4) << tx << "," << ty << "," << lane;
                EXPECT_EQ(d.coverageMask[lane], 0u);
            }
        }
}

TEST(MaskedOcclusionCulling, RandomScenesAreConservative) {
    const int w = 128, h = 64;
    std::mt19937 rng(77);
    std::uniform_int_distribution<int> coordX(-30, w + 30), coordY(-30, h + 30);
    std::uniform_real_distribution<float> depth(1.0f, 20.0f), unit(-1.2f, 1.2f), wDist(0.5f, 25.0f);
    int occluded = 0, visible = 0;
    for (int scene = 0; scene < 40; ++scene) {
        auto m = makeMoc(w, h);
        ReferenceRasterizer ref(w, h);
        std::vector<Tri> tris;
        for (int i = 0; i < 60; ++i) {
            Tri t;
            for (int k = 0; k < 3; ++k) {
                t.x[k] = coordX(rng);
                t.y[k] = coordY(rng);
                t.w[k] = depth(rng);
            }
            tris.push_back(t);
            ref.draw(t.screen());
        }
        // Batches of varying size, the tail not a multiple of four.
        for (size_t first = 0; first < tris.size(); first += 7)
            render(*m, std::vector<Tri>(tris.begin() + first, tris.begin() + std::min(tris.size(), first + 7)));

        // Every finished subtile lies behind the geometry at all its pixels.
        for (int ty = 0; ty < h / 4; ++ty)
            for (int tx = 0; tx < w / 32; ++tx) {
                const Moc::TileData d = tile(*m, tx, ty);
                for (int lane = 0; lane < 4; ++lane) {
                    const double r = d.referenceDepth[lane];
                    if (r == -1.0) continue;
                    for (int y = 0; y < 4; ++y)
                        for (int x = 0; x < 8; ++x) {
                            const double px = ref.depth(tx * 32 + lane * 8 + x, ty * 4 + y);
                            ASSERT_LE(r, px + 1e-5 * std::fabs(px)) << scene;
                        }
                }
            }

        // Rectangles reported hidden are behind the reference at every pixel
        // the rectangle touches.
        for (int q = 0; q < 300; ++q) {
            float x0 = unit(rng), x1 = unit(rng), y0 = unit(rng), y1 = unit(rng);
            if (x0 > x1) std::swap(x0, x1);
            if (y0 > y1) std::swap(y0, y1);
            if (q % 2) { // mostly small ones
                x1 = x0 + (x1 - x0) * 0.1f;
                y1 = y0 + (y1 - y0) * 0.1f;
            }
            const float wmin = wDist(rng);
            const int result = m->TestRect(x0, y0, x1, y1, wmin);
            if (result != Moc::Occluded) {
                ++visible;
                continue;
            }
            ++occluded;
            const double zNear = 1.0 / wmin;
            const auto px = [&](float ndc, float half) {
                return std::min(std::max(int(std::trunc(std::fma(half, ndc, half))), 0), int(2 * half) - 1);
            };
            const int i0 = px(x0, w * 0.5f), i1 = px(x1, w * 0.5f);
            const int j0 = px(-y1, h * 0.5f), j1 = px(-y0, h * 0.5f);
            for (int j = j0; j <= j1; ++j)
                for (int i = i0; i <= i1; ++i)
                    ASSERT_GE(ref.depth(i, j), zNear * (1 - 1e-5)) << scene << " " << q;
        }
    }
    EXPECT_GT(occluded, 500);
    EXPECT_GT(visible, 500);
}
