// The hierarchy object: a parent and ordered children. A parent owns its children (shared
// references); a child knows its parent without owning it. Components that form trees (skeleton
// nodes, body parts) are built on it, and WalkHierarchy is the one depth-first walk they share.
#pragma once

#include <utility>

#include "tarni/array.h"
#include "tarni/object.h"

namespace tarni {

class HierarchyObject : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.interface.hierarchyobject"};
  static constexpr Id kClassId{"net.tarni.class.hierarchyobject"};
  using Extends = InterfaceList<>;

  // The parent, or null for a root. Not an owning reference.
  virtual HierarchyObject* GetParent() const noexcept = 0;
  virtual Int GetChildCount() const noexcept = 0;
  // The child at `index`, or null when out of range.
  virtual Ref<HierarchyObject> GetChild(Int index) const noexcept = 0;
  // The ordered children (a new array of references; fails only when memory runs out).
  virtual Result<BaseArray<Ref<HierarchyObject>>> GetChildren() const noexcept = 0;
  // Inserts `child` among the children at `index` (-1 or the count: last). The child must be
  // non-null, have no parent, and not be this object or one of its ancestors (illegal argument).
  // When memory runs out it fails with the out-of-memory error and nothing changes.
  virtual Result<void> InsertChild(const Ref<HierarchyObject>& child, Int index = -1) noexcept = 0;
  // Detaches this object from its parent and returns the reference the parent held (null for a
  // root). The children stay with this object.
  virtual Ref<HierarchyObject> Remove() noexcept = 0;

  // Internal link maintenance between hierarchy components; not for other callers.
  virtual void SetParentLink(HierarchyObject* parent) noexcept = 0;
  virtual Ref<HierarchyObject> DetachChild(const HierarchyObject* child) noexcept = 0;
};

// The hierarchy component, to be stacked under an interface that extends HierarchyObject.
// Copying (CopyHierarchyFrom) clones the source's whole sub-hierarchy; the copy is a new root.
template <typename Base>
class HierarchyComponent : public Base {
 public:
  ~HierarchyComponent() override {
    for (Ref<HierarchyObject>& child : _children) child->SetParentLink(nullptr);
  }

  HierarchyObject* GetParent() const noexcept override { return _parent; }
  Int GetChildCount() const noexcept override { return _children.GetCount(); }
  Ref<HierarchyObject> GetChild(Int index) const noexcept override {
    if (index < 0 || index >= _children.GetCount()) return nullptr;
    return _children[index];
  }
  Result<BaseArray<Ref<HierarchyObject>>> GetChildren() const noexcept override {
    BaseArray<Ref<HierarchyObject>> children;
    TARNI_TRY(children.CopyFrom(_children));
    return children;
  }
  Result<void> InsertChild(const Ref<HierarchyObject>& child, Int index = -1) noexcept override {
    if (!child) return IllegalArgumentError("Illegal argument: Condition child not fulfilled. ");
    if (child->GetParent() != nullptr)
      return IllegalArgumentError("Illegal argument: the child already has a parent.");
    for (const HierarchyObject* node = this; node != nullptr; node = node->GetParent())
      if (node == child.Get())
        return IllegalArgumentError("Illegal argument: a node cannot be its own descendant.");
    if (index < 0 || index > _children.GetCount()) index = _children.GetCount();
    TARNI_TRY(_children.Insert(index, child));
    child->SetParentLink(this);
    return OK;
  }
  Ref<HierarchyObject> Remove() noexcept override {
    if (_parent == nullptr) return nullptr;
    HierarchyObject* parent = _parent;
    _parent = nullptr;
    return parent->DetachChild(this);
  }
  void SetParentLink(HierarchyObject* parent) noexcept override { _parent = parent; }
  Ref<HierarchyObject> DetachChild(const HierarchyObject* child) noexcept override {
    for (Int i = 0; i < _children.GetCount(); ++i) {
      if (_children[i].Get() == child) {
        Ref<HierarchyObject> detached = std::move(_children[i]);
        _children.Erase(i);
        return detached;
      }
    }
    return nullptr;
  }

 protected:
  // Replaces this object's children by clones of `source`'s sub-hierarchy.
  Result<void> CopyHierarchyFrom(const HierarchyComponent& source) noexcept {
    if (&source == this) return OK;
    while (!_children.IsEmpty()) _children.GetLast()->Remove();
    for (const Ref<HierarchyObject>& child : source._children) {
      Ref<Object> clone = TARNI_TRY(child->Clone());
      Ref<HierarchyObject> typed = Cast<HierarchyObject>(clone);
      if (!typed) return NullReferenceError("Cloned child is not a hierarchy object.");
      TARNI_TRY(InsertChild(typed));
    }
    return OK;
  }

 private:
  HierarchyObject* _parent = nullptr;
  BaseArray<Ref<HierarchyObject>> _children;
};

namespace detail {
template <typename I, typename Visitor>
Result<bool> WalkChildren(const Ref<I>& node, Visitor& visitor, Int depth) noexcept {
  if (!node) return NullReferenceError("Null reference in hierarchy walk.");
  HierarchyObject* hierarchy = Cast<HierarchyObject>(const_cast<Object*>(node.ObjectOf()));
  if (hierarchy == nullptr) return NullReferenceError("Node is not a hierarchy object.");
  BaseArray<Ref<HierarchyObject>> children = TARNI_TRY(hierarchy->GetChildren());
  for (const Ref<HierarchyObject>& child : children) {
    Ref<I> typed = Cast<I>(child);
    if (!TARNI_TRY(visitor(typed, node.Get(), depth))) return false;
    if (!TARNI_TRY(WalkChildren(typed, visitor, depth + 1))) return false;
  }
  return true;
}
}  // namespace detail

// The depth-first, pre-order walk of `root`'s sub-hierarchy: the root first, then each child
// followed by its own sub-hierarchy, in child order. Each node is offered as interface I (an empty
// reference when a child lacks I) with its parent as I (null when there is none or it lacks I) and
// its depth (0 for the root). The visitor returns Result<bool>: true continues, false stops the
// whole walk, an error ends it and is returned. Walking the children of an empty node fails with
// the null-reference error. Returns whether the walk ran to its end.
template <typename I, typename Visitor>
Result<bool> WalkHierarchy(const Ref<I>& root, Visitor&& visitor) noexcept {
  I* parent = nullptr;
  if (root) {
    auto* hierarchy = Cast<HierarchyObject>(const_cast<Object*>(root.ObjectOf()));
    if (hierarchy != nullptr && hierarchy->GetParent() != nullptr)
      parent = Cast<I>(static_cast<Object*>(hierarchy->GetParent()));
  }
  if (!TARNI_TRY(visitor(root, parent, Int{0}))) return false;
  return detail::WalkChildren(root, visitor, 1);
}

}  // namespace tarni
