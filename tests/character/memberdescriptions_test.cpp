// The members every set-up class declares, in field order: the names are the set-up file's keys, so
// a renamed or reordered member would break every stored set-up.
#include <gtest/gtest.h>

#include <string>

#include "tarni/charactersolver.h"
#include "tarni/describe.h"

namespace tarni {
namespace {

// The member names joined by blanks; "[]" marks an array, "{}" a map and "&" a reference.
std::string Members(const Id& classId) {
  Ref<Object> object = CreateObject(classId).value();
  MemberList members;
  EXPECT_TRUE(object->DescribeIO(members));
  std::string text;
  for (const MemberDescription& member : members.members) {
    text += (text.empty() ? "" : " ") + std::string(member.name);
    if (member.flags & kDescribeArray) text += "[]";
    if (member.flags & kDescribeMap) text += "{}";
    if (member.flags & kDescribeReference) text += "&";
  }
  return text;
}

TEST(DescribeIO, ListsEverySetUpClassMemberInFieldOrder) {
  const std::pair<Id, const char*> rows[] = {
      {CharacterNodeTransform::kClassId,
       "_objectID _objectName _globalMat _parentGlobalMat _preMultiplyMat"},
      {CharacterPose::kClassId, "NodeTransform[]"},
      {CharacterTree::kClassId, "_objectID _objectName IsTransformNode"},
      {CharacterBodyPart::kClassId,
       "_objectID _objectName _identifier _name _controllers[] _skeletonNodes[] "
       "_skeletonKeywords[] _skeletonDiscardKeywords[] _settings _attributeTransferMode"},
      {CharacterDefinition::kClassId,
       "_objectID _objectName SkeletonRoot& BodyPartRoot& SkeletonRestPose& "
       "ControllersRestPose&"},
      {CharacterAssociation::kClassId, "_uuidAssTable{} _idAssTable{}"},
      {CharacterBodyPartSolverSetting::kClassId,
       "_identifier _weight _positionActive _rotationActive _scaleActive _positionWeight "
       "_rotationWeight _scaleWeight _settings"},
      {CharacterSolverConfiguration::kClassId,
       "_sourceCharacter& _targetCharacter& _associationSourceTarget& _bpSettings{}& "
       "_globalWeight _solvingMode"},
  };
  for (const auto& [classId, members] : rows)
    EXPECT_EQ(Members(classId), members) << classId.GetText();
}

}  // namespace
}  // namespace tarni
