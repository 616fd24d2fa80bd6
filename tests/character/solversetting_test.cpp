// Body-part solver settings through their interface, as the solver and a host use them.
#include <gtest/gtest.h>

#include "tarni/characterbodypartsolversetting.h"
#include "tarni/characternodeinfo.h"
#include "tarni/describe.h"
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
    "Identifier : \n"
    "Weight : 1\n"
    "_positionActive : 0\n"
    "_rotationActive : 1\n"
    "_scaleActive : 0\n"
    "_positionWeight : 1\n"
    "_rotationWeight : 1\n"
    "_scaleWeight : 1\n"
    "_settings : NOPARENTWEIGHTfalse\n"
    "_settings : DEACTIVATEfalse\n";

TEST(CharacterBodyPartSolverSetting, FreshSettingTransfersOnlyRotationAtFullWeight) {
  CharacterBodyPartSolverSettingRef setting = MakeSetting();
  ASSERT_TRUE(setting);
  EXPECT_EQ(setting->GetBodyPartWeight(), 1.0);
  EXPECT_FALSE(setting->IsTransformActive(TC::POSITION));
  EXPECT_TRUE(setting->IsTransformActive(TC::ROTATION));
  EXPECT_FALSE(setting->IsTransformActive(TC::SCALE));
  for (TC c : {TC::POSITION, TC::ROTATION, TC::SCALE})
    EXPECT_EQ(setting->GetTransformWeight(c), 1.0);
  EXPECT_FALSE(setting->GetSettingValue(Flag::NOPARENTWEIGHT));
  EXPECT_FALSE(setting->GetSettingValue(Flag::DEACTIVATE));
  EXPECT_TRUE(setting->GetBodyPartIdentifier().IsEmpty());
  // The two settings lines end in their value with no separator.
  EXPECT_EQ(setting->ToString().GetView(), kFreshText);
}

TEST(CharacterBodyPartSolverSetting, ComponentsOutOfRangeAreIgnoredAndValuesNeverClamped) {
  CharacterBodyPartSolverSettingRef setting = MakeSetting();
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
    // Each component has its own fields.
    setting->SetTransformWeight(TC::SCALE, 0.25);
    setting->SetTransformActive(TC::POSITION, true);
    setting->SetTransformActive(TC::ROTATION, false);
    EXPECT_EQ(setting->GetTransformWeight(TC::POSITION), 1.0);
    EXPECT_EQ(setting->GetTransformWeight(TC::SCALE), 0.25);
    EXPECT_TRUE(setting->IsTransformActive(TC::POSITION));
    EXPECT_FALSE(setting->IsTransformActive(TC::ROTATION));
    EXPECT_FALSE(setting->IsTransformActive(TC::SCALE));
  }
  {
    // No clamping anywhere.
    setting->SetBodyPartWeight(-2.5);
    setting->SetTransformWeight(TC::ROTATION, 10.0);
    EXPECT_EQ(setting->GetBodyPartWeight(), -2.5);
    EXPECT_EQ(setting->GetTransformWeight(TC::ROTATION), 10.0);
  }
}

TEST(CharacterBodyPartSolverSetting, SettingBitsAreIndependent) {
  CharacterBodyPartSolverSettingRef setting = MakeSetting();
  setting->SetSettingValue(Flag::DEACTIVATE, true);
  EXPECT_TRUE(setting->GetSettingValue(Flag::DEACTIVATE));
  EXPECT_FALSE(setting->GetSettingValue(Flag::NOPARENTWEIGHT));
  setting->SetSettingValue(Flag::NOPARENTWEIGHT, true);
  setting->SetSettingValue(Flag::DEACTIVATE, false);
  EXPECT_TRUE(setting->GetSettingValue(Flag::NOPARENTWEIGHT));
  EXPECT_FALSE(setting->GetSettingValue(Flag::DEACTIVATE));
  // The last bit of the one stored word works; past it nothing is stored.
  setting->SetSettingValue(Flag{63}, true);
  EXPECT_TRUE(setting->GetSettingValue(Flag{63}));
  setting->SetSettingValue(Flag{64}, true);
  EXPECT_FALSE(setting->GetSettingValue(Flag{64}));
  EXPECT_TRUE(setting->GetSettingValue(Flag::NOPARENTWEIGHT));
}

TEST(CharacterBodyPartSolverSetting, DumpFormatsNumbersWithAtMostThreeDecimals) {
  CharacterBodyPartSolverSettingRef setting = MakeSetting();
  ASSERT_TRUE(setting->SetBodyPartIdentifier(InternedId::Make("leftarm").value()));
  setting->SetBodyPartWeight(0.12345);
  setting->SetTransformActive(TC::SCALE, true);
  setting->SetTransformWeight(TC::POSITION, -2.5);
  setting->SetTransformWeight(TC::ROTATION, 1234.0);
  setting->SetTransformWeight(TC::SCALE, 0.0005);
  setting->SetSettingValue(Flag::DEACTIVATE, true);
  EXPECT_EQ(setting->ToString().GetView(),
            "Identifier : leftarm\n"
            "Weight : 0.123\n"
            "_positionActive : 0\n"
            "_rotationActive : 1\n"
            "_scaleActive : 1\n"
            "_positionWeight : -2.5\n"
            "_rotationWeight : 1234\n"
            "_scaleWeight : 0.001\n"
            "_settings : NOPARENTWEIGHTfalse\n"
            "_settings : DEACTIVATEtrue\n");
}

TEST(CharacterBodyPartSolverSetting, CloneCopiesEveryFieldAndStandsAlone) {
  CharacterBodyPartSolverSettingRef setting = MakeSetting();
  const InternedId arm = InternedId::Make("arm").value();
  ASSERT_TRUE(setting->SetBodyPartIdentifier(arm));
  setting->SetBodyPartWeight(0.5);
  setting->SetTransformActive(TC::POSITION, true);
  setting->SetTransformWeight(TC::SCALE, 3.0);
  setting->SetSettingValue(Flag::NOPARENTWEIGHT, true);

  auto cloned = setting->Clone();
  ASSERT_TRUE(cloned);
  CharacterBodyPartSolverSettingRef copy = Cast<Setting>(cloned.value());
  ASSERT_TRUE(copy);
  EXPECT_NE(copy.Get(), setting.Get());
  EXPECT_EQ(copy->GetBodyPartIdentifier(), arm);
  EXPECT_EQ(copy->ToString().GetView(), setting->ToString().GetView());

  // The copy's settings are its own words.
  copy->SetSettingValue(Flag::NOPARENTWEIGHT, false);
  EXPECT_TRUE(setting->GetSettingValue(Flag::NOPARENTWEIGHT));

  // Copying from an object of another class is refused and changes nothing.
  auto foreign = CreateObject(CharacterNodeInfo::kClassId);
  ASSERT_TRUE(foreign);
  auto refused = copy->CopyFrom(*foreign.value());
  EXPECT_TRUE(refused.error().Is(ErrorKind::kIllegalArgument));
  EXPECT_FALSE(copy->GetSettingValue(Flag::NOPARENTWEIGHT));
  EXPECT_EQ(copy->GetBodyPartWeight(), 0.5);
}

TEST(CharacterBodyPartSolverSetting, DescribesMembersInFieldOrder) {
  CharacterBodyPartSolverSettingRef setting = MakeSetting();
  MemberList members;
  ASSERT_TRUE(setting->DescribeIO(members));
  const char* names[] = {"_identifier",     "_weight",      "_positionActive",
                         "_rotationActive", "_scaleActive", "_positionWeight",
                         "_rotationWeight", "_scaleWeight", "_settings"};
  const Id typeIds[] = {types::kInternedId, types::kFloat64, types::kBool,
                        types::kBool,       types::kBool,    types::kFloat64,
                        types::kFloat64,    types::kFloat64, types::kBitSet};
  ASSERT_EQ(members.members.GetCount(), 9);
  for (Int i = 0; i < 9; ++i) {
    EXPECT_EQ(members.members[i].name, names[i]);
    EXPECT_EQ(members.members[i].type, typeIds[i]);
    EXPECT_NE(members.members[i].address, nullptr);
  }
  // The weight's address is the live field: writing through it shows in the getter.
  *static_cast<Float64*>(members.members[1].address) = 0.75;
  EXPECT_EQ(setting->GetBodyPartWeight(), 0.75);

  // The class-level description has the same members and no addresses.
  const ClassInfo* info = FindClass(Setting::kClassId);
  ASSERT_NE(info, nullptr);
  MemberList classMembers;
  ASSERT_TRUE(info->GetRecord().describe(classMembers));
  ASSERT_EQ(classMembers.members.GetCount(), 9);
  EXPECT_EQ(classMembers.members[8].name, "_settings");
  EXPECT_EQ(classMembers.members[8].address, nullptr);
}

TEST(CharacterBodyPartSolverSetting, OutOfMemoryFailsCreationAndCloneCleanly) {
  // Every allocation of a creation, then of a clone, is made to fail in turn: each failure is
  // reported (out of memory, or the null reference of an instance that could not be made) and
  // leaves nothing behind; the sanitizer build checks the leaks.
  CharacterBodyPartSolverSettingRef original = MakeSetting();
  original->SetBodyPartWeight(0.5);
  for (int step = 0; step < 2; ++step) {
    bool succeeded = false;
    for (std::int64_t n = 1; n < 20 && !succeeded; ++n) {
      fault::FailNthAllocation(n);
      Result<Ref<Object>> made = step == 0 ? CreateObject(Setting::kClassId) : original->Clone();
      const bool triggered = fault::Triggered();
      fault::Disarm();
      if (!triggered) {
        ASSERT_TRUE(made);
        succeeded = true;
        continue;
      }
      ASSERT_FALSE(made);
      EXPECT_FALSE(made.has_value());
      EXPECT_TRUE(made.error().Is(ErrorKind::kOutOfMemory) ||
                  made.error().Is(ErrorKind::kNullReference))
          << made.error().GetMessage();
    }
    EXPECT_TRUE(succeeded);
  }
  {
    // The bit set's own allocation failing is the out-of-memory error.
    fault::FailNthAllocation(2);
    auto made = CreateObject(Setting::kClassId);
    fault::Disarm();
    ASSERT_FALSE(made);
    EXPECT_TRUE(made.error().Is(ErrorKind::kOutOfMemory));
  }
}

}  // namespace
}  // namespace tarni
