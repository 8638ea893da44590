// SPDX-License-Identifier: MIT
//
// For tests that spoil one ODBC call of a journey, whichever it is: journeys as
// data, and a model that says what each of them comes to when its n-th call
// goes wrong in a given way. The model knows the rules that this library
// promises and nothing of how it keeps them; it also says which calls are made,
// so that a sweep over "every call" is one.
//
//   Model model(journey, Road::kLateBound, Through::kStandIn, 7, kRefused);
//   model.seen()      // what the caller is to see
//   model.labels()    // which calls are to be made
//
// Sections: what a caller sees; journeys; faults; the model.

#ifndef ZIRDB_TESTS_SUPPORT_FAULTS_H
#define ZIRDB_TESTS_SUPPORT_FAULTS_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/commands.h"
#include "support/connections.h"
#include "support/scripted_odbc.h"
#include "support/scripting.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace faults {

using commands::Outcome;
using scripted_odbc::Face;

// ---------------------------------------------------------------------------
// What a caller sees
// ---------------------------------------------------------------------------

/// The ways to the same database: a script's, a program's, and the one below
/// the objects.
enum class Road { kLateBound, kVtable, kLayer };

inline std::ostream& operator<<(std::ostream& out, Road road) {
  return out << (road == Road::kLateBound ? "late-bound"
                 : road == Road::kVtable  ? "by vtable"
                                          : "below the objects");
}

using Texts = std::vector<std::string>;

/// Everything that came back, values as text.
struct Seen {
  Outcome outcome = commands::kDone;
  bool has_result = false;  ///< a recordset with columns
  Texts names = {};
  std::vector<Texts> rows = {};
  std::string affected = {};
  Texts values = {};  ///< the parameters, arguments or elements

  friend bool operator==(const Seen& left, const Seen& right) {
    return left.outcome == right.outcome &&
           left.has_result == right.has_result && left.names == right.names &&
           left.rows == right.rows && left.affected == right.affected &&
           left.values == right.values;
  }
  friend std::ostream& operator<<(std::ostream& out, const Seen& seen) {
    return out << seen.outcome << (seen.has_result ? ", result " : ", ")
               << testing::PrintToString(seen.names) << ": "
               << testing::PrintToString(seen.rows) << ", affected "
               << seen.affected << ", values "
               << testing::PrintToString(seen.values);
  }
};

/// What receives the number of rows holds it until it is written.
constexpr const wchar_t* kUnwritten = L"before";
constexpr const char* kUnwrittenShown = "BSTR before";

inline std::string shown_bytes(const std::string& content) {
  return "bytes " + content;
}
inline std::string shown_text(const std::string& content) {
  return "BSTR " + content;
}
inline std::string shown_number(std::int64_t number) {
  return "I8 " + std::to_string(number);
}
/// Bytes as they are: there are many of them.
inline std::string shown(const VARIANT& value) {
  if (value.vt != (VT_ARRAY | VT_UI1)) return scripting::shown(value);
  const SafeArrayAccess access(value.parray);
  const auto* const bytes = access.elements<char>();
  return shown_bytes({bytes, bytes + value.parray->rgsabound[0].cElements});
}

// ---------------------------------------------------------------------------
// Journeys
// ---------------------------------------------------------------------------

/// How a column or a parameter travels.
enum class As {
  kInteger,
  kBigint,
  kBoolean,
  kDouble,
  kChar,
  kGuid,
  kWideChar,
  kBinary,
  kNull
};

struct Column {
  const char* name;
  int sql_type;
  As as;
};

/// A cell: NULL, a number (for a double: of halves), or bytes.
struct Cell {
  bool null = true;
  std::int64_t number = 0;
  std::string bytes = {};
};
inline Cell number_cell(std::int64_t number) { return {false, number, {}}; }
inline Cell bytes_cell(std::string bytes) {
  return {false, 0, std::move(bytes)};
}

/// A parameter, in the words of the objects, and what the database writes into
/// it: nothing unless there is an output.
struct Sending {
  long type;
  long direction;
  long size;
  _variant_t before;
  As as;
  Cell output = {};
};

enum class Kind {
  kPlain,      ///< Connection.Execute
  kValues,     ///< the connection itself, called with values
  kText,       ///< Command.Execute of a text
  kProcedure,  ///< Command.Execute of a procedure
  kArray       ///< Command.Execute with an array of values
};

struct Journey {
  const char* name;
  Kind kind;
  const wchar_t* sql;
  std::vector<Column> columns = {};
  std::vector<std::vector<Cell>> rows = {};
  SQLLEN row_count = 0;
  std::vector<Sending> sendings = {};
};

inline std::ostream& operator<<(std::ostream& out, const Journey& journey) {
  return out << journey.name;
}

// More than a driver may deliver in one piece: 1023 characters, 1024 bytes.
inline const std::string kLongText(1100, 't');
inline const std::string kLongBytes(1100, '\xB5');

inline _variant_t null_value() { return scripting::null(); }

inline std::vector<Journey> journeys() {
  const std::vector<Column> every_kind = {
      {"a bigint", SQL_BIGINT, As::kBigint},
      {"a double", SQL_DOUBLE, As::kDouble},
      {"a bit", SQL_BIT, As::kBoolean},
      {"a wide text", SQL_WLONGVARCHAR, As::kChar},
      {"some bytes", SQL_LONGVARBINARY, As::kBinary},
      {"a guid", SQL_GUID, As::kGuid}};
  const std::vector<Cell> full = {
      number_cell(-9007199254740993),
      number_cell(3),
      number_cell(1),
      bytes_cell(kLongText),
      bytes_cell(kLongBytes),
      bytes_cell("1B4E28BA-2FA1-11D2-883F-0016D3CCA427")};
  const std::vector<Cell> nulls(full.size());
  const std::vector<Cell> little = {number_cell(2), number_cell(1),
                                    number_cell(0), bytes_cell("grün"),
                                    bytes_cell(""), bytes_cell("{")};
  const std::vector<Column> two = {{"id", SQL_INTEGER, As::kBigint},
                                   {"text", SQL_VARCHAR, As::kChar}};
  const std::vector<std::vector<Cell>> two_rows = {
      {number_cell(1), bytes_cell(kLongText)}, {number_cell(2), Cell{}}};
  const _variant_t truth(true);
  return {
      {"PlainUpdate", Kind::kPlain, L"update", {}, {}, 3},
      {"PlainSelect",
       Kind::kPlain,
       L"select",
       every_kind,
       {full, nulls, little},
       -1},
      {"SelectWithValues",
       Kind::kValues,
       L"select ?",
       two,
       two_rows,
       -1,
       {{ZIRDB_AD_BIGINT, 1, 0, _variant_t(5), As::kBigint},
        {ZIRDB_AD_VARWCHAR, 1, 6, _variant_t(L"a text"), As::kWideChar},
        {ZIRDB_AD_BOOLEAN, 1, 0, truth, As::kBoolean},
        {ZIRDB_AD_EMPTY, 1, 0, _variant_t(1.5), As::kDouble},
        {ZIRDB_AD_VARBINARY, 1, 0, scripting::bytes("bytes"), As::kBinary},
        {ZIRDB_AD_EMPTY, 1, 0, null_value(), As::kNull},
        {ZIRDB_AD_BIGINT, 3, 0, _variant_t(), As::kBigint}}},
      {"TextWithInputOutputs",
       Kind::kText,
       L"update ?",
       {},
       {},
       3,
       {{ZIRDB_AD_INTEGER, 3, 0, _variant_t(1), As::kInteger, number_cell(-11)},
        {ZIRDB_AD_BIGINT, 3, 0, _variant_t(2), As::kBigint, number_cell(12)},
        {ZIRDB_AD_BOOLEAN, 3, 0, truth, As::kBoolean, number_cell(0)},
        {ZIRDB_AD_VARCHAR, 3, 20, _variant_t(L"in"), As::kChar,
         bytes_cell("out of the call")},
        {ZIRDB_AD_VARWCHAR, 3, 20, _variant_t(L"in"), As::kWideChar,
         bytes_cell("grün")},
        {ZIRDB_AD_VARBINARY, 3, 20, scripting::bytes("in"), As::kBinary,
         bytes_cell("out")},
        {ZIRDB_AD_BIGINT, 1, 0, _variant_t(7), As::kBigint}}},
      {"Procedure",
       Kind::kProcedure,
       L"dbo.totals",
       {{"total", SQL_DECIMAL, As::kDouble}},
       {{number_cell(7)}, {number_cell(9)}},
       2,
       {{ZIRDB_AD_INTEGER, 4, 0, _variant_t(), As::kInteger, number_cell(9)},
        {ZIRDB_AD_VARCHAR, 1, 0, _variant_t(L"an input"), As::kChar},
        {ZIRDB_AD_VARWCHAR, 2, 20, _variant_t(), As::kWideChar,
         bytes_cell("not read")}}},
      {"ArrayOfValues",
       Kind::kArray,
       L"update ?",
       {},
       {},
       1,
       {{ZIRDB_AD_BIGINT, 1, 0, _variant_t(5), As::kBigint},
        {ZIRDB_AD_VARWCHAR, 1, 6, _variant_t(L"a text"), As::kWideChar},
        {ZIRDB_AD_BIGINT, 3, 0, _variant_t(), As::kBigint, number_cell(77)}}},
  };
}

/// The kinds that only a late-bound call has.
inline bool can_take(Road road, const Journey& journey) {
  return road != Road::kVtable ||
         (journey.kind != Kind::kValues && journey.kind != Kind::kArray);
}

inline scripted_odbc::Cell scripted(const Cell& cell, As as) {
  if (cell.null) return scripted_odbc::null_cell();
  switch (as) {
    case As::kChar:
    case As::kGuid:
    case As::kWideChar:
      return scripted_odbc::cell(cell.bytes);
    case As::kBinary:
      return scripted_odbc::binary(cell.bytes);
    case As::kDouble:
      return scripted_odbc::cell(static_cast<double>(cell.number) / 2);
    default:
      return scripted_odbc::cell(cell.number);
  }
}

/// Makes the database answer the journey.
inline void script_journey(scripted_odbc::Script& script,
                           const Journey& journey) {
  std::vector<scripted_odbc::Column> columns;
  columns.reserve(journey.columns.size());
  for (const Column& column : journey.columns) {
    columns.push_back({column.name, column.sql_type});
  }
  script.columns(columns).row_count(journey.row_count);
  for (const std::vector<Cell>& row : journey.rows) {
    std::vector<scripted_odbc::Cell> cells;
    for (std::size_t i = 0; i < row.size(); ++i) {
      cells.push_back(scripted(row[i], journey.columns[i].as));
    }
    script.row(cells);
  }
  for (std::size_t i = 0; i < journey.sendings.size(); ++i) {
    const Sending& sending = journey.sendings[i];
    if (sending.output.null) continue;
    script.output(static_cast<int>(i + 1),
                  scripted(sending.output, sending.as));
  }
}

// ---------------------------------------------------------------------------
// Faults
// ---------------------------------------------------------------------------

/// One way for a call to go wrong.
struct Fault {
  std::string name;
  scripted_odbc::Reply reply;
};

inline std::ostream& operator<<(std::ostream& out, const Fault& fault) {
  return out << fault.name;
}

constexpr const char* kBrokenState = "HY000";
constexpr const char* kBrokenMessage = "the call was broken";
constexpr const char* kBroken = "HY000: the call was broken";
constexpr const char* kNoDiagnostic = "ODBC operation failed";

inline Fault instead(std::string name, int code, bool with_record = false) {
  Fault fault{std::move(name), {false, static_cast<SQLRETURN>(code), {}, {}}};
  if (with_record) {
    fault.reply.diagnostics = {kBrokenState, 7, kBrokenMessage};
  }
  return fault;
}
inline Fault afterwards(std::string name, int code) {
  return {std::move(name),
          {true,
           static_cast<SQLRETURN>(code),
           {kBrokenState, 7, kBrokenMessage},
           {}}};
}
inline Fault reporting(std::int64_t number) {
  return {"says " + std::to_string(number), {true, {}, {}, number}};
}

/// The wrong return codes.
inline std::vector<Fault> code_faults() {
  return {
      instead("fails with a record", SQL_ERROR, true),
      instead("fails without a record", SQL_ERROR),
      instead("has no data", SQL_NO_DATA),
      instead("says that its handle is invalid", SQL_INVALID_HANDLE),
      instead("needs data", SQL_NEED_DATA),
      instead("is still executing", SQL_STILL_EXECUTING),
      instead("answers a code that does not exist", 4711),
      afterwards("succeeds with a record", SQL_SUCCESS_WITH_INFO),
      afterwards("does its work and fails", SQL_ERROR),
      afterwards("does its work and has no data", SQL_NO_DATA),
  };
}

/// The wrong numbers that an entry point can tell.
inline std::vector<Fault> number_faults(const std::string& label) {
  std::vector<std::int64_t> numbers;
  const std::string entry = label.substr(0, label.find('('));
  if (entry == "SQLGetData") {
    numbers = {SQL_NULL_DATA, -2,        SQL_NTS,   SQL_NO_TOTAL, 0, 5,
               4096,          INT64_MIN, INT64_MAX, INT32_MIN};
  } else if (entry == "SQLNumResultCols") {
    numbers = {-1, 0, 1, INT16_MIN, INT16_MAX};
  } else if (entry == "SQLDescribeCol") {
    numbers = {-1, 0, 1, 255, 256, INT16_MIN, INT16_MAX};
  } else if (entry == "SQLRowCount") {
    numbers = {-1, -2, 0, 7, INT64_MIN, INT64_MAX};
  }
  std::vector<Fault> all;
  all.reserve(numbers.size());
  for (const std::int64_t number : numbers) all.push_back(reporting(number));
  return all;
}

// ---------------------------------------------------------------------------
// The model
// ---------------------------------------------------------------------------

/// The indicator and the bytes that a parameter is bound with, and that its
/// value is read back from.
struct Bound {
  std::string buffer;
  SQLLEN indicator = 0;
};

/// What is sent for a value of ASCII.
inline Bound bound_for(const Sending& sending) {
  const VARIANT& value = sending.before;
  const bool null = value.vt == VT_EMPTY || value.vt == VT_NULL;
  const bool output = sending.direction == ZIRDB_AD_PARAM_OUTPUT ||
                      sending.direction == ZIRDB_AD_PARAM_RETURN_VALUE;
  const bool both = sending.direction == ZIRDB_AD_PARAM_INPUT_OUTPUT;
  const auto size = static_cast<std::size_t>(sending.size);
  std::string text =
      value.vt == VT_BSTR ? scripting::utf8(values::text_of(value)) : "";
  Bound bound;
  switch (sending.as) {
    case As::kInteger:
      bound.buffer = scripted_odbc::bytes_of(
          static_cast<std::int32_t>(null ? 0 : value.llVal));
      break;
    case As::kBigint:
      bound.buffer = scripted_odbc::bytes_of(
          static_cast<std::int64_t>(null ? 0 : value.llVal));
      break;
    case As::kBoolean:
      bound.buffer.assign(1, value.boolVal != 0 ? '\1' : '\0');
      break;
    case As::kDouble:
      bound.buffer = scripted_odbc::bytes_of(value.dblVal);
      break;
    case As::kChar:
    case As::kGuid:
      if (output || both) text.resize(size + 1);
      bound.buffer = text;
      bound.indicator = SQL_NTS;
      break;
    case As::kWideChar:
      bound.indicator = static_cast<SQLLEN>(2 * text.size());
      if (output || both) text.resize(size);
      bound.buffer = scripted_odbc::bytes_of(
          std::u16string(text.begin(), text.end()) + u'\0');
      break;
    case As::kBinary:
      for (std::size_t i = 0;
           value.vt != VT_EMPTY && i < value.parray->rgsabound[0].cElements;
           ++i) {
        const SafeArrayAccess access(value.parray);
        bound.buffer += static_cast<char>(access.elements<BYTE>()[i]);
      }
      bound.indicator = static_cast<SQLLEN>(bound.buffer.size());
      if (output || both) bound.buffer.resize(size);
      break;
    case As::kNull:
      break;
  }
  if (output) {
    bound.indicator = 0;
  } else if (null) {
    bound.indicator = SQL_NULL_DATA;
  }
  return bound;
}

/// What an honest execution leaves in the buffer.
inline Bound executed(const Sending& sending) {
  Bound bound = bound_for(sending);
  const Cell& output = sending.output;
  if (output.null) return bound;
  std::string written;
  switch (sending.as) {
    case As::kInteger:
      written =
          scripted_odbc::bytes_of(static_cast<std::int32_t>(output.number));
      break;
    case As::kBigint:
      written = scripted_odbc::bytes_of(output.number);
      break;
    case As::kBoolean:
      written.assign(1, static_cast<char>(output.number));
      break;
    case As::kWideChar: {
      const std::wstring wide = scripting::wide(output.bytes);
      written =
          scripted_odbc::bytes_of(std::u16string(wide.begin(), wide.end()));
      break;
    }
    default:
      written = output.bytes;
  }
  bound.indicator = static_cast<SQLLEN>(written.size());
  if (sending.as == As::kChar) written += '\0';
  if (sending.as == As::kWideChar) written.append(2, '\0');
  bound.buffer.replace(0, written.size(), written);
  return bound;
}

/// A text up to its terminator, which ends it in a BSTR but not below.
inline std::string seen_text(const std::string& text, Road road) {
  return shown_text(road == Road::kLayer ? text
                                         : text.substr(0, text.find('\0')));
}

/// The value that is read back.
inline std::string read_back(const Sending& sending, const Bound& bound,
                             Road road) {
  if (bound.indicator == SQL_NULL_DATA) return "NULL";
  const std::string& buffer = bound.buffer;
  const auto counted = [&](std::size_t width) -> std::size_t {
    if (bound.indicator <= 0) return 0;
    return std::min(static_cast<std::size_t>(bound.indicator) / width,
                    buffer.size() / width);
  };
  const auto number = [&](auto zero) {
    std::memcpy(&zero, buffer.data(), sizeof zero);
    return zero;
  };
  switch (sending.as) {
    case As::kInteger: {
      const auto value = number(std::int32_t{});
      // The objects give an INTEGER its own type.
      return (road == Road::kLayer ? "I8 " : "I4 ") + std::to_string(value);
    }
    case As::kBigint:
      return shown_number(number(std::int64_t{}));
    case As::kBoolean:
      return buffer[0] != '\0' ? "BOOL -1" : "BOOL 0";
    case As::kDouble:
      return scripting::shown(_variant_t(number(double{})));
    case As::kBinary:
      return shown_bytes(buffer.substr(0, counted(1)));
    case As::kWideChar: {
      std::wstring units;
      for (std::size_t i = 0; i + 1 < buffer.size(); i += 2) {
        char16_t unit = 0;
        std::memcpy(&unit, &buffer[i], sizeof unit);
        units += static_cast<wchar_t>(unit);
      }
      units.resize(bound.indicator == SQL_NTS
                       ? std::min(units.find(L'\0'), units.size())
                       : counted(2));
      return seen_text(scripting::utf8(units), road);
    }
    default:
      return seen_text(
          buffer.substr(0, bound.indicator == SQL_NTS
                               ? std::min(buffer.find('\0'), buffer.size())
                               : counted(1)),
          road);
  }
}

class Model {
 public:
  /// `at` counts the journey's calls from 1; 0 is a journey unharmed.
  Model(const Journey& journey, Road road, Face face, int at = 0,
        const Fault* fault = nullptr)
      : journey_(journey), road_(road), face_(face), at_(at), fault_(fault) {
    run();
  }
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;
  ~Model() = default;

  const Seen& seen() const { return seen_; }
  const Texts& labels() const { return labels_; }
  /// An execution leaves this behind in a parameter.
  void replace_bound(std::size_t which, Bound bound) {
    replaced_ = which;
    replacement_ = std::move(bound);
    run();
  }
  /// The record of the spoilt call reads like this.
  void replace_record(std::string text) {
    record_ = std::move(text);
    run();
  }

 private:
  struct Answer {
    bool performed = true;
    SQLRETURN code = SQL_SUCCESS;
    std::optional<SQLLEN> reported = std::nullopt;
  };
  static bool good(SQLRETURN code) {
    return code == SQL_SUCCESS || code == SQL_SUCCESS_WITH_INFO;
  }

  /// A call that answers `honest` when nobody spoils it.
  Answer call(const std::string& label, SQLRETURN honest = SQL_SUCCESS,
              const char* diagnostic = kNoDiagnostic) {
    labels_.push_back(label);
    text_ = diagnostic;
    if (++calls_ != at_) return {true, honest, {}};
    const scripted_odbc::Reply& reply = fault_->reply;
    // The driver manager collects records after this code alone.
    const bool recorded = !reply.diagnostics.records().empty() &&
                          (face_ == Face::kStandIn || reply.code == SQL_ERROR);
    if (reply.perform && !good(honest)) return {true, honest, {}};
    text_ = record_.value_or(recorded ? kBroken : kNoDiagnostic);
    return {reply.perform, reply.code.value_or(honest), reply.reported};
  }
  bool succeeds(const std::string& label) {
    return good(call(label).code) || refused();
  }
  /// The end: the driver is asked for its record.
  bool refused() {
    if (face_ == Face::kStandIn) labels_.emplace_back("SQLGetDiagRec(1)");
    failure_ = text_;
    return false;
  }

  void run() {
    seen_ = {};
    labels_.clear();
    calls_ = 0;
    done_ = execute();
    finish();
  }

  bool execute() {
    if (!good(call("SQLAllocHandle(STMT)").code)) {
      failure_ = "Unable to allocate ODBC statement";
      return false;
    }
    const bool done = run_statement();
    call("SQLFreeHandle(STMT)");
    return done;
  }

  bool run_statement() {
    if (journey_.sendings.empty()) {
      if (!succeeds("SQLExecDirect")) return false;
    } else {
      if (!succeeds("SQLPrepare")) return false;
      for (std::size_t i = 1; i <= journey_.sendings.size(); ++i) {
        const std::string label = "SQLBindParameter(" + std::to_string(i) + ")";
        if (!succeeds(label)) return false;
      }
      if (!succeeds("SQLExecute")) return false;
    }
    return describe() && fetch() && count();
  }

  bool describe() {
    const Answer asked = call("SQLNumResultCols");
    if (!good(asked.code)) return refused();
    const auto told = static_cast<SQLSMALLINT>(
        asked.reported.value_or(static_cast<SQLLEN>(journey_.columns.size())));
    columns_ = 0;
    for (int i = 0; i < told; ++i) {
      const auto at = static_cast<std::size_t>(i);
      const bool known = at < journey_.columns.size();
      const Answer described =
          call("SQLDescribeCol(" + std::to_string(i + 1) + ")",
               static_cast<SQLRETURN>(known ? SQL_SUCCESS : SQL_ERROR),
               known ? kNoDiagnostic : "07009: invalid descriptor index");
      if (!good(described.code)) return refused();
      std::string name = journey_.columns[at].name;
      if (described.reported) {
        const auto length = static_cast<SQLSMALLINT>(*described.reported);
        name.resize(
            static_cast<std::size_t>(std::clamp<SQLSMALLINT>(length, 0, 255)));
      }
      seen_.names.push_back(
          road_ == Road::kLayer ? name : name.substr(0, name.find('\0')));
      ++columns_;
    }
    seen_.has_result = columns_ > 0;
    return true;
  }

  bool fetch() {
    if (columns_ == 0) return true;
    std::size_t next = 0;
    for (;;) {
      const bool more = next < journey_.rows.size();
      const Answer fetched = call(
          "SQLFetch", static_cast<SQLRETURN>(more ? SQL_SUCCESS : SQL_NO_DATA));
      if (fetched.code == SQL_NO_DATA) return true;
      if (!good(fetched.code)) return refused();
      Texts row;
      for (std::size_t i = 0; i < columns_; ++i) {
        std::string value;
        if (!read(i, journey_.rows[next][i], value)) return refused();
        row.push_back(std::move(value));
      }
      seen_.rows.push_back(std::move(row));
      ++next;
    }
  }

  bool read(std::size_t column, const Cell& cell, std::string& value) {
    const std::string label = "SQLGetData(" + std::to_string(column + 1) + ")";
    switch (journey_.columns[column].as) {
      case As::kBigint:
      case As::kInteger:
      case As::kDouble:
      case As::kBoolean:
        return read_number(label, journey_.columns[column].as, cell, value);
      case As::kBinary:
        return read_pieces(label, cell, true, value);
      default:
        break;
    }
    if (!read_pieces(label, cell, false, value)) return false;
    const bool braces = journey_.columns[column].as == As::kGuid &&
                        value != "NULL" && value != "BSTR " &&
                        value.substr(0, 6) != "BSTR {";
    if (braces) value = "BSTR {" + value.substr(5) + "}";
    return true;
  }

  bool read_number(const std::string& label, As as, const Cell& cell,
                   std::string& value) {
    const Answer answer = call(label);
    SQLLEN indicator = 0;
    if (answer.performed) {
      indicator = answer.reported.value_or(cell.null ? SQL_NULL_DATA : 8);
    }
    if (indicator == SQL_NULL_DATA) {
      value = "NULL";
      return true;
    }
    if (!good(answer.code)) return false;
    // A NULL that does not say so leaves the zero it found.
    value =
        as == As::kDouble
            ? scripting::shown(_variant_t(static_cast<double>(cell.number) / 2))
        : as == As::kBoolean ? (cell.number != 0 ? "BOOL -1" : "BOOL 0")
                             : shown_number(cell.number);
    return true;
  }

  bool read_pieces(const std::string& label, const Cell& cell, bool binary,
                   std::string& value) {
    constexpr std::size_t kBuffer = 1024;
    const std::size_t room = binary ? kBuffer : kBuffer - 1;
    std::size_t place = 0;
    bool exhausted = false;
    SQLLEN indicator = 0;
    std::string content;
    for (;;) {
      const std::size_t left = cell.bytes.size() - place;
      const SQLRETURN honest =
          exhausted     ? SQL_NO_DATA
          : left > room ? static_cast<SQLRETURN>(SQL_SUCCESS_WITH_INFO)
                        : static_cast<SQLRETURN>(SQL_SUCCESS);
      const Answer answer = call(label, honest);
      std::string piece;
      if (answer.performed && !exhausted) {
        piece = cell.bytes.substr(place, room);
        place += piece.size();
        exhausted = place == cell.bytes.size();
        indicator = answer.reported.value_or(
            cell.null ? SQL_NULL_DATA : static_cast<SQLLEN>(left));
      }
      if (indicator == SQL_NULL_DATA) {
        value = "NULL";
        return true;
      }
      value = binary ? shown_bytes(content) : shown_text(content);
      if (answer.code == SQL_NO_DATA) return true;
      if (!good(answer.code)) return false;
      if (binary) {
        const bool filled =
            answer.code == SQL_SUCCESS_WITH_INFO || indicator == SQL_NO_TOTAL;
        piece.resize(filled ? kBuffer
                            : static_cast<std::size_t>(
                                  std::clamp<SQLLEN>(indicator, 0, kBuffer)));
      }
      content += piece;
      value = binary ? shown_bytes(content) : shown_text(content);
      if (answer.code == SQL_SUCCESS) return true;
    }
  }

  /// Cannot fail: what the driver does not know is known from the rows.
  bool count() {
    const Answer answer = call("SQLRowCount");
    SQLLEN told = 0;
    if (answer.performed) told = answer.reported.value_or(journey_.row_count);
    affected_ = told > 0 ? told : static_cast<SQLLEN>(seen_.rows.size());
    return true;
  }

  /// What the way up makes of it.
  void finish() {
    const bool layer = road_ == Road::kLayer;
    for (const Sending& sending : journey_.sendings) {
      seen_.values.push_back(shown(sending.before));
    }
    if (!done_) {
      if (!layer) failure_ = failure_.substr(0, failure_.find('\0'));
      seen_.outcome = {component::kExecuteFailedCode,
                       component::kConnectionSource, scripting::wide(failure_)};
      seen_.affected = layer ? shown_number(0) : kUnwrittenShown;
      seen_.has_result = false;
      if (layer) {
        for (std::string& value : seen_.values) {
          if (value == "EMPTY") value = "NULL";
        }
      } else {
        seen_.names.clear();
        seen_.rows.clear();
      }
      return;
    }
    if (layer) {
      seen_.affected = shown_number(affected_);
    } else if (journey_.kind == Kind::kValues) {
      seen_.affected = kUnwrittenShown;
    } else {
      seen_.affected = shown_number(seen_.has_result ? -1 : affected_);
    }
    if (!layer && journey_.kind == Kind::kValues) return;
    for (std::size_t i = 0; i < journey_.sendings.size(); ++i) {
      const Sending& sending = journey_.sendings[i];
      if (!layer && journey_.kind == Kind::kProcedure) {
        if (sending.direction == ZIRDB_AD_PARAM_OUTPUT ||
            sending.direction == ZIRDB_AD_PARAM_RETURN_VALUE) {
          seen_.values[i] = "EMPTY";
        }
        continue;
      }
      seen_.values[i] = read_back(
          sending, replaced_ == i ? *replacement_ : executed(sending), road_);
    }
  }

  const Journey& journey_;
  const Road road_;
  const Face face_;
  const int at_;
  const Fault* const fault_;
  int calls_ = 0;
  std::string text_;
  std::string failure_;
  std::size_t columns_ = 0;
  SQLLEN affected_ = 0;
  bool done_ = false;
  std::optional<std::size_t> replaced_;
  std::optional<Bound> replacement_;
  std::optional<std::string> record_;
  Seen seen_;
  Texts labels_;
};

}  // namespace faults

#endif  // ZIRDB_TESTS_SUPPORT_FAULTS_H
