#include "jobs/mappingreport.h"

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "host.h"
#include "io/bvh.h"
#include "retarget/preset.h"
#include "retarget/retargeter.h"

namespace tarni::host {
namespace {

constexpr std::string_view kInspectUsage =
    "usage: tarni-ca inspect FILE.bvh [--preset NAME|FILE.json]\n"
    "\n"
    "Shows the skeleton tree of FILE (with each joint's channels), its frames and frame rate, the\n"
    "match count of every shipped preset (how many joints its keywords pick), and for the chosen\n"
    "preset (the best match, or --preset) the joints each body part picks and those none picks.\n"
    "Joints are paired with another character's by position within a body part, parents first.\n"
    "\n"
    "options:\n"
    "  --preset NAME|FILE     the preset to show (default: the best match)\n"
    "  -h, --help             this text\n";

int UsageError(const std::string& message) {
  PrintError("inspect: " + message + "; see tarni-ca inspect --help");
  return kExitBadInput;
}

}  // namespace

int RunInspect(int argc, char** argv) {
  std::string file;
  std::string presetName;
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      std::fwrite(kInspectUsage.data(), 1, kInspectUsage.size(), stdout);
      return kExitOk;
    } else if (arg == "--preset") {
      if (i + 1 >= argc) return UsageError("--preset needs a name or a .json file");
      presetName = argv[++i];
    } else if (arg.size() > 1 && arg[0] == '-') {
      return UsageError("unknown option '" + std::string(arg) + "'");
    } else if (file.empty()) {
      file = arg;
    } else {
      return UsageError("one file only ('" + std::string(arg) + "' is a second)");
    }
  }
  if (file.empty()) return UsageError("no file");

  IoError error;
  BvhMotion motion;
  if (!ReadBvh(std::filesystem::path(file), motion, error)) {
    PrintError(error.ToText());
    return kExitBadInput;
  }
  std::vector<Preset> shipped;
  if (!LoadShippedPresets(shipped, error) && presetName.empty()) {
    PrintError(error.ToText());
    return kExitBadInput;
  }
  Preset preset;
  if (!presetName.empty()) {
    if (!FindPreset(presetName, preset, error)) {
      PrintError(error.ToText());
      return kExitBadInput;
    }
  } else {
    preset = shipped[static_cast<size_t>(PickPreset(motion, shipped))];
  }
  Character character;
  if (!BuildCharacter(motion, file, preset, -1, PositionChoice::kAuto, character, error)) {
    PrintError(error.ToText());
    return kExitBadInput;
  }

  std::printf("%s\n", file.c_str());
  std::printf("  joints: %zu, frames: %lld, frame rate: %.6g fps\n", motion.joints.size(),
              static_cast<long long>(motion.frameCount), motion.FrameRate());
  std::printf("\nskeleton:\n");
  for (size_t j = 0; j < motion.joints.size(); ++j) {
    int depth = 0;
    for (int p = motion.joints[j].parent; p >= 0; p = motion.joints[static_cast<size_t>(p)].parent)
      ++depth;
    std::string channels;
    for (Channel channel : motion.joints[j].channels) {
      channels += channels.empty() ? "" : " ";
      channels += ChannelName(channel);
    }
    std::printf("  %*s%s (%s)\n", depth * 2, "", motion.joints[j].name.c_str(),
                channels.empty() ? "no channels" : channels.c_str());
  }
  std::printf("\npreset match counts:\n");
  for (const Preset& candidate : shipped)
    std::printf("  %-24s %lld\n", candidate.name.c_str(),
                static_cast<long long>(PresetMatchCount(motion, candidate)));
  std::printf("\nbody parts of %s:\n", preset.name.c_str());
  std::vector<bool> picked(motion.joints.size(), false);
  for (size_t p = 0; p < preset.parts.size(); ++p) {
    const PresetBodyPart& part = preset.parts[p];
    std::string joints;
    for (size_t j = 0; j < motion.joints.size(); ++j) {
      const auto& owner = character.bodyPartOf[j];
      if (!owner || owner->GetIdentifier().GetText() != part.id) continue;
      joints += joints.empty() ? "" : ", ";
      joints += motion.joints[j].name;
      picked[j] = true;
    }
    int depth = 0;
    for (int q = part.parent; q >= 0; q = preset.parts[static_cast<size_t>(q)].parent) ++depth;
    std::printf("  %*s%-*s %s\n", depth * 2, "", 20 - depth * 2, part.id.c_str(),
                joints.empty() ? "-" : joints.c_str());
  }
  std::string unpicked;
  size_t unpickedCount = 0;
  for (size_t j = 0; j < motion.joints.size(); ++j) {
    if (picked[j]) continue;
    unpicked += unpicked.empty() ? "" : ", ";
    unpicked += motion.joints[j].name;
    ++unpickedCount;
  }
  std::printf("\njoints no body part picks (%zu): %s\n", unpickedCount,
              unpicked.empty() ? "none" : unpicked.c_str());
  return kExitOk;
}

}  // namespace tarni::host
