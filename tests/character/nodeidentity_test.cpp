// Node identity: node infos and node transforms through their interfaces, as a host uses them.
#include <gtest/gtest.h>

#include "tarni/characternodetransform.h"

namespace tarni {
namespace {

using namespace tarni::literals;

constexpr std::string_view kEmptyUuidText = "00000000-0000-0000-0000-000000000000";
constexpr std::string_view kIdentityText = "((1,0,0),(0,1,0),(0,0,1),(0,0,0))";

Uuid MakeUuid(std::uint64_t high, std::uint64_t low) { return Uuid::Make(high, low).value(); }

TEST(CharacterNodeInfo, TextAndCopyOnWrite) {
  auto created = CreateNodeInfo(Uuid(), String());
  ASSERT_TRUE(created);
  CharacterNodeInfoRef a = created.value();
  // A fresh node prints the empty Uuid's text and an empty name, each line ended by a line feed.
  EXPECT_EQ(a->ToString().GetView(),
            std::string("Object ID : ") + std::string(kEmptyUuidText) + "\nObject Name : \n");

  // Two references share one object until one of them writes through MakeWritable.
  CharacterNodeInfoRef b = a;
  ASSERT_EQ(a.Get(), b.Get());
  CharacterNodeInfo* writable = b.MakeWritable().value();
  ASSERT_TRUE(writable->SetName("Hips"_s));
  EXPECT_NE(a.Get(), b.Get());
  EXPECT_EQ(a->GetName(), "");
  EXPECT_EQ(b->GetName(), "Hips");

  // An unshared object is written in place: no clone.
  const CharacterNodeInfo* before = b.Get();
  ASSERT_TRUE(b.MakeWritable().value()->SetUuid(MakeUuid(1, 2)));
  EXPECT_EQ(b.Get(), before);
  EXPECT_EQ(b->ToString().GetView(),
            "Object ID : 00000000-0000-0001-0000-000000000002\nObject Name : Hips\n");

  // The creation function stores what it is given, the Uuid shared rather than copied.
  const Uuid id = MakeUuid(3, 4);
  const CharacterNodeInfoRef named = CreateNodeInfo(id, "Spine"_s).value();
  EXPECT_TRUE(named->GetUuid().SharesData(id));
  EXPECT_EQ(named->GetName(), "Spine");
}

TEST(CharacterNodeTransform, CloneSharesNodeInfoAndTextComesFromDerivedClass) {
  const Uuid id = MakeUuid(0xABCDEF, 7);
  Matrix global;
  global.off = {1.0, 2.0, 3.0};
  global.v1 = {0.5, 0.0, 2.0};  // not orthogonal: stored as given
  auto created = CreateNodeTransform(id, global, Matrix());
  ASSERT_TRUE(created);
  CharacterNodeTransformRef node = created.value();

  // A clone made by a write through a shared reference shares the id data and copies matrices.
  CharacterNodeTransformRef copy = node;
  copy.MakeWritable().value()->SetGlobalMatrix(Matrix());
  EXPECT_NE(copy.Get(), node.Get());
  EXPECT_TRUE(copy->GetUuid().SharesData(node->GetUuid()));
  EXPECT_EQ(node->GetGlobalMatrix(), global);
  EXPECT_EQ(copy->GetGlobalMatrix(), Matrix());

  // The text asked through the node-info interface is the whole transform text.
  const CharacterNodeInfo* info = node.Get();
  const std::string expected =
      std::string("Object ID : 00000000-00ab-cdef-0000-000000000007\n") +
      "Object Name : \nGlobal Matrix :\n((0.5,0,2),(0,1,0),(0,0,1),(1,2,3))\n" +
      "Parent Global Matrix :\n" + std::string(kIdentityText) + "\n" + "Pre-Multiply Matrix :\n" +
      std::string(kIdentityText) + "\n";
  EXPECT_EQ(info->ToString().GetView(), expected);
}

}  // namespace
}  // namespace tarni
