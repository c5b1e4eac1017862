#include "engine/ZELKDiagnostics.h"
#include "support/BakeThroughFrames.h"
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

// One frame's start and submissions.
void submitAll(const Meshes& scene, RigidType rigid, bool reversed = false) {
    zelkStartNewFrame(kParams, kIdentity);
    const size_t n = scene.meshes.size();
    for (size_t i = 0; i < n; ++i) {
        const auto& m = scene.meshes[reversed ? n - 1 - i : i];
        zelkSubmitOccluder(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(), rigid, kIdentity);
    }
}

// Every mesh of the scene cached, by running frames while the loader bakes.
bool bakeAll(const Meshes& scene) {
    return testing_support::bakeThroughFrames([&] {
        submitAll(scene, ZELK_RIGID);
        zelkRenderOccluders();
    });
}

// One frame's submissions: index scan, cache lookup and record copy per occluder.
void submitFrame(benchmark::State& state, RigidType rigid, bool cached) {
    const int count = int(state.range(0));
    Meshes scene(count);
    zelkInit(640, 360, 0.1f);
    if (cached && !bakeAll(scene)) state.SkipWithError("the loader did not bake the meshes in time");
    for (auto _ : state) submitAll(scene, rigid);
    const ZELK::ZELKDiagnostics::FrameStats stats = ZELK::ZELKDiagnostics::frameStats();
    if (stats.rawOccluders + stats.cachedOccluders != uint32_t(count)) state.SkipWithError("submissions were lost");
    if (stats.cachedOccluders != (cached ? uint32_t(count) : 0)) state.SkipWithError("wrong cache lookups");
    state.SetItemsProcessed(int64_t(state.iterations()) * count);
    zelkDestroy();
}

void BM_ZELKPrivate_submitRaw(benchmark::State& state) { submitFrame(state, ZELK_RIGID, false); }
void BM_ZELKPrivate_submitCached(benchmark::State& state) { submitFrame(state, ZELK_RIGID, true); }
BENCHMARK(BM_ZELKPrivate_submitRaw)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ZELKPrivate_submitCached)->Arg(1000)->Unit(benchmark::kMicrosecond);

// A frame with every occluder cached and the camera unchanged: the
// submissions of BM_ZELKPrivate_submitCached, then the frame comparison that
// lets the rapid buffer stand (the difference between the two rows). The
// instances come in the same order as the last frame's (what hosts do frame
// after frame) or, every other frame, in the opposite order (every record
// found after half the list on average: the comparison's quadratic worst case).
void unchangedFrame(benchmark::State& state, bool reordered) {
    const int count = int(state.range(0));
    Meshes scene(count);
    zelkInit(640, 360, 0.1f);
    if (!bakeAll(scene)) state.SkipWithError("the loader did not bake the meshes in time");
    int64_t frame = 0;
    for (auto _ : state) {
        submitAll(scene, ZELK_RIGID, reordered && (frame++ & 1));
        zelkRenderOccluders();
    }
    // A comparison that wrongly saw a change would only cost a redraw here:
    // the rows are the check (a redraw of 1000 groups is far slower).
    const ZELK::ZELKDiagnostics::FrameStats stats = ZELK::ZELKDiagnostics::frameStats();
    if (stats.cachedOccluders != uint32_t(count) || stats.rapidCount != uint32_t(count))
        state.SkipWithError("not every occluder drawn from the cache");
    state.SetItemsProcessed(int64_t(state.iterations()) * count);
    zelkDestroy();
}
void BM_ZELKPrivate_unchangedFrame(benchmark::State& state) { unchangedFrame(state, false); }
void BM_ZELKPrivate_unchangedFrameReordered(benchmark::State& state) { unchangedFrame(state, true); }
BENCHMARK(BM_ZELKPrivate_unchangedFrame)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ZELKPrivate_unchangedFrameReordered)->Arg(1000)->Unit(benchmark::kMicrosecond);

} // namespace
