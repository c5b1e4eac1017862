#include "common/Matching.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "support/MeshLoader.h"

#if defined(ZELK_TEST_HAVE_BOOST)
#include <boost/graph/adjacency_list.hpp>
#include <boost/graph/max_cardinality_matching.hpp>
#endif

namespace {

// Qemu and the sanitizers run 10-30x slower; keep their sweeps short.
#if defined(__aarch64__) || defined(__SANITIZE_ADDRESS__)
constexpr int kRandomRounds = 2000;
#else
constexpr int kRandomRounds = 20000;
#endif

using Edges = std::vector<std::pair<int, int>>;

Graph makeGraph(int n, const Edges& edges) {
    Graph g{size_t(n)};
    for (const auto& e : edges) g.addEdge(e.first, e.second);
    return g;
}

// Size of a maximum matching by exhaustive recursion over vertex subsets
// (memoised); small n only.
int bruteForceMaximum(int n, const Edges& edges) {
    std::vector<uint32_t> adjacent(size_t(n), 0);
    for (const auto& e : edges) {
        adjacent[size_t(e.first)] |= 1u << e.second;
        adjacent[size_t(e.second)] |= 1u << e.first;
    }
    std::vector<int> best(size_t(1) << n, 0);
    for (uint32_t mask = 1; mask < (1u << n); ++mask) {
        const int i = __builtin_ctz(mask);
        const uint32_t rest = mask & ~(1u << i);
        int b = best[rest];
        for (uint32_t m = adjacent[size_t(i)] & rest; m; m &= m - 1) {
            const int j = __builtin_ctz(m);
            b = std::max(b, 1 + best[rest & ~(1u << j)]);
        }
        best[mask] = b;
    }
    return best[(size_t(1) << n) - 1];
}

// Checks that mate is a matching of g (symmetric, along edges) and returns its
// number of pairs.
int checkedSize(const Graph& g, const std::vector<int32_t>& mate) {
    EXPECT_EQ(mate.size(), g.size());
    int pairs = 0;
    for (size_t v = 0; v < mate.size(); ++v) {
        const int32_t m = mate[v];
        if (m == -1) continue;
        EXPECT_GE(m, 0);
        EXPECT_LT(size_t(m), g.size());
        if (m < 0 || size_t(m) >= g.size()) return -1;
        EXPECT_EQ(mate[size_t(m)], int32_t(v)) << "vertex " << v;
        const auto& adj = g.adjacency[v];
        EXPECT_NE(std::find(adj.begin(), adj.end(), m), adj.end()) << "pair " << v << "-" << m << " is no edge";
        if (size_t(m) > v) ++pairs;
    }
    return pairs;
}

Edges randomEdges(std::mt19937& rng, int n, int edgeCount) {
    Edges edges;
    std::uniform_int_distribution<int> pick(0, n - 1);
    while (int(edges.size()) < edgeCount) {
        const int a = pick(rng), b = pick(rng);
        if (a != b) edges.emplace_back(a, b); // duplicates allowed: they must not matter
    }
    return edges;
}

void shuffleLists(std::mt19937& rng, Graph& g) {
    for (auto& list : g.adjacency) std::shuffle(list.begin(), list.end(), rng);
}

#if defined(ZELK_TEST_HAVE_BOOST)
int boostMaximum(const Graph& g) {
    using BoostGraph = boost::adjacency_list<boost::vecS, boost::vecS, boost::undirectedS>;
    BoostGraph bg(g.size());
    for (size_t v = 0; v < g.size(); ++v)
        for (const int32_t w : g.adjacency[v])
            if (size_t(w) > v) boost::add_edge(v, size_t(w), bg);
    std::vector<boost::graph_traits<BoostGraph>::vertex_descriptor> mate(g.size());
    boost::edmonds_maximum_cardinality_matching(bg, &mate[0]);
    return int(boost::matching_size(bg, &mate[0]));
}
#endif

#if defined(ZELK_TEST_HAVE_BOOST)
// Triangle adjacency (shared undirected edge) of a mesh, lists in triangle order.
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
#endif

} // namespace

TEST(Matching, WorkedCasesAndTieBreaks) {
    // 0-1, 0-2, 2-3 with vertex 0 listing 2 first: the greedy pass takes 0-2,
    // the search from 1 finds the path 3-2-0-1 and flips it.
    Graph g(4);
    g.adjacency[0] = {2, 1};
    g.adjacency[1] = {0};
    g.adjacency[2] = {0, 3};
    g.adjacency[3] = {2};
    const Matching m(g);
    EXPECT_EQ(m.mate, (std::vector<int32_t>{1, 0, 3, 2}));

    // Odd cycle of five: two pairs, one vertex free. Greedy pairs 0-1 and 2-3;
    // 4 is left and no search can help it.
    const Matching five(makeGraph(5, {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 0}}));
    EXPECT_EQ(five.mate, (std::vector<int32_t>{1, 0, 3, 2, -1}));

    // A path whose greedy pass is already perfect keeps the greedy pairs.
    const Matching path(makeGraph(6, {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 5}}));
    EXPECT_EQ(path.mate, (std::vector<int32_t>{1, 0, 3, 2, 5, 4}));

    // Empty graph, isolated vertices.
    EXPECT_TRUE(Matching(Graph()).mate.empty());
    EXPECT_EQ(Matching(Graph(3)).mate, (std::vector<int32_t>{-1, -1, -1}));

    // A self-loop pairs a free vertex with itself in the greedy pass; a search
    // that meets it must neither use it nor hang.
    Graph loop(4);
    loop.adjacency[0] = {0, 1};
    loop.adjacency[1] = {0, 2};
    loop.adjacency[2] = {1, 3};
    loop.adjacency[3] = {2};
    const Matching looped(loop);
    EXPECT_EQ(looped.mate[0], 0);
    EXPECT_EQ(looped.mate[1], 2);
    EXPECT_EQ(looped.mate[2], 1);
    EXPECT_EQ(looped.mate[3], -1);

    // Out-of-range neighbours are ignored.
    Graph bad(2);
    bad.adjacency[0] = {7, -3, 1};
    bad.adjacency[1] = {0, 2};
    EXPECT_EQ(Matching(bad).mate, (std::vector<int32_t>{1, 0}));
}

TEST(Matching, BlossomsNeedTheSearch) {
    //   4 - 0 = 1 - 3 - 5      (= greedy pairs 0-1 and 2-3; 4 and 5 are left)
    //            \ /|
    //             2=+
    // The search from 4 reaches 3 through 1 before 2, so 1-3-2 closes a
    // blossom with base 1; 5 is then found from 3 and the path runs across
    // the blossom's bridge: 5, 3, 2, 1, 0, 4.
    Graph g(6);
    g.adjacency[0] = {1, 4};
    g.adjacency[1] = {0, 3, 2};
    g.adjacency[2] = {3, 1};
    g.adjacency[3] = {1, 2, 5};
    g.adjacency[4] = {0};
    g.adjacency[5] = {3};
    const Matching m(g);
    EXPECT_EQ(m.mate, (std::vector<int32_t>{4, 2, 1, 5, 0, 3}));

    // Same shape with a five-cycle blossom 1-3-6-7-2-1 (greedy pairs 3-6 and
    // 7-2): the free vertex 5 hangs off 3, which the search first meets as an
    // inner vertex.
    Graph h(8);
    h.adjacency[0] = {1, 4};
    h.adjacency[1] = {0, 3, 2};
    h.adjacency[2] = {7, 1};
    h.adjacency[3] = {6, 1, 5};
    h.adjacency[4] = {0};
    h.adjacency[5] = {3};
    h.adjacency[6] = {3, 7};
    h.adjacency[7] = {2, 6};
    const Matching mh(h);
    EXPECT_EQ(checkedSize(h, mh.mate), 4);
    EXPECT_EQ(mh.mate[4], 0);
    EXPECT_EQ(mh.mate[5], 3);

    // Petersen graph: 3-regular, perfect matching of 5 pairs.
    const Edges petersen = {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 0}, {0, 5}, {1, 6}, {2, 7},
                            {3, 8}, {4, 9}, {5, 7}, {7, 9}, {9, 6}, {6, 8}, {8, 5}};
    std::mt19937 rng(7);
    for (int round = 0; round < 50; ++round) {
        Graph p = makeGraph(10, petersen);
        shuffleLists(rng, p);
        EXPECT_EQ(checkedSize(p, Matching(p).mate), 5);
    }
}

TEST(Matching, EqualsBruteForceOnSmallGraphs) {
    std::mt19937 rng(12345);
    // Every graph on up to 6 vertices, adjacency lists shuffled.
    for (int n = 1; n <= 6; ++n) {
        Edges all;
        for (int a = 0; a < n; ++a)
            for (int b = a + 1; b < n; ++b) all.emplace_back(a, b);
        for (uint32_t subset = 0; subset < (1u << all.size()); ++subset) {
            Edges edges;
            for (size_t e = 0; e < all.size(); ++e)
                if (subset >> e & 1) edges.push_back(all[e]);
            Graph g = makeGraph(n, edges);
            shuffleLists(rng, g);
            const int size = checkedSize(g, Matching(g).mate);
            ASSERT_EQ(size, bruteForceMaximum(n, edges)) << "n " << n << " subset " << subset;
        }
    }
    // Random graphs of 7 to 14 vertices, sparse to dense.
    for (int round = 0; round < kRandomRounds; ++round) {
        const int n = 7 + round % 8;
        const int edgeCount = 1 + int(rng() % uint32_t(2 * n));
        const Edges edges = randomEdges(rng, n, edgeCount);
        Graph g = makeGraph(n, edges);
        shuffleLists(rng, g);
        const int size = checkedSize(g, Matching(g).mate);
        ASSERT_EQ(size, bruteForceMaximum(n, edges)) << "round " << round;
    }
}

TEST(Matching, EqualsBoostOnLargerGraphs) {
#if !defined(ZELK_TEST_HAVE_BOOST)
    GTEST_SKIP() << "Boost Graph not available";
#else
    std::mt19937 rng(99);
    const int rounds = kRandomRounds / 100;
    for (int round = 0; round < rounds; ++round) {
        const int n = 50 + int(rng() % 2000);
        const int edgeCount = int(double(n) * (0.5 + double(rng() % 100) / 40.0));
        Graph g = makeGraph(n, randomEdges(rng, n, edgeCount));
        const int size = checkedSize(g, Matching(g).mate);
        ASSERT_EQ(size, boostMaximum(g)) << "round " << round << " n " << n;
    }
    // Triangle adjacency of real meshes.
    const auto meshes = testing_support::loadRealMeshes();
    if (meshes.empty()) GTEST_SKIP() << "no real meshes installed";
    for (const auto& named : meshes) {
        const Graph g = meshAdjacency(named.mesh);
        const int size = checkedSize(g, Matching(g).mate);
        // A perfect matching is maximum without asking; Boost is slow on big graphs.
        if (2 * size_t(size) == g.size() && g.size() > 10000) continue;
        EXPECT_EQ(size, boostMaximum(g)) << named.name;
    }
#endif
}

TEST(Matching, ArbitraryListsStayInBounds) {
    // Self-loops, duplicates, one-sided and out-of-range entries: the result
    // must still be a symmetric pairing of valid vertices.
    std::mt19937 rng(4242);
    for (int round = 0; round < kRandomRounds / 10; ++round) {
        const int n = 1 + int(rng() % 40);
        Graph g{size_t(n)};
        for (auto& list : g.adjacency) {
            const int length = int(rng() % 6);
            for (int k = 0; k < length; ++k) list.push_back(int32_t(rng() % uint32_t(n + 3)) - 1);
        }
        const Matching m(g);
        ASSERT_EQ(m.mate.size(), size_t(n));
        for (int v = 0; v < n; ++v) {
            const int32_t w = m.mate[size_t(v)];
            if (w == -1) continue;
            ASSERT_GE(w, 0);
            ASSERT_LT(w, n);
            EXPECT_EQ(m.mate[size_t(w)], v);
        }
    }
}
