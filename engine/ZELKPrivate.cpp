#include "engine/ZELKPrivate.h"

#include "common/Checked.h"

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

ZELKPrivate::ZELKPrivate() : frameInfo(new ZELKFrameInfo()), cacheManager(std::make_shared<common::CacheManager>()) {
    frameInfo->cacheManager = cacheManager;
}

ZELKPrivate::~ZELKPrivate() {
    cacheManager.reset();
    frameInfo.reset();
}

void ZELKPrivate::resize(uint32_t newWidth, uint32_t newHeight) {
    if (newWidth == width && newHeight == height) return;
    width = newWidth;
    height = newHeight;
}

void ZELKPrivate::setNearPlane(float newNearPlane) {
    if (newNearPlane == nearPlane) return;
    nearPlane = newNearPlane;
}

void ZELKPrivate::startNewFrame(const float* frameParams, const float* viewProjection) {
    uint8_t prefix[3];
    std::memcpy(prefix, frameParams, sizeof(prefix));
    frameInfo->startFrame(prefix, common::Matrix4x4::fromColumnMajor(viewProjection));
    frameInfo->plainCount = 0;
}

bool ZELKPrivate::submitOccluder(const float* vertices, const uint16_t* indices, uint32_t vertexCount,
                                 uint32_t indexCount, RigidType rigidType, const float* model) {
    if (vertices == nullptr || indices == nullptr) return false;
    return frameInfo->submitOccluder(vertices, indices, vertexCount, indexCount, rigidType == RIGID, model);
}

bool crossesNearPlane(const common::Matrix4x4& viewProjection, float nearPlane, const float* box) {
    using namespace common;
    const float4 lo = loadu4(box), hi = loadu4(box + 2); // floats 0..3 and 2..5
    if (!allTrue(cmpEq(lo - lo, zero4()) & cmpEq(hi - hi, zero4()))) return true; // inf or NaN
    // Clip w of the eight corners, summed in the order the box test uses.
    const float4 xs = make4(box[0], box[3], box[0], box[3]);
    const float4 ys = make4(box[1], box[1], box[4], box[4]);
    const float4 wx = splatLane<3>(viewProjection.columns[0]), wy = splatLane<3>(viewProjection.columns[1]);
    const float4 wz = splatLane<3>(viewProjection.columns[2]), w0 = splatLane<3>(viewProjection.columns[3]);
    const float4 wxy = (w0 + wx * xs) + wy * ys;
    const float4 wNear = wxy + wz * splat(box[2]);
    const float4 wFar = wxy + wz * splat(box[5]);
    // Written as "in front" so that a NaN w or near distance counts as crossing.
    const float4 nearV = splat(nearPlane);
    const int4 inFront = cmpGe(wNear, nearV) & cmpGt(wNear, zero4()) & cmpGe(wFar, nearV) & cmpGt(wFar, zero4());
    return !allTrue(inFront);
}

void ZELKPrivate::renderOccluders() {}

bool ZELKPrivate::query(const float*, const float*) const { return false; }

bool ZELKPrivate::batchQuery(const float* boxes, uint32_t count, bool* results) {
    if (boxes == nullptr || count == 0 || results == nullptr) return false;
    common::checkedMul<uint32_t>(count, 6); // box offsets must fit 32 bits
    for (uint32_t i = 0; i < count; ++i) results[i] = true; // nothing is drawn yet
    return true;
}

} // namespace ZELK
