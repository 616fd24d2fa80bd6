// CharacterSolverConfiguration: everything one retargeting solve needs besides the poses: the
// source and target characters, the association between them, one body-part solver setting per
// body-part identifier, a global weight and the solving mode. The solver only reads it.
#pragma once

#include <cstdint>

#include "tarni/characterassociation.h"
#include "tarni/characterbodypartsolversetting.h"
#include "tarni/characterdefinition.h"
#include "tarni/classes.h"
#include "tarni/object.h"

namespace tarni {

// Which node sets a solve maps onto each other.
enum class SolvingMode : std::int32_t {
  // Skeleton nodes of the source onto skeleton nodes of the target.
  SKELETONTOSKELETON = 0,
  // Controllers of the source onto controllers of the target.
  CONTROLLERTOCONTROLLER = 1,
};

// The configuration holds the characters, the association and the settings by shared reference,
// never copying them: a setting changed after it was stored is seen changed here too.
class CharacterSolverConfiguration : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.charactersolverconfiguration"};
  static constexpr Id kClassId{"net.tarni.animation.class.charactersolverconfiguration"};
  using Extends = InterfaceList<>;

  // A fresh configuration: no characters, no association, no settings, global weight 1.0,
  // SKELETONTOSKELETON.

  // Store the reference given (null accepted). Always succeed.
  virtual Result<void> SetSourceCharacter(const CharacterDefinitionRef& character) noexcept = 0;
  virtual const CharacterDefinitionRef& GetSourceCharacter() const noexcept = 0;
  virtual Result<void> SetTargetCharacter(const CharacterDefinitionRef& character) noexcept = 0;
  virtual const CharacterDefinitionRef& GetTargetCharacter() const noexcept = 0;
  virtual Result<void> SetCharacterAssociation(
      const CharacterAssociationRef& association) noexcept = 0;
  virtual const CharacterAssociationRef& GetCharacterAssociation() const noexcept = 0;

  // SetSourceCharacter, SetTargetCharacter, then SetCharacterAssociation, stopping at and
  // returning the first error (the setters that ran keep their values).
  virtual Result<void> Setup(const CharacterDefinitionRef& source,
                             const CharacterDefinitionRef& target,
                             const CharacterAssociationRef& association) noexcept = 0;

  // Checks that both characters are set: an unexpected error "Invalid Source Character", then
  // "Invalid Target Character". The association and the settings are deliberately not examined.
  virtual Result<void> Validate() const noexcept = 0;

  // Stores `setting` under its own body-part identifier (a null setting under the empty
  // identifier), replacing any setting stored there: the last one set wins. Fails only when memory
  // runs out, leaving the settings unchanged.
  virtual Result<void> SetBodyPartSetting(
      const CharacterBodyPartSolverSettingRef& setting) noexcept = 0;
  // The setting stored under `identifier`, or null (not an error) when there is none.
  virtual CharacterBodyPartSolverSettingRef GetBodyPartSetting(
      const InternedId& identifier) const noexcept = 0;
  // Removes every setting (it takes no key). Always succeeds.
  virtual Result<void> ClearBodyPartSetting() noexcept = 0;

  // Stored as given (no clamping). The solver does not read it: applying it is the caller's part.
  virtual void SetGlobalWeight(Float64 weight) noexcept = 0;
  virtual Float64 GetGlobalWeight() const noexcept = 0;
  // Stored as given, without a range check; the solver treats every non-zero mode as
  // CONTROLLERTOCONTROLLER.
  virtual void SetSolvingMode(SolvingMode mode) noexcept = 0;
  virtual SolvingMode GetSolvingMode() const noexcept = 0;

  // ToString (the object's), each line ended by "\n":
  //   "Source Character : " text, "Target Character : " text, "_associationSourceTarget : " text
  //   (each object's own text, or "nullptr"), "_bpSettings : {" id "->" setting text "," ... "}",
  //   "_globalWeight : " w (AppendFloat(out, w, -1, -3, false, ' ')), "_solvingMode : " name.
  // For a mode other than 0 and 1 the text deliberately ends after the global weight's line.
  // Copying (CopyFrom, Clone) shares the source's characters, association and settings as the
  // setters do; when memory runs out it fails with the out-of-memory error and changes nothing.
};

// Configurations are plain shared references.
using CharacterSolverConfigurationRef = Ref<CharacterSolverConfiguration>;

}  // namespace tarni
