// Trigonometry in degrees, the unit motion files store their angles in.
//
// Angles are reduced in degrees, where the reduction is exact: every multiple of 90 degrees gives
// sines and cosines of exactly 0 and +-1 (a joint turned by 90 degrees about one axis keeps the
// other axes exactly), and a quarter turn read back from such a rotation is exactly 90. Elsewhere
// the results are within one unit in the last place of the true values for the sine and cosine
// and within one and a half for atan2 (the tests measure them against a wider type).
//
// Every build computes the same bits: the arithmetic is plain IEEE operations with products'
// rounding errors taken exactly by splitting, never a fused multiply-add that only some
// processors have.
#pragma once

#include <cstddef>

namespace tarni::host {

// The cosine and sine of an angle.
struct Turn {
  double c;
  double s;
};

// The cosine and sine of `degrees`. At whole quarter turns they are exact, a zero sine with the
// angle's sign (sin(-0) and sin(-180) are -0) and a zero cosine +0; infinities and NaN give NaN.
Turn SinCosDegrees(double degrees);

// SinCosDegrees of each of `count` angles, into `cosines` and `sines`: the same bits, several
// angles at a time where the processor has vector registers.
void SinCosDegrees(const double* degrees, size_t count, double* cosines, double* sines);

// atan2(y, x) in degrees, in [-180, 180]: the angle of the point (x, y) from the +x axis. Signed
// zeros give the C library's results (atan2(+-0, -0) is +-180), and so do infinities and NaN,
// which are handed to it.
double Atan2Degrees(double y, double x);

// Atan2Degrees of each of `count` pairs (y[i], x[i]), into `degrees`: the same bits, several
// pairs at a time where the processor has vector registers.
void Atan2Degrees(const double* y, const double* x, size_t count, double* degrees);

}  // namespace tarni::host
