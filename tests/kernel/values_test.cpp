// Uuid and InternedId: value semantics, text forms, interning across threads, and their failures
// when memory runs out.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "kernel/fault_loop.h"
#include "tarni/internedid.h"
#include "tarni/uuid.h"

namespace tarni {
namespace {

using testing::ForEachFailingAllocation;

constexpr std::string_view kNilText = "00000000-0000-0000-0000-000000000000";

std::string Text(const Uuid& uuid) { return std::string(uuid.ToString().GetView()); }

TEST(Uuid, ComparesByValueAndTheEmptyUuidIsNil) {
  const Uuid a = Uuid::Make(1, 2).value();
  const Uuid b = Uuid::Make(1, 2).value();
  {
    // Equal values in separate data; copies share the data.
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a.SharesData(b));
    EXPECT_FALSE(a == Uuid::Make(2, 1).value());
    EXPECT_EQ(a.GetHashCode(), b.GetHashCode());
  }
  {
    // The empty Uuid has no data, yet equals, hashes and prints as the nil value.
    const Uuid empty;
    const Uuid nil = Uuid::Make(0, 0).value();
    EXPECT_FALSE(empty.HasData());
    EXPECT_TRUE(empty == nil);
    EXPECT_EQ(empty.GetHashCode(), nil.GetHashCode());
    EXPECT_EQ(Text(empty), kNilText);
  }
  {
    // Assignment over the last reference releases it; moving empties the source.
    Uuid c = Uuid::Make(5, 6).value();
    c = a;
    EXPECT_TRUE(c.SharesData(a));
    Uuid d = std::move(c);
    EXPECT_FALSE(c.HasData());
    EXPECT_TRUE(d == a);
  }
}

// Tables take a Uuid's slot from the low bits of its hash. Ids made from counters (a fixed high
// word, a running low word) must spread over the slots, or every lookup probes a long run.
TEST(Uuid, CounterIdsSpreadOverTheLowBitsOfTheirHash) {
  for (const std::uint64_t high : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{2}}) {
    bool used[64] = {};
    int distinct = 0;
    for (std::uint64_t low = 1; low <= 64; ++low) {
      const std::uint64_t slot = Uuid::Make(high, low).value().GetHashCode() & 63;
      if (!used[slot]) ++distinct;
      used[slot] = true;
    }
    // 64 random keys in 64 slots fill about 40 of them.
    EXPECT_GE(distinct, 32) << "high word " << high;
  }
}

TEST(Uuid, TextParsesBackToTheSameValue) {
  {
    // Every nibble in place, lower case, dashes after 8, 12, 16 and 20 digits.
    const Uuid id = Uuid::Make(0x0123456789ABCDEFull, 0xFEDCBA9876543210ull).value();
    EXPECT_EQ(Text(id), "01234567-89ab-cdef-fedc-ba9876543210");
    const Uuid back = Uuid::Parse(Text(id)).value();
    EXPECT_TRUE(back == id);
  }
  {
    // Braces and capitals are accepted.
    const Uuid id = Uuid::Parse("{01234567-89AB-CDEF-FEDC-BA9876543210}").value();
    EXPECT_EQ(Text(id), "01234567-89ab-cdef-fedc-ba9876543210");
  }
  {
    // Malformed texts are illegal arguments.
    for (std::string_view bad :
         {"", "01234567-89ab-cdef-fedc-ba987654321", "01234567-89ab-cdef-fedc-ba98765432100",
          "0123456789ab-cdef-fedc-ba9876543210-", "01234567-89ab-cdef-fedc-ba987654321g",
          "{01234567-89ab-cdef-fedc-ba9876543210", "(01234567-89ab-cdef-fedc-ba9876543210)"}) {
      SCOPED_TRACE(std::string(bad));
      auto parsed = Uuid::Parse(bad);
      ASSERT_FALSE(parsed);
      EXPECT_TRUE(parsed.error().Is(ErrorKind::kIllegalArgument));
      EXPECT_EQ(parsed.error().GetMessage(), "Illegal argument: malformed Uuid text.");
    }
  }
  {
    // Generated ids are version 4, variant 1, and differ.
    const Uuid g1 = Uuid::Generate().value();
    const Uuid g2 = Uuid::Generate().value();
    EXPECT_FALSE(g1 == g2);
    for (const Uuid* g : {&g1, &g2}) {
      EXPECT_EQ((g->GetHigh() >> 12) & 0xF, 4u);
      EXPECT_EQ(g->GetLow() >> 62, 2u);
      EXPECT_TRUE(Uuid::Parse(Text(*g)).value() == *g);
    }
  }
}

TEST(InternedId, EqualTextsAreOneObject) {
  {
    // Same text, same object, however the text was made; other texts differ.
    const std::string text = "net.tarni.bodypart.leftarm";
    const InternedId a = InternedId::Make(text).value();
    const InternedId b = InternedId::Make(std::string(text)).value();
    EXPECT_TRUE(a == b);
    EXPECT_EQ(a.GetText().data(), b.GetText().data());
    EXPECT_FALSE(a == InternedId::Make("net.tarni.bodypart.rightarm").value());
    // Case matters.
    EXPECT_FALSE(a == InternedId::Make("net.tarni.bodypart.LeftArm").value());
  }
  {
    // The empty text is the empty identifier.
    const InternedId empty = InternedId::Make("").value();
    EXPECT_TRUE(empty.IsEmpty());
    EXPECT_TRUE(empty == InternedId());
  }
}

TEST(InternedId, ThreadsInterningAtOnceGetOneObjectPerText) {
  constexpr int kThreads = 8;
  constexpr int kTexts = 300;
  // seen[t][n]: what thread t got for text n; each thread walks the texts in its own order.
  std::vector<std::vector<InternedId>> seen(kThreads, std::vector<InternedId>(kTexts));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &seen] {
      for (int i = 0; i < kTexts; ++i) {
        const int n = (i * 7 + t * 31) % kTexts;
        auto id = InternedId::Make("threaded.bone." + std::to_string(n));
        if (id) seen[t][n] = id.value();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int n = 0; n < kTexts; ++n) {
    const InternedId expected = InternedId::Make("threaded.bone." + std::to_string(n)).value();
    for (int t = 0; t < kThreads; ++t)
      EXPECT_TRUE(seen[t][n] == expected) << "thread " << t << " text " << n;
  }
}

TEST(InternedId, FailedInterningLeavesNoEntryBehind) {
  // Enough new texts that the table has to grow while allocations fail.
  for (int round = 0; round < 40; ++round) {
    const std::string text = "fault.probe." + std::to_string(round);
    ForEachFailingAllocation([] {}, [&] { return InternedId::Make(text); },
                             [&](const Result<InternedId>& r, bool hit) {
                               if (hit) {
                                 EXPECT_TRUE(r.error().Is(ErrorKind::kOutOfMemory));
                               } else {
                                 ASSERT_TRUE(r);
                                 EXPECT_EQ(r->GetText(), text);
                               }
                             });
    EXPECT_TRUE(InternedId::Make(text).value() == InternedId::Make(text).value());
  }
}

}  // namespace
}  // namespace tarni
