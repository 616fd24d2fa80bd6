// Companions: data that a frame loop derives once from one of this module's objects and keeps with
// it, so that later frames read it instead of computing it again (the solver's inverses of rest
// matrices, kept with the rest pose; the index of renamed poses, kept with the association; the
// inverse of a target node's parent global matrix, kept in the node).
#pragma once

#include <atomic>
#include <cstdint>

#include "tarni/math.h"

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

// A function of one matrix, such as the solver's inverse.
using MatrixFunction = Matrix (*)(const Matrix&);

// One matrix derived from a member matrix of its owner, kept out of line so that the owner grows
// by a pointer and a flag only (its many copies start empty anyway). The matrix is kept when it is
// offered a second time with the member unchanged: an owner whose member changes between every two
// offers (a host moving a node each frame) keeps nothing and allocates nothing. Peek then hands
// the kept matrix out. Keeping is the only change made while other threads may read the owner:
// the flag is only ever set, and the matrix is attached by a compare-and-swap, the first one kept
// winning. When the memory cannot be had the matrix is derived on every call. The owner clears the
// slot whenever the member changes; a copy starts empty.
class KeptMatrix {
 public:
  KeptMatrix() noexcept = default;
  KeptMatrix(const KeptMatrix&) noexcept {}
  KeptMatrix& operator=(const KeptMatrix&) noexcept {
    Clear();
    return *this;
  }
  ~KeptMatrix() { Clear(); }

  // The matrix kept by `derive`, or null.
  const Matrix* Peek(MatrixFunction derive) const noexcept {
    const Kept* kept = _kept.load(std::memory_order_acquire);
    return kept != nullptr && kept->derive == derive ? &kept->value : nullptr;
  }

  // Offers `value`, what `derive` made of the member as it is now: kept if the member was asked
  // for before, remembered as asked for otherwise.
  void Offer(MatrixFunction derive, const Matrix& value) const noexcept {
    if (_kept.load(std::memory_order_relaxed) != nullptr) return;
    if (_asked.load(std::memory_order_relaxed)) {
      Keep(derive, value);
    } else {
      _asked.store(true, std::memory_order_relaxed);
    }
  }

  // Forgets the kept matrix. Only on an owner nobody else reads; the loads first spare the many
  // owners that never kept one an atomic exchange.
  void Clear() noexcept {
    if (_asked.load(std::memory_order_relaxed)) _asked.store(false, std::memory_order_relaxed);
    if (_kept.load(std::memory_order_relaxed) != nullptr) Drop();
  }

 private:
  struct Kept {
    MatrixFunction derive;
    Matrix value;
  };
  void Keep(MatrixFunction derive, const Matrix& value) const noexcept;
  void Drop() noexcept;
  mutable std::atomic<Kept*> _kept{nullptr};
  mutable std::atomic<bool> _asked{false};
};

}  // namespace tarni::ca
