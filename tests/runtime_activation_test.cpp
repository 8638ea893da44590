// SPDX-License-Identifier: MIT
//
// Activation against component libraries of the tests' own: which file a name
// leads to, what a library's entry point is asked, what becomes of refusals.
//
// Sections: where libraries are looked for; names of libraries; class ids;
// program ids; monikers; modules.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cwchar>
#include <cwctype>
#include <optional>
#include <string>

#include "component_fixture/registry.h"
#include "support/objects.h"
#include "zir.h"

/// The program's own, for which nobody asks.
HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid, void** object) {
  component::note_question(clsid, riid, object);
  *object = static_cast<IClassFactory*>(&component::g_factory);
  return S_OK;
}

namespace {

using registry::Created;
using registry::Environment;
using registry::Folder;
using registry::SearchedLink;
using registry::WorkingFolder;

constexpr char kRegistry[] = "REGISTRY";

// Every half of every field has digits of its own, so that none can stand for
// another; the letters show the case.
constexpr CLSID kClass = {0xABCDEF01,
                          0x02A3,
                          0x04B5,
                          {0x06, 0xC7, 0x08, 0xD9, 0x0A, 0xEB, 0x0C, 0xFD}};
constexpr char kClassFile[] = "{ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD}.so";
constexpr IID kInterface = {0x11223344, 0x5566, 0x7788, {1, 2, 3, 4, 5, 6, 7}};

/// A registry folder that the variable names, and no notes in the library.
class Activation : public testing::Test {
 protected:
  Activation() { log_ = {}; }

  const Folder& folder() const { return folder_; }
  const Environment& variable() const { return variable_; }
  component::Log& log() const { return log_; }

 private:
  Folder folder_;
  Environment variable_{kRegistry, folder_.path()};
  component::Log& log_ = registry::log_of("complete");
};

std::wstring wide(const std::string& ascii) {
  return {ascii.begin(), ascii.end()};
}

/// The library that is loaded from a file.
HMODULE library_of(const std::string& kind) {
  return dlopen(registry::component_file(kind).c_str(), RTLD_LAZY);
}

// ---------------------------------------------------------------------------
// Where libraries are looked for
// ---------------------------------------------------------------------------

using Registry = Activation;

TEST_F(Registry, ALibraryIsFoundInTheFolder) {
  folder().link("ZIRTEST.so", "complete");

  EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), library_of("complete"));
}

TEST_F(Registry, TheFolderMayEndInASlash) {
  folder().link("ZIRTEST.so", "complete");
  variable().set(folder().path() + "/");

  EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), library_of("complete"));
}

TEST_F(Registry, AFolderThatEndsInABackslashGetsNoSlash) {
  folder().link("reg\\ZIRTEST.so", "complete");
  variable().set(folder().in("reg\\"));

  EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), library_of("complete"));
}

TEST_F(Registry, ABackslashInsideOfTheFoldersNameIsNoEnd) {
  folder().folder("re\\g");
  folder().link("re\\g/ZIRTEST.so", "complete");
  variable().set(folder().in("re\\g"));

  EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), library_of("complete"));
}

TEST_F(Registry, ARelativeFolderIsThatOfTheWorkingFolder) {
  folder().folder("reg");
  folder().link("reg/ZIRTEST.so", "complete");
  const WorkingFolder working(folder().path());
  variable().set("reg");

  EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), library_of("complete"));
}

TEST_F(Registry, TheVariableIsReadAtEveryCall) {
  folder().folder("a");
  folder().folder("b");
  folder().link("a/ZIRTEST.so", "complete");
  folder().link("b/ZIRTEST.so", "refusing");
  for (const char* const kind : {"complete", "refusing", "complete"}) {
    variable().set(folder().in(kind[0] == 'c' ? "a" : "b"));
    EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), library_of(kind));
  }
}

TEST_F(Registry, AFolderThatIsNotThereHasNoLibraries) {
  variable().set(folder().in("nowhere"));

  EXPECT_EQ(LoadLibraryW(L"ZIRNONE1"), nullptr);
}

TEST_F(Registry, TheWorkingFolderIsNotLookedInto) {
  folder().link("ZIRNONE2.so", "complete");
  const WorkingFolder working(folder().path());
  for (const std::optional<std::string>& value :
       {std::optional<std::string>(), std::optional<std::string>("")}) {
    variable().set(value);
    EXPECT_EQ(LoadLibraryW(L"ZIRNONE2"), nullptr);
  }
}

TEST_F(Registry, TheLoadersSearchFollowsWithoutAVariable) {
  const SearchedLink link("ZIRUNSET.so", "complete");
  variable().set(std::nullopt);

  EXPECT_EQ(LoadLibraryW(L"ZIRUNSET"), library_of("complete"));
}

TEST_F(Registry, TheLoadersSearchFollowsAnEmptyVariable) {
  const SearchedLink link("ZIREMPTY.so", "complete");
  variable().set("");

  EXPECT_EQ(LoadLibraryW(L"ZIREMPTY"), library_of("complete"));
}

TEST_F(Registry, TheLoadersSearchFollowsAFolderWithoutTheLibrary) {
  const SearchedLink link("ZIRABSENT.so", "complete");

  EXPECT_EQ(LoadLibraryW(L"ZIRABSENT"), library_of("complete"));
}

TEST_F(Registry, TheLoadersSearchFollowsAFileThatDoesNotLoad) {
  const SearchedLink link("ZIRTEXT.so", "complete");
  folder().write("ZIRTEXT.so", "not a library\n");

  EXPECT_EQ(LoadLibraryW(L"ZIRTEXT"), library_of("complete"));
}

TEST_F(Registry, TheFolderComesBeforeTheLoadersSearch) {
  const SearchedLink link("ZIRBOTH.so", "refusing");
  folder().link("ZIRBOTH.so", "complete");

  EXPECT_EQ(LoadLibraryW(L"ZIRBOTH"), library_of("complete"));
}

// Without a slash the joined name is one for the loader's search, and no file
// of that name is there for realpath.
TEST_F(Registry, AJoinedNameThatIsNoFileStillGoesToTheLoader) {
  const SearchedLink link("zirback\\ZIRTEST.so", "complete");
  const WorkingFolder working(folder().path());
  variable().set("zirback\\");

  EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), library_of("complete"));
}

// A resolved path differs from the joined one by its slash.
TEST_F(Registry, AJoinedNameIsResolvedBeforeItIsLoaded) {
  folder().link("here\\ZIRTEST.so", "complete");
  const WorkingFolder working(folder().path());
  variable().set("here\\");

  EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), library_of("complete"));
}

TEST_F(Registry, LibrariesStayLoaded) {
  folder().copy("ZIRSTAYS.so", "complete");
  ASSERT_FALSE(registry::is_loaded(folder().in("ZIRSTAYS.so")));
  {
    Created object;
    ASSERT_EQ(CoCreateInstanceByName(L"ZIRSTAYS.Class", nullptr, 1,
                                     IID_IUnknown, object.out()),
              S_OK);
  }

  EXPECT_TRUE(registry::is_loaded(folder().in("ZIRSTAYS.so")));
}

TEST_F(Registry, FunctionsAreLookedUpAtOnce) {
  folder().link("ZIRLATE.so", "unresolved");

  EXPECT_EQ(LoadLibraryW(L"ZIRLATE"), nullptr);
  EXPECT_EQ(LoadLibraryW(wide(folder().in("ZIRLATE.so")).c_str()), nullptr);
}

TEST_F(Registry, FunctionsOfTheLoadersSearchAreLookedUpAtOnce) {
  const SearchedLink link("ZIRLATER.so", "unresolved");
  variable().set(std::nullopt);

  EXPECT_EQ(LoadLibraryW(L"ZIRLATER"), nullptr);
}

TEST_F(Registry, FunctionsOfAJoinedNameThatIsNoFileAreLookedUpAtOnce) {
  const SearchedLink link("zirlate\\ZIRTEST.so", "unresolved");
  variable().set("zirlate\\");

  EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), nullptr);
}

TEST_F(Registry, LibrariesKeepTheirSymbolsToThemselves) {
  const SearchedLink link("ZIRLOCAL.so", "complete");
  folder().link("ZIRTEST.so", "complete");
  ASSERT_NE(LoadLibraryW(L"ZIRTEST"), nullptr);
  ASSERT_NE(LoadLibraryW(L"ZIRLOCAL"), nullptr);
  ASSERT_NE(LoadLibraryW(wide(folder().in("ZIRTEST.so")).c_str()), nullptr);

  EXPECT_EQ(dlsym(RTLD_DEFAULT, "component_log"), nullptr);
}

// ---------------------------------------------------------------------------
// Names of libraries
// ---------------------------------------------------------------------------

using LibraryName = Activation;

TEST_F(LibraryName, ASlashMakesItAPath) {
  folder().link("library", "complete");

  EXPECT_EQ(LoadLibraryW(wide(folder().in("library")).c_str()),
            library_of("complete"));
}

TEST_F(LibraryName, APathGetsNoSuffix) {
  folder().link("library.so", "complete");

  EXPECT_EQ(LoadLibraryW(wide(folder().in("library")).c_str()), nullptr);
}

TEST_F(LibraryName, APathIsNotLookedForInTheFolder) {
  folder().folder("sub");
  folder().link("sub/ZIRNONE3", "complete");
  folder().link("sub/ZIRNONE3.so", "complete");

  EXPECT_EQ(LoadLibraryW(L"sub/ZIRNONE3"), nullptr);
}

TEST_F(LibraryName, APathMayBeRelative) {
  folder().folder("sub");
  folder().link("sub/library", "complete");
  const WorkingFolder working(folder().path());

  EXPECT_EQ(LoadLibraryW(L"sub/library"), library_of("complete"));
}

// Such a name has no slash for the loader, which searches for it.
TEST_F(LibraryName, ABackslashMakesItAPathToo) {
  const SearchedLink link("zir\\path", "complete");
  folder().link("zir\\path.so", "refusing");

  EXPECT_EQ(LoadLibraryW(L"zir\\path"), library_of("complete"));
}

TEST_F(LibraryName, APathWithABackslashIsNotLookedForInTheFolder) {
  folder().link("zir\\none", "complete");
  folder().link("zir\\none.so", "complete");

  EXPECT_EQ(LoadLibraryW(L"zir\\none"), nullptr);
}

TEST_F(LibraryName, FunctionsOfAPathAreLookedUpAtOnce) {
  EXPECT_EQ(LoadLibraryW(wide(registry::component_file("unresolved")).c_str()),
            nullptr);
}

TEST_F(LibraryName, TheSuffixIsAlwaysAdded) {
  folder().link("libfoo.so", "refusing");
  EXPECT_EQ(LoadLibraryW(L"libfoo.so"), nullptr);

  folder().link("libfoo.so.so", "complete");
  EXPECT_EQ(LoadLibraryW(L"libfoo.so"), library_of("complete"));
}

TEST_F(LibraryName, TheCaseIsKept) {
  folder().link("zirtest.so", "complete");

  EXPECT_EQ(LoadLibraryW(L"zirtest"), library_of("complete"));
  EXPECT_EQ(LoadLibraryW(L"ZIRTEST"), nullptr);
}

TEST_F(LibraryName, AnEmptyNameLoadsNothing) {
  folder().link(".so", "complete");
  const SearchedLink link(".so", "complete");

  EXPECT_EQ(LoadLibraryW(L""), nullptr);
}

TEST_F(LibraryName, NoNameLoadsNothing) {
  folder().link(".so", "complete");

  EXPECT_EQ(LoadLibraryW(nullptr), nullptr);
}

TEST_F(LibraryName, OtherAlphabetsAreUtf8InTheFile) {
  folder().link("zir\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80.so", "complete");

  EXPECT_EQ(LoadLibraryW(L"zir\u00E9\u20AC\U0001F600"), library_of("complete"));
}

/// A path to the library of exactly so many bytes: slashes make up for what is
/// missing.
std::string path_of_bytes(const Folder& folder, const std::string& name,
                          std::size_t bytes) {
  const std::string path = folder.path() + "/";
  return path + std::string(bytes - path.size() - name.size(), '/') + name;
}

TEST_F(LibraryName, TwoHundredAndFiftyFourBytesAreTheMost) {
  folder().link("library", "complete");
  for (const std::size_t bytes : {253U, 254U, 255U, 256U, 300U, 3000U}) {
    const std::string path = path_of_bytes(folder(), "library", bytes);
    EXPECT_EQ(LoadLibraryW(wide(path).c_str()),
              bytes <= 254 ? library_of("complete") : nullptr)
        << bytes;
  }
}

TEST_F(LibraryName, BytesCountAndNotCharacters) {
  folder().link("\xE2\x82\xAC", "complete");
  for (const std::size_t bytes : {254U, 255U, 256U, 257U}) {
    std::wstring path =
        wide(path_of_bytes(folder(), "xyz", bytes)).erase(bytes - 3);
    path += L'\u20AC';
    EXPECT_EQ(LoadLibraryW(path.c_str()),
              bytes <= 254 ? library_of("complete") : nullptr)
        << bytes;
  }
}

// ---------------------------------------------------------------------------
// Class ids
// ---------------------------------------------------------------------------

using ClassId = Activation;

TEST_F(ClassId, TheLibraryIsNamedByTheIdInUpperCase) {
  folder().link(kClassFile, "complete");
  Created object;

  EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            S_OK);

  EXPECT_TRUE(object.made());
  EXPECT_EQ(log().live_objects, 1);
}

TEST_F(ClassId, LeadingZerosAreKept) {
  folder().link("{00000001-0002-0003-0405-060708090A0B}.so", "complete");
  Created object;

  EXPECT_EQ(CoCreateInstance({1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}}, nullptr,
                             CLSCTX_INPROC_SERVER, IID_IUnknown, object.out()),
            S_OK);
}

TEST_F(ClassId, LowerCaseIsAnotherFile) {
  folder().link("{abcdef01-02a3-04b5-06c7-08d90aeb0cfd}.so", "complete");
  Created object;

  EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            E_FAIL);
}

TEST_F(ClassId, TheEntryPointIsAskedForAClassFactory) {
  folder().link(kClassFile, "complete");
  Created object;
  ASSERT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            S_OK);

  EXPECT_EQ(log().asked, 1);
  EXPECT_EQ(log().clsid, kClass);
  EXPECT_EQ(log().factory_iid, IID_IClassFactory);
  EXPECT_FALSE(log().named);
}

TEST_F(ClassId, TheFactoryGetsWhatTheCallerGave) {
  folder().link(kClassFile, "complete");
  objects::Unknown outer;
  Created object;
  ASSERT_EQ(
      CoCreateInstance(kClass, &outer, 0xFFFFFFFF, kInterface, object.out()),
      S_OK);

  EXPECT_EQ(log().created, 1);
  EXPECT_EQ(log().outer, &outer);
  EXPECT_EQ(log().object_iid, kInterface);
  EXPECT_EQ(log().slot, object.out());
  EXPECT_EQ(outer.references(), 1U);
}

TEST_F(ClassId, TheFactoryIsReleasedOnceAndLast) {
  folder().link(kClassFile, "complete");
  Created object;
  ASSERT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            S_OK);

  EXPECT_EQ(log().releases_when_created, 0);
  EXPECT_EQ(log().factory_releases, 1);
  EXPECT_EQ(log().factory_add_refs, 0);
  EXPECT_EQ(log().factory_queries, 0);
}

TEST_F(ClassId, WhatTheFactoryAnswersIsPassedOn) {
  folder().link(kClassFile, "complete");
  for (const HRESULT answer : {S_OK, S_FALSE, HRESULT{7}, E_NOINTERFACE,
                               CLASS_E_NOAGGREGATION, E_OUTOFMEMORY, E_FAIL}) {
    log() = {};
    log().create_answer = answer;
    Created object;

    EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                               IID_IUnknown, object.out()),
              answer);

    EXPECT_EQ(log().factory_releases, 1) << answer;
    EXPECT_EQ(object.untouched(), FAILED(answer)) << answer;
  }
}

TEST_F(ClassId, AnyPositiveAnswerOfTheEntryPointIsAFactory) {
  folder().link(kClassFile, "complete");
  log().class_answer = S_FALSE;
  Created object;

  EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            S_OK);
  EXPECT_EQ(log().factory_releases, 1);
}

TEST_F(ClassId, ARefusalToMakeAnObjectIsPassedOn) {
  folder().link(kClassFile, "refusing");
  component::Log& refusing = registry::log_of("refusing");
  refusing = {};
  Created object;

  EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            E_NOINTERFACE);

  EXPECT_EQ(refusing.created, 1);
  EXPECT_EQ(refusing.factory_releases, 1);
}

TEST_F(ClassId, WithoutALibraryItFails) {
  Created object;

  EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            E_FAIL);

  EXPECT_TRUE(object.untouched());
}

TEST_F(ClassId, FilesThatAreNoComponentFail) {
  folder().write(kClassFile, "not a library\n");
  Created object;

  EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            E_FAIL);

  EXPECT_TRUE(object.untouched());
}

// The library is named by the id alone.
TEST_F(ClassId, ProgramIdsAreNotConsulted) {
  folder().link("ZIRTEST.so", "complete");
  folder().write("ZIRTEST.OBJECT.clsid",
                 "{ABCDEF01-02A3-04B5-06C7-08D90AEB0CFD}");
  Created object;

  EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            E_FAIL);
}

TEST_F(ClassId, TheNullIdIsAnIdLikeOthers) {
  folder().link("{00000000-0000-0000-0000-000000000000}.so", "complete");
  Created object;

  EXPECT_EQ(CoCreateInstance(CLSID_NULL, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            S_OK);

  EXPECT_FALSE(log().named);
}

TEST_F(ClassId, TheLoadersSearchFindsItToo) {
  const SearchedLink link("{0000000A-0000-0000-0000-000000000000}.so",
                          "complete");
  variable().set(std::nullopt);
  Created object;

  EXPECT_EQ(CoCreateInstance({10, 0, 0, {}}, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, object.out()),
            S_OK);
}

// The loader would find this program's entry point for no library at all.
TEST_F(Activation, TheProgramItselfIsNoComponent) {
  ASSERT_NE(dlsym(RTLD_DEFAULT, "DllGetClassObject"), nullptr);
  Created object;

  EXPECT_EQ(CoCreateInstance(kClass, nullptr, 1, IID_IUnknown, object.out()),
            E_FAIL);
  EXPECT_EQ(CoCreateInstanceByName(L"ZIRNONE4.Class", nullptr, 1, IID_IUnknown,
                                   object.out()),
            CO_E_CLASSSTRING);

  EXPECT_EQ(component::g_log.asked, 0);
  EXPECT_TRUE(object.untouched());
}

TEST_F(Activation, NamesThatNobodyWouldGiveLeadNowhere) {
  const std::wstring names[] = {
      L"%s%n%ls",
      L"\n",
      L"\x1\x7F",
      L"~",
      L"$HOME",
      L"*",
      L"\xD800",
      L"\xDC00\xD800",
      L"\x110000",
      std::wstring(3, static_cast<wchar_t>(-1)),
      L"\x7FFFFFFF",
      L"/",
      L"\\",
      L"/dev/null",
      L"/proc/self/fd",
      L"./",
      std::wstring(100000, L'x'),
      std::wstring(100000, L'/'),
  };
  for (const std::wstring& name : names) {
    SCOPED_TRACE(testing::PrintToString(name.substr(0, 20)));
    Created object;
    EXPECT_EQ(LoadLibraryW(name.c_str()), nullptr);
    EXPECT_EQ(CoCreateInstanceByName(name.c_str(), nullptr, 1, IID_IUnknown,
                                     object.out()),
              CO_E_CLASSSTRING);
    EXPECT_EQ(CoCreateInstanceByName((L"ZIRNONE5." + name).c_str(), nullptr, 1,
                                     IID_IUnknown, object.out()),
              CO_E_CLASSSTRING);
    EXPECT_EQ(CoGetObject(name.c_str(), nullptr, IID_IUnknown, object.out()),
              E_FAIL);
    EXPECT_EQ(CoGetObject((L"new:" + name).c_str(), nullptr, IID_IUnknown,
                          object.out()),
              E_FAIL);
    EXPECT_TRUE(object.untouched());
  }
}

TEST_F(Activation, FoldersThatNobodyWouldNameHaveNoLibraries) {
  for (const std::string& value :
       {std::string(100000, 'x'), std::string("/") + std::string(5000, 'y'),
        std::string("\xFF\xFE"), std::string("/dev/null"), std::string("%s%n"),
        std::string("\n"), std::string("\\"), std::string("/")}) {
    variable().set(value);
    Created object;
    EXPECT_EQ(LoadLibraryW(L"ZIRNONE6"), nullptr);
    EXPECT_EQ(CoCreateInstanceByName(L"ZIRNONE6.Class", nullptr, 1,
                                     IID_IUnknown, object.out()),
              CO_E_CLASSSTRING);
    EXPECT_EQ(CoCreateInstance(kClass, nullptr, 1, IID_IUnknown, object.out()),
              E_FAIL);
    CLSID clsid = kInterface;
    EXPECT_EQ(CLSIDFromProgID(L"ZIRNONE6.Class", &clsid), CO_E_CLASSSTRING);
    EXPECT_EQ(clsid, kInterface);
  }
}

// Libraries that cannot give a factory, asked for in each of the three ways.
TEST_F(Activation, LibrariesWithoutAFactoryFailEachInItsWay) {
  for (const std::string kind :
       {"without_entry_point", "failing", "without_factory", "unreplaced",
        "unresolved"}) {
    const Folder reg;
    variable().set(reg.path());
    reg.link(kClassFile, kind);
    reg.link("ZIRBAD.so", kind);
    const bool asked = kind != "without_entry_point" && kind != "unresolved";
    component::Log* const notes = asked ? &registry::log_of(kind) : nullptr;
    if (notes != nullptr) *notes = {};
    Created object;

    EXPECT_EQ(CoCreateInstance(kClass, nullptr, 1, IID_IUnknown, object.out()),
              E_FAIL)
        << kind;
    EXPECT_EQ(CoCreateInstanceByName(L"ZirBad.Class", nullptr, 1, IID_IUnknown,
                                     object.out()),
              CO_E_CLASSSTRING)
        << kind;
    EXPECT_EQ(CoCreateInstanceByName(L"ZirBad", nullptr, 1, IID_IUnknown,
                                     object.out()),
              CO_E_CLASSSTRING)
        << kind;
    EXPECT_EQ(
        CoGetObject(L"new:ZirBad.Class", nullptr, IID_IUnknown, object.out()),
        E_FAIL)
        << kind;

    EXPECT_TRUE(object.untouched()) << kind;
    if (notes == nullptr) continue;
    EXPECT_EQ(notes->asked, 4) << kind;
    EXPECT_EQ(notes->created, 0) << kind;
    EXPECT_EQ(notes->factory_releases, 0) << kind;
  }
}

// ---------------------------------------------------------------------------
// Program ids
// ---------------------------------------------------------------------------

using ProgramId = Activation;

TEST_F(ProgramId, TheStemIsUpperCasedAndTheClassKeepsItsCase) {
  folder().link("ZIRTEST.so", "complete");
  Created object;

  EXPECT_EQ(
      CoCreateInstanceByName(L"zirTest.connECTION", nullptr,
                             CLSCTX_INPROC_SERVER, IID_IUnknown, object.out()),
      S_OK);

  EXPECT_TRUE(object.made());
  EXPECT_STREQ(log().name, L"connECTION");
}

TEST_F(ProgramId, TheEntryPointIsAskedForAClassFactoryByName) {
  folder().link("ZIRTEST.so", "complete");
  objects::Unknown outer;
  Created object;
  ASSERT_EQ(CoCreateInstanceByName(L"ZIRTEST.Object", &outer, 0xFFFFFFFF,
                                   kInterface, object.out()),
            S_OK);

  EXPECT_EQ(log().asked, 1);
  EXPECT_EQ(log().clsid, CLSID_NULL);
  EXPECT_EQ(log().factory_iid, IID_IClassFactory);
  EXPECT_EQ(log().created, 1);
  EXPECT_EQ(log().outer, &outer);
  EXPECT_EQ(log().object_iid, kInterface);
  EXPECT_EQ(log().slot, object.out());
  EXPECT_EQ(log().releases_when_created, 0);
  EXPECT_EQ(log().factory_releases, 1);
  EXPECT_EQ(log().factory_add_refs, 0);
  EXPECT_EQ(log().factory_queries, 0);
}

// What the entry point sees of a name: nothing (no text at all), or a text.
TEST_F(ProgramId, TheClassNameIsWhatFollowsTheFirstDot) {
  const struct {
    const wchar_t* name = nullptr;
    std::optional<std::wstring> class_name;
  } table[] = {
      {L"ZIRTEST.Object", L"Object"},
      {L"zirtest.a.B.c", L"a.B.c"},
      {L"zirtest..x", L".x"},
      {L"zirtest.", L""},
      {L"zirtest", std::nullopt},
      {L"ZIRTEST", std::nullopt},
      {L"zirtest.\u00E9\U0001F600 /\\", L"\u00E9\U0001F600 /\\"},
  };
  folder().link("ZIRTEST.so", "complete");
  for (const auto& row : table) {
    log() = {};
    Created object;

    EXPECT_EQ(CoCreateInstanceByName(row.name, nullptr, 1, IID_IUnknown,
                                     object.out()),
              S_OK)
        << testing::PrintToString(row.name);

    std::optional<std::wstring> seen;
    if (log().named) seen = log().name;
    EXPECT_EQ(seen, row.class_name) << testing::PrintToString(row.name);
  }
}

TEST_F(ProgramId, NamesWithoutALibraryAreNoClassStrings) {
  folder().link(".so", "complete");
  folder().link("ZIRTEST.OBJECT.so", "complete");
  folder().link("ZIRTEST.Object.so", "complete");
  folder().write("ZIRTEXT2.so", "not a library\n");
  for (const wchar_t* const name :
       {static_cast<const wchar_t*>(nullptr), L"", L".", L".Object",
        L"..Object", L"ZIRTEST.Object", L" ZIRTEST.Object", L"ZIRTEXT2.x"}) {
    Created object;
    EXPECT_EQ(
        CoCreateInstanceByName(name, nullptr, 1, IID_IUnknown, object.out()),
        CO_E_CLASSSTRING)
        << testing::PrintToString(name);
    EXPECT_TRUE(object.untouched()) << testing::PrintToString(name);
  }
}

TEST_F(ProgramId, AStemInLowerCaseInTheFolderIsAnotherOne) {
  folder().link("zirlower.so", "complete");
  Created object;

  EXPECT_EQ(CoCreateInstanceByName(L"zirlower.Object", nullptr, 1, IID_IUnknown,
                                   object.out()),
            CO_E_CLASSSTRING);
}

TEST_F(ProgramId, LettersOfOtherAlphabetsFollowTheLocale) {
  const std::wstring stem = {L'Z',
                             static_cast<wchar_t>(std::towupper(L'\u00E9')),
                             static_cast<wchar_t>(std::towupper(L'\u03C9'))};
  std::array<char, 20> file{};
  utf32_utf8(file.data(), file.size(), stem.c_str());
  folder().link(std::string(file.data()) + ".so", "complete");
  Created object;

  EXPECT_EQ(CoCreateInstanceByName(L"z\u00E9\u03C9.Object", nullptr, 1,
                                   IID_IUnknown, object.out()),
            S_OK);
}

TEST_F(ProgramId, TheNameIsCutAfterTwoHundredAndFiftyFiveCharacters) {
  folder().link("ZIRTEST.so", "complete");
  const std::wstring stem = L"ZIRTEST.";
  for (const std::size_t length : {254U, 255U, 256U, 300U, 5000U}) {
    log() = {};
    Created object;
    const std::wstring class_name =
        std::wstring(length - stem.size() - 1, L'c') + L'd';

    EXPECT_EQ(CoCreateInstanceByName((stem + class_name).c_str(), nullptr, 1,
                                     IID_IUnknown, object.out()),
              S_OK);

    EXPECT_EQ(log().name, class_name.substr(0, 255 - stem.size())) << length;
  }
}

// A stem of 254 bytes is the longest that can be loaded; what the name is cut
// to must not become one.
TEST_F(ProgramId, AStemThatIsTooLongIsNoClassString) {
  folder().folder("X");
  folder().link("X/COMPONENT", "complete");
  const WorkingFolder working(folder().path());
  for (const std::size_t length : {20U, 253U, 254U, 255U, 256U, 300U}) {
    const std::wstring stem =
        L"x" + std::wstring(length - 10, L'/') + L"component";
    for (const std::wstring& name : {stem, stem + L".Object"}) {
      Created object;
      EXPECT_EQ(CoCreateInstanceByName(name.c_str(), nullptr, 1, IID_IUnknown,
                                       object.out()),
                length <= 254 ? S_OK : CO_E_CLASSSTRING)
          << length;
    }
  }
}

// The 255th character is the last that counts: here it is the dot.
TEST_F(ProgramId, ADotAtTheCutLeavesAnEmptyClassName) {
  folder().folder("X");
  folder().link("X/COMPONENT", "complete");
  const WorkingFolder working(folder().path());
  const std::wstring name =
      L"x" + std::wstring(254 - 10, L'/') + L"component.Object";
  Created object;

  EXPECT_EQ(CoCreateInstanceByName(name.c_str(), nullptr, 1, IID_IUnknown,
                                   object.out()),
            S_OK);

  EXPECT_TRUE(log().named);
  EXPECT_STREQ(log().name, L"");
}

TEST_F(ProgramId, APathIsUpperCasedAndLoadedAsItIs) {
  folder().folder("SUB");
  folder().link("SUB/LIBRARY", "complete");
  const WorkingFolder working(folder().path());
  Created object;

  EXPECT_EQ(CoCreateInstanceByName(L"sub/library.Object", nullptr, 1,
                                   IID_IUnknown, object.out()),
            S_OK);
  EXPECT_STREQ(log().name, L"Object");
}

TEST_F(ProgramId, WhatTheFactoryAnswersIsPassedOn) {
  folder().link("ZIRTEST.so", "complete");
  for (const HRESULT answer :
       {S_FALSE, HRESULT{7}, E_NOINTERFACE, E_FAIL, CLASS_E_NOAGGREGATION}) {
    log() = {};
    log().create_answer = answer;
    Created object;

    EXPECT_EQ(CoCreateInstanceByName(L"ZIRTEST.Object", nullptr, 1,
                                     IID_IUnknown, object.out()),
              answer);

    EXPECT_EQ(log().factory_releases, 1) << answer;
  }
}

TEST_F(ProgramId, AnyPositiveAnswerOfTheEntryPointIsAFactory) {
  folder().link("ZIRTEST.so", "complete");
  log().class_answer = S_FALSE;
  Created object;

  EXPECT_EQ(CoCreateInstanceByName(L"ZIRTEST.Object", nullptr, 1, IID_IUnknown,
                                   object.out()),
            S_OK);
}

TEST_F(ProgramId, ARefusalToMakeAnObjectIsPassedOn) {
  folder().link("ZIRTEST.so", "refusing");
  Created object;

  EXPECT_EQ(CoCreateInstanceByName(L"ZIRTEST.Object", nullptr, 1, IID_IUnknown,
                                   object.out()),
            E_NOINTERFACE);
}

TEST_F(ProgramId, ObjectsAreMadeWithoutInitialisation) {
  folder().link("ZIRTEST.so", "complete");
  void* context = nullptr;
  ASSERT_EQ(CoGetObjectContext(IID_IContextProperties, &context), E_FAIL);
  Created object;

  EXPECT_EQ(CoCreateInstanceByName(L"ZIRTEST.Object", nullptr, 1, IID_IUnknown,
                                   object.out()),
            S_OK);
}

// ---------------------------------------------------------------------------
// Monikers
// ---------------------------------------------------------------------------

using Moniker = Activation;

TEST_F(Moniker, TheNewPrefixIsReadInAnyCase) {
  folder().link("ZIRTEST.so", "complete");
  for (const wchar_t* const name :
       {L"new:ZIRTEST.Object", L"NEW:zirtest.Object", L"nEw:ZirTest.Object"}) {
    log() = {};
    Created object;

    EXPECT_EQ(CoGetObject(name, nullptr, kInterface, object.out()), S_OK)
        << testing::PrintToString(name);

    EXPECT_TRUE(object.made());
    EXPECT_STREQ(log().name, L"Object");
    EXPECT_EQ(log().clsid, CLSID_NULL);
    EXPECT_EQ(log().outer, nullptr);
    EXPECT_EQ(log().object_iid, kInterface);
    EXPECT_EQ(log().slot, object.out());
    EXPECT_EQ(log().factory_releases, 1);
  }
}

TEST_F(Moniker, WhatIsNoNewObjectFails) {
  folder().link("ZIRTEST.so", "complete");
  folder().link("NEW.so", "complete");
  for (const wchar_t* const name :
       {static_cast<const wchar_t*>(nullptr), L"", L"n", L"ne", L"new", L"new:",
        L"new:.", L"ZIRTEST.Object", L"new.Object", L" new:ZIRTEST.x",
        L"new :ZIRTEST.x", L"new: ZIRTEST.x", L"new;ZIRTEST.x",
        L"news:ZIRTEST.x", L"\u00F1ew:ZIRTEST.x", L"new:new:ZIRTEST.x",
        L"clsid:ZIRTEST.x"}) {
    Created object;
    EXPECT_EQ(CoGetObject(name, nullptr, IID_IUnknown, object.out()), E_FAIL)
        << testing::PrintToString(name);
    EXPECT_TRUE(object.untouched()) << testing::PrintToString(name);
  }
  EXPECT_EQ(log().asked, 0);
}

TEST_F(Moniker, EveryFailureIsTheSame) {
  folder().link("ZIRTEST.so", "complete");
  for (const HRESULT answer :
       {E_NOINTERFACE, E_OUTOFMEMORY, CLASS_E_NOAGGREGATION, E_FAIL}) {
    log() = {};
    log().create_answer = answer;
    Created object;

    EXPECT_EQ(
        CoGetObject(L"new:ZIRTEST.Object", nullptr, IID_IUnknown, object.out()),
        E_FAIL);

    EXPECT_EQ(log().created, 1) << answer;
    EXPECT_EQ(log().factory_releases, 1) << answer;
  }
}

TEST_F(Moniker, SuccessesArePassedOn) {
  folder().link("ZIRTEST.so", "complete");
  for (const HRESULT answer : {S_OK, S_FALSE, HRESULT{7}}) {
    log().create_answer = answer;
    Created object;
    EXPECT_EQ(
        CoGetObject(L"new:ZIRTEST.Object", nullptr, IID_IUnknown, object.out()),
        answer);
  }
}

TEST_F(Moniker, OptionsAreIgnored) {
  folder().link("ZIRTEST.so", "complete");
  BIND_OPTS options = {3, 0xFFFFFFFF, 0xFFFFFFFF, 1};
  Created object;

  EXPECT_EQ(
      CoGetObject(L"new:ZIRTEST.Object", &options, IID_IUnknown, object.out()),
      S_OK);
}

TEST_F(Moniker, ThePrefixDoesNotCountInTheLengthOfTheName) {
  folder().link("ZIRTEST.so", "complete");
  const std::wstring class_name(300, L'c');
  Created object;

  EXPECT_EQ(CoGetObject((L"new:ZIRTEST." + class_name).c_str(), nullptr,
                        IID_IUnknown, object.out()),
            S_OK);

  EXPECT_EQ(log().name, class_name.substr(0, 255 - 8));
}

// ---------------------------------------------------------------------------
// Modules
// ---------------------------------------------------------------------------

TEST(Module, WithoutANameItIsTheMainProgram) {
  EXPECT_EQ(GetModuleHandleW(nullptr), dlopen(nullptr, RTLD_LAZY));
}

TEST_F(Activation, NoModuleIsFoundByName) {
  folder().link("ZIRTEST.so", "complete");
  ASSERT_NE(LoadLibraryW(L"ZIRTEST"), nullptr);
  for (const wchar_t* const name :
       {L"", L"x", L"ZIRTEST", L"zirdb", L"libzirdb.so", L"libc.so.6"}) {
    EXPECT_EQ(GetModuleHandleW(name), nullptr) << testing::PrintToString(name);
  }
}

TEST(Module, SymbolsAreFoundByName) {
  auto* const program = GetModuleHandleW(nullptr);

  EXPECT_EQ(GetProcAddress(program, "SysAllocString"),
            dlsym(RTLD_DEFAULT, "SysAllocString"));
  EXPECT_NE(GetProcAddress(program, "SysAllocString"), nullptr);
}

TEST(Module, SymbolsOfALoadedLibraryAreFoundByName) {
  auto* const library =
      LoadLibraryW(wide(registry::component_file("complete")).c_str());
  void* const symbol = GetProcAddress(library, "component_log");
  ASSERT_NE(symbol, nullptr);

  EXPECT_EQ(reinterpret_cast<component::Log* (*)()>(symbol)(),
            &registry::log_of("complete"));
}

TEST(Module, UnknownSymbolsHaveNoAddress) {
  auto* const library =
      LoadLibraryW(wide(registry::component_file("complete")).c_str());
  ASSERT_NE(library, nullptr);

  EXPECT_EQ(GetProcAddress(library, "no_such_symbol"), nullptr);
  EXPECT_EQ(GetProcAddress(library, "COMPONENT_LOG"), nullptr);
  EXPECT_EQ(GetProcAddress(library, ""), nullptr);
}

TEST(Module, NoNameHasNoAddress) {
  EXPECT_EQ(GetProcAddress(GetModuleHandleW(nullptr), nullptr), nullptr);
}

}  // namespace
