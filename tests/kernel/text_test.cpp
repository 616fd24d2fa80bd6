// Strings, the dump builder and the decided text forms of numbers, flags and matrices.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "tarni/format.h"
#include "tarni/math.h"
#include "tarni/string.h"

namespace tarni {
namespace {

using namespace tarni::literals;

std::vector<std::string> Parts(const BaseArray<String>& parts) {
  std::vector<std::string> texts;
  for (const String& part : parts) texts.emplace_back(part.GetView());
  return texts;
}
using TextList = std::vector<std::string>;

TEST(String, LiteralsReferTheirTextAndMadeStringsOwnACopy) {
  {
    // Literals and their copies allocate nothing.
    fault::FailAllocationsFrom(1);
    const String arm = "Arm"_s;
    const String copy = arm;
    const String empty;
    const Result<String> madeEmpty = String::Make("");
    fault::Disarm();
    EXPECT_FALSE(fault::Triggered());
    EXPECT_TRUE(copy.SharesData(arm));
    EXPECT_EQ(copy, "Arm");
  }
  {
    // Make copies the characters and ends them with a NUL; copies of it share the buffer.
    std::string source = "LeftForeArm";
    const String made = String::Make(std::string_view(source).substr(0, 8)).value();
    source[0] = 'X';
    EXPECT_EQ(std::string(made.GetCString()), "LeftFore");
    String copy = made;
    EXPECT_TRUE(copy.SharesData(made));
    EXPECT_EQ(made, "LeftFore"_s);
    // Moving leaves the empty string behind.
    const String moved = std::move(copy);
    EXPECT_TRUE(copy.IsEmpty());
    EXPECT_TRUE(moved.SharesData(made));
  }
  {
    // Make fails only for memory.
    fault::FailNthAllocation(1);
    const Result<String> failed = String::Make("Spine");
    fault::Disarm();
    EXPECT_TRUE(failed.error().Is(ErrorKind::kOutOfMemory));
  }
}

TEST(String, FindLooksFromTheGivenPosition) {
  // The empty needle is found where the search starts, up to the end of the text.
  const String text = "LeftArmLeftHand"_s;
  const std::tuple<const char*, Int, Int> cases[] = {
      {"Left", 0, 0},  {"Left", 1, 7}, {"Hand", 11, 11}, {"Hand", 12, -1}, {"Foot", 0, -1},
      {"Left", -5, 0}, {"", 3, 3},     {"", 15, 15},     {"", 16, -1}};
  for (const auto& [needle, from, at] : cases)
    EXPECT_EQ(text.Find(needle, from), at) << needle << from;
  EXPECT_EQ(String().Find("a"), -1);
}

TEST(String, SplitDropsEmptyParts) {
  {
    // Separators at the ends and next to each other make no parts.
    EXPECT_EQ(Parts(",arm,,leg,"_s.Split(",").value()), (TextList{"arm", "leg"}));
    EXPECT_EQ(Parts(",,,"_s.Split(",").value()), TextList{});
  }
  {
    // A separator of several characters; no separator keeps the whole text.
    EXPECT_EQ(Parts("a::b:c::"_s.Split("::").value()), (TextList{"a", "b:c"}));
  }
}

TEST(String, ToLowerChangesAsciiLettersOnly) {
  EXPECT_EQ("LeftUpLeg_02"_s.ToLower().value(), "leftupleg_02");
  // Bytes beyond ASCII pass unchanged (UTF-8 "Ärm").
  EXPECT_EQ("\xC3\x84Rm"_s.ToLower().value(), "\xC3\x84rm");
  // A text without capitals is returned as it is, shared.
  const String lower = String::Make("spine").value();
  EXPECT_TRUE(lower.ToLower().value().SharesData(lower));
}

TEST(TextBuilder, DropsTheCollectedTextWhenMemoryRunsOutAndGoesOn) {
  {
    // Integers at their limits.
    TextBuilder out;
    out.AppendInt(0).Append(' ').AppendInt(-42).Append(' ');
    out.AppendInt(std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(out.GetView(), "0 -42 -9223372036854775808");
  }
  {
    // The first growth fails: nothing is kept of the piece that did not fit.
    TextBuilder out;
    fault::FailNthAllocation(1);
    out.Append("Object ID : ");
    fault::Disarm();
    EXPECT_EQ(out.GetView(), "");
    out.Append("Object Name : ");
    EXPECT_EQ(out.GetView(), "Object Name : ");
  }
  {
    // A later growth fails: the collected text is dropped, the piece that fits is kept, and
    // appending goes on from there.
    TextBuilder out;
    out.Append(std::string(60, 'a'));
    fault::FailNthAllocation(1);
    out.Append("0123456789");
    fault::Disarm();
    EXPECT_EQ(out.GetView(), "0123456789");
    out.Append(std::string(100, 'b'));
    EXPECT_EQ(out.GetView(), "0123456789" + std::string(100, 'b'));
    // ToString that cannot copy gives the empty string.
    fault::FailNthAllocation(1);
    const String text = out.ToString();
    fault::Disarm();
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_EQ(out.ToString().GetLength(), 110);
  }
  {
    // Appending the builder's own text, while it grows and while memory runs out.
    TextBuilder out;
    out.Append("ab");
    for (int i = 0; i < 8; ++i) out.Append(out.GetView());
    std::string expected = "ab";
    for (int i = 0; i < 8; ++i) expected += expected;
    EXPECT_EQ(out.GetView(), expected);
    TextBuilder small;
    small.Append(std::string(40, 'c'));
    fault::FailNthAllocation(1);
    small.Append(small.GetView());
    fault::Disarm();
    EXPECT_EQ(small.GetView(), std::string(40, 'c'));
  }
}

std::string Float64Text(double value, const FormatStatement* format = nullptr) {
  TextBuilder out;
  AppendFloat64(out, value, format);
  return std::string(out.GetView());
}

std::string FloatText(double value, int mantissa, int fraction, bool exponent = false,
                      char fill = ' ') {
  TextBuilder out;
  AppendFloat(out, value, mantissa, fraction, exponent, fill);
  return std::string(out.GetView());
}

TEST(TextForms, Float64IsTheShortestRoundTrip) {
  EXPECT_EQ(Float64Text(0.1), "0.1");
  EXPECT_EQ(Float64Text(1e300), "1e+300");
  EXPECT_EQ(Float64Text(-0.0), "-0");
  EXPECT_EQ(Float64Text(0.1 + 0.2), "0.30000000000000004");
  // Whatever the digits, they read back to the same value.
  for (double value : {1.0 / 3.0, 2.0 / 3.0, 123456.789e-200, 5e-324, 1.7976931348623157e308}) {
    const std::string text = Float64Text(value);
    EXPECT_EQ(std::strtod(text.c_str(), nullptr), value) << text;
  }
  // A format statement with a precision gives that many significant digits.
  const FormatStatement three{3};
  EXPECT_EQ(Float64Text(2.0 / 3.0, &three), "0.667");
  const FormatStatement many{40};
  EXPECT_EQ(Float64Text(0.1, &many), "0.10000000000000001");
  // Float32 is shortest for the float, not for its double widening.
  TextBuilder out;
  AppendFloat32(out, 0.1f);
  EXPECT_EQ(out.GetView(), "0.1");
}

TEST(TextForms, FloatWithMantissaAndFractionLengths) {
  {
    // A negative fraction length: at most that many digits, trailing zeros and point dropped.
    EXPECT_EQ(FloatText(0.5, -1, -3), "0.5");
    EXPECT_EQ(FloatText(2.0 / 3, -1, -3), "0.667");
    EXPECT_EQ(FloatText(-0.25, -1, -1), "-0.2");
  }
  {
    // A positive fraction length is exact; 0 prints no point.
    EXPECT_EQ(FloatText(1234.5, 6, 2), "  1234.50");
    EXPECT_EQ(FloatText(2.75, -1, 0), "3");
    EXPECT_EQ(FloatText(7.0, 3, 1, false, '0'), "007.0");
    // The mantissa length is a minimum: longer numbers are not cut.
    EXPECT_EQ(FloatText(123456.0, 2, 0), "123456");
  }
  {
    // A value that rounds to zero carries no sign, whatever the fraction rule.
    EXPECT_EQ(FloatText(-0.0001, -1, -2), "0");
    EXPECT_EQ(FloatText(-0.004, -1, 2), "0.00");
    EXPECT_EQ(FloatText(-0.006, -1, 2), "-0.01");
  }
  {
    // Exponent form, same fraction rule; non-finite values by name.
    EXPECT_EQ(FloatText(150.0, -1, 1, true), "1.5e+02");
    EXPECT_EQ(FloatText(100.0, -1, -4, true), "1e+02");
    EXPECT_EQ(FloatText(std::nan(""), 5, 2), "nan");
    EXPECT_EQ(FloatText(-INFINITY, 5, 2), "-inf");
  }
  {
    // Huge values in fixed notation are written in full.
    EXPECT_EQ(FloatText(1e300, -1, -30).size(), 301u);
  }
}

TEST(TextForms, VectorsAndMatrices) {
  // Axes first, the offset last, although the offset is stored first.
  Matrix m{{10, 11, 12}, {1, 2, 3}, {4, 5, 6}, {7, 8, 9.5}};
  TextBuilder matrix;
  AppendMatrixText(matrix, m, nullptr);
  EXPECT_EQ(matrix.GetView(), "((1,2,3),(4,5,6),(7,8,9.5),(10,11,12))");
  // The format statement reaches every component.
  const FormatStatement two{2};
  TextBuilder vector;
  AppendVectorText(vector, {1.0 / 3, -0.0, 250.0}, &two);
  EXPECT_EQ(vector.GetView(), "(0.33,-0,2.5e+02)");
}

}  // namespace
}  // namespace tarni
