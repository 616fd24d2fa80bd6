// The error record the host's file readers and writers fill in. One record holds one message: the
// first problem found, with the file and line it was found at, so a user can go straight to it.
#pragma once

#include <cstdint>
#include <exception>
#include <new>
#include <string>
#include <string_view>

namespace tarni::host {

struct IoError {
  std::string file;     // as the user named it; empty when the data did not come from a file
  int64_t line = 0;     // 1-based; 0 when the problem has no single line (or the line is unknown)
  std::string message;  // what was expected and what was found

  // "walk.bvh:12: expected 96 values in the frame row, found 95"; the file and the line are left
  // out when unknown.
  std::string ToText() const;
};

// Runs `read` (a callable returning bool that fills `error` itself on failure) so that nothing it
// throws escapes: running out of memory or any other exception becomes an error naming `file`.
template <typename Read>
bool GuardedIo(std::string_view file, IoError& error, Read&& read) noexcept {
  try {
    return read();
  } catch (const std::bad_alloc&) {
    error = IoError{std::string(file), 0, "out of memory"};
  } catch (const std::exception& e) {
    error = IoError{std::string(file), 0, e.what()};
  }
  return false;
}

}  // namespace tarni::host
