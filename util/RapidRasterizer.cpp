#include "util/RapidRasterizer.h"

#include "util/Rasterizer.h"

namespace util {

RapidRasterizer::RapidRasterizer() : owned(new Rasterizer()) {}

RapidRasterizer::~RapidRasterizer() { delete owned; }

void RapidRasterizer::setResolution(unsigned width, unsigned height) {
    if (owned != nullptr) owned->setResolution(width, height);
}

void RapidRasterizer::clear() {
    if (owned != nullptr) owned->clear();
}

void RapidRasterizer::setModelViewProjection(const common::Matrix4x4& matrix) {
    if (owned != nullptr) owned->setModelViewProjection(matrix);
}

void RapidRasterizer::render(const std::shared_ptr<common::OccluderGroup>& group) {
    if (owned == nullptr || group == nullptr) return;
    bool needsClipping = false;
    float screenFraction = 1.0f;
    if (!owned->queryVisibility(group->MinBound(), group->MaxBound(), needsClipping, screenFraction)) return;
    const std::shared_ptr<common::Occluder> occluder = group->getOccluder(screenFraction);
    if (occluder == nullptr) return;
    if (needsClipping)
        owned->rasterize<true>(*occluder);
    else
        owned->rasterize<false>(*occluder);
}

bool RapidRasterizer::query(const float* boundsMin, const float* boundsMax) const {
    if (owned == nullptr || boundsMin == nullptr || boundsMax == nullptr) return true;
    return owned->query(boundsMin, boundsMax);
}

} // namespace util
