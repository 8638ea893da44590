// SPDX-License-Identifier: MIT
//
// A double of the ODBC entry points for the fuzz targets. It answers from the
// bytes of an input: codes, lengths and contents, lies included. It judges
// every call: that the handle is alive, that every buffer is as big as it is
// said to be, that no call comes where none may, and that in the end nothing is
// left.

#ifndef ZIRDB_TESTS_FUZZ_ODBC_DOUBLE_H
#define ZIRDB_TESTS_FUZZ_ODBC_DOUBLE_H

#include <sql.h>
#include <sqlext.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"

namespace fuzz::odbc {

enum class Function : std::uint8_t {
  alloc_handle,
  set_env_attr,
  driver_connect,
  disconnect,
  free_handle,
  prepare,
  execute,
  exec_direct,
  bind_parameter,
  num_result_cols,
  describe_col,
  fetch,
  get_data,
  row_count,
  get_diag_rec,
};

/// A parameter as it was bound, and what stood in its buffer after execution.
struct Bound {
  SQLSMALLINT direction = 0;
  SQLSMALLINT c_type = 0;
  SQLSMALLINT sql_type = 0;
  SQLULEN column_size = 0;
  void* buffer = nullptr;
  SQLLEN length = 0;
  SQLLEN* indicator = nullptr;
  /// Copies of the two, made when the statement was executed.
  std::string sent{};
  SQLLEN sent_indicator = 0;
  std::string received{};
  SQLLEN received_indicator = 0;
};

/// A call as it went.
struct Call {
  Function function = Function::alloc_handle;
  SQLRETURN code = SQL_SUCCESS;
  SQLSMALLINT number = 0;  ///< handle type, column, parameter, C type
  SQLSMALLINT type = 0;    ///< SQL type of a column, C type of a cell
  SQLLEN length = 0;       ///< what was reported: an indicator, a count
  std::string text{};      ///< a text passed, or a buffer as it was left
  std::string state{};     ///< of a diagnostic record
  std::vector<Bound> bound{};
};

/// What follows is answered from `input`, which must outlive it; without one
/// every call succeeds and brings nothing. Calls are kept if `logged`.
void begin(Input* input, bool logged);

/// Forgets the calls so far.
void clear_log();
const std::vector<Call>& log();

/// Everything must have been freed. Forgets the input.
void end();

}  // namespace fuzz::odbc

#endif  // ZIRDB_TESTS_FUZZ_ODBC_DOUBLE_H
