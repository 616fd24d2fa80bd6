// String: the framework's shared, immutable text. Copies share one buffer; literals are referenced
// in place without allocating. TextBuilder collects text dumps.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "tarni/array.h"
#include "tarni/result.h"

namespace tarni {

namespace detail {
struct StringBuffer;
}

class String {
 public:
  // The empty string.
  constexpr String() noexcept = default;
  // Literals and the empty string have no buffer to count, so copying and dropping them costs no
  // call; node names are copied with every cloned node.
  String(const String& other) noexcept
      : _text(other._text), _length(other._length), _buffer(other._buffer) {
    if (_buffer != nullptr) Retain(_buffer);
  }
  String(String&& other) noexcept
      : _text(other._text), _length(other._length), _buffer(other._buffer) {
    other._text = "";
    other._length = 0;
    other._buffer = nullptr;
  }
  String& operator=(const String& other) noexcept;
  String& operator=(String&& other) noexcept;
  ~String() {
    if (_buffer != nullptr) Release(_buffer);
  }

  // A string referring to static text (a literal); nothing is allocated or copied.
  static String Literal(std::string_view text) noexcept { return String(text); }
  // A string holding a copy of `text`; fails only when memory runs out.
  static Result<String> Make(std::string_view text) noexcept;

  std::string_view GetView() const noexcept { return {_text, _length}; }
  // Always NUL-terminated.
  const char* GetCString() const noexcept { return _text; }
  Int GetLength() const noexcept { return static_cast<Int>(_length); }
  bool IsEmpty() const noexcept { return _length == 0; }
  // True when both refer to the same characters (one shared buffer or the same literal).
  bool SharesData(const String& other) const noexcept {
    return _text == other._text && _length == other._length;
  }

  // Plain comparison, character by character over the whole text.
  bool operator==(const String& other) const noexcept { return GetView() == other.GetView(); }
  bool operator==(std::string_view other) const noexcept { return GetView() == other; }

  // Position of the first occurrence of `needle` at or after `from`, or -1.
  Int Find(std::string_view needle, Int from = 0) const noexcept;
  // The text with ASCII letters in lower case (other bytes unchanged).
  Result<String> ToLower() const noexcept;
  // The parts between occurrences of `separator`, in order; empty parts are left out.
  Result<BaseArray<String>> Split(std::string_view separator) const noexcept;
  std::uint64_t GetHashCode() const noexcept;

 private:
  constexpr explicit String(std::string_view literal) noexcept
      : _text(literal.data()), _length(static_cast<std::uint32_t>(literal.size())) {}
  // One more holder of `buffer` / one holder less (the last one frees it); never null.
  static void Retain(detail::StringBuffer* buffer) noexcept;
  static void Release(detail::StringBuffer* buffer) noexcept;
  const char* _text = "";
  std::uint32_t _length = 0;
  detail::StringBuffer* _buffer = nullptr;  // null for literals and the empty string
};

namespace literals {
// "Arm"_s: a String referring to the literal.
inline String operator""_s(const char* text, std::size_t length) noexcept {
  return String::Literal(std::string_view(text, length));
}
}  // namespace literals

// Collects the text of a dump. Dumps have no error channel: when memory runs out while appending,
// the text collected so far is dropped and collecting goes on from an empty text.
class TextBuilder {
 public:
  TextBuilder() noexcept = default;
  TextBuilder(const TextBuilder&) = delete;
  TextBuilder& operator=(const TextBuilder&) = delete;
  ~TextBuilder();

  TextBuilder& Append(std::string_view text) noexcept;
  TextBuilder& Append(const String& text) noexcept { return Append(text.GetView()); }
  TextBuilder& Append(const char* text) noexcept { return Append(std::string_view(text)); }
  TextBuilder& Append(char c) noexcept { return Append(std::string_view(&c, 1)); }
  // Decimal integer.
  TextBuilder& AppendInt(std::int64_t value) noexcept;

  std::string_view GetView() const noexcept {
    return {_data ? _data : "", static_cast<std::size_t>(_size)};
  }
  // The collected text as a String (the empty string when even that copy cannot be made).
  String ToString() const noexcept;

 private:
  char* _data = nullptr;
  Int _size = 0;
  Int _capacity = 0;
};

}  // namespace tarni
