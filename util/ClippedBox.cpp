#include "util/ClippedBox.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace util {

namespace {

// (x w, y w, D w, w)
using Point = double[4];

constexpr int kPlanes = 5; // the near plane, then left, right, bottom, top
// A quad gains at most one corner per plane; rounding can only add more for
// slivers, which are then left undecided (visible).
constexpr int kMaxPolygon = 16;

double distance(const Point& p, int plane, double width, double height, double nearDepth) {
    switch (plane) {
    case 0: return nearDepth * p[3] - p[2];
    case 1: return p[0];
    case 2: return width * p[3] - p[0];
    case 3: return p[1];
    default: return height * p[3] - p[1];
    }
}

// Gauss-Jordan elimination with partial pivoting; false when singular.
bool invert(const double (&m)[4][4], double (&inverse)[4][4]) {
    double a[4][8];
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) {
            a[r][c] = m[r][c];
            a[r][c + 4] = r == c ? 1.0 : 0.0;
        }
    for (int c = 0; c < 4; ++c) {
        int pivot = c;
        for (int r = c + 1; r < 4; ++r)
            if (std::fabs(a[r][c]) > std::fabs(a[pivot][c])) pivot = r;
        if (!(std::fabs(a[pivot][c]) > 0.0) || !std::isfinite(a[pivot][c])) return false;
        std::swap(a[c], a[pivot]);
        const double scale = 1.0 / a[c][c];
        for (double& v : a[c]) v *= scale;
        for (int r = 0; r < 4; ++r) {
            if (r == c) continue;
            const double f = a[r][c];
            for (int k = 0; k < 8; ++k) a[r][k] -= f * a[c][k];
        }
    }
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) inverse[r][c] = a[r][c + 4];
    return true;
}

} // namespace

ClippedBox ClippedBox::clip(const double (&screen)[4][4], double width, double height, double nearDepth,
                            const float* boxMin, const float* boxMax) {
    ClippedBox result;
    result.kind = kReachesNear; // the answer on every path that cannot decide

    // Every corner of the box's part on screen is a box corner, a box edge
    // meeting a plane or a frustum edge meeting a box face, all of which
    // clipping the six faces finds, or a corner of the near rectangle inside
    // the box. A box holding one of those holds the rectangle's centre or
    // has a face that reaches the near plane on screen; check the centre.
    double inverse[4][4];
    if (!invert(screen, inverse)) return result;
    const double centre[4] = {0.5 * width, 0.5 * height, nearDepth, 1.0};
    double p[4];
    for (int r = 0; r < 4; ++r)
        p[r] = inverse[r][0] * centre[0] + inverse[r][1] * centre[1] + inverse[r][2] * centre[2] + inverse[r][3];
    bool holdsCentre = true;
    for (int axis = 0; axis < 3; ++axis) {
        const double v = p[axis] / p[3];
        holdsCentre = holdsCentre && v >= double(boxMin[axis]) && v <= double(boxMax[axis]);
    }
    if (holdsCentre || !std::isfinite(p[0] / p[3])) return result;

    double corner[8][4];
    for (int i = 0; i < 8; ++i) {
        const double x = (i & 1) ? boxMax[0] : boxMin[0], y = (i & 2) ? boxMax[1] : boxMin[1];
        const double z = (i & 4) ? boxMax[2] : boxMin[2];
        for (int c = 0; c < 4; ++c)
            corner[i][c] = screen[c][0] * x + screen[c][1] * y + screen[c][2] * z + screen[c][3];
    }
    static const int kFaces[6][4] = {{0, 1, 3, 2}, {4, 5, 7, 6}, {0, 1, 5, 4},
                                     {2, 3, 7, 6}, {0, 2, 6, 4}, {1, 3, 7, 5}};
    double minX = INFINITY, maxX = -INFINITY, minY = INFINITY, maxY = -INFINITY, nearest = -INFINITY;
    bool any = false;
    for (const auto& face : kFaces) {
        Point polygon[2][kMaxPolygon];
        bool onNear[2][kMaxPolygon] = {};
        int n = 4;
        for (int k = 0; k < 4; ++k) std::copy(corner[face[k]], corner[face[k]] + 4, polygon[0][k]);
        for (int plane = 0; plane < kPlanes && n > 0; ++plane) {
            const Point* in = polygon[plane & 1];
            const bool* inNear = onNear[plane & 1];
            Point* out = polygon[(plane + 1) & 1];
            bool* outNear = onNear[(plane + 1) & 1];
            int m = 0;
            for (int i = 0; i < n; ++i) {
                if (m + 2 > kMaxPolygon) return result;
                const int j = i + 1 < n ? i + 1 : 0;
                const double da = distance(in[i], plane, width, height, nearDepth);
                const double db = distance(in[j], plane, width, height, nearDepth);
                if (!std::isfinite(da) || !std::isfinite(db)) return result;
                if (da >= 0.0) {
                    std::copy(in[i], in[i] + 4, out[m]);
                    outNear[m++] = inNear[i] || (plane == 0 && da == 0.0);
                }
                if ((da >= 0.0) != (db >= 0.0)) {
                    // From the end inside, as the rasteriser cuts edges.
                    const int from = da >= 0.0 ? i : j, to = da >= 0.0 ? j : i;
                    const double dFrom = da >= 0.0 ? da : db, dTo = da >= 0.0 ? db : da;
                    const double t = dFrom / (dFrom - dTo);
                    for (int c = 0; c < 4; ++c) out[m][c] = in[from][c] + t * (in[to][c] - in[from][c]);
                    outNear[m++] = plane == 0 || (inNear[from] && inNear[to]);
                }
            }
            n = m;
        }
        const Point* kept = polygon[kPlanes & 1];
        const bool* keptNear = onNear[kPlanes & 1];
        for (int i = 0; i < n; ++i) {
            if (keptNear[i] || !(kept[i][3] > 0.0)) return result;
            const double r = 1.0 / kept[i][3];
            minX = std::min(minX, kept[i][0] * r), maxX = std::max(maxX, kept[i][0] * r);
            minY = std::min(minY, kept[i][1] * r), maxY = std::max(maxY, kept[i][1] * r);
            nearest = std::max(nearest, kept[i][2] * r);
            any = true;
        }
    }
    if (!any) {
        result.kind = kOutside;
        return result;
    }
    if (!std::isfinite(minX) || !std::isfinite(maxX) || !std::isfinite(minY) || !std::isfinite(maxY) ||
        !std::isfinite(nearest))
        return result;
    result.kind = kInside;
    result.minX = minX, result.maxX = maxX, result.minY = minY, result.maxY = maxY;
    result.nearest = nearest;
    return result;
}

} // namespace util
