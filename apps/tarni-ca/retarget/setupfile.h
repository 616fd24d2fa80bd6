// The whole solver set-up as JSON: a solver configuration with everything it holds (both
// character definitions with their skeleton trees, body parts and rest poses, the association,
// the body-part solver settings, the global weight and the solving mode), so that a mapping tuned
// once runs over a whole library of clips.
//
// Nothing here knows the module's classes: the writer and the reader walk the members each object
// declares in DescribeIO (name, data type, flags, address) and follow references by the interface
// the member names. An object is a JSON object of its members by name, plus "children" for the
// children of a hierarchy object (skeleton trees, body parts).
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "io/ioerror.h"
#include "tarni/charactersolverconfiguration.h"

namespace tarni::host {

// The configuration as JSON text. Fails (false, `error` filled) only when an object declares a
// member of a kind the format does not know, or memory runs out.
bool WriteSetup(const tarni::CharacterSolverConfigurationRef& config, std::string& text,
                IoError& error);
// WriteSetup into `path`, atomically.
bool WriteSetup(const std::filesystem::path& path,
                const tarni::CharacterSolverConfigurationRef& config, IoError& error);

// Creates a configuration (and all it holds, by class id) from JSON text; `fileName` labels the
// messages, which name the offending member as a path ("_sourceCharacter.SkeletonRoot._objectID").
// Unknown members and values of the wrong kind are errors.
bool ReadSetup(std::string_view text, std::string_view fileName,
               tarni::CharacterSolverConfigurationRef& config, IoError& error);
bool ReadSetup(const std::filesystem::path& path, tarni::CharacterSolverConfigurationRef& config,
               IoError& error);

}  // namespace tarni::host
