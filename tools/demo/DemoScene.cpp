#include "DemoScene.h"

#include "common/Matrix4x4.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace demo {

Mat4 identity() { return {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}; }

Mat4 multiply(const Mat4& a, const Mat4& b) {
    // The library's own product, so that the reference sees the matrices the library forms.
    Mat4 r;
    (common::Matrix4x4::fromColumnMajor(a.data()) * common::Matrix4x4::fromColumnMajor(b.data()))
        .toColumnMajor(r.data());
    return r;
}

Mat4 translation(float x, float y, float z) {
    Mat4 m = identity();
    m[12] = x;
    m[13] = y;
    m[14] = z;
    return m;
}

Mat4 scaling(float x, float y, float z) {
    Mat4 m = identity();
    m[0] = x;
    m[5] = y;
    m[10] = z;
    return m;
}

Mat4 rotationY(float radians) {
    Mat4 m = identity();
    const float c = std::cos(radians), s = std::sin(radians);
    m[0] = c;
    m[2] = -s;
    m[8] = s;
    m[10] = c;
    return m;
}

Mat4 perspective(float fovY, float aspect, float zNear, float zFar) {
    const float f = 1.0f / std::tan(fovY * 0.5f);
    Mat4 m{};
    m[0] = f / aspect;
    m[5] = f;
    m[10] = (zFar + zNear) / (zNear - zFar);
    m[11] = -1.0f;
    m[14] = 2.0f * zFar * zNear / (zNear - zFar);
    return m;
}

Mat4 viewFrom(const CameraPose& pose) {
    // Inverse of: translate to the eye, turn by yaw about y, tilt by pitch about x.
    const float cy = std::cos(pose.yaw), sy = std::sin(pose.yaw);
    const float cp = std::cos(pose.pitch), sp = std::sin(pose.pitch);
    // Camera axes in world space.
    const float right[3] = {cy, 0, -sy};
    const float up[3] = {sy * sp, cp, cy * sp};
    const float back[3] = {sy * cp, -sp, cy * cp};
    Mat4 m = identity();
    for (int c = 0; c < 3; ++c) {
        m[c * 4 + 0] = right[c];
        m[c * 4 + 1] = up[c];
        m[c * 4 + 2] = back[c];
    }
    for (int r = 0; r < 3; ++r) {
        const float* axis = r == 0 ? right : r == 1 ? up : back;
        m[12 + r] = -(axis[0] * pose.eye[0] + axis[1] * pose.eye[1] + axis[2] * pose.eye[2]);
    }
    return m;
}

void Scene::animate(int frame) {
    for (Mesh& m : meshes) {
        if (m.rigid || m.rest.empty()) continue;
        // A banner rippling in the wind: z displacement travelling along x.
        const float t = float(frame) * 0.15f + m.phase;
        for (size_t v = 0; v + 2 < m.rest.size(); v += 3) {
            const float x = m.rest[v], y = m.rest[v + 1];
            m.vertices[v] = x;
            m.vertices[v + 1] = y + 0.3f * std::sin(t * 0.7f + x * 0.2f);
            m.vertices[v + 2] = m.rest[v + 2] + 1.2f * std::sin(t + x * 0.35f) * (0.3f + 0.1f * y);
        }
    }
}

void Scene::computeBounds() {
    float lo[3] = {INFINITY, INFINITY, INFINITY}, hi[3] = {-INFINITY, -INFINITY, -INFINITY};
    auto grow = [&](float x, float y, float z) {
        const float p[3] = {x, y, z};
        for (int c = 0; c < 3; ++c) {
            lo[c] = std::min(lo[c], p[c]);
            hi[c] = std::max(hi[c], p[c]);
        }
    };
    for (const Instance& in : instances) {
        const Mesh& m = meshes[in.mesh];
        for (size_t v = 0; v + 2 < m.vertices.size(); v += 3) {
            const float* p = &m.vertices[v];
            const Mat4& a = in.model;
            grow(a[0] * p[0] + a[4] * p[1] + a[8] * p[2] + a[12], a[1] * p[0] + a[5] * p[1] + a[9] * p[2] + a[13],
                 a[2] * p[0] + a[6] * p[1] + a[10] * p[2] + a[14]);
        }
    }
    for (size_t b = 0; b + 5 < boxes.size(); b += 6) {
        grow(boxes[b], boxes[b + 1], boxes[b + 2]);
        grow(boxes[b + 3], boxes[b + 4], boxes[b + 5]);
    }
    for (int c = 0; c < 3; ++c) {
        bounds[c] = lo[c];
        bounds[c + 3] = hi[c];
    }
}

// ---------------------------------------------------------------- the city

namespace {

constexpr int kBlocks = 10;      // blocks per side
constexpr float kBlock = 60.0f;  // block edge, metres
constexpr float kStreet = 16.0f; // street width
constexpr float kPitch = kBlock + kStreet;
constexpr float kEyeHeight = 1.7f;

// Appends one quad face (corner o, edges u and v, counter-clockwise seen from
// where u x v points) split n x n, so the meshes carry some tessellation.
void addFace(Mesh& m, const float o[3], const float u[3], const float v[3], int n) {
    const uint16_t base = uint16_t(m.vertices.size() / 3);
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
            for (int c = 0; c < 3; ++c) m.vertices.push_back(o[c] + u[c] * float(i) / n + v[c] * float(j) / n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const uint16_t a = uint16_t(base + j * (n + 1) + i), b = uint16_t(a + 1);
            const uint16_t c = uint16_t(a + n + 1), d = uint16_t(c + 1);
            const uint16_t tri[6] = {a, b, d, a, d, c};
            m.indices.insert(m.indices.end(), tri, tri + 6);
        }
}

// Axis-aligned box [x0, x1] x [y0, y1] x [z0, z1], faces outward; no bottom.
void addBlock(Mesh& m, float x0, float y0, float z0, float x1, float y1, float z1, int n) {
    const float dx = x1 - x0, dy = y1 - y0, dz = z1 - z0;
    const float faces[5][9] = {
        {x0, y0, z1, dx, 0, 0, 0, dy, 0},  // +z
        {x1, y0, z0, -dx, 0, 0, 0, dy, 0}, // -z
        {x1, y0, z1, 0, 0, -dz, 0, dy, 0}, // +x
        {x0, y0, z0, 0, 0, dz, 0, dy, 0},  // -x
        {x0, y1, z1, dx, 0, 0, 0, 0, -dz}, // +y
    };
    for (const auto& f : faces) addFace(m, f, f + 3, f + 6, n);
}

// Unit-footprint shapes (x, z in [-0.5, 0.5], y in [0, 1]), scaled per instance.
Mesh makeShape(int kind, int n) {
    Mesh m;
    switch (kind) {
    case 0: addBlock(m, -0.5f, 0, -0.5f, 0.5f, 1, 0.5f, n); break; // slab
    case 1:                                                        // stepped tower
        addBlock(m, -0.5f, 0, -0.5f, 0.5f, 0.5f, 0.5f, n);
        addBlock(m, -0.35f, 0.5f, -0.35f, 0.35f, 0.8f, 0.35f, n);
        addBlock(m, -0.2f, 0.8f, -0.2f, 0.2f, 1.0f, 0.2f, n);
        break;
    case 2: // L-shape
        addBlock(m, -0.5f, 0, -0.5f, 0.5f, 1, -0.1f, n);
        addBlock(m, -0.5f, 0, -0.1f, -0.1f, 1, 0.5f, n);
        break;
    default: { // round tower: a 24-sided prism with a flat roof
        const int sides = 24;
        const uint16_t base = 0;
        for (int s = 0; s < sides; ++s) {
            const float a = 6.2831853f * float(s) / sides;
            for (float y : {0.0f, 1.0f}) {
                m.vertices.push_back(0.5f * std::cos(a));
                m.vertices.push_back(y);
                m.vertices.push_back(-0.5f * std::sin(a));
            }
        }
        m.vertices.insert(m.vertices.end(), {0.0f, 1.0f, 0.0f});
        const uint16_t centre = uint16_t(2 * sides);
        for (int s = 0; s < sides; ++s) {
            const uint16_t a0 = uint16_t(base + 2 * s), a1 = uint16_t(a0 + 1);
            const uint16_t b0 = uint16_t(base + 2 * ((s + 1) % sides)), b1 = uint16_t(b0 + 1);
            const uint16_t tri[9] = {a0, b0, b1, a0, b1, a1, a1, b1, centre};
            m.indices.insert(m.indices.end(), tri, tri + 9);
        }
    }
    }
    return m;
}

float blockStart(int i) { return (float(i) - kBlocks * 0.5f) * kPitch + kStreet * 0.5f; }
// Centre line of the street before block i (i = 0 .. kBlocks).
float streetCentre(int i) { return blockStart(i) - kStreet * 0.5f; }

// A walk and a drive along the streets, stopping at crossings and turning there.
std::vector<CameraPose> makeCityPath() {
    struct Key {
        float x, y, z, yaw, pitch;
        int travel, hold; // frames to get here from the previous key, frames standing still here
    };
    const float s2 = streetCentre(2), s5 = streetCentre(5), s8 = streetCentre(8);
    const float pi = 3.14159265f;
    const Key keys[] = {
        {s2, kEyeHeight, blockStart(9), 0.0f, 0.0f, 0, 20},   // start at the south edge, looking north
        {s2, kEyeHeight, s5, 0.0f, 0.0f, 90, 25},             // walk to a crossing, stop
        {s2, kEyeHeight, s5, -pi * 0.5f, 0.0f, 30, 15},       // turn east
        {s8, kEyeHeight, s5, -pi * 0.5f, 0.0f, 90, 0},        // drive east
        {s8, 30.0f, s5 + 10.0f, -pi * 0.25f, -0.25f, 50, 30}, // rise above the roofs and hover
        {s8, kEyeHeight + 4.0f, s2, 0.0f, -0.05f, 60, 20},    // back down, looking north
        {s5, kEyeHeight, s2, pi * 0.5f, 0.0f, 45, 0},         // turn west along a street
    };
    std::vector<CameraPose> path;
    Key prev = keys[0];
    for (const Key& k : keys) {
        for (int f = 1; f <= k.travel; ++f) {
            const float t = float(f) / float(k.travel), e = t * t * (3 - 2 * t);
            path.push_back({{prev.x + (k.x - prev.x) * e, prev.y + (k.y - prev.y) * e, prev.z + (k.z - prev.z) * e},
                            prev.yaw + (k.yaw - prev.yaw) * e,
                            prev.pitch + (k.pitch - prev.pitch) * e});
        }
        for (int f = 0; f < k.hold; ++f) path.push_back({{k.x, k.y, k.z}, k.yaw, k.pitch});
        prev = k;
    }
    return path;
}

} // namespace

float streetCentreOf(int i) { return streetCentre(i); }

Scene makeCity(uint32_t seed) {
    Scene scene;
    scene.name = "city";
    scene.nearPlane = 0.1f;
    scene.farPlane = 1500.0f;
    std::mt19937 rng(seed);
    auto uniform = [&](float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng); };

    // Twelve building shapes (four kinds, three tessellations), instanced.
    for (int kind = 0; kind < 4; ++kind)
        for (int n : {2, 4, 6}) scene.meshes.push_back(makeShape(kind, n));
    const uint32_t shapeCount = uint32_t(scene.meshes.size());

    // Ground: one subdivided sheet under the whole city.
    {
        Mesh ground;
        const float half = kBlocks * kPitch * 0.5f + 40.0f;
        const float o[3] = {-half, 0, half}, u[3] = {2 * half, 0, 0}, v[3] = {0, 0, -2 * half};
        addFace(ground, o, u, v, 24);
        scene.meshes.push_back(std::move(ground));
        scene.instances.push_back({uint32_t(scene.meshes.size() - 1), identity()});
    }

    struct Lot {
        float x, z, w, d, h;
    };
    std::vector<Lot> lots;
    for (int bz = 0; bz < kBlocks; ++bz)
        for (int bx = 0; bx < kBlocks; ++bx) {
            // Two by two lots per block; some blocks are one big building, a few are open squares.
            const float x0 = blockStart(bx), z0 = blockStart(bz);
            const float r = uniform(0, 1);
            if (r < 0.06f) continue;
            const int lotsPerSide = r < 0.2f ? 1 : 2;
            const float lot = kBlock / float(lotsPerSide);
            for (int lz = 0; lz < lotsPerSide; ++lz)
                for (int lx = 0; lx < lotsPerSide; ++lx) {
                    const float w = lot * uniform(0.6f, 0.92f), d = lot * uniform(0.6f, 0.92f);
                    const float cx = x0 + lot * (float(lx) + 0.5f), cz = z0 + lot * (float(lz) + 0.5f);
                    const float h = uniform(0, 1) < 0.15f ? uniform(50, 110) : uniform(8, 40);
                    lots.push_back({cx, cz, w, d, h});
                    const uint32_t shape = uint32_t(rng() % shapeCount);
                    const float turn = float(rng() % 4) * 1.5707963f;
                    scene.instances.push_back(
                        {shape, multiply(translation(cx, 0, cz), multiply(rotationY(turn), scaling(w, h, d)))});
                }
        }

    // Banners over a few crossings: deforming meshes, submitted as non-rigid.
    for (int b = 0; b < 6; ++b) {
        Mesh banner;
        const float o[3] = {-9.0f, 4.0f, 0.0f}, u[3] = {18.0f, 0, 0}, v[3] = {0, 9.0f, 0};
        addFace(banner, o, u, v, 12);
        banner.rigid = false;
        banner.rest = banner.vertices;
        banner.phase = float(b) * 1.3f;
        // Two-sided: the back copy, wound the other way, so it hides from both sides.
        const size_t n = banner.indices.size();
        for (size_t i = 0; i < n; i += 3)
            banner.indices.insert(banner.indices.end(),
                                  {banner.indices[i], banner.indices[i + 2], banner.indices[i + 1]});
        scene.meshes.push_back(std::move(banner));
        const int sx = 2 + 3 * (b % 3), sz = 3 + 2 * (b / 3);
        scene.instances.push_back({uint32_t(scene.meshes.size() - 1),
                                   multiply(translation(streetCentre(sx), 0, streetCentre(sz) - kStreet * 0.5f),
                                            rotationY(b % 2 ? 1.5707963f : 0.0f))});
    }

    // Props: cars in the streets, things on the pavements, rooms inside the buildings.
    auto addBox = [&](float cx, float y0, float cz, float sx, float sy, float sz) {
        scene.boxes.insert(scene.boxes.end(),
                           {cx - sx * 0.5f, y0, cz - sz * 0.5f, cx + sx * 0.5f, y0 + sy, cz + sz * 0.5f});
    };
    for (int i = 0; i < 8000; ++i) { // cars along the street centre lines
        const float along = uniform(-kBlocks * kPitch * 0.5f, kBlocks * kPitch * 0.5f);
        const float street = streetCentre(int(rng() % (kBlocks + 1))) + (rng() % 2 ? 3.5f : -3.5f);
        if (rng() % 2)
            addBox(street, 0, along, 1.9f, 1.5f, 4.5f);
        else
            addBox(along, 0, street, 4.5f, 1.5f, 1.9f);
    }
    for (int i = 0; i < 10000; ++i) { // lamps, bins, kiosks on the pavements
        const float along = uniform(-kBlocks * kPitch * 0.5f, kBlocks * kPitch * 0.5f);
        const float street = streetCentre(int(rng() % (kBlocks + 1))) + (rng() % 2 ? 7.0f : -7.0f);
        const float size = uniform(0.3f, 2.0f), height = uniform(0.8f, 4.5f);
        if (rng() % 2)
            addBox(street, 0, along, size, height, size);
        else
            addBox(along, 0, street, size, height, size);
    }
    for (int i = 0; i < 12000; ++i) { // rooms inside the buildings (or in an L-shaped one's yard)
        const Lot& l = lots[rng() % lots.size()];
        const float x = l.x + uniform(-0.25f, 0.25f) * std::min(l.w, l.d);
        const float z = l.z + uniform(-0.25f, 0.25f) * std::min(l.w, l.d);
        if (i % 3 == 0)
            addBox(x, l.h * 0.5f, z, uniform(1, 3), uniform(0.5f, 2.0f), uniform(1, 3));
        else
            addBox(x, uniform(0, l.h * 0.45f), z, uniform(2, 5), 3.0f, uniform(2, 5));
    }
    scene.path = makeCityPath();
    scene.computeBounds();
    return scene;
}

} // namespace demo
