// The reduce job of the host application, run as a user runs it, and the fitter on real clips.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "commands/curvecommands.h"
#include "io/bvh.h"
#include "io/curvefile.h"

namespace tarni::host {
namespace {

namespace fs = std::filesystem;

class ReduceJob : public ::testing::Test {
 protected:
  void SetUp() override {
    static int counter = 0;
    _dir = fs::temp_directory_path() /
           ("tarni_reduce_" + std::to_string(::getpid()) + "_" + std::to_string(++counter));
    fs::create_directories(_dir);
  }
  void TearDown() override { fs::remove_all(_dir); }

  std::string PathOf(const std::string& name) const { return (_dir / name).string(); }

  struct Run {
    int status = -1;
    std::string out;
    std::string err;
  };
  Run Reduce(const std::string& arguments) const {
    const std::string command = std::string("'") + TARNI_CA_EXE + "' reduce " + arguments + " >'" +
                                PathOf("stdout.txt") + "' 2>'" + PathOf("stderr.txt") + "'";
    const int raw = std::system(command.c_str());
    Run run;
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = ReadText(PathOf("stdout.txt"));
    run.err = ReadText(PathOf("stderr.txt"));
    fs::remove(PathOf("stdout.txt"));
    fs::remove(PathOf("stderr.txt"));
    return run;
  }
  static std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  void WriteText(const std::string& name, const std::string& text) const {
    std::ofstream(PathOf(name)) << text;
  }
  void WriteCurves(const std::string& name, const CurveFile& file) const {
    IoError error;
    ASSERT_TRUE(WriteCurveFile(fs::path(PathOf(name)), file, error)) << error.ToText();
  }
  // Only the files the test made itself: no output, no temporary left behind.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(_dir))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path _dir;
};

Curve Sampled(const std::string& name, int frames, double fps, double (*f)(double)) {
  Curve curve{name, {}};
  for (int i = 0; i < frames; ++i) {
    CurveKey key;
    key.position[0] = static_cast<float>(i / fps);
    key.position[1] = static_cast<float>(f(i / fps));
    curve.keys.push_back(key);
  }
  return curve;
}

CurveKey At(float time, float value) {
  CurveKey key;
  key.position[0] = time;
  key.position[1] = value;
  return key;
}

TEST_F(ReduceJob, ReducesCurvesAndReportsTheLargestError) {
  CurveFile input;
  input.fps = 30;
  input.curves.push_back(
      Sampled("Arm.Xrotation", 300, 30, [](double t) { return 45 * std::sin(t); }));
  input.curves.push_back(Sampled("Arm.Yrotation", 300, 30, [](double t) { return 3 * t * t; }));
  WriteCurves("in.json", input);

  // The fitter with the default strength: fewer keys, same curves, a small error.
  {
    const Run run = Reduce("'" + PathOf("in.json") + "' -o '" + PathOf("out.json") + "'");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("  curves:        2\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("  keys in:       600\n"), std::string::npos) << run.out;
    CurveFile output;
    IoError error;
    ASSERT_TRUE(ReadCurveFile(fs::path(PathOf("out.json")), output, error)) << error.ToText();
    ASSERT_EQ(output.curves.size(), 2u);
    EXPECT_EQ(output.curves[1].name, "Arm.Yrotation");
    EXPECT_EQ(output.fps, 30);
    EXPECT_TRUE(output.ranges.empty());
    const size_t out = output.curves[0].keys.size() + output.curves[1].keys.size();
    EXPECT_LT(out, 60u);
    EXPECT_NE(run.out.find("  keys out:      " + std::to_string(out) + " ("), std::string::npos);
    const size_t at = run.out.find("largest error: ");
    ASSERT_NE(at, std::string::npos);
    const double largest = std::strtod(run.out.c_str() + at + 15, nullptr);
    EXPECT_GT(largest, 0.0);
    // Within the tolerance of the larger curve (values up to 300) times a margin for slopes.
    EXPECT_LT(largest, 0.3 * 0.3 * 0.3 * 0.8 * 300);
  }
  // Flat maximum: the ranges are written; the largest error is the deepest valley, found between
  // keys on a segment whose undefined handles make it straight.
  {
    CurveFile small;
    small.fps = 24;
    small.curves.push_back({"c", {At(0, 3), At(10, -1), At(20, 5)}});
    small.curves.push_back({"one", {At(4, 7)}});
    small.curves.push_back({"none", {}});
    WriteCurves("small.json", small);
    const Run run = Reduce("'" + PathOf("small.json") + "' -o '" + PathOf("flat.json") +
                           "' --command modification --curve-type flatmax");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("largest error: 6 (worst curve c, at 10 s)"), std::string::npos)
        << run.out;
    EXPECT_NE(run.err.find("curve 'none' has no keys"), std::string::npos) << run.err;
    CurveFile output;
    IoError error;
    ASSERT_TRUE(ReadCurveFile(fs::path(PathOf("flat.json")), output, error)) << error.ToText();
    ASSERT_EQ(output.ranges.size(), 3u);
    EXPECT_EQ(output.ranges[0], (std::array<float, 2>{-1, 5}));
    EXPECT_EQ(output.ranges[1], (std::array<float, 2>{7, 7}));
    ASSERT_EQ(output.curves[0].keys.size(), 2u);
    EXPECT_EQ(output.curves[0].keys[1].position[1], 5.0f);
    EXPECT_EQ(output.curves[1].keys.size(), 1u);  // the two equal keys are written once

    // Linear: from (0, 3) to (20, 5) passes 4 at time 10, 5 above the key there.
    const Run linear = Reduce("'" + PathOf("small.json") + "' -o '" + PathOf("linear.json") +
                              "' --command modification --curve-type linear");
    ASSERT_EQ(linear.status, 0) << linear.err;
    EXPECT_NE(linear.out.find("largest error: 5 (worst curve c, at 10 s)"), std::string::npos)
        << linear.out;
  }
}

TEST_F(ReduceJob, TurnsDownBadInputAndUsage) {
  // Malformed JSON: the file and the line, status 2, nothing written.
  WriteText("broken.json", "{\"fps\": 30,\n \"curves\": [\n  {\"name\": \"a\", \"keys\": [}\n]}\n");
  {
    const Run run = Reduce("'" + PathOf("broken.json") + "' -o '" + PathOf("out.json") + "'");
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err.rfind("tarni-ca: " + PathOf("broken.json") + ":3: ", 0), 0u) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
  // A BVH frame row that is one value short.
  WriteText("short.bvh",
            "HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 0 0\n\tCHANNELS 3 Xposition Yposition "
            "Zposition\n\tEnd Site\n\t{\n\t\tOFFSET 0 1 0\n\t}\n}\nMOTION\nFrames: 2\n"
            "Frame Time: 0.1\n1 2 3\n4 5\n");
  {
    const Run run = Reduce("'" + PathOf("short.bvh") + "' -o '" + PathOf("out.json") + "'");
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err.rfind("tarni-ca: " + PathOf("short.bvh") + ":15: ", 0), 0u) << run.err;
  }
  // A file that is not there.
  {
    const Run run = Reduce("'" + PathOf("absent.json") + "' -o '" + PathOf("out.json") + "'");
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(PathOf("absent.json")), std::string::npos) << run.err;
  }
  EXPECT_EQ(Files(), (std::vector<std::string>{"broken.json", "short.bvh"}));

  // Usage errors: status 2 and a pointer to the help.
  WriteCurves("in.json", CurveFile{30, {Sampled("a", 10, 30, [](double t) { return t; })}, {}});
  const std::string in = "'" + PathOf("in.json") + "'";
  const std::string out = " -o '" + PathOf("out.json") + "'";
  for (const std::string& arguments :
       {std::string(""), in, out, in + out + " --strength abc", in + out + " --strength -1",
        in + out + " --magnet 1.5", in + out + " --fps 0", in + out + " --command other",
        in + out + " --curve-type linear", in + out + " --bogus", in + out + " " + in,
        in + " -o"}) {
    const Run run = Reduce(arguments);
    EXPECT_EQ(run.status, 2) << arguments;
    EXPECT_NE(run.err.find("see tarni-ca reduce --help"), std::string::npos) << arguments;
  }
  EXPECT_FALSE(fs::exists(PathOf("out.json")));

  const Run help = Reduce("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("(default 0.3)"), std::string::npos);
}

const char* const kClips[] = {"cmu/131_01_walk.bvh", "cmu/01_01_jumps.bvh",
                              "reactidle/003_genuine_idle.bvh"};

TEST_F(ReduceJob, ReducesARealClip) {
  const fs::path clip = fs::path(TARNI_TEST_DATA_DIR) / kClips[0];
  if (!fs::exists(clip)) GTEST_SKIP() << "no shared clips at " << TARNI_TEST_DATA_DIR;
  const Run run = Reduce("'" + clip.string() + "' -o '" + PathOf("walk.json") + "' --magnet 2");
  ASSERT_EQ(run.status, 0) << run.err;
  CurveFile output;
  IoError error;
  ASSERT_TRUE(ReadCurveFile(fs::path(PathOf("walk.json")), output, error)) << error.ToText();
  EXPECT_NEAR(output.fps, 120, 1e-3);  // a frame time of 0.0083333 s
  size_t keys = 0;
  for (const Curve& curve : output.curves) keys += curve.keys.size();
  EXPECT_NE(run.out.find("  keys in:       " + std::to_string(994 * output.curves.size())),
            std::string::npos)
      << run.out;
  EXPECT_LT(keys, 994 * output.curves.size() / 4);
  EXPECT_NE(run.out.find("worst curve "), std::string::npos);
}

// The property every reduction keeps, on real motion: each original key lies within the
// tolerance of the reduced curve (in the fitter's normalised units).
TEST_F(ReduceJob, DrawsTheNamedChannelsOrRefusesUnknownOnes) {
  CurveFile input;
  input.fps = 30;
  input.curves.push_back(
      Sampled("Arm.Xrotation", 90, 30, [](double t) { return 45 * std::sin(3 * t); }));
  input.curves.push_back(Sampled("Arm.Yrotation", 90, 30, [](double t) { return 2 * t; }));
  WriteCurves("in.json", input);
  // The named channel is plotted: one reduced path per panel, both curves' names in the drawing.
  {
    const Run run = Reduce("'" + PathOf("in.json") + "' -o '" + PathOf("out.json") + "' --svg '" +
                           PathOf("plot.svg") + "' --channel Arm.Yrotation");
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string svg = ReadText(PathOf("plot.svg"));
    EXPECT_EQ(svg.rfind("<?xml", 0), 0u) << svg.substr(0, 80);
    EXPECT_NE(svg.find("Arm.Yrotation"), std::string::npos);
    EXPECT_EQ(svg.find("Arm.Xrotation"), std::string::npos);
    EXPECT_NE(svg.find("</svg>"), std::string::npos);
  }
  // A channel that does not exist is a usage error that leaves neither file behind.
  {
    const Run run = Reduce("'" + PathOf("in.json") + "' -o '" + PathOf("out2.json") + "' --svg '" +
                           PathOf("plot2.svg") + "' --channel Arm.Zrotation");
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("no curve named 'Arm.Zrotation' to draw"), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(PathOf("out2.json")));
    EXPECT_FALSE(fs::exists(PathOf("plot2.svg")));
  }
}

TEST(BezierFitterOnClips, StaysWithinToleranceAtEveryKey) {
  int clips = 0;
  for (const char* name : kClips) {
    const fs::path path = fs::path(TARNI_TEST_DATA_DIR) / name;
    if (!fs::exists(path)) continue;
    ++clips;
    BvhMotion motion;
    IoError error;
    ASSERT_TRUE(ReadBvh(path, motion, error)) << error.ToText();
    const CurveFile curves = CurvesFromBvh(motion, 0);
    KeyCurves keys;
    for (const Curve& curve : curves.curves) {
      KeyArray array;
      for (const CurveKey& key : curve.keys)
        ASSERT_TRUE(array.Append(curvetest::MakeKey(key.position[0], key.position[1])));
      ASSERT_TRUE(keys.Append(std::move(array)));
    }
    for (float strength : {0.1f, 0.3f, 0.6f}) {
      auto out = curvetest::RunFitter(keys, {.strength = strength, .fps = 120});
      ASSERT_TRUE(out) << out.error().GetMessage();
      for (Int c = 0; c < keys.GetCount(); ++c) {
        SCOPED_TRACE(::testing::Message()
                     << name << " " << curves.curves[c].name << " strength " << strength);
        curvetest::ExpectWithinTolerance(keys[c], out.value()[c], strength);
      }
    }
  }
  if (clips == 0) GTEST_SKIP() << "no shared clips at " << TARNI_TEST_DATA_DIR;
}

}  // namespace
}  // namespace tarni::host
