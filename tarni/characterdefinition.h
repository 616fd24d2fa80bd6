// CharacterDefinition: one character as retargeting sees it: the tree of its skeleton nodes, the
// hierarchy of its body parts, and two rest poses, one for the skeleton and one for the
// controllers. It also carries a node identity (Uuid and name) through CharacterNodeInfo.
#pragma once

#include "tarni/characterbodypart.h"
#include "tarni/characternodeinfo.h"
#include "tarni/characterpose.h"
#include "tarni/charactertree.h"

namespace tarni {

// A plain holder of four references. The setters keep the reference they are given (no copy), so
// a caller that changes that tree or pose later changes what the definition sees; storing the
// reference already held changes nothing; an empty reference clears the field. None can fail.
//
// Copying a definition (CopyFrom, and so Clone) deliberately treats the fields differently: both
// trees are cloned deeply (through their Clone, children included), so the copy's skeleton and
// body parts can be edited on their own, while both rest poses are shared with the source.
// A failing tree clone ends the copy with its error; the fields copied before keep their new
// values.
//
// Destruction releases the controllers rest pose, the skeleton rest pose, the body-part root and
// the skeleton root, in that order.
class CharacterDefinition : public virtual CharacterNodeInfo {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.characterdefinition"};
  static constexpr Id kClassId{"net.tarni.animation.class.characterdefinition"};
  using Extends = InterfaceList<CharacterNodeInfo>;

  // The trees have their getter first and the poses their setter first, as callers bind them.
  // The root of the skeleton tree, possibly empty.
  virtual const CharacterTreeRef& GetSkeletonTree() const noexcept = 0;
  virtual Result<void> SetSkeletonTree(const CharacterTreeRef& tree) noexcept = 0;
  // The root of the body-part hierarchy, possibly empty.
  virtual const CharacterBodyPartRef& GetBodyPartTree() const noexcept = 0;
  virtual Result<void> SetBodyPartTree(const CharacterBodyPartRef& root) noexcept = 0;
  // The rest pose of the skeleton nodes, possibly empty.
  virtual Result<void> SetSkeletonRestPose(const CharacterPoseRef& pose) noexcept = 0;
  virtual const CharacterPoseRef& GetSkeletonRestPose() const noexcept = 0;
  // The rest pose of the controllers, possibly empty.
  virtual Result<void> SetControllersRestPose(const CharacterPoseRef& pose) noexcept = 0;
  virtual const CharacterPoseRef& GetControllersRestPose() const noexcept = 0;
  // ToString (the object's): the node-info lines only; trees and poses are not printed.
};

using CharacterDefinitionRef = Ref<CharacterDefinition>;

}  // namespace tarni
