// The key fitter's fast paths (keys in groups of lanes, buffers kept across curves, running
// distance sums handed from a fit to its left part) against the fit done one key at a time.
// Both must give the same bits: the reduction's output is compared byte for byte by its users.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "curvecommands.h"
#include "source/commands/bezierfitter.h"

namespace tarni {
namespace {

using namespace tarni::curvetest;

struct P {
  float x;
  float y;
};
P Sub(P a, P b) { return {a.x - b.x, a.y - b.y}; }
P Add(P a, P b) { return {a.x + b.x, a.y + b.y}; }
P Mul(P a, float s) { return {a.x * s, a.y * s}; }
float Dot(P a, P b) { return a.x * b.x + a.y * b.y; }
float Len(P a) { return std::sqrt(a.x * a.x + a.y * a.y); }
P Unit(P a) {
  const float l = Len(a);
  return l != 0.0f ? P{a.x / l, a.y / l} : a;
}
P Lerp(P a, P b, float s, float t) { return {s * a.x + t * b.x, s * a.y + t * b.y}; }
P Cubic(const P* b, float t) {
  const float s = 1.0f - t;
  const P l0 = Lerp(b[0], b[1], s, t), l1 = Lerp(b[1], b[2], s, t), l2 = Lerp(b[2], b[3], s, t);
  const P m0 = Lerp(l0, l1, s, t), m1 = Lerp(l1, l2, s, t);
  return Lerp(m0, m1, s, t);
}

// The fit of one curve of plain keys (one run, nothing locked, ignored or kept), one key at a
// time, recursing as the fit is described: the yardstick for the fast fitter.
class OneKeyAtATimeFitter {
 public:
  OneKeyAtATimeFitter(const KeyArray& curve, float strength) {
    for (const Key& key : curve) _scale = std::max(_scale, std::fabs(key.position.y));
    _tolerance = strength * strength * strength * 0.8f;
    // Every key's values are divided by the scale on the way in and multiplied on the way out.
    for (Key key : curve) {
      key.position.y /= _scale;
      key.leftTangent.y /= _scale;
      key.rightTangent.y /= _scale;
      _keys.push_back(key);
      _p.push_back({key.position.x, key.position.y});
      _w.push_back((key.flags & KEYFLAG_MAGNET) != 0 ? 1.5f : 1.0f);
    }
    const int n = static_cast<int>(_p.size());
    _out.push_back(_keys[0]);
    FitCubic(0, n - 1, Sub(_p[1], _p[0]), Sub(_p[n - 2], _p[n - 1]));
    _out.back().flags = _keys[n - 1].flags;
    _out.back().rightTangent = _keys[n - 1].rightTangent;
    for (Key& key : _out) {
      key.position.y *= _scale;
      key.leftTangent.y *= _scale;
      key.rightTangent.y *= _scale;
    }
  }
  const std::vector<Key>& Output() const { return _out; }

 private:
  static KeyVector Out(P v) { return {v.x, v.y}; }
  void Append(int last, P left) {
    Key key;
    key.position = _keys[last].position;
    key.leftTangent = Out(left);
    key.rightTangent = {-1.0f, -1.0f};
    _out.push_back(key);
  }

  void FitCubic(int first, int last, P tHat1, P tHat2) {
    if (last - first == 1) {
      const float d = Len(Sub(_p[last], _p[first])) / 3.0f;
      _out.back().rightTangent = Out(Mul(tHat1, d));
      Append(last, Mul(tHat2, d));
      return;
    }
    const int span = last - first;
    std::vector<float> u(span + 1, 0.0f);
    for (int i = 1; i <= span; ++i) u[i] = u[i - 1] + Len(Sub(_p[first + i], _p[first + i - 1]));
    for (int i = 1; i <= span; ++i) u[i] = u[i] / u[span];
    const P t1 = Unit(tHat1), t2 = Unit(tHat2);
    float limit = 4.0f * _tolerance;
    bool valid = true;
    int split = first + span / 2;
    for (int iteration = 0; iteration < 4; ++iteration) {
      P b[4];
      Generate(first, last, u, t1, t2, b);
      float worst = 0.0f;
      for (int i = 1; i < span; ++i) {
        float e = Len(Sub(Cubic(b, u[i]), _p[first + i])) * _w[first + i];
        if (std::isnan(e)) e = INFINITY;
        if (e >= worst) {
          worst = e;
          split = first + i;
        }
      }
      if (worst < _tolerance && valid) {
        _out.back().rightTangent = Out(Sub(b[1], b[0]));
        Append(last, Sub(b[2], b[3]));
        return;
      }
      if (worst >= limit) break;
      P q1[3], q2[2];
      for (int i = 0; i < 3; ++i) q1[i] = Mul(Sub(b[i + 1], b[i]), 3.0f);
      for (int i = 0; i < 2; ++i) q2[i] = Mul(Sub(q1[i + 1], q1[i]), 2.0f);
      for (int i = 0; i <= span; ++i) {
        const float t = u[i], s = 1.0f - t;
        const P delta = Sub(Cubic(b, t), _p[first + i]);
        const P d1 = Lerp(Lerp(q1[0], q1[1], s, t), Lerp(q1[1], q1[2], s, t), s, t);
        const P d2 = Lerp(q2[0], q2[1], s, t);
        const float numerator = Dot(delta, d1);
        const float denominator = Dot(d1, d1) + Dot(delta, d2);
        if (!(std::fabs(denominator) < 1e-05f)) u[i] = t - numerator / denominator;
      }
      valid = true;
      for (int i = 1; i <= span; ++i) valid = valid && u[i] > u[i - 1];
      limit = worst;
    }
    const P centre = Sub(_p[split - 1], _p[split + 1]);
    FitCubic(first, split, tHat1, centre);
    FitCubic(split, last, Mul(centre, -1.0f), tHat2);
  }

  void Generate(int first, int last, const std::vector<float>& u, P t1, P t2, P* b) const {
    const P p0 = _p[first], p3 = _p[last];
    float c00 = 0, c01 = 0, c11 = 0, x0 = 0, x1 = 0;
    for (int i = first; i <= last; ++i) {
      const float t = u[i - first], s = 1.0f - t;
      const float b0 = s * s * s, b1 = 3.0f * t * (s * s), b2 = 3.0f * t * t * s, b3 = t * t * t;
      const P a1 = Mul(t1, b1), a2 = Mul(t2, b2);
      c00 += Dot(a1, a1);
      c01 += Dot(a1, a2);
      c11 += Dot(a2, a2);
      const P r = Sub(_p[i], Add(Mul(p0, b0 + b1), Mul(p3, b2 + b3)));
      x0 += Dot(a1, r);
      x1 += Dot(a2, r);
    }
    float alphaL = 0, alphaR = 0;
    const float det = c00 * c11 - c01 * c01;
    if (std::fabs(det) > 1e-05f) {
      alphaL = (x0 * c11 - x1 * c01) / det;
      alphaR = (c00 * x1 - c01 * x0) / det;
    } else if (std::fabs(c00 + c01) > 1e-05f) {
      alphaL = alphaR = x0 / (c00 + c01);
    } else if (std::fabs(c01 + c11) > 1e-05f) {
      alphaL = alphaR = x1 / (c01 + c11);
    }
    const P chord = Sub(p3, p0);
    const float length = Len(chord);
    b[0] = p0;
    b[3] = p3;
    bool thirds = alphaL < 1e-05f * length || alphaR < 1e-05f * length;
    if (!thirds) {
      b[1] = Add(p0, Mul(t1, alphaL));
      b[2] = Add(p3, Mul(t2, alphaR));
      thirds = Dot(chord, Sub(b[1], b[0])) - Dot(chord, Sub(b[2], b[3])) > length * length;
    }
    if (thirds) {
      b[1] = Add(p0, Mul(t1, length / 3.0f));
      b[2] = Add(p3, Mul(t2, length / 3.0f));
    }
  }

  std::vector<Key> _keys;  // values divided by the scale
  std::vector<P> _p;
  std::vector<float> _w;
  float _scale = 0.0f;
  float _tolerance = 0.0f;
  std::vector<Key> _out;
};

// Curves of every length from 4 keys up, so that every fit ends at every place in a group of
// lanes, plus long ones whose fits split many times.
std::vector<KeyArray> TestCurves() {
  std::mt19937 random(7);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<KeyArray> curves;
  auto add = [&](int frames, auto value, std::uint32_t magnetEvery = 0) {
    KeyArray curve;
    for (int i = 0; i < frames; ++i) {
      const float t = static_cast<float>(i) / 30.0f;
      Key key = MakeKey(t, value(i, t));
      if (magnetEvery != 0 && i % magnetEvery == 2) key.flags = KEYFLAG_MAGNET;
      EXPECT_TRUE(curve.Append(key));
    }
    curves.push_back(std::move(curve));
  };
  float walk = 0.0f;
  auto walking = [&](int, float) { return walk += noise(random); };
  for (int frames = 4; frames <= 23; ++frames) add(frames, walking);
  add(400, walking);
  add(900, walking, 5);
  add(300, [&](int, float t) { return 40.0f * std::sin(3.0f * t) + noise(random); });
  add(250, [](int i, float) { return (i / 13) % 2 ? 30.0f : -10.0f; });
  // Held keys (the same time and value twice) tie in their errors: the later one splits.
  add(200, [](int i, float) { return 10.0f * std::sin(static_cast<float>(i / 2) * 0.3f); });
  for (int frames : {60, 7}) {
    KeyArray& last = curves.emplace_back();
    for (int i = 0; i < frames; ++i) {
      const float t = static_cast<float>(i / 2) / 30.0f;
      EXPECT_TRUE(last.Append(MakeKey(t, (i / 2) % 3 == 1 ? 5.0f : 0.0f)));
    }
  }
  // Times near the largest float: the distances overflow, and errors that are not numbers
  // count as the worst.
  KeyArray& huge = curves.emplace_back();
  for (int i = 0; i < 120; ++i) {
    const float value = std::sin(static_cast<float>(i) * 0.7f);
    EXPECT_TRUE(huge.Append(MakeKey(static_cast<float>(i) * 2e36f, value)));
  }
  return curves;
}

TEST(KeyFitter, MatchesTheFitOneKeyAtATimeBitForBit) {
#if defined(TARNI_TEST_NEEDS_AVX2)
  // This build's fitter takes eight keys at a time with AVX2 instructions.
  if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "the processor has no AVX2";
#endif
  const std::vector<KeyArray> curves = TestCurves();
  // One fitter for every curve, long after short and short after long: its buffers keep what
  // the last curve left in them, which must not show.
  ca::KeyFitter fitter;
  for (float strength : {0.02f, 0.1f, 0.3f, 0.7f}) {
    for (std::size_t c = 0; c < curves.size(); ++c) {
      SCOPED_TRACE(::testing::Message() << "curve " << c << " of " << curves[c].GetCount()
                                        << " keys, strength " << strength);
      const OneKeyAtATimeFitter reference(curves[c], strength);
      auto fitted = fitter.Fit(&curves[c], false, false, strength);
      if (!fitted) {
        // Only a fit whose tangents overflowed is turned down, after running to its end.
        EXPECT_EQ(fitted.error().GetMessage(),
                  "Illegal argument: the keys are too far apart or too steep for finite tangents.");
        EXPECT_TRUE(
            std::any_of(reference.Output().begin(), reference.Output().end(), [](const Key& key) {
              return !std::isfinite(key.leftTangent.x) || !std::isfinite(key.leftTangent.y) ||
                     !std::isfinite(key.rightTangent.x) || !std::isfinite(key.rightTangent.y);
            }));
        continue;
      }
      const KeyArray& keys = fitted.value();
      ASSERT_EQ(keys.GetCount(), static_cast<Int>(reference.Output().size()));
      for (Int i = 0; i < keys.GetCount(); ++i) {
        EXPECT_TRUE(SameBits(keys[i], reference.Output()[static_cast<std::size_t>(i)]))
            << "key " << i;
      }
    }
  }
  // The same curves through a new fitter each: the same keys.
  for (std::size_t c = 0; c < curves.size(); c += 5) {
    auto reused = fitter.Fit(&curves[c], false, false, 0.1f);
    auto fresh = ca::FitKeys(&curves[c], 60, false, false, 0.1f);
    ASSERT_EQ(static_cast<bool>(reused), static_cast<bool>(fresh)) << "curve " << c;
    if (reused) {
      EXPECT_TRUE(SameBits(reused.value(), fresh.value())) << "curve " << c;
    }
  }
}

}  // namespace
}  // namespace tarni
