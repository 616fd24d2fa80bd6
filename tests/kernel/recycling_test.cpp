// The kernel heap's per-thread recycling of small blocks, and the reference shortcuts clones take:
// adopting a fresh object's first reference and copying a copy-on-write reference straight into a
// clone.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "tarni/memory.h"
#include "tarni/object.h"

namespace tarni {
namespace {

bool AllZero(const void* memory, std::size_t size) {
  const auto* bytes = static_cast<const unsigned char*>(memory);
  for (std::size_t i = 0; i < size; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

TEST(KernelHeap, RecycledBlocksAreClearedAlignedAndReused) {
  // Every size, small or large, is aligned like malloc's and cleared on AllocateCleared, even when
  // the block was dirtied by an earlier user.
  for (std::size_t size : {std::size_t{1}, std::size_t{16}, std::size_t{17}, std::size_t{200},
                           std::size_t{512}, std::size_t{513}, std::size_t{5000}}) {
    void* dirty = Allocate(size);
    ASSERT_NE(dirty, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(dirty) % alignof(std::max_align_t), 0u) << size;
    std::memset(dirty, 0xAB, size);
    Free(dirty);
    void* cleared = AllocateCleared(size);
    ASSERT_NE(cleared, nullptr);
    EXPECT_TRUE(AllZero(cleared, size)) << size;
    Free(cleared);
  }
  // A freed small block serves the next request of its size class.
  {
    void* first = Allocate(100);
    Free(first);
    void* second = Allocate(112);
    EXPECT_EQ(first, second);
    Free(second);
  }
  // Blocks in use are distinct, and each keeps its own contents.
  {
    std::vector<unsigned char*> blocks;
    for (int i = 0; i < 300; ++i) {
      blocks.push_back(static_cast<unsigned char*>(Allocate(48)));
      std::memset(blocks.back(), i & 0xFF, 48);
    }
    for (int i = 0; i < 300; ++i) EXPECT_EQ(blocks[i][47], i & 0xFF);
    for (unsigned char* block : blocks) Free(block);
  }
  Free(nullptr);  // ignored
}

TEST(KernelHeap, BlocksCrossThreadsAndAreReleasedAtThreadExit) {
  // Made on one thread, freed on another: each block goes back whole (the address sanitizer
  // build reports any overlap or double release), and a thread's cached blocks are released when
  // it ends, which the leak checker verifies.
  std::vector<void*> blocks(2000, nullptr);
  std::thread maker([&] {
    for (std::size_t i = 0; i < blocks.size(); ++i) blocks[i] = Allocate(16 + (i % 40) * 12);
  });
  maker.join();
  std::thread releaser([&] {
    for (void* block : blocks) Free(block);
    // Reused at once on this thread, then cached again when freed.
    for (int round = 0; round < 3; ++round) {
      std::vector<void*> again;
      for (int i = 0; i < 500; ++i) again.push_back(AllocateCleared(200));
      for (void* block : again) EXPECT_TRUE(AllZero(block, 200));
      for (void* block : again) Free(block);
    }
  });
  releaser.join();
}

class Cell : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.test.interface.cell"};
  using Extends = InterfaceList<>;
  virtual int Get() const noexcept = 0;
  virtual void Set(int value) noexcept = 0;
};

// Cloned by copy constructor, so the memory of a clone is not cleared first.
class CopiedCell final : public Cell {
  TARNI_IMPLEMENTS(CopiedCell, Cell)

 public:
  static constexpr bool kCloneByCopyConstructor = true;
  int Get() const noexcept override { return _value; }
  void Set(int value) noexcept override { _value = value; }
  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CopiedCell>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: not a cell.");
    _value = other->_value;
    return OK;
  }

 private:
  int _value = 0;
};

TEST(CowRef, WritableCopyOfClonesAndLeavesTheSource) {
  CowRef<Cell> source(Ref<Cell>(new CopiedCell()));
  source.MakeWritable().value()->Set(7);
  // The copy is a clone holding the source's state, held once; the source keeps its one holder.
  {
    Result<CowRef<Cell>> copy = CowRef<Cell>::WritableCopyOf(source);
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy.value()->Get(), 7);
    EXPECT_EQ(detail::AsObject(copy.value().Get())->GetRefCount(), 1);
    // Unshared, so writing it changes only the copy.
    Cell* writable = copy.value().MakeWritable().value();
    writable->Set(9);
    EXPECT_EQ(source->Get(), 7);
  }
  // A shared source is cloned all the same, and its holders keep seeing the old state.
  {
    CowRef<Cell> other = source;
    CowRef<Cell> copy = CowRef<Cell>::WritableCopyOf(source).value();
    EXPECT_EQ(detail::AsObject(source.Get())->GetRefCount(), 2);
    copy.MakeWritable().value()->Set(1);
    EXPECT_EQ(other->Get(), 7);
  }
  // No memory for the clone: the copy-on-write error, the source untouched.
  {
    fault::FailNthAllocation(1);
    Result<CowRef<Cell>> copy = CowRef<Cell>::WritableCopyOf(source);
    fault::Disarm();
    ASSERT_FALSE(copy);
    EXPECT_EQ(copy.error().GetMessage(), "Copy-on-write reference could not be made writable.");
    EXPECT_EQ(detail::AsObject(source.Get())->GetRefCount(), 1);
  }
}

TEST(Ref, AdoptAndDetachHandOverOneReference) {
  // A fresh object's first reference is set, not counted up; Detach and Adopt move it without
  // counting, and the last release still frees the object.
  Ref<Cell> first = Ref<Cell>::AdoptNew(new CopiedCell());
  EXPECT_EQ(detail::AsObject(first.Get())->GetRefCount(), 1);
  Ref<Cell> second = first;
  EXPECT_EQ(detail::AsObject(first.Get())->GetRefCount(), 2);
  Cell* raw = second.Detach();
  EXPECT_FALSE(second);
  EXPECT_EQ(detail::AsObject(raw)->GetRefCount(), 2);
  Ref<Cell> adopted = Ref<Cell>::Adopt(raw);
  EXPECT_EQ(detail::AsObject(raw)->GetRefCount(), 2);
  first.Reset();
  EXPECT_EQ(detail::AsObject(adopted.Get())->GetRefCount(), 1);
  EXPECT_FALSE(Ref<Cell>::AdoptNew(nullptr));
}

}  // namespace
}  // namespace tarni
