#include "tarni/debug.h"

#include <csignal>
#include <cstdio>
#include <cstring>

#include "tarni/string.h"

namespace tarni {

bool g_enableDebugBreak = false;

namespace {
DebugSink g_sink = nullptr;
void* g_sinkUser = nullptr;

bool ReadDebuggerAttached() noexcept {
  std::FILE* status = std::fopen("/proc/self/status", "r");
  if (status == nullptr) return false;
  char line[256];
  bool attached = false;
  while (std::fgets(line, sizeof(line), status) != nullptr) {
    if (std::strncmp(line, "TracerPid:", 10) == 0) {
      attached = std::strtol(line + 10, nullptr, 10) != 0;
      break;
    }
  }
  std::fclose(status);
  return attached;
}

// Whether a debugger was attached when the kernel was loaded: decides the line layout.
const bool g_debuggerAtLoad = ReadDebuggerAttached();

std::string_view BaseName(const char* file) noexcept {
  std::string_view name(file ? file : "");
  const std::size_t slash = name.find_last_of("/\\");
  return slash == std::string_view::npos ? name : name.substr(slash + 1);
}
}  // namespace

void SetDebugSink(DebugSink sink, void* user) noexcept {
  g_sink = sink;
  g_sinkUser = user;
}

bool IsDebuggerAttached() noexcept { return ReadDebuggerAttached(); }

void DebugOutput(DebugLevel level, std::string_view message, const char* file, int line) noexcept {
  TextBuilder out;
  const char* prefix = level == DebugLevel::kWarning ? "WARNING: " : "CRITICAL: ";
  if (g_debuggerAtLoad) {
    out.Append(BaseName(file)).Append('(').AppendInt(line).Append("): ");
    out.Append(prefix).Append(message);
  } else {
    out.Append(prefix).Append(message);
    out.Append(" [").Append(BaseName(file)).Append('(').AppendInt(line).Append(")]");
  }
  if (g_sink != nullptr) {
    g_sink(out.GetView(), g_sinkUser);
    return;
  }
  const std::string_view text = out.GetView();
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fputc('\n', stderr);
}

void DebugStop(std::string_view message, const char* file, int line) noexcept {
  DebugOutput(DebugLevel::kCritical, message, file, line);
  if (g_enableDebugBreak && IsDebuggerAttached()) std::raise(SIGTRAP);
}

}  // namespace tarni
