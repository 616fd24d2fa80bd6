// BaseArray, HashMap and BitSet: order, aliasing, and the state each leaves behind when memory
// runs out (every allocation is made to fail in turn; the asan build checks nothing leaks).
#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/fault_loop.h"
#include "tarni/array.h"
#include "tarni/bitset.h"
#include "tarni/hashmap.h"
#include "tarni/string.h"
#include "tarni/uuid.h"

namespace tarni {
namespace {

using namespace tarni::literals;
using testing::ForEachFailingAllocation;

// Heap strings, so that a lost or doubly released element shows in the sanitizer build.
BaseArray<String> Strings(std::initializer_list<std::string_view> texts) {
  BaseArray<String> list;
  for (std::string_view text : texts) EXPECT_TRUE(list.Append(String::Make(text).value()));
  return list;
}

std::vector<std::string> Texts(const BaseArray<String>& list) {
  std::vector<std::string> texts;
  for (const String& s : list) texts.emplace_back(s.GetView());
  return texts;
}

using TextList = std::vector<std::string>;

TEST(BaseArray, FailedGrowthOrCopyLeavesTheArrayAsDefined) {
  BaseArray<String> list;
  auto reset = [&] { list = Strings({"a", "b", "c", "d"}); };
  const TextList four = {"a", "b", "c", "d"};
  const BaseArray<String> more = Strings({"p", "q", "r"});
  const String x = String::Make("x").value();
  // Every growing edit: out of memory with the four elements kept in order, or the edit done.
  struct Case {
    const char* what;
    std::function<Result<void>()> edit;
    TextList after;  // empty: only the count is checked
    Int count;
  };
  const Case cases[] = {
      {"append", [&] { return list.Append(x); }, {"a", "b", "c", "d", "x"}, 5},
      {"insert", [&] { return list.Insert(1, x); }, {"a", "x", "b", "c", "d"}, 5},
      {"append all", [&] { return list.AppendAll(more.AsSpan()); }, {}, 7},
      {"resize", [&] { return list.Resize(100); }, {}, 100},
      {"ensure capacity", [&] { return list.EnsureCapacity(50); }, four, 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto failures =
        ForEachFailingAllocation(reset, c.edit, [&](const Result<void>& r, bool hit) {
          if (hit) {
            EXPECT_TRUE(r.error().Is(ErrorKind::kOutOfMemory));
            EXPECT_EQ(Texts(list), four);
            return;
          }
          EXPECT_TRUE(r);
          EXPECT_EQ(list.GetCount(), c.count);
          if (!c.after.empty()) {
            EXPECT_EQ(Texts(list), c.after);
          }
        });
    EXPECT_GT(failures, 0);
  }
  EXPECT_GE(list.GetCapacity(), 50);
  // A copy that runs out of memory leaves the array empty; a copy shares the elements' texts.
  const BaseArray<String> source = Strings({"1", "2", "3", "4", "5", "6", "7", "8", "9"});
  const auto failures = ForEachFailingAllocation(
      [&] { list = Strings({"old"}); }, [&] { return ReplaceList(list, source); },
      [&](const Result<void>& r, bool hit) {
        if (hit) {
          EXPECT_TRUE(r.error().Is(ErrorKind::kOutOfMemory));
          EXPECT_TRUE(list.IsEmpty());
        } else {
          EXPECT_EQ(Texts(list), Texts(source));
          EXPECT_TRUE(list[8].SharesData(source[8]));
        }
      });
  EXPECT_GT(failures, 0);
  // Room already there: nothing to allocate, nothing to fail.
  BaseArray<String> roomy;
  ASSERT_TRUE(roomy.EnsureCapacity(20));
  fault::FailAllocationsFrom(1);
  const Result<void> copied = roomy.CopyFrom(source);
  fault::Disarm();
  EXPECT_TRUE(copied);
  EXPECT_EQ(roomy.GetCount(), 9);
}

TEST(BaseArray, SourcesInsideTheArrayItselfAreCopiedSafely) {
  {
    // Replacing a list by itself changes nothing.
    BaseArray<String> list = Strings({"a", "b"});
    ASSERT_TRUE(ReplaceList(list, list));
    EXPECT_EQ(Texts(list), (TextList{"a", "b"}));
  }
  {
    // Replacing a list by part of itself.
    BaseArray<String> list = Strings({"a", "b", "c"});
    ASSERT_TRUE(list.CopyFrom(list.AsSpan().subspan(1)));
    EXPECT_EQ(Texts(list), (TextList{"b", "c"}));
  }
  {
    // Appending its own elements while it has to grow.
    BaseArray<String> list = Strings({"a", "b", "c", "d"});
    ASSERT_EQ(list.GetCount(), list.GetCapacity());
    ASSERT_TRUE(list.Append(list[0]));
    ASSERT_TRUE(list.AppendAll(list.AsSpan()));
    EXPECT_EQ(Texts(list), (TextList{"a", "b", "c", "d", "a", "a", "b", "c", "d", "a"}));
  }
}

TEST(BaseArray, EditsKeepOrderAndRejectBadArguments) {
  BaseArray<String> list = Strings({"a", "b", "c", "d", "e"});
  {
    // Erase keeps the others in order; a count past the end stops at the end.
    list.Erase(1, 2);
    EXPECT_EQ(Texts(list), (TextList{"a", "d", "e"}));
    list.Erase(2, 10);
    EXPECT_EQ(Texts(list), (TextList{"a", "d"}));
    list.Erase(5);
    list.Erase(-1);
    list.Pop();
    EXPECT_EQ(Texts(list), (TextList{"a"}));
  }
  {
    // Inserts at both ends; an index out of range is an illegal argument and changes nothing.
    ASSERT_TRUE(list.Insert(0, "first"_s));
    ASSERT_TRUE(list.Insert(list.GetCount(), "last"_s));
    EXPECT_EQ(Texts(list), (TextList{"first", "a", "last"}));
    auto r = list.Insert(4, "x"_s);
    EXPECT_TRUE(r.error().Is(ErrorKind::kIllegalArgument));
    EXPECT_EQ(r.error().GetMessage(), "Illegal argument: index out of range.");
    EXPECT_EQ(list.GetCount(), 3);
  }
  {
    // A negative count is refused; shrinking destroys, growing value-initialises.
    auto r = list.Resize(-1);
    EXPECT_EQ(r.error().GetMessage(), "Illegal argument: negative array count.");
    ASSERT_TRUE(list.Resize(1));
    EXPECT_EQ(Texts(list), (TextList{"first"}));
    BaseArray<int> numbers;
    ASSERT_TRUE(numbers.Append(7));
    ASSERT_TRUE(numbers.Resize(3));
    numbers[2] = 9;
    ASSERT_TRUE(numbers.Resize(1));
    ASSERT_TRUE(numbers.Resize(3));
    EXPECT_EQ(numbers[0], 7);
    EXPECT_EQ(numbers[2], 0);
  }
  {
    // Flush keeps the memory, Reset frees it.
    const Int capacity = list.GetCapacity();
    list.Flush();
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(list.GetCapacity(), capacity);
    list.Reset();
    EXPECT_EQ(list.GetCapacity(), 0);
  }
}

std::vector<int> Keys(const HashMap<int, int>& map) {
  std::vector<int> keys;
  for (const auto& entry : map) keys.push_back(entry.key);
  return keys;
}

TEST(HashMap, IteratesInInsertionOrderThroughGrowthAndErase) {
  HashMap<int, int> map;
  std::vector<int> expected;
  // Keys in a scrambled order, enough for several rehashes.
  for (int i = 0; i < 200; ++i) {
    const int key = (i * 7919) % 1000 - 500;
    ASSERT_TRUE(map.Insert(key, i));
    expected.push_back(key);
  }
  EXPECT_EQ(Keys(map), expected);

  // Replacing a value keeps the entry's place.
  ASSERT_TRUE(map.Insert(expected[3], -1));
  EXPECT_EQ(Keys(map), expected);
  EXPECT_EQ(*map.Find(expected[3]), -1);

  // Erasing every third entry keeps the order of the rest, and each remains findable.
  std::vector<int> kept;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (i % 3 == 0)
      EXPECT_TRUE(map.Erase(expected[i]));
    else
      kept.push_back(expected[i]);
  }
  EXPECT_FALSE(map.Erase(expected[0]));
  EXPECT_EQ(Keys(map), kept);
  for (std::size_t i = 0; i < expected.size(); ++i)
    EXPECT_EQ(map.Find(expected[i]) != nullptr, i % 3 != 0) << expected[i];

  // A key inserted again goes last.
  bool created = false;
  auto entry = map.FindOrInsert(expected[0], &created);
  ASSERT_TRUE(entry);
  EXPECT_TRUE(created);
  EXPECT_EQ(entry.value()->value, 0);
  kept.push_back(expected[0]);
  EXPECT_EQ(Keys(map), kept);
  ASSERT_TRUE(map.FindOrInsert(expected[0], &created));
  EXPECT_FALSE(created);

  // Flush empties and the map works on.
  map.Flush();
  EXPECT_TRUE(map.IsEmpty());
  EXPECT_EQ(map.Find(kept[0]), nullptr);
  ASSERT_TRUE(map.Insert(5, 6));
  EXPECT_EQ(Keys(map), (std::vector<int>{5}));
}

TEST(HashMap, UuidKeysCompareByValue) {
  // The empty Uuid and the nil value are one key.
  HashMap<Uuid, int> map;
  ASSERT_TRUE(map.Insert(Uuid::Make(1, 2).value(), 12));
  ASSERT_TRUE(map.Insert(Uuid(), 0));
  EXPECT_EQ(*map.Find(Uuid::Make(1, 2).value()), 12);
  ASSERT_NE(map.Find(Uuid::Make(0, 0).value()), nullptr);
  EXPECT_EQ(map.Find(Uuid::Make(2, 1).value()), nullptr);
}

TEST(HashMap, FailedGrowthLeavesTheMapUnchanged) {
  HashMap<String, String> map;
  auto fill = [&] {
    map.Reset();
    for (const char* key : {"a", "b", "c", "d"})
      ASSERT_TRUE(map.Insert(String::Make(key).value(), String::Make(key).value()));
  };
  HashMap<String, String> source;
  for (const char* key : {"x", "y", "z", "w", "v", "u"})
    ASSERT_TRUE(source.Insert(String::Make(key).value(), "1"_s));
  // The fifth entry needs a larger table and a larger entry list; a copy needs both anew.
  bool created = false;
  struct Case {
    const char* what;
    std::function<Result<void>()> edit;
    Int count;
  };
  const Case cases[] = {
      {"find or insert", [&]() -> Result<void> { return map.FindOrInsert("e"_s, &created); }, 5},
      {"copy", [&] { return map.CopyFrom(source); }, 6},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto failures =
        ForEachFailingAllocation(fill, c.edit, [&](const Result<void>& r, bool hit) {
          if (!hit) {
            EXPECT_TRUE(r);
            EXPECT_EQ(map.GetCount(), c.count);
            EXPECT_EQ(map.Find("a"_s) == nullptr, c.count == 6);
            return;
          }
          EXPECT_TRUE(r.error().Is(ErrorKind::kOutOfMemory));
          std::vector<std::string> keys;
          for (const auto& entry : map) {
            keys.emplace_back(entry.key.GetView());
            EXPECT_EQ(map.Find(entry.key), &entry.value);
          }
          EXPECT_EQ(keys, (TextList{"a", "b", "c", "d"}));
        });
    EXPECT_GE(failures, 2);
  }
  EXPECT_TRUE(created);
  ASSERT_TRUE(map.CopyFrom(map));
  EXPECT_EQ(map.GetCount(), 6);
}

TEST(BitSet, StoresBitsWithinItsWordsOnly) {
  BitSet bits;
  {
    // Init fails only for memory, and then the set keeps what it had.
    ASSERT_TRUE(bits.Init(1));
    bits.Set(3, true);
    ForEachFailingAllocation([] {}, [&] { return bits.Init(4); },
                             [&](const Result<void>& r, bool hit) {
                               if (hit) {
                                 EXPECT_TRUE(r.error().Is(ErrorKind::kOutOfMemory));
                                 EXPECT_EQ(bits.GetWordCount(), 1);
                               }
                             });
    EXPECT_EQ(bits.GetWordCount(), 4);
    // Init clears every word.
    EXPECT_FALSE(bits.Get(3));
  }
  {
    // Word boundaries: bit 63 is the top of word 0, bit 64 the bottom of word 1.
    bits.Set(0, true);
    bits.Set(63, true);
    bits.Set(64, true);
    EXPECT_EQ(bits.GetWord(0), 0x8000000000000001u);
    EXPECT_EQ(bits.GetWord(1), 1u);
  }
  {
    // Past the words: reads are clear, writes are ignored (and touch nothing: asan).
    bits.Set(256, true);
    bits.Set(~std::uint64_t{0}, true);
    EXPECT_FALSE(bits.Get(256));
    EXPECT_FALSE(bits.Get(~std::uint64_t{0}));
    EXPECT_EQ(bits.GetWordCount(), 4);
  }
  {
    // A failed copy leaves the set empty.
    BitSet copy;
    ASSERT_TRUE(copy.Init(1));
    fault::FailNthAllocation(1);
    const Result<void> r = copy.CopyFrom(bits);
    fault::Disarm();
    EXPECT_TRUE(r.error().Is(ErrorKind::kOutOfMemory));
    EXPECT_EQ(copy.GetWordCount(), 0);
    ASSERT_TRUE(copy.CopyFrom(bits));
    EXPECT_EQ(copy.GetWord(1), 1u);
  }
}

}  // namespace
}  // namespace tarni
