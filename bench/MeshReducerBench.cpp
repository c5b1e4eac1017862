// Reduction to the loader's three level-of-detail targets on real meshes,
// beside meshoptimizer's simplifier driven to the same triangle counts.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/MeshReducer.h"
#include "support/MeshLoader.h"

#if defined(ZELK_BENCH_HAVE_MESHOPT)
#include <meshoptimizer.h>
#endif

namespace {

const float kRatios[3] = {0.55f, 0.35f, 0.15f};

const std::vector<testing_support::NamedMesh>& meshes() {
    static const std::vector<testing_support::NamedMesh> loaded = testing_support::loadRealMeshes();
    return loaded;
}

void reduceBench(benchmark::State& state, size_t meshIndex, float ratio) {
    const testing_support::Mesh& m = meshes()[meshIndex].mesh;
    const auto target = uint32_t(ratio * float(m.vertexCount())); // as the loader truncates it
    std::vector<common::float4> vertices;
    std::vector<uint32_t> indices;
    for (auto _ : state) {
        vertices.clear();
        indices.clear();
        common::MeshReducer::reduce(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(), vertices,
                                    indices, target, 35.0f, true);
        benchmark::DoNotOptimize(indices.data());
    }
    if (indices.empty() || indices.size() % 3 != 0) state.SkipWithError("no output");
    state.counters["inTris"] = double(m.indexCount() / 3);
    state.counters["target"] = double(target);
    state.counters["outTris"] = double(indices.size() / 3);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(m.indexCount() / 3));
}

#if defined(ZELK_BENCH_HAVE_MESHOPT)
void meshoptBench(benchmark::State& state, size_t meshIndex, float ratio) {
    const testing_support::Mesh& m = meshes()[meshIndex].mesh;
    const auto target = uint32_t(ratio * float(m.vertexCount()));
    const std::vector<unsigned> in(m.indices.begin(), m.indices.end());
    std::vector<unsigned> out(in.size());
    size_t count = 0;
    for (auto _ : state) {
        // Error limit 1 (the whole extent): only the triangle count stops it.
        count = meshopt_simplify(out.data(), in.data(), in.size(), m.vertices.data(), m.vertexCount(),
                                 3 * sizeof(float), size_t(target) * 3, 1.0f, 0, nullptr);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["inTris"] = double(in.size() / 3);
    state.counters["target"] = double(target);
    state.counters["outTris"] = double(count / 3);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(in.size() / 3));
}
#endif

int registerAll() {
    for (size_t i = 0; i < meshes().size(); ++i) {
        const testing_support::Mesh& m = meshes()[i].mesh;
        if (m.vertexCount() >= 65536) continue;
        for (const float ratio : kRatios) {
            if (ratio * float(m.vertexCount()) < 300.0f) continue; // the loader does not reduce these
            const std::string suffix = "/" + meshes()[i].name + "/" + std::to_string(int(ratio * 100 + 0.5f));
            benchmark::RegisterBenchmark(("BM_MeshReducer_reduce" + suffix).c_str(), reduceBench, i, ratio)
                ->Unit(benchmark::kMillisecond);
#if defined(ZELK_BENCH_HAVE_MESHOPT)
            benchmark::RegisterBenchmark(("BM_Meshopt_simplify" + suffix).c_str(), meshoptBench, i, ratio)
                ->Unit(benchmark::kMillisecond);
#endif
        }
    }
    return 0;
}

const int registered = registerAll();

} // namespace
