#include <atomic>
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
  CharacterPoseImpl() noexcept = default;
  ~CharacterPoseImpl() override { DropDerivedData(); }

  Result<void> SetNodeTransformArray(
      const BaseArray<CharacterNodeTransformRef>& source) noexcept override {
    DropDerivedData();
    return ReplaceList(_nodeTransforms, source);
  }
  const BaseArray<CharacterNodeTransformRef>& GetNodeTransformArray() const noexcept override {
    return _nodeTransforms;
  }
  Int GetNodeTransformCount() const noexcept override { return _nodeTransforms.GetCount(); }

  Result<CharacterNodeTransformRef> GetNodeTransformByID(const Uuid& id) const noexcept override {
    // An empty slot stands for a node whose id is the empty Uuid, so looking up the empty id can
    // hit it; Uuid equality covers both shared id data and equal 128-bit values.
    const CharacterNodeTransformRef* found = FindFirstNode(_nodeTransforms, Index(), id);
    if (found == nullptr) return CharacterNodeTransformRef();
    return *found;
  }

  // The first-match index of the node array, made at the first lookup once the pose has
  // kIndexedNodeCount nodes, or null (the lookups then scan). Lookups run on many threads at once
  // on a shared rest pose: the first index published wins and the others are dropped. Every change
  // of the array drops the index; those run on a pose nobody else reads (copy-on-write).
  const NodeIndex* Index() const noexcept {
    NodeIndex* index = _index.load(std::memory_order_acquire);
    if (index != nullptr || _nodeTransforms.GetCount() < kIndexedNodeCount) return index;
    NodeIndex* made = MakeNodeIndex(_nodeTransforms);
    if (made == nullptr) return nullptr;
    if (_index.compare_exchange_strong(index, made, std::memory_order_acq_rel,
                                       std::memory_order_acquire))
      return made;
    DeleteNodeIndex(made);
    return index;
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

  // The attached companion (see AttachPoseCompanion).
  const CompanionSlot& KeptCompanion() const noexcept { return _companion; }

  // Starts the index with a copy of `sameUuids` (see CopyPoseWithNodes); the pose is new and
  // nobody else reads it yet.
  void StartIndexFrom(const NodeIndex& sameUuids) noexcept {
    _index.store(CopyNodeIndex(sameUuids, _nodeTransforms), std::memory_order_release);
  }

  // Takes over `nodes` as the whole array (see CopyPoseWithNodes).
  void TakeNodeTransformArray(BaseArray<CharacterNodeTransformRef>&& nodes) noexcept {
    DropDerivedData();
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
  // Drops the index and the companion: both are derived from the array.
  void DropDerivedData() noexcept {
    DeleteNodeIndex(_index.exchange(nullptr, std::memory_order_acq_rel));
    _companion.Drop();
  }

  BaseArray<CharacterNodeTransformRef> _nodeTransforms;
  // Derived from _nodeTransforms, never copied; the index also checks that the array it was made
  // from still has the same storage and count, which covers an array filled through DescribeIO's
  // address while a stored pose is read in (elements replaced in place there are not seen: that
  // address is not for changing a pose in use).
  mutable std::atomic<NodeIndex*> _index{nullptr};
  CompanionSlot _companion;
};

constexpr Id kInterfaces[] = {CharacterPose::kInterfaceId};
const StaticFunction kStatics[] = {
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterPoseImpl>)},
};

}  // namespace

const CharacterNodeTransformRef* FindFirstPoseNode(const CharacterPose& pose, const Uuid& id,
                                                   NodeIndex** scratch) noexcept {
  // The class is final: an equal type is exactly this class.
  if (typeid(pose) == typeid(CharacterPoseImpl)) {
    const auto& own = static_cast<const CharacterPoseImpl&>(pose);
    return FindFirstNode(own.GetNodeTransformArray(), own.Index(), id);
  }
  const BaseArray<CharacterNodeTransformRef>& nodes = pose.GetNodeTransformArray();
  if (scratch == nullptr) return FindFirstNode(nodes, id);
  if (*scratch == nullptr) *scratch = MakeNodeIndex(nodes);
  return FindFirstNode(nodes, *scratch, id);
}

const Companion* PeekPoseCompanion(const CharacterPose& pose) noexcept {
  if (typeid(pose) != typeid(CharacterPoseImpl)) return nullptr;
  return static_cast<const CharacterPoseImpl&>(pose).KeptCompanion().Peek();
}

const Companion* AttachPoseCompanion(const CharacterPose& pose, Companion* companion) noexcept {
  if (typeid(pose) != typeid(CharacterPoseImpl)) return nullptr;
  return static_cast<const CharacterPoseImpl&>(pose).KeptCompanion().Attach(companion);
}

Result<CharacterPoseRef> CopyPoseWithNodes(const CharacterPoseRef& pose,
                                           BaseArray<CharacterNodeTransformRef>&& nodes,
                                           const NodeIndex* sameUuids) noexcept {
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
  if (sameUuids != nullptr) fresh->StartIndexFrom(*sameUuids);
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
