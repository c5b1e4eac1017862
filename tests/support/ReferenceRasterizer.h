// Exact per-pixel rasteriser used as the oracle for the masked rasteriser:
// screen vertices in fixed point (whole pixels by default), pixel (i, j)
// sampled at (i + 0.5, j + 0.5) in exact integer arithmetic, depth 1/w
// interpolated in double precision.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace testing_support {

struct ScreenTriangle {
    int x[3], y[3]; // pixel coordinates in units of 2^-bits, y downward
    double z[3];    // 1/w per vertex
    int bits = 0;   // fraction bits of x and y (at most 8)
};

class ReferenceRasterizer {
public:
    ReferenceRasterizer(int width, int height);

    // Centre strictly inside, or on a slanted edge that bounds the triangle on
    // its left (the interior lies to the edge's right; centres on horizontal
    // edges never count); degenerate ones cover nothing.
    static bool covers(const ScreenTriangle& t, int i, int j);
    // Signed distance in pixels from the centre of (i, j) to the nearest edge
    // line, positive inside; -infinity for degenerate triangles.
    static double insideDistance(const ScreenTriangle& t, int i, int j);
    static double depthAt(const ScreenTriangle& t, double px, double py);

    // Keeps the nearest (largest) 1/w per pixel.
    void draw(const ScreenTriangle& t);
    double depth(int i, int j) const { return depths[size_t(j) * size_t(width) + size_t(i)]; }
    bool covered(int i, int j) const { return depth(i, j) > -std::numeric_limits<double>::infinity(); }

    int width, height;

private:
    std::vector<double> depths;
};

// Clip-space vertex (x, y, z, w) that projects onto the screen point (px, py)
// at the given w on a width x height screen.
void clipFromScreen(float px, float py, float w, int width, int height, float out[4]);

} // namespace testing_support
