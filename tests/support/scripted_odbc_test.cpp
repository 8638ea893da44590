// SPDX-License-Identifier: MIT
//
// What the stand-in face promises: it is found instead of the driver manager,
// it says what no manager would let through, and it complains about misuse.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/scripted_odbc_fixture.h"

namespace {

using namespace scripted_odbc;

class StandIn : public ScriptedOdbc {};

/// The entry point that the library under test would find under that name.
template <typename Function>
Function* entry_point(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_DEFAULT, name));
}

TEST_F(StandIn, ItSeesTheArgumentsOfTheLibraryItself) {
  open();

  EXPECT_EQ(script().call("SQLSetEnvAttr").text(),
            "SQLSetEnvAttr(env=1, attribute=200, value=3, length=0) = 0");
  EXPECT_EQ(script().call("SQLDriverConnect").text(),
            "SQLDriverConnect(dbc=2, window=null, string=\"DSN=scripted\", "
            "length=-3, out=null, out_size=0, out_length=null, completion=0) "
            "= 0");
}

TEST_F(StandIn, DiagnosticsLieAboutTheirLength) {
  script().fail("SQLExecDirect", SQL_ERROR);
  script().diag_reply(
      {SQL_SUCCESS_WITH_INFO, "", std::string(1023, 'm'), 2000});

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));

  EXPECT_EQ(result.error, std::string(1023, 'm'));
  EXPECT_EQ(script().count("SQLGetDiagRec(1)"), 1U);
}

TEST_F(StandIn, AHandleThatIsRefusedItsReleaseCountsAsReleased) {
  script().fail("SQLFreeHandle", SQL_ERROR);
  script().fail("SQLDisconnect", SQL_ERROR);

  close(open());

  EXPECT_EQ(script().complaints(), std::vector<std::string>());
}

TEST_F(StandIn, EveryCallOutsideTheFifteenIsAComplaint) {
  using Function = SQLRETURN();
  for (const char* name :
       {"SQLMoreResults",    "SQLFreeStmt",      "SQLCloseCursor",
        "SQLGetInfo",        "SQLBindCol",       "SQLSetStmtAttr",
        "SQLSetConnectAttr", "SQLGetStmtAttr",   "SQLNumParams",
        "SQLDescribeParam",  "SQLParamData",     "SQLPutData",
        "SQLCancel",         "SQLEndTran",       "SQLTransact",
        "SQLFetchScroll",    "SQLExtendedFetch", "SQLError",
        "SQLGetDiagField",   "SQLColAttribute",  "SQLDriverConnectW",
        "SQLExecDirectW",    "SQLPrepareW",      "SQLDescribeColW",
        "SQLConnect",        "SQLGetFunctions"}) {
    auto* const function = entry_point<Function>(name);
    ASSERT_NE(function, nullptr) << name;
    EXPECT_EQ(function(), SQL_ERROR) << name;
    EXPECT_EQ(script().take_complaints(),
              std::vector<std::string>{std::string("forbidden call: ") + name});
  }
}

TEST_F(StandIn, MisuseOfHandlesIsAComplaint) {
  auto* const allocate =
      entry_point<decltype(SQLAllocHandle)>("SQLAllocHandle");
  auto* const release = entry_point<decltype(SQLFreeHandle)>("SQLFreeHandle");
  auto* const fetch = entry_point<decltype(SQLFetch)>("SQLFetch");
  SQLHANDLE env = nullptr;
  SQLHANDLE dbc = nullptr;
  allocate(SQL_HANDLE_ENV, nullptr, &env);
  allocate(SQL_HANDLE_DBC, env, &dbc);

  fetch(nullptr);
  fetch(dbc);
  release(SQL_HANDLE_DBC, dbc);
  release(SQL_HANDLE_DBC, dbc);

  EXPECT_EQ(
      script().take_complaints(),
      (std::vector<std::string>{
          "SQLFetch on a null handle", "SQLFetch on handle 2 of another type",
          "SQLFreeHandle(DBC) on handle 2, which was released before"}));
  EXPECT_EQ(script().take_unreleased(), std::vector<std::string>{"ENV 1"});
}

TEST_F(StandIn, AChunkThatDoesNotFitIsAComplaintAndIsCut) {
  script().columns({{"b", SQL_VARBINARY}});
  script().row({chunks({chunk(SQL_SUCCESS, std::string(1025, 'x'), 1025)})});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  EXPECT_EQ(result.rows.at(0).at(0).binary_value.size(), 1024U);
  EXPECT_EQ(script().take_complaints().at(0),
            "a chunk of 1025 bytes for a buffer of 1024");
}

TEST_F(StandIn, AnyCallIsEveryOneButTheQuestionForARecord) {
  void* const connection = open();
  script().answers(any_call, nth(2),
                   {false, SQL_ERROR, {"HY000", 7, "second"}});
  script().answers(any_call, nth(3), {false, SQL_INVALID_HANDLE});
  script().clear_log();

  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(connection, "select", &result));

  EXPECT_EQ(script().labels(), (std::vector<std::string>{
                                   "SQLAllocHandle(STMT)", "SQLExecDirect",
                                   "SQLGetDiagRec(1)", "SQLFreeHandle(STMT)"}));
  EXPECT_EQ(script().call("SQLExecDirect").result, SQL_ERROR);
  EXPECT_EQ(result.error, "HY000: second");
  EXPECT_EQ(script().call("SQLFreeHandle(STMT)").result, SQL_INVALID_HANDLE);
}

TEST_F(StandIn, CallsTellTheNumbersTheyAreGivenAndDoTheirWork) {
  script().columns({{"number", SQL_INTEGER}, {"text", SQL_VARCHAR}});
  script().rows(2, {cell(1), cell("text")});
  script().answers("SQLNumResultCols", nth(1), {true, {}, {}, 1});
  script().answers("SQLDescribeCol(1)", nth(1), {true, {}, {}, 3});
  script().answers("SQLGetData(1)", nth(2), {true, {}, {}, SQL_NULL_DATA});
  script().answers("SQLRowCount", nth(1), {true, {}, {}, 42});

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "select", &result)) << result.error;

  ASSERT_EQ(result.columns.size(), 1U);
  EXPECT_EQ(result.columns[0].name, "num");
  ASSERT_EQ(result.rows.size(), 2U);
  EXPECT_EQ(result.rows[0].at(0).int64_value, 1);
  EXPECT_EQ(result.rows[1].at(0).kind, ZirdbOdbcValueKind::Null);
  EXPECT_EQ(result.rows_affected, 42);
}

TEST_F(StandIn, AMisspeltEntryPointIsRefused) {
  EXPECT_THROW(script().fail("SQLFetsch", SQL_ERROR), std::invalid_argument);
}

TEST_F(StandIn, BytesOfUtf16TextAreItsUnitsWithoutATerminator) {
  EXPECT_EQ(bytes_of(u"ab"), std::string("a\0b\0", 4));
  EXPECT_EQ(bytes_of(std::u16string{0xD83D}), "\x3D\xD8");
}

}  // namespace
