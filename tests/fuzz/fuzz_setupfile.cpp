// The host's set-up reader on arbitrary bytes, and what the retarget job does next with a set-up
// it accepts: drive a solve from it.
//
// Properties checked:
// - reading ends with success or one error naming the file, never a crash, hang, leak or
//   sanitizer report; a refused file gives no configuration;
// - an accepted set-up prints, and its written text reads back and writes again unchanged;
// - the retarget job's set-up from a stored configuration and a solve of one frame end with
//   success or an error with a message, on the demo's walking humanoid and target skeleton.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzzsupport.h"
#include "motion/demogen.h"
#include "retarget/retargeter.h"
#include "retarget/setupfile.h"

namespace {

using namespace tarni::host;

struct Clips {
  BvhMotion source;
  BvhMotion target;
};

const Clips& DemoClips() {
  static const Clips clips = [] {
    WalkOptions walk;
    Clips made{MakeWalkingHumanoid(walk), MakeTargetSkeleton()};
    // One second is plenty: only the first frame is solved.
    const int64_t frames = std::min<int64_t>(made.source.frameCount, 30);
    made.source.values.resize(static_cast<size_t>(frames * made.source.channelCount));
    made.source.frameCount = frames;
    return made;
  }();
  return clips;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarni::fuzz::RegisterModuleOnce();
  const Clips& clips = DemoClips();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  tarni::CharacterSolverConfigurationRef config;
  IoError error;
  if (!ReadSetup(text, "fuzz.json", config, error)) {
    tarni::fuzz::Require(!error.message.empty(), "an error without a message");
    tarni::fuzz::Require(error.file == "fuzz.json", "an error without the file name");
    return 0;
  }
  tarni::fuzz::Require(static_cast<bool>(config), "success without a configuration");
  (void)config->ToString(nullptr);

  std::string written;
  tarni::fuzz::Require(WriteSetup(config, written, error), "an accepted set-up is not written",
                       error.message);
  tarni::CharacterSolverConfigurationRef reread;
  tarni::fuzz::Require(ReadSetup(written, "written.json", reread, error),
                       "a written set-up does not read back", error.ToText());
  std::string again;
  tarni::fuzz::Require(WriteSetup(reread, again, error), "a re-read set-up is not written",
                       error.message);
  tarni::fuzz::Require(again == written, "a written set-up reads back different");

  Retargeter retargeter;
  if (!retargeter.SetupFromConfiguration(config, clips.source, "walk.bvh", clips.target,
                                         "target.bvh", {}, error)) {
    tarni::fuzz::Require(!error.message.empty(), "set-up failed without a message");
    return 0;
  }
  std::vector<tarni::Matrix> locals;
  if (!retargeter.SolveFrame(0, locals, error)) {
    tarni::fuzz::Require(!error.message.empty(), "a frame failed without a message");
  }
  return 0;
}
