#include "support/ReferenceQuadDecomposition.h"

#include <cmath>
#include <unordered_map>
#include <utility>

#include "common/Matching.h"

namespace testing_support {

namespace {

struct P {
    float x, y, z;
};

P sub(P a, P b) { return P{a.x - b.x, a.y - b.y, a.z - b.z}; }
float dot(P a, P b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
P cross(P a, P b) { return P{a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }

// Scaled by the same low-precision reciprocal square root the library uses.
P roughUnit(P n) {
    const float r = common::lane<0>(common::rsqrtEstimate(common::splat(dot(n, n))));
    return P{n.x * r, n.y * r, n.z * r};
}

uint64_t key(uint32_t a, uint32_t b) { return uint64_t(a) << 32 | b; }

using EdgeLists = std::unordered_map<uint64_t, std::vector<std::pair<uint32_t, uint32_t>>>; // (triangle, opposite)

// Edges that more than 16 triangles run along in either direction pair nothing.
bool crowded(const EdgeLists& edges, uint32_t a, uint32_t b) {
    const auto count = [&](uint64_t k) {
        const auto it = edges.find(k);
        return it == edges.end() ? size_t(0) : it->second.size();
    };
    return count(key(a, b)) > 16 || count(key(b, a)) > 16;
}

EdgeLists edgeLists(const std::vector<uint32_t>& indices) {
    EdgeLists edges;
    for (uint32_t t = 0; t < indices.size() / 3; ++t)
        for (int j = 0; j < 3; ++j)
            edges[key(indices[3 * t + size_t(j)], indices[3 * t + size_t(j + 1) % 3])].emplace_back(
                t, indices[3 * t + size_t(j + 2) % 3]);
    return edges;
}

bool indicesValid(const std::vector<uint32_t>& indices, size_t vertexCount) {
    for (size_t i = 0; i < indices.size() / 3 * 3; ++i)
        if (indices[i] >= vertexCount) return false;
    return true;
}

} // namespace

Graph referencePairingGraph(const std::vector<uint32_t>& indices, const std::vector<common::float4>& vertices) {
    const size_t triangles = indices.size() / 3;
    if (!indicesValid(indices, vertices.size())) return Graph();
    const auto at = [&](uint32_t i) {
        return P{common::lane<0>(vertices[i]), common::lane<1>(vertices[i]), common::lane<2>(vertices[i])};
    };

    // Lists hold triangles in order, so a triangle sees only those registered
    // before it (and itself), as when the map is filled as it goes.
    const EdgeLists edges = edgeLists(indices);
    Graph graph(triangles);
    for (uint32_t t = 0; t < triangles; ++t) {
        const uint32_t* c = &indices[3 * size_t(t)];
        for (int j = 0; j < 3; ++j) {
            const uint32_t cur = c[j], next = c[(j + 1) % 3], third = c[(j + 2) % 3];
            const auto reversed = edges.find(key(next, cur));
            if (reversed == edges.end() || crowded(edges, cur, next)) continue;
            for (const auto& [t2, opp] : reversed->second) {
                if (t2 > t) break;
                const P toOpp = sub(at(opp), at(third));
                const float d1 = dot(toOpp, roughUnit(cross(sub(at(opp), at(cur)), sub(at(next), at(cur)))));
                if (std::fabs(d1) > 0.5f) continue;
                const float d2 = dot(toOpp, roughUnit(cross(sub(at(third), at(next)), sub(at(cur), at(next)))));
                if (std::fabs(d2) > 0.5f) continue;
                graph.adjacency[t].push_back(int32_t(t2));
                graph.adjacency[t2].push_back(int32_t(t));
            }
        }
    }
    return graph;
}

std::vector<uint32_t> referenceDecompose(const std::vector<uint32_t>& indices,
                                         const std::vector<common::float4>& vertices) {
    std::vector<uint32_t> quads;
    if (!indicesValid(indices, vertices.size())) return quads;
    const EdgeLists edges = edgeLists(indices);
    const std::vector<int32_t> mate = Matching(referencePairingGraph(indices, vertices)).mate;
    for (uint32_t t = 0; t < mate.size(); ++t) {
        const uint32_t* c = &indices[3 * size_t(t)];
        const int32_t m = mate[t];
        if (m == -1) {
            quads.insert(quads.end(), {c[0], c[2], c[1], c[0]});
            continue;
        }
        if (uint32_t(m) <= t) continue;
        bool emitted = false;
        for (int j = 0; j < 3; ++j) {
            const auto reversed = edges.find(key(c[(j + 1) % 3], c[j]));
            if (reversed == edges.end() || crowded(edges, c[j], c[(j + 1) % 3])) continue;
            const auto& list = reversed->second;
            for (size_t e = 0; e < list.size() && (!emitted || e == 0); ++e)
                if (list[e].first == uint32_t(m)) {
                    quads.insert(quads.end(), {c[j], c[(j + 2) % 3], c[(j + 1) % 3], list[e].second});
                    emitted = true;
                    break;
                }
        }
    }
    return quads;
}

} // namespace testing_support
