// Character definition: the four references a host sets, and what copying a definition shares.
#include <gtest/gtest.h>

#include <string>

#include "kernel/fault_loop.h"
#include "tarni/characterdefinition.h"

namespace tarni {
namespace {

using namespace tarni::literals;

CharacterDefinitionRef MakeDefinition() {
  return CreateObject<CharacterDefinition>(CharacterDefinition::kClassId).value();
}
CharacterPoseRef MakePose() {
  return CharacterPoseRef(CreateObject<CharacterPose>(CharacterPose::kClassId).value());
}

// A definition with a two-node skeleton, a two-part body hierarchy and both rest poses.
struct SampleCharacter {
  CharacterDefinitionRef definition = MakeDefinition();
  CharacterTreeRef hips = CreateTree(Uuid(), "Hips"_s, true).value();
  CharacterTreeRef spine = CreateTree(Uuid(), "Spine"_s, true).value();
  CharacterBodyPartRef body = CreateBodyPart(InternedId::Make("body").value(), "Body"_s).value();
  CharacterBodyPartRef torso = CreateBodyPart(InternedId::Make("torso").value(), "Torso"_s).value();
  CharacterPoseRef skeletonPose = MakePose();
  CharacterPoseRef controllersPose = MakePose();
  SampleCharacter() {
    EXPECT_TRUE(hips->InsertChild(spine));
    EXPECT_TRUE(body->InsertChild(torso));
    EXPECT_TRUE(definition->SetName("Hero"_s));
    EXPECT_TRUE(definition->SetSkeletonTree(hips));
    EXPECT_TRUE(definition->SetBodyPartTree(body));
    EXPECT_TRUE(definition->SetSkeletonRestPose(skeletonPose));
    EXPECT_TRUE(definition->SetControllersRestPose(controllersPose));
  }
};

TEST(CharacterDefinition, StoresReferencesAndPrintsNodeInfoOnly) {
  CharacterDefinitionRef fresh = MakeDefinition();
  const std::string freshText =
      "Object ID : 00000000-0000-0000-0000-000000000000\nObject Name : \n";
  EXPECT_EQ(fresh->ToString().GetView(), freshText);

  // The setters keep the caller's objects; trees and poses stay out of the text.
  SampleCharacter hero;
  EXPECT_EQ(hero.definition->ToString().GetView(),
            "Object ID : 00000000-0000-0000-0000-000000000000\nObject Name : Hero\n");

  // Setting the reference already held takes no extra reference; an empty one clears the field.
  const std::int32_t before = hero.hips.Get()->GetRefCount();
  ASSERT_TRUE(hero.definition->SetSkeletonTree(hero.hips));
  EXPECT_EQ(hero.hips.Get()->GetRefCount(), before);
  ASSERT_TRUE(hero.definition->SetSkeletonTree(nullptr));
  EXPECT_EQ(hero.hips.Get()->GetRefCount(), before - 1);
  EXPECT_FALSE(hero.definition->GetSkeletonTree());
}

TEST(CharacterDefinition, CopyClonesTreesAndSharesPoses) {
  SampleCharacter a;
  CharacterDefinitionRef byCopy = MakeDefinition();
  ASSERT_TRUE(byCopy->CopyFrom(*a.definition));
  CharacterDefinitionRef byClone = Cast<CharacterDefinition>(a.definition->Clone().value());
  ASSERT_TRUE(byClone);

  for (const CharacterDefinitionRef& b : {byCopy, byClone}) {
    // The trees are new objects down to the children: editing B's skeleton leaves A's alone.
    ASSERT_TRUE(b->GetSkeletonTree());
    EXPECT_NE(b->GetSkeletonTree().Get(), a.hips.Get());
    CharacterTreeRef spine = Cast<CharacterTree>(b->GetSkeletonTree()->GetChild(0));
    ASSERT_TRUE(spine);
    EXPECT_NE(spine.Get(), a.spine.Get());
    ASSERT_TRUE(spine->SetName("Spine2"_s));
    spine->SetTransformNode(false);
    EXPECT_EQ(a.spine->GetName(), "Spine");
    EXPECT_EQ(a.hips->GetHiearchyCount(true).value(), 2);
    EXPECT_EQ(b->GetSkeletonTree()->GetHiearchyCount(true).value(), 1);

    CharacterBodyPartRef torso = b->GetBodyPartTree()->FindBodyPartByName("Torso"_s).value();
    ASSERT_TRUE(torso);
    EXPECT_NE(torso.Get(), a.torso.Get());

    // The rest poses are the same objects: a change written to B's pose shows in A.
    EXPECT_EQ(b->GetSkeletonRestPose().Get(), a.skeletonPose.Get());
  }
  BaseArray<CharacterNodeTransformRef> nodes;
  ASSERT_TRUE(nodes.Append(CreateNodeTransform(Uuid(), Matrix(), Matrix()).value()));
  Ref<CharacterPose> plain = Cast<CharacterPose>(byCopy->GetSkeletonRestPose().GetRef());
  ASSERT_TRUE(plain->SetNodeTransformArray(nodes));
  EXPECT_EQ(a.definition->GetSkeletonRestPose()->GetNodeTransformCount(), 1);
}

TEST(CharacterDefinition, CopyFailsWhenTreeCloneRunsOutOfMemory) {
  SampleCharacter a;
  CharacterDefinitionRef b = MakeDefinition();
  int skeletonKept = 0;
  const auto failures = testing::ForEachFailingAllocation(
      [&] {
        ASSERT_TRUE(b->SetSkeletonTree(nullptr));
        ASSERT_TRUE(b->SetBodyPartTree(nullptr));
        ASSERT_TRUE(b->SetSkeletonRestPose(nullptr));
      },
      [&] { return b->CopyFrom(*a.definition); },
      [&](const Result<void>& result, bool hit) {
        if (!hit) return;
        EXPECT_TRUE(result.error().Is(ErrorKind::kOutOfMemory) ||
                    result.error().Is(ErrorKind::kNullReference));
        // The poses come last: a failed copy has not shared them yet.
        EXPECT_FALSE(b->GetSkeletonRestPose());
        // The body-part root is stored only once its clone is whole; a failure there comes after
        // the skeleton, which keeps its new clone.
        EXPECT_FALSE(b->GetBodyPartTree());
        if (b->GetSkeletonTree()) {
          EXPECT_NE(b->GetSkeletonTree().Get(), a.hips.Get());
          ++skeletonKept;
        }
      });
  EXPECT_GE(failures, 4);
  EXPECT_GE(skeletonKept, 1);
  EXPECT_EQ(b->GetSkeletonRestPose().Get(), a.skeletonPose.Get());
}

}  // namespace
}  // namespace tarni
