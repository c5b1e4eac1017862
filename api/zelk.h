/*
 * zelk: software occlusion culling for real-time rendering.
 *
 * Per frame: zelkStartNewFrame, zelkSubmitOccluder for every occluder,
 * zelkRenderOccluders once, then any number of zelkBatchQuery calls.
 *
 * Every function returns 1 on success and 0 on failure, never throws and
 * never prints. The interface is not thread-safe: call it from one thread
 * (the render thread). The library runs one background thread of its own
 * that simplifies and bakes rigid meshes.
 *
 * Memory contract: zelk never copies the host's meshes. A mesh is identified
 * by the pair (vertex array address, index array address). A rigid mesh's
 * arrays must stay alive and unchanged for as long as the library may read
 * them, that is until zelkDestroy returns.
 */
#ifndef ZELK_H
#define ZELK_H

#include <stdbool.h>
#include <stdint.h>

/* Version as major * 10000 + minor * 100 + patch. */
#define ZELK_VERSION 100

#ifndef ZELK_API
#define ZELK_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Whether a mesh's arrays stay unchanged while their addresses are in use.
 * Rigid meshes are simplified and cached on the background thread; every
 * value other than ZELK_RIGID is treated as non-rigid. */
typedef enum RigidType { ZELK_RIGID = 0, ZELK_NON_RIGID = 1 } RigidType;

/*
 * Creates the engine if needed and sets the depth-buffer size and the near
 * clip distance (in clip-space w).
 * width, height: non-zero multiples of 8, width <= 1920, height <= 1080.
 * nearPlane: not negative (NaN is accepted).
 * On invalid arguments the engine is destroyed (also one that existed) and 0
 * is returned. Calling it again on a live engine only applies the new values;
 * the cache of baked meshes is kept.
 */
ZELK_API int zelkInit(uint32_t width, uint32_t height, float nearPlane);

/*
 * As zelkInit, but invalid arguments leave the engine untouched and return 0.
 * With valid arguments it creates the engine when none exists.
 */
ZELK_API int zelkConfig(uint32_t width, uint32_t height, float nearPlane);

/*
 * Starts a frame.
 * frameParams: non-NULL; only its first three bytes are read (and only kept).
 * viewProjection: non-NULL, 16 floats, column-major, mapping world space to
 *   clip space; it is the only camera matrix zelk uses.
 * Clears the per-frame depth buffer and the frame's occluder lists.
 */
ZELK_API int zelkStartNewFrame(const float* frameParams, const float* viewProjection);

/*
 * Submits one occluder for this frame.
 * vertices: non-NULL, vertexCount x 3 floats (x, y, z) in model space.
 * indices: non-NULL, indexCount 16-bit indices, three per triangle; a
 *   trailing partial triangle is ignored. Every index must be below
 *   vertexCount, otherwise the submission is rejected (returns 0).
 * vertexCount, indexCount: non-zero.
 * rigidType: ZELK_RIGID for meshes whose arrays never change.
 * model: 16 floats, column-major model-to-world matrix; NULL gives an
 *   all-zero matrix, so the occluder hides nothing.
 * The same mesh may be submitted several times per frame.
 *
 * Winding: a triangle is front-facing when its vertices run counter-clockwise
 * on screen in a y-up clip space (OpenGL's default); back faces hide nothing.
 * A host whose meshes store front faces clockwise (some level formats do)
 * must reverse each triangle's order, or it loses most of its occluders
 * silently: the calls still succeed and few boxes are culled.
 */
ZELK_API int zelkSubmitOccluder(const float* vertices, const uint16_t* indices, uint32_t vertexCount,
                                uint32_t indexCount, RigidType rigidType, const float* model);

/* Draws this frame's occluders into the depth buffers. Call once per frame,
 * after the submissions and before the queries. */
ZELK_API int zelkRenderOccluders(void);

/*
 * Single-box query. Always stores false in *visible: use zelkBatchQuery.
 * Note the argument order: the output flag sits between the two corners.
 * boxMin: non-NULL. visible: non-NULL (returns 0 otherwise). boxMax is not read.
 */
ZELK_API int zelkQuery(const float* boxMin, bool* visible, const float* boxMax);

/*
 * Tests count world-space axis-aligned boxes.
 * boxes: non-NULL, count x 6 floats (min x, y, z, max x, y, z).
 * results: non-NULL, count flags; results[i] is true when box i may be
 *   visible. A box is reported hidden only when the drawn occluders hide it.
 * count: non-zero (0 returns 0 and writes nothing).
 */
ZELK_API int zelkBatchQuery(const float* boxes, uint32_t count, bool* results);

/* Destroys the engine, joining its background thread; harmless when none
 * exists. Always returns 1. */
ZELK_API int zelkDestroy(void);

#ifdef __cplusplus
}
#endif

#endif /* ZELK_H */
