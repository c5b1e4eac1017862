// Small meshes for tests and benchmarks (no GoogleTest dependency here: the
// benchmark executable compiles these files too).
#pragma once

#include "common/OccluderGroup.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace testing_support {

struct Mesh {
    std::vector<float> vertices;   // x, y, z per vertex
    std::vector<uint16_t> indices; // three per triangle

    uint32_t vertexCount() const { return uint32_t(vertices.size() / 3); }
    uint32_t indexCount() const { return uint32_t(indices.size()); }
};

// Axis-aligned box [min, max], 8 vertices, 12 triangles wound counter-clockwise
// seen from outside.
Mesh makeBox(float minX, float minY, float minZ, float maxX, float maxY, float maxZ);

// Flat grid in the plane z = z0 spanning [x0, x1] x [y0, y1] with n x n quads
// ((n+1)^2 vertices, 2n^2 triangles), counter-clockwise seen from +z.
Mesh makeGrid(int n, float x0, float y0, float x1, float y1, float z0);

// The mesh paired into quads and baked at full detail, alone in a group's
// level 0: what the background loader makes of a small mesh.
std::shared_ptr<common::OccluderGroup> bakeFullDetail(const Mesh& mesh);

} // namespace testing_support
