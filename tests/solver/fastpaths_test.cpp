// The data a frame keeps between calls: a pose's first-match index, the rest data the delta
// extraction keeps with a rest pose and the inverse a target node keeps of its parent matrix.
// Whatever was kept, every answer must be the one a plain scan of the arrays and the formula give,
// after any change of the pose or node, and on several threads.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "source/solver/quaternion.h"
#include "support/randommatrix.h"
#include "support/samplecharacter.h"
#include "tarni/charactersolver.h"
#include "tarni/describe.h"

namespace tarni {
namespace {

using testing::U;

// A matrix that differs for every seed, so a delta taken from the wrong node shows.
Matrix Sheared(double seed, const Vector& off = {}) {
  return {off,
          {1.0 + 0.1 * seed, 0.2, -0.1 * seed},
          {0.05 * seed, 0.9, 0.3},
          {0.2, -0.04 * seed, 1.1 + 0.01 * seed}};
}
CharacterNodeTransformRef Node(std::uint64_t low, double seed) {
  return CreateNodeTransform(U(low), Sheared(seed, {seed, 1, 0}), Sheared(seed + 0.5, {0, seed, 2}))
      .value();
}
using testing::MakePose;
using testing::NodeArray;
// Nodes with the given Uuids (0 for an empty element), each with its own matrices.
std::vector<CharacterNodeTransformRef> Nodes(const std::vector<std::uint64_t>& lows,
                                             double seed = 0.0) {
  std::vector<CharacterNodeTransformRef> nodes;
  for (std::size_t i = 0; i < lows.size(); ++i)
    nodes.push_back(lows[i] == 0 ? CharacterNodeTransformRef() : Node(lows[i], seed + i));
  return nodes;
}

// The first match by a plain scan of the array: the rule the kept indexes must keep.
const CharacterNodeTransform* ScanFirst(const CharacterPose& pose, const Uuid& id) {
  for (const CharacterNodeTransformRef& node : pose.GetNodeTransformArray()) {
    const Uuid uuid = node ? node->GetUuid() : Uuid();
    if (uuid == id) return node.Get();
  }
  return nullptr;
}

// The deltas as the formula gives them, with the lookups done by ScanFirst.
std::vector<Matrix> ExpectedDeltas(const CharacterPose& rest, const CharacterPose& source) {
  std::vector<Matrix> deltas;
  for (const CharacterNodeTransformRef& element : rest.GetNodeTransformArray()) {
    const Uuid uuid = element ? element->GetUuid() : Uuid();
    const CharacterNodeTransform* restNode = ScanFirst(rest, uuid);
    const CharacterNodeTransform* srcNode = ScanFirst(source, uuid);
    const Matrix a = srcNode ? srcNode->GetParentGlobalMatrix() : Matrix{};
    const Matrix b = restNode ? restNode->GetParentGlobalMatrix() : Matrix{};
    const Matrix c = srcNode ? srcNode->GetGlobalMatrix() : Matrix{};
    const Matrix d = restNode ? restNode->GetGlobalMatrix() : Matrix{};
    const Matrix m = ca::InvertMatrix(a * ca::InvertMatrix(b)) * c;
    Matrix delta = ca::Multiply3x3(m, ca::Invert3x3(d));
    delta.off = m.off - d.off;
    deltas.push_back(delta);
  }
  return deltas;
}

struct Extraction {
  CharacterDefinitionRef definition =
      CreateObject<CharacterDefinition>(CharacterDefinition::kClassId).value();
  CharacterSolverConfigurationRef config =
      CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId).value();
  CharacterSolverRef solver = CreateObject<CharacterSolver>(CharacterSolver::kClassId).value();

  explicit Extraction(const CharacterPoseRef& rest) {
    EXPECT_TRUE(definition->SetSkeletonRestPose(rest));
    EXPECT_TRUE(config->Setup(definition, definition, nullptr));
  }
  const CharacterPoseRef& Rest() const { return definition->GetSkeletonRestPose(); }

  // Extracts against `source` and compares every delta, bit for bit, with the formula.
  void ExpectFormula(const CharacterPoseRef& source) const {
    const std::vector<Matrix> expected = ExpectedDeltas(*Rest(), *source);
    Result<CharacterPoseRef> deltas = solver->ExtractGlobalDeltaPose(config, source);
    ASSERT_TRUE(deltas);
    ASSERT_EQ(deltas.value()->GetNodeTransformCount(), static_cast<Int>(expected.size()));
    for (std::size_t i = 0; i < expected.size(); ++i)
      EXPECT_EQ(deltas.value()->GetNodeTransformArray()[i]->GetGlobalMatrix(), expected[i])
          << "node " << i;
  }
};

// Equal bit for bit, so that a zero of the other sign shows (and NaNs equal by their bits).
template <typename T>
::testing::AssertionResult SameBits(const T& a, const T& b) {
  if (std::memcmp(&a, &b, sizeof(T)) == 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "values differ in their bits";
}

TEST(PairedProducts, TheThreeByThreeProductEqualsTheFormulaBitForBit) {
  std::mt19937_64 random(7);
  // The formula one scalar at a time: each axis of a applied to b's axis, offset zero.
  auto linear = [](const Matrix& a, const Matrix& b) {
    return Matrix{{0.0, 0.0, 0.0},
                  TransformVector(a, b.v1),
                  TransformVector(a, b.v2),
                  TransformVector(a, b.v3)};
  };
  // Random operands, and operands whose sums round differently in any other order.
  for (int k = 0; k < 200; ++k) {
    const Matrix a = testing::RandomMatrix(random);
    Matrix b = testing::RandomMatrix(random);
    if (k % 2 == 1) b.v2 = b.v2 * 1e-17;
    EXPECT_TRUE(SameBits(ca::Multiply3x3(a, b), linear(a, b))) << "pair " << k;
  }
  // Negative zeros keep their sign where the formula keeps it.
  const Matrix a{{-0.0, 0.0, -0.0}, {-0.0, 1, 0}, {0, -0.0, 1}, {1, 0, -0.0}};
  const Matrix b{{0.0, -0.0, -0.0}, {-1, -0.0, 0}, {-0.0, 1, -0.0}, {0, 0, -1}};
  EXPECT_TRUE(SameBits(ca::Multiply3x3(a, b), linear(a, b)));
  EXPECT_TRUE(SameBits(ca::Multiply3x3(b, a), linear(b, a)));
}

TEST(RotationBlend, FromTheIdentityEqualsTheBlendBitForBit) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  // Quaternions of delta axes with components of both zero signs (a planar turn whose axes carry
  // rounding noise of either sign), usual turns, unnormalised and non-finite ones.
  const Quaternion cases[] = {{-0.0, -0.0, 0.894427190999916, 0.447213595499958},
                              {-0.0, 0.0, -0.6, 0.8},
                              {0.0, -0.0, -0.0, 0.0},
                              {-0.0, -0.0, -0.0, 1.0},
                              {0.1, -0.2, 0.3, 0.927},
                              {0.5, 0.5, 0.5, 0.5},
                              {2.0, -1.0, 0.5, 3.0},
                              {nan, 0.0, -0.0, 1.0},
                              {0.0, inf, -0.0, 1.0}};
  for (const Quaternion& q : cases) {
    for (double t : {1.0, 0.0, 0.5, 2.0, -1.0, nan}) {
      SCOPED_TRACE(::testing::Message()
                   << "q (" << q.x << ", " << q.y << ", " << q.z << ", " << q.w << ") t " << t);
      const Result<Quaternion> fast = ca::BlendFromIdentity(q, t);
      const Result<Quaternion> blend = ca::QuaternionBlend(Quaternion(), q, t);
      ASSERT_EQ(fast.has_error(), blend.has_error());
      EXPECT_TRUE(SameBits(fast.value(), blend.value()));
    }
  }
  // Through the whole application: a half-planar delta under a mirrored parent, where the zero's
  // sign survives into the local matrix (the third axis's y, +0 through the blend).
  const CharacterSolverRef solver =
      CreateObject<CharacterSolver>(CharacterSolver::kClassId).value();
  const CharacterBodyPartSolverSettingRef setting(
      CreateObject<CharacterBodyPartSolverSetting>(CharacterBodyPartSolverSetting::kClassId)
          .value());
  const Matrix turn{{}, {-0.6, -0.8, -1e-200}, {0.8, -0.6, 0.0}, {0.0, -1e-200, 1.0}};
  const Matrix mirrored{{}, {1, 0, 0}, {0, 1, 0}, {0, 0, -1}};
  const Matrix local =
      solver
          ->ApplyGlobalRotationDelta(CreateNodeTransform(U(1), {}, mirrored).value(),
                                     CreateNodeTransform(U(2), turn, {}).value(), setting, 1.0)
          .value();
  EXPECT_EQ(local.v3.y, 0.0);
  EXPECT_FALSE(std::signbit(local.v3.y));
}

TEST(PoseLookupIndex, KeepsTheFirstMatchThroughEveryChange) {
  // Ten nodes, enough for the pose to index them: 3 twice, an empty element, then a node with
  // the nil Uuid, which equals the empty Uuid.
  const CharacterNodeTransformRef nil =
      CreateNodeTransform(Uuid::Make(0, 0).value(), {}, {}).value();
  std::vector<CharacterNodeTransformRef> first = Nodes({1, 3, 2, 3, 0, 5, 6, 7, 9});
  first.push_back(nil);
  CharacterPoseRef pose = MakePose(first);
  CharacterPose* writable = pose.MakeWritable().value();
  const auto& nodes = pose->GetNodeTransformArray();
  {
    // Duplicates give the lower index; the empty Uuid finds the empty element before the nil
    // node; a miss is null.
    EXPECT_EQ(pose->GetNodeTransformByID(U(3)).value().Get(), nodes[1].Get());
    EXPECT_EQ(pose->GetNodeTransformByID(U(9)).value().Get(), nodes[8].Get());
    EXPECT_FALSE(pose->GetNodeTransformByID(Uuid()).value());
    EXPECT_FALSE(pose->GetNodeTransformByID(U(4)).value());
    // With the nil node first, both empty and nil find it.
    std::swap(first[4], first[9]);
    ASSERT_TRUE(writable->SetNodeTransformArray(NodeArray(first)));
    EXPECT_EQ(pose->GetNodeTransformByID(Uuid()).value().Get(), nil.Get());
    EXPECT_EQ(pose->GetNodeTransformByID(Uuid::Make(0, 0).value()).value().Get(), nil.Get());
  }
  {
    // A new array replaces the old index: reordered Uuids are found at their new places.
    std::vector<CharacterNodeTransformRef> reordered = Nodes({9, 8, 7, 6, 5, 4, 3, 2, 1, 3});
    ASSERT_TRUE(writable->SetNodeTransformArray(NodeArray(reordered)));
    EXPECT_EQ(pose->GetNodeTransformByID(U(3)).value().Get(), reordered[6].Get());
    EXPECT_EQ(pose->GetNodeTransformByID(U(9)).value().Get(), reordered[0].Get());
  }
  {
    // A clone answers from its own array; changing it leaves the original's answers alone.
    CharacterPoseRef clone = pose;
    std::vector<CharacterNodeTransformRef> other = Nodes({11, 12, 13, 14, 15, 16, 17, 18, 9});
    ASSERT_TRUE(clone.MakeWritable().value()->SetNodeTransformArray(NodeArray(other)));
    EXPECT_EQ(clone->GetNodeTransformByID(U(9)).value().Get(), other[8].Get());
    EXPECT_EQ(pose->GetNodeTransformByID(U(9)).value().Get(), nodes[0].Get());
  }
  {
    // An element appended through the address DescribeIO hands out is found as well.
    MemberList members;
    ASSERT_TRUE(writable->DescribeIO(members));
    auto* described =
        static_cast<BaseArray<CharacterNodeTransformRef>*>(members.members[0].address);
    const CharacterNodeTransformRef added = Node(42, 1);
    ASSERT_TRUE(described->Append(added));
    EXPECT_EQ(pose->GetNodeTransformByID(U(42)).value().Get(), added.Get());
  }
}

// The deltas are exactly the formula's own order of inverses and products, however the solver
// arranges the work: the same 3x3 part under other offsets, singular matrices (the identity, with a
// zero offset for a parent), negative zeros, and a long chain of distinct matrices.
TEST(DeltaExtraction, EqualsTheFormulaBitForBit) {
  struct Joint {
    Matrix global, parent;
  };
  auto expectExact = [](const std::vector<Joint>& rest, const std::vector<Joint>& source) {
    auto pose = [](const std::vector<Joint>& joints) {
      std::vector<CharacterNodeTransformRef> nodes;
      for (std::size_t i = 0; i < joints.size(); ++i)
        nodes.push_back(CreateNodeTransform(U(i + 1), joints[i].global, joints[i].parent).value());
      return MakePose(nodes);
    };
    Extraction(pose(rest)).ExpectFormula(pose(source));
  };
  const Matrix sheared{{1, 2, 3}, {1.5, 0.2, 0}, {0.3, 0.9, 0.1}, {0.1, -0.2, 1.7}};
  const Matrix singular{{4, 5, 6}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}};  // v3 = v1 + v2
  const Matrix turned{{0, 1, 0}, {0, 1, 0}, {-1, 0, 0}, {0, 0, 1}};
  // The same 3x3 part as a node's global matrix, under another offset, as a parent: the offset of
  // the parent's inverse is its own.
  {
    Matrix shiftedParent = sheared;
    shiftedParent.off = {-7, 8, 0.5};
    const std::vector<Joint> rest = {{sheared, {}}, {turned, shiftedParent}, {turned, sheared}};
    std::vector<Joint> source = rest;
    for (Joint& joint : source) joint.global.off = joint.global.off + Vector{0.25, 0, 1};
    source[1].parent = turned * sheared;
    expectExact(rest, source);
  }
  // A singular matrix inverts to the identity, and as a parent to the identity with a zero
  // offset, even when its 3x3 part was met before under another offset.
  {
    Matrix singularParent = singular;
    singularParent.off = {1, 1, 1};
    const std::vector<Joint> rest = {
        {singular, {}}, {sheared, singularParent}, {singular, singular}, {turned, singularParent}};
    std::vector<Joint> source = rest;
    source[0].parent = sheared;
    source[3].global = sheared;
    expectExact(rest, source);
  }
  // Equal values with other bits (a negative zero), and a long chain of distinct matrices.
  {
    std::vector<Joint> rest;
    Matrix negativeZero = turned;
    negativeZero.v3.x = -0.0;
    rest.push_back({turned, negativeZero});
    rest.push_back({negativeZero, turned});
    for (int i = 0; i < 100; ++i) {
      const double k = 1.0 + 0.01 * i;
      const Matrix global{{k, 0, -k}, {k, 0.1, 0}, {0, k, 0.2}, {0.3, 0, k}};
      rest.push_back({global, rest.back().global});
    }
    std::vector<Joint> source = rest;
    for (std::size_t i = 0; i < source.size(); ++i) source[i].global = turned * source[i].global;
    expectExact(rest, source);
  }
}

TEST(DeltaExtraction, SourceLookupsKeepTheFirstMatch) {
  // Twelve rest nodes; rest node 7 repeats the Uuid of rest node 2, so its delta is node 2's.
  const std::vector<std::uint64_t> restLows = {1, 2, 3, 4, 5, 6, 7, 2, 9, 10, 11, 12};
  Extraction extraction(MakePose(Nodes(restLows)));
  {
    // The source in the rest pose's order: the first match of Uuid 2 is source node 1, not the
    // source node at 7, which has other matrices.
    extraction.ExpectFormula(MakePose(Nodes(restLows, 20)));
  }
  {
    // The order breaks after a few nodes (4 and 5 swapped), and the source holds more nodes.
    extraction.ExpectFormula(MakePose(Nodes({1, 2, 3, 5, 4, 6, 7, 2, 9, 10, 11, 12, 13, 14}, 30)));
  }
  {
    // A Uuid appears early out of order: source node 1 carries Uuid 4, so later rest nodes must
    // not take the source node at their own index.
    extraction.ExpectFormula(MakePose(Nodes({1, 4, 3, 2, 5, 6, 7, 8, 9, 10, 11, 12}, 40)));
  }
  {
    // A shorter source, an empty source element, and a source in reverse order.
    extraction.ExpectFormula(MakePose(Nodes({1, 2, 3}, 50)));
    extraction.ExpectFormula(MakePose(Nodes({1, 0, 3, 4, 5, 6, 7, 2, 9, 10, 11, 12}, 60)));
    extraction.ExpectFormula(MakePose(Nodes({12, 11, 10, 9, 2, 7, 6, 5, 4, 3, 2, 1}, 70)));
  }
}

TEST(DeltaExtraction, KeptRestDataFollowsTheRestPose) {
  Extraction extraction(MakePose(Nodes({1, 2, 3, 4, 5, 6, 7, 8, 9})));
  const CharacterPoseRef source = MakePose(Nodes({1, 2, 3, 4, 5, 6, 7, 8, 9}, 10));
  extraction.ExpectFormula(source);
  // Changed in place through a plain reference (the definition's pose object itself): the next
  // extraction reads the new rest nodes.
  CharacterPose* restPose = Cast<CharacterPose>(extraction.Rest().GetRef()).Get();
  {
    ASSERT_TRUE(restPose->SetNodeTransformArray(NodeArray(Nodes({9, 8, 7, 6, 5, 4, 3, 2, 1}, 5))));
    extraction.ExpectFormula(source);
  }
  {
    // One element replaced through DescribeIO's address, storage and count unchanged.
    MemberList members;
    ASSERT_TRUE(restPose->DescribeIO(members));
    auto* described =
        static_cast<BaseArray<CharacterNodeTransformRef>*>(members.members[0].address);
    (*described)[4] = Node(5, 77);
    extraction.ExpectFormula(source);
  }
  {
    // The extraction never changes the rest pose's nodes, nor holds references to them.
    const CharacterNodeTransform* first = restPose->GetNodeTransformArray()[0].Get();
    const Matrix global = first->GetGlobalMatrix();
    extraction.ExpectFormula(source);
    EXPECT_EQ(first->GetGlobalMatrix(), global);
    EXPECT_EQ(first->GetRefCount(), 1);
  }
}

// Applying a delta ends with the inverse of the target's parent global matrix, which the target
// node keeps. Every way of changing that matrix must drop what was kept.
TEST(DeltaApplication, KeptInverseFollowsTheTargetsParentMatrix) {
  const CharacterBodyPartSolverSettingRef setting =
      testing::MakeSetting(testing::Ident("arm"), 1.0, true, true);
  const CharacterNodeTransformRef delta = Node(1, 3.0);
  const CharacterSolverRef solver =
      CreateObject<CharacterSolver>(CharacterSolver::kClassId).value();
  const Matrix global = Sheared(2.0, {4, 5, 6});
  const CharacterSolver& s = *solver;
  auto apply = [&](const CharacterNodeTransformRef& target) {
    return s.ApplyGlobalRotationDelta(target, delta, setting, 0.6).value();
  };
  // Three calls: the node keeps the inverse at the second and hands it out at the third, so the
  // change that follows has a kept inverse to drop.
  auto applyThrice = [&](const CharacterNodeTransformRef& target) {
    const Matrix first = apply(target);
    EXPECT_EQ(apply(target), first);
    EXPECT_EQ(apply(target), first);
    return first;
  };
  // The formula with the parent `parent`: the result for an identity parent, brought under it.
  auto expected = [&](const Matrix& parent) {
    return ca::InvertMatrix(parent) * apply(CreateNodeTransform(U(9), global, Matrix{}).value());
  };
  const Matrix parents[] = {Sheared(1.0, {1, 2, 3}), Sheared(4.0, {-1, 0, 2}),
                            Sheared(6.0, {0, 3, 0}), Sheared(8.0, {2, 2, 2})};

  CharacterNodeTransformRef target = CreateNodeTransform(U(2), global, parents[0]).value();
  EXPECT_EQ(applyThrice(target), expected(parents[0]));
  // Set on the node itself (its only reference: no clone).
  CharacterNodeTransform* writable = target.MakeWritable().value();
  writable->SetParentGlobalMatrix(parents[1]);
  EXPECT_EQ(applyThrice(target), expected(parents[1]));
  // Set on a clone: the clone and the original each answer for their own matrix.
  CharacterNodeTransformRef clone = target;
  clone.MakeWritable().value()->SetParentGlobalMatrix(parents[2]);
  EXPECT_EQ(applyThrice(clone), expected(parents[2]));
  EXPECT_EQ(applyThrice(target), expected(parents[1]));
  // Copied from another node.
  ASSERT_TRUE(target.MakeWritable().value()->CopyFrom(*clone));
  EXPECT_EQ(applyThrice(target), expected(parents[2]));
  // Written through DescribeIO's address.
  MemberList members;
  ASSERT_TRUE(target.MakeWritable().value()->DescribeIO(members));
  for (const auto& member : members.members)
    if (member.name == "_parentGlobalMat") *static_cast<Matrix*>(member.address) = parents[3];
  EXPECT_EQ(apply(target), expected(parents[3]));
}

}  // namespace
}  // namespace tarni
