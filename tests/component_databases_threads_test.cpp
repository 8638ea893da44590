// SPDX-License-Identifier: MIT
//
// Threads with a connection each: none sees the others' errors, rows or
// objects. Meant for ThreadSanitizer as much as for its
// assertions.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/script_journey.h"
#include "support/scripting.h"
#include "support/threads.h"
#include "zir.h"
#include "zirdb.h"

// PostgreSQL's driver sets the process's character type to the environment's
// whenever it opens a connection. The C library has a lock for that, which
// ThreadSanitizer does not see.
// NOLINTBEGIN(bugprone-reserved-identifier): the sanitizer's name for it
extern "C" __attribute__((visibility("default"))) const char*
__tsan_default_suppressions() {
  // NOLINTEND(bugprone-reserved-identifier)
  return "race:psqlodbcw.so\n";
}

namespace zirdb_test {
namespace {

using scripting::Callback;
using scripting::error_of;
using scripting::new_connection;
using scripting::only_value;
using scripting::shown;
using threads::in_threads;

constexpr int kRounds = 25;

class ScriptThreads : public ScriptJourney {
 protected:
  // A database in memory or a connection to the server: SQLite lets nobody
  // write beside another.
  Object own_connection(int number) const {
    Object own = new_connection();
    if (on(kSqlite)) {
      own.call("Open", "Driver={SQLite3};Database=:memory:");
    } else {
      open_again(own);
    }
    own("CREATE TABLE w" + std::to_string(number) +
        " (id INTEGER, t VARCHAR(40), x " + driver().blob_type + ")");
    return own;
  }
};

// Writes and reads rows that only thread `number` would write.
void work(const Object& connection, int number) {
  const std::string table = "w" + std::to_string(number);
  const Object inserting = command_on(
      connection, "INSERT INTO " + table + " VALUES (?, ?, ?)",
      {input_of(ZIRDB_AD_INTEGER, 0), input_of(ZIRDB_AD_VARWCHAR, L""),
       input_of(ZIRDB_AD_VARBINARY, _variant_t())});
  const Object list = inserting.get("Parameters");
  const Object id = list(0);
  const Object text = list(1);
  const Object content = list(2);
  for (int i = 0; i < kRounds; ++i) {
    const std::string mark =
        "thread " + std::to_string(number) + " \U0001F600 " + std::to_string(i);
    const _variant_t bytes =
        scripting::bytes(std::string(static_cast<std::size_t>(900 + 20 * i),
                                     static_cast<char>('a' + number)));
    id.put("Value", i);
    text.put("Value", mark);
    content.put("Value", bytes);
    inserting.call("Execute");
    EXPECT_EQ(shown(text.get("Value")), "BSTR " + mark);

    const std::vector<std::string> expected = {"BSTR " + mark, shown(bytes)};
    EXPECT_EQ(scripting::row_of(
                  connection("SELECT t, x FROM " + table + " WHERE id = ?", i)),
              expected);

    const std::string missing =
        "nowhere" + std::to_string(number) + "_" + std::to_string(i);
    const auto error =
        error_of([&] { connection("SELECT * FROM " + missing); });
    EXPECT_EQ(error.code(), component::kExecuteFailedCode);
    EXPECT_NE(error.text().find(missing), std::string::npos) << error.text();
  }
  int walked = 0;
  Callback callback([&](const Object& fields) {
    EXPECT_EQ(shown(Object(fields("id")).get("Value")),
              "I8 " + std::to_string(walked++));
    return S_OK;
  });
  Object(connection("SELECT id FROM " + table + " ORDER BY id"))
      .call("forEach", callback.argument());
  EXPECT_EQ(walked, kRounds);
}

TEST_P(ScriptThreads, EachWorksOnAConnectionOfItsOwn) {
  in_threads([this](int number) { work(own_connection(number), number); });
}

TEST_P(ScriptThreads, EachOpensAndClosesConnections) {
  in_threads([this](int number) {
    const Object own = new_connection();
    for (int i = 0; i < 10; ++i) {
      own.call("Open", database().connection_string());
      EXPECT_EQ(
          only_value(own("SELECT CAST(? AS char(1))", std::to_string(number))),
          "BSTR " + std::to_string(number));
      own.call("Close");
    }
  });
}

TEST_P(ScriptThreads, EachIsRefusedWithATextOfItsOwn) {
  in_threads([](int number) {
    const Object own = new_connection();
    const std::string name = "none" + std::to_string(number);
    for (int i = 0; i < 10; ++i) {
      const auto error =
          error_of([&] { own.call("Open", "Driver={" + name + "}"); });
      EXPECT_EQ(error.code(), component::kOpenFailedCode);
      EXPECT_NE(error.text().find("'" + name + "'"), std::string::npos)
          << error.text();
    }
  });
}

// One thread at a time, but not always the same.
TEST_P(ScriptThreads, ObjectsMoveFromThreadToThread) {
  run("CREATE TABLE m (n INTEGER)");
  Object inserting;
  Object rows;
  std::thread([&] {
    inserting =
        command("INSERT INTO m VALUES (?)", {input_of(ZIRDB_AD_INTEGER, 7)});
  }).join();
  std::thread([&] {
    inserting.call("Execute");
    rows = run("SELECT n FROM m");
    inserting.release();
  }).join();

  std::thread([&] {
    EXPECT_EQ(only_value(rows), "I8 7");
    connection().call("Close");
  }).join();

  EXPECT_EQ(shown(rows.get("State")), "I4 0");
}

ZIRDB_FOR_EVERY_DRIVER(ScriptThreads);

}  // namespace
}  // namespace zirdb_test
