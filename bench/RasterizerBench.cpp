// The quad rasteriser beside the masked one on the same synthetic city: the
// scene baked at full detail and drawn, box queries, construction, and
// whole frames through the exported functions with every building cached.
#include "engine/ZELKDiagnostics.h"
#include "support/BakeThroughFrames.h"
#include "support/CityScene.h"
#include "util/RapidRasterizer.h"
#include "util/Rasterizer.h"
#include "zelk.h"

#include <benchmark/benchmark.h>

#include <array>
#include <memory>
#include <vector>

namespace {

using testing_support::CityScene;

struct BakedCity {
    CityScene scene;
    std::vector<std::shared_ptr<common::OccluderGroup>> groups;
    common::Matrix4x4 viewProjection;
    std::vector<common::Matrix4x4> mvps;
    std::vector<float> boxes;
    size_t quads = 0;

    BakedCity(unsigned width, unsigned height) : scene(testing_support::makeCityScene(float(width) / float(height))) {
        viewProjection = common::Matrix4x4::fromColumnMajor(scene.viewProjection.data());
        for (size_t i = 0; i < scene.meshes.size(); ++i) {
            groups.push_back(testing_support::bakeFullDetail(scene.meshes[i]));
            quads += groups.back()->getOccluder(1.0f)->packedVertices.size();
            mvps.push_back(viewProjection * common::Matrix4x4::fromColumnMajor(scene.models[i].data()));
        }
        boxes = testing_support::makeCityQueryBoxes(scene, 10000, 99);
    }

    void render(util::RapidRasterizer& rapid) const {
        rapid.clear();
        for (size_t i = 0; i < groups.size(); ++i) {
            rapid.setModelViewProjection(mvps[i]);
            rapid.render(groups[i]);
        }
    }

    // Odd boxes are in the open and must read visible; most even ones are
    // inside buildings and must be found hidden.
    bool check(const util::RapidRasterizer& rapid, int& hiddenFound) const {
        int wrong = 0;
        hiddenFound = 0;
        for (size_t i = 0; i < boxes.size() / 6; ++i) {
            const bool visible = rapid.query(&boxes[6 * i], &boxes[6 * i + 3]);
            wrong += i % 2 == 1 && !visible;
            hiddenFound += i % 2 == 0 && !visible;
        }
        return wrong == 0 && hiddenFound > int(boxes.size() / 12) * 8 / 10;
    }
};

// Items are the city's triangles (a quad counts as two), so that the rows
// compare with the masked rasteriser's on the same scene.
void BM_Rasterizer_rasterize(benchmark::State& state) {
    const unsigned width = unsigned(state.range(0)), height = unsigned(state.range(1));
    const BakedCity city(width, height);
    util::RapidRasterizer rapid;
    rapid.setResolution(width, height);
    for (auto _ : state) {
        city.render(rapid);
        benchmark::ClobberMemory();
    }
    int hidden = 0;
    rapid.setModelViewProjection(city.viewProjection);
    if (!city.check(rapid, hidden)) state.SkipWithError("city rendered wrongly");
    state.counters["hiddenFound"] = hidden;
    state.counters["culledShare"] = double(hidden) / double(city.boxes.size() / 12);
    state.counters["quads"] = double(city.quads);
    state.SetItemsProcessed(int64_t(state.iterations()) * city.scene.triangleCount);
}
BENCHMARK(BM_Rasterizer_rasterize)
    ->Args({320, 192})
    ->Args({640, 360})
    ->Args({1920, 1080})
    ->Unit(benchmark::kMicrosecond);

void BM_Rasterizer_query(benchmark::State& state) {
    const unsigned width = unsigned(state.range(0)), height = unsigned(state.range(1));
    const BakedCity city(width, height);
    util::RapidRasterizer rapid;
    rapid.setResolution(width, height);
    city.render(rapid);
    rapid.setModelViewProjection(city.viewProjection);
    int hidden = 0;
    if (!city.check(rapid, hidden)) state.SkipWithError("city rendered wrongly");
    const size_t count = city.boxes.size() / 6;
    int64_t visible = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < count; ++i) visible += rapid.query(&city.boxes[6 * i], &city.boxes[6 * i + 3]);
        benchmark::DoNotOptimize(visible);
    }
    if (visible != int64_t(state.iterations()) * int64_t(count - size_t(hidden)))
        state.SkipWithError("unstable answers");
    state.counters["hiddenFound"] = hidden;
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(count));
}
BENCHMARK(BM_Rasterizer_query)->Args({320, 192})->Args({640, 360})->Unit(benchmark::kMicrosecond);

// Creating a rasteriser copies the stored coverage table; building it from
// its samples is what that replaces.
void BM_Rasterizer_construct(benchmark::State& state) {
    for (auto _ : state) {
        util::Rasterizer r;
        benchmark::DoNotOptimize(r.getRasterizationTable().data());
    }
}
BENCHMARK(BM_Rasterizer_construct)->Unit(benchmark::kMicrosecond);

void BM_Rasterizer_precomputeRasterizationTable(benchmark::State& state) {
    std::vector<uint64_t> table(util::Rasterizer::kTableSize);
    for (auto _ : state) {
        std::fill(table.begin(), table.end(), 0);
        util::Rasterizer::precomputeRasterizationTableInto(table);
        benchmark::DoNotOptimize(table.data());
    }
    if (table != std::vector<uint64_t>(util::Rasterizer::storedRasterizationTable(),
                                       util::Rasterizer::storedRasterizationTable() + util::Rasterizer::kTableSize))
        state.SkipWithError("table differs from the stored one");
}
BENCHMARK(BM_Rasterizer_precomputeRasterizationTable)->Unit(benchmark::kMillisecond);

// Whole frames through the exported functions, every building cached by the
// engine's own loader: start, submit, render; queries excluded. Moving: the
// matrix alternates between two values, so every frame redraws the rapid
// buffer. Static: the same matrix, so the buffer stands.
void cachedFrames(benchmark::State& state, bool moving) {
    const uint32_t width = uint32_t(state.range(0)), height = uint32_t(state.range(1));
    const BakedCity city(width, height);
    const float params[4] = {};
    zelkInit(width, height, city.scene.nearPlane);
    std::array<float, 16> other = city.scene.viewProjection;
    other[12] += 1e-4f;
    const auto frame = [&](const float* vp) {
        zelkStartNewFrame(params, vp);
        for (size_t i = 0; i < city.scene.meshes.size(); ++i) {
            const auto& mesh = city.scene.meshes[i];
            zelkSubmitOccluder(mesh.vertices.data(), mesh.indices.data(), mesh.vertexCount(), mesh.indexCount(),
                               ZELK_RIGID, city.scene.models[i].data());
        }
        zelkRenderOccluders();
    };
    if (!testing_support::bakeThroughFrames([&] { frame(city.scene.viewProjection.data()); }))
        state.SkipWithError("the loader did not bake the city in time");
    int64_t frameCount = 0;
    for (auto _ : state) {
        frame(moving && (frameCount++ & 1) ? other.data() : city.scene.viewProjection.data());
        benchmark::ClobberMemory();
    }
    std::unique_ptr<bool[]> visible(new bool[city.boxes.size() / 6]);
    zelkBatchQuery(city.boxes.data(), uint32_t(city.boxes.size() / 6), visible.get());
    int wrong = 0, culled = 0;
    for (size_t i = 0; i < city.boxes.size() / 6; ++i) {
        wrong += i % 2 == 1 && !visible[i];
        culled += i % 2 == 0 && !visible[i];
    }
    if (wrong != 0 || culled < int(city.boxes.size() / 12) * 8 / 10 ||
        ZELK::ZELKDiagnostics::frameStats().rapidCount != city.groups.size())
        state.SkipWithError("wrong visibility answers");
    state.counters["culled"] = double(culled) / double(city.boxes.size() / 12);
    zelkDestroy();
}
void BM_ZELKPrivate_cachedFrameMoving(benchmark::State& state) { cachedFrames(state, true); }
void BM_ZELKPrivate_cachedFrameStatic(benchmark::State& state) { cachedFrames(state, false); }
BENCHMARK(BM_ZELKPrivate_cachedFrameMoving)->Args({320, 192})->Args({640, 360})->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ZELKPrivate_cachedFrameStatic)->Args({320, 192})->Args({640, 360})->Unit(benchmark::kMicrosecond);

} // namespace
