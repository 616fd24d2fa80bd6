#include "tarni/memory.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace tarni {
namespace {
// Fault injection state. `failAt` is the 1-based allocation number that fails (0: none);
// `failFrom` makes every later allocation fail as well.
std::atomic<std::int64_t> g_count{0};
std::atomic<std::int64_t> g_failAt{0};
std::atomic<bool> g_failFrom{false};
std::atomic<bool> g_triggered{false};
std::atomic<bool> g_armed{false};

bool InjectFault() noexcept {
  if (!g_armed.load(std::memory_order_relaxed)) return false;
  const std::int64_t number = g_count.fetch_add(1, std::memory_order_relaxed) + 1;
  const std::int64_t failAt = g_failAt.load(std::memory_order_relaxed);
  const bool fail = g_failFrom.load(std::memory_order_relaxed) ? number >= failAt : number == failAt;
  if (fail) g_triggered.store(true, std::memory_order_relaxed);
  return fail;
}
}  // namespace

void* Allocate(std::size_t size) noexcept {
  if (InjectFault()) return nullptr;
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateCleared(std::size_t size) noexcept {
  if (InjectFault()) return nullptr;
  return std::calloc(1, size == 0 ? 1 : size);
}

void Free(void* ptr) noexcept { std::free(ptr); }

namespace fault {
void FailNthAllocation(std::int64_t n) noexcept {
  g_count = 0;
  g_triggered = false;
  g_failFrom = false;
  g_failAt = n;
  g_armed = n > 0;
}
void FailAllocationsFrom(std::int64_t n) noexcept {
  g_count = 0;
  g_triggered = false;
  g_failFrom = true;
  g_failAt = n;
  g_armed = n > 0;
}
void Disarm() noexcept {
  g_armed = false;
  g_failAt = 0;
  g_failFrom = false;
}
std::int64_t AllocationCount() noexcept { return g_count.load(); }
bool Triggered() noexcept { return g_triggered.load(); }
}  // namespace fault

}  // namespace tarni
