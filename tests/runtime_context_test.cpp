// SPDX-License-Identifier: MIT
//
// What a thread has: its object context with the named values in it, and its
// error object. Values are counted in and out, also while they call back from
// their own end.
//
// Sections: doubles; initialisation; properties; their values; what is not
// implemented; slots; error objects; calls back.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/objects.h"
#include "support/printed.h"
#include "zir.h"

namespace {

using objects::context;

// ---------------------------------------------------------------------------
// Doubles
// ---------------------------------------------------------------------------

/// An error object that lives as long as the test's scope, whatever its count.
class Error final : public IErrorInfo {
 public:
  HRESULT QueryInterface(REFIID, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  std::uint32_t AddRef() override {
    ++references_;
    most_ = references_ > most_ ? references_ : most_;
    return references_;
  }
  std::uint32_t Release() override {
    --references_;
    least_ = references_ < least_ ? references_ : least_;
    if (on_release) on_release();
    return references_;
  }
  HRESULT GetGUID(GUID*) override { return E_NOTIMPL; }
  HRESULT GetSource(BSTR*) override { return E_NOTIMPL; }
  HRESULT GetDescription(BSTR*) override { return E_NOTIMPL; }
  HRESULT GetHelpFile(BSTR*) override { return E_NOTIMPL; }
  HRESULT GetHelpContext(DWORD*) override { return E_NOTIMPL; }

  std::uint32_t references() const { return references_; }
  std::uint32_t most() const { return most_; }
  std::uint32_t least() const { return least_; }

  std::function<void()> on_release;  ///< runs inside of Release

 private:
  std::uint32_t references_ = 1;
  std::uint32_t most_ = 1;
  std::uint32_t least_ = 1;
};

/// Ends the thread's initialisation, so that no test leaves one to the next.
/// The doubles are here because they must outlive it.
class Thread : public testing::Test {
 public:
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

 protected:
  Thread() = default;
  ~Thread() override { CoUninitialize(); }

  objects::Unknown object_;
  objects::Unknown other_;
  objects::Dispatch late_bound_;
  Error error_;
  Error other_error_;
};

HRESULT has_context() {
  void* object = nullptr;
  const HRESULT result = CoGetObjectContext(IID_IContextProperties, &object);
  if (object != nullptr) static_cast<IContextProperties*>(object)->Release();
  return result;
}

// ---------------------------------------------------------------------------
// Initialisation
// ---------------------------------------------------------------------------

using Initialisation = Thread;

TEST_F(Initialisation, AThreadBeginsWithoutAContext) {
  EXPECT_EQ(has_context(), E_FAIL);
}

TEST_F(Initialisation, IsDoneOnceAndThenFalse) {
  EXPECT_EQ(CoInitializeEx(nullptr, 0), S_OK);
  EXPECT_EQ(CoInitializeEx(nullptr, 0), S_FALSE);
  EXPECT_EQ(CoInitializeEx(nullptr, 0), S_FALSE);
  EXPECT_EQ(has_context(), S_OK);
}

TEST_F(Initialisation, IgnoresItsArguments) {
  int anything = 0;
  EXPECT_EQ(CoInitializeEx(&anything, 0xFFFFFFFF), S_OK);
  EXPECT_EQ(CoInitializeEx(nullptr, 2), S_FALSE);
}

TEST_F(Initialisation, OneEndEndsItHoweverOftenItWasBegun) {
  CoInitializeEx(nullptr, 0);
  CoInitializeEx(nullptr, 0);
  CoInitializeEx(nullptr, 0);

  CoUninitialize();

  EXPECT_EQ(has_context(), E_FAIL);
  EXPECT_EQ(CoInitializeEx(nullptr, 0), S_OK);
}

TEST_F(Initialisation, AnEndWithoutABeginningDoesNothing) {
  CoUninitialize();
  CoUninitialize();

  EXPECT_EQ(has_context(), E_FAIL);
}

TEST_F(Initialisation, CanBeRepeatedWithoutEnd) {
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(CoInitializeEx(nullptr, 0), S_OK);
    EXPECT_EQ(has_context(), S_OK);
    CoUninitialize();
  }
}

TEST_F(Initialisation, ANewContextIsEmpty) {
  CoInitializeEx(nullptr, 0);
  context()->SetProperty(L"name", _variant_t(1));
  CoUninitialize();
  CoInitializeEx(nullptr, 0);
  _variant_t value;

  EXPECT_EQ(context()->GetProperty(L"name", &value), E_FAIL);
}

TEST_F(Initialisation, BothInterfacesAreOnePointer) {
  CoInitializeEx(nullptr, 0);
  void* properties = nullptr;
  void* readable = nullptr;
  ASSERT_EQ(CoGetObjectContext(IID_IContextProperties, &properties), S_OK);
  ASSERT_EQ(CoGetObjectContext(IID_IGetContextProperties, &readable), S_OK);

  EXPECT_EQ(properties, readable);

  auto* const object = static_cast<IContextProperties*>(properties);
  EXPECT_EQ(object->Release(), 2U);
  EXPECT_EQ(object->Release(), 1U);
}

TEST_F(Initialisation, OtherInterfacesAreRefused) {
  CoInitializeEx(nullptr, 0);
  const InterfacePtr<IContextProperties> one = context();
  for (const IID* const iid :
       {&IID_IUnknown, &IID_NULL, &IID_IDispatch, &IID_IClassFactory}) {
    void* object = nullptr;
    EXPECT_EQ(CoGetObjectContext(*iid, &object), E_NOINTERFACE);
  }
  EXPECT_EQ(one->AddRef(), 3U);
  EXPECT_EQ(one->Release(), 2U);
}

TEST_F(Initialisation, WithoutAContextEveryInterfaceFails) {
  for (const IID* const iid :
       {&IID_IUnknown, &IID_IContextProperties, &IID_IGetContextProperties}) {
    void* object = nullptr;
    EXPECT_EQ(CoGetObjectContext(*iid, &object), E_FAIL);
  }
}

TEST_F(Initialisation, EveryCallerGetsAReference) {
  CoInitializeEx(nullptr, 0);
  const InterfacePtr<IContextProperties> one = context();
  const InterfacePtr<IContextProperties> two = context();

  EXPECT_EQ(one.get(), two.get());
  EXPECT_EQ(one->AddRef(), 4U);
  EXPECT_EQ(one->Release(), 3U);
}

TEST_F(Initialisation, TheContextKnowsNoOtherInterfaces) {
  CoInitializeEx(nullptr, 0);
  const InterfacePtr<IContextProperties> object = context();
  int mark = 0;
  for (const IID* const iid : {&IID_IUnknown, &IID_IContextProperties,
                               &IID_IGetContextProperties, &IID_IDispatch}) {
    void* other = &mark;
    HRESULT result = S_OK;
    EXPECT_EQ(
        printed::by([&] { result = object->QueryInterface(*iid, &other); }),
        "");
    EXPECT_EQ(result, E_NOTIMPL);
    EXPECT_EQ(other, &mark);
  }
  EXPECT_EQ(object->AddRef(), 3U);
  EXPECT_EQ(object->Release(), 2U);
}

// ---------------------------------------------------------------------------
// Properties
// ---------------------------------------------------------------------------

/// A thread with a context.
class Properties : public Thread {
 protected:
  Properties() {
    CoInitializeEx(nullptr, 0);
    properties_ = context();
  }

  HRESULT set(const wchar_t* name, const VARIANT& value) const {
    return properties_->SetProperty(name, value);
  }
  /// A property, which must be there.
  _variant_t get(const wchar_t* name) const {
    _variant_t value;
    EXPECT_EQ(properties_->GetProperty(name, &value), S_OK)
        << testing::PrintToString(name);
    return value;
  }

  /// Lets go of the context while the test goes on.
  void release() { properties_ = {}; }
  const InterfacePtr<IContextProperties>& properties() const {
    return properties_;
  }

 private:
  InterfacePtr<IContextProperties> properties_;
};

TEST_F(Properties, AreKeptByName) {
  EXPECT_EQ(set(L"a", _variant_t(1)), S_OK);
  EXPECT_EQ(set(L"b", _variant_t(2)), S_OK);

  EXPECT_EQ(get(L"a").llVal, 1);
  EXPECT_EQ(get(L"b").llVal, 2);
}

TEST_F(Properties, AreReadByEveryHolder) {
  set(L"a", _variant_t(1));
  _variant_t value;

  EXPECT_EQ(context()->GetProperty(L"a", &value), S_OK);
  EXPECT_EQ(value.llVal, 1);
}

TEST_F(Properties, ASecondValueReplacesTheFirst) {
  set(L"a", _variant_t(L"first"));
  EXPECT_EQ(set(L"a", _variant_t(2)), S_OK);

  const _variant_t value = get(L"a");
  EXPECT_EQ(value.vt, VT_I8);
  EXPECT_EQ(value.llVal, 2);
}

TEST_F(Properties, AnUnknownNameFailsAndLeavesTheValue) {
  _variant_t value(L"before");
  EXPECT_EQ(properties()->GetProperty(L"a", &value), E_FAIL);
  set(L"a", _variant_t(1));

  for (const wchar_t* const name : {L"", L"A", L"aa", L" a", L"a "}) {
    EXPECT_EQ(properties()->GetProperty(name, &value), E_FAIL);
  }

  EXPECT_EQ(value.vt, VT_BSTR);
  EXPECT_STREQ(value.bstrVal, L"before");
}

TEST_F(Properties, NamesAreToldApartByEveryCharacter) {
  const wchar_t* const names[] = {L"",
                                  L"name",
                                  L"Name",
                                  L"NAME",
                                  L"nam\u00E9",
                                  L"nam\u00C9",
                                  L"n\u00E4me",
                                  L" name",
                                  L"name ",
                                  L"\U0001F600",
                                  L"\U0001F601",
                                  L"name\n",
                                  L"a longer name of a property"};
  std::int64_t number = 0;
  for (const wchar_t* const name : names) set(name, _variant_t(++number));

  number = 0;
  for (const wchar_t* const name : names) {
    EXPECT_EQ(get(name).llVal, ++number) << testing::PrintToString(name);
  }
}

TEST_F(Properties, ThereMayBeManyWithLongNames) {
  for (int i = 0; i < 500; ++i) {
    set((std::wstring(1000, L'n') + std::to_wstring(i)).c_str(), _variant_t(i));
  }
  for (int i = 0; i < 500; ++i) {
    EXPECT_EQ(
        get((std::wstring(1000, L'n') + std::to_wstring(i)).c_str()).llVal, i);
  }
}

TEST_F(Properties, TheNameIsCopied) {
  std::wstring name = L"a name that is overwritten";
  set(name.c_str(), _variant_t(1));
  name.assign(name.size(), L'?');

  EXPECT_EQ(get(L"a name that is overwritten").llVal, 1);
}

TEST_F(Properties, NoNameIsALogicError) {
  const auto message = [](const std::function<void()>& call) -> std::string {
    try {
      call();
    } catch (const std::logic_error& error) {
      return error.what();
    }
    return "";
  };
  _variant_t value(7);

  EXPECT_EQ(message([&] { properties()->GetProperty(nullptr, &value); }),
            "basic_string: construction from null is not valid");
  EXPECT_EQ(message([&] { properties()->SetProperty(nullptr, value); }),
            "basic_string: construction from null is not valid");
  set(L"a", value);
  EXPECT_EQ(message([&] { properties()->GetProperty(nullptr, &value); }),
            "basic_string: construction from null is not valid");

  EXPECT_EQ(value.llVal, 7);
  EXPECT_EQ(properties()->GetProperty(L"", &value), E_FAIL);
}

// ---------------------------------------------------------------------------
// Their values
// ---------------------------------------------------------------------------

using PropertyValue = Properties;

TEST_F(PropertyValue, ScalarsKeepTypeAndPayload) {
  for (const int type : {VT_EMPTY, VT_NULL, VT_I2, VT_I4, VT_R8, VT_DATE,
                         VT_ERROR, VT_BOOL, VT_UI1, VT_I8, VT_UI8}) {
    VARIANT value{};
    value.vt = static_cast<VARTYPE>(type);
    value.llVal = 0x0123456789ABCDEF;

    EXPECT_EQ(set(L"a", value), S_OK);

    const _variant_t read = get(L"a");
    EXPECT_EQ(read.vt, type);
    EXPECT_EQ(read.llVal, 0x0123456789ABCDEF) << type;
  }
}

TEST_F(PropertyValue, ATextIsCopiedInAndOut) {
  _variant_t given(L"text");
  set(L"a", given);
  given.bstrVal[0] = L'?';

  const _variant_t first = get(L"a");
  EXPECT_STREQ(first.bstrVal, L"text");
  first.bstrVal[0] = L'!';

  EXPECT_STREQ(get(L"a").bstrVal, L"text");
  EXPECT_STREQ(given.bstrVal, L"?ext");
}

TEST_F(PropertyValue, ATextEndsAtItsFirstZero) {
  _variant_t given;
  given.bstrVal = SysAllocStringLen(L"ab\0cd", 5);
  given.vt = VT_BSTR;
  set(L"a", given);

  EXPECT_EQ(SysStringLen(get(L"a").bstrVal), 2U);
}

TEST_F(PropertyValue, AnArrayIsCopiedWithItsElements) {
  _variant_t given;
  given.parray = SafeArrayCreateVector(VT_VARIANT, 3, 2);
  given.vt = VT_ARRAY | VT_VARIANT;
  {
    const SafeArrayAccess access(given.parray);
    access.elements<VARIANT>()[1] = _variant_t(L"element").Detach();
  }
  set(L"a", given);
  {
    const SafeArrayAccess access(given.parray);
    access.elements<VARIANT>()[1].bstrVal[0] = L'?';
  }

  const _variant_t read = get(L"a");
  ASSERT_EQ(read.vt, VT_ARRAY | VT_VARIANT);
  EXPECT_NE(read.parray, given.parray);
  LONG lower = 0;
  SafeArrayGetLBound(read.parray, 1, &lower);
  EXPECT_EQ(lower, 3);
  const SafeArrayAccess access(read.parray);
  EXPECT_STREQ(access.elements<VARIANT>()[1].bstrVal, L"element");
}

TEST_F(PropertyValue, AByReferenceValueStaysAReference) {
  _variant_t target(1);
  VARIANT reference{};
  reference.vt = VT_BYREF | VT_VARIANT;
  reference.pvarVal = &target;
  set(L"a", reference);

  const _variant_t read = get(L"a");
  EXPECT_EQ(read.vt, VT_BYREF | VT_VARIANT);
  EXPECT_EQ(read.pvarVal, &target);
}

TEST_F(PropertyValue, AnObjectIsHeldOnceAndOncePerReader) {
  {
    const _variant_t given(&object_);
    set(L"a", given);
    EXPECT_EQ(object_.references(), 3U);
  }
  EXPECT_EQ(object_.references(), 2U);
  {
    const _variant_t read = get(L"a");
    EXPECT_EQ(read.punkVal, &object_);
    EXPECT_EQ(object_.references(), 3U);
  }
  EXPECT_EQ(object_.references(), 2U);
}

TEST_F(PropertyValue, ALateBoundObjectIsHeldToo) {
  set(L"a", _variant_t(&late_bound_));
  EXPECT_EQ(late_bound_.references(), 2U);

  set(L"a", _variant_t());
  EXPECT_EQ(late_bound_.references(), 1U);
  EXPECT_EQ(late_bound_.invocations(), 0);
}

TEST_F(PropertyValue, AReplacedObjectIsReleased) {
  set(L"a", _variant_t(&object_));
  set(L"a", _variant_t(&other_));

  EXPECT_EQ(object_.references(), 1U);
  EXPECT_EQ(other_.references(), 2U);
}

TEST_F(PropertyValue, TheSameObjectAgainIsHeldOnce) {
  const _variant_t given(&object_);
  set(L"a", given);
  set(L"a", given);
  EXPECT_EQ(object_.references(), 3U);

  set(L"b", given);
  EXPECT_EQ(object_.references(), 4U);
}

TEST_F(PropertyValue, WhatWasInThePlaceIsFreed) {
  _variant_t value(&object_);
  set(L"a", _variant_t(1));

  EXPECT_EQ(properties()->GetProperty(L"a", &value), S_OK);

  EXPECT_EQ(object_.references(), 1U);
  EXPECT_EQ(value.llVal, 1);
}

TEST_F(PropertyValue, AFailedReadFreesNothing) {
  _variant_t value(&object_);

  EXPECT_EQ(properties()->GetProperty(L"a", &value), E_FAIL);

  EXPECT_EQ(object_.references(), 2U);
  EXPECT_EQ(value.punkVal, &object_);
}

TEST_F(PropertyValue, EndsWithTheLastReference) {
  set(L"a", _variant_t(&object_));
  set(L"b", _variant_t(&object_));
  EXPECT_EQ(object_.references(), 3U);

  CoUninitialize();
  EXPECT_EQ(object_.references(), 3U);

  release();
  EXPECT_EQ(object_.references(), 1U);
}

TEST_F(PropertyValue, EndsWithTheInitialisation) {
  set(L"a", _variant_t(&object_));
  release();
  EXPECT_EQ(object_.references(), 2U);

  CoUninitialize();
  EXPECT_EQ(object_.references(), 1U);
}

TEST_F(PropertyValue, AContextWorksOnWithoutItsThread) {
  set(L"a", _variant_t(1));
  CoUninitialize();

  EXPECT_EQ(get(L"a").llVal, 1);
  EXPECT_EQ(set(L"a", _variant_t(2)), S_OK);
  EXPECT_EQ(get(L"a").llVal, 2);
  EXPECT_EQ(properties()->AddRef(), 2U);
  EXPECT_EQ(properties()->Release(), 1U);
}

TEST_F(PropertyValue, TheNextContextIsAnotherOne) {
  set(L"a", _variant_t(1));
  CoUninitialize();
  CoInitializeEx(nullptr, 0);
  _variant_t value;

  EXPECT_EQ(context()->GetProperty(L"a", &value), E_FAIL);
  EXPECT_NE(context().get(), properties().get());
  EXPECT_EQ(get(L"a").llVal, 1);
}

// ---------------------------------------------------------------------------
// What is not implemented
// ---------------------------------------------------------------------------

using NotImplemented = Properties;

TEST_F(NotImplemented, Counting) {
  set(L"a", _variant_t(1));
  LONG count = 77;
  HRESULT result = S_OK;

  EXPECT_EQ(printed::by([&] { result = properties()->Count(&count); }),
            printed::stub_line("Count", 285, ""));

  EXPECT_EQ(result, E_NOTIMPL);
  EXPECT_EQ(count, 77);
}

TEST_F(NotImplemented, Enumerating) {
  int mark = 0;
  auto* names = reinterpret_cast<IEnumContextProps*>(&mark);
  HRESULT result = S_OK;

  EXPECT_EQ(printed::by([&] { result = properties()->EnumNames(&names); }),
            printed::stub_line("EnumNames", 296, ""));

  EXPECT_EQ(result, E_NOTIMPL);
  EXPECT_EQ(names, reinterpret_cast<IEnumContextProps*>(&mark));
}

TEST_F(NotImplemented, Removing) {
  set(L"a name", _variant_t(1));
  HRESULT result = S_OK;

  EXPECT_EQ(
      printed::by([&] { result = properties()->RemoveProperty(L"a name"); }),
      printed::stub_line("RemoveProperty", 303, "a name"));

  EXPECT_EQ(result, E_NOTIMPL);
  EXPECT_EQ(get(L"a name").llVal, 1);
}

TEST_F(NotImplemented, AnyNameIsPrinted) {
  for (const char* const name : {"", "unknown", "%s %n %ls"}) {
    const std::string text = name;
    EXPECT_EQ(printed::by([&] {
                properties()->RemoveProperty(
                    std::wstring(text.begin(), text.end()).c_str());
              }),
              printed::stub_line("RemoveProperty", 303, name));
  }
}

TEST_F(NotImplemented, NullsAreSurvived) {
  printed::by([&] {
    EXPECT_EQ(properties()->Count(nullptr), E_NOTIMPL);
    EXPECT_EQ(properties()->EnumNames(nullptr), E_NOTIMPL);
    EXPECT_EQ(properties()->RemoveProperty(nullptr), E_NOTIMPL);
  });
}

// ---------------------------------------------------------------------------
// Slots
//
// Callers in other languages call by slot. The context has two tables: the
// first is handed out for both interfaces, the second stands behind it.
// ---------------------------------------------------------------------------

template <class... Arguments>
std::uint32_t call_slot(void* object, std::size_t slot,
                        Arguments... arguments) {
  void* const* table = nullptr;
  std::memcpy(&table, object, sizeof table);
  using Function = std::uint32_t (*)(void*, Arguments...);
  return reinterpret_cast<Function>(table[slot])(object, arguments...);
}

std::uint32_t bits(HRESULT result) {
  return static_cast<std::uint32_t>(result);
}

/// The place of the second table in the object.
class Slots : public Properties,
              public testing::WithParamInterface<std::size_t> {
 protected:
  void* object() const {
    return static_cast<char*>(static_cast<void*>(properties().get())) +
           GetParam();
  }
};

TEST_P(Slots, CountReferences) {
  EXPECT_EQ(call_slot(object(), 1), 3U);
  EXPECT_EQ(properties()->AddRef(), 4U);
  EXPECT_EQ(call_slot(object(), 2), 3U);
  EXPECT_EQ(properties()->Release(), 2U);
}

TEST_P(Slots, KnowNoOtherInterfaces) {
  void* other = this;
  EXPECT_EQ(call_slot(object(), 0, &IID_IUnknown, &other), bits(E_NOTIMPL));
  EXPECT_EQ(other, this);
}

TEST_P(Slots, ReadProperties) {
  set(L"a", _variant_t(L"text"));
  _variant_t value;
  VARIANT* const out = &value;

  EXPECT_EQ(call_slot(object(), 4, L"a", out), bits(S_OK));
  EXPECT_EQ(call_slot(object(), 4, L"b", out), bits(E_FAIL));

  EXPECT_STREQ(value.bstrVal, L"text");
}

TEST_P(Slots, DoNotCountOrEnumerate) {
  LONG count = 0;
  IEnumContextProps* names = nullptr;
  EXPECT_EQ(printed::by([&] {
              EXPECT_EQ(call_slot(object(), 3, &count), bits(E_NOTIMPL));
              EXPECT_EQ(call_slot(object(), 5, &names), bits(E_NOTIMPL));
            }),
            printed::stub_line("Count", 285, "") +
                printed::stub_line("EnumNames", 296, ""));
}

INSTANTIATE_TEST_SUITE_P(OfBothTables, Slots,
                         testing::Values(std::size_t{0}, sizeof(void*)),
                         [](const auto& tested) {
                           return tested.param == 0 ? "First" : "Second";
                         });

TEST_F(Properties, AreWrittenThroughTheirSlots) {
  void* const object = properties().get();
  VARIANT value{};
  value.vt = VT_I8;
  value.llVal = 7;

  EXPECT_EQ(call_slot(object, 6, L"a", value), bits(S_OK));
  EXPECT_EQ(get(L"a").llVal, 7);
  EXPECT_EQ(printed::by([&] {
              EXPECT_EQ(call_slot(object, 7, L"a"), bits(E_NOTIMPL));
            }),
            printed::stub_line("RemoveProperty", 303, "a"));
}

TEST_F(Properties, TheLastReferenceMayGoThroughTheSecondTable) {
  set(L"a", _variant_t(&object_));
  CoUninitialize();
  void* const second =
      static_cast<char*>(static_cast<void*>(properties().get())) +
      sizeof(void*);
  properties()->AddRef();
  release();

  EXPECT_EQ(call_slot(second, 2), 0U);

  EXPECT_EQ(object_.references(), 1U);
}

// ---------------------------------------------------------------------------
// Error objects
// ---------------------------------------------------------------------------

using ErrorObject = Thread;

TEST_F(ErrorObject, TheFirstIsNewAndTheNextReplacesIt) {
  EXPECT_EQ(SetErrorInfo(0, &error_), S_OK);
  EXPECT_EQ(error_.references(), 2U);

  EXPECT_EQ(SetErrorInfo(0, &other_error_), S_FALSE);
  EXPECT_EQ(error_.references(), 1U);
  EXPECT_EQ(other_error_.references(), 2U);
  CoUninitialize();
}

TEST_F(ErrorObject, NeedsNoInitialisationAndTheReservedNumberIsIgnored) {
  EXPECT_EQ(SetErrorInfo(0xFFFFFFFF, &error_), S_OK);
  EXPECT_EQ(has_context(), E_FAIL);

  CoUninitialize();
  EXPECT_EQ(error_.references(), 1U);
}

TEST_F(ErrorObject, EndsWithTheInitialisation) {
  CoInitializeEx(nullptr, 0);
  SetErrorInfo(0, &error_);

  CoUninitialize();

  EXPECT_EQ(error_.references(), 1U);
  EXPECT_EQ(SetErrorInfo(0, &error_), S_OK);
  CoUninitialize();
}

TEST_F(ErrorObject, IsNotReleasedTwice) {
  SetErrorInfo(0, &error_);
  CoUninitialize();
  CoUninitialize();

  EXPECT_EQ(error_.references(), 1U);
}

// A count that falls to what the caller holds would have been the end of an
// object that only the thread holds.
TEST_F(ErrorObject, TheSameOneAgainIsHeldThroughout) {
  SetErrorInfo(0, &error_);
  error_.Release();
  ASSERT_EQ(error_.references(), 1U);

  EXPECT_EQ(SetErrorInfo(0, &error_), S_FALSE);

  EXPECT_EQ(error_.references(), 1U);
  EXPECT_EQ(error_.least(), 1U);
  error_.AddRef();
  CoUninitialize();
  EXPECT_EQ(error_.references(), 1U);
}

TEST_F(ErrorObject, ManyReplacementsBalance) {
  Error errors[3];
  for (int i = 0; i < 100; ++i) SetErrorInfo(0, &errors[i % 3]);
  CoUninitialize();
  for (const Error& error : errors) {
    EXPECT_EQ(error.references(), 1U);
    EXPECT_LE(error.most(), 2U);
  }
}

TEST_F(ErrorObject, NoneLetsGoOfThePresentOne) {
  EXPECT_EQ(SetErrorInfo(0, nullptr), S_OK);
  EXPECT_EQ(SetErrorInfo(0, &error_), S_OK);

  EXPECT_EQ(SetErrorInfo(0, nullptr), S_FALSE);
  EXPECT_EQ(error_.references(), 1U);

  EXPECT_EQ(SetErrorInfo(0, nullptr), S_OK);
}

TEST_F(ErrorObject, InitialisationLeavesItAlone) {
  SetErrorInfo(0, &error_);
  CoInitializeEx(nullptr, 0);

  EXPECT_EQ(error_.references(), 2U);
  CoUninitialize();
}

// ---------------------------------------------------------------------------
// Calls back
// ---------------------------------------------------------------------------

using CallBack = Properties;

TEST_F(CallBack, AValueThatEndsWithTheContextFindsNone) {
  set(L"a", _variant_t(&object_));
  release();
  HRESULT found = S_OK;
  object_.on_release = [&] { found = has_context(); };

  CoUninitialize();

  EXPECT_EQ(found, E_FAIL);
  EXPECT_EQ(object_.references(), 1U);
}

TEST_F(CallBack, AValueMayHoldTheDyingContextForAWhile) {
  IContextProperties* const dying = properties().get();
  set(L"a", _variant_t(&object_));
  release();
  std::uint32_t held = 0;
  std::uint32_t left = 0;
  object_.on_release = [&] {
    held = dying->AddRef();
    left = dying->Release();
  };

  CoUninitialize();

  EXPECT_EQ(held, left + 1);
  EXPECT_GT(left, 0U);
  EXPECT_EQ(object_.references(), 1U);
}

TEST_F(CallBack, AValueMayEndTheInitialisationAgain) {
  set(L"a", _variant_t(&object_));
  set(L"b", _variant_t(&object_));
  SetErrorInfo(0, &error_);
  release();
  object_.on_release = [] { CoUninitialize(); };

  CoUninitialize();

  EXPECT_EQ(object_.references(), 1U);
  EXPECT_EQ(error_.references(), 1U);
}

TEST_F(CallBack, AValueMayInitialiseAnew) {
  set(L"a", _variant_t(&object_));
  release();
  HRESULT result = E_FAIL;
  object_.on_release = [&] { result = CoInitializeEx(nullptr, 0); };

  CoUninitialize();

  EXPECT_EQ(result, S_OK);
  EXPECT_EQ(has_context(), S_OK);
}

TEST_F(CallBack, TheContextEndsBeforeTheErrorObject) {
  std::vector<std::string> ends;
  set(L"a", _variant_t(&object_));
  SetErrorInfo(0, &error_);
  release();
  object_.on_release = [&] { ends.emplace_back("context"); };
  error_.on_release = [&] { ends.emplace_back("error"); };

  CoUninitialize();

  EXPECT_EQ(ends, (std::vector<std::string>{"context", "error"}));
}

TEST_F(CallBack, AnErrorThatAValueSetsAtItsEndIsReleasedToo) {
  set(L"a", _variant_t(&object_));
  SetErrorInfo(0, &error_);
  release();
  HRESULT result = E_FAIL;
  object_.on_release = [&] { result = SetErrorInfo(0, &other_error_); };

  CoUninitialize();

  EXPECT_EQ(result, S_FALSE);
  EXPECT_EQ(error_.references(), 1U);
  EXPECT_EQ(other_error_.references(), 1U);
}

TEST_F(CallBack, AnErrorObjectMayEndTheInitialisationAgain) {
  SetErrorInfo(0, &error_);
  error_.on_release = [] { CoUninitialize(); };

  CoUninitialize();

  EXPECT_EQ(error_.references(), 1U);
}

TEST_F(CallBack, AReplacedErrorObjectMayEndTheInitialisation) {
  SetErrorInfo(0, &error_);
  error_.on_release = [] { CoUninitialize(); };

  EXPECT_EQ(SetErrorInfo(0, &other_error_), S_FALSE);

  EXPECT_EQ(error_.references(), 1U);
  EXPECT_LE(other_error_.references(), 2U);
  error_.on_release = {};
  CoUninitialize();
  EXPECT_EQ(other_error_.references(), 1U);
}

TEST_F(CallBack, AReplacedValueMayReadOthers) {
  set(L"a", _variant_t(&object_));
  set(L"b", _variant_t(5));
  std::int64_t read = 0;
  object_.on_release = [&] { read = get(L"b").llVal; };

  set(L"a", _variant_t(1));

  EXPECT_EQ(read, 5);
  EXPECT_EQ(get(L"a").llVal, 1);
}

// Which of the two values stays is not said; that nothing is lost is.
TEST_F(CallBack, AReplacedValueMaySetItsOwnProperty) {
  set(L"a", _variant_t(&object_));
  object_.on_release = [&] { set(L"a", _variant_t(&other_)); };

  set(L"a", _variant_t(1));
  set(L"a", _variant_t());

  EXPECT_EQ(object_.references(), 1U);
  EXPECT_EQ(other_.references(), 1U);
}

TEST_F(CallBack, AReplacedValueMaySetOthers) {
  set(L"m", _variant_t(&object_));
  object_.on_release = [&] {
    for (const wchar_t* const name : {L"a", L"b", L"x", L"y"}) {
      set(name, _variant_t(3));
    }
  };

  set(L"m", _variant_t(1));

  EXPECT_EQ(get(L"m").llVal, 1);
  EXPECT_EQ(get(L"y").llVal, 3);
}

}  // namespace
