#include <typeinfo>

#include "character/lookups.h"
#include "module/units.h"
#include "tarni/charactersolverconfiguration.h"
#include "tarni/describe.h"
#include "tarni/hashmap.h"

namespace tarni::ca {
namespace {

// An object's own text, or the null-reference text.
template <typename R>
void AppendObjectText(TextBuilder& out, const R& ref, const FormatStatement* format) noexcept {
  if (ref) {
    out.Append(ref->ToString(format));
  } else {
    out.Append(kNullReferenceText);
  }
}

class CharacterSolverConfigurationImpl final : public CharacterSolverConfiguration {
  TARNI_IMPLEMENTS(CharacterSolverConfigurationImpl, CharacterSolverConfiguration)
 public:
  Result<void> SetSourceCharacter(const CharacterDefinitionRef& character) noexcept override {
    _sourceCharacter = character;
    return OK;
  }
  const CharacterDefinitionRef& GetSourceCharacter() const noexcept override {
    return _sourceCharacter;
  }
  Result<void> SetTargetCharacter(const CharacterDefinitionRef& character) noexcept override {
    _targetCharacter = character;
    return OK;
  }
  const CharacterDefinitionRef& GetTargetCharacter() const noexcept override {
    return _targetCharacter;
  }
  Result<void> SetCharacterAssociation(
      const CharacterAssociationRef& association) noexcept override {
    _associationSourceTarget = association;
    return OK;
  }
  const CharacterAssociationRef& GetCharacterAssociation() const noexcept override {
    return _associationSourceTarget;
  }

  Result<void> Setup(const CharacterDefinitionRef& source, const CharacterDefinitionRef& target,
                     const CharacterAssociationRef& association) noexcept override {
    // Through the interface, so that a class built on this one sees each step.
    CharacterSolverConfiguration& self = *this;
    TARNI_TRY(self.SetSourceCharacter(source));
    TARNI_TRY(self.SetTargetCharacter(target));
    return self.SetCharacterAssociation(association);
  }

  Result<void> Validate() const noexcept override {
    if (!_sourceCharacter) return UnexpectedError("Invalid Source Character");
    if (!_targetCharacter) return UnexpectedError("Invalid Target Character");
    return OK;
  }

  Result<void> SetBodyPartSetting(
      const CharacterBodyPartSolverSettingRef& setting) noexcept override {
    const InternedId key = setting ? setting->GetBodyPartIdentifier() : InternedId();
    auto* entry = TARNI_TRY(_bpSettings.FindOrInsert(key));
    entry->value = setting;
    return OK;
  }
  CharacterBodyPartSolverSettingRef GetBodyPartSetting(
      const InternedId& identifier) const noexcept override {
    const CharacterBodyPartSolverSettingRef* found = _bpSettings.Find(identifier);
    if (found == nullptr) return CharacterBodyPartSolverSettingRef();
    return *found;
  }
  // The table itself (see OwnBodyPartSettings).
  const BodyPartSettingTable& BodyPartSettings() const noexcept { return _bpSettings; }
  Result<void> ClearBodyPartSetting() noexcept override {
    _bpSettings.Flush();
    return OK;
  }

  void SetGlobalWeight(Float64 weight) noexcept override { _globalWeight = weight; }
  Float64 GetGlobalWeight() const noexcept override { return _globalWeight; }
  void SetSolvingMode(SolvingMode mode) noexcept override { _solvingMode = mode; }
  SolvingMode GetSolvingMode() const noexcept override { return _solvingMode; }

  String ToString(const FormatStatement* format = nullptr) const noexcept override {
    TextBuilder out;
    out.Append("Source Character : ");
    AppendObjectText(out, _sourceCharacter, format);
    out.Append("\nTarget Character : ");
    AppendObjectText(out, _targetCharacter, format);
    out.Append("\n_associationSourceTarget : ");
    AppendObjectText(out, _associationSourceTarget, format);
    out.Append("\n_bpSettings : {");
    bool first = true;
    for (const auto& entry : _bpSettings) {
      if (!first) out.Append(',');
      first = false;
      entry.key.AppendText(out);
      out.Append("->");
      AppendObjectText(out, entry.value, format);
    }
    out.Append("}\n_globalWeight : ");
    AppendFloat(out, _globalWeight, -1, -3, false, ' ');
    out.Append('\n');
    // An unknown mode deliberately ends the text after the global weight.
    if (_solvingMode == SolvingMode::SKELETONTOSKELETON) {
      out.Append("_solvingMode : SKELETONTOSKELETON\n");
    } else if (_solvingMode == SolvingMode::CONTROLLERTOCONTROLLER) {
      out.Append("_solvingMode : CONTROLLERTOCONTROLLER\n");
    }
    return out.ToString();
  }

  // Shares the source's characters, association and settings, as the setters do. The settings
  // table, the only part that needs memory, goes first, so a failed copy changes nothing.
  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CharacterSolverConfigurationImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    TARNI_TRY(_bpSettings.CopyFrom(other->_bpSettings));
    _sourceCharacter = other->_sourceCharacter;
    _targetCharacter = other->_targetCharacter;
    _associationSourceTarget = other->_associationSourceTarget;
    _globalWeight = other->_globalWeight;
    _solvingMode = other->_solvingMode;
    return OK;
  }

  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  // The members in field order.
  static Result<void> Describe(Describer& describer,
                               CharacterSolverConfigurationImpl* self) noexcept {
    auto at = [self](auto member) -> void* { return self ? &(self->*member) : nullptr; };
    using Self = CharacterSolverConfigurationImpl;
    TARNI_TRY(describer.Member({"_sourceCharacter",
                                CharacterDefinition::kInterfaceId,
                                kDescribeReference,
                                {},
                                at(&Self::_sourceCharacter)}));
    TARNI_TRY(describer.Member({"_targetCharacter",
                                CharacterDefinition::kInterfaceId,
                                kDescribeReference,
                                {},
                                at(&Self::_targetCharacter)}));
    TARNI_TRY(describer.Member({"_associationSourceTarget",
                                CharacterAssociation::kInterfaceId,
                                kDescribeReference | kDescribeCopyOnWrite,
                                {},
                                at(&Self::_associationSourceTarget)}));
    TARNI_TRY(describer.Member({"_bpSettings", CharacterBodyPartSolverSetting::kInterfaceId,
                                kDescribeMap | kDescribeReference, types::kInternedId,
                                at(&Self::_bpSettings)}));
    TARNI_TRY(describer.Member(
        {"_globalWeight", types::kFloat64, kDescribeNone, {}, at(&Self::_globalWeight)}));
    return describer.Member(
        {"_solvingMode", types::kInt32, kDescribeNone, {}, at(&Self::_solvingMode)});
  }

 private:
  CharacterDefinitionRef _sourceCharacter;
  CharacterDefinitionRef _targetCharacter;
  CharacterAssociationRef _associationSourceTarget;
  HashMap<InternedId, CharacterBodyPartSolverSettingRef> _bpSettings;
  Float64 _globalWeight = 1.0;
  SolvingMode _solvingMode = SolvingMode::SKELETONTOSKELETON;
};

constexpr Id kInterfaces[] = {CharacterSolverConfiguration::kInterfaceId};
const StaticFunction kStatics[] = {
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterSolverConfigurationImpl>)},
};

}  // namespace

const BodyPartSettingTable* OwnBodyPartSettings(
    const CharacterSolverConfiguration& config) noexcept {
  // The class is final: an equal type is exactly this class.
  if (typeid(config) != typeid(CharacterSolverConfigurationImpl)) return nullptr;
  return &static_cast<const CharacterSolverConfigurationImpl&>(config).BodyPartSettings();
}

const CharacterBodyPartSolverSetting* PeekBodyPartSetting(
    const CharacterSolverConfiguration& config, const InternedId& identifier,
    CharacterBodyPartSolverSettingRef& holder) noexcept {
  if (const BodyPartSettingTable* table = OwnBodyPartSettings(config)) {
    const CharacterBodyPartSolverSettingRef* found = table->Find(identifier);
    return found ? found->Get() : nullptr;
  }
  holder = config.GetBodyPartSetting(identifier);
  return holder.Get();
}

const ClassRecord kCharacterSolverConfigurationClass{
    CharacterSolverConfiguration::kClassId,
    "CharacterSolverConfigurationImpl",
    "charactersolverconfiguration_impl",
    &CreateInstance<CharacterSolverConfigurationImpl>,
    &DescribeClass<CharacterSolverConfigurationImpl>,
    {},
    kInterfaces,
    kStatics};

}  // namespace tarni::ca
