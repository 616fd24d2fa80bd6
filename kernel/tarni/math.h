// The framework's geometric value types: three-component Float64 vectors, affine matrices and
// quaternions, with the few operations every user needs (products, point transforms). The
// solver's own arithmetic (inverse rules, quaternion blending) lives with the solver.
#pragma once

#include <cmath>
#include <cstring>
#include <type_traits>

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

namespace detail {
// The x and y components of a Vector side by side in one register. Each lane takes exactly the
// scalar operations in the scalar order, so paired results equal the scalar ones bit for bit (in
// builds that do not fuse a multiply and an add, as this project's: -ffp-contract=off), at half
// the arithmetic instructions. Hierarchies multiply matrices for every joint of every frame.
using Lanes = Float64 __attribute__((vector_size(16)));
inline Lanes LoadXY(const Vector& v) noexcept {
  Lanes lanes;
  std::memcpy(&lanes, &v.x, sizeof lanes);
  return lanes;
}
inline void StoreXY(Vector& v, Lanes lanes) noexcept { std::memcpy(&v.x, &lanes, sizeof lanes); }

// The axes of a matrix's 3x3 part, paired, for products in TransformVector's order.
struct PairedAxes {
  Lanes v1, v2, v3;
  Float64 z1, z2, z3;
  explicit PairedAxes(const Matrix& m) noexcept
      : v1(LoadXY(m.v1)), v2(LoadXY(m.v2)), v3(LoadXY(m.v3)), z1(m.v1.z), z2(m.v2.z), z3(m.v3.z) {}
  // From axes already paired (the x and y of each axis, then each axis's z).
  PairedAxes(Lanes xy1, Lanes xy2, Lanes xy3, Float64 axisZ1, Float64 axisZ2,
             Float64 axisZ3) noexcept
      : v1(xy1), v2(xy2), v3(xy3), z1(axisZ1), z2(axisZ2), z3(axisZ3) {}
  // TransformVector(m, p): (m.v1 * p.x + m.v2 * p.y) + m.v3 * p.z.
  Vector Transform(const Vector& p) const noexcept {
    Vector out;
    StoreXY(out, (v1 * Lanes{p.x, p.x} + v2 * Lanes{p.y, p.y}) + v3 * Lanes{p.z, p.z});
    out.z = (z1 * p.x + z2 * p.y) + z3 * p.z;
    return out;
  }
};

// operator* outside constant evaluation: the same values, with paired lanes.
inline Matrix PairedProduct(const Matrix& a, const Matrix& b) noexcept {
  const PairedAxes axes(a);
  Matrix product;
  product.v1 = axes.Transform(b.v1);
  product.v2 = axes.Transform(b.v2);
  product.v3 = axes.Transform(b.v3);
  // TransformPoint: a.off + TransformVector(a, b.off).
  const Vector moved = axes.Transform(b.off);
  StoreXY(product.off, LoadXY(a.off) + LoadXY(moved));
  product.off.z = a.off.z + moved.z;
  return product;
}
}  // namespace detail

// The product a * b: the transform that applies b first, then a.
constexpr Matrix operator*(const Matrix& a, const Matrix& b) noexcept {
  if (std::is_constant_evaluated()) {
    return {TransformPoint(a, b.off), TransformVector(a, b.v1), TransformVector(a, b.v2),
            TransformVector(a, b.v3)};
  }
  return detail::PairedProduct(a, b);
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
