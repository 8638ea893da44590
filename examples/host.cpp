// SPDX-License-Identifier: MIT
//
// host: the smallest complete host. Creates the database objects by name and
// drives them late-bound, as a script engine would.
//
//   REGISTRY=build/release/registry host [CONNECTION]
//       the ODBC connection string; an SQLite database in memory by default

#include <exception>
#include <iostream>
#include <string>

#include "late_bound.h"

namespace {

using late_bound::callback;
using late_bound::Error;
using late_bound::Null;
using late_bound::Object;
using late_bound::Value;

// With values for the statement's markers, the connection itself is called.
void fill(const Object& connection) {
  connection.call("Execute", "CREATE TABLE item (name TEXT, price DOUBLE)");
  const char* const insert = "INSERT INTO item VALUES (?, ?)";
  connection(insert, "saw", 12.5);
  connection(insert, "h\u00FClse", 0.25);
  connection(insert, "gift", Null());
}

// A command keeps its text and its parameters, whose values may change between
// executions; how many rows it affected arrives in its first argument.
void raise_prices(const Object& connection) {
  const Object command("ZIRDB.Command");
  command.put("ActiveConnection", connection);
  command.put("CommandText",
              "UPDATE item SET price = price + ? WHERE name = ?");
  const Object parameters = command.get("Parameters").object();
  constexpr int kVarwchar = 202;
  constexpr int kInput = 1;
  const Object amount =
      command.call("CreateParameter", "amount", 0, kInput, 0, 1.0).object();
  parameters.call("Append", amount);
  parameters.call("Append", command.call("CreateParameter", "name", kVarwchar,
                                         kInput, 40, "saw"));
  Value affected;
  command.call("Execute", Value::reference_to(affected));
  amount.put("Value", 0.5);
  command.call("Execute", Value::reference_to(affected));
  std::cout << "rows affected: " << affected.integer() << '\n';
}

std::string shown(const Value& value) {
  return value.is_nothing() ? "no price" : value.text();
}

// Calls back with the fields of each row, and closes the recordset.
void walk_with_for_each(const Object& connection) {
  const Object rows =
      connection.call("Execute", "SELECT name, price FROM item ORDER BY name")
          .object();
  rows.call("forEach", callback([](const Object& fields) {
              const Object price = fields("PRICE").object();
              std::cout << fields(0).object().get("Value").text() << ": "
                        << shown(price.get("Value")) << '\n';
            }));
}

// The same by hand: recordset("name") is the field of the current row.
void walk_with_move_next(const Object& connection) {
  const Object rows =
      connection.call("Execute", "SELECT name, price FROM item ORDER BY price")
          .object();
  for (; !rows.get("EOF").truth(); rows.call("MoveNext")) {
    const Object field = rows(1).object();
    std::cout << rows("name").object().get("Value").text() << ", "
              << field.get("Name").text() << " " << shown(field.get("Value"))
              << '\n';
  }
  rows.call("Close");
}

void handle_an_error(const Object& connection) {
  try {
    connection.call("Execute", "SELECT * FROM nowhere");
  } catch (const Error& error) {
    std::cout << std::hex << std::uppercase
              << static_cast<unsigned>(error.code()) << " from "
              << error.source() << ": " << error.what() << '\n';
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Object connection("ZIRDB.Connection");
    connection.call("Open",
                    argc > 1 ? argv[1] : "Driver=SQLite3;Database=:memory:");
    fill(connection);
    raise_prices(connection);
    walk_with_for_each(connection);
    walk_with_move_next(connection);
    handle_an_error(connection);
    connection.call("Close");
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "host: " << error.what() << '\n';
    return 1;
  }
}
