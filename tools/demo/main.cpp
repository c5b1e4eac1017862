// zelk-demo: drives the library exactly as a game would, through the exported
// functions, over a built-in city, a model file or a game level, and measures
// its answers against an exact depth buffer.
//
// The library has two modes, chosen when it is compiled (ZELK_CONSERVATIVE),
// and both cannot live in one process (same symbols). So the build makes this
// program twice: zelk-demo over the default library and zelk-demo-conservative
// over the conservative one. zelk-demo runs its own mode, then its sibling
// (beside it, with the same options plus --mode conservative --json), reads
// the sibling's figures back and prints both modes side by side.
#include "DemoScene.h"
#include "Pictures.h"
#include "ReferenceDepth.h"
#include "zelk.h"

#include "engine/ZELKDiagnostics.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using demo::Mat4;
using Clock = std::chrono::steady_clock;

enum Mode { kDefault, kConservative, kModeCount };
const char* const kModeNames[kModeCount] = {"default", "conservative"};
#if ZELK_CONSERVATIVE
constexpr Mode kOwnMode = kConservative;
#else
constexpr Mode kOwnMode = kDefault;
#endif
const char* const kSiblingName = "zelk-demo-conservative";

enum Phase { kStart, kSubmit, kRender, kQuery, kLibrary, kReference, kPhaseCount };
const char* const kPhaseNames[kPhaseCount] = {"start", "submit", "render", "query", "library", "reference"};
enum Kind { kFirst, kWarm, kStatic, kKindCount }; // first frame, camera moved, camera unchanged
const char* const kKindNames[kKindCount] = {"first", "warm", "static"};
const char* const kKindLabels[kKindCount] = {"first frame", "camera moving", "camera still"};

struct Options {
    unsigned width = 640, height = 360;
    int frames = 0, pngFrame = -1;
    uint32_t seed = 7;
    float cell = 0.0f;
    double bakeWait = 60.0; // seconds
    int copies = 1;
    std::string model, level, pngDir, mode = "both";
    bool json = false, noReference = false, listFalse = false, allRaw = false;
};

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

// The counts a mode's JSON object holds, by key; those from the exact
// reference are null in a run without it.
struct Field {
    const char* key;
    uint64_t Truth::*member;
    bool fromReference;
};
const Field kFields[] = {
    {"boxes_reported_hidden", &Truth::reportedHidden, false},
    {"box_queries", &Truth::queried, false},
    {"truly_visible", &Truth::visible, true},
    {"truly_hidden", &Truth::hidden, true},
    {"truly_hidden_on_screen", &Truth::hiddenOnScreen, true},
    {"truly_hidden_culled", &Truth::culledHidden, true},
    {"truly_hidden_on_screen_culled", &Truth::culledHiddenOnScreen, true},
    {"truly_hidden_kept_crossing_near", &Truth::keptNear, true},
    {"false_occlusions", &Truth::falseOcclusions, true},
    {"false_occlusions_near", &Truth::falseNear, true},
    {"false_occlusions_severe", &Truth::severe, true},
    {"false_occlusions_severe_near", &Truth::severeNear, true},
    {"false_occlusions_by_snapping", &Truth::snapped, true},
    {"false_occlusions_severe_by_snapping", &Truth::severeSnapped, true},
    {"false_occlusions_by_column_rule", &Truth::mirrored, true},
    {"false_occlusions_severe_by_column_rule", &Truth::severeMirrored, true},
    {"false_occlusions_by_depth_tie", &Truth::ties, true},
    {"false_occlusions_severe_by_depth_tie", &Truth::severeTies, true},
};

struct KindTiming {
    uint64_t frames = 0;
    double raw = 0, cached = 0; // occluders per frame, drawn raw and from the cache
    double median[kPhaseCount] = {}, p95[kPhaseCount] = {};
};

// One mode's figures: measured here, or read back from the sibling's JSON.
struct ModeResult {
    bool present = false;
    bool reference = false;
    uint64_t meshesBaked = 0;
    Truth truth;
    KindTiming timing[kKindCount];
};

// What both modes share: the scene and the run's settings.
struct RunInfo {
    std::string scene;
    unsigned width = 0, height = 0;
    int frames = 0;
    uint32_t boxes = 0, rigidMeshes = 0;
    size_t meshes = 0, instances = 0;
    uint64_t triangles = 0;
    float cell = 0;
    bool level = false;
};

double ratio(uint64_t a, uint64_t b) { return b == 0 ? 1.0 : double(a) / double(b); }

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, size_t(std::ceil(p * double(v.size()))) - (p > 0 ? 1 : 0));
    return v[i];
}

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// Whether the rapid buffer's own codes (width x height, row 0 at the top)
// show the box once its block test looks at the box's own pixel columns. The
// default library's test (as designed) selects the columns mirrored about
// each block's centre, xe exclusive; a box hidden by that rule but shown here
// is explained by it, not by a fault. The rectangle and depth follow the
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
        if (m.rigid && ZELK::ZELKDiagnostics::isCached(m.vertices.data(), m.indices.data())) ++n;
    return n;
}

// Runs the frame loop over this process's library and measures every answer.
bool runOwnMode(const Options& o, demo::Scene& scene, ModeResult& result, std::string& error) {
    const unsigned width = o.width, height = o.height;
    const int frames = o.frames;
    if (!zelkInit(width, height, scene.nearPlane)) {
        error = "zelkInit(" + std::to_string(width) + ", " + std::to_string(height) + ") refused the size";
        return false;
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
    uint32_t rigidMeshes = 0;
    for (const demo::Mesh& m : scene.meshes) rigidMeshes += m.rigid ? 1 : 0;

    std::vector<Sample> samples[kKindCount];
    Truth total;
    const bool tty = isatty(2) && !o.json;
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
        const ZELK::ZELKDiagnostics::FrameStats stats = ZELK::ZELKDiagnostics::frameStats();
        s.raw = stats.rawOccluders;
        s.cached = stats.cachedOccluders;

        if (!o.noReference) {
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
                            !bySnapping && ZELK::ZELKDiagnostics::rapidBufferHides(&scene.boxes[6 * b]);
                        if (rapidHides && !codesRead) {
                            ZELK::ZELKDiagnostics::rapidDepthCodes(rapidCodes);
                            codesRead = true;
                        }
                        const bool byColumns = rapidHides && visibleInTrueColumns(rapidCodes, width, height,
                                                                                  &scene.boxes[6 * b], viewProjection);
                        // Seen only within 2^-10 of the occluders' depth: two steps of the
                        // rapid buffer's 11-bit codes, where a face lying on a wall ties with it.
                        const bool byTie =
                            !bySnapping && !byColumns &&
                            reference.testBox(&scene.boxes[6 * b], viewProjection, -1.0 / 1024).visible == 0;
                        if (o.listFalse) {
                            const float* bx = &scene.boxes[6 * b];
                            std::fprintf(stderr,
                                         "false occlusion (%s): frame %d box %u (%g %g %g .. %g %g %g): %u of %u "
                                         "pixels visible%s%s\n",
                                         kModeNames[kOwnMode], f, b, bx[0], bx[1], bx[2], bx[3], bx[4], bx[5],
                                         c.visible, c.covered, c.crossesNear ? ", crosses the near plane" : "",
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

        if (f == o.pngFrame && !o.pngDir.empty()) {
            if (o.noReference) { // the pictures need the reference buffer
                reference.clear();
                for (const demo::Instance& in : scene.instances)
                    reference.drawMesh(scene.meshes[in.mesh], demo::multiply(viewProjection, in.model));
                for (uint32_t b = 0; b < boxCount; ++b)
                    truth[b] = reference.testBox(&scene.boxes[6 * b], viewProjection);
            }
            std::string pictureError;
            if (!demo::writePictures(o.pngDir, scene, pose, viewProjection, reference, results, truth, pictureError))
                std::fprintf(stderr, "zelk-demo: %s\n", pictureError.c_str());
        }
        if (f == 0 && o.bakeWait > 0) {
            // The other frames are measured after baking, as a host sees a
            // level it has shown for a while: frame 0's camera again, untimed
            // and ungraded, until every rigid mesh is baked.
            const Clock::time_point waitStart = Clock::now();
            while (cachedMeshes(scene) < rigidMeshes && msSince(waitStart) < 1000.0 * o.bakeWait) {
                zelkStartNewFrame(frameParams, viewProjection.data());
                for (const demo::Instance& in : scene.instances) {
                    const demo::Mesh& m = scene.meshes[in.mesh];
                    zelkSubmitOccluder(m.vertices.data(), m.indices.data(), uint32_t(m.vertices.size() / 3),
                                       uint32_t(m.indices.size()), m.rigid ? ZELK_RIGID : ZELK_NON_RIGID,
                                       in.model.data());
                }
                zelkRenderOccluders();
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        }
        if (tty) {
            const uint32_t cached = cachedMeshes(scene);
            if (cached != lastCached || f == 0)
                std::fprintf(stderr, "\r%s mode, frame %d/%d: %u of %u meshes baked so far   ", kModeNames[kOwnMode],
                             f + 1, frames, cached, rigidMeshes);
            lastCached = cached;
        }
    }
    if (tty) std::fprintf(stderr, "\n");
    result.meshesBaked = cachedMeshes(scene);
    zelkDestroy();

    result.present = true;
    result.reference = !o.noReference;
    result.truth = total;
    for (int k = 0; k < kKindCount; ++k) {
        KindTiming& kt = result.timing[k];
        kt.frames = samples[k].size();
        for (const Sample& s : samples[k]) kt.raw += s.raw, kt.cached += s.cached;
        if (kt.frames > 0) kt.raw /= double(kt.frames), kt.cached /= double(kt.frames);
        for (int p = 0; p < kPhaseCount; ++p) {
            std::vector<double> v;
            for (const Sample& s : samples[k]) v.push_back(s.ms[p]);
            kt.median[p] = percentile(v, 0.5);
            kt.p95[p] = percentile(v, 0.95);
        }
    }
    return true;
}

// ---- JSON

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (const char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", unsigned(c));
            out += buf;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

void printModeJson(const ModeResult& r) {
    std::printf("{\"meshes_baked\": %llu, \"culled_share\": %.6f", (unsigned long long)r.meshesBaked,
                ratio(r.truth.reportedHidden, r.truth.queried));
    for (const Field& f : kFields) {
        if (f.fromReference && !r.reference)
            std::printf(", \"%s\": null", f.key);
        else
            std::printf(", \"%s\": %llu", f.key, (unsigned long long)(r.truth.*f.member));
    }
    if (r.reference)
        std::printf(", \"culling_efficiency\": %.6f, \"culling_efficiency_on_screen\": %.6f",
                    ratio(r.truth.culledHidden, r.truth.hidden),
                    ratio(r.truth.culledHiddenOnScreen, r.truth.hiddenOnScreen));
    else
        std::printf(", \"culling_efficiency\": null, \"culling_efficiency_on_screen\": null");
    std::printf(", \"timings_ms\": {");
    for (int k = 0; k < kKindCount; ++k) {
        const KindTiming& kt = r.timing[k];
        std::printf("%s\"%s\": {\"frames\": %llu, \"raw_occluders\": %.1f, \"cached_occluders\": %.1f", k ? ", " : "",
                    kKindNames[k], (unsigned long long)kt.frames, kt.raw, kt.cached);
        for (int p = 0; p < kPhaseCount; ++p)
            std::printf(", \"%s\": {\"median\": %.4f, \"p95\": %.4f}", kPhaseNames[p], kt.median[p], kt.p95[p]);
        std::printf("}");
    }
    std::printf("}}");
}

// Reads the JSON this program prints (objects, strings, numbers, literals)
// into dotted paths, e.g. "conservative.timings_ms.warm.render.median"; null
// values are left out, so a missing mode has no keys at all.
class JsonReader {
public:
    explicit JsonReader(const std::string& text) : s_(text) {}
    bool read(std::map<std::string, std::string>& out) {
        out_ = &out;
        i_ = 0;
        if (!value("", 0)) return false;
        space();
        return i_ == s_.size();
    }

private:
    void space() {
        while (i_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[i_]))) ++i_;
    }
    bool string(std::string& v) {
        if (i_ >= s_.size() || s_[i_] != '"') return false;
        v.clear();
        for (++i_; i_ < s_.size(); ++i_) {
            const char c = s_[i_];
            if (c == '"') {
                ++i_;
                return true;
            }
            if (c != '\\') {
                v += c;
                continue;
            }
            if (++i_ >= s_.size()) return false;
            if (s_[i_] == 'u') { // only the control characters jsonString writes
                if (i_ + 4 >= s_.size()) return false;
                v += char(std::strtoul(s_.substr(i_ + 1, 4).c_str(), nullptr, 16));
                i_ += 4;
            } else {
                v += s_[i_];
            }
        }
        return false;
    }
    bool value(const std::string& path, int depth) {
        space();
        if (i_ >= s_.size() || depth > 16) return false;
        if (s_[i_] == '{') {
            ++i_;
            space();
            if (i_ < s_.size() && s_[i_] == '}') return ++i_, true;
            for (;;) {
                std::string key;
                space();
                if (!string(key)) return false;
                space();
                if (i_ >= s_.size() || s_[i_++] != ':') return false;
                if (!value(path.empty() ? key : path + "." + key, depth + 1)) return false;
                space();
                if (i_ < s_.size() && s_[i_] == ',') {
                    ++i_;
                    continue;
                }
                if (i_ < s_.size() && s_[i_] == '}') return ++i_, true;
                return false;
            }
        }
        std::string v;
        if (s_[i_] == '"') {
            if (!string(v)) return false;
        } else {
            const size_t start = i_;
            while (i_ < s_.size() && (std::isalnum(static_cast<unsigned char>(s_[i_])) || std::strchr("+-.", s_[i_])))
                ++i_;
            if (i_ == start) return false;
            v = s_.substr(start, i_ - start);
            if (v == "null") return true;
        }
        (*out_)[path] = v;
        return true;
    }

    const std::string& s_;
    std::map<std::string, std::string>* out_ = nullptr;
    size_t i_ = 0;
};

// The figures of one mode from the sibling's JSON; false when any is missing.
bool readMode(const std::map<std::string, std::string>& json, const std::string& mode, ModeResult& r) {
    const auto number = [&](const std::string& key, double& v) {
        const auto it = json.find(mode + "." + key);
        if (it == json.end()) return false;
        char* end = nullptr;
        v = std::strtod(it->second.c_str(), &end);
        return end != it->second.c_str() && *end == '\0';
    };
    double v = 0;
    if (!number("meshes_baked", v)) return false;
    r.meshesBaked = uint64_t(v);
    r.reference = json.count(mode + ".truly_visible") != 0;
    for (const Field& f : kFields) {
        if (number(f.key, v))
            r.truth.*f.member = uint64_t(v);
        else if (!f.fromReference || r.reference)
            return false;
    }
    for (int k = 0; k < kKindCount; ++k) {
        KindTiming& kt = r.timing[k];
        const std::string prefix = std::string("timings_ms.") + kKindNames[k] + ".";
        if (!number(prefix + "frames", v) || !number(prefix + "raw_occluders", kt.raw) ||
            !number(prefix + "cached_occluders", kt.cached))
            return false;
        kt.frames = uint64_t(v);
        for (int p = 0; p < kPhaseCount; ++p)
            if (!number(prefix + kPhaseNames[p] + ".median", kt.median[p]) ||
                !number(prefix + kPhaseNames[p] + ".p95", kt.p95[p]))
                return false;
    }
    r.present = true;
    return true;
}

// ---- the sibling

// The conservative program beside this one (found through /proc/self/exe,
// else argv[0]).
std::string siblingPath(const char* argv0) {
    std::string self;
    char buf[4096];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n > 0)
        self.assign(buf, size_t(n));
    else if (argv0 != nullptr)
        self = argv0;
    const size_t slash = self.rfind('/');
    return (slash == std::string::npos ? std::string(".") : self.substr(0, slash)) + "/" + kSiblingName;
}

// Runs path with args and returns its standard output in out; its standard
// error goes to ours. False, with a message, when it cannot start or fails.
bool runCapture(const std::string& path, const std::vector<std::string>& args, std::string& out, std::string& error) {
    int fds[2];
    if (pipe(fds) != 0) {
        error = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    std::vector<std::string> storage;
    storage.push_back(path);
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& s : storage) argv.push_back(&s[0]);
    argv.push_back(nullptr);
    std::fflush(stdout);
    std::fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0) {
        error = std::string("fork: ") + std::strerror(errno);
        close(fds[0]);
        close(fds[1]);
        return false;
    }
    if (pid == 0) {
        dup2(fds[1], 1);
        close(fds[0]);
        close(fds[1]);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(fds[1]);
    char chunk[4096];
    for (;;) {
        const ssize_t n = read(fds[0], chunk, sizeof chunk);
        if (n > 0)
            out.append(chunk, size_t(n));
        else if (n == 0 || errno != EINTR)
            break;
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = path + (WIFEXITED(status) ? " exited with " + std::to_string(WEXITSTATUS(status))
                                          : std::string(" was killed by a signal"));
        return false;
    }
    return true;
}

// The options the sibling gets: this run's, resolved, with one JSON mode.
std::vector<std::string> siblingArgs(const Options& o) {
    std::vector<std::string> a = {"--mode",
                                  kModeNames[kConservative],
                                  "--json",
                                  "--width",
                                  std::to_string(o.width),
                                  "--height",
                                  std::to_string(o.height),
                                  "--frames",
                                  std::to_string(o.frames),
                                  "--seed",
                                  std::to_string(o.seed),
                                  "--cell",
                                  std::to_string(o.cell),
                                  "--png-frame",
                                  std::to_string(o.pngFrame),
                                  "--bake-wait",
                                  std::to_string(o.bakeWait)};
    if (!o.model.empty()) a.insert(a.end(), {"--model", o.model});
    if (!o.level.empty()) a.insert(a.end(), {"--level", o.level});
    if (!o.pngDir.empty()) a.insert(a.end(), {"--png", o.pngDir + "/" + kModeNames[kConservative]});
    if (o.noReference) a.push_back("--no-reference");
    if (o.listFalse) a.push_back("--list-false");
    if (o.allRaw) a.push_back("--all-raw");
    a.insert(a.end(), {"--copies", std::to_string(o.copies)});
    return a;
}

// ---- report

void printJson(const RunInfo& info, const bool (&wanted)[kModeCount], const ModeResult (&results)[kModeCount]) {
    std::printf("{\"scene\": %s, \"build\": \"%s\", \"width\": %u, \"height\": %u, \"frames\": %d, \"boxes\": %u, "
                "\"occluder_meshes\": %zu, \"occluder_instances\": %zu, \"occluder_triangles\": %llu, "
                "\"rigid_meshes\": %u",
                jsonString(info.scene).c_str(), kModeNames[kOwnMode], info.width, info.height, info.frames, info.boxes,
                info.meshes, info.instances, (unsigned long long)info.triangles, info.rigidMeshes);
    if (info.level)
        std::printf(", \"cell\": %g", double(info.cell));
    else
        std::printf(", \"cell\": null");
    for (int m = 0; m < kModeCount; ++m) {
        if (!wanted[m]) continue;
        std::printf(", \"%s\": ", kModeNames[m]);
        if (results[m].present)
            printModeJson(results[m]);
        else
            std::printf("null");
    }
    std::printf("}\n");
}

// One table, a column per mode that ran.
void printTable(const RunInfo& info, const ModeResult (&results)[kModeCount]) {
    std::vector<const ModeResult*> cols;
    std::printf("zelk-demo: %s at %ux%u, %d frames, %zu occluder instances of %zu meshes (%llu triangles), %u boxes",
                info.scene.c_str(), info.width, info.height, info.frames, info.instances, info.meshes,
                (unsigned long long)info.triangles, info.boxes);
    if (info.level) {
        if (info.cell > 0)
            std::printf(", faces grouped in %g-unit cells", double(info.cell));
        else
            std::printf(", faces in the level's order");
    }
    std::printf("\n\n%-46s", "");
    for (int m = 0; m < kModeCount; ++m)
        if (results[m].present) {
            cols.push_back(&results[m]);
            std::printf(" %17s", kModeNames[m]);
        }
    std::printf("\n");
    const auto row = [&](const std::string& label, const auto& cell) {
        std::printf("%-46s", label.c_str());
        for (const ModeResult* r : cols) std::printf(" %17s", cell(*r).c_str());
        std::printf("\n");
    };
    const auto fmt = [](const char* f, auto... v) {
        char buf[64];
        std::snprintf(buf, sizeof buf, f, v...);
        return std::string(buf);
    };
    const auto count = [&](uint64_t Truth::*member, uint64_t Truth::*severeMember) {
        return [=](const ModeResult& r) {
            return severeMember == nullptr ? fmt("%llu", (unsigned long long)(r.truth.*member))
                                           : fmt("%llu (%llu)", (unsigned long long)(r.truth.*member),
                                                 (unsigned long long)(r.truth.*severeMember));
        };
    };
    row("meshes baked by the end (of " + std::to_string(info.rigidMeshes) + " rigid)",
        [&](const ModeResult& r) { return fmt("%llu", (unsigned long long)r.meshesBaked); });
    row("boxes reported hidden",
        [&](const ModeResult& r) { return fmt("%.1f%%", 100.0 * ratio(r.truth.reportedHidden, r.truth.queried)); });
    const bool reference =
        std::all_of(cols.begin(), cols.end(), [](const ModeResult* r) { return r->reference; }) && !cols.empty();
    if (reference) {
        row("truly visible (exact reference)", count(&Truth::visible, nullptr));
        row("truly hidden (of them on screen)", count(&Truth::hidden, &Truth::hiddenOnScreen));
        row("false occlusions", count(&Truth::falseOcclusions, nullptr));
        row("  severe", count(&Truth::severe, nullptr));
        row("  crossing the near plane (severe)", count(&Truth::falseNear, &Truth::severeNear));
        row("  explained by vertex snapping (severe)", count(&Truth::snapped, &Truth::severeSnapped));
        row("  explained by the column rule (severe)", count(&Truth::mirrored, &Truth::severeMirrored));
        row("  depth ties (severe)", count(&Truth::ties, &Truth::severeTies));
        row("hidden boxes culled, on screen", [&](const ModeResult& r) {
            return fmt("%.4f", ratio(r.truth.culledHiddenOnScreen, r.truth.hiddenOnScreen));
        });
        row("hidden boxes culled, overall",
            [&](const ModeResult& r) { return fmt("%.4f", ratio(r.truth.culledHidden, r.truth.hidden)); });
        row("hidden boxes kept as they reach the near plane", count(&Truth::keptNear, nullptr));
    }
    std::printf("time per frame, ms: median / 95th percentile\n");
    for (int k = 0; k < kKindCount; ++k) {
        const bool any =
            std::any_of(cols.begin(), cols.end(), [&](const ModeResult* r) { return r->timing[k].frames; });
        if (!any) continue;
        row(std::string(kKindLabels[k]) + ": frames",
            [&](const ModeResult& r) { return fmt("%llu", (unsigned long long)r.timing[k].frames); });
        row(std::string("  occluders drawn raw / cached"),
            [&](const ModeResult& r) { return fmt("%.1f / %.1f", r.timing[k].raw, r.timing[k].cached); });
        for (int p = 0; p < kPhaseCount; ++p) {
            if (p == kReference && !reference) continue;
            row(std::string("  ") + kPhaseNames[p],
                [&](const ModeResult& r) { return fmt("%.3f / %.3f", r.timing[k].median[p], r.timing[k].p95[p]); });
        }
    }
    if (reference)
        std::printf("\nsevere: at least max(4, 2%% of the box's pixels) visible. Explained: gone once occluder "
                    "vertices are rounded to whole pixels (the masked rasteriser's snapping); hidden by the rapid "
                    "buffer's block test reading the pixel columns mirrored about each block's centre (the default "
                    "build's designed rule) but not by the box's own columns; seen only within 1/1024 of an "
                    "occluder's depth (a tie at the rapid buffer's precision).\n");
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"zelk-demo: occlusion culling over a built-in city, a model or a game level, in the library's "
                 "default and conservative modes side by side"};
    Options o;
    app.add_option("--width", o.width, "depth-buffer width (multiple of 8, at most 1920)");
    app.add_option("--height", o.height, "depth-buffer height (multiple of 8, at most 1080)");
    app.add_option("--frames", o.frames, "frames to run (default: the whole camera path)");
    app.add_option("--seed", o.seed, "seed of the built-in city");
    app.add_option("--model", o.model, "a mesh file read by assimp, placed into the city");
    app.add_option("--level", o.level, "a Quake-3-format level: FILE.bsp, or NAME for maps/NAME.bsp of OpenArena");
    app.add_option("--cell", o.cell,
                   "levels: group faces into meshes by cells this many units wide; 0 (the default): no cells, "
                   "faces in the level's order, a new mesh only where one would pass 65,535 vertices")
        ->check(CLI::Range(0.0, 1.0e6));
    app.add_option("--mode", o.mode,
                   "library mode: default, conservative or both (both: the conservative one runs in the program "
                   "zelk-demo-conservative beside this one)")
        ->check(CLI::IsMember({"default", "conservative", "both"}));
    app.add_option("--bake-wait", o.bakeWait,
                   "after frame 0, repeat it (untimed, ungraded) until every rigid mesh is baked, for at most this "
                   "many seconds (default 60; 0: measure while baking)")
        ->check(CLI::Range(0.0, 3600.0));
    app.add_flag("--all-raw", o.allRaw,
                 "submit every mesh as deforming, so that nothing is baked and every frame is drawn raw (the frame "
                 "that baking is measured against)");
    app.add_option("--copies", o.copies,
                   "submit the scene this many times side by side along x (the same meshes, other model matrices); "
                   "boxes and camera stay with the first")
        ->check(CLI::Range(1, 16));
    app.add_flag("--json", o.json, "print one JSON object instead of the table");
    app.add_flag("--no-reference", o.noReference, "skip the exact reference (for timing runs)");
    app.add_flag("--list-false", o.listFalse, "print every false occlusion (frame, box, pixels) on stderr");
    app.add_option("--png", o.pngDir,
                   "write pictures of one frame into this directory (the conservative mode's into DIR/conservative)");
    app.add_option("--png-frame", o.pngFrame, "the frame to picture (default: the middle one)");
    CLI11_PARSE(app, argc, argv);

    demo::Scene scene;
    std::string error;
    if (!o.level.empty()) {
        if (!demo::loadLevel(scene, o.level, o.cell, error)) {
            std::fprintf(stderr, "zelk-demo: %s\n", error.c_str());
            return 1;
        }
    } else {
        scene = demo::makeCity(o.seed);
        if (!o.model.empty() && !demo::addModel(scene, o.model, error)) {
            std::fprintf(stderr, "zelk-demo: %s\n", error.c_str());
            return 1;
        }
    }
    if (scene.path.empty()) {
        std::fprintf(stderr, "zelk-demo: the scene has no camera path\n");
        return 1;
    }
    if (o.frames <= 0) o.frames = int(scene.path.size());
    if (o.pngFrame < 0) o.pngFrame = o.frames / 2;
    if (o.allRaw)
        for (demo::Mesh& m : scene.meshes) m.rigid = false;
    if (o.copies > 1) {
        // The scene again beside itself along x, as a second level loaded next
        // to the first: the same meshes under other model matrices.
        float lo = INFINITY, hi = -INFINITY;
        for (const demo::Instance& in : scene.instances)
            for (size_t v = 0; v < scene.meshes[in.mesh].vertices.size(); v += 3) {
                const float x = scene.meshes[in.mesh].vertices[v];
                lo = std::min(lo, in.model[0] * x + in.model[12]);
                hi = std::max(hi, in.model[0] * x + in.model[12]);
            }
        const size_t original = scene.instances.size();
        for (int c = 1; c < o.copies; ++c)
            for (size_t i = 0; i < original; ++i)
                scene.instances.push_back({scene.instances[i].mesh,
                                           demo::multiply(demo::translation(float(c) * (hi - lo + 64.0f), 0.0f, 0.0f),
                                                          scene.instances[i].model)});
    }

    RunInfo info;
    info.scene = scene.name;
    info.width = o.width;
    info.height = o.height;
    info.frames = o.frames;
    info.boxes = scene.boxCount();
    info.meshes = scene.meshes.size();
    info.instances = scene.instances.size();
    info.level = !o.level.empty();
    info.cell = o.cell;
    for (const demo::Instance& in : scene.instances) info.triangles += scene.meshes[in.mesh].indices.size() / 3;
    for (const demo::Mesh& m : scene.meshes) info.rigidMeshes += m.rigid ? 1 : 0;

    const bool wanted[kModeCount] = {o.mode != kModeNames[kConservative], o.mode != kModeNames[kDefault]};
    ModeResult results[kModeCount];
    int exitCode = 0;
    if (wanted[kOwnMode] && !runOwnMode(o, scene, results[kOwnMode], error)) {
        std::fprintf(stderr, "zelk-demo: %s\n", error.c_str());
        return 1;
    }
    const Mode other = kOwnMode == kDefault ? kConservative : kDefault;
    if (wanted[other]) {
        // A missing mode is reported, not fatal, when both were asked for: the
        // run still shows the other one. Asked for alone, it is an error.
        const int missingCode = o.mode == "both" ? 0 : 1;
        const std::string sibling = siblingPath(argc > 0 ? argv[0] : nullptr);
        std::string out;
        if (other == kDefault) {
            std::fprintf(stderr, "zelk-demo: this program is the conservative build; the default mode is not in it\n");
            exitCode = missingCode;
        } else if (access(sibling.c_str(), X_OK) != 0) {
            std::fprintf(stderr,
                         "zelk-demo: %s is missing (build target zelk_demo_conservative); no conservative "
                         "mode in this run\n",
                         sibling.c_str());
            exitCode = missingCode;
        } else {
            if (isatty(2) && !o.json) std::fprintf(stderr, "conservative mode: running %s\n", sibling.c_str());
            if (!o.pngDir.empty()) ::mkdir(o.pngDir.c_str(), 0755); // the sibling writes into a folder inside it
            std::map<std::string, std::string> json;
            if (!runCapture(sibling, siblingArgs(o), out, error)) {
                std::fprintf(stderr, "zelk-demo: %s\n", error.c_str());
                exitCode = 1;
            } else if (!JsonReader(out).read(json) || !readMode(json, kModeNames[other], results[other])) {
                std::fprintf(stderr, "zelk-demo: cannot read the conservative mode's figures from %s:\n%s\n",
                             sibling.c_str(), out.c_str());
                exitCode = 1;
            } else if (json["frames"] != std::to_string(info.frames) || json["boxes"] != std::to_string(info.boxes)) {
                std::fprintf(stderr, "zelk-demo: %s ran another scene (%s frames, %s boxes)\n", sibling.c_str(),
                             json["frames"].c_str(), json["boxes"].c_str());
                results[other] = ModeResult();
                exitCode = 1;
            }
        }
    }
    if (o.json)
        printJson(info, wanted, results);
    else
        printTable(info, results);
    return exitCode;
}
