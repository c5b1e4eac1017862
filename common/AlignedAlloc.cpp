#include "common/AlignedAlloc.h"

#include "common/Checked.h"

#include <cstdlib>
#include <malloc.h>

namespace common {

void* aligned_alloc(size_t alignment, size_t size) {
    void* p = memalign(alignment, size == 0 ? 1 : size);
    if (p == nullptr) fatal();
    return p;
}

void aligned_free(void* pointer) { std::free(pointer); }

} // namespace common
