// Character tree: skeleton nodes built, counted, printed and cloned as a host does it.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "character/modelfault.h"
#include "tarni/characterbodypart.h"
#include "tarni/charactertree.h"
#include "tarni/describe.h"

namespace tarni {
namespace {

using namespace tarni::literals;

CharacterTreeRef MakeTree(const String& name, bool transformNode) {
  return CreateTree(Uuid(), name, transformNode).value();
}

void Attach(const CharacterTreeRef& parent, const Ref<HierarchyObject>& child) {
  ASSERT_TRUE(parent->InsertChild(child));
}

// root -> (A -> C), B; every node a transform node except B.
struct SampleTree {
  CharacterTreeRef root = MakeTree("root"_s, true);
  CharacterTreeRef a = MakeTree("A"_s, true);
  CharacterTreeRef b = MakeTree("B"_s, false);
  CharacterTreeRef c = MakeTree("C"_s, true);
  SampleTree() {
    Attach(root, a);
    Attach(root, b);
    Attach(a, c);
  }
};

TEST(CharacterTree, CountsSubHierarchyInPreOrder) {
  SampleTree tree;
  // The nodes are met root, A, C, B: the order the count walks them.
  std::string order;
  ASSERT_TRUE(WalkHierarchy(
      tree.root, [&](const CharacterTreeRef& node, CharacterTree*, Int) noexcept -> Result<bool> {
        order += node->GetName().GetView();
        return true;
      }));
  EXPECT_EQ(order, "rootACB");

  // All nodes, or only the transform nodes (B is not one).
  EXPECT_EQ(tree.root->GetHiearchyCount(false).value(), 4);
  EXPECT_EQ(tree.root->GetHiearchyCount(true).value(), 3);

  // An inner node counts its own sub-hierarchy only, never ancestors or siblings.
  EXPECT_EQ(tree.a->GetHiearchyCount(false).value(), 2);
  EXPECT_EQ(tree.b->GetHiearchyCount(false).value(), 1);

  // A single node counts itself, or nothing when it is not a transform node.
  EXPECT_EQ(tree.b->GetHiearchyCount(true).value(), 0);
  EXPECT_EQ(tree.c->GetHiearchyCount(true).value(), 1);
}

TEST(CharacterTree, ForeignChildFailsCountWhateverFlag) {
  // A plain hierarchy object deep in the tree, and a body part as a leaf: both are malformed.
  {
    SampleTree tree;
    Ref<HierarchyObject> plain = CreateObject<HierarchyObject>(HierarchyObject::kClassId).value();
    Attach(tree.c, plain);
    for (bool transformNodesOnly : {false, true}) {
      auto count = tree.root->GetHiearchyCount(transformNodesOnly);
      ASSERT_FALSE(count);
      EXPECT_FALSE(count.has_value());
      EXPECT_TRUE(count.error().Is(ErrorKind::kNullReference));
      EXPECT_EQ(count.error().GetMessage(), "Null reference in hierarchy walk.");
    }
    // The sibling subtree without the foreign node still counts.
    EXPECT_EQ(tree.b->GetHiearchyCount(false).value(), 1);
  }
  {
    SampleTree tree;
    Attach(tree.b, CreateBodyPart(InternedId(), "Arm"_s).value());
    EXPECT_TRUE(tree.root->GetHiearchyCount(false).error().Is(ErrorKind::kNullReference));
    EXPECT_TRUE(tree.b->GetHiearchyCount(true).error().Is(ErrorKind::kNullReference));
  }
}

TEST(CharacterTree, TextAndFlagOfFreshAndCreatedNodes) {
  // A node made by class id is not a transform node: its memory starts cleared.
  CharacterTreeRef fresh = CreateObject<CharacterTree>(CharacterTree::kClassId).value();
  EXPECT_FALSE(fresh->IsTransformNode());
  EXPECT_EQ(fresh->ToString().GetView(),
            "Object ID : 00000000-0000-0000-0000-000000000000\nObject Name : \n"
            "Is Transform Node : false\n");

  // CreateTree applies id, name and flag; the whole text comes through the node-info interface.
  const Uuid id = Uuid::Make(0, 0x2a).value();
  CharacterTreeRef hips = CreateTree(id, "Hips"_s, true).value();
  EXPECT_TRUE(hips->GetUuid().SharesData(id));
  const std::string expected =
      "Object ID : 00000000-0000-0000-0000-00000000002a\nObject Name : Hips\n"
      "Is Transform Node : true\n";
  EXPECT_EQ(Cast<CharacterNodeInfo>(hips)->ToString().GetView(), expected);

  // The flag is the member "IsTransformNode" after the node-info members; only the lowest bit
  // of the byte a reader writes there counts.
  MemberList members;
  ASSERT_TRUE(hips->DescribeIO(members));
  ASSERT_EQ(members.members.GetCount(), 3);
  EXPECT_EQ(members.members[0].name, "_objectID");
  EXPECT_EQ(members.members[2].name, "IsTransformNode");
  EXPECT_EQ(members.members[2].type, types::kBool);
  auto* flag = static_cast<std::uint8_t*>(members.members[2].address);
  *flag = 2;
  EXPECT_FALSE(hips->IsTransformNode());
  *flag = 3;
  EXPECT_TRUE(hips->IsTransformNode());
}

TEST(CharacterTree, CloneCopiesSubHierarchyDeeply) {
  SampleTree tree;
  CharacterTreeRef copy = Cast<CharacterTree>(tree.a->Clone().value());
  ASSERT_TRUE(copy);
  // The copy of an inner node is a new root with its own copies of the children.
  EXPECT_EQ(copy->GetParent(), nullptr);
  ASSERT_EQ(copy->GetChildCount(), 1);
  CharacterTreeRef child = Cast<CharacterTree>(copy->GetChild(0));
  ASSERT_TRUE(child);
  EXPECT_NE(child.Get(), tree.c.Get());
  EXPECT_EQ(child->GetParent(), static_cast<HierarchyObject*>(copy.Get()));
  EXPECT_TRUE(child->IsTransformNode());
  EXPECT_EQ(copy->GetHiearchyCount(false).value(), 2);

  // Renaming the copy's child leaves the original child alone.
  ASSERT_TRUE(child->SetName("C2"_s));
  EXPECT_EQ(tree.c->GetName(), "C");

  // Out of memory while cloning: the error comes back and nothing leaks (checked under asan).
  Ref<Object> clone;
  const int failures =
      testing::ForEachFailingAllocation([&] { clone.Reset(); },
                                        [&] {
                                          auto result = tree.root->Clone();
                                          if (result) clone = result.value();
                                          return result;
                                        },
                                        [&](const Result<Ref<Object>>& result) {
                                          EXPECT_TRUE(result.error().Is(ErrorKind::kOutOfMemory) ||
                                                      result.error().Is(ErrorKind::kNullReference));
                                          EXPECT_FALSE(result.has_value());
                                        });
  EXPECT_GE(failures, 3);
  EXPECT_EQ(Cast<CharacterTree>(clone)->GetHiearchyCount(true).value(), 3);
}

TEST(CharacterTree, CountFailsWhenChildrenCannotBeListed) {
  SampleTree tree;
  const int failures =
      testing::ForEachFailingAllocation([] {}, [&] { return tree.root->GetHiearchyCount(false); },
                                        [](const Result<Int>& result) {
                                          EXPECT_TRUE(result.error().Is(ErrorKind::kOutOfMemory));
                                          EXPECT_FALSE(result.has_value());
                                        });
  EXPECT_GE(failures, 1);
}

}  // namespace
}  // namespace tarni
