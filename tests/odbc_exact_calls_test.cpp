// SPDX-License-Identifier: MIT
//
// The exact calls the library makes, argument by argument, and what no driver
// manager would let through: failing environments, odd diagnostics, refused
// releases. Runs in place of the driver manager only.
//
// Sections: the log of whole calls; failing to open; closing; diagnostics.

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/scripted_odbc_fixture.h"
#include "zirdb_odbc.h"

namespace {

using namespace scripted_odbc;
using Lines = std::vector<std::string>;

class ExactCalls : public ScriptedOdbc {
 protected:
  /// Ends the test of one row of a table and begins that of the next.
  void next_row() {
    TearDown();
    SetUp();
  }

  /// The log, one call with all its arguments per line.
  static Lines log() {
    Lines lines;
    for (const Call& call : script().calls()) lines.push_back(call.text());
    return lines;
  }
};

/// Every code that is not a success, named by ODBC or not.
const int kFailures[] = {SQL_ERROR,
                         SQL_INVALID_HANDLE,
                         SQL_STILL_EXECUTING,
                         SQL_NEED_DATA,
                         SQL_NO_DATA,
                         3,
                         -3,
                         32767};

/// A buffer of zeros as the log shows it.
std::string zeros(std::size_t count) {
  std::string text = "\"";
  for (std::size_t i = 0; i < count && i < 80; ++i) text += "\\x00";
  text += "\"";
  if (count > 80) text += "...(" + std::to_string(count) + " bytes)";
  return text;
}

// ---------------------------------------------------------------------------
// The log of whole calls
// ---------------------------------------------------------------------------

TEST_F(ExactCalls, OpenAndClose) {
  close(open());

  EXPECT_EQ(
      log(),
      (Lines{"SQLAllocHandle(type=1, input=0, output=pointer) = 0",
             "SQLSetEnvAttr(env=1, attribute=200, value=3, length=0) = 0",
             "SQLAllocHandle(type=2, input=1, output=pointer) = 0",
             "SQLDriverConnect(dbc=2, window=null, string=\"DSN=scripted\", "
             "length=-3, out=null, out_size=0, out_length=null, completion=0) "
             "= 0",
             "SQLDisconnect(dbc=2) = 0", "SQLFreeHandle(type=2, handle=2) = 0",
             "SQLFreeHandle(type=1, handle=1) = 0"}));
}

TEST_F(ExactCalls, ADirectExecutionWithoutAResultSet) {
  void* const connection = open();
  script().clear_log();

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(connection, "delete from t", &result));

  EXPECT_EQ(
      log(),
      (Lines{"SQLAllocHandle(type=3, input=2, output=pointer) = 0",
             "SQLExecDirect(statement=3, sql=\"delete from t\", length=-3) = 0",
             "SQLNumResultCols(statement=3, count=pointer) = 0",
             "SQLRowCount(statement=3, count=pointer) = 0",
             "SQLFreeHandle(type=3, handle=3) = 0"}));
}

TEST_F(ExactCalls, ADirectExecutionWithColumnsOfEveryFamily) {
  script().columns({{"i", SQL_INTEGER},
                    {"d", SQL_DECIMAL},
                    {"b", SQL_BIT},
                    {"t", SQL_WVARCHAR},
                    {"x", SQL_BINARY},
                    {"g", -11}});
  script().row({cell(1), cell(1.5), cell(true), cell(std::string(1024, 't')),
                binary(std::string(1025, 'x')), cell("g")});
  void* const connection = open();
  script().clear_log();

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(connection, "select", &result));

  const auto describe = [](int column) {
    return "SQLDescribeCol(statement=3, column=" + std::to_string(column) +
           ", name=pointer, name_size=256, name_length=pointer, type=pointer, "
           "size=pointer, digits=pointer, nullable=pointer) = 0";
  };
  const auto read = [](int column, int c_type, std::size_t length,
                       int indicator, int code) {
    return "SQLGetData(statement=3, column=" + std::to_string(column) +
           ", c_type=" + std::to_string(c_type) + ", buffer=" + zeros(length) +
           ", buffer_length=" + std::to_string(length) +
           ", indicator=" + std::to_string(indicator) +
           ") = " + std::to_string(code);
  };
  EXPECT_EQ(log(),
            (Lines{"SQLAllocHandle(type=3, input=2, output=pointer) = 0",
                   "SQLExecDirect(statement=3, sql=\"select\", length=-3) = 0",
                   "SQLNumResultCols(statement=3, count=pointer) = 0",
                   describe(1),
                   describe(2),
                   describe(3),
                   describe(4),
                   describe(5),
                   describe(6),
                   "SQLFetch(statement=3) = 0",
                   read(1, SQL_C_SBIGINT, 8, 0, 0),
                   read(2, SQL_C_DOUBLE, 8, 0, 0),
                   read(3, SQL_C_BIT, 1, 0, 0),
                   read(4, SQL_C_CHAR, 1024, 0, 1),
                   read(4, SQL_C_CHAR, 1024, 1024, 0),
                   read(5, SQL_C_BINARY, 1024, 0, 1),
                   read(5, SQL_C_BINARY, 1024, 1025, 0),
                   read(6, SQL_C_CHAR, 1024, 0, 0),
                   "SQLFetch(statement=3) = 100",
                   "SQLRowCount(statement=3, count=pointer) = 0",
                   "SQLFreeHandle(type=3, handle=3) = 0"}));
}

TEST_F(ExactCalls, APreparedExecution) {
  std::vector<ZirdbOdbcParameter> parameters(2);
  for (ZirdbOdbcParameter& parameter : parameters) {
    parameter.type = 20;
    parameter.direction = 1;
    parameter.value.kind = ZirdbOdbcValueKind::Int64;
  }
  void* const connection = open();
  script().clear_log();

  ZirdbOdbcResult result;
  ASSERT_TRUE(
      zirdb_odbc_execute(connection, "call p(?, ?)", &parameters, &result));

  const auto bind = [](int number) {
    return "SQLBindParameter(statement=3, number=" + std::to_string(number) +
           ", direction=1, c_type=-25, sql_type=-5, column_size=19, digits=0, "
           "buffer=pointer, buffer_length=8, indicator=0) = 0";
  };
  EXPECT_EQ(
      log(),
      (Lines{"SQLAllocHandle(type=3, input=2, output=pointer) = 0",
             "SQLPrepare(statement=3, sql=\"call p(?, ?)\", length=-3) = 0",
             bind(1), bind(2), "SQLExecute(statement=3) = 0",
             "SQLNumResultCols(statement=3, count=pointer) = 0",
             "SQLRowCount(statement=3, count=pointer) = 0",
             "SQLFreeHandle(type=3, handle=3) = 0"}));
}

TEST_F(ExactCalls, AFailingExecution) {
  script().fail("SQLExecDirect", SQL_NEED_DATA, {"HY000", 7, "broken"});
  void* const connection = open();
  script().clear_log();

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(connection, "select", &result));

  EXPECT_EQ(log(),
            (Lines{"SQLAllocHandle(type=3, input=2, output=pointer) = 0",
                   "SQLExecDirect(statement=3, sql=\"select\", length=-3) = 99",
                   "SQLGetDiagRec(type=3, handle=3, record=1, state=pointer, "
                   "native=pointer, message=pointer, message_size=1024, "
                   "length=pointer) = 0",
                   "SQLFreeHandle(type=3, handle=3) = 0"}));
}

TEST_F(ExactCalls, EachConnectionHasItsOwnEnvironment) {
  void* const first = open();
  void* const second = open();
  EXPECT_EQ(script().allocated("ENV"), 2U);
  script().clear_log();

  ZirdbOdbcResult result;
  EXPECT_TRUE(zirdb_odbc_execute(second, "select", &result));
  close(first);
  close(second);

  EXPECT_EQ(script().call("SQLAllocHandle(STMT)").number("input"), 4);
  Lines ends;
  for (const Call& call : script().calls()) {
    if (call.name == "SQLDisconnect" || call.name == "SQLFreeHandle") {
      ends.push_back(call.text());
    }
  }
  EXPECT_EQ(
      ends,
      (Lines{"SQLFreeHandle(type=3, handle=5) = 0", "SQLDisconnect(dbc=2) = 0",
             "SQLFreeHandle(type=2, handle=2) = 0",
             "SQLFreeHandle(type=1, handle=1) = 0", "SQLDisconnect(dbc=4) = 0",
             "SQLFreeHandle(type=2, handle=4) = 0",
             "SQLFreeHandle(type=1, handle=3) = 0"}));
}

TEST_F(ExactCalls, AnyConnectionStringIsHandedOverUpToItsFirstNul) {
  struct Row {
    std::string text;
    std::string seen;
  };
  const std::string long_text = "PWD={" + std::string(100000, 'p') + "}";
  const Row rows[] = {
      {"", ""},
      {"DSN=x", "DSN=x"},
      {std::string("DSN=x\0PWD=y", 11), "DSN=x"},
      {std::string("\0DSN=x", 6), ""},
      {"\xFF\xC3\xA4", "\xFF\xC3\xA4"},
      {long_text, long_text},
  };
  for (const Row& row : rows) {
    void* connection = nullptr;
    EXPECT_TRUE(zirdb_odbc_open(row.text, &connection, nullptr));

    EXPECT_EQ(script().call("SQLDriverConnect").bytes("string"), row.seen);
    zirdb_odbc_close(connection);
    next_row();
  }
}

// ---------------------------------------------------------------------------
// Failing to open
// ---------------------------------------------------------------------------

/// A step of opening: what its failure tells and which calls were made.
struct Opening {
  const char* where;
  const char* error;
  bool asks;  // for a diagnostic, after the step
  Lines before;
  Lines after;
};

const Opening kOpenings[] = {
    {"SQLAllocHandle(ENV)",
     "Unable to allocate ODBC environment",
     false,
     {},
     {}},
    {"SQLSetEnvAttr",
     "HY000: broken",
     true,
     {"SQLAllocHandle(ENV)"},
     {"SQLFreeHandle(ENV)"}},
    {"SQLAllocHandle(DBC)",
     "Unable to allocate ODBC connection",
     false,
     {"SQLAllocHandle(ENV)", "SQLSetEnvAttr"},
     {"SQLFreeHandle(ENV)"}},
    {"SQLDriverConnect",
     "HY000: broken",
     true,
     {"SQLAllocHandle(ENV)", "SQLSetEnvAttr", "SQLAllocHandle(DBC)"},
     {"SQLFreeHandle(DBC)", "SQLFreeHandle(ENV)"}},
};

Lines calls_of(const Opening& step, bool with_diagnostic) {
  Lines all = step.before;
  all.emplace_back(step.where);
  if (with_diagnostic && step.asks) all.emplace_back("SQLGetDiagRec(1)");
  all.insert(all.end(), step.after.begin(), step.after.end());
  return all;
}

/// Not a handle; open has to replace it.
void* nonsense() {
  static int place = 0;
  return &place;
}

TEST_F(ExactCalls, AFailingStepOfOpeningReleasesWhatCameBeforeIt) {
  for (const Opening& step : kOpenings) {
    for (const int code : kFailures) {
      SCOPED_TRACE(std::string(step.where) + ", code " + std::to_string(code));
      script().fail(step.where, code, {"HY000", 7, "broken"});
      void* connection = nonsense();
      std::string error = "earlier";

      EXPECT_FALSE(zirdb_odbc_open("DSN=x", &connection, &error));

      EXPECT_EQ(error, step.error);
      EXPECT_EQ(connection, nullptr);
      EXPECT_EQ(script().labels(), calls_of(step, true));
      next_row();
    }
  }
}

TEST_F(ExactCalls, AFailingStepOfOpeningIsSilentWithoutAnErrorString) {
  for (const Opening& step : kOpenings) {
    for (const int code : kFailures) {
      SCOPED_TRACE(std::string(step.where) + ", code " + std::to_string(code));
      script().fail(step.where, code, {"HY000", 7, "broken"});
      void* connection = nonsense();

      EXPECT_FALSE(zirdb_odbc_open("DSN=x", &connection, nullptr));

      EXPECT_EQ(connection, nullptr);
      // Whether a text that nobody wants is fetched makes no difference.
      Lines labels;
      for (const std::string& label : script().labels()) {
        if (label != "SQLGetDiagRec(1)") labels.push_back(label);
      }
      EXPECT_EQ(labels, calls_of(step, false));
      next_row();
    }
  }
}

TEST_F(ExactCalls, ARefusedReleaseOfAFailedOpeningIsIgnored) {
  script().fail("SQLDriverConnect", SQL_ERROR, {"08001", 1, "unreachable"});
  script().fail("SQLFreeHandle", SQL_ERROR, {"HY010", 2, "not now"});
  void* connection = nonsense();
  std::string error;

  EXPECT_FALSE(zirdb_odbc_open("DSN=x", &connection, &error));

  EXPECT_EQ(error, "08001: unreachable");
  EXPECT_EQ(script().labels(), calls_of(kOpenings[3], true));
}

TEST_F(ExactCalls, TheHandlePointerIsNulledBeforeTheFirstCall) {
  void* connection = nonsense();
  bool asked = false;
  script().on("SQLAllocHandle(ENV)", [&](const Call&) -> std::optional<Reply> {
    asked = true;
    EXPECT_EQ(connection, nullptr);
    return std::nullopt;
  });

  EXPECT_TRUE(zirdb_odbc_open("DSN=x", &connection, nullptr));

  EXPECT_TRUE(asked);
  zirdb_odbc_close(connection);
}

TEST_F(ExactCalls, SuccessWithInfoIsSuccessAtEveryStepOfOpening) {
  for (const Opening& step : kOpenings) {
    SCOPED_TRACE(step.where);
    script().returns(step.where, SQL_SUCCESS_WITH_INFO, {"01000", 1, "note"});
    void* connection = nullptr;
    std::string error = "earlier";

    EXPECT_TRUE(zirdb_odbc_open("DSN=x", &connection, &error));

    EXPECT_NE(connection, nullptr);
    EXPECT_EQ(error, "earlier");
    EXPECT_EQ(script().labels(),
              (Lines{"SQLAllocHandle(ENV)", "SQLSetEnvAttr",
                     "SQLAllocHandle(DBC)", "SQLDriverConnect"}));
    zirdb_odbc_close(connection);
    next_row();
  }
}

// ---------------------------------------------------------------------------
// Closing
// ---------------------------------------------------------------------------

TEST_F(ExactCalls, ClosingGoesOnWhateverTheCallsReturn) {
  for (const char* where :
       {"SQLDisconnect", "SQLFreeHandle(DBC)", "SQLFreeHandle(ENV)"}) {
    for (const int code : kFailures) {
      SCOPED_TRACE(std::string(where) + ", code " + std::to_string(code));
      void* const connection = open();
      script().fail(where, code, {"HY000", 7, "broken"});
      script().clear_log();

      close(connection);

      EXPECT_EQ(script().labels(), (Lines{"SQLDisconnect", "SQLFreeHandle(DBC)",
                                          "SQLFreeHandle(ENV)"}));
      next_row();
    }
  }
}

TEST_F(ExactCalls, ARefusedReleaseOfAStatementIsIgnored) {
  for (const int code : kFailures) {
    SCOPED_TRACE(code);
    script().row_count(2);
    script().fail("SQLFreeHandle(STMT)", code, {"HY000", 7, "broken"});

    ZirdbOdbcResult result;
    EXPECT_TRUE(zirdb_odbc_execute(open(), "update", &result));

    EXPECT_EQ(result.rows_affected, 2);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(script().count("SQLGetDiagRec"), 0U);
    next_row();
  }
}

TEST_F(ExactCalls, ARefusedReleaseAfterAFailureKeepsTheTextOfTheFailure) {
  script().fail("SQLExecDirect", SQL_ERROR, {"42000", 1, "syntax"});
  script().fail("SQLFreeHandle(STMT)", SQL_ERROR, {"HY010", 2, "not now"});

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(open(), "selec", &result));

  EXPECT_EQ(result.error, "42000: syntax");
}

TEST_F(ExactCalls, AHandleFromAFailingAllocationIsLeftAlone) {
  for (const char* type : {"ENV", "DBC", "STMT"}) {
    SCOPED_TRACE(type);
    // Stores a handle all the same.
    script().returns(std::string("SQLAllocHandle(") + type + ")", SQL_ERROR);
    void* connection = nullptr;
    ZirdbOdbcResult result;

    if (zirdb_odbc_open("DSN=x", &connection, nullptr)) {
      EXPECT_FALSE(zirdb_odbc_execute(connection, "select", &result));
    }

    EXPECT_EQ(script().count(std::string("SQLFreeHandle(") + type + ")"), 0U);
    // What is left over is the script's doing, and closing stumbles over it.
    script().take_unreleased();
    zirdb_odbc_close(connection);
    script().take_complaints();
    next_row();
  }
}

/// What a connection handle points to.
struct Record {
  SQLHENV env = nullptr;
  SQLHDBC dbc = nullptr;
};

TEST_F(ExactCalls, AHandleHoldsItsEnvironmentAndItsConnection) {
  void* connection = nullptr;
  ASSERT_TRUE(zirdb_odbc_open("DSN=x", &connection, nullptr));
  const Record record = *static_cast<const Record*>(connection);
  script().clear_log();

  EXPECT_EQ(SQLFreeHandle(SQL_HANDLE_STMT, nullptr), SQL_INVALID_HANDLE);
  script().take_complaints();
  script().clear_log();
  EXPECT_EQ(SQLDisconnect(record.dbc), SQL_SUCCESS);
  EXPECT_EQ(SQLSetEnvAttr(record.env, SQL_ATTR_ODBC_VERSION, nullptr, 0),
            SQL_SUCCESS);

  EXPECT_EQ(script().call("SQLDisconnect").number("dbc"), 2);
  EXPECT_EQ(script().call("SQLSetEnvAttr").number("env"), 1);
  zirdb_odbc_close(connection);
}

TEST_F(ExactCalls, ClosingAnEmptyHandleCallsNothing) {
  zirdb_odbc_close(std::make_unique<Record>().release());

  EXPECT_TRUE(script().calls().empty());
}

TEST_F(ExactCalls, ClosingAHandleWithoutConnectionReleasesTheEnvironment) {
  auto record = std::make_unique<Record>();
  SQLAllocHandle(SQL_HANDLE_ENV, nullptr, &record->env);
  script().clear_log();

  zirdb_odbc_close(record.release());

  EXPECT_EQ(script().labels(), Lines{"SQLFreeHandle(ENV)"});
}

TEST_F(ExactCalls, ClosingAHandleWithoutEnvironmentReleasesTheConnection) {
  auto record = std::make_unique<Record>();
  SQLHENV env = nullptr;
  SQLAllocHandle(SQL_HANDLE_ENV, nullptr, &env);
  SQLAllocHandle(SQL_HANDLE_DBC, env, &record->dbc);
  script().clear_log();

  zirdb_odbc_close(record.release());

  EXPECT_EQ(script().labels(), (Lines{"SQLDisconnect", "SQLFreeHandle(DBC)"}));
  SQLFreeHandle(SQL_HANDLE_ENV, env);
}

// ---------------------------------------------------------------------------
// Diagnostics
// ---------------------------------------------------------------------------

/// A call whose failure is told by the diagnostics of one type of handle.
struct Source {
  const char* where;
  int handle_type;
  int handle;
};

const Source kSources[] = {{"SQLSetEnvAttr", SQL_HANDLE_ENV, 1},
                           {"SQLDriverConnect", SQL_HANDLE_DBC, 2},
                           {"SQLExecDirect", SQL_HANDLE_STMT, 3}};

class Diagnosis : public ExactCalls {
 protected:
  /// Lets that call fail and returns the text of the failure.
  std::string failure_of(const Source& source) {
    script().fail(source.where, SQL_ERROR);
    if (source.handle_type == SQL_HANDLE_STMT) {
      ZirdbOdbcResult result;
      EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));
      return result.error;
    }
    void* connection = nullptr;
    std::string error;
    EXPECT_FALSE(zirdb_odbc_open("DSN=x", &connection, &error));
    return error;
  }
};

TEST_F(Diagnosis, TheFirstRecordOfTheRightHandleIsAskedForOnce) {
  for (const Source& source : kSources) {
    SCOPED_TRACE(source.where);
    script().fail(source.where, SQL_ERROR,
                  {{"42000", 1, "first"}, {"HY000", 2, "second"}});
    script().diag_reply({SQL_SUCCESS, "42000", "first", 5});
    failure_of(source);

    Lines asked;
    for (const Call& call : script().calls("SQLGetDiagRec")) {
      asked.push_back(call.text());
    }
    EXPECT_EQ(asked,
              Lines{"SQLGetDiagRec(type=" + std::to_string(source.handle_type) +
                    ", handle=" + std::to_string(source.handle) +
                    ", record=1, state=pointer, native=pointer, "
                    "message=pointer, message_size=1024, length=pointer) = 0"});
    next_row();
  }
}

TEST_F(Diagnosis, EveryAnswerHasItsText) {
  struct Row {
    const char* name;
    DiagReply reply;
    std::string text;
  };
  const std::string general = "ODBC operation failed";
  const std::string full(1024, 'm');
  const std::string kept(1023, 'm');
  std::vector<Row> rows = {
      {"state and text", {SQL_SUCCESS, "42S02", "boom", 4}, "42S02: boom"},
      {"with info", {SQL_SUCCESS_WITH_INFO, "42S02", "boom", 4}, "42S02: boom"},
      {"native code", {SQL_SUCCESS, "42S02", "boom", 4, -99}, "42S02: boom"},
      {"empty state", {SQL_SUCCESS, "", "boom", 4}, "boom"},
      {"state not written", {SQL_SUCCESS, std::nullopt, "boom", 4}, "boom"},
      {"short state", {SQL_SUCCESS, "HY", "boom", 4}, "HY: boom"},
      {"empty text", {SQL_SUCCESS, "HY000", "", 0}, "HY000: "},
      {"neither state nor text", {SQL_SUCCESS, "", "", 0}, ""},
      {"nothing written",
       {SQL_SUCCESS, std::nullopt, std::nullopt, std::nullopt},
       ""},
      {"length not written",
       {SQL_SUCCESS, "HY000", "boom", std::nullopt},
       "HY000: "},
      {"length too short", {SQL_SUCCESS, "HY000", "boom", 2}, "HY000: bo"},
      {"length 0", {SQL_SUCCESS, "HY000", "boom", 0}, "HY000: "},
      {"negative length", {SQL_SUCCESS, "HY000", "boom", -1}, "HY000: "},
      {"no total length", {SQL_SUCCESS, "HY000", "boom", -4}, "HY000: "},
      {"least length", {SQL_SUCCESS, "HY000", "boom", -32768}, "HY000: "},
      {"length within the buffer, beyond the text",
       {SQL_SUCCESS, "HY000", "boom", 6},
       "HY000: boom" + std::string(2, '\0')},
      {"text not UTF-8",
       {SQL_SUCCESS, "HY000", "\xFF\xC3", 2},
       "HY000: \xFF\xC3"},
      {"text with a NUL",
       {SQL_SUCCESS, "HY000", std::string("a\0b", 3), 3},
       "HY000: " + std::string("a\0b", 3)},
      {"1022 bytes",
       {SQL_SUCCESS, "HY000", full.substr(0, 1022), 1022},
       "HY000: " + full.substr(0, 1022)},
      {"1023 bytes", {SQL_SUCCESS, "HY000", kept, 1023}, "HY000: " + kept},
      {"1024 bytes, not terminated",
       {SQL_SUCCESS, "HY000", full, 1024},
       "HY000: " + kept},
      {"cut, full length told",
       {SQL_SUCCESS_WITH_INFO, "HY000", kept, 2000},
       "HY000: " + kept},
      {"cut, most of a length",
       {SQL_SUCCESS_WITH_INFO, "HY000", kept, 32767},
       "HY000: " + kept},
      {"cut, without state", {SQL_SUCCESS_WITH_INFO, "", kept, 2000}, kept},
      {"cut, not terminated",
       {SQL_SUCCESS_WITH_INFO, "HY000", full, 2000},
       "HY000: " + kept},
  };
  for (const int code : kFailures) {
    rows.push_back({"a failing answer", {code, "HY000", "boom", 4}, general});
  }
  for (const Source& source : kSources) {
    for (const Row& row : rows) {
      SCOPED_TRACE(std::string(source.where) + ", " + row.name + ", code " +
                   std::to_string(row.reply.code));
      script().diag_reply(row.reply);

      EXPECT_EQ(failure_of(source), row.text);
      next_row();
    }
  }
}

TEST_F(Diagnosis, AHandleWithoutRecordsHasAGeneralText) {
  for (const Source& source : kSources) {
    SCOPED_TRACE(source.where);
    EXPECT_EQ(failure_of(source), "ODBC operation failed");
    next_row();
  }
}

TEST_F(Diagnosis, ItIsNotAskedForAfterAFailedAllocation) {
  for (const char* type : {"ENV", "DBC", "STMT"}) {
    SCOPED_TRACE(type);
    script().fail(std::string("SQLAllocHandle(") + type + ")", SQL_ERROR,
                  {"HY001", 1, "no memory"});
    void* connection = nullptr;
    ZirdbOdbcResult result;

    if (zirdb_odbc_open("DSN=x", &connection, nullptr)) {
      EXPECT_FALSE(zirdb_odbc_execute(connection, "select", &result));
    }

    EXPECT_EQ(script().count("SQLGetDiagRec"), 0U);
    zirdb_odbc_close(connection);
    next_row();
  }
}

}  // namespace
