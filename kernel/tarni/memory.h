// Kernel heap: every allocation of the kernel and of the module goes through here, so that running
// out of memory is an ordinary result (a null pointer, then the out-of-memory error) and tests can
// make any chosen allocation fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace tarni {

// Returns `size` bytes aligned for any fundamental type, or nullptr when memory is exhausted or an
// injected fault hits this allocation. Never throws. A size of 0 yields a valid unique pointer.
void* Allocate(std::size_t size) noexcept;
// As Allocate, with the bytes set to zero.
void* AllocateCleared(std::size_t size) noexcept;
// Releases memory from Allocate/AllocateCleared; nullptr is ignored.
void Free(void* ptr) noexcept;

// Constructs a T on the kernel heap; nullptr when the memory could not be had.
template <typename T, typename... Args>
T* New(Args&&... args) noexcept {
  void* memory = Allocate(sizeof(T));
  if (memory == nullptr) return nullptr;
  return ::new (memory) T(std::forward<Args>(args)...);
}

// Destroys and frees a T made by New; nullptr is ignored.
template <typename T>
void Delete(T* object) noexcept {
  if (object == nullptr) return;
  object->~T();
  Free(object);
}

// Fault injection for tests. Counting covers every kernel allocation made after arming, on any
// thread; tests that use it run their operation on one thread.
namespace fault {
// The `n`-th allocation from now (1-based) fails, once; the ones after it succeed again.
void FailNthAllocation(std::int64_t n) noexcept;
// Every allocation from the `n`-th on (1-based) fails until Disarm().
void FailAllocationsFrom(std::int64_t n) noexcept;
// Stops injecting faults.
void Disarm() noexcept;
// Number of allocations counted since the last FailNthAllocation/FailAllocationsFrom; only armed
// allocations are counted, so after Disarm it still tells how many the armed run made.
std::int64_t AllocationCount() noexcept;
// True when an injected fault has hit since the last arming.
bool Triggered() noexcept;
}  // namespace fault

}  // namespace tarni
