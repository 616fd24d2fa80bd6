// Key reduction of retargeted motion through the module's Bezier fitter command, and a measure of
// how far the reduced curves stray from the keys they replace.
#pragma once

#include <cstddef>
#include <string>

#include "io/curvefile.h"
#include "tarni/result.h"

namespace tarni::host {

struct ReductionMeasure {
  size_t keysIn = 0;
  size_t keysOut = 0;
  double largestError = 0;  // the largest |reduced - original| at the original keys' times
  std::string worstCurve;   // where it occurs; empty when there are no keys
};

// Reduces every curve of `input` with the fitter command (created by id) at `strength`, writing
// the result into `output` (same names, rate and order). Fails with the command's error.
tarni::Result<void> ReduceCurves(const CurveFile& input, float strength, CurveFile& output);

// The value of reduced curve `keys` at `time`: Bezier segments from each key through its right
// tangent and the next key's left tangent; a tangent left at (-1, -1) lies a third of the way
// along the straight segment. Outside the keys the curve holds its end values.
double ReducedValueAt(const std::vector<CurveKey>& keys, double time);

// Compares `reduced` with `original` curve by curve at every original key.
ReductionMeasure MeasureReduction(const CurveFile& original, const CurveFile& reduced);

}  // namespace tarni::host
