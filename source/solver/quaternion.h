// The character solver's arithmetic: matrix inverses, the 3x3 product of the delta extraction, and
// the quaternion conversion, blending and rotation used when a delta is applied to a target node.
//
// Conventions, since rows and columns are easy to mix up here:
// - A Matrix stores its three axes v1, v2, v3, the images of the unit x, y and z axes; read as a
//   3x3 matrix acting on column vectors, the axes are its COLUMNS.
// - A rotation derived from a quaternion is kept as RotationRows: three ROWS, so that rotating a
//   direction a gives (x . a, y . a, z . a). RotationRowsToMatrix gives the same linear map as a
//   Matrix: its axes are the columns of the 3x3 matrix the rows form.
// - AxesToQuaternion(m.v1, m.v2, m.v3) followed by QuaternionToRotationRows gives rows that rotate
//   the unit axes onto m.v1, m.v2, m.v3, i.e. RotationRowsToMatrix reproduces m's 3x3 part. The
//   quaternion in between is the conjugate of the usual one for that rotation (a quarter turn
//   about +z comes out with a negative z component), and accordingly the Hamilton product a * b
//   rotates by a first and then by b.
// - Quaternions are never normalised here; callers get exactly what the formulas produce.
//
// The two quaternion errors are raised from the inline functions below, so that they carry this
// header as their source location.
#pragma once

#include <algorithm>
#include <cmath>
#include <utility>

#include "tarni/error.h"
#include "tarni/math.h"
#include "tarni/result.h"

namespace tarni::ca {

// ---------------------------------------------------------------------------------------------
// Matrices
//
// Defined inline: the delta extraction and application call them for every node, and a matrix
// handed back through memory is read back at once (a stall the inlined code avoids).

namespace detail {
// det = v1 . (v2 x v3).
constexpr Float64 Determinant(const Matrix& m) noexcept { return Dot(m.v1, Cross(m.v2, m.v3)); }
// The rows of the inverse 3x3 part are the cofactor vectors over det; the caller has ruled out
// det == 0.0. Returned as a Matrix (axes = columns), offset zero.
constexpr Matrix AdjugateOverDeterminant(const Matrix& m, Float64 det) noexcept {
  const Vector r1 = Cross(m.v2, m.v3);
  const Vector r2 = Cross(m.v3, m.v1);
  const Vector r3 = Cross(m.v1, m.v2);
  return {Vector{0.0, 0.0, 0.0}, Vector{r1.x / det, r2.x / det, r3.x / det},
          Vector{r1.y / det, r2.y / det, r3.y / det}, Vector{r1.z / det, r2.z / det, r3.z / det}};
}
}  // namespace detail

// The inverse of an affine matrix: the adjugate of the 3x3 part over det = v1 . (v2 x v3), and the
// offset -(inverse 3x3) * off, so that m * InvertMatrix(m) is the identity. A determinant of
// exactly 0.0 yields the identity (zero offset) and is not an error.
constexpr Matrix InvertMatrix(const Matrix& m) noexcept {
  const Float64 det = detail::Determinant(m);
  if (det == 0.0) return Matrix{};
  Matrix inverse = detail::AdjugateOverDeterminant(m, det);
  inverse.off = -TransformVector(inverse, m.off);
  return inverse;
}

// The inverse of the 3x3 part alone; the offset of m is ignored and the result's offset is zero.
// A determinant of exactly 0.0 yields the identity.
constexpr Matrix Invert3x3(const Matrix& m) noexcept {
  const Float64 det = detail::Determinant(m);
  if (det == 0.0) return Matrix{};
  return detail::AdjugateOverDeterminant(m, det);
}

// The product of the 3x3 parts, a applied after b: result.vk = a.v1 * b.vk.x + a.v2 * b.vk.y +
// a.v3 * b.vk.z. The offsets of both operands are ignored and the result's offset is zero.
inline Matrix Multiply3x3(const Matrix& a, const Matrix& b) noexcept {
  // The axes of a * b are exactly the 3x3 product; the offset is not computed.
  const tarni::detail::PairedAxes axes(a);
  Matrix product;
  product.off = Vector{0.0, 0.0, 0.0};
  product.v1 = axes.Transform(b.v1);
  product.v2 = axes.Transform(b.v2);
  product.v3 = axes.Transform(b.v3);
  return product;
}

// ---------------------------------------------------------------------------------------------
// Rotations as rows

// A 3x3 rotation given by its rows (see the conventions above). Default: identity.
struct RotationRows {
  Vector x{1.0, 0.0, 0.0};
  Vector y{0.0, 1.0, 0.0};
  Vector z{0.0, 0.0, 1.0};

  constexpr bool operator==(const RotationRows&) const noexcept = default;
};

// The quaternion of normalised axes X, Y, Z (the images of the unit axes). The sign rules read
// X, Y, Z as the rows of the quaternion's conventional rotation matrix:
//   x = 0.5 sqrt(max(0, 1 + X.x - Y.y - Z.z)), negative when Z.y < Y.z,
//   y = 0.5 sqrt(max(0, 1 - X.x + Y.y - Z.z)), negative when X.z < Z.x,
//   z = 0.5 sqrt(max(0, 1 - X.x - Y.y + Z.z)), negative when Y.x < X.y,
//   w = 0.5 sqrt(max(0, 1 + X.x + Y.y + Z.z)), never negative.
// A tie keeps the positive sign; deliberately, so a half turn about an axis such as (1, -1, 0)
// comes out as the half turn about (1, 1, 0).
// Inline, as the matrix functions above: applying a delta calls it for every node.
inline Quaternion AxesToQuaternion(const Vector& X, const Vector& Y, const Vector& Z) noexcept {
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

// The rows of the rotation of q, from q's components as they are (no normalisation):
//   x: (1 - 2(y^2 + z^2), 2(xy + zw), 2(xz - yw))
//   y: (2(xy - zw), 1 - 2(x^2 + z^2), 2(yz + xw))
//   z: (2(xz + yw), 2(yz - xw), 1 - 2(x^2 + y^2))
constexpr RotationRows QuaternionToRotationRows(const Quaternion& q) noexcept {
  const Float64 x = q.x;
  const Float64 y = q.y;
  const Float64 z = q.z;
  const Float64 w = q.w;
  return {Vector{1.0 - 2.0 * (y * y + z * z), 2.0 * (x * y + z * w), 2.0 * (x * z - y * w)},
          Vector{2.0 * (x * y - z * w), 1.0 - 2.0 * (x * x + z * z), 2.0 * (y * z + x * w)},
          Vector{2.0 * (x * z + y * w), 2.0 * (y * z - x * w), 1.0 - 2.0 * (x * x + y * y)}};
}

// Rotates the direction a by the rows: (rows.x . a, rows.y . a, rows.z . a). No offset applies.
constexpr Vector RotateByRows(const RotationRows& rows, const Vector& a) noexcept {
  return {Dot(rows.x, a), Dot(rows.y, a), Dot(rows.z, a)};
}

// The Matrix acting like the rows: its axes are the columns of the rows, its offset is zero, so
// TransformVector(RotationRowsToMatrix(r), a) == RotateByRows(r, a).
constexpr Matrix RotationRowsToMatrix(const RotationRows& rows) noexcept {
  return {Vector{0.0, 0.0, 0.0}, Vector{rows.x.x, rows.y.x, rows.z.x},
          Vector{rows.x.y, rows.y.y, rows.z.y}, Vector{rows.x.z, rows.y.z, rows.z.z}};
}

// RotationRowsToMatrix(rows) as paired axes for TransformVector, built from the rows in registers
// rather than loaded back from a Matrix written one component at a time (which the processor
// cannot forward to the wide loads).
inline tarni::detail::PairedAxes PairedAxesOfRows(const RotationRows& rows) noexcept {
  using tarni::detail::Lanes;
  return {Lanes{rows.x.x, rows.y.x},
          Lanes{rows.x.y, rows.y.y},
          Lanes{rows.x.z, rows.y.z},
          rows.z.x,
          rows.z.y,
          rows.z.z};
}

// The inverse of the rows (adjugate over determinant); a determinant of exactly 0.0 yields the
// identity. Used to turn a rotation back for a negative weight.
RotationRows InvertRotationRows(const RotationRows& rows) noexcept;

// ---------------------------------------------------------------------------------------------
// Quaternions

// The value that accompanies every quaternion error.
inline constexpr Quaternion kZeroQuaternion{0.0, 0.0, 0.0, 0.0};
// The blend angle of fully opposed quaternions.
inline constexpr Float64 kBlendPi = 3.141592653589793;

// The four-component dot product.
constexpr Float64 QuaternionDot(const Quaternion& a, const Quaternion& b) noexcept {
  return a.x * b.x + a.y * b.y + a.z * b.z + a.w * b.w;
}

// The Hamilton product a * b: w = a.w b.w - a.v . b.v, v = a.w b.v + b.w a.v + a.v x b.v.
constexpr Quaternion HamiltonProduct(const Quaternion& a, const Quaternion& b) noexcept {
  const Vector av{a.x, a.y, a.z};
  const Vector bv{b.x, b.y, b.z};
  const Vector v = bv * a.w + av * b.w + Cross(av, bv);
  return {v.x, v.y, v.z, a.w * b.w - Dot(av, bv)};
}

// q divided by n = x^2 + y^2 + z^2 + w^2. Deliberately not conjugated: this is the reciprocal-norm
// scaling the blend beyond t = 1 is built on, not the quaternion inverse. n == 0.0 fails with an
// illegal-state error and the zero quaternion.
inline Result<Quaternion> QuaternionScaleByInverseNorm(const Quaternion& q) noexcept {
  const Float64 n = q.x * q.x + q.y * q.y + q.z * q.z + q.w * q.w;
  if (n == 0.0) return {kZeroQuaternion, IllegalStateError("Length of quaternion is zero.")};
  return Quaternion{q.x / n, q.y / n, q.z / n, q.w / n};
}

// The spherical blend from q1 (t = 0) to q2 (t = 1) along the shorter arc, unnormalised. A t
// outside [0, 1] (NaN included) fails with an illegal-argument error and the zero quaternion.
inline Result<Quaternion> QuaternionSlerp(const Quaternion& q1, const Quaternion& q2,
                                          Float64 t) noexcept {
  if (!(t >= 0.0 && t <= 1.0)) {
    return {kZeroQuaternion, IllegalArgumentError("Blend parameter outside [0.0, 1.0] range.")};
  }
  Quaternion to = q2;
  const Float64 d = QuaternionDot(q1, q2);
  if (d < 0.0) to = Quaternion{-q2.x, -q2.y, -q2.z, -q2.w};
  const Float64 a = std::fabs(d);
  // a is never negative after the fabs, so the half-turn case cannot occur; kept deliberately.
  Float64 theta;
  if (a >= 1.0) {
    theta = 0.0;
  } else if (a <= -1.0) {
    theta = kBlendPi;
  } else {
    theta = std::acos(a);
  }
  const Float64 s = std::sin(theta);
  Float64 k1 = 1.0 - t;
  Float64 k2 = t;
  if (s > 0.0) {
    k1 = std::sin((1.0 - t) * theta) / s;
    k2 = std::sin(t * theta) / s;
  }
  return Quaternion{k1 * q1.x + k2 * to.x, k1 * q1.y + k2 * to.y, k1 * q1.z + k2 * to.z,
                    k1 * q1.w + k2 * to.w};
}

// The blend for any t: the slerp inside [0, 1]; below 0 the operands swap and t becomes 1 - t;
// above 1 the blend h at t / 2 is composed as (h * r) * h with r = ScaleByInverseNorm(q1). For
// q1 = identity that is the rotation of q2 taken t times. Because r is not conjugated, a q1 other
// than the identity (which is what the swap below 0 produces) does not extrapolate backwards;
// that is deliberate. Errors of the inner steps come with the zero quaternion.
inline Result<Quaternion> QuaternionBlend(const Quaternion& q1, const Quaternion& q2,
                                          Float64 t) noexcept {
  // An infinite t would halve forever and NaN fits no branch: the slerp rejects both.
  if (!std::isfinite(t)) return QuaternionSlerp(q1, q2, t);
  if (t >= 0.0 && t <= 1.0) return QuaternionSlerp(q1, q2, t);
  if (t < 0.0) return QuaternionBlend(q2, q1, 1.0 - t);
  Result<Quaternion> half = QuaternionBlend(q1, q2, t / 2.0);
  if (!half) return {kZeroQuaternion, std::move(half).error()};
  Result<Quaternion> reciprocal = QuaternionScaleByInverseNorm(q1);
  if (!reciprocal) return {kZeroQuaternion, std::move(reciprocal).error()};
  const Quaternion& h = half.value();
  return HamiltonProduct(HamiltonProduct(h, reciprocal.value()), h);
}

// The blend from the identity to q: QuaternionBlend(Quaternion(), q, t), bit for bit. At t = 1,
// the usual full weight, the slerp's sines cancel to k1 = +0 and k2 = 1 (and its linear branch
// gives the same), so its result is +0 + q component by component: q itself except that a
// negative zero comes out positive, which the sums below keep without the trigonometry. The
// identity's dot product with q is q.w, never negative, so there is no sign flip to follow.
inline Result<Quaternion> BlendFromIdentity(const Quaternion& q, Float64 t) noexcept {
  if (t == 1.0) return Quaternion{0.0 + q.x, 0.0 + q.y, 0.0 + q.z, 0.0 + q.w};
  // Inside [0, 1] the blend is the slerp; called directly, it is inlined here.
  if (t >= 0.0 && t <= 1.0) return QuaternionSlerp(Quaternion(), q, t);
  return QuaternionBlend(Quaternion(), q, t);
}

}  // namespace tarni::ca
