#pragma once

namespace util {

// The part of a box that lies in front of the near plane and within the
// screen's four side planes. For a box that reaches the near plane its screen
// rectangle and nearest depth still bound every pixel the box can show, where
// the corners' own projections say nothing. Scalar and in double precision:
// only boxes around the camera take this path.
struct ClippedBox {
    enum Kind {
        kOutside,     // nothing of the box is in front of the near plane on screen
        kReachesNear, // the box meets the near plane on screen: nothing can hide it
        kInside,      // the rectangle and depth below bound the part on screen
    };
    Kind kind = kOutside;
    double minX = 0.0, maxX = 0.0, minY = 0.0, maxY = 0.0; // pixels
    double nearest = 0.0;                                  // the largest premultiplied depth D

    // screen[c][k]: row c (x w, y w, D w, w, with x and y in pixels) and
    // column k of the transform from the box's space; nearDepth: D on the near
    // plane; boxMin and boxMax: three floats each.
    static ClippedBox clip(const double (&screen)[4][4], double width, double height, double nearDepth,
                           const float* boxMin, const float* boxMax);
};

} // namespace util
