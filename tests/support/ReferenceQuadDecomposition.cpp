#include "support/ReferenceQuadDecomposition.h"

#include <cmath>
#include <unordered_map>
#include <utility>

#include "support/ReferenceMatching.h"

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

} // namespace

std::vector<uint32_t> referenceDecompose(const std::vector<uint32_t>& indices,
                                         const std::vector<common::float4>& vertices) {
    std::vector<uint32_t> quads;
    const size_t triangles = indices.size() / 3;
    for (size_t i = 0; i < triangles * 3; ++i)
        if (indices[i] >= vertices.size()) return quads;
    const auto at = [&](uint32_t i) {
        return P{common::lane<0>(vertices[i]), common::lane<1>(vertices[i]), common::lane<2>(vertices[i])};
    };

    // Edges that more than 16 triangles run along in either direction pair nothing.
    std::unordered_map<uint64_t, size_t> runs;
    for (size_t t = 0; t < triangles; ++t)
        for (int j = 0; j < 3; ++j) ++runs[key(indices[3 * t + size_t(j)], indices[3 * t + size_t(j + 1) % 3])];
    const auto crowded = [&](uint32_t a, uint32_t b) { return runs[key(a, b)] > 16 || runs[key(b, a)] > 16; };

    std::unordered_map<uint64_t, std::vector<std::pair<uint32_t, uint32_t>>> edges; // (triangle, opposite)
    Graph graph(triangles);
    for (uint32_t t = 0; t < triangles; ++t) {
        const uint32_t* c = &indices[3 * size_t(t)];
        for (int j = 0; j < 3; ++j) edges[key(c[j], c[(j + 1) % 3])].emplace_back(t, c[(j + 2) % 3]);
        for (int j = 0; j < 3; ++j) {
            const uint32_t cur = c[j], next = c[(j + 1) % 3], third = c[(j + 2) % 3];
            if (crowded(cur, next)) continue;
            for (const auto& [t2, opp] : edges[key(next, cur)]) {
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

    const ReferenceMatching matching(graph);
    for (uint32_t t = 0; t < triangles; ++t) {
        const uint32_t* c = &indices[3 * size_t(t)];
        const int32_t m = matching.mate[t];
        if (m == -1) {
            quads.insert(quads.end(), {c[0], c[2], c[1], c[0]});
            continue;
        }
        if (uint32_t(m) <= t) continue;
        bool emitted = false;
        for (int j = 0; j < 3; ++j) {
            if (crowded(c[j], c[(j + 1) % 3])) continue;
            const auto& list = edges[key(c[(j + 1) % 3], c[j])];
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
