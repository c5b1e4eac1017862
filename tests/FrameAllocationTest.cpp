// A warm frame allocates nothing on the host's render thread, which calls
// these every frame. Counts operator new per thread.
#include "support/CityScene.h"
#include "zelk.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>

namespace {
thread_local long allocations = 0;
}

void* operator new(size_t size) {
    ++allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

TEST(FrameAllocation, WarmFramesDoNotAllocate) {
    const testing_support::CityScene scene = testing_support::makeCityScene(640.0f / 360.0f);
    const std::vector<float> boxes = testing_support::makeCityQueryBoxes(scene, 1000, 5);
    std::unique_ptr<bool[]> visible(new bool[1000]);
    const float params[4] = {};
    ASSERT_EQ(1, zelkInit(640, 360, scene.nearPlane));

    auto runFrame = [&] {
        zelkStartNewFrame(params, scene.viewProjection.data());
        for (size_t i = 0; i < scene.meshes.size(); ++i) {
            const auto& m = scene.meshes[i];
            zelkSubmitOccluder(m.vertices.data(), m.indices.data(), m.vertexCount(), m.indexCount(),
                               i % 2 ? ZELK_RIGID : ZELK_NON_RIGID, scene.models[i].data());
        }
        zelkRenderOccluders();
        zelkBatchQuery(boxes.data(), 1000, visible.get());
    };
    for (int i = 0; i < 3; ++i) runFrame();
    const long before = allocations;
    for (int i = 0; i < 10; ++i) runFrame();
    EXPECT_EQ(before, allocations);
    EXPECT_FALSE(visible[0]); // the frames really drew: box 0 sits inside a building
    EXPECT_TRUE(visible[1]);
    zelkDestroy();
}
