#include "tarni/uuid.h"

#include <chrono>
#include <random>

#include "tarni/memory.h"

namespace tarni {
namespace detail {
void FreeUuidData(UuidData* data) noexcept { Delete(data); }
}  // namespace detail

namespace {
int HexValue(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

Uuid& Uuid::operator=(Uuid&& other) noexcept {
  if (this != &other) {
    Release(_data);
    _data = other._data;
    other._data = nullptr;
  }
  return *this;
}

Result<Uuid> Uuid::Make(std::uint64_t high, std::uint64_t low) noexcept {
  auto* data = New<detail::UuidData>();
  if (data == nullptr) return OutOfMemoryError();
  data->refs.store(1, std::memory_order_relaxed);
  data->high = high;
  data->low = low;
  data->hash = detail::HashOf(high, low);
  Uuid uuid;
  uuid._data = data;
  return uuid;
}

Result<Uuid> Uuid::Generate() noexcept {
  thread_local std::mt19937_64 engine(
      std::random_device{}() ^
      static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()));
  std::uint64_t high = engine();
  std::uint64_t low = engine();
  high = (high & ~0xF000ull) | 0x4000ull;      // version 4
  low = (low & ~(3ull << 62)) | (2ull << 62);  // variant 1
  return Make(high, low);
}

Result<Uuid> Uuid::Parse(std::string_view text) noexcept {
  if (text.size() == 38 && text.front() == '{' && text.back() == '}') text = text.substr(1, 36);
  if (text.size() != 36) return IllegalArgumentError("Illegal argument: malformed Uuid text.");
  std::uint64_t words[2] = {0, 0};
  int nibbles = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return IllegalArgumentError("Illegal argument: malformed Uuid text.");
      continue;
    }
    const int value = HexValue(text[i]);
    if (value < 0) return IllegalArgumentError("Illegal argument: malformed Uuid text.");
    std::uint64_t& word = words[nibbles / 16];
    word = (word << 4) | static_cast<std::uint64_t>(value);
    ++nibbles;
  }
  return Make(words[0], words[1]);
}

void Uuid::AppendText(TextBuilder& out, const FormatStatement*) const noexcept {
  static constexpr char kHex[] = "0123456789abcdef";
  char text[36];
  const std::uint64_t words[2] = {GetHigh(), GetLow()};
  int pos = 0;
  for (int nibble = 0; nibble < 32; ++nibble) {
    if (nibble == 8 || nibble == 12 || nibble == 16 || nibble == 20) text[pos++] = '-';
    const std::uint64_t word = words[nibble / 16];
    text[pos++] = kHex[(word >> (60 - 4 * (nibble % 16))) & 0xF];
  }
  out.Append(std::string_view(text, 36));
}

String Uuid::ToString(const FormatStatement* format) const noexcept {
  TextBuilder out;
  AppendText(out, format);
  return out.ToString();
}

}  // namespace tarni
