// SPDX-License-Identifier: MIT
//
// Opening and closing connections: what a driver sees, what a caller gets, what
// is left behind. Written once for the real driver manager and for a stand-in;
// what only a stand-in can show is in odbc_exact_calls_test.cpp.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/scripted_odbc_fixture.h"
#include "zirdb_odbc.h"

namespace {

using namespace scripted_odbc;

/// Not a handle; open has to replace it.
void* nonsense() {
  static int place = 0;
  return &place;
}

class Open : public ScriptedOdbc {
 protected:
  /// Ends the test of one row of a table and begins that of the next.
  void next_row() {
    TearDown();
    SetUp();
  }

  static void expect_nothing_left() {
    EXPECT_EQ(script().live("STMT"), 0U);
    EXPECT_EQ(script().live("DBC"), 0U);
    EXPECT_EQ(script().live("ENV"), 0U);
  }
};

TEST_F(Open, ANullHandlePointerIsRefusedBeforeAnyCall) {
  std::string error = "earlier";

  EXPECT_FALSE(zirdb_odbc_open(connection_string(), nullptr, &error));

  EXPECT_EQ(error, "handle_out is required");
  EXPECT_TRUE(script().calls().empty());
}

TEST_F(Open, ANullHandlePointerWithoutAnErrorStringIsRefusedSilently) {
  EXPECT_FALSE(zirdb_odbc_open(connection_string(), nullptr, nullptr));

  EXPECT_TRUE(script().calls().empty());
}

TEST_F(Open, SuccessStoresAHandleAndLeavesTheErrorStringAsItWas) {
  for (const char* earlier : {"", "an earlier failure"}) {
    void* connection = nullptr;
    std::string error = earlier;

    EXPECT_TRUE(zirdb_odbc_open(connection_string(), &connection, &error));

    EXPECT_NE(connection, nullptr);
    EXPECT_EQ(error, earlier);
    zirdb_odbc_close(connection);
  }
}

TEST_F(Open, SuccessNeedsNoErrorString) {
  void* connection = nonsense();

  EXPECT_TRUE(zirdb_odbc_open(connection_string(), &connection, nullptr));

  EXPECT_NE(connection, nullptr);
  EXPECT_NE(connection, nonsense());
  zirdb_odbc_close(connection);
}

TEST_F(Open, SuccessWithInfoConnectsAndItsDiagnosticsAreDropped) {
  script().returns("SQLDriverConnect", SQL_SUCCESS_WITH_INFO,
                   {"01000", 1, "note"});
  void* connection = nullptr;
  std::string error = "earlier";

  ASSERT_TRUE(zirdb_odbc_open(connection_string(), &connection, &error));

  EXPECT_EQ(error, "earlier");
  EXPECT_EQ(script().count("SQLGetDiagRec"), 0U);
  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(connection, "select", &result));
  zirdb_odbc_close(connection);
}

struct Refusal {
  const char* name;
  int code;
  Diagnostics diagnostics;
  std::string error;
};

std::vector<Refusal> refusals() {
  std::vector<Refusal> rows = {
      {"one record",
       SQL_ERROR,
       {"08001", 1, "unreachable"},
       "08001: unreachable"},
      {"a text beyond ASCII",
       SQL_ERROR,
       {"28000", -5, "falsches Pa\xC3\x9Fwort"},
       "28000: falsches Pa\xC3\x9Fwort"},
      {"a long text",
       SQL_ERROR,
       {"08001", 1, std::string(500, 'm')},
       "08001: " + std::string(500, 'm')},
      {"no record", SQL_ERROR, {}, "ODBC operation failed"},
      {"no data", SQL_NO_DATA, {}, "ODBC operation failed"},
  };
  // The driver manager makes random bytes of an empty text.
  if (!ScriptedOdbc::is_driver()) {
    rows.push_back({"an empty text", SQL_ERROR, {"08004", 1, ""}, "08004: "});
  }
  return rows;
}

TEST_F(Open, ARefusedConnectionTellsTheFirstDiagnosticAndLeavesNothing) {
  for (const Refusal& row : refusals()) {
    SCOPED_TRACE(row.name);
    script().fail("SQLDriverConnect", row.code, row.diagnostics);
    void* connection = nonsense();
    std::string error = "earlier";

    EXPECT_FALSE(zirdb_odbc_open(connection_string(), &connection, &error));

    EXPECT_EQ(connection, nullptr);
    EXPECT_EQ(error, row.error);
    EXPECT_EQ(script().count("SQLDisconnect"), 0U);
    expect_nothing_left();
    next_row();
  }
}

TEST_F(Open, ARefusalWithoutAnErrorStringDoesTheSameSilently) {
  for (const Refusal& row : refusals()) {
    SCOPED_TRACE(row.name);
    script().fail("SQLDriverConnect", row.code, row.diagnostics);
    void* connection = nonsense();

    EXPECT_FALSE(zirdb_odbc_open(connection_string(), &connection, nullptr));

    EXPECT_EQ(connection, nullptr);
    EXPECT_EQ(script().count("SQLDisconnect"), 0U);
    expect_nothing_left();
    next_row();
  }
}

TEST_F(Open, AConnectionCanBeOpenedAfterARefusedOne) {
  script().fail("SQLDriverConnect", nth(1), SQL_ERROR, {"08001", 1, "busy"});
  void* connection = nullptr;
  std::string error;
  EXPECT_FALSE(zirdb_odbc_open(connection_string(), &connection, &error));

  EXPECT_TRUE(zirdb_odbc_open(connection_string(), &connection, &error));

  EXPECT_NE(connection, nullptr);
  zirdb_odbc_close(connection);
}

TEST_F(Open, TheConnectionStringReachesTheDriverUnchanged) {
  const char* const tails[] = {
      "",
      "UID=user;PWD=secret;",
      "  Odd Key = {a;b}}c} ;;",
      "DATABASE=\xC3\xA4\xF0\x9F\x98\x80;PWD=\xFF\x80",
      "TRAILING=blanks   ",
      "QUOTED='x' \"y\" %s%n\\",
  };
  for (const char* tail : tails) {
    const std::string text = connection_string() + tail;
    void* connection = nullptr;
    std::string error;

    EXPECT_TRUE(zirdb_odbc_open(text, &connection, &error)) << error;

    EXPECT_EQ(script().call("SQLDriverConnect").bytes("string"), text);
    zirdb_odbc_close(connection);
    next_row();
  }
}

TEST_F(Open, TheConnectionStringEndsAtItsFirstNul) {
  const std::string seen = connection_string() + "A=1;";
  void* connection = nullptr;

  EXPECT_TRUE(
      zirdb_odbc_open(seen + std::string("\0B=2;", 5), &connection, nullptr));

  EXPECT_EQ(script().call("SQLDriverConnect").bytes("string"), seen);
  zirdb_odbc_close(connection);
}

TEST_F(Open, ConnectionsAreIndependent) {
  script().columns({{"id", SQL_INTEGER}});
  script().row({cell(1)});
  void* const first = open();
  void* const second = open();
  EXPECT_NE(first, second);
  EXPECT_EQ(script().live("DBC"), 2U);

  close(first);

  EXPECT_EQ(script().live("DBC"), 1U);
  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(second, "select", &result)) << result.error;
  EXPECT_EQ(result.rows.size(), 1U);
}

TEST_F(Open, ARefusedConnectionLeavesTheOthersAlone) {
  void* const first = open();
  script().fail("SQLDriverConnect", SQL_ERROR, {"08004", 1, "too many"});
  void* second = nullptr;

  EXPECT_FALSE(zirdb_odbc_open(connection_string(), &second, nullptr));

  EXPECT_EQ(script().live("DBC"), 1U);
  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(first, "select", &result)) << result.error;
}

TEST_F(Open, NothingIsAskedOfTheDriverButTheConnection) {
  open();

  EXPECT_EQ(script().count("SQLDriverConnect"), 1U);
  for (const char* call : {"SQLPrepare", "SQLExecDirect", "SQLGetDiagRec",
                           "SQLAllocHandle(STMT)", "SQLDisconnect"}) {
    EXPECT_EQ(script().count(call), 0U) << call;
  }
}

TEST_F(Open, ClosingANullHandleDoesNothing) {
  zirdb_odbc_close(nullptr);

  EXPECT_TRUE(script().calls().empty());
}

TEST_F(Open, ClosingDisconnectsOnceAndReleasesEverything) {
  void* const connection = open();
  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(connection, "select", &result));

  close(connection);

  EXPECT_EQ(script().count("SQLDisconnect"), 1U);
  EXPECT_EQ(script().count("SQLFreeHandle(DBC)"), 1U);
  EXPECT_EQ(script().count("SQLFreeHandle(ENV)"), 1U);
  expect_nothing_left();
}

}  // namespace
