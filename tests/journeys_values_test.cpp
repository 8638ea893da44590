// SPDX-License-Identifier: MIT
//
// Values on their way through a real driver and back: every data type code,
// NULL, empty values, numbers at their limits, and text that is not UTF-8.

#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/database.h"

namespace zirdb_test {
namespace {

constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
constexpr char kGuidText[] = "{00112233-4455-6677-8899-aabbccddeeff}";
// Beyond U+FFFF, and a letter with a combining accent.
constexpr char kUnicode[] = "na\u00EFve \U0001F600 e\u0301 \U0010FFFF";

// What is sent in which column, what the parameter holds afterwards and what
// the column holds.
struct Sent {
  const char* column;
  DataType type;
  ZirdbOdbcValue value;
  ZirdbOdbcValue read_back;
  ZirdbOdbcValue arrived;
};

std::ostream& operator<<(std::ostream& out, const Sent& sent) {
  out << "type " << sent.type << " in column " << sent.column << ", ";
  PrintTo(sent.value, &out);
  return out;
}

// A table with one column per kind of value.
class JourneyValues : public Journey {
 protected:
  void SetUp() override {
    Journey::SetUp();
    if (IsSkipped()) return;
    db().run("CREATE TABLE v (id INTEGER, n INTEGER, b BIGINT, f " +
             std::string(driver().boolean_type) + ", d " +
             driver().double_type + ", t " + driver().text_type + ", x " +
             driver().blob_type + ")");
  }

  // A statement that puts its parameter into `column` of a new row.
  std::string insert(const std::string& column) {
    return "INSERT INTO v (id, " + column + ") VALUES (" +
           std::to_string(++row_) + ", ?)";
  }
  // What the newest row has in `column`.
  ZirdbOdbcValue stored(const std::string& column) {
    return db().value_of("SELECT " + column +
                         " FROM v WHERE id = " + std::to_string(row_));
  }

  void expect_arrival(const Sent& sent) {
    Parameters parameters = {input(sent.type, sent.value)};
    db().run(insert(sent.column), parameters);
    EXPECT_EQ(parameters[0].value, sent.read_back) << sent;
    EXPECT_EQ(stored(sent.column), sent.arrived) << sent;
  }

  // What a boolean column shows.
  ZirdbOdbcValue shown(bool value) const {
    return driver().shows_booleans_as_text ? text(value ? "1" : "0")
                                           : boolean(value);
  }

 private:
  int row_ = 0;
};

TEST_P(JourneyValues, EveryTypeCodeArrivesInAColumnOfItsType) {
  const std::string binary("\0\x01\xFF'\\", 5);
  const Sent rows[] = {
      {"n", kInteger, integer(7), integer(7), integer(7)},
      {"n", kInteger, integer(INT32_MIN), integer(INT32_MIN),
       integer(INT32_MIN)},
      {"n", kInteger, integer(INT32_MAX), integer(INT32_MAX),
       integer(INT32_MAX)},
      {"b", kBigint, integer(0), integer(0), integer(0)},
      {"b", kBigint, integer(kSmallest), integer(kSmallest),
       integer(kSmallest)},
      {"b", kBigint, integer(kLargest), integer(kLargest), integer(kLargest)},
      {"f", kBoolean, boolean(true), boolean(true), shown(true)},
      {"f", kBoolean, boolean(false), boolean(false), shown(false)},
      {"t", kVarchar, text(kUnicode), text(kUnicode), text(kUnicode)},
      {"t", kVarwchar, text(kUnicode), text(kUnicode), text(kUnicode)},
      {"t", kGuid, text(kGuidText), text(kGuidText), text(kGuidText)},
      {"x", kVarbinary, bytes(binary), bytes(binary), bytes(binary)},
  };
  for (const Sent& row : rows) expect_arrival(row);
}

TEST_P(JourneyValues, WithoutATypeCodeTheKindOfTheValueDecides) {
  const std::string binary("\0\x01\xFF'\\", 5);
  const Sent rows[] = {
      {"f", kByKind, boolean(true), boolean(true), shown(true)},
      {"f", kByKind, boolean(false), boolean(false), shown(false)},
      {"b", kByKind, integer(kSmallest), integer(kSmallest),
       integer(kSmallest)},
      {"b", kByKind, integer(kLargest), integer(kLargest), integer(kLargest)},
      {"d", kByKind, real(0.1), real(0.1), real(0.1)},
      {"t", kByKind, text(kUnicode), text(kUnicode), text(kUnicode)},
      {"x", kByKind, bytes(binary), bytes(binary), bytes(binary)},
      {"t", kByKind, null_value(), null_value(), null_value()},
  };
  for (const Sent& row : rows) expect_arrival(row);
}

TEST_P(JourneyValues, AnIntegerIsSentAsItsLow32Bits) {
  expect_arrival({"n", kInteger, integer(4294967297), integer(1), integer(1)});
}

TEST_P(JourneyValues, ABooleanThatHoldsNoBoolIsSentAsFalse) {
  expect_arrival({"f", kBoolean, integer(1), boolean(false), shown(false)});
}

TEST_P(JourneyValues, ANullOfEveryTypeArrivesAsNull) {
  const Sent rows[] = {
      {"n", kInteger, null_value(), null_value(), null_value()},
      {"b", kBigint, null_value(), null_value(), null_value()},
      {"f", kBoolean, null_value(), null_value(), null_value()},
      {"t", kVarchar, null_value(), null_value(), null_value()},
      {"t", kVarwchar, null_value(), null_value(), null_value()},
      {"t", kGuid, null_value(), null_value(), null_value()},
      {"x", kVarbinary, null_value(), null_value(), null_value()},
      {"n", kByKind, null_value(), null_value(), null_value()},
      {"d", kByKind, null_value(), null_value(), null_value()},
      {"x", kByKind, null_value(), null_value(), null_value()},
  };
  for (const Sent& row : rows) expect_arrival(row);
}

TEST_P(JourneyValues, ANullColumnOfEveryTypeIsNull) {
  db().run("INSERT INTO v (id) VALUES (1)");

  const ZirdbOdbcResult result = db().run("SELECT n, b, f, d, t, x FROM v");

  ASSERT_EQ(result.rows.size(), 1u);
  for (const ZirdbOdbcValue& value : result.rows[0]) {
    EXPECT_EQ(value, null_value());
  }
}

TEST_P(JourneyValues, EmptyLiteralsAreEmptyAndNotNull) {
  db().run("INSERT INTO v (id, t, x) VALUES (1, '', " +
           std::string(driver().server == nullptr ? "x''" : "''") + ")");

  EXPECT_EQ(db().value_of("SELECT t FROM v"), text(""));
  EXPECT_EQ(db().value_of("SELECT x FROM v"), bytes(""));
}

TEST_P(JourneyValues, AnEmptyWideTextArrivesEmpty) {
  expect_arrival({"t", kVarwchar, text(""), text(""), text("")});
}

TEST_P(JourneyValues, OtherEmptyInputsHaveNoBufferAndTheDriverDecides) {
  const Sent rows[] = {
      {"t", kVarchar, text(""), text(""), null_value()},
      {"t", kGuid, text(""), text(""), null_value()},
      {"t", kByKind, text(""), text(""), null_value()},
      {"x", kVarbinary, bytes(""), bytes(""), null_value()},
      {"x", kByKind, bytes(""), bytes(""), null_value()},
  };
  for (const Sent& row : rows) {
    if (driver().empty_input == EmptyInput::ArrivesAsNull) {
      expect_arrival(row);
    } else {
      EXPECT_EQ(db().error_of(insert(row.column), {input(row.type, row.value)}),
                "HY000: unexpected NULL parameter value")
          << row;
    }
  }
}

TEST_P(JourneyValues, DoublesArriveToTheDriversPrecision) {
  const double rows[] = {0.1,
                         1.0 / 3,
                         -123456789.123456789,
                         1e300,
                         -1e-300,
                         DBL_MAX,
                         -DBL_MAX,
                         DBL_MIN,
                         DBL_TRUE_MIN,
                         DBL_EPSILON,
                         9007199254740993.0,
                         0.0};
  for (const double row : rows) {
    double expected = row;
    if (driver().keeps_only_15_digits) {
      // DBL_MAX is rounded up, and so becomes infinite.
      char digits[32];
      std::snprintf(digits, sizeof digits, "%.15g", row);
      expected = std::strtod(digits, nullptr);
    }
    expect_arrival({"d", kByKind, real(row), real(row), real(expected)});
  }
}

TEST_P(JourneyValues, NegativeZeroKeepsItsSignWhereTheDatabaseDoes) {
  bool keeps = driver().keeps_negative_zero;
  if (&driver() == &kMariadb) {
    // From 11 on it keeps the sign.
    keeps = std::stoi(db().value_of("SELECT VERSION()").text_value) >= 11;
  }

  expect_arrival(
      {"d", kByKind, real(-0.0), real(-0.0), real(keeps ? -0.0 : 0.0)});
}

TEST_P(JourneyValues, ParametersCompareWithColumns) {
  db().run("INSERT INTO v (id, n, t) VALUES (1, 10, 'ten')");
  db().run("INSERT INTO v (id, n, t) VALUES (2, 20, 'twenty')");

  EXPECT_EQ(db().value_of("SELECT id FROM v WHERE n > ? AND t = ?",
                          {input(kInteger, integer(15)),
                           input(kVarchar, text("twenty"))}),
            integer(2));
}

TEST_P(JourneyValues, InvalidUtf8InAVarcharIsRefusedOrKept) {
  const char* const rows[] = {"\x80", "a\xC3", "\xC0\x80", "\xF4\x90\x80\x80",
                              "\xFF\xFE"};
  for (const char* row : rows) {
    if (driver().invalid_utf8_state == nullptr) {
      expect_arrival({"t", kVarchar, text(row), text(row), text(row)});
    } else {
      const std::string error =
          db().error_of(insert("t"), {input(kVarchar, text(row))});
      EXPECT_EQ(error.substr(0, 7),
                std::string(driver().invalid_utf8_state) + ": ")
          << error;
    }
  }
}

TEST_P(JourneyValues, ASurrogateEncodedInAVarcharIsRefusedOrKept) {
  const std::string surrogate = "\xED\xA0\x80";
  if (driver().accepts_surrogates_in_utf8) {
    expect_arrival(
        {"t", kVarchar, text(surrogate), text(surrogate), text(surrogate)});
  } else {
    const std::string error =
        db().error_of(insert("t"), {input(kVarchar, text(surrogate))});
    EXPECT_EQ(error.substr(0, 7),
              std::string(driver().invalid_utf8_state) + ": ")
        << error;
  }
}

TEST_P(JourneyValues, InvalidUtf8InAVarwcharThrowsAndTheConnectionGoesOn) {
  const char* const rows[] = {"\x80", "a\xC3", "\xED\xA0\x80",
                              "\xF4\x90\x80\x80"};
  for (const char* row : rows) {
    EXPECT_THROW(db().run(insert("t"), {input(kVarwchar, text(row))}),
                 std::range_error);
  }

  expect_arrival({"t", kVarwchar, text("fine"), text("fine"), text("fine")});
  // An abandoned statement would keep the table in use.
  db().run("DROP TABLE v");
}

TEST_P(JourneyValues, AVarcharEndsAtItsFirstNul) {
  const std::string with_nul("a\0b", 3);
  expect_arrival({"t", kVarchar, text(with_nul), text("a"), text("a")});
}

TEST_P(JourneyValues, AVarwcharWithANulIsShownToItsFirstNul) {
  const std::string with_nul("a\0b", 3);
  expect_arrival({"t", kVarwchar, text(with_nul), text(with_nul), text("a")});

  // What is stored behind the NUL, if anything, is the driver's affair.
  const std::string bytes_of_t = driver().server == nullptr
                                     ? "length(CAST(t AS BLOB))"
                                     : "octet_length(t)";
  EXPECT_EQ(stored(bytes_of_t), integer(driver().stored_of_a_nul_b));
}

ZIRDB_FOR_EVERY_DRIVER(JourneyValues);

}  // namespace
}  // namespace zirdb_test
