// SPDX-License-Identifier: MIT
//
// The fifteen ODBC entry points, forwarded to this image's engine. Compiled
// into the scripted driver and into test programs that stand in for the driver
// manager. Nothing calls one of these by name: inside a driver that would reach
// the driver manager's symbol.

#include "support/scripted_odbc_engine.h"

namespace {

/// The engine of this image, at work until the end of the full expression.
class WorkingEngine {
 public:
  scripted_odbc::Engine* operator->() const {
    return &scripted_odbc::this_script().engine();
  }

 private:
  scripted_odbc::AtWork at_work_;
};

WorkingEngine engine() { return {}; }

}  // namespace

#pragma GCC visibility push(default)

extern "C" {

SQLRETURN SQL_API SQLAllocHandle(SQLSMALLINT type, SQLHANDLE input,
                                 SQLHANDLE* output) {
  return engine()->alloc_handle(type, input, output);
}

SQLRETURN SQL_API SQLSetEnvAttr(SQLHENV env, SQLINTEGER attribute,
                                SQLPOINTER value, SQLINTEGER length) {
  return engine()->set_env_attr(env, attribute, value, length);
}

SQLRETURN SQL_API SQLDriverConnect(SQLHDBC dbc, SQLHWND window, SQLCHAR* string,
                                   SQLSMALLINT length, SQLCHAR* out,
                                   SQLSMALLINT out_size,
                                   SQLSMALLINT* out_length,
                                   SQLUSMALLINT completion) {
  return engine()->driver_connect(dbc, window, string, length, out, out_size,
                                  out_length, completion);
}

SQLRETURN SQL_API SQLDisconnect(SQLHDBC dbc) {
  return engine()->disconnect(dbc);
}

SQLRETURN SQL_API SQLFreeHandle(SQLSMALLINT type, SQLHANDLE handle) {
  return engine()->free_handle(type, handle);
}

SQLRETURN SQL_API SQLPrepare(SQLHSTMT statement, SQLCHAR* sql,
                             SQLINTEGER length) {
  return engine()->prepare(statement, sql, length);
}

SQLRETURN SQL_API SQLExecute(SQLHSTMT statement) {
  return engine()->execute(statement);
}

SQLRETURN SQL_API SQLExecDirect(SQLHSTMT statement, SQLCHAR* sql,
                                SQLINTEGER length) {
  return engine()->exec_direct(statement, sql, length);
}

SQLRETURN SQL_API SQLBindParameter(SQLHSTMT statement, SQLUSMALLINT number,
                                   SQLSMALLINT direction, SQLSMALLINT c_type,
                                   SQLSMALLINT sql_type, SQLULEN column_size,
                                   SQLSMALLINT digits, SQLPOINTER buffer,
                                   SQLLEN buffer_length, SQLLEN* indicator) {
  return engine()->bind_parameter(statement, number, direction, c_type,
                                  sql_type, column_size, digits, buffer,
                                  buffer_length, indicator);
}

SQLRETURN SQL_API SQLNumResultCols(SQLHSTMT statement, SQLSMALLINT* count) {
  return engine()->num_result_cols(statement, count);
}

SQLRETURN SQL_API SQLDescribeCol(SQLHSTMT statement, SQLUSMALLINT column,
                                 SQLCHAR* name, SQLSMALLINT name_size,
                                 SQLSMALLINT* name_length, SQLSMALLINT* type,
                                 SQLULEN* size, SQLSMALLINT* digits,
                                 SQLSMALLINT* nullable) {
  return engine()->describe_col(statement, column, name, name_size, name_length,
                                type, size, digits, nullable);
}

SQLRETURN SQL_API SQLFetch(SQLHSTMT statement) {
  return engine()->fetch(statement);
}

SQLRETURN SQL_API SQLGetData(SQLHSTMT statement, SQLUSMALLINT column,
                             SQLSMALLINT c_type, SQLPOINTER buffer,
                             SQLLEN buffer_length, SQLLEN* indicator) {
  return engine()->get_data(statement, column, c_type, buffer, buffer_length,
                            indicator);
}

SQLRETURN SQL_API SQLRowCount(SQLHSTMT statement, SQLLEN* count) {
  return engine()->row_count(statement, count);
}

SQLRETURN SQL_API SQLGetDiagRec(SQLSMALLINT type, SQLHANDLE handle,
                                SQLSMALLINT record, SQLCHAR* state,
                                SQLINTEGER* native, SQLCHAR* message,
                                SQLSMALLINT message_size, SQLSMALLINT* length) {
  return engine()->get_diag_rec(type, handle, record, state, native, message,
                                message_size, length);
}

}  // extern "C"

#pragma GCC visibility pop
