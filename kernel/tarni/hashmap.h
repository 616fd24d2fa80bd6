// HashMap<K, V>: the framework's hash map. Iteration follows insertion order, so every dump that
// walks a map is deterministic. Growth reports out-of-memory instead of throwing.
#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include "tarni/array.h"
#include "tarni/id.h"
#include "tarni/internedid.h"
#include "tarni/string.h"
#include "tarni/uuid.h"

namespace tarni {

template <typename K, typename = void>
struct Hasher;

template <typename K>
struct Hasher<K, std::enable_if_t<std::is_integral_v<K> || std::is_enum_v<K>>> {
  std::uint64_t operator()(K key) const noexcept {
    std::uint64_t h = static_cast<std::uint64_t>(key) * 0x9E3779B97F4A7C15ull;
    return h ^ (h >> 29);
  }
};
template <>
struct Hasher<Uuid> {
  std::uint64_t operator()(const Uuid& key) const noexcept { return key.GetHashCode(); }
};
// Interned identifiers hash by the id hash word they carry, bit 43 cleared.
template <>
struct Hasher<InternedId> {
  std::uint64_t operator()(const InternedId& key) const noexcept {
    return key.GetHashWord() & ~(std::uint64_t{1} << 43);
  }
};
template <>
struct Hasher<String> {
  std::uint64_t operator()(const String& key) const noexcept { return key.GetHashCode(); }
};
template <>
struct Hasher<Id> {
  std::uint64_t operator()(const Id& key) const noexcept { return key.GetHash(); }
};

template <typename K, typename V, typename H = Hasher<K>>
class HashMap {
 public:
  struct Entry {
    K key;
    V value;
  };

  HashMap() noexcept = default;
  HashMap(HashMap&&) noexcept = default;
  HashMap& operator=(HashMap&&) noexcept = default;

  Int GetCount() const noexcept { return _entries.GetCount(); }
  bool IsEmpty() const noexcept { return _entries.IsEmpty(); }

  V* Find(const K& key) noexcept {
    const Int index = IndexOf(key);
    return index < 0 ? nullptr : &_entries[index].value;
  }
  const V* Find(const K& key) const noexcept {
    const Int index = IndexOf(key);
    return index < 0 ? nullptr : &_entries[index].value;
  }

  // The entry for `key`, created with a value-initialised V when missing (`*created` tells which).
  // The pointer is valid until the map changes.
  Result<Entry*> FindOrInsert(const K& key, bool* created = nullptr) noexcept {
    const Int found = IndexOf(key);
    if (found >= 0) {
      if (created) *created = false;
      return &_entries[found];
    }
    if ((_entries.GetCount() + 1) * 2 > _slots.GetCount()) TARNI_TRY(Rehash(_slots.GetCount() * 2));
    TARNI_TRY(_entries.Append(Entry{key, V()}));
    Place(_entries.GetCount() - 1);
    if (created) *created = true;
    return &_entries.GetLast();
  }

  // Inserts or replaces the value of `key`.
  Result<void> Insert(const K& key, V value) noexcept {
    Entry* entry = TARNI_TRY(FindOrInsert(key));
    entry->value = std::move(value);
    return OK;
  }

  // Removes the entry of `key`; returns whether there was one. The order of the others is kept.
  bool Erase(const K& key) noexcept {
    const Int index = IndexOf(key);
    if (index < 0) return false;
    _entries.Erase(index);
    RebuildSlots();
    return true;
  }

  // Removes every entry and keeps the memory.
  void Flush() noexcept {
    _entries.Flush();
    for (Int i = 0; i < _slots.GetCount(); ++i) _slots[i] = -1;
  }
  void Reset() noexcept {
    _entries.Reset();
    _slots.Reset();
  }

  // Replaces the content by copies of `source`'s entries; when memory runs out the map keeps its
  // own entries, like every other failed growth of the map.
  Result<void> CopyFrom(const HashMap& source) noexcept {
    if (this == &source) return OK;
    BaseArray<Entry> entries;
    BaseArray<Int> slots;
    TARNI_TRY(entries.CopyFrom(source._entries));
    TARNI_TRY(slots.CopyFrom(source._slots));
    _entries = std::move(entries);
    _slots = std::move(slots);
    return OK;
  }

  Entry* begin() noexcept { return _entries.begin(); }
  Entry* end() noexcept { return _entries.end(); }
  const Entry* begin() const noexcept { return _entries.begin(); }
  const Entry* end() const noexcept { return _entries.end(); }

 private:
  Int IndexOf(const K& key) const noexcept {
    const Int slotCount = _slots.GetCount();
    if (slotCount == 0) return -1;
    const Int mask = slotCount - 1;
    for (Int slot = static_cast<Int>(H{}(key)) & mask;; slot = (slot + 1) & mask) {
      const Int index = _slots[slot];
      if (index < 0) return -1;
      if (_entries[index].key == key) return index;
    }
  }
  void Place(Int index) noexcept {
    const Int mask = _slots.GetCount() - 1;
    Int slot = static_cast<Int>(H{}(_entries[index].key)) & mask;
    while (_slots[slot] >= 0) slot = (slot + 1) & mask;
    _slots[slot] = index;
  }
  Result<void> Rehash(Int slotCount) noexcept {
    if (slotCount < 8) slotCount = 8;
    BaseArray<Int> slots;
    TARNI_TRY(slots.Resize(slotCount));
    _slots = std::move(slots);
    RebuildSlots();
    return OK;
  }
  void RebuildSlots() noexcept {
    for (Int i = 0; i < _slots.GetCount(); ++i) _slots[i] = -1;
    for (Int i = 0; i < _entries.GetCount(); ++i) Place(i);
  }

  BaseArray<Entry> _entries;
  BaseArray<Int> _slots;  // power-of-two table of entry indices, -1 when free
};

}  // namespace tarni
