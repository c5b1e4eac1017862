// Quad rasteriser for baked occluders: a 16-bit depth buffer in 8x8-pixel
// blocks with a conservative depth per block, coverage from a table of edge
// masks, and hierarchical box queries. Screen y points up (row 0 at the
// bottom); a larger depth code is nearer; 0 means nothing drawn.
//
// Conservative builds (ZELK_CONSERVATIVE) cover a pixel only when its centre
// lies inside the projected quad: corners snapped to 1/64 pixel and exact
// integer edge functions with a tie rule, so that the quads of a tessellated
// surface cover each pixel centre once and leave no seams. Their box query
// reads the box's own pixel columns.
#pragma once

#include "common/Matrix4x4.h"
#include "common/Occluder.h"
#include "common/Simd.h"
#include "util/RasterizerLocalToClip.h"

#include <cstdint>
#include <vector>

namespace util {

class Rasterizer {
public:
    static constexpr unsigned kTableSize = 4096;

    Rasterizer();
    ~Rasterizer();
    Rasterizer(const Rasterizer&) = delete;
    Rasterizer& operator=(const Rasterizer&) = delete;

    // Multiples of 8. Entries that survive a resize keep their codes.
    void setResolution(unsigned width, unsigned height);
    void clear();
    // Uses the resolution current at the call.
    void setModelViewProjection(const common::Matrix4x4& m);

    // Draws the occluder's front-facing quads (clockwise on screen, the order
    // the quad decomposition gives counter-clockwise triangles). Parts nearer
    // than the near plane are clipped away in both variants; true marks a
    // group whose box may cross it.
    template <bool possiblyNearClipped> void rasterize(const common::Occluder& occluder);

    // Both corners with w = 1. True when the box may be visible. Writes the
    // outputs only past the frustum test (see the source for which paths).
    bool queryVisibility(common::float4 boundsMin, common::float4 boundsMax, bool& needsClipping,
                         float& screenFraction) const;
    // Inclusive pixel bounds within the screen; depth: the box's nearest code.
    bool query2D(unsigned minX, unsigned maxX, unsigned minY, unsigned maxY, unsigned short depth) const;
    // Three floats per corner.
    bool query(const float* boundsMin, const float* boundsMax) const;

    // Builds the coverage table from sampled edges (the table is otherwise
    // copied from its stored form; this is what produced it). Conservative
    // builds hold it but draw without it.
    void precomputeRasterizationTable();
    // The same construction, OR-ed into the first kTableSize entries of table.
    static void precomputeRasterizationTableInto(std::vector<uint64_t>& table);

    // (bits of d) >> 12, arithmetic, narrowed with unsigned saturation: the
    // far plane packs to 0, the near plane just below 65536, anything nearer
    // or negative to 65535. The one-vector form repeats its four codes.
    static common::ushort8 packDepthPremultiplied(common::float4 d);
    static common::ushort8 packDepthPremultiplied(common::float4 d0, common::float4 d1);
    // About (1 - z/w) / 2: 0 at the far plane, 1 at the near plane.
    static float decompressFloat(unsigned short code);
    // Scales a and b so that |a| + |b| = 1; inv receives the factor for c.
    static void normalizeEdge(common::float4& a, common::float4& b, common::float4& inv);
    static common::int4 quantizeSlopeLookup(common::float4 a, common::float4 b);
    static int quantizeOffsetLookup(float c);

    unsigned getWidth() const { return width; }
    unsigned getHeight() const { return height; }
    uint16_t pixelDepth(unsigned x, unsigned y) const;
    uint16_t getBlockDepth(unsigned bx, unsigned by) const { return blockDepth[by * blocksX + bx]; }
    size_t blockDepthSize() const { return blockDepth.size(); }
    size_t depthBufferSize() const { return depthBuffer.size(); }
    const std::vector<uint64_t>& getRasterizationTable() const { return rasterizationTable; }
    // The stored table, kTableSize entries.
    static const uint64_t* storedRasterizationTable();

private:
    struct ScreenBatch;
    struct QuadSetup;
    struct ExactQuad;
    void drawBatch(const ScreenBatch& batch);
    void drawQuad(const QuadSetup& quad);
    void drawBatchExact(const ScreenBatch& batch);
    void drawQuadExact(const ExactQuad& quad);
    template <bool withFraction>
    bool testBox(common::float4 boundsMin, common::float4 boundsMax, bool& needsClipping, float& screenFraction) const;
    bool testClippedBox(common::float4 boundsMin, common::float4 boundsMax) const;
    bool testFaces(common::float4 boundsMin, common::float4 boundsMax, unsigned minX, unsigned maxX, unsigned minY,
                   unsigned maxY, uint16_t depth) const;
    void screenMatrix(double (&screen)[4][4]) const;

    RasterizerLocalToClip* localToClip;
    std::vector<uint64_t> rasterizationTable;
    std::vector<common::ushort8> depthBuffer; // block k, row r: vector 8k + r
    std::vector<uint16_t> blockDepth;         // per block, plus 8 spare entries
    unsigned width = 0, height = 0, blocksX = 0, blocksY = 0;
    // The frustum planes transposed (x, y, z, d of planes 0-3, then 4-5 twice).
    common::float4 planeLanes[2][4];
    common::int4 planeSigns[2][3]; // their sign bits, x, y, z

    // screenColumns element by element, each in all four lanes: [component][column].
    common::float4 screenSplat[4][4];

    // Conservative builds: a level's clusters in drawing order (kept for its capacity).
    struct ClusterKey {
        float nearest;  // the least clip w of the cluster's box
        uint32_t index; // the cluster
    };
    std::vector<ClusterKey> clusterOrder;
};

} // namespace util
