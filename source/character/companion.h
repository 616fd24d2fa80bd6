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
// by a pointer only (its many copies start empty anyway). The first call of Get keeps its result;
// later calls with the same function return it. Keeping is the only change made while other
// threads may read the owner, so it is a compare-and-swap: the first matrix kept wins. When the
// memory cannot be had the matrix is derived on every call. The owner clears the slot whenever
// the member changes; a copy starts empty.
class KeptMatrix {
 public:
  KeptMatrix() noexcept = default;
  KeptMatrix(const KeptMatrix&) noexcept {}
  KeptMatrix& operator=(const KeptMatrix&) noexcept {
    Clear();
    return *this;
  }
  ~KeptMatrix() { Clear(); }

  // derive(from), kept or derived now: a reference to the kept matrix, or to `scratch` holding the
  // one derived. `from` must be the member the slot belongs to.
  const Matrix& Get(const Matrix& from, MatrixFunction derive, Matrix& scratch) const noexcept {
    const Kept* kept = _kept.load(std::memory_order_acquire);
    if (kept != nullptr && kept->derive == derive) return kept->value;
    scratch = derive(from);
    if (kept == nullptr) Keep(derive, scratch);
    return scratch;
  }

  // Forgets the kept matrix. Only on an owner nobody else reads; the load first spares the many
  // owners that never kept one an atomic exchange.
  void Clear() noexcept {
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
};

}  // namespace tarni::ca
