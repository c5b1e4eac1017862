#include "support/ReferenceRasterizer.h"

#include <algorithm>
#include <cmath>

namespace testing_support {

namespace {

int64_t orientation(const ScreenTriangle& t) {
    return int64_t(t.x[1] - t.x[0]) * (t.y[2] - t.y[0]) - int64_t(t.x[2] - t.x[0]) * (t.y[1] - t.y[0]);
}

} // namespace

ReferenceRasterizer::ReferenceRasterizer(int w, int h)
    : width(w), height(h), depths(size_t(w) * size_t(h), -std::numeric_limits<double>::infinity()) {}

bool ReferenceRasterizer::covers(const ScreenTriangle& t, int i, int j) {
    const int64_t o = orientation(t);
    if (o == 0) return false;
    // Walk the edges so that the interior is where the edge function is positive.
    const int order[3] = {0, o > 0 ? 1 : 2, o > 0 ? 2 : 1};
    for (int e = 0; e < 3; ++e) {
        const int a = order[e], b = order[(e + 1) % 3];
        const int64_t dx = t.x[b] - t.x[a], dy = t.y[b] - t.y[a];
        // Doubled coordinates keep the centre on the integer grid.
        const int64_t cx = (2 * int64_t(i) + 1) << t.bits, cy = (2 * int64_t(j) + 1) << t.bits;
        const int64_t f = dx * (cy - 2 * int64_t(t.y[a])) - dy * (cx - 2 * int64_t(t.x[a]));
        if (f < 0) return false;
        // With y downward and this orientation, dy < 0 marks a left edge.
        if (f == 0 && dy >= 0) return false;
    }
    return true;
}

double ReferenceRasterizer::insideDistance(const ScreenTriangle& t, int i, int j) {
    const int64_t o = orientation(t);
    if (o == 0) return -std::numeric_limits<double>::infinity();
    const int order[3] = {0, o > 0 ? 1 : 2, o > 0 ? 2 : 1};
    double d = std::numeric_limits<double>::infinity();
    const double unit = std::ldexp(1.0, -t.bits);
    for (int e = 0; e < 3; ++e) {
        const int a = order[e], b = order[(e + 1) % 3];
        const double dx = (t.x[b] - t.x[a]) * unit, dy = (t.y[b] - t.y[a]) * unit;
        const double f = dx * (j + 0.5 - t.y[a] * unit) - dy * (i + 0.5 - t.x[a] * unit);
        d = std::min(d, f / std::sqrt(dx * dx + dy * dy));
    }
    return d;
}

double ReferenceRasterizer::depthAt(const ScreenTriangle& t, double px, double py) {
    const double unit = std::ldexp(1.0, -t.bits);
    const double x0 = t.x[0] * unit, y0 = t.y[0] * unit;
    const double dx1 = t.x[1] * unit - x0, dy1 = t.y[1] * unit - y0;
    const double dx2 = t.x[2] * unit - x0, dy2 = t.y[2] * unit - y0;
    const double det = dx1 * dy2 - dx2 * dy1;
    const double dz1 = t.z[1] - t.z[0], dz2 = t.z[2] - t.z[0];
    const double zx = (dz1 * dy2 - dz2 * dy1) / det;
    const double zy = (dx1 * dz2 - dx2 * dz1) / det;
    return t.z[0] + zx * (px - x0) + zy * (py - y0);
}

void ReferenceRasterizer::draw(const ScreenTriangle& t) {
    const int x0 = std::max(0, std::min({t.x[0], t.x[1], t.x[2]}) >> t.bits);
    const int x1 = std::min(width - 1, std::max({t.x[0], t.x[1], t.x[2]}) >> t.bits);
    const int y0 = std::max(0, std::min({t.y[0], t.y[1], t.y[2]}) >> t.bits);
    const int y1 = std::min(height - 1, std::max({t.y[0], t.y[1], t.y[2]}) >> t.bits);
    for (int j = y0; j <= y1; ++j)
        for (int i = x0; i <= x1; ++i) {
            if (!covers(t, i, j)) continue;
            double& d = depths[size_t(j) * size_t(width) + size_t(i)];
            d = std::max(d, depthAt(t, i + 0.5, j + 0.5));
        }
}

void clipFromScreen(float px, float py, float w, int width, int height, float out[4]) {
    const float hw = float(width) * 0.5f, hh = float(height) * 0.5f;
    out[0] = (px - hw) / hw * w;
    out[1] = (hh - py) / hh * w;
    out[2] = 0.0f;
    out[3] = w;
}

} // namespace testing_support
