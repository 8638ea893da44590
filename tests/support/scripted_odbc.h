// SPDX-License-Identifier: MIT
//
// scripted_odbc: an ODBC database that does and says whatever a test tells it.
//
//   class Fetch : public ScriptedOdbc {};            // scripted_odbc_fixture.h
//
//   TEST_F(Fetch, AFailureAfterTwoRowsKeepsTheTwoRows) {
//     script().columns({{"id", SQL_INTEGER}, {"name", SQL_VARCHAR}});
//     script().rows(5, {cell(1), cell("abc")});
//     script().fail("SQLFetch", nth(3), SQL_ERROR, {"HY000", 7, "broken"});
//
//     ZirdbOdbcResult result;
//     EXPECT_FALSE(zirdb_odbc_execute(open(), "select", &result));
//
//     EXPECT_EQ(result.rows.size(), 2U);
//     EXPECT_EQ(result.error, error_text("HY000", "broken"));
//     EXPECT_EQ(script().count("SQLFetch"), 3U);
//   }
//
// Sections: diagnostics; cells; result sets; replies; the log; what was bound;
// the script.
//
// The ideas:
//  - One engine, two faces. As a *driver* it is a shared library that the real
//    driver manager loads: it proves what reaches a driver. As a *stand-in* it
//    takes the place of the driver manager inside the test program: it sees the
//    exact arguments and can say what no manager would let through. The same
//    test source builds against both (zirdb_scripted_test in scripted.cmake).
//  - Without a script it is a well-behaved database: connections open, every
//    statement succeeds without a result set and 0 rows, buffers are filled
//    within their lengths. A script only says where it differs.
//  - Every call is logged with its arguments. Misuse (a call outside the
//    fifteen entry points, a handle used after its release or never released)
//    becomes a complaint, and the fixture turns complaints into failures.
//  - The engine writes inside the buffer lengths it is given. Its lies are
//    about codes, lengths and indicators.
//  - All functions may be called from several threads.
//
// What only the stand-in can show, because the driver manager (unixODBC 2.3.11,
// measured) changes or hides it on the way:
//  - A failing environment or connection allocation in the driver surfaces in
//    SQLDriverConnect, with a text of the manager; a failing SQLSetEnvAttr not
//    at all. The driver sees the arguments the manager chose (an output buffer
//    at SQLDriverConnect), and its environment and connection are allocated at
//    SQLDriverConnect and released at SQLDisconnect.
//  - SQLGetDiagRec: the manager collects records itself, with lengths of its
//    own, and only after SQL_ERROR and SQL_SUCCESS_WITH_INFO; a failing
//    SQLDriverConnect hands out several records last one first.
//  - After SQL_NEED_DATA from an execution and SQL_STILL_EXECUTING from any
//    statement call the manager refuses to release the statement, which leaves
//    handles behind. The same goes for a scripted failure of SQLDisconnect.

#ifndef ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_H
#define ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_H

#include <sql.h>
#include <sqlext.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace scripted_odbc {

class Engine;

enum class Face { kDriver, kStandIn };

// ---------------------------------------------------------------------------
// Diagnostics
// ---------------------------------------------------------------------------

/// One diagnostic record. `state` may be empty and is cut at five bytes.
struct Diagnostic {
  std::string state;
  SQLINTEGER native = 0;
  std::string message;
};

/// Records for one call: {} none, {"HY000", 7, "broken"} one,
/// {{"01000", 1, "first"}, {"HY000", 2, "second"}} several.
class Diagnostics {
 public:
  Diagnostics() = default;
  Diagnostics(std::string state, SQLINTEGER native, std::string message)
      : records_{{std::move(state), native, std::move(message)}} {}
  Diagnostics(std::initializer_list<Diagnostic> records) : records_(records) {}

  const std::vector<Diagnostic>& records() const { return records_; }

 private:
  std::vector<Diagnostic> records_;
};

// ---------------------------------------------------------------------------
// Cells: what SQLGetData delivers, and what an output parameter receives
// ---------------------------------------------------------------------------

/// For an indicator or a length: the driver does not write it.
inline constexpr std::nullopt_t leave_alone = std::nullopt;

/// What one SQLGetData call does, word for word: exactly `bytes` go to the
/// front of the buffer (no terminator is added; what lies behind them stays),
/// `indicator` to the indicator, `code` is returned. More bytes than the buffer
/// takes are cut, and that is a complaint about the script.
struct Chunk {
  SQLRETURN code = SQL_SUCCESS;
  std::string bytes;
  std::optional<SQLLEN> indicator;
  Diagnostics diagnostics;
};

inline Chunk chunk(int code, std::string bytes, std::optional<SQLLEN> indicator,
                   Diagnostics diagnostics = {}) {
  return {static_cast<SQLRETURN>(code), std::move(bytes), indicator,
          std::move(diagnostics)};
}

/// The bytes of a number as they lie in memory: bytes_of(std::int64_t{7}),
/// bytes_of(1.5), bytes_of<unsigned char>(2).
template <
    typename T,
    std::enable_if_t<!std::is_convertible_v<T, std::u16string_view>, int> = 0>
std::string bytes_of(T value) {
  static_assert(std::is_trivially_copyable_v<T>);
  std::string bytes(sizeof(T), '\0');
  std::memcpy(bytes.data(), &value, sizeof(T));
  return bytes;
}

/// The bytes of UTF-16 text, without a terminator: bytes_of(u"ab") has four.
std::string bytes_of(std::u16string_view units);

/// A cell. The honest kinds are converted to the C type that is asked for
/// (07006 where that makes no sense) and handed out in pieces as the buffer
/// allows: text NUL-terminated, SUCCESS_WITH_INFO with 01004 and the remaining
/// length in the indicator while more is to come, NO_DATA after the end.
class Cell {
 public:
  enum class Kind { kNull, kInteger, kDouble, kText, kBinary, kChunks };

  Cell() = default;
  Cell(Kind kind, std::string bytes) : kind_(kind), bytes_(std::move(bytes)) {}
  explicit Cell(std::int64_t value) : kind_(Kind::kInteger), integer_(value) {}
  explicit Cell(double value) : kind_(Kind::kDouble), double_(value) {}
  explicit Cell(std::vector<Chunk> chunks)
      : kind_(Kind::kChunks), chunks_(std::move(chunks)) {}

  /// The same cell in pieces of at most `bytes` per call.
  Cell pieces_of(std::size_t bytes) const {
    Cell copy = *this;
    copy.piece_ = bytes;
    return copy;
  }

  /// The same cell, with SQL_NO_TOTAL as the indicator while more is to come.
  Cell no_total() const {
    Cell copy = *this;
    copy.no_total_ = true;
    return copy;
  }

 private:
  friend class Engine;

  Kind kind_ = Kind::kNull;
  std::int64_t integer_ = 0;
  double double_ = 0.0;
  std::string bytes_;
  std::vector<Chunk> chunks_;
  std::size_t piece_ = SIZE_MAX;
  bool no_total_ = false;
};

inline Cell null_cell() { return {}; }
/// A number, or a bit: cell(1), cell(std::int64_t{5}), cell(true).
template <typename Integer,
          typename = std::enable_if_t<std::is_integral_v<Integer>>>
Cell cell(Integer value) {
  return Cell(static_cast<std::int64_t>(value));
}
inline Cell cell(double value) { return Cell(value); }
/// Text; bytes are sent as they are, valid UTF-8 or not.
inline Cell cell(std::string text) {
  return {Cell::Kind::kText, std::move(text)};
}
inline Cell cell(const char* text) { return cell(std::string(text)); }
inline Cell binary(std::string bytes) {
  return {Cell::Kind::kBinary, std::move(bytes)};
}
/// A cell whose SQLGetData calls do exactly this, one chunk per call, and
/// return NO_DATA afterwards (nothing written).
inline Cell chunks(std::vector<Chunk> list) { return Cell(std::move(list)); }

// ---------------------------------------------------------------------------
// Result sets
// ---------------------------------------------------------------------------

/// A column as SQLDescribeCol reports it: the name cut to the buffer and
/// NUL-terminated (SUCCESS_WITH_INFO when cut), with its full length unless
/// `reported_length` says something else. Any number can be a type.
struct Column {
  std::string name;
  int type = SQL_VARCHAR;
  std::optional<int> reported_length = std::nullopt;
};

/// What a statement returns. Without columns there is no result set.
struct ResultSet {
  std::vector<Column> columns = {};
  std::vector<std::vector<Cell>> rows = {};
  /// What SQLRowCount says; else -1 with columns and 0 without.
  std::optional<SQLLEN> row_count = std::nullopt;
  /// What SQLNumResultCols says; else the number of columns.
  std::optional<int> column_count = std::nullopt;
};

// ---------------------------------------------------------------------------
// Replies
// ---------------------------------------------------------------------------

/// For `where`: see Script.
inline constexpr const char* any_call = "*";

/// Selects one call: the n-th matching call after the rule was added, from 1.
struct Nth {
  int number;
};
inline Nth nth(int number) { return {number}; }

/// What a call answers. With `perform` it does its ordinary work first (opens
/// the cursor, writes buffers, ...) and `code` and `diagnostics` replace those
/// of a success; without it they are all there is (SQL_ERROR if no code).
///
/// `reported` replaces the number that a call which did its work told its
/// caller: the indicator of SQLGetData, the name length of SQLDescribeCol, the
/// count of SQLNumResultCols and SQLRowCount, cut to the width of each. Other
/// calls tell none.
struct Reply {
  bool perform = true;
  std::optional<SQLRETURN> code = std::nullopt;
  Diagnostics diagnostics = {};
  std::optional<SQLLEN> reported = std::nullopt;
};

/// What SQLGetDiagRec does, word for word: `state` and `message` are written
/// when given (cut to five bytes and to the buffer, NUL-terminated where there
/// is room), `native` always, `length` when given.
struct DiagReply {
  int code = SQL_SUCCESS;
  std::optional<std::string> state = std::nullopt;
  std::optional<std::string> message = std::nullopt;
  std::optional<int> length = std::nullopt;
  SQLINTEGER native = 0;
};

/// What an execution writes into a bound parameter, word for word: `bytes` to
/// the front of the buffer (cut with a complaint if they do not fit; a null
/// buffer is never written), `indicator` unless leave_alone.
struct Raw {
  std::string bytes;
  std::optional<SQLLEN> indicator;
};
inline Raw raw(std::string bytes, std::optional<SQLLEN> indicator) {
  return {std::move(bytes), indicator};
}

// ---------------------------------------------------------------------------
// The log
// ---------------------------------------------------------------------------

/// One argument: a number, bytes that the pointer led to, or a pointer that is
/// only known to be null or not.
struct Argument {
  enum class Kind { kNumber, kBytes, kPointer };
  std::string name;
  Kind kind = Kind::kNumber;
  bool null = false;
  std::int64_t number = 0;
  std::string bytes = {};
};

/// One logged call. Arguments by name (handles are numbered in the order of
/// their allocation, 0 is a null or unknown handle):
///   SQLAllocHandle    type, input, output
///   SQLSetEnvAttr     env, attribute, value, length
///   SQLDriverConnect  dbc, window, string, length, out, out_size, out_length,
///                     completion
///   SQLDisconnect     dbc
///   SQLFreeHandle     type, handle
///   SQLPrepare, SQLExecDirect  statement, sql, length
///   SQLExecute, SQLFetch       statement
///   SQLBindParameter  statement, number, direction, c_type, sql_type,
///                     column_size, digits, buffer, buffer_length, indicator
///                     (the value it holds at the bind)
///   SQLNumResultCols  statement, count
///   SQLDescribeCol    statement, column, name, name_size, name_length, type,
///                     size, digits, nullable
///   SQLGetData        statement, column, c_type, buffer (its bytes before the
///                     call), buffer_length, indicator (before the call)
///   SQLRowCount       statement, count
///   SQLGetDiagRec     type, handle, record, state, native, message,
///                     message_size, length
struct Call {
  std::string name;   ///< "SQLBindParameter"
  std::string label;  ///< "SQLBindParameter(2)", "SQLAllocHandle(STMT)", "..."
  std::vector<Argument> arguments;
  SQLRETURN result = SQL_SUCCESS;

  /// The argument; an unknown name throws std::out_of_range.
  const Argument& argument(std::string_view which) const;
  /// A number, or the number behind a pointer (see the list above).
  std::int64_t number(std::string_view which) const;
  const std::string& bytes(std::string_view which) const;
  bool is_null(std::string_view which) const;
  /// "SQLDriverConnect(dbc=2, window=null, string="DSN=x", length=-3, ...)".
  std::string text() const;
};
std::ostream& operator<<(std::ostream& out, const Call& call);

// ---------------------------------------------------------------------------
// What was bound
// ---------------------------------------------------------------------------

/// A bound parameter as an execution found it.
struct Sent {
  int number = 0;
  int direction = 0;
  int c_type = 0;
  int sql_type = 0;
  SQLULEN column_size = 0;
  int decimal_digits = 0;
  bool buffer_is_null = true;
  SQLLEN buffer_length = 0;
  std::string buffer;  ///< buffer_length bytes; the type's size for a number
  SQLLEN indicator = 0;

  bool is_null() const { return indicator == SQL_NULL_DATA; }
  /// The bytes a driver takes: all of a number; text up to its NUL for SQL_NTS;
  /// else the first `indicator` bytes, at most the buffer.
  std::string value() const;
  /// `value` as a number of type T: as<std::int32_t>(), as<double>(). Throws
  /// std::length_error when the sizes differ.
  template <typename T>
  T as() const {
    const std::string taken = value();
    if (taken.size() != sizeof(T)) throw std::length_error("Sent::as");
    T result;
    std::memcpy(&result, taken.data(), sizeof(T));
    return result;
  }
};

// ---------------------------------------------------------------------------
// The script
// ---------------------------------------------------------------------------

/// `where` names calls as the log labels them: "SQLFetch" is every fetch,
/// "SQLAllocHandle(DBC)" the allocation of connections, "SQLBindParameter(2)"
/// the bind of parameter 2, "SQLDescribeCol(3)" and "SQLGetData(3)" those of
/// column 3, "SQLGetDiagRec(1)" the first record; `any_call` is every call but
/// SQLGetDiagRec, which only asks about the one before. ENV, DBC and STMT are
/// the handle types. An unknown entry point throws std::invalid_argument. Of
/// several rules that match, the one added last decides.
class Script {
 public:
  explicit Script(Face face);
  ~Script();
  Script(const Script&) = delete;
  Script& operator=(const Script&) = delete;

  /// Forgets everything: rules, results, log, complaints, handles.
  void reset();

  // --- results: what every statement returns, unless result_for names it

  Script& columns(std::vector<Column> columns);
  Script& row(std::vector<Cell> cells);
  Script& rows(std::size_t count, const std::vector<Cell>& cells);
  Script& row_count(SQLLEN count);
  Script& column_count(int count);
  /// What the statement with exactly this text returns.
  Script& result_for(std::string sql, ResultSet result);

  // --- rules

  /// The call does nothing and returns `code`. SQLAllocHandle then stores a
  /// null handle, as ODBC says.
  Script& fail(std::string where, int code, Diagnostics diagnostics = {});
  Script& fail(std::string where, Nth which, int code,
               Diagnostics diagnostics = {});
  /// The call does its ordinary work and, where that succeeds, returns `code`:
  /// returns("SQLFetch", SQL_SUCCESS_WITH_INFO) still ends after the last row.
  Script& returns(std::string where, int code, Diagnostics diagnostics = {});
  Script& returns(std::string where, Nth which, int code,
                  Diagnostics diagnostics = {});
  /// The call answers all that can be said of it.
  Script& answers(std::string where, Nth which, Reply reply);
  /// Asks `handler` at every such call; nullopt leaves it to the other rules.
  /// It may use the script, and block without holding up other threads.
  Script& on(std::string where,
             std::function<std::optional<Reply>(const Call&)> handler);
  /// Overrides the honest SQLGetDiagRec, which hands out the records of the
  /// handle's last call and cuts the message to the buffer.
  Script& diag_reply(DiagReply reply);
  Script& diag_reply(Nth which, DiagReply reply);
  /// Every execution that does its work writes this into parameter `number`:
  /// a cell honestly (text cut and terminated, the indicator its full length in
  /// bytes, SQL_NULL_DATA for null_cell()), or raw bytes and indicator.
  /// Parameters that are not named are left untouched.
  Script& output(int number, Cell cell);
  Script& output(int number, Raw raw);

  // --- the log, in the order of the calls; copies

  std::vector<Call> calls() const;
  std::vector<Call> calls(std::string_view where) const;
  /// The n-th call of that name, the first by default; throws std::out_of_range
  /// with the whole log in its text when there is none.
  Call call(std::string_view where, Nth which = {1}) const;
  std::size_t count(std::string_view where) const;
  std::vector<std::string> labels() const;
  /// What the driver manager called for its own purposes (driver face only);
  /// there all of SQLGetDiagRec, which managers call at the failure itself.
  std::vector<Call> manager_calls() const;
  /// Forgets the calls so far, e.g. those of open().
  void clear_log();

  // --- what was bound

  /// The parameters of the last execution, by parameter number.
  std::vector<Sent> sent() const;
  /// One of them; throws std::out_of_range when it was not bound.
  Sent sent(int number) const;
  /// The same of every execution, including scripted failures.
  std::vector<std::vector<Sent>> executions() const;

  // --- handles and complaints

  /// Handles allocated so far, and those not released yet: "STMT", "DBC" or
  /// "ENV". A handle counts as released once SQLFreeHandle was called for it,
  /// whatever that returned.
  std::size_t allocated(std::string_view type) const;
  std::size_t live(std::string_view type) const;
  /// Forbidden calls, misuse of handles, impossible scripts. Empty is what a
  /// test wants; the fixture checks it after every test.
  std::vector<std::string> complaints() const;
  /// The same, and forgets them, for a test that provoked them.
  std::vector<std::string> take_complaints();
  /// Handles that are not released yet, e.g. {"ENV 1", "DBC 2"}, which are then
  /// forgotten: any later use of them is misuse. The fixture checks after every
  /// test that there are none; a test that provokes leftovers takes them itself
  /// at its end.
  std::vector<std::string> take_unreleased();

  Engine& engine() { return *engine_; }

 private:
  std::unique_ptr<Engine> engine_;
};

}  // namespace scripted_odbc

#endif  // ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_H
