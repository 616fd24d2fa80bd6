// Companions: data that a frame loop derives once from one of this module's objects and keeps with
// it, so that later frames read it instead of computing it again (the solver's inverses of rest
// matrices, kept with the rest pose; the index of renamed poses, kept with the association).
#pragma once

#include <atomic>

namespace tarni::ca {

// The base of every companion. The owning object destroys an attached companion through `destroy`
// when it is released (or when the data the companion was derived from is replaced). A companion
// holds no reference to its owner, and its maker checks on each use that it still fits.
struct Companion {
  void (*destroy)(Companion* companion) noexcept;
};

// The one companion an object keeps. Attaching is the only change made while other threads may
// read the object, so it is a compare-and-swap: the first companion attached wins.
class CompanionSlot {
 public:
  CompanionSlot() noexcept = default;
  CompanionSlot(const CompanionSlot&) = delete;
  CompanionSlot& operator=(const CompanionSlot&) = delete;
  ~CompanionSlot() { Drop(); }

  // The attached companion, or null.
  const Companion* Peek() const noexcept { return _companion.load(std::memory_order_acquire); }

  // Attaches `companion` and returns it; its ownership passes to the slot. When another thread
  // attached one first, `companion` is destroyed and that one is returned.
  const Companion* Attach(Companion* companion) const noexcept {
    Companion* attached = nullptr;
    if (_companion.compare_exchange_strong(attached, companion, std::memory_order_acq_rel,
                                           std::memory_order_acquire))
      return companion;
    companion->destroy(companion);
    return attached;
  }

  // Destroys the attached companion, if any. Only on an object nobody else reads.
  void Drop() noexcept {
    if (Companion* companion = _companion.exchange(nullptr, std::memory_order_acq_rel))
      companion->destroy(companion);
  }

 private:
  mutable std::atomic<Companion*> _companion{nullptr};
};

}  // namespace tarni::ca
