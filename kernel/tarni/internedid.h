// InternedId: the framework's interned identifier. Equal texts are one object, so identifiers
// compare by address. Interned texts live until the process ends: the set of identifiers a process
// uses is small, and immortal entries keep copies free of reference counting.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tarni/format.h"
#include "tarni/result.h"
#include "tarni/string.h"

namespace tarni {

namespace detail {
// The interned entry: its hash word and length, then the characters, NUL-terminated. Visible here
// so that the hash word, which every table lookup by identifier reads, is read inline.
struct InternedData {
  std::uint64_t hashWord;
  std::size_t length;
  const char* Text() const noexcept { return reinterpret_cast<const char*>(this + 1); }
};
}  // namespace detail

class InternedId {
 public:
  // The empty identifier (no value).
  constexpr InternedId() noexcept = default;

  // The interned identifier of `text`; the empty text gives the empty identifier. Fails only when
  // memory runs out.
  static Result<InternedId> Make(std::string_view text) noexcept;

  bool IsEmpty() const noexcept { return _data == nullptr; }
  std::string_view GetText() const noexcept;
  // The id hash word of the text (see id.h).
  std::uint64_t GetHashWord() const noexcept { return _data ? _data->hashWord : 0; }

  // The same interned object.
  bool operator==(const InternedId& other) const noexcept { return _data == other._data; }

  void AppendText(TextBuilder& out) const noexcept { out.Append(GetText()); }
  String ToString(const FormatStatement* = nullptr) const noexcept;

 private:
  const detail::InternedData* _data = nullptr;
};

}  // namespace tarni
