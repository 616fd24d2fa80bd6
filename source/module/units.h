// The class records and registration functions each source unit publishes to the registration
// list (registration.cpp).
#pragma once

#include "tarni/classes.h"
#include "tarni/command.h"
#include "tarni/datatype.h"
#include "tarni/module.h"

namespace tarni::ca {

// Runs the registration of one object class, and undoes it.
template <const ClassRecord& kRecord>
Result<void> RegisterObjectClass() noexcept {
  auto registered = RegisterClass(kRecord);
  if (!registered) return registered.error();
  return OK;
}
template <const ClassRecord& kRecord>
void UnregisterObjectClass() noexcept {
  UnregisterClass(kRecord.classId);
}

// The DescribeIO entry of a class record: the class-level description, without an instance.
template <typename Impl>
Result<void> DescribeClass(Describer& describer) noexcept {
  return Impl::Describe(describer, nullptr);
}

// A command class: registered as a class and as an entry of the command-classes registry.
template <const ClassRecord& kRecord>
Result<void> RegisterCommandClass() noexcept {
  TARNI_TRY(RegisterObjectClass<kRecord>());
  if (auto entry = RegisterEntry({kCommandClassesRegistry, kRecord.classId, kRecord.classId});
      !entry) {
    UnregisterClass(kRecord.classId);
    return entry;
  }
  return OK;
}
template <const ClassRecord& kRecord>
void UnregisterCommandClass() noexcept {
  UnregisterEntry(kCommandClassesRegistry, kRecord.classId);
  UnregisterClass(kRecord.classId);
}
// A command data class: registered as a class and as an entry of the command-data-classes registry.
template <const ClassRecord& kRecord>
Result<void> RegisterCommandDataClass() noexcept {
  TARNI_TRY(RegisterObjectClass<kRecord>());
  if (auto entry = RegisterEntry({kCommandDataClassesRegistry, kRecord.classId, kRecord.classId});
      !entry) {
    UnregisterClass(kRecord.classId);
    return entry;
  }
  return OK;
}
template <const ClassRecord& kRecord>
void UnregisterCommandDataClass() noexcept {
  UnregisterEntry(kCommandDataClassesRegistry, kRecord.classId);
  UnregisterClass(kRecord.classId);
}
// A data type in net.tarni.registry.datatypes.
template <const DataType& kType>
Result<void> RegisterDataTypeUnit() noexcept {
  return RegisterDataType(kType);
}
template <const DataType& kType>
void UnregisterDataTypeUnit() noexcept {
  UnregisterDataType(kType.id);
}

// The records each unit defines, in the order the units run.
extern const ClassRecord kCharacterNodeInfoClass;       // characternodeinfo_impl
extern const ClassRecord kCharacterNodeTransformClass;  // characternodetransform_impl
extern const ClassRecord kCharacterPoseClass;           // characterpose_impl
extern const ClassRecord kCharacterTreeClass;           // charactertree_impl
extern const ClassRecord kCharacterBodyPartClass;       // characterbodypart_impl
// The body part's unit registers its class and its attribute-transfer-mode data type.
Result<void> RegisterCharacterBodyPartUnit() noexcept;
void UnregisterCharacterBodyPartUnit() noexcept;
extern const ClassRecord kCharacterAssociationClass;  // characterassociation_impl
extern const ClassRecord kRetargetBaseHelperClass;    // retargetbasehelper_impl
extern const ClassRecord
    kCharacterBodyPartSolverSettingClass;                     // characterbodypartsolversetting_impl
extern const ClassRecord kCharacterDefinitionClass;           // characterdefinition_impl
extern const ClassRecord kCharacterSolverConfigurationClass;  // charactersolverconfiguration_impl
extern const ClassRecord kCharacterSolverClass;               // charactersolver_impl
extern const DataType kKeyframeDataType;                      // keyframe
extern const ClassRecord kReducedModificationCurveClass;      // reducedmodificationcurve
extern const ClassRecord kBezierFitterClass;                  // bezierfitter
extern const ClassRecord kAnimationDataClass;                 // animationdata_impl

const ModuleBlock& GetModuleBlock() noexcept;

}  // namespace tarni::ca
