#include "support/CoverageMask.h"

#include <algorithm>
#include <cmath>

namespace testing_support {

namespace {

double dot3(const double* a, const double* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

void normalise3(double* a) {
    const double length = std::sqrt(dot3(a, a));
    for (int k = 0; k < 3; ++k) a[k] /= length;
}

void cross3(const double* a, const double* b, double* out) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

// The share of the screen covered by the bounds of the box's projected
// corners, clipped to the screen.
double screenFraction(const Camera& camera, const double lo[3], const double hi[3]) {
    double x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;
    for (int corner = 0; corner < 8; ++corner) {
        const double p[3] = {corner & 1 ? hi[0] : lo[0], corner & 2 ? hi[1] : lo[1], corner & 4 ? hi[2] : lo[2]};
        double x, y, depth;
        camera.project(p, x, y, depth);
        x0 = std::min(x0, x), x1 = std::max(x1, x), y0 = std::min(y0, y), y1 = std::max(y1, y);
    }
    const double w = std::clamp(x1, 0.0, double(camera.width)) - std::clamp(x0, 0.0, double(camera.width));
    const double h = std::clamp(y1, 0.0, double(camera.height)) - std::clamp(y0, 0.0, double(camera.height));
    return w * h / (double(camera.width) * double(camera.height));
}

} // namespace

Camera::Camera(const double eyePosition[3], const double target[3], int screenWidth, int screenHeight)
    : width(screenWidth), height(screenHeight) {
    for (int k = 0; k < 3; ++k) eye[k] = eyePosition[k], forward[k] = target[k] - eyePosition[k];
    normalise3(forward);
    const double upHint[3] = {0.0, std::abs(forward[1]) > 0.9 ? 0.0 : 1.0, std::abs(forward[1]) > 0.9 ? 1.0 : 0.0};
    cross3(forward, upHint, right);
    normalise3(right);
    cross3(right, forward, up);
    focalY = 0.5 * double(screenHeight) / std::tan(30.0 * 3.14159265358979323846 / 180.0);
    focalX = focalY;
}

void Camera::project(const double p[3], double& x, double& y, double& depth) const {
    const double v[3] = {p[0] - eye[0], p[1] - eye[1], p[2] - eye[2]};
    depth = dot3(v, forward);
    x = 0.5 * width + focalX * dot3(v, right) / depth;
    y = 0.5 * height - focalY * dot3(v, up) / depth;
}

Camera cameraAtFraction(const double lo[3], const double hi[3], const double dir[3], int width, int height,
                        double fraction) {
    const double centre[3] = {0.5 * (lo[0] + hi[0]), 0.5 * (lo[1] + hi[1]), 0.5 * (lo[2] + hi[2])};
    const double extent[3] = {hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]};
    const double radius = 0.5 * std::sqrt(dot3(extent, extent));
    double unit[3] = {dir[0], dir[1], dir[2]};
    normalise3(unit);
    const auto at = [&](double distance) {
        const double eye[3] = {centre[0] + unit[0] * distance, centre[1] + unit[1] * distance,
                               centre[2] + unit[2] * distance};
        return Camera(eye, centre, width, height);
    };
    // The fraction falls as the camera backs away: the farthest distance that
    // still reaches it, from just outside the box's sphere.
    double nearDistance = 1.01 * radius, farDistance = 1000.0 * radius;
    if (screenFraction(at(nearDistance), lo, hi) < fraction) return at(nearDistance);
    for (int i = 0; i < 80; ++i) {
        const double mid = 0.5 * (nearDistance + farDistance);
        (screenFraction(at(mid), lo, hi) >= fraction ? nearDistance : farDistance) = mid;
    }
    return at(nearDistance);
}

CoverageMask::CoverageMask(const Camera& camera, int samplesPerPixel)
    : camera_(camera), samples_(samplesPerPixel), width_(camera.width * samplesPerPixel),
      height_(camera.height * samplesPerPixel), bits_(size_t(width_) * size_t(height_), 0) {}

void CoverageMask::drawTriangle(const double a[3], const double b[3], const double c[3]) {
    double x[3], y[3], depth[3];
    camera_.project(a, x[0], y[0], depth[0]);
    camera_.project(b, x[1], y[1], depth[1]);
    camera_.project(c, x[2], y[2], depth[2]);
    if (!(depth[0] > 0 && depth[1] > 0 && depth[2] > 0)) return;
    for (int k = 0; k < 3; ++k) x[k] *= samples_, y[k] *= samples_; // sample units
    const double area = (x[1] - x[0]) * (y[2] - y[0]) - (x[2] - x[0]) * (y[1] - y[0]);
    if (!(area != 0.0) || !std::isfinite(area)) return;
    const double sign = area > 0 ? 1.0 : -1.0;
    // Sample (i, j) sits at (i + 0.5, j + 0.5).
    const int i0 = std::max(0, int(std::ceil(std::min({x[0], x[1], x[2]}) - 0.5)));
    const int i1 = std::min(width_ - 1, int(std::floor(std::max({x[0], x[1], x[2]}) - 0.5)));
    const int j0 = std::max(0, int(std::ceil(std::min({y[0], y[1], y[2]}) - 0.5)));
    const int j1 = std::min(height_ - 1, int(std::floor(std::max({y[0], y[1], y[2]}) - 0.5)));
    for (int j = j0; j <= j1; ++j)
        for (int i = i0; i <= i1; ++i) {
            const double px = i + 0.5, py = j + 0.5;
            bool inside = true;
            for (int k = 0; k < 3 && inside; ++k) {
                const int n = (k + 1) % 3;
                inside = sign * ((x[n] - x[k]) * (py - y[k]) - (y[n] - y[k]) * (px - x[k])) >= 0;
            }
            if (inside) bits_[size_t(j) * size_t(width_) + size_t(i)] = 1;
        }
}

void CoverageMask::draw(const std::vector<common::float4>& vertices, const std::vector<uint32_t>& indices) {
    for (size_t t = 0; t + 2 < indices.size(); t += 3) {
        double p[3][3];
        for (int k = 0; k < 3; ++k)
            for (int axis = 0; axis < 3; ++axis) p[k][axis] = common::lane(vertices[indices[t + size_t(k)]], axis);
        drawTriangle(p[0], p[1], p[2]);
    }
}

void CoverageMask::draw(const std::vector<float>& vertices, const std::vector<uint16_t>& indices) {
    for (size_t t = 0; t + 2 < indices.size(); t += 3) {
        double p[3][3];
        for (int k = 0; k < 3; ++k)
            for (int axis = 0; axis < 3; ++axis)
                p[k][axis] = vertices[3 * size_t(indices[t + size_t(k)]) + size_t(axis)];
        drawTriangle(p[0], p[1], p[2]);
    }
}

size_t CoverageMask::count() const { return size_t(std::count(bits_.begin(), bits_.end(), uint8_t(1))); }

size_t CoverageMask::countShared(const CoverageMask& other) const {
    size_t n = 0;
    for (size_t i = 0; i < bits_.size(); ++i) n += bits_[i] & other.bits_[i];
    return n;
}

size_t CoverageMask::countFartherThan(const CoverageMask& other, double pixels) const {
    const double r = pixels * samples_;
    const int reach = int(std::ceil(r));
    size_t n = 0;
    for (int j = 0; j < height_; ++j)
        for (int i = 0; i < width_; ++i) {
            const size_t at = size_t(j) * size_t(width_) + size_t(i);
            if (!bits_[at] || other.bits_[at]) continue;
            bool near = false;
            for (int dj = -reach; dj <= reach && !near; ++dj)
                for (int di = -reach; di <= reach && !near; ++di) {
                    const int u = i + di, v = j + dj;
                    if (u < 0 || v < 0 || u >= width_ || v >= height_ || double(di * di + dj * dj) > r * r) continue;
                    near = other.bits_[size_t(v) * size_t(width_) + size_t(u)] != 0;
                }
            n += !near;
        }
    return n;
}

} // namespace testing_support
