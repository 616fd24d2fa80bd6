// The solver holds no state, so hosts run one set-up on many threads: rest poses, definitions,
// body parts, settings, the association and the configuration are shared, each thread solves its
// own frames. Under the thread sanitizer this shows there is no race; everywhere it shows that the
// results match a single-threaded run bit for bit and that the shared inputs stay as they were.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/samplecharacter.h"
#include "tarni/retargetbasehelper.h"

namespace tarni {
namespace {

using testing::Ident;
using testing::Must;
using testing::U;

constexpr int kNodes = 24;
constexpr int kFrames = 120;
constexpr int kThreads = 6;
constexpr std::uint64_t kSourceIds = 100;
constexpr std::uint64_t kTargetIds = 500;

// Everything the threads share, built once.
struct SharedSetUp {
  CharacterPoseRef sourceRest, targetRest;
  std::vector<CharacterPoseRef> frames;
  std::vector<CharacterBodyPartRef> parts;  // body, arm, hand
  std::vector<InternedId> identifiers;
  CharacterSolverConfigurationRef config;
  CharacterAssociationRef association;
  CharacterSolverRef solver;
  RetargetBaseHelperRef helper;

  SharedSetUp() {
    sourceRest = testing::ChainPose(kNodes, kSourceIds, 0.1);
    targetRest = testing::ChainPose(kNodes, kTargetIds, 0.05);
    for (int f = 0; f < kFrames; ++f)
      frames.push_back(testing::ChainPose(kNodes, kSourceIds, 0.1 + 0.01 * f));
    config =
        Must(CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId));
    association = CharacterAssociationRef(
        Must(CreateObject<CharacterAssociation>(CharacterAssociation::kClassId)));
    CharacterAssociation* writable = Must(association.MakeWritable());
    for (int i = 0; i < kNodes; ++i)
      EXPECT_TRUE(writable->AssociateUuid(U(kSourceIds + i), U(kTargetIds + i)));
    // Body parts of eight nodes each, nested; the hand stops the weight at itself.
    const char* names[] = {"body", "arm", "hand"};
    const double weights[] = {0.9, 0.8, 0.7};
    for (int p = 0; p < 3; ++p) {
      identifiers.push_back(Ident(names[p]));
      parts.push_back(Must(CreateBodyPart(identifiers[p], testing::Text(names[p]))));
      if (p > 0) {
        EXPECT_TRUE(parts[p - 1]->InsertChild(parts[p]));
      }
      CharacterBodyPartSolverSettingRef setting =
          testing::MakeSetting(identifiers[p], weights[p], p == 1, p == 2);
      setting->SetSettingValue(BodyPartSolverSettingFlag::NOPARENTWEIGHT, p == 2);
      EXPECT_TRUE(config->SetBodyPartSetting(setting));
    }
    EXPECT_TRUE(config->Setup(testing::MakeDefinition(sourceRest, parts[0]),
                              testing::MakeDefinition(targetRest), association));
    solver = Must(CreateObject<CharacterSolver>(CharacterSolver::kClassId));
    helper = Must(CreateObject<RetargetBaseHelper>(RetargetBaseHelper::kClassId));
  }

  // The text of every shared input, to tell afterwards that none changed.
  std::string Text() const {
    std::string text(config->ToString().GetView());
    text += targetRest->ToString().GetView();
    for (const CharacterPoseRef& frame : frames) text += frame->ToString().GetView();
    for (const CharacterBodyPartRef& part : parts) text += part->ToString().GetView();
    return text;
  }
};

// One frame as a host solves it: the source's delta, renamed to the target's nodes, applied to
// each target node with its body part's cumulated weight. Appends the new local matrices.
void SolveFrame(const SharedSetUp& s, const CharacterPoseRef& frame, std::vector<Matrix>& out) {
  const CharacterPoseRef delta = Must(s.solver->ExtractGlobalDeltaPose(s.config, frame));
  ASSERT_TRUE(delta);
  const CharacterPoseRef renamed = Must(s.helper->TranslateSrcToDestID(s.association, delta));
  ASSERT_TRUE(renamed);
  const BaseArray<CharacterNodeTransformRef>& targets = s.targetRest->GetNodeTransformArray();
  for (Int i = 0; i < targets.GetCount(); ++i) {
    const CharacterBodyPartRef& part = s.parts[static_cast<std::size_t>(i / 8)];
    const CharacterNodeTransformRef node =
        Must(renamed->GetNodeTransformByID(targets[i]->GetUuid()));
    const Float64 weight = Must(s.solver->GetCumulatedWeight(part, s.config));
    const CharacterBodyPartSolverSettingRef setting =
        s.config->GetBodyPartSetting(part->GetIdentifier());
    out.push_back(Must(s.solver->ApplyGlobalRotationDelta(targets[i], node, setting, weight)));
  }
}

std::vector<Matrix> SolveAll(const SharedSetUp& s) {
  std::vector<Matrix> out;
  for (const CharacterPoseRef& frame : s.frames) SolveFrame(s, frame, out);
  return out;
}

TEST(CharacterSolverThreads, SharedSetUpSolvesAsOnOneThread) {
  // The threads get a set-up of their own that nothing has solved yet, so the caches poses keep
  // for lookups and extractions, and the inverses target nodes keep, are first made while all of
  // them race for them.
  const SharedSetUp reference;
  const SharedSetUp shared;
  const std::string before = shared.Text();
  ASSERT_EQ(reference.Text(), before);
  // No thread may keep or drop a reference to a shared object.
  auto counts = [&] {
    std::vector<std::int32_t> refs = {shared.config->GetRefCount(),
                                      shared.association.GetRef()->GetRefCount()};
    for (const CharacterPoseRef& pose : {shared.sourceRest, shared.targetRest})
      for (const CharacterNodeTransformRef& node : pose->GetNodeTransformArray())
        refs.push_back(node.GetRef()->GetRefCount());
    return refs;
  };
  const std::vector<std::int32_t> refsBefore = counts();
  const std::vector<Matrix> expected = SolveAll(reference);
  ASSERT_EQ(expected.size(), static_cast<std::size_t>(kNodes * kFrames));
  // The weights reach the result: a frame away from rest moves every node.
  EXPECT_FALSE(expected.back() == expected.front());

  std::vector<std::vector<Matrix>> results(kThreads);
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Every thread starts solving at once, so the shared objects are read concurrently.
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      results[static_cast<std::size_t>(t)] = SolveAll(shared);
    });
  }
  for (std::thread& thread : threads) thread.join();

  for (int t = 0; t < kThreads; ++t) {
    const std::vector<Matrix>& got = results[static_cast<std::size_t>(t)];
    ASSERT_EQ(got.size(), expected.size()) << "thread " << t;
    for (std::size_t i = 0; i < got.size(); ++i)
      ASSERT_TRUE(got[i] == expected[i]) << "thread " << t << ", matrix " << i;
  }
  EXPECT_EQ(shared.Text(), before);
  EXPECT_EQ(counts(), refsBefore);
}

}  // namespace
}  // namespace tarni
