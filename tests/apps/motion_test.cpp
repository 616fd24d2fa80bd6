#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iostream>
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
const Channel kOrders[6][3] = {{kX, kY, kZ}, {kX, kZ, kY}, {kY, kX, kZ},
                               {kY, kZ, kX}, {kZ, kX, kY}, {kZ, kY, kX}};

std::string OrderName(const Channel order[3]) {
  std::string name;
  for (int i = 0; i < 3; ++i) name += ChannelName(order[i]).substr(0, 1);
  return name;
}

double MatrixDistance(const Matrix& a, const Matrix& b) {
  double d = 0;
  for (const auto& [u, v] : {std::pair{a.off, b.off}, std::pair{a.v1, b.v1}, std::pair{a.v2, b.v2},
                             std::pair{a.v3, b.v3}}) {
    d = std::max({d, std::abs(u.x - v.x), std::abs(u.y - v.y), std::abs(u.z - v.z)});
  }
  return d;
}

Matrix FromAngles(const Channel order[3], const double degrees[3]) {
  return RotationFromChannels(order, degrees, 3);
}

TEST(Euler, ComposesChannelsInWrittenOrder) {
  {
    // A single channel is a right-handed turn: Rz(90) takes +X to +Y.
    const Channel z = kZ;
    const double ninety = 90;
    const Vector v = TransformVector(RotationFromChannels(&z, &ninety, 1), {1, 0, 0});
    EXPECT_NEAR(v.x, 0, 1e-15);
    EXPECT_NEAR(v.y, 1, 1e-15);
  }
  {
    // "Zrotation Xrotation" (90, 90) is Rz * Rx: X applies first, so +Y goes to +Z and stays.
    // The other way round (Rx * Rz) +Y would end on -X.
    const Channel order[2] = {kZ, kX};
    const double angles[2] = {90, 90};
    const Vector v = TransformVector(RotationFromChannels(order, angles, 2), {0, 1, 0});
    EXPECT_NEAR(v.x, 0, 1e-15);
    EXPECT_NEAR(v.y, 0, 1e-15);
    EXPECT_NEAR(v.z, 1, 1e-15);
  }
  {
    // Position channels among them are skipped with their values; no channels: the identity.
    const Channel order[4] = {Channel::kXposition, kZ, Channel::kYposition, kX};
    const double angles[4] = {1000, 90, -7, 90};
    const Channel rotations[2] = {kZ, kX};
    const double rotationAngles[2] = {90, 90};
    EXPECT_EQ(RotationFromChannels(order, angles, 4),
              RotationFromChannels(rotations, rotationAngles, 2));
    EXPECT_EQ(RotationFromChannels(order, angles, 0), Matrix{});
  }
}

TEST(Euler, RoundTripsRandomRotationsInAllSixOrders) {
  std::mt19937_64 random(20240611);
  std::uniform_real_distribution<double> outer(-180, 180);
  std::uniform_real_distribution<double> middle(-90, 90);
  for (const auto& order : kOrders) {
    SCOPED_TRACE(OrderName(order));
    for (int n = 0; n < 2000; ++n) {
      const double angles[3] = {outer(random), middle(random), outer(random)};
      const Matrix rotation = FromAngles(order, angles);
      double out[3] = {};
      ASSERT_TRUE(EulerFromRotation(rotation, order, out));
      ASSERT_LT(MatrixDistance(FromAngles(order, out), rotation), 1e-12);
      // Away from the lock the canonical triple is the one we started from.
      if (std::abs(angles[1]) < 89) {
        EXPECT_NEAR(out[0], angles[0], 1e-9);
        EXPECT_NEAR(out[1], angles[1], 1e-9);
        EXPECT_NEAR(out[2], angles[2], 1e-9);
      }
      EXPECT_GT(out[0], -180 - 1e-12);
      EXPECT_LE(out[0], 180 + 1e-12);
      EXPECT_LE(std::abs(out[1]), 90 + 1e-12);
    }
  }
}

TEST(Euler, StaysExactAtAndNearGimbalLock) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> outer(-180, 180);
  const double nearLock[] = {90, -90, 90 - 1e-9, -90 + 1e-9, 90 - 1e-6, 90 - 1e-4, 89.99};
  for (const auto& order : kOrders) {
    SCOPED_TRACE(OrderName(order));
    for (const double middle : nearLock) {
      for (int n = 0; n < 50; ++n) {
        const double angles[3] = {outer(random), middle, outer(random)};
        const Matrix rotation = FromAngles(order, angles);
        {
          // Without a previous frame.
          double out[3] = {};
          ASSERT_TRUE(EulerFromRotation(rotation, order, out));
          EXPECT_LT(MatrixDistance(FromAngles(order, out), rotation), 1e-9) << middle;
          EXPECT_TRUE(std::isfinite(out[0]) && std::isfinite(out[2]));
        }
        {
          // With one: still exact, and at the lock itself the first angle is the previous one.
          const double previous[3] = {33, middle, -20};
          double out[3] = {};
          ASSERT_TRUE(EulerFromRotation(rotation, order, out, previous));
          EXPECT_LT(MatrixDistance(FromAngles(order, out), rotation), 1e-9) << middle;
          if (std::abs(middle) == 90) {
            EXPECT_NEAR(out[0], 33, 1e-9);
          }
        }
      }
    }
  }
}

TEST(Euler, FollowsThePreviousFrameAcrossWraps) {
  for (const auto& order : kOrders) {
    SCOPED_TRACE(OrderName(order));
    {
      // The first angle runs from 170 to 250 degrees: it keeps counting past 180 instead of
      // jumping to -180, and the third one past -180.
      double previous[3] = {170, 20, -170};
      for (int step = 1; step <= 80; ++step) {
        const double angles[3] = {170.0 + step, 20, -170.0 - step};
        double out[3] = {};
        ASSERT_TRUE(EulerFromRotation(FromAngles(order, angles), order, out, previous));
        EXPECT_NEAR(out[0], angles[0], 1e-9);
        EXPECT_NEAR(out[1], angles[1], 1e-9);
        EXPECT_NEAR(out[2], angles[2], 1e-9);
        std::copy(out, out + 3, previous);
      }
    }
    {
      // The middle angle passes 90: the canonical split would flip the outer angles by 180, the
      // alternate solution keeps the curve smooth.
      double previous[3] = {10, 80, -5};
      for (int step = 1; step <= 20; ++step) {
        const double angles[3] = {10, 80.0 + step, -5};
        double out[3] = {};
        ASSERT_TRUE(EulerFromRotation(FromAngles(order, angles), order, out, previous));
        EXPECT_LT(MatrixDistance(FromAngles(order, out), FromAngles(order, angles)), 1e-9);
        if (step != 10) {  // step 10 is the lock, where only the outer angles' sum is fixed
          EXPECT_NEAR(out[0], 10, 1e-6) << step;
          EXPECT_NEAR(out[1], angles[1], 1e-6) << step;
          EXPECT_NEAR(out[2], -5, 1e-6) << step;
        }
        std::copy(out, out + 3, previous);
      }
    }
    {
      // A previous frame many turns away: the answer lands in the same turn.
      const double angles[3] = {30, 40, 50};
      const double previous[3] = {30 + 720, 40 - 360, 50 + 1080};
      double out[3] = {};
      ASSERT_TRUE(EulerFromRotation(FromAngles(order, angles), order, out, previous));
      EXPECT_NEAR(out[0], 750, 1e-9);
      EXPECT_NEAR(out[1], -320, 1e-9);
      EXPECT_NEAR(out[2], 1130, 1e-9);
    }
  }
}

TEST(Euler, RefusesBadOrdersAndNumbers) {
  const double angles[3] = {1, 2, 3};
  const Matrix rotation = FromAngles(kOrders[0], angles);
  double out[3] = {7, 8, 9};
  {
    // A repeated axis or a position channel is no three-angle order.
    const Channel repeated[3] = {kX, kY, kX};
    const Channel withPosition[3] = {kX, Channel::kYposition, kZ};
    EXPECT_FALSE(EulerFromRotation(rotation, repeated, out));
    EXPECT_FALSE(EulerFromRotation(rotation, withPosition, out));
  }
  {
    // A matrix holding NaN or infinity.
    Matrix bad = rotation;
    bad.v2.y = std::nan("");
    EXPECT_FALSE(EulerFromRotation(bad, kOrders[0], out));
    bad = rotation;
    bad.v3.x = INFINITY;
    EXPECT_FALSE(EulerFromRotation(bad, kOrders[0], out));
  }
  EXPECT_EQ(out[0], 7);
  EXPECT_EQ(out[1], 8);
  EXPECT_EQ(out[2], 9);
}

// Root (1, 2, 3) with 6 channels; A at (0, 10, 0) with 3 rotations; B at (0, 5, 0) without
// channels; C under the root at (0, 0, 4) with Yposition only.
BvhMotion Chain(const std::vector<double>& row) {
  BvhMotion motion;
  motion.joints.resize(4);
  motion.joints[0] = {"Root",
                      -1,
                      {1, 2, 3},
                      {Channel::kXposition, Channel::kYposition, Channel::kZposition, kZ, kX, kY}};
  motion.joints[1] = {"A", 0, {0, 10, 0}, {kZ, kX, kY}};
  motion.joints[2] = {"B", 1, {0, 5, 0}, {}};
  motion.joints[3] = {"C", 0, {0, 0, 4}, {Channel::kYposition}};
  motion.channelCount = 10;
  motion.frameCount = 1;
  motion.frameTime = 0.1;
  motion.values = row;
  return motion;
}

void ExpectPoint(const Matrix& m, Vector p) {
  EXPECT_NEAR(m.off.x, p.x, 1e-12);
  EXPECT_NEAR(m.off.y, p.y, 1e-12);
  EXPECT_NEAR(m.off.z, p.z, 1e-12);
}

TEST(Pose, ForwardKinematicsOfAHandMadeChain) {
  // Root moved by (10, 0, 0) and turned Rz(90); A bent Rx(90); C raised to 7.
  const BvhMotion motion = Chain({10, 0, 0, 90, 0, 0, 0, 90, 0, 7});
  std::vector<Matrix> locals;
  std::vector<Matrix> globals;
  {
    // Relative: the root sits at offset + values = (11, 2, 3); A's (0, 10, 0) turned by Rz(90)
    // points along -X; B's (0, 5, 0) turned by Rx(90) then Rz(90) points along +Z; C's y
    // becomes 0 + 7.
    const std::vector<PositionMode> modes(4, PositionMode::kRelative);
    ComputeFrame(motion, 0, modes, locals, globals);
    ASSERT_EQ(globals.size(), 4u);
    ExpectPoint(globals[0], {11, 2, 3});
    ExpectPoint(globals[1], {1, 2, 3});
    ExpectPoint(globals[2], {1, 2, 8});
    ExpectPoint(locals[3], {0, 7, 4});
    ExpectPoint(globals[3], {11 - 7, 2, 3 + 4});
  }
  {
    // Absolute: the values replace the offset; C keeps the offset's x and z.
    const std::vector<PositionMode> modes(4, PositionMode::kAbsolute);
    ComputeFrame(motion, 0, modes, locals, globals);
    ExpectPoint(globals[0], {10, 0, 0});
    ExpectPoint(globals[2], {0, 0, 5});
    ExpectPoint(locals[3], {0, 7, 4});
  }
  {
    // Missing modes read as relative.
    ComputeFrame(motion, 0, {}, locals, globals);
    ExpectPoint(globals[0], {11, 2, 3});
  }
  {
    // The rest pose, and a frame the motion lacks, stand at the offsets without rotation.
    for (const int64_t frame : {int64_t{-1}, int64_t{1}}) {
      ComputeFrame(motion, frame, {}, locals, globals);
      ExpectPoint(globals[2], {1, 17, 3});
      EXPECT_EQ(globals[1].v1, (Vector{1, 0, 0}));
    }
    std::vector<Matrix> restLocals;
    std::vector<Matrix> restGlobals;
    ComputeRestPose(motion, restLocals, restGlobals);
    EXPECT_EQ(restGlobals, globals);
  }
  {
    // Values that do not match the channels give the rest pose, not a read past the row.
    BvhMotion broken = motion;
    broken.values.pop_back();
    ComputeFrame(broken, 0, {}, locals, globals);
    ExpectPoint(globals[0], {1, 2, 3});
  }
}

// A skeleton whose joints use every rotation order, with position channels before, after or
// without the rotations.
BvhMotion RandomSkeleton(std::mt19937_64& random) {
  std::uniform_real_distribution<double> offset(-20, 20);
  BvhMotion motion;
  for (int j = 0; j < 12; ++j) {
    BvhJoint joint;
    joint.name = "J" + std::to_string(j);
    // Chains of three under the root, so the joints stay in pre-order.
    joint.parent = j == 0 ? -1 : j % 4 == 1 ? 0 : j - 1;
    for (double& o : joint.offset) o = offset(random);
    const auto& order = kOrders[j % 6];
    joint.channels.assign(order, order + 3);
    if (j % 3 == 0) {
      joint.channels.insert(joint.channels.begin(),
                            {Channel::kXposition, Channel::kYposition, Channel::kZposition});
    } else if (j % 3 == 1) {
      joint.channels.insert(joint.channels.end(),
                            {Channel::kZposition, Channel::kXposition, Channel::kYposition});
    }
    motion.channelCount += static_cast<int>(joint.channels.size());
    motion.joints.push_back(joint);
  }
  motion.frameTime = 1.0 / 30;
  return motion;
}

Matrix RandomLocal(std::mt19937_64& random, bool translate, const BvhJoint& joint) {
  std::uniform_real_distribution<double> angle(-180, 180);
  std::uniform_real_distribution<double> move(-50, 50);
  const double angles[3] = {angle(random), angle(random) / 2, angle(random)};
  Matrix m = FromAngles(kOrders[random() % 6], angles);
  m.off = {joint.offset[0], joint.offset[1], joint.offset[2]};
  if (translate) m.off = {move(random), move(random), move(random)};
  return m;
}

TEST(Pose, WritingLocalsThenReadingThemBackIsExact) {
  std::mt19937_64 random(99);
  for (const PositionMode mode : {PositionMode::kAbsolute, PositionMode::kRelative}) {
    BvhMotion motion = RandomSkeleton(random);
    motion.frameCount = 40;
    motion.values.assign(static_cast<size_t>(40 * motion.channelCount), 0.0);
    const std::vector<PositionMode> modes(motion.joints.size(), mode);
    std::vector<std::vector<Matrix>> written;
    for (int64_t f = 0; f < motion.frameCount; ++f) {
      std::vector<Matrix> locals;
      for (const BvhJoint& joint : motion.joints) {
        locals.push_back(RandomLocal(random, joint.channels.size() == 6, joint));
      }
      ASSERT_TRUE(SetFrameFromLocals(motion, f, modes, locals));
      written.push_back(locals);
    }
    std::vector<Matrix> locals;
    std::vector<Matrix> globals;
    for (int64_t f = 0; f < motion.frameCount; ++f) {
      ComputeFrame(motion, f, modes, locals, globals);
      for (size_t j = 0; j < locals.size(); ++j) {
        ASSERT_LT(MatrixDistance(locals[j], written[static_cast<size_t>(f)][j]), 1e-9)
            << "frame " << f << " joint " << j;
      }
    }
  }
}

TEST(Pose, WrittenCurvesStayContinuous) {
  // A joint turning steadily about Y through several half turns, in an order where Y is the
  // first angle: the curve counts on instead of jumping back by 360.
  BvhMotion motion;
  motion.joints.push_back({"Root", -1, {0, 0, 0}, {kY, kX, kZ}});
  motion.channelCount = 3;
  motion.frameCount = 100;
  motion.frameTime = 1.0 / 30;
  motion.values.assign(300, 0.0);
  for (int64_t f = 0; f < motion.frameCount; ++f) {
    const double angles[3] = {7.5 * static_cast<double>(f), 10, 5};
    const Matrix local = FromAngles(kOrders[2], angles);
    ASSERT_TRUE(SetFrameFromLocals(motion, f, {}, std::span(&local, 1)));
  }
  for (int64_t f = 1; f < motion.frameCount; ++f) {
    EXPECT_NEAR(motion.Value(f, 0) - motion.Value(f - 1, 0), 7.5, 1e-9) << f;
    EXPECT_NEAR(motion.Value(f, 1), 10, 1e-9);
  }
  EXPECT_NEAR(motion.Value(99, 0), 742.5, 1e-9);
}

TEST(Pose, WritesWhatFewerChannelsCanHold) {
  BvhMotion motion;
  motion.joints.push_back({"Root", -1, {0, 0, 0}, {Channel::kYposition, kX}});
  motion.joints.push_back({"Hinge", 0, {0, 1, 0}, {kZ, kX}});
  motion.channelCount = 4;
  motion.frameCount = 1;
  motion.frameTime = 1;
  motion.values.assign(4, 0.0);
  const double root[1] = {30};
  const double hinge[2] = {-40, 25};
  const Channel rootAxis = kX;
  const Channel hingeAxes[2] = {kZ, kX};
  std::vector<Matrix> locals = {RotationFromChannels(&rootAxis, root, 1),
                                RotationFromChannels(hingeAxes, hinge, 2)};
  locals[0].off = {4, 5, 6};
  locals[1].off = {0, 1, 0};
  {
    // Rotations the channels can express come back exactly; only the channelled position axis
    // is written (relative to the offset's 0).
    ASSERT_TRUE(SetFrameFromLocals(motion, 0, {}, locals));
    EXPECT_NEAR(motion.Value(0, 0), 5, 1e-12);
    EXPECT_NEAR(motion.Value(0, 1), 30, 1e-12);
    EXPECT_NEAR(motion.Value(0, 2), -40, 1e-12);
    EXPECT_NEAR(motion.Value(0, 3), 25, 1e-12);
  }
  {
    // A frame out of range, or locals too few, change nothing.
    EXPECT_FALSE(SetFrameFromLocals(motion, 1, {}, locals));
    EXPECT_FALSE(SetFrameFromLocals(motion, 0, {}, std::span(locals).first(1)));
    EXPECT_NEAR(motion.Value(0, 1), 30, 1e-12);
  }
}

// One joint with offset `offset` and three position channels holding `rows`.
BvhMotion PositionedJoint(Vector offset, const std::vector<Vector>& rows) {
  BvhMotion motion;
  motion.joints.push_back({"Joint",
                           -1,
                           {offset.x, offset.y, offset.z},
                           {Channel::kXposition, Channel::kYposition, Channel::kZposition, kX}});
  motion.channelCount = 4;
  motion.frameCount = static_cast<int64_t>(rows.size());
  motion.frameTime = 1;
  for (const Vector& v : rows) motion.values.insert(motion.values.end(), {v.x, v.y, v.z, 0.0});
  return motion;
}

TEST(Pose, GuessesPositionModeFromTheData) {
  {
    // Values hovering around the offset: the local position itself.
    const BvhMotion motion = PositionedJoint({0, 90, 0}, {{1, 89, 0}, {-1, 91.5, 2}, {0, 90, -1}});
    EXPECT_EQ(GuessPositionMode(motion, 0), PositionMode::kAbsolute);
  }
  {
    // Values hovering around zero: a displacement.
    const BvhMotion motion = PositionedJoint({0, 90, 0}, {{1, -2, 0}, {-1, 3, 2}, {0, 1, -1}});
    EXPECT_EQ(GuessPositionMode(motion, 0), PositionMode::kRelative);
  }
  {
    // A root at its height travelling far along Z: the travel is across the offset and does not
    // count; the height says absolute. A bob around zero with the same travel says relative.
    std::vector<Vector> absolute;
    std::vector<Vector> relative;
    for (int f = 0; f < 50; ++f) {
      absolute.push_back({0, 92, 40.0 * f});
      relative.push_back({0, -3, 40.0 * f});
    }
    EXPECT_EQ(GuessPositionMode(PositionedJoint({0, 95, 0}, absolute), 0), PositionMode::kAbsolute);
    EXPECT_EQ(GuessPositionMode(PositionedJoint({0, 95, 0}, relative), 0), PositionMode::kRelative);
  }
  {
    // Where the modes agree or there is nothing to judge: relative.
    EXPECT_EQ(GuessPositionMode(PositionedJoint({0, 0, 0}, {{5, 5, 5}}), 0),
              PositionMode::kRelative);
    EXPECT_EQ(GuessPositionMode(PositionedJoint({0, 90, 0}, {}), 0), PositionMode::kRelative);
    EXPECT_EQ(GuessPositionMode(PositionedJoint({0, 90, 0}, {{0, 90, 0}}), 1),
              PositionMode::kRelative);
    EXPECT_EQ(GuessPositionMode(PositionedJoint({0, 90, 0}, {{0, 90, 0}}), -1),
              PositionMode::kRelative);
    const BvhMotion noPositions = Chain({0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(GuessPositionMode(noPositions, 1), PositionMode::kRelative);
  }
}

std::filesystem::path DataFile(const char* name) {
  return std::filesystem::path(TARNI_TEST_DATA_DIR) / name;
}

TEST(Pose, SharedClipsRestPosesAndPositionModes) {
  struct Clip {
    const char* file;
    const char* shoulder;  // upper arm joint
    const char* wrist;     // joint at the end of the forearm
    bool armsHanging;
  };
  const Clip clips[] = {{"cmu/131_01_walk.bvh", "LeftShoulder", "LeftWrist", true},
                        {"cmu/01_01_jumps.bvh", "LeftArm", "LeftHand", false},
                        {"reactidle/003_genuine_idle.bvh", "upper_arm.L", "forearm.L", false}};
  if (!std::filesystem::exists(DataFile(clips[0].file))) GTEST_SKIP() << "no shared data";
  for (const Clip& clip : clips) {
    SCOPED_TRACE(clip.file);
    BvhMotion motion;
    IoError error;
    ASSERT_TRUE(ReadBvh(DataFile(clip.file), motion, error)) << error.ToText();
    std::vector<Matrix> locals;
    std::vector<Matrix> globals;
    {
      // Rest poses: the arm hangs (the wrist well below the shoulder) or is level.
      ComputeRestPose(motion, locals, globals);
      const int shoulder = motion.FindJoint(clip.shoulder);
      const int wrist = motion.FindJoint(clip.wrist);
      ASSERT_GE(shoulder, 0);
      ASSERT_GE(wrist, 0);
      const Vector arm =
          globals[static_cast<size_t>(wrist)].off - globals[static_cast<size_t>(shoulder)].off;
      if (clip.armsHanging) {
        EXPECT_LT(arm.y, -0.8 * Length(arm));
      } else {
        EXPECT_LT(std::abs(arm.y), 0.1 * Length(arm));
      }
    }
    {
      // The mode guessed for every joint with position channels. Whatever it decides, a joint
      // must then keep its distance to its parent: reading an absolute position as relative
      // would double it.
      const std::vector<PositionMode> modes = GuessPositionModes(motion);
      std::string decided;
      for (size_t j = 0; j < motion.joints.size(); ++j) {
        bool positions = false;
        for (const Channel c : motion.joints[j].channels) positions |= c <= Channel::kZposition;
        if (!positions) continue;
        decided += " " + motion.joints[j].name + "=" +
                   (modes[j] == PositionMode::kAbsolute ? "absolute" : "relative");
      }
      std::cout << "[ modes    ] " << clip.file << ":" << decided << "\n";
      for (int64_t f = 0; f < motion.frameCount; f += 97) {
        ComputeFrame(motion, f, modes, locals, globals);
        for (size_t j = 1; j < motion.joints.size(); ++j) {
          const BvhJoint& joint = motion.joints[j];
          const double rest = std::hypot(joint.offset[0], joint.offset[1], joint.offset[2]);
          if (rest == 0) continue;
          const double now = Length(locals[j].off);
          EXPECT_NEAR(now, rest, 0.05 * rest) << joint.name << " frame " << f;
        }
      }
      if (std::string(clip.file).starts_with("reactidle")) {
        // The pelvis stores a small displacement from its height offset, the neck its position.
        EXPECT_EQ(modes[static_cast<size_t>(motion.FindJoint("pelvis"))], PositionMode::kRelative);
        EXPECT_EQ(modes[static_cast<size_t>(motion.FindJoint("neck"))], PositionMode::kAbsolute);
        // And so the feet stay on the floor through the idle.
        const int foot = motion.FindJoint("foot.L");
        for (int64_t f = 0; f < motion.frameCount; f += 50) {
          ComputeFrame(motion, f, modes, locals, globals);
          EXPECT_NEAR(globals[static_cast<size_t>(foot)].off.y, 0.06, 0.03) << f;
        }
      }
    }
  }
}

}  // namespace
}  // namespace tarni::host
