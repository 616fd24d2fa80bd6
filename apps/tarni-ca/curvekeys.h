// Conversion between the host's curve-file keys and the module's keyframe type, for every job that
// runs a curve command.
//
// The commands measure their tolerance as a distance in the plane of (time, value ÷ the curve's
// largest |value|), so the unit of time decides how far along time a fit may pass a key. Curve
// files count time in seconds, but the commands are handed time in frames: in seconds, at 120
// frames per second, a tolerance of 0.05 lets a fit pass a key six frames away, which on fast
// motion is tens of degrees off the key; in frames the same tolerance is a twentieth of a frame,
// and it bounds what users take it for, the value's error relative to the curve's largest |value|.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "io/curvefile.h"
#include "tarni/keyframe.h"
#include "tarni/result.h"

namespace tarni::host {

// The project frame rate handed to the commands along with curves in frames: one time unit is
// one frame, so a magnet width of N frames spans N time units.
inline constexpr std::int32_t kCommandFramesPerTimeUnit = 1;

// Word for word (flags, position, left and right tangents).
inline tarni::Key ToKey(const CurveKey& in) {
  tarni::Key key;
  key.flags = in.flags;
  key.position = {in.position[0], in.position[1]};
  key.leftTangent = {in.leftTangent[0], in.leftTangent[1]};
  key.rightTangent = {in.rightTangent[0], in.rightTangent[1]};
  return key;
}

inline CurveKey FromKey(const tarni::Key& in) {
  CurveKey key;
  key.flags = in.flags;
  key.position[0] = in.position.x;
  key.position[1] = in.position.y;
  key.leftTangent[0] = in.leftTangent.x;
  key.leftTangent[1] = in.leftTangent.y;
  key.rightTangent[0] = in.rightTangent.x;
  key.rightTangent[1] = in.rightTangent.y;
  return key;
}

// A time or a tangent's time component in seconds as frames at `fps`, and back. The default
// tangent (-1, -1), which stands for "no tangent", stays as it is both ways.
inline float SecondsToFrames(float seconds, double fps) {
  return static_cast<float>(static_cast<double>(seconds) * fps);
}
inline float FramesToSeconds(float frames, double fps) {
  return static_cast<float>(static_cast<double>(frames) / fps);
}
inline tarni::KeyVector TangentInFrames(const float (&tangent)[2], double fps) {
  if (tangent[0] == -1.0f && tangent[1] == -1.0f) return {-1.0f, -1.0f};
  return {SecondsToFrames(tangent[0], fps), tangent[1]};
}
inline void TangentInSeconds(const tarni::KeyVector& tangent, double fps, float (&out)[2]) {
  const bool none = tangent.x == -1.0f && tangent.y == -1.0f;
  out[0] = none ? -1.0f : FramesToSeconds(tangent.x, fps);
  out[1] = tangent.y;
}

// The curves of `file` as the commands take them: times and tangents' time components in frames
// at the file's rate. Fails when memory runs out, and with the illegal-argument error when a time
// or tangent is so large that in frames it leaves the float range.
inline tarni::Result<tarni::KeyCurves> ToCommandCurves(const CurveFile& file) {
  tarni::KeyCurves curves;
  TARNI_TRY(curves.EnsureCapacity(static_cast<tarni::Int>(file.curves.size())));
  for (const Curve& curve : file.curves) {
    tarni::KeyArray keys;
    TARNI_TRY(keys.EnsureCapacity(static_cast<tarni::Int>(curve.keys.size())));
    for (const CurveKey& in : curve.keys) {
      tarni::Key key = ToKey(in);
      key.position.x = SecondsToFrames(in.position[0], file.fps);
      key.leftTangent = TangentInFrames(in.leftTangent, file.fps);
      key.rightTangent = TangentInFrames(in.rightTangent, file.fps);
      if (!std::isfinite(key.position.x) || !std::isfinite(key.leftTangent.x) ||
          !std::isfinite(key.rightTangent.x))
        return tarni::IllegalArgumentError(
            "Illegal argument: a key's time or tangent is too large to count in frames.");
      TARNI_TRY(keys.Append(key));
    }
    TARNI_TRY(curves.Append(std::move(keys)));
  }
  return curves;
}

// A command's result for curve `input` back in the file's seconds. The commands keep or drop
// keys but never move one in time, so each result key takes the time of the input key it came
// from exactly (found by its frame time, walking both in time order); only a key at a frame time
// no input key has, which no command makes, gets its frame time ÷ `fps`. Tangents' time
// components are divided by `fps`, so a tangent taken over from the input may differ from it in
// the last bit, as values already do from the commands' own scaling.
inline CurveKey FromCommandKey(const tarni::Key& key, const Curve& input, double fps,
                               std::size_t& next) {
  CurveKey out = FromKey(key);
  while (next < input.keys.size() &&
         SecondsToFrames(input.keys[next].position[0], fps) < key.position.x) {
    ++next;
  }
  const bool found = next < input.keys.size() &&
                     SecondsToFrames(input.keys[next].position[0], fps) == key.position.x;
  out.position[0] = found ? input.keys[next].position[0] : FramesToSeconds(key.position.x, fps);
  TangentInSeconds(key.leftTangent, fps, out.leftTangent);
  TangentInSeconds(key.rightTangent, fps, out.rightTangent);
  return out;
}

// The command's result curve `keys` for curve `input` of a file at `fps`, in seconds, into `out`
// (replacing what it held). A key at the time of the one before is left out: a one-key curve comes
// back from some reductions as two equal keys, and a file holds strictly ascending times.
inline void FromCommandCurve(const tarni::KeyArray& keys, const Curve& input, double fps,
                             std::vector<CurveKey>& out) {
  out.clear();
  std::size_t next = 0;
  for (const tarni::Key& key : keys) {
    const CurveKey converted = FromCommandKey(key, input, fps, next);
    if (!out.empty() && out.back().position[0] >= converted.position[0]) continue;
    out.push_back(converted);
  }
}

}  // namespace tarni::host
