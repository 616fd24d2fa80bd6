#include "tarni/string.h"

#include <charconv>
#include <cstring>

#include "tarni/memory.h"

namespace tarni {
namespace detail {
struct StringBuffer {
  std::atomic<std::int32_t> refs;
  // The characters follow, NUL-terminated.
};
}  // namespace detail

namespace {
void RetainBuffer(detail::StringBuffer* buffer) noexcept {
  if (buffer != nullptr) buffer->refs.fetch_add(1, std::memory_order_relaxed);
}
void ReleaseBuffer(detail::StringBuffer* buffer) noexcept {
  if (buffer != nullptr && buffer->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    buffer->~StringBuffer();
    Free(buffer);
  }
}
}  // namespace

void String::Retain(detail::StringBuffer* buffer) noexcept { RetainBuffer(buffer); }

void String::Release(detail::StringBuffer* buffer) noexcept { ReleaseBuffer(buffer); }

String& String::operator=(const String& other) noexcept {
  if (this != &other) {
    RetainBuffer(other._buffer);
    ReleaseBuffer(_buffer);
    _text = other._text;
    _length = other._length;
    _buffer = other._buffer;
  }
  return *this;
}

String& String::operator=(String&& other) noexcept {
  if (this != &other) {
    ReleaseBuffer(_buffer);
    _text = other._text;
    _length = other._length;
    _buffer = other._buffer;
    other._text = "";
    other._length = 0;
    other._buffer = nullptr;
  }
  return *this;
}

Result<String> String::Make(std::string_view text) noexcept {
  if (text.empty()) return String();
  if (text.size() > UINT32_MAX - 1) return OutOfMemoryError();
  void* memory = Allocate(sizeof(detail::StringBuffer) + text.size() + 1);
  if (memory == nullptr) return OutOfMemoryError();
  auto* buffer = ::new (memory) detail::StringBuffer{};
  buffer->refs.store(1, std::memory_order_relaxed);
  char* chars = reinterpret_cast<char*>(buffer + 1);
  std::memcpy(chars, text.data(), text.size());
  chars[text.size()] = '\0';
  String result;
  result._text = chars;
  result._length = static_cast<std::uint32_t>(text.size());
  result._buffer = buffer;
  return result;
}

Int String::Find(std::string_view needle, Int from) const noexcept {
  if (from < 0) from = 0;
  if (from > GetLength()) return -1;
  const std::size_t at = GetView().find(needle, static_cast<std::size_t>(from));
  return at == std::string_view::npos ? -1 : static_cast<Int>(at);
}

Result<String> String::ToLower() const noexcept {
  bool hasUpper = false;
  for (char c : GetView()) hasUpper |= (c >= 'A' && c <= 'Z');
  if (!hasUpper) return *this;
  String lower = TARNI_TRY(Make(GetView()));
  char* chars = const_cast<char*>(lower._text);  // our own fresh buffer
  for (std::uint32_t i = 0; i < lower._length; ++i)
    if (chars[i] >= 'A' && chars[i] <= 'Z') chars[i] = static_cast<char>(chars[i] - 'A' + 'a');
  return lower;
}

Result<BaseArray<String>> String::Split(std::string_view separator) const noexcept {
  BaseArray<String> parts;
  const std::string_view text = GetView();
  if (separator.empty()) {
    if (!text.empty()) TARNI_TRY(parts.Append(*this));
    return parts;
  }
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(separator, start);
    if (end == std::string_view::npos) end = text.size();
    if (end > start) {
      String part = TARNI_TRY(Make(text.substr(start, end - start)));
      TARNI_TRY(parts.Append(std::move(part)));
    }
    start = end + separator.size();
  }
  return parts;
}

std::uint64_t String::GetHashCode() const noexcept {
  std::uint64_t hash = 1469598103934665603ull;  // FNV-1a
  for (char c : GetView()) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
  return hash;
}

TextBuilder::~TextBuilder() { Free(_data); }

TextBuilder& TextBuilder::Append(std::string_view text) noexcept {
  if (text.empty()) return *this;
  const Int needed = _size + static_cast<Int>(text.size()) + 1;
  if (needed > _capacity) {
    Int capacity = _capacity < 64 ? 64 : _capacity * 2;
    if (capacity < needed) capacity = needed;
    char* data = static_cast<char*>(Allocate(static_cast<std::size_t>(capacity)));
    if (data == nullptr) {
      // No error channel: drop what was collected and go on from an empty text.
      _size = 0;
      if (static_cast<Int>(text.size()) + 1 > _capacity) return *this;
      std::memmove(_data, text.data(), text.size());  // the text may be our own
      _size = static_cast<Int>(text.size());
      return *this;
    }
    if (_size > 0) std::memcpy(data, _data, static_cast<std::size_t>(_size));
    // Copied before the old buffer is freed: the text may be a view of it.
    std::memcpy(data + _size, text.data(), text.size());
    Free(_data);
    _data = data;
    _capacity = capacity;
    _size += static_cast<Int>(text.size());
    return *this;
  }
  std::memcpy(_data + _size, text.data(), text.size());
  _size += static_cast<Int>(text.size());
  return *this;
}

TextBuilder& TextBuilder::AppendInt(std::int64_t value) noexcept {
  char digits[24];
  auto [end, ec] = std::to_chars(digits, digits + sizeof(digits), value);
  (void)ec;
  return Append(std::string_view(digits, static_cast<std::size_t>(end - digits)));
}

String TextBuilder::ToString() const noexcept {
  auto made = String::Make(GetView());
  return made ? std::move(made).value() : String();
}

}  // namespace tarni
