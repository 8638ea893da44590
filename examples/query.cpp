// SPDX-License-Identifier: MIT
//
// query: one SQL statement against any ODBC database, from the command line.
//
//   query CONNECTION STATEMENT [VALUE...]
//       prints the rows as a table; the values are bound to the statement's
//       markers
//   query --bind-lines CONNECTION STATEMENT
//       executes once per line of standard input, its tab-separated fields
//       bound to the markers
//
// An empty value or field is NULL. Errors go to standard error, one line each.
// Exit status: 0 success, 1 the database refused, 2 wrong usage.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zirdb_odbc.h"

namespace {

constexpr std::int64_t kVarwchar = 202;
constexpr std::int64_t kInput = 1;
constexpr std::size_t kWidestColumn = 60;

// Closes what zirdb_odbc_open opened.
class Connection {
 public:
  explicit Connection(const std::string& connection_string) {
    zirdb_odbc_open(connection_string, &handle_, &error_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { zirdb_odbc_close(handle_); }

  void* handle() const { return handle_; }  // null when it did not open
  const std::string& error() const { return error_; }

 private:
  void* handle_ = nullptr;
  std::string error_;
};

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

std::string shown(const ZirdbOdbcValue& value) {
  switch (value.kind) {
    case ZirdbOdbcValueKind::Null:
      return "NULL";
    case ZirdbOdbcValueKind::Bool:
      return value.bool_value ? "true" : "false";
    case ZirdbOdbcValueKind::Int64:
      return std::to_string(value.int64_value);
    case ZirdbOdbcValueKind::Double: {
      char text[32];
      std::snprintf(text, sizeof text, "%.15g", value.double_value);
      return text;
    }
    case ZirdbOdbcValueKind::Text:
      return fitted(value.text_value);
    case ZirdbOdbcValueKind::Binary:
      return fitted(hex(value.binary_value));
  }
  return "?";
}

bool is_number(const ZirdbOdbcValue& value) {
  return value.kind == ZirdbOdbcValueKind::Int64 ||
         value.kind == ZirdbOdbcValueKind::Double;
}

std::string counted(std::int64_t count, std::string_view noun) {
  return std::to_string(count) + " " + std::string(noun) +
         (count == 1 ? "" : "s");
}

void print_table(const ZirdbOdbcResult& result) {
  const std::size_t columns = result.columns.size();
  std::vector<std::string> names;
  std::vector<std::size_t> widths;
  for (const ZirdbOdbcColumn& column : result.columns) {
    names.push_back(fitted(column.name));
    widths.push_back(width(names.back()));
  }
  std::vector<std::vector<std::string>> cells;
  for (const auto& row : result.rows) {
    cells.emplace_back();
    for (std::size_t i = 0; i < columns; ++i) {
      cells.back().push_back(shown(row[i]));
      widths[i] = std::max(widths[i], width(cells.back().back()));
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
    const bool right = !result.rows.empty() && is_number(result.rows[0][i]);
    print(i, names[i], right);
  }
  std::cout << '\n';
  for (std::size_t i = 0; i < columns; ++i) {
    print(i, std::string(widths[i], '-'), false);
  }
  std::cout << '\n';
  for (std::size_t row = 0; row < cells.size(); ++row) {
    for (std::size_t i = 0; i < columns; ++i) {
      print(i, cells[row][i], is_number(result.rows[row][i]));
    }
    std::cout << '\n';
  }
  std::cout << "(" << counted(static_cast<std::int64_t>(cells.size()), "row")
            << ")\n";
}

// Wide text, because every driver agrees on what UTF-16 means.
ZirdbOdbcParameter text_parameter(std::string text) {
  ZirdbOdbcParameter parameter;
  parameter.type = kVarwchar;
  parameter.direction = kInput;
  if (!text.empty()) parameter.value.kind = ZirdbOdbcValueKind::Text;
  parameter.value.text_value = std::move(text);
  return parameter;
}

std::vector<ZirdbOdbcParameter> parameters_of(const std::string& line) {
  std::vector<ZirdbOdbcParameter> parameters;
  std::size_t start = 0;
  for (;;) {
    const std::size_t tab = line.find('\t', start);
    parameters.push_back(text_parameter(line.substr(start, tab - start)));
    if (tab == std::string::npos) return parameters;
    start = tab + 1;
  }
}

int run_statement(const Connection& connection, const std::string& statement,
                  const std::vector<std::string>& values) {
  std::vector<ZirdbOdbcParameter> parameters;
  parameters.reserve(values.size());
  for (const std::string& value : values) {
    parameters.push_back(text_parameter(value));
  }
  ZirdbOdbcResult result;
  if (!zirdb_odbc_execute(connection.handle(), statement, &parameters,
                          &result)) {
    return fail(result.error);
  }
  if (result.columns.empty()) {
    std::cout << counted(result.rows_affected, "row") << " affected\n";
  } else {
    print_table(result);
  }
  return succeed();
}

// All lines or none: one transaction, which a failing line leaves unfinished
// and closing the connection rolls back.
int run_per_line(const Connection& connection, const std::string& statement) {
  ZirdbOdbcResult result;
  if (!zirdb_odbc_execute(connection.handle(), "BEGIN", &result)) {
    return fail(result.error);
  }
  std::int64_t lines = 0;
  std::int64_t affected = 0;
  for (std::string line; std::getline(std::cin, line);) {
    ++lines;
    auto parameters = parameters_of(line);
    if (!zirdb_odbc_execute(connection.handle(), statement, &parameters,
                            &result)) {
      return fail("line " + std::to_string(lines) + ": " + result.error);
    }
    affected += result.rows_affected;
  }
  if (!zirdb_odbc_execute(connection.handle(), "COMMIT", &result)) {
    return fail(result.error);
  }
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
    const Connection connection(arguments[0]);
    if (connection.handle() == nullptr) return fail(connection.error());
    if (per_line) return run_per_line(connection, arguments[1]);
    return run_statement(connection, arguments[1],
                         {arguments.begin() + 2, arguments.end()});
  } catch (const std::exception& error) {
    return fail(error.what());  // a value that is not UTF-8, or no memory
  }
}
