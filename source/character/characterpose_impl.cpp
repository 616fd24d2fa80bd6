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
    for (const CharacterNodeTransformRef& node : _nodeTransforms)
      if (node ? id == node->GetUuid() : id == Uuid()) return node;
    return CharacterNodeTransformRef();
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

const ClassRecord kCharacterPoseClass{CharacterPose::kClassId,
                                      "CharacterPoseImpl",
                                      "characterpose_impl",
                                      &CreateInstance<CharacterPoseImpl>,
                                      &DescribeClass<CharacterPoseImpl>,
                                      {},
                                      kInterfaces,
                                      kStatics};

}  // namespace tarni::ca
