// What a mesh covers on screen, exactly: sample points on a fine grid inside
// each pixel, tested against the projected triangles in double precision. For
// comparing a simplified mesh's coverage with its original's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/Simd.h"

namespace testing_support {

// A pinhole camera at `eye` looking at `target`, 60 degrees of vertical
// field of view, on a width x height screen.
struct Camera {
    double eye[3], right[3], up[3], forward[3];
    double focalX, focalY; // pixels per unit of lateral offset over depth
    int width, height;

    Camera(const double eyePosition[3], const double target[3], int screenWidth, int screenHeight);
    // Screen position (pixels, y down) and depth along the view of p.
    void project(const double p[3], double& x, double& y, double& depth) const;
};

// The camera that looks at the centre of the box [lo, hi] from direction dir
// (towards the eye), placed where the box's screen rectangle (the bounds of
// its projected corners, clipped to the screen) covers `fraction` of the
// screen: the quantity that picks a group's level of detail.
Camera cameraAtFraction(const double lo[3], const double hi[3], const double dir[3], int width, int height,
                        double fraction);

class CoverageMask {
public:
    CoverageMask(const Camera& camera, int samplesPerPixel);

    // Marks the samples whose points lie inside or on the edge of a projected
    // triangle (either winding). Triangles reaching behind the eye are skipped
    // (keep the camera outside the mesh).
    void draw(const std::vector<common::float4>& vertices, const std::vector<uint32_t>& indices);
    void draw(const std::vector<float>& vertices, const std::vector<uint16_t>& indices);

    size_t count() const;
    size_t countShared(const CoverageMask& other) const;
    // Samples marked here with no sample of `other` within `pixels` of them.
    size_t countFartherThan(const CoverageMask& other, double pixels) const;
    double sampleSpacing() const { return 1.0 / samples_; } // in pixels

private:
    void drawTriangle(const double a[3], const double b[3], const double c[3]);

    Camera camera_;
    int samples_, width_, height_;
    std::vector<uint8_t> bits_;
};

} // namespace testing_support
