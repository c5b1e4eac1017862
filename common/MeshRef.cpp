#include "common/MeshRef.h"

#include "common/Indices.h"

namespace common {

size_t MeshKeyHash::operator()(const MeshKey& key) const noexcept {
    uint64_t h = uint64_t(reinterpret_cast<uintptr_t>(key.vertices)) * 0x9E3779B97F4A7C15ull;
    h ^= uint64_t(reinterpret_cast<uintptr_t>(key.indices)) + (h >> 31);
    h *= 0xFF51AFD7ED558CCDull;
    return size_t(h ^ (h >> 32));
}

bool MeshRef::valid() const {
    if (vertices == nullptr || indices == nullptr || vertexCount == 0) return false;
    return indexCount == 0 || largestIndex(indices, indexCount) < vertexCount;
}

} // namespace common
