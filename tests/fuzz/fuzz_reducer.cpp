// The key reducer commands as a host runs them (command data and command created by class id,
// inputs put in by id, executed, results read back) on curves decoded from arbitrary bytes.
//
// The bytes choose the command (Bezier fitter or reduced modification curve), the curve type
// (the three known ones or any int64), the strength, magnet width, frame rate and switches (from
// tables of telling values or as raw bits), and then curves until the bytes run out: a key count
// and, per key, how its time advances (a step, a repeat, a step back, raw bits), its value
// (small, huge, denormal, raw bits), flags and tangents. Short inputs can also ask for many copies
// of a curve, so thousands of curves cost only a few bytes.
//
// Properties checked on every input:
// - the command ends (libFuzzer's time-out catches a hang), without a sanitizer report or leak;
// - it fails only with the illegal-argument error, and then writes nothing back;
// - on success there is one output curve per input curve, and when every input number was finite
//   and of a sane size, and times ascended, every output number is finite (the host writes them
//   to a file that must read back).
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "fuzzsupport.h"
#include "tarni/animationcommands.h"

namespace {

using tarni::Int;
using tarni::Key;
using tarni::KeyArray;
using tarni::KeyCurves;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

float FloatFromBits(std::uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

float PickSpecial(FuzzedDataProvider& in) {
  static constexpr float kSpecial[] = {
      0.0f, -0.0f,         1e-06f,         1.5e-06f, 0.01f,           0.3f, 1.0f,  2.0f, -1.0f,
      1e6f, 3.4028235e38f, -3.4028235e38f, 1e-45f,   1.17549435e-38f, kInf, -kInf, kNaN};
  return kSpecial[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kSpecial) - 1)];
}

// A float: mostly ordinary, sometimes telling, sometimes any bits at all.
float AnyFloat(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
      return static_cast<float>(in.ConsumeIntegral<std::int16_t>()) / 256.0f;
    case 1:
      return PickSpecial(in);
    case 2:
      return FloatFromBits(in.ConsumeIntegral<std::uint32_t>());
    default:
      return in.ConsumeFloatingPointInRange<float>(-1000.0f, 1000.0f);
  }
}

std::uint32_t AnyFlags(FuzzedDataProvider& in) {
  static constexpr std::uint32_t kFlags[] = {0,
                                             tarni::KEYFLAG_SELECTED,
                                             0x400,
                                             0x800,
                                             tarni::KEYFLAG_IGNORED,
                                             tarni::KEYFLAG_MAGNET,
                                             tarni::KEYFLAG_SELECTED | 0x400,
                                             0xFFFFFFFFu};
  const std::uint8_t pick = in.ConsumeIntegral<std::uint8_t>();
  if (pick < 200) return pick < 120 ? 0u : kFlags[pick % std::size(kFlags)];
  return in.ConsumeIntegral<std::uint32_t>();
}

KeyArray DecodeCurve(FuzzedDataProvider& in) {
  KeyArray curve;
  const int count = in.ConsumeIntegralInRange<int>(0, 300);
  if (!curve.EnsureCapacity(count)) return curve;
  float time = AnyFloat(in);
  for (int k = 0; k < count && in.remaining_bytes() > 0; ++k) {
    Key key;
    const std::uint8_t step = in.ConsumeIntegral<std::uint8_t>();
    if (step < 200) {
      time += 1.0f / 30.0f + static_cast<float>(step % 8) * 0.01f;
    } else if (step < 220) {
      // the same time again
    } else if (step < 235) {
      time -= 0.5f;
    } else {
      time = AnyFloat(in);
    }
    key.position.x = time;
    const std::uint8_t shape = in.ConsumeIntegral<std::uint8_t>();
    key.position.y =
        shape < 128 ? std::sin(time * static_cast<float>(shape % 16 + 1)) : AnyFloat(in);
    key.flags = AnyFlags(in);
    if (in.ConsumeIntegral<std::uint8_t>() >= 240) {
      key.leftTangent = {AnyFloat(in), AnyFloat(in)};
      key.rightTangent = {AnyFloat(in), AnyFloat(in)};
    }
    if (!curve.Append(key)) break;
  }
  return curve;
}

bool AllFinite(const Key& key) {
  return std::isfinite(key.position.x) && std::isfinite(key.position.y) &&
         std::isfinite(key.leftTangent.x) && std::isfinite(key.leftTangent.y) &&
         std::isfinite(key.rightTangent.x) && std::isfinite(key.rightTangent.y);
}

// Finite numbers of a sane size and strictly ascending times: the curves of real clips. (Float
// arithmetic cannot give finite handles between keys near the float range or 10^19 apart.)
bool IsTidy(const KeyCurves& curves) {
  constexpr float kSane = 1e6f;
  for (const KeyArray& curve : curves) {
    for (Int k = 0; k < curve.GetCount(); ++k) {
      if (!AllFinite(curve[k])) return false;
      if (std::fabs(curve[k].position.x) > kSane || std::fabs(curve[k].position.y) > kSane)
        return false;
      if (k > 0 && !(curve[k].position.x > curve[k - 1].position.x)) return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarni;
  fuzz::RegisterModuleOnce();
  FuzzedDataProvider in(data, size);

  const bool fitter = in.ConsumeBool();
  std::int64_t curveType = in.ConsumeIntegralInRange<std::int64_t>(0, 3);
  if (curveType == 3) curveType = in.ConsumeIntegral<std::int64_t>();
  const float strength = in.ConsumeBool() ? PickSpecial(in) : AnyFloat(in);
  const std::int32_t magnet = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(0, 8)
                                               : in.ConsumeIntegral<std::int32_t>();
  const std::int32_t fps = in.ConsumeBool() ? in.ConsumeIntegralInRange<std::int32_t>(1, 240)
                                            : in.ConsumeIntegral<std::int32_t>();
  const bool useLockedKeys = in.ConsumeBool();
  const bool useKeySelection = in.ConsumeBool();

  KeyCurves curves;
  Int keyCount = 0;
  while (in.remaining_bytes() > 0 && curves.GetCount() < 5000 && keyCount < 100000) {
    KeyArray curve = DecodeCurve(in);
    // Now and then many copies of a short curve: thousands of curves from a few bytes (long ones
    // would only make each run slow).
    const bool many = in.ConsumeIntegral<std::uint8_t>() >= 250 && curve.GetCount() <= 16;
    const int copies = many ? 2000 : 1;
    keyCount += copies * curve.GetCount();
    for (int c = 0; c < copies; ++c) {
      KeyArray copy;
      if (!copy.CopyFrom(curve) || !curves.Append(std::move(copy))) return 0;
    }
  }
  const Int curveCount = curves.GetCount();
  // Running a saved input with TARNI_FUZZ_DUMP set shows what it decodes to.
  static const bool dump = std::getenv("TARNI_FUZZ_DUMP") != nullptr;
  if (dump) {
    std::fprintf(stderr, "%s type %lld strength %a magnet %d fps %d locked %d selection %d\n",
                 fitter ? "fitter" : "modification", static_cast<long long>(curveType),
                 static_cast<double>(strength), magnet, fps, useLockedKeys, useKeySelection);
    for (Int c = 0; c < curveCount && c < 20; ++c) {
      std::fprintf(stderr, "curve %lld:\n", static_cast<long long>(c));
      for (const Key& key : curves[c]) {
        std::fprintf(stderr, "  %#x (%a %a) l(%a %a) r(%a %a)\n", key.flags,
                     static_cast<double>(key.position.x), static_cast<double>(key.position.y),
                     static_cast<double>(key.leftTangent.x), static_cast<double>(key.leftTangent.y),
                     static_cast<double>(key.rightTangent.x),
                     static_cast<double>(key.rightTangent.y));
      }
    }
  }
  const bool tidy = IsTidy(curves) && std::isfinite(strength);

  auto created = CreateCommandData(kAnimationCommandDataClassId);
  fuzz::Require(static_cast<bool>(created), "command data not created");
  CommandData& commandData = *created.value();
  fuzz::Require(
      static_cast<bool>(commandData.Set<KeyCurves>(kAnimationCurvesId, std::move(curves))),
      "curves not stored");
  fuzz::Require(commandData.Set<std::int32_t>(kProjectFpsId, fps) &&
                    commandData.Set<float>(kKeyReducerStrengthId, strength) &&
                    commandData.Set<std::int32_t>(kKeyReducerMagnetId, magnet) &&
                    commandData.Set<bool>(kKeyReducerUseLockedKeysId, useLockedKeys) &&
                    commandData.Set<bool>(kKeyReducerUseKeySelectionId, useKeySelection) &&
                    commandData.Set<std::int64_t>(kModificationCurveTypeId, curveType),
                "parameters not stored");
  const Shared<KeyCurves> before = commandData.GetShared<KeyCurves>(kAnimationCurvesId).value();

  auto command =
      CreateCommand(fitter ? kBezierFitterCommandId : kReducedModificationCurveCommandId);
  fuzz::Require(static_cast<bool>(command), "command not created");
  const Result<void> ran = command.value()->Execute(commandData);
  const Shared<KeyCurves> after = commandData.GetShared<KeyCurves>(kAnimationCurvesId).value();
  if (!ran) {
    fuzz::Require(ran.error().Is(ErrorKind::kIllegalArgument), "unexpected error kind",
                  ran.error().GetMessage());
    fuzz::Require(after.Get() == before.Get(), "curves written back despite the error");
    fuzz::Require(!commandData.HasValue(kMinMaxArrId), "ranges written despite the error");
    return 0;
  }
  fuzz::Require(after->value.GetCount() == curveCount, "another number of curves came back");
  if (tidy) {
    for (const KeyArray& curve : after->value) {
      for (const Key& key : curve) {
        fuzz::Require(AllFinite(key), "a tidy input gave a number that is not finite");
      }
    }
  }
  return 0;
}
