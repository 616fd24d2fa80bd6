#include "retarget/keyreduction.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "curvekeys.h"
#include "tarni/animationcommands.h"

namespace tarni::host {

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

}  // namespace tarni::host
