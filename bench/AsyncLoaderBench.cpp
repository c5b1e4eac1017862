// Baking one mesh into its group, all levels (reduce, decompose, bake), as the
// background thread does it; the reduction alone beside it (its share), and
// meshoptimizer's simplifier driven to the same three targets as the peer of
// that share. Also how long zelkDestroy takes while a large mesh is baking.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "common/AsyncLoader.h"
#include "common/OccluderBaker.h"
#include "support/MeshLoader.h"
#include "zelk.h"

#if defined(ZELK_BENCH_HAVE_MESHOPT)
#include <meshoptimizer.h>
#endif

namespace {

using testing_support::Mesh;

// w x h vertices, one unit apart, on a gentle swell: 2 (w - 1)(h - 1) triangles.
Mesh swell(int w, int h) {
    Mesh m;
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i)
            m.vertices.insert(m.vertices.end(),
                              {float(i), float(j), 3.0f * std::sin(0.11f * float(i)) * std::cos(0.07f * float(j))});
    for (int j = 0; j + 1 < h; ++j)
        for (int i = 0; i + 1 < w; ++i) {
            const uint16_t a = uint16_t(j * w + i), b = uint16_t(a + 1), c = uint16_t(a + w), d = uint16_t(c + 1);
            m.indices.insert(m.indices.end(), {a, b, d, a, d, c});
        }
    return m;
}

const std::vector<testing_support::NamedMesh>& meshes() {
    static const std::vector<testing_support::NamedMesh> all = [] {
        std::vector<testing_support::NamedMesh> list;
        for (auto& named : testing_support::loadRealMeshes())
            if (named.mesh.vertexCount() >= 1000) list.push_back(std::move(named));
        list.push_back({"swell20000tris", swell(101, 101)}); // 20,000 triangles, 10,201 vertices
        list.push_back({"swell65535verts", swell(255, 257)});
        return list;
    }();
    return all;
}

common::OccluderRaw record(const Mesh& m) {
    common::OccluderRaw r;
    r.vertices = m.vertices.data();
    r.vertexCount = m.vertexCount();
    r.indices = m.indices.data();
    r.indexCount = m.indexCount();
    r.rigid = true;
    return r;
}

void counters(benchmark::State& state, const Mesh& m) {
    state.counters["verts"] = double(m.vertexCount());
    state.counters["tris"] = double(m.indexCount() / 3);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(m.indexCount() / 3));
}

void loadBench(benchmark::State& state, size_t index) {
    const Mesh& m = meshes()[index].mesh;
    common::AsyncLoader loader; // its own worker stays idle: load runs here
    size_t packed = 0;
    for (auto _ : state) {
        auto cache = std::make_shared<common::CacheManager>();
        loader.setCacheMgr(cache);
        loader.load(record(m));
        const auto group = cache->get({m.vertices.data(), m.indices.data()});
        packed = group ? group->getOccluder(1.0f)->packedVertices.size() : 0;
        benchmark::DoNotOptimize(packed);
    }
    if (packed == 0) state.SkipWithError("nothing baked");
    counters(state, m);
    state.counters["lod0quads"] = double(packed);
}

void reduceShareBench(benchmark::State& state, size_t index) {
    const Mesh& m = meshes()[index].mesh;
    std::vector<common::float4> vertices;
    std::vector<uint32_t> indices;
    size_t total = 0;
    for (auto _ : state) {
        total = 0;
        for (unsigned lod = 0; lod < 3; ++lod) {
            const bool last = common::OccluderBaker::levelMesh(record(m), lod, vertices, indices);
            total += indices.size();
            if (last) break;
        }
        benchmark::DoNotOptimize(total);
    }
    if (total == 0) state.SkipWithError("no levels");
    counters(state, m);
}

#if defined(ZELK_BENCH_HAVE_MESHOPT)
void meshoptShareBench(benchmark::State& state, size_t index) {
    const Mesh& m = meshes()[index].mesh;
    const std::vector<unsigned> in(m.indices.begin(), m.indices.end());
    std::vector<unsigned> out(in.size());
    const float ratios[3] = {0.55f, 0.35f, 0.15f};
    size_t total = 0;
    for (auto _ : state) {
        total = 0;
        for (const float ratio : ratios) {
            const float target = ratio * float(m.vertexCount());
            if (target < 300.0f) break; // the loader bakes the mesh as given
            total += meshopt_simplify(out.data(), in.data(), in.size(), m.vertices.data(), m.vertexCount(),
                                      3 * sizeof(float), size_t(target) * 3, 1.0f, 0, nullptr);
        }
        benchmark::DoNotOptimize(total);
    }
    counters(state, m);
}
#endif

// zelkDestroy while the worker bakes the 65,535-vertex mesh: it returns after
// the level in progress, not after the whole mesh.
void destroyDuringBakeBench(benchmark::State& state) {
    const Mesh& m = meshes().back().mesh;
    const float identity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    const float params[4] = {};
    for (auto _ : state) {
        zelkInit(320, 192, 0.1f);
        for (int f = 0; f < 2; ++f) { // queued in the first frame, woken in the second
            zelkStartNewFrame(params, identity);
            zelkSubmitOccluder(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(), ZELK_RIGID,
                               identity);
            zelkRenderOccluders();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(15)); // past the worker's 10 ms rest
        const auto start = std::chrono::steady_clock::now();
        zelkDestroy();
        state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
}

int registerAll() {
    for (size_t i = 0; i < meshes().size(); ++i) {
        const std::string suffix = "/" + meshes()[i].name;
        benchmark::RegisterBenchmark(("BM_AsyncLoader_load" + suffix).c_str(), loadBench, i)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("BM_AsyncLoader_reduceShare" + suffix).c_str(), reduceShareBench, i)
            ->Unit(benchmark::kMillisecond);
#if defined(ZELK_BENCH_HAVE_MESHOPT)
        benchmark::RegisterBenchmark(("BM_Meshopt_reduceShare" + suffix).c_str(), meshoptShareBench, i)
            ->Unit(benchmark::kMillisecond);
#endif
    }
    benchmark::RegisterBenchmark("BM_ZELK_destroyDuringBake", destroyDuringBakeBench)
        ->UseManualTime()
        ->Iterations(10)
        ->Unit(benchmark::kMillisecond);
    return 0;
}

const int registered = registerAll();

} // namespace
