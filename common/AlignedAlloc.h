#pragma once

#include <cstddef>

namespace common {

// Aligned heap block for vector buffers. alignment is a power of two; a failed
// allocation ends the process. Release with aligned_free.
void* aligned_alloc(size_t alignment, size_t size);
void aligned_free(void* pointer);

} // namespace common
