#include <typeinfo>

#include "character/lookups.h"
#include "module/units.h"
#include "tarni/characterassociation.h"
#include "tarni/describe.h"
#include "tarni/hashmap.h"

namespace tarni::ca {
namespace {

constexpr const char* kInvalidKeyMessage =
    "Illegal argument: Source or Target doesn't have a valid Uuid";
constexpr const char* kNoValueMessage = "No value associated to this Uuid";

// Both key types print "nullptr" when they hold no value.
void AppendKeyText(TextBuilder& out, const Uuid& key, const FormatStatement* format) noexcept {
  if (key.HasData()) {
    key.AppendText(out, format);
  } else {
    out.Append(kNullReferenceText);
  }
}
void AppendKeyText(TextBuilder& out, const InternedId& key, const FormatStatement*) noexcept {
  if (key.IsEmpty()) {
    out.Append(kNullReferenceText);
  } else {
    key.AppendText(out);
  }
}

// "{" "key->value" "," ... "}".
template <typename K>
void AppendTableText(TextBuilder& out, const HashMap<K, K>& table,
                     const FormatStatement* format) noexcept {
  out.Append('{');
  bool first = true;
  for (const auto& entry : table) {
    if (!first) out.Append(',');
    first = false;
    AppendKeyText(out, entry.key, format);
    out.Append("->");
    AppendKeyText(out, entry.value, format);
  }
  out.Append('}');
}

// Writes key -> value, leaving an entry that already holds the very same value untouched.
bool SameValue(const Uuid& a, const Uuid& b) noexcept { return a.SharesData(b); }
bool SameValue(const InternedId& a, const InternedId& b) noexcept { return a == b; }

template <typename K>
Result<void> StoreDirection(HashMap<K, K>& table, const K& key, const K& value) noexcept {
  auto* entry = TARNI_TRY(table.FindOrInsert(key));
  if (!SameValue(entry->value, value)) entry->value = value;
  return OK;
}

template <typename K>
Result<void> StoreBothDirections(HashMap<K, K>& table, const K& source, const K& target) noexcept {
  TARNI_TRY(StoreDirection(table, source, target));
  return StoreDirection(table, target, source);
}

class CharacterAssociationImpl final : public CharacterAssociation {
  TARNI_IMPLEMENTS(CharacterAssociationImpl, CharacterAssociation)
 public:
  Result<void> AssociateBodyPart(const CharacterBodyPartRef& source,
                                 const CharacterBodyPartRef& target) noexcept override {
    if (!source || !target) return NullReferenceError("Body part reference is empty.");
    const InternedId sourceId = source->GetIdentifier();
    const InternedId targetId = target->GetIdentifier();
    // Through the interface, so a class built on this one sees every identifier association.
    CharacterAssociation& self = *this;
    return self.AssociateId(sourceId, targetId);
  }

  Result<void> AssociateUuid(const Uuid& source, const Uuid& target) noexcept override {
    if (source.IsEmpty() || target.IsEmpty()) return IllegalArgumentError(kInvalidKeyMessage);
    return StoreBothDirections(_uuidAssTable, source, target);
  }
  Result<Uuid> GetAssociatedUuid(const Uuid& key) const noexcept override {
    const Uuid* value = _uuidAssTable.Find(key);
    if (value == nullptr) return IllegalArgumentError(kNoValueMessage);
    return *value;
  }

  // The table itself (see OwnUuidAssociations).
  const UuidAssociationTable& UuidAssociations() const noexcept { return _uuidAssTable; }
  // The kept companion (see PeekAssociationCompanion); never copied or described.
  const CompanionSlot& KeptCompanion() const noexcept { return _companion; }

  Result<void> AssociateId(const InternedId& source, const InternedId& target) noexcept override {
    if (source.IsEmpty() || target.IsEmpty()) return IllegalArgumentError(kInvalidKeyMessage);
    return StoreBothDirections(_idAssTable, source, target);
  }
  Result<InternedId> GetAssociatedId(const InternedId& key) const noexcept override {
    const InternedId* value = _idAssTable.Find(key);
    if (value == nullptr) return IllegalArgumentError(kNoValueMessage);
    return *value;
  }

  String ToString(const FormatStatement* format = nullptr) const noexcept override {
    TextBuilder out;
    out.Append("Uuid Association Table : \n");
    AppendTableText(out, _uuidAssTable, format);
    // Deliberately no line feed between the two tables.
    out.Append("InternedId Association Table : \n");
    AppendTableText(out, _idAssTable, format);
    return out.ToString();
  }

  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CharacterAssociationImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    TARNI_TRY(_uuidAssTable.CopyFrom(other->_uuidAssTable));
    return _idAssTable.CopyFrom(other->_idAssTable);
  }

  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  // "_uuidAssTable" (Uuid -> Uuid), then "_idAssTable" (InternedId -> InternedId), both maps.
  static Result<void> Describe(Describer& describer, CharacterAssociationImpl* self) noexcept {
    TARNI_TRY(describer.Member({"_uuidAssTable", types::kUuid, kDescribeMap, types::kUuid,
                                self ? &self->_uuidAssTable : nullptr}));
    return describer.Member({"_idAssTable", types::kInternedId, kDescribeMap, types::kInternedId,
                             self ? &self->_idAssTable : nullptr});
  }

 private:
  HashMap<Uuid, Uuid> _uuidAssTable;
  HashMap<InternedId, InternedId> _idAssTable;
  CompanionSlot _companion;
};

constexpr Id kInterfaces[] = {CharacterAssociation::kInterfaceId};
const StaticFunction kStatics[] = {
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterAssociationImpl>)},
};

}  // namespace

const UuidAssociationTable* OwnUuidAssociations(const CharacterAssociation& association) noexcept {
  // The class is final: an equal type is exactly this class.
  if (typeid(association) != typeid(CharacterAssociationImpl)) return nullptr;
  return &static_cast<const CharacterAssociationImpl&>(association).UuidAssociations();
}

const Companion* PeekAssociationCompanion(const CharacterAssociation& association) noexcept {
  if (typeid(association) != typeid(CharacterAssociationImpl)) return nullptr;
  return static_cast<const CharacterAssociationImpl&>(association).KeptCompanion().Peek();
}

const Companion* AttachAssociationCompanion(const CharacterAssociation& association,
                                            Companion* companion) noexcept {
  if (typeid(association) != typeid(CharacterAssociationImpl)) return nullptr;
  return static_cast<const CharacterAssociationImpl&>(association)
      .KeptCompanion()
      .Attach(companion);
}

Result<const Uuid*> PeekAssociatedUuid(const CharacterAssociation& association, const Uuid& key,
                                       Uuid& holder) noexcept {
  if (const UuidAssociationTable* table = OwnUuidAssociations(association)) {
    if (const Uuid* value = table->Find(key)) return value;
  }
  // Other classes, and a missing key, whose error GetAssociatedUuid raises.
  holder = TARNI_TRY(association.GetAssociatedUuid(key));
  return &holder;
}

const ClassRecord kCharacterAssociationClass{CharacterAssociation::kClassId,
                                             "CharacterAssociationImpl",
                                             "characterassociation_impl",
                                             &CreateInstance<CharacterAssociationImpl>,
                                             &DescribeClass<CharacterAssociationImpl>,
                                             {},
                                             kInterfaces,
                                             kStatics};

}  // namespace tarni::ca
