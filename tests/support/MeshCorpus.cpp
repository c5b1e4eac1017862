#include "support/MeshCorpus.h"

#include <array>
#include <cmath>
#include <map>
#include <random>

namespace testing_support {

float hashNoise(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7feb352du;
    x ^= x >> 15;
    x *= 0x846ca68bu;
    x ^= x >> 16;
    return float(int32_t(x >> 8) - (1 << 23)) / float(1 << 23);
}

Mesh makeBumpyGrid(int n, float amplitude, uint32_t seed) {
    Mesh m = makeGrid(n, -1, -2, 3, 1, 0.5f);
    for (size_t v = 0; v < m.vertexCount(); ++v)
        m.vertices[3 * v + 2] += amplitude * hashNoise(uint32_t(v) * 2654435761u + seed);
    return m;
}

Mesh makeBoxesOnGround(int boxes) {
    Mesh m = makeBumpyGrid(24, 0.05f, 3);
    for (int i = 0; i < boxes; ++i)
        for (int j = 0; j < boxes; ++j) {
            const float x = -1.0f + 4.0f * float(i) / float(boxes), y = -2.0f + 3.0f * float(j) / float(boxes);
            const float h = 0.1f + 0.05f * hashNoise(uint32_t(i * 31 + j));
            const Mesh box = makeBox(x, y, 0.6f, x + 0.45f, y + 0.01f, 0.6f + 3 * h);
            const auto base = uint16_t(m.vertexCount());
            m.vertices.insert(m.vertices.end(), box.vertices.begin(), box.vertices.end());
            for (const uint16_t index : box.indices) m.indices.push_back(uint16_t(base + index));
        }
    return m;
}

Mesh makeCubeSphere(int n, float radius, float jitter) {
    Mesh m;
    std::map<std::array<int, 3>, uint16_t> ids;
    const auto id = [&](int x, int y, int z) {
        const auto found = ids.find({x, y, z});
        if (found != ids.end()) return found->second;
        const auto index = uint16_t(m.vertexCount());
        const double length = std::sqrt(double(x * x + y * y + z * z));
        const double r = radius * (1.0 + jitter * hashNoise(uint32_t(index) * 40503u + 7u));
        for (const int c : {x, y, z}) m.vertices.push_back(float(c / length * r));
        ids[{x, y, z}] = index;
        return index;
    };
    // Face axis f with sign s; (u, v) span the other two axes, wound outwards.
    for (int f = 0; f < 3; ++f)
        for (const int s : {-1, 1})
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j) {
                    uint16_t q[4];
                    const int du[4] = {0, 1, 1, 0}, dv[4] = {0, 0, 1, 1};
                    for (int k = 0; k < 4; ++k) {
                        int c[3];
                        c[f] = s * n;
                        c[(f + 1) % 3] = 2 * (i + du[k]) - n;
                        c[(f + 2) % 3] = s * (2 * (j + dv[k]) - n);
                        q[k] = id(c[0], c[1], c[2]);
                    }
                    m.indices.insert(m.indices.end(), {q[0], q[1], q[2], q[0], q[2], q[3]});
                }
    return m;
}

Mesh makeRandomSoup(uint32_t seed) {
    std::mt19937 rng(seed);
    const float oddValues[] = {0.0f, -0.0f, 1.0f, 1e30f, -1e30f, INFINITY, NAN, 1e-30f};
    Mesh m;
    const uint32_t vertexCount = 1 + rng() % 60, triangleCount = 1 + rng() % 100;
    for (uint32_t i = 0; i < 3 * vertexCount; ++i)
        m.vertices.push_back(rng() % 8 == 0 ? oddValues[rng() % 8] : float(rng() % 7) * 0.25f);
    for (uint32_t i = 0; i < 3 * triangleCount; ++i) m.indices.push_back(uint16_t(rng() % vertexCount));
    return m;
}

std::vector<NamedMesh> comparisonMeshes() {
    std::vector<NamedMesh> meshes = {
        {"bumpy grid 40", makeBumpyGrid(40, 0.02f, 1)},
        {"rough grid 24", makeBumpyGrid(24, 0.3f, 2)},
        {"flat grid 20", makeGrid(20, 0, 0, 7, 5, 1)},
        {"cube sphere 20", makeCubeSphere(20, 2.5f, 0.0f)},
        {"jittered cube sphere 16", makeCubeSphere(16, 1.0f, 0.01f)},
        {"boxes on ground", makeBoxesOnGround(8)},
    };
    for (NamedMesh& real : loadRealMeshes()) meshes.push_back(std::move(real));
    return meshes;
}

} // namespace testing_support
