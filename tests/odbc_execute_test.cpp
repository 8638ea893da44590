// SPDX-License-Identifier: MIT
//
// One execution from statement to row count: which path it takes, what the
// driver is asked, how each step fails and what a failure leaves. Columns and
// cells are in odbc_fetch_test.cpp, parameters in the binding tests.
//
// Sections: ways to execute; refused arguments and the reset; the paths; the
// steps that fail; the number of columns; affected rows; one result after
// another.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "support/scripted_odbc_fixture.h"
#include "zirdb_odbc.h"

namespace {

using namespace scripted_odbc;
using Labels = std::vector<std::string>;
using Parameters = std::vector<ZirdbOdbcParameter>;

// ---------------------------------------------------------------------------
// Ways to execute
// ---------------------------------------------------------------------------

Parameters one_integer() {
  Parameters parameters(1);
  parameters[0].type = 3;
  parameters[0].direction = 1;
  parameters[0].value.kind = ZirdbOdbcValueKind::Int64;
  parameters[0].value.int64_value = 5;
  return parameters;
}

/// One of the three functions with one kind of parameter list.
struct Way {
  const char* name;
  bool prepares;
  bool (*run)(void* connection, const std::string& sql,
              ZirdbOdbcResult* result);
};

const Way kWays[] = {
    {"without parameters", false,
     [](void* connection, const std::string& sql, ZirdbOdbcResult* result) {
       return zirdb_odbc_execute(connection, sql, result);
     }},
    {"null parameters", false,
     [](void* connection, const std::string& sql, ZirdbOdbcResult* result) {
       return zirdb_odbc_execute(connection, sql, nullptr, result);
     }},
    {"no parameters", false,
     [](void* connection, const std::string& sql, ZirdbOdbcResult* result) {
       Parameters none;
       return zirdb_odbc_execute(connection, sql, &none, result);
     }},
    {"a parameter", true,
     [](void* connection, const std::string& sql, ZirdbOdbcResult* result) {
       Parameters one = one_integer();
       return zirdb_odbc_execute(connection, sql, &one, result);
     }},
    {"internal, null parameters", false,
     [](void* connection, const std::string& sql, ZirdbOdbcResult* result) {
       return zirdb_odbc_execute_internal(connection, sql, nullptr, result);
     }},
    {"internal, no parameters", false,
     [](void* connection, const std::string& sql, ZirdbOdbcResult* result) {
       Parameters none;
       return zirdb_odbc_execute_internal(connection, sql, &none, result);
     }},
    {"internal, a parameter", true,
     [](void* connection, const std::string& sql, ZirdbOdbcResult* result) {
       Parameters one = one_integer();
       return zirdb_odbc_execute_internal(connection, sql, &one, result);
     }},
};

/// A result as an earlier execution may have left it.
ZirdbOdbcResult used_result() {
  ZirdbOdbcResult result;
  result.columns.resize(2);
  result.columns[0].name = "stale";
  result.rows.resize(3, std::vector<ZirdbOdbcValue>(2));
  result.rows_affected = 77;
  result.error = "stale";
  return result;
}

class Execute : public ScriptedOdbc {
 protected:
  /// Ends the test of one row of a table and begins that of the next.
  void next_row() {
    TearDown();
    SetUp();
  }

  /// Codes other than success and the end of data. The driver manager does not
  /// let go of a statement after most of them.
  static std::vector<int> failing_codes() {
    if (is_driver()) return {SQL_ERROR};
    return {SQL_ERROR, SQL_INVALID_HANDLE, SQL_STILL_EXECUTING, SQL_NEED_DATA,
            55 /* of no name */};
  }

  /// Three rows of a number and a text.
  static void script_a_table() {
    script().columns({{"id", SQL_INTEGER}, {"name", SQL_VARCHAR}});
    script().rows(3, {cell(1), cell("abc")});
  }
};

// ---------------------------------------------------------------------------
// Refused arguments and the reset
// ---------------------------------------------------------------------------

void expect_untouched(const ZirdbOdbcResult& result) {
  EXPECT_EQ(result.columns.size(), 2U);
  EXPECT_EQ(result.columns.at(0).name, "stale");
  EXPECT_EQ(result.rows.size(), 3U);
  EXPECT_EQ(result.rows_affected, 77);
  EXPECT_EQ(result.error, "stale");
}

TEST_F(Execute, ANullConnectionTouchesNothing) {
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    ZirdbOdbcResult result = used_result();

    EXPECT_FALSE(way.run(nullptr, "select", &result));

    expect_untouched(result);
    EXPECT_TRUE(script().calls().empty());
  }
}

TEST_F(Execute, ANullResultIsRefusedBeforeAnyCall) {
  void* const connection = open();
  script().clear_log();
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);

    EXPECT_FALSE(way.run(connection, "select", nullptr));
    EXPECT_FALSE(way.run(nullptr, "select", nullptr));

    EXPECT_TRUE(script().calls().empty());
  }
}

TEST_F(Execute, RefusedArgumentsLeaveTheParametersAlone) {
  Parameters parameters = one_integer();
  parameters[0].value.text_value = "kept";
  ZirdbOdbcResult result;

  EXPECT_FALSE(zirdb_odbc_execute(nullptr, "select", &parameters, &result));

  EXPECT_EQ(parameters[0].value.int64_value, 5);
  EXPECT_EQ(parameters[0].value.text_value, "kept");
}

TEST_F(Execute, TheResultIsResetBeforeTheFirstCall) {
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    ZirdbOdbcResult result = used_result();
    bool asked = false;
    script().on("SQLAllocHandle(STMT)",
                [&](const Call&) -> std::optional<Reply> {
                  asked = true;
                  EXPECT_TRUE(result.columns.empty());
                  EXPECT_TRUE(result.rows.empty());
                  EXPECT_EQ(result.rows_affected, 0);
                  EXPECT_EQ(result.error, "");
                  return std::nullopt;
                });

    EXPECT_TRUE(way.run(open(), "delete", &result)) << result.error;

    EXPECT_TRUE(asked);
    next_row();
  }
}

// ---------------------------------------------------------------------------
// The paths
// ---------------------------------------------------------------------------

TEST_F(Execute, OnlyAParameterListWithParametersIsPrepared) {
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    script_a_table();
    void* const connection = open();
    script().clear_log();

    ZirdbOdbcResult result;
    EXPECT_TRUE(way.run(connection, "select", &result)) << result.error;

    Labels expected = {"SQLAllocHandle(STMT)"};
    const Labels path =
        way.prepares ? Labels{"SQLPrepare", "SQLBindParameter(1)", "SQLExecute"}
                     : Labels{"SQLExecDirect"};
    expected.insert(expected.end(), path.begin(), path.end());
    const Labels rest = {
        "SQLNumResultCols", "SQLDescribeCol(1)", "SQLDescribeCol(2)",
        "SQLFetch",         "SQLGetData(1)",     "SQLGetData(2)",
        "SQLFetch",         "SQLGetData(1)",     "SQLGetData(2)",
        "SQLFetch",         "SQLGetData(1)",     "SQLGetData(2)",
        "SQLFetch",         "SQLRowCount",       "SQLFreeHandle(STMT)"};
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_EQ(script().labels(), expected);
    next_row();
  }
}

TEST_F(Execute, AStatementWithoutAResultSetIsNotFetched) {
  script().row_count(4);
  void* const connection = open();
  script().clear_log();

  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(connection, "update", &result));

  EXPECT_TRUE(result.columns.empty());
  EXPECT_TRUE(result.rows.empty());
  EXPECT_EQ(result.rows_affected, 4);
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(script().labels(),
            (Labels{"SQLAllocHandle(STMT)", "SQLExecDirect", "SQLNumResultCols",
                    "SQLRowCount", "SQLFreeHandle(STMT)"}));
}

TEST_F(Execute, TheSqlTextReachesTheDriverByteForByteUpToItsFirstNul) {
  struct Row {
    const char* name;
    std::string sql;
    std::string seen;
  };
  const std::string long_text =
      "select '" + std::string(std::size_t{1} << 20U, 'x') + "'";
  const Row rows[] = {
      {"plain", "select 1", "select 1"},
      {"empty", "", ""},
      {"blanks and line ends", "  select\t1\r\n;; ", "  select\t1\r\n;; "},
      {"UTF-8", "select '\xC3\xA4\xF0\x9F\x98\x80'",
       "select '\xC3\xA4\xF0\x9F\x98\x80'"},
      {"not UTF-8", "select '\xFF\x80\xC3'", "select '\xFF\x80\xC3'"},
      {"a NUL", std::string("select 1\0, 2", 12), "select 1"},
      {"one MiB", long_text, long_text},
  };
  for (const Row& row : rows) {
    for (const Way& way : kWays) {
      SCOPED_TRACE(std::string(row.name) + ", " + way.name);
      ZirdbOdbcResult result;
      EXPECT_TRUE(way.run(open(), row.sql, &result)) << result.error;

      const Call call =
          script().call(way.prepares ? "SQLPrepare" : "SQLExecDirect");
      EXPECT_EQ(call.bytes("sql"), row.seen);
      EXPECT_EQ(call.number("length"), SQL_NTS);
      next_row();
    }
  }
}

TEST_F(Execute, SuccessWithInfoIsSuccessAtEveryStep) {
  for (const char* where :
       {"SQLAllocHandle(STMT)", "SQLPrepare", "SQLBindParameter", "SQLExecute",
        "SQLExecDirect", "SQLNumResultCols", "SQLDescribeCol", "SQLFetch",
        "SQLGetData", "SQLRowCount", "SQLFreeHandle(STMT)"}) {
    for (const Way& way : kWays) {
      SCOPED_TRACE(std::string(where) + ", " + way.name);
      script_a_table();
      script().returns(where, SQL_SUCCESS_WITH_INFO, {"01000", 1, "note"});

      ZirdbOdbcResult result;
      EXPECT_TRUE(way.run(open(), "select", &result));

      EXPECT_EQ(result.error, "");
      ASSERT_EQ(result.rows.size(), 3U);
      EXPECT_EQ(result.rows[2].at(0).int64_value, 1);
      EXPECT_EQ(result.rows[2].at(1).text_value, "abc");
      EXPECT_EQ(script().count("SQLGetDiagRec"), 0U);
      next_row();
    }
  }
}

// ---------------------------------------------------------------------------
// The steps that fail
// ---------------------------------------------------------------------------

TEST_F(Execute, AStatementThatCannotBeAllocatedHasATextOfItsOwn) {
  for (const int code : failing_codes()) {
    for (const Way& way : kWays) {
      SCOPED_TRACE(std::to_string(code) + ", " + way.name);
      script().fail("SQLAllocHandle(STMT)", code, {"HY001", 1, "no memory"});
      void* const connection = open();
      script().clear_log();
      ZirdbOdbcResult result = used_result();

      EXPECT_FALSE(way.run(connection, "select", &result));

      EXPECT_EQ(result.error, "Unable to allocate ODBC statement");
      EXPECT_TRUE(result.columns.empty());
      EXPECT_TRUE(result.rows.empty());
      EXPECT_EQ(result.rows_affected, 0);
      EXPECT_EQ(script().labels(), Labels{"SQLAllocHandle(STMT)"});
      next_row();
    }
  }
}

/// A step that fails at one of its calls, and what the result then holds.
struct Step {
  const char* where;
  int call;
  bool prepared;
  std::size_t columns;
  std::size_t rows;
};

const Step kSteps[] = {
    {"SQLExecDirect", 1, false, 0, 0},
    {"SQLPrepare", 1, true, 0, 0},
    {"SQLExecute", 1, true, 0, 0},
    {"SQLNumResultCols", 1, false, 0, 0},
    {"SQLNumResultCols", 1, true, 0, 0},
    {"SQLDescribeCol(1)", 1, false, 0, 0},
    {"SQLDescribeCol(2)", 1, false, 1, 0},
    {"SQLDescribeCol(2)", 1, true, 1, 0},
    {"SQLFetch", 1, false, 2, 0},
    {"SQLFetch", 2, true, 2, 1},
    {"SQLFetch", 3, false, 2, 2},
    {"SQLFetch", 4, false, 2, 3},
    {"SQLGetData(1)", 1, false, 2, 0},
    {"SQLGetData(2)", 1, false, 2, 0},
    {"SQLGetData(1)", 3, false, 2, 2},
    {"SQLGetData(2)", 2, true, 2, 1},
    {"SQLGetData(2)", 3, false, 2, 2},
};

std::string described(const Step& step, int code) {
  return std::string(step.where) + ", call " + std::to_string(step.call) +
         (step.prepared ? ", prepared" : "") + ", code " + std::to_string(code);
}

bool run_step(const Step& step, void* connection, ZirdbOdbcResult* result) {
  Parameters one = one_integer();
  return zirdb_odbc_execute(connection, "select",
                            step.prepared ? &one : nullptr, result);
}

TEST_F(Execute, AFailingStepKeepsColumnsAndWholeRowsAndTellsItsDiagnostic) {
  for (const Step& step : kSteps) {
    for (const int code : failing_codes()) {
      SCOPED_TRACE(described(step, code));
      script_a_table();
      script().row_count(9);
      script().fail(step.where, nth(step.call), code, {"HY000", 7, "broken"});
      ZirdbOdbcResult result = used_result();

      EXPECT_FALSE(run_step(step, open(), &result));

      EXPECT_EQ(result.error, error_text("HY000", "broken"));
      ASSERT_EQ(result.columns.size(), step.columns);
      if (step.columns > 0) {
        EXPECT_EQ(result.columns[0].name, "id");
      }
      ASSERT_EQ(result.rows.size(), step.rows);
      for (const std::vector<ZirdbOdbcValue>& row : result.rows) {
        ASSERT_EQ(row.size(), 2U);
        EXPECT_EQ(row[1].text_value, "abc");
      }
      EXPECT_EQ(result.rows_affected, 0);
      next_row();
    }
  }
}

TEST_F(Execute, AFailingStepIsTheLastBeforeTheStatementIsReleased) {
  for (const Step& step : kSteps) {
    for (const int code : failing_codes()) {
      SCOPED_TRACE(described(step, code));
      script_a_table();
      script().fail(step.where, nth(step.call), code, {"HY000", 7, "broken"});
      void* const connection = open();
      script().clear_log();

      ZirdbOdbcResult result;
      EXPECT_FALSE(run_step(step, connection, &result));

      // The stand-in sees the text being fetched as well.
      Labels labels = script().labels();
      ASSERT_GE(labels.size(), 3U);
      EXPECT_EQ(labels.back(), "SQLFreeHandle(STMT)");
      labels.pop_back();
      if (!is_driver()) {
        EXPECT_EQ(labels.back(), "SQLGetDiagRec(1)");
        labels.pop_back();
      }
      EXPECT_EQ(labels.back(), step.where);
      EXPECT_EQ(script().count("SQLRowCount"), 0U);
      EXPECT_EQ(script().live("STMT"), 0U);
      EXPECT_EQ(script().live("DBC"), 1U);
      next_row();
    }
  }
}

TEST_F(Execute, AConnectionGoesOnAfterAnyFailure) {
  for (const Step& step : kSteps) {
    SCOPED_TRACE(described(step, SQL_ERROR));
    script_a_table();
    script().fail(step.where, nth(step.call), SQL_ERROR);
    void* const connection = open();
    ZirdbOdbcResult result;
    EXPECT_FALSE(run_step(step, connection, &result));

    EXPECT_TRUE(run_step(step, connection, &result)) << result.error;

    EXPECT_EQ(result.rows.size(), 3U);
    EXPECT_EQ(result.error, "");
    next_row();
  }
}

TEST_F(Execute, AFailureWithoutADiagnosticHasAGeneralText) {
  for (const Step& step : kSteps) {
    SCOPED_TRACE(described(step, SQL_ERROR));
    script_a_table();
    script().fail(step.where, nth(step.call), SQL_ERROR);

    ZirdbOdbcResult result;
    EXPECT_FALSE(run_step(step, open(), &result));

    EXPECT_EQ(result.error, "ODBC operation failed");
    next_row();
  }
}

TEST_F(Execute, NoDataIsAFailureOfEveryStepThatHasNoEnd) {
  for (const Step& step : kSteps) {
    const std::string where = step.where;
    // The end of the rows and the end of a text.
    if (where == "SQLFetch" || where == "SQLGetData(2)") continue;
    SCOPED_TRACE(described(step, SQL_NO_DATA));
    script_a_table();
    script().fail(step.where, nth(step.call), SQL_NO_DATA);

    ZirdbOdbcResult result;
    EXPECT_FALSE(run_step(step, open(), &result));

    EXPECT_EQ(result.error, "ODBC operation failed");
    EXPECT_EQ(result.columns.size(), step.columns);
    EXPECT_EQ(result.rows.size(), step.rows);
    next_row();
  }
}

TEST_F(Execute, NoDataFromAnUpdateThatMatchesNothingIsAFailure) {
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.name);
    script().returns(way.prepares ? "SQLExecute" : "SQLExecDirect",
                     SQL_NO_DATA);

    ZirdbOdbcResult result;
    EXPECT_FALSE(way.run(open(), "update t set a = 1 where 0 = 1", &result));

    EXPECT_EQ(result.error, "ODBC operation failed");
    EXPECT_EQ(result.rows_affected, 0);
    EXPECT_EQ(script().count("SQLNumResultCols"), 0U);
    EXPECT_EQ(script().count("SQLRowCount"), 0U);
    next_row();
  }
}

TEST_F(Execute, OnlyTheFirstOfSeveralDiagnosticsIsTold) {
  script().fail("SQLExecDirect", SQL_ERROR,
                {{"42S02", 1, "no such table"}, {"HY000", 2, "second"}});

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));

  EXPECT_EQ(result.error, error_text("42S02", "no such table"));
}

TEST_F(Execute, AVeryLongDiagnosticIsCutToItsFirst1023Bytes) {
  for (const std::size_t size : {1022U, 1023U, 1024U, 3000U}) {
    SCOPED_TRACE(size);
    script().fail("SQLExecDirect", SQL_ERROR,
                  {"HY000", 1, std::string(size, 'm')});

    ZirdbOdbcResult result;
    EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));

    EXPECT_EQ(result.error,
              "HY000: " + std::string(std::min<std::size_t>(size, 1023), 'm'));
    next_row();
  }
}

TEST_F(Execute, AStatementThatIsNotPreparedIsNeitherBoundNorExecuted) {
  script().fail("SQLPrepare", SQL_ERROR, {"42000", 1, "syntax"});
  Parameters parameters = one_integer();

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(open(), "selec", &parameters, &result));

  EXPECT_EQ(script().count("SQLBindParameter"), 0U);
  EXPECT_EQ(script().count("SQLExecute"), 0U);
}

TEST_F(Execute, AStatementThatIsNotBoundIsNotExecuted) {
  script().fail("SQLBindParameter(1)", SQL_ERROR, {"07009", 1, "no marker"});
  Parameters parameters = one_integer();

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &parameters, &result));

  EXPECT_EQ(result.error, error_text("07009", "no marker"));
  EXPECT_EQ(script().count("SQLExecute"), 0U);
  EXPECT_EQ(script().live("STMT"), 0U);
}

/// An output parameter that a driver fills with "out" at the execution.
Parameters one_output() {
  Parameters parameters(1);
  parameters[0].type = 200;
  parameters[0].direction = 2;
  parameters[0].size = 10;
  parameters[0].value.kind = ZirdbOdbcValueKind::Text;
  parameters[0].value.text_value = "before";
  return parameters;
}

TEST_F(Execute, AFailureAfterTheExecutionLeavesTheParametersAlone) {
  for (const Step& step : kSteps) {
    if (!step.prepared) continue;
    SCOPED_TRACE(described(step, SQL_ERROR));
    script_a_table();
    script().output(1, cell("out"));
    script().returns(step.where, nth(step.call), SQL_ERROR);
    Parameters parameters = one_output();

    ZirdbOdbcResult result;
    EXPECT_FALSE(zirdb_odbc_execute(open(), "call", &parameters, &result));

    EXPECT_EQ(parameters[0].value.kind, ZirdbOdbcValueKind::Text);
    EXPECT_EQ(parameters[0].value.text_value, "before");
    next_row();
  }
}

TEST_F(Execute, ParametersAreReadBackBetweenTheRowCountAndTheRelease) {
  Parameters parameters = one_output();
  std::string at_row_count;
  std::string at_release;
  script().output(1, cell("out"));
  script().on("SQLRowCount", [&](const Call&) -> std::optional<Reply> {
    at_row_count = parameters[0].value.text_value;
    return std::nullopt;
  });
  script().on("SQLFreeHandle(STMT)", [&](const Call&) -> std::optional<Reply> {
    at_release = parameters[0].value.text_value;
    return std::nullopt;
  });

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "call", &parameters, &result))
      << result.error;

  EXPECT_EQ(at_row_count, "before");
  EXPECT_EQ(at_release, "out");
}

// ---------------------------------------------------------------------------
// The number of columns
// ---------------------------------------------------------------------------

TEST_F(Execute, ANumberOfColumnsOfZeroOrLessIsNoResultSet) {
  for (const int count : {0, -1, -32768}) {
    SCOPED_TRACE(count);
    script_a_table();
    script().column_count(count);

    ZirdbOdbcResult result;
    EXPECT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

    EXPECT_TRUE(result.columns.empty());
    EXPECT_TRUE(result.rows.empty());
    EXPECT_EQ(script().count("SQLDescribeCol"), 0U);
    EXPECT_EQ(script().count("SQLFetch"), 0U);
    EXPECT_EQ(script().count("SQLRowCount"), 1U);
    next_row();
  }
}

TEST_F(Execute, ANumberOfColumnsThatIsNotToldIsNoResultSet) {
  script_a_table();
  // Succeeds and writes nothing.
  script().fail("SQLNumResultCols", SQL_SUCCESS);

  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_TRUE(result.columns.empty());
  EXPECT_EQ(script().count("SQLFetch"), 0U);
}

TEST_F(Execute, FewerColumnsThanPromisedAreAFailureAfterTheLastOne) {
  script_a_table();
  script().column_count(4);

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));

  EXPECT_EQ(result.columns.size(), 2U);
  EXPECT_EQ(script().count("SQLDescribeCol"), 3U);
  EXPECT_EQ(script().count("SQLFetch"), 0U);
}

// ---------------------------------------------------------------------------
// Affected rows
// ---------------------------------------------------------------------------

TEST_F(Execute, AffectedRowsAreTheDriversCountOrElseTheFetchedRows) {
  constexpr SQLLEN kMost = std::numeric_limits<SQLLEN>::max();
  constexpr SQLLEN kLeast = std::numeric_limits<SQLLEN>::min();
  struct Row {
    const char* name = "";
    bool is_select = false;
    std::size_t fetched = 0;
    std::optional<SQLLEN> counted;  // none: the driver writes no count
    int code = SQL_SUCCESS;
    std::int64_t affected = 0;
  };
  const Row rows[] = {
      {"update of none", false, 0, 0, SQL_SUCCESS, 0},
      {"update of five", false, 0, 5, SQL_SUCCESS, 5},
      {"update of very many", false, 0, kMost, SQL_SUCCESS, kMost},
      {"unknown count", false, 0, -1, SQL_SUCCESS, 0},
      {"odd count", false, 0, -7, SQL_SUCCESS, 0},
      {"no count", false, 0, std::nullopt, SQL_SUCCESS, 0},
      {"failing count", false, 0, std::nullopt, SQL_ERROR, 0},
      {"failing count that is written", false, 0, 9, SQL_ERROR, 9},
      {"count without data", false, 0, 2, SQL_NO_DATA, 2},
      {"count with info", false, 0, 4, SQL_SUCCESS_WITH_INFO, 4},
      {"select, unknown count", true, 3, -1, SQL_SUCCESS, 3},
      {"select, least count", true, 3, kLeast, SQL_SUCCESS, 3},
      {"select, count 0", true, 3, 0, SQL_SUCCESS, 3},
      {"select, right count", true, 3, 3, SQL_SUCCESS, 3},
      {"select, count too high", true, 3, 7, SQL_SUCCESS, 7},
      {"select, count too low", true, 3, 1, SQL_SUCCESS, 1},
      {"select, most", true, 3, kMost, SQL_SUCCESS, kMost},
      {"select, no count", true, 3, std::nullopt, SQL_SUCCESS, 3},
      {"select, failing count", true, 3, std::nullopt, SQL_ERROR, 3},
      {"select, failing count that is written", true, 3, 9, SQL_ERROR, 9},
      {"select, count without data", true, 3, -1, SQL_NO_DATA, 3},
      {"empty select, unknown count", true, 0, -1, SQL_SUCCESS, 0},
      {"empty select, count 0", true, 0, 0, SQL_SUCCESS, 0},
      {"empty select, count 6", true, 0, 6, SQL_SUCCESS, 6},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.is_select) script().columns({{"id", SQL_INTEGER}});
    script().rows(row.fetched, {cell(1)});
    if (row.counted) {
      script().row_count(*row.counted);
      script().returns("SQLRowCount", row.code);
    } else {
      script().fail("SQLRowCount", row.code);
    }

    ZirdbOdbcResult result;
    EXPECT_TRUE(zirdb_odbc_execute(open(), "sql", &result)) << result.error;

    EXPECT_EQ(result.rows_affected, row.affected);
    EXPECT_EQ(result.rows.size(), row.fetched);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(script().count("SQLRowCount"), 1U);
    EXPECT_EQ(script().count("SQLGetDiagRec"), 0U);
    next_row();
  }
}

TEST_F(Execute, RowsAreCountedAfterTheLastFetch) {
  script_a_table();
  std::size_t fetches = 0;
  script().on("SQLRowCount", [&](const Call&) -> std::optional<Reply> {
    fetches = script().count("SQLFetch");
    return std::nullopt;
  });

  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(fetches, 4U);
}

// ---------------------------------------------------------------------------
// One result after another
// ---------------------------------------------------------------------------

TEST_F(Execute, AReusedResultMixesNothing) {
  script().result_for(
      "wide", {{{"a", SQL_INTEGER}, {"b", SQL_VARCHAR}},
               {{cell(1), cell("x")}, {cell(2), cell(std::string(3000, 'y'))}},
               2,
               std::nullopt});
  script().result_for(
      "narrow",
      {{{"c", SQL_VARCHAR}}, {{cell("z")}}, std::nullopt, std::nullopt});
  script().result_for("update", {{}, {}, 5, std::nullopt});
  script().fail("SQLExecDirect", nth(4), SQL_ERROR, {"42000", 1, "syntax"});
  void* const connection = open();
  ZirdbOdbcResult result;

  EXPECT_TRUE(zirdb_odbc_execute(connection, "wide", &result));
  EXPECT_EQ(result.columns.size(), 2U);
  EXPECT_EQ(result.rows.size(), 2U);

  EXPECT_TRUE(zirdb_odbc_execute(connection, "narrow", &result));
  ASSERT_EQ(result.columns.size(), 1U);
  EXPECT_EQ(result.columns[0].name, "c");
  ASSERT_EQ(result.rows.size(), 1U);
  ASSERT_EQ(result.rows[0].size(), 1U);
  EXPECT_EQ(result.rows[0][0].text_value, "z");
  EXPECT_EQ(result.rows_affected, 1);

  EXPECT_TRUE(zirdb_odbc_execute(connection, "update", &result));
  EXPECT_TRUE(result.columns.empty());
  EXPECT_TRUE(result.rows.empty());
  EXPECT_EQ(result.rows_affected, 5);

  EXPECT_FALSE(zirdb_odbc_execute(connection, "wide", &result));
  EXPECT_TRUE(result.columns.empty());
  EXPECT_TRUE(result.rows.empty());
  EXPECT_EQ(result.rows_affected, 0);
  EXPECT_EQ(result.error, error_text("42000", "syntax"));

  EXPECT_TRUE(zirdb_odbc_execute(connection, "narrow", &result));
  EXPECT_EQ(result.rows.size(), 1U);
  EXPECT_EQ(result.error, "");
}

TEST_F(Execute, EveryExecutionHasAStatementOfItsOwn) {
  void* const connection = open();
  ZirdbOdbcResult result;
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(zirdb_odbc_execute(connection, "delete", &result));
    EXPECT_EQ(script().live("STMT"), 0U);
  }
  EXPECT_EQ(script().allocated("STMT"), 50U);
  EXPECT_EQ(script().count("SQLFreeHandle(STMT)"), 50U);
  EXPECT_EQ(script().count("SQLDriverConnect"), 1U);
}

}  // namespace
