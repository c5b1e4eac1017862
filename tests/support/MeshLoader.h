// Real meshes from installed data packages, for tests and benchmarks. Reading
// goes through assimp (when ZELK_TEST_HAVE_ASSIMP is defined); without it
// every load fails and callers skip.
#pragma once

#include <string>
#include <vector>

#include "support/TestMeshes.h"

namespace testing_support {

// Loads every triangle of every mesh in the file (node transforms applied),
// welds vertices with bit-identical positions (-0 and +0 weld) and drops
// triangles that name one welded vertex twice or more. Fails when the file
// cannot be read, holds no triangle, or has more than 65,536 distinct
// positions (16-bit indices).
bool loadMesh(const std::string& path, Mesh& out);

struct NamedMesh {
    std::string name; // file name without directory
    Mesh mesh;
};

// The installed real meshes that load (glmark2 bunny, assimp test models), in
// a fixed order; empty without assimp or without the data packages. Tests
// comparing over them run with what loads; realMeshesMissing() names the rest
// so that one test can say so.
std::vector<NamedMesh> loadRealMeshes();
std::vector<std::string> realMeshesMissing();

} // namespace testing_support
