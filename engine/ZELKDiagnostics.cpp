#include "engine/ZELKDiagnostics.h"

#include "engine/ZELKPrivate.h"
#include "util/MaskedOcclusionCulling.h"
#include "util/Rasterizer.h"

#include <algorithm>

namespace ZELK {

namespace {

// Zeros of the engine's size, or empty without an engine.
void resetImage(const ZELKPrivate* engine, std::vector<float>& out) {
    out.assign(engine == nullptr ? 0 : size_t(engine->getWidth()) * size_t(engine->getHeight()), 0.0f);
}

// Calls visit(code, index into a picture-order image) for every pixel the
// rapid buffer and the engine's size share. The buffer's row 0 is the bottom
// of the screen.
template <typename Visit>
void forEachRapidPixel(const util::Rasterizer* r, uint32_t width, uint32_t height, Visit&& visit) {
    if (r == nullptr) return;
    const uint32_t w = std::min(width, r->getWidth()), h = std::min(height, r->getHeight());
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) visit(r->pixelDepth(x, y), size_t(h - 1 - y) * width + x);
}

} // namespace

bool ZELKDiagnostics::hasEngine() { return ZELKPrivate::peek() != nullptr; }

uint32_t ZELKDiagnostics::width() {
    const ZELKPrivate* engine = ZELKPrivate::peek();
    return engine == nullptr ? 0 : engine->getWidth();
}

uint32_t ZELKDiagnostics::height() {
    const ZELKPrivate* engine = ZELKPrivate::peek();
    return engine == nullptr ? 0 : engine->getHeight();
}

ZELKDiagnostics::FrameStats ZELKDiagnostics::frameStats() {
    FrameStats stats;
    const ZELKPrivate* engine = ZELKPrivate::peek();
    if (engine == nullptr) return stats;
    const ZELKFrameInfo& frame = *engine->frameInfo;
    stats.frameIndex = frame.frameIndex;
    stats.plainCount = frame.plainCount;
    stats.rapidCount = frame.rapidCount;
    stats.rawOccluders = uint32_t(frame.rawOccluders.size());
    stats.cachedOccluders = uint32_t(frame.cachedOccluders.size());
    return stats;
}

void ZELKDiagnostics::maskedDepth(std::vector<float>& out) {
    const ZELKPrivate* engine = ZELKPrivate::peek();
    resetImage(engine, out);
    if (engine == nullptr || engine->plainRasterizer->masked() == nullptr) return;
    const util::MaskedOcclusionCulling& masked = *engine->plainRasterizer->masked();
    const int width = int(engine->getWidth()), height = int(engine->getHeight());
    // Tiles are 32 x 4 pixels in four 8 x 4 lanes; a lane's mask bit is 8 * row + column.
    util::MaskedOcclusionCulling::TileData tile;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            if (!masked.ReadTile(x / 32, y / 4, tile)) continue;
            const int lane = (x % 32) / 8, bit = 8 * (y % 4) + x % 8;
            const bool covered = (tile.coverageMask[lane] >> bit) & 1u;
            const float depth =
                covered ? std::max(tile.workingDepth[lane], tile.referenceDepth[lane]) : tile.referenceDepth[lane];
            out[size_t(y) * size_t(width) + size_t(x)] = depth > 0.0f ? depth : 0.0f; // the clear value is negative
        }
}

void ZELKDiagnostics::rapidDepth(std::vector<float>& out) {
    const ZELKPrivate* engine = ZELKPrivate::peek();
    resetImage(engine, out);
    if (engine == nullptr) return;
    forEachRapidPixel(engine->rapidRasterizer->rasterizer(), engine->getWidth(), engine->getHeight(),
                      [&](uint16_t code, size_t i) {
                          if (code != 0) out[i] = util::Rasterizer::decompressFloat(code);
                      });
}

void ZELKDiagnostics::rapidDepthCodes(std::vector<uint16_t>& out) {
    const ZELKPrivate* engine = ZELKPrivate::peek();
    out.assign(engine == nullptr ? 0 : size_t(engine->getWidth()) * size_t(engine->getHeight()), 0);
    if (engine == nullptr) return;
    forEachRapidPixel(engine->rapidRasterizer->rasterizer(), engine->getWidth(), engine->getHeight(),
                      [&](uint16_t code, size_t i) { out[i] = code; });
}

bool ZELKDiagnostics::rapidBufferHides(const float* box) {
    const ZELKPrivate* engine = ZELKPrivate::peek();
    if (engine == nullptr || box == nullptr || engine->frameInfo->rapidCount == 0) return false;
    // The camera a batch query sets; drawing sets its own per group, so nothing later depends on it.
    engine->rapidRasterizer->setModelViewProjection(engine->frameInfo->viewProjection);
    return !engine->rapidRasterizer->query(box, box + 3);
}

bool ZELKDiagnostics::isCached(const float* vertices, const uint16_t* indices) {
    const ZELKPrivate* engine = ZELKPrivate::peek();
    return engine != nullptr && engine->cacheManager != nullptr &&
           engine->cacheManager->get({vertices, indices}) != nullptr;
}

bool ZELKDiagnostics::loaderIdle() {
    const ZELKPrivate* engine = ZELKPrivate::peek();
    return engine != nullptr && engine->asyncLoader->isEmpty();
}

} // namespace ZELK
