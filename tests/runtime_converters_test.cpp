// SPDX-License-Identifier: MIT
//
// The converters between UTF-8, UTF-16 and UTF-32: results, every unit that is
// written, and every unit that is not.
//
// The library takes wide steps where it can; the references here take one unit
// at a time, so that the two can only agree by both being right. Sources and
// destinations stand hard against pages that nobody may touch, or in blocks of
// their exact size, so that a step too wide does not go unnoticed.
//
// Sections: guarded memory; references; the comparison; UTF-8 to UTF-32; UTF-32
// to UTF-8; UTF-16 to UTF-32; UTF-32 to UTF-16; there and back.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iomanip>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "zir.h"

namespace {

// ---------------------------------------------------------------------------
// Guarded memory
// ---------------------------------------------------------------------------

/// Owns pages between two that cannot be touched.
class GuardedPages {
 public:
  GuardedPages() : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
    void* const region = mmap(nullptr, page_ * (kPages + 2), PROT_NONE,
                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (region == MAP_FAILED) throw std::runtime_error("mmap");
    region_ = static_cast<unsigned char*>(region);
    if (mprotect(region_ + page_, page_ * kPages, PROT_READ | PROT_WRITE) !=
        0) {
      munmap(region_, page_ * (kPages + 2));
      throw std::runtime_error("mprotect");
    }
  }
  GuardedPages(const GuardedPages&) = delete;
  GuardedPages& operator=(const GuardedPages&) = delete;
  ~GuardedPages() { munmap(region_, page_ * (kPages + 2)); }

  /// Room for `count` units, behind the last of which the guard begins.
  template <class Unit>
  Unit* last(std::size_t count) const {
    if (count * sizeof(Unit) > page_ * kPages) throw std::length_error("last");
    void* const start = region_ + page_ * (kPages + 1) - count * sizeof(Unit);
    return static_cast<Unit*>(start);
  }

  /// Room in front of which the guard ends.
  template <class Unit>
  Unit* first() const {
    void* const start = region_ + page_;
    return static_cast<Unit*>(start);
  }

 private:
  static constexpr std::size_t kPages = 16;
  std::size_t page_;
  unsigned char* region_ = nullptr;
};

const GuardedPages& source_pages() {
  static const GuardedPages pages;
  return pages;
}

const GuardedPages& destination_pages() {
  static const GuardedPages pages;
  return pages;
}

// ---------------------------------------------------------------------------
// References
// ---------------------------------------------------------------------------

/// One sequence, read a byte at a time; -1 when it is none.
std::int64_t plain_sequence(const unsigned char** source) {
  const unsigned lead = *(*source)++;
  int following = 0;
  std::int64_t value = 0;
  if ((lead >= 0x80 && lead < 0xC0) || lead >= 0xF8) return -1;
  if (lead < 0x80) {
    value = lead;
  } else if (lead < 0xE0) {
    following = 1;
    value = lead - 0xC0;
  } else if (lead < 0xF0) {
    following = 2;
    value = lead - 0xE0;
  } else {
    following = 3;
    value = lead - 0xF0;
  }
  for (; following > 0; --following) {
    const unsigned next = **source;
    if (next < 0x80 || next > 0xBF) return -1;
    value = value * 64 + (next - 0x80);
    ++*source;
  }
  return value;
}

std::size_t plain_utf8_utf32(wchar_t* destination, std::size_t capacity,
                             const char* text) {
  const void* const bytes = text;
  const auto* source = static_cast<const unsigned char*>(bytes);
  std::size_t at = 0;
  while (*source != 0) {
    if (capacity > 0 && at == capacity - 1) {
      destination[at] = 0;
      return capacity;
    }
    const std::int64_t value = plain_sequence(&source);
    if (value < 0) return 0;
    if (capacity > 0) destination[at] = static_cast<wchar_t>(value);
    ++at;
  }
  if (capacity > 0) destination[at] = 0;
  return at + 1;
}

/// The bytes of one character.
std::string plain_bytes(std::uint32_t value) {
  std::string bytes;
  const auto add = [&bytes](std::uint32_t byte) {
    bytes += static_cast<char>(byte);
  };
  if (value < 0x80) {
    add(value);
  } else if (value < 0x800) {
    add(0xC0 + value / 64);
  } else if (value < 0x10000) {
    add(0xE0 + value / 4096);
    add(0x80 + value / 64 % 64);
  } else {
    add(0xF0 | (value / 262144 % 256));
    add(0x80 + value / 4096 % 64);
    add(0x80 + value / 64 % 64);
  }
  if (value >= 0x80) add(0x80 + value % 64);
  return bytes;
}

std::size_t plain_utf32_utf8(char* destination, std::size_t capacity,
                             const wchar_t* source) {
  std::size_t at = 0;
  for (; *source != 0; ++source) {
    const std::string bytes = plain_bytes(static_cast<std::uint32_t>(*source));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if (at + bytes.size() < capacity) destination[at + i] = bytes[i];
    }
    at += bytes.size();
  }
  if (capacity > 0) destination[std::min(at, capacity - 1)] = 0;
  return at + 1;
}

std::uint32_t number_of(std::uint16_t unit) { return unit; }
std::uint32_t number_of(wchar_t unit) {
  return static_cast<std::uint32_t>(unit);
}

/// Unit by unit, up to the first unit that `refused` names.
template <class To, class From, class Refused>
std::size_t plain_copy(To* destination, std::size_t capacity,
                       const From* source, Refused refused) {
  std::size_t at = 0;
  for (; source[at] != 0; ++at) {
    if (capacity > 0 && at == capacity - 1) {
      destination[at] = 0;
      return capacity;
    }
    const std::uint32_t unit = number_of(source[at]);
    if (refused(unit)) return 0;
    if (capacity > 0) destination[at] = static_cast<To>(unit);
  }
  if (capacity > 0) destination[at] = 0;
  return at + 1;
}

std::size_t plain_utf16_utf32(wchar_t* destination, std::size_t capacity,
                              const std::uint16_t* source) {
  return plain_copy(destination, capacity, source, [](std::uint32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
  });
}

std::size_t plain_utf32_utf16(std::uint16_t* destination, std::size_t capacity,
                              const wchar_t* source) {
  return plain_copy(destination, capacity, source,
                    [](std::uint32_t unit) { return unit > 0x7FFF; });
}

// ---------------------------------------------------------------------------
// The comparison
// ---------------------------------------------------------------------------

/// A text without its terminator; zeros may stand inside of none.
template <class Unit>
using Text = std::vector<Unit>;

Text<char> bytes_of(std::string_view text) {
  return Text<char>(text.begin(), text.end());
}

template <class Unit>
std::string in_hex(const Unit* units, std::size_t count) {
  std::ostringstream text;
  text << std::hex << std::uppercase;
  for (std::size_t i = 0; i < count; ++i) {
    std::make_unsigned_t<Unit> value = 0;
    std::memcpy(&value, &units[i], sizeof value);
    text << (i == 0 ? "" : " ") << static_cast<std::uint64_t>(value);
  }
  return text.str();
}

template <class To, class From>
using Converter = std::size_t (*)(To*, std::size_t, const From*);

/// A converter and what it must agree with.
template <class To, class From>
class Pair {
 public:
  constexpr Pair(Converter<To, From> tested, Converter<To, From> plain)
      : tested_(tested), plain_(plain) {}

  /// The units that `text` needs, terminator included; 0 when it is bad.
  std::size_t need(const Text<From>& text) const {
    Text<From> source(text);
    source.push_back(0);
    return plain_(nullptr, 0, source.data());
  }

  /// Compares the result and every unit of the destination. The text ends at a
  /// guard, and so does the destination.
  testing::AssertionResult agree(const Text<From>& text,
                                 std::size_t capacity) const {
    From* const source = source_pages().last<From>(text.size() + 1);
    std::copy(text.begin(), text.end(), source);
    source[text.size()] = 0;
    return agree_on(source, text.size(), capacity);
  }

  /// The same with a source that begins `offset` bytes behind an address that
  /// is a multiple of 16, in a block that ends behind it.
  testing::AssertionResult agree_at(std::size_t offset, const Text<From>& text,
                                    std::size_t capacity) const {
    const std::size_t skipped = offset / sizeof(From);
    Text<From> block(skipped + text.size() + 1);
    std::copy(text.begin(), text.end(),
              block.begin() + static_cast<std::ptrdiff_t>(skipped));
    return agree_on(block.data() + skipped, text.size(), capacity);
  }

  /// The same with a source in front of which a guard ends.
  testing::AssertionResult agree_behind_guard(const Text<From>& text,
                                              std::size_t capacity) const {
    From* const source = source_pages().first<From>();
    std::copy(text.begin(), text.end(), source);
    source[text.size()] = 0;
    return agree_on(source, text.size(), capacity);
  }

  /// The same with `units` as they are, which need not be terminated if the
  /// capacity ends the conversion before.
  testing::AssertionResult agree_unterminated(const Text<From>& units,
                                              std::size_t capacity) const {
    From* const source = source_pages().last<From>(units.size());
    std::copy(units.begin(), units.end(), source);
    return agree_on(source, units.size(), capacity);
  }

 private:
  testing::AssertionResult agree_on(const From* source, std::size_t length,
                                    std::size_t capacity) const {
    static std::vector<To> expected;
    expected.resize(capacity);
    To* const destination = destination_pages().last<To>(capacity);
    if (capacity > 0) {
      std::memset(expected.data(), kUnwritten, capacity * sizeof(To));
      std::memset(destination, kUnwritten, capacity * sizeof(To));
    }
    const std::size_t expected_result =
        plain_(expected.data(), capacity, source);
    const std::size_t result = tested_(destination, capacity, source);
    if (result == expected_result &&
        std::equal(expected.begin(), expected.end(), destination)) {
      return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << "text " << in_hex(source, length) << "\ncapacity " << capacity
           << "\nresult " << result << ", expected " << expected_result
           << "\nbuffer   " << in_hex(destination, capacity) << "\nexpected "
           << in_hex(expected.data(), capacity);
  }

  static constexpr int kUnwritten = 0xAA;
  Converter<To, From> tested_;
  Converter<To, From> plain_;
};

constexpr Pair<wchar_t, char> kFromUtf8(utf8_utf32, plain_utf8_utf32);
constexpr Pair<char, wchar_t> kToUtf8(utf32_utf8, plain_utf32_utf8);
constexpr Pair<wchar_t, std::uint16_t> kFromUtf16(utf16_utf32,
                                                  plain_utf16_utf32);
constexpr Pair<std::uint16_t, wchar_t> kToUtf16(utf32_utf16, plain_utf32_utf16);

/// Many different characters of 7 bits.
template <class Unit>
Text<Unit> ascii(std::size_t length) {
  Text<Unit> text(length);
  for (std::size_t i = 0; i < length; ++i) {
    text[i] = static_cast<Unit>(i * 37 % 127 + 1);
  }
  return text;
}

/// `text` with `inserted` in front of its `at`th unit.
template <class Unit>
Text<Unit> with(const Text<Unit>& text, std::size_t at,
                const Text<Unit>& inserted) {
  Text<Unit> whole(text);
  whole.insert(whole.begin() + static_cast<std::ptrdiff_t>(at),
               inserted.begin(), inserted.end());
  return whole;
}

template <class Unit>
Text<Unit> repeated(const Text<Unit>& text, std::size_t times) {
  Text<Unit> whole;
  for (std::size_t i = 0; i < times; ++i) {
    whole.insert(whole.end(), text.begin(), text.end());
  }
  return whole;
}

/// U+00E9, U+20AC, U+10348: two, three and four bytes.
const std::initializer_list<std::string_view> kMultiByte = {
    "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x90\x8D\x88"};
constexpr wchar_t kMultiByteUnits[] = {0xE9, 0x20AC, 0x10348};

// All widths, in ever other order, and runs long enough for wide steps.
const std::string_view kMixed[] = {
    "",
    "a",
    "h\xC3\xA9",
    "\xC3\xA9h",
    "a\xE2\x82\xAC",
    "\xE2\x82\xAC",
    "\xF0\x90\x8D\x88z",
    "\xC3\xA9\xE2\x82\xAC\xF0\x90\x8D\x88",
    "\xF0\x90\x8D\x88\xE2\x82\xAC\xC3\xA9-",
    "abcdefgh\xC3\xA9ijklmnopqrstuvw\xE2\x82\xACxyz",
    "0123456789012345\xF0\x90\x8D\x88"
    "0123456789012345",
    "\xC3\xA9\xC3\xA8\xC3\xAA\xC3\xAB\xC3\xA7\xC3\xA0\xC3\xA2\xC3\xA4\xC3\xB4",
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E and \xE6\x97\xA5\xE6\x9C\xAC",
    "a\xC3\xA9"
    "b\xC3\xA9"
    "c\xC3\xA9"
    "d\xE2\x82\xAC"
    "e\xE2\x82\xAC"
    "f\xF0\x90\x8D\x88g",
};

/// Words of a European language with a currency sign, and so on for long.
Text<char> long_mixed_text(std::size_t shift) {
  return with(ascii<char>(shift), shift,
              repeated(bytes_of("h\xC3\xA9llo w\xC3\xB6rld, 12 \xE2\x82\xAC - "
                                "0123456789 \xF0\x9F\x98\x80 "),
                       18));
}

/// The units of a text in UTF-8 that is known to be good.
Text<wchar_t> units_of(std::string_view text) {
  const std::string source(text);
  Text<wchar_t> units(source.size() + 1);
  const std::size_t count =
      plain_utf8_utf32(units.data(), units.size(), source.c_str());
  units.resize(count - 1);
  return units;
}

// ---------------------------------------------------------------------------
// UTF-8 to UTF-32
// ---------------------------------------------------------------------------

TEST(Utf8ToUtf32, EachTextGivesItsUnits) {
  struct Row {
    const char* text;
    std::vector<std::uint32_t> units;
  };
  const Row rows[] = {
      {"", {}},
      {"a", {0x61}},
      {"\x01\x7F", {1, 0x7F}},
      {"h\xC3\xA9", {0x68, 0xE9}},
      {"\xC2\x80", {0x80}},
      {"\xDF\xBF", {0x7FF}},
      {"\xE0\xA0\x80", {0x800}},
      {"\xE2\x82\xAC", {0x20AC}},
      {"\xEF\xBF\xBF", {0xFFFF}},
      {"\xF0\x90\x80\x80", {0x10000}},
      {"\xF4\x8F\xBF\xBF", {0x10FFFF}},
      // Overlong forms, encoded surrogates and what lies behind Unicode.
      {"\xC0\x80z", {0, 0x7A}},
      {"\xC1\xBF", {0x7F}},
      {"\xE0\x80\x80z", {0, 0x7A}},
      {"\xE0\x9F\xBF", {0x7FF}},
      {"\xF0\x80\x80\x80z", {0, 0x7A}},
      {"\xF0\x8F\xBF\xBF", {0xFFFF}},
      {"\xED\xA0\x80", {0xD800}},
      {"\xED\xA0\xBD\xED\xB8\x80", {0xD83D, 0xDE00}},
      {"\xED\xBF\xBF", {0xDFFF}},
      {"\xF4\x90\x80\x80", {0x110000}},
      {"\xF7\xBF\xBF\xBF", {0x1FFFFF}},
      {"\xEF\xBB\xBF", {0xFEFF}},
  };
  for (const Row& row : rows) {
    wchar_t units[8] = {};
    const std::size_t result = utf8_utf32(units, 8, row.text);
    EXPECT_EQ(result, row.units.size() + 1) << row.text;
    EXPECT_EQ(std::vector<std::uint32_t>(units, units + row.units.size()),
              row.units)
        << row.text;
    EXPECT_EQ(units[row.units.size()], L'\0') << row.text;
    EXPECT_EQ(utf8_utf32(nullptr, 0, row.text), row.units.size() + 1);
  }
}

TEST(Utf8ToUtf32, WhatIsNotUtf8IsRefused) {
  const char* const rows[] = {"\x80",
                              "\xBF",
                              "\xA9h",
                              "\xF8\x88\x80\x80\x80",
                              "\xFC",
                              "\xFE",
                              "\xFF",
                              "\xFB\xBF\xBF\xBF\xBF",
                              "\xC3",
                              "\xC3h",
                              "\xC3\xC3\xA9",
                              "\xC3\x7F",
                              "\xE2",
                              "\xE2\x82",
                              "\xE2h\xAC",
                              "\xE2\x82h",
                              "\xE2\xC2\x80",
                              "\xE2\x82\xC0",
                              "\xF0",
                              "\xF0\x90",
                              "\xF0\x90\x8D",
                              "\xF0h\x8D\x88",
                              "\xF0\x90h\x88",
                              "\xF0\x90\x8Dh",
                              "\xF0\x90\x8D\xFF"};
  for (const char* const row : rows) {
    const std::string prefixed = std::string("abc") + row;
    wchar_t units[16] = {};
    EXPECT_EQ(utf8_utf32(nullptr, 0, row), 0U) << row;
    EXPECT_EQ(utf8_utf32(units, 16, row), 0U) << row;
    EXPECT_EQ(utf8_utf32(units, 16, prefixed.c_str()), 0U) << row;
  }
}

TEST(Utf8ToUtf32, UnitsInFrontOfBadInputStayWithoutTerminator) {
  wchar_t units[] = {L'-', L'-', L'-', L'-'};
  EXPECT_EQ(utf8_utf32(units, 4, "h\xC3\xA9\xFF"), 0U);
  EXPECT_EQ(std::wstring(units, 4), std::wstring(L"h\u00E9--"));
}

TEST(Utf8ToUtf32, ACutTextIsTerminatedAndGivesTheCapacity) {
  wchar_t units[] = {L'-', L'-', L'-'};
  EXPECT_EQ(utf8_utf32(units, 2, "h\xC3\xA9"), 2U);
  EXPECT_EQ(std::wstring(units, 3), std::wstring(L"h\0-", 3));
}

TEST(Utf8ToUtf32, OneUnitOfRoomHoldsTheTerminator) {
  wchar_t unit = L'-';
  EXPECT_EQ(utf8_utf32(&unit, 1, "abc"), 1U);
  EXPECT_EQ(unit, L'\0');
}

TEST(Utf8ToUtf32, WhatLiesBehindTheCutIsNotJudged) {
  wchar_t units[2] = {L'-', L'-'};
  EXPECT_EQ(utf8_utf32(units, 2, "a\xFF"), 2U);
  EXPECT_EQ(utf8_utf32(units, 2, "a\xC3"), 2U);
  EXPECT_EQ(utf8_utf32(units, 1, "\x80"), 1U);
  EXPECT_EQ(utf8_utf32(nullptr, 0, "a\xFF"), 0U);
}

TEST(Utf8ToUtf32, NoSourceReadsAsAnEmptyText) {
  wchar_t units[] = {L'-', L'-'};
  EXPECT_EQ(utf8_utf32(units, 2, nullptr), 1U);
  EXPECT_EQ(std::wstring(units, 2), std::wstring(L"\0-", 2));
  EXPECT_EQ(utf8_utf32(nullptr, 0, nullptr), 1U);
}

TEST(Utf8ToUtf32, NoDestinationMeasuresWhateverTheCapacity) {
  for (const std::size_t capacity : {0U, 1U, 2U, 3U, 100U}) {
    EXPECT_EQ(utf8_utf32(nullptr, capacity, "h\xC3\xA9"), 3U) << capacity;
    EXPECT_EQ(utf8_utf32(nullptr, capacity, "h\xC3"), 0U) << capacity;
    EXPECT_EQ(utf8_utf32(nullptr, capacity, nullptr), 1U) << capacity;
  }
}

TEST(Utf8ToUtf32, NoCapacityMeasuresAndWritesNothing) {
  wchar_t unit = L'-';
  EXPECT_EQ(utf8_utf32(&unit, 0, "h\xC3\xA9"), 3U);
  EXPECT_EQ(utf8_utf32(&unit, 0, nullptr), 1U);
  EXPECT_EQ(unit, L'-');
}

TEST(Utf8ToUtf32, EveryCapacityWritesTheSameUnitsAsAPlainReader) {
  for (const std::string_view text : kMixed) {
    const Text<char> source = bytes_of(text);
    for (std::size_t room = 0; room <= kFromUtf8.need(source) + 2; ++room) {
      ASSERT_TRUE(kFromUtf8.agree(source, room));
      ASSERT_TRUE(kFromUtf8.agree_behind_guard(source, room));
    }
  }
}

TEST(Utf8ToUtf32, AsciiOfEveryLengthIsCutAtEveryPlace) {
  for (std::size_t length = 0; length <= 80; ++length) {
    for (std::size_t room = 0; room <= length + 3; ++room) {
      ASSERT_TRUE(kFromUtf8.agree(ascii<char>(length), room));
    }
  }
}

TEST(Utf8ToUtf32, AsciiRunsOfEveryLengthAndPlaceInMemoryAreRead) {
  for (std::size_t length = 0; length <= 80; ++length) {
    const Text<char> text = ascii<char>(length);
    for (std::size_t offset = 0; offset < 16; ++offset) {
      for (const std::size_t room : {std::size_t{0}, length + 1, length + 20}) {
        ASSERT_TRUE(kFromUtf8.agree_at(offset, text, room)) << offset;
      }
    }
  }
}

TEST(Utf8ToUtf32, AMultiByteCharacterMayStandAnywhereInAnAsciiRun) {
  for (std::size_t length = 0; length <= 80; ++length) {
    const Text<char> run = ascii<char>(length);
    for (std::size_t at = 0; at <= length; ++at) {
      for (const std::string_view character : kMultiByte) {
        const Text<char> text = with(run, at, bytes_of(character));
        ASSERT_TRUE(kFromUtf8.agree(text, 0));
        ASSERT_TRUE(kFromUtf8.agree(text, length + 2));
        const std::size_t offset = (length * 5 + at) % 16;
        ASSERT_TRUE(kFromUtf8.agree_at(offset, text, length + 2)) << offset;
      }
    }
  }
}

TEST(Utf8ToUtf32, AMultiByteCharacterMayStandAnywhereAtEveryPlaceInMemory) {
  for (std::size_t length = 0; length <= 40; ++length) {
    const Text<char> run = ascii<char>(length);
    for (std::size_t at = 0; at <= length; ++at) {
      for (const std::string_view character : kMultiByte) {
        const Text<char> text = with(run, at, bytes_of(character));
        for (std::size_t offset = 0; offset < 16; ++offset) {
          ASSERT_TRUE(kFromUtf8.agree_at(offset, text, length + 2)) << offset;
        }
      }
    }
  }
}

TEST(Utf8ToUtf32, ACutMayFallAnywhereAroundAMultiByteCharacter) {
  for (std::size_t length = 0; length <= 34; ++length) {
    const Text<char> run = ascii<char>(length);
    for (std::size_t at = 0; at <= length; ++at) {
      for (const std::string_view character : kMultiByte) {
        const Text<char> text = with(run, at, bytes_of(character));
        for (std::size_t room = 1; room <= length + 3; ++room) {
          ASSERT_TRUE(kFromUtf8.agree(text, room));
        }
      }
    }
  }
}

TEST(Utf8ToUtf32, EveryByteIsJudgedAtEveryPosition) {
  for (std::size_t length = 1; length <= 40; ++length) {
    Text<char> text = ascii<char>(length);
    for (std::size_t at = 0; at < length; ++at) {
      const char kept = text[at];
      for (int byte = 0x80; byte <= 0xFF; ++byte) {
        text[at] = static_cast<char>(byte);
        ASSERT_TRUE(kFromUtf8.agree(text, length + 1));
      }
      text[at] = kept;
    }
  }
}

TEST(Utf8ToUtf32, BadBytesAreFoundAtEveryPositionAndPlaceInMemory) {
  for (std::size_t length = 1; length <= 40; ++length) {
    Text<char> text = ascii<char>(length);
    for (std::size_t at = 0; at < length; ++at) {
      const char kept = text[at];
      for (const int byte : {0x80, 0xBF, 0xC3, 0xE2, 0xF0, 0xF8, 0xFF}) {
        text[at] = static_cast<char>(byte);
        for (std::size_t offset = 0; offset < 16; ++offset) {
          ASSERT_TRUE(kFromUtf8.agree_at(offset, text, length + 1)) << offset;
        }
        ASSERT_TRUE(kFromUtf8.agree(text, 0));
      }
      text[at] = kept;
    }
  }
}

TEST(Utf8ToUtf32, EveryByteIsJudgedInsideOfDenseText) {
  for (const std::string_view character : kMultiByte) {
    Text<char> text = repeated(bytes_of(character), 9);
    for (std::size_t at = 0; at < text.size(); ++at) {
      const char kept = text[at];
      for (int byte = 0x01; byte <= 0xFF; ++byte) {
        text[at] = static_cast<char>(byte);
        ASSERT_TRUE(kFromUtf8.agree(text, text.size() + 1));
        ASSERT_TRUE(kFromUtf8.agree(text, 0));
      }
      text[at] = kept;
    }
  }
}

TEST(Utf8ToUtf32, ASequenceCutOffByTheEndOfTheTextIsRefused) {
  for (std::size_t length = 0; length <= 40; ++length) {
    for (const std::string_view character : kMultiByte) {
      for (std::size_t kept = 1; kept < character.size(); ++kept) {
        const Text<char> text = with(ascii<char>(length), length,
                                     bytes_of(character.substr(0, kept)));
        ASSERT_EQ(kFromUtf8.need(text), 0U);
        ASSERT_TRUE(kFromUtf8.agree(text, length + 10));
        ASSERT_TRUE(kFromUtf8.agree(text, 0));
      }
    }
  }
}

// A page may end right behind the unit at which a cut is seen: only a reader
// that looks ahead would mind.
TEST(Utf8ToUtf32, NothingIsReadBehindTheCut) {
  for (std::size_t room = 1; room <= 100; ++room) {
    ASSERT_TRUE(kFromUtf8.agree_unterminated(ascii<char>(room), room));
    for (const std::string_view character : kMultiByte) {
      Text<char> text = repeated(bytes_of(character), room - 1);
      text.push_back('\xFF');
      ASSERT_TRUE(kFromUtf8.agree_unterminated(text, room));
    }
  }
}

TEST(Utf8ToUtf32, BadBytesBehindTheCutNeverMatter) {
  for (std::size_t room = 1; room <= 40; ++room) {
    for (std::size_t behind = 1; behind <= 40; ++behind) {
      const Text<char> text =
          with(ascii<char>(room - 1), room - 1, Text<char>(behind, '\xFF'));
      ASSERT_TRUE(kFromUtf8.agree(text, room));
    }
  }
}

TEST(Utf8ToUtf32, RandomMixturesReadAsByAPlainReader) {
  std::mt19937 random(20250101);
  const std::string_view pieces[] = {"a",
                                     "bcdefgh",
                                     "0123456789abcdef0123",
                                     "\xC3\xA9",
                                     "\xC2\x80",
                                     "\xE2\x82\xAC",
                                     "\xE6\x97\xA5\xE6\x9C\xAC",
                                     "\xF0\x90\x8D\x88",
                                     "\xF0\x9F\x98\x80",
                                     "\xED\xA0\x80",
                                     "\xC0\x80",
                                     "xyz"};
  for (int round = 0; round < 40000; ++round) {
    Text<char> text;
    const std::size_t count = random() % 12;
    for (std::size_t i = 0; i < count; ++i) {
      text = with(text, text.size(), bytes_of(pieces[random() % 12]));
    }
    if (!text.empty() && random() % 4 == 0) {
      text[random() % text.size()] = static_cast<char>(random() % 255 + 1);
    }
    ASSERT_TRUE(kFromUtf8.agree(text, random() % (text.size() + 4)));
  }
}

TEST(Utf8ToUtf32, LongMixedTextsAreCutAtEveryPlace) {
  for (const std::size_t shift : {0U, 1U, 7U, 15U}) {
    const Text<char> text = long_mixed_text(shift);
    for (std::size_t room = 0; room <= kFromUtf8.need(text) + 2; ++room) {
      ASSERT_TRUE(kFromUtf8.agree(text, room));
    }
  }
}

TEST(Utf8ToUtf32, LongMixedTextsMayBeginAnywhereInMemory) {
  for (std::size_t shift = 0; shift < 48; ++shift) {
    const Text<char> text = long_mixed_text(shift);
    for (std::size_t offset = 0; offset < 16; offset += 3) {
      ASSERT_TRUE(kFromUtf8.agree_at(offset, text, text.size())) << offset;
    }
  }
}

TEST(Utf8ToUtf32, BadBytesAreFoundAnywhereInALongMixedText) {
  Text<char> text = long_mixed_text(3);
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char kept = text[at];
    for (const int byte : {0x41, 0x80, 0xC3, 0xE2, 0xF0, 0xFF}) {
      text[at] = static_cast<char>(byte);
      ASSERT_TRUE(kFromUtf8.agree(text, text.size()));
      ASSERT_TRUE(kFromUtf8.agree(text, 0));
    }
    text[at] = kept;
  }
}

TEST(Utf8ToUtf32, LongTextsAreReadToTheirEnd) {
  for (const std::size_t length : {1000U, 4095U, 4096U, 8191U}) {
    const Text<char> text = ascii<char>(length);
    EXPECT_TRUE(kFromUtf8.agree(text, length + 1));
    EXPECT_TRUE(kFromUtf8.agree(with(text, length, bytes_of("\xFF")), 0));
    EXPECT_TRUE(kFromUtf8.agree(
        with(text, length - 1, bytes_of("\xE2\x82\xAC")), length + 2));
  }
}

// ---------------------------------------------------------------------------
// UTF-32 to UTF-8
// ---------------------------------------------------------------------------

TEST(Utf32ToUtf8, EachUnitGivesItsBytes) {
  struct Row {
    std::uint32_t unit;
    std::string bytes;
  };
  const Row rows[] = {
      {0x01, "\x01"},
      {0x7F, "\x7F"},
      {0x80, "\xC2\x80"},
      {0xE9, "\xC3\xA9"},
      {0x7FF, "\xDF\xBF"},
      {0x800, "\xE0\xA0\x80"},
      {0x20AC, "\xE2\x82\xAC"},
      {0xD7FF, "\xED\x9F\xBF"},
      {0xD800, "\xED\xA0\x80"},
      {0xDBFF, "\xED\xAF\xBF"},
      {0xDC00, "\xED\xB0\x80"},
      {0xDFFF, "\xED\xBF\xBF"},
      {0xE000, "\xEE\x80\x80"},
      {0xFFFF, "\xEF\xBF\xBF"},
      {0x10000, "\xF0\x90\x80\x80"},
      {0x1F600, "\xF0\x9F\x98\x80"},
      {0x10FFFF, "\xF4\x8F\xBF\xBF"},
      {0x110000, "\xF4\x90\x80\x80"},
      {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
      // The bits above the 21 that fit are folded into the first byte.
      {0x200000, "\xF8\x80\x80\x80"},
      {0x7FFFFFFF, "\xFF\xBF\xBF\xBF"},
      {0x80000000, "\xF0\x80\x80\x80"},
      {0x8000007F, "\xF0\x80\x81\xBF"},
      {0xFFFFFF80, "\xFF\xBF\xBE\x80"},
      {0xFFFFFFFF, "\xFF\xBF\xBF\xBF"},
  };
  for (const Row& row : rows) {
    const wchar_t text[] = {static_cast<wchar_t>(row.unit), 0};
    char bytes[8] = {};
    EXPECT_EQ(utf32_utf8(bytes, 8, text), row.bytes.size() + 1) << row.unit;
    EXPECT_EQ(std::string(bytes), row.bytes) << row.unit;
    EXPECT_EQ(utf32_utf8(nullptr, 0, text), row.bytes.size() + 1) << row.unit;
  }
}

TEST(Utf32ToUtf8, ACharacterThatDoesNotFitLeavesTheBytesInBetweenUnwritten) {
  char bytes[] = {'-', '-', '-', '-'};
  EXPECT_EQ(utf32_utf8(bytes, 3, L"\u20AC"), 4U);
  EXPECT_EQ(std::string(bytes, 4), std::string("--\0-", 4));
}

TEST(Utf32ToUtf8, WhatFitsInFrontOfACutIsWritten) {
  char bytes[] = {'-', '-', '-', '-', '-'};
  EXPECT_EQ(utf32_utf8(bytes, 4, L"a\u20AC"), 5U);
  EXPECT_EQ(std::string(bytes, 5), std::string("a--\0-", 5));
}

TEST(Utf32ToUtf8, NothingIsWrittenBehindACharacterThatDidNotFit) {
  char bytes[] = {'-', '-', '-', '-', '-'};
  EXPECT_EQ(utf32_utf8(bytes, 4, L"a\u20ACbc"), 7U);
  EXPECT_EQ(std::string(bytes, 5), std::string("a--\0-", 5));
}

TEST(Utf32ToUtf8, OneByteOfRoomHoldsTheTerminator) {
  char byte = '-';
  EXPECT_EQ(utf32_utf8(&byte, 1, L"abc"), 4U);
  EXPECT_EQ(byte, '\0');
}

TEST(Utf32ToUtf8, NoSourceReadsAsAnEmptyText) {
  char bytes[] = {'-', '-'};
  EXPECT_EQ(utf32_utf8(bytes, 2, nullptr), 1U);
  EXPECT_EQ(std::string(bytes, 2), std::string("\0-", 2));
  EXPECT_EQ(utf32_utf8(nullptr, 0, nullptr), 1U);
  EXPECT_EQ(utf32_utf8(nullptr, 9, nullptr), 1U);
}

TEST(Utf32ToUtf8, NoDestinationOrNoCapacityMeasures) {
  char byte = '-';
  EXPECT_EQ(utf32_utf8(&byte, 0, L"h\u00E9\u20AC"), 7U);
  EXPECT_EQ(utf32_utf8(&byte, 0, L""), 1U);
  EXPECT_EQ(utf32_utf8(&byte, 0, nullptr), 1U);
  EXPECT_EQ(byte, '-');
  for (const std::size_t capacity : {0U, 1U, 3U, 100U}) {
    EXPECT_EQ(utf32_utf8(nullptr, capacity, L"h\u00E9\u20AC"), 7U) << capacity;
  }
}

TEST(Utf32ToUtf8, EveryCapacityWritesTheSameBytesAsAPlainWriter) {
  for (const std::string_view text : kMixed) {
    const Text<wchar_t> source = units_of(text);
    for (std::size_t room = 0; room <= kToUtf8.need(source) + 2; ++room) {
      ASSERT_TRUE(kToUtf8.agree(source, room));
      ASSERT_TRUE(kToUtf8.agree_behind_guard(source, room));
    }
  }
}

TEST(Utf32ToUtf8, AsciiOfEveryLengthIsCutAtEveryPlace) {
  for (std::size_t length = 0; length <= 80; ++length) {
    for (std::size_t room = 0; room <= length + 3; ++room) {
      ASSERT_TRUE(kToUtf8.agree(ascii<wchar_t>(length), room));
    }
  }
}

TEST(Utf32ToUtf8, AsciiRunsOfEveryLengthAndPlaceInMemoryAreRead) {
  for (std::size_t length = 0; length <= 80; ++length) {
    const Text<wchar_t> text = ascii<wchar_t>(length);
    for (std::size_t offset = 0; offset < 16; offset += sizeof(wchar_t)) {
      for (const std::size_t room : {std::size_t{0}, length + 1, length + 20}) {
        ASSERT_TRUE(kToUtf8.agree_at(offset, text, room)) << offset;
      }
    }
  }
}

TEST(Utf32ToUtf8, AWideCharacterMayStandAnywhereInAnAsciiRun) {
  for (std::size_t length = 0; length <= 80; ++length) {
    const Text<wchar_t> run = ascii<wchar_t>(length);
    for (std::size_t at = 0; at <= length; ++at) {
      for (const wchar_t character : kMultiByteUnits) {
        const Text<wchar_t> text = with(run, at, {character});
        ASSERT_TRUE(kToUtf8.agree(text, 0));
        ASSERT_TRUE(kToUtf8.agree(text, length + 5));
        ASSERT_TRUE(kToUtf8.agree(text, length));
        const std::size_t offset = (length + at) % 4 * sizeof(wchar_t);
        ASSERT_TRUE(kToUtf8.agree_at(offset, text, length + 5)) << offset;
      }
    }
  }
}

TEST(Utf32ToUtf8, ACutMayFallAnywhereAroundAWideCharacter) {
  for (std::size_t length = 0; length <= 34; ++length) {
    const Text<wchar_t> run = ascii<wchar_t>(length);
    for (std::size_t at = 0; at <= length; ++at) {
      for (const wchar_t character : kMultiByteUnits) {
        const Text<wchar_t> text = with(run, at, {character});
        for (std::size_t room = 1; room <= length + 6; ++room) {
          ASSERT_TRUE(kToUtf8.agree(text, room));
        }
      }
    }
  }
}

TEST(Utf32ToUtf8, LongMixedTextsAreCutAtEveryPlace) {
  for (const std::size_t shift : {0U, 1U, 7U}) {
    const std::string bytes = [shift] {
      const Text<char> text = long_mixed_text(shift);
      return std::string(text.begin(), text.end());
    }();
    const Text<wchar_t> text = units_of(bytes);
    for (std::size_t room = 0; room <= bytes.size() + 3; ++room) {
      ASSERT_TRUE(kToUtf8.agree(text, room));
    }
  }
}

// The borders between one, two, three and four bytes, and units whose sign bit
// is set, wherever a wide step might test several units at once.
TEST(Utf32ToUtf8, EveryUnitIsJudgedByAllOfItsBitsAtEveryPosition) {
  for (std::size_t length = 1; length <= 40; ++length) {
    Text<wchar_t> text = ascii<wchar_t>(length);
    for (std::size_t at = 0; at < length; ++at) {
      const wchar_t kept = text[at];
      for (const std::uint32_t unit :
           {0x7FU, 0x80U, 0xFFU, 0x100U, 0x17FU, 0x7FFU, 0x800U, 0x8000U,
            0xFFFFU, 0x10000U, 0x10041U, 0x1FFFFFU, 0x1000041U, 0x80000041U,
            0xFFFFFF41U, 0xFFFFFFFFU}) {
        text[at] = static_cast<wchar_t>(unit);
        ASSERT_TRUE(kToUtf8.agree(text, length + 4));
        ASSERT_TRUE(kToUtf8.agree(text, 0));
      }
      text[at] = kept;
    }
  }
}

TEST(Utf32ToUtf8, RandomMixturesReadAsByAPlainWriter) {
  std::mt19937 random(20250102);
  const std::uint32_t limits[] = {0x7F,   0x7F,     0x7F,      0x7FF,
                                  0xFFFF, 0x10FFFF, 0xFFFFFFFF};
  for (int round = 0; round < 40000; ++round) {
    const std::uint32_t limit = limits[random() % 7];
    Text<wchar_t> text(random() % 48);
    for (wchar_t& unit : text) {
      const std::uint32_t most = random() % 3 == 0 ? limit : 0x7F;
      unit = static_cast<wchar_t>(std::max<std::uint32_t>(
          1, static_cast<std::uint32_t>(random()) % most));
    }
    ASSERT_TRUE(kToUtf8.agree(text, random() % (text.size() * 2 + 4)));
  }
}

// ---------------------------------------------------------------------------
// UTF-16 to UTF-32
// ---------------------------------------------------------------------------

TEST(Utf16ToUtf32, UnitsAreCopiedOneToOne) {
  const std::uint16_t text[] = {'h', 0xE9, 0x20AC, 0xFFFF, 0};
  wchar_t units[6] = {};
  EXPECT_EQ(utf16_utf32(units, 6, text), 5U);
  EXPECT_EQ(std::wstring(units), std::wstring(L"h\u00E9\u20AC\uFFFF"));
}

TEST(Utf16ToUtf32, AHighSurrogateIsRefusedEvenInFrontOfItsPartner) {
  const std::uint16_t text[] = {0xD83D, 0xDE00, 0};
  wchar_t units[3] = {};
  EXPECT_EQ(utf16_utf32(units, 3, text), 0U);
  EXPECT_EQ(utf16_utf32(nullptr, 0, text), 0U);
}

TEST(Utf16ToUtf32, ALowSurrogateIsCopied) {
  const std::uint16_t text[] = {0xDE00, 0};
  wchar_t units[2] = {};
  EXPECT_EQ(utf16_utf32(units, 2, text), 2U);
  EXPECT_EQ(static_cast<std::uint32_t>(units[0]), 0xDE00U);
}

TEST(Utf16ToUtf32, ASurrogateBehindTheCutIsNotJudged) {
  const std::uint16_t text[] = {'a', 0xD83D, 0};
  wchar_t units[2] = {};
  EXPECT_EQ(utf16_utf32(units, 2, text), 2U);
  EXPECT_EQ(std::wstring(units), L"a");
}

TEST(Utf16ToUtf32, NoSourceReadsAsAnEmptyText) {
  wchar_t units[] = {L'-', L'-'};
  EXPECT_EQ(utf16_utf32(units, 2, nullptr), 1U);
  EXPECT_EQ(std::wstring(units, 2), std::wstring(L"\0-", 2));
  EXPECT_EQ(utf16_utf32(nullptr, 0, nullptr), 1U);
}

TEST(Utf16ToUtf32, NoDestinationOrNoCapacityMeasures) {
  const std::uint16_t text[] = {'a', 'b', 0};
  wchar_t unit = L'-';
  EXPECT_EQ(utf16_utf32(&unit, 0, text), 3U);
  EXPECT_EQ(unit, L'-');
  EXPECT_EQ(utf16_utf32(nullptr, 1, text), 3U);
  EXPECT_EQ(utf16_utf32(nullptr, 2, text), 3U);
  EXPECT_EQ(utf16_utf32(nullptr, 9, text), 3U);
}

TEST(Utf16ToUtf32, EveryUnitIsJudgedByItsTopSixBits) {
  for (std::uint32_t unit = 1; unit <= 0xFFFF; ++unit) {
    const Text<std::uint16_t> text = {static_cast<std::uint16_t>(unit)};
    ASSERT_TRUE(kFromUtf16.agree(text, 2));
    ASSERT_EQ(kFromUtf16.need(text), unit / 0x400 == 0x36 ? 0U : 2U);
  }
}

TEST(Utf16ToUtf32, EveryLengthIsCutAtEveryPlace) {
  for (std::size_t length = 0; length <= 40; ++length) {
    Text<std::uint16_t> text = ascii<std::uint16_t>(length);
    for (std::size_t i = 0; i < length; i += 3) text[i] = 0xFFFF;
    for (std::size_t room = 0; room <= length + 3; ++room) {
      ASSERT_TRUE(kFromUtf16.agree(text, room));
      ASSERT_TRUE(kFromUtf16.agree_behind_guard(text, room));
    }
  }
}

TEST(Utf16ToUtf32, SurrogatesAreFoundAtEveryPositionAndPlaceInMemory) {
  for (std::size_t length = 1; length <= 40; ++length) {
    Text<std::uint16_t> text = ascii<std::uint16_t>(length);
    for (std::size_t at = 0; at < length; ++at) {
      const std::uint16_t kept = text[at];
      for (const int unit :
           {0x80, 0xD7FF, 0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xFFFF}) {
        text[at] = static_cast<std::uint16_t>(unit);
        for (std::size_t offset = 0; offset < 16; offset += sizeof kept) {
          ASSERT_TRUE(kFromUtf16.agree_at(offset, text, length + 1)) << offset;
        }
        ASSERT_TRUE(kFromUtf16.agree(text, 0));
        ASSERT_TRUE(kFromUtf16.agree(text, at + 1));
      }
      text[at] = kept;
    }
  }
}

TEST(Utf16ToUtf32, NothingIsReadBehindTheCut) {
  for (std::size_t room = 1; room <= 100; ++room) {
    Text<std::uint16_t> text = ascii<std::uint16_t>(room);
    text.back() = 0xD800;
    ASSERT_TRUE(kFromUtf16.agree_unterminated(text, room));
  }
}

// ---------------------------------------------------------------------------
// UTF-32 to UTF-16
// ---------------------------------------------------------------------------

TEST(Utf32ToUtf16, UnitsAreCopiedOneToOne) {
  std::uint16_t units[4] = {9, 9, 9, 9};
  EXPECT_EQ(utf32_utf16(units, 4, L"h\u20AC\u7FFF"), 4U);
  EXPECT_EQ(std::vector<std::uint16_t>(units, units + 4),
            (std::vector<std::uint16_t>{'h', 0x20AC, 0x7FFF, 0}));
}

TEST(Utf32ToUtf16, TheRangeEndsAt7FFF) {
  for (const std::uint32_t unit :
       {0x8000U, 0xD83DU, 0xFFFFU, 0x10000U, 0x10041U, 0x1F600U, 0x10FFFFU,
        0x7FFFFFFFU, 0x80000000U, 0x80000041U, 0xFFFF0041U, 0xFFFFFFFFU}) {
    const wchar_t text[] = {L'a', static_cast<wchar_t>(unit), 0};
    std::uint16_t units[3] = {9, 9, 9};
    EXPECT_EQ(utf32_utf16(units, 3, text), 0U) << unit;
    EXPECT_EQ(utf32_utf16(nullptr, 0, text), 0U) << unit;
    EXPECT_EQ(std::vector<std::uint16_t>(units, units + 3),
              (std::vector<std::uint16_t>{'a', 9, 9}))
        << unit;
  }
}

TEST(Utf32ToUtf16, AUnitOutOfRangeBehindTheCutIsNotJudged) {
  std::uint16_t units[2] = {9, 9};
  EXPECT_EQ(utf32_utf16(units, 2, L"a\u8000"), 2U);
  EXPECT_EQ(units[0], 'a');
  EXPECT_EQ(units[1], 0);
}

TEST(Utf32ToUtf16, NoSourceReadsAsAnEmptyText) {
  std::uint16_t units[2] = {9, 9};
  EXPECT_EQ(utf32_utf16(units, 2, nullptr), 1U);
  EXPECT_EQ(units[0], 0);
  EXPECT_EQ(units[1], 9);
  EXPECT_EQ(utf32_utf16(nullptr, 0, nullptr), 1U);
}

TEST(Utf32ToUtf16, NoDestinationOrNoCapacityMeasures) {
  std::uint16_t unit = 9;
  EXPECT_EQ(utf32_utf16(&unit, 0, L"ab"), 3U);
  EXPECT_EQ(unit, 9);
  EXPECT_EQ(utf32_utf16(nullptr, 1, L"ab"), 3U);
  EXPECT_EQ(utf32_utf16(nullptr, 2, L"ab"), 3U);
  EXPECT_EQ(utf32_utf16(nullptr, 9, L"ab"), 3U);
}

TEST(Utf32ToUtf16, EveryUnitUpToFFFFIsJudged) {
  for (std::uint32_t unit = 1; unit <= 0xFFFF; ++unit) {
    const Text<wchar_t> text = {static_cast<wchar_t>(unit)};
    ASSERT_TRUE(kToUtf16.agree(text, 2));
    ASSERT_EQ(kToUtf16.need(text), unit < 0x8000 ? 2U : 0U);
  }
}

TEST(Utf32ToUtf16, EveryLengthIsCutAtEveryPlace) {
  for (std::size_t length = 0; length <= 40; ++length) {
    Text<wchar_t> text = ascii<wchar_t>(length);
    for (std::size_t i = 0; i < length; i += 3) text[i] = 0x7FFF;
    for (std::size_t room = 0; room <= length + 3; ++room) {
      ASSERT_TRUE(kToUtf16.agree(text, room));
      ASSERT_TRUE(kToUtf16.agree_behind_guard(text, room));
    }
  }
}

TEST(Utf32ToUtf16, UnitsOutOfRangeAreFoundAtEveryPositionAndPlaceInMemory) {
  for (std::size_t length = 1; length <= 40; ++length) {
    Text<wchar_t> text = ascii<wchar_t>(length);
    for (std::size_t at = 0; at < length; ++at) {
      const wchar_t kept = text[at];
      for (const std::uint32_t unit :
           {0x80U, 0x7FFFU, 0x8000U, 0xFFFFU, 0x10041U, 0x80000041U}) {
        text[at] = static_cast<wchar_t>(unit);
        for (std::size_t offset = 0; offset < 16; offset += sizeof(wchar_t)) {
          ASSERT_TRUE(kToUtf16.agree_at(offset, text, length + 1)) << offset;
        }
        ASSERT_TRUE(kToUtf16.agree(text, 0));
        ASSERT_TRUE(kToUtf16.agree(text, at + 1));
      }
      text[at] = kept;
    }
  }
}

TEST(Utf32ToUtf16, NothingIsReadBehindTheCut) {
  for (std::size_t room = 1; room <= 100; ++room) {
    Text<wchar_t> text = ascii<wchar_t>(room);
    text.back() = 0x8000;
    ASSERT_TRUE(kToUtf16.agree_unterminated(text, room));
  }
}

// ---------------------------------------------------------------------------
// There and back
// ---------------------------------------------------------------------------

TEST(Utf8AndUtf32, EveryCodePointGoesThereAndBack) {
  for (std::uint32_t value = 1; value <= 0x1FFFFF; ++value) {
    const std::size_t width = value < 0x80      ? 1
                              : value < 0x800   ? 2
                              : value < 0x10000 ? 3
                                                : 4;
    const wchar_t text[] = {static_cast<wchar_t>(value), 0};
    char bytes[8];
    wchar_t units[2] = {};
    ASSERT_EQ(utf32_utf8(bytes, sizeof bytes, text), width + 1) << value;
    ASSERT_EQ(plain_bytes(value), std::string_view(bytes)) << value;
    ASSERT_EQ(utf8_utf32(units, 2, bytes), 2U) << value;
    ASSERT_EQ(units[0], text[0]);
  }
}

TEST(Utf8AndUtf32, EveryCodePointGoesThereAndBackInLongTexts) {
  constexpr std::uint32_t kBlock = 0x800;
  std::vector<char> bytes(kBlock * 4 + 1);
  std::vector<wchar_t> units(kBlock + 1);
  for (std::uint32_t base = 0; base <= 0x1FFFFF; base += kBlock) {
    Text<wchar_t> text;
    for (std::uint32_t i = base == 0 ? 1 : 0; i < kBlock; ++i) {
      text.push_back(static_cast<wchar_t>(base + i));
    }
    text.push_back(0);
    const std::size_t size =
        utf32_utf8(bytes.data(), bytes.size(), text.data());
    ASSERT_EQ(size, utf32_utf8(nullptr, 0, text.data())) << base;
    ASSERT_EQ(utf8_utf32(nullptr, 0, bytes.data()), text.size()) << base;
    ASSERT_EQ(utf8_utf32(units.data(), units.size(), bytes.data()), text.size())
        << base;
    ASSERT_TRUE(std::equal(text.begin(), text.end(), units.begin())) << base;
  }
}

TEST(Utf16AndUtf32, UnitsUpTo7FFFGoThereAndBack) {
  Text<wchar_t> text;
  for (std::uint32_t unit = 1; unit <= 0x7FFF; ++unit) {
    text.push_back(static_cast<wchar_t>(unit));
  }
  text.push_back(0);
  std::vector<std::uint16_t> narrow(text.size());
  Text<wchar_t> back(text.size());
  EXPECT_EQ(utf32_utf16(narrow.data(), narrow.size(), text.data()),
            text.size());
  EXPECT_EQ(utf16_utf32(back.data(), back.size(), narrow.data()), text.size());
  EXPECT_EQ(back, text);
}

// Callers who know that their buffer is large enough may name any capacity.
TEST(AnyCapacity, IsLargeEnough) {
  constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();
  const std::size_t capacities[] = {kMost, kMost - 1, kMost - 4, kMost / 2,
                                    kMost / 2 + 2};
  const std::wstring wide = L"a text of several blocks: \u00e9\u00e9, \u20ac";
  const std::string bytes =
      "a text of several blocks: \xC3\xA9\xC3\xA9, \xE2\x82\xAC";
  const std::vector<std::uint16_t> words(wide.c_str(),
                                         wide.c_str() + wide.size() + 1);
  for (const std::size_t capacity : capacities) {
    wchar_t units[64] = {};
    char narrow[64] = {};
    std::uint16_t halves[64] = {};
    EXPECT_EQ(utf8_utf32(units, capacity, bytes.c_str()), wide.size() + 1);
    EXPECT_EQ(units, wide);
    EXPECT_EQ(utf32_utf8(narrow, capacity, wide.c_str()), bytes.size() + 1);
    EXPECT_EQ(narrow, bytes);
    EXPECT_EQ(utf32_utf16(halves, capacity, wide.c_str()), wide.size() + 1);
    EXPECT_TRUE(std::equal(words.begin(), words.end(), halves));
    std::fill(std::begin(units), std::end(units), L'x');
    EXPECT_EQ(utf16_utf32(units, capacity, words.data()), wide.size() + 1);
    EXPECT_EQ(units, wide);
  }
}

}  // namespace
