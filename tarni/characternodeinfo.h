// CharacterNodeInfo: the identity of one node of a character (a joint, a controller, a body-part
// node): a Uuid that names it across the scene and a display name.
#pragma once

#include "tarni/classes.h"
#include "tarni/object.h"
#include "tarni/string.h"
#include "tarni/uuid.h"

namespace tarni {

class CharacterNodeInfo : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.characternodeinfo"};
  static constexpr Id kClassId{"net.tarni.animation.class.characternodeinfo"};
  using Extends = InterfaceList<>;

  // Stores the id (shared, the bytes are not copied). Fails only when memory runs out.
  virtual Result<void> SetUuid(const Uuid& uuid) noexcept = 0;
  // The stored id, possibly empty.
  virtual const Uuid& GetUuid() const noexcept = 0;
  // Stores the name (shared). Never fails; storing the name already held changes nothing.
  virtual Result<void> SetName(const String& name) noexcept = 0;
  virtual const String& GetName() const noexcept = 0;
  // ToString (the object's): "Object ID : " id "\n" "Object Name : " name "\n"; an empty id prints
  // as the empty Uuid's text. Classes built on the node info print their whole text through it.
};

// Node infos are held through copy-on-write references.
using CharacterNodeInfoRef = CowRef<CharacterNodeInfo>;

// Creates a node info by class id, then SetUuid(uuid) and SetName(name). Returns the first error
// (class not resolvable, or no memory for the instance: the null-reference error); on error no
// node is returned.
inline Result<CharacterNodeInfoRef> CreateNodeInfo(const Uuid& uuid, const String& name) noexcept {
  static constinit ClassHandle handle(CharacterNodeInfo::kClassId);
  CharacterNodeInfoRef ref(TARNI_TRY(handle.Create<CharacterNodeInfo>()));
  CharacterNodeInfo* node = TARNI_TRY(ref.MakeWritable());
  TARNI_TRY(node->SetUuid(uuid));
  TARNI_TRY(node->SetName(name));
  return ref;
}

}  // namespace tarni
