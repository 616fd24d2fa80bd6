#include "tarni/format.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace tarni {

namespace {
// The shortest text that reads back as `value`, or, when the format asks for a precision, that
// many significant digits, capped at the digits the type can hold (`maxPrecision`).
template <typename T>
void AppendFloatingPoint(TextBuilder& out, T value, const FormatStatement* format,
                         int maxPrecision) noexcept {
  char digits[64];
  std::to_chars_result done{};
  if (format != nullptr && format->precision > 0)
    done = std::to_chars(digits, digits + sizeof(digits), value, std::chars_format::general,
                         format->precision > maxPrecision ? maxPrecision : format->precision);
  else
    done = std::to_chars(digits, digits + sizeof(digits), value);
  out.Append(std::string_view(digits, static_cast<std::size_t>(done.ptr - digits)));
}
}  // namespace

void AppendFloat64(TextBuilder& out, double value, const FormatStatement* format) noexcept {
  AppendFloatingPoint(out, value, format, 17);
}

void AppendFloat32(TextBuilder& out, float value, const FormatStatement* format) noexcept {
  AppendFloatingPoint(out, value, format, 9);
}

void AppendFloat(TextBuilder& out, double value, int mantissaLength, int fractionLength,
                 bool exponent, char fill) noexcept {
  if (std::isnan(value)) {
    out.Append("nan");
    return;
  }
  if (std::isinf(value)) {
    out.Append(value < 0 ? "-inf" : "inf");
    return;
  }
  const bool trim = fractionLength < 0;
  int digitsAfterPoint = trim ? -fractionLength : fractionLength;
  if (digitsAfterPoint > 30) digitsAfterPoint = 30;
  char text[400];
  auto done = std::to_chars(text, text + sizeof(text), value,
                            exponent ? std::chars_format::scientific : std::chars_format::fixed,
                            digitsAfterPoint);
  std::string_view number(text, static_cast<std::size_t>(done.ptr - text));
  std::string_view exponentPart;
  if (exponent) {
    const std::size_t e = number.find('e');
    if (e != std::string_view::npos) {
      exponentPart = number.substr(e);
      number = number.substr(0, e);
    }
  }
  if (trim && number.find('.') != std::string_view::npos) {
    while (!number.empty() && number.back() == '0') number.remove_suffix(1);
    if (!number.empty() && number.back() == '.') number.remove_suffix(1);
  }
  // A negative that rounds to zero is not worth a sign ("0.00", not "-0.00").
  if (!number.empty() && number.front() == '-' &&
      number.find_first_not_of("0.", 1) == std::string_view::npos)
    number.remove_prefix(1);
  std::size_t point = number.find('.');
  if (point == std::string_view::npos) point = number.size();
  for (int pad = mantissaLength - static_cast<int>(point); pad > 0; --pad) out.Append(fill);
  out.Append(number);
  out.Append(exponentPart);
}

}  // namespace tarni

namespace tarni {
void AppendVectorText(TextBuilder& out, const Vector& v, const FormatStatement* format) noexcept {
  out.Append('(');
  AppendFloat64(out, v.x, format);
  out.Append(',');
  AppendFloat64(out, v.y, format);
  out.Append(',');
  AppendFloat64(out, v.z, format);
  out.Append(')');
}

void AppendMatrixText(TextBuilder& out, const Matrix& m, const FormatStatement* format) noexcept {
  out.Append('(');
  AppendVectorText(out, m.v1, format);
  out.Append(',');
  AppendVectorText(out, m.v2, format);
  out.Append(',');
  AppendVectorText(out, m.v3, format);
  out.Append(',');
  AppendVectorText(out, m.off, format);
  out.Append(')');
}
}  // namespace tarni
