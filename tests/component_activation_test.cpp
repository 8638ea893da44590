// SPDX-License-Identifier: MIT
//
// The component through the runtime's activation, from the registry folder that
// the build makes: by class id, by program id, by moniker. The folder leads to
// the one library of the build, never to a second instance of it.
//
// Sections: the folder; program ids; objects.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "support/objects.h"
#include "zir.h"
#include "zirdb.h"

namespace {

namespace fs = std::filesystem;

using component::Out;

/// Sets the variable that names the folder, or unsets it, while it lives.
class RegistryVariable {
 public:
  explicit RegistryVariable(const char* folder) {
    if (const char* const before = std::getenv(kName)) before_ = before;
    set(folder);
  }
  RegistryVariable(const RegistryVariable&) = delete;
  RegistryVariable& operator=(const RegistryVariable&) = delete;
  ~RegistryVariable() { set(before_ ? before_->c_str() : nullptr); }

 private:
  static constexpr const char* kName = "REGISTRY";
  static void set(const char* folder) {
    if (folder != nullptr) {
      setenv(kName, folder, 1);
    } else {
      unsetenv(kName);
    }
  }

  std::optional<std::string> before_;
};

/// Activation looks into the build's folder.
class ComponentActivation : public testing::Test {
 private:
  const RegistryVariable variable_{REGISTRY_FOLDER};
};

struct Class {
  const wchar_t* program_id;
  const CLSID& clsid;
  const char* identifier_file;
  const char* library_file;
};

const Class kClasses[] = {
    {L"ZIRDB.Connection", CLSID_ZIRDBConnection, "ZIRDB.CONNECTION.clsid",
     "{A3B9D97A-3DE2-4287-9A7B-5EF21F449C1E}.so"},
    {L"ZIRDB.Command", CLSID_ZIRDBCommand, "ZIRDB.COMMAND.clsid",
     "{B250EB07-2332-4C6D-B50D-357641DEAA0D}.so"},
    {L"ZIRDB.Recordset", CLSID_ZIRDBRecordset, "ZIRDB.RECORDSET.clsid",
     "{8EEDA5E6-0575-4F26-B43A-ED25F95E993B}.so"},
};

/// The file of the library that this program links.
std::string linked_library() {
  void* const library = dlopen("libzirdb.so.0", RTLD_NOW | RTLD_NOLOAD);
  if (library == nullptr) throw std::runtime_error(dlerror());
  void* const entry = dlsym(library, "DllCanUnloadNow");
  Dl_info info{};
  const bool found = entry != nullptr && dladdr(entry, &info) != 0;
  dlclose(library);
  if (!found) throw std::runtime_error("the library has no file");
  return info.dli_fname;
}

/// A recordset that this program's own DllCanUnloadNow knows of.
void expect_recordset(const Out& created) {
  ASSERT_FALSE(created.untouched());
  ASSERT_NE(created.object(), nullptr);
  auto* const object = static_cast<IUnknown*>(created.object());
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE) << "another instance made it";
  EXPECT_EQ(component::references_of(object), 1U);
  const auto recordset =
      component::query<IZIRDBRecordset>(object, IID_IZIRDBRecordset);
  ASSERT_TRUE(recordset);
  long state = 77;
  EXPECT_EQ(recordset->get_State(&state), S_OK);
  EXPECT_EQ(state, ZIRDB_STATE_OPEN);
}

bool no_object(const Out& created) {
  return created.untouched() || created.object() == nullptr;
}

// ---------------------------------------------------------------------------
// The folder
// ---------------------------------------------------------------------------

TEST(RegistryFolder, HasLinksToTheLibraryNotCopies) {
  const fs::path library = fs::canonical(linked_library());
  std::vector<std::string> names = {"ZIRDB.so"};
  for (const Class& row : kClasses) names.emplace_back(row.library_file);
  for (const std::string& name : names) {
    const fs::path link = fs::path(REGISTRY_FOLDER) / name;
    std::error_code error;
    EXPECT_TRUE(fs::is_symlink(link, error)) << name;
    EXPECT_EQ(fs::canonical(link, error), library) << name;
    EXPECT_FALSE(error) << name << ": " << error.message();
  }
}

// A build tree may be moved.
TEST(RegistryFolder, LinksAreRelative) {
  for (const char* const name :
       {"ZIRDB.so", kClasses[0].library_file, kClasses[1].library_file,
        kClasses[2].library_file}) {
    std::error_code error;
    const fs::path target =
        fs::read_symlink(fs::path(REGISTRY_FOLDER) / name, error);
    EXPECT_FALSE(error) << name;
    EXPECT_TRUE(target.is_relative()) << name << " -> " << target;
  }
}

TEST(RegistryFolder, HasNothingElse) {
  std::vector<std::string> expected = {"ZIRDB.so"};
  for (const Class& row : kClasses) {
    expected.emplace_back(row.library_file);
    expected.emplace_back(row.identifier_file);
  }
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(REGISTRY_FOLDER)) {
    names.push_back(entry.path().filename());
  }
  std::sort(expected.begin(), expected.end());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, expected);
}

// ---------------------------------------------------------------------------
// Program ids
// ---------------------------------------------------------------------------

TEST_F(ComponentActivation, EveryProgramIdHasItsClassId) {
  for (const Class& row : kClasses) {
    CLSID clsid{};
    EXPECT_EQ(CLSIDFromProgID(row.program_id, &clsid), S_OK) << row.program_id;
    EXPECT_EQ(clsid, row.clsid) << row.program_id;
  }
}

TEST_F(ComponentActivation, ProgramIdsHaveNoCase) {
  for (const wchar_t* const program_id :
       {L"zirdb.recordset", L"ZIRDB.RECORDSET", L"ZirDb.recordSet"}) {
    CLSID clsid{};
    EXPECT_EQ(CLSIDFromProgID(program_id, &clsid), S_OK) << program_id;
    EXPECT_EQ(clsid, CLSID_ZIRDBRecordset) << program_id;

    Out object;
    EXPECT_EQ(CoCreateInstanceByName(program_id, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_IDispatch, object.address()),
              S_OK)
        << program_id;
    expect_recordset(object);
  }
}

TEST_F(ComponentActivation, OtherObjectsHaveNoProgramId) {
  for (const wchar_t* const program_id :
       {L"ZIRDB.Fields", L"ZIRDB.Field", L"ZIRDB.Parameters",
        L"ZIRDB.Parameter", L"ZIRDB.", L"ZIRDB", L"ZIRDB.Recordset.1"}) {
    Out object;
    EXPECT_EQ(CoCreateInstanceByName(program_id, nullptr, CLSCTX_INPROC_SERVER,
                                     IID_IUnknown, object.address()),
              CO_E_CLASSSTRING)
        << program_id;
    EXPECT_TRUE(no_object(object)) << program_id;
    CLSID clsid{};
    EXPECT_EQ(CLSIDFromProgID(program_id, &clsid), CO_E_CLASSSTRING)
        << program_id;
  }
}

TEST_F(ComponentActivation, AMonikerLeadsToTheSame) {
  Out object;
  EXPECT_EQ(CoGetObject(L"new:ZIRDB.Recordset", nullptr, IID_IZIRDBRecordset,
                        object.address()),
            S_OK);
  expect_recordset(object);
}

// ---------------------------------------------------------------------------
// Objects
// ---------------------------------------------------------------------------

TEST_F(ComponentActivation, ARecordsetIsMadeByName) {
  for (const IID* const iid :
       {&IID_IUnknown, &IID_IDispatch, &IID_IZIRDBRecordset}) {
    Out object;
    EXPECT_EQ(
        CoCreateInstanceByName(L"ZIRDB.Recordset", nullptr,
                               CLSCTX_INPROC_SERVER, *iid, object.address()),
        S_OK);
    expect_recordset(object);
  }
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST_F(ComponentActivation, ARecordsetIsMadeByClassId) {
  for (const IID* const iid :
       {&IID_IUnknown, &IID_IDispatch, &IID_IZIRDBRecordset}) {
    Out object;
    EXPECT_EQ(CoCreateInstance(CLSID_ZIRDBRecordset, nullptr,
                               CLSCTX_INPROC_SERVER, *iid, object.address()),
              S_OK);
    expect_recordset(object);
  }
  EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

TEST_F(ComponentActivation, ARecordsetIsMadeByTheClassIdOfItsProgramId) {
  CLSID clsid{};
  EXPECT_EQ(CLSIDFromProgID(L"ZIRDB.Recordset", &clsid), S_OK);
  Out object;
  EXPECT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IZIRDBRecordset, object.address()),
            S_OK);
  expect_recordset(object);
}

TEST_F(ComponentActivation, TheFactorysRefusalsComeThrough) {
  objects::Unknown outer;
  Out by_name;
  EXPECT_EQ(
      CoCreateInstanceByName(L"ZIRDB.Recordset", &outer, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, by_name.address()),
      CLASS_E_NOAGGREGATION);
  EXPECT_TRUE(no_object(by_name));
  Out by_id;
  EXPECT_EQ(CoCreateInstance(CLSID_ZIRDBRecordset, &outer, CLSCTX_INPROC_SERVER,
                             IID_IUnknown, by_id.address()),
            CLASS_E_NOAGGREGATION);
  EXPECT_TRUE(no_object(by_id));
  Out other;
  EXPECT_EQ(
      CoCreateInstance(CLSID_ZIRDBRecordset, nullptr, CLSCTX_INPROC_SERVER,
                       IID_IZIRDBFields, other.address()),
      E_NOINTERFACE);
  EXPECT_TRUE(no_object(other));
  EXPECT_EQ(outer.references(), 1U);
}

/// A new object of this very library, which has the interface.
void expect_new(const Out& created, REFIID own) {
  ASSERT_FALSE(created.untouched());
  ASSERT_NE(created.object(), nullptr);
  auto* const object = static_cast<IUnknown*>(created.object());
  EXPECT_EQ(DllCanUnloadNow(), S_FALSE) << "another instance made it";
  EXPECT_EQ(component::references_of(object), 1U);
  EXPECT_TRUE(component::query<IUnknown>(object, own));
}

TEST_F(ComponentActivation, EveryClassIsMadeByNameAndByIdentifier) {
  const IID* const own[] = {&IID_IZIRDBConnection, &IID_IZIRDBCommand,
                            &IID_IZIRDBRecordset};
  for (std::size_t i = 0; i < std::size(own); ++i) {
    Out by_name;
    EXPECT_EQ(CoCreateInstanceByName(kClasses[i].program_id, nullptr,
                                     CLSCTX_INPROC_SERVER, IID_IUnknown,
                                     by_name.address()),
              S_OK);
    expect_new(by_name, *own[i]);
    Out by_id;
    EXPECT_EQ(CoCreateInstance(kClasses[i].clsid, nullptr, CLSCTX_INPROC_SERVER,
                               *own[i], by_id.address()),
              S_OK);
    expect_new(by_id, *own[i]);
  }
}

// The folder is what activation needs, and all it needs.
TEST(ComponentActivationElsewhere, NothingIsFoundWithoutTheFolder) {
  const RegistryVariable variable(nullptr);
  Out by_id;
  EXPECT_EQ(
      CoCreateInstance(CLSID_ZIRDBRecordset, nullptr, CLSCTX_INPROC_SERVER,
                       IID_IUnknown, by_id.address()),
      E_FAIL);
  EXPECT_TRUE(by_id.untouched());
  CLSID clsid{};
  EXPECT_EQ(CLSIDFromProgID(L"ZIRDB.Recordset", &clsid), CO_E_CLASSSTRING);
}

}  // namespace
