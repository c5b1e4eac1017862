#include "common/QuadDecomposition.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "common/Matching.h"
#include "common/MeshReducer.h"
#include "support/MatchingCertificate.h"
#include "support/MeshCorpus.h"
#include "support/ReferenceQuadDecomposition.h"

using common::float4;
using common::QuadDecomposition;
using Indices = std::vector<uint32_t>;

namespace {

std::vector<float4> toVectors(const std::vector<float>& xyz) {
    std::vector<float4> v;
    for (size_t i = 0; i + 2 < xyz.size(); i += 3) v.push_back(common::make4(xyz[i], xyz[i + 1], xyz[i + 2], 1.0f));
    return v;
}

} // namespace

TEST(QuadDecomposition, SmallCases) {
    //  2 --- 3
    //  | \   |     t0 = (0, 1, 2), t1 = (2, 1, 3): shared edge 1->2 / 2->1
    //  0 --- 1
    const std::vector<float4> v = toVectors({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0});
    // Found from t0 across (cur 1, next 2), third 0, opp 3; wound backwards.
    EXPECT_EQ(QuadDecomposition::decompose({0, 1, 2, 2, 1, 3}, v), (Indices{1, 0, 2, 3}));
    EXPECT_EQ(QuadDecomposition::decompose({2, 1, 3, 0, 1, 2}, v), (Indices{2, 3, 1, 0}));
    // Same direction on the shared edge (inconsistent winding): never paired.
    EXPECT_EQ(QuadDecomposition::decompose({0, 1, 2, 1, 2, 3}, v), (Indices{0, 2, 1, 0, 1, 3, 2, 1}));
    // One triangle, too few indices, a trailing partial triangle, a bad index.
    EXPECT_EQ(QuadDecomposition::decompose({0, 1, 2}, v), (Indices{0, 2, 1, 0}));
    EXPECT_TRUE(QuadDecomposition::decompose({0, 1}, v).empty());
    EXPECT_EQ(QuadDecomposition::decompose({0, 1, 2, 2, 1}, v), (Indices{0, 2, 1, 0}));
    EXPECT_TRUE(QuadDecomposition::decompose({0, 1, 2, 2, 1, 4}, v).empty());

    // Folds: vertex 3 lifted by h off t0's plane. The limit is 0.5 model units,
    // not relative: a right-angle fold of tiny triangles pairs, a gentle fold of
    // huge ones does not.
    const auto pairs = [](float size, float h) {
        const Indices q = QuadDecomposition::decompose({0, 1, 2, 2, 1, 3},
                                                       toVectors({0, 0, 0, size, 0, 0, 0, size, 0, size, size, h}));
        return q.size() == 4;
    };
    EXPECT_TRUE(pairs(1, 0.3f));
    EXPECT_FALSE(pairs(1, 0.6f));
    EXPECT_FALSE(pairs(1, -0.6f));
    EXPECT_TRUE(pairs(0.1f, 0.1f));
    EXPECT_FALSE(pairs(100, 2));

    const std::vector<float4> w = toVectors({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 5});
    // (0, 1, 0) runs along its own edge both ways: its own neighbour, paired
    // with itself by the greedy pass, it emits nothing.
    EXPECT_TRUE(QuadDecomposition::decompose({0, 1, 0}, w).empty());
    // Both sides of one triangle share three reversed edges: a quad per edge.
    EXPECT_EQ(QuadDecomposition::decompose({0, 1, 2, 1, 0, 2}, w), (Indices{0, 2, 1, 2, 1, 0, 2, 0, 2, 1, 0, 1}));
    // Triangle 1 = (2, 1, 3) folds 5 units away but sits on edge 2->1 ahead of
    // triangle 2. After the pair (0, 2) emitted its first quad, an edge counts
    // only if its list starts with 2, so edge 2->1 gives nothing.
    EXPECT_EQ(QuadDecomposition::decompose({0, 1, 2, 2, 1, 3, 1, 0, 2}, w),
              (Indices{0, 2, 1, 2, 2, 1, 0, 1, 2, 3, 1, 2}));

    // A flat book: `ahead` pages run 0->1, `back` pages 1->0, any two facing
    // pages pair, so a maximum matching leaves max(ahead, back) quads. An edge
    // with over 16 pages either way pairs nothing.
    const auto book = [](uint32_t ahead, uint32_t back) {
        std::vector<float> xyz = {0, 0, 0, 1, 0, 0};
        Indices indices;
        for (uint32_t p = 0; p < ahead + back; ++p) {
            const uint32_t spine[2] = {p < ahead ? 0u : 1u, p < ahead ? 1u : 0u};
            xyz.insert(xyz.end(), {0.05f * float(p), p < ahead ? 1.0f : -1.0f, 0});
            indices.insert(indices.end(), {spine[0], spine[1], 2 + p});
        }
        return QuadDecomposition::decompose(indices, toVectors(xyz)).size() / 4;
    };
    EXPECT_EQ(book(16, 3), 16u);
    EXPECT_EQ(book(3, 16), 16u);
    EXPECT_EQ(book(16, 16), 16u);
    EXPECT_EQ(book(17, 3), 20u);
    EXPECT_EQ(book(3, 17), 20u);
    // 21,845 copies of a point (the most 16-bit indices hold) once took minutes.
    const Indices pile(3 * 21845, 0);
    const Indices quads = QuadDecomposition::decompose(pile, toVectors({2, 3, 4}));
    EXPECT_EQ(quads, Indices(4 * 21845, 0));
}

// Exact quads against the reference, and pairings proved maximum: grids and a
// box (whose perfect pairings are also counted by hand), the synthetic and
// real meshes as they come and reduced as the loader does and at other
// settings, and random soups with non-finite coordinates.
TEST(QuadDecomposition, MatchesReference) {
    // Odd grids need the augmenting search to pair every triangle.
    for (const int n : {5, 16}) {
        const testing_support::Mesh grid = testing_support::makeGrid(n, -3, -3, 3, 3, 1);
        const Indices quads =
            QuadDecomposition::decompose(Indices(grid.indices.begin(), grid.indices.end()), toVectors(grid.vertices));
        EXPECT_EQ(quads.size(), size_t(4 * n * n)) << n;
    }
    const testing_support::Mesh box = testing_support::makeBox(0, 0, 0, 1, 1, 1);
    EXPECT_EQ(
        QuadDecomposition::decompose(Indices(box.indices.begin(), box.indices.end()), toVectors(box.vertices)).size(),
        24u);

    // The quads, and the pairs behind them as many as the pairing rules allow
    // (a triangle that is its own neighbour may take itself instead).
    const auto expectSame = [](const Indices& indices, const std::vector<float4>& vertices, const std::string& what) {
        ASSERT_EQ(QuadDecomposition::decompose(indices, vertices),
                  testing_support::referenceDecompose(indices, vertices))
            << what;
        const Graph graph = testing_support::referencePairingGraph(indices, vertices);
        const std::vector<int32_t> mate = Matching(graph).mate;
        size_t pairs = 0, selfPaired = 0;
        for (size_t t = 0; t < mate.size(); ++t) pairs += mate[t] > int32_t(t), selfPaired += mate[t] == int32_t(t);
        if (selfPaired == 0) {
            EXPECT_EQ(pairs, testing_support::tutteBergeBound(graph, mate)) << what;
        }
    };
    for (const auto& named : testing_support::comparisonMeshes()) {
        const testing_support::Mesh& m = named.mesh;
        expectSame(Indices(m.indices.begin(), m.indices.end()), toVectors(m.vertices), named.name);
        for (const float ratio : {0.55f, 0.15f})
            for (const float aggressiveness : {35.0f, 10.0f}) {
                std::vector<float4> vertices;
                Indices indices;
                common::MeshReducer::reduce(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(),
                                            vertices, indices, uint32_t(ratio * float(m.vertexCount())), aggressiveness,
                                            aggressiveness == 35.0f);
                expectSame(indices, vertices, named.name + " reduced");
            }
    }
    for (uint32_t seed = 0; seed < 1000; ++seed) {
        const testing_support::Mesh soup = testing_support::makeRandomSoup(seed);
        expectSame(Indices(soup.indices.begin(), soup.indices.end()), toVectors(soup.vertices), "soup");
    }
}
