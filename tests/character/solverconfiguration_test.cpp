// Solver configuration: references, validation, the settings map and the dump, as a host fills
// and checks it before solving.
#include <gtest/gtest.h>

#include <string>

#include "tarni/charactersolverconfiguration.h"

namespace tarni {
namespace {

using namespace tarni::literals;

InternedId Ident(std::string_view text) { return InternedId::Make(text).value(); }

CharacterSolverConfigurationRef MakeConfiguration() {
  return CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId).value();
}
CharacterDefinitionRef MakeDefinition(const String& name) {
  CharacterDefinitionRef definition =
      CreateObject<CharacterDefinition>(CharacterDefinition::kClassId).value();
  EXPECT_TRUE(definition->SetName(name));
  return definition;
}
CharacterBodyPartSolverSettingRef MakeSetting(std::string_view identifier, Float64 weight) {
  CharacterBodyPartSolverSettingRef setting =
      CreateObject<CharacterBodyPartSolverSetting>(CharacterBodyPartSolverSetting::kClassId)
          .value();
  EXPECT_TRUE(setting->SetBodyPartIdentifier(Ident(identifier)));
  setting->SetBodyPartWeight(weight);
  return setting;
}

void ExpectUnexpected(const Result<void>& result, std::string_view message) {
  ASSERT_FALSE(result);
  EXPECT_TRUE(result.error().Is(ErrorKind::kUnexpected));
  EXPECT_EQ(result.error().GetMessage(), message);
  EXPECT_EQ(result.error().GetUnit(), "charactersolverconfiguration_impl");
}

TEST(CharacterSolverConfiguration, ValidateNeedsBothCharactersButNoAssociation) {
  CharacterSolverConfigurationRef config = MakeConfiguration();
  EXPECT_EQ(config->GetGlobalWeight(), 1.0);
  EXPECT_EQ(config->GetSolvingMode(), SolvingMode::SKELETONTOSKELETON);
  ExpectUnexpected(config->Validate(), "Invalid Source Character");
  {
    // The target alone is not enough either: the source is checked first.
    ASSERT_TRUE(config->SetTargetCharacter(MakeDefinition("Target"_s)));
    ExpectUnexpected(config->Validate(), "Invalid Source Character");
    ASSERT_TRUE(config->SetTargetCharacter(nullptr));
  }
  ASSERT_TRUE(config->SetSourceCharacter(MakeDefinition("Source"_s)));
  ExpectUnexpected(config->Validate(), "Invalid Target Character");
  ASSERT_TRUE(config->SetTargetCharacter(MakeDefinition("Target"_s)));
  EXPECT_TRUE(config->Validate());
}

TEST(CharacterSolverConfiguration, OneSettingPerIdentifierTheLastWins) {
  CharacterSolverConfigurationRef config = MakeConfiguration();
  CharacterBodyPartSolverSettingRef first = MakeSetting("arm", 0.5);
  CharacterBodyPartSolverSettingRef second = MakeSetting("arm", 0.25);
  ASSERT_TRUE(config->SetBodyPartSetting(first));
  ASSERT_TRUE(config->SetBodyPartSetting(MakeSetting("leg", 1.0)));
  ASSERT_TRUE(config->SetBodyPartSetting(second));
  EXPECT_EQ(config->GetBodyPartSetting(Ident("arm")).Get(), second.Get());
  {
    // Held by reference: a later change shows; the replaced setting is released.
    second->SetBodyPartWeight(0.125);
    EXPECT_EQ(config->GetBodyPartSetting(Ident("arm"))->GetBodyPartWeight(), 0.125);
    EXPECT_EQ(first->GetRefCount(), 1);
  }
  {
    // Unknown identifiers give null, not an error; a null setting lives under the empty key.
    EXPECT_FALSE(config->GetBodyPartSetting(Ident("tail")));
    ASSERT_TRUE(config->SetBodyPartSetting(nullptr));
    EXPECT_FALSE(config->GetBodyPartSetting(InternedId()));
  }
  {
    // Clearing takes no key: every entry goes.
    ASSERT_TRUE(config->ClearBodyPartSetting());
    EXPECT_FALSE(config->GetBodyPartSetting(Ident("arm")));
    EXPECT_NE(config->ToString().GetView().find("_bpSettings : {}\n"), std::string_view::npos);
  }
}

TEST(CharacterSolverConfiguration, DumpLinesAndTheUnknownModeEnding) {
  CharacterSolverConfigurationRef config = MakeConfiguration();
  EXPECT_EQ(config->ToString().GetView(),
            "Source Character : nullptr\n"
            "Target Character : nullptr\n"
            "_associationSourceTarget : nullptr\n"
            "_bpSettings : {}\n"
            "_globalWeight : 1\n"
            "_solvingMode : SKELETONTOSKELETON\n");
  {
    // Nested texts are each object's own; a definition's text ends with its own line feed.
    ASSERT_TRUE(config->SetSourceCharacter(MakeDefinition("Hero"_s)));
    ASSERT_TRUE(config->SetCharacterAssociation(CharacterAssociationRef(
        CreateObject<CharacterAssociation>(CharacterAssociation::kClassId).value())));
    ASSERT_TRUE(config->SetBodyPartSetting(MakeSetting("arm", 0.5)));
    ASSERT_TRUE(config->SetBodyPartSetting(MakeSetting("leg", 2.0)));
    config->SetGlobalWeight(0.3333);
    config->SetSolvingMode(SolvingMode::CONTROLLERTOCONTROLLER);
    const std::string setting =
        "_rotationActive : 1\n_scaleActive : 0\n_positionWeight : 1\n"
        "_rotationWeight : 1\n_scaleWeight : 1\n"
        "_settings : NOPARENTWEIGHTfalse\n_settings : DEACTIVATEfalse\n";
    EXPECT_EQ(config->ToString().GetView(),
              "Source Character : Object ID : 00000000-0000-0000-0000-000000000000\n"
              "Object Name : Hero\n\n"
              "Target Character : nullptr\n"
              "_associationSourceTarget : Uuid Association Table : \n{}"
              "InternedId Association Table : \n{}\n"
              "_bpSettings : {arm->Identifier : arm\nWeight : 0.5\n_positionActive : 0\n" +
                  setting + ",leg->Identifier : leg\nWeight : 2\n_positionActive : 0\n" + setting +
                  "}\n"
                  "_globalWeight : 0.333\n"
                  "_solvingMode : CONTROLLERTOCONTROLLER\n");
  }
  {
    // An unknown mode ends the text with the global weight's line.
    config->SetSolvingMode(SolvingMode{5});
    config->SetGlobalWeight(-1.0);
    const String dump = config->ToString();
    const std::string_view text = dump.GetView();
    const std::string_view ending = "}\n_globalWeight : -1\n";
    ASSERT_GE(text.size(), ending.size());
    EXPECT_EQ(text.substr(text.size() - ending.size()), ending);
  }
}

}  // namespace
}  // namespace tarni
