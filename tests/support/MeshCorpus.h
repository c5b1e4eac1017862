// Meshes for the exact-output comparisons of the mesh stages: synthetic
// shapes built from integer arithmetic and square roots only (no sin/cos, so
// their bits are the same on every platform), seeded random soups with
// non-finite values, and the installed real meshes.
#pragma once

#include <cstdint>
#include <vector>

#include "support/MeshLoader.h"
#include "support/TestMeshes.h"

namespace testing_support {

// Deterministic noise in [-1, 1) from integer mixing.
float hashNoise(uint32_t x);

// n x n grid over [-1, 3] x [-2, 1] at height 0.5, every height perturbed by
// up to amplitude: open, with borders and curvature.
Mesh makeBumpyGrid(int n, float amplitude, uint32_t seed);

// A bumpy ground with rows of thin boxes standing on it: the boxes' collapses
// fail the flip test pass after pass, so the target is never reached.
Mesh makeBoxesOnGround(int boxes);

// Closed sphere from a subdivided cube, jittered radially.
Mesh makeCubeSphere(int n, float radius, float jitter);

// Random soup: up to 60 vertices on a coarse lattice with some 0, -0, huge,
// tiny, infinite and NaN coordinates, up to 100 triangles of random corners
// (repeats and degenerate ones included).
Mesh makeRandomSoup(uint32_t seed);

// The synthetic meshes above at fixed sizes, then the real meshes that load.
std::vector<NamedMesh> comparisonMeshes();

} // namespace testing_support
