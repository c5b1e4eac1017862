// Writes the seed corpora of the fuzz targets, built from the tests' scenes:
//   zelk_fuzz_seeds <directory>   makes <directory>/<target>/<seed> files.
#include "FuzzStream.h"
#include "common/Matrix4x4.h"
#include "common/Occluder.h"
#include "support/CityScene.h"
#include "support/TestMeshes.h"

#include <array>
#include <cstdio>
#include <string>
#include <sys/stat.h>

using namespace fuzzing;
using TestMesh = testing_support::Mesh;

namespace {

const float kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
const float kUnitBox[6] = {-0.5f, 0, -0.5f, 0.5f, 1, 0.5f}; // a city building in object space

bool save(const std::string& dir, const std::string& name, const Writer& w) {
    mkdir(dir.c_str(), 0755);
    FILE* f = std::fopen((dir + "/" + name).c_str(), "wb");
    if (f == nullptr) return false;
    const bool ok = std::fwrite(w.bytes.data(), 1, w.bytes.size(), f) == w.bytes.size();
    return std::fclose(f) == 0 && ok;
}

// The C host's scene: one wall at z = -10 and three boxes, as a frame sequence
// with a destroy and a re-init in the middle. rigidType is the raw value the
// host passes (any int; only 0 means rigid).
Writer hostWall(uint8_t rigidType) {
    const std::vector<float> wall = {-5, -5, -10, 5, -5, -10, 5, 5, -10, -5, 5, -10};
    const std::vector<uint16_t> indices = {0, 1, 2, 0, 2, 3};
    const float vp[16] = {0.974278f, 0, 0, 0, 0, 1.732051f, 0, 0, 0, 0, -1.002002f, -1, 0, 0, -0.2002002f, 0};
    const float boxes[18] = {-1, -1, -22, 1, 1, -20, -1, -1, -6, 1, 1, -4, 12, -1, -22, 14, 1, -20};
    Writer w;
    w.u8(OpMesh);
    writeMesh(w, wall, indices);
    for (int round = 0; round < 2; ++round) {
        // 160x96 both ways (small buffers keep executions fast).
        if (round == 0)
            w.u8(OpInit), w.u8(20), w.u8(12), w.f32(0.1f);
        else
            w.u8(OpInit), w.u8(kRawSize), w.u16(160), w.u8(kRawSize), w.u16(96), w.f32(0.1f);
        for (int frame = 0; frame < 2; ++frame) {
            w.u8(OpFrame), w.u8(0), w.floats(vp, 16);
            w.u8(OpSubmit), w.u8(0), w.u8(rigidType), w.u8(0), w.u16(0), w.floats(kIdentity, 16);
            w.u8(OpRender);
            w.u8(OpQuery), w.u8(0), w.u8(3), w.floats(boxes, 18);
            w.u8(OpSingle), w.u8(0), w.floats(boxes, 6);
        }
        w.u8(OpDestroy);
    }
    return w;
}

// A corner of the city: a few buildings over three frames, then queries.
Writer cityFrames(const testing_support::CityScene& city, int buildings, bool rigid) {
    Writer w;
    w.u8(OpMesh);
    writeMesh(w, city.meshes[0].vertices, city.meshes[0].indices);
    w.u8(OpInit), w.u8(20), w.u8(11), w.f32(city.nearPlane); // 160x88
    const std::vector<float> boxes = testing_support::makeCityQueryBoxes(city, 16, 7u);
    for (int frame = 0; frame < 3; ++frame) {
        w.u8(OpFrame), w.u8(0), w.floats(city.viewProjection.data(), 16);
        for (int b = 0; b < buildings; ++b) {
            w.u8(OpSubmit), w.u8(0), w.u8(rigid ? 0 : 1), w.u8(0), w.u16(0);
            w.floats(city.models[size_t(b) * 7 % city.models.size()].data(), 16);
        }
        w.u8(OpRender);
        w.u8(OpQuery), w.u8(0), w.u8(16), w.floats(boxes.data(), boxes.size());
    }
    return w;
}

Writer stages(const TestMesh& m, uint32_t target, float aggressiveness, bool normalize) {
    Writer w;
    w.u8(normalize ? 1 : 0), w.u32(target), w.f32(aggressiveness);
    writeMesh(w, m.vertices, m.indices);
    return w;
}

// The engine's product for building b: view-projection x model.
std::array<float, 16> modelViewProjection(const testing_support::CityScene& city, size_t b) {
    using common::Matrix4x4;
    std::array<float, 16> mvp;
    (Matrix4x4::fromColumnMajor(city.viewProjection.data()) * Matrix4x4::fromColumnMajor(city.models[b].data()))
        .toColumnMajor(mvp.data());
    return mvp;
}

Writer maskedCity(const testing_support::CityScene& city) {
    Writer w;
    w.u8(MaskOpResolution), w.u8(39), w.u8(23), w.f32(city.nearPlane);
    for (size_t b = 0; b < 3; ++b) {
        w.u8(MaskOpMatrix), w.floats(modelViewProjection(city, b * 5).data(), 16);
        w.u8(MaskOpObject);
        writeMesh(w, city.meshes[0].vertices, city.meshes[0].indices);
        w.u16(city.meshes[0].vertexCount());
    }
    w.u8(MaskOpMatrix), w.floats(city.viewProjection.data(), 16);
    const std::vector<float> boxes = testing_support::makeCityQueryBoxes(city, 8, 3u);
    for (size_t b = 0; b < boxes.size(); b += 6) w.u8(MaskOpBox), w.floats(&boxes[b], 6);
    w.u8(MaskOpRect), w.f32(-0.5f), w.f32(-0.5f), w.f32(0.5f), w.f32(0.5f), w.f32(50.0f);
    w.u8(MaskOpMerge);
    return w;
}

// Clip-space triangles straddling the near plane and the screen edges.
Writer maskedClip(uint8_t winding, uint8_t planes) {
    const std::vector<float> v = {-2, -1, 0, 1, 3, -1, 0, 2, 0, 2, 0, 4, -1, 1, 0, -0.5f, 0.5f, 0.5f, 0, 0.25f};
    const std::vector<uint16_t> indices = {0, 1, 2, 2, 1, 0, 0, 3, 4, 1, 2, 3};
    Writer w;
    w.u8(MaskOpResolution), w.u8(8), w.u8(8), w.f32(0.5f);
    w.u8(MaskOpClip), w.u8(winding), w.u8(planes), w.u8(0), w.floats(kIdentity, 16);
    writeMesh(w, v, indices, 4);
    w.u8(MaskOpRect), w.f32(-1), w.f32(-1), w.f32(1), w.f32(1), w.f32(1);
    w.u8(MaskOpClear);
    w.u8(MaskOpClip), w.u8(winding), w.u8(planes), w.u8(1), w.floats(kIdentity, 16);
    writeMesh(w, v, indices, 4);
    return w;
}

// A building baked three ways (decomposed mesh, its own quads, the baked
// words), each drawn and then tested with the city's boxes in its own frame.
Writer bakedCity(const testing_support::CityScene& city) {
    const TestMesh& b = city.meshes[0];
    std::vector<common::float4> corners;
    for (size_t q = 0; q + 5 < b.indices.size(); q += 6) {
        // Each face cell is triangles (a, b, d), (a, d, c): the quad a, c, d, b.
        const uint16_t quad[4] = {b.indices[q], b.indices[q + 5], b.indices[q + 4], b.indices[q + 1]};
        for (uint16_t i : quad)
            corners.push_back(common::make4(b.vertices[3 * i], b.vertices[3 * i + 1], b.vertices[3 * i + 2], 1.0f));
    }
    const auto baked =
        common::Occluder::bake(corners, common::make4(-0.5f, 0, -0.5f, 1), common::make4(0.5f, 1, 0.5f, 1));
    const std::vector<float> boxes = testing_support::makeCityQueryBoxes(city, 4, 5u);
    Writer w;
    w.u8(BakedOpResolution), w.u8(39), w.u8(23);
    w.u8(BakedOpMatrix), w.floats(modelViewProjection(city, 0).data(), 16);
    w.u8(BakedOpMesh), w.u8(0);
    writeMesh(w, b.vertices, b.indices);
    w.u8(0);
    w.u8(BakedOpQuads), w.u8(1), w.u8(uint32_t(corners.size() / 4)), w.u8(0);
    for (const common::float4& c : corners)
        w.f32(common::lane<0>(c)), w.f32(common::lane<1>(c)), w.f32(common::lane<2>(c));
    w.u8(1), w.floats(kUnitBox, 6);
    w.u8(BakedOpWords), w.u8(0);
    for (const common::float4* v :
         {&baked->center, &baked->refMin, &baked->refMax, &baked->boundsMin, &baked->boundsMax})
        w.f32(common::lane<0>(*v)), w.f32(common::lane<1>(*v)), w.f32(common::lane<2>(*v));
    w.u8(uint32_t(baked->packedVertices.size() / 4)), w.u8(0);
    for (const common::int4& word : baked->packedVertices) {
        alignas(16) int32_t lanes[4];
        common::storeInt4(lanes, word);
        for (int32_t l : lanes) w.u32(uint32_t(l));
    }
    for (size_t i = 0; i < boxes.size(); i += 6) w.u8(BakedOpBox), w.floats(&boxes[i], 6);
    w.u8(BakedOpRect), w.u16(0), w.u16(311), w.u16(0), w.u16(183), w.u16(30000);
    w.u8(BakedOpClear);
    return w;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
        return 2;
    }
    const std::string root = argv[1];
    mkdir(root.c_str(), 0755);
    const testing_support::CityScene city = testing_support::makeCityScene(16.0f / 9.0f);
    const TestMesh box = testing_support::makeBox(-1, -1, -1, 1, 1, 1);
    const TestMesh grid = testing_support::makeGrid(6, -3, -3, 3, 3, 0);
    bool ok = true;

    const std::string engine = root + "/EngineFuzz";
    ok &= save(engine, "host-wall", hostWall(1));
    ok &= save(engine, "host-wall-rigid", hostWall(0));
    ok &= save(engine, "host-wall-rigid-type-2", hostWall(2)); // once read as the enum: undefined
    ok &= save(engine, "city-raw", cityFrames(city, 6, false));
    ok &= save(engine, "city-rigid", cityFrames(city, 6, true));

    const std::string mesh = root + "/MeshStagesFuzz";
    ok &= save(mesh, "box", stages(box, 6, 7.0f, true));
    ok &= save(mesh, "grid", stages(grid, 12, 7.0f, false));
    ok &= save(mesh, "grid-keep", stages(grid, 1000, 5.0f, true));
    ok &= save(mesh, "building", stages(city.meshes[0], 48, 7.0f, true));
    ok &= save(mesh, "building-none", stages(city.meshes[0], 0, 9.0f, false));

    const std::string masked = root + "/MaskedRasterizerFuzz";
    ok &= save(masked, "city", maskedCity(city));
    for (uint8_t winding = 0; winding < 3; ++winding) {
        ok &= save(masked, "clip-all-" + std::to_string(winding), maskedClip(winding, 31));
        ok &= save(masked, "clip-near-" + std::to_string(winding), maskedClip(winding, 1));
    }

    ok &= save(root + "/BakedFuzz", "city", bakedCity(city));
    return ok ? 0 : 1;
}
