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
// Where the handles' x run forward (each control point at or after the one before), x rises with s
// and one parameter meets `time`: Newton's method inside a bracket that every step narrows finds
// it. Reduced keys have handles close to thirds of the segment, where x is nearly linear in s, so
// the straight-line start is within a rounding error or two and a couple of steps settle it; a step
// that would leave the bracket bisects instead. Handles that run backwards make x loop, and several
// parameters may meet `time`: the plain bisection picks one, the same one every time.
double ParameterAt(const Point (&p)[4], double time) {
  double lo = 0.0, hi = 1.0;
  if (!(p[0].x <= p[1].x && p[1].x <= p[2].x && p[2].x <= p[3].x)) {
    for (int i = 0; i < 64; ++i) {
      const double mid = 0.5 * (lo + hi);
      (BezierPoint(p, mid).x < time ? lo : hi) = mid;
    }
    return 0.5 * (lo + hi);
  }
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
  const Point p[4] = {p0, p1, p2, p3};
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
