// Damaged and hostile files, as users feed them to the host: each gets one message naming the file
// and the line (or the joint, or the JSON path) and nothing else happens: no crash, no output
// file, exit status 2 from the tarni-ca executable. Many cases here were found by the fuzz
// targets in tests/fuzz/.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "apps/jobrun.h"
#include "io/bvh.h"
#include "io/curvefile.h"
#include "retarget/setupfile.h"

namespace tarni::host {
namespace {

namespace fs = std::filesystem;

// The hierarchy of a one-joint clip with three channels; cases append the rest.
const std::string kOneJoint =
    "HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 0 0\n\tCHANNELS 3 Xrotation Yrotation Zrotation\n";
// The same, closed, up to the frame count.
const std::string kMotion = kOneJoint + "}\nMOTION\nFrames: ";

struct Damage {
  std::string text;
  const char* message;  // IoError::ToText()
};

TEST(MalformedBvh, TurnsDownDamagedClipsWithOneMessage) {
  const Damage cases[] = {
      // Truncated: in the hierarchy, before the announced frames, in the middle of a row.
      {kOneJoint + "\tJOINT Spine\n\t{\n\t\tOFFSET 0 1 0\n",
       "m.bvh:9: the file ends inside the hierarchy: the block of joint 'Spine' opened at line 6 "
       "is not closed"},
      {kMotion + "3\nFrame Time: 0.04\n1 2 3\n4 5 6\n",
       "m.bvh:12: the motion section ends after 2 of 3 frames"},
      {kMotion + "2\nFrame Time: 0.04\n1 2 3\n4 5",
       "m.bvh:11: expected 3 values in the frame row, found 2"},
      {"", "m.bvh:1: the file is empty"},
      // Numbers that are not numbers, or too large for a double.
      {"HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 nan 0\n",
       "m.bvh:4: the OFFSET y of joint 'Hips' is not a finite number: 'nan'"},
      {"HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 1e400 0\n",
       "m.bvh:4: the OFFSET y of joint 'Hips' is out of the range of a double: '1e400'"},
      {kMotion + "1\nFrame Time: 0.04\n1 inf 3\n",
       "m.bvh:10: value 2 of the frame row is not a finite number: 'inf'"},
      {kMotion + "1\nFrame Time: -INF\n1 2 3\n",
       "m.bvh:9: the frame time must be a positive number of seconds, found -INF"},
      // Frame times whose frames would share one float key time, or have none.
      {kMotion + "2\nFrame Time: 1e-300\n1 2 3\n4 5 6\n",
       "m.bvh:9: the frame time must be between 1e-06 and 1e+06 seconds, found 1e-300"},
      // Absurd counts: they are turned down before any memory is asked for them.
      {"HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 0 0\n\tCHANNELS 1000000000000 Xrotation\n",
       "m.bvh:5: the number of channels of joint 'Hips' must be between 0 and 6, found "
       "1000000000000"},
      {kMotion + "9999999\nFrame Time: 0.04\n1 2 3\n4 5 6\n",
       "m.bvh:12: the motion section ends after 2 of 9999999 frames"},
      {kMotion + "1000000000000\nFrame Time: 0.04\n1 2 3\n",
       "m.bvh:8: the frame count 1000000000000 is larger than the supported 10000000"},
      {kMotion + "99999999999999999999999\nFrame Time: 0.04\n",
       "m.bvh:8: the frame count 99999999999999999999999 is larger than the supported 10000000"},
      {kMotion + "1\nFrame Time: 0.04\n1 2 3 4\n",
       "m.bvh:10: expected 3 values in the frame row, found 4"},
      // Names and channels.
      {kOneJoint + "\tJOINT Hips\n\t{\n\t\tOFFSET 0 1 0\n\t}\n}\nMOTION\nFrames: 0\n",
       "m.bvh:6: duplicate joint name 'Hips' (first used at line 2)"},
      {"HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 0 0\n\tCHANNELS 3 Xrotation Yrotation Wrotation\n",
       "m.bvh:5: expected channel name 3 of 3 of joint 'Hips' (Xposition, Yposition, Zposition, "
       "Xrotation, Yrotation or Zrotation), found 'Wrotation'"},
      {kOneJoint + "\tJOINT Spine\n\t{\n\t\tCHANNELS 1 Zrotation\n\t}\n}\n",
       "m.bvh:9: joint 'Spine' has no OFFSET"},
      // A joint name with control bytes is escaped wherever a message names the joint.
      {"HIERARCHY\nROOT Hi\x01ps\x1b[2J\n{\n\tOFFSET 0 nan 0\n",
       "m.bvh:4: the OFFSET y of joint 'Hi\\x01ps\\x1b[2J' is not a finite number: 'nan'"},
      // A binary file: its control bytes are shown escaped, so the message stays one line.
      {std::string("\x7f"
                   "ELF\x02\x01\x01\x00\n\x1b[2J",
                   14),
       "m.bvh:1: expected HIERARCHY at the start of the file, found "
       "'\\x7fELF\\x02\\x01\\x01\\x00'"},
  };
  for (const Damage& c : cases) {
    BvhMotion motion;
    IoError error;
    EXPECT_FALSE(ReadBvh(c.text, "m.bvh", motion, error)) << c.message;
    EXPECT_EQ(error.ToText(), c.message);
    EXPECT_TRUE(motion.joints.empty() && motion.values.empty()) << c.message;
  }
}

TEST(MalformedBvh, DeepUnclosedNestingNamesTheInnermostJoint) {
  // Far deeper than any skeleton, and never closed: the reader keeps its open blocks on the heap.
  constexpr int kDepth = 200000;
  std::string text = "HIERARCHY\nROOT j0\n{\nOFFSET 0 0 0\n";
  for (int j = 1; j < kDepth; ++j) text += "JOINT j" + std::to_string(j) + "\n{\nOFFSET 0 1 0\n";
  BvhMotion motion;
  IoError error;
  ASSERT_FALSE(ReadBvh(text, "deep.bvh", motion, error));
  const int lastOpened = 2 + 3 * (kDepth - 1);
  EXPECT_EQ(error.ToText(), "deep.bvh:" + std::to_string(lastOpened + 3) +
                                ": the file ends inside the hierarchy: the block of joint 'j" +
                                std::to_string(kDepth - 1) + "' opened at line " +
                                std::to_string(lastOpened) + " is not closed");
}

TEST(MalformedCurveFile, TurnsDownDamagedFilesNamingTheJsonPath) {
  const std::string kCurve = R"({"fps": 30, "curves": [{"name": "a", "keys": [)";
  const Damage cases[] = {
      // JSON with wrong types.
      {R"({"fps": "30", "curves": []})", "c.json: fps: expected a number, found a string"},
      {R"({"fps": 30, "curves": [{"name": 7, "keys": []}]})",
       "c.json: curves[0].name: expected a string, found the integer 7"},
      {kCurve + "[0, 1]]}]}", "c.json: curves[0].keys[0]: expected a key object, found an array"},
      {kCurve + R"({"position": [0, 1, 2]}]}]})",
       "c.json: curves[0].keys[0].position: expected an array of two numbers, found an array of 3"},
      {kCurve + R"({"position": [0, 1], "leftTangent": [0, "1"]}]}]})",
       "c.json: curves[0].keys[0].leftTangent[1]: expected a number, found a string"},
      {kCurve + R"({"flags": -1, "position": [0, 1]}]}]})",
       "c.json: curves[0].keys[0].flags: expected an unsigned 32-bit integer, found the integer "
       "-1"},
      {kCurve + R"({"flags": 4294967296, "position": [0, 1]}]}]})",
       "c.json: curves[0].keys[0].flags: expected an unsigned 32-bit integer, found the integer "
       "4294967296"},
      // Numbers JSON has no literal for, and numbers beyond a float or a double.
      {kCurve + R"({"position": [0, NaN]}]}]})",
       "c.json:1: malformed JSON: syntax error while parsing value - invalid literal; last read: "
       "'0, N'"},
      {"{\"fps\": 30,\n\"curves\": [], \"x\": 1e400}",
       "c.json:2: malformed JSON: number overflow parsing '1e400'"},
      {kCurve + R"({"position": [0, 1e39]}]}]})",
       "c.json: curves[0].keys[0].position[1]: 1e+39 does not fit a 32-bit float"},
      // Times that do not ascend, which the reducer needs.
      {kCurve + R"({"position": [0, 1]}, {"position": [0, 2]}]}]})",
       "c.json: curves[0].keys[1].position: times must be ascending: key 1 at 0 follows key 0 at "
       "0"},
      // Truncated, and nested deeper than any reader's stack could follow by recursion.
      {"{\"fps\": 30,\n \"curves\": [{\"name\": \"a\", \"keys\": [{\"position\": [0, 1]},",
       "c.json:2: malformed JSON: syntax error while parsing value - unexpected end of input; "
       "expected '[', '{', or a literal"},
      {R"({"fps": 30, "curves": )" + std::string(200000, '[') + std::string(200000, ']') + "}",
       "c.json: curves[0]: expected a curve object, found an array"},
  };
  for (const Damage& c : cases) {
    CurveFile file;
    IoError error;
    EXPECT_FALSE(ReadCurveFile(c.text, "c.json", file, error)) << c.message;
    EXPECT_EQ(error.ToText(), c.message);
    EXPECT_TRUE(file.curves.empty()) << c.message;
  }
}

// `levels` skeleton nodes, each the only child of the one before.
std::string NestedSetup(int levels) {
  std::string text = R"({"solverConfiguration": {"_sourceCharacter": {"SkeletonRoot": )";
  for (int i = 0; i < levels; ++i) text += R"({"_objectName": "n", "children": [)";
  for (int i = 0; i < levels; ++i) text += "]}";
  return text + "}}}";
}

TEST(MalformedSetupFile, TurnsDownNumbersAndNestingItCannotHold) {
  const std::string kConfig = R"({"solverConfiguration": {)";
  const Damage cases[] = {
      // Whole numbers that would wrap around if they were stored.
      {kConfig + R"("_solvingMode": 4294967297}})",
       "s.json: solverConfiguration._solvingMode is out of the range of a 32-bit whole number"},
      {kConfig + R"("_solvingMode": 1.5}})",
       "s.json: solverConfiguration._solvingMode must be a whole number"},
      // Wrong types.
      {kConfig + R"("_sourceCharacter": [1]}})",
       "s.json: solverConfiguration._sourceCharacter must be an object or null"},
      {kConfig + R"("_bpSettings": {"hips": 1}}})",
       "s.json: solverConfiguration._bpSettings must be an array of [key, value] pairs"},
      // Nested deeper than any skeleton: turned down before the recursion could exhaust the stack.
      {NestedSetup(20000),
       "s.json: objects nest deeper than 256 levels at "
       "solverConfiguration._sourceCharacter.SkeletonRoot...children[0].children[0]."
       "children[0].children[0].children[0]"},
  };
  for (const Damage& c : cases) {
    CharacterSolverConfigurationRef config;
    IoError error;
    EXPECT_FALSE(ReadSetup(c.text, "s.json", config, error)) << c.message;
    EXPECT_EQ(error.ToText(), c.message);
    EXPECT_FALSE(config) << c.message;
  }
  // A deep tree within the bound reads, and writes back as it was read; a few levels more do not.
  CharacterSolverConfigurationRef config;
  IoError error;
  EXPECT_FALSE(ReadSetup(NestedSetup(255), "s.json", config, error));
  EXPECT_EQ(error.message.rfind("objects nest deeper than 256 levels at ", 0), 0u) << error.message;
  ASSERT_TRUE(ReadSetup(NestedSetup(250), "s.json", config, error)) << error.ToText();
  std::string text;
  ASSERT_TRUE(WriteSetup(config, text, error)) << error.ToText();
  CharacterSolverConfigurationRef again;
  ASSERT_TRUE(ReadSetup(text, "again.json", again, error)) << error.ToText();
}

// ---- through the tarni-ca executable --------------------------------------------------------

// Runs tarni-ca in `dir` with `arguments`, in which "@name" stands for the quoted path of `name`.
jobtest::JobRun Host(const jobtest::ScratchDir& dir, const std::string& arguments) {
  std::string line;
  for (size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] != '@') {
      line += arguments[i];
      continue;
    }
    const size_t end = arguments.find(' ', i);
    line += dir.Quoted(arguments.substr(i + 1, end - i - 1));
    i = end == std::string::npos ? arguments.size() : end - 1;
  }
  return jobtest::RunHost(dir, line);
}

const std::string kGoodClip = kMotion + "2\nFrame Time: 0.04\n1 2 3\n4 5 6\n";

TEST(MalformedFilesInTheHost, ExitTwoWithOneLineAndNoOutput) {
  struct Case {
    const char* file;
    std::string text;
    const char* arguments;
    const char* message;  // after "tarni-ca: " and the file's path
  };
  const Case cases[] = {
      {"in.bvh", kMotion + "9999999\nFrame Time: 0.04\n1 2 3\n", "reduce @in.bvh -o @out.json",
       ":11: the motion section ends after 1 of 9999999 frames"},
      {"in.bvh", kMotion + "2\nFrame Time: 1e-300\n1 2 3\n4 5 6\n", "reduce @in.bvh -o @out.json",
       ":9: the frame time must be between 1e-06 and 1e+06 seconds, found 1e-300"},
      {"in.json", R"({"fps": 30, "curves": [{"name": "a", "keys": [{"position": [0, "1"]}]}]})",
       "reduce @in.json -o @out.json",
       ": curves[0].keys[0].position[1]: expected a number, found a string"},
      {"in.bvh", kMotion + "1\nFrame Time: 0.04\nnan 2 3\n",
       "retarget @in.bvh --target @good.bvh -o @out.bvh",
       ":10: value 1 of the frame row is not a finite number: 'nan'"},
      {"setup.json", NestedSetup(5000),
       "retarget @good.bvh --target @good.bvh --setup @setup.json -o @out.bvh",
       ": objects nest deeper than 256 levels at "
       "solverConfiguration._sourceCharacter.SkeletonRoot...children[0].children[0]."
       "children[0].children[0].children[0]"},
      {"in.bvh", kOneJoint + "\tJOINT Hips\n", "inspect @in.bvh",
       ":6: duplicate joint name 'Hips' (first used at line 2)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    jobtest::ScratchDir dir("malformed");
    dir.WriteText("good.bvh", kGoodClip);
    dir.WriteText(c.file, c.text);
    const jobtest::JobRun run = Host(dir, c.arguments);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "tarni-ca: " + dir.PathOf(c.file) + c.message + "\n");
    // Nothing written, not even a temporary file.
    std::vector<std::string> expected = {c.file, "good.bvh"};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(dir.Files(), expected);
  }
}

TEST(MalformedFilesInTheHost, JointNamesThatAreNotUtf8DoNotCrashTheSetUpWriter) {
  // A clip from software that writes Latin-1 names: retargeting works, but a set-up file (JSON,
  // UTF-8 only) cannot hold the name; saving it is turned down with a message, not an abort.
  jobtest::ScratchDir dir("malformed");
  dir.WriteText("latin1.bvh",
                "HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 0 0\n\tCHANNELS 3 Zrotation "
                "Xrotation Yrotation\n\tJOINT Sp\xe9ne\n\t{\n\t\tOFFSET 0 10 0\n\t\t"
                "CHANNELS 3 Zrotation Xrotation Yrotation\n\t}\n}\nMOTION\nFrames: 1\n"
                "Frame Time: 0.04\n0 0 0 1 2 3\n");
  const jobtest::JobRun run =
      Host(dir,
           "retarget @latin1.bvh --target @latin1.bvh --preset humanoid-joints -o @out.bvh "
           "--save-setup @setup.json");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(
      run.err,
      "tarni-ca: " + dir.PathOf("setup.json") +
          ": _sourceCharacter.SkeletonRoot.children[0]._objectName is not UTF-8 text, the only "
          "text a set-up file holds\n");
  EXPECT_EQ(dir.Files(), std::vector<std::string>{"latin1.bvh"});
}

}  // namespace
}  // namespace tarni::host
