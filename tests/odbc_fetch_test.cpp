// SPDX-License-Identifier: MIT
//
// Columns and cells: what a driver says of a column, how each type is read, and
// what becomes of every answer a driver can give, honest or not.
//
// Sections: reading one cell; columns; types; numbers and bits; text; binary;
// GUIDs; rows; drivers that never come to an end.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/scripted_odbc_fixture.h"
#include "zirdb_odbc.h"

namespace {

using namespace scripted_odbc;

constexpr int kGuid = -11;
constexpr std::size_t kBuffer = 1024;
constexpr std::size_t kMebibyte = std::size_t{1} << 20U;

// ---------------------------------------------------------------------------
// Reading one cell
// ---------------------------------------------------------------------------

std::string shown(const ZirdbOdbcValue& value) {
  switch (value.kind) {
    case ZirdbOdbcValueKind::Null:
      return "Null";
    case ZirdbOdbcValueKind::Bool:
      return value.bool_value ? "Bool true" : "Bool false";
    case ZirdbOdbcValueKind::Int64:
      return "Int64 " + std::to_string(value.int64_value);
    case ZirdbOdbcValueKind::Double:
      return "Double " + std::to_string(value.double_value);
    case ZirdbOdbcValueKind::Text:
      return "Text " + value.text_value;
    case ZirdbOdbcValueKind::Binary:
      return "Binary " +
             std::string(value.binary_value.begin(), value.binary_value.end());
  }
  return "no such kind";
}

/// Enough of a long text for a failing row to be recognised.
std::string brief(const std::string& text) {
  return testing::PrintToString(text.substr(0, 60)) + " (" +
         std::to_string(text.size()) + " bytes)";
}

std::string text_of(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    text[i] = static_cast<char>('!' + i % 89);
  }
  return text;
}

std::string bytes_of_all_kinds(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(static_cast<unsigned char>(i % 251));
  }
  return bytes;
}

/// What remains in a buffer of zeros after a driver wrote `bytes`.
std::string in_full_buffer(std::string bytes) {
  bytes.resize(kBuffer, '\0');
  return bytes;
}

Diagnostics broken() { return {"HY000", 7, "broken"}; }

/// The answers to the reads of one cell, and what the cell becomes. A row is
/// expected to take exactly as many reads as it has answers.
struct Answers {
  std::string name;
  std::vector<Chunk> chunks;
  std::string outcome;
};

class Fetch : public ScriptedOdbc {
 protected:
  /// Ends the test of one row of a table and begins that of the next.
  void next_row() {
    connection_ = nullptr;
    TearDown();
    SetUp();
  }

  /// Selects one cell of a column of that type; its value, or the failure.
  std::string read(int type, const Cell& cell) {
    ResultSet set;
    set.columns = {{"c", type}};
    set.rows = {{cell}};
    script().result_for("select", set);
    if (connection_ == nullptr) connection_ = open();
    script().clear_log();
    ZirdbOdbcResult result;
    if (!zirdb_odbc_execute(connection_, "select", &result)) {
      EXPECT_EQ(result.columns.size(), 1U);
      EXPECT_TRUE(result.rows.empty());
      EXPECT_EQ(result.rows_affected, 0);
      return "failure: " + result.error;
    }
    EXPECT_EQ(result.error, "");
    return shown(result.rows.at(0).at(0));
  }

  void expect_read(int type, const Cell& cell, const std::string& expected) {
    const std::string actual = read(type, cell);
    EXPECT_TRUE(actual == expected)
        << "read     " << brief(actual) << "\nexpected " << brief(expected);
  }

  /// As many reads as there are answers, each into a buffer of zeros.
  void expect_read(int type, const Answers& row) {
    SCOPED_TRACE(row.name);
    expect_read(type, chunks(row.chunks), row.outcome);

    const std::vector<Call> reads = script().calls("SQLGetData");
    EXPECT_EQ(reads.size(), row.chunks.size());
    for (const Call& read : reads) {
      EXPECT_EQ(read.bytes("buffer"), std::string(kBuffer, '\0')) << read;
    }
  }

  /// Codes that are neither success nor the end of the data. The driver manager
  /// does not let go of a statement after most of them.
  static std::vector<int> failing_codes() {
    if (is_driver()) return {SQL_ERROR};
    return {SQL_ERROR, SQL_INVALID_HANDLE, SQL_STILL_EXECUTING, SQL_NEED_DATA,
            55 /* of no name */};
  }

 private:
  void* connection_ = nullptr;
};

// ---------------------------------------------------------------------------
// Columns
// ---------------------------------------------------------------------------

TEST_F(Fetch, ColumnNamesAreTheDriversBytesWithinTheBuffer) {
  struct Row {
    const char* what;
    std::string name;
    std::optional<int> reported;
    std::string expected;
  };
  const std::string longest = text_of(255);
  const std::string invalid = "\xFF\x80 \xC3";
  const std::string with_nul("a\0b", 3);
  const Row rows[] = {
      {"plain", "id", std::nullopt, "id"},
      {"empty", "", std::nullopt, ""},
      {"UTF-8", "\xC3\xA4\xF0\x9F\x98\x80", std::nullopt,
       "\xC3\xA4\xF0\x9F\x98\x80"},
      {"not UTF-8", invalid, std::nullopt, invalid},
      {"a NUL inside", with_nul, std::nullopt, with_nul},
      {"254 bytes", text_of(254), std::nullopt, text_of(254)},
      {"255 bytes", longest, std::nullopt, longest},
      {"256 bytes", text_of(256), std::nullopt, longest},
      {"300 bytes", text_of(300), std::nullopt, longest},
      {"5000 bytes", text_of(5000), std::nullopt, longest},
      {"300 bytes, most of a length", text_of(300), 32767, longest},
      {"300 bytes, 255 reported", text_of(300), 255, longest},
      {"a length too short", "name", 2, "na"},
      {"a length of 0", "name", 0, ""},
      {"a negative length", "name", -1, ""},
      {"no total length", "name", SQL_NO_TOTAL, ""},
      {"the least length", "name", -32768, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    ResultSet set;
    set.columns = {{row.name, SQL_INTEGER, row.reported}};
    script().result_for("select", set);

    ZirdbOdbcResult result;
    ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

    ASSERT_EQ(result.columns.size(), 1U);
    EXPECT_EQ(result.columns[0].name, row.expected);
    EXPECT_EQ(result.columns[0].sql_type, SQL_INTEGER);
  }
}

TEST_F(Fetch, AColumnNameReportedTooLongBringsNothingOfAnother) {
  script().columns({{text_of(255), SQL_INTEGER}, {"ab", SQL_INTEGER, 300}});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(result.columns.at(1).name, "ab" + std::string(253, '\0'));
}

TEST_F(Fetch, ColumnsComeInTheirOrderAndKeepTheirTypes) {
  script().columns({{"b", SQL_VARCHAR},
                    {"a", SQL_INTEGER},
                    {"b", -155},
                    {"", SQL_TYPE_TIMESTAMP}});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  std::vector<std::pair<std::string, int>> columns;
  for (const ZirdbOdbcColumn& column : result.columns) {
    columns.emplace_back(column.name, column.sql_type);
  }
  EXPECT_EQ(
      columns,
      (std::vector<std::pair<std::string, int>>{
          {"b", SQL_VARCHAR}, {"a", SQL_INTEGER}, {"b", -155}, {"", 93}}));
}

TEST_F(Fetch, AColumnThatIsNotDescribedHasNothingOfTheOneBefore) {
  script().columns({{"first", SQL_INTEGER}, {"second", SQL_INTEGER}});
  script().row({cell(1), cell(2)});
  // Succeeds and writes nothing.
  script().fail("SQLDescribeCol(2)", SQL_SUCCESS);

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(result.columns.at(1).name, "");
  EXPECT_EQ(result.columns.at(1).sql_type, SQL_UNKNOWN_TYPE);
  EXPECT_EQ(shown(result.rows.at(0).at(1)), "Text 2");
}

TEST_F(Fetch, AnEmptyResultSetHasItsColumnsAndNoRows) {
  script().columns({{"id", SQL_INTEGER}, {"name", SQL_VARCHAR}});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(result.columns.size(), 2U);
  EXPECT_TRUE(result.rows.empty());
  EXPECT_EQ(result.rows_affected, 0);
  EXPECT_EQ(script().count("SQLFetch"), 1U);
  EXPECT_EQ(script().count("SQLGetData"), 0U);
}

// ---------------------------------------------------------------------------
// Types
// ---------------------------------------------------------------------------

TEST_F(Fetch, EveryTypeIsReadAsItsTableSays) {
  struct Row {
    std::vector<int> types;
    int c_type;
    int buffer_length;
    std::string outcome;  // of the text "7"
  };
  const std::vector<Row> rows = {
      {{SQL_NUMERIC, SQL_DECIMAL, SQL_FLOAT, SQL_REAL, SQL_DOUBLE},
       SQL_C_DOUBLE,
       8,
       "Double 7.000000"},
      {{SQL_SMALLINT, SQL_INTEGER, SQL_TINYINT, SQL_BIGINT},
       SQL_C_SBIGINT,
       8,
       "Int64 7"},
      {{SQL_BIT}, SQL_C_BIT, 1, "Bool true"},
      {{SQL_BINARY, SQL_VARBINARY, SQL_LONGVARBINARY},
       SQL_C_BINARY,
       1024,
       "Binary 7"},
      {{kGuid}, SQL_C_CHAR, 1024, "Text {7}"},
  };
  const Row other{{}, SQL_C_CHAR, 1024, "Text 7"};
  const auto row_of = [&](int type) -> const Row& {
    for (const Row& row : rows) {
      for (const int each : row.types) {
        if (each == type) return row;
      }
    }
    return other;
  };
  // The driver manager renumbers the dates and times of the second ODBC.
  const auto described = [](int type) {
    return is_driver() && type >= 9 && type <= 11 ? type + 82 : type;
  };
  // All codes that mean something, their neighbours, and the ends.
  std::vector<int> types = {-32768, -32767, 32766, 32767};
  for (int type = -400; type <= 400; ++type) types.push_back(type);
  std::vector<Column> columns;
  for (const int type : types) columns.push_back({"c", type});
  script().columns(columns);
  script().row(std::vector<Cell>(types.size(), cell("7")));

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  const std::vector<Call> reads = script().calls("SQLGetData");
  ASSERT_EQ(reads.size(), types.size());
  ASSERT_EQ(result.rows.at(0).size(), types.size());
  for (std::size_t i = 0; i < types.size(); ++i) {
    const Row& row = row_of(types[i]);
    SCOPED_TRACE("type " + std::to_string(types[i]));
    EXPECT_EQ(result.columns.at(i).sql_type, described(types[i]));
    EXPECT_EQ(reads[i].number("column"), static_cast<int>(i) + 1);
    EXPECT_EQ(reads[i].number("c_type"), row.c_type);
    EXPECT_EQ(reads[i].number("buffer_length"), row.buffer_length);
    EXPECT_EQ(shown(result.rows[0][i]), row.outcome);
  }
}

TEST_F(Fetch, NullIsNullInEveryType) {
  for (const int type : {SQL_NUMERIC,
                         SQL_DECIMAL,
                         SQL_FLOAT,
                         SQL_REAL,
                         SQL_DOUBLE,
                         SQL_SMALLINT,
                         SQL_INTEGER,
                         SQL_TINYINT,
                         SQL_BIGINT,
                         SQL_BIT,
                         SQL_BINARY,
                         SQL_VARBINARY,
                         SQL_LONGVARBINARY,
                         kGuid,
                         SQL_CHAR,
                         SQL_VARCHAR,
                         SQL_LONGVARCHAR,
                         SQL_WCHAR,
                         SQL_WVARCHAR,
                         SQL_WLONGVARCHAR,
                         SQL_TYPE_DATE,
                         SQL_TYPE_TIME,
                         SQL_TYPE_TIMESTAMP,
                         SQL_INTERVAL_SECOND,
                         0,
                         -155}) {
    EXPECT_EQ(read(type, null_cell()), "Null") << type;
  }
}

TEST_F(Fetch, EveryReadBeginsWithAZeroedBufferAndIndicator) {
  script().columns({{"i", SQL_INTEGER},
                    {"d", SQL_DOUBLE},
                    {"b", SQL_BIT},
                    {"t", SQL_VARCHAR},
                    {"x", SQL_VARBINARY},
                    {"g", kGuid}});
  // Two rows, so that the second finds what the first left.
  script().rows(2, {cell(-1), cell(-1.5), cell(true), cell(text_of(1023)),
                    binary(std::string(kBuffer, 'x')), cell(text_of(36))});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  const std::vector<Call> reads = script().calls("SQLGetData");
  ASSERT_EQ(reads.size(), 12U);
  for (const Call& read : reads) {
    const auto size = static_cast<std::size_t>(read.number("buffer_length"));
    EXPECT_EQ(read.bytes("buffer"), std::string(size, '\0')) << read;
    EXPECT_FALSE(read.is_null("indicator")) << read;
    EXPECT_EQ(read.number("indicator"), 0) << read;
  }
}

TEST_F(Fetch, ANullCellSaysNothingAboutTheNextOne) {
  script().columns({{"a", SQL_INTEGER},
                    {"b", SQL_INTEGER},
                    {"c", SQL_VARCHAR},
                    {"d", SQL_VARCHAR},
                    {"e", SQL_DOUBLE}});
  const Cell silent_number =
      chunks({chunk(SQL_SUCCESS, bytes_of(std::int64_t{5}), leave_alone)});
  const Cell silent_text = chunks({chunk(SQL_SUCCESS, "abc", leave_alone)});
  script().rows(
      2, {null_cell(), silent_number, null_cell(), silent_text, null_cell()});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  for (const std::vector<ZirdbOdbcValue>& row : result.rows) {
    std::vector<std::string> cells;
    for (const ZirdbOdbcValue& value : row) cells.push_back(shown(value));
    EXPECT_EQ(cells, (std::vector<std::string>{"Null", "Int64 5", "Null",
                                               "Text abc", "Null"}));
  }
}

TEST_F(Fetch, ACellHoldsNothingButThePayloadOfItsKind) {
  script().columns({{"i", SQL_INTEGER},
                    {"t", SQL_VARCHAR},
                    {"x", SQL_VARBINARY},
                    {"n", SQL_VARCHAR}});
  script().rows(2, {cell(7), cell("abc"), binary("xyz"), null_cell()});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  for (const std::vector<ZirdbOdbcValue>& row : result.rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_FALSE(row[i].bool_value);
      EXPECT_EQ(row[i].int64_value, i == 0 ? 7 : 0);
      EXPECT_EQ(row[i].double_value, 0.0);
      EXPECT_EQ(row[i].text_value, i == 1 ? "abc" : "");
      EXPECT_EQ(row[i].binary_value.size(), i == 2 ? 3U : 0U);
    }
  }
}

// ---------------------------------------------------------------------------
// Numbers and bits
// ---------------------------------------------------------------------------

struct SingleType {
  int type;
  std::string bytes;
  std::string outcome;
};

std::vector<SingleType> single_types() {
  std::vector<SingleType> all;
  for (const int type :
       {SQL_NUMERIC, SQL_DECIMAL, SQL_FLOAT, SQL_REAL, SQL_DOUBLE}) {
    all.push_back({type, bytes_of(1.5), "Double 1.500000"});
  }
  for (const int type : {SQL_SMALLINT, SQL_INTEGER, SQL_TINYINT, SQL_BIGINT}) {
    all.push_back({type, bytes_of(std::int64_t{-7}), "Int64 -7"});
  }
  all.push_back({SQL_BIT, bytes_of<unsigned char>(1), "Bool true"});
  return all;
}

TEST_F(Fetch, ANumberOrBitIsNullByItsIndicatorBeforeItFailsByItsCode) {
  struct Row {
    int code;
    std::optional<SQLLEN> indicator;
    const char* outcome;  // null: the value
  };
  const char* const value = nullptr;
  const char* const failure = "failure: HY000: broken";
  std::vector<Row> rows = {
      {SQL_SUCCESS, SQL_NULL_DATA, "Null"},
      {SQL_SUCCESS_WITH_INFO, SQL_NULL_DATA, "Null"},
      {SQL_NO_DATA, SQL_NULL_DATA, "Null"},
      {SQL_NO_DATA, 8, "failure: ODBC operation failed"},
      {SQL_NO_DATA, leave_alone, "failure: ODBC operation failed"},
  };
  for (const int code : {SQL_SUCCESS, SQL_SUCCESS_WITH_INFO}) {
    rows.push_back({code, leave_alone, value});
    for (const SQLLEN indicator : {8, 1, 0, SQL_NO_TOTAL, SQL_NTS, -2, 99}) {
      rows.push_back({code, indicator, value});
    }
  }
  for (const int code : failing_codes()) {
    rows.push_back({code, SQL_NULL_DATA, "Null"});
    rows.push_back({code, leave_alone, failure});
    for (const SQLLEN indicator : {8, 0, SQL_NO_TOTAL, -2}) {
      rows.push_back({code, indicator, failure});
    }
  }
  for (const SingleType& single : single_types()) {
    for (const Row& row : rows) {
      SCOPED_TRACE("type " + std::to_string(single.type) + ", code " +
                   std::to_string(row.code) + ", indicator " +
                   (row.indicator ? std::to_string(*row.indicator) : "none"));
      const bool tells = row.code != SQL_NO_DATA;
      EXPECT_EQ(
          read(single.type, chunks({chunk(row.code, single.bytes, row.indicator,
                                          tells ? broken() : Diagnostics{})})),
          row.outcome == value ? single.outcome : row.outcome);
      EXPECT_EQ(script().count("SQLGetData"), 1U);
    }
  }
}

TEST_F(Fetch, ANumberOrBitThatIsNotWrittenIsZero) {
  for (const SingleType& single : single_types()) {
    ResultSet set;
    set.columns = {{"c", single.type}};
    set.rows = {{chunks({chunk(SQL_SUCCESS, single.bytes, 8)})},
                {chunks({chunk(SQL_SUCCESS, "", 8)})}};
    script().result_for("select", set);

    ZirdbOdbcResult result;
    ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

    const std::string kind =
        single.outcome.substr(0, single.outcome.find(' ') + 1);
    const std::string zero = kind == "Double " ? "0.000000"
                             : kind == "Bool " ? "false"
                                               : "0";
    EXPECT_EQ(shown(result.rows.at(1).at(0)), kind + zero) << single.type;
  }
}

TEST_F(Fetch, IntegersKeepAllTheirBits) {
  for (const std::int64_t number :
       {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1},
        std::int64_t{4294967297}, std::int64_t{9007199254740993},
        std::numeric_limits<std::int64_t>::max(),
        std::numeric_limits<std::int64_t>::min()}) {
    for (const int type :
         {SQL_SMALLINT, SQL_INTEGER, SQL_TINYINT, SQL_BIGINT}) {
      EXPECT_EQ(read(type, cell(number)), "Int64 " + std::to_string(number));
    }
  }
}

TEST_F(Fetch, DoublesKeepAllTheirBits) {
  using Limits = std::numeric_limits<double>;
  const double numbers[] = {0.0,
                            -0.0,
                            0.1,
                            -1e300,
                            Limits::max(),
                            Limits::lowest(),
                            Limits::min(),
                            Limits::denorm_min(),
                            Limits::infinity(),
                            -Limits::infinity(),
                            Limits::quiet_NaN()};
  for (const double number : numbers) {
    for (const int type :
         {SQL_NUMERIC, SQL_DECIMAL, SQL_FLOAT, SQL_REAL, SQL_DOUBLE}) {
      ResultSet set;
      set.columns = {{"c", type}};
      set.rows = {{chunks({chunk(SQL_SUCCESS, bytes_of(number), 8)})}};
      script().result_for("select", set);

      ZirdbOdbcResult result;
      ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result));

      const ZirdbOdbcValue& value = result.rows.at(0).at(0);
      EXPECT_EQ(value.kind, ZirdbOdbcValueKind::Double);
      EXPECT_EQ(bytes_of(value.double_value), bytes_of(number)) << number;
    }
  }
}

TEST_F(Fetch, ABitIsTrueUnlessItsByteIsZero) {
  for (const int byte : {0, 1, 2, 127, 128, 255}) {
    const std::string bytes = bytes_of(static_cast<unsigned char>(byte));
    EXPECT_EQ(read(SQL_BIT, chunks({chunk(SQL_SUCCESS, bytes, 1)})),
              byte == 0 ? "Bool false" : "Bool true")
        << byte;
  }
}

// ---------------------------------------------------------------------------
// Text
// ---------------------------------------------------------------------------

TEST_F(Fetch, TextOfAnyLengthIsJoinedWithoutLoss) {
  for (const std::size_t size :
       std::vector<std::size_t>{0, 1, 1021, 1022, 1023, 1024, 1025, 1026, 2045,
                                2046, 2047, 3069, 3070, kMebibyte}) {
    const std::size_t pieces =
        std::max<std::size_t>((size + kBuffer - 2) / (kBuffer - 1), 1);
    const std::string text = text_of(size);
    for (const Cell& each : {cell(text), cell(text).no_total()}) {
      SCOPED_TRACE(size);
      expect_read(SQL_VARCHAR, each, "Text " + text);
      EXPECT_EQ(script().count("SQLGetData"), pieces);
    }
  }
}

TEST_F(Fetch, TextInShortPiecesIsJoinedWithoutLoss) {
  const std::string text = text_of(3000);
  for (const std::size_t piece : {1U, 7U, 1022U}) {
    SCOPED_TRACE(piece);
    expect_read(SQL_LONGVARCHAR, cell(text).pieces_of(piece), "Text " + text);
    expect_read(SQL_WLONGVARCHAR, cell(text).pieces_of(piece).no_total(),
                "Text " + text);
  }
}

TEST_F(Fetch, TextIsTakenAsTheDriverSendsIt) {
  for (const char* text :
       {"2024-02-29 23:59:59.123", "\xC3\xA4\xF0\x9F\x98\x80",
        "not UTF-8: \xFF\x80\xC3", "line\r\nend\ttab", "  blanks  ", "NULL"}) {
    for (const int type :
         {SQL_CHAR, SQL_VARCHAR, SQL_WVARCHAR, SQL_TYPE_TIMESTAMP, -155}) {
      EXPECT_EQ(read(type, cell(text)), std::string("Text ") + text) << type;
    }
  }
}

TEST_F(Fetch, EveryAnswerToATextReadHasItsMeaning) {
  constexpr int kOk = SQL_SUCCESS;
  constexpr int kMore = SQL_SUCCESS_WITH_INFO;
  const std::string full(kBuffer, 'x');
  const std::string largest(kBuffer - 1, 'x');
  const std::string failure = "failure: HY000: broken";
  const Answers rows[] = {
      {"one piece", {chunk(kOk, "abc", 3)}, "Text abc"},
      {"empty", {chunk(kOk, "", 0)}, "Text "},
      {"nothing written", {chunk(kOk, "", 5)}, "Text "},
      {"a NUL inside", {chunk(kOk, std::string("ab\0cd", 5), 5)}, "Text ab"},
      {"a NUL in front", {chunk(kOk, std::string("\0ab", 3), 3)}, "Text "},
      {"not terminated", {chunk(kOk, full, 1024)}, "Text " + largest},

      // The indicator is asked for NULL only.
      {"length left alone", {chunk(kOk, "abc", leave_alone)}, "Text abc"},
      {"length 0", {chunk(kOk, "abc", 0)}, "Text abc"},
      {"length too short", {chunk(kOk, "abc", 1)}, "Text abc"},
      {"length too long", {chunk(kOk, "abc", 99999)}, "Text abc"},
      {"length unknown", {chunk(kOk, "abc", SQL_NO_TOTAL)}, "Text abc"},
      {"length -3", {chunk(kOk, "abc", SQL_NTS)}, "Text abc"},
      {"length -2", {chunk(kOk, "abc", -2)}, "Text abc"},

      {"null", {chunk(kOk, "", SQL_NULL_DATA)}, "Null"},
      {"null with bytes", {chunk(kOk, "abc", SQL_NULL_DATA)}, "Null"},
      {"null with info", {chunk(kMore, "abc", SQL_NULL_DATA)}, "Null"},
      {"null at the end", {chunk(SQL_NO_DATA, "", SQL_NULL_DATA)}, "Null"},
      {"null and an error",
       {chunk(SQL_ERROR, "", SQL_NULL_DATA, broken())},
       "Null"},
      {"null after a piece",
       {chunk(kMore, "ab", 9), chunk(kOk, "", SQL_NULL_DATA)},
       "Null"},
      {"null and an error after a piece",
       {chunk(kMore, "ab", 9), chunk(SQL_ERROR, "", SQL_NULL_DATA, broken())},
       "Null"},

      {"no data at once", {chunk(SQL_NO_DATA, "", leave_alone)}, "Text "},
      {"no data with bytes", {chunk(SQL_NO_DATA, "junk", 4)}, "Text "},
      {"no data after a piece",
       {chunk(kMore, "ab", 9), chunk(SQL_NO_DATA, "junk", 4)},
       "Text ab"},
      {"an error at once", {chunk(SQL_ERROR, "abc", 3, broken())}, failure},
      {"an error after pieces",
       {chunk(kMore, "ab", 9), chunk(kMore, "cd", 7),
        chunk(SQL_ERROR, "ef", 5, broken())},
       failure},
      {"an error without a diagnostic",
       {chunk(SQL_ERROR, "abc", 3)},
       "failure: ODBC operation failed"},

      {"short pieces",
       {chunk(kMore, "ab", 6), chunk(kMore, "cd", 4), chunk(kOk, "ef", 2)},
       "Text abcdef"},
      {"short pieces of unknown length",
       {chunk(kMore, "ab", SQL_NO_TOTAL), chunk(kOk, "cd", SQL_NO_TOTAL)},
       "Text abcd"},
      {"the indicator is written once",
       {chunk(kMore, "ab", SQL_NO_TOTAL), chunk(kMore, "cd", leave_alone),
        chunk(kOk, "ef", leave_alone)},
       "Text abcdef"},
      {"pieces whose length says they are complete",
       {chunk(kMore, "ab", 2), chunk(kMore, "cd", 0), chunk(kOk, "ef", 2)},
       "Text abcdef"},
      {"empty pieces",
       {chunk(kMore, "", 4), chunk(kMore, "ab", 4), chunk(kMore, "", 2),
        chunk(kOk, "cd", 2)},
       "Text abcd"},
      {"an empty last piece",
       {chunk(kMore, "ab", 9), chunk(kOk, "", 0)},
       "Text ab"},
      {"a NUL in the first of two pieces",
       {chunk(kMore, std::string("ab\0cd", 5), 9), chunk(kOk, "ef", 2)},
       "Text abef"},
      {"a long piece, then a short one",
       {chunk(kMore, largest, 1024), chunk(kOk, "y", 1)},
       "Text " + largest + "y"},
      {"a long piece, then nothing written",
       {chunk(kMore, largest, 1024), chunk(kOk, "", 1)},
       "Text " + largest},
      {"a piece without terminator, then another",
       {chunk(kMore, full, SQL_NO_TOTAL), chunk(kMore, full, SQL_NO_TOTAL),
        chunk(kOk, "y", 1)},
       "Text " + largest + largest + "y"},
  };
  for (const Answers& row : rows) expect_read(SQL_VARCHAR, row);
}

TEST_F(Fetch, ACodeOtherThanSuccessFailsATextOrBinaryRead) {
  for (const int type : {SQL_VARCHAR, SQL_WVARCHAR, kGuid, SQL_VARBINARY}) {
    for (const int code : failing_codes()) {
      SCOPED_TRACE("type " + std::to_string(type) + ", code " +
                   std::to_string(code));
      const Chunk good = chunk(SQL_SUCCESS_WITH_INFO, "ab", 9);
      const Chunk bad = chunk(code, "cd", 2, broken());
      const Chunk null = chunk(code, "cd", SQL_NULL_DATA, broken());
      EXPECT_EQ(read(type, chunks({bad})), "failure: HY000: broken");
      EXPECT_EQ(read(type, chunks({good, bad})), "failure: HY000: broken");
      EXPECT_EQ(read(type, chunks({null})), "Null");
      EXPECT_EQ(read(type, chunks({good, null})), "Null");
    }
  }
}

TEST_F(Fetch, TheIndicatorIsZeroedPerCellNotPerPiece) {
  const Cell text = chunks(
      {chunk(SQL_SUCCESS_WITH_INFO, "ab", 4), chunk(SQL_SUCCESS, "cd", 2)});
  const Cell bytes =
      chunks({chunk(SQL_SUCCESS_WITH_INFO, std::string(kBuffer, 'x'), 1028),
              chunk(SQL_SUCCESS, "abcd", 4)});
  script().columns({{"t", SQL_VARCHAR}, {"x", SQL_VARBINARY}});
  script().row({text, bytes});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  std::vector<std::int64_t> before;
  for (const Call& read : script().calls("SQLGetData")) {
    before.push_back(read.number("indicator"));
  }
  EXPECT_EQ(before, (std::vector<std::int64_t>{0, 4, 0, 1028}));
}

TEST_F(Fetch, AShortTextCarriesNothingOfALongOneBeforeIt) {
  script().columns({{"a", SQL_VARCHAR}, {"b", SQL_VARCHAR}});
  const std::string text = text_of(2500);
  script().row({cell(text), cell("s")});
  script().row({cell(""), cell(text)});
  script().row({cell("tt"), null_cell()});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  const std::string expected[3][2] = {{"Text " + text, "Text s"},
                                      {"Text ", "Text " + text},
                                      {"Text tt", "Null"}};
  for (std::size_t row = 0; row < 3; ++row) {
    for (std::size_t column = 0; column < 2; ++column) {
      EXPECT_EQ(shown(result.rows.at(row).at(column)), expected[row][column]);
    }
  }
}

// ---------------------------------------------------------------------------
// Binary
// ---------------------------------------------------------------------------

TEST_F(Fetch, BinaryOfAnyLengthComesBackWhole) {
  for (const std::size_t size : std::vector<std::size_t>{
           0, 1, 1023, 1024, 1025, 2047, 2048, 2049, 3072, kMebibyte}) {
    const std::size_t pieces =
        std::max<std::size_t>((size + kBuffer - 1) / kBuffer, 1);
    const std::string bytes = bytes_of_all_kinds(size);
    for (const Cell& each : {binary(bytes), binary(bytes).no_total()}) {
      SCOPED_TRACE(size);
      expect_read(SQL_LONGVARBINARY, each, "Binary " + bytes);
      EXPECT_EQ(script().count("SQLGetData"), pieces);
    }
  }
}

TEST_F(Fetch, EveryAnswerToABinaryReadHasItsMeaning) {
  constexpr int kOk = SQL_SUCCESS;
  constexpr int kMore = SQL_SUCCESS_WITH_INFO;
  constexpr SQLLEN kLeast = std::numeric_limits<SQLLEN>::min();
  constexpr SQLLEN kMost = std::numeric_limits<SQLLEN>::max();
  const std::string full = bytes_of_all_kinds(kBuffer);
  const std::string other(kBuffer, 'y');
  const std::string failure = "failure: HY000: broken";
  const std::string zeros("a\0\0b", 4);
  std::vector<Answers> rows = {
      {"one piece", {chunk(kOk, "abc", 3)}, "Binary abc"},
      {"zeros inside", {chunk(kOk, zeros, 4)}, "Binary " + zeros},
      {"length too short", {chunk(kOk, "abcdef", 3)}, "Binary abc"},
      {"length too long",
       {chunk(kOk, "abc", 5)},
       "Binary abc" + std::string(2, '\0')},
      {"a full buffer", {chunk(kOk, full, 1024)}, "Binary " + full},
      {"length above the buffer", {chunk(kOk, full, 1025)}, "Binary " + full},
      {"most of a length", {chunk(kOk, full, kMost)}, "Binary " + full},
      {"length unknown", {chunk(kOk, full, SQL_NO_TOTAL)}, "Binary " + full},
      {"length unknown, buffer not filled",
       {chunk(kOk, "abc", SQL_NO_TOTAL)},
       "Binary " + in_full_buffer("abc")},
      {"length left alone", {chunk(kOk, "abc", leave_alone)}, "Binary "},

      {"null", {chunk(kOk, "", SQL_NULL_DATA)}, "Null"},
      {"null with info", {chunk(kMore, "abc", SQL_NULL_DATA)}, "Null"},
      {"null at the end", {chunk(SQL_NO_DATA, "", SQL_NULL_DATA)}, "Null"},
      {"null and an error",
       {chunk(SQL_ERROR, "", SQL_NULL_DATA, broken())},
       "Null"},
      {"null after a piece",
       {chunk(kMore, full, 2000), chunk(kOk, "", SQL_NULL_DATA)},
       "Null"},
      {"null and an error after a piece",
       {chunk(kMore, full, 2000),
        chunk(SQL_ERROR, "", SQL_NULL_DATA, broken())},
       "Null"},

      {"no data at once", {chunk(SQL_NO_DATA, "", leave_alone)}, "Binary "},
      {"no data with bytes", {chunk(SQL_NO_DATA, "junk", 4)}, "Binary "},
      {"no data after a piece",
       {chunk(kMore, full, 2000), chunk(SQL_NO_DATA, "junk", 4)},
       "Binary " + full},
      {"an error at once", {chunk(SQL_ERROR, "abc", 3, broken())}, failure},
      {"an error after a piece",
       {chunk(kMore, full, 2000), chunk(SQL_ERROR, "ef", 2, broken())},
       failure},
      {"an error without a diagnostic",
       {chunk(SQL_ERROR, "abc", 3)},
       "failure: ODBC operation failed"},

      {"three pieces",
       {chunk(kMore, full, 2051), chunk(kMore, other, 1027),
        chunk(kOk, "abc", 3)},
       "Binary " + full + other + "abc"},
      {"two full pieces",
       {chunk(kMore, full, 2048), chunk(kOk, other, 1024)},
       "Binary " + full + other},
      {"an empty last piece",
       {chunk(kMore, full, 1024), chunk(kOk, "", 0)},
       "Binary " + full},
      {"a last piece of negative length",
       {chunk(kMore, full, 1030), chunk(kOk, "zz", -2)},
       "Binary " + full},
      {"a last piece of unknown length",
       {chunk(kMore, full, SQL_NO_TOTAL), chunk(kOk, other, SQL_NO_TOTAL)},
       "Binary " + full + other},
      {"the indicator is written once",
       {chunk(kMore, full, 2048), chunk(kOk, other, leave_alone)},
       "Binary " + full + other},
      {"the indicator is written once, as unknown",
       {chunk(kMore, full, SQL_NO_TOTAL), chunk(kOk, other, leave_alone)},
       "Binary " + full + other},
      // Deliberate: "more to come" means that the buffer was filled.
      {"more to come after a buffer not filled",
       {chunk(kMore, "ab", 2), chunk(kOk, "c", 1)},
       "Binary " + in_full_buffer("ab") + "c"},
      {"more to come after a full buffer and one not filled",
       {chunk(kMore, full, 2), chunk(kMore, "ab", 2), chunk(kOk, "c", 1)},
       "Binary " + full + in_full_buffer("ab") + "c"},
  };
  for (const SQLLEN indicator : {SQLLEN{0}, SQLLEN{-2}, SQLLEN{SQL_NTS},
                                 SQLLEN{-5}, SQLLEN{-100}, kLeast}) {
    rows.push_back({"nothing, indicator " + std::to_string(indicator),
                    {chunk(kOk, "abc", indicator)},
                    "Binary "});
  }
  for (const SQLLEN indicator :
       {SQLLEN{0}, SQLLEN{5}, SQLLEN{1023}, SQLLEN{1024}, SQLLEN{1025}, kMost,
        SQLLEN{SQL_NO_TOTAL}, SQLLEN{-2}, SQLLEN{SQL_NTS}, kLeast}) {
    rows.push_back({"more to come, indicator " + std::to_string(indicator),
                    {chunk(kMore, full, indicator), chunk(kOk, "tail", 4)},
                    "Binary " + full + "tail"});
  }
  for (const Answers& row : rows) expect_read(SQL_VARBINARY, row);
}

TEST_F(Fetch, ABinaryCellBringsNothingOfAnotherCell) {
  script().columns({{"a", SQL_VARBINARY}, {"b", SQL_VARBINARY}});
  const Cell short_but_more = chunks(
      {chunk(SQL_SUCCESS_WITH_INFO, "ab", 2), chunk(SQL_SUCCESS, "", 0)});
  script().rows(2, {binary(std::string(3000, 'x')), short_but_more});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  for (const std::vector<ZirdbOdbcValue>& row : result.rows) {
    EXPECT_EQ(shown(row.at(0)), "Binary " + std::string(3000, 'x'));
    EXPECT_EQ(shown(row.at(1)), "Binary " + in_full_buffer("ab"));
  }
}

// ---------------------------------------------------------------------------
// GUIDs
// ---------------------------------------------------------------------------

TEST_F(Fetch, AGuidIsBracedUnlessItIsEmptyOrAlreadyBegins) {
  constexpr int kMore = SQL_SUCCESS_WITH_INFO;
  const std::string guid = "a3b9d97a-3de2-4287-9a7b-5ef21f449c1e";
  const std::string text = text_of(2500);
  struct Row {
    const char* name;
    Cell cell;
    std::string outcome;
  };
  const Row rows[] = {
      {"bare", cell(guid), "Text {" + guid + "}"},
      {"braced", cell("{" + guid + "}"), "Text {" + guid + "}"},
      {"begins with a brace", cell("{" + guid), "Text {" + guid},
      {"a brace alone", cell("{"), "Text {"},
      {"ends with a brace", cell(guid + "}"), "Text {" + guid + "}}"},
      {"brace after a blank", cell(" {" + guid + "}"),
       "Text { {" + guid + "}}"},
      {"empty", cell(""), "Text "},
      {"null", null_cell(), "Null"},
      {"no guid", cell("x"), "Text {x}"},
      {"longer than the buffer", cell(text), "Text {" + text + "}"},
      {"braced, longer than the buffer", cell("{" + text), "Text {" + text},
      {"no data at once", chunks({chunk(SQL_NO_DATA, "", leave_alone)}),
       "Text "},
      {"no data after a piece",
       chunks({chunk(kMore, "ab", 9), chunk(SQL_NO_DATA, "", leave_alone)}),
       "Text {ab}"},
      {"empty pieces before a brace",
       chunks({chunk(kMore, "", 9), chunk(SQL_SUCCESS, "{a}", 3)}), "Text {a}"},
      {"null after a piece",
       chunks({chunk(kMore, "ab", 9), chunk(SQL_SUCCESS, "", SQL_NULL_DATA)}),
       "Null"},
      {"an error", chunks({chunk(SQL_ERROR, "", 0, broken())}),
       "failure: HY000: broken"},
      {"a NUL in front", chunks({chunk(SQL_SUCCESS, std::string("\0a", 2), 2)}),
       "Text "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    expect_read(kGuid, row.cell, row.outcome);
  }
}

TEST_F(Fetch, OnlyGuidColumnsAreBraced) {
  for (const int type : {SQL_CHAR, SQL_VARCHAR, SQL_WVARCHAR, -10, -12, 72}) {
    EXPECT_EQ(read(type, cell("abc")), "Text abc") << type;
  }
}

// ---------------------------------------------------------------------------
// Rows
// ---------------------------------------------------------------------------

TEST_F(Fetch, RowsComeInTheirOrder) {
  constexpr std::int64_t kRows = 5000;
  script().columns({{"id", SQL_BIGINT}, {"name", SQL_VARCHAR}});
  for (std::int64_t i = 0; i < kRows; ++i) {
    script().row({cell(i), cell("n" + std::to_string(i))});
  }

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  ASSERT_EQ(result.rows.size(), static_cast<std::size_t>(kRows));
  EXPECT_EQ(result.rows_affected, kRows);
  for (std::int64_t i = 0; i < kRows; ++i) {
    const auto& row = result.rows[static_cast<std::size_t>(i)];
    ASSERT_EQ(row.size(), 2U);
    ASSERT_EQ(row[0].int64_value, i);
    ASSERT_EQ(row[1].text_value, "n" + std::to_string(i));
  }
}

TEST_F(Fetch, ManyColumnsAreReadByTheirNumbers) {
  // The last is the most that a driver can report.
  for (const std::size_t count : {1000U, 32767U}) {
    SCOPED_TRACE(count);
    ResultSet set;
    set.rows.resize(2);
    for (std::size_t i = 0; i < count; ++i) {
      set.columns.push_back({"c" + std::to_string(i), SQL_INTEGER});
      set.rows[0].push_back(cell(i));
      set.rows[1].push_back(cell(count + i));
    }
    script().result_for("select", set);

    ZirdbOdbcResult result;
    ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

    ASSERT_EQ(result.columns.size(), count);
    ASSERT_EQ(result.rows.size(), 2U);
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_EQ(result.columns[i].name, "c" + std::to_string(i));
      for (std::size_t row = 0; row < 2; ++row) {
        ASSERT_EQ(result.rows[row].at(i).int64_value,
                  static_cast<std::int64_t>(row * count + i));
      }
    }
  }
}

TEST_F(Fetch, RoomIsMadeForExactlyTheColumnsThereAre) {
  script().columns(std::vector<Column>(5, {"c", SQL_INTEGER}));
  script().rows(2, std::vector<Cell>(5, cell(1)));

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(result.columns.capacity(), 5U);
  for (const auto& row : result.rows) EXPECT_EQ(row.capacity(), 5U);
}

TEST_F(Fetch, AFailingCellOfAnyTypeDropsItsRowOnly) {
  for (const int type :
       {SQL_INTEGER, SQL_DOUBLE, SQL_BIT, SQL_VARCHAR, SQL_VARBINARY, kGuid}) {
    SCOPED_TRACE(type);
    ResultSet set;
    set.columns = {{"a", SQL_INTEGER}, {"b", type}, {"c", SQL_INTEGER}};
    set.rows = {{cell(1), cell("1"), cell(1)},
                {cell(2), chunks({chunk(SQL_ERROR, "", 1, broken())}), cell(2)},
                {cell(3), cell("1"), cell(3)}};
    set.row_count = 3;
    script().result_for("select", set);
    void* const connection = open();
    script().clear_log();

    ZirdbOdbcResult result;
    EXPECT_FALSE(zirdb_odbc_execute(connection, "select", &result));

    EXPECT_EQ(result.error, error_text("HY000", "broken"));
    EXPECT_EQ(result.columns.size(), 3U);
    ASSERT_EQ(result.rows.size(), 1U);
    EXPECT_EQ(result.rows[0].size(), 3U);
    EXPECT_EQ(result.rows_affected, 0);
    EXPECT_EQ(script().count("SQLGetData"), 5U);
    EXPECT_EQ(script().count("SQLFetch"), 2U);
  }
}

// ---------------------------------------------------------------------------
// Drivers that never come to an end
// ---------------------------------------------------------------------------

TEST_F(Fetch, EndlessEmptyPiecesOfTextAreAFailure) {
  // Far beyond any patience: ends the test where the reads do not end.
  constexpr std::size_t kTooMany = 1000000;
  for (const int type : {SQL_VARCHAR, kGuid}) {
    for (const char* row_before : {"", "abc"}) {
      SCOPED_TRACE("type " + std::to_string(type) + ", after '" + row_before +
                   "'");
      ResultSet set;
      set.columns = {{"t", type}};
      set.rows = {{cell("{first}")}, {cell(row_before)}};
      script().result_for("select", set);
      std::size_t reads = 0;
      script().on("SQLGetData", [&](const Call&) -> std::optional<Reply> {
        if (++reads == 1) return std::nullopt;
        if (reads % 256 == 0) script().clear_log();
        if (reads > kTooMany) {
          return Reply{false, SQL_ERROR, {"HY000", 1, "asked for ever"}};
        }
        // The second row's text first, then nothing, but always more to come.
        return Reply{reads == 2, SQL_SUCCESS_WITH_INFO, {"01004", 1, "more"}};
      });

      ZirdbOdbcResult result;
      EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));

      EXPECT_EQ(result.error, error_text("01004", "more"));
      EXPECT_EQ(result.rows.size(), 1U);
      EXPECT_EQ(result.rows_affected, 0);
      EXPECT_LT(reads, kTooMany);
      next_row();
    }
  }
}

TEST_F(Fetch, ThousandsOfEmptyPiecesBeforeDataAreBorneWith) {
  std::vector<Chunk> pieces;
  for (const char* data : {"ab", "cd", "ef"}) {
    pieces.insert(pieces.end(), 4000,
                  chunk(SQL_SUCCESS_WITH_INFO, "", SQL_NO_TOTAL));
    pieces.push_back(chunk(SQL_SUCCESS_WITH_INFO, data, SQL_NO_TOTAL));
  }
  pieces.push_back(chunk(SQL_SUCCESS, "!", 1));

  expect_read(SQL_VARCHAR, chunks(pieces), "Text abcdef!");
}

TEST_F(Fetch, TextInVeryManyPiecesIsReadToItsEnd) {
  constexpr std::size_t kPieces = 150000;
  const std::string text = text_of(kPieces);
  std::vector<Chunk> pieces;
  for (const char c : text) {
    pieces.push_back(
        chunk(SQL_SUCCESS_WITH_INFO, std::string(1, c), SQL_NO_TOTAL));
  }
  std::size_t reads = 0;
  script().on("SQLGetData", [&](const Call&) -> std::optional<Reply> {
    // The log would take more room than the text.
    if (++reads % 256 == 0) script().clear_log();
    return std::nullopt;
  });

  // The driver says NO_DATA after its last piece.
  expect_read(SQL_LONGVARCHAR, chunks(pieces), "Text " + text);
}

TEST_F(Fetch, EndlessBytesOfWhichNothingIsLeftAreAFailure) {
  constexpr std::size_t kTooMany = 1000000;
  script().columns({{"b", SQL_VARBINARY}});
  script().row({binary("x")});
  std::size_t reads = 0;
  script().on("SQLGetData", [&](const Call&) -> std::optional<Reply> {
    if (++reads % 256 == 0) script().clear_log();
    if (reads > kTooMany) {
      return Reply{false, SQL_ERROR, {"HY000", 1, "asked for ever"}};
    }
    // The indicator stays 0: nothing left, and yet more to come.
    return Reply{false, SQL_SUCCESS_WITH_INFO, {"01004", 1, "more"}};
  });

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));

  EXPECT_EQ(result.error, error_text("01004", "more"));
  EXPECT_TRUE(result.rows.empty());
  EXPECT_LT(reads, kTooMany);
}

TEST_F(Fetch, ThousandsOfPiecesOfWhichNothingIsLeftAreJoined) {
  constexpr std::size_t kPieces = 3000;
  const std::string piece(kBuffer, 'x');
  std::vector<Chunk> pieces(kPieces, chunk(SQL_SUCCESS_WITH_INFO, piece, 0));
  pieces.push_back(chunk(SQL_SUCCESS, "!", 1));

  expect_read(SQL_VARBINARY, chunks(pieces),
              "Binary " + std::string(kPieces * kBuffer, 'x') + "!");
}

TEST_F(Fetch, ALongBlobWhoseIndicatorIsThePieceIsReadToItsEnd) {
  // More pieces than are borne with when they say that nothing is left.
  constexpr std::size_t kPieces = 70000;
  std::size_t reads = 0;
  script().on("SQLGetData", [&](const Call&) -> std::optional<Reply> {
    if (++reads % 256 == 0) script().clear_log();
    return std::nullopt;
  });
  const std::vector<Chunk> pieces(
      kPieces, chunk(SQL_SUCCESS_WITH_INFO, std::string(kBuffer, 'x'), 1024));
  ResultSet set;
  set.columns = {{"b", SQL_LONGVARBINARY}};
  set.rows = {{chunks(pieces)}};
  script().result_for("select", set);

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(result.rows.at(0).at(0).binary_value.size(), kPieces * kBuffer);
}

}  // namespace
