// SPDX-License-Identifier: MIT
//
// Which late-bound calls a command lets in: names, shapes, what is judged
// before what, and how failures show.
//
// Sections: names; shapes; before the member; arguments of Execute; failures.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/call_shapes.h"
#include "support/commands.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"

namespace {

using namespace call_shapes;
using namespace commands;
using component::command;
using component::expect_refused;
using parameters::RawCall;
using values::plain;
using values::reference_to;

constexpr DISPID kConnection = DISPID_ZIRDB_COMMAND_ACTIVECONNECTION;
constexpr DISPID kText = DISPID_ZIRDB_COMMAND_COMMANDTEXT;
constexpr DISPID kExecute = DISPID_ZIRDB_COMMAND_EXECUTE;
constexpr DISPID kCreate = DISPID_ZIRDB_COMMAND_CREATEPARAMETER;
constexpr DISPID kParameters = DISPID_ZIRDB_COMMAND_PARAMETERS;
constexpr DISPID kType = DISPID_ZIRDB_COMMAND_COMMANDTYPE;

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

TEST(CommandNames, HaveTheirIds) {
  const auto late = dispatch_of(command().get());
  const struct {
    const wchar_t* name;
    DISPID id;
  } kRows[] = {{L"ActiveConnection", 1},
               {L"activeconnection", 1},
               {L"CommandText", 2},
               {L"COMMANDTEXT", 2},
               {L"Execute", 3},
               {L"eXECUTE", 3},
               {L"CreateParameter", 4},
               {L"createParameter", 4},
               {L"Parameters", 5},
               {L"PARAMETERS", 5},
               {L"CommandType", 6},
               {L"commandtype", 6},
               {L"", -1},
               {L"State", -1},
               {L"Cancel", -1},
               {L"Parameter", -1},
               {L"Parameters ", -1},
               {L"Command", -1},
               {L"Name", -1},
               {L"_NewEnum", -1}};
  for (const auto& row : kRows) {
    EXPECT_EQ(id_of(late.get(), row.name), row.id) << row.name;
  }
}

TEST(CommandNames, AreLookedUpUntilOneIsUnknown) {
  const auto late = dispatch_of(command().get());
  std::wstring text[] = {L"execute", L"Parameters", L"RecordsAffected",
                         L"CommandText"};
  wchar_t* names[] = {text[0].data(), text[1].data(), text[2].data(),
                      text[3].data()};
  DISPID ids[] = {77, 77, 77, 77};
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, names, 4, 0, ids),
            DISP_E_UNKNOWNNAME);
  EXPECT_EQ(ids[0], 3);
  EXPECT_EQ(ids[1], 5);
  EXPECT_EQ(ids[2], DISPID_UNKNOWN);
  EXPECT_EQ(ids[3], 77);
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, names, 2, 0, ids), S_OK);
  EXPECT_EQ(late->GetIDsOfNames(IID_IDispatch, names, 1, 0, ids), E_INVALIDARG);
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, nullptr, 0, 0, ids), E_INVALIDARG);
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, names, 0, 0, nullptr), E_INVALIDARG);
}

TEST(CommandNames, AreAllThatIsKnownOfItsTypes) {
  const auto late = dispatch_of(command().get());
  UINT count = 77;
  EXPECT_EQ(late->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(late->GetTypeInfoCount(nullptr), E_INVALIDARG);
  auto* info = static_cast<ITypeInfo*>(component::unset());
  EXPECT_EQ(late->GetTypeInfo(0, 0, &info), E_NOTIMPL);
  EXPECT_EQ(info, nullptr);
}

// ---------------------------------------------------------------------------
// Shapes
// ---------------------------------------------------------------------------

HRESULT verdict_on_property(const Shape& shape) {
  if (has(shape, DISPATCH_PROPERTYGET)) {
    if (shape.arguments > 0) return DISP_E_BADPARAMCOUNT;
    return shape.with_result ? S_OK : E_INVALIDARG;
  }
  if (!has(shape, DISPATCH_PROPERTYPUT)) return DISP_E_MEMBERNOTFOUND;
  return shape.arguments == 1 && shape.naming == &kNamings[kNamedAsPut]
             ? S_OK
             : DISP_E_BADPARAMCOUNT;
}
HRESULT verdict_on_parameters(const Shape& shape) {
  if (shape.arguments > 0) return DISP_E_BADPARAMCOUNT;
  return has(shape, DISPATCH_PROPERTYGET) && shape.with_result ? S_OK
                                                               : E_INVALIDARG;
}
HRESULT verdict_on_execute(const Shape& shape) {
  if (shape.arguments > 3) return DISP_E_BADPARAMCOUNT;
  return has(shape, DISPATCH_METHOD | DISPATCH_PROPERTYGET) && shape.with_result
             ? S_OK
             : E_INVALIDARG;
}
HRESULT verdict_on_create(const Shape& shape) {
  if (shape.arguments > 5) return DISP_E_BADPARAMCOUNT;
  return has(shape, DISPATCH_METHOD) && shape.with_result ? S_OK : E_INVALIDARG;
}

/// Those of every_shape, and with more arguments than any member takes.
std::vector<Shape> shapes() {
  std::vector<Shape> all = every_shape();
  for (WORD flags = 0; flags <= kAllFlags; ++flags) {
    for (const std::size_t arguments : {4U, 5U, 6U, 7U}) {
      for (const bool with_result : {false, true}) {
        all.push_back({flags, arguments, &kNamings[0], with_result});
        all.push_back({flags, arguments, &kNamings[kNamedAsPut], with_result});
      }
    }
  }
  return all;
}

TEST(CommandCalls, OfEveryShapeAreLetInOrRefusedByTheMembersRule) {
  ForeignConnection foreign;
  const _variant_t over(foreign.dispatch());
  const struct {
    DISPID member;
    _variant_t argument;
    HRESULT (*verdict)(const Shape& shape);
    VARTYPE result;
  } kRows[] = {{kConnection, over, verdict_on_property, VT_DISPATCH},
               {kText, L"select", verdict_on_property, VT_BSTR},
               {kType, 1, verdict_on_property, VT_I4},
               {kParameters, 0, verdict_on_parameters, VT_DISPATCH},
               {kExecute, 0, verdict_on_execute, VT_DISPATCH},
               {kCreate, 0, verdict_on_create, VT_DISPATCH}};
  const std::vector<Shape> all = shapes();
  const Command made = command_over(foreign.dispatch(), L"select");
  const auto late = dispatch_of(made.get());
  for (const auto& row : kRows) {
    for (const Shape& shape : all) {
      SCOPED_TRACE(testing::Message() << "member " << row.member << ", "
                                      << testing::PrintToString(shape));
      leave_an_error();
      foreign.executed.clear();
      const Answer answer = call(late.get(), row.member, shape, row.argument);
      const HRESULT expected = row.verdict(shape);
      EXPECT_EQ(answer.result, expected) << std::hex << answer.result;
      EXPECT_EQ(answer.code, 0);
      EXPECT_EQ(answer.source, L"");
      const bool put = row.verdict == verdict_on_property &&
                       !has(shape, DISPATCH_PROPERTYGET);
      EXPECT_EQ(answer.value.vt,
                expected == S_OK && !put ? row.result : VARTYPE{VT_EMPTY});
      EXPECT_EQ(foreign.executed.size(),
                row.member == kExecute && expected == S_OK ? 1U : 0U);
    }
  }
}

TEST(CommandCalls, ThatAreRefusedLeaveNoError) {
  const Command made = command();
  const auto late = dispatch_of(made.get());
  for (const DISPID member :
       {kConnection, kText, kExecute, kCreate, kParameters, kType, 0, 7}) {
    for (const Shape& shape :
         {Shape{0, 0, &kNamings[0], true}, Shape{15, 6, &kNamings[0], true},
          Shape{4, 2, &kNamings[1], false}}) {
      SCOPED_TRACE(member);
      const Outcome outcome = ended(
          [&] { return call(late.get(), member, shape, VARIANT()).result; });
      EXPECT_NE(outcome.code, S_OK);
      EXPECT_EQ(outcome, plainly(outcome.code));
    }
  }
}

TEST(CommandCalls, WithoutArgumentsAtAllHaveNone) {
  ForeignConnection foreign;
  const Command made = command_over(foreign.dispatch(), L"select");
  const struct {
    DISPID member;
    WORD flags;
    HRESULT result;
  } kRows[] = {{kConnection, 2, S_OK}, {kConnection, 4, DISP_E_BADPARAMCOUNT},
               {kText, 2, S_OK},       {kText, 4, DISP_E_BADPARAMCOUNT},
               {kType, 2, S_OK},       {kType, 4, DISP_E_BADPARAMCOUNT},
               {kParameters, 2, S_OK}, {kExecute, 1, S_OK},
               {kCreate, 1, S_OK}};
  for (const auto& row : kRows) {
    RawCall raw;
    raw.member = row.member;
    raw.flags = row.flags;
    raw.with_parameters = false;
    EXPECT_EQ(parameters::invoke_raw(dispatch_of(made.get()).get(), raw).result,
              row.result)
        << row.member;
  }
}

// ---------------------------------------------------------------------------
// Before the member
// ---------------------------------------------------------------------------

TEST(CommandCalls, NeedAnEmptyInterfaceId) {
  const auto late = dispatch_of(command().get());
  for (const DISPID member :
       {kConnection, kText, kExecute, kCreate, kParameters, kType, 0, 7, -1}) {
    component::Call call;
    call.member = member;
    call.riid = IID_IDispatch;
    EXPECT_EQ(ended([&] {
                const Answer answer = component::invoke(late.get(), call);
                expect_refused(answer, E_INVALIDARG);
                return answer.result;
              }),
              plainly(E_INVALIDARG));
  }
}

// A command has no default member.
TEST(CommandCalls, OfOtherMembersAreUnknown) {
  ForeignConnection foreign;
  const Command made = command_over(foreign.dispatch(), L"select");
  for (const DISPID member : {0, 7, 8, 11, 100, -1, -3, -4, -5}) {
    for (const WORD flags : std::vector<WORD>{1, 2, 3, 4}) {
      component::Call call;
      call.member = member;
      call.flags = flags;
      expect_refused(component::invoke(dispatch_of(made.get()).get(), call),
                     DISP_E_MEMBERNOTFOUND);
    }
  }
  EXPECT_TRUE(foreign.executed.empty());
}

// ---------------------------------------------------------------------------
// Arguments of Execute
// ---------------------------------------------------------------------------

TEST(CommandExecuteCall, ConvertsItsOptions) {
  _variant_t seven(7);
  const struct {
    const char* description;
    _variant_t value;
    HRESULT result;
    long options;
    std::string printed;
  } kRows[] = {
      {"integer", 7, S_OK, 7, ""},
      {"VT_I4", plain(VT_I4, 7), S_OK, 7, ""},
      {"text", L"7", S_OK, 7, ""},
      {"double", 7.9, S_OK, 7, ""},
      {"reference", reference_to(&seven), S_OK, 7, ""},
      {"all 64 bits", values::kSmallest, S_OK, values::kSmallest, ""},
      {"empty", {}, S_OK, 0, ""},
      {"omitted", plain(VT_ERROR, 0x80020004), S_OK, 0, ""},
      {"no number", L"x", DISP_E_TYPEMISMATCH, 0, ""},
      {"null", plain(VT_NULL, 0), DISP_E_TYPEMISMATCH, 0,
       parameters::conversion_stub(VT_NULL, VT_I8)},
      {"VT_I2", plain(VT_I2, 7), DISP_E_TYPEMISMATCH, 0,
       parameters::conversion_stub(VT_I2, VT_I8)},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    ForeignConnection foreign;
    const Command made = command_over(foreign.dispatch(), L"select");
    Answer answer;
    EXPECT_EQ(printed::by([&] {
                answer = component::method(dispatch_of(made.get()).get(),
                                           kExecute, {_variant_t(), row.value});
              }),
              row.printed);
    EXPECT_EQ(answer.result, row.result);
    ASSERT_EQ(foreign.executed.size(), row.result == S_OK ? 1U : 0U);
    if (row.result == S_OK) {
      EXPECT_EQ(foreign.executed[0].options, row.options);
    } else {
      expect_refused(answer, row.result);
    }
  }
}

TEST(CommandExecuteCall, NeedsOptionsBehindAReference) {
  ForeignConnection foreign;
  const Command made = command_over(foreign.dispatch(), L"select");
  expect_refused(
      component::method(dispatch_of(made.get()).get(), kExecute,
                        {_variant_t(), parameters::null_reference()}),
      DISP_E_TYPEMISMATCH);
  EXPECT_TRUE(foreign.executed.empty());
}

TEST(CommandExecuteCall, ConvertsItsOptionsBeforeItExecutes) {
  expect_refused(component::method(dispatch_of(command().get()).get(), kExecute,
                                   {_variant_t(), L"x"}),
                 DISP_E_TYPEMISMATCH);
}

// ---------------------------------------------------------------------------
// Failures
// ---------------------------------------------------------------------------

TEST(CommandFailures, AreToldEvenToThoseWhoDoNotListen) {
  component::Call call;
  call.member = kExecute;
  call.with_exception = false;
  const Answer answer =
      component::invoke(dispatch_of(command().get()).get(), call);
  EXPECT_EQ(answer.result, DISP_E_EXCEPTION);
  EXPECT_EQ(answer.value.vt, VT_EMPTY);
}

TEST(CommandFailures, ReplaceWhatTheExceptionHeld) {
  component::Exception exception;
  exception->bstrSource = SysAllocString(L"old source");
  exception->bstrDescription = SysAllocString(L"old description");
  exception->bstrHelpFile = SysAllocString(L"old help");
  exception->wCode = 7;
  exception->dwHelpContext = 7;
  DISPPARAMS none{};
  _variant_t result;
  EXPECT_EQ(dispatch_of(command().get())
                ->Invoke(kExecute, IID_NULL, 0, DISPATCH_METHOD, &none, &result,
                         exception.get(), nullptr),
            DISP_E_EXCEPTION);
  EXPECT_EQ(exception->scode, component::kNoConnectionCode);
  EXPECT_STREQ(exception->bstrSource, component::kCommandSource);
  EXPECT_STREQ(exception->bstrDescription, component::kNoConnectionText);
  EXPECT_EQ(exception->bstrHelpFile, nullptr);
  EXPECT_EQ(exception->wCode, 0);
  EXPECT_EQ(exception->dwHelpContext, 0U);
}

TEST(CommandFailures, LeaveTheResultAsItWas) {
  DISPPARAMS none{};
  VARIANT result = plain(VT_I8, 7);
  EXPECT_EQ(dispatch_of(command().get())
                ->Invoke(kExecute, IID_NULL, 0, DISPATCH_METHOD, &none, &result,
                         nullptr, nullptr),
            DISP_E_EXCEPTION);
  EXPECT_TRUE(values::same_bytes(result, plain(VT_I8, 7)));
}

}  // namespace
