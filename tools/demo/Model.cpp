// A mesh file read by assimp, placed at street crossings of the city as a
// rigid occluder (a statue on the pavement) with one box per instance and part.
#include "DemoScene.h"

#include <assimp/Importer.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace demo {

namespace {
constexpr float kModelSize = 6.0f;           // metres along the model's longest side
constexpr uint64_t kTriangleBudget = 400000; // all instances together, to keep the reference quick
constexpr size_t kMaxMeshVertices = 65535;
} // namespace

bool addModel(Scene& scene, const std::string& path, std::string& error) {
    Assimp::Importer importer;
    const aiScene* in = importer.ReadFile(path, aiProcess_Triangulate | aiProcess_JoinIdenticalVertices |
                                                    aiProcess_PreTransformVertices | aiProcess_SortByPType);
    if (in == nullptr) {
        error = "assimp cannot read " + path + ": " + importer.GetErrorString();
        return false;
    }
    // Parts: each assimp mesh, cut into meshes under the 16-bit index limit.
    std::vector<Mesh> parts;
    float lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
    uint64_t triangles = 0;
    for (unsigned m = 0; m < in->mNumMeshes; ++m) {
        const aiMesh* mesh = in->mMeshes[m];
        Mesh part;
        std::unordered_map<unsigned, uint16_t> remap;
        for (unsigned f = 0; f < mesh->mNumFaces; ++f) {
            const aiFace& face = mesh->mFaces[f];
            if (face.mNumIndices != 3) continue; // points and lines hide nothing
            if (part.vertices.size() / 3 + 3 > kMaxMeshVertices) {
                parts.push_back(std::move(part));
                part = Mesh();
                remap.clear();
            }
            for (unsigned k = 0; k < 3; ++k) {
                const unsigned v = face.mIndices[k];
                auto found = remap.find(v);
                if (found == remap.end()) {
                    found = remap.emplace(v, uint16_t(part.vertices.size() / 3)).first;
                    const aiVector3D& p = mesh->mVertices[v];
                    part.vertices.insert(part.vertices.end(), {p.x, p.y, p.z});
                    for (int c = 0; c < 3; ++c) {
                        lo[c] = std::min(lo[c], p[c]);
                        hi[c] = std::max(hi[c], p[c]);
                    }
                }
                part.indices.push_back(found->second);
            }
            ++triangles;
        }
        if (!part.indices.empty()) parts.push_back(std::move(part));
    }
    if (parts.empty()) {
        error = path + " holds no triangles";
        return false;
    }
    // Scale to kModelSize, centred over the origin, standing on y = 0.
    const float size = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]});
    const float scale = size > 0 ? kModelSize / size : 1.0f;
    const Mat4 normalise =
        multiply(scaling(scale, scale, scale), translation(-(lo[0] + hi[0]) * 0.5f, -lo[1], -(lo[2] + hi[2]) * 0.5f));
    const uint32_t firstMesh = uint32_t(scene.meshes.size());
    std::vector<std::array<float, 6>> partBounds;
    for (Mesh& part : parts) {
        std::array<float, 6> b = {INFINITY, INFINITY, INFINITY, -INFINITY, -INFINITY, -INFINITY};
        for (size_t v = 0; v + 2 < part.vertices.size(); v += 3)
            for (int c = 0; c < 3; ++c) {
                const float* a = normalise.data();
                const float x = part.vertices[v], y = part.vertices[v + 1], z = part.vertices[v + 2];
                const float p = a[c] * x + a[4 + c] * y + a[8 + c] * z + a[12 + c];
                b[size_t(c)] = std::min(b[size_t(c)], p);
                b[size_t(c) + 3] = std::max(b[size_t(c) + 3], p);
            }
        partBounds.push_back(b);
        scene.meshes.push_back(std::move(part));
    }

    // Instances at pavement corners of the crossings, those on the camera's streets first.
    const int instances = int(std::clamp<uint64_t>(kTriangleBudget / std::max<uint64_t>(triangles, 1), 4, 48));
    std::vector<std::array<float, 2>> spots;
    for (int pass = 0; pass < 2; ++pass)
        for (int i = 0; i <= 10; ++i)
            for (int j = 0; j <= 10; ++j) {
                const bool onPath = (i == 2 || i == 5 || i == 8) && (j == 2 || j == 5 || j == 8);
                if (onPath != (pass == 0)) continue;
                const float x = streetCentreOf(i) + 5.5f, z = streetCentreOf(j) + 5.5f;
                spots.push_back({x, z});
            }
    for (int k = 0; k < instances && k < int(spots.size()); ++k) {
        const float x = spots[size_t(k)][0], z = spots[size_t(k)][1];
        const Mat4 place = multiply(translation(x, 0, z), rotationY(0.7f * float(k)));
        const Mat4 model = multiply(place, normalise);
        for (uint32_t p = 0; p < parts.size(); ++p) {
            scene.instances.push_back({firstMesh + p, model});
            // The part's box after the turn: the bounds of its eight turned corners.
            const std::array<float, 6>& b = partBounds[p];
            float blo[3] = {INFINITY, INFINITY, INFINITY}, bhi[3] = {-INFINITY, -INFINITY, -INFINITY};
            for (int c = 0; c < 8; ++c) {
                const float q[3] = {b[(c & 1) ? 3 : 0], b[(c & 2) ? 4 : 1], b[(c & 4) ? 5 : 2]};
                for (int e = 0; e < 3; ++e) {
                    const float v = place[size_t(e)] * q[0] + place[size_t(4 + e)] * q[1] +
                                    place[size_t(8 + e)] * q[2] + place[size_t(12 + e)];
                    blo[e] = std::min(blo[e], v);
                    bhi[e] = std::max(bhi[e], v);
                }
            }
            scene.boxes.insert(scene.boxes.end(), {blo[0], blo[1], blo[2], bhi[0], bhi[1], bhi[2]});
        }
    }
    scene.name += " + " + path.substr(path.find_last_of('/') + 1);
    scene.computeBounds();
    return true;
}

} // namespace demo
