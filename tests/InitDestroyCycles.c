/* Hundreds of engine lifetimes, each drawing rigid and non-rigid meshes over
 * a few frames, some ended mid-frame or by a failing zelkInit. Run under
 * valgrind's memcheck (and the sanitizer builds) to prove that no lifetime
 * leaks, also while rigid meshes are queued for the background thread. */
#include "zelk.h"

#include <stdio.h>

enum { kCycles = 300, kGrid = 8 };

/* A kGrid x kGrid grid of quads in z = 0, x and y in [-1, 1]. */
static float gridVertices[(kGrid + 1) * (kGrid + 1) * 3];
static uint16_t gridIndices[kGrid * kGrid * 6];

static void makeGrid(void) {
    int i, j, n = 0;
    for (j = 0; j <= kGrid; ++j)
        for (i = 0; i <= kGrid; ++i) {
            gridVertices[n++] = -1.0f + 2.0f * (float)i / kGrid;
            gridVertices[n++] = -1.0f + 2.0f * (float)j / kGrid;
            gridVertices[n++] = 0.0f;
        }
    n = 0;
    for (j = 0; j < kGrid; ++j)
        for (i = 0; i < kGrid; ++i) {
            const uint16_t a = (uint16_t)(j * (kGrid + 1) + i), b = (uint16_t)(a + 1);
            const uint16_t c = (uint16_t)(a + kGrid + 1), d = (uint16_t)(c + 1);
            gridIndices[n++] = a, gridIndices[n++] = b, gridIndices[n++] = d;
            gridIndices[n++] = a, gridIndices[n++] = d, gridIndices[n++] = c;
        }
}

int main(void) {
    /* Clip w = distance along -z; the grids stand 5 to 8 units ahead. */
    static const float viewProjection[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, -1, -1, 0, 0, -0.2f, 0};
    static const float boxes[2 * 6] = {-0.2f, -0.2f, -30, 0.2f, 0.2f, -29, -0.2f, -0.2f, -2, 0.2f, 0.2f, -1};
    const float frameParams[4] = {0, 0, 0, 0};
    /* Scaled to 20 x 20 units: each grid covers the whole screen. */
    float model[16] = {10, 0, 0, 0, 0, 10, 0, 0, 0, 0, 1, 0, 0, 0, -5, 1};
    bool visible[2];
    int cycle, frame, k, failures = 0;

    makeGrid();
    for (cycle = 0; cycle < kCycles; ++cycle) {
        const uint32_t width = 8u * (uint32_t)(1 + cycle % 24), height = 8u * (uint32_t)(1 + cycle % 17);
        failures += !zelkInit(width, height, 0.1f);
        for (frame = 0; frame < 1 + cycle % 4; ++frame) {
            failures += !zelkStartNewFrame(frameParams, viewProjection);
            for (k = 0; k < 3; ++k) {
                model[14] = -5.0f - (float)k;
                failures += !zelkSubmitOccluder(gridVertices, gridIndices, (kGrid + 1) * (kGrid + 1), kGrid * kGrid * 6,
                                                k == 2 ? ZELK_NON_RIGID : ZELK_RIGID, model);
            }
            if (cycle % 7 == 3 && frame == 0) break; /* destroyed mid-frame, submissions pending */
            failures += !zelkRenderOccluders();
            failures += !zelkBatchQuery(boxes, 2, visible);
            /* The grids cover the box behind them; the one in front shows. */
            failures += visible[0] || !visible[1];
        }
        if (cycle % 5 == 4)
            failures += zelkInit(12, 8, 0.1f); /* bad size: 0, and the engine is gone */
        else
            failures += !zelkDestroy();
    }
    printf("%d init/destroy cycles, %d failures\n", kCycles, failures);
    return failures == 0 ? 0 : 1;
}
