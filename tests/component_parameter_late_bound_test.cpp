// SPDX-License-Identifier: MIT
//
// Parameter as scripts call it: which calls are let in, what is converted, and
// how failures show.
//
// Sections: names; which calls it lets in; gets; puts; without a record.

#include <gtest/gtest.h>

#include <optional>
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
using component::kBadArgumentsCode;
using component::kBadArgumentsText;
using values::plain;
using values::text_value;

using namespace std::string_literals;

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

TEST(ParameterNames, HaveTheirIds) {
  const auto parameter = parameter_named(L"p");
  const auto object = dispatch_of(parameter.get());
  const struct {
    const wchar_t* name;
    DISPID id;
  } kRows[] = {{L"Value", 0},     {L"Name", 1},    {L"Type", 2},
               {L"Direction", 3}, {L"Size", 4},    {L"VALUE", 0},
               {L"dIRECTION", 3}, {L"Item", -1},   {L"Count", -1},
               {L"", -1},         {L"Value ", -1}, {L"Val", -1}};
  for (const auto& row : kRows) {
    EXPECT_EQ(id_of(object.get(), row.name), row.id) << row.name;
  }
}

// ---------------------------------------------------------------------------
// Which calls it lets in
// ---------------------------------------------------------------------------

enum class Admission { Get, Put, Refused };
struct Verdict {
  Admission admission;
  HRESULT result;
};

/// A get as soon as the flags say get; then a put; anything else is no member.
Verdict verdict_on_property(const Shape& shape) {
  if (has(shape, DISPATCH_PROPERTYGET)) {
    if (shape.arguments > 0) return {Admission::Refused, DISP_E_BADPARAMCOUNT};
    if (!shape.with_result) return {Admission::Refused, E_INVALIDARG};
    return {Admission::Get, S_OK};
  }
  if (has(shape, DISPATCH_PROPERTYPUT)) {
    if (shape.arguments != 1 || shape.naming != &kNamings[kNamedAsPut]) {
      return {Admission::Refused, DISP_E_BADPARAMCOUNT};
    }
    return {Admission::Put, S_OK};
  }
  return {Admission::Refused, DISP_E_MEMBERNOTFOUND};
}

/// A member of a parameter named "old", of type 11, direction 2, size 33 and
/// value 44: what a get answers, and what a put makes of it.
struct Property {
  DISPID member;
  _variant_t old_value;
  _variant_t new_value;
  Record after_put;
};

std::vector<Property> properties() {
  const std::string value = describe(_variant_t(44));
  return {
      {DISPID_ZIRDB_PARAMETER_VALUE,
       44,
       L"new",
       {L"old", 11, 2, 33, describe(text_value(L"new"))}},
      {DISPID_ZIRDB_PARAMETER_NAME, L"old", L"new", {L"new", 11, 2, 33, value}},
      {DISPID_ZIRDB_PARAMETER_TYPE,
       plain(VT_I4, 11),
       202,
       {L"old", 202, 2, 33, value}},
      {DISPID_ZIRDB_PARAMETER_DIRECTION,
       plain(VT_I4, 2),
       4,
       {L"old", 11, 4, 33, value}},
      {DISPID_ZIRDB_PARAMETER_SIZE,
       plain(VT_I4, 33),
       -5,
       {L"old", 11, 2, -5, value}}};
}
InterfacePtr<IZIRDBParameter> old_parameter() {
  return workbench::parameter(L"old", 11, 2, 33, _variant_t(44));
}

TEST(ParameterCalls, OfEveryShapeAreLetInOrRefusedByTheSameRule) {
  for (const Property& property : properties()) {
    for (const Shape& shape : every_shape()) {
      SCOPED_TRACE(testing::Message() << "member " << property.member << ", "
                                      << testing::PrintToString(shape));
      const auto parameter = old_parameter();
      const Record before = record_of(parameter.get());
      leave_an_error();
      const Answer answer = call(dispatch_of(parameter.get()).get(),
                                 property.member, shape, property.new_value);
      expect_no_error();
      const Verdict verdict = verdict_on_property(shape);
      EXPECT_EQ(answer.result, verdict.result) << std::hex << answer.result;
      EXPECT_EQ(answer.code, 0);
      EXPECT_EQ(answer.source, L"");
      EXPECT_EQ(
          describe(answer.value),
          describe(verdict.admission == Admission::Get ? property.old_value
                                                       : _variant_t()));
      EXPECT_EQ(record_of(parameter.get()), verdict.admission == Admission::Put
                                                ? property.after_put
                                                : before);
    }
  }
}

TEST(ParameterCalls, WithoutAnyParametersHaveNoArguments) {
  const auto parameter = old_parameter();
  const auto object = dispatch_of(parameter.get());
  const Record before = record_of(parameter.get());
  for (const Property& property : properties()) {
    RawCall raw;
    raw.member = property.member;
    raw.with_parameters = false;
    raw.flags = DISPATCH_PROPERTYGET;
    EXPECT_EQ(describe(invoke_raw(object.get(), raw).value),
              describe(property.old_value));
    raw.flags = DISPATCH_PROPERTYPUT;
    expect_refused(invoke_raw(object.get(), raw), DISP_E_BADPARAMCOUNT);
    raw.flags = DISPATCH_METHOD;
    expect_refused(invoke_raw(object.get(), raw), DISP_E_MEMBERNOTFOUND);
  }
  EXPECT_EQ(record_of(parameter.get()), before);
}

TEST(ParameterCalls, ArgumentsThatAreNotThereAreNone) {
  const auto parameter = old_parameter();
  const auto object = dispatch_of(parameter.get());
  for (const Property& property : properties()) {
    _variant_t value;
    EXPECT_EQ(invoke_counting(object.get(), property.member,
                              DISPATCH_PROPERTYGET, &value),
              S_OK);
    EXPECT_EQ(describe(value), describe(property.old_value));
    EXPECT_EQ(invoke_counting(object.get(), property.member,
                              DISPATCH_PROPERTYPUT, nullptr),
              DISP_E_BADPARAMCOUNT);
  }
}

const std::vector<DISPID> kNoMembers{-1, -3, -4, 5, 6, 100, 0x7FFFFFFF};

TEST(ParameterCalls, OutsideTheFiveMembersFindNone) {
  const auto parameter = old_parameter();
  for (const DISPID member : kNoMembers) {
    for (const Shape& shape : every_shape()) {
      leave_an_error();
      expect_refused(call(dispatch_of(parameter.get()).get(), member, shape,
                          _variant_t(3)),
                     DISP_E_MEMBERNOTFOUND);
      expect_no_error();
    }
  }
}

TEST(ParameterCalls, NeedTheNullInterfaceIdBeforeAnythingElse) {
  const auto parameter = old_parameter();
  const Record before = record_of(parameter.get());
  for (const DISPID member : {0, 1, 2, 3, 4, 5, -1}) {
    for (const WORD flags : {DISPATCH_METHOD, DISPATCH_PROPERTYGET}) {
      component::Call refused;
      refused.member = member;
      refused.flags = flags;
      refused.riid = IID_IDispatch;
      leave_an_error();
      expect_refused(
          component::invoke(dispatch_of(parameter.get()).get(), refused),
          E_INVALIDARG);
      expect_no_error();
    }
  }
  EXPECT_EQ(record_of(parameter.get()), before);
}

// ---------------------------------------------------------------------------
// Gets
// ---------------------------------------------------------------------------

TEST(ParameterGet, NumbersComeWhole) {
  for (const long number : kSizes) {
    const auto parameter =
        workbench::parameter(L"p", number, number, number, VARIANT());
    const auto object = dispatch_of(parameter.get());
    for (const DISPID member : {2, 3, 4}) {
      const Answer answer = component::get(object.get(), member);
      EXPECT_EQ(answer.result, S_OK);
      EXPECT_TRUE(values::same_bytes(
          answer.value, plain(VT_I4, static_cast<std::uint64_t>(number))));
    }
  }
}

TEST(ParameterGet, NamesComeWhole) {
  for (const std::wstring& name :
       {L""s, L"name"s, L"a\0b"s, std::wstring(1000, L'n')}) {
    const auto parameter = parameter_named(name);
    const Answer answer = component::get(dispatch_of(parameter.get()).get(), 1);
    EXPECT_EQ(answer.result, S_OK);
    EXPECT_EQ(describe(answer.value), describe(text_value(name)));
  }
}

TEST(ParameterGet, ValuesAreCopies) {
  objects::Unknown object;
  const _variant_t contents[] = {
      _variant_t(),        plain(VT_NULL, 0),
      plain(VT_I2, 7),     L"text",
      bytes_value({1, 2}), script_array_of(_variant_t(L"x")),
      null_reference(),    &object};
  for (const _variant_t& content : contents) {
    const auto parameter = parameter_with(content);
    const Answer answer = component::get(dispatch_of(parameter.get()).get(), 0);
    EXPECT_EQ(answer.result, S_OK);
    EXPECT_EQ(describe(answer.value), describe(content));
  }
  EXPECT_EQ(object.references(), 2U);  // ours and that of `contents`
}

TEST(ParameterGet, WhatTheResultHeldBeforeIsNotFreed) {
  objects::Unknown object;
  const auto parameter = old_parameter();
  const auto dispatch = dispatch_of(parameter.get());
  for (const Property& property : properties()) {
    VARIANT result = plain(VT_UNKNOWN, 0);
    result.punkVal = &object;
    DISPPARAMS parameters{};
    EXPECT_EQ(
        dispatch->Invoke(property.member, IID_NULL, 0, DISPATCH_PROPERTYGET,
                         &parameters, &result, nullptr, nullptr),
        S_OK);
    const _variant_t read = values::owned(result);
    EXPECT_EQ(describe(read), describe(property.old_value));
  }
  EXPECT_EQ(object.references(), 1U);
}

// ---------------------------------------------------------------------------
// Puts
// ---------------------------------------------------------------------------

/// Numbers as scripts may write them for Type, Direction and Size.
struct Number {
  const char* description;
  _variant_t written;
  std::optional<long> read;  ///< none: not convertible
  std::string printed = {};
};

std::vector<Number> numbers() {
  return {{"64-bit integer", 3, 3},
          {"32-bit integer", plain(VT_I4, 3), 3},
          {"a byte", plain(VT_UI1, 0xFF03), 3},
          {"cut to an integer", 3.9, 3},
          {"cut towards zero", -0.9, 0},
          {"a text", L"3", 3},
          {"blanks in front of a text", L"  3", 3},
          {"anything behind", L"3rd", 3},
          {"nothing", VARIANT(), 0},
          {"false", false, 0},
          {"another true", plain(VT_BOOL, 3), 3},
          {"no number", L"x", {}},
          {"no text", L"", {}},
          {"NULL", plain(VT_NULL, 0), {}, not_an_integer(VT_NULL)},
          {"16-bit integer", plain(VT_I2, 3), {}, not_an_integer(VT_I2)},
          {"unsigned", plain(VT_UI4, 3), {}, not_an_integer(VT_UI4)},
          {"single", plain(VT_R4, 0), {}, not_an_integer(VT_R4)},
          {"date", plain(VT_DATE, 0), {}, not_an_integer(VT_DATE)},
          {"no object", plain(VT_DISPATCH, 0), {}, not_an_integer(VT_DISPATCH)},
          {"by reference", plain(0x4014, 0), {}, not_an_integer(0x4014)},
          {"by reference", plain(0x4008, 0), {}, not_an_integer(0x4008)},
          {"array", bytes_value({3}), {}, not_an_integer(0x2011)}};
}

long number_of(const Record& record, DISPID member) {
  return member == DISPID_ZIRDB_PARAMETER_TYPE        ? record.type
         : member == DISPID_ZIRDB_PARAMETER_DIRECTION ? record.direction
                                                      : record.size;
}

TEST(ParameterPut, NumbersAreConvertedOrRefused) {
  for (const DISPID member : {2, 3, 4}) {
    for (const Number& number : numbers()) {
      SCOPED_TRACE(testing::Message()
                   << "member " << member << ", " << number.description);
      _variant_t written = number.written;
      for (const std::size_t depth : {0U, 1U, 3U}) {
        const Chain chain(&written, depth);
        const auto parameter = old_parameter();
        const Record before = record_of(parameter.get());
        Answer answer;
        EXPECT_EQ(printed::by([&] {
                    answer = put_raw(dispatch_of(parameter.get()).get(), member,
                                     chain.front());
                  }),
                  number.printed);
        if (number.read) {
          expect_refused(answer, S_OK);
          EXPECT_EQ(number_of(record_of(parameter.get()), member),
                    *number.read);
        } else {
          expect_refused(answer, DISP_E_TYPEMISMATCH);
          EXPECT_EQ(record_of(parameter.get()), before);
        }
      }
    }
  }
}

TEST(ParameterPut, ANullReferenceIsNoNameAndNoNumber) {
  VARIANT null_link = null_reference();
  for (const DISPID member : {1, 2, 3, 4}) {
    for (const std::size_t depth : {0U, 1U, 3U}) {
      const Chain chain(&null_link, depth);
      const auto parameter = old_parameter();
      const Record before = record_of(parameter.get());
      leave_an_error();
      expect_refused(
          put_raw(dispatch_of(parameter.get()).get(), member, chain.front()),
          DISP_E_TYPEMISMATCH);
      expect_no_error();
      EXPECT_EQ(record_of(parameter.get()), before);
    }
  }
}

TEST(ParameterPut, TypesAndDirectionsOutsideTheirEnumerationsFail) {
  const auto parameter = old_parameter();
  const auto object = dispatch_of(parameter.get());
  const Record before = record_of(parameter.get());
  const auto expect_failure = [&](DISPID member, const _variant_t& number) {
    SCOPED_TRACE(testing::Message()
                 << "member " << member << ", " << describe(number));
    leave_an_error();
    expect_exception(component::put(object.get(), member, number),
                     kBadArgumentsCode, kCommandSource, kBadArgumentsText);
    expect_error(kBadArgumentsCode, kCommandSource, kBadArgumentsText);
    EXPECT_EQ(record_of(parameter.get()), before);
  };
  for (const long type : kRefusedTypes) expect_failure(2, type);
  for (const long direction : kRefusedDirections) expect_failure(3, direction);
  expect_failure(2, L"201");
  expect_failure(2, true);
  expect_failure(3, L"-1");
  expect_failure(3, true);
  expect_failure(3, values::kNaN);
}

TEST(ParameterPut, TypesDirectionsAndSizesWithinTheirRangesSucceed) {
  const auto parameter = old_parameter();
  const auto object = dispatch_of(parameter.get());
  const auto expect_success = [&](DISPID member, long number) {
    leave_an_error();
    expect_refused(component::put(object.get(), member, number), S_OK);
    expect_no_error();
    EXPECT_EQ(number_of(record_of(parameter.get()), member), number);
  };
  for (const long type : kAcceptedTypes) expect_success(2, type);
  for (const long direction : kAcceptedDirections) expect_success(3, direction);
  for (const long size : kSizes) expect_success(4, size);
}

TEST(ParameterPut, FailuresShowWithoutAnExceptionRecordToo) {
  const auto parameter = old_parameter();
  component::Call put;
  put.member = DISPID_ZIRDB_PARAMETER_TYPE;
  put.flags = DISPATCH_PROPERTYPUT;
  put.arguments = {1};
  put.put = true;
  put.with_exception = false;
  EXPECT_EQ(component::invoke(dispatch_of(parameter.get()).get(), put).result,
            DISP_E_EXCEPTION);
}

TEST(ParameterPut, NamesAreTextsKeptWhole) {
  for (const std::wstring& name :
       {L""s, L"new"s, L"a\0b"s, L"\u00e9\U0001F600"s,
        std::wstring(999, L'n')}) {
    _variant_t written = text_value(name);
    for (const std::size_t depth : {0U, 1U, 4U}) {
      const Chain chain(&written, depth);
      const auto parameter = old_parameter();
      expect_refused(
          put_raw(dispatch_of(parameter.get()).get(), 1, chain.front()), S_OK);
      EXPECT_EQ(name_of(parameter.get()), name);
    }
  }
}

TEST(ParameterPut, ANullTextIsAnEmptyName) {
  const auto parameter = old_parameter();
  expect_refused(
      put_raw(dispatch_of(parameter.get()).get(), 1, plain(VT_BSTR, 0)), S_OK);
  EXPECT_EQ(name_of(parameter.get()), L"");
}

TEST(ParameterPut, NamesAreNothingButTexts) {
  BSTR by_reference = nullptr;
  VARIANT reference = plain(VT_BYREF | VT_BSTR, 0);
  reference.byref = &by_reference;
  objects::Dispatch text_object;
  const _variant_t contents[] = {VARIANT(),
                                 plain(VT_NULL, 0),
                                 5,
                                 plain(VT_I4, 5),
                                 1.5,
                                 true,
                                 plain(VT_DATE, 0),
                                 reference,
                                 values::lpstr_value("new"),
                                 static_cast<IDispatch*>(&text_object),
                                 bytes_value({1})};
  const auto parameter = old_parameter();
  const auto object = dispatch_of(parameter.get());
  const Record before = record_of(parameter.get());
  for (const _variant_t& content : contents) {
    _variant_t written = content;
    const Chain chain(&written, 1);
    for (const VARIANT* argument :
         {static_cast<const VARIANT*>(&content), &chain.front()}) {
      Answer answer;
      EXPECT_EQ(
          printed::by([&] { answer = put_raw(object.get(), 1, *argument); }),
          "");
      expect_refused(answer, DISP_E_TYPEMISMATCH);
      EXPECT_EQ(record_of(parameter.get()), before);
    }
  }
  EXPECT_EQ(text_object.invocations(), 0);
}

TEST(ParameterPut, ValuesAreTakenWhateverTheyAre) {
  objects::Unknown unknown;
  const _variant_t contents[] = {VARIANT(),
                                 plain(VT_NULL, 0),
                                 plain(VT_I2, 7),
                                 plain(VT_ERROR, 1),
                                 plain(VT_DECIMAL, 1),
                                 L"text",
                                 bytes_value({1, 2}),
                                 script_array_of(_variant_t(L"x")),
                                 plain(VT_BYREF | VT_BSTR, 0),
                                 &unknown};
  for (const long type : kAcceptedTypes) {
    const auto parameter = parameter_with(_variant_t(5), type);
    for (const _variant_t& content : contents) {
      expect_refused(put_raw(dispatch_of(parameter.get()).get(), 0, content),
                     S_OK);
      EXPECT_EQ(describe(value_of(parameter.get())), describe(content));
    }
  }
  EXPECT_EQ(unknown.references(), 2U);  // ours and that of `contents`
}

TEST(ParameterPut, AValueByReferenceIsTheOneAtTheEnd) {
  for (const std::size_t depth : {1U, 2U, 5U}) {
    _variant_t written(L"before");
    const Chain chain(&written, depth);
    const auto parameter = old_parameter();
    expect_refused(
        put_raw(dispatch_of(parameter.get()).get(), 0, chain.front()), S_OK);
    written = _variant_t(L"later");
    EXPECT_EQ(describe(value_of(parameter.get())),
              describe(text_value(L"before")));
  }
}

TEST(ParameterPut, TextsAsValuesEndAtTheirFirstZero) {
  const auto parameter = old_parameter();
  expect_refused(
      put_raw(dispatch_of(parameter.get()).get(), 0, text_value(L"a\0b"s)),
      S_OK);
  EXPECT_EQ(describe(value_of(parameter.get())), describe(text_value(L"a")));
}

TEST(ParameterPut, AValueMayTakeTheParameterAlongWhenItIsLetGo) {
  objects::Unknown object;
  auto parameter = parameter_with(_variant_t(&object));
  auto dispatch = dispatch_of(parameter.get());
  parameter = {};
  object.on_release = [&] { dispatch = {}; };
  expect_refused(put_raw(dispatch.get(), 0, text_value(L"new")), S_OK);
  EXPECT_FALSE(dispatch);
  EXPECT_EQ(object.references(), 1U);
}

TEST(ParameterPut, TheResultIsLeftAlone) {
  for (const Property& property : properties()) {
    const auto parameter = old_parameter();
    RawCall put;
    put.member = property.member;
    put.flags = DISPATCH_PROPERTYPUT;
    put.arguments = {property.new_value};
    put.named = {DISPID_PROPERTYPUT};
    put.named_count = 1;
    expect_refused(invoke_raw(dispatch_of(parameter.get()).get(), put), S_OK);
  }
}

// ---------------------------------------------------------------------------
// Without a record
// ---------------------------------------------------------------------------

TEST(ParameterWithoutRecordCalls, FailUnderTheirOwnName) {
  const auto parameter = workbench::parameter_without_record();
  const auto object = dispatch_of(parameter.get());
  const HRESULT gets[] = {E_INVALIDARG, E_UNEXPECTED, E_INVALIDARG,
                          E_INVALIDARG, E_INVALIDARG};
  for (DISPID member = 0; member <= 4; ++member) {
    SCOPED_TRACE(member);
    leave_an_error();
    expect_exception(component::get(object.get(), member), gets[member],
                     L"ZIRDB.Parameter", nullptr);
    leave_an_error();
    expect_exception(
        component::put(object.get(), member,
                       member == 1 ? _variant_t(L"x") : _variant_t(3)),
        E_UNEXPECTED, L"ZIRDB.Parameter", nullptr);
  }
}

TEST(ParameterWithoutRecordCalls, ArgumentsAreConvertedFirst) {
  const auto parameter = workbench::parameter_without_record();
  const auto object = dispatch_of(parameter.get());
  for (DISPID member = 1; member <= 4; ++member) {
    expect_refused(
        component::put(object.get(), member,
                       member == 1 ? _variant_t(3) : _variant_t(L"x")),
        DISP_E_TYPEMISMATCH);
  }
}

}  // namespace
