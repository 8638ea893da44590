// SPDX-License-Identifier: MIT
//
// What the driver face promises: the real driver manager is between the library
// and the script, and it finds the driver by path, by name and by data source.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/scripted_odbc_fixture.h"

namespace {

using namespace scripted_odbc;

class DriverFace : public ScriptedOdbc {};

TEST_F(DriverFace, TheDriverIsFoundByPathByNameAndByDataSource) {
  for (const std::string& text :
       {connection_string(), std::string("DRIVER={Scripted};"),
        std::string("DSN=scripted;")}) {
    void* connection = nullptr;
    std::string error;
    EXPECT_TRUE(zirdb_odbc_open(text, &connection, &error)) << text << error;
    zirdb_odbc_close(connection);
    EXPECT_EQ(script().call("SQLDriverConnect").bytes("string"), text);
    script().clear_log();
  }
}

TEST_F(DriverFace, AnUnknownDataSourceIsRefusedByTheManager) {
  void* connection = nullptr;
  std::string error;
  EXPECT_FALSE(zirdb_odbc_open("DSN=nowhere;", &connection, &error));

  EXPECT_EQ(error.rfind("IM002: [unixODBC][Driver Manager]", 0), 0U) << error;
  EXPECT_TRUE(script().calls().empty());
}

TEST_F(DriverFace, TheManagersOwnCallsAreLoggedApart) {
  script().fail("SQLExecDirect", SQL_ERROR, {"HY000", 1, "broken"});
  ZirdbOdbcResult result;
  EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));

  bool collected = false;
  for (const Call& call : script().manager_calls()) {
    collected = collected || call.name == "SQLGetDiagRec";
  }
  EXPECT_TRUE(collected);
  EXPECT_EQ(script().count("SQLGetDiagRec"), 0U);
}

/// The entry point that the library under test finds under that name.
template <typename Function>
Function* entry_point(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_DEFAULT, name));
}

TEST_F(DriverFace, ACallOutsideTheFifteenReachesTheDriverAsAComplaint) {
  auto* const allocate =
      entry_point<decltype(SQLAllocHandle)>("SQLAllocHandle");
  auto* const release = entry_point<decltype(SQLFreeHandle)>("SQLFreeHandle");
  std::string text = connection_string();
  std::string sql = "select";
  SQLHANDLE env = nullptr;
  SQLHANDLE dbc = nullptr;
  SQLHANDLE statement = nullptr;
  allocate(SQL_HANDLE_ENV, nullptr, &env);
  entry_point<SQLRETURN(SQLHENV, SQLINTEGER, std::intptr_t, SQLINTEGER)>(
      "SQLSetEnvAttr")(env, SQL_ATTR_ODBC_VERSION, SQL_OV_ODBC3, 0);
  allocate(SQL_HANDLE_DBC, env, &dbc);
  entry_point<decltype(SQLDriverConnect)>("SQLDriverConnect")(
      dbc, nullptr, reinterpret_cast<SQLCHAR*>(text.data()), SQL_NTS, nullptr,
      0, nullptr, SQL_DRIVER_NOPROMPT);
  allocate(SQL_HANDLE_STMT, dbc, &statement);
  entry_point<decltype(SQLExecDirect)>("SQLExecDirect")(
      statement, reinterpret_cast<SQLCHAR*>(sql.data()), SQL_NTS);

  entry_point<decltype(SQLMoreResults)>("SQLMoreResults")(statement);

  EXPECT_EQ(script().take_complaints(),
            std::vector<std::string>{"forbidden call: SQLMoreResults"});
  release(SQL_HANDLE_STMT, statement);
  entry_point<decltype(SQLDisconnect)>("SQLDisconnect")(dbc);
  release(SQL_HANDLE_DBC, dbc);
  release(SQL_HANDLE_ENV, env);
}

}  // namespace
