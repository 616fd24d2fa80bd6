// Body-part solver settings through their interface, as the solver and a host use them.
#include <gtest/gtest.h>

#include "tarni/characterbodypartsolversetting.h"
#include "tarni/characternodeinfo.h"
#include "tarni/memory.h"

namespace tarni {
namespace {

using Setting = CharacterBodyPartSolverSetting;
using TC = TransformComponent;
using Flag = BodyPartSolverSettingFlag;

CharacterBodyPartSolverSettingRef MakeSetting() {
  auto created = CreateObject<Setting>(Setting::kClassId);
  EXPECT_TRUE(created);
  return created.value();
}

constexpr std::string_view kFreshText =
    "Identifier : \nWeight : 1\n_positionActive : 0\n_rotationActive : 1\n_scaleActive : 0\n"
    "_positionWeight : 1\n_rotationWeight : 1\n_scaleWeight : 1\n"
    "_settings : NOPARENTWEIGHTfalse\n_settings : DEACTIVATEfalse\n";

TEST(CharacterBodyPartSolverSetting, FieldsAreIndependentUnclampedAndBoundedByComponent) {
  CharacterBodyPartSolverSettingRef setting = MakeSetting();
  // Fresh: only the rotation is transferred, at full weight; the two settings lines end in their
  // value with no separator.
  EXPECT_EQ(setting->ToString().GetView(), kFreshText);
  {
    // Component 3 and beyond: setters change nothing, getters answer the neutral value.
    setting->SetTransformWeight(TC{3}, 7.0);
    setting->SetTransformActive(TC{3}, true);
    setting->SetTransformActive(TC{7}, false);
    EXPECT_EQ(setting->GetTransformWeight(TC{3}), 0.0);
    EXPECT_FALSE(setting->IsTransformActive(TC{7}));
    EXPECT_EQ(setting->ToString().GetView(), kFreshText);
  }
  {
    // Each component has its own fields, and nothing is clamped.
    setting->SetTransformWeight(TC::SCALE, 0.25);
    setting->SetTransformActive(TC::POSITION, true);
    setting->SetBodyPartWeight(-2.5);
    setting->SetTransformWeight(TC::ROTATION, 10.0);
    EXPECT_EQ(setting->GetTransformWeight(TC::POSITION), 1.0);
    EXPECT_FALSE(setting->IsTransformActive(TC::SCALE));
    EXPECT_EQ(setting->GetTransformWeight(TC::ROTATION), 10.0);
  }
  {
    // Setting bits are independent; the last bit of the one stored word works, past it nothing
    // is stored.
    setting->SetSettingValue(Flag::DEACTIVATE, true);
    setting->SetSettingValue(Flag::NOPARENTWEIGHT, true);
    setting->SetSettingValue(Flag::DEACTIVATE, false);
    EXPECT_TRUE(setting->GetSettingValue(Flag::NOPARENTWEIGHT));
    EXPECT_FALSE(setting->GetSettingValue(Flag::DEACTIVATE));
    setting->SetSettingValue(Flag{63}, true);
    EXPECT_TRUE(setting->GetSettingValue(Flag{63}));
    setting->SetSettingValue(Flag{64}, true);
    EXPECT_FALSE(setting->GetSettingValue(Flag{64}));
  }
}

TEST(CharacterBodyPartSolverSetting, CloneCopiesEveryFieldAndDumpRoundsToThreeDecimals) {
  CharacterBodyPartSolverSettingRef setting = MakeSetting();
  ASSERT_TRUE(setting->SetBodyPartIdentifier(InternedId::Make("leftarm").value()));
  setting->SetBodyPartWeight(0.12345);
  setting->SetTransformActive(TC::SCALE, true);
  setting->SetTransformWeight(TC::POSITION, -2.5);
  setting->SetTransformWeight(TC::ROTATION, 1234.0);
  setting->SetTransformWeight(TC::SCALE, 0.0005);
  setting->SetSettingValue(Flag::DEACTIVATE, true);
  constexpr std::string_view kText =
      "Identifier : leftarm\nWeight : 0.123\n_positionActive : 0\n_rotationActive : 1\n"
      "_scaleActive : 1\n_positionWeight : -2.5\n_rotationWeight : 1234\n_scaleWeight : 0.001\n"
      "_settings : NOPARENTWEIGHTfalse\n_settings : DEACTIVATEtrue\n";
  EXPECT_EQ(setting->ToString().GetView(), kText);

  CharacterBodyPartSolverSettingRef copy = Cast<Setting>(setting->Clone().value());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->ToString().GetView(), kText);
  // The copy's settings are words of its own.
  copy->SetSettingValue(Flag::DEACTIVATE, false);
  EXPECT_TRUE(setting->GetSettingValue(Flag::DEACTIVATE));
  // Copying from another class is refused and changes nothing.
  auto refused = copy->CopyFrom(*CreateObject(CharacterNodeInfo::kClassId).value());
  EXPECT_TRUE(refused.error().Is(ErrorKind::kIllegalArgument));
  EXPECT_EQ(copy->GetBodyPartWeight(), 0.12345);
}

}  // namespace
}  // namespace tarni
