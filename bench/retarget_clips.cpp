// Retargeting speed on the shared clips: BVH parsing in MB/s (bytes), and the whole road of a
// retarget (forward kinematics, delta extraction, renaming, delta application, Euler angles back
// into the frame rows) in frames per second (items), parsing excluded. Each clip is retargeted
// onto the idle clip's skeleton, the idle clip onto the jumps' skeleton.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "io/atomicfile.h"
#include "io/bvh.h"
#include "io/heap.h"
#include "retarget/preset.h"
#include "retarget/retargeter.h"
#include "tarni/module.h"

namespace tarni::ca {
const tarni::ModuleBlock& GetModuleBlock() noexcept;
}

namespace {

using namespace tarni::host;

std::filesystem::path DataPath(const std::string& relative) {
  return std::filesystem::path(TARNI_TEST_DATA_DIR) / relative;
}

void ParseClip(benchmark::State& state, const std::string* text, const std::string* name) {
  for (auto _ : state) {
    BvhMotion motion;
    IoError error;
    if (!ReadBvh(*text, *name, motion, error)) {
      state.SkipWithError(error.ToText().c_str());
      return;
    }
    benchmark::DoNotOptimize(motion.values.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(text->size()));
}

// The clip written back as BVH text, as each retargeted clip is before it goes to its file.
void WriteClip(benchmark::State& state, const BvhMotion* motion) {
  int64_t bytes = 0;
  for (auto _ : state) {
    const std::string text = WriteBvh(*motion);
    if (text.empty()) {
      state.SkipWithError("the clip could not be written");
      return;
    }
    bytes += static_cast<int64_t>(text.size());
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(bytes);
}

struct Pair {
  BvhMotion source;
  BvhMotion target;
  std::vector<Preset> presets;
};

void RetargetClip(benchmark::State& state, const Pair* pair) {
  const Preset& sourcePreset =
      pair->presets[static_cast<size_t>(PickPreset(pair->source, pair->presets))];
  const Preset& targetPreset =
      pair->presets[static_cast<size_t>(PickPreset(pair->target, pair->presets))];
  for (auto _ : state) {
    Retargeter retargeter;
    IoError error;
    BvhMotion output;
    if (!retargeter.Setup(pair->source, "source", sourcePreset, pair->target, "target",
                          targetPreset, {}, error) ||
        !retargeter.Run(output, error)) {
      state.SkipWithError(error.ToText().c_str());
      return;
    }
    benchmark::DoNotOptimize(output.values.data());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * pair->source.frameCount);
}

}  // namespace

int main(int argc, char** argv) {
  // As tarni-ca does: each iteration reuses the buffers of the one before.
  KeepFreedMemoryForReuse();
  if (auto registered = tarni::RegisterModule(tarni::ca::GetModuleBlock()); !registered) {
    std::fprintf(stderr, "module registration failed\n");
    return 1;
  }
  const std::vector<std::string> clips = {"cmu/131_01_walk.bvh", "cmu/01_01_jumps.bvh",
                                          "reactidle/003_genuine_idle.bvh"};
  std::vector<std::unique_ptr<std::string>> texts, names;
  std::vector<std::unique_ptr<Pair>> pairs;
  IoError error;
  std::vector<Preset> presets;
  if (!LoadShippedPresets(presets, error)) {
    std::fprintf(stderr, "%s\n", error.ToText().c_str());
    return 1;
  }
  for (size_t i = 0; i < clips.size(); ++i) {
    auto text = std::make_unique<std::string>();
    if (!ReadWholeFile(DataPath(clips[i]), *text, error)) {
      std::fprintf(stderr, "skipping %s: %s\n", clips[i].c_str(), error.ToText().c_str());
      continue;
    }
    auto name = std::make_unique<std::string>(clips[i]);
    benchmark::RegisterBenchmark(("parse/" + clips[i]).c_str(), &ParseClip, text.get(), name.get())
        ->Unit(benchmark::kMillisecond);
    auto pair = std::make_unique<Pair>();
    pair->presets = presets;
    const std::string onto = i == 2 ? clips[1] : clips[2];
    if (!ReadBvh(DataPath(clips[i]), pair->source, error) ||
        !ReadBvh(DataPath(onto), pair->target, error)) {
      std::fprintf(stderr, "skipping %s: %s\n", clips[i].c_str(), error.ToText().c_str());
      continue;
    }
    benchmark::RegisterBenchmark(("write/" + clips[i]).c_str(), &WriteClip, &pair->source)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("retarget/" + clips[i]).c_str(), &RetargetClip, pair.get())
        ->Unit(benchmark::kMillisecond);
    texts.push_back(std::move(text));
    names.push_back(std::move(name));
    pairs.push_back(std::move(pair));
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
