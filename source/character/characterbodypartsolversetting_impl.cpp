#include <typeinfo>

#include "character/lookups.h"
#include "module/units.h"
#include "tarni/bitset.h"
#include "tarni/characterbodypartsolversetting.h"
#include "tarni/describe.h"

namespace tarni::ca {
namespace {

// The framework float conversion the setting's dump uses: no padding, at most three decimals.
void AppendSettingFloat(TextBuilder& out, Float64 value) noexcept {
  AppendFloat(out, value, -1, -3, false, ' ');
}

void AppendSettingFlag(TextBuilder& out, const char* label, bool value) noexcept {
  out.Append(label);
  AppendBool(out, value);
  out.Append('\n');
}

class CharacterBodyPartSolverSettingImpl final : public CharacterBodyPartSolverSetting {
  TARNI_IMPLEMENTS(CharacterBodyPartSolverSettingImpl, CharacterBodyPartSolverSetting)

 private:
  // The field of one component (const or not, as `self`), or null for an unknown component.
  template <typename Self>
  static auto* WeightOf(Self* self, TransformComponent component) noexcept {
    decltype(&self->_positionWeight) slot = nullptr;
    switch (component) {
      case TransformComponent::POSITION:
        slot = &self->_positionWeight;
        break;
      case TransformComponent::ROTATION:
        slot = &self->_rotationWeight;
        break;
      case TransformComponent::SCALE:
        slot = &self->_scaleWeight;
        break;
    }
    return slot;
  }
  template <typename Self>
  static auto* ActiveOf(Self* self, TransformComponent component) noexcept {
    decltype(&self->_positionActive) slot = nullptr;
    switch (component) {
      case TransformComponent::POSITION:
        slot = &self->_positionActive;
        break;
      case TransformComponent::ROTATION:
        slot = &self->_rotationActive;
        break;
      case TransformComponent::SCALE:
        slot = &self->_scaleActive;
        break;
    }
    return slot;
  }

 public:
  // The settings always hold exactly one word, cleared.
  Result<void> Init() noexcept override { return _settings.Init(1); }

  Result<void> SetBodyPartIdentifier(const InternedId& identifier) noexcept override {
    _identifier = identifier;
    return OK;
  }
  InternedId GetBodyPartIdentifier() const noexcept override { return _identifier; }

  void SetBodyPartWeight(Float64 weight) noexcept override { _weight = weight; }
  Float64 GetBodyPartWeight() const noexcept override { return _weight; }
  // GetBodyPartWeight and GetSettingValue(NOPARENTWEIGHT) without the virtual calls.
  BodyPartWeight GetWeightAndLast() const noexcept {
    return {_weight,
            _settings.Get(static_cast<std::uint64_t>(BodyPartSolverSettingFlag::NOPARENTWEIGHT))};
  }

  void SetSettingValue(BodyPartSolverSettingFlag flag, bool value) noexcept override {
    _settings.Set(static_cast<std::uint64_t>(flag), value);
  }
  bool GetSettingValue(BodyPartSolverSettingFlag flag) const noexcept override {
    return _settings.Get(static_cast<std::uint64_t>(flag));
  }

  void SetTransformWeight(TransformComponent component, Float64 weight) noexcept override {
    if (Float64* slot = WeightOf(this, component)) *slot = weight;
  }
  Float64 GetTransformWeight(TransformComponent component) const noexcept override {
    const Float64* slot = WeightOf(this, component);
    return slot ? *slot : 0.0;
  }
  void SetTransformActive(TransformComponent component, bool active) noexcept override {
    if (bool* slot = ActiveOf(this, component)) *slot = active;
  }
  bool IsTransformActive(TransformComponent component) const noexcept override {
    const bool* slot = ActiveOf(this, component);
    return slot ? *slot : false;
  }

  String ToString(const FormatStatement* = nullptr) const noexcept override {
    TextBuilder out;
    out.Append("Identifier : ").Append(_identifier.GetText()).Append('\n');
    out.Append("Weight : ");
    AppendSettingFloat(out, _weight);
    // The component flags print as the integer of the stored byte.
    out.Append("\n_positionActive : ").AppendInt(_positionActive ? 1 : 0);
    out.Append("\n_rotationActive : ").AppendInt(_rotationActive ? 1 : 0);
    out.Append("\n_scaleActive : ").AppendInt(_scaleActive ? 1 : 0);
    out.Append("\n_positionWeight : ");
    AppendSettingFloat(out, _positionWeight);
    out.Append("\n_rotationWeight : ");
    AppendSettingFloat(out, _rotationWeight);
    out.Append("\n_scaleWeight : ");
    AppendSettingFloat(out, _scaleWeight);
    out.Append('\n');
    // No separator between label and value on these two lines, deliberately.
    AppendSettingFlag(out, "_settings : NOPARENTWEIGHT",
                      GetSettingValue(BodyPartSolverSettingFlag::NOPARENTWEIGHT));
    AppendSettingFlag(out, "_settings : DEACTIVATE",
                      GetSettingValue(BodyPartSolverSettingFlag::DEACTIVATE));
    return out.ToString();
  }

  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CharacterBodyPartSolverSettingImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    _identifier = other->_identifier;
    _weight = other->_weight;
    _positionActive = other->_positionActive;
    _rotationActive = other->_rotationActive;
    _scaleActive = other->_scaleActive;
    _positionWeight = other->_positionWeight;
    _rotationWeight = other->_rotationWeight;
    _scaleWeight = other->_scaleWeight;
    return _settings.CopyFrom(other->_settings);
  }

  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  // The members in field order.
  static Result<void> Describe(Describer& describer,
                               CharacterBodyPartSolverSettingImpl* self) noexcept {
    auto at = [self](auto member) -> void* { return self ? &(self->*member) : nullptr; };
    using Self = CharacterBodyPartSolverSettingImpl;
    TARNI_TRY(describer.Member(
        {"_identifier", types::kInternedId, kDescribeNone, {}, at(&Self::_identifier)}));
    TARNI_TRY(
        describer.Member({"_weight", types::kFloat64, kDescribeNone, {}, at(&Self::_weight)}));
    TARNI_TRY(describer.Member(
        {"_positionActive", types::kBool, kDescribeNone, {}, at(&Self::_positionActive)}));
    TARNI_TRY(describer.Member(
        {"_rotationActive", types::kBool, kDescribeNone, {}, at(&Self::_rotationActive)}));
    TARNI_TRY(describer.Member(
        {"_scaleActive", types::kBool, kDescribeNone, {}, at(&Self::_scaleActive)}));
    TARNI_TRY(describer.Member(
        {"_positionWeight", types::kFloat64, kDescribeNone, {}, at(&Self::_positionWeight)}));
    TARNI_TRY(describer.Member(
        {"_rotationWeight", types::kFloat64, kDescribeNone, {}, at(&Self::_rotationWeight)}));
    TARNI_TRY(describer.Member(
        {"_scaleWeight", types::kFloat64, kDescribeNone, {}, at(&Self::_scaleWeight)}));
    return describer.Member({"_settings", types::kBitSet, kDescribeNone, {}, at(&Self::_settings)});
  }

 private:
  InternedId _identifier;
  Float64 _weight = 1.0;
  // Only rotation is transferred by default while all three weights start at 1.0: deliberate.
  bool _positionActive = false;
  bool _rotationActive = true;
  bool _scaleActive = false;
  Float64 _positionWeight = 1.0;
  Float64 _rotationWeight = 1.0;
  Float64 _scaleWeight = 1.0;
  BitSet _settings;
};

constexpr Id kInterfaces[] = {CharacterBodyPartSolverSetting::kInterfaceId};
const StaticFunction kStatics[] = {
    {"DescribeIO",
     reinterpret_cast<void (*)()>(&DescribeClass<CharacterBodyPartSolverSettingImpl>)},
};

}  // namespace

BodyPartWeight BodyPartWeightOf(const CharacterBodyPartSolverSetting& setting) noexcept {
  // The class is final: an equal type is exactly this class.
  if (typeid(setting) == typeid(CharacterBodyPartSolverSettingImpl))
    return static_cast<const CharacterBodyPartSolverSettingImpl&>(setting).GetWeightAndLast();
  return {setting.GetBodyPartWeight(),
          setting.GetSettingValue(BodyPartSolverSettingFlag::NOPARENTWEIGHT)};
}

const ClassRecord kCharacterBodyPartSolverSettingClass{
    CharacterBodyPartSolverSetting::kClassId,
    "CharacterBodyPartSolverSettingImpl",
    "characterbodypartsolversetting_impl",
    &CreateInstance<CharacterBodyPartSolverSettingImpl>,
    &DescribeClass<CharacterBodyPartSolverSettingImpl>,
    {},
    kInterfaces,
    kStatics};

}  // namespace tarni::ca
