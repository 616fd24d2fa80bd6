#include <typeinfo>

#include "character/lookups.h"
#include "character/posenodes.h"
#include "module/units.h"
#include "tarni/characterpose.h"
#include "tarni/describe.h"

namespace tarni::ca {
namespace {

class CharacterPoseImpl final : public CharacterPose {
  TARNI_IMPLEMENTS(CharacterPoseImpl, CharacterPose)
 public:
  Result<void> SetNodeTransformArray(
      const BaseArray<CharacterNodeTransformRef>& source) noexcept override {
    return ReplaceList(_nodeTransforms, source);
  }
  const BaseArray<CharacterNodeTransformRef>& GetNodeTransformArray() const noexcept override {
    return _nodeTransforms;
  }
  Int GetNodeTransformCount() const noexcept override { return _nodeTransforms.GetCount(); }

  Result<CharacterNodeTransformRef> GetNodeTransformByID(const Uuid& id) const noexcept override {
    // An empty slot stands for a node whose id is the empty Uuid, so looking up the empty id can
    // hit it; Uuid equality covers both shared id data and equal 128-bit values.
    const CharacterNodeTransformRef* found = FindFirstNode(_nodeTransforms, id);
    return found ? *found : CharacterNodeTransformRef();
  }

  String ToString(const FormatStatement* format = nullptr) const noexcept override {
    TextBuilder out;
    out.Append("Node Transform :\n{");
    bool first = true;
    for (const CharacterNodeTransformRef& node : _nodeTransforms) {
      if (!first) out.Append(',');
      first = false;
      if (node)
        out.Append(node->ToString(format));
      else
        out.Append(kNullReferenceText);
    }
    out.Append('}');
    return out.ToString();
  }

  // Takes over `nodes` as the whole array (see CopyPoseWithNodes).
  void TakeNodeTransformArray(BaseArray<CharacterNodeTransformRef>&& nodes) noexcept {
    _nodeTransforms = std::move(nodes);
  }

  // A clone shares the elements exactly as SetNodeTransformArray does.
  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CharacterPoseImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    return SetNodeTransformArray(other->_nodeTransforms);
  }

  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  // One array member, "NodeTransform": the name has no leading underscore, deliberately, since
  // stored poses use it.
  static Result<void> Describe(Describer& describer, CharacterPoseImpl* self) noexcept {
    return describer.Member({"NodeTransform",
                             CharacterNodeTransform::kInterfaceId,
                             kDescribeArray,
                             {},
                             self ? &self->_nodeTransforms : nullptr});
  }

 private:
  BaseArray<CharacterNodeTransformRef> _nodeTransforms;
};

constexpr Id kInterfaces[] = {CharacterPose::kInterfaceId};
const StaticFunction kStatics[] = {
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterPoseImpl>)},
};

}  // namespace

Result<CharacterPoseRef> CopyPoseWithNodes(const CharacterPoseRef& pose,
                                           BaseArray<CharacterNodeTransformRef>&& nodes) noexcept {
  // The class is final: an equal type is exactly this class.
  const CharacterPose* shared = pose.Get();
  if (shared == nullptr || typeid(*shared) != typeid(CharacterPoseImpl)) {
    CharacterPoseRef copy = pose;
    TARNI_TRY(TARNI_TRY(copy.MakeWritable())->SetNodeTransformArray(nodes));
    return copy;
  }
  // The copy the shared pose's copy-construct would make, minus the array it would copy only to
  // have it replaced at once. The class keeps no other state.
  Ref<CharacterPoseImpl> fresh = Ref<CharacterPoseImpl>::AdoptNew(new CharacterPoseImpl());
  if (!fresh) return CharacterPoseRef::CloneFailedError();
  fresh->SetClass(shared->GetClass());
  TARNI_TRY(fresh->Init());
  fresh->TakeNodeTransformArray(std::move(nodes));
  return CharacterPoseRef(Ref<CharacterPose>(std::move(fresh)));
}

const ClassRecord kCharacterPoseClass{CharacterPose::kClassId,
                                      "CharacterPoseImpl",
                                      "characterpose_impl",
                                      &CreateInstance<CharacterPoseImpl>,
                                      &DescribeClass<CharacterPoseImpl>,
                                      {},
                                      kInterfaces,
                                      kStatics};

}  // namespace tarni::ca
