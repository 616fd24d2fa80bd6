// The key fitter behind the Bezier fitter command, shared with the reduced-modification-curve
// command: it replaces the keys of a curve by far fewer keys whose cubic Bezier segments (handles
// in the keys' tangents) follow the curve within a tolerance set by a strength.
//
// All arithmetic is float32. Values are normalised by the curve's largest |value| while fitting,
// so the tolerance does not depend on the curve's value scale. Every key of a fitted result has
// been through that division and the multiplication back, the keys taken over unchanged
// included, so their values may differ from the input's in the last bit.
#pragma once

#include <cstdint>
#include <span>

#include "tarni/array.h"
#include "tarni/keyframe.h"
#include "tarni/result.h"

namespace tarni::ca {

// A point or vector of the (time, normalised value) plane.
struct FitPoint {
  float x;
  float y;
};

// How a stretch of keys is treated while a curve is split up.
enum class RunKind : std::uint8_t {
  None,    // nothing collected yet
  Kept,    // unselected keys, taken over as they are
  Locked,  // locked keys, taken over as they are
  Fit,     // keys to be fitted
};

// A run: keys [begin, end) of the curve's keys without the ignored ones.
struct KeyRun {
  RunKind kind;
  Int begin;
  Int end;
};

// One pending cubic fit of keys first..last of a run, with its end tangents.
struct CubicTask {
  Int first;
  Int last;
  FitPoint tHat1;
  FitPoint tHat2;
};

// Fits curves one after the other, reusing its scratch buffers so that a selection of many curves
// does not allocate per key. Not for use by two threads at once.
class KeyFitter {
 public:
  // The fitting operation (see FitKeys). Fails with the out-of-memory error when a buffer cannot
  // grow, and with the illegal-argument error for a curve of three or more keys whose times or
  // values are not all finite ("Illegal argument: a key's time or value is not a finite number."),
  // whose tangents are not ("Illegal argument: a key's tangent is not a finite number.") or whose
  // times descend ("Illegal argument: key times are not in ascending order."), and for finite keys
  // so far apart or so steep that a fitted tangent would not be a finite number ("Illegal argument:
  // the keys are too far apart or too steep for finite tangents.").
  Result<KeyArray> Fit(const KeyArray* curve, bool useLockedKeys, bool useKeySelection,
                       float strength) noexcept;

 private:
  Result<void> SplitRuns(std::span<const Key> keys, bool useLockedKeys,
                         bool useKeySelection) noexcept;
  Result<void> TakeOver(std::span<const Key> run, bool merge) noexcept;
  Result<void> FitRun(std::span<const Key> run, bool merge) noexcept;
  Result<void> FitCubic(std::span<const Key> run, Int first, Int last, FitPoint tHat1,
                        FitPoint tHat2) noexcept;

  // Per-curve settings.
  float _tolerance = 0.0f;
  std::uint32_t _newKeyFlags = 0;

  KeyArray _normalised;  // the curve without its ignored keys, values divided by the scale
  BaseArray<KeyRun> _runs;
  KeyArray _output;
  // The run's keys, times and normalised values apart so that four keys load at once.
  BaseArray<float> _x;
  BaseArray<float> _y;
  BaseArray<float> _lengths;  // distance of each run key from the one before
  BaseArray<float> _weights;  // error weight of each run key: 1.5 for magnet keys, else 1
  // Running sums of _lengths from key _chordFirst on, valid up to key _chordLast: a fit that
  // failed hands them to its left part, which starts at the same key.
  BaseArray<float> _chord;
  Int _chordFirst = -1;
  Int _chordLast = -1;
  // Per key of the fit at hand (index 0 = its first key): parameter, weighted error, and the
  // curve point minus the key, which the error scan leaves for the Newton step.
  BaseArray<float> _u;
  BaseArray<float> _errors;
  BaseArray<float> _dx;
  BaseArray<float> _dy;
  BaseArray<CubicTask> _tasks;  // pending fits, the next one last
};

// Reduces one curve and returns the reduced keys as a new array:
// - an absent curve gives an empty array; a curve of fewer than three keys comes back as it is;
// - a curve whose values all lie within ±1e-05 becomes exact copies of its first and last key;
// - otherwise ignored keys are left out, unselected keys (when `useKeySelection`) and locked keys
//   (when `useLockedKeys`) are taken over (values divided by the scale and multiplied back, as
//   for every key of the result), and the stretches between them are fitted
//   with tolerance strength³ × 0.8; keys the fit creates carry flags 2 with key selection on, else
//   0.
// `projectFps` is not consulted (the modification-curve command passes 60). Errors: see KeyFitter.
Result<KeyArray> FitKeys(const KeyArray* curve, std::int32_t projectFps, bool useLockedKeys,
                         bool useKeySelection, float strength) noexcept;

// The shared magnet times of a selection of curves: all key times, sorted and grouped greedily
// (a time joins the last group while its distance to the group's first time is at most
// `threshold`), one time per group. The first group holds the smallest time twice, deliberately:
// it counts when the group's representative is chosen. Fewer than two key times give no times.
// Fails only when memory runs out.
Result<BaseArray<float>> CollectMagnetTimes(const KeyCurves& curves, float threshold) noexcept;

// Sets KEYFLAG_MAGNET on each key whose time equals one of `times` exactly (a binary search per
// time, so the curve must be sorted by time). Returns how many keys gained the flag.
Int MarkMagnetKeys(KeyArray& curve, std::span<const float> times) noexcept;

}  // namespace tarni::ca
