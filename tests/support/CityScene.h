// A fixed synthetic city for benchmarks and whole-frame tests: 260 building
// meshes of 192 triangles (49,920 in all) on a grid, seen from a camera above
// the street. Deterministic; no GoogleTest dependency.
#pragma once

#include "support/TestMeshes.h"

#include <array>
#include <cstdint>
#include <vector>

namespace testing_support {

struct CityScene {
    // Unit buildings in object space: x, z in [-0.5, 0.5], y in [0, 1],
    // faces subdivided 4 x 4, wound counter-clockwise seen from outside.
    std::vector<Mesh> meshes;
    // Column-major model matrices (scale, then translate), one per mesh.
    std::vector<std::array<float, 16>> models;
    // Column-major view-projection: right-handed world, y up, camera looking
    // down -z; clip w is the distance in front of the eye.
    std::array<float, 16> viewProjection;
    float nearPlane;
    uint32_t triangleCount;
};

// aspect = screen width / height.
CityScene makeCityScene(float aspect);

// count world-space boxes, six floats each (min x, y, z, max x, y, z), each
// covering well under 1% of a 16:9 screen. Even-numbered boxes sit inside
// buildings (hidden), odd-numbered ones float in the open between the eye and
// the first row of buildings (visible).
std::vector<float> makeCityQueryBoxes(const CityScene& scene, int count, uint32_t seed);

} // namespace testing_support
