// SPDX-License-Identifier: MIT
//
// Hosts that misbehave with threads: that cancel one inside a call or a
// callback, that end one there, and that let go of objects on other threads
// than those that made them.
//
// Sections: cancelled threads; objects of other threads.

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/database.h"
#include "support/misbehaving_threads.h"
#include "support/objects.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using misbehaving::cancel_this_thread;
using misbehaving::Thread;
using scripting::error_of;
using scripting::new_command;
using scripting::new_connection;
using scripting::Object;
using scripting::only_value;
using scripting::shown;

/// With a database file; in memory nothing would be waited for.
class Threads : public testing::Test {
 protected:
  void SetUp() override {
    const std::string reason =
        zirdb_test::PrivateDatabase::unavailable(zirdb_test::kSqlite);
    if (!reason.empty()) GTEST_SKIP() << reason;
    opened()("CREATE TABLE s (n INTEGER)");
  }

  std::string connection_string() const {
    return "Driver={SQLite3};Timeout=100;Database=" + folder_.path() +
           "/file.db";
  }
  Object opened() const {
    Object connection = new_connection();
    connection.call("Open", connection_string());
    return connection;
  }

 private:
  zirdb_test::TemporaryFolder folder_;
};

// ---------------------------------------------------------------------------
// Cancelled threads
// ---------------------------------------------------------------------------

class CancelledThreads : public Threads {
 protected:
  /// Runs `call` on a thread that is cancelled before. The call is carried out,
  /// and the thread ends behind it.
  static void expect_carried_out(const std::function<void()>& call) {
    bool done = false;
    bool went_on = false;
    Thread thread([&] {
      cancel_this_thread();
      call();
      done = true;
      pthread_testcancel();
      went_on = true;
    });
    EXPECT_EQ(thread.join(), PTHREAD_CANCELED);
    EXPECT_TRUE(done);
    EXPECT_FALSE(went_on);
  }
};

TEST_F(CancelledThreads, FinishOpening) {
  const Object connection = new_connection();
  expect_carried_out([&] { connection.call("Open", connection_string()); });
  EXPECT_EQ(shown(connection.get("State")), "I4 1");
  EXPECT_EQ(only_value(connection("SELECT COUNT(*) FROM s")), "I8 0");
}

TEST_F(CancelledThreads, FinishFailingToOpen) {
  const Object connection = new_connection();
  expect_carried_out([&] {
    EXPECT_EQ(error_of([&] {
                connection.call("Open", "Driver={SQLite3};Database=/no/file");
              }).text(),
              "HY000: [SQLite]connect failed");
  });
  EXPECT_EQ(shown(connection.get("State")), "I4 0");
}

TEST_F(CancelledThreads, FinishTheirStatement) {
  const Object connection = opened();
  expect_carried_out([&] { connection("INSERT INTO s VALUES (?)", 7); });
  EXPECT_EQ(only_value(connection("SELECT n FROM s")), "I8 7");
}

TEST_F(CancelledThreads, FinishAStatementThatFails) {
  const Object connection = opened();
  expect_carried_out([&] {
    EXPECT_EQ(error_of([&] { connection("SELECT x FROM s"); }).text(),
              "HY000: [SQLite]no such column: x (1)");
  });
  EXPECT_EQ(only_value(connection("SELECT COUNT(*) FROM s")), "I8 0");
}

TEST_F(CancelledThreads, FinishFetching) {
  const Object connection = opened();
  connection("INSERT INTO s VALUES (1), (2), (3)");
  Object rows;
  expect_carried_out([&] { rows = connection("SELECT n FROM s"); });
  EXPECT_EQ(scripting::rows_of(rows).size(), 3U);
}

TEST_F(CancelledThreads, FinishClosing) {
  const Object connection = opened();
  connection("BEGIN EXCLUSIVE");
  expect_carried_out([&] { connection.call("Close"); });
  EXPECT_EQ(shown(connection.get("State")), "I4 0");
  EXPECT_EQ(only_value(opened()("SELECT COUNT(*) FROM s")), "I8 0");
}

TEST_F(CancelledThreads, FinishLettingAConnectionGo) {
  Object connection = opened();
  connection("BEGIN EXCLUSIVE");
  expect_carried_out([&] { connection.release(); });
  EXPECT_EQ(only_value(opened()("SELECT COUNT(*) FROM s")), "I8 0");
}

// Foreign code is free to end its thread.
class EndedInForeignCode : public Threads,
                           public testing::WithParamInterface<bool> {
 protected:
  /// Ends the thread in one of two ways, once it has entered foreign code.
  [[noreturn]] static void end() {
    if (GetParam()) pthread_exit(PTHREAD_CANCELED);
    cancel_this_thread();
    for (;;) pause();
  }
  static void expect_ended(const std::function<void()>& call) {
    Thread thread(call);
    EXPECT_EQ(thread.join(), PTHREAD_CANCELED);
  }
};

TEST_P(EndedInForeignCode, OfAWalk) {
  const Object connection = opened();
  connection("INSERT INTO s VALUES (1), (2), (3)");
  const Object rows = connection("SELECT n FROM s");
  int calls = 0;
  objects::Dispatch callback([&](const objects::Dispatch::Call&) -> HRESULT {
    if (++calls == 2) end();
    return S_OK;
  });

  expect_ended(
      [&] { rows.call("forEach", static_cast<IDispatch*>(&callback)); });

  EXPECT_EQ(calls, 2);
  EXPECT_EQ(callback.references(), 1U);
  EXPECT_EQ(scripting::value_of(rows, "n"), "I8 2");
  rows.call("forEach", static_cast<IDispatch*>(&callback));
  EXPECT_EQ(calls, 4);
}

TEST_P(EndedInForeignCode, OfAText) {
  const Object connection = opened();
  objects::Dispatch text(
      [&](const objects::Dispatch::Call&) -> HRESULT { end(); });
  const auto* const object = static_cast<IDispatch*>(&text);

  expect_ended([&] { connection(const_cast<IDispatch*>(object)); });

  EXPECT_EQ(text.references(), 1U);
  EXPECT_EQ(only_value(connection("SELECT COUNT(*) FROM s")), "I8 0");
}

TEST_P(EndedInForeignCode, OfAParameter) {
  const Object connection = opened();
  objects::Dispatch text(
      [&](const objects::Dispatch::Call&) -> HRESULT { end(); });
  const Object command = new_command();
  command.put("ActiveConnection", connection);
  command.put("CommandText", "INSERT INTO s VALUES (?)");
  const Object list = command.get("Parameters");
  list.call("Append", command.call("CreateParameter", "", ZIRDB_AD_VARCHAR,
                                   ZIRDB_AD_PARAM_INPUT, 0,
                                   static_cast<IDispatch*>(&text)));

  expect_ended([&] { command.call("Execute"); });

  EXPECT_EQ(only_value(connection("SELECT COUNT(*) FROM s")), "I8 0");
  Object(list(0)).put("Value", "7");
  command.call("Execute");
  EXPECT_EQ(text.references(), 1U);
  EXPECT_EQ(only_value(connection("SELECT n FROM s")), "I8 7");
}

std::string how_it_ends(const testing::TestParamInfo<bool>& test) {
  return test.param ? "ByItself" : "Cancelled";
}
INSTANTIATE_TEST_SUITE_P(, EndedInForeignCode, testing::Bool(), how_it_ends);

// ---------------------------------------------------------------------------
// Objects of other threads
// ---------------------------------------------------------------------------

/// An object of every class, all over one open transaction.
std::vector<Object> one_of_each(const Object& connection) {
  connection("BEGIN EXCLUSIVE");
  connection("INSERT INTO s VALUES (1)");
  const Object rows = connection("SELECT n FROM s");
  const Object command = new_command();
  command.put("ActiveConnection", connection);
  const Object list = command.get("Parameters");
  const Object parameter = command.call("CreateParameter", "p");
  list.call("Append", parameter);
  const Object fields = rows.get("Fields");
  return {connection, rows, fields, fields(0), command, list, parameter};
}

// Made on a thread that has ended, let go on a thread each, in any order. Each
// thread leaves an error of its own behind.
TEST_F(Threads, ObjectsMadeOnOneAreLetGoOnOthers) {
  std::vector<std::size_t> order = {0, 1, 2, 3, 4, 5, 6};
  for (int round = 0; round < 7; ++round) {
    SCOPED_TRACE(round);
    std::vector<Object> objects;
    std::thread([&] { objects = one_of_each(opened()); }).join();
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    for (const std::size_t i : order) {
      std::thread([&] {
        error_of([&] { new_connection()("SELECT 1"); });
        objects[i].release();
      }).join();
    }
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    // The transaction went with its connection.
    EXPECT_EQ(only_value(opened()("SELECT COUNT(*) FROM s")), "I8 0");
    std::rotate(order.begin(), order.begin() + 1, order.end());
    std::swap(order[0], order[3]);
  }
}

TEST_F(Threads, AnEnumeratorIsLetGoOnAnother) {
  InterfacePtr<IEnumVARIANT> enumerator;
  std::thread([&] {
    const Object connection = opened();
    const Object rows = connection("SELECT 1 AS a, 2 AS b");
    component::Call call;
    call.member = DISPID_NEWENUM;
    call.flags = DISPATCH_PROPERTYGET;
    const component::Answer answer =
        component::invoke(Object(rows.get("Fields")).dispatch(), call);
    ASSERT_EQ(answer.value.vt, VT_UNKNOWN);
    enumerator = InterfacePtr<IUnknown>::share(answer.value.punkVal)
                     .query<IEnumVARIANT>(IID_IEnumVARIANT);
  }).join();
  _variant_t field;
  std::thread([&] {
    EXPECT_EQ(enumerator->Next(1, &field, nullptr), S_OK);
    enumerator = {};
  }).join();
  EXPECT_EQ(shown(Object(field).get("Value")), "I8 1");
}

// The record of a thread that fails belongs to it, whoever made the object.
TEST_F(Threads, AnErrorBelongsToTheThreadThatMadeTheCall) {
  const Object connection = opened();
  const Object rows = connection("SELECT 1 AS a");
  std::promise<void> failed;
  std::promise<void> asked;
  std::thread other([&] {
    EXPECT_EQ(error_of([&] { rows.call("MovePrevious"); }).code(),
              component::kNotInThisContextCode);
    failed.set_value();
    asked.get_future().wait();
    EXPECT_EQ(error_of([&] { rows("b"); }).code(), component::kNotFoundCode);
  });
  failed.get_future().wait();
  EXPECT_EQ(error_of([&] { connection("nonsense"); }).text(),
            "HY000: [SQLite]near \"nonsense\": syntax error (1)");
  asked.set_value();
  other.join();
}

}  // namespace
