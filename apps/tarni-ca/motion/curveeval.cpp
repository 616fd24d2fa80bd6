#include "motion/curveeval.h"

#include <algorithm>
#include <cmath>

namespace tarni::host {
namespace {

// Keys with this flag are left out of a reduction (the keyframe type's KEYFLAG_IGNORED).
constexpr std::uint32_t kIgnoredKeyFlag = 0x00004000;

struct Point {
  double x;
  double y;
};

Point BezierPoint(const Point (&p)[4], double s) {
  const double r = 1.0 - s;
  const double b0 = r * r * r, b1 = 3 * r * r * s, b2 = 3 * r * s * s, b3 = s * s * s;
  return {b0 * p[0].x + b1 * p[1].x + b2 * p[2].x + b3 * p[3].x,
          b0 * p[0].y + b1 * p[1].y + b2 * p[2].y + b3 * p[3].y};
}

// dx/ds of the segment at s.
double BezierSlopeX(const Point (&p)[4], double s) {
  const double r = 1.0 - s;
  return 3 *
         (r * r * (p[1].x - p[0].x) + 2 * r * s * (p[2].x - p[1].x) + s * s * (p[3].x - p[2].x));
}

// The parameter where the segment's x meets `time`, which lies strictly between p0.x and p3.x.
// With both handles inside the segment's time span (see `WithinSpan`) x never falls as s rises,
// so one parameter meets `time`: Newton's method inside a bracket that every step narrows finds
// it. Reduced keys have handles close to thirds of the segment, where x is nearly linear in s, so
// the straight-line start is within a rounding error or two and a couple of steps settle it; a step
// that would leave the bracket (x flat where both handles reach the far end) bisects instead.
double ParameterAt(const Point (&p)[4], double time) {
  double lo = 0.0, hi = 1.0;
  double s = (time - p[0].x) / (p[3].x - p[0].x);
  for (int step = 0; step < 200; ++step) {
    if (!(s > lo && s < hi)) s = 0.5 * (lo + hi);
    const double miss = BezierPoint(p, s).x - time;
    if (miss == 0.0) break;
    (miss < 0.0 ? lo : hi) = s;
    const double next = s - miss / BezierSlopeX(p, s);
    // Settled: the step no longer moves s, or the bracket holds no other double.
    if (next == s || 0.5 * (lo + hi) == lo || 0.5 * (lo + hi) == hi) break;
    s = next;
  }
  return s;
}

// A handle of `key` as the curve is played: its time offset limited to the segment, from 0 to
// `reach` (the span towards the other key: positive for a right handle, negative for a left one).
// A handle reaching past the other key is shortened along its own direction, so its slope stays;
// one pointing back in time keeps its value offset and loses its time offset. Handles of a
// least-squares fit through noisy keys can reach several segments past the other key; drawn as
// written, x would then run backwards and the segment would hold several values at one time. Within
// the span x only rises (each control point's x lies between the ends), so every time has one
// value.
Point WithinSpan(Point key, Point handle, double reach) {
  double dx = handle.x - key.x, dy = handle.y - key.y;
  if (dx * reach < 0) dx = 0;
  if (std::fabs(dx) > std::fabs(reach)) {
    dy *= reach / dx;
    dx = reach;
  }
  return {key.x + dx, key.y + dy};
}

}  // namespace

double ReducedValueAt(const std::vector<CurveKey>& keys, double time) {
  if (keys.empty()) return 0.0;
  if (time <= keys.front().position[0]) return keys.front().position[1];
  if (time >= keys.back().position[0]) return keys.back().position[1];
  const auto next = std::upper_bound(keys.begin(), keys.end(), time,
                                     [](double t, const CurveKey& k) { return t < k.position[0]; });
  const CurveKey& a = *(next - 1);
  const CurveKey& b = *next;
  if (time == a.position[0]) return a.position[1];
  const Point p0{a.position[0], a.position[1]};
  const Point p3{b.position[0], b.position[1]};
  auto undefined = [](const float(&tangent)[2]) { return tangent[0] == -1 && tangent[1] == -1; };
  const Point p1 = undefined(a.rightTangent)
                       ? Point{p0.x + (p3.x - p0.x) / 3, p0.y + (p3.y - p0.y) / 3}
                       : Point{p0.x + a.rightTangent[0], p0.y + a.rightTangent[1]};
  const Point p2 = undefined(b.leftTangent)
                       ? Point{p3.x - (p3.x - p0.x) / 3, p3.y - (p3.y - p0.y) / 3}
                       : Point{p3.x + b.leftTangent[0], p3.y + b.leftTangent[1]};
  const double span = p3.x - p0.x;
  const Point p[4] = {p0, WithinSpan(p0, p1, span), WithinSpan(p3, p2, -span), p3};
  return BezierPoint(p, ParameterAt(p, time)).y;
}

ReductionMeasure MeasureReduction(const CurveFile& original, const CurveFile& reduced) {
  ReductionMeasure measure;
  for (size_t c = 0; c < original.curves.size() && c < reduced.curves.size(); ++c) {
    measure.keysIn += original.curves[c].keys.size();
    measure.keysOut += reduced.curves[c].keys.size();
    for (const CurveKey& key : original.curves[c].keys) {
      if ((key.flags & kIgnoredKeyFlag) != 0) continue;
      const double error =
          std::fabs(ReducedValueAt(reduced.curves[c].keys, key.position[0]) - key.position[1]);
      if (error > measure.largestError || measure.worstCurve.empty()) {
        measure.largestError = std::max(measure.largestError, error);
        measure.worstCurve = original.curves[c].name;
        measure.worstTime = key.position[0];
      }
    }
  }
  return measure;
}

}  // namespace tarni::host
