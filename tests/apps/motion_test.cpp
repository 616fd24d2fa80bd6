#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "io/bvh.h"
#include "motion/euler.h"
#include "motion/pose.h"

namespace tarni::host {
namespace {

constexpr Channel kX = Channel::kXrotation;
constexpr Channel kY = Channel::kYrotation;
constexpr Channel kZ = Channel::kZrotation;
constexpr Channel kPX = Channel::kXposition;
constexpr Channel kPY = Channel::kYposition;
constexpr Channel kPZ = Channel::kZposition;
const Channel kOrders[6][3] = {{kX, kY, kZ}, {kX, kZ, kY}, {kY, kX, kZ},
                               {kY, kZ, kX}, {kZ, kX, kY}, {kZ, kY, kX}};

double Distance(const Matrix& a, const Matrix& b) {
  double d = 0;
  for (const Vector& v : {a.off - b.off, a.v1 - b.v1, a.v2 - b.v2, a.v3 - b.v3}) {
    d = std::max({d, std::abs(v.x), std::abs(v.y), std::abs(v.z)});
  }
  return d;
}

Matrix Rotation(const Channel order[3], const double degrees[3]) {
  return RotationFromChannels(order, degrees, 3);
}

TEST(Euler, ComposesChannelsInWrittenOrder) {
  {
    // "Zrotation Xrotation" (90, 90) is Rz * Rx: X applies first, so +Y goes to +Z and stays
    // there (Rx * Rz would end on -X). Position channels are skipped with their values.
    const Channel order[4] = {kPX, kZ, kPY, kX};
    const double angles[4] = {1000, 90, -7, 90};
    const Vector v = TransformVector(RotationFromChannels(order, angles, 4), {0, 1, 0});
    EXPECT_NEAR(Distance({v}, {{0, 0, 1}}), 0, 1e-15);
  }
  {
    // No three-angle split for a repeated axis, a position channel or a non-finite matrix; the
    // output is left alone.
    const Channel repeated[3] = {kX, kY, kX};
    Matrix bad;
    bad.v2.y = NAN;
    double out[3] = {7, 8, 9};
    EXPECT_FALSE(EulerFromRotation(Matrix{}, repeated, out));
    EXPECT_FALSE(EulerFromRotation(bad, kOrders[0], out));
    EXPECT_EQ(out[0] + out[1] + out[2], 24);
  }
}

TEST(Euler, RoundTripsAllSixOrdersAwayFromAndAtGimbalLock) {
  std::mt19937_64 random(20240611);
  std::uniform_real_distribution<double> outer(-180, 180);
  std::uniform_real_distribution<double> middle(-90, 90);
  const double nearLock[] = {90, -90, 90 - 1e-9, -90 + 1e-9, 90 - 1e-6, 90 - 1e-4, 89.99};
  for (const auto& order : kOrders) {
    SCOPED_TRACE(std::string(ChannelName(order[0])) + std::string(ChannelName(order[1])) +
                 std::string(ChannelName(order[2])));
    for (int n = 0; n < 3000; ++n) {
      const bool lock = n % 3 == 0;
      const double angles[3] = {outer(random), lock ? nearLock[n % 7] : middle(random),
                                outer(random)};
      const Matrix rotation = Rotation(order, angles);
      double out[3] = {};
      ASSERT_TRUE(EulerFromRotation(rotation, order, out));
      ASSERT_LT(Distance(Rotation(order, out), rotation), 1e-9) << angles[1];
      if (n % 100 == 1) {
        // A rotation scaled so far that the squares of its entries overflow still splits into
        // angles of that rotation.
        Matrix huge = rotation;
        for (Vector* axis : {&huge.v1, &huge.v2, &huge.v3}) *axis = *axis * 1e200;
        double hugeOut[3] = {};
        ASSERT_TRUE(EulerFromRotation(huge, order, hugeOut));
        EXPECT_LT(Distance(Rotation(order, hugeOut), rotation), 1e-9) << angles[1];
      }
      if (!lock) {
        // Away from the lock the canonical triple is the one we started from.
        EXPECT_NEAR(out[0], angles[0], 1e-9);
        EXPECT_NEAR(out[1], angles[1], 1e-9);
        EXPECT_NEAR(out[2], angles[2], 1e-9);
      } else {
        // With a previous frame: still exact, and at the lock itself the first angle is kept.
        const double previous[3] = {33, angles[1], -20};
        ASSERT_TRUE(EulerFromRotation(rotation, order, out, previous));
        ASSERT_LT(Distance(Rotation(order, out), rotation), 1e-9) << angles[1];
        if (std::abs(angles[1]) == 90) {
          EXPECT_NEAR(out[0], 33, 1e-12);
        }
      }
    }
  }
}

TEST(Euler, FollowsThePreviousFrameAcrossWraps) {
  for (const auto& order : kOrders) {
    // Starting angles, the change per step and the number of steps.
    struct Run {
      double start[3];
      double step[3];
      int steps;
    };
    // Outer angles counting past +-180; the middle one passing 90 (the canonical split would
    // flip the outer ones by 180 there, the alternate solution keeps them).
    for (const Run& run :
         {Run{{170, 20, -170}, {1, 0, -1}, 80}, Run{{10, 80, -5}, {0, 1, 0}, 20}}) {
      double previous[3] = {run.start[0], run.start[1], run.start[2]};
      for (int s = 1; s <= run.steps; ++s) {
        double angles[3];
        for (int i = 0; i < 3; ++i) angles[i] = run.start[i] + s * run.step[i];
        double out[3] = {};
        ASSERT_TRUE(EulerFromRotation(Rotation(order, angles), order, out, previous));
        if (angles[1] != 90) {  // at the lock only the outer angles' sum is fixed
          for (int i = 0; i < 3; ++i) EXPECT_NEAR(out[i], angles[i], 1e-6) << s;
        }
        std::copy(out, out + 3, previous);
      }
    }
    // A previous frame several turns away: the answer lands in the same turns.
    const double angles[3] = {30, 40, 50};
    const double previous[3] = {750, -320, 1130};
    double out[3] = {};
    ASSERT_TRUE(EulerFromRotation(Rotation(order, angles), order, out, previous));
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(out[i], previous[i], 1e-9);
  }
}

// Root (1, 2, 3) with 6 channels; A at (0, 10, 0) with 3 rotations; B at (0, 5, 0) without
// channels; C under the root at (0, 0, 4) with Yposition only.
BvhMotion Chain(const std::vector<double>& row) {
  BvhMotion motion;
  motion.joints = {{"Root", -1, {1, 2, 3}, {kPX, kPY, kPZ, kZ, kX, kY}},
                   {"A", 0, {0, 10, 0}, {kZ, kX, kY}},
                   {"B", 1, {0, 5, 0}, {}},
                   {"C", 0, {0, 0, 4}, {kPY}}};
  motion.channelCount = 10;
  motion.frameCount = 1;
  motion.frameTime = 0.1;
  motion.values = row;
  return motion;
}

TEST(Pose, ForwardKinematicsOfAHandMadeChain) {
  // Root moved by (10, 0, 0) and turned Rz(90); A bent Rx(90); C's y channel 7.
  const BvhMotion motion = Chain({10, 0, 0, 90, 0, 0, 0, 90, 0, 7});
  std::vector<Matrix> locals;
  std::vector<Matrix> globals;
  auto expect = [&](size_t joint, Vector p) {
    EXPECT_LT(Distance({p}, {globals[joint].off}), 1e-12);
  };
  {
    // Relative (also for missing modes): root at offset + values = (11, 2, 3); A's (0, 10, 0)
    // turned by Rz(90) points along -X; B's (0, 5, 0) turned by Rx(90) then Rz(90) along +Z.
    for (const std::vector<PositionMode>& modes :
         {std::vector<PositionMode>(4, PositionMode::kRelative), std::vector<PositionMode>{}}) {
      ComputeFrame(motion, 0, modes, locals, globals);
      expect(0, {11, 2, 3});
      expect(1, {1, 2, 3});
      expect(2, {1, 2, 8});
      expect(3, {11 - 7, 2, 3 + 4});
    }
  }
  {
    // Absolute: the values replace the offset; C keeps the offset's x and z.
    ComputeFrame(motion, 0, std::vector<PositionMode>(4, PositionMode::kAbsolute), locals, globals);
    expect(0, {10, 0, 0});
    expect(2, {0, 0, 5});
    EXPECT_LT(Distance(locals[3], Matrix{{0, 7, 4}}), 1e-12);
  }
  {
    // The rest pose; a frame the motion lacks and values that do not match give it too.
    std::vector<Matrix> restLocals;
    std::vector<Matrix> rest;
    ComputeRestPose(motion, restLocals, rest);
    EXPECT_EQ(rest[2], (Matrix{{1, 17, 3}}));
    BvhMotion broken = motion;
    broken.values.pop_back();
    const std::pair<const BvhMotion*, int64_t> cases[] = {
        {&motion, -1}, {&motion, 1}, {&broken, 0}};
    for (const auto& [m, frame] : cases) {
      ComputeFrame(*m, frame, {}, locals, globals);
      EXPECT_EQ(globals, rest);
    }
  }
}

TEST(Pose, WritingLocalsThenReadingThemBackIsExact) {
  std::mt19937_64 random(99);
  std::uniform_real_distribution<double> angle(-180, 180);
  std::uniform_real_distribution<double> move(-50, 50);
  for (const PositionMode mode : {PositionMode::kAbsolute, PositionMode::kRelative}) {
    // Chains of three under the root (pre-order), every rotation order, position channels
    // before, after or without the rotations.
    BvhMotion motion;
    for (int j = 0; j < 12; ++j) {
      BvhJoint joint{"J" + std::to_string(j),
                     j == 0       ? -1
                     : j % 4 == 1 ? 0
                                  : j - 1,
                     {move(random), move(random), move(random)},
                     {kOrders[j % 6], kOrders[j % 6] + 3}};
      if (j % 3 == 0) joint.channels.insert(joint.channels.begin(), {kPX, kPY, kPZ});
      if (j % 3 == 1) joint.channels.insert(joint.channels.end(), {kPZ, kPX, kPY});
      motion.channelCount += static_cast<int>(joint.channels.size());
      motion.joints.push_back(joint);
    }
    motion.frameCount = 40;
    motion.frameTime = 1;
    motion.values.assign(static_cast<size_t>(40 * motion.channelCount), 0.0);
    const std::vector<PositionMode> modes(motion.joints.size(), mode);
    std::vector<std::vector<Matrix>> written;
    for (int64_t f = 0; f < motion.frameCount; ++f) {
      std::vector<Matrix> locals;
      for (const BvhJoint& joint : motion.joints) {
        const double angles[3] = {angle(random), angle(random) / 2, angle(random)};
        locals.push_back(Rotation(kOrders[random() % 6], angles));
        locals.back().off = {joint.offset[0], joint.offset[1], joint.offset[2]};
        if (joint.channels.size() == 6) locals.back().off = {move(random), move(random), 1};
      }
      ASSERT_TRUE(SetFrameFromLocals(motion, f, modes, locals));
      written.push_back(locals);
    }
    std::vector<Matrix> locals;
    std::vector<Matrix> globals;
    for (int64_t f = 0; f < motion.frameCount; ++f) {
      ComputeFrame(motion, f, modes, locals, globals);
      for (size_t j = 0; j < locals.size(); ++j) {
        ASSERT_LT(Distance(locals[j], written[static_cast<size_t>(f)][j]), 1e-9) << f << " " << j;
      }
    }
  }
}

TEST(Pose, WritesRowsContinuouslyAndWithFewerChannels) {
  // Root turning steadily about Y (its first axis) through two turns; a hinge with Z and X only;
  // a joint with Yposition and Xrotation only.
  BvhMotion motion;
  motion.joints = {{"Root", -1, {0, 0, 0}, {kY, kX, kZ}},
                   {"Hinge", 0, {0, 1, 0}, {kZ, kX}},
                   {"Slide", 1, {0, 3, 0}, {kPY, kX}}};
  motion.channelCount = 7;
  motion.frameCount = 100;
  motion.frameTime = 1;
  motion.values.assign(700, 0.0);
  for (int64_t f = 0; f < motion.frameCount; ++f) {
    const double turn[3] = {7.5 * static_cast<double>(f), 10, 5};
    const Channel hingeAxes[2] = {kZ, kX};
    const double hinge[2] = {-40, 25};
    std::vector<Matrix> locals = {Rotation(kOrders[2], turn),
                                  RotationFromChannels(hingeAxes, hinge, 2),
                                  RotationFromChannels(&kX, turn + 2, 1)};
    locals[1].off = {0, 1, 0};
    locals[2].off = {0, 8, 0};
    ASSERT_TRUE(SetFrameFromLocals(motion, f, {}, locals));
  }
  for (int64_t f = 1; f < motion.frameCount; ++f) {
    EXPECT_NEAR(motion.Value(f, 0) - motion.Value(f - 1, 0), 7.5, 1e-9) << f;
  }
  // What the channels can express comes back exactly; the slide is written relative to 3.
  const double last[7] = {742.5, 10, 5, -40, 25, 5, 5};
  for (int c = 0; c < 7; ++c) EXPECT_NEAR(motion.Value(99, c), last[c], 1e-9) << c;
  // A frame out of range, or too few locals, change nothing.
  const std::vector<Matrix> two(2);
  const std::vector<double> before = motion.values;
  EXPECT_FALSE(SetFrameFromLocals(motion, 100, {}, std::vector<Matrix>(3)));
  EXPECT_FALSE(SetFrameFromLocals(motion, 0, {}, two));
  EXPECT_EQ(motion.values, before);
}

// One joint with offset `offset` and three position channels holding `rows`.
BvhMotion Positioned(Vector offset, const std::vector<Vector>& rows) {
  BvhMotion motion;
  motion.joints = {{"Joint", -1, {offset.x, offset.y, offset.z}, {kPX, kPY, kPZ}}};
  motion.channelCount = 3;
  motion.frameCount = static_cast<int64_t>(rows.size());
  motion.frameTime = 1;
  for (const Vector& v : rows) motion.values.insert(motion.values.end(), {v.x, v.y, v.z});
  return motion;
}

TEST(Pose, GuessesPositionModeFromTheData) {
  constexpr PositionMode kAbs = PositionMode::kAbsolute;
  constexpr PositionMode kRel = PositionMode::kRelative;
  // Around the offset: the local position itself; around zero: a displacement.
  EXPECT_EQ(GuessPositionMode(Positioned({0, 90, 0}, {{1, 89, 0}, {-1, 91.5, 2}}), 0), kAbs);
  EXPECT_EQ(GuessPositionMode(Positioned({0, 90, 0}, {{1, -2, 0}, {-1, 3, 2}}), 0), kRel);
  // A root travelling far along Z, across its height offset: the travel does not sway the vote.
  std::vector<Vector> absolute;
  std::vector<Vector> relative;
  for (int f = 0; f < 50; ++f) {
    absolute.push_back({0, 92, 40.0 * f});
    relative.push_back({0, -3, 40.0 * f});
  }
  EXPECT_EQ(GuessPositionMode(Positioned({0, 95, 0}, absolute), 0), kAbs);
  EXPECT_EQ(GuessPositionMode(Positioned({0, 95, 0}, relative), 0), kRel);
  // Where the modes agree or there is nothing to judge: relative.
  EXPECT_EQ(GuessPositionMode(Positioned({0, 0, 0}, {{5, 5, 5}}), 0), kRel);
  EXPECT_EQ(GuessPositionMode(Chain({0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 1), kRel);

  // All joints at once read each joint's own columns: rotations only, then positions around the
  // offset behind a rotation channel, then displacements in another axis order.
  BvhMotion three;
  three.joints = {{"Root", -1, {0, 0, 0}, {kX, kY, kZ}},
                  {"Hip", 0, {0, 95, 0}, {kZ, kPX, kPY, kPZ}},
                  {"Knee", 1, {0, -40, 0}, {kPZ, kPY, kPX}}};
  three.channelCount = 10;
  three.frameCount = 40;
  three.frameTime = 1;
  for (int f = 0; f < 40; ++f) {
    const double d = 0.5 * f;
    three.values.insert(three.values.end(), {d, -d, 2 * d, 10 - d, d, 92 + 0.1 * d, 40.0 * f,
                                             0.3 * d, 1 - 0.1 * d, -d});
  }
  const std::vector<PositionMode> modes = GuessPositionModes(three);
  ASSERT_EQ(modes.size(), 3u);
  EXPECT_EQ(modes[0], kRel);
  EXPECT_EQ(modes[1], kAbs);
  EXPECT_EQ(modes[2], kRel);
  // Values that do not match the channels leave every joint relative.
  three.values.pop_back();
  EXPECT_EQ(GuessPositionModes(three), std::vector<PositionMode>(3, kRel));
}

TEST(Pose, SharedClipsRestPosesAndPositionModes) {
  struct Clip {
    const char* file;
    const char* shoulder;  // the upper arm joint
    const char* wrist;     // the joint at the end of the forearm
    bool armsHanging;
  };
  const std::filesystem::path data(TARNI_TEST_DATA_DIR);
  if (!std::filesystem::exists(data / "cmu")) GTEST_SKIP() << "no shared data";
  for (const Clip& clip :
       {Clip{"cmu/131_01_walk.bvh", "LeftShoulder", "LeftWrist", true},
        Clip{"cmu/01_01_jumps.bvh", "LeftArm", "LeftHand", false},
        Clip{"reactidle/003_genuine_idle.bvh", "upper_arm.L", "forearm.L", false}}) {
    SCOPED_TRACE(clip.file);
    BvhMotion motion;
    IoError error;
    ASSERT_TRUE(ReadBvh(data / clip.file, motion, error)) << error.ToText();
    std::vector<Matrix> locals;
    std::vector<Matrix> globals;
    // Rest poses: the arm hangs (the wrist well below the shoulder) or is level.
    ComputeRestPose(motion, locals, globals);
    const Vector arm = globals[static_cast<size_t>(motion.FindJoint(clip.wrist))].off -
                       globals[static_cast<size_t>(motion.FindJoint(clip.shoulder))].off;
    EXPECT_LT(clip.armsHanging ? arm.y + 0.8 * Length(arm) : std::abs(arm.y) - 0.1 * Length(arm),
              0);
    // Whatever modes are guessed, every joint must keep its distance to its parent: an absolute
    // position read as relative would double it.
    const std::vector<PositionMode> modes = GuessPositionModes(motion);
    for (int64_t f = 0; f < motion.frameCount; f += 97) {
      ComputeFrame(motion, f, modes, locals, globals);
      for (size_t j = 1; j < motion.joints.size(); ++j) {
        const double rest = Length(
            {motion.joints[j].offset[0], motion.joints[j].offset[1], motion.joints[j].offset[2]});
        EXPECT_NEAR(Length(locals[j].off), rest, 0.05 * rest) << motion.joints[j].name << f;
      }
    }
    if (clip.file[0] == 'r') {
      // The idle's pelvis stores a small displacement from its height, its neck its position;
      // read so, the feet stay on the floor.
      EXPECT_EQ(modes[static_cast<size_t>(motion.FindJoint("pelvis"))], PositionMode::kRelative);
      EXPECT_EQ(modes[static_cast<size_t>(motion.FindJoint("neck"))], PositionMode::kAbsolute);
      for (int64_t f = 0; f < motion.frameCount; f += 50) {
        ComputeFrame(motion, f, modes, locals, globals);
        EXPECT_NEAR(globals[static_cast<size_t>(motion.FindJoint("foot.L"))].off.y, 0.06, 0.03);
      }
    }
  }
}

}  // namespace
}  // namespace tarni::host
