// SPDX-License-Identifier: MIT
//
// What scripts find in the columns of real databases: the value that each SQL
// type becomes, NULL, names, and how a statement says what it did.

#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

#include "support/script_journey.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace zirdb_test {
namespace {

using scripting::error_of;
using scripting::row_of;
using scripting::shown;

struct ColumnType {
  const char* declaration;
  const char* literal;
  const char* value;  ///< `shown`
};

const std::vector<ColumnType>& sqlite_columns() {
  static const std::vector<ColumnType> columns = {
      {"tinyint", "255", "I8 255"},
      {"smallint", "-32768", "I8 -32768"},
      {"integer", "-2147483648", "I8 -2147483648"},
      {"bigint", "-9223372036854775808", "I8 -9223372036854775808"},
      {"real", "0.5", "R8 0.5"},
      {"double", "0.1", "R8 0.1"},
      {"numeric(10,2)", "1.5", "R8 1.5"},
      // The driver knows no such type, and calls it text.
      {"decimal(10,2)", "1.5", "BSTR 1.5"},
      {"boolean", "1", "BOOL -1"},
      {"boolean", "0", "BOOL 0"},
      {"bit", "1", "BOOL -1"},
      {"char(5)", "'c'", "BSTR c"},
      {"varchar(2)", "'longer'", "BSTR longer"},
      {"text", "''", "BSTR "},
      {"blob", "x'00FF'", "bytes 00 FF"},
      {"blob", "x''", "bytes"},
      {"date", "'2024-02-29'", "BSTR 2024-02-29"},
      {"time", "'23:59:58'", "BSTR 23:59:58"},
      {"timestamp", "'2024-02-29 23:59:58.123'",
       "BSTR 2024-02-29 23:59:58.123"},
      {"guid", "'00112233-4455-6677-8899-aabbccddeeff'",
       "BSTR 00112233-4455-6677-8899-aabbccddeeff"},
  };
  return columns;
}

const std::vector<ColumnType>& postgres_columns() {
  static const std::vector<ColumnType> columns = {
      {"smallint", "-32768", "I8 -32768"},
      {"integer", "-2147483648", "I8 -2147483648"},
      {"bigint", "-9223372036854775808", "I8 -9223372036854775808"},
      {"real", "0.1", "R8 0.1"},
      {"double precision", "0.1", "R8 0.1"},
      {"double precision", "'-Infinity'", "R8 -inf"},
      {"numeric(10,2)", "1.5", "R8 1.5"},
      {"money", "12.5", "R8 12.5"},
      // Unless the connection string says BoolsAsChar=0.
      {"boolean", "true", "BSTR 1"},
      {"boolean", "false", "BSTR 0"},
      {"char(3)", "'c'", "BSTR c  "},
      {"varchar(5)", "'\u00E9'", "BSTR \u00E9"},
      {"text", "''", "BSTR "},
      {"bytea", "'\\x00ff'", "bytes 00 FF"},
      {"bytea", "''", "bytes"},
      {"date", "'2024-02-29'", "BSTR 2024-02-29"},
      {"time", "'23:59:58.123'", "BSTR 23:59:58.123"},
      {"timestamp", "'2024-02-29 23:59:58.123456'",
       "BSTR 2024-02-29 23:59:58.123456"},
      {"timestamptz", "'2024-02-29 23:59:58+02'", "BSTR 2024-02-29 21:59:58"},
      {"interval", "'1 day 2 hours'", "BSTR 1 day 02:00:00"},
      {"uuid", "'00112233-4455-6677-8899-aabbccddeeff'",
       "BSTR {00112233-4455-6677-8899-AABBCCDDEEFF}"},
      {"jsonb", "'{\"a\":1}'", "BSTR {\"a\": 1}"},
      {"integer[]", "'{1,2}'", "BSTR {1,2}"},
  };
  return columns;
}

const std::vector<ColumnType>& mariadb_columns() {
  static const std::vector<ColumnType> columns = {
      {"tinyint", "-128", "I8 -128"},
      {"boolean", "true", "I8 1"},
      {"smallint unsigned", "65535", "I8 65535"},
      {"mediumint", "-8388608", "I8 -8388608"},
      {"integer", "-2147483648", "I8 -2147483648"},
      {"integer unsigned", "4294967295", "I8 4294967295"},
      {"bigint", "-9223372036854775808", "I8 -9223372036854775808"},
      {"bigint unsigned", "18446744073709551615", "I8 -1"},
      {"year", "2024", "I8 2024"},
      {"float", "0.5", "R8 0.5"},
      {"double", "0.1", "R8 0.1"},
      {"decimal(10,2)", "1.5", "R8 1.5"},
      {"bit(1)", "b'1'", "BOOL -1"},
      {"bit(1)", "b'0'", "BOOL 0"},
      {"bit(8)", "b'10101010'", "bytes AA"},
      {"char(3)", "'c'", "BSTR c"},
      {"varchar(5)", "'\u00E9'", "BSTR \u00E9"},
      {"longtext", "''", "BSTR "},
      {"enum('a', '\u00E9')", "'\u00E9'", "BSTR \u00E9"},
      {"json", "'{\"a\":1}'", "BSTR {\"a\":1}"},
      {"binary(3)", "'x'", "bytes 78 00 00"},
      {"varbinary(3)", "x'00FF'", "bytes 00 FF"},
      {"longblob", "''", "bytes"},
      {"date", "'2024-02-29'", "BSTR 2024-02-29"},
      {"time(3)", "'23:59:58.123'", "BSTR 23:59:58.123"},
      {"datetime(6)", "'2024-02-29 23:59:58.123456'",
       "BSTR 2024-02-29 23:59:58.123456"},
      {"timestamp", "'2024-02-29 23:59:58'", "BSTR 2024-02-29 23:59:58"},
      {"uuid", "'00112233-4455-6677-8899-aabbccddeeff'",
       "BSTR 00112233-4455-6677-8899-aabbccddeeff"},
  };
  return columns;
}

class ScriptColumns : public ScriptJourney {
 protected:
  const std::vector<ColumnType>& column_types() const {
    if (on(kSqlite)) return sqlite_columns();
    return on(kPostgres) ? postgres_columns() : mariadb_columns();
  }
};

TEST_P(ScriptColumns, EverySqlTypeBecomesAValue) {
  for (const ColumnType& column : column_types()) {
    SCOPED_TRACE(std::string(column.declaration) + " " + column.literal);
    run("CREATE TABLE c (x " + std::string(column.declaration) + ")");
    run("INSERT INTO c VALUES (" + std::string(column.literal) + ")");

    EXPECT_EQ(value("SELECT x FROM c"), column.value);

    run("DROP TABLE c");
  }
}

TEST_P(ScriptColumns, NullOfEverySqlTypeIsNull) {
  for (const ColumnType& column : column_types()) {
    run("CREATE TABLE c (x " + std::string(column.declaration) + " NULL)");
    run("INSERT INTO c VALUES (NULL)");
    EXPECT_EQ(value("SELECT x FROM c"), "NULL") << column.declaration;
    run("DROP TABLE c");
  }
}

TEST_P(ScriptColumns, AreFoundByPositionAndByNameInAnyCase) {
  const Object row =
      run("SELECT 1 AS " + quoted("First") + ", 'two' AS " + quoted("SECOND"));

  EXPECT_EQ(shown(Object(row("first")).get("Value")), "I8 1");
  EXPECT_EQ(shown(Object(row("second")).get("Value")), "BSTR two");
  EXPECT_EQ(shown(Object(row.call("Fields", 1)).get("Name")), "BSTR SECOND");
  EXPECT_EQ(shown(Object(row.get("Fields")).get("Count")), "I4 2");
  for (const _variant_t& unknown :
       {_variant_t(L"third"), _variant_t(2), _variant_t(-1)}) {
    scripting::expect_error(error_of([&] { row(unknown); }),
                            component::kNotFoundCode, "ZIRDB.Recordset",
                            component::kNotFoundText);
  }
}

// Names are compared under the locale in force, which is the "C" locale here
// unless a driver has set another one.
TEST_P(ScriptColumns, LettersBeyondAsciiHaveACaseWhereTheLocaleSaysSo) {
  const Object row = run("SELECT 1 AS " + quoted("sp\u00E4lte"));
  const auto act = [&] { row("SP\u00C4LTE"); };

  EXPECT_EQ(shown(Object(row("SP\u00E4LTE")).get("Value")), "I8 1");
  if (std::string(std::setlocale(LC_CTYPE, nullptr)) == "C") {
    EXPECT_EQ(error_of(act).code(), component::kNotFoundCode);
  } else {
    act();
  }
}

TEST_P(ScriptColumns, AnEmptyResultHasItsColumnsAndStandsAtBothEnds) {
  run("CREATE TABLE c (n INTEGER, t VARCHAR(5))");

  const Object none = run("SELECT t, n FROM c");

  EXPECT_EQ(shown(none.get("State")), "I4 1");
  EXPECT_EQ(shown(none.get("BOF")), "BOOL -1");
  EXPECT_EQ(shown(none.get("EOF")), "BOOL -1");
  EXPECT_EQ(shown(Object(none.get("Fields")).get("Count")), "I4 2");
  EXPECT_EQ(shown(Object(none("n")).get("Name")), "BSTR n");
  scripting::expect_error(error_of([&] { none.call("MoveNext"); }),
                          component::kNoCurrentRecordCode, "ZIRDB.Recordset",
                          component::kNoCurrentRecordText);
}

// ---------------------------------------------------------------------------
// What a statement says
// ---------------------------------------------------------------------------

// Three rows: 1 'one', 2 'two', 3 'three'.
class ScriptStatements : public ScriptJourney {
 protected:
  void SetUp() override {
    ScriptJourney::SetUp();
    if (IsSkipped()) return;
    run("CREATE TABLE s (id INTEGER PRIMARY KEY, t VARCHAR(20))");
    run("INSERT INTO s VALUES (1, 'one'), (2, 'two'), (3, 'three')");
  }
};

TEST_P(ScriptStatements, WithoutColumnsTellTheirRowsAndGiveNothing) {
  const struct {
    const char* sql;
    const char* count;
  } kRows[] = {
      {"CREATE TABLE fresh (n INTEGER)", "I8 0"},
      {"INSERT INTO fresh VALUES (1), (2), (3)", "I8 3"},
      {"UPDATE fresh SET n = n + 10 WHERE n > 1", "I8 2"},
      {"DELETE FROM fresh WHERE n = 1", "I8 1"},
      {"DROP TABLE fresh", "I8 0"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(rows_affected(connection(), row.sql), row.count) << row.sql;
  }
  EXPECT_EQ(shown(run("DELETE FROM s")), "EMPTY");
}

TEST_P(ScriptStatements, WithColumnsTellNoNumberOfRows) {
  EXPECT_EQ(rows_affected(connection(), "SELECT * FROM s"), "I8 -1");
}

TEST_P(ScriptStatements, OfACommandWithoutColumnsGiveAClosedRecordset) {
  const Object nothing = command("UPDATE s SET t = ? WHERE id = ?",
                                 {input_of(ZIRDB_AD_VARWCHAR, L"uno"),
                                  input_of(ZIRDB_AD_INTEGER, 1)})
                             .call("Execute");

  EXPECT_EQ(shown(nothing.get("State")), "I4 0");
  EXPECT_EQ(shown(Object(nothing.get("Fields")).get("Count")), "I4 0");
  EXPECT_EQ(value("SELECT t FROM s WHERE id = 1"), "BSTR uno");
}

// Drivers that say "no data" for an UPDATE without a row are told a failure,
// for which they have no text.
TEST_P(ScriptStatements, ThatChangeNoRowFailWhereTheDriverSaysNoData) {
  for (const char* sql :
       {"UPDATE s SET t = 'x' WHERE id = 9", "DELETE FROM s WHERE id = 9"}) {
    SCOPED_TRACE(sql);
    if (driver().no_matching_row_fails) {
      for (const bool by_command : {false, true}) {
        const auto error = error_of(
            [&] { by_command ? command(sql).call("Execute") : run(sql); });
        scripting::expect_error(error, component::kExecuteFailedCode,
                                "ZIRDB.Connection", L"ODBC operation failed");
      }
    } else {
      EXPECT_EQ(rows_affected(connection(), sql), "I8 0");
    }
  }
  EXPECT_EQ(value("SELECT COUNT(*) FROM s"), "I8 3");
}

TEST_P(ScriptStatements, ThatFailSayTheirState) {
  const struct {
    const char* sql;
    const char* state;
  } kRows[] = {
      {"SELEC 1", driver().syntax_error_state},
      {"SELECT * FROM nowhere", driver().missing_table_state},
      {"INSERT INTO s VALUES (1, 'again')", driver().duplicate_key_state},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.sql);
    expect_failed_with_state(error_of([&] { run(row.sql); }), row.state);
    expect_failed_with_state(
        error_of([&] { command(row.sql).call("Execute"); }), row.state);
  }
  expect_failed_with_state(
      error_of([&] { run("INSERT INTO s VALUES (?, ?)", 2, "again"); }),
      driver().duplicate_key_state);
  EXPECT_EQ(value("SELECT COUNT(*) FROM s"), "I8 3");
}

TEST_P(ScriptStatements, ThatFailLeaveParametersAndArraysAsTheyWere) {
  const Object inserting = command("INSERT INTO s VALUES (?, ?)",
                                   {input_of(ZIRDB_AD_INTEGER, L"1"),
                                    input_of(ZIRDB_AD_VARWCHAR, L"again")});
  scripting::Array arguments = scripting::Array::of("1", _variant_t());

  error_of([&] { inserting.call("Execute"); });
  error_of([&] { inserting.call("Execute", arguments.reference()); });

  EXPECT_EQ(parameter_of(inserting, 0), "BSTR 1");
  EXPECT_EQ(shown(arguments[0]), "BSTR 1");
  EXPECT_EQ(shown(arguments[1]), "EMPTY");
}

TEST_P(ScriptStatements, ThatFailLeaveTheCountOfRowsAsItWas) {
  _variant_t count = L"before";
  error_of([&] {
    connection().call("Execute", "INSERT INTO s VALUES (1, 'again')",
                      values::reference_to(&count));
  });
  EXPECT_EQ(shown(count), "BSTR before");
}

TEST_P(ScriptStatements, HundredsRunOnOneConnection) {
  const Object inserting = command(
      "INSERT INTO s VALUES (?, ?)",
      {input_of(ZIRDB_AD_INTEGER, 0), input_of(ZIRDB_AD_VARWCHAR, L"")});
  const Object list = inserting.get("Parameters");
  const Object id = list(0);
  const Object text = list(1);
  for (int i = 1000; i < 1300; ++i) {
    id.put("Value", i);
    text.put("Value", "row " + std::to_string(i));
    inserting.call("Execute");
    EXPECT_EQ(value("SELECT t FROM s WHERE id = ?", i),
              "BSTR row " + std::to_string(i));
  }
  EXPECT_EQ(value("SELECT COUNT(*) FROM s WHERE id >= 1000"), "I8 300");
}

ZIRDB_FOR_EVERY_DRIVER(ScriptColumns);
ZIRDB_FOR_EVERY_DRIVER(ScriptStatements);

// ---------------------------------------------------------------------------
// Options of drivers
// ---------------------------------------------------------------------------

class ScriptPostgresColumns : public ScriptJourney {};

TEST_P(ScriptPostgresColumns, BooleansAreTruthValuesWithoutBoolsAsChar) {
  const Object other = open(";BoolsAsChar=0");
  const std::vector<std::string> expected = {"BOOL -1", "BOOL 0", "NULL"};
  EXPECT_EQ(row_of(other("SELECT true, false, NULL::boolean")), expected);
}

// Opening a connection does that to the whole process, once and for all.
TEST_P(ScriptPostgresColumns, TheDriverTakesTheCharacterTypeOfTheEnvironment) {
  const std::string after = std::setlocale(LC_CTYPE, nullptr);
  EXPECT_EQ(after, std::setlocale(LC_CTYPE, ""));
  EXPECT_NE(after, "C");
  // Numbers keep their decimal point.
  EXPECT_STREQ(std::setlocale(LC_NUMERIC, nullptr), "C");
}

// Bound as a number, and yet text where nothing says what it is compared with.
TEST_P(ScriptPostgresColumns, AMarkerByItselfIsText) {
  EXPECT_EQ(value("SELECT ?", 7), "BSTR 7");
  EXPECT_EQ(value("SELECT CAST(? AS bigint)", 7), "I8 7");
}

INSTANTIATE_TEST_SUITE_P(, ScriptPostgresColumns, testing::Values(&kPostgres),
                         driver_name);

}  // namespace
}  // namespace zirdb_test
