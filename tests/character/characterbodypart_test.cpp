// Character body part: settings, lists, hierarchy walks, dump and copy, as a host uses them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "character/modelfault.h"
#include "source/module/units.h"
#include "tarni/characterbodypart.h"
#include "tarni/charactertree.h"
#include "tarni/datatype.h"
#include "tarni/describe.h"

namespace tarni {
namespace {

using namespace tarni::literals;
using Flag = BodyPartSettingFlag;
using Mode = BODYPARTTRANSFERATTRIBUTEMODE;

InternedId Ident(std::string_view text) { return InternedId::Make(text).value(); }
Uuid U(std::uint64_t low) { return Uuid::Make(0, low).value(); }

BaseArray<Uuid> Uuids(std::initializer_list<std::uint64_t> lows) {
  BaseArray<Uuid> list;
  for (std::uint64_t low : lows) EXPECT_TRUE(list.Append(U(low)));
  return list;
}
std::vector<std::uint64_t> Lows(const BaseArray<Uuid>& list) {
  std::vector<std::uint64_t> lows;
  for (const Uuid& id : list) lows.push_back(id.GetLow());
  return lows;
}

CharacterBodyPartRef MakePart(std::string_view identifier, const String& name) {
  return CreateBodyPart(Ident(identifier), name).value();
}

// The member a host fills `_name` through.
String* NameMember(const CharacterBodyPartRef& part) {
  MemberList members;
  EXPECT_TRUE(part->DescribeIO(members));
  for (const MemberDescription& member : members.members)
    if (member.name == "_name") return static_cast<String*>(member.address);
  return nullptr;
}

// root [a] -> first [b, c] -> grandchild [d]; root -> second [e].
struct SampleParts {
  CharacterBodyPartRef root = MakePart("root", "Root"_s);
  CharacterBodyPartRef first = MakePart("first", "First"_s);
  CharacterBodyPartRef grandchild = MakePart("twin", "Grandchild"_s);
  CharacterBodyPartRef second = MakePart("twin", "Second"_s);
  SampleParts() {
    EXPECT_TRUE(root->InsertChild(first));
    EXPECT_TRUE(root->InsertChild(second));
    EXPECT_TRUE(first->InsertChild(grandchild));
    EXPECT_TRUE(root->SetControllers(Uuids({1})));
    EXPECT_TRUE(first->SetControllers(Uuids({2, 3})));
    EXPECT_TRUE(grandchild->SetControllers(Uuids({4})));
    EXPECT_TRUE(second->SetControllers(Uuids({5})));
    EXPECT_TRUE(root->SetSkeleton(Uuids({10})));
    EXPECT_TRUE(grandchild->SetSkeleton(Uuids({11, 12})));
    EXPECT_TRUE(second->SetSkeleton(Uuids({13})));
  }
};

const char* const kFreshTail =
    "Controllers (0) :\nSkeleton Nodes (0) :\nSkeleton Keywords (0) :\n"
    "Skeleton Discard Keywords (0) :\n"
    "_settings : SKELTRANSFERPOSfalse\n_settings : SKELTRANSFERROTtrue\n"
    "_settings : SKELTRANSFERSCALEfalse\n_settings : EXPOSEINSOLVERfalse\n"
    "_settings : SKELTRANSFERATTRIBUTESfalse\n_attributeTransferModeBYNAME\n";

TEST(CharacterBodyPart, DumpsFreshBodyPartWithItsOwnName) {
  CharacterBodyPartRef arm = MakePart("arm", "Arm"_s);
  // CreateBodyPart names the node info; the dump prints `_name`, which it leaves empty.
  EXPECT_EQ(arm->GetName(), "Arm");
  EXPECT_EQ(arm->ToString().GetView(), std::string("Name : \nIdentifier : arm\n") + kFreshTail);

  // A host fills `_name` through its described address; the node-info name stays apart.
  String* name = NameMember(arm);
  ASSERT_NE(name, nullptr);
  *name = "Arm"_s;
  EXPECT_EQ(arm->ToString().GetView(), std::string("Name : Arm\nIdentifier : arm\n") + kFreshTail);
  *name = "Left Arm"_s;
  EXPECT_EQ(arm->FindBodyPartByName("Left Arm"_s).value(), nullptr);
  EXPECT_EQ(arm->FindBodyPartByName("Arm"_s).value(), arm);

  // Lists print one tab-indented line per entry.
  ASSERT_TRUE(arm->SetControllers(Uuids({1, 1})));
  BaseArray<String> keywords;
  ASSERT_TRUE(keywords.Append("arm"_s));
  ASSERT_TRUE(arm->SetSkeletonDiscardKeywords(keywords));
  const std::string text(arm->ToString().GetView());
  EXPECT_NE(text.find("Controllers (2) :\n\t00000000-0000-0000-0000-000000000001\n"
                      "\t00000000-0000-0000-0000-000000000001\nSkeleton Nodes (0) :\n"),
            std::string::npos);
  EXPECT_NE(text.find("Skeleton Discard Keywords (1) :\n\tarm\n_settings"), std::string::npos);
}

TEST(CharacterBodyPart, SettingsAndTransferMode) {
  CharacterBodyPartRef part = MakePart("spine", "Spine"_s);
  // Only SKELTRANSFERROT is on by default; the mode is BYNAME, not the first member.
  EXPECT_FALSE(part->GetSettingValue(Flag::SKELTRANSFERPOS));
  EXPECT_TRUE(part->GetSettingValue(Flag::SKELTRANSFERROT));
  EXPECT_FALSE(part->GetSettingValue(Flag::SKELTRANSFERATTRIBUTES));
  EXPECT_EQ(part->GetAttributeTransferMode(), Mode::BYNAME);

  // Bits are independent; an index past the one stored word is ignored and reads false.
  ASSERT_TRUE(part->SetSettingValue(Flag::EXPOSEINSOLVER, true));
  ASSERT_TRUE(part->SetSettingValue(Flag::SKELTRANSFERROT, false));
  ASSERT_TRUE(part->SetSettingValue(static_cast<Flag>(63), true));
  ASSERT_TRUE(part->SetSettingValue(static_cast<Flag>(64), true));
  EXPECT_TRUE(part->GetSettingValue(Flag::EXPOSEINSOLVER));
  EXPECT_FALSE(part->GetSettingValue(Flag::SKELTRANSFERROT));
  EXPECT_TRUE(part->GetSettingValue(static_cast<Flag>(63)));
  EXPECT_FALSE(part->GetSettingValue(static_cast<Flag>(64)));

  // A mode outside the enumeration changes nothing.
  part->SetAttributeTransferMode(Mode::BOTH);
  part->SetAttributeTransferMode(static_cast<Mode>(3));
  EXPECT_EQ(part->GetAttributeTransferMode(), Mode::BOTH);
  const std::string text(part->ToString().GetView());
  EXPECT_NE(text.find("_settings : SKELTRANSFERROTfalse\n_settings : SKELTRANSFERSCALEfalse\n"
                      "_settings : EXPOSEINSOLVERtrue\n"),
            std::string::npos);
  EXPECT_NE(text.find("\n_attributeTransferModeBOTH\n"), std::string::npos);

  // The mode is a registered enumeration type that prints its members by name.
  const DataType* type = FindDataType(kBodyPartTransferAttributeModeTypeId);
  ASSERT_NE(type, nullptr);
  EXPECT_EQ(std::string_view(type->name), "BODYPARTTRANSFERATTRIBUTEMODE");
  EXPECT_EQ(type->size, 4);
  TextBuilder out;
  const Mode byId = Mode::BYID;
  type->operations.toString(out, &byId, nullptr);
  AppendEnumText(out.Append(','), *type, 7);
  EXPECT_EQ(out.GetView(), "BYID,7");
}

TEST(CharacterBodyPart, ListSettersReplaceAndKeepOwnList) {
  CharacterBodyPartRef part = MakePart("leg", "Leg"_s);
  // Duplicates and order are kept; passing the stored list back is a no-op.
  ASSERT_TRUE(part->SetSkeleton(Uuids({3, 1, 3})));
  ASSERT_TRUE(part->SetSkeleton(part->GetSkeleton()));
  EXPECT_EQ(Lows(part->GetSkeleton()), (std::vector<std::uint64_t>{3, 1, 3}));
  ASSERT_TRUE(part->SetSkeleton(Uuids({})));
  EXPECT_EQ(part->GetSkeletonCount(false).value(), 0);

  // Out of memory leaves the list empty, for every list setter.
  BaseArray<String> words;
  for (int i = 0; i < 9; ++i) ASSERT_TRUE(words.Append("thigh"_s));
  BaseArray<Uuid> ids = Uuids({1, 2, 3, 4, 5, 6, 7, 8, 9});
  const auto checkEmpty = [](const BaseArray<Uuid>* uuids, const BaseArray<String>* strings) {
    return [=](const Result<void>& result) {
      EXPECT_TRUE(result.error().Is(ErrorKind::kOutOfMemory));
      EXPECT_EQ(uuids ? uuids->GetCount() : strings->GetCount(), 0);
    };
  };
  EXPECT_EQ(
      testing::ForEachFailingAllocation([&] { ASSERT_TRUE(part->SetControllers(Uuids({1}))); },
                                        [&] { return part->SetControllers(ids); },
                                        checkEmpty(&part->GetControllers(), nullptr)),
      1);
  EXPECT_EQ(testing::ForEachFailingAllocation([&] { ASSERT_TRUE(part->SetSkeleton(Uuids({1}))); },
                                              [&] { return part->SetSkeleton(ids); },
                                              checkEmpty(&part->GetSkeleton(), nullptr)),
            1);
  EXPECT_EQ(
      testing::ForEachFailingAllocation([] {}, [&] { return part->SetSkeletonKeywords(words); },
                                        checkEmpty(nullptr, &part->GetSkeletonKeywords())),
      1);
  EXPECT_EQ(testing::ForEachFailingAllocation(
                [] {}, [&] { return part->SetSkeletonDiscardKeywords(words); },
                checkEmpty(nullptr, &part->GetSkeletonDiscardKeywords())),
            1);
  EXPECT_EQ(part->GetSkeletonKeywords().GetCount(), 9);
  EXPECT_EQ(part->GetSkeletonDiscardKeywords().GetCount(), 9);
}

TEST(CharacterBodyPart, CollectsHierarchyListsInPreOrder) {
  SampleParts parts;
  EXPECT_EQ(Lows(parts.root->GetHierarchyControllers().value()),
            (std::vector<std::uint64_t>{1, 2, 3, 4, 5}));
  EXPECT_EQ(parts.root->GetControllersCount(true).value(), 5);
  EXPECT_EQ(parts.root->GetControllersCount(false).value(), 1);
  EXPECT_EQ(Lows(parts.root->GetHierarchySkeleton().value()),
            (std::vector<std::uint64_t>{10, 11, 12, 13}));
  EXPECT_EQ(parts.root->GetSkeletonCount(true).value(), 4);
  // A subtree answers for itself only.
  EXPECT_EQ(Lows(parts.first->GetHierarchyControllers().value()),
            (std::vector<std::uint64_t>{2, 3, 4}));
  EXPECT_EQ(parts.first->GetSkeletonCount(true).value(), 2);

  // Running out of memory while collecting discards the partial result.
  EXPECT_GE(testing::ForEachFailingAllocation(
                [] {}, [&] { return parts.root->GetHierarchyControllers(); },
                [](const Result<BaseArray<Uuid>>& result) {
                  EXPECT_TRUE(result.error().Is(ErrorKind::kOutOfMemory));
                  EXPECT_FALSE(result.has_value());
                }),
            2);
}

TEST(CharacterBodyPart, FindsFirstMatchInPreOrder) {
  SampleParts parts;
  // The root is checked first; then the grandchild (under the first child) before the second
  // child, which carries the same identifier.
  EXPECT_EQ(parts.root->FindBodyPartByID(Ident("root")).value(), parts.root);
  EXPECT_EQ(parts.root->FindBodyPartByID(Ident("twin")).value(), parts.grandchild);
  EXPECT_EQ(parts.second->FindBodyPartByID(Ident("twin")).value(), parts.second);
  // By node-info name; a missing one is an empty reference, not an error.
  EXPECT_EQ(parts.root->FindBodyPartByName("Second"_s).value(), parts.second);
  auto missing = parts.first->FindBodyPartByName("Second"_s);
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing.value(), nullptr);
  EXPECT_EQ(parts.root->FindBodyPartByID(InternedId()).value(), nullptr);
}

TEST(CharacterBodyPart, ForeignChildFailsWalksCountsAndClear) {
  SampleParts parts;
  ASSERT_TRUE(parts.second->InsertChild(CreateTree(Uuid(), "joint"_s, true).value()));
  const auto isForeign = [](const Error& error) {
    return error.Is(ErrorKind::kNullReference) &&
           error.GetMessage() == "Body-part hierarchy holds a node that is not a body part.";
  };
  EXPECT_TRUE(isForeign(parts.root->GetHierarchyControllers().error()));
  EXPECT_TRUE(isForeign(parts.root->GetHierarchySkeleton().error()));
  EXPECT_TRUE(isForeign(parts.root->GetControllersCount(true).error()));
  EXPECT_TRUE(isForeign(parts.root->GetSkeletonCount(true).error()));
  EXPECT_TRUE(isForeign(parts.root->FindBodyPartByName("nobody"_s).error()));
  // A search that stops before the foreign node succeeds; so do the own counts.
  EXPECT_EQ(parts.root->FindBodyPartByName("Second"_s).value(), parts.second);
  EXPECT_EQ(parts.root->GetControllersCount(false).value(), 1);
  // Clearing stops at the foreign node: the subtrees reached before it are cleared.
  EXPECT_TRUE(isForeign(parts.root->ClearSkeleton(true).error()));
  EXPECT_EQ(parts.grandchild->GetSkeletonCount(false).value(), 0);
}

TEST(CharacterBodyPart, ClearSkeletonOwnOrSubtree) {
  SampleParts parts;
  ASSERT_TRUE(parts.root->ClearSkeleton(false));
  EXPECT_EQ(parts.root->GetSkeletonCount(false).value(), 0);
  EXPECT_EQ(parts.root->GetSkeletonCount(true).value(), 3);
  ASSERT_TRUE(parts.first->ClearSkeleton(true));
  EXPECT_EQ(parts.root->GetSkeletonCount(true).value(), 1);
  ASSERT_TRUE(parts.root->ClearSkeleton(true));
  EXPECT_EQ(parts.root->GetSkeletonCount(true).value(), 0);
  // Controllers are not touched.
  EXPECT_EQ(parts.root->GetControllersCount(true).value(), 5);
}

TEST(CharacterBodyPart, CopyCarriesEveryFieldAndClonesChildren) {
  SampleParts parts;
  *NameMember(parts.root) = "Whole"_s;
  ASSERT_TRUE(parts.root->SetSettingValue(Flag::SKELTRANSFERSCALE, true));
  parts.root->SetAttributeTransferMode(Mode::BYID);
  BaseArray<String> words;
  ASSERT_TRUE(words.Append("spine"_s));
  ASSERT_TRUE(parts.root->SetSkeletonKeywords(words));

  CharacterBodyPartRef copy = Cast<CharacterBodyPart>(parts.root->Clone().value());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->ToString().GetView(), parts.root->ToString().GetView());
  EXPECT_EQ(copy->GetName(), "Root");
  EXPECT_EQ(copy->GetChildCount(), 2);
  EXPECT_NE(copy->GetChild(0).Get(), static_cast<HierarchyObject*>(parts.first.Get()));
  EXPECT_EQ(Lows(copy->GetHierarchyControllers().value()),
            (std::vector<std::uint64_t>{1, 2, 3, 4, 5}));

  // A failing list copy fails the whole copy with out of memory; the identifier and `_name`,
  // copied before the lists, keep their new values and the failed list is empty.
  CharacterBodyPartRef source = MakePart("source", "Source"_s);
  *NameMember(source) = "Src"_s;
  ASSERT_TRUE(source->SetControllers(Uuids({1, 2, 3, 4, 5})));
  CharacterBodyPartRef target = MakePart("target", "Target"_s);
  ASSERT_TRUE(target->SetControllers(Uuids({9})));
  fault::FailNthAllocation(1);
  auto copied = target->CopyFrom(*source);
  fault::Disarm();
  EXPECT_TRUE(copied.error().Is(ErrorKind::kOutOfMemory));
  EXPECT_EQ(target->GetIdentifier(), Ident("source"));
  EXPECT_EQ(*NameMember(target), "Src");
  EXPECT_EQ(target->GetControllers().GetCount(), 0);
  // Copying from another class is refused.
  EXPECT_TRUE(target->CopyFrom(*CreateTree(Uuid(), "x"_s, true).value())
                  .error()
                  .Is(ErrorKind::kIllegalArgument));
}

TEST(CharacterBodyPart, CreationOutOfMemoryMakesNoBodyPart) {
  bool settingsFailed = false;
  const int failures = testing::ForEachFailingAllocation(
      [] {}, [] { return CreateBodyPart(InternedId(), "Arm"_s); },
      [&](const Result<CharacterBodyPartRef>& result) {
        EXPECT_FALSE(result.has_value());
        // The object itself (null reference) or its settings word (out of memory).
        settingsFailed |= result.error().Is(ErrorKind::kOutOfMemory);
        EXPECT_TRUE(result.error().Is(ErrorKind::kOutOfMemory) ||
                    result.error().Is(ErrorKind::kNullReference));
      });
  EXPECT_GE(failures, 2);
  EXPECT_TRUE(settingsFailed);
}

TEST(CharacterBodyPart, DescribesMembersInFieldOrder) {
  MemberList members;
  ASSERT_TRUE(FindClass(CharacterBodyPart::kClassId)->GetRecord().describe(members));
  const std::vector<std::string_view> names = {
      "_objectID",    "_objectName",           "_identifier",       "_name",
      "_controllers", "_skeletonNodes",        "_skeletonKeywords", "_skeletonDiscardKeywords",
      "_settings",    "_attributeTransferMode"};
  ASSERT_EQ(members.members.GetCount(), static_cast<Int>(names.size()));
  for (Int i = 0; i < members.members.GetCount(); ++i)
    EXPECT_EQ(members.members[i].name, names[static_cast<std::size_t>(i)]);
  EXPECT_EQ(members.members[2].type, types::kInternedId);
  EXPECT_EQ(members.members[4].flags, kDescribeArray);
  EXPECT_EQ(members.members[4].type, types::kUuid);
  EXPECT_EQ(members.members[7].flags, kDescribeArray);
  EXPECT_EQ(members.members[7].type, types::kString);
  EXPECT_EQ(members.members[8].type, types::kBitSet);
  EXPECT_EQ(members.members[9].type, kBodyPartTransferAttributeModeTypeId);
  EXPECT_EQ(members.members[9].flags, kDescribeNone);
}

TEST(CharacterBodyPart, UnitRegistersClassAndModeTypeTogether) {
  const ClassInfo* info = FindClass(CharacterBodyPart::kClassId);
  ASSERT_NE(info, nullptr);
  EXPECT_TRUE(info->HasBase(HierarchyObject::kClassId));
  EXPECT_TRUE(info->HasBase(CharacterNodeInfo::kClassId));
  ASSERT_NE(info->FindStatic("CreateBodyPart"), nullptr);

  // Running the unit again fails on the taken type id and leaves both registrations in place.
  const DataType* type = FindDataType(kBodyPartTransferAttributeModeTypeId);
  EXPECT_TRUE(ca::RegisterCharacterBodyPartUnit().error().Is(ErrorKind::kIllegalState));
  EXPECT_EQ(FindDataType(kBodyPartTransferAttributeModeTypeId), type);
  EXPECT_EQ(FindClass(CharacterBodyPart::kClassId), info);

  // When the class cannot be registered the type registered just before is taken out again.
  UnregisterDataType(kBodyPartTransferAttributeModeTypeId);
  EXPECT_TRUE(ca::RegisterCharacterBodyPartUnit().error().Is(ErrorKind::kIllegalState));
  EXPECT_EQ(FindDataType(kBodyPartTransferAttributeModeTypeId), nullptr);
  ASSERT_TRUE(RegisterDataType(*type));
}

}  // namespace
}  // namespace tarni
