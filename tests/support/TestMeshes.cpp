#include "support/TestMeshes.h"

#include "common/OccluderBaker.h"

namespace testing_support {

Mesh makeBox(float minX, float minY, float minZ, float maxX, float maxY, float maxZ) {
    Mesh m;
    for (int i = 0; i < 8; ++i) {
        m.vertices.push_back(i & 1 ? maxX : minX);
        m.vertices.push_back(i & 2 ? maxY : minY);
        m.vertices.push_back(i & 4 ? maxZ : minZ);
    }
    // Faces as quads (a, b, c, d) counter-clockwise from outside.
    const uint16_t faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (const auto& f : faces) {
        const uint16_t tri[6] = {f[0], f[1], f[2], f[0], f[2], f[3]};
        m.indices.insert(m.indices.end(), tri, tri + 6);
    }
    return m;
}

Mesh makeGrid(int n, float x0, float y0, float x1, float y1, float z0) {
    Mesh m;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) {
            m.vertices.push_back(x0 + (x1 - x0) * float(i) / float(n));
            m.vertices.push_back(y0 + (y1 - y0) * float(j) / float(n));
            m.vertices.push_back(z0);
        }
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const uint16_t a = uint16_t(j * (n + 1) + i), b = uint16_t(a + 1);
            const uint16_t c = uint16_t(a + n + 1), d = uint16_t(c + 1);
            const uint16_t tri[6] = {a, b, d, a, d, c};
            m.indices.insert(m.indices.end(), tri, tri + 6);
        }
    return m;
}

std::shared_ptr<common::OccluderGroup> bakeFullDetail(const Mesh& mesh) {
    std::vector<common::float4> vertices, expanded;
    for (size_t v = 0; v + 2 < mesh.vertices.size(); v += 3)
        vertices.push_back(common::make4(mesh.vertices[v], mesh.vertices[v + 1], mesh.vertices[v + 2], 1.0f));
    auto group = std::make_shared<common::OccluderGroup>();
    group->addOccluder(common::OccluderBaker::bakeLevel(
                           vertices, std::vector<uint32_t>(mesh.indices.begin(), mesh.indices.end()), expanded),
                       0);
    return group;
}

} // namespace testing_support
