// PNG pictures of one frame: the library's depth buffers in greyscale, and the
// frame from the camera and from above with the boxes coloured by outcome.
#pragma once

#include "DemoScene.h"
#include "ReferenceDepth.h"

#include <cstdint>
#include <string>
#include <vector>

namespace demo {

// reported: one flag per box (non-zero: the library said visible); truth: the
// reference's coverage of every box at this frame.
bool writePictures(const std::string& dir, const Scene& scene, const CameraPose& pose, const Mat4& viewProjection,
                   const ReferenceDepth& reference, const std::vector<uint8_t>& reported,
                   const std::vector<BoxCoverage>& truth, std::string& error);

} // namespace demo
