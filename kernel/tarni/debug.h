// Debug output: "WARNING: " and "CRITICAL: " lines on standard error (or a sink a host or test
// installs) carrying the source location, and debug stops that break into an attached debugger
// when g_enableDebugBreak allows it.
#pragma once

#include <string_view>

namespace tarni {

// "enable debug breaks (when debugger is attached)": whether an internal error also breaks into an
// attached debugger. Off by default.
extern bool g_enableDebugBreak;

enum class DebugLevel { kWarning, kCritical };

// Receives each finished line (without the line feed).
using DebugSink = void (*)(std::string_view line, void* user);
// Installs a sink (null restores standard error); returns nothing, not thread-safe against output.
void SetDebugSink(DebugSink sink, void* user) noexcept;

// Writes "WARNING: <message> [<file>(<line>)]" (or "CRITICAL: ..."); when a debugger was attached
// at load the location comes first instead, as "<file>(<line>): WARNING: <message>", the form
// debuggers' output windows make clickable.
void DebugOutput(DebugLevel level, std::string_view message, const char* file = __builtin_FILE(),
                 int line = __builtin_LINE()) noexcept;
// A critical line, then a break into the debugger when one is attached and g_enableDebugBreak is
// on.
void DebugStop(std::string_view message, const char* file = __builtin_FILE(),
               int line = __builtin_LINE()) noexcept;
bool IsDebuggerAttached() noexcept;

}  // namespace tarni
