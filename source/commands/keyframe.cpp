// The keyframe data type: the operations the host uses on arrays and heap copies of tarni::Key.
#include "tarni/keyframe.h"

#include <cstring>

#include "module/units.h"
#include "tarni/debug.h"
#include "tarni/format.h"
#include "tarni/memory.h"

namespace tarni::ca {
namespace {

constexpr std::int64_t kKeySize = static_cast<std::int64_t>(sizeof(Key));

// The location the not-defined stops report, whichever file holds them.
constexpr const char* kCompareUnit = "compare";

char* Bytes(void* p) noexcept { return static_cast<char*>(p); }
const char* Bytes(const void* p) noexcept { return static_cast<const char*>(p); }

void Construct(void* dst, std::int64_t dstStride, std::int64_t count) noexcept {
  for (std::int64_t i = 0; i < count; ++i) ::new (Bytes(dst) + i * dstStride) Key();
}

void Destruct(void*, std::int64_t, std::int64_t) noexcept {}

// Plain word copies; the ranges do not overlap.
void Copy(void* dst, std::int64_t dstStride, const void* src, std::int64_t srcStride,
          std::int64_t count) noexcept {
  if (count <= 0) return;
  if (dstStride == kKeySize && srcStride == kKeySize) {
    std::memcpy(dst, src, static_cast<std::size_t>(count * kKeySize));
    return;
  }
  for (std::int64_t i = 0; i < count; ++i)
    std::memcpy(Bytes(dst) + i * dstStride, Bytes(src) + i * srcStride, sizeof(Key));
}

// The ranges may overlap: element by element, backwards when the destination lies above the
// source, so no key is overwritten before it has been moved.
void Move(void* dst, std::int64_t dstStride, void* src, std::int64_t srcStride,
          std::int64_t count) noexcept {
  if (count <= 0 || dst == src) return;
  if (dstStride == kKeySize && srcStride == kKeySize) {
    std::memmove(dst, src, static_cast<std::size_t>(count * kKeySize));
    return;
  }
  if (dst > src) {
    for (std::int64_t i = count - 1; i >= 0; --i)
      std::memmove(Bytes(dst) + i * dstStride, Bytes(src) + i * srcStride, sizeof(Key));
  } else {
    for (std::int64_t i = 0; i < count; ++i)
      std::memmove(Bytes(dst) + i * dstStride, Bytes(src) + i * srcStride, sizeof(Key));
  }
}

void* HeapNew() noexcept { return New<Key>(); }
void* HeapCopy(const void* src) noexcept { return New<Key>(*static_cast<const Key*>(src)); }
void HeapFree(void* value) noexcept { Delete(static_cast<Key*>(value)); }
void HeapMove(void** dst, void** src) noexcept {
  HeapFree(*dst);
  *dst = *src;
  *src = nullptr;
}

void AppendKeyVector(TextBuilder& out, const KeyVector& v, const FormatStatement* format) noexcept {
  out.Append('(');
  AppendFloat32(out, v.x, format);
  out.Append(',');
  AppendFloat32(out, v.y, format);
  out.Append(')');
}

// "(" left tangent ", " position ", " right tangent ")".
void KeyToString(TextBuilder& out, const void* value, const FormatStatement* format) noexcept {
  const Key& key = *static_cast<const Key*>(value);
  out.Append('(');
  AppendKeyVector(out, key.leftTangent, format);
  out.Append(", ");
  AppendKeyVector(out, key.position, format);
  out.Append(", ");
  AppendKeyVector(out, key.rightTangent, format);
  out.Append(')');
}

// Keys deliberately have no equality, order or hash: code that needs to compare keys compares the
// fields it cares about. Asking anyway is a programming error worth a debug stop.
bool IsEqual(const void*, const void*) noexcept {
  DebugStop("Stop: IsEqual not defined.", kCompareUnit, __LINE__);
  return false;
}
CompareResult Compare(const void*, const void*) noexcept {
  DebugStop("Stop: Compare not defined.", kCompareUnit, __LINE__);
  return CompareResult::kIncomparable;
}
std::uint64_t GetHashCode(const void*) noexcept {
  DebugStop("Stop: GetHashCode not defined.", kCompareUnit, __LINE__);
  return 0;
}
UniqueHash GetUniqueHashCode(const void*) noexcept {
  DebugStop("Stop: GetUniqueHashCode not defined.", kCompareUnit, __LINE__);
  return UniqueHash{};
}

}  // namespace

const DataType kKeyframeDataType{
    kKeyframeDataTypeId,
    "tarni::Key",
    kKeySize,
    DataTypeOperations{&Construct, &Destruct, &Copy, &Copy, &Move, &HeapNew, &HeapCopy, &HeapFree,
                       &HeapMove, &KeyToString, &IsEqual, &Compare, &GetHashCode,
                       &GetUniqueHashCode},
    {}};

}  // namespace tarni::ca
