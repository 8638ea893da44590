// SPDX-License-Identifier: MIT
//
// The null driver keeps a driver's promises, and fetch_bench notices wrong
// data: what the figures of the benchmark rest on.

#include <gtest/gtest.h>
#include <sql.h>
#include <sqlext.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench_data.h"
#include "zirdb_odbc.h"

namespace {

using bench::Column;
using bench::DataSet;
using bench::Kind;

// ---------------------------------------------------------------------------
// Through the layer
// ---------------------------------------------------------------------------

constexpr const char* kConnection = "DRIVER=" ZIRDB_BENCH_NULL_DRIVER;

struct CloseConnection {
  void operator()(void* handle) const { zirdb_odbc_close(handle); }
};
using Connection = std::unique_ptr<void, CloseConnection>;

Connection connect() {
  void* handle = nullptr;
  std::string error;
  EXPECT_TRUE(zirdb_odbc_open(kConnection, &handle, &error)) << error;
  return Connection(handle);
}

ZirdbOdbcResult query(const std::string& sql) {
  const Connection connection = connect();
  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(connection.get(), sql, &result))
      << result.error;
  return result;
}

std::string as_text(const ZirdbOdbcValue& value) {
  switch (value.kind) {
    case ZirdbOdbcValueKind::Null:
      return "NULL";
    case ZirdbOdbcValueKind::Bool:
      return value.bool_value ? "true" : "false";
    case ZirdbOdbcValueKind::Int64:
      return "integer " + std::to_string(value.int64_value);
    case ZirdbOdbcValueKind::Double:
      return "double " + std::to_string(value.double_value);
    case ZirdbOdbcValueKind::Text:
      return "text " + value.text_value;
    case ZirdbOdbcValueKind::Binary:
      return "binary " +
             std::string(value.binary_value.begin(), value.binary_value.end());
  }
  return "no kind";
}

std::string as_text(const Column& column, std::int64_t row) {
  if (column.is_null(row)) return "NULL";
  switch (column.kind) {
    case Kind::kInteger:
      return "integer " + std::to_string(column.integer(row));
    case Kind::kDouble:
      return "double " + std::to_string(column.number(row));
    case Kind::kText:
      return "text " + column.bytes(row);
    case Kind::kBlob:
      return "binary " + column.bytes(row);
  }
  return "no kind";
}

class DataSetTest : public testing::TestWithParam<const char*> {};

TEST_P(DataSetTest, ReadThroughTheLayerIsExactlyWhatItsDescriptionSays) {
  const DataSet& data = *bench::find_data_set(GetParam());

  const ZirdbOdbcResult result = query(data.name + " 20");

  ASSERT_EQ(result.columns.size(), data.columns.size());
  ASSERT_EQ(result.rows.size(), 20U);
  EXPECT_EQ(result.rows_affected, 20);
  for (std::size_t index = 0; index < data.columns.size(); ++index) {
    EXPECT_EQ(result.columns[index].name, data.columns[index].name);
    EXPECT_EQ(result.columns[index].sql_type, data.columns[index].sql_type);
  }
  for (std::size_t row = 0; row < result.rows.size(); ++row) {
    ASSERT_EQ(result.rows[row].size(), data.columns.size());
    for (std::size_t index = 0; index < data.columns.size(); ++index) {
      EXPECT_EQ(as_text(result.rows[row][index]),
                as_text(data.columns[index], static_cast<std::int64_t>(row)))
          << "row " << row << ", column " << data.columns[index].name;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(NullDriver, DataSetTest,
                         testing::Values("mixed", "narrow", "ascii", "wide"),
                         [](const auto& test) {
                           return std::string(test.param);
                         });

// The description itself, against values written out by hand.
TEST(NullDriver, TheFirstAndFourthRowOfMixedAreThese) {
  const ZirdbOdbcResult result = query("mixed 4");

  std::vector<std::string> seen;
  for (const std::size_t row : {0U, 3U}) {
    // All but the blob, whose bytes are no text.
    for (std::size_t index = 0; index + 1 < result.columns.size(); ++index) {
      seen.push_back(as_text(result.rows.at(row).at(index)));
    }
    EXPECT_EQ(result.rows[row].back().binary_value.size(), 32U);
  }

  EXPECT_EQ(seen, (std::vector<std::string>{
                      "integer 1", "integer 5000000000", "double 0.500000",
                      "text Mary Collins",
                      "text Lieferung nach M\u00fcnchen, zweite T\u00fcr "
                      "links, bitte klingeln",
                      "integer -7", "text 2024-01-31 23:59:59",
                      //
                      "integer 4", "integer 5003000009", "double 1.250000",
                      "text Omar Haddad.",
                      "text Leave the parcel with the neighbour at number 12, "
                      "thank you.",
                      "NULL", "text 2024-05-01 08:00:30"}));
}

TEST(NullDriver, ValuesHaveTheSizesTheFiguresAreQuotedFor) {
  struct Size {
    const char* data;
    std::size_t column;
    std::size_t least;
    std::size_t most;
  };
  static constexpr Size kSizes[] = {{"mixed", 3, 12, 12},
                                    {"mixed", 4, 56, 69},
                                    {"mixed", 6, 19, 19},
                                    {"mixed", 7, 32, 32},
                                    {"wide", 0, 4096, 4096}};
  for (const Size& size : kSizes) {
    const Column& column =
        bench::find_data_set(size.data)->columns.at(size.column);
    ASSERT_EQ(column.rotation.size(), 8U) << column.name;
    for (const std::string& value : column.rotation) {
      EXPECT_GE(value.size(), size.least) << column.name << ": " << value;
      EXPECT_LE(value.size(), size.most) << column.name << ": " << value;
    }
  }
}

TEST(NullDriver, AnUnknownStatementFailsWithADiagnostic) {
  for (const char* sql : {"mixed", "mixed ", "mixed x", "mixed -1", "mixed 1 ",
                          "blended 5", "", "SELECT 1"}) {
    const Connection connection = connect();
    ZirdbOdbcResult result;
    EXPECT_FALSE(zirdb_odbc_execute(connection.get(), sql, &result)) << sql;
    EXPECT_EQ(result.error, "42000: Expected a data set and a row count")
        << sql;
  }
}

// ---------------------------------------------------------------------------
// Call by call
// ---------------------------------------------------------------------------

class Handle {
 public:
  Handle(SQLSMALLINT type, SQLHANDLE parent) : type_(type) {
    EXPECT_EQ(SQLAllocHandle(type, parent, &handle_), SQL_SUCCESS);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { SQLFreeHandle(type_, handle_); }

  SQLHANDLE get() const { return handle_; }
  std::string state() const {
    SQLCHAR state[SQL_SQLSTATE_SIZE + 1] = {};
    SQLCHAR text[256] = {};
    SQLINTEGER native = 0;
    SQLSMALLINT length = 0;
    SQLGetDiagRec(type_, handle_, 1, state, &native, text, sizeof text,
                  &length);
    return reinterpret_cast<char*>(state);
  }

 private:
  SQLSMALLINT type_;
  SQLHANDLE handle_ = SQL_NULL_HANDLE;
};

SQLCHAR* odbc_text(const char* text) {
  return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text));
}

/// Connects, executes and stands on the first row.
class FirstRow {
 public:
  explicit FirstRow(const char* sql) : env_(SQL_HANDLE_ENV, SQL_NULL_HANDLE) {
    SQLSetEnvAttr(env_.get(), SQL_ATTR_ODBC_VERSION,
                  reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0);
    dbc_ = std::make_unique<Handle>(SQL_HANDLE_DBC, env_.get());
    EXPECT_EQ(
        SQLDriverConnect(dbc_->get(), nullptr, odbc_text(kConnection), SQL_NTS,
                         nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT),
        SQL_SUCCESS);
    statement_ = std::make_unique<Handle>(SQL_HANDLE_STMT, dbc_->get());
    EXPECT_EQ(SQLExecDirect(statement_->get(), odbc_text(sql), SQL_NTS),
              SQL_SUCCESS);
    EXPECT_EQ(SQLFetch(statement_->get()), SQL_SUCCESS);
  }
  FirstRow(const FirstRow&) = delete;
  FirstRow& operator=(const FirstRow&) = delete;
  ~FirstRow() {
    statement_.reset();
    SQLDisconnect(dbc_->get());
  }

  const Handle& statement() const { return *statement_; }

 private:
  Handle env_;
  std::unique_ptr<Handle> dbc_;
  std::unique_ptr<Handle> statement_;
};

TEST(NullDriver, ALongTextComesInPiecesWithTheLengthStillToCome) {
  const FirstRow row("wide 1");
  std::string text;
  std::vector<SQLLEN> lengths;
  std::vector<SQLRETURN> codes;

  for (SQLRETURN code = SQL_SUCCESS; code != SQL_NO_DATA;) {
    std::array<char, 1024> piece{};
    SQLLEN indicator = 0;
    code = SQLGetData(row.statement().get(), 1, SQL_C_CHAR, piece.data(),
                      piece.size(), &indicator);
    codes.push_back(code);
    if (code == SQL_SUCCESS_WITH_INFO) {
      EXPECT_EQ(row.statement().state(), "01004");
    }
    if (code != SQL_NO_DATA) {
      lengths.push_back(indicator);
      text += piece.data();
    }
    ASSERT_LE(codes.size(), 6U);
  }

  EXPECT_EQ(codes, (std::vector<SQLRETURN>{
                       SQL_SUCCESS_WITH_INFO, SQL_SUCCESS_WITH_INFO,
                       SQL_SUCCESS_WITH_INFO, SQL_SUCCESS_WITH_INFO,
                       SQL_SUCCESS, SQL_NO_DATA}));
  EXPECT_EQ(lengths, (std::vector<SQLLEN>{4096, 3073, 2050, 1027, 4}));
  EXPECT_EQ(text, bench::find_data_set("wide")->columns[0].bytes(0));
}

TEST(NullDriver, ABlobFillsTheWholeBufferAndHasNoTerminator) {
  const FirstRow row("mixed 1");
  const std::string& blob = bench::find_data_set("mixed")->columns[7].bytes(0);
  std::array<char, 33> buffer{};
  buffer.fill('x');
  SQLLEN indicator = 0;

  const SQLRETURN first = SQLGetData(row.statement().get(), 8, SQL_C_BINARY,
                                     buffer.data(), 20, &indicator);
  const SQLLEN first_length = indicator;
  const SQLRETURN second = SQLGetData(row.statement().get(), 8, SQL_C_BINARY,
                                      buffer.data() + 20, 12, &indicator);

  EXPECT_EQ(first, SQL_SUCCESS_WITH_INFO);
  EXPECT_EQ(first_length, 32);
  EXPECT_EQ(second, SQL_SUCCESS);
  EXPECT_EQ(indicator, 12);
  EXPECT_EQ(std::string(buffer.data(), buffer.size()), blob + "x");
}

// Column 1 of mixed is the integer 1, 2 the integer 5000000000, 3 the double
// 0.5, 4 a text, 6 the integer -7.
struct Conversion {
  SQLUSMALLINT column;
  SQLSMALLINT c_type;
  const char* expected;  ///< the buffer as text, or a SQLSTATE
};

std::string converted(const FirstRow& row, const Conversion& conversion) {
  std::array<char, 128> buffer{};
  SQLLEN indicator = 0;
  const SQLRETURN code =
      SQLGetData(row.statement().get(), conversion.column, conversion.c_type,
                 buffer.data(), buffer.size(), &indicator);
  if (code != SQL_SUCCESS) return row.statement().state();
  std::int64_t integer = 0;
  double number = 0;
  switch (conversion.c_type) {
    case SQL_C_SBIGINT:
      std::memcpy(&integer, buffer.data(), sizeof integer);
      return std::to_string(integer);
    case SQL_C_DOUBLE:
      std::memcpy(&number, buffer.data(), sizeof number);
      return std::to_string(number);
    case SQL_C_BIT:
      return buffer[0] == 0 ? "false" : "true";
    default:
      return std::string(buffer.data(), static_cast<std::size_t>(indicator));
  }
}

TEST(NullDriver, CellsAreConvertedToTheTypeAskedFor) {
  static constexpr Conversion kConversions[] = {
      {1, SQL_C_SBIGINT, "1"},
      {1, SQL_C_DOUBLE, "1.000000"},
      {1, SQL_C_CHAR, "1"},
      {1, SQL_C_BIT, "true"},
      {1, SQL_C_WCHAR, "07006"},
      {2, SQL_C_SBIGINT, "5000000000"},
      {2, SQL_C_CHAR, "5000000000"},
      {2, SQL_C_BIT, "22003"},
      {3, SQL_C_SBIGINT, "0"},
      {3, SQL_C_DOUBLE, "0.500000"},
      {3, SQL_C_CHAR, "0.5"},
      {3, SQL_C_BIT, "false"},
      {4, SQL_C_CHAR, "Mary Collins"},
      {4, SQL_C_BINARY, "Mary Collins"},
      {4, SQL_C_SBIGINT, "22018"},
      {6, SQL_C_CHAR, "-7"},
      {6, SQL_C_BIT, "22003"},
      {8, SQL_C_SBIGINT, "07006"},
      {8, SQL_C_CHAR,
       "00254A6F94B9DE03284D7297BCE1062B50759ABFE4092E53789DC2E70C31567B"},
      {9, SQL_C_CHAR, "07009"},
  };
  for (const Conversion& conversion : kConversions) {
    const FirstRow row("mixed 1");
    EXPECT_EQ(converted(row, conversion), conversion.expected)
        << "column " << conversion.column << " as C type " << conversion.c_type;
  }
}

// ---------------------------------------------------------------------------
// fetch_bench
// ---------------------------------------------------------------------------

int exit_status(const std::string& arguments) {
  const std::string command =
      std::string(ZIRDB_FETCH_BENCH) + " " + arguments + " >/dev/null 2>&1";
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(FetchBench, ArgumentsThatMakeNoSenseAreRefused) {
  for (const char* arguments :
       {"--repetitions", "--repetitions 0", "--repetitions 1001",
        "--repetitions 5x", "--quick --case", "--quick --case nowhere",
        "--fast", "mixed", "--child", "--child floor null/mixed 0 1 x"}) {
    EXPECT_EQ(exit_status(arguments), EXIT_FAILURE) << arguments;
  }
}

/// A SQLite table of a data set, in a folder of its own.
class SqliteTable {
 public:
  explicit SqliteTable(const std::string& data)
      : folder_(std::filesystem::path(testing::TempDir()) /
                ("zirdb-bench-test-" + std::to_string(getpid()))),
        data_(data) {
    std::filesystem::create_directory(folder_);
  }
  SqliteTable(const SqliteTable&) = delete;
  SqliteTable& operator=(const SqliteTable&) = delete;
  ~SqliteTable() { std::filesystem::remove_all(folder_); }

  std::string connection() const {
    return "DRIVER=SQLite3;DATABASE=" + (folder_ / "table.db").string();
  }
  /// The exit status of one measuring process that expects `rows` rows.
  int measure(const std::string& way, int rows) const {
    return exit_status("--child " + way + " sqlite/" + data_ + " " +
                       std::to_string(rows) + " 1 '" + connection() + "'");
  }

 private:
  std::filesystem::path folder_;
  std::string data_;
};

TEST(FetchBench, WrongDataAreNotMeasured) {
  const SqliteTable table("narrow");
  const int created = table.measure("create", 4);
  if (created == 77) GTEST_SKIP() << "no SQLite3 ODBC driver is installed";
  ASSERT_EQ(created, EXIT_SUCCESS);

  for (const char* way : {"floor", "layer", "recordset", "read", "whole"}) {
    EXPECT_EQ(table.measure(way, 4), EXIT_SUCCESS) << way;
    EXPECT_EQ(table.measure(way, 5), EXIT_FAILURE) << way << ", a row short";
  }

  void* handle = nullptr;
  ASSERT_TRUE(zirdb_odbc_open(table.connection(), &handle, nullptr));
  const Connection connection(handle);
  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(
      handle, "UPDATE narrow SET b = b + 1 WHERE a = 2", &result));
  for (const char* way : {"floor", "layer", "recordset", "read", "whole"}) {
    EXPECT_EQ(table.measure(way, 4), EXIT_FAILURE) << way << ", a wrong value";
  }
}

}  // namespace
