#include "support/CityScene.h"

#include <cmath>
#include <random>

namespace testing_support {

namespace {

constexpr int kColumns = 20, kRows = 13, kSubdivisions = 4;
constexpr float kSpacing = 30.0f;
constexpr float kCityZ0 = -30.0f; // nearest row of buildings

// Unit building: six faces of kSubdivisions^2 quads each.
Mesh makeBuilding() {
    Mesh m;
    // Each face: origin corner and two edge vectors whose cross product points outward.
    struct Face {
        float o[3], u[3], v[3];
    };
    const Face faces[6] = {
        {{-0.5f, 0, 0.5f}, {1, 0, 0}, {0, 1, 0}},  // +z
        {{0.5f, 0, -0.5f}, {-1, 0, 0}, {0, 1, 0}}, // -z
        {{0.5f, 0, 0.5f}, {0, 0, -1}, {0, 1, 0}},  // +x
        {{-0.5f, 0, -0.5f}, {0, 0, 1}, {0, 1, 0}}, // -x
        {{-0.5f, 1, 0.5f}, {1, 0, 0}, {0, 0, -1}}, // +y
        {{-0.5f, 0, -0.5f}, {1, 0, 0}, {0, 0, 1}}, // -y
    };
    const int n = kSubdivisions;
    for (const Face& f : faces) {
        const uint16_t base = uint16_t(m.vertices.size() / 3);
        for (int j = 0; j <= n; ++j)
            for (int i = 0; i <= n; ++i)
                for (int c = 0; c < 3; ++c)
                    m.vertices.push_back(f.o[c] + f.u[c] * float(i) / n + f.v[c] * float(j) / n);
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i) {
                const uint16_t a = uint16_t(base + j * (n + 1) + i), b = uint16_t(a + 1);
                const uint16_t c = uint16_t(a + n + 1), d = uint16_t(c + 1);
                const uint16_t tri[6] = {a, b, d, a, d, c};
                m.indices.insert(m.indices.end(), tri, tri + 6);
            }
    }
    return m;
}

std::array<float, 16> multiply(const std::array<float, 16>& a, const std::array<float, 16>& b) {
    std::array<float, 16> r{};
    for (int j = 0; j < 4; ++j)
        for (int i = 0; i < 4; ++i) {
            float s = 0;
            for (int k = 0; k < 4; ++k) s += a[k * 4 + i] * b[j * 4 + k];
            r[j * 4 + i] = s;
        }
    return r;
}

struct Building {
    float x, z, width, depth, height;
};

std::vector<Building> layout() {
    std::mt19937 rng(20240601u);
    std::uniform_real_distribution<float> size(10.0f, 24.0f), height(12.0f, 90.0f);
    std::vector<Building> b;
    for (int r = 0; r < kRows; ++r)
        for (int c = 0; c < kColumns; ++c) {
            const float x = (float(c) - (kColumns - 1) * 0.5f) * kSpacing;
            const float z = kCityZ0 - float(r) * kSpacing;
            b.push_back({x, z, size(rng), size(rng), height(rng)});
        }
    return b;
}

} // namespace

CityScene makeCityScene(float aspect) {
    CityScene s;
    const Mesh building = makeBuilding();
    for (const Building& b : layout()) {
        s.meshes.push_back(building);
        s.models.push_back({b.width, 0, 0, 0, 0, b.height, 0, 0, 0, 0, b.depth, 0, b.x, 0, b.z, 1});
    }
    s.triangleCount = uint32_t(s.meshes.size() * (building.indices.size() / 3));

    // Eye above the street in front of the city, looking slightly down.
    const float eye[3] = {0.0f, 40.0f, 10.0f}, target[3] = {0.0f, 10.0f, -200.0f};
    float f[3] = {target[0] - eye[0], target[1] - eye[1], target[2] - eye[2]};
    const float fl = std::sqrt(f[0] * f[0] + f[1] * f[1] + f[2] * f[2]);
    for (float& v : f) v /= fl;
    // side = f x up(0,1,0), normalised; up' = side x f.
    float sd[3] = {-f[2], 0.0f, f[0]};
    const float sl = std::sqrt(sd[0] * sd[0] + sd[2] * sd[2]);
    for (float& v : sd) v /= sl;
    const float up[3] = {sd[1] * f[2] - sd[2] * f[1], sd[2] * f[0] - sd[0] * f[2], sd[0] * f[1] - sd[1] * f[0]};
    const auto dot = [&](const float* a) { return a[0] * eye[0] + a[1] * eye[1] + a[2] * eye[2]; };
    const std::array<float, 16> view = {sd[0], up[0], -f[0], 0, sd[1],    up[1],    -f[1],  0,
                                        sd[2], up[2], -f[2], 0, -dot(sd), -dot(up), dot(f), 1};
    s.nearPlane = 1.0f;
    const float farPlane = 1000.0f, fovY = 1.0471976f; // 60 degrees
    const float t = 1.0f / std::tan(fovY * 0.5f);
    const float n = s.nearPlane;
    const std::array<float, 16> projection = {t / aspect,
                                              0,
                                              0,
                                              0,
                                              0,
                                              t,
                                              0,
                                              0,
                                              0,
                                              0,
                                              -(farPlane + n) / (farPlane - n),
                                              -1,
                                              0,
                                              0,
                                              -2 * farPlane * n / (farPlane - n),
                                              0};
    s.viewProjection = multiply(projection, view);
    return s;
}

std::vector<float> makeCityQueryBoxes(const CityScene& scene, int count, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<size_t> pick(0, scene.meshes.size() - 1);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<float> boxes;
    for (int i = 0; i < count; ++i) {
        const auto& m = scene.models[pick(rng)];
        const float cx = m[12], cz = m[14], w = m[0], d = m[10], h = m[5];
        float lo[3], hi[3];
        if (i % 2 == 0) {
            // A 2-unit cube inside a building, away from its walls.
            const float x = cx + (unit(rng) - 0.5f) * (w - 4.0f);
            const float z = cz + (unit(rng) - 0.5f) * (d - 4.0f);
            const float y = 2.0f + unit(rng) * (h - 4.0f);
            lo[0] = x - 1.0f, lo[1] = y - 1.0f, lo[2] = z - 1.0f;
            hi[0] = x + 1.0f, hi[1] = y + 1.0f, hi[2] = z + 1.0f;
        } else {
            // A 1-unit cube in the open between the eye and the first row.
            const float x = (unit(rng) - 0.5f) * 20.0f;
            const float y = 32.0f + unit(rng) * 14.0f;
            const float z = -14.0f + unit(rng) * 10.0f;
            lo[0] = x - 0.5f, lo[1] = y - 0.5f, lo[2] = z - 0.5f;
            hi[0] = x + 0.5f, hi[1] = y + 0.5f, hi[2] = z + 0.5f;
        }
        boxes.insert(boxes.end(), lo, lo + 3);
        boxes.insert(boxes.end(), hi, hi + 3);
    }
    return boxes;
}

} // namespace testing_support
