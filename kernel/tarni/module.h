// Modules: a module publishes its module block (g_tarni), which lists its registrations in the
// fixed order they run at load. The kernel loads a plugin from a path, or a host that embeds a
// module's static library hands its block to RegisterModule directly.
#pragma once

#include <cstdint>
#include <string_view>

#include "tarni/array.h"
#include "tarni/id.h"
#include "tarni/result.h"

namespace tarni {

enum class RegistrationKind : std::uint8_t {
  kFramework,         // a framework whose interfaces the module's code uses
  kReflection,        // the module's reflection unit
  kObjectClass,       // an object class in the class registry
  kDataType,          // a data type in net.tarni.registry.datatypes
  kCommandClass,      // a command class in net.tarni.command.registry.commandclasses
  kCommandDataClass,  // a command data class in net.tarni.command.registry.commanddataclasses
};

// "framework", "reflection", "object class", "data type", "command class", "command data class".
std::string_view RegistrationKindText(RegistrationKind kind) noexcept;

struct Registration {
  RegistrationKind kind;
  Id id;
  const char* implementationName;  // the published implementation (or type) name; "" for none
  const char* unit;                // the source unit that runs it
  Result<void> (*run)() noexcept;  // performs the registration; null when it only declares
  void (*undo)() noexcept;         // removes what `run` registered; null when nothing to undo
};

inline constexpr std::uint32_t kModuleAbiVersion = 1;

struct ModuleBlock {
  std::uint32_t abiVersion;
  Id moduleId;
  Id hostModuleId;  // the module every unit references: net.tarni.kernel
  const Registration* registrations;
  std::int64_t registrationCount;
};

// Runs the block's registrations in order. The first error stops the load, undoes the
// registrations that ran, and is returned. A module id already registered: illegal state.
Result<void> RegisterModule(const ModuleBlock& block) noexcept;
// Undoes a module's registrations in reverse order.
void UnregisterModule(const Id& moduleId) noexcept;
const ModuleBlock* FindModule(const Id& moduleId) noexcept;

// Loads a plugin: opens the shared object at `path`, finds its module block g_tarni and registers
// it. The unresolved error (naming the path and the loader's reason) when the file cannot be
// opened or has no block; illegal state for a block of another ABI version.
Result<const ModuleBlock*> LoadPlugin(std::string_view path) noexcept;

}  // namespace tarni
