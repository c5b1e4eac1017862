// The exported entry points: check the host's arguments, reach the engine and
// forward. Nothing here throws or prints.
#include "zelk.h"

#include "engine/ZELKPrivate.h"

#include <cstring>

using ZELK::ZELKPrivate;

namespace {

bool validSize(uint32_t width, uint32_t height, float nearPlane) {
    return width != 0 && height != 0 && width % 8 == 0 && height % 8 == 0 && width <= 1920 && height <= 1080 &&
           !(nearPlane < 0.0f); // NaN passes
}

} // namespace

extern "C" {

ZELK_API int zelkInit(uint32_t width, uint32_t height, float nearPlane) {
    ZELKPrivate* engine = ZELKPrivate::Get();
    if (engine == nullptr) return 0;
    if (!validSize(width, height, nearPlane)) {
        ZELKPrivate::release();
        return 0;
    }
    engine->resize(width, height);
    engine->setNearPlane(nearPlane);
    return 1;
}

ZELK_API int zelkConfig(uint32_t width, uint32_t height, float nearPlane) {
    if (!validSize(width, height, nearPlane)) return 0;
    ZELKPrivate* engine = ZELKPrivate::Get();
    if (engine == nullptr) return 0;
    engine->resize(width, height);
    engine->setNearPlane(nearPlane);
    return 1;
}

ZELK_API int zelkStartNewFrame(const float* frameParams, const float* viewProjection) {
    ZELKPrivate* engine = ZELKPrivate::Get();
    if (engine == nullptr || frameParams == nullptr || viewProjection == nullptr) return 0;
    engine->startNewFrame(frameParams, viewProjection);
    return 1;
}

ZELK_API int zelkSubmitOccluder(const float* vertices, const uint16_t* indices, uint32_t vertexCount,
                                uint32_t indexCount, RigidType rigidType, const float* model) {
    ZELKPrivate* engine = ZELKPrivate::Get();
    if (engine == nullptr || vertices == nullptr || indices == nullptr || vertexCount == 0 || indexCount == 0) return 0;
    // A C host may pass any int here. In C++ an enum holding a value outside
    // its enumerators must not be read as the enum, so read its bytes.
    static_assert(sizeof(rigidType) == sizeof(uint32_t), "RigidType is int-sized");
    uint32_t rawRigid;
    std::memcpy(&rawRigid, &rigidType, sizeof rawRigid);
    const auto rigid = rawRigid == ZELK_RIGID ? ZELKPrivate::RIGID : ZELKPrivate::NON_RIGID;
    return engine->submitOccluder(vertices, indices, vertexCount, indexCount, rigid, model) ? 1 : 0;
}

ZELK_API int zelkRenderOccluders(void) {
    ZELKPrivate* engine = ZELKPrivate::Get();
    if (engine == nullptr) return 0;
    engine->renderOccluders();
    return 1;
}

ZELK_API int zelkQuery(const float* boxMin, bool* visible, const float* boxMax) {
    ZELKPrivate* engine = ZELKPrivate::Get();
    if (engine == nullptr || boxMin == nullptr || visible == nullptr) return 0;
    *visible = engine->query(boxMin, boxMax);
    return 1;
}

ZELK_API int zelkBatchQuery(const float* boxes, uint32_t count, bool* results) {
    ZELKPrivate* engine = ZELKPrivate::Get();
    if (engine == nullptr || boxes == nullptr || results == nullptr) return 0;
    return engine->batchQuery(boxes, count, results) ? 1 : 0;
}

ZELK_API int zelkDestroy(void) { return ZELKPrivate::release() ? 1 : 0; }

} // extern "C"
