#include <cstdint>
#include <cstring>
#include <new>
#include <typeinfo>

#include "character/lookups.h"
#include "character/nodeinfocomponent.h"
#include "character/posenodes.h"
#include "module/units.h"
#include "tarni/characternodetransform.h"

namespace tarni::ca {
namespace {

class CharacterNodeTransformImpl final : public NodeInfoComponent<CharacterNodeTransform> {
  TARNI_IMPLEMENTS(CharacterNodeTransformImpl, CharacterNodeTransform)
 public:
  // The copy constructor copies the matrices and shares the node-info fields, as CopyFrom does.
  static constexpr bool kCloneByCopyConstructor = true;
  CharacterNodeTransformImpl() noexcept = default;
  CharacterNodeTransformImpl(const CharacterNodeTransformImpl&) noexcept = default;
  // The copy under another Uuid that CopyNodeWithUuid makes.
  CharacterNodeTransformImpl(const CharacterNodeTransformImpl& source, const Uuid& uuid) noexcept
      : NodeInfoComponent(source, uuid),
        _globalMat(source._globalMat),
        _parentGlobalMat(source._parentGlobalMat),
        _preMultiplyMat(source._preMultiplyMat) {}
  // The copy under another global matrix that CopyNodeWithGlobal makes.
  CharacterNodeTransformImpl(const CharacterNodeTransformImpl& source,
                             const Matrix& global) noexcept
      : NodeInfoComponent(source),
        _globalMat(global),
        _parentGlobalMat(source._parentGlobalMat),
        _preMultiplyMat(source._preMultiplyMat) {}

  void SetGlobalMatrix(const Matrix& matrix) noexcept override { _globalMat = matrix; }
  const Matrix& GetGlobalMatrix() const noexcept override { return _globalMat; }
  void SetParentGlobalMatrix(const Matrix& matrix) noexcept override {
    _parentGlobalMat = matrix;
    _parentDerived.Clear();
  }
  const Matrix& GetParentGlobalMatrix() const noexcept override { return _parentGlobalMat; }
  void SetPreMultiplyMatrix(const Matrix& matrix) noexcept override { _preMultiplyMat = matrix; }
  const Matrix& GetPreMultiplyMatrix() const noexcept override { return _preMultiplyMat; }

  // Also the text asked through the CharacterNodeInfo interface: one virtual serves both.
  String ToString(const FormatStatement* format = nullptr) const noexcept override {
    TextBuilder out;
    AppendNodeInfoText(out, format);
    out.Append("Global Matrix :\n");
    AppendMatrixText(out, _globalMat, format);
    out.Append("\nParent Global Matrix :\n");
    AppendMatrixText(out, _parentGlobalMat, format);
    out.Append("\nPre-Multiply Matrix :\n");
    AppendMatrixText(out, _preMultiplyMat, format);
    out.Append('\n');
    return out.ToString();
  }

  // A clone copies the matrices and shares the node-info fields.
  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CharacterNodeTransformImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    CopyNodeInfoFrom(*other);
    _globalMat = other->_globalMat;
    _parentGlobalMat = other->_parentGlobalMat;
    _parentDerived.Clear();
    _preMultiplyMat = other->_preMultiplyMat;
    return OK;
  }

  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  // The node-info members, then "_globalMat", "_parentGlobalMat", "_preMultiplyMat".
  static Result<void> Describe(Describer& describer, CharacterNodeTransformImpl* self) noexcept {
    // The describer may write the parent global matrix.
    if (self != nullptr) self->_parentDerived.Clear();
    TARNI_TRY(DescribeNodeInfo(describer, self));
    TARNI_TRY(describer.Member(
        {"_globalMat", types::kMatrix, kDescribeNone, {}, self ? &self->_globalMat : nullptr}));
    TARNI_TRY(describer.Member({"_parentGlobalMat",
                                types::kMatrix,
                                kDescribeNone,
                                {},
                                self ? &self->_parentGlobalMat : nullptr}));
    return describer.Member({"_preMultiplyMat",
                             types::kMatrix,
                             kDescribeNone,
                             {},
                             self ? &self->_preMultiplyMat : nullptr});
  }

 private:
  Matrix _globalMat;
  Matrix _parentGlobalMat;
  Matrix _preMultiplyMat;
  // A matrix derived from _parentGlobalMat (the solver keeps its inverse here).
  KeptMatrix _parentDerived;

  friend std::ptrdiff_t MeasureParentDerivedOffset() noexcept;
};

constexpr Id kInterfaces[] = {CharacterNodeTransform::kInterfaceId,
                              CharacterNodeInfo::kInterfaceId};
constexpr Id kBases[] = {CharacterNodeInfo::kClassId};
const StaticFunction kStatics[] = {
    {"CreateNodeTransform", reinterpret_cast<void (*)()>(&CreateNodeTransform)},
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterNodeTransformImpl>)},
};

}  // namespace

namespace {
constinit const Uuid kEmptyUuid{};

// Measured on a node of the class, so that no layout rule of the language has to cover a class with
// virtual bases.
std::ptrdiff_t MeasureUuidOffset() noexcept {
  const CharacterNodeTransformImpl probe;
  const CharacterNodeTransform& node = probe;
  return reinterpret_cast<const char*>(
             &probe.NodeInfoComponent<CharacterNodeTransform>::GetUuid()) -
         reinterpret_cast<const char*>(&node);
}
std::ptrdiff_t MeasureParentDerivedOffset() noexcept {
  const CharacterNodeTransformImpl probe;
  const CharacterNodeTransform& node = probe;
  return reinterpret_cast<const char*>(&probe._parentDerived) -
         reinterpret_cast<const char*>(&node);
}
}  // namespace

namespace detail {
const std::type_info& kOwnNodeType = typeid(CharacterNodeTransformImpl);
const std::ptrdiff_t kOwnNodeUuidOffset = MeasureUuidOffset();
const std::ptrdiff_t kOwnNodeParentDerivedOffset = MeasureParentDerivedOffset();

const Uuid& OtherNodeUuidOf(const CharacterNodeTransform* node) noexcept {
  return node == nullptr ? kEmptyUuid : node->GetUuid();
}
}  // namespace detail

const CharacterNodeTransformRef* FindFirstNode(const BaseArray<CharacterNodeTransformRef>& nodes,
                                               const Uuid& id) noexcept {
  for (const CharacterNodeTransformRef& node : nodes) {
    if (NodeUuidOf(node.Get()) == id) return &node;
  }
  return nullptr;
}

// An open-addressed table of element indices, 32-bit slots following the header in one block;
// each Uuid value has one slot, holding the lowest index with that value. Keys are read from the
// array's nodes, so the index holds no Uuid (and no reference) of its own.
class NodeIndex {
 public:
  const CharacterNodeTransformRef* storage;
  Int count;
  Int mask;

  std::int32_t* Slots() noexcept { return reinterpret_cast<std::int32_t*>(this + 1); }
  const std::int32_t* Slots() const noexcept {
    return reinterpret_cast<const std::int32_t*>(this + 1);
  }
  Int SlotOf(const Uuid& key) const noexcept { return static_cast<Int>(key.GetHashCode()) & mask; }
  bool Fits(const BaseArray<CharacterNodeTransformRef>& nodes) const noexcept {
    return storage == nodes.GetFirst() && count == nodes.GetCount();
  }
};
static_assert(alignof(NodeIndex) >= alignof(std::int32_t));

NodeIndex* MakeNodeIndex(const BaseArray<CharacterNodeTransformRef>& nodes) noexcept {
  const Int count = nodes.GetCount();
  // At most half the slots are used, so a probe ends soon at a free one.
  if (count > (Int{1} << 28)) return nullptr;
  Int slotCount = 16;
  while (slotCount < 2 * count) slotCount *= 2;
  void* memory =
      Allocate(sizeof(NodeIndex) + static_cast<std::size_t>(slotCount) * sizeof(std::int32_t));
  if (memory == nullptr) return nullptr;
  auto* index = ::new (memory) NodeIndex{nodes.GetFirst(), count, slotCount - 1};
  std::int32_t* slots = index->Slots();
  for (Int slot = 0; slot < slotCount; ++slot) slots[slot] = -1;
  for (Int i = 0; i < count; ++i) {
    const Uuid& key = NodeUuidOf(nodes[i].Get());
    Int slot = index->SlotOf(key);
    while (slots[slot] >= 0 && !(NodeUuidOf(nodes[slots[slot]].Get()) == key))
      slot = (slot + 1) & index->mask;
    // An earlier element with this value keeps the slot.
    if (slots[slot] < 0) slots[slot] = static_cast<std::int32_t>(i);
  }
  return index;
}

NodeIndex* CopyNodeIndex(const NodeIndex& index,
                         const BaseArray<CharacterNodeTransformRef>& nodes) noexcept {
  if (index.count != nodes.GetCount()) return nullptr;
  const std::size_t size =
      sizeof(NodeIndex) + static_cast<std::size_t>(index.mask + 1) * sizeof(std::int32_t);
  void* memory = Allocate(size);
  if (memory == nullptr) return nullptr;
  std::memcpy(memory, &index, size);
  auto* copy = static_cast<NodeIndex*>(memory);
  copy->storage = nodes.GetFirst();
  return copy;
}

void DeleteNodeIndex(NodeIndex* index) noexcept {
  if (index == nullptr) return;
  index->~NodeIndex();
  Free(index);
}

const CharacterNodeTransformRef* FindFirstNode(const BaseArray<CharacterNodeTransformRef>& nodes,
                                               const NodeIndex* index, const Uuid& id) noexcept {
  if (index == nullptr || !index->Fits(nodes)) return FindFirstNode(nodes, id);
  const std::int32_t* slots = index->Slots();
  for (Int slot = index->SlotOf(id);; slot = (slot + 1) & index->mask) {
    const std::int32_t at = slots[slot];
    if (at < 0) return nullptr;
    if (NodeUuidOf(nodes[at].Get()) == id) return &nodes[at];
  }
}

namespace {
// A node of this class, or null.
const CharacterNodeTransformImpl* OwnNode(const CharacterNodeTransformRef& node) noexcept {
  const CharacterNodeTransform* source = node.Get();
  // The class is final: an equal type is exactly this class.
  if (source == nullptr || typeid(*source) != typeid(CharacterNodeTransformImpl)) return nullptr;
  return static_cast<const CharacterNodeTransformImpl*>(source);
}

// A new node constructed from `arguments`, as the class's copy-construct makes one: every member
// is set by the constructor, so the memory is not cleared first, and Object's operator delete
// frees it. Skips the interface query and the result wrapping of Clone.
template <typename... Arguments>
Result<CharacterNodeTransformRef> NewNode(const CharacterNodeTransformImpl& source,
                                          const Arguments&... arguments) noexcept {
  void* memory = Allocate(sizeof(CharacterNodeTransformImpl));
  if (memory == nullptr) return CharacterNodeTransformRef::CloneFailedError();
  auto* copy = ::new (memory) CharacterNodeTransformImpl(source, arguments...);
  copy->SetClass(source.GetClass());
  return CharacterNodeTransformRef(
      Ref<CharacterNodeTransform>::AdoptNew(static_cast<CharacterNodeTransform*>(copy)));
}
}  // namespace

void KeptMatrix::Keep(MatrixFunction derive, const Matrix& value) const noexcept {
  void* memory = Allocate(sizeof(Kept));
  if (memory == nullptr) return;
  Kept* kept = ::new (memory) Kept{derive, value};
  Kept* expected = nullptr;
  if (!_kept.compare_exchange_strong(expected, kept, std::memory_order_acq_rel,
                                     std::memory_order_relaxed))
    Free(kept);
}

void KeptMatrix::Drop() noexcept {
  if (Kept* kept = _kept.exchange(nullptr, std::memory_order_relaxed)) Free(kept);
}

Result<CharacterNodeTransformRef> CopyNode(const CharacterNodeTransformRef& node) noexcept {
  const CharacterNodeTransformImpl* own = OwnNode(node);
  if (own == nullptr) return CharacterNodeTransformRef::WritableCopyOf(node);
  return NewNode(*own);
}

Result<CharacterNodeTransformRef> CopyNodeWithGlobal(const CharacterNodeTransformRef& node,
                                                     const Matrix& global) noexcept {
  const CharacterNodeTransformImpl* own = OwnNode(node);
  if (own == nullptr) {
    CharacterNodeTransformRef copy = TARNI_TRY(CharacterNodeTransformRef::WritableCopyOf(node));
    TARNI_TRY(copy.MakeWritable())->SetGlobalMatrix(global);
    return copy;
  }
  return NewNode(*own, global);
}

Result<CharacterNodeTransformRef> CopyNodeWithUuid(const CharacterNodeTransformRef& node,
                                                   const Uuid& uuid) noexcept {
  const CharacterNodeTransformImpl* own = OwnNode(node);
  if (own == nullptr) {
    CharacterNodeTransformRef copy = TARNI_TRY(CharacterNodeTransformRef::WritableCopyOf(node));
    TARNI_TRY(TARNI_TRY(copy.MakeWritable())->SetUuid(uuid));
    return copy;
  }
  return NewNode(*own, uuid);
}

const ClassRecord kCharacterNodeTransformClass{CharacterNodeTransform::kClassId,
                                               "CharacterNodeTransformImpl",
                                               "characternodetransform_impl",
                                               &CreateInstance<CharacterNodeTransformImpl>,
                                               &DescribeClass<CharacterNodeTransformImpl>,
                                               kBases,
                                               kInterfaces,
                                               kStatics};

}  // namespace tarni::ca
