#include "common/Indices.h"

#include "common/Simd.h"

namespace common {

uint16_t largestIndex(const uint16_t* indices, size_t count) {
    ushort8 largest = splatU16(0);
    size_t i = 0;
    for (; i + 8 <= count; i += 8) largest = max(largest, loaduU16(indices + i));
    uint16_t top = horizontalMax(largest);
    for (; i < count; ++i) top = indices[i] > top ? indices[i] : top;
    return top;
}

} // namespace common
