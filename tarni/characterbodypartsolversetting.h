// CharacterBodyPartSolverSetting: the solver's switches and weights for one body part: how strongly
// the body part follows the source, which transform components are transferred and how strongly,
// and a few Boolean settings. A solver configuration keeps one per body-part identifier.
#pragma once

#include <cstdint>

#include "tarni/classes.h"
#include "tarni/internedid.h"
#include "tarni/math.h"
#include "tarni/object.h"

namespace tarni {

// The transform components a setting transfers. Other values are accepted by the operations that
// take a component and ignored by them (setters) or answered with a neutral value (getters).
enum class TransformComponent : std::uint32_t {
  POSITION = 0,
  ROTATION = 1,
  SCALE = 2,
};

// Bit indices of a setting's Boolean settings.
enum class BodyPartSolverSettingFlag : std::uint32_t {
  // The cumulated weight stops at this body part: its parents' weights are not multiplied in.
  NOPARENTWEIGHT = 0,
  // The body part is switched off. Stored and printed only; honouring it is the solver's caller's
  // business, the solver operations never read it.
  DEACTIVATE = 1,
};

class CharacterBodyPartSolverSetting : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.characterbodypartsolversetting"};
  static constexpr Id kClassId{"net.tarni.animation.class.characterbodypartsolversetting"};
  using Extends = InterfaceList<>;

  // A fresh setting (deliberately): body-part weight 1.0, only rotation active, all three component
  // weights 1.0, every flag clear, empty identifier. No operation fails once the object exists.

  // Stores the identifier of the body part this setting belongs to. Always succeeds.
  virtual Result<void> SetBodyPartIdentifier(const InternedId& identifier) noexcept = 0;
  virtual InternedId GetBodyPartIdentifier() const noexcept = 0;

  // The weight of the whole body part, stored as given (no clamping, no range check).
  virtual void SetBodyPartWeight(Float64 weight) noexcept = 0;
  virtual Float64 GetBodyPartWeight() const noexcept = 0;

  // Sets or reads bit `flag` of the Boolean settings. The set holds one 64-bit word, so indices 0
  // to 63 are valid; others are ignored by the setter and read as false.
  virtual void SetSettingValue(BodyPartSolverSettingFlag flag, bool value) noexcept = 0;
  virtual bool GetSettingValue(BodyPartSolverSettingFlag flag) const noexcept = 0;

  // The weight of one component, stored as given (no clamping). A component of 3 or more is
  // ignored by the setter; the getter answers 0.0 for it.
  virtual void SetTransformWeight(TransformComponent component, Float64 weight) noexcept = 0;
  virtual Float64 GetTransformWeight(TransformComponent component) const noexcept = 0;

  // Whether one component is transferred. A component of 3 or more is ignored by the setter; the
  // getter answers false for it.
  virtual void SetTransformActive(TransformComponent component, bool active) noexcept = 0;
  virtual bool IsTransformActive(TransformComponent component) const noexcept = 0;

  // ToString (the object's), one line each, every line ended by "\n":
  //   "Identifier : " id, "Weight : " w, "_positionActive : " 0|1, "_rotationActive : " 0|1,
  //   "_scaleActive : " 0|1, "_positionWeight : " w, "_rotationWeight : " w, "_scaleWeight : " w,
  //   "_settings : NOPARENTWEIGHT" true|false, "_settings : DEACTIVATE" true|false.
  // Numbers use AppendFloat(out, v, -1, -3, false, ' ') (at most three decimals). The two settings
  // lines deliberately have no separator between the label and the value.
  // Copying (CopyFrom, Clone) copies every field; it fails only when memory runs out.
};

// Settings are plain shared references: a change shows to every holder, the configuration too.
using CharacterBodyPartSolverSettingRef = Ref<CharacterBodyPartSolverSetting>;

}  // namespace tarni
