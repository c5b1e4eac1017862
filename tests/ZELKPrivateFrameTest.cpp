// Whole frames through the exported functions: raw occluders drawn by the
// masked rasteriser, boxes answered by batch queries.
#include "common/Occluder.h"
#include "engine/ZELKPrivate.h"
#include "support/RapidReference.h"
#include "support/TestMeshes.h"
#include "util/Rasterizer.h"
#include "zelk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

const float kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
const float kParams[4] = {};
const float kFovScale = 1.7320508f; // 1 / tan(30 degrees)

// Right-handed perspective looking down -z (clip w = -z), as hosts use.
std::vector<float> perspective(float aspect, float zNear, float zFar) {
    std::vector<float> m(16, 0.0f);
    m[0] = kFovScale / aspect;
    m[5] = kFovScale;
    m[10] = (zFar + zNear) / (zNear - zFar);
    m[11] = -1.0f;
    m[14] = 2.0f * zFar * zNear / (zNear - zFar);
    return m;
}

// A camera-facing rectangle at z = -depth, wound counter-clockwise.
struct Wall {
    float x0, y0, x1, y1, depth;
    std::vector<float> vertices;
    std::vector<uint16_t> indices{0, 1, 2, 0, 2, 3};
    Wall(float ax0, float ay0, float ax1, float ay1, float d) : x0(ax0), y0(ay0), x1(ax1), y1(ay1), depth(d) {
        vertices = {x0, y0, -d, x1, y0, -d, x1, y1, -d, x0, y1, -d};
    }
};

struct FrameFixture : ::testing::Test {
    static constexpr uint32_t kWidth = 320, kHeight = 192;
    std::vector<float> viewProjection = perspective(float(kWidth) / float(kHeight), 0.1f, 100.0f);

    void SetUp() override { ASSERT_EQ(1, zelkInit(kWidth, kHeight, 0.1f)); }
    void TearDown() override { zelkDestroy(); }

    std::vector<bool> frame(const std::vector<const Wall*>& walls, const std::vector<float>& boxes,
                            RigidType rigid = ZELK_NON_RIGID, const float* model = kIdentity) {
        EXPECT_EQ(1, zelkStartNewFrame(kParams, viewProjection.data()));
        for (const Wall* w : walls)
            EXPECT_EQ(1, zelkSubmitOccluder(w->vertices.data(), w->indices.data(), 4, 6, rigid, model));
        EXPECT_EQ(1, zelkRenderOccluders());
        return query(boxes);
    }
    static std::vector<bool> query(const std::vector<float>& boxes) {
        const size_t count = boxes.size() / 6;
        std::unique_ptr<bool[]> results(new bool[count]);
        EXPECT_EQ(1, zelkBatchQuery(boxes.data(), uint32_t(count), results.get()));
        return std::vector<bool>(results.get(), results.get() + count);
    }
};

} // namespace

TEST_F(FrameFixture, WallHidesWhatIsBehindItOnly) {
    const Wall wall(-5, -5, 5, 5, 10);
    const std::vector<float> boxes = {
        -1, -1, -22, 1,  1, -20,   // behind the wall's middle
        -1, -1, -6,  1,  1, -4,    // in front of it
        12, -1, -22, 14, 1, -20,   // beside it (projects right of the wall's edge)
        -1, -1, -22, 1,  1, -9.5f, // reaches in front of the wall
        7,  -1, -22, 9,  1, -20,   // behind, inside the wall's silhouette (7/20 < 5/10)
    };
    const std::vector<bool> expected = {false, true, true, true, false};
    EXPECT_EQ(expected, frame({&wall}, boxes));
    EXPECT_EQ(expected, frame({&wall}, boxes, ZELK_RIGID)); // not cached yet: drawn raw too
    EXPECT_EQ(1u, ZELK::ZELKPrivate::peek()->getFrameInfo().rawOccluders.size());

    // Before the render call nothing is drawn, and the next frame starts empty.
    ASSERT_EQ(1, zelkStartNewFrame(kParams, viewProjection.data()));
    ASSERT_EQ(1, zelkSubmitOccluder(wall.vertices.data(), wall.indices.data(), 4, 6, ZELK_NON_RIGID, kIdentity));
    EXPECT_EQ(std::vector<bool>(5, true), query(boxes));
    EXPECT_EQ(std::vector<bool>(5, true), frame({}, boxes));

    // A null model matrix maps the wall to a point: it hides nothing.
    EXPECT_EQ(std::vector<bool>(5, true), frame({&wall}, boxes, ZELK_NON_RIGID, nullptr));
    // The model matrix moves the wall: 30 units right, nothing behind it any more.
    const float moved[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 30, 0, 0, 1};
    EXPECT_TRUE(frame({&wall}, boxes, ZELK_NON_RIGID, moved)[0]);
    // Seen from behind (the camera turned around: x and z, w = z) the wall is culled as a back face.
    for (int i : {0, 10, 11}) viewProjection[i] = -viewProjection[i];
    const std::vector<float> mirrored = {-1, -1, 20, 1, 1, 22};
    EXPECT_TRUE(frame({&wall}, mirrored)[0]);
}

TEST_F(FrameFixture, BoxesAroundTheCameraAreVisible) {
    const Wall wall(-50, -50, 50, 50, 10);
    const std::vector<float> boxes = {
        -1, -1, -30, 1, 1, 1,      // from behind the wall to behind the eye
        -1, -1, -30, 1, 1, -0.05f, // in front of the eye but nearer than the near plane
        3,  3,  5,   4, 4, 6,      // wholly behind the camera: cannot appear
        -1, -1, -30, 1, 1, -20,    // ordinary hidden box
    };
    const std::vector<bool> result = frame({&wall}, boxes);
    EXPECT_TRUE(result[0]);
    EXPECT_TRUE(result[1]);
    EXPECT_FALSE(result[2]);
    EXPECT_FALSE(result[3]);

    // Boxes whose coordinates are not numbers have no place to be hidden in.
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const std::vector<float> odd = {nan, -1, -30, 1, 1, -20, -1, -1, -30, inf, 1, -20, -1, -1, -inf, 1, 1, -20};
    EXPECT_EQ(std::vector<bool>(3, true), query(odd));
}

TEST_F(FrameFixture, ConfigurationChangesKeepAnswersRight) {
    const Wall wall(-5, -5, 5, 5, 10);
    const std::vector<float> boxes = {-1, -1, -22, 1, 1, -20, 12, -1, -22, 14, 1, -20};
    EXPECT_EQ(std::vector<bool>({false, true}), frame({&wall}, boxes));
    ASSERT_EQ(1, zelkConfig(1920, 1080, 0.1f));
    viewProjection = perspective(1920.0f / 1080.0f, 0.1f, 100.0f);
    EXPECT_EQ(std::vector<bool>({false, true}), frame({&wall}, boxes));
    // A near plane beyond both boxes (w 20 to 22): nothing of them reaches the
    // screen; one between them makes the first box cross it.
    ASSERT_EQ(1, zelkConfig(1920, 1080, 25.0f));
    EXPECT_EQ(std::vector<bool>({false, false}), frame({&wall}, boxes));
    ASSERT_EQ(1, zelkConfig(1920, 1080, 21.0f));
    EXPECT_EQ(std::vector<bool>({true, true}), frame({&wall}, boxes));

    // An engine that was never sized draws nothing and hides nothing.
    zelkDestroy();
    EXPECT_EQ(std::vector<bool>({true, true}), frame({&wall}, boxes));
    EXPECT_EQ(0u, ZELK::ZELKPrivate::peek()->getWidth());
}

TEST_F(FrameFixture, HostGarbageNeverCrashes) {
    std::mt19937 rng(42);
    std::uniform_real_distribution<float> any(-1e6f, 1e6f);
    const float specials[] = {std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(),
                              3.4e38f,
                              -3.4e38f,
                              0.0f,
                              1e-38f};
    auto pick = [&] { return rng() % 4 == 0 ? specials[rng() % 7] : any(rng); };
    // 65,536 vertices: as many as 16-bit indices reach, so that a vertex count
    // claimed beyond that is never walked past the array.
    std::vector<float> vertices(3 * 65536);
    std::vector<uint16_t> indices(3 * 100);
    std::vector<float> boxes(6 * 37);
    std::vector<float> matrix(16);
    std::unique_ptr<bool[]> results(new bool[37]);
    for (int round = 0; round < 60; ++round) {
        for (size_t v = 0; v < 3 * 64; ++v) vertices[v] = pick();
        for (uint16_t& i : indices) i = uint16_t(rng() % 64);
        for (float& m : matrix) m = rng() % 3 == 0 ? pick() : any(rng) * 1e-6f;
        for (float& b : boxes) b = pick();
        ASSERT_EQ(1, zelkStartNewFrame(kParams, round % 2 ? matrix.data() : viewProjection.data()));
        ASSERT_EQ(1, zelkSubmitOccluder(vertices.data(), indices.data(), 64, 300, ZELK_NON_RIGID, matrix.data()));
        ASSERT_EQ(1, zelkSubmitOccluder(vertices.data(), indices.data(), 64, 299, ZELK_NON_RIGID, kIdentity));
        ASSERT_EQ(1, zelkSubmitOccluder(vertices.data(), indices.data(), 0xFFFFFFFFu, 300, ZELK_RIGID, nullptr));
        ASSERT_EQ(1, zelkRenderOccluders());
        ASSERT_EQ(1, zelkBatchQuery(boxes.data(), 37, results.get()));
    }
}

namespace {

void cacheMesh(const testing_support::Mesh& mesh) {
    ZELK::ZELKPrivate::peek()->getCacheManager()->cache(mesh.vertices.data(), mesh.indices.data(),
                                                        testing_support::bakeFullDetail(mesh));
}

} // namespace

TEST_F(FrameFixture, CachedGroupsAreRedrawnOnlyWhenTheFrameChanges) {
    // Two walls at depth 10: the left one cached (rapid buffer), the right one raw.
    const testing_support::Mesh left = testing_support::makeBox(-6, -4, -10.5f, -0.5f, 4, -10);
    const testing_support::Mesh right = testing_support::makeBox(0.5f, -4, -10.5f, 6, 4, -10);
    cacheMesh(left);
    const std::vector<float> boxes = {-3.5f, -1, -22, -2.5f, 1, -20,  // behind the left wall
                                      2.5f,  -1, -22, 3.5f,  1, -20,  // behind the right wall
                                      -0.3f, -1, -22, 0.3f,  1, -20}; // in the gap
    const auto submit = [&](bool withRight) {
        EXPECT_EQ(1, zelkStartNewFrame(kParams, viewProjection.data()));
        EXPECT_EQ(1, zelkSubmitOccluder(left.vertices.data(), left.indices.data(), left.vertexCount(),
                                        left.indexCount(), ZELK_RIGID, kIdentity));
        if (withRight) {
            EXPECT_EQ(1, zelkSubmitOccluder(right.vertices.data(), right.indices.data(), right.vertexCount(),
                                            right.indexCount(), ZELK_NON_RIGID, kIdentity));
        }
        EXPECT_EQ(1, zelkRenderOccluders());
        return query(boxes);
    };
    const ZELK::ZELKFrameInfo& info = ZELK::ZELKPrivate::peek()->getFrameInfo();
    EXPECT_EQ(std::vector<bool>({false, true, true}), submit(false));
    EXPECT_EQ(1u, info.rapidCount);
    EXPECT_EQ(0u, info.plainCount);
    // Both buffers: a box is visible only when both say so.
    EXPECT_EQ(std::vector<bool>({false, false, true}), submit(true));
    EXPECT_EQ(1u, info.plainCount);

    // Same camera, same cached records: the rapid buffer is not redrawn. Wiping
    // it behind the engine's back shows that (the left box then shows), and
    // rapidCount persists so that it is still asked.
    util::Rasterizer* rapid = ZELK::ZELKPrivate::peek()->getRapidRasterizer().rasterizer();
    rapid->clear();
    EXPECT_EQ(std::vector<bool>({true, false, true}), submit(true));
    EXPECT_EQ(1u, info.rapidCount);
    // A changed matrix redraws it.
    viewProjection[0] *= 1.0001f;
    EXPECT_EQ(std::vector<bool>({false, false, true}), submit(true));
    // So does a changed cached list (the same mesh submitted twice).
    rapid->clear();
    EXPECT_EQ(1, zelkStartNewFrame(kParams, viewProjection.data()));
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(1, zelkSubmitOccluder(left.vertices.data(), left.indices.data(), left.vertexCount(),
                                        left.indexCount(), ZELK_RIGID, kIdentity));
    EXPECT_EQ(1, zelkRenderOccluders());
    EXPECT_EQ(std::vector<bool>({false, true, true}), query(boxes));
    EXPECT_EQ(2u, info.rapidCount);
}

namespace {

using Vec3 = std::array<double, 3>;

Vec3 sub(const Vec3& a, const Vec3& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
Vec3 cross(const Vec3& a, const Vec3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
Vec3 normalized(const Vec3& a) {
    const double l = std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
    return {a[0] / l, a[1] / l, a[2] / l};
}
double dot(const Vec3& a, const Vec3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Column-major view-projection of a camera at eye looking along forward.
std::vector<float> lookPerspective(const Vec3& eye, const Vec3& forward, double aspect, double zNear, double zFar) {
    const Vec3 f = normalized(forward);
    const Vec3 r = normalized(cross(f, {0.3, 1, 0.2})); // a tilted up: clip w depends on every axis
    const Vec3 u = cross(r, f);
    const double view[3][4] = {
        {r[0], r[1], r[2], -dot(r, eye)}, {u[0], u[1], u[2], -dot(u, eye)}, {-f[0], -f[1], -f[2], dot(f, eye)}};
    const double fy = 1.7320508, fx = fy / aspect;
    const double a = (zFar + zNear) / (zNear - zFar), b = 2 * zFar * zNear / (zNear - zFar);
    std::vector<float> m(16);
    for (int c = 0; c < 4; ++c) {
        m[size_t(4 * c + 0)] = float(fx * view[0][c]);
        m[size_t(4 * c + 1)] = float(fy * view[1][c]);
        m[size_t(4 * c + 2)] = float(a * view[2][c] + (c == 3 ? b : 0.0));
        m[size_t(4 * c + 3)] = float(-view[2][c]);
    }
    return m;
}

// A box of the given half sizes, rotated about a random axis, as a mesh.
testing_support::Mesh orientedBox(std::mt19937& rng, const Vec3& centre, const Vec3& half) {
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    testing_support::Mesh mesh = testing_support::makeBox(float(-half[0]), float(-half[1]), float(-half[2]),
                                                          float(half[0]), float(half[1]), float(half[2]));
    const Vec3 axis = normalized({unit(rng), unit(rng), unit(rng)});
    const double angle = 3.14159 * unit(rng), c = std::cos(angle), s = std::sin(angle);
    for (size_t v = 0; v < mesh.vertices.size(); v += 3) {
        const Vec3 p = {mesh.vertices[v], mesh.vertices[v + 1], mesh.vertices[v + 2]};
        const Vec3 k = cross(axis, p);
        const double d = dot(axis, p) * (1 - c);
        for (int i = 0; i < 3; ++i)
            mesh.vertices[v + size_t(i)] =
                float(p[size_t(i)] * c + k[size_t(i)] * s + axis[size_t(i)] * d + centre[size_t(i)]);
    }
    return mesh;
}

} // namespace

// Random oblique, overlapping occluder meshes (thin walls seen at every
// angle, some crossing the near plane) and random boxes, from rotated
// cameras, through each buffer alone and both together. A box that an exact
// pixel-centre depth buffer sees must never be reported hidden, except where
// a documented approximation explains it: edges displaced by under 0.75 px
// (vertex snapping, coverage-table buckets) or the block query's mirrored
// column selection. Each explanation is counted and printed; so is the share
// of truly hidden boxes culled, held above a floor.
TEST_F(FrameFixture, RandomScenesNeverHideWhatAnExactBufferSees) {
    const double nearPlane = 0.1; // the fixture's engine and projection
    std::mt19937 rng(2024);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const char* names[3] = {"raw (masked)", "cached (rapid)", "mixed"};
    int hidden[3] = {}, culled[3] = {}, approximated[3] = {}, mirrored[3] = {}, wrong[3] = {};
    for (int scene = 0; scene < 24; ++scene) {
        std::vector<testing_support::Mesh> meshes;
        for (int i = 0; i < 7; ++i) {
            const Vec3 centre = {20 * unit(rng) - 10, 8 * unit(rng) - 4, 20 * unit(rng) - 10};
            const bool wall = unit(rng) < 0.6;
            const Vec3 half = {1 + 5 * unit(rng), 1 + 4 * unit(rng), wall ? 0.05 : 1 + 3 * unit(rng)};
            meshes.push_back(orientedBox(rng, centre, half));
        }
        const Vec3 eye = {30 * unit(rng) - 15, 6 * unit(rng) - 3, 24 + 6 * unit(rng)};
        const Vec3 target = {8 * unit(rng) - 4, 4 * unit(rng) - 2, 8 * unit(rng) - 4};
        const Vec3 forward = sub(target, eye);
        // One wall straddling the eye's near plane, seen nearly edge-on.
        const Vec3 f = normalized(forward);
        meshes.push_back(
            orientedBox(rng, {eye[0] + f[0] * 0.5 + 1.5, eye[1] + f[1] * 0.5, eye[2] + f[2] * 0.5}, {0.05, 2, 2}));
        viewProjection = lookPerspective(eye, forward, double(kWidth) / kHeight, nearPlane, 100);

        testing_support::ExactDepthBuffer exact(kWidth, kHeight), loose(kWidth, kHeight);
        for (const auto& mesh : meshes)
            for (size_t t = 0; t + 2 < mesh.indices.size(); t += 3) {
                std::array<double, 4> c[3];
                for (int k = 0; k < 3; ++k) {
                    const float* v = &mesh.vertices[3 * size_t(mesh.indices[t + size_t(k)])];
                    c[k] = testing_support::transformPoint(viewProjection.data(), v[0], v[1], v[2]);
                }
                exact.drawClipTriangle(c[0], c[1], c[2]);
                loose.drawClipTriangle(c[0], c[1], c[2], 0.75);
            }
        std::vector<float> boxes;
        for (int b = 0; b < 120; ++b) {
            const double s = 0.05 + 1.5 * unit(rng) * unit(rng);
            const Vec3 c = {24 * unit(rng) - 12, 10 * unit(rng) - 5, 24 * unit(rng) - 12};
            const float box[6] = {float(c[0] - s), float(c[1] - s),       float(c[2] - s),
                                  float(c[0] + s), float(c[1] + s * 0.5), float(c[2] + s)};
            boxes.insert(boxes.end(), box, box + 6);
        }
        std::vector<bool> seen(boxes.size() / 6), seenLoosely(boxes.size() / 6);
        for (size_t b = 0; b < seen.size(); ++b) {
            seen[b] = testing_support::boxSeen(exact, viewProjection.data(), &boxes[6 * b], 2e-3);
            seenLoosely[b] = testing_support::boxSeen(loose, viewProjection.data(), &boxes[6 * b], 2e-3);
        }

        for (int mode = 0; mode < 3; ++mode) {
            zelkDestroy();
            ASSERT_EQ(1, zelkInit(kWidth, kHeight, float(nearPlane)));
            for (size_t i = 0; i < meshes.size(); ++i)
                if (mode == 1 || (mode == 2 && i % 2 == 0)) cacheMesh(meshes[i]);
            EXPECT_EQ(1, zelkStartNewFrame(kParams, viewProjection.data()));
            for (const auto& mesh : meshes)
                EXPECT_EQ(1, zelkSubmitOccluder(mesh.vertices.data(), mesh.indices.data(), mesh.vertexCount(),
                                                mesh.indexCount(), ZELK_RIGID, kIdentity));
            EXPECT_EQ(1, zelkRenderOccluders());
            const std::vector<bool> visible = query(boxes);
            for (size_t b = 0; b < seen.size(); ++b) {
                if (!seen[b]) {
                    ++hidden[mode];
                    culled[mode] += !visible[b];
                } else if (!visible[b]) {
                    if (!seenLoosely[b]) {
                        ++approximated[mode];
                    } else if (mode != 0 && !ZELK::ZELKPrivate::peek()->getRapidRasterizer().query(&boxes[6 * b],
                                                                                                   &boxes[6 * b + 3])) {
                        // Hidden by the rapid buffer although no edge lies near: the
                        // mirrored fine-pass columns must be the cause, as the same rule
                        // applied to the exact buffer shows.
                        ++mirrored[mode];
                        wrong[mode] +=
                            testing_support::documentedQueryHides(exact, viewProjection.data(), &boxes[6 * b]) ? 0 : 1;
                    } else {
                        ++wrong[mode];
                    }
                }
            }
        }
    }
    for (int mode = 0; mode < 3; ++mode) {
        std::printf("%-15s culled %d of %d truly hidden boxes (%.1f%%); seen but hidden: %d within 0.75 px of an "
                    "edge, %d by the mirrored column rule, %d unexplained\n",
                    names[mode], culled[mode], hidden[mode], 100.0 * culled[mode] / std::max(1, hidden[mode]),
                    approximated[mode], mirrored[mode], wrong[mode]);
        EXPECT_EQ(0, wrong[mode]) << names[mode];
    }
    // Measured on x86-64: 85.4%, 93.4% and 89.4% of 1,775 truly hidden boxes.
    EXPECT_GT(hidden[0], 1500);
    EXPECT_GE(culled[0], hidden[0] * 82 / 100);
    EXPECT_GE(culled[1], hidden[1] * 90 / 100);
    EXPECT_GE(culled[2], hidden[2] * 86 / 100);
}
