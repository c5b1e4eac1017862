#include "support/ReferenceRapidRasterizer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace testing_support {

float rapidDepthScale() {
    const uint32_t bits = 0x0F7FF000;
    float s;
    std::memcpy(&s, &bits, sizeof(s));
    return s;
}

uint16_t rapidCode(float d) {
    int32_t bits;
    std::memcpy(&bits, &d, sizeof(bits));
    const uint32_t shifted = uint32_t(bits >> 12);
    return uint16_t(std::min<uint32_t>(shifted, 65535u));
}

ExactDepthBuffer::ExactDepthBuffer(int w, int h)
    : width(w), height(h), depths(size_t(w) * size_t(h), -std::numeric_limits<double>::infinity()) {}

namespace {

double cross(const ScreenVertex& a, const ScreenVertex& b, double px, double py) {
    return (b.x - a.x) * (py - a.y) - (b.y - a.y) * (px - a.x);
}

} // namespace

void ExactDepthBuffer::drawTriangle(const ScreenVertex& a, const ScreenVertex& b, const ScreenVertex& c,
                                    double dilate) {
    const double area = cross(a, b, c.x, c.y);
    if (!(std::fabs(area) > 0) || !std::isfinite(area)) return;
    // Dilated lines meet beyond a sharp corner: widen the scan generously.
    const double reach = dilate > 0 ? dilate * 64 : 0.0;
    const double minX = std::min({a.x, b.x, c.x}) - reach, maxX = std::max({a.x, b.x, c.x}) + reach;
    const double minY = std::min({a.y, b.y, c.y}) - reach, maxY = std::max({a.y, b.y, c.y}) + reach;
    const int x0 = std::max(0, int(std::floor(minX))), x1 = std::min(width - 1, int(std::ceil(maxX)));
    const int y0 = std::max(0, int(std::floor(minY))), y1 = std::min(height - 1, int(std::ceil(maxY)));
    // Height of the triangle over each edge (bc, ca, ab).
    const double heights[3] = {std::fabs(area) / std::hypot(c.x - b.x, c.y - b.y),
                               std::fabs(area) / std::hypot(a.x - c.x, a.y - c.y),
                               std::fabs(area) / std::hypot(b.x - a.x, b.y - a.y)};
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) {
            const double px = x + 0.5, py = y + 0.5;
            const double w0 = cross(b, c, px, py) / area, w1 = cross(c, a, px, py) / area;
            const double w2 = 1.0 - w0 - w1;
            // Barycentric weight over its edge's height is the signed distance
            // to that edge's line, in pixels.
            const bool inside = w0 * heights[0] >= -dilate && w1 * heights[1] >= -dilate && w2 * heights[2] >= -dilate;
            if (!inside) continue;
            const double d = w0 * a.d + w1 * b.d + w2 * c.d;
            double& stored = depths[size_t(y) * size_t(width) + size_t(x)];
            stored = std::max(stored, d);
        }
}

void ExactDepthBuffer::drawClipTriangle(const std::array<double, 4>& a, const std::array<double, 4>& b,
                                        const std::array<double, 4>& c, double dilate) {
    // Sutherland-Hodgman against z + w >= 0 (and a sliver of w > 0 for odd matrices).
    std::vector<std::array<double, 4>> poly = {a, b, c};
    for (int plane = 0; plane < 2; ++plane) {
        std::vector<std::array<double, 4>> out;
        const auto dist = [&](const std::array<double, 4>& v) { return plane == 0 ? v[2] + v[3] : v[3] - 1e-9; };
        for (size_t i = 0; i < poly.size(); ++i) {
            const auto& p = poly[i];
            const auto& q = poly[(i + 1) % poly.size()];
            const double dp = dist(p), dq = dist(q);
            if (dp >= 0) out.push_back(p);
            if ((dp >= 0) != (dq >= 0)) {
                const double t = dp / (dp - dq);
                std::array<double, 4> r;
                for (int k = 0; k < 4; ++k) r[k] = p[k] + t * (q[k] - p[k]);
                out.push_back(r);
            }
        }
        poly.swap(out);
        if (poly.size() < 3) return;
    }
    const double s = rapidDepthScale();
    std::vector<ScreenVertex> v;
    for (const auto& p : poly)
        v.push_back({(p[0] / p[3] + 1) * width / 2, (p[1] / p[3] + 1) * height / 2, (p[3] - p[2]) / p[3] * s});
    for (size_t i = 1; i + 1 < v.size(); ++i) drawTriangle(v[0], v[i], v[i + 1], dilate);
}

uint16_t ExactDepthBuffer::blockCode(int bx, int by) const {
    uint16_t m = 0xFFFF;
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) m = std::min(m, code(8 * bx + x, 8 * by + y));
    return m;
}

bool ExactDepthBuffer::query2D(unsigned minX, unsigned maxX, unsigned minY, unsigned maxY, uint16_t q,
                               bool ownColumns) const {
    bool candidate = false;
    for (unsigned by = minY / 8; by <= maxY / 8; ++by)
        for (unsigned bx = minX / 8; bx <= maxX / 8; ++bx) candidate = candidate || blockCode(int(bx), int(by)) <= q;
    if (!candidate) return false;
    for (unsigned by = minY / 8; by <= maxY / 8; ++by)
        for (unsigned bx = minX / 8; bx <= maxX / 8; ++bx) {
            if (!(blockCode(int(bx), int(by)) < q)) continue;
            const int xs = std::max(int(minX) - int(8 * bx), 0), xe = std::min(int(maxX) - int(8 * bx), 7);
            const int ys = std::max(int(minY) - int(8 * by), 0), ye = std::min(int(maxY) - int(8 * by), 7);
            if (xs == 0 && xe == 7 && ys == 0 && ye == 7) return true;
            // Mirrored: columns 8 - xe through 7 - xs. Own: xs through xe.
            const int first = ownColumns ? xs : 8 - xe, last = ownColumns ? xe : 7 - xs;
            for (int y = ys; y <= ye; ++y)
                for (int column = first; column <= last; ++column)
                    if (code(int(8 * bx) + column, int(8 * by) + y) < q) return true;
        }
    return false;
}

std::array<double, 4> transformPoint(const float* m, double x, double y, double z) {
    std::array<double, 4> r;
    for (int i = 0; i < 4; ++i) r[i] = m[i] * x + m[4 + i] * y + m[8 + i] * z + m[12 + i];
    return r;
}

bool boxSeen(const ExactDepthBuffer& occluders, const float* viewProjection, const float* box,
             double relativeTolerance) {
    ExactDepthBuffer faces(occluders.width, occluders.height);
    std::array<double, 4> corner[8];
    for (int i = 0; i < 8; ++i)
        corner[i] = transformPoint(viewProjection, box[(i & 1) ? 3 : 0], box[(i & 2) ? 4 : 1], box[(i & 4) ? 5 : 2]);
    static const int kFaces[6][4] = {{0, 1, 3, 2}, {4, 5, 7, 6}, {0, 1, 5, 4},
                                     {2, 3, 7, 6}, {0, 2, 6, 4}, {1, 3, 7, 5}};
    for (const auto& f : kFaces) {
        faces.drawClipTriangle(corner[f[0]], corner[f[1]], corner[f[2]]);
        faces.drawClipTriangle(corner[f[0]], corner[f[2]], corner[f[3]]);
    }
    for (int y = 0; y < faces.height; ++y)
        for (int x = 0; x < faces.width; ++x)
            if (faces.covered(x, y) &&
                (!occluders.covered(x, y) || faces.depth(x, y) > occluders.depth(x, y) * (1 + relativeTolerance)))
                return true;
    return false;
}

bool documentedQueryHides(const ExactDepthBuffer& occluders, const float* viewProjection, const float* box,
                          bool ownColumns) {
    std::array<double, 4> corner[8];
    for (int i = 0; i < 8; ++i)
        corner[i] = transformPoint(viewProjection, box[(i & 1) ? 3 : 0], box[(i & 2) ? 4 : 1], box[(i & 4) ? 5 : 2]);
    // Outside one of the six planes w +- x, w +- y, w +- z at every corner.
    for (int axis = 0; axis < 3; ++axis)
        for (int sign = -1; sign <= 1; sign += 2) {
            bool outside = true;
            for (const auto& c : corner) outside = outside && c[3] + sign * c[size_t(axis)] < 0;
            if (outside) return true;
        }
    const double extent = std::max({box[3] - box[0], box[4] - box[1], box[5] - box[2]});
    double minX = 1e300, maxX = -1e300, minY = 1e300, maxY = -1e300, nearest = -1e300;
    for (const auto& c : corner) {
        if (c[3] < 0.001 * extent) return false;
        const double x = (c[0] / c[3] + 1) * occluders.width / 2, y = (c[1] / c[3] + 1) * occluders.height / 2;
        minX = std::min(minX, x), maxX = std::max(maxX, x), minY = std::min(minY, y), maxY = std::max(maxY, y);
        nearest = std::max(nearest, (c[3] - c[2]) / c[3] * rapidDepthScale());
    }
    const auto clampRound = [](double v, int limit) {
        return unsigned(std::nearbyint(std::min(std::max(v, 0.0), double(limit - 1))));
    };
    const unsigned x0 = clampRound(minX, occluders.width), x1 = clampRound(maxX, occluders.width);
    const unsigned y0 = clampRound(minY, occluders.height), y1 = clampRound(maxY, occluders.height);
    if (x0 > x1 || y0 > y1) return true;
    return !occluders.query2D(x0, x1, y0, y1, rapidCode(float(nearest)), ownColumns);
}

} // namespace testing_support
