// The reduced-modification-curve command and the animation command data it runs on.
#include <gtest/gtest.h>

#include <limits>

#include "curvecommands.h"
#include "tarni/memory.h"

namespace tarni {
namespace {

using namespace tarni::curvetest;

constexpr float kFloatMax = std::numeric_limits<float>::max();

struct Outcome {
  Result<KeyCurves> curves;
  Result<Shared<MinMaxArray>> ranges;
};

Outcome RunModification(const KeyCurves& curves, std::int64_t type) {
  Ref<CommandData> data = MakeAnimationData();
  EXPECT_TRUE(data->Set<KeyCurves>(kAnimationCurvesId, CopyCurves(curves)));
  EXPECT_TRUE(data->Set<std::int64_t>(kModificationCurveTypeId, type));
  Result<KeyCurves> out = ExecuteAndReadCurves(kReducedModificationCurveCommandId, *data);
  return {std::move(out), data->GetShared<MinMaxArray>(kMinMaxArrId)};
}

// Two fresh keys (flags 0, handles -1) at (t0, v0) and (t1, v1).
void ExpectTwoKeys(const KeyArray& curve, float t0, float v0, float t1, float v1) {
  ASSERT_EQ(curve.GetCount(), 2);
  Key expected[2] = {MakeKey(t0, v0), MakeKey(t1, v1)};
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(SameBits(curve[i], expected[i])) << i;
}

TEST(ReducedModificationCurve, BuildsEachCurveType) {
  KeyArray curve = MakeCurve({{0, 3}, {10, -1}, {20, 5}});
  curve[0].flags = 0x402u;
  curve[1].rightTangent = {2.0f, 2.0f};
  KeyArray one = MakeCurve({{4, 7}});
  KeyArray empty;
  const KeyCurves curves = MakeCurves({&curve, &one, &empty});
  // Flat maximum: two keys at the maximum (deliberately not the minimum), and the range; an
  // empty curve stays empty with the untouched extremes as its range.
  {
    Outcome out = RunModification(curves, 2);
    ASSERT_TRUE(out.curves && out.ranges) << out.curves.error().GetMessage();
    ExpectTwoKeys(out.curves.value()[0], 0, 5, 20, 5);
    ExpectTwoKeys(out.curves.value()[1], 4, 7, 4, 7);
    EXPECT_TRUE(out.curves.value()[2].IsEmpty());
    const MinMaxArray& ranges = out.ranges.value()->value;
    ASSERT_EQ(ranges.GetCount(), 3);
    const float expected[3][2] = {{-1.0f, 5.0f}, {7.0f, 7.0f}, {kFloatMax, -kFloatMax}};
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(ranges[i].minimum, expected[i][0]) << i;
      EXPECT_EQ(ranges[i].maximum, expected[i][1]) << i;
    }
  }
  // Linear: the first and the last key's positions; a one-key curve gives two equal positions;
  // the ranges are written, empty.
  {
    Outcome out = RunModification(curves, 1);
    ASSERT_TRUE(out.curves && out.ranges);
    ExpectTwoKeys(out.curves.value()[0], 0, 3, 20, 5);
    ExpectTwoKeys(out.curves.value()[1], 4, 7, 4, 7);
    EXPECT_TRUE(out.curves.value()[2].IsEmpty());
    EXPECT_TRUE(out.ranges.value()->value.IsEmpty());
  }
  // Fitted: curves of up to two keys unchanged; longer ones exactly as the fitter reduces them at
  // strength 1 without locked keys or key selection.
  {
    KeyArray two = MakeCurve({{0, 1}, {1, 2}});
    two[0].flags = 0x10000u;
    const KeyArray longer =
        SampledCurve(120, [](double t) { return 20 * std::sin(3 * t) + t * t; });
    Outcome out = RunModification(MakeCurves({&two, &longer, &empty}), 0);
    auto fitted = RunFitter(MakeCurves({&longer}), {.strength = 1.0f});
    ASSERT_TRUE(out.curves && out.ranges && fitted);
    EXPECT_TRUE(SameBits(out.curves.value()[0], two));
    EXPECT_TRUE(SameBits(out.curves.value()[1], fitted.value()[0]));
    EXPECT_LT(out.curves.value()[1].GetCount(), longer.GetCount());
    EXPECT_TRUE(out.curves.value()[2].IsEmpty());
    EXPECT_TRUE(out.ranges.value()->value.IsEmpty());
  }
}

TEST(ReducedModificationCurve, OtherTypesEmptyInputAndErrors) {
  const KeyArray curve = MakeCurve({{0, 3}, {10, -1}, {20, 5}});
  const KeyArray bad = MakeCurve({{0, 3}, {10, -1}, {5, 5}});
  struct Case {
    const char* what;
    bool setType;
    std::int64_t type;
    const KeyArray* second;
    const char* error;  // null: succeeds with the host's very curves value and no ranges
    ErrorKind kind = ErrorKind::kIllegalArgument;
  };
  const Case cases[] = {
      {"type -1", true, -1, nullptr, nullptr},
      {"the largest type", true, std::numeric_limits<std::int64_t>::max(), nullptr, nullptr},
      {"no type: the dictionary's error", false, 0, nullptr, "No value stored under this id.",
       ErrorKind::kUnresolved},
      {"the fitter's error ends the command", true, 0, &bad,
       "Illegal argument: key times are not in ascending order."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Ref<CommandData> data = MakeAnimationData();
    ASSERT_TRUE(data->Set<KeyCurves>(
        kAnimationCurvesId, c.second ? MakeCurves({&curve, c.second}) : MakeCurves({&curve})));
    if (c.setType) {
      ASSERT_TRUE(data->Set<std::int64_t>(kModificationCurveTypeId, c.type));
    }
    const Shared<KeyCurves> before = data->GetShared<KeyCurves>(kAnimationCurvesId).value();
    auto out = ExecuteAndReadCurves(kReducedModificationCurveCommandId, *data);
    EXPECT_EQ(data->GetShared<KeyCurves>(kAnimationCurvesId).value().Get(), before.Get());
    if (c.error) {
      ASSERT_FALSE(out);
      EXPECT_TRUE(out.error().Is(c.kind));
      EXPECT_EQ(out.error().GetMessage(), c.error);
      EXPECT_FALSE(data->HasValue(kMinMaxArrId));
      continue;
    }
    ASSERT_TRUE(out);
    EXPECT_TRUE(SameBits(out.value()[0], curve));
    auto ranges = data->GetShared<MinMaxArray>(kMinMaxArrId);
    ASSERT_TRUE(ranges);
    EXPECT_TRUE(ranges.value()->value.IsEmpty());
  }
}

TEST(AnimationData, DictionaryAndObserverCopiedByDictionaryOnly) {
  Ref<CommandData> data = MakeAnimationData();
  // Both components answer through the object.
  Ref<CommandObserver> observer = Cast<CommandObserver>(data);
  ASSERT_TRUE(observer);
  observer->RequestCancel();

  const KeyArray curve = MakeCurve({{0, 1}, {1, 2}, {2, 3}});
  ASSERT_TRUE(data->Set<KeyCurves>(kAnimationCurvesId, MakeCurves({&curve})));
  ASSERT_TRUE(data->Set<std::int32_t>(kProjectFpsId, 24));

  // A copy assigns the dictionary: the same shared values, not the observer's state.
  auto clone = data->Clone();
  ASSERT_TRUE(clone);
  Ref<CommandData> copy = Cast<CommandData>(clone.value());
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->Get<std::int32_t>(kProjectFpsId).value(), 24);
  Shared<KeyCurves> shared = copy->GetShared<KeyCurves>(kAnimationCurvesId).value();
  EXPECT_EQ(shared.Get(), data->GetShared<KeyCurves>(kAnimationCurvesId).value().Get());
  EXPECT_FALSE(Cast<CommandObserver>(clone.value())->IsCancelRequested());

  // When memory runs out while unsharing nested arrays, nothing is half copied or leaked and the
  // reference keeps the shared value.
  Shared<KeyCurves> again = data->GetShared<KeyCurves>(kAnimationCurvesId).value();
  const KeyCurves* original = &again->value;
  int refused = 0;
  for (std::int64_t n = 1; n < 100; ++n) {
    fault::FailNthAllocation(n);
    auto writable = again.MakeWritable();
    fault::Disarm();
    if (writable) break;
    ++refused;
    EXPECT_TRUE(writable.error().Is(ErrorKind::kNullReference));
    EXPECT_EQ(&again->value, original);
  }
  EXPECT_GE(refused, 3);  // the box, the outer array, the curve
  EXPECT_NE(&again->value, original);
  EXPECT_TRUE(SameBits(again->value[0], curve));
}

}  // namespace
}  // namespace tarni
