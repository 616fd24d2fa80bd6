// Retargeting through the module on real clips and generated skeletons, and the retarget job as a
// user runs it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "apps/jobrun.h"

#include "io/bvh.h"
#include "motion/demogen.h"
#include "motion/pose.h"
#include "retarget/keyreduction.h"
#include "retarget/preset.h"
#include "retarget/retargeter.h"
#include "retarget/setupfile.h"

namespace tarni::host {
namespace {

using namespace jobtest;
using tarni::Matrix;
using tarni::Vector;

const char* const kWalk = "cmu/131_01_walk.bvh";
const char* const kJumps = "cmu/01_01_jumps.bvh";
const char* const kIdle = "reactidle/003_genuine_idle.bvh";

fs::path DataPath(const char* name) { return fs::path(TARNI_TEST_DATA_DIR) / name; }

bool LoadClip(const char* name, BvhMotion& motion) {
  IoError error;
  return fs::exists(DataPath(name)) && ReadBvh(DataPath(name), motion, error);
}

std::vector<Preset> Shipped() {
  std::vector<Preset> presets;
  IoError error;
  EXPECT_TRUE(LoadShippedPresets(presets, error)) << error.ToText();
  return presets;
}

const Preset& Pick(const BvhMotion& motion, const std::vector<Preset>& presets) {
  return presets[static_cast<size_t>(std::max(0, PickPreset(motion, presets)))];
}

// The angle between two rotations, accurate near zero (where acos of the trace is not).
double RotationGap(const Matrix& a, const Matrix& b) {
  const Vector d[3] = {a.v1 - b.v1, a.v2 - b.v2, a.v3 - b.v3};
  const double frobenius = std::sqrt(Dot(d[0], d[0]) + Dot(d[1], d[1]) + Dot(d[2], d[2]));
  return 2 * std::asin(std::min(1.0, frobenius / (2 * std::sqrt(2.0))));
}

double DirectionGap(const Vector& a, const Vector& b) {
  return std::atan2(Length(Cross(a, b)), Dot(a, b));
}

struct Retargeted {
  Retargeter retargeter;
  BvhMotion output;
};

void RunRetarget(const BvhMotion& source, const Preset& sourcePreset, const BvhMotion& target,
                 const Preset& targetPreset, Retargeted& result,
                 const RetargetOptions& options = {}) {
  IoError error;
  ASSERT_TRUE(result.retargeter.Setup(source, "source.bvh", sourcePreset, target, "target.bvh",
                                      targetPreset, options, error))
      << error.ToText();
  ASSERT_TRUE(result.retargeter.Run(result.output, error)) << error.ToText();
  ASSERT_EQ(result.output.frameCount, source.frameCount);
  IoError check;
  ASSERT_TRUE(CheckBvh(result.output, check)) << check.ToText();
}

// Worst gaps between a retargeted motion and its source, over every frame: global rotations of
// driven joints, and the root's path against `expectedRoot`.
struct Gaps {
  double rotation = 0;
  double root = 0;
};

Gaps MeasureGaps(const BvhMotion& source, const Retargeted& result, double ratio) {
  const Character& from = result.retargeter.Source();
  const Character& onto = result.retargeter.Target();
  const std::vector<int>& sourceOf = result.retargeter.SourceOfTarget();
  std::vector<Matrix> sl, sg, tl, tg;
  Gaps gaps;
  for (int64_t frame = 0; frame < source.frameCount; ++frame) {
    ComputeFrame(source, frame, from.modes, sl, sg);
    ComputeFrame(result.output, frame, onto.modes, tl, tg);
    for (size_t j = 0; j < sourceOf.size(); ++j) {
      if (sourceOf[j] < 0) continue;
      gaps.rotation =
          std::max(gaps.rotation, RotationGap(sg[static_cast<size_t>(sourceOf[j])], tg[j]));
    }
    // The root walks the source's path from its grounded rest, scaled by the height ratio.
    const Vector expected = onto.restGlobals[0].off + (sg[0].off - from.restGlobals[0].off) * ratio;
    gaps.root = std::max(gaps.root, Length(tg[0].off - expected));
  }
  return gaps;
}

TEST(Retarget, ClipOntoItselfReproducesItsMotion) {
  const std::vector<Preset> presets = Shipped();
  for (const char* name : {kWalk, kJumps, kIdle}) {
    BvhMotion clip;
    if (!LoadClip(name, clip)) GTEST_SKIP() << DataPath(name) << " is not available";
    SCOPED_TRACE(name);
    const Preset& preset = Pick(clip, presets);
    Retargeted result;
    RunRetarget(clip, preset, clip, preset, result);
    EXPECT_DOUBLE_EQ(result.retargeter.HeightRatio(), 1.0);
    EXPECT_GE(result.retargeter.MappedJointCount(), 17);
    const Gaps gaps = MeasureGaps(clip, result, 1.0);
    // The solver turns each delta into a quaternion through square roots of 1 +- the axes'
    // diagonal, so a component near zero carries about sqrt(epsilon) of error: measured worst
    // 1.7e-8 rad on the idle clip, below 1e-9 on the other two.
    EXPECT_LT(gaps.rotation, 1e-7);
    EXPECT_LT(gaps.root, 1e-9 * result.retargeter.Source().hipHeight);
  }
}

// The worst angle, over every frame, between a driven target bone and its source bone, for bones
// that join a joint to its only child, a direct child on both sides. The root's bones are left out:
// one swing cannot lay a pelvis onto another whose hip joints sit wider apart, so the root keeps
// its facing.
double WorstLimbDirectionGap(const BvhMotion& source, const Retargeted& result, int* bones) {
  const BvhMotion& target = result.output;
  const std::vector<int>& sourceOf = result.retargeter.SourceOfTarget();
  std::vector<std::pair<int, int>> limbs;
  for (size_t c = 0; c < target.joints.size(); ++c) {
    const int j = target.joints[c].parent;
    if (j <= 0 || sourceOf[c] < 0 || sourceOf[static_cast<size_t>(j)] < 0) continue;
    if (source.joints[static_cast<size_t>(sourceOf[c])].parent != sourceOf[static_cast<size_t>(j)])
      continue;
    // One swing lays one bone: a joint that branches (a chest) is aligned towards one child only.
    const auto siblings = std::count_if(target.joints.begin(), target.joints.end(),
                                        [&](const BvhJoint& other) { return other.parent == j; });
    if (siblings != 1) continue;
    limbs.emplace_back(j, static_cast<int>(c));
  }
  *bones = static_cast<int>(limbs.size());
  std::vector<Matrix> sl, sg, tl, tg;
  double worst = 0;
  for (int64_t frame = 0; frame < source.frameCount; ++frame) {
    ComputeFrame(source, frame, result.retargeter.Source().modes, sl, sg);
    ComputeFrame(target, frame, result.retargeter.Target().modes, tl, tg);
    for (const auto& [j, c] : limbs) {
      const Vector t = tg[static_cast<size_t>(c)].off - tg[static_cast<size_t>(j)].off;
      const Vector s = sg[static_cast<size_t>(sourceOf[static_cast<size_t>(c)])].off -
                       sg[static_cast<size_t>(sourceOf[static_cast<size_t>(j)])].off;
      worst = std::max(worst, DirectionGap(t, s));
    }
  }
  return worst;
}

TEST(Retarget, AlignedRestKeepsWorldLimbDirectionsAcrossSkeletons) {
  BvhMotion walk, jumps, idle;
  if (!LoadClip(kWalk, walk) || !LoadClip(kJumps, jumps) || !LoadClip(kIdle, idle))
    GTEST_SKIP() << TARNI_TEST_DATA_DIR << " is not available";
  const std::vector<Preset> presets = Shipped();
  // Arms down (the walk) and arms level (the jumps) onto the idle skeleton, and back. Measured
  // worst gaps: 1.1e-12, 1.1e-11, 4.7e-12 and 4.7e-12 rad over 9 bones; 1e-9 leaves room.
  const std::pair<const BvhMotion*, const BvhMotion*> pairs[] = {
      {&walk, &idle}, {&jumps, &idle}, {&idle, &walk}, {&idle, &jumps}};
  for (const auto& [source, target] : pairs) {
    Retargeted result;
    RunRetarget(*source, Pick(*source, presets), *target, Pick(*target, presets), result);
    int bones = 0;
    const double gap = WorstLimbDirectionGap(*source, result, &bones);
    EXPECT_GE(bones, 8);  // upper arms, forearms, thighs and shins at least
    EXPECT_LT(gap, 1e-9) << source->joints[1].name << " onto " << target->joints[1].name;
  }
  // Without alignment the walk's hanging arms are laid onto a rest that holds them differently:
  // the directions part.
  {
    Retargeted result;
    RetargetOptions options;
    options.alignRest = false;
    RunRetarget(walk, Pick(walk, presets), idle, Pick(idle, presets), result, options);
    int bones = 0;
    EXPECT_GT(WorstLimbDirectionGap(walk, result, &bones), 0.1);
  }
}

TEST(Retarget, GeneratedWalkOntoTheOtherSkeletonDrivesEveryJoint) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const BvhMotion target = MakeTargetSkeleton();
  const std::vector<Preset> presets = Shipped();
  Retargeted result;
  RunRetarget(walk, Pick(walk, presets), target, Pick(target, presets), result);
  EXPECT_EQ(result.retargeter.MappedJointCount(), static_cast<int>(target.joints.size()));
  int bones = 0;
  EXPECT_LT(WorstLimbDirectionGap(walk, result, &bones), 1e-9);
  // The taller target takes longer strides: its root travels the ratio farther.
  std::vector<Matrix> l, g;
  ComputeFrame(result.output, result.output.frameCount - 1, result.retargeter.Target().modes, l, g);
  std::vector<Matrix> sl, sg;
  ComputeFrame(walk, walk.frameCount - 1, result.retargeter.Source().modes, sl, sg);
  EXPECT_NEAR(g[0].off.z / sg[0].off.z, result.retargeter.HeightRatio(), 1e-9);
  // A source frame as its rest pose pairs that pose with the target's zero rest: onto the walk's
  // own skeleton, alignment still lays every limb the way the source's points (twist aside).
  // Measured 1.2e-8 rad: the solver's quaternion of a small turn carries sqrt(epsilon).
  {
    RetargetOptions options;
    options.restFrame = 7;
    Retargeted self;
    const Preset& preset = Pick(walk, presets);
    RunRetarget(walk, preset, walk, preset, self, options);
    EXPECT_LT(WorstLimbDirectionGap(walk, self, &bones), 1e-7);
    EXPECT_GT(MeasureGaps(walk, self, 1.0).rotation, 1e-3);
  }
}

TEST(Retarget, WeightsAndSwitchedOffBodyPartsHoldTheRest) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const BvhMotion target = MakeTargetSkeleton();
  const std::vector<Preset> presets = Shipped();
  Preset targetPreset = Pick(target, presets);
  for (PresetBodyPart& part : targetPreset.parts) {
    if (part.id == "leftUpperArm") part.deactivate = true;
  }
  // A switched-off body part keeps its aligned rest rotation in every frame; its mirror moves.
  {
    Retargeted result;
    RunRetarget(walk, Pick(walk, presets), target, targetPreset, result);
    const size_t left = static_cast<size_t>(target.FindJoint("upperarm_l"));
    const size_t right = static_cast<size_t>(target.FindJoint("upperarm_r"));
    std::vector<Matrix> first, middle;
    IoError error;
    ASSERT_TRUE(result.retargeter.SolveFrame(0, first, error)) << error.ToText();
    // A quarter cycle on (half the clip is one whole cycle, the same pose).
    ASSERT_TRUE(result.retargeter.SolveFrame(walk.frameCount / 8, middle, error));
    EXPECT_EQ(first[left], middle[left]);
    EXPECT_GT(RotationGap(first[right], middle[right]), 1e-3);
  }
  // Global weight 0: every driven joint holds its aligned rest, so frames are all alike.
  {
    Retargeted result;
    RetargetOptions options;
    options.weight = 0;
    RunRetarget(walk, Pick(walk, presets), target, Pick(target, presets), result, options);
    const int c = result.output.channelCount;
    for (int64_t frame = 1; frame < result.output.frameCount; ++frame) {
      for (int k = 0; k < c; ++k)
        ASSERT_NEAR(result.output.Value(frame, k), result.output.Value(0, k), 1e-9) << k;
    }
  }
}

// The job as a user runs it: exit status, messages, and never a partial output.
class RetargetJob : public ::testing::Test {
 protected:
  void SetUp() override {
    IoError error;
    ASSERT_TRUE(WriteBvh(_dir.path() / "walk.bvh", MakeWalkingHumanoid(), error)) << error.ToText();
    ASSERT_TRUE(WriteBvh(_dir.path() / "target.bvh", MakeTargetSkeleton(), error));
  }
  std::string PathOf(const std::string& name) const { return _dir.PathOf(name); }
  // Retargets `source` onto target.bvh with `more` arguments (already quoted).
  JobRun Retarget(const std::string& source, const std::string& more) const {
    return RunHost(
        _dir, "retarget " + _dir.Quoted(source) + " --target " + _dir.Quoted("target.bvh") + more);
  }
  BvhMotion Read(const std::string& name) const {
    BvhMotion motion;
    IoError error;
    EXPECT_TRUE(ReadBvh(fs::path(PathOf(name)), motion, error)) << error.ToText();
    return motion;
  }

  ScratchDir _dir{"retarget"};
};

TEST_F(RetargetJob, WritesTheTargetSkeletonWithTheMotionAndItsReducedCurves) {
  const JobRun run = Retarget("walk.bvh", " -o " + _dir.Quoted("out.bvh") + " --reduce 0.3");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");  // quiet when standard error is not a terminal
  const BvhMotion output = Read("out.bvh"), target = Read("target.bvh"), walk = Read("walk.bvh");
  ASSERT_EQ(output.joints.size(), target.joints.size());
  for (size_t j = 0; j < target.joints.size(); ++j) {
    EXPECT_EQ(output.joints[j].name, target.joints[j].name);
    EXPECT_EQ(output.joints[j].channels, target.joints[j].channels);
    EXPECT_EQ(output.joints[j].offset[1], target.joints[j].offset[1]);
  }
  EXPECT_EQ(output.frameCount, walk.frameCount);
  EXPECT_TRUE(fs::exists(PathOf("out.curves.json")));
}

TEST_F(RetargetJob, BadPresetsGiveOneMessageStatusTwoAndNoOutput) {
  const std::string out = " -o " + _dir.Quoted("out.bvh");
  // A preset naming a joint the skeleton lacks, and a preset that is not one: exact messages.
  _dir.WriteText("preset.json",
                 R"({"name": "mine", "root": {"id": "hips", "joints": ["Pelvis"]}})");
  _dir.WriteText("typo.json", R"({"name": "typo", "root": {"id": "hips", "keyword": ["x"]}})");
  {
    JobRun run = Retarget("walk.bvh", out + " --preset " + _dir.Quoted("preset.json"));
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "tarni-ca: " + PathOf("target.bvh") +
                           ": preset mine: body part 'hips' names joint 'Pelvis', which the "
                           "skeleton does not have\n");
    run = Retarget("walk.bvh", out + " --preset " + _dir.Quoted("typo.json"));
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "tarni-ca: " + PathOf("typo.json") + ": unknown key root.keyword\n");
  }
  EXPECT_EQ(_dir.Files(),
            (std::vector<std::string>{"preset.json", "target.bvh", "typo.json", "walk.bvh"}));
}

TEST_F(RetargetJob, BatchFinishesTheGoodFilesAfterABadOne) {
  fs::copy_file(PathOf("walk.bvh"), PathOf("second.bvh"));
  _dir.WriteText("broken.bvh", "HIERARCHY\nROOT Hips\n{\n");
  const JobRun run =
      RunHost(_dir, "retarget " + _dir.Quoted("walk.bvh") + " " + _dir.Quoted("broken.bvh") + " " +
                        _dir.Quoted("second.bvh") + " --target " + _dir.Quoted("target.bvh") +
                        " -o " + _dir.Quoted("batch") + " -j 2");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err.rfind("tarni-ca: " + PathOf("broken.bvh") + ":", 0), 0u) << run.err;
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  // The summary counts what was written.
  EXPECT_EQ(run.out.rfind("retargeted 2 of 3 clips onto " + PathOf("target.bvh") + ": ", 0), 0u)
      << run.out;
  EXPECT_FALSE(fs::exists(PathOf("batch/broken.bvh")));
  EXPECT_TRUE(fs::exists(PathOf("batch/walk.bvh")));
  EXPECT_EQ(ReadText(PathOf("batch/walk.bvh")), ReadText(PathOf("batch/second.bvh")));
  // Two sources of one name cannot share the folder: nothing is written.
  fs::create_directories(PathOf("other"));
  fs::copy_file(PathOf("walk.bvh"), PathOf("other/walk.bvh"));
  const JobRun clash =
      RunHost(_dir, "retarget " + _dir.Quoted("walk.bvh") + " " + _dir.Quoted("other/walk.bvh") +
                        " --target " + _dir.Quoted("target.bvh") + " -o " + _dir.Quoted("clash"));
  EXPECT_EQ(clash.status, 2);
  EXPECT_EQ(clash.err, "tarni-ca: retarget: two sources would both write " + PathOf("clash") +
                           "/walk.bvh; see tarni-ca retarget --help\n");
  EXPECT_FALSE(fs::exists(PathOf("clash")));
}

TEST_F(RetargetJob, InspectShowsTheMappingAndDemoRunsTheWholeRoad) {
  // Inspect: tree, frames, what each body part picks, what none picks, match counts.
  {
    const JobRun run = RunHost(_dir, "inspect " + _dir.Quoted("target.bvh"));
    ASSERT_EQ(run.status, 0) << run.err;
    for (const char* line :
         {"  joints: 19, frames: 1, frame rate: 30 fps\n",
          "\n  pelvis (Xposition Yposition Zposition Xrotation Yrotation Zrotation)\n",
          "\nbody parts of humanoid-rig:\n", " spine_01, spine_02\n",
          "  humanoid-rig             19\n", "joints no body part picks (0): none\n"})
      EXPECT_HAS(run.out, line);
  }
  // A forced preset that fits badly leaves joints unpicked, and says which.
  {
    const JobRun run =
        RunHost(_dir, "inspect " + _dir.Quoted("target.bvh") + " --preset humanoid-joints");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_HAS(run.out, "joints no body part picks (17): ");
  }
  // The demo writes every file and reports the figures.
  {
    const JobRun run = RunHost(_dir, "demo -o " + _dir.Quoted("demo"));
    ASSERT_EQ(run.status, 0) << run.err;
    for (const char* file : {"walk.bvh", "target.bvh", "walk-retargeted.bvh",
                             "walk-retargeted.curves.json", "walk.svg"})
      EXPECT_TRUE(fs::exists(PathOf("demo") + "/" + file)) << file;
    EXPECT_HAS(run.out, "19 of 19 target joints driven");
    EXPECT_HAS(run.out, "60 curves, 4020 keys -> ");
    EXPECT_HAS(ReadText(PathOf("demo/walk.svg")), "<svg");
  }
}

TEST(RetargetPreset, TurnsDownMalformedPresetsNamingThePlace) {
  Preset preset;
  IoError error;
  // Each malformed preset is named by file and by the path to the offending value.
  const std::pair<const char*, const char*> cases[] = {
      {R"({"root": {"name": "x"}})", "p.json: root has no \"id\""},
      {R"({"root": {"id": "a", "children": [{"id": "a"}]}})",
       "p.json: root.children[0]: the identifier 'a' is used twice"},
      {R"({"root": {"id": "a", "weight": "1"}})", "p.json: root.weight must be a number"},
      {R"({"root": {"id": "a", "keywords": "hip"}})",
       "p.json: root.keywords must be an array of strings"},
      {R"({"name": "x"})", "p.json: a preset needs a \"root\" body part"},
      {R"({"root": )", "p.json: not valid JSON"},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_FALSE(ParsePreset(text, "p.json", preset, error)) << text;
    EXPECT_EQ(error.ToText(), message);
  }
  // A good one keeps order (parents first), defaults and settings.
  ASSERT_TRUE(ParsePreset(
      R"({"root": {"id": "hips", "position": true, "children": [{"id": "spine", "weight": 0.5,
          "keywords": ["spine", "lower&&back"], "discard": ["end"], "deactivate": true}]}})",
      "dir/p.json", preset, error))
      << error.ToText();
  EXPECT_EQ(preset.name, "p");
  ASSERT_EQ(preset.parts.size(), 2u);
  EXPECT_TRUE(preset.parts[0].position);
  EXPECT_EQ(preset.parts[1].parent, 0);
  EXPECT_EQ(preset.parts[1].keywords, (std::vector<std::string>{"spine", "lower&&back"}));
  EXPECT_TRUE(preset.parts[1].deactivate);
}

TEST(RetargetPreset, ShippedPresetsPickEverySkeletonTheyAreMadeFor) {
  const std::vector<Preset> presets = Shipped();
  ASSERT_EQ(presets.size(), 3u);
  // Each skeleton picks the preset of its naming convention, which maps all its main joints.
  struct Case {
    const char* clip;  // null: a generated skeleton
    bool walker;
    const char* preset;
    int64_t matches;
  };
  const Case cases[] = {{nullptr, true, "humanoid-uplegs", 22},
                        {nullptr, false, "humanoid-rig", 19},
                        {kWalk, false, "humanoid-joints", 23},
                        {kJumps, false, "humanoid-uplegs", 23},
                        {kIdle, false, "humanoid-rig", 17}};
  for (const Case& c : cases) {
    BvhMotion motion;
    if (c.clip == nullptr)
      motion = c.walker ? MakeWalkingHumanoid() : MakeTargetSkeleton();
    else if (!LoadClip(c.clip, motion))
      continue;  // the shared clips are optional
    int64_t best = 0;
    const int picked = PickPreset(motion, presets, &best);
    ASSERT_GE(picked, 0);
    EXPECT_EQ(presets[static_cast<size_t>(picked)].name, c.preset) << motion.joints[1].name;
    EXPECT_EQ(best, c.matches) << motion.joints[1].name;
  }
  // "LeftShoulder" is the collar in one convention and the upper arm in the other.
  {
    BvhMotion walk;
    if (LoadClip(kWalk, walk)) {
      Character character;
      IoError error;
      const Preset& preset = Pick(walk, presets);
      ASSERT_TRUE(
          BuildCharacter(walk, "walk", preset, -1, PositionChoice::kAuto, character, error));
      const auto& part = character.bodyPartOf[static_cast<size_t>(walk.FindJoint("LeftShoulder"))];
      ASSERT_TRUE(part);
      EXPECT_EQ(part->GetIdentifier().GetText(), "leftUpperArm");
    }
  }
  // A name that is no shipped preset lists the shipped ones.
  {
    Preset preset;
    IoError error;
    EXPECT_FALSE(FindPreset("humanoid", preset, error));
    EXPECT_EQ(error.ToText(),
              "no preset named 'humanoid' (shipped: humanoid-joints, humanoid-rig, "
              "humanoid-uplegs)");
  }
}

TEST(RetargetReduction, EvaluatesReducedCurves) {
  auto key = [](float t, float v, float lx = -1, float ly = -1, float rx = -1, float ry = -1) {
    CurveKey k;
    k.position[0] = t;
    k.position[1] = v;
    k.leftTangent[0] = lx;
    k.leftTangent[1] = ly;
    k.rightTangent[0] = rx;
    k.rightTangent[1] = ry;
    return k;
  };
  // Undefined handles make a straight segment; outside the keys the ends hold.
  const std::vector<CurveKey> straight = {key(0, 0), key(2, 4)};
  EXPECT_NEAR(ReducedValueAt(straight, 0.5), 1.0, 1e-9);
  EXPECT_EQ(ReducedValueAt(straight, -1), 0.0);
  EXPECT_EQ(ReducedValueAt(straight, 3), 4.0);
  EXPECT_EQ(ReducedValueAt({}, 1), 0.0);
  // Flat handles give an eased segment: symmetric, at the middle value half way.
  const std::vector<CurveKey> eased = {key(0, 0, -1, -1, 1.0f / 3, 0),
                                       key(1, 1, -1.0f / 3, 0, -1, -1)};
  EXPECT_NEAR(ReducedValueAt(eased, 0.5), 0.5, 1e-9);
  EXPECT_LT(ReducedValueAt(eased, 0.1), 0.1);

  // Handles within the span: the value where the segment's x meets the time, as a long bisection
  // finds it. Handles at thirds, spread unevenly, of zero length (x flat at an end), and both
  // reaching the far end (x flat in the middle).
  auto bisected = [](const CurveKey& a, const CurveKey& b, double time) {
    auto sum = [](float x, float y) { return double{x} + double{y}; };
    const double px[4] = {a.position[0], sum(a.position[0], a.rightTangent[0]),
                          sum(b.position[0], b.leftTangent[0]), b.position[0]};
    const double py[4] = {a.position[1], sum(a.position[1], a.rightTangent[1]),
                          sum(b.position[1], b.leftTangent[1]), b.position[1]};
    auto at = [](const double(&c)[4], double s) {
      const double r = 1 - s;
      return r * r * r * c[0] + 3 * r * r * s * c[1] + 3 * r * s * s * c[2] + s * s * s * c[3];
    };
    double lo = 0, hi = 1;
    for (int i = 0; i < 64; ++i) (at(px, 0.5 * (lo + hi)) < time ? lo : hi) = 0.5 * (lo + hi);
    return at(py, 0.5 * (lo + hi));
  };
  auto segment = [&](float rx, float ry, float lx, float ly) {
    return std::vector<CurveKey>{key(2, 10, -1, -1, rx, ry), key(3, -4, lx, ly)};
  };
  // Where both handles reach the far end, x stands still mid-segment and the value there moves
  // with the cube root of x's rounding: the bisection itself is only that close.
  auto tolerance = [](const std::vector<CurveKey>& played) {
    return played[0].rightTangent[0] == 1 && played[1].leftTangent[0] == -1 ? 1e-3 : 1e-9;
  };
  const float inside[][4] = {{1.0f / 3, 25, -1.0f / 3, 7},
                             {0.1f, 25, -0.6f, 7},
                             {0, 25, 0, 7},
                             {0.9f, 25, -0.05f, 7},
                             {1, 25, -1, 7}};
  for (const auto& h : inside) {
    const std::vector<CurveKey> keys = segment(h[0], h[1], h[2], h[3]);
    for (int i = 1; i < 50; ++i) {
      const double time = 2 + i / 50.0;
      EXPECT_NEAR(ReducedValueAt(keys, time), bisected(keys[0], keys[1], time), tolerance(keys))
          << "handles " << h[0] << ", " << h[2] << " at " << time;
    }
  }
  // Handles reaching past the other key play shortened along their direction; handles pointing
  // back in time play with no time offset. Either way the segment plays as the one written within
  // its span, and every time has a single value.
  const float past[][2][4] = {{{4, 100, -3, -21}, {1, 25, -1, -7}},
                              {{1.5f, -6, -0.5f, 7}, {1, -4, -0.5f, 7}},
                              {{-0.5f, 25, 0.5f, 7}, {0, 25, 0, 7}},
                              {{0.2f, 25, -2.5f, 30}, {0.2f, 25, -1, 12}}};
  for (const auto& pair : past) {
    const std::vector<CurveKey> written = segment(pair[0][0], pair[0][1], pair[0][2], pair[0][3]);
    const std::vector<CurveKey> played = segment(pair[1][0], pair[1][1], pair[1][2], pair[1][3]);
    for (int i = 1; i < 50; ++i) {
      const double time = 2 + i / 50.0;
      EXPECT_NEAR(ReducedValueAt(written, time), bisected(played[0], played[1], time),
                  tolerance(played))
          << "handles " << pair[0][0] << ", " << pair[0][2] << " at " << time;
    }
  }
}

TEST(RetargetSetup, ReadsBackWhatItWroteAndSolvesTheSame) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const BvhMotion target = MakeTargetSkeleton();
  const std::vector<Preset> presets = Shipped();
  Retargeted first;
  RunRetarget(walk, Pick(walk, presets), target, Pick(target, presets), first);
  std::string text;
  IoError error;
  ASSERT_TRUE(WriteSetup(first.retargeter.Configuration(), text, error)) << error.ToText();
  // Every part of the set-up is in the file, under the members' declared names.
  for (const char* member :
       {"\"_sourceCharacter\"", "\"SkeletonRoot\"", "\"BodyPartRoot\"", "\"SkeletonRestPose\"",
        "\"NodeTransform\"", "\"_globalMat\"", "\"_uuidAssTable\"", "\"_bpSettings\"",
        "\"_skeletonKeywords\"", "\"children\""})
    EXPECT_NE(text.find(member), std::string::npos) << member;

  // Read, write, read: the same text, so the same values (Uuids and names included).
  tarni::CharacterSolverConfigurationRef config;
  ASSERT_TRUE(ReadSetup(text, "setup.json", config, error)) << error.ToText();
  std::string again;
  ASSERT_TRUE(WriteSetup(config, again, error)) << error.ToText();
  EXPECT_EQ(again, text);

  // The stored set-up drives the same solve.
  Retargeter stored;
  BvhMotion output;
  ASSERT_TRUE(
      stored.SetupFromConfiguration(config, walk, "walk.bvh", target, "target.bvh", {}, error))
      << error.ToText();
  ASSERT_TRUE(stored.Run(output, error)) << error.ToText();
  EXPECT_EQ(stored.MappedJointCount(), first.retargeter.MappedJointCount());
  EXPECT_DOUBLE_EQ(stored.HeightRatio(), first.retargeter.HeightRatio());
  ASSERT_EQ(output.values.size(), first.output.values.size());
  double worst = 0;
  for (size_t i = 0; i < output.values.size(); ++i)
    worst = std::max(worst, std::fabs(output.values[i] - first.output.values[i]));
  EXPECT_LT(worst, 1e-9);

  // A switched-off body part, tuned in the file, is honoured.
  {
    const size_t at =
        text.find("\"_settings\": [", text.find("\"leftUpperArm\"", text.find("_bpSettings")));
    ASSERT_NE(at, std::string::npos);
    std::string tuned = text;
    const size_t word = tuned.find_first_of("0123456789", at);
    tuned.replace(word, tuned.find_first_not_of("0123456789", word) - word, "2");
    ASSERT_TRUE(ReadSetup(tuned, "tuned.json", config, error)) << error.ToText();
    Retargeter retuned;
    ASSERT_TRUE(
        retuned.SetupFromConfiguration(config, walk, "walk.bvh", target, "target.bvh", {}, error));
    std::vector<Matrix> a, b;
    ASSERT_TRUE(retuned.SolveFrame(0, a, error));
    ASSERT_TRUE(retuned.SolveFrame(walk.frameCount / 8, b, error));
    const size_t arm = static_cast<size_t>(target.FindJoint("upperarm_l"));
    EXPECT_EQ(a[arm], b[arm]);
  }
}

TEST(RetargetSetup, TurnsDownDamagedFilesNamingTheMember) {
  tarni::CharacterSolverConfigurationRef config;
  IoError error;
  // Each damaged file is named with the path of the member at fault.
  const std::pair<const char*, const char*> cases[] = {
      {"{}", "s.json: a set-up file holds one object with one member, \"solverConfiguration\""},
      {R"({"solverConfiguration": {"_globalWeight": "1"}})",
       "s.json: solverConfiguration._globalWeight must be a number"},
      {R"({"solverConfiguration": {"_sourceCharacter": {"_bogus": 1}}})",
       "s.json: unknown member solverConfiguration._sourceCharacter._bogus"},
      {R"({"solverConfiguration": {"_sourceCharacter": {"_objectID": "not-a-uuid"}}})",
       "s.json: solverConfiguration._sourceCharacter._objectID must be a Uuid text"},
      {R"({"solverConfiguration": {"_bpSettings": [["hips"]]}})",
       "s.json: solverConfiguration._bpSettings[0] must be a [key, value] pair"},
      {R"({"solverConfiguration": {"children": []}})",
       "s.json: solverConfiguration.children is not allowed here"},
      {"{", "s.json: not valid JSON"},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_FALSE(ReadSetup(text, "s.json", config, error)) << text;
    EXPECT_EQ(error.ToText(), message);
  }
  // A set-up without characters is read, but cannot drive a solve.
  ASSERT_TRUE(
      ReadSetup(R"({"solverConfiguration": {"_globalWeight": 0.5}})", "s.json", config, error));
  EXPECT_EQ(config->GetGlobalWeight(), 0.5);
  const BvhMotion walk = MakeWalkingHumanoid();
  Retargeter retargeter;
  EXPECT_FALSE(
      retargeter.SetupFromConfiguration(config, walk, "walk.bvh", walk, "walk.bvh", {}, error));
  EXPECT_EQ(error.ToText(),
            "walk.bvh: the solver set-up is not complete: Invalid Source Character");
}

}  // namespace
}  // namespace tarni::host
