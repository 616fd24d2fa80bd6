// The reduce job of the host application, run as a user runs it, and the fitter on real clips.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "apps/jobrun.h"
#include "commands/curvecommands.h"
#include "io/bvh.h"
#include "io/curvefile.h"
#include "motion/curveeval.h"
#include "retarget/keyreduction.h"

namespace tarni::host {
namespace {

using namespace jobtest;

class ReduceJob : public ::testing::Test {
 protected:
  // Runs the job on `in` with output `out` (both in the scratch folder) and further arguments.
  JobRun Reduce(const std::string& in, const std::string& out, const std::string& more = "") const {
    return RunHost(_dir, "reduce " + _dir.Quoted(in) + " -o " + _dir.Quoted(out) + more);
  }
  void WriteCurves(const std::string& name, const CurveFile& file) const {
    IoError error;
    ASSERT_TRUE(WriteCurveFile(fs::path(_dir.PathOf(name)), file, error)) << error.ToText();
  }
  CurveFile ReadCurves(const std::string& name) const {
    CurveFile file;
    IoError error;
    EXPECT_TRUE(ReadCurveFile(fs::path(_dir.PathOf(name)), file, error)) << error.ToText();
    return file;
  }

  ScratchDir _dir{"reduce"};
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
  CurveFile input{30, {}, {}};
  input.curves.push_back(
      Sampled("Arm.Xrotation", 300, 30, [](double t) { return 45 * std::sin(t); }));
  input.curves.push_back(Sampled("Arm.Yrotation", 300, 30, [](double t) { return 3 * t * t; }));
  WriteCurves("in.json", input);
  // The fitter with the default strength: fewer keys, same curves, a small error.
  {
    const JobRun run = Reduce("in.json", "out.json");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_HAS(run.out, "  curves:        2\n");
    EXPECT_HAS(run.out, "  keys in:       600\n");
    const CurveFile output = ReadCurves("out.json");
    ASSERT_EQ(output.curves.size(), 2u);
    const size_t out = output.curves[0].keys.size() + output.curves[1].keys.size();
    EXPECT_LT(out, 60u);
    EXPECT_HAS(run.out, "  keys out:      " + std::to_string(out) + " (");
    const size_t at = run.out.find("largest error: ");
    ASSERT_NE(at, std::string::npos);
    const double largest = std::strtod(run.out.c_str() + at + 15, nullptr);
    // Within the tolerance of the larger curve (values up to 300) times a margin for slopes.
    EXPECT_GT(largest, 0.0);
    EXPECT_LT(largest, 0.3 * 0.3 * 0.3 * 0.8 * 300);
  }
  // Flat maximum: the ranges are written; the largest error is the deepest valley, found between
  // keys on a segment whose undefined handles make it straight.
  CurveFile small{24, {}, {}};
  small.curves = {{"c", {At(0, 3), At(10, -1), At(20, 5)}}, {"one", {At(4, 7)}}, {"none", {}}};
  WriteCurves("small.json", small);
  {
    const JobRun run =
        Reduce("small.json", "flat.json", " --command modification --curve-type flatmax");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_HAS(run.out, "largest error: 6 (worst curve c, at 10 s)");
    EXPECT_HAS(run.err, "curve 'none' has no keys");
    const CurveFile output = ReadCurves("flat.json");
    ASSERT_EQ(output.ranges.size(), 3u);
    EXPECT_EQ(output.ranges[0], (std::array<float, 2>{-1, 5}));
    EXPECT_EQ(output.ranges[1], (std::array<float, 2>{7, 7}));
    ASSERT_EQ(output.curves[0].keys.size(), 2u);
    EXPECT_EQ(output.curves[0].keys[1].position[1], 5.0f);
    EXPECT_EQ(output.curves[1].keys.size(), 1u);  // the two equal keys are written once
  }
  // Linear: from (0, 3) to (20, 5) passes 4 at time 10, 5 above the key there.
  {
    const JobRun run =
        Reduce("small.json", "linear.json", " --command modification --curve-type linear");
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_HAS(run.out, "largest error: 5 (worst curve c, at 10 s)");
  }
}

// Between the file's seconds and the frames the fitter works in, nothing moves: every written key
// sits exactly at an input key's time, tangents taken over from locked keys keep their values (to
// the last bit or so), and tangents at the default stay at the default, whatever the frame rate.
TEST_F(ReduceJob, KeepsKeyTimesAndTangentsThroughFrames) {
  const float kFps = 23.9998f;
  CurveFile input{kFps, {}, {}};
  input.curves.push_back(Sampled("Arm.Xrotation", 120, kFps, [](double t) {
    return 40 * std::sin(5 * t) + 3 * std::sin(37 * t);
  }));
  // Times off the frames, as hand-set keys have them: the ones the round trip through frames
  // would move by an ulp now and then.
  for (size_t i = 0; i < input.curves[0].keys.size(); ++i) {
    const double frame = static_cast<double>(i) + 0.3 * std::sin(1.7 * static_cast<double>(i));
    input.curves[0].keys[i].position[0] = static_cast<float>(frame / kFps);
  }
  // Two locked keys side by side: the tangents between them are taken over as they are.
  CurveKey& first = input.curves[0].keys[50];
  CurveKey& second = input.curves[0].keys[51];
  first.flags = second.flags = 0x400;
  first.rightTangent[0] = 0.03f;
  first.rightTangent[1] = -2.0f;
  second.leftTangent[0] = -0.02f;
  second.leftTangent[1] = 1.5f;
  WriteCurves("odd.json", input);
  const JobRun run = Reduce("odd.json", "odd-out.json", " --use-locked-keys --strength 0.5");
  ASSERT_EQ(run.status, 0) << run.err;
  const CurveFile output = ReadCurves("odd-out.json");
  ASSERT_EQ(output.curves.size(), 1u);
  const std::vector<CurveKey>& in = input.curves[0].keys;
  const std::vector<CurveKey>& out = output.curves[0].keys;
  ASSERT_LT(out.size(), in.size() / 2);
  int locked = 0;
  for (const CurveKey& key : out) {
    const auto same = std::find_if(in.begin(), in.end(), [&](const CurveKey& original) {
      return std::memcmp(&original.position[0], &key.position[0], sizeof(float)) == 0;
    });
    ASSERT_NE(same, in.end()) << "a key at " << key.position[0] << " s, between input keys";
    if (same == in.begin() + 50) {
      ++locked;
      EXPECT_FLOAT_EQ(key.rightTangent[0], 0.03f);
      EXPECT_FLOAT_EQ(key.rightTangent[1], -2.0f);
    } else if (same == in.begin() + 51) {
      ++locked;
      EXPECT_FLOAT_EQ(key.leftTangent[0], -0.02f);
      EXPECT_FLOAT_EQ(key.leftTangent[1], 1.5f);
    }
  }
  EXPECT_EQ(locked, 2);
  EXPECT_EQ(out.front().leftTangent[0], -1.0f);
  EXPECT_EQ(out.front().leftTangent[1], -1.0f);
  EXPECT_EQ(out.back().rightTangent[0], -1.0f);
  EXPECT_EQ(out.back().rightTangent[1], -1.0f);
  // The fitted handles are in seconds again: a handle spans at most its segment's time.
  for (size_t k = 0; k + 1 < out.size(); ++k) {
    const float span = out[k + 1].position[0] - out[k].position[0];
    EXPECT_LE(std::fabs(out[k].rightTangent[0]), 1.01f * span) << "key " << k;
  }
}

TEST_F(ReduceJob, TurnsDownBadInputAndUsage) {
  // Malformed JSON, a BVH frame row one value short, a missing file: the file (and the line),
  // status 2, one line, nothing written.
  _dir.WriteText("broken.json",
                 "{\"fps\": 30,\n \"curves\": [\n  {\"name\": \"a\", \"keys\": [}\n]}\n");
  _dir.WriteText("short.bvh",
                 "HIERARCHY\nROOT Hips\n{\n\tOFFSET 0 0 0\n\tCHANNELS 3 Xposition Yposition "
                 "Zposition\n\tEnd Site\n\t{\n\t\tOFFSET 0 1 0\n\t}\n}\nMOTION\nFrames: 2\n"
                 "Frame Time: 0.1\n1 2 3\n4 5\n");
  for (const auto& [name, place] : {std::pair<std::string, std::string>{"broken.json", ":3: "},
                                    {"short.bvh", ":15: "},
                                    {"absent.json", ": "}}) {
    const JobRun run = Reduce(name, "out.json");
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err.rfind("tarni-ca: " + _dir.PathOf(name) + place, 0), 0u) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
  EXPECT_EQ(_dir.Files(), (std::vector<std::string>{"broken.json", "short.bvh"}));
  // Usage errors: status 2 and a pointer to the help.
  WriteCurves("in.json", CurveFile{30, {Sampled("a", 10, 30, [](double t) { return t; })}, {}});
  const std::string in = _dir.Quoted("in.json");
  const std::string out = " -o " + _dir.Quoted("out.json");
  for (const std::string& arguments :
       {std::string(""), in, out, in + out + " --strength abc", in + out + " --strength -1",
        in + out + " --magnet 1.5", in + out + " --fps 0", in + out + " --command other",
        in + out + " --curve-type linear", in + out + " --bogus", in + out + " " + in,
        in + " -o"}) {
    const JobRun run = RunHost(_dir, "reduce " + arguments);
    EXPECT_EQ(run.status, 2) << arguments;
    EXPECT_HAS(run.err, "see tarni-ca reduce --help");
  }
  // A channel to draw that does not exist is a usage error too, leaving neither file behind.
  const JobRun channel =
      Reduce("in.json", "out.json", " --svg " + _dir.Quoted("plot.svg") + " --channel Arm.Z");
  EXPECT_EQ(channel.status, 2);
  EXPECT_HAS(channel.err, "no curve named 'Arm.Z' to draw");
  EXPECT_EQ(_dir.Files(), (std::vector<std::string>{"broken.json", "in.json", "short.bvh"}));
  const JobRun help = RunHost(_dir, "reduce --help");
  EXPECT_EQ(help.status, 0);
  EXPECT_HAS(help.out, "(default 0.3)");
}

const char* const kClips[] = {"cmu/131_01_walk.bvh", "cmu/01_01_jumps.bvh",
                              "reactidle/003_genuine_idle.bvh"};

TEST_F(ReduceJob, ReducesARealClipAndDrawsTheNamedChannel) {
  // The named channel is plotted, the other is not.
  {
    CurveFile input{30, {}, {}};
    input.curves.push_back(
        Sampled("Arm.Xrotation", 90, 30, [](double t) { return 45 * std::sin(3 * t); }));
    input.curves.push_back(Sampled("Arm.Yrotation", 90, 30, [](double t) { return 2 * t; }));
    WriteCurves("in.json", input);
    const JobRun run = Reduce("in.json", "out.json",
                              " --svg " + _dir.Quoted("plot.svg") + " --channel Arm.Yrotation");
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string svg = ReadText(_dir.PathOf("plot.svg"));
    EXPECT_EQ(svg.rfind("<?xml", 0), 0u) << svg.substr(0, 80);
    EXPECT_HAS(svg, "Arm.Yrotation");
    EXPECT_EQ(svg.find("Arm.Xrotation"), std::string::npos);
    EXPECT_HAS(svg, "</svg>");
  }
  // The walk clip: read at its own rate, a quarter of the keys or fewer.
  const fs::path clip = fs::path(TARNI_TEST_DATA_DIR) / kClips[0];
  if (!fs::exists(clip)) GTEST_SKIP() << "no shared clips at " << TARNI_TEST_DATA_DIR;
  const JobRun run = RunHost(
      _dir, "reduce '" + clip.string() + "' -o " + _dir.Quoted("walk.json") + " --magnet 2");
  ASSERT_EQ(run.status, 0) << run.err;
  const CurveFile output = ReadCurves("walk.json");
  EXPECT_NEAR(output.fps, 120, 1e-3);  // a frame time of 0.0083333 s
  size_t keys = 0;
  for (const Curve& curve : output.curves) keys += curve.keys.size();
  EXPECT_HAS(run.out, "  keys in:       " + std::to_string(994 * output.curves.size()));
  EXPECT_LT(keys, 994 * output.curves.size() / 4);
  EXPECT_HAS(run.out, "worst curve ");
}

// The channels of each shared clip that is present, read as the host reads them.
struct ClipCurves {
  std::string name;
  CurveFile curves;
};
std::vector<ClipCurves> SharedClipCurves() {
  std::vector<ClipCurves> clips;
  for (const char* name : kClips) {
    const fs::path path = fs::path(TARNI_TEST_DATA_DIR) / name;
    if (!fs::exists(path)) continue;
    BvhMotion motion;
    IoError error;
    EXPECT_TRUE(ReadBvh(path, motion, error)) << error.ToText();
    clips.push_back({name, CurvesFromBvh(motion, 0)});
  }
  return clips;
}

// The property every reduction keeps, on real motion: each original key lies within the
// tolerance of the reduced curve (in the fitter's normalised units).
TEST(BezierFitterOnClips, StaysWithinToleranceAtEveryKey) {
  const std::vector<ClipCurves> clips = SharedClipCurves();
  if (clips.empty()) GTEST_SKIP() << "no shared clips at " << TARNI_TEST_DATA_DIR;
  for (const auto& [name, curves] : clips) {
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
}

// The host hands the fitter time in frames, so its tolerance bounds the value: on real motion
// every curve's reduced value at every input key (played as keyframe players play it) stays within
// a small margin of tolerance × the curve's largest |value|. In seconds, fast motion would let a
// fit pass keys whole frames away: over a thousand times the tolerance on these clips.
TEST(ReduceCurvesOnClips, BoundsTheValueErrorByTheTolerance) {
  const std::vector<ClipCurves> clips = SharedClipCurves();
  if (clips.empty()) GTEST_SKIP() << "no shared clips at " << TARNI_TEST_DATA_DIR;
  for (const auto& [name, curves] : clips) {
    for (float strength : {0.1f, 0.3f, 0.5f}) {
      CurveFile reduced;
      ASSERT_TRUE(ReduceCurves(curves, strength, reduced));
      const double tolerance = 0.8 * strength * strength * strength;
      for (size_t c = 0; c < curves.curves.size(); ++c) {
        const std::vector<CurveKey>& in = curves.curves[c].keys;
        const std::vector<CurveKey>& out = reduced.curves[c].keys;
        double scale = 0;
        for (const CurveKey& key : in) scale = std::max(scale, std::fabs(double{key.position[1]}));
        if (scale <= 1e-5) continue;  // flat: its ends alone stand for it
        double largest = 0;
        for (const CurveKey& key : in) {
          const double value = ReducedValueAt(out, key.position[0]);
          largest = std::max(largest, std::fabs(value - key.position[1]));
        }
        EXPECT_LE(largest, 1.5 * tolerance * scale)
            << name << " " << curves.curves[c].name << " strength " << strength;
      }
    }
  }
}

}  // namespace
}  // namespace tarni::host
