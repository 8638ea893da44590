// SPDX-License-Identifier: MIT
//
// The data sets every measurement reads: what each cell of each row holds.
//
// One description serves the null driver (which answers from it), the SQLite
// table (which is filled from it) and the checks (which compare against it), so
// a benchmark of wrong results cannot pass.

#ifndef ZIRDB_BENCH_DATA_H
#define ZIRDB_BENCH_DATA_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

enum class Kind { kInteger, kDouble, kText, kBlob };

/// One column. Only the fields of its kind count.
struct Column {
  std::string name;
  std::string declaration;    ///< the type in a CREATE TABLE of SQLite
  std::int16_t sql_type = 0;  ///< the ODBC type the null driver reports
  std::uint64_t size = 0;     ///< the column size the null driver reports
  Kind kind = Kind::kInteger;
  bool sometimes_null = false;          ///< every fourth row
  std::int64_t factor = 0;              ///< kInteger: factor * row + offset
  std::int64_t offset = 0;              ///< kInteger
  std::vector<std::string> rotation{};  ///< kText, kBlob: 8 values in turn

  bool is_null(std::int64_t row) const {
    return sometimes_null && (row & 3) == 3;
  }
  std::int64_t integer(std::int64_t row) const { return factor * row + offset; }
  /// Quarters, so that the value survives a trip through decimal text.
  double number(std::int64_t row) const {
    return 0.25 * static_cast<double>(row) + 0.5;
  }
  const std::string& bytes(std::int64_t row) const {
    return rotation[static_cast<std::size_t>(row & 7)];
  }
};

struct DataSet {
  std::string name;
  std::vector<Column> columns;
};

/// mixed, narrow, ascii and wide.
const std::vector<DataSet>& data_sets();

/// Null for an unknown name.
const DataSet* find_data_set(std::string_view name);

/// The sum a reader of `rows` rows must arrive at: integers as they are,
/// doubles without their fraction, texts and blobs by their length in bytes,
/// one for each NULL.
std::int64_t checksum(const DataSet& data, std::int64_t rows);

/// The SQLite statements that create and fill a table named like the data set.
std::string create_statement(const DataSet& data);
std::string fill_statement(const DataSet& data, std::int64_t rows);

}  // namespace bench

#endif  // ZIRDB_BENCH_DATA_H
