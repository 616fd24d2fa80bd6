#include <cmath>
#include <new>

#include "character/lookups.h"
#include "character/posenodes.h"
#include "module/units.h"
#include "solver/quaternion.h"
#include "tarni/charactersolver.h"
#include "tarni/describe.h"

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

// The reciprocal of an axis length; a zero-length axis normalises to the zero vector.
Float64 ReciprocalLength(Float64 length) noexcept { return length == 0.0 ? 0.0 : 1.0 / length; }

// What the extraction reads from the rest pose for one of its elements. It depends on the rest
// pose alone, so it is computed once and kept with the pose for the frames to come.
struct RestNodeData {
  // The element it was made from, and that element's Uuid (inside the node).
  const CharacterNodeTransform* node;
  const Uuid* uuid;
  // The index of the rest pose's first node with that Uuid (the element's own index, or lower).
  Int first;
  // Of that first node, B = its parent global matrix and D = its global matrix: InvertMatrix(B),
  // the inverse of D's 3x3 part, and D's offset.
  Matrix parentInverse;
  Matrix globalInverse;
  Vector globalOffset;
};

// The rest data of a whole pose, as one block: this header, then one RestNodeData per element.
struct RestPoseData final : Companion {
  const CharacterNodeTransformRef* storage;
  Int count;

  RestNodeData* Nodes() noexcept { return reinterpret_cast<RestNodeData*>(this + 1); }
  const RestNodeData* Nodes() const noexcept {
    return reinterpret_cast<const RestNodeData*>(this + 1);
  }
  // Made from `nodes` as they are now: the same storage, count and node objects. A pose's node
  // objects never change while it holds them (copy-on-write), so their matrices are the same too.
  bool Fits(const BaseArray<CharacterNodeTransformRef>& nodes) const noexcept {
    if (storage != nodes.GetFirst() || count != nodes.GetCount()) return false;
    const RestNodeData* data = Nodes();
    for (Int i = 0; i < count; ++i)
      if (data[i].node != nodes[i].Get()) return false;
    return true;
  }

  static void Destroy(Companion* companion) noexcept {
    auto* self = static_cast<RestPoseData*>(companion);
    self->~RestPoseData();
    Free(self);
  }
};
static_assert(sizeof(RestPoseData) % alignof(RestNodeData) == 0);

// The rest data of `rest`, or null when its memory cannot be had.
RestPoseData* MakeRestPoseData(const CharacterPose& rest) noexcept {
  const BaseArray<CharacterNodeTransformRef>& nodes = rest.GetNodeTransformArray();
  const Int count = nodes.GetCount();
  // Its own index of the rest nodes, made for the moment: a failure here is the extraction's
  // out-of-memory error like any other, rather than a slower data set.
  NodeIndex* index = MakeNodeIndex(nodes);
  if (index == nullptr) return nullptr;
  void* memory =
      Allocate(sizeof(RestPoseData) + static_cast<std::size_t>(count) * sizeof(RestNodeData));
  if (memory == nullptr) {
    DeleteNodeIndex(index);
    return nullptr;
  }
  auto* data = ::new (memory) RestPoseData;
  data->destroy = &RestPoseData::Destroy;
  data->storage = nodes.GetFirst();
  data->count = count;
  for (Int i = 0; i < count; ++i) {
    const CharacterNodeTransform* element = nodes[i].Get();
    const Uuid& uuid = NodeUuidOf(element);
    // The element itself has the Uuid, so the first match is at i or below.
    const CharacterNodeTransformRef* found = FindFirstNode(nodes, index, uuid);
    const Int first = found != nullptr ? found - nodes.GetFirst() : i;
    const CharacterNodeTransform* restNode = nodes[first].Get();
    ::new (&data->Nodes()[i]) RestNodeData{element,
                                           &uuid,
                                           first,
                                           InvertMatrix(ParentGlobalOf(restNode)),
                                           Invert3x3(GlobalOf(restNode)),
                                           GlobalOf(restNode).off};
  }
  DeleteNodeIndex(index);
  return data;
}

// The rest data of one extraction: the data kept with the rest pose, made and attached at the
// first extraction, or data made for this call alone (a pose of another class keeps none, and a
// pose whose array no longer holds the node objects the data was made from gets new data).
class RestPoseDataHolder {
 public:
  RestPoseDataHolder() noexcept = default;
  RestPoseDataHolder(const RestPoseDataHolder&) = delete;
  RestPoseDataHolder& operator=(const RestPoseDataHolder&) = delete;
  ~RestPoseDataHolder() {
    if (_own != nullptr) RestPoseData::Destroy(_own);
  }

  // Null when the memory for new data cannot be had.
  const RestPoseData* Acquire(const CharacterPose& rest) noexcept {
    const BaseArray<CharacterNodeTransformRef>& nodes = rest.GetNodeTransformArray();
    const auto* kept = static_cast<const RestPoseData*>(PeekPoseCompanion(rest));
    if (kept != nullptr && kept->Fits(nodes)) return kept;
    RestPoseData* made = MakeRestPoseData(rest);
    if (made == nullptr) return nullptr;
    if (kept == nullptr) {
      // Another thread's data, made from the same unchanged pose, serves as well.
      const auto* attached = static_cast<const RestPoseData*>(AttachPoseCompanion(rest, made));
      if (attached != nullptr) return attached;
    }
    _own = made;
    return made;
  }

 private:
  RestPoseData* _own = nullptr;
};

// An index made for a source pose of another class during one call; this module's poses keep
// their own.
struct ScratchIndex {
  NodeIndex* index = nullptr;
  ScratchIndex() noexcept = default;
  ScratchIndex(const ScratchIndex&) = delete;
  ScratchIndex& operator=(const ScratchIndex&) = delete;
  ~ScratchIndex() { DeleteNodeIndex(index); }
};

// The delta of one node: its rest-relative transform once the source parent's motion is replaced
// by the rest parent's. `source` may be missing (identity matrices stand in for A and C).
Matrix NodeDelta(const CharacterNodeTransform* source, const RestNodeData& rest) noexcept {
  const Matrix& a = ParentGlobalOf(source);
  const Matrix& c = GlobalOf(source);
  // Written as two inverses, not as B * inverse(A): a singular product must give the identity.
  const Matrix e = InvertMatrix(a * rest.parentInverse);
  const Matrix m = e * c;
  Matrix delta = Multiply3x3(m, rest.globalInverse);
  // A plain difference of translations, not rotated into the rest frame.
  delta.off = m.off - rest.globalOffset;
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

    // The rest pose's own matrices and lookups come from its kept data.
    RestPoseDataHolder restData;
    const RestPoseData* restPoseData = restData.Acquire(*rest);
    if (restPoseData == nullptr) return OutOfMemoryError();
    const RestNodeData* restNodeData = restPoseData->Nodes();
    // Each output node is a writable copy of its rest node, so it is always a clone and the rest
    // pose's nodes never change.
    const BaseArray<CharacterNodeTransformRef>& sourceNodes = sourcePose->GetNodeTransformArray();
    BaseArray<CharacterNodeTransformRef> nodes;
    if (!nodes.EnsureCapacity(restNodes.GetCount())) return OutOfMemoryError();
    // Both poses stay alive and unchanged while the loop reads their nodes.
    ScratchIndex scratch;
    // While the source pose holds the rest pose's Uuids in the rest pose's order, up to and
    // including the current node, the source's first match of a rest Uuid is at the index of the
    // rest pose's own first match: a source pose of the same skeleton needs no lookup of its own.
    bool aligned = true;
    for (Int index = 0; index < restNodes.GetCount(); ++index) {
      const RestNodeData& restNode = restNodeData[index];
      aligned = aligned && index < sourceNodes.GetCount() &&
                NodeUuidOf(sourceNodes[index].Get()) == *restNode.uuid;
      const CharacterNodeTransformRef* srcNode =
          aligned ? &sourceNodes[restNode.first]
                  : FindFirstPoseNode(*sourcePose, *restNode.uuid, &scratch.index);
      const Matrix delta = NodeDelta(srcNode ? srcNode->Get() : nullptr, restNode);
      // Within the capacity: the append cannot fail.
      TARNI_TRY(nodes.Append(TARNI_TRY(CopyNodeWithGlobal(restNodes[index], delta))));
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
      Result<Quaternion> turn = BlendFromIdentity(q, t);
      if (!turn) return {Matrix(), std::move(turn).error()};
      RotationRows rows = QuaternionToRotationRows(turn.value());
      if (weight < 0.0) rows = InvertRotationRows(rows);
      // Each axis turns about its own origin; the offset stays. RotateByRows(rows, a) is
      // TransformVector of the rows' matrix, taken here with paired lanes.
      const tarni::detail::PairedAxes turned = PairedAxesOfRows(rows);
      p.v1 = turned.Transform(p.v1);
      p.v2 = turned.Transform(p.v2);
      p.v3 = turned.Transform(p.v3);
    }

    if (bpSetting->IsTransformActive(TransformComponent::SCALE)) {
      const Float64 ws = bpSetting->GetTransformWeight(TransformComponent::SCALE) * weight;
      p.v1 = p.v1 * (1.0 + (l1 - 1.0) * ws);
      p.v2 = p.v2 * (1.0 + (l2 - 1.0) * ws);
      p.v3 = p.v3 * (1.0 + (l3 - 1.0) * ws);
    }

    // The target is usually a rest node, the same one frame after frame: from the second frame on
    // it keeps the inverse. A node whose parent matrix is set every frame keeps nothing.
    const KeptMatrix* kept = KeptParentDerivedOf(target.Get());
    if (kept != nullptr) {
      if (const Matrix* inverse = kept->Peek(&InvertMatrix)) return *inverse * p;
    }
    const Matrix inverse = InvertMatrix(ParentGlobalOf(target.Get()));
    if (kept != nullptr) kept->Offer(&InvertMatrix, inverse);
    return inverse * p;
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
    // This module's configuration class is searched directly; `holder` keeps a setting of
    // another class alive until the next step.
    const BodyPartSettingTable* table = OwnBodyPartSettings(*solverConfig);
    CharacterBodyPartSolverSettingRef holder;
    for (const CharacterBodyPart* part = bodyPart.Get(); part != nullptr;) {
      if (depth == kMaxUnrolledDepth) {
        const CharacterBodyPartRef rest(const_cast<CharacterBodyPart*>(part));
        product = TARNI_TRY(GetCumulatedWeight(rest, solverConfig));
        break;
      }
      const BodyPartLink link = BodyPartLinkOf(*part);
      const CharacterBodyPartSolverSetting* setting;
      if (table != nullptr) {
        const CharacterBodyPartSolverSettingRef* found = table->Find(*link.identifier);
        setting = found != nullptr ? found->Get() : nullptr;
      } else {
        setting = PeekBodyPartSetting(*solverConfig, *link.identifier, holder);
      }
      const BodyPartWeight weight =
          setting ? BodyPartWeightOf(*setting) : BodyPartWeight{1.0, false};
      weights[depth++] = weight.weight;
      part = weight.last ? nullptr : link.parent;
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
