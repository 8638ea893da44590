// SPDX-License-Identifier: MIT
//
// Hosts whose signals interrupt the system calls of drivers, thousands of times
// a second: everything comes out as without them.

#include <gtest/gtest.h>
#include <sys/time.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "support/script_journey.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace zirdb_test {
namespace {

using scripting::error_of;
using scripting::only_value;
using scripting::rows_of;
using scripting::shown;

volatile std::sig_atomic_t g_signals = 0;

/// Interrupts this process, without the system's calls being taken up again.
class Interruptions {
 public:
  Interruptions() {
    struct sigaction action = {};
    action.sa_handler = [](int) { g_signals = g_signals + 1; };
    sigaction(SIGALRM, &action, &before_);
    constexpr int kMicroseconds = 300;
    set(kMicroseconds);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;
  ~Interruptions() {
    set(0);
    sigaction(SIGALRM, &before_, nullptr);
  }

 private:
  static void set(int microseconds) {
    itimerval timer = {};
    timer.it_interval.tv_usec = microseconds;
    timer.it_value.tv_usec = microseconds;
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
  struct sigaction before_ = {};
};

class Signals : public ScriptJourney {
 protected:
  /// 1 to 3000, each with a text of 200 letters, in three pieces that make the
  /// server wait.
  std::string slow_rows() const {
    if (on(kPostgres)) {
      return "SELECT n, repeat('x', 200) AS t, pg_sleep(CASE WHEN n % 1000 = 0"
             " THEN 0.05 ELSE 0 END)::text AS s FROM generate_series(1, 3000) "
             "n";
    }
    if (on(kMariadb)) {
      return "SELECT seq AS n, repeat('x', 200) AS t, CASE WHEN seq % 1000 = 0"
             " THEN SLEEP(0.05) END AS s FROM seq_1_to_3000";
    }
    return "WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c"
           " WHERE n < 3000) SELECT n, printf('%.200c', 'x') AS t, NULL AS s"
           " FROM c";
  }
};

TEST_P(Signals, InterruptEverything) {
  run("CREATE TABLE s (n INTEGER, t " + std::string(driver().text_type) + ")");
  g_signals = 0;
  const Interruptions interruptions;

  const Object other = open();
  for (int i = 0; i < 20; ++i) {
    other("INSERT INTO s VALUES (?, ?)", i, std::string(20'000, 'y'));
  }
  const std::vector<std::vector<std::string>> rows =
      rows_of(other(slow_rows()));
  const std::vector<std::vector<std::string>> texts =
      rows_of(other("SELECT t FROM s"));
  error_of([&] { other("nonsense"); });
  other.call("Close");

  EXPECT_GT(g_signals, 10);
  ASSERT_EQ(rows.size(), 3000U);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    ASSERT_EQ(rows[i][0], "I8 " + std::to_string(i + 1));
    ASSERT_EQ(rows[i][1], "BSTR " + std::string(200, 'x'));
  }
  ASSERT_EQ(texts.size(), 20U);
  for (const auto& text : texts) {
    EXPECT_EQ(text[0], "BSTR " + std::string(20'000, 'y'));
  }
}

ZIRDB_FOR_EVERY_DRIVER(Signals);

}  // namespace
}  // namespace zirdb_test
