// SPDX-License-Identifier: MIT
//
// What the runtime asks the allocator for when all is well: how often, how
// much, and where it gives it back.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "runtime_allocator.h"
#include "support/objects.h"
#include "zir.h"

namespace {

using namespace allocator;

/// The call makes one request to malloc, of exactly this size, and returns the
/// block that came of it.
template <class Call>
void expect_one_block(std::size_t size, const Call& call) {
  const void* block = nullptr;
  const std::vector<Request> requests = requests_of([&] { block = call(); });
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].by, By::Malloc);
  EXPECT_EQ(requests[0].size, size);
  EXPECT_EQ(requests[0].block, block);
}

const void* block_of(BSTR string) {
  return static_cast<const char*>(static_cast<const void*>(string)) - 8;
}

/// A string that is freed with it.
const void* block_of(const _bstr_t& string) { return block_of(string.m_s); }

TEST(Requests, AStringIsOneBlockOfItsCountAndUnits) {
  for (const std::size_t length : {0U, 1U, 2U, 5U, 12U, 1000U}) {
    const std::wstring content(length, L'x');
    _bstr_t first;
    expect_one_block(8 + 4 * (length + 1), [&] {
      first.m_s = SysAllocString(content.c_str());
      return block_of(first);
    });
    _bstr_t second;
    expect_one_block(8 + 4 * (length + 1), [&] {
      second.m_s =
          SysAllocStringLen(content.c_str(), static_cast<UINT>(length));
      return block_of(second);
    });
  }
}

TEST(Requests, AStringOfBytesIsOneBlockWithoutTerminator) {
  for (const UINT length : {0U, 1U, 3U, 4U, 1000U}) {
    const std::string content(length, 'x');
    _bstr_t string;
    expect_one_block(8 + length, [&] {
      string.m_s = SysAllocStringByteLen(content.c_str(), length);
      return block_of(string);
    });
  }
}

TEST(Requests, NoStringIsNoBlock) {
  EXPECT_TRUE(requests_of([] {
                SysAllocString(nullptr);
                SysFreeString(nullptr);
              }).empty());
  EXPECT_EQ(g_watched.frees, 0);
}

TEST(Requests, AStringIsFreedAtItsCount) {
  auto* const string = SysAllocString(L"text");
  EXPECT_TRUE(requests_of([&] { SysFreeString(string); }).empty());

  EXPECT_EQ(g_watched.frees, 1);
  EXPECT_EQ(g_watched.last_freed, block_of(string));
}

TEST(Requests, ACopiedTextIsOneBlock) {
  const _variant_t source = text(L"twelve chars");
  _variant_t copy;
  expect_one_block(8 + 4 * 13, [&] {
    VariantCopy(&copy, &source);
    return block_of(copy.bstrVal);
  });
}

TEST(Requests, ACopiedNarrowTextIsOneBlock) {
  const _variant_t source = lpstr("text");
  _variant_t copy;
  expect_one_block(5, [&] {
    VariantCopy(&copy, &source);
    return copy.pszVal;
  });
}

TEST(Requests, ValuesThatOwnNothingNeedNothing) {
  for (const int type : std::initializer_list<int>{
           VT_EMPTY, VT_NULL, VT_I2, VT_I4, VT_R4, VT_R8, VT_CY, VT_DATE,
           VT_ERROR, VT_BOOL, VT_DECIMAL, VT_I1, VT_UI1, VT_UI2, VT_UI4, VT_I8,
           VT_UI8, VT_BYREF | VT_BSTR, VT_BYREF | VT_VARIANT}) {
    const _variant_t source = scalar(type, 1);
    _variant_t copy;
    EXPECT_TRUE(requests_of([&] {
                  VariantCopy(&copy, &source);
                  VariantClear(&copy);
                  VariantInit(&copy);
                }).empty())
        << type;
    EXPECT_EQ(g_watched.frees, 0) << type;
  }
}

TEST(Requests, ObjectsAndMissingTextsNeedNothing) {
  objects::Unknown object;
  const _variant_t sources[] = {_variant_t(&object), scalar(VT_BSTR, 0),
                                scalar(VT_LPSTR, 0),
                                scalar(VT_ARRAY | VT_UI1, 0)};
  for (const _variant_t& source : sources) {
    _variant_t copy;
    EXPECT_TRUE(requests_of([&] { VariantCopy(&copy, &source); }).empty())
        << source.vt;
  }
}

TEST(Requests, ClearingNeedsNothing) {
  objects::Unknown object;
  VARIANT values[] = {text(L"text").Detach(), lpstr("text").Detach(),
                      nested_array(&object).Detach()};
  for (VARIANT& value : values) {
    EXPECT_TRUE(requests_of([&] { VariantClear(&value); }).empty());
  }
}

TEST(Requests, AClearedTextIsFreedOnce) {
  VARIANT value = text(L"text").Detach();
  const void* const block = block_of(value.bstrVal);
  requests_of([&] { VariantClear(&value); });

  EXPECT_EQ(g_watched.frees, 1);
  EXPECT_EQ(g_watched.last_freed, block);
}

TEST(Requests, AnArrayIsItsElementsAndADescriptor) {
  const struct {
    VARTYPE type;
    std::size_t element;
  } table[] = {{VT_VARIANT, 16}, {VT_BSTR, 8}, {VT_UI1, 1}};
  for (const auto& row : table) {
    for (const UINT dimensions : {1U, 2U, 3U}) {
      SAFEARRAYBOUND bounds[] = {{5, 1}, {7, -1}, {2, 0}};
      const std::size_t count = dimensions == 1 ? 5 : dimensions == 2 ? 35 : 70;
      SAFEARRAY* array = nullptr;
      const std::vector<Request> requests = requests_of(
          [&] { array = SafeArrayCreate(row.type, dimensions, bounds); });

      ASSERT_EQ(requests.size(), 2U) << row.type;
      EXPECT_EQ(requests[0].size, count * row.element) << row.type;
      EXPECT_EQ(requests[0].block, array->pvData) << row.type;
      EXPECT_EQ(requests[1].size, 24 + 16 * (dimensions + 1)) << row.type;
      EXPECT_EQ(requests[1].block, array) << row.type;

      SafeArrayDestroy(array);
    }
  }
}

TEST(Requests, AnUnknownArrayTypeNeedsNothing) {
  EXPECT_TRUE(requests_of([] { SafeArrayCreateVector(VT_I4, 0, 5); }).empty());
}

TEST(Requests, ACopyOfBytesIsTwoBlocks) {
  const _variant_t bytes =
      array_of(SafeArrayCreateVector(VT_UI1, 0, 9), VT_UI1);
  std::memset(bytes.parray->pvData, 1, 9);
  SAFEARRAY* copy = nullptr;
  const std::vector<Request> requests =
      requests_of([&] { SafeArrayCopy(bytes.parray, &copy); });

  EXPECT_EQ(requests.size(), 2U);
  EXPECT_EQ(SafeArrayDestroy(copy), S_OK);
}

TEST(Requests, ConvertersNeedNothing) {
  wchar_t wide[200];
  char narrow[200];
  std::uint16_t units[200];
  const std::string long_text(150, 'x');
  EXPECT_TRUE(requests_of([&] {
                utf8_utf32(wide, 200, long_text.c_str());
                utf32_utf8(narrow, 200, wide);
                utf32_utf16(units, 200, wide);
                utf16_utf32(wide, 200, units);
              }).empty());
}

TEST(Requests, OperatorsOnNumbersNeedNothing) {
  using Binary = HRESULT (*)(VARIANT*, VARIANT*, VARIANT*);
  const Binary operators[] = {VarAdd, VarSub, VarMul, VarDiv, VarPow};
  _variant_t operands[] = {_variant_t(7), _variant_t(2.5)};
  _variant_t result;
  EXPECT_TRUE(requests_of([&] {
                for (const Binary operation : operators) {
                  for (_variant_t& left : operands) {
                    for (_variant_t& right : operands) {
                      operation(&left, &right, &result);
                      VarCmp(&left, &right, 0, 0);
                    }
                  }
                }
                for (_variant_t& operand : operands) {
                  VarRound(&operand, 2, &result);
                  VarInt(&operand, &result);
                  VarFix(&operand, &result);
                  VarAbs(&operand, &result);
                }
                VarMod(&operands[0], &operands[0], &result);
              }).empty());
  EXPECT_EQ(g_watched.frees, 0);
}

TEST(Requests, OperatorsOnTruthValuesNeedNothing) {
  _variant_t yes(true);
  _variant_t result;
  EXPECT_TRUE(requests_of([&] {
                VarAnd(&yes, &yes, &result);
                VarOr(&yes, &yes, &result);
                VarXor(&yes, &yes, &result);
                VarNot(&yes, &result);
                VarMul(&yes, &yes, &result);
                VarCmp(&yes, &yes, 0, 0);
              }).empty());
}

TEST(Requests, TextsReadAsNumbersNeedNothing) {
  const struct {
    const wchar_t* content;
    int type;
  } table[] = {{L" -12", VT_I2}, {L" -12", VT_I4},   {L" -12", VT_I8},
               {L"1.5", VT_R8},  {L"true", VT_BOOL}, {L"2024/01/31", VT_DATE}};
  for (const auto& row : table) {
    const _variant_t source = text(row.content);
    _variant_t converted;
    HRESULT result = E_FAIL;
    EXPECT_TRUE(requests_of([&] {
                  result = VariantChangeType(&converted, &source, 0,
                                             static_cast<VARTYPE>(row.type));
                }).empty())
        << row.type;
    EXPECT_EQ(result, S_OK) << row.type;
  }
}

TEST(Requests, ANumberWrittenAsTextIsOneBlock) {
  const struct {
    _variant_t source;
    std::size_t length;
  } table[] = {{_variant_t(-1234567), 8}, {_variant_t(0.5), 3},
               {_variant_t(true), 2},     {_variant_t(), 0},
               {date(45292.75), 19},      {lpstr("abc"), 4}};
  for (const auto& row : table) {
    _variant_t converted;
    expect_one_block(8 + 4 * (row.length + 1), [&] {
      VariantChangeType(&converted, &row.source, 0, VT_BSTR);
      return block_of(converted.bstrVal);
    });
  }
}

TEST(Requests, ATextMadeNarrowIsOneBlock) {
  const _variant_t source = text(L"a\u20AC");
  _variant_t converted;
  expect_one_block(5, [&] {
    VariantChangeType(&converted, &source, 0, VT_LPSTR);
    return converted.pszVal;
  });
}

TEST(Requests, TwoTextsJoinedAreOneBlock) {
  _variant_t left = text(L"ab");
  _variant_t right = text(L"cde");
  _variant_t joined;
  expect_one_block(8 + 4 * 6, [&] {
    VarCat(&left, &right, &joined);
    return block_of(joined.bstrVal);
  });
}

TEST(Requests, IdentifiersAndContextsNeedNothingTwice) {
  wchar_t buffer[40];
  CoInitializeEx(nullptr, 0);
  EXPECT_TRUE(requests_of([&] {
                StringFromGUID2(IID_IUnknown, buffer, 39);
                EXPECT_EQ(CoInitializeEx(nullptr, 0), S_FALSE);
                void* object = nullptr;
                CoGetObjectContext(IID_IContextProperties, &object);
                static_cast<IUnknown*>(object)->Release();
                SetErrorInfo(0, nullptr);
              }).empty());
  CoUninitialize();
}

}  // namespace
