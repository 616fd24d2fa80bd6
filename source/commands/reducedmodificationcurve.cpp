// The reduced-modification-curve command: turns each curve of a selection into a much simpler
// curve over the same time span (fitted, straight, or flat at the maximum with the value range).
#include "commands/bezierfitter.h"
#include "module/units.h"
#include "tarni/animationcommands.h"

namespace tarni::ca {
namespace {

constexpr float kHighest = 3.4028235e38f;

// Two keys with flags 0 and undefined tangents at the given positions.
Result<KeyArray> TwoKeys(KeyVector first, KeyVector last) noexcept {
  KeyArray keys;
  TARNI_TRY(keys.EnsureCapacity(2));
  Key key;
  key.position = first;
  TARNI_TRY(keys.Append(key));
  key.position = last;
  TARNI_TRY(keys.Append(key));
  return keys;
}

class ReducedModificationCurveCommand final : public Command {
  TARNI_IMPLEMENTS(ReducedModificationCurveCommand, Command)
 public:
  Result<void> Execute(CommandData& data) noexcept override {
    const Shared<KeyCurves> curves = TARNI_TRY(data.GetShared<KeyCurves>(kAnimationCurvesId));
    const std::int64_t type = TARNI_TRY(data.Get<std::int64_t>(kModificationCurveTypeId));
    const KeyCurves& input = curves->value;
    MinMaxArray minMax;
    TARNI_TRY(minMax.EnsureCapacity(input.GetCount()));

    const bool known = type == static_cast<std::int64_t>(ModificationCurveType::Fitted) ||
                       type == static_cast<std::int64_t>(ModificationCurveType::Linear) ||
                       type == static_cast<std::int64_t>(ModificationCurveType::FlatMaximum);
    if (!known) {  // every curve stays as it is
      TARNI_TRY(data.SetShared(kAnimationCurvesId, curves));
      return data.Set<MinMaxArray>(kMinMaxArrId, std::move(minMax));
    }

    // The replaced curves go into a new array: the caller's curves value is never changed.
    KeyCurves output;
    TARNI_TRY(output.EnsureCapacity(input.GetCount()));
    KeyFitter fitter;
    for (const KeyArray& curve : input) {
      KeyArray replaced;
      switch (static_cast<ModificationCurveType>(type)) {
        case ModificationCurveType::FlatMaximum: {
          float minimum = kHighest;
          float maximum = -kHighest;
          for (const Key& key : curve) {
            if (key.position.y < minimum) minimum = key.position.y;
            if (key.position.y > maximum) maximum = key.position.y;
          }
          // Both keys deliberately carry the maximum, not the minimum.
          if (!curve.IsEmpty()) {
            replaced = TARNI_TRY(
                TwoKeys({curve[0].position.x, maximum}, {curve.GetLast().position.x, maximum}));
          }
          TARNI_TRY(minMax.Append({minimum, maximum}));
          break;
        }
        case ModificationCurveType::Linear:
          if (!curve.IsEmpty())
            replaced = TARNI_TRY(TwoKeys(curve[0].position, curve.GetLast().position));
          break;
        case ModificationCurveType::Fitted:
          // The fitter's strength 1 gives tolerance 0.8; the frame rate (60) is not consulted.
          if (!curve.IsEmpty()) replaced = TARNI_TRY(fitter.Fit(&curve, false, false, 1.0f));
          break;
      }
      // An empty curve is left as it is (and has nothing to copy).
      TARNI_TRY(output.Append(std::move(replaced)));
    }
    const Result<void> wroteCurves = data.Set<KeyCurves>(kAnimationCurvesId, std::move(output));
    const Result<void> wroteRanges = data.Set<MinMaxArray>(kMinMaxArrId, std::move(minMax));
    return wroteCurves ? wroteRanges : wroteCurves;
  }
};

constexpr Id kInterfaces[] = {Command::kInterfaceId};

}  // namespace

const ClassRecord kReducedModificationCurveClass{kReducedModificationCurveCommandId,
                                                 "ReducedModificationCurveCommand",
                                                 "reducedmodificationcurve",
                                                 &CreateInstance<ReducedModificationCurveCommand>,
                                                 nullptr,
                                                 {},
                                                 kInterfaces,
                                                 {}};

}  // namespace tarni::ca
