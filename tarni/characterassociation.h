// CharacterAssociation: which element of a source character corresponds to which element of a
// target character. Two symmetric tables: node Uuids (skeleton nodes and controllers) and body-part
// identifiers. The solver configuration holds one; the retarget helper fills it.
#pragma once

#include "tarni/characterbodypart.h"
#include "tarni/classes.h"
#include "tarni/internedid.h"
#include "tarni/object.h"
#include "tarni/uuid.h"

namespace tarni {

// Both tables are symmetric: associating a with b stores a -> b and b -> a in the same table, so
// source and target keys share one key space and a lookup answers in both directions. A key that
// is associated again keeps only the value written last; the old partner's entry that pointed at
// it is not removed. Entries are never removed one by one.
class CharacterAssociation : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.animation.interface.characterassociation"};
  static constexpr Id kClassId{"net.tarni.animation.class.characterassociation"};
  using Extends = InterfaceList<>;

  // Associates the identifiers of two body parts (through AssociateId). Their controller and
  // skeleton lists are not looked at. An empty reference fails with the null-reference error;
  // otherwise AssociateId's result.
  virtual Result<void> AssociateBodyPart(const CharacterBodyPartRef& source,
                                         const CharacterBodyPartRef& target) noexcept = 0;

  // Stores source -> target and target -> source. An empty Uuid (no data or the nil value) on
  // either side fails with the illegal-argument error "Illegal argument: Source or Target doesn't
  // have a valid Uuid" and stores nothing. When memory runs out the out-of-memory error is
  // returned; the first direction may then already be stored.
  virtual Result<void> AssociateUuid(const Uuid& source, const Uuid& target) noexcept = 0;
  // The Uuid associated with `key` (its id data shared). A key without entry fails with the
  // illegal-argument error "No value associated to this Uuid".
  virtual Result<Uuid> GetAssociatedUuid(const Uuid& key) const noexcept = 0;

  // As AssociateUuid, for body-part identifiers; an empty identifier fails with the same message,
  // which deliberately speaks of a Uuid.
  virtual Result<void> AssociateId(const InternedId& source, const InternedId& target) noexcept = 0;
  // As GetAssociatedUuid; a miss deliberately reports "No value associated to this Uuid" too.
  virtual Result<InternedId> GetAssociatedId(const InternedId& key) const noexcept = 0;

  // ToString (the object's): "Uuid Association Table : \n" "{" entries "}"
  // "InternedId Association Table : \n" "{" entries "}", each entry "key->value", entries joined
  // by "," in insertion order. Deliberately no line feed between the two tables, nor at the end.
  // Copying (CopyFrom, Clone) copies the Uuid table, then the identifier table; when memory runs
  // out it fails with the out-of-memory error, and a table not copied keeps its own entries.
};

// Associations are held through copy-on-write references: the retarget helper makes its own
// writable before it associates. A holder that shares the object (such as a solver configuration)
// keeps seeing it unchanged after another holder writes through MakeWritable, which clones.
using CharacterAssociationRef = CowRef<CharacterAssociation>;

}  // namespace tarni
