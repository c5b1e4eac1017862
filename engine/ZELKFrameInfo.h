#pragma once

#include "common/CacheManager.h"
#include "common/Matrix4x4.h"
#include "common/OccluderRaw.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace ZELK {

// The engine's record of one frame: its matrices, the occluders submitted for
// it sorted into those drawn raw and those found in the cache, the previous
// frame's cached list, and what was drawn. Lists keep their capacity from
// frame to frame, so a warm frame allocates nothing.
class ZELKFrameInfo {
public:
    int64_t frameIndex = 0;
    uint32_t plainCount = 0;                  // raw occluders drawn this frame
    uint32_t rapidCount = 0;                  // cached groups drawn at the last rapid redraw
    uint8_t frameParamsPrefix[3] = {0, 0, 0}; // kept, never read
    common::Matrix4x4 viewProjection = common::Matrix4x4::zero();
    common::Matrix4x4 previousViewProjection = common::Matrix4x4::zero();
    std::vector<common::OccluderRaw> rawOccluders;
    std::vector<common::OccluderRaw> cachedOccluders;
    std::vector<common::OccluderRaw> previousCachedOccluders;
    std::weak_ptr<common::CacheManager> cacheManager;

    // Records one occluder: cached when rigid and its group is in the cache,
    // raw otherwise. A raw submission that breaks the mesh's index rule is
    // rejected (false, nothing recorded); cached meshes met it before they
    // were baked. A null model gives an all-zero matrix.
    bool submitOccluder(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount,
                        bool rigid, const float* model);

    // True when the rapid depth buffer must be redrawn: the camera changed, or
    // the cached instances are not those of the previous frame. Lists of equal
    // length are compared by containment of this frame's records in the last
    // frame's (duplicates are not counted).
    bool diffFrame() const;

    // Frame start: the cached list becomes the previous one (storage swapped),
    // the raw list empties and the new camera replaces the current one.
    void startFrame(const uint8_t prefix[3], const common::Matrix4x4& newViewProjection);
};

} // namespace ZELK
