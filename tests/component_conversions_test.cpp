// SPDX-License-Identifier: MIT
//
// The conversions behind the translation of parameters, by themselves.
//
// Sections: bytes; numbers and texts; encodings.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/component_workbench.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"
#include "zir.h"

namespace {

using namespace parameters;
using values::kSmallest;
using values::plain;
using values::text_value;

using namespace std::string_literals;

// ---------------------------------------------------------------------------
// Bytes
// ---------------------------------------------------------------------------

std::vector<unsigned char> bytes_of(const VARIANT& value, HRESULT expected) {
  std::vector<unsigned char> read{7, 7, 7};
  EXPECT_EQ(workbench::variant_to_byte_array(&value, &read), expected);
  return read;
}

TEST(VariantToByteArray, ReadsFromTheLowerToTheUpperBound) {
  for (const LONG lower : {0L, 1L, -3L, 1000000L}) {
    EXPECT_EQ(bytes_of(bytes_value({1, 0, 255}, lower), S_OK),
              (std::vector<unsigned char>{1, 0, 255}));
    EXPECT_TRUE(bytes_of(bytes_value({}, lower), S_OK).empty());
  }
}

TEST(VariantToByteArray, ReadsAsManyAsTheFirstDimensionHas) {
  SAFEARRAYBOUND bounds[] = {{2, 5}, {3, 0}};
  SAFEARRAY* const array = SafeArrayCreate(VT_UI1, 2, bounds);
  const _variant_t value = array_value(VT_UI1, array);
  {
    const SafeArrayAccess access(array);
    for (int i = 0; i < 6; ++i) {
      access.elements<BYTE>()[i] = static_cast<BYTE>(i);
    }
  }
  EXPECT_EQ(bytes_of(value, S_OK), (std::vector<unsigned char>{0, 1}));
}

TEST(VariantToByteArray, FollowsReferences) {
  _variant_t value = bytes_value({1, 2});
  for (const std::size_t depth : {1U, 2U, 5U}) {
    const Chain chain(&value, depth);
    EXPECT_EQ(bytes_of(chain.front(), S_OK),
              (std::vector<unsigned char>{1, 2}));
  }
}

TEST(VariantToByteArray, TakesNothingElse) {
  const _variant_t contents[] = {
      VARIANT(),
      plain(VT_NULL, 0),
      plain(VT_UI1, 1),
      L"text",
      script_array_of(plain(VT_UI1, 1)),
      array_value(VT_BSTR, SafeArrayCreateVector(VT_BSTR, 0, 1)),
      null_reference(),
      plain(VT_BYREF | VT_UI1, 0)};
  for (const _variant_t& content : contents) {
    SCOPED_TRACE(describe(content));
    bytes_of(content, DISP_E_TYPEMISMATCH);
  }
  bytes_of(plain(VT_ARRAY | VT_UI1, 0), DISP_E_TYPEMISMATCH);
  VARIANT null_link = null_reference();
  bytes_of(Chain(&null_link, 3).front(), DISP_E_TYPEMISMATCH);
  _variant_t by_reference = bytes_value({1});
  by_reference.vt |= VT_BYREF;
  bytes_of(by_reference, DISP_E_TYPEMISMATCH);
}

TEST(VariantToByteArray, WithoutADimensionTheBoundsFail) {
  const _variant_t value =
      array_value(VT_UI1, SafeArrayCreate(VT_UI1, 0, nullptr));
  bytes_of(value, DISP_E_BADINDEX);
}

// A host may write a descriptor by hand.
TEST(VariantToByteArray, AnArrayWithoutDataHasNoBytes) {
  for (const std::uint32_t count : {0U, 1U, 3U, 0xFFFFFFFFU}) {
    SAFEARRAY array{};
    array.cDims = 1;
    array.cbElements = 1;
    array.rgsabound[0] = {count, 5};
    VARIANT value = plain(VT_ARRAY | VT_UI1, 0);
    value.parray = &array;
    EXPECT_TRUE(bytes_of(value, S_OK).empty()) << count;
    EXPECT_EQ(array.cLocks, 0U);
  }
}

TEST(VariantToByteArray, UnlocksTheArray) {
  const _variant_t contents[] = {bytes_value({1, 2}), bytes_value({})};
  for (const _variant_t& content : contents) {
    bytes_of(content, S_OK);
    EXPECT_EQ(SafeArrayAccess(content.parray).result(), S_OK);
  }
}

TEST(VariantToByteArray, ALockedArrayFailsAndStaysLocked) {
  const _variant_t value = bytes_value({1, 2});
  void* data = nullptr;
  ASSERT_EQ(SafeArrayAccessData(value.parray, &data), S_OK);
  bytes_of(value, E_UNEXPECTED);
  EXPECT_EQ(SafeArrayUnaccessData(value.parray), S_OK);
}

TEST(MakeByteArrayVariant, HoldsTheBytesFromZero) {
  const std::vector<unsigned char> contents[] = {
      {}, {0}, {1, 0, 255}, std::vector<unsigned char>(100000, 7)};
  for (const auto& content : contents) {
    _variant_t value;
    EXPECT_EQ(workbench::make_byte_array_variant(content, &value), S_OK);
    EXPECT_EQ(describe(value), describe(bytes_value(content)));
    EXPECT_EQ(value.parray->cDims, 1);
    EXPECT_EQ(value.parray->cLocks, 0U);
    EXPECT_EQ(value.parray->cbElements, 1U);
  }
}

// ---------------------------------------------------------------------------
// Numbers and texts
// ---------------------------------------------------------------------------

TEST(VariantToLongLong, ConvertsAsTheRuntimeDoes) {
  const struct {
    const char* description;
    _variant_t value;
    HRESULT result;
    long long number;
    std::string printed;
  } kRows[] = {
      {"nothing", VARIANT(), S_OK, 0, ""},
      {"text", L" 42nd", S_OK, 42, ""},
      {"VT_I4", plain(VT_I4, 0x100000007), S_OK, 0x100000007, ""},
      {"VT_I8", kSmallest, S_OK, kSmallest, ""},
      {"double", -1.9, S_OK, -1, ""},
      {"true", true, S_OK, -1, ""},
      {"VT_UI1", plain(VT_UI1, 0x1FF), S_OK, 255, ""},
      {"no number", L"x", E_INVALIDARG, 0, ""},
      {"no text", L"", E_INVALIDARG, 0, ""},
      // Narrow integers are widened on their way to the database alone.
      {"VT_I2", plain(VT_I2, 1), E_INVALIDARG, 0,
       conversion_stub(VT_I2, kToInteger)},
      {"VT_I1", plain(VT_I1, 1), E_INVALIDARG, 0,
       conversion_stub(VT_I1, kToInteger)},
      {"VT_UI2", plain(VT_UI2, 1), E_INVALIDARG, 0,
       conversion_stub(VT_UI2, kToInteger)},
      {"VT_UI4", plain(VT_UI4, 1), E_INVALIDARG, 0,
       conversion_stub(VT_UI4, kToInteger)},
      {"VT_UI8", plain(VT_UI8, 1), E_INVALIDARG, 0,
       conversion_stub(VT_UI8, kToInteger)},
      {"NULL", plain(VT_NULL, 0), E_INVALIDARG, 0,
       conversion_stub(VT_NULL, kToInteger)},
      {"VT_R4", plain(VT_R4, 0), E_INVALIDARG, 0,
       conversion_stub(VT_R4, kToInteger)},
      {"bytes", bytes_value({1}), E_INVALIDARG, 0,
       conversion_stub(0x2011, kToInteger)}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    _variant_t value = row.value;
    for (const std::size_t depth : {0U, 1U, 2U, 5U}) {
      const Chain chain(&value, depth);
      long long number = 77;
      HRESULT result = S_OK;
      EXPECT_EQ(printed::by([&] {
                  result =
                      workbench::variant_to_long_long(&chain.front(), &number);
                }),
                row.printed);
      EXPECT_EQ(result, row.result);
      if (SUCCEEDED(row.result)) {
        EXPECT_EQ(number, row.number);
      }
    }
    EXPECT_EQ(describe(value), describe(row.value));
  }
}

TEST(VariantToLongLong, NeedsAValue) {
  long long number = 0;
  EXPECT_EQ(workbench::variant_to_long_long(nullptr, &number), E_INVALIDARG);
  VARIANT null_link = null_reference();
  for (const std::size_t depth : {0U, 1U, 4U}) {
    const Chain chain(&null_link, depth);
    EXPECT_EQ(workbench::variant_to_long_long(&chain.front(), &number),
              E_INVALIDARG);
  }
}

TEST(VariantToBstrValue, ConvertsAsTheRuntimeDoes) {
  const struct {
    const char* description;
    _variant_t value;
    HRESULT result;
    const wchar_t* text;
    std::string printed;
  } kRows[] = {
      {"text", L"text", S_OK, L"text", ""},
      {"no text", L"", S_OK, L"", ""},
      {"null text", plain(VT_BSTR, 0), S_OK, L"", ""},
      {"nothing", VARIANT(), S_OK, L"", ""},
      {"NULL", plain(VT_NULL, 0), S_OK, L"", ""},
      {"VT_I8", -7, S_OK, L"-7", ""},
      {"VT_I2", plain(VT_I2, 0xFFFF), S_OK, L"-1", ""},
      {"true", true, S_OK, L"-1", ""},
      {"double", 2.5, S_OK, L"2.5", ""},
      {"date", plain(VT_DATE, values::bits_of(45292.0)), S_OK, L"2024/01/01",
       ""},
      {"eight-bit text", values::lpstr_value("text"), S_OK, L"text", ""},
      {"VT_R4", plain(VT_R4, 0), E_INVALIDARG, L"",
       conversion_stub(VT_R4, kToText)},
      {"VT_UI2", plain(VT_UI2, 1), E_INVALIDARG, L"",
       conversion_stub(VT_UI2, kToText)},
      {"bytes", bytes_value({1}), E_INVALIDARG, L"",
       conversion_stub(0x2011, kToText)}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    _variant_t value = row.value;
    for (const std::size_t depth : {0U, 1U, 2U, 5U}) {
      const Chain chain(&value, depth);
      _bstr_t converted(L"what was there before");
      HRESULT result = S_OK;
      EXPECT_EQ(printed::by([&] {
                  result = workbench::variant_to_bstr_value(&chain.front(),
                                                            &converted);
                }),
                row.printed);
      EXPECT_EQ(result, row.result);
      if (SUCCEEDED(row.result)) {
        ASSERT_NE(converted.m_s, nullptr);
        EXPECT_STREQ(converted.m_s, row.text);
      }
    }
    EXPECT_EQ(describe(value), describe(row.value));
  }
}

TEST(VariantToBstrValue, TextsEndAtTheirFirstZero) {
  _variant_t with_zero = text_value(L"ab\0cd"s);
  for (const std::size_t depth : {0U, 1U, 3U}) {
    const Chain chain(&with_zero, depth);
    _bstr_t converted;
    EXPECT_EQ(workbench::variant_to_bstr_value(&chain.front(), &converted),
              S_OK);
    EXPECT_EQ(SysStringLen(converted.m_s), 2U);
  }
}

TEST(VariantToBstrValue, AnEmptyTargetIsFilled) {
  const _variant_t value(L"text");
  _bstr_t converted;
  EXPECT_EQ(workbench::variant_to_bstr_value(&value, &converted), S_OK);
  EXPECT_STREQ(converted.m_s, L"text");
  EXPECT_NE(converted.m_s, value.bstrVal);
}

TEST(VariantToBstrValue, NeedsAValue) {
  _bstr_t converted;
  EXPECT_EQ(workbench::variant_to_bstr_value(nullptr, &converted),
            E_INVALIDARG);
  VARIANT null_link = null_reference();
  for (const std::size_t depth : {0U, 1U, 4U}) {
    const Chain chain(&null_link, depth);
    EXPECT_EQ(workbench::variant_to_bstr_value(&chain.front(), &converted),
              E_INVALIDARG);
  }
}

// ---------------------------------------------------------------------------
// Encodings
// ---------------------------------------------------------------------------

TEST(Utf8FromBstr, EncodesUpToTheFirstZero) {
  const struct {
    std::wstring text;
    std::string utf8;
  } kRows[] = {{L"", ""},
               {L"text", "text"},
               {L"\x7F\x80\u07FF\u0800", "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80"},
               {L"\uFFFF\U00010000\U0010FFFF",
                "\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
               {L"\xD800", "\xED\xA0\x80"},
               {L"\x110000", "\xF4\x90\x80\x80"},
               {L"ab\0cd"s, "ab"},
               {std::wstring(100000, L'n'), std::string(100000, 'n')}};
  for (const auto& row : kRows) {
    const _variant_t value = text_value(row.text);
    EXPECT_EQ(workbench::utf8_from_bstr(value.bstrVal), row.utf8);
  }
  EXPECT_EQ(workbench::utf8_from_bstr(nullptr), "");
}

TEST(Utf32FromUtf8, DecodesUpToTheFirstZeroOrNothingAtAll) {
  const struct {
    const char* description;
    std::string utf8;
    std::wstring text;
  } kRows[] = {{"empty", "", L""},
               {"ASCII", "text", L"text"},
               {"two to four bytes", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80",
                L"\u00e9\u20ac\U0001F600"},
               {"zero", "ab\0cd"s, L"ab"},
               {"overlong", "\xC1\x81", L"A"},
               {"surrogate", "\xED\xA0\x80", L"\xD800"},
               {"beyond the last character", "\xF4\x90\x80\x80", L"\x110000"},
               {"stray continuation", "\x80", L""},
               {"stray continuation behind a text", "text\x80", L""},
               {"cut", "text\xC3", L""},
               {"cut in the middle", "\xE2\x82text", L""},
               {"no lead byte", "text\xF8more", L""},
               {"long", std::string(100000, 'n'), std::wstring(100000, L'n')}};
  for (const auto& row : kRows) {
    EXPECT_EQ(workbench::utf32_from_utf8(row.utf8), row.text)
        << row.description;
  }
}

TEST(WstringFromBstr, HasEveryUnit) {
  for (const std::wstring& content :
       {L""s, L"text"s, L"ab\0cd"s, L"\0"s, std::wstring(100000, L'n')}) {
    const _variant_t value = text_value(content);
    EXPECT_EQ(workbench::wstring_from_bstr(value.bstrVal), content);
  }
  EXPECT_EQ(workbench::wstring_from_bstr(nullptr), L"");
}

}  // namespace
