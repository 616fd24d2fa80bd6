// Results and errors: what a caller sees of a failure (kind, id, message, location) and how it
// travels up unchanged.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

#include "tarni/array.h"
#include "tarni/error.h"
#include "tarni/result.h"
#include "tarni/string.h"

namespace tarni {
namespace {

using namespace tarni::literals;

constexpr std::string_view kThisFile = "tests/kernel/result_test.cpp";

int g_argumentLine = 0;
int g_stateLine = 0;
int g_raisedLine = 0;

Result<int> Solve(const int* config, const int* sourcePose) {
  g_argumentLine = __LINE__ + 1;
  TARNI_CHECK_ARGUMENT(config && sourcePose);
  return *config + *sourcePose;
}

Result<void> Apply(const int* bpSetting) {
  g_stateLine = __LINE__ + 1;
  TARNI_CHECK_STATE(bpSetting);
  return OK;
}

Result<double> WeightOr(bool valid) {
  TARNI_CHECK_ARGUMENT_WITH(valid, 1.0);
  return 0.5;
}

Result<double> StateOr(bool valid) {
  TARNI_CHECK_STATE_WITH(valid, -1.0);
  return 0.25;
}

Result<int> Raise(bool fail) {
  g_raisedLine = __LINE__ + 1;
  if (fail) return UnexpectedError("inner failure");
  return 7;
}

// Propagates through a value result and a void result.
Result<int> Twice(bool fail) {
  const int inner = TARNI_TRY(Raise(fail));
  TARNI_TRY(Result<void>(Raise(fail)));
  return inner * 2;
}

Result<BaseArray<String>> MakeList() {
  BaseArray<String> list;
  TARNI_TRY(list.Append(TARNI_TRY(String::Make("a"))));
  TARNI_TRY(list.Append(TARNI_TRY(String::Make("b"))));
  return list;
}

TEST(Result, HoldsValueErrorOrBothAndHandsThemOutOfTemporaries) {
  {
    // A value with its error: both survive copies and moves; an error alone has no value.
    Result<String> r("identity"_s, IllegalArgumentError("Illegal argument: y."));
    Result<String> copy = r;
    Result<String> moved = std::move(r);
    for (const Result<String>* each : {&copy, &moved}) {
      EXPECT_FALSE(*each);
      ASSERT_TRUE(each->has_value());
      EXPECT_EQ(each->value(), "identity");
      EXPECT_EQ(each->error().GetMessage(), "Illegal argument: y.");
    }
  }
  {
    // Assigning over a value releases it; heap strings make a leak or double free visible.
    Result<String> a = String::Make("first").value();
    Result<String> b = String::Make("second").value();
    a = b;
    EXPECT_TRUE(a->SharesData(b.value()));
    a = Result<String>(OutOfMemoryError());
    EXPECT_FALSE(a.has_value());
    a = std::move(b);
    EXPECT_EQ(a.value(), "second");
  }
  {
    // Result<void> keeps only the error of a value result.
    EXPECT_TRUE(Result<void>(Result<int>(3)));
    EXPECT_TRUE(
        Result<void>(Result<int>(UnresolvedError("gone"))).error().Is(ErrorKind::kUnresolved));
  }
  {
    // A loop over a temporary's value, and references bound to a temporary's value and error.
    std::string seen;
    for (const String& s : MakeList().value()) seen += s.GetView();
    EXPECT_EQ(seen, "ab");
    const auto& held = MakeList().value();
    ASSERT_EQ(held.GetCount(), 2);
    EXPECT_EQ(held[1], "b");
    const Error& error = Result<int>(Error::MakeCopy(ErrorKind::kUnexpected, "kept")).error();
    EXPECT_EQ(error.GetMessage(), "kept");
    const Error& voidError = Result<void>(Error::MakeCopy(ErrorKind::kUnexpected, "too")).error();
    EXPECT_EQ(voidError.GetMessage(), "too");
  }
}

TEST(Result, TryReturnsTheSameErrorUnchanged) {
  auto ok = Twice(false);
  ASSERT_TRUE(ok);
  EXPECT_EQ(ok.value(), 14);

  auto failed = Twice(true);
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().GetKind(), ErrorKind::kUnexpected);
  EXPECT_EQ(failed.error().GetMessage(), "inner failure");
  // The location is where the error was raised, not where it passed through.
  EXPECT_EQ(failed.error().GetLine(), g_raisedLine);
  EXPECT_EQ(failed.error().GetUnit(), "result_test");
}

TEST(Result, PreconditionMessagesNameTheTestedExpression) {
  const int a = 1;
  const int b = 2;
  // Argument and state checks: exact text (trailing blank included), kind, caller's file and line.
  {
    EXPECT_EQ(Solve(&a, &b).value(), 3);
    auto r = Solve(&a, nullptr);
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error().GetKind(), ErrorKind::kIllegalArgument);
    EXPECT_EQ(r.error().GetMessage(),
              "Illegal argument: Condition config && sourcePose not fulfilled. ");
    EXPECT_EQ(std::string_view(r.error().GetFile()), kThisFile);
    EXPECT_EQ(r.error().GetUnit(), "result_test");
    EXPECT_EQ(r.error().GetLine(), g_argumentLine);
    auto state = Apply(nullptr);
    EXPECT_EQ(state.error().GetKind(), ErrorKind::kIllegalState);
    EXPECT_EQ(state.error().GetMessage(), "Illegal state: Condition bpSetting not fulfilled. ");
    EXPECT_EQ(state.error().GetLine(), g_stateLine);
  }
  // The value-with-error forms return their defined value beside the error.
  {
    auto arg = WeightOr(false);
    ASSERT_TRUE(arg.has_value());
    EXPECT_EQ(arg.value(), 1.0);
    EXPECT_EQ(arg.error().GetMessage(), "Illegal argument: Condition valid not fulfilled. ");
    auto state = StateOr(false);
    ASSERT_TRUE(state.has_value());
    EXPECT_EQ(state.value(), -1.0);
    EXPECT_EQ(state.error().GetMessage(), "Illegal state: Condition valid not fulfilled. ");
    EXPECT_TRUE(WeightOr(true));
    EXPECT_EQ(StateOr(true).value(), 0.25);
  }
}

TEST(Error, KindsCarryTheFrameworkIds) {
  struct Row {
    Error error;
    ErrorKind kind;
    std::string_view id;
  };
  const int line = __LINE__ + 2;
  const Row rows[] = {
      {OutOfMemoryError(), ErrorKind::kOutOfMemory, "net.tarni.error.outofmemory"},
      {NullReferenceError(), ErrorKind::kNullReference, "net.tarni.error.nullptr"},
      {IllegalArgumentError("a"), ErrorKind::kIllegalArgument, "net.tarni.error.illegalargument"},
      {IllegalStateError("s"), ErrorKind::kIllegalState, "net.tarni.error.illegalstate"},
      {UnexpectedError("u"), ErrorKind::kUnexpected, "net.tarni.error.unexpected"},
      {UnresolvedError("r"), ErrorKind::kUnresolved, "net.tarni.error.unresolved"},
      {Error::Make(ErrorKind::kUnknown, "k"), ErrorKind::kUnknown, "net.tarni.error.unknown"},
      {Error::Aggregate(nullptr, 0), ErrorKind::kAggregated, "net.tarni.object.aggregatederror"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.id));
    ASSERT_TRUE(row.error);
    EXPECT_EQ(row.error.GetKind(), row.kind);
    EXPECT_EQ(row.error.GetId().GetText(), row.id);
    EXPECT_EQ(ErrorKindId(row.kind).GetHash(), IdHashWord(row.id));
    // Factories record their caller's location.
    EXPECT_EQ(std::string_view(row.error.GetFile()), kThisFile);
    EXPECT_GE(row.error.GetLine(), line);
    EXPECT_LT(row.error.GetLine(), line + 9);
  }
  EXPECT_EQ(OutOfMemoryError().GetMessage(), "Out of memory.");
  EXPECT_EQ(NullReferenceError().GetMessage(), "Null reference.");

  // "No error" answers with neutral values, and is no kind, not even the unknown one.
  const Error none;
  EXPECT_FALSE(none);
  EXPECT_FALSE(none.Is(ErrorKind::kUnknown));
}

TEST(Error, CopiedMessagesAndUnitsOutliveTheirSource) {
  {
    // MakeCopy keeps its own copy of a run-time text.
    char text[] = "cannot load module x.so";
    Error error = Error::MakeCopy(ErrorKind::kUnresolved, text, "kernel/src/module.cpp", 12);
    std::memset(text, '#', sizeof(text) - 1);
    EXPECT_EQ(error.GetMessage(), "cannot load module x.so");
    EXPECT_EQ(error.GetUnit(), "module");
    EXPECT_EQ(error.GetLine(), 12);
  }
  {
    // Units drop directories of either kind and every extension.
    EXPECT_EQ(Error::Make(ErrorKind::kUnknown, "m", "a\\b\\charactersolver_impl.cpp", 1).GetUnit(),
              "charactersolver_impl");
    EXPECT_EQ(Error::Make(ErrorKind::kUnknown, "m", "x/y.test.cpp", 1).GetUnit(), "y");
  }
  {
    // Copies share one immutable object; assignment over the last copy frees it (asan sees it);
    // "no error" copies as no error, and a moved-from error is none.
    Error a = Error::MakeCopy(ErrorKind::kUnexpected, "shared text");
    Error b = a;
    Error c;
    c = b;
    Error& alias = c;
    c = alias;  // self-assignment keeps the object
    EXPECT_EQ(c.GetMessage(), "shared text");
    a = Error();
    b = std::move(c);
    EXPECT_EQ(b.GetMessage(), "shared text");
    EXPECT_FALSE(c);  // NOLINT: moved-from is "no error"
    b = a;
    EXPECT_FALSE(b);
  }
}

TEST(Error, AggregatesKeepTheirErrors) {
  Error aggregated;
  {
    // The parts go out of scope; the aggregate holds its own references, run-time texts too.
    const Error parts[] = {Error::MakeCopy(ErrorKind::kIllegalArgument, "first part"),
                           OutOfMemoryError(), NullReferenceError("third")};
    aggregated = Error::Aggregate(parts, 3);
  }
  EXPECT_EQ(aggregated.GetKind(), ErrorKind::kAggregated);
  EXPECT_EQ(aggregated.GetMessage(), "first part");
  ASSERT_EQ(aggregated.GetAggregatedCount(), 3);
  EXPECT_EQ(aggregated.GetAggregated(0).GetMessage(), "first part");
  EXPECT_TRUE(aggregated.GetAggregated(1).Is(ErrorKind::kOutOfMemory));
  EXPECT_EQ(aggregated.GetAggregated(2).GetMessage(), "third");
  // Out of range: no error.
  EXPECT_FALSE(aggregated.GetAggregated(3));

  // An empty aggregate, and a negative count taken as empty.
  EXPECT_EQ(Error::Aggregate(nullptr, 0).GetMessage(), "Aggregated error.");
  EXPECT_EQ(Error::Aggregate(nullptr, -4).GetAggregatedCount(), 0);

  // Aggregates nest.
  const Error outer = Error::Aggregate(&aggregated, 1);
  EXPECT_EQ(outer.GetAggregated(0).GetAggregated(2).GetMessage(), "third");
}

}  // namespace
}  // namespace tarni
