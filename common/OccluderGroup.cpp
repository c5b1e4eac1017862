#include "common/OccluderGroup.h"

namespace common {

void OccluderGroup::addOccluder(std::shared_ptr<Occluder> occluder, unsigned lod) {
    const int32_t level = static_cast<int32_t>(lod);
    if (level < LOD0 || level > LOD2) return;
    const auto inserted = occluders.emplace(static_cast<OCCLUDER_LOD>(level), std::move(occluder));
    if (!inserted.second || level != LOD0) return;
    const Occluder* first = inserted.first->second.get();
    if (first == nullptr) return;
    minBound = first->boundsMin;
    maxBound = first->boundsMax;
}

std::shared_ptr<Occluder> OccluderGroup::getOccluder(float screenFraction) const {
    if (occluders.empty()) return {};
    size_t level = screenFraction >= 0.5f ? 0 : screenFraction >= 0.25f ? 1 : 2; // NaN falls to 2
    if (level >= occluders.size()) level = occluders.size() - 1;
    const auto found = occluders.find(static_cast<OCCLUDER_LOD>(level));
    return found != occluders.end() ? found->second : std::shared_ptr<Occluder>();
}

OccluderGroup::LODParam OccluderGroup::getLODParam(unsigned lod) {
    switch (lod) {
    case 1: return {0.35f, 35.0f};
    case 2: return {0.15f, 35.0f};
    default: return {0.55f, 35.0f};
    }
}

} // namespace common
