// Byte-stream encoding shared by the fuzz targets and the seed generator:
// little-endian integers and raw float bits (every bit pattern, NaN and
// infinities included, is a legal input). Reading past the end yields zeros,
// so any byte string decodes to some input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace fuzzing {

class Reader {
public:
    Reader(const uint8_t* data, size_t size) : data(data), size(size) {}

    bool done() const { return pos >= size; }
    uint8_t u8() { return pos < size ? data[pos++] : 0; }
    uint16_t u16() { return uint16_t(u8() | (u8() << 8)); }
    uint32_t u32() { return uint32_t(u16()) | (uint32_t(u16()) << 16); }
    float f32() {
        const uint32_t bits = u32();
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return f;
    }
    // In bulk: a mesh may claim 65,535 vertices from a short input, and byte
    // reads under the fuzzer's comparison tracing would dominate the run.
    void floats(float* out, size_t count) { bytes(out, count * sizeof(float)); }
    void u16s(uint16_t* out, size_t count) { bytes(out, count * sizeof(uint16_t)); }
    // Little-endian hosts only, as every target of the library is.
    void bytes(void* out, size_t n) {
        const size_t available = pos < size ? size - pos : 0, taken = n < available ? n : available;
        if (taken != 0) std::memcpy(out, data + pos, taken);
        if (taken != n) std::memset(static_cast<uint8_t*>(out) + taken, 0, n - taken);
        pos += taken;
    }

private:
    const uint8_t* data;
    size_t size;
    size_t pos = 0;
};

class Writer {
public:
    std::vector<uint8_t> bytes;

    void u8(uint32_t v) { bytes.push_back(uint8_t(v)); }
    void u16(uint32_t v) {
        u8(v);
        u8(v >> 8);
    }
    void u32(uint32_t v) {
        u16(v);
        u16(v >> 16);
    }
    void f32(float f) {
        uint32_t bits;
        std::memcpy(&bits, &f, sizeof bits);
        u32(bits);
    }
    void floats(const float* values, size_t count) {
        for (size_t i = 0; i < count; ++i) f32(values[i]);
    }
};

// A buffer size in pixels from one byte: multiples of 8 up to 312, and the
// largest the engine accepts (maxPixels) for 0xF0 only. A full-size buffer
// costs a hundred typical inputs to set up and clear under the sanitizers, so
// it is rare, but always one byte away. Chosen without comparing b: the
// fuzzer's comparison tracing would learn the value and use it everywhere.
inline unsigned bufferSize(uint8_t b, unsigned maxPixels) {
    const unsigned full = (unsigned(b ^ 0xF0) - 1u) >> 31; // 1 for 0xF0 only
    return full * maxPixels + (1u - full) * 8u * (b % 40u);
}

// A size the C interface may refuse: as bufferSize, except that bytes 0xF1
// to 0xFF are followed by any 16-bit value (odd, zero or too large sizes).
constexpr uint8_t kRawSize = 0xF1;
inline uint32_t engineSize(Reader& in, unsigned maxPixels) {
    const uint8_t b = in.u8();
    return b >= kRawSize ? in.u16() : bufferSize(b, maxPixels);
}

// A mesh as the targets read it: vertex count, `components` floats per vertex
// (xyz, or xyzw in clip space), index count, indices. The counts are free;
// missing bytes read as zeros.
struct Mesh {
    std::vector<float> vertices;
    std::vector<uint16_t> indices;
};

inline Mesh readMesh(Reader& in, size_t components = 3) {
    Mesh m;
    m.vertices.resize(size_t(in.u16()) * components);
    in.floats(m.vertices.data(), m.vertices.size());
    m.indices.resize(in.u16());
    in.u16s(m.indices.data(), m.indices.size());
    return m;
}

inline void writeMesh(Writer& out, const std::vector<float>& vertices, const std::vector<uint16_t>& indices,
                      size_t components = 3) {
    out.u16(uint32_t(vertices.size() / components));
    out.floats(vertices.data(), vertices.size());
    out.u16(uint32_t(indices.size()));
    for (uint16_t i : indices) out.u16(i);
}

} // namespace fuzzing

namespace fuzzing {

// Operations of the C-interface target, one byte each, then their operands.
enum EngineOp : uint8_t {
    OpInit,    // width, height (see engineSize), f32 near
    OpConfig,  // as OpInit
    OpFrame,   // u8 null flags (bit 0 frameParams, bit 1 matrix), 16 f32 view-projection
    OpMesh,    // a new mesh kept for the whole input (see readMesh)
    OpSubmit,  // u8 mesh slot, u8 rigid type, u8 flags (see EngineFuzz.cpp), u16 count cut, 16 f32 model
    OpRender,  // none
    OpQuery,   // u8 flags (bit 0 null boxes, bit 1 null results), u8 count, 6 f32 per box
    OpSingle,  // u8 flags, 6 f32 box
    OpDestroy, // none
    EngineOpCount
};

// Operations of the masked-rasteriser target.
enum MaskedOp : uint8_t {
    MaskOpResolution, // u8 width, u8 height (see bufferSize), f32 near
    MaskOpMatrix,     // 16 f32
    MaskOpObject,     // mesh, u16 claimed vertex count
    MaskOpClip,       // u8 winding, u8 clip mask, u8 flags (bit 0 pass matrix), 16 f32, mesh (xyzw per vertex)
    MaskOpRect,       // 5 f32
    MaskOpBox,        // 6 f32
    MaskOpClear,      // none
    MaskOpMerge,      // none: merges into a second buffer of the same size
    MaskOpCount
};

} // namespace fuzzing

namespace fuzzing {

// Operations of the baking and quad-rasteriser target.
enum BakedOp : uint8_t {
    BakedOpResolution, // u8 width, u8 height (see bufferSize)
    BakedOpMatrix,     // 16 f32
    BakedOpMesh,       // u8 flags (bit 0 near clipping), mesh, u8 box flag (bit 0 arbitrary), 6 f32 box
    BakedOpQuads,      // u8 flags, u8 quads, u8 extra corners, 3 f32 per corner, box as above
    BakedOpWords,      // u8 flags, 5 x 3 f32 (center, ref box, bounds), u8 batches, u8 extra, 4 u32 each
    BakedOpBox,        // 6 f32
    BakedOpRect,       // u16 x0, x1, y0, y1, depth
    BakedOpClear,      // none: also starts a new group
    BakedOpCount
};

} // namespace fuzzing
