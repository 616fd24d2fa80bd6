#include "retarget/preset.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "io/atomicfile.h"

#ifndef TARNI_CA_PRESET_SOURCE_DIR
#define TARNI_CA_PRESET_SOURCE_DIR ""
#endif

namespace tarni::host {
namespace {

using Json = nlohmann::json;

bool Fail(IoError& error, std::string_view file, std::string message) {
  error.file = file;
  error.line = 0;
  error.message = std::move(message);
  return false;
}

bool ReadStrings(const Json& node, const std::string& where, std::vector<std::string>& out,
                 std::string& message) {
  if (!node.is_array()) {
    message = where + " must be an array of strings";
    return false;
  }
  for (const Json& item : node) {
    if (!item.is_string()) {
      message = where + " must be an array of strings";
      return false;
    }
    out.push_back(item.get<std::string>());
  }
  return true;
}

bool ReadPart(const Json& node, const std::string& where, int parent, Preset& preset,
              std::string& message) {
  if (!node.is_object()) {
    message = where + " must be an object";
    return false;
  }
  PresetBodyPart part;
  part.parent = parent;
  const Json* children = nullptr;
  for (const auto& [key, value] : node.items()) {
    const std::string at = where + "." + key;
    if (key == "id" || key == "name") {
      if (!value.is_string() || value.get<std::string>().empty()) {
        message = at + " must be a non-empty string";
        return false;
      }
      (key == "id" ? part.id : part.name) = value.get<std::string>();
    } else if (key == "keywords") {
      if (!ReadStrings(value, at, part.keywords, message)) return false;
    } else if (key == "discard") {
      if (!ReadStrings(value, at, part.discard, message)) return false;
    } else if (key == "joints") {
      if (!ReadStrings(value, at, part.joints, message)) return false;
    } else if (key == "weight") {
      if (!value.is_number() || !std::isfinite(value.get<double>())) {
        message = at + " must be a number";
        return false;
      }
      part.weight = value.get<double>();
    } else if (key == "position" || key == "deactivate" || key == "noParentWeight") {
      if (!value.is_boolean()) {
        message = at + " must be true or false";
        return false;
      }
      (key == "position"     ? part.position
       : key == "deactivate" ? part.deactivate
                             : part.noParentWeight) = value.get<bool>();
    } else if (key == "children") {
      if (!value.is_array()) {
        message = at + " must be an array of body parts";
        return false;
      }
      children = &value;
    } else {
      message = "unknown key " + at;
      return false;
    }
  }
  if (part.id.empty()) {
    message = where + " has no \"id\"";
    return false;
  }
  for (const PresetBodyPart& other : preset.parts) {
    if (other.id == part.id) {
      message = where + ": the identifier '" + part.id + "' is used twice";
      return false;
    }
  }
  if (part.name.empty()) part.name = part.id;
  const int self = static_cast<int>(preset.parts.size());
  preset.parts.push_back(std::move(part));
  if (children != nullptr) {
    for (size_t i = 0; i < children->size(); ++i) {
      if (!ReadPart((*children)[i], where + ".children[" + std::to_string(i) + "]", self, preset,
                    message))
        return false;
    }
  }
  return true;
}

}  // namespace

bool ParsePreset(std::string_view text, std::string_view fileName, Preset& preset, IoError& error) {
  preset = Preset();
  Json document = Json::parse(text.begin(), text.end(), nullptr, false);
  if (document.is_discarded()) return Fail(error, fileName, "not valid JSON");
  if (!document.is_object()) return Fail(error, fileName, "a preset must be a JSON object");
  Preset read;
  read.file = fileName;
  std::string message;
  bool haveRoot = false;
  for (const auto& [key, value] : document.items()) {
    if (key == "name") {
      if (!value.is_string()) return Fail(error, fileName, "name must be a string");
      read.name = value.get<std::string>();
    } else if (key == "description") {
      // Free text for people; not used.
    } else if (key == "root") {
      if (!ReadPart(value, "root", -1, read, message)) return Fail(error, fileName, message);
      haveRoot = true;
    } else {
      return Fail(error, fileName, "unknown key " + key);
    }
  }
  if (!haveRoot) return Fail(error, fileName, "a preset needs a \"root\" body part");
  if (read.name.empty()) read.name = std::filesystem::path(fileName).stem().string();
  preset = std::move(read);
  return true;
}

bool ReadPreset(const std::filesystem::path& path, Preset& preset, IoError& error) {
  std::string text;
  if (!ReadWholeFile(path, text, error)) return false;
  return ParsePreset(text, path.string(), preset, error);
}

std::vector<std::filesystem::path> PresetDirectories() {
  std::vector<std::filesystem::path> folders;
  if (const char* fromEnvironment = std::getenv("TARNI_CA_PRESETS"))
    folders.emplace_back(fromEnvironment);
  std::error_code failed;
  const std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", failed);
  if (!failed)
    folders.push_back(exe.parent_path().parent_path() / "share" / "tarni-ca" / "presets");
  if (*TARNI_CA_PRESET_SOURCE_DIR) folders.emplace_back(TARNI_CA_PRESET_SOURCE_DIR);
  return folders;
}

bool LoadShippedPresets(std::vector<Preset>& presets, IoError& error) {
  presets.clear();
  for (const std::filesystem::path& folder : PresetDirectories()) {
    std::error_code failed;
    if (!std::filesystem::is_directory(folder, failed)) continue;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder, failed)) {
      if (entry.path().extension() == ".json") files.push_back(entry.path());
    }
    if (files.empty()) continue;
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
      Preset preset;
      if (!ReadPreset(file, preset, error)) return false;
      presets.push_back(std::move(preset));
    }
    return true;
  }
  return Fail(error, "",
              "no presets found (looked in $TARNI_CA_PRESETS, share/tarni-ca/presets "
              "next to the program and the source tree); name one with --preset FILE");
}

bool FindPreset(std::string_view nameOrFile, Preset& preset, IoError& error) {
  const std::filesystem::path path(nameOrFile);
  if (path.extension() == ".json") return ReadPreset(path, preset, error);
  std::vector<Preset> shipped;
  if (!LoadShippedPresets(shipped, error)) return false;
  std::string known;
  for (Preset& candidate : shipped) {
    if (candidate.name == nameOrFile) {
      preset = std::move(candidate);
      return true;
    }
    known += known.empty() ? candidate.name : ", " + candidate.name;
  }
  return Fail(error, "",
              "no preset named '" + std::string(nameOrFile) + "' (shipped: " + known + ")");
}

bool CheckPresetJoints(const Preset& preset, const BvhMotion& motion, std::string_view fileName,
                       IoError& error) {
  for (const PresetBodyPart& part : preset.parts) {
    for (const std::string& joint : part.joints) {
      if (motion.FindJoint(joint) < 0)
        return Fail(error, fileName,
                    "preset " + preset.name + ": body part '" + part.id + "' names joint '" +
                        joint + "', which the skeleton does not have");
    }
  }
  return true;
}

}  // namespace tarni::host
