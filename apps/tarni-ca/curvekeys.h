// Conversion between the host's curve-file keys and the module's keyframe type, word for word
// (flags, position, left and right tangents), for every job that runs a curve command.
#pragma once

#include "io/curvefile.h"
#include "tarni/keyframe.h"

namespace tarni::host {

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

}  // namespace tarni::host
