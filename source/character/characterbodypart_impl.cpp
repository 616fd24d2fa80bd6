#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <typeinfo>

#include "character/lookups.h"
#include "character/nodeinfocomponent.h"
#include "module/units.h"
#include "tarni/bitset.h"
#include "tarni/characterbodypart.h"

namespace tarni::ca {
namespace {

// The attribute-transfer-mode enumeration as a framework data type: a 32-bit value that prints by
// member name.
using Mode = BODYPARTTRANSFERATTRIBUTEMODE;

Mode* ModeAt(void* base, std::int64_t stride, std::int64_t index) noexcept {
  return reinterpret_cast<Mode*>(static_cast<char*>(base) + stride * index);
}
const Mode* ModeAt(const void* base, std::int64_t stride, std::int64_t index) noexcept {
  return reinterpret_cast<const Mode*>(static_cast<const char*>(base) + stride * index);
}

void ConstructModes(void* dst, std::int64_t dstStride, std::int64_t count) noexcept {
  for (std::int64_t i = 0; i < count; ++i) *ModeAt(dst, dstStride, i) = Mode::BYNAME;
}
void DestructModes(void*, std::int64_t, std::int64_t) noexcept {}
void CopyModes(void* dst, std::int64_t dstStride, const void* src, std::int64_t srcStride,
               std::int64_t count) noexcept {
  for (std::int64_t i = 0; i < count; ++i) *ModeAt(dst, dstStride, i) = *ModeAt(src, srcStride, i);
}
void MoveModes(void* dst, std::int64_t dstStride, void* src, std::int64_t srcStride,
               std::int64_t count) noexcept {
  // The ranges may overlap: copy backwards when the destination lies after the source.
  if (static_cast<char*>(dst) > static_cast<char*>(src)) {
    for (std::int64_t i = count - 1; i >= 0; --i)
      *ModeAt(dst, dstStride, i) = *ModeAt(src, srcStride, i);
  } else {
    CopyModes(dst, dstStride, src, srcStride, count);
  }
}
void* NewMode() noexcept { return New<Mode>(Mode::BYNAME); }
void* CopyMode(const void* src) noexcept { return New<Mode>(*static_cast<const Mode*>(src)); }
void FreeMode(void* value) noexcept { Delete(static_cast<Mode*>(value)); }
void MoveMode(void** dst, void** src) noexcept {
  FreeMode(*dst);
  *dst = *src;
  *src = nullptr;
}
std::int64_t ModeValue(const void* value) noexcept {
  return static_cast<std::int64_t>(*static_cast<const Mode*>(value));
}
void ModeText(TextBuilder& out, const void* value, const FormatStatement*) noexcept;
bool ModesEqual(const void* a, const void* b) noexcept { return ModeValue(a) == ModeValue(b); }
CompareResult CompareModes(const void* a, const void* b) noexcept {
  const std::int64_t x = ModeValue(a), y = ModeValue(b);
  return x < y ? CompareResult::kLess : x > y ? CompareResult::kGreater : CompareResult::kEqual;
}
std::uint64_t HashMode(const void* value) noexcept {
  return static_cast<std::uint64_t>(ModeValue(value));
}

constexpr EnumMember kModeMembers[] = {
    {static_cast<std::int64_t>(Mode::BYID), "BYID"},
    {static_cast<std::int64_t>(Mode::BYNAME), "BYNAME"},
    {static_cast<std::int64_t>(Mode::BOTH), "BOTH"},
};

const DataType kModeType{
    kBodyPartTransferAttributeModeTypeId,
    "BODYPARTTRANSFERATTRIBUTEMODE",
    sizeof(Mode),
    {&ConstructModes, &DestructModes, &CopyModes, &CopyModes, &MoveModes, &NewMode, &CopyMode,
     &FreeMode, &MoveMode, &ModeText, &ModesEqual, &CompareModes, &HashMode, nullptr},
    kModeMembers};

void ModeText(TextBuilder& out, const void* value, const FormatStatement*) noexcept {
  AppendEnumText(out, kModeType, ModeValue(value));
}

bool IsModeMember(Mode mode) noexcept {
  for (const EnumMember& member : kModeMembers)
    if (member.value == static_cast<std::int64_t>(mode)) return true;
  return false;
}

// The labels of the setting lines of the text dump, in flag order.
constexpr const char* kSettingLabels[] = {
    "_settings : SKELTRANSFERPOS",        "_settings : SKELTRANSFERROT",
    "_settings : SKELTRANSFERSCALE",      "_settings : EXPOSEINSOLVER",
    "_settings : SKELTRANSFERATTRIBUTES",
};

// The text of a dump, collected a line at a time. A dump has no error channel: when a line cannot
// be added, the text collected so far is dropped and the dump goes on from an empty text with the
// next line, so what is left is always whole lines, never a value without its label.
class DumpText {
 public:
  DumpText& Add(std::string_view piece) noexcept {
    if (_lineLost || piece.empty()) return *this;
    const Int needed = _text.GetCount() + static_cast<Int>(piece.size());
    if (needed > _text.GetCapacity() &&
        _text.EnsureCapacity(std::max({needed, _text.GetCapacity() * 2, Int{256}})).has_error()) {
      LoseLine();
      return *this;
    }
    // The room is there: appending cannot fail any more.
    (void)_text.AppendAll(std::span<const char>(piece.data(), piece.size()));
    return *this;
  }
  DumpText& Add(const String& piece) noexcept { return Add(piece.GetView()); }
  DumpText& AddInt(Int value) noexcept {
    char digits[24];
    const auto written = std::to_chars(digits, digits + sizeof(digits), value);
    return Add(std::string_view(digits, static_cast<std::size_t>(written.ptr - digits)));
  }
  // A piece the framework renders into a text builder (a Uuid, an enumeration member), which is
  // never empty: rendered on its own, it comes back empty only when it could not get its memory.
  template <typename Render>
  DumpText& AddRendered(Render render) noexcept {
    if (_lineLost) return *this;
    TextBuilder piece;
    render(piece);
    if (piece.GetView().empty()) {
      LoseLine();
      return *this;
    }
    return Add(piece.GetView());
  }
  // Ends the line; a lost line ends here too, and the next one is collected again.
  void EndLine() noexcept {
    Add("\n");
    _lineLost = false;
  }
  // The collected text (the empty string when even its copy cannot be made).
  String ToString() const noexcept {
    auto made = String::Make(
        std::string_view(_text.GetFirst(), static_cast<std::size_t>(_text.GetCount())));
    return made ? std::move(made).value() : String();
  }

 private:
  void LoseLine() noexcept {
    _text.Flush();
    _lineLost = true;
  }
  BaseArray<char> _text;
  bool _lineLost = false;
};

// A hierarchy child that is not a body part cannot answer for its subtree.
Error ForeignChildError(const char* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept {
  return NullReferenceError("Body-part hierarchy holds a node that is not a body part.", file,
                            line);
}

class CharacterBodyPartImpl final
    : public HierarchyComponent<NodeInfoComponent<CharacterBodyPart>> {
  TARNI_IMPLEMENTS(CharacterBodyPartImpl, CharacterBodyPart)
 public:
  // The settings hold exactly one word, all clear but SKELTRANSFERROT; set through the interface
  // like any later change.
  Result<void> Init() noexcept override {
    if (_settings.Init(1).has_error()) return OutOfMemoryError();
    return SetSettingValue(BodyPartSettingFlag::SKELTRANSFERROT, true);
  }

  Result<void> SetIdentifier(const InternedId& identifier) noexcept override {
    _identifier = identifier;
    return OK;
  }
  const InternedId& GetIdentifier() const noexcept override { return _identifier; }

  Result<void> SetControllers(const BaseArray<Uuid>& list) noexcept override {
    return ReplaceList(_controllers, list);
  }
  const BaseArray<Uuid>& GetControllers() const noexcept override { return _controllers; }
  Result<BaseArray<Uuid>> GetHierarchyControllers() const noexcept override {
    return CollectHierarchy(&CharacterBodyPart::GetControllers);
  }
  Result<Int> GetControllersCount(bool hierarchy) const noexcept override {
    Int count = _controllers.GetCount();
    if (hierarchy) count += TARNI_TRY(CountChildren(&CharacterBodyPart::GetControllersCount));
    return count;
  }

  Result<void> SetSettingValue(BodyPartSettingFlag flag, bool value) noexcept override {
    _settings.Set(static_cast<std::uint64_t>(flag), value);
    return OK;
  }
  bool GetSettingValue(BodyPartSettingFlag flag) const noexcept override {
    return _settings.Get(static_cast<std::uint64_t>(flag));
  }
  void SetAttributeTransferMode(Mode mode) noexcept override {
    if (IsModeMember(mode)) _attributeTransferMode = mode;
  }
  Mode GetAttributeTransferMode() const noexcept override { return _attributeTransferMode; }

  Result<void> SetSkeleton(const BaseArray<Uuid>& list) noexcept override {
    return ReplaceList(_skeletonNodes, list);
  }
  const BaseArray<Uuid>& GetSkeleton() const noexcept override { return _skeletonNodes; }
  Result<BaseArray<Uuid>> GetHierarchySkeleton() const noexcept override {
    return CollectHierarchy(&CharacterBodyPart::GetSkeleton);
  }
  Result<void> ClearSkeleton(bool hierarchy) noexcept override {
    _skeletonNodes.Reset();
    if (!hierarchy) return OK;
    BaseArray<Ref<HierarchyObject>> children = TARNI_TRY(GetChildren());
    for (const Ref<HierarchyObject>& child : children) {
      CharacterBodyPartRef part = Cast<CharacterBodyPart>(child);
      if (!part) return ForeignChildError();
      TARNI_TRY(part->ClearSkeleton(true));
    }
    return OK;
  }
  Result<Int> GetSkeletonCount(bool hierarchy) const noexcept override {
    Int count = _skeletonNodes.GetCount();
    if (hierarchy) count += TARNI_TRY(CountChildren(&CharacterBodyPart::GetSkeletonCount));
    return count;
  }

  Result<void> SetSkeletonKeywords(const BaseArray<String>& list) noexcept override {
    return ReplaceList(_skeletonKeywords, list);
  }
  Result<void> SetSkeletonDiscardKeywords(const BaseArray<String>& list) noexcept override {
    return ReplaceList(_skeletonDiscardKeywords, list);
  }
  const BaseArray<String>& GetSkeletonKeywords() const noexcept override {
    return _skeletonKeywords;
  }
  const BaseArray<String>& GetSkeletonDiscardKeywords() const noexcept override {
    return _skeletonDiscardKeywords;
  }

  Result<CharacterBodyPartRef> FindBodyPartByID(const InternedId& id) const noexcept override {
    return FindInHierarchy([&id](const CharacterBodyPart& part) noexcept {
      const InternedId& own = part.GetIdentifier();
      return own == id || (!own.IsEmpty() && !id.IsEmpty() && own.GetText() == id.GetText());
    });
  }
  Result<CharacterBodyPartRef> FindBodyPartByName(const String& name) const noexcept override {
    return FindInHierarchy(
        [&name](const CharacterBodyPart& part) noexcept { return part.GetName() == name; });
  }

  String ToString(const FormatStatement* format = nullptr) const noexcept override {
    DumpText out;
    out.Add("Name : ").Add(_name).EndLine();
    out.Add("Identifier : ").Add(_identifier.GetText()).EndLine();
    AppendUuidList(out, "Controllers (", _controllers, format);
    AppendUuidList(out, "Skeleton Nodes (", _skeletonNodes, format);
    AppendStringList(out, "Skeleton Keywords (", _skeletonKeywords);
    AppendStringList(out, "Skeleton Discard Keywords (", _skeletonDiscardKeywords);
    std::uint32_t flag = 0;
    for (const char* label : kSettingLabels) {
      const bool value = GetSettingValue(static_cast<BodyPartSettingFlag>(flag++));
      out.Add(label).Add(value ? kTrueText : kFalseText).EndLine();
    }
    out.Add("_attributeTransferMode").AddRendered([this](TextBuilder& piece) noexcept {
      AppendEnumText(piece, kModeType, static_cast<std::int64_t>(_attributeTransferMode));
    });
    out.EndLine();
    return out.ToString();
  }

  // The node-info fields, the sub-hierarchy (cloned, the copy becomes a new root), then the
  // body-part fields in declaration order. A list that cannot get its memory fails the whole copy
  // with the out-of-memory error; the fields copied before it keep their new values.
  Result<void> CopyFrom(const Object& source) noexcept override {
    const auto* other = SameClass<CharacterBodyPartImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: copy from another class.");
    CopyNodeInfoFrom(*other);
    TARNI_TRY(CopyHierarchyFrom(*other));
    if (!(_identifier == other->_identifier)) _identifier = other->_identifier;
    _name = other->_name;
    TARNI_TRY(ReplaceList(_controllers, other->_controllers));
    TARNI_TRY(ReplaceList(_skeletonNodes, other->_skeletonNodes));
    TARNI_TRY(ReplaceList(_skeletonKeywords, other->_skeletonKeywords));
    TARNI_TRY(ReplaceList(_skeletonDiscardKeywords, other->_skeletonDiscardKeywords));
    if (_settings.CopyFrom(other->_settings).has_error()) return OutOfMemoryError();
    _attributeTransferMode = other->_attributeTransferMode;
    return OK;
  }

  Result<void> DescribeIO(Describer& describer) noexcept override {
    return Describe(describer, this);
  }
  // The node-info members, then the body-part fields in declaration order. `_name` is declared
  // with its address like every member: it is the only way a host can fill it.
  static Result<void> Describe(Describer& describer, CharacterBodyPartImpl* self) noexcept {
    TARNI_TRY(DescribeNodeInfo(describer, self));
    TARNI_TRY(describer.Member({"_identifier",
                                types::kInternedId,
                                kDescribeNone,
                                {},
                                self ? &self->_identifier : nullptr}));
    TARNI_TRY(describer.Member(
        {"_name", types::kString, kDescribeNone, {}, self ? &self->_name : nullptr}));
    TARNI_TRY(describer.Member(
        {"_controllers", types::kUuid, kDescribeArray, {}, self ? &self->_controllers : nullptr}));
    TARNI_TRY(describer.Member({"_skeletonNodes",
                                types::kUuid,
                                kDescribeArray,
                                {},
                                self ? &self->_skeletonNodes : nullptr}));
    TARNI_TRY(describer.Member({"_skeletonKeywords",
                                types::kString,
                                kDescribeArray,
                                {},
                                self ? &self->_skeletonKeywords : nullptr}));
    TARNI_TRY(describer.Member({"_skeletonDiscardKeywords",
                                types::kString,
                                kDescribeArray,
                                {},
                                self ? &self->_skeletonDiscardKeywords : nullptr}));
    TARNI_TRY(describer.Member(
        {"_settings", types::kBitSet, kDescribeNone, {}, self ? &self->_settings : nullptr}));
    return describer.Member({"_attributeTransferMode",
                             kBodyPartTransferAttributeModeTypeId,
                             kDescribeNone,
                             {},
                             self ? &self->_attributeTransferMode : nullptr});
  }

 private:
  CharacterBodyPartRef Self() const noexcept {
    return CharacterBodyPartRef(const_cast<CharacterBodyPartImpl*>(this));
  }

  // One list of every body part of the subtree, in walk order.
  Result<BaseArray<Uuid>> CollectHierarchy(const BaseArray<Uuid>& (CharacterBodyPart::*list)()
                                               const noexcept) const noexcept {
    BaseArray<Uuid> result;
    TARNI_TRY(WalkHierarchy(
        Self(),
        [&](const CharacterBodyPartRef& part, CharacterBodyPart*, Int) noexcept -> Result<bool> {
          if (!part) return ForeignChildError();
          TARNI_TRY(result.AppendAll(((*part).*list)().AsSpan()));
          return true;
        }));
    return result;
  }

  // The first body part of the subtree, in walk order, that `matches`; empty when none does.
  template <typename Matches>
  Result<CharacterBodyPartRef> FindInHierarchy(Matches matches) const noexcept {
    CharacterBodyPartRef found;
    TARNI_TRY(WalkHierarchy(
        Self(),
        [&](const CharacterBodyPartRef& part, CharacterBodyPart*, Int) noexcept -> Result<bool> {
          if (!part) return ForeignChildError();
          if (!matches(*part)) return true;
          found = part;
          return false;
        }));
    return found;
  }

  // The sum of `count(true)` over the direct children: each child answers for its own subtree.
  Result<Int> CountChildren(Result<Int> (CharacterBodyPart::*count)(bool)
                                const noexcept) const noexcept {
    BaseArray<Ref<HierarchyObject>> children = TARNI_TRY(GetChildren());
    Int total = 0;
    for (const Ref<HierarchyObject>& child : children) {
      CharacterBodyPartRef part = Cast<CharacterBodyPart>(child);
      if (!part) return ForeignChildError();
      total += TARNI_TRY(((*part).*count)(true));
    }
    return total;
  }

  static void AppendUuidList(DumpText& out, const char* heading, const BaseArray<Uuid>& list,
                             const FormatStatement* format) noexcept {
    out.Add(heading).AddInt(list.GetCount()).Add(") :").EndLine();
    for (const Uuid& id : list) {
      out.Add("\t").AddRendered(
          [&id, format](TextBuilder& piece) noexcept { id.AppendText(piece, format); });
      out.EndLine();
    }
  }
  static void AppendStringList(DumpText& out, const char* heading,
                               const BaseArray<String>& list) noexcept {
    out.Add(heading).AddInt(list.GetCount()).Add(") :").EndLine();
    for (const String& text : list) out.Add("\t").Add(text).EndLine();
  }

  InternedId _identifier;
  String _name;
  BaseArray<Uuid> _controllers;
  BaseArray<Uuid> _skeletonNodes;
  BaseArray<String> _skeletonKeywords;
  BaseArray<String> _skeletonDiscardKeywords;
  BitSet _settings;
  Mode _attributeTransferMode = Mode::BYNAME;  // deliberately not the first member
};

constexpr Id kInterfaces[] = {CharacterBodyPart::kInterfaceId, CharacterNodeInfo::kInterfaceId,
                              HierarchyObject::kInterfaceId};
constexpr Id kBases[] = {HierarchyObject::kClassId, CharacterNodeInfo::kClassId};
const StaticFunction kStatics[] = {
    {"CreateBodyPart", reinterpret_cast<void (*)()>(&CreateBodyPart)},
    {"DescribeIO", reinterpret_cast<void (*)()>(&DescribeClass<CharacterBodyPartImpl>)},
};

}  // namespace

BodyPartLink BodyPartLinkOf(const CharacterBodyPart& part) noexcept {
  // The class is final: an equal type is exactly this class, whose members are read without the
  // virtual calls.
  if (typeid(part) != typeid(CharacterBodyPartImpl)) {
    const HierarchyObject* parent = part.GetParent();
    return {&part.GetIdentifier(),
            parent ? Cast<CharacterBodyPart>(static_cast<const Object*>(parent)) : nullptr};
  }
  const auto& own = static_cast<const CharacterBodyPartImpl&>(part);
  const HierarchyObject* parent = own.GetParent();
  if (parent == nullptr) return {&own.GetIdentifier(), nullptr};
  // A parent of this class is found from its most derived object, which the cast to void gives
  // without the search through the interface list.
  if (typeid(*parent) == typeid(CharacterBodyPartImpl))
    return {&own.GetIdentifier(),
            static_cast<const CharacterBodyPartImpl*>(dynamic_cast<const void*>(parent))};
  return {&own.GetIdentifier(), Cast<CharacterBodyPart>(static_cast<const Object*>(parent))};
}

const ClassRecord kCharacterBodyPartClass{CharacterBodyPart::kClassId,
                                          "CharacterBodyPartImpl",
                                          "characterbodypart_impl",
                                          &CreateInstance<CharacterBodyPartImpl>,
                                          &DescribeClass<CharacterBodyPartImpl>,
                                          kBases,
                                          kInterfaces,
                                          kStatics};

// The mode's data type goes in before the class whose description names it, and out after it.
Result<void> RegisterCharacterBodyPartUnit() noexcept {
  TARNI_TRY(RegisterDataType(kModeType));
  if (auto registered = RegisterObjectClass<kCharacterBodyPartClass>(); !registered) {
    UnregisterDataType(kModeType.id);
    return registered;
  }
  return OK;
}

void UnregisterCharacterBodyPartUnit() noexcept {
  UnregisterObjectClass<kCharacterBodyPartClass>();
  UnregisterDataType(kModeType.id);
}

}  // namespace tarni::ca
