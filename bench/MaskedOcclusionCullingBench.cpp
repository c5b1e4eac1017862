#include "util/MaskedOcclusionCulling.h"

#include "common/AlignedAlloc.h"
#include "common/Matrix4x4.h"
#include "support/CityScene.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

using testing_support::CityScene;
using util::MaskedOcclusionCulling;

// Sums what the rasteriser asks for; nothing is released while a frame lives,
// so the sum is the peak.
size_t gAllocatedBytes = 0;
void* countingAlloc(size_t alignment, size_t size) {
    gAllocatedBytes += size;
    return common::aligned_alloc(alignment, size);
}

struct Frame {
    MaskedOcclusionCulling* moc;
    CityScene scene;
    common::Matrix4x4 viewProjection;
    std::vector<common::Matrix4x4> mvps;
    std::vector<float> boxes;

    Frame(unsigned width, unsigned height)
        : moc((gAllocatedBytes = 0, MaskedOcclusionCulling::Create(countingAlloc, common::aligned_free))),
          scene(testing_support::makeCityScene(float(width) / float(height))) {
        moc->SetResolution(width, height);
        moc->SetNearClipPlane(scene.nearPlane);
        viewProjection = common::Matrix4x4::fromColumnMajor(scene.viewProjection.data());
        for (const auto& m : scene.models)
            mvps.push_back(viewProjection * common::Matrix4x4::fromColumnMajor(m.data()));
        boxes = testing_support::makeCityQueryBoxes(scene, 10000, 99);
    }
    ~Frame() { MaskedOcclusionCulling::Destroy(moc); }

    void render() {
        moc->ClearBuffer();
        for (size_t i = 0; i < scene.meshes.size(); ++i) {
            const auto& mesh = scene.meshes[i];
            moc->SetModelViewProjection(mvps[i]);
            moc->RenderTriangles(mesh.vertices.data(), mesh.indices.data(), int(mesh.vertexCount()),
                                 int(mesh.indexCount() / 3));
        }
    }

    // Visible boxes must all read visible; most hidden ones must be found.
    bool check(int& hiddenFound) {
        moc->SetModelViewProjection(viewProjection); // boxes are in world space
        int wrong = 0;
        hiddenFound = 0;
        for (size_t i = 0; i < boxes.size() / 6; ++i) {
            const bool visible = moc->Query(&boxes[6 * i], &boxes[6 * i + 3]);
            if (i % 2 == 1 && !visible) ++wrong;
            if (i % 2 == 0 && !visible) ++hiddenFound;
        }
        return wrong == 0 && hiddenFound > int(boxes.size() / 6 / 2) * 8 / 10;
    }
};

void BM_MaskedOcclusionCulling_renderTriangles(benchmark::State& state) {
    Frame frame(unsigned(state.range(0)), unsigned(state.range(1)));
    for (auto _ : state) {
        frame.render();
        benchmark::ClobberMemory();
    }
    int hidden = 0;
    if (!frame.check(hidden)) state.SkipWithError("city rendered wrongly");
    state.counters["hiddenFound"] = hidden;
    state.counters["culledShare"] = double(hidden) / double(frame.boxes.size() / 12);
    state.counters["bufferBytes"] = double(gAllocatedBytes);
    state.SetItemsProcessed(int64_t(state.iterations()) * frame.scene.triangleCount);
}
BENCHMARK(BM_MaskedOcclusionCulling_renderTriangles)
    ->Args({320, 192})
    ->Args({640, 360})
    ->Args({1920, 1080})
    ->Unit(benchmark::kMicrosecond);

void BM_MaskedOcclusionCulling_query(benchmark::State& state) {
    Frame frame(unsigned(state.range(0)), unsigned(state.range(1)));
    frame.render();
    int hidden = 0;
    if (!frame.check(hidden)) state.SkipWithError("city rendered wrongly");
    const size_t count = frame.boxes.size() / 6;
    frame.moc->SetModelViewProjection(frame.viewProjection);
    int64_t visible = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < count; ++i) visible += frame.moc->Query(&frame.boxes[6 * i], &frame.boxes[6 * i + 3]);
        benchmark::DoNotOptimize(visible);
    }
    // Every pass must give the same answers as the check above.
    if (visible != int64_t(state.iterations()) * int64_t(count - size_t(hidden)))
        state.SkipWithError("unstable answers");
    state.counters["hiddenFound"] = hidden;
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(count));
}
BENCHMARK(BM_MaskedOcclusionCulling_query)->Args({320, 192})->Args({640, 360})->Unit(benchmark::kMicrosecond);

} // namespace
