// Test entry point: registers the statically linked module once, then runs the suites.
#include <gtest/gtest.h>

#include "tarni/ca.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (auto registered = tarni::RegisterModule(tarni::ca::GetModuleBlock()); !registered) {
    std::fprintf(stderr, "module registration failed: %.*s\n",
                 static_cast<int>(registered.error().GetMessage().size()),
                 registered.error().GetMessage().data());
    return 1;
  }
  return RUN_ALL_TESTS();
}
