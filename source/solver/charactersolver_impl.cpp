#include <cmath>

#include "module/units.h"
#include "solver/quaternion.h"
#include "tarni/charactersolver.h"
#include "tarni/describe.h"

namespace tarni::ca {
namespace {

// The matrix of a node, or the identity for a missing node.
const Matrix& GlobalOf(const CharacterNodeTransformRef& node) noexcept {
  static constexpr Matrix kIdentity{};
  return node ? node->GetGlobalMatrix() : kIdentity;
}
const Matrix& ParentGlobalOf(const CharacterNodeTransformRef& node) noexcept {
  static constexpr Matrix kIdentity{};
  return node ? node->GetParentGlobalMatrix() : kIdentity;
}

// The reciprocal of an axis length; a zero-length axis normalises to the zero vector.
Float64 ReciprocalLength(Float64 length) noexcept { return length == 0.0 ? 0.0 : 1.0 / length; }

// The delta of one node: its rest-relative transform once the source parent's motion is replaced
// by the rest parent's. `source` and `rest` may be missing (identity matrices stand in).
Matrix NodeDelta(const CharacterNodeTransformRef& source,
                 const CharacterNodeTransformRef& rest) noexcept {
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
 public:
  Result<CharacterPoseRef> ExtractGlobalDeltaPose(
      const CharacterSolverConfigurationRef& config,
      const CharacterPoseRef& sourcePose) const noexcept override {
    TARNI_CHECK_ARGUMENT(config && sourcePose);
    const CharacterDefinitionRef& source = config->GetSourceCharacter();
    // Every mode but SKELETONTOSKELETON reads the controllers.
    CharacterPoseRef rest;
    if (source) {
      rest = config->GetSolvingMode() != SolvingMode::SKELETONTOSKELETON
                 ? source->GetControllersRestPose()
                 : source->GetSkeletonRestPose();
    }
    if (!rest) return NullReferenceError("The source character has no rest pose.");
    const BaseArray<CharacterNodeTransformRef>& restNodes = rest->GetNodeTransformArray();

    // The output starts as references to the rest nodes; each is made writable before its delta
    // is set, which clones it, so the rest pose's nodes never change.
    BaseArray<CharacterNodeTransformRef> nodes;
    if (!nodes.CopyFrom(restNodes)) return OutOfMemoryError();
    for (CharacterNodeTransformRef& element : nodes) {
      const Uuid uuid = element ? element->GetUuid() : Uuid();
      const CharacterNodeTransformRef restNode = TARNI_TRY(rest->GetNodeTransformByID(uuid));
      const CharacterNodeTransformRef srcNode = TARNI_TRY(sourcePose->GetNodeTransformByID(uuid));
      const Matrix delta = NodeDelta(srcNode, restNode);
      CharacterNodeTransform* writable = TARNI_TRY(element.MakeWritable());
      writable->SetGlobalMatrix(delta);
    }

    // The result is a copy of the rest pose holding the delta nodes; the definition's own rest
    // pose stays as it was.
    CharacterPose* pose = TARNI_TRY(rest.MakeWritable());
    TARNI_TRY(pose->SetNodeTransformArray(nodes));
    return rest;
  }

  Result<Matrix> ApplyGlobalRotationDelta(const CharacterNodeTransformRef& target,
                                          const CharacterNodeTransformRef& delta,
                                          const CharacterBodyPartSolverSettingRef& bpSetting,
                                          Float64 weight) const noexcept override {
    TARNI_CHECK_STATE_WITH(bpSetting, Matrix());
    Matrix p = GlobalOf(target);
    const Matrix& dl = GlobalOf(delta);
    const Matrix& g = ParentGlobalOf(target);

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
      Result<Quaternion> blended = QuaternionBlend(Quaternion(), q, std::fabs(wr * weight));
      if (!blended) return {Matrix(), std::move(blended).error()};
      RotationRows rows = QuaternionToRotationRows(blended.value());
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
    const CharacterBodyPartSolverSettingRef setting =
        solverConfig->GetBodyPartSetting(bodyPart->GetIdentifier());
    Float64 weight = 1.0;
    if (setting) {
      weight = setting->GetBodyPartWeight();
      if (setting->GetSettingValue(BodyPartSolverSettingFlag::NOPARENTWEIGHT)) return weight;
    }
    HierarchyObject* parent = bodyPart->GetParent();
    const CharacterBodyPartRef parentPart(
        parent ? Cast<CharacterBodyPart>(static_cast<Object*>(parent)) : nullptr);
    if (!parentPart) return weight;
    const Float64 parentWeight = TARNI_TRY(GetCumulatedWeight(parentPart, solverConfig));
    return weight * parentWeight;
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
