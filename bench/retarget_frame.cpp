// One frame of retargeting, single-threaded: a 31-joint source character's pose onto a 19-joint
// target character. Per frame: the source's global delta pose (ExtractGlobalDeltaPose), its nodes
// renamed to target identities (TranslateSrcToDestID), and for every target node, parents first,
// its body part's cumulated weight (GetCumulatedWeight) and its new local matrix
// (ApplyGlobalRotationDelta). Reports frames per second as items processed.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <string_view>
#include <vector>

#include "tarni/charactersolver.h"
#include "tarni/module.h"
#include "tarni/retargetbasehelper.h"

namespace tarni::ca {
const ModuleBlock& GetModuleBlock() noexcept;
}

namespace tarni {
namespace {

// A joint of a character: its name, its parent (-1 for the root) and its rest offset from the
// parent.
struct Joint {
  const char* name;
  int parent;
  Vector offset;
};

// 31 joints: spine, neck and head chain, two arms with hand ends and thumbs, two legs.
constexpr Joint kSourceJoints[] = {
    {"Hips", -1, {0, 100, 0}},
    {"Spine", 0, {0, 10, 0}},
    {"Spine1", 1, {0, 10, 0}},
    {"Spine2", 2, {0, 10, 0}},
    {"Spine3", 3, {0, 10, 0}},
    {"Neck", 4, {0, 8, 0}},
    {"Neck1", 5, {0, 4, 0}},
    {"Head", 6, {0, 6, 0}},
    {"HeadEnd", 7, {0, 15, 0}},
    {"LeftShoulder", 4, {5, 5, 0}},
    {"LeftArm", 9, {12, 0, 0}},
    {"LeftForeArm", 10, {28, 0, 0}},
    {"LeftHand", 11, {25, 0, 0}},
    {"LeftHandEnd", 12, {10, 0, 0}},
    {"LeftHandThumb", 12, {3, 0, 4}},
    {"RightShoulder", 4, {-5, 5, 0}},
    {"RightArm", 15, {-12, 0, 0}},
    {"RightForeArm", 16, {-28, 0, 0}},
    {"RightHand", 17, {-25, 0, 0}},
    {"RightHandEnd", 18, {-10, 0, 0}},
    {"RightHandThumb", 18, {-3, 0, 4}},
    {"LeftUpLeg", 0, {9, -5, 0}},
    {"LeftLeg", 21, {0, -42, 0}},
    {"LeftFoot", 22, {0, -40, 0}},
    {"LeftToe", 23, {0, -6, 12}},
    {"LeftToeEnd", 24, {0, 0, 6}},
    {"RightUpLeg", 0, {-9, -5, 0}},
    {"RightLeg", 26, {0, -42, 0}},
    {"RightFoot", 27, {0, -40, 0}},
    {"RightToe", 28, {0, -6, 12}},
    {"RightToeEnd", 29, {0, 0, 6}},
};
// 19 joints, and for each its body part.
constexpr Joint kTargetJoints[] = {
    {"Hips", -1, {0, 90, 0}},         {"Spine", 0, {0, 15, 0}},      {"Chest", 1, {0, 18, 0}},
    {"Neck", 2, {0, 12, 0}},          {"Head", 3, {0, 8, 0}},        {"LeftArm", 2, {15, 8, 0}},
    {"LeftForeArm", 5, {26, 0, 0}},   {"LeftHand", 6, {24, 0, 0}},   {"RightArm", 2, {-15, 8, 0}},
    {"RightForeArm", 8, {-26, 0, 0}}, {"RightHand", 9, {-24, 0, 0}}, {"LeftUpLeg", 0, {8, -4, 0}},
    {"LeftLeg", 11, {0, -40, 0}},     {"LeftFoot", 12, {0, -38, 0}}, {"LeftToe", 13, {0, -5, 10}},
    {"RightUpLeg", 0, {-8, -4, 0}},   {"RightLeg", 15, {0, -40, 0}}, {"RightFoot", 16, {0, -38, 0}},
    {"RightToe", 17, {0, -5, 10}},
};
constexpr int kSourceCount = sizeof(kSourceJoints) / sizeof(kSourceJoints[0]);
constexpr int kTargetCount = sizeof(kTargetJoints) / sizeof(kTargetJoints[0]);
static_assert(kSourceCount == 31 && kTargetCount == 19);
// The target joint each source joint drives.
constexpr int kSourceToTarget[kSourceCount] = {0,  1,  1,  2,  2,  3,  3,  4,  4,  5,  5,
                                               6,  7,  7,  7,  8,  8,  9,  10, 10, 10, 11,
                                               12, 13, 14, 14, 15, 16, 17, 18, 18};
// Body part of each target joint: 0 body, 1 head, 2 left arm, 3 right arm, 4 left leg, 5 right leg.
constexpr int kTargetBodyPart[kTargetCount] = {0, 0, 0, 1, 1, 2, 2, 2, 3, 3,
                                               3, 4, 4, 4, 4, 5, 5, 5, 5};

Matrix Rotation(const Vector& axis, double angle, const Vector& off) {
  const Vector n = axis * (1.0 / Length(axis));
  const double c = std::cos(angle);
  const double s = std::sin(angle);
  auto image = [&](const Vector& e) { return e * c + Cross(n, e) * s + n * (Dot(n, e) * (1 - c)); };
  return {off, image({1, 0, 0}), image({0, 1, 0}), image({0, 0, 1})};
}

template <typename T>
T Must(Result<T> result, const char* what) {
  if (!result) {
    std::fprintf(stderr, "%s failed: %.*s\n", what,
                 static_cast<int>(result.error().GetMessage().size()),
                 result.error().GetMessage().data());
    std::abort();
  }
  return std::move(result).value();
}
void Must(Result<void> result, const char* what) {
  if (!result) {
    std::fprintf(stderr, "%s failed\n", what);
    std::abort();
  }
}

// Globals of a joint chain from local matrices, parents first, and the pose of them.
template <std::size_t N>
CharacterPoseRef MakePose(const Joint (&joints)[N], const std::vector<Matrix>& locals,
                          std::uint64_t uuidBase, std::vector<CharacterNodeTransformRef>* nodes) {
  std::vector<Matrix> globals(N);
  BaseArray<CharacterNodeTransformRef> array;
  for (std::size_t j = 0; j < N; ++j) {
    const Matrix parent = joints[j].parent < 0 ? Matrix{} : globals[joints[j].parent];
    globals[j] = parent * locals[j];
    CharacterNodeTransformRef node = Must(
        CreateNodeTransform(Must(Uuid::Make(uuidBase, j + 1), "uuid"), globals[j], parent), "node");
    Must(node.MakeWritable().value()->SetName(String::Literal(joints[j].name)), "name");
    if (nodes != nullptr) nodes->push_back(node);
    Must(array.Append(std::move(node)), "append");
  }
  CharacterPoseRef pose(Must(CreateObject<CharacterPose>(CharacterPose::kClassId), "pose"));
  Must(Must(pose.MakeWritable(), "pose")->SetNodeTransformArray(array), "pose nodes");
  return pose;
}

template <std::size_t N>
std::vector<Matrix> RestLocals(const Joint (&joints)[N]) {
  std::vector<Matrix> locals(N);
  for (std::size_t j = 0; j < N; ++j)
    locals[j] = Rotation({1, 0.5, 0.25}, 0.05 * static_cast<double>(j % 5), joints[j].offset);
  return locals;
}

// Everything a frame reads, made once.
struct Scene {
  CharacterSolverRef solver;
  RetargetBaseHelperRef helper;
  CharacterSolverConfigurationRef config;
  CharacterAssociationRef association;
  CharacterPoseRef sourcePose;
  std::vector<CharacterNodeTransformRef> targetRest;
  std::vector<CharacterBodyPartRef> targetBodyPart;  // per target joint
  std::vector<CharacterBodyPartSolverSettingRef> targetSetting;

  Scene() {
    solver = Must(CreateObject<CharacterSolver>(CharacterSolver::kClassId), "solver");
    helper = Must(CreateObject<RetargetBaseHelper>(RetargetBaseHelper::kClassId), "helper");
    config =
        Must(CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId),
             "configuration");

    // Source: rest pose, and one frame of motion (every joint turned a little).
    std::vector<Matrix> sourceLocals = RestLocals(kSourceJoints);
    CharacterPoseRef sourceRest = MakePose(kSourceJoints, sourceLocals, 1, nullptr);
    for (int j = 0; j < kSourceCount; ++j) {
      const Matrix turn = Rotation({0.3, 1, -0.2}, 0.1 + 0.02 * j, {});
      const Vector off = sourceLocals[j].off;
      sourceLocals[j] = turn * sourceLocals[j];
      sourceLocals[j].off = off;
    }
    sourcePose = MakePose(kSourceJoints, sourceLocals, 1, nullptr);
    CharacterDefinitionRef source =
        Must(CreateObject<CharacterDefinition>(CharacterDefinition::kClassId), "definition");
    Must(source->SetSkeletonRestPose(sourceRest), "rest pose");

    // Target: rest pose and body parts with their settings.
    CharacterPoseRef targetRestPose =
        MakePose(kTargetJoints, RestLocals(kTargetJoints), 2, &targetRest);
    CharacterDefinitionRef target =
        Must(CreateObject<CharacterDefinition>(CharacterDefinition::kClassId), "definition");
    Must(target->SetSkeletonRestPose(targetRestPose), "rest pose");
    const char* partNames[] = {"body", "head", "leftarm", "rightarm", "leftleg", "rightleg"};
    const double partWeights[] = {1.0, 0.9, 0.8, 0.8, 1.0, 1.0};
    std::vector<CharacterBodyPartRef> parts;
    for (int p = 0; p < 6; ++p) {
      const InternedId id = Must(InternedId::Make(partNames[p]), "id");
      parts.push_back(Must(CreateBodyPart(id, String::Literal(partNames[p])), "body part"));
      if (p > 0) Must(parts[0]->InsertChild(parts[p]), "insert");
      CharacterBodyPartSolverSettingRef setting = Must(
          CreateObject<CharacterBodyPartSolverSetting>(CharacterBodyPartSolverSetting::kClassId),
          "setting");
      Must(setting->SetBodyPartIdentifier(id), "setting id");
      setting->SetBodyPartWeight(partWeights[p]);
      if (p == 1) setting->SetSettingValue(BodyPartSolverSettingFlag::NOPARENTWEIGHT, true);
      Must(config->SetBodyPartSetting(setting), "setting");
    }
    Must(target->SetBodyPartTree(parts[0]), "body parts");
    for (int j = 0; j < kTargetCount; ++j) {
      targetBodyPart.push_back(parts[kTargetBodyPart[j]]);
      targetSetting.push_back(
          config->GetBodyPartSetting(parts[kTargetBodyPart[j]]->GetIdentifier()));
    }

    // Every source joint drives one target joint.
    association = CharacterAssociationRef(
        Must(CreateObject<CharacterAssociation>(CharacterAssociation::kClassId), "association"));
    CharacterAssociation* table = Must(association.MakeWritable(), "association");
    const BaseArray<CharacterNodeTransformRef>& sourceNodes = sourceRest->GetNodeTransformArray();
    for (int j = 0; j < kSourceCount; ++j) {
      Must(table->AssociateUuid(sourceNodes[j]->GetUuid(),
                                targetRest[kSourceToTarget[j]]->GetUuid()),
           "associate");
    }
    Must(config->Setup(source, target, association), "setup");
    Must(config->Validate(), "validate");
  }

  // One frame; the new local matrices of the target joints land in `locals`. Kept out of line so
  // that an instruction-count profile can be limited to it.
  [[gnu::noinline]] Result<void> Frame(Matrix* locals) const noexcept {
    const CharacterPoseRef deltas = TARNI_TRY(solver->ExtractGlobalDeltaPose(config, sourcePose));
    const CharacterPoseRef translated =
        TARNI_TRY(helper->TranslateSrcToDestID(association, deltas));
    const Float64 globalWeight = config->GetGlobalWeight();
    for (int j = 0; j < kTargetCount; ++j) {
      const CharacterNodeTransformRef& node = targetRest[j];
      const CharacterNodeTransformRef delta =
          TARNI_TRY(translated->GetNodeTransformByID(node->GetUuid()));
      const Float64 weight = TARNI_TRY(solver->GetCumulatedWeight(targetBodyPart[j], config));
      locals[j] = TARNI_TRY(
          solver->ApplyGlobalRotationDelta(node, delta, targetSetting[j], weight * globalWeight));
    }
    return OK;
  }
};

void BM_RetargetFrame(benchmark::State& state) {
  static const Scene scene;
  Matrix locals[kTargetCount];
  for (auto _ : state) {
    if (!scene.Frame(locals)) {
      state.SkipWithError("frame failed");
      break;
    }
    benchmark::DoNotOptimize(locals);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel("frames");
}
BENCHMARK(BM_RetargetFrame);

// The frame's three stages alone, to see where its time goes.
void BM_ExtractStage(benchmark::State& state) {
  static const Scene scene;
  for (auto _ : state) {
    auto deltas = scene.solver->ExtractGlobalDeltaPose(scene.config, scene.sourcePose);
    benchmark::DoNotOptimize(deltas);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ExtractStage);

void BM_TranslateStage(benchmark::State& state) {
  static const Scene scene;
  const CharacterPoseRef deltas =
      Must(scene.solver->ExtractGlobalDeltaPose(scene.config, scene.sourcePose), "extract");
  for (auto _ : state) {
    auto translated = scene.helper->TranslateSrcToDestID(scene.association, deltas);
    benchmark::DoNotOptimize(translated);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TranslateStage);

void BM_ApplyStage(benchmark::State& state) {
  static const Scene scene;
  const CharacterPoseRef translated = Must(
      scene.helper->TranslateSrcToDestID(
          scene.association,
          Must(scene.solver->ExtractGlobalDeltaPose(scene.config, scene.sourcePose), "extract")),
      "translate");
  Matrix locals[kTargetCount];
  for (auto _ : state) {
    for (int j = 0; j < kTargetCount; ++j) {
      const CharacterNodeTransformRef& node = scene.targetRest[j];
      const CharacterNodeTransformRef delta =
          translated->GetNodeTransformByID(node->GetUuid()).value();
      const Float64 weight =
          scene.solver->GetCumulatedWeight(scene.targetBodyPart[j], scene.config).value();
      locals[j] =
          scene.solver->ApplyGlobalRotationDelta(node, delta, scene.targetSetting[j], weight)
              .value();
    }
    benchmark::DoNotOptimize(locals);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ApplyStage);

}  // namespace
}  // namespace tarni

int main(int argc, char** argv) {
  if (!tarni::RegisterModule(tarni::ca::GetModuleBlock())) {
    std::fprintf(stderr, "module registration failed\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
