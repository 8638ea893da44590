// SPDX-License-Identifier: MIT
//
// The values of the data sets, and the SQL that gives a SQLite table the same.

#include "bench_data.h"

#include <sql.h>
#include <sqlext.h>

namespace bench {
namespace {

Column integer_column(const char* name, const char* declaration,
                      std::int16_t sql_type, std::int64_t factor,
                      std::int64_t offset) {
  Column column;
  column.name = name;
  column.declaration = declaration;
  column.sql_type = sql_type;
  column.size = sql_type == SQL_BIGINT ? 19 : 10;
  column.kind = Kind::kInteger;
  column.factor = factor;
  column.offset = offset;
  return column;
}

Column double_column(const char* name) {
  Column column;
  column.name = name;
  column.declaration = "DOUBLE";
  column.sql_type = SQL_DOUBLE;
  column.size = 15;
  column.kind = Kind::kDouble;
  return column;
}

Column bytes_column(const char* name, const char* declaration,
                    std::int16_t sql_type, std::uint64_t size, Kind kind,
                    std::vector<std::string> rotation) {
  Column column;
  column.name = name;
  column.declaration = declaration;
  column.sql_type = sql_type;
  column.size = size;
  column.kind = kind;
  column.rotation = std::move(rotation);
  return column;
}

Column nullable(Column column) {
  column.sometimes_null = true;
  return column;
}

/// 32 bytes each, zero and non-zero, no two values alike.
std::vector<std::string> digests() {
  std::vector<std::string> values;
  for (unsigned value = 0; value < 8; ++value) {
    std::string digest;
    for (unsigned index = 0; index < 32; ++index) {
      digest += static_cast<char>((index * 37U + value * 11U) & 0xFFU);
    }
    values.push_back(digest);
  }
  return values;
}

/// 4096 bytes each: 64 lines of 64 bytes, the first with a few characters
/// beyond ASCII, the last naming the value.
std::vector<std::string> articles() {
  const std::string opening =
      "Caf\u00e9 \u201eK\u00f6ln\u201c: one long text, read in several pieces "
      "by every driver\n";
  const std::string line =
      "The quick brown fox jumps over the lazy dog, again and again...\n";
  std::vector<std::string> values;
  for (int value = 0; value < 8; ++value) {
    std::string article = opening;
    const std::string closing = "end of article " + std::to_string(value);
    while (article.size() + line.size() + closing.size() <= 4096) {
      article += line;
    }
    article.append(4096 - closing.size() - article.size(), '-');
    values.push_back(article + closing);
  }
  return values;
}

std::vector<DataSet> make_data_sets() {
  const std::vector<std::string> names = {
      "Mary Collins", "John Stewart", "Anna Kovalev", "Omar Haddad.",
      "Yuki Tanaka.", "Luis Herrera", "Nina Petrova", "Paul Whitman"};
  const std::vector<std::string> notes = {
      "Lieferung nach M\u00fcnchen, zweite T\u00fcr links, bitte klingeln",
      "Livraison \u00e0 domicile apr\u00e8s 18 h, code d\u2019entr\u00e9e 4711",
      "Entregar en la recepci\u00f3n; ma\u00f1ana por la ma\u00f1ana, gracias",
      "Leave the parcel with the neighbour at number 12, thank you.",
      "Pagamento gi\u00e0 effettuato; citt\u00e0 vecchia, secondo cortile",
      "Sm\u00f8rrebr\u00f8d og r\u00f8dgr\u00f8d til tolv personer p\u00e5 "
      "l\u00f8rdag aften",
      "\u6771\u4eac\u90fd\u5343\u4ee3\u7530\u533a\u4e38\u306e\u5185"
      "\u4e00\u4e01\u76ee, second floor, ask for Tanaka",
      "Price agreed at 1 250 \u20ac including 19 % tax, net in 30 days"};
  const std::vector<std::string> times = {
      "2024-01-31 23:59:59", "2024-02-29 00:00:00", "2024-03-15 12:34:56",
      "2024-05-01 08:00:30", "2024-07-04 17:45:10", "2024-09-22 06:15:00",
      "2024-11-11 11:11:11", "2024-12-31 21:30:45"};
  const std::vector<std::string> streets = {
      "12 Harbour Street",  "4 Mill Lane",        "77 Old Post Road",
      "250 Riverside Walk", "9 Station Approach", "31 Cathedral Square",
      "8 Long Meadow",      "165 North Parade"};
  const std::vector<std::string> states = {"open", "paid",   "sent", "back",
                                           "held", "closed", "new",  "lost"};

  return {
      {"mixed",
       {integer_column("id", "INTEGER", SQL_INTEGER, 1, 1),
        integer_column("serial", "BIGINT", SQL_BIGINT, 1000003, 5000000000),
        double_column("price"),
        bytes_column("name", "VARCHAR(12)", SQL_VARCHAR, 12, Kind::kText,
                     names),
        bytes_column("note", "VARCHAR(100)", SQL_VARCHAR, 100, Kind::kText,
                     notes),
        nullable(integer_column("quantity", "INTEGER", SQL_INTEGER, 3, -7)),
        bytes_column("changed", "TIMESTAMP", SQL_TYPE_TIMESTAMP, 19,
                     Kind::kText, times),
        bytes_column("digest", "VARBINARY(32)", SQL_VARBINARY, 32, Kind::kBlob,
                     digests())}},
      {"narrow",
       {integer_column("a", "INTEGER", SQL_INTEGER, 1, 0),
        integer_column("b", "INTEGER", SQL_INTEGER, -2, 9)}},
      {"ascii",
       {integer_column("id", "INTEGER", SQL_INTEGER, 1, 1),
        bytes_column("name", "VARCHAR(12)", SQL_VARCHAR, 12, Kind::kText,
                     names),
        bytes_column("street", "VARCHAR(40)", SQL_VARCHAR, 40, Kind::kText,
                     streets),
        bytes_column("state", "VARCHAR(10)", SQL_VARCHAR, 10, Kind::kText,
                     states)}},
      {"wide",
       {bytes_column("body", "TEXT", SQL_LONGVARCHAR, 65535, Kind::kText,
                     articles())}},
  };
}

std::string quoted(const std::string& text) {
  std::string literal = "'";
  for (const char c : text) {
    literal += c;
    if (c == '\'') {
      literal += c;
    }
  }
  return literal + "'";
}

std::string hex_literal(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string literal = "X'";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    literal += kDigits[byte >> 4];
    literal += kDigits[byte & 15];
  }
  return literal + "'";
}

/// The value of `column` as an SQL expression over the row number `r`.
std::string expression(const Column& column) {
  std::string value;
  switch (column.kind) {
    case Kind::kInteger:
      value = std::to_string(column.factor) + " * r + " +
              std::to_string(column.offset);
      break;
    case Kind::kDouble:
      value = "0.25 * r + 0.5";
      break;
    case Kind::kText:
    case Kind::kBlob:
      value = "CASE r & 7";
      for (std::size_t index = 0; index < column.rotation.size(); ++index) {
        const std::string& bytes = column.rotation[index];
        value +=
            " WHEN " + std::to_string(index) + " THEN " +
            (column.kind == Kind::kText ? quoted(bytes) : hex_literal(bytes));
      }
      value += " END";
      break;
  }
  return column.sometimes_null
             ? "CASE WHEN r & 3 = 3 THEN NULL ELSE " + value + " END"
             : value;
}

}  // namespace

const std::vector<DataSet>& data_sets() {
  static const std::vector<DataSet> sets = make_data_sets();
  return sets;
}

const DataSet* find_data_set(std::string_view name) {
  for (const DataSet& data : data_sets()) {
    if (data.name == name) {
      return &data;
    }
  }
  return nullptr;
}

std::int64_t checksum(const DataSet& data, std::int64_t rows) {
  std::int64_t sum = 0;
  for (std::int64_t row = 0; row < rows; ++row) {
    for (const Column& column : data.columns) {
      if (column.is_null(row)) {
        sum += 1;
      } else if (column.kind == Kind::kInteger) {
        sum += column.integer(row);
      } else if (column.kind == Kind::kDouble) {
        sum += static_cast<std::int64_t>(column.number(row));
      } else {
        sum += static_cast<std::int64_t>(column.bytes(row).size());
      }
    }
  }
  return sum;
}

std::string create_statement(const DataSet& data) {
  std::string sql = "CREATE TABLE " + data.name + " (";
  for (const Column& column : data.columns) {
    sql += (&column == &data.columns.front() ? "" : ", ") + column.name + " " +
           column.declaration;
  }
  return sql + ")";
}

std::string fill_statement(const DataSet& data, std::int64_t rows) {
  std::string values;
  for (const Column& column : data.columns) {
    values += (values.empty() ? "" : ", ") + expression(column);
  }
  return "INSERT INTO " + data.name +
         " WITH RECURSIVE n(r) AS (SELECT 0 UNION ALL SELECT r + 1 FROM n "
         "WHERE r + 1 < " +
         std::to_string(rows) + ") SELECT " + values + " FROM n";
}

}  // namespace bench
