// SPDX-License-Identifier: MIT
//
// The same work again and again, after which the process must be as big as it
// was after the first tenth.

#ifndef ZIRDB_TESTS_SUPPORT_LOAD_SOAK_H
#define ZIRDB_TESTS_SUPPORT_LOAD_SOAK_H

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "support/load_memory.h"
#include "support/long_form.h"
#include "support/script_journey.h"
#include "support/scripting.h"

namespace load {

using scripting::Array;
using scripting::error_of;
using scripting::Object;
using scripting::shown;

/// What the allocator keeps for later, and numbers that have become longer,
/// come to less than the smallest block that is lost in each of 200 rounds.
constexpr std::size_t kNoise = 4096;
/// The driver manager and SQLite keep some pages and buffers besides.
constexpr std::size_t kNoiseOfDatabases = 32768;

/// Calls `act(0)`, `act(1)`, ..., 200 times or more, and compares. The resident
/// memory moves in pages, which a short form does not fill.
template <class Act>
void soak(std::size_t times, std::size_t noise, Act act) {
  const std::size_t tenth = times / 10;
  for (std::size_t i = 0; i < tenth; ++i) act(i);
  const std::size_t allocated = allocated_bytes();
  const std::size_t resident = resident_bytes();
  for (std::size_t i = tenth; i < times; ++i) act(i);
  const std::size_t allocated_in_the_end = allocated_bytes();
  const std::size_t resident_in_the_end = resident_bytes();

  EXPECT_LE(allocated_in_the_end, allocated + noise);
  if (zirdb_test::is_long_form()) {
    EXPECT_LE(resident_in_the_end, resident + resident / 50);
  }
}

/// What a database understands.
struct Statements {
  std::string changing;       ///< one row, no columns
  std::string changing_with;  ///< the same, with a number, a text, bytes
  std::string echo;           ///< a row with the three parameters
  std::string rows;           ///< several rows with a column "c0"
  std::string failing;        ///< without parameters,
  std::string failing_with;   ///< and with the three
  std::string failure;        ///< what their texts contain
};

constexpr std::size_t kExecutesPerRound = 8;

/// One execution of every kind, with what comes back checked.
inline void round(const Object& connection, const Statements& sql,
                  std::size_t number) {
  const std::string text = "round " + std::to_string(number);
  const _variant_t bytes = scripting::bytes(text);
  const std::int64_t value = static_cast<std::int64_t>(number);
  const std::vector<std::string> expected = {"I8 " + std::to_string(number),
                                             "BSTR " + text, shown(bytes)};
  const std::vector<zirdb_test::ScriptParameter> parameters = {
      zirdb_test::input_of(ZIRDB_AD_BIGINT, scripting::number(VT_I8, value)),
      zirdb_test::input_of(ZIRDB_AD_VARWCHAR, scripting::argument(text)),
      zirdb_test::input_of(ZIRDB_AD_VARBINARY, bytes)};

  _variant_t count;
  connection.call("Execute", sql.changing, values::reference_to(&count));
  EXPECT_EQ(shown(count), "I8 1");

  zirdb_test::command_on(connection, sql.changing_with, parameters)
      .call("Execute");

  EXPECT_EQ(scripting::row_of(connection(
                sql.echo, scripting::number(VT_I8, value), text, bytes)),
            expected);

  Array arguments = Array::of(scripting::number(VT_I8, value), text, bytes);
  const Object command = zirdb_test::command_on(connection, sql.echo);
  EXPECT_EQ(scripting::row_of(command.call("Execute", arguments.reference())),
            expected);
  EXPECT_EQ(shown(arguments[2]), expected[2]);

  for (const auto& error :
       {error_of([&] { connection(sql.failing); }), error_of([&] {
          zirdb_test::command_on(connection, sql.failing_with, parameters)
              .call("Execute");
        })}) {
    EXPECT_NE(error.text().find(sql.failure), std::string::npos)
        << error.text();
  }

  const std::vector<std::vector<std::string>> rows =
      scripting::rows_of(connection(sql.rows));
  std::vector<std::string> seen;
  scripting::Callback callback([&seen](const Object& fields) {
    seen.push_back(shown(Object(fields("c0")).get("Value")));
    return S_OK;
  });
  Object(connection(sql.rows)).call("forEach", callback.argument());
  EXPECT_EQ(seen.size(), rows.size());
  EXPECT_EQ(seen.back(), rows.back().front());
}

}  // namespace load

#endif  // ZIRDB_TESTS_SUPPORT_LOAD_SOAK_H
