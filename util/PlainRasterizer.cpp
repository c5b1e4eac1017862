#include "util/PlainRasterizer.h"

#include "util/MaskedOcclusionCulling.h"

namespace util {

PlainRasterizer::PlainRasterizer() : owned(MaskedOcclusionCulling::Create()) {}

PlainRasterizer::~PlainRasterizer() { MaskedOcclusionCulling::Destroy(owned); }

void PlainRasterizer::setResolution(unsigned width, unsigned height) {
    if (owned != nullptr) owned->SetResolution(width, height);
}

void PlainRasterizer::setNearPlane(float nearDistance) {
    if (owned != nullptr) owned->SetNearClipPlane(nearDistance);
}

void PlainRasterizer::clear() {
    if (owned != nullptr) owned->ClearBuffer();
}

void PlainRasterizer::setModelViewProjection(const common::Matrix4x4& matrix) {
    if (owned != nullptr) owned->SetModelViewProjection(matrix);
}

void PlainRasterizer::render(const float* vertices, const uint16_t* indices, int vertexCount, int indexCount) {
    if (vertices == nullptr || indices == nullptr || owned == nullptr) return;
    owned->RenderTriangles(vertices, indices, vertexCount, indexCount / 3);
}

bool PlainRasterizer::query(const float* boundsMin, const float* boundsMax) const {
    if (boundsMin == nullptr || boundsMax == nullptr || owned == nullptr) return false;
    return owned->Query(boundsMin, boundsMax);
}

} // namespace util
