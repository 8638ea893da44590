// SPDX-License-Identifier: MIT
//
// Servers that die: killed, cut off, silent, or ending what they were asked to
// do, in the middle of a fetch, of a statement, and between the two. A script
// gets the driver's error within seconds, what it has read stays, and its
// objects go on with the server run again.
//
// Sections: a server of the program's own; killed; cut off; ended by the
// server.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/dying_relay.h"
#include "support/private_server.h"
#include "support/script_journey.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace zirdb_test {
namespace {

using scripting::Error;
using scripting::error_of;
using scripting::expect_error;
using scripting::new_connection;
using scripting::only_value;
using scripting::shown;

// ---------------------------------------------------------------------------
// A server of the program's own
// ---------------------------------------------------------------------------

/// What a driver says, without the versions that MariaDB's puts in front. In
/// braces what is the driver's own, or its client library's, and differs from
/// one version to another; the rest is the server's or the system's.
struct LastWords {
  const char* lost_in_statement;
  const char* lost_between;
  const char* lost_between_with_values;
  const char* afterwards;
  const char* refused;  ///< PATH is the socket's
  const char* too_long_to_open;
  const char* ended_in_statement;
  const char* cancelled;
  const char* timed_out;
  const char* lock_timed_out;
  const char* idle_too_long;
};

const LastWords kLastWordsOfPostgres = {
    "08S01: server closed the connection unexpectedly\n{"
    "\tThis probably means the server terminated abnormally\n"
    "\tbefore or while processing the request.\n;\n"
    "The connection has been lost}",
    "08S01: server closed the connection unexpectedly\n{"
    "\tThis probably means the server terminated abnormally\n"
    "\tbefore or while processing the request.\n;\n"
    "The connection has been lost}",
    "HY000: server closed the connection unexpectedly\n{"
    "\tThis probably means the server terminated abnormally\n"
    "\tbefore or while processing the request.\n;\n"
    "Error while preparing parameters}",
    "08S01: {SQLExecDirect unable due to the connection lost}",
    "08001: {connection to server on socket \"PATH\" failed: }Connection "
    "refused{\n"
    "\tIs the server running locally and accepting connections on that socket?"
    "\n}",
    "08001: {connection to server on socket \"PATH\" failed: }timeout "
    "expired{\n}",
    "57P01: FATAL: terminating connection due to administrator command;\n"
    "{The connection has been lost}",
    "57014: ERROR: canceling statement due to user request;\n"
    "{Error while executing the query}",
    "57014: ERROR: canceling statement due to statement timeout;\n"
    "{Error while executing the query}",
    "55P03: ERROR: canceling statement due to lock timeout;\n"
    "{Error while executing the query}",
    "25P03: FATAL: terminating connection due to idle-in-transaction timeout;\n"
    "{The connection has been lost}",
};

// "Unable to allocate ODBC statement" is the layer's own: the driver gives no
// statement and no reason.
const LastWords kLastWordsOfMariadb = {
    "08S01: {Lost connection to server during query}",
    "HY000: {Write error: Broken pipe (32)}",
    "08S01: {Server has gone away}",
    "Unable to allocate ODBC statement",
    "HY000: {Can't connect to local server through socket 'PATH' (111)}",
    "08S01: {Lost connection to server at 'handshake: reading initial"
    " communication packet', system error: 110}",
    "08S01: {Lost connection to server during query}",
    "HY018: Query execution was interrupted",
    "HY018: Query execution was interrupted (max_statement_time exceeded)",
    "HY000: Lock wait timeout exceeded; try restarting transaction",
    "08S01: {Server has gone away}",
};

/// What one server calls the same things.
struct ServerSql {
  const char* row_by_row;  ///< options of the connection string
  const char* sleep;       ///< for a minute
  const char* asleep;      ///< how many sleep, followed by the id
  const char* fetching;    ///< how many fetch row by row, followed by the id
  const char* many_rows;   ///< two megabytes
  const char* slow_rows;   ///< ten take some hundredths of a second
  const char* own_id;
  const char* cancel;  ///< followed by the id
  const char* end;     ///< followed by the id
  const char* after;   ///< follows the id
  const char* limit_statements;
  const char* limit_statements_no_more;
  const char* limit_locks;
  const char* limit_idleness;
};

const ServerSql kPostgresSql = {
    ";UseDeclareFetch=1;Fetch=10",
    "SELECT pg_sleep(60)",
    "SELECT COUNT(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'"
    " AND pid = ",
    "SELECT COUNT(*) FROM pg_stat_activity WHERE query LIKE 'fetch 10 %'"
    " AND pid = ",
    "SELECT g, repeat('x', 100) FROM generate_series(1, 20000) g",
    "SELECT g, pg_sleep(0.01) FROM generate_series(1, 100000) g",
    "SELECT pg_backend_pid()",
    "SELECT pg_cancel_backend(",
    "SELECT pg_terminate_backend(",
    ")",
    "SET statement_timeout = '100ms'",
    "RESET statement_timeout",
    "SET lock_timeout = '100ms'",
    "SET idle_in_transaction_session_timeout = '1s'",
};
const ServerSql kMariadbSql = {
    ";FORWARDONLY=1;NO_CACHE=1",
    "SELECT SLEEP(60) FROM seq_1_to_2",
    "SELECT COUNT(*) FROM information_schema.processlist"
    " WHERE state = 'User sleep' AND id = ",
    "",
    "SELECT seq, repeat('x', 100) FROM seq_1_to_20000",
    "SELECT seq, repeat('x', 10000), SLEEP(0.01) FROM seq_1_to_100000",
    "SELECT CONNECTION_ID()",
    "KILL QUERY ",
    "KILL CONNECTION ",
    "",
    "SET max_statement_time = 0.1",
    "SET max_statement_time = 0",
    "SET innodb_lock_wait_timeout = 1",
    "SET idle_transaction_timeout = 1",
};

class DyingServer : public testing::TestWithParam<const Driver*> {
 protected:
  void SetUp() override {
    const std::string reason = PrivateDatabase::unavailable(driver());
    if (!reason.empty()) GTEST_SKIP() << reason;
    auto& server = servers_[&driver()];
    if (server == nullptr) server = std::make_unique<PrivateServer>(driver());
  }

  static const Driver& driver() { return *GetParam(); }
  static bool is_postgres() { return &driver() == &kPostgres; }
  static PrivateServer& server() { return *servers_.at(&driver()); }
  static const LastWords& says() {
    return is_postgres() ? kLastWordsOfPostgres : kLastWordsOfMariadb;
  }
  static const ServerSql& sql() {
    return is_postgres() ? kPostgresSql : kMariadbSql;
  }

  static Object opened(const std::string& options = "") {
    Object connection = new_connection();
    connection.call("Open", server().connection_string() + options);
    return connection;
  }

  /// The error of a statement that another thread runs, which owns the
  /// connection meanwhile.
  static std::future<Error> failing(const Object& connection,
                                    const std::string& text) {
    return std::async(std::launch::async, [&connection, text] {
      return error_of([&] { connection(text); });
    });
  }
  static void wait_until(const Object& watcher, const std::string& question,
                         const char* answer = "I8 1") {
    for (int i = 0; i < 1000; ++i) {
      if (only_value(watcher(question)) == answer) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ADD_FAILURE() << "it takes too long: " << question;
  }
  // One of many: what another test has left asleep may still be there.
  static void wait_until_asleep(const Object& watcher, const std::string& id) {
    wait_until(watcher, sql().asleep + id);
  }
  static std::string id_of(const Object& connection) {
    return only_value(connection(sql().own_id)).substr(3);
  }

  /// A text without what differs between machines and versions.
  static std::string stable(const std::string& text) {
    static const std::regex versions(R"(\[[^\]]*\])");
    static const std::regex path(R"(/[^'"]*/[^'"]*)");
    return std::regex_replace(std::regex_replace(text, versions, ""), path,
                              "PATH");
  }
  /// What is in braces may be anything, unless the driver tells that it is the
  /// version whose words they are: MariaDB's does.
  static void expect_text(const std::string& text,
                          const std::string& expected) {
    const bool exact = text.find("[ma-3.1.15]") != std::string::npos;
    std::string pattern;
    bool own = false;
    for (const char each : expected) {
      if (each == '{' || each == '}') {
        own = each == '{';
        if (own && !exact) pattern += "[\\s\\S]+";
      } else if (!own || exact) {
        if (std::string("\\^$.|?*+()[]").find(each) != std::string::npos) {
          pattern += '\\';
        }
        pattern += each;
      }
    }
    EXPECT_TRUE(std::regex_match(stable(text), std::regex(pattern)))
        << text << "\ninstead of\n"
        << expected;
  }
  static void expect_failed(const Error& error, const char* text) {
    EXPECT_EQ(error.code(), component::kExecuteFailedCode) << error.what();
    EXPECT_EQ(error.source(), "ZIRDB.Connection");
    expect_text(error.text(), text);
  }
  static void expect_not_opened(const Object& connection,
                                const std::string& string, const char* text) {
    const Error error = error_of([&] { connection.call("Open", string); });
    EXPECT_EQ(error.code(), component::kOpenFailedCode) << error.what();
    EXPECT_EQ(error.source(), "ZIRDB.Connection");
    expect_text(error.text(), text);
    EXPECT_EQ(shown(connection.get("State")), "I4 0");
  }
  /// Whatever it is asked, until it is closed.
  static void expect_all_lost(const Object& connection) {
    expect_failed(error_of([&] { connection("SELECT 1"); }), says().afterwards);
    EXPECT_EQ(shown(connection.get("State")), "I4 1");
    connection.call("Close");
    EXPECT_EQ(shown(connection.get("State")), "I4 0");
  }
  static void expect_opens_again(const Object& connection) {
    connection.call("Open");
    EXPECT_EQ(only_value(connection("SELECT 1")), "I8 1");
  }

 private:
  // Of the program, whose tests kill them and run them again.
  static inline std::map<const Driver*, std::unique_ptr<PrivateServer>>
      servers_;
};

/// A connection through a relay.
class CutOff : public DyingServer {
 protected:
  void SetUp() override {
    DyingServer::SetUp();
    if (IsSkipped()) return;
    string_ = server().connection_string();
    const std::string key = is_postgres() ? "Servername=" : "SOCKET=";
    const std::size_t from = string_.find(key) + key.size();
    const std::string path =
        string_.substr(from, string_.find(';', from) - from);
    const std::string file = "/.s.PGSQL.5432";
    relay_ = std::make_unique<Relay>(folder_.path() + file,
                                     is_postgres() ? path + file : path);
    string_.replace(from, path.size(),
                    folder_.path() + (is_postgres() ? "" : file));
  }
  void TearDown() override {
    relay_.reset();
    DyingServer::TearDown();
  }

  Relay& relay() { return *relay_; }
  const std::string& connection_string() const { return string_; }
  Object relayed(const std::string& options = "") const {
    Object connection = new_connection();
    connection.call("Open", string_ + options);
    return connection;
  }

 private:
  TemporaryFolder folder_;
  std::string string_;
  std::unique_ptr<Relay> relay_;
};

// ---------------------------------------------------------------------------
// Killed
// ---------------------------------------------------------------------------

TEST_P(DyingServer, KilledWhileAStatementRuns) {
  const Object connection = opened();
  const Object watcher = opened();
  const std::string id = id_of(connection);
  std::future<Error> error = failing(connection, sql().sleep);
  wait_until_asleep(watcher, id);

  server().kill();

  expect_failed(error.get(), says().lost_in_statement);
  expect_all_lost(connection);
  server().resume();
  expect_opens_again(connection);
}

TEST_P(CutOff, KilledInTheMiddleOfAnAnswer) {
  const Object connection = relayed();
  relay().be_silent_after(100'000);
  std::future<Error> error = failing(connection, sql().many_rows);
  ASSERT_TRUE(relay().is_silent_soon());

  server().kill();
  relay().cut();

  expect_failed(error.get(), says().lost_in_statement);
  expect_all_lost(connection);
  server().resume();
  expect_opens_again(connection);
}

// PostgreSQL's driver asks for ten rows at a time and is waiting for the next
// ones. (A break within their answer it does not survive.)
TEST_P(CutOff, KilledWhileRowsAreFetchedOneByOne) {
  const Object connection = relayed(sql().row_by_row);
  const Object watcher = opened();
  const std::string id = id_of(connection);
  if (!is_postgres()) relay().be_silent_after(100'000);
  std::future<Error> error = failing(connection, sql().slow_rows);
  if (is_postgres()) {
    wait_until(watcher, sql().fetching + id);
  } else {
    ASSERT_TRUE(relay().is_silent_soon());
  }

  server().kill();
  relay().cut();

  expect_failed(error.get(), says().lost_in_statement);
  expect_all_lost(connection);
  server().resume();
  expect_opens_again(connection);
}

TEST_P(DyingServer, KilledBetweenStatements) {
  const Object connection = opened();
  const Object with_values = opened();
  const Object counting = command_on(connection, "SELECT 1");
  const Object rows = connection("SELECT 1");
  Object unused = opened();

  server().kill();

  expect_failed(error_of([&] { connection("SELECT 1"); }), says().lost_between);
  expect_failed(error_of([&] { with_values("SELECT ?", 1); }),
                says().lost_between_with_values);
  expect_failed(error_of([&] { counting.call("Execute"); }), says().afterwards);
  EXPECT_EQ(only_value(rows), "I8 1");
  expect_not_opened(new_connection(), server().connection_string(),
                    says().refused);
  expect_all_lost(connection);
  unused.release();
  server().resume();
  expect_failed(error_of([&] { with_values("SELECT 1"); }), says().afterwards);
  expect_opens_again(connection);
  EXPECT_EQ(only_value(counting.call("Execute")), "I8 1");
}

// ---------------------------------------------------------------------------
// Cut off
// ---------------------------------------------------------------------------

TEST_P(CutOff, WhileAStatementRuns) {
  const Object connection = relayed();
  const std::string id = id_of(connection);
  std::future<Error> error = failing(connection, sql().sleep);
  wait_until_asleep(opened(), id);

  relay().cut();

  expect_failed(error.get(), says().lost_in_statement);
  expect_all_lost(connection);
  expect_opens_again(connection);
}

TEST_P(CutOff, BetweenStatements) {
  const Object connection = relayed();
  const Object with_values = relayed();

  relay().cut();

  expect_failed(error_of([&] { connection("SELECT 1"); }), says().lost_between);
  expect_failed(error_of([&] { with_values("SELECT ?", 1); }),
                says().lost_between_with_values);
  expect_all_lost(connection);
  expect_opens_again(connection);
}

// Drivers wait for ever unless they are told otherwise.
TEST_P(CutOff, ASilentServerIsWaitedForUntilTheConnectionBreaks) {
  const Object connection = relayed();
  relay().be_silent_after(0);
  std::future<Error> error = failing(connection, "SELECT 1");
  EXPECT_EQ(error.wait_for(std::chrono::milliseconds(300)),
            std::future_status::timeout);

  relay().cut();

  expect_failed(error.get(), says().lost_in_statement);
  connection.call("Close");
  expect_opens_again(connection);
}

TEST_P(CutOff, OpeningBreaksOffWhenItsTimeIsOver) {
  relay().be_silent_after(0);
  const Object connection = new_connection();
  const auto before = std::chrono::steady_clock::now();

  expect_not_opened(
      connection,
      connection_string() +
          (is_postgres() ? ";pqopt={connect_timeout=2}" : ";CONN_TIMEOUT=1"),
      says().too_long_to_open);

  EXPECT_LT(std::chrono::steady_clock::now() - before,
            std::chrono::seconds(10));
  relay().cut();
  connection.call("Open", connection_string());
  EXPECT_EQ(only_value(connection("SELECT 1")), "I8 1");
}

// ---------------------------------------------------------------------------
// Ended by the server
// ---------------------------------------------------------------------------

TEST_P(DyingServer, EndsAConnectionWhileItsStatementRuns) {
  const Object connection = opened();
  const Object other = opened();
  const std::string id = id_of(connection);
  std::future<Error> error = failing(connection, sql().sleep);
  wait_until_asleep(other, id);

  other(sql().end + id + sql().after);

  expect_failed(error.get(), says().ended_in_statement);
  expect_all_lost(connection);
  expect_opens_again(connection);
}

TEST_P(DyingServer, EndsAStatementAlone) {
  const Object connection = opened();
  const Object other = opened();
  const std::string id = id_of(connection);
  std::future<Error> error = failing(connection, sql().sleep);
  wait_until_asleep(other, id);

  other(sql().cancel + id + sql().after);

  expect_failed(error.get(), says().cancelled);
  EXPECT_EQ(only_value(connection("SELECT 1")), "I8 1");
}

TEST_P(DyingServer, EndsAStatementWhoseTimeIsOver) {
  for (const char* options : {"", sql().row_by_row}) {
    SCOPED_TRACE(options);
    const Object connection = opened(options);
    connection(sql().limit_statements);
    for (int i = 0; i < 2; ++i) {
      expect_failed(error_of([&] { connection(sql().sleep); }),
                    says().timed_out);
    }
    connection(sql().limit_statements_no_more);
    EXPECT_EQ(only_value(connection("SELECT 1")), "I8 1");
  }
}

TEST_P(DyingServer, EndsAStatementThatWaitsForALock) {
  const Object holder = opened();
  holder("DROP TABLE IF EXISTS s");
  holder("CREATE TABLE s (n INTEGER)");
  holder("INSERT INTO s VALUES (1)");
  holder("BEGIN");
  holder("UPDATE s SET n = 2");
  const Object waiter = opened();
  waiter(sql().limit_locks);

  expect_failed(error_of([&] { waiter("UPDATE s SET n = 3"); }),
                says().lock_timed_out);

  holder("ROLLBACK");
  EXPECT_EQ(only_value(waiter("SELECT n FROM s")), "I8 1");
}

TEST_P(DyingServer, EndsAConnectionWithATransactionLeftIdle) {
  const Object connection = opened();
  const Object other = opened();
  const std::string id = id_of(connection);
  connection("BEGIN");
  connection("SELECT 1");
  connection(sql().limit_idleness);
  const std::string there =
      (is_postgres() ? "SELECT COUNT(*) FROM pg_stat_activity WHERE pid = "
                     : "SELECT COUNT(*) FROM information_schema.processlist"
                       " WHERE id = ") +
      id;
  wait_until(other, there, "I8 0");

  expect_failed(error_of([&] { connection("COMMIT"); }), says().idle_too_long);

  expect_all_lost(connection);
  expect_opens_again(connection);
}

INSTANTIATE_TEST_SUITE_P(, DyingServer, testing::Values(&kPostgres, &kMariadb),
                         driver_name);
INSTANTIATE_TEST_SUITE_P(, CutOff, testing::Values(&kPostgres, &kMariadb),
                         driver_name);

}  // namespace
}  // namespace zirdb_test
