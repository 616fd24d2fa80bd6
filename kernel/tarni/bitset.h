// BitSet: the framework's bit set, a growable array of 64-bit words. Bit i lives in word i / 64 at
// position i mod 64, least significant bit first.
#pragma once

#include <cstdint>

#include "tarni/array.h"

namespace tarni {

class BitSet {
 public:
  // Makes the set hold exactly `words` words, all clear. Fails only when memory runs out.
  Result<void> Init(Int words) noexcept {
    TARNI_TRY(_words.Resize(words));
    for (std::uint64_t& word : _words) word = 0;
    return OK;
  }
  Int GetWordCount() const noexcept { return _words.GetCount(); }
  std::uint64_t GetWord(Int index) const noexcept { return _words[index]; }

  // Bits beyond the stored words read as clear and cannot be set: callers use the few indices they
  // name, and an index past the words must never touch memory that isn't the set's.
  bool Get(std::uint64_t index) const noexcept {
    const std::uint64_t word = index >> 6;
    if (word >= static_cast<std::uint64_t>(_words.GetCount())) return false;
    return ((_words[static_cast<Int>(word)] >> (index & 63)) & 1u) != 0;
  }
  void Set(std::uint64_t index, bool value) noexcept {
    const std::uint64_t word = index >> 6;
    if (word >= static_cast<std::uint64_t>(_words.GetCount())) return;
    const std::uint64_t mask = std::uint64_t{1} << (index & 63);
    if (value)
      _words[static_cast<Int>(word)] |= mask;
    else
      _words[static_cast<Int>(word)] &= ~mask;
  }

  // Copies the words of `source`; on failure the set is left empty.
  Result<void> CopyFrom(const BitSet& source) noexcept { return _words.CopyFrom(source._words); }

 private:
  BaseArray<std::uint64_t> _words;
};

}  // namespace tarni
