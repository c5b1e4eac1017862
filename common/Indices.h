#pragma once

#include <cstddef>
#include <cstdint>

namespace common {

// The largest of count 16-bit indices (0 when count is 0), eight at a time.
uint16_t largestIndex(const uint16_t* indices, size_t count);

} // namespace common
