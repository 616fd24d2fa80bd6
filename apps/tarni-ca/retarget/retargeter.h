// Retargeting BVH motion from one skeleton onto another through the module: each clip becomes a
// CharacterDefinition (skeleton tree, rest pose, body parts of a preset), the two are associated
// by body-part identifier, and every frame goes through the character solver.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "io/bvh.h"
#include "io/ioerror.h"
#include "motion/pose.h"
#include "retarget/preset.h"
#include "tarni/characterassociation.h"
#include "tarni/characterdefinition.h"
#include "tarni/charactersolver.h"
#include "tarni/charactersolverconfiguration.h"
#include "tarni/retargetbasehelper.h"

namespace tarni::host {

enum class PositionChoice : uint8_t { kAuto, kAbsolute, kRelative };

struct RetargetOptions {
  double weight = 1.0;     // the configuration's global weight
  int64_t restFrame = -1;  // the source frame taken as its rest pose; -1: zero rotations
  bool alignRest = true;   // swing the target's rest bones onto the source's rest directions
  PositionChoice positions = PositionChoice::kAuto;
};

// One character as the module sees it, with the host's per-joint tables. Joint indices are those
// of the motion (pre-order).
struct Character {
  const BvhMotion* motion = nullptr;  // not owned
  std::vector<PositionMode> modes;
  std::vector<tarni::Matrix> restLocals;
  std::vector<tarni::Matrix> restGlobals;  // standing on the ground (lowest joint at y = 0)
  double groundShift = 0;                  // added to y to stand the rest pose on the ground
  double hipHeight = 0;                    // root height above the lowest joint, at rest
  std::vector<tarni::Uuid> uuids;          // one fresh Uuid per joint
  tarni::CharacterDefinitionRef definition;
  std::vector<tarni::CharacterBodyPartRef> bodyPartOf;  // the body part picking each joint, or null
};

// Fills a body-part hierarchy from `preset` (created by class id, with keywords and discard
// keywords) and returns its root, or the module's error.
tarni::Result<tarni::CharacterBodyPartRef> BuildBodyParts(const Preset& preset);

// Builds `character` from `motion` (which must outlive it): a skeleton tree with a fresh Uuid per
// joint, the rest pose (zero rotations, or frame `restFrame` when it is 0 or more) as the
// definition's skeleton rest pose, and the preset's body parts filled by keyword (or by the
// preset's exact joint names). Errors name the file and, for a preset joint, the joint.
bool BuildCharacter(const BvhMotion& motion, std::string_view fileName, const Preset& preset,
                    int64_t restFrame, PositionChoice positions, Character& character,
                    IoError& error);

// How many joints of `motion` the body parts of `preset` pick (FindSkeletonMatchingCount over the
// whole hierarchy on the rest pose); -1 when the character cannot be built.
int64_t PresetMatchCount(const BvhMotion& motion, const Preset& preset);
// The preset of `presets` with the highest match count on `motion` (the first on a tie); -1 for
// an empty list.
int PickPreset(const BvhMotion& motion, const std::vector<Preset>& presets,
               int64_t* bestCount = nullptr);

// The solver set-up of one source onto one target, reused for every frame. Not copyable; one
// instance per thread (the module's objects it holds are its own).
class Retargeter {
 public:
  Retargeter() = default;
  Retargeter(const Retargeter&) = delete;
  Retargeter& operator=(const Retargeter&) = delete;

  // Builds both characters, associates their body parts, fills the configuration and one solver
  // setting per target body part (the root body part's position weight carries the ratio of the
  // hip heights), and aligns the target's rest when asked. Returns false with `error` filled.
  bool Setup(const BvhMotion& source, std::string_view sourceName, const Preset& sourcePreset,
             const BvhMotion& target, std::string_view targetName, const Preset& targetPreset,
             const RetargetOptions& options, IoError& error);

  // As Setup, from a stored solver set-up (see setupfile.h) instead of presets: the skeleton
  // trees are matched to the clips' joints by name, and the body parts, association, rest poses
  // and settings are used as stored. Joints the trees lack are not driven.
  bool SetupFromConfiguration(const tarni::CharacterSolverConfigurationRef& config,
                              const BvhMotion& source, std::string_view sourceName,
                              const BvhMotion& target, std::string_view targetName,
                              const RetargetOptions& options, IoError& error);

  // The target's local matrices (file coordinates, one per target joint) for source frame `frame`.
  bool SolveFrame(int64_t frame, std::vector<tarni::Matrix>& targetLocals, IoError& error);
  // Every frame: the target skeleton (hierarchy, offsets, channel orders) carrying the motion,
  // at the source's frame time.
  bool Run(BvhMotion& output, IoError& error);

  // Target joint -> the source joint driving it, or -1.
  const std::vector<int>& SourceOfTarget() const { return _sourceOf; }
  int MappedJointCount() const;
  double HeightRatio() const { return _ratio; }
  const Character& Source() const { return _source; }
  const Character& Target() const { return _target; }
  // The target's rest globals after alignment (on the ground).
  const std::vector<tarni::Matrix>& AlignedRestGlobals() const { return _alignedGlobals; }
  const tarni::CharacterSolverConfigurationRef& Configuration() const { return _config; }
  const tarni::RetargetAssociationStatistics& Statistics() const { return _statistics; }

 private:
  bool Fail(IoError& error, const tarni::Error& cause, std::string_view what) const;
  void AlignRest();
  bool LinkJoints(std::string_view targetName, IoError& error);
  bool MakeSolverState(IoError& error);

  std::string _sourceName;
  Character _source;
  Character _target;
  RetargetOptions _options;
  std::vector<int> _sourceOf;
  std::vector<int> _deltaIndexOfTarget;  // index into the source rest pose, or -1
  std::vector<int> _restPoseSources;     // source joints of the source rest pose, in its order
  std::vector<tarni::Matrix> _alignedLocals;
  std::vector<tarni::Matrix> _alignedGlobals;
  std::vector<tarni::CharacterNodeTransformRef> _targetNodes;  // working copies, one per joint
  // The source pose's nodes, one per entry of _restPoseSources, kept from frame to frame: each
  // frame writes their global matrices and hands them to the source pose, also kept.
  tarni::BaseArray<tarni::CharacterNodeTransformRef> _sourceNodes;
  tarni::CharacterPoseRef _sourcePose;
  std::vector<uint8_t> _sourceNeeded;  // the source joints a frame reads (ComputeFrameJoints)
  std::vector<tarni::CharacterBodyPartSolverSettingRef> _settingOf;
  std::vector<double> _weightOf;
  double _ratio = 1.0;
  tarni::CharacterAssociationRef _association;
  tarni::CharacterSolverConfigurationRef _config;
  tarni::CharacterSolverRef _solver;
  tarni::RetargetBaseHelperRef _helper;
  tarni::RetargetAssociationStatistics _statistics;
  std::vector<tarni::Matrix> _locals, _globals, _newGlobals;
};

}  // namespace tarni::host
