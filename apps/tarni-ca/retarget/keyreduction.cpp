#include "retarget/keyreduction.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "tarni/animationcommands.h"

namespace tarni::host {
namespace {

tarni::Key ToKey(const CurveKey& in) {
  tarni::Key key;
  key.flags = in.flags;
  key.position = {in.position[0], in.position[1]};
  key.leftTangent = {in.leftTangent[0], in.leftTangent[1]};
  key.rightTangent = {in.rightTangent[0], in.rightTangent[1]};
  return key;
}

CurveKey FromKey(const tarni::Key& in) {
  CurveKey key;
  key.flags = in.flags;
  key.position[0] = in.position.x;
  key.position[1] = in.position.y;
  key.leftTangent[0] = in.leftTangent.x;
  key.leftTangent[1] = in.leftTangent.y;
  key.rightTangent[0] = in.rightTangent.x;
  key.rightTangent[1] = in.rightTangent.y;
  return key;
}

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

}  // namespace

tarni::Result<void> ReduceCurves(const CurveFile& input, float strength, CurveFile& output) {
  tarni::KeyCurves curves;
  TARNI_TRY(curves.EnsureCapacity(static_cast<tarni::Int>(input.curves.size())));
  for (const Curve& curve : input.curves) {
    tarni::KeyArray keys;
    TARNI_TRY(keys.EnsureCapacity(static_cast<tarni::Int>(curve.keys.size())));
    for (const CurveKey& key : curve.keys) TARNI_TRY(keys.Append(ToKey(key)));
    TARNI_TRY(curves.Append(std::move(keys)));
  }
  tarni::Ref<tarni::CommandData> data =
      TARNI_TRY(tarni::CreateCommandData(tarni::kAnimationCommandDataClassId));
  TARNI_TRY(data->Set<tarni::KeyCurves>(tarni::kAnimationCurvesId, std::move(curves)));
  const double fps = std::clamp(std::round(input.fps), 1.0,
                                static_cast<double>(std::numeric_limits<std::int32_t>::max()));
  TARNI_TRY(data->Set<std::int32_t>(tarni::kProjectFpsId, static_cast<std::int32_t>(fps)));
  TARNI_TRY(data->Set<float>(tarni::kKeyReducerStrengthId, strength));
  TARNI_TRY(data->Set<std::int32_t>(tarni::kKeyReducerMagnetId, 0));
  TARNI_TRY(data->Set<bool>(tarni::kKeyReducerUseLockedKeysId, false));
  TARNI_TRY(data->Set<bool>(tarni::kKeyReducerUseKeySelectionId, false));
  tarni::Ref<tarni::Command> command =
      TARNI_TRY(tarni::CreateCommand(tarni::kBezierFitterCommandId));
  TARNI_TRY(command->Execute(*data));
  const tarni::Shared<tarni::KeyCurves> reduced =
      TARNI_TRY(data->GetShared<tarni::KeyCurves>(tarni::kAnimationCurvesId));
  if (reduced->value.GetCount() != static_cast<tarni::Int>(input.curves.size()))
    return tarni::UnexpectedError("The fitter returned another number of curves.");
  output = CurveFile();
  output.fps = input.fps;
  output.curves.resize(input.curves.size());
  for (size_t c = 0; c < input.curves.size(); ++c) {
    output.curves[c].name = input.curves[c].name;
    std::vector<CurveKey>& keys = output.curves[c].keys;
    for (const tarni::Key& key : reduced->value[static_cast<tarni::Int>(c)]) {
      // The file holds strictly ascending times; a repeated key would add nothing.
      if (!keys.empty() && keys.back().position[0] >= key.position.x) continue;
      keys.push_back(FromKey(key));
    }
  }
  return tarni::OK;
}

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
  double lo = 0.0, hi = 1.0;
  for (int i = 0; i < 64; ++i) {
    const double mid = 0.5 * (lo + hi);
    (BezierPoint(p, mid).x < time ? lo : hi) = mid;
  }
  return BezierPoint(p, 0.5 * (lo + hi)).y;
}

ReductionMeasure MeasureReduction(const CurveFile& original, const CurveFile& reduced) {
  ReductionMeasure measure;
  for (size_t c = 0; c < original.curves.size() && c < reduced.curves.size(); ++c) {
    measure.keysIn += original.curves[c].keys.size();
    measure.keysOut += reduced.curves[c].keys.size();
    for (const CurveKey& key : original.curves[c].keys) {
      const double error =
          std::fabs(ReducedValueAt(reduced.curves[c].keys, key.position[0]) - key.position[1]);
      if (error > measure.largestError || measure.worstCurve.empty()) {
        measure.largestError = std::max(measure.largestError, error);
        measure.worstCurve = original.curves[c].name;
      }
    }
  }
  return measure;
}

}  // namespace tarni::host
