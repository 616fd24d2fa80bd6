// Key reduction speed: the Bezier fitter command on every channel of the shared clips, at three
// strengths, run the way the host runs it (command and data created by id, curves set by id, time
// in frames).
// Reports input keys per second (items) and the share of keys kept ("kept").
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "curvekeys.h"
#include "io/bvh.h"
#include "io/curvefile.h"
#include "tarni/animationcommands.h"
#include "tarni/module.h"

namespace tarni::ca {
const tarni::ModuleBlock& GetModuleBlock() noexcept;
}

namespace {

using namespace tarni;

struct Clip {
  std::string name;
  Shared<KeyCurves> curves;
  std::int64_t keys = 0;
};

std::unique_ptr<Clip> LoadClip(const std::string& relative) {
  const std::filesystem::path path = std::filesystem::path(TARNI_TEST_DATA_DIR) / relative;
  host::BvhMotion motion;
  host::IoError error;
  if (!host::ReadBvh(path, motion, error)) {
    std::fprintf(stderr, "%s\n", error.ToText().c_str());
    return nullptr;
  }
  const host::CurveFile file = host::CurvesFromBvh(motion, 0);
  auto clip = std::make_unique<Clip>();
  clip->name = path.stem().string();
  auto curves = host::ToCommandCurves(file);
  if (!curves) return nullptr;
  for (const KeyArray& keys : curves.value()) clip->keys += keys.GetCount();
  auto shared = MakeShared<KeyCurves>(std::move(curves.value()));
  if (!shared) return nullptr;
  clip->curves = shared.value();
  return clip;
}

void ReduceClip(benchmark::State& state, const Clip* clip, float strength) {
  Ref<CommandData> data = CreateCommandData(kAnimationCommandDataClassId).value();
  Ref<Command> command = CreateCommand(kBezierFitterCommandId).value();
  bool ok = data->Set<std::int32_t>(kProjectFpsId, host::kCommandFramesPerTimeUnit) &&
            data->Set<float>(kKeyReducerStrengthId, strength) &&
            data->Set<std::int32_t>(kKeyReducerMagnetId, 0) &&
            data->Set<bool>(kKeyReducerUseLockedKeysId, false) &&
            data->Set<bool>(kKeyReducerUseKeySelectionId, false);
  if (!ok) {
    state.SkipWithError("command data could not be filled");
    return;
  }
  for (auto _ : state) {
    // The command writes a new curves value; the input is shared, never copied.
    if (!data->SetShared(kAnimationCurvesId, clip->curves) || !command->Execute(*data)) {
      state.SkipWithError("the fitter failed");
      return;
    }
  }
  std::int64_t kept = 0;
  for (const KeyArray& curve : data->GetShared<KeyCurves>(kAnimationCurvesId).value()->value)
    kept += curve.GetCount();
  state.SetItemsProcessed(state.iterations() * clip->keys);
  state.counters["kept"] = static_cast<double>(kept) / static_cast<double>(clip->keys);
  state.counters["keys"] = static_cast<double>(clip->keys);
}

}  // namespace

int main(int argc, char** argv) {
  if (auto registered = RegisterModule(ca::GetModuleBlock()); !registered) {
    std::fprintf(stderr, "module registration failed\n");
    return 1;
  }
  std::vector<std::unique_ptr<Clip>> clips;
  for (const char* relative :
       {"cmu/131_01_walk.bvh", "cmu/01_01_jumps.bvh", "reactidle/003_genuine_idle.bvh"}) {
    std::unique_ptr<Clip> clip = LoadClip(relative);
    if (!clip) {
      std::fprintf(stderr, "skipping %s: not readable under %s\n", relative, TARNI_TEST_DATA_DIR);
      continue;
    }
    for (float strength : {0.1f, 0.3f, 0.6f}) {
      const std::string name =
          "CurveReduction/" + clip->name + "/strength:" + std::to_string(strength).substr(0, 3);
      benchmark::RegisterBenchmark(name.c_str(), &ReduceClip, clip.get(), strength)
          ->Unit(benchmark::kMillisecond);
    }
    clips.push_back(std::move(clip));
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
