// Module-internal shortcut for the solver and the retarget helper, which both build a new pose
// from an existing one on every frame.
#pragma once

#include "companion.h"
#include "tarni/characterpose.h"

namespace tarni::ca {

class NodeIndex;

// A writable copy of `pose` holding `nodes`, which it takes over: what copying the reference,
// MakeWritable and SetNodeTransformArray(nodes) give, so the caller's pose never changes. For this
// module's own pose class the copy is made without first copying the old array, and `nodes` moves
// in without touching a reference count. Fails with MakeWritable's errors, or with the
// out-of-memory error of SetNodeTransformArray for poses of other classes; `nodes` is then left
// as it was.
//
// `sameUuids`, when given, is an index made over an array holding the same Uuids in the same order
// as `nodes`: a pose of this module's class then starts with a copy of it instead of making its
// own at its first lookup (without one when the copy's memory cannot be had).
Result<CharacterPoseRef> CopyPoseWithNodes(const CharacterPoseRef& pose,
                                           BaseArray<CharacterNodeTransformRef>&& nodes,
                                           const NodeIndex* sameUuids = nullptr) noexcept;

// What CharacterNodeTransformRef::WritableCopyOf(node) gives; for this module's own node class
// without going through Clone's interface query.
Result<CharacterNodeTransformRef> CopyNode(const CharacterNodeTransformRef& node) noexcept;

// A writable copy of `node` whose global matrix is `global`: what WritableCopyOf followed by
// SetGlobalMatrix(global) gives. For this module's own node class the copy is made with the new
// matrix at once. Fails with WritableCopyOf's errors.
Result<CharacterNodeTransformRef> CopyNodeWithGlobal(const CharacterNodeTransformRef& node,
                                                     const Matrix& global) noexcept;

// The companion attached to `pose` (see character/companion.h), or null; always null for poses of
// other classes. A pose drops its companion when its node array is replaced; since DescribeIO hands
// the array out for writing, the companion's maker also checks on each use that it still fits the
// array (storage, count and node objects).
const Companion* PeekPoseCompanion(const CharacterPose& pose) noexcept;

// Attaches `companion`, made from `pose` as it is now, and returns it; its ownership passes to the
// pose. Several threads may race to attach one to a shared pose: the first one wins, a later one
// is destroyed and the winner returned. A pose of another class keeps no companion: null is
// returned and the caller keeps `companion`.
const Companion* AttachPoseCompanion(const CharacterPose& pose, Companion* companion) noexcept;

// A writable copy of `node` whose Uuid is `uuid`: what WritableCopyOf followed by SetUuid(uuid)
// gives. For this module's own node class the copy takes the new Uuid at once rather than sharing
// the old one first. Fails with WritableCopyOf's errors, or SetUuid's for nodes of other classes.
Result<CharacterNodeTransformRef> CopyNodeWithUuid(const CharacterNodeTransformRef& node,
                                                   const Uuid& uuid) noexcept;

}  // namespace tarni::ca
