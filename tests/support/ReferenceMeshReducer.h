// Oracle for common::MeshReducer: the reduction written step by step from its
// description, with none of the library's speed work (errors recomputed at
// every change, a full pass every iteration, borders by linear search).
#pragma once

#include <cstdint>
#include <vector>

#include "common/Simd.h"

namespace testing_support {

// Same contract as common::MeshReducer::reduce.
void referenceReduce(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount,
                     std::vector<common::float4>& outVertices, std::vector<uint32_t>& outIndices,
                     uint32_t targetTriangles, float aggressiveness, bool normalize);

} // namespace testing_support
