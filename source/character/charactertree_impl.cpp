#include <cstdint>

#include "character/nodeinfocomponent.h"
#include "module/units.h"
#include "tarni/charactertree.h"

namespace tarni::ca {
namespace {

class CharacterTreeImpl final : public HierarchyComponent<NodeInfoComponent<CharacterTree>> {
  TARNI_IMPLEMENTS(CharacterTreeImpl, CharacterTree)
 public:
  // Only the lowest bit of the flag byte counts, both when it is set and when it is read, so a
  // byte written through the described member address reads the same way.
  bool IsTransformNode() const noexcept override { return (_isTransformNode & 1u) != 0; }
  void SetTransformNode(bool isTransformNode) noexcept override {
    _isTransformNode = static_cast<std::uint8_t>(isTransformNode) & 1u;
  }

  Result<Int> GetHiearchyCount(bool transformNodesOnly) const noexcept override {
    Int count = 0;
    const CharacterTreeRef self(const_cast<CharacterTreeImpl*>(this));
    // A child of another class arrives as an empty node; the walk then fails when it asks for that
    // node's children, whatever the flag. Deliberate: such a tree is malformed.
    TARNI_TRY(WalkHierarchy(
        self, [&](const CharacterTreeRef& node, CharacterTree*, Int) noexcept -> Result<bool> {
          if (!transformNodesOnly || (node && node->IsTransformNode())) ++count;
          return true;
        }));
    return count;
  }

  // Also the text asked through the CharacterNodeInfo interface: one virtual serves both.
  String ToString(const FormatStatement* format = nullptr) const noexcept override {
    TextBuilder out;
    AppendNodeInfoText(out, format);
    out.Append("Is Transform Node : ");
    AppendBool(out, IsTransformNode());
    out.Append('\n');
    return out.ToString();
  }

  // Shares the node-info fields, clones the whole sub-hierarchy (the copy is a new root) and
  // copies the flag. A failed child clone returns its error; the node info is copied by then.
  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CharacterTreeImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    CopyNodeInfoFrom(*other);
    TARNI_TRY(CopyHierarchyFrom(*other));
    _isTransformNode = other->_isTransformNode;
    return OK;
  }

  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  // The node-info members, then the flag as "IsTransformNode" (no leading underscore: the flag's
  // own name, deliberately).
  static Result<void> Describe(Describer& describer, CharacterTreeImpl* self) noexcept {
    TARNI_TRY(DescribeNodeInfo(describer, self));
    return describer.Member({"IsTransformNode",
                             types::kBool,
                             kDescribeNone,
                             {},
                             self ? &self->_isTransformNode : nullptr});
  }

 private:
  // One byte, like the framework's Bool. No initialiser on purpose: objects are created in cleared
  // memory, so a fresh node is not a transform node.
  std::uint8_t _isTransformNode;
};

constexpr Id kInterfaces[] = {CharacterTree::kInterfaceId, CharacterNodeInfo::kInterfaceId,
                              HierarchyObject::kInterfaceId};
constexpr Id kBases[] = {HierarchyObject::kClassId, CharacterNodeInfo::kClassId};
const StaticFunction kStatics[] = {
    {"CreateTree", reinterpret_cast<void (*)()>(&CreateTree)},
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterTreeImpl>)},
};

}  // namespace

const ClassRecord kCharacterTreeClass{CharacterTree::kClassId,
                                      "CharacterTreeImpl",
                                      "charactertree_impl",
                                      &CreateInstance<CharacterTreeImpl>,
                                      &DescribeClass<CharacterTreeImpl>,
                                      kBases,
                                      kInterfaces,
                                      kStatics};

}  // namespace tarni::ca
