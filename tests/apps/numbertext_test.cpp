#include <gtest/gtest.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "io/numbertext.h"

namespace tarni::host {
namespace {

// Checks WriteShortest against the standard library's shortest form, and that it stays within
// the room it asks for; returns how many values differed (the first few are reported).
int Mismatches(const std::vector<double>& values) {
  int mismatches = 0;
  for (const double value : values) {
    char want[64];
    const char* const wantEnd = std::to_chars(want, want + sizeof want, value).ptr;
    // Guard bytes behind the room it may use.
    char got[kShortestRoom + 8];
    std::memset(got, '#', sizeof got);
    const char* const gotEnd = WriteShortest(got, value);
    const std::string expected(static_cast<const char*>(want), wantEnd);
    const std::string actual(static_cast<const char*>(got), gotEnd);
    const bool inRoom =
        std::memcmp(got + kShortestRoom, "########", 8) == 0 && actual.size() <= kLongestShortest;
    if (actual != expected || !inRoom) {
      if (++mismatches <= 5) {
        ADD_FAILURE() << "value " << std::bit_cast<uint64_t>(value) << ": '" << actual
                      << "', the standard library writes '" << expected << "'"
                      << (inRoom ? "" : " (written beyond its room)");
      }
    }
  }
  return mismatches;
}

TEST(NumberText, ShortestFormsAreTheStandardLibrarysOnEveryKindOfDouble) {
  std::mt19937_64 random(20261123);
  std::vector<double> values;
  // Any bit pattern: every exponent, subnormals, NaNs and infinities.
  for (int i = 0; i < 300000; ++i) values.push_back(std::bit_cast<double>(random()));
  // What clips hold: angles and positions at full precision and with a few decimals, 1 to 17
  // digits, both notations and both sides of the point.
  std::uniform_real_distribution<double> angle(-720.0, 720.0);
  for (int i = 0; i < 100000; ++i) {
    const double full = angle(random);
    const double decimals = std::round(full * 1e4) / 1e4;
    values.insert(values.end(),
                  {full, decimals, decimals * 1e-7, full * 1e-3, full * 1e9, std::round(full)});
  }
  // Where the notation or the digit count changes: around each power of ten and of two, whole
  // numbers up to and past 2^53, and the extremes.
  for (int exponent = -325; exponent <= 308; ++exponent) {
    for (const double mantissa : {1.0, 1.5, 9.999, 12.0, 123.0}) {
      const double power = mantissa * std::pow(10.0, exponent);
      values.insert(values.end(),
                    {power, std::nextafter(power, 0.0), std::nextafter(power, INFINITY), -power});
    }
  }
  for (int exponent = -1074; exponent <= 1023; ++exponent) {
    const double power = std::ldexp(1.0, exponent);
    values.insert(values.end(),
                  {power, std::nextafter(power, 0.0), std::nextafter(power, INFINITY)});
  }
  values.insert(values.end(),
                {0.0, -0.0, INFINITY, -INFINITY, std::nan(""), -std::nan(""),
                 std::numeric_limits<double>::denorm_min(), std::numeric_limits<double>::max(),
                 -std::numeric_limits<double>::min(), 0x1p53, 0x1p53 - 1.0, 123456.0, 1234567.0,
                 1e-5, 0.0001, 0.001, 1e15, 1e16, 100000.0});
  EXPECT_EQ(Mismatches(values), 0);
}

}  // namespace
}  // namespace tarni::host
