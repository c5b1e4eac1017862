// A warm frame allocates nothing on the host's render thread, which calls
// these every frame, also while it hands fresh rigid meshes to the baking
// thread. Counts every operator new (plain and aligned) per thread, so the
// baking thread's own allocations do not count.
#include "engine/ZELKPrivate.h"
#include "support/CityScene.h"
#include "zelk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>

namespace {
thread_local long allocations = 0;

void* counted(size_t size, size_t alignment) {
    ++allocations;
    void* p = nullptr; // posix_memalign for every size, so that std::free releases them all
    if (posix_memalign(&p, std::max(alignment, alignof(std::max_align_t)), size == 0 ? 1 : size) != 0)
        throw std::bad_alloc();
    return p;
}
} // namespace

void* operator new(size_t size) { return counted(size, 0); }
void* operator new[](size_t size) { return counted(size, 0); }
void* operator new(size_t size, std::align_val_t a) { return counted(size, size_t(a)); }
void* operator new[](size_t size, std::align_val_t a) { return counted(size, size_t(a)); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t, std::align_val_t) noexcept { std::free(p); }

TEST(FrameAllocation, WarmFramesDoNotAllocate) {
    const testing_support::CityScene scene = testing_support::makeCityScene(640.0f / 360.0f);
    // Odd buildings are rigid: first as set A, later as B, equal copies at
    // other addresses and so other meshes to the engine.
    const std::vector<testing_support::Mesh>& setA = scene.meshes;
    const std::vector<testing_support::Mesh> setB = setA;
    const std::vector<float> boxes = testing_support::makeCityQueryBoxes(scene, 1000, 5);
    bool visible[1000];
    const float params[4] = {};
    ASSERT_EQ(1, zelkInit(640, 360, scene.nearPlane));
    ZELK::ZELKPrivate* engine = ZELK::ZELKPrivate::peek();

    const auto runFrame = [&](const std::vector<testing_support::Mesh>& rigid) {
        zelkStartNewFrame(params, scene.viewProjection.data());
        for (size_t i = 0; i < setA.size(); ++i) {
            const auto& m = i % 2 ? rigid[i] : setA[i];
            zelkSubmitOccluder(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(),
                               i % 2 ? ZELK_RIGID : ZELK_NON_RIGID, scene.models[i].data());
        }
        zelkRenderOccluders();
        zelkBatchQuery(boxes.data(), 1000, visible);
    };
    const auto bakeAll = [&](const std::vector<testing_support::Mesh>& rigid) {
        const auto allCached = [&] {
            for (size_t i = 1; i < rigid.size(); i += 2)
                if (!engine->getCacheManager()->get({rigid[i].vertices.data(), rigid[i].indices.data()})) return false;
            return true;
        };
        for (int i = 0; i < 1000 && !allCached(); ++i) {
            runFrame(rigid);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return allCached();
    };
    // Warm-up: every list, the loader's queue and its pending set reach the
    // size of set A, which then bakes completely. The worker is held during
    // the first frame so that all of A is queued at once, as B will be.
    engine->getAsyncLoader().pauseThread();
    ASSERT_TRUE(bakeAll(setA));
    for (int i = 0; i < 3; ++i) runFrame(setA);

    // Set B is raw at first: drawn, queued and baked while these frames run.
    const long before = allocations;
    for (int i = 0; i < 10; ++i) runFrame(setB);
    EXPECT_EQ(before, allocations);
    EXPECT_EQ(260u, engine->getFrameInfo().rawOccluders.size() + engine->getFrameInfo().cachedOccluders.size());
    int hidden = 0;
    for (int b = 0; b < 1000; b += 2) hidden += visible[b] ? 0 : 1;
    EXPECT_GT(hidden, 0);       // the frames really drew: boxes inside buildings are hidden
    EXPECT_TRUE(visible[1]);    // and boxes in the open are not
    EXPECT_TRUE(bakeAll(setB)); // the measured frames did queue set B
    zelkDestroy();
}
