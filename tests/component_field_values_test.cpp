// SPDX-License-Identifier: MIT
//
// What Field.Value makes of each kind of cell, through the vtable, late-bound
// and from an enumerator, on the row and after the row was left.
//
// Sections: roads; NULL, truth values and numbers; texts; bytes; many of them;
// copies.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "support/objects.h"
#include "support/recordsets.h"

namespace {

using component::Answer;
using component::dispatch_of;
using recordsets::Field;
using recordsets::Fields;
using recordsets::fields_of;
using recordsets::item_of;
using recordsets::object_in;
using recordsets::Recordset;
using recordsets::value_of;
using workbench::Blob;
using workbench::Cell;
using workbench::Null;

// ---------------------------------------------------------------------------
// Roads
// ---------------------------------------------------------------------------

Recordset holding(const Cell& cell) {
  // Cells around it, so that a reader that goes astray reads something else.
  return workbench::recordset(
      {"before", "cell", "behind"},
      {{std::string("before"), cell, std::string("behind")}});
}

_variant_t late_bound(const Field& field, int flags) {
  component::Call call;
  call.flags = static_cast<WORD>(flags);
  const Answer answer = component::invoke(dispatch_of(field.get()).get(), call);
  EXPECT_EQ(answer.result, S_OK);
  return answer.value;
}

/// Has `check` look at the value that each road reads from the cell.
void by_every_road(const Cell& cell,
                   const std::function<void(const VARIANT&)>& check) {
  const auto named = [&check](const char* road, const VARIANT& value) {
    SCOPED_TRACE(road);
    check(value);
  };
  const Recordset recordset = holding(cell);
  const Fields fields = fields_of(recordset);
  const Field field = item_of(fields, _variant_t(L"cell")).second;
  ASSERT_TRUE(field);
  named("vtable", value_of(field).second);
  named("late-bound", late_bound(field, DISPATCH_PROPERTYGET));
  named("late-bound, both flags",
        late_bound(field, DISPATCH_PROPERTYGET | DISPATCH_METHOD));
  const Answer answer = component::method(dispatch_of(recordset.get()).get(), 0,
                                          {_variant_t(L"cell")});
  const auto of_default =
      object_in<IZIRDBField>(answer, VT_DISPATCH, IID_IZIRDBField);
  named("recordset's default member", value_of(of_default).second);

  const auto enumerator = recordsets::enumerator_of(fields);
  ASSERT_TRUE(enumerator);
  ASSERT_EQ(enumerator->Skip(1), S_OK);
  const Field enumerated = recordsets::next_of(enumerator);
  ASSERT_TRUE(enumerated);
  named("enumerated", value_of(enumerated).second);

  EXPECT_EQ(recordset->MoveNext(), S_OK);
  named("captured by the field", value_of(field).second);
  named("captured by the fields",
        value_of(item_of(fields, _variant_t(1)).second).second);
  EXPECT_EQ(recordset->Close(), S_OK);
  named("enumerated, closed", value_of(enumerated).second);
  ASSERT_EQ(enumerator->Reset(), S_OK);
  ASSERT_EQ(enumerator->Skip(1), S_OK);
  named("enumerated when closed",
        value_of(recordsets::next_of(enumerator)).second);
}

// ---------------------------------------------------------------------------
// NULL, truth values and numbers
// ---------------------------------------------------------------------------

TEST(FieldValue, OfNullIsNull) {
  by_every_road(Null{},
                [](const VARIANT& value) { EXPECT_EQ(value.vt, VT_NULL); });
}

TEST(FieldValue, OfATruthValueIsMinusOneOrZero) {
  for (const bool truth : {false, true}) {
    by_every_road(truth, [truth](const VARIANT& value) {
      EXPECT_EQ(value.vt, VT_BOOL);
      EXPECT_EQ(value.boolVal, truth ? -1 : 0);
    });
  }
}

TEST(FieldValue, OfAnIntegerHasAllItsBits) {
  for (const std::int64_t number :
       {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}, std::int64_t{127},
        std::int64_t{-32768}, std::int64_t{2147483647},
        std::int64_t{-2147483647} - 1, std::int64_t{4294967296},
        std::int64_t{0x0123456789ABCDEF}, values::kLargest - 1,
        values::kLargest, values::kSmallest + 1, values::kSmallest}) {
    by_every_road(number, [number](const VARIANT& value) {
      EXPECT_EQ(value.vt, VT_I8);
      EXPECT_EQ(value.llVal, number);
    });
  }
}

double of_bits(std::uint64_t bits) {
  double number = 0;
  std::memcpy(&number, &bits, sizeof number);
  return number;
}

TEST(FieldValue, OfADoubleHasAllItsBits) {
  for (const double number :
       {0.0, -0.0, 1.0, -1.5, 0.1, 1e308, -1e308, 5e-324, values::kNaN,
        -values::kNaN, of_bits(0x7FF8123456789ABC), values::kInfinity,
        -values::kInfinity, std::numeric_limits<double>::max(),
        std::numeric_limits<double>::min(),
        std::numeric_limits<double>::epsilon()}) {
    by_every_road(number, [number](const VARIANT& value) {
      EXPECT_EQ(value.vt, VT_R8);
      EXPECT_EQ(values::bits_of(value.dblVal), values::bits_of(number));
    });
  }
}

TEST(FieldValue, KeepsTheKindsOfAllColumnsApart) {
  const Recordset recordset = workbench::recordset(
      {"a", "b", "c", "d", "e", "f"},
      {{Null{}, true, std::int64_t{-5}, 2.5, std::string("x"), Blob{9}},
       {Blob{1, 2}, Null{}, false, std::int64_t{6}, -0.5, std::string("")}});
  const std::vector<std::vector<int>> types = {
      {VT_NULL, VT_BOOL, VT_I8, VT_R8, VT_BSTR, VT_ARRAY | VT_UI1},
      {VT_ARRAY | VT_UI1, VT_NULL, VT_BOOL, VT_I8, VT_R8, VT_BSTR}};
  for (const std::vector<int>& row : types) {
    const Fields fields = fields_of(recordset);
    for (int i = 0; i < 6; ++i) {
      const Field field = item_of(fields, _variant_t(i)).second;
      EXPECT_EQ(value_of(field).second.vt, row[static_cast<std::size_t>(i)]);
    }
    EXPECT_EQ(recordset->MoveNext(), S_OK);
  }
}

// ---------------------------------------------------------------------------
// Texts
// ---------------------------------------------------------------------------

void expect_text(const std::string& utf8, const std::wstring& text) {
  SCOPED_TRACE(testing::PrintToString(utf8.substr(0, 100)));
  by_every_road(utf8, [&text](const VARIANT& value) {
    ASSERT_EQ(value.vt, VT_BSTR);
    ASSERT_NE(value.bstrVal, nullptr);
    ASSERT_EQ(SysStringLen(value.bstrVal), text.size());
    EXPECT_TRUE(values::text_of(value) == text);
    EXPECT_EQ(value.bstrVal[text.size()], L'\0');
  });
}

TEST(FieldValue, OfAnAsciiTextHasAllItsLetters) {
  for (std::size_t length = 0; length <= 70; ++length) {
    std::string utf8;
    for (std::size_t i = 0; i < length; ++i) {
      utf8 += static_cast<char>('!' + (i + length) % 94);
    }
    expect_text(utf8, std::wstring(utf8.begin(), utf8.end()));
  }
}

TEST(FieldValue, OfAnEmptyTextIsAnEmptyStringThatIsThere) {
  expect_text("", L"");
}

TEST(FieldValue, OfATextWithOneOtherLetterAnywhere) {
  struct Letter {
    const char* utf8;
    wchar_t unit;
  };
  constexpr Letter kLetters[] = {{"\x01", 1},
                                 {"\x7F", 0x7F},
                                 {"\xC2\x80", 0x80},
                                 {"\xC3\xA9", 0xE9},
                                 {"\xDF\xBF", 0x7FF},
                                 {"\xE0\xA0\x80", 0x800},
                                 {"\xE2\x82\xAC", 0x20AC},
                                 {"\xEF\xBF\xBF", 0xFFFF},
                                 {"\xF0\x90\x80\x80", 0x10000},
                                 {"\xF4\x8F\xBF\xBF", 0x10FFFF}};
  constexpr std::size_t kLength = 20;
  for (const Letter& letter : kLetters) {
    for (std::size_t at = 0; at <= kLength; ++at) {
      std::string utf8(kLength, 'a');
      std::wstring text(kLength, L'a');
      expect_text(utf8.insert(at, letter.utf8),
                  text.insert(at, 1, letter.unit));
    }
  }
}

TEST(FieldValue, OfATextOfOtherLettersOnly) {
  for (std::size_t length = 1; length <= 40; ++length) {
    std::string utf8;
    std::wstring text;
    for (std::size_t i = 0; i < length; ++i) {
      utf8 += i % 2 == 0 ? "\xC3\xA9" : "\xF0\x9F\x98\x80";
      text += i % 2 == 0 ? L'\u00E9' : L'\U0001F600';
    }
    expect_text(utf8, text);
  }
}

TEST(FieldValue, OfATextTakesWhatTheConverterTakes) {
  expect_text("a\xC0\xAF", L"a/");                       // overlong
  expect_text("\xED\xA0\x80", std::wstring(1, 0xD800));  // a surrogate
  expect_text("\xF7\xBF\xBF\xBF", std::wstring(1, 0x1FFFFF));
}

TEST(FieldValue, OfATextThatIsNotUtf8IsEmpty) {
  for (const char* utf8 :
       {"\x80", "\xBF", "\xFF", "\xF8\x88\x80\x80\x80", "\xC3", "\xE2\x82",
        "\xF0\x9F\x98", "\xC3(", "\xE2\x82(", "\xE2(\xAC", "abc\xFF",
        "\xFF then much that is good, more than a few letters",
        "much that is good, more than a few letters, and then \xFE",
        "good \xC3\xA9 and bad \xA9"}) {
    expect_text(utf8, L"");
  }
  // What is cut off in the middle of a letter.
  expect_text(std::string("ab\xE2\x82\0\xAC", 6), L"");
}

TEST(FieldValue, OfATextEndsAtItsFirstZero) {
  expect_text(std::string("\0", 1), L"");
  expect_text(std::string("abc\0def", 7), L"abc");
  expect_text(std::string("\0abc", 4), L"");
  expect_text(std::string("abc\0", 4), L"abc");
  expect_text(std::string("\xC3\xA9\0\xC3\xA9", 5), L"\u00E9");
  expect_text(std::string(40, 'x') + std::string("\0y", 2),
              std::wstring(40, L'x'));
}

TEST(FieldValue, OfATextIsNotJudgedBehindItsFirstZero) {
  expect_text(std::string("abc\0\xFF", 5), L"abc");
  expect_text(std::string("\0\xC3", 2), L"");
}

constexpr std::size_t kTenMegabytes = std::size_t{10} << 20;

TEST(FieldValue, OfALongTextIsWhole) {
  std::string utf8;
  std::wstring text;
  for (std::size_t i = 0; utf8.size() < kTenMegabytes; ++i) {
    if (i % 1000 == 999) {
      utf8 += "\xE2\x82\xAC";
      text += L'\u20AC';
    } else {
      utf8 += static_cast<char>('a' + i % 26);
      text += static_cast<wchar_t>(L'a' + i % 26);
    }
  }
  expect_text(utf8, text);
}

// ---------------------------------------------------------------------------
// Bytes
// ---------------------------------------------------------------------------

void expect_bytes(const Blob& bytes) {
  SCOPED_TRACE(testing::Message() << bytes.size() << " bytes");
  by_every_road(bytes, [&bytes](const VARIANT& value) {
    ASSERT_EQ(value.vt, VT_ARRAY | VT_UI1);
    ASSERT_NE(value.parray, nullptr);
    EXPECT_EQ(value.parray->cDims, 1);
    EXPECT_EQ(value.parray->cbElements, 1U);
    EXPECT_EQ(value.parray->cLocks, 0U);
    LONG lower = -77;
    LONG upper = -77;
    EXPECT_EQ(SafeArrayGetLBound(value.parray, 1, &lower), S_OK);
    EXPECT_EQ(SafeArrayGetUBound(value.parray, 1, &upper), S_OK);
    EXPECT_EQ(lower, 0);
    ASSERT_EQ(upper, static_cast<LONG>(bytes.size()) - 1);
    const SafeArrayAccess access(value.parray);
    ASSERT_EQ(access.result(), S_OK);
    if (!bytes.empty()) {
      EXPECT_EQ(
          std::memcmp(access.elements<BYTE>(), bytes.data(), bytes.size()), 0);
    }
  });
}

TEST(FieldValue, OfBytesIsAnArrayFromZero) {
  for (std::size_t size = 0; size <= 40; ++size) {
    Blob bytes;
    for (std::size_t i = 0; i < size; ++i) {
      bytes.push_back(static_cast<unsigned char>(i * 37 + size));
    }
    expect_bytes(bytes);
  }
}

TEST(FieldValue, OfNoBytesIsAnArrayWithoutElements) { expect_bytes({}); }

TEST(FieldValue, OfBytesKeepsZerosAndEveryOtherByte) {
  Blob bytes;
  for (int i = 0; i < 256; ++i) {
    bytes.push_back(static_cast<unsigned char>(i));
  }
  expect_bytes(bytes);
  expect_bytes(Blob(100, 0));
  expect_bytes(Blob(100, 0xFF));
}

TEST(FieldValue, OfManyBytesIsWhole) {
  Blob bytes(kTenMegabytes);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<unsigned char>(i ^ (i >> 8) ^ (i >> 16));
  }
  expect_bytes(bytes);
}

// ---------------------------------------------------------------------------
// Many of them
// ---------------------------------------------------------------------------

/// Short ones for the most part, and some of every size up to 20,000.
std::size_t size_of_many(std::size_t row, std::size_t column) {
  const std::size_t number = (row * 2 + column) * 7919 % 20011;
  return row % 8 == 0 ? number : number % 40;
}

std::string text_of_many(std::size_t row) {
  std::string text(size_of_many(row, 0), static_cast<char>('a' + row % 26));
  if (row % 3 == 0) text += "\xC3\xA9";
  return text;
}

Blob bytes_of_many(std::size_t row) {
  return Blob(size_of_many(row, 1), static_cast<unsigned char>(row % 251));
}

constexpr std::size_t kManyRows = 4000;

TEST(FieldValue, OfManyRowsAreKeptApart) {
  const Recordset recordset =
      workbench::recordset({"text", "bytes"}, kManyRows,
                           [](std::size_t row, std::size_t column) -> Cell {
                             if (column == 0) return text_of_many(row);
                             return bytes_of_many(row);
                           });
  const Fields fields = fields_of(recordset);
  for (std::size_t row = 0; row < kManyRows; ++row) {
    const _variant_t text =
        value_of(item_of(fields, _variant_t(0)).second).second;
    const _variant_t bytes =
        value_of(item_of(fields, _variant_t(1)).second).second;
    std::wstring wide(size_of_many(row, 0),
                      static_cast<wchar_t>(L'a' + row % 26));
    if (row % 3 == 0) wide += L'\u00E9';
    ASSERT_EQ(text.vt, VT_BSTR);
    ASSERT_TRUE(values::text_of(text) == wide) << row;
    const Blob expected = bytes_of_many(row);
    ASSERT_EQ(bytes.vt, VT_ARRAY | VT_UI1);
    LONG upper = -77;
    ASSERT_EQ(SafeArrayGetUBound(bytes.parray, 1, &upper), S_OK);
    ASSERT_EQ(upper, static_cast<LONG>(expected.size()) - 1) << row;
    const SafeArrayAccess access(bytes.parray);
    ASSERT_TRUE(expected.empty() ||
                std::memcmp(access.elements<BYTE>(), expected.data(),
                            expected.size()) == 0)
        << row;
    ASSERT_EQ(recordset->MoveNext(), S_OK);
  }
}

// ---------------------------------------------------------------------------
// Copies
// ---------------------------------------------------------------------------

TEST(FieldValueCopies, OfATextAreEachCallersOwn) {
  const Recordset recordset = holding(std::string("text"));
  const Field field = recordsets::field_of(recordset, _variant_t(1));
  const _variant_t first = value_of(field).second;
  const _variant_t second = value_of(field).second;
  ASSERT_NE(first.bstrVal, second.bstrVal);
  first.bstrVal[0] = L'X';
  EXPECT_EQ(values::text_of(second), L"text");
  EXPECT_EQ(values::text_of(value_of(field).second), L"text");
}

TEST(FieldValueCopies, OfBytesAreEachCallersOwn) {
  const Recordset recordset = holding(Blob{1, 2, 3});
  const Field field = recordsets::field_of(recordset, _variant_t(1));
  const _variant_t first = value_of(field).second;
  const _variant_t second = value_of(field).second;
  ASSERT_NE(first.parray, second.parray);
  {
    const SafeArrayAccess access(first.parray);
    access.elements<BYTE>()[0] = 99;
  }
  const SafeArrayAccess access(second.parray);
  EXPECT_EQ(access.elements<BYTE>()[0], 1);
  const _variant_t third = value_of(field).second;
  const SafeArrayAccess third_access(third.parray);
  EXPECT_EQ(third_access.elements<BYTE>()[0], 1);
}

TEST(FieldValueCopies, FromTheSnapshotAreEachCallersOwn) {
  const Recordset recordset = holding(std::string("text"));
  const Field field = recordsets::field_of(recordset, _variant_t(1));
  ASSERT_EQ(recordset->MoveNext(), S_OK);
  const _variant_t first = value_of(field).second;
  first.bstrVal[0] = L'X';
  EXPECT_EQ(values::text_of(value_of(field).second), L"text");
}

TEST(FieldValueCopies, FromAnEnumeratedFieldAreEachCallersOwn) {
  const Recordset recordset = holding(std::string("text"));
  const auto enumerator = recordsets::enumerator_of(fields_of(recordset));
  ASSERT_EQ(enumerator->Skip(1), S_OK);
  const Field field = recordsets::next_of(enumerator);
  const _variant_t first = value_of(field).second;
  const _variant_t second = value_of(field).second;
  ASSERT_NE(first.bstrVal, second.bstrVal);
  first.bstrVal[0] = L'X';
  EXPECT_EQ(values::text_of(value_of(field).second), L"text");
}

TEST(FieldValueCopies, OutliveTheRecordset) {
  _variant_t text;
  _variant_t bytes;
  {
    const Recordset recordset = workbench::recordset(
        {"text", "bytes"}, {{std::string("text"), Blob{1, 2, 3}}});
    text = value_of(recordsets::field_of(recordset, _variant_t(0))).second;
    bytes = value_of(recordsets::field_of(recordset, _variant_t(1))).second;
    ASSERT_EQ(recordset->Close(), S_OK);
  }
  EXPECT_EQ(values::text_of(text), L"text");
  const SafeArrayAccess access(bytes.parray);
  EXPECT_EQ(access.elements<BYTE>()[2], 3);
}

TEST(FieldValueCopies, OverwriteTheCallersVariantWithoutFreeingIt) {
  const Recordset recordset = holding(std::string("text"));
  const Field field = recordsets::field_of(recordset, _variant_t(1));
  objects::Unknown object;
  VARIANT value{};
  value.vt = VT_UNKNOWN;
  value.punkVal = &object;
  ASSERT_EQ(field->get_Value(&value), S_OK);
  const _variant_t owner = values::owned(value);
  EXPECT_EQ(values::text_of(owner), L"text");
  EXPECT_EQ(object.references(), 1U);
}

}  // namespace
