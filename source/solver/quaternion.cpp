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

RotationRows InvertRotationRows(const RotationRows& rows) noexcept {
  // The Matrix form is the same linear map as the rows, so its inverse, read back as rows, is the
  // inverse of the rows.
  return MatrixToRotationRows(Invert3x3(RotationRowsToMatrix(rows)));
}

}  // namespace tarni::ca
