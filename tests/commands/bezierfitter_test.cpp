// The Bezier fitter command, run as a host runs it, and its magnet helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "curvecommands.h"
#include "source/commands/bezierfitter.h"
#include "tarni/memory.h"

namespace tarni {
namespace {

using namespace tarni::curvetest;
using ca::CollectMagnetTimes;
using ca::MarkMagnetKeys;

constexpr float kStrength = 0.3f;

double Smooth(double t) { return 40.0 * std::sin(2.1 * t) + 15.0 * std::cos(5.3 * t + 0.4); }

TEST(BezierFitter, ReturnsShortFlatOrUnfittableCurvesAsTheyAre) {
  const KeyArray curve = SampledCurve(50, Smooth);
  // A strength up to 1e-06 writes back the very value the host put in, not a copy.
  for (float strength : {0.0f, 1e-06f, -1.0f}) {
    Ref<CommandData> data = MakeAnimationData();
    FillFitterData(*data, MakeCurves({&curve}), {.strength = strength});
    const Shared<KeyCurves> before = data->GetShared<KeyCurves>(kAnimationCurvesId).value();
    auto after = ExecuteAndReadCurves(kBezierFitterCommandId, *data);
    ASSERT_TRUE(after) << after.error().GetMessage();
    EXPECT_EQ(data->GetShared<KeyCurves>(kAnimationCurvesId).value().Get(), before.Get());
    EXPECT_TRUE(SameBits(after.value()[0], curve));
  }
  // Just above that the fitter works: nearly every key survives, with fitted tangents.
  {
    auto fitted = RunFitter(MakeCurves({&curve}), {.strength = 2e-06f});
    ASSERT_TRUE(fitted);
    EXPECT_GT(fitted.value()[0].GetCount(), 40);
    EXPECT_NE(fitted.value()[0][0].rightTangent.x, -1.0f);
  }
  // Curves of 0, 1 and 2 keys come back as they are, flags, tangents and even NaN included.
  {
    KeyArray empty;
    KeyArray one;
    ASSERT_TRUE(one.Append(MakeKey(1.0f, 5.0f, 0x80004000u)));
    KeyArray two = MakeCurve({{1.0f, std::numeric_limits<float>::quiet_NaN()}, {0.0f, -3.0f}});
    two[1].rightTangent = {0.25f, 7.0f};
    auto out = RunFitter(MakeCurves({&empty, &one, &two}), {.strength = 0.8f});
    ASSERT_TRUE(out);
    ASSERT_EQ(out.value().GetCount(), 3);
    EXPECT_TRUE(out.value()[0].IsEmpty());
    EXPECT_TRUE(SameBits(out.value()[1], one));
    EXPECT_TRUE(SameBits(out.value()[2], two));
  }
  // Values all within ±1e-05: exact copies of the first and the last key; just beyond, a fit.
  {
    KeyArray flat = MakeCurve({{0.0f, 1e-05f}, {0.1f, -1e-05f}, {0.2f, 3e-06f}, {0.3f, 0.0f}});
    flat[0].flags = 0x20u;
    flat[0].leftTangent = {9.0f, 8.0f};
    flat[3].rightTangent = {0.5f, 0.5f};
    KeyArray almost = MakeCurve({{0.0f, 1.1e-05f}, {0.1f, 0}, {0.2f, 0}, {0.3f, 0}, {0.4f, 0}});
    auto out = RunFitter(MakeCurves({&flat, &almost}));
    ASSERT_TRUE(out);
    ASSERT_EQ(out.value()[0].GetCount(), 2);
    EXPECT_TRUE(SameBits(out.value()[0][0], flat[0]));
    EXPECT_TRUE(SameBits(out.value()[0][1], flat[3]));
    EXPECT_NE(out.value()[1][0].rightTangent.x, -1.0f);
  }
}

TEST(BezierFitter, ExactCubicComesBackAsTwoKeys) {
  // Keys on one cubic Bezier segment whose time runs linearly with its parameter.
  const double b[4] = {0.0, 5.0, 15.0, 20.0};
  KeyArray curve;
  for (int i = 0; i <= 30; ++i) {
    const double t = i / 30.0;
    const double s = 1 - t;
    const double value =
        s * s * s * b[0] + 3 * s * s * t * b[1] + 3 * s * t * t * b[2] + t * t * t * b[3];
    ASSERT_TRUE(curve.Append(MakeKey(static_cast<float>(t), static_cast<float>(value))));
  }
  curve[0].flags = 0x10u;
  curve[30].flags = 0x8u;
  auto out = RunFitter(MakeCurves({&curve}), {.strength = kStrength});
  ASSERT_TRUE(out);
  const KeyArray& reduced = out.value()[0];
  ASSERT_EQ(reduced.GetCount(), 2);
  // Its handles are close to the cubic's: a third of the span in time, the end slopes in value
  // (the fit sees the slopes only through the first and last difference of the keys).
  EXPECT_NEAR(reduced[0].rightTangent.x, 1.0 / 3.0, 0.05);
  EXPECT_NEAR(reduced[0].rightTangent.y / reduced[0].rightTangent.x, 3 * (b[1] - b[0]), 1.0);
  EXPECT_NEAR(reduced[1].leftTangent.x, -1.0 / 3.0, 0.05);
  EXPECT_NEAR(reduced[1].leftTangent.y / reduced[1].leftTangent.x, 3 * (b[3] - b[2]), 1.0);
  // The first key keeps its own flags and left tangent, the last its flags and right tangent.
  EXPECT_EQ(reduced[0].flags, 0x10u);
  EXPECT_EQ(reduced[0].leftTangent.x, -1.0f);
  EXPECT_EQ(reduced[1].flags, 0x8u);
  EXPECT_EQ(reduced[1].rightTangent.y, -1.0f);
  ExpectWithinTolerance(curve, reduced, kStrength);
}

TEST(BezierFitter, LockedKeysStayWithUseLockedKeys) {
  KeyArray curve = SampledCurve(40, [](double t) { return 10.0 * t; });
  curve[10].position.y += 3.0f;  // a locked key off the line
  curve[10].flags = 0x400u;
  curve[25].flags = 0x800u | 0x10000u;
  curve[26].rightTangent = {0.125f, 2.5f};
  curve[27].flags = 0x400u;  // 25, 26, 27: a run of three between locked keys
  const KeyCurves curves = MakeCurves({&curve});

  // Without the switch the keys on the straight line go.
  auto free = RunFitter(curves, {.strength = 0.5f});
  ASSERT_TRUE(free);
  for (const Key& key : free.value()[0]) EXPECT_NE(key.position.x, curve[26].position.x);

  auto out = RunFitter(curves, {.strength = 0.5f, .useLockedKeys = true});
  ASSERT_TRUE(out);
  const KeyArray& reduced = out.value()[0];
  const float scale = FitScale(curve);
  auto find = [&reduced](float time) -> const Key* {
    for (const Key& key : reduced)
      if (key.position.x == time) return &key;
    return nullptr;
  };
  for (int i : {0, 10, 25, 26, 27, 39}) {
    const Key* key = find(curve[i].position.x);
    ASSERT_NE(key, nullptr) << i;
    EXPECT_EQ(key->position.y, ThroughScale(curve[i], scale).position.y) << i;
    EXPECT_EQ(key->flags, curve[i].flags) << i;
  }
  // The key between the two locked keys is taken over (through the scale like every key), and
  // the locked key before it keeps its own outgoing tangent.
  EXPECT_TRUE(SameBits(*find(curve[26].position.x), ThroughScale(curve[26], scale)));
  EXPECT_EQ(find(curve[25].position.x)->rightTangent.y,
            ThroughScale(curve[25], scale).rightTangent.y);
  // Every key is in the output once, in time order.
  for (Int i = 1; i < reduced.GetCount(); ++i)
    EXPECT_LT(reduced[i - 1].position.x, reduced[i].position.x);
  ExpectWithinTolerance(curve, reduced, 0.5f);
}

TEST(BezierFitter, KeySelectionTakesOverUnselectedKeysThroughTheScale) {
  KeyArray curve = SampledCurve(90, Smooth);
  constexpr std::uint32_t kUnknownBit = 0x00100000u;
  for (Int i = 0; i < curve.GetCount(); ++i) {
    Key& key = curve[i];
    if (i >= 20 && i < 70) {
      key.flags = KEYFLAG_SELECTED | kUnknownBit;
    } else {  // values, some of which do not survive a division and multiplication by the scale
      key.flags = kUnknownBit | 0x1u;
      key.position.y = key.position.y / 49.0f * 3.1f;
      key.leftTangent = {-0.01f, key.position.y / 7.0f};
      key.rightTangent = {0.01f, key.position.y / 13.0f};
    }
  }
  const KeyCurves curves = MakeCurves({&curve});
  auto out = RunFitter(curves, {.strength = kStrength, .useKeySelection = true});
  ASSERT_TRUE(out);
  const KeyArray& reduced = out.value()[0];
  const float scale = FitScale(curve);
  Int unselected = 0;
  Int moved = 0;  // unselected keys whose values the round trip through the scale changed
  Int created = 0;
  for (const Key& key : reduced) {
    const Int index = static_cast<Int>(std::lround(key.position.x * 30.0f));
    if (index < 20 || index >= 70) {
      // Flags, times and handle times as they were; values divided by the scale and multiplied
      // back like those of every other key of the result.
      EXPECT_TRUE(SameBits(key, ThroughScale(curve[index], scale))) << index;
      moved += !SameBits(key, curve[index]);
      ++unselected;
    } else if (index != 20 && index != 69) {
      EXPECT_EQ(key.flags, KEYFLAG_SELECTED) << index;  // made by the fit
      ++created;
    } else {
      EXPECT_EQ(key.flags, curve[index].flags) << index;  // the run's ends keep theirs
    }
  }
  EXPECT_EQ(unselected, 40);
  EXPECT_GT(moved, 0);
  EXPECT_GT(created, 0);

  // Without key selection every key is fitted and created keys carry flags 0.
  auto all = RunFitter(curves, {.strength = kStrength});
  ASSERT_TRUE(all);
  for (Int i = 1; i + 1 < all.value()[0].GetCount(); ++i) EXPECT_EQ(all.value()[0][i].flags, 0u);
}

TEST(BezierFitter, IgnoredKeysNeverAppear) {
  KeyArray curve = SampledCurve(60, Smooth);
  for (int i : {0, 17, 18, 30, 59}) {
    curve[i].flags |= KEYFLAG_IGNORED;
    curve[i].position.y = 500.0f;  // a spike the fit must not see
  }
  for (float strength : {0.05f, kStrength, 1.0f}) {
    for (bool useKeySelection : {false, true}) {
      auto out = RunFitter(MakeCurves({&curve}),
                           {.strength = strength, .useKeySelection = useKeySelection});
      ASSERT_TRUE(out);
      const KeyArray& reduced = out.value()[0];
      EXPECT_EQ(reduced[0].position.x, curve[1].position.x);
      EXPECT_EQ(reduced.GetLast().position.x, curve[58].position.x);
      for (const Key& key : reduced) {
        EXPECT_EQ(key.flags & KEYFLAG_IGNORED, 0u);
        EXPECT_NE(key.position.y, 500.0f);
      }
    }
  }
}

TEST(BezierFitter, CollectsAndMarksMagnetTimes) {
  auto collect = [](std::initializer_list<std::pair<float, float>> keys, float threshold) {
    const KeyArray curve = MakeCurve(keys);
    const KeyCurves curves = MakeCurves({&curve});
    auto times = CollectMagnetTimes(curves, threshold);
    EXPECT_TRUE(times);
    return std::vector<float>(times.value().begin(), times.value().end());
  };
  using V = std::vector<float>;
  // Fewer than two times: nothing.
  EXPECT_EQ(collect({{1.0f, 0.0f}}, 1.0f), V{});
  // The first group counts its smallest time twice: [0, 0, 1, 2, 3] emits index 2, that is 1
  // (without the doubled time it would emit 2).
  EXPECT_EQ(collect({{0, 0}, {1, 0}, {2, 0}, {3, 0}}, 5.0f), V{1.0f});
  // [0, 0, 0.1] emits the upper middle 0; [1, 1.05, 1.1] emits 1.05; a lone 5 emits itself.
  EXPECT_EQ(collect({{0, 0}, {0.1f, 0}, {1, 0}, {1.05f, 0}, {1.1f, 0}, {5, 0}}, 0.2f),
            (V{0.0f, 1.05f, 5.0f}));
  // A group of two that is not the first emits its first time; an even count the upper middle.
  EXPECT_EQ(collect({{0, 0}, {3, 0}, {3.1f, 0}, {7, 0}, {7.1f, 0}, {7.2f, 0}, {7.3f, 0}}, 0.5f),
            (V{0.0f, 3.0f, 7.2f}));
  // Equal first and last time: that time, whatever the count.
  EXPECT_EQ(collect({{2, 0}, {2, 0}, {2, 0}}, 0.0f), V{2.0f});
  // Times are gathered over all curves, in any order, and sorted.
  {
    const KeyArray a = MakeCurve({{4, 0}, {9, 0}});
    const KeyArray b = MakeCurve({{0, 0}, {4.05f, 0}});
    auto times = CollectMagnetTimes(MakeCurves({&a, &b}), 0.1f);
    ASSERT_TRUE(times);
    EXPECT_EQ(std::vector<float>(times.value().begin(), times.value().end()),
              (V{0.0f, 4.0f, 9.0f}));
  }
  // Marking needs exact times: 0.3 does not mark 0.30000004.
  {
    KeyArray curve =
        MakeCurve({{0.0f, 0}, {0.1f, 0}, {0.2f, 0}, {0.30000004f, 0}, {0.4f, 0}, {0.5f, 0}});
    const float times[] = {0.1f, 0.3f, 0.5f, 7.0f, -1.0f, std::numeric_limits<float>::quiet_NaN()};
    EXPECT_EQ(MarkMagnetKeys(curve, times), 2);
    const std::uint32_t expected[] = {0, KEYFLAG_MAGNET, 0, 0, 0, KEYFLAG_MAGNET};
    for (Int i = 0; i < curve.GetCount(); ++i) EXPECT_EQ(curve[i].flags, expected[i]) << i;
    // Marking again changes nothing; an empty curve has nothing to mark.
    EXPECT_EQ(MarkMagnetKeys(curve, times), 0);
  }
}

TEST(BezierFitter, MagnetPassMarksSharedTimes) {
  const KeyArray a = SampledCurve(45, Smooth);
  const KeyArray b = SampledCurve(45, [](double t) { return Smooth(t + 0.7) * 0.5; });
  const KeyCurves curves = MakeCurves({&a, &b});
  auto marked = [](const KeyCurves& out) {
    Int count = 0;
    for (const KeyArray& curve : out)
      for (const Key& key : curve) count += (key.flags & KEYFLAG_MAGNET) != 0;
    return count;
  };
  // Magnet 2 frames at 30 fps: both curves start at time 0, a magnet time, and their first keys
  // (which keep their flags) carry the mark. The host's curves value is marked nowhere.
  Ref<CommandData> data = MakeAnimationData();
  FillFitterData(*data, curves, {.strength = kStrength, .magnet = 2, .fps = 30});
  const Shared<KeyCurves> before = data->GetShared<KeyCurves>(kAnimationCurvesId).value();
  auto out = ExecuteAndReadCurves(kBezierFitterCommandId, *data);
  ASSERT_TRUE(out);
  EXPECT_EQ(marked(before->value), 0);
  EXPECT_NE(out.value()[0][0].flags & KEYFLAG_MAGNET, 0u);
  EXPECT_NE(out.value()[1][0].flags & KEYFLAG_MAGNET, 0u);
  // Magnet 0, or a single curve: no magnet pass.
  auto none = RunFitter(curves, {.strength = kStrength, .magnet = 0});
  ASSERT_TRUE(none);
  EXPECT_EQ(marked(none.value()), 0);
  auto single = RunFitter(MakeCurves({&a}), {.strength = kStrength, .magnet = 5});
  ASSERT_TRUE(single);
  EXPECT_EQ(marked(single.value()), 0);
}

TEST(BezierFitter, StaysWithinToleranceAtEveryKey) {
  std::mt19937 random(20240611);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  for (int trial = 0; trial < 12; ++trial) {
    const int frames = 40 + trial * 37;
    const double amplitude =
        std::pow(10.0, trial % 5 - 2);  // 0.01 .. 100: the scale must not matter
    KeyArray curve;
    float walk = 0.0f;
    for (int i = 0; i < frames; ++i) {
      const double t = i / 30.0;
      walk += noise(random) * 0.05f;
      double value = Smooth(t * (1 + trial % 3));
      if (trial % 4 == 1) value += noise(random) * 3.0;         // jitter
      if (trial % 4 == 2) value = walk * 20.0;                  // random walk
      if (trial % 4 == 3) value = (i / 17) % 2 ? 30.0 : -10.0;  // steps
      ASSERT_TRUE(
          curve.Append(MakeKey(static_cast<float>(t), static_cast<float>(value * amplitude))));
    }
    for (float strength : {0.1f, kStrength, 0.6f, 1.0f}) {
      SCOPED_TRACE(::testing::Message() << "trial " << trial << " strength " << strength);
      auto out = RunFitter(MakeCurves({&curve}), {.strength = strength});
      ASSERT_TRUE(out);
      ExpectWithinTolerance(curve, out.value()[0], strength);
    }
  }
}

TEST(BezierFitter, PassesOnInputErrorsWritingNothing) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const char* kNotFinite = "Illegal argument: a key's time or value is not a finite number.";
  const char* kNotAscending = "Illegal argument: key times are not in ascending order.";
  KeyArray ignoredNan = MakeCurve({{0, 1}, {1, nan}, {2, 3}});
  ignoredNan[1].flags = KEYFLAG_IGNORED;  // damaged whatever the flags say
  struct Case {
    KeyArray curve;
    const char* message;
    ErrorKind kind = ErrorKind::kIllegalArgument;
    int damage = 0;  // 1: only two inputs stored, 2: a strength of another type
  };
  const Case cases[] = {
      {std::move(ignoredNan), kNotFinite},
      {MakeCurve({{0, 1}, {inf, 2}, {2, 3}}), kNotFinite},
      {MakeCurve({{0, 1}, {2, 2}, {1, 3}, {3, 4}}), kNotAscending},
      {SampledCurve(10, Smooth), "No value stored under this id.", ErrorKind::kUnresolved, 1},
      {SampledCurve(10, Smooth), "Illegal argument: data value holds another type.",
       ErrorKind::kIllegalArgument, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    const KeyArray good = SampledCurve(10, Smooth);
    Ref<CommandData> data = MakeAnimationData();
    if (c.damage == 1) {  // the curves and the frame rate only
      ASSERT_TRUE(data->Set<KeyCurves>(kAnimationCurvesId, MakeCurves({&good, &c.curve})));
      ASSERT_TRUE(data->Set<std::int32_t>(kProjectFpsId, 30));
    } else {
      FillFitterData(*data, MakeCurves({&good, &c.curve}), {});
    }
    if (c.damage == 2) {
      ASSERT_TRUE(data->Set<double>(kKeyReducerStrengthId, 0.3));
    }
    const Shared<KeyCurves> before = data->GetShared<KeyCurves>(kAnimationCurvesId).value();
    auto out = ExecuteAndReadCurves(kBezierFitterCommandId, *data);
    ASSERT_FALSE(out);
    EXPECT_TRUE(out.error().Is(c.kind));
    EXPECT_EQ(out.error().GetMessage(), c.message);
    if (c.damage == 0) {
      EXPECT_EQ(out.error().GetUnit(), "bezierfitter");
    }
    EXPECT_EQ(data->GetShared<KeyCurves>(kAnimationCurvesId).value().Get(), before.Get());
  }
}

TEST(BezierFitter, SurvivesHostileButValidCurves) {
  std::mt19937 random(7);
  std::uniform_real_distribution<float> any(-1.0f, 1.0f);
  KeyCurves curves;
  auto add = [&curves](KeyArray curve) { ASSERT_TRUE(curves.Append(std::move(curve))); };
  // Values at the ends of the float range, alternating, make tangents no float holds: that curve
  // is turned down (KeyReducerInput), while values of half that size still fit.
  add(SampledCurve(200, [](double t) { return std::fmod(t * 30, 2) < 1 ? 1.7e38 : -1.7e38; }));
  // Times far apart (tangents grow with the square of the spacing, so 1e15 s and not more),
  // times that barely differ, and long white noise.
  {
    KeyArray wide, narrow, noise;
    for (int i = 0; i < 2000; ++i) {
      if (i < 100) {
        ASSERT_TRUE(wide.Append(MakeKey(static_cast<float>(i) * 1e15f, any(random))));
        ASSERT_TRUE(narrow.Append(MakeKey(1.0f + static_cast<float>(i) * 1.2e-7f, any(random))));
      }
      ASSERT_TRUE(noise.Append(MakeKey(static_cast<float>(i) / 30.0f, any(random))));
    }
    add(std::move(wide));
    add(std::move(narrow));
    add(std::move(noise));
  }
  // Equal times, and keys that coincide altogether.
  add(MakeCurve({{0, 1}, {0, 2}, {0, 3}, {1, 3}, {1, 3}, {1, 3}, {2, 0}, {2, 0}}));
  add(MakeCurve({{5, 2}, {5, 2}, {5, 2}, {5, 2}, {5, 2}}));
  for (float strength : {kStrength, std::numeric_limits<float>::infinity()}) {
    auto out = RunFitter(curves, {.strength = strength, .magnet = 3});
    ASSERT_TRUE(out) << out.error().GetMessage();
    ASSERT_EQ(out.value().GetCount(), curves.GetCount());
    for (Int c = 0; c < curves.GetCount(); ++c) {
      // Every reduced key sits on an input key (its value through the scale), in order.
      Int o = 0;
      ASSERT_FALSE(out.value()[c].IsEmpty());
      const float scale = FitScale(curves[c]);
      for (const Key& key : out.value()[c]) {
        while (o < curves[c].GetCount() &&
               !(curves[c][o].position.x == key.position.x &&
                 ThroughScale(curves[c][o], scale).position.y == key.position.y))
          ++o;
        ASSERT_LT(o, curves[c].GetCount()) << "curve " << c;
      }
    }
  }
}

}  // namespace
}  // namespace tarni
