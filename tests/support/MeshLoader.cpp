#include "support/MeshLoader.h"

#include <cstdint>
#include <cstring>
#include <unordered_map>

#if defined(ZELK_TEST_HAVE_ASSIMP)
#include <assimp/Importer.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#endif

namespace testing_support {

#if defined(ZELK_TEST_HAVE_ASSIMP)
namespace {

struct PositionKey {
    uint32_t bits[3];
    bool operator==(const PositionKey& o) const { return std::memcmp(bits, o.bits, sizeof bits) == 0; }
};

struct PositionHash {
    size_t operator()(const PositionKey& k) const {
        uint64_t h = 0x9E3779B97F4A7C15ull;
        for (const uint32_t b : k.bits) h = (h ^ b) * 0xFF51AFD7ED558CCDull;
        return size_t(h ^ (h >> 29));
    }
};

uint32_t keyBits(float f) {
    if (f == 0.0f) f = 0.0f; // weld -0 with +0
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

} // namespace
#endif

bool loadMesh(const std::string& path, Mesh& out) {
    out = Mesh();
#if defined(ZELK_TEST_HAVE_ASSIMP)
    Assimp::Importer importer;
    const aiScene* scene = importer.ReadFile(path, aiProcess_Triangulate | aiProcess_PreTransformVertices);
    if (!scene) return false;
    std::unordered_map<PositionKey, uint32_t, PositionHash> welded;
    std::vector<uint32_t> remap;
    for (unsigned mi = 0; mi < scene->mNumMeshes; ++mi) {
        const aiMesh* mesh = scene->mMeshes[mi];
        remap.assign(mesh->mNumVertices, 0);
        for (unsigned v = 0; v < mesh->mNumVertices; ++v) {
            const aiVector3D& p = mesh->mVertices[v];
            const PositionKey key{{keyBits(p.x), keyBits(p.y), keyBits(p.z)}};
            const auto it = welded.emplace(key, uint32_t(welded.size())).first;
            if (it->second == out.vertices.size() / 3) {
                out.vertices.push_back(p.x);
                out.vertices.push_back(p.y);
                out.vertices.push_back(p.z);
            }
            remap[v] = it->second;
        }
        if (welded.size() > 65536) {
            out = Mesh();
            return false;
        }
        for (unsigned f = 0; f < mesh->mNumFaces; ++f) {
            const aiFace& face = mesh->mFaces[f];
            if (face.mNumIndices != 3) continue;
            const uint32_t a = remap[face.mIndices[0]], b = remap[face.mIndices[1]], c = remap[face.mIndices[2]];
            if (a == b || b == c || c == a) continue;
            out.indices.push_back(uint16_t(a));
            out.indices.push_back(uint16_t(b));
            out.indices.push_back(uint16_t(c));
        }
    }
    if (out.indices.empty()) {
        out = Mesh();
        return false;
    }
    return true;
#else
    (void)path;
    return false;
#endif
}

namespace {

const char* const kRealMeshPaths[] = {
    "/usr/share/glmark2/models/bunny.obj",
    "/usr/share/assimp/models/PLY/Wuson.ply",
    "/usr/share/assimp/models/OBJ/spider.obj",
    "/usr/share/assimp/models/OBJ/regr01.obj",
    "/usr/share/assimp/models/STL/sphereWithHole.stl",
    "/usr/share/assimp/models/STL/3DSMaxExport.STL",
};

} // namespace

std::vector<std::string> realMeshesMissing() {
    std::vector<std::string> missing;
    Mesh mesh;
    for (const char* path : kRealMeshPaths)
        if (!loadMesh(path, mesh)) missing.emplace_back(path);
    return missing;
}

std::vector<NamedMesh> loadRealMeshes() {
    std::vector<NamedMesh> meshes;
    for (const char* path : kRealMeshPaths) {
        NamedMesh named;
        if (!loadMesh(path, named.mesh)) continue;
        const std::string p(path);
        named.name = p.substr(p.find_last_of('/') + 1);
        meshes.push_back(std::move(named));
    }
    return meshes;
}

} // namespace testing_support
