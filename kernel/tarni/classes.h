// The class registry: classes are registered by id with their implementation name, creation and
// description functions, base classes, interfaces and static functions, and are created by id.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string_view>

#include "tarni/id.h"
#include "tarni/object.h"
#include "tarni/result.h"

namespace tarni {

// Makes a default instance; nullptr when memory runs out.
using CreateFunction = Object* (*)() noexcept;
// The class-level member description (no instance: member addresses are null).
using DescribeFunction = Result<void> (*)(Describer& describer) noexcept;

// A function a class publishes besides its interfaces (for example its creation function).
struct StaticFunction {
  const char* name;
  void (*function)();  // cast back to the published signature by callers that know it
};

// What a registration hands the registry. All spans refer to static data.
struct ClassRecord {
  Id classId;
  const char* implementationName = "";
  const char* unit = "";
  CreateFunction create = nullptr;
  DescribeFunction describe = nullptr;
  std::span<const Id> baseClasses;
  std::span<const Id> interfaces;
  std::span<const StaticFunction> statics;
};

class ClassInfo {
 public:
  explicit ClassInfo(const ClassRecord& record) noexcept : _record(record) {}
  const ClassRecord& GetRecord() const noexcept { return _record; }
  Id GetId() const noexcept { return _record.classId; }
  std::string_view GetImplementationName() const noexcept { return _record.implementationName; }

  // A new initialised instance. Fails with the null-reference error when no instance can be made,
  // or with the error of the instance's Init.
  Result<Ref<Object>> Create() const noexcept;
  // As Create, typed as interface I (the null-reference error when the class lacks I).
  template <typename I>
  Result<Ref<I>> CreateAs() const noexcept {
    Ref<Object> object = TARNI_TRY(Create());
    Ref<I> typed = Cast<I>(object);
    if (!typed) return NullReferenceError("Class does not implement the requested interface.");
    return typed;
  }
  const StaticFunction* FindStatic(std::string_view name) const noexcept;
  bool HasBase(const Id& classId) const noexcept;

 private:
  ClassRecord _record;
};

// Registers a class. Fails with the illegal-state error when the id is taken.
Result<const ClassInfo*> RegisterClass(const ClassRecord& record) noexcept;
// Removes a class (for module unloading and tests); handles resolve again afterwards.
void UnregisterClass(const Id& classId) noexcept;
// The registered class, or null.
const ClassInfo* FindClass(const Id& classId) noexcept;
// The registered classes in registration order.
Result<BaseArray<const ClassInfo*>> ListClasses() noexcept;
// Changes whenever a class is unregistered, so cached handles know to resolve again.
std::uint64_t ClassRegistryGeneration() noexcept;

// Creates an instance by class id; an unresolvable class gives the null-reference error.
Result<Ref<Object>> CreateObject(const Id& classId) noexcept;
template <typename I>
Result<Ref<I>> CreateObject(const Id& classId) noexcept {
  const ClassInfo* info = FindClass(classId);
  if (info == nullptr) return NullReferenceError("Class could not be resolved.");
  return info->CreateAs<I>();
}

// A module-level handle on a class: resolved on first use and kept; looked up again when empty or
// when classes were unregistered since.
class ClassHandle {
 public:
  constexpr explicit ClassHandle(Id classId) noexcept : _classId(classId) {}
  const ClassInfo* Resolve() const noexcept;
  template <typename I>
  Result<Ref<I>> Create() const noexcept {
    const ClassInfo* info = Resolve();
    if (info == nullptr) return NullReferenceError("Class could not be resolved.");
    return info->CreateAs<I>();
  }
  Id GetId() const noexcept { return _classId; }

 private:
  Id _classId;
  mutable std::atomic<const ClassInfo*> _info{nullptr};
  mutable std::atomic<std::uint64_t> _generation{0};
};

// The standard creation function of an implementation class.
template <typename Impl>
Object* CreateInstance() noexcept {
  return static_cast<Object*>(new Impl());
}

}  // namespace tarni
