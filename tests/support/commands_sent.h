// SPDX-License-Identifier: MIT
//
// For tests of commands over the scripted database: which statements reached
// the driver and with which parameters, in few words.
//
//   EXPECT_EQ(statements(), Texts({"{CALL p(?)}"}));
//   EXPECT_EQ(bound(), Texts({"in BIGINT 5", "inout VARCHAR(3) \"abc\""}));

#ifndef ZIRDB_TESTS_SUPPORT_COMMANDS_SENT_H
#define ZIRDB_TESTS_SUPPORT_COMMANDS_SENT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "support/commands.h"
#include "support/connections.h"
#include "support/scripted_odbc_fixture.h"

namespace commands {

using Texts = std::vector<std::string>;

/// A bound parameter as the driver found it: direction, SQL type, column size
/// where it says something, and the value of what is not just an output.
inline std::string describe(const scripted_odbc::Sent& sent) {
  std::string all = sent.direction == SQL_PARAM_INPUT          ? "in "
                    : sent.direction == SQL_PARAM_OUTPUT       ? "out "
                    : sent.direction == SQL_PARAM_INPUT_OUTPUT ? "inout "
                                                               : "wrong ";
  const std::string size = "(" + std::to_string(sent.column_size) + ")";
  std::string value;
  const auto take = [&](int c_type, const char* name, auto read) {
    if (sent.c_type != c_type) {
      all += "as C type " + std::to_string(sent.c_type) + " ";
    }
    all += name;
    if (sent.direction != SQL_PARAM_OUTPUT && !sent.is_null()) value = read();
  };
  switch (sent.sql_type) {
    case SQL_INTEGER:
      take(SQL_C_SLONG, "INTEGER",
           [&] { return std::to_string(sent.as<std::int32_t>()); });
      break;
    case SQL_BIGINT:
      take(SQL_C_SBIGINT, "BIGINT",
           [&] { return std::to_string(sent.as<std::int64_t>()); });
      break;
    case SQL_BIT:
      take(SQL_C_BIT, "BIT",
           [&] { return std::to_string(sent.as<unsigned char>()); });
      break;
    case SQL_DOUBLE:
      take(SQL_C_DOUBLE, "DOUBLE", [&] {
        char number[32];
        std::snprintf(number, sizeof number, "%g", sent.as<double>());
        return std::string(number);
      });
      break;
    case SQL_VARCHAR:
      take(SQL_C_CHAR, ("VARCHAR" + size).c_str(),
           [&] { return "\"" + sent.value() + "\""; });
      break;
    case SQL_WVARCHAR:
      take(SQL_C_WCHAR, ("WVARCHAR" + size).c_str(), [&] {
        std::string units;
        const std::string bytes = sent.value();
        for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
          const auto low = static_cast<unsigned char>(bytes[i]);
          const auto high = static_cast<unsigned char>(bytes[i + 1]);
          char unit[8];
          std::snprintf(unit, sizeof unit, "%02X%02X ", high, low);
          units += high == 0 && low >= 32 && low < 127
                       ? std::string(1, bytes[i])
                       : std::string(unit);
        }
        return "u\"" + units + "\"";
      });
      break;
    case SQL_VARBINARY:
      take(SQL_C_BINARY, ("VARBINARY" + size).c_str(), [&] {
        std::string hex = "x";
        for (const char byte : sent.value()) {
          char digits[4];
          std::snprintf(digits, sizeof digits, "%02X",
                        static_cast<unsigned char>(byte));
          hex += digits;
        }
        return hex;
      });
      break;
    default:
      all += "SQL type " + std::to_string(sent.sql_type);
  }
  if (sent.direction == SQL_PARAM_OUTPUT) return all;
  return all + " " + (sent.is_null() ? "NULL" : value);
}

/// Tests over an open connection to the scripted database.
class SentCommand : public ScriptedOdbc {
 protected:
  /// Opened at the first use.
  const Connection& database() {
    if (!database_) {
      database_ = component::opened(connection_string());
      script().clear_log();
    }
    return database_;
  }

  Command command(const wchar_t* text, long type = ZIRDB_AD_CMD_UNKNOWN) {
    return command_over(database(), text, type);
  }

  /// The texts that reached the driver since the last call. Those with
  /// parameters are prepared and executed, the others executed at once.
  static Texts statements() {
    Texts all;
    for (const scripted_odbc::Call& call : script().calls()) {
      if (call.name == "SQLPrepare" || call.name == "SQLExecDirect") {
        all.push_back(call.bytes("sql"));
      }
    }
    EXPECT_EQ(script().count("SQLExecute"), script().count("SQLPrepare"));
    script().clear_log();
    return all;
  }

  /// The parameters of the last execution.
  static Texts bound() {
    Texts all;
    for (const scripted_odbc::Sent& sent : script().sent()) {
      all.push_back(describe(sent));
    }
    return all;
  }

  void TearDown() override {
    database_ = {};
    ScriptedOdbc::TearDown();
  }

 private:
  Connection database_;
};

}  // namespace commands

#endif  // ZIRDB_TESTS_SUPPORT_COMMANDS_SENT_H
