// SPDX-License-Identifier: MIT
//
// A connection called with a text and values: what each value is bound as when
// it reaches the driver, arrays of values, what is refused and in which order.

#include <gtest/gtest.h>

#include <cstdint>
#include <cwchar>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "support/connection_calls.h"
#include "support/connections.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace std::string_literals;

using component::Connection;
using component::connection;
using component::expect_exception;
using component::expect_refused;
using component::kClosedCode;
using component::kClosedText;
using component::kConnectionSource;
using component::kErrorsOccurredCode;
using component::kErrorsOccurredText;
using component::kExecuteFailedCode;
using component::kNoTextCode;
using component::kNoTextText;
using component::kValueText;
using connection_calls::call;
using connection_calls::ended;
using connection_calls::Ended;
using connection_calls::expect_done;
using connection_calls::expect_failed;
using connection_calls::kParameterised;
using parameters::bytes_value;
using parameters::Chain;
using parameters::conversion_stub;
using parameters::describe;
using parameters::null_reference;
using parameters::script_array;
using parameters::script_array_of;
using parameters::script_matrix;
using scripted_odbc::bytes_of;
using scripted_odbc::cell;
using scripted_odbc::Sent;
using values::lpstr_value;
using values::owned;
using values::plain;
using values::reference_to;
using values::text_value;

class ConnectionValues : public connection_calls::ConnectionTest {
 protected:
  /// Calls the connection with a text and values.
  static component::Answer with_values(const Connection& on,
                                       const std::wstring& sql,
                                       const std::vector<VARIANT>& values) {
    const _variant_t text = text_value(sql);
    std::vector<VARIANT> arguments{text};
    arguments.insert(arguments.end(), values.begin(), values.end());
    return call(on, kParameterised, arguments);
  }

  static void expect_nothing_sent() {
    EXPECT_EQ(script().count("SQLAllocHandle(STMT)"), 0U);
  }
};

// ---------------------------------------------------------------------------
// What a value is bound as
// ---------------------------------------------------------------------------

/// A bound parameter; `bytes` is the whole buffer.
struct Bound {
  int direction = SQL_PARAM_INPUT;
  int c_type;
  int sql_type;
  SQLULEN column_size;
  SQLLEN indicator;
  std::string bytes;
  std::optional<SQLLEN> length = std::nullopt;  ///< if not that of the bytes

  friend bool operator==(const Bound& left, const Bound& right) {
    return left.direction == right.direction && left.c_type == right.c_type &&
           left.sql_type == right.sql_type &&
           left.column_size == right.column_size &&
           left.indicator == right.indicator && left.bytes == right.bytes &&
           left.length == right.length;
  }
  friend std::ostream& operator<<(std::ostream& out, const Bound& bound) {
    return out << "direction " << bound.direction << ", C type " << bound.c_type
               << ", SQL type " << bound.sql_type << ", size "
               << bound.column_size << ", indicator " << bound.indicator
               << ", length " << bound.length.value_or(-99) << ", bytes "
               << testing::PrintToString(bound.bytes);
  }
};

Bound bound(const Sent& sent) {
  EXPECT_EQ(sent.decimal_digits, 0);
  EXPECT_EQ(sent.buffer_is_null, sent.buffer.empty());
  return {sent.direction, sent.c_type, sent.sql_type,     sent.column_size,
          sent.indicator, sent.buffer, sent.buffer_length};
}
/// With the length filled in.
Bound complete(Bound bound) {
  if (!bound.length) bound.length = static_cast<SQLLEN>(bound.bytes.size());
  return bound;
}

Bound bigint(std::int64_t value) {
  return {SQL_PARAM_INPUT, SQL_C_SBIGINT, SQL_BIGINT, 19, 0, bytes_of(value)};
}
/// A place for an output.
Bound slot(SQLLEN indicator) {
  return {SQL_PARAM_INPUT_OUTPUT,   SQL_C_SBIGINT, SQL_BIGINT, 19, indicator,
          bytes_of(std::int64_t{0})};
}
Bound bit(unsigned char value) {
  return {SQL_PARAM_INPUT, SQL_C_BIT, SQL_BIT, 1, 0, bytes_of(value)};
}
Bound real(double value) {
  return {SQL_PARAM_INPUT, SQL_C_DOUBLE, SQL_DOUBLE, 15, 0, bytes_of(value)};
}
/// `size` counts characters, the buffer units.
Bound wide(SQLULEN size, std::u16string units) {
  const auto bytes = static_cast<SQLLEN>(2 * units.size());
  return {SQL_PARAM_INPUT,         SQL_C_WCHAR, SQL_WVARCHAR, size, bytes,
          bytes_of(units += u'\0')};
}
/// Text in place of a value that has no type of its own.
Bound narrow(const std::string& text) {
  const auto size = text.size();
  return {SQL_PARAM_INPUT,
          SQL_C_CHAR,
          SQL_VARCHAR,
          size,
          SQL_NTS,
          text + '\0',
          static_cast<SQLLEN>(size) + 1};
}
Bound bytes(const std::string& content) {
  return {SQL_PARAM_INPUT,
          SQL_C_BINARY,
          SQL_VARBINARY,
          content.empty() ? 1 : content.size(),
          static_cast<SQLLEN>(content.size()),
          content};
}
Bound null() {
  return {SQL_PARAM_INPUT, SQL_C_CHAR, SQL_VARCHAR, 1, SQL_NULL_DATA, "", 1};
}

struct Row {
  const char* description;
  _variant_t value;
  Bound bound;
  /// As an element of an array, where that makes a difference.
  std::optional<Bound> in_array = std::nullopt;
};
std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.description;
}

/// Upper bits of a payload that say nothing.
constexpr std::uint64_t above(int bits) {
  return 0x5A5A5A5A5A5A5A5AU << static_cast<unsigned>(bits);
}

std::vector<Row> number_rows() {
  const auto of = [](VARTYPE type, std::uint64_t payload) {
    return owned(plain(type, payload));
  };
  return {{"VT_I2", of(VT_I2, above(16) | 0xFFFB), bigint(-5)},
          {"VT_I2", of(VT_I2, 0x7FFF), bigint(32767)},
          {"VT_I1", of(VT_I1, above(8) | 0xFD), bigint(-3)},
          {"VT_UI1", of(VT_UI1, above(8) | 0xC8), bigint(200)},
          {"VT_UI2", of(VT_UI2, above(16) | 0xFFFF), bigint(65535)},
          {"VT_UI4", of(VT_UI4, above(32) | 0xFFFFFFFF), bigint(4294967295)},
          {"VT_I4", of(VT_I4, 7), bigint(7)},
          {"VT_I4, all 64 bits", of(VT_I4, 0x100000007), bigint(4294967303)},
          {"VT_I4, negative", of(VT_I4, ~0ULL), bigint(-1)},
          {"VT_I8, least", values::kSmallest, bigint(values::kSmallest)},
          {"VT_I8, largest", values::kLargest, bigint(values::kLargest)},
          {"VT_UI8", of(VT_UI8, 77), bigint(77)},
          {"true", true, bit(1)},
          {"false", false, bit(0)},
          {"1 is not true", of(VT_BOOL, 1), bit(0)},
          {"VT_R8", 1.5, real(1.5)},
          {"VT_R8, infinite", values::kInfinity, real(values::kInfinity)},
          {"date", of(VT_DATE, values::bits_of(45292.0)), narrow("2024/01/01")},
          {"date and time", of(VT_DATE, values::bits_of(45292.75)),
           narrow("2024/01/01 18:00:00")}};
}

std::vector<Row> text_rows() {
  return {
      {"text", text_value(L"abc"), wide(3, u"abc")},
      {"no characters", text_value(L""), wide(0, u"")},
      {"a null text", owned(plain(VT_BSTR, 0)), wide(0, u"")},
      {"beyond ASCII", text_value(L"\u00e9\u20ac"), wide(2, u"\u00e9\u20ac")},
      {"a pair of units is one character", text_value(L"a\U0001F600"),
       wide(2, u"a\U0001F600")},
      {"the last character", text_value(L"\U0010FFFF"), wide(1, u"\U0010FFFF")},
      {"long", text_value(std::wstring(3000, L'x')),
       wide(3000, std::u16string(3000, u'x'))},
      {"narrow", lpstr_value("abc"), narrow("abc")},
      {"narrow, UTF-8", lpstr_value("\xC3\xA9"), narrow("\xC3\xA9")}};
}

std::vector<Row> other_rows() {
  return {
      {"Empty", _variant_t(), slot(0), slot(SQL_NULL_DATA)},
      {"a null link", owned(null_reference()), slot(0), slot(SQL_NULL_DATA)},
      {"Null", owned(plain(VT_NULL, 0)), null()},
      {"bytes", bytes_value({0, 1, 255}), bytes("\x00\x01\xFF"s)},
      {"bytes from 5", bytes_value({7, 8}, 5), bytes("\x07\x08")},
      {"no bytes", bytes_value({}), bytes("")},
      {"many bytes", bytes_value(std::vector<unsigned char>(3000, 7)),
       bytes(std::string(3000, '\x07'))}};
}

std::vector<Row> all_rows() {
  std::vector<Row> rows = number_rows();
  for (Row& row : text_rows()) rows.push_back(std::move(row));
  for (Row& row : other_rows()) rows.push_back(std::move(row));
  return rows;
}

TEST_F(ConnectionValues, EachReachesTheDriverAsItsType) {
  for (Row& row : all_rows()) {
    SCOPED_TRACE(row);
    for (const std::size_t depth : {0U, 1U, 3U}) {
      script().clear_log();
      const Connection made = opened();
      const Chain chain(&row.value, depth);
      const std::string before = describe(row.value);

      expect_done(ended(with_values(made, L"text ?", {chain.front()})));

      EXPECT_EQ(script().call("SQLPrepare").bytes("sql"), "text ?");
      EXPECT_EQ(script().count("SQLExecDirect"), 0U);
      ASSERT_EQ(script().sent().size(), 1U);
      EXPECT_EQ(bound(script().sent(1)), complete(row.bound));
      EXPECT_EQ(describe(row.value), before) << "nothing is written back";
    }
  }
}

TEST_F(ConnectionValues, EachReachesTheDriverFromAnArrayToo) {
  for (const Row& row : all_rows()) {
    SCOPED_TRACE(row);
    for (const LONG lower : {0, -3, 7}) {
      const Connection made = opened();
      std::vector<_variant_t> elements;
      elements.push_back(row.value);
      const _variant_t array = script_array(std::move(elements), lower);
      const std::string before = describe(array);

      expect_done(ended(with_values(made, L"text ?", {array})));

      ASSERT_EQ(script().sent().size(), 1U);
      EXPECT_EQ(bound(script().sent(1)),
                complete(row.in_array.value_or(row.bound)));
      EXPECT_EQ(describe(array), before) << "nothing is written back";
      EXPECT_EQ(array.parray->cLocks, 0U);
    }
  }
}

TEST_F(ConnectionValues, ElementsByReferenceAreFollowed) {
  _variant_t text = text_value(L"abc");
  _variant_t empty;
  const Chain to_text(&text, 2);
  const Chain to_empty(&empty, 1);
  const _variant_t array =
      script_array_of(owned(to_text.front()), owned(to_empty.front()));
  expect_done(ended(with_values(opened(), L"text", {array})));
  ASSERT_EQ(script().sent().size(), 2U);
  EXPECT_EQ(bound(script().sent(1)), complete(wide(3, u"abc")));
  EXPECT_EQ(bound(script().sent(2)), complete(slot(SQL_NULL_DATA)));
}

TEST_F(ConnectionValues, StandInTheOrderWritten) {
  std::vector<Row> rows = all_rows();
  std::vector<VARIANT> arguments;
  for (const Row& row : rows) arguments.push_back(row.value);
  expect_done(ended(with_values(opened(), L"text", arguments)));
  const std::vector<Sent> sent = script().sent();
  ASSERT_EQ(sent.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i]);
    EXPECT_EQ(sent[i].number, static_cast<int>(i) + 1);
    EXPECT_EQ(bound(sent[i]), complete(rows[i].bound));
  }

  std::vector<_variant_t> elements;
  for (const Row& row : rows) elements.push_back(row.value);
  const _variant_t array = script_array(std::move(elements), 1);
  expect_done(ended(with_values(opened(), L"text", {array})));
  const std::vector<Sent> from_array = script().sent();
  ASSERT_EQ(from_array.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i]);
    EXPECT_EQ(bound(from_array[i]),
              complete(rows[i].in_array.value_or(rows[i].bound)));
  }
}

TEST_F(ConnectionValues, AnObjectIsSentAsTheTextOfItsDefaultMember) {
  objects::Dispatch object([](const objects::Dispatch::Call& asked) {
    EXPECT_EQ(asked.member, DISPID_VALUE);
    *asked.result = _variant_t(12).Detach();
    return S_OK;
  });
  const _variant_t value(static_cast<IDispatch*>(&object));
  const _variant_t array = script_array_of(value);
  for (const VARIANT& argument : {VARIANT(value), VARIANT(array)}) {
    expect_done(ended(with_values(opened(), L"text", {argument})));
    EXPECT_EQ(bound(script().sent(1)), complete(narrow("12")));
  }
  EXPECT_EQ(object.invocations(), 2);
}

TEST_F(ConnectionValues, ATextEndsAtItsFirstZero) {
  const _variant_t text = text_value(L"ab\0cd"s);
  expect_done(ended(with_values(opened(), L"select\0 ?"s, {text})));
  EXPECT_EQ(script().call("SQLPrepare").bytes("sql"), "select");
  EXPECT_EQ(script().sent(1).value(), bytes_of(u"ab"));
  EXPECT_EQ(script().sent(1).indicator, 4);
}

// ---------------------------------------------------------------------------
// Arrays and other shapes of the call
// ---------------------------------------------------------------------------

TEST_F(ConnectionValues, ATextAloneIsExecutedDirectly) {
  script().columns({{"n", SQL_INTEGER}});
  script().row({cell(1)});
  const Connection made = opened();
  for (const wchar_t* sql : {L"select", L"EXEC p", L"{CALL p()}"}) {
    script().clear_log();
    const Ended done = ended(with_values(made, sql, {}));
    expect_done(done);
    ASSERT_TRUE(done.recordset);
    EXPECT_EQ(component::value_at(done.recordset, 0).llVal, 1);
    EXPECT_EQ(sql_sent(), std::string(sql, sql + std::wcslen(sql)));
    EXPECT_EQ(script().count("SQLPrepare"), 0U);
  }
}

TEST_F(ConnectionValues, AnEmptyArrayIsNoValueAtAll) {
  const _variant_t array = script_array({});
  for (const wchar_t* sql : {L"update", L"EXEC p", L"{CALL p(?)}"}) {
    expect_done(ended(with_values(opened(), sql, {array})));
    EXPECT_EQ(script().count("SQLPrepare"), 0U);
    EXPECT_EQ(script().count("SQLExecDirect"), 1U);
  }
}

TEST_F(ConnectionValues, AnArrayMayComeByReference) {
  _variant_t array = script_array_of(_variant_t(5), _variant_t());
  const Chain chain(&array, 2);
  expect_done(ended(with_values(opened(), L"text", {chain.front()})));
  ASSERT_EQ(script().sent().size(), 2U);
  EXPECT_EQ(bound(script().sent(1)), complete(bigint(5)));
  EXPECT_EQ(bound(script().sent(2)), complete(slot(SQL_NULL_DATA)));
}

TEST_F(ConnectionValues, ResultsAndFailuresComeBackAsFromExecute) {
  script().columns({{"n", SQL_INTEGER}});
  script().row({cell(7)});
  const VARIANT value = plain(VT_I4, 1);
  const Connection made = opened();
  const Ended done = ended(with_values(made, L"select ?", {value}));
  expect_done(done);
  ASSERT_TRUE(done.recordset);
  EXPECT_EQ(component::value_at(done.recordset, 0).llVal, 7);
  EXPECT_EQ(component::references_of(done.recordset.get()), 1U);

  for (const char* where : {"SQLPrepare", "SQLBindParameter", "SQLExecute",
                            "SQLNumResultCols", "SQLFetch"}) {
    SCOPED_TRACE(where);
    script().fail(where, scripted_odbc::nth(1), SQL_ERROR,
                  {"HY000", 7, "broken"});
    expect_failed(ended(with_values(made, L"select ?", {value})),
                  kExecuteFailedCode, error_text("HY000", "broken"));
  }
  EXPECT_TRUE(ended(with_values(made, L"select ?", {value})).recordset);
}

// What the driver writes into an output stays there.
TEST_F(ConnectionValues, OutputsOfTheDriverAreNotHandedBack) {
  script().output(1, cell(std::int64_t{42}));
  script().output(2, cell(std::int64_t{43}));
  _variant_t variable;
  const VARIANT link = reference_to(&variable);
  const _variant_t empty;
  expect_done(ended(with_values(opened(), L"text", {link, empty})));
  EXPECT_EQ(variable.vt, VT_EMPTY);

  const _variant_t array = script_array_of(_variant_t(), _variant_t(1));
  expect_done(ended(with_values(opened(), L"text", {array})));
  EXPECT_EQ(describe(array),
            describe(script_array_of(_variant_t(), _variant_t(1))));
}

// ---------------------------------------------------------------------------
// Values that cannot be sent
// ---------------------------------------------------------------------------

struct Unfit {
  const char* description;
  _variant_t value;
  HRESULT code;
  std::string printed;
};

std::vector<Unfit> unfit_rows() {
  const auto no_text = [](const char* description, VARTYPE type,
                          std::uint64_t payload) {
    return Unfit{description, owned(plain(type, payload)), E_INVALIDARG,
                 conversion_stub(type, parameters::kToText)};
  };
  std::vector<Unfit> rows{
      no_text("VT_CY", VT_CY, 10000),
      no_text("VT_ERROR", VT_ERROR, 0x80020004),
      no_text("VT_UNKNOWN", VT_UNKNOWN, 0),
      no_text("by reference to a number", VT_BYREF | VT_I4, 0),
      no_text("by reference to a text", VT_BYREF | VT_BSTR, 0),
      no_text("an array of texts", VT_ARRAY | VT_BSTR, 0),
      no_text("a null array by reference", VT_BYREF | VT_ARRAY | VT_VARIANT, 0),
      no_text("null bytes by reference", VT_BYREF | VT_ARRAY | VT_UI1, 0),
      no_text("a null array", VT_ARRAY | VT_VARIANT, 0),
      no_text("type 15", 15, 0),
      no_text("type 22", 22, 0),
      {"VT_R4", owned(plain(VT_R4, 0x3F800000)), E_INVALIDARG,
       conversion_stub(VT_R4, parameters::kToDouble)},
      {"VT_DECIMAL", owned(plain(VT_DECIMAL, 0)), E_INVALIDARG,
       conversion_stub(VT_DECIMAL, parameters::kToDouble)},
      {"null bytes", owned(plain(VT_ARRAY | VT_UI1, 0)), DISP_E_TYPEMISMATCH,
       ""}};
  _variant_t array = script_array_of(_variant_t(1));
  array.vt |= VT_BYREF;
  rows.push_back(
      {"an array by reference", array, E_INVALIDARG,
       conversion_stub(VT_BYREF | VT_ARRAY | VT_VARIANT, parameters::kToText)});
  _variant_t content = bytes_value({1, 2});
  content.vt |= VT_BYREF;
  rows.push_back(
      {"bytes by reference", content, E_INVALIDARG,
       conversion_stub(VT_BYREF | VT_ARRAY | VT_UI1, parameters::kToText)});
  rows.push_back({"two dimensions", script_matrix(2, 2), E_INVALIDARG,
                  conversion_stub(VT_ARRAY | VT_VARIANT, parameters::kToText)});
  return rows;
}

TEST_F(ConnectionValues, WhatCannotBeSentIsReportedWithItsConversionsCode) {
  const Connection made = opened();
  for (const Unfit& row : unfit_rows()) {
    SCOPED_TRACE(row.description);
    component::Answer answer;
    EXPECT_EQ(printed::by(
                  [&] { answer = with_values(made, L"text ?", {row.value}); }),
              row.printed);
    expect_exception(answer, row.code, kConnectionSource, kValueText);

    const _variant_t array = script_array_of(row.value);
    EXPECT_EQ(
        printed::by([&] { answer = with_values(made, L"text ?", {array}); }),
        row.printed);
    expect_exception(answer, row.code, kConnectionSource, kValueText);
    EXPECT_EQ(array.parray->cLocks, 0U);
  }
  expect_nothing_sent();
}

// As most hosts refer to one: by the address of their pointer to it.
TEST_F(ConnectionValues, AnArrayBehindItsPointerCannotBeSent) {
  const Connection made = opened();
  const auto dispatch = component::dispatch_of(made.get());
  for (_variant_t array : {script_array_of(_variant_t(1)), bytes_value({7})}) {
    VARIANT reference = plain(VT_BYREF | array.vt, 0);
    reference.byref = &array.parray;
    _bstr_t text(L"text ?");
    VARIANT written[2] = {reference, plain(VT_BSTR, 0)};
    written[1].bstrVal = text.m_s;
    DISPPARAMS parameters = {written, nullptr, 2, 0};
    component::Exception exception;
    _variant_t result;
    EXPECT_EQ(printed::by([&] {
                EXPECT_EQ(dispatch->Invoke(DISPID_VALUE, IID_NULL, 0,
                                           DISPATCH_METHOD, &parameters,
                                           &result, exception.get(), nullptr),
                          DISP_E_EXCEPTION);
              }),
              conversion_stub(reference.vt, parameters::kToText));
    EXPECT_EQ(exception->scode, E_INVALIDARG);
    EXPECT_STREQ(exception->bstrDescription, kValueText);
    EXPECT_EQ(array.parray->cLocks, 0U);
  }
  expect_nothing_sent();
}

// Only alone behind the text does an array stand for the values in it.
TEST_F(ConnectionValues, AnArrayAmongOthersIsOneValueThatCannotBeSent) {
  const _variant_t array = script_array_of(_variant_t(1));
  const _variant_t nested = script_array_of(array);
  const VARIANT one = plain(VT_I4, 1);
  const Connection made = opened();
  for (const std::vector<VARIANT>& arguments :
       {std::vector<VARIANT>{array, one},
        {one, array},
        {array, array},
        {nested}}) {
    expect_exception(with_values(made, L"text", arguments), E_INVALIDARG,
                     kConnectionSource, kValueText);
  }
  expect_nothing_sent();
}

TEST_F(ConnectionValues, TheFirstThatCannotBeSentIsReported) {
  const VARIANT mismatch = plain(VT_ARRAY | VT_UI1, 0);
  const VARIANT invalid = plain(VT_CY, 0);
  objects::Dispatch object(
      [](const objects::Dispatch::Call&) { return E_NOTIMPL; });
  const _variant_t failing(static_cast<IDispatch*>(&object));
  const VARIANT good = plain(VT_I4, 1);
  const std::vector<std::pair<std::vector<VARIANT>, HRESULT>> rows{
      {{mismatch, invalid}, DISP_E_TYPEMISMATCH},
      {{invalid, mismatch}, E_INVALIDARG},
      {{good, good, failing, invalid}, E_NOTIMPL},
      {{failing, mismatch}, E_NOTIMPL}};
  const Connection made = opened();
  for (const auto& [arguments, code] : rows) {
    expect_exception(with_values(made, L"text", arguments), code,
                     kConnectionSource, kValueText);
  }
  expect_nothing_sent();
}

TEST_F(ConnectionValues, AnArrayInUseCannotBeRead) {
  const _variant_t array = script_array_of(_variant_t(1));
  const Connection made = opened();
  // An earlier failure whose text must not show.
  EXPECT_EQ(component::execute(made, L"").first, kNoTextCode);
  {
    const SafeArrayAccess held(array.parray);
    expect_exception(with_values(made, L"text", {array}), E_UNEXPECTED,
                     kConnectionSource, nullptr);
    EXPECT_EQ(array.parray->cLocks, 1U);
  }
  expect_nothing_sent();
  expect_done(ended(with_values(made, L"text", {array})));
}

// Whatever goes wrong while a text is asked for is not this call's failure.
TEST_F(ConnectionValues, AFailureInsideOfADefaultMemberIsForgotten) {
  const Connection made = opened();
  objects::Dispatch object([&made](const objects::Dispatch::Call& asked) {
    EXPECT_EQ(component::execute(made, L"").first, kNoTextCode);
    *asked.result = _variant_t(L"text").Detach();
    return S_OK;
  });
  const _variant_t text(static_cast<IDispatch*>(&object));
  const _variant_t array = script_array_of(_variant_t(1));
  const SafeArrayAccess held(array.parray);
  expect_exception(call(made, kParameterised, {text, array}), E_UNEXPECTED,
                   kConnectionSource, nullptr);
}

TEST_F(ConnectionValues, TheTextMustBeOne) {
  const VARIANT one = plain(VT_I4, 1);
  const VARIANT unfit = plain(VT_CY, 0);
  const Connection made = opened();
  for (const VARIANT& text : {plain(VT_CY, 0), plain(VT_ERROR, 0),
                              reference_to(nullptr), plain(VT_UI2, 1)}) {
    expect_refused(call(made, kParameterised, {text}), DISP_E_TYPEMISMATCH);
    expect_refused(call(made, kParameterised, {text, one}),
                   DISP_E_TYPEMISMATCH);
    expect_refused(call(made, kParameterised, {text, unfit}),
                   DISP_E_TYPEMISMATCH);
  }
  expect_nothing_sent();
}

// ---------------------------------------------------------------------------
// Texts that call procedures
// ---------------------------------------------------------------------------

TEST_F(ConnectionValues, ProcedureCallsAreRefusedWithValues) {
  const VARIANT one = plain(VT_I4, 1);
  const _variant_t array = script_array_of(_variant_t(1));
  const Connection open = opened();
  const Connection closed = connection();
  for (const wchar_t* sql :
       {L"EXEC p", L"exec p ?", L"Exec p ?, ?", L"EXEC  p", L"  EXEC p",
        L"\t\r\n EXEC p", L"EXEC \t p", L"EXEC dbo.sp_executesql ?",
        L"{CALL p(?)}", L"{call p(?)}", L"  {CALL p(?)}", L"{ CALL p(?)}",
        L"{? = CALL p(?)}", L"{?=CALL p(?)}", L"{ \t? \n= \rCALL p}",
        L"{CALL  p(?)}", L"{CALL p"}) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(sql)));
    for (const Connection& made : {open, closed}) {
      expect_exception(with_values(made, sql, {one}), kErrorsOccurredCode,
                       kConnectionSource, kErrorsOccurredText);
      expect_exception(with_values(made, sql, {array}), kErrorsOccurredCode,
                       kConnectionSource, kErrorsOccurredText);
    }
  }
  expect_nothing_sent();
}

TEST_F(ConnectionValues, OtherTextsPass) {
  const VARIANT one = plain(VT_I4, 1);
  for (const wchar_t* sql :
       {L"EXEC sp_executesql ?", L"exec SP_ExecuteSQL ?",
        L"  EXEC  \t sp_executesql ?", L"{CALL sp_executesql(?)}",
        L"{? = call SP_EXECUTESQL(?)}", L"{ CALL   sp_executesql(?)}",
        L"EXECUTE p ?", L"EXEC\tp ?", L"EXEC", L"CALL p(?)", L"{p(?)}",
        L"{CALLp(?)}", L"{fn CALL p(?)}", L"select 'EXEC p'", L"-- EXEC p",
        L"{? CALL p(?)}", L"x{CALL p(?)}", L" "}) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(sql)));
    expect_done(ended(with_values(opened(), sql, {one})));
    EXPECT_EQ(script().call("SQLPrepare").bytes("sql"),
              std::string(sql, sql + std::wcslen(sql)));
  }
}

TEST_F(ConnectionValues, FailuresComeInOrder) {
  const VARIANT one = plain(VT_I4, 1);
  const VARIANT unfit = plain(VT_CY, 0);
  const _variant_t locked = script_array_of(_variant_t(1));
  const SafeArrayAccess held(locked.parray);
  const Connection closed = connection();
  const Connection open = opened();
  // Reading the values, then sending them, then the procedure, then the state,
  // then the text.
  expect_exception(with_values(closed, L"EXEC p", {locked}), E_UNEXPECTED,
                   kConnectionSource, nullptr);
  for (const Connection& made : {closed, open}) {
    for (const wchar_t* sql : {L"EXEC p", L"", L"text"}) {
      expect_exception(with_values(made, sql, {one, unfit}), E_INVALIDARG,
                       kConnectionSource, kValueText);
    }
  }
  expect_exception(with_values(closed, L"EXEC p", {one}), kErrorsOccurredCode,
                   kConnectionSource, kErrorsOccurredText);
  expect_exception(with_values(closed, L"", {one}), kClosedCode,
                   kConnectionSource, kClosedText);
  expect_exception(with_values(closed, L"text", {one}), kClosedCode,
                   kConnectionSource, kClosedText);
  expect_exception(with_values(closed, L"EXEC p", {}), kClosedCode,
                   kConnectionSource, kClosedText);
  expect_exception(with_values(open, L"", {one}), kNoTextCode,
                   kConnectionSource, kNoTextText);
  expect_exception(with_values(open, L"", {}), kNoTextCode, kConnectionSource,
                   kNoTextText);
  expect_nothing_sent();
}

// ---------------------------------------------------------------------------
// Texts that are none in UTF-16
// ---------------------------------------------------------------------------

TEST_F(ConnectionValues, CharactersThatDoNotExistFailTheExecution) {
  const Connection made = opened();
  const VARIANT one = plain(VT_I4, 1);
  for (const wchar_t character :
       {wchar_t{0xD800}, wchar_t{0xDFFF}, wchar_t{0x110000}, wchar_t{0x1FFFFF},
        wchar_t{0x7FFFFFFF}}) {
    SCOPED_TRACE(static_cast<long>(character));
    const _variant_t text = text_value(std::wstring(1, character));
    expect_exception(with_values(made, L"text", {one, text}),
                     kExecuteFailedCode, kConnectionSource,
                     L"wstring_convert::from_bytes");
    const _variant_t array = script_array_of(_variant_t(1), text);
    expect_exception(with_values(made, L"text", {array}), kExecuteFailedCode,
                     kConnectionSource, L"wstring_convert::from_bytes");
  }
  EXPECT_EQ(executions(), 0U);
  EXPECT_EQ(script().live("STMT"), 0U);
  expect_done(ended(with_values(made, L"text", {one})));
}

TEST_F(ConnectionValues, UnitsOfTheDriverThatAreNoTextFailTheExecution) {
  script().columns({{"n", SQL_INTEGER}});
  script().output(1, scripted_odbc::raw(std::string("\x00\xD8", 2), 2));
  const Connection made = opened();
  const _variant_t text = text_value(L"a");
  expect_exception(with_values(made, L"text", {text}), kExecuteFailedCode,
                   kConnectionSource, L"wstring_convert::to_bytes");
  EXPECT_EQ(script().live("STMT"), 0U);
  EXPECT_EQ(component::execute(made, L"select").first, S_OK);
}

}  // namespace
