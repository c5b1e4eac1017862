#include "common/Matrix4x4.h"

namespace common {

Matrix4x4 Matrix4x4::zero() { return {{zero4(), zero4(), zero4(), zero4()}}; }

Matrix4x4 Matrix4x4::identity() {
    return {{make4(1, 0, 0, 0), make4(0, 1, 0, 0), make4(0, 0, 1, 0), make4(0, 0, 0, 1)}};
}

Matrix4x4 Matrix4x4::fromColumnMajor(const float* p) {
    return {{loadu4(p), loadu4(p + 4), loadu4(p + 8), loadu4(p + 12)}};
}

void Matrix4x4::toColumnMajor(float* p) const {
    for (size_t j = 0; j < 4; ++j) storeu4(p + 4 * j, columns[j]);
}

bool Matrix4x4::operator==(const Matrix4x4& other) const {
    const int4 eq = cmpEq(columns[0], other.columns[0]) & cmpEq(columns[1], other.columns[1]) &
                    cmpEq(columns[2], other.columns[2]) & cmpEq(columns[3], other.columns[3]);
    return allTrue(eq);
}

Matrix4x4 Matrix4x4::operator*(const Matrix4x4& b) const {
    Matrix4x4 r;
    for (int j = 0; j < 4; ++j) {
        const float4 c = b.columns[j];
        r.columns[j] = ((columns[0] * splatLane<0>(c) + columns[1] * splatLane<1>(c)) + columns[2] * splatLane<2>(c)) +
                       columns[3] * splatLane<3>(c);
    }
    return r;
}

float4 Matrix4x4::transformPoint(float4 p) const {
    return ((columns[0] * splatLane<0>(p) + columns[1] * splatLane<1>(p)) + columns[2] * splatLane<2>(p)) + columns[3];
}

} // namespace common
