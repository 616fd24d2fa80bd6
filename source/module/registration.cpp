// The module's registration list: what it publishes, in the fixed order the units run at load.
// The list is data (g_tarni.registrations) so hosts and tests can read it.
#include "module/units.h"
#include "tarni/characterassociation.h"
#include "tarni/characterbodypart.h"
#include "tarni/characterbodypartsolversetting.h"
#include "tarni/characterdefinition.h"
#include "tarni/characternodetransform.h"
#include "tarni/characterpose.h"
#include "tarni/charactersolver.h"
#include "tarni/charactersolverconfiguration.h"
#include "tarni/charactertree.h"
#include "tarni/retargetbasehelper.h"

namespace tarni::ca {
namespace {

using enum RegistrationKind;

// Frameworks whose interfaces the module's code uses are declared, not registered into anything.
#define TARNI_FRAMEWORK(idText) \
  Registration { kFramework, Id(idText), "", "module", nullptr, nullptr }
#define TARNI_OBJECT_CLASS(classId, record, implementation, unit)              \
  Registration {                                                               \
    kObjectClass, classId, implementation, unit, &RegisterObjectClass<record>, \
        &UnregisterObjectClass<record>                                         \
  }

#define TARNI_DATA_TYPE_ROW(typeId, type, typeName, unit)                                         \
  Registration {                                                                                  \
    kDataType, typeId, typeName, unit, &RegisterDataTypeUnit<type>, &UnregisterDataTypeUnit<type> \
  }
#define TARNI_COMMAND_CLASS(classId, record, implementation, unit)               \
  Registration {                                                                 \
    kCommandClass, classId, implementation, unit, &RegisterCommandClass<record>, \
        &UnregisterCommandClass<record>                                          \
  }
#define TARNI_COMMAND_DATA_CLASS(classId, record, implementation, unit)                  \
  Registration {                                                                         \
    kCommandDataClass, classId, implementation, unit, &RegisterCommandDataClass<record>, \
        &UnregisterCommandDataClass<record>                                              \
  }

constexpr Registration kRegistrations[] = {
    TARNI_FRAMEWORK("net.tarni.ca.framework"),
    TARNI_FRAMEWORK("net.tarni.tarni.framework"),
    TARNI_FRAMEWORK("net.tarni.core.framework"),
    TARNI_FRAMEWORK("net.tarni.command.framework"),
    TARNI_FRAMEWORK("net.tarni.animation_base_private.framework"),
    // Rows in the order of the module's units.
    TARNI_OBJECT_CLASS(CharacterNodeInfo::kClassId, kCharacterNodeInfoClass,
                       "CharacterNodeInfoImpl", "characternodeinfo_impl"),
    TARNI_OBJECT_CLASS(CharacterNodeTransform::kClassId, kCharacterNodeTransformClass,
                       "CharacterNodeTransformImpl", "characternodetransform_impl"),
    TARNI_OBJECT_CLASS(CharacterPose::kClassId, kCharacterPoseClass, "CharacterPoseImpl",
                       "characterpose_impl"),
    TARNI_OBJECT_CLASS(CharacterTree::kClassId, kCharacterTreeClass, "CharacterTreeImpl",
                       "charactertree_impl"),
    // The body part's unit also registers its attribute-transfer-mode data type.
    Registration{kObjectClass, CharacterBodyPart::kClassId, "CharacterBodyPartImpl",
                 "characterbodypart_impl", &RegisterCharacterBodyPartUnit,
                 &UnregisterCharacterBodyPartUnit},
    TARNI_OBJECT_CLASS(CharacterAssociation::kClassId, kCharacterAssociationClass,
                       "CharacterAssociationImpl", "characterassociation_impl"),
    TARNI_OBJECT_CLASS(RetargetBaseHelper::kClassId, kRetargetBaseHelperClass,
                       "RetargetBaseHelperImpl", "retargetbasehelper_impl"),
    TARNI_OBJECT_CLASS(CharacterBodyPartSolverSetting::kClassId,
                       kCharacterBodyPartSolverSettingClass, "CharacterBodyPartSolverSettingImpl",
                       "characterbodypartsolversetting_impl"),
    TARNI_OBJECT_CLASS(CharacterDefinition::kClassId, kCharacterDefinitionClass,
                       "CharacterDefinitionImpl", "characterdefinition_impl"),
    TARNI_OBJECT_CLASS(CharacterSolverConfiguration::kClassId, kCharacterSolverConfigurationClass,
                       "CharacterSolverConfigurationImpl", "charactersolverconfiguration_impl"),
    TARNI_OBJECT_CLASS(CharacterSolver::kClassId, kCharacterSolverClass, "CharacterSolverImpl",
                       "charactersolver_impl"),
    TARNI_DATA_TYPE_ROW(Id("net.tarni.animation.datatype.keyframe"), kKeyframeDataType,
                        "tarni::Key", "keyframe"),
    TARNI_COMMAND_CLASS(Id("net.tarni.command.animation.timeline.reducedmodificationcurve"),
                        kReducedModificationCurveClass, "ReducedModificationCurveCommand",
                        "reducedmodificationcurve"),
    TARNI_COMMAND_CLASS(Id("net.tarni.command.animation.timeline.bezierfitter"), kBezierFitterClass,
                        "BezierFitterCommand", "bezierfitter"),
    TARNI_COMMAND_DATA_CLASS(Id("net.tarni.command.animation"), kAnimationDataClass,
                             "AnimationDataImpl", "animationdata_impl"),
    Registration{kReflection, Id(".reflection"), "[reflection registration]", "reflection", nullptr,
                 nullptr},
};

#undef TARNI_FRAMEWORK
#undef TARNI_OBJECT_CLASS
#undef TARNI_DATA_TYPE_ROW
#undef TARNI_COMMAND_CLASS
#undef TARNI_COMMAND_DATA_CLASS

}  // namespace
}  // namespace tarni::ca

// The module block: the plugin's one exported symbol.
extern "C" __attribute__((visibility("default"))) const tarni::ModuleBlock g_tarni{
    tarni::kModuleAbiVersion, tarni::Id("net.tarni.ca"), tarni::Id("net.tarni.kernel"),
    tarni::ca::kRegistrations,
    static_cast<std::int64_t>(sizeof(tarni::ca::kRegistrations) / sizeof(tarni::Registration))};

namespace tarni::ca {
const ModuleBlock& GetModuleBlock() noexcept { return g_tarni; }
}  // namespace tarni::ca
