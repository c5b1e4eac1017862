#include "engine/ZELKFrameInfo.h"

#include "common/Checked.h"

#include <cstring>

namespace ZELK {

bool ZELKFrameInfo::submitOccluder(const float* vertices, const uint16_t* indices, uint32_t vertexCount,
                                   uint32_t indexCount, bool rigid, const float* model) {
    common::OccluderRaw record;
    record.vertices = vertices;
    record.vertexCount = vertexCount;
    record.indices = indices;
    record.indexCount = indexCount;
    record.model = model != nullptr ? common::Matrix4x4::fromColumnMajor(model) : common::Matrix4x4::zero();
    record.rigid = rigid;

    if (rigid) {
        if (const std::shared_ptr<common::CacheManager> cache = cacheManager.lock()) {
            if (cache->get(record.key())) {
                cachedOccluders.push_back(record);
                return true;
            }
        }
    }
    if (!record.valid()) return false;
    rawOccluders.push_back(record);
    return true;
}

bool ZELKFrameInfo::diffFrame() const {
    if (viewProjection != previousViewProjection) return true;
    if (cachedOccluders.size() != previousCachedOccluders.size()) return true;
    const size_t count = cachedOccluders.size();
    for (size_t i = 0; i < count; ++i) {
        const common::OccluderRaw& current = cachedOccluders[i];
        // Hosts usually submit in the same order every frame: try the same
        // slot first, which makes the usual case linear. Only existence
        // matters, so where the match is found changes nothing.
        if (current == previousCachedOccluders[i]) continue;
        bool matched = false;
        for (const common::OccluderRaw& previous : previousCachedOccluders) {
            if (current == previous) {
                matched = true;
                break;
            }
        }
        if (!matched) return true;
    }
    return false;
}

void ZELKFrameInfo::startFrame(const uint8_t prefix[3], const common::Matrix4x4& newViewProjection) {
    std::memcpy(frameParamsPrefix, prefix, sizeof(frameParamsPrefix));
    common::checkedIncrement(frameIndex);
    previousCachedOccluders.swap(cachedOccluders);
    cachedOccluders.clear();
    rawOccluders.clear();
    previousViewProjection = viewProjection;
    viewProjection = newViewProjection;
}

} // namespace ZELK
