// CharacterSolver: the retargeting engine. It measures how far each node of the source character
// has moved from its rest pose (ExtractGlobalDeltaPose) and applies such a delta to a target node
// (ApplyGlobalRotationDelta), weighted per body part (GetCumulatedWeight) and per transform
// component. It holds no state: every operation is a function of its arguments, safe to call from
// several threads as long as the arguments are not changed meanwhile.
#pragma once

#include "tarni/characterbodypart.h"
#include "tarni/characterbodypartsolversetting.h"
#include "tarni/characternodetransform.h"
#include "tarni/characterpose.h"
#include "tarni/charactersolverconfiguration.h"
#include "tarni/classes.h"
#include "tarni/math.h"
#include "tarni/object.h"

namespace tarni {

class CharacterSolver : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.charactersolver"};
  static constexpr Id kClassId{"net.tarni.animation.class.charactersolver"};
  using Extends = InterfaceList<>;

  // For every node of the source character's rest pose (the controllers rest pose for any
  // non-zero solving mode, the skeleton rest pose for SKELETONTOSKELETON), in the rest pose's
  // order, a node transform whose global matrix holds the node's delta:
  //   E = inverse(A * inverse(B)), M = E * C,
  //   delta 3x3 = 3x3(M) * inverse(3x3(D)), delta offset = M.o - D.o (a plain difference),
  // with A, C the source node's parent-global and global matrices and B, D the rest node's (the
  // identity for a node that is missing). That is the node's rotation relative to its rest
  // rotation once the source parent's motion is replaced by the rest parent's. Singular matrices
  // invert to the identity, without an error. The delta nodes are otherwise copies of the rest
  // nodes (identity, parent-global and pre-multiply matrices). Source nodes the rest pose lacks
  // are ignored.
  // The result is a new pose; the definition's rest pose and its nodes are never changed (every
  // write goes through copy-on-write). Fails with "Illegal argument: Condition config &&
  // sourcePose not fulfilled. " for a null argument, the null-reference error when there is no
  // rest pose (no source character or none in it), the out-of-memory error, the null-reference
  // error of a node or pose copy that cannot be made, or the error of a pose operation; on
  // failure no pose is returned. A large pose whose lookup index cannot get memory is searched
  // without one, so that shortage alone fails nothing.
  virtual Result<CharacterPoseRef> ExtractGlobalDeltaPose(
      const CharacterSolverConfigurationRef& config,
      const CharacterPoseRef& sourcePose) const noexcept = 0;

  // The target node's new local matrix after applying the delta node (an element of
  // ExtractGlobalDeltaPose's pose) as far as `bpSetting` allows, scaled by `weight`. With P the
  // target's global matrix, Dl the delta's, G the target's parent-global matrix (identity for a
  // null node), in this order and each only when its component is active:
  //   translation: P.o += Dl.o * (position weight * weight);
  //   rotation: the rotation of Dl's normalised axes, blended from the identity by
  //     |rotation weight * weight| (beyond 1 it is applied more than once), turned back when
  //     weight < 0, rotates each axis of P (P.o stays);
  //   scale: each axis k of P times 1 + (|Dl.ak| - 1) * scale weight * weight.
  // Returns inverse(G) * P. Neither the body part's own weight nor the DEACTIVATE flag is read
  // here: the caller folds GetCumulatedWeight (and the global weight) into `weight`.
  // A null `bpSetting` fails with "Illegal state: Condition bpSetting not fulfilled. "; that
  // error, like an error of the blend, comes together with the identity matrix as value.
  virtual Result<Matrix> ApplyGlobalRotationDelta(
      const CharacterNodeTransformRef& target, const CharacterNodeTransformRef& delta,
      const CharacterBodyPartSolverSettingRef& bpSetting, Float64 weight) const noexcept = 0;

  // The product of the body-part weights of `bodyPart` and its parents in the body-part
  // hierarchy, stopping after the first one whose setting has NOPARENTWEIGHT; a body part without
  // a setting in `solverConfig` counts 1.0. The global weight and DEACTIVATE are not part of it.
  // Fails with "Illegal argument: Condition bodyPart && solverConfig not fulfilled. " for a null
  // argument.
  virtual Result<Float64> GetCumulatedWeight(
      const CharacterBodyPartRef& bodyPart,
      const CharacterSolverConfigurationRef& solverConfig) const noexcept = 0;
};

// The solver is stateless; it is held through a plain shared reference.
using CharacterSolverRef = Ref<CharacterSolver>;

}  // namespace tarni
