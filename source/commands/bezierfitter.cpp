// The Bezier fitter command (the key reducer) and the key fitter it shares with the
// reduced-modification-curve command.
#include "commands/bezierfitter.h"

#include <algorithm>
#include <cmath>
#include <limits>

#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include "module/units.h"
#include "tarni/animationcommands.h"

namespace tarni::ca {
namespace {

constexpr float kLowest = -3.4028235e38f;
constexpr float kInfinity = std::numeric_limits<float>::infinity();
// Newton reparameterisations tried on one cubic before it is split.
constexpr int kMaxIterations = 4;

FitPoint operator-(FitPoint a, FitPoint b) noexcept { return {a.x - b.x, a.y - b.y}; }
FitPoint operator+(FitPoint a, FitPoint b) noexcept { return {a.x + b.x, a.y + b.y}; }
FitPoint operator*(FitPoint a, float s) noexcept { return {a.x * s, a.y * s}; }
FitPoint Negated(FitPoint a) noexcept { return {-a.x, -a.y}; }
float Dot(FitPoint a, FitPoint b) noexcept { return a.x * b.x + a.y * b.y; }
float Length(FitPoint a) noexcept { return std::sqrt(a.x * a.x + a.y * a.y); }
float Distance(FitPoint a, FitPoint b) noexcept { return Length(a - b); }
// A zero vector stays zero.
FitPoint Normalized(FitPoint a) noexcept {
  const float length = Length(a);
  if (length != 0.0f) {
    a.x /= length;
    a.y /= length;
  }
  return a;
}

KeyVector ToKeyVector(FitPoint v) noexcept { return {v.x, v.y}; }

// The value components of a key divided by the scale (for fitting) or multiplied by it (back in
// value units). Every key of the result makes this round trip, the ones taken over included, so
// that all of them are treated alike.
void DivideValues(Key& key, float scale) noexcept {
  key.position.y /= scale;
  key.leftTangent.y /= scale;
  key.rightTangent.y /= scale;
}
void MultiplyValues(Key& key, float scale) noexcept {
  key.position.y *= scale;
  key.leftTangent.y *= scale;
  key.rightTangent.y *= scale;
}

// De Casteljau evaluation of a Bezier of degree `Degree` at t.
template <int Degree>
[[gnu::always_inline]] inline FitPoint Bezier(const FitPoint* control, float t) noexcept {
  FitPoint v[Degree + 1];
  for (int i = 0; i <= Degree; ++i) v[i] = control[i];
  const float s = 1.0f - t;
  for (int i = 1; i <= Degree; ++i) {
    for (int j = 0; j <= Degree - i; ++j) {
      v[j].x = s * v[j].x + t * v[j + 1].x;
      v[j].y = s * v[j].y + t * v[j + 1].y;
    }
  }
  return v[0];
}

// The fit's per-key arithmetic is written once, for a group of keys side by side: eight keys
// (AVX2) or four (SSE2) where the processor has them, else one. Every lane goes through the
// operations of the scalar form in the same order, each rounded the same way, so every bit is that
// of one key at a time. A group may reach past the last key: the buffers carry kLanePadding spare
// entries, and what the spare lanes compute is masked out or never read.

// One key at a time: the lanes of processors without SSE2 (compiled everywhere all the same).
struct OneKey {
  using V = float;
  [[maybe_unused]] static constexpr Int kWidth = 1;
  static V Load(const float* p) noexcept { return *p; }
  static void Store(float* p, V v) noexcept { *p = v; }
  static V Splat(float f) noexcept { return f; }
  static V Sqrt(V a) noexcept { return std::sqrt(a); }
  // An error that is not a number (the arithmetic overflowed on keys far apart) is no fit at
  // all: it must not pass for a perfect one.
  static V NotANumberAsInfinity(V a) noexcept { return std::isnan(a) ? kInfinity : a; }
  static V Max(V a, V b) noexcept { return a > b ? a : b; }
  static float Largest(V a) noexcept { return a; }
  // `v` in the first `count` lanes, 0 in the others.
  static V ZeroBeyond(V v, Int /*count*/) noexcept { return v; }
  // `kept` where |d| < limit, else `stepped`.
  static V KeepWhereSmall(V d, V limit, V kept, V stepped) noexcept {
    return std::fabs(d) < limit ? kept : stepped;
  }
  // Whether a > b in each of the first `count` lanes (false for not-a-number).
  static bool Greater(V a, V b, Int /*count*/) noexcept { return a > b; }
};

#if defined(__SSE2__)
struct Lanes {
  __m128 v;
};
inline Lanes operator+(Lanes a, Lanes b) noexcept { return {_mm_add_ps(a.v, b.v)}; }
inline Lanes operator-(Lanes a, Lanes b) noexcept { return {_mm_sub_ps(a.v, b.v)}; }
inline Lanes operator*(Lanes a, Lanes b) noexcept { return {_mm_mul_ps(a.v, b.v)}; }
inline Lanes operator/(Lanes a, Lanes b) noexcept { return {_mm_div_ps(a.v, b.v)}; }

struct FourKeys {
  using V = Lanes;
  static constexpr Int kWidth = 4;
  static V Load(const float* p) noexcept { return {_mm_loadu_ps(p)}; }
  static void Store(float* p, V v) noexcept { _mm_storeu_ps(p, v.v); }
  static V Splat(float f) noexcept { return {_mm_set1_ps(f)}; }
  static V Sqrt(V a) noexcept { return {_mm_sqrt_ps(a.v)}; }
  static V NotANumberAsInfinity(V a) noexcept {
    const __m128 nan = _mm_cmpunord_ps(a.v, a.v);
    return {_mm_or_ps(_mm_andnot_ps(nan, a.v), _mm_and_ps(nan, _mm_set1_ps(kInfinity)))};
  }
  static V Max(V a, V b) noexcept { return {_mm_max_ps(a.v, b.v)}; }
  static float Largest(V a) noexcept {
    const __m128 pairs = _mm_max_ps(a.v, _mm_movehl_ps(a.v, a.v));
    return _mm_cvtss_f32(_mm_max_ss(pairs, _mm_shuffle_ps(pairs, pairs, 1)));
  }
  static __m128 FirstLanes(Int count) noexcept {
    return _mm_castsi128_ps(
        _mm_cmplt_epi32(_mm_setr_epi32(0, 1, 2, 3), _mm_set1_epi32(static_cast<int>(count))));
  }
  static V ZeroBeyond(V v, Int count) noexcept {
    return count >= 4 ? v : V{_mm_and_ps(FirstLanes(count), v.v)};
  }
  static V KeepWhereSmall(V d, V limit, V kept, V stepped) noexcept {
    const __m128 magnitude = _mm_andnot_ps(_mm_set1_ps(-0.0f), d.v);
    const __m128 small = _mm_cmplt_ps(magnitude, limit.v);
    return {_mm_or_ps(_mm_and_ps(small, kept.v), _mm_andnot_ps(small, stepped.v))};
  }
  static bool Greater(V a, V b, Int count) noexcept {
    const int wanted = count >= 4 ? 0xF : (1 << count) - 1;
    return (_mm_movemask_ps(_mm_cmpgt_ps(a.v, b.v)) & wanted) == wanted;
  }
};
#endif

#if defined(__AVX2__)
// Eight keys at a time where the processor has AVX2: the four-key lanes twice as wide.
struct WideLanes {
  __m256 v;
};
inline WideLanes operator+(WideLanes a, WideLanes b) noexcept { return {_mm256_add_ps(a.v, b.v)}; }
inline WideLanes operator-(WideLanes a, WideLanes b) noexcept { return {_mm256_sub_ps(a.v, b.v)}; }
inline WideLanes operator*(WideLanes a, WideLanes b) noexcept { return {_mm256_mul_ps(a.v, b.v)}; }
inline WideLanes operator/(WideLanes a, WideLanes b) noexcept { return {_mm256_div_ps(a.v, b.v)}; }

struct EightKeys {
  using V = WideLanes;
  static constexpr Int kWidth = 8;
  static V Load(const float* p) noexcept { return {_mm256_loadu_ps(p)}; }
  static void Store(float* p, V v) noexcept { _mm256_storeu_ps(p, v.v); }
  static V Splat(float f) noexcept { return {_mm256_set1_ps(f)}; }
  static V Sqrt(V a) noexcept { return {_mm256_sqrt_ps(a.v)}; }
  static V NotANumberAsInfinity(V a) noexcept {
    const __m256 nan = _mm256_cmp_ps(a.v, a.v, _CMP_UNORD_Q);
    return {_mm256_blendv_ps(a.v, _mm256_set1_ps(kInfinity), nan)};
  }
  static V Max(V a, V b) noexcept { return {_mm256_max_ps(a.v, b.v)}; }
  static float Largest(V a) noexcept {
    return FourKeys::Largest(
        {_mm_max_ps(_mm256_castps256_ps128(a.v), _mm256_extractf128_ps(a.v, 1))});
  }
  static V ZeroBeyond(V v, Int count) noexcept {
    if (count >= 8) return v;
    const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256i first = _mm256_cmpgt_epi32(_mm256_set1_epi32(static_cast<int>(count)), lanes);
    return {_mm256_and_ps(_mm256_castsi256_ps(first), v.v)};
  }
  static V KeepWhereSmall(V d, V limit, V kept, V stepped) noexcept {
    const __m256 magnitude = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), d.v);
    const __m256 small = _mm256_cmp_ps(magnitude, limit.v, _CMP_LT_OQ);
    return {_mm256_blendv_ps(stepped.v, kept.v, small)};
  }
  static bool Greater(V a, V b, Int count) noexcept {
    const int wanted = count >= 8 ? 0xFF : (1 << count) - 1;
    return (_mm256_movemask_ps(_mm256_cmp_ps(a.v, b.v, _CMP_GT_OQ)) & wanted) == wanted;
  }
};
#endif

// A fit of few keys goes four keys at a time (or one, without SSE2); one of many keys eight at a
// time where the processor has AVX2. Both widths give the same bits, but eight lanes on a short
// fit would mostly compute padding.
#if defined(__SSE2__)
using NarrowKeys = FourKeys;
#else
using NarrowKeys = OneKey;
#endif
#if defined(__AVX2__)
using WideKeys = EightKeys;
#else
using WideKeys = NarrowKeys;
#endif
constexpr Int kWideFrom = 16;  // keys in a fit from which it takes the wide lanes
constexpr Int kLanePadding = WideKeys::kWidth - 1;

// Runs body(i, count) for the groups of K::kWidth keys i..i+count−1 that cover [begin, end).
template <class K, class Body>
[[gnu::always_inline]] inline void ForEachKey(Int begin, Int end, Body&& body) noexcept {
  for (Int i = begin; i < end; i += K::kWidth) {
    body(i, std::min<Int>(end - i, K::kWidth));
  }
}

// s·a + t·c, the step of de Casteljau's evaluation.
template <class V>
[[gnu::always_inline]] inline V Lerp(V s, V a, V t, V c) noexcept {
  return s * a + t * c;
}

// One coordinate of a cubic's control points, in every lane.
template <class K>
struct CubicLanes {
  using V = typename K::V;
  V c[4];
  explicit CubicLanes(const float (&control)[4]) noexcept {
    for (int i = 0; i < 4; ++i) c[i] = K::Splat(control[i]);
  }
  // De Casteljau at t (s = 1 − t), the order of Bezier<3>.
  V At(V s, V t) const noexcept {
    V v0 = Lerp(s, c[0], t, c[1]);
    V v1 = Lerp(s, c[1], t, c[2]);
    const V v2 = Lerp(s, c[2], t, c[3]);
    v0 = Lerp(s, v0, t, v1);
    v1 = Lerp(s, v1, t, v2);
    return Lerp(s, v0, t, v1);
  }
};

// The least-squares cubic through the keys first..last (times x, values y) with parameters u
// (u[0] belongs to first) and unit end tangents tHat1, tHat2; fills b[0..3]. The sums are
// added key after key as they always were: float addition is not associative, and a sum in
// another order would move the handles by an ulp now and then.
template <class K>
void GenerateBezier(const float* x, const float* y, Int first, Int last, const float* u,
                    FitPoint tHat1, FitPoint tHat2, FitPoint* b) noexcept {
  using V = typename K::V;
  const FitPoint pFirst{x[first], y[first]};
  const FitPoint pLast{x[last], y[last]};
  float c00 = 0.0f;
  float c01 = 0.0f;
  float c11 = 0.0f;
  float x0 = 0.0f;
  float x1 = 0.0f;
  // The terms of a group of keys are computed side by side; only the sums are sequential.
  ForEachKey<K>(first, last + 1, [&](Int i, Int count) {
    const V one = K::Splat(1.0f);
    const V three = K::Splat(3.0f);
    const V t = K::Load(u + (i - first));
    const V s = one - t;
    const V b0 = s * s * s;
    const V b1 = three * t * (s * s);
    const V b2 = three * t * t * s;
    const V b3 = t * t * t;
    const V a1x = K::Splat(tHat1.x) * b1;
    const V a1y = K::Splat(tHat1.y) * b1;
    const V a2x = K::Splat(tHat2.x) * b2;
    const V a2y = K::Splat(tHat2.y) * b2;
    const V ends0 = b0 + b1;
    const V ends1 = b2 + b3;
    const V rx = K::Load(x + i) - (K::Splat(pFirst.x) * ends0 + K::Splat(pLast.x) * ends1);
    const V ry = K::Load(y + i) - (K::Splat(pFirst.y) * ends0 + K::Splat(pLast.y) * ends1);
    float terms[5][K::kWidth];
    K::Store(terms[0], a1x * a1x + a1y * a1y);
    K::Store(terms[1], a1x * a2x + a1y * a2y);
    K::Store(terms[2], a2x * a2x + a2y * a2y);
    K::Store(terms[3], a1x * rx + a1y * ry);
    K::Store(terms[4], a2x * rx + a2y * ry);
    for (Int lane = 0; lane < count; ++lane) {
      c00 += terms[0][lane];
      c01 += terms[1][lane];
      c11 += terms[2][lane];
      x0 += terms[3][lane];
      x1 += terms[4][lane];
    }
  });
  float alphaL = 0.0f;
  float alphaR = 0.0f;
  const float det = c00 * c11 - c01 * c01;
  if (std::fabs(det) > 1e-05f) {
    alphaL = (x0 * c11 - x1 * c01) / det;
    alphaR = (c00 * x1 - c01 * x0) / det;
  } else {
    float alpha = 0.0f;
    if (std::fabs(c00 + c01) > 1e-05f) {
      alpha = x0 / (c00 + c01);
    } else if (std::fabs(c01 + c11) > 1e-05f) {
      alpha = x1 / (c01 + c11);
    }
    alphaL = alpha;
    alphaR = alpha;
  }
  const FitPoint chord = pLast - pFirst;
  const float segmentLength = Length(chord);
  const float epsilon = 1e-05f * segmentLength;
  b[0] = pFirst;
  b[3] = pLast;
  bool thirds = alphaL < epsilon || alphaR < epsilon;
  if (!thirds) {
    b[1] = pFirst + tHat1 * alphaL;
    b[2] = pLast + tHat2 * alphaR;
    // Handles that overlap along the chord would give the segment a loop.
    thirds = Dot(chord, b[1] - b[0]) - Dot(chord, b[2] - b[3]) > segmentLength * segmentLength;
  }
  if (thirds) {
    const float third = segmentLength / 3.0f;
    b[1] = pFirst + tHat1 * third;
    b[2] = pLast + tHat2 * third;
  }
}

// The weighted error |Q(u[i]) − p[i]| × weights[i] of every key i in [begin, end), with not-a-
// number errors counted as infinite, into errors[i]; Q(u[i]) − p[i] goes to dx[i], dy[i] for the
// Newton step. Returns the largest error (0 when there is none, as no error is below 0).
template <class K>
float FitErrors(const FitPoint* b, const float* x, const float* y, const float* u,
                const float* weights, Int begin, Int end, float* errors, float* dx,
                float* dy) noexcept {
  using V = typename K::V;
  const CubicLanes<K> cx({b[0].x, b[1].x, b[2].x, b[3].x});
  const CubicLanes<K> cy({b[0].y, b[1].y, b[2].y, b[3].y});
  V largest = K::Splat(0.0f);
  ForEachKey<K>(begin, end, [&](Int i, Int count) {
    const V t = K::Load(u + i);
    const V s = K::Splat(1.0f) - t;
    const V ex = cx.At(s, t) - K::Load(x + i);
    const V ey = cy.At(s, t) - K::Load(y + i);
    K::Store(dx + i, ex);
    K::Store(dy + i, ey);
    const V error = K::NotANumberAsInfinity(K::Sqrt(ex * ex + ey * ey) * K::Load(weights + i));
    K::Store(errors + i, error);
    largest = K::Max(largest, K::ZeroBeyond(error, count));
  });
  return K::Largest(largest);
}

// The last i in [begin, end) with errors[i] == largest, a value that occurs there (a tie goes
// to the later key); begin − 1 when none does.
Int LastIndexOf(const float* errors, Int begin, Int end, float largest) noexcept {
  Int i = end;
#if defined(__SSE2__)
  const __m128 wanted = _mm_set1_ps(largest);
  for (; i - 4 >= begin; i -= 4) {
    const int mask = _mm_movemask_ps(_mm_cmpeq_ps(_mm_loadu_ps(errors + i - 4), wanted));
    if (mask != 0) return i - 4 + (31 - __builtin_clz(static_cast<unsigned>(mask)));
  }
#endif
  for (; i > begin; --i) {
    if (errors[i - 1] == largest) return i - 1;
  }
  return begin - 1;
}

// A cubic's first and second derivative, as control points.
struct Derivatives {
  FitPoint q1[3];
  FitPoint q2[2];

  explicit Derivatives(const FitPoint* b) noexcept {
    for (int i = 0; i < 3; ++i) q1[i] = (b[i + 1] - b[i]) * 3.0f;
    for (int i = 0; i < 2; ++i) q2[i] = (q1[i + 1] - q1[i]) * 2.0f;
  }
};

// One Newton-Raphson step for every key i in [begin, end) towards the parameter of the curve
// point nearest to the key, from the key's offset dx, dy = Q(u) − p at the present u: u becomes
// u − (Q − p)·Q′ ÷ (Q′·Q′ + (Q − p)·Q″), and stays when the denominator is too small to trust.
template <class K>
void NewtonSteps(const Derivatives& d, const float* dx, const float* dy, Int begin, Int end,
                 float* u) noexcept {
  using V = typename K::V;
  const V q1x[3] = {K::Splat(d.q1[0].x), K::Splat(d.q1[1].x), K::Splat(d.q1[2].x)};
  const V q1y[3] = {K::Splat(d.q1[0].y), K::Splat(d.q1[1].y), K::Splat(d.q1[2].y)};
  const V q2x[2] = {K::Splat(d.q2[0].x), K::Splat(d.q2[1].x)};
  const V q2y[2] = {K::Splat(d.q2[0].y), K::Splat(d.q2[1].y)};
  ForEachKey<K>(begin, end, [&](Int i, Int /*count*/) {
    const V t = K::Load(u + i);
    const V s = K::Splat(1.0f) - t;
    // Q′ by de Casteljau on the first derivative's points, Q″ on the second's.
    const V d1x = Lerp(s, Lerp(s, q1x[0], t, q1x[1]), t, Lerp(s, q1x[1], t, q1x[2]));
    const V d1y = Lerp(s, Lerp(s, q1y[0], t, q1y[1]), t, Lerp(s, q1y[1], t, q1y[2]));
    const V d2x = Lerp(s, q2x[0], t, q2x[1]);
    const V d2y = Lerp(s, q2y[0], t, q2y[1]);
    const V ex = K::Load(dx + i);
    const V ey = K::Load(dy + i);
    const V numerator = ex * d1x + ey * d1y;
    const V denominator = (d1x * d1x + d1y * d1y) + (ex * d2x + ey * d2y);
    K::Store(u + i,
             K::KeepWhereSmall(denominator, K::Splat(1e-05f), t, t - numerator / denominator));
  });
}

// Whether u[0..count) is strictly increasing (false where a parameter is not a number).
template <class K>
bool StrictlyIncreasing(const float* u, Int count) noexcept {
  bool increasing = true;
  ForEachKey<K>(1, count, [&](Int i, Int lanes) {
    increasing = increasing && K::Greater(K::Load(u + i), K::Load(u + i - 1), lanes);
  });
  return increasing;
}

bool IsFinite(const Key& key) noexcept {
  return std::isfinite(key.position.x) && std::isfinite(key.position.y);
}

bool HasFiniteTangents(const Key& key) noexcept {
  return std::isfinite(key.leftTangent.x) && std::isfinite(key.leftTangent.y) &&
         std::isfinite(key.rightTangent.x) && std::isfinite(key.rightTangent.y);
}

// What the fit needs of a curve: numbers it can do arithmetic with, and times in order (equal
// times are allowed: they only make a steep step). Tangents are only carried over, but one that
// is not a number would come out of the reduction as it went in, so it is turned down as well.
Result<void> CheckCurve(const KeyArray& curve) noexcept {
  for (Int i = 0; i < curve.GetCount(); ++i) {
    if (!IsFinite(curve[i]))
      return IllegalArgumentError(
          "Illegal argument: a key's time or value is not a finite number.");
    if (!HasFiniteTangents(curve[i]))
      return IllegalArgumentError("Illegal argument: a key's tangent is not a finite number.");
    if (i > 0 && curve[i].position.x < curve[i - 1].position.x)
      return IllegalArgumentError("Illegal argument: key times are not in ascending order.");
  }
  return OK;
}

}  // namespace

Result<KeyArray> KeyFitter::Fit(const KeyArray* curve, bool useLockedKeys, bool useKeySelection,
                                float strength) noexcept {
  KeyArray result;
  if (curve == nullptr) return result;
  const Int count = curve->GetCount();
  if (count < 3) {
    TARNI_TRY(result.CopyFrom(*curve));
    return result;
  }
  TARNI_TRY(CheckCurve(*curve));

  float scale = kLowest;
  for (const Key& key : *curve) {
    const float magnitude = std::fabs(key.position.y);
    if (magnitude > scale) scale = magnitude;
  }
  if (scale <= 1e-05f) {  // a flat curve: its ends say all there is
    TARNI_TRY(result.EnsureCapacity(2));
    TARNI_TRY(result.Append((*curve)[0]));
    TARNI_TRY(result.Append((*curve)[count - 1]));
    return result;
  }
  _tolerance = strength * strength * strength * 0.8f;
  _newKeyFlags = useKeySelection ? KEYFLAG_SELECTED : 0u;

  // The keys the fit works on: the curve without its ignored keys, values divided by the scale.
  _normalised.Flush();
  TARNI_TRY(_normalised.EnsureCapacity(count));
  for (const Key& key : *curve) {
    if ((key.flags & KEYFLAG_IGNORED) != 0) continue;
    Key copy = key;
    DivideValues(copy, scale);
    TARNI_TRY(_normalised.Append(copy));
  }
  const std::span<const Key> keys = _normalised.AsSpan();

  TARNI_TRY(SplitRuns(keys, useLockedKeys, useKeySelection));
  _output.Flush();
  for (Int r = 0; r < _runs.GetCount(); ++r) {
    const KeyRun& run = _runs[r];
    const std::span<const Key> runKeys = keys.subspan(
        static_cast<std::size_t>(run.begin), static_cast<std::size_t>(run.end - run.begin));
    // Around a locked run both runs hold the same key: it is written once, and the output's last
    // key takes the later run's outgoing tangent.
    const bool merge = r > 0 && useLockedKeys &&
                       (run.kind == RunKind::Locked || _runs[r - 1].kind == RunKind::Locked);
    if (run.kind == RunKind::Fit && runKeys.size() > 3) {
      TARNI_TRY(FitRun(runKeys, merge));
    } else {
      TARNI_TRY(TakeOver(runKeys, merge));
    }
  }
  for (Key& key : _output) MultiplyValues(key, scale);
  // Values near the float limit, or keys so far apart in time that the unnormalised handles
  // (which grow with the square of the spacing) leave the float range, make a fitted tangent
  // overflow. No curve with such a tangent can be stored or evaluated, so the curve is turned
  // down rather than handed back broken.
  for (const Key& key : _output) {
    if (!HasFiniteTangents(key))
      return IllegalArgumentError(
          "Illegal argument: the keys are too far apart or too steep for finite tangents.");
  }
  TARNI_TRY(result.CopyFrom(_output));
  return result;
}

Result<void> KeyFitter::SplitRuns(std::span<const Key> keys, bool useLockedKeys,
                                  bool useKeySelection) noexcept {
  _runs.Flush();
  KeyRun current{RunKind::None, 0, 0};
  const Int count = static_cast<Int>(keys.size());
  for (Int j = 0; j < count; ++j) {
    const std::uint32_t flags = keys[static_cast<std::size_t>(j)].flags;
    const bool kept = useKeySelection && (flags & KEYFLAG_SELECTED) == 0;
    const bool locked = !kept && useLockedKeys && (flags & KEYFLAG_LOCKED_MASK) != 0;
    const RunKind kind = kept ? RunKind::Kept : locked ? RunKind::Locked : RunKind::Fit;
    if (current.kind == RunKind::None || current.kind == kind) {
      if (current.kind == RunKind::None) current = {kind, j, j};
      current.end = j + 1;
      continue;
    }
    if (kind == RunKind::Locked) {
      // The locked key ends the old run and begins the new one.
      current.end = j + 1;
      TARNI_TRY(_runs.Append(current));
      current = {kind, j, j + 1};
    } else if (current.kind == RunKind::Locked) {
      // The new run starts from the locked run's last key.
      TARNI_TRY(_runs.Append(current));
      current = {kind, j - 1, j + 1};
    } else {
      TARNI_TRY(_runs.Append(current));
      current = {kind, j, j + 1};
    }
  }
  if (current.kind != RunKind::None) TARNI_TRY(_runs.Append(current));
  return OK;
}

Result<void> KeyFitter::TakeOver(std::span<const Key> run, bool merge) noexcept {
  if (run.empty()) return OK;
  if (merge) {
    _output.GetLast().rightTangent = run[0].rightTangent;
    run = run.subspan(1);
  }
  return _output.AppendAll(run);
}

Result<void> KeyFitter::FitRun(std::span<const Key> run, bool merge) noexcept {
  const Int n = static_cast<Int>(run.size());
  // Sized once per run: every fit of the run covers at most its n keys, and a group of lanes
  // may reach kLanePadding entries past the last.
  for (BaseArray<float>* buffer :
       {&_x, &_y, &_lengths, &_weights, &_chord, &_u, &_errors, &_dx, &_dy}) {
    TARNI_TRY(buffer->Resize(n + kLanePadding));
  }
  float* x = _x.GetFirst();
  float* y = _y.GetFirst();
  for (Int i = 0; i < n; ++i) {
    const Key& key = run[static_cast<std::size_t>(i)];
    x[i] = key.position.x;
    y[i] = key.position.y;
    _lengths[i] = i == 0 ? 0.0f : Distance({x[i], y[i]}, {x[i - 1], y[i - 1]});
    // A magnet key's error weighs 1.5 times; multiplying the others by 1 changes no bit.
    _weights[i] = (key.flags & KEYFLAG_MAGNET) != 0 ? 1.5f : 1.0f;
  }
  _chordFirst = -1;
  _chordLast = -1;
  if (!merge) TARNI_TRY(_output.Append(run[0]));
  const FitPoint tHat1 = FitPoint{x[1], y[1]} - FitPoint{x[0], y[0]};
  const FitPoint tHat2 = FitPoint{x[n - 2], y[n - 2]} - FitPoint{x[n - 1], y[n - 1]};
  TARNI_TRY(FitCubic(run, 0, n - 1, tHat1, tHat2));
  Key& last = _output.GetLast();
  last.flags = run.back().flags;
  last.rightTangent = run.back().rightTangent;
  return OK;
}

// The recursive least-squares fit, with an explicit stack of pending fits so that no curve can
// exhaust the call stack: a fit that is not accepted splits at its worst key into two smaller
// fits, the left one done first, so output keys come in time order.
Result<void> KeyFitter::FitCubic(std::span<const Key> run, Int first, Int last, FitPoint tHat1,
                                 FitPoint tHat2) noexcept {
  const float* x = _x.GetFirst();
  const float* y = _y.GetFirst();
  _tasks.Flush();
  TARNI_TRY(_tasks.Append({first, last, tHat1, tHat2}));
  while (!_tasks.IsEmpty()) {
    const CubicTask task = _tasks.GetLast();
    _tasks.Pop();
    Key created;
    created.flags = _newKeyFlags;
    created.position = run[static_cast<std::size_t>(task.last)].position;
    created.rightTangent = {-1.0f, -1.0f};

    if (task.last - task.first == 1) {
      // The tangents are deliberately used without normalising them.
      const float d = Distance({x[task.last], y[task.last]}, {x[task.first], y[task.first]}) / 3.0f;
      _output.GetLast().rightTangent = ToKeyVector(task.tHat1 * d);
      created.leftTangent = ToKeyVector(task.tHat2 * d);
      TARNI_TRY(_output.Append(created));
      continue;
    }

    // Chord-length parameters: the running sum of key-to-key distances from the first key,
    // over the total. The sums are added in the same order whichever fit asks, so a left part
    // takes them over from the fit it was split from.
    const Int span = task.last - task.first;
    float* chord = _chord.GetFirst();
    if (task.first != _chordFirst || task.last > _chordLast) {
      chord[task.first] = 0.0f;
      for (Int i = task.first + 1; i <= task.last; ++i) chord[i] = chord[i - 1] + _lengths[i];
      _chordFirst = task.first;
      _chordLast = task.last;
    }
    float* u = _u.GetFirst();
    const float* px = x + task.first;
    const float* py = y + task.first;
    const float* weights = _weights.GetFirst() + task.first;
    float* errors = _errors.GetFirst();
    float* dx = _dx.GetFirst();
    float* dy = _dy.GetFirst();
    const FitPoint unit1 = Normalized(task.tHat1);
    const FitPoint unit2 = Normalized(task.tHat2);
    Int split = task.first + span / 2;  // stands only if no distance is a number
    FitPoint b[4];
    // Up to kMaxIterations cubics, each from the parameters the one before left; true when one
    // is accepted (into b), else `split` holds the key to split at.
    const auto tryCubic = [&]<class K>(K) {
      u[0] = 0.0f;
      const float total = chord[task.last];
      ForEachKey<K>(1, span + 1, [&](Int i, Int /*count*/) {
        K::Store(u + i, K::Load(chord + task.first + i) / K::Splat(total));
      });
      float iterationLimit = 4.0f * _tolerance;  // E4
      bool valid = true;
      for (int iteration = 0; iteration < kMaxIterations; ++iteration) {
        GenerateBezier<K>(x, y, task.first, task.last, u, unit1, unit2, b);
        // The worst interior key; a tie goes to the later key.
        const float maxError = FitErrors<K>(b, px, py, u, weights, 1, span, errors, dx, dy);
        const Int worst = LastIndexOf(errors, 1, span, maxError);
        if (worst >= 1) split = task.first + worst;
        if (maxError < _tolerance && valid) return true;
        if (maxError >= iterationLimit) return false;
        // The last iteration's parameters would never be used.
        if (iteration + 1 == kMaxIterations) return false;
        // The error scan left Q(u) − p for the interior keys; the end keys are done here.
        for (const Int end : {Int{0}, span}) {
          const FitPoint offset = Bezier<3>(b, u[end]) - FitPoint{px[end], py[end]};
          dx[end] = offset.x;
          dy[end] = offset.y;
        }
        NewtonSteps<K>(Derivatives(b), dx, dy, 0, span + 1, u);
        valid = StrictlyIncreasing<K>(u, span + 1);
        iterationLimit = maxError;  // a later iteration that does not lower the error stops
      }
      return false;
    };
    if (span + 1 >= kWideFrom ? tryCubic(WideKeys{}) : tryCubic(NarrowKeys{})) {
      _output.GetLast().rightTangent = ToKeyVector(b[1] - b[0]);
      created.leftTangent = ToKeyVector(b[2] - b[3]);
      TARNI_TRY(_output.Append(created));
      continue;
    }

    const FitPoint centre =
        FitPoint{x[split - 1], y[split - 1]} - FitPoint{x[split + 1], y[split + 1]};
    TARNI_TRY(_tasks.Append({split, task.last, Negated(centre), task.tHat2}));
    TARNI_TRY(_tasks.Append({task.first, split, task.tHat1, centre}));
  }
  return OK;
}

Result<KeyArray> FitKeys(const KeyArray* curve, std::int32_t /*projectFps*/, bool useLockedKeys,
                         bool useKeySelection, float strength) noexcept {
  KeyFitter fitter;
  return fitter.Fit(curve, useLockedKeys, useKeySelection, strength);
}

Result<BaseArray<float>> CollectMagnetTimes(const KeyCurves& curves, float threshold) noexcept {
  BaseArray<float> result;
  Int total = 0;
  for (const KeyArray& curve : curves) total += curve.GetCount();
  if (total < 2) return result;
  BaseArray<float> times;
  TARNI_TRY(times.EnsureCapacity(total));
  for (const KeyArray& curve : curves) {
    for (const Key& key : curve) TARNI_TRY(times.Append(key.position.x));
  }
  // Not-a-number times sort last, so the order stays strict and weak whatever the curves hold.
  std::sort(times.begin(), times.end(),
            [](float a, float b) { return a < b || (std::isnan(b) && !std::isnan(a)); });

  // A group as a window of the sorted times, with the smallest time counted twice in the first
  // group; this is deliberate and decides which time the first group emits.
  struct Group {
    Int begin;
    Int end;
    bool doubledFirst;
    Int Count() const noexcept { return end - begin + (doubledFirst ? 1 : 0); }
  };
  auto timeAt = [&times](const Group& group, Int index) noexcept {
    if (group.doubledFirst) index = index == 0 ? 0 : index - 1;
    return times[group.begin + index];
  };
  auto emit = [&](const Group& group) noexcept -> Result<void> {
    const Int count = group.Count();
    const float firstTime = timeAt(group, 0);
    const float lastTime = timeAt(group, count - 1);
    if (firstTime == lastTime || count < 3) return result.Append(firstTime);
    if (lastTime - firstTime > threshold) return OK;
    return result.Append(timeAt(group, static_cast<Int>(std::floor(count / 2.0))));
  };

  Group group{0, 0, true};  // opened holding the smallest time; the walk below adds it again
  for (Int i = 0; i < times.GetCount(); ++i) {
    if (times[i] - times[group.begin] <= threshold) {
      group.end = i + 1;
    } else {
      TARNI_TRY(emit(group));
      group = {i, i + 1, false};
    }
  }
  TARNI_TRY(emit(group));
  return result;
}

Int MarkMagnetKeys(KeyArray& curve, std::span<const float> times) noexcept {
  Int marked = 0;
  // Signed 32-bit bounds as the search has always used; curves never come near 2^31 keys.
  const std::int32_t count = static_cast<std::int32_t>(
      std::min<Int>(curve.GetCount(), std::numeric_limits<std::int32_t>::max()));
  for (const float t : times) {
    std::int32_t lo = 0;
    std::int32_t hi = count - 1;
    while (lo <= hi) {
      const std::int32_t mid = lo + (hi - lo) / 2;
      Key& key = curve[mid];
      if (key.position.x > t) {
        hi = mid - 1;
      } else if (key.position.x < t) {
        lo = mid + 1;
      } else {
        if (key.position.x == t && (key.flags & KEYFLAG_MAGNET) == 0) {
          key.flags |= KEYFLAG_MAGNET;
          ++marked;
        }
        break;  // found, or a time that compares with nothing
      }
    }
  }
  return marked;
}

namespace {

class BezierFitterCommand final : public Command {
  TARNI_IMPLEMENTS(BezierFitterCommand, Command)
 public:
  Result<void> Execute(CommandData& data) noexcept override {
    const Shared<KeyCurves> curves = TARNI_TRY(data.GetShared<KeyCurves>(kAnimationCurvesId));
    const std::int32_t fps = TARNI_TRY(data.Get<std::int32_t>(kProjectFpsId));
    const float strength = TARNI_TRY(data.Get<float>(kKeyReducerStrengthId));
    const std::int32_t magnet = TARNI_TRY(data.Get<std::int32_t>(kKeyReducerMagnetId));
    const bool useLockedKeys = TARNI_TRY(data.Get<bool>(kKeyReducerUseLockedKeysId));
    const bool useKeySelection = TARNI_TRY(data.Get<bool>(kKeyReducerUseKeySelectionId));
    // A strength that is not a number compares false with everything: no fit would ever be
    // accepted, and every curve would come back split at every key.
    if (std::isnan(strength))
      return IllegalArgumentError("Illegal argument: the strength is not a number.");
    if (strength <= 1e-06f) return data.SetShared(kAnimationCurvesId, curves);
    // The magnet width is turned into seconds by the frame rate; without a positive rate there
    // are no seconds to share.
    if (magnet >= 1 && curves->value.GetCount() >= 2 && fps <= 0)
      return IllegalArgumentError(
          "Illegal argument: the magnet needs a project frame rate above 0.");

    const KeyCurves& input = curves->value;
    KeyCurves result;
    TARNI_TRY(result.EnsureCapacity(input.GetCount()));
    KeyFitter fitter;
    for (const KeyArray& curve : input) {
      KeyArray fitted = TARNI_TRY(fitter.Fit(&curve, useLockedKeys, useKeySelection, strength));
      TARNI_TRY(result.Append(std::move(fitted)));
    }

    if (magnet >= 1 && input.GetCount() >= 2) {
      const float threshold = static_cast<float>(magnet) / static_cast<float>(fps);
      const BaseArray<float> times = TARNI_TRY(CollectMagnetTimes(result, threshold));
      // The input curves are marked in a copy: the caller's curves stay as they were. A curve
      // that gains no mark would fit exactly as before, so only marked curves are fitted again.
      KeyArray marked;
      for (Int i = 0; i < input.GetCount(); ++i) {
        TARNI_TRY(marked.CopyFrom(input[i]));
        if (MarkMagnetKeys(marked, times.AsSpan()) == 0) continue;
        result[i] = TARNI_TRY(fitter.Fit(&marked, useLockedKeys, useKeySelection, strength));
      }
    }
    return data.Set<KeyCurves>(kAnimationCurvesId, std::move(result));
  }
};

constexpr Id kInterfaces[] = {Command::kInterfaceId};

}  // namespace

const ClassRecord kBezierFitterClass{kBezierFitterCommandId,
                                     "BezierFitterCommand",
                                     "bezierfitter",
                                     &CreateInstance<BezierFitterCommand>,
                                     nullptr,
                                     {},
                                     kInterfaces,
                                     {}};

}  // namespace tarni::ca
