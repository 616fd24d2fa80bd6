#include "io/curvefile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <random>
#include <string>

#include "apps/jobrun.h"
#include "io/atomicfile.h"
#include "io/bvh.h"

namespace tarni::host {
namespace {

using jobtest::ScratchDir;
using ::testing::HasSubstr;

bool SameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool SameKey(const CurveKey& a, const CurveKey& b) {
  return a.flags == b.flags && SameBits(a.position[0], b.position[0]) &&
         SameBits(a.position[1], b.position[1]) && SameBits(a.leftTangent[0], b.leftTangent[0]) &&
         SameBits(a.leftTangent[1], b.leftTangent[1]) &&
         SameBits(a.rightTangent[0], b.rightTangent[0]) &&
         SameBits(a.rightTangent[1], b.rightTangent[1]);
}

void ExpectSameFile(const CurveFile& a, const CurveFile& b) {
  EXPECT_EQ(a.fps, b.fps);
  ASSERT_EQ(a.curves.size(), b.curves.size());
  for (size_t c = 0; c < a.curves.size(); ++c) {
    EXPECT_EQ(a.curves[c].name, b.curves[c].name);
    ASSERT_EQ(a.curves[c].keys.size(), b.curves[c].keys.size()) << a.curves[c].name;
    size_t differing = 0;
    for (size_t k = 0; k < a.curves[c].keys.size(); ++k) {
      differing += !SameKey(a.curves[c].keys[k], b.curves[c].keys[k]);
    }
    EXPECT_EQ(differing, 0u) << a.curves[c].name;
  }
  ASSERT_EQ(a.ranges.size(), b.ranges.size());
  for (size_t r = 0; r < a.ranges.size(); ++r) {
    EXPECT_TRUE(SameBits(a.ranges[r][0], b.ranges[r][0]) &&
                SameBits(a.ranges[r][1], b.ranges[r][1]));
  }
}

CurveFile ReadOk(std::string_view text) {
  CurveFile file;
  IoError error;
  EXPECT_TRUE(ReadCurveFile(text, "c.json", file, error)) << error.ToText();
  return file;
}

IoError ReadFails(std::string_view text) {
  CurveFile file;
  file.fps = 3;
  IoError error;
  EXPECT_FALSE(ReadCurveFile(text, "c.json", file, error)) << text;
  EXPECT_EQ(error.file, "c.json");
  EXPECT_TRUE(file.curves.empty() && file.fps == 0);
  return error;
}

// A one-curve document with `key` as the only key of curve 0 (after a valid first key).
std::string WithKey(std::string_view key) {
  return R"({"fps": 30, "curves": [{"name": "a", "keys": [{"position": [0, 0]}, )" +
         std::string(key) + "]}]}";
}

TEST(CurveFileReader, ReadsKeysWithAndWithoutDefaults) {
  const CurveFile file = ReadOk(R"({
    "fps": 120,
    "comment": "fields the reader does not know are left alone",
    "curves": [
      {"name": "Hips.Xrotation", "keys": [
        {"position": [0, 1.5]},
        {"flags": 4294967295, "position": [0.5, -2], "leftTangent": [0.25, 1e-3],
         "rightTangent": [-0.75, 3]}
      ]},
      {"name": "empty", "keys": []}
    ],
    "ranges": [[-2, 1.5], [0, 0]]
  })");
  EXPECT_EQ(file.fps, 120);
  ASSERT_EQ(file.curves.size(), 2u);
  EXPECT_EQ(file.curves[0].name, "Hips.Xrotation");
  ASSERT_EQ(file.curves[0].keys.size(), 2u);
  const CurveKey& a = file.curves[0].keys[0];
  EXPECT_EQ(a.flags, 0u);
  EXPECT_EQ(a.position[1], 1.5f);
  EXPECT_EQ(a.leftTangent[0], -1);
  EXPECT_EQ(a.rightTangent[1], -1);
  const CurveKey& b = file.curves[0].keys[1];
  EXPECT_EQ(b.flags, 4294967295u);
  EXPECT_EQ(b.position[0], 0.5f);
  EXPECT_EQ(b.leftTangent[1], 1e-3f);
  EXPECT_EQ(b.rightTangent[0], -0.75f);
  EXPECT_TRUE(file.curves[1].keys.empty());
  ASSERT_EQ(file.ranges.size(), 2u);
  EXPECT_EQ(file.ranges[0][0], -2);
  // A fractional frame rate, and a value too small for a float that simply becomes zero.
  const CurveFile other = ReadOk(WithKey(R"({"position": [1, 1e-60]})").replace(8, 2, "29.97"));
  EXPECT_EQ(other.fps, 29.97);
  EXPECT_EQ(other.curves[0].keys[1].position[1], 0);
  EXPECT_TRUE(other.ranges.empty());
}

TEST(CurveFileReader, RejectsBadFilesNamingTheJsonPath) {
  {  // Malformed JSON is reported with the line the parser stopped at; JSON has no NaN, and an
     // overflowing literal is not a number either; deep nesting is no stack overflow.
    IoError e = ReadFails("{\n  \"fps\": 30,\n  \"curves\": [tru]\n}");
    EXPECT_EQ(e.line, 3);
    EXPECT_THAT(e.ToText(), HasSubstr("c.json:3: malformed JSON: syntax error"));
    e = ReadFails(
        "{\"fps\": 30,\n\"curves\": [{\"name\": \"a\", \"keys\": [{\"position\": [1, 1e400]}]}]}");
    EXPECT_EQ(e.line, 2);
    for (const std::string& text :
         {std::string(), WithKey(R"({"position": [1, NaN]})"), std::string(100000, '[')})
      EXPECT_THAT(ReadFails(text).message, HasSubstr("malformed JSON"));
  }
  const std::string kOneCurve = R"({"fps": 30, "curves": [{"name": "a", "keys": []}], )";
  const std::pair<std::string, const char*> cases[] = {
      // The top level and the frame rate.
      {"[1, 2]", "expected a JSON object, found an array"},
      {R"({"curves": []})", "missing \"fps\""},
      {R"({"fps": 0, "curves": []})", "fps: must be above 0, found 0"},
      {R"({"fps": 30})", "missing \"curves\""},
      {R"({"fps": 30, "curves": {}})", "curves: expected an array of curves, found an object"},
      // Curves and keys: missing or mistyped fields, each with its path.
      {R"({"fps": 30, "curves": [{"name": "a", "keys": []}, 5]})",
       "curves[1]: expected a curve object, found the integer 5"},
      {R"({"fps": 30, "curves": [{"name": null, "keys": []}]})",
       "curves[0].name: expected a string, found null"},
      {R"({"fps": 30, "curves": [{"name": "a"}]})", "curves[0]: missing \"keys\""},
      {R"({"fps": 30, "curves": [{"name": "a", "keys": "none"}]})",
       "curves[0].keys: expected an array of keys, found a string"},
      {WithKey(R"({"flags": 1})"), "curves[0].keys[1]: missing \"position\""},
      {WithKey(R"({"position": [1, 2], "leftTangent": true})"),
       "curves[0].keys[1].leftTangent: expected an array of two numbers, found a boolean"},
      // A number a float cannot hold, just above the largest float.
      {WithKey(R"({"position": [1, 3.4028236e38]})"),
       "curves[0].keys[1].position[1]: 3.4028236e+38 does not fit a 32-bit float"},
      // Times must rise strictly from key to key.
      {R"({"fps": 30, "curves": [{"name": "a", "keys": []}, {"name": "b", "keys": [
          {"position": [0.25, 0]}, {"position": [0.5, 0]}, {"position": [0.5, 1]}]}]})",
       "curves[1].keys[2].position: times must be ascending: key 2 at 0.5 follows key 1 at 0.5"},
      // Ranges: one well-ordered pair per curve.
      {kOneCurve + R"("ranges": [[0, 1], [0, 2]]})",
       "ranges: expected 1 ranges (one per curve), found 2"},
      {kOneCurve + R"("ranges": [[2, 1]]})", "ranges[0]: min 2 is above max 1"},
      {kOneCurve + R"("ranges": [[2]]})",
       "ranges[0]: expected an array of two numbers, found an array of 1"},
      {R"({"fps": 30, "curves": [], "ranges": 3})",
       "ranges: expected an array of [min, max] pairs, found the integer 3"},
  };
  for (const auto& [text, message] : cases) EXPECT_EQ(ReadFails(text).message, message);
  // Flags must be a 32-bit unsigned word; the shortest text of the largest float reads as a
  // double just above it and must still be taken.
  for (const char* flags : {"-1", "4294967296", "1.5", "1e3", "\"1\"", "18446744073709551616"}) {
    EXPECT_THAT(
        ReadFails(WithKey(std::string(R"({"position": [1, 2], "flags": )") + flags + "}")).message,
        HasSubstr("curves[0].keys[1].flags: expected an unsigned 32-bit integer"))
        << flags;
  }
  EXPECT_EQ(ReadOk(WithKey(R"({"position": [1, -3.4028235e+38]})")).curves[0].keys[1].position[1],
            -FLT_MAX);
}

// Floats that are easy to get wrong in text: the extremes, subnormals, signed zero, values that
// need nine digits, and 7.038531e-26, whose shortest text reads back as a different float when
// parsed as a double and then rounded.
const float kAwkwardFloats[] = {0.1f,
                                1.0f / 3,
                                -0.0f,
                                FLT_MAX,
                                -FLT_MAX,
                                FLT_MIN,
                                std::numeric_limits<float>::denorm_min(),
                                16777217.0f,
                                123456.789f,
                                0x1.5c87fap-84f,
                                -0x1.5c87fap-84f,
                                3.4028233e38f};

CurveFile AwkwardFile() {
  CurveFile file;
  file.fps = 1.0 / 3;
  Curve names;
  names.name = "quote \" backslash \\ newline \n tab \t unicode \xC3\xA9 control \x01";
  for (size_t k = 0; k < std::size(kAwkwardFloats); ++k) {
    CurveKey key;
    key.flags = k == 3 ? 0xFFFFFFFFu : static_cast<uint32_t>(k);
    key.position[0] = static_cast<float>(k) * 0.1f - 0.5f;
    key.position[1] = kAwkwardFloats[k];
    key.leftTangent[0] = kAwkwardFloats[(k + 1) % std::size(kAwkwardFloats)];
    key.rightTangent[1] = kAwkwardFloats[(k + 5) % std::size(kAwkwardFloats)];
    if (k % 4 == 0) {  // some keys keep the default tangents
      key.leftTangent[0] = key.leftTangent[1] = -1;
      key.rightTangent[0] = key.rightTangent[1] = -1;
    }
    names.keys.push_back(key);
  }
  file.curves.push_back(names);
  file.curves.push_back(Curve{"", {}});
  file.ranges = {{-FLT_MAX, FLT_MAX}, {0.1f, 0.1f}};
  return file;
}

TEST(CurveFileWriter, WritesFloatsThatReadBackBitIdentical) {
  {  // Awkward values, names and flags survive a round trip through text.
    const CurveFile file = AwkwardFile();
    IoError error;
    ASSERT_TRUE(CheckCurveFile(file, error)) << error.ToText();
    const std::string text = WriteCurveFile(file);
    const CurveFile back = ReadOk(text);
    ExpectSameFile(back, file);
    EXPECT_EQ(WriteCurveFile(back), text);
  }
  {  // Random bit patterns: every finite float must come back as itself.
    std::mt19937 rng(12345);
    CurveFile file;
    file.fps = 24;
    Curve curve{"random", {}};
    float time = -1000;
    for (int k = 0; k < 20000; ++k) {
      CurveKey key;
      time = std::nextafter(time, 1e9f) + static_cast<float>(rng() % 7);
      key.position[0] = time;
      for (float* slot : {&key.position[1], &key.leftTangent[0], &key.leftTangent[1],
                          &key.rightTangent[0], &key.rightTangent[1]}) {
        do {
          const uint32_t bits = static_cast<uint32_t>(rng());
          std::memcpy(slot, &bits, sizeof bits);
        } while (!std::isfinite(*slot));
      }
      curve.keys.push_back(key);
    }
    file.curves.push_back(curve);
    ExpectSameFile(ReadOk(WriteCurveFile(file)), file);
  }
  {  // Default fields are left out; the output is plain JSON with one key per line.
    CurveFile file;
    file.fps = 120;
    Curve curve{"Hips.Xrotation", {}};
    curve.keys.resize(2);
    curve.keys[0].position[1] = 2.5f;
    curve.keys[1].position[0] = 0.25f;
    curve.keys[1].flags = 3;
    curve.keys[1].rightTangent[0] = 0.5f;
    file.curves.push_back(curve);
    const std::string text = WriteCurveFile(file);
    EXPECT_THAT(text, HasSubstr("\n        {\"position\": [0, 2.5]},\n"));
    EXPECT_THAT(text,
                HasSubstr("{\"flags\": 3, \"position\": [0.25, 0], \"rightTangent\": [0.5, -1]}"));
    EXPECT_EQ(text.find("ranges"), std::string::npos);
    EXPECT_EQ(text.find("leftTangent"), std::string::npos);
    ExpectSameFile(ReadOk(text), file);
  }
  {  // Not-finite numbers become null, so the file is turned down rather than misread.
    CurveFile file = AwkwardFile();
    file.curves[0].keys[2].rightTangent[1] = std::numeric_limits<float>::infinity();
    IoError error;
    EXPECT_FALSE(CheckCurveFile(file, error));
    EXPECT_EQ(error.message, "curves[0].keys[2].rightTangent: is not a pair of finite numbers");
    const IoError e = ReadFails(WriteCurveFile(file));
    EXPECT_EQ(e.message, "curves[0].keys[2].rightTangent[1]: expected a number, found null");
  }
  {  // Bytes that are not UTF-8 in a name still give a readable file.
    CurveFile file;
    file.fps = 30;
    file.curves.push_back(Curve{"bad \xFF byte", {}});
    const CurveFile back = ReadOk(WriteCurveFile(file));
    ASSERT_EQ(back.curves.size(), 1u);
    EXPECT_EQ(back.curves[0].name, "bad \xEF\xBF\xBD byte");
  }
}

TEST(CurveFileWriter, CheckMatchesWhatTheReaderDemands) {
  const CurveFile good = AwkwardFile();
  IoError error;
  {  // Frame rate.
    CurveFile file = good;
    file.fps = 0;
    EXPECT_FALSE(CheckCurveFile(file, error));
    EXPECT_EQ(error.message, "fps: must be a finite number above 0, found 0");
    file.fps = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(CheckCurveFile(file, error));
  }
  {  // Key order, also for a NaN time that compares false both ways.
    CurveFile file = good;
    std::swap(file.curves[0].keys[3], file.curves[0].keys[4]);
    EXPECT_FALSE(CheckCurveFile(file, error));
    EXPECT_THAT(error.message, HasSubstr("curves[0].keys[4].position: times must be ascending"));
    file = good;
    file.curves[0].keys[0].position[0] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_FALSE(CheckCurveFile(file, error));
    EXPECT_EQ(error.message, "curves[0].keys[0].position: is not a pair of finite numbers");
  }
  {  // Ranges.
    CurveFile file = good;
    file.ranges.pop_back();
    EXPECT_FALSE(CheckCurveFile(file, error));
    EXPECT_EQ(error.message, "ranges: expected 2 ranges (one per curve), found 1");
    file.ranges.clear();
    EXPECT_TRUE(CheckCurveFile(file, error));
  }
}

TEST(AtomicFile, ReplacesWholeFilesOrLeavesThemAlone) {
  ScratchDir dir("atomic");
  const std::filesystem::path target = dir.path() / "out.txt";
  IoError error;
  std::string text;
  {  // Create, then replace with shorter contents: nothing of the old file remains.
    ASSERT_TRUE(WriteFileAtomically(target, "first version, rather long", error)) << error.ToText();
    ASSERT_TRUE(WriteFileAtomically(target, "second", error)) << error.ToText();
    ASSERT_TRUE(ReadWholeFile(target, text, error)) << error.ToText();
    EXPECT_EQ(text, "second");
    EXPECT_EQ(dir.Files().size(), 1u);
  }
  {  // Bytes of every value.
    std::string all;
    for (int i = 0; i < 256 * 1024; ++i) all += static_cast<char>(i * 7);
    ASSERT_TRUE(WriteFileAtomically(target, all, error));
    ASSERT_TRUE(ReadWholeFile(target, text, error));
    EXPECT_EQ(text, all);
  }
  {  // The permissions of the file being replaced are kept.
    ASSERT_EQ(::chmod(target.c_str(), 0640), 0);
    ASSERT_TRUE(WriteFileAtomically(target, "third", error));
    struct stat info;
    ASSERT_EQ(::stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
  }
  {  // Failures report the destination and leave no temporary behind.
    EXPECT_FALSE(WriteFileAtomically(dir.path() / "no-such-dir" / "x.txt", "data", error));
    EXPECT_EQ(error.file, (dir.path() / "no-such-dir" / "x.txt").string());
    EXPECT_THAT(error.message, HasSubstr("cannot create a temporary file"));
    std::filesystem::create_directory(dir.path() / "sub");
    EXPECT_FALSE(WriteFileAtomically(dir.path() / "sub", "data", error));
    EXPECT_THAT(error.message, HasSubstr("directory"));
    EXPECT_FALSE(WriteFileAtomically(dir.path() / "", "data", error));
    EXPECT_EQ(dir.Files().size(), 2u);  // out.txt and sub
    EXPECT_TRUE(std::filesystem::is_empty(dir.path() / "sub"));
  }
  {  // Reading what is not there, or not a file.
    EXPECT_FALSE(ReadWholeFile(dir.path() / "missing", text, error));
    EXPECT_EQ(error.ToText(),
              (dir.path() / "missing").string() + ": cannot open: No such file or directory");
    EXPECT_FALSE(ReadWholeFile(dir.path() / "sub", text, error));
    EXPECT_THAT(error.message, HasSubstr("directory"));
  }
}

TEST(CurveFileWriter, WritesFilesThroughTheCheck) {
  ScratchDir dir("curves");
  const std::filesystem::path target = dir.path() / "c.json";
  IoError error;
  const CurveFile file = AwkwardFile();
  ASSERT_TRUE(WriteCurveFile(target, file, error)) << error.ToText();
  CurveFile back;
  ASSERT_TRUE(ReadCurveFile(target, back, error)) << error.ToText();
  ExpectSameFile(back, file);
  // A file that fails the check is not written over the good one.
  CurveFile bad = file;
  bad.fps = -1;
  EXPECT_FALSE(WriteCurveFile(target, bad, error));
  EXPECT_EQ(error.file, target.string());
  ASSERT_TRUE(ReadCurveFile(target, back, error));
  EXPECT_EQ(back.fps, file.fps);
  EXPECT_EQ(dir.Files().size(), 1u);
}

TEST(IoErrorText, NamesFileAndLineWhenKnown) {
  EXPECT_EQ((IoError{"walk.bvh", 12, "expected 96 values in the frame row, found 95"}).ToText(),
            "walk.bvh:12: expected 96 values in the frame row, found 95");
  EXPECT_EQ((IoError{"walk.bvh", 0, "cannot open"}).ToText(), "walk.bvh: cannot open");
  EXPECT_EQ((IoError{"", 3, "bad"}).ToText(), "line 3: bad");
  EXPECT_EQ((IoError{"", 0, "bad"}).ToText(), "bad");
}

TEST(CurvesFromBvh, MakesOneCurvePerChannel) {
  BvhMotion motion;
  motion.joints.resize(2);
  motion.joints[0] = {"Hips", -1,       {0, 0, 0}, {Channel::kYposition, Channel::kZrotation},
                      false,  {0, 0, 0}};
  motion.joints[1] = {"spine.001", 0, {0, 1, 0}, {Channel::kXrotation}, true, {0, 1, 0}};
  motion.channelCount = 3;
  motion.frameCount = 4;
  motion.frameTime = 0.5;
  motion.values = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 1e300};
  {  // Names, times at frame / fps, values in column order, default tangents and flags.
    const CurveFile file = CurvesFromBvh(motion, 10);
    EXPECT_EQ(file.fps, 10);
    ASSERT_EQ(file.curves.size(), 3u);
    EXPECT_EQ(file.curves[0].name, "Hips.Yposition");
    EXPECT_EQ(file.curves[1].name, "Hips.Zrotation");
    EXPECT_EQ(file.curves[2].name, "spine.001.Xrotation");
    for (const Curve& curve : file.curves) ASSERT_EQ(curve.keys.size(), 4u);
    EXPECT_EQ(file.curves[1].keys[2].position[0], 0.2f);
    EXPECT_EQ(file.curves[1].keys[2].position[1], 8);
    EXPECT_EQ(file.curves[2].keys[0].position[1], 3);
    EXPECT_EQ(file.curves[0].keys[3].position[1], 10);
    EXPECT_EQ(file.curves[0].keys[3].flags, 0u);
    EXPECT_EQ(file.curves[0].keys[3].leftTangent[0], -1);
    EXPECT_EQ(file.curves[0].keys[3].rightTangent[1], -1);
    // A value beyond the float range is clamped so the file stays writable.
    EXPECT_EQ(file.curves[2].keys[3].position[1], FLT_MAX);
    IoError error;
    EXPECT_TRUE(CheckCurveFile(file, error)) << error.ToText();
    EXPECT_TRUE(file.ranges.empty());
  }
  {  // Without a usable rate the motion's own (1 / frameTime) is used.
    const CurveFile file = CurvesFromBvh(motion, 0);
    EXPECT_EQ(file.fps, 2);
    EXPECT_EQ(file.curves[0].keys[3].position[0], 1.5f);
  }
  {  // Missing values do not lead to reads past the end.
    motion.values.resize(7);
    const CurveFile file = CurvesFromBvh(motion, 10);
    ASSERT_EQ(file.curves.size(), 3u);
    EXPECT_EQ(file.curves[0].keys.size(), 2u);
  }
}

}  // namespace
}  // namespace tarni::host
