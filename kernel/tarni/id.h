// Identifiers: dot-separated lower-case texts passed together with a 64-bit hash word that the
// framework compares first. The word is computed at compile time for literal ids.
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

namespace tarni {

// Polynomial hash of the text's bytes: hash = hash * 31 + byte, from 0, wrapping in 64 bits.
constexpr std::uint64_t PolynomialHash(std::string_view text) noexcept {
  std::uint64_t hash = 0;
  for (char c : text) hash = hash * 31u + static_cast<unsigned char>(c);
  return hash;
}

// The id hash word: bits 63..44 the text length (20 bits), bit 43 always 0, bits 42..0 the low 43
// bits of the polynomial hash.
constexpr std::uint64_t IdHashWord(std::string_view text) noexcept {
  constexpr std::uint64_t kLow43 = (std::uint64_t{1} << 43) - 1;
  return ((static_cast<std::uint64_t>(text.size()) & 0xFFFFFu) << 44) |
         (PolynomialHash(text) & kLow43);
}

// An identifier: a text that outlives the Id (normally a literal) and its hash word.
class Id {
 public:
  constexpr Id() noexcept = default;
  // Literal ids get their hash word at compile time.
  template <std::size_t N>
  consteval Id(const char (&text)[N]) noexcept  // NOLINT: implicit by design
      : _text(text, N - 1), _hash(IdHashWord(std::string_view(text, N - 1))) {}
  // Ids made at run time from text that the caller keeps alive.
  static constexpr Id FromText(std::string_view text) noexcept { return Id(text); }

  constexpr std::string_view GetText() const noexcept { return _text; }
  constexpr std::uint64_t GetHash() const noexcept { return _hash; }
  constexpr bool IsEmpty() const noexcept { return _text.empty(); }

  // The same text object needs no byte comparison: interface queries compare an id with itself.
  // (Constant evaluation compares the bytes: addresses of distinct literals do not compare there.)
  constexpr bool operator==(const Id& other) const noexcept {
    if (_hash != other._hash) return false;
    if (!std::is_constant_evaluated() && _text.data() == other._text.data() &&
        _text.size() == other._text.size())
      return true;
    return _text == other._text;
  }

 private:
  constexpr explicit Id(std::string_view text) noexcept : _text(text), _hash(IdHashWord(text)) {}
  std::string_view _text;
  std::uint64_t _hash = 0;
};

}  // namespace tarni
