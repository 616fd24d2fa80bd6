// CharacterTree: one node of a character's skeleton hierarchy. It carries the node's identity
// (CharacterNodeInfo), a flag telling whether the node has a transform in the character's poses,
// and, as a hierarchy object, its parent and its ordered children.
#pragma once

#include "tarni/characternodeinfo.h"
#include "tarni/hierarchy.h"

namespace tarni {

// Tree nodes are held through plain shared references: a setter changes the one object every
// holder sees, and a parent owns its children.
class CharacterTree : public virtual CharacterNodeInfo, public virtual HierarchyObject {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.charactertree"};
  static constexpr Id kClassId{"net.tarni.animation.class.charactertree"};
  using Extends = InterfaceList<CharacterNodeInfo, HierarchyObject>;

  // The transform-node flag; false for a fresh node.
  virtual bool IsTransformNode() const noexcept = 0;
  // Stores the flag. Never fails.
  virtual void SetTransformNode(bool isTransformNode) noexcept = 0;
  // Counts the nodes of the sub-hierarchy rooted at this node (this node, its children, their
  // children, ...; never ancestors or siblings), or only its transform nodes when
  // `transformNodesOnly`. The name is misspelled deliberately: callers bind to it as it is.
  // Fails with the first error of the walk: an error of GetChildren, or the null-reference error
  // when the sub-hierarchy holds a child that is not a character tree node, whatever the flag.
  virtual Result<Int> GetHiearchyCount(bool transformNodesOnly) const noexcept = 0;
  // ToString (the object's, also asked through CharacterNodeInfo): the node-info lines, then
  // "Is Transform Node : " "true"/"false" "\n". Children are not printed.
};

using CharacterTreeRef = Ref<CharacterTree>;

// Creates a tree node by class id, then SetUuid(uuid), SetName(name) and
// SetTransformNode(isTransformNode). Returns the new node or the first error (class not
// resolvable, or no memory for the instance: the null-reference error); on error no node is
// returned.
inline Result<CharacterTreeRef> CreateTree(const Uuid& uuid, const String& name,
                                           bool isTransformNode) noexcept {
  static constinit ClassHandle handle(CharacterTree::kClassId);
  CharacterTreeRef tree = TARNI_TRY(handle.Create<CharacterTree>());
  TARNI_TRY(tree->SetUuid(uuid));
  TARNI_TRY(tree->SetName(name));
  tree->SetTransformNode(isTransformNode);
  return tree;
}

}  // namespace tarni
