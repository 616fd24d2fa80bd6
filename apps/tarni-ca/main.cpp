// tarni-ca: the host application. It loads the module net.tarni.ca as a plugin and runs jobs with
// it through the kernel: every component is created by its id and used through its interfaces.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "host.h"
#include "io/heap.h"
#include "tarni/module.h"

#if __has_include("jobs/reduce.h")
#include "jobs/reduce.h"
#define TARNI_HOST_HAS_REDUCE 1
#endif
#include "jobs/demo.h"
#include "jobs/mappingreport.h"
#include "jobs/retarget.h"

namespace tarni::host {
namespace {

constexpr std::string_view kUsage =
    "usage: tarni-ca [--plugin PATH] COMMAND [ARGS...]\n"
    "\n"
    "Character animation jobs with the module net.tarni.ca.\n"
    "\n"
    "commands:\n"
    "  demo        generate a walking character, retarget it onto another skeleton, key-reduce\n"
    "              it and draw both (no input needed)\n"
    "  inspect     show a BVH skeleton and how a body-part preset maps it\n"
    "  modules     list what the module registers: id, hash word, kind, implementation, unit\n"
#ifdef TARNI_HOST_HAS_REDUCE
    "  reduce      reduce the keys of animation curves (BVH or JSON curves in, JSON curves out)\n"
#endif
    "  retarget    move the motion of BVH clips onto another skeleton\n"
    "\n"
    "options:\n"
    "  --plugin PATH   the module to load (default: $TARNI_CA_PLUGIN, then the installed module,\n"
    "                  then the one in the build tree)\n"
    "  -h, --help      this text; COMMAND --help tells about a command\n";

constexpr std::string_view kPluginFile = "net.tarni.ca.so";

// Where the module is looked for when --plugin does not say.
std::vector<std::string> PluginCandidates() {
  std::vector<std::string> candidates;
  if (const char* fromEnvironment = std::getenv("TARNI_CA_PLUGIN"))
    candidates.emplace_back(fromEnvironment);
  std::error_code error;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) {
    candidates.push_back(
        (exe.parent_path().parent_path() / "lib" / "tarni-ca" / kPluginFile).string());
    candidates.push_back((exe.parent_path() / kPluginFile).string());
  }
  candidates.push_back(std::string(TARNI_CA_PLUGIN_INSTALL_DIR) + "/" + std::string(kPluginFile));
  candidates.push_back(std::string(TARNI_CA_PLUGIN_DIR) + "/" + std::string(kPluginFile));
  return candidates;
}

bool LoadModule(const std::string& requested) {
  if (!requested.empty()) {
    auto loaded = LoadPlugin(requested);
    if (!loaded) {
      PrintError(ErrorText(loaded.error()));
      return false;
    }
    return true;
  }
  for (const std::string& candidate : PluginCandidates()) {
    if (!std::filesystem::exists(candidate)) continue;
    auto loaded = LoadPlugin(candidate);
    if (!loaded) {
      PrintError(ErrorText(loaded.error()));
      return false;
    }
    return true;
  }
  PrintError("cannot find the module " + std::string(kPluginFile) +
             "; name it with --plugin PATH or TARNI_CA_PLUGIN");
  return false;
}

int RunModules(int argc, char** argv) {
  if (argc > 1) {
    if (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h") {
      std::printf(
          "usage: tarni-ca modules\n\nOne line per registration of the module, in the order they "
          "run at load:\nid, hash word (hexadecimal), kind, implementation name, unit.\n");
      return kExitOk;
    }
    PrintError("modules takes no arguments");
    return kExitBadInput;
  }
  const ModuleBlock* block = FindModule(Id("net.tarni.ca"));
  if (block == nullptr) {
    PrintError("the module net.tarni.ca is not loaded");
    return kExitFailure;
  }
  for (std::int64_t i = 0; i < block->registrationCount; ++i) {
    const Registration& entry = block->registrations[i];
    const std::string_view id = entry.id.GetText();
    const std::string_view kind = RegistrationKindText(entry.kind);
    std::printf("%-62.*s %016llx  %-18.*s %-36s %s\n", static_cast<int>(id.size()), id.data(),
                static_cast<unsigned long long>(entry.id.GetHash()), static_cast<int>(kind.size()),
                kind.data(), *entry.implementationName ? entry.implementationName : "-",
                entry.unit);
  }
  return kExitOk;
}

int Main(int argc, char** argv) {
  std::string plugin;
  int first = 1;
  while (first < argc) {
    const std::string_view arg = argv[first];
    if (arg == "--help" || arg == "-h") {
      std::fwrite(kUsage.data(), 1, kUsage.size(), stdout);
      return kExitOk;
    }
    if (arg == "--plugin") {
      if (first + 1 >= argc) {
        PrintError("--plugin needs a path");
        return kExitBadInput;
      }
      plugin = argv[first + 1];
      first += 2;
      continue;
    }
    break;
  }
  if (first >= argc) {
    std::fwrite(kUsage.data(), 1, kUsage.size(), stderr);
    return kExitBadInput;
  }
  const std::string_view command = argv[first];
  int (*run)(int, char**) = nullptr;
  if (command == "modules") run = &RunModules;
  if (command == "retarget") run = &RunRetarget;
  if (command == "inspect") run = &RunInspect;
  if (command == "demo") run = &RunDemo;
#ifdef TARNI_HOST_HAS_REDUCE
  if (command == "reduce") run = &RunReduce;
#endif
  if (run == nullptr) {
    PrintError("unknown command '" + std::string(command) + "'; see tarni-ca --help");
    return kExitBadInput;
  }
  if (!LoadModule(plugin)) return kExitBadInput;
  KeepFreedMemoryForReuse();
  return run(argc - first, argv + first);
}

}  // namespace

void PrintError(std::string_view message) {
  std::fprintf(stderr, "tarni-ca: %.*s\n", static_cast<int>(message.size()), message.data());
}

std::string ErrorText(const Error& error) {
  std::string text(error.GetMessage());
  if (text.empty()) text = std::string(error.GetId().GetText());
  return text;
}

}  // namespace tarni::host

int main(int argc, char** argv) { return tarni::host::Main(argc, argv); }
