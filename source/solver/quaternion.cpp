#include "source/solver/quaternion.h"

#include <algorithm>
#include <cmath>

namespace tarni::ca {

namespace {

// The rows of the inverse 3x3 part are the cofactor vectors over det; the caller has ruled out
// det == 0.0. Returned as a Matrix (axes = columns), offset zero.
Matrix AdjugateOverDeterminant(const Matrix& m, Float64 det) noexcept {
  const Vector r1 = Cross(m.v2, m.v3);
  const Vector r2 = Cross(m.v3, m.v1);
  const Vector r3 = Cross(m.v1, m.v2);
  return {Vector{0.0, 0.0, 0.0}, Vector{r1.x / det, r2.x / det, r3.x / det},
          Vector{r1.y / det, r2.y / det, r3.y / det}, Vector{r1.z / det, r2.z / det, r3.z / det}};
}

Float64 Determinant(const Matrix& m) noexcept { return Dot(m.v1, Cross(m.v2, m.v3)); }

// The inverse of RotationRowsToMatrix.
RotationRows MatrixToRotationRows(const Matrix& m) noexcept {
  return {Vector{m.v1.x, m.v2.x, m.v3.x}, Vector{m.v1.y, m.v2.y, m.v3.y},
          Vector{m.v1.z, m.v2.z, m.v3.z}};
}

}  // namespace

Matrix InvertMatrix(const Matrix& m) noexcept {
  const Float64 det = Determinant(m);
  if (det == 0.0) return Matrix{};
  Matrix inverse = AdjugateOverDeterminant(m, det);
  inverse.off = -TransformVector(inverse, m.off);
  return inverse;
}

Matrix Invert3x3(const Matrix& m) noexcept {
  const Float64 det = Determinant(m);
  if (det == 0.0) return Matrix{};
  return AdjugateOverDeterminant(m, det);
}

Matrix Multiply3x3(const Matrix& a, const Matrix& b) noexcept {
  // The axes of a * b are exactly the 3x3 product; only the offset has to go.
  Matrix product = a * b;
  product.off = Vector{0.0, 0.0, 0.0};
  return product;
}

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
