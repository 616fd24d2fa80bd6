// CharacterPose: the state of a whole character at one moment, an ordered array of node
// transforms, one per node. Rest poses of a character definition are poses, and the solver reads
// and writes them. The pose does no math: it stores, counts, finds by Uuid and prints its nodes.
#pragma once

#include "tarni/array.h"
#include "tarni/characternodetransform.h"

namespace tarni {

class CharacterPose : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.characterpose"};
  static constexpr Id kClassId{"net.tarni.animation.class.characterpose"};
  using Extends = InterfaceList<>;

  // Replaces the whole array by a copy of `source`, taking one more reference on every element
  // (no node transform is cloned; empty references are kept as they are). Passing the pose's own
  // array (GetNodeTransformArray) changes nothing. Fails only with the out-of-memory error, and
  // then leaves the pose empty, never partly filled.
  virtual Result<void> SetNodeTransformArray(
      const BaseArray<CharacterNodeTransformRef>& source) noexcept = 0;
  // The stored array itself (not a copy), in the caller's order; valid while the pose lives and
  // is not changed.
  virtual const BaseArray<CharacterNodeTransformRef>& GetNodeTransformArray() const noexcept = 0;
  // The number of elements, empty references included.
  virtual Int GetNodeTransformCount() const noexcept = 0;
  // The first element, in array order, whose Uuid equals `id` (an empty element counts as having
  // the empty Uuid), as a new shared reference. No match gives an empty reference, not an error:
  // callers decide what a missing node means. Never fails.
  virtual Result<CharacterNodeTransformRef> GetNodeTransformByID(const Uuid& id) const noexcept = 0;
  // ToString (the object's): "Node Transform :\n{" then each element's own text (an empty one as
  // "nullptr"), consecutive ones separated by "," alone, then "}" with no line feed after it.
};

// Poses are held through copy-on-write references.
using CharacterPoseRef = CowRef<CharacterPose>;

}  // namespace tarni
