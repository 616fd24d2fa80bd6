// CharacterNodeTransform: one node of a pose, a node identity together with its global matrix, its
// parent's global matrix and a pre-multiply matrix the solver applies in front of its transform.
#pragma once

#include "tarni/characternodeinfo.h"
#include "tarni/math.h"

namespace tarni {

class CharacterNodeTransform : public virtual CharacterNodeInfo {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.characternodetransform"};
  static constexpr Id kClassId{"net.tarni.animation.class.characternodetransform"};
  using Extends = InterfaceList<CharacterNodeInfo>;

  // Setters copy the twelve values; none validates or fails. Getters refer into the object.
  virtual void SetGlobalMatrix(const Matrix& matrix) noexcept = 0;
  virtual const Matrix& GetGlobalMatrix() const noexcept = 0;
  virtual void SetParentGlobalMatrix(const Matrix& matrix) noexcept = 0;
  virtual const Matrix& GetParentGlobalMatrix() const noexcept = 0;
  virtual void SetPreMultiplyMatrix(const Matrix& matrix) noexcept = 0;
  virtual const Matrix& GetPreMultiplyMatrix() const noexcept = 0;
  // ToString: the node-info lines, then "Global Matrix :\n" matrix "\n", "Parent Global Matrix :\n"
  // matrix "\n", "Pre-Multiply Matrix :\n" matrix "\n" (matrix text: see AppendMatrixText).
};

// Node transforms are held through copy-on-write references.
using CharacterNodeTransformRef = CowRef<CharacterNodeTransform>;

// Creates a node transform by class id, then SetUuid, SetGlobalMatrix, SetParentGlobalMatrix; the
// pre-multiply matrix stays identity. Returns the first error (class not resolvable, or no memory
// for the instance: the null-reference error); on error no node is returned.
inline Result<CharacterNodeTransformRef> CreateNodeTransform(const Uuid& uuid, const Matrix& global,
                                                             const Matrix& parentGlobal) noexcept {
  static constinit ClassHandle handle(CharacterNodeTransform::kClassId);
  CharacterNodeTransformRef ref(TARNI_TRY(handle.Create<CharacterNodeTransform>()));
  TARNI_TRY(TARNI_TRY(ref.MakeWritable())->SetUuid(uuid));
  TARNI_TRY(ref.MakeWritable())->SetGlobalMatrix(global);
  TARNI_TRY(ref.MakeWritable())->SetParentGlobalMatrix(parentGlobal);
  return ref;
}

}  // namespace tarni
