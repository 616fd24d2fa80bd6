// The host's BVH reader on arbitrary bytes, and what the retarget, inspect and reduce jobs do next
// with a clip it accepts.
//
// Properties checked:
// - reading ends with success or one error, never a crash, hang, leak or sanitizer report;
// - an error has a message and names the file; a refused file leaves the motion empty;
// - an accepted clip passes CheckBvh, is written, and the written text reads back to the same
//   text when written again;
// - its curves (one per channel, as the reduce job makes them) pass the curve-file check, since
//   the reduce job writes them;
// - a small clip goes through preset picking, character building and a retarget onto itself for
//   its first frames, and its set-up is written (or turned down with a message).
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzzsupport.h"
#include "io/bvh.h"
#include "io/curvefile.h"
#include "retarget/preset.h"
#include "retarget/retargeter.h"
#include "retarget/setupfile.h"

namespace {

using namespace tarni::host;

const std::vector<Preset>& Presets() {
  static const std::vector<Preset> presets = [] {
    std::vector<Preset> loaded;
    IoError error;
    tarni::fuzz::Require(LoadShippedPresets(loaded, error), "presets not loaded", error.message);
    return loaded;
  }();
  return presets;
}

// The retarget job's road for a clip onto itself, on its first frames.
void RetargetOntoItself(const BvhMotion& motion) {
  const std::vector<Preset>& presets = Presets();
  const int best = PickPreset(motion, presets);
  tarni::fuzz::Require(best >= 0, "no preset picked");
  const Preset& preset = presets[static_cast<size_t>(best)];
  IoError error;
  if (!CheckPresetJoints(preset, motion, "fuzz.bvh", error)) return;
  Retargeter retargeter;
  RetargetOptions options;
  if (!retargeter.Setup(motion, "fuzz.bvh", preset, motion, "fuzz.bvh", preset, options, error)) {
    tarni::fuzz::Require(!error.message.empty(), "set-up failed without a message");
    return;
  }
  // --save-setup: written, or turned down with a message (names that are not UTF-8).
  std::string setup;
  if (!WriteSetup(retargeter.Configuration(), setup, error)) {
    tarni::fuzz::Require(!error.message.empty(), "a set-up not written without a message");
  }
  std::vector<tarni::Matrix> locals;
  for (int64_t frame = 0; frame < std::min<int64_t>(motion.frameCount, 2); ++frame) {
    if (!retargeter.SolveFrame(frame, locals, error)) {
      tarni::fuzz::Require(!error.message.empty(), "a frame failed without a message");
      return;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarni::fuzz::RegisterModuleOnce();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  BvhMotion motion;
  IoError error;
  if (!ReadBvh(text, "fuzz.bvh", motion, error)) {
    tarni::fuzz::Require(!error.message.empty(), "an error without a message");
    tarni::fuzz::Require(error.file == "fuzz.bvh", "an error without the file name");
    tarni::fuzz::Require(motion.joints.empty() && motion.values.empty(),
                         "a refused file left a motion behind");
    return 0;
  }
  IoError check;
  tarni::fuzz::Require(CheckBvh(motion, check), "an accepted clip fails its check", check.message);

  const std::string written = WriteBvh(motion);
  BvhMotion reread;
  tarni::fuzz::Require(ReadBvh(written, "written.bvh", reread, error),
                       "a written clip does not read back", error.ToText());
  tarni::fuzz::Require(WriteBvh(reread) == written, "a written clip reads back different");

  const CurveFile curves = CurvesFromBvh(motion, 0.0);
  tarni::fuzz::Require(CheckCurveFile(curves, check), "a clip's curves fail the curve-file check",
                       check.message);

  if (motion.joints.size() <= 64 && motion.channelCount <= 64 * 6) RetargetOntoItself(motion);
  return 0;
}
