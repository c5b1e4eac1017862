#include "engine/ZELKPrivate.h"

#include "common/Checked.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace ZELK {

namespace {
// Plain pointer, no lock: the exported interface is used from one thread.
ZELKPrivate* instance = nullptr;
} // namespace

ZELKPrivate* ZELKPrivate::Get() {
    if (instance == nullptr) instance = new ZELKPrivate();
    return instance;
}

bool ZELKPrivate::release() {
    delete instance;
    instance = nullptr;
    return true;
}

ZELKPrivate* ZELKPrivate::peek() { return instance; }

ZELKPrivate::ZELKPrivate()
    : frameInfo(new ZELKFrameInfo()), rapidRasterizer(new util::RapidRasterizer()),
      plainRasterizer(new util::PlainRasterizer()), cacheManager(std::make_shared<common::CacheManager>()) {
    asyncLoader.reset(new common::AsyncLoader()); // its worker starts here
    asyncLoader->setCacheMgr(cacheManager);
    frameInfo->cacheManager = cacheManager;
}

ZELKPrivate::~ZELKPrivate() {
    asyncLoader->ensureCompletion(); // no bake may still reach the cache
    cacheManager.reset();
    asyncLoader.reset();
    rapidRasterizer.reset();
    plainRasterizer.reset();
    frameInfo.reset();
}

void ZELKPrivate::resize(uint32_t newWidth, uint32_t newHeight) {
    if (newWidth == width && newHeight == height) return;
    width = newWidth;
    height = newHeight;
    plainRasterizer->setResolution(width, height);
    rapidRasterizer->setResolution(width, height);
}

void ZELKPrivate::setNearPlane(float newNearPlane) {
    if (newNearPlane == nearPlane) return;
    nearPlane = newNearPlane;
    plainRasterizer->setNearPlane(nearPlane);
    rapidRasterizer->setNearPlane(nearPlane);
}

void ZELKPrivate::startNewFrame(const float* frameParams, const float* viewProjection) {
    uint8_t prefix[3];
    std::memcpy(prefix, frameParams, sizeof(prefix));
    frameInfo->startFrame(prefix, common::Matrix4x4::fromColumnMajor(viewProjection));
    plainRasterizer->clear();
    frameInfo->plainCount = 0;
    if (asyncLoader->isThreadPaused() && !asyncLoader->isEmpty()) asyncLoader->continueThread();
}

bool ZELKPrivate::submitOccluder(const float* vertices, const uint16_t* indices, uint32_t vertexCount,
                                 uint32_t indexCount, RigidType rigidType, const float* model) {
    if (vertices == nullptr || indices == nullptr) return false;
    return frameInfo->submitOccluder(vertices, indices, vertexCount, indexCount, rigidType == RIGID, model);
}

NearPlaneSide nearPlaneSide(const common::Matrix4x4& viewProjection, float nearPlane, const float* box) {
    using namespace common;
    const float4 lo = loadu4(box), hi = loadu4(box + 2); // floats 0..3 and 2..5
    if (!allTrue(cmpEq(lo - lo, zero4()) & cmpEq(hi - hi, zero4()))) return NearPlaneSide::Crossing; // inf or NaN
    // Clip w of the eight corners, summed in the order the box test uses.
    const float4 xs = make4(box[0], box[3], box[0], box[3]);
    const float4 ys = make4(box[1], box[1], box[4], box[4]);
    const float4 wx = splatLane<3>(viewProjection.columns[0]), wy = splatLane<3>(viewProjection.columns[1]);
    const float4 wz = splatLane<3>(viewProjection.columns[2]), w0 = splatLane<3>(viewProjection.columns[3]);
    const float4 wxy = (w0 + wx * xs) + wy * ys;
    const float4 wNear = wxy + wz * splat(box[2]);
    const float4 wFar = wxy + wz * splat(box[5]);
    const float4 nearV = splat(nearPlane);
    if (allTrue(cmpLt(wNear, nearV) & cmpLt(wFar, nearV))) return NearPlaneSide::Nearer;
    // Written as "in front" so that a NaN w or near distance counts as crossing.
    const int4 inFront = cmpGe(wNear, nearV) & cmpGt(wNear, zero4()) & cmpGe(wFar, nearV) & cmpGt(wFar, zero4());
    return allTrue(inFront) ? NearPlaneSide::Beyond : NearPlaneSide::Crossing;
}

void ZELKPrivate::renderOccluders() {
    // Raw meshes: drawn every frame by the masked rasteriser; rigid ones then
    // go to the loader, which bakes them for the cached pass.
    for (const common::OccluderRaw& record : frameInfo->rawOccluders) {
        plainRasterizer->setModelViewProjection(frameInfo->viewProjection * record.model);
        plainRasterizer->render(record.vertices, record.indices, static_cast<int>(record.usableVertexCount()),
                                static_cast<int>(record.usableIndexCount()));
        common::checkedIncrement(frameInfo->plainCount);
        if (record.rigid) asyncLoader->addOccluder(record); // ignored while already pending
    }

    // Cached groups: the rapid buffer from the last redraw stands while the
    // camera and the cached instances are unchanged.
    if (!frameInfo->diffFrame()) return;
    rapidRasterizer->clear();
    frameInfo->rapidCount = 0;
    const std::shared_ptr<common::CacheManager> cache = cacheManager;
    if (!ZELK_CONSERVATIVE) {
        for (const common::OccluderRaw& record : frameInfo->cachedOccluders) {
            const std::shared_ptr<common::OccluderGroup> group = cache->get(record.key());
            if (group == nullptr) continue;
            rapidRasterizer->setModelViewProjection(frameInfo->viewProjection * record.model);
            rapidRasterizer->render(group);
            common::checkedIncrement(frameInfo->rapidCount);
        }
        return;
    }
    // Conservative builds draw the groups nearest first, so that a group
    // whose box the nearer ones already hide is skipped whole. The buffer
    // keeps each pixel's nearest code and a group is skipped only when none
    // of its quads could change a pixel, so the order changes no answer. (The
    // default build's box test reads mirrored columns, which do not bound
    // what a group draws: there the submission order stays.)
    const std::vector<common::OccluderRaw>& cached = frameInfo->cachedOccluders;
    for (size_t i = 0; i < cached.size(); ++i) {
        std::shared_ptr<common::OccluderGroup> group = cache->get(cached[i].key());
        if (group == nullptr) continue;
        const common::Matrix4x4 mvp = frameInfo->viewProjection * cached[i].model;
        // Clip w over the box: its value at the centre less the largest change towards a corner.
        const common::float4 w = common::make4(common::lane<3>(mvp.columns[0]), common::lane<3>(mvp.columns[1]),
                                               common::lane<3>(mvp.columns[2]), 0.0f);
        const common::float4 centre = (group->MinBound() + group->MaxBound()) * common::splat(0.5f);
        const common::float4 half = (group->MaxBound() - group->MinBound()) * common::splat(0.5f);
        float nearest = common::dot3(w, centre) + common::lane<3>(mvp.columns[3]) - common::dot3(common::abs(w), half);
        if (std::isnan(nearest)) nearest = -INFINITY; // sorts, and is drawn, first
        drawOrder.push_back({nearest, uint32_t(drawItems.size())});
        drawItems.push_back({mvp, std::move(group)});
    }
    std::sort(drawOrder.begin(), drawOrder.end(), [](const DrawKey& a, const DrawKey& b) {
        return a.nearest < b.nearest || (a.nearest == b.nearest && a.index < b.index);
    });
    for (const DrawKey& key : drawOrder) {
        rapidRasterizer->setModelViewProjection(drawItems[key.index].modelViewProjection);
        rapidRasterizer->render(drawItems[key.index].group);
        common::checkedIncrement(frameInfo->rapidCount);
    }
    drawItems.clear(); // releases the groups, keeps the capacity
    drawOrder.clear();
}

bool ZELKPrivate::query(const float*, const float*) const { return false; }

bool ZELKPrivate::batchQuery(const float* boxes, uint32_t count, bool* results) {
    if (boxes == nullptr || count == 0 || results == nullptr) return false;
    // More boxes than 32-bit float offsets (6 * count) can reach end the
    // process; checked once here, the size_t offsets below cannot wrap.
    common::checkedMul<uint32_t>(count, 6);
    const uint32_t plainCount = frameInfo->plainCount;
    const uint32_t rapidCount = frameInfo->rapidCount;
    if (plainCount != 0) plainRasterizer->setModelViewProjection(frameInfo->viewProjection);
    if (rapidCount != 0) rapidRasterizer->setModelViewProjection(frameInfo->viewProjection);
    for (uint32_t i = 0; i < count; ++i) {
        const float* box = boxes + 6 * size_t(i);
        const auto plainVisible = [&] {
            switch (nearPlaneSide(frameInfo->viewProjection, nearPlane, box)) {
            case NearPlaneSide::Nearer: return false;
            case NearPlaneSide::Crossing: return true;
            default: return plainRasterizer->query(box, box + 3);
            }
        };
        const auto rapidVisible = [&] { return rapidRasterizer->query(box, box + 3); };
        results[i] = combineVisibility(plainCount, rapidCount, plainVisible, rapidVisible);
    }
    return true;
}

} // namespace ZELK
