// SPDX-License-Identifier: MIT
//
// Threads share nothing but the libraries that are loaded: each has a context
// and an error object of its own, and all of them work at the same time on data
// of their own. Meant for ThreadSanitizer as much as for its assertions.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <thread>

#include "component_fixture/registry.h"
#include "support/objects.h"
#include "support/threads.h"
#include "zir.h"

namespace {

using objects::context;
using threads::Gate;
using threads::in_threads;
using threads::kThreads;

/// Keeps the thread initialised while it lives.
class Initialised {
 public:
  Initialised() : result_(CoInitializeEx(nullptr, 0)) {}
  Initialised(const Initialised&) = delete;
  Initialised& operator=(const Initialised&) = delete;
  ~Initialised() { CoUninitialize(); }

  HRESULT result() const { return result_; }

 private:
  HRESULT result_;
};

/// An error object that is used on one thread.
class Error final : public IErrorInfo {
 public:
  HRESULT QueryInterface(REFIID, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }
  HRESULT GetGUID(GUID*) override { return E_NOTIMPL; }
  HRESULT GetSource(BSTR*) override { return E_NOTIMPL; }
  HRESULT GetDescription(BSTR*) override { return E_NOTIMPL; }
  HRESULT GetHelpFile(BSTR*) override { return E_NOTIMPL; }
  HRESULT GetHelpContext(DWORD*) override { return E_NOTIMPL; }

  std::uint32_t references() const { return references_; }

 private:
  std::uint32_t references_ = 1;
};

TEST(Threads, ANewOneHasNoContext) {
  const Initialised initialised;

  std::thread([] {
    EXPECT_FALSE(context());
    EXPECT_EQ(CoInitializeEx(nullptr, 0), S_OK);
    CoUninitialize();
  }).join();

  EXPECT_TRUE(context());
}

TEST(Threads, TheEndOfOneLeavesTheOthersInitialised) {
  const Initialised initialised;
  context()->SetProperty(L"a", _variant_t(1));

  std::thread([] { CoUninitialize(); }).join();

  _variant_t value;
  EXPECT_EQ(context()->GetProperty(L"a", &value), S_OK);
}

TEST(Threads, ANewOneHasNoErrorObject) {
  Error of_this;
  SetErrorInfo(0, &of_this);

  std::thread([] {
    Error of_that;
    EXPECT_EQ(SetErrorInfo(0, &of_that), S_OK);
    CoUninitialize();
    EXPECT_EQ(of_that.references(), 1U);
  }).join();

  EXPECT_EQ(of_this.references(), 2U);
  CoUninitialize();
  EXPECT_EQ(of_this.references(), 1U);
}

TEST(Threads, ContextsAreSeparate) {
  std::array<IContextProperties*, kThreads> seen{};
  Gate all_have_one;
  in_threads([&](int number) {
    const Initialised initialised;
    EXPECT_EQ(initialised.result(), S_OK);
    const InterfacePtr<IContextProperties> properties = context();
    seen[static_cast<std::size_t>(number)] = properties.get();
    all_have_one.wait();
    for (int i = 0; i < 200; ++i) {
      _variant_t value;
      EXPECT_EQ(properties->SetProperty(L"number", _variant_t(number)), S_OK);
      EXPECT_EQ(properties->GetProperty(L"number", &value), S_OK);
      EXPECT_EQ(value.llVal, number);
    }
  });
  for (std::size_t i = 0; i < seen.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) EXPECT_NE(seen[i], seen[j]);
  }
}

TEST(Threads, InitialisationsComeAndGo) {
  in_threads([](int number) {
    for (int i = 0; i < 200; ++i) {
      const Initialised initialised;
      EXPECT_EQ(initialised.result(), S_OK);
      Error error;
      EXPECT_EQ(SetErrorInfo(0, &error), S_OK);
      EXPECT_EQ(SetErrorInfo(0, &error), S_FALSE);
      context()->SetProperty(L"a", _variant_t(number));
      CoUninitialize();
      EXPECT_EQ(error.references(), 1U);
    }
  });
}

// One round of everything that has no state.
void work(int number) {
  const std::wstring text = L"text \u20AC " + std::to_wstring(number);
  const _bstr_t string(text.c_str());
  EXPECT_EQ(SysStringLen(string.m_s), text.size());

  std::array<char, 64> narrow{};
  std::array<wchar_t, 64> wide{};
  utf32_utf8(narrow.data(), narrow.size(), string);
  utf8_utf32(wide.data(), wide.size(), narrow.data());
  EXPECT_EQ(wide.data(), text);

  _variant_t left(std::to_wstring(number).c_str());
  _variant_t right(10);
  _variant_t result;
  EXPECT_EQ(VarAdd(&left, &right, &result), S_OK);
  EXPECT_EQ(result.llVal, number + 10);
  EXPECT_EQ(VariantChangeType(&result, &result, 0, VT_BSTR), S_OK);
  EXPECT_EQ(result.bstrVal, std::to_wstring(number + 10));
  EXPECT_EQ(VarCmp(&left, &result, 0, 0),
            std::to_wstring(number) < std::to_wstring(number + 10) ? VARCMP_LT
                                                                   : VARCMP_GT);

  _variant_t day;
  const std::wstring date = L"2024/01/0" + std::to_wstring(1 + number);
  const _variant_t written(date.c_str());
  EXPECT_EQ(VariantChangeType(&day, &written, 0, VT_DATE), S_OK);
  EXPECT_EQ(day.dblVal, 45292.0 + number);
  EXPECT_EQ(VariantChangeType(&day, &day, 0, VT_BSTR), S_OK);
  EXPECT_EQ(day.bstrVal, date);
  SYSTEMTIME now{};
  GetLocalTime(&now);
  EXPECT_GE(now.wYear, 2000);

  _variant_t array;
  array.parray = SafeArrayCreateVector(VT_VARIANT, 0, 3);
  array.vt = VT_ARRAY | VT_VARIANT;
  {
    const SafeArrayAccess access(array.parray);
    access.elements<VARIANT>()[2] = _variant_t(number).Detach();
  }
  const _variant_t copy = array;
  const SafeArrayAccess access(copy.parray);
  EXPECT_EQ(access.elements<VARIANT>()[2].llVal, number);
}

TEST(Threads, StringsVariantsAndDatesAtTheSameTime) {
  in_threads([](int number) {
    for (int i = 0; i < 200; ++i) work(number);
  });
}

TEST(Threads, IdentifiersAtTheSameTime) {
  in_threads([](int number) {
    for (int i = 0; i < 100; ++i) {
      GUID guid{};
      EXPECT_EQ(CoCreateGuid(&guid), S_OK);
      guid.Data1 = static_cast<std::uint32_t>(number);
      std::array<wchar_t, 39> text{};
      EXPECT_EQ(StringFromGUID2(guid, text.data(), 39), 39);
      EXPECT_EQ(std::wstring(text.data(), 9),
                L"{0000000" + std::to_wstring(number));
    }
  });
}

// Each thread activates from a library of its own: the notes of a library are
// not for two threads. All of them meet in the loader.
TEST(Threads, ActivationsAtTheSameTime) {
  const registry::Folder folder;
  const registry::Environment variable("REGISTRY", folder.path());
  for (int i = 0; i < kThreads; ++i) {
    folder.copy("ZIRTHREAD" + std::to_string(i) + ".so", "complete");
    folder.write(
        "ZIRTHREAD" + std::to_string(i) + ".OBJECT.clsid",
        "{0000000" + std::to_string(i) + "-0002-0003-0405-060708090A0B}");
  }
  in_threads([&](int number) {
    const std::wstring name =
        L"zirthread" + std::to_wstring(number) + L".Object";
    for (int i = 0; i < 20; ++i) {
      registry::Created object;
      EXPECT_EQ(CoCreateInstanceByName(name.c_str(), nullptr, 1, IID_IUnknown,
                                       object.out()),
                S_OK);
      CLSID clsid{};
      EXPECT_EQ(CLSIDFromProgID(name.c_str(), &clsid), S_OK);
      EXPECT_EQ(clsid.Data1, static_cast<std::uint32_t>(number));
      registry::Created nothing;
      EXPECT_EQ(
          CoCreateInstance(clsid, nullptr, 1, IID_IUnknown, nothing.out()),
          E_FAIL);
    }
    const std::string file =
        folder.in("ZIRTHREAD" + std::to_string(number) + ".so");
    const component::Log& log = registry::log_of_file(file);
    EXPECT_EQ(log.created, 20);
    EXPECT_EQ(log.live_objects, 0);
  });
}

}  // namespace
