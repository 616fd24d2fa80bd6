// Rotations as BVH rotation channels hold them: three angles in degrees, one per axis, composed in
// the order the channels are written. Channels "Zrotation Xrotation Yrotation" with angles
// (z, x, y) mean R = Rz(z) * Rx(x) * Ry(y): rotations about the parent frame's axes, the rightmost
// applied to a vector first. Each single-axis rotation is right-handed (Rz(90) turns +X into +Y).
#pragma once

#include "tarni/math.h"

#include "io/bvh.h"

namespace tarni::host {

// The rotation of `count` channels with their `degrees`, composed left to right in channel order.
// Position channels among them are skipped, so a joint's whole channel list and its slice of a
// frame row can be passed as they are. A count of 0 or less gives the identity. The result's
// offset is zero.
tarni::Matrix RotationFromChannels(const Channel* order, const double* degrees, int count);

// RotationFromChannels with each channel's angle given by its cosine and sine (SinCosDegrees of
// it gives the same bits), for callers that take the trigonometry of a whole frame row at once.
tarni::Matrix RotationFromTurns(const Channel* order, const double* cosines, const double* sines,
                                int count);

// The inverse of RotationFromChannels for three distinct rotation channels in `order` (any of the
// six orders): angles in degrees, in channel order, that compose to the 3x3 part of `rotation`
// (the offset is ignored; the part should be a rotation). Without `previous` the first and third
// angle lie in (-180, 180] and the middle one in [-90, 90]. With `previous` (the angles of the
// frame before, in the same order) the result is, among all triples giving the same rotation
// (each angle +-360, and the alternate solution (a + 180, 180 - b, c + 180)), the one nearest to
// `previous`, so curves written frame by frame stay continuous. At gimbal lock (middle angle
// +-90) only the sum or difference of the outer angles is fixed: the first angle is kept at
// `previous`'s (or 0) and the third one takes the rest. Returns false, leaving `degreesOut`
// untouched, when `order` is not three distinct rotation channels or `rotation` holds a number
// that is not finite.
bool EulerFromRotation(const tarni::Matrix& rotation, const Channel order[3], double degreesOut[3],
                       const double* previous = nullptr);

// EulerFromRotation in two steps around its trigonometry, so that a caller converting many joints
// takes the atan2 of all of them at once (Atan2Degrees over arrays): SplitRotation writes the
// three pairs (y[n], x[n]) whose atan2 are the angles (or returns false, as EulerFromRotation),
// and FinishEuler turns those angles into EulerFromRotation's result, bit for bit.
struct EulerSplit {
  // At gimbal lock the first angle is not read from the rotation but given: `first`.
  bool firstGiven;
  double first;
};
bool SplitRotation(const tarni::Matrix& rotation, const Channel order[3], const double* previous,
                   EulerSplit& split, double y[3], double x[3]);
void FinishEuler(const EulerSplit& split, const double atan2s[3], const double* previous,
                 double degreesOut[3]);

}  // namespace tarni::host
