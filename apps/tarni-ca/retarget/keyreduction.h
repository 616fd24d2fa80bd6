// Key reduction of retargeted motion through the module's Bezier fitter command (the measure of
// the result is motion/curveeval.h's).
#pragma once

#include <cstddef>
#include <string>

#include "io/curvefile.h"
#include "motion/curveeval.h"
#include "tarni/result.h"

namespace tarni::host {

// Reduces every curve of `input` with the fitter command (created by id) at `strength`, writing
// the result into `output` (same names, rate and order). Fails with the command's error.
tarni::Result<void> ReduceCurves(const CurveFile& input, float strength, CurveFile& output);

}  // namespace tarni::host
