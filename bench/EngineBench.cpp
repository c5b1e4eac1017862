#include "engine/ZELKFrameInfo.h"
#include "engine/ZELKPrivate.h"
#include "support/TestMeshes.h"
#include "zelk.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

namespace {

const float kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
const float kParams[4] = {};

// Creating the engine from nothing: what a host pays at start-up.
void BM_ZELKPrivate_coldInit(benchmark::State& state) {
    for (auto _ : state) {
        if (zelkInit(640, 360, 0.1f) != 1) std::abort();
        state.PauseTiming();
        zelkDestroy();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_ZELKPrivate_coldInit)->Unit(benchmark::kMicrosecond);

struct Meshes {
    std::vector<testing_support::Mesh> meshes;
    explicit Meshes(int count) {
        for (int i = 0; i < count; ++i) meshes.push_back(testing_support::makeGrid(4, 0, 0, 1, 1, float(i)));
    }
};

// One frame's submissions: index scan, cache lookup and record copy per occluder.
void submitFrame(benchmark::State& state, RigidType rigid, bool cached) {
    const int count = int(state.range(0));
    Meshes scene(count);
    zelkInit(640, 360, 0.1f);
    if (cached) {
        const auto cache = ZELK::ZELKPrivate::peek()->getCacheManager();
        for (const auto& m : scene.meshes)
            cache->cache({m.vertices.data(), m.indices.data()}, std::make_shared<common::OccluderGroup>());
    }
    size_t recorded = 0;
    for (auto _ : state) {
        zelkStartNewFrame(kParams, kIdentity);
        for (const auto& m : scene.meshes)
            zelkSubmitOccluder(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(), rigid, kIdentity);
        const auto& frame = ZELK::ZELKPrivate::peek()->getFrameInfo();
        recorded = frame.rawOccluders.size() + frame.cachedOccluders.size();
    }
    if (recorded != size_t(count)) state.SkipWithError("submissions were lost");
    state.SetItemsProcessed(int64_t(state.iterations()) * count);
    zelkDestroy();
}

void BM_ZELKPrivate_submitRaw(benchmark::State& state) { submitFrame(state, ZELK_RIGID, false); }
void BM_ZELKPrivate_submitCached(benchmark::State& state) { submitFrame(state, ZELK_RIGID, true); }
BENCHMARK(BM_ZELKPrivate_submitRaw)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ZELKPrivate_submitCached)->Arg(1000)->Unit(benchmark::kMicrosecond);

// The frame comparison over equal lists, in the same order (what hosts do
// frame after frame) or in opposite orders (every record found after half the
// list on average: the quadratic worst case).
void diffFrame(benchmark::State& state, bool reversed) {
    const int count = int(state.range(0));
    Meshes scene(count);
    ZELK::ZELKFrameInfo frame;
    for (int i = 0; i < count; ++i) {
        common::OccluderRaw r;
        r.vertices = scene.meshes[i].vertices.data();
        r.indices = scene.meshes[i].indices.data();
        r.vertexCount = scene.meshes[i].vertexCount();
        r.indexCount = scene.meshes[i].indexCount();
        r.model = common::Matrix4x4::identity();
        r.rigid = true;
        frame.cachedOccluders.push_back(r);
    }
    if (reversed) {
        frame.previousCachedOccluders.assign(frame.cachedOccluders.rbegin(), frame.cachedOccluders.rend());
    } else {
        frame.previousCachedOccluders = frame.cachedOccluders;
    }
    bool changed = true;
    for (auto _ : state) {
        changed = frame.diffFrame();
        benchmark::DoNotOptimize(changed);
    }
    if (changed) state.SkipWithError("identical frames reported as changed");
    state.SetItemsProcessed(int64_t(state.iterations()) * count);
}
void BM_ZELKFrameInfo_diffFrame(benchmark::State& state) { diffFrame(state, false); }
void BM_ZELKFrameInfo_diffFrameReordered(benchmark::State& state) { diffFrame(state, true); }
BENCHMARK(BM_ZELKFrameInfo_diffFrame)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ZELKFrameInfo_diffFrameReordered)->Arg(1000)->Unit(benchmark::kMicrosecond);

} // namespace
