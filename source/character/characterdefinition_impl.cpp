#include "character/nodeinfocomponent.h"
#include "module/units.h"
#include "tarni/characterdefinition.h"

namespace tarni::ca {
namespace {

// Stores `value` unless the field already holds that object, so setting it again costs nothing.
template <typename R>
Result<void> Store(R& field, const R& value) noexcept {
  if (!(field == value)) field = value;
  return OK;
}

// A deep copy of a tree root, typed as I; an empty root stays empty.
template <typename I>
Result<Ref<I>> CloneTree(const Ref<I>& root) noexcept {
  if (!root) return Ref<I>();
  Ref<Object> clone = TARNI_TRY(root.ObjectOf()->Clone());
  Ref<I> typed = Cast<I>(clone);
  if (!typed) return NullReferenceError("Cloned tree lacks its interface.");
  return typed;
}

class CharacterDefinitionImpl final : public NodeInfoComponent<CharacterDefinition> {
  TARNI_IMPLEMENTS(CharacterDefinitionImpl, CharacterDefinition)
 public:
  const CharacterTreeRef& GetSkeletonTree() const noexcept override { return _skeletonRoot; }
  Result<void> SetSkeletonTree(const CharacterTreeRef& tree) noexcept override {
    return Store(_skeletonRoot, tree);
  }
  const CharacterBodyPartRef& GetBodyPartTree() const noexcept override { return _bodyPartRoot; }
  Result<void> SetBodyPartTree(const CharacterBodyPartRef& root) noexcept override {
    return Store(_bodyPartRoot, root);
  }
  Result<void> SetSkeletonRestPose(const CharacterPoseRef& pose) noexcept override {
    return Store(_skeletonRestPose, pose);
  }
  const CharacterPoseRef& GetSkeletonRestPose() const noexcept override {
    return _skeletonRestPose;
  }
  Result<void> SetControllersRestPose(const CharacterPoseRef& pose) noexcept override {
    return Store(_controllersRestPose, pose);
  }
  const CharacterPoseRef& GetControllersRestPose() const noexcept override {
    return _controllersRestPose;
  }

  // Trees are cloned so the copy's skeleton and body parts can be edited apart from the source's;
  // rest poses are shared (they are copy-on-write, so writers detach them anyway).
  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CharacterDefinitionImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    CopyNodeInfoFrom(*other);
    _skeletonRoot = TARNI_TRY(CloneTree(other->_skeletonRoot));
    _bodyPartRoot = TARNI_TRY(CloneTree(other->_bodyPartRoot));
    _skeletonRestPose = other->_skeletonRestPose;
    _controllersRestPose = other->_controllersRestPose;
    return OK;
  }

  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  // The node-info members, then the four references under their stored names, which deliberately
  // differ from the underscore style of the other classes: stored definitions use them.
  static Result<void> Describe(Describer& describer, CharacterDefinitionImpl* self) noexcept {
    constexpr std::uint32_t kPoseFlags = kDescribeReference | kDescribeCopyOnWrite;
    TARNI_TRY(DescribeNodeInfo(describer, self));
    TARNI_TRY(describer.Member({"SkeletonRoot",
                                CharacterTree::kInterfaceId,
                                kDescribeReference,
                                {},
                                self ? &self->_skeletonRoot : nullptr}));
    TARNI_TRY(describer.Member({"BodyPartRoot",
                                CharacterBodyPart::kInterfaceId,
                                kDescribeReference,
                                {},
                                self ? &self->_bodyPartRoot : nullptr}));
    TARNI_TRY(describer.Member({"SkeletonRestPose",
                                CharacterPose::kInterfaceId,
                                kPoseFlags,
                                {},
                                self ? &self->_skeletonRestPose : nullptr}));
    return describer.Member({"ControllersRestPose",
                             CharacterPose::kInterfaceId,
                             kPoseFlags,
                             {},
                             self ? &self->_controllersRestPose : nullptr});
  }

 private:
  // Declared in this order so destruction releases the controllers rest pose first and the
  // skeleton root last.
  CharacterTreeRef _skeletonRoot;
  CharacterBodyPartRef _bodyPartRoot;
  CharacterPoseRef _skeletonRestPose;
  CharacterPoseRef _controllersRestPose;
};

constexpr Id kInterfaces[] = {CharacterDefinition::kInterfaceId, CharacterNodeInfo::kInterfaceId};
constexpr Id kBases[] = {CharacterNodeInfo::kClassId};
const StaticFunction kStatics[] = {
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterDefinitionImpl>)},
};

}  // namespace

const ClassRecord kCharacterDefinitionClass{CharacterDefinition::kClassId,
                                            "CharacterDefinitionImpl",
                                            "characterdefinition_impl",
                                            &CreateInstance<CharacterDefinitionImpl>,
                                            &DescribeClass<CharacterDefinitionImpl>,
                                            kBases,
                                            kInterfaces,
                                            kStatics};

}  // namespace tarni::ca
