// SPDX-License-Identifier: MIT
//
// Parameters as scripts call them: which calls are let in, what is converted,
// and how failures show.
//
// Sections: names; which calls they let in; Count, Item and Append; without a
// list.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/call_shapes.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace call_shapes;
using namespace parameters;
using component::Answer;
using component::dispatch_of;
using component::expect_exception;
using component::expect_refused;
using component::kNotFoundCode;
using component::kNotFoundText;
using values::plain;
using values::text_value;

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

TEST(ParametersNames, HaveTheirIds) {
  const auto list = workbench::parameters();
  const auto object = dispatch_of(list.get());
  const struct {
    const wchar_t* name;
    DISPID id;
  } kRows[] = {{L"Item", 0},  {L"Count", 1},  {L"Append", 2},
               {L"ITEM", 0},  {L"append", 2}, {L"_NewEnum", -1},
               {L"Name", -1}, {L"Delete", -1}};
  for (const auto& row : kRows) {
    EXPECT_EQ(id_of(object.get(), row.name), row.id) << row.name;
  }
}

// ---------------------------------------------------------------------------
// Which calls they let in
// ---------------------------------------------------------------------------

HRESULT verdict_on_item(const Shape& shape) {
  if (!has(shape, DISPATCH_METHOD | DISPATCH_PROPERTYGET)) {
    return shape.arguments == 1 ? E_INVALIDARG : DISP_E_BADPARAMCOUNT;
  }
  if (shape.arguments != 1) return DISP_E_BADPARAMCOUNT;
  return shape.with_result ? S_OK : E_INVALIDARG;
}

HRESULT verdict_on_count(const Shape& shape) {
  if (shape.arguments > 0) return DISP_E_BADPARAMCOUNT;
  return has(shape, DISPATCH_PROPERTYGET) && shape.with_result ? S_OK
                                                               : E_INVALIDARG;
}

HRESULT verdict_on_append(const Shape& shape) {
  if (!has(shape, DISPATCH_METHOD)) {
    return shape.arguments == 1 ? DISP_E_MEMBERNOTFOUND : DISP_E_BADPARAMCOUNT;
  }
  return shape.arguments == 1 ? S_OK : DISP_E_BADPARAMCOUNT;
}

TEST(ParametersCalls, OfEveryShapeAreLetInOrRefusedByTheMembersRule) {
  const auto parameter = parameter_named(L"new");
  const struct {
    DISPID member;
    _variant_t argument;
    HRESULT (*verdict)(const Shape& shape);
  } kRows[] = {{DISPID_ZIRDB_PARAMETERS_ITEM, 0, verdict_on_item},
               {DISPID_ZIRDB_PARAMETERS_COUNT, 0, verdict_on_count},
               {DISPID_ZIRDB_PARAMETERS_APPEND,
                dispatch_of(parameter.get()).get(), verdict_on_append}};
  for (const auto& row : kRows) {
    for (const Shape& shape : every_shape()) {
      SCOPED_TRACE(testing::Message() << "member " << row.member << ", "
                                      << testing::PrintToString(shape));
      const auto list = list_named({L"old"});
      leave_an_error();
      const Answer answer =
          call(dispatch_of(list.get()).get(), row.member, shape, row.argument);
      expect_no_error();
      const HRESULT expected = row.verdict(shape);
      EXPECT_EQ(answer.result, expected) << std::hex << answer.result;
      EXPECT_EQ(answer.code, 0);
      EXPECT_EQ(answer.source, L"");
      const bool appended = row.member == 2 && expected == S_OK;
      const VARTYPE type = row.member == 2 || expected != S_OK ? VT_EMPTY
                           : row.member == 1                   ? VT_I4
                                                               : VT_DISPATCH;
      EXPECT_EQ(answer.value.vt, type);
      EXPECT_EQ(count_of(list), appended ? 2 : 1);
    }
  }
}

// What is wrong with the call is said before what is wrong with its argument.
TEST(ParametersCalls, AreJudgedByTheirShapeBeforeTheirArgument) {
  const struct {
    const char* description;
    DISPID member;
    Shape shape;
    HRESULT result;
  } kRows[] = {
      {"Append, no method",
       2,
       {2, 1, &kNamings[0], true},
       DISP_E_MEMBERNOTFOUND},
      {"Append, two arguments",
       2,
       {1, 2, &kNamings[0], true},
       DISP_E_BADPARAMCOUNT},
      {"Append, bad argument",
       2,
       {1, 1, &kNamings[0], true},
       DISP_E_TYPEMISMATCH},
      {"Item, no result", 0, {1, 1, &kNamings[0], false}, E_INVALIDARG},
      {"Item, put", 0, {4, 1, &kNamings[1], true}, E_INVALIDARG},
      {"Item, two arguments, no result",
       0,
       {1, 2, &kNamings[0], false},
       DISP_E_BADPARAMCOUNT}};
  const auto list = list_named({L"old"});
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    expect_refused(call(dispatch_of(list.get()).get(), row.member, row.shape,
                        _variant_t(L"unknown")),
                   row.result);
  }
}

TEST(ParametersCalls, WithoutAnyParametersHaveNoArguments) {
  const auto list = list_named({L"old"});
  const auto object = dispatch_of(list.get());
  const struct {
    DISPID member;
    WORD flags;
    HRESULT result;
  } kRows[] = {{0, 1, DISP_E_BADPARAMCOUNT}, {0, 2, DISP_E_BADPARAMCOUNT},
               {0, 4, DISP_E_BADPARAMCOUNT}, {1, 1, E_INVALIDARG},
               {1, 4, E_INVALIDARG},         {2, 1, DISP_E_BADPARAMCOUNT},
               {2, 2, DISP_E_BADPARAMCOUNT}};
  for (const auto& row : kRows) {
    RawCall raw;
    raw.member = row.member;
    raw.flags = row.flags;
    raw.with_parameters = false;
    expect_refused(invoke_raw(object.get(), raw), row.result);
  }
  RawCall count;
  count.member = DISPID_ZIRDB_PARAMETERS_COUNT;
  count.flags = DISPATCH_PROPERTYGET;
  count.with_parameters = false;
  EXPECT_EQ(describe(invoke_raw(object.get(), count).value),
            describe(plain(VT_I4, 1)));
}

TEST(ParametersCalls, ArgumentsThatAreNotThereAreNone) {
  const auto list = list_named({L"old"});
  const auto object = dispatch_of(list.get());
  _variant_t value;
  EXPECT_EQ(invoke_counting(object.get(), 0, DISPATCH_METHOD, &value),
            DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(invoke_counting(object.get(), 2, DISPATCH_METHOD, &value),
            DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(invoke_counting(object.get(), 1, DISPATCH_PROPERTYGET, &value),
            S_OK);
  EXPECT_EQ(describe(value), describe(plain(VT_I4, 1)));
}

TEST(ParametersCalls, OutsideTheThreeMembersFindNone) {
  const auto list = list_named({L"old"});
  for (const DISPID member : {-1, -3, -4, 3, 4, 100}) {
    for (const Shape& shape : every_shape()) {
      expect_refused(
          call(dispatch_of(list.get()).get(), member, shape, _variant_t(0)),
          DISP_E_MEMBERNOTFOUND);
    }
  }
}

TEST(ParametersCalls, NeedTheNullInterfaceIdBeforeAnythingElse) {
  const auto list = list_named({L"old"});
  for (const DISPID member : {0, 1, 2, 3, -4}) {
    component::Call refused;
    refused.member = member;
    refused.riid = IID_IUnknown;
    leave_an_error();
    expect_refused(component::invoke(dispatch_of(list.get()).get(), refused),
                   E_INVALIDARG);
    expect_no_error();
  }
}

// ---------------------------------------------------------------------------
// Count, Item and Append
// ---------------------------------------------------------------------------

TEST(ParametersCount, IncludesSlotsWithoutARecord) {
  const auto list = list_named({L"one", L"two"});
  workbench::append_null(list.get());
  const Answer answer = component::get(dispatch_of(list.get()).get(), 1);
  EXPECT_EQ(answer.result, S_OK);
  EXPECT_EQ(describe(answer.value), describe(plain(VT_I4, 3)));
}

TEST(ParametersItemCall, AnswersTheOnlyReferenceOfANewObject) {
  const auto list = list_with({1, 2});
  const auto object = dispatch_of(list.get());
  for (const WORD flags : {DISPATCH_METHOD, DISPATCH_PROPERTYGET, WORD{3}}) {
    component::Call item_call;
    item_call.member = DISPID_ZIRDB_PARAMETERS_ITEM;
    item_call.flags = flags;
    item_call.arguments = {1};
    const Answer first = component::invoke(object.get(), item_call);
    const Answer second = component::invoke(object.get(), item_call);
    ASSERT_EQ(first.result, S_OK);
    ASSERT_EQ(first.value.vt, VT_DISPATCH);
    EXPECT_NE(first.value.pdispVal, second.value.pdispVal);
    EXPECT_EQ(first.value.pdispVal->AddRef(), 2U);
    EXPECT_EQ(first.value.pdispVal->Release(), 1U);
    EXPECT_EQ(dispatch_of(first.value.pdispVal).get(), first.value.pdispVal);
    component::put(first.value.pdispVal, 0, L"new");
    EXPECT_EQ(describe(component::get(second.value.pdispVal, 0).value),
              describe(text_value(L"new")));
    item(list, 1)->put_Value(_variant_t(2));
  }
}

TEST(ParametersItemCall, FindsByNameAndPositionThroughReferences) {
  const auto list = list_named({L"zero", L"one"});
  _variant_t name(L"ONE");
  _variant_t number(plain(VT_I4, 1));
  for (_variant_t* index : {&name, &number}) {
    for (const std::size_t depth : {0U, 1U, 3U}) {
      const Chain chain(index, depth);
      const Answer answer = component::method(dispatch_of(list.get()).get(),
                                              DISPID_ZIRDB_PARAMETERS_ITEM,
                                              {_variant_t(chain.front())});
      ASSERT_EQ(answer.result, S_OK);
      EXPECT_EQ(describe(component::get(answer.value.pdispVal, 1).value),
                describe(text_value(L"one")));
    }
  }
}

TEST(ParametersItemCall, WhatIsNotFoundFailsUnderTheCommandsName) {
  const auto list = list_named({L"zero", L"one"});
  const struct {
    _variant_t index;
    std::string printed;
  } kRows[] = {{L"two", ""},
               {L"", ""},
               {L"1", ""},
               {2, ""},
               {-1, ""},
               {true, ""},
               {plain(VT_NULL, 0), not_an_integer(VT_NULL)},
               {plain(VT_I2, 0), not_an_integer(VT_I2)},
               {plain(0x4008, 0), not_an_integer(0x4008)}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(describe(row.index));
    Answer answer;
    EXPECT_EQ(printed::by([&] {
                answer = component::method(dispatch_of(list.get()).get(), 0,
                                           {row.index});
              }),
              row.printed);
    expect_exception(answer, kNotFoundCode, kCommandSource, kNotFoundText);
  }
}

TEST(ParametersItemCall, ANullReferenceFailsUnderTheListsOwnName) {
  const auto list = list_named({L"zero"});
  VARIANT null_link = null_reference();
  for (const std::size_t depth : {0U, 1U, 3U}) {
    const Chain chain(&null_link, depth);
    leave_an_error();
    expect_exception(component::method(dispatch_of(list.get()).get(), 0,
                                       {_variant_t(chain.front())}),
                     E_INVALIDARG, L"ZIRDB.Parameters", nullptr);
  }
}

TEST(ParametersItemCall, AFailureLeavesTheResultAlone) {
  const auto list = list_named({L"zero"});
  objects::Unknown object;
  VARIANT result = plain(VT_UNKNOWN, 0);
  result.punkVal = &object;
  VARIANT index = plain(VT_I8, 9);
  DISPPARAMS parameters{&index, nullptr, 1, 0};
  EXPECT_EQ(dispatch_of(list.get())
                ->Invoke(0, IID_NULL, 0, DISPATCH_METHOD, &parameters, &result,
                         nullptr, nullptr),
            DISP_E_EXCEPTION);
  EXPECT_EQ(result.vt, VT_UNKNOWN);
  EXPECT_EQ(result.punkVal, &object);
  EXPECT_EQ(object.references(), 1U);
}

TEST(ParametersAppendCall, SharesTheRecordAndLetsTheObjectGo) {
  const auto list = workbench::parameters();
  const auto parameter = parameter_named(L"p");
  _variant_t argument(dispatch_of(parameter.get()).get());
  for (const std::size_t depth : {0U, 1U, 3U}) {
    const Chain chain(&argument, depth);
    expect_refused(component::method(dispatch_of(list.get()).get(), 2,
                                     {_variant_t(chain.front())}),
                   S_OK);
  }
  argument = _variant_t();
  EXPECT_EQ(count_of(list), 3);
  EXPECT_EQ(parameter->AddRef(), 2U);
  EXPECT_EQ(parameter->Release(), 1U);
  parameter->put_Value(_variant_t(9));
  EXPECT_EQ(value_of(item(list, 2).get()).llVal, 9);
}

TEST(ParametersAppendCall, TakesNothingButParameterObjects) {
  const auto list = list_named({L"zero"});
  const auto parameter = parameter_named(L"p");
  const auto dispatch = dispatch_of(parameter.get());
  objects::Dispatch stranger;
  IDispatch* pointer = dispatch.get();
  VARIANT by_reference = plain(VT_BYREF | VT_DISPATCH, 0);
  by_reference.byref = &pointer;
  {
    const _variant_t contents[] = {VARIANT(),
                                   plain(VT_NULL, 0),
                                   plain(VT_DISPATCH, 0),
                                   plain(VT_UNKNOWN, 0),
                                   static_cast<IUnknown*>(parameter.get()),
                                   static_cast<IDispatch*>(&stranger),
                                   by_reference,
                                   null_reference(),
                                   5,
                                   L"zero",
                                   script_array_of(_variant_t(dispatch.get()))};
    for (const _variant_t& content : contents) {
      SCOPED_TRACE(describe(content));
      leave_an_error();
      expect_refused(
          component::method(dispatch_of(list.get()).get(), 2, {content}),
          DISP_E_TYPEMISMATCH);
      expect_no_error();
    }
  }
  EXPECT_EQ(count_of(list), 1);
  EXPECT_EQ(stranger.references(), 1U);
}

TEST(ParametersAppendCall, LeavesTheResultAlone) {
  const auto list = workbench::parameters();
  const auto parameter = parameter_named(L"p");
  VARIANT result = plain(VT_I8, 77);
  VARIANT argument = _variant_t(dispatch_of(parameter.get()).get()).Detach();
  const _variant_t owner = values::owned(argument);
  DISPPARAMS parameters{&argument, nullptr, 1, 0};
  EXPECT_EQ(dispatch_of(list.get())
                ->Invoke(2, IID_NULL, 0, DISPATCH_METHOD, &parameters, &result,
                         nullptr, nullptr),
            S_OK);
  EXPECT_TRUE(values::same_bytes(result, plain(VT_I8, 77)));
}

// ---------------------------------------------------------------------------
// Without a list
// ---------------------------------------------------------------------------

TEST(ParametersWithoutListCalls, FailUnderTheirOwnName) {
  const auto list = workbench::parameters_without_list();
  const auto object = dispatch_of(list.get());
  const auto parameter = parameter_named(L"p");
  const Answer answers[] = {
      component::get(object.get(), 1), component::method(object.get(), 0, {0}),
      component::method(object.get(), 0, {L"p"}),
      component::method(object.get(), 2, {dispatch_of(parameter.get()).get()})};
  for (const Answer& answer : answers) {
    expect_exception(answer, E_INVALIDARG, L"ZIRDB.Parameters", nullptr);
  }
}

TEST(ParametersAppendCall, OfAnObjectWithoutARecordFailsUnderTheListsName) {
  const auto list = list_named({L"zero"});
  const auto parameter = workbench::parameter_without_record();
  leave_an_error();
  expect_exception(component::method(dispatch_of(list.get()).get(), 2,
                                     {dispatch_of(parameter.get()).get()}),
                   E_UNEXPECTED, L"ZIRDB.Parameters", nullptr);
  EXPECT_EQ(count_of(list), 1);
}

}  // namespace
