#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "motion/degrees.h"

namespace tarni::host {
namespace {

constexpr long double kPi = 3.141592653589793238462643383279502884L;

// |got - want| in units in the last place of want rounded to a double; a NaN is infinitely far,
// so that taking the worst of several never passes over it.
double Ulps(double got, long double want) {
  if (std::isnan(got)) return INFINITY;
  const double rounded = static_cast<double>(want);
  const double ulp = std::nextafter(std::fabs(rounded), INFINITY) - std::fabs(rounded);
  return static_cast<double>(std::fabs(static_cast<long double>(got) - want) / ulp);
}

// The sine and cosine of `degrees` in the wider type, reduced by quarter turns first (exactly, in
// doubles), so the reference stays accurate next to the zeros too.
void Reference(double degrees, long double& sine, long double& cosine) {
  const double n = std::nearbyint(degrees / 90.0);
  const double r = degrees - n * 90.0;
  const long double x = static_cast<long double>(r) * kPi / 180.0L;
  const long double s = std::sin(x);
  const long double c = std::cos(x);
  switch (static_cast<int64_t>(n) & 3) {
    case 0:
      sine = s, cosine = c;
      break;
    case 1:
      sine = c, cosine = -s;
      break;
    case 2:
      sine = -s, cosine = -c;
      break;
    default:
      sine = -c, cosine = s;
  }
}

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(Degrees, SineAndCosineStayWithinAUnitInTheLastPlace) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  double worstSine = 0.0, worstCosine = 0.0;
  for (int i = 0; i < 400000; ++i) {
    double degrees = 720.0 * unit(random);
    if (i % 4 == 1) degrees = std::ldexp(unit(random), -static_cast<int>(random() % 60));
    if (i % 4 == 2) degrees = std::nearbyint(degrees) + 0.5;  // half degrees, often in files
    if (i % 4 == 3) degrees = 90.0 * std::nearbyint(degrees / 90.0) + 1e-9 * unit(random);
    long double sine, cosine;
    Reference(degrees, sine, cosine);
    const Turn turn = SinCosDegrees(degrees);
    if (sine != 0.0L) worstSine = std::max(worstSine, Ulps(turn.s, sine));
    if (cosine != 0.0L) worstCosine = std::max(worstCosine, Ulps(turn.c, cosine));
  }
  // The ends of the reduced range, where the argument of the series is largest and the quarter
  // turns meet: odd multiples of 45 degrees and angles a few units in the last place either side.
  for (int k = -9; k <= 9; k += 2) {
    double degrees = 45.0 * k;
    for (int step = 0; step < 6; ++step) degrees = std::nextafter(degrees, -INFINITY);
    for (int step = 0; step < 12; ++step) {
      degrees = std::nextafter(degrees, INFINITY);
      long double sine, cosine;
      Reference(degrees, sine, cosine);
      const Turn turn = SinCosDegrees(degrees);
      worstSine = std::max(worstSine, Ulps(turn.s, sine));
      worstCosine = std::max(worstCosine, Ulps(turn.c, cosine));
    }
  }
  EXPECT_LE(worstSine, 1.0);
  EXPECT_LE(worstCosine, 1.0);
}

TEST(Degrees, QuarterTurnsAreExactAndZerosSigned) {
  for (int k = -9; k <= 9; ++k) {
    const double degrees = 90.0 * k;
    const Turn turn = SinCosDegrees(degrees);
    const int quarter = ((k % 4) + 4) % 4;
    const double cosines[4] = {1.0, 0.0, -1.0, 0.0};
    const double sines[4] = {std::copysign(0.0, degrees), 1.0, std::copysign(0.0, degrees), -1.0};
    EXPECT_TRUE(SameBits(turn.c, cosines[quarter])) << degrees << " " << turn.c;
    EXPECT_TRUE(SameBits(turn.s, sines[quarter])) << degrees << " " << turn.s;
  }
  EXPECT_TRUE(SameBits(SinCosDegrees(-0.0).s, -0.0));
  EXPECT_TRUE(SameBits(SinCosDegrees(0.0).s, 0.0));
  // Whole turns away the reduction is exact, so the bits repeat; far out, past the quotient's
  // exact range, the angle is first brought below a turn, still exactly.
  for (const double degrees : {12.375, -33.25, 44.5, 89.875}) {
    for (const double turns : {1.0, -3.0, 1000.0, 0x1p40}) {
      const double far = degrees + 360.0 * turns;
      EXPECT_TRUE(SameBits(SinCosDegrees(far).s, SinCosDegrees(std::fmod(far, 360.0)).s)) << far;
      EXPECT_TRUE(SameBits(SinCosDegrees(far).c, SinCosDegrees(degrees).c)) << far;
    }
  }
  for (const double bad : {INFINITY, -INFINITY, NAN}) {
    EXPECT_TRUE(std::isnan(SinCosDegrees(bad).c));
    EXPECT_TRUE(std::isnan(SinCosDegrees(bad).s));
  }
}

TEST(Degrees, Atan2StaysWithinOneAndAHalfUnitsAndKeepsTheLibrarysSpecialValues) {
  std::mt19937_64 random(11);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  double worst = 0.0;
  for (int i = 0; i < 400000; ++i) {
    double y = unit(random), x = unit(random);
    if (i % 3 == 1) y = std::ldexp(y, -static_cast<int>(random() % 50));
    if (i % 3 == 2) x = std::ldexp(x, -static_cast<int>(random() % 50));
    const long double want =
        std::atan2(static_cast<long double>(y), static_cast<long double>(x)) * 180.0L / kPi;
    worst = std::max(worst, Ulps(Atan2Degrees(y, x), want));
  }
  // Points far out, up to the largest doubles, where a coordinate times the factor that splits it
  // into halves would overflow.
  for (int i = 0; i < 2000; ++i) {
    const double scale = std::ldexp(1.0, 960 + static_cast<int>(random() % 64));
    const double y = scale * unit(random), x = scale * unit(random);
    const long double want =
        std::atan2(static_cast<long double>(y), static_cast<long double>(x)) * 180.0L / kPi;
    worst = std::max(worst, Ulps(Atan2Degrees(y, x), want));
  }
  EXPECT_LE(worst, 1.5);

  // Exact where the angle is a whole number of eighths of a right angle's tangent grid ...
  EXPECT_EQ(Atan2Degrees(1.0, 0.0), 90.0);
  EXPECT_EQ(Atan2Degrees(-1.0, 0.0), -90.0);
  EXPECT_EQ(Atan2Degrees(1.0, 1.0), 45.0);
  EXPECT_EQ(Atan2Degrees(-2.0, -2.0), -135.0);
  EXPECT_EQ(Atan2Degrees(0.0, -1.0), 180.0);
  // ... and the signed zeros and infinities of atan2 itself.
  EXPECT_TRUE(SameBits(Atan2Degrees(-0.0, 1.0), -0.0));
  EXPECT_TRUE(SameBits(Atan2Degrees(0.0, 0.0), 0.0));
  EXPECT_TRUE(SameBits(Atan2Degrees(-0.0, 0.0), -0.0));
  EXPECT_EQ(Atan2Degrees(0.0, -0.0), 180.0);
  EXPECT_EQ(Atan2Degrees(-0.0, -0.0), -180.0);
  EXPECT_EQ(Atan2Degrees(-0.0, -1.0), -180.0);
  EXPECT_EQ(Atan2Degrees(INFINITY, INFINITY), 45.0);
  EXPECT_EQ(Atan2Degrees(1.0, -INFINITY), 180.0);
  EXPECT_EQ(Atan2Degrees(-std::numeric_limits<double>::max(), -std::numeric_limits<double>::max()),
            -135.0);
  EXPECT_TRUE(std::isnan(Atan2Degrees(NAN, 1.0)));
  // A quarter turn made by SinCosDegrees reads back exactly.
  for (const double degrees : {-180.0, -90.0, 0.0, 90.0, 180.0}) {
    const Turn turn = SinCosDegrees(degrees);
    EXPECT_TRUE(SameBits(Atan2Degrees(turn.s, turn.c), degrees)) << degrees;
  }
}

TEST(Degrees, Atan2IsRoundedToNearestOnItsTableStepsAndStaysCloseJustBelowThem) {
  // The smaller coordinate over the larger is split at multiples of 1/64, whose arctangents come
  // from a table of two doubles each. On a step the angle is the table's entry alone, so it must
  // round to nearest (give or take the reference's own error); just below a step the rest of the
  // angle is at its largest. Every step in each of the eight ways a point's coordinates can be
  // signed and ordered.
  double worstOn = 0.0, worstBelow = 0.0;
  for (int step = 0; step <= 64; ++step) {
    for (int way = 0; way < 8; ++way) {
      const double sx = (way & 1) != 0 ? -1.0 : 1.0;
      const double sy = (way & 2) != 0 ? -1.0 : 1.0;
      const bool steep = (way & 4) != 0;
      const auto check = [&](double smaller, double& worst) {
        const double larger = 0.375 * 64;
        const double x = sx * (steep ? smaller : larger);
        const double y = sy * (steep ? larger : smaller);
        const long double want =
            std::atan2(static_cast<long double>(y), static_cast<long double>(x)) * 180.0L / kPi;
        const double got = Atan2Degrees(y, x);
        if (want == 0.0L) {
          EXPECT_EQ(got, 0.0) << y << " " << x;
          return;
        }
        worst = std::max(worst, Ulps(got, want));
      };
      const double on = 0.375 * step;
      check(on, worstOn);
      if (step == 0) continue;
      check(std::nextafter(on, 0.0), worstBelow);
      check(std::nextafter(std::nextafter(std::nextafter(on, 0.0), 0.0), 0.0), worstBelow);
      check(on * (1.0 - 1e-9), worstBelow);
      check(on * (1.0 - 1.0 / 256), worstBelow);
    }
  }
  EXPECT_LE(worstOn, 0.5 + 1.0 / 64);
  EXPECT_LE(worstBelow, 1.5);
}

TEST(Degrees, RowsGiveTheSameBitsAsSingleCalls) {
  // Lengths around the vector widths, so that both the wide loop and its remainder run, and rows
  // with an angle out of the fast range or a pair that is not finite or too large to split, which
  // take the single path.
  std::mt19937_64 random(3);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  for (const size_t count : {1u, 3u, 7u, 8u, 9u, 31u, 96u}) {
    for (int variant = 0; variant < 4; ++variant) {
      std::vector<double> angles(count), y(count), x(count);
      for (size_t i = 0; i < count; ++i) {
        angles[i] = 400.0 * unit(random);
        y[i] = unit(random);
        x[i] = unit(random);
      }
      const double outlierAngle[4] = {angles[count / 2], 1e300, NAN, 0x1p40 + 0.5};
      const double outlierX[4] = {x[count - 1], -INFINITY, NAN, -1e308};
      angles[count / 2] = outlierAngle[variant];
      x[count - 1] = outlierX[variant];
      std::vector<double> cosines(count), sines(count), atan2s(count);
      SinCosDegrees(angles.data(), count, cosines.data(), sines.data());
      Atan2Degrees(y.data(), x.data(), count, atan2s.data());
      for (size_t i = 0; i < count; ++i) {
        const Turn turn = SinCosDegrees(angles[i]);
        EXPECT_TRUE(SameBits(cosines[i], turn.c)) << count << " " << i;
        EXPECT_TRUE(SameBits(sines[i], turn.s)) << count << " " << i;
        EXPECT_TRUE(SameBits(atan2s[i], Atan2Degrees(y[i], x[i]))) << count << " " << i;
      }
    }
  }
}

}  // namespace
}  // namespace tarni::host
