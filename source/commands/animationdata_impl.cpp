// The animation command data: the dictionary in which curves, the project frame rate, the reducer
// parameters and the commands' results travel. It is nothing but the framework's data dictionary
// and command observer components put together.
#include "module/units.h"
#include "tarni/animationcommands.h"

namespace tarni::ca {
namespace {

// The interfaces the two components fill in.
class AnimationDataInterfaces : public virtual CommandData, public virtual CommandObserver {};

class AnimationDataImpl final
    : public CommandObserverComponent<DataDictionaryComponent<AnimationDataInterfaces>> {
  TARNI_IMPLEMENTS(AnimationDataImpl, CommandData, CommandObserver)
 public:
  // A copy takes over the source's dictionary; its values stay shared until a writer unshares
  // them. Progress reporting and cancellation belong to one invocation and are not copied.
  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<AnimationDataImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    return CopyDictionaryFrom(*other);
  }
};

constexpr Id kInterfaces[] = {CommandData::kInterfaceId, CommandObserver::kInterfaceId};
constexpr Id kBases[] = {DataDictionaryComponent<AnimationDataInterfaces>::kClassId,
                         CommandObserverComponent<AnimationDataInterfaces>::kClassId};

}  // namespace

const ClassRecord kAnimationDataClass{kAnimationCommandDataClassId,
                                      "AnimationDataImpl",
                                      "animationdata_impl",
                                      &CreateInstance<AnimationDataImpl>,
                                      nullptr,
                                      kBases,
                                      kInterfaces,
                                      {}};

}  // namespace tarni::ca
