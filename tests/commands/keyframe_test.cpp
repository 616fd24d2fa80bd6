// The keyframe data type as the host reaches it: through the data-type registry.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tarni/datatype.h"
#include "tarni/debug.h"
#include "tarni/keyframe.h"

namespace tarni {
namespace {

const DataTypeOperations& KeyOps() {
  const DataType* type = FindDataType(kKeyframeDataTypeId);
  EXPECT_NE(type, nullptr);
  EXPECT_STREQ(type->name, "tarni::Key");
  EXPECT_EQ(type->size, 28);
  return type->operations;
}

// A key whose words are all different, with flag bits no command knows.
Key OddKey(std::uint32_t flags, float base) {
  Key key;
  key.flags = flags;
  key.position = {base, base + 0.5f};
  key.leftTangent = {base + 1.0f, -base};
  key.rightTangent = {1e-30f, base * 3.0f};
  return key;
}

bool SameBits(const Key& a, const Key& b) { return std::memcmp(&a, &b, sizeof(Key)) == 0; }

Key KeyAt(const unsigned char* bytes) {
  Key key;
  std::memcpy(&key, bytes, sizeof(Key));
  return key;
}

// Flags 0 and every coordinate -1: the key no handle was ever set on.
bool IsDefault(const Key& key) {
  const float minusOne[6] = {-1.0f, -1.0f, -1.0f, -1.0f, -1.0f, -1.0f};
  std::uint32_t flags = 1;
  std::memcpy(&flags, &key, sizeof flags);
  return flags == 0 &&
         std::memcmp(reinterpret_cast<const char*>(&key) + 4, minusOne, sizeof minusOne) == 0;
}

TEST(KeyframeDataType, ConstructsCopiesAndMovesKeysAtAnyStride) {
  const DataTypeOperations& ops = KeyOps();
  const Key source[3] = {OddKey(0xFFFFFFFFu, 1.0f), OddKey(0x80000001u, -2.0f),
                         OddKey(0x04004C02u, 3.25f)};
  // Over garbage, with a stride wider than a key: default keys, padding untouched; arrays too.
  {
    unsigned char buffer[3 * 40];
    std::memset(buffer, 0xAB, sizeof(buffer));
    ops.construct(buffer, 40, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(IsDefault(KeyAt(buffer + i * 40))) << i;
    EXPECT_EQ(buffer[28], 0xAB);
  }
  // Equal strides copy one block; different strides element by element, the padding untouched.
  {
    Key copy[3];
    ops.copyConstruct(copy, 28, source, 28, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(copy[i], source[i])) << i;
    unsigned char wide[3 * 32];
    std::memset(wide, 0x5A, sizeof(wide));
    ops.copyConstruct(wide, 32, source, 28, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(KeyAt(wide + i * 32), source[i])) << i;
    EXPECT_EQ(wide[28], 0x5A);
    Key back[3];
    ops.copyAssign(back, 28, wide, 32, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(back[i], source[i])) << i;
  }
  // Overlapping moves up and down, block and strided: every key arrives intact.
  {
    Key keys[5];
    for (int i = 0; i < 3; ++i) keys[i] = source[i];
    ops.move(&keys[2], 28, &keys[0], 28, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(keys[2 + i], source[i])) << i;
    ops.move(&keys[0], 28, &keys[2], 28, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(keys[i], source[i])) << i;
    // Same stride but not the key's size, one element up: a forward copy would overwrite key 1.
    unsigned char bytes[4 * 36] = {};
    for (int i = 0; i < 3; ++i) std::memcpy(bytes + i * 36, &source[i], sizeof(Key));
    ops.move(bytes + 36, 36, bytes, 36, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(KeyAt(bytes + (i + 1) * 36), source[i])) << i;
    ops.move(bytes, 36, bytes + 36, 36, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(KeyAt(bytes + i * 36), source[i])) << i;
  }
  // Heap keys: new, copy, move (the source left empty), free.
  {
    void* fresh = ops.heapNew();
    ASSERT_NE(fresh, nullptr);
    EXPECT_TRUE(IsDefault(*static_cast<Key*>(fresh)));
    void* copy = ops.heapCopy(&source[0]);
    ops.heapMove(&fresh, &copy);
    EXPECT_EQ(copy, nullptr);
    EXPECT_TRUE(SameBits(*static_cast<Key*>(fresh), source[0]));
    ops.heapFree(fresh);
  }
}

void CollectLine(std::string_view line, void* user) {
  static_cast<std::vector<std::string>*>(user)->emplace_back(line);
}

TEST(KeyframeDataType, PrintsItsTangentsAndStopsOnComparing) {
  const DataTypeOperations& ops = KeyOps();
  // Left tangent, position, right tangent, each "(x,y)" in the shortest float text.
  {
    TextBuilder out;
    Key key;
    key.position = {0.1f, 2.0f};
    key.leftTangent = {-0.25f, 1e-07f};
    key.rightTangent = {3.0f, -4.5f};
    ops.toString(out, &key, nullptr);
    EXPECT_EQ(out.GetView(), "((-0.25,1e-07), (0.1,2), (3,-4.5))");
  }
  // There is no equality, order or hash: even equal keys stop with a message each.
  std::vector<std::string> lines;
  SetDebugSink(&CollectLine, &lines);
  const Key a;
  const Key b = a;
  EXPECT_FALSE(ops.isEqual(&a, &b));
  EXPECT_EQ(ops.compare(&a, &b), CompareResult::kIncomparable);
  EXPECT_EQ(ops.getHashCode(&a), 0u);
  EXPECT_EQ(ops.getUniqueHashCode(&a), UniqueHash{});
  SetDebugSink(nullptr, nullptr);
  ASSERT_EQ(lines.size(), 4u);
  const char* messages[] = {"IsEqual", "Compare", "GetHashCode", "GetUniqueHashCode"};
  for (int i = 0; i < 4; ++i) {
    const std::string expected =
        std::string("CRITICAL: Stop: ") + messages[i] + " not defined. [compare(";
    EXPECT_EQ(lines[i].substr(0, expected.size()), expected);
    EXPECT_EQ(lines[i].back(), ']');
  }
}

}  // namespace
}  // namespace tarni
