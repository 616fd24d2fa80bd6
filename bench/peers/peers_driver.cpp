// This project's side of the peer comparison (bench/peers/run.sh): the figures the node scripts
// set beside those of the peer tools, measured through the host's own code and the module's
// interfaces, single-threaded, parsing excluded.
//
//   peers_driver retarget SOURCE.bvh TARGET.bvh [--no-align-rest] [--runs N]
//       The joint map the host's retarget uses (target joint -> source joint, from the shipped
//       preset each skeleton picks, as `tarni-ca retarget` picks it), the target's joint positions
//       at rest as read and as aligned for the solver, and the frames per second of retargeting
//       the whole parsed clip (solver set-up plus every frame built into output rows; median of N
//       runs). JSON on standard output.
//   peers_driver positions MOTION.bvh OUT.f64
//       World positions of every joint in every frame by the host's forward kinematics (position
//       channels read the way the host reads them), as little-endian doubles in frame, joint, xyz
//       order; a JSON header (frames, joint names, parents) on standard output.
//   peers_driver reduce [--strengths S,S,...] [--runs N] CLIP.bvh...
//       Key reduction of every channel of the clips with the module's Bezier fitter command at each
//       strength: keys kept, the largest error at the input keys' times (absolute, and relative to
//       each channel's largest |value|, the scale the fitter's tolerance works in) and the time per
//       input key (median of N runs of the command alone). JSON on standard output.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "curvekeys.h"
#include "io/bvh.h"
#include "io/curvefile.h"
#include "io/heap.h"
#include "motion/curveeval.h"
#include "motion/pose.h"
#include "retarget/keyreduction.h"
#include "retarget/preset.h"
#include "retarget/retargeter.h"
#include "tarni/animationcommands.h"
#include "tarni/module.h"

namespace tarni::ca {
const tarni::ModuleBlock& GetModuleBlock() noexcept;
}

namespace {

using namespace tarni::host;
using Clock = std::chrono::steady_clock;
using nlohmann::json;

constexpr std::string_view kUsage =
    "usage: peers_driver retarget SOURCE.bvh TARGET.bvh [--no-align-rest] [--runs N]\n"
    "       peers_driver positions MOTION.bvh OUT.f64\n"
    "       peers_driver reduce [--strengths S,S,...] [--runs N] CLIP.bvh...\n";

int Usage(const std::string& message) {
  std::fprintf(stderr, "peers_driver: %s\n%.*s", message.c_str(), static_cast<int>(kUsage.size()),
               kUsage.data());
  return 2;
}

int Fail(const std::string& message) {
  std::fprintf(stderr, "peers_driver: %s\n", message.c_str());
  return 1;
}

double Seconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// The middle value (the mean of the two middle values for an even count); 0 for none.
double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t half = values.size() / 2;
  return values.size() % 2 == 1 ? values[half] : 0.5 * (values[half - 1] + values[half]);
}

bool ParseCount(std::string_view text, int& out) {
  try {
    size_t used = 0;
    const int value = std::stoi(std::string(text), &used);
    if (used != text.size() || value < 1) return false;
    out = value;
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// The preset `tarni-ca retarget` takes for a character when none is named: the shipped preset
// whose keywords pick most joints, the first on a tie.
const Preset& PresetFor(const BvhMotion& motion, const std::vector<Preset>& presets) {
  return presets[static_cast<size_t>(std::max(PickPreset(motion, presets), 0))];
}

int RunRetarget(int argc, char** argv) {
  std::vector<std::string> files;
  RetargetOptions options;
  int runs = 7;
  for (int i = 2; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--no-align-rest") {
      options.alignRest = false;
    } else if (arg == "--runs") {
      if (i + 1 >= argc || !ParseCount(argv[++i], runs)) return Usage("--runs needs a count");
    } else {
      files.emplace_back(arg);
    }
  }
  if (files.size() != 2) return Usage("retarget needs a source and a target clip");
  IoError error;
  BvhMotion source, target;
  std::vector<Preset> presets;
  if (!ReadBvh(std::filesystem::path(files[0]), source, error) ||
      !ReadBvh(std::filesystem::path(files[1]), target, error) ||
      !LoadShippedPresets(presets, error))
    return Fail(error.ToText());
  const Preset& sourcePreset = PresetFor(source, presets);
  const Preset& targetPreset = PresetFor(target, presets);

  json map = json::array(), rest = json::array(), aligned = json::array();
  double heightRatio = 1.0;
  std::vector<double> whole, solveOnly;
  // One run more than measured: the first warms caches and the kernel's block pools.
  for (int run = 0; run <= runs; ++run) {
    const Clock::time_point start = Clock::now();
    Retargeter retargeter;
    BvhMotion output;
    if (!retargeter.Setup(source, files[0], sourcePreset, target, files[1], targetPreset, options,
                          error))
      return Fail(error.ToText());
    const Clock::time_point ready = Clock::now();
    if (!retargeter.Run(output, error)) return Fail(error.ToText());
    const Clock::time_point end = Clock::now();
    if (run == 0) {
      for (size_t j = 0; j < target.joints.size(); ++j) {
        const int s = retargeter.SourceOfTarget()[j];
        if (s >= 0)
          map.push_back({target.joints[j].name, source.joints[static_cast<size_t>(s)].name});
        // The target's rest as read and as the solver uses it (aligned unless switched off):
        // where the two differ the peer's output differs by design.
        const tarni::Vector& r = retargeter.Target().restGlobals[j].off;
        const tarni::Vector& a = retargeter.AlignedRestGlobals()[j].off;
        rest.push_back({r.x, r.y, r.z});
        aligned.push_back({a.x, a.y, a.z});
      }
      heightRatio = retargeter.HeightRatio();
      continue;
    }
    whole.push_back(Seconds(start, end));
    solveOnly.push_back(Seconds(ready, end));
  }
  const double median = Median(whole);
  const double frames = static_cast<double>(source.frameCount);
  json out = {{"source", files[0]},
              {"target", files[1]},
              {"sourcePreset", sourcePreset.name},
              {"targetPreset", targetPreset.name},
              {"alignRest", options.alignRest},
              {"frames", source.frameCount},
              {"sourceRoot", source.joints.front().name},
              {"targetRoot", target.joints.front().name},
              {"map", map},
              {"heightRatio", heightRatio},
              {"restPositions", rest},
              {"alignedRestPositions", aligned},
              {"runs", runs},
              {"secondsMedian", median},
              {"framesPerSecond", median > 0 ? frames / median : 0.0},
              {"solveSecondsMedian", Median(solveOnly)},
              {"solveFramesPerSecond", Median(solveOnly) > 0 ? frames / Median(solveOnly) : 0.0}};
  std::printf("%s\n", out.dump(1).c_str());
  return 0;
}

int RunPositions(int argc, char** argv) {
  if (argc != 4) return Usage("positions needs a motion and an output file");
  IoError error;
  BvhMotion motion;
  if (!ReadBvh(std::filesystem::path(argv[2]), motion, error)) return Fail(error.ToText());
  const std::vector<PositionMode> modes = GuessPositionModes(motion);
  std::vector<double> positions;
  positions.reserve(static_cast<size_t>(motion.frameCount) * motion.joints.size() * 3);
  std::vector<tarni::Matrix> locals, globals;
  for (int64_t frame = 0; frame < motion.frameCount; ++frame) {
    ComputeFrame(motion, frame, modes, locals, globals);
    for (const tarni::Matrix& global : globals)
      positions.insert(positions.end(), {global.off.x, global.off.y, global.off.z});
  }
  std::ofstream file(argv[3], std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(positions.data()),
             static_cast<std::streamsize>(positions.size() * sizeof(double)));
  if (!file.flush()) return Fail(std::string("cannot write ") + argv[3]);
  json names = json::array(), parents = json::array();
  for (const BvhJoint& joint : motion.joints) {
    names.push_back(joint.name);
    parents.push_back(joint.parent);
  }
  std::printf("%s\n", json({{"frames", motion.frameCount}, {"joints", names}, {"parents", parents}})
                          .dump()
                          .c_str());
  return 0;
}

struct Clip {
  std::string name;
  CurveFile curves;
  tarni::Shared<tarni::KeyCurves> keys;  // the same curves as the command takes them
  int64_t keyCount = 0;
};

bool LoadClip(const std::string& path, Clip& clip, IoError& error) {
  BvhMotion motion;
  if (!ReadBvh(std::filesystem::path(path), motion, error)) return false;
  clip.name = std::filesystem::path(path).stem().string();
  clip.curves = CurvesFromBvh(motion, 0);
  // The same curves the reduce job hands the command: times in frames.
  auto curves = ToCommandCurves(clip.curves);
  if (!curves) return false;
  for (const tarni::KeyArray& keys : curves.value()) clip.keyCount += keys.GetCount();
  auto shared = tarni::MakeShared<tarni::KeyCurves>(std::move(curves.value()));
  if (!shared) return false;
  clip.keys = shared.value();
  return true;
}

// The fitter command alone over one clip, as a host runs it: data and command created by id,
// the curves handed over shared (the command writes new ones, never touching the input).
bool TimeCommand(const Clip& clip, float strength, double& seconds) {
  auto data = tarni::CreateCommandData(tarni::kAnimationCommandDataClassId);
  auto command = tarni::CreateCommand(tarni::kBezierFitterCommandId);
  if (!data || !command) return false;
  tarni::CommandData& d = *data.value();
  if (!d.Set<int32_t>(tarni::kProjectFpsId, kCommandFramesPerTimeUnit) ||
      !d.Set<float>(tarni::kKeyReducerStrengthId, strength) ||
      !d.Set<int32_t>(tarni::kKeyReducerMagnetId, 0) ||
      !d.Set<bool>(tarni::kKeyReducerUseLockedKeysId, false) ||
      !d.Set<bool>(tarni::kKeyReducerUseKeySelectionId, false) ||
      !d.SetShared(tarni::kAnimationCurvesId, clip.keys))
    return false;
  const Clock::time_point start = Clock::now();
  const bool done = static_cast<bool>(command.value()->Execute(d));
  seconds = Seconds(start, Clock::now());
  return done;
}

int RunReduce(int argc, char** argv) {
  std::vector<float> strengths = {0.05f, 0.1f, 0.15f, 0.2f, 0.3f, 0.4f, 0.5f, 0.7f, 1.0f};
  int runs = 5;
  std::vector<std::string> files;
  for (int i = 2; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--runs") {
      if (i + 1 >= argc || !ParseCount(argv[++i], runs)) return Usage("--runs needs a count");
    } else if (arg == "--strengths") {
      if (i + 1 >= argc) return Usage("--strengths needs a list");
      strengths.clear();
      std::string list = argv[++i];
      for (size_t at = 0; at <= list.size();) {
        const size_t comma = std::min(list.find(',', at), list.size());
        try {
          strengths.push_back(std::stof(list.substr(at, comma - at)));
        } catch (const std::exception&) {
          return Usage("--strengths needs numbers separated by commas");
        }
        at = comma + 1;
      }
    } else {
      files.emplace_back(arg);
    }
  }
  if (files.empty()) return Usage("reduce needs at least one clip");
  std::vector<std::unique_ptr<Clip>> clips;
  json clipList = json::array();
  int64_t keysIn = 0;
  size_t channels = 0;
  for (const std::string& file : files) {
    auto clip = std::make_unique<Clip>();
    IoError error;
    if (!LoadClip(file, *clip, error))
      return Fail(error.message.empty() ? file + ": out of memory" : error.ToText());
    keysIn += clip->keyCount;
    channels += clip->curves.curves.size();
    clipList.push_back({{"name", clip->name},
                        {"channels", clip->curves.curves.size()},
                        {"keys", clip->keyCount},
                        {"fps", clip->curves.fps}});
    clips.push_back(std::move(clip));
  }
  json results = json::array();
  for (float strength : strengths) {
    int64_t keysOut = 0;
    double largest = 0, largestRelative = 0, sum = 0;
    std::string worst;
    for (const auto& clip : clips) {
      CurveFile reduced;
      if (auto done = ReduceCurves(clip->curves, strength, reduced); !done)
        return Fail(clip->name + ": the fitter failed");
      for (size_t c = 0; c < clip->curves.curves.size(); ++c) {
        const std::vector<CurveKey>& in = clip->curves.curves[c].keys;
        const std::vector<CurveKey>& out = reduced.curves[c].keys;
        keysOut += static_cast<int64_t>(out.size());
        double scale = 0;
        for (const CurveKey& key : in) scale = std::max(scale, std::fabs(double{key.position[1]}));
        for (const CurveKey& key : in) {
          const double error = std::fabs(ReducedValueAt(out, key.position[0]) - key.position[1]);
          sum += error;
          if (error > largest) {
            largest = error;
            worst = clip->name + ":" + clip->curves.curves[c].name;
          }
          // A flat channel (the fitter's own threshold) has no meaningful relative error.
          if (scale > 1e-5) largestRelative = std::max(largestRelative, error / scale);
        }
      }
    }
    std::vector<double> times;
    for (int run = 0; run <= runs; ++run) {
      double total = 0;
      for (const auto& clip : clips) {
        double seconds = 0;
        if (!TimeCommand(*clip, strength, seconds)) return Fail(clip->name + ": the fitter failed");
        total += seconds;
      }
      if (run > 0) times.push_back(total);  // the first run only warms up
    }
    const double median = Median(times);
    results.push_back(
        {{"strength", strength},
         {"keysIn", keysIn},
         {"keysOut", keysOut},
         {"maxError", largest},
         {"maxErrorCurve", worst},
         {"maxRelativeError", largestRelative},
         {"meanError", keysIn > 0 ? sum / static_cast<double>(keysIn) : 0.0},
         {"secondsMedian", median},
         {"nsPerKey", keysIn > 0 ? 1e9 * median / static_cast<double>(keysIn) : 0.0}});
  }
  std::printf("%s\n", json({{"clips", clipList},
                            {"channels", channels},
                            {"keys", keysIn},
                            {"runs", runs},
                            {"results", results}})
                          .dump(1)
                          .c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage("no job");
  // As tarni-ca does: the timed runs reuse the memory of the ones before.
  tarni::host::KeepFreedMemoryForReuse();
  if (auto registered = tarni::RegisterModule(tarni::ca::GetModuleBlock()); !registered)
    return Fail("module registration failed");
  const std::string_view job = argv[1];
  if (job == "retarget") return RunRetarget(argc, argv);
  if (job == "positions") return RunPositions(argc, argv);
  if (job == "reduce") return RunReduce(argc, argv);
  return Usage("unknown job '" + std::string(job) + "'");
}
