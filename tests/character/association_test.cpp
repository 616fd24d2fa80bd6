// Character association: the two symmetric tables, their errors and dump, as the retarget helper
// and a host use them.
#include <gtest/gtest.h>

#include <string>

#include "tarni/characterassociation.h"

namespace tarni {
namespace {

using namespace tarni::literals;

constexpr std::string_view kInvalidKey =
    "Illegal argument: Source or Target doesn't have a valid Uuid";
constexpr std::string_view kNoValue = "No value associated to this Uuid";

Uuid U(std::uint64_t low) { return Uuid::Make(0, low).value(); }
InternedId Ident(std::string_view text) { return InternedId::Make(text).value(); }

CharacterAssociationRef MakeAssociation() {
  auto created = CreateObject<CharacterAssociation>(CharacterAssociation::kClassId);
  EXPECT_TRUE(created);
  return CharacterAssociationRef(created.value());
}
CharacterAssociation& Write(CharacterAssociationRef& ref) { return *ref.MakeWritable().value(); }

std::uint64_t LowOf(const Result<Uuid>& found) {
  EXPECT_TRUE(found) << found.error().GetMessage();
  return found ? found.value().GetLow() : ~std::uint64_t{0};
}

void ExpectIllegalArgument(const Error& error, std::string_view message) {
  EXPECT_TRUE(error.Is(ErrorKind::kIllegalArgument));
  EXPECT_EQ(error.GetMessage(), message);
  EXPECT_EQ(error.GetUnit(), "characterassociation_impl");
}

TEST(CharacterAssociation, UuidTableIsSymmetricAndKeepsStaleReverseEntries) {
  CharacterAssociationRef association = MakeAssociation();
  CharacterAssociation& table = Write(association);
  const Uuid a = U(1), b = U(2), c = U(3);
  {
    // Both directions answer.
    ASSERT_TRUE(table.AssociateUuid(a, b));
    EXPECT_EQ(LowOf(table.GetAssociatedUuid(a)), 2u);
    EXPECT_EQ(LowOf(table.GetAssociatedUuid(b)), 1u);
    // The answer shares the stored id data and is found by value, not by object.
    EXPECT_TRUE(table.GetAssociatedUuid(U(1)).value().SharesData(b));
  }
  {
    // Re-associating a replaces a's value; b's entry still points at a.
    ASSERT_TRUE(table.AssociateUuid(a, c));
    EXPECT_EQ(LowOf(table.GetAssociatedUuid(a)), 3u);
    EXPECT_EQ(LowOf(table.GetAssociatedUuid(c)), 1u);
    EXPECT_EQ(LowOf(table.GetAssociatedUuid(b)), 1u);
  }
  {
    // A node associated with itself has one entry.
    CharacterAssociationRef self = MakeAssociation();
    ASSERT_TRUE(Write(self).AssociateUuid(a, a));
    EXPECT_EQ(LowOf(self->GetAssociatedUuid(a)), 1u);
    EXPECT_EQ(self->ToString().GetView(),
              "Uuid Association Table : \n"
              "{00000000-0000-0000-0000-000000000001->00000000-0000-0000-0000-000000000001}"
              "InternedId Association Table : \n{}");
  }
}

TEST(CharacterAssociation, RejectsEmptyKeysAndReportsMissesWithFixedTexts) {
  CharacterAssociationRef association = MakeAssociation();
  CharacterAssociation& table = Write(association);
  const std::string fresh(association->ToString().GetView());
  {
    // No data and the nil value are both empty; nothing is stored.
    ExpectIllegalArgument(table.AssociateUuid(Uuid(), U(1)).error(), kInvalidKey);
    ExpectIllegalArgument(table.AssociateUuid(U(1), Uuid::Make(0, 0).value()).error(), kInvalidKey);
    EXPECT_EQ(association->ToString().GetView(), fresh);
  }
  {
    // Identifiers deliberately share the Uuid texts.
    ExpectIllegalArgument(table.AssociateId(Ident("arm"), InternedId()).error(), kInvalidKey);
    ExpectIllegalArgument(table.GetAssociatedId(Ident("arm")).error(), kNoValue);
    ExpectIllegalArgument(table.GetAssociatedUuid(U(9)).error(), kNoValue);
    EXPECT_EQ(association->ToString().GetView(), fresh);
  }
  {
    // The Uuid and identifier tables are apart.
    ASSERT_TRUE(table.AssociateId(Ident("arm"), Ident("bras")));
    EXPECT_EQ(table.GetAssociatedId(Ident("bras")).value(), Ident("arm"));
    EXPECT_FALSE(table.GetAssociatedUuid(U(1)));
  }
}

TEST(CharacterAssociation, AssociatesBodyPartsByIdentifierOnly) {
  CharacterAssociationRef association = MakeAssociation();
  CharacterAssociation& table = Write(association);
  CharacterBodyPartRef source = CreateBodyPart(Ident("leftarm"), "Left Arm"_s).value();
  CharacterBodyPartRef target = CreateBodyPart(Ident("arm_l"), "Arm L"_s).value();
  BaseArray<Uuid> skeleton;
  ASSERT_TRUE(skeleton.Append(U(5)));
  ASSERT_TRUE(source->SetSkeleton(skeleton));
  ASSERT_TRUE(table.AssociateBodyPart(source, target));
  EXPECT_EQ(table.GetAssociatedId(Ident("leftarm")).value(), Ident("arm_l"));
  EXPECT_EQ(table.GetAssociatedId(Ident("arm_l")).value(), Ident("leftarm"));
  // The lists are not looked at.
  EXPECT_FALSE(table.GetAssociatedUuid(U(5)));
  {
    // An empty reference is the null-reference error; an empty identifier AssociateId's error.
    EXPECT_TRUE(table.AssociateBodyPart(source, nullptr).error().Is(ErrorKind::kNullReference));
    CharacterBodyPartRef anonymous = CreateBodyPart(InternedId(), "Anonymous"_s).value();
    ExpectIllegalArgument(table.AssociateBodyPart(anonymous, target).error(), kInvalidKey);
  }
}

TEST(CharacterAssociation, DumpsBothTablesWithoutLineFeedBetween) {
  CharacterAssociationRef association = MakeAssociation();
  CharacterAssociation& table = Write(association);
  ASSERT_TRUE(table.AssociateUuid(U(1), Uuid::Make(0xAB, 2).value()));
  ASSERT_TRUE(table.AssociateId(Ident("spine"), Ident("back")));
  EXPECT_EQ(association->ToString().GetView(),
            "Uuid Association Table : \n"
            "{00000000-0000-0000-0000-000000000001->00000000-0000-00ab-0000-000000000002,"
            "00000000-0000-00ab-0000-000000000002->00000000-0000-0000-0000-000000000001}"
            "InternedId Association Table : \n{spine->back,back->spine}");
}

TEST(CharacterAssociation, WriterClonesASharedAssociation) {
  CharacterAssociationRef original = MakeAssociation();
  ASSERT_TRUE(Write(original).AssociateUuid(U(1), U(2)));
  // The other holder keeps its tables.
  CharacterAssociationRef shared = original;
  ASSERT_TRUE(Write(shared).AssociateUuid(U(1), U(3)));
  EXPECT_NE(shared.Get(), original.Get());
  EXPECT_EQ(LowOf(original->GetAssociatedUuid(U(1))), 2u);
  EXPECT_EQ(LowOf(shared->GetAssociatedUuid(U(1))), 3u);
  EXPECT_EQ(LowOf(shared->GetAssociatedUuid(U(2))), 1u);
}

}  // namespace
}  // namespace tarni
