// Test helpers: run the animation curve commands the way a host does (create by id, fill the
// command data by id, execute, read back by id), build curves, and check a reduced curve against
// the keys it came from.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <utility>

#include "tarni/animationcommands.h"

namespace tarni::curvetest {

struct FitterSettings {
  float strength = 0.3f;
  std::int32_t magnet = 0;
  bool useLockedKeys = false;
  bool useKeySelection = false;
  std::int32_t fps = 30;
};

inline Ref<CommandData> MakeAnimationData() {
  auto data = CreateCommandData(kAnimationCommandDataClassId);
  EXPECT_TRUE(data) << data.error().GetMessage();
  return data ? data.value() : Ref<CommandData>();
}

inline KeyCurves CopyCurves(const KeyCurves& curves) {
  KeyCurves copy;
  EXPECT_TRUE(copy.CopyFrom(curves));
  return copy;
}

// Puts the fitter's six inputs into `data`.
inline void FillFitterData(CommandData& data, const KeyCurves& curves,
                           const FitterSettings& settings) {
  ASSERT_TRUE(data.Set<KeyCurves>(kAnimationCurvesId, CopyCurves(curves)));
  ASSERT_TRUE(data.Set<std::int32_t>(kProjectFpsId, settings.fps));
  ASSERT_TRUE(data.Set<float>(kKeyReducerStrengthId, settings.strength));
  ASSERT_TRUE(data.Set<std::int32_t>(kKeyReducerMagnetId, settings.magnet));
  ASSERT_TRUE(data.Set<bool>(kKeyReducerUseLockedKeysId, settings.useLockedKeys));
  ASSERT_TRUE(data.Set<bool>(kKeyReducerUseKeySelectionId, settings.useKeySelection));
}

// Runs `commandId` on `data` and returns the curves it wrote back.
inline Result<KeyCurves> ExecuteAndReadCurves(const Id& commandId, CommandData& data) {
  Ref<Command> command = TARNI_TRY(CreateCommand(commandId));
  TARNI_TRY(command->Execute(data));
  Shared<KeyCurves> out = TARNI_TRY(data.GetShared<KeyCurves>(kAnimationCurvesId));
  return CopyCurves(out->value);
}

inline Result<KeyCurves> RunFitter(const KeyCurves& curves, const FitterSettings& settings = {}) {
  Ref<CommandData> data = MakeAnimationData();
  if (!data) return NullReferenceError();
  FillFitterData(*data, curves, settings);
  return ExecuteAndReadCurves(kBezierFitterCommandId, *data);
}

inline Key MakeKey(float time, float value, std::uint32_t flags = 0) {
  Key key;
  key.flags = flags;
  key.position = {time, value};
  return key;
}

inline KeyArray MakeCurve(std::initializer_list<std::pair<float, float>> points) {
  KeyArray curve;
  for (const auto& [time, value] : points) EXPECT_TRUE(curve.Append(MakeKey(time, value)));
  return curve;
}

// One key per frame of `frames` at 30 fps, values from `f(time)`.
template <typename F>
KeyArray SampledCurve(int frames, F f) {
  KeyArray curve;
  for (int i = 0; i < frames; ++i) {
    const float time = static_cast<float>(i) / 30.0f;
    EXPECT_TRUE(curve.Append(MakeKey(time, static_cast<float>(f(time)))));
  }
  return curve;
}

inline KeyCurves MakeCurves(std::initializer_list<const KeyArray*> curves) {
  KeyCurves all;
  for (const KeyArray* curve : curves) {
    KeyArray copy;
    EXPECT_TRUE(copy.CopyFrom(*curve));
    EXPECT_TRUE(all.Append(std::move(copy)));
  }
  return all;
}

inline bool SameBits(const Key& a, const Key& b) { return std::memcmp(&a, &b, sizeof(Key)) == 0; }

inline bool SameBits(const KeyArray& a, const KeyArray& b) {
  if (a.GetCount() != b.GetCount()) return false;
  for (Int i = 0; i < a.GetCount(); ++i) {
    if (!SameBits(a[i], b[i])) return false;
  }
  return true;
}

// The scale the fitter normalises a curve's values by: the largest |value|, in float.
inline float FitScale(const KeyArray& curve) {
  float scale = -3.4028235e38f;
  for (const Key& key : curve) scale = std::max(scale, std::fabs(key.position.y));
  return scale;
}

// `key` as every key of a fitted result comes back: its values divided by the curve's scale and
// multiplied by it again, in float.
inline Key ThroughScale(Key key, float scale) {
  for (float* value : {&key.position.y, &key.leftTangent.y, &key.rightTangent.y}) {
    *value /= scale;
    *value *= scale;
  }
  return key;
}

struct Point {
  double x;
  double y;
};

inline Point BezierPoint(const Point* p, double t) {
  const double s = 1.0 - t;
  const double b0 = s * s * s, b1 = 3 * s * s * t, b2 = 3 * s * t * t, b3 = t * t * t;
  return {b0 * p[0].x + b1 * p[1].x + b2 * p[2].x + b3 * p[3].x,
          b0 * p[0].y + b1 * p[1].y + b2 * p[2].y + b3 * p[3].y};
}

// The distance, in the (time, value ÷ scale) plane the fitter works in, from `key` to the
// segment of `reduced` whose time span holds it: dense sampling, then a golden-section search
// around the best sample.
inline double DistanceToReduced(const KeyArray& reduced, const Key& key, double scale) {
  const double t = key.position.x;
  // The last key at or before t, but never the last key of all: it starts no segment.
  const Key* after =
      std::upper_bound(reduced.begin(), reduced.end(), t,
                       [](double time, const Key& k) { return time < k.position.x; });
  const Int a = std::clamp<Int>(after - reduced.begin() - 1, 0, reduced.GetCount() - 2);
  const Key& k0 = reduced[a];
  const Key& k1 = reduced[a + 1];
  const Point p[4] = {{k0.position.x, k0.position.y / scale},
                      {k0.position.x + k0.rightTangent.x,
                       (k0.position.y + static_cast<double>(k0.rightTangent.y)) / scale},
                      {k1.position.x + k1.leftTangent.x,
                       (k1.position.y + static_cast<double>(k1.leftTangent.y)) / scale},
                      {k1.position.x, k1.position.y / scale}};
  const Point target{key.position.x, key.position.y / scale};
  auto distance = [&](double s) {
    const Point q = BezierPoint(p, s);
    return std::hypot(q.x - target.x, q.y - target.y);
  };
  constexpr int kSamples = 48;
  int best = 0;
  for (int i = 1; i <= kSamples; ++i) {
    if (distance(static_cast<double>(i) / kSamples) <
        distance(static_cast<double>(best) / kSamples))
      best = i;
  }
  double lo = std::max(0.0, (best - 1.0) / kSamples);
  double hi = std::min(1.0, (best + 1.0) / kSamples);
  for (int i = 0; i < 40; ++i) {
    const double m1 = lo + (hi - lo) * 0.382, m2 = lo + (hi - lo) * 0.618;
    if (distance(m1) < distance(m2))
      hi = m2;
    else
      lo = m1;
  }
  return std::min(distance(best / static_cast<double>(kSamples)), distance((lo + hi) / 2));
}

// Checks that every key of `original` lies within the fitter's tolerance of `reduced`, and that
// every reduced key sits on an original key (its value through the scale and back).
inline void ExpectWithinTolerance(const KeyArray& original, const KeyArray& reduced,
                                  float strength) {
  ASSERT_GE(reduced.GetCount(), 2);
  double scale = 0;
  for (const Key& key : original) scale = std::max(scale, std::fabs(double{key.position.y}));
  if (scale <= 1e-05) {  // flat: the first and the last key say all there is
    ASSERT_EQ(reduced.GetCount(), 2);
    EXPECT_TRUE(SameBits(reduced[0], original[0]));
    EXPECT_TRUE(SameBits(reduced[1], original.GetLast()));
    return;
  }
  const double tolerance = double{strength * strength * strength * 0.8f};
  Int o = 0;
  for (const Key& key : reduced) {
    while (o < original.GetCount() && original[o].position.x < key.position.x) ++o;
    ASSERT_LT(o, original.GetCount());
    EXPECT_EQ(original[o].position.x, key.position.x);
    EXPECT_EQ(ThroughScale(original[o], FitScale(original)).position.y, key.position.y);
  }
  double worst = 0;
  for (const Key& key : original) worst = std::max(worst, DistanceToReduced(reduced, key, scale));
  EXPECT_LE(worst, tolerance * (1 + 1e-4) + 1e-6)
      << "tolerance " << tolerance << ", " << reduced.GetCount() << " of " << original.GetCount();
}

}  // namespace tarni::curvetest
