// SPDX-License-Identifier: MIT
//
// Sixteen threads with a connection each, for a minute: every value and every
// error text is the thread's own, and nothing is left. Meant for
// ThreadSanitizer as much as for its assertions.

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/database.h"
#include "support/load_handles.h"
#include "support/long_form.h"
#include "support/script_journey.h"
#include "support/scripting.h"
#include "support/values.h"

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

using scripting::Array;
using scripting::bytes;
using scripting::Callback;
using scripting::error_of;
using scripting::null;
using scripting::number;
using scripting::shown;

using Row = std::vector<std::string>;

constexpr int kThreads = 16;

std::string printed(const Row& row) {
  std::string text;
  for (const std::string& value : row) text += "[" + value + "] ";
  return text;
}
std::string printed(const std::string& text) { return text; }
std::string printed(std::int64_t value) { return std::to_string(value); }

/// The first difference ends the thread: millions would follow.
template <class Value>
void require_equal(const Value& value, const Value& expected) {
  if (value == expected) return;
  throw std::runtime_error(printed(value) + " instead of " + printed(expected));
}
void require(bool truth, const std::string& otherwise) {
  if (!truth) throw std::runtime_error(otherwise);
}

/// One thread's work: on tables of its own, with texts of its own.
class Worker {
 public:
  Worker(const Driver& driver, int thread, Object connection)
      : driver_(driver),
        name_("w" + std::to_string(thread)),
        connection_(std::move(connection)) {
    connection_("DROP TABLE IF EXISTS " + name_);
    connection_("CREATE TABLE " + name_ +
                " (id INTEGER, n INTEGER, b BIGINT, " + "f " +
                driver.boolean_type + ", d " + driver.double_type + ", t " +
                driver.text_type + ", u " + driver.text_type + ", x " +
                driver.blob_type + ")");
  }

  /// Some of everything.
  void work(int round) {
    round_ = round;
    const Row row = insert();
    read(row);
    read_with_arguments(row);
    exchange_array();
    fail_everywhere();
    walk();
    for_each();
    if (round % 16 == 15) connection_("DELETE FROM " + name_);
  }

  const Object& connection() const { return connection_; }

 private:
  /// A text that no other thread has, and no other round of this one.
  std::string mark() const {
    return name_ + " \U0001F600 " + std::to_string(round_);
  }

  // What the row is when it is read.
  Row insert() const {
    const bool truth = round_ % 2 == 0;
    const std::int64_t wide = INT64_C(0x100000000) * (round_ + 1);
    const _variant_t blob =
        bytes(std::string(static_cast<std::size_t>(round_ % 3000 + 1),
                          static_cast<char>('a' + round_ % 26)));
    const Object inserting =
        command_on(connection_,
                   "INSERT INTO " + name_ + " VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                   {input_of(ZIRDB_AD_INTEGER, number(VT_I4, round_)),
                    input_of(ZIRDB_AD_INTEGER, null()),
                    input_of(ZIRDB_AD_BIGINT, number(VT_I8, wide)),
                    input_of(ZIRDB_AD_BOOLEAN, truth),
                    input_of(ZIRDB_AD_EMPTY, round_ + 0.25),
                    input_of(ZIRDB_AD_VARCHAR, scripting::argument(mark())),
                    input_of(ZIRDB_AD_VARWCHAR, scripting::argument(mark())),
                    input_of(ZIRDB_AD_VARBINARY, blob)});
    _variant_t count;
    inserting.call("Execute", values::reference_to(&count));
    require_equal(shown(count), std::string("I8 1"));
    require_equal(parameter_of(inserting, 6), "BSTR " + mark());
    const char* const shown_truth = driver_.shows_booleans_as_text
                                        ? (truth ? "BSTR 1" : "BSTR 0")
                                        : (truth ? "BOOL -1" : "BOOL 0");
    return {"I8 " + std::to_string(round_),
            "NULL",
            "I8 " + std::to_string(wide),
            shown_truth,
            shown(_variant_t(round_ + 0.25)),
            "BSTR " + mark(),
            "BSTR " + mark(),
            shown(blob)};
  }

  std::string newest(const std::string& columns) const {
    return "SELECT " + columns + " FROM " + name_ +
           " WHERE id = " + std::to_string(round_);
  }

  void read(const Row& expected) const {
    const Object row = connection_(newest("*"));
    require_equal(scripting::row_of(row), expected);
    // By name, and kept beyond its recordset.
    const Object field = row("t");
    require_equal(shown(field.get("Name")), std::string("BSTR t"));
    const _variant_t kept = field.get("Value");
    row.call("Close");
    require_equal(shown(kept), expected[5]);
  }

  void read_with_arguments(const Row& expected) const {
    require_equal(scripting::rows_of(connection_("SELECT b, d FROM " + name_ +
                                                     " WHERE id = ? AND t = ?",
                                                 number(VT_I4, round_), mark()))
                      .at(0),
                  Row{expected[2], expected[4]});
  }

  void exchange_array() const {
    Array arguments =
        Array::of(mark(), number(VT_I2, round_ % 100), number(VT_I4, round_));
    _variant_t count;
    command_on(connection_,
               "UPDATE " + name_ + " SET u = ?, n = ? WHERE id = ?")
        .call("Execute", values::reference_to(&count), arguments.reference());
    require_equal(shown(count), std::string("I8 1"));
    require_equal(shown(arguments[0]), "BSTR " + mark());
    require_equal(shown(arguments[1]), "I8 " + std::to_string(round_ % 100));
    require_equal(scripting::only_value(connection_(newest("u"))),
                  "BSTR " + mark());
  }

  void require_own(const scripting::Error& error,
                   const std::string& text) const {
    require(error.text().find(text) != std::string::npos,
            error.text() + " instead of " + text);
  }

  void fail_everywhere() const {
    const std::string missing = "no_" + name_ + "_" + std::to_string(round_);
    const std::string sql = "SELECT * FROM " + missing;
    const auto failing = [&] { connection_(sql); };
    const scripting::Error error = error_of(failing);
    require_equal<std::int64_t>(error.code(), component::kExecuteFailedCode);
    require_equal(error.source(), std::string("ZIRDB.Connection"));
    require_own(error, missing);

    require_own(error_of([&] {
                  command_on(connection_, sql + " WHERE id = ?",
                             {input_of(ZIRDB_AD_INTEGER, 1)})
                      .call("Execute");
                }),
                missing);

    // Inside of another call, whose own failure has no text.
    Callback callback([&](const Object&) {
      require_own(error_of(failing), missing);
      return E_FAIL;
    });
    const scripting::Error refused = error_of([&] {
      Object(connection_(newest("id"))).call("forEach", callback.argument());
    });
    require_equal<std::int64_t>(refused.code(), E_FAIL);
    require_equal(refused.text(), std::string());

    const Object row = connection_(newest("id"));
    require_equal<std::int64_t>(error_of([&] { row(missing); }).code(),
                                component::kNotFoundCode);
    require_equal<std::int64_t>(error_of([&] { row.call("MoveLast"); }).code(),
                                component::kNotBackwardCode);

    const Object other = scripting::new_connection();
    require_own(
        error_of([&] { other.call("Open", "Driver={" + missing + "}"); }),
        missing);
  }

  Object all(const std::string& columns) const {
    return connection_("SELECT " + columns + " FROM " + name_ + " ORDER BY id");
  }

  void walk() const {
    const Object rows = all("id, t");
    for (int pass = 0; pass < 2; ++pass) {
      int id = round_ - round_ % 16;
      for (; rows.get("EOF").boolVal == VARIANT_FALSE; ++id) {
        require_equal(
            scripting::row_of(rows),
            Row{"I8 " + std::to_string(id),
                "BSTR " + name_ + " \U0001F600 " + std::to_string(id)});
        rows.call("MoveNext");
      }
      require_equal(id, round_ + 1);
      rows.call("MoveFirst");
    }
  }

  void for_each() const {
    int id = round_ - round_ % 16;
    Callback callback([&](const Object& fields) {
      require_equal(scripting::value_of(fields, "id"),
                    "I8 " + std::to_string(id++));
      return S_OK;
    });
    all("id").call("forEach", callback.argument());
    require_equal(id, round_ + 1);
  }

  const Driver& driver_;
  std::string name_;
  Object connection_;
  int round_ = 0;
};

class LoadThreads : public ScriptJourney {
 protected:
  void TearDown() override {
    ScriptJourney::TearDown();
    if (IsSkipped()) return;
    EXPECT_GT(load::handles_allocated(), 0U);
    EXPECT_EQ(load::handles_live(), 0U);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
  }

  // SQLite lets nobody write beside another: a file for each.
  Object own_connection(const PrivateDatabase& own) const {
    Object made = scripting::new_connection();
    if (on(kSqlite)) {
      made.call("Open", own.connection_string());
      made("PRAGMA synchronous = OFF");
    } else {
      open_again(made);
    }
    return made;
  }

  // How many rounds the thread came to.
  int work(int thread, std::chrono::steady_clock::time_point end) const {
    const PrivateDatabase own(on(kSqlite) ? kSqlite : driver());
    Worker worker(driver(), thread, own_connection(own));
    int round = 0;
    do {
      worker.work(round++);
      // Another one beside it, from time to time.
      if (round % 32 == 5)
        Worker(driver(), thread + 100, own_connection(own)).work(0);
    } while (std::chrono::steady_clock::now() < end);
    worker.connection().call("Close");
    return round;
  }
};

TEST_P(LoadThreads, SixteenThreadsSeeNothingOfEachOther) {
  const auto end = std::chrono::steady_clock::now() +
                   std::chrono::seconds(short_or_long(1, 60));
  std::vector<int> rounds(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      try {
        rounds[static_cast<std::size_t>(i)] = work(i, end);
      } catch (const std::exception& failure) {
        ADD_FAILURE() << "thread " << i << ": " << failure.what();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const int each : rounds) EXPECT_GT(each, short_or_long(0, 32));
}

INSTANTIATE_TEST_SUITE_P(, LoadThreads, testing::Values(&kSqlite, &kPostgres),
                         driver_name);

}  // namespace
}  // namespace zirdb_test
