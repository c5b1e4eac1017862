#pragma once

namespace util {

// How near a box can be within a screen rectangle, from its faces that face
// the eye. Along any ray that enters the box, the entry point is where the
// ray crosses the last of those faces' planes, so the box's depth there is
// the farthest of their depths; each plane's premultiplied depth is affine on
// screen, so over a rectangle its nearest value lies at a corner. The least
// of those nearest values bounds every pixel of the box in the rectangle,
// often far below the box's nearest corner. Double precision.
class BoxDepthBound {
public:
    // screen[c][k]: row c (x w, y w, D w, w, with x and y in pixels) and
    // column k of the transform from the box's space; boxMin and boxMax: three
    // floats each. Faces that are edge-on, or not wholly in front of the eye,
    // are left out, which only loosens the bound.
    BoxDepthBound(const double (&screen)[4][4], const float* boxMin, const float* boxMax);

    // The largest premultiplied depth the box can have at a pixel centre
    // (x, y) with x0 <= x <= x1 and y0 <= y <= y1; +infinity when no face
    // bounds it.
    double nearestIn(double x0, double x1, double y0, double y1) const;

private:
    struct Plane {
        double a, b, c; // D = a x + b y + c
    };
    Plane planes[3];
    int count = 0;
};

} // namespace util
