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

// A fitted vector back in value units. Only values computed by the fit go through here: values the
// fit carries over are copied from the input keys, so that they come back bit for bit (dividing
// by the scale and multiplying again would move about one value in ten by an ulp).
KeyVector Denormalized(FitPoint v, float scale) noexcept { return {v.x, v.y * scale}; }

// De Casteljau evaluation of a Bezier of degree `Degree` at t. Inlined: it is the fit's inner
// loop, run for every key at every iteration.
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

// A cubic with the control points of its first and second derivative.
struct Cubic {
  FitPoint b[4];
  FitPoint q1[3];
  FitPoint q2[2];

  void Derive() noexcept {
    for (int i = 0; i < 3; ++i) q1[i] = (b[i + 1] - b[i]) * 3.0f;
    for (int i = 0; i < 2; ++i) q2[i] = (q1[i + 1] - q1[i]) * 2.0f;
  }
};

// One Newton-Raphson step towards the parameter of the curve point nearest to `p`; u stays when
// the step's denominator is too small to trust.
[[gnu::always_inline]] inline float NewtonStep(const Cubic& cubic, FitPoint p, float u) noexcept {
  const FitPoint delta = Bezier<3>(cubic.b, u) - p;
  const FitPoint d1 = Bezier<2>(cubic.q1, u);
  const FitPoint d2 = Bezier<1>(cubic.q2, u);
  const float numerator = Dot(delta, d1);
  const float denominator = Dot(d1, d1) + Dot(delta, d2);
  if (std::fabs(denominator) < 1e-05f) return u;
  return u - numerator / denominator;
}

// The least-squares cubic through points[first..last] with parameters u (u[0] belongs to first)
// and unit end tangents tHat1, tHat2; fills b[0..3].
void GenerateBezier(const FitPoint* points, Int first, Int last, const float* u, FitPoint tHat1,
                    FitPoint tHat2, FitPoint* b) noexcept {
  const FitPoint pFirst = points[first];
  const FitPoint pLast = points[last];
  float c00 = 0.0f;
  float c01 = 0.0f;
  float c11 = 0.0f;
  float x0 = 0.0f;
  float x1 = 0.0f;
  for (Int i = first; i <= last; ++i) {
    const float t = u[i - first];
    const float s = 1.0f - t;
    const float b0 = s * s * s;
    const float b1 = 3.0f * t * (s * s);
    const float b2 = 3.0f * t * t * s;
    const float b3 = t * t * t;
    const FitPoint a1 = tHat1 * b1;
    const FitPoint a2 = tHat2 * b2;
    c00 += Dot(a1, a1);
    c01 += Dot(a1, a2);
    c11 += Dot(a2, a2);
    const FitPoint r = points[i] - (pFirst * (b0 + b1) + pLast * (b2 + b3));
    x0 += Dot(a1, r);
    x1 += Dot(a2, r);
  }
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

// errors[i] = |Q(u[i]) - p[i]| × weights[i] for i in [begin, end). Four keys at a time where the
// processor has SSE2: the same operations in the same order per key, so every bit is that of
// the one-key loop, which finishes the rest.
void FitErrors(const FitPoint* b, const FitPoint* p, const float* u, const float* weights,
               Int begin, Int end, float* errors) noexcept {
  Int i = begin;
#if defined(__SSE2__)
  const __m128 one = _mm_set1_ps(1.0f);
  const __m128 bx[4] = {_mm_set1_ps(b[0].x), _mm_set1_ps(b[1].x), _mm_set1_ps(b[2].x),
                        _mm_set1_ps(b[3].x)};
  const __m128 by[4] = {_mm_set1_ps(b[0].y), _mm_set1_ps(b[1].y), _mm_set1_ps(b[2].y),
                        _mm_set1_ps(b[3].y)};
  auto lerp = [](__m128 s, __m128 a, __m128 t, __m128 c) {
    return _mm_add_ps(_mm_mul_ps(s, a), _mm_mul_ps(t, c));
  };
  for (; i + 4 <= end; i += 4) {
    const __m128 t = _mm_loadu_ps(u + i);
    const __m128 s = _mm_sub_ps(one, t);
    __m128 x0 = lerp(s, bx[0], t, bx[1]), x1 = lerp(s, bx[1], t, bx[2]),
           x2 = lerp(s, bx[2], t, bx[3]);
    __m128 y0 = lerp(s, by[0], t, by[1]), y1 = lerp(s, by[1], t, by[2]),
           y2 = lerp(s, by[2], t, by[3]);
    x0 = lerp(s, x0, t, x1);
    x1 = lerp(s, x1, t, x2);
    y0 = lerp(s, y0, t, y1);
    y1 = lerp(s, y1, t, y2);
    x0 = lerp(s, x0, t, x1);
    y0 = lerp(s, y0, t, y1);
    // Keys are (x, y) pairs: split four of them into their x and their y.
    const __m128 lo = _mm_loadu_ps(&p[i].x);
    const __m128 hi = _mm_loadu_ps(&p[i + 2].x);
    const __m128 px = _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(2, 0, 2, 0));
    const __m128 py = _mm_shuffle_ps(lo, hi, _MM_SHUFFLE(3, 1, 3, 1));
    const __m128 dx = _mm_sub_ps(x0, px);
    const __m128 dy = _mm_sub_ps(y0, py);
    const __m128 length = _mm_sqrt_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)));
    _mm_storeu_ps(errors + i, _mm_mul_ps(length, _mm_loadu_ps(weights + i)));
  }
#endif
  for (; i < end; ++i) errors[i] = Distance(Bezier<3>(b, u[i]), p[i]) * weights[i];
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
  _scale = scale;
  _tolerance = strength * strength * strength * 0.8f;
  _newKeyFlags = useKeySelection ? KEYFLAG_SELECTED : 0u;

  std::span<const Key> keys = curve->AsSpan();
  const bool anyIgnored = std::any_of(
      keys.begin(), keys.end(), [](const Key& key) { return (key.flags & KEYFLAG_IGNORED) != 0; });
  if (anyIgnored) {
    _filtered.Flush();
    TARNI_TRY(_filtered.EnsureCapacity(count));
    for (const Key& key : keys) {
      if ((key.flags & KEYFLAG_IGNORED) == 0) TARNI_TRY(_filtered.Append(key));
    }
    keys = _filtered.AsSpan();
  }

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
  TARNI_TRY(_points.Resize(n));
  TARNI_TRY(_lengths.Resize(n));
  TARNI_TRY(_weights.Resize(n));
  for (Int i = 0; i < n; ++i) {
    const Key& key = run[static_cast<std::size_t>(i)];
    _points[i] = {key.position.x, key.position.y / _scale};
    _lengths[i] = i == 0 ? 0.0f : Distance(_points[i], _points[i - 1]);
    // A magnet key's error weighs 1.5 times; multiplying the others by 1 changes no bit.
    _weights[i] = (key.flags & KEYFLAG_MAGNET) != 0 ? 1.5f : 1.0f;
  }
  if (!merge) TARNI_TRY(_output.Append(run[0]));
  const FitPoint tHat1 = _points[1] - _points[0];
  const FitPoint tHat2 = _points[n - 2] - _points[n - 1];
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
  const FitPoint* points = _points.GetFirst();
  _tasks.Flush();
  TARNI_TRY(_tasks.Append({first, last, tHat1, tHat2}));
  while (!_tasks.IsEmpty()) {
    const CubicTask task = _tasks.GetLast();
    _tasks.Pop();
    const FitPoint pFirst = points[task.first];
    const FitPoint pLast = points[task.last];
    Key created;
    created.flags = _newKeyFlags;
    created.position = run[static_cast<std::size_t>(task.last)].position;
    created.rightTangent = {-1.0f, -1.0f};

    if (task.last - task.first == 1) {
      // The tangents are deliberately used without normalising them.
      const float d = Distance(pLast, pFirst) / 3.0f;
      _output.GetLast().rightTangent = Denormalized(task.tHat1 * d, _scale);
      created.leftTangent = Denormalized(task.tHat2 * d, _scale);
      TARNI_TRY(_output.Append(created));
      continue;
    }

    // Chord-length parameters, from the run's key-to-key distances.
    const Int span = task.last - task.first;
    TARNI_TRY(_u.Resize(span + 1));
    TARNI_TRY(_errors.Resize(span + 1));
    float* u = _u.GetFirst();
    float* errors = _errors.GetFirst();
    const float* lengths = _lengths.GetFirst() + task.first;
    const float* weights = _weights.GetFirst() + task.first;
    const FitPoint* p = points + task.first;
    u[0] = 0.0f;
    for (Int i = 1; i <= span; ++i) u[i] = u[i - 1] + lengths[i];
    for (Int i = 1; i <= span; ++i) u[i] = u[i] / u[span];

    const FitPoint unit1 = Normalized(task.tHat1);
    const FitPoint unit2 = Normalized(task.tHat2);
    float iterationLimit = 4.0f * _tolerance;  // E4
    bool valid = true;
    bool accepted = false;
    Int split = task.first + span / 2;  // stands only if no distance is a number
    Cubic cubic;
    for (int iteration = 0; iteration < kMaxIterations; ++iteration) {
      GenerateBezier(points, task.first, task.last, u, unit1, unit2, cubic.b);
      // The errors first (a loop without dependencies between keys), then the worst of them.
      FitErrors(cubic.b, p, u, weights, 1, span, errors);
      float maxError = 0.0f;
      for (Int i = 1; i < span; ++i) {
        // An error that is not a number (the arithmetic overflowed on keys far apart) is no fit
        // at all: it must not pass for a perfect one.
        const float error = std::isnan(errors[i]) ? kInfinity : errors[i];
        if (error >= maxError) {  // a tie goes to the later key
          maxError = error;
          split = task.first + i;
        }
      }
      if (maxError < _tolerance && valid) {
        _output.GetLast().rightTangent = Denormalized(cubic.b[1] - cubic.b[0], _scale);
        created.leftTangent = Denormalized(cubic.b[2] - cubic.b[3], _scale);
        TARNI_TRY(_output.Append(created));
        accepted = true;
        break;
      }
      if (maxError >= iterationLimit) break;
      cubic.Derive();
      for (Int i = 0; i <= span; ++i) u[i] = NewtonStep(cubic, p[i], u[i]);
      valid = true;
      for (Int i = 1; i <= span; ++i) valid = valid && u[i] > u[i - 1];
      iterationLimit = maxError;  // a later iteration that does not lower the error stops
    }
    if (accepted) continue;

    const FitPoint centre = points[split - 1] - points[split + 1];
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
