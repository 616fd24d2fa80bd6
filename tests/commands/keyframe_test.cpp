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

const DataType& KeyType() {
  const DataType* type = FindDataType(kKeyframeDataTypeId);
  EXPECT_NE(type, nullptr);
  return *type;
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

bool IsDefault(const Key& key) {
  const Key expected;
  return key.flags == 0 && key.position.x == -1.0f && key.position.y == -1.0f &&
         key.leftTangent.x == -1.0f && key.leftTangent.y == -1.0f && key.rightTangent.x == -1.0f &&
         key.rightTangent.y == -1.0f && SameBits(key, expected);
}

Key KeyAt(const unsigned char* bytes) {
  Key key;
  std::memcpy(&key, bytes, sizeof(Key));
  return key;
}

TEST(KeyframeDataType, ConstructsDefaultKeysAtAnyStride) {
  const DataType& type = KeyType();
  EXPECT_STREQ(type.name, "tarni::Key");
  EXPECT_EQ(type.size, 28);

  // Over garbage, with a stride wider than a key: default keys, padding untouched.
  unsigned char buffer[3 * 40];
  std::memset(buffer, 0xAB, sizeof(buffer));
  type.operations.construct(buffer, 40, 3);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(IsDefault(KeyAt(buffer + i * 40))) << i;
  EXPECT_EQ(buffer[28], 0xAB);
  EXPECT_EQ(buffer[39], 0xAB);

  // Keys the framework's arrays make are default keys too.
  KeyArray keys;
  ASSERT_TRUE(keys.Resize(2));
  EXPECT_TRUE(IsDefault(keys[0]));
  EXPECT_TRUE(IsDefault(keys[1]));
}

TEST(KeyframeDataType, CopiesAndMovesWordsBitForBit) {
  const DataTypeOperations& ops = KeyType().operations;
  const Key source[3] = {OddKey(0xFFFFFFFFu, 1.0f), OddKey(0x80000001u, -2.0f),
                         OddKey(0x04004C02u, 3.25f)};

  // Equal strides: one block.
  {
    Key copy[3];
    ops.copyConstruct(copy, 28, source, 28, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(copy[i], source[i])) << i;
    Key assigned[3];
    ops.copyAssign(assigned, 28, source, 28, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(assigned[i], source[i])) << i;
  }
  // Different strides: element by element, padding of the wider side untouched.
  {
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
    ops.move(&keys[2], 28, &keys[0], 28, 3);  // destination above the source
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(keys[2 + i], source[i])) << i;
    ops.move(&keys[0], 28, &keys[2], 28, 3);  // destination below
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(keys[i], source[i])) << i;

    unsigned char bytes[4 * 36] = {};
    for (int i = 0; i < 3; ++i) std::memcpy(bytes + i * 36, &source[i], sizeof(Key));
    // Same stride but not the key's size, destination one element up: a forward element copy
    // would overwrite key 1 with key 0 before moving it.
    ops.move(bytes + 36, 36, bytes, 36, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(KeyAt(bytes + (i + 1) * 36), source[i])) << i;
    ops.move(bytes, 36, bytes + 36, 36, 3);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(SameBits(KeyAt(bytes + i * 36), source[i])) << i;
  }
}

TEST(KeyframeDataType, HeapKeysAndText) {
  const DataTypeOperations& ops = KeyType().operations;
  // New, copy, move (the destination's key is freed, the source left empty), free.
  {
    void* fresh = ops.heapNew();
    ASSERT_NE(fresh, nullptr);
    EXPECT_TRUE(IsDefault(*static_cast<Key*>(fresh)));
    const Key odd = OddKey(0x12345678u, 7.0f);
    void* copy = ops.heapCopy(&odd);
    ASSERT_NE(copy, nullptr);
    EXPECT_TRUE(SameBits(*static_cast<Key*>(copy), odd));
    ops.heapMove(&fresh, &copy);
    EXPECT_EQ(copy, nullptr);
    EXPECT_TRUE(SameBits(*static_cast<Key*>(fresh), odd));
    ops.heapFree(fresh);
    ops.heapFree(nullptr);
  }
  // Left tangent, position, right tangent, each "(x,y)" in the shortest float text.
  {
    TextBuilder out;
    const Key key;
    ops.toString(out, &key, nullptr);
    EXPECT_EQ(out.GetView(), "((-1,-1), (-1,-1), (-1,-1))");
  }
  {
    TextBuilder out;
    Key key;
    key.position = {0.1f, 2.0f};
    key.leftTangent = {-0.25f, 1e-07f};
    key.rightTangent = {3.0f, -4.5f};
    ops.toString(out, &key, nullptr);
    EXPECT_EQ(out.GetView(), "((-0.25,1e-07), (0.1,2), (3,-4.5))");
  }
}

void CollectLine(std::string_view line, void* user) {
  static_cast<std::vector<std::string>*>(user)->emplace_back(line);
}

TEST(KeyframeDataType, ComparingOrHashingStopsAndReportsNothingUseful) {
  const DataTypeOperations& ops = KeyType().operations;
  std::vector<std::string> lines;
  SetDebugSink(&CollectLine, &lines);
  const Key a;
  const Key b = a;  // even equal keys are not "equal": there is no equality
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
