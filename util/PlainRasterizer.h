// The engine's handle on the masked rasteriser: renders raw occluder meshes
// and tests boxes against them.
#pragma once

#include "common/Matrix4x4.h"

#include <cstdint>

namespace util {

class MaskedOcclusionCulling;

class PlainRasterizer {
public:
    PlainRasterizer();
    ~PlainRasterizer();
    PlainRasterizer(const PlainRasterizer&) = delete;
    PlainRasterizer& operator=(const PlainRasterizer&) = delete;

    void setResolution(unsigned width, unsigned height);
    void setNearPlane(float nearDistance);
    void clear();
    void setModelViewProjection(const common::Matrix4x4& matrix);
    // vertices: x, y, z per vertex; indices: three per triangle (indexCount / 3
    // triangles are drawn). Null pointers draw nothing.
    void render(const float* vertices, const uint16_t* indices, int vertexCount, int indexCount);
    // boundsMin/boundsMax: three floats each; false (hidden) for null pointers.
    bool query(const float* boundsMin, const float* boundsMax) const;

    MaskedOcclusionCulling* masked() const { return owned; }

private:
    MaskedOcclusionCulling* owned;
};

} // namespace util
