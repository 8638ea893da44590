// SPDX-License-Identifier: MIT
//
// Counted strings: what their blocks look like, what their lengths say; and the
// error record that owns three of them.
//
// Sections: counted strings; error records.

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "zir.h"

namespace {

// ---------------------------------------------------------------------------
// Counted strings
// ---------------------------------------------------------------------------

struct FreeString {
  void operator()(BSTR string) const { SysFreeString(string); }
};
using OwnedString = std::unique_ptr<wchar_t, FreeString>;

struct FreeBlock {
  void operator()(void* block) const { std::free(block); }
};

/// Where the block of a string begins.
void* block_of(BSTR string) { return string - 2; }

std::uint64_t stored_count(BSTR string) {
  std::uint64_t count = 0;
  std::memcpy(&count, block_of(string), sizeof count);
  return count;
}

std::wstring units_of(BSTR string) {
  return std::wstring(string, SysStringLen(string));
}

/// Whether a string's block has the room of `bytes` from malloc. Exact where
/// the allocator is, as the address sanitizer's; otherwise as far as it tells.
testing::AssertionResult has_block_of(BSTR string, std::size_t bytes) {
  const std::size_t room = malloc_usable_size(block_of(string));
#ifdef __SANITIZE_ADDRESS__
  const std::size_t most = bytes;
#else
  const std::size_t most = std::max<std::size_t>(24, bytes + 23);
#endif
  if (room >= bytes && room <= most) return testing::AssertionSuccess();
  return testing::AssertionFailure() << room << " bytes, expected " << bytes;
}

TEST(Bstr, ATextIsCopiedWithItsTerminatorBehindA64BitCount) {
  for (const std::wstring& text :
       {std::wstring(), std::wstring(L"a"), std::wstring(L"hello"),
        std::wstring(L"h\u00E9\u20AC\U00010348"), std::wstring(1000, L'x')}) {
    const OwnedString string(SysAllocString(text.c_str()));
    ASSERT_NE(string, nullptr);
    EXPECT_NE(string.get(), text.c_str());
    EXPECT_EQ(stored_count(string.get()), text.size());
    EXPECT_EQ(std::wstring(string.get(), text.size() + 1),
              std::wstring(text.c_str(), text.size() + 1));
    EXPECT_TRUE(has_block_of(string.get(), 8 + 4 * (text.size() + 1)));
  }
}

TEST(Bstr, ATextIsCopiedUpToItsFirstZero) {
  const OwnedString string(SysAllocString(L"ab\0cd"));
  EXPECT_EQ(SysStringLen(string.get()), 2U);
  EXPECT_TRUE(has_block_of(string.get(), 8 + 4 * 3));
}

TEST(Bstr, NoTextGivesNoString) { EXPECT_EQ(SysAllocString(nullptr), nullptr); }

TEST(Bstr, EveryEmptyStringIsABlockOfItsOwn) {
  const OwnedString one(SysAllocString(L""));
  const OwnedString another(SysAllocString(L""));
  ASSERT_NE(one, nullptr);
  EXPECT_NE(one, another);
  EXPECT_EQ(*one, L'\0');
  EXPECT_EQ(stored_count(one.get()), 0U);
}

TEST(Bstr, CountedUnitsAreCopiedZerosIncluded) {
  const std::wstring text(L"a\0b\0", 4);
  const OwnedString string(SysAllocStringLen(text.data(), 4));
  EXPECT_EQ(stored_count(string.get()), 4U);
  EXPECT_EQ(units_of(string.get()), text);
  EXPECT_EQ(string.get()[4], L'\0');
  EXPECT_TRUE(has_block_of(string.get(), 8 + 4 * 5));
}

TEST(Bstr, ExactlyTheCountedUnitsAreRead) {
  // In a block of their own, so that a unit too many is found by a sanitizer.
  const std::vector<wchar_t> units = {L'a', L'b', L'c'};
  const OwnedString whole(SysAllocStringLen(units.data(), 3));
  const OwnedString part(SysAllocStringLen(units.data(), 2));
  EXPECT_EQ(std::wstring(whole.get()), L"abc");
  EXPECT_EQ(std::wstring(part.get()), L"ab");
}

TEST(Bstr, StringsOfEveryLengthAreCopiedWholeAndTerminated) {
  // A block of the exact size, so that a unit too many shows.
  std::vector<wchar_t> units;
  for (UINT count = 0; count <= 70; ++count) {
    const std::wstring text(units.begin(), units.end());
    const std::vector<wchar_t> exact(units.begin(), units.end());
    const OwnedString counted(
        SysAllocStringLen(count == 0 ? L"" : exact.data(), count));
    const OwnedString measured(SysAllocString(text.c_str()));
    for (const OwnedString* const string : {&counted, &measured}) {
      ASSERT_EQ(std::wstring(string->get()), text);
      ASSERT_EQ(stored_count(string->get()), count);
      ASSERT_TRUE(
          has_block_of(string->get(), 8 + 4 * (std::size_t{count} + 1)));
    }
    units.push_back(static_cast<wchar_t>(0x100 + count));
  }
}

TEST(Bstr, CountedUnitsWithoutASourceHaveTheirFirstAndLastZeroed) {
  const OwnedString string(SysAllocStringLen(nullptr, 5));
  EXPECT_EQ(SysStringLen(string.get()), 5U);
  EXPECT_EQ(string.get()[0], L'\0');
  EXPECT_EQ(string.get()[5], L'\0');
}

#ifdef __SANITIZE_ADDRESS__
TEST(Bstr, CountedUnitsWithoutASourceAreOtherwiseLeftUnwritten) {
  // What a fresh block holds here, so that a write would show.
  const std::unique_ptr<unsigned char, FreeBlock> fresh(
      static_cast<unsigned char*>(std::malloc(32)));
  const OwnedString string(SysAllocStringLen(nullptr, 5));
  for (const std::size_t at : {1U, 2U, 3U, 4U}) {
    EXPECT_EQ(std::memcmp(string.get() + at, fresh.get() + 12, 4), 0) << at;
  }
}
#endif

TEST(Bstr, NoUnitsWithoutASourceAreAnEmptyString) {
  const OwnedString string(SysAllocStringLen(nullptr, 0));
  ASSERT_NE(string, nullptr);
  EXPECT_EQ(SysStringLen(string.get()), 0U);
  EXPECT_EQ(string.get()[0], L'\0');
  EXPECT_TRUE(has_block_of(string.get(), 12));
}

TEST(Bstr, NoUnitsOfASourceAreAnEmptyString) {
  const OwnedString string(SysAllocStringLen(L"abc", 0));
  ASSERT_NE(string, nullptr);
  EXPECT_EQ(SysStringLen(string.get()), 0U);
  EXPECT_EQ(string.get()[0], L'\0');
}

TEST(Bstr, TheCountWhoseTerminatorWouldNotFitIsRefused) {
  const UINT most = std::numeric_limits<UINT>::max();
  EXPECT_EQ(SysAllocStringLen(nullptr, most), nullptr);
  EXPECT_EQ(SysAllocStringLen(L"abc", most), nullptr);
}

TEST(Bstr, BytesAreCopiedWithoutTerminator) {
  const OwnedString string(SysAllocStringByteLen("abc", 3));
  ASSERT_NE(string, nullptr);
  EXPECT_EQ(stored_count(string.get()), 3U);
  EXPECT_EQ(std::memcmp(string.get(), "abc", 3), 0);
  EXPECT_TRUE(has_block_of(string.get(), 8 + 3));
}

TEST(Bstr, BytesOfEveryCountAreCopiedZerosIncluded) {
  std::vector<char> bytes;
  for (UINT count = 0; count <= 40; ++count) {
    const OwnedString string(SysAllocStringByteLen(bytes.data(), count));
    ASSERT_NE(string, nullptr);
    ASSERT_EQ(stored_count(string.get()), count);
    ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(),
                           static_cast<char*>(block_of(string.get())) + 8));
    ASSERT_TRUE(has_block_of(string.get(), 8 + std::size_t{count}));
    bytes.push_back(static_cast<char>(count * 3 % 7));
  }
}

TEST(Bstr, BytesWithoutASourceHaveTheirCount) {
  const OwnedString string(SysAllocStringByteLen(nullptr, 7));
  ASSERT_NE(string, nullptr);
  EXPECT_EQ(SysStringLen(string.get()), 7U);
  EXPECT_TRUE(has_block_of(string.get(), 8 + 7));
}

TEST(Bstr, BothLengthsGiveTheStoredCount) {
  const OwnedString text(SysAllocString(L"hello"));
  const OwnedString units(SysAllocStringLen(L"a\0b", 3));
  const OwnedString bytes(SysAllocStringByteLen("abc", 3));
  EXPECT_EQ(SysStringLen(text.get()), 5U);
  EXPECT_EQ(SysStringByteLen(text.get()), 5U);
  EXPECT_EQ(SysStringLen(units.get()), 3U);
  EXPECT_EQ(SysStringByteLen(units.get()), 3U);
  EXPECT_EQ(SysStringLen(bytes.get()), 3U);
  EXPECT_EQ(SysStringByteLen(bytes.get()), 3U);
}

TEST(Bstr, LengthsAreTheLow32BitsOfTheCount) {
  const OwnedString string(SysAllocString(L"hello"));
  const std::uint64_t count = 0x7FFFFFFF80000005;
  std::memcpy(block_of(string.get()), &count, sizeof count);
  EXPECT_EQ(SysStringLen(string.get()), 0x80000005U);
  EXPECT_EQ(SysStringByteLen(string.get()), 0x80000005U);
}

TEST(Bstr, NoStringIsAnEmptyOne) {
  EXPECT_EQ(SysStringLen(nullptr), 0U);
  EXPECT_EQ(SysStringByteLen(nullptr), 0U);
  SysFreeString(nullptr);
}

TEST(Bstr, ABlockFromMallocIsFreedAtItsCount) {
  void* const block = std::malloc(8 + 2 * sizeof(wchar_t));
  ASSERT_NE(block, nullptr);
  const std::uint64_t count = 1;
  std::memcpy(block, &count, sizeof count);
  wchar_t* const string = static_cast<wchar_t*>(block) + 2;
  EXPECT_EQ(SysStringLen(string), 1U);
  SysFreeString(string);
}

TEST(Bstr, AStringMayBeFreedByHandAtItsCount) {
  std::free(block_of(SysAllocString(L"hello")));
  std::free(block_of(SysAllocStringLen(nullptr, 3)));
  std::free(block_of(SysAllocStringByteLen("abc", 3)));
}

// ---------------------------------------------------------------------------
// Error records
// ---------------------------------------------------------------------------

int g_fill_in_calls = 0;

HRESULT fill_in(EXCEPINFO*) {
  ++g_fill_in_calls;
  return S_OK;
}

/// Owns an error record.
class Record {
 public:
  Record() { ExcepinfoInit(&info); }  // NOLINT: that is what Init is for
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  ~Record() { ExcepinfoClear(&info); }

  void fill(const wchar_t* prefix) {
    const std::wstring start(prefix);
    ExcepinfoClear(&info);
    info.wCode = 0x1234;
    info.wReserved = 0x5678;
    info.bstrSource = SysAllocString((start + L"source").c_str());
    info.bstrDescription = SysAllocString((start + L"description").c_str());
    info.bstrHelpFile = SysAllocString((start + L"help").c_str());
    info.dwHelpContext = 0x9ABCDEF0;
    info.pvReserved = this;
    info.pfnDeferredFillIn = fill_in;
    info.scode = E_FAIL;
  }

  EXCEPINFO info;
};

std::vector<char> bytes_of(const EXCEPINFO& info) {
  const void* const address = &info;
  const auto* const bytes = static_cast<const char*>(address);
  return std::vector<char>(bytes, bytes + sizeof info);
}

void expect_empty(const EXCEPINFO& info) {
  EXPECT_EQ(info.wCode, 0);
  EXPECT_EQ(info.wReserved, 0);
  EXPECT_EQ(info.bstrSource, nullptr);
  EXPECT_EQ(info.bstrDescription, nullptr);
  EXPECT_EQ(info.bstrHelpFile, nullptr);
  EXPECT_EQ(info.dwHelpContext, 0U);
  EXPECT_EQ(info.pvReserved, nullptr);
  EXPECT_EQ(info.pfnDeferredFillIn, nullptr);
  EXPECT_EQ(info.scode, S_OK);
}

TEST(Excepinfo, InitEmptiesEveryFieldWithoutReadingAny) {
  EXCEPINFO info = {};
  std::memset(static_cast<void*>(&info), 0xAA, sizeof info);
  ExcepinfoInit(&info);
  expect_empty(info);
}

TEST(Excepinfo, InitFreesNothing) {
  const OwnedString text(SysAllocString(L"kept"));
  EXCEPINFO info = {};
  info.bstrSource = text.get();
  info.bstrDescription = text.get();
  info.bstrHelpFile = text.get();
  ExcepinfoInit(&info);
  EXPECT_EQ(std::wstring(text.get()), L"kept");
}

TEST(Excepinfo, ClearFreesTheStringsAndEmptiesEveryField) {
  Record record;
  record.fill(L"");
  EXPECT_EQ(ExcepinfoClear(&record.info), S_OK);
  expect_empty(record.info);
}

TEST(Excepinfo, AnEmptyRecordMayBeClearedAgain) {
  Record record;
  EXPECT_EQ(ExcepinfoClear(&record.info), S_OK);
  EXPECT_EQ(ExcepinfoClear(&record.info), S_OK);
  expect_empty(record.info);
}

TEST(Excepinfo, CopyTakesEveryFieldAndStringsOfItsOwn) {
  Record source;
  Record destination;
  source.fill(L"my ");
  EXPECT_EQ(ExcepinfoCopy(&destination.info, &source.info), S_OK);
  const EXCEPINFO& copy = destination.info;
  EXPECT_EQ(copy.wCode, 0x1234);
  EXPECT_EQ(copy.wReserved, 0x5678);
  EXPECT_EQ(std::wstring(copy.bstrSource), L"my source");
  EXPECT_EQ(std::wstring(copy.bstrDescription), L"my description");
  EXPECT_EQ(std::wstring(copy.bstrHelpFile), L"my help");
  EXPECT_EQ(copy.dwHelpContext, 0x9ABCDEF0);
  EXPECT_EQ(copy.pvReserved, &source);
  EXPECT_EQ(copy.pfnDeferredFillIn, fill_in);
  EXPECT_EQ(copy.scode, E_FAIL);
  EXPECT_NE(copy.bstrSource, source.info.bstrSource);
  EXPECT_NE(copy.bstrDescription, source.info.bstrDescription);
  EXPECT_NE(copy.bstrHelpFile, source.info.bstrHelpFile);
}

TEST(Excepinfo, CopyLeavesItsSourceAsItIs) {
  Record source;
  Record destination;
  source.fill(L"");
  const std::vector<char> before = bytes_of(source.info);
  ExcepinfoCopy(&destination.info, &source.info);
  EXPECT_EQ(bytes_of(source.info), before);
  EXPECT_EQ(std::wstring(source.info.bstrDescription), L"description");
}

TEST(Excepinfo, CopyFreesWhatTheDestinationHeld) {
  Record source;
  Record destination;
  destination.fill(L"old ");
  EXPECT_EQ(ExcepinfoCopy(&destination.info, &source.info), S_OK);
  expect_empty(destination.info);
}

TEST(Excepinfo, CopyKeepsNoStringApartFromAnEmptyOne) {
  Record source;
  Record destination;
  source.info.bstrSource = SysAllocString(L"");
  ExcepinfoCopy(&destination.info, &source.info);
  ASSERT_NE(destination.info.bstrSource, nullptr);
  EXPECT_EQ(SysStringLen(destination.info.bstrSource), 0U);
  EXPECT_EQ(destination.info.bstrDescription, nullptr);
  EXPECT_EQ(destination.info.bstrHelpFile, nullptr);
}

TEST(Excepinfo, CopiedStringsEndAtTheirFirstZero) {
  Record source;
  Record destination;
  source.info.bstrSource = SysAllocStringLen(L"a\0b", 3);
  source.info.bstrDescription = SysAllocStringLen(L"cd\0e", 4);
  source.info.bstrHelpFile = SysAllocStringLen(L"\0f", 2);
  ExcepinfoCopy(&destination.info, &source.info);
  EXPECT_EQ(SysStringLen(destination.info.bstrSource), 1U);
  EXPECT_EQ(SysStringLen(destination.info.bstrDescription), 2U);
  EXPECT_EQ(SysStringLen(destination.info.bstrHelpFile), 0U);
}

TEST(Excepinfo, ARecordCopiedOntoItselfEndsEmpty) {
  Record record;
  record.fill(L"");
  EXPECT_EQ(ExcepinfoCopy(&record.info, &record.info), S_OK);
  expect_empty(record.info);
}

TEST(Excepinfo, TheFillInFunctionIsNeverCalled) {
  g_fill_in_calls = 0;
  Record source;
  Record destination;
  source.fill(L"");
  ExcepinfoCopy(&destination.info, &source.info);
  ExcepinfoClear(&source.info);
  EXPECT_EQ(g_fill_in_calls, 0);
}

}  // namespace
