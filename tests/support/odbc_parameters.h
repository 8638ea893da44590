// SPDX-License-Identifier: MIT
//
// Statement parameters and their values in few words, for tests that hold them
// in tables: type codes and directions by name, a builder per kind of value,
// and a text of every field that two values can be compared by.

#ifndef ZIRDB_TESTS_SUPPORT_ODBC_PARAMETERS_H
#define ZIRDB_TESTS_SUPPORT_ODBC_PARAMETERS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zirdb_odbc.h"

namespace odbc_parameters {

/// Type codes. kByKind stands for all the codes that say nothing, where the
/// value's kind decides.
enum Type : std::int64_t {
  kByKind = 0,
  kInteger = 3,
  kBoolean = 11,
  kBigint = 20,
  kGuid = 72,
  kVarchar = 200,
  kVarwchar = 202,
  kVarbinary = 204,
};

enum Direction : std::int64_t {
  kUnknown = 0,
  kInput = 1,
  kOutput = 2,
  kInputOutput = 3,
  kReturnValue = 4,
};

using Kind = ZirdbOdbcValueKind;
using Parameters = std::vector<ZirdbOdbcParameter>;

inline ZirdbOdbcValue null_value() { return {}; }
inline ZirdbOdbcValue boolean(bool value) {
  return {Kind::Bool, value, 0, 0.0, {}, {}};
}
inline ZirdbOdbcValue integer(std::int64_t value) {
  return {Kind::Int64, false, value, 0.0, {}, {}};
}
inline ZirdbOdbcValue real(double value) {
  return {Kind::Double, false, 0, value, {}, {}};
}
inline ZirdbOdbcValue text(std::string utf8) {
  return {Kind::Text, false, 0, 0.0, std::move(utf8), {}};
}
inline ZirdbOdbcValue bytes(const std::string& content) {
  return {Kind::Binary, false, 0, 0.0, {}, {content.begin(), content.end()}};
}

/// The same value with another kind in front of it; any number can be a kind.
inline ZirdbOdbcValue as_kind(std::int32_t kind, ZirdbOdbcValue value) {
  value.kind = static_cast<Kind>(kind);
  return value;
}

inline ZirdbOdbcParameter parameter(std::int64_t type, std::int64_t direction,
                                    std::int64_t size, ZirdbOdbcValue value) {
  return {type, direction, size, std::move(value)};
}

/// A string with its embedded NULs: bytes_in("a\0b").
template <std::size_t Size>
std::string bytes_in(const char (&literal)[Size]) {
  return {literal, Size - 1};
}

inline std::string escaped(std::string_view content) {
  return testing::PrintToString(std::string(content));
}

/// Every field, whatever the kind; doubles by their bits.
inline std::string describe(const ZirdbOdbcValue& value) {
  std::uint64_t double_bits = 0;
  std::memcpy(&double_bits, &value.double_value, sizeof double_bits);
  return "kind " + std::to_string(static_cast<std::int32_t>(value.kind)) +
         ", bool " + std::to_string(static_cast<int>(value.bool_value)) +
         ", int64 " + std::to_string(value.int64_value) + ", double bits " +
         std::to_string(double_bits) + ", text " + escaped(value.text_value) +
         ", bytes " +
         escaped(
             std::string(value.binary_value.begin(), value.binary_value.end()));
}

inline std::string describe(const ZirdbOdbcParameter& parameter) {
  return "type " + std::to_string(parameter.type) + ", direction " +
         std::to_string(parameter.direction) + ", size " +
         std::to_string(parameter.size) + ", " + describe(parameter.value);
}

/// One text per parameter.
inline std::vector<std::string> describe(const Parameters& parameters) {
  std::vector<std::string> all;
  all.reserve(parameters.size());
  for (const ZirdbOdbcParameter& each : parameters) {
    all.push_back(describe(each));
  }
  return all;
}

}  // namespace odbc_parameters

#endif  // ZIRDB_TESTS_SUPPORT_ODBC_PARAMETERS_H
