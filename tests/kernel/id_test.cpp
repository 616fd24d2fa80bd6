// Identifier hash words: the rule the framework compares ids by, checked against an independent
// computation for every id the module hands over.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "tarni/classes.h"
#include "tarni/hashmap.h"
#include "tarni/id.h"
#include "tarni/internedid.h"
#include "tarni/module.h"

namespace tarni::ca {
const ModuleBlock& GetModuleBlock() noexcept;
}

namespace tarni {
namespace {

// The hash word written out step by step, sharing no code with the kernel.
std::uint64_t ReferenceWord(std::string_view text) {
  std::uint64_t polynomial = 0;
  for (unsigned char byte : text) polynomial = polynomial * 31 + byte;
  const std::uint64_t low43 = polynomial % (std::uint64_t{1} << 43);
  return (static_cast<std::uint64_t>(text.size()) << 44) + low43;
}

constexpr std::uint64_t kBit43 = std::uint64_t{1} << 43;

// Literal ids get their word at compile time; these fail the build if the rule drifts.
static_assert(Id("abc").GetHash() == 0x300000017862);
static_assert(Id("").GetHash() == 0);
// "aaaaaaaaa" (found by search) has polynomial hash 0x4dc040870fe1, bit 43 set.
static_assert((PolynomialHash("aaaaaaaaa") & kBit43) != 0);
static_assert(Id("aaaaaaaaa").GetHash() == 0x95c040870fe1);

TEST(IdHashWord, FollowsTheLengthAndLow43BitsRule) {
  // The reference computation agrees with the documented example.
  EXPECT_EQ(ReferenceWord("abc"), 0x300000017862u);
  {
    // Texts whose polynomial hash has bit 43 set still carry 0 there, the module id among them.
    for (std::string_view text : {"aaaaaaaaa", "net.tarni.ca", ".reflection"}) {
      SCOPED_TRACE(std::string(text));
      ASSERT_NE(PolynomialHash(text) & kBit43, 0u);
      EXPECT_EQ(IdHashWord(text) & kBit43, 0u);
      EXPECT_EQ(IdHashWord(text), ReferenceWord(text));
    }
  }
  {
    // A long text: the length field is the byte count, the hash wraps in 64 bits.
    const std::string longText(5000, 'q');
    EXPECT_EQ(IdHashWord(longText), ReferenceWord(longText));
    EXPECT_EQ(IdHashWord(longText) >> 44, 5000u);
  }
  {
    // The compile-time word equals the one computed at run time from a copy of the text.
    constexpr Id kPose{"net.tarni.animation.class.characterpose"};
    const std::string copy(kPose.GetText());
    EXPECT_EQ(Id::FromText(copy).GetHash(), kPose.GetHash());
  }
}

TEST(IdHashWord, EveryModuleIdFollowsTheRule) {
  const ModuleBlock& block = ca::GetModuleBlock();
  EXPECT_EQ(block.moduleId.GetHash(), ReferenceWord("net.tarni.ca"));
  EXPECT_EQ(block.hostModuleId.GetHash(), ReferenceWord("net.tarni.kernel"));
  ASSERT_GT(block.registrationCount, 0);
  for (std::int64_t i = 0; i < block.registrationCount; ++i) {
    const Id& id = block.registrations[i].id;
    SCOPED_TRACE(std::string(id.GetText()));
    EXPECT_EQ(id.GetHash(), ReferenceWord(id.GetText()));
    // Registered classes carry the same word in their records, and so do their interface ids.
    if (const ClassInfo* info = FindClass(id)) {
      EXPECT_EQ(info->GetId().GetHash(), ReferenceWord(info->GetId().GetText()));
      for (const Id& interfaceId : info->GetRecord().interfaces)
        EXPECT_EQ(interfaceId.GetHash(), ReferenceWord(interfaceId.GetText()));
      for (const Id& base : info->GetRecord().baseClasses)
        EXPECT_EQ(base.GetHash(), ReferenceWord(base.GetText()));
    }
  }
}

TEST(Id, EqualByTextWhateverItsStorageNotJustByWord) {
  // In constant evaluation, and at run time for one text object or two copies of a text.
  static_assert(Id("net.tarni.a") == Id("net.tarni.a"));
  static_assert(!(Id("net.tarni.a") == Id("net.tarni.b")));
  const char first[] = "net.tarni.cell";
  const char second[] = "net.tarni.cell";
  EXPECT_TRUE(Id::FromText(first) == Id::FromText(first));
  EXPECT_TRUE(Id::FromText(first) == Id::FromText(second));
  // The same storage seen with another length is another id.
  EXPECT_FALSE(Id::FromText(std::string_view(first, 9)) == Id::FromText(first));
  // "Aa" and "BB" have the same length and polynomial hash (65 * 31 + 97 == 66 * 31 + 66): a map
  // keyed by ids keeps them apart although they land in the same slot.
  const Id aa = Id::FromText("Aa");
  const Id bb = Id::FromText("BB");
  ASSERT_EQ(aa.GetHash(), bb.GetHash());
  EXPECT_FALSE(aa == bb);
  HashMap<Id, int> map;
  ASSERT_TRUE(map.Insert(aa, 1));
  ASSERT_TRUE(map.Insert(bb, 2));
  EXPECT_EQ(*map.Find(aa), 1);
  EXPECT_EQ(*map.Find(bb), 2);
}

TEST(InternedId, CarriesTheIdHashWord) {
  auto module = InternedId::Make("net.tarni.ca");
  ASSERT_TRUE(module);
  EXPECT_EQ(module->GetHashWord(), ReferenceWord("net.tarni.ca"));
  // The map hasher uses the word with bit 43 cleared: the word itself.
  EXPECT_EQ(Hasher<InternedId>{}(module.value()), module->GetHashWord());
  EXPECT_EQ(InternedId().GetHashWord(), 0u);
}

}  // namespace
}  // namespace tarni
