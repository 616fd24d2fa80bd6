#include "jobs/reduce.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "curvekeys.h"
#include "host.h"
#include "io/atomicfile.h"
#include "io/bvh.h"
#include "io/curvefile.h"
#include "motion/curveeval.h"
#include "motion/svg.h"
#include "tarni/animationcommands.h"

namespace tarni::host {
namespace {

constexpr float kDefaultStrength = 0.3f;

constexpr std::string_view kReduceUsage =
    "usage: tarni-ca reduce INPUT -o OUTPUT.json [options]\n"
    "\n"
    "Reduces the keys of animation curves to far fewer keys whose Bezier segments follow the\n"
    "input within a tolerance set by the strength. INPUT is a BVH clip (one curve per channel,\n"
    "one key per frame) or a JSON curve file; OUTPUT is a JSON curve file of the same form.\n"
    "A summary tells the curves, the keys in and out, and the largest vertical error of the\n"
    "reduced curves at the input keys' times, with the curve where it occurs.\n"
    "\n"
    "options:\n"
    "  -o, --output PATH      where to write the reduced curves (required)\n"
    "  --strength S           reduction strength, 0 or more (default 0.3); the tolerance is\n"
    "                         S^3 x 0.8 of a curve's largest |value|, a distance measured with\n"
    "                         time in frames, so it bounds mostly the value; 1e-06 or less\n"
    "                         keeps all keys\n"
    "  --magnet FRAMES        pull keys of different curves onto shared times this many frames\n"
    "                         wide (default 0: off)\n"
    "  --use-locked-keys      keep keys flagged as locked where they are (default off)\n"
    "  --use-key-selection    reduce only selected keys, keep the others (default off)\n"
    "  --fps N                frames per second (default: the input file's rate), the frames\n"
    "                         the tolerance counts time in; for a BVH clip it also sets the\n"
    "                         key times\n"
    "  --command NAME         fitter (default) or modification\n"
    "  --curve-type TYPE      with --command modification: fitted (default), linear or flatmax\n"
    "                         (flatmax also writes each curve's value range)\n"
    "  --svg PLOT.svg         also draw the original and reduced curves of the --channel\n"
    "                         curves (default: the first curve) as an SVG plot\n"
    "  --channel NAME         a curve to draw, e.g. Hips.Xrotation; may be repeated\n"
    "  -h, --help             this text\n";

enum class ReduceCommand { kFitter, kModification };

struct Options {
  std::string input;
  std::string output;
  float strength = kDefaultStrength;
  std::int32_t magnet = 0;
  bool useLockedKeys = false;
  bool useKeySelection = false;
  std::optional<double> fps;
  ReduceCommand command = ReduceCommand::kFitter;
  std::optional<ModificationCurveType> curveType;
  std::string svg;                    // where to draw the curves; empty: no drawing
  std::vector<std::string> channels;  // the curves to draw
};

int UsageError(const std::string& message) {
  PrintError("reduce: " + message + "; see tarni-ca reduce --help");
  return kExitBadInput;
}

// Fills `options`; returns -1 to go on, or the exit status to end with.
int ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    auto value = [&](std::string_view& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    std::string_view text;
    if (arg == "-h" || arg == "--help") {
      std::fwrite(kReduceUsage.data(), 1, kReduceUsage.size(), stdout);
      return kExitOk;
    } else if (arg == "-o" || arg == "--output") {
      if (!value(text)) return UsageError(std::string(arg) + " needs a path");
      options.output = text;
    } else if (arg == "--strength") {
      if (!value(text) || !ParseNumber(text, options.strength) ||
          !std::isfinite(options.strength) || options.strength < 0)
        return UsageError("--strength needs a number of 0 or more");
    } else if (arg == "--magnet") {
      if (!value(text) || !ParseNumber(text, options.magnet) || options.magnet < 0)
        return UsageError("--magnet needs a whole number of frames, 0 or more");
    } else if (arg == "--fps") {
      double fps = 0;
      if (!value(text) || !ParseNumber(text, fps) || !std::isfinite(fps) || fps < 0.5 ||
          fps > std::numeric_limits<std::int32_t>::max())
        return UsageError("--fps needs a frame rate of at least 0.5");
      options.fps = fps;
    } else if (arg == "--use-locked-keys") {
      options.useLockedKeys = true;
    } else if (arg == "--use-key-selection") {
      options.useKeySelection = true;
    } else if (arg == "--command") {
      if (!value(text)) return UsageError("--command needs fitter or modification");
      if (text == "fitter") {
        options.command = ReduceCommand::kFitter;
      } else if (text == "modification") {
        options.command = ReduceCommand::kModification;
      } else {
        return UsageError("--command needs fitter or modification, not '" + std::string(text) +
                          "'");
      }
    } else if (arg == "--curve-type") {
      if (!value(text)) return UsageError("--curve-type needs fitted, linear or flatmax");
      if (text == "fitted") {
        options.curveType = ModificationCurveType::Fitted;
      } else if (text == "linear") {
        options.curveType = ModificationCurveType::Linear;
      } else if (text == "flatmax") {
        options.curveType = ModificationCurveType::FlatMaximum;
      } else {
        return UsageError("--curve-type needs fitted, linear or flatmax, not '" +
                          std::string(text) + "'");
      }
    } else if (arg == "--svg") {
      if (!value(text)) return UsageError("--svg needs a path");
      options.svg = text;
    } else if (arg == "--channel") {
      if (!value(text)) return UsageError("--channel needs a curve name such as Hips.Xrotation");
      options.channels.emplace_back(text);
    } else if (arg.size() > 1 && arg[0] == '-') {
      return UsageError("unknown option '" + std::string(arg) + "'");
    } else if (options.input.empty()) {
      options.input = arg;
    } else {
      return UsageError("one input file only ('" + std::string(arg) + "' is a second)");
    }
  }
  if (options.input.empty()) return UsageError("no input file");
  if (options.output.empty()) return UsageError("no output file (-o OUTPUT.json)");
  if (options.curveType && options.command != ReduceCommand::kModification)
    return UsageError("--curve-type goes with --command modification");
  if (!options.channels.empty() && options.svg.empty())
    return UsageError("--channel goes with --svg PLOT.svg");
  return -1;
}

bool IsBvhPath(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension == ".bvh";
}

// Reads INPUT into curves; a BVH clip becomes one curve per channel.
bool ReadInput(const Options& options, CurveFile& curves, IoError& error) {
  if (IsBvhPath(options.input)) {
    BvhMotion motion;
    if (!ReadBvh(std::filesystem::path(options.input), motion, error)) return false;
    curves = CurvesFromBvh(motion, options.fps.value_or(0.0));
    return true;
  }
  if (!ReadCurveFile(std::filesystem::path(options.input), curves, error)) return false;
  if (options.fps) curves.fps = *options.fps;
  return true;
}

// Fills the command data, runs the command and takes its results into `output` (whose curve
// names are already those of the input).
Result<void> RunCommand(const Options& options, const CurveFile& input, CurveFile& output) {
  Ref<CommandData> data = TARNI_TRY(CreateCommandData(kAnimationCommandDataClassId));
  TARNI_TRY(data->Set<KeyCurves>(kAnimationCurvesId, TARNI_TRY(ToCommandCurves(input))));
  TARNI_TRY(data->Set<std::int32_t>(kProjectFpsId, kCommandFramesPerTimeUnit));
  TARNI_TRY(data->Set<float>(kKeyReducerStrengthId, options.strength));
  TARNI_TRY(data->Set<std::int32_t>(kKeyReducerMagnetId, options.magnet));
  TARNI_TRY(data->Set<bool>(kKeyReducerUseLockedKeysId, options.useLockedKeys));
  TARNI_TRY(data->Set<bool>(kKeyReducerUseKeySelectionId, options.useKeySelection));
  const bool modification = options.command == ReduceCommand::kModification;
  if (modification) {
    const auto type = options.curveType.value_or(ModificationCurveType::Fitted);
    TARNI_TRY(data->Set<std::int64_t>(kModificationCurveTypeId, static_cast<std::int64_t>(type)));
  }

  Ref<Command> command = TARNI_TRY(
      CreateCommand(modification ? kReducedModificationCurveCommandId : kBezierFitterCommandId));
  TARNI_TRY(command->Execute(*data));

  const Shared<KeyCurves> curves = TARNI_TRY(data->GetShared<KeyCurves>(kAnimationCurvesId));
  if (curves->value.GetCount() != static_cast<Int>(output.curves.size()))
    return UnexpectedError("The command returned another number of curves.");
  for (size_t c = 0; c < output.curves.size(); ++c) {
    FromCommandCurve(curves->value[static_cast<Int>(c)], input.curves[c], input.fps,
                     output.curves[c].keys);
  }
  if (modification && options.curveType == ModificationCurveType::FlatMaximum) {
    const Shared<MinMaxArray> ranges = TARNI_TRY(data->GetShared<MinMaxArray>(kMinMaxArrId));
    for (size_t c = 0; c < output.curves.size(); ++c) {
      const MinMax& range = ranges->value[static_cast<Int>(c)];
      if (range.minimum > range.maximum) {  // a curve without keys has no range
        PrintError("reduce: curve '" + output.curves[c].name +
                   "' has no keys; its range is written as [0, 0]");
        output.ranges.push_back({0.0f, 0.0f});
      } else {
        output.ranges.push_back({range.minimum, range.maximum});
      }
    }
  }
  return OK;
}

}  // namespace

int RunReduce(int argc, char** argv) {
  Options options;
  if (const int status = ParseOptions(argc, argv, options); status >= 0) return status;

  CurveFile input;
  IoError ioError;
  if (!ReadInput(options, input, ioError)) {
    PrintError(ioError.ToText());
    return kExitBadInput;
  }

  // Channels to draw must exist, so a typo is reported before any file is written.
  if (!options.svg.empty()) {
    if (options.channels.empty() && !input.curves.empty())
      options.channels.push_back(input.curves.front().name);
    for (const std::string& channel : options.channels) {
      const bool known = std::any_of(input.curves.begin(), input.curves.end(),
                                     [&](const Curve& curve) { return curve.name == channel; });
      if (!known) {
        PrintError("reduce: " + options.input + ": no curve named '" + channel + "' to draw");
        return kExitBadInput;
      }
    }
  }

  CurveFile output;
  output.fps = input.fps;
  output.curves.resize(input.curves.size());
  for (size_t c = 0; c < input.curves.size(); ++c) output.curves[c].name = input.curves[c].name;
  const auto start = std::chrono::steady_clock::now();
  if (auto ran = RunCommand(options, input, output); !ran) {
    PrintError("reduce: " + options.input + ": " + ErrorText(ran.error()));
    return ran.error().Is(ErrorKind::kIllegalArgument) ? kExitBadInput : kExitFailure;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  if (!WriteCurveFile(std::filesystem::path(options.output), output, ioError)) {
    PrintError(ioError.ToText());
    return kExitFailure;
  }
  if (!options.svg.empty()) {
    CurvePlotOptions plot;
    plot.title =
        std::filesystem::path(options.input).filename().string() + ": original and reduced";
    const std::string drawing = CurvePlotSvg(input, output, options.channels, plot);
    if (drawing.empty() ||
        !WriteFileAtomically(std::filesystem::path(options.svg), drawing, ioError)) {
      PrintError(drawing.empty() ? "reduce: out of memory while drawing" : ioError.ToText());
      return kExitFailure;
    }
  }

  const ReductionMeasure measure = MeasureReduction(input, output);
  const double kept =
      measure.keysIn == 0 ? 0.0 : 100.0 * static_cast<double>(measure.keysOut) / measure.keysIn;
  std::printf("%s -> %s\n", options.input.c_str(), options.output.c_str());
  std::printf("  curves:        %zu\n", input.curves.size());
  std::printf("  keys in:       %zu\n", measure.keysIn);
  std::printf("  keys out:      %zu (%.2f%% kept)\n", measure.keysOut, kept);
  if (measure.worstCurve.empty()) {
    std::printf("  largest error: 0\n");
  } else {
    std::printf("  largest error: %.6g (worst curve %s, at %.6g s)\n", measure.largestError,
                measure.worstCurve.c_str(), measure.worstTime);
  }
  std::printf("  time:          %.3f s (%.0f keys/s)\n", seconds,
              seconds > 0 ? static_cast<double>(measure.keysIn) / seconds : 0.0);
  return kExitOk;
}

}  // namespace tarni::host
