#include "retarget/retargeter.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "tarni/classes.h"

namespace tarni::host {
namespace {

using tarni::Matrix;
using tarni::Vector;

Matrix Transposed(const Matrix& m) {
  Matrix t;
  t.v1 = {m.v1.x, m.v2.x, m.v3.x};
  t.v2 = {m.v1.y, m.v2.y, m.v3.y};
  t.v3 = {m.v1.z, m.v2.z, m.v3.z};
  return t;
}

// The rotation part only, no translation.
Matrix RotationOf(const Matrix& m) {
  Matrix r = m;
  r.off = {};
  return r;
}

Vector Normalized(const Vector& v) {
  const double length = Length(v);
  return length > 0 ? v * (1.0 / length) : v;
}

// The smallest rotation turning direction `from` into direction `to` (both non-zero).
Matrix Swing(const Vector& from, const Vector& to) {
  const Vector u = Normalized(from);
  const Vector v = Normalized(to);
  const double c = Dot(u, v);
  Vector k = Cross(u, v);
  if (c < -1.0 + 1e-12) {
    // Opposite directions: half a turn about any axis across them.
    Vector axis = Cross(u, {1, 0, 0});
    if (Length(axis) < 1e-6) axis = Cross(u, {0, 1, 0});
    axis = Normalized(axis);
    auto turn = [&](const Vector& x) { return axis * (2 * Dot(axis, x)) - x; };
    return {{}, turn({1, 0, 0}), turn({0, 1, 0}), turn({0, 0, 1})};
  }
  // Rodrigues with an unnormalised axis: R x = x + k x x + k x (k x x) / (1 + c).
  auto turn = [&](const Vector& x) {
    const Vector kx = Cross(k, x);
    return x + kx + Cross(k, kx) * (1.0 / (1.0 + c));
  };
  return {{}, turn({1, 0, 0}), turn({0, 1, 0}), turn({0, 0, 1})};
}

bool IsAncestorOrSelf(const BvhMotion& motion, int ancestor, int joint) {
  for (int j = joint; j >= 0; j = motion.joints[static_cast<size_t>(j)].parent) {
    if (j == ancestor) return true;
  }
  return false;
}

int Depth(const BvhMotion& motion, int joint) {
  int depth = 0;
  for (int j = motion.joints[static_cast<size_t>(joint)].parent; j >= 0;
       j = motion.joints[static_cast<size_t>(j)].parent)
    ++depth;
  return depth;
}

// The direction a leaf joint's bone points at rest, in its own frame: towards its first child,
// else its End Site; zero when it has neither.
Vector LeafDirection(const BvhMotion& motion, int joint) {
  for (size_t c = static_cast<size_t>(joint) + 1; c < motion.joints.size(); ++c) {
    if (motion.joints[c].parent == joint) {
      const double* o = motion.joints[c].offset;
      return {o[0], o[1], o[2]};
    }
  }
  const BvhJoint& self = motion.joints[static_cast<size_t>(joint)];
  if (self.hasEndSite) return {self.endSite[0], self.endSite[1], self.endSite[2]};
  return {};
}

bool ModuleFail(IoError& error, std::string_view file, const tarni::Error& cause,
                std::string_view what) {
  error.file = file;
  error.line = 0;
  error.message = std::string(what) + ": " + std::string(cause.GetMessage());
  if (cause.GetMessage().empty()) error.message += std::string(cause.GetId().GetText());
  return false;
}

tarni::Result<tarni::String> MakeString(std::string_view text) { return tarni::String::Make(text); }

tarni::Result<tarni::BaseArray<tarni::String>> MakeStrings(const std::vector<std::string>& list) {
  tarni::BaseArray<tarni::String> out;
  for (const std::string& text : list) TARNI_TRY(out.Append(TARNI_TRY(MakeString(text))));
  return out;
}

tarni::Result<void> BuildBodyPartList(const Preset& preset,
                                      std::vector<tarni::CharacterBodyPartRef>& parts) {
  parts.clear();
  for (const PresetBodyPart& entry : preset.parts) {
    const tarni::InternedId id = TARNI_TRY(tarni::InternedId::Make(entry.id));
    tarni::CharacterBodyPartRef part =
        TARNI_TRY(tarni::CreateBodyPart(id, TARNI_TRY(MakeString(entry.name))));
    TARNI_TRY(part->SetSkeletonKeywords(TARNI_TRY(MakeStrings(entry.keywords))));
    TARNI_TRY(part->SetSkeletonDiscardKeywords(TARNI_TRY(MakeStrings(entry.discard))));
    if (entry.parent >= 0) TARNI_TRY(parts[static_cast<size_t>(entry.parent)]->InsertChild(part));
    parts.push_back(std::move(part));
  }
  if (parts.empty()) return tarni::IllegalArgumentError("The preset has no body parts.");
  return tarni::OK;
}

}  // namespace

tarni::Result<tarni::CharacterBodyPartRef> BuildBodyParts(const Preset& preset) {
  std::vector<tarni::CharacterBodyPartRef> parts;
  TARNI_TRY(BuildBodyPartList(preset, parts));
  return parts.front();
}

namespace {

// The host's side of a character: position modes, and the rest pose standing on the ground.
bool PrepareRest(const BvhMotion& motion, std::string_view fileName, int64_t restFrame,
                 PositionChoice positions, Character& character, IoError& error) {
  character = Character();
  character.motion = &motion;
  if (motion.joints.empty()) {
    error = {std::string(fileName), 0, "the skeleton has no joints"};
    return false;
  }
  const size_t count = motion.joints.size();
  switch (positions) {
    case PositionChoice::kAuto:
      character.modes = GuessPositionModes(motion);
      break;
    case PositionChoice::kAbsolute:
      character.modes.assign(count, PositionMode::kAbsolute);
      break;
    case PositionChoice::kRelative:
      character.modes.assign(count, PositionMode::kRelative);
      break;
  }
  if (restFrame >= 0) {
    if (restFrame >= motion.frameCount) {
      error = {std::string(fileName), 0,
               "the rest frame " + std::to_string(restFrame) + " is past the last frame (" +
                   std::to_string(motion.frameCount - 1) + ")"};
      return false;
    }
    ComputeFrame(motion, restFrame, character.modes, character.restLocals, character.restGlobals);
  } else {
    ComputeRestPose(motion, character.restLocals, character.restGlobals);
  }
  // Stand the rest pose on the ground: its lowest joint at y = 0.
  double lowest = std::numeric_limits<double>::infinity();
  for (const Matrix& global : character.restGlobals) lowest = std::min(lowest, global.off.y);
  if (!std::isfinite(lowest)) {
    error = {std::string(fileName), 0, "the rest pose holds numbers that are not finite"};
    return false;
  }
  character.groundShift = -lowest;
  for (size_t j = 0; j < count; ++j) {
    if (motion.joints[j].parent < 0) character.restLocals[j].off.y += character.groundShift;
  }
  ComputeGlobals(motion, character.restLocals, character.restGlobals);
  character.hipHeight = character.restGlobals[0].off.y;

  return true;
}

}  // namespace

bool BuildCharacter(const BvhMotion& motion, std::string_view fileName, const Preset& preset,
                    int64_t restFrame, PositionChoice positions, Character& character,
                    IoError& error) {
  if (!PrepareRest(motion, fileName, restFrame, positions, character, error)) return false;
  if (!CheckPresetJoints(preset, motion, fileName, error)) return false;
  const size_t count = motion.joints.size();
  auto built = [&]() -> tarni::Result<void> {
    std::vector<tarni::CharacterTreeRef> nodes;
    tarni::BaseArray<tarni::CharacterNodeTransformRef> restNodes;
    for (size_t j = 0; j < count; ++j) {
      const BvhJoint& joint = motion.joints[j];
      character.uuids.push_back(TARNI_TRY(tarni::Uuid::Generate()));
      nodes.push_back(TARNI_TRY(
          tarni::CreateTree(character.uuids[j], TARNI_TRY(MakeString(joint.name)), true)));
      if (joint.parent >= 0)
        TARNI_TRY(nodes[static_cast<size_t>(joint.parent)]->InsertChild(nodes[j]));
      const Matrix parentGlobal =
          joint.parent >= 0 ? character.restGlobals[static_cast<size_t>(joint.parent)] : Matrix();
      TARNI_TRY(restNodes.Append(TARNI_TRY(
          tarni::CreateNodeTransform(character.uuids[j], character.restGlobals[j], parentGlobal))));
    }
    tarni::CharacterPoseRef restPose(
        TARNI_TRY(tarni::CreateObject<tarni::CharacterPose>(tarni::CharacterPose::kClassId)));
    TARNI_TRY(TARNI_TRY(restPose.MakeWritable())->SetNodeTransformArray(restNodes));

    std::vector<tarni::CharacterBodyPartRef> parts;
    TARNI_TRY(BuildBodyPartList(preset, parts));
    tarni::RetargetBaseHelperRef helper = TARNI_TRY(
        tarni::CreateObject<tarni::RetargetBaseHelper>(tarni::RetargetBaseHelper::kClassId));
    TARNI_TRY(helper->FillBodyPart(nodes.front(), parts.front()));
    for (size_t p = 0; p < parts.size(); ++p) {
      const PresetBodyPart& entry = preset.parts[p];
      if (entry.joints.empty()) continue;
      tarni::BaseArray<tarni::Uuid> skeleton;
      for (const std::string& name : entry.joints)
        TARNI_TRY(skeleton.Append(character.uuids[static_cast<size_t>(motion.FindJoint(name))]));
      TARNI_TRY(parts[p]->SetSkeleton(skeleton));
    }
    character.bodyPartOf.assign(count, nullptr);
    for (const tarni::CharacterBodyPartRef& part : parts) {
      for (const tarni::Uuid& uuid : part->GetSkeleton()) {
        for (size_t j = 0; j < count; ++j) {
          if (character.uuids[j] == uuid && !character.bodyPartOf[j])
            character.bodyPartOf[j] = part;
        }
      }
    }

    tarni::CharacterDefinitionRef definition = TARNI_TRY(
        tarni::CreateObject<tarni::CharacterDefinition>(tarni::CharacterDefinition::kClassId));
    TARNI_TRY(definition->SetUuid(TARNI_TRY(tarni::Uuid::Generate())));
    TARNI_TRY(definition->SetName(
        TARNI_TRY(MakeString(std::filesystem::path(std::string(fileName)).stem().string()))));
    TARNI_TRY(definition->SetSkeletonTree(nodes.front()));
    TARNI_TRY(definition->SetBodyPartTree(parts.front()));
    TARNI_TRY(definition->SetSkeletonRestPose(restPose));
    character.definition = std::move(definition);
    return tarni::OK;
  }();
  if (!built) return ModuleFail(error, fileName, built.error(), "cannot build the character");
  return true;
}

int64_t PresetMatchCount(const BvhMotion& motion, const Preset& preset) {
  Character character;
  IoError error;
  if (!BuildCharacter(motion, "", preset, -1, PositionChoice::kAuto, character, error)) return -1;
  auto helper = tarni::CreateObject<tarni::RetargetBaseHelper>(tarni::RetargetBaseHelper::kClassId);
  if (!helper) return -1;
  auto count = helper.value()->FindSkeletonMatchingCount(
      character.definition->GetBodyPartTree(), character.definition->GetSkeletonRestPose(), true);
  return count ? count.value() : -1;
}

int PickPreset(const BvhMotion& motion, const std::vector<Preset>& presets, int64_t* bestCount) {
  int best = -1;
  int64_t bestMatches = -1;
  for (size_t p = 0; p < presets.size(); ++p) {
    const int64_t matches = PresetMatchCount(motion, presets[p]);
    if (matches > bestMatches) {
      bestMatches = matches;
      best = static_cast<int>(p);
    }
  }
  if (bestCount != nullptr) *bestCount = bestMatches;
  return best;
}

bool Retargeter::Fail(IoError& error, const tarni::Error& cause, std::string_view what) const {
  return ModuleFail(error, _sourceName, cause, what);
}

int Retargeter::MappedJointCount() const {
  return static_cast<int>(std::count_if(_deltaIndexOfTarget.begin(), _deltaIndexOfTarget.end(),
                                        [](int k) { return k >= 0; }));
}

// Re-poses the target's rest so that each driven bone points the way its source bone points in
// the source's rest, parents first, so arms hanging down and arms held level meet. A bone runs
// from a joint to its nearest driven descendant whose source partner descends from the joint's
// partner (among equals, the one continuing the parent's direction best, so a chest points at
// the neck rather than at a collar bone); a joint without one uses its first child or End Site.
// The root keeps its facing.
void Retargeter::AlignRest() {
  const BvhMotion& target = *_target.motion;
  const BvhMotion& source = *_source.motion;
  _alignedLocals = _target.restLocals;
  ComputeGlobals(target, _alignedLocals, _alignedGlobals);
  if (!_options.alignRest) return;
  const int count = static_cast<int>(target.joints.size());
  for (int j = 0; j < count; ++j) {
    const int parent = target.joints[static_cast<size_t>(j)].parent;
    const int s = _sourceOf[static_cast<size_t>(j)];
    if (parent < 0 || s < 0 || _deltaIndexOfTarget[static_cast<size_t>(j)] < 0) continue;
    const Vector here = _alignedGlobals[static_cast<size_t>(j)].off;
    const Vector along = Normalized(here - _alignedGlobals[static_cast<size_t>(parent)].off);
    int best = -1;
    int bestDepth = 0;
    double bestScore = 0;
    for (int c = j + 1; c < count && IsAncestorOrSelf(target, j, c); ++c) {
      const int partner = _sourceOf[static_cast<size_t>(c)];
      if (partner < 0 || partner == s || !IsAncestorOrSelf(source, s, partner)) continue;
      const Vector to = _alignedGlobals[static_cast<size_t>(c)].off - here;
      if (Length(to) < 1e-9) continue;
      const int depth = Depth(target, c);
      const double score = Dot(Normalized(to), along);
      if (best < 0 || depth < bestDepth || (depth == bestDepth && score > bestScore)) {
        best = c;
        bestDepth = depth;
        bestScore = score;
      }
    }
    Vector targetDirection, sourceDirection;
    if (best >= 0) {
      targetDirection = _alignedGlobals[static_cast<size_t>(best)].off - here;
      sourceDirection =
          _source.restGlobals[static_cast<size_t>(_sourceOf[static_cast<size_t>(best)])].off -
          _source.restGlobals[static_cast<size_t>(s)].off;
    } else {
      targetDirection =
          TransformVector(_alignedGlobals[static_cast<size_t>(j)], LeafDirection(target, j));
      sourceDirection =
          TransformVector(_source.restGlobals[static_cast<size_t>(s)], LeafDirection(source, s));
    }
    if (Length(targetDirection) < 1e-9 || Length(sourceDirection) < 1e-9) continue;
    const Matrix swung = Swing(targetDirection, sourceDirection) *
                         RotationOf(_alignedGlobals[static_cast<size_t>(j)]);
    Matrix local = Transposed(RotationOf(_alignedGlobals[static_cast<size_t>(parent)])) * swung;
    local.off = _alignedLocals[static_cast<size_t>(j)].off;
    _alignedLocals[static_cast<size_t>(j)] = local;
    ComputeGlobals(target, _alignedLocals, _alignedGlobals);
  }
}

bool Retargeter::Setup(const BvhMotion& source, std::string_view sourceName,
                       const Preset& sourcePreset, const BvhMotion& target,
                       std::string_view targetName, const Preset& targetPreset,
                       const RetargetOptions& options, IoError& error) {
  _sourceName = sourceName;
  _options = options;
  _restPoseSources.clear();
  if (!std::isfinite(options.weight)) {
    error = {"", 0, "the weight must be a finite number"};
    return false;
  }
  if (!BuildCharacter(source, sourceName, sourcePreset, options.restFrame, options.positions,
                      _source, error))
    return false;
  if (!BuildCharacter(target, targetName, targetPreset, -1, options.positions, _target, error))
    return false;
  const size_t targetCount = target.joints.size();

  auto created = [&]() -> tarni::Result<void> {
    _helper = TARNI_TRY(
        tarni::CreateObject<tarni::RetargetBaseHelper>(tarni::RetargetBaseHelper::kClassId));
    _solver =
        TARNI_TRY(tarni::CreateObject<tarni::CharacterSolver>(tarni::CharacterSolver::kClassId));
    _association = TARNI_TRY(_helper->AssociateBodyPartsByIdentifier(
        _source.definition->GetBodyPartTree(), _target.definition->GetBodyPartTree(), _statistics));
    return tarni::OK;
  }();
  if (!created) return Fail(error, created.error(), "cannot associate the characters");

  if (!LinkJoints(targetName, error)) return false;
  _ratio = _source.hipHeight > 1e-9 && _target.hipHeight > 1e-9
               ? _target.hipHeight / _source.hipHeight
               : 1.0;

  AlignRest();

  auto configured = [&]() -> tarni::Result<void> {
    tarni::BaseArray<tarni::CharacterNodeTransformRef> sourceRest;
    for (int s : _restPoseSources) {
      const int parent = source.joints[static_cast<size_t>(s)].parent;
      TARNI_TRY(sourceRest.Append(TARNI_TRY(tarni::CreateNodeTransform(
          _source.uuids[static_cast<size_t>(s)], _source.restGlobals[static_cast<size_t>(s)],
          parent >= 0 ? _source.restGlobals[static_cast<size_t>(parent)] : Matrix()))));
    }
    tarni::CharacterPoseRef sourcePose(
        TARNI_TRY(tarni::CreateObject<tarni::CharacterPose>(tarni::CharacterPose::kClassId)));
    TARNI_TRY(TARNI_TRY(sourcePose.MakeWritable())->SetNodeTransformArray(sourceRest));
    TARNI_TRY(_source.definition->SetSkeletonRestPose(sourcePose));

    tarni::BaseArray<tarni::CharacterNodeTransformRef> targetRest;
    for (size_t j = 0; j < targetCount; ++j) {
      const int parent = target.joints[j].parent;
      const Matrix parentGlobal =
          parent >= 0 ? _alignedGlobals[static_cast<size_t>(parent)] : Matrix();
      TARNI_TRY(targetRest.Append(TARNI_TRY(
          tarni::CreateNodeTransform(_target.uuids[j], _alignedGlobals[j], parentGlobal))));
    }
    tarni::CharacterPoseRef targetPose(
        TARNI_TRY(tarni::CreateObject<tarni::CharacterPose>(tarni::CharacterPose::kClassId)));
    TARNI_TRY(TARNI_TRY(targetPose.MakeWritable())->SetNodeTransformArray(targetRest));
    TARNI_TRY(_target.definition->SetSkeletonRestPose(targetPose));

    _config = TARNI_TRY(tarni::CreateObject<tarni::CharacterSolverConfiguration>(
        tarni::CharacterSolverConfiguration::kClassId));
    TARNI_TRY(_config->Setup(_source.definition, _target.definition, _association));
    TARNI_TRY(_config->Validate());
    _config->SetGlobalWeight(options.weight);
    _config->SetSolvingMode(tarni::SolvingMode::SKELETONTOSKELETON);
    for (const PresetBodyPart& entry : targetPreset.parts) {
      tarni::CharacterBodyPartSolverSettingRef setting =
          TARNI_TRY(tarni::CreateObject<tarni::CharacterBodyPartSolverSetting>(
              tarni::CharacterBodyPartSolverSetting::kClassId));
      TARNI_TRY(setting->SetBodyPartIdentifier(TARNI_TRY(tarni::InternedId::Make(entry.id))));
      setting->SetBodyPartWeight(entry.weight);
      setting->SetTransformActive(tarni::TransformComponent::POSITION, entry.position);
      // The root travels the source's path at the target's size.
      setting->SetTransformWeight(tarni::TransformComponent::POSITION, _ratio);
      setting->SetSettingValue(tarni::BodyPartSolverSettingFlag::DEACTIVATE, entry.deactivate);
      setting->SetSettingValue(tarni::BodyPartSolverSettingFlag::NOPARENTWEIGHT,
                               entry.noParentWeight);
      TARNI_TRY(_config->SetBodyPartSetting(setting));
    }
    return tarni::OK;
  }();
  if (!configured) return Fail(error, configured.error(), "cannot configure the solver");
  return MakeSolverState(error);
}

namespace {

// Every node of a hierarchy, parents first.
template <typename I>
void CollectHierarchy(const tarni::Ref<I>& root, std::vector<tarni::Ref<I>>& out) {
  if (!root) return;
  out.push_back(root);
  for (tarni::Int c = 0; c < root->GetChildCount(); ++c)
    CollectHierarchy(tarni::Cast<I>(root->GetChild(c)), out);
}

// A character of a stored set-up: the clip's joints take the Uuids of the tree nodes of the same
// name (a joint the tree lacks gets a fresh one and is not driven); body parts come as stored.
bool AdoptDefinition(const tarni::CharacterDefinitionRef& definition, const BvhMotion& motion,
                     std::string_view fileName, int64_t restFrame, PositionChoice positions,
                     Character& character, IoError& error) {
  if (!PrepareRest(motion, fileName, restFrame, positions, character, error)) return false;
  if (!definition || !definition->GetSkeletonTree()) {
    error = {std::string(fileName), 0, "the set-up holds no skeleton for this character"};
    return false;
  }
  std::vector<tarni::CharacterTreeRef> nodes;
  CollectHierarchy(definition->GetSkeletonTree(), nodes);
  for (const BvhJoint& joint : motion.joints) {
    auto found = std::find_if(nodes.begin(), nodes.end(), [&](const tarni::CharacterTreeRef& node) {
      return node->GetName() == std::string_view(joint.name);
    });
    if (found != nodes.end()) {
      character.uuids.push_back((*found)->GetUuid());
      continue;
    }
    auto fresh = tarni::Uuid::Generate();
    if (!fresh) return ModuleFail(error, fileName, fresh.error(), "cannot name a joint");
    character.uuids.push_back(fresh.value());
  }
  std::vector<tarni::CharacterBodyPartRef> parts;
  CollectHierarchy(definition->GetBodyPartTree(), parts);
  character.bodyPartOf.assign(motion.joints.size(), nullptr);
  for (const tarni::CharacterBodyPartRef& part : parts) {
    for (const tarni::Uuid& uuid : part->GetSkeleton()) {
      for (size_t j = 0; j < motion.joints.size(); ++j) {
        if (character.uuids[j] == uuid && !character.bodyPartOf[j]) character.bodyPartOf[j] = part;
      }
    }
  }
  character.definition = definition;
  return true;
}

}  // namespace

bool Retargeter::SetupFromConfiguration(const tarni::CharacterSolverConfigurationRef& config,
                                        const BvhMotion& source, std::string_view sourceName,
                                        const BvhMotion& target, std::string_view targetName,
                                        const RetargetOptions& options, IoError& error) {
  _sourceName = sourceName;
  _options = options;
  _restPoseSources.clear();
  _config = config;
  if (!config) {
    error = {_sourceName, 0, "no solver set-up"};
    return false;
  }
  if (auto valid = config->Validate(); !valid)
    return Fail(error, valid.error(), "the solver set-up is not complete");
  if (!AdoptDefinition(config->GetSourceCharacter(), source, sourceName, options.restFrame,
                       options.positions, _source, error) ||
      !AdoptDefinition(config->GetTargetCharacter(), target, targetName, -1, options.positions,
                       _target, error))
    return false;
  auto created = [&]() -> tarni::Result<void> {
    _helper = TARNI_TRY(
        tarni::CreateObject<tarni::RetargetBaseHelper>(tarni::RetargetBaseHelper::kClassId));
    _solver =
        TARNI_TRY(tarni::CreateObject<tarni::CharacterSolver>(tarni::CharacterSolver::kClassId));
    return tarni::OK;
  }();
  if (!created) return Fail(error, created.error(), "cannot create the solver");
  _association = config->GetCharacterAssociation();
  if (!_association) {
    error = {_sourceName, 0, "the solver set-up holds no association"};
    return false;
  }
  // The stored source rest pose decides which joints are solved, in its order.
  const tarni::CharacterPoseRef& sourceRest = _source.definition->GetSkeletonRestPose();
  if (!sourceRest) {
    error = {_sourceName, 0, "the solver set-up holds no source rest pose"};
    return false;
  }
  for (const tarni::CharacterNodeTransformRef& node : sourceRest->GetNodeTransformArray()) {
    const auto at = node ? std::find(_source.uuids.begin(), _source.uuids.end(), node->GetUuid())
                         : _source.uuids.end();
    if (at == _source.uuids.end()) {
      error = {_sourceName, 0,
               "the set-up's source rest pose holds a joint this clip lacks" +
                   (node ? " ('" + std::string(node->GetName().GetView()) + "')" : "")};
      return false;
    }
    _restPoseSources.push_back(static_cast<int>(at - _source.uuids.begin()));
  }
  if (!LinkJoints(targetName, error)) return false;

  // The stored target rest (aligned when it was made): its rotations, at this clip's offsets.
  const size_t targetCount = target.joints.size();
  const tarni::CharacterPoseRef& targetRest = _target.definition->GetSkeletonRestPose();
  _alignedLocals = _target.restLocals;
  _alignedGlobals.assign(targetCount, Matrix());
  for (size_t j = 0; j < targetCount; ++j) {
    const int parent = target.joints[j].parent;
    const Matrix parentGlobal =
        parent >= 0 ? _alignedGlobals[static_cast<size_t>(parent)] : Matrix();
    tarni::CharacterNodeTransformRef node;
    if (targetRest) {
      auto found = targetRest->GetNodeTransformByID(_target.uuids[j]);
      if (found) node = found.value();
    }
    if (node) {
      Matrix local = Transposed(RotationOf(parentGlobal)) * RotationOf(node->GetGlobalMatrix());
      local.off = parent >= 0 ? _target.restLocals[j].off : node->GetGlobalMatrix().off;
      _alignedLocals[j] = local;
    }
    _alignedGlobals[j] = parentGlobal * _alignedLocals[j];
  }
  if (!MakeSolverState(error)) return false;
  _ratio = 1.0;
  if (_settingOf[0] && _settingOf[0]->IsTransformActive(tarni::TransformComponent::POSITION))
    _ratio = _settingOf[0]->GetTransformWeight(tarni::TransformComponent::POSITION);
  return true;
}

// Which source joint drives each target joint, through the association's node table, and where
// its delta sits in the source rest pose.
bool Retargeter::LinkJoints(std::string_view targetName, IoError& error) {
  const size_t targetCount = _target.motion->joints.size();
  const size_t sourceCount = _source.motion->joints.size();
  const bool fromStoredPose = !_restPoseSources.empty();
  // Which source joint drives each target joint, through the association's node table.
  _sourceOf.assign(targetCount, -1);
  std::vector<bool> driving(sourceCount, false);
  for (size_t j = 0; j < targetCount; ++j) {
    auto partner = _association->GetAssociatedUuid(_target.uuids[j]);
    if (!partner) continue;
    for (size_t s = 0; s < sourceCount; ++s) {
      if (_source.uuids[s] == partner.value()) {
        _sourceOf[j] = static_cast<int>(s);
        driving[s] = true;
        break;
      }
    }
  }
  // The source rest pose the configuration sees holds the associated joints only: a frame
  // extracts no delta that drives nothing, and a host that renames the deltas of a stored set-up
  // (TranslateSrcToDestID) stops at the first node without a partner.
  std::vector<int> restIndexOf(sourceCount, -1);
  if (!fromStoredPose) {
    _restPoseSources.clear();
    for (size_t s = 0; s < sourceCount; ++s) {
      if (driving[s]) _restPoseSources.push_back(static_cast<int>(s));
    }
  }
  for (size_t k = 0; k < _restPoseSources.size(); ++k)
    restIndexOf[static_cast<size_t>(_restPoseSources[k])] = static_cast<int>(k);
  _deltaIndexOfTarget.assign(targetCount, -1);
  for (size_t j = 0; j < targetCount; ++j) {
    if (_sourceOf[j] >= 0) _deltaIndexOfTarget[j] = restIndexOf[static_cast<size_t>(_sourceOf[j])];
  }
  if (_restPoseSources.empty()) {
    error = {_sourceName, 0,
             "no joint of the source pairs with a joint of " + std::string(targetName)};
    return false;
  }
  return true;
}

// The working copies of the target's nodes, and each driven joint's setting and weight.
bool Retargeter::MakeSolverState(IoError& error) {
  const BvhMotion& target = *_target.motion;
  const size_t targetCount = target.joints.size();
  auto made = [&]() -> tarni::Result<void> {
    _targetNodes.clear();
    for (size_t j = 0; j < targetCount; ++j) {
      const int parent = target.joints[j].parent;
      const Matrix parentGlobal =
          parent >= 0 ? _alignedGlobals[static_cast<size_t>(parent)] : Matrix();
      _targetNodes.push_back(TARNI_TRY(
          tarni::CreateNodeTransform(_target.uuids[j], _alignedGlobals[j], parentGlobal)));
    }
    // A source node's parent global is its rest parent's every frame; only its global changes.
    const BvhMotion& source = *_source.motion;
    _sourceNodes.Reset();
    TARNI_TRY(_sourceNodes.EnsureCapacity(static_cast<tarni::Int>(_restPoseSources.size())));
    for (int s : _restPoseSources) {
      const int parent = source.joints[static_cast<size_t>(s)].parent;
      TARNI_TRY(_sourceNodes.Append(TARNI_TRY(tarni::CreateNodeTransform(
          _source.uuids[static_cast<size_t>(s)], _source.restGlobals[static_cast<size_t>(s)],
          parent >= 0 ? _source.restGlobals[static_cast<size_t>(parent)] : Matrix()))));
    }
    _sourcePose = tarni::CharacterPoseRef(
        TARNI_TRY(tarni::CreateObject<tarni::CharacterPose>(tarni::CharacterPose::kClassId)));
    _sourceNeeded = JointsWithAncestors(source, _restPoseSources);
    _settingOf.assign(targetCount, nullptr);
    _weightOf.assign(targetCount, 0.0);
    for (size_t j = 0; j < targetCount; ++j) {
      const tarni::CharacterBodyPartRef& part = _target.bodyPartOf[j];
      if (!part || _deltaIndexOfTarget[j] < 0) continue;
      tarni::CharacterBodyPartSolverSettingRef setting =
          _config->GetBodyPartSetting(part->GetIdentifier());
      if (!setting || setting->GetSettingValue(tarni::BodyPartSolverSettingFlag::DEACTIVATE))
        continue;  // a switched-off body part keeps its rest
      _settingOf[j] = setting;
      _weightOf[j] =
          _config->GetGlobalWeight() * TARNI_TRY(_solver->GetCumulatedWeight(part, _config));
    }
    return tarni::OK;
  }();
  if (!made) return Fail(error, made.error(), "cannot prepare the solver");
  return true;
}

bool Retargeter::SolveFrame(int64_t frame, std::vector<Matrix>& targetLocals, IoError& error) {
  const BvhMotion& source = *_source.motion;
  const BvhMotion& target = *_target.motion;
  ComputeFrameJoints(source, frame, _source.modes, _sourceNeeded, _locals, _globals);
  const size_t targetCount = target.joints.size();
  targetLocals.resize(targetCount);
  _newGlobals.resize(targetCount);

  auto solved = [&]() -> tarni::Result<void> {
    // Each source joint's parent is given at its rest global, so the delta the solver extracts is
    // the joint's whole world rotation since rest; the target then takes world rotations, which
    // keeps a driven bone pointing where its source bone points even where the two chains differ
    // in length.
    // One source pose serves every frame. Emptied first, it lets go of the nodes, which are then
    // this set-up's alone and are written in place (should anything still hold one, MakeWritable
    // gives this frame a copy instead); emptying keeps the pose's storage for the refill.
    tarni::CharacterPose* pose = TARNI_TRY(_sourcePose.MakeWritable());
    TARNI_TRY(pose->SetNodeTransformArray({}));
    for (size_t k = 0; k < _restPoseSources.size(); ++k) {
      TARNI_TRY(_sourceNodes[static_cast<tarni::Int>(k)].MakeWritable())
          ->SetGlobalMatrix(_globals[static_cast<size_t>(_restPoseSources[k])]);
    }
    TARNI_TRY(pose->SetNodeTransformArray(_sourceNodes));
    const tarni::CharacterPoseRef delta =
        TARNI_TRY(_solver->ExtractGlobalDeltaPose(_config, _sourcePose));
    // Renaming the deltas to target Uuids (TranslateSrcToDestID) serves finding a target joint's
    // delta by its Uuid; the set-up has already paired each target joint with its delta's index
    // (_deltaIndexOfTarget), and the application reads only a delta's matrix, so the renamed copy
    // would be made and dropped unread.
    const auto& deltas = delta->GetNodeTransformArray();

    static constexpr Matrix kIdentity{};
    for (size_t j = 0; j < targetCount; ++j) {
      const int parent = target.joints[j].parent;
      const Matrix& parentGlobal =
          parent >= 0 ? _newGlobals[static_cast<size_t>(parent)] : kIdentity;
      Matrix& local = targetLocals[j];
      if (_settingOf[j]) {
        tarni::CharacterNodeTransform* node = TARNI_TRY(_targetNodes[j].MakeWritable());
        node->SetParentGlobalMatrix(parentGlobal);
        local = TARNI_TRY(_solver->ApplyGlobalRotationDelta(
            _targetNodes[j], deltas[_deltaIndexOfTarget[j]], _settingOf[j], _weightOf[j]));
        // Below the root, joints stay at their offsets; the root takes the translated path.
        if (parent >= 0) local.off = _alignedLocals[j].off;
      } else {
        local = _alignedLocals[j];
      }
      _newGlobals[j] = parentGlobal * local;
    }
    return tarni::OK;
  }();
  if (!solved)
    return Fail(error, solved.error(), "frame " + std::to_string(frame) + " cannot be solved");
  return true;
}

bool Retargeter::Run(BvhMotion& output, IoError& error) {
  const BvhMotion& source = *_source.motion;
  // The target's skeleton without its own frames, which would only be copied to be overwritten.
  const BvhMotion& target = *_target.motion;
  output.joints = target.joints;
  output.channelCount = target.channelCount;
  output.frameCount = source.frameCount;
  output.frameTime = source.frameTime;
  output.values.assign(static_cast<size_t>(source.frameCount * output.channelCount), 0.0);
  std::vector<Matrix> locals;
  FrameRowWriter writer(output, _target.modes);
  for (int64_t frame = 0; frame < source.frameCount; ++frame) {
    if (!SolveFrame(frame, locals, error)) return false;
    writer.Write(output, frame, locals);
  }
  for (double value : output.values) {
    if (!std::isfinite(value)) {
      error = {_sourceName, 0, "the retargeted motion holds numbers that are not finite"};
      return false;
    }
  }
  return true;
}

}  // namespace tarni::host
