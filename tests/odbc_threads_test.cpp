// SPDX-License-Identifier: MIT
//
// Connections share nothing: threads with a connection each work at the same
// time. Meant for ThreadSanitizer as much as for its assertions.

#include <gtest/gtest.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/database.h"

namespace zirdb_test {
namespace {

constexpr int kThreads = 4;
constexpr int kRows = 60;

class OdbcThreads : public testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = PrivateDatabase::unavailable(kSqlite);
    if (!reason.empty()) GTEST_SKIP() << reason;
  }
};

// Runs the body with the numbers 0, 1, ... in a thread each. What a body
// throws fails the test.
void in_threads(const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&body, i] {
      try {
        body(i);
      } catch (const std::exception& failure) {
        ADD_FAILURE() << "thread " << i << ": " << failure.what();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// Writes and reads rows that only thread `number` would write.
void work(Connection& connection, int number) {
  connection.run("CREATE TABLE w (id INTEGER, t TEXT, x BLOB)");
  for (int i = 0; i < kRows; ++i) {
    const std::string mark =
        std::to_string(number) + " \U0001F600 " + std::to_string(i);
    const std::string content(static_cast<std::size_t>(900 + i * 20),
                              static_cast<char>('a' + number));
    Parameters parameters = {input(kInteger, integer(i)),
                             input(kVarwchar, text(mark)),
                             input(kVarbinary, bytes(content))};
    connection.run("INSERT INTO w VALUES (?, ?, ?)", parameters);
    EXPECT_EQ(parameters[1].value, text(mark));

    const ZirdbOdbcResult result =
        connection.run("SELECT t, x FROM w WHERE id = " + std::to_string(i));
    ASSERT_EQ(result.rows.size(), 1u);
    EXPECT_EQ(result.rows[0][0], text(mark));
    EXPECT_EQ(result.rows[0][1], bytes(content));

    EXPECT_EQ(
        connection.error_of("SELECT * FROM nowhere" + std::to_string(number)),
        "HY000: [SQLite]no such table: nowhere" + std::to_string(number) +
            " (1)");
  }
  EXPECT_EQ(connection.value_of("SELECT COUNT(*) FROM w"), integer(kRows));
}

TEST_F(OdbcThreads, EachWorksOnADatabaseInMemoryOfItsOwn) {
  in_threads([](int number) {
    Connection connection("Driver={SQLite3};Database=:memory:");
    work(connection, number);
  });
}

TEST_F(OdbcThreads, EachWorksOnADatabaseFileOfItsOwn) {
  const TemporaryFolder folder;
  in_threads([&folder](int number) {
    Connection connection("Driver={SQLite3};Database=" + folder.path() + "/" +
                          std::to_string(number) + ".db;SyncPragma=OFF");
    work(connection, number);
  });
}

TEST_F(OdbcThreads, ConnectionsOpenAndCloseAtTheSameTime) {
  in_threads([](int number) {
    for (int i = 0; i < 20; ++i) {
      Connection connection("Driver={SQLite3};Database=:memory:");
      EXPECT_EQ(
          connection.value_of("SELECT ?", {input(kInteger, integer(number))}),
          integer(number));
    }
  });
}

TEST_F(OdbcThreads, AConnectionCanMoveToAnotherThread) {
  Connection connection("Driver={SQLite3};Database=:memory:");
  connection.run("CREATE TABLE w (n INTEGER)");

  std::thread([&connection] {
    connection.run("INSERT INTO w VALUES (7)");
  }).join();

  EXPECT_EQ(connection.value_of("SELECT n FROM w"), integer(7));
}

TEST_F(OdbcThreads, FailuresToOpenKeepTheirOwnTexts) {
  in_threads([](int number) {
    for (int i = 0; i < 20; ++i) {
      const std::string name = "none" + std::to_string(number);
      void* handle = nullptr;
      std::string error;
      EXPECT_FALSE(zirdb_odbc_open("Driver={" + name + "}", &handle, &error));
      EXPECT_EQ(error, "01000: [unixODBC][Driver Manager]Can't open lib '" +
                           name + "' : file not found");
    }
  });
}

}  // namespace
}  // namespace zirdb_test
