// Retarget presets: how a family of skeletons is cut into body parts. A preset is a JSON file
// holding one body-part hierarchy (identifier, name, keywords, discard keywords, optional exact
// joint names) and each body part's solver settings:
//
//   {"name": "humanoid-rig",
//    "root": {"id": "hips", "name": "Hips", "keywords": ["pelvis"], "discard": [".l", ".r"],
//             "weight": 1, "position": true, "deactivate": false, "noParentWeight": false,
//             "joints": ["pelvis"], "children": [ ...body parts of the same form... ]}}
//
// Only "id" is required. Body parts of two characters are paired by identifier and their joints by
// position (parents first), so a preset cuts a limb into one body part per segment.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "io/bvh.h"
#include "io/ioerror.h"

namespace tarni::host {

struct PresetBodyPart {
  std::string id;
  std::string name;
  int parent = -1;  // index into Preset::parts; -1 for the root; parents come before children
  std::vector<std::string> keywords;
  std::vector<std::string> discard;
  // Exact joint names (letter case kept). When present they replace what the keywords pick, and a
  // name the skeleton lacks is an error.
  std::vector<std::string> joints;
  double weight = 1.0;
  bool position = false;  // transfer the root displacement through this body part
  bool deactivate = false;
  bool noParentWeight = false;
};

struct Preset {
  std::string name;
  std::string file;                   // where it was read from; empty for a preset made in memory
  std::vector<PresetBodyPart> parts;  // depth-first pre-order, the root first
};

// Parses preset `text`; `fileName` labels error messages. Unknown keys, a missing "id", duplicate
// identifiers and values of the wrong type are errors. On failure returns false and fills `error`.
bool ParsePreset(std::string_view text, std::string_view fileName, Preset& preset, IoError& error);
// Reads and parses the preset file at `path`.
bool ReadPreset(const std::filesystem::path& path, Preset& preset, IoError& error);

// The folders searched for the shipped presets, in order: $TARNI_CA_PRESETS, then
// <executable folder>/../share/tarni-ca/presets (installed), then the source tree's data/presets.
std::vector<std::filesystem::path> PresetDirectories();
// Every *.json preset of the first folder of PresetDirectories() that exists, sorted by file name.
// Returns false with `error` filled when none is found or one fails to read.
bool LoadShippedPresets(std::vector<Preset>& presets, IoError& error);
// A preset named by the user: a path to a .json file, or the name of a shipped preset.
bool FindPreset(std::string_view nameOrFile, Preset& preset, IoError& error);

// Checks that every exact joint name of `preset` exists in `motion`; `fileName` labels the
// message, which names the body part and the joint.
bool CheckPresetJoints(const Preset& preset, const BvhMotion& motion, std::string_view fileName,
                       IoError& error);

}  // namespace tarni::host
