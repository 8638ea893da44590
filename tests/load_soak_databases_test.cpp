// SPDX-License-Identifier: MIT
//
// The same on SQLite, through the real driver manager.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "support/component.h"
#include "support/database.h"
#include "support/load_handles.h"
#include "support/load_soak.h"
#include "support/long_form.h"
#include "support/script_journey.h"
#include "support/scripting.h"

namespace zirdb_test {
namespace {

using load::soak;

const load::Statements kStatements = {
    "UPDATE s SET n = n + 1",
    "UPDATE s SET n = ?, t = ?, x = ?",
    "SELECT n, t, x FROM s, (SELECT ? AS a, ? AS b, ? AS c) "
    "WHERE n = a AND t = b AND x = c",
    "WITH RECURSIVE r(c0) AS (SELECT 1 UNION ALL SELECT c0 + 1 FROM r WHERE c0 "
    "< 4) SELECT c0, 'row ' || c0 AS c1 FROM r",
    "SELECT * FROM nowhere",
    "INSERT INTO nowhere VALUES (?, ?, ?)",
    "no such table: nowhere"};

class LoadSoakSqlite : public ScriptJourney {
 protected:
  void TearDown() override {
    ScriptJourney::TearDown();
    EXPECT_EQ(load::handles_live(), 0U);
  }
};

TEST_P(LoadSoakSqlite, ExecutesOnOneConnectionLeaveNothing) {
  run("CREATE TABLE s (n INTEGER, t TEXT, x BLOB)");
  run("INSERT INTO s VALUES (0, '', NULL)");
  run("PRAGMA journal_mode = OFF");
  soak(short_or_long<std::size_t>(2000, 200000) / load::kExecutesPerRound,
       load::kNoiseOfDatabases,
       [&](std::size_t i) { load::round(connection(), kStatements, i); });
}

TEST_P(LoadSoakSqlite, OpeningAndClosingLeavesNothing) {
  const Object again = scripting::new_connection();
  soak(short_or_long<std::size_t>(200, 20000), load::kNoiseOfDatabases,
       [&](std::size_t) {
         again.call("Open", database().connection_string());
         EXPECT_EQ(scripting::only_value(again("SELECT 1 AS n")), "I8 1");
         again.call("Close");
       });
}

TEST_P(LoadSoakSqlite, RecordsetsLeaveNothing) {
  const auto row_count = short_or_long<std::size_t>(50, 1000);
  const std::string sql =
      "WITH RECURSIVE r(n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM r WHERE n "
      "+ 1 < " +
      std::to_string(row_count) + ") SELECT n, 'row ' || n AS t FROM r";
  soak(short_or_long<std::size_t>(200, 2000), load::kNoiseOfDatabases,
       [&](std::size_t) {
         const Object rows = run(sql);
         std::size_t walked = 0;
         for (; rows.get("EOF").boolVal == VARIANT_FALSE; ++walked) {
           EXPECT_EQ(scripting::value_of(rows, "n"),
                     "I8 " + std::to_string(walked));
           rows.call("MoveNext");
         }
         EXPECT_EQ(walked, row_count);
       });
}

INSTANTIATE_TEST_SUITE_P(, LoadSoakSqlite, testing::Values(&kSqlite),
                         driver_name);

}  // namespace
}  // namespace zirdb_test
