// SPDX-License-Identifier: MIT
//
// Connections of scripts to real databases: opening with users and passwords,
// refusals, closing and opening again, transactions in the databases' words,
// deadlocks, and a server that ends a connection.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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
using scripting::rows_of;
using scripting::shown;

void expect_not_opened(const Error& error, const std::string& state) {
  EXPECT_EQ(error.code(), component::kOpenFailedCode) << error.what();
  EXPECT_EQ(error.source(), "ZIRDB.Connection");
  EXPECT_EQ(error.text().substr(0, 7), state + ": ") << error.text();
  EXPECT_GT(error.text().size(), 7U);
}

std::string state_of(const Object& object) {
  return shown(object.get("State"));
}

std::string without(std::string connection_string, const std::string& key) {
  const std::size_t from = connection_string.find(key + "=");
  if (from == std::string::npos) return connection_string;
  const std::size_t end = connection_string.find(';', from);
  return connection_string.erase(
      from, end == std::string::npos ? end : end + 1 - from);
}

// ---------------------------------------------------------------------------
// Opening and closing
// ---------------------------------------------------------------------------

class ScriptConnections : public ScriptJourney {};

TEST_P(ScriptConnections, TellTheStringTheyWereOpenedWith) {
  EXPECT_EQ(shown(connection().get("ConnectionString")),
            "BSTR " + database().connection_string());
  EXPECT_EQ(state_of(connection()), "I4 1");
}

TEST_P(ScriptConnections, OpenWithTheStringSetBefore) {
  const Object closed = new_connection();
  closed.put("ConnectionString", database().connection_string());
  EXPECT_EQ(state_of(closed), "I4 0");

  closed.call("Open");

  EXPECT_EQ(state_of(closed), "I4 1");
  EXPECT_EQ(only_value(closed("SELECT 1")), "I8 1");
}

TEST_P(ScriptConnections, DoNotOpenTwice) {
  for (const auto& act :
       {+[](const Object& open) { open.call("Open", "x"); },
        +[](const Object& open) { open.put("ConnectionString", "x"); }}) {
    expect_error(error_of([&] { act(connection()); }),
                 component::kAlreadyOpenCode, "ZIRDB.Connection",
                 component::kAlreadyOpenText);
  }
  EXPECT_EQ(value("SELECT 1"), "I8 1");
}

TEST_P(ScriptConnections, CloseOpenAgainAndGoOn) {
  run("CREATE TABLE kept (n INTEGER)");
  run("INSERT INTO kept VALUES (7)");
  const Object counting = command("SELECT COUNT(*) FROM kept");
  for (int i = 0; i < 5; ++i) {
    connection().call("Close");
    EXPECT_EQ(state_of(connection()), "I4 0");
    expect_error(error_of([&] { run("SELECT 1"); }), component::kClosedCode,
                 "ZIRDB.Connection", component::kClosedText);
    expect_error(error_of([&] { counting.call("Execute"); }),
                 component::kNoConnectionCode, "ZIRDB.Command",
                 component::kNoConnectionText);
    connection().call("Close");

    open_again(connection());

    EXPECT_EQ(value("SELECT n FROM kept"), "I8 7");
    EXPECT_EQ(only_value(counting.call("Execute")), "I8 1");
  }
}

TEST_P(ScriptConnections, OpenAgainWithTheStringTheyKept) {
  connection().call("Close");
  connection().call("Open");
  EXPECT_EQ(shown(connection().get("ConnectionString")),
            "BSTR " + database().connection_string());
  EXPECT_EQ(value("SELECT 1"), "I8 1");
}

TEST_P(ScriptConnections, ThatCannotOpenStayClosedAndCanBeOpenedAfterwards) {
  const Object closed = new_connection();
  closed.put("ConnectionString", "kept");

  expect_not_opened(
      error_of([&] { closed.call("Open", driver().unreachable); }),
      driver().unreachable_state);

  EXPECT_EQ(state_of(closed), "I4 0");
  EXPECT_EQ(shown(closed.get("ConnectionString")), "BSTR kept");
  open_again(closed);
  EXPECT_EQ(only_value(closed("SELECT 1")), "I8 1");
}

TEST_P(ScriptConnections, MoveToAnotherDatabase) {
  const std::string reason = PrivateDatabase::unavailable(kSqlite);
  if (!reason.empty()) GTEST_SKIP() << reason;
  const TemporaryFolder folder;
  const std::string elsewhere =
      "Driver={SQLite3};Database=" + folder.path() + "/other.db";
  connection().call("Close");

  connection().call("Open", elsewhere);

  run("CREATE TABLE only_here (n INTEGER)");
  EXPECT_EQ(value("SELECT COUNT(*) FROM only_here"), "I8 0");
  EXPECT_EQ(shown(connection().get("ConnectionString")), "BSTR " + elsewhere);
}

TEST_P(ScriptConnections, ShareNothingButTheDatabase) {
  const Object other = open();
  run("CREATE TABLE shared (n INTEGER)");
  other("INSERT INTO shared VALUES (1)");
  EXPECT_EQ(value("SELECT COUNT(*) FROM shared"), "I8 1");

  connection().call("Close");

  EXPECT_EQ(only_value(other("SELECT COUNT(*) FROM shared")), "I8 1");
}

ZIRDB_FOR_EVERY_DRIVER(ScriptConnections);

// ---------------------------------------------------------------------------
// Users and passwords
// ---------------------------------------------------------------------------

class ScriptSqliteUsers : public ScriptJourney {};

// The driver knows neither; they stay readable.
TEST_P(ScriptSqliteUsers, UserAndPasswordAreAppendedAndPassedOver) {
  const Object other = new_connection();

  other.call("Open", database().connection_string(), "user", "secret", 0);

  EXPECT_EQ(shown(other.get("ConnectionString")),
            "BSTR " + database().connection_string() + ";UID=user;PWD=secret;");
  EXPECT_EQ(only_value(other("SELECT 1")), "I8 1");
}

TEST_P(ScriptSqliteUsers, OpeningAgainAppendsThemAgain) {
  const Object other = new_connection();
  other.call("Open", database().connection_string(), "user");
  other.call("Close");

  other.call("Open", "", "user");

  EXPECT_EQ(shown(other.get("ConnectionString")),
            "BSTR " + database().connection_string() + ";UID=user;UID=user;");
}

INSTANTIATE_TEST_SUITE_P(, ScriptSqliteUsers, testing::Values(&kSqlite),
                         driver_name);

// A user of the server with the password "secret".
class ScriptUsers : public ScriptJourney {
 protected:
  void SetUp() override {
    ScriptJourney::SetUp();
    if (IsSkipped()) return;
    user_ = "zirdb_user" + std::to_string(getpid());
    if (on(kPostgres)) {
      // Members of this role need a password (servers.sh).
      run("DO $$ BEGIN CREATE ROLE zirdb_passworded; EXCEPTION"
          " WHEN duplicate_object OR unique_violation THEN NULL; END $$");
      run("CREATE ROLE " + user_ +
          " LOGIN PASSWORD 'secret' IN ROLE zirdb_passworded");
    } else {
      run("CREATE USER " + user_ + "@localhost IDENTIFIED BY 'secret'");
    }
  }
  void TearDown() override {
    if (!user_.empty()) {
      run(on(kPostgres) ? "DROP ROLE " + user_
                        : "DROP USER " + user_ + "@localhost");
    }
    ScriptJourney::TearDown();
  }

  const std::string& user() const { return user_; }
  // Names neither a user nor a database that the user may not see.
  std::string nobody() const {
    const std::string string = without(database().connection_string(), "UID");
    return on(kMariadb) ? without(string, "DATABASE") : string;
  }
  const char* refused_state() const {
    return on(kPostgres) ? "08001" : "28000";
  }

 private:
  std::string user_;
};

TEST_P(ScriptUsers, UserAndPasswordArguments) {
  const Object other = new_connection();

  other.call("Open", nobody(), user(), "secret");

  const std::string string = nobody();
  EXPECT_EQ(shown(other.get("ConnectionString")),
            "BSTR " + string + (string.back() == ';' ? "" : ";") +
                "UID=" + user() + ";PWD=secret;");
  const std::string me = only_value(other(
      on(kPostgres) ? "SELECT current_user::text" : "SELECT CURRENT_USER()"));
  EXPECT_EQ(me.substr(0, 5 + user().size()), "BSTR " + user());
}

TEST_P(ScriptUsers, ArgumentsOverrideTheUserInTheString) {
  const Object other = new_connection();
  other.call("Open", nobody() + ";UID=" + user() + "x;PWD=wrong", user(),
             "secret");
  EXPECT_EQ(only_value(other("SELECT 1")), "I8 1");
}

TEST_P(ScriptUsers, AWrongPasswordIsRefused) {
  const Object other = new_connection();
  for (const char* password : {"wrong", "Secret", "secre", ""}) {
    SCOPED_TRACE(password);
    expect_not_opened(
        error_of([&] { other.call("Open", nobody(), user(), password); }),
        refused_state());
    EXPECT_EQ(state_of(other), "I4 0");
    EXPECT_EQ(shown(other.get("ConnectionString")), "BSTR ");
  }
}

TEST_P(ScriptUsers, BlanksBehindAPasswordAreTheDriversAffair) {
  const Object other = new_connection();
  const auto act = [&] { other.call("Open", nobody(), user(), "secret  "); };
  if (on(kPostgres)) {
    expect_not_opened(error_of(act), refused_state());
  } else {
    // The driver takes them for the end of the key.
    act();
    EXPECT_EQ(only_value(other("SELECT 1")), "I8 1");
  }
}

TEST_P(ScriptUsers, AnUnknownUserIsRefused) {
  const Object other = new_connection();
  expect_not_opened(
      error_of([&] { other.call("Open", nobody(), user() + "x", "secret"); }),
      refused_state());
}

// Deliberate: nothing is quoted, so what follows the ";" is a key of its own.
TEST_P(ScriptUsers, APasswordEndsAtItsSemicolon) {
  const Object other = new_connection();
  other.call("Open", nobody(), user(), "secret;Unknown=wrong");
  EXPECT_EQ(only_value(other("SELECT 1")), "I8 1");
}

// A port of this machine that nobody listens on and nobody can take meanwhile.
class ClosedPort {
 public:
  ClosedPort() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_, any, length) == 0 &&
        getsockname(socket_, any, &length) == 0) {
      number_ = ntohs(address.sin_port);
    }
  }
  ClosedPort(const ClosedPort&) = delete;
  ClosedPort& operator=(const ClosedPort&) = delete;
  ~ClosedPort() { close(socket_); }

  int number() const { return number_; }

 private:
  int socket_;
  int number_ = 0;
};

TEST_P(ScriptUsers, AClosedPortIsRefused) {
  const ClosedPort port;
  ASSERT_NE(port.number(), 0);
  const std::string server =
      on(kPostgres) ? "Driver={PostgreSQL Unicode};Database=postgres;"
                      "Servername=127.0.0.1;Port="
                    : "Driver={MariaDB Unicode};SERVER=127.0.0.1;PORT=";
  const Object other = new_connection();

  expect_not_opened(error_of([&] {
                      other.call("Open", server + std::to_string(port.number()),
                                 user(), "secret");
                    }),
                    on(kPostgres) ? "08001" : "HY000");
}

INSTANTIATE_TEST_SUITE_P(, ScriptUsers, testing::Values(&kPostgres, &kMariadb),
                         driver_name);

// ---------------------------------------------------------------------------
// Transactions
// ---------------------------------------------------------------------------

class ScriptTransactions : public ScriptJourney {
 protected:
  void SetUp() override {
    ScriptJourney::SetUp();
    if (IsSkipped()) return;
    run("CREATE TABLE s (id INTEGER PRIMARY KEY, n INTEGER)");
    observer_ = open();
    // Waits for others, but not for long.
    observer_(on(kSqlite)     ? "PRAGMA busy_timeout = 10000"
              : on(kPostgres) ? "SET lock_timeout = '10s'"
                              : "SET innodb_lock_wait_timeout = 10");
  }
  void TearDown() override {
    observer_.release();
    ScriptJourney::TearDown();
  }
  const Object& observer() const { return observer_; }
  // The number of rows that somebody else sees.
  std::string seen() const {
    return only_value(observer_("SELECT COUNT(*) FROM s"));
  }

 private:
  Object observer_;
};

TEST_P(ScriptTransactions, AreSeenWhenCommitted) {
  run("BEGIN");
  run("INSERT INTO s VALUES (1, 0)");
  run("INSERT INTO s VALUES (?, ?)", 2, 0);
  EXPECT_EQ(seen(), "I8 0");

  run("COMMIT");

  EXPECT_EQ(seen(), "I8 2");
}

TEST_P(ScriptTransactions, LeaveNothingWhenRolledBack) {
  run("INSERT INTO s VALUES (1, 0)");
  run("BEGIN");
  command("DELETE FROM s WHERE id = ?", {input_of(ZIRDB_AD_INTEGER, 1)})
      .call("Execute");
  EXPECT_EQ(value("SELECT COUNT(*) FROM s"), "I8 0");
  EXPECT_EQ(seen(), "I8 1");

  run("ROLLBACK");

  EXPECT_EQ(value("SELECT COUNT(*) FROM s"), "I8 1");
}

TEST_P(ScriptTransactions, AreRolledBackWhenTheConnectionCloses) {
  run("BEGIN");
  run("INSERT INTO s VALUES (1, 0)");
  connection().call("Close");
  EXPECT_EQ(seen(), "I8 0");
  // Nor does it lock the row any more.
  observer()("INSERT INTO s VALUES (1, 0)");
}

TEST_P(ScriptTransactions, AreRolledBackWhenTheConnectionIsLetGo) {
  Object other = open();
  other("BEGIN");
  other("INSERT INTO s VALUES (1, 0)");
  other.release();
  EXPECT_EQ(seen(), "I8 0");
  observer()("INSERT INTO s VALUES (1, 0)");
}

// PostgreSQL's driver sets a savepoint before each statement of a transaction.
TEST_P(ScriptTransactions, OutliveAStatementThatFails) {
  run("BEGIN");
  run("INSERT INTO s VALUES (1, 0)");
  expect_failed_with_state(
      error_of([&] { run("INSERT INTO s VALUES (1, 9)"); }),
      driver().duplicate_key_state);
  run("INSERT INTO s VALUES (2, 0)");
  EXPECT_EQ(seen(), "I8 0");

  run("COMMIT");

  EXPECT_EQ(seen(), "I8 2");
}

ZIRDB_FOR_EVERY_DRIVER(ScriptTransactions);

class ScriptSqliteTransactions : public ScriptTransactions {};

TEST_P(ScriptSqliteTransactions, KeepASecondWriterOut) {
  const Object other = open(";Timeout=50");
  run("BEGIN");
  run("INSERT INTO s VALUES (1, 0)");

  const Error error = error_of([&] { other("INSERT INTO s VALUES (2, 0)"); });
  run("COMMIT");
  other("INSERT INTO s VALUES (2, 0)");

  expect_failed_with_state(error, "HY000");
  EXPECT_NE(error.text().find("locked"), std::string::npos) << error.text();
  EXPECT_EQ(seen(), "I8 2");
}

INSTANTIATE_TEST_SUITE_P(, ScriptSqliteTransactions, testing::Values(&kSqlite),
                         driver_name);

// ---------------------------------------------------------------------------
// Servers
// ---------------------------------------------------------------------------

// What the two servers call the same things.
struct ServerSql {
  const char* deadlock_state;
  std::vector<const char*> impatience;  ///< nothing waits for long
  const char* own_id;
  const char* end;    ///< followed by the id
  const char* after;  ///< follows the id
  const char* count;  ///< followed by the id
  const char* state_when_ended;
  const char* text_when_gone;
};

const ServerSql& postgres_server() {
  static const ServerSql sql = {
      "40P01",
      {"SET deadlock_timeout = '100ms'", "SET lock_timeout = '30s'"},
      "SELECT pg_backend_pid()",
      "SELECT pg_terminate_backend(",
      ")",
      "SELECT COUNT(*) FROM pg_stat_activity WHERE pid = ",
      "57P01",
      "08S01: SQLExecDirect unable due to the connection lost",
  };
  return sql;
}
const ServerSql& mariadb_server() {
  static const ServerSql sql = {
      "40001",
      {"SET innodb_lock_wait_timeout = 30"},
      "SELECT CONNECTION_ID()",
      "KILL CONNECTION ",
      "",
      "SELECT COUNT(*) FROM information_schema.processlist WHERE id = ",
      "HY000",
      "Unable to allocate ODBC statement",
  };
  return sql;
}

class ScriptServers : public ScriptTransactions {
 protected:
  const ServerSql& server() const {
    return on(kPostgres) ? postgres_server() : mariadb_server();
  }
  Object impatient() const {
    Object other = open();
    for (const char* sql : server().impatience) other(sql);
    return other;
  }

  // Ends a connection on the server's side, and waits until it has ended.
  void end(const Object& other) const {
    const std::string id =
        only_value(other(server().own_id)).substr(std::string("I8 ").size());
    run(server().end + id + server().after);
    for (int i = 0; i < 500; ++i) {
      if (value(server().count + id) == "I8 0") return;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw std::runtime_error("the connection does not end");
  }
};

TEST_P(ScriptServers, ADeadlockFailsOneTransactionAndTheOtherGoesOn) {
  run("INSERT INTO s VALUES (1, 0), (2, 0)");
  const Object first = impatient();
  const Object second = impatient();
  const auto add = [](const Object& to, int id, int amount) {
    to("UPDATE s SET n = n + ? WHERE id = ?", amount, id);
  };
  const auto attempt = [&](const Object& to, int id,
                           int amount) -> std::optional<Error> {
    try {
      add(to, id, amount);
    } catch (const Error& error) {
      // The other one waits until this is over.
      to("ROLLBACK");
      return error;
    }
    to("COMMIT");
    return std::nullopt;
  };
  first("BEGIN");
  second("BEGIN");
  add(first, 1, 10);
  add(second, 2, 1);

  std::future<std::optional<Error>> waiting =
      std::async(std::launch::async, attempt, std::cref(second), 1, 1);
  const std::optional<Error> of_first = attempt(first, 2, 10);
  const std::optional<Error> of_second = waiting.get();

  ASSERT_NE(of_first.has_value(), of_second.has_value());
  expect_failed_with_state(of_first ? *of_first : *of_second,
                           server().deadlock_state);
  const std::string n = of_first ? "I8 1" : "I8 10";
  const std::vector<std::vector<std::string>> expected = {{"I8 1", n},
                                                          {"I8 2", n}};
  EXPECT_EQ(rows_of(run("SELECT id, n FROM s ORDER BY id")), expected);
  // Both go on.
  EXPECT_EQ(only_value(first("SELECT 1")), "I8 1");
  EXPECT_EQ(only_value(second("SELECT 1")), "I8 1");
}

TEST_P(ScriptServers, AnEndedConnectionFailsAndIsOpenUntilItIsClosed) {
  const Object other = open();
  end(other);

  expect_failed_with_state(error_of([&] { other("SELECT 1"); }),
                           server().state_when_ended);
  expect_error(error_of([&] { other("SELECT 1"); }),
               component::kExecuteFailedCode, "ZIRDB.Connection",
               scripting::wide(server().text_when_gone).c_str());
  EXPECT_EQ(error_of([&] { other("SELECT ?", 1); }).code(),
            component::kExecuteFailedCode);
  EXPECT_EQ(
      error_of([&] { command_on(other, "SELECT 1").call("Execute"); }).code(),
      component::kExecuteFailedCode);
  EXPECT_EQ(state_of(other), "I4 1");

  other.call("Close");

  EXPECT_EQ(state_of(other), "I4 0");
  open_again(other);
  EXPECT_EQ(only_value(other("SELECT 1")), "I8 1");
}

TEST_P(ScriptServers, RowsOutliveTheEndOfTheirConnectionUntilItIsClosed) {
  run("INSERT INTO s VALUES (1, 10), (2, 20), (3, 30)");
  const Object other = open();
  const Object rows = other("SELECT n FROM s ORDER BY id");
  rows.call("MoveNext");
  end(other);
  error_of([&] { other("SELECT 1"); });

  EXPECT_EQ(scripting::value_of(rows, "n"), "I8 20");
  rows.call("MoveFirst");
  EXPECT_EQ(rows_of(rows).size(), 3U);
  rows.call("MoveFirst");

  other.call("Close");
  expect_error(error_of([&] { rows.call("MoveNext"); }), component::kClosedCode,
               "ZIRDB.Recordset", component::kClosedText);
}

TEST_P(ScriptServers, AnEndedConnectionCanBeLetGo) {
  Object unused = open();
  Object used = open();
  end(unused);
  end(used);
  error_of([&] { used("SELECT 1"); });

  unused.release();
  used.release();

  EXPECT_EQ(value("SELECT 1"), "I8 1");
}

INSTANTIATE_TEST_SUITE_P(, ScriptServers,
                         testing::Values(&kPostgres, &kMariadb), driver_name);

}  // namespace
}  // namespace zirdb_test
