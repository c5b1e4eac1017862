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

void ZELKPrivate::renderOccluders() {}

bool ZELKPrivate::query(const float*, const float*) const { return false; }

bool ZELKPrivate::batchQuery(const float* boxes, uint32_t count, bool* results) {
    if (boxes == nullptr || count == 0 || results == nullptr) return false;
    common::checkedMul<uint32_t>(count, 6); // box offsets must fit 32 bits
    for (uint32_t i = 0; i < count; ++i) results[i] = true; // nothing is drawn yet
    return true;
}

} // namespace ZELK
