#include "motion/pose.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "motion/degrees.h"
#include "motion/euler.h"

namespace tarni::host {
namespace {

// 0, 1, 2 for the X, Y and Z position channels; -1 for rotation channels.
int PositionAxis(Channel channel) {
  switch (channel) {
    case Channel::kXposition:
      return 0;
    case Channel::kYposition:
      return 1;
    case Channel::kZposition:
      return 2;
    default:
      return -1;
  }
}

bool IsRotation(Channel channel) {
  return channel == Channel::kXrotation || channel == Channel::kYrotation ||
         channel == Channel::kZrotation;
}

double& Component(Vector& v, int index) { return index == 0 ? v.x : index == 1 ? v.y : v.z; }
double Component(const Vector& v, int index) { return index == 0 ? v.x : index == 1 ? v.y : v.z; }

Vector Offset(const BvhJoint& joint) { return {joint.offset[0], joint.offset[1], joint.offset[2]}; }

PositionMode ModeOf(std::span<const PositionMode> modes, size_t joint) {
  return joint < modes.size() ? modes[joint] : PositionMode::kRelative;
}

// True when the joints' channels add up to channelCount and the values to whole rows of it.
bool ValuesMatchChannels(const BvhMotion& motion) {
  size_t channels = 0;
  for (const BvhJoint& joint : motion.joints) channels += joint.channels.size();
  return motion.channelCount >= 0 && channels == static_cast<size_t>(motion.channelCount) &&
         motion.frameCount >= 0 &&
         motion.values.size() ==
             static_cast<size_t>(motion.frameCount) * static_cast<size_t>(motion.channelCount);
}

// The joint's local matrix from its slice of a frame row and the cosines and sines of that slice.
Matrix JointLocal(const BvhJoint& joint, const double* values, const double* cosines,
                  const double* sines, PositionMode mode) {
  Matrix local = RotationFromTurns(joint.channels.data(), cosines, sines,
                                   static_cast<int>(joint.channels.size()));
  local.off = Offset(joint);
  for (size_t c = 0; c < joint.channels.size(); ++c) {
    const int axis = PositionAxis(joint.channels[c]);
    if (axis < 0) continue;
    double& component = Component(local.off, axis);
    component = mode == PositionMode::kAbsolute ? values[c] : component + values[c];
  }
  return local;
}

// Writes one joint's channel values for `local`; `previous` is the joint's slice of the row
// before, or null.
void JointValues(const BvhJoint& joint, const Matrix& local, PositionMode mode,
                 const double* previous, double* out) {
  // The distinct rotation axes in channel order, completed with the missing ones so that any
  // joint gets a full three-angle split; `column` says where each angle goes (-1: dropped).
  Channel order[3];
  int column[3] = {-1, -1, -1};
  int count = 0;
  for (size_t c = 0; c < joint.channels.size(); ++c) {
    const Channel channel = joint.channels[c];
    if (!IsRotation(channel)) continue;
    bool seen = false;
    for (int n = 0; n < count; ++n) seen = seen || order[n] == channel;
    if (seen) {
      out[c] = 0.0;  // a repeated axis: the first one carries the angle
      continue;
    }
    order[count] = channel;
    column[count] = static_cast<int>(c);
    ++count;
  }
  if (count > 0) {
    for (const Channel axis : {Channel::kXrotation, Channel::kYrotation, Channel::kZrotation}) {
      bool seen = false;
      for (int n = 0; n < count; ++n) seen = seen || order[n] == axis;
      if (!seen && count < 3) order[count++] = axis;
    }
    double before[3] = {0.0, 0.0, 0.0};
    for (int n = 0; n < 3; ++n) {
      if (previous != nullptr && column[n] >= 0) before[n] = previous[column[n]];
    }
    double angles[3] = {0.0, 0.0, 0.0};
    EulerFromRotation(local, order, angles, previous != nullptr ? before : nullptr);
    for (int n = 0; n < 3; ++n) {
      if (column[n] >= 0) out[column[n]] = angles[n];
    }
  }
  for (size_t c = 0; c < joint.channels.size(); ++c) {
    const int axis = PositionAxis(joint.channels[c]);
    if (axis < 0) continue;
    const double value = Component(local.off, axis);
    out[c] = mode == PositionMode::kAbsolute ? value : value - joint.offset[axis];
  }
}

// Absolute when |mean - offset| < |mean|, which over the channelled axes comes down to
// sum(offset * mean) > |offset|^2 / 2. `sums` holds each of the joint's channels summed over every
// frame (only the position channels are read).
PositionMode ModeFromSums(const BvhMotion& motion, const BvhJoint& joint, const double* sums) {
  double projection = 0.0;
  double offsetSquared = 0.0;
  for (size_t c = 0; c < joint.channels.size(); ++c) {
    const int axis = PositionAxis(joint.channels[c]);
    if (axis < 0) continue;
    const double mean = sums[c] / static_cast<double>(motion.frameCount);
    projection += joint.offset[axis] * mean;
    offsetSquared += joint.offset[axis] * joint.offset[axis];
  }
  if (offsetSquared == 0.0 || !std::isfinite(projection)) return PositionMode::kRelative;
  return projection > offsetSquared / 2.0 ? PositionMode::kAbsolute : PositionMode::kRelative;
}

}  // namespace

// ComputeGlobals over the flagged joints only (all of them for a short flag list).
void ComputeGlobalsOf(const BvhMotion& motion, std::span<const Matrix> locals,
                      std::span<const uint8_t> needed, std::vector<Matrix>& globals) {
  const size_t count = std::min(motion.joints.size(), locals.size());
  const bool all = needed.size() < count;
  globals.resize(count);
  for (size_t j = 0; j < count; ++j) {
    if (!all && needed[j] == 0) continue;
    const int parent = motion.joints[j].parent;
    const bool root = parent < 0 || static_cast<size_t>(parent) >= j;
    globals[j] = root ? locals[j] : globals[static_cast<size_t>(parent)] * locals[j];
  }
}

void ComputeGlobals(const BvhMotion& motion, std::span<const Matrix> locals,
                    std::vector<Matrix>& globals) {
  ComputeGlobalsOf(motion, locals, {}, globals);
}

void ComputeRestPose(const BvhMotion& motion, std::vector<Matrix>& locals,
                     std::vector<Matrix>& globals) {
  locals.assign(motion.joints.size(), Matrix{});
  for (size_t j = 0; j < motion.joints.size(); ++j) locals[j].off = Offset(motion.joints[j]);
  ComputeGlobals(motion, locals, globals);
}

void ComputeFrame(const BvhMotion& motion, int64_t frame, std::span<const PositionMode> modes,
                  std::vector<Matrix>& locals, std::vector<Matrix>& globals) {
  ComputeFrameJoints(motion, frame, modes, {}, locals, globals);
}

void ComputeFrameJoints(const BvhMotion& motion, int64_t frame, std::span<const PositionMode> modes,
                        std::span<const uint8_t> needed, std::vector<Matrix>& locals,
                        std::vector<Matrix>& globals) {
  if (frame < 0 || frame >= motion.frameCount || !ValuesMatchChannels(motion)) {
    ComputeRestPose(motion, locals, globals);
    return;
  }
  const bool all = needed.size() < motion.joints.size();
  locals.resize(motion.joints.size());
  const size_t channels = static_cast<size_t>(motion.channelCount);
  const double* values = motion.values.data() + static_cast<size_t>(frame) * channels;
  // The trigonometry of the whole row at once, several angles at a time. Position channels go
  // through it too, so that the loop runs over one contiguous row; their results are not read.
  static thread_local std::vector<double> cosines, sines;
  cosines.resize(channels);
  sines.resize(channels);
  SinCosDegrees(values, channels, cosines.data(), sines.data());
  size_t first = 0;
  for (size_t j = 0; j < motion.joints.size(); ++j) {
    const BvhJoint& joint = motion.joints[j];
    if (all || needed[j] != 0) {
      locals[j] = JointLocal(joint, values + first, cosines.data() + first, sines.data() + first,
                             ModeOf(modes, j));
    }
    first += joint.channels.size();
  }
  ComputeGlobalsOf(motion, locals, all ? std::span<const uint8_t>() : needed, globals);
}

std::vector<uint8_t> JointsWithAncestors(const BvhMotion& motion, std::span<const int> joints) {
  std::vector<uint8_t> flags(motion.joints.size(), 0);
  for (const int joint : joints) {
    // Stops at a flagged joint (its ancestors are flagged already) and at a bad parent index,
    // which ComputeGlobals reads as a root.
    for (int j = joint;
         j >= 0 && static_cast<size_t>(j) < flags.size() && flags[static_cast<size_t>(j)] == 0;) {
      flags[static_cast<size_t>(j)] = 1;
      const int parent = motion.joints[static_cast<size_t>(j)].parent;
      j = parent < j ? parent : -1;
    }
  }
  return flags;
}

std::vector<PositionMode> GuessPositionModes(const BvhMotion& motion) {
  std::vector<PositionMode> modes(motion.joints.size(), PositionMode::kRelative);
  if (motion.frameCount <= 0 || !ValuesMatchChannels(motion)) return modes;
  // One pass down the rows, summing every position column as it goes: the frames are read in
  // the order they lie in memory, where a pass per column would stride through the whole clip once
  // for each. Each column still adds its frames in frame order, so the sums are a column pass's.
  const size_t width = static_cast<size_t>(motion.channelCount);
  std::vector<size_t> columns;
  for (size_t j = 0, first = 0; j < motion.joints.size(); ++j) {
    const BvhJoint& joint = motion.joints[j];
    for (size_t c = 0; c < joint.channels.size(); ++c) {
      if (PositionAxis(joint.channels[c]) >= 0) columns.push_back(first + c);
    }
    first += joint.channels.size();
  }
  std::vector<double> sums(width, 0.0);
  for (int64_t f = 0; f < motion.frameCount; ++f) {
    const double* row = motion.values.data() + static_cast<size_t>(f) * width;
    for (const size_t column : columns) sums[column] += row[column];
  }
  for (size_t j = 0, first = 0; j < motion.joints.size(); ++j) {
    modes[j] = ModeFromSums(motion, motion.joints[j], sums.data() + first);
    first += motion.joints[j].channels.size();
  }
  return modes;
}

PositionMode GuessPositionMode(const BvhMotion& motion, int joint) {
  if (joint < 0 || static_cast<size_t>(joint) >= motion.joints.size())
    return PositionMode::kRelative;
  return GuessPositionModes(motion)[static_cast<size_t>(joint)];
}

void RowFromLocals(const BvhMotion& motion, std::span<const PositionMode> modes,
                   std::span<const Matrix> locals, const double* previousRow,
                   std::span<double> row) {
  size_t channels = 0;
  for (const BvhJoint& joint : motion.joints) channels += joint.channels.size();
  if (locals.size() < motion.joints.size() || row.size() < channels) return;
  size_t column = 0;
  for (size_t j = 0; j < motion.joints.size(); ++j) {
    const BvhJoint& joint = motion.joints[j];
    JointValues(joint, locals[j], ModeOf(modes, j),
                previousRow != nullptr ? previousRow + column : nullptr, row.data() + column);
    column += joint.channels.size();
  }
}

bool SetFrameFromLocals(BvhMotion& motion, int64_t frame, std::span<const PositionMode> modes,
                        std::span<const Matrix> locals) {
  if (frame < 0 || frame >= motion.frameCount || !ValuesMatchChannels(motion) ||
      locals.size() < motion.joints.size()) {
    return false;
  }
  const size_t width = static_cast<size_t>(motion.channelCount);
  double* row = motion.values.data() + static_cast<size_t>(frame) * width;
  RowFromLocals(motion, modes, locals, frame > 0 ? row - width : nullptr, {row, width});
  return true;
}

FrameRowWriter::FrameRowWriter(const BvhMotion& motion, std::span<const PositionMode> modes) {
  _joints.resize(motion.joints.size());
  for (size_t j = 0; j < motion.joints.size(); ++j) {
    const BvhJoint& joint = motion.joints[j];
    Joint& plan = _joints[j];
    plan.first = static_cast<int>(_channels);
    plan.mode = ModeOf(modes, j);
    plan.zeroFirst = static_cast<int>(_zeroColumns.size());
    plan.positionFirst = static_cast<int>(_positions.size());
    for (size_t c = 0; c < joint.channels.size(); ++c) {
      const int axis = PositionAxis(joint.channels[c]);
      if (axis >= 0) _positions.push_back({static_cast<int>(c), axis});
    }
    plan.positionEnd = static_cast<int>(_positions.size());
    // The rotation layout as JointValues works it out for every row.
    for (size_t c = 0; c < joint.channels.size(); ++c) {
      const Channel channel = joint.channels[c];
      if (!IsRotation(channel)) continue;
      bool seen = false;
      for (int n = 0; n < plan.rotations; ++n) seen = seen || plan.order[n] == channel;
      if (seen) {
        _zeroColumns.push_back(static_cast<int>(c));
        continue;
      }
      plan.order[plan.rotations] = channel;
      plan.column[plan.rotations] = static_cast<int>(c);
      ++plan.rotations;
    }
    plan.zeroEnd = static_cast<int>(_zeroColumns.size());
    if (plan.rotations > 0) {
      int count = plan.rotations;
      for (const Channel axis : {Channel::kXrotation, Channel::kYrotation, Channel::kZrotation}) {
        bool seen = false;
        for (int n = 0; n < count; ++n) seen = seen || plan.order[n] == axis;
        if (!seen && count < 3) plan.order[count++] = axis;
      }
    }
    _channels += joint.channels.size();
  }
  // Every joint may convert in one row; sized once so that writing rows allocates nothing.
  _pending.reserve(_joints.size());
  _atan2Y.resize(3 * _joints.size());
  _atan2X.resize(3 * _joints.size());
  _atan2s.resize(3 * _joints.size());
}

bool FrameRowWriter::Write(BvhMotion& motion, int64_t frame, std::span<const Matrix> locals) {
  if (frame < 0 || frame >= motion.frameCount || !ValuesMatchChannels(motion) ||
      locals.size() < motion.joints.size() || motion.joints.size() != _joints.size() ||
      static_cast<size_t>(motion.channelCount) != _channels) {
    return false;
  }
  const size_t width = static_cast<size_t>(motion.channelCount);
  double* row = motion.values.data() + static_cast<size_t>(frame) * width;
  const double* previousRow = frame > 0 ? row - width : nullptr;
  _pending.clear();
  for (size_t j = 0; j < _joints.size(); ++j) {
    Joint& plan = _joints[j];
    const BvhJoint& joint = motion.joints[j];
    const Matrix& local = locals[j];
    double* out = row + plan.first;
    const double* previous = previousRow != nullptr ? previousRow + plan.first : nullptr;
    if (plan.rotations > 0) {
      // A repeated axis writes 0: the first one carries the angle.
      for (int z = plan.zeroFirst; z < plan.zeroEnd; ++z)
        out[_zeroColumns[static_cast<size_t>(z)]] = 0.0;
      // Compared value by value as they are read (a block compare would load them back from
      // memory before their stores have landed).
      double before[3] = {0.0, 0.0, 0.0};
      bool same = plan.converted && plan.hadPrevious == (previous != nullptr);
      for (int n = 0; n < 3; ++n) {
        if (previous != nullptr && plan.column[n] >= 0) before[n] = previous[plan.column[n]];
        same =
            same && std::bit_cast<uint64_t>(before[n]) == std::bit_cast<uint64_t>(plan.before[n]);
      }
      const tarni::Vector* axes[3] = {&local.v1, &local.v2, &local.v3};
      for (int n = 0; n < 3; ++n)
        same = same && std::memcmp(&plan.axes[n], axes[n], sizeof plan.axes[n]) == 0;
      if (!same) {
        plan.converted = true;
        plan.hadPrevious = previous != nullptr;
        for (int n = 0; n < 3; ++n) plan.axes[n] = *axes[n];
        std::copy_n(before, 3, plan.before);
        // Angles of a rotation that cannot be converted stay 0, as EulerFromRotation leaves them.
        std::fill(std::begin(plan.angles), std::end(plan.angles), 0.0);
        // Split straight into the row's atan2 arguments.
        const size_t slot = _pending.size();
        Pending& pending = _pending.emplace_back();
        pending.joint = j;
        if (!SplitRotation(local, plan.order, previous != nullptr ? before : nullptr, pending.split,
                           _atan2Y.data() + 3 * slot, _atan2X.data() + 3 * slot)) {
          _pending.pop_back();
        }
      }
      // Written again below for the joints converted in this row.
      for (int n = 0; n < 3; ++n) {
        if (plan.column[n] >= 0) out[plan.column[n]] = plan.angles[n];
      }
    }
    for (int n = plan.positionFirst; n < plan.positionEnd; ++n) {
      const PositionColumn& position = _positions[static_cast<size_t>(n)];
      const double value = Component(local.off, position.axis);
      out[position.column] =
          plan.mode == PositionMode::kAbsolute ? value : value - joint.offset[position.axis];
    }
  }
  if (_pending.empty()) return true;
  const size_t count = 3 * _pending.size();
  Atan2Degrees(_atan2Y.data(), _atan2X.data(), count, _atan2s.data());
  for (size_t p = 0; p < _pending.size(); ++p) {
    Joint& plan = _joints[_pending[p].joint];
    double* out = row + plan.first;
    FinishEuler(_pending[p].split, _atan2s.data() + 3 * p, plan.hadPrevious ? plan.before : nullptr,
                plan.angles);
    for (int n = 0; n < 3; ++n) {
      if (plan.column[n] >= 0) out[plan.column[n]] = plan.angles[n];
    }
  }
  return true;
}

}  // namespace tarni::host
