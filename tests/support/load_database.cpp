// SPDX-License-Identifier: MIT

#include "support/load_database.h"

#include <sql.h>
#include <sqlext.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace load {
namespace {

std::atomic<std::size_t> live{0};

/// The address of a bound parameter.
struct Bound {
  SQLSMALLINT c_type = 0;
  SQLPOINTER data = nullptr;
  SQLLEN* indicator = nullptr;
};

enum class Form { kNumbers, kMixed, kText, kEcho, kNothing, kFail, kUnknown };

Form form_of(const std::string& word) {
  static const char* const kWords[] = {"numbers", "mixed",   "text",
                                       "echo",    "nothing", "fail"};
  const auto* const found =
      std::find(std::begin(kWords), std::end(kWords), word);
  return static_cast<Form>(found - std::begin(kWords));
}

struct Handle {
  std::string error = {};
  // Of a statement only.
  std::string sql = {};
  Form form = Form::kNothing;
  std::string content = {};  // of "text", or of a wide parameter
  std::size_t rows = 0;
  std::size_t columns = 0;
  std::size_t row = 0;  // from 1; 0 before the first
  std::size_t column = 0;
  std::size_t delivered = 0;  // bytes of that column
  std::vector<Bound> bound = {};
};

Handle& statement_of(SQLHANDLE handle) { return *static_cast<Handle*>(handle); }

SQLRETURN execute(Handle& statement) {
  std::istringstream words(statement.sql);
  std::string word;
  words >> word;
  statement.form = form_of(word);
  statement.rows = 0;
  statement.columns = 0;
  statement.row = 0;
  switch (statement.form) {
    case Form::kNumbers:
    case Form::kMixed:
      words >> statement.rows >> statement.columns;
      return SQL_SUCCESS;
    case Form::kText: {
      std::size_t size = 0;
      words >> size;
      statement.content = text_of(size);
      statement.rows = statement.columns = 1;
      return SQL_SUCCESS;
    }
    case Form::kEcho:
      statement.rows = 1;
      statement.columns = statement.bound.size();
      return SQL_SUCCESS;
    case Form::kNothing:
      return SQL_SUCCESS;
    case Form::kFail:
      std::getline(words >> std::ws, statement.error);
      return SQL_ERROR;
    case Form::kUnknown:
      break;
  }
  statement.error = "unknown statement";
  return SQL_ERROR;
}

template <class Number>
SQLRETURN deliver_number(Number number, SQLPOINTER buffer, SQLLEN* indicator) {
  std::memcpy(buffer, &number, sizeof number);
  *indicator = sizeof number;
  return SQL_SUCCESS;
}

SQLRETURN deliver_null(SQLLEN* indicator) {
  *indicator = SQL_NULL_DATA;
  return SQL_SUCCESS;
}

/// The next piece of `bytes`, with a zero behind it if it is one of a text.
SQLRETURN deliver_bytes(Handle& statement, std::string_view bytes,
                        SQLSMALLINT c_type, SQLPOINTER buffer, SQLLEN size,
                        SQLLEN* indicator) {
  const std::size_t terminator = c_type == SQL_C_CHAR ? 1 : 0;
  const std::size_t left = bytes.size() - statement.delivered;
  const std::size_t count =
      std::min(left, static_cast<std::size_t>(size) - terminator);
  std::memcpy(buffer, bytes.data() + statement.delivered, count);
  if (terminator != 0) static_cast<char*>(buffer)[count] = '\0';
  statement.delivered += count;
  *indicator = static_cast<SQLLEN>(left);
  return count < left ? SQL_SUCCESS_WITH_INFO : SQL_SUCCESS;
}

std::string_view bytes_of(const Bound& bound) {
  const char* const bytes = static_cast<const char*>(bound.data);
  return *bound.indicator == SQL_NTS
             ? std::string_view(bytes)
             : std::string_view(bytes,
                                static_cast<std::size_t>(*bound.indicator));
}

SQLRETURN deliver_bound(Handle& statement, const Bound& bound,
                        SQLSMALLINT c_type, SQLPOINTER buffer, SQLLEN size,
                        SQLLEN* indicator) {
  if (*bound.indicator == SQL_NULL_DATA) return deliver_null(indicator);
  if (bound.c_type == SQL_C_WCHAR && statement.delivered == 0) {
    const auto* const units = static_cast<const SQLWCHAR*>(bound.data);
    const auto count =
        static_cast<std::size_t>(*bound.indicator) / sizeof(SQLWCHAR);
    statement.content.assign(units, units + count);
  }
  switch (bound.c_type) {
    case SQL_C_SLONG: {
      SQLINTEGER number = 0;
      std::memcpy(&number, bound.data, sizeof number);
      return deliver_number<std::int64_t>(number, buffer, indicator);
    }
    case SQL_C_SBIGINT:
    case SQL_C_DOUBLE:
      std::memcpy(buffer, bound.data, sizeof(std::int64_t));
      return SQL_SUCCESS;
    case SQL_C_BIT:
      std::memcpy(buffer, bound.data, 1);
      return SQL_SUCCESS;
    default:
      return deliver_bytes(
          statement,
          bound.c_type == SQL_C_WCHAR ? statement.content : bytes_of(bound),
          c_type, buffer, size, indicator);
  }
}

SQLSMALLINT sql_type_of(Kind kind) {
  constexpr SQLSMALLINT kTypes[] = {SQL_BIGINT, SQL_DOUBLE, SQL_VARCHAR,
                                    SQL_VARBINARY, SQL_INTEGER};
  return kTypes[static_cast<std::size_t>(kind)];
}

SQLSMALLINT sql_type_of(const Bound& bound) {
  switch (bound.c_type) {
    case SQL_C_SLONG:
    case SQL_C_SBIGINT:
      return SQL_BIGINT;
    case SQL_C_DOUBLE:
      return SQL_DOUBLE;
    case SQL_C_BIT:
      return SQL_BIT;
    case SQL_C_BINARY:
      return SQL_VARBINARY;
    default:
      return SQL_VARCHAR;
  }
}

SQLSMALLINT sql_type_of(const Handle& statement, std::size_t column) {
  switch (statement.form) {
    case Form::kNumbers:
      return SQL_BIGINT;
    case Form::kMixed:
      return sql_type_of(kind_of(column));
    case Form::kEcho:
      return sql_type_of(statement.bound[column]);
    default:
      return SQL_VARCHAR;
  }
}

}  // namespace

std::string bytes_at(std::size_t row, std::size_t column) {
  char text[kCellBytes + 1];
  std::snprintf(text, sizeof text, "%016zx%08zx", row, column);
  return text;
}

std::string text_of(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    text[i] = static_cast<char>('a' + (i * 7 + i / 1000) % 26);
  }
  return text;
}

std::size_t handles_live() { return live; }

}  // namespace load

// ---------------------------------------------------------------------------
// The entry points
// ---------------------------------------------------------------------------

#pragma GCC visibility push(default)
extern "C" {

using load::Handle;
using load::statement_of;

SQLRETURN SQL_API SQLAllocHandle(SQLSMALLINT /*type*/, SQLHANDLE /*parent*/,
                                 SQLHANDLE* handle) {
  *handle = new Handle;
  ++load::live;
  return SQL_SUCCESS;
}

SQLRETURN SQL_API SQLFreeHandle(SQLSMALLINT /*type*/, SQLHANDLE handle) {
  delete static_cast<Handle*>(handle);
  --load::live;
  return SQL_SUCCESS;
}

SQLRETURN SQL_API SQLSetEnvAttr(SQLHENV /*env*/, SQLINTEGER /*attribute*/,
                                SQLPOINTER /*value*/, SQLINTEGER /*length*/) {
  return SQL_SUCCESS;
}

SQLRETURN SQL_API SQLDriverConnect(SQLHDBC /*dbc*/, SQLHWND /*window*/,
                                   SQLCHAR* /*in*/, SQLSMALLINT /*in_length*/,
                                   SQLCHAR* /*out*/, SQLSMALLINT /*out_size*/,
                                   SQLSMALLINT* /*out_length*/,
                                   SQLUSMALLINT /*completion*/) {
  return SQL_SUCCESS;
}

SQLRETURN SQL_API SQLDisconnect(SQLHDBC /*dbc*/) { return SQL_SUCCESS; }

SQLRETURN SQL_API SQLPrepare(SQLHSTMT handle, SQLCHAR* sql,
                             SQLINTEGER /*length*/) {
  statement_of(handle).sql = reinterpret_cast<const char*>(sql);
  return SQL_SUCCESS;
}

SQLRETURN SQL_API SQLBindParameter(SQLHSTMT handle, SQLUSMALLINT number,
                                   SQLSMALLINT /*direction*/,
                                   SQLSMALLINT c_type, SQLSMALLINT /*sql_type*/,
                                   SQLULEN /*column_size*/,
                                   SQLSMALLINT /*digits*/, SQLPOINTER data,
                                   SQLLEN /*size*/, SQLLEN* indicator) {
  if (number == 0) {
    statement_of(handle).error = "no such parameter";
    return SQL_ERROR;
  }
  std::vector<load::Bound>& bound = statement_of(handle).bound;
  if (bound.size() < number) bound.resize(number);
  bound[number - 1U] = {c_type, data, indicator};
  return SQL_SUCCESS;
}

SQLRETURN SQL_API SQLExecute(SQLHSTMT handle) {
  return load::execute(statement_of(handle));
}

SQLRETURN SQL_API SQLExecDirect(SQLHSTMT handle, SQLCHAR* sql,
                                SQLINTEGER /*length*/) {
  statement_of(handle).sql = reinterpret_cast<const char*>(sql);
  return load::execute(statement_of(handle));
}

SQLRETURN SQL_API SQLNumResultCols(SQLHSTMT handle, SQLSMALLINT* count) {
  *count = static_cast<SQLSMALLINT>(statement_of(handle).columns);
  return SQL_SUCCESS;
}

SQLRETURN SQL_API SQLDescribeCol(SQLHSTMT handle, SQLUSMALLINT column,
                                 SQLCHAR* name, SQLSMALLINT size,
                                 SQLSMALLINT* name_length, SQLSMALLINT* type,
                                 SQLULEN* column_size, SQLSMALLINT* digits,
                                 SQLSMALLINT* nullable) {
  *name_length = static_cast<SQLSMALLINT>(
      std::snprintf(reinterpret_cast<char*>(name),
                    static_cast<std::size_t>(size), "c%d", column - 1));
  *type = load::sql_type_of(statement_of(handle), column - 1U);
  *column_size = 0;
  *digits = 0;
  *nullable = SQL_NULLABLE;
  return SQL_SUCCESS;
}

SQLRETURN SQL_API SQLFetch(SQLHSTMT handle) {
  Handle& statement = statement_of(handle);
  statement.column = 0;
  return statement.row++ < statement.rows ? SQL_SUCCESS : SQL_NO_DATA;
}

SQLRETURN SQL_API SQLGetData(SQLHSTMT handle, SQLUSMALLINT number,
                             SQLSMALLINT c_type, SQLPOINTER buffer, SQLLEN size,
                             SQLLEN* indicator) {
  Handle& statement = statement_of(handle);
  if (number != statement.column) {
    statement.column = number;
    statement.delivered = 0;
  }
  const std::size_t row = statement.row - 1;
  const std::size_t column = number - 1U;
  load::Kind kind = load::Kind::kInteger;
  switch (statement.form) {
    case load::Form::kText:
      return load::deliver_bytes(statement, statement.content, c_type, buffer,
                                 size, indicator);
    case load::Form::kEcho:
      return load::deliver_bound(statement, statement.bound[column], c_type,
                                 buffer, size, indicator);
    case load::Form::kMixed:
      kind = load::kind_of(column);
      break;
    default:
      break;
  }
  switch (kind) {
    case load::Kind::kDouble:
      return load::deliver_number(load::double_at(row, column), buffer,
                                  indicator);
    case load::Kind::kText:
    case load::Kind::kBinary:
      return load::deliver_bytes(statement, load::bytes_at(row, column), c_type,
                                 buffer, size, indicator);
    case load::Kind::kNull:
      return load::deliver_null(indicator);
    case load::Kind::kInteger:
      break;
  }
  return load::deliver_number(load::integer_at(row, column), buffer, indicator);
}

SQLRETURN SQL_API SQLRowCount(SQLHSTMT handle, SQLLEN* count) {
  *count = statement_of(handle).columns == 0 ? 1 : -1;
  return SQL_SUCCESS;
}

SQLRETURN SQL_API SQLGetDiagRec(SQLSMALLINT /*type*/, SQLHANDLE handle,
                                SQLSMALLINT /*record*/, SQLCHAR* state,
                                SQLINTEGER* native, SQLCHAR* message,
                                SQLSMALLINT size, SQLSMALLINT* length) {
  const std::string& error = statement_of(handle).error;
  if (error.empty()) return SQL_NO_DATA;
  std::memcpy(state, "42000", SQL_SQLSTATE_SIZE + 1);
  *native = 1;
  *length = static_cast<SQLSMALLINT>(error.size());
  std::snprintf(reinterpret_cast<char*>(message),
                static_cast<std::size_t>(size), "%s", error.c_str());
  return SQL_SUCCESS;
}

}  // extern "C"
#pragma GCC visibility pop
