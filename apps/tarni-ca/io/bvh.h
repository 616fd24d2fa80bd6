// Motion-capture clips in the BVH text format: a joint hierarchy (names, offsets, which channels
// each joint animates) followed by one row of channel values per frame.
//
// The reader takes what capture software writes in practice (CRLF, LF or a mix, any blank space,
// "Frame Time: .0083333", joints with 0, 3 or 6 channels in any order, joints without an End Site)
// and turns down damaged or hostile files with one message naming the file, the line and what was
// expected. Numbers are read and written without any locale, and written so they read back as the
// same doubles.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "io/ioerror.h"

namespace tarni::host {

enum class Channel : uint8_t {
  kXposition,
  kYposition,
  kZposition,
  kXrotation,
  kYrotation,
  kZrotation,
};

// "Xposition" ... "Zrotation", as written in files and in curve names.
std::string_view ChannelName(Channel channel);

struct BvhJoint {
  std::string name;
  int parent = -1;  // index into BvhMotion::joints; -1 for the root
  double offset[3] = {0, 0, 0};
  std::vector<Channel> channels;  // in the order their values appear in a frame row
  bool hasEndSite = false;
  double endSite[3] = {0, 0, 0};  // the End Site's offset, when hasEndSite
};

struct BvhMotion {
  // Pre-order: the root first, every joint followed by its whole subtree, children in file order.
  // This is also the order of the channel columns in a frame row.
  std::vector<BvhJoint> joints;
  int64_t frameCount = 0;
  double frameTime = 0;  // seconds per frame
  // frameCount rows of channelCount values each, row-major.
  std::vector<double> values;
  int channelCount = 0;  // the sum of the joints' channel counts

  // The column of `joint`'s first channel in a frame row (its channels follow in order).
  int ChannelOffset(int joint) const;
  // Frames per second; 0 when frameTime is not a positive number.
  double FrameRate() const;
  // The index of the joint called `name`, or -1.
  int FindJoint(std::string_view name) const;
  // The value of channel `channel` (a column index) in frame `frame`.
  double Value(int64_t frame, int channel) const {
    return values[static_cast<size_t>(frame * channelCount + channel)];
  }
};

// Parses BVH `text`; `fileName` only labels error messages. On failure returns false, fills
// `error` and leaves `motion` empty.
bool ReadBvh(std::string_view text, std::string_view fileName, BvhMotion& motion, IoError& error);
// Reads and parses the file at `path`.
bool ReadBvh(const std::filesystem::path& path, BvhMotion& motion, IoError& error);

// Checks that `motion` is self-consistent and writable as a file that reads back the same: one root
// first, parents before children in pre-order, non-empty unique names that survive the file
// format, 0..6 distinct channels per joint, channelCount and values matching the joints and
// frameCount, finite numbers, a frame time from 1e-06 to 1e+06 seconds (so that every frame gets a
// key time of its own as a 32-bit float). `error.file` is left empty.
bool CheckBvh(const BvhMotion& motion, IoError& error);

// Formats `motion` as BVH text: tab indentation, End Site blocks where present, numbers in their
// shortest form that reads back as the same double. Meant for motions that pass CheckBvh; anything
// else still gives text (never a crash), which the reader may then turn down. Empty only if
// memory runs out.
std::string WriteBvh(const BvhMotion& motion);
// Checks `motion` and writes it to `path` atomically (see WriteFileAtomically).
bool WriteBvh(const std::filesystem::path& path, const BvhMotion& motion, IoError& error);

}  // namespace tarni::host
