#include "tarni/module.h"

#include <dlfcn.h>

#include "registries.h"
#include "tarni/string.h"

namespace tarni {

std::string_view RegistrationKindText(RegistrationKind kind) noexcept {
  switch (kind) {
    case RegistrationKind::kFramework:
      return "framework";
    case RegistrationKind::kReflection:
      return "reflection";
    case RegistrationKind::kObjectClass:
      return "object class";
    case RegistrationKind::kDataType:
      return "data type";
    case RegistrationKind::kCommandClass:
      return "command class";
    case RegistrationKind::kCommandDataClass:
      return "command data class";
  }
  return "unknown";
}

namespace {
void Undo(const ModuleBlock& block, std::int64_t count) noexcept {
  for (std::int64_t i = count - 1; i >= 0; --i)
    if (block.registrations[i].undo != nullptr) block.registrations[i].undo();
}
}  // namespace

Result<void> RegisterModule(const ModuleBlock& block) noexcept {
  if (block.abiVersion != kModuleAbiVersion)
    return IllegalStateError("Illegal state: module block of another ABI version.");
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  if (registries.modules.Find(block.moduleId) != nullptr)
    return IllegalStateError("Illegal state: module already registered.");
  for (std::int64_t i = 0; i < block.registrationCount; ++i) {
    const Registration& registration = block.registrations[i];
    if (registration.run == nullptr) continue;
    if (auto done = registration.run(); !done) {
      Undo(block, i);
      return done;
    }
  }
  if (auto inserted = registries.modules.Insert(block.moduleId, &block); !inserted) {
    Undo(block, block.registrationCount);
    return inserted;
  }
  return OK;
}

void UnregisterModule(const Id& moduleId) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  const ModuleBlock* const* block = registries.modules.Find(moduleId);
  if (block == nullptr) return;
  Undo(**block, (*block)->registrationCount);
  registries.modules.Erase(moduleId);
}

const ModuleBlock* FindModule(const Id& moduleId) noexcept {
  auto& registries = detail::GetRegistries();
  std::lock_guard lock(registries.mutex);
  const ModuleBlock* const* block = registries.modules.Find(moduleId);
  return block ? *block : nullptr;
}

Result<const ModuleBlock*> LoadPlugin(std::string_view path) noexcept {
  auto pathText = String::Make(path);
  if (!pathText) return pathText.error();
  void* handle = dlopen(pathText->GetCString(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    TextBuilder message;
    message.Append("cannot load module ").Append(path).Append(": ");
    const char* reason = dlerror();
    message.Append(reason ? reason : "unknown reason");
    return Error::MakeCopy(ErrorKind::kUnresolved, message.GetView());
  }
  const auto* block = static_cast<const ModuleBlock*>(dlsym(handle, "g_tarni"));
  if (block == nullptr) {
    TextBuilder message;
    message.Append("cannot load module ").Append(path).Append(": it has no module block g_tarni");
    dlclose(handle);
    return Error::MakeCopy(ErrorKind::kUnresolved, message.GetView());
  }
  if (auto registered = RegisterModule(*block); !registered) {
    dlclose(handle);
    return registered.error();
  }
  // The plugin stays loaded for the life of the process: its classes may be in use anywhere.
  return block;
}

}  // namespace tarni
