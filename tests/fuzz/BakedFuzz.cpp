// Baking and the rapid rasteriser, fuzzed on their own: arbitrary quads baked
// into occluders (common::Occluder::bake), arbitrary baked data drawn into the
// rapid buffer (util::Rasterizer) and arbitrary boxes tested against it.
//
// Not built yet: the baking and the rapid rasteriser are still being written.
// Once they exist, fill in the body below and add BakedFuzz to ZELK_FUZZ_TARGETS
// in tests/fuzz/CMakeLists.txt (and its seeds to FuzzSeeds.cpp); the run
// script picks up every target listed there.
#include "FuzzStream.h"

using namespace fuzzing;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    // 1. readMesh, QuadDecomposition::decompose, then bake the quads.
    // 2. Bake arbitrary vertex words directly (any 32-bit pattern).
    // 3. Set an arbitrary resolution, near plane and matrix on the rapid
    //    rasteriser, draw both occluders and query arbitrary boxes.
    (void)in;
    return 0;
}
