// SPDX-License-Identifier: MIT
//
// Sections: handles; answers; the entry points.

#include "fuzz/odbc_double.h"

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <utility>

namespace fuzz::odbc {
namespace {

// ---------------------------------------------------------------------------
// Handles
// ---------------------------------------------------------------------------

struct Handle {
  SQLSMALLINT type = 0;
  Handle* parent = nullptr;
  bool alive = true;
  int children = 0;
  bool connected = false;
  bool failed = false;  ///< the last call: there may be a diagnostic record
  bool prepared = false;
  bool executed = false;
  bool on_row = false;
  SQLSMALLINT columns = 0;
  SQLUSMALLINT last_column = 0;
  std::vector<Bound> bound{};
};

// A statement delivers no more cells than these; columns without a name and
// without content cost an input nothing.
constexpr std::size_t kMostCells = 20000;

struct Session {
  Input* input = nullptr;
  bool logged = false;
  std::size_t cells = 0;
  // Dead ones stay until the end, so that no address comes back.
  std::vector<std::unique_ptr<Handle>> handles{};
  std::vector<Call> calls{};
};
Session g_session;

Handle& alive(SQLSMALLINT type, SQLHANDLE handle) {
  auto* const found = static_cast<Handle*>(handle);
  const bool known =
      std::any_of(g_session.handles.begin(), g_session.handles.end(),
                  [found](const auto& each) { return each.get() == found; });
  check(known, "a call on something that is no handle");
  check(found->alive, "a call on a handle that was freed");
  check(found->type == type, "a call on a handle of another type");
  return *found;
}

Handle& statement(SQLHSTMT handle) { return alive(SQL_HANDLE_STMT, handle); }

/// The callee may read and write so much.
void check_buffer(const void* buffer, SQLLEN length, const char* what) {
  check(length >= 0 && buffer != nullptr &&
            __asan_region_is_poisoned(const_cast<void*>(buffer),
                                      static_cast<std::size_t>(length)) ==
                nullptr,
        what);
}

template <class Number>
void check_place(const Number* place, const char* what) {
  check_buffer(place, sizeof *place, what);
  check(reinterpret_cast<std::uintptr_t>(place) % alignof(Number) == 0, what);
}

// ---------------------------------------------------------------------------
// Answers
// ---------------------------------------------------------------------------

std::uint8_t byte() {
  return g_session.input != nullptr ? g_session.input->byte() : 0;
}

template <class Integer>
Integer integer() {
  return g_session.input != nullptr ? g_session.input->integer<Integer>() : 0;
}

std::string bytes(std::size_t most) {
  return g_session.input != nullptr ? g_session.input->bytes(most) : "";
}

bool succeeded(SQLRETURN code) {
  return code == SQL_SUCCESS || code == SQL_SUCCESS_WITH_INFO;
}

/// Mostly success.
SQLRETURN code_of(std::uint8_t choice) {
  if (choice < 0xA0) return SQL_SUCCESS;
  if (choice < 0xC0) return SQL_SUCCESS_WITH_INFO;
  if (choice < 0xE0) return SQL_ERROR;
  constexpr SQLRETURN kOthers[] = {SQL_NO_DATA, SQL_NEED_DATA,
                                   SQL_STILL_EXECUTING, SQL_INVALID_HANDLE};
  return choice < 0xF0 ? kOthers[choice % std::size(kOthers)]
                       : integer<SQLRETURN>();
}

SQLRETURN code() { return code_of(byte()); }

/// Fills a buffer, over and over with the same bytes if there are too few.
void write(void* buffer, SQLLEN length, std::size_t least_bytes) {
  const auto size = static_cast<std::size_t>(length);
  const std::string pattern = bytes(std::min(least_bytes, size));
  auto* const to = static_cast<char*>(buffer);
  for (std::size_t i = 0; i < size; ++i) {
    to[i] = pattern.empty() ? 'z' : pattern[i % pattern.size()];
  }
}

/// What a driver may say about a length that is `honest`.
SQLLEN indicator(SQLLEN honest, SQLLEN room) {
  const std::uint8_t choice = byte();
  switch (choice % 16) {
    case 1:
      return SQL_NULL_DATA;
    case 2:
      return SQL_NO_TOTAL;
    case 3:
      return SQL_NTS;
    case 4:
      return 0;
    case 5:
      return room;
    case 6:
      return room + 1;
    case 7:
      return room - 1;
    case 8:
      return integer<std::int64_t>();
    case 9:
      return std::numeric_limits<SQLLEN>::max();
    case 10:
      return std::numeric_limits<SQLLEN>::min();
    case 11:
      return integer<std::int8_t>();
    default:
      return honest;
  }
}

Call& keep(Call call) {
  static Call discarded;
  if (!g_session.logged) {
    discarded = std::move(call);
    return discarded;
  }
  g_session.calls.push_back(std::move(call));
  return g_session.calls.back();
}

/// Ends a call on a handle.
SQLRETURN finish(Handle& handle, Call call) {
  const SQLRETURN code = call.code;
  handle.failed = !succeeded(code);
  keep(std::move(call));
  return code;
}

/// Of an empty value there is no buffer, whatever its length is said to be.
void check_bound(const Bound& bound) {
  if (bound.buffer != nullptr) {
    check_buffer(bound.buffer, bound.length, "a bound buffer");
  }
  check_place(bound.indicator, "a bound indicator");
}

void check_input(const Bound& bound) {
  if (bound.direction == SQL_PARAM_OUTPUT) return;
  const SQLLEN indicator = *bound.indicator;
  if (indicator == SQL_NULL_DATA || bound.buffer == nullptr) {
    check(indicator <= 0, "a length of nothing");
    return;
  }
  if (bound.c_type == SQL_C_CHAR && indicator == SQL_NTS) {
    check(std::memchr(bound.buffer, 0,
                      static_cast<std::size_t>(bound.length)) != nullptr,
          "a text without a terminator");
  } else if (bound.c_type == SQL_C_BINARY || bound.c_type == SQL_C_WCHAR) {
    check_buffer(bound.buffer, indicator, "a length beyond the buffer");
  }
}

std::string content(const Bound& bound) {
  if (bound.buffer == nullptr) return {};
  return {static_cast<const char*>(bound.buffer),
          static_cast<std::size_t>(bound.length)};
}

/// What a driver leaves in a parameter.
void answer_parameter(Bound& bound) {
  const std::uint8_t choice = byte();
  if (choice < 0x40) return;
  const bool is_output = bound.direction != SQL_PARAM_INPUT;
  if (!is_output && choice < 0xF0) return;
  if (is_output && bound.buffer != nullptr) {
    const SQLLEN count = choice < 0xC0
                             ? std::min<SQLLEN>(choice % 32, bound.length)
                             : bound.length;
    write(bound.buffer, count, 32);
    *bound.indicator = choice < 0x80 ? count : indicator(count, bound.length);
  } else {
    *bound.indicator = indicator(0, bound.length);
  }
}

SQLRETURN run(Handle& handle, Function function, std::string sql) {
  Call call = {function, code()};
  call.text = std::move(sql);
  for (Bound& each : handle.bound) {
    check_bound(each);
    check_input(each);
    each.sent = content(each);
    each.sent_indicator = *each.indicator;
    if (succeeded(call.code)) answer_parameter(each);
    each.received = content(each);
    each.received_indicator = *each.indicator;
  }
  if (g_session.logged) call.bound = handle.bound;
  handle.executed = succeeded(call.code);
  return finish(handle, std::move(call));
}

}  // namespace

void begin(Input* input, bool logged) {
  g_session.input = input;
  g_session.logged = logged;
  g_session.cells = 0;
}

void clear_log() { g_session.calls.clear(); }
const std::vector<Call>& log() { return g_session.calls; }

void end() {
  for (const auto& each : g_session.handles) {
    check(!each->alive, "a handle that was not freed");
  }
  g_session = {};
}

}  // namespace fuzz::odbc

// ---------------------------------------------------------------------------
// The entry points
// ---------------------------------------------------------------------------

using namespace fuzz::odbc;  // NOLINT(google-build-using-namespace)
using fuzz::check;

SQLRETURN SQLAllocHandle(SQLSMALLINT type, SQLHANDLE parent, SQLHANDLE* made) {
  check_place(made, "the place for a handle");
  Handle* owner = nullptr;
  if (type == SQL_HANDLE_ENV) {
    check(parent == SQL_NULL_HANDLE, "the parent of an environment");
  } else if (type == SQL_HANDLE_DBC) {
    owner = &alive(SQL_HANDLE_ENV, parent);
  } else {
    check(type == SQL_HANDLE_STMT, "the type of a handle");
    owner = &alive(SQL_HANDLE_DBC, parent);
    check(owner->connected, "a statement without a connection");
  }
  Call call = {Function::alloc_handle, code()};
  call.number = type;
  if (succeeded(call.code)) {
    auto handle = std::make_unique<Handle>();
    handle->type = type;
    handle->parent = owner;
    if (owner != nullptr) ++owner->children;
    *made = handle.get();
    g_session.handles.push_back(std::move(handle));
  } else {
    // Whatever a failure leaves there is no handle.
    *made = &g_session;
  }
  const SQLRETURN result = call.code;
  keep(std::move(call));
  return result;
}

SQLRETURN SQLSetEnvAttr(SQLHENV environment, SQLINTEGER attribute,
                        SQLPOINTER value, SQLINTEGER length) {
  Handle& handle = alive(SQL_HANDLE_ENV, environment);
  check(attribute == SQL_ATTR_ODBC_VERSION &&
            reinterpret_cast<std::uintptr_t>(value) == SQL_OV_ODBC3 &&
            length == 0,
        "an attribute");
  return finish(handle, {Function::set_env_attr, code()});
}

SQLRETURN SQLDriverConnect(SQLHDBC connection, SQLHWND window, SQLCHAR* text,
                           SQLSMALLINT length, SQLCHAR* out,
                           SQLSMALLINT out_size, SQLSMALLINT* out_length,
                           SQLUSMALLINT completion) {
  Handle& handle = alive(SQL_HANDLE_DBC, connection);
  check(!handle.connected && handle.parent->alive, "connecting twice");
  check(window == nullptr && length == SQL_NTS && out == nullptr &&
            out_size == 0 && out_length == nullptr &&
            completion == SQL_DRIVER_NOPROMPT,
        "how to connect");
  Call call = {Function::driver_connect, code()};
  call.text = reinterpret_cast<const char*>(text);
  handle.connected = succeeded(call.code);
  return finish(handle, std::move(call));
}

SQLRETURN SQLDisconnect(SQLHDBC connection) {
  Handle& handle = alive(SQL_HANDLE_DBC, connection);
  check(handle.connected && handle.children == 0, "disconnecting");
  handle.connected = false;
  return finish(handle, {Function::disconnect, code()});
}

SQLRETURN SQLFreeHandle(SQLSMALLINT type, SQLHANDLE freed) {
  Handle& handle = alive(type, freed);
  check(handle.children == 0, "freeing what has something below it");
  check(!handle.connected, "freeing a connection that is open");
  // A driver may write to them up to here.
  for (const Bound& each : handle.bound) check_bound(each);
  handle.alive = false;
  handle.bound.clear();
  if (handle.parent != nullptr) --handle.parent->children;
  Call call = {Function::free_handle, code()};
  call.number = type;
  const SQLRETURN result = call.code;
  keep(std::move(call));
  return result;
}

SQLRETURN SQLPrepare(SQLHSTMT handle_, SQLCHAR* text, SQLINTEGER length) {
  Handle& handle = statement(handle_);
  check(length == SQL_NTS && !handle.prepared, "preparing");
  Call call = {Function::prepare, code()};
  call.text = reinterpret_cast<const char*>(text);
  handle.prepared = succeeded(call.code);
  return finish(handle, std::move(call));
}

SQLRETURN SQLExecute(SQLHSTMT handle_) {
  Handle& handle = statement(handle_);
  check(handle.prepared && !handle.bound.empty(), "executing");
  return run(handle, Function::execute, {});
}

SQLRETURN SQLExecDirect(SQLHSTMT handle_, SQLCHAR* text, SQLINTEGER length) {
  Handle& handle = statement(handle_);
  check(length == SQL_NTS && !handle.prepared && handle.bound.empty(),
        "executing at once");
  return run(handle, Function::exec_direct,
             reinterpret_cast<const char*>(text));
}

SQLRETURN SQLBindParameter(SQLHSTMT handle_, SQLUSMALLINT number,
                           SQLSMALLINT direction, SQLSMALLINT c_type,
                           SQLSMALLINT sql_type, SQLULEN column_size,
                           SQLSMALLINT digits, SQLPOINTER buffer, SQLLEN length,
                           SQLLEN* indicator) {
  Handle& handle = statement(handle_);
  check(handle.prepared && !handle.executed &&
            number == handle.bound.size() + 1 && digits == 0,
        "binding");
  check(direction == SQL_PARAM_INPUT || direction == SQL_PARAM_OUTPUT ||
            direction == SQL_PARAM_INPUT_OUTPUT,
        "a direction");
  Bound bound;
  bound.direction = direction;
  bound.c_type = c_type;
  bound.sql_type = sql_type;
  bound.column_size = column_size;
  bound.buffer = buffer;
  bound.length = length;
  bound.indicator = indicator;
  check_bound(bound);
  Call call = {Function::bind_parameter, code()};
  call.number = static_cast<SQLSMALLINT>(number);
  if (succeeded(call.code)) handle.bound.push_back(std::move(bound));
  return finish(handle, std::move(call));
}

SQLRETURN SQLNumResultCols(SQLHSTMT handle_, SQLSMALLINT* count) {
  Handle& handle = statement(handle_);
  check(handle.executed, "columns of nothing");
  check_place(count, "the place for a count");
  Call call = {Function::num_result_cols, code()};
  const std::uint8_t choice = byte();
  constexpr SQLSMALLINT kOthers[] = {-1, -32768, 17, 300};
  if (choice < 0xF0) {
    *count = choice < 0xE0 ? static_cast<SQLSMALLINT>(choice % 8)
                           : kOthers[choice % std::size(kOthers)];
  }
  call.length = *count;
  handle.columns = *count;
  return finish(handle, std::move(call));
}

SQLRETURN SQLDescribeCol(SQLHSTMT handle_, SQLUSMALLINT column, SQLCHAR* name,
                         SQLSMALLINT size, SQLSMALLINT* length,
                         SQLSMALLINT* type, SQLULEN* column_size,
                         SQLSMALLINT* digits, SQLSMALLINT* nullable) {
  Handle& handle = statement(handle_);
  check(handle.executed && column == handle.last_column + 1 &&
            column <= handle.columns,
        "describing a column");
  handle.last_column = column;
  check(size == 256, "the size for a name");
  check_buffer(name, size, "the buffer for a name");
  check_place(length, "the place for a length");
  check_place(type, "the place for a type");
  check_place(column_size, "the place for a size");
  check_place(digits, "the place for digits");
  check_place(nullable, "the place for a flag");
  const std::uint8_t choice = byte();
  constexpr SQLSMALLINT kTypes[] = {
      SQL_VARCHAR, SQL_INTEGER,       SQL_DOUBLE,         SQL_BIT,
      SQL_GUID,    SQL_VARBINARY,     SQL_WVARCHAR,       SQL_TYPE_TIMESTAMP,
      SQL_CHAR,    SQL_LONGVARBINARY, SQL_TINYINT,        SQL_SMALLINT,
      SQL_BIGINT,  SQL_NUMERIC,       SQL_INTERVAL_MONTH, SQL_REAL};
  Call call = {Function::describe_col};
  call.number = static_cast<SQLSMALLINT>(column);
  *type = kTypes[choice % std::size(kTypes)];
  if (choice < 0xC0) {
    const std::string given = bytes(choice / 16);
    std::memcpy(name, given.data(), given.size());
    name[given.size()] = 0;
    *length = static_cast<SQLSMALLINT>(given.size());
  } else {
    call.code = code();
    const std::uint8_t lie = byte();
    if (lie % 2 == 1) *type = integer<SQLSMALLINT>();
    if (lie % 4 >= 2) {
      write(name, size, lie / 4);
    } else {
      write(name, lie / 4, lie / 4);
    }
    if (lie % 8 < 6) *length = integer<SQLSMALLINT>();
    *column_size = integer<std::uint32_t>();
    *digits = *nullable = *length;
  }
  call.type = *type;
  call.length = *length;
  call.text.assign(reinterpret_cast<const char*>(name), 256);
  return finish(handle, std::move(call));
}

SQLRETURN SQLFetch(SQLHSTMT handle_) {
  Handle& handle = statement(handle_);
  check(handle.executed && handle.columns > 0 &&
            handle.last_column == handle.columns,
        "fetching");
  const std::uint8_t choice = byte();
  Call call = {Function::fetch, SQL_SUCCESS};
  g_session.cells += static_cast<std::size_t>(handle.columns);
  if (choice == 0 || g_session.cells > kMostCells) {
    call.code = SQL_NO_DATA;
  } else if (choice >= 0x80) {
    call.code = code_of(choice);
  }
  handle.on_row = succeeded(call.code);
  handle.last_column = 0;
  return finish(handle, std::move(call));
}

SQLRETURN SQLGetData(SQLHSTMT handle_, SQLUSMALLINT column, SQLSMALLINT c_type,
                     SQLPOINTER buffer, SQLLEN length, SQLLEN* place) {
  Handle& handle = statement(handle_);
  // In order, and the same one again for its next part.
  check(handle.on_row && column <= handle.columns &&
            (column == handle.last_column || column == handle.last_column + 1),
        "reading a cell");
  handle.last_column = column;
  const bool is_text = c_type == SQL_C_CHAR;
  const bool is_chunk = is_text || c_type == SQL_C_BINARY;
  check(length == (is_chunk                                            ? 1024
                   : c_type == SQL_C_BIT                               ? 1
                   : c_type == SQL_C_DOUBLE || c_type == SQL_C_SBIGINT ? 8
                                                                       : -1),
        "the size of a buffer");
  check_buffer(buffer, length, "the buffer for a cell");
  check_place(place, "the place for an indicator");
  auto* const to = static_cast<char*>(buffer);
  check(!is_text || std::all_of(to, to + length,
                                [](char each) { return each == '\0'; }),
        "a buffer for a text that is not cleared");
  const std::uint8_t choice = byte();
  Call call = {Function::get_data};
  call.number = static_cast<SQLSMALLINT>(column);
  call.type = c_type;
  if (choice == 0x7F) {
    *place = SQL_NULL_DATA;
  } else if (choice < 0x80) {
    const std::string given =
        bytes(is_chunk ? choice % 32U : static_cast<std::size_t>(length));
    std::memcpy(to, given.data(), given.size());
    if (is_text) to[given.size()] = '\0';
    *place = static_cast<SQLLEN>(given.size());
  } else {
    call.code = code_of(choice >= 0xC0 ? byte() : 0xA0);
    const std::uint8_t amount = byte();
    // The whole buffer, or a part.
    const SQLLEN count = amount >= 0x80 ? length
                         : is_chunk     ? SQLLEN{amount} * 4
                                        : std::min<SQLLEN>(amount, length);
    write(to, count, amount % 16U);
    const bool terminated = is_text && amount % 4 != 3 && count > 0;
    if (terminated) to[count - 1] = '\0';
    if (amount != 0x7F) *place = indicator(count, length);
  }
  call.length = *place;
  call.text.assign(to, static_cast<std::size_t>(length));
  return finish(handle, std::move(call));
}

SQLRETURN SQLRowCount(SQLHSTMT handle_, SQLLEN* count) {
  Handle& handle = statement(handle_);
  check(handle.executed, "counting nothing");
  check_place(count, "the place for a number of rows");
  Call call = {Function::row_count, code()};
  const std::uint8_t choice = byte();
  if (choice < 0x80) {
    *count = choice - 1;
  } else if (choice < 0xC0) {
    *count = integer<std::int64_t>();
  }
  call.length = *count;
  return finish(handle, std::move(call));
}

SQLRETURN SQLGetDiagRec(SQLSMALLINT type, SQLHANDLE handle_, SQLSMALLINT record,
                        SQLCHAR* state, SQLINTEGER* native, SQLCHAR* message,
                        SQLSMALLINT size, SQLSMALLINT* length) {
  Handle& handle = alive(type, handle_);
  check(handle.failed, "the diagnostics of a success");
  check(record == 1 && size == 1024, "a diagnostic record");
  check_buffer(state, SQL_SQLSTATE_SIZE + 1, "the buffer for a state");
  check_buffer(message, size, "the buffer for a message");
  check_place(native, "the place for a number");
  check_place(length, "the place for a length");
  const std::uint8_t choice = byte();
  Call call = {Function::get_diag_rec};
  call.number = type;
  if (choice < 0x80) {
    const std::string given = bytes(5);
    std::memcpy(state, given.data(), given.size());
    state[given.size()] = 0;
    const std::string text = bytes(choice % 32U);
    std::memcpy(message, text.data(), text.size());
    message[text.size()] = 0;
    *length = static_cast<SQLSMALLINT>(text.size());
  } else {
    call.code = code();
    const std::uint8_t lie = byte();
    write(state, lie % 8 < 6 ? lie % 8 : 6, 6);
    write(message, lie >= 0x80 ? SQLLEN{size} : SQLLEN{lie}, 16);
    if (lie % 4 != 3) *length = integer<SQLSMALLINT>();
    *native = integer<std::int32_t>();
  }
  const char* const read = reinterpret_cast<const char*>(state);
  call.state.assign(read, strnlen(read, SQL_SQLSTATE_SIZE));
  call.length = *length;
  call.text.assign(reinterpret_cast<const char*>(message), 1024);
  const SQLRETURN result = call.code;
  keep(std::move(call));
  handle.failed = false;
  return result;
}
