// Whole-file input and output for the host's file formats.
//
// Output goes to a temporary file next to the destination which is renamed over it only once every
// byte has been written, so a crash, a full disk or a failed write never leaves a truncated or
// half-old, half-new file under the destination's name: readers see either the old file or the new.
#pragma once

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

// Reads all of `path` into `contents`. Returns false and fills `error` (file = path) on failure.
bool ReadWholeFile(const std::filesystem::path& path, std::string& contents, IoError& error);

}  // namespace tarni::host
