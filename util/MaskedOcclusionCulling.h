// Masked software occlusion culling: a tiled depth buffer holding, per 8x4
// subtile, a finished layer (reference depth), a layer under construction
// (working depth) and a 32-bit coverage mask of the working layer. Depth is
// 1/w, so larger values are nearer.
//
// Tiles are 32x4 pixels, row-major; the four 8x4 subtiles of a tile are the
// four lanes of each tile field, lane i covering tile pixels x = 8i .. 8i+7.
//
// Coverage bit order: pixel (x, y) of a subtile (x in 0..7 from the left,
// y in 0..3 from the top) is bit 8*y + x of the subtile's mask.
//
// Pixel coverage: vertices are snapped to integer pixel coordinates and a
// pixel (i, j) is sampled at its centre (i + 0.5, j + 0.5). A pixel is covered
// when its centre lies strictly inside the triangle; a centre exactly on an
// edge counts only for edges that bound the triangle on its left (interior to
// the right of the edge), so two triangles sharing an edge never both claim a
// pixel nor both miss it. Centres never lie on horizontal edges.
#pragma once

#include "common/Matrix4x4.h"

#include <cstddef>
#include <cstdint>

namespace util {

class MaskedOcclusionCulling {
public:
    struct VertexLayout {
        int32_t stride;  // bytes from one vertex to the next
        int32_t offsetY; // byte offset of y; x is at offset 0
        int32_t offsetW; // byte offset of w
    };

    // Pixels; the max bounds are exclusive and multiples of the tile size.
    struct ScissorRect {
        int32_t minX, minY, maxX, maxY;
    };

    // Signed area of the snapped screen triangle (y downward) decides; bit 1
    // drops area <= 0, bit 2 drops area > 0.
    enum BackfaceWinding { WindingKeepBoth = 0, WindingKeepPositive = 1, WindingKeepNonPositive = 2 };

    enum ClipPlanes {
        ClipNone = 0,
        ClipNear = 1,
        ClipLeft = 2,
        ClipRight = 4,
        ClipBottom = 8,
        ClipTop = 16,
        ClipAll = 31
    };

    // AND-ing several results gives Visible if any was visible, Occluded if
    // none was visible but some was in view, OutsideView only if all were out.
    enum RectTestResult { Visible = 0, Occluded = 1, OutsideView = 3 };

    // One tile as stored, copied out for inspection (tests and tools).
    struct TileData {
        float referenceDepth[4];
        float workingDepth[4];
        uint32_t coverageMask[4];
    };

    virtual void SetResolution(unsigned width, unsigned height) = 0;
    virtual void GetResolution(unsigned& width, unsigned& height) const = 0;
    virtual void SetModelViewProjection(const common::Matrix4x4& matrix) = 0;
    virtual void SetNearClipPlane(float nearDistance) = 0;
    virtual float GetNearClipPlane() const = 0;
    virtual void ClearBuffer() = 0;
    // other must be a buffer made by Create with the same resolution.
    virtual void MergeBuffer(MaskedOcclusionCulling* other) = 0;
    // Clip-space vertices read through layout; modelToClip (16 floats,
    // column-major, may be null) maps each vertex (x, y, 0, w) first.
    virtual int RenderTriangles(const float* vertices, const uint16_t* triangles, int triangleCount,
                                const float* modelToClip, BackfaceWinding winding, ClipPlanes clipPlaneMask,
                                const VertexLayout& layout) = 0;
    // Object-space (x, y, z) triples transformed by the stored matrix, clipped
    // against all planes; only triangles counter-clockwise in normalized
    // device coordinates (y up) are drawn.
    virtual int RenderTriangles(const float* vertices, const uint16_t* indices, int vertexCount, int triangleCount) = 0;
    // Normalized device coordinates, y up; wmin is the nearest clip-space w.
    virtual int TestRect(float xmin, float ymin, float xmax, float ymax, float wmin) const = 0;
    // Box corners (three floats each) through the stored matrix; true when visible.
    virtual bool Query(const float* boundsMin, const float* boundsMax) = 0;
    virtual ~MaskedOcclusionCulling() = default;

    // Copies tile (tileX, tileY); false (out untouched) when there is no such tile.
    bool ReadTile(int tileX, int tileY, TileData& out) const;

    static MaskedOcclusionCulling* Create();
    static MaskedOcclusionCulling* Create(void* (*alloc)(size_t alignment, size_t size), void (*free)(void*));
    static void Destroy(MaskedOcclusionCulling* object);

protected:
    MaskedOcclusionCulling() = default;
    MaskedOcclusionCulling(const MaskedOcclusionCulling&) = delete;
    MaskedOcclusionCulling& operator=(const MaskedOcclusionCulling&) = delete;
};

// Fills lanes 0 .. count-1 of the three vertex vectors from indexed triangles
// read through layout (count at most 4); other lanes are left as they are.
void GatherVertices(common::float4 vX[3], common::float4 vY[3], common::float4 vW[3], const float* vertices,
                    const uint16_t* indices, int count, const MaskedOcclusionCulling::VertexLayout& layout);

} // namespace util
