// Drawings for looking at motion: stick figures of characters at chosen frames, and plots of
// animation curves before and after key reduction. The output is standalone SVG 1.1 text (no
// scripts, fonts or other files referenced), so any browser or image tool shows it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "io/bvh.h"
#include "io/curvefile.h"
#include "motion/pose.h"

namespace tarni::host {

// The orthographic projection of the stick figures, Y up. kFront looks at a character that faces
// +Z from in front of it (its left side, +X, on the drawing's right); kSide looks from its right
// side, so walking along +Z goes to the right.
enum class FigureView : uint8_t { kFront, kSide };

// One row of the drawing: one character at a few frames.
struct StickFigureRow {
  std::string title;
  const BvhMotion* motion = nullptr;  // not owned; must outlive the call
  // How each joint's position channels are read (see PositionMode); empty: GuessPositionModes.
  std::vector<PositionMode> modes;
  // The frames to draw, left to right; empty: frame 0. A frame the motion lacks draws its rest
  // pose (see ComputeFrame).
  std::vector<int64_t> frames;
};

struct StickFigureOptions {
  FigureView view = FigureView::kFront;
  std::string title;         // above everything; empty: none
  double cellWidth = 180.0;  // room for one figure, in SVG user units
  double cellHeight = 240.0;
  // One scale for all rows, so that characters compare in size; false scales each row to fit on
  // its own (for characters measured in different units).
  bool shareScale = true;
};

// Draws every row's character at its frames as a stick figure: one line of class "bone" from each
// joint to its parent (so a figure has as many bones as joints minus roots), a thinner line of
// class "tip" to each End Site, a dot per joint. Bones of joints named as left side (Left..., L
// followed by a capital, ..._l, ....L) are blue, right side red, the rest dark grey. Each figure
// is centred on its root's horizontal position, so travel does not move it out of its cell; the
// figures of a row (or of the whole drawing, see shareScale) share one scale and the ground line
// y = 0 when it is in view. Rows without a motion get their title only. Points that are not finite
// are left out, never written. Empty only if memory runs out.
std::string StickFiguresSvg(std::span<const StickFigureRow> rows,
                            const StickFigureOptions& options = {});

struct CurvePlotOptions {
  std::string title;     // above everything; empty: none
  double width = 760.0;  // of the whole drawing, in SVG user units
  double panelHeight = 220.0;
};

// Plots, one panel per entry of `names`, the curve of that name in `original` (a thin grey
// polyline through its keys) and in `reduced` (its cubic Bezier segments as an SVG path: from
// each key's position with control points position + rightTangent and next position +
// leftTangent to the next position; its keys as dots), over axes labelled with time in seconds
// and value, under a legend. A tangent that is (-1, -1), the marker for a tangent left undefined,
// or that points backwards in time, is drawn as a straight third of the segment instead (a
// deliberate display choice: those handles carry no shape). A name missing from a file is noted
// in its panel's heading. Empty only if memory runs out.
std::string CurvePlotSvg(const CurveFile& original, const CurveFile& reduced,
                         std::span<const std::string> names, const CurvePlotOptions& options = {});

}  // namespace tarni::host
