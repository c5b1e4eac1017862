// The exported C functions driven by a byte stream: any sequence of init,
// config, frames, submissions, renders, queries and destroys, with arbitrary
// sizes, near planes, matrices, meshes (counts, indices, coordinates) and box
// batches. The host's side of the contract is kept: every array is as long as
// the count passed with it, and rigid meshes outlive the engine.
#include "FuzzStream.h"
#include "zelk.h"

#include <deque>

using namespace fuzzing;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Reader in(data, size);
    std::deque<Mesh> meshes; // stable addresses: a mesh's identity is its arrays
    std::vector<float> boxes;
    bool results[256];
    float matrix[16];
    const float frameParams[4] = {0, 0, 0, 0};
    for (int step = 0; step < 64 && !in.done(); ++step) {
        const uint8_t op = in.u8() % EngineOpCount;
        switch (op) {
        case OpInit:
        case OpConfig: {
            const uint32_t width = engineSize(in, 1920), height = engineSize(in, 1080);
            const float nearPlane = in.f32();
            (op == OpInit ? zelkInit : zelkConfig)(width, height, nearPlane);
            break;
        }
        case OpFrame: {
            const uint8_t flags = in.u8();
            in.floats(matrix, 16);
            zelkStartNewFrame(flags & 1 ? nullptr : frameParams, flags & 2 ? nullptr : matrix);
            break;
        }
        case OpMesh: meshes.push_back(readMesh(in)); break;
        case OpSubmit: {
            const uint8_t slot = in.u8(), rigid = in.u8(), flags = in.u8();
            const uint16_t cut = in.u16();
            in.floats(matrix, 16);
            if (meshes.empty()) break;
            const Mesh& m = meshes[slot % meshes.size()];
            // Flags: bit 0 null model, bits 2 and 3 cut the vertex and index
            // counts (counts may claim less than the arrays hold, never more),
            // bits 4 and 5 null vertex and index pointers.
            uint32_t vertexCount = uint32_t(m.vertices.size() / 3), indexCount = uint32_t(m.indices.size());
            if (flags & 4) vertexCount = vertexCount > cut ? cut : vertexCount;
            if (flags & 8) indexCount = indexCount > cut ? cut : indexCount;
            zelkSubmitOccluder(flags & 16 || m.vertices.empty() ? nullptr : m.vertices.data(),
                               flags & 32 || m.indices.empty() ? nullptr : m.indices.data(), vertexCount, indexCount,
                               static_cast<RigidType>(rigid % 3), flags & 1 ? nullptr : matrix);
            break;
        }
        case OpRender: zelkRenderOccluders(); break;
        case OpQuery: {
            const uint8_t flags = in.u8(), count = in.u8();
            boxes.resize(size_t(count) * 6);
            in.floats(boxes.data(), boxes.size());
            zelkBatchQuery(flags & 1 || boxes.empty() ? nullptr : boxes.data(), count, flags & 2 ? nullptr : results);
            break;
        }
        case OpSingle: {
            const uint8_t flags = in.u8();
            float box[6];
            in.floats(box, 6);
            zelkQuery(flags & 1 ? nullptr : box, flags & 2 ? nullptr : results, box + 3);
            break;
        }
        case OpDestroy: zelkDestroy(); break;
        }
    }
    zelkDestroy(); // before the meshes go: the engine may hold their addresses
    return 0;
}
