// The matrix product runs on paired lanes outside constant evaluation; it must give exactly the
// scalar formula's values, which constant evaluation computes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "support/randommatrix.h"
#include "tarni/math.h"

namespace tarni {
namespace {

// The product as the framework writes it: TransformPoint for the offset, TransformVector for the
// axes, one scalar at a time.
constexpr Matrix ScalarProduct(const Matrix& a, const Matrix& b) {
  return {TransformPoint(a, b.off), TransformVector(a, b.v1), TransformVector(a, b.v2),
          TransformVector(a, b.v3)};
}

// Bit for bit, except that any NaN matches any NaN: which operand's NaN an operation passes on
// is the compiler's choice of operand order, in the scalar formula as in the lanes.
::testing::AssertionResult SameBits(const Matrix& a, const Matrix& b) {
  const Vector* left[] = {&a.off, &a.v1, &a.v2, &a.v3};
  const Vector* right[] = {&b.off, &b.v1, &b.v2, &b.v3};
  for (int v = 0; v < 4; ++v) {
    const double l[] = {left[v]->x, left[v]->y, left[v]->z};
    const double r[] = {right[v]->x, right[v]->y, right[v]->z};
    for (int c = 0; c < 3; ++c) {
      if (std::isnan(l[c]) && std::isnan(r[c])) continue;
      if (std::memcmp(&l[c], &r[c], sizeof(double)) != 0)
        return ::testing::AssertionFailure()
               << "vector " << v << " component " << c << ": " << l[c] << " against " << r[c];
    }
  }
  return ::testing::AssertionSuccess();
}

TEST(MatrixProduct, PairedLanesGiveTheScalarFormulaBitForBit) {
  std::mt19937_64 random(7);
  // Random operands, and operands whose sums round differently in any other order.
  for (int k = 0; k < 400; ++k) {
    const Matrix a = testing::RandomMatrix(random);
    Matrix b = testing::RandomMatrix(random);
    if (k % 2 == 1) b.v2 = b.v2 * 1e-17;
    if (k % 3 == 2) b.off = b.off * 1e17;
    EXPECT_TRUE(SameBits(a * b, ScalarProduct(a, b))) << "pair " << k;
  }
  // Negative zeros keep their sign where the formula keeps it; infinities and NaN pass through
  // each lane as through the scalar operations.
  const double inf = std::numeric_limits<double>::infinity();
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Matrix a{{-0.0, 0.0, -0.0}, {-0.0, 1, 0}, {0, -0.0, 1}, {1, 0, -0.0}};
  const Matrix b{{0.0, -0.0, -0.0}, {-1, -0.0, 0}, {-0.0, 1, -0.0}, {0, 0, -1}};
  const Matrix c{{inf, 1, -inf}, {nan, 0, 1}, {0, inf, 0}, {-0.0, 0, -inf}};
  for (const Matrix& left : {a, b, c}) {
    for (const Matrix& right : {a, b, c})
      EXPECT_TRUE(SameBits(left * right, ScalarProduct(left, right)));
  }
  // Constant evaluation takes the scalar formula itself.
  constexpr Matrix kA{{1, 2, 3}, {0.1, 0.7, -0.3}, {0.2, -0.5, 0.9}, {-0.6, 0.4, 0.3}};
  constexpr Matrix kB{{-2, 0.5, 4}, {0.3, 0.3, 0.1}, {-0.7, 0.2, 0.6}, {0.25, -0.8, 0.5}};
  constexpr Matrix kProduct = kA * kB;
  EXPECT_TRUE(SameBits(kProduct, kA * kB));
}

}  // namespace
}  // namespace tarni
