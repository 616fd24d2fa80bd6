// Numbers as the host's text formats write them.
#pragma once

#include <cstddef>

namespace tarni::host {

// The longest text WriteShortest writes: "-2.2250738585072014e-308".
inline constexpr size_t kLongestShortest = 24;
// The room WriteShortest needs at `out`: it copies its digits in fixed-size runs, which may
// reach past the end of the text it returns.
inline constexpr size_t kShortestRoom = 40;

// Writes `value` exactly as std::to_chars(out, out + kLongestShortest, value) does: the fewest
// significant digits that read back as the same double, in fixed or scientific notation,
// whichever is shorter (fixed on a tie), and returns the end of the text. `out` must have
// kShortestRoom bytes of room. About three times as fast, which matters where whole clips of
// numbers are written.
char* WriteShortest(char* out, double value);

}  // namespace tarni::host
