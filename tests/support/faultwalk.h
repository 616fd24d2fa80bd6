// Walks whole tables of operations through the kernel's fault injection: every allocation of each
// operation is made to fail in turn, and after each failed run the error, the state the operation
// documents for that case and the reference counts of the objects it was handed are checked.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tarni/error.h"
#include "tarni/memory.h"
#include "tarni/object.h"

namespace tarni::testing {

// Which outcomes a failed allocation may have, besides the out-of-memory error.
enum FaultOutcome : unsigned {
  kOutOfMemoryOnly = 0,
  // An object that could not be made reports the null-reference error ("Class could not create an
  // instance.", or the copy-on-write reference's "could not be made writable").
  kNoInstance = 1,
  // The operation absorbs the failure by design (a dump, a best-effort pairing, an index it can do
  // without) and may still succeed.
  kAbsorbed = 2,
};

// One operation of a walk. `setup` builds fresh state before every run (unarmed) and lists in
// `watched` the objects whose reference counts must come back to what they were; `run` performs
// the operation with the fault armed and returns its error (empty on success), dropping any value
// it got; `check` inspects the state after a run the fault hit (`error` is empty when the
// operation absorbed the failure) and then drops whatever outputs the case kept.
struct FaultCase {
  std::string name;
  std::function<void()> setup;
  std::function<Error()> run;
  std::function<void(const Error& error)> check;
  unsigned outcomes = kOutOfMemoryOnly;
};

// The error of a result, its value dropped.
template <typename R>
Error ErrorOf(const R& result) {
  return result.error();
}

inline bool IsOutOfMemory(const Error& error) {
  return error.Is(ErrorKind::kOutOfMemory) && error.GetMessage() == "Out of memory.";
}

inline bool IsNoInstance(const Error& error) {
  return error.Is(ErrorKind::kNullReference) &&
         (error.GetMessage() == "Class could not create an instance." ||
          error.GetMessage() == "Copy-on-write reference could not be made writable.");
}

// Runs `item` with its 1st, 2nd, ... allocation failing until a run meets no fault, which must
// succeed. Returns the number of runs the fault hit.
inline std::int64_t WalkFaults(const FaultCase& item, const std::vector<const Object*>& watched) {
  SCOPED_TRACE(item.name);
  for (std::int64_t n = 1; n <= 20000; ++n) {
    item.setup();
    std::vector<std::int32_t> counts;
    for (const Object* object : watched) counts.push_back(object->GetRefCount());
    fault::FailNthAllocation(n);
    const Error error = item.run();
    fault::Disarm();
    if (!fault::Triggered()) {
      EXPECT_FALSE(error) << "clean run failed: " << error.GetMessage();
      return n - 1;
    }
    SCOPED_TRACE(::testing::Message() << "allocation " << n << " failed");
    if (error) {
      EXPECT_TRUE(IsOutOfMemory(error) || ((item.outcomes & kNoInstance) && IsNoInstance(error)))
          << error.GetId().GetText() << ": " << error.GetMessage();
    } else {
      EXPECT_TRUE(item.outcomes & kAbsorbed) << "the failure vanished";
    }
    item.check(error);
    for (std::size_t i = 0; i < watched.size(); ++i)
      EXPECT_EQ(watched[i]->GetRefCount(), counts[i]) << "reference count of watched object " << i;
  }
  ADD_FAILURE() << "operation still allocating after 20000 runs";
  return -1;
}

// Runs `run` with every allocation failing and tells whether none was attempted.
template <typename Run>
bool AllocatesNothing(Run&& run) {
  fault::FailAllocationsFrom(1);
  run();
  fault::Disarm();
  return !fault::Triggered();
}

// A dump has no error channel: when memory runs out the text collected so far is dropped and
// collecting goes on, so a dump made under a failing allocation is the full text with one stretch
// left out (nested objects print through dumps of their own).
inline bool IsFullTextLessOneStretch(std::string_view text, std::string_view full) {
  if (text.size() > full.size()) return false;
  std::size_t prefix = 0;
  while (prefix < text.size() && text[prefix] == full[prefix]) ++prefix;
  std::size_t suffix = 0;
  while (suffix < text.size() && text[text.size() - 1 - suffix] == full[full.size() - 1 - suffix])
    ++suffix;
  return prefix + suffix >= text.size();
}

}  // namespace tarni::testing
