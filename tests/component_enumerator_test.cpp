// SPDX-License-Identifier: MIT
//
// The enumerator of a Fields object: what Next, Skip, Reset and Clone answer,
// which row it walks, and how little it keeps alive.
//
// Sections: Next; Skip, Reset and Clone; the row it walks; the end of others;
// interfaces; how it is asked for.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/objects.h"
#include "support/recordsets.h"

namespace {

using component::Answer;
using component::dispatch_of;
using component::expect_exception;
using component::kClosedCode;
using component::kClosedText;
using component::kNoCurrentRecordCode;
using component::kNoCurrentRecordText;
using recordsets::Enumerator;
using recordsets::enumerator_of;
using recordsets::Field;
using recordsets::Fields;
using recordsets::fields_of;
using recordsets::kSource;
using recordsets::name_of;
using recordsets::next_of;
using recordsets::numbered;
using recordsets::Recordset;
using recordsets::references;
using recordsets::value_of;

/// Five columns "a" to "e" that hold 1 to 5, and a second row with 11 to 15.
Recordset of_letters() {
  const auto row = [](std::int64_t first) {
    workbench::Row cells;
    for (std::int64_t i = 0; i < 5; ++i) cells.emplace_back(first + i);
    return cells;
  };
  return workbench::recordset({"a", "b", "c", "d", "e"}, {row(1), row(11)});
}

/// The names of the fields that are left, with their values: "a=1 b=2".
std::string rest_of(const Enumerator& enumerator) {
  std::string rest;
  while (const Field field = next_of(enumerator)) {
    const auto [named, name] = name_of(field);
    const auto [read, value] = value_of(field);
    EXPECT_EQ(named, S_OK);
    EXPECT_EQ(read, S_OK);
    EXPECT_EQ(value.vt, VT_I8);
    rest += (rest.empty() ? "" : " ") + std::string(name.begin(), name.end()) +
            "=" + std::to_string(value.llVal);
  }
  return rest;
}

constexpr const char* kAll = "a=1 b=2 c=3 d=4 e=5";

// ---------------------------------------------------------------------------
// Next
// ---------------------------------------------------------------------------

struct Fetch {
  int skipped;
  std::uint32_t asked;
  HRESULT result;
  std::uint32_t fetched;
  const char* rest;
};

constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();

TEST(EnumeratorNext, StoresAsManyFieldsAsAreLeft) {
  constexpr Fetch kCases[] = {
      {0, 0, S_OK, 0, kAll},      {0, 1, S_OK, 1, "b=2 c=3 d=4 e=5"},
      {0, 3, S_OK, 3, "d=4 e=5"}, {0, 5, S_OK, 5, ""},
      {0, 6, S_FALSE, 5, ""},     {0, 7, S_FALSE, 5, ""},
      {0, kMost, S_FALSE, 5, ""}, {3, 0, S_OK, 0, "d=4 e=5"},
      {3, 1, S_OK, 1, "e=5"},     {3, 2, S_OK, 2, ""},
      {3, 3, S_FALSE, 2, ""},     {3, kMost, S_FALSE, 2, ""},
      {5, 0, S_OK, 0, ""},        {5, 1, S_FALSE, 0, ""},
      {5, 2, S_FALSE, 0, ""},
  };
  const Recordset recordset = of_letters();
  for (const Fetch& fetch : kCases) {
    SCOPED_TRACE(testing::Message()
                 << fetch.asked << " behind " << fetch.skipped);
    const Enumerator enumerator = enumerator_of(fields_of(recordset));
    ASSERT_EQ(enumerator->Skip(static_cast<std::uint32_t>(fetch.skipped)),
              S_OK);
    std::array<_variant_t, 7> elements;
    std::uint32_t fetched = 77;
    EXPECT_EQ(enumerator->Next(fetch.asked, elements.data(), &fetched),
              fetch.result);
    EXPECT_EQ(fetched, fetch.fetched);
    for (std::uint32_t i = 0; i < fetched; ++i) {
      ASSERT_EQ(elements[i].vt, VT_DISPATCH) << i;
      const auto field =
          component::query<IZIRDBField>(elements[i].pdispVal, IID_IZIRDBField);
      ASSERT_TRUE(field) << i;
      EXPECT_EQ(value_of(field).second.llVal,
                static_cast<std::int64_t>(i) + fetch.skipped + 1);
    }
    EXPECT_EQ(rest_of(enumerator), fetch.rest);
  }
}

TEST(EnumeratorNext, OfThreeOnTwoColumnsStoresTwo) {
  const Recordset recordset = numbered(1);
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  std::array<_variant_t, 3> elements;
  std::uint32_t fetched = 77;
  EXPECT_EQ(enumerator->Next(3, elements.data(), &fetched), S_FALSE);
  EXPECT_EQ(fetched, 2U);
  EXPECT_EQ(elements[1].vt, VT_DISPATCH);
  EXPECT_EQ(elements[2].vt, VT_EMPTY);
}

TEST(EnumeratorNext, NeedsNoCountToStoreOne) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  for (int i = 0; i < 5; ++i) {
    _variant_t element;
    EXPECT_EQ(enumerator->Next(1, &element, nullptr), S_OK);
    EXPECT_EQ(element.vt, VT_DISPATCH);
  }
  _variant_t element;
  EXPECT_EQ(enumerator->Next(1, &element, nullptr), S_FALSE);
  EXPECT_EQ(element.vt, VT_EMPTY);
}

TEST(EnumeratorNext, RefusesToStoreMoreOrFewerWithoutACount) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  for (const std::uint32_t asked : {0U, 2U, 5U, kMost}) {
    std::array<_variant_t, 5> elements;
    EXPECT_EQ(enumerator->Next(asked, elements.data(), nullptr), E_INVALIDARG)
        << asked;
    EXPECT_EQ(elements[0].vt, VT_EMPTY);
  }
  EXPECT_EQ(rest_of(enumerator), kAll);
}

TEST(EnumeratorNext, RefusesANullPointerWhateverIsAskedFor) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  for (const std::uint32_t asked : {0U, 1U, 2U}) {
    std::uint32_t fetched = 77;
    EXPECT_EQ(enumerator->Next(asked, nullptr, &fetched), E_INVALIDARG);
    EXPECT_EQ(enumerator->Next(asked, nullptr, nullptr), E_INVALIDARG);
  }
  EXPECT_EQ(rest_of(enumerator), kAll);
}

TEST(EnumeratorNext, OverwritesTheElementsWithoutFreeingThem) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  objects::Unknown object;
  VARIANT element{};
  element.vt = VT_UNKNOWN;
  element.punkVal = &object;
  ASSERT_EQ(enumerator->Next(1, &element, nullptr), S_OK);
  const _variant_t owner = values::owned(element);
  EXPECT_EQ(owner.vt, VT_DISPATCH);
  EXPECT_EQ(object.references(), 1U);
}

TEST(EnumeratorNext, StoresNewFieldsWithOneReference) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  const std::uint32_t before = workbench::objects_alive();
  std::array<_variant_t, 5> elements;
  std::uint32_t fetched = 0;
  ASSERT_EQ(enumerator->Next(5, elements.data(), &fetched), S_OK);
  EXPECT_EQ(workbench::objects_alive(), before + 5);
  for (_variant_t& element : elements) {
    EXPECT_EQ(element.Detach().pdispVal->Release(), 0U);
  }
  EXPECT_EQ(workbench::objects_alive(), before);
  ASSERT_EQ(enumerator->Reset(), S_OK);
  const Field first = next_of(enumerator);
  ASSERT_EQ(enumerator->Reset(), S_OK);
  const Field again = next_of(enumerator);
  EXPECT_NE(first.get(), again.get());
}

// ---------------------------------------------------------------------------
// Skip, Reset and Clone
// ---------------------------------------------------------------------------

struct Skipped {
  std::uint32_t first;
  std::uint32_t second;
  HRESULT result;  ///< of the second
  const char* rest;
};

TEST(EnumeratorSkip, GoesNoFurtherThanTheEnd) {
  constexpr Skipped kCases[] = {
      {0, 0, S_OK, kAll},
      {0, 2, S_OK, "c=3 d=4 e=5"},
      {0, 5, S_OK, ""},
      {0, 6, S_FALSE, ""},
      {0, kMost, S_FALSE, ""},
      {3, 0, S_OK, "d=4 e=5"},
      {3, 2, S_OK, ""},
      {3, 3, S_FALSE, ""},
      {3, kMost, S_FALSE, ""},
      {3, kMost - 1, S_FALSE, ""},
      {3, kMost - 2, S_FALSE, ""},
      {5, 0, S_OK, ""},
      {5, 1, S_FALSE, ""},
      {5, kMost, S_FALSE, ""},
  };
  const Recordset recordset = of_letters();
  for (const Skipped& skipped : kCases) {
    SCOPED_TRACE(testing::Message()
                 << skipped.first << " and " << skipped.second);
    const Enumerator enumerator = enumerator_of(fields_of(recordset));
    ASSERT_EQ(enumerator->Skip(skipped.first), S_OK);
    EXPECT_EQ(enumerator->Skip(skipped.second), skipped.result);
    EXPECT_EQ(rest_of(enumerator), skipped.rest);
  }
}

TEST(EnumeratorReset, BeginsAgain) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  EXPECT_EQ(enumerator->Reset(), S_OK);
  EXPECT_EQ(rest_of(enumerator), kAll);
  EXPECT_EQ(enumerator->Reset(), S_OK);
  EXPECT_EQ(rest_of(enumerator), kAll);
  EXPECT_EQ(enumerator->Skip(kMost), S_FALSE);
  EXPECT_EQ(enumerator->Reset(), S_OK);
  EXPECT_EQ(rest_of(enumerator), kAll);
}

Enumerator clone_of(const Enumerator& enumerator) {
  auto [result, clone] = component::received<IEnumVARIANT>(
      [&](IEnumVARIANT** out) { return enumerator->Clone(out); });
  EXPECT_EQ(result, S_OK);
  EXPECT_TRUE(clone);
  return clone;
}

TEST(EnumeratorClone, StandsAtTheSamePlaceAndWalksByItself) {
  const Recordset recordset = of_letters();
  for (const std::uint32_t skipped : {0U, 2U, 5U}) {
    const Enumerator enumerator = enumerator_of(fields_of(recordset));
    ASSERT_EQ(enumerator->Skip(skipped), S_OK);
    const Enumerator clone = clone_of(enumerator);
    ASSERT_NE(clone.get(), enumerator.get());
    const std::string rest = rest_of(clone);
    EXPECT_EQ(rest, std::string(kAll).substr(skipped == 5 ? 19 : skipped * 4));
    EXPECT_EQ(rest_of(enumerator), rest);
    EXPECT_EQ(clone->Reset(), S_OK);
    EXPECT_EQ(rest_of(enumerator), "");
    EXPECT_EQ(rest_of(clone), kAll);
  }
}

TEST(EnumeratorClone, HasOneReferenceAndOutlivesItsOriginal) {
  const Recordset recordset = of_letters();
  Enumerator enumerator = enumerator_of(fields_of(recordset));
  const Enumerator clone = clone_of(enumerator);
  EXPECT_EQ(references(clone.get()), 1U);
  EXPECT_EQ(enumerator.detach()->Release(), 0U);
  EXPECT_EQ(rest_of(clone), kAll);
}

TEST(EnumeratorClone, RefusesANullPointer) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  const std::uint32_t before = workbench::objects_alive();
  EXPECT_EQ(enumerator->Clone(nullptr), E_INVALIDARG);
  EXPECT_EQ(workbench::objects_alive(), before);
}

// ---------------------------------------------------------------------------
// The row it walks
// ---------------------------------------------------------------------------

TEST(EnumeratorRow, IsTheOneWhereTheFieldsWereMade) {
  const Recordset recordset = of_letters();
  const Fields fields = fields_of(recordset);
  const Enumerator before = enumerator_of(fields);
  ASSERT_EQ(recordset->MoveNext(), S_OK);
  EXPECT_EQ(rest_of(before), kAll);
  EXPECT_EQ(rest_of(enumerator_of(fields)), kAll);
  EXPECT_EQ(rest_of(enumerator_of(fields_of(recordset))),
            "a=11 b=12 c=13 d=14 e=15");
}

TEST(EnumeratorRow, DoesNotMoveWithTheCursorEvenHalfway) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  const Field first = next_of(enumerator);
  ASSERT_EQ(recordset->MoveNext(), S_OK);
  EXPECT_EQ(rest_of(enumerator), "b=2 c=3 d=4 e=5");
  EXPECT_EQ(value_of(first).second.llVal, 1);
}

TEST(EnumeratorRow, MayHaveManyColumns) {
  std::vector<std::string> names;
  workbench::Row row;
  for (std::int64_t i = 0; i < 300; ++i) {
    names.push_back("c" + std::to_string(i));
    row.emplace_back(i);
  }
  const Recordset recordset = workbench::recordset(names, {row});
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  for (std::int64_t i = 0; i < 300; ++i) {
    const Field field = next_of(enumerator);
    ASSERT_TRUE(field) << i;
    ASSERT_EQ(value_of(field).second.llVal, i);
    ASSERT_EQ(name_of(field).second, L"c" + std::to_wstring(i));
  }
  EXPECT_FALSE(next_of(enumerator));
}

// ---------------------------------------------------------------------------
// The end of others
// ---------------------------------------------------------------------------

TEST(EnumeratorLifetime, HoldsNoOtherObject) {
  const Recordset recordset = of_letters();
  Fields fields = fields_of(recordset);
  const Enumerator enumerator = enumerator_of(fields);
  const Field field = next_of(enumerator);
  EXPECT_EQ(references(recordset.get()), 2U);
  EXPECT_EQ(fields.detach()->Release(), 0U);
  EXPECT_EQ(references(recordset.get()), 1U);
  EXPECT_EQ(references(enumerator.get()), 1U);
  EXPECT_EQ(references(field.get()), 1U);
}

TEST(EnumeratorLifetime, CountsAsAnObject) {
  const Recordset recordset = of_letters();
  const Fields fields = fields_of(recordset);
  const std::uint32_t before = workbench::objects_alive();
  Enumerator enumerator = enumerator_of(fields);
  EXPECT_EQ(workbench::objects_alive(), before + 1);
  EXPECT_EQ(enumerator->AddRef(), 2U);
  EXPECT_EQ(enumerator->Release(), 1U);
  EXPECT_EQ(enumerator.detach()->Release(), 0U);
  EXPECT_EQ(workbench::objects_alive(), before);
}

TEST(EnumeratorLifetime, AnswersWhenEverythingElseIsGone) {
  for (const char* end : {"release", "close", "connection"}) {
    SCOPED_TRACE(end);
    Recordset recordset = of_letters();
    Enumerator enumerator = enumerator_of(fields_of(recordset));
    const Field field = next_of(enumerator);
    const std::string how = end;
    if (how == "close") {
      ASSERT_EQ(recordset->Close(), S_OK);
    } else if (how == "connection") {
      workbench::close_by_connection(recordset.get());
    }
    const Field after = next_of(enumerator);
    EXPECT_EQ(value_of(after).second.llVal, 2);
    EXPECT_EQ(recordset.detach()->Release(), 0U);
    EXPECT_EQ(rest_of(enumerator), "c=3 d=4 e=5");
    ASSERT_EQ(enumerator->Reset(), S_OK);
    const Enumerator clone = clone_of(enumerator);
    EXPECT_EQ(rest_of(enumerator), kAll);
    enumerator = {};
    EXPECT_EQ(rest_of(clone), kAll);
    EXPECT_EQ(name_of(field), std::pair(S_OK, std::wstring(L"a")));
    EXPECT_EQ(value_of(field).first, S_OK);
    EXPECT_EQ(value_of(field).second.llVal, 1);
    EXPECT_EQ(name_of(after).second, L"b");
  }
}

TEST(EnumeratorLifetime, KeepsTextsAndBytesOfRowsThatWereDropped) {
  Recordset recordset =
      workbench::recordset({"text", "bytes", "null"},
                           {{std::string(5000, 'x') + "\xC3\xA9",
                             workbench::Blob(5000, 7), workbench::Null{}}});
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  ASSERT_EQ(recordset->Close(), S_OK);
  recordset = {};
  const Field text = next_of(enumerator);
  const Field bytes = next_of(enumerator);
  const Field null = next_of(enumerator);
  EXPECT_EQ(values::text_of(value_of(text).second),
            std::wstring(5000, L'x') + L'\u00E9');
  const _variant_t array = value_of(bytes).second;
  ASSERT_EQ(array.vt, VT_ARRAY | VT_UI1);
  const SafeArrayAccess access(array.parray);
  EXPECT_EQ(access.elements<BYTE>()[4999], 7);
  EXPECT_EQ(value_of(null).second.vt, VT_NULL);
}

TEST(EnumeratorFields, AnswerLateBoundToo) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  ASSERT_EQ(recordset->Close(), S_OK);
  _variant_t element;
  ASSERT_EQ(enumerator->Next(1, &element, nullptr), S_OK);
  ASSERT_EQ(element.vt, VT_DISPATCH);
  const Answer value = component::get(element.pdispVal, 0);
  EXPECT_EQ(value.result, S_OK);
  EXPECT_EQ(value.value.llVal, 1);
  const Answer name = component::get(element.pdispVal, 1);
  EXPECT_EQ(name.result, S_OK);
  EXPECT_EQ(values::text_of(name.value), L"a");
}

TEST(EnumeratorFields, RefuseNullPointers) {
  const Recordset recordset = of_letters();
  const Field field = next_of(enumerator_of(fields_of(recordset)));
  EXPECT_EQ(field->get_Value(nullptr), E_INVALIDARG);
  EXPECT_EQ(field->get_Name(nullptr), E_INVALIDARG);
}

// ---------------------------------------------------------------------------
// Interfaces
// ---------------------------------------------------------------------------

TEST(EnumeratorInterfaces, AreTwo) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  for (const IID& riid : {IID_IUnknown, IID_IEnumVARIANT}) {
    void* object = nullptr;
    EXPECT_EQ(enumerator->QueryInterface(riid, &object), S_OK);
    EXPECT_EQ(object, enumerator.get());
    EXPECT_EQ(enumerator->Release(), 1U);
  }
  for (const IID& riid : {IID_IDispatch, IID_IZIRDBFields, IID_IZIRDBField,
                          IID_IZIRDBRecordset, IID_IClassFactory, IID_NULL}) {
    void* object = enumerator.get();
    EXPECT_EQ(enumerator->QueryInterface(riid, &object), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
  }
  EXPECT_EQ(references(enumerator.get()), 1U);
}

TEST(EnumeratorInterfaces, RefuseANullPointer) {
  const Recordset recordset = of_letters();
  const Enumerator enumerator = enumerator_of(fields_of(recordset));
  for (const IID& riid : {IID_IUnknown, IID_IEnumVARIANT, IID_IDispatch}) {
    EXPECT_EQ(enumerator->QueryInterface(riid, nullptr), E_INVALIDARG);
  }
  EXPECT_EQ(references(enumerator.get()), 1U);
}

// ---------------------------------------------------------------------------
// How it is asked for
// ---------------------------------------------------------------------------

TEST(NewEnum, IsAMethodOrAProperty) {
  const Recordset recordset = of_letters();
  const Fields fields = fields_of(recordset);
  for (const int flags : {1, 2, 3, 5, 6}) {
    component::Call call;
    call.member = DISPID_NEWENUM;
    call.flags = static_cast<WORD>(flags);
    const Answer answer =
        component::invoke(dispatch_of(fields.get()).get(), call);
    const Enumerator enumerator = recordsets::object_in<IEnumVARIANT>(
        answer, VT_UNKNOWN, IID_IEnumVARIANT);
    ASSERT_TRUE(enumerator) << flags;
    EXPECT_EQ(rest_of(enumerator), kAll);
  }
}

TEST(NewEnum, MakesANewOneWithOneReferenceEachTime) {
  const Recordset recordset = of_letters();
  const Fields fields = fields_of(recordset);
  const Answer first = recordsets::new_enum(fields);
  const Answer second = recordsets::new_enum(fields);
  ASSERT_EQ(first.value.vt, VT_UNKNOWN);
  ASSERT_EQ(second.value.vt, VT_UNKNOWN);
  EXPECT_NE(first.value.punkVal, second.value.punkVal);
  EXPECT_EQ(references(first.value.punkVal), 1U);
  EXPECT_EQ(references(fields.get()), 1U);
}

TEST(NewEnum, IsRefusedAtTheEndWhereTheFieldsWereMade) {
  const Recordset recordset = numbered(1);
  ASSERT_EQ(recordset->MoveNext(), S_OK);
  expect_exception(recordsets::new_enum(fields_of(recordset)),
                   kNoCurrentRecordCode, kSource, kNoCurrentRecordText);
}

TEST(NewEnum, IsRefusedWithoutRows) {
  const Recordset recordset = numbered(0);
  expect_exception(recordsets::new_enum(fields_of(recordset)),
                   kNoCurrentRecordCode, kSource, kNoCurrentRecordText);
}

TEST(NewEnum, IsRefusedWhenClosed) {
  const Recordset recordset = numbered(1);
  const Fields before = fields_of(recordset);
  ASSERT_EQ(recordset->Close(), S_OK);
  expect_exception(recordsets::new_enum(before), kClosedCode, kSource,
                   kClosedText);
  expect_exception(recordsets::new_enum(fields_of(recordset)), kClosedCode,
                   kSource, kClosedText);
}

TEST(NewEnum, OfFieldsFromTheEndIsRefusedAsClosedOnceThatIsSo) {
  const Recordset recordset = numbered(0);
  const Fields fields = fields_of(recordset);
  ASSERT_EQ(recordset->Close(), S_OK);
  expect_exception(recordsets::new_enum(fields), kClosedCode, kSource,
                   kClosedText);
}

TEST(NewEnum, WalksNothingAfterTheConnectionClosed) {
  const Recordset recordset = of_letters();
  const Fields before = fields_of(recordset);
  workbench::close_by_connection(recordset.get());
  for (const Fields& fields : {before, fields_of(recordset)}) {
    const Enumerator enumerator = enumerator_of(fields);
    ASSERT_TRUE(enumerator);
    _variant_t element;
    std::uint32_t fetched = 77;
    EXPECT_EQ(enumerator->Next(1, &element, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 0U);
    EXPECT_EQ(element.vt, VT_EMPTY);
    EXPECT_EQ(enumerator->Skip(0), S_OK);
    EXPECT_EQ(enumerator->Skip(1), S_FALSE);
    EXPECT_EQ(enumerator->Reset(), S_OK);
    EXPECT_FALSE(next_of(clone_of(enumerator)));
  }
}

}  // namespace
