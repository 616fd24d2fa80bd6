// Debug output: the line layout a host and a test sink receive, and debug stops that break only
// into an attached debugger.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/fault_loop.h"
#include "tarni/debug.h"

namespace tarni {
namespace {

void Collect(std::string_view line, void* user) {
  static_cast<std::vector<std::string>*>(user)->emplace_back(line);
}

// Installs the collecting sink for one test and restores standard error afterwards.
class DebugOutputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (IsDebuggerAttached()) GTEST_SKIP() << "under a debugger the location comes first";
    SetDebugSink(&Collect, &lines);
  }
  void TearDown() override {
    SetDebugSink(nullptr, nullptr);
    g_enableDebugBreak = false;
  }
  std::vector<std::string> lines;
};

TEST_F(DebugOutputTest, LinesCarryLevelMessageAndFileNameWithLine) {
  {
    // The file name without directories, either kind of separator.
    DebugOutput(DebugLevel::kWarning, "bone not found", "source/character/charactertree_impl.cpp",
                42);
    DebugOutput(DebugLevel::kCritical, "no rest pose", "C:\\work\\solver.cpp", 7);
    EXPECT_EQ(lines,
              (std::vector<std::string>{"WARNING: bone not found [charactertree_impl.cpp(42)]",
                                        "CRITICAL: no rest pose [solver.cpp(7)]"}));
  }
  {
    // By default the location is the caller's.
    lines.clear();
    const int line = __LINE__ + 1;
    DebugOutput(DebugLevel::kCritical, "here");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "CRITICAL: here [debug_test.cpp(" + std::to_string(line) + ")]");
  }
  {
    // Without a sink the line goes to standard error, ended by a line feed.
    SetDebugSink(nullptr, nullptr);
    ::testing::internal::CaptureStderr();
    DebugOutput(DebugLevel::kWarning, "to stderr", "x/y.cpp", 3);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "WARNING: to stderr [y.cpp(3)]\n");
  }
}

TEST_F(DebugOutputTest, DebugStopBreaksOnlyIntoAnAttachedDebugger) {
  // Enabled breaks and no debugger: a critical line, and the process runs on (a SIGTRAP would
  // end it here).
  g_enableDebugBreak = true;
  DebugStop("solver lost its configuration", "source/solver/charactersolver_impl.cpp", 120);
  g_enableDebugBreak = false;
  DebugStop("again", "a.cpp", 1);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "CRITICAL: solver lost its configuration [charactersolver_impl.cpp(120)]",
                       "CRITICAL: again [a.cpp(1)]"}));
}

TEST_F(DebugOutputTest, OutputGoesOnWhenMemoryRunsOut) {
  // A line may lose its beginning, never the process: every allocation failing in turn.
  auto output = [] {
    DebugOutput(DebugLevel::kWarning, "short of memory", "m.cpp", 9);
    return 0;
  };
  testing::ForEachFailingAllocation(
      [&] { lines.clear(); }, output,
      [&](int, bool hit) {
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_TRUE(hit || lines[0] == "WARNING: short of memory [m.cpp(9)]") << lines[0];
        EXPECT_TRUE(lines[0].ends_with("(9)]")) << lines[0];
      });
}

}  // namespace
}  // namespace tarni
