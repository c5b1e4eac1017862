// Warms the engine's cache the way a host does: by running frames while the
// loader bakes, instead of writing groups into the cache. No GoogleTest
// dependency (the benchmarks use it too).
#pragma once

#include <functional>

namespace testing_support {

// Calls frame (start, submit, render through the exported functions) until a
// frame finds every one of its submissions in the cache, resting 1 ms between
// frames so that the loader's thread gets a core. False when that takes longer
// than maxSeconds, or when the frame submits nothing.
bool bakeThroughFrames(const std::function<void()>& frame, double maxSeconds = 60.0);

} // namespace testing_support
