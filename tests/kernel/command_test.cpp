// The command framework: a test-only command and command data class registered through the
// registries, the data dictionary's typed values, and the data-type registry.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "tarni/command.h"
#include "tarni/datatype.h"

TARNI_DATA_TYPE(tarni::BaseArray<int>, "net.tarni.test.datatype.intarray");

namespace tarni {
namespace {

using IntArray = BaseArray<int>;

constexpr Id kValueKey{"net.tarni.test.value"};
constexpr Id kResultKey{"net.tarni.test.result"};
constexpr Id kArrayKey{"net.tarni.test.array"};

class TestData final : public DataDictionaryComponent<CommandData> {
  TARNI_IMPLEMENTS(TestData, CommandData)

 public:
  static constexpr Id kClassId{"net.tarni.test.class.commanddata"};
  Result<void> CopyFrom(const Object& source) noexcept override {
    const TestData* other = SameClass<TestData>(source);
    if (other == nullptr) return IllegalArgumentError("Illegal argument: other data class.");
    return CopyDictionaryFrom(*other);
  }
};

// Doubles the value, reporting progress and honouring a cancel request.
class DoubleCommand final : public CommandObserverComponent<CommandObserver>, public Command {
  TARNI_IMPLEMENTS(DoubleCommand, Command, CommandObserver)

 public:
  static constexpr Id kClassId{"net.tarni.test.class.double"};
  Result<void> Execute(CommandData& data) noexcept override {
    const double value = TARNI_TRY(data.Get<double>(kValueKey));
    ReportProgress(0.5);
    if (IsCancelRequested()) return IllegalStateError("Illegal state: cancelled.");
    TARNI_TRY(data.Set<double>(kResultKey, value * 2));
    ReportProgress(1.0);
    return OK;
  }
};

constexpr Id kCommandId{"net.tarni.test.command.double"};
constexpr Id kDataClassId{"net.tarni.test.commanddata"};
constexpr Id kDataInterfaces[] = {CommandData::kInterfaceId};
constexpr Id kCommandInterfaces[] = {Command::kInterfaceId, CommandObserver::kInterfaceId};
const ClassRecord kDataClass{TestData::kClassId,        "TestData", "command_test",
                             &CreateInstance<TestData>, nullptr,    {},
                             kDataInterfaces,           {}};
const ClassRecord kCommandClass{DoubleCommand::kClassId,
                                "DoubleCommand",
                                "command_test",
                                &CreateInstance<DoubleCommand>,
                                nullptr,
                                {},
                                kCommandInterfaces,
                                {}};

// Registers both classes and their registry entries for one test.
class CommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(RegisterClass(kDataClass));
    ASSERT_TRUE(RegisterClass(kCommandClass));
    ASSERT_TRUE(RegisterEntry({kCommandClassesRegistry, kCommandId, DoubleCommand::kClassId}));
    ASSERT_TRUE(RegisterEntry({kCommandDataClassesRegistry, kDataClassId, TestData::kClassId}));
  }
  void TearDown() override {
    UnregisterEntry(kCommandClassesRegistry, kCommandId);
    UnregisterEntry(kCommandDataClassesRegistry, kDataClassId);
    UnregisterClass(DoubleCommand::kClassId);
    UnregisterClass(TestData::kClassId);
  }
};

IntArray Ints(std::initializer_list<int> values) {
  IntArray array;
  for (int v : values) EXPECT_TRUE(array.Append(v));
  return array;
}

std::vector<int> Values(const IntArray& array) { return {array.begin(), array.end()}; }

TEST_F(CommandTest, CreatesCommandsAndDataThroughTheirRegistries) {
  {
    // A command found by its entry, run on data found by its entry.
    Ref<Command> command = CreateCommand(kCommandId).value();
    Ref<CommandData> data = CreateCommandData(kDataClassId).value();
    ASSERT_TRUE(data->Set<double>(kValueKey, 1.25));
    std::vector<double> progress;
    Cast<CommandObserver>(command)->SetProgressFunction(
        [](double fraction, void* user) {
          static_cast<std::vector<double>*>(user)->push_back(fraction);
        },
        &progress);
    ASSERT_TRUE(command->Execute(*data));
    EXPECT_EQ(data->Get<double>(kResultKey).value(), 2.5);
    EXPECT_EQ(progress, (std::vector<double>{0.5, 1.0}));
    // A cancelled run stops with its own error; a missing input is the dictionary's error.
    Cast<CommandObserver>(command)->RequestCancel();
    EXPECT_EQ(command->Execute(*data).error().GetMessage(), "Illegal state: cancelled.");
    Ref<CommandData> empty = CreateCommandData(kDataClassId).value();
    EXPECT_TRUE(command->Execute(*empty).error().Is(ErrorKind::kUnresolved));
  }
  {
    // Ids not in the registry, or in the other registry, are null-reference errors.
    auto unknown = CreateCommand(Id("net.tarni.test.command.none"));
    EXPECT_TRUE(unknown.error().Is(ErrorKind::kNullReference));
    EXPECT_EQ(unknown.error().GetMessage(), "Command class could not be resolved.");
    EXPECT_EQ(CreateCommandData(kCommandId).error().GetMessage(),
              "Command data class could not be resolved.");
  }
  {
    // An entry whose class is gone; an entry registered twice.
    UnregisterClass(DoubleCommand::kClassId);
    EXPECT_EQ(CreateCommand(kCommandId).error().GetMessage(), "Class could not be resolved.");
    ASSERT_TRUE(RegisterClass(kCommandClass));
    auto twice = RegisterEntry({kCommandClassesRegistry, kCommandId, DoubleCommand::kClassId});
    EXPECT_TRUE(twice.error().Is(ErrorKind::kIllegalState));
    EXPECT_EQ(twice.error().GetMessage(), "Illegal state: registry entry already registered.");
  }
  {
    // Entries list per registry in registration order, and go away when unregistered.
    constexpr Id kSecond{"net.tarni.test.command.second"};
    ASSERT_TRUE(RegisterEntry({kCommandClassesRegistry, kSecond, DoubleCommand::kClassId}));
    auto entries = ListEntries(kCommandClassesRegistry).value();
    ASSERT_GE(entries.GetCount(), 2);
    EXPECT_EQ(entries[entries.GetCount() - 2].entryId, kCommandId);
    EXPECT_EQ(entries.GetLast().entryId, kSecond);
    UnregisterEntry(kCommandClassesRegistry, kSecond);
    EXPECT_FALSE(FindEntry(kCommandClassesRegistry, kSecond, nullptr));
  }
}

TEST_F(CommandTest, DictionaryValuesAreTypedById) {
  Ref<CommandData> data = CreateCommandData(kDataClassId).value();
  {
    // Each scalar is stored under its own type; the widest value survives.
    constexpr Id kInt32{"net.tarni.test.int32"}, kFloat32{"net.tarni.test.float32"},
        kBool{"net.tarni.test.bool"};
    ASSERT_TRUE(data->Set<std::int32_t>(kInt32, -7));
    ASSERT_TRUE(data->Set<float>(kFloat32, 0.1f));
    ASSERT_TRUE(data->Set<double>(kValueKey, 0.1));
    ASSERT_TRUE(data->Set<bool>(kBool, true));
    ASSERT_TRUE(data->Set<std::int64_t>(kResultKey, std::numeric_limits<std::int64_t>::min()));
    EXPECT_EQ(data->Get<std::int64_t>(kResultKey).value(),
              std::numeric_limits<std::int64_t>::min());

    // Another type than stored: the illegal-argument error, whichever way round.
    for (const Error& error :
         {data->Get<std::int64_t>(kInt32).error(), data->Get<double>(kFloat32).error(),
          data->Get<float>(kValueKey).error(), data->Get<std::int32_t>(kBool).error(),
          data->GetShared<IntArray>(kInt32).error()}) {
      EXPECT_TRUE(error.Is(ErrorKind::kIllegalArgument));
      EXPECT_EQ(error.GetMessage(), "Illegal argument: data value holds another type.");
    }
    // A later Set replaces the value and its type.
    ASSERT_TRUE(data->Set<bool>(kInt32, false));
    EXPECT_FALSE(data->Get<bool>(kInt32).value());
  }
  {
    // A key never set: the unresolved error.
    constexpr Id kMissing{"net.tarni.test.missing"};
    auto missing = data->Get<double>(kMissing);
    EXPECT_TRUE(missing.error().Is(ErrorKind::kUnresolved));
    EXPECT_EQ(missing.error().GetMessage(), "No value stored under this id.");
  }
}

TEST_F(CommandTest, SharedValuesStaySharedUntilMadeWritable) {
  Ref<CommandData> a = CreateCommandData(kDataClassId).value();
  ASSERT_TRUE(a->Set<IntArray>(kArrayKey, Ints({1, 2})));
  ASSERT_TRUE(a->Set<double>(kValueKey, 3.0));

  // A copied dictionary holds the same value object.
  Ref<CommandData> b = Cast<CommandData>(a->Clone().value());
  ASSERT_TRUE(b);
  Shared<IntArray> inA = a->GetShared<IntArray>(kArrayKey).value();
  Shared<IntArray> inB = b->GetShared<IntArray>(kArrayKey).value();
  EXPECT_TRUE(inA == inB);

  // The writer gets its own copy; stored back, only its dictionary sees the change.
  Box<IntArray>* writable = inB.MakeWritable().value();
  EXPECT_FALSE(inA == inB);
  ASSERT_TRUE(writable->value.Append(9));
  ASSERT_TRUE(b->SetShared<IntArray>(kArrayKey, inB));
  EXPECT_EQ(Values(a->GetShared<IntArray>(kArrayKey).value()->value), (std::vector<int>{1, 2}));
  EXPECT_EQ(Values(b->GetShared<IntArray>(kArrayKey).value()->value), (std::vector<int>{1, 2, 9}));

  // Scalars are copies: setting one in b leaves a alone.
  ASSERT_TRUE(b->Set<double>(kValueKey, 4.0));
  EXPECT_EQ(a->Get<double>(kValueKey).value(), 3.0);

  // Copying a box from a box of another type is refused.
  Ref<Box<double>> other(new Box<double>());
  EXPECT_TRUE(writable->CopyFrom(*other).error().Is(ErrorKind::kIllegalArgument));
  EXPECT_FALSE(a->CopyFrom(*other));
}

TEST(DataType, RegistryAndEnumerationText) {
  static constexpr EnumMember kModes[] = {{0, "SKELETONTOSKELETON"}, {1, "CONTROLLERTOCONTROLLER"}};
  static const DataType kModeType{
      Id("net.tarni.test.datatype.solvingmode"), "SolvingMode", 4, {}, kModes};
  {
    // Registered once, found by id, gone after unregistering.
    ASSERT_TRUE(RegisterDataType(kModeType));
    EXPECT_EQ(FindDataType(kModeType.id), &kModeType);
    auto again = RegisterDataType(kModeType);
    EXPECT_TRUE(again.error().Is(ErrorKind::kIllegalState));
    EXPECT_EQ(again.error().GetMessage(), "Illegal state: data type id already registered.");
    UnregisterDataType(kModeType.id);
    EXPECT_EQ(FindDataType(kModeType.id), nullptr);
  }
  {
    // A member's name, or the number when no member has the value.
    TextBuilder out;
    AppendEnumText(out, kModeType, 1);
    out.Append(' ');
    AppendEnumText(out, kModeType, -1);
    EXPECT_EQ(out.GetView(), "CONTROLLERTOCONTROLLER -1");
  }
}

}  // namespace
}  // namespace tarni
