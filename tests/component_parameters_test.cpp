// SPDX-License-Identifier: MIT
//
// Parameters through their interface. What late binding adds is in
// component_parameters_late_bound_test.cpp, what foreign parameters do in
// component_foreign_parameter_test.cpp.
//
// Sections: the list; Item; Append.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/call_shapes.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace parameters;
using call_shapes::not_an_integer;
using component::kNotFoundCode;
using component::kNotFoundText;
using component::received;
using values::kLargest;
using values::kSmallest;
using values::plain;
using values::text_value;

using namespace std::string_literals;

/// An address that nothing may be read from or written to.
template <class Pointer>
Pointer rubbish() {
  constexpr std::uintptr_t kNoAddress = 0x10;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): never followed
  return reinterpret_cast<Pointer>(kNoAddress);
}

// ---------------------------------------------------------------------------
// The list
// ---------------------------------------------------------------------------

TEST(Parameters, BeginEmpty) {
  EXPECT_EQ(count_of(workbench::parameters()), 0);
}

TEST(Parameters, CountNeedsItsOutPointer) {
  const auto list = workbench::parameters();
  leave_an_error();
  EXPECT_EQ(list->get_Count(nullptr), E_INVALIDARG);
  expect_no_error();
}

TEST(Parameters, KeepTheOrderInWhichTheyWereAppended) {
  const auto list = workbench::parameters();
  constexpr long kMany = 1000;
  for (long i = 0; i < kMany; ++i) {
    ASSERT_EQ(list->Append(parameter_with(_variant_t(i)).get()), S_OK);
    ASSERT_EQ(count_of(list), i + 1);
  }
  for (long i = 0; i < kMany; ++i) {
    ASSERT_EQ(value_of(item(list, i).get()).llVal, i);
  }
}

TEST(Parameters, ASecondObjectSeesTheSameList) {
  const auto list = list_named({L"first"});
  const auto second = workbench::same_parameters(list.get());
  EXPECT_NE(second.get(), list.get());
  EXPECT_EQ(second->Append(parameter_named(L"second").get()), S_OK);
  EXPECT_EQ(count_of(list), 2);
  EXPECT_EQ(name_of(item(list, 1).get()), L"second");
}

TEST(Parameters, SlotsWithoutARecordCount) {
  const auto list = list_named({L"first"});
  workbench::append_null(list.get());
  EXPECT_EQ(count_of(list), 2);
}

TEST(Parameters, EverySuccessTakesAnOldErrorAway) {
  const auto list = list_named({L"first"});
  leave_an_error();
  count_of(list);
  expect_no_error();
  leave_an_error();
  item(list, 0);
  expect_no_error();
  leave_an_error();
  EXPECT_EQ(list->Append(parameter_named(L"p").get()), S_OK);
  expect_no_error();
}

TEST(ParametersWithoutList, EveryOperationFailsPlainly) {
  const auto list = workbench::parameters_without_list();
  const auto parameter = parameter_named(L"p");
  long count = 77;
  leave_an_error();
  EXPECT_EQ(list->get_Count(&count), E_INVALIDARG);
  expect_no_error();
  for (const _variant_t& index :
       {_variant_t(0), _variant_t(L"p"), values::owned(null_reference())}) {
    auto* out = rubbish<IZIRDBParameter*>();
    leave_an_error();
    EXPECT_EQ(list->Item(index, &out), E_INVALIDARG);
    EXPECT_EQ(out, nullptr);
    expect_no_error();
  }
  leave_an_error();
  EXPECT_EQ(list->Append(parameter.get()), E_INVALIDARG);
  expect_no_error();
}

// ---------------------------------------------------------------------------
// Item
// ---------------------------------------------------------------------------

constexpr long kNone = -1;

/// The position of the parameter that an index finds, seen by its size.
struct Lookup {
  const char* description;
  _variant_t index;
  long position;
  std::string printed = {};
};

void expect_lookups(const std::vector<std::wstring>& names,
                    const std::vector<Lookup>& rows) {
  const auto list = list_named(names);
  for (long i = 0; i < static_cast<long>(names.size()); ++i) {
    item(list, i)->put_Size(i);
  }
  for (const Lookup& row : rows) {
    SCOPED_TRACE(row.description);
    auto* out = rubbish<IZIRDBParameter*>();
    HRESULT result = S_OK;
    leave_an_error();
    const std::string printed =
        printed::by([&] { result = list->Item(row.index, &out); });
    const auto found = InterfacePtr<IZIRDBParameter>::adopt(out);
    EXPECT_EQ(printed, row.printed);
    if (row.position == kNone) {
      EXPECT_EQ(result, kNotFoundCode);
      EXPECT_EQ(out, nullptr);
      expect_error(kNotFoundCode, kCommandSource, kNotFoundText);
    } else {
      expect_no_error();
      ASSERT_EQ(result, S_OK);
      EXPECT_EQ(record_of(found.get()).size, row.position);
    }
  }
}

TEST(ParametersItem, ByNameFindsTheFirstThatAgreesInEitherCase) {
  expect_lookups(
      {L"Alpha", L"beta", L"ALPHA", L"1", L"\u00e9t\u00e9", L"beta "},
      {{"as it is", L"Alpha", 0},
       {"in lower case", L"alpha", 0},
       {"in upper case, although a later one is written so", L"ALPHA", 0},
       {"upper case of a lower-case name", L"BETA", 1},
       {"blanks count", L"beta ", 5},
       {"blanks in front count", L" beta", kNone},
       {"not only the beginning", L"bet", kNone},
       {"not only a beginning", L"betamax", kNone},
       {"a number written as a text is a name", L"1", 3},
       {"and not a position", L"0", kNone},
       {"beyond ASCII", L"\u00e9t\u00e9", 4},
       {"no parameter without a name", L"", kNone}});
}

TEST(ParametersItem, ByNameFindsAParameterWithoutAName) {
  expect_lookups({L"first", L"", L""},
                 {{"an empty text", L"", 1},
                  {"a null text is an empty one", plain(VT_BSTR, 0), 1}});
}

// Names are compared as zero-terminated texts.
TEST(ParametersItem, ByNameComparesUpToTheFirstZero) {
  const auto list = list_named({L"Name\0one"s, L"name\0two"s});
  item(list, 0)->put_Size(0);
  item(list, 1)->put_Size(1);
  EXPECT_EQ(record_of(item(list, text_value(L"name")).get()).size, 0);
  const _variant_t with_zero = text_value(L"NAME\0two"s);
  const auto [result, found] = received<IZIRDBParameter>(
      [&](IZIRDBParameter** out) { return list->Item(with_zero, out); });
  ASSERT_EQ(result, S_OK);
  EXPECT_EQ(record_of(found.get()).size, 0);
}

TEST(ParametersItem, ByNamePassesOverSlotsWithoutARecord) {
  const auto list = list_named({L"first"});
  workbench::append_null(list.get());
  list->Append(parameter_named(L"last").get());
  EXPECT_EQ(name_of(item(list, L"last").get()), L"last");
  auto* out = rubbish<IZIRDBParameter*>();
  EXPECT_EQ(list->Item(_variant_t(L""), &out), kNotFoundCode);
  EXPECT_EQ(out, nullptr);
}

TEST(ParametersItem, ByPositionCountsFromZero) {
  expect_lookups(
      {L"zero", L"one", L"two"},
      {{"the first", 0, 0},
       {"the last", 2, 2},
       {"the count", 3, kNone},
       {"below the first", -1, kNone},
       {"the smallest", kSmallest, kNone},
       {"the largest", kLargest, kNone},
       {"only the low bits would do", kTwoTo32 + 1, kNone},
       {"only the low bits would do", kSmallest + 1, kNone},
       {"32-bit integer", plain(VT_I4, 1), 1},
       {"all its 64 bits count", plain(VT_I4, 0x100000001), kNone},
       {"a byte", plain(VT_UI1, 0xABCD02), 2},
       {"nothing is zero", VARIANT(), 0},
       {"false is zero", false, 0},
       {"true is -1", true, kNone},
       {"another true is 1", plain(VT_BOOL, 1), 1},
       {"fractions are cut off", 1.9, 1},
       {"towards zero", -0.9, 0},
       {"towards zero", -1.0, kNone},
       {"towards zero", 2.9999, 2},
       {"too large a double", 1e300, kNone},
       {"not a number", values::kNaN, kNone},
       {"NULL", plain(VT_NULL, 0), kNone, not_an_integer(VT_NULL)},
       {"16-bit integer", plain(VT_I2, 1), kNone, not_an_integer(VT_I2)},
       {"8-bit integer", plain(VT_I1, 1), kNone, not_an_integer(VT_I1)},
       {"unsigned", plain(VT_UI2, 1), kNone, not_an_integer(VT_UI2)},
       {"unsigned", plain(VT_UI4, 1), kNone, not_an_integer(VT_UI4)},
       {"unsigned", plain(VT_UI8, 1), kNone, not_an_integer(VT_UI8)},
       {"single", plain(VT_R4, 0), kNone, not_an_integer(VT_R4)},
       {"date", plain(VT_DATE, 0), kNone, not_an_integer(VT_DATE)},
       {"error", plain(VT_ERROR, 0), kNone, not_an_integer(VT_ERROR)},
       {"no object", plain(VT_DISPATCH, 0), kNone, not_an_integer(VT_DISPATCH)},
       {"eight-bit text", values::lpstr_value("one"), kNone,
        not_an_integer(VT_LPSTR)},
       {"an array", bytes_value({1}), kNone, not_an_integer(0x2011)},
       {"by reference to a text", plain(0x4008, 0), kNone,
        not_an_integer(0x4008)},
       {"by reference to a number", plain(0x4014, 0), kNone,
        not_an_integer(0x4014)}});
}

TEST(ParametersItem, InAnEmptyListFindsNothing) {
  expect_lookups({}, {{"position", 0, kNone},
                      {"nothing", VARIANT(), kNone},
                      {"name", L"p", kNone},
                      {"no name", L"", kNone}});
}

TEST(ParametersItem, FollowsReferencesToNamesAndNumbers) {
  _variant_t name(L"ONE");
  _variant_t number(2);
  _variant_t unsuited = plain(VT_I2, 1);
  for (const std::size_t depth : {1U, 2U, 5U}) {
    const Chain to_name(&name, depth);
    const Chain to_number(&number, depth);
    const Chain to_unsuited(&unsuited, depth);
    expect_lookups({L"zero", L"one", L"two"}, {{"name", to_name.front(), 1},
                                               {"number", to_number.front(), 2},
                                               {"unsuited", to_unsuited.front(),
                                                kNone, not_an_integer(VT_I2)}});
  }
}

TEST(ParametersItem, ANullReferenceIsAPlainFailure) {
  const auto list = list_named({L"first"});
  VARIANT null_link = null_reference();
  for (const std::size_t depth : {0U, 1U, 3U}) {
    const Chain chain(&null_link, depth);
    auto* out = rubbish<IZIRDBParameter*>();
    leave_an_error();
    EXPECT_EQ(list->Item(chain.front(), &out), E_INVALIDARG);
    EXPECT_EQ(out, nullptr);
    expect_no_error();
  }
}

TEST(ParametersItem, MissesItsOutPointerFirst) {
  const auto list = list_named({L"first"});
  for (const _variant_t& index :
       {_variant_t(0), _variant_t(L"unknown"), _variant_t(99)}) {
    leave_an_error();
    EXPECT_EQ(list->Item(index, nullptr), E_INVALIDARG);
    expect_no_error();
  }
  EXPECT_EQ(workbench::parameters_without_list()->Item(VARIANT(), nullptr),
            E_INVALIDARG);
}

TEST(ParametersItem, LeavesTheIndexToTheCaller) {
  objects::Unknown object;
  const auto list = list_named({L"first"});
  const _variant_t index(&object);
  IZIRDBParameter* out = nullptr;
  printed::by([&] { list->Item(index, &out); });
  EXPECT_EQ(object.references(), 2U);
}

TEST(ParametersItem, MakesANewObjectEachTimeOverTheSameRecord) {
  const auto list = list_named({L"name"});
  const std::uint32_t before = workbench::objects_alive();
  const auto by_name = item(list, L"NAME");
  const auto by_position = item(list, 0);
  EXPECT_EQ(workbench::objects_alive(), before + 2);
  EXPECT_NE(by_name.get(), by_position.get());
  EXPECT_EQ(by_name->AddRef(), 2U);
  EXPECT_EQ(by_name->Release(), 1U);
  by_name->put_Name(_bstr_t(L"other").m_s);
  by_position->put_Value(text_value(L"value"));
  by_name->put_Type(204);
  by_position->put_Direction(2);
  by_name->put_Size(-1);
  const Record expected{L"other", 204, 2, -1, describe(text_value(L"value"))};
  EXPECT_EQ(record_of(by_name.get()), expected);
  EXPECT_EQ(record_of(by_position.get()), expected);
  EXPECT_EQ(record_of(item(list, L"other").get()), expected);
}

TEST(ParametersItem, OutlivesTheList) {
  InterfacePtr<IZIRDBParameter> kept;
  {
    const auto list = list_with({_variant_t(L"value")});
    kept = item(list, 0);
  }
  EXPECT_EQ(describe(value_of(kept.get())), describe(text_value(L"value")));
  EXPECT_EQ(kept->put_Value(_variant_t(7)), S_OK);
  EXPECT_EQ(value_of(kept.get()).llVal, 7);
}

// ---------------------------------------------------------------------------
// Append
// ---------------------------------------------------------------------------

TEST(ParametersAppend, SharesTheRecordFromThenOn) {
  const auto list = workbench::parameters();
  const auto parameter = parameter_named(L"before");
  EXPECT_EQ(list->Append(parameter.get()), S_OK);
  parameter->put_Value(_variant_t(L"after"));
  EXPECT_EQ(describe(value_of(item(list, 0).get())),
            describe(text_value(L"after")));
  item(list, 0)->put_Name(_bstr_t(L"after").m_s);
  EXPECT_EQ(name_of(parameter.get()), L"after");
}

TEST(ParametersAppend, HoldsTheRecordAndNotTheObject) {
  const auto list = workbench::parameters();
  auto parameter = parameter_with(_variant_t(5));
  list->Append(parameter.get());
  EXPECT_EQ(parameter->AddRef(), 2U);
  EXPECT_EQ(parameter->Release(), 1U);
  parameter = {};
  EXPECT_EQ(value_of(item(list, 0).get()).llVal, 5);
}

TEST(ParametersAppend, TheSameObjectTwiceTakesTwoSlotsOverOneRecord) {
  const auto list = list_named({L"other"});
  const auto parameter = parameter_named(L"twice");
  EXPECT_EQ(list->Append(parameter.get()), S_OK);
  EXPECT_EQ(list->Append(parameter.get()), S_OK);
  EXPECT_EQ(count_of(list), 3);
  item(list, 2)->put_Value(_variant_t(9));
  EXPECT_EQ(value_of(item(list, 1).get()).llVal, 9);
}

TEST(ParametersAppend, WhatItemMadeMayBeAppendedAgain) {
  const auto list = list_named({L"one"});
  EXPECT_EQ(list->Append(item(list, 0).get()), S_OK);
  item(list, 0)->put_Size(8);
  EXPECT_EQ(record_of(item(list, 1).get()).size, 8);
}

TEST(ParametersAppend, AParameterMayBeInTwoLists) {
  const auto first = workbench::parameters();
  const auto second = workbench::parameters();
  const auto parameter = parameter_named(L"p");
  first->Append(parameter.get());
  second->Append(parameter.get());
  item(first, 0)->put_Value(_variant_t(4));
  EXPECT_EQ(value_of(item(second, 0).get()).llVal, 4);
}

TEST(ParametersAppend, TakesParametersOfEveryKindWithoutACheck) {
  const auto list = workbench::parameters();
  EXPECT_EQ(list->Append(workbench::parameter(L"", kSmallest, kLargest, -1,
                                              plain(VT_ERROR, 0))
                             .get()),
            S_OK);
  EXPECT_EQ(
      record_of(item(list, 0).get()),
      (Record{L"", kSmallest, kLargest, -1, describe(plain(VT_ERROR, 0))}));
}

TEST(ParametersAppend, NeedsAParameter) {
  const auto list = list_named({L"one"});
  leave_an_error();
  EXPECT_EQ(list->Append(nullptr), E_INVALIDARG);
  expect_no_error();
  EXPECT_EQ(count_of(list), 1);
}

TEST(ParametersAppend, OfAnObjectWithoutARecordAddsNothing) {
  const auto list = list_named({L"one"});
  leave_an_error();
  EXPECT_EQ(list->Append(workbench::parameter_without_record().get()),
            E_UNEXPECTED);
  expect_no_error();
  EXPECT_EQ(count_of(list), 1);
}

}  // namespace
