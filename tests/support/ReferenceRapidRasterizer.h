// Straightforward versions of what the quad rasteriser computes, for use as
// oracles: exact pixel-centre coverage and depth in double precision, the
// 16-bit depth code, and the two-pass block query written as described (with
// either column rule).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace testing_support {

// Premultiplied depth scale: D = (w - z) / w * s, larger is nearer.
float rapidDepthScale();
// The stored code of a premultiplied depth: its float bits >> 12 (arithmetic),
// saturated to 65535 as an unsigned value.
uint16_t rapidCode(float d);

struct ScreenVertex {
    double x, y, d; // pixels (y up), premultiplied depth
};

// Pixel-centre depth buffer of the rapid buffer's size and orientation.
class ExactDepthBuffer {
public:
    ExactDepthBuffer(int width, int height);

    // Either winding; keeps the nearest D per pixel. With dilate > 0 a pixel
    // also counts when its centre lies within dilate pixels outside each of
    // the lines through the edges (how a per-edge coverage table errs); with
    // dilate < 0 only centres at least -dilate inside every edge count.
    void drawTriangle(const ScreenVertex& a, const ScreenVertex& b, const ScreenVertex& c, double dilate = 0.0);
    // Clip-space (x, y, z, w) triangle, clipped to the near plane z >= -w.
    void drawClipTriangle(const std::array<double, 4>& a, const std::array<double, 4>& b,
                          const std::array<double, 4>& c, double dilate = 0.0);

    bool covered(int x, int y) const { return depth(x, y) > -1.0; }
    double depth(int x, int y) const {
        return depths[std::size_t(y) * std::size_t(width) + std::size_t(x)];
    } // -inf: none
    uint16_t code(int x, int y) const { return covered(x, y) ? rapidCode(float(depth(x, y))) : 0; }
    uint16_t blockCode(int bx, int by) const; // farthest code of the block

    // The two-pass block query of the rapid buffer over these codes. The
    // default build's fine pass reads the columns mirrored about each block's
    // centre (xe exclusive); the conservative build's reads the box's own.
    bool query2D(unsigned minX, unsigned maxX, unsigned minY, unsigned maxY, uint16_t q, bool ownColumns) const;

    int width, height;

private:
    std::vector<double> depths;
};

// Column-major 4x4 product of a matrix and (x, y, z, 1), in double.
std::array<double, 4> transformPoint(const float* columnMajor, double x, double y, double z);

// Whether some pixel of the box (min x, y, z, max x, y, z) passes the depth
// test against the buffer: its nearest face is nearer than the occluders at
// that pixel centre by more than relativeTolerance.
bool boxSeen(const ExactDepthBuffer& occluders, const float* viewProjection, const float* box,
             double relativeTolerance);

// The rapid buffer's box test (frustum, near guard, rounded rectangle,
// nearest corner's code, the two block passes) applied in double precision to
// an exact buffer's codes: true when that rule hides the box.
bool documentedQueryHides(const ExactDepthBuffer& occluders, const float* viewProjection, const float* box,
                          bool ownColumns);

} // namespace testing_support
