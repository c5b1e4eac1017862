#include "util/BoxDepthBound.h"

#include <algorithm>
#include <cmath>

namespace util {

BoxDepthBound::BoxDepthBound(const double (&screen)[4][4], const float* boxMin, const float* boxMax) {
    // The eye: the point that x w, y w and w all map to 0 (Cramer's rule).
    const double(&r0)[4] = screen[0];
    const double(&r1)[4] = screen[1];
    const double(&r3)[4] = screen[3];
    const auto det3 = [](double a0, double a1, double a2, double b0, double b1, double b2, double c0, double c1,
                         double c2) {
        return a0 * (b1 * c2 - b2 * c1) - a1 * (b0 * c2 - b2 * c0) + a2 * (b0 * c1 - b1 * c0);
    };
    const double det = det3(r0[0], r0[1], r0[2], r1[0], r1[1], r1[2], r3[0], r3[1], r3[2]);
    if (!(std::fabs(det) > 0.0) || !std::isfinite(det)) return;
    const double eye[3] = {
        det3(-r0[3], r0[1], r0[2], -r1[3], r1[1], r1[2], -r3[3], r3[1], r3[2]) / det,
        det3(r0[0], -r0[3], r0[2], r1[0], -r1[3], r1[2], r3[0], -r3[3], r3[2]) / det,
        det3(r0[0], r0[1], -r0[3], r1[0], r1[1], -r1[3], r3[0], r3[1], -r3[3]) / det,
    };
    for (int axis = 0; axis < 3; ++axis) {
        // The face of this axis that faces the eye, if any.
        double level;
        if (eye[axis] < double(boxMin[axis]))
            level = boxMin[axis];
        else if (eye[axis] > double(boxMax[axis]))
            level = boxMax[axis];
        else
            continue;
        const int u = (axis + 1) % 3, v = (axis + 2) % 3;
        double x[4], y[4], d[4];
        bool usable = true;
        for (int k = 0; k < 4; ++k) {
            double p[3];
            p[axis] = level;
            p[u] = (k == 1 || k == 2) ? boxMax[u] : boxMin[u];
            p[v] = k >= 2 ? boxMax[v] : boxMin[v];
            double h[4];
            for (int c = 0; c < 4; ++c)
                h[c] = screen[c][0] * p[0] + screen[c][1] * p[1] + screen[c][2] * p[2] + screen[c][3];
            usable = usable && h[3] > 0.0;
            x[k] = h[0] / h[3];
            y[k] = h[1] / h[3];
            d[k] = h[2] / h[3];
        }
        if (!usable) continue;
        // The plane through the larger of the face's two triangles (0 1 2) and (0 2 3).
        const double area012 = (x[1] - x[0]) * (y[2] - y[0]) - (y[1] - y[0]) * (x[2] - x[0]);
        const double area023 = (x[2] - x[0]) * (y[3] - y[0]) - (y[2] - y[0]) * (x[3] - x[0]);
        const int j = std::fabs(area012) >= std::fabs(area023) ? 1 : 2, k = j + 1;
        const double area = j == 1 ? area012 : area023;
        if (!(std::fabs(area) > 1e-9) || !std::isfinite(area)) continue;
        const double dx1 = x[j] - x[0], dy1 = y[j] - y[0], dd1 = d[j] - d[0];
        const double dx2 = x[k] - x[0], dy2 = y[k] - y[0], dd2 = d[k] - d[0];
        const double a = (dd1 * dy2 - dd2 * dy1) / area, b = (dx1 * dd2 - dx2 * dd1) / area;
        const Plane plane = {a, b, d[0] - a * x[0] - b * y[0]};
        if (std::isfinite(plane.a) && std::isfinite(plane.b) && std::isfinite(plane.c)) planes[count++] = plane;
    }
}

double BoxDepthBound::nearestIn(double x0, double x1, double y0, double y1) const {
    double bound = INFINITY;
    for (int i = 0; i < count; ++i) {
        const Plane& p = planes[i];
        bound = std::min(bound, p.c + std::max(p.a * x0, p.a * x1) + std::max(p.b * y0, p.b * y1));
    }
    return bound;
}

} // namespace util
