#include "tarni/internedid.h"

#include <cstring>
#include <mutex>

#include "tarni/hashmap.h"
#include "tarni/id.h"
#include "tarni/memory.h"

namespace tarni {
namespace {
// Keys are views into the immortal entries themselves.
struct ViewHasher {
  std::uint64_t operator()(std::string_view text) const noexcept {
    return IdHashWord(text) ^ PolynomialHash(text);
  }
};

struct InternTable {
  std::mutex mutex;
  HashMap<std::string_view, const detail::InternedData*, ViewHasher> entries;
};

InternTable& Table() noexcept {
  // Never destroyed: identifiers may be used by other objects' destructors at exit. Built in
  // static storage so that making it needs no allocation.
  alignas(InternTable) static unsigned char storage[sizeof(InternTable)];
  static InternTable* table = ::new (storage) InternTable();
  return *table;
}
}  // namespace

Result<InternedId> InternedId::Make(std::string_view text) noexcept {
  if (text.empty()) return InternedId();
  InternTable& table = Table();
  std::lock_guard<std::mutex> lock(table.mutex);
  if (auto* found = table.entries.Find(text)) {
    InternedId id;
    id._data = *found;
    return id;
  }
  void* memory = Allocate(sizeof(detail::InternedData) + text.size() + 1);
  if (memory == nullptr) return OutOfMemoryError();
  auto* data = ::new (memory) detail::InternedData{IdHashWord(text), text.size()};
  char* chars = reinterpret_cast<char*>(data + 1);
  std::memcpy(chars, text.data(), text.size());
  chars[text.size()] = '\0';
  if (auto inserted = table.entries.Insert(std::string_view(chars, text.size()), data); !inserted) {
    Free(memory);
    return inserted.error();
  }
  InternedId id;
  id._data = data;
  return id;
}

std::string_view InternedId::GetText() const noexcept {
  return _data ? std::string_view(_data->Text(), _data->length) : std::string_view();
}

String InternedId::ToString(const FormatStatement*) const noexcept {
  auto made = String::Make(GetText());
  return made ? std::move(made).value() : String();
}

}  // namespace tarni
