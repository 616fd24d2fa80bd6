#include "character/nodeinfocomponent.h"
#include "module/units.h"

namespace tarni::ca {
namespace {

class CharacterNodeInfoImpl final : public NodeInfoComponent<CharacterNodeInfo> {
  TARNI_IMPLEMENTS(CharacterNodeInfoImpl, CharacterNodeInfo)
 public:
  // The copy constructor shares both fields, as CopyFrom does.
  static constexpr bool kCloneByCopyConstructor = true;

  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CharacterNodeInfoImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    CopyNodeInfoFrom(*other);
    return OK;
  }
  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  static Result<void> Describe(Describer& describer, CharacterNodeInfoImpl* self) noexcept {
    return DescribeNodeInfo(describer, self);
  }
};

constexpr Id kInterfaces[] = {CharacterNodeInfo::kInterfaceId};
const StaticFunction kStatics[] = {
    {"CreateNodeInfo", reinterpret_cast<void (*)()>(&CreateNodeInfo)},
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterNodeInfoImpl>)},
};

}  // namespace

const ClassRecord kCharacterNodeInfoClass{CharacterNodeInfo::kClassId,
                                          "CharacterNodeInfoImpl",
                                          "characternodeinfo_impl",
                                          &CreateInstance<CharacterNodeInfoImpl>,
                                          &DescribeClass<CharacterNodeInfoImpl>,
                                          {},
                                          kInterfaces,
                                          kStatics};

}  // namespace tarni::ca
