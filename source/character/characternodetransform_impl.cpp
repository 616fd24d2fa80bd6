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

  void SetGlobalMatrix(const Matrix& matrix) noexcept override { _globalMat = matrix; }
  const Matrix& GetGlobalMatrix() const noexcept override { return _globalMat; }
  void SetParentGlobalMatrix(const Matrix& matrix) noexcept override { _parentGlobalMat = matrix; }
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
    _preMultiplyMat = other->_preMultiplyMat;
    return OK;
  }

  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  // The node-info members, then "_globalMat", "_parentGlobalMat", "_preMultiplyMat".
  static Result<void> Describe(Describer& describer, CharacterNodeTransformImpl* self) noexcept {
    TARNI_TRY(DescribeNodeInfo(describer, self));
    TARNI_TRY(describer.Member(
        {"_globalMat", types::kMatrix, kDescribeNone, {}, self ? &self->_globalMat : nullptr}));
    TARNI_TRY(describer.Member({"_parentGlobalMat", types::kMatrix, kDescribeNone, {},
                                self ? &self->_parentGlobalMat : nullptr}));
    return describer.Member({"_preMultiplyMat", types::kMatrix, kDescribeNone, {},
                             self ? &self->_preMultiplyMat : nullptr});
  }

 private:
  Matrix _globalMat;
  Matrix _parentGlobalMat;
  Matrix _preMultiplyMat;
};

constexpr Id kInterfaces[] = {CharacterNodeTransform::kInterfaceId,
                              CharacterNodeInfo::kInterfaceId};
constexpr Id kBases[] = {CharacterNodeInfo::kClassId};
const StaticFunction kStatics[] = {
    {"CreateNodeTransform", reinterpret_cast<void (*)()>(&CreateNodeTransform)},
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterNodeTransformImpl>)},
};

}  // namespace

const CharacterNodeTransformRef* FindFirstNode(const BaseArray<CharacterNodeTransformRef>& nodes,
                                               const Uuid& id) noexcept {
  static const Uuid kEmpty;
  for (const CharacterNodeTransformRef& node : nodes) {
    const CharacterNodeTransform* element = node.Get();
    // The class is final: an equal type is exactly this class, whose Uuid is read without the
    // virtual call.
    const Uuid& uuid = element == nullptr ? kEmpty
                       : typeid(*element) == typeid(CharacterNodeTransformImpl)
                           ? static_cast<const CharacterNodeTransformImpl*>(element)
                                 ->NodeInfoComponent<CharacterNodeTransform>::GetUuid()
                           : element->GetUuid();
    if (uuid == id) return &node;
  }
  return nullptr;
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

Result<CharacterNodeTransformRef> CopyNode(const CharacterNodeTransformRef& node) noexcept {
  const CharacterNodeTransformImpl* own = OwnNode(node);
  if (own == nullptr) return CharacterNodeTransformRef::WritableCopyOf(node);
  return NewNode(*own);
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
