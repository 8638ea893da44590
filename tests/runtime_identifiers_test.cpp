// SPDX-License-Identifier: MIT
//
// Identifiers of classes and interfaces: ".clsid" files, which map a program id
// to one, their text, and new ones.
//
// Sections: ".clsid" files; text into identifiers; identifiers.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "component_fixture/registry.h"
#include "support/printed.h"
#include "zir.h"

namespace {

using registry::Environment;
using registry::Folder;
using registry::WorkingFolder;

// Every half of every field has digits of its own, so that none can stand for
// another; the letters show the case.
constexpr CLSID kClass = {0xABCDEF01,
                          0x02A3,
                          0x04B5,
                          {0x06, 0xC7, 0x08, 0xD9, 0x0A, 0xEB, 0x0C, 0xFD}};

// ---------------------------------------------------------------------------
// ".clsid" files
// ---------------------------------------------------------------------------

/// A registry folder that the variable names.
class ClassFile : public testing::Test {
 protected:
  const Folder& folder() const { return folder_; }
  const Environment& variable() const { return variable_; }

 private:
  Folder folder_;
  Environment variable_{"REGISTRY", folder_.path()};
};

constexpr char kText[] = "{ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD}";

/// What shines through where nothing is written.
CLSID prefilled() {
  CLSID clsid{};
  std::memset(&clsid, 0xEE, sizeof clsid);
  return clsid;
}

std::string text_of(REFGUID guid) {
  std::array<char, 40> text{};
  const auto& d = guid.Data4;
  std::snprintf(text.data(), text.size(),
                "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", guid.Data1,
                guid.Data2, guid.Data3, d[0], d[1], d[2], d[3], d[4], d[5],
                d[6], d[7]);
  return text.data();
}

TEST_F(ClassFile, TheNameIsUpperCasedAsAWhole) {
  folder().write("ZIRTEST.OBJECT.clsid", kText);
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID(L"zirTest.Object", &clsid), S_OK);

  EXPECT_EQ(text_of(clsid), text_of(kClass));
}

TEST_F(ClassFile, ALowerCaseFileIsAnotherOne) {
  folder().write("zirtest.object.clsid", kText);
  folder().write("ZIRTEST.Object.clsid", kText);
  folder().write("ZIRTEST.OBJECT.CLSID", kText);
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID(L"zirtest.object", &clsid), CO_E_CLASSSTRING);

  EXPECT_EQ(clsid, prefilled());
}

// Fields that were read are there even when the file turns out to be bad.
TEST_F(ClassFile, ContentsAreReadUpToTheFirstMistake) {
  const struct {
    const char* what;
    std::string content;
    HRESULT result;
    const char* stored;
  } table[] = {
      {"as it should be", kText, S_OK, "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD"},
      {"lower case", "{abcdef01-02a3-04b5-06c7-08d90aeb0cfd}", S_OK,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD"},
      {"mixed case", "{aBcDeF01-02A3-04b5-06c7-08D90aeb0CFD}", S_OK,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD"},
      {"a line", std::string(kText) + "\n", S_OK,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD"},
      {"text behind", std::string(kText) + "garbage", S_OK,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD"},
      {"much text behind", std::string(kText) + std::string(100000, 'x'), S_OK,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD"},
      {"no closing brace", "{ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD", S_OK,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD"},
      {"garbage for a brace", "{ABCDEF01-02A3-04B5-06C7-08D90AEB0CFDx", S_OK,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD"},
      {"one digit in the last field", "{ABCDEF01-02A3-04B5-06C7-08D90AEB0CF",
       S_OK, "ABCDEF01-02A3-04B5-06C7-08D90AEB0C0F"},
      {"short fields", "{1-2-3-0405-060708090A0B}", S_OK,
       "00000001-0002-0003-0405-060708090A0B"},
      {"blanks in front of digits",
       "{ ABCDEF01-\n02A3- 04B5-06C7-08D90AEB0CFD}", S_OK,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD"},

      {"nothing", "", E_FAIL, "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"no braces", "ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD", E_FAIL,
       "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"a blank in front", std::string(" ") + kText, E_FAIL,
       "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"an empty line in front", std::string("\n") + kText, E_FAIL,
       "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"a byte order mark", std::string("\xEF\xBB\xBF") + kText, E_FAIL,
       "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"a zero byte", std::string("\0", 1) + kText, E_FAIL,
       "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"parentheses", "(ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD)", E_FAIL,
       "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"a brace alone", "{", E_FAIL, "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"not hexadecimal", "{GBCDEF01-02A3-04B5-06C7-08D90AEB0CFD}", E_FAIL,
       "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"wide text", std::string("{\0A\0B\0", 6), E_FAIL,
       "EEEEEEEE-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},

      {"the end in field 1", "{ABCDEF01", E_FAIL,
       "ABCDEF01-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"the end behind field 1", "{ABCDEF01-", E_FAIL,
       "ABCDEF01-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"the end in field 2", "{ABCDEF01-02A3", E_FAIL,
       "ABCDEF01-02A3-EEEE-EEEE-EEEEEEEEEEEE"},
      {"the end in field 3", "{ABCDEF01-02A3-04B5", E_FAIL,
       "ABCDEF01-02A3-04B5-EEEE-EEEEEEEEEEEE"},
      {"the end in field 4", "{ABCDEF01-02A3-04B5-06", E_FAIL,
       "ABCDEF01-02A3-04B5-06EE-EEEEEEEEEEEE"},
      {"the end in field 5", "{ABCDEF01-02A3-04B5-06C7-", E_FAIL,
       "ABCDEF01-02A3-04B5-06C7-EEEEEEEEEEEE"},
      {"the end in field 6", "{ABCDEF01-02A3-04B5-06C7-08", E_FAIL,
       "ABCDEF01-02A3-04B5-06C7-08EEEEEEEEEE"},
      {"the end in field 7", "{ABCDEF01-02A3-04B5-06C7-08D9", E_FAIL,
       "ABCDEF01-02A3-04B5-06C7-08D9EEEEEEEE"},
      {"the end in field 8", "{ABCDEF01-02A3-04B5-06C7-08D90A", E_FAIL,
       "ABCDEF01-02A3-04B5-06C7-08D90AEEEEEE"},
      {"the end in field 9", "{ABCDEF01-02A3-04B5-06C7-08D90AEB", E_FAIL,
       "ABCDEF01-02A3-04B5-06C7-08D90AEBEEEE"},
      {"the end in field 10", "{ABCDEF01-02A3-04B5-06C7-08D90AEB0C", E_FAIL,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CEE"},
      {"a letter in field 2", "{ABCDEF01-x2A3-04B5-06C7-08D90AEB0CFD}", E_FAIL,
       "ABCDEF01-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"a letter in field 11", "{ABCDEF01-02A3-04B5-06C7-08D90AEB0Cx}", E_FAIL,
       "ABCDEF01-02A3-04B5-06C7-08D90AEB0CEE"},
      {"a blank for a dash", "{ABCDEF01 02A3-04B5-06C7-08D90AEB0CFD}", E_FAIL,
       "ABCDEF01-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"no dashes", "{ABCDEF0102A304B506C708D90AEB0CFD}", E_FAIL,
       "ABCDEF01-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"nine digits in field 1", "{ABCDEF012-02A3-04B5-06C7-08D90AEB0CFD}",
       E_FAIL, "ABCDEF01-EEEE-EEEE-EEEE-EEEEEEEEEEEE"},
      {"five digits in field 2", "{ABCDEF01-02A34-04B5-06C7-08D90AEB0CFD}",
       E_FAIL, "ABCDEF01-02A3-EEEE-EEEE-EEEEEEEEEEEE"},
  };
  for (const auto& row : table) {
    folder().write("ZIRTEST.OBJECT.clsid", row.content);
    CLSID clsid = prefilled();

    EXPECT_EQ(CLSIDFromProgID(L"zirtest.object", &clsid), row.result)
        << row.what;

    EXPECT_EQ(text_of(clsid), row.stored) << row.what;
  }
}

// Cut and disturbed at every place, against the C library's own reading.
TEST_F(ClassFile, EveryCutAndEveryDisturbanceIsReadAsTheFormatSays) {
  const std::string whole = kText;
  std::vector<std::string> contents;
  for (std::size_t at = 0; at <= whole.size(); ++at) {
    contents.push_back(whole.substr(0, at));
    for (const char odd : {' ', '-', '+', '{', '}', 'x', '0', 'f'}) {
      std::string changed = whole;
      if (at < changed.size()) changed[at] = odd;
      contents.push_back(changed);
      contents.push_back(std::string(whole).insert(at, 1, odd));
    }
  }
  for (const std::string& content : contents) {
    folder().write("ZIRTEST.OBJECT.clsid", content);
    CLSID expected = prefilled();
    auto& d = expected.Data4;
    const int fields =
        std::sscanf(content.c_str(),
                    "{%8x-%4hx-%4hx-%2hhx%2hhx-%2hhx%2hhx%2hhx%2hhx%2hhx%2hhx}",
                    &expected.Data1, &expected.Data2, &expected.Data3, &d[0],
                    &d[1], &d[2], &d[3], &d[4], &d[5], &d[6], &d[7]);
    CLSID clsid = prefilled();

    EXPECT_EQ(CLSIDFromProgID(L"zirtest.object", &clsid),
              fields == 11 ? S_OK : E_FAIL)
        << content;

    EXPECT_EQ(text_of(clsid), text_of(expected)) << content;
  }
}

TEST_F(ClassFile, WithoutAFolderThereIsNoClass) {
  folder().write("ZIRTEST.clsid", kText);
  const WorkingFolder working(folder().path());
  for (const std::optional<std::string>& value :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>(folder().in("nowhere"))}) {
    variable().set(value);
    CLSID clsid = prefilled();

    EXPECT_EQ(CLSIDFromProgID(L"ZIRTEST", &clsid), CO_E_CLASSSTRING);

    EXPECT_EQ(clsid, prefilled());
  }
}

TEST_F(ClassFile, TheFolderIsJoinedAsForLibraries) {
  folder().write("ZIRTEST.clsid", kText);
  folder().write("reg\\ZIRTEST.clsid", kText);
  folder().folder("re\\g");
  folder().write("re\\g/ZIRTEST.clsid", kText);
  const WorkingFolder working(folder().path());
  for (const std::string& value :
       {folder().path(), folder().path() + "/", folder().in("reg\\"),
        std::string("."), std::string("re\\g"), std::string("reg\\")}) {
    variable().set(value);
    CLSID clsid = prefilled();
    EXPECT_EQ(CLSIDFromProgID(L"ZIRTEST", &clsid), S_OK) << value;
    EXPECT_EQ(clsid, kClass) << value;
  }
}

TEST_F(ClassFile, TheVariableIsReadAtEveryCall) {
  folder().folder("a");
  folder().write("a/ZIRTEST.clsid", kText);
  folder().folder("b");
  CLSID clsid = prefilled();
  variable().set(folder().in("a"));
  EXPECT_EQ(CLSIDFromProgID(L"ZIRTEST", &clsid), S_OK);

  variable().set(folder().in("b"));
  EXPECT_EQ(CLSIDFromProgID(L"ZIRTEST", &clsid), CO_E_CLASSSTRING);
}

TEST_F(ClassFile, LibrariesDoNotStandInForIt) {
  folder().link("ZIRTEST.so", "complete");
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID(L"ZIRTEST", &clsid), CO_E_CLASSSTRING);
}

TEST_F(ClassFile, ALinkIsFollowed) {
  folder().write("other", kText);
  std::filesystem::create_symlink("other", folder().in("ZIRTEST.clsid"));
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID(L"ZIRTEST", &clsid), S_OK);
}

TEST_F(ClassFile, ALinkToNowhereIsNoFile) {
  std::filesystem::create_symlink("nowhere", folder().in("ZIRTEST.clsid"));
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID(L"ZIRTEST", &clsid), CO_E_CLASSSTRING);
}

// It opens like a file and has nothing to read.
TEST_F(ClassFile, AFolderInItsPlaceIsMalformed) {
  folder().folder("ZIRTEST.clsid");
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID(L"ZIRTEST", &clsid), E_FAIL);

  EXPECT_EQ(clsid, prefilled());
}

TEST_F(ClassFile, NoNameIsNoClass) {
  folder().write(".clsid", kText);
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID(nullptr, &clsid), CO_E_CLASSSTRING);

  EXPECT_EQ(clsid, prefilled());
}

TEST_F(ClassFile, AnEmptyNameIsTheSuffixAlone) {
  CLSID clsid = prefilled();
  EXPECT_EQ(CLSIDFromProgID(L"", &clsid), CO_E_CLASSSTRING);

  folder().write(".clsid", kText);
  EXPECT_EQ(CLSIDFromProgID(L"", &clsid), S_OK);
}

TEST_F(ClassFile, OtherAlphabetsAreUtf8InTheFileAndKeepTheirCase) {
  folder().write("Z\xC3\xA9\xF0\x9F\x98\x80.clsid", kText);
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID(L"z\u00E9\U0001F600", &clsid), S_OK);
}

TEST_F(ClassFile, ANameMayLeadThroughFolders) {
  folder().folder("SUB");
  folder().write("SUB/ZIRTEST.clsid", kText);
  folder().write("ABOVE.clsid", kText);
  variable().set(folder().in("SUB"));
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID(L"../sub/zirtest", &clsid), S_OK);
  EXPECT_EQ(CLSIDFromProgID(L"../above", &clsid), S_OK);
}

TEST_F(ClassFile, NamesThatNobodyWouldGiveAreNoClasses) {
  for (const std::wstring& name :
       {std::wstring(L"%s%n%ls"), std::wstring(L"\n"), std::wstring(L"\xD800"),
        std::wstring(3, static_cast<wchar_t>(-1)), std::wstring(L"/dev/null"),
        std::wstring(L"x/y"), std::wstring(100000, L'x'),
        std::wstring(100000, L'\u20AC')}) {
    CLSID clsid = prefilled();

    EXPECT_EQ(CLSIDFromProgID(name.c_str(), &clsid), CO_E_CLASSSTRING);

    EXPECT_EQ(clsid, prefilled());
  }
}

// Slashes fill the name up to the cut.
TEST_F(ClassFile, TheNameIsCutAfterTwoHundredAndFiftyFiveBytes) {
  folder().folder("A");
  folder().write("A/B.clsid", kText);
  const std::wstring cut = L"a" + std::wstring(253, L'/') + L"b";
  ASSERT_EQ(cut.size(), 255U);
  for (const std::wstring& name : {cut, cut + L"c", cut + cut, cut + L"/x"}) {
    CLSID clsid = prefilled();
    EXPECT_EQ(CLSIDFromProgID(name.c_str(), &clsid), S_OK) << name.size();
  }
}

// The three bytes of the last character do not fit, and none of them is there.
TEST_F(ClassFile, ACharacterAtTheCutIsLeftOutWhole) {
  folder().folder("A");
  folder().write("A/B.clsid", kText);
  const std::wstring cut = L"a" + std::wstring(251, L'/') + L"b";
  ASSERT_EQ(cut.size(), 253U);
  CLSID clsid = prefilled();

  EXPECT_EQ(CLSIDFromProgID((cut + L"\u20AC").c_str(), &clsid), S_OK);
  EXPECT_EQ(CLSIDFromProgID((cut + L"\u20ACxyz").c_str(), &clsid), S_OK);
}

TEST_F(ClassFile, FilesAreClosed) {
  const auto open_files = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  folder().write("GOOD.clsid", kText);
  folder().write("BAD.clsid", "{ABCDEF01");
  const auto before = open_files();
  CLSID clsid{};
  EXPECT_EQ(CLSIDFromProgID(L"good", &clsid), S_OK);
  EXPECT_EQ(CLSIDFromProgID(L"bad", &clsid), E_FAIL);

  EXPECT_EQ(open_files(), before);
}

// ---------------------------------------------------------------------------
// Text into identifiers
// ---------------------------------------------------------------------------

TEST(ClassFromText, IsNotImplemented) {
  CLSID clsid = prefilled();
  HRESULT result = S_OK;

  EXPECT_EQ(printed::by([&] {
              result = CLSIDFromString(
                  L"{ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD}", &clsid);
            }),
            printed::stub_line("CLSIDFromString", 176,
                               "{ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD}"));

  EXPECT_EQ(result, E_NOTIMPL);
  EXPECT_EQ(clsid, prefilled());
}

TEST(ClassFromText, PrintsAnyText) {
  for (const std::string text : {"", "x", "%s %n %ls", "ZIRDB.Connection"}) {
    EXPECT_EQ(printed::by([&] {
                CLSIDFromString(std::wstring(text.begin(), text.end()).c_str(),
                                nullptr);
              }),
              printed::stub_line("CLSIDFromString", 176, text));
  }
}

TEST(ClassFromText, SurvivesNoText) {
  HRESULT result = S_OK;
  printed::by([&] { result = CLSIDFromString(nullptr, nullptr); });

  EXPECT_EQ(result, E_NOTIMPL);
}

// ---------------------------------------------------------------------------
// Identifiers
// ---------------------------------------------------------------------------

TEST(Identifier, TheKnownOnesHaveTheirValues) {
  const struct {
    const GUID* guid;
    const char* text;
  } table[] = {
      {&IID_IUnknown, "00000000-0000-0000-C000-000000000046"},
      {&IID_IClassFactory, "00000001-0000-0000-C000-000000000046"},
      {&IID_IDispatch, "00020400-0000-0000-C000-000000000046"},
      {&IID_IEnumVARIANT, "00020404-0000-0000-C000-000000000046"},
      {&IID_IErrorInfo, "1CF2B120-547D-101B-8E65-08002B2BD119"},
      {&IID_IContextProperties, "D396DA85-BF8F-11D1-BBAE-00C04FC2FA5F"},
      {&IID_IGetContextProperties, "51372AF4-CAE7-11CF-BE81-00AA00A2FA25"},
      {&IID_NULL, "00000000-0000-0000-0000-000000000000"},
      {&CLSID_NULL, "00000000-0000-0000-0000-000000000000"},
  };
  for (const auto& row : table) EXPECT_EQ(text_of(*row.guid), row.text);
}

TEST(Identifier, TheKnownOnesAreExportedUnderTheirNames) {
  const struct {
    const char* name;
    const GUID* guid;
  } table[] = {
      {"IID_IUnknown", &IID_IUnknown},
      {"IID_IClassFactory", &IID_IClassFactory},
      {"IID_IDispatch", &IID_IDispatch},
      {"IID_IEnumVARIANT", &IID_IEnumVARIANT},
      {"IID_IErrorInfo", &IID_IErrorInfo},
      {"IID_IContextProperties", &IID_IContextProperties},
      {"IID_IGetContextProperties", &IID_IGetContextProperties},
      {"IID_NULL", &IID_NULL},
      {"CLSID_NULL", &CLSID_NULL},
  };
  for (const auto& row : table) {
    const void* const symbol = dlsym(RTLD_DEFAULT, row.name);
    ASSERT_NE(symbol, nullptr) << row.name;
    EXPECT_EQ(std::memcmp(symbol, row.guid, sizeof(GUID)), 0) << row.name;
  }
}

TEST(IdentifierText, IsLowerCaseInBraces) {
  std::array<wchar_t, 39> text{};

  EXPECT_EQ(StringFromGUID2(kClass, text.data(), 39), 39);

  EXPECT_STREQ(text.data(), L"{abcdef01-02a3-04b5-06c7-08d90aeb0cfd}");
}

TEST(IdentifierText, KeepsLeadingZeros) {
  std::array<wchar_t, 39> text{};

  EXPECT_EQ(
      StringFromGUID2({1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}}, text.data(), 39),
      39);

  EXPECT_STREQ(text.data(), L"{00000001-0002-0003-0405-060708090a0b}");
}

TEST(IdentifierText, HighBitsAreNoSigns) {
  std::array<wchar_t, 39> text{};
  GUID guid{};
  std::memset(&guid, 0xFF, sizeof guid);

  EXPECT_EQ(StringFromGUID2(guid, text.data(), 39), 39);

  EXPECT_STREQ(text.data(), L"{ffffffff-ffff-ffff-ffff-ffffffffffff}");
}

TEST(IdentifierText, NeedsThirtyNineUnits) {
  for (int size = -3; size <= 60; ++size) {
    std::array<wchar_t, 64> text{};
    text.fill(L'?');

    EXPECT_EQ(StringFromGUID2(kClass, text.data(), size), size < 39 ? 0 : 39)
        << size;

    // Nothing behind what it was given, or behind the terminator.
    const auto given = static_cast<std::size_t>(std::clamp(size, 0, 39));
    EXPECT_EQ(std::count(text.begin() + static_cast<std::ptrdiff_t>(given),
                         text.end(), L'?'),
              static_cast<std::ptrdiff_t>(text.size() - given))
        << size;
  }
}

TEST(IdentifierText, NothingIsWrittenForANegativeSize) {
  for (const int size : {0, -1, -39, INT_MIN}) {
    wchar_t text = L'?';
    EXPECT_EQ(StringFromGUID2(kClass, &text, size), 0) << size;
    EXPECT_EQ(text, L'?') << size;
  }
}

TEST(IdentifierText, NoBufferIsNoSpace) {
  for (const int size : {0, 38, 39, 100}) {
    EXPECT_EQ(StringFromGUID2(kClass, nullptr, size), 0) << size;
  }
}

using Bytes = std::array<unsigned char, 16>;

Bytes new_identifier() {
  GUID guid{};
  EXPECT_EQ(CoCreateGuid(&guid), S_OK);
  Bytes bytes{};
  std::memcpy(bytes.data(), &guid, bytes.size());
  return bytes;
}

// The bytes stand as the standard orders them, so the version is in the seventh
// and the variant in the ninth, whatever the machine's byte order.
TEST(NewIdentifier, BytesAreStoredUnswapped) {
  for (int i = 0; i < 1000; ++i) {
    const Bytes bytes = new_identifier();
    ASSERT_EQ(bytes[6] >> 4U, 4);
    ASSERT_EQ(bytes[8] & 0xC0U, 0x80U);
  }
}

TEST(NewIdentifier, IsNeverTheSame) {
  std::set<Bytes> seen;
  for (int i = 0; i < 10000; ++i) seen.insert(new_identifier());

  EXPECT_EQ(seen.size(), 10000U);
}

TEST(NewIdentifier, EveryFreeByteVaries) {
  std::array<std::set<unsigned char>, 16> seen;
  for (int i = 0; i < 300; ++i) {
    const Bytes bytes = new_identifier();
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      seen[at].insert(bytes[at]);
    }
  }
  for (std::size_t at = 0; at < seen.size(); ++at) {
    EXPECT_GT(seen[at].size(), 10U) << at;
  }
}

TEST(NewIdentifier, NeedsAPlace) {
  EXPECT_EQ(CoCreateGuid(nullptr), E_INVALIDARG);
}

}  // namespace
