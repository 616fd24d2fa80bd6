// Character body part: settings, lists, hierarchy walks, dump and copy, as a host uses them.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kernel/fault_loop.h"
#include "source/module/units.h"
#include "tarni/characterbodypart.h"
#include "tarni/charactertree.h"
#include "tarni/describe.h"
#include "tarni/memory.h"

namespace tarni {
namespace {

using namespace tarni::literals;
using Flag = BodyPartSettingFlag;
using Mode = BODYPARTTRANSFERATTRIBUTEMODE;
using Lows = std::vector<std::uint64_t>;

InternedId Ident(std::string_view text) { return InternedId::Make(text).value(); }
BaseArray<Uuid> Uuids(Lows lows) {
  BaseArray<Uuid> list;
  for (std::uint64_t low : lows) EXPECT_TRUE(list.Append(Uuid::Make(0, low).value()));
  return list;
}
Lows LowsOf(const BaseArray<Uuid>& list) {
  Lows lows;
  for (const Uuid& id : list) lows.push_back(id.GetLow());
  return lows;
}
CharacterBodyPartRef MakePart(std::string_view identifier, const String& name) {
  return CreateBodyPart(Ident(identifier), name).value();
}
// `_name` has no setter: a host fills it through the address DescribeIO declares.
String& NameMember(const CharacterBodyPartRef& part) {
  MemberList members;
  EXPECT_TRUE(part->DescribeIO(members));
  return *static_cast<String*>(members.members[3].address);
}

// root [a] -> first [b, c] -> grandchild [d]; root -> second [e]. Skeletons: root [10],
// grandchild [11, 12], second [13]. Grandchild and second share the identifier "twin".
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

TEST(CharacterBodyPart, DumpsOwnNameSettingsAndMode) {
  CharacterBodyPartRef arm = MakePart("arm", "Arm"_s);
  NameMember(arm) = "Arm"_s;
  EXPECT_EQ(arm->ToString().GetView(),
            "Name : Arm\nIdentifier : arm\nControllers (0) :\nSkeleton Nodes (0) :\n"
            "Skeleton Keywords (0) :\nSkeleton Discard Keywords (0) :\n"
            "_settings : SKELTRANSFERPOSfalse\n_settings : SKELTRANSFERROTtrue\n"
            "_settings : SKELTRANSFERSCALEfalse\n_settings : EXPOSEINSOLVERfalse\n"
            "_settings : SKELTRANSFERATTRIBUTESfalse\n_attributeTransferModeBYNAME\n");

  // The two names stay apart: the search compares the node-info name that CreateBodyPart set.
  NameMember(arm) = "Left Arm"_s;
  EXPECT_EQ(arm->FindBodyPartByName("Left Arm"_s).value(), nullptr);
  EXPECT_EQ(arm->FindBodyPartByName("Arm"_s).value(), arm);

  // Bits are independent; an index past the one stored word is ignored and reads false; a mode
  // outside the enumeration changes nothing.
  ASSERT_TRUE(arm->SetSettingValue(Flag::EXPOSEINSOLVER, true));
  ASSERT_TRUE(arm->SetSettingValue(Flag::SKELTRANSFERROT, false));
  ASSERT_TRUE(arm->SetSettingValue(static_cast<Flag>(64), true));
  EXPECT_FALSE(arm->GetSettingValue(static_cast<Flag>(64)));
  arm->SetAttributeTransferMode(Mode::BOTH);
  arm->SetAttributeTransferMode(static_cast<Mode>(3));
  EXPECT_EQ(arm->GetAttributeTransferMode(), Mode::BOTH);
  // Lists print one tab-indented line per entry.
  ASSERT_TRUE(arm->SetControllers(Uuids({1, 1})));
  BaseArray<String> keywords;
  ASSERT_TRUE(keywords.Append("arm"_s));
  ASSERT_TRUE(arm->SetSkeletonDiscardKeywords(keywords));
  EXPECT_EQ(arm->ToString().GetView(),
            "Name : Left Arm\nIdentifier : arm\nControllers (2) :\n"
            "\t00000000-0000-0000-0000-000000000001\n\t00000000-0000-0000-0000-000000000001\n"
            "Skeleton Nodes (0) :\nSkeleton Keywords (0) :\nSkeleton Discard Keywords (1) :\n"
            "\tarm\n_settings : SKELTRANSFERPOSfalse\n_settings : SKELTRANSFERROTfalse\n"
            "_settings : SKELTRANSFERSCALEfalse\n_settings : EXPOSEINSOLVERtrue\n"
            "_settings : SKELTRANSFERATTRIBUTESfalse\n_attributeTransferModeBOTH\n");
}

TEST(CharacterBodyPart, DumpShortOfMemoryKeepsOnlyWholeLines) {
  CharacterBodyPartRef arm = MakePart("arm", "Arm"_s);
  NameMember(arm) = "Arm"_s;
  ASSERT_TRUE(arm->SetControllers(Uuids({1, 2})));
  BaseArray<String> keywords;
  ASSERT_TRUE(keywords.Append("shoulder"_s));
  ASSERT_TRUE(arm->SetSkeletonKeywords(keywords));
  const std::string whole(arm->ToString().GetView());

  // Whatever allocation fails, the dump holds the lines after the one that could not be added,
  // each whole: never a value without its label, nor an entry without its tab.
  int linesLeft = 0;
  const auto failures = testing::ForEachFailingAllocation(
      [] {}, [&] { return arm->ToString(); },
      [&](const String& text, bool hit) {
        const std::string_view dump = text.GetView();
        ASSERT_TRUE(std::string_view(whole).ends_with(dump)) << dump;
        const std::size_t start = whole.size() - dump.size();
        EXPECT_TRUE(start == 0 || whole[start - 1] == '\n') << dump;
        if (hit && !dump.empty()) ++linesLeft;
      });
  EXPECT_GE(failures, 1);
  EXPECT_GE(linesLeft, 1);
}

TEST(CharacterBodyPart, ListSettersReplaceOrLeaveListEmpty) {
  CharacterBodyPartRef part = MakePart("leg", "Leg"_s);
  // Duplicates and order are kept; the stored list passed back is a no-op.
  ASSERT_TRUE(part->SetSkeleton(Uuids({3, 1, 3})));
  ASSERT_TRUE(part->SetSkeleton(part->GetSkeleton()));
  EXPECT_EQ(LowsOf(part->GetSkeleton()), (Lows{3, 1, 3}));
}

TEST(CharacterBodyPart, WalksHierarchyInPreOrder) {
  SampleParts parts;
  // Lists and counts over the subtree; a child answers for its own subtree only.
  EXPECT_EQ(LowsOf(parts.root->GetHierarchyControllers().value()), (Lows{1, 2, 3, 4, 5}));
  EXPECT_EQ(parts.root->GetControllersCount(true).value(), 5);
  EXPECT_EQ(parts.root->GetControllersCount(false).value(), 1);
  EXPECT_EQ(LowsOf(parts.root->GetHierarchySkeleton().value()), (Lows{10, 11, 12, 13}));
  EXPECT_EQ(parts.first->GetSkeletonCount(true).value(), 2);

  // The first match in pre-order wins, the root checked first; no match is no error.
  EXPECT_EQ(parts.root->FindBodyPartByID(Ident("root")).value(), parts.root);
  EXPECT_EQ(parts.root->FindBodyPartByID(Ident("twin")).value(), parts.grandchild);
  EXPECT_EQ(parts.root->FindBodyPartByName("Second"_s).value(), parts.second);
  auto missing = parts.first->FindBodyPartByName("Second"_s);
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing.value(), nullptr);
}

TEST(CharacterBodyPart, ClearSkeletonOwnOrSubtree) {
  SampleParts parts;
  ASSERT_TRUE(parts.root->ClearSkeleton(false));
  EXPECT_EQ(parts.root->GetSkeletonCount(true).value(), 3);
  ASSERT_TRUE(parts.root->ClearSkeleton(true));
  EXPECT_EQ(parts.root->GetSkeletonCount(true).value(), 0);
  EXPECT_EQ(parts.root->GetControllersCount(true).value(), 5);
}

TEST(CharacterBodyPart, ForeignChildFailsWalksCountsAndClear) {
  SampleParts parts;
  ASSERT_TRUE(parts.second->InsertChild(CreateTree(Uuid(), "joint"_s, true).value()));
  const auto isForeign = [](const Error& error) {
    return error.Is(ErrorKind::kNullReference) &&
           error.GetMessage() == "Body-part hierarchy holds a node that is not a body part.";
  };
  EXPECT_TRUE(isForeign(parts.root->GetHierarchyControllers().error()));
  EXPECT_TRUE(isForeign(parts.root->GetControllersCount(true).error()));
  EXPECT_TRUE(isForeign(parts.root->GetSkeletonCount(true).error()));
  EXPECT_TRUE(isForeign(parts.root->FindBodyPartByID(Ident("nobody")).error()));
  // A search that stops before the foreign node succeeds.
  EXPECT_EQ(parts.root->FindBodyPartByName("Second"_s).value(), parts.second);
  // Clearing stops at the foreign node; subtrees reached before it are cleared.
  EXPECT_TRUE(isForeign(parts.root->ClearSkeleton(true).error()));
  EXPECT_EQ(parts.grandchild->GetSkeletonCount(false).value(), 0);
}

TEST(CharacterBodyPart, CopyCarriesEveryFieldAndClonesChildren) {
  SampleParts parts;
  NameMember(parts.root) = "Whole"_s;
  ASSERT_TRUE(parts.root->SetSettingValue(Flag::SKELTRANSFERSCALE, true));
  parts.root->SetAttributeTransferMode(Mode::BYID);
  CharacterBodyPartRef copy = Cast<CharacterBodyPart>(parts.root->Clone().value());
  EXPECT_EQ(copy->ToString().GetView(), parts.root->ToString().GetView());
  EXPECT_EQ(copy->GetName(), "Root");
  EXPECT_NE(copy->GetChild(0).Get(), static_cast<HierarchyObject*>(parts.first.Get()));
  EXPECT_EQ(LowsOf(copy->GetHierarchyControllers().value()), (Lows{1, 2, 3, 4, 5}));

  // A list that cannot get its memory fails the whole copy; the identifier and `_name`, copied
  // before the lists, keep their new values.
  NameMember(parts.second) = "Src"_s;
  CharacterBodyPartRef target = MakePart("target", "Target"_s);
  fault::FailNthAllocation(1);
  auto copied = target->CopyFrom(*parts.second);
  fault::Disarm();
  EXPECT_TRUE(copied.error().Is(ErrorKind::kOutOfMemory));
  EXPECT_EQ(target->GetIdentifier(), Ident("twin"));
  EXPECT_EQ(NameMember(target), "Src");
  EXPECT_EQ(target->GetControllers().GetCount(), 0);
}

TEST(CharacterBodyPart, UnitRegistersClassAndModeTypeTogether) {
  const ClassInfo* info = FindClass(CharacterBodyPart::kClassId);
  ASSERT_NE(info, nullptr);
  EXPECT_TRUE(info->HasBase(HierarchyObject::kClassId));
  EXPECT_TRUE(info->HasBase(CharacterNodeInfo::kClassId));
  const DataType* type = FindDataType(kBodyPartTransferAttributeModeTypeId);
  ASSERT_NE(type, nullptr);
  TextBuilder out;
  const Mode byId = Mode::BYID;
  type->operations.toString(out, &byId, nullptr);
  EXPECT_EQ(out.GetView(), "BYID");

  // Running the unit again fails on the taken type id and leaves both registrations in place.
  EXPECT_TRUE(ca::RegisterCharacterBodyPartUnit().error().Is(ErrorKind::kIllegalState));
  EXPECT_EQ(FindDataType(kBodyPartTransferAttributeModeTypeId), type);
  EXPECT_EQ(FindClass(CharacterBodyPart::kClassId), info);
  // When the class cannot be registered, the type registered just before is taken out again.
  UnregisterDataType(kBodyPartTransferAttributeModeTypeId);
  EXPECT_TRUE(ca::RegisterCharacterBodyPartUnit().error().Is(ErrorKind::kIllegalState));
  EXPECT_EQ(FindDataType(kBodyPartTransferAttributeModeTypeId), nullptr);
  ASSERT_TRUE(RegisterDataType(*type));
}

}  // namespace
}  // namespace tarni
