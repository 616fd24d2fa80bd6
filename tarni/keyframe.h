// tarni::Key: the keyframe record in which the animation curve commands receive, change and return
// animation curves. A curve is an array of keys by ascending time; a selection of curves is an
// array of such arrays. The record is plain data of seven 32-bit words, so arrays of keys are
// copied as blocks of words.
#pragma once

#include <cstdint>
#include <type_traits>

#include "tarni/array.h"
#include "tarni/command.h"
#include "tarni/id.h"

namespace tarni {

// Two 32-bit floats: a point of a curve (x = time, y = value) or a handle vector relative to one.
struct KeyVector {
  float x = -1.0f;
  float y = -1.0f;
};

// One key. The default key has flags 0 and all six floats -1; the commands write (-1, -1) into a
// tangent they do not define and give it no further meaning.
struct Key {
  // Bit set; the bits below are the ones the commands read or write, every other bit is carried
  // through unchanged.
  std::uint32_t flags = 0;
  // Where the key sits: time in the host's curve time unit, and value.
  KeyVector position;
  // Incoming and outgoing Bezier handles, stored relative to `position`.
  KeyVector leftTangent;
  KeyVector rightTangent;
};
static_assert(sizeof(Key) == 7 * 4, "a key is seven 32-bit words");
static_assert(std::is_trivially_copyable_v<Key>, "keys are copied as words");

// The key is selected; consulted only when the use-key-selection switch is on.
inline constexpr std::uint32_t KEYFLAG_SELECTED = 0x00000002;
// Either bit set: the key is locked; consulted only when the use-locked-keys switch is on.
inline constexpr std::uint32_t KEYFLAG_LOCKED_MASK = 0x00000C00;
// The Bezier fitter leaves the key out of its input altogether.
inline constexpr std::uint32_t KEYFLAG_IGNORED = 0x00004000;
// Set by the fitter's magnet pass on keys that sit exactly on a shared magnet time.
inline constexpr std::uint32_t KEYFLAG_MAGNET = 0x04000000;

// A value range of a curve (the reduced-modification-curve command's min/max entries).
struct MinMax {
  float minimum = 0.0f;
  float maximum = 0.0f;
};

// One curve, and a selection of curves as the commands pass it in and out.
using KeyArray = BaseArray<Key>;
using KeyCurves = BaseArray<KeyArray>;
// The value ranges, one per curve.
using MinMaxArray = BaseArray<MinMax>;

// The data type the module registers for keys, in net.tarni.registry.datatypes, named "tarni::Key".
inline constexpr Id kKeyframeDataTypeId{"net.tarni.animation.datatype.keyframe"};

}  // namespace tarni

// The dictionary type ids under which keys and arrays of them travel in command data; the host and
// the module agree on them by these texts.
TARNI_DATA_TYPE(tarni::Key, "net.tarni.animation.datatype.keyframe");
TARNI_DATA_TYPE(tarni::KeyArray, "net.tarni.animation.datatype.keyframearray");
TARNI_DATA_TYPE(tarni::KeyCurves, "net.tarni.animation.datatype.keyframecurves");
TARNI_DATA_TYPE(tarni::MinMaxArray, "net.tarni.animation.datatype.minmaxarray");
