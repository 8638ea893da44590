// SPDX-License-Identifier: MIT
//
// Append with parameters that other programs implement: what is read from them,
// in which order, and what becomes of it.
//
// Sections: a foreign parameter; what is copied; getters that fail; getters
// that call back; late-bound; without type information.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "component_stranger.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace parameters;
using component::dispatch_of;
using component::expect_exception;
using component::expect_refused;
using values::plain;
using values::text_value;

using namespace std::string_literals;

// ---------------------------------------------------------------------------
// A foreign parameter
// ---------------------------------------------------------------------------

enum Getter : std::size_t { kName, kValue, kType, kDirection, kSize };
const std::vector<Getter> kGetters{kName, kValue, kType, kDirection, kSize};

/// Answers as told, logs its getters, and lives as long as the test's scope.
class ForeignParameter final : public objects::NeverInvoked<IZIRDBParameter> {
 public:
  std::wstring name = L"foreign";
  bool null_name = false;
  _variant_t value = _variant_t(L"value");
  long type = 202;
  long direction = 3;
  long size = 40;
  HRESULT results[5] = {};
  bool stores_nothing_on_failure = false;
  std::function<void(Getter)> on_get;
  /// Runs when this is asked for its IID_IZIRDBParameter.
  std::function<void()> on_query;
  /// Handed out in place of this for IID_IZIRDBParameter.
  IUnknown* instead = nullptr;

  std::vector<Getter> log;
  int queries = 0;
  std::uint32_t references = 1;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    ++queries;
    *object = nullptr;
    if (riid == IID_IZIRDBParameter && on_query) on_query();
    if (riid == IID_IZIRDBParameter && instead != nullptr) {
      return instead->QueryInterface(riid, object);
    }
    if (riid == IID_IZIRDBParameter || riid == IID_IUnknown) {
      *object = static_cast<IZIRDBParameter*>(this);
    } else if (riid == IID_IDispatch) {
      *object = static_cast<IDispatch*>(this);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references; }
  std::uint32_t Release() override { return --references; }

  HRESULT get_Name(BSTR* out) override {
    return get(kName, [&] {
      if (null_name) {
        *out = nullptr;
        return;
      }
      *out = SysAllocStringLen(name.data(), static_cast<UINT>(name.size()));
    });
  }
  HRESULT get_Value(VARIANT* out) override {
    EXPECT_EQ(out->vt, VT_EMPTY) << "the place for the value is initialised";
    return get(kValue, [&] { VariantCopy(out, &value); });
  }
  HRESULT get_Type(long* out) override {
    return get(kType, [&] { *out = type; });
  }
  HRESULT get_Direction(long* out) override {
    return get(kDirection, [&] { *out = direction; });
  }
  HRESULT get_Size(long* out) override {
    return get(kSize, [&] { *out = size; });
  }

  HRESULT put_Name(BSTR /*name*/) override { return unwanted(); }
  HRESULT put_Value(VARIANT /*value*/) override { return unwanted(); }
  HRESULT put_Type(long /*type*/) override { return unwanted(); }
  HRESULT put_Direction(long /*direction*/) override { return unwanted(); }
  HRESULT put_Size(long /*size*/) override { return unwanted(); }

 private:
  template <class Store>
  HRESULT get(Getter getter, Store store) {
    log.push_back(getter);
    if (on_get) on_get(getter);
    const HRESULT result = results[getter];
    if (SUCCEEDED(result) || !stores_nothing_on_failure) store();
    return result;
  }
};

/// Fails inside of a call of this library.
void fail_at_something_else() {
  EXPECT_EQ(workbench::recordset({"column"}, {})->MoveLast(),
            component::kNotBackwardCode);
  EXPECT_EQ(workbench::last_error().code, component::kNotBackwardCode);
}

/// A list of one parameter.
InterfacePtr<IZIRDBParameters> old_list() {
  return list_with({_variant_t(L"old")});
}

// ---------------------------------------------------------------------------
// What is copied
// ---------------------------------------------------------------------------

TEST(ForeignParameter, IsReadOnceInOrderAndCopied) {
  ForeignParameter foreign;
  const auto list = old_list();
  leave_an_error();
  EXPECT_EQ(list->Append(&foreign), S_OK);
  expect_no_error();
  EXPECT_EQ(foreign.log, kGetters);
  EXPECT_EQ(foreign.queries, 0);
  EXPECT_EQ(foreign.references, 1U);
  ASSERT_EQ(count_of(list), 2);
  EXPECT_EQ(record_of(item(list, 1).get()),
            (Record{L"foreign", 202, 3, 40, describe(text_value(L"value"))}));
}

TEST(ForeignParameter, ChangesLaterAreNotSeen) {
  ForeignParameter foreign;
  const auto list = old_list();
  list->Append(&foreign);
  const Record before = record_of(item(list, 1).get());
  foreign.name = L"changed";
  foreign.value = _variant_t(5);
  foreign.type = foreign.direction = foreign.size = 0;
  EXPECT_EQ(record_of(item(list, 1).get()), before);
}

TEST(ForeignParameter, AppendedTwiceIsTwoRecords) {
  ForeignParameter foreign;
  const auto list = workbench::parameters();
  EXPECT_EQ(list->Append(&foreign), S_OK);
  EXPECT_EQ(list->Append(&foreign), S_OK);
  item(list, 0)->put_Size(1);
  EXPECT_EQ(record_of(item(list, 0).get()).size, 1);
  EXPECT_EQ(record_of(item(list, 1).get()).size, 40);
}

TEST(ForeignParameter, NumbersAreNotChecked) {
  for (const long number :
       {1L, -7L, 12345L, values::kSmallest, values::kLargest}) {
    ForeignParameter foreign;
    foreign.type = foreign.direction = foreign.size = number;
    const auto list = workbench::parameters();
    EXPECT_EQ(list->Append(&foreign), S_OK);
    EXPECT_EQ(record_of(item(list, 0).get()),
              (Record{L"foreign", number, number, number,
                      describe(text_value(L"value"))}));
  }
}

TEST(ForeignParameter, NamesAreKeptWhole) {
  for (const std::wstring& name : {L""s, L"a\0b"s, std::wstring(999, L'n')}) {
    ForeignParameter foreign;
    foreign.name = name;
    const auto list = workbench::parameters();
    EXPECT_EQ(list->Append(&foreign), S_OK);
    EXPECT_EQ(name_of(item(list, 0).get()), name);
  }
}

TEST(ForeignParameter, ANullNameIsEmpty) {
  ForeignParameter foreign;
  foreign.null_name = true;
  const auto list = workbench::parameters();
  EXPECT_EQ(list->Append(&foreign), S_OK);
  EXPECT_EQ(name_of(item(list, 0).get()), L"");
}

TEST(ForeignParameter, ValuesOfEveryKindAreKept) {
  const _variant_t contents[] = {_variant_t(),
                                 plain(VT_NULL, 0),
                                 plain(VT_I2, 7),
                                 plain(VT_ERROR, 1),
                                 L"text",
                                 bytes_value({1, 2}, 4),
                                 script_array_of(_variant_t(L"x")),
                                 null_reference()};
  for (const _variant_t& content : contents) {
    ForeignParameter foreign;
    foreign.value = content;
    const auto list = workbench::parameters();
    EXPECT_EQ(list->Append(&foreign), S_OK);
    EXPECT_EQ(describe(value_of(item(list, 0).get())), describe(content));
  }
}

TEST(ForeignParameter, AnObjectAsValueIsHeldOnce) {
  objects::Unknown object;
  ForeignParameter foreign;
  foreign.value = _variant_t(&object);
  {
    const auto list = workbench::parameters();
    EXPECT_EQ(list->Append(&foreign), S_OK);
    EXPECT_EQ(object.references(), 3U);  // ours, the foreign's, the record's
  }
  EXPECT_EQ(object.references(), 2U);
}

// One's own object is recognised as such, and not by what it answers.
TEST(ForeignParameter, ThatAnswersWithOneOfOursIsForeignAllTheSame) {
  const auto ours = parameter_named(L"ours");
  ForeignParameter foreign;
  foreign.instead = ours.get();
  const auto list = workbench::parameters();
  EXPECT_EQ(list->Append(&foreign), S_OK);
  EXPECT_EQ(foreign.log, kGetters);
  EXPECT_EQ(name_of(item(list, 0).get()), L"foreign");
  EXPECT_EQ(foreign.queries, 0);
}

TEST(ForeignParameter, IsNotReadWithoutAList) {
  ForeignParameter foreign;
  EXPECT_EQ(workbench::parameters_without_list()->Append(&foreign),
            E_INVALIDARG);
  EXPECT_TRUE(foreign.log.empty());
}

// ---------------------------------------------------------------------------
// Getters that fail
// ---------------------------------------------------------------------------

TEST(ForeignParameter, TheFirstFailureEndsTheReadingAndNothingIsAdded) {
  for (const HRESULT failure : {E_FAIL, E_NOTIMPL, zir_hresult(0x80041234)}) {
    for (const Getter getter : kGetters) {
      for (const bool stores_nothing : {false, true}) {
        SCOPED_TRACE(getter);
        objects::Unknown object;
        ForeignParameter foreign;
        foreign.value = _variant_t(&object);
        foreign.stores_nothing_on_failure = stores_nothing;
        foreign.results[getter] = failure;
        const auto list = old_list();
        leave_an_error();
        EXPECT_EQ(list->Append(&foreign), failure);
        expect_no_error();
        EXPECT_EQ(
            foreign.log,
            std::vector<Getter>(
                kGetters.begin(),
                kGetters.begin() + static_cast<std::ptrdiff_t>(getter) + 1));
        EXPECT_EQ(count_of(list), 1);
        EXPECT_EQ(object.references(), 2U);  // ours and the foreign's
        EXPECT_EQ(foreign.references, 1U);
      }
    }
  }
}

TEST(ForeignParameter, OfTwoFailuresTheEarlierCounts) {
  ForeignParameter foreign;
  foreign.results[kSize] = E_FAIL;
  foreign.results[kType] = E_NOTIMPL;
  EXPECT_EQ(workbench::parameters()->Append(&foreign), E_NOTIMPL);
}

TEST(ForeignParameter, PositiveResultsAreSuccesses) {
  ForeignParameter foreign;
  for (const Getter getter : kGetters) {
    foreign.results[getter] = static_cast<HRESULT>(getter) + 1;
  }
  const auto list = workbench::parameters();
  EXPECT_EQ(list->Append(&foreign), S_OK);
  EXPECT_EQ(foreign.log, kGetters);
  EXPECT_EQ(record_of(item(list, 0).get()),
            (Record{L"foreign", 202, 3, 40, describe(text_value(L"value"))}));
}

// ---------------------------------------------------------------------------
// Getters that call back
// ---------------------------------------------------------------------------

TEST(ForeignParameter, ThatAppendsWhileItIsReadComesLast) {
  for (const Getter getter : kGetters) {
    SCOPED_TRACE(getter);
    const auto list = old_list();
    ForeignParameter foreign;
    constexpr long kMany = 100;
    foreign.on_get = [&](Getter called) {
      if (called != getter) return;
      for (long i = 0; i < kMany; ++i) {
        EXPECT_EQ(list->Append(parameter_named(L"between").get()), S_OK);
      }
    };
    EXPECT_EQ(list->Append(&foreign), S_OK);
    EXPECT_EQ(count_of(list), kMany + 2);
    EXPECT_EQ(name_of(item(list, kMany).get()), L"between");
    EXPECT_EQ(name_of(item(list, kMany + 1).get()), L"foreign");
  }
}

TEST(ForeignParameter, ThatAppendsItselfIsCopiedTwice) {
  const auto list = workbench::parameters();
  ForeignParameter foreign;
  bool once = false;
  foreign.on_get = [&](Getter called) {
    if (called != kType || once) return;
    once = true;
    foreign.name = L"inner";
    EXPECT_EQ(list->Append(&foreign), S_OK);
  };
  EXPECT_EQ(list->Append(&foreign), S_OK);
  EXPECT_EQ(count_of(list), 2);
  EXPECT_EQ(name_of(item(list, 0).get()), L"inner");
  EXPECT_EQ(name_of(item(list, 1).get()), L"foreign");
}

TEST(ForeignParameter, MayLetTheListsObjectGoWhileItIsRead) {
  for (const Getter getter : kGetters) {
    for (const HRESULT answer : {S_OK, E_FAIL}) {
      auto list = old_list();
      const auto second = workbench::same_parameters(list.get());
      ForeignParameter foreign;
      foreign.results[getter] = answer;
      foreign.on_get = [&](Getter called) {
        if (called == getter) list = {};
      };
      EXPECT_EQ(list.get()->Append(&foreign), answer);
      EXPECT_FALSE(list);
      EXPECT_EQ(count_of(second), answer == S_OK ? 2 : 1);
    }
  }
}

TEST(ForeignParameter, MayLetTheWholeListGoWhileItIsRead) {
  for (const Getter getter : kGetters) {
    auto list = old_list();
    ForeignParameter foreign;
    foreign.on_get = [&](Getter called) {
      if (called == getter) list = {};
    };
    EXPECT_EQ(list.get()->Append(&foreign), S_OK);
    EXPECT_FALSE(list);
  }
}

TEST(ForeignParameter, AFailureOfItsOwnCallsIsNotTheAppendsFailure) {
  const auto list = workbench::parameters();
  ForeignParameter foreign;
  foreign.on_get = [&](Getter) {
    IZIRDBParameter* out = nullptr;
    EXPECT_EQ(list->Item(_variant_t(L"unknown"), &out),
              component::kNotFoundCode);
  };
  EXPECT_EQ(list->Append(&foreign), S_OK);
  EXPECT_EQ(count_of(list), 1);
}

TEST(ForeignParameter, WhatItsGettersLeaveBehindIsNoErrorOfTheAppend) {
  for (const Getter getter : kGetters) {
    SCOPED_TRACE(getter);
    ForeignParameter foreign;
    foreign.on_get = [&](Getter called) {
      if (called == getter) fail_at_something_else();
    };
    EXPECT_EQ(workbench::parameters()->Append(&foreign), S_OK);
    expect_no_error();
  }
}

TEST(ForeignParameter, AFailureIsNotExplainedByWhatItsGettersLeftBehind) {
  for (const Getter getter : kGetters) {
    SCOPED_TRACE(getter);
    ForeignParameter foreign;
    foreign.on_get = [](Getter) { fail_at_something_else(); };
    foreign.results[getter] = E_FAIL;
    EXPECT_EQ(workbench::parameters()->Append(&foreign), E_FAIL);
    expect_no_error();
  }
}

// ---------------------------------------------------------------------------
// Late-bound
// ---------------------------------------------------------------------------

TEST(ForeignParameterCall, IsReadThroughItsInterface) {
  ForeignParameter foreign;
  _variant_t argument(static_cast<IDispatch*>(&foreign));
  for (const std::size_t depth : {0U, 1U, 3U}) {
    const Chain chain(&argument, depth);
    const auto list = old_list();
    foreign.log.clear();
    expect_refused(component::method(dispatch_of(list.get()).get(), 2,
                                     {_variant_t(chain.front())}),
                   S_OK);
    EXPECT_EQ(foreign.log, kGetters);
    EXPECT_EQ(record_of(item(list, 1).get()),
              (Record{L"foreign", 202, 3, 40, describe(text_value(L"value"))}));
  }
  argument = _variant_t();
  EXPECT_EQ(foreign.references, 1U);
}

TEST(ForeignParameterCall, AFailingGetterFailsUnderTheListsName) {
  for (const Getter getter : kGetters) {
    ForeignParameter foreign;
    foreign.results[getter] = zir_hresult(0x80041234);
    const auto list = old_list();
    leave_an_error();
    expect_exception(component::method(dispatch_of(list.get()).get(), 2,
                                       {static_cast<IDispatch*>(&foreign)}),
                     zir_hresult(0x80041234), L"ZIRDB.Parameters", nullptr);
    EXPECT_EQ(count_of(list), 1);
    EXPECT_EQ(foreign.references, 1U);
  }
}

TEST(ForeignParameterCall, MayLetTheWholeListGoWhileItIsRead) {
  for (const Getter getter : kGetters) {
    for (const HRESULT answer : {S_OK, E_FAIL}) {
      auto list = old_list();
      auto dispatch = dispatch_of(list.get());
      list = {};
      ForeignParameter foreign;
      foreign.results[getter] = answer;
      foreign.on_get = [&](Getter called) {
        if (called == getter) dispatch = {};
      };
      EXPECT_EQ(component::method(dispatch.get(), 2,
                                  {static_cast<IDispatch*>(&foreign)})
                    .result,
                answer == S_OK ? S_OK : DISP_E_EXCEPTION);
      EXPECT_FALSE(dispatch);
      EXPECT_EQ(foreign.references, 1U);
    }
  }
}

TEST(ForeignParameterCall, AFailureIsNotExplainedByWhatItsGettersLeftBehind) {
  for (const Getter getter : kGetters) {
    SCOPED_TRACE(getter);
    ForeignParameter foreign;
    foreign.on_get = [](Getter) { fail_at_something_else(); };
    foreign.results[getter] = E_FAIL;
    const auto list = old_list();
    expect_exception(component::method(dispatch_of(list.get()).get(), 2,
                                       {static_cast<IDispatch*>(&foreign)}),
                     E_FAIL, L"ZIRDB.Parameters", nullptr);
    expect_no_error();
  }
}

TEST(ForeignParameterCall, MayLetTheListsObjectGoWhileItIsAsked) {
  auto list = old_list();
  const auto second = workbench::same_parameters(list.get());
  auto dispatch = dispatch_of(list.get());
  list = {};
  ForeignParameter foreign;
  foreign.on_query = [&] { dispatch = {}; };
  expect_refused(
      component::method(dispatch.get(), 2, {static_cast<IDispatch*>(&foreign)}),
      S_OK);
  EXPECT_FALSE(dispatch);
  ASSERT_EQ(count_of(second), 2);
  EXPECT_EQ(name_of(item(second, 1).get()), L"foreign");
  EXPECT_EQ(foreign.references, 1U);
}

TEST(ForeignParameterCall, MayLetTheWholeListGoWhileItIsAsked) {
  for (const HRESULT answer : {S_OK, E_FAIL}) {
    auto list = old_list();
    auto dispatch = dispatch_of(list.get());
    list = {};
    ForeignParameter foreign;
    foreign.results[kName] = answer;
    foreign.on_query = [&] { dispatch = {}; };
    EXPECT_EQ(component::method(dispatch.get(), 2,
                                {static_cast<IDispatch*>(&foreign)})
                  .result,
              answer == S_OK ? S_OK : DISP_E_EXCEPTION);
    EXPECT_FALSE(dispatch);
    EXPECT_EQ(foreign.references, 1U);
  }
}

TEST(ForeignParameterCall, ThatLetsTheListGoAndIsNoParameterIsRefused) {
  objects::Unknown other;
  auto list = old_list();
  auto dispatch = dispatch_of(list.get());
  list = {};
  ForeignParameter foreign;
  foreign.instead = &other;
  foreign.on_query = [&] { dispatch = {}; };
  expect_refused(
      component::method(dispatch.get(), 2, {static_cast<IDispatch*>(&foreign)}),
      DISP_E_TYPEMISMATCH);
  EXPECT_FALSE(dispatch);
  EXPECT_TRUE(foreign.log.empty());
  EXPECT_EQ(foreign.references, 1U);
}

TEST(ForeignParameterCall, AsAPlainObjectIsRefused) {
  ForeignParameter foreign;
  const auto list = old_list();
  expect_refused(
      component::method(
          dispatch_of(list.get()).get(), 2,
          {static_cast<IUnknown*>(static_cast<IZIRDBParameter*>(&foreign))}),
      DISP_E_TYPEMISMATCH);
  EXPECT_TRUE(foreign.log.empty());
  EXPECT_EQ(foreign.references, 1U);
}

// ---------------------------------------------------------------------------
// Without type information
//
// UndefinedBehaviorSanitizer asks every object for its type: where that is at
// work, these are not registered.
// ---------------------------------------------------------------------------

TEST(ForeignParameterWithoutTypeInformation, IsCopied) {
  const auto list = old_list();
  EXPECT_EQ(list->Append(stranger(S_OK).get()), S_OK);
  ASSERT_EQ(count_of(list), 2);
  EXPECT_EQ(record_of(item(list, 1).get()),
            (Record{L"stranger", 20, 3, 40, describe(_variant_t(7))}));
}

TEST(ForeignParameterWithoutTypeInformation, ThatFailsIsNotAdded) {
  const auto list = old_list();
  EXPECT_EQ(list->Append(stranger(E_NOTIMPL).get()), E_NOTIMPL);
  EXPECT_EQ(count_of(list), 1);
}

}  // namespace
