// Forward kinematics of BVH motions and its inverse for writing: per joint a local matrix
// (translation, then the rotation of the rotation channels in their written order) and a global
// matrix (parent global * local), and back from local matrices to a frame row.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "io/bvh.h"
#include "tarni/math.h"

namespace tarni::host {

// How a joint's position channels are read. Files disagree: some store the joint's local
// position itself (kAbsolute: the channel values replace the offset), some a displacement
// (kRelative: the values are added to the offset). A position channel that a joint lacks keeps
// the offset's component either way.
enum class PositionMode : uint8_t { kAbsolute, kRelative };

// Fills `globals` with the product of each joint's local matrix and its parent's global matrix.
// A joint whose parent index does not point to an earlier joint is taken as a root. `locals`
// must hold one matrix per joint; `globals` is resized to match.
void ComputeGlobals(const BvhMotion& motion, std::span<const tarni::Matrix> locals,
                    std::vector<tarni::Matrix>& globals);

// The rest pose: every rotation zero, every joint at its offset.
void ComputeRestPose(const BvhMotion& motion, std::vector<tarni::Matrix>& locals,
                     std::vector<tarni::Matrix>& globals);

// The pose of frame `frame`: `modes` holds one entry per joint (joints past its end are read as
// kRelative). A frame outside 0..frameCount-1, or a motion whose channels do not match its
// values, gives the rest pose. Both vectors are resized to the joint count.
void ComputeFrame(const BvhMotion& motion, int64_t frame, std::span<const PositionMode> modes,
                  std::vector<tarni::Matrix>& locals, std::vector<tarni::Matrix>& globals);

// Decides from the data how `joint`'s position channels are meant: the mean of each position
// channel over all frames is compared with the offset, and the mode is kAbsolute when that mean
// lies nearer to the offset than to zero (its projection onto the offset exceeds half the
// offset's length), else kRelative. Only the axes that have a channel take part, and motion
// across the offset (a root travelling sideways to its height offset) does not sway the vote.
// Joints without position channels, without frames, or whose offset is zero on those axes (where
// both modes give the same pose) are reported kRelative. An index out of range gives kRelative.
PositionMode GuessPositionMode(const BvhMotion& motion, int joint);
// GuessPositionMode for every joint, in joint order.
std::vector<PositionMode> GuessPositionModes(const BvhMotion& motion);

// The inverse of ComputeFrame for one row: writes into `row` (motion.channelCount values, column
// order) the channel values that give each joint the local matrix in `locals` (one per joint).
// Rotation channels come from EulerFromRotation in the joint's channel order; with a
// `previousRow` the angles are chosen nearest to that row's, so curves stay continuous. Position
// channels hold the translation (kAbsolute) or the translation minus the offset (kRelative). A
// joint with fewer than three rotation channels keeps what its channels can hold: the rotation
// is split with the missing axes last and their angles are dropped. Does nothing if `row` or
// `locals` is too short for the motion.
void RowFromLocals(const BvhMotion& motion, std::span<const PositionMode> modes,
                   std::span<const tarni::Matrix> locals, const double* previousRow,
                   std::span<double> row);

// RowFromLocals into frame `frame` of `motion`, continuous with frame `frame - 1` when there is
// one. Returns false, changing nothing, when the frame is out of range or the values do not
// match frameCount * channelCount.
bool SetFrameFromLocals(BvhMotion& motion, int64_t frame, std::span<const PositionMode> modes,
                        std::span<const tarni::Matrix> locals);

}  // namespace tarni::host
