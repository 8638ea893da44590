// SPDX-License-Identifier: MIT
//
// Statements through a real driver: what each reports, how it fails, and that
// a connection goes on afterwards.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/database.h"

namespace zirdb_test {
namespace {

// Three rows: 1 'one', 2 'two', 3 'three'.
class JourneyStatements : public Journey {
 protected:
  void SetUp() override {
    Journey::SetUp();
    if (IsSkipped()) return;
    db().run("CREATE TABLE s (id INTEGER PRIMARY KEY, t VARCHAR(20))");
    db().run("INSERT INTO s VALUES (1, 'one'), (2, 'two'), (3, 'three')");
  }

  void expect_state(const std::string& error, const char* state) {
    EXPECT_EQ(error.substr(0, 7), std::string(state) + ": ") << error;
    EXPECT_GT(error.size(), 7u);
  }
};

TEST_P(JourneyStatements, StatementsWithoutAResultReportTheirRows) {
  const struct {
    const char* sql;
    std::int64_t rows_affected;
  } rows[] = {
      {"CREATE TABLE fresh (n INTEGER)", 0},
      {"INSERT INTO fresh VALUES (1)", 1},
      {"INSERT INTO fresh VALUES (2), (3), (4)", 3},
      {"UPDATE fresh SET n = n + 10 WHERE n > 2", 2},
      {"DELETE FROM fresh WHERE n = 1", 1},
      {"DELETE FROM fresh", 3},
      {"DROP TABLE fresh", 0},
  };
  for (const auto& row : rows) {
    const ZirdbOdbcResult result = db().run(row.sql);
    EXPECT_EQ(result.rows_affected, row.rows_affected) << row.sql;
    EXPECT_TRUE(result.columns.empty()) << row.sql;
    EXPECT_TRUE(result.rows.empty()) << row.sql;
  }
}

TEST_P(JourneyStatements, ASelectReportsTheRowsItFetched) {
  EXPECT_EQ(db().run("SELECT id FROM s").rows_affected, 3);
  EXPECT_EQ(db().run("SELECT id FROM s WHERE id > 1").rows_affected, 2);
  EXPECT_EQ(db().run("SELECT id FROM s WHERE id > 9").rows_affected, 0);
  EXPECT_EQ(
      db().run("SELECT id FROM s WHERE id > ?", {input(kInteger, integer(2))})
          .rows_affected,
      1);
}

TEST_P(JourneyStatements, RowsComeInTheirOrder) {
  const ZirdbOdbcResult result =
      db().run("SELECT id, t FROM s ORDER BY id DESC");

  ASSERT_EQ(result.rows.size(), 3u);
  EXPECT_EQ(result.rows[0][0], integer(3));
  EXPECT_EQ(result.rows[0][1], text("three"));
  EXPECT_EQ(result.rows[2][0], integer(1));
  EXPECT_EQ(result.rows[2][1], text("one"));
}

TEST_P(JourneyStatements, AChangeOfNoRowFailsWhereTheDriverSaysNoData) {
  const char* const rows[] = {"UPDATE s SET t = 'x' WHERE id = 9",
                              "DELETE FROM s WHERE id = 9"};
  for (const char* row : rows) {
    if (driver().no_matching_row_fails) {
      EXPECT_EQ(db().error_of(row), "ODBC operation failed") << row;
    } else {
      EXPECT_EQ(db().run(row).rows_affected, 0) << row;
    }
  }
}

TEST_P(JourneyStatements, AChangeOfNoRowThroughAParameterIsNoDifferent) {
  const std::string sql = "DELETE FROM s WHERE id = ?";
  Parameters parameters = {input(kInteger, integer(9))};
  if (driver().no_matching_row_fails) {
    EXPECT_EQ(db().error_of(sql, parameters), "ODBC operation failed");
  } else {
    EXPECT_EQ(db().run(sql, parameters).rows_affected, 0);
  }
}

TEST_P(JourneyStatements, WritingTheSameValueAgainCountsWhereMatchesCount) {
  EXPECT_EQ(db().run("UPDATE s SET t = 'two' WHERE id = 2").rows_affected,
            driver().counts_only_changed_rows ? 0 : 1);
}

// Not SQLite: its driver's releases disagree on a RETURNING clause.
class JourneyReturning : public JourneyStatements {};

TEST_P(JourneyReturning, AnInsertReturnsRows) {
  const ZirdbOdbcResult result =
      db().run("INSERT INTO s VALUES (?, 'four') RETURNING t, id",
               {input(kInteger, integer(4))});

  EXPECT_EQ(result.rows_affected, 1);
  ASSERT_EQ(result.rows.size(), 1u);
  EXPECT_EQ(result.rows[0][0], text("four"));
  EXPECT_EQ(result.rows[0][1], integer(4));
  EXPECT_EQ(db().value_of("SELECT t FROM s WHERE id = 4"), text("four"));
}

TEST_P(JourneyStatements, AResultIsResetByEachExecution) {
  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(db().handle(), "SELECT * FROM s", &result));

  ASSERT_FALSE(zirdb_odbc_execute(db().handle(), "SELECT * FROM x", &result));
  EXPECT_TRUE(result.columns.empty());
  EXPECT_TRUE(result.rows.empty());
  EXPECT_EQ(result.rows_affected, 0);
  EXPECT_NE(result.error, "");

  ASSERT_TRUE(zirdb_odbc_execute(db().handle(), "SELECT t FROM s", &result));
  EXPECT_EQ(result.columns.size(), 1u);
  EXPECT_EQ(result.rows.size(), 3u);
  EXPECT_EQ(result.error, "");
}

TEST_P(JourneyStatements, ErrorsBeginWithTheirState) {
  expect_state(db().error_of("SELEC 1"), driver().syntax_error_state);
  expect_state(db().error_of("INSERT INTO s VALUES (1, 'again')"),
               driver().duplicate_key_state);
  expect_state(db().error_of("SELECT * FROM nowhere"),
               driver().missing_table_state);
}

TEST_P(JourneyStatements, ErrorsOfPreparedStatementsBeginWithTheirState) {
  const Parameters one = {input(kInteger, integer(1))};
  expect_state(db().error_of("SELEC ?", one), driver().syntax_error_state);
  expect_state(db().error_of("INSERT INTO s VALUES (?, 'again')", one),
               driver().duplicate_key_state);
  expect_state(db().error_of("SELECT * FROM nowhere WHERE id = ?", one),
               driver().missing_table_state);
}

TEST_P(JourneyStatements, AFailedExecutionLeavesParametersAsTheyWere) {
  Parameters parameters = {input(kInteger, integer(4294967297))};
  ZirdbOdbcResult result;

  ASSERT_FALSE(zirdb_odbc_execute(db().handle(),
                                  "INSERT INTO s VALUES (?, 'again')",
                                  &parameters, &result));

  EXPECT_EQ(parameters[0].value, integer(4294967297));
}

TEST_P(JourneyStatements, AMissingParameterIsAnError) {
  expect_state(db().error_of("SELECT * FROM s WHERE id = ? AND t = ?",
                             {input(kInteger, integer(1))}),
               driver().missing_parameter_state);
}

TEST_P(JourneyStatements, ASurplusParameterIsIgnored) {
  Parameters parameters = {input(kInteger, integer(2)),
                           input(kVarchar, text("surplus"))};
  const ZirdbOdbcResult result =
      db().run("SELECT t FROM s WHERE id = ?", parameters);
  ASSERT_EQ(result.rows.size(), 1u);
  EXPECT_EQ(result.rows[0][0], text("two"));
  EXPECT_EQ(parameters[1].value, text("surplus"));
}

TEST_P(JourneyStatements, AnEmptyStatementIsAnError) {
  const std::string error = db().error_of("");
  EXPECT_EQ(error.substr(5, 2), ": ") << error;
}

TEST_P(JourneyStatements, TheStatementEndsAtItsFirstNul) {
  const std::string sql("SELECT 1\0 this is no SQL", 24);
  EXPECT_EQ(db().value_of(sql), integer(1));
  EXPECT_EQ(db().value_of(std::string("SELECT t FROM s WHERE id = ?\0x", 30),
                          {input(kInteger, integer(1))}),
            text("one"));
}

TEST_P(JourneyStatements, TheFirstOfSeveralStatementsAnswersIfTheyMayRun) {
  const std::string sql = "SELECT 'first'; SELECT 'second'";
  if (driver().runs_several_statements) {
    EXPECT_EQ(db().value_of(sql), text("first"));
  } else {
    expect_state(db().error_of(sql), driver().syntax_error_state);
  }
  EXPECT_EQ(db().value_of("SELECT 'third'"), text("third"));
}

TEST_P(JourneyStatements, HundredsOfStatementsRunOnOneConnection) {
  constexpr std::int64_t kCount = 400;
  for (std::int64_t i = 1; i <= kCount; ++i) {
    db().run("INSERT INTO s VALUES (?, ?)",
             {input(kInteger, integer(1000 + i)),
              input(kVarchar, text("row " + std::to_string(i)))});
    if (i % 10 == 0) db().error_of("SELECT * FROM nowhere");
    EXPECT_EQ(db().value_of("SELECT t FROM s WHERE id = ?",
                            {input(kInteger, integer(1000 + i))}),
              text("row " + std::to_string(i)));
  }

  const ZirdbOdbcResult result =
      db().run("SELECT id FROM s WHERE id > 1000 ORDER BY id");
  ASSERT_EQ(result.rows.size(), static_cast<std::size_t>(kCount));
  EXPECT_EQ(result.rows.front()[0], integer(1001));
  EXPECT_EQ(result.rows.back()[0], integer(1000 + kCount));
  EXPECT_EQ(result.rows_affected, kCount);
}

// No cursor stays open: an open one would lock the table.
TEST_P(JourneyStatements, ATableCanBeDroppedRightAfterItWasRead) {
  db().run("SELECT * FROM s");
  db().run("SELECT * FROM s WHERE id = ?", {input(kInteger, integer(1))});
  db().error_of("INSERT INTO s VALUES (1, 'again')");
  EXPECT_EQ(db().run("DROP TABLE s").rows_affected, 0);
}

TEST_P(JourneyStatements, ATransactionCanBeRolledBack) {
  db().run("BEGIN");
  db().run("DELETE FROM s");
  EXPECT_EQ(db().value_of("SELECT COUNT(*) FROM s"), integer(0));

  db().run("ROLLBACK");

  EXPECT_EQ(db().value_of("SELECT COUNT(*) FROM s"), integer(3));
}

ZIRDB_FOR_EVERY_DRIVER(JourneyStatements);
INSTANTIATE_TEST_SUITE_P(, JourneyReturning,
                         testing::Values(&kPostgres, &kMariadb), driver_name);

// Drivers that can be told to fetch row by row, where a failure can come late.
struct RowByRow {
  const Driver* driver;
  const char* options;
  const char* fails_at_the_third_row;
  const char* state;
};
constexpr RowByRow kRowByRow[] = {
    {&kSqlite, ";StepAPI=1",
     "SELECT abs(x) AS q FROM (SELECT 1 AS x UNION ALL SELECT 2"
     " UNION ALL SELECT -9223372036854775807 - 1)",
     "HY000: "},
    {&kPostgres, ";UseDeclareFetch=1;Fetch=1",
     "SELECT 6 / (3 - x) AS q FROM generate_series(1, 5) AS x", "22012: "},
};

class JourneyRowByRow : public Journey {
 protected:
  const RowByRow& how() const {
    return kRowByRow[&driver() == &kSqlite ? 0 : 1];
  }
};

TEST_P(JourneyRowByRow, AFailureInTheThirdRowKeepsTheRowsBefore) {
  Connection connection = connect(how().options);
  ZirdbOdbcResult result;

  ASSERT_FALSE(zirdb_odbc_execute(connection.handle(),
                                  how().fails_at_the_third_row, &result));

  EXPECT_EQ(result.error.substr(0, 7), how().state) << result.error;
  ASSERT_EQ(result.columns.size(), 1u);
  EXPECT_EQ(result.columns[0].name, "q");
  EXPECT_EQ(result.rows.size(), 2u);
  EXPECT_EQ(result.rows_affected, 0);
}

TEST_P(JourneyRowByRow, AConnectionGoesOnAfterALateFailure) {
  Connection connection = connect(how().options);
  connection.error_of(how().fails_at_the_third_row);

  connection.run("CREATE TABLE later (n INTEGER)");
  connection.run("INSERT INTO later VALUES (1)");
  EXPECT_EQ(connection.value_of("SELECT n FROM later"), integer(1));
}

TEST_P(JourneyRowByRow, ManyRowsAreCountedWhereTheDriverDoesNotKnowTheNumber) {
  Connection connection = connect(how().options);
  connection.run("CREATE TABLE many (n INTEGER)");
  std::string values = "(0)";
  for (int i = 1; i < 250; ++i) values += ", (" + std::to_string(i) + ")";
  connection.run("INSERT INTO many VALUES " + values);

  const ZirdbOdbcResult result =
      connection.run("SELECT n FROM many ORDER BY n");

  ASSERT_EQ(result.rows.size(), 250u);
  EXPECT_EQ(result.rows[249][0], integer(249));
  EXPECT_EQ(result.rows_affected, 250);
}

INSTANTIATE_TEST_SUITE_P(, JourneyRowByRow,
                         testing::Values(&kSqlite, &kPostgres), driver_name);

class JourneyLongErrors : public Journey {};

// PostgreSQL repeats the whole value in its message.
TEST_P(JourneyLongErrors, AnErrorTextIsCutAt1023BytesAfterItsState) {
  const std::string value(3000, 'n');
  const std::string error =
      db().error_of("SELECT CAST('" + value + "' AS INTEGER)");

  EXPECT_EQ(error.substr(0, 7), "22P02: ");
  EXPECT_EQ(error.size(), 7u + 1023u);
  EXPECT_EQ(error.substr(1000), std::string(30, 'n'));
}

INSTANTIATE_TEST_SUITE_P(, JourneyLongErrors, testing::Values(&kPostgres),
                         driver_name);

}  // namespace
}  // namespace zirdb_test
