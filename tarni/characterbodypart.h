// CharacterBodyPart: one named region of a character (an arm, the spine, ...): an identifier, the
// controller and skeleton nodes that belong to it (by Uuid), the keywords by which skeleton nodes
// are picked for it or rejected, five Boolean transfer settings and an attribute transfer mode.
// Body parts form a hierarchy: a body part's child body parts are its hierarchy children.
#pragma once

#include <cstdint>

#include "tarni/array.h"
#include "tarni/characternodeinfo.h"
#include "tarni/hierarchy.h"
#include "tarni/internedid.h"

namespace tarni {

// The bit index of a transfer setting in a body part's settings.
enum class BodyPartSettingFlag : std::uint32_t {
  SKELTRANSFERPOS = 0,         // transfer the position of the skeleton nodes
  SKELTRANSFERROT = 1,         // transfer their rotation (the only setting on by default)
  SKELTRANSFERSCALE = 2,       // transfer their scale
  EXPOSEINSOLVER = 3,          // expose the body part in the solver
  SKELTRANSFERATTRIBUTES = 4,  // transfer the attributes of the skeleton nodes
};

// How attributes are matched when they are transferred. A data type of the framework's registry,
// so its values print by member name.
enum class BODYPARTTRANSFERATTRIBUTEMODE : std::int32_t {
  BYID = 0,
  BYNAME = 1,
  BOTH = 2,
};

// The id of the BODYPARTTRANSFERATTRIBUTEMODE enumeration data type, which the body part's unit
// registers with the body-part class.
inline constexpr Id kBodyPartTransferAttributeModeTypeId{
    "net.tarni.animation.datatype.bodyparttransferattributemode"};

class CharacterBodyPart;
// Body parts are held through plain shared references: a setter changes the one object every
// holder sees, and a parent owns its children.
using CharacterBodyPartRef = Ref<CharacterBodyPart>;

// A body part carries two names, kept apart: the node-info name (CharacterNodeInfo::SetName, set
// by CreateBodyPart and compared by FindBodyPartByName) and its own `_name`, which ToString
// prints. `_name` has no setter in this interface; a host fills it through the member address
// that DescribeIO declares, as it does when reading a stored body part.
class CharacterBodyPart : public virtual CharacterNodeInfo, public virtual HierarchyObject {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.characterbodypart"};
  static constexpr Id kClassId{"net.tarni.animation.class.characterbodypart"};
  using Extends = InterfaceList<CharacterNodeInfo, HierarchyObject>;

  // Stores the identifier (the key of associations and solver settings). Never fails.
  virtual Result<void> SetIdentifier(const InternedId& identifier) noexcept = 0;
  // The stored identifier; empty for a body part made by class id.
  virtual const InternedId& GetIdentifier() const noexcept = 0;

  // The list setters replace the stored list by a copy of `list` (duplicates and order kept;
  // nothing checks that the nodes exist). Passing the stored list itself changes nothing. Fail
  // only with the out-of-memory error, which leaves the list empty.
  virtual Result<void> SetControllers(const BaseArray<Uuid>& list) noexcept = 0;
  // This body part's own controllers, without its children's; valid while it is not changed.
  virtual const BaseArray<Uuid>& GetControllers() const noexcept = 0;
  // The controllers of this body part and all its descendants, in depth-first pre-order (own list
  // first, then each child's subtree in child order); duplicates kept. Fails with the
  // out-of-memory error (no partial result), or with the null-reference error when the hierarchy
  // holds a child that is not a body part.
  virtual Result<BaseArray<Uuid>> GetHierarchyControllers() const noexcept = 0;
  // The number of own controllers, or of the whole subtree when `hierarchy`. Fails as
  // GetHierarchyControllers does for a foreign child, with a child's own error, or with the
  // out-of-memory error when the children cannot be listed.
  virtual Result<Int> GetControllersCount(bool hierarchy) const noexcept = 0;

  // Sets or clears one setting. The index is not range-checked, deliberately: callers pass the
  // named flags, and an index past the one stored word is ignored. Never fails.
  virtual Result<void> SetSettingValue(BodyPartSettingFlag flag, bool value) noexcept = 0;
  // One setting; an index past the stored word reads false.
  virtual bool GetSettingValue(BodyPartSettingFlag flag) const noexcept = 0;
  // Stores the mode; a value outside the enumeration is ignored. BYNAME for a fresh body part.
  virtual void SetAttributeTransferMode(BODYPARTTRANSFERATTRIBUTEMODE mode) noexcept = 0;
  // The stored mode.
  virtual BODYPARTTRANSFERATTRIBUTEMODE GetAttributeTransferMode() const noexcept = 0;

  // As SetControllers, for the skeleton nodes.
  virtual Result<void> SetSkeleton(const BaseArray<Uuid>& list) noexcept = 0;
  // This body part's own skeleton nodes.
  virtual const BaseArray<Uuid>& GetSkeleton() const noexcept = 0;
  // As GetHierarchyControllers, for the skeleton nodes.
  virtual Result<BaseArray<Uuid>> GetHierarchySkeleton() const noexcept = 0;
  // Empties the own skeleton list (its memory is released), and, when `hierarchy`, each child's
  // subtree in child order. A foreign child (null-reference error) or a child's error ends the
  // operation; children not reached by then keep their skeleton nodes. When the children cannot
  // be listed (out of memory), the own list is already empty and every child keeps its nodes.
  virtual Result<void> ClearSkeleton(bool hierarchy) noexcept = 0;
  // As GetControllersCount, for the skeleton nodes.
  virtual Result<Int> GetSkeletonCount(bool hierarchy) const noexcept = 0;

  // As SetControllers, for the keywords that pick skeleton nodes and those that reject them.
  virtual Result<void> SetSkeletonKeywords(const BaseArray<String>& list) noexcept = 0;
  virtual Result<void> SetSkeletonDiscardKeywords(const BaseArray<String>& list) noexcept = 0;
  // The own keyword lists; never fail.
  virtual const BaseArray<String>& GetSkeletonKeywords() const noexcept = 0;
  virtual const BaseArray<String>& GetSkeletonDiscardKeywords() const noexcept = 0;

  // The first body part in depth-first pre-order, this one first, whose identifier is `id` (the
  // same interned identifier, or equal non-empty texts). No match gives an empty reference, not
  // an error. Fails with the null-reference error for a child that is not a body part, or with
  // the out-of-memory error when the walk cannot list the children; nothing changes either way.
  virtual Result<CharacterBodyPartRef> FindBodyPartByID(const InternedId& id) const noexcept = 0;
  // As FindBodyPartByID, comparing the node-info name (GetName) with `name` character by
  // character; `_name` plays no part.
  virtual Result<CharacterBodyPartRef> FindBodyPartByName(const String& name) const noexcept = 0;

  // ToString (the object's): this body part alone, line by line: "Name : " _name, "Identifier : "
  // identifier, "Controllers (n) :" and "Skeleton Nodes (n) :" each followed by one tab-indented
  // Uuid per line, "Skeleton Keywords (n) :" and "Skeleton Discard Keywords (n) :" each followed
  // by one tab-indented keyword per line, then "_settings : SKELTRANSFERPOS" ... one line per flag
  // and "_attributeTransferMode", each label directly followed by its value with no separator
  // (deliberate: stored dumps are compared as they are). Every line ends with a line feed.
};

// Creates a body part by class id, sets its identifier, then its node-info name through
// CharacterNodeInfo::SetName (not `_name`). Returns the new body part or the first error: the
// null-reference error when the class cannot be resolved or no instance made, the out-of-memory
// error when its settings cannot be allocated; on error no body part is returned.
inline Result<CharacterBodyPartRef> CreateBodyPart(const InternedId& identifier,
                                                   const String& name) noexcept {
  static constinit ClassHandle handle(CharacterBodyPart::kClassId);
  CharacterBodyPartRef part = TARNI_TRY(handle.Create<CharacterBodyPart>());
  TARNI_TRY(part->SetIdentifier(identifier));
  TARNI_TRY(part->SetName(name));
  return part;
}

}  // namespace tarni
