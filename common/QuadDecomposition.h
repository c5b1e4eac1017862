#pragma once

#include <cstdint>
#include <vector>

#include "common/Simd.h"

namespace common {

// Pairs edge-adjacent, consistently wound, nearly coplanar triangles into
// quads through a maximum matching of the triangle adjacency graph.
class QuadDecomposition {
public:
    // indices: three per triangle (a trailing partial triangle is ignored);
    // vertices: positions in x, y, z (w unused).
    //
    // Returns four vertex indices per quad, wound opposite to the input
    // triangles: a pair sharing edge cur->next, with third the remaining
    // corner of the earlier triangle and opp that of the later one, becomes
    // (cur, third, next, opp); an unpaired triangle (a, b, c) becomes
    // (a, c, b, a). Two triangles pair when they cross one edge in opposite
    // directions and each one's far vertex lies within 0.5 units of the
    // other's plane. Empty when an index is not below vertices.size().
    static std::vector<uint32_t> decompose(const std::vector<uint32_t>& indices, const std::vector<float4>& vertices);
};

} // namespace common
