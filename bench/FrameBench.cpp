// A whole frame through the exported functions on the synthetic city:
// start, submit every building, render, and one batch query of 25,000 boxes;
// and the render side alone of a first frame.
#include "engine/ZELKDiagnostics.h"
#include "support/CityScene.h"
#include "zelk.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

// Start, submit every building, render.
void renderCity(const testing_support::CityScene& scene, RigidType rigidType) {
    const float params[4] = {};
    zelkStartNewFrame(params, scene.viewProjection.data());
    for (size_t i = 0; i < scene.meshes.size(); ++i) {
        const auto& mesh = scene.meshes[i];
        zelkSubmitOccluder(mesh.vertices.data(), mesh.indices.data(), mesh.vertexCount(), mesh.indexCount(), rigidType,
                           scene.models[i].data());
    }
    zelkRenderOccluders();
}

void BM_ZELKPrivate_frame(benchmark::State& state) {
    const uint32_t width = uint32_t(state.range(0)), height = uint32_t(state.range(1));
    const testing_support::CityScene scene = testing_support::makeCityScene(float(width) / float(height));
    constexpr int kBoxes = 25000;
    const std::vector<float> boxes = testing_support::makeCityQueryBoxes(scene, kBoxes, 1234);
    std::unique_ptr<bool[]> visible(new bool[kBoxes]);
    if (zelkInit(width, height, scene.nearPlane) != 1) state.SkipWithError("init failed");

    for (auto _ : state) {
        renderCity(scene, ZELK_NON_RIGID);
        zelkBatchQuery(boxes.data(), kBoxes, visible.get());
        benchmark::ClobberMemory();
    }

    // Odd boxes float in the open and must read visible; most even ones are
    // inside buildings and must be culled.
    int wrong = 0, culled = 0;
    for (int i = 0; i < kBoxes; ++i) {
        if (i % 2 == 1 && !visible[i]) ++wrong;
        if (i % 2 == 0 && !visible[i]) ++culled;
    }
    if (wrong != 0 || culled < kBoxes / 2 * 8 / 10) state.SkipWithError("wrong visibility answers");
    state.counters["culled"] = double(culled) / double(kBoxes / 2);
    state.counters["triangles"] = double(scene.triangleCount);
    state.SetItemsProcessed(int64_t(state.iterations()) * kBoxes);
    zelkDestroy();
}
BENCHMARK(BM_ZELKPrivate_frame)->Args({320, 192})->Args({640, 360})->Args({1920, 1080})->Unit(benchmark::kMicrosecond);

// The render side of the first frame (start, submit, render; no queries) on a
// fresh engine with every building rigid: all are drawn raw and queued for
// baking. Its warm counterparts, every building cached, are
// BM_ZELKPrivate_cachedFrameMoving and BM_ZELKPrivate_cachedFrameStatic.
void BM_ZELKPrivate_firstFrameRigid(benchmark::State& state) {
    const uint32_t width = uint32_t(state.range(0)), height = uint32_t(state.range(1));
    const testing_support::CityScene scene = testing_support::makeCityScene(float(width) / float(height));
    for (auto _ : state) {
        state.PauseTiming();
        zelkDestroy();
        if (zelkInit(width, height, scene.nearPlane) != 1) state.SkipWithError("init failed");
        state.ResumeTiming();
        renderCity(scene, ZELK_RIGID);
        benchmark::ClobberMemory();
    }
    if (ZELK::ZELKDiagnostics::frameStats().plainCount != scene.meshes.size()) state.SkipWithError("not all drawn raw");
    zelkDestroy();
}
BENCHMARK(BM_ZELKPrivate_firstFrameRigid)->Args({320, 192})->Args({640, 360})->Unit(benchmark::kMicrosecond);

} // namespace
