// Character pose: the node-transform array as a host fills, searches and prints it.
#include <gtest/gtest.h>

#include <string>

#include "tarni/characterpose.h"

namespace tarni {
namespace {

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
  // The pose takes one reference per element, keeps the empty slot and counts it.
  ASSERT_TRUE(writable->SetNodeTransformArray(MakeArray({a, nullptr, a})));
  EXPECT_EQ(pose->GetNodeTransformCount(), 3);
  EXPECT_EQ(pose->GetNodeTransformArray()[2].Get(), a.Get());
  EXPECT_EQ(a.Get()->GetRefCount(), 3);
  // Its own array handed back is a no-op, not a self-clear.
  ASSERT_TRUE(writable->SetNodeTransformArray(pose->GetNodeTransformArray()));
  EXPECT_EQ(a.Get()->GetRefCount(), 3);
  // A clone of the pose shares the elements instead of cloning them.
  CharacterPoseRef shared = pose;
  ASSERT_NE(shared.MakeWritable().value(), pose.Get());
  EXPECT_EQ(shared->GetNodeTransformArray()[0].Get(), a.Get());
  // An empty source empties the pose and releases what it held.
  ASSERT_TRUE(writable->SetNodeTransformArray(BaseArray<CharacterNodeTransformRef>()));
  EXPECT_EQ(pose->GetNodeTransformCount(), 0);
  EXPECT_EQ(a.Get()->GetRefCount(), 3);  // a and the clone's two
}

TEST(CharacterPose, FindsFirstOfDuplicateIds) {
  CharacterPoseRef pose = MakePose();
  CharacterPose* writable = pose.MakeWritable().value();
  // Equal values held in separate id data match too: the lower index wins.
  CharacterNodeTransformRef first = MakeNode(MakeUuid(7, 7));
  CharacterNodeTransformRef second = MakeNode(MakeUuid(7, 7));
  CharacterNodeTransformRef emptyId = MakeNode(Uuid());
  ASSERT_TRUE(
      writable->SetNodeTransformArray(MakeArray({MakeNode(MakeUuid(0, 1)), second, first})));
  EXPECT_EQ(pose->GetNodeTransformByID(first->GetUuid()).value().Get(), second.Get());
  // A missing id, or an empty pose, gives an empty reference and no error.
  auto missing = pose->GetNodeTransformByID(MakeUuid(9, 9));
  ASSERT_TRUE(missing);
  EXPECT_FALSE(missing.value());
  EXPECT_FALSE(MakePose()->GetNodeTransformByID(Uuid()).value());
  // The empty id (or the nil value) finds the first node with an empty id...
  ASSERT_TRUE(writable->SetNodeTransformArray(MakeArray({first, emptyId, nullptr})));
  EXPECT_EQ(pose->GetNodeTransformByID(Uuid()).value().Get(), emptyId.Get());
  // ... or an earlier empty slot, which then reads as "not found".
  ASSERT_TRUE(writable->SetNodeTransformArray(MakeArray({first, nullptr, emptyId})));
  EXPECT_FALSE(pose->GetNodeTransformByID(Uuid()).value());
}

TEST(CharacterPose, TextJoinsNodesAndPrintsEmptySlots) {
  CharacterPoseRef pose = MakePose();
  EXPECT_EQ(pose->ToString().GetView(), "Node Transform :\n{}");
  const std::string identity = "((1,0,0),(0,1,0),(0,0,1),(0,0,0))";
  const std::string node =
      "Object ID : 00000000-0000-0000-0000-000000000001\nObject Name : \n"
      "Global Matrix :\n" +
      identity + "\nParent Global Matrix :\n" + identity + "\nPre-Multiply Matrix :\n" + identity +
      "\n";
  CharacterNodeTransformRef a = MakeNode(MakeUuid(0, 1));
  ASSERT_TRUE(pose.MakeWritable().value()->SetNodeTransformArray(MakeArray({a, nullptr, a})));
  EXPECT_EQ(pose->ToString().GetView(), "Node Transform :\n{" + node + ",nullptr," + node + "}");
}

}  // namespace
}  // namespace tarni
