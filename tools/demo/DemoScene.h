// What the demo host draws: occluder meshes owned by the host (as a game owns
// its meshes), their instances, the boxes it asks about and a camera path.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace demo {

using Mat4 = std::array<float, 16>; // column-major, as the library takes it

struct Mesh {
    std::vector<float> vertices; // x, y, z per vertex
    std::vector<uint16_t> indices;
    bool rigid = true;
    // Deforming meshes keep their rest shape and a phase for the wave.
    std::vector<float> rest;
    float phase = 0.0f;
};

struct Instance {
    uint32_t mesh;
    Mat4 model;
};

struct CameraPose {
    float eye[3];
    float yaw, pitch; // radians; yaw 0 looks down -z, positive turns left
};

struct Scene {
    std::string name;
    std::vector<Mesh> meshes;
    std::vector<Instance> instances;
    std::vector<float> boxes; // min x, y, z, max x, y, z per box
    std::vector<CameraPose> path;
    float nearPlane = 0.1f;
    float farPlane = 2000.0f;
    float fovY = 1.0f;
    float bounds[6] = {0, 0, 0, 0, 0, 0}; // world box around everything, for the view from above

    uint32_t boxCount() const { return uint32_t(boxes.size() / 6); }
    // Moves the deforming meshes to their shape at this frame.
    void animate(int frame);
    // Grows bounds over every instance and box.
    void computeBounds();
};

Mat4 identity();
Mat4 multiply(const Mat4& a, const Mat4& b);
Mat4 translation(float x, float y, float z);
Mat4 scaling(float x, float y, float z);
Mat4 rotationY(float radians);
// Right-handed perspective looking down -z; clip w is the distance in front of the eye.
Mat4 perspective(float fovY, float aspect, float zNear, float zFar);
Mat4 viewFrom(const CameraPose& pose);

// The built-in procedural city with its camera path.
// Centre line of the city's i-th street (0 .. 10), along x and along z alike.
float streetCentreOf(int i);
Scene makeCity(uint32_t seed);
// Adds a mesh file read by assimp to the scene, instanced at a few places,
// with one box per instance and mesh part. Returns false with a message.
bool addModel(Scene& scene, const std::string& path, std::string& error);
// A Quake-3-format level: a .bsp file, or a map name inside the OpenArena package.
// Its faces become meshes of at most 65,535 vertices: with cell > 0 each mesh
// holds faces from one cell that many units wide; with 0, the faces follow in
// the level's own order, as a host that submits the level as stored would.
bool loadLevel(Scene& scene, const std::string& nameOrPath, float cell, std::string& error);

} // namespace demo
