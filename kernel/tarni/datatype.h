// The data-type registry (net.tarni.registry.datatypes): value types that the host handles
// generically (arrays of them, heap copies, text forms), and enumeration types with member names.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "tarni/format.h"
#include "tarni/id.h"
#include "tarni/result.h"
#include "tarni/string.h"

namespace tarni {

inline constexpr Id kDataTypesRegistry{"net.tarni.registry.datatypes"};

enum class CompareResult : std::int8_t { kLess = -1, kEqual = 0, kGreater = 1, kIncomparable = 2 };

struct UniqueHash {
  std::uint64_t low = 0;
  std::uint64_t high = 0;
  bool operator==(const UniqueHash&) const noexcept = default;
};

struct EnumMember {
  std::int64_t value;
  const char* name;
};

// Operations on arrays of a type. Strides are in bytes; `count` elements are handled.
struct DataTypeOperations {
  void (*construct)(void* dst, std::int64_t dstStride, std::int64_t count) noexcept = nullptr;
  void (*destruct)(void* dst, std::int64_t dstStride, std::int64_t count) noexcept = nullptr;
  void (*copyConstruct)(void* dst, std::int64_t dstStride, const void* src, std::int64_t srcStride,
                        std::int64_t count) noexcept = nullptr;
  void (*copyAssign)(void* dst, std::int64_t dstStride, const void* src, std::int64_t srcStride,
                     std::int64_t count) noexcept = nullptr;
  // Moves between possibly overlapping ranges.
  void (*move)(void* dst, std::int64_t dstStride, void* src, std::int64_t srcStride,
               std::int64_t count) noexcept = nullptr;
  // Heap values: new default, copy, free, and move (the destination's value is freed and it takes
  // over the source's pointer, leaving the source empty).
  void* (*heapNew)() noexcept = nullptr;
  void* (*heapCopy)(const void* src) noexcept = nullptr;
  void (*heapFree)(void* value) noexcept = nullptr;
  void (*heapMove)(void** dst, void** src) noexcept = nullptr;
  void (*toString)(TextBuilder& out, const void* value,
                   const FormatStatement* format) noexcept = nullptr;
  bool (*isEqual)(const void* a, const void* b) noexcept = nullptr;
  CompareResult (*compare)(const void* a, const void* b) noexcept = nullptr;
  std::uint64_t (*getHashCode)(const void* value) noexcept = nullptr;
  UniqueHash (*getUniqueHashCode)(const void* value) noexcept = nullptr;
};

struct DataType {
  Id id;
  const char* name = "";  // the type's name, e.g. "tarni::Key"
  std::int64_t size = 0;
  DataTypeOperations operations;
  // For enumeration types: the members, in value order.
  std::span<const EnumMember> enumMembers;
};

// Registers a type (the record must outlive the registration). Fails with the illegal-state error
// when the id is taken.
Result<void> RegisterDataType(const DataType& type) noexcept;
void UnregisterDataType(const Id& id) noexcept;
const DataType* FindDataType(const Id& id) noexcept;

// Text of an enumeration value: the member's name, or the decimal number when no member has it.
void AppendEnumText(TextBuilder& out, const DataType& type, std::int64_t value) noexcept;

}  // namespace tarni
