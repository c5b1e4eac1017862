// The engine's handle on the quad rasteriser: draws cached occluder groups at
// the level of detail their screen coverage selects, and tests boxes.
#pragma once

#include "common/Matrix4x4.h"
#include "common/OccluderGroup.h"

#include <memory>

namespace util {

class Rasterizer;

class RapidRasterizer {
public:
    RapidRasterizer();
    ~RapidRasterizer();
    RapidRasterizer(const RapidRasterizer&) = delete;
    RapidRasterizer& operator=(const RapidRasterizer&) = delete;

    void setResolution(unsigned width, unsigned height);
    // Nothing to set: the near plane comes from the matrix.
    void setNearPlane(float) {}
    void clear();
    void setModelViewProjection(const common::Matrix4x4& matrix);
    // Culls the whole group by its box, else draws the level of detail for the
    // fraction of the screen the box covers. Empty groups draw nothing.
    void render(const std::shared_ptr<common::OccluderGroup>& group);
    // Three floats per corner; true when the box may be visible.
    bool query(const float* boundsMin, const float* boundsMax) const;

    Rasterizer* rasterizer() const { return owned; }

private:
    Rasterizer* owned;
};

} // namespace util
