// SPDX-License-Identifier: MIT
//
// The scripted database: names and values; the log; cells into buffers; the
// machinery every call goes through; the fifteen entry points; the script.
//
// The same code is compiled into the scripted driver and into the test program
// that controls it. Both work on the driver's one object, so nothing here keeps
// state outside of it.

#include "support/scripted_odbc.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "support/scripted_odbc_engine.h"

namespace scripted_odbc {

namespace {

// ---------------------------------------------------------------------------
// Names and values
// ---------------------------------------------------------------------------

constexpr std::array<std::string_view, 15> kEntryPoints = {
    "SQLAllocHandle", "SQLSetEnvAttr",    "SQLDriverConnect", "SQLDisconnect",
    "SQLFreeHandle",  "SQLPrepare",       "SQLExecute",       "SQLExecDirect",
    "SQLFetch",       "SQLBindParameter", "SQLNumResultCols", "SQLDescribeCol",
    "SQLGetData",     "SQLRowCount",      "SQLGetDiagRec"};

void check_where(std::string_view where) {
  if (where == any_call) return;
  const std::string_view name = where.substr(0, where.find('('));
  if (std::find(kEntryPoints.begin(), kEntryPoints.end(), name) ==
      kEntryPoints.end()) {
    throw std::invalid_argument("no such entry point: " + std::string(where));
  }
}

bool is_called(const Call& call, std::string_view where) {
  if (where == any_call) return call.name != "SQLGetDiagRec";
  return call.name == where || call.label == where;
}

std::string type_name(SQLSMALLINT type) {
  switch (type) {
    case SQL_HANDLE_ENV:
      return "ENV";
    case SQL_HANDLE_DBC:
      return "DBC";
    case SQL_HANDLE_STMT:
      return "STMT";
    default:
      return std::to_string(type);
  }
}

std::string label_of(std::string_view name, std::string_view detail) {
  return std::string(name) + "(" + std::string(detail) + ")";
}

Argument number(std::string name, std::int64_t value) {
  return {std::move(name), Argument::Kind::kNumber, false, value, {}};
}

Argument pointer(std::string name, const void* value) {
  return {std::move(name), Argument::Kind::kPointer, value == nullptr, 0, {}};
}

Argument bytes(std::string name, const void* from, std::size_t count) {
  Argument argument{
      std::move(name), Argument::Kind::kBytes, from == nullptr, 0, {}};
  if (from != nullptr) {
    argument.bytes.assign(static_cast<const char*>(from), count);
  }
  return argument;
}

Argument string(std::string name, const SQLCHAR* text, SQLINTEGER length) {
  if (text == nullptr) return bytes(std::move(name), nullptr, 0);
  const std::size_t count =
      length == SQL_NTS ? std::strlen(reinterpret_cast<const char*>(text))
                        : static_cast<std::size_t>(std::max(length, 0));
  return bytes(std::move(name), text, count);
}

Argument indicator_argument(const SQLLEN* indicator) {
  return {"indicator",
          Argument::Kind::kNumber,
          indicator == nullptr,
          indicator == nullptr ? 0 : *indicator,
          {}};
}

std::size_t buffer_size(SQLLEN length) {
  return length > 0 ? static_cast<std::size_t>(length) : 0;
}

/// The size of a C type of fixed length, 0 for the others.
std::size_t fixed_size(SQLSMALLINT c_type) {
  switch (c_type) {
    case SQL_C_BIT:
    case SQL_C_STINYINT:
    case SQL_C_UTINYINT:
    case SQL_C_TINYINT:
      return 1;
    case SQL_C_SSHORT:
    case SQL_C_USHORT:
    case SQL_C_SHORT:
      return 2;
    case SQL_C_SLONG:
    case SQL_C_ULONG:
    case SQL_C_LONG:
    case SQL_C_FLOAT:
      return 4;
    case SQL_C_SBIGINT:
    case SQL_C_UBIGINT:
    case SQL_C_DOUBLE:
      return 8;
    default:
      return 0;
  }
}

void copy_bytes(void* to, const std::string& from, std::size_t count) {
  if (to != nullptr && count > 0) std::memcpy(to, from.data(), count);
}

template <typename T>
void store(T* to, T value) {
  if (to != nullptr) *to = value;
}

/// UTF-16 as bytes; malformed UTF-8 becomes U+FFFD.
std::string utf16_bytes(const std::string& utf8) {
  std::u16string units;
  for (std::size_t i = 0; i < utf8.size();) {
    const auto lead = static_cast<unsigned char>(utf8[i]);
    std::size_t more = 0;
    char32_t point = lead;
    if (lead >= 0xF0 && lead < 0xF8) {
      more = 3;
      point = lead & 0x07U;
    } else if (lead >= 0xE0) {
      more = 2;
      point = lead & 0x0FU;
    } else if (lead >= 0xC0) {
      more = 1;
      point = lead & 0x1FU;
    } else if (lead >= 0x80) {
      point = 0xFFFD;
    }
    ++i;
    for (; more > 0; --more, ++i) {
      if (i >= utf8.size() ||
          (static_cast<unsigned char>(utf8[i]) & 0xC0U) != 0x80U) {
        point = 0xFFFD;
        break;
      }
      point = (point << 6U) | (static_cast<unsigned char>(utf8[i]) & 0x3FU);
    }
    if (point >= 0x10000 && point <= 0x10FFFF) {
      units.push_back(
          static_cast<char16_t>(0xD800U + ((point - 0x10000U) >> 10U)));
      units.push_back(static_cast<char16_t>(0xDC00U + (point & 0x3FFU)));
    } else {
      units.push_back(
          static_cast<char16_t>(point > 0x10FFFF ? char32_t{0xFFFD} : point));
    }
  }
  return bytes_of(std::u16string_view(units));
}

std::string quoted(const std::string& bytes) {
  constexpr std::string_view kHex = "0123456789abcdef";
  constexpr std::size_t kShown = 80;
  std::string text = "\"";
  for (std::size_t i = 0; i < std::min(bytes.size(), kShown); ++i) {
    const auto c = static_cast<unsigned char>(bytes[i]);
    if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
      text += static_cast<char>(c);
    } else {
      text += "\\x";
      text += kHex[c >> 4U];
      text += kHex[c & 15U];
    }
  }
  text += "\"";
  if (bytes.size() > kShown) {
    text += "...(" + std::to_string(bytes.size()) + " bytes)";
  }
  return text;
}

}  // namespace

std::string bytes_of(std::u16string_view units) {
  std::string bytes(units.size() * sizeof(char16_t), '\0');
  if (!bytes.empty()) std::memcpy(bytes.data(), units.data(), bytes.size());
  return bytes;
}

// ---------------------------------------------------------------------------
// The log
// ---------------------------------------------------------------------------

const Argument& Call::argument(std::string_view which) const {
  for (const Argument& each : arguments) {
    if (each.name == which) return each;
  }
  throw std::out_of_range("no argument \"" + std::string(which) + "\" in " +
                          text());
}

std::int64_t Call::number(std::string_view which) const {
  return argument(which).number;
}

const std::string& Call::bytes(std::string_view which) const {
  return argument(which).bytes;
}

bool Call::is_null(std::string_view which) const {
  return argument(which).null;
}

std::string Call::text() const {
  std::string text = name + "(";
  std::string_view separator;
  for (const Argument& each : arguments) {
    text += separator;
    text += each.name + "=";
    if (each.null) {
      text += "null";
    } else if (each.kind == Argument::Kind::kNumber) {
      text += std::to_string(each.number);
    } else if (each.kind == Argument::Kind::kBytes) {
      text += quoted(each.bytes);
    } else {
      text += "pointer";
    }
    separator = ", ";
  }
  return text + ") = " + std::to_string(result);
}

std::ostream& operator<<(std::ostream& out, const Call& call) {
  return out << call.text();
}

std::string Sent::value() const {
  if (is_null()) return {};
  if (fixed_size(static_cast<SQLSMALLINT>(c_type)) != 0) return buffer;
  if (indicator == SQL_NTS) {
    if (c_type != SQL_C_WCHAR) return buffer.substr(0, buffer.find('\0'));
    std::size_t end = 0;
    while (end + 1 < buffer.size() &&
           (buffer[end] != '\0' || buffer[end + 1] != '\0')) {
      end += 2;
    }
    return buffer.substr(0, end);
  }
  return buffer.substr(0, buffer_size(indicator));
}

// ---------------------------------------------------------------------------
// Cells into buffers
// ---------------------------------------------------------------------------

namespace {

/// A value converted to a C type; nullopt where that makes no sense.
std::optional<std::string> convert(Cell::Kind kind, std::int64_t integer,
                                   double real, const std::string& content,
                                   SQLSMALLINT c_type) {
  if (fixed_size(c_type) == 0) {
    std::string text = content;
    if (kind == Cell::Kind::kInteger) text = std::to_string(integer);
    if (kind == Cell::Kind::kDouble) {
      std::ostringstream stream;
      stream.precision(std::numeric_limits<double>::max_digits10);
      stream << real;
      text = stream.str();
    }
    if (c_type == SQL_C_CHAR || c_type == SQL_C_BINARY) return text;
    if (c_type == SQL_C_WCHAR) return utf16_bytes(text);
    return std::nullopt;
  }
  if (kind == Cell::Kind::kBinary) return std::nullopt;
  if (kind == Cell::Kind::kText) {
    integer = std::strtoll(content.c_str(), nullptr, 10);
    real = std::strtod(content.c_str(), nullptr);
  } else if (kind == Cell::Kind::kInteger) {
    real = static_cast<double>(integer);
  } else {
    const bool fits =
        real >= -9223372036854775808.0 && real < 9223372036854775808.0;
    integer = fits ? static_cast<std::int64_t>(real) : INT64_MIN;
  }
  switch (c_type) {
    case SQL_C_DOUBLE:
      return bytes_of(real);
    case SQL_C_FLOAT:
      return std::nullopt;
    default:
      // Little-endian: the low bytes are the narrower number.
      return bytes_of(integer).substr(0, fixed_size(c_type));
  }
}

std::size_t terminator_size(SQLSMALLINT c_type) {
  if (c_type == SQL_C_CHAR) return 1;
  return c_type == SQL_C_WCHAR ? 2 : 0;
}

}  // namespace

SQLRETURN Engine::read_cell(Handle& statement, const Cell& cell,
                            SQLSMALLINT c_type, SQLPOINTER buffer,
                            SQLLEN buffer_length, SQLLEN* indicator) {
  if (cell.kind_ == Cell::Kind::kChunks) {
    if (statement.place >= cell.chunks_.size()) return SQL_NO_DATA;
    const Chunk& chunk = cell.chunks_[statement.place++];
    std::size_t count = chunk.bytes.size();
    if (count > buffer_size(buffer_length)) {
      complain("a chunk of " + std::to_string(count) +
               " bytes for a buffer of " + std::to_string(buffer_length));
      count = buffer_size(buffer_length);
    }
    copy_bytes(buffer, chunk.bytes, count);
    if (chunk.indicator) store(indicator, *chunk.indicator);
    statement.diagnostics = chunk.diagnostics.records();
    return chunk.code;
  }
  if (statement.column_done) return SQL_NO_DATA;
  if (cell.kind_ == Cell::Kind::kNull) {
    statement.column_done = true;
    store<SQLLEN>(indicator, SQL_NULL_DATA);
    return SQL_SUCCESS;
  }
  const std::optional<std::string> value =
      convert(cell.kind_, cell.integer_, cell.double_, cell.bytes_, c_type);
  if (!value) {
    statement.diagnostics = {{"07006", 0, "no such conversion"}};
    return SQL_ERROR;
  }
  if (fixed_size(c_type) != 0) {
    statement.column_done = true;
    copy_bytes(buffer, *value, value->size());
    store(indicator, static_cast<SQLLEN>(value->size()));
    return SQL_SUCCESS;
  }
  const std::size_t terminator = terminator_size(c_type);
  const std::size_t size = buffer_size(buffer_length);
  const std::size_t room = size > terminator ? size - terminator : 0;
  const std::size_t left = value->size() - statement.place;
  const std::size_t count = std::min({left, room, cell.piece_});
  const std::string piece = value->substr(statement.place, count);
  copy_bytes(buffer, piece + std::string(terminator, '\0'),
             std::min(size, count + terminator));
  statement.place += count;
  if (count == left) {
    statement.column_done = true;
    store(indicator, static_cast<SQLLEN>(left));
    return SQL_SUCCESS;
  }
  store<SQLLEN>(indicator,
                cell.no_total_ ? SQL_NO_TOTAL : static_cast<SQLLEN>(left));
  statement.diagnostics = {{"01004", 0, "data truncated"}};
  return SQL_SUCCESS_WITH_INFO;
}

void Engine::write_output(const Bound& bound, const Output& output) {
  const auto c_type = static_cast<SQLSMALLINT>(bound.arguments.c_type);
  const std::size_t fixed = fixed_size(c_type);
  const std::size_t size =
      fixed != 0 ? fixed : buffer_size(bound.arguments.buffer_length);
  if (const Raw* raw = std::get_if<Raw>(&output)) {
    if (bound.buffer != nullptr && raw->bytes.size() > size) {
      complain("an output of " + std::to_string(raw->bytes.size()) +
               " bytes for a buffer of " + std::to_string(size));
    }
    copy_bytes(bound.buffer, raw->bytes, std::min(raw->bytes.size(), size));
    if (raw->indicator) store(bound.indicator, *raw->indicator);
    return;
  }
  const Cell& cell = std::get<Cell>(output);
  if (cell.kind_ == Cell::Kind::kNull) {
    store<SQLLEN>(bound.indicator, SQL_NULL_DATA);
    return;
  }
  const std::optional<std::string> value =
      convert(cell.kind_, cell.integer_, cell.double_, cell.bytes_, c_type);
  if (!value || cell.kind_ == Cell::Kind::kChunks) {
    complain("parameter " + std::to_string(bound.arguments.number) +
             " cannot take that output");
    return;
  }
  const std::size_t terminator = terminator_size(c_type);
  const std::size_t count =
      std::min(value->size(), size > terminator ? size - terminator : 0);
  copy_bytes(bound.buffer,
             value->substr(0, count) + std::string(terminator, '\0'),
             std::min(size, count + terminator));
  store(bound.indicator, static_cast<SQLLEN>(value->size()));
}

// ---------------------------------------------------------------------------
// The machinery every call goes through
// ---------------------------------------------------------------------------

int Engine::number_of(SQLHANDLE handle) const {
  const auto found = handles_.find(handle);
  return found == handles_.end() ? 0 : found->second->number;
}

Engine::Handle* Engine::find(std::optional<HandleType> type, SQLHANDLE handle,
                             const std::string& label) {
  const auto found = handles_.find(handle);
  if (found == handles_.end()) {
    complain(label + (handle == nullptr ? " on a null handle"
                                        : " on an unknown handle"));
    return nullptr;
  }
  Handle* known = found->second.get();
  if (known->released) {
    complain(label + " on handle " + std::to_string(known->number) +
             ", which was released before");
    return nullptr;
  }
  if (type && known->type != *type) {
    complain(label + " on handle " + std::to_string(known->number) +
             " of another type");
    return nullptr;
  }
  return known;
}

std::variant<Reply, DiagReply> Engine::decide(
    const Call& call, std::unique_lock<std::mutex>& lock) {
  // Every matching rule counts the call, also those that do not decide it.
  std::vector<Answer> candidates;
  for (auto rule = rules_.rbegin(); rule != rules_.rend(); ++rule) {
    if (!is_called(call, rule->where)) continue;
    ++rule->seen;
    if (rule->which == 0 || rule->seen == rule->which) {
      candidates.push_back(rule->answer);
    }
  }
  for (const Answer& candidate : candidates) {
    if (const Reply* reply = std::get_if<Reply>(&candidate)) return *reply;
    if (const DiagReply* diag = std::get_if<DiagReply>(&candidate)) {
      return *diag;
    }
    // A handler may block or use the script, so it runs without the lock.
    lock.unlock();
    const std::optional<Reply> reply = std::get<Handler>(candidate)(call);
    lock.lock();
    if (reply) return *reply;
  }
  return Reply{};
}

SQLRETURN Engine::serve(Call call, std::optional<HandleType> type,
                        SQLHANDLE handle, const Effect& effect,
                        const Report& report) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (Argument& each : call.arguments) {
    if (each.name == "handle" || each.name == "input" || each.name == "env" ||
        each.name == "dbc" || each.name == "statement") {
      each.number = number_of(handle);
    }
  }
  if (call.label.empty()) call.label = call.name;
  const std::uint64_t id = next_call_++;
  log_.emplace(id, call);
  const auto finish = [&](SQLRETURN code) {
    const auto entry = log_.find(id);
    if (entry != log_.end()) entry->second.result = code;
    return code;
  };

  // An environment is allocated from no handle.
  Handle none;
  const bool is_root = type == HandleType::kEnv && handle == nullptr &&
                       call.name == "SQLAllocHandle";
  Handle* target = is_root ? &none : find(type, handle, call.label);
  if (target == nullptr) return finish(SQL_INVALID_HANDLE);

  const std::variant<Reply, DiagReply> answer = decide(call, lock);
  target->diagnostics.clear();
  const Reply& reply = std::get<Reply>(answer);
  if (reply.perform) {
    const SQLRETURN code = effect(*target);
    // "Every fetch succeeds with info" still ends after the last row.
    if (!SQL_SUCCEEDED(code)) return finish(code);
    if (reply.reported && report) report(*reply.reported);
    if (!reply.code && reply.diagnostics.records().empty()) return finish(code);
    target->diagnostics = reply.diagnostics.records();
    return finish(reply.code.value_or(code));
  }
  target->diagnostics = reply.diagnostics.records();
  return finish(reply.code.value_or(SQL_ERROR));
}

void Engine::release(Handle& handle) {
  handle.released = true;
  handle.result.reset();
  handle.bound.clear();
  for (const Handle* other : in_order_) {
    if (other->parent == &handle && !other->released) {
      complain("handle " + std::to_string(handle.number) +
               " was released before handle " + std::to_string(other->number) +
               ", which belongs to it");
    }
  }
  if (handle.connected) {
    complain("connection " + std::to_string(handle.number) +
             " was released without SQLDisconnect");
  }
}

SQLRETURN Engine::run(Handle& statement) {
  statement.next_row = 0;
  statement.on_row = false;
  const auto named = results_by_sql_.find(statement.sql);
  statement.result = named != results_by_sql_.end() ? named->second : result_;
  for (const auto& [number, output] : outputs_) {
    const auto bound = statement.bound.find(number);
    if (bound != statement.bound.end()) write_output(bound->second, output);
  }
  return SQL_SUCCESS;
}

SQLRETURN Engine::forbidden(const char* name) {
  const AtWork at_work;
  const std::lock_guard<std::mutex> lock(mutex_);
  complain(std::string("forbidden call: ") + name);
  return SQL_ERROR;
}

SQLRETURN Engine::manager_call(const char* name) {
  const AtWork at_work;
  const std::lock_guard<std::mutex> lock(mutex_);
  manager_log_.push_back({name, name, {}, SQL_ERROR});
  return SQL_ERROR;
}

// ---------------------------------------------------------------------------
// The fifteen entry points
// ---------------------------------------------------------------------------

SQLRETURN Engine::alloc_handle(SQLSMALLINT type, SQLHANDLE input,
                               SQLHANDLE* output) {
  HandleType made = HandleType::kEnv;
  std::optional<HandleType> parent = HandleType::kEnv;
  if (type == SQL_HANDLE_DBC) {
    made = HandleType::kDbc;
  } else if (type == SQL_HANDLE_STMT) {
    made = HandleType::kStmt;
    parent = HandleType::kDbc;
  } else if (type != SQL_HANDLE_ENV || input != SQL_NULL_HANDLE) {
    const std::lock_guard<std::mutex> lock(mutex_);
    complain("SQLAllocHandle of an odd type or parent");
    return SQL_ERROR;
  }
  store<SQLHANDLE>(output, SQL_NULL_HANDLE);
  Call call{
      "SQLAllocHandle",
      label_of("SQLAllocHandle", type_name(type)),
      {number("type", type), number("input", 0), pointer("output", output)},
      SQL_SUCCESS};
  return serve(std::move(call), parent, input, [&](Handle& owner) {
    auto handle = std::make_unique<Handle>();
    handle->type = made;
    handle->number = static_cast<int>(in_order_.size()) + 1;
    handle->parent = made == HandleType::kEnv ? nullptr : &owner;
    Handle* const key = handle.get();
    in_order_.push_back(key);
    handles_.emplace(key, std::move(handle));
    store<SQLHANDLE>(output, key);
    return SQL_SUCCESS;
  });
}

SQLRETURN Engine::set_env_attr(SQLHENV env, SQLINTEGER attribute,
                               SQLPOINTER value, SQLINTEGER length) {
  Call call{"SQLSetEnvAttr",
            {},
            {number("env", 0), number("attribute", attribute),
             number("value", static_cast<std::int64_t>(
                                 reinterpret_cast<std::intptr_t>(value))),
             number("length", length)},
            SQL_SUCCESS};
  return serve(std::move(call), HandleType::kEnv, env,
               [](Handle&) { return SQL_SUCCESS; });
}

SQLRETURN Engine::driver_connect(SQLHDBC dbc, SQLHWND window, SQLCHAR* text,
                                 SQLSMALLINT length, SQLCHAR* out,
                                 SQLSMALLINT out_size, SQLSMALLINT* out_length,
                                 SQLUSMALLINT completion) {
  Call call{
      "SQLDriverConnect",
      {},
      {number("dbc", 0), pointer("window", window),
       string("string", text, length), number("length", length),
       pointer("out", out), number("out_size", out_size),
       pointer("out_length", out_length), number("completion", completion)},
      SQL_SUCCESS};
  return serve(std::move(call), HandleType::kDbc, dbc, [&](Handle& connection) {
    connection.connected = true;
    if (out != nullptr && out_size > 0) *out = 0;
    store<SQLSMALLINT>(out_length, 0);
    return SQL_SUCCESS;
  });
}

SQLRETURN Engine::disconnect(SQLHDBC dbc) {
  Call call{"SQLDisconnect", {}, {number("dbc", 0)}, SQL_SUCCESS};
  {
    // Asking is enough: a caller can do no more about a failing disconnect.
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = handles_.find(dbc);
    if (known != handles_.end()) {
      Handle& connection = *known->second;
      connection.connected = false;
      for (const Handle* other : in_order_) {
        if (other->parent == &connection && !other->released) {
          complain("SQLDisconnect while statement " +
                   std::to_string(other->number) + " was not released");
        }
      }
    }
  }
  return serve(std::move(call), HandleType::kDbc, dbc,
               [](Handle&) { return SQL_SUCCESS; });
}

SQLRETURN Engine::free_handle(SQLSMALLINT type, SQLHANDLE handle) {
  Call call{"SQLFreeHandle",
            label_of("SQLFreeHandle", type_name(type)),
            {number("type", type), number("handle", 0)},
            SQL_SUCCESS};
  std::optional<HandleType> expected;
  if (type == SQL_HANDLE_ENV) expected = HandleType::kEnv;
  if (type == SQL_HANDLE_DBC) expected = HandleType::kDbc;
  if (type == SQL_HANDLE_STMT) expected = HandleType::kStmt;
  const SQLRETURN code =
      serve(std::move(call), expected, handle, [&](Handle& known) {
        release(known);
        return SQL_SUCCESS;
      });
  // A refused release counts as well: a caller can do no more about it.
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto known = handles_.find(handle);
  if (known != handles_.end() && !known->second->released &&
      known->second->type == expected) {
    release(*known->second);
  }
  return code;
}

SQLRETURN Engine::prepare(SQLHSTMT statement, SQLCHAR* sql, SQLINTEGER length) {
  Call call{"SQLPrepare",
            {},
            {number("statement", 0), string("sql", sql, length),
             number("length", length)},
            SQL_SUCCESS};
  const std::string text = call.bytes("sql");
  return serve(std::move(call), HandleType::kStmt, statement, [&](Handle& s) {
    s.prepared = true;
    s.sql = text;
    return SQL_SUCCESS;
  });
}

SQLRETURN Engine::exec_direct(SQLHSTMT statement, SQLCHAR* sql,
                              SQLINTEGER length) {
  Call call{"SQLExecDirect",
            {},
            {number("statement", 0), string("sql", sql, length),
             number("length", length)},
            SQL_SUCCESS};
  const std::string text = call.bytes("sql");
  return serve(std::move(call), HandleType::kStmt, statement, [&](Handle& s) {
    s.sql = text;
    return run(s);
  });
}

SQLRETURN Engine::execute(SQLHSTMT statement) {
  {
    // What the driver would read is taken before any rule can fail the call.
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto known = handles_.find(statement);
    if (known != handles_.end() && !known->second->released) {
      std::vector<Sent> all;
      for (const auto& [index, bound] : known->second->bound) {
        Sent sent = bound.arguments;
        const std::size_t fixed =
            fixed_size(static_cast<SQLSMALLINT>(sent.c_type));
        const std::size_t size =
            fixed != 0 ? fixed : buffer_size(sent.buffer_length);
        if (bound.buffer != nullptr) {
          sent.buffer.assign(static_cast<const char*>(bound.buffer), size);
        }
        if (bound.indicator != nullptr) sent.indicator = *bound.indicator;
        all.push_back(std::move(sent));
      }
      executions_.push_back(std::move(all));
    }
  }
  Call call{"SQLExecute", {}, {number("statement", 0)}, SQL_SUCCESS};
  return serve(std::move(call), HandleType::kStmt, statement, [&](Handle& s) {
    if (!s.prepared) {
      s.diagnostics = {{"HY010", 0, "function sequence error"}};
      return static_cast<SQLRETURN>(SQL_ERROR);
    }
    return run(s);
  });
}

SQLRETURN Engine::bind_parameter(SQLHSTMT statement, SQLUSMALLINT index,
                                 SQLSMALLINT direction, SQLSMALLINT c_type,
                                 SQLSMALLINT sql_type, SQLULEN column_size,
                                 SQLSMALLINT digits, SQLPOINTER buffer,
                                 SQLLEN buffer_length, SQLLEN* indicator) {
  Call call{
      "SQLBindParameter",
      label_of("SQLBindParameter", std::to_string(index)),
      {number("statement", 0), number("number", index),
       number("direction", direction), number("c_type", c_type),
       number("sql_type", sql_type),
       number("column_size", static_cast<std::int64_t>(column_size)),
       number("digits", digits), pointer("buffer", buffer),
       number("buffer_length", buffer_length), indicator_argument(indicator)},
      SQL_SUCCESS};
  return serve(std::move(call), HandleType::kStmt, statement, [&](Handle& s) {
    Bound bound;
    bound.buffer = buffer;
    bound.indicator = indicator;
    bound.arguments.number = index;
    bound.arguments.direction = direction;
    bound.arguments.c_type = c_type;
    bound.arguments.sql_type = sql_type;
    bound.arguments.column_size = column_size;
    bound.arguments.decimal_digits = digits;
    bound.arguments.buffer_is_null = buffer == nullptr;
    bound.arguments.buffer_length = buffer_length;
    s.bound[index] = bound;
    return SQL_SUCCESS;
  });
}

SQLRETURN Engine::num_result_cols(SQLHSTMT statement, SQLSMALLINT* count) {
  Call call{"SQLNumResultCols",
            {},
            {number("statement", 0), pointer("count", count)},
            SQL_SUCCESS};
  const Effect effect = [&](Handle& s) {
    int columns = 0;
    if (s.result) {
      columns = s.result->column_count.value_or(
          static_cast<int>(s.result->columns.size()));
    }
    store(count, static_cast<SQLSMALLINT>(columns));
    return SQL_SUCCESS;
  };
  return serve(std::move(call), HandleType::kStmt, statement, effect,
               [&](SQLLEN reported) {
                 store(count, static_cast<SQLSMALLINT>(reported));
               });
}

SQLRETURN Engine::describe_col(SQLHSTMT statement, SQLUSMALLINT column,
                               SQLCHAR* name, SQLSMALLINT name_size,
                               SQLSMALLINT* name_length, SQLSMALLINT* type,
                               SQLULEN* size, SQLSMALLINT* digits,
                               SQLSMALLINT* nullable) {
  Call call{
      "SQLDescribeCol",
      label_of("SQLDescribeCol", std::to_string(column)),
      {number("statement", 0), number("column", column), pointer("name", name),
       number("name_size", name_size), pointer("name_length", name_length),
       pointer("type", type), pointer("size", size), pointer("digits", digits),
       pointer("nullable", nullable)},
      SQL_SUCCESS};
  const Effect effect = [&](Handle& s) {
    if (!s.result || column == 0 || column > s.result->columns.size()) {
      s.diagnostics = {{"07009", 0, "invalid descriptor index"}};
      return static_cast<SQLRETURN>(SQL_ERROR);
    }
    const Column& described = s.result->columns[column - 1U];
    const std::size_t room =
        name_size > 0 ? static_cast<std::size_t>(name_size) - 1 : 0;
    const std::size_t count = std::min(room, described.name.size());
    if (name != nullptr && name_size > 0) {
      copy_bytes(name, described.name, count);
      name[count] = 0;
    }
    store(name_length,
          static_cast<SQLSMALLINT>(described.reported_length.value_or(
              static_cast<int>(described.name.size()))));
    store(type, static_cast<SQLSMALLINT>(described.type));
    store<SQLULEN>(size, 0);
    store<SQLSMALLINT>(digits, 0);
    store<SQLSMALLINT>(nullable, SQL_NULLABLE_UNKNOWN);
    if (count == described.name.size()) {
      return static_cast<SQLRETURN>(SQL_SUCCESS);
    }
    s.diagnostics = {{"01004", 0, "data truncated"}};
    return static_cast<SQLRETURN>(SQL_SUCCESS_WITH_INFO);
  };
  return serve(std::move(call), HandleType::kStmt, statement, effect,
               [&](SQLLEN reported) {
                 store(name_length, static_cast<SQLSMALLINT>(reported));
               });
}

SQLRETURN Engine::fetch(SQLHSTMT statement) {
  Call call{"SQLFetch", {}, {number("statement", 0)}, SQL_SUCCESS};
  return serve(std::move(call), HandleType::kStmt, statement, [&](Handle& s) {
    s.column = 0;
    if (!s.result || s.result->columns.empty()) {
      s.diagnostics = {{"24000", 0, "invalid cursor state"}};
      return static_cast<SQLRETURN>(SQL_ERROR);
    }
    s.on_row = s.next_row < s.result->rows.size();
    if (!s.on_row) return static_cast<SQLRETURN>(SQL_NO_DATA);
    ++s.next_row;
    return static_cast<SQLRETURN>(SQL_SUCCESS);
  });
}

SQLRETURN Engine::get_data(SQLHSTMT statement, SQLUSMALLINT column,
                           SQLSMALLINT c_type, SQLPOINTER buffer,
                           SQLLEN buffer_length, SQLLEN* indicator) {
  Call call{
      "SQLGetData",
      label_of("SQLGetData", std::to_string(column)),
      {number("statement", 0), number("column", column),
       number("c_type", c_type),
       bytes("buffer", buffer, buffer_size(buffer_length)),
       number("buffer_length", buffer_length), indicator_argument(indicator)},
      SQL_SUCCESS};
  const Effect effect = [&](Handle& s) {
    if (!s.on_row) {
      s.diagnostics = {{"24000", 0, "invalid cursor state"}};
      return static_cast<SQLRETURN>(SQL_ERROR);
    }
    const std::vector<Cell>& row = s.result->rows[s.next_row - 1];
    if (column == 0 || column > row.size()) {
      s.diagnostics = {{"07009", 0, "invalid descriptor index"}};
      return static_cast<SQLRETURN>(SQL_ERROR);
    }
    if (s.column != column) {
      s.column = column;
      s.place = 0;
      s.column_done = false;
    }
    return read_cell(s, row[column - 1U], c_type, buffer, buffer_length,
                     indicator);
  };
  return serve(std::move(call), HandleType::kStmt, statement, effect,
               [&](SQLLEN reported) { store(indicator, reported); });
}

SQLRETURN Engine::row_count(SQLHSTMT statement, SQLLEN* count) {
  Call call{"SQLRowCount",
            {},
            {number("statement", 0), pointer("count", count)},
            SQL_SUCCESS};
  const Effect effect = [&](Handle& s) {
    SQLLEN rows = 0;
    if (s.result) {
      rows = s.result->row_count.value_or(s.result->columns.empty() ? 0 : -1);
    }
    store(count, rows);
    return SQL_SUCCESS;
  };
  return serve(std::move(call), HandleType::kStmt, statement, effect,
               [&](SQLLEN reported) { store(count, reported); });
}

SQLRETURN Engine::get_diag_rec(SQLSMALLINT type, SQLHANDLE handle,
                               SQLSMALLINT record, SQLCHAR* state,
                               SQLINTEGER* native, SQLCHAR* message,
                               SQLSMALLINT message_size, SQLSMALLINT* length) {
  std::unique_lock<std::mutex> lock(mutex_);
  Call call{"SQLGetDiagRec",
            label_of("SQLGetDiagRec", std::to_string(record)),
            {number("type", type), number("handle", number_of(handle)),
             number("record", record), pointer("state", state),
             pointer("native", native), pointer("message", message),
             number("message_size", message_size), pointer("length", length)},
            SQL_SUCCESS};
  // A driver manager collects the records at the failure itself; those calls
  // say nothing about the library above it.
  const bool from_manager = face_ == Face::kDriver;
  const std::uint64_t id = next_call_++;
  const auto finish = [&](SQLRETURN code) {
    call.result = code;
    if (from_manager) {
      manager_log_.push_back(call);
    } else {
      log_[id] = call;
    }
    return code;
  };

  const auto write_text = [](SQLCHAR* to, const std::string& text,
                             std::size_t size) {
    if (to == nullptr) return;
    const std::size_t count = std::min(text.size(), size);
    copy_bytes(to, text, count);
    if (count < size) to[count] = 0;
  };
  constexpr std::size_t kStateSize = 6;
  const std::size_t room =
      message_size > 0 ? static_cast<std::size_t>(message_size) : 0;

  std::optional<HandleType> expected;
  if (type == SQL_HANDLE_ENV) expected = HandleType::kEnv;
  if (type == SQL_HANDLE_DBC) expected = HandleType::kDbc;
  if (type == SQL_HANDLE_STMT) expected = HandleType::kStmt;
  const Handle* target = find(expected, handle, call.label);
  if (target == nullptr) return finish(SQL_INVALID_HANDLE);

  const std::variant<Reply, DiagReply> answer = decide(call, lock);
  if (const DiagReply* reply = std::get_if<DiagReply>(&answer)) {
    if (reply->state) write_text(state, reply->state->substr(0, 5), kStateSize);
    if (reply->message) write_text(message, *reply->message, room);
    store(native, reply->native);
    if (reply->length) store(length, static_cast<SQLSMALLINT>(*reply->length));
    return finish(static_cast<SQLRETURN>(reply->code));
  }
  const Reply& reply = std::get<Reply>(answer);
  if (!reply.perform) return finish(reply.code.value_or(SQL_ERROR));
  if (record < 1 ||
      static_cast<std::size_t>(record) > target->diagnostics.size()) {
    return finish(reply.code.value_or(SQL_NO_DATA));
  }
  const Diagnostic& found =
      target->diagnostics[static_cast<std::size_t>(record) - 1];
  write_text(state, found.state.substr(0, 5), kStateSize);
  write_text(message, found.message.substr(0, room > 0 ? room - 1 : 0), room);
  store(native, found.native);
  store(length, static_cast<SQLSMALLINT>(found.message.size()));
  const bool cut = found.message.size() >= room;
  return finish(reply.code.value_or(
      static_cast<SQLRETURN>(cut ? SQL_SUCCESS_WITH_INFO : SQL_SUCCESS)));
}

// ---------------------------------------------------------------------------
// The script
// ---------------------------------------------------------------------------

void Engine::add_rule(std::string where, int which, Answer answer) {
  check_where(where);
  const std::lock_guard<std::mutex> lock(mutex_);
  rules_.push_back({std::move(where), which, std::move(answer), 0});
}

void Engine::reset() {
  const std::lock_guard<std::mutex> lock(mutex_);
  handles_.clear();
  in_order_.clear();
  rules_.clear();
  result_ = std::make_shared<ResultSet>();
  results_by_sql_.clear();
  outputs_.clear();
  log_.clear();
  manager_log_.clear();
  executions_.clear();
  complaints_.clear();
}

ResultSet& Engine::edit_result() {
  // Statements that were executed keep the result set they got.
  if (result_.use_count() > 1) result_ = std::make_shared<ResultSet>(*result_);
  return *result_;
}

Script::Script(Face face) : engine_(std::make_unique<Engine>(face)) {}
Script::~Script() = default;

void Script::reset() { engine_->reset(); }

Script& Script::columns(std::vector<Column> columns) {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  engine_->edit_result().columns = std::move(columns);
  return *this;
}

Script& Script::row(std::vector<Cell> cells) {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  engine_->edit_result().rows.push_back(std::move(cells));
  return *this;
}

Script& Script::rows(std::size_t count, const std::vector<Cell>& cells) {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  auto& all = engine_->edit_result().rows;
  all.insert(all.end(), count, cells);
  return *this;
}

Script& Script::row_count(SQLLEN count) {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  engine_->edit_result().row_count = count;
  return *this;
}

Script& Script::column_count(int count) {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  engine_->edit_result().column_count = count;
  return *this;
}

Script& Script::result_for(std::string sql, ResultSet result) {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  engine_->results_by_sql_[std::move(sql)] =
      std::make_shared<const ResultSet>(std::move(result));
  return *this;
}

Script& Script::fail(std::string where, int code, Diagnostics diagnostics) {
  return fail(std::move(where), Nth{0}, code, std::move(diagnostics));
}

Script& Script::fail(std::string where, Nth which, int code,
                     Diagnostics diagnostics) {
  engine_->add_rule(
      std::move(where), which.number,
      Reply{false, static_cast<SQLRETURN>(code), std::move(diagnostics)});
  return *this;
}

Script& Script::returns(std::string where, int code, Diagnostics diagnostics) {
  return returns(std::move(where), Nth{0}, code, std::move(diagnostics));
}

Script& Script::returns(std::string where, Nth which, int code,
                        Diagnostics diagnostics) {
  engine_->add_rule(
      std::move(where), which.number,
      Reply{true, static_cast<SQLRETURN>(code), std::move(diagnostics)});
  return *this;
}

Script& Script::answers(std::string where, Nth which, Reply reply) {
  engine_->add_rule(std::move(where), which.number, std::move(reply));
  return *this;
}

Script& Script::on(std::string where,
                   std::function<std::optional<Reply>(const Call&)> handler) {
  engine_->add_rule(std::move(where), 0, std::move(handler));
  return *this;
}

Script& Script::diag_reply(DiagReply reply) {
  return diag_reply(Nth{0}, std::move(reply));
}

Script& Script::diag_reply(Nth which, DiagReply reply) {
  engine_->add_rule("SQLGetDiagRec", which.number, std::move(reply));
  return *this;
}

Script& Script::output(int number, Cell cell) {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  engine_->outputs_.insert_or_assign(number, Engine::Output(std::move(cell)));
  return *this;
}

Script& Script::output(int number, Raw raw) {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  engine_->outputs_.insert_or_assign(number, Engine::Output(std::move(raw)));
  return *this;
}

std::vector<Call> Script::calls() const {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  std::vector<Call> all;
  for (const auto& [id, call] : engine_->log_) all.push_back(call);
  return all;
}

std::vector<Call> Script::calls(std::string_view where) const {
  check_where(where);
  std::vector<Call> matching;
  for (Call& call : calls()) {
    if (is_called(call, where)) matching.push_back(std::move(call));
  }
  return matching;
}

Call Script::call(std::string_view where, Nth which) const {
  const std::vector<Call> matching = calls(where);
  if (which.number < 1 ||
      static_cast<std::size_t>(which.number) > matching.size()) {
    std::string text = "no call " + std::to_string(which.number) + " of " +
                       std::string(where) + " in:";
    for (const Call& each : calls()) text += "\n  " + each.text();
    throw std::out_of_range(text);
  }
  return matching[static_cast<std::size_t>(which.number) - 1];
}

std::size_t Script::count(std::string_view where) const {
  return calls(where).size();
}

std::vector<std::string> Script::labels() const {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  std::vector<std::string> all;
  for (const auto& [id, call] : engine_->log_) all.push_back(call.label);
  return all;
}

std::vector<Call> Script::manager_calls() const {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  return engine_->manager_log_;
}

void Script::clear_log() {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  engine_->log_.clear();
  engine_->manager_log_.clear();
}

std::vector<Sent> Script::sent() const {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  if (engine_->executions_.empty()) return {};
  return engine_->executions_.back();
}

Sent Script::sent(int number) const {
  for (Sent& each : sent()) {
    if (each.number == number) return std::move(each);
  }
  throw std::out_of_range("parameter " + std::to_string(number) +
                          " was not bound at the last execution");
}

std::vector<std::vector<Sent>> Script::executions() const {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  return engine_->executions_;
}

namespace {

SQLSMALLINT type_of(std::string_view name) {
  if (name == "ENV") return SQL_HANDLE_ENV;
  if (name == "DBC") return SQL_HANDLE_DBC;
  if (name == "STMT") return SQL_HANDLE_STMT;
  throw std::invalid_argument("no such handle type: " + std::string(name));
}

}  // namespace

std::size_t Script::allocated(std::string_view type) const {
  const auto wanted = static_cast<int>(type_of(type)) - SQL_HANDLE_ENV;
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  std::size_t count = 0;
  for (const Engine::Handle* handle : engine_->in_order_) {
    if (static_cast<int>(handle->type) == wanted) ++count;
  }
  return count;
}

std::size_t Script::live(std::string_view type) const {
  const auto wanted = static_cast<int>(type_of(type)) - SQL_HANDLE_ENV;
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  std::size_t count = 0;
  for (const Engine::Handle* handle : engine_->in_order_) {
    if (static_cast<int>(handle->type) == wanted && !handle->released) ++count;
  }
  return count;
}

std::vector<std::string> Script::complaints() const {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  return engine_->complaints_;
}

std::vector<std::string> Script::take_complaints() {
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  return std::exchange(engine_->complaints_, {});
}

std::vector<std::string> Script::take_unreleased() {
  constexpr std::array<const char*, 3> kNames = {"ENV", "DBC", "STMT"};
  const std::lock_guard<std::mutex> lock(engine_->mutex_);
  std::vector<std::string> all;
  for (Engine::Handle* handle : engine_->in_order_) {
    if (handle->released) continue;
    handle->released = true;
    all.push_back(std::string(kNames[static_cast<std::size_t>(handle->type)]) +
                  " " + std::to_string(handle->number));
  }
  return all;
}

}  // namespace scripted_odbc
