#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/Simd.h"

namespace common {

// Simplifies an occluder mesh without letting it grow or tear: half-edge
// collapses (every output vertex is an input vertex) in order of their plane
// quadric error (Garland and Heckbert), each refused when it would
//  - move the surface further than a bound from the planes of the triangles
//    it replaces (the square root of the summed, unweighted quadrics bounds
//    the largest of those distances),
//  - move an open border off its own line (boundary constraint planes, heavily
//    weighted, and a border vertex only ever slides along a border edge; a
//    fold, two faces turned nearly back to back, counts as a border),
//  - fold a triangle over, or change the mesh's topology (link condition).
// Positions are welded first, so that seams of split vertices close.
//
// All arithmetic is plain double precision in a fixed order: the output is
// the same on every platform for the same input.
class ErrorBoundedReducer {
public:
    struct Target {
        // Collapse until at most this many triangles are left...
        uint32_t triangles;
        // ...but never one that costs more than this, as a fraction of the
        // diagonal of the mesh's box...
        double maxError;
        // ...and go on past the triangle count while collapses cost at most
        // this (flat regions fold down to a few triangles).
        double freeError;
    };

    // The conservative build's level lod (0 to 2) of a mesh of triangleCount
    // triangles. Each level's bound is half a pixel at the largest screen
    // fraction that selects the level (1, 0.5, 0.25 of a 640 x 360 screen,
    // taking the box's diagonal as the diagonal of its screen rectangle).
    static Target levelTarget(unsigned lod, uint32_t triangleCount);

    // Level lod (0 to 2) of the conservative build, with the targets of
    // levelTarget: all three levels come from one reduceLevels run, kept for
    // the next call on the same mesh (the same contents) from this thread, so
    // that the levels of one bake cost one run.
    static void level(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount,
                      unsigned lod, std::vector<float4>& outVertices, std::vector<uint32_t>& outIndices);

    // Several targets, each with at most as many triangles and at least the
    // error bound of the one before: one reduction that stops at each in
    // turn, so that level k goes on from level k - 1. count outputs of each
    // kind; the free error of the first target holds for all.
    static void reduceLevels(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount,
                             const Target* targets, size_t count, std::vector<float4>* outVertices,
                             std::vector<uint32_t>* outIndices);

    // vertices: vertexCount xyz triples; indices: indexCount 16-bit indices,
    // three per triangle (a trailing partial triangle is ignored). On return
    // outVertices holds the used vertices, as given, with w = 1, and
    // outIndices three indices per triangle in input winding and order.
    // Triangles that name one position twice are dropped. Both outputs are
    // empty when an array is null, a count is zero, or an index is not below
    // vertexCount. Non-finite vertices stay where they are, with their
    // triangles. Thread-safe: each thread has its own working storage, kept
    // for its capacity.
    static void reduce(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount,
                       const Target& target, std::vector<float4>& outVertices, std::vector<uint32_t>& outIndices);
};

} // namespace common
