// SPDX-License-Identifier: MIT
//
// The thread's error record as a connection leaves it: what fails with a text
// records it, and every other operation leaves none, whatever failed before.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/connections.h"
#include "support/parameters.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using component::Connection;
using component::connection;
using component::kClosedCode;
using component::kClosedText;
using component::kConnectionSource;
using component::kNoStringText;
using parameters::expect_error;
using parameters::expect_no_error;
using parameters::leave_an_error;
using values::plain;

struct Act {
  const char* description;
  std::function<HRESULT(IZIRDBConnection*, IDispatch*)> run;
  HRESULT result;
};

HRESULT call(IDispatch* late, DISPID member, WORD flags,
             std::vector<_variant_t> arguments = {}) {
  component::Call call;
  call.member = member;
  call.flags = flags;
  call.arguments = std::move(arguments);
  return component::invoke(late, call).result;
}

/// On a closed connection.
const std::vector<Act>& silent_acts() {
  static const std::vector<Act> acts{
      {"get_ConnectionString",
       [](IZIRDBConnection* made, IDispatch*) {
         _bstr_t text;
         return made->get_ConnectionString(&text.m_s);
       },
       S_OK},
      {"get_ConnectionString, no place",
       [](IZIRDBConnection* made, IDispatch*) {
         return made->get_ConnectionString(nullptr);
       },
       E_INVALIDARG},
      {"put_ConnectionString",
       [](IZIRDBConnection* made, IDispatch*) {
         return made->put_ConnectionString(nullptr);
       },
       S_OK},
      {"get_State",
       [](IZIRDBConnection* made, IDispatch*) {
         long state = 0;
         return made->get_State(&state);
       },
       S_OK},
      {"get_State, no place",
       [](IZIRDBConnection* made, IDispatch*) {
         return made->get_State(nullptr);
       },
       E_INVALIDARG},
      {"Close",
       [](IZIRDBConnection* made, IDispatch*) { return made->Close(); }, S_OK},
      {"Execute, no place",
       [](IZIRDBConnection* made, IDispatch*) {
         return made->Execute(nullptr, nullptr, 0, nullptr);
       },
       E_INVALIDARG},
      {"ConnectionString late-bound",
       [](IZIRDBConnection*, IDispatch* late) {
         return call(late, 1, DISPATCH_PROPERTYGET);
       },
       S_OK},
      {"State late-bound",
       [](IZIRDBConnection*, IDispatch* late) {
         return call(late, 2, DISPATCH_PROPERTYGET);
       },
       S_OK},
      {"Close late-bound",
       [](IZIRDBConnection*, IDispatch* late) {
         return call(late, 4, DISPATCH_METHOD);
       },
       S_OK},
      {"a wrong number of arguments",
       [](IZIRDBConnection*, IDispatch* late) {
         return call(late, 5, DISPATCH_METHOD);
       },
       DISP_E_BADPARAMCOUNT},
      {"a wrong argument",
       [](IZIRDBConnection*, IDispatch* late) {
         return call(late, 5, DISPATCH_METHOD,
                     {values::owned(plain(VT_CY, 0))});
       },
       DISP_E_TYPEMISMATCH},
      {"an unknown member",
       [](IZIRDBConnection*, IDispatch* late) {
         return call(late, 77, DISPATCH_METHOD);
       },
       DISP_E_MEMBERNOTFOUND},
      {"a wrong interface id",
       [](IZIRDBConnection*, IDispatch* late) {
         component::Call call;
         call.riid = IID_IDispatch;
         return component::invoke(late, call).result;
       },
       E_INVALIDARG}};
  return acts;
}

TEST(ConnectionRecord, IsLeftEmptyByWhatHasNoTextToTell) {
  const Connection made = connection();
  const auto late = component::dispatch_of(made.get());
  for (const Act& act : silent_acts()) {
    SCOPED_TRACE(act.description);
    leave_an_error();
    EXPECT_EQ(act.run(made.get(), late.get()), act.result);
    expect_no_error();
  }
}

TEST(ConnectionRecord, HoldsTheLastFailureWithItsText) {
  const Connection made = connection();
  const auto late = component::dispatch_of(made.get());
  leave_an_error();
  EXPECT_EQ(made->Open(nullptr, nullptr, nullptr, 0), E_INVALIDARG);
  expect_error(E_INVALIDARG, kConnectionSource, kNoStringText);
  EXPECT_EQ(component::execute(made, L"select").first, kClosedCode);
  expect_error(kClosedCode, kConnectionSource, kClosedText);
  EXPECT_EQ(call(late.get(), 3, DISPATCH_METHOD), DISP_E_EXCEPTION);
  expect_error(E_INVALIDARG, kConnectionSource, kNoStringText);
  EXPECT_EQ(call(late.get(), 0, DISPATCH_METHOD, {L"EXEC p", 1}),
            DISP_E_EXCEPTION);
  expect_error(component::kErrorsOccurredCode, kConnectionSource,
               component::kErrorsOccurredText);
  EXPECT_EQ(call(late.get(), 0, DISPATCH_METHOD,
                 {L"text", values::owned(plain(VT_CY, 0))}),
            DISP_E_EXCEPTION);
  expect_error(E_INVALIDARG, kConnectionSource, component::kValueText);
}

// A host asks for the text after it has let go of what failed.
TEST(ConnectionRecord, OutlivesCountingReferences) {
  Connection made = connection();
  EXPECT_EQ(component::execute(made, L"select").first, kClosedCode);
  { const auto late = component::dispatch_of(made.get()); }
  expect_error(kClosedCode, kConnectionSource, kClosedText);
  made = {};
  expect_error(kClosedCode, kConnectionSource, kClosedText);
}

}  // namespace
