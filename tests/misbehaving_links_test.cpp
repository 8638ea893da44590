// SPDX-License-Identifier: MIT
//
// Hosts that load the library more than once: under other names, as a copy, in
// other ways, again and again. Names of one file are one library; a copy is
// another one, whose objects are foreign to the first. This program does not
// link the library.
//
// Sections: the host; one library or two; objects of the other one; unloading.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zir.h"
#include "zirdb.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
// A copy of the library has the same symbols, on purpose.
extern "C" __attribute__((visibility("default"))) const char*
__asan_default_options();
const char* __asan_default_options() { return "detect_odr_violation=0"; }
#endif

namespace {

namespace fs = std::filesystem;

// ---------------------------------------------------------------------------
// The host
// ---------------------------------------------------------------------------

/// The library under one of its names, loaded while this lives.
class Library {
 public:
  explicit Library(const std::string& path, int flags = RTLD_NOW | RTLD_LOCAL)
      : handle_(dlopen(path.c_str(), flags)) {
    if (handle_ == nullptr) throw std::runtime_error(dlerror());
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() { dlclose(handle_); }

  void* handle() const { return handle_; }

  template <class Symbol>
  Symbol* symbol(const char* name) const {
    void* const found = dlsym(handle_, name);
    if (found == nullptr) throw std::runtime_error(dlerror());
    return reinterpret_cast<Symbol*>(found);
  }
  const IID& id(const char* name) const { return *symbol<const IID>(name); }

  /// An object of the class "ZIRDB." + `name`.
  template <class Interface>
  InterfacePtr<Interface> made(const std::string& name) const {
    InterfacePtr<IClassFactory> factory;
    factory.receive([&](void** out) {
      return symbol<decltype(DllGetClassObject)>("DllGetClassObject")(
          id(("CLSID_ZIRDB" + name).c_str()), id("IID_IClassFactory"), out);
    });
    if (!factory) throw std::runtime_error("no factory");
    InterfacePtr<Interface> object;
    object.receive([&](void** out) {
      return factory->CreateInstance(nullptr, id(("IID_IZIRDB" + name).c_str()),
                                     out);
    });
    if (!object) throw std::runtime_error("no " + name);
    return object;
  }

  bool is_idle() const {
    return symbol<decltype(DllCanUnloadNow)>("DllCanUnloadNow")() == S_OK;
  }

  /// Calls a member. What it says when it fails; the text is empty without one.
  std::pair<HRESULT, std::wstring> outcome_of(IUnknown* object,
                                              DISPID member) const {
    const auto dispatch =
        InterfacePtr<IUnknown>::share(object).query<IDispatch>(
            id("IID_IDispatch"));
    EXCEPINFO exception{};
    DISPPARAMS arguments{};
    VARIANT value{};
    const HRESULT result =
        dispatch->Invoke(member, id("IID_NULL"), 0, DISPATCH_METHOD, &arguments,
                         &value, &exception, nullptr);
    if (result != DISP_E_EXCEPTION) return {result, L""};
    std::pair<HRESULT, std::wstring> failure = {exception.scode, L""};
    if (exception.bstrDescription != nullptr) {
      failure.second = exception.bstrDescription;
    }
    symbol<decltype(ExcepinfoClear)>("ExcepinfoClear")(&exception);
    return failure;
  }

  /// A text that lives while the returned owner does.
  std::shared_ptr<wchar_t> text(const wchar_t* characters) const {
    return {symbol<decltype(SysAllocString)>("SysAllocString")(characters),
            symbol<decltype(SysFreeString)>("SysFreeString")};
  }

 private:
  void* handle_;
};

/// An error with a text, of the thread that calls this.
void fail_once(const Library& library) {
  const auto recordset = library.made<IZIRDBRecordset>("Recordset");
  const auto [code, text] =
      library.outcome_of(recordset.get(), DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS);
  EXPECT_EQ(code, zir_hresult(0x800A0C93));
  EXPECT_EQ(text, L"Operation is not allowed in this context.");
}

bool is_loaded(const std::string& path) {
  void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

/// The library's file, and a folder with other names of it.
class Links : public testing::Test {
 protected:
  void SetUp() override {
    // Beside the library, so that a hard link is on the same disk.
    std::string name = fs::path(LIBRARY).parent_path() / "links.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
    fs::create_symlink(LIBRARY, folder_ / "one.so");
    fs::create_symlink("one.so", folder_ / "two.so");
    fs::create_hard_link(fs::canonical(LIBRARY), folder_ / "hard.so");
    fs::copy_file(LIBRARY, folder_ / "copy.so");
  }
  void TearDown() override {
    EXPECT_FALSE(is_loaded(LIBRARY));
    EXPECT_FALSE(is_loaded(path("copy.so")));
    fs::remove_all(folder_);
  }
  std::string path(const char* name) const { return folder_ / name; }

 private:
  fs::path folder_;
};

// ---------------------------------------------------------------------------
// One library or two
// ---------------------------------------------------------------------------

TEST_F(Links, NamesOfOneFileAreOneLibrary) {
  const Library library(LIBRARY);
  for (const char* name : {"one.so", "two.so", "hard.so"}) {
    SCOPED_TRACE(name);
    const Library other(path(name));
    EXPECT_EQ(other.handle(), library.handle());
    const auto object = other.made<IZIRDBRecordset>("Recordset");
    EXPECT_FALSE(library.is_idle());
  }
  EXPECT_TRUE(library.is_idle());
}

TEST_F(Links, ACopyIsAnother) {
  const Library library(LIBRARY);
  const Library copy(path("copy.so"));
  EXPECT_NE(copy.handle(), library.handle());
  {
    const auto object = copy.made<IZIRDBRecordset>("Recordset");
    EXPECT_FALSE(copy.is_idle());
    EXPECT_TRUE(library.is_idle());
  }
  EXPECT_TRUE(copy.is_idle());
}

// Each keeps its own error for a thread.
TEST_F(Links, ErrorsOfTheTwoDoNotMeet) {
  const Library library(LIBRARY);
  const Library copy(path("copy.so"));
  const auto ours = library.made<IZIRDBCommand>("Command");
  const auto theirs = copy.made<IZIRDBRecordset>("Recordset");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(copy.outcome_of(theirs.get(), DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS)
                  .second,
              L"Operation is not allowed in this context.");
    EXPECT_EQ(
        library.outcome_of(ours.get(), DISPID_ZIRDB_COMMAND_EXECUTE).second,
        L"The connection cannot be used to perform this operation. It is "
        L"either closed or invalid in this context.");
  }
}

TEST_F(Links, TheLibraryIsLoadedInAnyWay) {
  std::vector<int> ways = {RTLD_NOW | RTLD_LOCAL, RTLD_LAZY | RTLD_LOCAL,
                           RTLD_NOW | RTLD_GLOBAL};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  ways.push_back(RTLD_NOW | RTLD_DEEPBIND);  // sanitizers refuse it
#endif
  for (const int flags : ways) {
    SCOPED_TRACE(flags);
    const Library library(LIBRARY, flags);
    fail_once(library);
    EXPECT_TRUE(library.is_idle());
  }
}

// ---------------------------------------------------------------------------
// Objects of the other one
// ---------------------------------------------------------------------------

InterfacePtr<IZIRDBParameters> parameters_of(
    const InterfacePtr<IZIRDBCommand>& command) {
  IZIRDBParameters* list = nullptr;
  EXPECT_EQ(command->get_Parameters(&list), S_OK);
  return InterfacePtr<IZIRDBParameters>::adopt(list);
}

InterfacePtr<IZIRDBParameter> parameter_of(
    const InterfacePtr<IZIRDBCommand>& command) {
  VARIANT value{};
  value.vt = VT_I8;
  value.llVal = 5;
  IZIRDBParameter* parameter = nullptr;
  EXPECT_EQ(
      command->CreateParameter(nullptr, ZIRDB_AD_BIGINT, ZIRDB_AD_PARAM_INPUT,
                               0, value, &parameter),
      S_OK);
  return InterfacePtr<IZIRDBParameter>::adopt(parameter);
}

// A foreign parameter is copied; one of the library's own is shared.
TEST_F(Links, AParameterOfACopyIsForeign) {
  const Library library(LIBRARY);
  const Library copy(path("copy.so"));
  const Library alias(path("two.so"));
  const auto command = library.made<IZIRDBCommand>("Command");
  const auto list = parameters_of(command);
  const auto theirs = parameter_of(copy.made<IZIRDBCommand>("Command"));
  const auto ours = parameter_of(alias.made<IZIRDBCommand>("Command"));
  ASSERT_EQ(list->Append(theirs.get()), S_OK);
  ASSERT_EQ(list->Append(ours.get()), S_OK);

  EXPECT_EQ(theirs->put_Size(7), S_OK);
  EXPECT_EQ(ours->put_Size(8), S_OK);

  for (const auto& [position, size] : {std::pair(0, 0), std::pair(1, 8)}) {
    VARIANT index{};
    index.vt = VT_I8;
    index.llVal = position;
    IZIRDBParameter* found = nullptr;
    ASSERT_EQ(list->Item(index, &found), S_OK);
    long stored = -1;
    EXPECT_EQ(found->get_Size(&stored), S_OK);
    EXPECT_EQ(stored, size);
    found->Release();
  }
}

class LinksWithADatabase : public Links {
 protected:
#ifdef __SANITIZE_ADDRESS__
  // The driver manager loses memory whenever it is unloaded.
  static void SetUpTestSuite() { dlopen("libodbc.so.2", RTLD_NOW); }
#endif

  // The driver manager tells whether there is a driver. Whatever else goes
  // wrong is a failure of the test.
  void SetUp() override {
    Links::SetUp();
    const Library library(LIBRARY);
    const std::wstring said = opening(library).second;
    for (const wchar_t* missing :
         {L"Can't open lib", L"Data source name not found"}) {
      if (said.find(missing) != std::wstring::npos) {
        GTEST_SKIP() << "no SQLite driver";
      }
    }
  }

  static InterfacePtr<IZIRDBConnection> opened(const Library& library) {
    const auto [connection, said] = opening(library);
    long state = ZIRDB_STATE_CLOSED;
    EXPECT_EQ(connection->get_State(&state), S_OK);
    if (state != ZIRDB_STATE_OPEN) {
      throw std::runtime_error("not opened: " +
                               std::string(said.begin(), said.end()));
    }
    return connection;
  }

 private:
  /// A connection, and why it is not open.
  static std::pair<InterfacePtr<IZIRDBConnection>, std::wstring> opening(
      const Library& library) {
    auto connection = library.made<IZIRDBConnection>("Connection");
    const auto text = library.text(L"Driver={SQLite3};Database=:memory:");
    EXPECT_EQ(connection->put_ConnectionString(text.get()), S_OK);
    const std::wstring said =
        library.outcome_of(connection.get(), DISPID_ZIRDB_CONNECTION_OPEN)
            .second;
    return {connection, said};
  }
};

// A command runs texts on it, and parameters not.
TEST_F(LinksWithADatabase, AConnectionOfACopyIsForeign) {
  const Library library(LIBRARY);
  const Library copy(path("copy.so"));
  const auto theirs = opened(copy);
  const auto command = library.made<IZIRDBCommand>("Command");
  ASSERT_EQ(command->put_CommandText(library.text(L"SELECT 7").get()), S_OK);
  ASSERT_EQ(command->putref_ActiveConnection(
                theirs.query<IDispatch>(library.id("IID_IDispatch")).get()),
            S_OK);

  IZIRDBRecordset* rows = nullptr;
  EXPECT_EQ(command->Execute(nullptr, 0, &rows), S_OK);
  ASSERT_NE(rows, nullptr);
  EXPECT_FALSE(copy.is_idle());
  VARIANT_BOOL at_end = VARIANT_TRUE;
  EXPECT_EQ(rows->get_EOF(&at_end), S_OK);
  EXPECT_EQ(at_end, VARIANT_FALSE);
  rows->Release();

  ASSERT_EQ(parameters_of(command)->Append(parameter_of(command).get()), S_OK);
  EXPECT_EQ(
      library.outcome_of(command.get(), DISPID_ZIRDB_COMMAND_EXECUTE),
      std::pair(
          E_NOTIMPL,
          std::wstring(L"Parameterized execute requires ZIRDB.Connection.")));
}

TEST_F(LinksWithADatabase, BothHaveConnectionsOpen) {
  const Library library(LIBRARY);
  const auto ours = opened(library);
  {
    const Library copy(path("copy.so"));
    const auto theirs = opened(copy);
  }
  IZIRDBRecordset* rows = nullptr;
  EXPECT_EQ(ours->Execute(library.text(L"SELECT 1").get(), nullptr, 0, &rows),
            S_OK);
  ASSERT_NE(rows, nullptr);
  rows->Release();
}

// ---------------------------------------------------------------------------
// Unloading
// ---------------------------------------------------------------------------

/// A thread that has an error of a library and goes on when that is unloaded.
class ThreadWithAnError {
 public:
  explicit ThreadWithAnError(const std::vector<const Library*>& libraries) {
    std::promise<void> failed;
    thread_ = std::thread([&libraries, &failed, end = end_.get_future()] {
      {
#ifdef __SANITIZE_ADDRESS__
        // Nobody can free the error of a thread that outlives the library.
        const __lsan::ScopedDisabler disabler;
#endif
        for (const Library* each : libraries) fail_once(*each);
      }
      failed.set_value();
      end.wait();
    });
    failed.get_future().wait();
  }
  ThreadWithAnError(const ThreadWithAnError&) = delete;
  ThreadWithAnError& operator=(const ThreadWithAnError&) = delete;
  ~ThreadWithAnError() {
    end_.set_value();
    thread_.join();
  }

 private:
  std::promise<void> end_;
  std::thread thread_;
};

TEST_F(Links, AreUnloadedInEitherOrderWhileThreadsHaveErrors) {
  for (const bool copy_first : {false, true}) {
    SCOPED_TRACE(copy_first);
    auto library = std::make_unique<Library>(LIBRARY);
    auto copy = std::make_unique<Library>(path("copy.so"));
    const ThreadWithAnError of_both({library.get(), copy.get()});
    const ThreadWithAnError of_the_copy({copy.get()});
    auto& first = copy_first ? copy : library;
    auto& second = copy_first ? library : copy;

    first.reset();

    EXPECT_FALSE(is_loaded(copy_first ? path("copy.so") : LIBRARY));
    fail_once(*second);
    std::thread([&second] { fail_once(*second); }).join();
    second.reset();
  }
}

TEST_F(Links, AreLoadedAHundredTimes) {
  for (int i = 0; i < 100; ++i) {
    ASSERT_FALSE(is_loaded(LIBRARY)) << i;
    const Library library(LIBRARY);
    fail_once(library);
    std::thread([&library] { fail_once(library); }).join();
    const auto command = library.made<IZIRDBCommand>("Command");
    const auto list = parameters_of(command);
    ASSERT_EQ(list->Append(parameter_of(command).get()), S_OK);
  }
}

TEST_F(LinksWithADatabase, AreLoadedAgainAndAgainWithConnections) {
  for (int i = 0; i < 10; ++i) {
    ASSERT_FALSE(is_loaded(LIBRARY)) << i;
    const Library library(LIBRARY);
    const auto connection = opened(library);
    IZIRDBRecordset* rows = nullptr;
    ASSERT_EQ(
        connection->Execute(library.text(L"SELECT 1").get(), nullptr, 0, &rows),
        S_OK);
    rows->Release();
  }
}

// A name of the library that is closed does not unload it while another one is
// open.
TEST_F(Links, TheLastNameThatIsClosedUnloadsIt) {
  auto first = std::make_unique<Library>(path("one.so"));
  auto second = std::make_unique<Library>(path("hard.so"));
  auto third = std::make_unique<Library>(LIBRARY);
  first.reset();
  second.reset();
  EXPECT_TRUE(is_loaded(LIBRARY));
  fail_once(*third);
  third.reset();
  EXPECT_FALSE(is_loaded(path("one.so")));
}

}  // namespace
