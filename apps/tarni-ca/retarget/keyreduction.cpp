#include "retarget/keyreduction.h"

#include "curvekeys.h"
#include "tarni/animationcommands.h"

namespace tarni::host {

tarni::Result<void> ReduceCurves(const CurveFile& input, float strength, CurveFile& output) {
  tarni::Ref<tarni::CommandData> data =
      TARNI_TRY(tarni::CreateCommandData(tarni::kAnimationCommandDataClassId));
  TARNI_TRY(
      data->Set<tarni::KeyCurves>(tarni::kAnimationCurvesId, TARNI_TRY(ToCommandCurves(input))));
  TARNI_TRY(data->Set<std::int32_t>(tarni::kProjectFpsId, kCommandFramesPerTimeUnit));
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
    FromCommandCurve(reduced->value[static_cast<tarni::Int>(c)], input.curves[c], input.fps,
                     output.curves[c].keys);
  }
  return tarni::OK;
}

}  // namespace tarni::host
