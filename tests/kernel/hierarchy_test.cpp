// The framework's hierarchy object, made by its class id, and the one depth-first walk.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "kernel/fault_loop.h"
#include "tarni/classes.h"
#include "tarni/hierarchy.h"

namespace tarni {
namespace {

using testing::ForEachFailingAllocation;
using Node = Ref<HierarchyObject>;

Node NewNode() {
  auto created = CreateObject<HierarchyObject>(HierarchyObject::kClassId);
  EXPECT_TRUE(created);
  return created ? created.value() : Node();
}

// Nodes named for the messages of failing checks.
struct Tree {
  Node root = NewNode(), a = NewNode(), b = NewNode(), c = NewNode();
  std::map<const HierarchyObject*, std::string> names{
      {root.Get(), "root"}, {a.Get(), "A"}, {b.Get(), "B"}, {c.Get(), "C"}};

  // root -> (A -> (C), B)
  Tree() {
    EXPECT_TRUE(root->InsertChild(a));
    EXPECT_TRUE(root->InsertChild(b));
    EXPECT_TRUE(a->InsertChild(c));
  }
  std::string Name(const HierarchyObject* node) const {
    if (node == nullptr) return "null";
    auto found = names.find(node);
    return found == names.end() ? "?" : found->second;
  }
  std::vector<std::string> Children(const Node& node) const {
    std::vector<std::string> list;
    const auto children = node->GetChildren();
    for (const Node& child : children.value()) list.push_back(Name(child.Get()));
    return list;
  }
};
using Names = std::vector<std::string>;

TEST(HierarchyObject, InsertsChildrenAtTheirIndex) {
  Tree t;
  Node d = NewNode(), e = NewNode(), f = NewNode();
  t.names[d.Get()] = "D";
  t.names[e.Get()] = "E";
  t.names[f.Get()] = "F";
  {
    // Index 0 first, 1 between, -1 and past the count last.
    ASSERT_TRUE(t.root->InsertChild(d, 0));
    ASSERT_TRUE(t.root->InsertChild(e, 2));
    ASSERT_TRUE(t.root->InsertChild(f, 99));
    EXPECT_EQ(t.Children(t.root), (Names{"D", "A", "E", "B", "F"}));
    EXPECT_EQ(t.Name(t.root->GetChild(2).Get()), "E");
    EXPECT_EQ(e->GetParent(), t.root.Get());
  }
  {
    // A null child, a child that has a parent, a node under itself or its descendant.
    auto null = t.root->InsertChild(Node());
    EXPECT_TRUE(null.error().Is(ErrorKind::kIllegalArgument));
    EXPECT_EQ(null.error().GetMessage(), "Illegal argument: Condition child not fulfilled. ");
    auto parented = t.b->InsertChild(t.c);
    EXPECT_EQ(parented.error().GetMessage(), "Illegal argument: the child already has a parent.");
    auto cycle = t.c->InsertChild(t.root);
    EXPECT_EQ(cycle.error().GetMessage(), "Illegal argument: a node cannot be its own descendant.");
    Node lone = NewNode();
    auto self = lone->InsertChild(lone);
    EXPECT_EQ(self.error().GetMessage(), "Illegal argument: a node cannot be its own descendant.");
    EXPECT_EQ(t.Children(t.root), (Names{"D", "A", "E", "B", "F"}));
  }
}

TEST(HierarchyObject, RemoveDetachesWithTheSubtree) {
  Tree t;
  {
    // Remove hands back the parent's reference; the node keeps its children.
    Node removed = t.a->Remove();
    EXPECT_TRUE(removed == t.a);
    EXPECT_EQ(t.Children(t.root), (Names{"B"}));
    EXPECT_EQ(t.Children(t.a), (Names{"C"}));
    // A root has nothing to remove from.
    EXPECT_FALSE(t.root->Remove());
    // It can be inserted elsewhere now.
    ASSERT_TRUE(t.b->InsertChild(t.a));
    EXPECT_EQ(t.a->GetParent(), t.b.Get());
  }
  {
    // A parent that goes away leaves its children as roots.
    Node child = NewNode();
    {
      Node parent = NewNode();
      ASSERT_TRUE(parent->InsertChild(child));
    }
    EXPECT_EQ(child->GetParent(), nullptr);
  }
  {
    // GetChildren is a snapshot holding references of its own.
    auto children = t.root->GetChildren().value();
    t.b->Remove();
    ASSERT_EQ(children.GetCount(), 1);
    EXPECT_TRUE(children[0] == t.b);
  }
}

TEST(HierarchyObject, CloneCopiesTheSubtreeDeep) {
  Tree t;
  Node outer = NewNode();
  ASSERT_TRUE(outer->InsertChild(t.root));
  {
    Node copy = Cast<HierarchyObject>(t.root->Clone().value());
    ASSERT_TRUE(copy);
    // The copy is a new root with new nodes in the same shape, linked to each other.
    EXPECT_EQ(copy->GetParent(), nullptr);
    ASSERT_EQ(copy->GetChildCount(), 2);
    Node a2 = copy->GetChild(0);
    Node b2 = copy->GetChild(1);
    EXPECT_EQ(a2->GetParent(), copy.Get());
    ASSERT_EQ(a2->GetChildCount(), 1);
    EXPECT_FALSE(a2->GetChild(0) == t.c);
    EXPECT_EQ(a2->GetChild(0)->GetParent(), a2.Get());
    // The source is untouched.
    EXPECT_EQ(t.Children(t.root), (Names{"A", "B"}));
    EXPECT_EQ(t.root->GetParent(), outer.Get());
  }
  {
    // Copying over a node with children replaces them; the old ones become roots.
    Node target = NewNode();
    Node old = NewNode();
    ASSERT_TRUE(target->InsertChild(old));
    ASSERT_TRUE(target->CopyFrom(*t.a));
    EXPECT_EQ(target->GetChildCount(), 1);
    EXPECT_FALSE(target->GetChild(0) == old);
    EXPECT_EQ(old->GetParent(), nullptr);
    EXPECT_TRUE(target->CopyFrom(*target));
    EXPECT_EQ(target->GetChildCount(), 1);
  }
}

TEST(WalkHierarchy, VisitsDepthFirstInChildOrder) {
  Tree t;
  Node outer = NewNode();
  t.names[outer.Get()] = "outer";
  ASSERT_TRUE(outer->InsertChild(t.root));
  {
    // Pre-order with depths and parents; the root's parent is its real parent.
    std::vector<std::string> seen;
    auto walked = WalkHierarchy(
        t.root, [&](const Node& node, HierarchyObject* parent, Int depth) -> Result<bool> {
          seen.push_back(t.Name(node.Get()) + "/" + t.Name(parent) + "/" + std::to_string(depth));
          return true;
        });
    ASSERT_TRUE(walked);
    EXPECT_TRUE(walked.value());
    EXPECT_EQ(seen, (Names{"root/outer/0", "A/root/1", "C/A/2", "B/root/1"}));
  }
  {
    // False stops the whole walk, not only the branch.
    std::vector<std::string> seen;
    auto walked = WalkHierarchy(t.root, [&](const Node& node, HierarchyObject*, Int) {
      seen.push_back(t.Name(node.Get()));
      return Result<bool>(node.Get() != t.c.Get());
    });
    ASSERT_TRUE(walked);
    EXPECT_FALSE(walked.value());
    EXPECT_EQ(seen, (Names{"root", "A", "C"}));
  }
  {
    // A visitor's error ends the walk and comes back unchanged.
    int visits = 0;
    auto walked = WalkHierarchy(t.root, [&](const Node& node, HierarchyObject*, Int) {
      ++visits;
      if (node.Get() == t.a.Get()) return Result<bool>(UnexpectedError("visitor failed"));
      return Result<bool>(true);
    });
    EXPECT_EQ(walked.error().GetMessage(), "visitor failed");
    EXPECT_EQ(visits, 2);
  }
}

// An object that is not a hierarchy node.
class Leaf final : public Object {
  TARNI_IMPLEMENTS(Leaf, Object)
};

TEST(WalkHierarchy, FailsOnNodesItCannotDescend) {
  auto count = [](int& visits) {
    return [&visits](const auto&, auto*, Int) -> Result<bool> {
      ++visits;
      return true;
    };
  };
  {
    // An empty root: offered once, then the null-reference error.
    int visits = 0;
    auto walked = WalkHierarchy(Node(), count(visits));
    EXPECT_TRUE(walked.error().Is(ErrorKind::kNullReference));
    EXPECT_EQ(walked.error().GetMessage(), "Null reference in hierarchy walk.");
    EXPECT_EQ(visits, 1);
  }
  {
    // A root that is no hierarchy object.
    int visits = 0;
    auto walked = WalkHierarchy(Ref<Object>(new Leaf()), count(visits));
    EXPECT_TRUE(walked.error().Is(ErrorKind::kNullReference));
    EXPECT_EQ(walked.error().GetMessage(), "Node is not a hierarchy object.");
  }
  {
    // The walk's own copy of each child list can fail too.
    Tree t;
    const auto failures = ForEachFailingAllocation(
        [] {},
        [&] {
          return WalkHierarchy(
              t.root, [](const Node&, HierarchyObject*, Int) { return Result<bool>(true); });
        },
        [](const Result<bool>& r, bool hit) {
          EXPECT_EQ(r.has_error(), hit);
          if (hit) {
            EXPECT_TRUE(r.error().Is(ErrorKind::kOutOfMemory));
          }
        });
    EXPECT_GE(failures, 2);
  }
}

}  // namespace
}  // namespace tarni
