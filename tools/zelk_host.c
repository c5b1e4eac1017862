/* A minimal host written in C: proves that the public header and the shared
 * library work from C. It draws one wall and asks about three boxes. */
#include "zelk.h"

#include <math.h>
#include <stdio.h>

/* Right-handed perspective looking down -z, column-major, clip w = -z. */
static void perspective(float* m, float fovY, float aspect, float zNear, float zFar) {
    const float f = 1.0f / tanf(fovY * 0.5f);
    int i;
    for (i = 0; i < 16; ++i) m[i] = 0.0f;
    m[0] = f / aspect;
    m[5] = f;
    m[10] = (zFar + zNear) / (zNear - zFar);
    m[11] = -1.0f;
    m[14] = 2.0f * zFar * zNear / (zNear - zFar);
}

int main(void) {
    /* A 10 x 10 wall at z = -10 facing the camera (counter-clockwise). */
    static const float wall[] = {-5, -5, -10, 5, -5, -10, 5, 5, -10, -5, 5, -10};
    static const uint16_t wallIndices[] = {0, 1, 2, 0, 2, 3};
    static const float identity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    static const float boxes[3 * 6] = {
        -1, -1, -22, 1,  1, -20, /* straight behind the wall */
        -1, -1, -6,  1,  1, -4,  /* in front of it */
        12, -1, -22, 14, 1, -20  /* beside it */
    };
    static const char* const names[3] = {"hidden box", "front box", "side box"};
    const float frameParams[4] = {0, 0, 0, 0};
    float viewProjection[16];
    bool visible[3] = {true, true, true};
    int ok = 1, i;

    perspective(viewProjection, 1.0471976f, 640.0f / 360.0f, 0.1f, 100.0f);
    ok &= zelkInit(640, 360, 0.1f);
    ok &= zelkStartNewFrame(frameParams, viewProjection);
    ok &= zelkSubmitOccluder(wall, wallIndices, 4, 6, ZELK_NON_RIGID, identity);
    ok &= zelkRenderOccluders();
    ok &= zelkBatchQuery(boxes, 3, visible);
    for (i = 0; i < 3; ++i) printf("%s: %s\n", names[i], visible[i] ? "visible" : "hidden");
    ok &= zelkDestroy();
    printf("zelk %d.%d.%d: %s\n", ZELK_VERSION / 10000, ZELK_VERSION / 100 % 100, ZELK_VERSION % 100,
           ok ? "all calls succeeded" : "a call failed");
    return ok ? 0 : 1;
}
