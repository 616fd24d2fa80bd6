#include <algorithm>
#include <new>
#include <utility>

#include "character/lookups.h"
#include "character/posenodes.h"
#include "module/units.h"
#include "tarni/describe.h"
#include "tarni/hierarchy.h"
#include "tarni/retargetbasehelper.h"

namespace tarni::ca {
namespace {

// Keyword matching ignores letter case: names and keyword parts go through one and the same text
// conversion, String::ToLower, before the substring search, so "Arm" picks "LeftARM" and
// "forearm" alike.
Result<String> ToMatchingText(const String& text) noexcept { return text.ToLower(); }

// One keyword, split at "&&" (empty parts are left out) and converted for matching.
using KeywordParts = BaseArray<String>;

Result<BaseArray<KeywordParts>> PrepareKeywords(const BaseArray<String>& keywords) noexcept {
  BaseArray<KeywordParts> prepared;
  TARNI_TRY(prepared.EnsureCapacity(keywords.GetCount()));
  for (const String& keyword : keywords) {
    KeywordParts parts = TARNI_TRY(keyword.Split("&&"));
    for (String& part : parts) part = TARNI_TRY(ToMatchingText(part));
    TARNI_TRY(prepared.Append(std::move(parts)));
  }
  return prepared;
}

// A keyword matches a converted name when each of its parts occurs in it; the parts are tried in
// order and the first miss decides. A keyword without parts never matches.
bool Matches(const KeywordParts& keyword, const String& convertedName) noexcept {
  if (keyword.IsEmpty()) return false;
  for (const String& part : keyword) {
    if (convertedName.Find(part.GetView(), 0) < 0) return false;
  }
  return true;
}

bool MatchesAny(const BaseArray<KeywordParts>& keywords, const String& convertedName) noexcept {
  for (const KeywordParts& keyword : keywords) {
    if (Matches(keyword, convertedName)) return true;
  }
  return false;
}

Error ForeignNodeError() noexcept {
  return NullReferenceError("Hierarchy holds a node of another class.");
}

// The skeleton of one body part: the tree nodes matching its keywords and none of its discard
// keywords, in the walk's order, each at most once.
Result<void> FillOneBodyPart(const CharacterTreeRef& tree, CharacterBodyPart& bodyPart) noexcept {
  const BaseArray<String>& keywords = bodyPart.GetSkeletonKeywords();
  BaseArray<Uuid> skeleton;
  if (!keywords.IsEmpty()) {
    const BaseArray<KeywordParts> accepted = TARNI_TRY(PrepareKeywords(keywords));
    const BaseArray<KeywordParts> discarded =
        TARNI_TRY(PrepareKeywords(bodyPart.GetSkeletonDiscardKeywords()));
    auto visit = [&](const CharacterTreeRef& node, CharacterTree*, Int) noexcept -> Result<bool> {
      if (!node) return ForeignNodeError();
      const String name = TARNI_TRY(ToMatchingText(node->GetName()));
      // A rejected node adds nothing, but the walk still goes through its children.
      if (MatchesAny(discarded, name)) return true;
      if (MatchesAny(accepted, name)) TARNI_TRY(skeleton.Append(node->GetUuid()));
      return true;
    };
    TARNI_TRY(WalkHierarchy<CharacterTree>(tree, visit));
  }
  return bodyPart.SetSkeleton(skeleton);
}

// min(count of s, count of d) pairs s[i] <-> d[i], stopping at the first failure. Returns n.
Int PairByPosition(CharacterAssociation& association, const BaseArray<Uuid>& s,
                   const BaseArray<Uuid>& d) noexcept {
  const Int n = std::min(s.GetCount(), d.GetCount());
  for (Int i = 0; i < n; ++i) {
    if (!association.AssociateUuid(s[i], d[i])) break;
  }
  return n;
}

// Associates one source body part with its namesake under `destination`. Any failure skips the
// body part: the pairing is best effort and reports nothing.
void AssociateOneBodyPart(CharacterAssociationRef& association, const CharacterBodyPartRef& source,
                          const CharacterBodyPartRef& destination,
                          RetargetAssociationStatistics& statistics) noexcept {
  if (!source || !destination) return;
  Result<CharacterBodyPartRef> found = destination->FindBodyPartByID(source->GetIdentifier());
  if (!found || !found.value()) return;
  const CharacterBodyPartRef& match = found.value();
  Result<CharacterAssociation*> writable = association.MakeWritable();
  if (!writable) return;
  CharacterAssociation& target = *writable.value();
  if (!target.AssociateBodyPart(source, match)) return;
  ++statistics.associatedBodyParts;

  const BaseArray<Uuid>& sourceSkeleton = source->GetSkeleton();
  const BaseArray<Uuid>& matchSkeleton = match->GetSkeleton();
  const Int skeletonPairs = PairByPosition(target, sourceSkeleton, matchSkeleton);
  statistics.sourceSkeletonNodes += sourceSkeleton.GetCount();
  statistics.destinationSkeletonNodes += matchSkeleton.GetCount();
  statistics.associatedSkeletonPairs += skeletonPairs;

  const BaseArray<Uuid>& sourceControllers = source->GetControllers();
  const BaseArray<Uuid>& matchControllers = match->GetControllers();
  const Int controllerPairs = PairByPosition(target, sourceControllers, matchControllers);
  statistics.sourceControllerNodes += sourceControllers.GetCount();
  statistics.destinationControllerNodes += matchControllers.GetCount();
  statistics.associatedControllerPairs += controllerPairs;
}

// How many of `ids` the pose holds.
Result<Int> CountInPose(const BaseArray<Uuid>& ids, const CharacterPose& pose) noexcept {
  Int count = 0;
  for (const Uuid& id : ids) {
    if (TARNI_TRY(pose.GetNodeTransformByID(id))) ++count;
  }
  return count;
}

// The matching count of a body part's own list (`List` picks it), or of its whole sub-hierarchy.
template <typename List>
Result<Int> MatchingCount(const CharacterBodyPartRef& bodyPart, const CharacterPoseRef& pose,
                          bool recursive, List list) noexcept {
  if (!pose) return NullReferenceError("Pose reference is empty.");
  if (!bodyPart) return Int{0};
  if (!recursive) return CountInPose(list(*bodyPart), *pose);
  Int count = 0;
  auto visit = [&](const CharacterBodyPartRef& part, CharacterBodyPart*,
                   Int) noexcept -> Result<bool> {
    if (part) count += TARNI_TRY(CountInPose(list(*part), *pose));
    return true;
  };
  TARNI_TRY(WalkHierarchy<CharacterBodyPart>(bodyPart, visit));
  return count;
}

// What renaming keeps with an association: the index of a renamed pose, and the Uuids it was made
// over, in pose order (this header, then `count` Uuids). A frame that renames a pose of the same
// skeleton gives its nodes the very same Uuids, which it checks by their shared id data, and its
// pose then starts with a copy of the index instead of making one at its first lookup. The index
// depends on those Uuids alone, so a change of the association cannot make it wrong; a later pose
// with other Uuids makes its own index, as without a companion.
struct RenamedIndex final : Companion {
  NodeIndex* index;
  Int count;

  Uuid* Targets() noexcept { return reinterpret_cast<Uuid*>(this + 1); }
  const Uuid* Targets() const noexcept { return reinterpret_cast<const Uuid*>(this + 1); }

  // Keeps the index of `renamed` with `association`. Memory that cannot be had only means that
  // no index is kept.
  static void Keep(const CharacterAssociation& association,
                   const BaseArray<CharacterNodeTransformRef>& renamed) noexcept {
    NodeIndex* index = MakeNodeIndex(renamed);
    if (index == nullptr) return;
    const Int count = renamed.GetCount();
    void* memory = Allocate(sizeof(RenamedIndex) + static_cast<std::size_t>(count) * sizeof(Uuid));
    if (memory == nullptr) {
      DeleteNodeIndex(index);
      return;
    }
    auto* kept = ::new (memory) RenamedIndex;
    kept->destroy = &Destroy;
    kept->index = index;
    kept->count = count;
    for (Int i = 0; i < count; ++i) ::new (&kept->Targets()[i]) Uuid(NodeUuidOf(renamed[i].Get()));
    // Another thread's, made for a pose of the same or another skeleton, stays.
    if (AttachAssociationCompanion(association, kept) == nullptr) Destroy(kept);
  }

  static void Destroy(Companion* companion) noexcept {
    auto* self = static_cast<RenamedIndex*>(companion);
    for (Int i = 0; i < self->count; ++i) self->Targets()[i].~Uuid();
    DeleteNodeIndex(self->index);
    self->~RenamedIndex();
    Free(self);
  }
};
static_assert(sizeof(RenamedIndex) % alignof(Uuid) == 0);

class RetargetBaseHelperImpl final : public RetargetBaseHelper {
  TARNI_IMPLEMENTS(RetargetBaseHelperImpl, RetargetBaseHelper)
 public:
  Result<void> FillBodyPart(const CharacterTreeRef& tree,
                            const CharacterBodyPartRef& bodyPart) const noexcept override {
    if (!bodyPart) return NullReferenceError("Body part reference is empty.");
    // Each body part first, then its children's sub-hierarchies in child order.
    auto visit = [&](const CharacterBodyPartRef& part, CharacterBodyPart*,
                     Int) noexcept -> Result<bool> {
      if (!part) return ForeignNodeError();
      TARNI_TRY(FillOneBodyPart(tree, *part));
      return true;
    };
    TARNI_TRY(WalkHierarchy<CharacterBodyPart>(bodyPart, visit));
    return OK;
  }

  Result<CharacterAssociationRef> AssociateBodyPartsByIdentifier(
      const CharacterBodyPartRef& srcBodyPart, const CharacterBodyPartRef& dstBodyPart,
      RetargetAssociationStatistics& statistics) const noexcept override {
    TARNI_CHECK_ARGUMENT(srcBodyPart && dstBodyPart);
    static constinit ClassHandle associationClass(CharacterAssociation::kClassId);
    CharacterAssociationRef association(TARNI_TRY(associationClass.Create<CharacterAssociation>()));
    auto visit = [&](const CharacterBodyPartRef& part, CharacterBodyPart*,
                     Int) noexcept -> Result<bool> {
      ++statistics.visitedBodyParts;
      AssociateOneBodyPart(association, part, dstBodyPart, statistics);
      return true;
    };
    TARNI_TRY(WalkHierarchy<CharacterBodyPart>(srcBodyPart, visit));
    statistics.sourceNodesTotal = statistics.sourceSkeletonNodes + statistics.sourceControllerNodes;
    statistics.destinationNodesTotal =
        statistics.destinationSkeletonNodes + statistics.destinationControllerNodes;
    statistics.associatedPairsTotal =
        statistics.associatedSkeletonPairs + statistics.associatedControllerPairs;
    return association;
  }

  Result<CharacterPoseRef> TranslateSrcToDestID(
      const CharacterAssociationRef& association,
      const CharacterPoseRef& pose) const noexcept override {
    if (!pose) return NullReferenceError("Pose reference is empty.");
    const BaseArray<CharacterNodeTransformRef>& nodes = pose->GetNodeTransformArray();
    BaseArray<CharacterNodeTransformRef> renamed;
    TARNI_TRY(renamed.EnsureCapacity(nodes.GetCount()));
    // The association is only asked about nodes: a pose without nodes is copied even without one.
    // This module's association class is searched directly; misses and other classes go through
    // PeekAssociatedUuid, which also raises the miss's error.
    const UuidAssociationTable* table = association ? OwnUuidAssociations(*association) : nullptr;
    const auto* kept =
        association ? static_cast<const RenamedIndex*>(PeekAssociationCompanion(*association))
                    : nullptr;
    bool keptFits = kept != nullptr && kept->count == nodes.GetCount();
    for (Int i = 0; i < nodes.GetCount(); ++i) {
      const CharacterNodeTransformRef& node = nodes[i];
      if (!node) return NullReferenceError("Pose holds an empty node.");
      if (!association) return NullReferenceError("Association reference is empty.");
      const Uuid& source = NodeUuidOf(node.Get());
      const Uuid* target = table != nullptr ? table->Find(source) : nullptr;
      Uuid holder;
      if (target == nullptr) target = TARNI_TRY(PeekAssociatedUuid(*association, source, holder));
      keptFits = keptFits && target->SharesData(kept->Targets()[i]);
      // A writable copy, so the input pose's node keeps its Uuid.
      TARNI_TRY(renamed.Append(TARNI_TRY(CopyNodeWithUuid(node, *target))));
    }
    CharacterPoseRef result =
        TARNI_TRY(CopyPoseWithNodes(pose, std::move(renamed), keptFits ? kept->index : nullptr));
    // Only once the result is made, so that a failed allocation of the optional index never stands
    // in the way of the result's own.
    if (kept == nullptr && table != nullptr && nodes.GetCount() >= kIndexedNodeCount)
      RenamedIndex::Keep(*association, result->GetNodeTransformArray());
    return result;
  }

  Result<std::int64_t> FindSkeletonMatchingCount(const CharacterBodyPartRef& bodyPart,
                                                 const CharacterPoseRef& pose,
                                                 bool recursive) const noexcept override {
    return MatchingCount(
        bodyPart, pose, recursive,
        [](const CharacterBodyPart& part) -> const BaseArray<Uuid>& { return part.GetSkeleton(); });
  }
  Result<std::int64_t> FindControllerMatchingCount(const CharacterBodyPartRef& bodyPart,
                                                   const CharacterPoseRef& pose,
                                                   bool recursive) const noexcept override {
    return MatchingCount(bodyPart, pose, recursive,
                         [](const CharacterBodyPart& part) -> const BaseArray<Uuid>& {
                           return part.GetControllers();
                         });
  }

  // No data: nothing to copy or describe.
  Result<void> CopyFrom(const Object& source) noexcept override {
    if (SameClass<RetargetBaseHelperImpl>(source) == nullptr)
      return IllegalArgumentError("Illegal argument: copy from another class.");
    return OK;
  }
  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  static Result<void> Describe(Describer&, RetargetBaseHelperImpl*) noexcept { return OK; }
};

constexpr Id kInterfaces[] = {RetargetBaseHelper::kInterfaceId};
const StaticFunction kStatics[] = {
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<RetargetBaseHelperImpl>)},
};

}  // namespace

const ClassRecord kRetargetBaseHelperClass{RetargetBaseHelper::kClassId,
                                           "RetargetBaseHelperImpl",
                                           "retargetbasehelper_impl",
                                           &CreateInstance<RetargetBaseHelperImpl>,
                                           &DescribeClass<RetargetBaseHelperImpl>,
                                           {},
                                           kInterfaces,
                                           kStatics};

}  // namespace tarni::ca
