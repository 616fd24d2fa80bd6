// Modules: registration lists run in order and undo on failure, and plugins load from a path.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "tarni/characternodeinfo.h"
#include "tarni/classes.h"
#include "tarni/module.h"

namespace tarni {
namespace {

// What the test rows did, in order.
std::vector<std::string> g_log;
bool g_failSecond = false;

Result<void> RunFirst() noexcept {
  g_log.push_back("run first");
  return OK;
}
void UndoFirst() noexcept { g_log.push_back("undo first"); }
Result<void> RunSecond() noexcept {
  g_log.push_back("run second");
  if (g_failSecond) return UnexpectedError("second refused");
  return OK;
}
void UndoSecond() noexcept { g_log.push_back("undo second"); }
Result<void> RunThird() noexcept {
  g_log.push_back("run third");
  return OK;
}
void UndoThird() noexcept { g_log.push_back("undo third"); }

constexpr Registration kRows[] = {
    {RegistrationKind::kFramework, Id("net.tarni.test.framework"), "", "module", nullptr, nullptr},
    {RegistrationKind::kObjectClass, Id("net.tarni.test.first"), "FirstImpl", "first", &RunFirst,
     &UndoFirst},
    {RegistrationKind::kObjectClass, Id("net.tarni.test.second"), "SecondImpl", "second",
     &RunSecond, &UndoSecond},
    {RegistrationKind::kDataType, Id("net.tarni.test.third"), "Third", "third", &RunThird,
     &UndoThird},
};
constexpr ModuleBlock kBlock{kModuleAbiVersion, Id("net.tarni.test.module"), Id("net.tarni.kernel"),
                             kRows, 4};

TEST(RegisterModule, RunsRowsInOrderAndUndoesThemInReverse) {
  g_log.clear();
  {
    // A failing row stops the load and undoes the rows before it, last first.
    g_failSecond = true;
    auto failed = RegisterModule(kBlock);
    g_failSecond = false;
    EXPECT_EQ(failed.error().GetMessage(), "second refused");
    EXPECT_EQ(g_log, (std::vector<std::string>{"run first", "run second", "undo first"}));
    EXPECT_EQ(FindModule(kBlock.moduleId), nullptr);
  }
  {
    // A clean load runs every row once; a second load of the same id is refused untouched.
    g_log.clear();
    ASSERT_TRUE(RegisterModule(kBlock));
    EXPECT_EQ(g_log, (std::vector<std::string>{"run first", "run second", "run third"}));
    EXPECT_EQ(FindModule(kBlock.moduleId), &kBlock);
    g_log.clear();
    auto again = RegisterModule(kBlock);
    EXPECT_TRUE(again.error().Is(ErrorKind::kIllegalState));
    EXPECT_EQ(again.error().GetMessage(), "Illegal state: module already registered.");
    EXPECT_TRUE(g_log.empty());
  }
  {
    // Unregistering undoes every row, last first, and forgets the module.
    g_log.clear();
    UnregisterModule(kBlock.moduleId);
    EXPECT_EQ(g_log, (std::vector<std::string>{"undo third", "undo second", "undo first"}));
    EXPECT_EQ(FindModule(kBlock.moduleId), nullptr);
  }
  {
    // A block of another layout version is refused before anything runs.
    g_log.clear();
    ModuleBlock other = kBlock;
    other.abiVersion = kModuleAbiVersion + 1;
    auto refused = RegisterModule(other);
    EXPECT_TRUE(refused.error().Is(ErrorKind::kIllegalState));
    EXPECT_EQ(refused.error().GetMessage(), "Illegal state: module block of another ABI version.");
    EXPECT_TRUE(g_log.empty());
  }
  EXPECT_EQ(RegistrationKindText(RegistrationKind::kCommandDataClass), "command data class");
}

std::string PluginPath() {
  const std::string path = TARNI_CA_PLUGIN_PATH;
  EXPECT_TRUE(std::filesystem::exists(path)) << path << ": build the tarni_ca_plugin target";
  return path;
}

TEST(LoadPlugin, FailsCleanlyForLoadedMissingAndForeignFiles) {
  {
    // The module is registered already (statically linked): the plugin's block is refused and
    // the registered module goes on working.
    const ModuleBlock* before = FindModule(Id("net.tarni.ca"));
    ASSERT_NE(before, nullptr);
    auto loaded = LoadPlugin(PluginPath());
    ASSERT_FALSE(loaded);
    EXPECT_TRUE(loaded.error().Is(ErrorKind::kIllegalState));
    EXPECT_EQ(loaded.error().GetMessage(), "Illegal state: module already registered.");
    EXPECT_EQ(FindModule(Id("net.tarni.ca")), before);
    EXPECT_TRUE(CreateNodeInfo(Uuid(), String()));
  }
  {
    // A path that does not exist: the unresolved error naming it.
    const std::string missing = "/nonexistent/dir/net.tarni.ca.so";
    auto loaded = LoadPlugin(missing);
    ASSERT_FALSE(loaded);
    EXPECT_TRUE(loaded.error().Is(ErrorKind::kUnresolved));
    const std::string message(loaded.error().GetMessage());
    EXPECT_TRUE(message.starts_with("cannot load module " + missing + ": ")) << message;
  }
  {
    // A shared object without a module block: the kernel library itself.
    Dl_info info{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&Allocate), &info), 0);
    const std::string kernel = info.dli_fname;
    auto loaded = LoadPlugin(kernel);
    ASSERT_FALSE(loaded);
    EXPECT_TRUE(loaded.error().Is(ErrorKind::kUnresolved));
    EXPECT_EQ(loaded.error().GetMessage(),
              "cannot load module " + kernel + ": it has no module block g_tarni");
  }
}

TEST(LoadPlugin, ThePluginExportsTheModuleBlockAlone) {
  const std::string command = "nm -D --defined-only '" + PluginPath() + "' 2>/dev/null";
  std::FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::vector<std::string> symbols;
  char line[512];
  while (std::fgets(line, sizeof(line), pipe) != nullptr) {
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    if (!text.empty()) symbols.push_back(text.substr(text.rfind(' ') + 1));
  }
  const int status = pclose(pipe);
  if (status != 0 && symbols.empty()) GTEST_SKIP() << "nm is not available";
  EXPECT_EQ(symbols, (std::vector<std::string>{"g_tarni"}));
}

}  // namespace
}  // namespace tarni
