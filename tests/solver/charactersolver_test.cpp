// The character solver through its interface: delta extraction, delta application, cumulated
// weights, and the round trip of a motion onto a character with the same rest pose. Expected
// values are computed here from rigid transforms (inverse = transpose), independently of the
// solver's own arithmetic.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "support/samplecharacter.h"
#include "tarni/charactertree.h"

namespace tarni {
namespace {

using namespace tarni::literals;
using TC = TransformComponent;

constexpr double kTol = 1e-9;

::testing::AssertionResult MatrixNear(const Matrix& a, const Matrix& b, double tol = kTol) {
  const Vector pa[] = {a.off, a.v1, a.v2, a.v3};
  const Vector pb[] = {b.off, b.v1, b.v2, b.v3};
  const char* names[] = {"off", "v1", "v2", "v3"};
  for (int i = 0; i < 4; ++i) {
    if (std::fabs(pa[i].x - pb[i].x) > tol || std::fabs(pa[i].y - pb[i].y) > tol ||
        std::fabs(pa[i].z - pb[i].z) > tol) {
      return ::testing::AssertionFailure()
             << names[i] << ": (" << pa[i].x << ", " << pa[i].y << ", " << pa[i].z << ") vs ("
             << pb[i].x << ", " << pb[i].y << ", " << pb[i].z << ")";
    }
  }
  return ::testing::AssertionSuccess();
}

// A rotation by `angle` about the unit axis n, with an offset.
Matrix Rotation(const Vector& n, double angle, const Vector& off = {}) {
  const double c = std::cos(angle);
  const double s = std::sin(angle);
  auto image = [&](const Vector& e) { return e * c + Cross(n, e) * s + n * (Dot(n, e) * (1 - c)); };
  return {off, image({1, 0, 0}), image({0, 1, 0}), image({0, 0, 1})};
}
Vector Unit(const Vector& v) { return v * (1.0 / Length(v)); }
// The inverse of a rigid transform: transposed axes, offset turned back.
Matrix RigidInverse(const Matrix& m) {
  const Matrix t{{}, {m.v1.x, m.v2.x, m.v3.x}, {m.v1.y, m.v2.y, m.v3.y}, {m.v1.z, m.v2.z, m.v3.z}};
  Matrix inverse = t;
  inverse.off = -TransformVector(t, m.off);
  return inverse;
}
Matrix Linear(const Matrix& m) { return {{}, m.v1, m.v2, m.v3}; }

using testing::Ident;
using testing::U;

CharacterNodeTransformRef Node(std::uint64_t low, const Matrix& global, const Matrix& parent = {}) {
  return CreateNodeTransform(U(low), global, parent).value();
}
CharacterPoseRef Pose(const std::vector<CharacterNodeTransformRef>& nodes) {
  return testing::MakePose(nodes);
}
CharacterDefinitionRef Definition(const CharacterPoseRef& skeletonRest,
                                  const CharacterPoseRef& controllersRest = nullptr) {
  CharacterDefinitionRef definition =
      CreateObject<CharacterDefinition>(CharacterDefinition::kClassId).value();
  EXPECT_TRUE(definition->SetSkeletonRestPose(skeletonRest));
  EXPECT_TRUE(definition->SetControllersRestPose(controllersRest));
  return definition;
}
CharacterSolverConfigurationRef Config(const CharacterDefinitionRef& source,
                                       SolvingMode mode = SolvingMode::SKELETONTOSKELETON) {
  CharacterSolverConfigurationRef config =
      CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId).value();
  EXPECT_TRUE(config->Setup(source, source, nullptr));
  config->SetSolvingMode(mode);
  return config;
}
CharacterSolverRef Solver() {
  return CreateObject<CharacterSolver>(CharacterSolver::kClassId).value();
}
CharacterBodyPartSolverSettingRef Setting(std::string_view identifier = "",
                                          Float64 bodyPartWeight = 1.0) {
  CharacterBodyPartSolverSettingRef setting =
      CreateObject<CharacterBodyPartSolverSetting>(CharacterBodyPartSolverSetting::kClassId)
          .value();
  EXPECT_TRUE(setting->SetBodyPartIdentifier(Ident(identifier)));
  setting->SetBodyPartWeight(bodyPartWeight);
  return setting;
}
const Matrix& DeltaOf(const CharacterPoseRef& pose, Int index) {
  return pose->GetNodeTransformArray()[index]->GetGlobalMatrix();
}

const Vector kAxis1 = Unit({1, 2, 3});
const Vector kAxis2 = Unit({-2, 0.5, 1});

TEST(CharacterSolver, DeltaTakesTheSourceParentsMotionOut) {
  const Matrix restParent = Rotation(kAxis1, 0.3, {0, 1, 0});
  const Matrix restGlobal = restParent * Rotation(kAxis2, 0.5, {0, 2, 0});
  const Matrix srcParent = Rotation(kAxis2, -1.1, {3, 0, -1});
  const Matrix srcGlobal = Rotation(kAxis1, 2.2, {-1, 4, 2});
  {
    // M = B * inverse(A) * C: the source global carried into the rest parent's frame; the delta
    // is M's rotation after the rest rotation is taken out, and M.o - D.o.
    CharacterPoseRef rest = Pose({Node(1, restGlobal, restParent)});
    CharacterPoseRef source = Pose({Node(1, srcGlobal, srcParent)});
    const Matrix m = restParent * RigidInverse(srcParent) * srcGlobal;
    Matrix expected = Linear(m) * Linear(RigidInverse(restGlobal));
    expected.off = m.off - restGlobal.off;
    auto deltas = Solver()->ExtractGlobalDeltaPose(Config(Definition(rest)), source);
    ASSERT_TRUE(deltas);
    EXPECT_TRUE(MatrixNear(DeltaOf(deltas.value(), 0), expected));
  }
  {
    // A node the source lacks: A = C = identity, so the delta is B * inverse(D), B.o - D.o.
    CharacterPoseRef rest = Pose({Node(1, restGlobal, restParent)});
    Matrix expected = Linear(restParent) * Linear(RigidInverse(restGlobal));
    expected.off = restParent.off - restGlobal.off;
    auto deltas = Solver()->ExtractGlobalDeltaPose(Config(Definition(rest)), Pose({}));
    ASSERT_TRUE(deltas);
    EXPECT_TRUE(MatrixNear(DeltaOf(deltas.value(), 0), expected));
  }
  {
    // A singular rest matrix inverts to the identity: the delta's 3x3 part is M's.
    const Matrix flat{{1, 1, 1}, {1, 0, 0}, {0, 1, 0}, {0, 0, 0}};
    CharacterPoseRef rest = Pose({Node(1, flat, restParent)});
    CharacterPoseRef source = Pose({Node(1, srcGlobal, srcParent)});
    const Matrix m = restParent * RigidInverse(srcParent) * srcGlobal;
    Matrix expected = Linear(m);
    expected.off = m.off - flat.off;
    auto deltas = Solver()->ExtractGlobalDeltaPose(Config(Definition(rest)), source);
    ASSERT_TRUE(deltas);
    EXPECT_TRUE(MatrixNear(DeltaOf(deltas.value(), 0), expected));
  }
  {
    // Lookups take the first node with the Uuid, in both poses: a second rest element with the
    // same Uuid is measured against the first one's matrices.
    CharacterPoseRef rest =
        Pose({Node(1, restGlobal, restParent), Node(1, Rotation(kAxis2, 1.0), Matrix{})});
    CharacterPoseRef source =
        Pose({Node(1, restGlobal, restParent), Node(1, srcGlobal, srcParent)});
    auto deltas = Solver()->ExtractGlobalDeltaPose(Config(Definition(rest)), source);
    ASSERT_TRUE(deltas);
    EXPECT_TRUE(MatrixNear(DeltaOf(deltas.value(), 0), Matrix{}));
    EXPECT_TRUE(MatrixNear(DeltaOf(deltas.value(), 1), Matrix{}));
    EXPECT_EQ(deltas.value()->GetNodeTransformArray()[1]->GetParentGlobalMatrix(), Matrix{});
  }
}

TEST(CharacterSolver, SolvingModePicksTheRestPoseAndLeavesItUnchanged) {
  const Matrix turned = Rotation(kAxis1, 0.9, {1, 0, 0});
  CharacterPoseRef skeleton = Pose({Node(1, turned), Node(2, turned)});
  CharacterPoseRef controllers = Pose({Node(7, turned)});
  CharacterDefinitionRef definition = Definition(skeleton, controllers);
  CharacterPoseRef source = Pose({Node(1, Matrix{}), Node(7, Matrix{})});
  for (SolvingMode mode : {SolvingMode::SKELETONTOSKELETON, SolvingMode::CONTROLLERTOCONTROLLER,
                           SolvingMode{7}, SolvingMode{-1}}) {
    SCOPED_TRACE(static_cast<int>(mode));
    const bool controllerCase = mode != SolvingMode::SKELETONTOSKELETON;
    const CharacterPoseRef& rest = controllerCase ? controllers : skeleton;
    auto extracted = Solver()->ExtractGlobalDeltaPose(Config(definition, mode), source);
    ASSERT_TRUE(extracted);
    const CharacterPoseRef& deltas = extracted.value();
    // A new pose of the chosen rest pose's nodes; the definition still holds its own poses.
    EXPECT_NE(deltas.Get(), rest.Get());
    EXPECT_EQ(definition->GetSkeletonRestPose().Get(), skeleton.Get());
    EXPECT_EQ(definition->GetControllersRestPose().Get(), controllers.Get());
    ASSERT_EQ(deltas->GetNodeTransformCount(), controllerCase ? 1 : 2);
    EXPECT_EQ(deltas->GetNodeTransformArray()[0]->GetUuid().GetLow(), controllerCase ? 7u : 1u);
    // Measured against the identity source node (or against nothing): the rest turn taken back,
    // and the rest offset subtracted.
    Matrix expected = Linear(RigidInverse(turned));
    expected.off = {-1, 0, 0};
    EXPECT_TRUE(MatrixNear(DeltaOf(deltas, 0), expected));
    // The rest nodes keep their matrices.
    for (const CharacterPoseRef& pose : {skeleton, controllers}) {
      for (const auto& node : pose->GetNodeTransformArray())
        EXPECT_EQ(node->GetGlobalMatrix(), turned);
    }
  }
}

TEST(CharacterSolver, ExtractionFailures) {
  CharacterPoseRef rest = Pose({Node(1, Rotation(kAxis1, 0.4)), Node(2, Matrix{})});
  CharacterPoseRef source = Pose({Node(1, Matrix{})});
  CharacterSolverRef solver = Solver();
  {
    auto refused = solver->ExtractGlobalDeltaPose(nullptr, source);
    ASSERT_FALSE(refused.has_value());
    EXPECT_TRUE(refused.error().Is(ErrorKind::kIllegalArgument));
    EXPECT_EQ(refused.error().GetMessage(),
              "Illegal argument: Condition config && sourcePose not fulfilled. ");
  }
  {
    // No source character, or no rest pose of the chosen kind: the null-reference error.
    EXPECT_TRUE(solver->ExtractGlobalDeltaPose(Config(nullptr), source)
                    .error()
                    .Is(ErrorKind::kNullReference));
    EXPECT_TRUE(solver
                    ->ExtractGlobalDeltaPose(
                        Config(Definition(rest), SolvingMode::CONTROLLERTOCONTROLLER), source)
                    .error()
                    .Is(ErrorKind::kNullReference));
  }
}

TEST(CharacterSolver, ApplyRotationFollowsTheWeight) {
  CharacterSolverRef solver = Solver();
  const Matrix q = Rotation(kAxis1, 0.8);
  // A target with a stretched axis and an offset under a turned, offset parent.
  const Matrix parent = Rotation(kAxis2, 0.6, {2, -1, 0.5});
  Matrix global = parent * Rotation(kAxis1, -0.3, {0, 3, 0});
  global.v2 = global.v2 * 2.0;
  CharacterNodeTransformRef target = Node(1, global, parent);
  Matrix deltaMatrix = q;
  deltaMatrix.off = {7, 8, 9};  // ignored while position is inactive
  CharacterNodeTransformRef delta = Node(1, deltaMatrix);
  CharacterBodyPartSolverSettingRef setting = Setting();
  // The expected local matrix: the axes of P turned by `turn`, P.o kept, relative to the parent.
  auto expected = [&](const Matrix& turn) {
    Matrix p = Linear(turn) * Linear(global);
    p.off = global.off;
    return RigidInverse(parent) * p;
  };
  auto apply = [&](Float64 weight) {
    auto result = solver->ApplyGlobalRotationDelta(target, delta, setting, weight);
    EXPECT_TRUE(result) << result.error().GetMessage();
    return result.value();
  };
  {
    // Weight 1 turns by the full delta; lengths and offset stay.
    EXPECT_TRUE(MatrixNear(apply(1.0), expected(q)));
    // Weight 0 leaves P as it is; 0.5 turns half way.
    EXPECT_TRUE(MatrixNear(apply(0.0), RigidInverse(parent) * global));
    EXPECT_TRUE(MatrixNear(apply(0.5), expected(Rotation(kAxis1, 0.4))));
  }
  {
    // A negative weight turns back by the blend at |weight|.
    EXPECT_TRUE(MatrixNear(apply(-1.0), expected(Rotation(kAxis1, -0.8))));
  }
  {
    // rotation weight * weight = 2: the delta applied twice, whatever the split.
    setting->SetTransformWeight(TC::ROTATION, 2.0);
    EXPECT_TRUE(MatrixNear(apply(1.0), expected(Rotation(kAxis1, 1.6))));
    setting->SetTransformWeight(TC::ROTATION, 4.0);
    EXPECT_TRUE(MatrixNear(apply(0.5), expected(Rotation(kAxis1, 1.6))));
    // Only the weight argument's sign turns back: a negative rotation weight does not.
    setting->SetTransformWeight(TC::ROTATION, -1.0);
    EXPECT_TRUE(MatrixNear(apply(1.0), expected(q)));
  }
  {
    // The delta's axis lengths do not enter the rotation.
    Matrix scaledDelta = q;
    scaledDelta.v1 = scaledDelta.v1 * 3.0;
    setting->SetTransformWeight(TC::ROTATION, 1.0);
    auto result = solver->ApplyGlobalRotationDelta(target, Node(1, scaledDelta), setting, 1.0);
    EXPECT_TRUE(MatrixNear(result.value(), expected(q)));
  }
}

TEST(CharacterSolver, ApplyTranslationScaleAndMissingParts) {
  CharacterSolverRef solver = Solver();
  const Matrix parent{{1, 2, 3}};
  const Matrix global{{4, 4, 4}, {0, 1, 0}, {-1, 0, 0}, {0, 0, 1}};
  CharacterNodeTransformRef target = Node(1, global, parent);
  // Delta: axis lengths 2, 1, 1 and an offset.
  CharacterNodeTransformRef delta = Node(1, Matrix{{1, -2, 0.5}, {2, 0, 0}, {0, 1, 0}, {0, 0, 1}});
  CharacterBodyPartSolverSettingRef setting = Setting();
  setting->SetTransformActive(TC::ROTATION, false);
  {
    // Nothing active: inverse(G) * P.
    EXPECT_EQ(solver->ApplyGlobalRotationDelta(target, delta, setting, 1.0).value(),
              (Matrix{{3, 2, 1}, {0, 1, 0}, {-1, 0, 0}, {0, 0, 1}}));
  }
  {
    // Translation: P.o + Dl.o * position weight * weight.
    setting->SetTransformActive(TC::POSITION, true);
    setting->SetTransformWeight(TC::POSITION, 0.5);
    EXPECT_EQ(solver->ApplyGlobalRotationDelta(target, delta, setting, -2.0).value().off,
              (Vector{2, 4, 0.5}));
    setting->SetTransformActive(TC::POSITION, false);
  }
  {
    // Scale: axis k times 1 + (|Dl.ak| - 1) * scale weight * weight.
    setting->SetTransformActive(TC::SCALE, true);
    const Matrix scaled = solver->ApplyGlobalRotationDelta(target, delta, setting, 0.5).value();
    EXPECT_EQ(scaled, (Matrix{{3, 2, 1}, {0, 1.5, 0}, {-1, 0, 0}, {0, 0, 1}}));
    // With the rotation too, the lengths are measured before it: the turn uses unit axes.
    setting->SetTransformActive(TC::ROTATION, true);
    const Matrix both = solver->ApplyGlobalRotationDelta(target, delta, setting, 1.0).value();
    EXPECT_TRUE(MatrixNear(both, Matrix{{3, 2, 1}, {0, 2, 0}, {-1, 0, 0}, {0, 0, 1}}));
  }
  {
    // A zero-length delta axis normalises to zero instead of dividing by zero.
    CharacterNodeTransformRef flat = Node(1, Matrix{{}, {0, 0, 0}, {0, 1, 0}, {0, 0, 1}});
    const Matrix result = solver->ApplyGlobalRotationDelta(target, flat, setting, 1.0).value();
    for (double value : {result.v1.x, result.v1.y, result.v1.z, result.v2.x, result.v3.z})
      EXPECT_TRUE(std::isfinite(value));
  }
  {
    // Null nodes stand for identity matrices.
    setting->SetTransformActive(TC::SCALE, false);
    EXPECT_TRUE(MatrixNear(solver->ApplyGlobalRotationDelta(nullptr, nullptr, setting, 1.0).value(),
                           Matrix{}));
    EXPECT_EQ(solver->ApplyGlobalRotationDelta(target, nullptr, setting, 1.0).value(),
              (Matrix{{3, 2, 1}, {0, 1, 0}, {-1, 0, 0}, {0, 0, 1}}));
  }
  {
    // No setting: the illegal-state error together with the identity matrix.
    Result<Matrix> refused = solver->ApplyGlobalRotationDelta(target, delta, nullptr, 1.0);
    ASSERT_TRUE(refused.has_error());
    EXPECT_TRUE(refused.error().Is(ErrorKind::kIllegalState));
    EXPECT_EQ(refused.error().GetMessage(), "Illegal state: Condition bpSetting not fulfilled. ");
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused.value(), Matrix{});
  }
}

TEST(CharacterSolver, CumulatedWeightMultipliesUpToNoParentWeight) {
  // root (0.8) <- a (0.5) <- b (0.5, NOPARENTWEIGHT) <- c (no setting) <- d (0.25)
  CharacterBodyPartRef root = CreateBodyPart(Ident("root"), "Root"_s).value();
  CharacterBodyPartRef a = CreateBodyPart(Ident("a"), "A"_s).value();
  CharacterBodyPartRef b = CreateBodyPart(Ident("b"), "B"_s).value();
  CharacterBodyPartRef c = CreateBodyPart(Ident("c"), "C"_s).value();
  CharacterBodyPartRef d = CreateBodyPart(Ident("d"), "D"_s).value();
  ASSERT_TRUE(root->InsertChild(a));
  ASSERT_TRUE(a->InsertChild(b));
  ASSERT_TRUE(b->InsertChild(c));
  ASSERT_TRUE(c->InsertChild(d));
  CharacterSolverConfigurationRef config = Config(nullptr);
  CharacterBodyPartSolverSettingRef settingA = Setting("a", 0.5);
  CharacterBodyPartSolverSettingRef settingB = Setting("b", 0.5);
  settingB->SetSettingValue(BodyPartSolverSettingFlag::NOPARENTWEIGHT, true);
  for (const auto& setting : {Setting("root", 0.8), settingA, settingB, Setting("d", 0.25)})
    ASSERT_TRUE(config->SetBodyPartSetting(setting));
  // Neither the global weight nor DEACTIVATE is part of the product.
  config->SetGlobalWeight(0.1);
  settingA->SetSettingValue(BodyPartSolverSettingFlag::DEACTIVATE, true);
  CharacterSolverRef solver = Solver();
  auto weightOf = [&](const CharacterBodyPartRef& part) {
    auto weight = solver->GetCumulatedWeight(part, config);
    EXPECT_TRUE(weight);
    return weight.value();
  };
  EXPECT_DOUBLE_EQ(weightOf(root), 0.8);
  EXPECT_DOUBLE_EQ(weightOf(a), 0.4);
  EXPECT_DOUBLE_EQ(weightOf(b), 0.5);
  EXPECT_DOUBLE_EQ(weightOf(c), 0.5);
  EXPECT_DOUBLE_EQ(weightOf(d), 0.125);
  {
    // Without any setting every body part counts 1.0; a detached body part stands alone.
    EXPECT_EQ(solver->GetCumulatedWeight(d, Config(nullptr)).value(), 1.0);
    ASSERT_TRUE(d->Remove());
    EXPECT_EQ(weightOf(d), 0.25);
    // A parent that is not a body part ends the walk as the root does.
    CharacterTreeRef tree = CreateObject<CharacterTree>(CharacterTree::kClassId).value();
    ASSERT_TRUE(tree->InsertChild(d));
    EXPECT_EQ(weightOf(d), 0.25);
  }
  {
    auto refused = solver->GetCumulatedWeight(nullptr, config);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().Is(ErrorKind::kIllegalArgument));
    EXPECT_EQ(refused.error().GetMessage(),
              "Illegal argument: Condition bodyPart && solverConfig not fulfilled. ");
  }
}

// Round trip on a random hierarchy. Joint j has the rest local transform Lr_j (a rotation with an
// offset) and the source local transform Ls_j: Lr_j's axes further turned by T_j, same offset;
// globals compose parents first, G_j = G_parent * L_j, under a root parent frame that differs
// between rest (Wr) and source (Ws).
//
// What the delta means: with D = rest global, B = rest parent global and C, A the source's,
// M = B * inverse(A) * C = B * Ls_j is the joint's global if its parent had stayed at rest while
// it took its new local transform, and the delta's rotation is M * inverse(D) = B * T_j *
// inverse(B): the local turn T_j expressed in the rest parent's frame. So each delta carries the
// joint's own motion only, already free of its parents' motion.
//
// Applying it to the rest node of a target with the same rest pose (P = D, G = B) turns P into
// B * Ls_j (offset kept, as position is inactive), and the returned inverse(G) * P is Ls_j: the
// source's local transform, for every joint independently. The new globals then follow by
// composing those locals parents first, N_j = N_parent * local_j, which at weight 1 reproduces
// the source's globals relative to the root frame. (Feeding the parent's new global as G instead
// would express the rest-frame turn in a moved frame, and would not reproduce the motion.)
// At weight 0 the locals are the rest locals; at weight -1 each local's axes are inverse(T_j)
// applied to Lr_j's, again with Lr_j's offset.
TEST(CharacterSolver, RoundTripOntoTheSameRestPoseReproducesTheMotion) {
  std::mt19937_64 rng(20240617);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::uniform_real_distribution<double> angle(0.1, 2.5);
  auto randomAxis = [&] {
    Vector v;
    do v = Vector{u(rng), u(rng), u(rng)};
    while (Length(v) < 0.2);
    return Unit(v);
  };
  constexpr int kJoints = 12;
  std::vector<int> parentOf(kJoints, -1);
  std::vector<Matrix> restLocal(kJoints), turn(kJoints), sourceLocal(kJoints);
  for (int j = 0; j < kJoints; ++j) {
    if (j > 0) parentOf[j] = std::uniform_int_distribution<int>(0, j - 1)(rng);
    restLocal[j] = Rotation(randomAxis(), angle(rng), {u(rng), 2 + u(rng), u(rng)});
    turn[j] = Rotation(randomAxis(), angle(rng));
    sourceLocal[j] = turn[j] * restLocal[j];
    sourceLocal[j].off = restLocal[j].off;  // joints turn; bones keep their length
  }
  const Matrix restRoot = Rotation(randomAxis(), 0.5, {1, 0, 2});
  const Matrix sourceRoot = Rotation(randomAxis(), 1.5, {-3, 1, 0});
  auto globals = [&](const std::vector<Matrix>& locals, const Matrix& root) {
    std::vector<Matrix> result(kJoints);
    for (int j = 0; j < kJoints; ++j)
      result[j] = (parentOf[j] < 0 ? root : result[parentOf[j]]) * locals[j];
    return result;
  };
  const std::vector<Matrix> restGlobal = globals(restLocal, restRoot);
  const std::vector<Matrix> sourceGlobal = globals(sourceLocal, sourceRoot);
  auto parentGlobal = [&](const std::vector<Matrix>& g, const Matrix& root, int j) {
    return parentOf[j] < 0 ? root : g[parentOf[j]];
  };

  std::vector<CharacterNodeTransformRef> restNodes, sourceNodes;
  for (int j = 0; j < kJoints; ++j) {
    restNodes.push_back(Node(100 + j, restGlobal[j], parentGlobal(restGlobal, restRoot, j)));
    sourceNodes.push_back(
        Node(100 + j, sourceGlobal[j], parentGlobal(sourceGlobal, sourceRoot, j)));
  }
  CharacterSolverRef solver = Solver();
  // Source and target share the rest pose: retargeting onto the character itself.
  auto extracted =
      solver->ExtractGlobalDeltaPose(Config(Definition(Pose(restNodes))), Pose(sourceNodes));
  ASSERT_TRUE(extracted);
  const CharacterPoseRef& deltas = extracted.value();
  CharacterBodyPartSolverSettingRef setting = Setting();

  auto solveLocals = [&](Float64 weight) {
    std::vector<Matrix> locals(kJoints);
    for (int j = 0; j < kJoints; ++j) {
      auto delta = deltas->GetNodeTransformByID(restNodes[j]->GetUuid()).value();
      auto local = solver->ApplyGlobalRotationDelta(restNodes[j], delta, setting, weight);
      EXPECT_TRUE(local);
      locals[j] = local.value();
    }
    return locals;
  };
  {
    // Weight 1: the source's locals, and composed parents first, its globals under the root.
    const std::vector<Matrix> locals = solveLocals(1.0);
    const std::vector<Matrix> composed = globals(locals, sourceRoot);
    for (int j = 0; j < kJoints; ++j) {
      EXPECT_TRUE(MatrixNear(locals[j], sourceLocal[j], 1e-9)) << "joint " << j;
      EXPECT_TRUE(MatrixNear(composed[j], sourceGlobal[j], 1e-8)) << "joint " << j;
    }
  }
  {
    // Weight 0: the rest locals.
    const std::vector<Matrix> locals = solveLocals(0.0);
    for (int j = 0; j < kJoints; ++j)
      EXPECT_TRUE(MatrixNear(locals[j], restLocal[j], 1e-9)) << "joint " << j;
  }
  {
    // Weight -1: each joint's turn taken back from its rest local.
    const std::vector<Matrix> locals = solveLocals(-1.0);
    for (int j = 0; j < kJoints; ++j) {
      Matrix expected = RigidInverse(turn[j]) * restLocal[j];
      expected.off = restLocal[j].off;
      EXPECT_TRUE(MatrixNear(locals[j], expected, 1e-9)) << "joint " << j;
    }
  }
}

}  // namespace
}  // namespace tarni
