// SPDX-License-Identifier: MIT
//
// Journeys of scripts: a test with one driver, a private database, and a
// connection object to it. Expects what support/database.h tells of drivers.

#ifndef ZIRDB_TESTS_SUPPORT_SCRIPT_JOURNEY_H
#define ZIRDB_TESTS_SUPPORT_SCRIPT_JOURNEY_H

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/database.h"
#include "support/scripting.h"

namespace zirdb_test {

using scripting::Object;

/// One parameter as a script gives it to CreateParameter.
struct ScriptParameter {
  long type = 0;
  long direction = 1;
  long size = 0;
  _variant_t value = {};
};

inline ScriptParameter input_of(long type, const _variant_t& value) {
  return {type, ZIRDB_AD_PARAM_INPUT, 0, value};
}
inline ScriptParameter output_of(long type, long size = 0) {
  return {type, ZIRDB_AD_PARAM_OUTPUT, size, {}};
}
inline ScriptParameter input_output_of(long type, long size,
                                       const _variant_t& value) {
  return {type, ZIRDB_AD_PARAM_INPUT_OUTPUT, size, value};
}
inline ScriptParameter return_value_of(long type, long size = 0) {
  return {type, ZIRDB_AD_PARAM_RETURN_VALUE, size, {}};
}

/// A command over a connection, with its parameters.
inline Object command_on(const Object& connection, const std::string& text,
                         const std::vector<ScriptParameter>& parameters = {}) {
  Object command = scripting::new_command();
  command.put("ActiveConnection", connection);
  command.put("CommandText", text);
  const Object list = command.get("Parameters");
  for (const ScriptParameter& parameter : parameters) {
    list.call("Append", command.call("CreateParameter", "", parameter.type,
                                     parameter.direction, parameter.size,
                                     parameter.value));
  }
  return command;
}

/// What a command's parameter holds.
inline std::string parameter_of(const Object& command, int position) {
  const Object list = command.get("Parameters");
  return scripting::shown(Object(list(position)).get("Value"));
}

class ScriptJourney : public Journey {
 protected:
  void SetUp() override {
    Journey::SetUp();
    if (!IsSkipped()) connection_ = open();
  }
  void TearDown() override {
    connection_.release();
    Journey::TearDown();
  }

  /// The connection every test has.
  const Object& connection() const { return connection_; }
  /// A further one to the same private database.
  Object open(const std::string& options = "") const {
    Object opened = scripting::new_connection();
    open_again(opened, options);
    return opened;
  }
  void open_again(const Object& closed, const std::string& options = "") const {
    closed.call("Open", database().connection_string() + options);
    for (const std::string& sql : database().preparations()) {
      closed.call("Execute", sql);
    }
    // Nobody pulls the plug during a test.
    if (on(kSqlite)) closed.call("Execute", "PRAGMA synchronous = OFF");
  }

  template <class... Argument>
  _variant_t run(const std::string& sql, const Argument&... arguments) const {
    return connection_(sql, arguments...);
  }
  /// The only value of a result.
  template <class... Argument>
  std::string value(const std::string& sql,
                    const Argument&... arguments) const {
    return scripting::only_value(run(sql, arguments...));
  }
  Object command(const std::string& text,
                 const std::vector<ScriptParameter>& parameters = {}) const {
    return command_on(connection_, text, parameters);
  }

  bool on(const Driver& which) const { return &driver() == &which; }
  /// What a boolean column shows.
  std::string shown_boolean(bool value) const {
    if (driver().shows_booleans_as_text) return value ? "BSTR 1" : "BSTR 0";
    return value ? "BOOL -1" : "BOOL 0";
  }

 private:
  Object connection_;
};

/// The number of rows that a statement without a result changed.
inline std::string rows_affected(const Object& connection,
                                 const std::string& sql) {
  _variant_t count;
  connection.call("Execute", sql, values::reference_to(&count));
  return scripting::shown(count);
}

inline void expect_failed_with_state(const scripting::Error& error,
                                     const std::string& state) {
  EXPECT_EQ(error.code(), component::kExecuteFailedCode) << error.what();
  EXPECT_EQ(error.source(), "ZIRDB.Connection");
  EXPECT_EQ(error.text().substr(0, state.size() + 2), state + ": ")
      << error.text();
}

}  // namespace zirdb_test

#endif  // ZIRDB_TESTS_SUPPORT_SCRIPT_JOURNEY_H
