// Named registries of entries (command classes, command data classes, data types): each entry maps
// an id to the class or type that serves it, in registration order.
#pragma once

#include "tarni/array.h"
#include "tarni/id.h"
#include "tarni/result.h"

namespace tarni {

struct RegistryEntry {
  Id registryId;
  Id entryId;
  Id classId;  // the class that implements the entry (empty for data types)
};

// Fails with the illegal-state error when the registry already holds the entry id.
Result<void> RegisterEntry(const RegistryEntry& entry) noexcept;
void UnregisterEntry(const Id& registryId, const Id& entryId) noexcept;
// Copies the entry into `*found` and returns true, or returns false when there is none.
bool FindEntry(const Id& registryId, const Id& entryId, RegistryEntry* found) noexcept;
// The entries of one registry in registration order.
Result<BaseArray<RegistryEntry>> ListEntries(const Id& registryId) noexcept;

}  // namespace tarni
