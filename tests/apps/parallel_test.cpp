// tarni-ca retarget over a batch on several threads: every output must equal, byte for byte, what
// one thread writes, with presets and with one shared solver set-up. Under the thread sanitizer
// the executable halts on the first race, so a clean exit also shows there was none.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "apps/jobrun.h"
#include "io/bvh.h"
#include "motion/demogen.h"

namespace tarni::host {
namespace {

using namespace jobtest;

// Every file of `folder` by name, with its bytes.
std::vector<std::pair<std::string, std::string>> Contents(const fs::path& folder) {
  std::vector<std::pair<std::string, std::string>> files;
  for (const auto& entry : fs::directory_iterator(folder))
    files.emplace_back(entry.path().filename().string(), ReadText(entry.path()));
  std::sort(files.begin(), files.end());
  return files;
}

// Whether two folders hold the same files with the same bytes; names the first difference.
::testing::AssertionResult SameFiles(const fs::path& a, const fs::path& b) {
  const auto left = Contents(a), right = Contents(b);
  if (left.size() != right.size())
    return ::testing::AssertionFailure() << left.size() << " files against " << right.size();
  for (std::size_t i = 0; i < left.size(); ++i) {
    if (left[i].first != right[i].first)
      return ::testing::AssertionFailure() << left[i].first << " against " << right[i].first;
    if (left[i].second != right[i].second)
      return ::testing::AssertionFailure() << left[i].first << " differs";
  }
  return ::testing::AssertionSuccess();
}

TEST(RetargetBatch, ThreadsWriteWhatOneThreadWrites) {
  ScratchDir scratch("parallel");
  // Generated walks of different lengths, rates and strides, so the threads finish out of order;
  // the shared clips join them when they are there.
  std::string walks, sources;
  int walkCount = 0, count = 0;
  for (int i = 0; i < 6; ++i) {
    WalkOptions options;
    options.cycles = 1 + i % 3;
    options.fps = i % 2 == 0 ? 30.0 : 24.0;
    options.strideCm = 80.0 + 10.0 * i;
    const fs::path clip = scratch.path() / ("walk" + std::to_string(i) + ".bvh");
    IoError error;
    ASSERT_TRUE(WriteBvh(clip, MakeWalkingHumanoid(options), error)) << error.ToText();
    walks += " '" + clip.string() + "'";
    ++walkCount;
  }
  sources = walks;
  count = walkCount;
  for (const char* name :
       {"cmu/131_01_walk.bvh", "cmu/01_01_jumps.bvh", "reactidle/003_genuine_idle.bvh"}) {
    const fs::path clip = fs::path(TARNI_TEST_DATA_DIR) / name;
    if (!fs::exists(clip)) continue;
    sources += " '" + clip.string() + "'";
    ++count;
  }
  const fs::path target = scratch.path() / "target.bvh";
  IoError error;
  ASSERT_TRUE(WriteBvh(target, MakeTargetSkeleton(), error)) << error.ToText();
  const std::string onto = " --target '" + target.string() + "'";
  const std::string setup = (scratch.path() / "setup.json").string();

  // Each run: its sources and options, and its output folder. The stored set-up is the first
  // walk's, so only the walks, which share its skeleton, are run with it.
  struct Run {
    std::string arguments;
    std::string folder;
  };
  const Run runs[] = {
      {sources + " -j 1 --reduce 0.3 --save-setup '" + setup + "'", "one"},
      {sources + " -j 4 --reduce 0.3", "four"},
      {walks + " -j 1 --setup '" + setup + "'", "one-setup"},
      {walks + " -j 4 --setup '" + setup + "'", "four-setup"},
  };
  for (const Run& run : runs) {
    const JobRun job =
        RunHost(scratch, "retarget" + run.arguments + onto + " -o " + scratch.Quoted(run.folder));
    ASSERT_EQ(job.status, 0) << run.arguments << "\n" << job.err;
  }
  // With presets: a BVH file and its reduced curves per source.
  EXPECT_EQ(Contents(scratch.path() / "one").size(), static_cast<std::size_t>(2 * count));
  EXPECT_TRUE(SameFiles(scratch.path() / "one", scratch.path() / "four"));
  // With the stored set-up, shared by every thread.
  EXPECT_EQ(Contents(scratch.path() / "one-setup").size(), static_cast<std::size_t>(walkCount));
  EXPECT_TRUE(SameFiles(scratch.path() / "one-setup", scratch.path() / "four-setup"));
}

}  // namespace
}  // namespace tarni::host
