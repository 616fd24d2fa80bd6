// Shared by the fuzz targets: registering the statically linked module once, and checking the
// properties every input must keep. A broken property aborts, so libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tarni/ca.h"

namespace tarni::fuzz {

// Registers net.tarni.ca; a target that cannot do so has nothing to fuzz, so it stops.
inline void RegisterModuleOnce() {
  static const bool registered = [] {
    if (auto result = tarni::RegisterModule(tarni::ca::GetModuleBlock()); !result) {
      std::fprintf(stderr, "module registration failed: %.*s\n",
                   static_cast<int>(result.error().GetMessage().size()),
                   result.error().GetMessage().data());
      std::abort();
    }
    return true;
  }();
  (void)registered;
}

// Aborts with `what` (and `detail`, if any) when `condition` does not hold.
inline void Require(bool condition, const char* what, std::string_view detail = {}) {
  if (condition) return;
  std::fprintf(stderr, "broken property: %s %.*s\n", what, static_cast<int>(detail.size()),
               detail.data());
  std::abort();
}

}  // namespace tarni::fuzz
