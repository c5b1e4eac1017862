#pragma once

#include <cstdint>
#include <vector>

#include "common/Simd.h"

namespace common {

// Simplifies a triangle mesh to a target triangle count by edge collapse
// driven by the plane quadrics of Garland and Heckbert, with an error threshold
// that grows with every iteration (at most 100).
class MeshReducer {
public:
    // vertices: vertexCount xyz triples; indices: indexCount 16-bit indices,
    // three per triangle (a trailing partial triangle is ignored).
    // Stops once at most targetTriangles triangles are live; a pass may go
    // below the target. aggressiveness is the exponent of the threshold
    // schedule (iteration + 3)^aggressiveness * 1e-9; normalize scales the
    // mesh to unit size for the reduction and back afterwards.
    //
    // On success outVertices holds the used vertices as (x, y, z, 1) and
    // outIndices three indices per triangle in input winding. Both outputs are
    // left untouched when an argument is null or zero, when an index is not
    // below vertexCount, or when nothing is left (pass them in empty).
    //
    // Thread-safe: the process-wide working storage is taken under a lock.
    static void reduce(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount,
                       std::vector<float4>& outVertices, std::vector<uint32_t>& outIndices, uint32_t targetTriangles,
                       float aggressiveness, bool normalize);
};

} // namespace common
