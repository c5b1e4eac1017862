// A whole frame through the exported functions on the synthetic city:
// start, submit every building, render, and one batch query of 25,000 boxes;
// and the render side alone, raw against cached.
#include "engine/ZELKPrivate.h"
#include "support/CityScene.h"
#include "zelk.h"

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

void BM_ZELKPrivate_frame(benchmark::State& state) {
    const uint32_t width = uint32_t(state.range(0)), height = uint32_t(state.range(1));
    const testing_support::CityScene scene = testing_support::makeCityScene(float(width) / float(height));
    constexpr int kBoxes = 25000;
    const std::vector<float> boxes = testing_support::makeCityQueryBoxes(scene, kBoxes, 1234);
    std::unique_ptr<bool[]> visible(new bool[kBoxes]);
    const float params[4] = {};
    if (zelkInit(width, height, scene.nearPlane) != 1) state.SkipWithError("init failed");

    for (auto _ : state) {
        zelkStartNewFrame(params, scene.viewProjection.data());
        for (size_t i = 0; i < scene.meshes.size(); ++i) {
            const auto& mesh = scene.meshes[i];
            zelkSubmitOccluder(mesh.vertices.data(), mesh.indices.data(), mesh.vertexCount(), mesh.indexCount(),
                               ZELK_NON_RIGID, scene.models[i].data());
        }
        zelkRenderOccluders();
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

// The render side of a frame (start, submit, render; no queries) with every
// building rigid: the first frame draws all of them raw; once the loader has
// baked them, a moving camera redraws every cached group with the quad
// rasteriser, and a static camera reuses the quad buffer untouched.
enum class Phase { firstFrame, warmMoving, warmStatic };

void renderFrame(const testing_support::CityScene& scene, const float* viewProjection) {
    const float params[4] = {};
    zelkStartNewFrame(params, viewProjection);
    for (size_t i = 0; i < scene.meshes.size(); ++i) {
        const auto& mesh = scene.meshes[i];
        zelkSubmitOccluder(mesh.vertices.data(), mesh.indices.data(), mesh.vertexCount(), mesh.indexCount(), ZELK_RIGID,
                           scene.models[i].data());
    }
    zelkRenderOccluders();
}

void cityFrameBench(benchmark::State& state, Phase phase) {
    const uint32_t width = uint32_t(state.range(0)), height = uint32_t(state.range(1));
    const testing_support::CityScene scene = testing_support::makeCityScene(float(width) / float(height));
    // Two cameras a step apart sideways (the world shifted by one unit).
    std::array<float, 16> stepped = scene.viewProjection;
    for (int r = 0; r < 4; ++r) stepped[12 + r] += scene.viewProjection[r];
    const float* cameras[2] = {scene.viewProjection.data(), stepped.data()};
    if (zelkInit(width, height, scene.nearPlane) != 1) state.SkipWithError("init failed");
    if (phase != Phase::firstFrame) {
        for (int i = 0; i < 2000; ++i) { // until the loader has baked every building
            renderFrame(scene, cameras[0]);
            if (ZELK::ZELKPrivate::peek()->getFrameInfo().rawOccluders.empty()) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (!ZELK::ZELKPrivate::peek()->getFrameInfo().rawOccluders.empty()) state.SkipWithError("not all baked");
    }
    size_t frame = 0;
    for (auto _ : state) {
        if (phase == Phase::firstFrame) { // a fresh engine: everything raw
            state.PauseTiming();
            zelkDestroy();
            zelkInit(width, height, scene.nearPlane);
            state.ResumeTiming();
        }
        renderFrame(scene, cameras[phase == Phase::warmMoving ? ++frame % 2 : 0]);
        benchmark::ClobberMemory();
    }
    const auto& info = ZELK::ZELKPrivate::peek()->getFrameInfo();
    state.counters["raw"] = double(info.plainCount);
    state.counters["cached"] = double(info.rapidCount);
    zelkDestroy();
}

BENCHMARK_CAPTURE(cityFrameBench, BM_ZELK_cityFirstFrame, Phase::firstFrame)
    ->Args({320, 192})
    ->Args({640, 360})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(cityFrameBench, BM_ZELK_cityWarmMoving, Phase::warmMoving)
    ->Args({320, 192})
    ->Args({640, 360})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(cityFrameBench, BM_ZELK_cityWarmStatic, Phase::warmStatic)
    ->Args({320, 192})
    ->Args({640, 360})
    ->Unit(benchmark::kMicrosecond);

} // namespace
