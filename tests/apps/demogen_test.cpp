#include "motion/demogen.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "motion/pose.h"

namespace tarni::host {
namespace {

struct Posed {
  std::vector<Matrix> locals;
  std::vector<Matrix> globals;
  Vector At(const BvhMotion& motion, const char* joint) const {
    return globals[static_cast<size_t>(motion.FindJoint(joint))].off;
  }
};

std::vector<Posed> PoseAll(const BvhMotion& motion) {
  std::vector<Posed> frames(static_cast<size_t>(motion.frameCount));
  for (size_t f = 0; f < frames.size(); ++f) {
    ComputeFrame(motion, static_cast<int64_t>(f), GuessPositionModes(motion), frames[f].locals,
                 frames[f].globals);
  }
  return frames;
}

double Distance(const Matrix& a, const Matrix& b) {
  double d = 0;
  for (const Vector& v : {a.off - b.off, a.v1 - b.v1, a.v2 - b.v2, a.v3 - b.v3}) {
    d = std::max({d, std::abs(v.x), std::abs(v.y), std::abs(v.z)});
  }
  return d;
}

TEST(DemoWalk, IsAValidClipThatLoops) {
  const BvhMotion walk = MakeWalkingHumanoid();
  {
    // Two cycles of 33 frames at 30 fps and the closing frame, through the writer and back.
    IoError error;
    EXPECT_TRUE(CheckBvh(walk, error)) << error.ToText();
    EXPECT_EQ(walk.frameCount, 67);
    BvhMotion reread;
    ASSERT_TRUE(ReadBvh(WriteBvh(walk), "walk.bvh", reread, error)) << error.ToText();
    EXPECT_EQ(reread.values, walk.values);
  }
  {
    // The last pose is the first carried forward by two strides: every local matrix matches
    // but the root's travel, and so does every channel (no angle came back a turn away) but
    // Hips Zposition.
    const std::vector<Posed> frames = PoseAll(walk);
    Posed first = frames.front();
    first.locals[0].off.z += 2 * 100.0;
    for (size_t j = 0; j < walk.joints.size(); ++j) {
      EXPECT_LT(Distance(first.locals[j], frames.back().locals[j]), 1e-9) << walk.joints[j].name;
    }
    for (int c = 0; c < walk.channelCount; ++c) {
      if (c != 2) {
        EXPECT_NEAR(walk.Value(0, c), walk.Value(66, c), 1e-9) << c;
      }
    }
  }
  {
    // Options set the cycle count and rate; nonsense falls back to the defaults.
    EXPECT_EQ(MakeWalkingHumanoid({3, 1.1, 60, 100}).frameCount, 3 * 66 + 1);
    EXPECT_EQ(MakeWalkingHumanoid({0, -1, NAN, INFINITY}).values, walk.values);
  }
}

TEST(DemoWalk, WalksWithPlantedFeetBentSwingKneesAndCounterSwingingArms) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const std::vector<Posed> frames = PoseAll(walk);
  for (const char* side : {"Left", "Right"}) {
    SCOPED_TRACE(side);
    const std::string foot = std::string(side) + "Foot";
    const std::string toe = std::string(side) + "ToeBase";
    const int knee = walk.FindJoint((std::string(side) + "Leg").c_str());
    int planted = 0;
    double highest = 0;
    double flatBend = 180;
    double swingBend = 0;
    Vector contact{};
    for (size_t f = 0; f < frames.size(); ++f) {
      const Vector ankle = frames[f].At(walk, foot.c_str());
      const Vector ball = frames[f].At(walk, toe.c_str());
      const double bend = std::acos(frames[f].locals[static_cast<size_t>(knee)].v2.y) * 180 / M_PI;
      // Nothing goes through the floor; on it the toe does not slide from where it touched down.
      EXPECT_GT(std::min(ankle.y, ball.y), -1e-6) << f;
      highest = std::max(highest, ball.y);
      if (ball.y < 1e-6) {
        if (planted == 0 || frames[f - 1].At(walk, toe.c_str()).y >= 1e-6) contact = ball;
        EXPECT_LT(Length(ball - contact), 1e-6) << f;
        ++planted;
        if (ankle.y < 7 + 1e-6) flatBend = std::min(flatBend, bend);
      } else {
        swingBend = std::max(swingBend, bend);
      }
    }
    // Standing 55-70% of the time and lifting clear in between; the knee nearly straight at
    // some point of the flat-foot stance and bent far more in the swing.
    EXPECT_GT(planted, 67 * 55 / 100);
    EXPECT_LT(planted, 67 * 70 / 100);
    EXPECT_GT(highest, 5.0);
    EXPECT_LT(flatBend, 20);
    EXPECT_GT(swingBend, flatBend + 30);
  }
  // Forward along +Z at a walking pace (100 cm per 1.1 s), the hips bobbing a few centimetres.
  const double speed = (frames.back().globals[0].off.z - frames[0].globals[0].off.z) / 2.2;
  EXPECT_NEAR(speed, 91, 1);
  const auto [low, high] = std::minmax_element(
      frames.begin(), frames.end(),
      [](const Posed& a, const Posed& b) { return a.globals[0].off.y < b.globals[0].off.y; });
  EXPECT_GT(high->globals[0].off.y - low->globals[0].off.y, 2.0);
  EXPECT_LT(high->globals[0].off.y - low->globals[0].off.y, 8.0);
  // When the left foot is furthest ahead of the hips, the left hand is behind them, the right
  // one ahead.
  const auto ahead =
      std::max_element(frames.begin(), frames.end(), [&](const Posed& a, const Posed& b) {
        return a.At(walk, "LeftFoot").z - a.globals[0].off.z <
               b.At(walk, "LeftFoot").z - b.globals[0].off.z;
      });
  EXPECT_LT(ahead->At(walk, "LeftHand").z, ahead->globals[0].off.z - 5);
  EXPECT_GT(ahead->At(walk, "RightHand").z, ahead->globals[0].off.z + 5);
}

TEST(DemoTarget, IsAnotherBuildUnderOtherNames) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const BvhMotion target = MakeTargetSkeleton();
  {
    // Valid, one frame of zeros, another joint count, no name in common, XYZ order throughout
    // where the walk uses ZXY.
    IoError error;
    EXPECT_TRUE(CheckBvh(target, error)) << error.ToText();
    EXPECT_EQ(target.frameCount, 1);
    EXPECT_EQ(target.values, std::vector<double>(static_cast<size_t>(target.channelCount), 0.0));
    EXPECT_EQ(walk.joints.size(), 22u);
    EXPECT_EQ(target.joints.size(), 19u);
    std::set<std::string> names;
    for (const BvhJoint& joint : walk.joints) names.insert(joint.name);
    for (const BvhJoint& joint : target.joints) {
      EXPECT_EQ(names.count(joint.name), 0u);
      const std::vector<Channel> xyz(joint.channels.end() - 3, joint.channels.end());
      EXPECT_EQ(xyz, (std::vector<Channel>{Channel::kXrotation, Channel::kYrotation,
                                           Channel::kZrotation}));
    }
  }
  {
    // Rest poses: 15% taller, longer legs, shorter arms held level instead of hanging, both
    // standing on the ground.
    std::vector<Posed> rest(2);
    ComputeRestPose(walk, rest[0].locals, rest[0].globals);
    ComputeRestPose(target, rest[1].locals, rest[1].globals);
    const double walkTop = rest[0].At(walk, "Head").y + walk.joints[5].endSite[1];
    const double targetTop = rest[1].At(target, "head").y + target.joints[4].endSite[1];
    EXPECT_NEAR(targetTop / walkTop, 1.15, 0.02);
    EXPECT_GT(rest[1].At(target, "thigh_l").y / rest[0].At(walk, "LeftUpLeg").y, 1.18);
    const Vector walkArm = rest[0].At(walk, "LeftHand") - rest[0].At(walk, "LeftArm");
    const Vector targetArm = rest[1].At(target, "hand_l") - rest[1].At(target, "upperarm_l");
    EXPECT_LT(Length(targetArm), Length(walkArm));
    EXPECT_GT(targetArm.x, 40);
    EXPECT_EQ(rest[0].At(walk, "LeftToeBase").y, 0);
    EXPECT_EQ(rest[1].At(target, "foot_l").y + target.joints[15].endSite[1], 0);
  }
}

}  // namespace
}  // namespace tarni::host
