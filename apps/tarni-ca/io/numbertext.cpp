#include "io/numbertext.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include <fmt/format.h>

namespace tarni::host {
namespace {

// "00", "01", ... "99": an exponent's last two digits.
constexpr char kPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Sixteen digits as one value, the first in the lowest byte, so that runs of them are cut and
// placed with shifts and stores alone.
__extension__ typedef unsigned __int128 Places;
static_assert(std::endian::native == std::endian::little, "places are stored lowest byte first");

// The eight digits of `value` < 10^8 as text, leading zeros included, the first digit in the
// lowest byte: the halves, quarters and single digits are split in all lanes at once.
[[gnu::always_inline]] inline uint64_t EightDigits(uint32_t value) {
  // Two four-digit lanes of 32 bits.
  uint64_t lanes = (value / 10000) | (static_cast<uint64_t>(value % 10000) << 32);
  // Four two-digit lanes of 16 bits: 10486 / 2^20 divides by 100 exactly below 10^4.
  uint64_t high = ((lanes * 10486) >> 20) & 0x0000007F0000007Full;
  lanes = high | ((lanes - high * 100) << 16);
  // Eight one-digit lanes of 8 bits: 103 / 2^10 divides by 10 exactly below 100.
  high = ((lanes * 103) >> 10) & 0x000F000F000F000Full;
  lanes = high | ((lanes - high * 10) << 8);
  return lanes | 0x3030303030303030ull;
}

// 10^n for n = 0 ... 17.
constexpr uint64_t kPowers[] = {1ull,
                                10ull,
                                100ull,
                                1000ull,
                                10000ull,
                                100000ull,
                                1000000ull,
                                10000000ull,
                                100000000ull,
                                1000000000ull,
                                10000000000ull,
                                100000000000ull,
                                1000000000000ull,
                                10000000000000ull,
                                100000000000000ull,
                                1000000000000000ull,
                                10000000000000000ull,
                                100000000000000000ull};

// The number of decimal digits of 0 < value < 10^17.
int DigitCount(uint64_t value) {
  // 1233 / 4096 is a little above log10(2): the estimate from the bit length is exact or one
  // too few.
  const int bits = 64 - std::countl_zero(value);
  const int estimate = (bits * 1233) >> 12;
  return estimate + (value >= kPowers[estimate] ? 1 : 0);
}

void Store(char* at, Places places) { std::memcpy(at, &places, sizeof places); }

// The digits of a significand below 10^17 as 17 places, leading zeros included: place 0 and
// the sixteen others, place 1 in the lowest byte. Digit k of the number is at place zeros + k.
// Every piece of text is stored straight to its place in the output, never built elsewhere and
// copied over: the copy would read small stores back before they have landed, which stalls.
class Digits {
 public:
  explicit Digits(uint64_t significand) : _count(DigitCount(significand)), _zeros(17 - _count) {
    const uint64_t high = significand / 100000000;
    _lead = static_cast<char>('0' + high / 100000000);
    _rest = EightDigits(static_cast<uint32_t>(high % 100000000)) |
            static_cast<Places>(EightDigits(static_cast<uint32_t>(significand % 100000000))) << 64;
  }

  int Count() const { return _count; }

  char First() const {
    return _zeros == 0 ? _lead : static_cast<char>(_rest >> (8 * (_zeros - 1)));
  }

  // Stores all the digits at `at`, and up to 17 bytes in all.
  void StoreAll(char* at) const {
    at[0] = _lead;  // the first of 17 digits; stored over by the other places otherwise
    const bool full = _zeros == 0;
    Store(at + (full ? 1 : 0), _rest >> (full ? 0 : 8 * (_zeros - 1)));
  }

  // Stores the digits from digit `k` >= 1 on at `at`, and 16 bytes in all.
  void StoreFrom(char* at, int k) const {
    // A one-digit number has no digit from 1 on: the 16 bytes are then stored over or left
    // behind the text, and the shift stays within the value's width.
    const int skip = std::min(_zeros + k - 1, 15);
    Store(at, _rest >> (8 * skip));
  }

 private:
  int _count;
  int _zeros;
  char _lead;
  Places _rest;
};

// Eight zeros, more than fixed notation ever pads with: from six on, scientific notation is the
// shorter.
constexpr char kZeros[8] = {'0', '0', '0', '0', '0', '0', '0', '0'};

}  // namespace

char* WriteShortest(char* out, double value) {
  const double magnitude = std::fabs(value);
  if (magnitude == 0.0) {
    // Common in clips (channels that never move): "0" or "-0".
    *out = '-';
    out += std::signbit(value) ? 1 : 0;
    *out = '0';
    return out + 1;
  }
  // Infinities and NaN are rare and have texts of their own; from 2^53 on, whole numbers in
  // fixed notation would need digits beyond the shortest ones. The standard library writes
  // those.
  if (!(magnitude < 0x1p53)) {
    char text[kLongestShortest];
    const char* const end = std::to_chars(text, text + sizeof text, value).ptr;
    std::memcpy(out, text, static_cast<size_t>(end - text));
    return out + (end - text);
  }

  // The shortest digits that read back as `value`, nearest to it among those: value =
  // significand * 10^exponent, without trailing zeros. This is the digit search the formatting
  // library's public calls build on; the text is composed here, in the standard library's
  // layout, for less than either library's composing costs.
  const auto decimal = fmt::detail::dragonbox::to_decimal(value);
  const Digits digits(decimal.significand);
  const int count = digits.Count();
  const int exponent = decimal.exponent;
  // The exponent of the first digit: scientific notation writes d.ddd e<scientific>.
  const int scientific = exponent + count - 1;
  // The lengths of both notations, without the sign.
  const int fixedLength =
      exponent >= 0 ? count + exponent : (scientific >= 0 ? count + 1 : count + 1 - scientific);
  const int exponentDigits = (scientific <= -100 || scientific >= 100) ? 3 : 2;
  const int scientificLength = count + (count > 1 ? 1 : 0) + 2 + exponentDigits;

  *out = '-';
  out += value < 0 ? 1 : 0;
  if (fixedLength <= scientificLength) {
    if (exponent >= 0) {
      // A whole number below 2^53: the digits, then the zeros they dropped.
      digits.StoreAll(out);
      std::memcpy(out + count, kZeros, sizeof kZeros);
      return out + count + exponent;
    }
    if (scientific >= 0) {
      // Digits on both sides of the point: the fraction's stored over the first copy.
      const int whole = scientific + 1;
      digits.StoreAll(out);
      digits.StoreFrom(out + whole + 1, whole);
      out[whole] = '.';
      return out + count + 1;
    }
    // Below one: "0.", the leading zeros, the digits.
    std::memcpy(out, "0.", 2);
    std::memcpy(out + 2, kZeros, sizeof kZeros);
    const int zeros = -scientific - 1;
    digits.StoreAll(out + 2 + zeros);
    return out + 2 + zeros + count;
  }
  out[0] = digits.First();
  out[1] = '.';
  digits.StoreFrom(out + 2, 1);
  out += count > 1 ? count + 1 : 1;
  out[0] = 'e';
  out[1] = scientific < 0 ? '-' : '+';
  out += 2;
  const int power = scientific < 0 ? -scientific : scientific;
  if (power >= 100) *out++ = static_cast<char>('0' + power / 100);
  std::memcpy(out, kPairs + 2 * (power % 100), 2);
  return out + 2;
}

}  // namespace tarni::host
