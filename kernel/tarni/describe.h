// DescribeIO: each component declares its members (name, data type, flags, address) to a describer
// in field order. Serialisation and other generic code are driven by these declarations.
#pragma once

#include <cstdint>
#include <string_view>

#include "tarni/array.h"
#include "tarni/id.h"
#include "tarni/result.h"

namespace tarni {

enum DescribeFlags : std::uint32_t {
  kDescribeNone = 0,
  kDescribeArray = 2048,         // a BaseArray of `type`
  kDescribeMap = 4096,           // a HashMap from `keyType` to `type`
  kDescribeReference = 8192,     // a reference to an object with interface `type`
  kDescribeCopyOnWrite = 16384,  // with kDescribeReference: a copy-on-write reference
};

// Data type ids of the framework's value types, as member descriptions name them.
namespace types {
inline constexpr Id kBool{"net.tarni.datatype.bool"};
inline constexpr Id kInt32{"net.tarni.datatype.int32"};
inline constexpr Id kUInt32{"net.tarni.datatype.uint32"};
inline constexpr Id kInt64{"net.tarni.datatype.int64"};
inline constexpr Id kFloat32{"net.tarni.datatype.float32"};
inline constexpr Id kFloat64{"net.tarni.datatype.float64"};
inline constexpr Id kUuid{"net.tarni.datatype.uuid"};
inline constexpr Id kString{"net.tarni.datatype.string"};
inline constexpr Id kInternedId{"net.tarni.datatype.internedid"};
inline constexpr Id kMatrix{"net.tarni.datatype.matrix"};
inline constexpr Id kBitSet{"net.tarni.datatype.bitset"};
}  // namespace types

struct MemberDescription {
  std::string_view name;
  Id type;
  std::uint32_t flags = kDescribeNone;
  Id keyType;  // maps only
  // The member in the described instance; null for class descriptions. It is for reading the
  // member, and for filling an instance that nothing has used yet (a stored object read into a
  // new one). Writing through it into an instance already in use bypasses copy-on-write and what
  // the instance keeps derived from the member (a pose's lookup index, the solver's rest data, a
  // node's kept inverse): such members are changed through their setters.
  void* address = nullptr;
};

class Describer {
 public:
  virtual ~Describer() = default;
  // Takes one member declaration; an error ends the description.
  virtual Result<void> Member(const MemberDescription& member) noexcept = 0;
};

// Collects the declarations in order.
class MemberList final : public Describer {
 public:
  Result<void> Member(const MemberDescription& member) noexcept override {
    return members.Append(member);
  }
  BaseArray<MemberDescription> members;
};

}  // namespace tarni
