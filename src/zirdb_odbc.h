// SPDX-License-Identifier: MIT
//
// zirdb_odbc: one SQL statement in, plain records out, over any ODBC driver.
//
// The ODBC access layer opens a connection from a connection string, runs one
// statement at a time with or without bound parameters, and hands back columns,
// every row, the affected-row count and the values of output parameters. It
// speaks UTF-8 and plain C++ types and knows nothing of Automation.
//
// Sections: values and columns; parameters; results; the sink; the exported
// functions.
//
// Three ideas carry the rest:
//  - Failure is a `false` and a text. The text is the first diagnostic record,
//    "SQLSTATE: message", or "ODBC operation failed" where there is none. Only
//    exceptions of the standard library (no memory, impossible lengths, text
//    that is not valid UTF-8 in a wide parameter) leave a function.
//  - Every execution owns its statement handle and fetches everything before it
//    returns. No cursor stays open, so calls on one connection never interfere.
//  - A connection serves one thread at a time. Separate connections share
//    nothing. A thread that is cancelled inside of a call finishes it first.

#ifndef ZIRDB_ODBC_H
#define ZIRDB_ODBC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#ifndef ZIRDB_API
#define ZIRDB_API __attribute__((visibility("default")))
#endif
#ifndef ZIRDB_INTERNAL
#define ZIRDB_INTERNAL __attribute__((visibility("hidden")))
#endif

// ---------------------------------------------------------------------------
// Values and columns
// ---------------------------------------------------------------------------

/// Which payload field of a ZirdbOdbcValue holds the value.
enum class ZirdbOdbcValueKind : std::int32_t {
  Null = 0,    ///< SQL NULL; no payload is meaningful
  Bool = 1,    ///< bool_value
  Int64 = 2,   ///< int64_value
  Double = 3,  ///< double_value
  Text = 4,    ///< text_value
  Binary = 5,  ///< binary_value
};

/// One cell or one parameter value. Not a union: the fields that `kind` does
/// not name keep whatever they held, and readers ignore them.
struct ZirdbOdbcValue {
  ZirdbOdbcValueKind kind = ZirdbOdbcValueKind::Null;
  bool bool_value = false;
  std::int64_t int64_value = 0;
  double double_value = 0.0;
  std::string text_value;  ///< UTF-8
  std::vector<unsigned char> binary_value;
};

/// One column of a result set.
struct ZirdbOdbcColumn {
  std::string name;           ///< the driver's bytes, unconverted, at most 255
  std::int16_t sql_type = 0;  ///< ODBC SQL type code, e.g. SQL_INTEGER (4)
};

// ---------------------------------------------------------------------------
// Parameters
// ---------------------------------------------------------------------------

/// One parameter marker of a statement, by position.
struct ZirdbOdbcParameter {
  /// Data type: 3 INTEGER, 11 BOOLEAN, 20 BIGINT, 72 GUID, 200 VARCHAR,
  /// 202 VARWCHAR, 204 VARBINARY. Any other number is bound by value.kind.
  std::int64_t type = 0;
  /// 1 input, 2 output, 3 input-output, 4 return value (bound as an output).
  /// Any other number is an input.
  std::int64_t direction = 0;
  /// Declared size in characters (text) or bytes (binary); 0 or less: none.
  /// Sent to the driver as the column size; it also sizes the buffers of output
  /// and input-output parameters, to which an input-output value is cut.
  std::int64_t size = 0;
  /// The value to send (text other than VARWCHAR up to its first NUL); after a
  /// successful execution the value read back from the binding buffer, for
  /// input parameters too (an INTEGER comes back as Int64, a VARWCHAR as Text).
  /// After a failure it is unchanged.
  ZirdbOdbcValue value;
};

// ---------------------------------------------------------------------------
// Results
// ---------------------------------------------------------------------------

/// Everything one execution produced. May be reused: each execution resets it.
struct ZirdbOdbcResult {
  std::vector<ZirdbOdbcColumn> columns;  ///< empty without a result set
  std::vector<std::vector<ZirdbOdbcValue>> rows;  ///< one value per column each
  /// The driver's row count; the number of fetched rows where the driver
  /// reports none (a negative count, or 0 although rows came).
  std::int64_t rows_affected = 0;
  std::string error;  ///< empty after success
};

// ---------------------------------------------------------------------------
// The sink (inside the library; not exported)
// ---------------------------------------------------------------------------

/// Receives columns and cells while a statement is fetched, so that a consumer
/// can build its own store without an intermediate copy.
///
/// Order of calls: begin_columns, then column per column, then for each row
/// begin_row, one cell call per column in order, end_row. Nothing is called for
/// a statement without a result set. A failure can follow any call: a row
/// without its end_row is to be dropped, finished rows and columns stay. Views
/// are valid during the call only. What a sink throws leaves the execution.
class ZIRDB_INTERNAL ZirdbOdbcSink {
 public:
  virtual void begin_columns(std::size_t count) = 0;  ///< count is 1 or more
  virtual void column(std::string_view name, std::int16_t sql_type) = 0;

  virtual void begin_row() = 0;
  virtual void null_cell() = 0;
  virtual void bool_cell(bool value) = 0;
  virtual void int64_cell(std::int64_t value) = 0;
  virtual void double_cell(double value) = 0;
  virtual void text_cell(std::string_view utf8) = 0;  ///< as the driver sent it
  virtual void binary_cell(const unsigned char* bytes, std::size_t count) = 0;
  virtual void end_row() = 0;

 protected:
  ZirdbOdbcSink() = default;
  ZirdbOdbcSink(const ZirdbOdbcSink&) = default;
  ZirdbOdbcSink& operator=(const ZirdbOdbcSink&) = default;
  ~ZirdbOdbcSink() = default;
};

/// Runs `sql` on an open connection and feeds columns and rows to `sink`;
/// otherwise as zirdb_odbc_execute_internal. `parameters` may be null.
/// Stores the affected-row count through `rows_affected` on success (0 before)
/// and the failure text in `error` (empty before). `handle_ptr` must be open.
ZIRDB_INTERNAL bool zirdb_odbc_execute_into(
    void* handle_ptr, const std::string& sql,
    std::vector<ZirdbOdbcParameter>* parameters, ZirdbOdbcSink& sink,
    std::int64_t& rows_affected, std::string& error);

// ---------------------------------------------------------------------------
// The exported functions
// ---------------------------------------------------------------------------

/// Opens a connection; never prompts. `connection_string` goes to the driver
/// manager unchanged, up to its first NUL. On success stores a handle through
/// `handle_out` (the caller closes it with zirdb_odbc_close), leaves the text
/// behind `error_out` as it was, and returns true. On failure stores null,
/// writes the reason to `error_out` unless that is null, and returns false with
/// nothing left allocated. The driver's defaults apply (autocommit on).
ZIRDB_API bool zirdb_odbc_open(const std::string& connection_string,
                               void** handle_out, std::string* error_out);

/// Disconnects and frees the handle; null is ignored. The handle must not be
/// used afterwards.
ZIRDB_API void zirdb_odbc_close(void* handle_ptr);

/// Executes `sql` (UTF-8, up to its first NUL) directly, fetches every row of
/// the first result set into `result_out`, and returns true; on failure returns
/// false with the reason in result_out->error, keeping the columns and whole
/// rows that had arrived. A null handle or result returns false and touches
/// nothing. SQL_NO_DATA from the driver, as for an UPDATE that matches no row,
/// is a failure.
ZIRDB_API bool zirdb_odbc_execute(void* handle_ptr, const std::string& sql,
                                  ZirdbOdbcResult* result_out);

/// The same with parameters: when `parameters` is neither null nor empty the
/// statement is prepared and they are bound by position. After success every
/// parameter's value has been read back. Throws std::range_error for invalid
/// UTF-8 in a VARWCHAR parameter and for invalid UTF-16 read back from one (the
/// parameters before it have then been read back, those from it on have not),
/// std::length_error or std::bad_alloc for declared sizes beyond memory.
ZIRDB_API bool zirdb_odbc_execute(void* handle_ptr, const std::string& sql,
                                  std::vector<ZirdbOdbcParameter>* parameters,
                                  ZirdbOdbcResult* result_out);

/// What both overloads forward to; `parameters` may be null.
ZIRDB_API bool zirdb_odbc_execute_internal(
    void* handle_ptr, const std::string& sql,
    std::vector<ZirdbOdbcParameter>* parameters, ZirdbOdbcResult* result_out);

#endif  // ZIRDB_ODBC_H
