// RetargetBaseHelper: the automatic steps that prepare a retarget: filling body parts with the
// skeleton nodes whose names match their keywords, associating a source and a target body-part
// hierarchy by identifier, renaming a pose's nodes from source to target identities, and counting
// how many of a body part's nodes a pose holds. It holds no data.
#pragma once

#include <cstdint>

#include "tarni/characterassociation.h"
#include "tarni/characterbodypart.h"
#include "tarni/characterpose.h"
#include "tarni/charactertree.h"
#include "tarni/classes.h"
#include "tarni/object.h"

namespace tarni {

// Counters that AssociateBodyPartsByIdentifier adds to (it never resets them), in this order.
struct RetargetAssociationStatistics {
  // Source body parts visited.
  std::int64_t visitedBodyParts = 0;
  // Source body parts for which a destination body part with the same identifier was associated.
  std::int64_t associatedBodyParts = 0;
  // Set at the end to sourceSkeletonNodes + sourceControllerNodes.
  std::int64_t sourceNodesTotal = 0;
  // Skeleton and controller counts of the associated source body parts.
  std::int64_t sourceSkeletonNodes = 0;
  std::int64_t sourceControllerNodes = 0;
  // Set at the end to destinationSkeletonNodes + destinationControllerNodes.
  std::int64_t destinationNodesTotal = 0;
  // Skeleton and controller counts of the matched destination body parts.
  std::int64_t destinationSkeletonNodes = 0;
  std::int64_t destinationControllerNodes = 0;
  // Sums of min(source count, destination count) over the associated body parts.
  std::int64_t associatedSkeletonPairs = 0;
  std::int64_t associatedControllerPairs = 0;
  // Set at the end to associatedSkeletonPairs + associatedControllerPairs.
  std::int64_t associatedPairsTotal = 0;
};

class RetargetBaseHelper : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.retargetbasehelper"};
  static constexpr Id kClassId{"net.tarni.animation.class.retargetbasehelper"};
  using Extends = InterfaceList<>;

  // Sets the skeleton of `bodyPart` and of each of its descendant body parts to the Uuids of the
  // nodes of `tree` (the node itself and its descendants, parents first) whose names match one of
  // that body part's keywords and none of its discard keywords. A body part without keywords gets
  // an empty skeleton. A node rejected by a discard keyword is left out, but its children are
  // still examined. A keyword matches a name when every part of it between "&&" separators occurs
  // in the name, ignoring letter case; a keyword without parts never matches.
  // Fails with the null-reference error for a null tree (when there are keywords) or body part,
  // the out-of-memory error, or the error of a body-part or tree operation. An error ends the
  // walk: body parts filled before it keep their new skeleton, those after it their old one, and
  // the one being filled keeps its old list, or is left empty when its new list could not be
  // stored (the list setters' rule).
  virtual Result<void> FillBodyPart(const CharacterTreeRef& tree,
                                    const CharacterBodyPartRef& bodyPart) const noexcept = 0;

  // A new association pairing each body part of the source hierarchy (`srcBodyPart` and its
  // descendants, parents first) with the first body part of the destination hierarchy that has
  // the same identifier: the identifiers, then the skeleton nodes by position (s[i] with d[i] for
  // i below the smaller count), then the controllers likewise. A body part whose pairing fails is
  // skipped (counted only as visited); such failures are not reported. `statistics` is added to.
  // Fails with "Illegal argument: Condition srcBodyPart && dstBodyPart not fulfilled. " for a
  // null argument, or when the association cannot be created or the hierarchy walked.
  virtual Result<CharacterAssociationRef> AssociateBodyPartsByIdentifier(
      const CharacterBodyPartRef& srcBodyPart, const CharacterBodyPartRef& dstBodyPart,
      RetargetAssociationStatistics& statistics) const noexcept = 0;

  // A copy of `pose` whose nodes carry the Uuids their own Uuids are associated with, in the same
  // order. The input pose and its nodes are not changed (copy-on-write). Stops at and returns the
  // first error, such as "No value associated to this Uuid" for a node without partner; a null
  // pose or element gives the null-reference error, and so does a null association once there is
  // a node to rename (a pose without nodes is copied without one) or a node or pose copy that
  // cannot be made; a full array gives the out-of-memory error. On failure no pose is returned.
  virtual Result<CharacterPoseRef> TranslateSrcToDestID(
      const CharacterAssociationRef& association, const CharacterPoseRef& pose) const noexcept = 0;

  // How many of the body part's skeleton nodes (FindSkeletonMatchingCount) or controllers
  // (FindControllerMatchingCount) the pose holds, counting repeated Uuids each time; with
  // `recursive`, over the body part's whole sub-hierarchy. A null body part has no nodes; a null
  // pose fails with the null-reference error.
  virtual Result<std::int64_t> FindSkeletonMatchingCount(const CharacterBodyPartRef& bodyPart,
                                                         const CharacterPoseRef& pose,
                                                         bool recursive) const noexcept = 0;
  virtual Result<std::int64_t> FindControllerMatchingCount(const CharacterBodyPartRef& bodyPart,
                                                           const CharacterPoseRef& pose,
                                                           bool recursive) const noexcept = 0;
};

// The helper holds no data; it is held through a plain shared reference.
using RetargetBaseHelperRef = Ref<RetargetBaseHelper>;

}  // namespace tarni
