// SPDX-License-Identifier: MIT
//
// Result columns of real drivers: what each driver reports for the types its
// database has, what the layer makes of it, and column names.

#include <gtest/gtest.h>
#include <sql.h>
#include <sqlext.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/database.h"

namespace zirdb_test {
namespace {

struct ColumnType {
  const char* declaration;
  const char* literal;
  std::int16_t sql_type;
  ZirdbOdbcValue value;
};

constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// SQLite's driver goes by the declared type, also where a row holds something
// else; a type name it does not know is text.
const std::vector<ColumnType>& sqlite_columns() {
  static const std::vector<ColumnType> columns = {
      {"tinyint", "255", SQL_TINYINT, integer(255)},
      {"smallint", "-32768", SQL_SMALLINT, integer(-32768)},
      {"integer", "-2147483648", SQL_INTEGER, integer(INT32_MIN)},
      {"bigint", "-9223372036854775808", SQL_BIGINT, integer(kSmallest)},
      {"real", "0.5", SQL_DOUBLE, real(0.5)},
      {"float", "0.25", SQL_DOUBLE, real(0.25)},
      {"double", "0.1", SQL_DOUBLE, real(0.1)},
      {"numeric(10,2)", "1.5", SQL_DOUBLE, real(1.5)},
      {"decimal(10,2)", "1.5", SQL_VARCHAR, text("1.5")},
      {"boolean", "1", SQL_BIT, boolean(true)},
      {"bit", "0", SQL_BIT, boolean(false)},
      {"char(5)", "'c'", SQL_VARCHAR, text("c")},
      {"varchar(2)", "'longer'", SQL_VARCHAR, text("longer")},
      {"nvarchar(5)", "'\u00E9'", SQL_VARCHAR, text("\u00E9")},
      {"text", "'t'", SQL_LONGVARCHAR, text("t")},
      {"longvarchar", "'t'", SQL_LONGVARCHAR, text("t")},
      {"blob", "x'00FF'", SQL_BINARY, bytes(std::string("\0\xFF", 2))},
      {"varbinary(9)", "x'00FF'", SQL_VARBINARY,
       bytes(std::string("\0\xFF", 2))},
      {"longvarbinary", "x''", SQL_LONGVARBINARY, bytes("")},
      {"date", "'2024-02-29'", SQL_TYPE_DATE, text("2024-02-29")},
      {"date", "'not a date'", SQL_TYPE_DATE, text("not a date")},
      {"time", "'23:59:58'", SQL_TYPE_TIME, text("23:59:58")},
      {"timestamp", "'2024-02-29 23:59:58.123'", SQL_TYPE_TIMESTAMP,
       text("2024-02-29 23:59:58.123")},
      {"guid", "'00112233-4455-6677-8899-aabbccddeeff'", SQL_VARCHAR,
       text("00112233-4455-6677-8899-aabbccddeeff")},
      {"json", "'{}'", SQL_VARCHAR, text("{}")},
      {"", "5", SQL_INTEGER, integer(5)},
      {"", "'five'", SQL_VARCHAR, text("five")},
      {"", "x'05'", SQL_BINARY, bytes("\5")},
      // What a number column cannot hold as a number is shown as NULL.
      {"integer", "'five'", SQL_INTEGER, null_value()},
  };
  return columns;
}

// PostgreSQL's driver knows GUIDs, and writes them in capital letters. A
// numeric beyond a double's precision is rounded.
const std::vector<ColumnType>& postgres_columns() {
  static const std::vector<ColumnType> columns = {
      {"smallint", "-32768", SQL_SMALLINT, integer(-32768)},
      {"integer", "-2147483648", SQL_INTEGER, integer(INT32_MIN)},
      {"bigint", "-9223372036854775808", SQL_BIGINT, integer(kSmallest)},
      {"oid", "7", SQL_INTEGER, integer(7)},
      {"real", "0.1", SQL_REAL, real(0.1)},
      {"double precision", "0.1", SQL_FLOAT, real(0.1)},
      {"double precision", "'Infinity'", SQL_FLOAT, real(kInfinity)},
      {"double precision", "'-Infinity'", SQL_FLOAT, real(-kInfinity)},
      {"numeric(10,2)", "1.5", SQL_NUMERIC, real(1.5)},
      {"numeric(30,10)", "12345678901234567890.0123456789", SQL_NUMERIC,
       real(12345678901234567890.0)},
      {"money", "12.5", SQL_FLOAT, real(12.5)},
      {"boolean", "true", SQL_VARCHAR, text("1")},
      {"boolean", "false", SQL_VARCHAR, text("0")},
      {"bit(4)", "'1010'", SQL_VARCHAR, text("1010")},
      {"char(3)", "'c'", SQL_CHAR, text("c  ")},
      {"varchar(5)", "'\u00E9'", SQL_VARCHAR, text("\u00E9")},
      {"text", "'t'", SQL_LONGVARCHAR, text("t")},
      {"bytea", "'\\x00ff'", SQL_LONGVARBINARY,
       bytes(std::string("\0\xFF", 2))},
      {"bytea", "''", SQL_LONGVARBINARY, bytes("")},
      {"date", "'2024-02-29'", SQL_TYPE_DATE, text("2024-02-29")},
      {"time", "'23:59:58.123'", SQL_TYPE_TIME, text("23:59:58.123")},
      {"timestamp", "'2024-02-29 23:59:58.123456'", SQL_TYPE_TIMESTAMP,
       text("2024-02-29 23:59:58.123456")},
      {"timestamptz", "'2024-02-29 23:59:58+02'", SQL_TYPE_TIMESTAMP,
       text("2024-02-29 21:59:58")},
      {"interval", "'1 day 2 hours'", SQL_VARCHAR, text("1 day 02:00:00")},
      {"uuid", "'00112233-4455-6677-8899-aabbccddeeff'", SQL_GUID,
       text("{00112233-4455-6677-8899-AABBCCDDEEFF}")},
      {"json", "'{\"a\":1}'", SQL_VARCHAR, text("{\"a\":1}")},
      {"jsonb", "'{\"a\":1}'", SQL_VARCHAR, text("{\"a\": 1}")},
      {"integer[]", "'{1,2}'", SQL_VARCHAR, text("{1,2}")},
      {"inet", "'10.0.0.1'", SQL_VARCHAR, text("10.0.0.1")},
  };
  return columns;
}

// MariaDB's driver reports unsigned integers as their signed types: what does
// not fit in 64 bits comes back negative. A UUID is text to it.
const std::vector<ColumnType>& mariadb_columns() {
  static const std::vector<ColumnType> columns = {
      {"tinyint", "-128", SQL_TINYINT, integer(-128)},
      {"tinyint unsigned", "255", SQL_TINYINT, integer(255)},
      {"boolean", "true", SQL_TINYINT, integer(1)},
      {"smallint unsigned", "65535", SQL_SMALLINT, integer(65535)},
      {"mediumint", "-8388608", SQL_INTEGER, integer(-8388608)},
      {"integer", "-2147483648", SQL_INTEGER, integer(INT32_MIN)},
      {"integer unsigned", "4294967295", SQL_INTEGER, integer(4294967295)},
      {"bigint", "-9223372036854775808", SQL_BIGINT, integer(kSmallest)},
      {"bigint unsigned", "18446744073709551615", SQL_BIGINT, integer(-1)},
      {"year", "2024", SQL_SMALLINT, integer(2024)},
      {"float", "0.1", SQL_REAL, real(static_cast<double>(0.1F))},
      {"double", "0.1", SQL_DOUBLE, real(0.1)},
      {"decimal(10,2)", "1.5", SQL_DECIMAL, real(1.5)},
      {"decimal(30,10)", "12345678901234567890.0123456789", SQL_DECIMAL,
       real(12345678901234567890.0)},
      {"bit(1)", "b'1'", SQL_BIT, boolean(true)},
      {"bit(1)", "b'0'", SQL_BIT, boolean(false)},
      {"bit(8)", "b'10101010'", SQL_BINARY, bytes("\xAA")},
      {"char(3)", "'c'", SQL_CHAR, text("c")},
      {"varchar(5)", "'\u00E9'", SQL_VARCHAR, text("\u00E9")},
      {"tinytext", "'t'", SQL_LONGVARCHAR, text("t")},
      {"longtext", "'t'", SQL_LONGVARCHAR, text("t")},
      {"enum('a', '\u00E9')", "'\u00E9'", SQL_CHAR, text("\u00E9")},
      {"set('a', 'b')", "'a,b'", SQL_CHAR, text("a,b")},
      {"json", "'{\"a\":1}'", SQL_LONGVARCHAR, text("{\"a\":1}")},
      {"binary(3)", "'x'", SQL_BINARY, bytes(std::string("x\0\0", 3))},
      {"varbinary(3)", "x'00FF'", SQL_VARBINARY,
       bytes(std::string("\0\xFF", 2))},
      {"longblob", "''", SQL_LONGVARBINARY, bytes("")},
      {"date", "'2024-02-29'", SQL_TYPE_DATE, text("2024-02-29")},
      {"time", "'-838:59:59'", SQL_TYPE_TIME, text("-838:59:59")},
      {"time(3)", "'23:59:58.123'", SQL_TYPE_TIME, text("23:59:58.123")},
      {"datetime(6)", "'2024-02-29 23:59:58.123456'", SQL_TYPE_TIMESTAMP,
       text("2024-02-29 23:59:58.123456")},
      {"timestamp", "'2024-02-29 23:59:58'", SQL_TYPE_TIMESTAMP,
       text("2024-02-29 23:59:58")},
      {"uuid", "'00112233-4455-6677-8899-aabbccddeeff'", SQL_CHAR,
       text("00112233-4455-6677-8899-aabbccddeeff")},
      {"inet6", "'::1'", SQL_CHAR, text("::1")},
  };
  return columns;
}

class JourneyColumns : public Journey {
 protected:
  const std::vector<ColumnType>& column_types() const {
    if (&driver() == &kSqlite) return sqlite_columns();
    return &driver() == &kPostgres ? postgres_columns() : mariadb_columns();
  }
};

TEST_P(JourneyColumns, EveryColumnTypeIsReadAsItsKind) {
  for (const ColumnType& column : column_types()) {
    SCOPED_TRACE(column.declaration);
    db().run("CREATE TABLE c (x " + std::string(column.declaration) + ")");
    db().run("INSERT INTO c VALUES (" + std::string(column.literal) + ")");

    const ZirdbOdbcResult result = db().run("SELECT x FROM c");

    ASSERT_EQ(result.columns.size(), 1u);
    EXPECT_EQ(result.columns[0].sql_type, column.sql_type);
    ASSERT_EQ(result.rows.size(), 1u);
    EXPECT_EQ(result.rows[0][0], column.value);
    db().run("DROP TABLE c");
  }
}

TEST_P(JourneyColumns, ANullOfEveryColumnTypeIsNull) {
  for (const ColumnType& column : column_types()) {
    db().run("CREATE TABLE c (x " + std::string(column.declaration) + " NULL)");
    db().run("INSERT INTO c VALUES (NULL)");
    EXPECT_EQ(db().value_of("SELECT x FROM c"), null_value())
        << column.declaration;
    db().run("DROP TABLE c");
  }
}

TEST_P(JourneyColumns, NamesAreTheDriversBytes) {
  const std::string name = "sp\u00E4lte \u20AC";
  db().run("CREATE TABLE " + quoted("t\u00E4fel") + " (" + quoted(name) +
           " INTEGER)");
  db().run("INSERT INTO " + quoted("t\u00E4fel") + " VALUES (1)");

  const ZirdbOdbcResult result =
      db().run("SELECT * FROM " + quoted("t\u00E4fel"));

  ASSERT_EQ(result.columns.size(), 1u);
  EXPECT_EQ(result.columns[0].name, name);
}

TEST_P(JourneyColumns, NamesBeyondTheBasicPlaneAreTheDatabasesAffair) {
  const std::string sql = "SELECT 1 AS " + quoted("\U0001F600");
  if (driver().identifiers_hold_emoji) {
    EXPECT_EQ(db().run(sql).columns.at(0).name, "\U0001F600");
  } else {
    EXPECT_EQ(db().error_of(sql).substr(0, 7), "HY000: ");
  }
}

TEST_P(JourneyColumns, ALongNameIsCut) {
  const ZirdbOdbcResult result =
      db().run("SELECT 1 AS " + quoted(std::string(300, 'n')));
  EXPECT_EQ(result.columns.at(0).name,
            std::string(driver().longest_column_name, 'n'));
}

TEST_P(JourneyColumns, ColumnsOfOneNameStayApart) {
  const ZirdbOdbcResult result = db().run("SELECT 1 AS a, 'two' AS a");

  ASSERT_EQ(result.columns.size(), 2u);
  EXPECT_EQ(result.columns[0].name, "a");
  EXPECT_EQ(result.columns[1].name, "a");
  ASSERT_EQ(result.rows.size(), 1u);
  EXPECT_EQ(result.rows[0][0], integer(1));
  EXPECT_EQ(result.rows[0][1], text("two"));
}

TEST_P(JourneyColumns, AnEmptyResultStillHasItsColumns) {
  db().run("CREATE TABLE c (n INTEGER, t VARCHAR(5))");

  const ZirdbOdbcResult result = db().run("SELECT t, n FROM c");

  ASSERT_EQ(result.columns.size(), 2u);
  EXPECT_EQ(result.columns[0].name, "t");
  EXPECT_EQ(result.columns[0].sql_type, SQL_VARCHAR);
  EXPECT_EQ(result.columns[1].name, "n");
  EXPECT_EQ(result.columns[1].sql_type, SQL_INTEGER);
  EXPECT_TRUE(result.rows.empty());
}

ZIRDB_FOR_EVERY_DRIVER(JourneyColumns);

class JourneySqliteColumns : public Journey {};

// Deliberate: 255 bytes are what the layer reads of a name, and SQLite's driver
// cuts between the bytes of a character.
TEST_P(JourneySqliteColumns, ALongNameCanEndInTheMiddleOfACharacter) {
  std::string name;
  for (int i = 0; i < 200; ++i) name += "\u00E9";
  const ZirdbOdbcResult result = db().run("SELECT 1 AS " + quoted(name));
  EXPECT_EQ(result.columns.at(0).name, name.substr(0, 255));
}

INSTANTIATE_TEST_SUITE_P(, JourneySqliteColumns, testing::Values(&kSqlite),
                         driver_name);

class JourneyPostgresColumns : public Journey {};

TEST_P(JourneyPostgresColumns, BooleansAreBoolsWithoutBoolsAsChar) {
  Connection connection = connect(";BoolsAsChar=0");

  const ZirdbOdbcResult result =
      connection.run("SELECT true, false, NULL::boolean");

  ASSERT_EQ(result.columns.size(), 3u);
  EXPECT_EQ(result.columns[0].sql_type, SQL_BIT);
  ASSERT_EQ(result.rows.size(), 1u);
  EXPECT_EQ(result.rows[0][0], boolean(true));
  EXPECT_EQ(result.rows[0][1], boolean(false));
  EXPECT_EQ(result.rows[0][2], null_value());
}

TEST_P(JourneyPostgresColumns, ABytesColumnOfEitherLengthIsBinary) {
  Connection connection = connect(";ByteaAsLongVarBinary=0");

  const ZirdbOdbcResult result = connection.run("SELECT '\\x00ff'::bytea");

  EXPECT_EQ(result.columns.at(0).sql_type, SQL_VARBINARY);
  EXPECT_EQ(result.rows.at(0).at(0), bytes(std::string("\0\xFF", 2)));
}

TEST_P(JourneyPostgresColumns, NotANumberIsADouble) {
  const ZirdbOdbcValue value = db().value_of("SELECT 'NaN'::double precision");
  EXPECT_EQ(value.kind, ZirdbOdbcValueKind::Double);
  EXPECT_TRUE(std::isnan(value.double_value));
}

TEST_P(JourneyPostgresColumns, AGuidParameterFitsAUuidColumn) {
  db().run("CREATE TABLE g (u UUID)");
  db().run("INSERT INTO g VALUES (?)",
           {input(kGuid, text("{00112233-4455-6677-8899-aabbccddeeff}"))});
  EXPECT_EQ(db().value_of("SELECT u FROM g"),
            text("{00112233-4455-6677-8899-AABBCCDDEEFF}"));
}

INSTANTIATE_TEST_SUITE_P(, JourneyPostgresColumns, testing::Values(&kPostgres),
                         driver_name);

class JourneyMariadbColumns : public Journey {};

// MariaDB takes a UUID without braces only.
TEST_P(JourneyMariadbColumns, AGuidParameterFitsAUuidColumnWithoutBraces) {
  db().run("CREATE TABLE g (u UUID)");
  db().run("INSERT INTO g VALUES (?)",
           {input(kGuid, text("00112233-4455-6677-8899-aabbccddeeff"))});

  EXPECT_EQ(db().value_of("SELECT u FROM g"),
            text("00112233-4455-6677-8899-aabbccddeeff"));
  EXPECT_EQ(
      db().error_of(
              "INSERT INTO g VALUES (?)",
              {input(kGuid, text("{00112233-4455-6677-8899-aabbccddeeff}"))})
          .substr(0, 7),
      "22007: ");
}

INSTANTIATE_TEST_SUITE_P(, JourneyMariadbColumns, testing::Values(&kMariadb),
                         driver_name);

}  // namespace
}  // namespace zirdb_test
