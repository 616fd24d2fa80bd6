// Forward kinematics of BVH motions and its inverse for writing: per joint a local matrix
// (translation, then the rotation of the rotation channels in their written order) and a global
// matrix (parent global * local), and back from local matrices to a frame row.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "io/bvh.h"
#include "motion/euler.h"
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

// ComputeFrame for the joints flagged in `needed` (one flag per joint, nonzero: computed) only:
// the other joints' entries keep what they held (identity when the vectors grow). Every flagged
// joint's parent must be flagged too, as JointsWithAncestors makes them; a flag list shorter than
// the joints computes every joint. A frame that ComputeFrame answers with the rest pose gives the
// whole rest pose here too. A frame loop that reads a few joints saves the others' trigonometry.
void ComputeFrameJoints(const BvhMotion& motion, int64_t frame, std::span<const PositionMode> modes,
                        std::span<const uint8_t> needed, std::vector<tarni::Matrix>& locals,
                        std::vector<tarni::Matrix>& globals);

// One flag per joint of `motion`: 1 for every joint of `joints` and each of its ancestors, 0 for
// the rest. Indices out of range are ignored.
std::vector<uint8_t> JointsWithAncestors(const BvhMotion& motion, std::span<const int> joints);

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

// SetFrameFromLocals for a frame loop that fills a motion's rows in order: the channel layout is
// worked out once, and each joint keeps its last conversion. A joint whose 3x3 part and previous
// angles equal (bit for bit) those of its last conversion takes that conversion's angles without
// redoing the trigonometry: the angles depend on nothing else. Rows come out exactly as
// SetFrameFromLocals writes them. Holds no reference to the motion; the joints and channels must
// stay those it was made for.
class FrameRowWriter {
 public:
  FrameRowWriter(const BvhMotion& motion, std::span<const PositionMode> modes);

  // SetFrameFromLocals(motion, frame, modes, locals), with the same checks and result.
  bool Write(BvhMotion& motion, int64_t frame, std::span<const tarni::Matrix> locals);

 private:
  struct Joint {
    int first = 0;  // the column of the joint's first channel
    PositionMode mode = PositionMode::kRelative;
    int rotations = 0;  // distinct rotation axes; 0: no rotation to write
    Channel order[3] = {};
    int column[3] = {-1, -1, -1};  // row column per angle, -1: dropped
    // The joint's entries of _zeroColumns (repeated rotation axes) and _positions.
    int zeroFirst = 0, zeroEnd = 0;
    int positionFirst = 0, positionEnd = 0;
    // The last conversion: the 3x3 part, the previous angles it was given, whether it had
    // them, and its angles.
    bool converted = false;
    bool hadPrevious = false;
    tarni::Vector axes[3];
    double before[3] = {};
    double angles[3] = {};
  };

  struct PositionColumn {
    int column;  // within the joint's slice
    int axis;    // 0, 1, 2: x, y, z
  };

  // A joint whose angles this row converts: the pairs of its three atan2 are at 3 * its index
  // in _atan2Y and _atan2X, so that the whole row's atan2 are taken at once.
  struct Pending {
    size_t joint;
    EulerSplit split;
  };

  size_t _channels = 0;  // the joints' channel count, summed
  std::vector<Joint> _joints;
  std::vector<Pending> _pending;
  std::vector<double> _atan2Y, _atan2X, _atan2s;
  std::vector<int> _zeroColumns;  // within each joint's slice
  std::vector<PositionColumn> _positions;
};

}  // namespace tarni::host
