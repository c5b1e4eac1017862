// Maximum matching on triangle adjacency graphs of real meshes, on random
// graphs of average degree 3 and on a sparse one of average degree 0.2,
// beside Boost Graph's Edmonds matching.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "common/Matching.h"
#include "support/MeshLoader.h"

#if defined(ZELK_TEST_HAVE_BOOST)
#include <boost/graph/adjacency_list.hpp>
#include <boost/graph/max_cardinality_matching.hpp>
#endif

namespace {

struct NamedGraph {
    std::string name;
    Graph graph;
};

Graph meshAdjacency(const testing_support::Mesh& mesh) {
    const size_t triangles = mesh.indices.size() / 3;
    Graph g(triangles);
    std::map<std::pair<int, int>, std::vector<int>> byEdge;
    for (size_t t = 0; t < triangles; ++t)
        for (int j = 0; j < 3; ++j) {
            int a = mesh.indices[3 * t + size_t(j)], b = mesh.indices[3 * t + size_t((j + 1) % 3)];
            if (a > b) std::swap(a, b);
            auto& list = byEdge[{a, b}];
            for (const int other : list) g.addEdge(other, int(t));
            list.push_back(int(t));
        }
    return g;
}

// n vertices, degree / 2 * n distinct edges between distinct vertices, fixed seed.
Graph randomGraph(int n, uint32_t seed, double degree = 3.0) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> pick(0, n - 1);
    Graph g(static_cast<size_t>(n));
    std::vector<std::pair<int, int>> edges;
    const auto wanted = size_t(double(n) * degree / 2);
    while (edges.size() < wanted) {
        int a = pick(rng), b = pick(rng);
        if (a == b) continue;
        if (a > b) std::swap(a, b);
        edges.emplace_back(a, b);
        if (edges.size() == wanted) {
            std::sort(edges.begin(), edges.end());
            edges.erase(std::unique(edges.begin(), edges.end()), edges.end());
        }
    }
    std::shuffle(edges.begin(), edges.end(), rng);
    for (const auto& e : edges) g.addEdge(e.first, e.second);
    return g;
}

const std::vector<NamedGraph>& graphs() {
    static const std::vector<NamedGraph> all = [] {
        std::vector<NamedGraph> list;
        for (const auto& named : testing_support::loadRealMeshes())
            list.push_back({named.name, meshAdjacency(named.mesh)});
        list.push_back({"random10k", randomGraph(10000, 1)});
        list.push_back({"random100k", randomGraph(100000, 2)});
        // Mostly isolated vertices and small components, like the adjacency of
        // a rough terrain whose triangles rarely pass the coplanarity test.
        list.push_back({"sparse100k", randomGraph(100000, 3, 0.2)});
        return list;
    }();
    return all;
}

int matchingSize(const std::vector<int32_t>& mate) {
    int pairs = 0;
    for (size_t v = 0; v < mate.size(); ++v) pairs += mate[v] > int32_t(v);
    return pairs;
}

void matchingBench(benchmark::State& state, size_t index) {
    const Graph& g = graphs()[index].graph;
    int size = 0;
    for (auto _ : state) {
        const Matching m(g);
        size = matchingSize(m.mate);
        benchmark::DoNotOptimize(size);
    }
    state.counters["vertices"] = double(g.size());
    state.counters["pairs"] = double(size);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(g.size()));
}

#if defined(ZELK_TEST_HAVE_BOOST)
using BoostGraph = boost::adjacency_list<boost::vecS, boost::vecS, boost::undirectedS>;

void boostBench(benchmark::State& state, size_t index) {
    const Graph& g = graphs()[index].graph;
    BoostGraph bg(g.size());
    for (size_t v = 0; v < g.size(); ++v)
        for (const int32_t w : g.adjacency[v])
            if (size_t(w) > v) boost::add_edge(v, size_t(w), bg);
    std::vector<boost::graph_traits<BoostGraph>::vertex_descriptor> mate(g.size());
    size_t size = 0;
    for (auto _ : state) {
        boost::edmonds_maximum_cardinality_matching(bg, &mate[0]);
        size = boost::matching_size(bg, &mate[0]);
        benchmark::DoNotOptimize(size);
    }
    // Both are maximum: a different size means one of them is wrong.
    if (int(size) != matchingSize(Matching(g).mate)) state.SkipWithError("matching sizes differ");
    state.counters["vertices"] = double(g.size());
    state.counters["pairs"] = double(size);
    state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(g.size()));
}
#endif

int registerAll() {
    for (size_t i = 0; i < graphs().size(); ++i) {
        benchmark::RegisterBenchmark(("BM_Matching/" + graphs()[i].name).c_str(), matchingBench, i)
            ->Unit(benchmark::kMicrosecond);
#if defined(ZELK_TEST_HAVE_BOOST)
        benchmark::RegisterBenchmark(("BM_BoostEdmonds/" + graphs()[i].name).c_str(), boostBench, i)
            ->Unit(benchmark::kMicrosecond);
#endif
    }
    return 0;
}

const int registered = registerAll();

} // namespace
