#include "ReferenceDepth.h"

#include <algorithm>
#include <cmath>

namespace demo {

void ReferenceDepth::setup(int width, int height, float nearPlane, bool snap) {
    snapOccluders = snap;
    w = width;
    h = height;
    // A clip at w = 0 would divide by zero; the library's near distance is never that small in the demo.
    nearW = std::max(double(nearPlane), 1e-6);
    buffer.assign(size_t(w) * size_t(h), 0.0f);
    boxDepth.assign(size_t(w) * size_t(h), 0.0f);
}

void ReferenceDepth::clear() { std::fill(buffer.begin(), buffer.end(), 0.0f); }

template <typename Plot>
void ReferenceDepth::rasterTriangle(const double* sx, const double* sy, const double* iz, Plot&& plot) const {
    const double area = (sx[1] - sx[0]) * (sy[2] - sy[0]) - (sy[1] - sy[0]) * (sx[2] - sx[0]);
    if (!(area != 0.0) || !std::isfinite(area)) return;
    const double sign = area > 0 ? 1.0 : -1.0, inv = 1.0 / std::fabs(area);
    const int x0 = std::max(0, int(std::ceil(std::min({sx[0], sx[1], sx[2]}) - 0.5)));
    const int x1 = std::min(w - 1, int(std::floor(std::max({sx[0], sx[1], sx[2]}) - 0.5)));
    const int y0 = std::max(0, int(std::ceil(std::min({sy[0], sy[1], sy[2]}) - 0.5)));
    const int y1 = std::min(h - 1, int(std::floor(std::max({sy[0], sy[1], sy[2]}) - 0.5)));
    if (x0 > x1 || y0 > y1) return;
    // Edge k is opposite vertex k; its function is vertex k's barycentric weight times the area.
    double a[3], b[3], c[3];
    for (int k = 0; k < 3; ++k) {
        const int p = (k + 1) % 3, q = (k + 2) % 3;
        a[k] = sign * (sy[p] - sy[q]);
        b[k] = sign * (sx[q] - sx[p]);
        c[k] = sign * (sx[p] * sy[q] - sx[q] * sy[p]);
    }
    for (int y = y0; y <= y1; ++y) {
        const double py = y + 0.5;
        for (int x = x0; x <= x1; ++x) {
            const double px = x + 0.5;
            const double e0 = a[0] * px + b[0] * py + c[0], e1 = a[1] * px + b[1] * py + c[1];
            const double e2 = a[2] * px + b[2] * py + c[2];
            if (e0 < 0 || e1 < 0 || e2 < 0) continue;
            plot(x, y, (e0 * iz[0] + e1 * iz[1] + e2 * iz[2]) * inv);
        }
    }
}

template <typename Plot> void ReferenceDepth::rasterPolygon(const ClipVertex* in, int n, bool snap, Plot&& plot) const {
    // Sutherland-Hodgman against w >= near: a convex polygon of at most n + 1 vertices.
    ClipVertex out[8];
    int m = 0;
    for (int i = 0; i < n; ++i) {
        const ClipVertex& p = in[(i + n - 1) % n];
        const ClipVertex& q = in[i];
        const double dp = p.w - nearW, dq = q.w - nearW;
        if ((dp >= 0) != (dq >= 0)) {
            const double t = dp / (dp - dq);
            out[m++] = {p.x + (q.x - p.x) * t, p.y + (q.y - p.y) * t, nearW};
        }
        if (dq >= 0) out[m++] = q;
    }
    if (m < 3) return;
    double sx[8], sy[8], iz[8];
    for (int i = 0; i < m; ++i) {
        iz[i] = 1.0 / out[i].w;
        sx[i] = w * 0.5 * (1.0 + out[i].x * iz[i]);
        sy[i] = h * 0.5 * (1.0 - out[i].y * iz[i]);
        if (snap) {
            sx[i] = std::nearbyint(sx[i]);
            sy[i] = std::nearbyint(sy[i]);
        }
    }
    for (int k = 2; k < m; ++k) {
        const double tx[3] = {sx[0], sx[k - 1], sx[k]}, ty[3] = {sy[0], sy[k - 1], sy[k]};
        const double tz[3] = {iz[0], iz[k - 1], iz[k]};
        rasterTriangle(tx, ty, tz, plot);
    }
}

void ReferenceDepth::drawMesh(const Mesh& mesh, const Mat4& m) {
    const size_t count = mesh.vertices.size() / 3;
    transformed.resize(count);
    for (size_t v = 0; v < count; ++v) {
        const double x = mesh.vertices[3 * v], y = mesh.vertices[3 * v + 1], z = mesh.vertices[3 * v + 2];
        transformed[v] = {m[0] * x + m[4] * y + m[8] * z + m[12], m[1] * x + m[5] * y + m[9] * z + m[13],
                          m[3] * x + m[7] * y + m[11] * z + m[15]};
    }
    float* depth = buffer.data();
    const int stride = w;
    auto plot = [depth, stride](int x, int y, double iz) {
        float& d = depth[size_t(y) * size_t(stride) + size_t(x)];
        d = std::max(d, float(iz));
    };
    for (size_t t = 0; t + 2 < mesh.indices.size(); t += 3) {
        const uint16_t i0 = mesh.indices[t], i1 = mesh.indices[t + 1], i2 = mesh.indices[t + 2];
        if (i0 >= count || i1 >= count || i2 >= count) continue;
        const ClipVertex tri[3] = {transformed[i0], transformed[i1], transformed[i2]};
        // All three behind the near plane: nothing to clip or draw.
        if (tri[0].w < nearW && tri[1].w < nearW && tri[2].w < nearW) continue;
        // All three beyond one side plane: off screen.
        if ((tri[0].x > tri[0].w && tri[1].x > tri[1].w && tri[2].x > tri[2].w) ||
            (tri[0].x < -tri[0].w && tri[1].x < -tri[1].w && tri[2].x < -tri[2].w) ||
            (tri[0].y > tri[0].w && tri[1].y > tri[1].w && tri[2].y > tri[2].w) ||
            (tri[0].y < -tri[0].w && tri[1].y < -tri[1].w && tri[2].y < -tri[2].w))
            continue;
        rasterPolygon(tri, 3, snapOccluders, plot);
    }
}

template <typename Plot> void ReferenceDepth::rasterBox(const float* box, const Mat4& m, Plot&& plot) const {
    ClipVertex corner[8];
    for (int c = 0; c < 8; ++c) {
        const double x = box[(c & 1) ? 3 : 0], y = box[(c & 2) ? 4 : 1], z = box[(c & 4) ? 5 : 2];
        corner[c] = {m[0] * x + m[4] * y + m[8] * z + m[12], m[1] * x + m[5] * y + m[9] * z + m[13],
                     m[3] * x + m[7] * y + m[11] * z + m[15]};
    }
    static const int faces[6][4] = {{0, 1, 3, 2}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 3, 7, 6}, {0, 2, 6, 4}, {1, 3, 7, 5}};
    for (const auto& f : faces) {
        const ClipVertex quad[4] = {corner[f[0]], corner[f[1]], corner[f[2]], corner[f[3]]};
        rasterPolygon(quad, 4, false, plot);
    }
}

BoxCoverage ReferenceDepth::testBox(const float* box, const Mat4& m, double slack) {
    BoxCoverage result;
    double minW = INFINITY;
    bool outside[4] = {true, true, true, true}; // beyond +x, -x, +y, -y for every corner
    for (int c = 0; c < 8; ++c) {
        const double x = box[(c & 1) ? 3 : 0], y = box[(c & 2) ? 4 : 1], z = box[(c & 4) ? 5 : 2];
        const double cx = m[0] * x + m[4] * y + m[8] * z + m[12], cy = m[1] * x + m[5] * y + m[9] * z + m[13];
        const double cw = m[3] * x + m[7] * y + m[11] * z + m[15];
        minW = std::min(minW, cw);
        outside[0] &= cx > cw;
        outside[1] &= cx < -cw;
        outside[2] &= cy > cw;
        outside[3] &= cy < -cw;
    }
    result.crossesNear = minW < nearW || minW <= 0;
    if (outside[0] || outside[1] || outside[2] || outside[3]) return result;
    int x0 = w, x1 = -1, y0 = h, y1 = -1;
    float* scratch = boxDepth.data();
    const int stride = w;
    rasterBox(box, m, [&](int x, int y, double iz) {
        float& d = scratch[size_t(y) * size_t(stride) + size_t(x)];
        d = std::max(d, float(iz));
        x0 = std::min(x0, x);
        x1 = std::max(x1, x);
        y0 = std::min(y0, y);
        y1 = std::max(y1, y);
    });
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) {
            float& d = scratch[size_t(y) * size_t(w) + size_t(x)];
            if (d == 0.0f) continue;
            ++result.covered;
            if (double(d) >= double(buffer[size_t(y) * size_t(w) + size_t(x)]) * (1.0 - slack)) ++result.visible;
            d = 0.0f;
        }
    return result;
}

void ReferenceDepth::boxPixels(const float* box, const Mat4& m,
                               const std::function<void(int, int, float)>& plot) const {
    rasterBox(box, m, [&plot](int x, int y, double iz) { plot(x, y, float(iz)); });
}

} // namespace demo
