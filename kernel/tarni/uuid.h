// Uuid: the framework's 128-bit node identifier, held as a shared reference to immutable id data so
// that storing one never copies the bytes. The empty Uuid (no data) is a value of its own; it
// compares and prints as the nil value 00000000-0000-0000-0000-000000000000.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "tarni/format.h"
#include "tarni/result.h"
#include "tarni/string.h"

namespace tarni {

namespace detail {
// Visible here so that copying, comparing and hashing Uuids inline: node lookups by Uuid are the
// solver's inner loop.
struct UuidData {
  std::atomic<std::int32_t> refs;
  std::uint64_t high;
  std::uint64_t low;
  // HashOf(high, low), taken once when the data is made: every table lookup asks for it.
  std::uint64_t hash;
};
// Every bit of the value reaches the low bits, which is where tables take their slot from: Uuids
// made from counters differ only in a few low bits of one word, and a plain product would send
// them into a handful of slots.
constexpr std::uint64_t HashOf(std::uint64_t high, std::uint64_t low) noexcept {
  std::uint64_t h = high ^ (low * 0x9E3779B97F4A7C15ull);
  h ^= h >> 30;
  h *= 0xBF58476D1CE4E5B9ull;
  h ^= h >> 27;
  h *= 0x94D049BB133111EBull;
  return h ^ (h >> 31);
}
// Frees id data whose last reference is gone.
void FreeUuidData(UuidData* data) noexcept;
}  // namespace detail

class Uuid {
 public:
  constexpr Uuid() noexcept = default;
  Uuid(const Uuid& other) noexcept : _data(other._data) { Retain(_data); }
  Uuid(Uuid&& other) noexcept : _data(other._data) { other._data = nullptr; }
  Uuid& operator=(const Uuid& other) noexcept {
    if (_data != other._data) {
      Retain(other._data);
      Release(_data);
      _data = other._data;
    }
    return *this;
  }
  Uuid& operator=(Uuid&& other) noexcept;
  ~Uuid() { Release(_data); }

  // A Uuid holding the given 128 bits (high word first).
  static Result<Uuid> Make(std::uint64_t high, std::uint64_t low) noexcept;
  // A random (version 4) Uuid.
  static Result<Uuid> Generate() noexcept;
  // Parses the 8-4-4-4-12 form, with or without surrounding braces, any letter case.
  static Result<Uuid> Parse(std::string_view text) noexcept;

  // No id data, or the nil value.
  bool IsEmpty() const noexcept { return GetHigh() == 0 && GetLow() == 0; }
  bool HasData() const noexcept { return _data != nullptr; }
  // True when both refer to the same id data (two empty Uuids share "no data").
  bool SharesData(const Uuid& other) const noexcept { return _data == other._data; }
  std::uint64_t GetHigh() const noexcept { return _data ? _data->high : 0; }
  std::uint64_t GetLow() const noexcept { return _data ? _data->low : 0; }

  // Equal 128-bit values (the empty Uuid equals the nil value).
  bool operator==(const Uuid& other) const noexcept {
    return _data == other._data || (GetHigh() == other.GetHigh() && GetLow() == other.GetLow());
  }
  // The hash of the 128-bit value (equal values hash alike, with or without shared data).
  std::uint64_t GetHashCode() const noexcept { return _data ? _data->hash : kNilHash; }

  void AppendText(TextBuilder& out, const FormatStatement* format = nullptr) const noexcept;
  String ToString(const FormatStatement* format = nullptr) const noexcept;

 private:
  static void Retain(detail::UuidData* data) noexcept {
    if (data != nullptr) data->refs.fetch_add(1, std::memory_order_relaxed);
  }
  static void Release(detail::UuidData* data) noexcept {
    if (data != nullptr && data->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
      detail::FreeUuidData(data);
  }
  static constexpr std::uint64_t kNilHash = detail::HashOf(0, 0);
  detail::UuidData* _data = nullptr;
};

}  // namespace tarni
