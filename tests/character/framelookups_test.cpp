// The module-internal shortcuts of a solved frame: poses copied straight into their new state, and
// lookups that read the module's own classes without new references. Each must give
// what the interface calls it replaces give, and leave the caller's objects as they were.
#include <gtest/gtest.h>

#include <vector>

#include "source/character/lookups.h"
#include "source/character/posenodes.h"
#include "support/samplecharacter.h"
#include "tarni/characterbodypartsolversetting.h"
#include "tarni/classes.h"

namespace tarni {
namespace {

using ca::CopyPoseWithNodes;
using ca::PeekAssociatedUuid;
using ca::PeekBodyPartSetting;

using testing::MakePose;
using testing::NodeArray;
using testing::U;

std::int32_t Holders(const Object* object) { return object->GetRefCount(); }
const Object* ObjectOf(const CharacterNodeTransformRef& node) { return node.GetRef().ObjectOf(); }

CharacterNodeTransformRef Node(std::uint64_t low) {
  return CreateNodeTransform(U(low), Matrix{}, Matrix{}).value();
}

TEST(PoseNodes, CopyPoseWithNodesLeavesTheSourcePose) {
  const CharacterNodeTransformRef a = Node(1);
  const CharacterNodeTransformRef b = Node(2);
  const CharacterPoseRef source = MakePose({a, b});
  // The copy is another pose of the same class holding the new nodes in order; the source keeps
  // its nodes and its holders.
  {
    const CharacterNodeTransformRef c = Node(3);
    CharacterPoseRef copy = CopyPoseWithNodes(source, NodeArray({c, c, nullptr})).value();
    EXPECT_FALSE(copy == source);
    ASSERT_EQ(copy->GetNodeTransformCount(), 3);
    EXPECT_TRUE(copy->GetNodeTransformArray()[0] == c);
    EXPECT_FALSE(copy->GetNodeTransformArray()[2]);
    EXPECT_EQ(Holders(ObjectOf(c)), 3);  // the moved-in array's references, not copies of them
    EXPECT_EQ(Holders(source.GetRef().ObjectOf()), 1);
    EXPECT_EQ(Holders(ObjectOf(a)), 2);
    // The copy is the caller's alone, so writing it clones nothing.
    const CharacterPose* before = copy.Get();
    EXPECT_EQ(copy.MakeWritable().value(), before);
  }
  // No memory for the new pose: the copy-on-write error.
  {
    BaseArray<CharacterNodeTransformRef> nodes = NodeArray({a});
    fault::FailNthAllocation(1);
    Result<CharacterPoseRef> copy = CopyPoseWithNodes(source, std::move(nodes));
    fault::Disarm();
    ASSERT_FALSE(copy);
    EXPECT_EQ(copy.error().GetMessage(), "Copy-on-write reference could not be made writable.");
    // The array was not taken: the caller still holds it.
    ASSERT_EQ(nodes.GetCount(), 1);
    EXPECT_EQ(Holders(ObjectOf(a)), 3);
  }
}

TEST(FrameLookups, PeeksGiveWhatTheInterfacesGive) {
  // A node's Uuid is the very one GetUuid gives; no node has the empty Uuid.
  {
    const CharacterNodeTransformRef node = CreateNodeTransform(U(7), Matrix{}, Matrix{}).value();
    EXPECT_EQ(&ca::NodeUuidOf(node.Get()), &node->GetUuid());
    EXPECT_FALSE(ca::NodeUuidOf(nullptr).HasData());
  }
  // Body-part settings: the stored one, and null for an identifier without one.
  {
    CharacterSolverConfigurationRef config =
        CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId).value();
    CharacterBodyPartSolverSettingRef setting =
        CreateObject<CharacterBodyPartSolverSetting>(CharacterBodyPartSolverSetting::kClassId)
            .value();
    const InternedId arm = InternedId::Make("arm").value();
    ASSERT_TRUE(setting->SetBodyPartIdentifier(arm));
    ASSERT_TRUE(config->SetBodyPartSetting(setting));
    CharacterBodyPartSolverSettingRef holder;
    EXPECT_EQ(PeekBodyPartSetting(*config, arm, holder), setting.Get());
    EXPECT_EQ(PeekBodyPartSetting(*config, InternedId::Make("leg").value(), holder), nullptr);
    EXPECT_EQ(setting->GetRefCount(), 2);  // the caller's and the configuration's: none taken
  }
  // Associated Uuids: the stored value, and GetAssociatedUuid's own error for a missing key.
  {
    CharacterAssociationRef association(
        CreateObject<CharacterAssociation>(CharacterAssociation::kClassId).value());
    ASSERT_TRUE(association.MakeWritable().value()->AssociateUuid(U(1), U(2)));
    Uuid holder;
    const Uuid* value = PeekAssociatedUuid(*association, U(1), holder).value();
    EXPECT_EQ(*value, U(2));
    EXPECT_EQ(*PeekAssociatedUuid(*association, U(2), holder).value(), U(1));
    Result<const Uuid*> missing = PeekAssociatedUuid(*association, U(3), holder);
    ASSERT_FALSE(missing);
    EXPECT_TRUE(missing.error().Is(ErrorKind::kIllegalArgument));
    EXPECT_EQ(missing.error().GetMessage(), "No value associated to this Uuid");
  }
}

}  // namespace
}  // namespace tarni
