#include "jobs/retarget.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host.h"
#include "io/bvh.h"
#include "io/curvefile.h"
#include "retarget/keyreduction.h"
#include "retarget/preset.h"
#include "retarget/retargeter.h"
#include "retarget/setupfile.h"

namespace tarni::host {
namespace {

constexpr std::string_view kRetargetUsage =
    "usage: tarni-ca retarget SOURCE.bvh... --target TARGET.bvh -o OUT [options]\n"
    "\n"
    "Moves the motion of each SOURCE onto the skeleton of TARGET (whose own motion is ignored)\n"
    "with the module's character solver. The output keeps the target's hierarchy, offsets and\n"
    "channel orders. One source writes the BVH file OUT; several write OUT/<source name>.bvh\n"
    "each into the folder OUT. Files are written whole or not at all. A bad source is reported\n"
    "with its file and line (or joint), the others still finish, and the exit status is 2.\n"
    "\n"
    "options:\n"
    "  --target PATH          the skeleton to retarget onto (required)\n"
    "  -o, --output PATH      the output file, or folder for several sources (required)\n"
    "  --preset NAME|FILE     the body-part preset for both characters (default: for each\n"
    "                         character the shipped preset whose keywords pick most joints)\n"
    "  --weight W             global weight of the transfer (default 1)\n"
    "  --rest-frame N         take source frame N as its rest pose (default: zero rotations)\n"
    "  --align-rest           swing the target's rest bones onto the source's rest directions\n"
    "                         first, so arms hanging down and arms held level meet (default)\n"
    "  --no-align-rest        use the target's rest as it is\n"
    "  --position-channels M  auto (default: decided per joint from the data), absolute (the\n"
    "                         values replace the offset) or relative (added to the offset)\n"
    "  --reduce STRENGTH      also key-reduce the output with the Bezier fitter and write the\n"
    "                         curves as JSON next to each BVH file (OUT.curves.json)\n"
    "  --save-setup FILE      write the whole solver set-up (both characters with skeleton\n"
    "                         trees, body parts and rest poses, the association, the settings)\n"
    "                         as JSON; with several sources, that of the first\n"
    "  --setup FILE           use a set-up written by --save-setup (and perhaps tuned) instead\n"
    "                         of presets; joints are matched to its skeletons by name\n"
    "  -j N                   threads for several sources (default: all cores)\n"
    "  -h, --help             this text\n";

struct Options {
  std::vector<std::string> sources;
  std::string target;
  std::string output;
  std::string preset;
  RetargetOptions retarget;
  std::optional<float> reduce;
  std::string setup;
  std::string saveSetup;
  int threads = 0;
};

int UsageError(const std::string& message) {
  PrintError("retarget: " + message + "; see tarni-ca retarget --help");
  return kExitBadInput;
}

int ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    std::string_view text;
    auto value = [&](std::string_view& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    if (arg == "-h" || arg == "--help") {
      std::fwrite(kRetargetUsage.data(), 1, kRetargetUsage.size(), stdout);
      return kExitOk;
    } else if (arg == "--target") {
      if (!value(text)) return UsageError("--target needs a path");
      options.target = text;
    } else if (arg == "-o" || arg == "--output") {
      if (!value(text)) return UsageError(std::string(arg) + " needs a path");
      options.output = text;
    } else if (arg == "--preset") {
      if (!value(text)) return UsageError("--preset needs a name or a .json file");
      options.preset = text;
    } else if (arg == "--weight") {
      if (!value(text) || !ParseNumber(text, options.retarget.weight) ||
          !std::isfinite(options.retarget.weight))
        return UsageError("--weight needs a number");
    } else if (arg == "--rest-frame") {
      if (!value(text) || !ParseNumber(text, options.retarget.restFrame) ||
          options.retarget.restFrame < 0)
        return UsageError("--rest-frame needs a frame number, 0 or more");
    } else if (arg == "--align-rest") {
      options.retarget.alignRest = true;
    } else if (arg == "--no-align-rest") {
      options.retarget.alignRest = false;
    } else if (arg == "--position-channels") {
      if (!value(text)) return UsageError("--position-channels needs auto, absolute or relative");
      if (text == "auto") {
        options.retarget.positions = PositionChoice::kAuto;
      } else if (text == "absolute") {
        options.retarget.positions = PositionChoice::kAbsolute;
      } else if (text == "relative") {
        options.retarget.positions = PositionChoice::kRelative;
      } else {
        return UsageError("--position-channels needs auto, absolute or relative, not '" +
                          std::string(text) + "'");
      }
    } else if (arg == "--reduce") {
      float strength = 0;
      if (!value(text) || !ParseNumber(text, strength) || !std::isfinite(strength) || strength < 0)
        return UsageError("--reduce needs a strength of 0 or more");
      options.reduce = strength;
    } else if (arg == "--setup") {
      if (!value(text)) return UsageError("--setup needs a .json file");
      options.setup = text;
    } else if (arg == "--save-setup") {
      if (!value(text)) return UsageError("--save-setup needs a .json file");
      options.saveSetup = text;
    } else if (arg == "-j" || arg == "--jobs") {
      if (!value(text) || !ParseNumber(text, options.threads) || options.threads < 1)
        return UsageError("-j needs a number of threads, 1 or more");
    } else if (arg.size() > 1 && arg[0] == '-') {
      return UsageError("unknown option '" + std::string(arg) + "'");
    } else {
      options.sources.emplace_back(arg);
    }
  }
  if (options.sources.empty()) return UsageError("no source file");
  if (options.target.empty()) return UsageError("no target skeleton (--target TARGET.bvh)");
  if (options.output.empty()) return UsageError("no output (-o OUT)");
  if (!options.setup.empty() && !options.preset.empty())
    return UsageError("--setup and --preset exclude each other");
  return -1;
}

// The presets in play: the one the user named, or every shipped one to pick from.
struct PresetChoice {
  std::vector<Preset> presets;
  bool forced = false;

  const Preset& For(const BvhMotion& motion) const {
    if (forced) return presets.front();
    const int best = PickPreset(motion, presets);
    return presets[static_cast<size_t>(std::max(best, 0))];
  }
};

struct Outcome {
  bool ok = false;
  bool badInput = true;
  std::string message;
  int64_t frames = 0;  // written, when ok
};

std::filesystem::path CurvesPathFor(const std::filesystem::path& bvh) {
  std::filesystem::path curves = bvh;
  curves.replace_extension(".curves.json");
  return curves;
}

Outcome RetargetOne(const std::string& sourcePath, const std::filesystem::path& outputPath,
                    const BvhMotion& target, const std::string& targetPath,
                    const Preset* targetPreset, const PresetChoice& presets,
                    const tarni::CharacterSolverConfigurationRef& setup, bool saveSetup,
                    const Options& options) {
  Outcome outcome;
  IoError error;
  BvhMotion source;
  if (!ReadBvh(std::filesystem::path(sourcePath), source, error)) {
    outcome.message = error.ToText();
    return outcome;
  }
  Retargeter retargeter;
  const bool ready = setup ? retargeter.SetupFromConfiguration(setup, source, sourcePath, target,
                                                               targetPath, options.retarget, error)
                           : retargeter.Setup(source, sourcePath, presets.For(source), target,
                                              targetPath, *targetPreset, options.retarget, error);
  if (!ready) {
    outcome.message = error.ToText();
    return outcome;
  }
  if (saveSetup &&
      !WriteSetup(std::filesystem::path(options.saveSetup), retargeter.Configuration(), error)) {
    outcome.badInput = false;
    outcome.message = error.ToText();
    return outcome;
  }
  BvhMotion output;
  if (!retargeter.Run(output, error)) {
    outcome.message = error.ToText();
    return outcome;
  }
  if (!WriteBvh(outputPath, output, error)) {
    outcome.badInput = false;
    outcome.message = error.ToText();
    return outcome;
  }
  if (options.reduce) {
    CurveFile reduced;
    if (auto done = ReduceCurves(CurvesFromBvh(output, 0.0), *options.reduce, reduced); !done) {
      outcome.message = sourcePath + ": key reduction failed: " + ErrorText(done.error());
      return outcome;
    }
    if (!WriteCurveFile(CurvesPathFor(outputPath), reduced, error)) {
      outcome.badInput = false;
      outcome.message = error.ToText();
      return outcome;
    }
  }
  outcome.ok = true;
  outcome.frames = output.frameCount;
  return outcome;
}

// "[#########           ] 12/30" on standard error, redrawn in place.
void DrawProgress(size_t done, size_t total) {
  constexpr int kWidth = 30;
  const int filled = total == 0 ? kWidth : static_cast<int>(kWidth * done / total);
  std::string bar(static_cast<size_t>(filled), '#');
  bar.resize(kWidth, ' ');
  std::fprintf(stderr, "\r[%s] %zu/%zu", bar.c_str(), done, total);
  if (done == total) std::fputc('\n', stderr);
  std::fflush(stderr);
}

}  // namespace

int RunRetarget(int argc, char** argv) {
  Options options;
  if (const int status = ParseOptions(argc, argv, options); status >= 0) return status;

  IoError error;
  BvhMotion target;
  if (!ReadBvh(std::filesystem::path(options.target), target, error)) {
    PrintError(error.ToText());
    return kExitBadInput;
  }
  PresetChoice presets;
  tarni::CharacterSolverConfigurationRef setup;
  if (!options.setup.empty()) {
    if (!ReadSetup(std::filesystem::path(options.setup), setup, error)) {
      PrintError(error.ToText());
      return kExitBadInput;
    }
  } else if (!options.preset.empty()) {
    Preset preset;
    if (!FindPreset(options.preset, preset, error)) {
      PrintError(error.ToText());
      return kExitBadInput;
    }
    presets.presets.push_back(std::move(preset));
    presets.forced = true;
  } else if (!LoadShippedPresets(presets.presets, error)) {
    PrintError(error.ToText());
    return kExitBadInput;
  }
  const Preset* targetPreset = setup ? nullptr : &presets.For(target);
  if (targetPreset != nullptr && !CheckPresetJoints(*targetPreset, target, options.target, error)) {
    PrintError(error.ToText());
    return kExitBadInput;
  }

  std::vector<std::filesystem::path> outputs;
  if (options.sources.size() == 1) {
    outputs.emplace_back(options.output);
  } else {
    for (const std::string& source : options.sources) {
      const std::filesystem::path name = std::filesystem::path(source).stem();
      outputs.push_back(std::filesystem::path(options.output) / (name.string() + ".bvh"));
      // One output per source: a second source of the same name would overwrite the first.
      if (std::count(outputs.begin(), outputs.end(), outputs.back()) > 1)
        return UsageError("two sources would both write " + outputs.back().string());
    }
    std::error_code failed;
    std::filesystem::create_directories(options.output, failed);
    if (failed || !std::filesystem::is_directory(options.output)) {
      PrintError("retarget: cannot make the output folder " + options.output);
      return kExitFailure;
    }
  }

  const size_t total = options.sources.size();
  const auto start = std::chrono::steady_clock::now();
  std::vector<Outcome> outcomes(total);
  std::atomic<size_t> next{0};
  std::atomic<size_t> done{0};
  std::mutex progressLock;
  const bool showProgress = total > 1 && ::isatty(STDERR_FILENO) != 0;
  auto work = [&]() {
    for (size_t i = next++; i < total; i = next++) {
      outcomes[i] =
          RetargetOne(options.sources[i], outputs[i], target, options.target, targetPreset, presets,
                      setup, i == 0 && !options.saveSetup.empty(), options);
      const size_t finished = ++done;
      if (showProgress) {
        std::lock_guard<std::mutex> lock(progressLock);
        DrawProgress(finished, total);
      }
    }
  };
  size_t threads = options.threads > 0 ? static_cast<size_t>(options.threads)
                                       : std::max(1u, std::thread::hardware_concurrency());
  threads = std::min(threads, total);
  std::vector<std::thread> pool;
  for (size_t t = 1; t < threads; ++t) pool.emplace_back(work);
  work();
  for (std::thread& thread : pool) thread.join();

  int status = kExitOk;
  size_t written = 0;
  int64_t frames = 0;
  for (const Outcome& outcome : outcomes) {
    if (outcome.ok) {
      ++written;
      frames += outcome.frames;
      continue;
    }
    PrintError(outcome.message);
    status = std::max(status, outcome.badInput ? kExitBadInput : kExitFailure);
  }
  // One line for the log of a batch: what was written, and how fast.
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("retargeted %zu of %zu clip%s onto %s: %lld frames in %.3f s -> %s\n", written, total,
              total == 1 ? "" : "s", options.target.c_str(), static_cast<long long>(frames),
              seconds, options.output.c_str());
  return status;
}

}  // namespace tarni::host
