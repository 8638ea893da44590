// SPDX-License-Identifier: MIT
//
// What comes back into parameters after an execution, and parameters out of and
// into a script's array.
//
// Sections: values by kind; which positions; outputs that are cleared; from a
// script's array; into it; values that call back.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_workbench.h"
#include "support/objects.h"
#include "support/odbc_parameters.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

using namespace parameters;
using odbc_parameters::as_kind;
using odbc_parameters::boolean;
using odbc_parameters::bytes;
using odbc_parameters::integer;
using odbc_parameters::null_value;
using odbc_parameters::real;
using odbc_parameters::text;
using values::kLargest;
using values::kSmallest;
using values::plain;
using values::text_value;

using namespace std::string_literals;

/// What an execution leaves behind for a parameter of a type.
ZirdbOdbcParameter result(ZirdbOdbcValue value, std::int64_t type = 0) {
  return odbc_parameters::parameter(type, 1, 0, std::move(value));
}
std::vector<ZirdbOdbcParameter> integers(
    const std::vector<std::int64_t>& numbers) {
  std::vector<ZirdbOdbcParameter> all;
  for (const std::int64_t number : numbers) {
    all.push_back(result(integer(number)));
  }
  return all;
}
std::vector<std::string> described(const std::vector<_variant_t>& contents) {
  std::vector<std::string> all;
  for (const _variant_t& content : contents) all.push_back(describe(content));
  return all;
}

// ---------------------------------------------------------------------------
// Values by kind
// ---------------------------------------------------------------------------

VARIANT truth(bool value) { return plain(VT_BOOL, value ? 0xFFFF : 0); }

TEST(WriteBack, EachKindHasItsType) {
  const struct {
    const char* description;
    ZirdbOdbcValue value;
    _variant_t expected;
  } kRows[] = {
      {"NULL", null_value(), plain(VT_NULL, 0)},
      {"NULL, whatever else is there", as_kind(0, integer(5)),
       plain(VT_NULL, 0)},
      {"true", boolean(true), truth(true)},
      {"false", boolean(false), truth(false)},
      {"integer", integer(42), 42},
      {"integer", integer(kSmallest), kSmallest},
      {"double", real(-2.5), -2.5},
      {"infinity", real(values::kInfinity), values::kInfinity},
      {"text", text("text"), L"text"},
      {"empty text", text(""), L""},
      {"text beyond ASCII", text("\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"),
       L"\u00e9\u20ac\U0001F600"},
      {"text with a zero", text("ab\0cd"s), L"ab"},
      {"text that is no UTF-8", text("text\xC3"), L""},
      {"bytes", bytes("\x00\x01\xFF"s), bytes_value({0, 1, 255})},
      {"no bytes", bytes(""), bytes_value({})}};
  for (const auto& row : kRows) {
    for (const std::int64_t type : {0, 3, 11, 20, 200, 204, -1}) {
      if (type == 3 && row.value.kind == ZirdbOdbcValueKind::Int64) continue;
      SCOPED_TRACE(row.description);
      const auto list = list_with({L"before"});
      EXPECT_EQ(workbench::write_back(list.get(), {result(row.value, type)}),
                S_OK);
      EXPECT_EQ(values_of(list), described({row.expected}));
    }
  }
}

// The type that was sent decides, not the one that is declared by now.
TEST(WriteBack, IntegersOfTypeIntegerHave32Bits) {
  const struct {
    std::int64_t sent;
    std::int64_t kept;
  } kRows[] = {{0, 0},
               {5, 5},
               {-1, -1},
               {2147483647, 2147483647},
               {2147483648, -2147483648},
               {4294967295, -1},
               {4294967301, 5},
               {-2147483649, 2147483647},
               {kLargest, -1},
               {kSmallest, 0}};
  for (const auto& row : kRows) {
    for (const long declared : {0L, 3L, 20L}) {
      const auto list = workbench::parameters();
      list->Append(parameter_with(VARIANT(), declared).get());
      EXPECT_EQ(
          workbench::write_back(list.get(), {result(integer(row.sent), 3)}),
          S_OK);
      const _variant_t kept = value_of(item(list, 0).get());
      EXPECT_EQ(kept.vt, VT_I4) << row.sent;
      EXPECT_EQ(kept.lVal, row.kept) << row.sent;
      EXPECT_EQ(
          workbench::write_back(list.get(), {result(integer(row.sent), 20)}),
          S_OK);
      EXPECT_EQ(describe(value_of(item(list, 0).get())),
                describe(_variant_t(row.sent)));
    }
  }
}

TEST(WriteBack, AnUnknownKindFailsThere) {
  for (const std::int32_t kind :
       {6, 7, 255, 256, std::numeric_limits<std::int32_t>::max()}) {
    const auto list = list_with({L"one", L"two", L"three"});
    EXPECT_EQ(
        workbench::write_back(
            list.get(), {result(integer(1)), result(as_kind(kind, integer(2))),
                         result(integer(3))}),
        E_INVALIDARG);
    EXPECT_EQ(values_of(list), described({1, L"two", L"three"}));
  }
}

// ---------------------------------------------------------------------------
// Which positions
// ---------------------------------------------------------------------------

TEST(WriteBack, EveryPositionTakesItsValueWhateverItsDirection) {
  const auto list = workbench::parameters();
  for (long direction = -1; direction <= 5; ++direction) {
    list->Append(parameter_with(plain(VT_I2, 7), 0, direction).get());
  }
  EXPECT_EQ(
      workbench::write_back(list.get(), integers({10, 11, 12, 13, 14, 15, 16})),
      S_OK);
  EXPECT_EQ(values_of(list), described({10, 11, 12, 13, 14, 15, 16}));
}

TEST(WriteBack, NothingButTheValueChanges) {
  const auto list = workbench::parameters();
  list->Append(workbench::parameter(L"n", 202, 4, 33, VARIANT()).get());
  EXPECT_EQ(workbench::write_back(list.get(), {result(integer(1), 3)}), S_OK);
  EXPECT_EQ(
      records_of(list),
      (std::vector<Record>{{L"n", 202, 4, 33, describe(plain(VT_I4, 1))}}));
}

TEST(WriteBack, StopsAtTheEndOfTheShorterList) {
  const auto longer = list_with({L"a", L"b", L"c"});
  EXPECT_EQ(workbench::write_back(longer.get(), integers({1, 2})), S_OK);
  EXPECT_EQ(values_of(longer), described({1, 2, L"c"}));
  const auto shorter = list_with({L"a"});
  EXPECT_EQ(workbench::write_back(shorter.get(), integers({1, 2, 3})), S_OK);
  EXPECT_EQ(values_of(shorter), described({1}));
  EXPECT_EQ(workbench::write_back(shorter.get(), {}), S_OK);
  EXPECT_EQ(values_of(shorter), described({1}));
  EXPECT_EQ(workbench::write_back(workbench::parameters().get(), integers({1})),
            S_OK);
}

TEST(WriteBack, SlotsWithoutARecordArePassedOver) {
  const auto list = list_with({L"a"});
  workbench::append_null(list.get());
  list->Append(parameter_with(_variant_t(L"c")).get());
  EXPECT_EQ(workbench::write_back(list.get(), integers({1, 2, 3})), S_OK);
  EXPECT_EQ(describe(value_of(item(list, 0).get())), describe(_variant_t(1)));
  EXPECT_EQ(describe(value_of(item(list, 2).get())), describe(_variant_t(3)));
}

TEST(WriteBack, IsSeenThroughEveryObjectOverTheRecord) {
  const auto parameter = parameter_with(_variant_t(L"before"));
  const auto list = workbench::parameters();
  list->Append(parameter.get());
  const auto from_item = item(list, 0);
  EXPECT_EQ(workbench::write_back(list.get(), integers({7})), S_OK);
  EXPECT_EQ(describe(value_of(parameter.get())), describe(_variant_t(7)));
  EXPECT_EQ(describe(value_of(from_item.get())), describe(_variant_t(7)));
}

TEST(WriteBack, ARecordInTwoSlotsKeepsTheLaterValue) {
  const auto parameter = parameter_with(_variant_t(L"before"));
  const auto list = workbench::parameters();
  list->Append(parameter.get());
  list->Append(parameter.get());
  EXPECT_EQ(workbench::write_back(list.get(), integers({1, 2})), S_OK);
  EXPECT_EQ(values_of(list), described({2, 2}));
}

TEST(WriteBack, LetsTheOldValuesGo) {
  objects::Unknown object;
  const auto list = list_with({_variant_t(&object), bytes_value({1, 2, 3}),
                               script_array_of(_variant_t(L"x"))});
  EXPECT_EQ(workbench::write_back(list.get(), integers({1, 2, 3})), S_OK);
  EXPECT_EQ(object.references(), 1U);
}

// A record that refers to a script's variable is given the value itself.
TEST(WriteBack, ReplacesAReferenceAndNotWhatItLeadsTo) {
  VARIANT variable = plain(VT_I8, 5);
  const auto list = workbench::parameters();
  list->Append(parameter_with(values::reference_to(&variable)).get());
  EXPECT_EQ(workbench::write_back(list.get(), integers({7})), S_OK);
  EXPECT_EQ(values_of(list), described({7}));
  EXPECT_EQ(variable.llVal, 5);
}

// ---------------------------------------------------------------------------
// Outputs that are cleared
// ---------------------------------------------------------------------------

TEST(ClearOutputs, EmptiesOutputsAndReturnValuesAlone) {
  const auto list = workbench::parameters();
  for (long direction = -1; direction <= 5; ++direction) {
    list->Append(parameter_with(_variant_t(L"kept"), 0, direction).get());
  }
  workbench::clear_outputs(list.get());
  EXPECT_EQ(values_of(list), described({L"kept", L"kept", L"kept", VARIANT(),
                                        L"kept", VARIANT(), L"kept"}));
}

TEST(ClearOutputs, ComparesTheWholeDirection) {
  const auto list = workbench::parameters();
  for (const long direction : {kTwoTo32 + 2, kTwoTo32 + 4, kSmallest + 2}) {
    list->Append(parameter_with(_variant_t(L"kept"), 0, direction).get());
  }
  workbench::clear_outputs(list.get());
  EXPECT_EQ(values_of(list), described({L"kept", L"kept", L"kept"}));
}

TEST(ClearOutputs, LeavesEverythingElse) {
  objects::Unknown object;
  const auto list = workbench::parameters();
  workbench::append_null(list.get());
  list->Append(
      workbench::parameter(L"n", 202, 2, 33, _variant_t(&object)).get());
  workbench::clear_outputs(list.get());
  EXPECT_EQ(record_of(item(list, 1).get()),
            (Record{L"n", 202, 2, 33, describe(VARIANT())}));
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(count_of(list), 2);
}

// ---------------------------------------------------------------------------
// From a script's array
// ---------------------------------------------------------------------------

struct Built {
  HRESULT result;
  InterfacePtr<IZIRDBParameters> list;
};
Built build(const VARIANT& array) {
  Built built{S_OK, {}};
  built.result = workbench::from_array(&array, &built.list);
  return built;
}

bool is_unlocked(const _variant_t& array) {
  return SUCCEEDED(SafeArrayAccess(array.parray).result());
}

TEST(FromArray, EachElementDeclaresAParameter) {
  objects::Dispatch object;
  struct Row {
    const char* description;
    _variant_t element;
    long type;
    long direction;
    long size;
  };
  std::vector<Row> rows{
      {"empty", VARIANT(), 20, 3, 0},
      {"NULL", plain(VT_NULL, 0), 0, 1, 0},
      {"text", L"text", 202, 1, 4},
      {"no text", L"", 202, 1, 0},
      {"null text", plain(VT_BSTR, 0), 202, 1, 0},
      {"characters count once each", L"\u00e9\u20ac\U0001F600", 202, 1, 3},
      {"true", true, 11, 1, 0},
      {"false", false, 11, 1, 0},
      {"bytes", bytes_value({1, 2, 3}), 204, 1, 0},
      {"no bytes", bytes_value({}), 204, 1, 0},
      {"variants", script_array_of(_variant_t(1)), 0, 1, 0},
      {"object", static_cast<IDispatch*>(&object), 0, 1, 0},
      {"null object", plain(VT_UNKNOWN, 0), 0, 1, 0},
      {"eight-bit text", values::lpstr_value("text"), 0, 1, 0},
      {"text by reference", plain(VT_BYREF | VT_BSTR, 0), 0, 1, 0},
      {"number by reference", plain(VT_BYREF | VT_I8, 0), 0, 1, 0}};
  for (const int type : {2, 3, 16, 17, 18, 19, 20, 21}) {
    rows.push_back(
        {"integer", plain(static_cast<VARTYPE>(type), 0x89ABCDEF), 20, 1, 0});
  }
  for (const int type : {4, 5, 6, 7, 10, 12, 14, 15, 22, 23, 36, 64}) {
    rows.push_back(
        {"anything else", plain(static_cast<VARTYPE>(type), 0), 0, 1, 0});
  }
  for (Row& row : rows) {
    for (const std::size_t depth : {0U, 1U, 2U, 5U}) {
      SCOPED_TRACE(testing::Message() << row.description << ", type "
                                      << row.element.vt << ", at " << depth);
      const Chain chain(&row.element, depth);
      const _variant_t array = script_array_of(_variant_t(chain.front()));
      const Built built = build(array);
      EXPECT_EQ(built.result, S_OK);
      EXPECT_EQ(records_of(built.list),
                (std::vector<Record>{{L"p1", row.type, row.direction, row.size,
                                      describe(row.element)}}));
      EXPECT_TRUE(is_unlocked(array));
    }
  }
}

TEST(FromArray, ANullReferenceIsAnEmptyElement) {
  VARIANT null_link = null_reference();
  for (const std::size_t depth : {0U, 1U, 4U}) {
    const Chain chain(&null_link, depth);
    const Built built = build(script_array_of(_variant_t(chain.front())));
    EXPECT_EQ(built.result, S_OK);
    EXPECT_EQ(records_of(built.list),
              (std::vector<Record>{{L"p1", 20, 3, 0, describe(VARIANT())}}));
  }
}

TEST(FromArray, ATextWithAZeroCountsWholeAndIsCopiedUpToIt) {
  const Built built = build(script_array_of(text_value(L"ab\0cd"s)));
  EXPECT_EQ(built.result, S_OK);
  EXPECT_EQ(
      records_of(built.list),
      (std::vector<Record>{{L"p1", 202, 1, 5, describe(text_value(L"ab"))}}));
}

TEST(FromArray, NamesCountFromOneWhateverTheLowerBound) {
  for (const LONG lower : {0L, 1L, 7L, -3L, kSmallest, kLargest - 2}) {
    const _variant_t array = script_array({5, {}, L"x"}, lower);
    const Built built = build(array);
    EXPECT_EQ(built.result, S_OK);
    EXPECT_EQ(
        records_of(built.list),
        (std::vector<Record>{{L"p1", 20, 1, 0, describe(_variant_t(5))},
                             {L"p2", 20, 3, 0, describe(VARIANT())},
                             {L"p3", 202, 1, 1, describe(text_value(L"x"))}}))
        << lower;
    EXPECT_TRUE(is_unlocked(array));
  }
}

TEST(FromArray, NamesGoOnBeyondNine) {
  const Built built = build(script_array(std::vector<_variant_t>(120, 1)));
  EXPECT_EQ(built.result, S_OK);
  ASSERT_EQ(count_of(built.list), 120);
  EXPECT_EQ(name_of(item(built.list, 9).get()), L"p10");
  EXPECT_EQ(name_of(item(built.list, 119).get()), L"p120");
}

TEST(FromArray, NoElementsAreNoParameters) {
  for (const LONG lower : {0L, 1L, -3L}) {
    const _variant_t array = script_array({}, lower);
    const Built built = build(array);
    EXPECT_EQ(built.result, S_OK);
    EXPECT_EQ(count_of(built.list), 0);
    EXPECT_TRUE(is_unlocked(array));
  }
}

TEST(FromArray, TheArrayMayBeBehindReferences) {
  _variant_t array = script_array({5, L"x"});
  for (const std::size_t depth : {1U, 2U, 5U}) {
    const Built built = build(Chain(&array, depth).front());
    EXPECT_EQ(built.result, S_OK);
    EXPECT_EQ(values_of(built.list), described({5, L"x"}));
    EXPECT_TRUE(is_unlocked(array));
  }
}

TEST(FromArray, ValuesAreCopies) {
  objects::Unknown object;
  _variant_t referred(L"referred");
  const _variant_t array =
      script_array_of(bytes_value({1, 2}), _variant_t(&object),
                      values::owned(values::reference_to(&referred)));
  {
    const Built built = build(array);
    EXPECT_EQ(object.references(), 3U);  // ours, the array's, the record's
    referred = _variant_t(L"changed");
    {
      const SafeArrayAccess access(array.parray);
      const SafeArrayAccess inner(access.elements<VARIANT>()[0].parray);
      inner.elements<BYTE>()[0] = 77;
    }
    EXPECT_EQ(describe(value_of(item(built.list, 0).get())),
              describe(bytes_value({1, 2})));
    EXPECT_EQ(describe(value_of(item(built.list, 2).get())),
              describe(text_value(L"referred")));
  }
  EXPECT_EQ(object.references(), 2U);
}

TEST(FromArray, LeavesTheArrayAsItIs) {
  _variant_t referred(L"referred");
  const _variant_t array =
      script_array_of(_variant_t(), _variant_t(5), text_value(L"ab\0cd"s),
                      values::owned(values::reference_to(&referred)));
  const std::string before = describe(array);
  build(array);
  EXPECT_EQ(describe(array), before);
}

TEST(FromArray, TakesNothingButAnArrayOfVariantsInOneDimension) {
  _variant_t by_reference = script_array({5});
  by_reference.vt |= VT_BYREF;
  const _variant_t contents[] = {
      VARIANT(),
      plain(VT_NULL, 0),
      5,
      L"text",
      plain(VT_VARIANT, 0),
      bytes_value({1}),
      array_value(VT_BSTR, SafeArrayCreateVector(VT_BSTR, 0, 1)),
      script_matrix(1, 1),
      script_matrix(2, 3),
      null_reference()};
  for (const _variant_t& content : contents) {
    SCOPED_TRACE(describe(content));
    const Built built = build(content);
    EXPECT_EQ(built.result, DISP_E_TYPEMISMATCH);
    EXPECT_EQ(count_of(built.list), 0);
  }
  EXPECT_EQ(build(by_reference).result, DISP_E_TYPEMISMATCH);
  EXPECT_EQ(build(plain(VT_ARRAY | VT_VARIANT, 0)).result, DISP_E_TYPEMISMATCH);
  VARIANT null_link = null_reference();
  EXPECT_EQ(build(Chain(&null_link, 3).front()).result, DISP_E_TYPEMISMATCH);
  InterfacePtr<IZIRDBParameters> list;
  EXPECT_EQ(workbench::from_array(nullptr, &list), DISP_E_TYPEMISMATCH);
}

TEST(FromArray, AnArrayWithoutADimensionIsNone) {
  // Its elements are counted as one when it is freed, so it gets memory for it.
  SAFEARRAYBOUND bound{1, 0};
  const _variant_t array =
      array_value(VT_VARIANT, SafeArrayCreate(VT_VARIANT, 1, &bound));
  array.parray->cDims = 0;
  EXPECT_EQ(build(array).result, DISP_E_TYPEMISMATCH);
  array.parray->cDims = 1;
}

/// As a host writes it by hand: bounds, and nothing within them.
SAFEARRAY array_without_data(std::uint32_t count) {
  SAFEARRAY array{};
  array.cDims = 1;
  array.cbElements = sizeof(VARIANT);
  array.rgsabound[0] = {count, 5};
  return array;
}

TEST(FromArray, AnArrayWithoutDataMakesNoParameters) {
  for (const std::uint32_t count : {0U, 1U, 3U, 0xFFFFFFFFU}) {
    SAFEARRAY array = array_without_data(count);
    VARIANT value = plain(VT_ARRAY | VT_VARIANT, 0);
    value.parray = &array;
    const Built built = build(value);
    EXPECT_EQ(built.result, S_OK);
    EXPECT_EQ(count_of(built.list), 0) << count;
    EXPECT_EQ(array.cLocks, 0U);
  }
}

TEST(FromArray, ALockedArrayFailsAndStaysLocked) {
  const _variant_t array = script_array({5});
  void* data = nullptr;
  ASSERT_EQ(SafeArrayAccessData(array.parray, &data), S_OK);
  const Built built = build(array);
  EXPECT_EQ(built.result, E_UNEXPECTED);
  EXPECT_EQ(count_of(built.list), 0);
  EXPECT_EQ(SafeArrayUnaccessData(array.parray), S_OK);
}

// ---------------------------------------------------------------------------
// Into it
// ---------------------------------------------------------------------------

/// What the array holds after it has taken the parameters' values.
std::string after_write_back(const InterfacePtr<IZIRDBParameters>& list,
                             const _variant_t& array, HRESULT expected = S_OK) {
  EXPECT_EQ(workbench::write_back_array(list.get(), array.parray), expected);
  return describe(array);
}

TEST(WriteBackArray, EachElementTakesItsParametersValue) {
  const std::vector<_variant_t> contents{
      VARIANT(), plain(VT_NULL, 0), 5,   plain(VT_I4, ~0ULL), 2.5,
      true,      L"text",           L"", bytes_value({1, 2})};
  for (const LONG lower : {0L, 1L, -7L, kSmallest, 1000000L}) {
    const _variant_t array = script_array(
        std::vector<_variant_t>(contents.size(), L"before"), lower);
    EXPECT_EQ(after_write_back(list_with(contents), array),
              describe(script_array(contents, lower)));
    EXPECT_TRUE(is_unlocked(array));
  }
}

TEST(WriteBackArray, StopsAtTheEndOfTheShorterOne) {
  EXPECT_EQ(
      after_write_back(list_with({1, 2}), script_array({L"a", L"b", L"c"}, 5)),
      describe(script_array({1, 2, L"c"}, 5)));
  EXPECT_EQ(after_write_back(list_with({1, 2, 3}), script_array({L"a"}, 5)),
            describe(script_array({1}, 5)));
  EXPECT_EQ(after_write_back(list_with({}), script_array({L"a"})),
            describe(script_array({L"a"})));
  EXPECT_EQ(after_write_back(list_with({1}), script_array({}, 3)),
            describe(script_array({}, 3)));
}

TEST(WriteBackArray, SlotsWithoutARecordLeaveTheirElements) {
  const auto list = list_with({1});
  workbench::append_null(list.get());
  list->Append(parameter_with(_variant_t(3)).get());
  EXPECT_EQ(after_write_back(list, script_array({L"a", L"b", L"c"})),
            describe(script_array({1, L"b", 3})));
}

TEST(WriteBackArray, ElementsByReferenceAreReplacedThemselves) {
  VARIANT variable = plain(VT_I8, 5);
  const _variant_t array =
      script_array_of(values::owned(values::reference_to(&variable)));
  EXPECT_EQ(after_write_back(list_with({7}), array),
            describe(script_array({7})));
  EXPECT_EQ(variable.llVal, 5);
}

TEST(WriteBackArray, ElementsAreCopiesAndTheOldOnesLetGo) {
  objects::Unknown old_object;
  objects::Unknown new_object;
  const auto list = list_with({_variant_t(&new_object), bytes_value({1, 2})});
  const _variant_t array =
      script_array_of(_variant_t(&old_object), _variant_t(L"old"));
  after_write_back(list, array);
  EXPECT_EQ(old_object.references(), 1U);
  EXPECT_EQ(new_object.references(), 3U);  // ours, the record's, the array's
  {
    const SafeArrayAccess access(array.parray);
    const SafeArrayAccess inner(access.elements<VARIANT>()[1].parray);
    inner.elements<BYTE>()[0] = 77;
  }
  EXPECT_EQ(describe(value_of(item(list, 1).get())),
            describe(bytes_value({1, 2})));
}

TEST(WriteBackArray, AsManyAsTheFirstDimensionHasTakeValues) {
  const _variant_t matrix = script_matrix(2, 3);
  EXPECT_EQ(
      workbench::write_back_array(list_with({1, 2, 3, 4}).get(), matrix.parray),
      S_OK);
  const SafeArrayAccess access(matrix.parray);
  std::vector<std::string> elements;
  for (int i = 0; i < 6; ++i) {
    elements.push_back(describe(access.elements<VARIANT>()[i]));
  }
  EXPECT_EQ(elements, described({1, 2, {}, {}, {}, {}}));
}

TEST(WriteBackArray, ALockedArrayFailsUnchangedAndStaysLocked) {
  const _variant_t array = script_array({L"a", L"b"});
  void* data = nullptr;
  ASSERT_EQ(SafeArrayAccessData(array.parray, &data), S_OK);
  after_write_back(list_with({1, 2}), array, E_UNEXPECTED);
  EXPECT_EQ(SafeArrayUnaccessData(array.parray), S_OK);
  EXPECT_EQ(describe(array), describe(script_array({L"a", L"b"})));
}

TEST(WriteBackArray, AnArrayWithoutDataTakesNoValues) {
  for (const std::uint32_t count : {0U, 1U, 3U, 0xFFFFFFFFU}) {
    SAFEARRAY array = array_without_data(count);
    const auto list = list_with({1, 2});
    EXPECT_EQ(workbench::write_back_array(list.get(), &array), S_OK) << count;
    EXPECT_EQ(array.pvData, nullptr);
    EXPECT_EQ(array.cLocks, 0U);
    EXPECT_EQ(values_of(list), described({1, 2}));
  }
}

TEST(WriteBackArray, WithoutAnArrayOrADimensionFails) {
  EXPECT_EQ(workbench::write_back_array(list_with({1}).get(), nullptr),
            E_INVALIDARG);
  const _variant_t array = script_array({L"a"});
  array.parray->cDims = 0;
  EXPECT_EQ(workbench::write_back_array(list_with({1}).get(), array.parray),
            DISP_E_BADINDEX);
  array.parray->cDims = 1;
  EXPECT_EQ(describe(array), describe(script_array({L"a"})));
}

TEST(FromArrayAndBack, RoundTripsThroughAnExecution) {
  const _variant_t array = script_array({5, {}, L"text", true}, 1);
  const Built built = build(array);
  EXPECT_EQ(workbench::write_back(
                built.list.get(),
                {result(integer(5), 20), result(integer(99), 20),
                 result(text("text"), 202), result(boolean(true), 11)}),
            S_OK);
  EXPECT_EQ(after_write_back(built.list, array),
            describe(script_array({5, 99, L"text", true}, 1)));
}

// ---------------------------------------------------------------------------
// Values that call back
// ---------------------------------------------------------------------------

/// Appends so much that the list's memory moves.
void append_many(const InterfacePtr<IZIRDBParameters>& list) {
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(list->Append(parameter_named(L"late").get()), S_OK);
  }
}

TEST(WriteBack, AnOldValueMayAppendWhileItIsLetGo) {
  objects::Unknown object;
  const auto list = list_with({_variant_t(&object), L"b"});
  object.on_release = [&] { append_many(list); };
  EXPECT_EQ(workbench::write_back(list.get(), integers({1, 2})), S_OK);
  EXPECT_EQ(describe(value_of(item(list, 0).get())), describe(_variant_t(1)));
  EXPECT_EQ(describe(value_of(item(list, 1).get())), describe(_variant_t(2)));
  EXPECT_EQ(object.references(), 1U);
  object.on_release = {};
}

TEST(ClearOutputs, AnOldValueMayAppendWhileItIsLetGo) {
  objects::Unknown object;
  const auto list = workbench::parameters();
  list->Append(parameter_with(_variant_t(&object), 0, 2).get());
  list->Append(parameter_with(_variant_t(5), 0, 4).get());
  object.on_release = [&] { append_many(list); };
  workbench::clear_outputs(list.get());
  EXPECT_EQ(value_of(item(list, 0).get()).vt, VT_EMPTY);
  EXPECT_EQ(value_of(item(list, 1).get()).vt, VT_EMPTY);
  EXPECT_EQ(object.references(), 1U);
  object.on_release = {};
}

TEST(WriteBackArray, AnOldElementMayAppendWhileItIsLetGo) {
  objects::Unknown object;
  const auto list = list_with({1, 2});
  const _variant_t array = script_array_of(_variant_t(&object), _variant_t());
  object.on_release = [&] { append_many(list); };
  EXPECT_EQ(after_write_back(list, array), describe(script_array({1, 2})));
  EXPECT_EQ(object.references(), 1U);
  object.on_release = {};
}

TEST(WriteBackArray, AnOldElementMayPutANewValueWhileItIsLetGo) {
  objects::Unknown object;
  const auto list = list_with({1, 2});
  const _variant_t array = script_array_of(_variant_t(&object), _variant_t());
  object.on_release = [&] {
    item(list, 0)->put_Value(text_value(L"late"));
    item(list, 1)->put_Value(text_value(L"late"));
  };
  EXPECT_EQ(workbench::write_back_array(list.get(), array.parray), S_OK);
  EXPECT_EQ(values_of(list), described({L"late", L"late"}));
  EXPECT_TRUE(is_unlocked(array));
  object.on_release = {};
}

}  // namespace
