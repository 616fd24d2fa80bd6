// Characters made from nothing, for the demo and for tests that need motion without input files:
// a humanoid walking in a loop and a second humanoid of another build to retarget it onto. Both
// are Y up, in centimetres, facing +Z, with their left side on +X.
#pragma once

#include "io/bvh.h"

namespace tarni::host {

struct WalkOptions {
  int cycles = 2;             // whole walk cycles (two steps each)
  double cycleSeconds = 1.1;  // rounded to whole frames so the cycle loops exactly
  double fps = 30.0;
  double strideCm = 100.0;  // forward travel per cycle
};

// A humanoid of 22 joints named Hips, Spine, Spine1, Chest, Neck, Head, LeftShoulder (the
// collar), LeftArm, LeftForeArm, LeftHand, LeftUpLeg, LeftLeg, LeftFoot, LeftToeBase and the Right
// counterparts, about 173 cm tall, whose rest pose stands on the ground (y = 0) with the arms
// hanging down. Hips carries 6 channels (Xposition Yposition Zposition Zrotation Xrotation
// Yrotation), every other joint Zrotation Xrotation Yrotation. Its position channels are
// displacements added to the Hips offset (PositionMode::kRelative): sideways sway, a bob and the
// travel along +Z. The motion is `cycles` walk cycles plus one frame, so the last frame repeats
// the first one moved forward by cycles * strideCm: legs swing with the knee bending in the swing
// phase, the stance foot stays planted with its toe joint on the ground and peels off heel first,
// the arms swing against the legs and the spine twists against the pelvis. An option out of
// range (cycles 1..1000, cycleSeconds in (0, 60], fps in (0, 1000], strideCm in (0, 300], all
// finite) falls back to its default. The result passes CheckBvh.
BvhMotion MakeWalkingHumanoid(const WalkOptions& options = {});

// A humanoid of another convention for the walk to be retargeted onto: 19 joints named pelvis,
// spine_01, spine_02, neck, head, clavicle_l, upperarm_l, lowerarm_l, hand_l, thigh_l, calf_l,
// foot_l and the _r counterparts (one spine joint fewer than MakeWalkingHumanoid and no toe
// joints), about 15% taller with longer legs and shorter arms, standing on the ground with its
// arms level (a T pose). pelvis carries 6 channels (Xposition Yposition Zposition Xrotation
// Yrotation Zrotation), every other joint Xrotation Yrotation Zrotation. One frame at 30 fps, all
// channels zero: the rest pose. The result passes CheckBvh.
BvhMotion MakeTargetSkeleton();

}  // namespace tarni::host
