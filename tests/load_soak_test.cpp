// SPDX-License-Identifier: MIT
//
// Weeks of work in a minute: nothing is kept. The database is in here
// (support/load_database.h), so that every byte that stays is the library's.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/load_database.h"
#include "support/load_soak.h"
#include "support/long_form.h"
#include "support/scripting.h"

namespace {

using load::soak;
using scripting::Object;
using zirdb_test::short_or_long;

const load::Statements kStatements = {
    "nothing",          "nothing with",     "echo",       "mixed 4 5",
    "fail no such day", "fail no such day", "no such day"};

class LoadSoak : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(load::handles_live(), 0U); }

  static Object opened() {
    Object connection = scripting::new_connection();
    connection.call("Open", "any");
    return connection;
  }
};

TEST_F(LoadSoak, ExecutesOnOneConnectionLeaveNothing) {
  const Object connection = opened();
  soak(short_or_long<std::size_t>(2000, 200000) / load::kExecutesPerRound,
       load::kNoise,
       [&](std::size_t i) { load::round(connection, kStatements, i); });
}

TEST_F(LoadSoak, OpeningAndClosingLeavesNothing) {
  const Object again = scripting::new_connection();
  soak(short_or_long<std::size_t>(200, 20000), load::kNoise,
       [&](std::size_t i) {
         if (i % 2 == 0) {
           again.call("Open", "any;N=" + std::to_string(i % 10));
           again("mixed 2 5");
           again.call("Close");
         } else {
           // Closed by its last release, with a recordset that outlives it.
           Object connection = opened();
           const Object rows = connection("mixed 2 5");
           connection.release();
           EXPECT_EQ(scripting::shown(rows.get("State")), "I4 0");
         }
       });
}

TEST_F(LoadSoak, RecordsetsLeaveNothing) {
  const auto row_count = short_or_long<std::size_t>(50, 1000);
  const Object connection = opened();
  const std::string sql = "mixed " + std::to_string(row_count) + " 5";
  // Some live longer than others.
  std::vector<Object> alive(10);
  soak(short_or_long<std::size_t>(200, 2000), load::kNoise, [&](std::size_t i) {
    Object& rows = alive[i % alive.size()];
    rows = connection(sql);
    std::size_t walked = 0;
    for (; rows.get("EOF").boolVal == VARIANT_FALSE; ++walked) {
      EXPECT_EQ(Object(rows("c0")).get("Value").llVal,
                load::integer_at(walked, 0));
      rows.call("MoveNext");
    }
    EXPECT_EQ(walked, row_count);
    if (i % 3 == 0) rows.call("Close");
  });
}

}  // namespace
