// SPDX-License-Identifier: MIT
//
// What the fixture does the same for both faces.

#include "support/scripted_odbc_fixture.h"

#include <algorithm>
#include <utility>

void ScriptedOdbc::SetUp() { script().reset(); }

void ScriptedOdbc::TearDown() {
  connections_.clear();
  EXPECT_EQ(script().take_complaints(), std::vector<std::string>());
  EXPECT_EQ(script().take_unreleased(), std::vector<std::string>());
}

std::string ScriptedOdbc::error_text(const std::string& state,
                                     const std::string& message) {
  return state.empty() ? message : state + ": " + message;
}

void* ScriptedOdbc::open() {
  void* connection = nullptr;
  std::string error;
  EXPECT_TRUE(zirdb_odbc_open(connection_string(), &connection, &error))
      << error;
  if (connection == nullptr) return nullptr;
  const std::lock_guard<std::mutex> lock(mutex_);
  connections_.emplace_back(connection);
  return connection;
}

void ScriptedOdbc::close(void* connection) {
  std::unique_ptr<void, Close> closing;
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found =
      std::find_if(connections_.begin(), connections_.end(),
                   [&](const auto& each) { return each.get() == connection; });
  ASSERT_NE(found, connections_.end()) << "not a connection of open()";
  closing = std::move(*found);
  connections_.erase(found);
}
