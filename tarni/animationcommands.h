// The animation curve commands: the Bezier fitter (the key reducer) and the reduced-modification-
// curve command built on it, the command data class that carries their input and output, and the
// identifiers under which a host puts values into that data and reads results back.
//
// A host runs a command like this:
//   1. CreateCommandData(kAnimationCommandDataClassId) and CreateCommand(<command id>);
//   2. put the curves (KeyCurves), the project frame rate and the parameters in by id;
//   3. Execute; on success read the curves (and, for the modification curve, the ranges) back.
// Commands never change the curves value they were given: they write a new value under the same id.
#pragma once

#include <cstdint>

#include "tarni/command.h"
#include "tarni/id.h"
#include "tarni/keyframe.h"

namespace tarni {

// The Bezier fitter. Reads, in this order: curves, project fps, strength, magnet, use locked keys,
// use key selection (a missing value fails with the dictionary's unresolved error, a value of
// another type with its illegal-argument error), and writes the reduced curves back under
// kAnimationCurvesId. A strength of at most 1e-06 writes the curves back unchanged. A curve of
// three or more keys whose times, values or tangents are not finite, or whose times descend, a
// strength that is not a number, and a magnet of 1 or more over two or more curves with a project
// frame rate of 0 or less fail the command with the illegal-argument error; nothing is written
// then. When memory runs out it fails with the out-of-memory error and writes nothing either.
inline constexpr Id kBezierFitterCommandId{"net.tarni.command.animation.timeline.bezierfitter"};

// The reduced-modification-curve command. Reads the curves and the curve type, replaces each curve
// as the type says (see ModificationCurveType), writes the curves back and then always writes the
// min/max array (one entry per curve for FlatMaximum, otherwise empty). Errors of the dictionary
// and of the fitter are passed on unchanged. Running out of memory before the writes fails with
// the out-of-memory error and writes nothing; the two writes are attempted both, and the first
// one's error is returned, so the curves may be written when the ranges could not be.
inline constexpr Id kReducedModificationCurveCommandId{
    "net.tarni.command.animation.timeline.reducedmodificationcurve"};

// The command data class both commands run on: a dictionary of typed values by id.
inline constexpr Id kAnimationCommandDataClassId{"net.tarni.command.animation"};

// Context values and parameters, with the type each travels as.
// KeyCurves, in and out: the curves, each an array of keys by ascending time.
inline constexpr Id kAnimationCurvesId{"net.tarni.command.context.animation.curves"};
// std::int32_t: frames per second of the project (turns the magnet width into seconds).
inline constexpr Id kProjectFpsId{"net.tarni.command.context.animation.project_fps"};
// float: reduction strength; the fitting tolerance is strength³ × 0.8 in normalised value units.
inline constexpr Id kKeyReducerStrengthId{"net.tarni.command.animation.keyreducer.strength"};
// std::int32_t: magnet width in frames; 1 or more pulls the keys of several curves onto shared
// times.
inline constexpr Id kKeyReducerMagnetId{"net.tarni.command.animation.keyreducer.magnet"};
// bool: keep locked keys where they are.
inline constexpr Id kKeyReducerUseLockedKeysId{
    "net.tarni.command.animation.keyreducer.uselockedkeys"};
// bool: reduce only selected keys; unselected keys stay as they are.
inline constexpr Id kKeyReducerUseKeySelectionId{
    "net.tarni.command.animation.keyreducer.usekeyselection"};
// std::int64_t: which reduction the modification-curve command builds (ModificationCurveType).
inline constexpr Id kModificationCurveTypeId{
    "net.tarni.command.animation.reducedmodificationcurve.modificationcurvetype"};
// MinMaxArray, out: the value range of each curve.
inline constexpr Id kMinMaxArrId{"net.tarni.command.animation.reducedmodificationcurve.minmaxarr"};

// The values of kModificationCurveTypeId; any other value leaves every curve as it is.
enum class ModificationCurveType : std::int64_t {
  // The curve reduced by the Bezier fitter at strength 1 (tolerance 0.8).
  Fitted = 0,
  // Two keys: the first and the last key's position.
  Linear = 1,
  // Two keys at the curve's maximum, at the first and the last key's time, and a (min, max) entry.
  FlatMaximum = 2,
};

}  // namespace tarni
