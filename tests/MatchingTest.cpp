#include "common/Matching.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/MatchingCertificate.h"
#include "support/MeshCorpus.h"
#include "support/MeshLoader.h"

namespace {

#if defined(__aarch64__) || defined(__SANITIZE_ADDRESS__)
constexpr int kRounds = 2000; // qemu and the sanitizers are 10-30x slower
#else
constexpr int kRounds = 20000;
#endif

using Edges = std::vector<std::pair<int, int>>;

Graph makeGraph(int n, const Edges& edges, std::mt19937* shuffle = nullptr) {
    Graph g{size_t(n)};
    for (const auto& e : edges) g.addEdge(e.first, e.second);
    if (shuffle)
        for (auto& list : g.adjacency) std::shuffle(list.begin(), list.end(), *shuffle);
    return g;
}

// Maximum matching size over all vertex subsets, smallest vertex first.
int bruteForceMaximum(int n, const Edges& edges) {
    std::vector<uint32_t> adjacent(size_t(n), 0);
    for (const auto& e : edges)
        adjacent[size_t(e.first)] |= 1u << e.second, adjacent[size_t(e.second)] |= 1u << e.first;
    std::vector<int> best(size_t(1) << n, 0);
    for (uint32_t mask = 1; mask < (1u << n); ++mask) {
        const int i = __builtin_ctz(mask);
        const uint32_t rest = mask & ~(1u << i);
        best[mask] = best[rest];
        for (uint32_t m = adjacent[size_t(i)] & rest; m; m &= m - 1)
            best[mask] = std::max(best[mask], 1 + best[rest & ~(1u << __builtin_ctz(m))]);
    }
    return best.back();
}

// Pairs of a matching, checked to be symmetric and made of graph edges (-1 if not).
int pairCount(const Graph& g, const std::vector<int32_t>& mate) {
    int pairs = 0;
    for (size_t v = 0; v < mate.size(); ++v) {
        const int32_t m = mate[v];
        if (m == -1) continue;
        const auto& adj = g.adjacency[v];
        if (m < 0 || size_t(m) >= g.size() || mate[size_t(m)] != int32_t(v) ||
            std::find(adj.begin(), adj.end(), m) == adj.end())
            return -1;
        pairs += size_t(m) > v;
    }
    return pairs;
}

// The greedy start alone: each vertex in turn, if still free, takes the first
// free vertex of its list.
std::vector<int32_t> greedyPass(const Graph& g) {
    std::vector<int32_t> mate(g.size(), -1);
    for (int32_t v = 0; v < int32_t(g.size()); ++v) {
        const auto& adj = g.adjacency[size_t(v)];
        const auto isFree = [&](int32_t w) { return w >= 0 && size_t(w) < g.size() && mate[size_t(w)] == -1; };
        const auto first = std::find_if(adj.begin(), adj.end(), isFree);
        if (isFree(v) && first != adj.end())
            std::tie(mate[size_t(v)], mate[size_t(*first)]) = std::make_pair(*first, v);
    }
    return mate;
}

// What every result must satisfy: a pairing along edges that keeps every vertex
// the first pass paired (augmenting never frees one); where the first pass is
// already maximum, no search succeeds and the result is that pass.
testing::AssertionResult firstPassKept(const Graph& g, const std::vector<int32_t>& mate, int maximum) {
    if (pairCount(g, mate) < 0) return testing::AssertionFailure() << "not a matching of the graph";
    const std::vector<int32_t> greedy = greedyPass(g);
    for (size_t v = 0; v < g.size(); ++v)
        if (greedy[v] != -1 && mate[v] == -1) return testing::AssertionFailure() << "vertex " << v << " freed";
    if (maximum >= 0 && pairCount(g, greedy) == maximum && mate != greedy)
        return testing::AssertionFailure() << "a maximum first pass changed";
    return testing::AssertionSuccess();
}

// Triangles adjacent across an undirected shared edge, in triangle order.
Edges meshAdjacency(const std::vector<uint16_t>& idx) {
    Edges edges;
    std::vector<std::pair<std::pair<int, int>, int>> sides;
    for (size_t c = 0; c < idx.size(); ++c) {
        const int a = idx[c], b = idx[c % 3 == 2 ? c - 2 : c + 1];
        sides.push_back({{std::min(a, b), std::max(a, b)}, int(c / 3)});
    }
    std::sort(sides.begin(), sides.end());
    for (size_t i = 0; i < sides.size(); ++i)
        for (size_t j = i + 1; j < sides.size() && sides[j].first == sides[i].first; ++j)
            edges.emplace_back(sides[i].second, sides[j].second);
    return edges;
}

Edges randomEdges(std::mt19937& rng, int n, int count) {
    Edges edges;
    while (int(edges.size()) < count) {
        const int a = int(rng() % uint32_t(n)), b = int(rng() % uint32_t(n));
        if (a != b) edges.emplace_back(a, b); // duplicates allowed
    }
    return edges;
}

} // namespace

TEST(Matching, WorkedCases) {
    // 0-1, 0-2, 2-3 with 0 listing 2 first: greedy takes 0-2, the search from 1
    // finds 3-2-0-1 and flips it; 3 is then matched and not searched.
    Graph g(4);
    g.adjacency = {{2, 1}, {0}, {0, 3}, {2}};
    EXPECT_EQ(Matching(g).mate, (std::vector<int32_t>{1, 0, 3, 2}));
    // Five-cycle: greedy 0-1, 2-3; 4 stays free.
    EXPECT_EQ(Matching(makeGraph(5, {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 0}})).mate,
              (std::vector<int32_t>{1, 0, 3, 2, -1}));
    //   4 - 0 = 1 - 3 - 5    greedy pairs 0-1 and 2-3. From 4 the search meets 3
    //            \ /         before 2, so 1-3-2 closes a blossom (base 1); 5 is
    //             2          found from 3 and the path crosses the bridge:
    //                        5 3 2 1 0 4.
    g = Graph(6);
    g.adjacency = {{1, 4}, {0, 3, 2}, {3, 1}, {1, 2, 5}, {0}, {3}};
    EXPECT_EQ(Matching(g).mate, (std::vector<int32_t>{4, 2, 1, 5, 0, 3}));
    // Empty graph; a self-loop pairs its vertex with itself in the greedy pass
    // and a later search must neither use it nor hang; out-of-range entries
    // are ignored.
    EXPECT_TRUE(Matching(Graph()).mate.empty());
    g = Graph(4);
    g.adjacency = {{0, 1}, {0, 2}, {1, 3}, {2}};
    EXPECT_EQ(Matching(g).mate, (std::vector<int32_t>{0, 2, 1, -1}));
    g = Graph(2);
    g.adjacency = {{7, -3, 1}, {0, 2}};
    EXPECT_EQ(Matching(g).mate, (std::vector<int32_t>{1, 0}));
}

// Small graphs: the size found by brute force, the Tutte-Berge bound tight
// (checked against brute force here before the large graphs rely on it) and
// the first pass kept.
TEST(Matching, SmallGraphsAreMaximum) {
    std::mt19937 rng(12345);
    const auto check = [](const Graph& g, int n, const Edges& edges, const std::string& what) {
        const std::vector<int32_t> mate = Matching(g).mate;
        const int maximum = bruteForceMaximum(n, edges);
        ASSERT_TRUE(firstPassKept(g, mate, maximum)) << what;
        ASSERT_EQ(pairCount(g, mate), maximum) << what;
        ASSERT_EQ(testing_support::tutteBergeBound(g, mate), size_t(maximum)) << what;
    };
    // Every graph on up to 6 vertices, adjacency lists shuffled.
    for (int n = 1; n <= 6; ++n) {
        Edges all;
        for (int a = 0; a < n; ++a)
            for (int b = a + 1; b < n; ++b) all.emplace_back(a, b);
        for (uint32_t subset = 0; subset < (1u << all.size()); ++subset) {
            Edges edges;
            for (size_t e = 0; e < all.size(); ++e)
                if (subset >> e & 1) edges.push_back(all[e]);
            check(makeGraph(n, edges, &rng), n, edges, std::to_string(n) + " " + std::to_string(subset));
        }
    }
    // Random graphs of 7 to 20 vertices, sparse to dense. A self-loop may pair
    // its vertex with itself at a pair's cost: those graphs are checked for
    // validity only.
    for (int round = 0; round < kRounds + kRounds / 50; ++round) {
        const int n = round < kRounds ? 7 + round % 8 : 15 + round % 6;
        Edges edges = randomEdges(rng, n, 1 + int(rng() % uint32_t(2 * n)));
        if (round % 7 == 0) {
            edges.emplace_back(round % n, round % n);
            const Graph g = makeGraph(n, edges, &rng);
            ASSERT_TRUE(firstPassKept(g, Matching(g).mate, -1)) << round;
            continue;
        }
        check(makeGraph(n, edges, &rng), n, edges, "round " + std::to_string(round));
    }
    // One-sided, self and out-of-range entries: still a symmetric pairing.
    for (int round = 0; round < kRounds / 10; ++round) {
        const int n = 1 + int(rng() % 40);
        Graph g{size_t(n)};
        for (auto& list : g.adjacency)
            for (int k = int(rng() % 6); k > 0; --k) list.push_back(int32_t(rng() % uint32_t(n + 3)) - 1);
        const std::vector<int32_t> mate = Matching(g).mate;
        for (int v = 0; v < n; ++v) {
            const int32_t m = mate[size_t(v)];
            ASSERT_TRUE(m == -1 || (m >= 0 && m < n && mate[size_t(m)] == v)) << v;
        }
    }
}

// Large graphs: random ones from very sparse (mostly isolated vertices) to
// dense, and the triangle adjacency of meshes; each result is proved maximum
// by its Tutte-Berge bound.
TEST(Matching, LargeGraphsAreMaximum) {
    std::vector<Graph> graphs;
    std::mt19937 rng(99);
    for (int round = 0; round < std::max(5, kRounds / 400); ++round) {
        const int n = 50 + int(rng() % 5000);
        graphs.push_back(makeGraph(n, randomEdges(rng, n, int(n * (0.1 + (rng() % 100) / 40.0)))));
    }
    for (const auto& named : testing_support::comparisonMeshes()) {
        const auto& idx = named.mesh.indices;
        graphs.push_back(makeGraph(int(idx.size() / 3), meshAdjacency(idx)));
    }
    uint64_t hash = 14695981039346656037ull;
    for (size_t i = 0; i < graphs.size(); ++i) {
        const std::vector<int32_t> mate = Matching(graphs[i]).mate;
        const size_t bound = testing_support::tutteBergeBound(graphs[i], mate);
        ASSERT_TRUE(firstPassKept(graphs[i], mate, int(bound))) << i;
        ASSERT_EQ(size_t(pairCount(graphs[i], mate)), bound) << i;
        if (i < 5)
            for (const int32_t m : mate) hash = (hash ^ uint32_t(m)) * 1099511628211ull;
    }
    // Which maximum matching comes out follows from the tie-breaks, and the
    // quads from that. A golden value recorded from this code: it locks the
    // choice on the first five random graphs, it does not prove it right.
    EXPECT_EQ(hash, 5165913070154405731u);
}

// The comparisons over real meshes (here, and for the reducer and the quad
// decomposition) use what is installed; this says what was left out.
TEST(RealMeshes, AllLoad) {
    std::string missing;
    for (const std::string& path : testing_support::realMeshesMissing()) missing += " " + path;
    if (!missing.empty()) GTEST_SKIP() << "not loaded, so left out of the real-mesh comparisons:" << missing;
}
