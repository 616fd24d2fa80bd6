#include <cmath>

#include "character/lookups.h"
#include "character/posenodes.h"
#include "module/units.h"
#include "solver/quaternion.h"
#include "tarni/charactersolver.h"
#include "tarni/describe.h"
#include "tarni/hashmap.h"

namespace tarni::ca {
namespace {

// The matrices of a node, or the identity for a missing node.
constexpr Matrix kIdentity{};
const Matrix& GlobalOf(const CharacterNodeTransform* node) noexcept {
  return node ? node->GetGlobalMatrix() : kIdentity;
}
const Matrix& ParentGlobalOf(const CharacterNodeTransform* node) noexcept {
  return node ? node->GetParentGlobalMatrix() : kIdentity;
}

// The first-match lookup of a pose's nodes by Uuid, GetNodeTransformByID's rule: the first
// element, in array order, whose Uuid equals the key, an empty element counting as the empty Uuid.
// The extraction looks up every rest node in two poses; scanning per node made it quadratic in the
// node count, so each pose is indexed once per call instead. Poses of up to kInlineNodes nodes
// are indexed in place; a larger one whose index cannot get memory is scanned.
class FirstMatchIndex {
 public:
  explicit FirstMatchIndex(const CharacterPose& pose) noexcept
      : _nodes(pose.GetNodeTransformArray()) {
    const Int count = _nodes.GetCount();
    // The Uuid of each node is asked once: it is a virtual call, and the lookups compare keys.
    if (count <= kInlineNodes) {
      for (Int i = 0; i < count; ++i) _inlineKeys[i] = &NodeKeyOf(i);
      _keys = _inlineKeys;
    }
    Int slotCount = 2 * kInlineNodes;
    while (slotCount < 2 * count) slotCount *= 2;
    if (slotCount > 2 * kInlineNodes) {
      if (!_heapSlots.Resize(slotCount)) return;  // no index: Find scans
      _slots = _heapSlots.GetFirst();
    } else {
      _slots = _inlineSlots;
    }
    _mask = slotCount - 1;
    for (Int i = 0; i < slotCount; ++i) _slots[i] = -1;
    for (Int i = 0; i < count; ++i) {
      const Uuid& key = KeyOf(i);
      Int slot = SlotOf(key);
      while (_slots[slot] >= 0 && !(KeyOf(_slots[slot]) == key)) slot = (slot + 1) & _mask;
      if (_slots[slot] < 0) _slots[slot] = i;  // an earlier element with this Uuid keeps the slot
    }
  }
  FirstMatchIndex(const FirstMatchIndex&) = delete;
  FirstMatchIndex& operator=(const FirstMatchIndex&) = delete;

  // The Uuid of the element at `index` (the empty Uuid for an empty element).
  const Uuid& KeyOf(Int index) const noexcept {
    return _keys != nullptr ? *_keys[index] : NodeKeyOf(index);
  }

  // The first element whose Uuid equals `id` (possibly an empty reference), or null when none
  // does. Valid while the pose is neither changed nor released.
  const CharacterNodeTransformRef* Find(const Uuid& id) const noexcept {
    if (_slots == nullptr) {
      for (Int i = 0; i < _nodes.GetCount(); ++i)
        if (KeyOf(i) == id) return &_nodes[i];
      return nullptr;
    }
    for (Int slot = SlotOf(id); _slots[slot] >= 0; slot = (slot + 1) & _mask) {
      if (KeyOf(_slots[slot]) == id) return &_nodes[_slots[slot]];
    }
    return nullptr;
  }

 private:
  static constexpr Int kInlineNodes = 64;
  static inline const Uuid kEmpty{};

  const Uuid& NodeKeyOf(Int index) const noexcept {
    const CharacterNodeTransformRef& node = _nodes[index];
    return node ? node->GetUuid() : kEmpty;
  }
  Int SlotOf(const Uuid& key) const noexcept {
    return static_cast<Int>(Hasher<Uuid>{}(key)) & _mask;
  }

  const BaseArray<CharacterNodeTransformRef>& _nodes;
  Int* _slots = nullptr;
  Int _mask = 0;
  Int _inlineSlots[2 * kInlineNodes];
  const Uuid* const* _keys = nullptr;
  const Uuid* _inlineKeys[kInlineNodes];
  BaseArray<Int> _heapSlots;
};

// The reciprocal of an axis length; a zero-length axis normalises to the zero vector.
Float64 ReciprocalLength(Float64 length) noexcept { return length == 0.0 ? 0.0 : 1.0 / length; }

// The delta of one node: its rest-relative transform once the source parent's motion is replaced
// by the rest parent's. `source` and `rest` may be missing (identity matrices stand in).
Matrix NodeDelta(const CharacterNodeTransform* source,
                 const CharacterNodeTransform* rest) noexcept {
  const Matrix& a = ParentGlobalOf(source);
  const Matrix& b = ParentGlobalOf(rest);
  const Matrix& c = GlobalOf(source);
  const Matrix& d = GlobalOf(rest);
  // Written as two inverses, not as B * inverse(A): a singular product must give the identity.
  const Matrix e = InvertMatrix(a * InvertMatrix(b));
  const Matrix m = e * c;
  Matrix delta = Multiply3x3(m, Invert3x3(d));
  // A plain difference of translations, not rotated into the rest frame.
  delta.off = m.off - d.off;
  return delta;
}

class CharacterSolverImpl final : public CharacterSolver {
  TARNI_IMPLEMENTS(CharacterSolverImpl, CharacterSolver)

  static constexpr Int kMaxUnrolledDepth = 64;

 public:
  Result<CharacterPoseRef> ExtractGlobalDeltaPose(
      const CharacterSolverConfigurationRef& config,
      const CharacterPoseRef& sourcePose) const noexcept override {
    TARNI_CHECK_ARGUMENT(config && sourcePose);
    const CharacterDefinitionRef& source = config->GetSourceCharacter();
    // Every mode but SKELETONTOSKELETON reads the controllers.
    const CharacterPoseRef* restRef = nullptr;
    if (source) {
      restRef = config->GetSolvingMode() != SolvingMode::SKELETONTOSKELETON
                    ? &source->GetControllersRestPose()
                    : &source->GetSkeletonRestPose();
    }
    if (restRef == nullptr || !*restRef)
      return NullReferenceError("The source character has no rest pose.");
    // The configuration holds the definition, and the definition its rest pose, for the call.
    const CharacterPoseRef& rest = *restRef;
    const BaseArray<CharacterNodeTransformRef>& restNodes = rest->GetNodeTransformArray();

    // Each output node is a writable copy of its rest node, so it is always a clone and the rest
    // pose's nodes never change.
    BaseArray<CharacterNodeTransformRef> nodes;
    if (!nodes.EnsureCapacity(restNodes.GetCount())) return OutOfMemoryError();
    // Both poses stay alive and unchanged while the loop reads their nodes.
    const FirstMatchIndex restIndex(*rest);
    const FirstMatchIndex sourceIndex(*sourcePose);
    for (Int index = 0; index < restNodes.GetCount(); ++index) {
      const CharacterNodeTransformRef& element = restNodes[index];
      const Uuid& uuid = restIndex.KeyOf(index);
      const CharacterNodeTransformRef* restNode = restIndex.Find(uuid);
      const CharacterNodeTransformRef* srcNode = sourceIndex.Find(uuid);
      const Matrix delta =
          NodeDelta(srcNode ? srcNode->Get() : nullptr, restNode ? restNode->Get() : nullptr);
      CharacterNodeTransformRef copy = TARNI_TRY(CopyNode(element));
      TARNI_TRY(copy.MakeWritable())->SetGlobalMatrix(delta);
      TARNI_TRY(nodes.Append(std::move(copy)));  // within the capacity: cannot fail
    }

    // The result is a copy of the rest pose holding the delta nodes; the definition's own rest
    // pose stays as it was.
    return CopyPoseWithNodes(rest, std::move(nodes));
  }

  Result<Matrix> ApplyGlobalRotationDelta(const CharacterNodeTransformRef& target,
                                          const CharacterNodeTransformRef& delta,
                                          const CharacterBodyPartSolverSettingRef& bpSetting,
                                          Float64 weight) const noexcept override {
    TARNI_CHECK_STATE_WITH(bpSetting, Matrix());
    Matrix p = GlobalOf(target.Get());
    const Matrix& dl = GlobalOf(delta.Get());
    const Matrix& g = ParentGlobalOf(target.Get());

    if (bpSetting->IsTransformActive(TransformComponent::POSITION)) {
      const Float64 wp = bpSetting->GetTransformWeight(TransformComponent::POSITION) * weight;
      p.off = p.off + dl.off * wp;
    }

    // Measured before the rotation; the scale step uses them too.
    const Float64 l1 = Length(dl.v1);
    const Float64 l2 = Length(dl.v2);
    const Float64 l3 = Length(dl.v3);

    if (bpSetting->IsTransformActive(TransformComponent::ROTATION)) {
      const Float64 wr = bpSetting->GetTransformWeight(TransformComponent::ROTATION);
      const Quaternion q = AxesToQuaternion(
          dl.v1 * ReciprocalLength(l1), dl.v2 * ReciprocalLength(l2), dl.v3 * ReciprocalLength(l3));
      // A negative weight does not flip the blend; it turns the blended rotation back below.
      const Float64 t = std::fabs(wr * weight);
      Quaternion turn = q;
      // The blend from the identity at 1 is q itself (q.w is never negative, so no sign flip), so
      // the common full-weight case skips the slerp's trigonometry.
      if (t != 1.0) {
        Result<Quaternion> blended = QuaternionBlend(Quaternion(), q, t);
        if (!blended) return {Matrix(), std::move(blended).error()};
        turn = blended.value();
      }
      RotationRows rows = QuaternionToRotationRows(turn);
      if (weight < 0.0) rows = InvertRotationRows(rows);
      // Each axis turns about its own origin; the offset stays.
      p.v1 = RotateByRows(rows, p.v1);
      p.v2 = RotateByRows(rows, p.v2);
      p.v3 = RotateByRows(rows, p.v3);
    }

    if (bpSetting->IsTransformActive(TransformComponent::SCALE)) {
      const Float64 ws = bpSetting->GetTransformWeight(TransformComponent::SCALE) * weight;
      p.v1 = p.v1 * (1.0 + (l1 - 1.0) * ws);
      p.v2 = p.v2 * (1.0 + (l2 - 1.0) * ws);
      p.v3 = p.v3 * (1.0 + (l3 - 1.0) * ws);
    }

    return InvertMatrix(g) * p;
  }

  Result<Float64> GetCumulatedWeight(
      const CharacterBodyPartRef& bodyPart,
      const CharacterSolverConfigurationRef& solverConfig) const noexcept override {
    TARNI_CHECK_ARGUMENT(bodyPart && solverConfig);
    // The recursion up the parents, unrolled into a loop for the usual depths: each body part's
    // weight times its parent's cumulated weight, ending at the root or after a NOPARENTWEIGHT
    // setting. The products are taken in the recursion's order, innermost first.
    Float64 weights[kMaxUnrolledDepth];
    Int depth = 0;
    Float64 product = 1.0;
    for (const CharacterBodyPart* part = bodyPart.Get(); part != nullptr;) {
      if (depth == kMaxUnrolledDepth) {
        const CharacterBodyPartRef rest(const_cast<CharacterBodyPart*>(part));
        product = TARNI_TRY(GetCumulatedWeight(rest, solverConfig));
        break;
      }
      CharacterBodyPartSolverSettingRef holder;
      const CharacterBodyPartSolverSetting* setting =
          PeekBodyPartSetting(*solverConfig, part->GetIdentifier(), holder);
      Float64 weight = 1.0;
      bool last = false;
      if (setting) {
        weight = setting->GetBodyPartWeight();
        last = setting->GetSettingValue(BodyPartSolverSettingFlag::NOPARENTWEIGHT);
      }
      weights[depth++] = weight;
      const HierarchyObject* parent = last ? nullptr : part->GetParent();
      part = parent ? Cast<CharacterBodyPart>(static_cast<const Object*>(parent)) : nullptr;
    }
    while (depth > 0) product = weights[--depth] * product;
    return product;
  }

  // Stateless: nothing to copy or describe.
  Result<void> CopyFrom(const Object& source) noexcept override {
    if (SameClass<CharacterSolverImpl>(source) == nullptr)
      return IllegalArgumentError("Illegal argument: copy from another class.");
    return OK;
  }
  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  static Result<void> Describe(Describer&, CharacterSolverImpl*) noexcept { return OK; }
};

constexpr Id kInterfaces[] = {CharacterSolver::kInterfaceId};
const StaticFunction kStatics[] = {
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterSolverImpl>)},
};

}  // namespace

const ClassRecord kCharacterSolverClass{CharacterSolver::kClassId,
                                        "CharacterSolverImpl",
                                        "charactersolver_impl",
                                        &CreateInstance<CharacterSolverImpl>,
                                        &DescribeClass<CharacterSolverImpl>,
                                        {},
                                        kInterfaces,
                                        kStatics};

}  // namespace tarni::ca
