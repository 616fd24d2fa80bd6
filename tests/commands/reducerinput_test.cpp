// The key reducer commands on input a host should not send but might: numbers that are not
// numbers, frame rates of zero, absurd parameters. Each is either turned down with one
// illegal-argument error and nothing written back, or reduced as for any other curve.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>

#include "curvecommands.h"

namespace tarni::curvetest {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

double Smooth(double t) { return std::sin(t * 3.0) * 2.0 + t; }

struct Refusal {
  const char* message;
  const char* unit;
};

// Runs `commandId` on `data` and checks it fails with the illegal-argument error `expected`,
// leaving the curves value it was given in place and writing no ranges.
void ExpectRefused(const Id& commandId, CommandData& data, const Refusal& expected) {
  const Shared<KeyCurves> before = data.GetShared<KeyCurves>(kAnimationCurvesId).value();
  auto out = ExecuteAndReadCurves(commandId, data);
  ASSERT_FALSE(out);
  EXPECT_TRUE(out.error().Is(ErrorKind::kIllegalArgument));
  EXPECT_EQ(out.error().GetMessage(), expected.message);
  EXPECT_EQ(out.error().GetUnit(), expected.unit);
  EXPECT_EQ(data.GetShared<KeyCurves>(kAnimationCurvesId).value().Get(), before.Get());
  EXPECT_FALSE(data.HasValue(kMinMaxArrId));
}

TEST(KeyReducerInput, TurnsDownParametersWithoutMeaning) {
  const KeyArray a = SampledCurve(40, Smooth);
  const KeyArray b = SampledCurve(40, [](double t) { return Smooth(t + 0.5); });
  const KeyCurves both = MakeCurves({&a, &b});
  // A strength that is not a number would never accept a fit.
  {
    Ref<CommandData> data = MakeAnimationData();
    FillFitterData(*data, both, {.strength = kNaN});
    ExpectRefused(kBezierFitterCommandId, *data,
                  {"Illegal argument: the strength is not a number.", "bezierfitter"});
  }
  // The magnet over several curves needs a frame rate to turn frames into seconds.
  for (std::int32_t fps : {0, -30, std::numeric_limits<std::int32_t>::min()}) {
    SCOPED_TRACE(fps);
    Ref<CommandData> data = MakeAnimationData();
    FillFitterData(*data, both, {.magnet = 2, .fps = fps});
    ExpectRefused(
        kBezierFitterCommandId, *data,
        {"Illegal argument: the magnet needs a project frame rate above 0.", "bezierfitter"});
  }
  // Without the magnet pass the frame rate is never consulted: no magnet, one curve, or a
  // strength that leaves every curve as it is.
  {
    auto noMagnet = RunFitter(both, {.magnet = 0, .fps = 0});
    ASSERT_TRUE(noMagnet) << noMagnet.error().GetMessage();
    EXPECT_TRUE(RunFitter(MakeCurves({&a}), {.magnet = 3, .fps = -1}));
    auto unchanged = RunFitter(both, {.strength = 0.0f, .magnet = 3, .fps = 0});
    ASSERT_TRUE(unchanged);
    EXPECT_TRUE(SameBits(unchanged.value()[1], b));
  }
}

TEST(KeyReducerInput, TurnsDownTangentsThatAreNotNumbers) {
  const char* kMessage = "Illegal argument: a key's tangent is not a finite number.";
  struct Case {
    int key;
    KeyVector Key::*tangent;
    bool x;
    float value;
  };
  const Case cases[] = {
      {0, &Key::leftTangent, true, kNaN},
      {5, &Key::rightTangent, false, kInf},
      {19, &Key::leftTangent, false, -kInf},
      {7, &Key::rightTangent, true, kNaN},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    KeyArray bad = SampledCurve(20, Smooth);
    KeyVector& tangent = bad[c.key].*c.tangent;
    (c.x ? tangent.x : tangent.y) = c.value;
    const KeyArray good = SampledCurve(20, Smooth);
    // The fitter, whatever the key's flags say: an ignored or locked key is damaged all the same.
    for (std::uint32_t flags : {0u, KEYFLAG_IGNORED, 0x400u}) {
      bad[c.key].flags = flags;
      Ref<CommandData> data = MakeAnimationData();
      FillFitterData(*data, MakeCurves({&good, &bad}), {.useLockedKeys = true});
      ExpectRefused(kBezierFitterCommandId, *data, {kMessage, "bezierfitter"});
    }
    // The modification curve's fitted type runs the same fitter.
    Ref<CommandData> data = MakeAnimationData();
    ASSERT_TRUE(data->Set<KeyCurves>(kAnimationCurvesId, MakeCurves({&bad})));
    ASSERT_TRUE(data->Set<std::int64_t>(kModificationCurveTypeId, 0));
    ExpectRefused(kReducedModificationCurveCommandId, *data, {kMessage, "bezierfitter"});
  }
  // Curves of up to two keys are returned as they are, tangents and all; the straight and flat
  // types read positions only.
  KeyArray two = MakeCurve({{0, 1}, {1, 2}});
  two[1].rightTangent = {kNaN, kInf};
  auto out = RunFitter(MakeCurves({&two}));
  ASSERT_TRUE(out);
  EXPECT_TRUE(SameBits(out.value()[0], two));
  KeyArray three = SampledCurve(3, Smooth);
  three[1].leftTangent = {kInf, kNaN};
  for (std::int64_t type : {1, 2}) {
    Ref<CommandData> data = MakeAnimationData();
    ASSERT_TRUE(data->Set<KeyCurves>(kAnimationCurvesId, MakeCurves({&three})));
    ASSERT_TRUE(data->Set<std::int64_t>(kModificationCurveTypeId, type));
    auto ran = ExecuteAndReadCurves(kReducedModificationCurveCommandId, *data);
    ASSERT_TRUE(ran) << type;
    EXPECT_EQ(ran.value()[0].GetCount(), 2);
  }
}

TEST(KeyReducerInput, TurnsDownFiniteKeysWhoseFittedTangentsOverflow) {
  const char* kMessage =
      "Illegal argument: the keys are too far apart or too steep for finite tangents.";
  // Values at the float limit, alternating: every key-to-key step is beyond the float range.
  const KeyArray wide = MakeCurve({{0, 3.4e38}, {1, -3.4e38}, {2, 3.4e38}, {3, -3.4e38}});
  // Times at the float limit: the span from the first key to the last is beyond the float range.
  const KeyArray far = MakeCurve({{-3.4e38f, 0}, {-1e38f, 1}, {1e38f, 0}, {3.4e38f, 1}});
  const KeyArray good = SampledCurve(20, Smooth);
  for (const KeyArray* bad : {&wide, &far}) {
    Ref<CommandData> data = MakeAnimationData();
    FillFitterData(*data, MakeCurves({&good, bad}), {});
    ExpectRefused(kBezierFitterCommandId, *data, {kMessage, "bezierfitter"});
  }
}

TEST(KeyReducerInput, ReducesExtremeButMeaningfulParameters) {
  const KeyArray a = SampledCurve(60, Smooth);
  const KeyArray b = SampledCurve(60, [](double t) { return -Smooth(t); });
  const KeyCurves both = MakeCurves({&a, &b});
  // A strength whose tolerance is beyond any error fits each curve with one segment.
  for (float strength : {1e13f, kInf}) {
    SCOPED_TRACE(strength);
    auto out = RunFitter(both, {.strength = strength});
    ASSERT_TRUE(out) << out.error().GetMessage();
    ASSERT_EQ(out.value()[0].GetCount(), 2);
    EXPECT_EQ(out.value()[0][0].position.x, a[0].position.x);
    EXPECT_EQ(out.value()[0][1].position.x, a.GetLast().position.x);
  }
  // Magnet widths and frame rates at the ends of their range still make one shared time or
  // none; every curve is reduced within its tolerance.
  for (auto [magnet, fps] : {std::pair{std::numeric_limits<std::int32_t>::max(), 1},
                             std::pair{1, std::numeric_limits<std::int32_t>::max()}}) {
    SCOPED_TRACE(magnet);
    auto out = RunFitter(both, {.strength = 0.3f, .magnet = magnet, .fps = fps});
    ASSERT_TRUE(out) << out.error().GetMessage();
    ExpectWithinTolerance(a, out.value()[0], 0.3f);
    ExpectWithinTolerance(b, out.value()[1], 0.3f);
  }
}

TEST(KeyReducerInput, KeepsOneResultPerCurveOverThousandsOfCurves) {
  // Empty, one-key, flat, ignored-only and ordinary curves, many times over, with the magnet on.
  const KeyArray empty;
  const KeyArray one = MakeCurve({{2, 5}});
  const KeyArray flat = SampledCurve(30, [](double) { return 1e-06; });
  KeyArray ignored = SampledCurve(10, Smooth);
  for (Key& key : ignored) key.flags = KEYFLAG_IGNORED;
  const KeyArray smooth = SampledCurve(45, Smooth);
  KeyCurves curves;
  for (int i = 0; i < 600; ++i) {
    for (const KeyArray* curve :
         std::initializer_list<const KeyArray*>{&empty, &one, &flat, &ignored, &smooth}) {
      KeyArray copy;
      ASSERT_TRUE(copy.CopyFrom(*curve));
      ASSERT_TRUE(curves.Append(std::move(copy)));
    }
  }
  auto out = RunFitter(curves, {.strength = 0.5f, .magnet = 1, .fps = 24});
  ASSERT_TRUE(out) << out.error().GetMessage();
  ASSERT_EQ(out.value().GetCount(), curves.GetCount());
  for (Int c = 0; c < curves.GetCount(); c += 5) {
    EXPECT_EQ(out.value()[c].GetCount(), 0);
    // A single key comes back as it is, but for the magnet mark its time earned it.
    ASSERT_EQ(out.value()[c + 1].GetCount(), 1);
    EXPECT_EQ(out.value()[c + 1][0].flags, KEYFLAG_MAGNET);
    EXPECT_EQ(out.value()[c + 1][0].position.y, 5.0f);
    ASSERT_EQ(out.value()[c + 2].GetCount(), 2);
    // Ignored keys are left out: nothing remains of a curve of ignored keys.
    EXPECT_EQ(out.value()[c + 3].GetCount(), 0);
    ExpectWithinTolerance(smooth, out.value()[c + 4], 0.5f);
  }
}

}  // namespace
}  // namespace tarni::curvetest
