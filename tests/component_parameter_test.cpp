// SPDX-License-Identifier: MIT
//
// Parameter through its interface. What late binding adds is in
// component_parameter_late_bound_test.cpp.
//
// Sections: a parameter's name; its value; type, direction and size; without a
// record.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/component_workbench.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace parameters;
using component::kBadArgumentsCode;
using component::kBadArgumentsText;
using values::kLargest;
using values::kSmallest;
using values::plain;
using values::text_value;

using namespace std::string_literals;

// ---------------------------------------------------------------------------
// A parameter's name
// ---------------------------------------------------------------------------

const std::vector<std::wstring> kNames{
    L"",        L"p",        L"@name", L"two words", L"\u00e9\u20ac\U0001F600",
    L"a\0b"s,   L"\0"s,      L"ab\0"s, L"\t\n",      std::wstring(100000, L'n'),
    L"\xD800x", L"\x110000x"};

TEST(ParameterName, AnyTextIsKeptWhole) {
  const auto parameter = parameter_named(L"before");
  for (const std::wstring& name : kNames) {
    const _bstr_t text(
        SysAllocStringLen(name.data(), static_cast<UINT>(name.size())), false);
    EXPECT_EQ(parameter->put_Name(text.m_s), S_OK);
    EXPECT_EQ(name_of(parameter.get()), name);
  }
}

TEST(ParameterName, TheOneItWasCreatedWithIsKeptWhole) {
  for (const std::wstring& name : kNames) {
    EXPECT_EQ(name_of(parameter_named(name).get()), name);
  }
}

TEST(ParameterName, NullIsTheEmptyText) {
  const auto parameter = parameter_named(L"before");
  EXPECT_EQ(parameter->put_Name(nullptr), S_OK);
  EXPECT_EQ(name_of(parameter.get()), L"");
}

TEST(ParameterName, EachReadMakesAStringForTheCaller) {
  const auto parameter = parameter_named(L"name");
  _bstr_t first;
  _bstr_t second;
  EXPECT_EQ(parameter->get_Name(&first.m_s), S_OK);
  EXPECT_EQ(parameter->get_Name(&second.m_s), S_OK);
  EXPECT_NE(first.m_s, second.m_s);
  first.m_s[0] = L'X';
  EXPECT_EQ(name_of(parameter.get()), L"name");
}

TEST(ParameterName, IsACopyOfWhatWasPut) {
  const auto parameter = parameter_named(L"");
  _bstr_t text(L"name");
  parameter->put_Name(text.m_s);
  text.m_s[0] = L'X';
  EXPECT_EQ(name_of(parameter.get()), L"name");
}

// ---------------------------------------------------------------------------
// Its value
// ---------------------------------------------------------------------------

TEST(ParameterValue, TakesPlainValuesOfEveryTypeWhateverIsDeclared) {
  for (const long type : kAcceptedTypes) {
    const auto parameter = parameter_with(VARIANT(), type);
    for (VARTYPE vt = 0; vt <= 40; ++vt) {
      if (vt == VT_BSTR || vt == VT_DISPATCH || vt == VT_UNKNOWN ||
          vt == VT_LPSTR) {
        continue;  // they own something: below
      }
      const VARIANT value = plain(vt, 0x8123456789ABCDEF);
      EXPECT_EQ(parameter->put_Value(value), S_OK) << vt;
      _variant_t read;
      EXPECT_EQ(parameter->get_Value(&read), S_OK) << vt;
      EXPECT_TRUE(values::same_bytes(read, value)) << vt;
    }
  }
}

TEST(ParameterValue, TextsAreCopiedUpToTheirFirstZero) {
  const struct {
    std::wstring put;
    std::wstring kept;
  } kRows[] = {{L"", L""},
               {L"text", L"text"},
               {L"a\0b"s, L"a"},
               {L"\0b"s, L""},
               {L"\u00e9\U0001F600", L"\u00e9\U0001F600"}};
  const auto parameter = parameter_with(_variant_t(5));
  for (const auto& row : kRows) {
    _variant_t value = text_value(row.put);
    EXPECT_EQ(parameter->put_Value(value), S_OK);
    value = _variant_t();
    EXPECT_EQ(describe(value_of(parameter.get())),
              describe(text_value(row.kept)));
  }
}

TEST(ParameterValue, ANullTextAndAnEightBitTextAreTexts) {
  const auto parameter = parameter_with(_variant_t(5));
  EXPECT_EQ(parameter->put_Value(plain(VT_BSTR, 0)), S_OK);
  EXPECT_EQ(describe(value_of(parameter.get())), describe(text_value(L"")));
  EXPECT_EQ(parameter->put_Value(values::lpstr_value("eight")), S_OK);
  EXPECT_EQ(describe(value_of(parameter.get())),
            describe(values::lpstr_value("eight")));
}

TEST(ParameterValue, ArraysAreCopiedWithAllTheirElements) {
  const auto parameter = parameter_with(_variant_t(5));
  const _variant_t arrays[] = {
      bytes_value({1, 2, 255}), bytes_value({}, 3),
      script_array_of(_variant_t(L"text"), _variant_t(7), bytes_value({9}))};
  for (const _variant_t& array : arrays) {
    EXPECT_EQ(parameter->put_Value(array), S_OK);
    const _variant_t read = value_of(parameter.get());
    EXPECT_NE(read.parray, array.parray);
    EXPECT_EQ(describe(read), describe(array));
  }
}

// Its elements are behind a pointer of the host's, which may be gone tomorrow.
TEST(ParameterValue, AnArrayByReferenceKeepsNothingButItsType) {
  const auto parameter = parameter_with(_variant_t(5));
  const _variant_t array = bytes_value({1, 2});
  VARIANT reference = plain(VT_BYREF | VT_ARRAY | VT_UI1, 0);
  reference.byref = const_cast<SAFEARRAY**>(&array.parray);
  EXPECT_EQ(parameter->put_Value(reference), S_OK);
  EXPECT_TRUE(values::same_bytes(value_of(parameter.get()),
                                 plain(VT_BYREF | VT_ARRAY | VT_UI1, 0)));
  EXPECT_EQ(describe(array), describe(bytes_value({1, 2})));
}

TEST(ParameterValue, ALockedArrayIsCopiedUnlocked) {
  const auto parameter = parameter_with(_variant_t(5));
  const _variant_t array = bytes_value({1, 2});
  {
    const SafeArrayAccess access(array.parray);
    EXPECT_EQ(parameter->put_Value(array), S_OK);
  }
  EXPECT_EQ(describe(value_of(parameter.get())), describe(array));
}

TEST(ParameterValue, SucceedsWhenTheValueCannotBeCopied) {
  const auto parameter = parameter_with(_variant_t(5));
  EXPECT_EQ(parameter->put_Value(plain(VT_ARRAY | VT_UI1, 0)), S_OK);
  expect_no_error();
}

TEST(ParameterValue, ReferencesAreKeptAsReferences) {
  VARIANT number = plain(VT_I8, 7);
  const VARIANT references[] = {values::reference_to(&number), null_reference(),
                                plain(VT_BYREF | VT_I8, 0x1000),
                                plain(VT_BYREF | VT_BSTR, 0x1000)};
  for (const VARIANT& reference : references) {
    const auto parameter = parameter_with(_variant_t(5));
    EXPECT_EQ(parameter->put_Value(reference), S_OK);
    EXPECT_TRUE(values::same_bytes(value_of(parameter.get()), reference));
  }
}

TEST(ParameterValue, HoldsAReferenceOfItsOwnOnAnObject) {
  objects::Unknown unknown;
  objects::Dispatch dispatch;
  {
    const auto parameter = parameter_with(_variant_t(5));
    parameter->put_Value(_variant_t(&unknown));
    EXPECT_EQ(unknown.references(), 2U);
    {
      const _variant_t read = value_of(parameter.get());
      EXPECT_EQ(read.punkVal, &unknown);
      EXPECT_EQ(unknown.references(), 3U);
    }
    parameter->put_Value(_variant_t(static_cast<IDispatch*>(&dispatch)));
    EXPECT_EQ(unknown.references(), 1U);
    EXPECT_EQ(dispatch.references(), 2U);
  }
  EXPECT_EQ(dispatch.references(), 1U);
}

TEST(ParameterValue, WhatTheResultHeldBeforeIsNotFreed) {
  objects::Unknown object;
  const auto parameter = parameter_with(_variant_t(5));
  VARIANT result = plain(VT_UNKNOWN, 0);
  result.punkVal = &object;
  EXPECT_EQ(parameter->get_Value(&result), S_OK);
  EXPECT_EQ(object.references(), 1U);
  EXPECT_TRUE(values::same_bytes(result, plain(VT_I8, 5)));
}

TEST(ParameterValue, IsACopyForTheReader) {
  const auto parameter = parameter_with(bytes_value({1, 2}));
  const _variant_t read = value_of(parameter.get());
  {
    const SafeArrayAccess access(read.parray);
    access.elements<BYTE>()[0] = 77;
  }
  EXPECT_EQ(describe(value_of(parameter.get())), describe(bytes_value({1, 2})));
}

// The old value's Release may be a script's code. It must not be handed the
// object that is going away.
TEST(ParameterValue, MayBeReadWhileTheOldOneIsLetGo) {
  objects::Unknown object;
  const auto parameter = parameter_with(_variant_t(&object));
  int reads = 0;
  object.on_release = [&] {
    ++reads;
    _variant_t read;
    parameter->get_Value(&read);
    EXPECT_NE(read.vt, VT_UNKNOWN);
    if (read.vt == VT_UNKNOWN) read.Detach();
  };
  EXPECT_EQ(parameter->put_Value(text_value(L"new")), S_OK);
  EXPECT_EQ(reads, 1);
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(describe(value_of(parameter.get())), describe(text_value(L"new")));
}

TEST(ParameterValue, MayTakeTheParameterAlongWhenItIsLetGo) {
  objects::Unknown object;
  auto parameter = parameter_with(_variant_t(&object));
  object.on_release = [&] { parameter = {}; };
  EXPECT_EQ(parameter.get()->put_Value(text_value(L"new")), S_OK);
  EXPECT_FALSE(parameter);
  EXPECT_EQ(object.references(), 1U);
}

TEST(ChainOfParameters, IsLetGoHoweverLongItIs) {
  const std::uint32_t before = workbench::objects_alive();
  objects::Unknown object;
  {
    auto last = parameter_with(_variant_t(static_cast<IUnknown*>(&object)));
    for (int i = 0; i < 300'000; ++i) {
      last = parameter_with(_variant_t(
          component::query<IDispatch>(last.get(), IID_IDispatch).get()));
    }
    EXPECT_EQ(object.references(), 2U);
  }
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(workbench::objects_alive(), before);
}

// Each step goes through an array.
TEST(ChainOfParameters, IsLetGoThroughArrays) {
  const std::uint32_t before = workbench::objects_alive();
  objects::Unknown object;
  {
    auto last = parameter_with(_variant_t(static_cast<IUnknown*>(&object)));
    for (int i = 0; i < 100'000; ++i) {
      const _variant_t in_array = script_array({_variant_t(
          component::query<IDispatch>(last.get(), IID_IDispatch).get())});
      last = parameter_with(in_array);
    }
    EXPECT_EQ(object.references(), 2U);
  }
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(workbench::objects_alive(), before);
}

// What comes late may let go of chains of its own.
TEST(ChainOfParameters, MayLetGoOfAnotherAtItsEnd) {
  const std::uint32_t before = workbench::objects_alive();
  objects::Unknown object;
  auto other = parameter_with(_variant_t(static_cast<IUnknown*>(&object)));
  objects::Unknown last_of_all;
  int released = 0;
  last_of_all.on_release = [&] {
    other = {};
    ++released;
  };
  {
    auto last =
        parameter_with(_variant_t(static_cast<IUnknown*>(&last_of_all)));
    released = 0;
    for (int i = 0; i < 1'000; ++i) {
      other = parameter_with(_variant_t(
          component::query<IDispatch>(other.get(), IID_IDispatch).get()));
      last = parameter_with(_variant_t(
          component::query<IDispatch>(last.get(), IID_IDispatch).get()));
    }
  }
  EXPECT_EQ(released, 1);
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(last_of_all.references(), 1U);
  EXPECT_EQ(workbench::objects_alive(), before);
  last_of_all.on_release = {};
}

// ---------------------------------------------------------------------------
// Type, direction and size
// ---------------------------------------------------------------------------

TEST(Parameter, IsCreatedWithoutAnyCheck) {
  for (const long number : {0L, 1L, -7L, 12345L, kSmallest, kLargest}) {
    const auto parameter = workbench::parameter(L"name", number, number, number,
                                                text_value(L"value"));
    EXPECT_EQ(record_of(parameter.get()),
              (Record{L"name", number, number, number,
                      describe(text_value(L"value"))}));
  }
}

TEST(ParameterType, TakesExactlyTheEightOfTheEnumeration) {
  const auto parameter = parameter_with(_variant_t(5), 12345);
  for (const long type : kAcceptedTypes) {
    leave_an_error();
    EXPECT_EQ(parameter->put_Type(type), S_OK) << type;
    expect_no_error();
    EXPECT_EQ(record_of(parameter.get()).type, type);
  }
}

TEST(ParameterType, RefusesEveryOtherNumberAndStays) {
  const auto parameter = workbench::parameter(L"n", 72, 4, -5, _variant_t(5));
  for (const long type : kRefusedTypes) {
    leave_an_error();
    EXPECT_EQ(parameter->put_Type(type), kBadArgumentsCode) << type;
    expect_error(kBadArgumentsCode, kCommandSource, kBadArgumentsText);
    EXPECT_EQ(record_of(parameter.get()),
              (Record{L"n", 72, 4, -5, describe(_variant_t(5))}));
  }
}

TEST(ParameterType, TakesNoOtherSmallNumberThanThoseOfTheEnumeration) {
  const auto parameter = parameter_with(_variant_t(5));
  std::vector<long> taken;
  for (long type = -300; type <= 70000; ++type) {
    if (parameter->put_Type(type) == S_OK) taken.push_back(type);
  }
  EXPECT_EQ(taken, (std::vector<long>{0, 3, 11, 20, 72, 200, 202, 204}));
}

TEST(ParameterDirection, TakesTheFiveOfTheEnumeration) {
  const auto parameter = parameter_with(_variant_t(5), 0, 77);
  for (const long direction : kAcceptedDirections) {
    leave_an_error();
    EXPECT_EQ(parameter->put_Direction(direction), S_OK) << direction;
    expect_no_error();
    EXPECT_EQ(record_of(parameter.get()).direction, direction);
  }
}

TEST(ParameterDirection, RefusesEveryOtherNumberAndStays) {
  const auto parameter = workbench::parameter(L"n", 72, 3, -5, _variant_t(5));
  for (const long direction : kRefusedDirections) {
    leave_an_error();
    EXPECT_EQ(parameter->put_Direction(direction), kBadArgumentsCode)
        << direction;
    expect_error(kBadArgumentsCode, kCommandSource, kBadArgumentsText);
    EXPECT_EQ(record_of(parameter.get()),
              (Record{L"n", 72, 3, -5, describe(_variant_t(5))}));
  }
}

TEST(ParameterSize, TakesAnyNumber) {
  const auto parameter = parameter_with(_variant_t(5));
  for (const long size : kSizes) {
    leave_an_error();
    EXPECT_EQ(parameter->put_Size(size), S_OK);
    expect_no_error();
    EXPECT_EQ(record_of(parameter.get()).size, size);
  }
}

TEST(Parameter, EachPutChangesItsOwnPropertyAlone) {
  const auto parameter = parameter_with(_variant_t(1), 0, 0);
  parameter->put_Type(200);
  parameter->put_Direction(4);
  parameter->put_Size(33);
  parameter->put_Name(_bstr_t(L"new").m_s);
  parameter->put_Value(_variant_t(2));
  EXPECT_EQ(record_of(parameter.get()),
            (Record{L"new", 200, 4, 33, describe(_variant_t(2))}));
}

/// Every operation of a parameter, with acceptable arguments.
std::vector<std::function<HRESULT(IZIRDBParameter*)>> operations() {
  return {
      [](IZIRDBParameter* parameter) {
        _bstr_t name;
        return parameter->get_Name(&name.m_s);
      },
      [](IZIRDBParameter* parameter) {
        return parameter->put_Name(_bstr_t(L"x").m_s);
      },
      [](IZIRDBParameter* parameter) {
        _variant_t value;
        return parameter->get_Value(&value);
      },
      [](IZIRDBParameter* parameter) {
        return parameter->put_Value(_variant_t(5));
      },
      [](IZIRDBParameter* parameter) {
        long type = 0;
        return parameter->get_Type(&type);
      },
      [](IZIRDBParameter* parameter) { return parameter->put_Type(3); },
      [](IZIRDBParameter* parameter) {
        long direction = 0;
        return parameter->get_Direction(&direction);
      },
      [](IZIRDBParameter* parameter) { return parameter->put_Direction(1); },
      [](IZIRDBParameter* parameter) {
        long size = 0;
        return parameter->get_Size(&size);
      },
      [](IZIRDBParameter* parameter) { return parameter->put_Size(1); }};
}

TEST(Parameter, EverySuccessTakesAnOldErrorAway) {
  const auto parameter = parameter_with(_variant_t(5));
  for (const auto& operation : operations()) {
    leave_an_error();
    EXPECT_EQ(operation(parameter.get()), S_OK);
    expect_no_error();
  }
}

/// The operations that store something, without a place to store it.
std::vector<HRESULT> results_without_out_pointers(IZIRDBParameter* parameter) {
  std::vector<HRESULT> results;
  const auto add = [&](HRESULT result) {
    results.push_back(result);
    expect_no_error();
    leave_an_error();
  };
  leave_an_error();
  add(parameter->get_Name(nullptr));
  add(parameter->get_Value(nullptr));
  add(parameter->get_Type(nullptr));
  add(parameter->get_Direction(nullptr));
  add(parameter->get_Size(nullptr));
  return results;
}

TEST(Parameter, EveryOutPointerIsNeeded) {
  EXPECT_EQ(results_without_out_pointers(parameter_named(L"p").get()),
            (std::vector<HRESULT>(5, E_INVALIDARG)));
}

// ---------------------------------------------------------------------------
// Without a record
// ---------------------------------------------------------------------------

TEST(ParameterWithoutRecord, EveryOperationFailsPlainly) {
  const auto parameter = workbench::parameter_without_record();
  const std::vector<HRESULT> expected{
      E_UNEXPECTED, E_UNEXPECTED, E_INVALIDARG, E_UNEXPECTED, E_INVALIDARG,
      E_UNEXPECTED, E_INVALIDARG, E_UNEXPECTED, E_INVALIDARG, E_UNEXPECTED};
  std::vector<HRESULT> results;
  for (const auto& operation : operations()) {
    leave_an_error();
    results.push_back(operation(parameter.get()));
    expect_no_error();
  }
  EXPECT_EQ(results, expected);
}

TEST(ParameterWithoutRecord, TheNameMissesItsRecordBeforeItsOutPointer) {
  EXPECT_EQ(
      results_without_out_pointers(workbench::parameter_without_record().get()),
      (std::vector<HRESULT>{E_UNEXPECTED, E_INVALIDARG, E_INVALIDARG,
                            E_INVALIDARG, E_INVALIDARG}));
}

TEST(ParameterWithoutRecord, PutsMissItBeforeTheyJudgeTheNumber) {
  const auto parameter = workbench::parameter_without_record();
  EXPECT_EQ(parameter->put_Type(1), E_UNEXPECTED);
  expect_no_error();
  EXPECT_EQ(parameter->put_Direction(5), E_UNEXPECTED);
  expect_no_error();
  EXPECT_EQ(parameter->put_Name(nullptr), E_UNEXPECTED);
}

}  // namespace
