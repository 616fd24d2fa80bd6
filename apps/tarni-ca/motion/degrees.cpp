#include "motion/degrees.h"

#include <bit>
#include <cmath>
#include <cstdint>

namespace tarni::host {
namespace {

// pi / 180 and 180 / pi, each as the sum of two doubles, so the first-order term of a series
// carries the constant to twice the precision. The first term alone would cost up to half a unit
// in the last place.
constexpr double kRadiansHi = 0x1.1df46a2529d39p-6;
constexpr double kRadiansLo = 0x1.5c1d8becdd291p-62;
constexpr double kDegreesHi = 0x1.ca5dc1a63c1f8p+5;
constexpr double kDegreesLo = -0x1.1e7ab456405f9p-49;

// atan(i / 8) in degrees for i = 0 ... 8, each as the sum of two doubles.
constexpr double kAtanEighthsHi[9] = {
    0.0,
    0x1.c80044927fe83p+2,
    0x1.c128e80fae02ep+3,
    0x1.48e58fac13547p+4,
    0x1.a90a731a61dc4p+4,
    0x1.000b0659f5545p+5,
    0x1.26f58ce59e23cp+5,
    0x1.497cc65551cf8p+5,
    45.0,
};
constexpr double kAtanEighthsLo[9] = {
    0.0,
    -0x1.2a9346eb4b87bp-53,
    -0x1.0fc10e257c651p-53,
    0x1.bdef92fae944fp-51,
    -0x1.80b27b26e182bp-51,
    0x1.0e62435c62f2fp-49,
    0x1.80b27b26e182bp-50,
    -0x1.2dd089737cc28p-49,
    0.0,
};

// base + sign * atan(i / 8) for each of the four ways a point's angle is built from the angle of
// its smaller coordinate over its larger one: entry 9 * octant + i of kOctantHi, with the
// rounding error of the sum in kOctantLo. Two flat tables of doubles, which a loop running
// several pairs at once can gather from.
struct Octant {
  double base;
  double sign;
};
constexpr Octant kOctants[4] = {
    {0.0, 1.0},     // |y| <= |x|, x >= 0: a
    {90.0, -1.0},   // |y| > |x|, x >= 0: 90 - a
    {180.0, -1.0},  // |y| <= |x|, x < 0: 180 - a
    {90.0, 1.0},    // |y| > |x|, x < 0: 180 - (90 - a)
};
struct OctantTable {
  double at[36];
};
// hi: the sums rounded; lo: their rounding errors, exactly (two-sum), plus sign * atan's own lo.
constexpr OctantTable OctantAngles(bool lo) {
  OctantTable table{};
  for (int octant = 0; octant < 4; ++octant) {
    for (int eighth = 0; eighth < 9; ++eighth) {
      const double a = kOctants[octant].base;
      const double b = kOctants[octant].sign * kAtanEighthsHi[eighth];
      const double sum = a + b;
      const double bPart = sum - a;
      const double error = (a - (sum - bPart)) + (b - bPart);
      table.at[9 * octant + eighth] =
          lo ? error + kOctants[octant].sign * kAtanEighthsLo[eighth] : sum;
    }
  }
  return table;
}
constexpr OctantTable kOctantHi = OctantAngles(false);
constexpr OctantTable kOctantLo = OctantAngles(true);

// Beyond this magnitude the quotient by 90 no longer gives an exact whole number of quarter
// turns cheaply; such angles (never met in motion data) are first brought below one turn.
constexpr double kLargeDegrees = 0x1p40;

// c[0] + z (c[1] + z (c[2] + ...)), unrolled.
template <typename... Rest>
[[gnu::always_inline]] inline double Horner(double z, double c0, Rest... rest) {
  if constexpr (sizeof...(rest) == 0) {
    return c0;
  } else {
    return c0 + z * Horner(z, rest...);
  }
}

// The rounding error of the product p = a * b, exactly: a and b are split into halves whose
// products are exact (Dekker), so this needs no fused multiply-add.
[[gnu::always_inline]] inline double ProductError(double a, double b, double p) {
  constexpr double kSplit = 0x1p27 + 1.0;
  const double ta = kSplit * a;
  const double aHi = ta - (ta - a);
  const double aLo = a - aHi;
  const double tb = kSplit * b;
  const double bHi = tb - (tb - b);
  const double bLo = b - bHi;
  return ((aHi * bHi - p) + aHi * bLo + aLo * bHi) + aLo * bLo;
}

// SinCosDegrees for |degrees| <= kLargeDegrees, without branches so that a loop of it runs
// several angles at a time.
[[gnu::always_inline]] inline Turn SinCosInRange(double degrees) {
  // degrees = 90 n + r with |r| <= 45 (a little more when the quotient rounds across a half),
  // exactly: n * 90 is a whole number below 2^47 and r a multiple of the angle's last place.
  const double n = std::nearbyint(degrees * (1.0 / 90.0));
  const double r = degrees - n * 90.0;
  const int64_t quarter = static_cast<int64_t>(n) & 3;
  // x + dx is r in radians to about twice the precision of a double.
  const double x = r * kRadiansHi;
  const double dx = ProductError(r, kRadiansHi, x) + r * kRadiansLo;
  const double z = x * x;
  // Taylor series to the x^17 and x^16 terms: beyond them the terms stay below 2^-60 for
  // |x| <= pi/4.
  const double sinTail =
      z * Horner(z, -1.0 / 6, 1.0 / 120, -1.0 / 5040, 1.0 / 362880, -1.0 / 39916800,
                 1.0 / 6227020800, -1.0 / 1307674368000, 1.0 / 355687428096000);
  const double s = x + (dx + x * sinTail);
  // cos(x + dx) = 1 - z/2 + z^2 (1/24 - ...) - x dx. 1 - z/2 is formed with its rounding error
  // and z with its own, the two largest roundings in the sum.
  const double zError = ProductError(x, x, z);
  const double halfZ = 0.5 * z;
  const double w = 1.0 - halfZ;
  const double cosTail = z * z *
                         Horner(z, 1.0 / 24, -1.0 / 720, 1.0 / 40320, -1.0 / 3628800,
                                1.0 / 479001600, -1.0 / 87178291200, 1.0 / 20922789888000);
  const double c = w + (((1.0 - w) - halfZ) + (cosTail - (0.5 * zError + x * dx)));
  // Turned by the quarters: (c, s), (-s, c), (-c, -s), (s, -c).
  const bool odd = (quarter & 1) != 0;
  const double cosine = (odd ? s : c) * ((quarter == 1 || quarter == 2) ? -1.0 : 1.0);
  const double sine = (odd ? c : s) * ((quarter & 2) != 0 ? -1.0 : 1.0);
  // At whole quarter turns r is +0, the sine or cosine is exactly +-0, and the signs are settled
  // here: a zero cosine is +0, a zero sine takes the angle's sign, as sin(180) and sin(-180) do
  // in the C library's radians (+-1.2e-16), so a half turn read back by atan2 gives the angle it
  // was made from.
  return {cosine + 0.0, sine == 0.0 ? std::copysign(0.0, degrees) : sine};
}

// Atan2Degrees for finite x and y, without branches so that a loop of it runs several pairs at a
// time.
[[gnu::always_inline]] inline double Atan2Finite(double y, double x) {
  const double ax = std::fabs(x);
  const double ay = std::fabs(y);
  // t: the smaller coordinate over the larger, in [0, 1]; rest: num - t * den, the rest of the
  // quotient (exact: t * den is within a unit of num), so the angle does not inherit the
  // quotient's rounding. For (0, 0) den is taken as 1, so t and rest are 0: the division is
  // always done, as a loop running several pairs at once does it.
  const bool steep = ay > ax;
  const double num = steep ? ax : ay;
  const double den = steep ? ay : (ax > 0.0 ? ax : 1.0);
  const double t = num / den;
  const double product = t * den;
  const double rest = (num - product) - ProductError(t, den, product);
  // atan(t) = atan(c) + atan(u) with c the eighth at or below t and u = (t - c) / (1 + t c), so
  // 0 <= u < 1/8: the series needs terms to u^21, and adding atan(u) never cancels digits of
  // atan(c). t - c is exact.
  const int eighth = static_cast<int>(t * 8.0);
  const double c = eighth * 0.125;
  const double u = (t - c) / (1.0 + t * c);
  const double z = u * u;
  const double tail = z * Horner(z, -1.0 / 3, 1.0 / 5, -1.0 / 7, 1.0 / 9, -1.0 / 11, 1.0 / 13,
                                 -1.0 / 15, 1.0 / 17, -1.0 / 19, 1.0 / 21);
  // atan(u) in degrees, its leading product kept with its rounding error, plus what the rest of
  // the quotient adds: d atan(t) = dt / (1 + t^2), with dt = rest / den.
  const double lead = u * kDegreesHi;
  const double smallRest = ProductError(u, kDegreesHi, lead) + u * kDegreesLo + lead * tail +
                           kDegreesHi * (rest / (den * (1.0 + t * t)));
  // x's sign bit read as an integer's sign: the same as signbit, which loops cannot vectorize.
  const bool negative = std::bit_cast<int64_t>(x) < 0;
  const int octant = (steep ? 1 : 0) + (negative ? 2 : 0);
  const int64_t entry = 9 * octant + eighth;
  const double sign = (octant == 1 || octant == 2) ? -1.0 : 1.0;
  const double angle =
      kOctantHi.at[entry] + (sign * lead + (sign * smallRest + kOctantLo.at[entry]));
  return std::copysign(angle, y);
}

}  // namespace

Turn SinCosDegrees(double degrees) {
  if (std::fabs(degrees) <= kLargeDegrees) return SinCosInRange(degrees);
  const double turn = std::fmod(degrees, 360.0);  // exact; infinities and NaN give NaN
  if (std::isnan(turn)) return {turn, turn};
  const Turn result = SinCosInRange(turn);
  return {result.c, result.s == 0.0 ? std::copysign(0.0, degrees) : result.s};
}

void SinCosDegrees(const double* degrees, size_t count, double* cosines, double* sines) {
  bool inRange = true;
  for (size_t i = 0; i < count; ++i) inRange &= std::fabs(degrees[i]) <= kLargeDegrees;
  if (!inRange) {
    for (size_t i = 0; i < count; ++i) {
      const Turn turn = SinCosDegrees(degrees[i]);
      cosines[i] = turn.c;
      sines[i] = turn.s;
    }
    return;
  }
  for (size_t i = 0; i < count; ++i) {
    const Turn turn = SinCosInRange(degrees[i]);
    cosines[i] = turn.c;
    sines[i] = turn.s;
  }
}

double Atan2Degrees(double y, double x) {
  if (!std::isfinite(x) || !std::isfinite(y)) return std::atan2(y, x) * (kDegreesHi + kDegreesLo);
  return Atan2Finite(y, x);
}

void Atan2Degrees(const double* y, const double* x, size_t count, double* degrees) {
  bool finite = true;
  for (size_t i = 0; i < count; ++i) finite &= std::isfinite(x[i]) && std::isfinite(y[i]);
  if (!finite) {
    for (size_t i = 0; i < count; ++i) degrees[i] = Atan2Degrees(y[i], x[i]);
    return;
  }
  for (size_t i = 0; i < count; ++i) degrees[i] = Atan2Finite(y[i], x[i]);
}

}  // namespace tarni::host
