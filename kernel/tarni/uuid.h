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
struct UuidData;
}

class Uuid {
 public:
  constexpr Uuid() noexcept = default;
  Uuid(const Uuid& other) noexcept;
  Uuid(Uuid&& other) noexcept : _data(other._data) { other._data = nullptr; }
  Uuid& operator=(const Uuid& other) noexcept;
  Uuid& operator=(Uuid&& other) noexcept;
  ~Uuid();

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
  std::uint64_t GetHigh() const noexcept;
  std::uint64_t GetLow() const noexcept;

  // Equal 128-bit values (the empty Uuid equals the nil value).
  bool operator==(const Uuid& other) const noexcept {
    return _data == other._data || (GetHigh() == other.GetHigh() && GetLow() == other.GetLow());
  }
  std::uint64_t GetHashCode() const noexcept;

  void AppendText(TextBuilder& out, const FormatStatement* format = nullptr) const noexcept;
  String ToString(const FormatStatement* format = nullptr) const noexcept;

 private:
  detail::UuidData* _data = nullptr;
};

}  // namespace tarni
