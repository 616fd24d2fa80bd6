// The framework's text forms, decided once:
// - Float64 / Float32: the shortest text that reads back to the same value ("1", "0.5", "-2.25",
//   "1e+300"); a format statement with a precision instead gives that many significant digits.
// - The float conversion with mantissa and fraction lengths (FormatFloat): see there.
// - Bool: "true" / "false".
// - Uuid: 8-4-4-4-12 lower-case hexadecimal digits; the empty Uuid prints as the nil form
//   "00000000-0000-0000-0000-000000000000" (see uuid.h).
// - A null reference: "nullptr".
#pragma once

#include <cstdint>
#include <string_view>

#include "tarni/string.h"

namespace tarni {

// Options a caller hands to ToString; passed on unchanged to nested texts.
struct FormatStatement {
  // Significant digits for floating-point numbers; 0 means the shortest round-trip text.
  int precision = 0;
};

inline constexpr std::string_view kNullReferenceText = "nullptr";
inline constexpr std::string_view kTrueText = "true";
inline constexpr std::string_view kFalseText = "false";

void AppendFloat64(TextBuilder& out, double value,
                   const FormatStatement* format = nullptr) noexcept;
void AppendFloat32(TextBuilder& out, float value, const FormatStatement* format = nullptr) noexcept;
inline void AppendBool(TextBuilder& out, bool value) noexcept {
  out.Append(value ? kTrueText : kFalseText);
}

// The framework's float conversion with explicit lengths, in fixed notation unless `exponent`:
// - mantissaLength: the minimum number of characters before the decimal point, padded on the left
//   with `fill`; -1 (or any value below 1) means no padding.
// - fractionLength k >= 0: exactly k digits after the point (none and no point for 0);
//   -k: at most k digits, trailing zeros dropped, and the point too when nothing follows it.
// - exponent: scientific notation ("1.5e+02") with the same fraction rule.
// Non-finite values print as "nan", "inf", "-inf".
void AppendFloat(TextBuilder& out, double value, int mantissaLength, int fractionLength,
                 bool exponent, char fill) noexcept;

}  // namespace tarni

#include "tarni/math.h"

namespace tarni {
// "(x,y,z)", each component by AppendFloat64, no blanks.
void AppendVectorText(TextBuilder& out, const Vector& v, const FormatStatement* format) noexcept;
// "(" first axis "," second axis "," third axis "," offset ")": the axes come first and the offset
// last although the offset is stored first; no blanks.
void AppendMatrixText(TextBuilder& out, const Matrix& m, const FormatStatement* format) noexcept;
}  // namespace tarni
