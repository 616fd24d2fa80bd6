#include "source/solver/quaternion.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace tarni::ca {
namespace {

constexpr double kTol = 1e-9;
constexpr double kPi = 3.141592653589793;

::testing::AssertionResult VectorNear(const Vector& a, const Vector& b, double tol) {
  if (std::fabs(a.x - b.x) <= tol && std::fabs(a.y - b.y) <= tol && std::fabs(a.z - b.z) <= tol) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "(" << a.x << ", " << a.y << ", " << a.z << ") vs ("
                                       << b.x << ", " << b.y << ", " << b.z << ")";
}

::testing::AssertionResult MatrixNear(const Matrix& a, const Matrix& b, double tol) {
  const Vector pa[] = {a.off, a.v1, a.v2, a.v3};
  const Vector pb[] = {b.off, b.v1, b.v2, b.v3};
  const char* names[] = {"off", "v1", "v2", "v3"};
  for (int i = 0; i < 4; ++i) {
    ::testing::AssertionResult r = VectorNear(pa[i], pb[i], tol);
    if (!r) return r << " in " << names[i];
  }
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult QuaternionNear(const Quaternion& a, const Quaternion& b, double tol) {
  if (std::fabs(a.x - b.x) <= tol && std::fabs(a.y - b.y) <= tol && std::fabs(a.z - b.z) <= tol &&
      std::fabs(a.w - b.w) <= tol) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "(" << a.x << ", " << a.y << ", " << a.z << ", " << a.w << ") vs (" << b.x << ", "
         << b.y << ", " << b.z << ", " << b.w << ")";
}

// A rotation by angle about the unit axis n (Rodrigues), built without the code under test.
Matrix AxisRotation(const Vector& n, double angle) {
  const double c = std::cos(angle);
  const double s = std::sin(angle);
  auto image = [&](const Vector& e) { return e * c + Cross(n, e) * s + n * (Dot(n, e) * (1 - c)); };
  return {Vector{}, image({1, 0, 0}), image({0, 1, 0}), image({0, 0, 1})};
}

Vector RandomUnit(std::mt19937_64& rng) {
  std::normal_distribution<double> gauss;
  const Vector v{gauss(rng), gauss(rng), gauss(rng)};
  return v * (1.0 / Length(v));
}

// Angles stay clear of the half turn, where the axes no longer carry the quaternion's signs.
Matrix RandomRotation(std::mt19937_64& rng, double* angle = nullptr, Vector* axis = nullptr) {
  const Vector n = RandomUnit(rng);
  const double a = std::uniform_real_distribution<double>(0.05, 0.95 * kPi)(rng);
  if (angle != nullptr) *angle = a;
  if (axis != nullptr) *axis = n;
  return AxisRotation(n, a);
}

Quaternion QuaternionOfAxes(const Matrix& m) { return AxesToQuaternion(m.v1, m.v2, m.v3); }
// The rotation a quaternion stands for in the solver, as a Matrix.
Matrix RotationOf(const Quaternion& q) { return RotationRowsToMatrix(QuaternionToRotationRows(q)); }

void ExpectQuaternionError(const Result<Quaternion>& r, ErrorKind kind, const char* message) {
  ASSERT_TRUE(r.has_error());
  EXPECT_TRUE(r.error().Is(kind));
  EXPECT_EQ(r.error().GetMessage(), message);
  EXPECT_EQ(r.error().GetUnit(), "quaternion");
  ASSERT_TRUE(r.has_value());
  EXPECT_EQ(r.value(), kZeroQuaternion);
}

TEST(SolverMatrixTest, Inverses) {
  {  // Scaled axes: the offset is -(inverse 3x3) * off, not just -off.
    const Matrix m{{2, 4, 6}, {2, 0, 0}, {0, 4, 0}, {0, 0, 0.5}};
    const Matrix expected{{-1, -1, -12}, {0.5, 0, 0}, {0, 0.25, 0}, {0, 0, 2}};
    EXPECT_TRUE(MatrixNear(InvertMatrix(m), expected, 0));
  }
  {  // Random affine matrices: the inverse cancels on both sides, offsets included.
    std::mt19937_64 rng(20240611);
    std::uniform_real_distribution<double> u(-3.0, 3.0);
    int checked = 0;
    for (int i = 0; i < 300; ++i) {
      const Matrix m{{u(rng), u(rng), u(rng)},
                     {u(rng), u(rng), u(rng)},
                     {u(rng), u(rng), u(rng)},
                     {u(rng), u(rng), u(rng)}};
      if (std::fabs(Dot(m.v1, Cross(m.v2, m.v3))) < 0.5) continue;
      ++checked;
      const Matrix inverse = InvertMatrix(m);
      EXPECT_TRUE(MatrixNear(m * inverse, Matrix{}, kTol)) << "case " << i;
      EXPECT_TRUE(MatrixNear(inverse * m, Matrix{}, kTol)) << "case " << i;
      // The 3x3-only inverse agrees on the axes and carries no offset.
      const Matrix linear = Invert3x3(m);
      EXPECT_TRUE(MatrixNear(linear, Matrix{{}, inverse.v1, inverse.v2, inverse.v3}, 0));
    }
    EXPECT_GT(checked, 150);
  }
  {  // A determinant of exactly 0.0 gives the identity, with zero offset, from both inverses.
    const Matrix dependent{{5, 6, 7}, {1, 2, 3}, {4, 5, 6}, {7, 8, 9}};
    EXPECT_EQ(InvertMatrix(dependent), Matrix{});
    EXPECT_EQ(Invert3x3(dependent), Matrix{});
  }
}

TEST(SolverRotationTest, AxesToQuaternionAndRows) {
  {  // A quarter turn about +z: the quaternion's vector part points along -z, and its rows
     // rotate the unit axes back onto the given axes.
    const Matrix m{{}, {0, 1, 0}, {-1, 0, 0}, {0, 0, 1}};
    const Quaternion q = QuaternionOfAxes(m);
    EXPECT_TRUE(QuaternionNear(q, {0, 0, -std::sqrt(0.5), std::sqrt(0.5)}, 1e-15));
    EXPECT_TRUE(VectorNear(RotateByRows(QuaternionToRotationRows(q), {1, 0, 0}), {0, 1, 0}, 1e-15));
  }
  {  // Random rotations: the round trip reproduces the axes; w is never negative, length one.
    std::mt19937_64 rng(7);
    for (int i = 0; i < 300; ++i) {
      const Matrix m = RandomRotation(rng);
      const Quaternion q = QuaternionOfAxes(m);
      EXPECT_GE(q.w, 0.0);
      EXPECT_NEAR(QuaternionDot(q, q), 1.0, kTol);
      EXPECT_TRUE(MatrixNear(RotationOf(q), m, kTol)) << "case " << i;
    }
  }
  {  // Half turns: no sign survives in the axes and ties stay positive (deliberately), so the
     // half turn about (1, -1, 0) yields the one about (1, 1, 0).
    const double h = std::sqrt(0.5);
    EXPECT_EQ(AxesToQuaternion({1, 0, 0}, {0, -1, 0}, {0, 0, -1}), (Quaternion{1, 0, 0, 0}));
    const Matrix aboutXY{{}, {0, 1, 0}, {1, 0, 0}, {0, 0, -1}};
    EXPECT_TRUE(QuaternionNear(QuaternionOfAxes(aboutXY), {h, h, 0, 0}, 1e-15));
    const Matrix aboutXMinusY{{}, {0, -1, 0}, {-1, 0, 0}, {0, 0, -1}};
    EXPECT_TRUE(QuaternionNear(QuaternionOfAxes(aboutXMinusY), {h, h, 0, 0}, 1e-15));
    // About (1, 1, 1) all three off-diagonal pairs tie.
    const double d = -1.0 / 3;
    const double o = 2.0 / 3;
    const double c = 1 / std::sqrt(3.0);
    EXPECT_TRUE(
        QuaternionNear(AxesToQuaternion({d, o, o}, {o, d, o}, {o, o, d}), {c, c, c, 0}, 1e-8));
  }
  {  // Inverse rows undo the rows, also for an unnormalised quaternion whose rows are not
     // orthogonal (so a transpose would not do); zero rows invert to the identity.
    const RotationRows rows = QuaternionToRotationRows({0.3, -0.2, 0.5, 1.4});
    const RotationRows inverse = InvertRotationRows(rows);
    const Vector a{1.5, -0.25, 3.0};
    EXPECT_TRUE(VectorNear(RotateByRows(inverse, RotateByRows(rows, a)), a, kTol));
    const RotationRows zero{{}, {}, {}};
    EXPECT_EQ(InvertRotationRows(zero), RotationRows{});
  }
}

TEST(SolverQuaternionTest, HamiltonProductRotatesByTheLeftOperandFirst) {
  // In the rows convention a * b rotates by a first, then by b.
  std::mt19937_64 rng(11);
  for (int n = 0; n < 50; ++n) {
    const Matrix first = RandomRotation(rng);
    const Matrix second = RandomRotation(rng);
    const Quaternion p = HamiltonProduct(QuaternionOfAxes(first), QuaternionOfAxes(second));
    EXPECT_TRUE(MatrixNear(RotationOf(p), second * first, kTol)) << "case " << n;
  }
}

TEST(SolverQuaternionTest, ScaleByInverseNorm) {
  {  // Divides by the squared norm and keeps every sign (no conjugation).
    const Result<Quaternion> doubled = QuaternionScaleByInverseNorm({0, 0, 0, 2});
    ASSERT_TRUE(doubled);
    EXPECT_EQ(doubled.value(), (Quaternion{0, 0, 0, 0.5}));
    const Result<Quaternion> mixed = QuaternionScaleByInverseNorm({1, -2, 3, 4});
    ASSERT_TRUE(mixed);
    EXPECT_EQ(mixed.value(), (Quaternion{1.0 / 30, -2.0 / 30, 3.0 / 30, 4.0 / 30}));
  }
  {  // The zero quaternion fails here, with the zero quaternion as its value.
    ExpectQuaternionError(QuaternionScaleByInverseNorm(kZeroQuaternion), ErrorKind::kIllegalState,
                          "Length of quaternion is zero.");
  }
}

TEST(SolverQuaternionTest, Slerp) {
  const Quaternion identity{};
  const double s45 = std::sin(kPi / 4);
  {  // A parameter outside [0, 1], or none at all, fails with the zero quaternion.
    for (double t : {-0.001, 1.5, -std::numeric_limits<double>::infinity(),
                     std::numeric_limits<double>::quiet_NaN()}) {
      SCOPED_TRACE(t);
      ExpectQuaternionError(QuaternionSlerp(identity, {0, 0, s45, s45}, t),
                            ErrorKind::kIllegalArgument,
                            "Blend parameter outside [0.0, 1.0] range.");
    }
  }
  {  // From the identity towards a quarter turn about z: t runs from q1 to q2 at uniform angle.
    const Quaternion quarter{0, 0, s45, s45};
    EXPECT_TRUE(QuaternionNear(QuaternionSlerp(identity, quarter, 1).value(), quarter, 1e-15));
    EXPECT_TRUE(QuaternionNear(QuaternionSlerp(identity, quarter, 0.25).value(),
                               {0, 0, std::sin(kPi / 16), std::cos(kPi / 16)}, 1e-15));
  }
  {  // A negative dot product takes the shorter arc: three quarter turns become one back.
    const Quaternion threeQuarters{0, 0, std::sin(3 * kPi / 4), std::cos(3 * kPi / 4)};
    EXPECT_TRUE(QuaternionNear(QuaternionSlerp(identity, threeQuarters, 0.5).value(),
                               {0, 0, -std::sin(kPi / 8), std::cos(kPi / 8)}, 1e-15));
    // Opposite quaternions are the same rotation: nothing to blend.
    EXPECT_TRUE(
        QuaternionNear(QuaternionSlerp(identity, {0, 0, 0, -1}, 0.4).value(), identity, 1e-15));
  }
  {  // Nothing is normalised: length-2 inputs give length-2 results.
    EXPECT_TRUE(QuaternionNear(QuaternionSlerp({0, 0, 0, 2}, {0, 0, 2, 0}, 0.5).value(),
                               {0, 0, std::sqrt(2.0), std::sqrt(2.0)}, 1e-15));
    // A dot product of 1 or more leaves no angle: the blend is linear, weighted towards q1
    // near t = 0.
    EXPECT_TRUE(QuaternionNear(QuaternionSlerp({0, 0, 0, 2}, {0, 0, 1, 2}, 0.25).value(),
                               {0, 0, 0.25, 2}, 1e-15));
  }
}

TEST(SolverQuaternionTest, Blend) {
  const Quaternion identity{};
  {  // Inside [0, 1] the blend is the slerp.
    const Quaternion a{0.1, 0.2, 0.3, 0.9};
    const Quaternion b{-0.4, 0.1, 0.2, 0.8};
    for (double t : {0.0, 0.3, 1.0}) {
      EXPECT_EQ(QuaternionBlend(a, b, t).value(), QuaternionSlerp(a, b, t).value());
    }
  }
  {  // From the identity, t = 2 and t = 3 apply the rotation twice and three times; t = 1.5
     // turns by one and a half times the angle.
    std::mt19937_64 rng(3);
    for (int n = 0; n < 100; ++n) {
      double angle = 0;
      Vector axis;
      const Matrix m = RandomRotation(rng, &angle, &axis);
      const Quaternion q = QuaternionOfAxes(m);
      const std::pair<double, Matrix> cases[] = {
          {2.0, m * m}, {3.0, m * m * m}, {1.5, AxisRotation(axis, 1.5 * angle)}};
      for (const auto& [t, expected] : cases) {
        const Result<Quaternion> blended = QuaternionBlend(identity, q, t);
        ASSERT_TRUE(blended);
        EXPECT_TRUE(MatrixNear(RotationOf(blended.value()), expected, kTol)) << n << " t " << t;
      }
    }
  }
  {  // Below 0 the operands swap; with the reciprocal left unconjugated (deliberately) -0.5 from
     // the identity lands on the same rotation as 1.5, not on the reverse turn.
    const Vector axis{0, 0.6, 0.8};
    const Quaternion q = QuaternionOfAxes(AxisRotation(axis, 0.8));
    const Result<Quaternion> back = QuaternionBlend(identity, q, -0.5);
    ASSERT_TRUE(back);
    EXPECT_TRUE(MatrixNear(RotationOf(back.value()), AxisRotation(axis, 1.2), kTol));
    // With unnormalised, non-commuting operands the swap is visible.
    const Quaternion a{0.2, -0.5, 0.1, 1.3};
    const Quaternion b{-0.3, 0.4, 0.6, 0.7};
    const Result<Quaternion> swapped = QuaternionBlend(a, b, -0.5);
    ASSERT_TRUE(swapped);
    EXPECT_EQ(swapped.value(), QuaternionBlend(b, a, 1.5).value());
    EXPECT_FALSE(QuaternionNear(swapped.value(), QuaternionBlend(a, b, 1.5).value(), 1e-3));
  }
  {  // Inner errors come back with the zero quaternion: a q1 whose squared norm underflows to
     // zero has no reciprocal (directly at t = 2, one level down at t = 4), and an infinite
     // parameter is rejected instead of being halved forever.
    const Quaternion tiny{0, 0, 0, 1e-200};
    ExpectQuaternionError(QuaternionBlend(tiny, {0, 0, 0, 1}, 2.0), ErrorKind::kIllegalState,
                          "Length of quaternion is zero.");
    ExpectQuaternionError(
        QuaternionBlend(identity, {0, 0, 0, 1}, std::numeric_limits<double>::infinity()),
        ErrorKind::kIllegalArgument, "Blend parameter outside [0.0, 1.0] range.");
  }
}

}  // namespace
}  // namespace tarni::ca
