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

constexpr const char* kFeet[2][2] = {{"LeftFoot", "LeftToeBase"}, {"RightFoot", "RightToeBase"}};

struct Posed {
  std::vector<Matrix> locals;
  std::vector<Matrix> globals;
};

std::vector<Posed> PoseAll(const BvhMotion& motion) {
  const std::vector<PositionMode> modes = GuessPositionModes(motion);
  std::vector<Posed> frames(static_cast<size_t>(motion.frameCount));
  for (int64_t f = 0; f < motion.frameCount; ++f) {
    Posed& p = frames[static_cast<size_t>(f)];
    ComputeFrame(motion, f, modes, p.locals, p.globals);
  }
  return frames;
}

Vector At(const BvhMotion& motion, const Posed& pose, const char* joint) {
  const int index = motion.FindJoint(joint);
  EXPECT_GE(index, 0) << joint;
  return index < 0 ? Vector{} : pose.globals[static_cast<size_t>(index)].off;
}

double MaxDifference(const Matrix& a, const Matrix& b) {
  double d = 0;
  for (const auto& [u, v] : {std::pair{a.off, b.off}, std::pair{a.v1, b.v1}, std::pair{a.v2, b.v2},
                             std::pair{a.v3, b.v3}}) {
    d = std::max({d, std::abs(u.x - v.x), std::abs(u.y - v.y), std::abs(u.z - v.z)});
  }
  return d;
}

TEST(DemoWalk, IsAValidLoopingClip) {
  const BvhMotion walk = MakeWalkingHumanoid();
  {
    // Two cycles of 33 frames at 30 fps and the closing frame; a clip the writer accepts.
    IoError error;
    EXPECT_TRUE(CheckBvh(walk, error)) << error.ToText();
    EXPECT_EQ(walk.frameCount, 67);
    EXPECT_DOUBLE_EQ(walk.FrameRate(), 30.0);
    EXPECT_EQ(walk.joints.size(), 22u);
    BvhMotion reread;
    ASSERT_TRUE(ReadBvh(WriteBvh(walk), "walk.bvh", reread, error)) << error.ToText();
    EXPECT_EQ(reread.values, walk.values);
  }
  {
    // The last pose is the first one carried forward by two strides: every joint's local
    // matrix matches, apart from the root's travel along +Z.
    const std::vector<Posed> frames = PoseAll(walk);
    Posed first = frames.front();
    first.locals[0].off.z += 2 * 100.0;
    for (size_t j = 0; j < walk.joints.size(); ++j) {
      EXPECT_LT(MaxDifference(first.locals[j], frames.back().locals[j]), 1e-9)
          << walk.joints[j].name;
    }
    // And the channel rows agree too (no angle came back a turn away), but for Hips Zposition.
    for (int c = 0; c < walk.channelCount; ++c) {
      if (c == 2) continue;
      EXPECT_NEAR(walk.Value(0, c), walk.Value(66, c), 1e-9) << c;
    }
  }
  {
    // Options: their own cycle length and rate; nonsense falls back to the defaults.
    WalkOptions options;
    options.cycles = 3;
    options.fps = 60;
    EXPECT_EQ(MakeWalkingHumanoid(options).frameCount, 3 * 66 + 1);
    options.cycles = 0;
    options.fps = std::nan("");
    options.cycleSeconds = -1;
    options.strideCm = INFINITY;
    const BvhMotion fallback = MakeWalkingHumanoid(options);
    EXPECT_EQ(fallback.frameCount, 67);
    EXPECT_EQ(fallback.values, walk.values);
  }
}

TEST(DemoWalk, FeetStayPlantedInStanceAndClearTheGroundInSwing) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const std::vector<Posed> frames = PoseAll(walk);
  for (int side = 0; side < 2; ++side) {
    SCOPED_TRACE(kFeet[side][0]);
    int planted = 0;
    double highest = 0;
    Vector contact{};
    bool inContact = false;
    for (size_t f = 0; f < frames.size(); ++f) {
      const Vector ankle = At(walk, frames[f], kFeet[side][0]);
      const Vector toe = At(walk, frames[f], kFeet[side][1]);
      // Nothing of the foot goes through the floor.
      EXPECT_GT(std::min(ankle.y, toe.y), -1e-6) << f;
      highest = std::max(highest, toe.y);
      if (toe.y < 1e-6) {
        // On the ground the toe does not slide: it stays where it touched down.
        if (!inContact) contact = toe;
        EXPECT_NEAR(toe.x, contact.x, 1e-6) << f;
        EXPECT_NEAR(toe.z, contact.z, 1e-6) << f;
        inContact = true;
        ++planted;
      } else {
        inContact = false;
      }
    }
    // The foot stands for more than half of the clip and lifts clear in between.
    EXPECT_GT(planted, 67 / 2);
    EXPECT_LT(planted, 67 * 3 / 4);
    EXPECT_GT(highest, 3.0);
  }
}

TEST(DemoWalk, MovesLikeAWalk) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const std::vector<Posed> frames = PoseAll(walk);
  {
    // Forward along +Z at a walking pace (100 cm in 1.1 s), the hips bobbing a few centimetres.
    const double seconds = 66 * walk.frameTime;
    const double speed =
        (frames.back().globals[0].off.z - frames.front().globals[0].off.z) / seconds / 100.0;
    EXPECT_GT(speed, 0.7);
    EXPECT_LT(speed, 1.6);
    double low = 1e9;
    double high = -1e9;
    for (const Posed& p : frames) {
      low = std::min(low, p.globals[0].off.y);
      high = std::max(high, p.globals[0].off.y);
    }
    EXPECT_GT(high - low, 2.0);
    EXPECT_LT(high - low, 8.0);
  }
  {
    // The knee carries the body nearly straight at some point of the flat-foot stance and bends
    // far more while its foot swings.
    const int knee = walk.FindJoint("LeftLeg");
    double stanceBend = 180;
    double swingBend = 0;
    for (size_t f = 0; f < frames.size(); ++f) {
      const Matrix& local = frames[f].locals[static_cast<size_t>(knee)];
      const double bend = std::acos(std::clamp(local.v2.y, -1.0, 1.0)) * 180 / M_PI;
      const double toe = At(walk, frames[f], "LeftToeBase").y;
      if (toe < 1e-6 && At(walk, frames[f], "LeftFoot").y < 7 + 1e-6) {
        stanceBend = std::min(stanceBend, bend);
      } else if (toe > 1e-6) {
        swingBend = std::max(swingBend, bend);
      }
    }
    EXPECT_LT(stanceBend, 20);
    EXPECT_GT(swingBend, stanceBend + 30);
  }
  {
    // Arms swing against the legs: when the left foot is furthest ahead of the hips, the left
    // hand is behind them and the right hand ahead.
    size_t ahead = 0;
    for (size_t f = 0; f < frames.size(); ++f) {
      const double lead = At(walk, frames[f], "LeftFoot").z - frames[f].globals[0].off.z;
      if (lead > At(walk, frames[ahead], "LeftFoot").z - frames[ahead].globals[0].off.z) {
        ahead = f;
      }
    }
    const double hips = frames[ahead].globals[0].off.z;
    EXPECT_LT(At(walk, frames[ahead], "LeftHand").z, hips - 5);
    EXPECT_GT(At(walk, frames[ahead], "RightHand").z, hips + 5);
  }
}

TEST(DemoTarget, IsAnotherBuildUnderOtherNames) {
  const BvhMotion walk = MakeWalkingHumanoid();
  const BvhMotion target = MakeTargetSkeleton();
  {
    // Valid, one frame of zeros, a different joint count and no name in common.
    IoError error;
    EXPECT_TRUE(CheckBvh(target, error)) << error.ToText();
    EXPECT_EQ(target.frameCount, 1);
    EXPECT_EQ(target.joints.size(), 19u);
    EXPECT_TRUE(
        std::all_of(target.values.begin(), target.values.end(), [](double v) { return v == 0.0; }));
    std::set<std::string> names;
    for (const BvhJoint& joint : walk.joints) names.insert(joint.name);
    for (const BvhJoint& joint : target.joints) EXPECT_EQ(names.count(joint.name), 0u);
  }
  {
    // XYZ rotation order everywhere (the walk uses ZXY).
    for (const BvhJoint& joint : target.joints) {
      const size_t n = joint.channels.size();
      ASSERT_GE(n, 3u);
      EXPECT_EQ(joint.channels[n - 3], Channel::kXrotation);
      EXPECT_EQ(joint.channels[n - 2], Channel::kYrotation);
      EXPECT_EQ(joint.channels[n - 1], Channel::kZrotation);
    }
    EXPECT_EQ(walk.joints[1].channels[0], Channel::kZrotation);
  }
  {
    // Proportions from the rest poses: about 15% taller, longer legs, shorter arms, arms level
    // instead of hanging; both stand on the ground.
    std::vector<Matrix> wl, wg, tl, tg;
    ComputeRestPose(walk, wl, wg);
    ComputeRestPose(target, tl, tg);
    auto top = [](const BvhMotion& m, const std::vector<Matrix>& g, const char* head) {
      const BvhJoint& joint = m.joints[static_cast<size_t>(m.FindJoint(head))];
      return TransformPoint(g[static_cast<size_t>(m.FindJoint(head))],
                            {joint.endSite[0], joint.endSite[1], joint.endSite[2]})
          .y;
    };
    auto point = [](const BvhMotion& m, const std::vector<Matrix>& g, const char* name) {
      return g[static_cast<size_t>(m.FindJoint(name))].off;
    };
    const double walkHeight = top(walk, wg, "Head");
    const double targetHeight = top(target, tg, "head");
    EXPECT_NEAR(targetHeight / walkHeight, 1.15, 0.02);
    const double walkLeg = point(walk, wg, "LeftUpLeg").y;
    const double targetLeg = point(target, tg, "thigh_l").y;
    EXPECT_GT(targetLeg / walkLeg, 1.18);
    const double walkArm = Length(point(walk, wg, "LeftHand") - point(walk, wg, "LeftArm"));
    const double targetArm = Length(point(target, tg, "hand_l") - point(target, tg, "upperarm_l"));
    EXPECT_LT(targetArm, walkArm);
    EXPECT_NEAR(point(target, tg, "hand_l").y, point(target, tg, "upperarm_l").y, 1e-9);
    EXPECT_GT(point(target, tg, "hand_l").x, point(target, tg, "upperarm_l").x + 40);
    EXPECT_LT(point(walk, wg, "LeftHand").y, point(walk, wg, "LeftArm").y - 50);
    EXPECT_NEAR(point(walk, wg, "LeftToeBase").y, 0.0, 1e-9);
    const BvhJoint& foot = target.joints[static_cast<size_t>(target.FindJoint("foot_l"))];
    EXPECT_NEAR(point(target, tg, "foot_l").y + foot.endSite[1], 0.0, 1e-9);
  }
}

}  // namespace
}  // namespace tarni::host
