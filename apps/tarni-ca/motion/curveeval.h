// Evaluating reduced curves and measuring how far they stray from the keys they replace: the one
// measure behind every summary the host prints after a key reduction.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "io/curvefile.h"

namespace tarni::host {

// The value of reduced curve `keys` at `time`: Bezier segments from each key through key +
// rightTangent and next key + leftTangent to the next key; a tangent left at (-1, -1), the value
// the commands write into a tangent they do not define, lies a third of the way along the straight
// segment. Each handle is played within its segment's time span, as keyframe players do: one
// reaching past the other key is shortened along its direction, so the curve is a function of time.
// Before the first and after the last key the curve holds its end values.
double ReducedValueAt(const std::vector<CurveKey>& keys, double time);

struct ReductionMeasure {
  size_t keysIn = 0;
  size_t keysOut = 0;
  double largestError = 0;  // the largest |reduced - original| at the original keys' times
  std::string worstCurve;   // where it occurs; empty when there are no keys
  double worstTime = 0;     // the original key's time where it occurs
};

// Compares `reduced` with `original` curve by curve (in order) at every original key; keys flagged
// as ignored are left out, since the reducer drops them on purpose.
ReductionMeasure MeasureReduction(const CurveFile& original, const CurveFile& reduced);

}  // namespace tarni::host
