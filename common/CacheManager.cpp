#include "common/CacheManager.h"

namespace common {

const std::shared_ptr<OccluderGroup>* CacheManager::find(const float* vertices, const uint16_t* indices) const {
    if (vertices == nullptr || indices == nullptr) return nullptr;
    const auto outer = groups.find(vertices);
    if (outer == groups.end()) return nullptr;
    const auto inner = outer->second.find(indices);
    return inner == outer->second.end() ? nullptr : &inner->second;
}

std::shared_ptr<OccluderGroup> CacheManager::get(const float* vertices, const uint16_t* indices) const {
    std::lock_guard<std::mutex> lock(mutex);
    const auto* found = find(vertices, indices);
    return found != nullptr ? *found : std::shared_ptr<OccluderGroup>();
}

void CacheManager::cache(const float* vertices, const uint16_t* indices, std::shared_ptr<OccluderGroup> group) {
    std::shared_ptr<OccluderGroup> released; // freed after the lock is dropped
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto* found = find(vertices, indices);
        if (found != nullptr && *found) {
            released = std::move(group);
            return;
        }
        groups[vertices][indices] = std::move(group);
    }
}

void CacheManager::clear() {
    std::unordered_map<const float*, InnerMap> released;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (groups.empty()) return;
        for (auto& entry : groups) released.emplace(entry.first, std::move(entry.second));
        groups.clear(); // keeps the bucket array
    }
}

} // namespace common
