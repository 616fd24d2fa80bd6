// Every public operation of the module, run with each of its allocations failing in turn: the
// error must be the out-of-memory error (or the documented null-reference error of an object that
// could not be made), the objects must be left in the state their contracts name, and no reference
// handed in may be kept or lost. Operations that cannot fail are shown to allocate nothing.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/faultwalk.h"
#include "support/samplecharacter.h"
#include "tarni/animationcommands.h"
#include "tarni/ca.h"
#include "tarni/datatype.h"
#include "tarni/describe.h"
#include "tarni/module.h"
#include "tarni/retargetbasehelper.h"

namespace tarni {
namespace {

using namespace tarni::literals;
using testing::ErrorOf;
using testing::FaultCase;
using testing::IsFullTextLessOneStretch;
using testing::kAbsorbed;
using testing::kNoInstance;
using testing::Must;
using testing::Text;
using testing::U;

std::string View(const String& text) { return std::string(text.GetView()); }

// Walks each case and expects every one to reach at least one allocation.
void WalkAll(const std::vector<FaultCase>& cases, const std::vector<const Object*>& watched) {
  for (const FaultCase& item : cases)
    EXPECT_GT(testing::WalkFaults(item, watched), 0) << item.name << " allocates nothing";
}

// A dump case: `dump` prints the object; a failed allocation may only cut one stretch out.
FaultCase DumpCase(std::string name, std::function<void()> setup, std::function<String()> dump) {
  auto full = std::make_shared<std::string>();
  auto text = std::make_shared<std::string>();
  return {
      std::move(name),
      [setup, dump, full] {
        setup();
        *full = View(dump());
      },
      [dump, text] {
        *text = View(dump());
        return Error();
      },
      [full, text](const Error&) { EXPECT_TRUE(IsFullTextLessOneStretch(*text, *full)) << *text; },
      kAbsorbed};
}

// The hierarchy under `node` as "name(child child)", every node's name followed by its body-part
// list counts; "!" marks a child whose parent link does not point back.
std::string Shape(const HierarchyObject* node) {
  const Object* object = node;
  std::string out = "?";
  if (const auto* info = Cast<CharacterNodeInfo>(object)) out = View(info->GetName());
  if (const auto* part = Cast<CharacterBodyPart>(object)) {
    out += "[" + std::to_string(part->GetControllers().GetCount()) + "," +
           std::to_string(part->GetSkeleton().GetCount()) + "," +
           std::to_string(part->GetSkeletonKeywords().GetCount()) + "," +
           std::to_string(part->GetSkeletonDiscardKeywords().GetCount()) + "]";
  }
  if (node->GetChildCount() == 0) return out;
  out += '(';
  for (Int i = 0; i < node->GetChildCount(); ++i) {
    const Ref<HierarchyObject> child = node->GetChild(i);
    out += (i > 0 ? " " : "") + std::string(child->GetParent() == node ? "" : "!") +
           Shape(child.Get());
  }
  return out + ')';
}
template <typename R>
std::string ShapeOf(const R& root) {
  return root ? Shape(root.Get()) : "null";
}

BaseArray<Uuid> Uuids(std::initializer_list<std::uint64_t> lows) {
  BaseArray<Uuid> list;
  for (std::uint64_t low : lows) EXPECT_TRUE(list.Append(U(low)));
  return list;
}
BaseArray<String> Words(std::initializer_list<std::string_view> words) {
  BaseArray<String> list;
  for (std::string_view word : words) EXPECT_TRUE(list.Append(Text(word)));
  return list;
}

// The skeleton "Hips(Spine(LeftArm LeftForeArm) RightLeg)" in pre-order, plus a loose node.
struct Skeleton {
  std::vector<CharacterTreeRef> nodes;
  CharacterTreeRef loose;
  const CharacterTreeRef& Root() const { return nodes[0]; }
};
Skeleton MakeSkeleton(std::uint64_t first = 100) {
  Skeleton s;
  const char* names[] = {"Hips", "Spine", "LeftArm", "LeftForeArm", "RightLeg"};
  const int parents[] = {-1, 0, 1, 1, 0};
  for (int i = 0; i < 5; ++i) {
    s.nodes.push_back(Must(CreateTree(U(first + i), Text(names[i]), i != 3)));
    if (parents[i] >= 0) {
      EXPECT_TRUE(s.nodes[parents[i]]->InsertChild(s.nodes[i]));
    }
  }
  s.loose = Must(CreateTree(U(first + 9), "Loose"_s, true));
  return s;
}

// Body parts "Body(Arm(Hand) Leg)" in pre-order, with lists, keywords and a loose part.
struct Parts {
  std::vector<CharacterBodyPartRef> parts;
  CharacterBodyPartRef loose;
  const CharacterBodyPartRef& Root() const { return parts[0]; }
};
Parts MakeParts(std::uint64_t controllers = 1, std::uint64_t skeleton = 100) {
  Parts p;
  const char* names[] = {"Body", "Arm", "Hand", "Leg"};
  const char* identifiers[] = {"body", "arm", "hand", "leg"};
  const int parents[] = {-1, 0, 1, 0};
  const char* keywords[] = {"hips", "arm", "forearm&&left", "leg"};
  for (int i = 0; i < 4; ++i) {
    CharacterBodyPartRef part =
        Must(CreateBodyPart(testing::Ident(identifiers[i]), Text(names[i])));
    const std::uint64_t c = controllers + 10 * i, s = skeleton + i;
    EXPECT_TRUE(part->SetControllers(i == 3 ? Uuids({}) : Uuids({c, c + 1})));
    EXPECT_TRUE(part->SetSkeleton(Uuids({s})));
    EXPECT_TRUE(part->SetSkeletonKeywords(Words({keywords[i]})));
    EXPECT_TRUE(part->SetSkeletonDiscardKeywords(i == 1 ? Words({"fore"}) : Words({})));
    if (parents[i] >= 0) {
      EXPECT_TRUE(p.parts[parents[i]]->InsertChild(part));
    }
    p.parts.push_back(part);
  }
  p.loose = Must(CreateBodyPart(testing::Ident("loose"), "Loose"_s));
  return p;
}

template <typename T>
const Object* ObjectOf(const Ref<T>& ref) {
  return ref.ObjectOf();
}
template <typename T>
const Object* ObjectOf(const CowRef<T>& ref) {
  return ref.GetRef().ObjectOf();
}
template <typename T>
void WatchAll(std::vector<const Object*>& watched, const std::vector<T>& refs) {
  for (const T& ref : refs) watched.push_back(ObjectOf(ref));
}

TEST(ModuleOutOfMemory, NodesPosesTreesAndBodyParts) {
  struct World {
    std::vector<const Object*> watched;
    Uuid id;
    CharacterNodeTransformRef nodeCopy;
    BaseArray<CharacterNodeTransformRef> nodes;
    CharacterPoseRef pose, poseCopy;
    Skeleton skeleton;
    Parts parts;
    std::string treeShape, partsShape;
    BaseArray<Uuid> uuids;
    BaseArray<String> words;
  } w;
  const Matrix global = testing::Turn(0.3, {1, 2, 3});
  const Matrix parent = testing::Turn(-0.2, {0, 0, 1});
  auto fresh = [&] {
    w = World();
    w.id = U(7);
    for (int i = 0; i < 5; ++i)
      EXPECT_TRUE(w.nodes.Append(Must(CreateNodeTransform(U(10 + i), global, parent))));
    w.pose = testing::ChainPose(2, 50, 0.1);
    w.skeleton = MakeSkeleton();
    w.parts = MakeParts();
    w.treeShape = ShapeOf(w.skeleton.Root());
    w.partsShape = ShapeOf(w.parts.Root());
    w.uuids = Uuids({7, 8, 9});
    w.words = Words({"left", "right", "mid"});
    WatchAll(w.watched, w.skeleton.nodes);
    WatchAll(w.watched, w.parts.parts);
    WatchAll(w.watched, std::vector<CharacterNodeTransformRef>(w.nodes.begin(), w.nodes.end()));
    w.watched.push_back(w.skeleton.loose.ObjectOf());
  };
  auto noCheck = [](const Error&) {};
  // Read-only walks and failed copies leave both hierarchies as they were.
  auto unchanged = [&](const Error&) {
    EXPECT_EQ(ShapeOf(w.skeleton.Root()), w.treeShape);
    EXPECT_EQ(ShapeOf(w.parts.Root()), w.partsShape);
  };
  auto armPart = [&]() -> CharacterBodyPart& { return *w.parts.parts[1]; };
  const std::vector<FaultCase> cases = {
      {"CreateNodeTransform", fresh,
       [&] { return ErrorOf(CreateNodeTransform(w.id, global, parent)); }, noCheck, kNoInstance},
      // The pose is left empty, never partly filled, and keeps none of the new nodes.
      {"CharacterPose::SetNodeTransformArray", fresh,
       [&] { return ErrorOf(w.pose.MakeWritable().value()->SetNodeTransformArray(w.nodes)); },
       [&](const Error&) { EXPECT_EQ(w.pose->GetNodeTransformCount(), 0); }},
      // A failed clone on write leaves the reference on the shared original, unchanged.
      {"CharacterPose clone on write",
       [&] {
         fresh();
         EXPECT_TRUE(w.pose.MakeWritable().value()->SetNodeTransformArray(w.nodes));
         w.poseCopy = w.pose;
       },
       [&] { return ErrorOf(w.poseCopy.MakeWritable()); },
       [&](const Error&) {
         EXPECT_EQ(w.poseCopy, w.pose);
         EXPECT_EQ(w.pose->GetNodeTransformCount(), 5);
       },
       kNoInstance},
      // A pose large enough for a lookup index searches without one when the index gets no
      // memory: the lookup never fails.
      {"CharacterPose::GetNodeTransformByID (indexed pose)",
       [&] {
         fresh();
         w.pose = testing::ChainPose(12, 50, 0.1);
         w.id = U(57);
       },
       [&] {
         const Result<CharacterNodeTransformRef> found = w.pose->GetNodeTransformByID(w.id);
         if (found) w.nodeCopy = found.value();
         return ErrorOf(found);
       },
       [&](const Error&) {
         EXPECT_EQ(w.nodeCopy, w.pose->GetNodeTransformArray()[7]);
         w.nodeCopy.Reset();
       },
       kAbsorbed},
      DumpCase("CharacterPose::ToString", fresh, [&] { return w.pose->ToString(); }),
      {"CharacterTree::GetHiearchyCount", fresh,
       [&] { return ErrorOf(w.skeleton.Root()->GetHiearchyCount(true)); }, unchanged},
      // A child that could not be inserted stays a root of its own.
      {"CharacterTree::InsertChild", fresh,
       [&] { return ErrorOf(w.skeleton.nodes[3]->InsertChild(w.skeleton.loose, 1)); },
       [&](const Error& error) {
         unchanged(error);
         EXPECT_EQ(w.skeleton.loose->GetParent(), nullptr);
       }},
      {"CharacterBodyPart::SetControllers", fresh,
       [&] { return ErrorOf(armPart().SetControllers(w.uuids)); },
       [&](const Error&) { EXPECT_EQ(armPart().GetControllers().GetCount(), 0); }},
      {"CharacterBodyPart::SetSkeletonKeywords", fresh,
       [&] { return ErrorOf(armPart().SetSkeletonKeywords(w.words)); },
       [&](const Error&) { EXPECT_EQ(armPart().GetSkeletonKeywords().GetCount(), 0); }},
      {"CharacterBodyPart::GetHierarchySkeleton", fresh,
       [&] { return ErrorOf(w.parts.Root()->GetHierarchySkeleton()); }, unchanged},
      // The walk empties body parts in pre-order until it fails: the root always, then a prefix.
      {"CharacterBodyPart::ClearSkeleton(hierarchy)", fresh,
       [&] { return ErrorOf(w.parts.Root()->ClearSkeleton(true)); },
       [&](const Error&) {
         EXPECT_EQ(w.parts.Root()->GetSkeleton().GetCount(), 0);
         bool reached = true;
         for (const CharacterBodyPartRef& part : w.parts.parts) {
           const bool cleared = part->GetSkeleton().IsEmpty();
           EXPECT_TRUE(cleared || part->GetSkeleton().GetCount() == 1);
           EXPECT_TRUE(reached || !cleared) << "a body part after the failure was emptied";
           reached = reached && cleared;
         }
       }},
      {"CharacterBodyPart deep clone", fresh, [&] { return ErrorOf(w.parts.Root()->Clone()); },
       unchanged, kNoInstance},
      DumpCase("CharacterBodyPart::ToString", fresh, [&] { return armPart().ToString(); }),
  };
  WalkAll(cases, w.watched);
}

TEST(ModuleOutOfMemory, DefinitionsAssociationsSettingsAndCopies) {
  struct World {
    std::vector<const Object*> watched;
    Skeleton skeleton, otherSkeleton;
    Parts parts, otherParts;
    std::string treeShape, partsShape;
    CharacterPoseRef rest, otherPose;
    CharacterDefinitionRef definition, otherDefinition;
    CharacterAssociationRef association, associationCopy, otherAssociation;
    CharacterAssociation* writable = nullptr;
    std::string associationText, otherAssociationText;
    Uuid a, b, c, d;
    InternedId x, y, p, q;
    CharacterBodyPartSolverSettingRef extra;
    std::vector<CharacterBodyPartSolverSettingRef> settings;
    CharacterSolverConfigurationRef config, otherConfig;
    std::string configText, otherConfigText;
    Ref<CommandData> data, otherData;
  } w;
  auto fresh = [&] {
    w = World();
    w.skeleton = MakeSkeleton();
    w.parts = MakeParts();
    w.treeShape = ShapeOf(w.skeleton.Root());
    w.partsShape = ShapeOf(w.parts.Root());
    w.rest = testing::ChainPose(5, 100, 0.1);
    w.definition = testing::MakeDefinition(w.rest, w.parts.Root(), w.skeleton.Root());
    w.association = CharacterAssociationRef(
        Must(CreateObject<CharacterAssociation>(CharacterAssociation::kClassId)));
    w.a = U(1), w.b = U(2), w.c = U(3), w.d = U(4);
    w.x = testing::Ident("x"), w.y = testing::Ident("y");
    w.p = testing::Ident("p"), w.q = testing::Ident("q");
    EXPECT_TRUE(w.association.MakeWritable().value()->AssociateUuid(w.a, w.b));
    EXPECT_TRUE(w.association.MakeWritable().value()->AssociateId(w.x, w.y));
    w.associationText = View(w.association->ToString());
    w.extra = testing::MakeSetting(testing::Ident("extra"), 0.25, false, true);
    w.config =
        Must(CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId));
    EXPECT_TRUE(w.config->Setup(w.definition, w.definition, w.association));
    for (const char* name : {"body", "arm", "hand", "leg"}) {
      w.settings.push_back(testing::MakeSetting(testing::Ident(name), 0.5, false, false));
      EXPECT_TRUE(w.config->SetBodyPartSetting(w.settings.back()));
    }
    w.configText = View(w.config->ToString());
    // The configuration shares the association; the cases write to a copy of their own.
    w.writable = w.association.MakeWritable().value();
    // What copies are made into: objects that already hold state of their own.
    w.otherSkeleton = MakeSkeleton(300);
    w.otherParts = MakeParts(500, 600);
    w.otherPose = testing::ChainPose(2, 300, 0.1);
    w.otherDefinition =
        testing::MakeDefinition(w.otherPose, w.otherParts.Root(), w.otherSkeleton.Root());
    w.otherAssociation = CharacterAssociationRef(
        Must(CreateObject<CharacterAssociation>(CharacterAssociation::kClassId)));
    EXPECT_TRUE(w.otherAssociation.MakeWritable().value()->AssociateUuid(w.c, w.d));
    EXPECT_TRUE(w.otherAssociation.MakeWritable().value()->AssociateId(w.p, w.q));
    w.otherAssociationText = View(w.otherAssociation->ToString());
    w.otherConfig =
        Must(CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId));
    EXPECT_TRUE(w.otherConfig->Setup(w.otherDefinition, w.otherDefinition, w.otherAssociation));
    EXPECT_TRUE(w.otherConfig->SetBodyPartSetting(w.extra));
    w.otherConfigText = View(w.otherConfig->ToString());
    w.data = Must(CreateCommandData(kAnimationCommandDataClassId));
    EXPECT_TRUE(w.data->Set<float>(kKeyReducerStrengthId, 0.5f));
    w.otherData = Must(CreateCommandData(kAnimationCommandDataClassId));
    EXPECT_TRUE(w.otherData->Set<std::int32_t>(kProjectFpsId, 24));
    for (const CharacterNodeTransformRef& node : w.rest->GetNodeTransformArray())
      w.watched.push_back(ObjectOf(node));
    WatchAll(w.watched, w.skeleton.nodes);
    WatchAll(w.watched, w.parts.parts);
    WatchAll(w.watched, w.settings);
    for (const Object* object : {ObjectOf(w.rest), ObjectOf(w.definition), ObjectOf(w.association),
                                 ObjectOf(w.extra), ObjectOf(w.config), ObjectOf(w.data)})
      w.watched.push_back(object);
  };
  auto definitionUnchanged = [&](const Error&) {
    EXPECT_EQ(ShapeOf(w.definition->GetSkeletonTree()), w.treeShape);
    EXPECT_EQ(ShapeOf(w.definition->GetBodyPartTree()), w.partsShape);
    EXPECT_EQ(w.definition->GetSkeletonRestPose(), w.rest);
  };
  // A failed association keeps every earlier entry and never stores the second direction alone:
  // the first one may be stored, pointing at the new partner.
  auto idsKept = [&](const Error&) {
    EXPECT_EQ(w.association->GetAssociatedUuid(w.a).value(), w.b);
    EXPECT_EQ(w.association->GetAssociatedId(w.y).value(), w.x);
    EXPECT_EQ(w.association->GetAssociatedId(w.q).error().GetMessage(),
              "No value associated to this Uuid");
    const auto first = w.association->GetAssociatedId(w.p);
    EXPECT_TRUE(!first || first.value() == w.q);
  };
  auto sourcesKept = [&](const Error&) {
    EXPECT_EQ(ShapeOf(w.skeleton.Root()), w.treeShape);
    EXPECT_EQ(ShapeOf(w.parts.Root()), w.partsShape);
    EXPECT_EQ(w.rest->GetNodeTransformCount(), 5);
    EXPECT_EQ(View(w.association->ToString()), w.associationText);
    EXPECT_EQ(View(w.config->ToString()), w.configText);
  };
  auto into = [](auto& ref) -> Object& { return *const_cast<Object*>(ObjectOf(ref)); };
  const std::vector<FaultCase> cases = {
      {"CharacterDefinition deep clone", fresh, [&] { return ErrorOf(w.definition->Clone()); },
       definitionUnchanged, kNoInstance},
      {"CharacterAssociation::AssociateUuid", fresh,
       [&] { return ErrorOf(w.writable->AssociateUuid(w.c, w.d)); },
       [&](const Error&) {
         EXPECT_EQ(w.association->GetAssociatedUuid(w.b).value(), w.a);
         EXPECT_EQ(w.association->GetAssociatedUuid(w.d).error().GetMessage(),
                   "No value associated to this Uuid");
         const auto first = w.association->GetAssociatedUuid(w.c);
         EXPECT_TRUE(!first || first.value() == w.d);
       }},
      {"CharacterAssociation::AssociateId", fresh,
       [&] { return ErrorOf(w.writable->AssociateId(w.p, w.q)); }, idsKept},
      {"CharacterAssociation clone on write",
       [&] {
         fresh();
         w.associationCopy = w.association;
       },
       [&] { return ErrorOf(w.associationCopy.MakeWritable()); },
       [&](const Error&) {
         EXPECT_EQ(w.associationCopy, w.association);
         EXPECT_EQ(View(w.association->ToString()), w.associationText);
       },
       kNoInstance},
      DumpCase("CharacterAssociation::ToString", fresh, [&] { return w.association->ToString(); }),
      // The settings are left unchanged and the new one is not kept.
      {"CharacterSolverConfiguration::SetBodyPartSetting", fresh,
       [&] { return ErrorOf(w.config->SetBodyPartSetting(w.extra)); },
       [&](const Error&) { EXPECT_EQ(View(w.config->ToString()), w.configText); }},
      {"CharacterSolverConfiguration clone", fresh, [&] { return ErrorOf(w.config->Clone()); },
       [&](const Error&) { EXPECT_EQ(View(w.config->ToString()), w.configText); }, kNoInstance},
      DumpCase("CharacterSolverConfiguration::ToString", fresh,
               [&] { return w.config->ToString(); }),
      // Copying into an object that already holds state: what was copied before the failure stays
      // copied, the source never changes, and each container is either its old self or the
      // source's copy.
      // A pose is left empty.
      {"CharacterPose CopyFrom", fresh,
       [&] { return ErrorOf(into(w.otherPose).CopyFrom(into(w.rest))); },
       [&](const Error& error) {
         sourcesKept(error);
         EXPECT_EQ(w.otherPose->GetNodeTransformCount(), 0);
       }},
      // Body parts take the node info first; the children are some of the clones.
      {"CharacterBodyPart CopyFrom", fresh,
       [&] { return ErrorOf(into(w.otherParts.parts[1]).CopyFrom(into(w.parts.Root()))); },
       [&](const Error& error) {
         sourcesKept(error);
         EXPECT_EQ(w.otherParts.parts[1]->GetName(), w.parts.Root()->GetName());
         EXPECT_LE(w.otherParts.parts[1]->GetChildCount(), 2);
       },
       kNoInstance},
      // The definition takes the node info, then each tree in turn.
      {"CharacterDefinition CopyFrom", fresh,
       [&] { return ErrorOf(w.otherDefinition->CopyFrom(*w.definition)); },
       [&](const Error& error) {
         sourcesKept(error);
         const std::string skeleton = ShapeOf(w.otherDefinition->GetSkeletonTree());
         EXPECT_EQ(skeleton, ShapeOf(w.otherSkeleton.Root()));
         EXPECT_EQ(w.otherDefinition->GetSkeletonRestPose(), w.otherPose);
       },
       kNoInstance},
      // Each table is either its old self or the source's copy, the Uuid table first.
      {"CharacterAssociation CopyFrom", fresh,
       [&] { return ErrorOf(into(w.otherAssociation).CopyFrom(into(w.association))); },
       [&](const Error& error) {
         sourcesKept(error);
         const std::string text = View(w.otherAssociation->ToString());
         const std::string mixed =
             w.associationText.substr(0, w.associationText.find("Intern")) +
             w.otherAssociationText.substr(w.otherAssociationText.find("Intern"));
         EXPECT_TRUE(text == w.otherAssociationText || text == mixed) << text;
       }},
      // A configuration that cannot copy the settings changes nothing.
      {"CharacterSolverConfiguration CopyFrom", fresh,
       [&] { return ErrorOf(w.otherConfig->CopyFrom(*w.config)); },
       [&](const Error& error) {
         sourcesKept(error);
         EXPECT_EQ(View(w.otherConfig->ToString()), w.otherConfigText);
       }},
      // Command data keeps its own values.
      {"CommandData CopyFrom", fresh, [&] { return ErrorOf(w.otherData->CopyFrom(*w.data)); },
       [&](const Error& error) {
         sourcesKept(error);
         EXPECT_TRUE(w.otherData->HasValue(kProjectFpsId));
         EXPECT_FALSE(w.otherData->HasValue(kKeyReducerStrengthId));
       }},
  };
  WalkAll(cases, w.watched);
}

TEST(ModuleOutOfMemory, SolverAndRetargetHelper) {
  struct World {
    std::vector<const Object*> watched;
    CharacterPoseRef rest, source, bigRest, bigSource, outPose;
    CharacterSolverConfigurationRef config, bigConfig;
    CharacterSolverRef solver;
    RetargetBaseHelperRef helper;
    Skeleton skeleton;
    Parts parts, destination;
    CharacterAssociationRef association, outAssociation;
    RetargetAssociationStatistics statistics;
    std::string restText, sourceText, bigRestText, partsShape;
  } w;
  auto fresh = [&] {
    w = World();
    w.rest = testing::ChainPose(6, 100, 0.2);
    w.source = testing::ChainPose(6, 100, 0.5);
    w.bigRest = testing::ChainPose(100, 1000, 0.01);
    w.bigSource = testing::ChainPose(100, 1000, 0.02);
    auto configure = [](const CharacterPoseRef& rest) {
      CharacterSolverConfigurationRef config =
          Must(CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId));
      const CharacterDefinitionRef definition = testing::MakeDefinition(rest);
      EXPECT_TRUE(config->Setup(definition, definition, nullptr));
      return config;
    };
    w.config = configure(w.rest);
    w.bigConfig = configure(w.bigRest);
    w.solver = Must(CreateObject<CharacterSolver>(CharacterSolver::kClassId));
    w.helper = Must(CreateObject<RetargetBaseHelper>(RetargetBaseHelper::kClassId));
    w.skeleton = MakeSkeleton(100);
    w.parts = MakeParts(1, 900);
    w.destination = MakeParts(500, 600);
    w.association = CharacterAssociationRef(
        Must(CreateObject<CharacterAssociation>(CharacterAssociation::kClassId)));
    for (std::uint64_t i = 0; i < 6; ++i)
      EXPECT_TRUE(w.association.MakeWritable().value()->AssociateUuid(U(100 + i), U(200 + i)));
    w.restText = View(w.rest->ToString());
    w.sourceText = View(w.source->ToString());
    w.bigRestText = View(w.bigRest->ToString());
    w.partsShape = ShapeOf(w.parts.Root());
    for (const CharacterNodeTransformRef& node : w.rest->GetNodeTransformArray())
      w.watched.push_back(ObjectOf(node));
    for (const CharacterNodeTransformRef& node : w.source->GetNodeTransformArray())
      w.watched.push_back(ObjectOf(node));
    for (const Object* object : {ObjectOf(w.rest), ObjectOf(w.source), ObjectOf(w.association)})
      w.watched.push_back(object);
    WatchAll(w.watched, w.parts.parts);
    WatchAll(w.watched, w.destination.parts);
  };
  // The rest pose, the source pose and their nodes never change, whatever fails.
  auto posesKept = [&](const Error&) {
    EXPECT_EQ(View(w.rest->ToString()), w.restText);
    EXPECT_EQ(View(w.source->ToString()), w.sourceText);
    EXPECT_EQ(View(w.bigRest->ToString()), w.bigRestText);
    w.outPose.Reset();
  };

  // The clean results the absorbed failures must still reach.
  fresh();
  const std::string bigDelta =
      View(Must(w.solver->ExtractGlobalDeltaPose(w.bigConfig, w.bigSource))->ToString());
  ASSERT_TRUE(w.helper->FillBodyPart(w.skeleton.Root(), w.parts.Root()));
  std::vector<std::vector<std::uint64_t>> filled;
  for (const CharacterBodyPartRef& part : w.parts.parts) {
    filled.emplace_back();
    for (const Uuid& id : part->GetSkeleton()) filled.back().push_back(id.GetLow());
  }
  const CharacterAssociationRef pairing = Must(
      w.helper->AssociateBodyPartsByIdentifier(w.parts.Root(), w.destination.Root(), w.statistics));
  BaseArray<Uuid> keys;
  for (const CharacterBodyPartRef& part : w.parts.parts) {
    EXPECT_TRUE(keys.AppendAll(part->GetSkeleton().AsSpan()));
    EXPECT_TRUE(keys.AppendAll(part->GetControllers().AsSpan()));
  }

  const std::vector<FaultCase> cases = {
      {"CharacterSolver::ExtractGlobalDeltaPose", fresh,
       [&] { return ErrorOf(w.solver->ExtractGlobalDeltaPose(w.config, w.source)); }, posesKept,
       kNoInstance},
      // Later frames find the rest data the first extraction kept with the rest pose.
      {"CharacterSolver::ExtractGlobalDeltaPose (rest data kept)",
       [&] {
         fresh();
         EXPECT_TRUE(w.solver->ExtractGlobalDeltaPose(w.bigConfig, w.bigSource));
       },
       [&] { return ErrorOf(w.solver->ExtractGlobalDeltaPose(w.bigConfig, w.bigSource)); },
       posesKept, kNoInstance},
      // A large pose: the rest data and the lookup indexes are made during the call. An index the
      // lookups can do without may fail unnoticed; then the result is the clean run's.
      {"CharacterSolver::ExtractGlobalDeltaPose (large pose)", fresh,
       [&] {
         Result<CharacterPoseRef> delta =
             w.solver->ExtractGlobalDeltaPose(w.bigConfig, w.bigSource);
         if (delta) w.outPose = delta.value();
         return ErrorOf(delta);
       },
       [&](const Error& error) {
         if (!error) {
           EXPECT_EQ(View(w.outPose->ToString()), bigDelta);
         }
         posesKept(error);
       },
       kNoInstance | kAbsorbed},
      // Body parts are filled in pre-order: those before the failure hold their new skeleton,
      // those after it their old one; the one being filled keeps its old list, or is left empty
      // when the new list could not be stored.
      {"RetargetBaseHelper::FillBodyPart", fresh,
       [&] { return ErrorOf(w.helper->FillBodyPart(w.skeleton.Root(), w.parts.Root())); },
       [&](const Error&) {
         std::string states;
         for (std::size_t i = 0; i < w.parts.parts.size(); ++i) {
           std::vector<std::uint64_t> lows;
           for (const Uuid& id : w.parts.parts[i]->GetSkeleton()) lows.push_back(id.GetLow());
           states += lows == filled[i]                             ? 'N'
                     : lows == std::vector<std::uint64_t>{900 + i} ? 'O'
                     : lows.empty()                                ? 'E'
                                                                   : '?';
         }
         const std::size_t firstOld = states.find_first_not_of('N');
         ASSERT_NE(firstOld, std::string::npos) << "every body part filled, yet an error";
         EXPECT_EQ(states.find_first_not_of('O', firstOld + 1), std::string::npos) << states;
         EXPECT_NE(states[firstOld], '?') << states;
       }},
      // Pairing failures are skipped by design; whatever the association holds is what the clean
      // run pairs, and the walk visits every source body part.
      {"RetargetBaseHelper::AssociateBodyPartsByIdentifier", fresh,
       [&] {
         Result<CharacterAssociationRef> made = w.helper->AssociateBodyPartsByIdentifier(
             w.parts.Root(), w.destination.Root(), w.statistics);
         if (made) w.outAssociation = made.value();
         return ErrorOf(made);
       },
       [&](const Error& error) {
         EXPECT_EQ(ShapeOf(w.parts.Root()), w.partsShape);
         if (error) return;
         EXPECT_EQ(w.statistics.visitedBodyParts, 4);
         for (const Uuid& key : keys) {
           const Result<Uuid> value = w.outAssociation->GetAssociatedUuid(key);
           EXPECT_TRUE(!value || value.value() == pairing->GetAssociatedUuid(key).value());
         }
         w.outAssociation.Reset();
       },
       kNoInstance | kAbsorbed},
      {"RetargetBaseHelper::TranslateSrcToDestID", fresh,
       [&] { return ErrorOf(w.helper->TranslateSrcToDestID(w.association, w.source)); }, posesKept,
       kNoInstance},
      {"RetargetBaseHelper::FindSkeletonMatchingCount(recursive)", fresh,
       [&] {
         return ErrorOf(w.helper->FindSkeletonMatchingCount(w.destination.Root(), w.source, true));
       },
       posesKept},
  };
  WalkAll(cases, w.watched);
}

Key MakeKey(float time, float value, std::uint32_t flags = 0) {
  Key key;
  key.flags = flags;
  key.position = {time, value};
  return key;
}

TEST(ModuleOutOfMemory, CurveCommandsAndTheirData) {
  struct World {
    std::vector<const Object*> watched;
    Ref<CommandData> data;
    Ref<Command> fitter, modification;
    Shared<KeyCurves> curves;
    KeyCurves input;
    const DataType* keyType = nullptr;
    Key key;
  } w;
  const Id kOtherId{"net.tarni.test.other"};
  // Three curves: a sampled wave with a locked and a selected key, two keys, and none.
  auto fresh = [&](std::int64_t curveType, std::int32_t magnet) {
    w = World();
    KeyArray wave;
    for (int i = 0; i < 60; ++i) {
      const std::uint32_t flags = i == 20 ? KEYFLAG_LOCKED_MASK : i == 30 ? KEYFLAG_SELECTED : 0;
      EXPECT_TRUE(wave.Append(MakeKey(i / 30.0f, std::sin(i * 0.2f) * 3.0f, flags)));
    }
    KeyArray pair;
    EXPECT_TRUE(pair.Append(MakeKey(0.0f, 1.0f)));
    EXPECT_TRUE(pair.Append(MakeKey(1.0f, -2.0f)));
    EXPECT_TRUE(w.input.Append(std::move(wave)));
    EXPECT_TRUE(w.input.Append(std::move(pair)));
    EXPECT_TRUE(w.input.Append(KeyArray()));
    w.data = Must(CreateCommandData(kAnimationCommandDataClassId));
    w.fitter = Must(CreateCommand(kBezierFitterCommandId));
    w.modification = Must(CreateCommand(kReducedModificationCurveCommandId));
    KeyCurves copy;
    EXPECT_TRUE(copy.CopyFrom(w.input));
    EXPECT_TRUE(w.data->Set<KeyCurves>(kAnimationCurvesId, std::move(copy)));
    EXPECT_TRUE(w.data->Set<std::int32_t>(kProjectFpsId, 30));
    EXPECT_TRUE(w.data->Set<float>(kKeyReducerStrengthId, 0.5f));
    EXPECT_TRUE(w.data->Set<std::int32_t>(kKeyReducerMagnetId, magnet));
    EXPECT_TRUE(w.data->Set<bool>(kKeyReducerUseLockedKeysId, magnet > 0));
    EXPECT_TRUE(w.data->Set<bool>(kKeyReducerUseKeySelectionId, magnet > 0));
    EXPECT_TRUE(w.data->Set<std::int64_t>(kModificationCurveTypeId, curveType));
    w.curves = Must(w.data->GetShared<KeyCurves>(kAnimationCurvesId));
    w.keyType = FindDataType(kKeyframeDataTypeId);
    w.watched.push_back(ObjectOf(w.data));
    w.watched.push_back(ObjectOf(w.curves));
  };
  auto plain = [&] { fresh(0, 0); };
  auto noCheck = [](const Error&) {};
  // A failed fitter writes nothing: the data still holds the caller's curves value, unchanged.
  auto curvesKept = [&](const Error&) {
    EXPECT_EQ(Must(w.data->GetShared<KeyCurves>(kAnimationCurvesId)), w.curves);
    EXPECT_EQ(w.curves->value.GetCount(), 3);
    EXPECT_EQ(w.curves->value[0].GetCount(), 60);
  };
  std::vector<FaultCase> cases = {
      {"CreateCommandData", plain,
       [&] { return ErrorOf(CreateCommandData(kAnimationCommandDataClassId)); }, noCheck,
       kNoInstance},
      // A value that cannot be stored leaves the dictionary without it.
      {"CommandData::Set<KeyCurves>", plain,
       [&] {
         KeyCurves copy;
         if (!copy.CopyFrom(w.input)) return OutOfMemoryError();
         return ErrorOf(w.data->Set<KeyCurves>(kOtherId, std::move(copy)));
       },
       [&](const Error&) {
         EXPECT_FALSE(w.data->HasValue(kOtherId));
         curvesKept(Error());
       }},
      {"CommandData::Set<std::int32_t>",
       [&] {
         plain();
         w.data = Must(CreateCommandData(kAnimationCommandDataClassId));
         w.watched[0] = ObjectOf(w.data);
       },
       [&] { return ErrorOf(w.data->Set<std::int32_t>(kProjectFpsId, 24)); },
       [&](const Error&) { EXPECT_FALSE(w.data->HasValue(kProjectFpsId)); }},
      {"CommandData clone", plain, [&] { return ErrorOf(w.data->Clone()); }, curvesKept,
       kNoInstance},
      {"BezierFitter::Execute", plain, [&] { return ErrorOf(w.fitter->Execute(*w.data)); },
       curvesKept},
      {"BezierFitter::Execute (magnet, locked and selected keys)", [&] { fresh(0, 2); },
       [&] { return ErrorOf(w.fitter->Execute(*w.data)); }, curvesKept},
  };
  // The modification curve writes the curves, then the ranges, and returns the first error: the
  // curves are the caller's or the clean result, and the ranges are missing or the clean ones.
  for (std::int64_t type : {0, 1, 2, 7}) {
    fresh(type, 0);
    ASSERT_TRUE(w.modification->Execute(*w.data));
    const std::string curves =
        View(Must(w.data->GetShared<KeyCurves>(kAnimationCurvesId))->ToString());
    const std::string ranges = View(Must(w.data->GetShared<MinMaxArray>(kMinMaxArrId))->ToString());
    cases.push_back({"ReducedModificationCurve::Execute(type " + std::to_string(type) + ")",
                     [&, type] {
                       fresh(type, 0);
                       // The curves written before a failing range write replace the caller's
                       // value.
                       w.watched.pop_back();
                     },
                     [&] { return ErrorOf(w.modification->Execute(*w.data)); },
                     [&, curves, ranges](const Error&) {
                       const Shared<KeyCurves> now =
                           Must(w.data->GetShared<KeyCurves>(kAnimationCurvesId));
                       EXPECT_TRUE(now == w.curves || View(now->ToString()) == curves);
                       EXPECT_EQ(w.curves->value.GetCount(), 3);
                       EXPECT_EQ(w.curves->value[0].GetCount(), 60);
                       const Result<Shared<MinMaxArray>> got =
                           w.data->GetShared<MinMaxArray>(kMinMaxArrId);
                       EXPECT_TRUE(!got || View(got.value()->ToString()) == ranges);
                     }});
  }
  // The keyframe type's heap values: a failed allocation gives no value.
  cases.push_back({"keyframe data type: heap copy", plain,
                   [&] {
                     void* value = w.keyType->operations.heapCopy(&w.key);
                     if (value == nullptr) return OutOfMemoryError();
                     w.keyType->operations.heapFree(value);
                     return Error();
                   },
                   noCheck});
  WalkAll(cases, w.watched);
}

// Every class declares its members to a describer; a list that cannot grow ends the declaration.
TEST(ModuleOutOfMemory, MemberDescriptions) {
  const Id classes[] = {CharacterNodeInfo::kClassId,
                        CharacterNodeTransform::kClassId,
                        CharacterPose::kClassId,
                        CharacterTree::kClassId,
                        CharacterBodyPart::kClassId,
                        CharacterDefinition::kClassId,
                        CharacterAssociation::kClassId,
                        CharacterBodyPartSolverSetting::kClassId,
                        CharacterSolverConfiguration::kClassId};
  std::vector<const Object*> watched;
  Ref<Object> object;
  MemberList members;
  std::vector<FaultCase> cases;
  for (const Id& classId : classes) {
    auto setup = [&, classId] {
      object = Must(CreateObject(classId));
      members.members.Reset();
    };
    cases.push_back({std::string(classId.GetText()) + " DescribeIO", setup,
                     [&] { return ErrorOf(object->DescribeIO(members)); },
                     [&](const Error&) { object.Reset(); }});
  }
  WalkAll(cases, watched);
}

// The operations documented as unable to fail reach no allocation at all, so no shortage of
// memory can make them fail later either.
TEST(ModuleOutOfMemory, OperationsThatCannotFailAllocateNothing) {
  const Uuid id = U(5), other = U(6), first = U(100);
  const String name = Text("Name");
  const InternedId arm = testing::Ident("arm"), leg = testing::Ident("leg");
  const Matrix m = testing::Turn(0.4, {1, 0, 2});
  CharacterNodeInfoRef info = Must(CreateNodeInfo(id, name));
  CharacterNodeTransformRef node = Must(CreateNodeTransform(id, m, m));
  CharacterPoseRef pose = testing::ChainPose(6, 100, 0.2);
  const CharacterPoseRef source = testing::ChainPose(6, 100, 0.5);
  Skeleton skeleton = MakeSkeleton();
  Parts parts = MakeParts();
  CharacterDefinitionRef definition = testing::MakeDefinition(pose);
  CharacterAssociationRef association(
      Must(CreateObject<CharacterAssociation>(CharacterAssociation::kClassId)));
  CharacterAssociation* writable = association.MakeWritable().value();
  ASSERT_TRUE(writable->AssociateUuid(id, other));
  ASSERT_TRUE(writable->AssociateId(arm, leg));
  const CharacterBodyPartSolverSettingRef setting = testing::MakeSetting(arm, 0.5, true, true);
  const CharacterBodyPartSolverSettingRef otherSetting =
      testing::MakeSetting(leg, 0.1, false, false);
  CharacterSolverConfigurationRef config =
      Must(CreateObject<CharacterSolverConfiguration>(CharacterSolverConfiguration::kClassId));
  ASSERT_TRUE(config->Setup(definition, definition, association));
  ASSERT_TRUE(config->SetBodyPartSetting(setting));
  const CharacterSolverRef solver = Must(CreateObject<CharacterSolver>(CharacterSolver::kClassId));
  const RetargetBaseHelperRef helper =
      Must(CreateObject<RetargetBaseHelper>(RetargetBaseHelper::kClassId));
  const Ref<CommandData> data = Must(CreateCommandData(kAnimationCommandDataClassId));
  ASSERT_TRUE(data->Set<KeyCurves>(kAnimationCurvesId, KeyCurves()));
  ASSERT_TRUE(data->Set<float>(kKeyReducerStrengthId, 0.5f));
  CharacterNodeInfo* infoW = info.MakeWritable().value();
  CharacterPose* poseW = pose.MakeWritable().value();
  // Applying a delta keeps the inverse of the target's parent matrix in the target node, from the
  // second call on, when memory allows. Without memory the inverse is made for the call alone, to
  // the same bits; once kept, nothing is allocated (below).
  {
    const CharacterNodeTransformRef& target = pose->GetNodeTransformArray()[2];
    const Result<Matrix> first = solver->ApplyGlobalRotationDelta(target, node, setting, 0.6);
    ASSERT_TRUE(first);
    fault::FailAllocationsFrom(1);
    const Result<Matrix> without = solver->ApplyGlobalRotationDelta(target, node, setting, 0.6);
    fault::Disarm();
    EXPECT_TRUE(fault::Triggered());
    ASSERT_TRUE(without);
    EXPECT_EQ(without.value(), first.value());
    EXPECT_EQ(solver->ApplyGlobalRotationDelta(target, node, setting, 0.6).value(), first.value());
  }
  const CharacterBodyPartRef& hand = parts.parts[2];

  const std::vector<std::pair<const char*, std::function<void()>>> operations = {
      {"CharacterNodeInfo setters",
       [&] {
         EXPECT_TRUE(infoW->SetUuid(other));
         EXPECT_TRUE(infoW->SetName(name));
       }},
      {"CharacterPose lookups and re-storing its own array",
       [&] {
         EXPECT_TRUE(pose->GetNodeTransformByID(first).value());
         EXPECT_FALSE(pose->GetNodeTransformByID(other).value());
         EXPECT_TRUE(poseW->SetNodeTransformArray(pose->GetNodeTransformArray()));
       }},
      {"CharacterTree flag, GetChild and Remove",
       [&] {
         skeleton.nodes[1]->SetTransformNode(false);
         EXPECT_EQ(skeleton.Root()->GetChild(1), skeleton.nodes[4]);
         EXPECT_EQ(skeleton.nodes[4]->Remove(), skeleton.nodes[4]);
       }},
      {"CharacterBodyPart setters, own counts and ClearSkeleton(own)",
       [&] {
         EXPECT_TRUE(hand->SetIdentifier(leg));
         EXPECT_TRUE(hand->SetSettingValue(BodyPartSettingFlag::EXPOSEINSOLVER, true));
         hand->SetAttributeTransferMode(BODYPARTTRANSFERATTRIBUTEMODE::BOTH);
         EXPECT_EQ(hand->GetControllersCount(false).value(), 2);
         EXPECT_TRUE(hand->ClearSkeleton(false));
         EXPECT_TRUE(hand->ClearSkeleton(true));  // no children to list
         EXPECT_EQ(hand->GetSkeletonCount(false).value(), 0);
       }},
      {"CharacterDefinition setters",
       [&] {
         EXPECT_TRUE(definition->SetSkeletonTree(skeleton.Root()));
         EXPECT_TRUE(definition->SetBodyPartTree(parts.Root()));
         EXPECT_TRUE(definition->SetSkeletonRestPose(source));
         EXPECT_TRUE(definition->SetControllersRestPose(nullptr));
       }},
      {"CharacterAssociation lookups",
       [&] {
         EXPECT_EQ(association->GetAssociatedUuid(other).value(), id);
         EXPECT_EQ(association->GetAssociatedId(arm).value(), leg);
         EXPECT_FALSE(association->GetAssociatedUuid(first));
       }},
      {"CharacterSolverConfiguration setters, Validate and lookups",
       [&] {
         EXPECT_TRUE(config->Setup(definition, definition, association));
         EXPECT_TRUE(config->Validate());
         EXPECT_EQ(config->GetBodyPartSetting(arm), setting);
         config->SetGlobalWeight(0.5);
         config->SetSolvingMode(SolvingMode::CONTROLLERTOCONTROLLER);
         EXPECT_TRUE(config->ClearBodyPartSetting());
       }},
      {"CharacterSolver::ApplyGlobalRotationDelta (onto a target keeping its inverse) and "
       "GetCumulatedWeight",
       [&] {
         const CharacterNodeTransformRef& target = pose->GetNodeTransformArray()[2];
         EXPECT_TRUE(solver->ApplyGlobalRotationDelta(target, node, setting, 0.6));
         EXPECT_TRUE(solver->ApplyGlobalRotationDelta(target, node, setting, -1.0));
         EXPECT_TRUE(solver->GetCumulatedWeight(parts.parts[1], config));
       }},
      {"RetargetBaseHelper matching counts of own lists",
       [&] {
         EXPECT_TRUE(helper->FindSkeletonMatchingCount(parts.Root(), source, false));
         EXPECT_TRUE(helper->FindControllerMatchingCount(parts.Root(), source, false));
       }},
      {"CommandData lookups and SetShared under a held id",
       [&] {
         const Shared<KeyCurves> curves = data->GetShared<KeyCurves>(kAnimationCurvesId).value();
         EXPECT_EQ(data->Get<float>(kKeyReducerStrengthId).value(), 0.5f);
         EXPECT_TRUE(data->SetShared(kAnimationCurvesId, curves));
         EXPECT_TRUE(data->Set<float>(kKeyReducerStrengthId, 0.25f));
       }},
      {"CharacterBodyPartSolverSetting CopyFrom (one settings word into one)",
       [&] {
         EXPECT_TRUE(
             const_cast<CharacterBodyPartSolverSetting*>(setting.Get())->CopyFrom(*otherSetting));
       }},
  };
  for (const auto& [name, operation] : operations)
    EXPECT_TRUE(testing::AllocatesNothing(operation)) << name;
}

// Registering the module is all or nothing: a registration that runs out of memory undoes the
// rows that ran, so none of the module's classes, data types or commands stays behind. Runs last:
// it leaves the module registered again for whatever follows.
TEST(ModuleOutOfMemory, RegistrationIsAllOrNothing) {
  const ModuleBlock& block = ca::GetModuleBlock();
  const Id classes[] = {CharacterNodeInfo::kClassId,
                        CharacterNodeTransform::kClassId,
                        CharacterPose::kClassId,
                        CharacterTree::kClassId,
                        CharacterBodyPart::kClassId,
                        CharacterBodyPartSolverSetting::kClassId,
                        CharacterDefinition::kClassId,
                        CharacterAssociation::kClassId,
                        CharacterSolverConfiguration::kClassId,
                        CharacterSolver::kClassId,
                        RetargetBaseHelper::kClassId};
  const FaultCase item{"RegisterModule(net.tarni.ca)", [&] { UnregisterModule(block.moduleId); },
                       [&] { return ErrorOf(RegisterModule(block)); },
                       [&](const Error&) {
                         EXPECT_EQ(FindModule(block.moduleId), nullptr);
                         for (const Id& classId : classes)
                           EXPECT_EQ(FindClass(classId), nullptr) << classId.GetText();
                         EXPECT_EQ(FindDataType(kKeyframeDataTypeId), nullptr);
                         EXPECT_EQ(FindDataType(kBodyPartTransferAttributeModeTypeId), nullptr);
                         EXPECT_FALSE(CreateCommand(kBezierFitterCommandId));
                         EXPECT_FALSE(CreateCommandData(kAnimationCommandDataClassId));
                       }};
  EXPECT_GT(testing::WalkFaults(item, {}), 0);
  ASSERT_NE(FindModule(block.moduleId), nullptr);
  // The class handles of the creation functions find the classes registered anew.
  EXPECT_TRUE(CreateTree(Uuid(), "Hips"_s, true));
}

}  // namespace
}  // namespace tarni
