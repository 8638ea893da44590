// SPDX-License-Identifier: MIT
//
// A host that loads the library itself and lets it go again, and one that has
// no thread key left when it does: the library keeps the error of each thread
// with the help of one. This program does not link the library.
//
// Sections: the host; without a thread key; unloading.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "zir.h"
#include "zirdb.h"

namespace {

constexpr HRESULT kNotInThisContext = zir_hresult(0x800A0C93);
constexpr const wchar_t* kNotInThisContextText =
    L"Operation is not allowed in this context.";

// ---------------------------------------------------------------------------
// The host
// ---------------------------------------------------------------------------

/// The library, loaded while this lives.
class Library {
 public:
  Library() : handle_(dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) throw std::runtime_error(dlerror());
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() { dlclose(handle_); }

  template <class Symbol>
  Symbol* symbol(const char* name) const {
    void* const found = dlsym(handle_, name);
    if (found == nullptr) throw std::runtime_error(dlerror());
    return reinterpret_cast<Symbol*>(found);
  }

  InterfacePtr<IZIRDBRecordset> recordset() const {
    InterfacePtr<IClassFactory> factory;
    factory.receive([&](void** out) {
      return symbol<decltype(DllGetClassObject)>("DllGetClassObject")(
          *symbol<CLSID>("CLSID_ZIRDBRecordset"),
          *symbol<IID>("IID_IClassFactory"), out);
    });
    if (!factory) throw std::runtime_error("no factory");
    InterfacePtr<IZIRDBRecordset> made;
    made.receive([&](void** out) {
      return factory->CreateInstance(nullptr,
                                     *symbol<IID>("IID_IZIRDBRecordset"), out);
    });
    if (!made) throw std::runtime_error("no recordset");
    return made;
  }

 private:
  void* handle_;
};

/// What a late-bound call that fails says of it; no description when NULL.
struct Failure {
  HRESULT result;
  HRESULT code;
  std::wstring source;
  std::optional<std::wstring> description;
};

/// MovePrevious, which always fails.
Failure late_bound_failure(const Library& library,
                           const InterfacePtr<IZIRDBRecordset>& recordset) {
  const auto dispatch =
      recordset.query<IDispatch>(*library.symbol<const IID>("IID_IDispatch"));
  EXCEPINFO exception{};
  DISPPARAMS arguments{};
  Failure failure{};
  failure.result = dispatch->Invoke(DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS,
                                    *library.symbol<const IID>("IID_NULL"), 0,
                                    DISPATCH_METHOD, &arguments, nullptr,
                                    &exception, nullptr);
  failure.code = exception.scode;
  if (exception.bstrSource != nullptr) failure.source = exception.bstrSource;
  if (exception.bstrDescription != nullptr) {
    failure.description = exception.bstrDescription;
  }
  library.symbol<decltype(ExcepinfoClear)>("ExcepinfoClear")(&exception);
  return failure;
}

void expect_failure(const Failure& failure,
                    const std::optional<std::wstring>& description) {
  EXPECT_EQ(failure.result, DISP_E_EXCEPTION);
  EXPECT_EQ(failure.code, kNotInThisContext) << std::hex << failure.code;
  EXPECT_EQ(failure.source, L"ZIRDB.Recordset");
  EXPECT_EQ(failure.description, description);
}

// ---------------------------------------------------------------------------
// Without a thread key
// ---------------------------------------------------------------------------

/// Holds every thread key that the process has left.
class EveryThreadKey {
 public:
  EveryThreadKey() {
    pthread_key_t key{};
    while (pthread_key_create(&key, nullptr) == 0) keys_.push_back(key);
  }
  EveryThreadKey(const EveryThreadKey&) = delete;
  EveryThreadKey& operator=(const EveryThreadKey&) = delete;
  ~EveryThreadKey() {
    for (const pthread_key_t key : keys_) pthread_key_delete(key);
  }

 private:
  std::vector<pthread_key_t> keys_;
};

TEST(WithoutAThreadKey, AnOperationFailsWithItsOwnCode) {
  const EveryThreadKey keys;
  const Library library;
  const auto recordset = library.recordset();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(recordset->MovePrevious(), kNotInThisContext);
  }
}

TEST(WithoutAThreadKey, ALateBoundCallFailsWithItsCodeAndItsClassAlone) {
  const EveryThreadKey keys;
  const Library library;
  const auto recordset = library.recordset();
  for (int i = 0; i < 2; ++i) {
    expect_failure(late_bound_failure(library, recordset), std::nullopt);
  }
}

// A key that is free by now is not asked for again.
TEST(WithoutAThreadKey, TheTextsStayAwayWhenOneBecomesFree) {
  std::optional<EveryThreadKey> keys(std::in_place);
  const Library library;
  keys.reset();
  expect_failure(late_bound_failure(library, library.recordset()),
                 std::nullopt);
}

/// The key that the library will take if it is loaded next: the first free one.
pthread_key_t next_key() {
  pthread_key_t key{};
  EXPECT_EQ(pthread_key_create(&key, nullptr), 0);
  EXPECT_EQ(pthread_key_delete(key), 0);
  return key;
}

// At the end of a process the library gives its key back, and may be called by
// what ends later.
TEST(WithoutAThreadKey, OneThatIsTakenAwayCostsTheTextToo) {
  const pthread_key_t key = next_key();
  const Library library;
  const auto recordset = library.recordset();
  ASSERT_EQ(pthread_key_delete(key), 0) << "not the library's key";
  EXPECT_EQ(recordset->MovePrevious(), kNotInThisContext);
  expect_failure(late_bound_failure(library, recordset), std::nullopt);
}

// ---------------------------------------------------------------------------
// Unloading
// ---------------------------------------------------------------------------

bool is_loaded() {
  void* const handle = dlopen(LIBRARY, RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

// LeakSanitizer finds the error of an earlier round that was left over: the
// library's place for it is new each time.
TEST(Unloading, TheErrorOfAThreadGoesWithTheLibraryAndComesBackWithIt) {
  const pthread_key_t key = next_key();
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    EXPECT_FALSE(is_loaded());
    const Library library;
    EXPECT_TRUE(is_loaded());
    expect_failure(late_bound_failure(library, library.recordset()),
                   kNotInThisContextText);
  }
  EXPECT_FALSE(is_loaded());
  EXPECT_EQ(next_key(), key) << "the library's key is left";
}

}  // namespace
