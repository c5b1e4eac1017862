// Whole frames through the exported functions: raw occluders drawn by the
// masked rasteriser, boxes answered by batch queries.
#include "engine/ZELKPrivate.h"
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
    zelkDestroy(); // the wall went to the baking thread: its arrays must outlive the engine
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
    // The rigid mesh may be baked in the background: its arrays stay unchanged
    // and alive until the engine is gone, as the host promises.
    std::vector<float> rigidVertices(3 * 65536);
    for (size_t v = 0; v < 3 * 64; ++v) rigidVertices[v] = pick();
    std::vector<uint16_t> rigidIndices(3 * 100);
    for (uint16_t& i : rigidIndices) i = uint16_t(rng() % 64);
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
        ASSERT_EQ(1,
                  zelkSubmitOccluder(rigidVertices.data(), rigidIndices.data(), 0xFFFFFFFFu, 300, ZELK_RIGID, nullptr));
        ASSERT_EQ(1, zelkRenderOccluders());
        ASSERT_EQ(1, zelkBatchQuery(boxes.data(), 37, results.get()));
    }
    zelkDestroy();
}

// Random walls facing the camera and random boxes. Geometry decides the truth:
// a box is hidden when it lies behind a wall and its silhouette falls inside
// the wall's. A box the engine hides must be hidden, give or take one pixel of
// silhouette; boxes well inside and well behind must nearly all be culled.
TEST_F(FrameFixture, HiddenAnswersAgreeWithGeometry) {
    const float aspect = float(kWidth) / float(kHeight);
    const float pixel = 2.0f / float(kHeight); // one pixel in normalised units, the finer axis
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    int wronglyHidden = 0, clearlyHidden = 0, clearlyHiddenCulled = 0, total = 0;
    for (int scene = 0; scene < 40; ++scene) {
        const float depth = 5.0f + 25.0f * unit(rng);
        const float half = depth * (0.2f + 0.6f * unit(rng));
        const float cx = depth * (unit(rng) - 0.5f), cy = depth * 0.5f * (unit(rng) - 0.5f);
        const Wall wall(cx - half, cy - half * 0.7f, cx + half, cy + half * 0.7f, depth);
        // Silhouette of the wall in normalised coordinates: x / w scaled by the projection.
        const float wx0 = kFovScale / aspect * wall.x0 / depth, wx1 = kFovScale / aspect * wall.x1 / depth;
        const float wy0 = kFovScale * wall.y0 / depth, wy1 = kFovScale * wall.y1 / depth;

        std::vector<float> boxes;
        for (int b = 0; b < 64; ++b) {
            const float z0 = depth * (0.5f + 2.0f * unit(rng)), z1 = z0 + depth * 0.3f * unit(rng);
            const float bx = (cx + 1.6f * half * (unit(rng) - 0.5f)) * z0 / depth;
            const float by = (cy + 1.2f * half * (unit(rng) - 0.5f)) * z0 / depth;
            const float size = 0.05f * z0 * unit(rng);
            const float box[6] = {bx - size, by - size, -z1, bx + size, by + size, -z0};
            boxes.insert(boxes.end(), box, box + 6);
        }
        const std::vector<bool> visible = frame({&wall}, boxes);
        for (size_t b = 0; b < visible.size(); ++b) {
            const float* box = &boxes[6 * b];
            // Silhouette over the eight corners.
            float nx0 = 1e30f, nx1 = -1e30f, ny0 = 1e30f, ny1 = -1e30f;
            for (int c = 0; c < 8; ++c) {
                const float x = box[c & 1 ? 3 : 0], y = box[c & 2 ? 4 : 1], z = box[c & 4 ? 5 : 2];
                const float nx = kFovScale / aspect * x / -z, ny = kFovScale * y / -z;
                nx0 = std::min(nx0, nx), nx1 = std::max(nx1, nx), ny0 = std::min(ny0, ny), ny1 = std::max(ny1, ny);
            }
            const float nearest = -box[5];
            const bool behind = nearest > depth;
            const bool inside = nx0 >= wx0 - pixel && nx1 <= wx1 + pixel && ny0 >= wy0 - pixel && ny1 <= wy1 + pixel;
            if (!visible[b] && !(behind && inside)) ++wronglyHidden;
            // Well inside: a margin of one 8 x 4 block of pixels, and clearly behind.
            const float mx = 8.0f * 2.0f / float(kWidth), my = 4.0f * pixel;
            if (nearest > depth * 1.05f && nx0 >= wx0 + mx && nx1 <= wx1 - mx && ny0 >= wy0 + my && ny1 <= wy1 - my) {
                ++clearlyHidden;
                if (!visible[b]) ++clearlyHiddenCulled;
            }
            ++total;
        }
    }
    EXPECT_EQ(0, wronglyHidden);
    EXPECT_GT(clearlyHidden, total / 10);
    EXPECT_GE(clearlyHiddenCulled * 100, clearlyHidden * 98) << clearlyHiddenCulled << " of " << clearlyHidden;
}
