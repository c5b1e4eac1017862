#pragma once

#include "common/AsyncLoader.h"
#include "common/CacheManager.h"
#include "engine/ZELKFrameInfo.h"
#include "util/PlainRasterizer.h"
#include "util/RapidRasterizer.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace ZELK {

// The single engine behind the exported functions. It owns the frame record
// and the rasterisers and shares the cache of baked meshes with the
// background loader. Used from one thread (the host's render thread).
class ZELKPrivate {
public:
    enum RigidType : uint32_t { RIGID = 0, NON_RIGID = 1 };

    // The engine, created on first use. Not thread-safe by design.
    static ZELKPrivate* Get();
    // Destroys the engine if there is one; always true.
    static bool release();
    // The engine if it exists, without creating one: for tests and the
    // diagnostics functions, which must observe an engine's absence too.
    static ZELKPrivate* peek();

    ZELKPrivate(const ZELKPrivate&) = delete;
    ZELKPrivate& operator=(const ZELKPrivate&) = delete;

    // Apply a new size or near distance to both rasterisers, only when changed.
    void resize(uint32_t newWidth, uint32_t newHeight);
    void setNearPlane(float newNearPlane);

    void startNewFrame(const float* frameParams, const float* viewProjection);
    bool submitOccluder(const float* vertices, const uint16_t* indices, uint32_t vertexCount, uint32_t indexCount,
                        RigidType rigidType, const float* model);
    void renderOccluders();
    // Deliberately inert: the single-box query always answers not visible.
    bool query(const float* boxMin, const float* boxMax) const;
    bool batchQuery(const float* boxes, uint32_t count, bool* results);

    uint32_t getWidth() const { return width; }
    uint32_t getHeight() const { return height; }
    float getNearPlane() const { return nearPlane; }
    const ZELKFrameInfo& getFrameInfo() const { return *frameInfo; }
    const std::shared_ptr<common::CacheManager>& getCacheManager() const { return cacheManager; }
    // For tests that look at the depth buffers; tools and benchmarks use ZELKDiagnostics.
    const util::PlainRasterizer& getPlainRasterizer() const { return *plainRasterizer; }
    const util::RapidRasterizer& getRapidRasterizer() const { return *rapidRasterizer; }
    common::AsyncLoader& getAsyncLoader() { return *asyncLoader; }

private:
    friend class ZELKDiagnostics; // read-only views for tools and benchmarks

    ZELKPrivate();
    ~ZELKPrivate();

    uint32_t width = 0;
    uint32_t height = 0;
    float nearPlane = 0.0f;
    std::unique_ptr<ZELKFrameInfo> frameInfo;
    std::unique_ptr<util::RapidRasterizer> rapidRasterizer; // cached groups, redrawn only when the frame differs
    std::unique_ptr<util::PlainRasterizer> plainRasterizer; // raw meshes, cleared every frame
    std::unique_ptr<common::AsyncLoader> asyncLoader;       // bakes rigid meshes drawn raw
    std::shared_ptr<common::CacheManager> cacheManager;

    // Conservative builds: the cached groups of a redraw, and the order to
    // draw them in, nearest first (both kept for their capacity).
    struct DrawItem {
        common::Matrix4x4 modelViewProjection;
        std::shared_ptr<common::OccluderGroup> group;
    };
    struct DrawKey {
        float nearest;  // the least clip w of the group's box
        uint32_t index; // in drawItems, which follow the submission order
    };
    std::vector<DrawItem> drawItems;
    std::vector<DrawKey> drawOrder;
};

// Visibility of one box from the two depth buffers, each consulted only when
// it holds occluders. The buffer with more occluders (the rapid one on a tie)
// is asked first, being the likelier to reject; the answer is the AND of both.
template <typename PlainQuery, typename RapidQuery>
bool combineVisibility(uint32_t plainCount, uint32_t rapidCount, PlainQuery&& plainVisible, RapidQuery&& rapidVisible) {
    if (plainCount == 0 && rapidCount == 0) return true;
    if (plainCount == 0) return rapidVisible();
    if (rapidCount == 0) return plainVisible();
    if (plainCount <= rapidCount) return rapidVisible() && plainVisible();
    return plainVisible() && rapidVisible();
}

// Where a box (min x, y, z, max x, y, z) lies against the near distance for
// the masked buffer, whose box test projects corners through the eye: Nearer
// when every corner has clip w < nearPlane (nothing of it can reach the
// screen), Crossing when some corner has w < nearPlane or w <= 0 or a
// coordinate is not finite (NaN w or near distance included), else Beyond.
enum class NearPlaneSide { Beyond, Crossing, Nearer };
NearPlaneSide nearPlaneSide(const common::Matrix4x4& viewProjection, float nearPlane, const float* box);

} // namespace ZELK
