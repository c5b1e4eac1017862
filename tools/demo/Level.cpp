// Quake-3-format levels (IBSP version 46): the world model's opaque solid
// faces become occluders, the leaves' bounds and the items become boxes, and
// the camera stands at each spawn point in turn and looks around.
#include "DemoScene.h"

#include <zip.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

namespace demo {

namespace {

const char* const kPackage = "/usr/share/games/openarena/baseoa/pak1-maps.pk3";

enum Lump { kEntities = 0, kTextures = 1, kLeaves = 4, kModels = 7, kVertices = 10, kMeshVerts = 11, kFaces = 13 };
enum FaceType { kPolygon = 1, kPatch = 2, kMesh = 3 };

// Content and surface flags of the format's texture records.
constexpr int32_t kContentsSolid = 1, kContentsLiquid = 8 | 16 | 32, kContentsFog = 64;
constexpr int32_t kContentsTranslucent = 0x20000000;
constexpr int32_t kSurfaceSky = 0x4, kSurfaceNoDraw = 0x80, kSurfaceHint = 0x100, kSurfaceSkip = 0x200;
constexpr int32_t kSurfaceNonSolid = 0x4000;

constexpr int kPatchSteps = 4; // coarse tessellation of each 3 x 3 patch
// The library takes 16-bit indices.
constexpr size_t kMaxMeshVertices = 65535;
constexpr float kEyeAboveOrigin = 26.0f; // a player's view height above its spawn origin
constexpr float kItemHalfSize = 15.0f;   // items' bounding boxes

struct Reader {
    const std::vector<uint8_t>& data;
    int32_t offset[17], length[17];
    template <typename T> T at(size_t pos) const {
        T v;
        std::memcpy(&v, &data[pos], sizeof v);
        return v;
    }
    size_t count(Lump l, size_t size) const { return size_t(length[l]) / size; }
    size_t base(Lump l) const { return size_t(offset[l]); }
};

// Quake space (z up) to the demo's (y up, looking down -z): a rotation, so windings keep.
void toWorld(const float* q, float* out) {
    out[0] = q[0];
    out[1] = q[2];
    out[2] = -q[1];
}

bool readPackaged(const std::string& name, std::vector<uint8_t>& out, std::string& error) {
    int code = 0;
    zip_t* archive = zip_open(kPackage, ZIP_RDONLY, &code);
    if (archive == nullptr) {
        error = std::string("cannot open ") + kPackage + " (Debian package openarena-081-maps)";
        return false;
    }
    const std::string entry = "maps/" + name + ".bsp";
    zip_stat_t st;
    zip_file_t* file = nullptr;
    if (zip_stat(archive, entry.c_str(), ZIP_FL_NOCASE, &st) == 0 && (st.valid & ZIP_STAT_SIZE))
        file = zip_fopen(archive, entry.c_str(), ZIP_FL_NOCASE);
    if (file == nullptr) {
        error = "no " + entry + " in " + kPackage;
        zip_close(archive);
        return false;
    }
    out.resize(size_t(st.size));
    const zip_int64_t got = zip_fread(file, out.data(), st.size);
    zip_fclose(file);
    zip_close(archive);
    if (got != zip_int64_t(st.size)) {
        error = "short read of " + entry;
        return false;
    }
    return true;
}

using Entity = std::map<std::string, std::string>;

std::vector<Entity> parseEntities(const std::string& text) {
    std::vector<Entity> entities;
    Entity current;
    std::string key;
    bool haveKey = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '{') {
            current.clear();
            haveKey = false;
        } else if (c == '}') {
            entities.push_back(current);
        } else if (c == '"') {
            const size_t end = text.find('"', i + 1);
            if (end == std::string::npos) break;
            const std::string token = text.substr(i + 1, end - i - 1);
            if (haveKey)
                current[key] = token;
            else
                key = token;
            haveKey = !haveKey;
            i = end;
        }
    }
    return entities;
}

bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

// One face's triangles in world space, already wound counter-clockwise from the front.
struct Piece {
    std::vector<float> vertices;
    std::vector<uint32_t> indices;
};

// A biquadratic patch of 3 x 3 control points (Quake space), tessellated to
// (steps + 1)^2 points; the triangles are wound so that their normals agree
// with the control points' normals.
void tessellatePatch(const float (*points)[3], const float (*normals)[3], Piece& piece) {
    auto bezier = [](float a, float b, float c, float t) {
        const float s = 1 - t;
        return s * s * a + 2 * s * t * b + t * t * c;
    };
    const uint32_t base = uint32_t(piece.vertices.size() / 3);
    float grid[kPatchSteps + 1][kPatchSteps + 1][3];
    for (int j = 0; j <= kPatchSteps; ++j)
        for (int i = 0; i <= kPatchSteps; ++i) {
            const float u = float(i) / kPatchSteps, v = float(j) / kPatchSteps;
            float p[3];
            for (int c = 0; c < 3; ++c) {
                float row[3];
                for (int r = 0; r < 3; ++r)
                    row[r] = bezier(points[r * 3][c], points[r * 3 + 1][c], points[r * 3 + 2][c], u);
                p[c] = bezier(row[0], row[1], row[2], v);
                grid[j][i][c] = p[c];
            }
            float w[3];
            toWorld(p, w);
            piece.vertices.insert(piece.vertices.end(), w, w + 3);
        }
    // Orientation: the summed geometric normal against the summed control normals.
    double agreement = 0;
    float n[3] = {0, 0, 0};
    for (int k = 0; k < 9; ++k)
        for (int c = 0; c < 3; ++c) n[c] += normals[k][c];
    for (int j = 0; j < kPatchSteps; ++j)
        for (int i = 0; i < kPatchSteps; ++i) {
            const float* a = grid[j][i];
            const float* b = grid[j][i + 1];
            const float* d = grid[j + 1][i];
            const float e1[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]},
                        e2[3] = {d[0] - a[0], d[1] - a[1], d[2] - a[2]};
            const float cross[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                                    e1[0] * e2[1] - e1[1] * e2[0]};
            agreement += double(cross[0]) * n[0] + double(cross[1]) * n[1] + double(cross[2]) * n[2];
        }
    const bool flip = agreement < 0;
    for (int j = 0; j < kPatchSteps; ++j)
        for (int i = 0; i < kPatchSteps; ++i) {
            const uint32_t a = base + uint32_t(j * (kPatchSteps + 1) + i), b = a + 1;
            const uint32_t c = a + kPatchSteps + 1, d = c + 1;
            // (a, b, c) has the orientation measured above.
            const uint32_t tris[6] = {a, b, c, b, d, c};
            for (int t = 0; t < 6; t += 3) {
                piece.indices.push_back(tris[t]);
                piece.indices.push_back(flip ? tris[t + 2] : tris[t + 1]);
                piece.indices.push_back(flip ? tris[t + 1] : tris[t + 2]);
            }
        }
}

void makeSpawnPath(Scene& scene, const std::vector<Entity>& entities) {
    const float pi = 3.14159265f;
    int visited = 0;
    for (const Entity& e : entities) {
        const auto cls = e.find("classname"), origin = e.find("origin");
        if (cls == e.end() || origin == e.end()) continue;
        const std::string& c = cls->second;
        if (c != "info_player_deathmatch" && c != "info_player_start" && !startsWith(c, "team_CTF_")) continue;
        if (startsWith(c, "team_CTF_") && c.find("player") == std::string::npos && c.find("spawn") == std::string::npos)
            continue;
        float q[3] = {0, 0, 0};
        std::istringstream(origin->second) >> q[0] >> q[1] >> q[2];
        q[2] += kEyeAboveOrigin;
        float eye[3];
        toWorld(q, eye);
        const auto angle = e.find("angle");
        const float facing = (angle == e.end() ? 0.0f : std::strtof(angle->second.c_str(), nullptr)) * pi / 180.0f;
        const float yaw = facing - pi * 0.5f; // the format's angle 0 looks along +x
        // Stand still, look once around, stand still again.
        for (int f = 0; f < 10; ++f) scene.path.push_back({{eye[0], eye[1], eye[2]}, yaw, 0.0f});
        for (int f = 1; f <= 60; ++f)
            scene.path.push_back(
                {{eye[0], eye[1], eye[2]}, yaw + 2 * pi * float(f) / 60.0f, 0.05f * std::sin(f * 0.2f)});
        for (int f = 0; f < 10; ++f) scene.path.push_back({{eye[0], eye[1], eye[2]}, yaw, 0.0f});
        if (++visited == 6) break;
    }
}

} // namespace

bool loadLevel(Scene& scene, const std::string& nameOrPath, float cell, std::string& error) {
    std::vector<uint8_t> data;
    const bool isFile = nameOrPath.size() > 4 && nameOrPath.compare(nameOrPath.size() - 4, 4, ".bsp") == 0;
    if (isFile) {
        std::ifstream in(nameOrPath, std::ios::binary);
        if (!in) {
            error = "cannot read " + nameOrPath;
            return false;
        }
        data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } else if (!readPackaged(nameOrPath, data, error)) {
        return false;
    }
    if (data.size() < 8 + 17 * 8 || std::memcmp(data.data(), "IBSP", 4) != 0) {
        error = nameOrPath + " is not a Quake-3-format level";
        return false;
    }
    Reader r{data, {}, {}};
    for (int l = 0; l < 17; ++l) {
        r.offset[l] = r.at<int32_t>(8 + 8 * size_t(l));
        r.length[l] = r.at<int32_t>(12 + 8 * size_t(l));
        if (r.offset[l] < 0 || r.length[l] < 0 || size_t(r.offset[l]) + size_t(r.length[l]) > data.size()) {
            error = nameOrPath + ": lump " + std::to_string(l) + " lies outside the file";
            return false;
        }
    }
    const size_t textureCount = r.count(kTextures, 72), vertexCount = r.count(kVertices, 44);
    const size_t meshVertCount = r.count(kMeshVerts, 4), faceCount = r.count(kFaces, 104);
    if (r.count(kModels, 40) == 0) {
        error = nameOrPath + " has no world model";
        return false;
    }
    const int32_t firstFace = r.at<int32_t>(r.base(kModels) + 24), worldFaces = r.at<int32_t>(r.base(kModels) + 28);

    scene = Scene();
    scene.name = isFile ? nameOrPath : nameOrPath;
    scene.nearPlane = 4.0f;
    scene.farPlane = 16384.0f;
    scene.fovY = 1.25f;

    // Faces to pieces, grouped by the cell of their first vertex; without cells,
    // one group in the level's own face order.
    const bool useCells = cell > 0 && std::isfinite(cell);
    std::map<std::array<int, 3>, std::vector<Piece>> cells;
    auto vertexAt = [&](size_t v, float* q) {
        for (int c = 0; c < 3; ++c) q[c] = r.at<float>(r.base(kVertices) + 44 * v + 4 * size_t(c));
    };
    auto normalAt = [&](size_t v, float* n) {
        for (int c = 0; c < 3; ++c) n[c] = r.at<float>(r.base(kVertices) + 44 * v + 28 + 4 * size_t(c));
    };
    for (int32_t f = firstFace; f >= 0 && f < firstFace + worldFaces && size_t(f) < faceCount; ++f) {
        const size_t at = r.base(kFaces) + 104 * size_t(f);
        const int32_t texture = r.at<int32_t>(at), type = r.at<int32_t>(at + 8);
        const int32_t vertex = r.at<int32_t>(at + 12), nVertices = r.at<int32_t>(at + 16);
        const int32_t meshVert = r.at<int32_t>(at + 20), nMeshVerts = r.at<int32_t>(at + 24);
        if (texture < 0 || size_t(texture) >= textureCount || vertex < 0 || nVertices <= 0 ||
            size_t(vertex) + size_t(nVertices) > vertexCount)
            continue;
        const size_t tex = r.base(kTextures) + 72 * size_t(texture);
        const int32_t surface = r.at<int32_t>(tex + 64), contents = r.at<int32_t>(tex + 68);
        if (!(contents & kContentsSolid) || (contents & (kContentsLiquid | kContentsFog | kContentsTranslucent)) ||
            (surface & (kSurfaceSky | kSurfaceNoDraw | kSurfaceHint | kSurfaceSkip | kSurfaceNonSolid)))
            continue;
        Piece piece;
        if (type == kPolygon || type == kMesh) {
            if (meshVert < 0 || nMeshVerts < 3 || size_t(meshVert) + size_t(nMeshVerts) > meshVertCount) continue;
            for (int32_t v = 0; v < nVertices; ++v) {
                float q[3], w[3];
                vertexAt(size_t(vertex + v), q);
                toWorld(q, w);
                piece.vertices.insert(piece.vertices.end(), w, w + 3);
            }
            // Stored clockwise from the front: reversed here, so the library's back-face rule keeps the front.
            for (int32_t k = 0; k + 2 < nMeshVerts; k += 3) {
                uint32_t tri[3];
                bool valid = true;
                for (int c = 0; c < 3; ++c) {
                    const int32_t i = r.at<int32_t>(r.base(kMeshVerts) + 4 * size_t(meshVert + k + c));
                    valid &= i >= 0 && i < nVertices;
                    tri[c] = uint32_t(i);
                }
                if (valid) piece.indices.insert(piece.indices.end(), {tri[0], tri[2], tri[1]});
            }
        } else if (type == kPatch) {
            const int32_t width = r.at<int32_t>(at + 96), height = r.at<int32_t>(at + 100);
            if (width < 3 || height < 3 || width % 2 == 0 || height % 2 == 0 || width * height != nVertices) continue;
            for (int32_t py = 0; py + 2 < height; py += 2)
                for (int32_t px = 0; px + 2 < width; px += 2) {
                    float points[9][3], normals[9][3];
                    for (int k = 0; k < 9; ++k) {
                        const size_t v = size_t(vertex + (py + k / 3) * width + px + k % 3);
                        vertexAt(v, points[k]);
                        normalAt(v, normals[k]);
                    }
                    tessellatePatch(points, normals, piece);
                }
        }
        if (piece.indices.empty()) continue;
        const auto cellOf = [&](float v) { return useCells ? int(std::floor(v / cell)) : 0; };
        const std::array<int, 3> key = {cellOf(piece.vertices[0]), cellOf(piece.vertices[1]),
                                        cellOf(piece.vertices[2])};
        cells[key].push_back(std::move(piece));
    }
    // Groups to meshes under the 16-bit index limit.
    for (auto& cell : cells) {
        Mesh mesh;
        for (const Piece& p : cell.second) {
            const size_t n = p.vertices.size() / 3;
            if (n > kMaxMeshVertices) continue;
            if (mesh.vertices.size() / 3 + n > kMaxMeshVertices) {
                scene.meshes.push_back(std::move(mesh));
                mesh = Mesh();
            }
            const uint32_t base = uint32_t(mesh.vertices.size() / 3);
            mesh.vertices.insert(mesh.vertices.end(), p.vertices.begin(), p.vertices.end());
            for (uint32_t i : p.indices) mesh.indices.push_back(uint16_t(base + i));
        }
        if (!mesh.indices.empty()) scene.meshes.push_back(std::move(mesh));
    }
    for (uint32_t m = 0; m < scene.meshes.size(); ++m) scene.instances.push_back({m, identity()});

    // Boxes: every non-solid leaf's bounds, then the items.
    for (size_t l = 0; l < r.count(kLeaves, 48); ++l) {
        const size_t at = r.base(kLeaves) + 48 * l;
        if (r.at<int32_t>(at) < 0) continue; // solid leaf: no cluster
        float lo[3], hi[3], a[3], b[3];
        for (int c = 0; c < 3; ++c) {
            lo[c] = float(r.at<int32_t>(at + 8 + 4 * size_t(c)));
            hi[c] = float(r.at<int32_t>(at + 20 + 4 * size_t(c)));
        }
        if (!(lo[0] < hi[0] && lo[1] < hi[1] && lo[2] < hi[2])) continue;
        toWorld(lo, a);
        toWorld(hi, b);
        scene.boxes.insert(scene.boxes.end(), {std::min(a[0], b[0]), std::min(a[1], b[1]), std::min(a[2], b[2]),
                                               std::max(a[0], b[0]), std::max(a[1], b[1]), std::max(a[2], b[2])});
    }
    const std::string text(
        reinterpret_cast<const char*>(&data[r.base(kEntities)]),
        strnlen(reinterpret_cast<const char*>(&data[r.base(kEntities)]), size_t(r.length[kEntities])));
    const std::vector<Entity> entities = parseEntities(text);
    for (const Entity& e : entities) {
        const auto cls = e.find("classname"), origin = e.find("origin");
        if (cls == e.end() || origin == e.end()) continue;
        const std::string& c = cls->second;
        if (!startsWith(c, "item_") && !startsWith(c, "weapon_") && !startsWith(c, "ammo_") &&
            !startsWith(c, "holdable_") && c.find("flag") == std::string::npos)
            continue;
        float q[3] = {0, 0, 0}, w[3];
        std::istringstream(origin->second) >> q[0] >> q[1] >> q[2];
        toWorld(q, w);
        const float s = kItemHalfSize;
        scene.boxes.insert(scene.boxes.end(), {w[0] - s, w[1] - s, w[2] - s, w[0] + s, w[1] + s, w[2] + s});
    }
    makeSpawnPath(scene, entities);
    if (scene.meshes.empty() || scene.boxes.empty()) {
        error = nameOrPath + ": no opaque world faces or no boxes";
        return false;
    }
    scene.computeBounds();
    return true;
}

} // namespace demo
