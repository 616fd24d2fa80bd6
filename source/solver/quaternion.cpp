#include "source/solver/quaternion.h"

#include <algorithm>
#include <cmath>

namespace tarni::ca {

namespace {

// The inverse of RotationRowsToMatrix.
RotationRows MatrixToRotationRows(const Matrix& m) noexcept {
  return {Vector{m.v1.x, m.v2.x, m.v3.x}, Vector{m.v1.y, m.v2.y, m.v3.y},
          Vector{m.v1.z, m.v2.z, m.v3.z}};
}

}  // namespace

Quaternion AxesToQuaternion(const Vector& X, const Vector& Y, const Vector& Z) noexcept {
  Quaternion q;
  q.x = 0.5 * std::sqrt(std::max(0.0, 1.0 + X.x - Y.y - Z.z));
  q.y = 0.5 * std::sqrt(std::max(0.0, 1.0 - X.x + Y.y - Z.z));
  q.z = 0.5 * std::sqrt(std::max(0.0, 1.0 - X.x - Y.y + Z.z));
  q.w = 0.5 * std::sqrt(std::max(0.0, 1.0 + X.x + Y.y + Z.z));
  if (Z.y < Y.z) q.x = -q.x;
  if (X.z < Z.x) q.y = -q.y;
  if (Y.x < X.y) q.z = -q.z;
  return q;
}

RotationRows QuaternionToRotationRows(const Quaternion& q) noexcept {
  const Float64 x = q.x;
  const Float64 y = q.y;
  const Float64 z = q.z;
  const Float64 w = q.w;
  return {Vector{1.0 - 2.0 * (y * y + z * z), 2.0 * (x * y + z * w), 2.0 * (x * z - y * w)},
          Vector{2.0 * (x * y - z * w), 1.0 - 2.0 * (x * x + z * z), 2.0 * (y * z + x * w)},
          Vector{2.0 * (x * z + y * w), 2.0 * (y * z - x * w), 1.0 - 2.0 * (x * x + y * y)}};
}

RotationRows InvertRotationRows(const RotationRows& rows) noexcept {
  // The Matrix form is the same linear map as the rows, so its inverse, read back as rows, is the
  // inverse of the rows.
  return MatrixToRotationRows(Invert3x3(RotationRowsToMatrix(rows)));
}

}  // namespace tarni::ca
