// Character tree: skeleton nodes built, counted, printed and cloned as a host does it.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tarni/characterbodypart.h"
#include "tarni/charactertree.h"
#include "tarni/describe.h"

namespace tarni {
namespace {

using namespace tarni::literals;

CharacterTreeRef MakeTree(const String& name, bool transformNode) {
  return CreateTree(Uuid(), name, transformNode).value();
}

// root -> (A -> C), B, visited root, A, C, B; every node a transform node except B.
struct SampleTree {
  CharacterTreeRef root = MakeTree("root"_s, true);
  CharacterTreeRef a = MakeTree("A"_s, true);
  CharacterTreeRef b = MakeTree("B"_s, false);
  CharacterTreeRef c = MakeTree("C"_s, true);
  SampleTree() {
    EXPECT_TRUE(root->InsertChild(a));
    EXPECT_TRUE(root->InsertChild(b));
    EXPECT_TRUE(a->InsertChild(c));
  }
};

TEST(CharacterTree, CountsOwnSubHierarchy) {
  SampleTree tree;
  EXPECT_EQ(tree.root->GetHiearchyCount(false).value(), 4);
  EXPECT_EQ(tree.root->GetHiearchyCount(true).value(), 3);
  // An inner node counts its own sub-hierarchy, never ancestors or siblings.
  EXPECT_EQ(tree.a->GetHiearchyCount(false).value(), 2);
  // A single node counts itself, or nothing when it is not a transform node.
  EXPECT_EQ(tree.b->GetHiearchyCount(false).value(), 1);
  EXPECT_EQ(tree.b->GetHiearchyCount(true).value(), 0);
}

TEST(CharacterTree, ForeignChildFailsCountWhateverFlag) {
  SampleTree tree;
  // A plain hierarchy object deep in the tree, a body part as a leaf: both are foreign.
  ASSERT_TRUE(
      tree.c->InsertChild(CreateObject<HierarchyObject>(HierarchyObject::kClassId).value()));
  ASSERT_TRUE(tree.b->InsertChild(CreateBodyPart(InternedId(), "Arm"_s).value()));
  for (const CharacterTreeRef& node : {tree.root, tree.a, tree.b}) {
    for (bool transformNodesOnly : {false, true}) {
      auto count = node->GetHiearchyCount(transformNodesOnly);
      EXPECT_TRUE(count.error().Is(ErrorKind::kNullReference));
      EXPECT_EQ(count.error().GetMessage(), "Null reference in hierarchy walk.");
    }
  }
}

TEST(CharacterTree, TextAndFlagOfFreshAndCreatedNodes) {
  // A node made by class id is not a transform node: its memory starts cleared.
  CharacterTreeRef fresh = CreateObject<CharacterTree>(CharacterTree::kClassId).value();
  EXPECT_EQ(fresh->ToString().GetView(),
            "Object ID : 00000000-0000-0000-0000-000000000000\nObject Name : \n"
            "Is Transform Node : false\n");

  // CreateTree applies id, name and flag; the whole text comes through the node-info interface.
  const Uuid id = Uuid::Make(0, 0x2a).value();
  CharacterTreeRef hips = CreateTree(id, "Hips"_s, true).value();
  EXPECT_TRUE(hips->GetUuid().SharesData(id));
  EXPECT_EQ(Cast<CharacterNodeInfo>(hips)->ToString().GetView(),
            "Object ID : 00000000-0000-0000-0000-00000000002a\nObject Name : Hips\n"
            "Is Transform Node : true\n");

  // The flag is the member "IsTransformNode" after the node-info members; only the lowest bit
  // of the byte a reader stores there counts.
  MemberList members;
  ASSERT_TRUE(hips->DescribeIO(members));
  auto* flag = static_cast<std::uint8_t*>(members.members[2].address);
  *flag = 2;
  EXPECT_FALSE(hips->IsTransformNode());
  *flag = 3;
  EXPECT_TRUE(hips->IsTransformNode());
}

TEST(CharacterTree, CloneCopiesSubHierarchyDeeply) {
  SampleTree tree;
  // The clone of an inner node is a new root with copies of its children.
  CharacterTreeRef copy = Cast<CharacterTree>(tree.a->Clone().value());
  EXPECT_EQ(copy->GetParent(), nullptr);
  CharacterTreeRef child = Cast<CharacterTree>(copy->GetChild(0));
  ASSERT_TRUE(child);
  EXPECT_NE(child.Get(), tree.c.Get());
  EXPECT_TRUE(child->IsTransformNode());
  ASSERT_TRUE(child->SetName("C2"_s));
  EXPECT_EQ(tree.c->GetName(), "C");
}

}  // namespace
}  // namespace tarni
