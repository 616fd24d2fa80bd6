// The error record the host's file readers and writers fill in. One record holds one message: the
// first problem found, with the file and line it was found at, so a user can go straight to it.
#pragma once

#include <cstdint>
#include <string>

namespace tarni::host {

struct IoError {
  std::string file;     // as the user named it; empty when the data did not come from a file
  int64_t line = 0;     // 1-based; 0 when the problem has no single line (or the line is unknown)
  std::string message;  // what was expected and what was found

  // "walk.bvh:12: expected 96 values in the frame row, found 95"; the file and the line are left
  // out when unknown.
  std::string ToText() const;
};

}  // namespace tarni::host
