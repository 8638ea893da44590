// SPDX-License-Identifier: MIT
//
// The GoogleTest fixture over the scripted database. A test program is built
// with one of its two faces (scripted.cmake); tests are written once:
//
//   class Rows : public ScriptedOdbc {};
//   TEST_F(Rows, ...) { script().columns(...); ... open() ... }

#ifndef ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_FIXTURE_H
#define ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/scripted_odbc.h"
#include "zirdb_odbc.h"

/// Starts every test with an empty script; after it closes what open() opened
/// and fails the test for every complaint of the script and every handle that
/// was not released.
class ScriptedOdbc : public ::testing::Test {
 public:
  static scripted_odbc::Face face();
  static bool is_driver() { return face() == scripted_odbc::Face::kDriver; }
  static scripted_odbc::Script& script();

  /// Reaches the scripted database through this program's face.
  static std::string connection_string();

  /// The text of a failure whose first record the driver wrote. The same
  /// through both faces: the driver manager hands a driver's text on as it is
  /// (texts of its own begin with "[unixODBC][Driver Manager]").
  static std::string error_text(const std::string& state,
                                const std::string& message);

  /// A new connection, closed after the test. A connection that cannot be
  /// opened fails the test and gives null. May be called from any thread.
  void* open();
  /// Closes a connection of open() early.
  void close(void* connection);

 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  struct Close {
    void operator()(void* connection) const { zirdb_odbc_close(connection); }
  };
  std::mutex mutex_;
  std::vector<std::unique_ptr<void, Close>> connections_;
};

#endif  // ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_FIXTURE_H
