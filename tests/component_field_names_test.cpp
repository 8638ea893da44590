// SPDX-License-Identifier: MIT
//
// How Fields find a column: by name, the first whose letters agree in either
// case under the locale of the moment, or by position.
//
// Sections: names; locales; many columns; positions; what is no position.

#include <clocale>
#include <cwchar>
#include <cwctype>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/objects.h"
#include "support/printed.h"
#include "support/recordsets.h"

namespace {

using component::dispatch_of;
using component::kNotFoundCode;
using recordsets::failure;
using recordsets::Field;
using recordsets::Fields;
using recordsets::fields_of;
using recordsets::item_of;
using recordsets::kDone;
using recordsets::object_in;
using recordsets::Outcome;
using recordsets::outcome;
using recordsets::plain;
using recordsets::Recordset;

constexpr int kNoColumn = -1;

/// One row, in which every column holds its position.
Recordset of_columns(const std::vector<std::string>& names) {
  workbench::Row row;
  for (std::size_t i = 0; i < names.size(); ++i) {
    row.emplace_back(static_cast<std::int64_t>(i));
  }
  return workbench::recordset(names, {row});
}

std::int64_t position_of(const Field& field) {
  const auto [result, value] = recordsets::value_of(field);
  EXPECT_EQ(result, S_OK);
  EXPECT_EQ(value.vt, VT_I8);
  return value.llVal;
}

/// The position of the column that Item finds. All roads have to agree.
std::int64_t found(const Recordset& recordset, const VARIANT& index) {
  const Fields fields = fields_of(recordset);
  const auto [result, direct] = item_of(fields, index);
  const Outcome end = outcome(result);
  EXPECT_EQ(end, result == S_OK ? kDone : failure(kNotFoundCode));
  const std::int64_t position = direct ? position_of(direct) : kNoColumn;

  // Late-bound arguments are copied on their way, which a reference survives.
  VARIANT same = index;
  const std::vector<_variant_t> arguments = {
      values::owned(values::reference_to(&same))};
  for (const DISPID member : {0, 1}) {
    const component::Answer answer = component::method(
        dispatch_of(recordset.get()).get(), member, arguments);
    EXPECT_EQ(outcome(answer), end) << "default member";
    EXPECT_EQ(answer.result == S_OK ? position_of(object_in<IZIRDBField>(
                                          answer, VT_DISPATCH, IID_IZIRDBField))
                                    : kNoColumn,
              position)
        << "default member";
  }
  const component::Answer answer =
      component::method(dispatch_of(fields.get()).get(), 0, arguments);
  EXPECT_EQ(outcome(answer), end) << "Item";
  EXPECT_EQ(answer.result == S_OK ? position_of(object_in<IZIRDBField>(
                                        answer, VT_DISPATCH, IID_IZIRDBField))
                                  : kNoColumn,
            position)
      << "Item";
  return position;
}

std::int64_t found(const Recordset& recordset, const std::wstring& name) {
  return found(recordset, values::text_value(name));
}

/// Gives the process a locale while it lives.
class Locale {
 public:
  explicit Locale(const char* name) : before_(std::setlocale(LC_ALL, nullptr)) {
    EXPECT_NE(std::setlocale(LC_ALL, name), nullptr) << name;
  }
  Locale(const Locale&) = delete;
  Locale& operator=(const Locale&) = delete;
  ~Locale() { std::setlocale(LC_ALL, before_.c_str()); }

 private:
  std::string before_;
};

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

struct Lookup {
  std::wstring name;
  int position;
};

void expect_lookups(const std::vector<std::string>& columns,
                    const std::vector<Lookup>& lookups) {
  const Recordset recordset = of_columns(columns);
  for (const Lookup& lookup : lookups) {
    EXPECT_EQ(found(recordset, lookup.name), lookup.position)
        << testing::PrintToString(lookup.name);
  }
  // Once more backwards: what was found before must not matter.
  for (auto lookup = lookups.rbegin(); lookup != lookups.rend(); ++lookup) {
    EXPECT_EQ(found(recordset, lookup->name), lookup->position)
        << testing::PrintToString(lookup->name) << " again";
  }
}

TEST(ColumnNames, AgreeWhateverTheCaseOfTheirLetters) {
  expect_lookups({"ID", "Name", "o_1"}, {{L"ID", 0},
                                         {L"id", 0},
                                         {L"iD", 0},
                                         {L"Name", 1},
                                         {L"NAME", 1},
                                         {L"nAmE", 1},
                                         {L"O_1", 2},
                                         {L"o-1", kNoColumn},
                                         {L"ID ", kNoColumn},
                                         {L" ID", kNoColumn},
                                         {L"I", kNoColumn},
                                         {L"Names", kNoColumn}});
}

TEST(ColumnNames, OfOneLetterAgreeOnlyWithThatLetter) {
  expect_lookups({"@", "a", "[", "{", "`"}, {{L"@", 0},
                                             {L"A", 1},
                                             {L"a", 1},
                                             {L"[", 2},
                                             {L"{", 3},
                                             {L"`", 4},
                                             {L"z", kNoColumn}});
}

TEST(ColumnNames, TheFirstThatAgreesWinsOverALaterExactOne) {
  expect_lookups({"x", "Key", "KEY", "key", "X"}, {{L"key", 1},
                                                   {L"KEY", 1},
                                                   {L"Key", 1},
                                                   {L"kEY", 1},
                                                   {L"X", 0},
                                                   {L"x", 0}});
}

TEST(ColumnNames, OfWhichOneBeginsTheOtherAreKeptApart) {
  expect_lookups({"abcd", "a", "abc", "ab"}, {{L"a", 1},
                                              {L"AB", 3},
                                              {L"abc", 2},
                                              {L"ABCD", 0},
                                              {L"abcde", kNoColumn}});
}

TEST(ColumnNames, WithoutLettersAreFoundByTheEmptyText) {
  expect_lookups({"a", "", "b", ""}, {{L"", 1}, {L"a", 0}, {L" ", kNoColumn}});
  expect_lookups({"a", "b"}, {{L"", kNoColumn}});
}

TEST(ColumnNames, AreNeverFoundByANullText) {
  VARIANT null_text{};
  null_text.vt = VT_BSTR;
  EXPECT_EQ(found(of_columns({"a", ""}), null_text), kNoColumn);
  EXPECT_EQ(found(of_columns({""}), null_text), kNoColumn);
}

TEST(ColumnNames, ThatAreNumbersAreNamesNotPositions) {
  expect_lookups({"x", "1", "0"}, {{L"0", 2},
                                   {L"1", 1},
                                   {L"2", kNoColumn},
                                   {L"00", kNoColumn},
                                   {L"-1", kNoColumn}});
}

TEST(ColumnNames, AreComparedUpToTheFirstZero) {
  using std::string_literals::operator""s;
  expect_lookups({"ID", "", "IDX"}, {{L"id\0x"s, 0},
                                     {L"ID\0"s, 0},
                                     {L"\0ID"s, 1},
                                     {L"idx\0\0"s, 2},
                                     {L"I\0D"s, kNoColumn}});
}

TEST(ColumnNames, ComeFromUtf8) {
  const Recordset recordset = of_columns(
      {"plain", "caf\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80 smile"});
  EXPECT_EQ(found(recordset, L"caf\u00E9"), 1);
  EXPECT_EQ(found(recordset, L"CAF\u00E9"), 1);
  EXPECT_EQ(found(recordset, L"\u20AC"), 2);
  EXPECT_EQ(found(recordset, L"\U0001F600 SMILE"), 3);
  EXPECT_EQ(found(recordset, L"cafe"), kNoColumn);
  const Field field =
      recordsets::field_of(recordset, values::text_value(L"\u20AC"));
  EXPECT_EQ(recordsets::name_of(field).second, L"\u20AC");
}

TEST(ColumnNames, ThatAreNotUtf8AreEmpty) {
  const Recordset recordset = of_columns({"a", "b\xFF", "c\xC3"});
  EXPECT_EQ(found(recordset, L""), 1);
  EXPECT_EQ(found(recordset, L"b"), kNoColumn);
  for (const int position : {1, 2}) {
    const Field field = recordsets::field_of(recordset, _variant_t(position));
    EXPECT_EQ(recordsets::name_of(field).second, L"");
  }
}

TEST(ColumnNames, AreToldAsTheyAreNotAsTheyWereAskedFor) {
  const Recordset recordset = of_columns({"MixedCase", ""});
  const Field field = recordsets::field_of(recordset, _variant_t(L"MIXEDCASE"));
  EXPECT_EQ(recordsets::name_of(field).second, L"MixedCase");
  const Field unnamed = recordsets::field_of(recordset, _variant_t(1));
  _bstr_t name;
  EXPECT_EQ(unnamed->get_Name(&name.m_s), S_OK);
  EXPECT_EQ(SysStringLen(name.m_s), 0U);
}

TEST(ColumnNames, AreCopiedForEveryCaller) {
  const Recordset recordset = of_columns({"abc"});
  const Field field = recordsets::field_of(recordset, _variant_t(0));
  _bstr_t first;
  _bstr_t second;
  ASSERT_EQ(field->get_Name(&first.m_s), S_OK);
  ASSERT_EQ(field->get_Name(&second.m_s), S_OK);
  ASSERT_NE(first.m_s, second.m_s);
  first.m_s[0] = L'X';
  EXPECT_STREQ(second.m_s, L"abc");
  EXPECT_EQ(recordsets::name_of(field).second, L"abc");
  EXPECT_EQ(found(recordset, L"abc"), 0);
}

// ---------------------------------------------------------------------------
// Locales
// ---------------------------------------------------------------------------

TEST(ColumnNamesInALocale, FoldOnlyTheLettersThatItKnows) {
  const Recordset recordset = of_columns({"\xC3\xA9t\xC3\xA9", "plain"});
  for (int round = 0; round < 2; ++round) {
    {
      const Locale locale("C.UTF-8");
      EXPECT_EQ(found(recordset, L"\u00C9T\u00C9"), 0);
      EXPECT_EQ(found(recordset, L"\u00E9t\u00E9"), 0);
      EXPECT_EQ(found(recordset, L"PLAIN"), 1);
    }
    const Locale locale("C");
    EXPECT_EQ(found(recordset, L"\u00C9T\u00C9"), kNoColumn);
    EXPECT_EQ(found(recordset, L"\u00E9T\u00E9"), 0);
    EXPECT_EQ(found(recordset, L"PLAIN"), 1);
  }
}

struct Spelling {
  std::vector<std::string> columns;
  std::wstring name;
  int in_c;
  int in_utf8;
};

// Whichever locale is asked in first: what was found in one says nothing about
// the other.
TEST(ColumnNamesInALocale, MayHaveAnotherFirstMatch) {
  const Spelling kSpellings[] = {
      {{"\xC3\xA9", "\xC3\x89"}, L"\u00C9", 1, 0},
      {{"\xC3\xA9", "\xC3\x89"}, L"\u00E9", 0, 0},
      {{"\xC3\x89", "\xC3\xA9"}, L"\u00C9", 0, 0},
      {{"\xC3\x89", "\xC3\xA9"}, L"\u00E9", 1, 0},
      {{"\xC3\x89"}, L"\u00C9", 0, 0},
      {{"\xC3\x89"}, L"\u00E9", kNoColumn, 0},
      {{"\xC3\xA9"}, L"\u00C9", kNoColumn, 0},
      {{"\xC3\xA9"}, L"\u00E9", 0, 0},
      {{"a", "x\xC3\x89X", "X\xC3\xA9x"}, L"x\u00E9x", 2, 1},
      {{"a", "x\xC3\x89X", "X\xC3\xA9x"}, L"X\u00C9X", 1, 1},
  };
  for (const Spelling& spelling : kSpellings) {
    for (const bool c_first : {true, false}) {
      const Recordset recordset = of_columns(spelling.columns);
      for (int i = 0; i < 4; ++i) {
        const bool in_c = (i % 2 == 0) == c_first;
        const Locale locale(in_c ? "C" : "C.UTF-8");
        EXPECT_EQ(found(recordset, spelling.name),
                  in_c ? spelling.in_c : spelling.in_utf8)
            << testing::PrintToString(spelling.columns) << " in "
            << (in_c ? "C" : "C.UTF-8") << ", round " << i;
      }
    }
  }
}

TEST(ColumnNamesInALocale, FollowOneObjectThroughItsChanges) {
  const Recordset recordset = of_columns({"\xC3\xA9", "\xC3\x89"});
  const Fields fields = fields_of(recordset);
  const _variant_t name = values::text_value(L"\u00C9");
  const auto position = [&] {
    return position_of(item_of(fields, name).second);
  };
  EXPECT_EQ(position(), 1);
  {
    const Locale locale("C.UTF-8");
    EXPECT_EQ(position(), 0);
  }
  EXPECT_EQ(position(), 1);
}

/// The calling thread's own locale while it lives.
class ThreadLocale {
 public:
  explicit ThreadLocale(const char* name)
      : locale_(newlocale(LC_ALL_MASK, name, nullptr)),
        before_(uselocale(locale_)) {}
  ThreadLocale(const ThreadLocale&) = delete;
  ThreadLocale& operator=(const ThreadLocale&) = delete;
  ~ThreadLocale() {
    uselocale(before_);
    freelocale(locale_);
  }

 private:
  locale_t locale_;
  locale_t before_;
};

TEST(ColumnNamesInALocale, FollowTheThreadsOwn) {
  const Recordset recordset = of_columns({"\xC3\xA9", "\xC3\x89"});
  EXPECT_EQ(found(recordset, L"\u00C9"), 1);
  {
    const ThreadLocale locale("C.UTF-8");
    EXPECT_EQ(found(recordset, L"\u00C9"), 0);
  }
  EXPECT_EQ(found(recordset, L"\u00C9"), 1);
}

// Letters whose upper and lower forms are not each other's, and letters beyond
// 16 bits. The C library says which of them agree.
constexpr wchar_t kOddLetters[] = {
    L'i',          L'I',         L'k',      L'K',      L's',      L'S',
    L'\u0130',     L'\u0131',    L'\u212A', L'\u017F', L'\u00DF', L'\u1E9E',
    L'\u03C3',     L'\u03A3',    L'\u03C2', L'\u01C5', L'\u01C6', L'\u01C4',
    L'\u00B5',     L'\u03BC',    L'\u039C', L'\u00E5', L'\u212B', L'\u00C5',
    L'\U00010400', L'\U00010428'};

std::string utf8_of(wchar_t letter) {
  const wchar_t text[] = {letter, 0};
  char bytes[8] = {};
  utf32_utf8(bytes, sizeof bytes, text);
  return bytes;
}

TEST(ColumnNamesInALocale, AgreeAsTheCLibrarySays) {
  for (const char* name : {"C", "C.UTF-8"}) {
    const Locale locale(name);
    for (const wchar_t column : kOddLetters) {
      const Recordset recordset = of_columns({utf8_of(column)});
      const wchar_t whole[] = {column, 0};
      for (const wchar_t letter : kOddLetters) {
        const wchar_t asked[] = {letter, 0};
        EXPECT_EQ(item_of(fields_of(recordset), _variant_t(asked)).first,
                  wcscasecmp(whole, asked) == 0 ? S_OK : kNotFoundCode)
            << name << ": U+" << std::hex << static_cast<unsigned>(column)
            << " asked for as U+" << static_cast<unsigned>(letter);
      }
    }
  }
}

TEST(ColumnNamesInALocale, MayHaveAnotherSmallFormOfI) {
  const char* const kTurkish = "tr_TR.UTF-8";
  const std::string before = std::setlocale(LC_ALL, nullptr);
  if (std::setlocale(LC_ALL, kTurkish) == nullptr) {
    GTEST_SKIP() << kTurkish << " is not installed";
  }
  std::setlocale(LC_ALL, before.c_str());
  for (const bool turkish_first : {true, false}) {
    const Recordset recordset = of_columns({"ID", "id"});
    for (int i = 0; i < 4; ++i) {
      const bool turkish = (i % 2 == 0) == turkish_first;
      const Locale locale(turkish ? kTurkish : "C.UTF-8");
      EXPECT_EQ(found(recordset, L"id"), turkish ? 1 : 0) << i;
      EXPECT_EQ(found(recordset, L"ID"), 0) << i;
      EXPECT_EQ(found(recordset, L"\u0131d"), turkish ? 0 : kNoColumn) << i;
    }
  }
}

// ---------------------------------------------------------------------------
// Many columns
// ---------------------------------------------------------------------------

class ManyColumns : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Counts, ManyColumns,
                         testing::Values(1, 2, 10, 200, 3000));

std::vector<std::string> counted_names(int count) {
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) {
    names.push_back((i % 2 == 0 ? "Column " : "column ") + std::to_string(i));
  }
  return names;
}

std::wstring in_case(const std::string& name, bool upper) {
  std::wstring text;
  for (const char letter : name) {
    const wint_t wide = static_cast<unsigned char>(letter);
    text +=
        static_cast<wchar_t>(upper ? std::towupper(wide) : std::towlower(wide));
  }
  return text;
}

TEST_P(ManyColumns, EachIsFoundByItsName) {
  const std::vector<std::string> names = counted_names(GetParam());
  const Recordset recordset = of_columns(names);
  const Fields fields = fields_of(recordset);
  EXPECT_EQ(recordsets::count_of(fields), GetParam());
  for (int i = 0; i < GetParam(); ++i) {
    for (const bool upper : {true, false}) {
      const auto [result, field] =
          item_of(fields, values::text_value(in_case(
                              names[static_cast<std::size_t>(i)], upper)));
      ASSERT_EQ(result, S_OK) << i;
      ASSERT_EQ(position_of(field), i);
    }
  }
}

TEST_P(ManyColumns, EachIsFoundByItsPosition) {
  const std::vector<std::string> names = counted_names(GetParam());
  const Recordset recordset = of_columns(names);
  const Fields fields = fields_of(recordset);
  for (int i = 0; i < GetParam(); ++i) {
    const auto [result, field] = item_of(fields, _variant_t(i));
    ASSERT_EQ(result, S_OK) << i;
    ASSERT_EQ(position_of(field), i);
    ASSERT_EQ(recordsets::name_of(field).second,
              std::wstring(names[static_cast<std::size_t>(i)].begin(),
                           names[static_cast<std::size_t>(i)].end()));
  }
}

TEST_P(ManyColumns, NothingElseIsFound) {
  const Recordset recordset = of_columns(counted_names(GetParam()));
  EXPECT_EQ(found(recordset, L"column"), kNoColumn);
  EXPECT_EQ(found(recordset, L"column " + std::to_wstring(GetParam())),
            kNoColumn);
  EXPECT_EQ(found(recordset, L"column 00"), kNoColumn);
  EXPECT_EQ(found(recordset, _variant_t(GetParam())), kNoColumn);
  EXPECT_EQ(found(recordset, _variant_t(-1)), kNoColumn);
}

TEST_P(ManyColumns, TheFirstOfEqualNamesIsFound) {
  std::vector<std::string> names = counted_names(GetParam());
  const std::vector<std::string> again = names;
  names.insert(names.end(), again.begin(), again.end());
  const Recordset recordset = of_columns(names);
  const Fields fields = fields_of(recordset);
  for (int i = 0; i < GetParam(); i += 1 + GetParam() / 50) {
    const auto [result, field] =
        item_of(fields, values::text_value(in_case(
                            names[static_cast<std::size_t>(i)], i % 3 == 0)));
    ASSERT_EQ(result, S_OK) << i;
    ASSERT_EQ(position_of(field), i);
  }
}

TEST(ColumnNames, OfManyLettersAreComparedToTheirEnd) {
  const std::string stem(5000, 'n');
  const std::wstring wide(5000, L'N');
  expect_lookups({stem + "a", stem, stem + "b"}, {{wide + L"A", 0},
                                                  {wide, 1},
                                                  {wide + L"b", 2},
                                                  {wide + L"c", kNoColumn}});
}

// ---------------------------------------------------------------------------
// Positions
// ---------------------------------------------------------------------------

_variant_t payload(VARTYPE type, std::uint64_t bits) {
  return values::owned(values::plain(type, bits));
}

struct Position {
  const char* name;
  _variant_t index;
  int position;
};

TEST(ColumnPositions, CountFromZero) {
  const std::uint64_t low_word_is_one = 0x100000001U;
  const Position kCases[] = {
      {"0", 0, 0},
      {"1", 1, 1},
      {"2", 2, 2},
      {"3", 3, kNoColumn},
      {"-1", -1, kNoColumn},
      {"VT_I4 2", payload(VT_I4, 2), 2},
      {"VT_I4 3", payload(VT_I4, 3), kNoColumn},
      {"VT_UI1 2", payload(VT_UI1, 2), 2},
      {"VT_UI1 255", payload(VT_UI1, 255), kNoColumn},
      {"nothing", _variant_t(), 0},
      {"false", false, 0},
      {"true", true, kNoColumn},
      {"VT_BOOL 1", payload(VT_BOOL, 1), 1},
      {"0.0", 0.0, 0},
      {"1.9", 1.9, 1},
      {"2.999", 2.999, 2},
      {"3.0", 3.0, kNoColumn},
      {"-0.9", -0.9, 0},
      {"-1.0", -1.0, kNoColumn},
      {"1e300", 1e300, kNoColumn},
      {"-1e300", -1e300, kNoColumn},
      {"infinity", values::kInfinity, kNoColumn},
      {"not a number", values::kNaN, kNoColumn},
      {"2^32", std::int64_t{1} << 32, kNoColumn},
      {"2^32 + 1", payload(VT_I8, low_word_is_one), kNoColumn},
      {"VT_I4 2^32 + 1", payload(VT_I4, low_word_is_one), kNoColumn},
      {"-2^32", -(std::int64_t{1} << 32), kNoColumn},
      {"smallest", values::kSmallest, kNoColumn},
      {"largest", values::kLargest, kNoColumn},
  };
  const Recordset recordset = of_columns({"a", "b", "c"});
  for (const Position& row : kCases) {
    const std::string printed = printed::by([&] {
      EXPECT_EQ(found(recordset, row.index), row.position) << row.name;
    });
    EXPECT_EQ(printed, "") << row.name;
  }
}

TEST(ColumnPositions, AreNoneWithoutColumns) {
  InterfacePtr<IClassFactory> factory;
  factory.receive([](void** out) {
    return DllGetClassObject(CLSID_ZIRDBRecordset, IID_IClassFactory, out);
  });
  ASSERT_TRUE(factory);
  Recordset recordset;
  recordset.receive([&](void** out) {
    return factory->CreateInstance(nullptr, IID_IZIRDBRecordset, out);
  });
  ASSERT_TRUE(recordset);
  EXPECT_EQ(recordsets::count_of(fields_of(recordset)), 0);
  EXPECT_EQ(found(recordset, _variant_t(0)), kNoColumn);
  EXPECT_EQ(found(recordset, L""), kNoColumn);
}

// ---------------------------------------------------------------------------
// What is no position
// ---------------------------------------------------------------------------

TEST(ColumnPositions, AreNotMadeOfOtherTypes) {
  objects::Dispatch object;
  int number = 0;
  const Position kCases[] = {
      {"VT_NULL", payload(VT_NULL, 0), VT_NULL},
      {"VT_I2", payload(VT_I2, 0), VT_I2},
      {"VT_R4", payload(VT_R4, 0), VT_R4},
      {"VT_CY", payload(VT_CY, 0), VT_CY},
      {"VT_DATE", payload(VT_DATE, 0), VT_DATE},
      {"VT_DISPATCH", _variant_t(static_cast<IDispatch*>(&object)),
       VT_DISPATCH},
      {"VT_ERROR", payload(VT_ERROR, 0), VT_ERROR},
      {"VT_UNKNOWN", _variant_t(static_cast<IUnknown*>(&object)), VT_UNKNOWN},
      {"VT_I1", payload(VT_I1, 0), VT_I1},
      {"VT_UI2", payload(VT_UI2, 0), VT_UI2},
      {"VT_UI4", payload(VT_UI4, 0), VT_UI4},
      {"VT_UI8", payload(VT_UI8, 0), VT_UI8},
      {"VT_LPSTR", values::lpstr_value("0"), VT_LPSTR},
      {"VT_BYREF | VT_I8", values::owned([&] {
         VARIANT value{};
         value.vt = VT_BYREF | VT_I8;
         value.byref = &number;
         return value;
       }()),
       VT_BYREF | VT_I8},
      {"VT_BYREF | VT_BSTR", payload(VT_BYREF | VT_BSTR, 0),
       VT_BYREF | VT_BSTR},
  };
  const Recordset recordset = of_columns({"0", "b"});
  const Fields fields = fields_of(recordset);
  for (const Position& row : kCases) {
    Outcome end;
    const std::string printed =
        printed::by([&] { end = outcome(item_of(fields, row.index).first); });
    EXPECT_EQ(end, failure(kNotFoundCode)) << row.name;
    EXPECT_EQ(printed,
              printed::stub_line("VariantChangeType", 1045,
                                 "vt:" + std::to_string(row.position) + "->20"))
        << row.name;
  }
  EXPECT_EQ(object.invocations(), 0);
}

TEST(ColumnPositions, AreNotMadeOfATypeThatIsNotConvertibleLateBoundEither) {
  const Recordset recordset = of_columns({"0", "b"});
  const std::string printed = printed::by(
      [&] { EXPECT_EQ(found(recordset, payload(VT_I2, 1)), kNoColumn); });
  const std::string line =
      printed::stub_line("VariantChangeType", 1045, "vt:2->20");
  EXPECT_EQ(printed, line + line + line + line) << "a line per call";
}

TEST(ColumnIndexes, MayBeBehindReferences) {
  const Recordset recordset = of_columns({"a", "b", "c"});
  const Fields fields = fields_of(recordset);
  for (const _variant_t& index : {_variant_t(L"C"), _variant_t(2)}) {
    VARIANT chain[4] = {index};
    for (std::size_t i = 1; i < 4; ++i) {
      chain[i] = values::reference_to(&chain[i - 1]);
    }
    for (const VARIANT& link : chain) {
      EXPECT_EQ(found(recordset, link), 2);
    }
  }
}

TEST(ColumnIndexes, BehindAMissingReferenceAreRefused) {
  const Recordset recordset = of_columns({"a"});
  const Fields fields = fields_of(recordset);
  VARIANT first = values::reference_to(nullptr);
  VARIANT second = values::reference_to(&first);
  for (const VARIANT& link : {first, second, values::reference_to(&second)}) {
    const std::string printed = printed::by([&] {
      EXPECT_EQ(outcome(item_of(fields, link).first), plain(E_INVALIDARG));
    });
    EXPECT_EQ(printed, "");
  }
}

TEST(ColumnIndexes, StayTheCallers) {
  const Recordset recordset = of_columns({"abc"});
  const Fields fields = fields_of(recordset);
  const _variant_t index(L"ABC");
  const auto before = values::bytes_of(index);
  EXPECT_EQ(item_of(fields, index).first, S_OK);
  EXPECT_EQ(values::bytes_of(index), before);
  EXPECT_EQ(values::text_of(index), L"ABC");
}

}  // namespace
