// Oracle for common::QuadDecomposition: a hash map keyed by the 64-bit
// directed-edge key, filled and read exactly as described, and the pairing
// taken from ReferenceMatching.
#pragma once

#include <cstdint>
#include <vector>

#include "common/Simd.h"

namespace testing_support {

// Same contract as common::QuadDecomposition::decompose.
std::vector<uint32_t> referenceDecompose(const std::vector<uint32_t>& indices,
                                         const std::vector<common::float4>& vertices);

} // namespace testing_support
