#include "util/MaskedOcclusionCulling.h"

#include "common/AlignedAlloc.h"
#include "support/ReferenceRasterizer.h"

#include <gtest/gtest.h>

#include <array>
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
bool drawnAt(const Moc& m, int i, int j) {
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

namespace {

// Renders clip-space triangles given as (x, y, w) triples.
int renderClip(Moc& m, const std::vector<std::array<float, 9>>& tris, Moc::ClipPlanes clip,
               Moc::BackfaceWinding winding = Moc::WindingKeepBoth) {
    std::vector<float> v;
    std::vector<uint16_t> idx;
    for (const auto& t : tris)
        for (int k = 0; k < 3; ++k) {
            idx.push_back(uint16_t(v.size() / 4));
            v.insert(v.end(), {t[3 * k], t[3 * k + 1], 0.0f, t[3 * k + 2]});
        }
    return m.RenderTriangles(v.data(), idx.data(), int(tris.size()), nullptr, winding, clip, kPacked);
}

std::vector<Moc::TileData> allTiles(const Moc& m) {
    std::vector<Moc::TileData> tiles;
    Moc::TileData t;
    for (int ty = 0; m.ReadTile(0, ty, t); ++ty)
        for (int tx = 0; m.ReadTile(tx, ty, t); ++tx) tiles.push_back(t);
    return tiles;
}

bool sameTiles(const Moc& a, const Moc& b) {
    const auto ta = allTiles(a), tb = allTiles(b);
    return ta.size() == tb.size() && std::memcmp(ta.data(), tb.data(), ta.size() * sizeof(Moc::TileData)) == 0;
}

// Same masks; depths equal up to rounding (for the same triangles given
// with their vertices in another cyclic order).
void expectSameCoverage(const Moc& a, const Moc& b) {
    const auto ta = allTiles(a), tb = allTiles(b);
    ASSERT_EQ(ta.size(), tb.size());
    for (size_t i = 0; i < ta.size(); ++i)
        for (int lane = 0; lane < 4; ++lane) {
            EXPECT_EQ(ta[i].coverageMask[lane], tb[i].coverageMask[lane]) << i;
            EXPECT_NEAR(ta[i].referenceDepth[lane], tb[i].referenceDepth[lane], 1e-6f) << i;
            EXPECT_NEAR(ta[i].workingDepth[lane], tb[i].workingDepth[lane], tb[i].workingDepth[lane] * 1e-6f) << i;
        }
}

} // namespace

TEST(MaskedOcclusionCulling, ClippingAgainstEachPlane) {
    const int w = 128, h = 64;
    auto m = makeMoc(w, h);
    // One vertex far beyond each side plane in turn; the drawn pixels follow
    // the unclipped triangle to within a pixel (clipped vertices snap anew).
    const Tri crossing[4] = {
        {{-300, 100, 60}, {30, 10, 55}, {1, 1, 1}},  // left
        {{20, 500, 60}, {10, 30, 60}, {1, 1, 1}},    // right
        {{10, 120, 64}, {50, 20, 250}, {1, 1, 1}},   // bottom
        {{10, 120, 70}, {40, 50, -200}, {1, 1, 1}},  // top
    };
    for (const Tri& t : crossing) {
        m->ClearBuffer();
        EXPECT_EQ(render(*m, {t}, Moc::WindingKeepBoth, Moc::ClipAll), Moc::Visible);
        const ScreenTriangle s = t.screen();
        int inside = 0;
        for (int j = 0; j < h; ++j)
            for (int i = 0; i < w; ++i) {
                const double d = ReferenceRasterizer::insideDistance(s, i, j);
                if (drawnAt(*m, i, j)) {
                    EXPECT_GT(d, -1.0) << i << "," << j;
                }
                if (d > 1.0) {
                    EXPECT_TRUE(drawnAt(*m, i, j)) << i << "," << j;
                    ++inside;
                }
            }
        EXPECT_GT(inside, 300);
    }

    // Wholly outside one plane: dropped before rasterization.
    m->ClearBuffer();
    EXPECT_EQ(renderClip(*m, {{-3, 0, 1, -2, 0.5f, 1, -4, -0.5f, 1}}, Moc::ClipAll), Moc::OutsideView);
    EXPECT_EQ(renderClip(*m, {{0, 2, 1, 0.5f, 3, 1, -0.5f, 2.5f, 1}}, Moc::ClipAll), Moc::OutsideView); // above the top
    // Inside the one-pixel guard band but off screen: clipping keeps the
    // triangles (vertices in another cyclic order), so the buffer matches
    // drawing without clipping; the lane that was inside all along goes
    // through the ring too.
    auto unclipped = makeMoc(w, h);
    const std::vector<Tri> edgy = {{{-1, 40, 10}, {5, 20, 60}, {1, 2, 4}},
                                   {{30, 90, 60}, {-1, 40, 65}, {2, 2, 3}},
                                   {{100, 129, 129}, {0, 10, 65}, {1, 1, 1}}};
    m->ClearBuffer();
    EXPECT_EQ(render(*m, edgy, Moc::WindingKeepBoth, Moc::ClipAll), Moc::Visible);
    render(*unclipped, edgy);
    expectSameCoverage(*m, *unclipped);
}

TEST(MaskedOcclusionCulling, NearPlaneAndRing) {
    const int w = 128, h = 64;
    auto m = makeMoc(w, h);
    m->SetNearClipPlane(0.5f);
    // Every vertex nearer than the near plane: dropped.
    EXPECT_EQ(renderClip(*m, {{-0.1f, -0.1f, 0.3f, 0.1f, -0.1f, 0.3f, 0, 0.1f, 0.4f}}, Moc::ClipAll), Moc::OutsideView);
    // A floor running from w = 4 to behind the eye: y = -1 everywhere, so it
    // covers the screen below ndc y = -1/4 and comes nearer toward the bottom.
    EXPECT_EQ(renderClip(*m, {{-4, -1, 4, 4, -1, 4, 0, -1, -2}}, Moc::ClipAll), Moc::Visible);
    const Moc::TileData horizon = tile(*m, 1, 11), bottom = tile(*m, 1, 15), sky = tile(*m, 1, 8);
    EXPECT_GT(bottom.referenceDepth[3], horizon.referenceDepth[3]);
    EXPECT_GT(horizon.referenceDepth[3], 0.25f * 0.99f);
    EXPECT_LT(bottom.referenceDepth[3], 1e6f);
    EXPECT_EQ(sky.referenceDepth[3], -1.0f);
    EXPECT_EQ(sky.coverageMask[3], 0u);
    for (const Moc::TileData& t : allTiles(*m))
        for (float r : t.referenceDepth) EXPECT_FALSE(std::isnan(r));

    // Four screen-covering triangles crossing all four side planes: each is
    // cut down to the guard-band rectangle, two triangles in the ring apiece;
    // every subtile ends up finished at depth 1.
    m->ClearBuffer();
    const std::array<float, 9> huge = {-20, -20, 1, 20, -20, 1, 0, 30, 1};
    EXPECT_EQ(renderClip(*m, {huge, huge, huge, huge}, Moc::ClipAll), Moc::Visible);
    for (const Moc::TileData& t : allTiles(*m))
        for (int lane = 0; lane < 4; ++lane) {
            EXPECT_NEAR(t.referenceDepth[lane], 1.0f, 1e-4);
            EXPECT_EQ(t.coverageMask[lane], 0u);
        }
    // Without clipping the same triangle is beyond what is rasterized and
    // is skipped rather than drawn wrongly.
    m->ClearBuffer();
    EXPECT_EQ(renderClip(*m, {{-2000, -2000, 1, 2000, -2000, 1, 0, 3000, 1}}, Moc::ClipNone), Moc::Visible);
    EXPECT_EQ(tile(*m, 2, 8).referenceDepth[0], -1.0f);
}

TEST(MaskedOcclusionCulling, WindingAndResults) {
    auto m = makeMoc(64, 32);
    // Screen y down: (0,0), (0,20), (40,0) has area (x1-x2)(y0-y2) -
    // (x2-x0)(y2-y1) = 800 > 0; the reverse order has -800.
    const Tri positive = {{0, 0, 40}, {0, 20, 0}, {2, 2, 2}};
    const Tri negative = {{0, 40, 0}, {0, 0, 20}, {2, 2, 2}};
    EXPECT_EQ(render(*m, {negative}, Moc::WindingKeepPositive), Moc::OutsideView);
    EXPECT_EQ(tile(*m, 0, 0).referenceDepth[0], -1.0f);
    EXPECT_EQ(render(*m, {positive}, Moc::WindingKeepPositive), Moc::Visible);
    const auto drawnPositive = allTiles(*m);
    EXPECT_NEAR(drawnPositive[0].referenceDepth[0], 0.5f, 1e-4);

    m->ClearBuffer();
    EXPECT_EQ(render(*m, {positive}, Moc::WindingKeepNonPositive), Moc::OutsideView);
    EXPECT_EQ(render(*m, {negative}, Moc::WindingKeepNonPositive), Moc::Visible);
    // Either orientation covers the same pixels.
    EXPECT_EQ(std::memcmp(allTiles(*m).data(), drawnPositive.data(), drawnPositive.size() * sizeof(Moc::TileData)), 0);
    m->ClearBuffer();
    EXPECT_EQ(render(*m, {negative}, Moc::WindingKeepBoth), Moc::Visible);
    EXPECT_EQ(std::memcmp(allTiles(*m).data(), drawnPositive.data(), drawnPositive.size() * sizeof(Moc::TileData)), 0);

    // Zero area: culled by winding 1, kept but invisible with winding 0.
    m->ClearBuffer();
    const Tri flat = {{0, 20, 40}, {0, 10, 20}, {2, 2, 2}};
    EXPECT_EQ(render(*m, {flat}, Moc::WindingKeepPositive), Moc::OutsideView);
    EXPECT_EQ(render(*m, {flat}, Moc::WindingKeepBoth), Moc::Visible);
    for (const Moc::TileData& t : allTiles(*m)) EXPECT_EQ(t.coverageMask[0] | t.coverageMask[1], 0u);

    // Results AND together: one on-screen triangle among off-screen ones.
    const Tri offscreen = {{100, 140, 100}, {0, 0, 30}, {2, 2, 2}};
    EXPECT_EQ(render(*m, {offscreen, offscreen, offscreen, offscreen, offscreen}), Moc::OutsideView);
    EXPECT_EQ(render(*m, {offscreen, offscreen, offscreen, offscreen, positive}), Moc::Visible);
    const float v[4] = {0, 0, 0, 1};
    const uint16_t idx[3] = {0, 0, 0};
    EXPECT_EQ(m->RenderTriangles(v, idx, 0, nullptr, Moc::WindingKeepBoth, Moc::ClipAll, kPacked), Moc::OutsideView);
    EXPECT_EQ(m->RenderTriangles(v, idx, -5, nullptr, Moc::WindingKeepBoth, Moc::ClipAll, kPacked), Moc::OutsideView);
}

TEST(MaskedOcclusionCulling, VertexLayoutsAndTransformAgree) {
    const int w = 96, h = 48;
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> coord(-1.3f, 1.3f), wDist(1.0f, 10.0f);
    std::vector<float> packed, strided;
    std::vector<uint16_t> idx;
    for (int i = 0; i < 90; ++i) {
        const float x = coord(rng), y = coord(rng), wv = wDist(rng);
        packed.insert(packed.end(), {x * wv, y * wv, 0.0f, wv});
        // stride 24: x at 0, y at 8, w at 20, garbage between
        strided.insert(strided.end(), {x * wv, -7.0f, y * wv, NAN, 1e30f, wv});
    }
    for (int i = 0; i < 30 * 3; ++i) idx.push_back(uint16_t((i * 37) % 90));
    auto a = makeMoc(w, h), b = makeMoc(w, h), c = makeMoc(w, h);
    const int ra = a->RenderTriangles(packed.data(), idx.data(), 30, nullptr, Moc::WindingKeepBoth, Moc::ClipAll, kPacked);
    const int rb = b->RenderTriangles(strided.data(), idx.data(), 30, nullptr, Moc::WindingKeepBoth, Moc::ClipAll,
                                      {24, 8, 20});
    EXPECT_EQ(ra, Moc::Visible);
    EXPECT_EQ(ra, rb);
    EXPECT_TRUE(sameTiles(*a, *b));
    // A modelToClip matrix applied to (x, y, 0, w): swapping x and y twice
    // is the identity on the picture; once, it mirrors it.
    const float swapXY[16] = {0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    std::vector<float> swapped = packed;
    for (size_t i = 0; i < swapped.size(); i += 4) std::swap(swapped[i], swapped[i + 1]);
    c->RenderTriangles(swapped.data(), idx.data(), 30, swapXY, Moc::WindingKeepBoth, Moc::ClipAll, kPacked);
    EXPECT_TRUE(sameTiles(*a, *c));
}

TEST(MaskedOcclusionCulling, TestRectArithmetic) {
    const int w = 128, h = 64;
    auto m = makeMoc(w, h);
    // Cleared: anything on screen in front of the eye is visible.
    EXPECT_EQ(m->TestRect(-0.5f, -0.5f, 0.5f, 0.5f, 3.0f), Moc::Visible);
    // wmin in (-1, 0) makes 1/wmin < -1, below the cleared depth: reads hidden.
    EXPECT_EQ(m->TestRect(-0.5f, -0.5f, 0.5f, 0.5f, -0.5f), Moc::Occluded);
    EXPECT_EQ(m->TestRect(-0.5f, -0.5f, 0.5f, 0.5f, 0.0f), Moc::Visible); // 1/0 = +inf
    // Wholly left of the screen: clamped onto column 0 and still tested.
    EXPECT_EQ(m->TestRect(-3.0f, -0.5f, -2.0f, 0.5f, 3.0f), Moc::Visible);
    // Inverted by more than a tile: x pixels 76 .. 51 give tile bounds 64 .. 64.
    EXPECT_EQ(m->TestRect(0.2f, -0.5f, -0.2f, 0.5f, 3.0f), Moc::OutsideView);
    // Inverted by less than a tile still tests something.
    EXPECT_EQ(m->TestRect(0.1f, -0.5f, 0.05f, 0.5f, 3.0f), Moc::Visible);

    // Subtile 0 of tile 0 finished at 0.5; subtile 1 only partly covered.
    render(*m, {{{0, 16, 0}, {0, 0, 8}, {2, 2, 2}}});
    ASSERT_NEAR(tile(*m, 0, 0).referenceDepth[0], 0.5f, 1e-4);
    ASSERT_NE(tile(*m, 0, 0).coverageMask[1], 0u);
    // Exactly pixels [0, 8) x [0, 4): x = -1 .. (7.5 - 64) / 64, y = 1 .. (32 - 3.5) / 32.
    const float x1 = (7.5f - 64.0f) / 64.0f, y0 = (32.0f - 3.5f) / 32.0f;
    EXPECT_EQ(m->TestRect(-1.0f, y0, x1, 1.0f, 4.0f), Moc::Occluded); // 0.25 behind 0.5
    EXPECT_EQ(m->TestRect(-1.0f, y0, x1, 1.0f, 2.0f), Moc::Visible);  // level with it
    EXPECT_EQ(m->TestRect(-1.0f, y0, x1, 1.0f, 1.0f), Moc::Visible);  // in front
    // One pixel more reaches subtile 1, whose covering layer is unfinished.
    EXPECT_EQ(m->TestRect(-1.0f, y0, (8.5f - 64.0f) / 64.0f, 1.0f, 4.0f), Moc::Visible);
    // One more row reaches tile row 1, untouched.
    EXPECT_EQ(m->TestRect(-1.0f, (32.0f - 4.5f) / 32.0f, x1, 1.0f, 4.0f), Moc::Visible);
}

TEST(MaskedOcclusionCulling, QueryBoxes) {
    const int w = 128, h = 64;
    auto m = makeMoc(w, h);
    // clip = (x, y, 0, z): w is the box's z, the screen spans x/z, y/z in [-1, 1].
    common::Matrix4x4 mvp = common::Matrix4x4::zero();
    mvp.columns[0] = common::make4(1, 0, 0, 0);
    mvp.columns[1] = common::make4(0, 1, 0, 0);
    mvp.columns[2] = common::make4(0, 0, 0, 1);
    m->SetModelViewProjection(mvp);
    const float lo[3] = {-0.2f, -0.2f, 3.0f}, hi[3] = {0.2f, 0.2f, 4.0f};
    EXPECT_TRUE(m->Query(lo, hi));
    // A wall at w = 2 over the middle of the screen hides it ...
    const std::vector<Tri> wall = {{{16, 112, 112}, {8, 8, 56}, {2, 2, 2}}, {{16, 112, 16}, {8, 56, 56}, {2, 2, 2}}};
    render(*m, wall);
    EXPECT_FALSE(m->Query(lo, hi));
    // ... but not a box reaching in front of it, nor one beside it.
    const float nearLo[3] = {-0.2f, -0.2f, 1.5f};
    EXPECT_TRUE(m->Query(nearLo, hi));
    const float sideLo[3] = {-3.5f, -0.2f, 3.0f}, sideHi[3] = {-3.3f, 0.2f, 4.0f};
    EXPECT_TRUE(m->Query(sideLo, sideHi));
    // A wall behind the box does not hide it.
    m->ClearBuffer();
    render(*m, {{{16, 112, 112}, {8, 8, 56}, {8, 8, 8}}, {{16, 112, 16}, {8, 56, 56}, {8, 8, 8}}});
    EXPECT_TRUE(m->Query(lo, hi));
    // Reaching behind the eye (z from -0.5): no clipping, 1/wmin = -2 is
    // behind even the cleared buffer, so the box reads hidden.
    m->ClearBuffer();
    const float behindLo[3] = {-0.2f, -0.2f, -0.5f};
    EXPECT_FALSE(m->Query(behindLo, hi));
}

TEST(MaskedOcclusionCulling, FourArgumentRenderReusesItsBuffer) {
    CountingAlloc::allocations = CountingAlloc::frees = 0;
    Moc* m = Moc::Create(CountingAlloc::alloc, CountingAlloc::release);
    m->SetResolution(64, 32);
    m->ClearBuffer();
    m->SetNearClipPlane(0.1f);
    common::Matrix4x4 mvp = common::Matrix4x4::identity();
    mvp.columns[2] = common::make4(0, 0, 0, 1); // w = z
    mvp.columns[3] = common::make4(0, 0, 0, 0);
    m->SetModelViewProjection(mvp);
    // A square at z = 2 spanning x, y in [-1, 1]: ndc [-0.5, 0.5].
    const float square[12] = {-1, -1, 2, 1, -1, 2, 1, 1, 2, -1, 1, 2};
    const uint16_t twoTris[6] = {0, 1, 2, 0, 2, 3};
    EXPECT_EQ(m->RenderTriangles(square, twoTris, 4, 2), Moc::Visible);
    const int afterFirst = CountingAlloc::allocations;
    EXPECT_EQ(afterFirst, 3); // object, tiles, vertices
    EXPECT_EQ(m->RenderTriangles(square, twoTris, 4, 2), Moc::Visible);
    EXPECT_EQ(CountingAlloc::allocations, afterFirst);
    // The square's middle tile row is finished at depth 1/2.
    EXPECT_NEAR(tile(*m, 0, 4).referenceDepth[2], 0.5f, 1e-4);
    EXPECT_NEAR(tile(*m, 1, 5).referenceDepth[1], 0.5f, 1e-4);
    EXPECT_EQ(tile(*m, 0, 0).referenceDepth[2], -1.0f);

    // Indices past the vertex count read zero vertices, drawn as nothing.
    const uint16_t wild[6] = {0, 1, 9000, 0, 2, 3};
    m->ClearBuffer();
    m->RenderTriangles(square, wild, 4, 2);
    EXPECT_EQ(CountingAlloc::allocations, afterFirst + 1); // grown once to 9001 vertices
    EXPECT_EQ(tile(*m, 1, 5).referenceDepth[1], -1.0f); // the lower right half is gone
    EXPECT_NEAR(tile(*m, 0, 4).referenceDepth[2], 0.5f, 1e-4); // the upper left half is not
    m->RenderTriangles(square, twoTris, -3, 2);            // a negative count transforms nothing
    m->RenderTriangles(square, wild, 4, 2);
    EXPECT_EQ(CountingAlloc::allocations, afterFirst + 1);
    Moc::Destroy(m);
    EXPECT_EQ(CountingAlloc::frees, CountingAlloc::allocations);
}

TEST(MaskedOcclusionCulling, HostileInputStaysInBounds) {
    // Under the address sanitizer: garbage vertices, matrices, layouts and
    // planes neither crash nor hang, and never put NaN into the buffer.
    std::mt19937 rng(99);
    const float specials[] = {NAN, INFINITY, -INFINITY, 1e30f, -1e30f, 3e38f, 0.0f, -0.0f, 1e-30f, 1e-40f, 1.0f, -1.0f};
    std::uniform_int_distribution<int> pickSpecial(0, int(sizeof(specials) / sizeof(float)) - 1), coin(0, 3);
    std::uniform_real_distribution<float> ordinary(-3.0f, 3.0f);
    const auto value = [&] { return coin(rng) == 0 ? specials[pickSpecial(rng)] : ordinary(rng) * (coin(rng) ? 1.0f : 5000.0f); };
    const unsigned sizes[][2] = {{1, 1}, {8, 4}, {33, 5}, {96, 40}, {200, 120}};
    for (int round = 0; round < 150; ++round) {
        auto m = makeMoc(sizes[round % 5][0], sizes[round % 5][1]);
        m->SetNearClipPlane(round % 7 == 0 ? value() : 0.1f);
        const int vertexCount = 24;
        std::vector<float> v(vertexCount * 6);
        for (float& f : v) f = value();
        std::vector<uint16_t> idx(3 * 13);
        for (uint16_t& i : idx) i = uint16_t(rng() % vertexCount);
        float matrix[16];
        for (float& f : matrix) f = coin(rng) ? value() : 0.0f;
        const auto winding = Moc::BackfaceWinding(round % 3);
        const auto clip = Moc::ClipPlanes(round % 4 == 0 ? 0 : int(rng() % 32));
        m->RenderTriangles(v.data(), idx.data(), 13, nullptr, winding, clip, kPacked);
        m->RenderTriangles(v.data(), idx.data(), 13, matrix, winding, clip, {24, 4, 20});
        m->SetModelViewProjection(common::Matrix4x4::fromColumnMajor(matrix));
        m->RenderTriangles(v.data(), idx.data(), vertexCount * 2, 13);
        m->RenderTriangles(v.data(), idx.data(), vertexCount, 13);
        for (const Moc::TileData& t : allTiles(*m))
            for (int lane = 0; lane < 4; ++lane) {
                ASSERT_FALSE(std::isnan(t.referenceDepth[lane])) << round;
                ASSERT_FALSE(std::isnan(t.workingDepth[lane])) << round;
            }
        const float lo[3] = {value(), value(), value()}, hi[3] = {value(), value(), value()};
        m->Query(lo, hi);
        m->TestRect(value(), value(), value(), value(), value());
        auto other = makeMoc(sizes[(round + 1) % 5][0], sizes[(round + 1) % 5][1]);
        m->MergeBuffer(other.get());
    }
}
