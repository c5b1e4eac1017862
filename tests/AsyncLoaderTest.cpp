// The background loader: levels of detail, the queueing rules, the worker's
// lifetime, what the baked levels keep of real meshes, and the engine around it.
#include "common/AsyncLoader.h"
#include "common/OccluderBaker.h"
#include "engine/ZELKPrivate.h"
#include "support/CityScene.h"
#include "support/MeshLoader.h"
#include "support/ReferenceRapidRasterizer.h"
#include "zelk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <numeric>
#include <random>
#include <set>
#include <thread>

using common::AsyncLoader;
using common::CacheManager;
using common::Occluder;
using common::OccluderRaw;
using namespace testing_support;

namespace {

const float kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
const float kParams[4] = {};

float bump(int i, int j) { return 0.1f * std::sin(0.7f * float(i)) * std::cos(0.9f * float(j)); }

// w x h vertices one unit apart in x and y, gently bumped in z (0.1 at most,
// well inside the pairing tolerance of the quad decomposition, so every cell
// can become one quad): 2 (w - 1)(h - 1) triangles.
Mesh bumpyGrid(int w, int h) {
    Mesh m;
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) m.vertices.insert(m.vertices.end(), {float(i), float(j), bump(i, j)});
    for (int j = 0; j + 1 < h; ++j)
        for (int i = 0; i + 1 < w; ++i) {
            const uint16_t a = uint16_t(j * w + i), b = uint16_t(a + 1), c = uint16_t(a + w), d = uint16_t(c + 1);
            m.indices.insert(m.indices.end(), {a, b, d, a, d, c});
        }
    return m;
}

OccluderRaw record(const Mesh& m, const uint16_t* indices = nullptr) {
    const auto identity = common::Matrix4x4::fromColumnMajor(kIdentity);
    OccluderRaw r;
    static_cast<common::MeshRef&>(r) = {m.vertices.data(), m.vertexCount(), indices ? indices : m.indices.data(),
                                        m.indexCount()};
    r.model = identity;
    r.rigid = true;
    return r;
}

void submit(const Mesh& m, const float* model = kIdentity, RigidType type = ZELK_RIGID) {
    zelkSubmitOccluder(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(), type, model);
}

bool cached(const CacheManager& cache, const Mesh& m) { return bool(cache.get({m.vertices.data(), m.indices.data()})); }

// Polls until the condition holds (or ten seconds pass, a hang in disguise).
template <class Condition> bool eventually(Condition condition) {
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10); !condition();
         std::this_thread::sleep_for(std::chrono::milliseconds(1)))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

// The levels of a group, most detailed first, told apart by the screen
// fractions that select them.
std::vector<std::shared_ptr<Occluder>> levels(const common::OccluderGroup& g) {
    std::vector<std::shared_ptr<Occluder>> out;
    for (float fraction : {0.9f, 0.3f, 0.1f})
        if (auto o = g.getOccluder(fraction); o && (out.empty() || out.back() != o)) out.push_back(o);
    return out;
}

using P3 = std::array<double, 3>;
P3 sub(P3 a, P3 b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
double dot(P3 a, P3 b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
P3 cross(P3 a, P3 b) { return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]}; }

// The distinct vertices of a baked level, decoded from the packed format
// (X:11 | Y:11 | Z:10 bits across [refMin, refMax]).
std::vector<P3> decode(const Occluder& o) {
    std::set<uint32_t> words;
    for (const common::int4& v : o.packedVertices)
        for (int l = 0; l < 4; ++l) words.insert(uint32_t(common::lane(v, l)));
    const auto at = [&](int axis, double f) {
        return common::lane(o.refMin, axis) + f * (common::lane(o.refMax, axis) - common::lane(o.refMin, axis));
    };
    std::vector<P3> out;
    for (uint32_t w : words)
        out.push_back({at(0, (w >> 21) / 2047.0), at(1, ((w >> 10) & 0x7FF) / 2047.0), at(2, (w & 0x3FF) / 1023.0)});
    return out;
}

double pointSegment(P3 p, P3 a, P3 b) {
    const P3 ab = sub(b, a), ap = sub(p, a);
    const double t = dot(ab, ab) > 0 ? std::clamp(dot(ap, ab) / dot(ab, ab), 0.0, 1.0) : 0.0;
    const P3 d = {ap[0] - t * ab[0], ap[1] - t * ab[1], ap[2] - t * ab[2]};
    return std::sqrt(dot(d, d));
}

// Distance from p to triangle abc: to its plane when p projects inside it,
// else to the nearest edge.
double pointTriangle(P3 p, P3 a, P3 b, P3 c) {
    const P3 n = cross(sub(b, a), sub(c, a));
    if (dot(n, n) > 0 && dot(cross(sub(b, a), sub(p, a)), n) >= 0 && dot(cross(sub(c, b), sub(p, b)), n) >= 0 &&
        dot(cross(sub(a, c), sub(p, c)), n) >= 0)
        return std::abs(dot(sub(p, a), n)) / std::sqrt(dot(n, n));
    return std::min({pointSegment(p, a, b), pointSegment(p, b, c), pointSegment(p, c, a)});
}

// Whether every point lies within a fraction of the diagonal of m from its
// surface, by brute force over the triangles in shuffled order: files keep
// neighbours together, so in file order a point would meet its own late.
bool onSurface(const Mesh& m, const std::vector<P3>& points, double fraction) {
    P3 lo = {INFINITY, INFINITY, INFINITY}, hi = {-INFINITY, -INFINITY, -INFINITY};
    for (size_t i = 0; i < m.vertices.size(); ++i) {
        lo[i % 3] = std::min(lo[i % 3], double(m.vertices[i]));
        hi[i % 3] = std::max(hi[i % 3], double(m.vertices[i]));
    }
    const double limit = fraction * std::sqrt(dot(sub(hi, lo), sub(hi, lo)));
    std::vector<size_t> order(m.indices.size() / 3);
    std::iota(order.begin(), order.end(), size_t(0));
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    const auto corner = [&](size_t t, size_t k) {
        const float* v = &m.vertices[3 * size_t(m.indices[3 * t + k])];
        return P3{v[0], v[1], v[2]};
    };
    return std::all_of(points.begin(), points.end(), [&](const P3& p) {
        return std::any_of(order.begin(), order.end(), [&](size_t t) {
            return pointTriangle(p, corner(t, 0), corner(t, 1), corner(t, 2)) < limit;
        });
    });
}

} // namespace

TEST(AsyncLoader, LevelsFollowTheVertexCount) {
    // Targets are trunc(ratio x vertexCount) in float with ratios 0.55, 0.35,
    // 0.15: 1,000 vertices give 550 and 350 (150 is under 300: the mesh
    // itself), 3,000 give 1,650, 1,050 and 450; 500 give 275, so one level.
    struct Case {
        int w, h;
        std::vector<uint32_t> targets; // 0: the unsimplified mesh
    };
    for (const Case& c : {Case{25, 20, {0}}, Case{40, 25, {550, 350, 0}}, Case{60, 50, {1650, 1050, 450}}}) {
        const Mesh m = bumpyGrid(c.w, c.h);
        SCOPED_TRACE(m.vertexCount());
        AsyncLoader loader;
        auto cache = std::make_shared<CacheManager>();
        loader.setCacheMgr(cache);
        loader.load(record(m));
        const auto group = cache->get({m.vertices.data(), m.indices.data()});
        ASSERT_TRUE(group);
        const auto baked = levels(*group);
        ASSERT_EQ(c.targets.size(), baked.size());

        std::vector<common::float4> vertices;
        std::vector<uint32_t> indices;
        for (unsigned lod = 0; lod < c.targets.size(); ++lod) {
            const uint32_t target = c.targets[lod];
            EXPECT_EQ(target == 0, common::OccluderBaker::levelMesh(record(m), lod, vertices, indices)) << lod;
            if (ZELK_CONSERVATIVE) {
                // The same levels, each reduced within its error bound.
                EXPECT_LT(indices.size(), m.indices.size()) << lod;
                if (lod > 0) {
                    EXPECT_LE(baked[lod]->packedVertices.size(), baked[lod - 1]->packedVertices.size());
                }
            } else if (target == 0) {
                ASSERT_EQ(m.vertexCount(), vertices.size());
                EXPECT_EQ(std::vector<uint32_t>(m.indices.begin(), m.indices.end()), indices);
                EXPECT_EQ(bump(3, 1), common::lane<2>(vertices[c.w + 3])); // vertex (3, 1), as given
                EXPECT_EQ(1.0f, common::lane<3>(vertices[c.w + 3]));
                // Every cell pairs into one quad, one packed vector of four
                // words per quad (456 and 936 fill whole batches), quantised
                // in the box of the mesh itself: x 0..w-1, y 0..h-1.
                EXPECT_EQ(size_t(c.w - 1) * size_t(c.h - 1), baked[lod]->packedVertices.size());
                EXPECT_EQ(0.0f, common::lane<0>(baked[lod]->refMin));
                EXPECT_EQ(float(c.w - 1), common::lane<0>(baked[lod]->refMax));
                EXPECT_EQ(float(c.h - 1), common::lane<1>(baked[lod]->refMax));
            } else {
                // The reducer stops at or below its target (a pass may
                // overshoot); these smooth grids land within a third of it.
                EXPECT_LE(indices.size() / 3, target) << lod;
                EXPECT_GE(indices.size() / 3, target * 2 / 3) << lod;
                EXPECT_LT(vertices.size(), m.vertexCount());
                if (lod > 0) {
                    EXPECT_LT(baked[lod]->packedVertices.size(), baked[lod - 1]->packedVertices.size());
                }
            }
        }
    }
}

// A tilted open grid through the loader's own level function: 64 x 32 cells
// of 0.25 at z = -10 - (y + 4) / 4, counter-clockwise from +z. The share of
// its outline, [-8, 8] x [-4, 4] seen along z, that each level still covers,
// sampled at 64 x 64 points per unit square.
TEST(AsyncLoader, TiltedOpenGridKeepsItsArea) {
    Mesh m;
    for (int j = 0; j <= 32; ++j)
        for (int i = 0; i <= 64; ++i) {
            const float x = -8.0f + 0.25f * float(i), y = -4.0f + 0.25f * float(j);
            m.vertices.insert(m.vertices.end(), {x, y, -10.0f - 0.25f * (y + 4.0f)});
        }
    for (int j = 0; j < 32; ++j)
        for (int i = 0; i < 64; ++i) {
            const auto a = uint16_t(j * 65 + i), b = uint16_t(a + 1), c = uint16_t(a + 65), d = uint16_t(c + 1);
            m.indices.insert(m.indices.end(), {a, b, d, a, d, c});
        }
    constexpr int kPerUnit = 64, kWidth = 16 * kPerUnit, kHeight = 8 * kPerUnit;
    const auto kept = [&](const std::vector<common::float4>& vertices, const std::vector<uint32_t>& indices) {
        std::vector<uint8_t> covered(size_t(kWidth) * kHeight, 0);
        for (size_t t = 0; t + 2 < indices.size(); t += 3) {
            double x[3], y[3]; // in samples; sample (i, j) at (i + 0.5, j + 0.5)
            for (int k = 0; k < 3; ++k) {
                x[k] = (double(common::lane<0>(vertices[indices[t + size_t(k)]])) + 8.0) * kPerUnit;
                y[k] = (double(common::lane<1>(vertices[indices[t + size_t(k)]])) + 4.0) * kPerUnit;
            }
            const double area = (x[1] - x[0]) * (y[2] - y[0]) - (x[2] - x[0]) * (y[1] - y[0]);
            if (area == 0) continue;
            const int i0 = std::max(0, int(std::ceil(std::min({x[0], x[1], x[2]}) - 0.5)));
            const int i1 = std::min(kWidth - 1, int(std::floor(std::max({x[0], x[1], x[2]}) - 0.5)));
            const int j0 = std::max(0, int(std::ceil(std::min({y[0], y[1], y[2]}) - 0.5)));
            const int j1 = std::min(kHeight - 1, int(std::floor(std::max({y[0], y[1], y[2]}) - 0.5)));
            for (int j = j0; j <= j1; ++j)
                for (int i = i0; i <= i1; ++i) {
                    bool inside = true;
                    for (int k = 0; k < 3; ++k) {
                        const int n = (k + 1) % 3;
                        const double e = (x[n] - x[k]) * (j + 0.5 - y[k]) - (y[n] - y[k]) * (i + 0.5 - x[k]);
                        inside = inside && (area > 0 ? e >= 0 : e <= 0);
                    }
                    if (inside) covered[size_t(j) * kWidth + size_t(i)] = 1;
                }
        }
        return double(std::count(covered.begin(), covered.end(), uint8_t(1))) / double(covered.size());
    };
    // The default build's reduction tears the grid apart: its flip test skips
    // an end that keeps its position and so leaves that end's deleted-triangle
    // flags as the previous test left them; triangles that should stay are
    // dropped and those that should go stay as slivers. Kept on purpose (the
    // default build answers as the reference reduction does); the values were
    // recorded from this code and only lock that behaviour.
    const double recorded[3] = {0.7570, 0.6367, 0.3777};
    std::vector<common::float4> vertices;
    std::vector<uint32_t> indices;
    for (unsigned lod = 0; lod < 3; ++lod) {
        common::OccluderBaker::levelMesh(record(m), lod, vertices, indices);
        const double share = kept(vertices, indices);
#if ZELK_CONSERVATIVE
        EXPECT_GE(share, 0.95) << lod;
        EXPECT_EQ(2u, indices.size() / 3) << lod; // flat: two triangles on the four corners
#else
        EXPECT_NEAR(recorded[lod], share, 0.0005) << lod;
#endif
    }
    (void)recorded;
}

TEST(AsyncLoader, QueuesEachMeshOnceWhilePending) {
    const Mesh m = bumpyGrid(10, 10), other = bumpyGrid(12, 12), tiny = bumpyGrid(3, 3);
    const std::vector<uint16_t> sameVerticesOtherIndices(m.indices.rbegin(), m.indices.rend());
    std::vector<uint16_t> outOfRange = m.indices;
    outOfRange[7] = 100; // one past the last vertex
    auto cache = std::make_shared<CacheManager>();
    AsyncLoader loader;
    loader.setCacheMgr(cache);
    const auto drain = [&] {
        loader.continueThread();
        return eventually([&] { return loader.isEmpty() && loader.isThreadPaused(); });
    };
    // An idle worker pauses itself and then takes nothing until woken.
    ASSERT_TRUE(eventually([&] { return loader.isThreadPaused(); }));
    for (int i = 0; i < 5; ++i) loader.addOccluder(record(m));
    EXPECT_EQ(1u, loader.queueSize());
    for (int i = 0; i < 2; ++i) loader.addOccluder(record(m, sameVerticesOtherIndices.data())); // another mesh
    loader.addOccluder(record(m, outOfRange.data()));
    OccluderRaw noVertices = record(m);
    noVertices.vertices = nullptr;
    loader.addOccluder(noVertices);
    EXPECT_EQ(3u, loader.queueSize());

    ASSERT_TRUE(drain());
    EXPECT_TRUE(cached(*cache, m));
    EXPECT_TRUE(cache->get({m.vertices.data(), sameVerticesOtherIndices.data()}));
    EXPECT_FALSE(cache->get({m.vertices.data(), outOfRange.data()})); // refused by the mesh stages...
    loader.addOccluder(record(m, outOfRange.data()));
    EXPECT_EQ(0u, loader.queueSize());         // ...and never queued again
    loader.load(record(m, outOfRange.data())); // nor baked when handed over directly
    EXPECT_FALSE(cache->get({m.vertices.data(), outOfRange.data()}));
    loader.addOccluder(record(m)); // finished: no longer pending
    EXPECT_EQ(1u, loader.queueSize());
    ASSERT_TRUE(drain());

    // Hundreds of meshes on one vertex array: each queued once, each pending
    // until its own bake (the pending set's deletions keep the others found).
    const std::vector<std::vector<uint16_t>> copies(300, tiny.indices);
    for (int round = 0; round < 2; ++round) {
        for (int pass = 0; pass < 2; ++pass)
            for (const auto& c : copies) loader.addOccluder(record(tiny, c.data()));
        EXPECT_EQ(300u, loader.queueSize());
        ASSERT_TRUE(drain());
    }

    // With the cache gone the bake is skipped and the mesh may come back.
    auto shortLived = std::make_shared<CacheManager>();
    loader.setCacheMgr(shortLived);
    shortLived.reset();
    loader.addOccluder(record(other));
    ASSERT_TRUE(drain());
    loader.addOccluder(record(other));
    EXPECT_EQ(1u, loader.queueSize());
    EXPECT_FALSE(cached(*cache, other));
}

TEST(AsyncLoader, EngineQueuesRigidRawMeshesAndThenDrawsThemCached) {
    const Mesh rigid = bumpyGrid(60, 50), deforming = bumpyGrid(20, 20);
    const float moved[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 5, 0, 0, 1};
    // No whole triangle: baked all the same, into a group that draws nothing,
    // rather than drawn raw for ever.
    const uint16_t twoIndices[2] = {0, 1};
    const common::MeshKey noTriangle{rigid.vertices.data(), twoIndices};
    ASSERT_EQ(1, zelkInit(320, 192, 0.1f));
    ZELK::ZELKPrivate* engine = ZELK::ZELKPrivate::peek();
    AsyncLoader& loader = engine->getAsyncLoader();
    const CacheManager& cache = *engine->getCacheManager();
    const auto& info = engine->getFrameInfo();
    const auto frame = [&] {
        ASSERT_EQ(1, zelkStartNewFrame(kParams, kIdentity));
        for (const float* model : {kIdentity, moved}) submit(rigid, model); // two instances of one mesh
        submit(deforming, kIdentity, ZELK_NON_RIGID);
        ASSERT_EQ(1,
                  zelkSubmitOccluder(noTriangle.vertices, twoIndices, rigid.vertexCount(), 2, ZELK_RIGID, kIdentity));
        ASSERT_EQ(1, zelkRenderOccluders());
    };
    // Frames follow each other faster than the bake: however many pass
    // before the group is cached, the mesh waits in the queue once.
    loader.pauseThread();
    frame();
    EXPECT_EQ(2u, loader.queueSize());
    for (int i = 0; i < 2000 && !(cached(cache, rigid) && cache.get(noTriangle)); ++i) {
        frame();
        EXPECT_LE(loader.queueSize(), 2u);
        EXPECT_EQ(4u, info.rawOccluders.size() + info.cachedOccluders.size());
    }
    ASSERT_TRUE(cached(cache, rigid));
    const auto empty = cache.get(noTriangle);
    ASSERT_TRUE(empty);
    // Three levels, as for any 3,000 vertices, each reduced to nothing.
    ASSERT_EQ(3u, levels(*empty).size());
    for (const auto& level : levels(*empty)) EXPECT_TRUE(level->packedVertices.empty());
    frame();
    ASSERT_EQ(3u, info.cachedOccluders.size()); // both instances, in submission order, then the empty one
    EXPECT_EQ(kIdentity[12], common::lane<0>(info.cachedOccluders[0].model.columns[3]));
    EXPECT_EQ(moved[12], common::lane<0>(info.cachedOccluders[1].model.columns[3]));
    ASSERT_EQ(1u, info.rawOccluders.size());
    EXPECT_FALSE(info.rawOccluders[0].rigid);
    ASSERT_TRUE(eventually([&] { return loader.isEmpty() && loader.isThreadPaused(); })); // popped after caching
    frame();
    EXPECT_EQ(0u, loader.queueSize()); // deforming meshes are never queued
    EXPECT_FALSE(cached(cache, deforming));
    zelkDestroy();
}

TEST(AsyncLoader, StopsPromptlyWhateverTheWorkerIsDoing) {
    const Mesh small = bumpyGrid(10, 10), huge = bumpyGrid(255, 257); // 65,535 vertices, 130,048 triangles
    auto cache = std::make_shared<CacheManager>();
    {
        // Waiting on the condition variable, past the 10 ms rest.
        AsyncLoader loader;
        loader.setCacheMgr(cache);
        ASSERT_TRUE(eventually([&] { return loader.isThreadPaused(); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        loader.ensureCompletion();
        loader.ensureCompletion(); // harmless twice
        // Nobody takes work any more: the worker has returned.
        loader.addOccluder(record(small));
        loader.continueThread();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(1u, loader.queueSize());
        EXPECT_FALSE(cached(*cache, small));
    }
    // In the middle of a bake (a whole one, on this thread, succeeds): the
    // rest of the mesh is dropped.
    AsyncLoader loader;
    loader.setCacheMgr(cache);
    loader.load(record(huge));
    ASSERT_TRUE(cached(*cache, huge));
    auto fresh = std::make_shared<CacheManager>();
    loader.setCacheMgr(fresh);
    loader.addOccluder(record(huge));
    loader.continueThread();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    loader.ensureCompletion();
    EXPECT_FALSE(cached(*fresh, huge));
}

// What each level keeps of a real mesh: every baked, decoded vertex lies
// within 5% of the mesh's diagonal from the original surface. Measured
// largest: 3.6% (spider, level 0), under 1% on the bunny; quantisation alone
// moves a vertex by at most half a step per axis, about 0.06% of the diagonal.
TEST(AsyncLoader, BakedLevelsStayOnTheSurfaceOfRealMeshes) {
    const auto meshes = loadRealMeshes();
    if (meshes.empty()) GTEST_SKIP() << "no real meshes installed";
    auto cache = std::make_shared<CacheManager>();
    AsyncLoader loader;
    loader.setCacheMgr(cache);
    for (const auto& named : meshes) {
        loader.load(record(named.mesh));
        const auto group = cache->get({named.mesh.vertices.data(), named.mesh.indices.data()});
        ASSERT_TRUE(group) << named.name;
        int lod = 0;
        for (const auto& level : levels(*group))
            EXPECT_TRUE(onSurface(named.mesh, decode(*level), 0.05)) << named.name << " level " << lod++;
    }
}

// Many meshes, many frames, several engine lives each ended in the middle of a
// bake: under the thread sanitizer (tsan preset) any unguarded access between
// the render thread and the worker is reported, under the address sanitizer
// any leak (the C program InitDestroyCycles adds hundreds of short lives).
TEST(AsyncLoader, StressFramesAgainstTheWorker) {
    std::mt19937 rng(11);
    std::vector<Mesh> meshes;
    for (int i = 0; i < 24; ++i) meshes.push_back(bumpyGrid(6 + int(rng() % 40), 6 + int(rng() % 40)));
    meshes.push_back(bumpyGrid(120, 100)); // long enough to be caught mid-bake
    // Looking down -z from (20, 20, 30) at the grids in the plane z ~ 0.
    const float view[16] = {0.1f, 0, 0, 0, 0, 0.1f, 0, 0, 0, 0, -0.01f, -1, -2, -2, 30, 30};
    for (int life = 0; life < 3; ++life) {
        ASSERT_EQ(1, zelkInit(160, 96, 0.1f));
        for (int f = 0; f < 40; ++f) {
            zelkStartNewFrame(kParams, view);
            for (size_t i = 0; i < meshes.size(); ++i) {
                if ((rng() & 3) == 0) continue; // meshes come and go
                const float model[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, float(i % 5), 0, -float(i % 7), 1};
                submit(meshes[i], model, i % 4 == 3 ? ZELK_NON_RIGID : ZELK_RIGID);
            }
            zelkRenderOccluders();
        }
        for (const OccluderRaw& r : ZELK::ZELKPrivate::peek()->getFrameInfo().cachedOccluders) EXPECT_TRUE(r.rigid);
        zelkDestroy();
    }
}

// The city, every building rigid. After the warm-up every submission is
// answered from the cache and drawn by the quad rasteriser; and an exact
// buffer of the original triangles, queried by the quad rasteriser's own rules
// (its mirrored column selection included), hides every box that the engine
// hides, from two cameras.
TEST(AsyncLoader, CityIsDrawnFromTheCacheAndHidesOnlyWhatIsHidden) {
    constexpr int kWidth = 320, kHeight = 192;
    const CityScene scene = makeCityScene(float(kWidth) / float(kHeight));
    const size_t buildings = scene.meshes.size();
    ASSERT_EQ(1, zelkInit(kWidth, kHeight, scene.nearPlane));
    const auto& info = ZELK::ZELKPrivate::peek()->getFrameInfo();
    const auto frame = [&](const float* viewProjection) {
        zelkStartNewFrame(kParams, viewProjection);
        for (size_t i = 0; i < buildings; ++i) submit(scene.meshes[i], scene.models[i].data());
        zelkRenderOccluders();
    };
    frame(scene.viewProjection.data());
    EXPECT_EQ(buildings, info.rawOccluders.size()); // first frame: all raw
    EXPECT_EQ(buildings, info.plainCount);
    ASSERT_TRUE(eventually([&] { return frame(scene.viewProjection.data()), info.rawOccluders.empty(); }));
    ASSERT_EQ(buildings, info.cachedOccluders.size());
    EXPECT_EQ(buildings, info.rapidCount);
    EXPECT_EQ(0u, info.plainCount);
    for (size_t i = 0; i < buildings; ++i) // submission order kept
        EXPECT_EQ(scene.meshes[i].vertices.data(), info.cachedOccluders[i].vertices);

    // Boxes inside buildings, in the open, and anywhere among the buildings
    // (many of those near a silhouette).
    std::vector<float> boxes = makeCityQueryBoxes(scene, 400, 9);
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int b = 0; b < 1600; ++b) {
        const float x = -300.0f + 600.0f * unit(rng), y = 100.0f * unit(rng), z = -20.0f - 380.0f * unit(rng);
        const float r = 0.5f + 3.0f * unit(rng);
        boxes.insert(boxes.end(), {x - r, y - r, z - r, x + r, y + r, z + r});
    }
    const size_t count = boxes.size() / 6;
    // The second camera: the world moved 15 units left and 10 away, a
    // translation applied before the view-projection.
    std::array<float, 16> moved = scene.viewProjection;
    for (int r = 0; r < 4; ++r) moved[12 + r] -= 15.0f * moved[r] + 10.0f * moved[8 + r];

    for (const float* viewProjection : {scene.viewProjection.data(), static_cast<const float*>(moved.data())}) {
        frame(viewProjection);
        ASSERT_EQ(buildings, info.rapidCount);
        std::unique_ptr<bool[]> visible(new bool[count]);
        ASSERT_EQ(1, zelkBatchQuery(boxes.data(), uint32_t(count), visible.get()));

        // The quad rasteriser may cover a pixel whose centre lies up to
        // 0.75 px outside a quad; the reference grows its triangles by a pixel.
        // Conservative builds cover exactly and, block by block, bound how near
        // a box's faces can be: they may hide more than the rule does on an
        // exact buffer, never a box whose faces an exact buffer shows.
        ExactDepthBuffer exact(kWidth, kHeight), sharp(kWidth, kHeight);
        for (size_t i = 0; i < buildings; ++i) {
            const Mesh& m = scene.meshes[i];
            const auto clip = [&](size_t k) {
                const float* v = &m.vertices[3 * size_t(m.indices[k])];
                const auto w = transformPoint(scene.models[i].data(), v[0], v[1], v[2]);
                return transformPoint(viewProjection, w[0], w[1], w[2]);
            };
            for (size_t t = 0; t < m.indices.size(); t += 3) {
                exact.drawClipTriangle(clip(t), clip(t + 1), clip(t + 2), 1.0);
                if (ZELK_CONSERVATIVE) sharp.drawClipTriangle(clip(t), clip(t + 1), clip(t + 2));
            }
        }
        size_t hidden = 0, referenceHidden = 0, wronglyHidden = 0;
        for (size_t b = 0; b < count; ++b) {
            const bool referenceHides =
                documentedQueryHides(exact, viewProjection, &boxes[6 * b], ZELK_CONSERVATIVE != 0);
            const bool mayHide =
                ZELK_CONSERVATIVE ? !boxSeen(sharp, viewProjection, &boxes[6 * b], 2e-3) : referenceHides;
            hidden += !visible[b];
            referenceHidden += referenceHides;
            wronglyHidden += !visible[b] && !mayHide;
        }
        EXPECT_EQ(0u, wronglyHidden);
        // And it culls nearly as much: measured 0.983 and 0.988 in the default
        // build, 0.990 and 0.987 in the conservative one (each against its own
        // build's column rule).
        EXPECT_GE(double(hidden), 0.95 * double(referenceHidden));
    }
    zelkDestroy();
}

TEST(OccluderBaker, RefusesWhatTheIndexRuleRefusesAndStopsBetweenLevels) {
    const Mesh m = bumpyGrid(60, 50); // 3,000 vertices: three reduced levels
    common::OccluderBaker baker;
    const auto group = baker.bake(record(m));
    ASSERT_TRUE(group);
    EXPECT_EQ(3u, levels(*group).size());
    // The same baker again (its scratch reused): the same packed words.
    const auto again = baker.bake(record(m));
    for (unsigned lod = 0; lod < 3; ++lod)
        EXPECT_EQ(levels(*group)[lod]->packedVertices.size(), levels(*again)[lod]->packedVertices.size());

    std::vector<uint16_t> outOfRange = m.indices;
    outOfRange.push_back(3000); // a trailing partial triangle's index counts too
    common::MeshRef broken{m.vertices.data(), m.vertexCount(), outOfRange.data(), uint32_t(outOfRange.size())};
    EXPECT_FALSE(baker.bake(broken));
    broken.indexCount -= 1;
    EXPECT_TRUE(baker.bake(broken));

    const std::atomic<bool> stop{true};
    EXPECT_FALSE(baker.bake(record(m), &stop));
}
