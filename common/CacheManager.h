#pragma once

#include "common/OccluderGroup.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace common {

// Maps a mesh's identity (vertex array address, index array address) to its
// baked group. The background loader writes while the render thread reads, so
// both sides take a short lock; entries are never evicted or refreshed.
class CacheManager {
public:
    CacheManager() = default;
    CacheManager(const CacheManager&) = delete;
    CacheManager& operator=(const CacheManager&) = delete;

    // The stored group, or empty when either pointer is null or nothing is stored.
    std::shared_ptr<OccluderGroup> get(const float* vertices, const uint16_t* indices) const;

    // Stores the group unless one is already stored: the first group for a mesh wins.
    void cache(const float* vertices, const uint16_t* indices, std::shared_ptr<OccluderGroup> group);

    // Drops every entry, keeping the outer map's buckets.
    void clear();

    void update() {}

private:
    using InnerMap = std::unordered_map<const uint16_t*, std::shared_ptr<OccluderGroup>>;

    const std::shared_ptr<OccluderGroup>* find(const float* vertices, const uint16_t* indices) const;

    mutable std::mutex mutex;
    std::unordered_map<const float*, InnerMap> groups;
};

} // namespace common
