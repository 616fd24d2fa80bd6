// Objects, references and the class registry, through a test-only class with two interfaces (one
// extending a third), a heap member and an Init that can be made to fail.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "tarni/classes.h"
#include "tarni/hierarchy.h"
#include "tarni/memory.h"
#include "tarni/object.h"

namespace tarni {
namespace {

using namespace tarni::literals;

class Shape : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.test.interface.shape"};
  using Extends = InterfaceList<>;
  virtual double Area() const noexcept = 0;
};

class Circle : public virtual Shape {
 public:
  static constexpr Id kInterfaceId{"net.tarni.test.interface.circle"};
  static constexpr Id kClassId{"net.tarni.test.class.circle"};
  using Extends = InterfaceList<Shape>;
  virtual void SetRadius(double radius) noexcept = 0;
  virtual double GetRadius() const noexcept = 0;
};

class Labelled : public virtual Object {
 public:
  static constexpr Id kInterfaceId{"net.tarni.test.interface.labelled"};
  using Extends = InterfaceList<>;
  virtual Result<void> SetLabel(std::string_view label) noexcept = 0;
  virtual const String& GetLabel() const noexcept = 0;
};

std::atomic<int> g_liveCircles{0};
bool g_failInit = false;

class CircleImpl final : public Circle, public Labelled {
  TARNI_IMPLEMENTS(CircleImpl, Circle, Labelled)

 public:
  CircleImpl() noexcept { ++g_liveCircles; }
  ~CircleImpl() override { --g_liveCircles; }

  Result<void> Init() noexcept override {
    if (g_failInit) return IllegalStateError("Illegal state: init refused.");
    return OK;
  }
  Result<void> CopyFrom(const Object& source) noexcept override {
    const CircleImpl* other = SameClass<CircleImpl>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: not a circle.");
    _radius = other->_radius;
    // A private copy of the label, so a clone has an allocation of its own to fail.
    _label = TARNI_TRY(String::Make(other->_label.GetView()));
    return OK;
  }

  double Area() const noexcept override { return 3.0 * _radius * _radius; }
  void SetRadius(double radius) noexcept override { _radius = radius; }
  double GetRadius() const noexcept override { return _radius; }
  Result<void> SetLabel(std::string_view label) noexcept override {
    _label = TARNI_TRY(String::Make(label));
    return OK;
  }
  const String& GetLabel() const noexcept override { return _label; }

 private:
  double _radius = 1.0;
  String _label;
};

// An object of no registered class, with neither a clone nor a copy-from.
class Bare final : public Object {};

void NoStatic() {}
constexpr Id kCircleInterfaces[] = {Circle::kInterfaceId, Labelled::kInterfaceId};
constexpr Id kCircleBases[] = {HierarchyObject::kClassId};
constexpr StaticFunction kCircleStatics[] = {{"NoStatic", &NoStatic}};
const ClassRecord kCircleClass{
    Circle::kClassId, "CircleImpl", "object_test",     &CreateInstance<CircleImpl>,
    nullptr,          kCircleBases, kCircleInterfaces, kCircleStatics};

// Registers the circle class for one test.
class ObjectTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(RegisterClass(kCircleClass)); }
  void TearDown() override {
    UnregisterClass(Circle::kClassId);
    g_failInit = false;
    EXPECT_EQ(g_liveCircles.load(), 0);
  }
};

Ref<Circle> NewCircle(double radius, std::string_view label) {
  Ref<Circle> circle = CreateObject<Circle>(Circle::kClassId).value();
  circle->SetRadius(radius);
  EXPECT_TRUE(Cast<Labelled>(circle)->SetLabel(label));
  return circle;
}

TEST_F(ObjectTest, ReferencesCountHoldersAndReleaseTheLast) {
  {
    // Moves and upcasts: the same object, the count moves with it; self-assignment keeps it.
    Ref<Circle> a = NewCircle(2.0, "a");
    Ref<Circle> b = a;
    Ref<Shape> shape = std::move(b);
    EXPECT_FALSE(b);
    EXPECT_TRUE(shape == a);
    Ref<Object> object = shape;
    Ref<Object>& alias = object;
    object = alias;
    EXPECT_EQ(a->GetRefCount(), 3);
    shape.Reset();
    object = nullptr;
    EXPECT_EQ(a->GetRefCount(), 1);
    EXPECT_EQ(g_liveCircles.load(), 1);
  }
  // The last release destroyed it.
  EXPECT_EQ(g_liveCircles.load(), 0);
}

TEST_F(ObjectTest, CastFindsInterfacesAndWhatTheyExtend) {
  Ref<Circle> circle = NewCircle(2.0, "c");
  // Shape is reached only through Circle's Extends.
  Ref<Shape> shape = Cast<Shape>(circle);
  ASSERT_TRUE(shape);
  EXPECT_EQ(shape->Area(), 12.0);
  EXPECT_TRUE(shape == circle);
  Ref<Labelled> labelled = Cast<Labelled>(shape);
  ASSERT_TRUE(labelled);
  EXPECT_EQ(labelled->GetLabel(), "c");
  EXPECT_TRUE(Cast<Object>(labelled) == circle);
  // Interfaces it lacks, and empty references, give null.
  EXPECT_FALSE(Cast<HierarchyObject>(circle));
  EXPECT_FALSE(Cast<Shape>(Ref<Circle>()));
  // The object knows its class; the default text names the implementation.
  ASSERT_NE(circle->GetClass(), nullptr);
  EXPECT_EQ(circle->GetClass()->GetImplementationName(), "CircleImpl");
  EXPECT_EQ(circle->ToString().GetView(), "object of class CircleImpl");
  Ref<Bare> bare(new Bare());
  EXPECT_EQ(bare->ToString().GetView(), "object of class ?");
}

TEST_F(ObjectTest, CopyOnWriteClonesOnlySharedObjects) {
  {
    // Shared: the writer gets a clone with the state copied; the other holder keeps its object.
    CowRef<Circle> a(NewCircle(3.0, "shared"));
    CowRef<Circle> b = a;
    Circle* writable = b.MakeWritable().value();
    writable->SetRadius(4.0);
    EXPECT_EQ(a->GetRadius(), 3.0);
    EXPECT_EQ(b->GetRadius(), 4.0);
    EXPECT_EQ(Cast<Labelled>(b.GetRef())->GetLabel(), "shared");
    EXPECT_EQ(b.MakeWritable().value(), writable);
  }
  {
    // An empty reference cannot be written.
    CowRef<Circle> empty;
    auto r = empty.MakeWritable();
    EXPECT_TRUE(r.error().Is(ErrorKind::kNullReference));
    EXPECT_EQ(r.error().GetMessage(), "Copy-on-write reference is empty.");
  }
  {
    // A class without a copy-construct cannot be made writable while shared.
    CowRef<Bare> a(Ref<Bare>(new Bare()));
    CowRef<Bare> b = a;
    EXPECT_TRUE(b.MakeWritable().error().Is(ErrorKind::kNullReference));
    auto clone = a->Clone();
    EXPECT_EQ(clone.error().GetMessage(), "Class has no copy-construct.");
    Bare other;
    EXPECT_EQ(other.CopyFrom(*a).error().GetMessage(), "Illegal argument: class has no copy-from.");
  }
}

TEST_F(ObjectTest, CreationByClassIdReportsWhatWentWrong) {
  {
    // An unknown id, a class lacking the interface asked for.
    auto unknown = CreateObject(Id("net.tarni.test.class.nosuchclass"));
    EXPECT_TRUE(unknown.error().Is(ErrorKind::kNullReference));
    EXPECT_EQ(unknown.error().GetMessage(), "Class could not be resolved.");
    auto typed = CreateObject<HierarchyObject>(Circle::kClassId);
    EXPECT_TRUE(typed.error().Is(ErrorKind::kNullReference));
    EXPECT_EQ(typed.error().GetMessage(), "Class does not implement the requested interface.");
  }
  {
    // No memory for the instance: the null-reference error; a failing Init: its own error.
    fault::FailNthAllocation(1);
    auto failed = CreateObject<Circle>(Circle::kClassId);
    fault::Disarm();
    EXPECT_TRUE(failed.error().Is(ErrorKind::kNullReference));
    EXPECT_EQ(failed.error().GetMessage(), "Class could not create an instance.");
    g_failInit = true;
    auto refused = CreateObject<Circle>(Circle::kClassId);
    EXPECT_EQ(refused.error().GetMessage(), "Illegal state: init refused.");
    g_failInit = false;
  }
  {
    // A second registration under the same id is refused; the record's data is published.
    auto again = RegisterClass(kCircleClass);
    EXPECT_TRUE(again.error().Is(ErrorKind::kIllegalState));
    EXPECT_EQ(again.error().GetMessage(), "Illegal state: class id already registered.");
    const ClassInfo* info = FindClass(Circle::kClassId);
    ASSERT_NE(info, nullptr);
    EXPECT_TRUE(info->HasBase(HierarchyObject::kClassId));
    ASSERT_NE(info->FindStatic("NoStatic"), nullptr);
    // Listed after the kernel's own hierarchy object class.
    auto classes = ListClasses().value();
    ASSERT_GE(classes.GetCount(), 2);
    EXPECT_EQ(classes[0]->GetId(), HierarchyObject::kClassId);
    EXPECT_EQ(classes.GetLast(), info);
  }
  {
    // A record without a creation function.
    static constexpr Id kNoCreateId{"net.tarni.test.class.nocreate"};
    static const ClassRecord kNoCreate{
        kNoCreateId, "NoCreateImpl", "object_test", nullptr, nullptr, {}, {}, {}};
    ASSERT_TRUE(RegisterClass(kNoCreate));
    EXPECT_EQ(CreateObject(kNoCreateId).error().GetMessage(), "Class has no creation function.");
    UnregisterClass(kNoCreateId);
  }
  {
    // A class built on a class that is not registered is refused, naming both, until its base is.
    static constexpr Id kBaseId{"net.tarni.test.class.base"};
    static constexpr Id kDerivedId{"net.tarni.test.class.derived"};
    static constexpr Id kDerivedBases[] = {Circle::kClassId, kBaseId};
    static const ClassRecord kBase{kBaseId, "BaseImpl", "object_test", nullptr, nullptr, {},
                                   {},      {}};
    static const ClassRecord kDerived{
        kDerivedId, "DerivedImpl", "object_test", nullptr, nullptr, kDerivedBases, {}, {}};
    auto refused = RegisterClass(kDerived);
    ASSERT_TRUE(refused.has_error());
    EXPECT_TRUE(refused.error().Is(ErrorKind::kUnresolved));
    EXPECT_EQ(refused.error().GetMessage(),
              "Unresolved: class net.tarni.test.class.derived is built on class "
              "net.tarni.test.class.base, which is not registered.");
    EXPECT_EQ(FindClass(kDerivedId), nullptr);
    ASSERT_TRUE(RegisterClass(kBase));
    EXPECT_TRUE(RegisterClass(kDerived));
    EXPECT_NE(FindClass(kDerivedId), nullptr);
    UnregisterClass(kDerivedId);
    UnregisterClass(kBaseId);
  }
}

TEST_F(ObjectTest, ClassHandlesResolveAgainAfterUnregistering) {
  static constinit ClassHandle handle(Circle::kClassId);
  const ClassInfo* first = handle.Resolve();
  ASSERT_NE(first, nullptr);
  Ref<Circle> survivor = handle.Create<Circle>().value();

  // Gone: the handle sees it; instances keep their class.
  UnregisterClass(Circle::kClassId);
  EXPECT_EQ(handle.Resolve(), nullptr);
  auto failed = handle.Create<Circle>();
  EXPECT_EQ(failed.error().GetMessage(), "Class could not be resolved.");
  EXPECT_EQ(survivor->GetClass()->GetImplementationName(), "CircleImpl");

  // Registered again: resolved to the new registration.
  ASSERT_TRUE(RegisterClass(kCircleClass));
  const ClassInfo* second = handle.Resolve();
  ASSERT_NE(second, nullptr);
  EXPECT_TRUE(handle.Create<Shape>());
  // A handle that never resolved before the class existed picks it up later.
  static constinit ClassHandle late(Id("net.tarni.test.class.late"));
  EXPECT_EQ(late.Resolve(), nullptr);
  static constexpr Id kLateId{"net.tarni.test.class.late"};
  static const ClassRecord kLate{
      kLateId, "LateImpl", "object_test", &CreateInstance<CircleImpl>, nullptr, {}, {}, {}};
  ASSERT_TRUE(RegisterClass(kLate));
  EXPECT_NE(late.Resolve(), nullptr);
  UnregisterClass(kLateId);
}

}  // namespace
}  // namespace tarni
