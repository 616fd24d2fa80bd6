// The kernel's process-wide registries, behind one lock.
#pragma once

#include <mutex>

#include "tarni/classes.h"
#include "tarni/datatype.h"
#include "tarni/hashmap.h"
#include "tarni/module.h"
#include "tarni/registry.h"

namespace tarni::detail {

struct Registries {
  std::recursive_mutex mutex;
  HashMap<Id, ClassInfo*> classes;
  BaseArray<ClassInfo*> retired;  // unregistered classes, which instances may still point at
  HashMap<Id, const DataType*> dataTypes;
  BaseArray<RegistryEntry> entries;
  HashMap<Id, const ModuleBlock*> modules;
  std::atomic<std::uint64_t> generation{1};
};

// The registries, made on first use with the kernel's own classes and data types registered.
Registries& GetRegistries() noexcept;

}  // namespace tarni::detail
