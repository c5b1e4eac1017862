// Read-only views of the engine for the demo, the benchmarks and the tests:
// depth images, frame statistics and cache contents, in plain types. Not part
// of the exported interface (the shared library keeps its eight functions);
// hosts link the static core to use it. Every function answers empty, zero or
// false when no engine exists, and none creates one.
#pragma once

#include <cstdint>
#include <vector>

namespace ZELK {

class ZELKDiagnostics {
public:
    struct FrameStats {
        int64_t frameIndex = 0;       // frames started since the engine was made
        uint32_t plainCount = 0;      // raw occluders drawn this frame
        uint32_t rapidCount = 0;      // cached groups drawn at the last rapid redraw
        uint32_t rawOccluders = 0;    // this frame's submissions sorted to the raw list
        uint32_t cachedOccluders = 0; // this frame's submissions found in the cache
    };

    ZELKDiagnostics() = delete;

    static bool hasEngine();
    // The depth buffers' size, as last set by zelkInit or zelkConfig.
    static uint32_t width();
    static uint32_t height();
    static FrameStats frameStats();

    // Depth images, width() x height() values, row 0 at the top of the screen
    // (picture order); 0 where nothing is drawn, larger values nearer. The
    // masked buffer holds 1/w per pixel: its working layer where that layer
    // covers the pixel, its reference layer elsewhere. The rapid buffer holds
    // about (1 - z/w) / 2 (1 at the near plane, 0 at the far one), decoded
    // exactly from its 16-bit codes, which rapidDepthCodes gives as stored (a
    // larger code is nearer). out is resized; empty without an engine.
    static void maskedDepth(std::vector<float>& out);
    static void rapidDepth(std::vector<float>& out);
    static void rapidDepthCodes(std::vector<uint16_t>& out);

    // box: min x, y, z, max x, y, z in world space. True when the rapid buffer
    // holds cached groups and hides the box by itself: the rapid half of a
    // batch query's answer at this frame's camera. False for a null box.
    static bool rapidBufferHides(const float* box);

    // Whether the mesh (vertex array address, index array address) has a
    // baked group in the cache.
    static bool isCached(const float* vertices, const uint16_t* indices);
    // True when the loader has no mesh queued or being baked.
    static bool loaderIdle();
};

} // namespace ZELK
