// SPDX-License-Identifier: MIT
//
// Connections to real databases: several at once, servers that are not there,
// logins that are refused, and a server that ends a connection under us.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/database.h"

namespace zirdb_test {
namespace {

struct Refusal {
  bool opened;
  void* handle;
  std::string error;
};

// Tries to open, with a handle and a text from before.
Refusal try_to_open(const std::string& connection_string) {
  int before = 0;
  Refusal refusal{false, &before, "before"};
  refusal.opened =
      zirdb_odbc_open(connection_string, &refusal.handle, &refusal.error);
  if (refusal.opened) zirdb_odbc_close(refusal.handle);
  return refusal;
}

void expect_refusal(const std::string& connection_string,
                    const std::string& state) {
  const Refusal refusal = try_to_open(connection_string);
  EXPECT_FALSE(refusal.opened) << connection_string;
  EXPECT_EQ(refusal.handle, nullptr) << connection_string;
  EXPECT_EQ(refusal.error.substr(0, 7), state + ": ") << refusal.error;
  EXPECT_GT(refusal.error.size(), 7u) << refusal.error;
}

class JourneyConnections : public Journey {};

TEST_P(JourneyConnections, OneSeesWhatTheOtherHasCommitted) {
  Connection other = connect();
  db().run("CREATE TABLE shared (n INTEGER)");

  db().run("INSERT INTO shared VALUES (1)");
  EXPECT_EQ(other.value_of("SELECT MAX(n) FROM shared"), integer(1));

  other.run("INSERT INTO shared VALUES (2)");
  EXPECT_EQ(db().value_of("SELECT COUNT(*) FROM shared"), integer(2));
}

TEST_P(JourneyConnections, OneDoesNotSeeWhatTheOtherHasNotCommitted) {
  Connection other = connect();
  db().run("CREATE TABLE shared (n INTEGER)");

  db().run("BEGIN");
  db().run("INSERT INTO shared VALUES (1)");
  EXPECT_EQ(other.value_of("SELECT COUNT(*) FROM shared"), integer(0));

  db().run("COMMIT");
  EXPECT_EQ(other.value_of("SELECT COUNT(*) FROM shared"), integer(1));
}

TEST_P(JourneyConnections, ClosingOneLeavesTheOtherOpen) {
  Connection other = connect();
  db().run("CREATE TABLE shared (n INTEGER)");

  db().close();

  EXPECT_EQ(other.value_of("SELECT COUNT(*) FROM shared"), integer(0));
}

TEST_P(JourneyConnections, DataOutlivesItsConnection) {
  db().run("CREATE TABLE kept (t VARCHAR(20))");
  db().run("INSERT INTO kept VALUES (?)", {input(kVarchar, text("kept"))});
  db().close();

  EXPECT_EQ(connect().value_of("SELECT t FROM kept"), text("kept"));
}

TEST_P(JourneyConnections, ManyCanBeOpenedOneAfterTheOther) {
  for (int i = 0; i < 25; ++i) {
    EXPECT_EQ(connect().value_of("SELECT 1"), integer(1));
  }
}

TEST_P(JourneyConnections, AnUnreachableDatabaseIsRefusedWithItsState) {
  expect_refusal(driver().unreachable, driver().unreachable_state);
}

TEST_P(JourneyConnections, ARefusalWithoutATextToWriteToIsSilent) {
  int before = 0;
  void* handle = &before;
  EXPECT_FALSE(zirdb_odbc_open(driver().unreachable, &handle, nullptr));
  EXPECT_EQ(handle, nullptr);
}

TEST_P(JourneyConnections, ARefusalDoesNotDisturbOpenConnections) {
  try_to_open(driver().unreachable);
  EXPECT_EQ(db().value_of("SELECT 1"), integer(1));
}

ZIRDB_FOR_EVERY_DRIVER(JourneyConnections);

// What needs no server, and so no driver but the embedded one.
class JourneyConnectionStrings : public Journey {};

TEST_P(JourneyConnectionStrings, AnUnknownDataSourceIsTheManagersError) {
  expect_refusal("DSN=zirdb-no-such-data-source", "IM002");
  expect_refusal("", "IM002");
}

TEST_P(JourneyConnectionStrings, AnUnknownDriverIsTheManagersError) {
  expect_refusal("Driver={zirdb no such driver}", "01000");
}

TEST_P(JourneyConnectionStrings, TheStringEndsAtItsFirstNul) {
  const Refusal result = try_to_open(
      std::string("Driver={SQLite3};Database=:memory:\0;Driver={none}", 49));
  EXPECT_TRUE(result.opened) << result.error;
}

TEST_P(JourneyConnectionStrings, ASuccessLeavesTheErrorTextAsItWas) {
  const Refusal result = try_to_open("Driver={SQLite3};Database=:memory:");
  EXPECT_TRUE(result.opened);
  EXPECT_EQ(result.error, "before");
}

INSTANTIATE_TEST_SUITE_P(, JourneyConnectionStrings, testing::Values(&kSqlite),
                         driver_name);

// ---------------------------------------------------------------------------
// Servers
// ---------------------------------------------------------------------------

// What the two servers call the same things.
struct ServerSql {
  const char* own_id;
  const char* end;    ///< followed by the id
  const char* after;  ///< follows the id
  const char* count;  ///< followed by the id
  const char* state_when_ended;
  const char* text_when_gone;
  const char* no_such_user;
  const char* no_such_user_state;
  const char* no_such_database;
  const char* no_such_database_state;
  const char* nobody_listening_state;
};

// PostgreSQL's driver keeps the connection's statements available, and refuses
// to run them.
constexpr ServerSql kPostgresServer = {
    "SELECT pg_backend_pid()",
    "SELECT pg_terminate_backend(",
    ")",
    "SELECT COUNT(*) FROM pg_stat_activity WHERE pid = ",
    "57P01",
    "08S01: SQLExecDirect unable due to the connection lost",
    ";UID=zirdb_nobody",
    "08001",
    ";Database=zirdb_nothing",
    "08001",
    "08001",
};

// MariaDB's driver gives no more statements once it knows the connection lost.
constexpr ServerSql kMariadbServer = {
    "SELECT CONNECTION_ID()",
    "KILL CONNECTION ",
    "",
    "SELECT COUNT(*) FROM information_schema.processlist WHERE id = ",
    "HY000",
    "Unable to allocate ODBC statement",
    ";UID=zirdb_nobody",
    "28000",
    ";DATABASE=zirdb_nothing",
    "42000",
    "HY000",
};

class JourneyServers : public Journey {
 protected:
  const ServerSql& server() const {
    return &driver() == &kPostgres ? kPostgresServer : kMariadbServer;
  }

  // Ends `connection` on the server's side, and waits until it has ended.
  void end(Connection& connection) {
    const std::string id =
        std::to_string(connection.value_of(server().own_id).int64_value);
    db().run(server().end + id + server().after);
    for (int i = 0; i < 500; ++i) {
      if (db().value_of(server().count + id) == integer(0)) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw std::runtime_error("the connection does not end");
  }
};

TEST_P(JourneyServers, AStatementOnAnEndedConnectionFails) {
  Connection connection = connect();
  end(connection);

  const std::string error = connection.error_of("SELECT 1");

  EXPECT_EQ(error.substr(0, 7), std::string(server().state_when_ended) + ": ")
      << error;
}

TEST_P(JourneyServers, FurtherStatementsOnAnEndedConnectionFailToo) {
  Connection connection = connect();
  end(connection);
  connection.error_of("SELECT 1");

  EXPECT_EQ(connection.error_of("SELECT 1"), server().text_when_gone);
  EXPECT_NE(connection.error_of("SELECT ?", {input(kInteger, integer(1))}), "");
}

TEST_P(JourneyServers, AnEndedConnectionCanBeClosed) {
  Connection unused = connect();
  Connection used = connect();
  end(unused);
  end(used);
  used.error_of("SELECT 1");

  unused.close();
  used.close();

  EXPECT_EQ(connect().value_of("SELECT 1"), integer(1));
}

TEST_P(JourneyServers, AnUnknownUserIsRefused) {
  EXPECT_THROW(connect(server().no_such_user), std::runtime_error);
}

TEST_P(JourneyServers, ASocketNobodyListensOnIsRefused) {
  const TemporaryFolder folder;
  const std::string path = folder.path() + "/.s.PGSQL.5432";
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  const int bound =
      bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
  close(listener);
  ASSERT_EQ(bound, 0);

  expect_refusal(
      &driver() == &kPostgres
          ? "Driver={PostgreSQL Unicode};Servername=" + folder.path() +
                ";Port=5432;Database=postgres;UID=zirdb"
          : "Driver={MariaDB Unicode};SOCKET=" + path + ";UID=zirdb",
      server().nobody_listening_state);
}

INSTANTIATE_TEST_SUITE_P(, JourneyServers,
                         testing::Values(&kPostgres, &kMariadb), driver_name);

}  // namespace
}  // namespace zirdb_test
