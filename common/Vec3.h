#pragma once

namespace common {

struct Vec3 {
    float x, y, z;
};

} // namespace common
