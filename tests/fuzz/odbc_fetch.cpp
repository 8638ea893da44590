// SPDX-License-Identifier: MIT
//
// Fuzz target: one execution over a driver that answers anything, through the
// ODBC layer, with parameters and without, and through a connection. The calls
// that reach the driver and all that comes back are those of a model that reads
// what the driver answered.
//
// Sections: what comes back; text; binding; replaying the calls; the layer; the
// connection.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/component.h"
#include "fuzz/fuzz.h"
#include "fuzz/odbc_double.h"
#include "fuzz/values.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

using fuzz::check;
using fuzz::counted;
using fuzz::Input;
using fuzz::odbc::Bound;
using fuzz::odbc::Call;
using fuzz::odbc::Function;
using Kind = ZirdbOdbcValueKind;
using Parameters = std::vector<ZirdbOdbcParameter>;

// ---------------------------------------------------------------------------
// What comes back
// ---------------------------------------------------------------------------

struct Expected {
  bool succeeded = false;
  bool thrown = false;
  ZirdbOdbcResult result{};
  /// The values of the parameters that were read back, the others being as
  /// they were.
  std::vector<ZirdbOdbcValue> read_back{};
};

ZirdbOdbcValue text_value(std::string text) {
  ZirdbOdbcValue value;
  value.kind = Kind::Text;
  value.text_value = std::move(text);
  return value;
}

template <class Number>
Number number_in(const std::string& bytes) {
  Number number = 0;
  std::memcpy(&number, bytes.data(), sizeof number);
  return number;
}

bool same_double(double left, double right) {
  return std::memcmp(&left, &right, sizeof left) == 0;
}

bool same(const ZirdbOdbcValue& value, const ZirdbOdbcValue& expected) {
  if (value.kind != expected.kind) return false;
  switch (value.kind) {
    case Kind::Bool:
      return value.bool_value == expected.bool_value;
    case Kind::Int64:
      return value.int64_value == expected.int64_value;
    case Kind::Double:
      return same_double(value.double_value, expected.double_value);
    case Kind::Text:
      return value.text_value == expected.text_value;
    case Kind::Binary:
      return value.binary_value == expected.binary_value;
    default:
      return true;
  }
}

// ---------------------------------------------------------------------------
// Text
// ---------------------------------------------------------------------------

/// UTF-16 of well-formed UTF-8; nothing for any other.
std::optional<std::u16string> utf16_of(const std::string& utf8) {
  std::u16string units;
  for (std::size_t i = 0; i < utf8.size();) {
    const fuzz::Decoded decoded = fuzz::decode_utf8(utf8, i);
    constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const std::uint32_t unit = decoded.unit;
    if (!decoded.valid || unit < kLeast[decoded.length] || unit > 0x10FFFF ||
        (unit >= 0xD800 && unit < 0xE000)) {
      return std::nullopt;
    }
    if (unit < 0x10000) {
      units += static_cast<char16_t>(unit);
    } else {
      units += static_cast<char16_t>(0xD7C0 + unit / 0x400);
      units += static_cast<char16_t>(0xDC00 + unit % 0x400);
    }
    i += decoded.length;
  }
  return units;
}

/// UTF-8 of `count` units in a buffer; nothing for unpaired surrogates.
std::optional<std::string> utf8_of(const std::string& buffer,
                                   std::size_t count) {
  std::string utf8;
  for (std::size_t i = 0; i < count; ++i) {
    const auto unit_at = [&](std::size_t index) -> std::uint32_t {
      return index < count
                 ? number_in<std::uint16_t>(buffer.substr(2 * index, 2))
                 : 0;
    };
    std::uint32_t unit = unit_at(i);
    if (unit >= 0xD800 && unit < 0xE000) {
      const std::uint32_t low = unit_at(i + 1);
      if (unit >= 0xDC00 || low < 0xDC00 || low > 0xDFFF) return std::nullopt;
      unit = (unit - 0xD7C0) * 0x400 + (low - 0xDC00);
      ++i;
    }
    utf8 += fuzz::encode_utf8(static_cast<wchar_t>(unit));
  }
  return utf8;
}

// ---------------------------------------------------------------------------
// Binding
// ---------------------------------------------------------------------------

template <class Number>
std::string bytes_of(Number number) {
  std::string bytes(sizeof number, '\0');
  std::memcpy(bytes.data(), &number, sizeof number);
  return bytes;
}

Bound bound(SQLSMALLINT c_type, SQLSMALLINT sql_type, SQLULEN column_size,
            std::string sent, SQLLEN indicator) {
  Bound expected;
  expected.c_type = c_type;
  expected.sql_type = sql_type;
  expected.column_size = column_size;
  expected.sent = std::move(sent);
  expected.sent_indicator = indicator;
  return expected;
}

/// What must be bound for a parameter; nothing for a wide text that is not
/// UTF-8. A kind that there is not never gets here.
std::optional<Bound> model_of(const ZirdbOdbcParameter& parameter) {
  const ZirdbOdbcValue& value = parameter.value;
  const bool is_output = parameter.direction == 2 || parameter.direction == 4;
  const bool is_both = parameter.direction == 3;
  const bool is_null = value.kind == Kind::Null;
  const SQLLEN null_or_0 = is_null && !is_output ? SQL_NULL_DATA : 0;
  const auto declared = [&](std::size_t otherwise) -> SQLULEN {
    return parameter.size > 0 ? static_cast<SQLULEN>(parameter.size)
                              : otherwise;
  };
  // What stands in a buffer of so many bytes.
  const auto fitted = [&](std::string content, std::size_t room) {
    if (is_output) content.clear();
    if (is_output || is_both) content.resize(room);
    return content;
  };
  const auto indicator = [&](SQLLEN length) -> SQLLEN {
    if (is_output) return 0;
    return is_null ? SQL_NULL_DATA : length;
  };
  const std::string bytes(value.binary_value.begin(), value.binary_value.end());
  switch (parameter.type) {
    case 3:
      return bound(SQL_C_SLONG, SQL_INTEGER, 10,
                   bytes_of(static_cast<std::uint32_t>(value.int64_value)),
                   null_or_0);
    case 20:
      return bound(SQL_C_SBIGINT, SQL_BIGINT, 19, bytes_of(value.int64_value),
                   null_or_0);
    case 11:
      return bound(SQL_C_BIT, SQL_BIT, 1,
                   bytes_of(value.kind == Kind::Bool && value.bool_value),
                   null_or_0);
    case 72:
    case 200: {
      const SQLULEN size =
          declared(std::max<std::size_t>(value.text_value.size(), 1));
      return bound(SQL_C_CHAR, SQL_VARCHAR, size,
                   fitted(value.text_value, size + 1) + '\0',
                   indicator(SQL_NTS));
    }
    case 202: {
      const auto units = utf16_of(value.text_value);
      if (!units) return std::nullopt;
      const SQLULEN size = declared(units->size());
      std::string content(
          reinterpret_cast<const char*>(units->c_str()),  // with a terminator
          2 * (units->size() + 1));
      return bound(SQL_C_WCHAR, SQL_WVARCHAR, size,
                   fitted(std::move(content), 2 * (size + 1)),
                   indicator(2 * static_cast<SQLLEN>(units->size())));
    }
    case 204: {
      const SQLULEN size = declared(std::max<std::size_t>(bytes.size(), 1));
      return bound(SQL_C_BINARY, SQL_VARBINARY, size, fitted(bytes, size),
                   indicator(static_cast<SQLLEN>(bytes.size())));
    }
    default:
      break;
  }
  switch (value.kind) {
    case Kind::Null: {
      const SQLULEN size = declared(1);
      return bound(SQL_C_CHAR, SQL_VARCHAR, size, fitted({}, size + 1) + '\0',
                   SQL_NULL_DATA);
    }
    case Kind::Bool:
      return bound(SQL_C_BIT, SQL_BIT, 1, bytes_of(value.bool_value), 0);
    case Kind::Int64:
      return bound(SQL_C_SBIGINT, SQL_BIGINT, 19, bytes_of(value.int64_value),
                   0);
    case Kind::Double:
      return bound(SQL_C_DOUBLE, SQL_DOUBLE, 15, bytes_of(value.double_value),
                   0);
    case Kind::Text:
      return bound(SQL_C_CHAR, SQL_VARCHAR, declared(value.text_value.size()),
                   value.text_value + '\0', SQL_NTS);
    default:
      return bound(SQL_C_BINARY, SQL_VARBINARY, declared(bytes.size()), bytes,
                   static_cast<SQLLEN>(bytes.size()));
  }
}

void check_bound(const Bound& got, const Bound& expected,
                 std::int64_t direction) {
  check(got.direction == (direction == 3   ? SQL_PARAM_INPUT_OUTPUT
                          : direction == 2 ? SQL_PARAM_OUTPUT
                          : direction == 4 ? SQL_PARAM_OUTPUT
                                           : SQL_PARAM_INPUT) &&
            got.c_type == expected.c_type &&
            got.sql_type == expected.sql_type &&
            got.column_size == expected.column_size,
        "how a parameter is bound");
  check(got.length == static_cast<SQLLEN>(expected.sent.size()),
        "the length of a bound buffer");
  // An empty text has a terminator and no address.
  const std::size_t content =
      expected.sent.size() - (expected.c_type == SQL_C_CHAR ? 1 : 0);
  check((got.buffer == nullptr) == (content == 0), "a bound address");
  check(got.buffer == nullptr || got.sent == expected.sent,
        "what a bound buffer holds");
  check(got.sent_indicator == expected.sent_indicator, "a bound indicator");
}

/// What a parameter is afterwards; nothing for a wide text that is not UTF-16.
std::optional<ZirdbOdbcValue> model_of(const Bound& bound) {
  ZirdbOdbcValue value;
  const SQLLEN indicator = bound.received_indicator;
  if (indicator == SQL_NULL_DATA) return value;
  const std::string& buffer = bound.received;
  switch (bound.c_type) {
    case SQL_C_BIT:
      value.kind = Kind::Bool;
      value.bool_value = buffer[0] != 0;
      return value;
    case SQL_C_SLONG:
      value.kind = Kind::Int64;
      value.int64_value = number_in<std::int32_t>(buffer);
      return value;
    case SQL_C_SBIGINT:
      value.kind = Kind::Int64;
      value.int64_value = number_in<std::int64_t>(buffer);
      return value;
    case SQL_C_DOUBLE:
      value.kind = Kind::Double;
      value.double_value = number_in<double>(buffer);
      return value;
    case SQL_C_BINARY: {
      const auto count =
          std::clamp<SQLLEN>(indicator, 0, static_cast<SQLLEN>(buffer.size()));
      value.kind = Kind::Binary;
      value.binary_value.assign(buffer.begin(), buffer.begin() + count);
      return value;
    }
    case SQL_C_WCHAR: {
      const std::size_t units = buffer.size() / 2;
      std::size_t count = 0;
      if (indicator == SQL_NTS) {
        while (count < units &&
               (buffer[2 * count] | buffer[2 * count + 1]) != 0) {
          ++count;
        }
      } else if (indicator > 0) {
        count = std::min(static_cast<std::size_t>(indicator) / 2, units);
      }
      auto text = utf8_of(buffer, count);
      if (!text) return std::nullopt;
      return text_value(std::move(*text));
    }
    default: {
      // The terminator is not part of it.
      const std::string content =
          buffer.empty() ? buffer : buffer.substr(0, buffer.size() - 1);
      if (indicator == SQL_NTS) return text_value(fuzz::until_zero(content));
      if (indicator <= 0) return text_value({});
      return text_value(content.substr(0, static_cast<std::size_t>(indicator)));
    }
  }
}

// ---------------------------------------------------------------------------
// Replaying the calls
// ---------------------------------------------------------------------------

bool succeeded(const Call& call) {
  return call.code == SQL_SUCCESS || call.code == SQL_SUCCESS_WITH_INFO;
}

class Replay {
 public:
  Replay(const std::string& sql, const Parameters& parameters)
      : sql_(fuzz::until_zero(sql)), parameters_(parameters) {}

  Expected run() {
    const Call& allocated = next(Function::alloc_handle);
    check(allocated.number == SQL_HANDLE_STMT, "a handle of another type");
    if (!::succeeded(allocated)) {
      expected_.result.error = "Unable to allocate ODBC statement";
    } else {
      expected_.succeeded = execute() && describe() && fetch() && finish();
      check(next(Function::free_handle).number == SQL_HANDLE_STMT,
            "what is freed");
    }
    check(position_ == fuzz::odbc::log().size(), "more calls than expected");
    if (!expected_.succeeded) expected_.result.rows_affected = 0;
    return std::move(expected_);
  }

 private:
  const Call& next(Function function) {
    check(position_ < fuzz::odbc::log().size(), "fewer calls than expected");
    const Call& call = fuzz::odbc::log()[position_++];
    check(call.function == function, "another call than expected");
    return call;
  }

  bool fail() {
    const Call& record = next(Function::get_diag_rec);
    check(record.number == SQL_HANDLE_STMT, "the diagnostics of what");
    std::string& error = expected_.result.error;
    if (!::succeeded(record)) {
      error = "ODBC operation failed";
      return false;
    }
    error = record.state.empty() ? "" : record.state + ": ";
    error += record.text.substr(0, static_cast<std::size_t>(std::clamp<SQLLEN>(
                                       record.length, 0, 1023)));
    return false;
  }

  bool execute() {
    if (parameters_.empty()) {
      executed_ = &next(Function::exec_direct);
      check(executed_->text == sql_, "the text that is executed");
      return ::succeeded(*executed_) || fail();
    }
    const Call& prepared = next(Function::prepare);
    check(prepared.text == sql_, "the text that is prepared");
    if (!::succeeded(prepared)) return fail();
    std::vector<Bound> bounds;
    for (const ZirdbOdbcParameter& each : parameters_) {
      const bool by_kind = each.type != 3 && each.type != 11 &&
                           each.type != 20 && each.type != 72 &&
                           each.type != 200 && each.type != 202 &&
                           each.type != 204;
      if (by_kind &&
          (each.value.kind < Kind::Null || each.value.kind > Kind::Binary)) {
        expected_.result.error = "unsupported parameter type";
        return false;
      }
      auto bound = model_of(each);
      if (!bound) {
        expected_.thrown = true;
        return false;
      }
      bounds.push_back(std::move(*bound));
      if (!::succeeded(next(Function::bind_parameter))) return fail();
    }
    executed_ = &next(Function::execute);
    check(executed_->bound.size() == bounds.size(), "the bound parameters");
    for (std::size_t i = 0; i < bounds.size(); ++i) {
      check_bound(executed_->bound[i], bounds[i], parameters_[i].direction);
    }
    return ::succeeded(*executed_) || fail();
  }

  bool describe() {
    const Call& counted = next(Function::num_result_cols);
    if (!::succeeded(counted)) return fail();
    for (SQLLEN i = 0; i < counted.length; ++i) {
      const Call& described = next(Function::describe_col);
      if (!::succeeded(described)) return fail();
      const auto length = static_cast<std::size_t>(
          std::clamp<SQLLEN>(described.length, 0, 255));
      ZirdbOdbcColumn column;
      column.name = described.text.substr(0, length);
      column.sql_type = described.type;
      expected_.result.columns.push_back(std::move(column));
    }
    return true;
  }

  bool fetch() {
    if (expected_.result.columns.empty()) return true;
    for (;;) {
      const Call& fetched = next(Function::fetch);
      if (fetched.code == SQL_NO_DATA) return true;
      if (!::succeeded(fetched)) return fail();
      std::vector<ZirdbOdbcValue> row;
      for (const ZirdbOdbcColumn& each : expected_.result.columns) {
        auto value = read(each.sql_type);
        if (!value) return fail();
        row.push_back(std::move(*value));
      }
      expected_.result.rows.push_back(std::move(row));
    }
  }

  std::optional<ZirdbOdbcValue> read(std::int16_t sql_type) {
    switch (sql_type) {
      case SQL_NUMERIC:
      case SQL_DECIMAL:
      case SQL_FLOAT:
      case SQL_REAL:
      case SQL_DOUBLE:
      case SQL_SMALLINT:
      case SQL_INTEGER:
      case SQL_TINYINT:
      case SQL_BIGINT:
      case SQL_BIT:
        return read_number(sql_type);
      case SQL_BINARY:
      case SQL_VARBINARY:
      case SQL_LONGVARBINARY:
        return read_binary();
      default:
        return read_text(sql_type == SQL_GUID);
    }
  }

  std::optional<ZirdbOdbcValue> read_number(std::int16_t sql_type) {
    const Call& call = next(Function::get_data);
    ZirdbOdbcValue value;
    if (call.length == SQL_NULL_DATA) return value;
    if (!::succeeded(call)) return std::nullopt;
    const bool integer = sql_type == SQL_SMALLINT || sql_type == SQL_INTEGER ||
                         sql_type == SQL_TINYINT || sql_type == SQL_BIGINT;
    check(call.type == (sql_type == SQL_BIT ? SQL_C_BIT
                        : integer           ? SQL_C_SBIGINT
                                            : SQL_C_DOUBLE),
          "how a number is read");
    if (sql_type == SQL_BIT) {
      value.kind = Kind::Bool;
      value.bool_value = call.text[0] != 0;
    } else if (integer) {
      value.kind = Kind::Int64;
      value.int64_value = number_in<std::int64_t>(call.text);
    } else {
      value.kind = Kind::Double;
      value.double_value = number_in<double>(call.text);
    }
    return value;
  }

  std::optional<ZirdbOdbcValue> read_binary() {
    ZirdbOdbcValue value;
    for (;;) {
      const Call& call = next(Function::get_data);
      check(call.type == SQL_C_BINARY, "how bytes are read");
      if (call.length == SQL_NULL_DATA) return ZirdbOdbcValue();
      value.kind = Kind::Binary;
      if (call.code == SQL_NO_DATA) return value;
      if (!::succeeded(call)) return std::nullopt;
      const bool more = call.code == SQL_SUCCESS_WITH_INFO;
      const SQLLEN count = more || call.length == SQL_NO_TOTAL
                               ? 1024
                               : std::clamp<SQLLEN>(call.length, 0, 1024);
      value.binary_value.insert(value.binary_value.end(), call.text.begin(),
                                call.text.begin() + count);
      if (!more) return value;
    }
  }

  std::optional<ZirdbOdbcValue> read_text(bool is_guid) {
    std::string text;
    for (;;) {
      const Call& call = next(Function::get_data);
      check(call.type == SQL_C_CHAR, "how a text is read");
      if (call.length == SQL_NULL_DATA) return ZirdbOdbcValue();
      if (call.code == SQL_NO_DATA) break;
      if (!::succeeded(call)) return std::nullopt;
      text += fuzz::until_zero(call.text.substr(0, 1023));
      if (call.code == SQL_SUCCESS) break;
    }
    if (is_guid && !text.empty() && text[0] != '{') text = '{' + text + '}';
    return text_value(std::move(text));
  }

  bool finish() {
    const SQLLEN count = next(Function::row_count).length;
    const auto fetched =
        static_cast<std::int64_t>(expected_.result.rows.size());
    expected_.result.rows_affected = count > 0 ? count : fetched;
    for (const Bound& each : executed_->bound) {
      auto value = model_of(each);
      if (!value) {
        expected_.thrown = true;
        return false;
      }
      expected_.read_back.push_back(std::move(*value));
    }
    return true;
  }

  std::string sql_;
  const Parameters& parameters_;
  const Call* executed_ = nullptr;
  std::size_t position_ = 0;
  Expected expected_;
};

// ---------------------------------------------------------------------------
// The layer
// ---------------------------------------------------------------------------

std::string any_text(Input& input) {
  const std::uint8_t mode = input.byte();
  if (mode >= 0xC0) return input.bytes(mode - 0xC0U);
  return fuzz::utf8_of(input.units<wchar_t>(mode % 64U));
}

ZirdbOdbcParameter any_parameter(Input& input) {
  constexpr std::int64_t kTypes[] = {0, 3, 11, 20, 72, 200, 202, 204, 77, -1};
  ZirdbOdbcParameter parameter;
  const std::uint8_t choice = input.byte();
  const std::uint8_t direction = input.byte();
  parameter.type = kTypes[choice % std::size(kTypes)];
  parameter.direction =
      direction < 0xF0 ? direction % 6 - 1 : input.integer<std::int64_t>();
  const std::uint8_t size = input.byte();
  parameter.size = size < 0x80   ? size - 1
                   : size < 0xF0 ? size * 8
                                 : -input.integer<std::uint8_t>();
  const std::uint8_t kind = input.byte();
  parameter.value.kind =
      static_cast<Kind>(kind < 0xF8 ? kind % 6 : kind % 8 * 1000 - 3000);
  // A value keeps what its other fields hold.
  switch (kind % 6) {
    case 1:
      parameter.value.bool_value = input.byte() % 2 == 1;
      break;
    case 2:
      parameter.value.int64_value = input.integer<std::int64_t>();
      break;
    case 3:
      parameter.value.double_value = input.number();
      break;
    case 4:
      parameter.value.text_value = any_text(input);
      break;
    case 5: {
      const std::string bytes = any_text(input);
      parameter.value.binary_value.assign(bytes.begin(), bytes.end());
      break;
    }
    default:
      break;
  }
  return parameter;
}

void check_columns_and_rows(const ZirdbOdbcResult& got,
                            const ZirdbOdbcResult& expected) {
  check(got.columns.size() == expected.columns.size(), "the columns");
  for (std::size_t i = 0; i < got.columns.size(); ++i) {
    check(got.columns[i].name == expected.columns[i].name &&
              got.columns[i].sql_type == expected.columns[i].sql_type,
          "a column");
  }
  check(got.rows.size() == expected.rows.size(), "the rows");
  for (std::size_t i = 0; i < got.rows.size(); ++i) {
    check(std::equal(got.rows[i].begin(), got.rows[i].end(),
                     expected.rows[i].begin(), expected.rows[i].end(), same),
          "a row");
  }
}

void execute_in_layer(Input& input, void* handle, ZirdbOdbcResult& result) {
  const std::uint8_t count = input.byte();
  const std::string sql = any_text(input);
  Parameters parameters;
  for (int i = 0; i < count % 6; ++i) {
    parameters.push_back(any_parameter(input));
  }
  const Parameters before = parameters;
  fuzz::odbc::clear_log();
  bool thrown = false;
  bool succeeded = false;
  try {
    succeeded = count >= 0x80 && parameters.empty()
                    ? zirdb_odbc_execute(handle, sql, &result)
                    : zirdb_odbc_execute(handle, sql, &parameters, &result);
  } catch (const std::range_error&) {
    thrown = true;
  }
  const Expected expected = Replay(sql, before).run();
  check(thrown == expected.thrown, "an exception");
  check_columns_and_rows(result, expected.result);
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    const bool read_back = i < expected.read_back.size();
    check(same(parameters[i].value,
               read_back ? expected.read_back[i] : before[i].value),
          "the value of a parameter");
  }
  if (thrown) return;
  check(succeeded == expected.succeeded, "success");
  check(result.rows_affected == expected.result.rows_affected,
        "the number of rows");
  check(result.error == expected.result.error, "the text of an error");
}

// ---------------------------------------------------------------------------
// The connection
// ---------------------------------------------------------------------------

void check_value(const VARIANT& value, const ZirdbOdbcValue& expected) {
  switch (expected.kind) {
    case Kind::Null:
      check(value.vt == VT_NULL, "a null");
      break;
    case Kind::Bool:
      check(value.vt == VT_BOOL &&
                value.boolVal ==
                    (expected.bool_value ? VARIANT_TRUE : VARIANT_FALSE),
            "a truth value");
      break;
    case Kind::Int64:
      check(value.vt == VT_I8 && value.llVal == expected.int64_value,
            "an integer");
      break;
    case Kind::Double:
      check(
          value.vt == VT_R8 && same_double(value.dblVal, expected.double_value),
          "a double");
      break;
    case Kind::Text:
      check(value.vt == VT_BSTR &&
                counted(value.bstrVal) ==
                    fuzz::until_zero(fuzz::text_of(expected.text_value)),
            "a text");
      break;
    case Kind::Binary: {
      check(value.vt == (VT_ARRAY | VT_UI1), "bytes");
      const SafeArrayAccess access(value.parray);
      const auto& bytes = expected.binary_value;
      check(value.parray->cDims == 1 &&
                value.parray->rgsabound[0].cElements == bytes.size() &&
                std::equal(bytes.begin(), bytes.end(), access.elements<BYTE>()),
            "the bytes");
      break;
    }
  }
}

void check_row(IZIRDBFields* fields, const Expected& expected,
               const std::vector<ZirdbOdbcValue>& row) {
  for (std::size_t i = 0; i < row.size(); ++i) {
    IZIRDBField* item = nullptr;
    const _variant_t index(i);
    check(fields->Item(index, &item) == S_OK, "a field");
    const auto field = InterfacePtr<IZIRDBField>::adopt(item);
    _bstr_t name;
    check(
        field->get_Name(&name.m_s) == S_OK &&
            counted(name.m_s) == fuzz::text_of(expected.result.columns[i].name),
        "the name of a field");
    _variant_t value;
    check(field->get_Value(&value) == S_OK, "the value of a field");
    check_value(value, row[i]);
  }
}

void check_recordset(IZIRDBRecordset* recordset, const Expected& expected) {
  IZIRDBFields* made = nullptr;
  check(recordset->get_Fields(&made) == S_OK, "the fields");
  const auto fields = InterfacePtr<IZIRDBFields>::adopt(made);
  long count = 0;
  check(fields->get_Count(&count) == S_OK &&
            static_cast<std::size_t>(count) == expected.result.columns.size(),
        "the number of fields");
  VARIANT_BOOL at_end = 0;
  for (const auto& row : expected.result.rows) {
    check(recordset->get_EOF(&at_end) == S_OK && at_end == VARIANT_FALSE,
          "more rows");
    check_row(fields.get(), expected, row);
    check(recordset->MoveNext() == S_OK, "the next row");
  }
  check(recordset->get_EOF(&at_end) == S_OK && at_end == VARIANT_TRUE,
        "the end of the rows");
}

void execute_on_connection(Input& input, IDispatch* connection) {
  const _bstr_t text(fuzz::new_string(input), false);
  const std::string sql = fuzz::utf8_of(counted(text.m_s));
  std::int64_t rows = -77;
  VARIANT rows_affected = {};
  rows_affected.vt = VT_BYREF | VT_I8;
  rows_affected.byref = &rows;
  VARIANT sent = {};
  sent.vt = VT_BSTR;
  sent.bstrVal = text.m_s;
  fuzz::odbc::clear_log();
  fuzz::Outcome outcome;
  fuzz::invoke(connection, DISPID_ZIRDB_CONNECTION_EXECUTE, DISPATCH_METHOD,
               {sent, rows_affected}, outcome);
  if (sql.empty()) {
    check(outcome.exception.scode == zir_hresult(0x80040E0C) &&
              fuzz::odbc::log().empty(),
          "an empty text");
    return;
  }
  const Parameters none;
  const Expected expected = Replay(sql, none).run();
  if (!expected.succeeded) {
    check(outcome.result == DISP_E_EXCEPTION &&
              outcome.exception.scode == zir_hresult(0x80040712) &&
              counted(outcome.exception.bstrSource) == L"ZIRDB.Connection" &&
              counted(outcome.exception.bstrDescription) ==
                  fuzz::until_zero(fuzz::text_of(expected.result.error)) &&
              rows == -77,
          "a failure");
    return;
  }
  check(outcome.result == S_OK, "success");
  if (expected.result.columns.empty()) {
    check(outcome.value.vt == VT_EMPTY && rows == expected.result.rows_affected,
          "a statement without columns");
    return;
  }
  check(outcome.value.vt == VT_DISPATCH && rows == -1, "a recordset");
  InterfacePtr<IZIRDBRecordset> recordset;
  check(recordset.receive([&](void** out) {
    return outcome.value.pdispVal->QueryInterface(IID_IZIRDBRecordset, out);
  }) == S_OK,
        "the interface of a recordset");
  check_recordset(recordset.get(), expected);
  if (!expected.result.rows.empty()) {
    check(recordset->MoveFirst() == S_OK, "the first row");
    check_recordset(recordset.get(), expected);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  Input input(data, size);
  // The connection is made by a driver that does what it is told.
  fuzz::odbc::begin(nullptr, true);
  if (input.byte() % 2 == 0) {
    void* handle = nullptr;
    check(zirdb_odbc_open("DSN=fuzz", &handle, nullptr), "no connection");
    fuzz::odbc::begin(&input, true);
    ZirdbOdbcResult result;
    do {
      execute_in_layer(input, handle, result);
    } while (input.left() > 0);
    zirdb_odbc_close(handle);
  } else {
    auto connection = fuzz::create<IZIRDBConnection>(CLSID_ZIRDBConnection,
                                                     IID_IZIRDBConnection);
    const _bstr_t text(L"DSN=fuzz");
    check(connection->Open(text.m_s, nullptr, nullptr, 0) == S_OK,
          "no connection");
    fuzz::odbc::begin(&input, true);
    const auto dispatch = connection.query<IDispatch>(IID_IDispatch);
    do {
      execute_on_connection(input, dispatch.get());
    } while (input.left() > 0);
  }
  check(DllCanUnloadNow() == S_OK, "an object is left");
  fuzz::odbc::end();
  return 0;
}
