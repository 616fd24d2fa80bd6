#include "io/curvefile.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <nlohmann/json.hpp>
#include <utility>

#include "io/atomicfile.h"
#include "io/numbertext.h"

namespace tarni::host {
namespace {

using Json = nlohmann::json;

constexpr double kFloatMax = std::numeric_limits<float>::max();
// Doubles below this in magnitude round to a finite float: FLT_MAX plus half its last place. The
// text of FLT_MAX itself ("3.4028235e+38") reads as a double just above FLT_MAX.
constexpr double kFloatLimit = 0x1.ffffffp+127;

// The numbers the shortest text does not carry through JSON: a value that is not finite is written
// as null, and negative zero as "-0.0" (JSON readers take "-0" for the integer zero and lose the
// sign). Returns whether `value` was one of them.
bool AppendSpecialNumber(std::string& out, double value) {
  if (!std::isfinite(value)) {
    out += "null";
    return true;
  }
  if (value == 0 && std::signbit(value)) {
    out += "-0.0";
    return true;
  }
  return false;
}

// The shortest text for `value` that reads back as the same float when parsed the way JSON
// readers do: as a double, then rounded to float. The shortest float text is almost always
// enough, but a few values fall on the wrong side of that second rounding (7.038531e-26 is
// one); those get the double's digits instead, which read back exactly.
void AppendFloat(std::string& out, float value) {
  if (AppendSpecialNumber(out, value)) return;
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  double reread = 0;
  const auto parsed = std::from_chars(buffer, result.ptr, reread);
  if (parsed.ec != std::errc() || static_cast<float>(reread) != value ||
      std::signbit(static_cast<float>(reread)) != std::signbit(value)) {
    result = std::to_chars(buffer, buffer + sizeof buffer, static_cast<double>(value));
  }
  out.append(buffer, result.ptr);
}

void AppendDouble(std::string& out, double value) {
  if (AppendSpecialNumber(out, value)) return;
  char buffer[kShortestRoom];
  out.append(buffer, WriteShortest(buffer, value));
}

std::string FloatText(float value) {
  std::string text;
  AppendFloat(text, value);
  return text;
}

// "a string", "an object", ... for "expected X, found Y" messages.
std::string Describe(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      return "null";
    case Json::value_t::object:
      return "an object";
    case Json::value_t::array:
      return "an array";
    case Json::value_t::string:
      return "a string";
    case Json::value_t::boolean:
      return "a boolean";
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
      return "the integer " + value.dump();
    case Json::value_t::number_float:
      return "the number " + value.dump();
    default:
      return "something else";
  }
}

// Collects the first parse error with its byte position; everything else is accepted, so
// running it over a document only finds out where and why the document is malformed.
class ParseErrorFinder : public nlohmann::json_sax<Json> {
 public:
  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& ex) override {
    found = true;
    byte = position;
    message = ex.what();
    return false;
  }

  bool found = false;
  std::size_t byte = 0;
  std::string message;
};

class CurveFileParser {
 public:
  CurveFileParser(std::string_view fileName, IoError& error) : fileName_(fileName), error_(error) {}

  bool Parse(std::string_view text, CurveFile& file) {
    Json root = Json::parse(text.data(), text.data() + text.size(), nullptr,
                            /*allow_exceptions=*/false);
    if (root.is_discarded()) return FailParse(text);
    if (!root.is_object()) return Fail("", "expected a JSON object, found " + Describe(root));

    const Json* fps = Member(root, "fps", "");
    if (fps == nullptr) return false;
    double rate = 0;
    if (!Number(*fps, "fps", rate)) return false;
    if (!(rate > 0)) return Fail("fps", "must be above 0, found " + fps->dump());
    file.fps = rate;

    const Json* curves = Member(root, "curves", "");
    if (curves == nullptr) return false;
    if (!curves->is_array()) {
      return Fail("curves", "expected an array of curves, found " + Describe(*curves));
    }
    file.curves.reserve(curves->size());
    for (size_t c = 0; c < curves->size(); ++c) {
      file.curves.emplace_back();
      if (!ParseCurve((*curves)[c], "curves[" + std::to_string(c) + "]", file.curves.back())) {
        return false;
      }
    }

    const auto ranges = root.find("ranges");
    if (ranges != root.end() && !ParseRanges(*ranges, file)) return false;
    // Only what the checks above cannot see per value remains: ascending times, range order.
    IoError check;
    if (!CheckCurveFile(file, check)) {
      error_ = std::move(check);
      error_.file = std::string(fileName_);
      return false;
    }
    return true;
  }

 private:
  bool Fail(const std::string& path, std::string message, int64_t line = 0) {
    error_ = IoError{};
    error_.file = std::string(fileName_);
    error_.line = line;
    error_.message = path.empty() ? std::move(message) : path + ": " + message;
    return false;
  }

  // The document did not parse; run it again through a handler that keeps the position, which
  // the plain parse does not report.
  bool FailParse(std::string_view text) {
    ParseErrorFinder finder;
    Json::sax_parse(text.data(), text.data() + text.size(), &finder);
    if (!finder.found) return Fail("", "malformed JSON");
    // Count lines up to the character the parser stopped at.
    const size_t stop = std::min(finder.byte > 0 ? finder.byte - 1 : 0, text.size());
    const std::string_view before = text.substr(0, stop);
    const int64_t line = 1 + static_cast<int64_t>(std::count(before.begin(), before.end(), '\n'));
    // "[json.exception.parse_error.101] parse error at line 2, column 3: syntax error ..." keeps
    // only what follows the position, which the error record gives in its own way; a message
    // without a position ("[json.exception.out_of_range.406] number overflow ...") loses only its
    // bracketed tag.
    std::string why = finder.message;
    const size_t colon = why.find(": ");
    if (colon != std::string::npos) {
      why = why.substr(colon + 2);
    } else if (!why.empty() && why.front() == '[' && why.find("] ") != std::string::npos) {
      why = why.substr(why.find("] ") + 2);
    }
    return Fail("", "malformed JSON: " + why, line);
  }

  const Json* Member(const Json& object, const char* name, const std::string& path) {
    const auto it = object.find(name);
    if (it == object.end()) {
      Fail(path, std::string("missing \"") + name + "\"");
      return nullptr;
    }
    return &*it;
  }

  bool Number(const Json& value, const std::string& path, double& number) {
    if (!value.is_number()) return Fail(path, "expected a number, found " + Describe(value));
    number = value.get<double>();
    if (!std::isfinite(number)) return Fail(path, "is not a finite number");
    return true;
  }

  bool Float(const Json& value, const std::string& path, float& number) {
    double wide = 0;
    if (!Number(value, path, wide)) return false;
    if (!(std::fabs(wide) < kFloatLimit)) {
      return Fail(path, value.dump() + " does not fit a 32-bit float");
    }
    number = static_cast<float>(std::clamp(wide, -kFloatMax, kFloatMax));
    return true;
  }

  bool Pair(const Json& value, const std::string& path, float (&pair)[2]) {
    if (!value.is_array() || value.size() != 2) {
      return Fail(path, "expected an array of two numbers, found " +
                            (value.is_array() ? "an array of " + std::to_string(value.size())
                                              : Describe(value)));
    }
    return Float(value[0], path + "[0]", pair[0]) && Float(value[1], path + "[1]", pair[1]);
  }

  bool ParseCurve(const Json& value, const std::string& path, Curve& curve) {
    if (!value.is_object()) return Fail(path, "expected a curve object, found " + Describe(value));
    const Json* name = Member(value, "name", path);
    if (name == nullptr) return false;
    if (!name->is_string()) {
      return Fail(path + ".name", "expected a string, found " + Describe(*name));
    }
    curve.name = name->get<std::string>();
    const Json* keys = Member(value, "keys", path);
    if (keys == nullptr) return false;
    if (!keys->is_array()) {
      return Fail(path + ".keys", "expected an array of keys, found " + Describe(*keys));
    }
    curve.keys.resize(keys->size());
    for (size_t k = 0; k < keys->size(); ++k) {
      if (!ParseKey((*keys)[k], path + ".keys[" + std::to_string(k) + "]", curve.keys[k])) {
        return false;
      }
    }
    return true;
  }

  bool ParseKey(const Json& value, const std::string& path, CurveKey& key) {
    if (!value.is_object()) return Fail(path, "expected a key object, found " + Describe(value));
    const auto flags = value.find("flags");
    if (flags != value.end()) {
      // Non-negative integers parse as unsigned; anything else is not a flag word.
      if (!flags->is_number_unsigned() ||
          flags->get<uint64_t>() > std::numeric_limits<uint32_t>::max()) {
        return Fail(path + ".flags",
                    "expected an unsigned 32-bit integer, found " + Describe(*flags));
      }
      key.flags = static_cast<uint32_t>(flags->get<uint64_t>());
    }
    const Json* position = Member(value, "position", path);
    if (position == nullptr || !Pair(*position, path + ".position", key.position)) return false;
    const auto left = value.find("leftTangent");
    if (left != value.end() && !Pair(*left, path + ".leftTangent", key.leftTangent)) return false;
    const auto right = value.find("rightTangent");
    if (right != value.end() && !Pair(*right, path + ".rightTangent", key.rightTangent)) {
      return false;
    }
    return true;
  }

  bool ParseRanges(const Json& value, CurveFile& file) {
    if (!value.is_array()) {
      return Fail("ranges", "expected an array of [min, max] pairs, found " + Describe(value));
    }
    file.ranges.resize(value.size());
    for (size_t r = 0; r < value.size(); ++r) {
      float pair[2];
      if (!Pair(value[r], "ranges[" + std::to_string(r) + "]", pair)) return false;
      file.ranges[r] = {pair[0], pair[1]};
    }
    return true;
  }

  std::string_view fileName_;
  IoError& error_;
};

bool CheckFail(IoError& error, std::string message) {
  error = IoError{};
  error.message = std::move(message);
  return false;
}

bool FinitePair(const float (&pair)[2]) { return std::isfinite(pair[0]) && std::isfinite(pair[1]); }

bool CheckCurveFileImpl(const CurveFile& file, IoError& error) {
  if (!std::isfinite(file.fps) || !(file.fps > 0)) {
    std::string text;
    AppendDouble(text, file.fps);
    return CheckFail(error, "fps: must be a finite number above 0, found " + text);
  }
  for (size_t c = 0; c < file.curves.size(); ++c) {
    const std::vector<CurveKey>& keys = file.curves[c].keys;
    for (size_t k = 0; k < keys.size(); ++k) {
      const std::string path = "curves[" + std::to_string(c) + "].keys[" + std::to_string(k) + "]";
      if (!FinitePair(keys[k].position)) {
        return CheckFail(error, path + ".position: is not a pair of finite numbers");
      }
      if (!FinitePair(keys[k].leftTangent)) {
        return CheckFail(error, path + ".leftTangent: is not a pair of finite numbers");
      }
      if (!FinitePair(keys[k].rightTangent)) {
        return CheckFail(error, path + ".rightTangent: is not a pair of finite numbers");
      }
      if (k > 0 && !(keys[k].position[0] > keys[k - 1].position[0])) {
        return CheckFail(error, path + ".position: times must be ascending: key " +
                                    std::to_string(k) + " at " + FloatText(keys[k].position[0]) +
                                    " follows key " + std::to_string(k - 1) + " at " +
                                    FloatText(keys[k - 1].position[0]));
      }
    }
  }
  if (!file.ranges.empty() && file.ranges.size() != file.curves.size()) {
    return CheckFail(error, "ranges: expected " + std::to_string(file.curves.size()) +
                                " ranges (one per curve), found " +
                                std::to_string(file.ranges.size()));
  }
  for (size_t r = 0; r < file.ranges.size(); ++r) {
    const std::string path = "ranges[" + std::to_string(r) + "]";
    const std::array<float, 2>& range = file.ranges[r];
    if (!std::isfinite(range[0]) || !std::isfinite(range[1])) {
      return CheckFail(error, path + ": is not a pair of finite numbers");
    }
    if (range[0] > range[1]) {
      return CheckFail(
          error, path + ": min " + FloatText(range[0]) + " is above max " + FloatText(range[1]));
    }
  }
  return true;
}

void AppendPair(std::string& out, const float (&pair)[2]) {
  out += '[';
  AppendFloat(out, pair[0]);
  out += ", ";
  AppendFloat(out, pair[1]);
  out += ']';
}

bool IsDefaultTangent(const float (&tangent)[2]) { return tangent[0] == -1 && tangent[1] == -1; }

std::string WriteCurveFileImpl(const CurveFile& file) {
  std::string out;
  size_t keyCount = 0;
  for (const Curve& curve : file.curves) keyCount += curve.keys.size();
  out.reserve(64 + file.curves.size() * 64 + keyCount * 48 + file.ranges.size() * 32);
  out += "{\n  \"fps\": ";
  AppendDouble(out, file.fps);
  out += ",\n  \"curves\": [";
  for (size_t c = 0; c < file.curves.size(); ++c) {
    const Curve& curve = file.curves[c];
    out += c == 0 ? "\n" : ",\n";
    out += "    {\n      \"name\": ";
    // Escapes quotes and control characters; bytes that are not UTF-8 become U+FFFD, since a JSON
    // reader would turn the whole file down over them.
    out += Json(curve.name).dump(-1, ' ', false, Json::error_handler_t::replace);
    out += ",\n      \"keys\": [";
    for (size_t k = 0; k < curve.keys.size(); ++k) {
      const CurveKey& key = curve.keys[k];
      out += k == 0 ? "\n        {" : ",\n        {";
      if (key.flags != 0) {
        out += "\"flags\": ";
        out += std::to_string(key.flags);
        out += ", ";
      }
      out += "\"position\": ";
      AppendPair(out, key.position);
      if (!IsDefaultTangent(key.leftTangent)) {
        out += ", \"leftTangent\": ";
        AppendPair(out, key.leftTangent);
      }
      if (!IsDefaultTangent(key.rightTangent)) {
        out += ", \"rightTangent\": ";
        AppendPair(out, key.rightTangent);
      }
      out += '}';
    }
    out += curve.keys.empty() ? "]\n    }" : "\n      ]\n    }";
  }
  out += file.curves.empty() ? "]" : "\n  ]";
  if (!file.ranges.empty()) {
    out += ",\n  \"ranges\": [";
    for (size_t r = 0; r < file.ranges.size(); ++r) {
      out += r == 0 ? "\n    " : ",\n    ";
      const float pair[2] = {file.ranges[r][0], file.ranges[r][1]};
      AppendPair(out, pair);
    }
    out += "\n  ]";
  }
  out += "\n}\n";
  return out;
}

CurveFile CurvesFromBvhImpl(const BvhMotion& motion, double fps) {
  if (!std::isfinite(fps) || !(fps > 0)) fps = motion.FrameRate();
  if (!std::isfinite(fps) || !(fps > 0)) fps = 1;
  CurveFile file;
  file.fps = fps;
  const int64_t stride = motion.channelCount;
  // Frames the value array really holds, so a damaged motion cannot send reads past its end.
  int64_t frames = std::max<int64_t>(motion.frameCount, 0);
  if (stride > 0) {
    frames = std::min<int64_t>(frames, static_cast<int64_t>(motion.values.size()) / stride);
  }
  int64_t column = 0;
  for (const BvhJoint& joint : motion.joints) {
    for (Channel channel : joint.channels) {
      Curve curve;
      curve.name = joint.name + "." + std::string(ChannelName(channel));
      if (column < stride) {
        curve.keys.resize(static_cast<size_t>(frames));
        for (int64_t f = 0; f < frames; ++f) {
          CurveKey& key = curve.keys[static_cast<size_t>(f)];
          key.position[0] = static_cast<float>(static_cast<double>(f) / fps);
          const double value = motion.values[static_cast<size_t>(f * stride + column)];
          key.position[1] = static_cast<float>(
              std::isfinite(value) ? std::clamp(value, -kFloatMax, kFloatMax) : value);
        }
      }
      file.curves.push_back(std::move(curve));
      ++column;
    }
  }
  return file;
}

}  // namespace

bool ReadCurveFile(std::string_view text, std::string_view fileName, CurveFile& file,
                   IoError& error) {
  file = CurveFile{};
  return GuardedIo(fileName, error, [&] {
    CurveFile parsed;
    CurveFileParser parser(fileName, error);
    if (!parser.Parse(text, parsed)) return false;
    file = std::move(parsed);
    return true;
  });
}

bool ReadCurveFile(const std::filesystem::path& path, CurveFile& file, IoError& error) {
  file = CurveFile{};
  return GuardedIo(path.string(), error, [&] {
    std::string text;
    if (!ReadWholeFile(path, text, error)) return false;
    return ReadCurveFile(text, path.string(), file, error);
  });
}

bool CheckCurveFile(const CurveFile& file, IoError& error) {
  try {
    return CheckCurveFileImpl(file, error);
  } catch (const std::exception& e) {
    return CheckFail(error, e.what());
  }
}

std::string WriteCurveFile(const CurveFile& file) {
  try {
    return WriteCurveFileImpl(file);
  } catch (const std::exception&) {
    return std::string();
  }
}

bool WriteCurveFile(const std::filesystem::path& path, const CurveFile& file, IoError& error) {
  return WriteCheckedText(
      path, [&](IoError& checkError) { return CheckCurveFile(file, checkError); },
      [&] { return WriteCurveFile(file); }, error);
}

CurveFile CurvesFromBvh(const BvhMotion& motion, double fps) {
  try {
    return CurvesFromBvhImpl(motion, fps);
  } catch (const std::exception&) {
    return CurveFile{};
  }
}

}  // namespace tarni::host
