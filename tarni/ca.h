// Embedding the module: a host that links the static module library registers it with
//   tarni::RegisterModule(tarni::ca::GetModuleBlock());
// A host that loads the plugin calls tarni::LoadPlugin(path) instead. Either runs the same
// registration list.
#pragma once

#include "tarni/module.h"

namespace tarni::ca {

// The module block g_tarni of net.tarni.ca.
const ModuleBlock& GetModuleBlock() noexcept;

}  // namespace tarni::ca
