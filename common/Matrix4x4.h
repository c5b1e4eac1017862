#pragma once

#include "common/Simd.h"

namespace common {

// Column-major 4x4 matrix as the host passes it: element k of column j is row k.
struct alignas(16) Matrix4x4 {
    float4 columns[4];

    static Matrix4x4 zero();
    static Matrix4x4 identity();
    // Reads 16 floats, column by column; p need not be aligned.
    static Matrix4x4 fromColumnMajor(const float* p);
    void toColumnMajor(float* p) const;

    // Element-wise float equality: NaN never equals, +0 equals -0.
    bool operator==(const Matrix4x4& other) const;
    bool operator!=(const Matrix4x4& other) const { return !(*this == other); }

    // Column j of a*b is the sum over k of column k of a times element k of column j of b.
    Matrix4x4 operator*(const Matrix4x4& b) const;

    // x*c0 + y*c1 + z*c2 + c3, summed in that order.
    float4 transformPoint(float4 p) const;
};

} // namespace common
