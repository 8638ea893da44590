// SPDX-License-Identifier: MIT
//
// An ODBC driver without a server: it answers from the bench's data sets, so
// that what a run costs is what the caller and the driver manager cost.
//
// Connect with "DRIVER=<absolute path of this library>". A statement is the
// name of a data set and a number of rows, for example "mixed 200000".
//
// Sections: diagnostics; handles; delivering a cell; the entry points.
//
// Two rules carry the rest:
//  - It keeps every promise of a driver that a reader may rely on: honest
//    lengths, pieces cut to the caller's buffer, SQL_NO_DATA after the last
//    piece, a diagnostic record for every return code that announces one.
//  - The path of a cell read as its own type is short. Everything else may be
//    slow.
//
// Entry points never call each other: the process already has functions of the
// same names, the manager's, and those would answer.

#include <sql.h>
#include <sqlext.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "bench_data.h"

#define NULL_DRIVER_API extern "C" __attribute__((visibility("default")))

namespace {

using bench::Column;
using bench::DataSet;
using bench::Kind;

// ---------------------------------------------------------------------------
// Diagnostics
// ---------------------------------------------------------------------------

struct Diagnostic {
  char state[SQL_SQLSTATE_SIZE + 1];
  const char* message;
};

constexpr Diagnostic kTruncated{"01004", "String data, right truncated"};
constexpr Diagnostic kBadType{"07006", "Restricted data type attribute"};
constexpr Diagnostic kBadColumn{"07009", "Invalid descriptor index"};
constexpr Diagnostic kNoIndicator{"22002", "Indicator variable required"};
constexpr Diagnostic kOutOfRange{"22003", "Numeric value out of range"};
constexpr Diagnostic kNotANumber{"22018", "Invalid character value for cast"};
constexpr Diagnostic kNoRow{"24000", "Invalid cursor state"};
constexpr Diagnostic kSyntax{"42000", "Expected a data set and a row count"};
constexpr Diagnostic kBadLength{"HY090", "Invalid string or buffer length"};
constexpr Diagnostic kNotOffered{"HYC00", "Optional feature not implemented"};

// ---------------------------------------------------------------------------
// Handles
// ---------------------------------------------------------------------------

/// Environments and connections have no more state than this.
struct Handle {
  const Diagnostic* diagnostic = nullptr;  ///< of the last call

  SQLRETURN fail(const Diagnostic& why) {
    diagnostic = &why;
    return SQL_ERROR;
  }
  SQLRETURN warn(const Diagnostic& why) {
    diagnostic = &why;
    return SQL_SUCCESS_WITH_INFO;
  }
};

struct Statement : Handle {
  const DataSet* data = nullptr;  ///< null while nothing is executed
  const Column* columns = nullptr;
  std::size_t column_count = 0;
  std::int64_t row = -1;
  std::int64_t rows = 0;

  // How far the current column has been delivered.
  std::size_t part_column = 0;  ///< 1-based; 0: none of this row yet
  std::size_t part_offset = 0;
  bool part_done = false;

  std::string rendering;  ///< a number as text, a blob as hexadecimal digits

  void close() {
    data = nullptr;
    columns = nullptr;
    column_count = 0;
    row = -1;
    rows = 0;
  }
};

SQLRETURN execute(Statement& statement, std::string_view sql) {
  statement.close();
  const std::size_t blank = sql.find(' ');
  if (blank == std::string_view::npos) {
    return statement.fail(kSyntax);
  }
  const DataSet* const data = bench::find_data_set(sql.substr(0, blank));
  std::int64_t rows = -1;
  const char* const end = sql.data() + sql.size();
  const auto [rest, error] = std::from_chars(sql.data() + blank + 1, end, rows);
  if (data == nullptr || error != std::errc() || rest != end || rows < 0) {
    return statement.fail(kSyntax);
  }
  statement.data = data;
  statement.columns = data->columns.data();
  statement.column_count = data->columns.size();
  statement.rows = rows;
  return SQL_SUCCESS;
}

// ---------------------------------------------------------------------------
// Delivering a cell
// ---------------------------------------------------------------------------

struct Target {
  SQLSMALLINT type;
  SQLPOINTER buffer;
  SQLLEN length;
  SQLLEN* indicator;
};

SQLRETURN deliver_null(Statement& statement, const Target& target) {
  if (target.indicator == nullptr) {
    return statement.fail(kNoIndicator);
  }
  statement.part_done = true;
  *target.indicator = SQL_NULL_DATA;
  return SQL_SUCCESS;
}

template <typename T>
SQLRETURN deliver_fixed(Statement& statement, const Target& target, T value) {
  statement.part_done = true;
  std::memcpy(target.buffer, &value, sizeof(value));
  if (target.indicator != nullptr) {
    *target.indicator = sizeof(value);
  }
  return SQL_SUCCESS;
}

/// The next piece of `bytes`: with a NUL behind it when text is asked for.
SQLRETURN deliver_bytes(Statement& statement, const Target& target,
                        std::string_view bytes) {
  const bool terminated = target.type == SQL_C_CHAR;
  if (target.length < (terminated ? 1 : 0)) {
    return statement.fail(kBadLength);
  }
  const std::size_t room =
      static_cast<std::size_t>(target.length) - (terminated ? 1U : 0U);
  const std::size_t remaining = bytes.size() - statement.part_offset;
  const std::size_t count = std::min(room, remaining);
  char* const out = static_cast<char*>(target.buffer);
  std::memcpy(out, bytes.data() + statement.part_offset, count);
  if (terminated) {
    out[count] = '\0';
  }
  if (target.indicator != nullptr) {
    *target.indicator = static_cast<SQLLEN>(remaining);
  }
  if (count < remaining) {
    statement.part_offset += count;
    return statement.warn(kTruncated);
  }
  statement.part_done = true;
  return SQL_SUCCESS;
}

SQLRETURN deliver_bit(Statement& statement, const Target& target, bool is_zero,
                      bool is_one) {
  if (!is_zero && !is_one) {
    return statement.fail(kOutOfRange);
  }
  return deliver_fixed<unsigned char>(statement, target, is_one ? 1 : 0);
}

std::string_view raw_bytes(std::string& storage, const void* value,
                           std::size_t size) {
  return storage.assign(static_cast<const char*>(value), size);
}

SQLRETURN deliver_integer(Statement& statement, const Target& target,
                          std::int64_t value) {
  switch (target.type) {
    case SQL_C_SBIGINT:
      return deliver_fixed(statement, target, value);
    case SQL_C_DOUBLE:
      return deliver_fixed(statement, target, static_cast<double>(value));
    case SQL_C_BIT:
      return deliver_bit(statement, target, value == 0, value == 1);
    case SQL_C_CHAR:
      statement.rendering = std::to_string(value);
      return deliver_bytes(statement, target, statement.rendering);
    case SQL_C_BINARY:
      return deliver_bytes(
          statement, target,
          raw_bytes(statement.rendering, &value, sizeof(value)));
    default:
      return statement.fail(kBadType);
  }
}

SQLRETURN deliver_double(Statement& statement, const Target& target,
                         double value) {
  switch (target.type) {
    case SQL_C_DOUBLE:
      return deliver_fixed(statement, target, value);
    case SQL_C_SBIGINT:
      if (!(std::abs(value) < 9223372036854775808.0)) {
        return statement.fail(kOutOfRange);
      }
      return deliver_fixed(statement, target, static_cast<std::int64_t>(value));
    case SQL_C_BIT:
      return deliver_bit(statement, target, value >= 0 && value < 1,
                         value >= 1 && value < 2);
    case SQL_C_CHAR: {
      char digits[64];
      const auto end =
          std::to_chars(std::begin(digits), std::end(digits), value).ptr;
      statement.rendering.assign(digits, end);
      return deliver_bytes(statement, target, statement.rendering);
    }
    case SQL_C_BINARY:
      return deliver_bytes(
          statement, target,
          raw_bytes(statement.rendering, &value, sizeof(value)));
    default:
      return statement.fail(kBadType);
  }
}

SQLRETURN deliver_text(Statement& statement, const Target& target,
                       const std::string& text) {
  if (target.type == SQL_C_CHAR || target.type == SQL_C_BINARY) {
    return deliver_bytes(statement, target, text);
  }
  if (target.type != SQL_C_SBIGINT && target.type != SQL_C_DOUBLE &&
      target.type != SQL_C_BIT) {
    return statement.fail(kBadType);
  }
  const char* const end = text.data() + text.size();
  double value = 0;
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end) {
    return statement.fail(kNotANumber);
  }
  return deliver_double(statement, target, value);
}

SQLRETURN deliver_blob(Statement& statement, const Target& target,
                       const std::string& blob) {
  if (target.type == SQL_C_BINARY) {
    return deliver_bytes(statement, target, blob);
  }
  if (target.type != SQL_C_CHAR) {
    return statement.fail(kBadType);
  }
  static constexpr char kDigits[] = "0123456789ABCDEF";
  statement.rendering.clear();
  for (const char c : blob) {
    const auto byte = static_cast<unsigned char>(c);
    statement.rendering += kDigits[byte >> 4];
    statement.rendering += kDigits[byte & 15];
  }
  return deliver_bytes(statement, target, statement.rendering);
}

// ---------------------------------------------------------------------------
// The entry points
// ---------------------------------------------------------------------------

Statement& statement_of(SQLHSTMT handle) {
  Statement& statement = *static_cast<Statement*>(handle);
  statement.diagnostic = nullptr;
  return statement;
}

std::string_view text_of(const SQLCHAR* text, SQLINTEGER length) {
  const char* const chars = reinterpret_cast<const char*>(text);
  return length == SQL_NTS
             ? std::string_view(chars)
             : std::string_view(chars, static_cast<std::size_t>(length));
}

const Diagnostic* diagnostic_of(SQLSMALLINT type, SQLHANDLE handle) {
  return type == SQL_HANDLE_STMT ? static_cast<Statement*>(handle)->diagnostic
                                 : static_cast<Handle*>(handle)->diagnostic;
}

/// Copies `text`, cut to `capacity` bytes with its NUL, and reports its length.
/// False when it was cut.
bool put_text(std::string_view text, SQLCHAR* buffer, SQLSMALLINT capacity,
              SQLSMALLINT* length_out) {
  if (length_out != nullptr) {
    *length_out = static_cast<SQLSMALLINT>(text.size());
  }
  if (buffer == nullptr || capacity <= 0) {
    return buffer == nullptr;
  }
  const std::size_t count =
      std::min(text.size(), static_cast<std::size_t>(capacity) - 1);
  std::memcpy(buffer, text.data(), count);
  buffer[count] = 0;
  return count == text.size();
}

}  // namespace

NULL_DRIVER_API SQLRETURN SQL_API SQLAllocHandle(SQLSMALLINT type, SQLHANDLE,
                                                 SQLHANDLE* out) {
  switch (type) {
    case SQL_HANDLE_ENV:
    case SQL_HANDLE_DBC:
      *out = new Handle;
      return SQL_SUCCESS;
    case SQL_HANDLE_STMT:
      *out = new Statement;
      return SQL_SUCCESS;
    default:
      *out = nullptr;
      return SQL_ERROR;
  }
}

NULL_DRIVER_API SQLRETURN SQL_API SQLFreeHandle(SQLSMALLINT type,
                                                SQLHANDLE handle) {
  switch (type) {
    case SQL_HANDLE_ENV:
    case SQL_HANDLE_DBC:
      delete static_cast<Handle*>(handle);
      return SQL_SUCCESS;
    case SQL_HANDLE_STMT:
      delete static_cast<Statement*>(handle);
      return SQL_SUCCESS;
    default:
      return SQL_ERROR;
  }
}

NULL_DRIVER_API SQLRETURN SQL_API SQLSetEnvAttr(SQLHENV, SQLINTEGER, SQLPOINTER,
                                                SQLINTEGER) {
  return SQL_SUCCESS;
}

NULL_DRIVER_API SQLRETURN SQL_API SQLDriverConnect(
    SQLHDBC, SQLHWND, SQLCHAR* in, SQLSMALLINT in_length, SQLCHAR* out,
    SQLSMALLINT capacity, SQLSMALLINT* out_length, SQLUSMALLINT) {
  put_text(text_of(in, in_length), out, capacity, out_length);
  return SQL_SUCCESS;
}

NULL_DRIVER_API SQLRETURN SQL_API SQLDisconnect(SQLHDBC) { return SQL_SUCCESS; }

NULL_DRIVER_API SQLRETURN SQL_API SQLGetInfo(SQLHDBC connection,
                                             SQLUSMALLINT type,
                                             SQLPOINTER value,
                                             SQLSMALLINT capacity,
                                             SQLSMALLINT* length) {
  Handle& handle = *static_cast<Handle*>(connection);
  handle.diagnostic = nullptr;
  SQLCHAR* const text = static_cast<SQLCHAR*>(value);
  switch (type) {
    case SQL_DRIVER_ODBC_VER:
      put_text("03.00", text, capacity, length);
      return SQL_SUCCESS;
    case SQL_DRIVER_NAME:
    case SQL_DBMS_NAME:
      put_text("null driver", text, capacity, length);
      return SQL_SUCCESS;
    case SQL_CURSOR_COMMIT_BEHAVIOR:
    case SQL_CURSOR_ROLLBACK_BEHAVIOR: {
      const SQLUSMALLINT behaviour = SQL_CB_PRESERVE;
      std::memcpy(value, &behaviour, sizeof(behaviour));
      return SQL_SUCCESS;
    }
    case SQL_GETDATA_EXTENSIONS: {
      const SQLUINTEGER extensions = SQL_GD_ANY_COLUMN | SQL_GD_ANY_ORDER;
      std::memcpy(value, &extensions, sizeof(extensions));
      return SQL_SUCCESS;
    }
    default:
      return handle.fail(kNotOffered);
  }
}

NULL_DRIVER_API SQLRETURN SQL_API SQLExecDirect(SQLHSTMT handle, SQLCHAR* sql,
                                                SQLINTEGER length) {
  return execute(statement_of(handle), text_of(sql, length));
}

NULL_DRIVER_API SQLRETURN SQL_API SQLNumResultCols(SQLHSTMT handle,
                                                   SQLSMALLINT* count) {
  *count = static_cast<SQLSMALLINT>(statement_of(handle).column_count);
  return SQL_SUCCESS;
}

NULL_DRIVER_API SQLRETURN SQL_API SQLDescribeCol(
    SQLHSTMT handle, SQLUSMALLINT number, SQLCHAR* name, SQLSMALLINT capacity,
    SQLSMALLINT* name_length, SQLSMALLINT* type, SQLULEN* size,
    SQLSMALLINT* digits, SQLSMALLINT* nullability) {
  Statement& statement = statement_of(handle);
  if (number == 0 || number > statement.column_count) {
    return statement.fail(kBadColumn);
  }
  const Column& column = statement.columns[number - 1U];
  if (type != nullptr) {
    *type = column.sql_type;
  }
  if (size != nullptr) {
    *size = column.size;
  }
  if (digits != nullptr) {
    *digits = 0;
  }
  if (nullability != nullptr) {
    *nullability = column.sometimes_null ? SQL_NULLABLE : SQL_NO_NULLS;
  }
  return put_text(column.name, name, capacity, name_length)
             ? SQL_SUCCESS
             : statement.warn(kTruncated);
}

NULL_DRIVER_API SQLRETURN SQL_API SQLFetch(SQLHSTMT handle) {
  Statement& statement = statement_of(handle);
  if (statement.data == nullptr) {
    return statement.fail(kNoRow);
  }
  statement.part_column = 0;
  if (statement.row >= statement.rows - 1) {
    statement.row = statement.rows;
    return SQL_NO_DATA;
  }
  ++statement.row;
  return SQL_SUCCESS;
}

NULL_DRIVER_API SQLRETURN SQL_API SQLGetData(SQLHSTMT handle,
                                             SQLUSMALLINT number,
                                             SQLSMALLINT type,
                                             SQLPOINTER buffer, SQLLEN length,
                                             SQLLEN* indicator) {
  Statement& statement = statement_of(handle);
  const std::int64_t row = statement.row;
  if (row < 0 || row >= statement.rows) {
    return statement.fail(kNoRow);
  }
  if (number == 0 || number > statement.column_count) {
    return statement.fail(kBadColumn);
  }
  if (number != statement.part_column) {
    statement.part_column = number;
    statement.part_offset = 0;
    statement.part_done = false;
  } else if (statement.part_done) {
    return SQL_NO_DATA;
  }
  const Column& column = statement.columns[number - 1U];
  const Target target{type, buffer, length, indicator};
  if (column.is_null(row)) {
    return deliver_null(statement, target);
  }
  switch (column.kind) {
    case Kind::kInteger:
      return deliver_integer(statement, target, column.integer(row));
    case Kind::kDouble:
      return deliver_double(statement, target, column.number(row));
    case Kind::kText:
      return deliver_text(statement, target, column.bytes(row));
    case Kind::kBlob:
      return deliver_blob(statement, target, column.bytes(row));
  }
  return statement.fail(kBadType);
}

// As drivers do that cannot know how many rows a query will give.
NULL_DRIVER_API SQLRETURN SQL_API SQLRowCount(SQLHSTMT handle, SQLLEN* count) {
  statement_of(handle);
  *count = -1;
  return SQL_SUCCESS;
}

NULL_DRIVER_API SQLRETURN SQL_API SQLCloseCursor(SQLHSTMT handle) {
  statement_of(handle).close();
  return SQL_SUCCESS;
}

NULL_DRIVER_API SQLRETURN SQL_API SQLFreeStmt(SQLHSTMT handle,
                                              SQLUSMALLINT option) {
  Statement& statement = statement_of(handle);
  if (option == SQL_CLOSE) {
    statement.close();
  }
  return SQL_SUCCESS;
}

NULL_DRIVER_API SQLRETURN SQL_API
SQLGetDiagRec(SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT record,
              SQLCHAR* state, SQLINTEGER* native, SQLCHAR* message,
              SQLSMALLINT capacity, SQLSMALLINT* length) {
  const Diagnostic* const diagnostic = diagnostic_of(type, handle);
  if (diagnostic == nullptr || record != 1) {
    return SQL_NO_DATA;
  }
  if (state != nullptr) {
    std::memcpy(state, diagnostic->state, sizeof(diagnostic->state));
  }
  if (native != nullptr) {
    *native = 0;
  }
  return put_text(diagnostic->message, message, capacity, length)
             ? SQL_SUCCESS
             : SQL_SUCCESS_WITH_INFO;
}

// The manager fetches no diagnostic from a driver without this function.
NULL_DRIVER_API SQLRETURN SQL_API
SQLGetDiagField(SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT record,
                SQLSMALLINT identifier, SQLPOINTER value, SQLSMALLINT capacity,
                SQLSMALLINT* length) {
  const Diagnostic* const diagnostic = diagnostic_of(type, handle);
  const SQLINTEGER count = diagnostic == nullptr ? 0 : 1;
  if (identifier == SQL_DIAG_NUMBER) {
    std::memcpy(value, &count, sizeof(count));
    return SQL_SUCCESS;
  }
  if (diagnostic == nullptr || record != 1) {
    return SQL_NO_DATA;
  }
  SQLCHAR* const text = static_cast<SQLCHAR*>(value);
  switch (identifier) {
    case SQL_DIAG_SQLSTATE:
      put_text(diagnostic->state, text, capacity, length);
      return SQL_SUCCESS;
    case SQL_DIAG_MESSAGE_TEXT:
      put_text(diagnostic->message, text, capacity, length);
      return SQL_SUCCESS;
    case SQL_DIAG_CLASS_ORIGIN:
    case SQL_DIAG_SUBCLASS_ORIGIN:
      put_text("ISO 9075", text, capacity, length);
      return SQL_SUCCESS;
    case SQL_DIAG_CONNECTION_NAME:
    case SQL_DIAG_SERVER_NAME:
      put_text("", text, capacity, length);
      return SQL_SUCCESS;
    case SQL_DIAG_NATIVE: {
      const SQLINTEGER native = 0;
      std::memcpy(value, &native, sizeof(native));
      return SQL_SUCCESS;
    }
    default:
      return SQL_ERROR;
  }
}
