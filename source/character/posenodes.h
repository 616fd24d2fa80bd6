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

// A writable copy of `node` whose global matrix is `global`: what WritableCopyOf followed by
// SetGlobalMatrix(global) gives. For this module's own node class the copy is made with the new
// matrix at once. Fails with WritableCopyOf's errors.
Result<CharacterNodeTransformRef> CopyNodeWithGlobal(const CharacterNodeTransformRef& node,
                                                     const Matrix& global) noexcept;

// Data that a frame loop derives once from a pose's nodes and keeps with the pose, such as the
// solver's inverses of rest matrices, so that later frames read it instead of computing it again.
// The pose owns an attached companion and destroys it through `destroy` when its node array is
// replaced or the pose is released; the companion holds no references. Its maker checks on each
// use that it still fits the pose's array (storage, count and node objects), since DescribeIO
// hands the array out for writing.
struct PoseCompanion {
  void (*destroy)(PoseCompanion* companion) noexcept;
};

// The companion attached to `pose`, or null; always null for poses of other classes.
const PoseCompanion* PeekPoseCompanion(const CharacterPose& pose) noexcept;

// Attaches `companion`, made from `pose` as it is now, and returns it; its ownership passes to the
// pose. Several threads may race to attach one to a shared pose: the first one wins, a later one
// is destroyed and the winner returned. A pose of another class keeps no companion: null is
// returned and the caller keeps `companion`.
const PoseCompanion* AttachPoseCompanion(const CharacterPose& pose,
                                         PoseCompanion* companion) noexcept;

// A writable copy of `node` whose Uuid is `uuid`: what WritableCopyOf followed by SetUuid(uuid)
// gives. For this module's own node class the copy takes the new Uuid at once rather than sharing
// the old one first. Fails with WritableCopyOf's errors, or SetUuid's for nodes of other classes.
Result<CharacterNodeTransformRef> CopyNodeWithUuid(const CharacterNodeTransformRef& node,
                                                   const Uuid& uuid) noexcept;

}  // namespace tarni::ca
