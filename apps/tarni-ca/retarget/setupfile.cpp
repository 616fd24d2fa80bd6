#include "retarget/setupfile.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "io/atomicfile.h"
#include "tarni/bitset.h"
#include "tarni/characterassociation.h"
#include "tarni/characterbodypart.h"
#include "tarni/characterbodypartsolversetting.h"
#include "tarni/characterdefinition.h"
#include "tarni/characternodeinfo.h"
#include "tarni/characternodetransform.h"
#include "tarni/characterpose.h"
#include "tarni/charactertree.h"
#include "tarni/describe.h"
#include "tarni/hashmap.h"
#include "tarni/hierarchy.h"

namespace tarni::host {
namespace {

using Json = nlohmann::ordered_json;
using tarni::Id;
using tarni::Int;
using tarni::Object;

// How a reference to one interface is held: the class to create for it, and how to reach the
// object behind a reference, an array element or a map value of that interface.
struct Kind {
  Id interfaceId;
  Id classId;
  Object* (*get)(const void* reference);
  void (*set)(void* reference, const tarni::Ref<Object>& object);
  Int (*count)(const void* array);
  Object* (*element)(const void* array, Int index);
  tarni::Result<void> (*append)(void* array, const tarni::Ref<Object>& object);
};

template <typename I, typename R>
struct KindOf {
  static Object* Get(const void* reference) {
    const I* object = static_cast<const R*>(reference)->Get();
    return object ? const_cast<Object*>(static_cast<const Object*>(object)) : nullptr;
  }
  static void Set(void* reference, const tarni::Ref<Object>& object) {
    *static_cast<R*>(reference) = R(tarni::Cast<I>(object));
  }
  static Int Count(const void* array) {
    return static_cast<const tarni::BaseArray<R>*>(array)->GetCount();
  }
  static Object* Element(const void* array, Int index) {
    return Get(&(*static_cast<const tarni::BaseArray<R>*>(array))[index]);
  }
  static tarni::Result<void> Append(void* array, const tarni::Ref<Object>& object) {
    return static_cast<tarni::BaseArray<R>*>(array)->Append(R(tarni::Cast<I>(object)));
  }
  static constexpr Kind Make() {
    return {I::kInterfaceId, I::kClassId, &Get, &Set, &Count, &Element, &Append};
  }
};

// Every interface is held through its own reference alias (XRef), copy-on-write or plain.
const Kind kKinds[] = {
    KindOf<tarni::CharacterSolverConfiguration, tarni::CharacterSolverConfigurationRef>::Make(),
    KindOf<tarni::CharacterDefinition, tarni::CharacterDefinitionRef>::Make(),
    KindOf<tarni::CharacterTree, tarni::CharacterTreeRef>::Make(),
    KindOf<tarni::CharacterBodyPart, tarni::CharacterBodyPartRef>::Make(),
    KindOf<tarni::CharacterPose, tarni::CharacterPoseRef>::Make(),
    KindOf<tarni::CharacterNodeTransform, tarni::CharacterNodeTransformRef>::Make(),
    KindOf<tarni::CharacterNodeInfo, tarni::CharacterNodeInfoRef>::Make(),
    KindOf<tarni::CharacterAssociation, tarni::CharacterAssociationRef>::Make(),
    KindOf<tarni::CharacterBodyPartSolverSetting, tarni::CharacterBodyPartSolverSettingRef>::Make(),
};

const Kind* FindKind(const Id& interfaceId) {
  for (const Kind& kind : kKinds) {
    if (kind.interfaceId == interfaceId) return &kind;
  }
  return nullptr;
}

std::string IdText(const Id& id) { return std::string(id.GetText()); }

// Objects nest (a tree node in its parent's children, a definition in the configuration) and the
// reader, the writer and the JSON text formatter follow them by recursion; past this depth, far
// beyond any skeleton (whose deepest chains have some 30 joints), a set-up is turned down rather
// than let it exhaust the stack of a worker thread or a sanitizer build.
constexpr int kMaxDepth = 256;

// A member path for a message, the members in its middle left out when a deep nesting has made it
// long.
std::string ShortPath(const std::string& path) {
  constexpr size_t kKeep = 60;
  if (path.size() <= 2 * kKeep + 3) return path;
  const size_t headEnd = path.rfind('.', kKeep);
  const size_t tailDot = path.find('.', path.size() - kKeep);
  if (headEnd == std::string::npos || tailDot == std::string::npos || headEnd >= tailDot)
    return path.substr(0, kKeep) + "..." + path.substr(path.size() - kKeep);
  return path.substr(0, headEnd) + "..." + path.substr(tailDot + 1);
}

std::string TooDeep(const std::string& where) {
  return "objects nest deeper than " + std::to_string(kMaxDepth) + " levels at " + ShortPath(where);
}

// Counts one level of nesting for as long as it lives.
class DepthGuard {
 public:
  explicit DepthGuard(int& depth) : _depth(depth) { ++_depth; }
  ~DepthGuard() { --_depth; }
  DepthGuard(const DepthGuard&) = delete;
  DepthGuard& operator=(const DepthGuard&) = delete;
  bool TooDeep() const { return _depth > kMaxDepth; }

 private:
  int& _depth;
};

// Whether `text` is well-formed UTF-8, the only text a JSON file holds. Names come from clips whose
// bytes are the capture software's; a name in another encoding cannot be written as it is, and
// written any other way it would no longer match its joint when read back.
bool IsUtf8(std::string_view text) {
  size_t i = 0;
  while (i < text.size()) {
    const auto byte = static_cast<unsigned char>(text[i]);
    size_t length = 0;
    std::uint32_t code = 0;
    if (byte < 0x80) {
      ++i;
      continue;
    } else if (byte >= 0xC2 && byte <= 0xDF) {
      length = 2;
      code = byte & 0x1Fu;
    } else if (byte >= 0xE0 && byte <= 0xEF) {
      length = 3;
      code = byte & 0x0Fu;
    } else if (byte >= 0xF0 && byte <= 0xF4) {
      length = 4;
      code = byte & 0x07u;
    } else {
      return false;
    }
    if (text.size() - i < length) return false;
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0u) != 0x80u) return false;
      code = (code << 6) | (next & 0x3Fu);
    }
    // Overlong forms, surrogates and code points past U+10FFFF are not UTF-8.
    if ((length == 3 && code < 0x800) || (length == 4 && (code < 0x10000 || code > 0x10FFFF)) ||
        (code >= 0xD800 && code <= 0xDFFF))
      return false;
    i += length;
  }
  return true;
}

std::string_view TextOf(const Id& type, const void* at) {
  if (type == tarni::types::kString) return static_cast<const tarni::String*>(at)->GetView();
  if (type == tarni::types::kInternedId)
    return static_cast<const tarni::InternedId*>(at)->GetText();
  return {};
}

// Whole numbers of the JSON text must fit the member as they are: a value that would wrap around is
// a mistake in the file, not a number to store.
template <typename T>
bool FitsWhole(const Json& json) {
  if (json.is_number_unsigned())
    return json.get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<T>::max());
  const std::int64_t value = json.get<std::int64_t>();
  if constexpr (std::is_unsigned_v<T>) {
    return value >= 0 && static_cast<std::uint64_t>(value) <= std::numeric_limits<T>::max();
  } else {
    return value >= std::numeric_limits<T>::min() && value <= std::numeric_limits<T>::max();
  }
}

// ---- values --------------------------------------------------------------------------------

bool IsValueType(const Id& type) {
  return type == tarni::types::kBool || type == tarni::types::kInt32 ||
         type == tarni::types::kUInt32 || type == tarni::types::kInt64 ||
         type == tarni::types::kFloat32 || type == tarni::types::kFloat64 ||
         type == tarni::types::kUuid || type == tarni::types::kString ||
         type == tarni::types::kInternedId || type == tarni::types::kMatrix ||
         type == tarni::types::kBitSet || type == tarni::kBodyPartTransferAttributeModeTypeId;
}

Json MatrixJson(const tarni::Matrix& m) {
  return Json::array({m.off.x, m.off.y, m.off.z, m.v1.x, m.v1.y, m.v1.z, m.v2.x, m.v2.y, m.v2.z,
                      m.v3.x, m.v3.y, m.v3.z});
}

Json ValueJson(const Id& type, const void* at) {
  using namespace tarni::types;
  if (type == kBool) return *static_cast<const bool*>(at);
  if (type == kInt32 || type == tarni::kBodyPartTransferAttributeModeTypeId)
    return *static_cast<const std::int32_t*>(at);
  if (type == kUInt32) return *static_cast<const std::uint32_t*>(at);
  if (type == kInt64) return *static_cast<const std::int64_t*>(at);
  if (type == kFloat32) return *static_cast<const float*>(at);
  if (type == kFloat64) return *static_cast<const double*>(at);
  if (type == kUuid) {
    const tarni::Uuid& uuid = *static_cast<const tarni::Uuid*>(at);
    return std::string(uuid.ToString().GetView());
  }
  if (type == kString) return std::string(static_cast<const tarni::String*>(at)->GetView());
  if (type == kInternedId) return std::string(static_cast<const tarni::InternedId*>(at)->GetText());
  if (type == kMatrix) return MatrixJson(*static_cast<const tarni::Matrix*>(at));
  // kBitSet: its words.
  const tarni::BitSet& bits = *static_cast<const tarni::BitSet*>(at);
  Json words = Json::array();
  for (Int w = 0; w < bits.GetWordCount(); ++w) words.push_back(bits.GetWord(w));
  return words;
}

// Reads a value of `type` from `json` into `at`; returns the problem, or an empty text.
std::string ReadValue(const Id& type, const Json& json, void* at) {
  using namespace tarni::types;
  if (type == kBool) {
    if (!json.is_boolean()) return "must be true or false";
    *static_cast<bool*>(at) = json.get<bool>();
  } else if (type == kInt32 || type == tarni::kBodyPartTransferAttributeModeTypeId) {
    if (!json.is_number_integer()) return "must be a whole number";
    if (!FitsWhole<std::int32_t>(json)) return "is out of the range of a 32-bit whole number";
    *static_cast<std::int32_t*>(at) = json.get<std::int32_t>();
  } else if (type == kUInt32) {
    if (!json.is_number_unsigned()) return "must be a whole number, 0 or more";
    if (!FitsWhole<std::uint32_t>(json)) return "is out of the range of a 32-bit whole number";
    *static_cast<std::uint32_t*>(at) = json.get<std::uint32_t>();
  } else if (type == kInt64) {
    if (!json.is_number_integer()) return "must be a whole number";
    if (!FitsWhole<std::int64_t>(json)) return "is out of the range of a 64-bit whole number";
    *static_cast<std::int64_t*>(at) = json.get<std::int64_t>();
  } else if (type == kFloat32 || type == kFloat64) {
    if (!json.is_number() || !std::isfinite(json.get<double>())) return "must be a number";
    const double value = json.get<double>();
    if (type == kFloat32) {
      // Converting a double beyond the float range is undefined, not infinity.
      if (std::fabs(value) > std::numeric_limits<float>::max())
        return "is out of the range of a 32-bit float";
      *static_cast<float*>(at) = static_cast<float>(value);
    } else {
      *static_cast<double*>(at) = value;
    }
  } else if (type == kUuid) {
    if (!json.is_string()) return "must be a Uuid text";
    auto uuid = tarni::Uuid::Parse(json.get<std::string>());
    if (!uuid) return "must be a Uuid text";
    *static_cast<tarni::Uuid*>(at) = uuid.value();
  } else if (type == kString) {
    if (!json.is_string()) return "must be a string";
    auto text = tarni::String::Make(json.get<std::string>());
    if (!text) return "cannot be stored: out of memory";
    *static_cast<tarni::String*>(at) = text.value();
  } else if (type == kInternedId) {
    if (!json.is_string()) return "must be a string";
    auto id = tarni::InternedId::Make(json.get<std::string>());
    if (!id) return "cannot be stored: out of memory";
    *static_cast<tarni::InternedId*>(at) = id.value();
  } else if (type == kMatrix) {
    if (!json.is_array() || json.size() != 12) return "must be an array of 12 numbers";
    double v[12];
    for (size_t i = 0; i < 12; ++i) {
      if (!json[i].is_number() || !std::isfinite(json[i].get<double>()))
        return "must be an array of 12 numbers";
      v[i] = json[i].get<double>();
    }
    *static_cast<tarni::Matrix*>(at) = {
        {v[0], v[1], v[2]}, {v[3], v[4], v[5]}, {v[6], v[7], v[8]}, {v[9], v[10], v[11]}};
  } else if (type == kBitSet) {
    if (!json.is_array()) return "must be an array of words";
    tarni::BitSet& bits = *static_cast<tarni::BitSet*>(at);
    if (!bits.Init(static_cast<Int>(json.size()))) return "cannot be stored: out of memory";
    for (size_t w = 0; w < json.size(); ++w) {
      if (!json[w].is_number_unsigned()) return "must be an array of words";
      const std::uint64_t word = json[w].get<std::uint64_t>();
      for (std::uint64_t b = 0; b < 64; ++b) bits.Set(w * 64 + b, ((word >> b) & 1u) != 0);
    }
  } else {
    return "has a data type the set-up file does not know (" + IdText(type) + ")";
  }
  return {};
}

template <typename T>
Json ValueArrayJson(const Id& type, const void* at) {
  Json out = Json::array();
  for (const T& value : *static_cast<const tarni::BaseArray<T>*>(at))
    out.push_back(ValueJson(type, &value));
  return out;
}

template <typename T>
std::string ReadValueArray(const Id& type, const Json& json, void* at) {
  if (!json.is_array()) return "must be an array";
  tarni::BaseArray<T>& array = *static_cast<tarni::BaseArray<T>*>(at);
  array.Flush();
  for (const Json& item : json) {
    T value{};
    if (std::string problem = ReadValue(type, item, &value); !problem.empty())
      return "holds an element that " + problem;
    if (!array.Append(std::move(value))) return "cannot be stored: out of memory";
  }
  return {};
}

// ---- objects -------------------------------------------------------------------------------

struct Writer {
  std::string problem;
  int depth = 0;

  Json Object(const Kind& kind, tarni::Object* object, const std::string& where) {
    if (object == nullptr) return nullptr;
    // What could not be read back is not written.
    const DepthGuard level(depth);
    if (level.TooDeep()) {
      problem = TooDeep(where);
      return nullptr;
    }
    tarni::MemberList members;
    if (!object->DescribeIO(members)) {
      problem = where + ": its members cannot be listed";
      return nullptr;
    }
    Json out = Json::object();
    for (const tarni::MemberDescription& member : members.members) {
      const std::string at =
          where.empty() ? std::string(member.name) : where + "." + std::string(member.name);
      out[std::string(member.name)] = Member(member, at);
      if (!problem.empty()) return nullptr;
    }
    if (auto* node = tarni::Cast<tarni::HierarchyObject>(object); node != nullptr) {
      Json children = Json::array();
      for (Int c = 0; c < node->GetChildCount(); ++c) {
        const tarni::Ref<tarni::HierarchyObject> child = node->GetChild(c);
        tarni::Object* childObject = static_cast<tarni::Object*>(child.Get());
        children.push_back(
            Object(kind, childObject, where + ".children[" + std::to_string(c) + "]"));
        if (!problem.empty()) return nullptr;
      }
      out["children"] = std::move(children);
    }
    return out;
  }

  Json Member(const tarni::MemberDescription& member, const std::string& at) {
    const std::uint32_t flags = member.flags;
    if ((flags & tarni::kDescribeMap) != 0) return Map(member, at);
    if ((flags & tarni::kDescribeArray) != 0) {
      if (const Kind* kind = FindKind(member.type)) {
        Json out = Json::array();
        for (Int i = 0; i < kind->count(member.address); ++i)
          out.push_back(
              Object(*kind, kind->element(member.address, i), at + "[" + std::to_string(i) + "]"));
        return out;
      }
      if (member.type == tarni::types::kUuid)
        return ValueArrayJson<tarni::Uuid>(member.type, member.address);
      if (member.type == tarni::types::kString) return TextArray<tarni::String>(member, at);
      if (member.type == tarni::types::kInternedId) return TextArray<tarni::InternedId>(member, at);
    } else if ((flags & tarni::kDescribeReference) != 0) {
      if (const Kind* kind = FindKind(member.type))
        return Object(*kind, kind->get(member.address), at);
    } else if (IsValueType(member.type)) {
      if (!IsUtf8(TextOf(member.type, member.address))) {
        problem = NotUtf8(at);
        return nullptr;
      }
      return ValueJson(member.type, member.address);
    }
    problem = at + " has a kind the set-up file does not know (" + IdText(member.type) + ")";
    return nullptr;
  }

  static std::string NotUtf8(const std::string& at) {
    return at + " is not UTF-8 text, the only text a set-up file holds";
  }

  template <typename T>
  Json TextArray(const tarni::MemberDescription& member, const std::string& at) {
    const auto& array = *static_cast<const tarni::BaseArray<T>*>(member.address);
    for (Int i = 0; i < array.GetCount(); ++i) {
      if (!IsUtf8(TextOf(member.type, &array[i]))) {
        problem = NotUtf8(at + "[" + std::to_string(i) + "]");
        return nullptr;
      }
    }
    return ValueArrayJson<T>(member.type, member.address);
  }

  // Maps are written as arrays of [key, value] pairs in their own (insertion) order.
  Json Map(const tarni::MemberDescription& member, const std::string& at) {
    Json out = Json::array();
    using tarni::types::kInternedId;
    using tarni::types::kUuid;
    if (member.keyType == kUuid && member.type == kUuid) {
      for (const auto& entry :
           *static_cast<const tarni::HashMap<tarni::Uuid, tarni::Uuid>*>(member.address))
        out.push_back(Json::array({ValueJson(kUuid, &entry.key), ValueJson(kUuid, &entry.value)}));
      return out;
    }
    if (member.keyType == kInternedId && member.type == kInternedId) {
      for (const auto& entry :
           *static_cast<const tarni::HashMap<tarni::InternedId, tarni::InternedId>*>(
               member.address))
        out.push_back(Json::array(
            {ValueJson(kInternedId, &entry.key), ValueJson(kInternedId, &entry.value)}));
      return out;
    }
    if (member.keyType == kInternedId &&
        member.type == tarni::CharacterBodyPartSolverSetting::kInterfaceId) {
      const Kind& kind = *FindKind(member.type);
      Int index = 0;
      for (const auto& entry :
           *static_cast<
               const tarni::HashMap<tarni::InternedId, tarni::CharacterBodyPartSolverSettingRef>*>(
               member.address)) {
        out.push_back(Json::array(
            {ValueJson(kInternedId, &entry.key),
             Object(kind, kind.get(&entry.value), at + "[" + std::to_string(index++) + "]")}));
        if (!problem.empty()) return nullptr;
      }
      return out;
    }
    problem = at + " is a map of a kind the set-up file does not know";
    return nullptr;
  }
};

struct Reader {
  std::string problem;
  int depth = 0;

  tarni::Ref<tarni::Object> Object(const Kind& kind, const Json& json, const std::string& where) {
    if (json.is_null()) return nullptr;
    const DepthGuard level(depth);
    if (level.TooDeep()) {
      problem = TooDeep(where);
      return nullptr;
    }
    if (!json.is_object()) {
      problem = where + " must be an object or null";
      return nullptr;
    }
    auto created = tarni::CreateObject(kind.classId);
    if (!created) {
      problem = where + ": cannot create " + IdText(kind.classId) + ": " +
                std::string(created.error().GetMessage());
      return nullptr;
    }
    tarni::Ref<tarni::Object> object = created.value();
    tarni::MemberList members;
    if (!object->DescribeIO(members)) {
      problem = where + ": its members cannot be listed";
      return nullptr;
    }
    for (const auto& [name, value] : json.items()) {
      const std::string at = where.empty() ? name : where + "." + name;
      if (name == "children") {
        if (!Children(kind, object, value, at)) return nullptr;
        continue;
      }
      const tarni::MemberDescription* member = nullptr;
      for (const tarni::MemberDescription& candidate : members.members) {
        if (candidate.name == name) member = &candidate;
      }
      if (member == nullptr) {
        problem = "unknown member " + at;
        return nullptr;
      }
      if (!Member(*member, value, at)) return nullptr;
    }
    return object;
  }

  bool Children(const Kind& kind, const tarni::Ref<tarni::Object>& parent, const Json& json,
                const std::string& at) {
    auto* node = tarni::Cast<tarni::HierarchyObject>(parent.Get());
    if (node == nullptr || !json.is_array()) {
      problem = at + (node == nullptr ? " is not allowed here" : " must be an array");
      return false;
    }
    for (size_t c = 0; c < json.size(); ++c) {
      const std::string where = at + "[" + std::to_string(c) + "]";
      tarni::Ref<tarni::Object> child = Object(kind, json[c], where);
      if (!problem.empty()) return false;
      tarni::Ref<tarni::HierarchyObject> childNode = tarni::Cast<tarni::HierarchyObject>(child);
      if (!childNode || !node->InsertChild(childNode)) {
        problem = where + " cannot be added as a child";
        return false;
      }
    }
    return true;
  }

  bool Member(const tarni::MemberDescription& member, const Json& json, const std::string& at) {
    const std::uint32_t flags = member.flags;
    std::string issue;
    if ((flags & tarni::kDescribeMap) != 0) return Map(member, json, at);
    if ((flags & tarni::kDescribeArray) != 0) {
      if (const Kind* kind = FindKind(member.type)) {
        if (!json.is_array()) {
          problem = at + " must be an array";
          return false;
        }
        for (size_t i = 0; i < json.size(); ++i) {
          tarni::Ref<tarni::Object> element =
              Object(*kind, json[i], at + "[" + std::to_string(i) + "]");
          if (!problem.empty()) return false;
          if (!kind->append(member.address, element)) {
            problem = at + " cannot be stored: out of memory";
            return false;
          }
        }
        return true;
      }
      if (member.type == tarni::types::kUuid)
        issue = ReadValueArray<tarni::Uuid>(member.type, json, member.address);
      else if (member.type == tarni::types::kString)
        issue = ReadValueArray<tarni::String>(member.type, json, member.address);
      else if (member.type == tarni::types::kInternedId)
        issue = ReadValueArray<tarni::InternedId>(member.type, json, member.address);
      else
        issue = "has a kind the set-up file does not know";
    } else if ((flags & tarni::kDescribeReference) != 0) {
      const Kind* kind = FindKind(member.type);
      if (kind == nullptr) {
        issue = "refers to an interface the set-up file does not know";
      } else {
        tarni::Ref<tarni::Object> object = Object(*kind, json, at);
        if (!problem.empty()) return false;
        kind->set(member.address, object);
      }
    } else {
      issue = ReadValue(member.type, json, member.address);
    }
    if (!issue.empty()) problem = at + " " + issue;
    return issue.empty();
  }

  bool Map(const tarni::MemberDescription& member, const Json& json, const std::string& at) {
    if (!json.is_array()) {
      problem = at + " must be an array of [key, value] pairs";
      return false;
    }
    using tarni::types::kInternedId;
    using tarni::types::kUuid;
    for (size_t i = 0; i < json.size(); ++i) {
      const std::string where = at + "[" + std::to_string(i) + "]";
      const Json& pair = json[i];
      if (!pair.is_array() || pair.size() != 2) {
        problem = where + " must be a [key, value] pair";
        return false;
      }
      std::string issue;
      bool stored = true;
      if (member.keyType == kUuid && member.type == kUuid) {
        tarni::Uuid key, value;
        issue = ReadValue(kUuid, pair[0], &key);
        if (issue.empty()) issue = ReadValue(kUuid, pair[1], &value);
        if (issue.empty())
          stored = static_cast<bool>(
              static_cast<tarni::HashMap<tarni::Uuid, tarni::Uuid>*>(member.address)
                  ->Insert(key, value));
      } else if (member.keyType == kInternedId && member.type == kInternedId) {
        tarni::InternedId key, value;
        issue = ReadValue(kInternedId, pair[0], &key);
        if (issue.empty()) issue = ReadValue(kInternedId, pair[1], &value);
        if (issue.empty())
          stored = static_cast<bool>(
              static_cast<tarni::HashMap<tarni::InternedId, tarni::InternedId>*>(member.address)
                  ->Insert(key, value));
      } else if (member.keyType == kInternedId &&
                 member.type == tarni::CharacterBodyPartSolverSetting::kInterfaceId) {
        tarni::InternedId key;
        issue = ReadValue(kInternedId, pair[0], &key);
        if (issue.empty()) {
          tarni::Ref<tarni::Object> object = Object(*FindKind(member.type), pair[1], where);
          if (!problem.empty()) return false;
          stored = static_cast<bool>(
              static_cast<
                  tarni::HashMap<tarni::InternedId, tarni::CharacterBodyPartSolverSettingRef>*>(
                  member.address)
                  ->Insert(key, tarni::Cast<tarni::CharacterBodyPartSolverSetting>(object)));
        }
      } else {
        issue = "is a map of a kind the set-up file does not know";
      }
      if (!stored) issue = "cannot be stored: out of memory";
      if (!issue.empty()) {
        problem = where + " " + issue;
        return false;
      }
    }
    return true;
  }
};

}  // namespace

bool WriteSetup(const tarni::CharacterSolverConfigurationRef& config, std::string& text,
                IoError& error) {
  const Kind& kind = *FindKind(tarni::CharacterSolverConfiguration::kInterfaceId);
  try {
    Writer writer;
    Json document = Json::object();
    document["solverConfiguration"] = writer.Object(kind, kind.get(&config), "");
    if (!writer.problem.empty()) {
      error = {"", 0, writer.problem};
      return false;
    }
    // Map keys are identifiers checked nowhere else; strict dumping turns down one that is not
    // UTF-8 by throwing.
    text = document.dump(1, '\t') + "\n";
    return true;
  } catch (const std::bad_alloc&) {
    error = {"", 0, "out of memory"};
  } catch (const nlohmann::json::type_error&) {
    error = {"", 0, "an identifier is not UTF-8 text, the only text a set-up file holds"};
  }
  return false;
}

bool WriteSetup(const std::filesystem::path& path,
                const tarni::CharacterSolverConfigurationRef& config, IoError& error) {
  std::string text;
  if (!WriteSetup(config, text, error)) {
    error.file = path.string();
    return false;
  }
  return WriteFileAtomically(path, text, error);
}

namespace {

bool ReadSetupUnguarded(std::string_view text, std::string_view fileName,
                        tarni::CharacterSolverConfigurationRef& config, IoError& error) {
  const Json document = Json::parse(text.begin(), text.end(), nullptr, false);
  auto fail = [&](std::string message) {
    error = {std::string(fileName), 0, std::move(message)};
    return false;
  };
  if (document.is_discarded()) return fail("not valid JSON");
  if (!document.is_object() || !document.contains("solverConfiguration") || document.size() != 1)
    return fail("a set-up file holds one object with one member, \"solverConfiguration\"");
  const Kind& kind = *FindKind(tarni::CharacterSolverConfiguration::kInterfaceId);
  Reader reader;
  tarni::Ref<tarni::Object> object =
      reader.Object(kind, document["solverConfiguration"], "solverConfiguration");
  if (!reader.problem.empty()) return fail(reader.problem);
  config = tarni::Cast<tarni::CharacterSolverConfiguration>(object);
  if (!config) return fail("solverConfiguration must be an object");
  return true;
}

}  // namespace

bool ReadSetup(std::string_view text, std::string_view fileName,
               tarni::CharacterSolverConfigurationRef& config, IoError& error) {
  config = nullptr;
  return GuardedIo(fileName, error, [&] {
    tarni::CharacterSolverConfigurationRef read;
    if (!ReadSetupUnguarded(text, fileName, read, error)) return false;
    config = std::move(read);
    return true;
  });
}

bool ReadSetup(const std::filesystem::path& path, tarni::CharacterSolverConfigurationRef& config,
               IoError& error) {
  config = nullptr;
  return GuardedIo(path.string(), error, [&] {
    std::string text;
    if (!ReadWholeFile(path, text, error)) return false;
    return ReadSetup(text, path.string(), config, error);
  });
}

}  // namespace tarni::host
