// SPDX-License-Identifier: MIT
//
// What SQLBindParameter is called with and what the driver finds in the buffers
// when the statement is executed.
//
// Sections: one binding as text; every combination of type code, kind,
// direction and declared size; particular values; directions; many parameters.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "support/odbc_parameters.h"
#include "support/scripted_odbc_fixture.h"

namespace {

using namespace odbc_parameters;
using namespace scripted_odbc;
using namespace std::string_literals;

constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
// Meets a number that someone reads as 32 bits.
constexpr std::int64_t kBeyond32Bits = std::int64_t{1} << 32;

// ---------------------------------------------------------------------------
// One binding as text
// ---------------------------------------------------------------------------

/// A binding but for its direction. `buffer` are the bytes at execution,
/// nullopt a null pointer.
struct Bound {
  int c_type;
  int sql_type;
  std::int64_t column_size;
  std::optional<std::string> buffer;
  std::int64_t buffer_length;
  std::int64_t indicator;
};

std::string as_text(int direction, const Bound& bound) {
  return "direction " + std::to_string(direction) + ", C type " +
         std::to_string(bound.c_type) + ", SQL type " +
         std::to_string(bound.sql_type) + ", column size " +
         std::to_string(bound.column_size) + ", digits 0, buffer " +
         (bound.buffer ? escaped(*bound.buffer) : "null") + " of length " +
         std::to_string(bound.buffer_length) + ", indicator " +
         std::to_string(bound.indicator) + " at the bind and " +
         std::to_string(bound.indicator) + " at execution";
}

std::string as_text(const Call& bind, const Sent& sent) {
  return "direction " + std::to_string(sent.direction) + ", C type " +
         std::to_string(sent.c_type) + ", SQL type " +
         std::to_string(sent.sql_type) + ", column size " +
         std::to_string(sent.column_size) + ", digits " +
         std::to_string(sent.decimal_digits) + ", buffer " +
         (sent.buffer_is_null ? "null" : escaped(sent.buffer)) + " of length " +
         std::to_string(sent.buffer_length) + ", indicator " +
         std::to_string(bind.number("indicator")) + " at the bind and " +
         std::to_string(sent.indicator) + " at execution";
}

Bound as_slong(std::int32_t value, std::int64_t indicator) {
  return {SQL_C_SLONG, SQL_INTEGER, 10, bytes_of(value), 4, indicator};
}
Bound as_sbigint(std::int64_t value, std::int64_t indicator) {
  return {SQL_C_SBIGINT, SQL_BIGINT, 19, bytes_of(value), 8, indicator};
}
Bound as_double(double value) {
  return {SQL_C_DOUBLE, SQL_DOUBLE, 15, bytes_of(value), 8, 0};
}
Bound as_bit(unsigned char value, std::int64_t indicator) {
  return {SQL_C_BIT, SQL_BIT, 1, bytes_of(value), 1, indicator};
}
/// `characters` without the NUL that always follows them.
Bound as_char(std::int64_t column_size, const std::string& characters,
              std::int64_t indicator) {
  return {SQL_C_CHAR,
          SQL_VARCHAR,
          column_size,
          characters + '\0',
          static_cast<std::int64_t>(characters.size()) + 1,
          indicator};
}
/// Text without characters has no buffer, and still a length of 1.
Bound as_empty_char(std::int64_t column_size, std::int64_t indicator) {
  return {SQL_C_CHAR, SQL_VARCHAR, column_size, std::nullopt, 1, indicator};
}
/// `content` with the terminator, where there is one.
Bound as_wide(std::int64_t column_size, const std::u16string& content,
              std::int64_t indicator) {
  return {SQL_C_WCHAR,
          SQL_WVARCHAR,
          column_size,
          bytes_of(content),
          static_cast<std::int64_t>(2 * content.size()),
          indicator};
}
Bound as_binary(std::int64_t column_size, const std::string& content,
                std::int64_t indicator) {
  return {SQL_C_BINARY,
          SQL_VARBINARY,
          column_size,
          content,
          static_cast<std::int64_t>(content.size()),
          indicator};
}
Bound as_empty_binary(std::int64_t column_size, std::int64_t indicator) {
  return {SQL_C_BINARY, SQL_VARBINARY, column_size, std::nullopt, 0, indicator};
}

std::string zeros(std::size_t count) { return std::string(count, '\0'); }
std::u16string zero_units(std::size_t count) {
  return std::u16string(count, u'\0');
}

class Binding : public ScriptedOdbc {
 protected:
  /// Executes a statement with this parameter alone and tells how it was bound.
  std::string bound(const ZirdbOdbcParameter& parameter) {
    if (connection_ == nullptr) connection_ = open();
    script().clear_log();
    Parameters parameters{parameter};
    ZirdbOdbcResult result;
    if (!zirdb_odbc_execute(connection_, "{CALL p(?)}", &parameters, &result)) {
      return "failed: " + result.error;
    }
    return as_text(script().call("SQLBindParameter(1)"), script().sent(1));
  }

 private:
  void* connection_ = nullptr;
};

// ---------------------------------------------------------------------------
// Every combination of type code, kind, direction and declared size
// ---------------------------------------------------------------------------

/// Every payload holds something, so that a read of the wrong one shows. The
/// text has 6 bytes and 5 UTF-16 units; the number's low 32 bits are 7.
ZirdbOdbcValue loaded(std::int32_t kind) {
  return {static_cast<Kind>(kind), true, kBeyond32Bits + 7, 1.5, "h\u00E9llo",
          {1, 2, 3, 4, 5}};
}

using Numbers = std::vector<std::int64_t>;

// Type codes; those of kNoType say nothing, two of them only by their high
// bits.
const Numbers kTexts{kVarchar, kGuid};
const Numbers kNoType{kByKind,
                      1,
                      12,
                      129,
                      201,
                      -1,
                      kBeyond32Bits + kInteger,
                      kBeyond32Bits + kVarchar};
// Directions; 5, -1 and the last one mean nothing and are taken as inputs.
const Numbers kIn{kUnknown, kInput, 5, -1, kBeyond32Bits + kOutput};
const Numbers kInOut{kInputOutput};
const Numbers kOut{kOutput, kReturnValue};
const Numbers kIntoDriver{kUnknown,    kInput, 5, -1, kBeyond32Bits + kOutput,
                          kInputOutput};
const Numbers kFromDriver{kInputOutput, kOutput, kReturnValue};
const Numbers kAnyDirection{
    kUnknown,     kInput,  5,           -1, kBeyond32Bits + kOutput,
    kInputOutput, kOutput, kReturnValue};
// Kinds; 99 is none.
const Numbers kNull{0};
const Numbers kNotNull{1, 2, 3, 4, 5, 99};
const Numbers kAnyKind{0, 1, 2, 3, 4, 5, 99};
// Declared sizes.
const Numbers kNone{0, -1, kSmallest};
const Numbers kAnySize{0, -1, kSmallest, 3, 10};

/// One binding and all the combinations that it holds for.
struct Row {
  Numbers types;
  Numbers kinds;
  Numbers directions;
  Numbers sizes;
  Bound bound;
};

const std::vector<Row>& rows() {
  static const std::vector<Row> table{
      // Whole numbers: the payload int64_value, whatever the kind.
      {{kInteger}, kNotNull, kAnyDirection, kAnySize, as_slong(7, 0)},
      {{kInteger}, kNull, kIntoDriver, kAnySize, as_slong(7, SQL_NULL_DATA)},
      {{kInteger}, kNull, kOut, kAnySize, as_slong(7, 0)},
      {{kBigint},
       kNotNull,
       kAnyDirection,
       kAnySize,
       as_sbigint(kBeyond32Bits + 7, 0)},
      {{kBigint},
       kNull,
       kIntoDriver,
       kAnySize,
       as_sbigint(kBeyond32Bits + 7, SQL_NULL_DATA)},
      {{kBigint}, kNull, kOut, kAnySize, as_sbigint(kBeyond32Bits + 7, 0)},

      // Booleans: only a Bool is read; every other kind is false.
      {{kBoolean}, {1}, kAnyDirection, kAnySize, as_bit(1, 0)},
      {{kBoolean}, {2, 3, 4, 5, 99}, kAnyDirection, kAnySize, as_bit(0, 0)},
      {{kBoolean}, kNull, kIntoDriver, kAnySize, as_bit(0, SQL_NULL_DATA)},
      {{kBoolean}, kNull, kOut, kAnySize, as_bit(0, 0)},

      // 8-bit text. In/out and output buffers have one character more than the
      // column size, besides the terminator.
      {kTexts, kNotNull, kIn, kNone, as_char(6, "h\u00E9llo", SQL_NTS)},
      {kTexts, kNotNull, kIn, {3}, as_char(3, "h\u00E9llo", SQL_NTS)},
      {kTexts, kNotNull, kIn, {10}, as_char(10, "h\u00E9llo", SQL_NTS)},
      {kTexts, kNull, kIn, kNone, as_char(6, "h\u00E9llo", SQL_NULL_DATA)},
      {kTexts, kNull, kIn, {3}, as_char(3, "h\u00E9llo", SQL_NULL_DATA)},
      {kTexts, kNull, kIn, {10}, as_char(10, "h\u00E9llo", SQL_NULL_DATA)},
      {kTexts, kNotNull, kInOut, kNone,
       as_char(6, "h\u00E9llo" + zeros(1), SQL_NTS)},
      {kTexts, kNotNull, kInOut, {3}, as_char(3, "h\u00E9l", SQL_NTS)},
      {kTexts,
       kNotNull,
       kInOut,
       {10},
       as_char(10, "h\u00E9llo" + zeros(5), SQL_NTS)},
      {kTexts, kNull, kInOut, kNone,
       as_char(6, "h\u00E9llo" + zeros(1), SQL_NULL_DATA)},
      {kTexts, kNull, kInOut, {3}, as_char(3, "h\u00E9l", SQL_NULL_DATA)},
      {kTexts,
       kNull,
       kInOut,
       {10},
       as_char(10, "h\u00E9llo" + zeros(5), SQL_NULL_DATA)},
      {kTexts, kAnyKind, kOut, kNone, as_char(6, zeros(7), 0)},
      {kTexts, kAnyKind, kOut, {3}, as_char(3, zeros(4), 0)},
      {kTexts, kAnyKind, kOut, {10}, as_char(10, zeros(11), 0)},

      // Wide text: sizes in units, indicators in bytes, those of in/out ones
      // from the text before it is cut.
      {{kVarwchar}, kNotNull, kIn, kNone, as_wide(5, u"h\u00E9llo\0"s, 10)},
      {{kVarwchar}, kNotNull, kIn, {3}, as_wide(3, u"h\u00E9llo\0"s, 10)},
      {{kVarwchar}, kNotNull, kIn, {10}, as_wide(10, u"h\u00E9llo\0"s, 10)},
      {{kVarwchar},
       kNull,
       kIn,
       kNone,
       as_wide(5, u"h\u00E9llo\0"s, SQL_NULL_DATA)},
      {{kVarwchar},
       kNull,
       kIn,
       {3},
       as_wide(3, u"h\u00E9llo\0"s, SQL_NULL_DATA)},
      {{kVarwchar},
       kNull,
       kIn,
       {10},
       as_wide(10, u"h\u00E9llo\0"s, SQL_NULL_DATA)},
      {{kVarwchar}, kNotNull, kInOut, kNone, as_wide(5, u"h\u00E9llo\0"s, 10)},
      {{kVarwchar}, kNotNull, kInOut, {3}, as_wide(3, u"h\u00E9ll", 10)},
      {{kVarwchar},
       kNotNull,
       kInOut,
       {10},
       as_wide(10, u"h\u00E9llo" + zero_units(6), 10)},
      {{kVarwchar},
       kNull,
       kInOut,
       kNone,
       as_wide(5, u"h\u00E9llo\0"s, SQL_NULL_DATA)},
      {{kVarwchar},
       kNull,
       kInOut,
       {3},
       as_wide(3, u"h\u00E9ll", SQL_NULL_DATA)},
      {{kVarwchar},
       kNull,
       kInOut,
       {10},
       as_wide(10, u"h\u00E9llo" + zero_units(6), SQL_NULL_DATA)},
      {{kVarwchar}, kAnyKind, kOut, kNone, as_wide(5, zero_units(6), 0)},
      {{kVarwchar}, kAnyKind, kOut, {3}, as_wide(3, zero_units(4), 0)},
      {{kVarwchar}, kAnyKind, kOut, {10}, as_wide(10, zero_units(11), 0)},

      // Bytes: no room beyond the column size.
      {{kVarbinary}, kNotNull, kIn, kNone, as_binary(5, "\1\2\3\4\5", 5)},
      {{kVarbinary}, kNotNull, kIn, {3}, as_binary(3, "\1\2\3\4\5", 5)},
      {{kVarbinary}, kNotNull, kIn, {10}, as_binary(10, "\1\2\3\4\5", 5)},
      {{kVarbinary},
       kNull,
       kIn,
       kNone,
       as_binary(5, "\1\2\3\4\5", SQL_NULL_DATA)},
      {{kVarbinary},
       kNull,
       kIn,
       {3},
       as_binary(3, "\1\2\3\4\5", SQL_NULL_DATA)},
      {{kVarbinary},
       kNull,
       kIn,
       {10},
       as_binary(10, "\1\2\3\4\5", SQL_NULL_DATA)},
      {{kVarbinary}, kNotNull, kInOut, kNone, as_binary(5, "\1\2\3\4\5", 5)},
      {{kVarbinary}, kNotNull, kInOut, {3}, as_binary(3, "\1\2\3", 5)},
      {{kVarbinary},
       kNotNull,
       kInOut,
       {10},
       as_binary(10, "\1\2\3\4\5" + zeros(5), 5)},
      {{kVarbinary},
       kNull,
       kInOut,
       kNone,
       as_binary(5, "\1\2\3\4\5", SQL_NULL_DATA)},
      {{kVarbinary}, kNull, kInOut, {3}, as_binary(3, "\1\2\3", SQL_NULL_DATA)},
      {{kVarbinary},
       kNull,
       kInOut,
       {10},
       as_binary(10, "\1\2\3\4\5" + zeros(5), SQL_NULL_DATA)},
      {{kVarbinary}, kAnyKind, kOut, kNone, as_binary(5, zeros(5), 0)},
      {{kVarbinary}, kAnyKind, kOut, {3}, as_binary(3, zeros(3), 0)},
      {{kVarbinary}, kAnyKind, kOut, {10}, as_binary(10, zeros(10), 0)},

      // By kind. Only Null looks at the direction.
      {kNoType, kNull, kIn, kNone, as_empty_char(1, SQL_NULL_DATA)},
      {kNoType, kNull, kIn, {3}, as_empty_char(3, SQL_NULL_DATA)},
      {kNoType, kNull, kIn, {10}, as_empty_char(10, SQL_NULL_DATA)},
      {kNoType, kNull, kFromDriver, kNone, as_char(1, zeros(2), SQL_NULL_DATA)},
      {kNoType, kNull, kFromDriver, {3}, as_char(3, zeros(4), SQL_NULL_DATA)},
      {kNoType,
       kNull,
       kFromDriver,
       {10},
       as_char(10, zeros(11), SQL_NULL_DATA)},
      {kNoType, {1}, kAnyDirection, kAnySize, as_bit(1, 0)},
      {kNoType, {2}, kAnyDirection, kAnySize, as_sbigint(kBeyond32Bits + 7, 0)},
      {kNoType, {3}, kAnyDirection, kAnySize, as_double(1.5)},
      {kNoType, {4}, kAnyDirection, kNone, as_char(6, "h\u00E9llo", SQL_NTS)},
      {kNoType, {4}, kAnyDirection, {3}, as_char(3, "h\u00E9llo", SQL_NTS)},
      {kNoType, {4}, kAnyDirection, {10}, as_char(10, "h\u00E9llo", SQL_NTS)},
      {kNoType, {5}, kAnyDirection, kNone, as_binary(5, "\1\2\3\4\5", 5)},
      {kNoType, {5}, kAnyDirection, {3}, as_binary(3, "\1\2\3\4\5", 5)},
      {kNoType, {5}, kAnyDirection, {10}, as_binary(10, "\1\2\3\4\5", 5)},
  };
  return table;
}

int odbc_direction(std::int64_t direction) {
  static const std::map<std::int64_t, int> table{
      {kInputOutput, SQL_PARAM_INPUT_OUTPUT},
      {kOutput, SQL_PARAM_OUTPUT},
      // Deliberate: SQL_RETURN_VALUE is not what a driver expects here.
      {kReturnValue, SQL_PARAM_OUTPUT},
      {kUnknown, SQL_PARAM_INPUT},
      {kInput, SQL_PARAM_INPUT},
      {5, SQL_PARAM_INPUT},
      {-1, SQL_PARAM_INPUT},
      {kBeyond32Bits + kOutput, SQL_PARAM_INPUT}};
  return table.at(direction);
}

/// Calls `visit` for every combination of a row.
template <typename Visit>
void for_each_combination(const Row& row, const Visit& visit) {
  for (const std::int64_t type : row.types) {
    for (const std::int64_t kind : row.kinds) {
      for (const std::int64_t direction : row.directions) {
        for (const std::int64_t size : row.sizes) {
          visit(parameter(type, direction, size,
                          loaded(static_cast<std::int32_t>(kind))));
        }
      }
    }
  }
}

TEST_F(Binding, EveryCombinationIsBoundAsItsRowSays) {
  for (const Row& row : rows()) {
    for_each_combination(row, [&](const ZirdbOdbcParameter& each) {
      EXPECT_EQ(bound(each), as_text(odbc_direction(each.direction), row.bound))
          << describe(each);
    });
  }
}

TEST_F(Binding, TheRowsNameEveryCombinationOnce) {
  std::map<std::tuple<std::int64_t, std::int64_t, std::int64_t, std::int64_t>,
           int>
      named;
  for (const Row& row : rows()) {
    for_each_combination(row, [&](const ZirdbOdbcParameter& each) {
      ++named[{each.type, static_cast<std::int64_t>(each.value.kind),
               each.direction, each.size}];
    });
  }
  for (const auto& [combination, times] : named) {
    EXPECT_EQ(times, 1) << testing::PrintToString(combination);
  }
  // Kind 99 is bound under the seven type codes that do not look at it.
  const std::size_t by_type = 7 * kAnyKind.size();
  const std::size_t by_kind = kNoType.size() * (kAnyKind.size() - 1);
  EXPECT_EQ(named.size(),
            (by_type + by_kind) * kAnyDirection.size() * kAnySize.size());
}

// ---------------------------------------------------------------------------
// Particular values
// ---------------------------------------------------------------------------

struct Example {
  const char* what;
  ZirdbOdbcParameter parameter;
  Bound bound;
};

class BindingExamples : public Binding {
 protected:
  void check(const std::vector<Example>& examples) {
    for (const Example& each : examples) {
      EXPECT_EQ(bound(each.parameter),
                as_text(odbc_direction(each.parameter.direction), each.bound))
          << each.what << ": " << describe(each.parameter);
    }
  }
};

TEST_F(BindingExamples, IntegersSendTheLow32Bits) {
  check({
      {"2^32 + 1", parameter(kInteger, kInput, 0, integer(4294967297)),
       as_slong(1, 0)},
      {"2^31", parameter(kInteger, kInput, 0, integer(2147483648)),
       as_slong(INT32_MIN, 0)},
      {"2^32 - 1", parameter(kInteger, kInput, 0, integer(4294967295)),
       as_slong(-1, 0)},
      {"minus one", parameter(kInteger, kInput, 0, integer(-1)),
       as_slong(-1, 0)},
      {"2^31 - 1", parameter(kInteger, kInput, 0, integer(INT32_MAX)),
       as_slong(INT32_MAX, 0)},
      {"smallest", parameter(kInteger, kInput, 0, integer(kSmallest)),
       as_slong(0, 0)},
      {"largest", parameter(kInteger, kInput, 0, integer(kLargest)),
       as_slong(-1, 0)},
  });
}

TEST_F(BindingExamples, NumbersKeepAllTheirBits) {
  check({
      {"smallest", parameter(kBigint, kInput, 0, integer(kSmallest)),
       as_sbigint(kSmallest, 0)},
      {"largest", parameter(kBigint, kInput, 0, integer(kLargest)),
       as_sbigint(kLargest, 0)},
      {"smallest by kind", parameter(kByKind, kInput, 0, integer(kSmallest)),
       as_sbigint(kSmallest, 0)},
      {"negative zero", parameter(kByKind, kInput, 0, real(-0.0)),
       as_double(-0.0)},
      {"infinity", parameter(kByKind, kInput, 0, real(-HUGE_VAL)),
       as_double(-HUGE_VAL)},
      {"no number", parameter(kByKind, kInput, 0, real(std::nan("7"))),
       as_double(std::nan("7"))},
      {"smallest above zero",
       parameter(kByKind, kInput, 0,
                 real(std::numeric_limits<double>::denorm_min())),
       as_double(std::numeric_limits<double>::denorm_min())},
  });
}

TEST_F(BindingExamples, BooleansSendZeroOrOne) {
  check({
      {"false", parameter(kBoolean, kInput, 0, boolean(false)), as_bit(0, 0)},
      {"true", parameter(kBoolean, kInput, 0, boolean(true)), as_bit(1, 0)},
      {"the number 1 is false, not NULL",
       parameter(kBoolean, kInput, 0, integer(1)), as_bit(0, 0)},
      {"false by kind", parameter(kByKind, kInput, 0, boolean(false)),
       as_bit(0, 0)},
  });
}

TEST_F(BindingExamples, EmptyTextAndBytes) {
  check({
      {"VARCHAR", parameter(kVarchar, kInput, 0, text("")),
       as_empty_char(1, SQL_NTS)},
      {"VARCHAR, size 4", parameter(kVarchar, kInput, 4, text("")),
       as_empty_char(4, SQL_NTS)},
      {"GUID", parameter(kGuid, kInput, 0, text("")),
       as_empty_char(1, SQL_NTS)},
      {"VARCHAR, NULL", parameter(kVarchar, kInput, 0, null_value()),
       as_empty_char(1, SQL_NULL_DATA)},
      {"VARCHAR in/out", parameter(kVarchar, kInputOutput, 0, text("")),
       as_char(1, zeros(2), SQL_NTS)},
      {"VARCHAR output", parameter(kVarchar, kOutput, 0, null_value()),
       as_char(1, zeros(2), 0)},
      {"VARCHAR output, size 10", parameter(kVarchar, kOutput, 10, text("")),
       as_char(10, zeros(11), 0)},
      // Deliberate: not raised to 1, unlike VARCHAR.
      {"VARWCHAR", parameter(kVarwchar, kInput, 0, text("")),
       as_wide(0, zero_units(1), 0)},
      {"VARWCHAR, size 4", parameter(kVarwchar, kInput, 4, text("")),
       as_wide(4, zero_units(1), 0)},
      {"VARWCHAR, NULL", parameter(kVarwchar, kInput, 0, null_value()),
       as_wide(0, zero_units(1), SQL_NULL_DATA)},
      {"VARWCHAR in/out", parameter(kVarwchar, kInputOutput, 0, text("")),
       as_wide(0, zero_units(1), 0)},
      {"VARWCHAR in/out, size 4",
       parameter(kVarwchar, kInputOutput, 4, text("")),
       as_wide(4, zero_units(5), 0)},
      {"VARWCHAR output", parameter(kVarwchar, kOutput, 0, null_value()),
       as_wide(0, zero_units(1), 0)},
      {"VARBINARY", parameter(kVarbinary, kInput, 0, bytes("")),
       as_empty_binary(1, 0)},
      {"VARBINARY, size 4", parameter(kVarbinary, kInput, 4, bytes("")),
       as_empty_binary(4, 0)},
      {"VARBINARY, NULL", parameter(kVarbinary, kInput, 0, null_value()),
       as_empty_binary(1, SQL_NULL_DATA)},
      {"VARBINARY in/out", parameter(kVarbinary, kInputOutput, 0, bytes("")),
       as_binary(1, zeros(1), 0)},
      {"VARBINARY output", parameter(kVarbinary, kOutput, 0, null_value()),
       as_binary(1, zeros(1), 0)},
      {"Text by kind", parameter(kByKind, kInput, 0, text("")),
       as_empty_char(0, SQL_NTS)},
      {"Text by kind, size 4", parameter(kByKind, kInput, 4, text("")),
       as_empty_char(4, SQL_NTS)},
      {"Text by kind, output", parameter(kByKind, kOutput, 0, text("")),
       as_empty_char(0, SQL_NTS)},
      {"Binary by kind", parameter(kByKind, kInput, 0, bytes("")),
       as_empty_binary(0, 0)},
      {"Binary by kind, size 4", parameter(kByKind, kInput, 4, bytes("")),
       as_empty_binary(4, 0)},
      {"Null by kind", parameter(kByKind, kInput, 0, null_value()),
       as_empty_char(1, SQL_NULL_DATA)},
  });
}

TEST_F(BindingExamples, TextIsSentWithItsEmbeddedNuls) {
  const ZirdbOdbcValue value = text(bytes_in("a\0b"));
  check({
      {"VARCHAR", parameter(kVarchar, kInput, 0, value),
       as_char(3, bytes_in("a\0b"), SQL_NTS)},
      {"VARWCHAR", parameter(kVarwchar, kInput, 0, value),
       as_wide(3, u"a\0b\0"s, 6)},
      {"VARWCHAR in/out", parameter(kVarwchar, kInputOutput, 0, value),
       as_wide(3, u"a\0b\0"s, 6)},
      {"by kind", parameter(kByKind, kInput, 0, value),
       as_char(3, bytes_in("a\0b"), SQL_NTS)},
  });
}

TEST_F(BindingExamples, InOutTextIsCutOneBehindTheColumnSize) {
  check({
      {"VARCHAR", parameter(kVarchar, kInputOutput, 3, text("abcde")),
       as_char(3, "abcd", SQL_NTS)},
      {"VARCHAR that just fits",
       parameter(kVarchar, kInputOutput, 3, text("abcd")),
       as_char(3, "abcd", SQL_NTS)},
      {"VARWCHAR", parameter(kVarwchar, kInputOutput, 3, text("abcde")),
       as_wide(3, u"abcd", 10)},
      {"VARWCHAR before a surrogate pair",
       parameter(kVarwchar, kInputOutput, 1, text("ab\U0001F600")),
       as_wide(1, u"ab", 8)},
      {"VARWCHAR inside of a surrogate pair",
       parameter(kVarwchar, kInputOutput, 2, as_kind(0, text("ab\U0001F600"))),
       as_wide(2, {u'a', u'b', 0xD83D}, SQL_NULL_DATA)},
      {"VARBINARY", parameter(kVarbinary, kInputOutput, 3, bytes("abcde")),
       as_binary(3, "abc", 5)},
  });
}

TEST_F(BindingExamples, VarcharBytesAreNotLookedAt) {
  check({
      {"VARCHAR", parameter(kVarchar, kInput, 0, text("\xFF\xC3")),
       as_char(2, "\xFF\xC3", SQL_NTS)},
      {"GUID", parameter(kGuid, kInput, 0, text("no guid")),
       as_char(7, "no guid", SQL_NTS)},
      {"by kind", parameter(kByKind, kInput, 0, text("\xED\xA0\x80")),
       as_char(3, "\xED\xA0\x80", SQL_NTS)},
  });
}

// An input needs no room, so no size is too large to announce.
TEST_F(BindingExamples, AnInputOnlyAnnouncesItsDeclaredSize) {
  for (const std::int64_t size : {kBeyond32Bits + 1, kLargest}) {
    check({
        {"VARCHAR", parameter(kVarchar, kInput, size, text("ab")),
         as_char(size, "ab", SQL_NTS)},
        {"VARWCHAR", parameter(kVarwchar, kInput, size, text("ab")),
         as_wide(size, u"ab\0"s, 4)},
        {"VARBINARY", parameter(kVarbinary, kInput, size, bytes("ab")),
         as_binary(size, "ab", 2)},
        {"Null by kind", parameter(kByKind, kInput, size, null_value()),
         as_empty_char(size, SQL_NULL_DATA)},
        {"Text by kind", parameter(kByKind, kOutput, size, text("ab")),
         as_char(size, "ab", SQL_NTS)},
        {"Binary by kind", parameter(kByKind, kOutput, size, bytes("ab")),
         as_binary(size, "ab", 2)},
    });
  }
}

TEST_F(BindingExamples, CodePointsBecomeUtf16Units) {
  const struct {
    const char* utf8;
    std::u16string content;
  } table[] = {
      {"\x7F", {0x007F}},
      {"\xC2\x80", {0x0080}},
      {"\xDF\xBF", {0x07FF}},
      {"\xE0\xA0\x80", {0x0800}},
      {"\xED\x9F\xBF", {0xD7FF}},
      {"\xEE\x80\x80", {0xE000}},
      {"\xEF\xBB\xBF", {0xFEFF}},
      {"\xEF\xBF\xBD", {0xFFFD}},
      {"\xEF\xBF\xBE", {0xFFFE}},
      {"\xEF\xBF\xBF", {0xFFFF}},
      {"\xF0\x90\x80\x80", {0xD800, 0xDC00}},
      {"\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
      {"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
      {"a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z",
       {u'a', 0x00E9, 0x20AC, 0xD83D, 0xDE00, u'z'}},
  };
  for (const auto& row : table) {
    const auto count = static_cast<std::int64_t>(row.content.size());
    const Bound whole = as_wide(count, row.content + u'\0', 2 * count);
    check({
        {"input", parameter(kVarwchar, kInput, 0, text(row.utf8)), whole},
        {"in/out", parameter(kVarwchar, kInputOutput, 0, text(row.utf8)),
         whole},
        {"output", parameter(kVarwchar, kOutput, 0, text(row.utf8)),
         as_wide(count, zero_units(row.content.size() + 1), 0)},
    });
  }
}

// ---------------------------------------------------------------------------
// Many parameters
// ---------------------------------------------------------------------------

TEST_F(Binding, ParametersAreBoundInOrderBetweenPrepareAndExecute) {
  Parameters parameters(3, parameter(kInteger, kInput, 0, integer(1)));
  void* const connection = open();
  script().clear_log();

  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(connection, "insert", &parameters, &result));

  EXPECT_EQ(script().labels(),
            (std::vector<std::string>{
                "SQLAllocHandle(STMT)", "SQLPrepare", "SQLBindParameter(1)",
                "SQLBindParameter(2)", "SQLBindParameter(3)", "SQLExecute",
                "SQLNumResultCols", "SQLRowCount", "SQLFreeHandle(STMT)"}));
}

// Texts of up to 15 bytes lie inside of what is bound and would move with it.
TEST_F(Binding, BuffersStayWhereTheyWereBound) {
  const auto value_of = [](std::size_t i) {
    return std::to_string(i) + (i % 2 == 0 ? "" : std::string(40, 'x'));
  };
  void* const connection = open();
  for (const std::size_t count : {std::size_t{1000}, std::size_t{65535}}) {
    Parameters parameters;
    parameters.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      parameters.push_back(parameter(i % 3 == 0 ? kVarwchar : kVarchar,
                                     kInputOutput, 48, text(value_of(i))));
    }
    script().clear_log();

    ZirdbOdbcResult result;
    ASSERT_TRUE(zirdb_odbc_execute(connection, "insert", &parameters, &result))
        << result.error;

    const std::vector<Sent> sent = script().sent();
    ASSERT_EQ(sent.size(), count);
    for (std::size_t i = 0; i < count; ++i) {
      std::string expected = value_of(i);
      ASSERT_EQ(parameters[i].value.text_value, expected) << i;
      if (i % 3 == 0) {
        expected = bytes_of(std::u16string(expected.begin(), expected.end()));
      }
      ASSERT_EQ(sent[i].number, static_cast<int>(i) + 1);
      ASSERT_EQ(sent[i].value(), expected) << i;
    }
  }
}

TEST_F(Binding, NeighboursOfEveryKindKeepTheirOwnBuffers) {
  Parameters parameters{
      parameter(kInteger, kInput, 0, integer(1)),
      parameter(kBigint, kInputOutput, 0, integer(2)),
      parameter(kBoolean, kInput, 0, boolean(true)),
      parameter(kByKind, kInput, 0, real(4.5)),
      parameter(kVarchar, kInput, 0, text("five")),
      parameter(kVarwchar, kInput, 0, text("six")),
      parameter(kVarbinary, kInput, 0, bytes("seven")),
      parameter(kByKind, kInput, 0, null_value()),
      parameter(kGuid, kOutput, 9, null_value()),
  };
  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(open(), "insert", &parameters, &result));

  EXPECT_EQ(script().sent(1).as<std::int32_t>(), 1);
  EXPECT_EQ(script().sent(2).as<std::int64_t>(), 2);
  EXPECT_EQ(script().sent(3).as<unsigned char>(), 1);
  EXPECT_EQ(script().sent(4).as<double>(), 4.5);
  EXPECT_EQ(script().sent(5).value(), "five");
  EXPECT_EQ(script().sent(6).value(), bytes_of(u"six"));
  EXPECT_EQ(script().sent(7).value(), "seven");
  EXPECT_TRUE(script().sent(8).is_null());
  EXPECT_EQ(script().sent(9).buffer, zeros(11));
}

TEST_F(Binding, AnotherExecutionBindsTheValuesItIsGiven) {
  void* const connection = open();
  Parameters parameters{parameter(kVarchar, kInputOutput, 10, text("one"))};
  script().output(1, cell("two"));
  ZirdbOdbcResult result;
  ASSERT_TRUE(zirdb_odbc_execute(connection, "call", &parameters, &result));
  ASSERT_TRUE(zirdb_odbc_execute(connection, "call", &parameters, &result));

  const std::vector<std::vector<Sent>> executions = script().executions();
  ASSERT_EQ(executions.size(), 2U);
  EXPECT_EQ(executions[0].at(0).value(), "one");
  EXPECT_EQ(executions[1].at(0).value(), "two");
}

}  // namespace
