// The delta extraction's arithmetic, bit for bit: the deltas must be exactly those of the
// formula's own order of inverses and products, however the solver arranges the work. Covered:
// the same 3x3 part under other offsets, singular matrices (the identity, with a zero offset for
// a parent), negative zeros, and a long chain of distinct matrices.
#include <gtest/gtest.h>

#include <vector>

#include "source/solver/quaternion.h"
#include "tarni/charactersolver.h"

namespace tarni {
namespace {

Uuid U(std::uint64_t low) { return Uuid::Make(0, low).value(); }

struct Joint {
  Matrix global;
  Matrix parent;
};

CharacterPoseRef Pose(const std::vector<Joint>& joints) {
  BaseArray<CharacterNodeTransformRef> nodes;
  for (std::size_t i = 0; i < joints.size(); ++i)
    EXPECT_TRUE(
        nodes.Append(CreateNodeTransform(U(i + 1), joints[i].global, joints[i].parent).value()));
  CharacterPoseRef pose(CreateObject<CharacterPose>(CharacterPose::kClassId).value());
  EXPECT_TRUE(pose.MakeWritable().value()->SetNodeTransformArray(nodes));
  return pose;
}

// The delta of one node, as the formula orders it.
Matrix ExpectedDelta(const Joint& source, const Joint& rest) {
  const Matrix e = ca::InvertMatrix(source.parent * ca::InvertMatrix(rest.parent));
  const Matrix m = e * source.global;
  Matrix delta = ca::Multiply3x3(m, ca::Invert3x3(rest.global));
  delta.off = m.off - rest.global.off;
  return delta;
}

void ExpectExactDeltas(const std::vector<Joint>& rest, const std::vector<Joint>& source) {
  CharacterDefinitionRef definition =
      CreateObject<CharacterDefinition>(CharacterDefinition::kClassId).value();
  ASSERT_TRUE(definition->SetSkeletonRestPose(Pose(rest)));
  CharacterSolverConfigurationRef config =
      CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId).value();
  ASSERT_TRUE(config->Setup(definition, definition, nullptr));
  config->SetSolvingMode(SolvingMode::SKELETONTOSKELETON);
  CharacterSolverRef solver = CreateObject<CharacterSolver>(CharacterSolver::kClassId).value();
  const CharacterPoseRef deltas = solver->ExtractGlobalDeltaPose(config, Pose(source)).value();
  ASSERT_EQ(deltas->GetNodeTransformCount(), static_cast<Int>(rest.size()));
  for (std::size_t i = 0; i < rest.size(); ++i) {
    const Matrix expected = ExpectedDelta(source[i], rest[i]);
    EXPECT_EQ(deltas->GetNodeTransformArray()[i]->GetGlobalMatrix(), expected) << "node " << i;
  }
}

TEST(DeltaExtraction, EqualsTheFormulaBitForBit) {
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
    ExpectExactDeltas(rest, source);
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
    ExpectExactDeltas(rest, source);
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
    ExpectExactDeltas(rest, source);
  }
}

}  // namespace
}  // namespace tarni
