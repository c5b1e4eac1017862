// The exact answer the library is measured against: a plain depth buffer of
// every occluder triangle (no back-face culling, clipped at the near plane,
// unsnapped vertices, pixel centres sampled), and per box the pixels where
// some point of the box's faces passes the depth test.
#pragma once

#include "DemoScene.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace demo {

struct BoxCoverage {
    uint32_t covered = 0; // pixels the box's faces cover on screen
    uint32_t visible = 0; // of those, pixels where the box is at least as near as the occluders
    bool crossesNear = false;
};

class ReferenceDepth {
public:
    // snap: round occluder vertices to whole pixels as the library's masked
    // rasteriser does, to tell its documented approximation from real faults.
    void setup(int width, int height, float nearPlane, bool snap = false);
    void clear();
    // Draws a mesh's triangles under modelToClip.
    void drawMesh(const Mesh& mesh, const Mat4& modelToClip);
    // slack: relative depth by which a box face may lie behind an occluder and
    // still pass. The default is far below one step of a 24-bit depth buffer,
    // so faces lying on an occluder's surface count as passing.
    static constexpr double kDepthSlack = 1e-5;
    BoxCoverage testBox(const float* box, const Mat4& viewProjection, double slack = kDepthSlack);
    // For pictures: every pixel the box's faces cover, with the face's 1/w (a pixel may come more than once).
    void boxPixels(const float* box, const Mat4& viewProjection,
                   const std::function<void(int, int, float)>& plot) const;

    int width() const { return w; }
    int height() const { return h; }
    // 1/w of the nearest occluder, 0 where nothing is drawn.
    const std::vector<float>& depth() const { return buffer; }

private:
    struct ClipVertex {
        double x, y, w;
    };
    // Clips the polygon at w >= near and rasterises its fan; plot(x, y, 1/w).
    template <typename Plot> void rasterPolygon(const ClipVertex* in, int n, bool snap, Plot&& plot) const;
    template <typename Plot>
    void rasterTriangle(const double* sx, const double* sy, const double* iz, Plot&& plot) const;
    template <typename Plot> void rasterBox(const float* box, const Mat4& viewProjection, Plot&& plot) const;

    int w = 0, h = 0;
    bool snapOccluders = false;
    double nearW = 0.0;
    std::vector<float> buffer;
    std::vector<ClipVertex> transformed;
    std::vector<float> boxDepth; // scratch for testBox, width x height
};

} // namespace demo
