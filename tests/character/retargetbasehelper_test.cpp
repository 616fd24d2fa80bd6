// Retarget base helper: keyword filling, association by identifier with its statistics, renaming
// a pose and counting matches, on small hand-built characters.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/samplecharacter.h"
#include "tarni/retargetbasehelper.h"

namespace tarni {
namespace {

using namespace tarni::literals;
using testing::Ident;
using testing::U;

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
BaseArray<String> Texts(std::initializer_list<const char*> texts) {
  BaseArray<String> list;
  for (const char* text : texts) EXPECT_TRUE(list.Append(String::Make(text).value()));
  return list;
}

RetargetBaseHelperRef MakeHelper() {
  return CreateObject<RetargetBaseHelper>(RetargetBaseHelper::kClassId).value();
}
CharacterBodyPartRef MakePart(std::string_view identifier) {
  return CreateBodyPart(Ident(identifier), String::Make(identifier).value()).value();
}
CharacterBodyPartRef MakePart(std::string_view identifier,
                              std::initializer_list<const char*> keywords,
                              std::initializer_list<const char*> discard = {}) {
  CharacterBodyPartRef part = MakePart(identifier);
  EXPECT_TRUE(part->SetSkeletonKeywords(Texts(keywords)));
  EXPECT_TRUE(part->SetSkeletonDiscardKeywords(Texts(discard)));
  return part;
}

// A skeleton whose node k (1-based, in pre-order) has the Uuid k:
// 1 Hips -> 2 Spine -> 3 LeftShoulder -> 4 LeftArm -> 5 LeftForeArm -> 6 LeftHandTwist
//   -> 7 LeftHand; 2 Spine -> 8 RightArm; 1 Hips -> 9 LeftUpLeg.
struct Skeleton {
  std::vector<CharacterTreeRef> nodes;
  Skeleton() {
    const char* names[] = {"Hips",          "Spine",    "LeftShoulder", "LeftArm",  "LeftForeArm",
                           "LeftHandTwist", "LeftHand", "RightArm",     "LeftUpLeg"};
    const int parents[] = {0, 1, 2, 3, 4, 5, 6, 2, 1};
    for (int k = 1; k <= 9; ++k) {
      nodes.push_back(CreateTree(U(k), String::Make(names[k - 1]).value(), true).value());
      if (parents[k - 1] > 0) {
        EXPECT_TRUE(nodes[parents[k - 1] - 1]->InsertChild(nodes.back()));
      }
    }
  }
  const CharacterTreeRef& Root() const { return nodes[0]; }
};

// A pose holding nodes with the given Uuids (identity matrices).
CharacterPoseRef MakePose(std::initializer_list<std::uint64_t> lows) {
  CharacterPoseRef pose(CreateObject<CharacterPose>(CharacterPose::kClassId).value());
  BaseArray<CharacterNodeTransformRef> nodes;
  for (std::uint64_t low : lows)
    EXPECT_TRUE(nodes.Append(CreateNodeTransform(U(low), Matrix(), Matrix()).value()));
  EXPECT_TRUE(pose.MakeWritable().value()->SetNodeTransformArray(nodes));
  return pose;
}

TEST(RetargetBaseHelper, KeywordPartsMustAllOccurIgnoringCase) {
  RetargetBaseHelperRef helper = MakeHelper();
  Skeleton skeleton;
  {
    // Every part of an "&&" keyword must occur; each matching node is added once, in walk order.
    CharacterBodyPartRef part = MakePart("leftarm", {"arm&&left"});
    ASSERT_TRUE(helper->FillBodyPart(skeleton.Root(), part));
    EXPECT_EQ(Lows(part->GetSkeleton()), (std::vector<std::uint64_t>{4, 5}));
  }
  {
    // Substrings, not whole words, and letter case does not matter on either side.
    CharacterBodyPartRef part = MakePart("arms", {"ARM", "Left"});
    ASSERT_TRUE(helper->FillBodyPart(skeleton.Root(), part));
    EXPECT_EQ(Lows(part->GetSkeleton()), (std::vector<std::uint64_t>{3, 4, 5, 6, 7, 8, 9}));
  }
  {
    // Keywords without parts never match.
    CharacterBodyPartRef part = MakePart("none", {"&&", "", "&&&&"});
    ASSERT_TRUE(helper->FillBodyPart(skeleton.Root(), part));
    EXPECT_TRUE(part->GetSkeleton().IsEmpty());
  }
  {
    // Only the given node's sub-hierarchy is searched.
    CharacterBodyPartRef part = MakePart("hand", {"hand"});
    ASSERT_TRUE(helper->FillBodyPart(skeleton.nodes[4], part));
    EXPECT_EQ(Lows(part->GetSkeleton()), (std::vector<std::uint64_t>{6, 7}));
  }
  {
    // Discarding rejects LeftForeArm and LeftHandTwist, but LeftHand below them is still found.
    CharacterBodyPartRef part = MakePart("hand", {"hand", "arm"}, {"twist", "fore&&LEFT"});
    ASSERT_TRUE(helper->FillBodyPart(skeleton.Root(), part));
    EXPECT_EQ(Lows(part->GetSkeleton()), (std::vector<std::uint64_t>{4, 7, 8}));
  }
}

TEST(RetargetBaseHelper, FillsEveryBodyPartOfTheHierarchy) {
  RetargetBaseHelperRef helper = MakeHelper();
  Skeleton skeleton;
  CharacterBodyPartRef body = MakePart("body");
  CharacterBodyPartRef spine = MakePart("spine", {"spine"});
  CharacterBodyPartRef leg = MakePart("leg", {"leg"});
  CharacterBodyPartRef foot = MakePart("foot");
  ASSERT_TRUE(body->InsertChild(spine));
  ASSERT_TRUE(body->InsertChild(leg));
  ASSERT_TRUE(leg->InsertChild(foot));
  // Lists from an earlier fill are replaced, emptied where there are no keywords.
  ASSERT_TRUE(body->SetSkeleton(Uuids({99})));
  ASSERT_TRUE(foot->SetSkeleton(Uuids({98})));
  ASSERT_TRUE(helper->FillBodyPart(skeleton.Root(), body));
  EXPECT_TRUE(body->GetSkeleton().IsEmpty());
  EXPECT_EQ(Lows(spine->GetSkeleton()), (std::vector<std::uint64_t>{2}));
  EXPECT_EQ(Lows(leg->GetSkeleton()), (std::vector<std::uint64_t>{9}));
  EXPECT_TRUE(foot->GetSkeleton().IsEmpty());
  {
    // Without keywords the tree is not needed; with them a missing tree is an error.
    ASSERT_TRUE(helper->FillBodyPart(nullptr, foot));
    EXPECT_TRUE(helper->FillBodyPart(nullptr, leg).error().Is(ErrorKind::kNullReference));
  }
}

TEST(RetargetBaseHelper, AssociatesByIdentifierPairingNodesByPosition) {
  RetargetBaseHelperRef helper = MakeHelper();
  // Source: body [10] -> arm (skeleton 1,2,3; controllers 20) , body -> tail (no partner).
  // Destination: root -> body [11] -> arm (skeleton 4,5; controllers 21, 22).
  CharacterBodyPartRef src = MakePart("body");
  CharacterBodyPartRef srcArm = MakePart("arm");
  CharacterBodyPartRef srcTail = MakePart("tail");
  ASSERT_TRUE(src->InsertChild(srcArm));
  ASSERT_TRUE(src->InsertChild(srcTail));
  ASSERT_TRUE(src->SetSkeleton(Uuids({10})));
  ASSERT_TRUE(srcArm->SetSkeleton(Uuids({1, 2, 3})));
  ASSERT_TRUE(srcArm->SetControllers(Uuids({20})));
  ASSERT_TRUE(srcTail->SetSkeleton(Uuids({30})));
  CharacterBodyPartRef dst = MakePart("root");
  CharacterBodyPartRef dstBody = MakePart("body");
  CharacterBodyPartRef dstArm = MakePart("arm");
  ASSERT_TRUE(dst->InsertChild(dstBody));
  ASSERT_TRUE(dstBody->InsertChild(dstArm));
  ASSERT_TRUE(dstBody->SetSkeleton(Uuids({11})));
  ASSERT_TRUE(dstArm->SetSkeleton(Uuids({4, 5})));
  ASSERT_TRUE(dstArm->SetControllers(Uuids({21, 22})));

  // The counters are added to, never reset; the totals are set from the running sums.
  RetargetAssociationStatistics stats;
  stats.visitedBodyParts = 100;
  stats.sourceSkeletonNodes = 1000;
  stats.sourceNodesTotal = -7;
  auto associated = helper->AssociateBodyPartsByIdentifier(src, dst, stats);
  ASSERT_TRUE(associated);
  const CharacterAssociationRef& association = associated.value();
  EXPECT_EQ(stats.visitedBodyParts, 103);
  EXPECT_EQ(stats.associatedBodyParts, 2);
  EXPECT_EQ(stats.sourceSkeletonNodes, 1000 + 1 + 3);
  EXPECT_EQ(stats.sourceControllerNodes, 1);
  EXPECT_EQ(stats.sourceNodesTotal, 1005);
  EXPECT_EQ(stats.destinationSkeletonNodes, 1 + 2);
  EXPECT_EQ(stats.destinationControllerNodes, 2);
  EXPECT_EQ(stats.destinationNodesTotal, 5);
  EXPECT_EQ(stats.associatedSkeletonPairs, 1 + 2);
  EXPECT_EQ(stats.associatedControllerPairs, 1);
  EXPECT_EQ(stats.associatedPairsTotal, 4);

  // Pairs by index, both directions; the third source node and the tail stay unpaired.
  EXPECT_EQ(association->GetAssociatedUuid(U(1)).value().GetLow(), 4u);
  EXPECT_EQ(association->GetAssociatedUuid(U(5)).value().GetLow(), 2u);
  EXPECT_EQ(association->GetAssociatedUuid(U(10)).value().GetLow(), 11u);
  EXPECT_EQ(association->GetAssociatedUuid(U(20)).value().GetLow(), 21u);
  EXPECT_FALSE(association->GetAssociatedUuid(U(3)));
  EXPECT_FALSE(association->GetAssociatedUuid(U(30)));
  EXPECT_EQ(association->GetAssociatedId(Ident("arm")).value(), Ident("arm"));
  EXPECT_FALSE(association->GetAssociatedId(Ident("tail")));
  {
    // A null side is refused with the fixed text, raised by the helper.
    auto refused = helper->AssociateBodyPartsByIdentifier(src, nullptr, stats);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().Is(ErrorKind::kIllegalArgument));
    EXPECT_EQ(refused.error().GetMessage(),
              "Illegal argument: Condition srcBodyPart && dstBodyPart not fulfilled. ");
    EXPECT_EQ(refused.error().GetUnit(), "retargetbasehelper_impl");
    EXPECT_EQ(stats.visitedBodyParts, 103);
  }
}

TEST(RetargetBaseHelper, TranslatesPoseToTargetIdentitiesLeavingTheInputAlone) {
  RetargetBaseHelperRef helper = MakeHelper();
  CharacterAssociationRef association(
      CreateObject<CharacterAssociation>(CharacterAssociation::kClassId).value());
  CharacterAssociation& table = *association.MakeWritable().value();
  ASSERT_TRUE(table.AssociateUuid(U(1), U(101)));
  ASSERT_TRUE(table.AssociateUuid(U(2), U(102)));
  CharacterPoseRef pose = MakePose({2, 1, 2});
  const CharacterNodeTransform* firstNode = pose->GetNodeTransformArray()[0].Get();

  auto translated = helper->TranslateSrcToDestID(association, pose);
  ASSERT_TRUE(translated);
  const CharacterPoseRef& result = translated.value();
  EXPECT_NE(result.Get(), pose.Get());
  std::vector<std::uint64_t> lows;
  for (const auto& node : result->GetNodeTransformArray()) lows.push_back(node->GetUuid().GetLow());
  EXPECT_EQ(lows, (std::vector<std::uint64_t>{102, 101, 102}));
  // The input pose still holds its own nodes with their own Uuids.
  EXPECT_EQ(pose->GetNodeTransformArray()[0].Get(), firstNode);
  EXPECT_EQ(firstNode->GetUuid().GetLow(), 2u);
  {
    // A node without partner stops the translation with the association's error.
    auto failed = helper->TranslateSrcToDestID(association, MakePose({1, 7, 2}));
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error().GetMessage(), "No value associated to this Uuid");
  }
  {
    // The association is only asked about nodes: a pose without nodes is copied without one,
    // while a node to rename, or no pose at all, is the null-reference error.
    CharacterPoseRef empty = MakePose({});
    auto copied = helper->TranslateSrcToDestID(nullptr, empty);
    ASSERT_TRUE(copied) << copied.error().GetMessage();
    EXPECT_NE(copied.value().Get(), empty.Get());
    EXPECT_TRUE(copied.value()->GetNodeTransformArray().IsEmpty());
    EXPECT_TRUE(
        helper->TranslateSrcToDestID(nullptr, MakePose({1})).error().Is(ErrorKind::kNullReference));
    EXPECT_TRUE(
        helper->TranslateSrcToDestID(association, nullptr).error().Is(ErrorKind::kNullReference));
  }
}

TEST(RetargetBaseHelper, RenamedPosesFindTheFirstNodeOfEachTargetFrameAfterFrame) {
  // Ten source nodes drive six target nodes; every target Uuid is made anew, so equal values do
  // not share id data.
  RetargetBaseHelperRef helper = MakeHelper();
  CharacterAssociationRef association(
      CreateObject<CharacterAssociation>(CharacterAssociation::kClassId).value());
  const std::uint64_t drives[10] = {101, 102, 103, 101, 104, 105, 106, 102, 103, 106};
  for (std::uint64_t s = 1; s <= 10; ++s)
    ASSERT_TRUE(association.MakeWritable().value()->AssociateUuid(U(s), U(drives[s - 1])));
  // Each lookup gives the first node holding the Uuid, or none.
  auto expectFirstMatches = [](const CharacterPoseRef& renamed) {
    const BaseArray<CharacterNodeTransformRef>& nodes = renamed->GetNodeTransformArray();
    for (std::uint64_t t = 100; t <= 107; ++t) {
      const CharacterNodeTransform* first = nullptr;
      for (const CharacterNodeTransformRef& node : nodes) {
        if (node->GetUuid().GetLow() == t) {
          first = node.Get();
          break;
        }
      }
      EXPECT_EQ(renamed->GetNodeTransformByID(U(t)).value().Get(), first) << "target " << t;
    }
  };
  for (int frame = 0; frame < 3; ++frame)
    expectFirstMatches(
        helper->TranslateSrcToDestID(association, MakePose({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}))
            .value());
  // Source 1 now drives 106: the first 101 is the fourth node.
  ASSERT_TRUE(association.MakeWritable().value()->AssociateUuid(U(1), U(106)));
  CharacterPoseRef renamed =
      helper->TranslateSrcToDestID(association, MakePose({1, 2, 3, 4, 5, 6, 7, 8, 9, 10})).value();
  expectFirstMatches(renamed);
  EXPECT_EQ(renamed->GetNodeTransformByID(U(101)).value().Get(),
            renamed->GetNodeTransformArray()[3].Get());
  // The same skeleton in another order.
  expectFirstMatches(
      helper->TranslateSrcToDestID(association, MakePose({10, 9, 8, 7, 6, 5, 4, 3, 2, 1})).value());
}

TEST(RetargetBaseHelper, CountsMatchingNodesOwnOrOverTheSubHierarchy) {
  RetargetBaseHelperRef helper = MakeHelper();
  CharacterBodyPartRef body = MakePart("body");
  CharacterBodyPartRef arm = MakePart("arm");
  ASSERT_TRUE(body->InsertChild(arm));
  ASSERT_TRUE(body->SetSkeleton(Uuids({1, 2, 9, 1})));
  ASSERT_TRUE(arm->SetSkeleton(Uuids({3, 8})));
  ASSERT_TRUE(body->SetControllers(Uuids({4})));
  ASSERT_TRUE(arm->SetControllers(Uuids({5, 6})));
  CharacterPoseRef pose = MakePose({1, 2, 3, 5, 6});
  // A repeated Uuid counts each time.
  EXPECT_EQ(helper->FindSkeletonMatchingCount(body, pose, false).value(), 3);
  EXPECT_EQ(helper->FindSkeletonMatchingCount(body, pose, true).value(), 4);
  EXPECT_EQ(helper->FindControllerMatchingCount(body, pose, false).value(), 0);
  EXPECT_EQ(helper->FindControllerMatchingCount(body, pose, true).value(), 2);
  // A null body part has no nodes; a null pose is an error.
  EXPECT_EQ(helper->FindSkeletonMatchingCount(nullptr, pose, true).value(), 0);
  EXPECT_TRUE(helper->FindSkeletonMatchingCount(body, nullptr, false)
                  .error()
                  .Is(ErrorKind::kNullReference));
}

TEST(RetargetBaseHelper, SetUpClassesAreRegisteredInUnitOrder) {
  // The five set-up and solver classes: id, implementation name and unit, in the module's order.
  struct Row {
    Id classId;
    Id interfaceId;
    std::string_view implementation;
    std::string_view unit;
  };
  const Row rows[] = {
      {CharacterAssociation::kClassId, CharacterAssociation::kInterfaceId,
       "CharacterAssociationImpl", "characterassociation_impl"},
      {RetargetBaseHelper::kClassId, RetargetBaseHelper::kInterfaceId, "RetargetBaseHelperImpl",
       "retargetbasehelper_impl"},
      {CharacterBodyPartSolverSetting::kClassId, CharacterBodyPartSolverSetting::kInterfaceId,
       "CharacterBodyPartSolverSettingImpl", "characterbodypartsolversetting_impl"},
      {CharacterSolverConfiguration::kClassId, CharacterSolverConfiguration::kInterfaceId,
       "CharacterSolverConfigurationImpl", "charactersolverconfiguration_impl"},
      {CharacterSolver::kClassId, CharacterSolver::kInterfaceId, "CharacterSolverImpl",
       "charactersolver_impl"},
  };
  BaseArray<const ClassInfo*> classes = ListClasses().value();
  Int previous = -1;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.implementation);
    const ClassInfo* info = FindClass(row.classId);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->GetImplementationName(), row.implementation);
    EXPECT_EQ(std::string_view(info->GetRecord().unit), row.unit);
    ASSERT_EQ(info->GetRecord().interfaces.size(), 1u);
    EXPECT_EQ(info->GetRecord().interfaces[0], row.interfaceId);
    auto object = info->Create();
    ASSERT_TRUE(object);
    EXPECT_NE(object.value()->QueryInterface(row.interfaceId), nullptr);
    Int position = 0;
    while (position < classes.GetCount() && classes[position] != info) ++position;
    EXPECT_GT(position, previous);
    previous = position;
  }
}

}  // namespace
}  // namespace tarni
