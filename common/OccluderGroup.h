#pragma once

#include "common/Occluder.h"
#include "common/Simd.h"

#include <map>
#include <memory>

namespace common {

// The baked levels of detail of one mesh, with the bounds of its most detailed
// level. Built by the background loader, immutable once cached.
class OccluderGroup {
public:
    enum OCCLUDER_LOD : int32_t { LOD0 = 0, LOD1 = 1, LOD2 = 2 };
    static constexpr unsigned kLevelCount = LOD2 + 1;

    struct LODParam {
        float ratio;            // fraction of the source vertex count to keep
        float reducerParameter; // aggressiveness handed to the mesh reducer
    };

    OccluderGroup() = default;

    // The first occluder given for a level wins; levels outside 0..2 are ignored.
    void addOccluder(std::shared_ptr<Occluder> occluder, unsigned lod);

    // Level 0 from half the screen up, level 1 from a quarter, else level 2;
    // clamped to the least detailed level present. Empty when no level exists.
    std::shared_ptr<Occluder> getOccluder(float screenFraction) const;

    float4 MinBound() const { return minBound; }
    float4 MaxBound() const { return maxBound; }

    // How the baker reduces each level (its only user).
    static LODParam getLODParam(unsigned lod);

private:
    std::map<OCCLUDER_LOD, std::shared_ptr<Occluder>> occluders;
    float4 minBound = zero4();
    float4 maxBound = zero4();
};

} // namespace common
