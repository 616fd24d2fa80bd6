// Module-internal lookups the solver makes per node and frame: they read this module's own
// classes directly instead of through virtual calls and new references, and fall back to the
// interfaces for objects of other classes.
#pragma once

#include <cstddef>
#include <typeinfo>

#include "companion.h"
#include "tarni/characterassociation.h"
#include "tarni/characterbodypart.h"
#include "tarni/characterbodypartsolversetting.h"
#include "tarni/characterpose.h"
#include "tarni/charactersolverconfiguration.h"
#include "tarni/hashmap.h"

namespace tarni::ca {

// The first element of `nodes`, in array order, whose Uuid equals `id` (an empty element counts
// as having the empty Uuid), or null when none does: GetNodeTransformByID's rule. The pointer is
// valid while the array is neither changed nor released.
const CharacterNodeTransformRef* FindFirstNode(const BaseArray<CharacterNodeTransformRef>& nodes,
                                               const Uuid& id) noexcept;

namespace detail {
// This module's own node class, and where its Uuid lies from the CharacterNodeTransform part of
// such a node: what NodeUuidOf reads inline.
extern const std::type_info& kOwnNodeType;
extern const std::ptrdiff_t kOwnNodeUuidOffset;
// NodeUuidOf for nodes of other classes and null.
const Uuid& OtherNodeUuidOf(const CharacterNodeTransform* node) noexcept;
// Where the kept matrix of the parent global matrix lies in such a node (KeptParentDerivedOf).
extern const std::ptrdiff_t kOwnNodeParentDerivedOffset;
}  // namespace detail

// The slot in which a node of this module's class keeps a matrix derived from its parent global
// matrix (the solver keeps the inverse there), or null for nodes of other classes and null.
// Inline: the solver asks for every target node and frame.
inline const KeptMatrix* KeptParentDerivedOf(const CharacterNodeTransform* node) noexcept {
  // The class is final: an equal type is exactly this class.
  if (node != nullptr && typeid(*node) == detail::kOwnNodeType)
    return reinterpret_cast<const KeptMatrix*>(reinterpret_cast<const char*>(node) +
                                               detail::kOwnNodeParentDerivedOffset);
  return nullptr;
}

// The Uuid of `node` as GetUuid gives it, or the empty Uuid for a null node; this module's own
// node class is read without the virtual call. Inline: the frame loops ask for every node's Uuid.
inline const Uuid& NodeUuidOf(const CharacterNodeTransform* node) noexcept {
  // The class is final: an equal type is exactly this class.
  if (node != nullptr && typeid(*node) == detail::kOwnNodeType)
    return *reinterpret_cast<const Uuid*>(reinterpret_cast<const char*>(node) +
                                          detail::kOwnNodeUuidOffset);
  return detail::OtherNodeUuidOf(node);
}

// A first-match index over a node array: for each Uuid value that the array holds, the lowest
// index holding it (an empty element holds the empty Uuid). It keeps no references; it stays valid
// while the array it was made from is neither changed nor released, and it remembers that array's
// storage and count, so an array that has since grown or moved is scanned instead.
class NodeIndex;

// Poses of this module's class with at least this many nodes make an index at their first lookup;
// below, a scan costs less than making the index.
inline constexpr Int kIndexedNodeCount = 8;

// A new index over `nodes`, or null when its memory cannot be had (the lookups then scan).
NodeIndex* MakeNodeIndex(const BaseArray<CharacterNodeTransformRef>& nodes) noexcept;
// A copy of `index` for `nodes`, an array holding the same Uuids in the same order as the array
// `index` was made from; null when the memory cannot be had or the counts differ.
NodeIndex* CopyNodeIndex(const NodeIndex& index,
                         const BaseArray<CharacterNodeTransformRef>& nodes) noexcept;
// Frees an index from MakeNodeIndex or CopyNodeIndex; null is ignored.
void DeleteNodeIndex(NodeIndex* index) noexcept;

// FindFirstNode's result, through `index` when it is not null and still fits `nodes`.
const CharacterNodeTransformRef* FindFirstNode(const BaseArray<CharacterNodeTransformRef>& nodes,
                                               const NodeIndex* index, const Uuid& id) noexcept;

// The first node of `pose` whose Uuid equals `id`, or null: GetNodeTransformByID's rule without
// the new reference. Poses of this module's class keep an index for it, made at the first lookup
// of a pose large enough to need one. A pose of another class is searched through its array: with
// `scratch`, an index of that array is made there at the first lookup (the caller frees it with
// DeleteNodeIndex, and keeps the pose unchanged meanwhile); without, the array is scanned. The
// pointer is valid while the pose is neither changed nor released.
const CharacterNodeTransformRef* FindFirstPoseNode(const CharacterPose& pose, const Uuid& id,
                                                   NodeIndex** scratch = nullptr) noexcept;

// The Uuid GetAssociatedUuid(key) gives, without copying it: for this module's own association
// class a pointer into the table, valid while the association is neither changed nor released;
// for other classes into `holder`. Fails exactly as GetAssociatedUuid does.
Result<const Uuid*> PeekAssociatedUuid(const CharacterAssociation& association, const Uuid& key,
                                       Uuid& holder) noexcept;

// The Uuid table of this module's own association class (both directions), or null for
// associations of other classes. A key found there is what GetAssociatedUuid gives; a miss is
// reported by PeekAssociatedUuid. Valid while the association is neither changed nor released.
using UuidAssociationTable = HashMap<Uuid, Uuid>;
const UuidAssociationTable* OwnUuidAssociations(const CharacterAssociation& association) noexcept;

// The companion kept with `association` (see character/companion.h), and attaching one, as for
// poses (PeekPoseCompanion, AttachPoseCompanion): null for associations of other classes, which
// keep none. An association keeps its companion until it is released, whatever changes it, so the
// companion's maker checks on each use that it still fits.
const Companion* PeekAssociationCompanion(const CharacterAssociation& association) noexcept;
const Companion* AttachAssociationCompanion(const CharacterAssociation& association,
                                            Companion* companion) noexcept;

// The setting GetBodyPartSetting(identifier) gives, or null when there is none, without taking a
// reference: for this module's own configuration class the pointer is valid while the
// configuration is neither changed nor released; for other classes `holder` keeps it alive.
const CharacterBodyPartSolverSetting* PeekBodyPartSetting(
    const CharacterSolverConfiguration& config, const InternedId& identifier,
    CharacterBodyPartSolverSettingRef& holder) noexcept;

// The settings table of this module's own configuration class, keyed by body-part identifier, or
// null for configurations of other classes (which PeekBodyPartSetting serves). Valid while the
// configuration is neither changed nor released; a walk up the body parts resolves it once.
using BodyPartSettingTable = HashMap<InternedId, CharacterBodyPartSolverSettingRef>;
const BodyPartSettingTable* OwnBodyPartSettings(
    const CharacterSolverConfiguration& config) noexcept;

// What GetCumulatedWeight reads of one body part's setting: GetBodyPartWeight, and whether the
// walk up the parents ends there (GetSettingValue(NOPARENTWEIGHT)). This module's own setting class
// is read without the virtual calls.
struct BodyPartWeight {
  Float64 weight;
  bool last;
};
BodyPartWeight BodyPartWeightOf(const CharacterBodyPartSolverSetting& setting) noexcept;

// What GetCumulatedWeight reads of one body part: GetIdentifier, and the parent as a body part
// (null at the root, or when the parent is not a body part). This module's own body-part class is
// read without the virtual calls.
struct BodyPartLink {
  const InternedId* identifier;
  const CharacterBodyPart* parent;
};
BodyPartLink BodyPartLinkOf(const CharacterBodyPart& part) noexcept;

}  // namespace tarni::ca
