// zelk-demo: drives the library exactly as a game would, through the exported
// functions, over a built-in city, a model file or a game level, and measures
// its answers against an exact depth buffer.
#include "DemoScene.h"
#include "Pictures.h"
#include "ReferenceDepth.h"
#include "zelk.h"

#include "engine/ZELKInspector.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using demo::Mat4;
using Clock = std::chrono::steady_clock;

enum Phase { kStart, kSubmit, kRender, kQuery, kLibrary, kReference, kPhaseCount };
const char* const kPhaseNames[kPhaseCount] = {"start", "submit", "render", "query", "library", "reference"};
enum Kind { kFirst, kWarm, kStatic, kKindCount }; // first frame, camera moved, camera unchanged
const char* const kKindNames[kKindCount] = {"first", "warm", "static"};

struct Sample {
    double ms[kPhaseCount];
    uint32_t raw, cached;
};

struct Truth {
    uint64_t visible = 0, hidden = 0, hiddenOnScreen = 0;
    uint64_t culledHidden = 0, culledHiddenOnScreen = 0; // truly hidden and reported hidden
    uint64_t keptNear = 0; // truly hidden, reported visible, reaching before the near plane or behind the eye
    uint64_t falseOcclusions = 0, falseNear = 0, severe = 0, severeNear = 0;
    uint64_t snapped = 0, severeSnapped = 0;   // false occlusions that vanish once occluder vertices are snapped
    uint64_t mirrored = 0, severeMirrored = 0; // false occlusions the rapid buffer's column rule explains
    uint64_t ties = 0, severeTies = 0; // boxes seen only where they lie on an occluder (within its depth precision)
    uint64_t reportedHidden = 0, queried = 0;
};

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, size_t(std::ceil(p * double(v.size()))) - (p > 0 ? 1 : 0));
    return v[i];
}

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// Whether the rapid buffer's own codes (width x height, row 0 at the top)
// show the box once its block test looks at the box's own pixel columns. The
// library's test (as designed) selects the columns mirrored about each
// block's centre, xe exclusive; a box hidden by that rule but shown here is
// explained by it, not by a fault. The rectangle and depth follow the
// library's box test in double precision.
bool visibleInTrueColumns(const std::vector<uint16_t>& codes, unsigned width, unsigned height, const float* box,
                          const Mat4& m) {
    if (width == 0 || height == 0 || codes.size() != size_t(width) * height) return true;
    const float scale = [] {
        const uint32_t bits = 0x0F7FF000;
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return f;
    }();
    double minX = 1e300, maxX = -1e300, minY = 1e300, maxY = -1e300, nearest = -1e300;
    for (int i = 0; i < 8; ++i) {
        const double p[3] = {box[(i & 1) ? 3 : 0], box[(i & 2) ? 4 : 1], box[(i & 4) ? 5 : 2]};
        double c[4];
        for (int r = 0; r < 4; ++r)
            c[r] = m[size_t(r)] * p[0] + m[size_t(4 + r)] * p[1] + m[size_t(8 + r)] * p[2] + m[size_t(12 + r)];
        if (!(c[3] > 0)) return true;
        const double x = (c[0] / c[3] + 1) * width / 2, y = (c[1] / c[3] + 1) * height / 2;
        minX = std::min(minX, x), maxX = std::max(maxX, x), minY = std::min(minY, y), maxY = std::max(maxY, y);
        nearest = std::max(nearest, (c[3] - c[2]) / c[3] * scale);
    }
    const auto pixel = [](double v, unsigned limit) {
        return unsigned(std::nearbyint(std::min(std::max(v, 0.0), double(limit - 1))));
    };
    const unsigned x0 = pixel(minX, width), x1 = pixel(maxX, width), y0 = pixel(minY, height), y1 = pixel(maxY, height);
    const float d = float(nearest);
    int32_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    const uint16_t q = uint16_t(std::min<uint32_t>(uint32_t(bits >> 12), 65535u));
    for (unsigned y = y0; y <= y1; ++y)
        for (unsigned x = x0; x <= x1; ++x)
            if (codes[size_t(height - 1 - y) * width + x] < q) return true; // y counts up from the bottom
    return false;
}

// Meshes the library has baked so far, out of the rigid ones the scene submits.
uint32_t cachedMeshes(const demo::Scene& scene) {
    uint32_t n = 0;
    for (const demo::Mesh& m : scene.meshes)
        if (m.rigid && ZELK::ZELKInspector::isCached(m.vertices.data(), m.indices.data())) ++n;
    return n;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"zelk-demo: occlusion culling over a built-in city, a model or a game level"};
    unsigned width = 640, height = 360;
    int frames = 0, pngFrame = -1;
    uint32_t seed = 7;
    std::string model, level, pngDir;
    bool json = false, noReference = false, listFalse = false;
    app.add_option("--width", width, "depth-buffer width (multiple of 8, at most 1920)");
    app.add_option("--height", height, "depth-buffer height (multiple of 8, at most 1080)");
    app.add_option("--frames", frames, "frames to run (default: the whole camera path)");
    app.add_option("--seed", seed, "seed of the built-in city");
    app.add_option("--model", model, "a mesh file read by assimp, placed into the city");
    app.add_option("--level", level, "a Quake-3-format level: FILE.bsp, or NAME for maps/NAME.bsp of OpenArena");
    app.add_flag("--json", json, "print one JSON object instead of the summary");
    app.add_flag("--no-reference", noReference, "skip the exact reference (for timing runs)");
    app.add_flag("--list-false", listFalse, "print every false occlusion (frame, box, pixels) on stderr");
    app.add_option("--png", pngDir, "write pictures of one frame into this directory");
    app.add_option("--png-frame", pngFrame, "the frame to picture (default: the middle one)");
    CLI11_PARSE(app, argc, argv);

    demo::Scene scene;
    std::string error;
    if (!level.empty()) {
        if (!demo::loadLevel(scene, level, error)) {
            std::fprintf(stderr, "zelk-demo: %s\n", error.c_str());
            return 1;
        }
    } else {
        scene = demo::makeCity(seed);
        if (!model.empty() && !demo::addModel(scene, model, error)) {
            std::fprintf(stderr, "zelk-demo: %s\n", error.c_str());
            return 1;
        }
    }
    if (scene.path.empty()) {
        std::fprintf(stderr, "zelk-demo: the scene has no camera path\n");
        return 1;
    }
    if (frames <= 0) frames = int(scene.path.size());
    if (pngFrame < 0) pngFrame = frames / 2;

    if (!zelkInit(width, height, scene.nearPlane)) {
        std::fprintf(stderr, "zelk-demo: zelkInit(%u, %u) refused the size\n", width, height);
        return 1;
    }
    const Mat4 projection =
        demo::perspective(scene.fovY, float(width) / float(height), scene.nearPlane, scene.farPlane);
    demo::ReferenceDepth reference;
    reference.setup(int(width), int(height), scene.nearPlane);
    demo::ReferenceDepth snappedReference; // drawn only in frames with a false occlusion
    snappedReference.setup(int(width), int(height), scene.nearPlane, true);

    const uint32_t boxCount = scene.boxCount();
    std::vector<uint8_t> results(boxCount); // bool-sized flags, one per box
    std::vector<demo::BoxCoverage> truth(boxCount);
    std::vector<uint16_t> rapidCodes; // read in frames with a false occlusion the rapid buffer decides
    uint64_t triangles = 0;
    uint32_t rigidMeshes = 0;
    for (const demo::Instance& in : scene.instances) triangles += scene.meshes[in.mesh].indices.size() / 3;
    for (const demo::Mesh& m : scene.meshes) rigidMeshes += m.rigid ? 1 : 0;

    std::vector<Sample> samples[kKindCount];
    Truth total;
    const bool tty = isatty(2) && !json;
    Mat4 previous{};
    uint32_t lastCached = 0;
    for (int f = 0; f < frames; ++f) {
        const demo::CameraPose& pose = scene.path[size_t(f) % scene.path.size()];
        scene.animate(f);
        const Mat4 viewProjection = demo::multiply(projection, demo::viewFrom(pose));
        const Kind kind = f == 0 ? kFirst : viewProjection == previous ? kStatic : kWarm;
        previous = viewProjection;
        const float frameParams[4] = {float(f), 1.0f / 30.0f, 0.0f, 0.0f};

        Sample s{};
        Clock::time_point t = Clock::now();
        const Clock::time_point frameStart = t;
        zelkStartNewFrame(frameParams, viewProjection.data());
        s.ms[kStart] = msSince(t);
        t = Clock::now();
        for (const demo::Instance& in : scene.instances) {
            const demo::Mesh& m = scene.meshes[in.mesh];
            zelkSubmitOccluder(m.vertices.data(), m.indices.data(), uint32_t(m.vertices.size() / 3),
                               uint32_t(m.indices.size()), m.rigid ? ZELK_RIGID : ZELK_NON_RIGID, in.model.data());
        }
        s.ms[kSubmit] = msSince(t);
        t = Clock::now();
        zelkRenderOccluders();
        s.ms[kRender] = msSince(t);
        t = Clock::now();
        static_assert(sizeof(bool) == sizeof(uint8_t), "results are read as bytes");
        zelkBatchQuery(scene.boxes.data(), boxCount, reinterpret_cast<bool*>(results.data()));
        s.ms[kQuery] = msSince(t);
        s.ms[kLibrary] = msSince(frameStart);
        const ZELK::ZELKInspector::FrameStats stats = ZELK::ZELKInspector::frameStats();
        s.raw = stats.rawOccluders;
        s.cached = stats.cachedOccluders;

        if (!noReference) {
            t = Clock::now();
            reference.clear();
            for (const demo::Instance& in : scene.instances)
                reference.drawMesh(scene.meshes[in.mesh], demo::multiply(viewProjection, in.model));
            for (uint32_t b = 0; b < boxCount; ++b) truth[b] = reference.testBox(&scene.boxes[6 * b], viewProjection);
            s.ms[kReference] = msSince(t);
            bool snappedDrawn = false, codesRead = false;
            for (uint32_t b = 0; b < boxCount; ++b) {
                const demo::BoxCoverage& c = truth[b];
                const bool reportedVisible = results[b] != 0;
                if (c.visible > 0) {
                    ++total.visible;
                    if (!reportedVisible) {
                        if (!snappedDrawn) {
                            snappedReference.clear();
                            for (const demo::Instance& in : scene.instances)
                                snappedReference.drawMesh(scene.meshes[in.mesh],
                                                          demo::multiply(viewProjection, in.model));
                            snappedDrawn = true;
                        }
                        const bool bySnapping =
                            snappedReference.testBox(&scene.boxes[6 * b], viewProjection).visible == 0;
                        const bool rapidHides =
                            !bySnapping && ZELK::ZELKInspector::rapidBufferHides(&scene.boxes[6 * b]);
                        if (rapidHides && !codesRead) {
                            ZELK::ZELKInspector::rapidDepthCodes(rapidCodes);
                            codesRead = true;
                        }
                        const bool byColumns = rapidHides && visibleInTrueColumns(rapidCodes, width, height,
                                                                                  &scene.boxes[6 * b], viewProjection);
                        // Seen only within 2^-10 of the occluders' depth: two steps of the
                        // rapid buffer's 11-bit codes, where a face lying on a wall ties with it.
                        const bool byTie =
                            !bySnapping && !byColumns &&
                            reference.testBox(&scene.boxes[6 * b], viewProjection, -1.0 / 1024).visible == 0;
                        if (listFalse) {
                            const float* bx = &scene.boxes[6 * b];
                            std::fprintf(stderr,
                                         "false occlusion: frame %d box %u (%g %g %g .. %g %g %g): %u of %u pixels "
                                         "visible%s%s\n",
                                         f, b, bx[0], bx[1], bx[2], bx[3], bx[4], bx[5], c.visible, c.covered,
                                         c.crossesNear ? ", crosses the near plane" : "",
                                         bySnapping  ? ", explained by snapping"
                                         : byColumns ? ", explained by the column rule"
                                         : byTie     ? ", a depth tie"
                                                     : "");
                        }
                        ++total.falseOcclusions;
                        total.falseNear += c.crossesNear;
                        total.snapped += bySnapping;
                        total.mirrored += byColumns;
                        total.ties += byTie;
                        if (double(c.visible) >= std::max(4.0, 0.02 * double(c.covered))) {
                            ++total.severe;
                            total.severeNear += c.crossesNear;
                            total.severeSnapped += bySnapping;
                            total.severeMirrored += byColumns;
                            total.severeTies += byTie;
                        }
                    }
                } else {
                    ++total.hidden;
                    total.culledHidden += !reportedVisible;
                    total.keptNear += reportedVisible && c.crossesNear;
                    if (c.covered > 0) {
                        ++total.hiddenOnScreen;
                        total.culledHiddenOnScreen += !reportedVisible;
                    }
                }
            }
        }
        for (uint32_t b = 0; b < boxCount; ++b) total.reportedHidden += results[b] == 0;
        total.queried += boxCount;
        samples[kind].push_back(s);

        if (f == pngFrame && !pngDir.empty()) {
            if (noReference) { // the pictures need the reference buffer
                reference.clear();
                for (const demo::Instance& in : scene.instances)
                    reference.drawMesh(scene.meshes[in.mesh], demo::multiply(viewProjection, in.model));
                for (uint32_t b = 0; b < boxCount; ++b)
                    truth[b] = reference.testBox(&scene.boxes[6 * b], viewProjection);
            }
            if (!demo::writePictures(pngDir, scene, pose, viewProjection, reference, results, truth, error))
                std::fprintf(stderr, "zelk-demo: %s\n", error.c_str());
        }
        if (tty) {
            const uint32_t cached = cachedMeshes(scene);
            if (cached != lastCached || f == 0)
                std::fprintf(stderr, "\rframe %d/%d: %u of %u meshes baked so far   ", f + 1, frames, cached,
                             rigidMeshes);
            lastCached = cached;
        }
    }
    if (tty) std::fprintf(stderr, "\n");
    const uint32_t cachedAtEnd = cachedMeshes(scene);
    zelkDestroy();

    // ---- report
    auto ratio = [](uint64_t a, uint64_t b) { return b == 0 ? 1.0 : double(a) / double(b); };
    const double efficiency = ratio(total.culledHidden, total.hidden);
    const double efficiencyOnScreen = ratio(total.culledHiddenOnScreen, total.hiddenOnScreen);
    auto column = [&](Kind k, Phase p) {
        std::vector<double> v;
        for (const Sample& s : samples[k]) v.push_back(s.ms[p]);
        return v;
    };
    auto meanCount = [&](Kind k, bool cached) {
        double sum = 0;
        for (const Sample& s : samples[k]) sum += cached ? s.cached : s.raw;
        return samples[k].empty() ? 0.0 : sum / double(samples[k].size());
    };
    if (json) {
        std::printf(
            "{\"scene\": \"%s\", \"width\": %u, \"height\": %u, \"frames\": %d, \"boxes\": %u, "
            "\"occluder_instances\": %zu, \"occluder_triangles\": %llu, \"meshes_baked\": %u, \"rigid_meshes\": %u, "
            "\"culled_share\": %.6f",
            scene.name.c_str(), width, height, frames, boxCount, scene.instances.size(), (unsigned long long)triangles,
            cachedAtEnd, rigidMeshes, ratio(total.reportedHidden, total.queried));
        if (noReference)
            std::printf(", \"truly_visible\": null, \"truly_hidden\": null, \"false_occlusions\": null, "
                        "\"false_occlusions_severe\": null, \"culling_efficiency\": null, "
                        "\"culling_efficiency_on_screen\": null");
        else
            std::printf(
                ", \"truly_visible\": %llu, \"truly_hidden\": %llu, \"truly_hidden_on_screen\": %llu, "
                "\"truly_hidden_kept_crossing_near\": %llu, "
                "\"false_occlusions\": %llu, \"false_occlusions_near\": %llu, \"false_occlusions_severe\": %llu, "
                "\"false_occlusions_severe_near\": %llu, \"false_occlusions_by_snapping\": %llu, "
                "\"false_occlusions_severe_by_snapping\": %llu, \"false_occlusions_by_column_rule\": %llu, "
                "\"false_occlusions_severe_by_column_rule\": %llu, \"false_occlusions_by_depth_tie\": %llu, "
                "\"false_occlusions_severe_by_depth_tie\": %llu, \"culling_efficiency\": %.6f, "
                "\"culling_efficiency_on_screen\": %.6f",
                (unsigned long long)total.visible, (unsigned long long)total.hidden,
                (unsigned long long)total.hiddenOnScreen, (unsigned long long)total.keptNear,
                (unsigned long long)total.falseOcclusions, (unsigned long long)total.falseNear,
                (unsigned long long)total.severe, (unsigned long long)total.severeNear,
                (unsigned long long)total.snapped, (unsigned long long)total.severeSnapped,
                (unsigned long long)total.mirrored, (unsigned long long)total.severeMirrored,
                (unsigned long long)total.ties, (unsigned long long)total.severeTies, efficiency, efficiencyOnScreen);
        std::printf(", \"timings_ms\": {");
        for (int k = 0; k < kKindCount; ++k) {
            std::printf("%s\"%s\": {\"frames\": %zu, \"raw_occluders\": %.1f, \"cached_occluders\": %.1f",
                        k ? ", " : "", kKindNames[k], samples[k].size(), meanCount(Kind(k), false),
                        meanCount(Kind(k), true));
            for (int p = 0; p < kPhaseCount; ++p)
                std::printf(", \"%s\": {\"median\": %.4f, \"p95\": %.4f}", kPhaseNames[p],
                            percentile(column(Kind(k), Phase(p)), 0.5), percentile(column(Kind(k), Phase(p)), 0.95));
            std::printf("}");
        }
        std::printf("}}\n");
        return 0;
    }
    std::printf("zelk-demo: %s at %ux%u, %d frames, %zu occluder instances (%llu triangles), %u boxes\n",
                scene.name.c_str(), width, height, frames, scene.instances.size(), (unsigned long long)triangles,
                boxCount);
    std::printf("meshes baked by the end: %u of %u rigid meshes\n", cachedAtEnd, rigidMeshes);
    std::printf("\ntime per frame, ms (median / 95th percentile)\n%-8s %6s %9s %9s", "frames", "count", "raw occ",
                "cached");
    for (int p = 0; p < kPhaseCount; ++p) std::printf(" %17s", kPhaseNames[p]);
    std::printf("\n");
    for (int k = 0; k < kKindCount; ++k) {
        std::printf("%-8s %6zu %9.1f %9.1f", kKindNames[k], samples[k].size(), meanCount(Kind(k), false),
                    meanCount(Kind(k), true));
        for (int p = 0; p < kPhaseCount; ++p)
            std::printf(" %8.3f /%8.3f", percentile(column(Kind(k), Phase(p)), 0.5),
                        percentile(column(Kind(k), Phase(p)), 0.95));
        std::printf("\n");
    }
    std::printf("\nboxes reported hidden: %.1f%% of %llu box queries\n",
                100.0 * ratio(total.reportedHidden, total.queried), (unsigned long long)total.queried);
    if (noReference) return 0;
    std::printf("exact reference: %llu truly visible, %llu truly hidden (%llu of them on screen)\n",
                (unsigned long long)total.visible, (unsigned long long)total.hidden,
                (unsigned long long)total.hiddenOnScreen);
    std::printf("false occlusions: %llu (%llu crossing the near plane), severe: %llu (%llu crossing the near plane)\n",
                (unsigned long long)total.falseOcclusions, (unsigned long long)total.falseNear,
                (unsigned long long)total.severe, (unsigned long long)total.severeNear);
    std::printf("  of which explained by vertex snapping (gone once occluder vertices are rounded to pixels): %llu, "
                "severe %llu\n",
                (unsigned long long)total.snapped, (unsigned long long)total.severeSnapped);
    std::printf("  explained by the rapid buffer's block test, which reads the pixel columns mirrored about each "
                "block's centre (its designed rule): %llu, severe %llu\n",
                (unsigned long long)total.mirrored, (unsigned long long)total.severeMirrored);
    std::printf("  seen only where they touch an occluder, within 1/1024 of its depth (a tie at the rapid buffer's "
                "precision): %llu, severe %llu\n",
                (unsigned long long)total.ties, (unsigned long long)total.severeTies);
    std::printf("culling efficiency: %.4f overall, %.4f on screen; %llu hidden boxes were kept because they reach "
                "before the near plane or behind the eye\n",
                efficiency, efficiencyOnScreen, (unsigned long long)total.keptNear);
    return 0;
}
