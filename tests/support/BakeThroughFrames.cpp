#include "support/BakeThroughFrames.h"

#include "engine/ZELKDiagnostics.h"

#include <chrono>
#include <thread>

namespace testing_support {

bool bakeThroughFrames(const std::function<void()>& frame, double maxSeconds) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(maxSeconds));
    for (;;) {
        frame();
        const ZELK::ZELKDiagnostics::FrameStats stats = ZELK::ZELKDiagnostics::frameStats();
        if (stats.cachedOccluders == 0 && stats.rawOccluders == 0) return false;
        if (stats.rawOccluders == 0) return true;
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace testing_support
