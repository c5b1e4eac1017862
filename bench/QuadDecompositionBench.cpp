// Quad decomposition of real meshes, as the loader feeds it: the input mesh
// and its first reduced level.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/MeshReducer.h"
#include "common/QuadDecomposition.h"
#include "support/MeshLoader.h"

namespace {

struct Input {
    std::string name;
    std::vector<uint32_t> indices;
    std::vector<common::float4> vertices;
};

const std::vector<Input>& inputs() {
    static const std::vector<Input> all = [] {
        std::vector<Input> list;
        for (const auto& named : testing_support::loadRealMeshes()) {
            const testing_support::Mesh& m = named.mesh;
            Input original{named.name + "/original", {m.indices.begin(), m.indices.end()}, {}};
            for (size_t i = 0; i < m.vertices.size(); i += 3)
                original.vertices.push_back(common::make4(m.vertices[i], m.vertices[i + 1], m.vertices[i + 2], 1.0f));
            list.push_back(std::move(original));
            Input reduced{named.name + "/reduced55", {}, {}};
            common::MeshReducer::reduce(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(),
                                        reduced.vertices, reduced.indices, uint32_t(0.55f * float(m.vertexCount())),
                                        35.0f, true);
            if (!reduced.indices.empty()) list.push_back(std::move(reduced));
        }
        return list;
    }();
    return all;
}

void decomposeBench(benchmark::State& state, size_t index) {
    const Input& in = inputs()[index];
    size_t quadIndices = 0, unpaired = 0;
    for (auto _ : state) {
        const std::vector<uint32_t> quads = common::QuadDecomposition::decompose(in.indices, in.vertices);
        quadIndices = quads.size();
        unpaired = 0;
        for (size_t q = 0; q < quads.size(); q += 4) unpaired += quads[q] == quads[q + 3];
        benchmark::DoNotOptimize(quads.data());
    }
    const size_t triangles = in.indices.size() / 3;
    if (quadIndices < triangles * 2) state.SkipWithError("too few quads for the triangles");
    state.counters["tris"] = double(triangles);
    state.counters["quads"] = double(quadIndices / 4);
    state.counters["paired%"] = 100.0 * double(triangles - unpaired) / double(triangles);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(triangles));
}

int registerAll() {
    for (size_t i = 0; i < inputs().size(); ++i)
        benchmark::RegisterBenchmark(("BM_QuadDecomposition_decompose/" + inputs()[i].name).c_str(), decomposeBench, i)
            ->Unit(benchmark::kMicrosecond);
    return 0;
}

const int registered = registerAll();

} // namespace
