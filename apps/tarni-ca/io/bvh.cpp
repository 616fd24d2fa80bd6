#include "io/bvh.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <exception>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>

#include "io/atomicfile.h"
#include "io/numbertext.h"

namespace tarni::host {
namespace {

// Bounds that keep a damaged or hostile header from asking for absurd amounts of memory. Ten
// million frames is over 23 hours at 120 frames per second; 2^31 values are 16 GiB of doubles.
constexpr int64_t kMaxFrames = 10'000'000;
constexpr int64_t kMaxValues = int64_t{1} << 31;
// Frame times a clip may have. The jobs turn frames into key times of 32-bit float seconds; beyond
// these bounds consecutive frames would get the same time, or times past the float range.
constexpr double kMinFrameTime = 1e-6;
constexpr double kMaxFrameTime = 1e6;

// "the frame time must be between 1e-06 and 1e+06 seconds, found <text>", or empty when
// `frameTime` (a positive number) is within the bounds.
std::string FrameTimeRangeProblem(double frameTime, std::string_view text) {
  if (frameTime >= kMinFrameTime && frameTime <= kMaxFrameTime) return {};
  return "the frame time must be between 1e-06 and 1e+06 seconds, found " + std::string(text);
}

// Indentation is only for people reading a written file; past a depth no skeleton reaches it stops
// growing, so a pathological chain of joints costs linear rather than quadratic space.
constexpr size_t kMaxIndent = 64;

constexpr std::string_view kChannelNames[] = {"Xposition", "Yposition", "Zposition",
                                              "Xrotation", "Yrotation", "Zrotation"};

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f'; }
bool IsLineBreak(char c) { return c == '\n' || c == '\r'; }
bool IsSpace(char c) { return IsBlank(c) || IsLineBreak(c); }

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool IEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

// Appends `text` with its control bytes (a binary file's, say) written as \xHH, so that a message
// quoting it stays one printable line.
void AppendPrintable(std::string& out, std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      static constexpr char kHex[] = "0123456789abcdef";
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xf];
    } else {
      out += c;
    }
  }
}

// A token as it appears in a message: quoted, shortened when long, control bytes escaped.
std::string Quote(std::string_view token) {
  if (token.empty()) return "end of file";
  constexpr size_t kLimit = 40;
  std::string text = "'";
  AppendPrintable(text, token.substr(0, kLimit));
  if (token.size() > kLimit) text += "...";
  text += "'";
  return text;
}

// The longest shortest form of a double and a separator.
constexpr size_t kLongestDouble = kLongestShortest + 1;

// Appends `value` in its shortest form that reads back as the same double.
void AppendDouble(std::string& out, double value) {
  char buffer[kShortestRoom];
  out.append(buffer, WriteShortest(buffer, value));
}

std::string FormatDouble(double value) {
  std::string text;
  AppendDouble(text, value);
  return text;
}

// How reading one number went.
enum class NumberStatus { kOk, kNotANumber, kNotFinite, kOutOfRange };

struct NumberResult {
  NumberStatus status;
  const char* next;  // just past the number
};

// Where the decimal point of a number in scientific notation would sit: positive for magnitudes
// of one and above, zero or negative below. Only called for numbers out of a double's range, where
// it tells an overflow (an error) from an underflow (a harmless zero).
int64_t DecimalMagnitude(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  int64_t integerDigits = 0;
  int64_t fractionZeros = 0;
  bool significant = false;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    if (significant || text[i] != '0') {
      significant = true;
      ++integerDigits;
    }
  }
  if (i < text.size() && text[i] == '.') {
    for (++i; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
      if (!significant && text[i] == '0') ++fractionZeros;
      if (text[i] != '0') significant = true;
    }
  }
  int64_t exponent = 0;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
      exponent = std::min<int64_t>(exponent * 10 + (text[i] - '0'), int64_t{1} << 40);
    }
    if (negative) exponent = -exponent;
  }
  return (integerDigits > 0 ? integerDigits : -fractionZeros) + exponent;
}

// Parses one number starting at `p`, stopping at `end`. Accepts what capture software writes
// ("-.5", "+1", "1e-3") but never "nan" or "inf", and needs no locale. An exponent so small that
// the value underflows reads as zero; one so large that it overflows is an error.
// Powers of ten that are exact doubles, as many as a plain decimal has fraction digits.
constexpr double kExactPowersOfTen[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                        1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};

// A number in the form clips are written in, "-12.345678": at most 15 digits, at least one of
// them before an optional point, and no exponent. Its digits are an exact whole number (below
// 10^15 < 2^53) and its power of ten is exact, so their quotient is the correctly rounded value,
// the same double from_chars gives, for a fraction of the cost. Returns false, with nothing
// read, for any other form.
bool ParsePlainDecimal(const char* p, const char* end, double& value, const char*& next) {
  const bool negative = p < end && *p == '-';
  p += negative ? 1 : 0;
  uint64_t digits = 0;
  int count = 0;
  int fraction = 0;
  const char* const first = p;
  while (p < end && static_cast<unsigned>(*p - '0') < 10) {
    digits = digits * 10 + static_cast<unsigned>(*p - '0');
    ++p;
  }
  count = static_cast<int>(p - first);
  if (count == 0) return false;
  if (p < end && *p == '.') {
    const char* const point = ++p;
    while (p < end && static_cast<unsigned>(*p - '0') < 10) {
      digits = digits * 10 + static_cast<unsigned>(*p - '0');
      ++p;
    }
    fraction = static_cast<int>(p - point);
    count += fraction;
  }
  // Past 15 digits the whole number may not be exact (and may overflow); an exponent needs the
  // full conversion.
  if (count > 15 || (p < end && (*p == 'e' || *p == 'E'))) return false;
  const double magnitude = static_cast<double>(digits) / kExactPowersOfTen[fraction];
  value = negative ? -magnitude : magnitude;
  next = p;
  return true;
}

NumberResult ParseDouble(const char* p, const char* end, double& value) {
  const char* start = p;
  if (p < end && *p == '+') {
    ++p;
    if (p < end && (*p == '-' || *p == '+')) return {NumberStatus::kNotANumber, p};
  }
  if (const char* next; ParsePlainDecimal(p, end, value, next)) return {NumberStatus::kOk, next};
  const auto result = std::from_chars(p, end, value);
  if (result.ec == std::errc::invalid_argument) return {NumberStatus::kNotANumber, result.ptr};
  if (result.ec == std::errc::result_out_of_range) {
    if (DecimalMagnitude(std::string_view(start, static_cast<size_t>(result.ptr - start))) > 0) {
      return {NumberStatus::kOutOfRange, result.ptr};
    }
    value = *start == '-' ? -0.0 : 0.0;
    return {NumberStatus::kOk, result.ptr};
  }
  // "nan" and "inf" parse without complaint; a capture never contains them legitimately.
  if (!std::isfinite(value)) return {NumberStatus::kNotFinite, result.ptr};
  return {NumberStatus::kOk, result.ptr};
}

// A whole token as a double, with the reason it is not one.
NumberStatus ParseDoubleToken(std::string_view token, double& value) {
  if (token.empty()) return NumberStatus::kNotANumber;
  const char* end = token.data() + token.size();
  const NumberResult result = ParseDouble(token.data(), end, value);
  if (result.status != NumberStatus::kOk) return result.status;
  return result.next == end ? NumberStatus::kOk : NumberStatus::kNotANumber;
}

bool ParseIntegerToken(std::string_view token, int64_t& value, bool& overflow) {
  overflow = false;
  const char* p = token.data();
  const char* end = p + token.size();
  if (p < end && *p == '+') {
    ++p;
    if (p < end && *p == '-') return false;
  }
  const auto result = std::from_chars(p, end, value);
  if (result.ec == std::errc::result_out_of_range) {
    overflow = true;
    return false;
  }
  return result.ec == std::errc() && result.ptr == end;
}

struct Token {
  std::string_view text;  // empty at end of file
  int64_t line = 0;
};

// Reads a BVH file front to back: whitespace-separated tokens in the hierarchy, then the frame
// rows line by line. A line ends at "\n", "\r\n" or a lone "\r".
class BvhParser {
 public:
  BvhParser(std::string_view text, std::string_view fileName, IoError& error)
      : p_(text.data()), end_(text.data() + text.size()), fileName_(fileName), error_(error) {
    // A byte-order mark is noise to this format.
    if (text.substr(0, 3) == "\xEF\xBB\xBF") p_ += 3;
  }

  bool Parse(BvhMotion& motion) {
    return ParseHierarchy(motion) && ParseMotionHeader(motion) && ParseFrames(motion);
  }

 private:
  // Messages name joints as the file spells them; a name may hold control bytes, which are
  // escaped here once for every message.
  bool Fail(int64_t line, std::string_view message) {
    error_ = IoError{};
    error_.file = std::string(fileName_);
    error_.line = line;
    AppendPrintable(error_.message, message);
    return false;
  }

  void SkipSpace() {
    while (p_ < end_) {
      const char c = *p_;
      if (c == '\n') {
        ++line_;
      } else if (c == '\r') {
        ++line_;
        if (p_ + 1 < end_ && p_[1] == '\n') ++p_;
      } else if (!IsBlank(c)) {
        return;
      }
      ++p_;
    }
  }

  void SkipBlanks() {
    while (p_ < end_ && IsBlank(*p_)) ++p_;
  }

  // The next run of non-space characters; braces always stand alone.
  Token Next() {
    SkipSpace();
    Token token;
    token.line = line_;
    if (p_ == end_) return token;
    const char* start = p_;
    if (*p_ == '{' || *p_ == '}') {
      ++p_;
    } else {
      while (p_ < end_ && !IsSpace(*p_) && *p_ != '{' && *p_ != '}') ++p_;
    }
    token.text = std::string_view(start, static_cast<size_t>(p_ - start));
    return token;
  }

  // A joint name: the rest of the line up to a brace, without surrounding blanks, so names with
  // inner spaces survive.
  std::string_view RestOfLine() {
    SkipBlanks();
    const char* start = p_;
    while (p_ < end_ && !IsLineBreak(*p_) && *p_ != '{' && *p_ != '}') ++p_;
    const char* stop = p_;
    while (stop > start && IsBlank(stop[-1])) --stop;
    return std::string_view(start, static_cast<size_t>(stop - start));
  }

  bool ExpectOpenBrace(std::string_view what) {
    const Token token = Next();
    if (token.text == "{") return true;
    return Fail(token.line,
                "expected '{' after " + std::string(what) + ", found " + Quote(token.text));
  }

  bool ParseOffset(std::string_view owner, double (&offset)[3]) {
    static constexpr char kAxis[] = {'x', 'y', 'z'};
    for (int i = 0; i < 3; ++i) {
      const Token token = Next();
      const NumberStatus status = ParseDoubleToken(token.text, offset[i]);
      if (status == NumberStatus::kOk) continue;
      std::string what = "the OFFSET " + std::string(1, kAxis[i]) + " of " + std::string(owner);
      if (status == NumberStatus::kNotFinite) {
        return Fail(token.line, what + " is not a finite number: " + Quote(token.text));
      }
      if (status == NumberStatus::kOutOfRange) {
        return Fail(token.line, what + " is out of the range of a double: " + Quote(token.text));
      }
      return Fail(token.line, "expected a number for " + what + ", found " + Quote(token.text));
    }
    return true;
  }

  bool ParseChannels(BvhJoint& joint) {
    const Token countToken = Next();
    int64_t count = 0;
    bool overflow = false;
    if (!ParseIntegerToken(countToken.text, count, overflow) && !overflow) {
      return Fail(countToken.line, "expected the number of channels of joint '" + joint.name +
                                       "', found " + Quote(countToken.text));
    }
    if (overflow || count < 0 || count > 6) {
      return Fail(countToken.line, "the number of channels of joint '" + joint.name +
                                       "' must be between 0 and 6, found " +
                                       std::string(countToken.text));
    }
    for (int64_t i = 0; i < count; ++i) {
      const Token token = Next();
      int found = -1;
      for (int c = 0; c < 6; ++c) {
        if (IEquals(token.text, kChannelNames[c])) found = c;
      }
      if (found < 0) {
        return Fail(token.line, "expected channel name " + std::to_string(i + 1) + " of " +
                                    std::to_string(count) + " of joint '" + joint.name +
                                    "' (Xposition, Yposition, Zposition, Xrotation, Yrotation "
                                    "or Zrotation), found " +
                                    Quote(token.text));
      }
      const Channel channel = static_cast<Channel>(found);
      if (std::find(joint.channels.begin(), joint.channels.end(), channel) !=
          joint.channels.end()) {
        return Fail(token.line, "joint '" + joint.name + "' lists channel " +
                                    std::string(kChannelNames[found]) + " twice");
      }
      joint.channels.push_back(channel);
    }
    return true;
  }

  // Starts a joint block after ROOT or JOINT: name, duplicate check, the opening brace.
  bool OpenJoint(std::string_view keyword, int parent, BvhMotion& motion) {
    const int64_t line = line_;
    const std::string_view name = RestOfLine();
    if (name.empty()) {
      return Fail(line, "expected a joint name after " + std::string(keyword));
    }
    const auto [it, added] = names_.emplace(name, line);
    if (!added) {
      return Fail(line, "duplicate joint name '" + std::string(name) + "' (first used at line " +
                            std::to_string(it->second) + ")");
    }
    BvhJoint joint;
    joint.name = std::string(name);
    joint.parent = parent;
    motion.joints.push_back(std::move(joint));
    if (!ExpectOpenBrace(std::string(keyword) + " " + std::string(name))) return false;
    open_.push_back(Block{static_cast<int>(motion.joints.size()) - 1, line, false});
    return true;
  }

  bool ParseHierarchy(BvhMotion& motion) {
    Token token = Next();
    if (!IEquals(token.text, "HIERARCHY")) {
      if (token.text.empty()) return Fail(token.line, "the file is empty");
      return Fail(token.line,
                  "expected HIERARCHY at the start of the file, found " + Quote(token.text));
    }
    token = Next();
    if (!IEquals(token.text, "ROOT")) {
      return Fail(token.line, "expected ROOT after HIERARCHY, found " + Quote(token.text));
    }
    if (!OpenJoint("ROOT", -1, motion)) return false;

    // One entry per open brace: a joint's block, or an End Site's block (endSite = true).
    while (!open_.empty()) {
      const Block block = open_.back();
      BvhJoint& joint = motion.joints[static_cast<size_t>(block.joint)];
      token = Next();
      if (token.text.empty()) {
        return Fail(token.line, std::string("the file ends inside the hierarchy: the block of ") +
                                    (block.endSite ? "the End Site of " : "") + "joint '" +
                                    joint.name + "' opened at line " + std::to_string(block.line) +
                                    " is not closed");
      }
      if (block.endSite) {
        if (IEquals(token.text, "OFFSET") && !open_.back().sawOffset) {
          if (!ParseOffset("the End Site of '" + joint.name + "'", joint.endSite)) return false;
          open_.back().sawOffset = true;
        } else if (token.text == "}" && open_.back().sawOffset) {
          open_.pop_back();
        } else {
          return Fail(token.line, std::string("expected ") +
                                      (open_.back().sawOffset ? "'}'" : "OFFSET") +
                                      " in the End Site of joint '" + joint.name + "', found " +
                                      Quote(token.text));
        }
        continue;
      }
      if (IEquals(token.text, "OFFSET")) {
        if (open_.back().sawOffset) {
          return Fail(token.line, "joint '" + joint.name + "' has a second OFFSET");
        }
        if (!ParseOffset("joint '" + joint.name + "'", joint.offset)) return false;
        open_.back().sawOffset = true;
      } else if (IEquals(token.text, "CHANNELS")) {
        if (open_.back().sawChannels) {
          return Fail(token.line, "joint '" + joint.name + "' has a second CHANNELS line");
        }
        // The channel columns follow the joints in pre-order, so a joint's channels must be known
        // before any child's.
        if (open_.back().sawChild) {
          return Fail(token.line, "the CHANNELS of joint '" + joint.name +
                                      "' must come before its child joints");
        }
        if (!ParseChannels(joint)) return false;
        open_.back().sawChannels = true;
      } else if (IEquals(token.text, "JOINT")) {
        open_.back().sawChild = true;
        if (!OpenJoint("JOINT", block.joint, motion)) return false;
      } else if (IEquals(token.text, "End")) {
        const Token site = Next();
        if (!IEquals(site.text, "Site")) {
          return Fail(site.line, "expected 'Site' after 'End', found " + Quote(site.text));
        }
        if (joint.hasEndSite) {
          return Fail(token.line, "joint '" + joint.name + "' has a second End Site");
        }
        joint.hasEndSite = true;
        if (!ExpectOpenBrace("End Site")) return false;
        open_.push_back(Block{block.joint, token.line, true});
      } else if (token.text == "}") {
        if (!open_.back().sawOffset) {
          return Fail(token.line, "joint '" + joint.name + "' has no OFFSET");
        }
        open_.pop_back();
      } else if (IEquals(token.text, "MOTION")) {
        return Fail(token.line, "MOTION inside the hierarchy: the block of joint '" + joint.name +
                                    "' opened at line " + std::to_string(block.line) +
                                    " is not closed (a '}' is missing)");
      } else if (IEquals(token.text, "ROOT")) {
        return Fail(token.line, "ROOT inside joint '" + joint.name +
                                    "': expected JOINT, or '}' to close the joint");
      } else {
        return Fail(token.line, "expected OFFSET, CHANNELS, JOINT, End Site or '}' in joint '" +
                                    joint.name + "', found " + Quote(token.text));
      }
    }

    for (const BvhJoint& joint : motion.joints) {
      motion.channelCount += static_cast<int>(joint.channels.size());
    }
    token = Next();
    if (IEquals(token.text, "MOTION")) return true;
    if (token.text.empty()) return Fail(token.line, "the file ends before the MOTION section");
    if (IEquals(token.text, "ROOT")) {
      return Fail(token.line, "a second ROOT: only files with one skeleton are supported");
    }
    if (token.text == "}") {
      return Fail(token.line, "unbalanced '}': the ROOT joint's block is already closed");
    }
    return Fail(token.line, "expected MOTION after the hierarchy, found " + Quote(token.text));
  }

  // Matches a label such as "Frame Time:": the words in any case, any blanks between them and
  // before the colon. Leaves the position unchanged on a mismatch.
  bool MatchLabel(std::initializer_list<std::string_view> words) {
    const char* p = p_;
    bool first = true;
    for (std::string_view word : words) {
      if (!first) {
        const char* before = p;
        while (p < end_ && IsBlank(*p)) ++p;
        if (p == before) return false;
      }
      first = false;
      if (static_cast<size_t>(end_ - p) < word.size() ||
          !IEquals(std::string_view(p, word.size()), word)) {
        return false;
      }
      p += word.size();
    }
    while (p < end_ && IsBlank(*p)) ++p;
    if (p == end_ || *p != ':') return false;
    p_ = p + 1;
    return true;
  }

  bool ParseMotionHeader(BvhMotion& motion) {
    SkipSpace();
    if (!MatchLabel({"Frames"})) {
      const Token token = Next();
      return Fail(token.line, "expected 'Frames:' after MOTION, found " + Quote(token.text));
    }
    Token token = Next();
    bool overflow = false;
    if (!ParseIntegerToken(token.text, motion.frameCount, overflow)) {
      if (overflow) {
        return Fail(token.line, "the frame count " + std::string(token.text) +
                                    " is larger than the supported " + std::to_string(kMaxFrames));
      }
      return Fail(token.line,
                  "expected the frame count after 'Frames:', found " + Quote(token.text));
    }
    if (motion.frameCount < 0) {
      return Fail(token.line, "the frame count must not be negative, found " +
                                  std::to_string(motion.frameCount));
    }
    if (motion.frameCount > kMaxFrames) {
      return Fail(token.line, "the frame count " + std::to_string(motion.frameCount) +
                                  " is larger than the supported " + std::to_string(kMaxFrames));
    }
    if (motion.frameCount * motion.channelCount > kMaxValues) {
      return Fail(token.line, std::to_string(motion.frameCount) + " frames of " +
                                  std::to_string(motion.channelCount) +
                                  " channels are more values than the supported " +
                                  std::to_string(kMaxValues));
    }

    SkipSpace();
    if (!MatchLabel({"Frame", "Time"})) {
      token = Next();
      return Fail(token.line,
                  "expected 'Frame Time:' after the frame count, found " + Quote(token.text));
    }
    token = Next();
    const NumberStatus status = ParseDoubleToken(token.text, motion.frameTime);
    if (status == NumberStatus::kNotANumber) {
      return Fail(token.line, "expected the frame time in seconds after 'Frame Time:', found " +
                                  Quote(token.text));
    }
    if (status != NumberStatus::kOk || !(motion.frameTime > 0)) {
      return Fail(token.line, "the frame time must be a positive number of seconds, found " +
                                  std::string(token.text));
    }
    if (std::string problem = FrameTimeRangeProblem(motion.frameTime, token.text);
        !problem.empty()) {
      return Fail(token.line, std::move(problem));
    }
    SkipBlanks();
    if (p_ < end_ && !IsLineBreak(*p_)) {
      token = Next();
      return Fail(token.line,
                  "expected the end of the line after the frame time, found " + Quote(token.text));
    }
    return true;
  }

  std::string TokenAt(const char* p) const {
    const char* stop = p;
    while (stop < end_ && !IsSpace(*stop)) ++stop;
    return Quote(std::string_view(p, static_cast<size_t>(stop - p)));
  }

  // The frame rows: the hot loop over the bulk of the file, so it scans the buffer directly.
  bool ParseFrames(BvhMotion& motion) {
    const int64_t channels = motion.channelCount;
    const int64_t total = motion.frameCount * channels;
    if (channels == 0) {
      // Rows without values are empty lines; only blank space may follow.
      SkipSpace();
      if (p_ < end_) {
        return Fail(line_, "unexpected " + TokenAt(p_) + ": the hierarchy has no channels");
      }
      return true;
    }
    // Every value takes at least two bytes, so a header claiming more frames than the file can
    // hold does not get to reserve memory for them.
    const int64_t possible = (end_ - p_) / 2 + 1;
    motion.values.reserve(static_cast<size_t>(std::min(total, possible)));

    const char* p = p_;
    const char* const end = end_;
    int64_t line = line_;
    for (int64_t frame = 0; frame < motion.frameCount; ++frame) {
      // To the first value of the next non-blank line.
      for (;;) {
        if (p == end) {
          return Fail(line, "the motion section ends after " + std::to_string(frame) + " of " +
                                std::to_string(motion.frameCount) + " frames");
        }
        const char c = *p;
        if (c == '\n') {
          ++line;
        } else if (c == '\r') {
          ++line;
          if (p + 1 < end && p[1] == '\n') ++p;
        } else if (!IsBlank(c)) {
          break;
        }
        ++p;
      }
      int64_t found = 0;
      for (;;) {
        double value;
        const NumberResult result = ParseDouble(p, end, value);
        if (result.status != NumberStatus::kOk || (result.next < end && !IsSpace(*result.next))) {
          const std::string what = "value " + std::to_string(found + 1) + " of the frame row";
          switch (result.status) {
            case NumberStatus::kNotFinite:
              return Fail(line, what + " is not a finite number: " + TokenAt(p));
            case NumberStatus::kOutOfRange:
              return Fail(line, what + " is out of the range of a double: " + TokenAt(p));
            default:
              return Fail(line, "expected a number as " + what + ", found " + TokenAt(p));
          }
        }
        if (found < channels) motion.values.push_back(value);
        ++found;
        p = result.next;
        while (p < end && IsBlank(*p)) ++p;
        if (p == end || IsLineBreak(*p)) break;
      }
      if (found != channels) {
        return Fail(line, "expected " + std::to_string(channels) +
                              " values in the frame row, found " + std::to_string(found));
      }
    }
    p_ = p;
    line_ = line;
    SkipSpace();
    if (p_ < end_) {
      return Fail(line_, "unexpected " + TokenAt(p_) + " after the last of the " +
                             std::to_string(motion.frameCount) + " frames announced by 'Frames:'");
    }
    return true;
  }

  struct Block {
    int joint;
    int64_t line;
    bool endSite;
    bool sawOffset = false;
    bool sawChannels = false;
    bool sawChild = false;
  };

  const char* p_;
  const char* end_;
  int64_t line_ = 1;
  std::string_view fileName_;
  IoError& error_;
  std::vector<Block> open_;
  std::unordered_map<std::string_view, int64_t> names_;  // name -> line of its declaration
};

bool NameSurvivesFile(std::string_view name) {
  if (name.empty() || IsBlank(name.front()) || IsBlank(name.back())) return false;
  return name.find_first_of("\r\n{}") == std::string_view::npos;
}

bool CheckFail(IoError& error, std::string_view message) {
  error = IoError{};
  AppendPrintable(error.message, message);
  return false;
}

bool CheckBvhImpl(const BvhMotion& motion, IoError& error) {
  if (motion.joints.empty()) return CheckFail(error, "the motion has no joints");
  std::unordered_map<std::string_view, size_t> names;
  std::vector<int> path;  // the ancestors of the joint being checked, root first
  int64_t channelCount = 0;
  for (size_t i = 0; i < motion.joints.size(); ++i) {
    const BvhJoint& joint = motion.joints[i];
    const std::string label = "joint " + std::to_string(i) + " ('" + joint.name + "')";
    if (!NameSurvivesFile(joint.name)) {
      return CheckFail(error, label +
                                  " needs a name that is not empty, does not start or end with "
                                  "blank space and has no line break or brace");
    }
    if (!names.emplace(joint.name, i).second) {
      return CheckFail(error,
                       label + " has the same name as joint " + std::to_string(names[joint.name]));
    }
    if (i == 0) {
      if (joint.parent != -1) return CheckFail(error, label + " comes first but is not the root");
    } else {
      if (joint.parent < 0 || static_cast<size_t>(joint.parent) >= i) {
        return CheckFail(error, label + " has parent " + std::to_string(joint.parent) +
                                    ": every joint but the first needs an earlier parent");
      }
      while (!path.empty() && path.back() != joint.parent) path.pop_back();
      if (path.empty()) {
        return CheckFail(error, label +
                                    " is not in pre-order: it follows a joint outside the "
                                    "subtree of its parent");
      }
    }
    path.push_back(static_cast<int>(i));
    if (joint.channels.size() > 6) {
      return CheckFail(error, label + " has " + std::to_string(joint.channels.size()) +
                                  " channels; at most 6 are possible");
    }
    for (size_t c = 0; c < joint.channels.size(); ++c) {
      if (static_cast<unsigned>(joint.channels[c]) > 5) {
        return CheckFail(error, label + " has an unknown channel");
      }
      for (size_t d = 0; d < c; ++d) {
        if (joint.channels[d] == joint.channels[c]) {
          return CheckFail(error, label + " lists channel " +
                                      std::string(ChannelName(joint.channels[c])) + " twice");
        }
      }
    }
    channelCount += static_cast<int64_t>(joint.channels.size());
    for (int k = 0; k < 3; ++k) {
      if (!std::isfinite(joint.offset[k]) ||
          (joint.hasEndSite && !std::isfinite(joint.endSite[k]))) {
        return CheckFail(error, label + " has an offset that is not a finite number");
      }
    }
  }
  if (channelCount != motion.channelCount) {
    return CheckFail(error, "channelCount is " + std::to_string(motion.channelCount) +
                                " but the joints have " + std::to_string(channelCount) +
                                " channels");
  }
  if (motion.frameCount < 0 || motion.frameCount > kMaxFrames) {
    return CheckFail(error, "the frame count " + std::to_string(motion.frameCount) +
                                " is not between 0 and " + std::to_string(kMaxFrames));
  }
  if (motion.frameCount * channelCount > kMaxValues) {
    return CheckFail(error,
                     "the motion has more values than the supported " + std::to_string(kMaxValues));
  }
  if (static_cast<int64_t>(motion.values.size()) != motion.frameCount * channelCount) {
    return CheckFail(error, "expected " + std::to_string(motion.frameCount * channelCount) +
                                " values (" + std::to_string(motion.frameCount) + " frames of " +
                                std::to_string(channelCount) + " channels), found " +
                                std::to_string(motion.values.size()));
  }
  if (!std::isfinite(motion.frameTime) || !(motion.frameTime > 0)) {
    return CheckFail(error, "the frame time must be a positive number of seconds, found " +
                                FormatDouble(motion.frameTime));
  }
  if (std::string problem = FrameTimeRangeProblem(motion.frameTime, FormatDouble(motion.frameTime));
      !problem.empty()) {
    return CheckFail(error, std::move(problem));
  }
  for (size_t v = 0; v < motion.values.size(); ++v) {
    if (!std::isfinite(motion.values[v])) {
      const size_t stride = static_cast<size_t>(channelCount);
      return CheckFail(error, "value " + std::to_string(v % stride + 1) + " of frame " +
                                  std::to_string(v / stride) + " is not a finite number");
    }
  }
  return true;
}

}  // namespace

std::string_view ChannelName(Channel channel) {
  const auto index = static_cast<size_t>(channel);
  return index < std::size(kChannelNames) ? kChannelNames[index] : std::string_view("unknown");
}

int BvhMotion::ChannelOffset(int joint) const {
  if (joint < 0 || static_cast<size_t>(joint) > joints.size()) return -1;
  int offset = 0;
  for (int j = 0; j < joint; ++j)
    offset += static_cast<int>(joints[static_cast<size_t>(j)].channels.size());
  return offset;
}

double BvhMotion::FrameRate() const {
  return (std::isfinite(frameTime) && frameTime > 0) ? 1.0 / frameTime : 0.0;
}

int BvhMotion::FindJoint(std::string_view name) const {
  for (size_t j = 0; j < joints.size(); ++j) {
    if (joints[j].name == name) return static_cast<int>(j);
  }
  return -1;
}

bool ReadBvh(std::string_view text, std::string_view fileName, BvhMotion& motion, IoError& error) {
  motion = BvhMotion{};
  return GuardedIo(fileName, error, [&] {
    BvhMotion parsed;
    BvhParser parser(text, fileName, error);
    if (!parser.Parse(parsed)) return false;
    motion = std::move(parsed);
    return true;
  });
}

bool ReadBvh(const std::filesystem::path& path, BvhMotion& motion, IoError& error) {
  motion = BvhMotion{};
  return GuardedIo(path.string(), error, [&] {
    std::string text;
    if (!ReadWholeFile(path, text, error)) return false;
    return ReadBvh(text, path.string(), motion, error);
  });
}

bool CheckBvh(const BvhMotion& motion, IoError& error) {
  try {
    return CheckBvhImpl(motion, error);
  } catch (const std::exception& e) {
    return CheckFail(error, e.what());
  }
}

namespace {

std::string WriteBvhImpl(const BvhMotion& motion) {
  const std::vector<BvhJoint>& joints = motion.joints;
  const size_t count = joints.size();

  // The columns of each joint in the given motion, and its children in index order. A joint whose
  // parent is not an earlier joint is written as a root of its own (which the reader then turns
  // down); only a motion in pre-order keeps its joint order.
  std::vector<int64_t> firstColumn(count + 1, 0);
  std::vector<std::vector<size_t>> children(count);
  std::vector<size_t> roots;
  for (size_t j = 0; j < count; ++j) {
    firstColumn[j + 1] = firstColumn[j] + static_cast<int64_t>(joints[j].channels.size());
    const int parent = joints[j].parent;
    if (parent >= 0 && static_cast<size_t>(parent) < j) {
      children[static_cast<size_t>(parent)].push_back(j);
    } else {
      roots.push_back(j);
    }
  }
  const int64_t written = firstColumn[count];
  const int64_t stride = motion.channelCount;
  // Only whole rows that the value array actually holds are written.
  int64_t rows = std::clamp<int64_t>(motion.frameCount, 0, kMaxFrames);
  if (written > 0) {
    rows = stride < written
               ? 0
               : std::min<int64_t>(rows, static_cast<int64_t>(motion.values.size()) / stride);
  }

  // Room for the longest rows, so the text is never moved while it grows. Pages of the reserve
  // that shorter numbers leave unwritten are never touched.
  std::string out;
  try {
    out.reserve(static_cast<size_t>(rows * written * kLongestDouble + rows + 1024 + count * 160));
  } catch (const std::bad_alloc&) {
    // Without the room reserved the text still grows as far as memory allows.
  }
  out += "HIERARCHY\n";

  std::vector<size_t> order;  // joints in the order written, for the frame rows
  order.reserve(count);
  auto indent = [&out](size_t depth) { out.append(std::min(depth, kMaxIndent), '\t'); };
  auto appendOffset = [&out](const double(&offset)[3]) {
    out += "OFFSET";
    for (double value : offset) {
      out += ' ';
      AppendDouble(out, value);
    }
    out += '\n';
  };
  // Depth-first with an explicit stack: each entry is a joint and how many of its children are
  // done, so a deep chain of joints cannot exhaust the call stack.
  std::vector<std::pair<size_t, size_t>> stack;
  for (size_t root : roots) {
    stack.push_back({root, 0});
    order.push_back(root);
    out += "ROOT ";
    out += joints[root].name;
    out += "\n{\n";
    bool opened = true;
    while (!stack.empty()) {
      auto& [joint, next] = stack.back();
      const size_t depth = stack.size();
      const BvhJoint& j = joints[joint];
      if (opened) {
        indent(depth);
        appendOffset(j.offset);
        indent(depth);
        out += "CHANNELS ";
        out += std::to_string(j.channels.size());
        for (Channel channel : j.channels) {
          out += ' ';
          out += ChannelName(channel);
        }
        out += '\n';
        opened = false;
      }
      if (next < children[joint].size()) {
        const size_t child = children[joint][next++];
        indent(depth);
        out += "JOINT ";
        out += joints[child].name;
        out += '\n';
        indent(depth);
        out += "{\n";
        order.push_back(child);
        stack.push_back({child, 0});
        opened = true;
        continue;
      }
      if (j.hasEndSite) {
        indent(depth);
        out += "End Site\n";
        indent(depth);
        out += "{\n";
        indent(depth + 1);
        appendOffset(j.endSite);
        indent(depth);
        out += "}\n";
      }
      indent(depth - 1);
      out += "}\n";
      stack.pop_back();
    }
  }

  out += "MOTION\nFrames: ";
  out += std::to_string(rows);
  out += "\nFrame Time: ";
  AppendDouble(out, motion.frameTime);
  out += '\n';
  // Each row is formatted straight into the text: room for its longest form is opened, and what
  // its numbers leave unused is cut off again. Appending number by number would copy every one of
  // them once more, a call each.
  const size_t rowRoom = static_cast<size_t>(written) * kLongestDouble + kShortestRoom;
  for (int64_t row = 0; row < rows; ++row) {
    const double* values = motion.values.data() + row * stride;
    const size_t at = out.size();
    out.resize(at + rowRoom);
    char* next = out.data() + at;
    bool first = true;
    for (size_t joint : order) {
      for (int64_t c = firstColumn[joint]; c < firstColumn[joint + 1]; ++c) {
        if (!first) *next++ = ' ';
        first = false;
        next = WriteShortest(next, values[c]);
      }
    }
    *next++ = '\n';
    out.resize(static_cast<size_t>(next - out.data()));
  }
  return out;
}

}  // namespace

std::string WriteBvh(const BvhMotion& motion) {
  try {
    return WriteBvhImpl(motion);
  } catch (const std::exception&) {
    return std::string();
  }
}

bool WriteBvh(const std::filesystem::path& path, const BvhMotion& motion, IoError& error) {
  return WriteCheckedText(
      path, [&](IoError& checkError) { return CheckBvh(motion, checkError); },
      [&] { return WriteBvh(motion); }, error);
}

}  // namespace tarni::host
