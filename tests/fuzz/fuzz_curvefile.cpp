// The host's JSON curve reader on arbitrary bytes, and the reduce job's next steps for a file it
// accepts: the key reducer over its curves and writing the result.
//
// Properties checked:
// - reading ends with success or one error naming the file, never a crash, hang, leak or
//   sanitizer report; a refused file leaves the curve file empty;
// - an accepted file passes CheckCurveFile and reads back identical after writing;
// - the Bezier fitter accepts its curves, or turns down with an illegal-argument error a curve
//   whose fitted tangents would overflow; what it returns passes CheckCurveFile again (the
//   reduce job writes it).
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "curvekeys.h"
#include "fuzzsupport.h"
#include "io/curvefile.h"
#include "tarni/animationcommands.h"

namespace {

using namespace tarni::host;

constexpr std::string_view kTooSteep =
    "Illegal argument: the keys are too far apart or too steep for finite tangents.";

bool SameBits(const CurveFile& a, const CurveFile& b) {
  if (std::memcmp(&a.fps, &b.fps, sizeof a.fps) != 0 || a.curves.size() != b.curves.size() ||
      a.ranges != b.ranges) {
    return false;
  }
  for (size_t c = 0; c < a.curves.size(); ++c) {
    const Curve& x = a.curves[c];
    const Curve& y = b.curves[c];
    // Names are UTF-8 (the JSON reader takes nothing else), so they are written as they are.
    if (x.name != y.name || x.keys.size() != y.keys.size()) return false;
    if (!x.keys.empty() &&
        std::memcmp(x.keys.data(), y.keys.data(), x.keys.size() * sizeof(CurveKey)) != 0) {
      return false;
    }
  }
  return true;
}

// The reduce job's command run: curves in, the fitter at the default strength, curves out.
void Reduce(const CurveFile& input) {
  using namespace tarni;
  KeyCurves curves;
  for (const Curve& curve : input.curves) {
    KeyArray keys;
    for (const CurveKey& key : curve.keys) {
      if (!keys.Append(ToKey(key))) return;
    }
    if (!curves.Append(std::move(keys))) return;
  }
  Ref<CommandData> data = CreateCommandData(kAnimationCommandDataClassId).value();
  fuzz::Require(data->Set<KeyCurves>(kAnimationCurvesId, std::move(curves)) &&
                    data->Set<std::int32_t>(kProjectFpsId, 30) &&
                    data->Set<float>(kKeyReducerStrengthId, 0.3f) &&
                    data->Set<std::int32_t>(kKeyReducerMagnetId, 2) &&
                    data->Set<bool>(kKeyReducerUseLockedKeysId, true) &&
                    data->Set<bool>(kKeyReducerUseKeySelectionId, false),
                "command data not filled");
  Ref<Command> command = CreateCommand(kBezierFitterCommandId).value();
  const Result<void> ran = command->Execute(*data);
  // The file check already holds the keys finite and ascending; the one refusal left is a curve
  // whose fitted tangents would overflow, and then nothing is written back.
  if (!ran) {
    fuzz::Require(
        ran.error().Is(ErrorKind::kIllegalArgument) && ran.error().GetMessage() == kTooSteep,
        "the fitter refused an accepted file", ran.error().GetMessage());
    return;
  }
  const Shared<KeyCurves> reduced = data->GetShared<KeyCurves>(kAnimationCurvesId).value();
  CurveFile output;
  output.fps = input.fps;
  for (const KeyArray& keys : reduced->value) {
    Curve& curve = output.curves.emplace_back();
    for (const Key& key : keys) curve.keys.push_back(FromKey(key));
  }
  IoError check;
  fuzz::Require(CheckCurveFile(output, check), "reduced curves fail the curve-file check",
                check.message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tarni::fuzz::RegisterModuleOnce();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CurveFile file;
  IoError error;
  if (!ReadCurveFile(text, "fuzz.json", file, error)) {
    tarni::fuzz::Require(!error.message.empty(), "an error without a message");
    tarni::fuzz::Require(error.file == "fuzz.json", "an error without the file name");
    tarni::fuzz::Require(file.curves.empty() && file.ranges.empty(),
                         "a refused file left curves behind");
    return 0;
  }
  IoError check;
  tarni::fuzz::Require(CheckCurveFile(file, check), "an accepted file fails its check",
                       check.message);
  const std::string written = WriteCurveFile(file);
  CurveFile reread;
  tarni::fuzz::Require(ReadCurveFile(written, "written.json", reread, error),
                       "a written file does not read back", error.ToText());
  tarni::fuzz::Require(SameBits(file, reread), "a written file reads back different");
  Reduce(file);
  return 0;
}
