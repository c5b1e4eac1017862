#pragma once

#include "common/MeshRef.h"

#include <cstddef>
#include <vector>

namespace common {

// Open-addressed set of mesh keys (linear probing, deletion by backward
// shift): unlike node-based sets it allocates only when it grows, so queueing
// meshes on the render thread stays allocation-free once warm.
class MeshKeySet {
public:
    bool contains(const MeshKey& key) const;
    void insert(const MeshKey& key); // a key with no vertex array is ignored
    void erase(const MeshKey& key);
    size_t size() const { return count; }

private:
    size_t slotOf(const MeshKey& key) const { return MeshKeyHash()(key) & (slots.size() - 1); }
    void grow();

    std::vector<MeshKey> slots; // a null vertex pointer marks an empty slot
    size_t count = 0;
};

} // namespace common
