#include "motion/degrees.h"

#include <algorithm>
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

// A double as the sum of a high half of 26 significant bits and a low half of at most 26 more
// (Veltkamp): the product of two such halves is exact, without a fused multiply-add.
struct Halves {
  double hi;
  double lo;
};
[[gnu::always_inline]] constexpr Halves Split(double a) {
  constexpr double kSplit = 0x1p27 + 1.0;
  const double t = kSplit * a;
  const double hi = t - (t - a);
  return {hi, a - hi};
}

// 180 / pi as a high half and the rest: a number's high half times the high half is the exact
// first part of the number converted, and its low half times the high half (exact) plus the
// number times the rest (rounded, some 2^-80 of the whole) the remainder. Fewer operations than
// the rounding error of the whole product.
constexpr double kDegreesHalf = Split(kDegreesHi).hi;
constexpr double kDegreesRest = Split(kDegreesHi).lo + kDegreesLo;

// atan(i / 64) in degrees for i = 0 ... 64, each as the sum of two doubles. Steps of 1/64 leave
// the series for the rest of the angle five terms, against eleven for steps of 1/8.
constexpr double kAtanSteps = 64.0;
constexpr double kAtanHi[65] = {
    0.0,
    0x1.ca54356330eb5p-1,
    0x1.ca3794e52e2a8p+0,
    0x1.5785f1c5de44cp+1,
    0x1.c9c55326164cfp+1,
    0x1.1de5ef1eac9b6p+2,
    0x1.56c5d6668a4b3p+2,
    0x1.8f7b8650a52c1p+2,
    0x1.c80044927fe83p+2,
    0x1.0026bd21ed72dp+3,
    0x1.1c2e5c194d0b0p+3,
    0x1.3813dd78a3207p+3,
    0x1.53d4374d3c2a3p+3,
    0x1.6f6c792233213p+3,
    0x1.8ad9cd905cd23p+3,
    0x1.a6197ba2e6432p+3,
    0x1.c128e80fae02ep+3,
    0x1.dc059642d780ap+3,
    0x1.f6ad293d8a981p+3,
    0x1.088eb2241f5ccp+4,
    0x1.15aa15bcab87ep+4,
    0x1.22a7c208994d1p+4,
    0x1.2f86ca5693b95p+4,
    0x1.3c4652a9955f2p+4,
    0x1.48e58fac13547p+4,
    0x1.5563c6919a8b4p+4,
    0x1.61c04ce8103cap+4,
    0x1.6dfa8859d6535p+4,
    0x1.7a11ee6220071p+4,
    0x1.860603f4c96a8p+4,
    0x1.91d65d1b06e47p+4,
    0x1.9d829c863fc6ep+4,
    0x1.a90a731a61dc4p+4,
    0x1.b46d9f70f341ep+4,
    0x1.bfabed561cab5p+4,
    0x1.cac53540d8a5ep+4,
    0x1.d5b95bc765110p+4,
    0x1.e08851110321cp+4,
    0x1.eb32104600588p+4,
    0x1.f5b69efef01ebp+4,
    0x1.000b0659f5545p+5,
    0x1.05283916493e1p+5,
    0x1.0a32f878c76f4p+5,
    0x1.0f2b59600b557p+5,
    0x1.141174800a666p+5,
    0x1.18e5661eaf096p+5,
    0x1.1da74dd22fa17p+5,
    0x1.22574e414d420p+5,
    0x1.26f58ce59e23cp+5,
    0x1.2b8231d001017p+5,
    0x1.2ffd676f50180p+5,
    0x1.34675a5964a4ap+5,
    0x1.38c03916765b8p+5,
    0x1.3d0833eedd7a3p+5,
    0x1.413f7cbb39bbep+5,
    0x1.456646b6fc992p+5,
    0x1.497cc65551cf8p+5,
    0x1.4d8331185e338p+5,
    0x1.5179bd6aca3a8p+5,
    0x1.5560a27b8b76ap+5,
    0x1.5938181bde651p+5,
    0x1.5d00569f60689p+5,
    0x1.60b996be388b1p+5,
    0x1.646411793cab5p+5,
    45.0,
};
constexpr double kAtanLo[65] = {
    0.0,
    0x1.3166fe8a5f0edp-55,
    -0x1.b18cf3a9c5ff0p-54,
    0x1.222a4e26a449dp-54,
    -0x1.88708ff33aabap-55,
    -0x1.efd3ef1b5dd25p-53,
    -0x1.fed98a21ac307p-53,
    -0x1.0073a87a53093p-57,
    -0x1.2a9346eb4b87bp-53,
    0x1.8731e8d4a7a1ep-52,
    0x1.6109e7ac86fa3p-51,
    -0x1.b782805c9e76cp-51,
    0x1.c5b7fa992d71fp-52,
    0x1.f6b4a6941216ap-53,
    -0x1.aa32691274d02p-51,
    -0x1.fc381b40d90d1p-51,
    -0x1.0fc10e257c651p-53,
    0x1.5b8ff72c7405dp-53,
    0x1.8ffa0b91f5008p-51,
    0x1.6a57af8628727p-51,
    0x1.2f23fe5f78d35p-52,
    0x1.dea533ead0f89p-51,
    -0x1.921d12e9bd286p-51,
    0x1.1bcbb4b7c1cdep-50,
    0x1.bdef92fae944fp-51,
    0x1.bcab4b30ae7bep-50,
    0x1.cb0f408701ac7p-51,
    0x1.ea3f212fa9871p-52,
    -0x1.63c539bb8dcc2p-55,
    0x1.bceb93ba4acd2p-51,
    0x1.bba81c7320b23p-51,
    -0x1.4c44c990afd8bp-50,
    -0x1.80b27b26e182bp-51,
    0x1.69d883300e647p-50,
    -0x1.4f228abff8141p-50,
    0x1.780766b724e95p-51,
    0x1.6f006acd20fc1p-52,
    -0x1.67642f039c3f8p-50,
    -0x1.cdc8f191d54cdp-50,
    -0x1.25da7435ce364p-50,
    0x1.0e62435c62f2fp-49,
    -0x1.3173f1f52bb47p-49,
    0x1.ef68cf8c9d5bbp-49,
    0x1.5ccd879f582eep-53,
    0x1.e004defca5108p-50,
    -0x1.f6fb3f7dadf36p-51,
    -0x1.38573f69caa41p-51,
    -0x1.edc775f88110ap-49,
    0x1.80b27b26e182bp-50,
    0x1.0443afc9c577ap-50,
    0x1.1391e62807a10p-50,
    -0x1.5f6f933d393cdp-49,
    0x1.50a2d34ee7050p-49,
    0x1.9dc7bce4324e9p-50,
    0x1.cb329a1df12d3p-49,
    0x1.f54dfd08543bfp-50,
    -0x1.2dd089737cc28p-49,
    -0x1.fc3210ee74285p-52,
    0x1.67cc66a04f573p-49,
    -0x1.554bda8ab6ccdp-49,
    0x1.ea28ab192aaf3p-51,
    0x1.9af83be845712p-49,
    -0x1.c843a99069d6dp-51,
    0x1.af4ff0274e33cp-49,
    0.0,
};

// base + sign * atan(i / 64) for each of the four ways a point's angle is built from the angle of
// its smaller coordinate over its larger one: entry 65 * octant + i of kOctantHi, with the
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
  double at[4 * 65];
};
// hi: the sums rounded; lo: their rounding errors, exactly (two-sum), plus sign * atan's own lo.
constexpr OctantTable OctantAngles(bool lo) {
  OctantTable table{};
  for (int octant = 0; octant < 4; ++octant) {
    for (int step = 0; step <= 64; ++step) {
      const double a = kOctants[octant].base;
      const double b = kOctants[octant].sign * kAtanHi[step];
      const double sum = a + b;
      const double bPart = sum - a;
      const double error = (a - (sum - bPart)) + (b - bPart);
      table.at[65 * octant + step] = lo ? error + kOctants[octant].sign * kAtanLo[step] : sum;
    }
  }
  return table;
}
constexpr OctantTable kOctantHi = OctantAngles(false);
constexpr OctantTable kOctantLo = OctantAngles(true);

// Beyond this magnitude the quotient by 90 no longer gives an exact whole number of quarter
// turns cheaply; such angles (never met in motion data) are first brought below one turn.
constexpr double kLargeDegrees = 0x1p40;

// Beyond this magnitude a coordinate times the splitting factor overflows (a product's rounding
// error is taken from halves); such points (never met in motion data) are first scaled down by a
// power of two, which leaves their angle as it is.
constexpr double kLargeCoordinate = 0x1p996;

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
  const Halves ah = Split(a);
  const Halves bh = Split(b);
  return ((ah.hi * bh.hi - p) + ah.hi * bh.lo + ah.lo * bh.hi) + ah.lo * bh.lo;
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
  // always done, as a loop running several pairs at once does it. num and den are the minimum
  // and maximum rather than choices by `steep`, for which the compiler divides once per choice.
  const bool steep = ay > ax;
  const double num = std::min(ax, ay);
  const double larger = std::max(ax, ay);
  const double den = larger > 0.0 ? larger : 1.0;
  const double t = num / den;
  const double product = t * den;
  const double rest = (num - product) - ProductError(t, den, product);
  // atan(t) = atan(c) + atan(u) with c the multiple of 1/64 at or below t and
  // u = (t - c) / (1 + t c), so 0 <= u < 1/64: the series needs terms to u^9 (the next stays
  // below 2^-63 u), and adding atan(u) never cancels digits of atan(c). t - c is exact.
  const int64_t step = static_cast<int64_t>(t * kAtanSteps);
  const double c = step * (1.0 / kAtanSteps);
  const double tc = t * c;
  const double d = 1.0 + tc;
  const double u = (t - c) / d;
  // The rounding error of d, exactly (tc <= 1): u falls short of (t - c) / (1 + t c) by about
  // u * dError. Where it matters, for the first steps, u is up to half the angle.
  const double dError = (1.0 - d) + tc;
  const double z = u * u;
  const double tail = z * Horner(z, -1.0 / 3, 1.0 / 5, -1.0 / 7, 1.0 / 9);
  // atan(u) in degrees: u * kDegreesHi in an exact lead and the remainder, the series' tail, and
  // what the rest of the quotient adds: d atan(t) = dt / (1 + t^2), with dt = rest / den.
  const Halves uh = Split(u);
  const double lead = uh.hi * kDegreesHalf;
  const double smallRest = (uh.lo * kDegreesHalf + u * kDegreesRest) +
                           (u * kDegreesHi) * (tail - dError) +
                           kDegreesHi * (rest / (den * (1.0 + t * t)));
  // x's sign bit read as an integer's sign: the same as signbit, which loops cannot vectorize.
  const int64_t negative = static_cast<int64_t>(std::bit_cast<uint64_t>(x) >> 63);
  const int64_t octant = (steep ? int64_t{1} : int64_t{0}) + 2 * negative;
  const int64_t entry = 65 * octant + step;
  const double sign = (octant == 1 || octant == 2) ? -1.0 : 1.0;
  const double angle =
      kOctantHi.at[entry] + (sign * lead + (sign * smallRest + kOctantLo.at[entry]));
  return std::copysign(angle, y);
}

// The bits of |value|: for doubles that are not NaN they order as the magnitudes do, and NaN
// orders above the infinities.
[[gnu::always_inline]] inline uint64_t Magnitude(double value) {
  return std::bit_cast<uint64_t>(value) & ~(uint64_t{1} << 63);
}

// The rows' loops run over whole blocks of this many elements and then over one block padded
// out, so that the last few elements of a row also run several at a time (a vector register
// holds at most eight doubles) instead of one by one after the vector loop.
constexpr size_t kBlock = 8;

}  // namespace

Turn SinCosDegrees(double degrees) {
  if (std::fabs(degrees) <= kLargeDegrees) return SinCosInRange(degrees);
  const double turn = std::fmod(degrees, 360.0);  // exact; infinities and NaN give NaN
  if (std::isnan(turn)) return {turn, turn};
  const Turn result = SinCosInRange(turn);
  return {result.c, result.s == 0.0 ? std::copysign(0.0, degrees) : result.s};
}

void SinCosDegrees(const double* degrees, size_t count, double* cosines, double* sines) {
  // The largest magnitude, compared as bits: NaN and the infinities order above every finite
  // angle, and a loop of integer maxima runs several angles at a time, as a loop of comparisons
  // folded into a bool does not.
  uint64_t largest = 0;
  for (size_t i = 0; i < count; ++i) largest = std::max(largest, Magnitude(degrees[i]));
  if (largest > std::bit_cast<uint64_t>(kLargeDegrees)) {
    for (size_t i = 0; i < count; ++i) {
      const Turn turn = SinCosDegrees(degrees[i]);
      cosines[i] = turn.c;
      sines[i] = turn.s;
    }
    return;
  }
  const size_t whole = count - count % kBlock;
  for (size_t i = 0; i < whole; ++i) {
    const Turn turn = SinCosInRange(degrees[i]);
    cosines[i] = turn.c;
    sines[i] = turn.s;
  }
  if (whole == count) return;
  // The rest as one block, padded with zeros.
  double angles[kBlock] = {}, blockCosines[kBlock], blockSines[kBlock];
  std::copy(degrees + whole, degrees + count, angles);
  for (size_t i = 0; i < kBlock; ++i) {
    const Turn turn = SinCosInRange(angles[i]);
    blockCosines[i] = turn.c;
    blockSines[i] = turn.s;
  }
  std::copy(blockCosines, blockCosines + (count - whole), cosines + whole);
  std::copy(blockSines, blockSines + (count - whole), sines + whole);
}

double Atan2Degrees(double y, double x) {
  if (!std::isfinite(x) || !std::isfinite(y)) return std::atan2(y, x) * (kDegreesHi + kDegreesLo);
  if (std::fmax(std::fabs(x), std::fabs(y)) > kLargeCoordinate) {
    return Atan2Finite(y * 0x1p-512, x * 0x1p-512);
  }
  return Atan2Finite(y, x);
}

void Atan2Degrees(const double* y, const double* x, size_t count, double* degrees) {
  // As for the sines: the largest magnitude's bits tell whether every coordinate is finite and
  // small enough to split.
  uint64_t largest = 0;
  for (size_t i = 0; i < count; ++i) {
    largest = std::max(largest, std::max(Magnitude(x[i]), Magnitude(y[i])));
  }
  if (largest > std::bit_cast<uint64_t>(kLargeCoordinate)) {
    for (size_t i = 0; i < count; ++i) degrees[i] = Atan2Degrees(y[i], x[i]);
    return;
  }
  const size_t whole = count - count % kBlock;
  for (size_t i = 0; i < whole; ++i) degrees[i] = Atan2Finite(y[i], x[i]);
  if (whole == count) return;
  // The rest as one block, padded with the point (1, 0).
  double blockY[kBlock] = {}, blockX[kBlock], blockDegrees[kBlock];
  std::fill(blockX, blockX + kBlock, 1.0);
  std::copy(y + whole, y + count, blockY);
  std::copy(x + whole, x + count, blockX);
  for (size_t i = 0; i < kBlock; ++i) blockDegrees[i] = Atan2Finite(blockY[i], blockX[i]);
  std::copy(blockDegrees, blockDegrees + (count - whole), degrees + whole);
}

}  // namespace tarni::host
