// The module's registration list as hosts see it: every row's id, kind, implementation and unit in
// load order, and what each kind of row leaves in the framework's class table and registries.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarni/classes.h"
#include "tarni/command.h"
#include "tarni/datatype.h"
#include "tarni/module.h"
#include "tarni/registry.h"

namespace tarni::ca {
const ModuleBlock& GetModuleBlock() noexcept;
}

namespace tarni {
namespace {

struct Row {
  std::string kind;
  std::string id;
  std::string implementation;
  std::string unit;
  bool operator==(const Row&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.kind << " " << row.id << " " << row.implementation << " " << row.unit;
}

std::vector<Row> RowsOf(const ModuleBlock& block) {
  std::vector<Row> rows;
  for (std::int64_t i = 0; i < block.registrationCount; ++i) {
    const Registration& r = block.registrations[i];
    rows.push_back({std::string(RegistrationKindText(r.kind)), std::string(r.id.GetText()),
                    r.implementationName, r.unit});
  }
  return rows;
}

TEST(ModuleRegistration, PublishesItsTableInLoadOrder) {
  const ModuleBlock& block = ca::GetModuleBlock();
  EXPECT_EQ(block.moduleId.GetText(), "net.tarni.ca");
  EXPECT_EQ(block.hostModuleId.GetText(), "net.tarni.kernel");
  const std::string c = "net.tarni.animation.class.";
  const std::vector<Row> expected = {
      {"framework", "net.tarni.ca.framework", "", "module"},
      {"framework", "net.tarni.tarni.framework", "", "module"},
      {"framework", "net.tarni.core.framework", "", "module"},
      {"framework", "net.tarni.command.framework", "", "module"},
      {"framework", "net.tarni.animation_base_private.framework", "", "module"},
      {"object class", c + "characternodeinfo", "CharacterNodeInfoImpl", "characternodeinfo_impl"},
      {"object class", c + "characternodetransform", "CharacterNodeTransformImpl",
       "characternodetransform_impl"},
      {"object class", c + "characterpose", "CharacterPoseImpl", "characterpose_impl"},
      {"object class", c + "charactertree", "CharacterTreeImpl", "charactertree_impl"},
      {"object class", c + "characterbodypart", "CharacterBodyPartImpl", "characterbodypart_impl"},
      {"object class", c + "characterassociation", "CharacterAssociationImpl",
       "characterassociation_impl"},
      {"object class", c + "retargetbasehelper", "RetargetBaseHelperImpl",
       "retargetbasehelper_impl"},
      {"object class", c + "characterbodypartsolversetting", "CharacterBodyPartSolverSettingImpl",
       "characterbodypartsolversetting_impl"},
      {"object class", c + "characterdefinition", "CharacterDefinitionImpl",
       "characterdefinition_impl"},
      {"object class", c + "charactersolverconfiguration", "CharacterSolverConfigurationImpl",
       "charactersolverconfiguration_impl"},
      {"object class", c + "charactersolver", "CharacterSolverImpl", "charactersolver_impl"},
      {"data type", "net.tarni.animation.datatype.keyframe", "tarni::Key", "keyframe"},
      {"command class", "net.tarni.command.animation.timeline.reducedmodificationcurve",
       "ReducedModificationCurveCommand", "reducedmodificationcurve"},
      {"command class", "net.tarni.command.animation.timeline.bezierfitter", "BezierFitterCommand",
       "bezierfitter"},
      {"command data class", "net.tarni.command.animation", "AnimationDataImpl",
       "animationdata_impl"},
      {"reflection", ".reflection", "[reflection registration]", "reflection"},
  };
  EXPECT_EQ(RowsOf(block), expected);

  // What each row left behind once loaded (the test program loads the module at start).
  for (std::int64_t i = 0; i < block.registrationCount; ++i) {
    const Registration& row = block.registrations[i];
    SCOPED_TRACE(row.id.GetText());
    RegistryEntry entry;
    switch (row.kind) {
      case RegistrationKind::kObjectClass: {
        const ClassInfo* info = FindClass(row.id);
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->GetImplementationName(), row.implementationName);
        EXPECT_STREQ(info->GetRecord().unit, row.unit);
        EXPECT_TRUE(CreateObject(row.id));
        break;
      }
      case RegistrationKind::kCommandClass:
        ASSERT_TRUE(FindEntry(kCommandClassesRegistry, row.id, &entry));
        EXPECT_EQ(entry.classId, row.id);
        EXPECT_NE(FindClass(row.id), nullptr);
        break;
      case RegistrationKind::kCommandDataClass:
        ASSERT_TRUE(FindEntry(kCommandDataClassesRegistry, row.id, &entry));
        EXPECT_EQ(entry.classId, row.id);
        EXPECT_NE(FindClass(row.id), nullptr);
        break;
      case RegistrationKind::kDataType: {
        // An entry of the data-type registry, with no class, and the type itself.
        ASSERT_TRUE(FindEntry(kDataTypesRegistry, row.id, &entry));
        EXPECT_EQ(entry.classId, Id());
        const DataType* type = FindDataType(row.id);
        ASSERT_NE(type, nullptr);
        EXPECT_STREQ(type->name, "tarni::Key");
        break;
      }
      case RegistrationKind::kFramework:
      case RegistrationKind::kReflection:
        EXPECT_EQ(FindClass(row.id), nullptr);
        break;
    }
  }
}

TEST(ModuleRegistration, UnloadingTakesEveryEntryAwayAndLoadingBringsThemBack) {
  const ModuleBlock& block = ca::GetModuleBlock();
  const Id keyframe("net.tarni.animation.datatype.keyframe");
  const Id fitter("net.tarni.command.animation.timeline.bezierfitter");
  const Id pose("net.tarni.animation.class.characterpose");
  auto dataTypeEntries = [] { return ListEntries(kDataTypesRegistry).value().GetCount(); };
  const Int loadedTypes = dataTypeEntries();

  UnregisterModule(block.moduleId);
  EXPECT_EQ(FindModule(block.moduleId), nullptr);
  EXPECT_FALSE(FindEntry(kDataTypesRegistry, keyframe, nullptr));
  EXPECT_EQ(FindDataType(keyframe), nullptr);
  EXPECT_FALSE(FindEntry(kCommandClassesRegistry, fitter, nullptr));
  EXPECT_EQ(FindClass(pose), nullptr);
  // The body part's unit registers a data type of its own; both entries are gone.
  EXPECT_EQ(dataTypeEntries(), loadedTypes - 2);

  ASSERT_TRUE(RegisterModule(block));
  EXPECT_TRUE(FindEntry(kDataTypesRegistry, keyframe, nullptr));
  EXPECT_NE(FindDataType(keyframe), nullptr);
  EXPECT_TRUE(FindEntry(kCommandClassesRegistry, fitter, nullptr));
  EXPECT_NE(FindClass(pose), nullptr);
  EXPECT_EQ(dataTypeEntries(), loadedTypes);
}

}  // namespace
}  // namespace tarni
