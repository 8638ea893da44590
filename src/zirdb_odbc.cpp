// SPDX-License-Identifier: MIT
//
// zirdb_odbc: the ODBC access layer, over the driver manager's 8-bit entry
// points.
//
// Sections, leaf to root: layout; outcomes and diagnostics; handles; UTF-8 and
// UTF-16; binding parameters; reading values back; reading cells; one
// execution; the result's sink; the exported functions.
//
// What a reader needs to know:
//  - `succeeded` is the only judgement of a return code and
//    `odbc_diag_message` the only text of a driver's failure.
//  - Handles free themselves, statement before connection before environment,
//    so a function may return or throw anywhere.
//  - Drivers are not trusted. Lengths they report are clamped to the buffer
//    they were given before anything is read from it.

#include "zirdb_odbc.h"

#include <pthread.h>
#include <sql.h>
#include <sqlext.h>

#include <algorithm>
#include <codecvt>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <locale>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Layout: the records cross the library's boundary, so their shape is a promise
// ---------------------------------------------------------------------------

static_assert(sizeof(ZirdbOdbcValue) == 80);
static_assert(offsetof(ZirdbOdbcValue, bool_value) == 4);
static_assert(offsetof(ZirdbOdbcValue, int64_value) == 8);
static_assert(offsetof(ZirdbOdbcValue, double_value) == 16);
static_assert(offsetof(ZirdbOdbcValue, text_value) == 24);
static_assert(offsetof(ZirdbOdbcValue, binary_value) == 56);
static_assert(sizeof(ZirdbOdbcColumn) == 40);
static_assert(offsetof(ZirdbOdbcColumn, sql_type) == 32);
static_assert(sizeof(ZirdbOdbcParameter) == 104);
static_assert(offsetof(ZirdbOdbcParameter, direction) == 8);
static_assert(offsetof(ZirdbOdbcParameter, size) == 16);
static_assert(offsetof(ZirdbOdbcParameter, value) == 24);
static_assert(sizeof(ZirdbOdbcResult) == 88);
static_assert(offsetof(ZirdbOdbcResult, rows) == 24);
static_assert(offsetof(ZirdbOdbcResult, rows_affected) == 48);
static_assert(offsetof(ZirdbOdbcResult, error) == 56);

// ---------------------------------------------------------------------------
// Outcomes and diagnostics
// ---------------------------------------------------------------------------

bool succeeded(SQLRETURN code) {
  return code == SQL_SUCCESS || code == SQL_SUCCESS_WITH_INFO;
}

// ODBC 3 takes text by pointer to non-const and only reads it.
SQLCHAR* odbc_text(const std::string& text) {
  return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text.c_str()));
}

// The first diagnostic record of a handle, as "SQLSTATE: message". Must be
// called before any other call on the handle, which would discard the record.
std::string odbc_diag_message(SQLSMALLINT handle_type, SQLHANDLE handle) {
  char state[SQL_SQLSTATE_SIZE + 1] = {};
  char message[1024] = {};
  SQLINTEGER native_error = 0;
  SQLSMALLINT text_length = 0;
  const SQLRETURN code = SQLGetDiagRec(
      handle_type, handle, 1, reinterpret_cast<SQLCHAR*>(state), &native_error,
      reinterpret_cast<SQLCHAR*>(message), sizeof message, &text_length);
  if (!succeeded(code)) return "ODBC operation failed";

  // The length reported is that of the whole message, which may have been cut.
  const int in_buffer =
      std::clamp<int>(text_length, 0, static_cast<int>(sizeof message) - 1);
  std::string text(state, strnlen(state, SQL_SQLSTATE_SIZE));
  if (!text.empty()) text += ": ";
  text.append(message, static_cast<std::size_t>(in_buffer));
  return text;
}

// ---------------------------------------------------------------------------
// Handles
// ---------------------------------------------------------------------------

// Keeps its thread from being cancelled. Cancelling would leave the driver
// manager in the middle of a call, with its locks held.
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  NoCancellation(const NoCancellation&) = delete;
  NoCancellation& operator=(const NoCancellation&) = delete;
  ~NoCancellation() { pthread_setcancelstate(before_, nullptr); }

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

// Owns one ODBC handle, or none.
template <SQLSMALLINT kType>
class OdbcHandle {
 public:
  OdbcHandle() = default;
  OdbcHandle(const OdbcHandle&) = delete;
  OdbcHandle& operator=(const OdbcHandle&) = delete;
  ~OdbcHandle() {
    if (handle_ != SQL_NULL_HANDLE) SQLFreeHandle(kType, handle_);
  }

  bool allocate(SQLHANDLE parent) {
    if (succeeded(SQLAllocHandle(kType, parent, &handle_))) return true;
    handle_ = SQL_NULL_HANDLE;
    return false;
  }

  SQLHANDLE get() const { return handle_; }

 private:
  SQLHANDLE handle_ = SQL_NULL_HANDLE;
};

// What callers hold as an opaque pointer. Members are destroyed in reverse, so
// the connection goes before its environment.
struct ZirdbOdbcHandle {
  OdbcHandle<SQL_HANDLE_ENV> env;
  OdbcHandle<SQL_HANDLE_DBC> dbc;
};
static_assert(sizeof(ZirdbOdbcHandle) == 2 * sizeof(SQLHANDLE));

// ---------------------------------------------------------------------------
// UTF-8 and UTF-16
// ---------------------------------------------------------------------------

// Both directions refuse everything that is not well formed, by the same
// exception and text as the standard converter they use. The converter alone
// would drop an incomplete sequence at the end and let surrogates encoded in
// UTF-8 through: silent damage to a caller's text.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
using Utf16Converter =
    std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t>;

// ED A0..BF starts an encoded surrogate, and nothing else.
bool has_encoded_surrogate(const std::string& utf8) {
  const auto pair =
      std::adjacent_find(utf8.begin(), utf8.end(), [](char first, char second) {
        return static_cast<unsigned char>(first) == 0xED &&
               static_cast<unsigned char>(second) >= 0xA0;
      });
  return pair != utf8.end();
}

// The UTF-16 units of `utf8` and a terminating 0. Throws std::range_error.
std::vector<std::uint16_t> utf8_to_sqlwchar(const std::string& utf8) {
  Utf16Converter converter;
  const std::u16string utf16 = converter.from_bytes(utf8);
  if (converter.converted() != utf8.size() || has_encoded_surrogate(utf8)) {
    throw std::range_error("wstring_convert::from_bytes");
  }
  std::vector<std::uint16_t> units;
  units.reserve(utf16.size() + 1);
  units.assign(utf16.begin(), utf16.end());
  units.push_back(0);
  return units;
}

// The first `count` units as UTF-8. Throws std::range_error.
std::string sqlwchar_to_utf8(const std::vector<std::uint16_t>& units,
                             std::size_t count) {
  const std::u16string utf16(
      units.begin(), units.begin() + static_cast<std::ptrdiff_t>(count));
  Utf16Converter converter;
  std::string utf8 = converter.to_bytes(utf16);
  if (converter.converted() != utf16.size()) {
    throw std::range_error("wstring_convert::to_bytes");
  }
  return utf8;
}
#pragma GCC diagnostic pop

// ---------------------------------------------------------------------------
// Binding parameters
// ---------------------------------------------------------------------------

enum DataType : std::int64_t {
  kInteger = 3,
  kBoolean = 11,
  kBigint = 20,
  kGuid = 72,
  kVarchar = 200,
  kVarwchar = 202,
  kVarbinary = 204,
};

enum Direction : std::int64_t {
  kOutput = 2,
  kInputOutput = 3,
  kReturnValue = 4,
};

// What the driver is given for one parameter. It keeps the addresses of the
// buffer and of the indicator until the statement is freed, so a record must
// not move after it was bound, and must outlive the statement.
struct BoundParameter {
  SQLSMALLINT input_output_type = SQL_PARAM_INPUT;
  SQLSMALLINT value_type = SQL_C_CHAR;
  SQLSMALLINT parameter_type = SQL_VARCHAR;
  SQLULEN column_size = 0;
  SQLSMALLINT decimal_digits = 0;
  SQLLEN indicator = 0;
  SQLINTEGER int32_value = 0;
  SQLBIGINT int64_value = 0;
  double double_value = 0.0;
  SQLCHAR bit_value = 0;
  std::string text_value;
  std::vector<std::uint16_t> wide_value;
  std::vector<unsigned char> binary_value;
};
static_assert(sizeof(BoundParameter) == 144);
static_assert(offsetof(BoundParameter, column_size) == 8);
static_assert(offsetof(BoundParameter, indicator) == 24);
static_assert(offsetof(BoundParameter, text_value) == 64);
static_assert(offsetof(BoundParameter, binary_value) == 120);
static_assert(sizeof(SQLWCHAR) == sizeof(std::uint16_t));

SQLSMALLINT input_output_type(std::int64_t direction) {
  switch (direction) {
    case kInputOutput:
      return SQL_PARAM_INPUT_OUTPUT;
    case kOutput:
    case kReturnValue:  // Deliberate: drivers expect an ordinary output here.
      return SQL_PARAM_OUTPUT;
    default:
      return SQL_PARAM_INPUT;
  }
}

void set_types(BoundParameter& bound, SQLSMALLINT c_type, SQLSMALLINT sql_type,
               SQLULEN column_size) {
  bound.value_type = c_type;
  bound.parameter_type = sql_type;
  bound.column_size = column_size;
}

SQLULEN declared_size_or(const ZirdbOdbcParameter& parameter,
                         std::size_t otherwise) {
  return parameter.size > 0 ? static_cast<SQLULEN>(parameter.size) : otherwise;
}

// Gives the driver `count` units to write to: zeros for an output, the caller's
// value cut or padded for an input-output parameter. Inputs stay as they are.
template <typename Buffer>
void make_room(Buffer& buffer, SQLSMALLINT input_output, SQLULEN count) {
  if (input_output == SQL_PARAM_OUTPUT) {
    buffer.assign(count, typename Buffer::value_type{});
  } else if (input_output == SQL_PARAM_INPUT_OUTPUT) {
    buffer.resize(count);
  }
}

// An output's indicator carries nothing in; otherwise NULL or the length.
SQLLEN indicator_in(const BoundParameter& bound, const ZirdbOdbcValue& value,
                    SQLLEN length) {
  if (bound.input_output_type == SQL_PARAM_OUTPUT) return 0;
  return value.kind == ZirdbOdbcValueKind::Null ? SQL_NULL_DATA : length;
}

void fill_varchar(BoundParameter& bound, const ZirdbOdbcParameter& parameter) {
  const ZirdbOdbcValue& value = parameter.value;
  const std::size_t length = value.text_value.size();
  set_types(bound, SQL_C_CHAR, SQL_VARCHAR,
            declared_size_or(parameter, std::max<std::size_t>(length, 1)));
  bound.text_value = value.text_value;
  make_room(bound.text_value, bound.input_output_type, bound.column_size + 1);
  bound.indicator = indicator_in(bound, value, SQL_NTS);
}

void fill_varwchar(BoundParameter& bound, const ZirdbOdbcParameter& parameter) {
  const ZirdbOdbcValue& value = parameter.value;
  bound.wide_value = utf8_to_sqlwchar(value.text_value);
  const std::size_t length = bound.wide_value.size() - 1;
  set_types(bound, SQL_C_WCHAR, SQL_WVARCHAR,
            declared_size_or(parameter, length));
  make_room(bound.wide_value, bound.input_output_type, bound.column_size + 1);
  // Deliberate: the length of the whole text, also where a smaller declared
  // size has just cut it. A driver that believes it finds the units it counts:
  // cutting a vector leaves them where they were, behind its end.
  bound.indicator = indicator_in(
      bound, value, static_cast<SQLLEN>(length * sizeof(SQLWCHAR)));
}

void fill_varbinary(BoundParameter& bound,
                    const ZirdbOdbcParameter& parameter) {
  const ZirdbOdbcValue& value = parameter.value;
  const std::size_t length = value.binary_value.size();
  set_types(bound, SQL_C_BINARY, SQL_VARBINARY,
            declared_size_or(parameter, std::max<std::size_t>(length, 1)));
  bound.binary_value = value.binary_value;
  make_room(bound.binary_value, bound.input_output_type, bound.column_size);
  // The whole value's length even where it was cut: see fill_varwchar.
  bound.indicator = indicator_in(bound, value, static_cast<SQLLEN>(length));
}

// For parameters whose type code says nothing. Only Null looks at the
// direction: an output of another kind offers its current value as the buffer.
// False for a kind outside the enumeration.
bool fill_by_kind(BoundParameter& bound, const ZirdbOdbcParameter& parameter) {
  const ZirdbOdbcValue& value = parameter.value;
  switch (value.kind) {
    case ZirdbOdbcValueKind::Null:
      set_types(bound, SQL_C_CHAR, SQL_VARCHAR, declared_size_or(parameter, 1));
      make_room(bound.text_value, bound.input_output_type,
                bound.column_size + 1);
      bound.indicator = SQL_NULL_DATA;
      return true;
    case ZirdbOdbcValueKind::Bool:
      set_types(bound, SQL_C_BIT, SQL_BIT, 1);
      bound.bit_value = value.bool_value ? 1 : 0;
      return true;
    case ZirdbOdbcValueKind::Int64:
      set_types(bound, SQL_C_SBIGINT, SQL_BIGINT, 19);
      bound.int64_value = value.int64_value;
      return true;
    case ZirdbOdbcValueKind::Double:
      set_types(bound, SQL_C_DOUBLE, SQL_DOUBLE, 15);
      bound.double_value = value.double_value;
      return true;
    case ZirdbOdbcValueKind::Text:
      set_types(bound, SQL_C_CHAR, SQL_VARCHAR,
                declared_size_or(parameter, value.text_value.size()));
      bound.text_value = value.text_value;
      bound.indicator = SQL_NTS;
      return true;
    case ZirdbOdbcValueKind::Binary:
      set_types(bound, SQL_C_BINARY, SQL_VARBINARY,
                declared_size_or(parameter, value.binary_value.size()));
      bound.binary_value = value.binary_value;
      bound.indicator = static_cast<SQLLEN>(value.binary_value.size());
      return true;
  }
  return false;
}

// Fills a fresh record from the parameter. False: unsupported parameter type.
bool fill(BoundParameter& bound, const ZirdbOdbcParameter& parameter) {
  const ZirdbOdbcValue& value = parameter.value;
  bound.input_output_type = input_output_type(parameter.direction);
  switch (parameter.type) {
    case kInteger:
      set_types(bound, SQL_C_SLONG, SQL_INTEGER, 10);
      // Deliberate: the low 32 bits, so 4294967297 is sent as 1.
      bound.int32_value = static_cast<SQLINTEGER>(
          static_cast<std::uint32_t>(value.int64_value));
      bound.indicator = indicator_in(bound, value, 0);
      return true;
    case kBigint:
      set_types(bound, SQL_C_SBIGINT, SQL_BIGINT, 19);
      bound.int64_value = value.int64_value;
      bound.indicator = indicator_in(bound, value, 0);
      return true;
    case kBoolean:
      set_types(bound, SQL_C_BIT, SQL_BIT, 1);
      // Deliberate: a value that is no Bool is sent as false, not as NULL.
      if (value.kind == ZirdbOdbcValueKind::Bool && value.bool_value) {
        bound.bit_value = 1;
      }
      bound.indicator = indicator_in(bound, value, 0);
      return true;
    case kVarchar:
    case kGuid:
      fill_varchar(bound, parameter);
      return true;
    case kVarwchar:
      fill_varwchar(bound, parameter);
      return true;
    case kVarbinary:
      fill_varbinary(bound, parameter);
      return true;
    default:
      return fill_by_kind(bound, parameter);
  }
}

template <typename Buffer>
SQLPOINTER data_or_null(Buffer& buffer) {
  return buffer.empty() ? nullptr : buffer.data();
}

SQLRETURN bind(SQLHSTMT statement, SQLUSMALLINT number, BoundParameter& bound) {
  SQLPOINTER data = nullptr;
  std::size_t length = 0;
  switch (bound.value_type) {
    case SQL_C_WCHAR:
      data = data_or_null(bound.wide_value);
      length = bound.wide_value.size() * sizeof(SQLWCHAR);
      break;
    case SQL_C_BINARY:
      data = data_or_null(bound.binary_value);
      length = bound.binary_value.size();
      break;
    case SQL_C_SLONG:
      data = &bound.int32_value;
      length = sizeof bound.int32_value;
      break;
    case SQL_C_SBIGINT:
      data = &bound.int64_value;
      length = sizeof bound.int64_value;
      break;
    case SQL_C_DOUBLE:
      data = &bound.double_value;
      length = sizeof bound.double_value;
      break;
    case SQL_C_BIT:
      data = &bound.bit_value;
      length = sizeof bound.bit_value;
      break;
    default:
      // The terminator behind a string's characters counts as buffer.
      data = data_or_null(bound.text_value);
      length = bound.text_value.size() + 1;
      break;
  }
  return SQLBindParameter(statement, number, bound.input_output_type,
                          bound.value_type, bound.parameter_type,
                          bound.column_size, bound.decimal_digits, data,
                          static_cast<SQLLEN>(length), &bound.indicator);
}

// ---------------------------------------------------------------------------
// Reading values back
// ---------------------------------------------------------------------------

// How many units of a text buffer hold the value: up to the terminator for
// SQL_NTS, otherwise what the indicator says, never beyond the buffer.
template <typename Buffer>
std::size_t text_units(const Buffer& buffer, SQLLEN indicator) {
  using Unit = typename Buffer::value_type;
  if (indicator == SQL_NTS) {
    const auto end = std::find(buffer.begin(), buffer.end(), Unit{});
    return static_cast<std::size_t>(end - buffer.begin());
  }
  if (indicator <= 0) return 0;
  return std::min(static_cast<std::size_t>(indicator) / sizeof(Unit),
                  buffer.size());
}

// The payload before the kind, so that what throws leaves the value whole.
void read_back(const BoundParameter& bound, ZirdbOdbcValue& value) {
  if (bound.indicator == SQL_NULL_DATA) {
    // Swapped, not assigned: large storage must not stay behind a NULL.
    ZirdbOdbcValue null;
    std::swap(value.text_value, null.text_value);
    std::swap(value.binary_value, null.binary_value);
    value.kind = ZirdbOdbcValueKind::Null;
    value.bool_value = false;
    value.int64_value = 0;
    value.double_value = 0.0;
    return;
  }
  switch (bound.value_type) {
    case SQL_C_BIT:
      value.kind = ZirdbOdbcValueKind::Bool;
      value.bool_value = bound.bit_value != 0;
      break;
    case SQL_C_SLONG:
      value.kind = ZirdbOdbcValueKind::Int64;
      value.int64_value = bound.int32_value;
      break;
    case SQL_C_SBIGINT:
      value.kind = ZirdbOdbcValueKind::Int64;
      value.int64_value = bound.int64_value;
      break;
    case SQL_C_DOUBLE:
      value.kind = ZirdbOdbcValueKind::Double;
      value.double_value = bound.double_value;
      break;
    case SQL_C_BINARY: {
      const auto count = std::clamp<SQLLEN>(
          bound.indicator, 0, static_cast<SQLLEN>(bound.binary_value.size()));
      value.binary_value.assign(bound.binary_value.begin(),
                                bound.binary_value.begin() + count);
      value.kind = ZirdbOdbcValueKind::Binary;
      break;
    }
    case SQL_C_WCHAR: {
      const std::size_t count = text_units(bound.wide_value, bound.indicator);
      value.text_value = sqlwchar_to_utf8(bound.wide_value, count);
      value.kind = ZirdbOdbcValueKind::Text;
      break;
    }
    default:
      value.text_value.assign(bound.text_value, 0,
                              text_units(bound.text_value, bound.indicator));
      value.kind = ZirdbOdbcValueKind::Text;
      break;
  }
}

// ---------------------------------------------------------------------------
// Reading cells
// ---------------------------------------------------------------------------

enum class ReadAs : unsigned char { Double, Int64, Bool, Binary, Guid, Text };

ReadAs read_as(SQLSMALLINT sql_type) {
  switch (sql_type) {
    case SQL_NUMERIC:
    case SQL_DECIMAL:
    case SQL_FLOAT:
    case SQL_REAL:
    case SQL_DOUBLE:
      return ReadAs::Double;
    case SQL_SMALLINT:
    case SQL_INTEGER:
    case SQL_TINYINT:
    case SQL_BIGINT:
      return ReadAs::Int64;
    case SQL_BIT:
      return ReadAs::Bool;
    case SQL_BINARY:
    case SQL_VARBINARY:
    case SQL_LONGVARBINARY:
      return ReadAs::Binary;
    case SQL_GUID:
      return ReadAs::Guid;
    default:
      // Deliberate: wide columns too. The manager delivers them in its 8-bit
      // character set, which is UTF-8 here.
      return ReadAs::Text;
  }
}

// Reads the cells of one statement's current row. One chunk buffer and one
// join buffer serve the whole statement; text and bytes of a single chunk are
// handed on straight from the chunk.
class CellReader {
 public:
  explicit CellReader(SQLHSTMT statement) : statement_(statement) {}

  // Reads one column into the sink. False: the driver failed, and its
  // diagnostic record is waiting on the statement.
  bool read(SQLUSMALLINT column, ReadAs type, ZirdbOdbcSink& sink) {
    switch (type) {
      case ReadAs::Double:
        return read_number<double, SQL_C_DOUBLE>(column, sink,
                                                 &ZirdbOdbcSink::double_cell);
      case ReadAs::Int64:
        return read_number<std::int64_t, SQL_C_SBIGINT>(
            column, sink, &ZirdbOdbcSink::int64_cell);
      case ReadAs::Bool:
        return read_number<unsigned char, SQL_C_BIT>(column, sink,
                                                     &ZirdbOdbcSink::bool_cell);
      case ReadAs::Binary:
        return read_binary(column, sink);
      case ReadAs::Guid:
      case ReadAs::Text:
        break;
    }
    return read_text(column, type, sink);
  }

 private:
  // Bounds a driver that goes on reporting "more to come" and delivers nothing
  // (for bytes: says itself that nothing is left), which would otherwise hold
  // the caller for ever.
  static constexpr int kIdleChunks = 65536;

  template <typename Number, SQLSMALLINT kCType, typename Argument>
  bool read_number(SQLUSMALLINT column, ZirdbOdbcSink& sink,
                   void (ZirdbOdbcSink::*cell)(Argument)) {
    Number number = 0;
    SQLLEN indicator = 0;
    const SQLRETURN code = SQLGetData(statement_, column, kCType, &number,
                                      sizeof number, &indicator);
    if (indicator == SQL_NULL_DATA) {
      sink.null_cell();
      return true;
    }
    if (!succeeded(code)) return false;
    (sink.*cell)(static_cast<Argument>(number));
    return true;
  }

  bool read_text(SQLUSMALLINT column, ReadAs type, ZirdbOdbcSink& sink) {
    std::optional<std::string_view> text;
    if (!fetch_text_value(column, text)) return false;
    if (!text) {
      sink.null_cell();
      return true;
    }
    if (type == ReadAs::Guid && !text->empty() && text->front() != '{') {
      if (text->data() != joined_.data()) joined_ = *text;
      joined_.insert(0, 1, '{').push_back('}');
      text = joined_;
    }
    sink.text_cell(*text);
    return true;
  }

  bool read_binary(SQLUSMALLINT column, ZirdbOdbcSink& sink) {
    std::optional<std::string_view> bytes;
    if (!fetch_chunks(column, SQL_C_BINARY, bytes)) return false;
    if (!bytes) {
      sink.null_cell();
      return true;
    }
    sink.binary_cell(reinterpret_cast<const unsigned char*>(bytes->data()),
                     bytes->size());
    return true;
  }

  bool fetch_text_value(SQLUSMALLINT column,
                        std::optional<std::string_view>& text) {
    return fetch_chunks(column, SQL_C_CHAR, text);
  }

  // Reads a column of any length. The content is valid until the next read;
  // NULL leaves it without a value.
  bool fetch_chunks(SQLUSMALLINT column, SQLSMALLINT c_type,
                    std::optional<std::string_view>& content) {
    joined_.clear();
    SQLLEN indicator = 0;
    for (int idle = 0; idle < kIdleChunks; ++idle) {
      const SQLRETURN code = get_chunk(column, c_type, indicator);
      if (indicator == SQL_NULL_DATA) return true;
      if (code == SQL_NO_DATA) {
        content = joined_;
        return true;
      }
      if (!succeeded(code)) return false;
      const std::string_view chunk(chunk_, c_type == SQL_C_CHAR
                                               ? text_length()
                                               : byte_count(code, indicator));
      if (code == SQL_SUCCESS && joined_.empty()) {
        content = chunk;
        return true;
      }
      joined_.append(chunk);
      if (code == SQL_SUCCESS) {
        content = joined_;
        return true;
      }
      const bool delivered =
          c_type == SQL_C_CHAR ? !chunk.empty() : indicator != 0;
      if (delivered) idle = 0;
    }
    return false;
  }

  // The indicator is not asked: it may be the length still to come, the length
  // of this chunk or SQL_NO_TOTAL. The last byte is the terminator's.
  std::size_t text_length() const { return strnlen(chunk_, sizeof chunk_ - 1); }

  // "More to come" says that the buffer is full, whatever the indicator says.
  std::size_t byte_count(SQLRETURN code, SQLLEN indicator) const {
    if (code == SQL_SUCCESS_WITH_INFO || indicator == SQL_NO_TOTAL) {
      return sizeof chunk_;
    }
    return static_cast<std::size_t>(
        std::clamp<SQLLEN>(indicator, 0, static_cast<SQLLEN>(sizeof chunk_)));
  }

  // The driver finds zeros, so that what it does not write cannot show what an
  // earlier cell held.
  SQLRETURN get_chunk(SQLUSMALLINT column, SQLSMALLINT c_type,
                      SQLLEN& indicator) {
    std::memset(chunk_, 0, written_);
    written_ = sizeof chunk_;
    return SQLGetData(statement_, column, c_type, chunk_, sizeof chunk_,
                      &indicator);
  }

  SQLHSTMT statement_;
  std::string joined_;
  char chunk_[1024] = {};
  // How much of the chunk a driver may have written to. A variable, so that
  // clearing it is a call of the C library's memset: the compiler expands one
  // of constant size into an instruction that takes several times as long.
  std::size_t written_ = 0;
};

// ---------------------------------------------------------------------------
// One execution
// ---------------------------------------------------------------------------

// One statement from allocation to its end. Used once.
class Execution {
 public:
  Execution(ZirdbOdbcSink& sink, std::string& error)
      : sink_(sink), error_(error) {}

  bool run(SQLHDBC dbc, const std::string& sql,
           std::vector<ZirdbOdbcParameter>* parameters,
           std::int64_t& rows_affected) {
    if (!statement_.allocate(dbc)) {
      error_ = "Unable to allocate ODBC statement";
      return false;
    }
    const bool prepared = parameters != nullptr && !parameters->empty();
    const bool executed =
        prepared ? execute_prepared(sql, *parameters) : execute_direct(sql);
    if (!executed || !describe_columns()) return false;
    std::int64_t fetched = 0;
    if (!columns_.empty() && !fetch_rows(fetched)) return false;

    // Deliberate: a driver that counts no rows for a SELECT, or does not know,
    // is overruled by what was fetched.
    SQLLEN count = 0;
    SQLRowCount(statement_.get(), &count);
    rows_affected = count > 0 ? count : fetched;

    if (prepared) {
      for (std::size_t i = 0; i < bound_.size(); ++i) {
        read_back(bound_[i], (*parameters)[i].value);
      }
    }
    return true;
  }

 private:
  bool fail() {
    error_ = odbc_diag_message(SQL_HANDLE_STMT, statement_.get());
    return false;
  }

  bool execute_direct(const std::string& sql) {
    return succeeded(
               SQLExecDirect(statement_.get(), odbc_text(sql), SQL_NTS)) ||
           fail();
  }

  bool execute_prepared(const std::string& sql,
                        const std::vector<ZirdbOdbcParameter>& parameters) {
    if (!succeeded(SQLPrepare(statement_.get(), odbc_text(sql), SQL_NTS))) {
      return fail();
    }
    bound_.resize(parameters.size());
    for (std::size_t i = 0; i < parameters.size(); ++i) {
      if (!fill(bound_[i], parameters[i])) {
        error_ = "unsupported parameter type";
        return false;
      }
      const auto number = static_cast<SQLUSMALLINT>(i + 1);
      if (!succeeded(bind(statement_.get(), number, bound_[i]))) return fail();
    }
    // Deliberate: SQL_NO_DATA, an UPDATE or DELETE that matched no row, fails
    // here as in execute_direct.
    return succeeded(SQLExecute(statement_.get())) || fail();
  }

  bool describe_columns() {
    SQLSMALLINT count = 0;
    if (!succeeded(SQLNumResultCols(statement_.get(), &count))) return fail();
    if (count <= 0) return true;
    columns_.reserve(static_cast<std::size_t>(count));
    sink_.begin_columns(static_cast<std::size_t>(count));
    for (SQLSMALLINT i = 0; i < count; ++i) {
      char name[256] = {};
      SQLSMALLINT name_length = 0;
      SQLSMALLINT sql_type = 0;
      SQLULEN column_size = 0;
      SQLSMALLINT decimal_digits = 0;
      SQLSMALLINT nullable = 0;
      const SQLRETURN code = SQLDescribeCol(
          statement_.get(), static_cast<SQLUSMALLINT>(i + 1),
          reinterpret_cast<SQLCHAR*>(name), sizeof name, &name_length,
          &sql_type, &column_size, &decimal_digits, &nullable);
      if (!succeeded(code)) return fail();
      // The length reported is that of the whole name, which may have been cut.
      const int in_buffer =
          std::clamp<int>(name_length, 0, static_cast<int>(sizeof name) - 1);
      sink_.column({name, static_cast<std::size_t>(in_buffer)}, sql_type);
      columns_.push_back(read_as(sql_type));
    }
    return true;
  }

  bool fetch_rows(std::int64_t& fetched) {
    CellReader reader(statement_.get());
    for (;;) {
      const SQLRETURN code = SQLFetch(statement_.get());
      if (code == SQL_NO_DATA) return true;
      if (!succeeded(code)) return fail();
      sink_.begin_row();
      for (std::size_t i = 0; i < columns_.size(); ++i) {
        const auto column = static_cast<SQLUSMALLINT>(i + 1);
        if (!reader.read(column, columns_[i], sink_)) return fail();
      }
      sink_.end_row();
      ++fetched;
    }
  }

  ZirdbOdbcSink& sink_;
  std::string& error_;
  std::vector<ReadAs> columns_;
  // Before the statement, and so freed after it: it holds addresses in here.
  std::vector<BoundParameter> bound_;
  OdbcHandle<SQL_HANDLE_STMT> statement_;
};

// ---------------------------------------------------------------------------
// The result's sink
// ---------------------------------------------------------------------------

// Fills a ZirdbOdbcResult. The row in the making is its own, so that a failure
// drops it without a trace.
class ResultSink final : public ZirdbOdbcSink {
 public:
  explicit ResultSink(ZirdbOdbcResult& result) : result_(result) {}

  void begin_columns(std::size_t count) override {
    column_count_ = count;
    result_.columns.reserve(count);
  }
  void column(std::string_view name, std::int16_t sql_type) override {
    ZirdbOdbcColumn& column = result_.columns.emplace_back();
    column.name.assign(name.data(), name.size());
    column.sql_type = sql_type;
  }

  void begin_row() override { row_.reserve(column_count_); }
  void end_row() override {
    result_.rows.push_back(std::move(row_));
    row_.clear();
  }

  void null_cell() override { row_.emplace_back(); }
  void bool_cell(bool value) override {
    add(ZirdbOdbcValueKind::Bool).bool_value = value;
  }
  void int64_cell(std::int64_t value) override {
    add(ZirdbOdbcValueKind::Int64).int64_value = value;
  }
  void double_cell(double value) override {
    add(ZirdbOdbcValueKind::Double).double_value = value;
  }
  void text_cell(std::string_view utf8) override {
    add(ZirdbOdbcValueKind::Text).text_value = std::string(utf8);
  }
  void binary_cell(const unsigned char* bytes, std::size_t count) override {
    add(ZirdbOdbcValueKind::Binary).binary_value.assign(bytes, bytes + count);
  }

 private:
  ZirdbOdbcValue& add(ZirdbOdbcValueKind kind) {
    ZirdbOdbcValue& value = row_.emplace_back();
    value.kind = kind;
    return value;
  }

  ZirdbOdbcResult& result_;
  std::size_t column_count_ = 0;
  std::vector<ZirdbOdbcValue> row_;
};

}  // namespace

// ---------------------------------------------------------------------------
// The exported functions
// ---------------------------------------------------------------------------

bool zirdb_odbc_open(const std::string& connection_string, void** handle_out,
                     std::string* error_out) {
  const auto fail = [error_out](std::string text) {
    if (error_out != nullptr) *error_out = std::move(text);
    return false;
  };
  // Asking for a diagnostic nobody reads would be an extra call on the handle.
  const auto fail_with_diagnostic = [error_out](SQLSMALLINT type,
                                                SQLHANDLE handle) {
    if (error_out != nullptr) *error_out = odbc_diag_message(type, handle);
    return false;
  };

  if (handle_out == nullptr) return fail("handle_out is required");
  const NoCancellation no_cancellation;
  *handle_out = nullptr;
  auto record = std::make_unique<ZirdbOdbcHandle>();
  if (!record->env.allocate(SQL_NULL_HANDLE)) {
    return fail("Unable to allocate ODBC environment");
  }
  if (!succeeded(SQLSetEnvAttr(record->env.get(), SQL_ATTR_ODBC_VERSION,
                               reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3),
                               0))) {
    return fail_with_diagnostic(SQL_HANDLE_ENV, record->env.get());
  }
  if (!record->dbc.allocate(record->env.get())) {
    return fail("Unable to allocate ODBC connection");
  }
  if (!succeeded(SQLDriverConnect(record->dbc.get(), nullptr,
                                  odbc_text(connection_string), SQL_NTS,
                                  nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT))) {
    return fail_with_diagnostic(SQL_HANDLE_DBC, record->dbc.get());
  }
  *handle_out = record.release();
  return true;
}

void zirdb_odbc_close(void* handle_ptr) {
  const NoCancellation no_cancellation;
  const std::unique_ptr<ZirdbOdbcHandle> record(
      static_cast<ZirdbOdbcHandle*>(handle_ptr));
  if (record && record->dbc.get() != SQL_NULL_HANDLE) {
    SQLDisconnect(record->dbc.get());
  }
}

bool zirdb_odbc_execute_into(void* handle_ptr, const std::string& sql,
                             std::vector<ZirdbOdbcParameter>* parameters,
                             ZirdbOdbcSink& sink, std::int64_t& rows_affected,
                             std::string& error) {
  const NoCancellation no_cancellation;
  rows_affected = 0;
  error.clear();
  const auto& handle = *static_cast<ZirdbOdbcHandle*>(handle_ptr);
  return Execution(sink, error)
      .run(handle.dbc.get(), sql, parameters, rows_affected);
}

bool zirdb_odbc_execute_internal(void* handle_ptr, const std::string& sql,
                                 std::vector<ZirdbOdbcParameter>* parameters,
                                 ZirdbOdbcResult* result_out) {
  if (handle_ptr == nullptr || result_out == nullptr) return false;
  result_out->columns.clear();
  result_out->rows.clear();
  ResultSink sink(*result_out);
  return zirdb_odbc_execute_into(handle_ptr, sql, parameters, sink,
                                 result_out->rows_affected, result_out->error);
}

bool zirdb_odbc_execute(void* handle_ptr, const std::string& sql,
                        ZirdbOdbcResult* result_out) {
  return zirdb_odbc_execute_internal(handle_ptr, sql, nullptr, result_out);
}

bool zirdb_odbc_execute(void* handle_ptr, const std::string& sql,
                        std::vector<ZirdbOdbcParameter>* parameters,
                        ZirdbOdbcResult* result_out) {
  return zirdb_odbc_execute_internal(handle_ptr, sql, parameters, result_out);
}
