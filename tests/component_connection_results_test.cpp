// SPDX-License-Identifier: MIT
//
// What Connection.Execute makes of a result: the recordset, its columns, and
// the variant of every kind of cell.

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "support/connection_calls.h"
#include "support/connections.h"
#include "support/parameters.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace std::string_literals;

using component::at_end;
using component::Connection;
using component::fields_of;
using component::Recordset;
using component::references_of;
using component::value_at;
using connection_calls::Ended;
using connection_calls::execute_by;
using connection_calls::kExecute;
using connection_calls::kRoads;
using connection_calls::Road;
using parameters::bytes_value;
using parameters::describe;
using scripted_odbc::binary;
using scripted_odbc::bytes_of;
using scripted_odbc::cell;
using scripted_odbc::Cell;
using scripted_odbc::chunk;
using scripted_odbc::chunks;
using scripted_odbc::Column;
using scripted_odbc::null_cell;
using values::plain;
using values::text_value;

class ConnectionResult : public connection_calls::ConnectionTest {
 protected:
  static Recordset run(Road road, const Connection& connection) {
    Ended ended = execute_by(road, connection, L"select");
    EXPECT_EQ(ended.code, S_OK);
    if (!ended.recordset) throw std::runtime_error("no recordset");
    return std::move(ended.recordset);
  }
};

// ---------------------------------------------------------------------------
// Cells
// ---------------------------------------------------------------------------

struct Kind {
  const char* description;
  int sql_type;
  Cell cell;
  _variant_t expected;
};
std::ostream& operator<<(std::ostream& out, const Kind& row) {
  return out << row.description << ", SQL type " << row.sql_type;
}

std::vector<Kind> number_rows() {
  std::vector<Kind> rows;
  for (const int type : {SQL_INTEGER, SQL_SMALLINT, SQL_TINYINT, SQL_BIGINT}) {
    rows.push_back({"integer", type, cell(42), 42});
    rows.push_back({"negative", type, cell(-1), -1});
    rows.push_back({"zero", type, cell(0), 0});
  }
  rows.push_back(
      {"largest", SQL_BIGINT, cell(values::kLargest), values::kLargest});
  rows.push_back(
      {"smallest", SQL_BIGINT, cell(values::kSmallest), values::kSmallest});
  for (const int type :
       {SQL_NUMERIC, SQL_DECIMAL, SQL_FLOAT, SQL_REAL, SQL_DOUBLE}) {
    rows.push_back({"double", type, cell(1.5), 1.5});
    rows.push_back({"negative", type, cell(-0.1), -0.1});
  }
  rows.push_back(
      {"infinity", SQL_DOUBLE, cell(values::kInfinity), values::kInfinity});
  rows.push_back({"negative zero", SQL_DOUBLE, cell(-0.0), -0.0});
  rows.push_back({"NaN", SQL_DOUBLE, cell(values::kNaN), values::kNaN});
  rows.push_back({"true", SQL_BIT, cell(true), true});
  rows.push_back({"false", SQL_BIT, cell(false), false});
  rows.push_back({"a bit of 2", SQL_BIT,
                  chunks({chunk(SQL_SUCCESS, bytes_of<unsigned char>(2), 1)}),
                  true});
  return rows;
}

std::vector<Kind> text_rows() {
  const std::string long_text(5000, 'x');
  std::string wide;
  std::wstring wide_text;
  for (int i = 0; i < 1500; ++i) {
    wide += "a\xE2\x82\xAC";  // pieces end inside of characters
    wide_text += L"a\u20ac";
  }
  std::vector<Kind> rows;
  for (const int type :
       {SQL_CHAR, SQL_VARCHAR, SQL_LONGVARCHAR, SQL_WCHAR, SQL_WVARCHAR,
        SQL_WLONGVARCHAR, SQL_TYPE_DATE, SQL_TYPE_TIME, SQL_TYPE_TIMESTAMP,
        SQL_INTERVAL_YEAR, -155, 0}) {
    rows.push_back({"text", type, cell("2024-01-31"), L"2024-01-31"});
  }
  const int type = SQL_VARCHAR;
  rows.push_back({"no characters", type, cell(""), text_value(L"")});
  rows.push_back({"beyond ASCII", type,
                  cell("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"),
                  L"\u00e9\u20ac\U0001F600"});
  rows.push_back(
      {"long", type, cell(long_text), text_value(std::wstring(5000, L'x'))});
  rows.push_back(
      {"long, beyond ASCII", type, cell(wide), text_value(wide_text)});
  rows.push_back({"with a zero", type, cell("ab\0cd"s), L"ab"});
  rows.push_back({"not UTF-8: stray", type, cell("a\xE9z"), text_value(L"")});
  rows.push_back(
      {"not UTF-8: cut", type, cell("abc\xE2\x82"), text_value(L"")});
  rows.push_back({"not UTF-8: FF", type, cell("\xFF"), text_value(L"")});
  rows.push_back({"a surrogate passes", type, cell("\xED\xA0\x80"),
                  text_value(std::wstring(1, wchar_t{0xD800}))});
  rows.push_back({"a GUID", SQL_GUID,
                  cell("01234567-89ab-cdef-0123-456789abcdef"),
                  L"{01234567-89ab-cdef-0123-456789abcdef}"});
  rows.push_back({"a GUID in braces", SQL_GUID, cell("{0}"), L"{0}"});
  return rows;
}

std::vector<Kind> other_rows() {
  std::string long_bytes;
  std::vector<unsigned char> long_values;
  for (int i = 0; i < 3000; ++i) {
    long_bytes.push_back(static_cast<char>(i));
    long_values.push_back(static_cast<unsigned char>(i));
  }
  std::vector<Kind> rows;
  for (const int type : {SQL_BINARY, SQL_VARBINARY, SQL_LONGVARBINARY}) {
    rows.push_back(
        {"bytes", type, binary("\x00\xFF\x01"s), bytes_value({0, 255, 1})});
    rows.push_back({"no bytes", type, binary(""), bytes_value({})});
  }
  rows.push_back({"many bytes", SQL_VARBINARY, binary(long_bytes),
                  bytes_value(long_values)});
  for (const int type :
       {SQL_INTEGER, SQL_BIGINT, SQL_DOUBLE, SQL_NUMERIC, SQL_BIT, SQL_VARCHAR,
        SQL_WVARCHAR, SQL_VARBINARY, SQL_GUID, SQL_TYPE_TIMESTAMP, 0}) {
    rows.push_back(
        {"NULL", type, null_cell(), values::owned(plain(VT_NULL, 0))});
  }
  return rows;
}

void expect_value(const _variant_t& value, const _variant_t& expected) {
  EXPECT_EQ(describe(value), describe(expected));
  if (expected.vt == VT_BOOL) {
    EXPECT_EQ(value.boolVal, expected.boolVal);
  }
  if (expected.vt == VT_BSTR && value.bstrVal != nullptr) {
    EXPECT_EQ(value.bstrVal[SysStringLen(value.bstrVal)], L'\0');
  }
}

TEST_F(ConnectionResult, EveryKindOfCellBecomesItsVariant) {
  std::vector<Kind> rows = number_rows();
  for (Kind& row : text_rows()) rows.push_back(std::move(row));
  for (Kind& row : other_rows()) rows.push_back(std::move(row));
  for (const Kind& row : rows) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message() << row << ", " << road);
      script().reset();
      script().columns({{"c", row.sql_type}});
      script().row({row.cell});

      const Connection made = opened();
      const Recordset recordset = run(road, made);

      expect_value(value_at(recordset, 0), row.expected);
      const component::Answer field = component::method(
          component::dispatch_of(recordset.get()).get(), 0, {L"c"});
      ASSERT_EQ(field.value.vt, VT_DISPATCH);
      expect_value(component::get(field.value.pdispVal, 0).value, row.expected);
    }
  }
}

TEST_F(ConnectionResult, AllKindsInOneRowStandInTheirColumns) {
  std::vector<Kind> kinds = number_rows();
  for (Kind& row : other_rows()) kinds.push_back(std::move(row));
  for (Kind& row : text_rows()) kinds.push_back(std::move(row));
  std::vector<Column> columns;
  std::vector<Cell> cells;
  std::vector<Cell> nulls;
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    columns.push_back({"c" + std::to_string(i), kinds[i].sql_type});
    cells.push_back(kinds[i].cell);
    nulls.push_back(null_cell());
  }
  script().columns(columns);
  script().row(cells).row(nulls).row(cells);

  const Connection made = opened();
  const Recordset recordset = run(Road::Vtable, made);

  for (const bool filled : {true, false, true}) {
    for (std::size_t i = 0; i < kinds.size(); ++i) {
      SCOPED_TRACE(testing::Message() << kinds[i]);
      expect_value(
          value_at(recordset, static_cast<long>(i)),
          filled ? kinds[i].expected : values::owned(plain(VT_NULL, 0)));
    }
    EXPECT_EQ(recordset->MoveNext(), S_OK);
  }
  EXPECT_TRUE(at_end(recordset));
}

TEST_F(ConnectionResult, ByteArraysBeginAtZero) {
  script().columns({{"c", SQL_VARBINARY}});
  script().row({binary("abc")}).row({binary("")});
  const Connection made = opened();
  const Recordset recordset = run(Road::Vtable, made);
  for (const LONG last : {2L, -1L}) {
    const _variant_t value = value_at(recordset, 0);
    ASSERT_EQ(value.vt, VT_ARRAY | VT_UI1);
    ASSERT_NE(value.parray, nullptr);
    EXPECT_EQ(value.parray->cDims, 1);
    EXPECT_EQ(value.parray->cbElements, 1U);
    LONG from = 77;
    LONG to = 77;
    EXPECT_EQ(SafeArrayGetLBound(value.parray, 1, &from), S_OK);
    EXPECT_EQ(SafeArrayGetUBound(value.parray, 1, &to), S_OK);
    EXPECT_EQ(from, 0);
    EXPECT_EQ(to, last);
    EXPECT_EQ(recordset->MoveNext(), S_OK);
  }
}

// ---------------------------------------------------------------------------
// Columns
// ---------------------------------------------------------------------------

std::wstring name_at(const Recordset& recordset, long column) {
  auto [found, field] =
      component::received<IZIRDBField>([&](IZIRDBField** out) {
        return fields_of(recordset.get())
            ->Item(plain(VT_I4, static_cast<std::uint64_t>(column)), out);
      });
  EXPECT_EQ(found, S_OK);
  if (!field) return L"(none)";
  _bstr_t name;
  EXPECT_EQ(field->get_Name(&name.m_s), S_OK);
  if (name.m_s == nullptr) return {};
  return {name.m_s, SysStringLen(name.m_s)};
}

long count_of(const Recordset& recordset) {
  long count = -77;
  EXPECT_EQ(fields_of(recordset.get())->get_Count(&count), S_OK);
  return count;
}

TEST_F(ConnectionResult, ColumnsKeepTheirNamesAndOrder) {
  const std::vector<std::pair<std::string, std::wstring>> names{
      {"id", L"id"},
      {"Name of it", L"Name of it"},
      {"", L""},
      {"id", L"id"},
      {"ID", L"ID"},
      {"stra\xC3\x9F"
       "e",
       L"stra\u00df"
       L"e"},
      {"\xF0\x9F\x98\x80", L"\U0001F600"},
      {"not \xE9 UTF-8", L""},
      {"a\0b"s, L"a"},
      {std::string(255, 'n'), std::wstring(255, L'n')},
      {std::string(300, 'n'), std::wstring(255, L'n')}};
  std::vector<Column> columns;
  for (const auto& [name, shown] : names)
    columns.push_back({name, SQL_INTEGER});
  script().columns(columns);
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    const Connection made = opened();
    const Recordset recordset = run(road, made);
    ASSERT_EQ(count_of(recordset), static_cast<long>(names.size()));
    for (std::size_t i = 0; i < names.size(); ++i) {
      EXPECT_EQ(name_at(recordset, static_cast<long>(i)), names[i].second) << i;
    }
  }
}

TEST_F(ConnectionResult, ManyColumnsStandInOrder) {
  constexpr int kColumns = 500;
  std::vector<Column> columns;
  std::vector<Cell> cells;
  for (int i = 0; i < kColumns; ++i) {
    columns.push_back({"c" + std::to_string(i), SQL_INTEGER});
    cells.push_back(cell(i));
  }
  script().columns(columns);
  script().row(cells);
  const Connection made = opened();
  const Recordset recordset = run(Road::Vtable, made);
  EXPECT_EQ(count_of(recordset), kColumns);
  for (const long column : {0L, 1L, 255L, 256L, 499L}) {
    EXPECT_EQ(value_at(recordset, column).llVal, column);
    EXPECT_EQ(name_at(recordset, column), L"c" + std::to_wstring(column));
  }
}

// ---------------------------------------------------------------------------
// The recordset
// ---------------------------------------------------------------------------

struct Position {
  VARIANT_BOOL bof;
  VARIANT_BOOL eof;
};
Position position_of(const Recordset& recordset) {
  Position position{77, 77};
  EXPECT_EQ(recordset->get_BOF(&position.bof), S_OK);
  EXPECT_EQ(recordset->get_EOF(&position.eof), S_OK);
  return position;
}

TEST_F(ConnectionResult, StandsOpenOnTheFirstRow) {
  script().columns({{"n", SQL_INTEGER}});
  script().row({cell(1)}).row({cell(2)});
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    const Connection made = opened();
    const Recordset open = run(road, made);
    EXPECT_EQ(component::state_of(open), 1);
    const Position position = position_of(open);
    EXPECT_EQ(position.bof, VARIANT_FALSE);
    EXPECT_EQ(position.eof, VARIANT_FALSE);
    EXPECT_EQ(value_at(open, 0).llVal, 1);
    long count = 77;
    EXPECT_EQ(open->get_RecordCount(&count), S_OK);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(open->MoveNext(), S_OK);
    EXPECT_FALSE(at_end(open)) << "not on the last row";
  }
}

TEST_F(ConnectionResult, WithoutRowsIsOpenAtBothEnds) {
  script().columns({{"n", SQL_INTEGER}, {"t", SQL_VARCHAR}});
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    const Connection made = opened();
    const Recordset recordset = run(road, made);
    EXPECT_EQ(component::state_of(recordset), 1);
    const Position position = position_of(recordset);
    EXPECT_EQ(position.bof, VARIANT_TRUE);
    EXPECT_EQ(position.eof, VARIANT_TRUE);
    EXPECT_EQ(count_of(recordset), 2);
    EXPECT_EQ(name_at(recordset, 1), L"t");
    EXPECT_EQ(recordset->MoveNext(), component::kNoCurrentRecordCode);
    EXPECT_EQ(recordset->MoveFirst(), component::kNoCurrentRecordCode);
  }
}

TEST_F(ConnectionResult, BelongsToTheCallerAlone) {
  script().columns({{"n", SQL_INTEGER}});
  const Connection made = opened();
  auto [code, recordset] = component::execute(made, L"select");
  ASSERT_EQ(code, S_OK);
  EXPECT_EQ(references_of(recordset.get()), 1U);
  EXPECT_EQ(references_of(made.get()), 1U) << "nor does it hold the connection";

  component::Answer answer = component::method(
      component::dispatch_of(made.get()).get(), kExecute, {L"select"});
  ASSERT_EQ(answer.value.vt, VT_DISPATCH);
  EXPECT_EQ(references_of(answer.value.pdispVal), 1U);
  // The late-bound half of the object, not its own interface.
  const auto own = component::query<IZIRDBRecordset>(answer.value.pdispVal,
                                                     IID_IZIRDBRecordset);
  const auto late = component::dispatch_of(own.get());
  EXPECT_EQ(answer.value.pdispVal, late.get());
}

TEST_F(ConnectionResult, IsEmptyForAStatementWithoutColumns) {
  script().row_count(3);
  const Connection made = opened();
  VARIANT result = plain(VT_I4, 77);
  _variant_t sql(L"update");
  DISPPARAMS parameters{&sql, nullptr, 1, 0};
  EXPECT_EQ(component::dispatch_of(made.get())
                ->Invoke(kExecute, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                         &result, nullptr, nullptr),
            S_OK);
  EXPECT_TRUE(values::same_bytes(result, plain(VT_EMPTY, 0)));
}

TEST_F(ConnectionResult, EveryOneIsItsOwn) {
  script().columns({{"n", SQL_INTEGER}});
  script().row({cell(1)}).row({cell(2)});
  const Connection made = opened();
  const Recordset one = run(Road::Vtable, made);
  const Recordset two = run(Road::LateBound, made);
  EXPECT_NE(one.get(), two.get());
  EXPECT_EQ(one->MoveNext(), S_OK);
  EXPECT_EQ(value_at(one, 0).llVal, 2);
  EXPECT_EQ(value_at(two, 0).llVal, 1);
  EXPECT_EQ(two->Close(), S_OK);
  EXPECT_EQ(value_at(one, 0).llVal, 2);
}

TEST_F(ConnectionResult, HoldsAllRowsInOrder) {
  constexpr int kRows = 3000;
  script().columns({{"n", SQL_INTEGER}, {"t", SQL_VARCHAR}});
  for (int i = 0; i < kRows; ++i) {
    script().row(
        {cell(i), cell(std::string(static_cast<std::size_t>(i % 50), 'x'))});
  }
  const Connection made = opened();
  const Recordset recordset = run(Road::Vtable, made);
  EXPECT_EQ(script().live("STMT"), 0U) << "nothing is left to fetch";
  for (int pass = 0; pass < 2; ++pass) {
    for (int i = 0; i < kRows; ++i) {
      ASSERT_FALSE(at_end(recordset));
      ASSERT_EQ(value_at(recordset, 0).llVal, i);
      ASSERT_EQ(values::text_of(value_at(recordset, 1)).size(),
                static_cast<std::size_t>(i % 50));
      ASSERT_EQ(recordset->MoveNext(), S_OK);
    }
    EXPECT_TRUE(at_end(recordset));
    EXPECT_EQ(recordset->MoveFirst(), S_OK);
  }
}

TEST_F(ConnectionResult, AnEarlierOneOutlivesALaterFailure) {
  script().columns({{"n", SQL_INTEGER}});
  script().row({cell(1)});
  const Connection made = opened();
  const Recordset earlier = run(Road::Vtable, made);
  script().fail("SQLExecDirect", SQL_ERROR, {"HY000", 1, "broken"});
  EXPECT_EQ(component::execute(made, L"select").first,
            component::kExecuteFailedCode);
  EXPECT_EQ(component::state_of(earlier), 1);
  EXPECT_EQ(value_at(earlier, 0).llVal, 1);
}

}  // namespace
