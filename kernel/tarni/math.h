// The framework's geometric value types: three-component Float64 vectors, affine matrices and
// quaternions, with the few operations every user needs (products, point transforms). The
// solver's own arithmetic (inverse rules, quaternion blending) lives with the solver.
#pragma once

#include <cmath>

namespace tarni {

using Float64 = double;
using Float32 = float;

struct Vector {
  Float64 x = 0.0;
  Float64 y = 0.0;
  Float64 z = 0.0;

  constexpr Vector operator+(const Vector& o) const noexcept { return {x + o.x, y + o.y, z + o.z}; }
  constexpr Vector operator-(const Vector& o) const noexcept { return {x - o.x, y - o.y, z - o.z}; }
  constexpr Vector operator-() const noexcept { return {-x, -y, -z}; }
  constexpr Vector operator*(Float64 s) const noexcept { return {x * s, y * s, z * s}; }
  constexpr Vector& operator+=(const Vector& o) noexcept {
    x += o.x;
    y += o.y;
    z += o.z;
    return *this;
  }
  constexpr bool operator==(const Vector&) const noexcept = default;
};

constexpr Float64 Dot(const Vector& a, const Vector& b) noexcept {
  return a.x * b.x + a.y * b.y + a.z * b.z;
}
constexpr Vector Cross(const Vector& a, const Vector& b) noexcept {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline Float64 Length(const Vector& v) noexcept { return std::sqrt(Dot(v, v)); }

// An affine transform: a point p maps to off + v1 * p.x + v2 * p.y + v3 * p.z. Stored in the
// order offset, first axis, second axis, third axis. Default: identity.
struct Matrix {
  Vector off{0.0, 0.0, 0.0};
  Vector v1{1.0, 0.0, 0.0};
  Vector v2{0.0, 1.0, 0.0};
  Vector v3{0.0, 0.0, 1.0};

  constexpr bool operator==(const Matrix&) const noexcept = default;
};

// Applies the 3x3 part of m to a direction.
constexpr Vector TransformVector(const Matrix& m, const Vector& v) noexcept {
  return m.v1 * v.x + m.v2 * v.y + m.v3 * v.z;
}
// Applies m to a point.
constexpr Vector TransformPoint(const Matrix& m, const Vector& p) noexcept {
  return m.off + TransformVector(m, p);
}
// The product a * b: the transform that applies b first, then a.
constexpr Matrix operator*(const Matrix& a, const Matrix& b) noexcept {
  return {TransformPoint(a, b.off), TransformVector(a, b.v1), TransformVector(a, b.v2),
          TransformVector(a, b.v3)};
}

// A quaternion, vector part first. Default: identity (0, 0, 0, 1).
struct Quaternion {
  Float64 x = 0.0;
  Float64 y = 0.0;
  Float64 z = 0.0;
  Float64 w = 1.0;

  constexpr bool operator==(const Quaternion&) const noexcept = default;
};

}  // namespace tarni
