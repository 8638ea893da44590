// SPDX-License-Identifier: MIT
//
// How a Connection takes late-bound calls: every member under every combination
// of flags, arguments, names and places for the result; names and member ids;
// and the interfaces it answers.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/call_shapes.h"
#include "support/component.h"
#include "support/component_host.h"
#include "support/connection_calls.h"
#include "support/connections.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using call_shapes::has;
using call_shapes::kAllFlags;
using call_shapes::kNamedAsPut;
using call_shapes::kNamings;
using call_shapes::Naming;
using call_shapes::Shape;
using component::Answer;
using component::Connection;
using component::connection;
using component::expect_exception;
using component::expect_refused;
using component::kAlreadyOpenCode;
using component::kAlreadyOpenText;
using component::kClosedCode;
using component::kClosedText;
using component::kConnectionSource;
using component::references_of;
using connection_calls::dispatch_of;
using connection_calls::kClose;
using connection_calls::kConnectionString;
using connection_calls::kExecute;
using connection_calls::kOpen;
using connection_calls::kParameterised;
using connection_calls::kState;
using connection_calls::Road;
using connection_calls::state_of;
using connection_calls::string_of;
using parameters::invoke_raw;
using parameters::RawCall;
using values::plain;
using values::reference_to;
using values::text_value;

class ConnectionDispatch : public connection_calls::ConnectionTest {};

constexpr DISPID kMembers[] = {kParameterised, kConnectionString, kState, kOpen,
                               kClose,         kExecute};
constexpr std::size_t kMostArguments = 6;

std::vector<Shape> every_shape() {
  std::vector<Shape> shapes;
  for (WORD flags = 0; flags <= kAllFlags; ++flags) {
    for (std::size_t arguments = 0; arguments <= kMostArguments; ++arguments) {
      for (const Naming& naming : kNamings) {
        for (const bool with_result : {false, true}) {
          shapes.push_back({flags, arguments, &naming, with_result});
        }
      }
    }
  }
  return shapes;
}

bool named_as_put(const Shape& shape) {
  return shape.naming == &kNamings.at(kNamedAsPut);
}

// ---------------------------------------------------------------------------
// What each shape comes to. "Served" is a call that gets through to the
// operation with an argument that is a text, and a number to whom it asks.
// ---------------------------------------------------------------------------

constexpr HRESULT kServed = S_OK;

HRESULT expected_of_string(const Shape& shape) {
  if (has(shape, DISPATCH_PROPERTYGET)) {
    if (shape.arguments > 0) return DISP_E_BADPARAMCOUNT;
    return shape.with_result ? kServed : E_INVALIDARG;
  }
  if (!has(shape, DISPATCH_PROPERTYPUT)) return DISP_E_MEMBERNOTFOUND;
  return shape.arguments == 1 && named_as_put(shape) ? kServed
                                                     : DISP_E_BADPARAMCOUNT;
}

HRESULT expected_of_state(const Shape& shape) {
  if (shape.arguments > 0) return DISP_E_BADPARAMCOUNT;
  return has(shape, DISPATCH_PROPERTYGET) && shape.with_result ? kServed
                                                               : E_INVALIDARG;
}

HRESULT expected_of_open(const Shape& shape) {
  if (shape.arguments > 4) return DISP_E_BADPARAMCOUNT;
  return has(shape, DISPATCH_METHOD) ? kServed : DISP_E_MEMBERNOTFOUND;
}

HRESULT expected_of_close(const Shape& shape) {
  if (shape.arguments > 0) return DISP_E_BADPARAMCOUNT;
  return has(shape, DISPATCH_METHOD) ? kServed : DISP_E_MEMBERNOTFOUND;
}

HRESULT expected_of_execute(const Shape& shape, std::size_t most) {
  if (!has(shape, DISPATCH_METHOD)) return DISP_E_MEMBERNOTFOUND;
  if (shape.arguments == 0 || shape.arguments > most) {
    return DISP_E_BADPARAMCOUNT;
  }
  return shape.with_result ? kServed : E_INVALIDARG;
}

HRESULT expected(DISPID member, const Shape& shape) {
  switch (member) {
    case kConnectionString:
      return expected_of_string(shape);
    case kState:
      return expected_of_state(shape);
    case kOpen:
      return expected_of_open(shape);
    case kClose:
      return expected_of_close(shape);
    case kExecute:
      return expected_of_execute(shape, 3);
    default:
      return expected_of_execute(shape, SIZE_MAX);
  }
}

/// Calls with the same argument everywhere.
Answer call_shape(const Connection& on, DISPID member, const Shape& shape,
                  const VARIANT& argument) {
  return call_shapes::call(dispatch_of(on).get(), member, shape, argument);
}

TEST_F(ConnectionDispatch, EveryShapeOfCallIsJudgedTheSameOpenOrClosed) {
  // Both a connection string and a number of options; closed, the string has
  // nothing to open.
  const _variant_t argument = text_value(L"12");
  const Connection closed = connection();
  const Connection open = opened();
  for (const DISPID member : kMembers) {
    if (member == kOpen || member == kClose) continue;  // change the state
    for (const Shape& shape : every_shape()) {
      SCOPED_TRACE(testing::Message() << "member " << member << ", " << shape);
      const HRESULT judged = expected(member, shape);
      const bool runs = member == kExecute || member == kParameterised;
      const bool puts =
          member == kConnectionString && !has(shape, DISPATCH_PROPERTYGET);
      const Answer closed_answer = call_shape(closed, member, shape, argument);
      const Answer open_answer = call_shape(open, member, shape, argument);
      script().clear_log();
      if (judged != kServed) {
        expect_refused(closed_answer, judged);
        expect_refused(open_answer, judged);
      } else {
        EXPECT_EQ(closed_answer.result, runs ? DISP_E_EXCEPTION : S_OK);
        EXPECT_EQ(closed_answer.code, runs ? kClosedCode : 0);
        EXPECT_EQ(open_answer.result, puts ? DISP_E_EXCEPTION : S_OK);
        EXPECT_EQ(open_answer.code, puts ? kAlreadyOpenCode : 0);
      }
    }
  }
}

TEST_F(ConnectionDispatch, EveryShapeOfOpenAndCloseIsJudged) {
  const _variant_t argument = text_value(L"12");
  const Connection made = connection();
  const Connection open = opened();
  script().fail("SQLDriverConnect", SQL_ERROR, {"08001", 1, "no"});
  for (const DISPID member : {kOpen, kClose}) {
    for (const Shape& shape : every_shape()) {
      SCOPED_TRACE(testing::Message() << "member " << member << ", " << shape);
      script().clear_log();
      const HRESULT judged = expected(member, shape);
      const Answer answer = call_shape(made, member, shape, argument);
      if (judged != kServed) {
        expect_refused(answer, judged);
        expect_refused(call_shape(open, member, shape, argument), judged);
      } else if (member == kClose) {
        expect_refused(answer, S_OK);
      } else {
        EXPECT_EQ(answer.result, DISP_E_EXCEPTION);
        EXPECT_EQ(answer.code, shape.arguments == 0
                                   ? E_INVALIDARG
                                   : component::kOpenFailedCode);
        expect_exception(call_shape(open, member, shape, argument),
                         kAlreadyOpenCode, kConnectionSource, kAlreadyOpenText);
      }
    }
  }
  EXPECT_EQ(state_of(Road::Vtable, open), 1);
}

// The shape is judged before any argument is looked at.
TEST_F(ConnectionDispatch, AWrongShapeBeatsAWrongArgument) {
  const VARIANT bad = plain(VT_CY, 1);
  const Connection closed = connection();
  for (const DISPID member : kMembers) {
    for (const Shape& shape : every_shape()) {
      SCOPED_TRACE(testing::Message() << "member " << member << ", " << shape);
      const HRESULT judged = expected(member, shape);
      if (judged == kServed && shape.arguments == 0) continue;
      expect_refused(call_shape(closed, member, shape, bad),
                     judged == kServed ? DISP_E_TYPEMISMATCH : judged);
    }
  }
}

TEST_F(ConnectionDispatch, WithoutParametersThereAreNoArguments) {
  const Connection made = connection();
  for (const DISPID member : kMembers) {
    for (WORD flags = 0; flags <= kAllFlags; ++flags) {
      for (const bool with_result : {false, true}) {
        SCOPED_TRACE(testing::Message() << member << ", " << flags);
        const Shape shape{flags, 0, &kNamings.front(), with_result};
        RawCall call;
        call.member = member;
        call.flags = flags;
        call.with_result = with_result;
        call.with_parameters = false;
        const Answer answer = invoke_raw(dispatch_of(made).get(), call);
        const HRESULT judged = expected(member, shape);
        if (judged == kServed && member == kOpen) {
          EXPECT_EQ(answer.code, E_INVALIDARG);
          continue;
        }
        EXPECT_EQ(answer.result, judged);
      }
    }
  }
}

TEST_F(ConnectionDispatch, ArgumentsThatAreOnlyCountedAreNotThere) {
  const Connection made = connection();
  const auto late = dispatch_of(made);
  _variant_t result;
  const auto counting = [&](DISPID member, WORD flags) {
    return call_shapes::invoke_counting(late.get(), member, flags, &result);
  };
  EXPECT_EQ(counting(kConnectionString, DISPATCH_PROPERTYPUT),
            DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(counting(kState, DISPATCH_PROPERTYGET), S_OK);
  EXPECT_EQ(counting(kClose, DISPATCH_METHOD), S_OK);
  EXPECT_EQ(counting(kExecute, DISPATCH_METHOD), DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(counting(kParameterised, DISPATCH_METHOD), DISP_E_BADPARAMCOUNT);
}

// ---------------------------------------------------------------------------
// ConnectionString and State
// ---------------------------------------------------------------------------

TEST_F(ConnectionDispatch, TheStringTakesTextsOnly) {
  _variant_t text = text_value(L"new");
  VARIANT by_reference = plain(VT_BYREF | VT_BSTR, 0);
  by_reference.byref = &text.bstrVal;
  _variant_t number(7);
  objects::Dispatch object;
  const _variant_t with_default(static_cast<IDispatch*>(&object));
  const _variant_t narrow = values::lpstr_value("new");
  const std::vector<VARIANT> refused{plain(VT_EMPTY, 0),
                                     plain(VT_NULL, 0),
                                     plain(VT_I4, 7),
                                     plain(VT_I8, 7),
                                     plain(VT_R8, 0),
                                     plain(VT_BOOL, 0),
                                     plain(VT_DATE, 0),
                                     plain(VT_ERROR, 0),
                                     plain(VT_ARRAY | VT_BSTR, 0),
                                     plain(VT_BSTR | 0x1000, 0),
                                     by_reference,
                                     reference_to(nullptr),
                                     reference_to(&number),
                                     with_default,
                                     narrow};
  for (const bool is_open : {false, true}) {
    const Connection made = is_open ? opened() : connection();
    const std::wstring before = string_of(Road::Vtable, made);
    for (const VARIANT& argument : refused) {
      SCOPED_TRACE(argument.vt);
      expect_refused(parameters::put_raw(dispatch_of(made).get(), 1, argument),
                     DISP_E_TYPEMISMATCH);
      EXPECT_EQ(string_of(Road::Vtable, made), before);
    }
  }
  EXPECT_EQ(object.invocations(), 0);
}

TEST_F(ConnectionDispatch, ReferencesToTheStringAreFollowed) {
  _variant_t text = text_value(L"new");
  for (const std::size_t depth : {1U, 2U, 5U}) {
    const parameters::Chain chain(&text, depth);
    const Connection made = connection();
    expect_refused(
        parameters::put_raw(dispatch_of(made).get(), 1, chain.front()), S_OK);
    EXPECT_EQ(string_of(Road::LateBound, made), L"new");
  }
}

TEST_F(ConnectionDispatch, PutTheStringWhileOpenSaysWhy) {
  const Connection made = opened();
  expect_exception(component::put(dispatch_of(made).get(), 1, L"new"),
                   kAlreadyOpenCode, kConnectionSource, kAlreadyOpenText);
}

TEST_F(ConnectionDispatch, GettingGoesBeforePutting) {
  const Connection made = connection();
  component::Call call;
  call.member = kConnectionString;
  call.flags = DISPATCH_PROPERTYGET | DISPATCH_PROPERTYPUT;
  const Answer answer = component::invoke(dispatch_of(made).get(), call);
  EXPECT_EQ(answer.result, S_OK);
  EXPECT_EQ(answer.value.vt, VT_BSTR);
  EXPECT_EQ(values::text_of(answer.value), L"");
}

TEST_F(ConnectionDispatch, TheStateIsANumberWithAllItsBits) {
  for (const bool is_open : {false, true}) {
    const Connection made = is_open ? opened() : connection();
    VARIANT result = plain(VT_I8, ~0ULL);
    result.wReserved1 = 7;
    DISPPARAMS none{};
    ASSERT_EQ(dispatch_of(made)->Invoke(kState, IID_NULL, 0,
                                        DISPATCH_METHOD | DISPATCH_PROPERTYGET,
                                        &none, &result, nullptr, nullptr),
              S_OK);
    EXPECT_TRUE(values::same_bytes(result, plain(VT_I4, is_open ? 1 : 0)));
  }
}

// ---------------------------------------------------------------------------
// What every member has in common
// ---------------------------------------------------------------------------

TEST_F(ConnectionDispatch, TheInterfaceIdComesBeforeTheMember) {
  const Connection made = connection();
  for (const DISPID member : {0, 1, 2, 3, 4, 5, 6, -1, -4, 1000}) {
    for (const IID& riid : {IID_IDispatch, IID_IZIRDBConnection}) {
      for (WORD flags = 0; flags <= kAllFlags; ++flags) {
        component::Call call;
        call.member = member;
        call.flags = flags;
        call.riid = riid;
        call.with_result = false;
        expect_refused(component::invoke(dispatch_of(made).get(), call),
                       E_INVALIDARG);
      }
    }
  }
}

TEST_F(ConnectionDispatch, UnknownMembersAreNotFoundHoweverCalled) {
  const Connection made = opened();
  const VARIANT argument = plain(VT_I4, 1);
  for (const DISPID member :
       {6, 7, 11, 77, 256, 65536, 65537, std::numeric_limits<DISPID>::max(), -1,
        -2, -3, -4, -5, std::numeric_limits<DISPID>::min()}) {
    for (WORD flags = 0; flags <= kAllFlags; ++flags) {
      for (const std::size_t arguments : {0U, 1U, 6U}) {
        SCOPED_TRACE(member);
        expect_refused(
            call_shape(made, member,
                       {flags, arguments, &kNamings.at(kNamedAsPut), true},
                       argument),
            DISP_E_MEMBERNOTFOUND);
      }
    }
  }
}

TEST_F(ConnectionDispatch, FailuresDoWithoutAnExceptionRecord) {
  const Connection made = opened();
  component::Call call;
  call.with_exception = false;
  call.member = kOpen;
  expect_refused(component::invoke(dispatch_of(made).get(), call),
                 DISP_E_EXCEPTION);
  for (const DISPID member : {kExecute, kParameterised}) {
    call.member = member;
    call.arguments = {L""};
    expect_refused(component::invoke(dispatch_of(made).get(), call),
                   DISP_E_EXCEPTION);
  }
}

TEST_F(ConnectionDispatch, FailuresReplaceWhatTheExceptionRecordHeld) {
  const Connection made = connection();
  const auto late = dispatch_of(made);
  _variant_t sql(L"select");
  _variant_t bad = values::owned(plain(VT_CY, 0));
  const auto fails = [&](component::Exception& exception, _variant_t& text) {
    DISPPARAMS parameters{&text, nullptr, 1, 0};
    VARIANT result{};
    return late->Invoke(kExecute, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                        &result, exception.get(), nullptr);
  };
  component::Exception exception;
  exception->wCode = 7;
  exception->bstrSource = SysAllocString(L"old source");
  exception->bstrDescription = SysAllocString(L"old text");
  exception->bstrHelpFile = SysAllocString(L"old file");
  exception->dwHelpContext = 7;
  exception->scode = 7;

  EXPECT_EQ(fails(exception, bad), DISP_E_TYPEMISMATCH);
  EXPECT_STREQ(exception->bstrDescription, L"old text");
  EXPECT_EQ(exception->scode, 7);

  EXPECT_EQ(fails(exception, sql), DISP_E_EXCEPTION);
  EXPECT_EQ(exception->wCode, 0);
  EXPECT_STREQ(exception->bstrSource, kConnectionSource);
  EXPECT_STREQ(exception->bstrDescription, kClosedText);
  EXPECT_EQ(exception->bstrHelpFile, nullptr);
  EXPECT_EQ(exception->dwHelpContext, 0U);
  EXPECT_EQ(exception->scode, kClosedCode);
}

TEST_F(ConnectionDispatch, WhatFailsLeavesTheResultAlone) {
  const Connection made = connection();
  const auto late = dispatch_of(made);
  const VARIANT before = plain(VT_I8, 0xA5A5);
  _variant_t arguments[] = {_variant_t(1.5), _variant_t(L"select")};
  script().fail("SQLDriverConnect", SQL_ERROR, {"08001", 1, "no"});
  for (const DISPID member : {kExecute, kParameterised, kOpen, kState}) {
    SCOPED_TRACE(member);
    VARIANT result = before;
    DISPPARAMS parameters{arguments, nullptr, 2, 0};
    EXPECT_LT(late->Invoke(member, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                           &result, nullptr, nullptr),
              0);
    EXPECT_TRUE(values::same_bytes(result, before));
  }
}

TEST_F(ConnectionDispatch, ExecutingInitialisesTheResult) {
  script().columns({{"n", SQL_INTEGER}});
  const Connection made = opened();
  for (const DISPID member : {kExecute, kParameterised}) {
    VARIANT result = plain(VT_I8, ~0ULL);
    result.wReserved1 = result.wReserved2 = result.wReserved3 = 7;
    _variant_t sql(L"select");
    DISPPARAMS parameters{&sql, nullptr, 1, 0};
    ASSERT_EQ(dispatch_of(made)->Invoke(member, IID_NULL, 0, DISPATCH_METHOD,
                                        &parameters, &result, nullptr, nullptr),
              S_OK);
    const _variant_t owner = values::owned(result);
    EXPECT_EQ(result.vt, VT_DISPATCH);
    EXPECT_EQ(result.wReserved1 + result.wReserved2 + result.wReserved3, 0);
    ASSERT_NE(result.pdispVal, nullptr);
    EXPECT_EQ(references_of(result.pdispVal), 1U);
  }
}

// Script engines call what may be either with both flags.
TEST_F(ConnectionDispatch, MethodAndGetTogetherReachEveryMember) {
  const Connection made = connection();
  component::Call call;
  call.flags = DISPATCH_METHOD | DISPATCH_PROPERTYGET;
  call.member = kOpen;
  call.arguments = {L"DSN=scripted"};
  expect_refused(component::invoke(dispatch_of(made).get(), call), S_OK);
  call.arguments = {};
  call.member = kState;
  EXPECT_EQ(component::invoke(dispatch_of(made).get(), call).value.lVal, 1);
  call.member = kConnectionString;
  EXPECT_EQ(
      values::text_of(component::invoke(dispatch_of(made).get(), call).value),
      L"DSN=scripted");
  call.arguments = {L"update"};
  for (const DISPID member : {kExecute, kParameterised}) {
    call.member = member;
    expect_refused(component::invoke(dispatch_of(made).get(), call), S_OK);
  }
  call.arguments = {};
  call.member = kClose;
  expect_refused(component::invoke(dispatch_of(made).get(), call), S_OK);
  EXPECT_EQ(state_of(Road::LateBound, made), 0);
}

TEST_F(ConnectionDispatch, NamesOfArgumentsAreNotInterpreted) {
  const Connection made = connection();
  RawCall call;
  call.member = kOpen;
  const _variant_t source(L"DSN=scripted");
  const _variant_t user(L"u");
  call.arguments = {source, user};
  call.named = {1, 0};
  call.named_count = 2;
  expect_refused(invoke_raw(dispatch_of(made).get(), call), S_OK);
  EXPECT_EQ(string_sent(), "DSN=scripted;UID=u;");
}

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

TEST_F(ConnectionDispatch, NamesAreFoundInAnyCase) {
  const Connection made = connection();
  const auto late = dispatch_of(made);
  const std::vector<std::pair<const wchar_t*, DISPID>> rows{
      {L"ConnectionString", 1},
      {L"connectionstring", 1},
      {L"CONNECTIONSTRING", 1},
      {L"State", 2},
      {L"sTATE", 2},
      {L"Open", 3},
      {L"OPEN", 3},
      {L"Close", 4},
      {L"close", 4},
      {L"Execute", 5},
      {L"eXeCuTe", 5},
      {L"", -1},
      {L"Value", -1},
      {L"Item", -1},
      {L"_NewEnum", -1},
      {L"Stat", -1},
      {L"States", -1},
      {L" State", -1},
      {L"UserID", -1},
      {L"Options", -1},
      {L"Errors", -1}};
  for (const auto& [name, id] : rows) {
    EXPECT_EQ(call_shapes::id_of(late.get(), name), id)
        << testing::PrintToString(std::wstring(name));
  }
}

TEST_F(ConnectionDispatch, TheFirstUnknownNameEndsTheLookup) {
  const Connection made = connection();
  const auto late = dispatch_of(made);
  std::wstring state = L"STATE";
  std::wstring none = L"nothing";
  wchar_t* names[] = {state.data(), none.data(), state.data()};
  DISPID ids[] = {77, 77, 77};
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, names, 3, 0, ids),
            DISP_E_UNKNOWNNAME);
  EXPECT_EQ(std::vector<DISPID>(ids, ids + 3),
            (std::vector<DISPID>{2, -1, 77}));
  names[1] = nullptr;
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, names, 3, 0, ids),
            DISP_E_UNKNOWNNAME);
  names[1] = state.data();
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, names, 3, 7, ids), S_OK);
  EXPECT_EQ(std::vector<DISPID>(ids, ids + 3), (std::vector<DISPID>{2, 2, 2}));
  ids[0] = 77;
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, names, 0, 0, ids), S_OK);
  EXPECT_EQ(ids[0], 77);
  EXPECT_EQ(late->GetIDsOfNames(IID_IDispatch, names, 0, 0, ids), E_INVALIDARG);
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, nullptr, 0, 0, ids), E_INVALIDARG);
  EXPECT_EQ(late->GetIDsOfNames(IID_NULL, names, 0, 0, nullptr), E_INVALIDARG);
}

// ---------------------------------------------------------------------------
// Interfaces and lifetime
// ---------------------------------------------------------------------------

TEST_F(ConnectionDispatch, AnswersItsThreeInterfacesAndNoOther) {
  const Connection made = connection();
  const auto unknown = component::query<IUnknown>(made.get(), IID_IUnknown);
  const auto late = dispatch_of(made);
  EXPECT_EQ(unknown.get(), static_cast<IUnknown*>(made.get()));
  EXPECT_EQ(reinterpret_cast<char*>(late.get()),
            reinterpret_cast<char*>(made.get()) + sizeof(void*));
  EXPECT_EQ(component::query<IZIRDBConnection>(late.get(), IID_IZIRDBConnection)
                .get(),
            made.get());
  EXPECT_EQ(references_of(made.get()), 3U);
  for (const IID& riid :
       {IID_IZIRDBCommand, IID_IZIRDBRecordset, IID_IZIRDBFields,
        IID_IEnumVARIANT, IID_IClassFactory, IID_NULL}) {
    component::Out out;
    EXPECT_EQ(made->QueryInterface(riid, out.address()), E_NOINTERFACE);
    EXPECT_EQ(out.object(), nullptr);
  }
  EXPECT_EQ(made->QueryInterface(IID_IUnknown, nullptr), E_INVALIDARG);
  EXPECT_EQ(references_of(made.get()), 3U);
}

TEST_F(ConnectionDispatch, HasNoTypeInformation) {
  const Connection made = connection();
  const auto late = dispatch_of(made);
  UINT count = 77;
  EXPECT_EQ(late->GetTypeInfoCount(&count), S_OK);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(late->GetTypeInfoCount(nullptr), E_INVALIDARG);
  auto* info = static_cast<ITypeInfo*>(component::unset());
  EXPECT_EQ(late->GetTypeInfo(0, 0, &info), E_NOTIMPL);
  EXPECT_EQ(info, nullptr);
  EXPECT_EQ(late->GetTypeInfo(0, 0, nullptr), E_NOTIMPL);
}

TEST_F(ConnectionDispatch, KeepsTheLibraryInUseAsLongAsAnythingOfItLives) {
  script().columns({{"n", SQL_INTEGER}});
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
  Connection made = opened();
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  component::Recordset recordset = component::execute(made, L"select").second;
  made = {};
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE) << "the recordset";
  recordset = {};
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

}  // namespace
