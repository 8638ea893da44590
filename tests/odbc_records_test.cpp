// SPDX-License-Identifier: MIT
//
// The records that callers fill and read: their layout, which hosts were
// compiled against, and what a fresh one says.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "zirdb_odbc.h"

namespace {

TEST(OdbcRecords, TheirLayoutIsTheOneHostsWereCompiledAgainst) {
  struct Row {
    const char* what;
    std::size_t actual;
    std::size_t expected;
  };
  using Value = ZirdbOdbcValue;
  using Column = ZirdbOdbcColumn;
  using Parameter = ZirdbOdbcParameter;
  using Result = ZirdbOdbcResult;
  const Row rows[] = {
      {"kind", sizeof(ZirdbOdbcValueKind), 4},
      {"Value", sizeof(Value), 80},
      {"Value::kind", offsetof(Value, kind), 0},
      {"Value::bool_value", offsetof(Value, bool_value), 4},
      {"Value::int64_value", offsetof(Value, int64_value), 8},
      {"Value::double_value", offsetof(Value, double_value), 16},
      {"Value::text_value", offsetof(Value, text_value), 24},
      {"Value::binary_value", offsetof(Value, binary_value), 56},
      {"Column", sizeof(Column), 40},
      {"Column::name", offsetof(Column, name), 0},
      {"Column::sql_type", offsetof(Column, sql_type), 32},
      {"Parameter", sizeof(Parameter), 104},
      {"Parameter::type", offsetof(Parameter, type), 0},
      {"Parameter::direction", offsetof(Parameter, direction), 8},
      {"Parameter::size", offsetof(Parameter, size), 16},
      {"Parameter::value", offsetof(Parameter, value), 24},
      {"Result", sizeof(Result), 88},
      {"Result::columns", offsetof(Result, columns), 0},
      {"Result::rows", offsetof(Result, rows), 24},
      {"Result::rows_affected", offsetof(Result, rows_affected), 48},
      {"Result::error", offsetof(Result, error), 56},
  };
  for (const Row& row : rows) EXPECT_EQ(row.actual, row.expected) << row.what;
}

TEST(OdbcRecords, TheirFieldsHaveTheExactTypes) {
  EXPECT_TRUE((std::is_same_v<std::underlying_type_t<ZirdbOdbcValueKind>,
                              std::int32_t>));
  EXPECT_TRUE((std::is_same_v<decltype(ZirdbOdbcValue::int64_value), long>));
  EXPECT_TRUE((std::is_same_v<decltype(ZirdbOdbcValue::binary_value),
                              std::vector<unsigned char>>));
  EXPECT_TRUE(
      (std::is_same_v<decltype(ZirdbOdbcColumn::sql_type), std::int16_t>));
  EXPECT_TRUE((std::is_same_v<decltype(ZirdbOdbcParameter::type), long>));
  EXPECT_TRUE((std::is_same_v<decltype(ZirdbOdbcParameter::direction), long>));
  EXPECT_TRUE((std::is_same_v<decltype(ZirdbOdbcParameter::size), long>));
  EXPECT_TRUE((std::is_same_v<decltype(ZirdbOdbcResult::rows_affected), long>));
  EXPECT_TRUE((std::is_same_v<decltype(ZirdbOdbcResult::rows),
                              std::vector<std::vector<ZirdbOdbcValue>>>));
}

TEST(OdbcRecords, TheKindsHaveTheirPublishedNumbers) {
  struct Row {
    ZirdbOdbcValueKind kind;
    int number;
  };
  const Row rows[] = {
      {ZirdbOdbcValueKind::Null, 0},  {ZirdbOdbcValueKind::Bool, 1},
      {ZirdbOdbcValueKind::Int64, 2}, {ZirdbOdbcValueKind::Double, 3},
      {ZirdbOdbcValueKind::Text, 4},  {ZirdbOdbcValueKind::Binary, 5},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(static_cast<int>(row.kind), row.number);
  }
}

TEST(OdbcRecords, AFreshValueIsNullWithEmptyPayloads) {
  const ZirdbOdbcValue value;

  EXPECT_EQ(value.kind, ZirdbOdbcValueKind::Null);
  EXPECT_FALSE(value.bool_value);
  EXPECT_EQ(value.int64_value, 0);
  EXPECT_EQ(value.double_value, 0.0);
  EXPECT_EQ(value.text_value, "");
  EXPECT_TRUE(value.binary_value.empty());
}

TEST(OdbcRecords, AFreshResultIsEmpty) {
  const ZirdbOdbcResult result;

  EXPECT_TRUE(result.columns.empty());
  EXPECT_TRUE(result.rows.empty());
  EXPECT_EQ(result.rows_affected, 0);
  EXPECT_EQ(result.error, "");
}

TEST(OdbcRecords, ACopyOfAValueOwnsItsTextAndItsBytes) {
  ZirdbOdbcValue original;
  original.kind = ZirdbOdbcValueKind::Text;
  original.text_value = "text";
  original.binary_value = {1, 2};
  const ZirdbOdbcValue constructed(original);
  ZirdbOdbcValue assigned;
  assigned = original;

  original.text_value[0] = 'T';
  original.binary_value[0] = 9;

  for (const ZirdbOdbcValue& copy : {constructed, assigned}) {
    EXPECT_EQ(copy.kind, ZirdbOdbcValueKind::Text);
    EXPECT_EQ(copy.text_value, "text");
    EXPECT_EQ(copy.binary_value, (std::vector<unsigned char>{1, 2}));
  }
}

TEST(OdbcRecords, TheFieldsOfAValueAreIndependent) {
  ZirdbOdbcValue value;
  value.bool_value = true;
  value.int64_value = 7;
  value.double_value = 1.5;
  value.text_value = "text";
  value.binary_value = {1};

  EXPECT_TRUE(value.bool_value);
  EXPECT_EQ(value.int64_value, 7);
  EXPECT_EQ(value.double_value, 1.5);
  EXPECT_EQ(value.text_value, "text");
  EXPECT_EQ(value.binary_value, (std::vector<unsigned char>{1}));
}

}  // namespace
