// SPDX-License-Identifier: MIT
//
// A server stops in the middle of a script's work: the script gets a clear
// error, keeps what it has read, and goes on with the server run again or with
// another one.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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
using scripting::rows_of;
using scripting::shown;

// A server of its own, a table there with 1, 2, 3, and a connection.
class ScriptServerStops : public ScriptJourney {
 protected:
  void SetUp() override {
    ScriptJourney::SetUp();
    if (IsSkipped()) return;
    server_ = std::make_unique<PrivateServer>(driver());
    client_ = new_connection();
    client_.call("Open", server_->connection_string());
    client_("CREATE TABLE s (n INTEGER)");
    client_("INSERT INTO s VALUES (1), (2), (3)");
  }
  void TearDown() override {
    client_.release();
    server_.reset();
    ScriptJourney::TearDown();
  }

  PrivateServer& server() { return *server_; }
  const Object& client() const { return client_; }

  // A statement failed, with something to read.
  static void expect_failed(const Error& error) {
    EXPECT_EQ(error.code(), component::kExecuteFailedCode) << error.what();
    EXPECT_EQ(error.source(), "ZIRDB.Connection");
    EXPECT_NE(error.text(), "");
    EXPECT_NE(error.text(), "ODBC operation failed");
  }

 private:
  std::unique_ptr<PrivateServer> server_;
  Object client_;
};

TEST_P(ScriptServerStops, StatementsFailAndTheConnectionStaysOpen) {
  const Object counting = command_on(client(), "SELECT COUNT(*) FROM s");
  server().halt();

  const Error first = error_of([&] { client()("SELECT n FROM s"); });

  expect_failed_with_state(first, on(kPostgres) ? "57P01" : "HY000");
  expect_failed(error_of([&] { client()("SELECT n FROM s"); }));
  expect_failed(error_of([&] { client()("INSERT INTO s VALUES (?)", 4); }));
  expect_failed(error_of([&] { counting.call("Execute"); }));
  EXPECT_EQ(shown(client().get("State")), "I4 1");
  EXPECT_EQ(shown(client().get("ConnectionString")),
            "BSTR " + server().connection_string());

  client().call("Close");

  EXPECT_EQ(shown(client().get("State")), "I4 0");
  expect_error(error_of([&] { client()("SELECT 1"); }), component::kClosedCode,
               "ZIRDB.Connection", component::kClosedText);
}

TEST_P(ScriptServerStops, WhatWasReadStaysReadableUntilTheClosing) {
  const Object rows = client()("SELECT n FROM s ORDER BY n");
  const Object field = rows("n");
  rows.call("MoveNext");
  server().halt();
  expect_failed(error_of([&] { client()("SELECT 1"); }));

  EXPECT_EQ(shown(field.get("Value")), "I8 2");
  const std::vector<std::vector<std::string>> rest = {{"I8 2"}, {"I8 3"}};
  EXPECT_EQ(rows_of(rows), rest);
  rows.call("MoveFirst");
  EXPECT_EQ(shown(field.get("Value")), "I8 1");

  client().call("Close");

  EXPECT_EQ(shown(rows.get("State")), "I4 0");
  expect_error(error_of([&] { rows.call("MoveNext"); }), component::kClosedCode,
               "ZIRDB.Recordset", component::kClosedText);
}

TEST_P(ScriptServerStops, AStoppedServerRefusesConnections) {
  server().halt();
  const Object other = new_connection();

  const Error error =
      error_of([&] { other.call("Open", server().connection_string()); });

  EXPECT_EQ(error.code(), component::kOpenFailedCode);
  EXPECT_EQ(error.text().substr(0, 7), on(kPostgres) ? "08001: " : "HY000: ")
      << error.text();
  EXPECT_EQ(shown(other.get("State")), "I4 0");
}

TEST_P(ScriptServerStops, TheConnectionOpensAgainWhenTheServerRunsAgain) {
  const Object counting = command_on(client(), "SELECT COUNT(*) FROM s");
  server().halt();
  expect_failed(error_of([&] { counting.call("Execute"); }));
  client().call("Close");
  EXPECT_EQ(error_of([&] { client().call("Open"); }).code(),
            component::kOpenFailedCode);
  server().resume();

  client().call("Open");

  EXPECT_EQ(only_value(client()("SELECT COUNT(*) FROM s")), "I8 3");
  EXPECT_EQ(only_value(counting.call("Execute")), "I8 3");
}

// A connection is not mended: it has to be closed and opened.
TEST_P(ScriptServerStops, ALostConnectionIsLostThoughTheServerRunsAgain) {
  server().halt();
  expect_failed(error_of([&] { client()("SELECT 1"); }));
  server().resume();

  expect_failed(error_of([&] { client()("SELECT 1"); }));

  client().call("Close");
  client().call("Open");
  EXPECT_EQ(only_value(client()("SELECT 1")), "I8 1");
}

TEST_P(ScriptServerStops, AnOpenTransactionLeavesNothing) {
  client()("BEGIN");
  client()("INSERT INTO s VALUES (4)");
  server().halt();
  expect_failed(error_of([&] { client()("COMMIT"); }));
  server().resume();
  client().call("Close");

  client().call("Open");

  EXPECT_EQ(only_value(client()("SELECT COUNT(*) FROM s")), "I8 3");
}

TEST_P(ScriptServerStops, TheConnectionMovesToAnotherServer) {
  const Object counting = command_on(client(), "SELECT COUNT(*) FROM other");
  run("CREATE TABLE other (n INTEGER)");
  server().halt();
  expect_failed(error_of([&] { client()("SELECT 1"); }));
  client().call("Close");

  open_again(client());

  EXPECT_EQ(only_value(counting.call("Execute")), "I8 0");
}

TEST_P(ScriptServerStops, AStatementThatRunsMeanwhileFails) {
  std::promise<void> begun;
  std::future<Error> waiting = std::async(std::launch::async, [&] {
    const Object other = new_connection();
    other.call("Open", server().connection_string());
    begun.set_value();
    return error_of([&] {
      other(on(kPostgres) ? "SELECT pg_sleep(60)"
                          : "SELECT n, SLEEP(60) FROM s");
    });
  });
  begun.get_future().wait();
  // Until the server says that it is asleep.
  const std::string asleep =
      on(kPostgres)
          ? "SELECT COUNT(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'"
          : "SELECT COUNT(*) FROM information_schema.processlist"
            " WHERE state = 'User sleep'";
  for (int i = 0; i < 500; ++i) {
    if (only_value(client()(asleep)) == "I8 1") break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto before = std::chrono::steady_clock::now();

  server().halt();

  expect_failed(waiting.get());
  EXPECT_LT(std::chrono::steady_clock::now() - before,
            std::chrono::seconds(50));
}

TEST_P(ScriptServerStops, ALostConnectionCanBeLetGo) {
  Object unused = new_connection();
  unused.call("Open", server().connection_string());
  Object used = new_connection();
  used.call("Open", server().connection_string());
  Object rows = used("SELECT n FROM s");
  server().halt();
  expect_failed(error_of([&] { used("SELECT 1"); }));

  unused.release();
  used.release();

  EXPECT_EQ(shown(rows.get("State")), "I4 0");
}

INSTANTIATE_TEST_SUITE_P(, ScriptServerStops,
                         testing::Values(&kPostgres, &kMariadb), driver_name);

}  // namespace
}  // namespace zirdb_test
