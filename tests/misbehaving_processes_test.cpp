// SPDX-License-Identifier: MIT
//
// Processes that end with objects alive and connections open, in every way in
// which a process can end, with other threads inside of the library
// (misbehaving_host.cpp); and processes that fork.
//
// Sections: ends; forks.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/misbehaving_process.h"
#include "support/objects.h"
#include "support/script_journey.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace zirdb_test {
namespace {

using misbehaving::expect_ended;
using misbehaving::in_child;
using scripting::error_of;
using scripting::new_connection;
using scripting::only_value;
using scripting::shown;

// ---------------------------------------------------------------------------
// Ends
// ---------------------------------------------------------------------------

// The library's part.
constexpr const char* kScenarios[] = {
    "_exit_in_a_callback",
    "_exit_on_another_thread",
    "_exit_with_threads_in_statements",
    "atexit_alone",
    "atexit_before",
    "behind_the_library",
    "exit_in_a_callback",
    "exit_on_another_thread",
    "exit_on_another_thread_in_a_callback",
    "pthread_exit",
    "quick_exit",
    "return_with_a_thread_in_a_callback",
    "used_behind_main",
};
// Those in which drivers have a part.
constexpr const char* kScenariosOfDrivers[] = {
    "return",
    "exit",
    "_exit",
    "static_variable",
    "return_with_threads_in_statements",
};

class Process : public ScriptJourney {
 protected:
  void expect_end(const char* scenario) const {
    SCOPED_TRACE(scenario);
    expect_ended(misbehaving::run({MISBEHAVING_HOST, scenario,
                                   database().connection_string()}),
                 "exit 3");
  }
};

TEST_P(Process, EndsAsItWantsToWithEverythingAlive) {
  for (const char* scenario : kScenariosOfDrivers) expect_end(scenario);
  if (!on(kSqlite)) return;
  for (const char* scenario : kScenarios) expect_end(scenario);
}

ZIRDB_FOR_EVERY_DRIVER(Process);

// ---------------------------------------------------------------------------
// Forks
// ---------------------------------------------------------------------------

/// Throws, because a child has no use for assertions.
void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string("wrong: ") + what);
}

class Fork : public ScriptJourney {
 protected:
  void SetUp() override {
    ScriptJourney::SetUp();
    if (IsSkipped()) return;
    run("CREATE TABLE s (n INTEGER)");
    run("INSERT INTO s VALUES (1)");
  }
  void expect_parent_goes_on() const {
    EXPECT_EQ(value("SELECT COUNT(*) FROM s"), "I8 1");
    run("UPDATE s SET n = 1");
  }
};

// The parent's connection belongs to the parent; the child lets it be.
TEST_P(Fork, TheChildOpensAConnectionOfItsOwn) {
  const Object rows = run("SELECT n FROM s");
  expect_ended(in_child([&] {
                 {
                   const Object own = open();
                   require(only_value(own("SELECT n FROM s")) == "I8 1",
                           "its own connection");
                   error_of([&] { own("nonsense"); });
                   own("INSERT INTO s VALUES (2)");
                   own("DELETE FROM s WHERE n = 2");
                 }
                 require(only_value(rows) == "I8 1", "the parent's rows");
               }),
               "exit 0");
  expect_parent_goes_on();
}

TEST_P(Fork, TheChildEnds) {
  const Object rows = run("SELECT n FROM s");
  expect_ended(in_child([] { _exit(3); }), "exit 3");
  expect_ended(in_child([] { std::quick_exit(3); }), "exit 3");
  expect_parent_goes_on();
  EXPECT_EQ(only_value(rows), "I8 1");
}

TEST_P(Fork, TheChildBecomesAnotherProgram) {
  const Object rows = run("SELECT n FROM s");
  expect_ended(misbehaving::run(
                   {MISBEHAVING_HOST, "exit", database().connection_string()}),
               "exit 3");
  expect_parent_goes_on();
  EXPECT_EQ(only_value(rows), "I8 1");
}

TEST_P(Fork, TheChildGoesOnWhereTheParentEnds) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  // A grandchild, whose parent ends with the connection open.
  const std::string string = database().connection_string();
  expect_ended(in_child([&] {
                 const Object connection = open();
                 const Object rows = connection("SELECT n FROM s");
                 if (fork() != 0) _exit(3);
                 alarm(60);
                 const bool good =
                     only_value(rows) == "I8 1" &&
                     only_value(open()("SELECT n FROM s")) == "I8 1";
                 _exit(write(ready[1], good ? "y" : "n", 1) == 1 ? 0 : 1);
               }),
               "exit 3");
  close(ready[1]);
  char answer = 0;
  EXPECT_EQ(read(ready[0], &answer, 1), 1);
  EXPECT_EQ(answer, 'y');
  close(ready[0]);
  expect_parent_goes_on();
}

ZIRDB_FOR_EVERY_DRIVER(Fork);

/// Of the objects that have no connection to share: let go in the child, each
/// in its turn.
TEST(ForkOfObjects, TheChildLetsThemGo) {
  const Object command = scripting::new_command();
  const Object parameter = command.call("CreateParameter", "p", 3, 1, 0, 5);
  const Object list = command.get("Parameters");
  list.call("Append", parameter);
  error_of([&] { command.call("Execute"); });

  expect_ended(in_child([&] {
                 require(shown(parameter.get("Value")) == "I8 5", "the value");
                 for (const Object* each : {&command, &parameter, &list}) {
                   each->dispatch()->Release();
                 }
                 require(DllCanUnloadNow() == S_OK, "all are gone");
                 _exit(0);
               }),
               "exit 0");

  EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
  parameter.put("Value", 6);
  EXPECT_EQ(shown(Object(list("p")).get("Value")), "I8 6");
}

// A SQLite connection that the child closes is closed in the child.
TEST(ForkOfObjects, TheChildLetsAConnectionGo) {
  const std::string reason = PrivateDatabase::unavailable(kSqlite);
  if (!reason.empty()) GTEST_SKIP() << reason;
  const TemporaryFolder folder;
  const Object connection = new_connection();
  connection.call("Open",
                  "Driver={SQLite3};Database=" + folder.path() + "/file.db");
  connection("CREATE TABLE s (n INTEGER)");
  const Object rows = connection("SELECT 1 AS n");

  expect_ended(in_child([&] {
                 connection.call("Close");
                 require(shown(rows.get("State")) == "I4 0", "it is closed");
                 error_of([&] { rows.call("MoveNext"); });
               }),
               "exit 0");

  EXPECT_EQ(shown(rows.get("State")), "I4 1");
  connection("INSERT INTO s VALUES (1)");
  EXPECT_EQ(only_value(connection("SELECT n FROM s")), "I8 1");
}

// The error of the thread that forks goes with it; those of other threads are
// left behind.
TEST(ForkOfObjects, TheChildHasTheErrorsOfItsThread) {
  const Object connection = new_connection();
  error_of([&] { connection("SELECT 1"); });
  expect_ended(in_child([&] {
                 for (int i = 0; i < 3; ++i) {
                   require(error_of([&] { connection("SELECT 1"); }).text() ==
                               scripting::utf8(component::kClosedText),
                           "its text");
                   // A second generation.
                   if (i == 1) {
                     expect_ended(in_child([&] {
                                    require(error_of([&] {
                                              connection("SELECT 1");
                                            }).code() == component::kClosedCode,
                                            "its code");
                                  }),
                                  "exit 0");
                   }
                 }
               }),
               "exit 0");
}

// Whatever the other threads are doing in the library, it holds no lock that
// the child could wait for.
TEST(ForkOfObjects, ManyTimesWhileThreadsAreInTheLibrary) {
  std::atomic<bool> over{false};
  std::atomic<int> rounds{0};
  const auto work = [] {
    const Object connection = new_connection();
    const Object command = scripting::new_command();
    command.put("ActiveConnection", connection);
    const Object list = command.get("Parameters");
    for (int i = 0; i < 20; ++i) {
      list.call("Append", command.call("CreateParameter", "p", 3, 1, 0, i));
      error_of([&] { connection("SELECT 1"); });
      error_of([&] { list("q"); });
    }
    GUID guid{};
    CoCreateGuid(&guid);
    CoInitializeEx(nullptr, 0);
    CoUninitialize();
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      while (!over) {
        work();
        ++rounds;
      }
    });
  }
  while (rounds < 2) std::this_thread::yield();
  constexpr int kForks = 40;
  for (int i = 0; i < kForks; ++i) {
    expect_ended(in_child([&] {
                   work();
                   if (i % 2 == 0) std::quick_exit(0);
                 }),
                 "exit 0");
  }
  over = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace zirdb_test
