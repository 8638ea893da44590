// SPDX-License-Identifier: MIT
//
// How parameters are sent: the whole grid of declared types and types of
// values.
//
// Sections: the grid; values by reference; what is carried over; bytes.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_workbench.h"
#include "support/objects.h"
#include "support/odbc_parameters.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

using namespace parameters;
using odbc_parameters::boolean;
using odbc_parameters::bytes;
using odbc_parameters::integer;
using odbc_parameters::null_value;
using odbc_parameters::real;
using odbc_parameters::text;
using values::kLargest;
using values::kSmallest;
using values::plain;
using values::text_value;

using namespace std::string_literals;

// ---------------------------------------------------------------------------
// The grid
// ---------------------------------------------------------------------------

/// What a value becomes, or how it fails.
struct Outcome {
  HRESULT result = S_OK;
  ZirdbOdbcValue value = {};
  std::string printed = {};
};
Outcome sent(ZirdbOdbcValue value) { return {S_OK, std::move(value), {}}; }
Outcome unreadable() { return {E_INVALIDARG, {}, {}}; }
Outcome not_implemented(int from, int to) {
  return {E_INVALIDARG, {}, conversion_stub(from, to)};
}
Outcome mismatch() { return {DISP_E_TYPEMISMATCH, {}, {}}; }

/// A value, and what it becomes under each group of declared types.
struct Row {
  std::string description;
  _variant_t value;
  Outcome as_text;
  Outcome as_integer;
  Outcome as_boolean;
  Outcome as_binary;
  Outcome undeclared;
};

Row null_row(const std::string& description, const VARIANT& value) {
  const Outcome null = sent(null_value());
  return {description, value, null, null, null, null, null};
}

/// A value that nothing can be made of.
Row hopeless_row(const std::string& description, const VARIANT& value,
                 int undeclared_as = kToText) {
  const int from = value.vt;
  return {description,
          value,
          not_implemented(from, kToText),
          not_implemented(from, kToInteger),
          not_implemented(from, kToBoolean),
          mismatch(),
          not_implemented(from, undeclared_as)};
}

/// An integer: without a text where none is given.
Row integer_row(const std::string& description, const VARIANT& value,
                std::int64_t number, const std::optional<std::string>& spelt) {
  return {description,
          value,
          spelt ? sent(text(*spelt)) : not_implemented(value.vt, kToText),
          sent(integer(number)),
          not_implemented(value.vt, kToBoolean),
          mismatch(),
          sent(integer(number))};
}

Row text_row(const std::string& description, const VARIANT& value,
             const std::string& utf8, const Outcome& as_integer,
             const Outcome& as_boolean) {
  return {description, value,      sent(text(utf8)), as_integer,
          as_boolean,  mismatch(), sent(text(utf8))};
}

Row date_row(double date, const std::string& spelt) {
  return text_row("date " + spelt, plain(VT_DATE, values::bits_of(date)), spelt,
                  not_implemented(VT_DATE, kToInteger),
                  not_implemented(VT_DATE, kToBoolean));
}

Row double_row(double number, const std::string& spelt, std::int64_t cut) {
  return {"double " + spelt,
          number,
          sent(text(spelt)),
          sent(integer(cut)),
          not_implemented(VT_R8, kToBoolean),
          mismatch(),
          sent(real(number))};
}

/// Upper bits of a payload that say nothing.
constexpr std::uint64_t above(int bits) {
  return 0xA5A5A5A5A5A5A5A5U << static_cast<unsigned>(bits);
}

std::vector<Row> integer_rows() {
  return {integer_row("VT_I2", plain(VT_I2, above(16) | 0xFFFB), -5, "-5"),
          integer_row("VT_I2", plain(VT_I2, 0x7FFF), 32767, "32767"),
          integer_row("VT_I4, all 64 bits", plain(VT_I4, 0x100000007),
                      4294967303, "4294967303"),
          integer_row("VT_I4, all 64 bits", plain(VT_I4, 0xFFFFFFFF),
                      4294967295, "4294967295"),
          integer_row("VT_I1", plain(VT_I1, above(8) | 0xFD), -3, {}),
          integer_row("VT_I1", plain(VT_I1, 0x7F), 127, {}),
          integer_row("VT_UI1", plain(VT_UI1, above(8) | 0xC8), 200, "200"),
          integer_row("VT_UI2", plain(VT_UI2, above(16) | 0xFFFF), 65535, {}),
          integer_row("VT_UI4", plain(VT_UI4, above(32) | 0xFFFFFFFF),
                      4294967295, {}),
          integer_row("VT_UI8", plain(VT_UI8, 77), 77, "77"),
          integer_row("VT_UI8, all bits", plain(VT_UI8, ~0ULL), -1,
                      "18446744073709551615"),
          {"VT_I8", 42, sent(text("42")), sent(integer(42)),
           sent(boolean(true)), mismatch(), sent(integer(42))},
          {"VT_I8", 0, sent(text("0")), sent(integer(0)), sent(boolean(false)),
           mismatch(), sent(integer(0))},
          {"VT_I8", kSmallest, sent(text("-9223372036854775808")),
           sent(integer(kSmallest)), sent(boolean(true)), mismatch(),
           sent(integer(kSmallest))},
          {"VT_I8", kLargest, sent(text("9223372036854775807")),
           sent(integer(kLargest)), sent(boolean(true)), mismatch(),
           sent(integer(kLargest))}};
}

std::vector<Row> other_number_rows() {
  return {
      {"true", true, sent(text("-1")), sent(integer(-1)), sent(boolean(true)),
       mismatch(), sent(boolean(true))},
      {"false", false, sent(text("0")), sent(integer(0)), sent(boolean(false)),
       mismatch(), sent(boolean(false))},
      // Deliberate: nothing but -1 is true.
      {"1 is not true", plain(VT_BOOL, 1), sent(text("1")), sent(integer(1)),
       sent(boolean(false)), mismatch(), sent(boolean(false))},
      {"0xFFFE is not true", plain(VT_BOOL, 0xFFFE), sent(text("-2")),
       sent(integer(-2)), sent(boolean(false)), mismatch(),
       sent(boolean(false))},
      double_row(2.75, "2.75", 2),
      double_row(-2.75, "-2.75", -2),
      double_row(0.0, "0", 0),
      double_row(1e300, "1e+300", kSmallest),
      double_row(0.1, "0.1", 0),
      hopeless_row("VT_R4", plain(VT_R4, 0x3F800000), kToDouble),
      hopeless_row("VT_DECIMAL", plain(VT_DECIMAL, 1), kToDouble),
      hopeless_row("VT_CY", plain(VT_CY, 10000)),
      date_row(45292.0, "2024/01/01"),
      date_row(45292.75, "2024/01/01 18:00:00"),
      date_row(0.5, "12:00:00")};
}

std::vector<Row> text_rows() {
  return {
      text_row("a number", text_value(L"42"), "42", sent(integer(42)),
               unreadable()),
      text_row("a number and more", text_value(L"  -7th"), "  -7th",
               sent(integer(-7)), unreadable()),
      text_row("no number", text_value(L"x"), "x", unreadable(), unreadable()),
      text_row("empty", text_value(L""), "", unreadable(), unreadable()),
      text_row("true", text_value(L"True"), "True", unreadable(),
               sent(boolean(true))),
      text_row("false", text_value(L"FALSE"), "FALSE", unreadable(),
               sent(boolean(false))),
      text_row("1 is no truth value", text_value(L"1"), "1", sent(integer(1)),
               unreadable()),
      text_row("beyond ASCII", text_value(L"\u00e9\u20ac\U0001F600"),
               "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", unreadable(),
               unreadable()),
      text_row("with a zero", text_value(L"ab\0cd"s), "ab", unreadable(),
               unreadable()),
      text_row("a GUID", text_value(L"{01234567-89AB-CDEF-0123-456789ABCDEF}"),
               "{01234567-89AB-CDEF-0123-456789ABCDEF}", unreadable(),
               unreadable()),
      text_row(
          "long", text_value(std::wstring(3000, L'\u00e9')),
          [] {
            std::string all;
            for (int i = 0; i < 3000; ++i) all += "\xC3\xA9";
            return all;
          }(),
          unreadable(), unreadable()),
      text_row("eight bits", values::lpstr_value("h\xC3\xA9"), "h\xC3\xA9",
               not_implemented(VT_LPSTR, kToInteger),
               not_implemented(VT_LPSTR, kToBoolean))};
}

std::vector<Row> other_rows() {
  objects::Unknown* const no_object = nullptr;
  VARIANT bytes_by_reference = bytes_value({1, 2, 3}).Detach();
  bytes_by_reference.vt |= VT_BYREF;
  std::vector<Row> rows{
      null_row("empty", VARIANT()),
      null_row("NULL", plain(VT_NULL, 77)),
      hopeless_row("VT_ERROR", plain(VT_ERROR, 5)),
      hopeless_row("VT_VARIANT", plain(VT_VARIANT, 5)),
      hopeless_row("VT_UNKNOWN", _variant_t(no_object)),
      hopeless_row("array of variants", script_array_of(_variant_t(1))),
      hopeless_row("array of texts",
                   array_value(VT_BSTR, SafeArrayCreateVector(VT_BSTR, 0, 1))),
      hopeless_row("bytes by reference", values::owned(bytes_by_reference)),
      {"bytes", bytes_value({0, 1, 255}), not_implemented(0x2011, kToText),
       not_implemented(0x2011, kToInteger), not_implemented(0x2011, kToBoolean),
       sent(bytes({0, 1, '\xFF'})), sent(bytes({0, 1, '\xFF'}))}};
  for (const int type : {15, 22, 23, 24, 26, 36, 64, 72, 0x0FFF}) {
    rows.push_back(
        hopeless_row("unlisted type", plain(static_cast<VARTYPE>(type), 0)));
  }
  for (const int type : {2, 3, 5, 8, 9, 11, 17, 20}) {
    rows.push_back(hopeless_row(
        "by reference", plain(static_cast<VARTYPE>(VT_BYREF | type), 0)));
  }
  return rows;
}

std::vector<Row> grid() {
  std::vector<Row> rows;
  for (auto part :
       {integer_rows(), other_number_rows(), text_rows(), other_rows()}) {
    for (Row& row : part) rows.push_back(std::move(row));
  }
  return rows;
}

const std::vector<long> kTextTypes{72, 200, 202};
const std::vector<long> kIntegerTypes{3, 20};
const std::vector<long> kUndeclaredTypes{0,
                                         1,
                                         2,
                                         4,
                                         5,
                                         7,
                                         8,
                                         12,
                                         14,
                                         17,
                                         21,
                                         71,
                                         73,
                                         129,
                                         199,
                                         201,
                                         203,
                                         205,
                                         -1,
                                         -3,
                                         204 + kTwoTo32,
                                         3 + kTwoTo32,
                                         11 - kTwoTo32,
                                         kSmallest,
                                         kLargest};

/// A record in which no field is as it should be.
ZirdbOdbcParameter filled() {
  return {-1111,
          -2222,
          -3333,
          {ZirdbOdbcValueKind::Double, true, 4444, 5.5, std::string(100, 'x'),
           std::vector<unsigned char>(100, 'y')}};
}

void expect_outcome(const VARIANT& value, long type, const Outcome& expected) {
  SCOPED_TRACE(testing::Message() << "declared " << type);
  const auto parameter = workbench::parameter(L"p", type, -7, 99, value);
  const std::string before = describe(value_of(parameter.get()));
  ZirdbOdbcParameter odbc = filled();
  HRESULT result = S_OK;
  EXPECT_EQ(
      printed::by([&] { result = workbench::to_odbc(parameter.get(), &odbc); }),
      expected.printed);
  EXPECT_EQ(result, expected.result) << std::hex << result;
  // Of a failure it is not said which kind stays, only that all is reset.
  if (FAILED(expected.result)) odbc.value.kind = ZirdbOdbcValueKind::Null;
  EXPECT_EQ(odbc_parameters::describe(odbc),
            odbc_parameters::describe(
                odbc_parameters::parameter(type, -7, 99, expected.value)));
  EXPECT_EQ(describe(value_of(parameter.get())), before);
}

void expect_row(const Row& row, const VARIANT& value) {
  SCOPED_TRACE(row.description + ", " +
               (row.value.vt == VT_BSTR ? "" : describe(row.value)));
  for (const long type : kTextTypes) expect_outcome(value, type, row.as_text);
  for (const long type : kIntegerTypes) {
    expect_outcome(value, type, row.as_integer);
  }
  expect_outcome(value, ZIRDB_AD_BOOLEAN, row.as_boolean);
  expect_outcome(value, ZIRDB_AD_VARBINARY, row.as_binary);
  for (const long type : kUndeclaredTypes) {
    expect_outcome(value, type, row.undeclared);
  }
}

TEST(Sending, EveryValueUnderEveryDeclaredType) {
  for (const Row& row : grid()) expect_row(row, row.value);
}

TEST(Sending, ADefaultMemberStandsForItsObject) {
  objects::Dispatch object([](const objects::Dispatch::Call& call) {
    *call.result = _variant_t(L"spoken").Detach();
    return S_OK;
  });
  const _variant_t value(static_cast<IDispatch*>(&object));
  expect_row({"object", value, sent(text("spoken")),
              not_implemented(VT_DISPATCH, kToInteger),
              not_implemented(VT_DISPATCH, kToBoolean), mismatch(),
              sent(text("spoken"))},
             value);
}

TEST(Sending, AFailingDefaultMemberFailsWithItsResult) {
  objects::Dispatch object(
      [](const objects::Dispatch::Call&) { return zir_hresult(0x80041234); });
  const _variant_t value(static_cast<IDispatch*>(&object));
  for (const long type : {0L, 72L, 200L, 202L}) {
    expect_outcome(value, type, {zir_hresult(0x80041234), {}, {}});
  }
}

// A script's object may change what is being sent.
TEST(Sending, ADefaultMemberMayPutAnotherValue) {
  InterfacePtr<IZIRDBParameter> parameter;
  _variant_t variable;
  objects::Dispatch object([&](const objects::Dispatch::Call& call) {
    parameter->put_Value(_variant_t(5));
    variable = _variant_t();
    EXPECT_GT(object.references(), 1U) << "held while it answers";
    *call.result = _variant_t(L"spoken").Detach();
    return S_OK;
  });
  for (const bool by_reference : {false, true}) {
    for (const long type : {0L, 72L, 200L, 202L}) {
      variable = _variant_t(static_cast<IDispatch*>(&object));
      const Chain chain(&variable, by_reference ? 1 : 0);
      parameter = parameter_with(chain.front(), type);
      ZirdbOdbcParameter odbc = filled();
      EXPECT_EQ(workbench::to_odbc(parameter.get(), &odbc), S_OK);
      EXPECT_EQ(odbc_parameters::describe(odbc.value),
                odbc_parameters::describe(text("spoken")));
    }
  }
  parameter = {};
  EXPECT_EQ(object.references(), 1U);
}

TEST(Sending, ANullTextIsAnEmptyOne) {
  for (const long type : {0L, 72L, 200L, 202L}) {
    expect_outcome(plain(VT_BSTR, 0), type, sent(text("")));
  }
}

// ---------------------------------------------------------------------------
// Values by reference
// ---------------------------------------------------------------------------

TEST(Sending, ReferencesStandForWhatTheyLeadTo) {
  for (Row& row : grid()) {
    for (const std::size_t depth : {1U, 2U, 5U}) {
      const Chain chain(&row.value, depth);
      expect_row(row, chain.front());
    }
  }
}

// A text in the record has lost its zeros already; one by reference has not.
TEST(Sending, TextsByReferenceEndAtTheirFirstZeroToo) {
  _variant_t with_zero = text_value(L"ab\0cd"s);
  const Chain chain(&with_zero, 1);
  for (const long type : {0L, 72L, 200L, 202L}) {
    expect_outcome(chain.front(), type, sent(text("ab")));
  }
}

TEST(Sending, NullReferencesAreNullUnderEveryDeclaredType) {
  VARIANT null_link = null_reference();
  for (const std::size_t depth : {0U, 1U, 4U}) {
    const Chain chain(&null_link, depth);
    expect_row(null_row("null reference", null_link), chain.front());
  }
}

// ---------------------------------------------------------------------------
// What is carried over
// ---------------------------------------------------------------------------

TEST(Sending, TypeDirectionAndSizeGoAsTheyAre) {
  for (const long direction : {0L, 1L, 4L, 77L, kSmallest}) {
    for (const long size : kSizes) {
      const auto parameter =
          workbench::parameter(L"p", 202, direction, size, text_value(L"x"));
      ZirdbOdbcParameter odbc = filled();
      EXPECT_EQ(workbench::to_odbc(parameter.get(), &odbc), S_OK);
      EXPECT_EQ(odbc.type, 202);
      EXPECT_EQ(odbc.direction, direction);
      EXPECT_EQ(odbc.size, size);
    }
  }
}

// ---------------------------------------------------------------------------
// Bytes
// ---------------------------------------------------------------------------

TEST(Sending, ALockedArrayByReferenceFails) {
  _variant_t value = bytes_value({1, 2});
  const SafeArrayAccess access(value.parray);
  const Chain chain(&value, 1);
  for (const long type : {0L, 204L}) {
    const auto parameter = parameter_with(chain.front(), type);
    ZirdbOdbcParameter odbc;
    EXPECT_EQ(workbench::to_odbc(parameter.get(), &odbc), E_UNEXPECTED);
  }
}

TEST(Sending, ANullArrayByReferenceIsNoArray) {
  VARIANT null_array = plain(VT_ARRAY | VT_UI1, 0);
  const Chain chain(&null_array, 1);
  for (const long type : {0L, 204L}) {
    expect_outcome(chain.front(), type, mismatch());
  }
}

TEST(Sending, EmptyBytesAreBytes) {
  for (const long type : {0L, 204L}) {
    expect_outcome(bytes_value({}, 3), type, sent(bytes("")));
  }
}

}  // namespace
