#include "tarni/classes.h"

#include <new>

#include "registries.h"
#include "tarni/command.h"
#include "tarni/hierarchy.h"

namespace tarni {
namespace detail {
namespace {

// The framework's plain hierarchy object class.
class HierarchyObjectImpl final : public HierarchyComponent<HierarchyObject> {
  TARNI_IMPLEMENTS(HierarchyObjectImpl, HierarchyObject)
 public:
  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<HierarchyObjectImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    return CopyHierarchyFrom(*other);
  }
};

constexpr Id kHierarchyInterfaces[] = {HierarchyObject::kInterfaceId};
constexpr Id kDataDictionaryClassId = DataDictionaryComponent<CommandData>::kClassId;
constexpr Id kCommandObserverClassId = CommandObserverComponent<CommandObserver>::kClassId;
constexpr Id kDictionaryInterfaces[] = {CommandData::kInterfaceId};
constexpr Id kObserverInterfaces[] = {CommandObserver::kInterfaceId};

void RegisterKernelClasses(Registries& registries) noexcept;
}  // namespace

Registries& GetRegistries() noexcept {
  alignas(Registries) static unsigned char storage[sizeof(Registries)];
  static Registries* registries = [] {
    auto* made = ::new (storage) Registries();
    RegisterKernelClasses(*made);
    return made;
  }();
  return *registries;
}

namespace {
void RegisterKernelClass(Registries& registries, const ClassRecord& record) noexcept {
  auto* info = New<ClassInfo>(record);
  if (info != nullptr && !registries.classes.Insert(record.classId, info)) Delete(info);
}

void RegisterKernelClasses(Registries& registries) noexcept {
  static const ClassRecord hierarchy{HierarchyObject::kClassId,
                                     "HierarchyObjectImpl",
                                     "hierarchy",
                                     &CreateInstance<HierarchyObjectImpl>,
                                     nullptr,
                                     {},
                                     kHierarchyInterfaces,
                                     {}};
  RegisterKernelClass(registries, hierarchy);
  // The command framework's components: classes that command data classes are built on, with no
  // instances of their own.
  static const ClassRecord dictionary{kDataDictionaryClassId,
                                      "DataDictionaryComponent",
                                      "command",
                                      nullptr,
                                      nullptr,
                                      {},
                                      kDictionaryInterfaces,
                                      {}};
  RegisterKernelClass(registries, dictionary);
  static const ClassRecord observer{kCommandObserverClassId,
                                    "CommandObserverComponent",
                                    "command",
                                    nullptr,
                                    nullptr,
                                    {},
                                    kObserverInterfaces,
                                    {}};
  RegisterKernelClass(registries, observer);
}
}  // namespace
}  // namespace detail

Result<Ref<Object>> ClassInfo::Create() const noexcept {
  if (_record.create == nullptr) return NullReferenceError("Class has no creation function.");
  Ref<Object> object(_record.create());
  if (!object) return NullReferenceError("Class could not create an instance.");
  object->SetClass(this);
  TARNI_TRY(object->Init());
  return object;
}

const StaticFunction* ClassInfo::FindStatic(std::string_view name) const noexcept {
  for (const StaticFunction& function : _record.statics)
    if (name == function.name) return &function;
  return nullptr;
}

bool ClassInfo::HasBase(const Id& classId) const noexcept {
  for (const Id& base : _record.baseClasses)
    if (base == classId) return true;
  return false;
}

Result<const ClassInfo*> RegisterClass(const ClassRecord& record) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  if (registries.classes.Find(record.classId) != nullptr)
    return IllegalStateError("Illegal state: class id already registered.");
  // The classes a class is built on are resolved when it is registered, before any instance can
  // be made: a module loaded into a framework that lacks one fails to load, naming it.
  for (const Id& base : record.baseClasses) {
    if (registries.classes.Find(base) != nullptr) continue;
    TextBuilder message;
    message.Append("Unresolved: class ")
        .Append(record.classId.GetText())
        .Append(" is built on class ")
        .Append(base.GetText())
        .Append(", which is not registered.");
    return Error::MakeCopy(ErrorKind::kUnresolved, message.GetView());
  }
  auto* info = New<ClassInfo>(record);
  if (info == nullptr) return OutOfMemoryError();
  if (auto inserted = registries.classes.Insert(record.classId, info); !inserted) {
    Delete(info);
    return inserted.error();
  }
  return static_cast<const ClassInfo*>(info);
}

void UnregisterClass(const Id& classId) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  ClassInfo** info = registries.classes.Find(classId);
  if (info == nullptr) return;
  // Instances keep pointing at their ClassInfo, so it is kept (retired); only the registration
  // goes.
  if (!registries.retired.Append(*info)) return;  // keep it registered rather than lose it
  registries.classes.Erase(classId);
  registries.generation.fetch_add(1, std::memory_order_acq_rel);
}

const ClassInfo* FindClass(const Id& classId) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  ClassInfo* const* info = registries.classes.Find(classId);
  return info ? *info : nullptr;
}

Result<BaseArray<const ClassInfo*>> ListClasses() noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  BaseArray<const ClassInfo*> list;
  for (const auto& entry : registries.classes) TARNI_TRY(list.Append(entry.value));
  return list;
}

std::uint64_t ClassRegistryGeneration() noexcept {
  return detail::GetRegistries().generation.load(std::memory_order_acquire);
}

Result<Ref<Object>> CreateObject(const Id& classId) noexcept {
  const ClassInfo* info = FindClass(classId);
  if (info == nullptr) return NullReferenceError("Class could not be resolved.");
  return info->Create();
}

const ClassInfo* ClassHandle::Resolve() const noexcept {
  const std::uint64_t generation = ClassRegistryGeneration();
  const ClassInfo* info = _info.load(std::memory_order_acquire);
  if (info != nullptr && _generation.load(std::memory_order_acquire) == generation) return info;
  info = FindClass(_classId);
  _info.store(info, std::memory_order_release);
  _generation.store(generation, std::memory_order_release);
  return info;
}

// Data types and registry entries share the registries' lock.
namespace {
// The index of a registry's entry, or -1; under the registries' lock.
Int EntryIndex(const detail::Registries& registries, const Id& registryId,
               const Id& entryId) noexcept {
  for (Int i = 0; i < registries.entries.GetCount(); ++i) {
    const RegistryEntry& entry = registries.entries[i];
    if (entry.registryId == registryId && entry.entryId == entryId) return i;
  }
  return -1;
}
}  // namespace

// A type is both in the table its lookups use and an entry (without a class) of the data-type
// registry, so that listing the registry shows every registered type; the two come and go
// together.
Result<void> RegisterDataType(const DataType& type) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  if (registries.dataTypes.Find(type.id) != nullptr ||
      EntryIndex(registries, kDataTypesRegistry, type.id) >= 0)
    return IllegalStateError("Illegal state: data type id already registered.");
  TARNI_TRY(registries.dataTypes.Insert(type.id, &type));
  if (auto entry = registries.entries.Append({kDataTypesRegistry, type.id, Id()}); !entry) {
    registries.dataTypes.Erase(type.id);
    return entry;
  }
  return OK;
}

void UnregisterDataType(const Id& id) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  registries.dataTypes.Erase(id);
  if (const Int index = EntryIndex(registries, kDataTypesRegistry, id); index >= 0)
    registries.entries.Erase(index);
}

const DataType* FindDataType(const Id& id) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  const DataType* const* type = registries.dataTypes.Find(id);
  return type ? *type : nullptr;
}

void AppendEnumText(TextBuilder& out, const DataType& type, std::int64_t value) noexcept {
  for (const EnumMember& member : type.enumMembers) {
    if (member.value == value) {
      out.Append(member.name);
      return;
    }
  }
  out.AppendInt(value);
}

Result<void> RegisterEntry(const RegistryEntry& entry) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  if (EntryIndex(registries, entry.registryId, entry.entryId) >= 0)
    return IllegalStateError("Illegal state: registry entry already registered.");
  return registries.entries.Append(entry);
}

void UnregisterEntry(const Id& registryId, const Id& entryId) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  if (const Int index = EntryIndex(registries, registryId, entryId); index >= 0)
    registries.entries.Erase(index);
}

bool FindEntry(const Id& registryId, const Id& entryId, RegistryEntry* found) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  const Int index = EntryIndex(registries, registryId, entryId);
  if (index < 0) return false;
  if (found != nullptr) *found = registries.entries[index];
  return true;
}

Result<BaseArray<RegistryEntry>> ListEntries(const Id& registryId) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  BaseArray<RegistryEntry> list;
  for (const RegistryEntry& entry : registries.entries)
    if (entry.registryId == registryId) TARNI_TRY(list.Append(entry));
  return list;
}

}  // namespace tarni
