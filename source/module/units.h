// The class records and registration functions each source unit publishes to the registration
// list (registration.cpp).
#pragma once

#include "tarni/classes.h"
#include "tarni/module.h"

namespace tarni::ca {

// Runs the registration of one object class, and undoes it.
template <const ClassRecord& kRecord>
Result<void> RegisterObjectClass() noexcept {
  auto registered = RegisterClass(kRecord);
  if (!registered) return registered.error();
  return OK;
}
template <const ClassRecord& kRecord>
void UnregisterObjectClass() noexcept {
  UnregisterClass(kRecord.classId);
}

// The DescribeIO entry of a class record: the class-level description, without an instance.
template <typename Impl>
Result<void> DescribeClass(Describer& describer) noexcept {
  return Impl::Describe(describer, nullptr);
}

extern const ClassRecord kCharacterNodeInfoClass;
extern const ClassRecord kCharacterNodeTransformClass;

const ModuleBlock& GetModuleBlock() noexcept;

}  // namespace tarni::ca
