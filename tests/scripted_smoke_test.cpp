// SPDX-License-Identifier: MIT
//
// The abilities of the scripted database that tests rely on most, each once,
// through both of its faces.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "support/scripted_odbc_fixture.h"
#include "zirdb_odbc.h"

namespace {

using namespace scripted_odbc;
using Labels = std::vector<std::string>;

class ScriptedSmoke : public ScriptedOdbc {};

TEST_F(ScriptedSmoke, EveryKindOfCellArrives) {
  script().columns({{"i", SQL_INTEGER},
                    {"d", SQL_DOUBLE},
                    {"b", SQL_BIT},
                    {"t", SQL_VARCHAR},
                    {"x", SQL_VARBINARY}});
  const std::string bytes("\x00\xFF\x01", 3);
  script().row({cell(7), cell(1.5), cell(true), cell("abc"), binary(bytes)});
  script().row(
      {null_cell(), null_cell(), null_cell(), null_cell(), null_cell()});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  ASSERT_EQ(result.rows.size(), 2U);
  EXPECT_EQ(result.rows[0][0].int64_value, 7);
  EXPECT_EQ(result.rows[0][1].double_value, 1.5);
  EXPECT_TRUE(result.rows[0][2].bool_value);
  EXPECT_EQ(result.rows[0][3].text_value, "abc");
  EXPECT_EQ(result.rows[0][4].binary_value,
            std::vector<unsigned char>(bytes.begin(), bytes.end()));
  for (const ZirdbOdbcValue& value : result.rows[1]) {
    EXPECT_EQ(value.kind, ZirdbOdbcValueKind::Null);
  }
}

TEST_F(ScriptedSmoke, TheNthCallFailsWithItsDiagnostics) {
  script().columns({{"id", SQL_INTEGER}});
  script().rows(5, {cell(1)});
  script().fail("SQLFetch", nth(3), SQL_ERROR, {"HY000", 7, "broken"});

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));

  EXPECT_EQ(result.rows.size(), 2U);
  EXPECT_EQ(result.error, error_text("HY000", "broken"));
  EXPECT_EQ(script().count("SQLFetch"), 3U);
}

TEST_F(ScriptedSmoke, SuccessWithInfoAtEveryFetchStillEndsAfterTheLastRow) {
  script().columns({{"id", SQL_INTEGER}});
  script().rows(2, {cell(1)});
  script().returns("SQLFetch", SQL_SUCCESS_WITH_INFO, {"01000", 1, "note"});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(result.rows.size(), 2U);
}

TEST_F(ScriptedSmoke, AConnectionFailsWithItsDiagnostics) {
  script().fail("SQLDriverConnect", SQL_ERROR, {"08001", 1, "unreachable"});

  void* connection = nullptr;
  std::string error;
  EXPECT_FALSE(zirdb_odbc_open(connection_string(), &connection, &error));

  EXPECT_EQ(error, error_text("08001", "unreachable"));
}

TEST_F(ScriptedSmoke, LongTextComesInPiecesIntoZeroedBuffers) {
  const std::string text(2500, 'x');
  script().columns({{"t", SQL_VARCHAR}});
  script().row({cell(text).no_total()});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(result.rows.at(0).at(0).text_value, text);
  const std::vector<Call> reads = script().calls("SQLGetData(1)");
  ASSERT_EQ(reads.size(), 3U);
  for (const Call& read : reads) {
    EXPECT_EQ(read.bytes("buffer"), std::string(1024, '\0')) << read;
  }
}

TEST_F(ScriptedSmoke, ChunksAreDeliveredWordForWord) {
  script().columns({{"t", SQL_VARCHAR}});
  script().row({chunks({chunk(SQL_SUCCESS_WITH_INFO, "ab", SQL_NO_TOTAL),
                        chunk(SQL_ERROR, "", SQL_NULL_DATA)})});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(result.rows.at(0).at(0).kind, ZirdbOdbcValueKind::Null);
}

TEST_F(ScriptedSmoke, APreparedCallIsRecordedAndAnswered) {
  std::vector<ZirdbOdbcParameter> parameters(2);
  parameters[0].type = 3;
  parameters[0].direction = 1;
  parameters[0].value.kind = ZirdbOdbcValueKind::Int64;
  parameters[0].value.int64_value = 4294967297;
  parameters[1].type = 202;
  parameters[1].direction = 2;
  parameters[1].size = 10;
  script().output(2, cell("h\xC3\xA9"));
  void* const connection = open();
  script().clear_log();

  ZirdbOdbcResult result;
  ASSERT_TRUE(
      zirdb_odbc_execute(connection, "{CALL p(?, ?)}", &parameters, &result))
      << result.error;

  EXPECT_EQ(parameters[1].value.text_value, "h\xC3\xA9");
  EXPECT_EQ(script().sent(1).as<std::int32_t>(), 1);
  EXPECT_EQ(script().sent(2).buffer, std::string(22, '\0'));
  EXPECT_EQ(script().call("SQLPrepare").bytes("sql"), "{CALL p(?, ?)}");
  EXPECT_EQ(script().labels(),
            (Labels{"SQLAllocHandle(STMT)", "SQLPrepare", "SQLBindParameter(1)",
                    "SQLBindParameter(2)", "SQLExecute", "SQLNumResultCols",
                    "SQLRowCount", "SQLFreeHandle(STMT)"}));
}

TEST_F(ScriptedSmoke, RawOutputsLeaveIndicatorsAsScripted) {
  std::vector<ZirdbOdbcParameter> parameters(2);
  for (ZirdbOdbcParameter& parameter : parameters) {
    parameter.type = 200;
    parameter.direction = 2;
    parameter.size = 4;
  }
  script().output(1, raw("abcd", 99));
  script().output(2, raw("abcd", leave_alone));

  ZirdbOdbcResult result;
  ASSERT_TRUE(
      zirdb_odbc_execute(open(), "{CALL p(?, ?)}", &parameters, &result))
      << result.error;

  EXPECT_EQ(parameters[0].value.text_value, std::string("abcd\0", 5));
  EXPECT_EQ(parameters[1].value.text_value, "");
}

TEST_F(ScriptedSmoke, AStatementCanHaveAResultOfItsOwn) {
  ResultSet one;
  one.columns = {{"n", SQL_INTEGER}};
  one.rows = {{cell(1)}};
  script().result_for("select 1", one);
  void* const connection = open();

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(connection, "select 1", &result));
  EXPECT_EQ(result.rows.size(), 1U);
  ASSERT_TRUE(zirdb_odbc_execute(connection, "delete", &result));
  EXPECT_EQ(result.columns.size(), 0U);
}

TEST_F(ScriptedSmoke, AHandlerAnswersFromTheArguments) {
  script().on("SQLExecDirect", [](const Call& call) -> std::optional<Reply> {
    if (call.bytes("sql") != "bad") return std::nullopt;
    return Reply{false, SQL_ERROR, {"42000", 0, "syntax"}};
  });
  void* const connection = open();

  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(connection, "good", &result)) << result.error;
  EXPECT_FALSE(zirdb_odbc_execute(connection, "bad", &result));
  EXPECT_EQ(result.error, error_text("42000", "syntax"));
}

TEST_F(ScriptedSmoke, EveryHandleIsReleasedAtTheEnd) {
  void* const connection = open();
  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(connection, "delete", &result));
  EXPECT_EQ(script().live("DBC"), 1U);

  close(connection);

  for (const char* type : {"ENV", "DBC", "STMT"}) {
    EXPECT_EQ(script().allocated(type), 1U) << type;
    EXPECT_EQ(script().live(type), 0U) << type;
  }
}

TEST_F(ScriptedSmoke, ConnectionsOfSeveralThreadsKeepTheirOwnCursors) {
  constexpr std::size_t kThreads = 4;
  script().columns({{"id", SQL_INTEGER}, {"name", SQL_VARCHAR}});
  script().rows(50, {cell(1), cell("abc")});

  std::vector<std::size_t> fetched(kThreads);
  std::vector<std::thread> threads;
  for (std::size_t& count : fetched) {
    threads.emplace_back([this, &count] {
      ZirdbOdbcResult result;
      if (zirdb_odbc_execute(open(), "select", &result)) {
        count = result.rows.size();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(fetched, std::vector<std::size_t>(kThreads, 50));
}

}  // namespace
