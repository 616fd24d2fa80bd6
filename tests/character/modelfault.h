// Drives every out-of-memory path of one operation through the kernel's fault injection.
#pragma once

#include <gtest/gtest.h>

#include "tarni/memory.h"

namespace tarni::testing {

// For n = 1, 2, ...: runs `prepare()` unarmed, then `operation()` with the n-th kernel allocation
// failing, then `check(result)` unarmed for each run that the fault hit. Stops at the first run the
// fault did not reach, which must succeed, and returns the number of runs that failed.
template <typename Prepare, typename Operation, typename Check>
int ForEachFailingAllocation(Prepare&& prepare, Operation&& operation, Check&& check) {
  for (int n = 1; n <= 1000; ++n) {
    prepare();
    fault::FailNthAllocation(n);
    auto result = operation();
    const bool hit = fault::Triggered();
    fault::Disarm();
    if (!hit) {
      EXPECT_TRUE(static_cast<bool>(result)) << "run " << n << " failed without an injected fault";
      return n - 1;
    }
    SCOPED_TRACE(::testing::Message() << "allocation " << n << " failed");
    check(result);
  }
  ADD_FAILURE() << "the operation never ran without an allocation failure";
  return -1;
}

}  // namespace tarni::testing
