// Character pose: the node-transform array as a host fills, searches and prints it.
#include <gtest/gtest.h>

#include <string>

#include "character/modelfault.h"
#include "tarni/characterpose.h"
#include "tarni/describe.h"

namespace tarni {
namespace {

using namespace tarni::literals;

const std::string kIdentity = "((1,0,0),(0,1,0),(0,0,1),(0,0,0))";

Uuid MakeUuid(std::uint64_t high, std::uint64_t low) { return Uuid::Make(high, low).value(); }

CharacterPoseRef MakePose() {
  return CharacterPoseRef(CreateObject<CharacterPose>(CharacterPose::kClassId).value());
}

CharacterNodeTransformRef MakeNode(const Uuid& id) {
  return CreateNodeTransform(id, Matrix(), Matrix()).value();
}

BaseArray<CharacterNodeTransformRef> MakeArray(
    std::initializer_list<CharacterNodeTransformRef> nodes) {
  BaseArray<CharacterNodeTransformRef> array;
  for (const CharacterNodeTransformRef& node : nodes) EXPECT_TRUE(array.Append(node));
  return array;
}

TEST(CharacterPose, ReplacesArrayBySharingElements) {
  CharacterPoseRef pose = MakePose();
  CharacterPose* writable = pose.MakeWritable().value();
  CharacterNodeTransformRef a = MakeNode(MakeUuid(0, 1));
  CharacterNodeTransformRef b = MakeNode(MakeUuid(0, 2));
  BaseArray<CharacterNodeTransformRef> source = MakeArray({a, nullptr, b});

  // The pose takes a reference on each element and keeps the empty slot; the count includes it.
  ASSERT_TRUE(writable->SetNodeTransformArray(source));
  EXPECT_EQ(pose->GetNodeTransformCount(), 3);
  EXPECT_EQ(pose->GetNodeTransformArray()[0].Get(), a.Get());
  EXPECT_FALSE(pose->GetNodeTransformArray()[1]);
  EXPECT_EQ(a.Get()->GetRefCount(), 3);  // a, source, pose

  // The pose's own array handed back is a no-op, not a self-clear.
  ASSERT_TRUE(writable->SetNodeTransformArray(pose->GetNodeTransformArray()));
  EXPECT_EQ(pose->GetNodeTransformCount(), 3);
  EXPECT_EQ(a.Get()->GetRefCount(), 3);

  // A writer holding one of the shared nodes gets a clone; the pose's element is untouched.
  source.Reset();
  a.MakeWritable().value()->SetGlobalMatrix(Matrix{{5, 5, 5}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}});
  EXPECT_NE(pose->GetNodeTransformArray()[0].Get(), a.Get());
  EXPECT_EQ(pose->GetNodeTransformArray()[0]->GetGlobalMatrix(), Matrix());

  // An empty source empties the pose and releases the elements.
  const CharacterNodeTransform* held = pose->GetNodeTransformArray()[2].Get();
  ASSERT_TRUE(writable->SetNodeTransformArray(BaseArray<CharacterNodeTransformRef>()));
  EXPECT_EQ(pose->GetNodeTransformCount(), 0);
  EXPECT_EQ(held->GetRefCount(), 1);  // only b

  // A clone of the pose (copy-on-write) shares the same elements, never clones them.
  ASSERT_TRUE(writable->SetNodeTransformArray(MakeArray({b})));
  CharacterPoseRef shared = pose;
  ASSERT_TRUE(shared.MakeWritable());
  ASSERT_NE(shared.Get(), pose.Get());
  EXPECT_EQ(shared->GetNodeTransformArray()[0].Get(), b.Get());
}

TEST(CharacterPose, FindsFirstOfDuplicateIds) {
  CharacterPoseRef pose = MakePose();
  CharacterPose* writable = pose.MakeWritable().value();
  // Equal values held in separate id data still match: the lower index wins.
  CharacterNodeTransformRef first = MakeNode(MakeUuid(7, 7));
  CharacterNodeTransformRef second = MakeNode(MakeUuid(7, 7));
  CharacterNodeTransformRef emptyId = MakeNode(Uuid());
  ASSERT_TRUE(
      writable->SetNodeTransformArray(MakeArray({MakeNode(MakeUuid(0, 1)), second, first})));
  {
    auto found = pose->GetNodeTransformByID(first->GetUuid());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->Get(), second.Get());
  }
  // A missing id, or an empty pose, yields an empty reference and no error.
  {
    auto found = pose->GetNodeTransformByID(MakeUuid(9, 9));
    ASSERT_TRUE(found);
    EXPECT_FALSE(found.value());
    auto none = MakePose()->GetNodeTransformByID(Uuid());
    ASSERT_TRUE(none);
    EXPECT_FALSE(none.value());
  }
  // The empty id finds the first node whose id is empty...
  {
    ASSERT_TRUE(writable->SetNodeTransformArray(MakeArray({first, emptyId, nullptr})));
    EXPECT_EQ(pose->GetNodeTransformByID(Uuid()).value().Get(), emptyId.Get());
    // ... and the nil value counts as empty on either side.
    EXPECT_EQ(pose->GetNodeTransformByID(MakeUuid(0, 0)).value().Get(), emptyId.Get());
  }
  // ... or the first empty slot when that comes earlier (which then reads as "not found").
  {
    ASSERT_TRUE(writable->SetNodeTransformArray(MakeArray({first, nullptr, emptyId})));
    auto found = pose->GetNodeTransformByID(Uuid());
    ASSERT_TRUE(found);
    EXPECT_FALSE(found.value());
  }
}

TEST(CharacterPose, TextJoinsNodesAndPrintsEmptySlots) {
  CharacterPoseRef pose = MakePose();
  EXPECT_EQ(pose->ToString().GetView(), "Node Transform :\n{}");

  const std::string node =
      "Object ID : 00000000-0000-0000-0000-000000000001\nObject Name : \n"
      "Global Matrix :\n" +
      kIdentity + "\nParent Global Matrix :\n" + kIdentity + "\nPre-Multiply Matrix :\n" +
      kIdentity + "\n";
  CharacterNodeTransformRef a = MakeNode(MakeUuid(0, 1));
  ASSERT_TRUE(pose.MakeWritable().value()->SetNodeTransformArray(MakeArray({a, nullptr, a})));
  EXPECT_EQ(pose->ToString().GetView(), "Node Transform :\n{" + node + ",nullptr," + node + "}");
}

TEST(CharacterPose, OutOfMemoryLeavesPoseEmpty) {
  CharacterPoseRef pose = MakePose();
  CharacterPose* writable = pose.MakeWritable().value();
  CharacterNodeTransformRef a = MakeNode(MakeUuid(0, 1));
  BaseArray<CharacterNodeTransformRef> big = MakeArray({a, a, a, a, a, a, a});
  const int failures = testing::ForEachFailingAllocation(
      [&] { ASSERT_TRUE(writable->SetNodeTransformArray(MakeArray({a}))); },
      [&] { return writable->SetNodeTransformArray(big); },
      [&](const Result<void>& result) {
        EXPECT_TRUE(result.error().Is(ErrorKind::kOutOfMemory));
        EXPECT_EQ(pose->GetNodeTransformCount(), 0);
        EXPECT_EQ(a.Get()->GetRefCount(), 8);  // a and big: nothing leaked, nothing kept
      });
  EXPECT_GE(failures, 1);
  EXPECT_EQ(pose->GetNodeTransformCount(), 7);
}

TEST(CharacterPose, DescribesNodeTransformArray) {
  CharacterPoseRef pose = MakePose();
  CharacterPose* writable = pose.MakeWritable().value();
  MemberList members;
  ASSERT_TRUE(writable->DescribeIO(members));
  ASSERT_EQ(members.members.GetCount(), 1);
  const MemberDescription& member = members.members[0];
  EXPECT_EQ(member.name, "NodeTransform");
  EXPECT_EQ(member.flags, 2048u);
  EXPECT_EQ(member.type, CharacterNodeTransform::kInterfaceId);
  EXPECT_EQ(member.address, &pose->GetNodeTransformArray());

  // The class-level description names the same member without an address.
  MemberList classMembers;
  ASSERT_TRUE(FindClass(CharacterPose::kClassId)->GetRecord().describe(classMembers));
  ASSERT_EQ(classMembers.members.GetCount(), 1);
  EXPECT_EQ(classMembers.members[0].name, "NodeTransform");
  EXPECT_EQ(classMembers.members[0].address, nullptr);
}

}  // namespace
}  // namespace tarni
