#include "Pictures.h"

#include "engine/ZELKDiagnostics.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sys/stat.h>

namespace demo {

namespace {

struct Image {
    int width, height;
    std::vector<uint8_t> rgb;
    Image(int w, int h) : width(w), height(h), rgb(size_t(w) * size_t(h) * 3, 0) {}
    uint8_t* at(int x, int y) { return &rgb[(size_t(y) * size_t(width) + size_t(x)) * 3]; }
    void blend(int x, int y, const uint8_t colour[3], float alpha) {
        if (x < 0 || y < 0 || x >= width || y >= height) return;
        uint8_t* p = at(x, y);
        for (int c = 0; c < 3; ++c) p[c] = uint8_t(std::lround(p[c] * (1 - alpha) + colour[c] * alpha));
    }
};

const uint8_t kVisible[3] = {40, 220, 60}; // reported visible, truly visible
const uint8_t kCulled[3] = {230, 40, 40};  // reported hidden, truly hidden
const uint8_t kKept[3] = {60, 120, 255};   // reported visible, truly hidden (conservative)
const uint8_t kFalse[3] = {255, 0, 255};   // reported hidden, truly visible
const uint8_t kCamera[3] = {255, 230, 0};

bool writePng(const std::string& path, const Image& image, std::string& error) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        error = "cannot write " + path;
        return false;
    }
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (png == nullptr || info == nullptr || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
        error = "libpng failed on " + path;
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, png_uint_32(image.width), png_uint_32(image.height), 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < image.height; ++y)
        png_write_row(png, const_cast<png_bytep>(&image.rgb[size_t(y) * size_t(image.width) * 3]));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    std::fclose(file);
    return true;
}

// Greyscale of a 1/w buffer: near is bright, far dark, on a logarithmic scale
// between the nearest and farthest drawn pixel; black where nothing is drawn.
Image greyDepth(int width, int height, const std::vector<float>& invW) {
    float lo = INFINITY, hi = 0;
    for (float d : invW)
        if (d > 0 && std::isfinite(d)) {
            lo = std::min(lo, d);
            hi = std::max(hi, d);
        }
    Image image(width, height);
    const float span = hi > lo ? std::log(hi / lo) : 1.0f;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float d = invW[size_t(y) * size_t(width) + size_t(x)];
            if (!(d > 0) || !std::isfinite(d)) continue;
            const uint8_t g = uint8_t(std::lround(40 + 215 * std::log(d / lo) / span));
            uint8_t* p = image.at(x, y);
            p[0] = p[1] = p[2] = g;
        }
    return image;
}

// A depth image of the library's, or zeros when its size is not the picture's.
std::vector<float> libraryDepth(int width, int height, void (*read)(std::vector<float>&)) {
    std::vector<float> out;
    read(out);
    if (out.size() != size_t(width) * size_t(height)) out.assign(size_t(width) * size_t(height), 0.0f);
    return out;
}

// Draws the segment a-b (world space) through m, clipped at w >= nearW.
// With a depth buffer (1/w per pixel), pixels behind it are drawn faint.
void worldLine(Image& image, const Mat4& m, const float a[3], const float b[3], const uint8_t colour[3], float nearW,
               const std::vector<float>* depth) {
    double c[2][3];
    for (int k = 0; k < 2; ++k) {
        const float* p = k ? b : a;
        c[k][0] = m[0] * p[0] + m[4] * p[1] + m[8] * p[2] + m[12];
        c[k][1] = m[1] * p[0] + m[5] * p[1] + m[9] * p[2] + m[13];
        c[k][2] = m[3] * p[0] + m[7] * p[1] + m[11] * p[2] + m[15];
    }
    if (c[0][2] < nearW && c[1][2] < nearW) return;
    for (int k = 0; k < 2; ++k)
        if (c[k][2] < nearW) {
            const double t = (nearW - c[k][2]) / (c[1 - k][2] - c[k][2]);
            for (int e = 0; e < 3; ++e) c[k][e] += (c[1 - k][e] - c[k][e]) * t;
        }
    double sx[2], sy[2], iz[2];
    for (int k = 0; k < 2; ++k) {
        iz[k] = 1.0 / c[k][2];
        sx[k] = image.width * 0.5 * (1 + c[k][0] * iz[k]);
        sy[k] = image.height * 0.5 * (1 - c[k][1] * iz[k]);
    }
    const int steps = int(std::min(4096.0, std::max(std::fabs(sx[1] - sx[0]), std::fabs(sy[1] - sy[0])) + 1));
    for (int i = 0; i <= steps; ++i) {
        const double t = double(i) / steps;
        const int x = int(std::floor(sx[0] + (sx[1] - sx[0]) * t)), y = int(std::floor(sy[0] + (sy[1] - sy[0]) * t));
        if (x < 0 || y < 0 || x >= image.width || y >= image.height) continue;
        bool seen = true;
        if (depth != nullptr) {
            const double z = iz[0] + (iz[1] - iz[0]) * t;
            seen = z >= (*depth)[size_t(y) * size_t(image.width) + size_t(x)] * (1.0 - 1e-4);
        }
        image.blend(x, y, colour, seen ? 1.0f : 0.2f);
    }
}

void boxEdges(Image& image, const Mat4& m, const float* box, const uint8_t colour[3], float nearW,
              const std::vector<float>* depth) {
    for (int e = 0; e < 12; ++e) {
        // Edge e runs along axis e / 4 from a corner whose other two coordinates come from e % 4.
        const int axis = e / 4, u = (axis + 1) % 3, v = (axis + 2) % 3;
        float a[3], b[3];
        a[axis] = box[axis];
        b[axis] = box[axis + 3];
        a[u] = b[u] = box[u + ((e & 1) ? 3 : 0)];
        a[v] = b[v] = box[v + ((e & 2) ? 3 : 0)];
        worldLine(image, m, a, b, colour, nearW, depth);
    }
}

const uint8_t* outcomeColour(bool reportedVisible, const BoxCoverage& truth) {
    if (truth.visible > 0) return reportedVisible ? kVisible : kFalse;
    return reportedVisible ? kKept : kCulled;
}

// Hidden boxes first, then visible ones, false occlusions last, on top.
int drawOrder(bool reportedVisible, const BoxCoverage& truth) {
    return truth.visible == 0 ? 0 : reportedVisible ? 1 : 2;
}

} // namespace

bool writePictures(const std::string& dir, const Scene& scene, const CameraPose& pose, const Mat4& viewProjection,
                   const ReferenceDepth& reference, const std::vector<uint8_t>& reported,
                   const std::vector<BoxCoverage>& truth, std::string& error) {
    ::mkdir(dir.c_str(), 0755);
    const int width = reference.width(), height = reference.height();
    if (!writePng(dir + "/depth-masked.png",
                  greyDepth(width, height, libraryDepth(width, height, ZELK::ZELKDiagnostics::maskedDepth)), error))
        return false;
    if (!writePng(dir + "/depth-rapid.png",
                  greyDepth(width, height, libraryDepth(width, height, ZELK::ZELKDiagnostics::rapidDepth)), error))
        return false;
    if (!writePng(dir + "/depth-reference.png", greyDepth(width, height, reference.depth()), error)) return false;

    // From the camera: the exact depth in grey, every box on screen outlined
    // by outcome, solid where the edge is in sight and faint behind occluders.
    Image camera = greyDepth(width, height, reference.depth());
    for (int pass = 0; pass < 3; ++pass)
        for (uint32_t b = 0; b < scene.boxCount(); ++b) {
            if (truth[b].covered == 0 || drawOrder(reported[b] != 0, truth[b]) != pass) continue;
            boxEdges(camera, viewProjection, &scene.boxes[6 * b], outcomeColour(reported[b] != 0, truth[b]),
                     scene.nearPlane, &reference.depth());
        }
    if (!writePng(dir + "/camera.png", camera, error)) return false;

    // From above: a narrow perspective from far over the scene's middle, north up.
    const float* bb = scene.bounds;
    const float extent = std::max(bb[3] - bb[0], bb[5] - bb[2]) * 0.55f;
    const float height0 = bb[4] + extent * 20.0f;
    const int side = 768;
    CameraPose above{{(bb[0] + bb[3]) * 0.5f, height0, (bb[2] + bb[5]) * 0.5f}, 0.0f, -1.5707963f};
    const float fov = 2.0f * std::atan(extent / (height0 - bb[4]));
    const Mat4 topProjection = multiply(perspective(fov, 1.0f, extent, height0 - bb[1] + extent), viewFrom(above));
    ReferenceDepth top;
    top.setup(side, side, extent);
    for (const Instance& in : scene.instances) top.drawMesh(scene.meshes[in.mesh], multiply(topProjection, in.model));
    Image overview = greyDepth(side, side, top.depth());
    for (int pass = 0; pass < 3; ++pass)
        for (uint32_t b = 0; b < scene.boxCount(); ++b)
            if (drawOrder(reported[b] != 0, truth[b]) == pass)
                boxEdges(overview, topProjection, &scene.boxes[6 * b], outcomeColour(reported[b] != 0, truth[b]),
                         extent, nullptr);
    // The camera and the edges of its view, 1/8 of the scene long.
    const float reach = extent * 0.25f, halfFov = std::atan(std::tan(scene.fovY * 0.5f) * float(width) / float(height));
    for (float side0 : {-1.0f, 1.0f}) {
        const float yaw = pose.yaw + side0 * halfFov;
        const float end[3] = {pose.eye[0] - std::sin(yaw) * reach, pose.eye[1], pose.eye[2] - std::cos(yaw) * reach};
        worldLine(overview, topProjection, pose.eye, end, kCamera, extent, nullptr);
    }
    return writePng(dir + "/above.png", overview, error);
}

} // namespace demo
