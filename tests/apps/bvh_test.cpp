#include "io/bvh.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <random>
#include <string>

#include "apps/jobrun.h"
#include "io/atomicfile.h"

namespace tarni::host {
namespace {

using ::testing::HasSubstr;

// Three joints: a 6-channel root, a 3-channel joint with an End Site and one without. Line 24 holds
// the first frame row.
constexpr std::string_view kSmall =
    "HIERARCHY\n"
    "ROOT Hips\n"
    "{\n"
    "\tOFFSET 1 2 3\n"
    "\tCHANNELS 6 Xposition Yposition Zposition Zrotation Yrotation Xrotation\n"
    "\tJOINT Spine\n"
    "\t{\n"
    "\t\tOFFSET 0 5 0\n"
    "\t\tCHANNELS 3 Zrotation Xrotation Yrotation\n"
    "\t\tEnd Site\n"
    "\t\t{\n"
    "\t\t\tOFFSET 0 1 0.25\n"
    "\t\t}\n"
    "\t}\n"
    "\tJOINT Leg\n"
    "\t{\n"
    "\t\tOFFSET 1 -4 0\n"
    "\t\tCHANNELS 3 Xrotation Yrotation Zrotation\n"
    "\t}\n"
    "}\n"
    "MOTION\n"
    "Frames: 2\n"
    "Frame Time: 0.5\n"
    "1 2 3 4 5 6 7 8 9 10 11 12\n"
    "13 14 15 16 17 18 19 20 21 22 23 24\n";

std::string Replace(std::string_view text, std::string_view from, std::string_view to) {
  std::string result(text);
  const size_t at = result.find(from);
  EXPECT_NE(at, std::string::npos) << "test text lacks '" << from << "'";
  if (at != std::string::npos) result.replace(at, from.size(), to);
  return result;
}

std::string ReplaceAll(std::string text, std::string_view from, std::string_view to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

BvhMotion ReadOk(std::string_view text) {
  BvhMotion motion;
  IoError error;
  EXPECT_TRUE(ReadBvh(text, "test.bvh", motion, error)) << error.ToText();
  return motion;
}

// Reads text that must be turned down; the motion must come back empty.
IoError ReadFails(std::string_view text) {
  BvhMotion motion;
  motion.frameCount = 7;
  IoError error;
  EXPECT_FALSE(ReadBvh(text, "test.bvh", motion, error));
  EXPECT_EQ(error.file, "test.bvh");
  EXPECT_FALSE(error.message.empty());
  EXPECT_TRUE(motion.joints.empty() && motion.values.empty() && motion.frameCount == 0);
  return error;
}

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

void ExpectSameMotion(const BvhMotion& a, const BvhMotion& b) {
  ASSERT_EQ(a.joints.size(), b.joints.size());
  for (size_t j = 0; j < a.joints.size(); ++j) {
    SCOPED_TRACE(a.joints[j].name);
    EXPECT_EQ(a.joints[j].name, b.joints[j].name);
    EXPECT_EQ(a.joints[j].parent, b.joints[j].parent);
    EXPECT_EQ(a.joints[j].channels, b.joints[j].channels);
    EXPECT_EQ(a.joints[j].hasEndSite, b.joints[j].hasEndSite);
    for (int k = 0; k < 3; ++k) {
      EXPECT_TRUE(SameBits(a.joints[j].offset[k], b.joints[j].offset[k]));
      EXPECT_TRUE(SameBits(a.joints[j].endSite[k], b.joints[j].endSite[k]));
    }
  }
  EXPECT_EQ(a.frameCount, b.frameCount);
  EXPECT_TRUE(SameBits(a.frameTime, b.frameTime));
  EXPECT_EQ(a.channelCount, b.channelCount);
  ASSERT_EQ(a.values.size(), b.values.size());
  size_t differing = 0;
  for (size_t v = 0; v < a.values.size(); ++v) differing += !SameBits(a.values[v], b.values[v]);
  EXPECT_EQ(differing, 0u);
}

TEST(BvhReader, ReadsTheHierarchyAndFrames) {
  const BvhMotion m = ReadOk(kSmall);
  ASSERT_EQ(m.joints.size(), 3u);
  const std::pair<const char*, int> joints[] = {{"Hips", -1}, {"Spine", 0}, {"Leg", 0}};
  for (size_t j = 0; j < 3; ++j) {
    EXPECT_EQ(m.joints[j].name, joints[j].first);
    EXPECT_EQ(m.joints[j].parent, joints[j].second);
    EXPECT_EQ(m.joints[j].hasEndSite, j == 1);
    EXPECT_EQ(m.ChannelOffset(static_cast<int>(j)), j == 0 ? 0 : j == 1 ? 6 : 9);
  }
  EXPECT_EQ(m.joints[1].endSite[2], 0.25);
  EXPECT_EQ(m.joints[1].channels,
            (std::vector<Channel>{Channel::kZrotation, Channel::kXrotation, Channel::kYrotation}));
  EXPECT_EQ(m.channelCount, 12);
  EXPECT_EQ(m.FindJoint("Leg"), 2);
  EXPECT_EQ(m.frameCount, 2);
  EXPECT_EQ(m.FrameRate(), 2);
  ASSERT_EQ(m.values.size(), 24u);
  EXPECT_EQ(m.Value(0, 0), 1);
  EXPECT_EQ(m.Value(1, 11), 24);
  IoError error;
  EXPECT_TRUE(CheckBvh(m, error)) << error.ToText();
}

TEST(BvhReader, AcceptsWhatRealFilesContain) {
  const BvhMotion reference = ReadOk(kSmall);
  {  // CRLF and lone CRs read the same.
    ExpectSameMotion(ReadOk(ReplaceAll(std::string(kSmall), "\n", "\r\n")), reference);
    ExpectSameMotion(ReadOk(ReplaceAll(std::string(kSmall), "\n", "\r")), reference);
  }
  {  // Odd blank space, a tab after "Frames:", a leading-dot frame time, case-insensitive keys.
    std::string text = Replace(kSmall, "Frames: 2", "Frames:\t2");
    text = Replace(text, "Frame Time: 0.5", "Frame  Time :\t.5  ");
    text = Replace(text, "OFFSET 1 2 3", "offset   1\t2 \t 3");
    text = Replace(text, "\nMOTION", "\n\n  \nMOTION");
    text = Replace(text, "1 2 3 4", "\t 1  2 3\t4");
    text = Replace(text, "23 24\n", "23 24   \n\n\n   \n");
    text = Replace(text, "Xrotation Yrotation Zrotation", "XROTATION yrotation Zrotation");
    ExpectSameMotion(ReadOk(text), reference);
  }
  {  // Number spellings: a plus sign, a leading dot, exponents; a byte-order mark.
    std::string text = "\xEF\xBB\xBF" + Replace(kSmall, "1 2 3 4 5 6", "+1 2e0 .3e1 -.5 5E0 +.6");
    const BvhMotion m = ReadOk(text);
    EXPECT_EQ(m.Value(0, 0), 1);
    EXPECT_EQ(m.Value(0, 3), -0.5);
    EXPECT_EQ(m.Value(0, 5), 0.6);
  }
  {  // A value too small for a double is zero, with its sign.
    const BvhMotion m = ReadOk(Replace(kSmall, "1 2 3 4", "1e-400 -1e-999 0.0000e-5000 4"));
    EXPECT_EQ(m.Value(0, 0), 0);
    EXPECT_TRUE(std::signbit(m.Value(0, 1)));
  }
  {  // A root with rotations only, a joint with no channels, a joint with all six in any order,
     // a name with inner spaces and a brace on the name's line.
    std::string text = Replace(kSmall,
                               "CHANNELS 6 Xposition Yposition Zposition Zrotation Yrotation "
                               "Xrotation",
                               "CHANNELS 3 Zrotation Yrotation Xrotation");
    text = Replace(text, "CHANNELS 3 Zrotation Xrotation Yrotation", "CHANNELS 0");
    text = Replace(text, "CHANNELS 3 Xrotation Yrotation Zrotation",
                   "CHANNELS 6 Zrotation Yposition Xrotation Zposition Yrotation Xposition");
    text = Replace(text, "JOINT Leg\n\t{", "JOINT Left Leg {");
    text = Replace(text, "1 2 3 4 5 6 7 8 9 10 11 12", "1 2 3 4 5 6 7 8 9");
    text = Replace(text, "13 14 15 16 17 18 19 20 21 22 23 24", "10 11 12 13 14 15 16 17 18");
    const BvhMotion m = ReadOk(text);
    ASSERT_EQ(m.joints.size(), 3u);
    EXPECT_EQ(m.joints[0].channels.size(), 3u);
    EXPECT_TRUE(m.joints[1].channels.empty());
    EXPECT_EQ(m.joints[2].name, "Left Leg");
    EXPECT_EQ(m.joints[2].channels[1], Channel::kYposition);
    EXPECT_EQ(m.channelCount, 9);
    EXPECT_EQ(m.Value(1, 8), 18);
  }
  {  // No frames at all.
    const BvhMotion m =
        ReadOk(Replace(Replace(kSmall, "Frames: 2", "Frames: 0"),
                       "1 2 3 4 5 6 7 8 9 10 11 12\n13 14 15 16 17 18 19 20 21 22 23 24\n", ""));
    EXPECT_EQ(m.frameCount, 0);
    EXPECT_TRUE(m.values.empty());
  }
}

TEST(BvhReader, ReadsEveryDecimalAsTheStandardConversionDoes) {
  // Random decimals of 1 to 20 digits with the point anywhere (or nowhere, or last), leading
  // zeros and signs, around the 15 digits up to which the reader takes a shortcut; each value read
  // must be the bits from_chars gives for its token.
  std::mt19937_64 random(1123);
  std::vector<std::string> tokens;
  for (int i = 0; i < 60000; ++i) {
    const int digits = 1 + static_cast<int>(random() % 20);
    std::string token = random() % 2 != 0 ? "-" : "";
    const int zeros = random() % 4 == 0 ? static_cast<int>(random() % 4) : 0;
    token.append(static_cast<size_t>(zeros), '0');
    for (int d = 0; d < digits; ++d) token += static_cast<char>('0' + random() % 10);
    const size_t point = random() % 5 == 0 ? token.size() : 1 + random() % token.size();
    if (point < token.size() || random() % 2 != 0) token.insert(std::max<size_t>(point, 1), ".");
    if (token == "-.") token = "-0";
    tokens.push_back(token);
  }
  for (const char* token : {"0", "-0", "0.0", "-0.000", "5.", "999999999999999", "1000000000000000",
                            "0.000000000000001", "9007199254740993", "123456789.012345"}) {
    tokens.emplace_back(token);
  }
  while (tokens.size() % 6 != 0) tokens.emplace_back("1");
  std::string text =
      "HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 0 0\n\tCHANNELS 6 Xposition Yposition Zposition "
      "Zrotation Yrotation Xrotation\n\tEnd Site\n\t{\n\t\tOFFSET 0 1 0\n\t}\n}\nMOTION\nFrames: " +
      std::to_string(tokens.size() / 6) + "\nFrame Time: 0.01\n";
  for (size_t i = 0; i < tokens.size(); ++i) text += tokens[i] + (i % 6 == 5 ? "\n" : " ");
  const BvhMotion motion = ReadOk(text);
  ASSERT_EQ(motion.values.size(), tokens.size());
  int differing = 0;
  for (size_t i = 0; i < tokens.size(); ++i) {
    double want = 0.0;
    std::from_chars(tokens[i].data(), tokens[i].data() + tokens[i].size(), want);
    if (std::bit_cast<uint64_t>(motion.values[i]) != std::bit_cast<uint64_t>(want) &&
        ++differing <= 5) {
      ADD_FAILURE() << tokens[i] << " read as " << motion.values[i] << ", not " << want;
    }
  }
  EXPECT_EQ(differing, 0);
}

TEST(BvhReader, RejectsBrokenFilesNamingLineAndExpectation) {
  // Columns follow the joints in order, so channels declared after a child would be misread.
  const std::string kRootChannels =
      "CHANNELS 6 Xposition Yposition Zposition Zrotation Yrotation Xrotation";
  const std::string late = Replace(Replace(kSmall, "\t" + kRootChannels + "\n", ""),
                                   "\t}\n}\nMOTION", "\t}\n\t" + kRootChannels + "\n}\nMOTION");
  // 216 channels over ten million frames is more values than the bound: turned down from the
  // header alone, before any memory is set aside.
  std::string wide = "HIERARCHY\nROOT r\n{\nOFFSET 0 0 0\n" + kRootChannels + "\n";
  for (int j = 0; j < 35; ++j)
    wide += "JOINT j" + std::to_string(j) + "\n{\nOFFSET 0 0 0\n" + kRootChannels + "\n}\n";
  wide += "}\nMOTION\nFrames: 10000000\nFrame Time: 1\n";
  auto r = [](std::string_view from, std::string_view to) { return Replace(kSmall, from, to); };
  struct Case {
    std::string text;
    int line;             // 0: not pinned
    std::string message;  // the whole message, or a part of it when `part`
    bool part = false;
  };
  const Case cases[] = {
      // Frame rows beyond the count.
      {std::string(kSmall) + "1 2 3 4 5 6 7 8 9 10 11 12\n", 26, "after the last of the 2 frames",
       true},
      // Hierarchy numbers: unreadable, missing, non-finite.
      {r("OFFSET 0 5 0", "OFFSET 0 five 0"), 8,
       "expected a number for the OFFSET y of joint 'Spine', found 'five'"},
      {r("OFFSET 0 5 0", "OFFSET 0 5"), 9, "found 'CHANNELS'", true},
      {r("OFFSET 0 1 0.25", "OFFSET 0 nan 0.25"), 12, "End Site of 'Spine' is not a finite number",
       true},
      // A missing joint name.
      {r("JOINT Leg", "JOINT  "), 15, "expected a joint name after JOINT"},
      // Channels: counts outside 0..6, too few names, repeats, placement.
      {r("CHANNELS 3 Zrotation", "CHANNELS 7 Zrotation"), 9,
       "the number of channels of joint 'Spine' must be between 0 and 6, found 7"},
      {r("CHANNELS 3 Zrotation", "CHANNELS -1 Zrotation"), 9, "between 0 and 6, found -1", true},
      {r("CHANNELS 3 Zrotation", "CHANNELS 99999999999999999999 Z"), 9, "between 0 and 6", true},
      {r("CHANNELS 3 Zrotation", "CHANNELS three Zrotation"), 9,
       "expected the number of channels of joint 'Spine'", true},
      {r("CHANNELS 3 Zrotation Xrotation Yrotation", "CHANNELS 3 Zrotation"), 10, "found 'End'",
       true},
      {r("Zrotation Xrotation Yrotation", "Zrotation Xrotation zrotation"), 0,
       "joint 'Spine' lists channel Zrotation twice"},
      {late, 0, "CHANNELS of joint 'Hips' must come before its child", true},
      // Headers: frame counts, the value bound, frame times, keywords.
      {r("Frames: 2", "Frames: -2"), 22, "the frame count must not be negative, found -2"},
      {r("Frames: 2", "Frames: 10000001"), 22, "larger than the supported 10000000", true},
      {r("Frames: 2", "Frames: 2.0"), 22, "expected the frame count after 'Frames:', found '2.0'",
       true},
      {wide, 0, "10000000 frames of 216 channels are more values", true},
      {r("Frame Time: 0.5", "Frame Time: fast"), 23, "expected the frame time in seconds", true},
      {r("Frame Time: 0.5", "Frame Time: 0.5 0.5"), 23,
       "expected the end of the line after the frame time", true},
      {r("Frame Time: 0.5", "FrameTime: 0.5"), 23, "expected 'Frame Time:'", true},
      // Structure: keywords, unbalanced braces, the end of the file inside the hierarchy.
      {r("ROOT Hips", "JOINT Hips"), 2, "expected ROOT after HIERARCHY, found 'JOINT'"},
      {r("MOTION", "MOTON"), 21, "expected MOTION after the hierarchy, found 'MOTON'"},
      {std::string(kSmall.substr(0, kSmall.find("MOTION"))), 0,
       "the file ends before the MOTION section"},
      {r("}\nMOTION", "}\n}\nMOTION"), 21, "unbalanced '}'", true},
      {r("\t\t}\n\t}\n\tJOINT Leg", "\t\t}\n\tJOINT Leg"), 20,
       "joint 'Hips' opened at line 2 is not closed (a '}' is missing)", true},
      {std::string(kSmall.substr(0, kSmall.find("\t\t\tOFFSET 0 1"))), 12,
       "the End Site of joint 'Spine' opened at line 10", true},
      {r("JOINT Spine\n\t{", "JOINT Spine\n"), 0, "expected '{' after JOINT Spine, found 'OFFSET'"},
      {r("End Site", "End Sight"), 0, "expected 'Site' after 'End', found 'Sight'"},
      {r("JOINT Leg", "ROOT Leg"), 0, "ROOT inside joint 'Hips'", true},
      {r("MOTION", "ROOT Other\n{\nOFFSET 0 0 0\n}\nMOTION"), 0, "only files with one skeleton",
       true},
      {r("\t\tCHANNELS 3 Xrotation", "\t\tROTATION 3 Xrotation"), 0,
       "expected OFFSET, CHANNELS, JOINT, End Site or '}' in joint 'Leg', found 'ROTATION'", true},
  };
  for (const Case& c : cases) {
    const IoError e = ReadFails(c.text);
    if (c.line != 0) {
      EXPECT_EQ(e.line, c.line) << c.message;
    }
    if (c.part) {
      EXPECT_THAT(e.message, HasSubstr(c.message));
    } else {
      EXPECT_EQ(e.message, c.message);
    }
  }
  // Numbers in a row that are not finite or not numbers at all, each named by position.
  for (const char* bad : {"nan", "-inf", "infinity"}) {
    const IoError e = ReadFails(r("15 16", std::string("15 ") + bad));
    EXPECT_EQ(e.line, 25) << bad;
    EXPECT_THAT(e.message, HasSubstr("value 4 of the frame row is not a finite number")) << bad;
  }
  for (const char* bad : {"1.2.3", "1,5", "+-1", "1e", "0x10", "."}) {
    const IoError e = ReadFails(r("15 16", std::string("15 ") + bad));
    EXPECT_EQ(e.line, 25) << bad;
    EXPECT_THAT(e.message, HasSubstr("expected a number as value 4 of the frame row, found '" +
                                     std::string(bad) + "'"));
  }
  for (const char* bad : {"0", "nan", "1e400"}) {
    const IoError e = ReadFails(r("Frame Time: 0.5", std::string("Frame Time: ") + bad));
    EXPECT_EQ(e.line, 23) << bad;
    EXPECT_THAT(e.message, HasSubstr("frame time must be a positive number")) << bad;
  }
}

TEST(BvhReader, DeepHierarchiesDoNotExhaustTheStack) {
  // A chain of joints far deeper than any skeleton: reading, checking and writing must not recurse
  // once per level.
  constexpr int kDepth = 50000;
  std::string text = "HIERARCHY\nROOT j0\n{\nOFFSET 0 0 0\nCHANNELS 1 Xrotation\n";
  for (int j = 1; j < kDepth; ++j) {
    text += "JOINT j" + std::to_string(j) + "\n{\nOFFSET 0 1 0\nCHANNELS 0\n";
  }
  text += std::string(kDepth, '}') + "\nMOTION\nFrames: 1\nFrame Time: 1\n0.5\n";
  const BvhMotion m = ReadOk(text);
  ASSERT_EQ(m.joints.size(), static_cast<size_t>(kDepth));
  EXPECT_EQ(m.joints.back().parent, kDepth - 2);
  IoError error;
  EXPECT_TRUE(CheckBvh(m, error)) << error.ToText();
  const BvhMotion back = ReadOk(WriteBvh(m));
  ASSERT_EQ(back.joints.size(), m.joints.size());
  EXPECT_EQ(back.joints.back().name, m.joints.back().name);
  EXPECT_EQ(back.joints.back().parent, kDepth - 2);
  EXPECT_EQ(back.values, m.values);
}

// A motion whose joint order and values are awkward for a writer: siblings after a deep branch,
// and doubles that need all 17 digits, subnormals and signed zeros.
BvhMotion AwkwardMotion() {
  BvhMotion m;
  auto add = [&m](std::string name, int parent, std::vector<Channel> channels, bool endSite) {
    BvhJoint j;
    j.name = std::move(name);
    j.parent = parent;
    j.offset[0] = 0.1 * (parent + 2);
    j.offset[1] = -1.0 / 3;
    j.offset[2] = 1e-300;
    j.channels = std::move(channels);
    j.hasEndSite = endSite;
    if (endSite) j.endSite[1] = 7.0 / 9;
    m.joints.push_back(j);
  };
  const std::vector<Channel> rot = {Channel::kZrotation, Channel::kXrotation, Channel::kYrotation};
  add("root", -1,
      {Channel::kXposition, Channel::kYposition, Channel::kZposition, Channel::kXrotation,
       Channel::kYrotation, Channel::kZrotation},
      false);
  add("a", 0, rot, false);
  add("a.1", 1, rot, false);
  add("a.1.x", 2, {}, true);
  add("b", 0, {Channel::kYrotation}, true);
  add("b 2", 4, rot, false);
  for (const BvhJoint& j : m.joints) m.channelCount += static_cast<int>(j.channels.size());
  m.frameCount = 3;
  m.frameTime = 1.0 / 120;
  const double specials[] = {0.1,  -0.0, 1.0 / 3, 5e-324,    DBL_MAX, -DBL_MIN,
                             1e-7, 1e22, 123.456, 2.0 / 3e9, -1e-100, 0.30000000000000004};
  for (int64_t v = 0; v < m.frameCount * m.channelCount; ++v) {
    const double scale = v % 12 == 4 ? 1 : 1 + static_cast<double>(v) / 1024;  // DBL_MAX stays
    m.values.push_back(specials[v % 12] * scale);
  }
  return m;
}

TEST(BvhWriter, WritesStandardTextThatReadsBackIdentically) {
  const BvhMotion m = AwkwardMotion();
  IoError error;
  ASSERT_TRUE(CheckBvh(m, error)) << error.ToText();
  const std::string text = WriteBvh(m);
  {  // The layout other programs expect.
    EXPECT_EQ(text.rfind("HIERARCHY\nROOT root\n{\n\tOFFSET ", 0), 0u) << text;
    EXPECT_THAT(text, HasSubstr("\n\tJOINT a\n\t{\n\t\tOFFSET "));
    EXPECT_THAT(text, HasSubstr("\t\tCHANNELS 3 Zrotation Xrotation Yrotation\n"));
    EXPECT_THAT(text,
                HasSubstr("\t\t\t\tCHANNELS 0\n\t\t\t\tEnd Site\n\t\t\t\t{\n\t\t\t\t\tOFFSET"));
    EXPECT_THAT(text, HasSubstr("\nMOTION\nFrames: 3\nFrame Time: 0.008333333333333333\n"));
    EXPECT_EQ(text.find('\r'), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '{'), std::count(text.begin(), text.end(), '}'));
  }
  {  // Every number, name and channel comes back bit for bit.
    ExpectSameMotion(ReadOk(text), m);
  }
  {  // Writing what was read gives the same text again.
    EXPECT_EQ(WriteBvh(ReadOk(text)), text);
  }
}

TEST(BvhWriter, KeepsValuesWithTheirJointsWhenTheOrderIsNotPreOrder) {
  // Parents come before children, but b's child sits after a's subtree started: the file must
  // still pair every column with its joint.
  BvhMotion m;
  m.joints.resize(4);
  m.joints[0] = {"root", -1, {0, 0, 0}, {Channel::kXrotation}, false, {0, 0, 0}};
  m.joints[1] = {"a", 0, {1, 0, 0}, {Channel::kYrotation}, false, {0, 0, 0}};
  m.joints[2] = {"b", 0, {2, 0, 0}, {Channel::kZrotation}, false, {0, 0, 0}};
  m.joints[3] = {"a.child", 1, {3, 0, 0}, {Channel::kXrotation}, true, {0, 1, 0}};
  m.channelCount = 4;
  m.frameCount = 2;
  m.frameTime = 0.25;
  m.values = {10, 11, 12, 13, 20, 21, 22, 23};
  IoError error;
  EXPECT_FALSE(CheckBvh(m, error));
  EXPECT_THAT(error.message, HasSubstr("pre-order"));

  const BvhMotion back = ReadOk(WriteBvh(m));
  ASSERT_EQ(back.joints.size(), 4u);
  EXPECT_EQ(back.joints[2].name, "a.child");
  EXPECT_EQ(back.joints[2].parent, 1);
  EXPECT_EQ(back.joints[3].name, "b");
  for (int64_t f = 0; f < 2; ++f) {
    for (int j = 0; j < 4; ++j) {
      const int original = m.FindJoint(back.joints[static_cast<size_t>(j)].name);
      EXPECT_EQ(back.Value(f, back.ChannelOffset(j)), m.Value(f, original));
      EXPECT_EQ(back.joints[static_cast<size_t>(j)].offset[0], original);
    }
  }
}

TEST(BvhWriter, CheckTurnsDownMotionsThatWouldNotReadBack) {
  const BvhMotion good = AwkwardMotion();
  const std::pair<void (*)(BvhMotion&), const char*> cases[] = {
      // Counts that disagree with the joints or the values.
      {[](BvhMotion& m) { m.channelCount += 1; }, "channelCount is 17 but the joints have 16"},
      {[](BvhMotion& m) { m.values.pop_back(); },
       "expected 48 values (3 frames of 16 channels), found 47"},
      {[](BvhMotion& m) { m.frameCount = -1; }, "frame count -1"},
      // Names the file format cannot carry, or carry twice.
      {[](BvhMotion& m) { m.joints[3].name = "a"; }, "the same name as joint 1"},
      {[](BvhMotion& m) { m.joints[2].name = ""; }, "needs a name"},
      {[](BvhMotion& m) { m.joints[2].name = "trail\t"; }, "needs a name"},
      {[](BvhMotion& m) { m.joints[2].name = "two\nlines"; }, "needs a name"},
      {[](BvhMotion& m) { m.joints[2].name = "br{ace"; }, "needs a name"},
      // Structure: the root first, earlier parents, at most six distinct channels.
      {[](BvhMotion& m) { m.joints[0].parent = 2; }, "not the root"},
      {[](BvhMotion& m) { m.joints[4].parent = 5; }, "needs an earlier parent"},
      {[](BvhMotion& m) {
         m.joints[5].channels.push_back(Channel::kZrotation);
         m.channelCount += 1;
         m.values.resize(static_cast<size_t>(m.frameCount * m.channelCount));
       },
       "lists channel Zrotation twice"},
      // Numbers that do not survive text.
      {[](BvhMotion& m) { m.values[20] = std::numeric_limits<double>::quiet_NaN(); },
       "value 5 of frame 1 is not a finite number"},
      {[](BvhMotion& m) { m.joints[4].endSite[0] = std::numeric_limits<double>::infinity(); },
       "offset that is not a finite number"},
      {[](BvhMotion& m) { m.frameTime = 0; }, "frame time must be a positive number"},
  };
  for (const auto& [damage, why] : cases) {
    BvhMotion m = good;
    damage(m);
    IoError error;
    EXPECT_FALSE(CheckBvh(m, error)) << why;
    EXPECT_THAT(error.message, HasSubstr(why));
  }
}

TEST(BvhWriter, WritesFilesThroughTheCheck) {
  jobtest::ScratchDir dir("bvh");
  const std::filesystem::path out = dir.path() / "out.bvh";
  const BvhMotion m = AwkwardMotion();
  BvhMotion bad = m;
  bad.channelCount = 1;
  IoError error;
  BvhMotion back;
  // Written and read back through the paths; a motion that fails the check leaves the old file
  // alone and names the destination.
  ASSERT_TRUE(WriteBvh(out, m, error)) << error.ToText();
  EXPECT_FALSE(WriteBvh(out, bad, error));
  EXPECT_EQ(error.file, out.string());
  ASSERT_TRUE(ReadBvh(out, back, error)) << error.ToText();
  ExpectSameMotion(back, m);
  EXPECT_EQ(dir.Files(), std::vector<std::string>{"out.bvh"});
}

TEST(BvhReader, SharedClipsReadAndRoundTrip) {
  // The walk has a CRLF hierarchy; the idle clip has six channels on inner joints. Each reads,
  // passes the check and writes text that reads back bit for bit.
  struct Clip {
    const char* name;
    size_t joints;
    int64_t frames;
    double fps;
    double firstValue;
  };
  const Clip clips[] = {{"cmu/131_01_walk.bvh", 31, 994, 120, 5.23},
                        {"cmu/01_01_jumps.bvh", 31, 2752, 120, 9.3722},
                        {"reactidle/003_genuine_idle.bvh", 19, 918, 24, 0.006299}};
  for (const Clip& clip : clips) {
    const auto path = std::filesystem::path(TARNI_TEST_DATA_DIR) / clip.name;
    if (!std::filesystem::exists(path)) GTEST_SKIP() << path << " is not available";
    SCOPED_TRACE(clip.name);
    BvhMotion m;
    IoError error;
    ASSERT_TRUE(ReadBvh(path, m, error)) << error.ToText();
    EXPECT_EQ(m.joints.size(), clip.joints);
    EXPECT_EQ(m.frameCount, clip.frames);
    EXPECT_NEAR(m.FrameRate(), clip.fps, 0.01);
    EXPECT_EQ(m.values.size(), static_cast<size_t>(clip.frames * m.channelCount));
    EXPECT_EQ(m.values.front(), clip.firstValue);
    EXPECT_TRUE(CheckBvh(m, error)) << error.ToText();
    ExpectSameMotion(ReadOk(WriteBvh(m)), m);
  }
}

}  // namespace
}  // namespace tarni::host
