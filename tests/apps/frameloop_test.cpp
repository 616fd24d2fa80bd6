// The retarget frame loop's shortcuts: partial forward kinematics, the row writer that keeps each
// joint's last conversion, zero angles without trigonometry, and the source nodes a Retargeter
// keeps from frame to frame. Each must give bit for bit what the plain path gives.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <random>
#include <span>
#include <vector>

#include "io/bvh.h"
#include "motion/demogen.h"
#include "motion/euler.h"
#include "motion/pose.h"
#include "retarget/preset.h"
#include "retarget/retargeter.h"

namespace tarni::host {
namespace {

using tarni::Matrix;
using tarni::Vector;

bool SameBits(const Matrix& a, const Matrix& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool SameBits(const std::vector<double>& a, const std::vector<double>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

BvhJoint Joint(const char* name, int parent, std::vector<Channel> channels, Vector offset) {
  BvhJoint joint;
  joint.name = name;
  joint.parent = parent;
  joint.channels = std::move(channels);
  joint.offset[0] = offset.x;
  joint.offset[1] = offset.y;
  joint.offset[2] = offset.z;
  return joint;
}

// Every channel layout the writer plans for: six channels, a reordered triple, two rotations, a
// repeated axis, positions alone and no channels at all.
BvhMotion MixedMotion(int64_t frames) {
  using C = Channel;
  BvhMotion motion;
  motion.joints = {
      Joint("root", -1,
            {C::kXposition, C::kYposition, C::kZposition, C::kZrotation, C::kXrotation,
             C::kYrotation},
            {0, 90, 0}),
      Joint("spine", 0, {C::kYrotation, C::kZrotation, C::kXrotation}, {0, 10, 0}),
      Joint("arm", 1, {C::kXrotation, C::kZrotation}, {15, 0, 0}),
      Joint("hand", 2, {C::kXrotation, C::kYrotation, C::kXrotation}, {20, 0, 0}),
      Joint("slide", 1, {C::kYposition, C::kXposition}, {0, 5, 2}),
      Joint("tip", 3, {}, {5, 0, 0}),
  };
  motion.channelCount = 6 + 3 + 2 + 3 + 2;
  motion.frameCount = frames;
  motion.frameTime = 1.0 / 30;
  motion.values.assign(static_cast<size_t>(frames * motion.channelCount), 0.0);
  return motion;
}

// Random local matrices from random channel values, as a frame loop would hand them over.
std::vector<Matrix> RandomLocals(const BvhMotion& motion, std::mt19937& random) {
  std::uniform_real_distribution<double> angle(-400.0, 400.0);
  std::vector<Matrix> locals;
  for (size_t j = 0; j < motion.joints.size(); ++j) {
    const Channel order[3] = {Channel::kZrotation, Channel::kXrotation, Channel::kYrotation};
    const double degrees[3] = {angle(random), angle(random), angle(random)};
    Matrix local = RotationFromChannels(order, degrees, 3);
    local.off = {angle(random), angle(random), angle(random)};
    locals.push_back(local);
  }
  return locals;
}

TEST(FrameRowWriter, WritesTheRowsSetFrameFromLocalsWrites) {
  const std::vector<PositionMode> modes = {PositionMode::kAbsolute, PositionMode::kRelative,
                                           PositionMode::kRelative, PositionMode::kRelative,
                                           PositionMode::kAbsolute};  // "tip": kRelative
  std::mt19937 random(7);
  {
    // A frame loop in order with repeated poses (the kept conversion), a gimbal-locked pose and
    // a pose with signed zeros, against SetFrameFromLocals frame by frame.
    BvhMotion plain = MixedMotion(9), fast = MixedMotion(9);
    FrameRowWriter writer(fast, modes);
    std::vector<Matrix> locals = RandomLocals(plain, random);
    for (int64_t frame = 0; frame < 9; ++frame) {
      if (frame == 3 || frame == 6) locals = RandomLocals(plain, random);
      if (frame == 5) {
        const Channel order[3] = {Channel::kZrotation, Channel::kXrotation, Channel::kYrotation};
        const double locked[3] = {30, 90, -0.0};
        locals[0] = RotationFromChannels(order, locked, 3);
        locals[1] = Matrix{};
        locals[1].v2.x = -0.0;
      }
      ASSERT_TRUE(SetFrameFromLocals(plain, frame, modes, locals));
      ASSERT_TRUE(writer.Write(fast, frame, locals));
    }
    EXPECT_TRUE(SameBits(plain.values, fast.values));
  }
  {
    // The same pose written after rows holding different angles: the kept conversion is of the
    // same matrix but not of the same previous angles, so it must not be reused.
    BvhMotion plain = MixedMotion(6);
    std::uniform_real_distribution<double> any(-1000.0, 1000.0);
    for (double& value : plain.values) value = any(random);
    BvhMotion fast = plain;
    FrameRowWriter writer(fast, modes);
    const std::vector<Matrix> locals = RandomLocals(plain, random);
    for (const int64_t frame : {2, 5, 3, 0, 1}) {
      ASSERT_TRUE(SetFrameFromLocals(plain, frame, modes, locals));
      ASSERT_TRUE(writer.Write(fast, frame, locals));
    }
    EXPECT_TRUE(SameBits(plain.values, fast.values));
  }
  {
    // Out-of-range frames, too few locals, values that do not fit and another skeleton change
    // nothing and say so.
    BvhMotion motion = MixedMotion(2);
    FrameRowWriter writer(motion, modes);
    const std::vector<Matrix> locals = RandomLocals(motion, random);
    const std::vector<double> before = motion.values;
    EXPECT_FALSE(writer.Write(motion, -1, locals));
    EXPECT_FALSE(writer.Write(motion, 2, locals));
    EXPECT_FALSE(writer.Write(motion, 0, std::span(locals).first(3)));
    motion.values.pop_back();
    EXPECT_FALSE(writer.Write(motion, 0, locals));
    motion.values.push_back(0.0);
    EXPECT_TRUE(SameBits(before, motion.values));
    BvhMotion other = MixedMotion(2);
    other.joints.pop_back();
    EXPECT_FALSE(writer.Write(other, 0, locals));
  }
}

TEST(ComputeFrameJoints, ComputesTheFlaggedJointsAsComputeFrame) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const std::vector<PositionMode> modes = GuessPositionModes(walk);
  std::vector<Matrix> locals, globals;
  {
    // Ancestors come with the joints asked for; bad indices are ignored.
    const int leftHand = walk.FindJoint("LeftHand");
    ASSERT_GE(leftHand, 0);
    const std::vector<int> asked = {leftHand, -3, 999};
    const std::vector<uint8_t> flags = JointsWithAncestors(walk, asked);
    ASSERT_EQ(flags.size(), walk.joints.size());
    for (size_t j = 0; j < flags.size(); ++j) {
      bool ancestor = false;
      for (int a = leftHand; a >= 0; a = walk.joints[static_cast<size_t>(a)].parent)
        ancestor = ancestor || static_cast<size_t>(a) == j;
      EXPECT_EQ(flags[j] != 0, ancestor) << walk.joints[j].name;
    }

    // Flagged joints equal ComputeFrame's bit for bit; the others keep what they held.
    std::vector<Matrix> allLocals, allGlobals;
    ComputeFrame(walk, 17, modes, allLocals, allGlobals);
    Matrix marker;
    marker.off = {1, 2, 3};
    locals.assign(walk.joints.size(), marker);
    globals.assign(walk.joints.size(), marker);
    ComputeFrameJoints(walk, 17, modes, flags, locals, globals);
    for (size_t j = 0; j < flags.size(); ++j) {
      EXPECT_TRUE(SameBits(globals[j], flags[j] ? allGlobals[j] : marker)) << walk.joints[j].name;
      EXPECT_TRUE(SameBits(locals[j], flags[j] ? allLocals[j] : marker)) << walk.joints[j].name;
    }
  }
}

// The rotation of one channel as the plain path forms it: the identity times the axis rotation
// from std::cos and std::sin of the angle.
Matrix PlainAxisRotation(Channel channel, double degrees) {
  const double radians = degrees * (std::numbers::pi / 180.0);
  const double c = std::cos(radians);
  const double s = std::sin(radians);
  Matrix m;
  if (channel == Channel::kXrotation) {
    m.v2 = {0, c, s};
    m.v3 = {0, -s, c};
  } else if (channel == Channel::kYrotation) {
    m.v1 = {c, 0, -s};
    m.v3 = {s, 0, c};
  } else {
    m.v1 = {c, s, 0};
    m.v2 = {-s, c, 0};
  }
  return Matrix{} * m;
}

TEST(Euler, ZeroAnglesGiveTheTrigonometrysSignedZeros) {
  // Both zeros on every axis, and tiny angles beside them: the sign of a zero entry decides
  // which way a later atan2 turns at +-180 degrees.
  for (const Channel channel : {Channel::kXrotation, Channel::kYrotation, Channel::kZrotation}) {
    for (const double degrees : {0.0, -0.0, 1e-300, -1e-300}) {
      EXPECT_TRUE(SameBits(RotationFromChannels(&channel, &degrees, 1),
                           PlainAxisRotation(channel, degrees)))
          << static_cast<int>(channel) << " " << degrees;
    }
  }
}

TEST(Retargeter, KeptSourceNodesLeaveNoTraceBetweenFrames) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const BvhMotion target = MakeTargetSkeleton();
  std::vector<Preset> presets;
  IoError error;
  ASSERT_TRUE(LoadShippedPresets(presets, error)) << error.ToText();
  const Preset& sourcePreset = presets[static_cast<size_t>(std::max(0, PickPreset(walk, presets)))];
  const Preset& targetPreset =
      presets[static_cast<size_t>(std::max(0, PickPreset(target, presets)))];
  Retargeter first, second;
  ASSERT_TRUE(
      first.Setup(walk, "walk.bvh", sourcePreset, target, "target.bvh", targetPreset, {}, error))
      << error.ToText();
  ASSERT_TRUE(
      second.Setup(walk, "walk.bvh", sourcePreset, target, "target.bvh", targetPreset, {}, error))
      << error.ToText();
  // A frame solved after others, on the same set-up, equals that frame solved first on a fresh
  // one: nothing of an earlier frame stays in the nodes kept from frame to frame.
  std::vector<Matrix> afterOthers, fresh;
  for (const int64_t frame : {5, 40, 11, 23})
    ASSERT_TRUE(first.SolveFrame(frame, afterOthers, error)) << error.ToText();
  ASSERT_TRUE(second.SolveFrame(23, fresh, error)) << error.ToText();
  ASSERT_EQ(afterOthers.size(), fresh.size());
  for (size_t j = 0; j < fresh.size(); ++j)
    EXPECT_TRUE(SameBits(afterOthers[j], fresh[j])) << target.joints[j].name;

  // The whole run equals the frames solved one by one and written the plain way.
  BvhMotion output;
  ASSERT_TRUE(first.Run(output, error)) << error.ToText();
  BvhMotion plain = target;
  plain.frameCount = walk.frameCount;
  plain.frameTime = walk.frameTime;
  plain.values.assign(static_cast<size_t>(walk.frameCount * plain.channelCount), 0.0);
  std::vector<Matrix> locals;
  for (int64_t frame = 0; frame < walk.frameCount; ++frame) {
    ASSERT_TRUE(second.SolveFrame(frame, locals, error)) << error.ToText();
    ASSERT_TRUE(SetFrameFromLocals(plain, frame, second.Target().modes, locals));
  }
  EXPECT_TRUE(SameBits(output.values, plain.values));
}

}  // namespace
}  // namespace tarni::host
