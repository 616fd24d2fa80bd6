// Module-internal shortcut for the solver and the retarget helper, which both build a new pose
// from an existing one on every frame.
#pragma once

#include "tarni/characterpose.h"

namespace tarni::ca {

// A writable copy of `pose` holding `nodes`, which it takes over: what copying the reference,
// MakeWritable and SetNodeTransformArray(nodes) give, so the caller's pose never changes. For this
// module's own pose class the copy is made without first copying the old array, and `nodes` moves
// in without touching a reference count. Fails with MakeWritable's errors, or with the
// out-of-memory error of SetNodeTransformArray for poses of other classes; `nodes` is then left
// as it was.
Result<CharacterPoseRef> CopyPoseWithNodes(const CharacterPoseRef& pose,
                                           BaseArray<CharacterNodeTransformRef>&& nodes) noexcept;

// What CharacterNodeTransformRef::WritableCopyOf(node) gives; for this module's own node class
// without going through Clone's interface query.
Result<CharacterNodeTransformRef> CopyNode(const CharacterNodeTransformRef& node) noexcept;

// A writable copy of `node` whose Uuid is `uuid`: what WritableCopyOf followed by SetUuid(uuid)
// gives. For this module's own node class the copy takes the new Uuid at once rather than sharing
// the old one first. Fails with WritableCopyOf's errors, or SetUuid's for nodes of other classes.
Result<CharacterNodeTransformRef> CopyNodeWithUuid(const CharacterNodeTransformRef& node,
                                                   const Uuid& uuid) noexcept;

}  // namespace tarni::ca
