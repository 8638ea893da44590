// SPDX-License-Identifier: MIT
//
// Connections in several threads, one in each: none sees another's rows or
// errors, and what one thread made another may let go of.

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/connection_calls.h"
#include "support/connections.h"
#include "support/threads.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using component::Connection;
using component::Recordset;
using component::value_at;
using connection_calls::call;
using connection_calls::ended;
using connection_calls::execute_by;
using connection_calls::expect_done;
using connection_calls::expect_failed;
using connection_calls::kParameterised;
using connection_calls::kRoads;
using connection_calls::kSource;
using connection_calls::open_by;
using connection_calls::Road;
using scripted_odbc::cell;
using scripted_odbc::Reply;
using scripted_odbc::ResultSet;
using threads::in_threads;
using threads::kThreads;

constexpr int kRounds = 25;

class ConnectionThreads : public connection_calls::ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    for (int i = 0; i < kThreads; ++i) {
      script().result_for(
          "select " + std::to_string(i),
          ResultSet{{{"n", SQL_INTEGER}}, {{cell(i)}, {cell(10 * i)}}});
    }
    // A statement "fail" and a number fails with that number.
    script().on("SQLExecDirect", [](const scripted_odbc::Call& asked) {
      const std::string& sql = asked.bytes("sql");
      if (sql.rfind("fail", 0) != 0) return std::optional<Reply>();
      return std::optional<Reply>({false, SQL_ERROR, {"HY000", 1, sql}});
    });
  }
};

TEST_F(ConnectionThreads, HaveTheirOwnRowsAndErrors) {
  in_threads([](int thread) {
    const std::wstring number = std::to_wstring(thread);
    for (int round = 0; round < kRounds; ++round) {
      const Connection made = component::connection();
      expect_done(open_by(Road::LateBound, made, kSource, L"user" + number));
      for (const Road road : kRoads) {
        expect_failed(execute_by(road, made, L"fail " + number),
                      component::kExecuteFailedCode,
                      error_text("HY000", "fail " + std::to_string(thread)));
        const auto done = execute_by(road, made, L"select " + number);
        ASSERT_TRUE(done.recordset);
        EXPECT_EQ(value_at(done.recordset, 0).llVal, thread);
        EXPECT_EQ(done.recordset->MoveNext(), S_OK);
        EXPECT_EQ(value_at(done.recordset, 0).llVal, 10 * thread);
      }
      const _variant_t text(L"update");
      const VARIANT value = values::plain(VT_I4, 1);
      expect_done(ended(call(made, kParameterised, {text, value})));
      EXPECT_EQ(connection_calls::string_of(Road::Vtable, made),
                std::wstring(kSource) + L";UID=user" + number + L";");
    }
  });
}

TEST_F(ConnectionThreads, LetGoOfWhatAnotherMade) {
  std::vector<Connection> connections(kThreads);
  std::vector<std::vector<Recordset>> recordsets(kThreads);
  const auto slot = [](int thread) { return static_cast<std::size_t>(thread); };
  in_threads([&](int thread) {
    connections[slot(thread)] = component::opened("DSN=scripted");
    const std::wstring sql = L"select " + std::to_wstring(thread);
    for (int round = 0; round < kRounds; ++round) {
      recordsets[slot(thread)].push_back(
          component::execute(connections[slot(thread)], sql.c_str()).second);
    }
  });
  in_threads([&](int thread) {
    const std::size_t other = slot((thread + 1) % kThreads);
    for (const Recordset& each : recordsets[other]) {
      EXPECT_EQ(value_at(each, 0).llVal, static_cast<std::int64_t>(other));
    }
    if (thread % 2 == 0) connections[other] = {};
    recordsets[other].clear();
    connections[other] = {};
  });
  EXPECT_EQ(script().count("SQLDisconnect"), std::size_t{kThreads});
}

}  // namespace
