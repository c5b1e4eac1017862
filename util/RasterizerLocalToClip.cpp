#include "util/RasterizerLocalToClip.h"

namespace util {

using common::zero4;

RasterizerLocalToClip::RasterizerLocalToClip()
    : clipRows{zero4(), zero4(), zero4(), zero4()}, screenColumns{zero4(), zero4(), zero4(), zero4()},
      frustumPlanes{zero4(), zero4(), zero4(), zero4(), zero4(), zero4()} {}

void RasterizerLocalToClip::calcFrustum() {
    frustumPlanes[0] = clipRows[3] + clipRows[0];
    frustumPlanes[1] = clipRows[3] - clipRows[0];
    frustumPlanes[2] = clipRows[3] + clipRows[1];
    frustumPlanes[3] = clipRows[3] - clipRows[1];
    frustumPlanes[4] = clipRows[3] + clipRows[2];
    frustumPlanes[5] = clipRows[3] - clipRows[2];
}

} // namespace util
