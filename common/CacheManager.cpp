#include "common/CacheManager.h"

namespace common {

std::shared_ptr<OccluderGroup> CacheManager::get(const MeshKey& key) const {
    if (key.vertices == nullptr || key.indices == nullptr) return {};
    std::lock_guard<std::mutex> lock(mutex);
    const auto found = groups.find(key);
    return found != groups.end() ? found->second : std::shared_ptr<OccluderGroup>();
}

void CacheManager::cache(const MeshKey& key, std::shared_ptr<OccluderGroup> group) {
    std::shared_ptr<OccluderGroup> released; // a losing group is freed after the lock is dropped
    std::lock_guard<std::mutex> lock(mutex);
    std::shared_ptr<OccluderGroup>& slot = groups[key];
    if (slot)
        released = std::move(group);
    else
        slot = std::move(group);
}

void CacheManager::clear() {
    std::unordered_map<MeshKey, std::shared_ptr<OccluderGroup>, MeshKeyHash> released; // freed unlocked
    std::lock_guard<std::mutex> lock(mutex);
    if (groups.empty()) return;
    for (auto& entry : groups) released.emplace(entry.first, std::move(entry.second));
    groups.clear(); // keeps the bucket array
}

} // namespace common
