#include "jobs/demo.h"

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "host.h"
#include "io/atomicfile.h"
#include "io/bvh.h"
#include "io/curvefile.h"
#include "motion/demogen.h"
#include "motion/svg.h"
#include "retarget/keyreduction.h"
#include "retarget/preset.h"
#include "retarget/retargeter.h"

namespace tarni::host {
namespace {

constexpr std::string_view kDemoUsage =
    "usage: tarni-ca demo [-o DIR]\n"
    "\n"
    "Needs no input. Generates a walking humanoid (walk.bvh), retargets the walk onto a second\n"
    "generated skeleton with other joint names, proportions and joint count (target.bvh holds\n"
    "its rest pose, walk-retargeted.bvh the result), key-reduces the result with the Bezier\n"
    "fitter (walk-retargeted.curves.json) and draws both characters side by side as stick\n"
    "figures at a few frames (walk.svg). Prints what it did.\n"
    "\n"
    "options:\n"
    "  -o, --output DIR   where to write (default ./tarni-ca-demo)\n"
    "  -h, --help         this text\n";

constexpr float kDemoStrength = 0.3f;

}  // namespace

int RunDemo(int argc, char** argv) {
  std::filesystem::path folder = "tarni-ca-demo";
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "-h" || arg == "--help") {
      std::fwrite(kDemoUsage.data(), 1, kDemoUsage.size(), stdout);
      return kExitOk;
    } else if ((arg == "-o" || arg == "--output") && i + 1 < argc) {
      folder = argv[++i];
    } else {
      PrintError("demo: unexpected argument '" + std::string(arg) + "'; see tarni-ca demo --help");
      return kExitBadInput;
    }
  }
  std::error_code failed;
  std::filesystem::create_directories(folder, failed);
  if (failed) {
    PrintError("demo: cannot make the folder " + folder.string() + ": " + failed.message());
    return kExitFailure;
  }

  const BvhMotion walk = MakeWalkingHumanoid();
  const BvhMotion target = MakeTargetSkeleton();
  IoError error;
  std::vector<Preset> presets;
  if (!LoadShippedPresets(presets, error)) {
    PrintError(error.ToText());
    return kExitFailure;
  }
  int64_t walkMatches = 0, targetMatches = 0;
  const Preset& walkPreset = presets[static_cast<size_t>(PickPreset(walk, presets, &walkMatches))];
  const Preset& targetPreset =
      presets[static_cast<size_t>(PickPreset(target, presets, &targetMatches))];

  Retargeter retargeter;
  BvhMotion retargeted;
  if (!retargeter.Setup(walk, "walk.bvh", walkPreset, target, "target.bvh", targetPreset, {},
                        error) ||
      !retargeter.Run(retargeted, error)) {
    PrintError(error.ToText());
    return kExitFailure;
  }
  const CurveFile curves = CurvesFromBvh(retargeted, 0.0);
  CurveFile reduced;
  if (auto done = ReduceCurves(curves, kDemoStrength, reduced); !done) {
    PrintError("demo: key reduction failed: " + ErrorText(done.error()));
    return kExitFailure;
  }
  const ReductionMeasure measure = MeasureReduction(curves, reduced);

  std::vector<int64_t> frames;
  for (int k = 0; k < 5; ++k) frames.push_back(k * (walk.frameCount - 1) / 8);
  std::vector<StickFigureRow> rows(2);
  rows[0].title = "source: generated walk (" + std::to_string(walk.joints.size()) + " joints)";
  rows[0].motion = &walk;
  rows[0].frames = frames;
  rows[1].title = "target: other skeleton (" + std::to_string(target.joints.size()) + " joints)";
  rows[1].motion = &retargeted;
  rows[1].frames = frames;
  StickFigureOptions figureOptions;
  figureOptions.view = FigureView::kSide;
  figureOptions.title = "tarni-ca demo: the walk retargeted";
  const std::string svg = StickFiguresSvg(rows, figureOptions);

  const std::filesystem::path walkPath = folder / "walk.bvh";
  const std::filesystem::path targetPath = folder / "target.bvh";
  const std::filesystem::path outputPath = folder / "walk-retargeted.bvh";
  const std::filesystem::path curvesPath = folder / "walk-retargeted.curves.json";
  const std::filesystem::path svgPath = folder / "walk.svg";
  if (!WriteBvh(walkPath, walk, error) || !WriteBvh(targetPath, target, error) ||
      !WriteBvh(outputPath, retargeted, error) || !WriteCurveFile(curvesPath, reduced, error) ||
      !WriteFileAtomically(svgPath, svg, error)) {
    PrintError(error.ToText());
    return kExitFailure;
  }

  std::printf(
      "generated a walk:      %s (%zu joints, %lld frames at %.6g fps; preset %s, %lld "
      "joints matched)\n",
      walkPath.string().c_str(), walk.joints.size(), static_cast<long long>(walk.frameCount),
      walk.FrameRate(), walkPreset.name.c_str(), static_cast<long long>(walkMatches));
  std::printf("target skeleton:       %s (%zu joints; preset %s, %lld joints matched)\n",
              targetPath.string().c_str(), target.joints.size(), targetPreset.name.c_str(),
              static_cast<long long>(targetMatches));
  std::printf(
      "retargeted:            %s (%lld frames, %d of %zu target joints driven, height "
      "ratio %.3f)\n",
      outputPath.string().c_str(), static_cast<long long>(retargeted.frameCount),
      retargeter.MappedJointCount(), target.joints.size(), retargeter.HeightRatio());
  const double kept = measure.keysIn == 0 ? 0.0 : 100.0 * measure.keysOut / measure.keysIn;
  std::printf(
      "key-reduced:           %s (%zu curves, %zu keys -> %zu, %.1f%% kept, largest "
      "error %.4g in %s)\n",
      curvesPath.string().c_str(), reduced.curves.size(), measure.keysIn, measure.keysOut, kept,
      measure.largestError, measure.worstCurve.c_str());
  std::printf("drawing:               %s (frames", svgPath.string().c_str());
  for (int64_t frame : frames) std::printf(" %lld", static_cast<long long>(frame));
  std::printf(")\n");
  return kExitOk;
}

}  // namespace tarni::host
