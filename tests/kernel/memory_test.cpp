// The kernel heap and its fault injection, which every out-of-memory test relies on; and the
// geometric value types' product order.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "tarni/math.h"
#include "tarni/memory.h"

namespace tarni {
namespace {

TEST(KernelHeap, AllocatesClearsAndInjectsFaults) {
  {
    // Size 0 still gives distinct blocks.
    void* a = Allocate(0);
    void* b = Allocate(0);
    ASSERT_NE(a, nullptr);
    EXPECT_NE(a, b);
    Free(a);
    Free(b);
  }
  {
    // The n-th allocation fails once; the ones before and after succeed. The cache is warm, so
    // recycled blocks must count as allocations too.
    for (int i = 0; i < 4; ++i) Free(Allocate(8));
    fault::FailNthAllocation(2);
    void* first = Allocate(8);
    EXPECT_FALSE(fault::Triggered());
    void* second = Allocate(8);
    void* third = New<std::int64_t>(5);
    fault::Disarm();
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(*static_cast<std::int64_t*>(third), 5);
    EXPECT_TRUE(fault::Triggered());
    EXPECT_EQ(fault::AllocationCount(), 3);
    Free(first);
    Delete(static_cast<std::int64_t*>(third));
  }
  {
    // From the n-th on, every allocation fails until disarmed.
    fault::FailAllocationsFrom(2);
    void* first = Allocate(8);
    void* second = AllocateCleared(8);
    void* third = Allocate(8);
    fault::Disarm();
    void* after = Allocate(8);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(third, nullptr);
    EXPECT_NE(after, nullptr);
    Free(first);
    Free(after);
  }
  {
    // A count of 0 or less arms nothing; re-arming clears the last trigger.
    fault::FailNthAllocation(0);
    void* block = Allocate(8);
    fault::Disarm();
    EXPECT_NE(block, nullptr);
    Free(block);
  }
}

TEST(Matrix, ProductAppliesTheRightFactorFirst) {
  Matrix move;
  move.off = {10, 0, 0};
  Matrix scale;
  scale.v1 = {2, 0, 0};
  scale.v2 = {0, 3, 0};
  scale.v3 = {0, 0, 4};
  const Vector p{1, 1, 1};
  // move * scale: scaled first, then moved.
  EXPECT_EQ(TransformPoint(move * scale, p), (Vector{12, 3, 4}));
  // scale * move: moved first, then scaled (the offset is scaled too).
  EXPECT_EQ(TransformPoint(scale * move, p), (Vector{22, 3, 4}));
  // Directions ignore the offset; the identity is neutral on both sides.
  EXPECT_EQ(TransformVector(move * scale, p), (Vector{2, 3, 4}));
  EXPECT_EQ(Cross(Vector{1, 0, 0}, Vector{0, 1, 0}), (Vector{0, 0, 1}));
}

}  // namespace
}  // namespace tarni
