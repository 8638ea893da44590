// SPDX-License-Identifier: MIT
//
// The ODBC entry points outside the fifteen, by name, in four lists. Both faces
// define them to notice a call (scripted_odbc_forbidden.cpp).

#ifndef ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_FORBIDDEN_H
#define ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_FORBIDDEN_H

/// Report the call to this image's engine and return SQL_ERROR.
extern "C" short scripted_odbc_forbidden(const char* name);
extern "C" short scripted_odbc_manager_call(const char* name);

// clang-format off

/// Reach a driver only when the program above the driver manager calls them.
#define SCRIPTED_ODBC_FORBIDDEN(X)                                            \
  X(SQLBindCol) X(SQLBindParam) X(SQLBulkOperations) X(SQLCancel)             \
  X(SQLCloseCursor) X(SQLColAttribute) X(SQLColAttributes)                    \
  X(SQLColumnPrivileges) X(SQLColumns) X(SQLCopyDesc) X(SQLDescribeParam)     \
  X(SQLEndTran) X(SQLExtendedFetch) X(SQLFetchScroll) X(SQLForeignKeys)       \
  X(SQLFreeStmt) X(SQLGetConnectAttr) X(SQLGetConnectOption)                  \
  X(SQLGetCursorName) X(SQLGetDescField) X(SQLGetDescRec) X(SQLGetDiagField)  \
  X(SQLGetInfo) X(SQLGetStmtOption) X(SQLGetTypeInfo) X(SQLMoreResults)       \
  X(SQLNativeSql) X(SQLNumParams) X(SQLParamData) X(SQLParamOptions)          \
  X(SQLPrimaryKeys) X(SQLProcedureColumns) X(SQLProcedures) X(SQLPutData)     \
  X(SQLSetConnectAttr) X(SQLSetConnectOption) X(SQLSetCursorName)             \
  X(SQLSetDescField) X(SQLSetDescRec) X(SQLSetParam) X(SQLSetPos)             \
  X(SQLSetScrollOptions) X(SQLSetStmtAttr) X(SQLSetStmtOption)                \
  X(SQLSpecialColumns) X(SQLStatistics) X(SQLTablePrivileges) X(SQLTables)    \
  X(SQLTransact)

/// The driver manager calls these of a driver on its own behalf.
#define SCRIPTED_ODBC_MANAGERS_OWN(X)                                         \
  X(SQLGetEnvAttr) X(SQLGetStmtAttr)

/// A driver that has these is treated as one of another kind, or the manager
/// answers them itself: only the stand-in defines them.
#define SCRIPTED_ODBC_STAND_IN_ONLY(X)                                        \
  X(SQLAllocConnect) X(SQLAllocEnv) X(SQLAllocHandleStd) X(SQLAllocStmt)      \
  X(SQLBrowseConnect) X(SQLCancelHandle) X(SQLConnect) X(SQLDataSources)      \
  X(SQLDrivers) X(SQLError) X(SQLFreeConnect) X(SQLFreeEnv)                   \
  X(SQLGetFunctions)

/// The wide variants, likewise.
#define SCRIPTED_ODBC_STAND_IN_ONLY_WIDE(X)                                   \
  X(SQLBrowseConnectW) X(SQLColAttributeW) X(SQLColAttributesW)               \
  X(SQLColumnPrivilegesW) X(SQLColumnsW) X(SQLConnectW) X(SQLDataSourcesW)    \
  X(SQLDescribeColW) X(SQLDriverConnectW) X(SQLDriversW) X(SQLErrorW)         \
  X(SQLExecDirectW) X(SQLForeignKeysW) X(SQLGetConnectAttrW)                  \
  X(SQLGetConnectOptionW) X(SQLGetCursorNameW) X(SQLGetDescFieldW)            \
  X(SQLGetDescRecW) X(SQLGetDiagFieldW) X(SQLGetDiagRecW) X(SQLGetInfoW)      \
  X(SQLGetStmtAttrW) X(SQLGetTypeInfoW) X(SQLNativeSqlW) X(SQLPrepareW)       \
  X(SQLPrimaryKeysW) X(SQLProcedureColumnsW) X(SQLProceduresW)                \
  X(SQLSetConnectAttrW) X(SQLSetConnectOptionW) X(SQLSetCursorNameW)          \
  X(SQLSetDescFieldW) X(SQLSetStmtAttrW) X(SQLSetStmtOptionW)                 \
  X(SQLSpecialColumnsW) X(SQLStatisticsW) X(SQLTablePrivilegesW)              \
  X(SQLTablesW)

// clang-format on

#endif  // ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_FORBIDDEN_H
