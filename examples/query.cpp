// SPDX-License-Identifier: MIT
//
// query: one SQL statement against any ODBC database, from the command line,
// through the scriptable objects.
//
//   query CONNECTION STATEMENT [VALUE...]
//       prints the rows as a table; the values are bound to the statement's
//       markers
//   query --bind-lines CONNECTION STATEMENT
//       executes once per line of standard input, its tab-separated fields
//       bound to the markers
//
// An empty value or field is NULL. Errors go to standard error, one line each.
// The environment variable REGISTRY names the build's registry folder.
// Exit status: 0 success, 1 the database refused, 2 wrong usage.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "late_bound.h"

namespace {

using late_bound::Null;
using late_bound::Object;
using late_bound::Value;

constexpr std::size_t kWidestColumn = 60;

int fail(std::string_view text) {
  std::cerr << "query: " << text << '\n';
  return EXIT_FAILURE;
}

// Success is only what reached its reader.
int succeed() {
  return std::cout.flush() ? EXIT_SUCCESS : fail("cannot write the output");
}

// One character a code point: good enough to line columns up.
bool starts_character(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

std::size_t width(std::string_view utf8) {
  return static_cast<std::size_t>(
      std::count_if(utf8.begin(), utf8.end(), starts_character));
}

// One line, and not wider than a column may be.
std::string fitted(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < 0x20; }, ' ');
  if (width(text) <= kWidestColumn) return text;
  std::size_t characters = 0;
  const auto end = std::find_if(text.begin(), text.end(), [&](char byte) {
    return starts_character(byte) && ++characters == kWidestColumn - 2;
  });
  return std::string(text.begin(), end) + "...";
}

std::string hex(const std::vector<unsigned char>& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "0x";
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string shown(const Value& value) {
  switch (value.type()) {
    case VT_NULL:
      return "NULL";
    case VT_BOOL:
      return value.truth() ? "true" : "false";
    case VT_I8:
      return std::to_string(value.integer());
    case VT_R8: {
      char text[32];
      std::snprintf(text, sizeof text, "%.15g", value.number());
      return text;
    }
    case VT_ARRAY | VT_UI1:
      return fitted(hex(value.bytes()));
    default:
      return fitted(value.text());
  }
}

bool is_number(const Value& value) {
  return value.type() == VT_I8 || value.type() == VT_R8;
}

std::string counted(std::int64_t count, std::string_view noun) {
  return std::to_string(count) + " " + std::string(noun) +
         (count == 1 ? "" : "s");
}

struct Cell {
  std::string text;
  bool is_number;
};

std::vector<std::vector<Cell>> read_rows(const Object& recordset,
                                         std::int64_t columns) {
  std::vector<std::vector<Cell>> rows;
  for (; !recordset.get("EOF").truth(); recordset.call("MoveNext")) {
    rows.emplace_back();
    for (std::int64_t i = 0; i < columns; ++i) {
      const Value value = recordset(i).object().get("Value");
      rows.back().push_back({shown(value), is_number(value)});
    }
  }
  return rows;
}

void print_table(const Object& recordset, std::int64_t column_count) {
  const auto columns = static_cast<std::size_t>(column_count);
  const auto rows = read_rows(recordset, column_count);
  const Object fields = recordset.get("Fields").object();
  std::vector<std::string> names;
  std::vector<std::size_t> widths;
  for (std::size_t i = 0; i < columns; ++i) {
    names.push_back(fitted(fields(i).object().get("Name").text()));
    widths.push_back(width(names.back()));
    for (const auto& row : rows) {
      widths[i] = std::max(widths[i], width(row[i].text));
    }
  }

  const auto print = [&](std::size_t i, const std::string& text, bool right) {
    const std::string padding(widths[i] - width(text), ' ');
    std::cout << (i == 0 ? "" : "  ");
    if (right) {
      std::cout << padding << text;
    } else {
      std::cout << text << (i + 1 == columns ? "" : padding);
    }
  };
  for (std::size_t i = 0; i < columns; ++i) {
    print(i, names[i], !rows.empty() && rows[0][i].is_number);
  }
  std::cout << '\n';
  for (std::size_t i = 0; i < columns; ++i) {
    print(i, std::string(widths[i], '-'), false);
  }
  std::cout << '\n';
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < columns; ++i) {
      print(i, row[i].text, row[i].is_number);
    }
    std::cout << '\n';
  }
  std::cout << "(" << counted(static_cast<std::int64_t>(rows.size()), "row")
            << ")\n";
}

// A field as a statement takes it.
Value value_of(const std::string& text) {
  return text.empty() ? Value(Null()) : Value(text);
}

std::vector<Value> values_of(const std::string& line) {
  std::vector<Value> values;
  std::size_t start = 0;
  for (;;) {
    const std::size_t tab = line.find('\t', start);
    values.push_back(value_of(line.substr(start, tab - start)));
    if (tab == std::string::npos) return values;
    start = tab + 1;
  }
}

Object command_over(const Object& connection, const std::string& statement) {
  Object command("ZIRDB.Command");
  command.put("ActiveConnection", connection);
  command.put("CommandText", statement);
  return command;
}

int run_statement(const Object& connection, const std::string& statement,
                  const std::vector<Value>& values) {
  const Object command = command_over(connection, statement);
  Value affected;
  const Object recordset =
      command.call("Execute", Value::reference_to(affected), values).object();
  const std::int64_t columns =
      recordset.get("Fields").object().get("Count").integer();
  if (columns == 0) {
    std::cout << counted(affected.integer(), "row") << " affected\n";
  } else {
    print_table(recordset, columns);
  }
  return succeed();
}

// All lines or none: one transaction, which a failing line leaves unfinished
// and closing the connection rolls back.
int run_per_line(const Object& connection, const std::string& statement) {
  connection.call("Execute", "BEGIN");
  const Object command = command_over(connection, statement);
  std::int64_t lines = 0;
  std::int64_t affected = 0;
  for (std::string line; std::getline(std::cin, line);) {
    ++lines;
    Value count;
    try {
      command.call("Execute", Value::reference_to(count), values_of(line));
    } catch (const late_bound::Error& error) {
      return fail("line " + std::to_string(lines) + ": " + error.what());
    }
    affected += count.integer();
  }
  connection.call("Execute", "COMMIT");
  std::cout << counted(affected, "row") << " affected by "
            << counted(lines, "line") << '\n';
  return succeed();
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool per_line = !arguments.empty() && arguments[0] == "--bind-lines";
  if (per_line) arguments.erase(arguments.begin());
  if (arguments.size() < 2 || (per_line && arguments.size() > 2)) {
    std::cerr << "usage: query CONNECTION STATEMENT [VALUE...]\n"
                 "       query --bind-lines CONNECTION STATEMENT <LINES\n";
    return 2;
  }
  try {
    std::vector<Value> values;
    for (std::size_t i = 2; i < arguments.size(); ++i) {
      values.push_back(value_of(arguments[i]));
    }
    const Object connection("ZIRDB.Connection");
    connection.call("Open", arguments[0]);
    return per_line ? run_per_line(connection, arguments[1])
                    : run_statement(connection, arguments[1], values);
  } catch (const std::exception& error) {
    return fail(error.what());
  }
}
