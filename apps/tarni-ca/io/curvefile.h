// Animation curves in the host's JSON curve-file format:
//
//   {"fps": 120,
//    "curves": [{"name": "Hips.Xrotation",
//                "keys": [{"flags": 0, "position": [t, v],
//                          "leftTangent": [x, y], "rightTangent": [x, y]}, ...]}, ...],
//    "ranges": [[min, max], ...]}
//
// "flags" and both tangents may be left out (0 and (-1, -1)); "ranges" is optional and, when
// present, holds one [min, max] pair per curve. Key values are 32-bit floats and are written so
// they read back bit for bit.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "io/bvh.h"
#include "io/ioerror.h"

namespace tarni::host {

struct CurveKey {
  uint32_t flags = 0;
  float position[2] = {0, 0};  // time in seconds, value
  float leftTangent[2] = {-1, -1};
  float rightTangent[2] = {-1, -1};
};

struct Curve {
  std::string name;
  std::vector<CurveKey> keys;  // strictly ascending in time
};

struct CurveFile {
  double fps = 0;
  std::vector<Curve> curves;
  std::vector<std::array<float, 2>> ranges;  // empty, or one [min, max] per curve
};

// Parses curve-file `text`; `fileName` only labels error messages, which name the offending
// place as a path such as "curves[3].keys[17].position" (and the line, for malformed JSON). On
// failure returns false, fills `error` and leaves `file` empty.
bool ReadCurveFile(std::string_view text, std::string_view fileName, CurveFile& file,
                   IoError& error);
// Reads and parses the file at `path`.
bool ReadCurveFile(const std::filesystem::path& path, CurveFile& file, IoError& error);

// Checks what the reader checks on a file already in memory: fps positive and finite, finite key
// numbers, times strictly ascending within each curve, no ranges or one per curve with
// min <= max. `error.file` is left empty.
bool CheckCurveFile(const CurveFile& file, IoError& error);

// Formats `file` as JSON. Keys at their defaults leave out "flags" and the tangents. A number
// that is not finite is written as null, which the reader turns down; a file that passes
// CheckCurveFile reads back identical. Empty only if memory runs out.
std::string WriteCurveFile(const CurveFile& file);
// Checks `file` and writes it to `path` atomically (see WriteFileAtomically).
bool WriteCurveFile(const std::filesystem::path& path, const CurveFile& file, IoError& error);

// One curve per channel of every joint, in column order, named "<joint>.<channel>" (for example
// "Hips.Xrotation"), with one key per frame at time frame / fps holding the channel's value,
// flags 0 and tangents (-1, -1). An `fps` that is not a positive number falls back to the
// motion's own frame rate, and failing that to 1. Values beyond the float range are clamped to it.
// The result has no ranges.
CurveFile CurvesFromBvh(const BvhMotion& motion, double fps);

}  // namespace tarni::host
