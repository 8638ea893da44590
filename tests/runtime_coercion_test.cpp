// SPDX-License-Identifier: MIT
//
// VariantChangeType: every pair of types, in every way of naming source and
// destination; then the values of each conversion.
//
// Sections: samples and expectations; the square of types; numbers; texts;
// VT_LPSTR; default members; where the result goes; pointers that are NULL.
//
// What a sweep's calls print is captured once and taken apart afterwards, since
// one redirection per call would cost more than the calls.

#include <gtest/gtest.h>

#include <array>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "support/objects.h"
#include "support/printed.h"
#include "support/values.h"
#include "zir.h"

namespace {

using namespace values;

// ---------------------------------------------------------------------------
// Samples and expectations
// ---------------------------------------------------------------------------

_variant_t array_value(VARTYPE type, VARTYPE element) {
  VARIANT value{};
  value.vt = type;
  value.parray = SafeArrayCreateVector(element, 5, 3);
  if (element == VT_UI1) std::memset(value.parray->pvData, 'x', 3);
  return owned(value);
}

/// The line for a pair without a conversion.
std::string unsupported(VARTYPE source, VARTYPE target) {
  const auto line = [target] {
    switch (target) {
      case VT_I2:
        return 1097;
      case VT_I4:
        return 1069;
      case VT_R8:
        return 1009;
      case VT_DATE:
        return 1134;
      case VT_BSTR:
        return 940;
      case VT_BOOL:
        return 981;
      case VT_UI1:
        return 1111;
      case VT_I8:
        return 1045;
      case VT_LPSTR:
        return 950;
      default:
        return 1139;
    }
  };
  return printed::stub_line(
      "VariantChangeType", line(),
      "vt:" + std::to_string(source) + "->" + std::to_string(target));
}

/// One conversion into a fresh value.
struct Conversion {
  explicit Conversion(const VARIANT& source, VARTYPE target) {
    printed = printed::by(
        [&] { result = VariantChangeType(&value, &source, 0, target); });
  }

  HRESULT result = S_OK;
  _variant_t value;
  std::string printed;
};

/// Runs a test's body in a locale with wide characters beyond ASCII.
class Utf8Locale {
 public:
  Utf8Locale() : before_(std::setlocale(LC_ALL, nullptr)) {
    usable = std::setlocale(LC_ALL, "C.UTF-8") != nullptr;
  }
  Utf8Locale(const Utf8Locale&) = delete;
  Utf8Locale& operator=(const Utf8Locale&) = delete;
  ~Utf8Locale() { std::setlocale(LC_ALL, before_.c_str()); }

  bool usable = false;

 private:
  std::string before_;
};

// ---------------------------------------------------------------------------
// The square of types
// ---------------------------------------------------------------------------

// Payloads with something in every byte, also in those that a narrower type
// does not read.
constexpr std::uint64_t kI2 = 0xA5A5A5A5A5A58001;    // -32767
constexpr std::uint64_t kI4 = 1311768467294899695;   // 0x1234567890ABCDEF
constexpr std::uint64_t kI8 = 0xFEDCBA9876543210;    // -81985529216486896
constexpr std::uint64_t kBool = 0xA5A5A5A5A5A5FFFF;  // true
constexpr std::uint64_t kUI1 = 0xA5A5A5A5A5A5A5C8;   // 200
constexpr std::uint64_t kOther = 0x5A6B7C8D9EAFB0C1;

/// Every type with a name, then types without one, and some with flags. The
/// payload of those that have VT_ARRAY is always an array.
const std::vector<VARTYPE>& types() {
  static const std::vector<VARTYPE> all = {
      VT_EMPTY,    VT_NULL,
      VT_I2,       VT_I4,
      VT_R4,       VT_R8,
      VT_CY,       VT_DATE,
      VT_BSTR,     VT_DISPATCH,
      VT_ERROR,    VT_BOOL,
      VT_VARIANT,  VT_UNKNOWN,
      VT_DECIMAL,  VT_I1,
      VT_UI1,      VT_UI2,
      VT_UI4,      VT_I8,
      VT_UI8,      VT_PTR,
      VT_LPSTR,    15,
      22,          23,
      24,          25,
      27,          28,
      29,          31,
      36,          64,
      72,          0x0FFF,
      0x1000 | 8,  0x8000 | 20,
      0xDFFF,      VT_BYREF,
      kReference,  VT_BYREF | VT_NULL,
      0x4000 | 2,  0x4000 | 3,
      0x4000 | 5,  0x4000 | 7,
      0x4000 | 8,  0x4000 | 9,
      0x4000 | 11, 0x4000 | 17,
      0x4000 | 20, 0x4000 | 30,
      VT_ARRAY,    VT_ARRAY | VT_VARIANT,
      0x2000 | 8,  VT_ARRAY | VT_UI1,
      0x2000 | 3,  VT_BYREF | VT_ARRAY | VT_UI1,
      0x600C,      0xFFFF};
  return all;
}

/// The objects that samples refer to. The default member is the number 5.
struct Objects {
  objects::Unknown unknown;
  objects::Dispatch dispatch{[](const objects::Dispatch::Call& call) {
    *call.result = plain(VT_I8, 5);
    return S_OK;
  }};
};

_variant_t sample(VARTYPE type, Objects& objects) {
  if ((type & VT_ARRAY) != 0) {
    const VARTYPE element = type & VT_TYPEMASK;
    const bool listed = element == VT_VARIANT || element == VT_BSTR;
    return array_value(type, listed ? element : VARTYPE{VT_UI1});
  }
  switch (type) {
    case VT_I2:
      return plain(type, kI2);
    case VT_I4:
      return plain(type, kI4);
    case VT_I8:
      return plain(type, kI8);
    case VT_BOOL:
      return plain(type, kBool);
    case VT_UI1:
      return plain(type, kUI1);
    case VT_R8:
      return -1234.75;
    case VT_DATE:
      return plain(type, bits_of(45292.75));
    case VT_BSTR:
      return L"12";
    case VT_LPSTR:
      return lpstr_value("abc");
    case VT_DISPATCH:
      return static_cast<IDispatch*>(&objects.dispatch);
    case VT_UNKNOWN:
      return static_cast<IUnknown*>(&objects.unknown);
    default:
      return plain(type, kOther);
  }
}

struct Refused {};  ///< E_INVALIDARG, and nothing is printed

/// What comes of the sample of `source`: a payload, a text, or nothing.
struct Cell {
  VARTYPE source;
  VARTYPE target;
  std::variant<std::uint64_t, std::wstring, Refused> outcome;
};

const std::vector<Cell>& cells() {
  constexpr std::uint64_t kZero = 0;
  constexpr std::uint64_t kTwelve = 12;
  static const std::vector<Cell> all = {
      {VT_EMPTY, VT_I2, kZero},
      {VT_EMPTY, VT_I4, kZero},
      {VT_EMPTY, VT_R8, kZero},
      {VT_EMPTY, VT_DATE, kZero},
      {VT_EMPTY, VT_BSTR, std::wstring()},
      {VT_EMPTY, VT_BOOL, kZero},
      {VT_EMPTY, VT_UI1, kZero},
      {VT_EMPTY, VT_I8, kZero},
      {VT_NULL, VT_BSTR, std::wstring()},
      {VT_I2, VT_BSTR, std::wstring(L"-32767")},
      {VT_I4, VT_I2, std::uint64_t{0xCDEF}},
      {VT_I4, VT_BSTR, std::wstring(L"1311768467294899695")},
      {VT_I4, VT_I8, kI4},
      {VT_R8, VT_BSTR, std::wstring(L"-1234.75")},
      {VT_R8, VT_I8, static_cast<std::uint64_t>(-1234)},
      {VT_DATE, VT_BSTR, std::wstring(L"2024/01/01 18:00:00")},
      {VT_BSTR, VT_I2, kTwelve},
      {VT_BSTR, VT_I4, kTwelve},
      {VT_BSTR, VT_I8, kTwelve},
      {VT_BSTR, VT_R8, bits_of(12.0)},
      {VT_BSTR, VT_DATE, Refused{}},
      {VT_BSTR, VT_BOOL, Refused{}},
      {VT_BSTR, VT_LPSTR, std::wstring(L"12")},
      {VT_DISPATCH, VT_BSTR, std::wstring(L"5")},
      {VT_BOOL, VT_R8, bits_of(-1.0)},
      {VT_BOOL, VT_BSTR, std::wstring(L"-1")},
      {VT_BOOL, VT_I8, ~kZero},
      {VT_UI1, VT_BSTR, std::wstring(L"200")},
      {VT_UI1, VT_I8, std::uint64_t{200}},
      {VT_I8, VT_I2, std::uint64_t{0x3210}},
      {VT_I8, VT_I4, kI8},
      {VT_I8, VT_R8, bits_of(-81985529216486896.0)},
      {VT_I8, VT_DATE, bits_of(-81985529216486896.0)},
      {VT_I8, VT_BSTR, std::wstring(L"-81985529216486896")},
      {VT_I8, VT_BOOL, std::uint64_t{0xFFFF}},
      {VT_I8, VT_UI1, std::uint64_t{0x10}},
      {VT_UI8, VT_BSTR, std::wstring(L"6515438233616101569")},
      {VT_LPSTR, VT_BSTR, std::wstring(L"abc\000", 4)},
  };
  return all;
}

const Cell* find_cell(VARTYPE source, VARTYPE target) {
  for (const Cell& cell : cells()) {
    if (cell.source == source && cell.target == target) return &cell;
  }
  return nullptr;
}

/// `copy` holds what `original` does, in memory of its own.
void expect_copy(const VARIANT& copy, const VARIANT& original) {
  ASSERT_EQ(copy.vt, original.vt);
  if (original.vt == VT_BSTR) {
    EXPECT_EQ(text_of(copy), text_of(original));
    EXPECT_NE(copy.bstrVal, original.bstrVal);
  } else if (original.vt == VT_LPSTR) {
    EXPECT_STREQ(copy.pszVal, original.pszVal);
    EXPECT_NE(copy.pszVal, original.pszVal);
  } else if ((original.vt & VT_ARRAY) != 0) {
    EXPECT_NE(copy.parray, original.parray);
    EXPECT_EQ(copy.parray->rgsabound[0].lLbound, 5);
    EXPECT_EQ(copy.parray->rgsabound[0].cElements, 3U);
  } else {
    EXPECT_EQ(copy.ullVal, original.ullVal);
  }
}

void expect_outcome(const VARIANT& value, const Cell& cell) {
  ASSERT_EQ(value.vt, cell.target);
  if (const auto* bits = std::get_if<std::uint64_t>(&cell.outcome)) {
    EXPECT_EQ(value.ullVal, *bits);
  } else if (cell.target == VT_LPSTR) {
    EXPECT_STREQ(value.pszVal, "12");
  } else {
    EXPECT_EQ(text_of(value), std::get<std::wstring>(cell.outcome));
  }
}

/// One pair, converted in one way.
struct Trial {
  VARTYPE source;
  VARTYPE target;
  _variant_t from;
  _variant_t to;
  HRESULT result = S_OK;
  std::string printed;
};

/// Every pair, converted by `convert(trial)`; what the destination holds before
/// is `held`.
template <class Convert>
std::vector<Trial> convert_all(Objects& objects, const _variant_t& held,
                               Convert convert) {
  std::vector<Trial> trials;
  for (const VARTYPE source : types()) {
    for (const VARTYPE target : types()) {
      trials.push_back(
          {source, target, sample(source, objects), held, S_OK, {}});
    }
  }
  const auto printed = printed_by_each(
      trials.size(), [&](std::size_t i) { convert(trials[i]); });
  for (std::size_t i = 0; i < trials.size(); ++i) {
    trials[i].printed = printed[i];
  }
  return trials;
}

std::string row(const Trial& trial) {
  return "from " + std::to_string(trial.source) + " to " +
         std::to_string(trial.target);
}

/// Checks result and output of a trial; whether it should have succeeded.
bool expect_result(const Trial& trial) {
  const Cell* const cell = find_cell(trial.source, trial.target);
  const bool same = trial.source == trial.target;
  if (!same && cell == nullptr) {
    EXPECT_EQ(trial.result, E_INVALIDARG);
    EXPECT_EQ(trial.printed, unsupported(trial.source, trial.target));
    return false;
  }
  EXPECT_EQ(trial.printed, "");
  if (!same && std::holds_alternative<Refused>(cell->outcome)) {
    EXPECT_EQ(trial.result, E_INVALIDARG);
    return false;
  }
  EXPECT_EQ(trial.result, S_OK);
  return trial.result == S_OK;
}

/// Checks `value`, where the result of a successful trial went.
void expect_value(const Trial& trial, const VARIANT& value,
                  const VARIANT& original) {
  if (trial.source == trial.target) {
    expect_copy(value, original);
  } else {
    expect_outcome(value, *find_cell(trial.source, trial.target));
  }
}

TEST(ConversionSquare, EveryPairIntoAnotherValue) {
  Objects objects;
  objects::Unknown held;
  const auto trials = convert_all(
      objects, _variant_t(static_cast<IUnknown*>(&held)), [](Trial& trial) {
        if (trial.source == kReference) return;  // it would be followed
        trial.result =
            VariantChangeType(&trial.to, &trial.from, 0, trial.target);
      });

  for (const Trial& trial : trials) {
    if (trial.source == kReference) continue;
    SCOPED_TRACE(row(trial));
    if (expect_result(trial)) {
      expect_value(trial, trial.to, trial.from);
    } else {
      EXPECT_EQ(trial.to.vt, VT_EMPTY);
    }
    EXPECT_EQ(trial.from.vt, trial.source);
  }
}

TEST(ConversionSquare, WhatTheDestinationHeldIsFreed) {
  Objects objects;
  objects::Unknown held;
  {
    const auto trials = convert_all(
        objects, _variant_t(static_cast<IUnknown*>(&held)), [](Trial& trial) {
          VARIANT followed = reference_to(&trial.from);
          VariantChangeType(&trial.to, &followed, 0, trial.target);
        });

    EXPECT_EQ(held.references(), 1U);
    EXPECT_EQ(trials.size(), types().size() * types().size());
  }
  EXPECT_EQ(objects.dispatch.references(), 1U);
  EXPECT_EQ(objects.unknown.references(), 1U);
}

TEST(ConversionSquare, EveryPairThroughAReference) {
  Objects objects;
  const auto trials =
      convert_all(objects, _variant_t(L"held"), [](Trial& trial) {
        const VARIANT reference = reference_to(&trial.from);
        trial.result =
            VariantChangeType(&trial.to, &reference, 0xFFFF, trial.target);
      });

  for (const Trial& trial : trials) {
    SCOPED_TRACE(row(trial));
    if (expect_result(trial)) {
      expect_value(trial, trial.to, trial.from);
    } else {
      EXPECT_EQ(trial.to.vt, VT_EMPTY);
    }
    EXPECT_EQ(trial.from.vt, trial.source);
  }
}

TEST(ConversionSquare, EveryPairInPlace) {
  Objects objects;
  std::vector<VARIANT> before;
  {
    const auto trials = convert_all(objects, {}, [&](Trial& trial) {
      before.push_back(trial.from);
      if (trial.source == kReference) return;
      trial.result =
          VariantChangeType(&trial.from, &trial.from, 0, trial.target);
    });

    for (std::size_t i = 0; i < trials.size(); ++i) {
      const Trial& trial = trials[i];
      if (trial.source == kReference) continue;
      SCOPED_TRACE(row(trial));
      if (expect_result(trial)) {
        expect_value(trial, trial.from, sample(trial.source, objects));
      } else {
        EXPECT_TRUE(same_bytes(trial.from, before[i]));
      }
    }
  }
  EXPECT_EQ(objects.dispatch.references(), 1U);
  EXPECT_EQ(objects.unknown.references(), 1U);
}

TEST(ConversionSquare, EveryPairInPlaceThroughAReference) {
  Objects objects;
  std::vector<VARIANT> before;
  int moved_references = 0;
  {
    const auto trials = convert_all(objects, {}, [&](Trial& trial) {
      before.push_back(trial.from);
      VARIANT reference = reference_to(&trial.from);
      const VARIANT reference_before = reference;
      trial.result = VariantChangeType(&reference, &reference, 0, trial.target);
      if (!same_bytes(reference, reference_before)) ++moved_references;
    });

    for (std::size_t i = 0; i < trials.size(); ++i) {
      const Trial& trial = trials[i];
      SCOPED_TRACE(row(trial));
      if (expect_result(trial)) {
        expect_value(trial, trial.from, sample(trial.source, objects));
      } else {
        EXPECT_TRUE(same_bytes(trial.from, before[i]));
      }
    }
  }
  EXPECT_EQ(moved_references, 0);
  EXPECT_EQ(objects.dispatch.references(), 1U);
  EXPECT_EQ(objects.unknown.references(), 1U);
}

TEST(ConversionSquare, NoOtherTargetExists) {
  const _variant_t source(std::int64_t{7});
  std::vector<VARTYPE> targets;
  for (unsigned target = 0; target <= 0xFFFF; ++target) {
    const auto type = static_cast<VARTYPE>(target);
    if (type == VT_I8 || find_cell(VT_I8, type) != nullptr) continue;
    targets.push_back(type);
  }
  std::vector<HRESULT> results(targets.size());
  const auto printed = printed_by_each(targets.size(), [&](std::size_t i) {
    _variant_t value;
    results[i] = VariantChangeType(&value, &source, 0, targets[i]);
  });

  ASSERT_EQ(targets.size(), 65536U - 8);
  for (std::size_t i = 0; i < targets.size(); ++i) {
    ASSERT_EQ(results[i], E_INVALIDARG) << targets[i];
    ASSERT_EQ(printed[i], unsupported(VT_I8, targets[i]));
  }
}

// ---------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------

struct NumberRow {
  VARTYPE source;
  std::uint64_t payload;
  VARTYPE target;
  std::uint64_t expected;
};

constexpr std::uint64_t whole(std::int64_t value) {
  return static_cast<std::uint64_t>(value);
}

void expect_numbers(const std::vector<NumberRow>& rows) {
  for (const NumberRow& row : rows) {
    SCOPED_TRACE(testing::Message() << row.source << " with the payload "
                                    << row.payload << " to " << row.target);
    const Conversion made(plain(row.source, row.payload), row.target);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.value.vt, row.target);
    EXPECT_EQ(made.value.ullVal, row.expected);
    EXPECT_EQ(made.printed, "");
  }
}

TEST(NumberConversion, KeepsTheLow16BitsForI2) {
  expect_numbers({{VT_I4, 70000, VT_I2, 4464},
                  {VT_I4, whole(-1), VT_I2, 0xFFFF},
                  {VT_I4, 0x8000, VT_I2, 0x8000},
                  {VT_I4, 0xFFFFFFFF00000000, VT_I2, 0},
                  {VT_I8, 70000, VT_I2, 4464},
                  {VT_I8, whole(-32769), VT_I2, 0x7FFF},
                  {VT_I8, 0x7FFFFFFFFFFF0001, VT_I2, 1}});
}

TEST(NumberConversion, KeepsAll64BitsForI4) {
  expect_numbers({{VT_I8, whole(kSmallest), VT_I4, whole(kSmallest)},
                  {VT_I8, whole(kLargest), VT_I4, whole(kLargest)},
                  {VT_I8, 4294967297, VT_I4, 4294967297}});
}

TEST(NumberConversion, TruncatesForI8) {
  expect_numbers(
      {{VT_I4, 0x00000000FFFFFFFF, VT_I8, 4294967295},
       {VT_I4, whole(-1), VT_I8, whole(-1)},
       {VT_I4, 0x80000000, VT_I8, 2147483648},
       {VT_R8, bits_of(1.9), VT_I8, 1},
       {VT_R8, bits_of(-1.9), VT_I8, whole(-1)},
       {VT_R8, bits_of(0.99999999), VT_I8, 0},
       {VT_R8, bits_of(-0.5), VT_I8, 0},
       {VT_R8, bits_of(-0.0), VT_I8, 0},
       {VT_R8, bits_of(2.5), VT_I8, 2},
       {VT_R8, bits_of(3.5), VT_I8, 3},
       {VT_R8, bits_of(9223372036854774784.0), VT_I8, 9223372036854774784},
       {VT_R8, bits_of(-9223372036854775808.0), VT_I8, whole(kSmallest)},
       {VT_R8, bits_of(9223372036854775808.0), VT_I8, whole(kSmallest)},
       {VT_R8, bits_of(-9223372036854777856.0), VT_I8, whole(kSmallest)},
       {VT_R8, bits_of(1e300), VT_I8, whole(kSmallest)},
       {VT_R8, bits_of(-1e300), VT_I8, whole(kSmallest)},
       {VT_R8, bits_of(kInfinity), VT_I8, whole(kSmallest)},
       {VT_R8, bits_of(-kInfinity), VT_I8, whole(kSmallest)},
       {VT_R8, bits_of(kNaN), VT_I8, whole(kSmallest)},
       {VT_BOOL, 0, VT_I8, 0},
       {VT_BOOL, 1, VT_I8, 1},
       {VT_BOOL, 0x8000, VT_I8, whole(-32768)},
       {VT_BOOL, 0x7FFF, VT_I8, 32767},
       {VT_BOOL, 0xFFFFFFFFFFFF0000, VT_I8, 0},
       {VT_UI1, 255, VT_I8, 255},
       {VT_UI1, 0xFFFFFFFFFFFFFF00, VT_I8, 0},
       {VT_UI1, 0x1FF, VT_I8, 255}});
}

TEST(NumberConversion, RoundsForR8) {
  expect_numbers(
      {{VT_I8, 0, VT_R8, 0},
       {VT_I8, whole(-3), VT_R8, bits_of(-3.0)},
       {VT_I8, whole(kLargest), VT_R8, bits_of(9223372036854775808.0)},
       {VT_I8, whole(kSmallest), VT_R8, bits_of(-9223372036854775808.0)},
       {VT_I8, 9007199254740993, VT_R8, bits_of(9007199254740992.0)},
       {VT_BOOL, 0xFFFF, VT_R8, bits_of(-1.0)},
       {VT_BOOL, 0, VT_R8, 0},
       {VT_BOOL, 0x8000, VT_R8, bits_of(-32768.0)},
       {VT_BOOL, 0x1230000, VT_R8, 0}});
}

TEST(NumberConversion, CountsDaysForDate) {
  expect_numbers({{VT_I8, 45292, VT_DATE, bits_of(45292.0)},
                  {VT_I8, whole(-1), VT_DATE, bits_of(-1.0)},
                  {VT_I8, 0, VT_DATE, 0}});
}

TEST(NumberConversion, IsTrueForAnyBit) {
  expect_numbers({{VT_I8, 0, VT_BOOL, 0},
                  {VT_I8, 1, VT_BOOL, 0xFFFF},
                  {VT_I8, whole(-1), VT_BOOL, 0xFFFF},
                  {VT_I8, 65536, VT_BOOL, 0xFFFF},
                  {VT_I8, 4294967296, VT_BOOL, 0xFFFF},
                  {VT_I8, whole(kSmallest), VT_BOOL, 0xFFFF}});
}

TEST(NumberConversion, KeepsTheLow8BitsForUI1) {
  expect_numbers({{VT_I8, 300, VT_UI1, 44},
                  {VT_I8, 256, VT_UI1, 0},
                  {VT_I8, whole(-1), VT_UI1, 255},
                  {VT_I8, whole(kSmallest), VT_UI1, 0}});
}

// ---------------------------------------------------------------------------
// Texts
// ---------------------------------------------------------------------------

struct TextRow {
  VARTYPE source;
  std::uint64_t payload;
  std::wstring text;
};

void expect_texts(const std::vector<TextRow>& rows) {
  for (const TextRow& row : rows) {
    SCOPED_TRACE(testing::Message()
                 << row.source << " with the payload " << row.payload);
    const Conversion made(plain(row.source, row.payload), VT_BSTR);

    EXPECT_EQ(made.result, S_OK);
    ASSERT_EQ(made.value.vt, VT_BSTR);
    ASSERT_NE(made.value.bstrVal, nullptr);
    EXPECT_EQ(text_of(made.value), row.text);
    EXPECT_EQ(made.value.bstrVal[row.text.size()], L'\0');
    EXPECT_EQ(made.printed, "");
  }
}

TEST(NumberAsText, IsWholeForIntegers) {
  expect_texts({{VT_EMPTY, 0, L""},
                {VT_EMPTY, kOther, L""},
                {VT_NULL, 0, L""},
                {VT_NULL, kOther, L""},
                {VT_I2, 0, L"0"},
                {VT_I2, 0x8000, L"-32768"},
                {VT_I2, 0x7FFF, L"32767"},
                {VT_I2, 0x1230007, L"7"},
                {VT_BOOL, 0xFFFF, L"-1"},
                {VT_BOOL, 0, L"0"},
                {VT_BOOL, 1, L"1"},
                {VT_BOOL, 0xFFFF0000, L"0"},
                {VT_I4, whole(-5), L"-5"},
                {VT_I4, 0xFFFFFFFF, L"4294967295"},
                {VT_I4, whole(kSmallest), L"-9223372036854775808"},
                {VT_I8, whole(kSmallest), L"-9223372036854775808"},
                {VT_I8, whole(kLargest), L"9223372036854775807"},
                {VT_I8, 0, L"0"},
                {VT_I8, 0xFFFFFFFF00000000, L"-4294967296"},
                {VT_UI1, 0, L"0"},
                {VT_UI1, 255, L"255"},
                {VT_UI1, 0xFF80, L"128"},
                {VT_UI8, whole(-1), L"18446744073709551615"},
                {VT_UI8, whole(kSmallest), L"9223372036854775808"},
                {VT_UI8, 0, L"0"}});
}

TEST(NumberAsText, HasFifteenDigitsForDoubles) {
  expect_texts({{VT_R8, bits_of(0.0), L"0"},
                {VT_R8, bits_of(-0.0), L"-0"},
                {VT_R8, bits_of(2.5), L"2.5"},
                {VT_R8, bits_of(-100.0), L"-100"},
                {VT_R8, bits_of(0.1), L"0.1"},
                {VT_R8, bits_of(0.1 + 0.2), L"0.3"},
                {VT_R8, bits_of(1.0 / 3.0), L"0.333333333333333"},
                {VT_R8, bits_of(2.0 / 3.0), L"0.666666666666667"},
                {VT_R8, bits_of(1e14), L"100000000000000"},
                {VT_R8, bits_of(123456789012345.0), L"123456789012345"},
                {VT_R8, bits_of(1e15), L"1e+15"},
                {VT_R8, bits_of(1234567890123456.0), L"1.23456789012346e+15"},
                {VT_R8, bits_of(0.0001), L"0.0001"},
                {VT_R8, bits_of(0.00001), L"1e-05"},
                {VT_R8, bits_of(1e300), L"1e+300"},
                {VT_R8, bits_of(-std::numeric_limits<double>::max()),
                 L"-1.79769313486232e+308"},
                {VT_R8, bits_of(-std::numeric_limits<double>::denorm_min()),
                 L"-4.94065645841247e-324"},
                {VT_R8, bits_of(kInfinity), L"inf"},
                {VT_R8, bits_of(-kInfinity), L"-inf"},
                {VT_R8, 0x7FF8000000000000, L"nan"},
                {VT_R8, 0xFFF8000000000000, L"-nan"}});
}

/// What a text reads as; no value where it reads as no number.
struct WholeRow {
  std::wstring text;
  std::optional<std::int64_t> value;
};

const std::vector<WholeRow>& whole_numbers() {
  static const std::vector<WholeRow> rows = {
      {L"0", 0},
      {L"7", 7},
      {L"-7", -7},
      {L"+7", 7},
      {L"-0", 0},
      {L"42abc", 42},
      {L"  42abc", 42},
      {L" \t\n\v\f\r7", 7},
      {L"  -7", -7},
      {L"7 8", 7},
      // Base 10, whatever the text looks like.
      {L"007", 7},
      {L"010", 10},
      {L"0x10", 0},
      {L"1e3", 1},
      {L"1.9", 1},
      {L"-1.9", -1},
      {L"1,000", 1},
      {L"7\u00e4", 7},
      {std::wstring(L"1\0002", 3), 1},
      // The parser stops at the ends of the range.
      {L"32768", 32768},
      {L"70000", 70000},
      {L"-32769", -32769},
      {L"4294967297", 4294967297},
      {L"9223372036854775807", kLargest},
      {L"9223372036854775808", kLargest},
      {L"99999999999999999999", kLargest},
      {L"-9223372036854775808", kSmallest},
      {L"-99999999999999999999", kSmallest},
      {L"00000000000000000000000000000000000000000000000000000000000009", 9},
      // Nothing to read.
      {L"", {}},
      {L" ", {}},
      {L"abc", {}},
      {L"-", {}},
      {L"+", {}},
      {L"- 5", {}},
      {L"+-5", {}},
      {L"--5", {}},
      {L"x5", {}},
      {L".5", {}},
      {L"$5", {}},
      {L"true", {}},
      {L"\u0665", {}},
      {L"\uff15", {}},
      {std::wstring(L"\0005", 2), {}},
  };
  return rows;
}

void expect_number(const Conversion& made, VARTYPE target,
                   std::optional<std::uint64_t> payload) {
  EXPECT_EQ(made.printed, "");
  if (!payload) {
    EXPECT_EQ(made.result, E_INVALIDARG);
    EXPECT_EQ(made.value.vt, VT_EMPTY);
    return;
  }
  EXPECT_EQ(made.result, S_OK);
  EXPECT_EQ(made.value.vt, target);
  EXPECT_EQ(made.value.ullVal, *payload);
}

void expect_whole_numbers() {
  for (const WholeRow& row : whole_numbers()) {
    SCOPED_TRACE(testing::PrintToString(row.text));
    const _variant_t text = text_value(row.text);
    for (const VARTYPE target : {VT_I4, VT_I8}) {
      expect_number(
          Conversion(text, target), target,
          row.value ? std::optional(whole(*row.value)) : std::nullopt);
    }
    expect_number(
        Conversion(text, VT_I2), VT_I2,
        row.value ? std::optional(whole(*row.value) & 0xFFFF) : std::nullopt);
  }
}

TEST(TextAsWholeNumber, IsReadFromItsStart) { expect_whole_numbers(); }

TEST(TextAsWholeNumber, IsReadTheSameInAUtf8Locale) {
  const Utf8Locale locale;
  ASSERT_TRUE(locale.usable);
  expect_whole_numbers();
}

struct FractionRow {
  std::wstring text;
  std::optional<double> value;
};

void expect_fractions() {
  const std::vector<FractionRow> rows = {
      {L"0", 0.0},
      {L"1.5", 1.5},
      {L"-1.5", -1.5},
      {L"+1.5", 1.5},
      {L"  2.5abc", 2.5},
      {L"\t\n2.5", 2.5},
      {L".5", 0.5},
      {L"5.", 5.0},
      {L"-.5", -0.5},
      {L"-2.5e3x", -2500.0},
      {L"25E-1", 2.5},
      {L"1e", 1.0},
      {L"1e+", 1.0},
      {L"1.5.5", 1.5},
      {L"1,5", 1.0},
      {L"-0", -0.0},
      {L"9007199254740993", 9007199254740992.0},
      {L"0.1", 0.1},
      {L"1.7976931348623157e308", std::numeric_limits<double>::max()},
      {L"4.9e-324", std::numeric_limits<double>::denorm_min()},
      {std::wstring(L"1\0002", 3), 1.0},
      // The parser's own spellings.
      {L"0x10", 16.0},
      {L"0x1.8p1", 3.0},
      {L"0x", 0.0},
      {L"inf", kInfinity},
      {L"-INFINITY", -kInfinity},
      {L"infinit", kInfinity},
      {L"1e400", kInfinity},
      {L"-1e400", -kInfinity},
      {L"1e-400", 0.0},
      // Nothing to read.
      {L"", {}},
      {L" ", {}},
      {L"abc", {}},
      {L".", {}},
      {L"-", {}},
      {L"-.", {}},
      {L"e5", {}},
      {L"- 5", {}},
      {L"true", {}},
      {L"\u0665", {}},
      {std::wstring(L"\0005", 2), {}},
  };
  for (const FractionRow& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.text));
    expect_number(
        Conversion(text_value(row.text), VT_R8), VT_R8,
        row.value ? std::optional(bits_of(*row.value)) : std::nullopt);
  }
}

TEST(TextAsDouble, IsReadFromItsStart) { expect_fractions(); }

TEST(TextAsDouble, IsReadTheSameInAUtf8Locale) {
  const Utf8Locale locale;
  ASSERT_TRUE(locale.usable);
  expect_fractions();
}

TEST(TextAsDouble, MayBeNoNumber) {
  for (const wchar_t* text : {L"nan", L"NaN", L"-nan", L"nan(7)", L" nano"}) {
    SCOPED_TRACE(testing::PrintToString(text));
    const Conversion made(_variant_t(text), VT_R8);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.value.vt, VT_R8);
    EXPECT_TRUE(std::isnan(made.value.dblVal));
  }
}

struct TruthRow {
  std::wstring text;
  std::optional<std::uint64_t> payload;
};

void expect_truths() {
  const std::vector<TruthRow> rows = {
      {L"true", 0xFFFF},
      {L"TRUE", 0xFFFF},
      {L"TrUe", 0xFFFF},
      {L"tRuE", 0xFFFF},
      {L"false", 0},
      {L"FALSE", 0},
      {L"FaLsE", 0},
      {std::wstring(L"true\000x", 6), 0xFFFF},
      {L"", {}},
      {L"1", {}},
      {L"0", {}},
      {L"-1", {}},
      {L"yes", {}},
      {L"no", {}},
      {L"on", {}},
      {L"t", {}},
      {L"tru", {}},
      {L"truex", {}},
      {L"fals", {}},
      {L"falsey", {}},
      {L" true", {}},
      {L"true ", {}},
      // Letters that look like them or fold upwards to them.
      {L"fal\u017fe", {}},
      {L"\uff34RUE", {}},
      {L"tr\u00fce", {}},
      {std::wstring(L"\000true", 5), {}},
  };
  for (const TruthRow& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.text));
    expect_number(Conversion(text_value(row.text), VT_BOOL), VT_BOOL,
                  row.payload);
  }
}

TEST(TextAsBool, IsTrueOrFalseInAnyCase) { expect_truths(); }

TEST(TextAsBool, IsReadTheSameInAUtf8Locale) {
  const Utf8Locale locale;
  ASSERT_TRUE(locale.usable);
  expect_truths();
}

TEST(TextAsDate, IsReadAsVarDateFromStrReadsIt) {
  expect_number(Conversion(_variant_t(L"2024-01-01 18:00"), VT_DATE), VT_DATE,
                bits_of(45292.75));
  expect_number(Conversion(_variant_t(L"18:00:00"), VT_DATE), VT_DATE,
                bits_of(0.75));
  expect_number(Conversion(_variant_t(L"45292"), VT_DATE), VT_DATE, {});
  expect_number(Conversion(_variant_t(L"01.01.2024"), VT_DATE), VT_DATE, {});
  expect_number(Conversion(_variant_t(L""), VT_DATE), VT_DATE, {});
}

TEST(TextAndBack, GivesTheSameWholeNumber) {
  for (const std::int64_t value :
       {kSmallest, kSmallest + 1, std::int64_t{-4294967296}, std::int64_t{-10},
        std::int64_t{-9}, std::int64_t{-1}, std::int64_t{0}, std::int64_t{1},
        std::int64_t{9}, std::int64_t{10}, std::int64_t{99}, std::int64_t{100},
        std::int64_t{999999999999999999}, std::int64_t{1000000000000000000},
        kLargest - 1, kLargest}) {
    SCOPED_TRACE(value);
    const Conversion text(_variant_t(value), VT_BSTR);
    const Conversion number(text.value, VT_I8);

    EXPECT_EQ(text_of(text.value), std::to_wstring(value));
    EXPECT_EQ(number.value.vt, VT_I8);
    EXPECT_EQ(number.value.llVal, value);
  }
}

// ---------------------------------------------------------------------------
// VT_LPSTR
// ---------------------------------------------------------------------------

struct Utf8Row {
  std::wstring wide;
  std::string narrow;
};

const std::vector<Utf8Row>& utf8_rows() {
  static const std::vector<Utf8Row> rows = {
      {L"", ""},
      {L"a", "a"},
      {L"abc", "abc"},
      {L"\u00e4", "\xC3\xA4"},
      {L"\u20ac uro", "\xE2\x82\xAC uro"},
      {L"\U0001F600", "\xF0\x9F\x98\x80"},
      {L"x\u07ff\u0800\U00010000y", "x\xDF\xBF\xE0\xA0\x80\xF0\x90\x80\x80y"},
      {std::wstring(1000, L'\u00e4') + L"z",
       [] {
         std::string text;
         for (int i = 0; i < 1000; ++i) text += "\xC3\xA4";
         return text + "z";
       }()},
  };
  return rows;
}

TEST(TextAsLpstr, IsUtf8) {
  for (const Utf8Row& row : utf8_rows()) {
    SCOPED_TRACE(row.narrow);
    const Conversion made(text_value(row.wide), VT_LPSTR);

    EXPECT_EQ(made.result, S_OK);
    ASSERT_EQ(made.value.vt, VT_LPSTR);
    EXPECT_STREQ(made.value.pszVal, row.narrow.c_str());
    EXPECT_EQ(made.printed, "");
  }
}

TEST(TextAsLpstr, EndsAtTheFirstZero) {
  const Conversion made(text_value(std::wstring(L"ab\000cd", 5)), VT_LPSTR);

  ASSERT_EQ(made.value.vt, VT_LPSTR);
  EXPECT_STREQ(made.value.pszVal, "ab");
}

TEST(TextAsLpstr, EncodesEveryUnit) {
  const std::wstring units = {static_cast<wchar_t>(0xD800),
                              static_cast<wchar_t>(0x110000)};
  const Conversion made(text_value(units), VT_LPSTR);

  ASSERT_EQ(made.value.vt, VT_LPSTR);
  EXPECT_STREQ(made.value.pszVal, "\xED\xA0\x80\xF4\x90\x80\x80");
}

TEST(LpstrAsText, CountsItsTerminator) {
  for (const Utf8Row& row : utf8_rows()) {
    SCOPED_TRACE(row.narrow);
    const Conversion made(lpstr_value(row.narrow.c_str()), VT_BSTR);

    EXPECT_EQ(made.result, S_OK);
    ASSERT_EQ(made.value.vt, VT_BSTR);
    ASSERT_EQ(SysStringLen(made.value.bstrVal), row.wide.size() + 1);
    EXPECT_EQ(text_of(made.value), row.wide + L'\0');
    EXPECT_EQ(made.value.bstrVal[row.wide.size() + 1], L'\0');
    EXPECT_EQ(made.printed, "");
  }
}

TEST(LpstrAsText, IsEmptyForInvalidUtf8) {
  for (const char* text :
       {"\xFF", "a\xFF", "\x80", "abc\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xC3z",
        "a long text in front of what is wrong \xF8"}) {
    SCOPED_TRACE(text);
    const Conversion made(lpstr_value(text), VT_BSTR);

    EXPECT_EQ(made.result, S_OK);
    ASSERT_EQ(made.value.vt, VT_BSTR);
    EXPECT_EQ(SysStringLen(made.value.bstrVal), 0U);
    EXPECT_EQ(made.printed, "");
  }
}

// ---------------------------------------------------------------------------
// Default members
// ---------------------------------------------------------------------------

using Call = objects::Dispatch::Call;

/// An object whose default member is `make()`.
template <class Make>
auto answering(Make make) {
  return [make](const Call& call) {
    *call.result = _variant_t(make()).Detach();
    return S_OK;
  };
}

TEST(DefaultMember, IsAskedForAsAPropertyWithoutArguments) {
  std::optional<Call> seen;
  DISPPARAMS parameters{};
  VARIANT result_before{};
  objects::Dispatch object([&](const Call& call) {
    seen = call;
    if (call.parameters != nullptr) parameters = *call.parameters;
    result_before = *call.result;
    *call.result = _variant_t(L"answer").Detach();
    return S_OK;
  });
  const Conversion made(_variant_t(&object), VT_BSTR);

  ASSERT_TRUE(seen.has_value());
  EXPECT_EQ(object.invocations(), 1);
  EXPECT_EQ(seen->member, 0);
  EXPECT_TRUE(seen->riid == IID_NULL);
  EXPECT_EQ(seen->lcid, 0U);
  EXPECT_EQ(seen->flags, DISPATCH_PROPERTYGET);
  EXPECT_NE(seen->parameters, nullptr);
  EXPECT_EQ(parameters.cArgs, 0U);
  EXPECT_EQ(parameters.cNamedArgs, 0U);
  EXPECT_NE(seen->result, nullptr);
  EXPECT_EQ(result_before.vt, VT_EMPTY);
  EXPECT_EQ(seen->exception, nullptr);
  EXPECT_EQ(made.result, S_OK);
  EXPECT_EQ(text_of(made.value), L"answer");
}

TEST(DefaultMember, BecomesTextLikeAnyValue) {
  _variant_t referenced(std::int64_t{9});
  struct Row {
    std::function<VARIANT()> make;
    std::wstring text;
  };
  const std::vector<Row> rows = {
      {[] { return _variant_t().Detach(); }, L""},
      {[] { return plain(VT_NULL, 0); }, L""},
      {[] { return plain(VT_I2, 0xFFFE); }, L"-2"},
      {[] { return _variant_t(2.5).Detach(); }, L"2.5"},
      {[] { return _variant_t(true).Detach(); }, L"-1"},
      {[] { return plain(VT_DATE, bits_of(0.5)); }, L"12:00:00"},
      {[] { return _variant_t(L"text").Detach(); }, L"text"},
      {[] { return lpstr_value("x").Detach(); }, std::wstring(L"x\000", 2)},
      {[&] { return reference_to(&referenced); }, L"9"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.text));
    objects::Dispatch object([&](const Call& call) {
      *call.result = row.make();
      return S_OK;
    });
    const Conversion made(_variant_t(&object), VT_BSTR);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.value.vt, VT_BSTR);
    EXPECT_EQ(text_of(made.value), row.text);
    EXPECT_EQ(made.printed, "");
    EXPECT_EQ(object.references(), 1U);
  }
}

TEST(DefaultMember, MaySucceedWithAnyPositiveResult) {
  objects::Dispatch object([](const Call& call) {
    *call.result = _variant_t(L"answer").Detach();
    return HRESULT{0x7FFFFFFF};
  });
  const Conversion made(_variant_t(&object), VT_BSTR);

  EXPECT_EQ(made.result, S_OK);
  EXPECT_EQ(text_of(made.value), L"answer");
}

TEST(DefaultMember, FailureIsReturnedAsItIs) {
  for (const HRESULT failure : {DISP_E_MEMBERNOTFOUND, DISP_E_EXCEPTION,
                                E_OUTOFMEMORY, E_INVALIDARG, HRESULT{-1}}) {
    SCOPED_TRACE(failure);
    objects::Dispatch object([&](const Call&) { return failure; });
    const Conversion made(_variant_t(&object), VT_BSTR);

    EXPECT_EQ(made.result, failure);
    EXPECT_EQ(made.value.vt, VT_EMPTY);
    EXPECT_EQ(made.printed, "");
    EXPECT_EQ(object.references(), 1U);
  }
}

TEST(DefaultMember, OfATypeWithoutTextIsUnsupported) {
  objects::Dispatch object(answering([] { return plain(VT_R4, 0); }));
  const Conversion made(_variant_t(&object), VT_BSTR);

  EXPECT_EQ(made.result, E_INVALIDARG);
  EXPECT_EQ(made.value.vt, VT_EMPTY);
  EXPECT_EQ(made.printed, unsupported(VT_R4, VT_BSTR));
}

TEST(DefaultMember, OfAnArrayIsUnsupportedAndFreed) {
  objects::Dispatch object(
      answering([] { return array_value(0x2000 | VT_UI1, VT_UI1); }));
  const Conversion made(_variant_t(&object), VT_BSTR);

  EXPECT_EQ(made.result, E_INVALIDARG);
  EXPECT_EQ(made.printed, unsupported(0x2000 | VT_UI1, VT_BSTR));
}

TEST(DefaultMember, MayBeAnObjectWithADefaultMember) {
  objects::Dispatch inner(answering([] { return _variant_t(L"inner"); }));
  objects::Dispatch middle(answering([&] { return _variant_t(&inner); }));
  objects::Dispatch outer(answering([&] { return _variant_t(&middle); }));
  const Conversion made(_variant_t(&outer), VT_BSTR);

  EXPECT_EQ(made.result, S_OK);
  EXPECT_EQ(text_of(made.value), L"inner");
  EXPECT_EQ(inner.references(), 1U);
  EXPECT_EQ(middle.references(), 1U);
  EXPECT_EQ(outer.references(), 1U);
}

TEST(DefaultMember, MayBeAnObjectThatFails) {
  objects::Dispatch inner([](const Call&) { return DISP_E_MEMBERNOTFOUND; });
  objects::Dispatch outer(answering([&] { return _variant_t(&inner); }));
  const Conversion made(_variant_t(&outer), VT_BSTR);

  EXPECT_EQ(made.result, DISP_E_MEMBERNOTFOUND);
  EXPECT_EQ(made.value.vt, VT_EMPTY);
  EXPECT_EQ(inner.references(), 1U);
}

TEST(DefaultMember, ThatIsTheObjectItselfFailsInTheEnd) {
  IDispatch* self = nullptr;
  objects::Dispatch object(answering([&] { return _variant_t(self); }));
  self = &object;
  const Conversion made(_variant_t(self), VT_BSTR);

  EXPECT_TRUE(FAILED(made.result));
  EXPECT_EQ(made.value.vt, VT_EMPTY);
  EXPECT_EQ(object.references(), 1U);
}

TEST(DefaultMember, IsFollowedThrough64Objects) {
  for (const int objects_before_the_text : {63, 64}) {
    IDispatch* self = nullptr;
    int left = objects_before_the_text;
    objects::Dispatch object(answering(
        [&] { return left-- > 0 ? _variant_t(self) : _variant_t(L"text"); }));
    self = &object;
    const Conversion made(_variant_t(self), VT_BSTR);

    const bool reached = objects_before_the_text < 64;
    EXPECT_EQ(made.result, reached ? S_OK : E_INVALIDARG);
    EXPECT_EQ(made.value.vt, reached ? VT_BSTR : VT_EMPTY);
    EXPECT_EQ(object.invocations(), 64);
  }
}

TEST(DefaultMember, ThatGoesRoundInACircleFailsInTheEnd) {
  IDispatch* first = nullptr;
  objects::Dispatch second(answering([&] { return _variant_t(first); }));
  objects::Dispatch object(answering([&] { return _variant_t(&second); }));
  first = &object;
  const Conversion made(_variant_t(first), VT_BSTR);

  EXPECT_TRUE(FAILED(made.result));
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(second.references(), 1U);
}

TEST(DefaultMember, IsAskedForOnlyByText) {
  objects::Dispatch object(answering([] { return _variant_t(L"5"); }));
  const Conversion made(_variant_t(&object), VT_I8);

  EXPECT_EQ(made.result, E_INVALIDARG);
  EXPECT_EQ(made.printed, unsupported(VT_DISPATCH, VT_I8));
  EXPECT_EQ(object.invocations(), 0);
}

TEST(DefaultMember, ReplacesItsObjectInPlace) {
  objects::Dispatch object(answering([] { return _variant_t(L"answer"); }));
  _variant_t value(&object);

  EXPECT_EQ(VariantChangeType(&value, &value, 0, VT_BSTR), S_OK);
  EXPECT_EQ(text_of(value), L"answer");
  EXPECT_EQ(object.references(), 1U);
}

TEST(DefaultMember, ThatFailsLeavesItsObjectInPlace) {
  objects::Dispatch object([](const Call&) { return DISP_E_MEMBERNOTFOUND; });
  _variant_t value(&object);
  const VARIANT before = value;

  EXPECT_EQ(VariantChangeType(&value, &value, 0, VT_BSTR),
            DISP_E_MEMBERNOTFOUND);
  EXPECT_TRUE(same_bytes(value, before));
  EXPECT_EQ(object.references(), 2U);
}

// ---------------------------------------------------------------------------
// Where the result goes
// ---------------------------------------------------------------------------

TEST(InPlaceConversion, FreesTheText) {
  _variant_t value(L"7");

  EXPECT_EQ(VariantChangeType(&value, &value, 0, VT_I4), S_OK);
  EXPECT_EQ(value.vt, VT_I4);
  EXPECT_EQ(value.lVal, 7);
}

TEST(InPlaceConversion, KeepsATextThatIsNoNumber) {
  _variant_t value(L"seven");
  const VARIANT before = value;

  EXPECT_EQ(VariantChangeType(&value, &value, 0, VT_I4), E_INVALIDARG);
  EXPECT_TRUE(same_bytes(value, before));
  EXPECT_EQ(text_of(value), L"seven");
}

TEST(InPlaceConversion, ThroughAReferenceKeepsATextThatIsNoNumber) {
  _variant_t value(L"seven");
  VARIANT reference = reference_to(&value);

  EXPECT_EQ(VariantChangeType(&reference, &reference, 0, VT_I4), E_INVALIDARG);
  EXPECT_EQ(reference.vt, kReference);
  EXPECT_EQ(reference.pvarVal, &value);
  EXPECT_EQ(text_of(value), L"seven");
}

TEST(InPlaceConversion, ThroughAReferenceChangesTheReferencedValue) {
  _variant_t value(L"7");
  VARIANT reference = reference_to(&value);

  EXPECT_EQ(VariantChangeType(&reference, &reference, 0, VT_I4), S_OK);
  EXPECT_EQ(reference.vt, kReference);
  EXPECT_EQ(reference.pvarVal, &value);
  EXPECT_EQ(value.vt, VT_I4);
  EXPECT_EQ(value.lVal, 7);
}

TEST(InPlaceConversion, ToTheSameTypeCopiesSoThatTextsEndAtTheirFirstZero) {
  _variant_t value = text_value(std::wstring(L"ab\000cd", 5));

  EXPECT_EQ(VariantChangeType(&value, &value, 0, VT_BSTR), S_OK);
  EXPECT_EQ(text_of(value), L"ab");
}

TEST(ConversionToTheSameType, EndsTextsAtTheirFirstZero) {
  const Conversion made(text_value(std::wstring(L"ab\000cd", 5)), VT_BSTR);

  EXPECT_EQ(made.result, S_OK);
  EXPECT_EQ(text_of(made.value), L"ab");
}

TEST(ConversionToTheSameType, CopiesWithoutJudging) {
  for (const VARTYPE type : {VT_NULL, VT_R4, VT_CY, VT_DECIMAL, VT_ERROR}) {
    SCOPED_TRACE(type);
    const Conversion made(plain(type, kOther), type);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.value.vt, type);
    EXPECT_EQ(made.value.ullVal, kOther);
  }
}

TEST(ReferencedSource, IsFollowedOnce) {
  _variant_t value(std::int64_t{7});
  VARIANT inner = reference_to(&value);
  const VARIANT outer = reference_to(&inner);
  const Conversion made(outer, VT_I4);

  EXPECT_EQ(made.result, E_INVALIDARG);
  EXPECT_EQ(made.printed, unsupported(16396, VT_I4));
}

TEST(ReferencedSource, ThatRefersToItselfEnds) {
  VARIANT reference = reference_to(nullptr);
  reference.pvarVal = &reference;
  const Conversion made(reference, VT_I4);

  EXPECT_EQ(made.result, E_INVALIDARG);
  EXPECT_EQ(made.printed, unsupported(16396, VT_I4));
}

TEST(ReferencedSource, OfAReferenceCanBeCopied) {
  _variant_t value(std::int64_t{7});
  VARIANT inner = reference_to(&value);
  const Conversion made(reference_to(&inner), kReference);

  EXPECT_EQ(made.result, S_OK);
  EXPECT_EQ(made.value.vt, kReference);
  EXPECT_EQ(made.value.pvarVal, &value);
}

TEST(ReferencedSource, IsLeftAlone) {
  _variant_t value(L"7");
  const VARIANT before = value;
  const Conversion made(reference_to(&value), VT_I8);

  EXPECT_EQ(made.value.llVal, 7);
  EXPECT_TRUE(same_bytes(value, before));
}

TEST(ReferencedSource, ThatIsTheDestinationIsClearedFirst) {
  _variant_t value(L"7");
  const VARIANT reference = reference_to(&value);

  EXPECT_EQ(VariantChangeType(&value, &reference, 0, VT_I8), S_OK);
  EXPECT_EQ(value.vt, VT_I8);
  EXPECT_EQ(value.llVal, 0);
}

TEST(Destination, ThatIsAReferenceIsReplacedWithoutTouchingItsTarget) {
  _variant_t value(L"kept");
  VARIANT destination = reference_to(&value);
  const _variant_t source(std::int64_t{7});

  EXPECT_EQ(VariantChangeType(&destination, &source, 0, VT_I4), S_OK);
  EXPECT_EQ(destination.vt, VT_I4);
  EXPECT_EQ(destination.lVal, 7);
  EXPECT_EQ(text_of(value), L"kept");
}

TEST(Destination, IsEmptyAfterAFailure) {
  for (const wchar_t* text : {L"", L"x"}) {
    _variant_t destination(L"held");
    const _variant_t source(text);

    EXPECT_EQ(VariantChangeType(&destination, &source, 0, VT_I8), E_INVALIDARG);
    EXPECT_EQ(destination.vt, VT_EMPTY);
  }
}

TEST(ConversionFlags, AreIgnored) {
  for (const int flags : {0, 1, 2, 0x8000, 0xFFFF}) {
    _variant_t destination;
    const _variant_t source(true);

    EXPECT_EQ(VariantChangeType(&destination, &source,
                                static_cast<USHORT>(flags), VT_BSTR),
              S_OK);
    EXPECT_EQ(text_of(destination), L"-1");
  }
}

// ---------------------------------------------------------------------------
// Pointers that are NULL
// ---------------------------------------------------------------------------

TEST(NullText, IsNoNumberTruthOrDate) {
  for (const VARTYPE target : {VT_I2, VT_I4, VT_I8, VT_R8, VT_BOOL, VT_DATE}) {
    SCOPED_TRACE(target);
    const Conversion made(plain(VT_BSTR, 0), target);

    EXPECT_EQ(made.result, E_INVALIDARG);
    EXPECT_EQ(made.value.vt, VT_EMPTY);
    EXPECT_EQ(made.printed, "");
  }
}

TEST(NullText, StaysNull) {
  const Conversion text(plain(VT_BSTR, 0), VT_BSTR);
  const Conversion narrow(plain(VT_BSTR, 0), VT_LPSTR);
  const Conversion wide(plain(VT_LPSTR, 0), VT_BSTR);

  EXPECT_EQ(text.result, S_OK);
  EXPECT_EQ(text.value.vt, VT_BSTR);
  EXPECT_EQ(text.value.bstrVal, nullptr);
  EXPECT_EQ(narrow.result, S_OK);
  EXPECT_EQ(narrow.value.vt, VT_LPSTR);
  EXPECT_EQ(narrow.value.pszVal, nullptr);
  EXPECT_EQ(wide.result, S_OK);
  EXPECT_EQ(wide.value.vt, VT_BSTR);
  EXPECT_EQ(wide.value.bstrVal, nullptr);
}

TEST(NullObject, HasNoText) {
  const Conversion made(plain(VT_DISPATCH, 0), VT_BSTR);

  EXPECT_EQ(made.result, E_INVALIDARG);
  EXPECT_EQ(made.value.vt, VT_EMPTY);
  EXPECT_EQ(made.printed, "");
}

TEST(NullObject, CanBeCopied) {
  const Conversion made(plain(VT_DISPATCH, 0), VT_DISPATCH);

  EXPECT_EQ(made.result, S_OK);
  EXPECT_EQ(made.value.vt, VT_DISPATCH);
  EXPECT_EQ(made.value.pdispVal, nullptr);
}

TEST(NullReference, IsRefused) {
  for (const VARTYPE target : {VARTYPE{VT_I8}, VARTYPE{VT_BSTR}, kReference}) {
    SCOPED_TRACE(target);
    const Conversion made(reference_to(nullptr), target);

    EXPECT_EQ(made.result, E_INVALIDARG);
    EXPECT_EQ(made.printed, "");
  }
}

TEST(NullReference, IsRefusedInPlace) {
  VARIANT reference = reference_to(nullptr);

  EXPECT_EQ(VariantChangeType(&reference, &reference, 0, VT_I8), E_INVALIDARG);
  EXPECT_EQ(reference.vt, kReference);
  EXPECT_EQ(reference.pvarVal, nullptr);
}

TEST(NullArguments, AreRefused) {
  const _variant_t value(std::int64_t{7});
  _variant_t destination;
  std::vector<HRESULT> results;
  const std::string printed = printed::by([&] {
    results = {VariantChangeType(nullptr, &value, 0, VT_I4),
               VariantChangeType(nullptr, nullptr, 0, VT_I4),
               VariantChangeType(&destination, nullptr, 0, VT_I4)};
  });

  for (const HRESULT result : results) EXPECT_EQ(result, E_INVALIDARG);
  EXPECT_EQ(printed, "");
}

}  // namespace
