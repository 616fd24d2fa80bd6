#include "motion/demogen.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>
#include <vector>

#include "motion/euler.h"
#include "motion/pose.h"

namespace tarni::host {
namespace {

constexpr double kPi = std::numbers::pi;
constexpr double kRadians = kPi / 180.0;

// Skeleton measures of the walker, in centimetres.
constexpr double kHipHeight = 95.0;
constexpr double kHipJoint[3] = {9.0, -5.0, 0.0};  // left UpLeg from Hips
constexpr double kThigh = 43.0;
constexpr double kShin = 40.0;
constexpr double kAnkleHeight = 7.0;
constexpr double kFootLength = 13.0;  // ankle to toe base, along +Z

// Gait timing, as fractions of a cycle measured from the leg's heel strike.
constexpr double kStance = 0.6;    // the foot is on the ground
constexpr double kHeelOff = 0.45;  // the heel starts to rise, the foot pivots on its toe
constexpr double kToeOffPitch = 30.0;
constexpr double kToeLift = 7.0;  // toe height at mid-swing

const std::vector<Channel> kRootZxy = {Channel::kXposition, Channel::kYposition,
                                       Channel::kZposition, Channel::kZrotation,
                                       Channel::kXrotation, Channel::kYrotation};
const std::vector<Channel> kZxy = {Channel::kZrotation, Channel::kXrotation, Channel::kYrotation};
const std::vector<Channel> kRootXyz = {Channel::kXposition, Channel::kYposition,
                                       Channel::kZposition, Channel::kXrotation,
                                       Channel::kYrotation, Channel::kZrotation};
const std::vector<Channel> kXyz = {Channel::kXrotation, Channel::kYrotation, Channel::kZrotation};

// Appends a joint; joints must be added in pre-order (each followed by its whole subtree).
int AddJoint(BvhMotion& motion, std::string name, int parent, Vector offset,
             const std::vector<Channel>& channels) {
  BvhJoint joint;
  joint.name = std::move(name);
  joint.parent = parent;
  joint.offset[0] = offset.x;
  joint.offset[1] = offset.y;
  joint.offset[2] = offset.z;
  joint.channels = channels;
  motion.joints.push_back(std::move(joint));
  motion.channelCount += static_cast<int>(channels.size());
  return static_cast<int>(motion.joints.size()) - 1;
}

void SetEndSite(BvhMotion& motion, int joint, Vector offset) {
  BvhJoint& j = motion.joints[static_cast<size_t>(joint)];
  j.hasEndSite = true;
  j.endSite[0] = offset.x;
  j.endSite[1] = offset.y;
  j.endSite[2] = offset.z;
}

Matrix RotX(double degrees) {
  const Channel c = Channel::kXrotation;
  return RotationFromChannels(&c, &degrees, 1);
}
Matrix RotY(double degrees) {
  const Channel c = Channel::kYrotation;
  return RotationFromChannels(&c, &degrees, 1);
}
Matrix RotZ(double degrees) {
  const Channel c = Channel::kZrotation;
  return RotationFromChannels(&c, &degrees, 1);
}

// The inverse of a pure rotation.
Matrix Transposed(const Matrix& m) {
  return {{0, 0, 0}, {m.v1.x, m.v2.x, m.v3.x}, {m.v1.y, m.v2.y, m.v3.y}, {m.v1.z, m.v2.z, m.v3.z}};
}

Matrix At(const Vector& offset, const Matrix& rotation) {
  Matrix m = rotation;
  m.off = offset;
  return m;
}

double SmoothStep(double x) {
  x = std::clamp(x, 0.0, 1.0);
  return x * x * (3.0 - 2.0 * x);
}

double Fraction(double x) { return x - std::floor(x); }

// Where one foot is at gait phase `phase` (0 = its heel strike), relative to the hips' forward
// travel: the toe base's forward position and height, and the foot's pitch (heel up positive).
struct FootPlacement {
  double toeZ;
  double toeY;
  double pitch;
};

FootPlacement PlaceFoot(double phase, double stride) {
  // Planted, the toe slides back relative to the hips at the walking speed, over the stance
  // length; in the swing it comes forward along a Hermite curve whose end slopes match that
  // speed, so the foot leaves and meets the ground without a jolt.
  const double stanceLength = stride * kStance;
  if (phase < kStance) {
    const double heel = SmoothStep((phase - kHeelOff) / (kStance - kHeelOff));
    return {kFootLength + stanceLength / 2 - stride * phase, 0.0, kToeOffPitch * heel};
  }
  const double s = (phase - kStance) / (1.0 - kStance);
  const double p0 = kFootLength - stanceLength / 2;
  const double p1 = kFootLength + stanceLength / 2;
  const double m = -stride * (1.0 - kStance);
  const double s2 = s * s;
  const double s3 = s2 * s;
  const double z =
      (2 * s3 - 3 * s2 + 1) * p0 + (s3 - 2 * s2 + s) * m + (-2 * s3 + 3 * s2) * p1 + (s3 - s2) * m;
  const double lift = std::sin(kPi * s);
  return {z, kToeLift * lift * lift, kToeOffPitch * (1.0 - SmoothStep(s / 0.5))};
}

// Two-bone reach in the hips' frame: the thigh rotation and knee bend (degrees) that put the
// ankle at `d` from the hip joint, with the knee pointing forward. Out of reach, the leg
// straightens towards the target.
void SolveLeg(Vector d, Matrix& thigh, double& knee) {
  const double length = Length(d);
  const double reach = std::clamp(length, kThigh - kShin + 1.0, (kThigh + kShin) * 0.9995);
  if (length > 0) d = d * (reach / length);
  const double cosInner = std::clamp(
      (kThigh * kThigh + kShin * kShin - reach * reach) / (2 * kThigh * kShin), -1.0, 1.0);
  const double bend = kPi - std::acos(cosInner);
  // The ankle in the thigh's frame once the knee bends; then swing the leg forward about X to the
  // target's height and forward distance, and sideways about Z.
  const double ey = -kThigh - kShin * std::cos(bend);
  const double ez = -kShin * std::sin(bend);
  const double r = std::hypot(d.x, d.y);
  const double sideways = std::atan2(d.x, -d.y);
  const double forward = std::atan2(d.z, -r) - std::atan2(ez, ey);
  thigh = RotZ(sideways / kRadians) * RotX(forward / kRadians);
  knee = bend / kRadians;
}

struct Walker {
  int hips, spine, spine1, chest, neck, head;
  int shoulder[2], arm[2], foreArm[2], hand[2];
  int upLeg[2], leg[2], foot[2], toe[2];
};

Walker BuildWalker(BvhMotion& motion) {
  Walker w{};
  w.hips = AddJoint(motion, "Hips", -1, {0, kHipHeight, 0}, kRootZxy);
  w.spine = AddJoint(motion, "Spine", w.hips, {0, 8, -1}, kZxy);
  w.spine1 = AddJoint(motion, "Spine1", w.spine, {0, 10, 0}, kZxy);
  w.chest = AddJoint(motion, "Chest", w.spine1, {0, 12, 1}, kZxy);
  w.neck = AddJoint(motion, "Neck", w.chest, {0, 20, 0}, kZxy);
  w.head = AddJoint(motion, "Head", w.neck, {0, 10, 1}, kZxy);
  SetEndSite(motion, w.head, {0, 18, 0});
  const char* sides[2] = {"Left", "Right"};
  for (int s = 0; s < 2; ++s) {
    const double x = s == 0 ? 1.0 : -1.0;
    const std::string side = sides[s];
    w.shoulder[s] = AddJoint(motion, side + "Shoulder", w.chest, {3 * x, 16, 0}, kZxy);
    w.arm[s] = AddJoint(motion, side + "Arm", w.shoulder[s], {14 * x, 0, 0}, kZxy);
    w.foreArm[s] = AddJoint(motion, side + "ForeArm", w.arm[s], {0, -29, 0}, kZxy);
    w.hand[s] = AddJoint(motion, side + "Hand", w.foreArm[s], {0, -26, 0}, kZxy);
    SetEndSite(motion, w.hand[s], {0, -17, 0});
  }
  for (int s = 0; s < 2; ++s) {
    const double x = s == 0 ? 1.0 : -1.0;
    const std::string side = sides[s];
    w.upLeg[s] = AddJoint(motion, side + "UpLeg", w.hips,
                          {kHipJoint[0] * x, kHipJoint[1], kHipJoint[2]}, kZxy);
    w.leg[s] = AddJoint(motion, side + "Leg", w.upLeg[s], {0, -kThigh, 0}, kZxy);
    w.foot[s] = AddJoint(motion, side + "Foot", w.leg[s], {0, -kShin, 0}, kZxy);
    w.toe[s] = AddJoint(motion, side + "ToeBase", w.foot[s], {0, -kAnkleHeight, kFootLength}, kZxy);
    SetEndSite(motion, w.toe[s], {0, 0, 7});
  }
  return w;
}

// The local matrices of the walker `cycles` cycles into the walk (its fractional part is the
// gait phase, 0 = left heel strike).
void WalkPose(const BvhMotion& motion, const Walker& w, double cycles, double stride,
              std::vector<Matrix>& locals) {
  std::vector<Matrix> globals;
  ComputeRestPose(motion, locals, globals);
  auto set = [&](int joint, const Matrix& rotation) {
    Matrix& local = locals[static_cast<size_t>(joint)];
    local = At(local.off, rotation);
  };
  const double u = Fraction(cycles);
  const double swing = std::cos(2 * kPi * u);         // +1 at left heel strike
  const double side = std::cos(2 * kPi * (u - 0.3));  // +1 at left mid-stance

  // The pelvis: lowest at each heel strike, highest over the planted foot, shifted towards the
  // planted foot, turned with the forward leg and dropping on the swing side.
  const double travel = stride * cycles;
  const Vector hipsAt = {1.5 * side, kHipHeight - 4.0 + 2.8 * std::cos(4 * kPi * (u - 0.25)),
                         travel};
  const Matrix hipsRotation = RotY(-6 * swing) * RotZ(3 * side) * RotX(2);
  locals[static_cast<size_t>(w.hips)] = At(hipsAt, hipsRotation);

  // The trunk twists back against the pelvis so the shoulders turn with the arms; the head looks
  // ahead.
  set(w.spine, RotY(2.5 * swing) * RotZ(-1.0 * side));
  set(w.spine1, RotY(3.0 * swing));
  set(w.chest, RotY(3.0 * swing) * RotZ(-1.5 * side));
  set(w.neck, RotY(-1.0 * swing));
  set(w.head, RotY(-1.5 * swing) * RotX(-2));

  for (int s = 0; s < 2; ++s) {
    const double x = s == 0 ? 1.0 : -1.0;
    // Each arm swings with the opposite leg: forward (negative X rotation) at that leg's heel
    // strike, the elbow bending more on the way forward.
    const double forward = (1.0 - x * swing) / 2.0;
    set(w.arm[s], RotZ(6 * x) * RotX(18 * x * swing));
    set(w.foreArm[s], RotX(-(12 + 14 * forward)));

    const FootPlacement foot = PlaceFoot(Fraction(u + 0.5 * s), stride);
    const Vector toe = {9.5 * x, foot.toeY, travel + foot.toeZ};
    const Matrix footRotation = RotX(foot.pitch);
    const Vector ankle = toe + TransformVector(footRotation, {0, kAnkleHeight, -kFootLength});
    const Matrix& hips = locals[static_cast<size_t>(w.hips)];
    const Vector hipJoint = TransformPoint(hips, locals[static_cast<size_t>(w.upLeg[s])].off);
    Matrix thigh;
    double knee = 0;
    SolveLeg(TransformVector(Transposed(hipsRotation), ankle - hipJoint), thigh, knee);
    set(w.upLeg[s], thigh);
    set(w.leg[s], RotX(knee));
    // The foot keeps its world pitch whatever the leg does; the toe stays level.
    const Matrix shin = hipsRotation * thigh * RotX(knee);
    set(w.foot[s], Transposed(shin) * footRotation);
    set(w.toe[s], RotX(-foot.pitch));
  }
}

WalkOptions Sanitised(const WalkOptions& options) {
  const WalkOptions defaults;
  WalkOptions o = options;
  auto within = [](double v, double most) { return std::isfinite(v) && v > 0 && v <= most; };
  if (o.cycles < 1 || o.cycles > 1000) o.cycles = defaults.cycles;
  if (!within(o.cycleSeconds, 60.0)) o.cycleSeconds = defaults.cycleSeconds;
  if (!within(o.fps, 1000.0)) o.fps = defaults.fps;
  if (!within(o.strideCm, 300.0)) o.strideCm = defaults.strideCm;
  return o;
}

}  // namespace

BvhMotion MakeWalkingHumanoid(const WalkOptions& options) {
  const WalkOptions o = Sanitised(options);
  BvhMotion motion;
  const Walker walker = BuildWalker(motion);
  const int64_t perCycle = std::max<int64_t>(2, std::llround(o.cycleSeconds * o.fps));
  motion.frameTime = 1.0 / o.fps;
  motion.frameCount = o.cycles * perCycle + 1;
  motion.values.assign(static_cast<size_t>(motion.frameCount * motion.channelCount), 0.0);
  const std::vector<PositionMode> modes(motion.joints.size(), PositionMode::kRelative);
  std::vector<Matrix> locals;
  for (int64_t f = 0; f < motion.frameCount; ++f) {
    WalkPose(motion, walker, static_cast<double>(f) / static_cast<double>(perCycle), o.strideCm,
             locals);
    SetFrameFromLocals(motion, f, modes, locals);
  }
  return motion;
}

BvhMotion MakeTargetSkeleton() {
  BvhMotion motion;
  const int pelvis = AddJoint(motion, "pelvis", -1, {0, 114, 0}, kRootXyz);
  const int spine1 = AddJoint(motion, "spine_01", pelvis, {0, 12, -1}, kXyz);
  const int spine2 = AddJoint(motion, "spine_02", spine1, {0, 18, 1}, kXyz);
  const int neck = AddJoint(motion, "neck", spine2, {0, 23, 0}, kXyz);
  const int head = AddJoint(motion, "head", neck, {0, 12, 1}, kXyz);
  SetEndSite(motion, head, {0, 20, 0});
  for (const char* side : {"l", "r"}) {
    const double x = side[0] == 'l' ? 1.0 : -1.0;
    const std::string suffix = std::string("_") + side;
    const int clavicle = AddJoint(motion, "clavicle" + suffix, spine2, {3 * x, 18, 0}, kXyz);
    const int upper = AddJoint(motion, "upperarm" + suffix, clavicle, {15 * x, 0, 0}, kXyz);
    const int lower = AddJoint(motion, "lowerarm" + suffix, upper, {27 * x, 0, 0}, kXyz);
    const int hand = AddJoint(motion, "hand" + suffix, lower, {23 * x, 0, 0}, kXyz);
    SetEndSite(motion, hand, {16 * x, 0, 0});
  }
  for (const char* side : {"l", "r"}) {
    const double x = side[0] == 'l' ? 1.0 : -1.0;
    const std::string suffix = std::string("_") + side;
    const int thigh = AddJoint(motion, "thigh" + suffix, pelvis, {10 * x, -6, 0}, kXyz);
    const int calf = AddJoint(motion, "calf" + suffix, thigh, {0, -52, 0}, kXyz);
    const int foot = AddJoint(motion, "foot" + suffix, calf, {0, -48, 0}, kXyz);
    SetEndSite(motion, foot, {0, -8, 18});
  }
  motion.frameCount = 1;
  motion.frameTime = 1.0 / 30.0;
  motion.values.assign(static_cast<size_t>(motion.channelCount), 0.0);
  return motion;
}

}  // namespace tarni::host
