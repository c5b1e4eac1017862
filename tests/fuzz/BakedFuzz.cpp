// Baking and the quad rasteriser on their own: meshes decomposed into quads
// and baked against their own or an arbitrary quantisation box, quads baked
// straight from arbitrary coordinates, and arbitrary baked data (any 32-bit
// words, any boxes) drawn with and without near clipping; arbitrary boxes
// tested against the buffer, directly and through the level-of-detail front.
#include "FuzzStream.h"
#include "common/OccluderGroup.h"
#include "common/QuadDecomposition.h"
#include "util/RapidRasterizer.h"
#include "util/Rasterizer.h"

using namespace fuzzing;
using common::float4;

namespace {

float4 readPoint(Reader& in) {
    float p[3];
    in.floats(p, 3);
    return common::make4(p[0], p[1], p[2], 1.0f);
}

// The quantisation box: the vertices' own bounds, or any two points.
void referenceBox(Reader& in, const std::vector<float4>& vertices, float4& refMin, float4& refMax) {
    if (in.u8() & 1) {
        refMin = readPoint(in);
        refMax = readPoint(in);
        return;
    }
    refMin = refMax = vertices.empty() ? common::zero4() : vertices[0];
    for (const float4& v : vertices) {
        refMin = common::min(refMin, v);
        refMax = common::max(refMax, v);
    }
}

std::shared_ptr<common::Occluder> bakeMesh(Reader& in) {
    const Mesh mesh = readMesh(in);
    std::vector<float4> vertices(mesh.vertices.size() / 3);
    for (size_t v = 0; v < vertices.size(); ++v)
        vertices[v] = common::make4(mesh.vertices[3 * v], mesh.vertices[3 * v + 1], mesh.vertices[3 * v + 2], 1.0f);
    const std::vector<uint32_t> indices(mesh.indices.begin(), mesh.indices.end());
    std::vector<float4> corners;
    for (uint32_t i : common::QuadDecomposition::decompose(indices, vertices)) corners.push_back(vertices[i]);
    float4 refMin, refMax;
    referenceBox(in, corners, refMin, refMax);
    return common::Occluder::bake(corners, refMin, refMax);
}

std::shared_ptr<common::Occluder> bakeQuads(Reader& in) {
    std::vector<float4> corners(size_t(in.u8()) * 4 + in.u8() % 4); // a partial quad too
    for (float4& c : corners) c = readPoint(in);
    float4 refMin, refMax;
    referenceBox(in, corners, refMin, refMax);
    return common::Occluder::bake(corners, refMin, refMax);
}

std::shared_ptr<common::Occluder> arbitraryBaked(Reader& in) {
    auto occluder = std::make_shared<common::Occluder>();
    float4* boxes[5] = {&occluder->center, &occluder->refMin, &occluder->refMax, &occluder->boundsMin,
                        &occluder->boundsMax};
    for (float4* b : boxes) *b = readPoint(in);
    occluder->packedVertices.resize(size_t(in.u8()) * 4 + in.u8() % 4);
    for (common::int4& word : occluder->packedVertices) {
        int32_t w[4];
        in.bytes(w, sizeof w);
        word = common::makeInt4(w[0], w[1], w[2], w[3]);
    }
    return occluder;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    util::Rasterizer raster;
    util::RapidRasterizer rapid;
    auto group = std::make_shared<common::OccluderGroup>();
    unsigned levels = 0;
    float matrix[16];
    for (int step = 0; step < 32 && !in.done(); ++step) {
        const uint8_t op = in.u8() % BakedOpCount;
        switch (op) {
        case BakedOpResolution: {
            const unsigned width = bufferSize(in.u8(), 1920), height = bufferSize(in.u8(), 1080);
            raster.setResolution(width, height);
            rapid.setResolution(width, height);
            raster.clear();
            rapid.clear();
            break;
        }
        case BakedOpMatrix:
            in.floats(matrix, 16);
            raster.setModelViewProjection(common::Matrix4x4::fromColumnMajor(matrix));
            rapid.setModelViewProjection(common::Matrix4x4::fromColumnMajor(matrix));
            break;
        case BakedOpMesh:
        case BakedOpQuads:
        case BakedOpWords: {
            const uint8_t flags = in.u8();
            const auto occluder = op == BakedOpMesh    ? bakeMesh(in)
                                  : op == BakedOpQuads ? bakeQuads(in)
                                                       : arbitraryBaked(in);
            if (occluder == nullptr) break;
            if (flags & 1)
                raster.rasterize<true>(*occluder);
            else
                raster.rasterize<false>(*occluder);
            group->addOccluder(occluder, levels++ % 3);
            rapid.render(group);
            break;
        }
        case BakedOpBox: {
            float box[6];
            in.floats(box, 6);
            raster.query(box, box + 3);
            rapid.query(box, box + 3);
            bool needsClipping = false;
            float screenFraction = 0.0f;
            raster.queryVisibility(common::make4(box[0], box[1], box[2], 1.0f),
                                   common::make4(box[3], box[4], box[5], 1.0f), needsClipping, screenFraction);
            break;
        }
        case BakedOpRect: {
            const unsigned w = raster.getWidth(), h = raster.getHeight();
            const unsigned x0 = in.u16(), x1 = in.u16(), y0 = in.u16(), y1 = in.u16(), depth = in.u16();
            if (w == 0 || h == 0) break;
            raster.query2D(x0 % w, x1, y0 % h, y1, uint16_t(depth)); // maxima past the screen are clamped
            break;
        }
        case BakedOpClear:
            raster.clear();
            rapid.clear();
            group = std::make_shared<common::OccluderGroup>();
            break;
        }
    }
    return 0;
}
