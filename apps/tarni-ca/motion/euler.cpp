#include "motion/euler.h"

#include <cmath>

#include "motion/degrees.h"

namespace tarni::host {
namespace {

// Below this cosine of the middle angle the outer axes are taken as aligned: the first angle can
// no longer be told apart from the third, and reading it from the matrix would give noise.
constexpr double kLockCosine = 1e-12;

// 0, 1, 2 for the X, Y and Z rotation channels; -1 for position channels.
int RotationAxis(Channel channel) {
  switch (channel) {
    case Channel::kXrotation:
      return 0;
    case Channel::kYrotation:
      return 1;
    case Channel::kZrotation:
      return 2;
    default:
      return -1;
  }
}

// Column `column` of the 3x3 part (the image of that axis), and component `row` of a vector.
// Looked up through tables rather than branches: the conversion reads a dozen entries per joint
// and frame.
const Vector& Column(const Matrix& m, int column) {
  static constexpr Vector Matrix::*kColumns[3] = {&Matrix::v1, &Matrix::v2, &Matrix::v3};
  return m.*kColumns[column];
}
double Component(const Vector& v, int row) {
  static constexpr double Vector::*kRows[3] = {&Vector::x, &Vector::y, &Vector::z};
  return v.*kRows[row];
}
double At(const Matrix& m, int row, int column) { return Component(Column(m, column), row); }

// The rotation about `axis` by the angle whose cosine is `c` and sine `s`.
Matrix AxisRotation(int axis, double c, double s) {
  Matrix m;
  if (axis == 0) {
    m.v2 = {0, c, s};
    m.v3 = {0, -s, c};
  } else if (axis == 1) {
    m.v1 = {c, 0, -s};
    m.v3 = {s, 0, c};
  } else {
    m.v1 = {c, s, 0};
    m.v2 = {-s, c, 0};
  }
  return m;
}

// The length of (x, y). The entries of a rotation are at most 1, so the squares neither overflow
// nor lose the small lengths the lock test looks at; hypot, several times slower, only steps in
// for a matrix whose squares do overflow.
double Length(double x, double y) {
  const double length = std::sqrt(x * x + y * y);
  return std::isfinite(length) ? length : std::hypot(x, y);
}

// The cosine and sine of atan2(y, x), read off the pair itself scaled to unit length rather than
// computed from the angle: the same values to rounding, without the trigonometry. A pair too
// small or too large to scale (never one from a rotation) takes them from the angle.
Turn TurnOf(double y, double x) {
  const double length = Length(x, y);
  if (!(length > 0.0) || !std::isfinite(length)) return SinCosDegrees(Atan2Degrees(y, x));
  return {x / length, y / length};
}

// `v` turned about `axis` as AxisRotation(axis, c, s) turns it, in the plane of the other two
// axes alone.
Vector TurnAbout(int axis, double c, double s, const Vector& v) {
  if (axis == 0) return {v.x, c * v.y - s * v.z, s * v.y + c * v.z};
  if (axis == 1) return {c * v.x + s * v.z, v.y, c * v.z - s * v.x};
  return {c * v.x - s * v.y, s * v.x + c * v.y, v.z};
}

bool IsFinite(const Vector& v) {
  return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

// `degrees` moved by a whole number of turns to lie nearest `reference`; half a turn away either
// way, the even number of turns. (nearbyint in the default rounding mode, which this program never
// changes, compiles to one instruction where round is a library call, for six calls per joint.)
double Unwrap(double degrees, double reference) {
  return degrees + 360.0 * std::nearbyint((reference - degrees) / 360.0);
}

// The rotations of `count` channels composed left to right, `turnAt(i)` giving channel i's
// cosine and sine.
template <typename TurnAt>
Matrix ComposeChannels(const Channel* order, int count, TurnAt turnAt) {
  Matrix result;
  for (int i = 0; i < count; ++i) {
    const int axis = RotationAxis(order[i]);
    if (axis < 0) continue;
    // The axes of result * rotation. Its offset would be TransformPoint(result, 0), which is
    // exactly +0 with both offsets +0, so it is left as it is rather than computed.
    const Turn turn = turnAt(i);
    const Matrix rotation = AxisRotation(axis, turn.c, turn.s);
    result = {result.off, TransformVector(result, rotation.v1),
              TransformVector(result, rotation.v2), TransformVector(result, rotation.v3)};
  }
  return result;
}

}  // namespace

Matrix RotationFromChannels(const Channel* order, const double* degrees, int count) {
  return ComposeChannels(order, count, [&](int i) { return SinCosDegrees(degrees[i]); });
}

Matrix RotationFromTurns(const Channel* order, const double* cosines, const double* sines,
                         int count) {
  return ComposeChannels(order, count, [&](int i) { return Turn{cosines[i], sines[i]}; });
}

bool SplitRotation(const Matrix& rotation, const Channel order[3], const double* previous,
                   EulerSplit& split, double y[3], double x[3]) {
  const int i = RotationAxis(order[0]);
  const int j = RotationAxis(order[1]);
  const int k = RotationAxis(order[2]);
  if (i < 0 || j < 0 || k < 0 || i == j || j == k || i == k) return false;
  if (!IsFinite(rotation.v1) || !IsFinite(rotation.v2) || !IsFinite(rotation.v3)) return false;
  const Matrix& r = rotation;  // its 3x3 part alone is read

  // R = Ri(a) Rj(b) Rk(c). For a cyclic order (XYZ, YZX, ZXY) R[i][k] = sin b,
  // R[j][k] = -sin a cos b, R[k][k] = cos a cos b; the other three orders mirror the signs.
  const double sign = (j - i + 3) % 3 == 1 ? 1.0 : -1.0;
  const double cosMiddle = Length(At(r, i, i), At(r, i, j));
  const double sinMiddle = sign * At(r, i, k);
  y[1] = sinMiddle;
  x[1] = cosMiddle;
  const Turn middleTurn = TurnOf(sinMiddle, cosMiddle);
  Turn firstTurn{1.0, 0.0};
  split.firstGiven = cosMiddle < kLockCosine;
  split.first = 0.0;
  y[0] = 0.0;
  x[0] = 1.0;
  if (!split.firstGiven) {
    y[0] = -sign * At(r, j, k);
    x[0] = At(r, k, k);
    firstTurn = TurnOf(y[0], x[0]);
  } else if (previous != nullptr) {
    split.first = previous[0];
    firstTurn = SinCosDegrees(split.first);
  }
  // The third angle from what remains once the first two are undone, so the three compose to the
  // input exactly even where the first angle is poorly conditioned (close to gimbal lock). What
  // remains is a rotation about the third axis alone; its angle is read from the image of the
  // next axis, so only that column is turned back.
  const int p = (k + 1) % 3;
  const int q = (k + 2) % 3;
  const Vector rest = TurnAbout(j, middleTurn.c, -middleTurn.s,
                                TurnAbout(i, firstTurn.c, -firstTurn.s, Column(r, p)));
  y[2] = Component(rest, q);
  x[2] = Component(rest, p);
  return true;
}

void FinishEuler(const EulerSplit& split, const double atan2s[3], const double* previous,
                 double degreesOut[3]) {
  double primary[3] = {split.firstGiven ? split.first : atan2s[0], atan2s[1], atan2s[2]};
  if (previous == nullptr) {
    for (int n = 0; n < 3; ++n) degreesOut[n] = primary[n];
    return;
  }
  // The alternate solution: Ri(a + 180) Rj(180 - b) Rk(c + 180) is the same rotation.
  double alternate[3] = {primary[0] + 180.0, 180.0 - primary[1], primary[2] + 180.0};
  double distance[2] = {0.0, 0.0};
  double* candidates[2] = {primary, alternate};
  for (int c = 0; c < 2; ++c) {
    for (int n = 0; n < 3; ++n) {
      candidates[c][n] = Unwrap(candidates[c][n], previous[n]);
      const double d = candidates[c][n] - previous[n];
      distance[c] += d * d;
    }
  }
  const double* best = distance[1] < distance[0] ? alternate : primary;
  for (int n = 0; n < 3; ++n) degreesOut[n] = best[n];
}

bool EulerFromRotation(const Matrix& rotation, const Channel order[3], double degreesOut[3],
                       const double* previous) {
  EulerSplit split;
  double y[3];
  double x[3];
  if (!SplitRotation(rotation, order, previous, split, y, x)) return false;
  double atan2s[3];
  Atan2Degrees(y, x, 3, atan2s);
  FinishEuler(split, atan2s, previous, degreesOut);
  return true;
}

}  // namespace tarni::host
