#include "tarni/memory.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define TARNI_POISON_CACHED_BLOCKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARNI_POISON_CACHED_BLOCKS 1
#endif
#endif
#if defined(TARNI_POISON_CACHED_BLOCKS)
#include <sanitizer/asan_interface.h>
#endif

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
  const bool fail =
      g_failFrom.load(std::memory_order_relaxed) ? number >= failAt : number == failAt;
  if (fail) g_triggered.store(true, std::memory_order_relaxed);
  return fail;
}

// Small blocks are recycled through per-thread caches: the solver clones node data on every frame,
// and the system allocator's own caches hold too few blocks of one size for a whole pose. Every
// block starts with a header naming its size class, so Free needs no size and a block may be freed
// on any thread. Blocks above kSmallLimit go straight to the system allocator.
constexpr std::size_t kHeaderSize = 16;  // keeps the payload aligned as malloc's
constexpr std::size_t kGranule = 16;
constexpr std::size_t kSmallLimit = 512;
constexpr std::uint32_t kClassCount = kSmallLimit / kGranule;
constexpr std::uint32_t kLargeClass = 0xFFFFFFFFu;
// Bytes one size class may keep cached per thread, so a thread holds at most 2 MiB of free blocks.
constexpr std::size_t kCachedBytesPerClass = std::size_t{64} * 1024;

struct Header {
  std::uint32_t sizeClass;
};
static_assert(sizeof(Header) <= kHeaderSize);

// A cached block's payload holds the link to the next cached block of its class.
struct FreeBlock {
  FreeBlock* next;
};

std::uint32_t ClassOf(std::size_t size) noexcept {
  return size <= kSmallLimit ? static_cast<std::uint32_t>((size + kGranule - 1) / kGranule) - 1
                             : kLargeClass;
}
constexpr std::size_t PayloadOf(std::uint32_t sizeClass) noexcept {
  return (sizeClass + 1) * kGranule;
}
struct CacheLimits {
  std::uint32_t blocks[kClassCount];
  constexpr CacheLimits() noexcept : blocks() {
    for (std::uint32_t c = 0; c < kClassCount; ++c)
      blocks[c] = static_cast<std::uint32_t>(kCachedBytesPerClass / PayloadOf(c));
  }
};
constexpr CacheLimits kLimits;

// Under the address sanitizer a cached block, header included, is poisoned, so a use after Free or
// a second Free of it is still reported although the memory stays allocated.
void Poison(void* payload, std::size_t size) noexcept {
#if defined(TARNI_POISON_CACHED_BLOCKS)
  ASAN_POISON_MEMORY_REGION(static_cast<unsigned char*>(payload) - kHeaderSize, kHeaderSize + size);
#else
  (void)payload;
  (void)size;
#endif
}
void Unpoison(void* payload, std::size_t size) noexcept {
#if defined(TARNI_POISON_CACHED_BLOCKS)
  ASAN_UNPOISON_MEMORY_REGION(static_cast<unsigned char*>(payload) - kHeaderSize,
                              kHeaderSize + size);
#else
  (void)payload;
  (void)size;
#endif
}

// The cache of one thread. Trivially destructible, so it stays usable until the thread is gone;
// the thread's CacheDrain empties it at thread exit and later frees bypass it.
enum class CacheState : std::uint8_t { kUnused, kActive, kDrained };
struct ThreadCache {
  FreeBlock* heads[kClassCount];
  std::uint32_t counts[kClassCount];
  CacheState state;

  void Drain() noexcept {
    for (std::uint32_t c = 0; c < kClassCount; ++c) {
      while (FreeBlock* block = heads[c]) {
        Unpoison(block, PayloadOf(c));
        heads[c] = block->next;
        std::free(reinterpret_cast<unsigned char*>(block) - kHeaderSize);
      }
      counts[c] = 0;
    }
  }
};
// Initial-exec: the kernel library is loaded with the program, so its thread caches sit in the
// static TLS block and every allocation reaches its cache without a call to the TLS resolver.
constinit thread_local ThreadCache t_cache [[gnu::tls_model("initial-exec")]]{};

// Releases the thread's cached blocks when the thread ends (LeakSanitizer then finds none).
struct CacheDrain {
  CacheDrain() noexcept = default;
  CacheDrain(const CacheDrain&) = delete;
  CacheDrain& operator=(const CacheDrain&) = delete;
  ~CacheDrain() {
    t_cache.Drain();
    t_cache.state = CacheState::kDrained;
  }
  void Arm() noexcept {}
};
thread_local CacheDrain t_drain;

void* AllocateBlock(std::size_t size, bool cleared) noexcept {
  const std::uint32_t sizeClass = ClassOf(size == 0 ? 1 : size);
  if (sizeClass != kLargeClass) {
    ThreadCache& cache = t_cache;
    if (FreeBlock* block = cache.heads[sizeClass]) {
      const std::size_t payload = PayloadOf(sizeClass);
      Unpoison(block, payload);
      cache.heads[sizeClass] = block->next;
      --cache.counts[sizeClass];
      if (cleared) std::memset(block, 0, payload);
      return block;
    }
    const std::size_t total = kHeaderSize + PayloadOf(sizeClass);
    void* memory = cleared ? std::calloc(1, total) : std::malloc(total);
    if (memory == nullptr) return nullptr;
    static_cast<Header*>(memory)->sizeClass = sizeClass;
    return static_cast<unsigned char*>(memory) + kHeaderSize;
  }
  if (size > SIZE_MAX - kHeaderSize) return nullptr;
  void* memory = cleared ? std::calloc(1, kHeaderSize + size) : std::malloc(kHeaderSize + size);
  if (memory == nullptr) return nullptr;
  static_cast<Header*>(memory)->sizeClass = kLargeClass;
  return static_cast<unsigned char*>(memory) + kHeaderSize;
}
}  // namespace

void* Allocate(std::size_t size) noexcept {
  if (InjectFault()) return nullptr;
  return AllocateBlock(size, false);
}

void* AllocateCleared(std::size_t size) noexcept {
  if (InjectFault()) return nullptr;
  return AllocateBlock(size, true);
}

void Free(void* ptr) noexcept {
  if (ptr == nullptr) return;
  unsigned char* memory = static_cast<unsigned char*>(ptr) - kHeaderSize;
  const std::uint32_t sizeClass = reinterpret_cast<Header*>(memory)->sizeClass;
  ThreadCache& cache = t_cache;
  if (sizeClass == kLargeClass || cache.state == CacheState::kDrained ||
      cache.counts[sizeClass] >= kLimits.blocks[sizeClass]) {
    std::free(memory);
    return;
  }
  if (cache.state == CacheState::kUnused) {
    t_drain.Arm();  // constructs the thread's drain, so the cache is emptied at thread exit
    cache.state = CacheState::kActive;
  }
  FreeBlock* block = static_cast<FreeBlock*>(ptr);
  block->next = cache.heads[sizeClass];
  cache.heads[sizeClass] = block;
  ++cache.counts[sizeClass];
  Poison(block, PayloadOf(sizeClass));
}

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
