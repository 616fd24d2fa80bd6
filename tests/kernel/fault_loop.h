// Drives every allocation of an operation to failure, one at a time.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "tarni/memory.h"

namespace tarni::testing {

// Runs `setup` (unarmed), then `operation` with its n-th kernel allocation failing, for n = 1, 2,
// ... until a run meets no injected fault. `check(result, hit)` sees each run's result and whether
// the fault hit; the last call (hit == false) is the clean run. Returns how many runs failed an
// allocation, so callers can assert the operation allocates at all.
template <typename Setup, typename Operation, typename Check>
std::int64_t ForEachFailingAllocation(Setup&& setup, Operation&& operation, Check&& check) {
  constexpr std::int64_t kLimit = 10000;
  for (std::int64_t n = 1; n <= kLimit; ++n) {
    setup();
    fault::FailNthAllocation(n);
    auto result = operation();
    fault::Disarm();
    const bool hit = fault::Triggered();
    check(result, hit);
    if (!hit) return n - 1;
  }
  ADD_FAILURE() << "operation still allocating after " << kLimit << " runs";
  return kLimit;
}

}  // namespace tarni::testing
