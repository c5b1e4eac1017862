// The masked rasteriser alone: arbitrary resolutions (within the engine's
// limits), near planes and matrices; arbitrary object-space meshes and
// clip-space triangles with every winding and clip-plane mask; arbitrary
// rectangles and boxes; clears and merges. Indices of the clip-space form are
// kept inside the vertex array, as its contract asks. A NaN depth in the
// buffer is a finding: no later comparison against it could hide anything.
#include "FuzzStream.h"
#include "util/MaskedOcclusionCulling.h"

#include <cmath>

using namespace fuzzing;
using util::MaskedOcclusionCulling;

namespace {

struct Buffer {
    MaskedOcclusionCulling* masked = MaskedOcclusionCulling::Create();
    ~Buffer() { MaskedOcclusionCulling::Destroy(masked); }
};

void checkNoNaN(const MaskedOcclusionCulling& m) {
    MaskedOcclusionCulling::TileData t;
    for (int ty = 0; m.ReadTile(0, ty, t); ++ty)
        for (int tx = 0; m.ReadTile(tx, ty, t); ++tx)
            for (int lane = 0; lane < 4; ++lane)
                if (std::isnan(t.referenceDepth[lane]) || std::isnan(t.workingDepth[lane])) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    Buffer buffer, other;
    MaskedOcclusionCulling& m = *buffer.masked;
    float matrix[16];
    for (int step = 0; step < 32 && !in.done(); ++step) {
        const uint8_t op = in.u8() % MaskOpCount;
        if (op == MaskOpResolution || op == MaskOpClear) checkNoNaN(m), checkNoNaN(*other.masked);
        switch (op) {
        case MaskOpResolution: {
            const unsigned width = bufferSize(in.u8(), 1920), height = bufferSize(in.u8(), 1080);
            m.SetResolution(width, height);
            other.masked->SetResolution(width, height);
            m.SetNearClipPlane(in.f32());
            m.ClearBuffer();
            other.masked->ClearBuffer();
            break;
        }
        case MaskOpMatrix:
            in.floats(matrix, 16);
            m.SetModelViewProjection(common::Matrix4x4::fromColumnMajor(matrix));
            break;
        case MaskOpObject: {
            const Mesh mesh = readMesh(in);
            const uint16_t claimed = in.u16();
            const int vertexCount = int(mesh.vertices.size() / 3 < claimed ? mesh.vertices.size() / 3 : claimed);
            m.RenderTriangles(mesh.vertices.empty() ? nullptr : mesh.vertices.data(),
                              mesh.indices.empty() ? nullptr : mesh.indices.data(), vertexCount,
                              int(mesh.indices.size() / 3));
            break;
        }
        case MaskOpClip: {
            const auto winding = static_cast<MaskedOcclusionCulling::BackfaceWinding>(in.u8() % 3);
            const auto planes = static_cast<MaskedOcclusionCulling::ClipPlanes>(in.u8() & 31);
            const bool useMatrix = in.u8() & 1;
            in.floats(matrix, 16);
            Mesh mesh = readMesh(in, 4);
            if (mesh.vertices.empty()) break;
            for (uint16_t& i : mesh.indices) i = uint16_t(i % (mesh.vertices.size() / 4));
            static const MaskedOcclusionCulling::VertexLayout kLayout = {16, 4, 12};
            m.RenderTriangles(mesh.vertices.data(), mesh.indices.empty() ? nullptr : mesh.indices.data(),
                              int(mesh.indices.size() / 3), useMatrix ? matrix : nullptr, winding, planes, kLayout);
            break;
        }
        case MaskOpRect: {
            float r[5];
            in.floats(r, 5);
            m.TestRect(r[0], r[1], r[2], r[3], r[4]);
            break;
        }
        case MaskOpBox: {
            float box[6];
            in.floats(box, 6);
            m.Query(box, box + 3);
            break;
        }
        case MaskOpClear: m.ClearBuffer(); break;
        case MaskOpMerge: other.masked->MergeBuffer(&m); break;
        }
    }
    checkNoNaN(m);
    checkNoNaN(*other.masked);
    return 0;
}
