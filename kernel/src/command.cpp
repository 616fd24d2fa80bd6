#include "tarni/command.h"

namespace tarni {

Result<Ref<Command>> CreateCommand(const Id& commandId) noexcept {
  RegistryEntry entry;
  if (!FindEntry(kCommandClassesRegistry, commandId, &entry))
    return NullReferenceError("Command class could not be resolved.");
  return CreateObject<Command>(entry.classId);
}

Result<Ref<CommandData>> CreateCommandData(const Id& dataClassId) noexcept {
  RegistryEntry entry;
  if (!FindEntry(kCommandDataClassesRegistry, dataClassId, &entry))
    return NullReferenceError("Command data class could not be resolved.");
  return CreateObject<CommandData>(entry.classId);
}

}  // namespace tarni
