// SPDX-License-Identifier: MIT
//
// A database inside the test program, in the place of the driver manager, that
// answers at once and remembers nothing: what a run costs is what the library
// costs. The program must export its symbols (ENABLE_EXPORTS).
//
// Its statements, in which numbers stand for R and C:
//
//   numbers R C   R rows of C integers
//   mixed R C     R rows of C cells of all kinds, in the order of `kind_of`
//   text N        one row with one text of N bytes
//   echo          one row with the values of the parameters; of wide texts only
//                 those in ASCII
//   nothing       no columns, one row affected
//   fail WORDS    SQLSTATE 42000 and the words

#ifndef ZIRDB_TESTS_SUPPORT_LOAD_DATABASE_H
#define ZIRDB_TESTS_SUPPORT_LOAD_DATABASE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace load {

enum class Kind { kInteger, kDouble, kText, kBinary, kNull };

/// What the columns of "mixed" hold, again and again.
constexpr Kind kind_of(std::size_t column) {
  return static_cast<Kind>(column % 5);
}

/// The contents of a cell.
constexpr std::int64_t integer_at(std::size_t row, std::size_t column) {
  return static_cast<std::int64_t>(row * 1000003 + column);
}
constexpr double double_at(std::size_t row, std::size_t column) {
  return static_cast<double>(integer_at(row, column)) + 0.5;
}
/// Of texts and blobs.
constexpr std::size_t kCellBytes = 24;
std::string bytes_at(std::size_t row, std::size_t column);

/// What "text N" sends.
std::string text_of(std::size_t size);

std::size_t handles_live();

}  // namespace load

#endif  // ZIRDB_TESTS_SUPPORT_LOAD_DATABASE_H
