// SPDX-License-Identifier: MIT
//
// Big results, texts and parameter lists: correct, with no more memory than
// docs/limits.md says, and at a price per cell that does not grow. The database
// is in here (support/load_database.h), so that only the library is judged.

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/connections.h"
#include "support/load_database.h"
#include "support/load_memory.h"
#include "support/long_form.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using load::Kind;
using scripting::Object;
using zirdb_test::short_or_long;

constexpr std::size_t kColumns = 10;

Object opened() {
  Object connection = scripting::new_connection();
  connection.call("Open", "any");
  return connection;
}

std::string statement(const char* word, std::size_t rows,
                      std::size_t columns = kColumns) {
  return std::string(word) + " " + std::to_string(rows) + " " +
         std::to_string(columns);
}

class LoadSizes : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(load::handles_live(), 0U); }
};

// ---------------------------------------------------------------------------
// Contents
// ---------------------------------------------------------------------------

bool is_expected(const VARIANT& value, std::size_t row, std::size_t column) {
  switch (load::kind_of(column)) {
    case Kind::kInteger:
      return value.vt == VT_I8 && value.llVal == load::integer_at(row, column);
    case Kind::kDouble:
      return value.vt == VT_R8 && value.dblVal == load::double_at(row, column);
    case Kind::kText: {
      const std::string text = load::bytes_at(row, column);
      return value.vt == VT_BSTR &&
             SysStringLen(value.bstrVal) == text.size() &&
             std::equal(text.begin(), text.end(), value.bstrVal);
    }
    case Kind::kBinary: {
      if (value.vt != (VT_ARRAY | VT_UI1)) return false;
      const std::string bytes = load::bytes_at(row, column);
      const SafeArrayAccess access(value.parray);
      return value.parray->rgsabound[0].cElements == bytes.size() &&
             std::equal(bytes.begin(), bytes.end(), access.elements<BYTE>());
    }
    case Kind::kNull:
      return value.vt == VT_NULL;
  }
  return false;
}

TEST_F(LoadSizes, EveryCellOfABigResultHoldsWhatWasSent) {
  const auto rows = short_or_long<std::size_t>(2000, 1000000);
  const component::Connection connection = component::opened("any");
  const std::wstring sql = scripting::wide(statement("mixed", rows));
  const component::Recordset recordset =
      component::execute(connection, sql.c_str()).second;
  ASSERT_TRUE(recordset);

  // Fields follow the cursor.
  std::vector<InterfacePtr<IZIRDBField>> fields;
  for (std::size_t i = 0; i < kColumns; ++i) {
    _variant_t index(static_cast<long>(i));
    fields.push_back(
        component::received<IZIRDBField>([&](IZIRDBField** out) {
          return component::fields_of(recordset.get())->Item(index, out);
        }).second);
    ASSERT_TRUE(fields.back());
  }
  std::size_t row = 0;
  for (; !component::at_end(recordset); ++row) {
    for (std::size_t column = 0; column < kColumns; ++column) {
      _variant_t value;
      ASSERT_EQ(fields[column]->get_Value(&value), S_OK);
      ASSERT_TRUE(is_expected(value, row, column))
          << "row " << row << ", column " << column;
    }
    ASSERT_EQ(recordset->MoveNext(), S_OK);
  }
  EXPECT_EQ(row, rows);
}

TEST_F(LoadSizes, ABigTextIsWholeBothWays) {
  const auto size = short_or_long<std::size_t>(1 << 20, 1 << 24);
  const Object connection = opened();
  const std::string expected = load::text_of(size);

  const _variant_t read =
      Object(Object(connection("text " + std::to_string(size)))(0))
          .get("Value");
  ASSERT_EQ(read.vt, VT_BSTR);
  EXPECT_TRUE(values::text_of(read) == scripting::wide(expected));

  const _variant_t echoed =
      Object(Object(connection("echo", read))(0)).get("Value");
  ASSERT_EQ(echoed.vt, VT_BSTR);
  EXPECT_TRUE(values::text_of(echoed) == scripting::wide(expected));
}

// Most that ODBC can number, and of columns that it can count.
TEST_F(LoadSizes, AsManyParametersAndColumnsAsOdbcCounts) {
  constexpr std::size_t kMany = std::numeric_limits<std::int16_t>::max();
  const Object connection = opened();
  std::vector<_variant_t> sent;
  for (std::size_t i = 0; i < kMany; ++i) {
    sent.push_back(scripting::number(VT_I8, load::integer_at(i, 7)));
  }
  scripting::Array arguments(sent);

  const Object row = connection("echo", arguments.reference());

  const Object fields = row.get("Fields");
  ASSERT_EQ(fields.get("Count").lVal, static_cast<long>(kMany));
  for (std::size_t i = 0; i < kMany; ++i) {
    const Object field = fields("c" + std::to_string(i));
    const _variant_t value = field.get("Value");
    ASSERT_EQ(value.vt, VT_I8);
    ASSERT_EQ(value.llVal, load::integer_at(i, 7)) << i;
  }
}

TEST_F(LoadSizes, MoreParametersThanOdbcCanNumberAreTheDriversError) {
  const Object connection = opened();
  scripting::Array arguments(
      std::vector<_variant_t>(65536, scripting::number(VT_I8, 5)));

  const scripting::Error error =
      scripting::error_of([&] { connection("echo", arguments.reference()); });

  EXPECT_EQ(error.code(), component::kExecuteFailedCode);
  EXPECT_EQ(error.text(), "42000: no such parameter");
}

// ---------------------------------------------------------------------------
// Memory
// ---------------------------------------------------------------------------

/// What a recordset keeps allocated while it is alive. Of small ones so many
/// that what the allocator keeps for later does not count.
std::size_t bytes_of(const std::string& sql, std::size_t expected) {
  constexpr std::size_t kEnough = std::size_t{4} << 20;
  const std::size_t count = 1 + kEnough / expected;
  const Object connection = opened();
  std::vector<Object> recordsets;
  recordsets.reserve(count);
  const std::size_t before = load::allocated_bytes();
  for (std::size_t i = 0; i < count; ++i) {
    recordsets.emplace_back(connection(sql));
  }
  return (load::allocated_bytes() - before) / count;
}

// A cell, the bytes of texts and blobs and the zero behind a text; of all that
// at most a sixteenth is reserve.
void expect_memory(const std::string& sql, std::size_t cells,
                   std::size_t content) {
  constexpr std::size_t kCell = 16;
  constexpr std::size_t kLeast = 4096;
  const std::size_t needed = kCell * cells + content;
  const std::size_t taken = bytes_of(sql, needed);
  EXPECT_GE(taken, needed) << sql;
  EXPECT_LE(taken, needed + needed / 16 + kLeast) << sql;
}

TEST_F(LoadSizes, AResultTakesNoMoreMemoryThanDocumented) {
  for (const std::size_t rows : {std::size_t{10}, std::size_t{1000},
                                 short_or_long<std::size_t>(20000, 1000000)}) {
    const std::size_t cells = rows * kColumns;
    expect_memory(statement("numbers", rows), cells, 0);
    // Of five columns, one is a text and one a blob.
    expect_memory(statement("mixed", rows), cells,
                  cells / 5 * (2 * load::kCellBytes + 1));
  }
  for (const std::size_t size : {std::size_t{4096}, std::size_t{1} << 24}) {
    expect_memory("text " + std::to_string(size), 1, size + 1);
  }
}

// ---------------------------------------------------------------------------
// Time
// ---------------------------------------------------------------------------

// Fresh pages cost a big result what a small one, which gets pages that were
// freed before it, does not pay: they are the kernel's. Here all memory stays
// with the process, and comes from there a second time.
class KeepMemory {
 public:
  KeepMemory() {
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
  }
  KeepMemory(const KeepMemory&) = delete;
  KeepMemory& operator=(const KeepMemory&) = delete;
  ~KeepMemory() {
    mallopt(M_MMAP_MAX, 65536);
    mallopt(M_TRIM_THRESHOLD, 128 * 1024);
  }
};

double seconds(const std::function<void()>& work) {
  const double before = load::cpu_seconds();
  work();
  return load::cpu_seconds() - before;
}

/// What `big` costs of what `small`, done `times` times, does: the least of
/// each, by turns, since what else the machine does can only add.
double ratio_of(const std::function<void()>& small, std::size_t times,
                const std::function<void()>& big) {
  const int turns = short_or_long(3, 7);
  const KeepMemory keep_memory;
  big();
  double least_small = std::numeric_limits<double>::infinity();
  double least_big = least_small;
  for (int i = 0; i < turns; ++i) {
    least_small = std::min(least_small, seconds([&] {
                             for (std::size_t k = 0; k < times; ++k) small();
                           }));
    least_big = std::min(least_big, seconds(big));
  }
  return least_big / least_small;
}

void expect_linear(const std::function<void()>& small, std::size_t times,
                   const std::function<void()>& big, double most) {
  constexpr int kAttempts = 5;
  double least = std::numeric_limits<double>::infinity();
  for (int i = 0; i < kAttempts && least > most; ++i) {
    least = std::min(least, ratio_of(small, times, big));
  }
  testing::Test::RecordProperty("ratio", std::to_string(least));
  EXPECT_LE(least, most);
}

/// Effort that grows with the square multiplies the time by the number of times
/// that a job is bigger, at least ten; a cache that it does not fit into at
/// most doubles it.
constexpr double kNotTheSquare = 2.0;

/// A result fetched, walked and released.
void walk(const component::Connection& connection, std::size_t rows) {
  const std::wstring sql = scripting::wide(statement("numbers", rows));
  const component::Recordset recordset =
      component::execute(connection, sql.c_str()).second;
  if (!recordset) throw std::runtime_error("no recordset");
  while (!component::at_end(recordset)) recordset->MoveNext();
}

TEST_F(LoadSizes, ACellCostsTheSameInAResultOfAnySize) {
  constexpr std::size_t kFewRows = 1000;
  const auto many_rows = short_or_long<std::size_t>(50000, 1000000);
  const component::Connection connection = component::opened("any");
  expect_linear([&] { walk(connection, kFewRows); }, many_rows / kFewRows,
                [&] { walk(connection, many_rows); },
                short_or_long(kNotTheSquare, 1.1));
}

TEST_F(LoadSizes, AByteCostsTheSameInATextOfAnySize) {
  constexpr std::size_t kTimes = 50;
  const auto size = short_or_long<std::size_t>(1 << 20, 1 << 24);
  const Object connection = opened();
  const auto both_ways = [&](std::size_t bytes) {
    const Object row = connection("text " + std::to_string(bytes));
    const Object echoed = connection("echo", Object(row(0)).get("Value"));
    Object(echoed(0)).get("Value");
  };
  expect_linear([&] { both_ways(size / kTimes); }, kTimes,
                [&] { both_ways(size); }, kNotTheSquare);
}

TEST_F(LoadSizes, AParameterAndAColumnCostTheSameAmongAnyNumber) {
  constexpr std::size_t kTimes = 30;
  const auto many = short_or_long<std::size_t>(6000, 30000);
  const Object connection = opened();
  const auto echo = [&](std::size_t count) {
    scripting::Array arguments(
        std::vector<_variant_t>(count, scripting::number(VT_I8, 5)));
    const Object row = connection("echo", arguments.reference());
    for (std::size_t i = 0; i < count; ++i) {
      Object(row("c" + std::to_string(i))).get("Value");
    }
  };
  expect_linear([&] { echo(many / kTimes); }, kTimes, [&] { echo(many); },
                kNotTheSquare);
}

}  // namespace
