// Small characters built through the module's interfaces, for tests that need a whole set-up
// rather than one object: chain skeletons and their poses, definitions and solver configurations.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string_view>
#include <vector>

#include "tarni/charactersolver.h"

namespace tarni::testing {

// The value of a result the test relies on; a failure is reported and an empty value returned.
template <typename T>
T Must(Result<T> result) {
  if (!result) {
    ADD_FAILURE() << "set-up failed: " << result.error().GetMessage();
    return T();
  }
  return std::move(result).value();
}

inline Uuid U(std::uint64_t low) { return Must(Uuid::Make(0x5A, low)); }
inline InternedId Ident(std::string_view text) { return Must(InternedId::Make(text)); }
inline String Text(std::string_view text) { return Must(String::Make(text)); }

// A rotation by `angle` about the axis (1, 2, 3) normalised, then an offset.
inline Matrix Turn(double angle, const Vector& offset) {
  const Vector n = Vector{1.0, 2.0, 3.0} * (1.0 / std::sqrt(14.0));
  const double c = std::cos(angle);
  const double s = std::sin(angle);
  auto image = [&](const Vector& e) { return e * c + Cross(n, e) * s + n * (Dot(n, e) * (1 - c)); };
  return {offset, image({1, 0, 0}), image({0, 1, 0}), image({0, 0, 1})};
}

inline CharacterPoseRef MakePose(const BaseArray<CharacterNodeTransformRef>& nodes) {
  CharacterPoseRef pose(Must(CreateObject<CharacterPose>(CharacterPose::kClassId)));
  if (pose) {
    EXPECT_TRUE(Must(pose.MakeWritable())->SetNodeTransformArray(nodes));
  }
  return pose;
}

// The nodes, in order, as the array a pose takes.
inline BaseArray<CharacterNodeTransformRef> NodeArray(
    const std::vector<CharacterNodeTransformRef>& nodes) {
  BaseArray<CharacterNodeTransformRef> array;
  for (const auto& node : nodes) EXPECT_TRUE(array.Append(node));
  return array;
}
inline CharacterPoseRef MakePose(const std::vector<CharacterNodeTransformRef>& nodes) {
  return MakePose(NodeArray(nodes));
}

// The pose of a chain of `count` nodes with Uuids first, first + 1, ...: node i is turned by
// phase * (i + 1) against its parent and sits one unit along its parent's first axis.
inline CharacterPoseRef ChainPose(int count, std::uint64_t first, double phase) {
  BaseArray<CharacterNodeTransformRef> nodes;
  Matrix parent;
  for (int i = 0; i < count; ++i) {
    const Matrix global = parent * Turn(phase * (i + 1), {1.0, 0.0, 0.0});
    EXPECT_TRUE(nodes.Append(Must(CreateNodeTransform(U(first + i), global, parent))));
    parent = global;
  }
  return MakePose(nodes);
}

inline CharacterDefinitionRef MakeDefinition(const CharacterPoseRef& skeletonRest,
                                             const CharacterBodyPartRef& bodyParts = nullptr,
                                             const CharacterTreeRef& skeleton = nullptr) {
  CharacterDefinitionRef definition =
      Must(CreateObject<CharacterDefinition>(CharacterDefinition::kClassId));
  if (!definition) return definition;
  EXPECT_TRUE(definition->SetSkeletonRestPose(skeletonRest));
  EXPECT_TRUE(definition->SetControllersRestPose(skeletonRest));
  EXPECT_TRUE(definition->SetBodyPartTree(bodyParts));
  EXPECT_TRUE(definition->SetSkeletonTree(skeleton));
  return definition;
}

inline CharacterBodyPartSolverSettingRef MakeSetting(const InternedId& identifier, double weight,
                                                     bool position, bool scale) {
  CharacterBodyPartSolverSettingRef setting =
      Must(CreateObject<CharacterBodyPartSolverSetting>(CharacterBodyPartSolverSetting::kClassId));
  if (!setting) return setting;
  EXPECT_TRUE(setting->SetBodyPartIdentifier(identifier));
  setting->SetBodyPartWeight(weight);
  setting->SetTransformActive(TransformComponent::POSITION, position);
  setting->SetTransformActive(TransformComponent::SCALE, scale);
  setting->SetTransformWeight(TransformComponent::ROTATION, 0.75);
  return setting;
}

}  // namespace tarni::testing
