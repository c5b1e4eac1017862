#pragma once

#include "common/MeshRef.h"
#include "common/OccluderGroup.h"

#include <memory>
#include <mutex>
#include <unordered_map>

namespace common {

// Maps a mesh's identity to its baked group. The background loader writes
// while the render thread reads, so both sides take a short lock; entries are
// never evicted or refreshed.
class CacheManager {
public:
    CacheManager() = default;
    CacheManager(const CacheManager&) = delete;
    CacheManager& operator=(const CacheManager&) = delete;

    // The stored group, or empty when either pointer is null or nothing is stored.
    std::shared_ptr<OccluderGroup> get(const MeshKey& key) const;

    // Stores the group unless one is already stored: the first group for a mesh wins.
    void cache(const MeshKey& key, std::shared_ptr<OccluderGroup> group);

    // Drops every entry, keeping the map's buckets.
    void clear();

    void update() {}

private:
    mutable std::mutex mutex;
    std::unordered_map<MeshKey, std::shared_ptr<OccluderGroup>, MeshKeyHash> groups;
};

} // namespace common
