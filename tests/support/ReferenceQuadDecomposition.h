// Oracle for common::QuadDecomposition, read straight from its header: the
// pairing graph built with a hash map keyed by the 64-bit directed-edge key,
// and the quads emitted pair by pair. The pairs themselves come from
// common::Matching run on that graph: which maximum matching is chosen is that
// class's to get right, and MatchingTest proves its results maximum.
#pragma once

#include <cstdint>
#include <vector>

#include "common/Graph.h"
#include "common/Simd.h"

namespace testing_support {

// The triangles that may pair, adjacency lists in the order they are found.
Graph referencePairingGraph(const std::vector<uint32_t>& indices, const std::vector<common::float4>& vertices);

// Same contract as common::QuadDecomposition::decompose.
std::vector<uint32_t> referenceDecompose(const std::vector<uint32_t>& indices,
                                         const std::vector<common::float4>& vertices);

} // namespace testing_support
