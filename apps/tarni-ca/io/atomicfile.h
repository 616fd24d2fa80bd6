// Whole-file input and output for the host's file formats.
//
// Output goes to a temporary file next to the destination which is renamed over it only once every
// byte has been written, so a crash, a full disk or a failed write never leaves a truncated or
// half-old, half-new file under the destination's name: readers see either the old file or the new.
#pragma once

#include <exception>
#include <filesystem>
#include <string>
#include <string_view>

#include "io/ioerror.h"

namespace tarni::host {

// Replaces (or creates) `path` with exactly `contents`. The temporary lives in the same directory
// (so the rename stays on one file system) and is removed again on any failure. An existing
// destination keeps its permission bits. Returns false and fills `error` (file = path) on failure.
bool WriteFileAtomically(const std::filesystem::path& path, std::string_view contents,
                         IoError& error);

// Writes the text a file format's writer makes, as WriteFileAtomically does, once `check(error)`
// has found the data fit to write. `make()` returns the text, or an empty string when memory ran
// out while making it (no written file is empty). Returns false and fills `error` (file = path)
// when the check, the text or the write fails.
template <typename Check, typename Make>
bool WriteCheckedText(const std::filesystem::path& path, Check&& check, Make&& make,
                      IoError& error) {
  try {
    if (!check(error)) {
      error.file = path.string();
      return false;
    }
    const std::string text = make();
    if (text.empty()) {
      error = IoError{path.string(), 0, "out of memory"};
      return false;
    }
    return WriteFileAtomically(path, text, error);
  } catch (const std::exception& e) {
    error = IoError{path.string(), 0, e.what()};
  }
  return false;
}

// Reads all of `path` into `contents`. Returns false and fills `error` (file = path) on failure.
bool ReadWholeFile(const std::filesystem::path& path, std::string& contents, IoError& error);

}  // namespace tarni::host
