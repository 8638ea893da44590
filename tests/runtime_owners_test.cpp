// SPDX-License-Identifier: MIT
//
// The owners that the header brings along: what they take over, copy, give up
// and free. Run with a leak checker, each of these also says that nothing is
// left behind.
//
// Sections: _bstr_t; _str_t; _variant_t; _com_error; InterfacePtr;
// SafeArrayAccess.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/objects.h"
#include "support/printed.h"
#include "zir.h"

namespace {

bool same_bytes(const VARIANT& left, const VARIANT& right) {
  const void* const first = &left;
  const void* const second = &right;
  return std::memcmp(first, second, sizeof left) == 0;
}

// ---------------------------------------------------------------------------
// _bstr_t
// ---------------------------------------------------------------------------

std::wstring units_of(const _bstr_t& string) {
  return std::wstring(string.m_s, SysStringLen(string.m_s));
}

/// "a", a zero, "b".
_bstr_t with_zero() { return _bstr_t(SysAllocStringLen(L"a\0b", 3), false); }

TEST(OwnedBstr, BeginsWithoutAString) {
  const _bstr_t string;
  EXPECT_EQ(string.m_s, nullptr);
  EXPECT_EQ(static_cast<const wchar_t*>(string), nullptr);
}

TEST(OwnedBstr, CopiesAText) {
  const wchar_t text[] = L"text";
  const _bstr_t string(text);
  EXPECT_NE(string.m_s, text);
  EXPECT_EQ(units_of(string), L"text");
}

TEST(OwnedBstr, NoTextGivesNoString) {
  const wchar_t* const none = nullptr;
  EXPECT_EQ(_bstr_t(none).m_s, nullptr);
  EXPECT_EQ(_bstr_t(nullptr, true).m_s, nullptr);
  EXPECT_EQ(_bstr_t(nullptr, false).m_s, nullptr);
}

TEST(OwnedBstr, TakesOverOrDuplicatesAString) {
  const _bstr_t owner = with_zero();
  const _bstr_t copy(owner.m_s, true);
  EXPECT_NE(copy.m_s, owner.m_s);
  EXPECT_EQ(units_of(copy), std::wstring(L"a\0b", 3));
  BSTR string = SysAllocString(L"taken");
  const _bstr_t taken(string, false);
  EXPECT_EQ(taken.m_s, string);
}

TEST(OwnedBstr, ReadsAsTheTextItHolds) {
  const _bstr_t string(L"text");
  const wchar_t* const text = string;
  EXPECT_EQ(text, string.m_s);
}

TEST(OwnedBstr, ACopyHasAllUnitsInABlockOfItsOwn) {
  const _bstr_t string = with_zero();
  const _bstr_t copy(string);  // NOLINT(performance-unnecessary-copy-*)
  EXPECT_NE(copy.m_s, string.m_s);
  EXPECT_EQ(units_of(copy), std::wstring(L"a\0b", 3));
  const _bstr_t empty(L"");
  const _bstr_t empty_copy(empty);  // NOLINT(performance-unnecessary-copy-*)
  ASSERT_NE(empty_copy.m_s, nullptr);
  EXPECT_NE(empty_copy.m_s, empty.m_s);
}

TEST(OwnedBstr, AMoveTakesTheBlockAlong) {
  _bstr_t source(L"text");
  wchar_t* const block = source.m_s;
  const _bstr_t moved(std::move(source));
  EXPECT_EQ(moved.m_s, block);
  EXPECT_EQ(source.m_s, nullptr);  // NOLINT(bugprone-use-after-move)
  static_assert(std::is_nothrow_move_constructible_v<_bstr_t>);
}

TEST(OwnedBstr, AssignmentReplacesTheString) {
  _bstr_t string(L"old");
  string = L"new";
  EXPECT_EQ(units_of(string), L"new");
  string = with_zero();
  EXPECT_EQ(units_of(string), std::wstring(L"a\0b", 3));
  const _bstr_t other(L"other");
  string = other;
  EXPECT_EQ(units_of(string), L"other");
  EXPECT_NE(string.m_s, other.m_s);
  string = static_cast<const wchar_t*>(nullptr);
  EXPECT_EQ(string.m_s, nullptr);
}

TEST(OwnedBstr, AssignmentFromItselfKeepsTheText) {
  _bstr_t string(L"text");
  const _bstr_t& same = string;
  string = same;
  EXPECT_EQ(units_of(string), L"text");
  string = string.m_s;
  EXPECT_EQ(units_of(string), L"text");
  string = string.m_s + 2;
  EXPECT_EQ(units_of(string), L"xt");
}

TEST(OwnedBstr, DetachGivesTheStringAway) {
  _bstr_t string(L"text");
  wchar_t* const block = string.m_s;
  EXPECT_EQ(string.Detach(), block);
  EXPECT_EQ(string.m_s, nullptr);
  EXPECT_EQ(string.Detach(), nullptr);
  EXPECT_EQ(std::wstring(block), L"text");
  SysFreeString(block);
}

TEST(OwnedBstr, ItsMemberReceivesAString) {
  const auto hand_out = [](BSTR* out) { *out = SysAllocString(L"text"); };
  _bstr_t string;
  hand_out(&string.m_s);
  EXPECT_EQ(units_of(string), L"text");
}

// ---------------------------------------------------------------------------
// _str_t
// ---------------------------------------------------------------------------

TEST(OwnedStr, BeginsWithoutAText) {
  const _str_t text;
  EXPECT_EQ(text.m_s, nullptr);
  EXPECT_EQ(static_cast<const char*>(text), nullptr);
}

TEST(OwnedStr, CopiesAText) {
  for (const char* const source : {"", "a", "text"}) {
    const _str_t text(source);
    EXPECT_NE(text.m_s, source);
    EXPECT_STREQ(text, source);
  }
}

TEST(OwnedStr, NoTextGivesNone) {
  const char* const none = nullptr;
  EXPECT_EQ(_str_t(none).m_s, nullptr);
  EXPECT_EQ(_str_t(nullptr, true).m_s, nullptr);
  EXPECT_EQ(_str_t(nullptr, false).m_s, nullptr);
}

TEST(OwnedStr, TakesOverOrDuplicatesAText) {
  _str_t owner("text");
  const _str_t copy(owner.m_s, true);
  EXPECT_NE(copy.m_s, owner.m_s);
  EXPECT_STREQ(copy, "text");
  char* const block = owner.Detach();
  const _str_t taken(block, false);
  EXPECT_EQ(taken.m_s, block);
}

TEST(OwnedStr, CopiesAndMoves) {
  _str_t source("text");
  char* const block = source.m_s;
  const _str_t copy(source);
  const _str_t moved(std::move(source));
  EXPECT_NE(copy.m_s, block);
  EXPECT_STREQ(copy, "text");
  EXPECT_EQ(moved.m_s, block);
  EXPECT_EQ(source.m_s, nullptr);  // NOLINT(bugprone-use-after-move)
  static_assert(std::is_nothrow_move_constructible_v<_str_t>);
}

TEST(OwnedStr, AssignmentReplacesTheText) {
  _str_t text("old");
  text = "new";
  EXPECT_STREQ(text, "new");
  const _str_t other("other");
  text = other;
  EXPECT_STREQ(text, "other");
  EXPECT_NE(text.m_s, other.m_s);
  text = _str_t("moved");
  EXPECT_STREQ(text, "moved");
  text = static_cast<const char*>(nullptr);
  EXPECT_EQ(text.m_s, nullptr);
}

TEST(OwnedStr, AssignmentFromItselfKeepsTheText) {
  _str_t text("text");
  const _str_t& same = text;
  text = same;
  EXPECT_STREQ(text, "text");
  text = text.m_s + 2;
  EXPECT_STREQ(text, "xt");
}

TEST(OwnedStr, DetachGivesTheTextAway) {
  _str_t text("text");
  char* const block = text.Detach();
  EXPECT_EQ(text.m_s, nullptr);
  EXPECT_STREQ(block, "text");
  std::free(block);
}

// ---------------------------------------------------------------------------
// _variant_t
// ---------------------------------------------------------------------------

/// A vector of these elements, which the value owns.
_variant_t array_of(const std::vector<_variant_t>& elements) {
  _variant_t value;
  value.parray = SafeArrayCreateVector(
      VT_VARIANT, 0, static_cast<std::uint32_t>(elements.size()));
  value.vt = VT_ARRAY | VT_VARIANT;
  const SafeArrayAccess access(value.parray);
  VARIANT* element = access.elements<VARIANT>();
  for (const _variant_t& source : elements) VariantCopy(element++, &source);
  return value;
}

VARIANT* first_element(const _variant_t& array) {
  return static_cast<VARIANT*>(array.parray->pvData);
}

TEST(OwnedVariant, BeginsEmpty) {
  const _variant_t value;
  EXPECT_TRUE(same_bytes(value, VARIANT()));
}

TEST(OwnedVariant, IntegersOfEveryWidthAre64BitsWide) {
  const struct {
    _variant_t value;
    std::int64_t expected;
  } rows[] = {
      {_variant_t(7), 7},
      {_variant_t(-7), -7},
      {_variant_t(7U), 7},
      {_variant_t(static_cast<short>(-3)), -3},
      {_variant_t(static_cast<std::uint8_t>(200)), 200},
      {_variant_t(0xFFFFFFFFU), 0xFFFFFFFF},
      {_variant_t(5000000000L), 5000000000},
      {_variant_t(std::numeric_limits<std::int64_t>::min()),
       std::numeric_limits<std::int64_t>::min()},
      {_variant_t(std::numeric_limits<std::uint64_t>::max()), -1},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.value.vt, VT_I8) << row.expected;
    EXPECT_EQ(row.value.llVal, row.expected);
  }
}

TEST(OwnedVariant, DoublesTextsAndTruthValuesHaveTheirTypes) {
  const _variant_t number(1.5);
  const _variant_t text(L"text");
  const _variant_t yes(true);
  const _variant_t no(false);
  EXPECT_EQ(number.vt, VT_R8);
  EXPECT_EQ(number.dblVal, 1.5);
  EXPECT_EQ(text.vt, VT_BSTR);
  EXPECT_EQ(std::wstring(text.bstrVal), L"text");
  EXPECT_EQ(yes.vt, VT_BOOL);
  EXPECT_EQ(yes.boolVal, VARIANT_TRUE);
  EXPECT_EQ(yes.ullVal, 0xFFFFU);
  EXPECT_EQ(no.vt, VT_BOOL);
  EXPECT_EQ(no.ullVal, 0U);
}

TEST(OwnedVariant, PlainEnumerationsAreIntegers) {
  const _variant_t type(VT_BSTR);
  _variant_t assigned(L"before");
  assigned = VT_R8;
  EXPECT_EQ(type.vt, VT_I8);
  EXPECT_EQ(type.llVal, 8);
  EXPECT_EQ(assigned.vt, VT_I8);
  EXPECT_EQ(assigned.llVal, 5);
}

TEST(OwnedVariant, CharactersAreNeitherIntegersNorTexts) {
  static_assert(!std::is_constructible_v<_variant_t, wchar_t>);
  static_assert(!std::is_constructible_v<_variant_t, char16_t>);
  static_assert(!std::is_constructible_v<_variant_t, char32_t>);
  static_assert(!std::is_assignable_v<_variant_t&, wchar_t>);
}

TEST(OwnedVariant, NoTextIsAStringThatIsNull) {
  const _variant_t value(static_cast<const wchar_t*>(nullptr));
  EXPECT_EQ(value.vt, VT_BSTR);
  EXPECT_EQ(value.bstrVal, nullptr);
}

TEST(OwnedVariant, PointersAreNoTruthValues) {
  static_assert(!std::is_constructible_v<_variant_t, int*>);
  static_assert(!std::is_constructible_v<_variant_t, const char*>);
  static_assert(!std::is_assignable_v<_variant_t&, int*>);
  static_assert(!std::is_assignable_v<_variant_t&, const char*>);
}

TEST(OwnedVariant, ObjectsGainAReferenceAndLoseIt) {
  objects::Unknown unknown;
  objects::Dispatch dispatch;
  {
    const _variant_t first(&unknown);
    const _variant_t second(static_cast<IDispatch*>(&dispatch));
    EXPECT_EQ(first.vt, VT_UNKNOWN);
    EXPECT_EQ(first.punkVal, &unknown);
    EXPECT_EQ(second.vt, VT_DISPATCH);
    EXPECT_EQ(second.pdispVal, &dispatch);
    EXPECT_EQ(unknown.references(), 2U);
    EXPECT_EQ(dispatch.references(), 2U);
  }
  EXPECT_EQ(unknown.references(), 1U);
  EXPECT_EQ(dispatch.references(), 1U);
}

TEST(OwnedVariant, NoObjectIsAnObjectThatIsNull) {
  const _variant_t unknown(static_cast<IUnknown*>(nullptr));
  const _variant_t dispatch(static_cast<IDispatch*>(nullptr));
  EXPECT_EQ(unknown.vt, VT_UNKNOWN);
  EXPECT_EQ(unknown.punkVal, nullptr);
  EXPECT_EQ(dispatch.vt, VT_DISPATCH);
  EXPECT_EQ(dispatch.pdispVal, nullptr);
}

TEST(OwnedVariant, CopiesAreDeepWhateverTheyAreMadeFrom) {
  const _variant_t source(L"text");
  const VARIANT& plain = source;
  const _variant_t copy(source);
  const _variant_t from_plain(plain);
  EXPECT_EQ(std::wstring(copy.bstrVal), L"text");
  EXPECT_EQ(std::wstring(from_plain.bstrVal), L"text");
  EXPECT_NE(copy.bstrVal, source.bstrVal);
  EXPECT_NE(from_plain.bstrVal, source.bstrVal);
}

TEST(OwnedVariant, AMoveTakesThePayloadAlong) {
  _variant_t source(L"text");
  wchar_t* const block = source.bstrVal;
  const _variant_t moved(std::move(source));
  EXPECT_EQ(moved.vt, VT_BSTR);
  EXPECT_EQ(moved.bstrVal, block);
  EXPECT_EQ(source.vt, VT_EMPTY);  // NOLINT(bugprone-use-after-move)
  static_assert(std::is_nothrow_move_constructible_v<_variant_t>);
  static_assert(std::is_nothrow_move_assignable_v<_variant_t>);
}

TEST(OwnedVariant, AssignmentReplacesTheValue) {
  objects::Unknown object;
  objects::Dispatch dispatch;
  _variant_t value(&object);
  value = 7;
  EXPECT_EQ(object.references(), 1U);
  EXPECT_EQ(value.vt, VT_I8);
  EXPECT_EQ(value.llVal, 7);
  value = 2.5;
  EXPECT_EQ(value.vt, VT_R8);
  EXPECT_EQ(value.dblVal, 2.5);
  value = true;
  EXPECT_EQ(value.vt, VT_BOOL);
  EXPECT_EQ(value.boolVal, VARIANT_TRUE);
  value = L"text";
  EXPECT_EQ(value.vt, VT_BSTR);
  EXPECT_EQ(std::wstring(value.bstrVal), L"text");
  value = static_cast<IDispatch*>(&dispatch);
  EXPECT_EQ(value.vt, VT_DISPATCH);
  EXPECT_EQ(dispatch.references(), 2U);
  value = _variant_t(L"moved");
  EXPECT_EQ(dispatch.references(), 1U);
  EXPECT_EQ(std::wstring(value.bstrVal), L"moved");
  const _variant_t other(L"other");
  value = other;
  EXPECT_EQ(std::wstring(value.bstrVal), L"other");
  EXPECT_NE(value.bstrVal, other.bstrVal);
  const VARIANT& plain = other;
  value = plain;
  EXPECT_EQ(std::wstring(value.bstrVal), L"other");
  EXPECT_NE(value.bstrVal, other.bstrVal);
}

TEST(OwnedVariant, AssignmentFromItselfKeepsTheValue) {
  objects::Dispatch object;
  _variant_t value(L"text");
  const _variant_t& same = value;
  const VARIANT& plain = value;
  _variant_t& movable = value;
  value = same;
  EXPECT_EQ(std::wstring(value.bstrVal), L"text");
  value = plain;
  EXPECT_EQ(std::wstring(value.bstrVal), L"text");
  value = std::move(movable);
  EXPECT_EQ(std::wstring(value.bstrVal), L"text");
  value = value.bstrVal;
  EXPECT_EQ(std::wstring(value.bstrVal), L"text");
  value = value.bstrVal + 2;
  EXPECT_EQ(std::wstring(value.bstrVal), L"xt");
  value = static_cast<IDispatch*>(&object);
  value = value.pdispVal;
  EXPECT_EQ(object.references(), 2U);
}

TEST(OwnedVariant, AnElementOfItsOwnArrayMayReplaceIt) {
  objects::Unknown object;
  {
    _variant_t value = array_of({_variant_t(&object), _variant_t(L"text")});
    value = first_element(value)[0];
    EXPECT_EQ(value.punkVal, &object);
    EXPECT_EQ(object.references(), 2U);
    value = array_of({array_of({_variant_t(L"inner")})});
    value = *first_element(value);
    value = *first_element(value);
    EXPECT_EQ(std::wstring(value.bstrVal), L"inner");
    value = array_of({_variant_t(L"text")});
    value = first_element(value)->bstrVal;
    EXPECT_EQ(std::wstring(value.bstrVal), L"text");
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(OwnedVariant, AnElementMovedOutOfItsOwnArrayMayReplaceIt) {
  objects::Unknown object;
  {
    _variant_t value = array_of({_variant_t(&object), _variant_t(L"text")});
    value = std::move(static_cast<_variant_t&>(*first_element(value)));
    EXPECT_EQ(value.vt, VT_UNKNOWN);
    EXPECT_EQ(object.references(), 2U);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(OwnedVariant, AttachTakesOverAndFreesWhatWasHeld) {
  objects::Unknown object;
  {
    _variant_t value(&object);
    VARIANT text = {};
    text.vt = VT_BSTR;
    text.wReserved2 = 9;
    text.bstrVal = SysAllocString(L"text");
    value.Attach(text);
    EXPECT_EQ(object.references(), 1U);
    EXPECT_TRUE(same_bytes(value, text));
  }
}

TEST(OwnedVariant, DetachGivesTheValueAwayAndLeavesAnEmptyOne) {
  objects::Unknown object;
  _variant_t value(&object);
  VARIANT detached = value.Detach();
  EXPECT_TRUE(same_bytes(value, VARIANT()));
  EXPECT_EQ(detached.vt, VT_UNKNOWN);
  EXPECT_EQ(detached.punkVal, &object);
  EXPECT_EQ(object.references(), 2U);
  VariantClear(&detached);
  EXPECT_EQ(object.references(), 1U);
}

TEST(OwnedVariant, ItsDestructorFreesAnArray) {
  objects::Unknown object;
  array_of({_variant_t(&object), _variant_t(&object)});
  EXPECT_EQ(object.references(), 1U);
}

TEST(OwnedVariant, VectorsOfValuesKeepTheBalance) {
  objects::Unknown object;
  {
    std::vector<_variant_t> values;
    for (int i = 0; i < 20; ++i) values.emplace_back(&object);
    EXPECT_EQ(object.references(), 21U);
    values.erase(values.begin() + 3, values.begin() + 7);
    EXPECT_EQ(object.references(), 17U);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(OwnedVariant, TruthIsThatOfTheConversionToATruthValue) {
  _variant_t odd(true);
  odd.boolVal = 2;
  const struct {
    const char* what;
    _variant_t value;
    bool expected;
  } rows[] = {
      {"true", _variant_t(true), true},
      {"false", _variant_t(false), false},
      {"any other than zero", odd, true},
      {"empty", _variant_t(), false},
      {"1", _variant_t(1), true},
      {"0", _variant_t(0), false},
      {"2^32", _variant_t(std::int64_t{1} << 32), true},
      {"text true", _variant_t(L"True"), true},
      {"text false", _variant_t(L"false"), false},
      {"other text", _variant_t(L"1"), false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(static_cast<bool>(row.value), row.expected) << row.what;
  }
}

TEST(OwnedVariant, WhatCannotBeATruthValueIsFalseAndSaysSo) {
  const _variant_t number(1.5);
  bool truth = true;
  EXPECT_EQ(printed::by([&] { truth = static_cast<bool>(number); }),
            printed::stub_line("VariantChangeType", 981, "vt:5->11"));
  EXPECT_FALSE(truth);
}

TEST(OwnedVariant, LessIsWhatVarCmpCallsLess) {
  const _variant_t one(1);
  const _variant_t two(2);
  EXPECT_TRUE(one < two);
  EXPECT_FALSE(two < one);
  EXPECT_FALSE(one < one);
  EXPECT_TRUE(_variant_t(L"10") < _variant_t(L"9"));
  EXPECT_TRUE(_variant_t(L"10") < _variant_t(9));
}

TEST(OwnedVariant, AnErrorOfTheComparisonCountsAsNotLess) {
  const _variant_t empty;
  bool less = true;
  EXPECT_EQ(printed::by([&] { less = empty < empty; }),
            printed::stub_line("VarCmp", 488, "vt:0->0"));
  EXPECT_FALSE(less);
}

// ---------------------------------------------------------------------------
// _com_error
// ---------------------------------------------------------------------------

TEST(ComError, CarriesItsResult) {
  const _com_error error(E_FAIL);
  EXPECT_EQ(error.Error(), E_FAIL);
  EXPECT_EQ(error.m_hr, E_FAIL);
}

// ---------------------------------------------------------------------------
// InterfacePtr
// ---------------------------------------------------------------------------

using UnknownPtr = InterfacePtr<IUnknown>;

TEST(InterfacePtr, BeginsWithoutObject) {
  const UnknownPtr pointer;
  EXPECT_FALSE(pointer);
  EXPECT_EQ(pointer.get(), nullptr);
  EXPECT_FALSE(UnknownPtr::adopt(nullptr));
  EXPECT_FALSE(UnknownPtr::share(nullptr));
}

TEST(InterfacePtr, AdoptTakesOverAndShareAddsAReference) {
  objects::Unknown object;
  object.AddRef();
  {
    const UnknownPtr adopted = UnknownPtr::adopt(&object);
    EXPECT_TRUE(adopted);
    EXPECT_EQ(adopted.get(), &object);
    EXPECT_EQ(object.references(), 2U);
    const UnknownPtr shared = UnknownPtr::share(&object);
    EXPECT_EQ(object.references(), 3U);
    EXPECT_EQ(shared->AddRef(), 4U);
    EXPECT_EQ(shared->Release(), 3U);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(InterfacePtr, CopiesAddAReferenceAndMovesDoNot) {
  objects::Unknown object;
  {
    UnknownPtr pointer = UnknownPtr::share(&object);
    UnknownPtr copy(pointer);
    EXPECT_EQ(object.references(), 3U);
    const UnknownPtr moved(std::move(pointer));
    EXPECT_FALSE(pointer);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(object.references(), 3U);
    EXPECT_EQ(moved.get(), copy.get());
    static_assert(std::is_nothrow_move_constructible_v<UnknownPtr>);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(InterfacePtr, AssignmentLetsGoOfTheOldObject) {
  objects::Unknown first;
  objects::Unknown second;
  {
    UnknownPtr pointer = UnknownPtr::share(&first);
    const UnknownPtr other = UnknownPtr::share(&second);
    pointer = other;
    EXPECT_EQ(first.references(), 1U);
    EXPECT_EQ(second.references(), 3U);
    pointer = UnknownPtr();
    EXPECT_EQ(second.references(), 2U);
  }
  EXPECT_EQ(second.references(), 1U);
}

TEST(InterfacePtr, AssignmentFromItselfKeepsTheObject) {
  objects::Unknown object;
  {
    UnknownPtr pointer = UnknownPtr::share(&object);
    UnknownPtr& same = pointer;
    pointer = same;
    EXPECT_EQ(pointer.get(), &object);
    EXPECT_EQ(object.references(), 2U);
    pointer = std::move(same);
    EXPECT_EQ(pointer.get(), &object);
    EXPECT_EQ(object.references(), 2U);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(InterfacePtr, DetachGivesTheReferenceAway) {
  objects::Unknown object;
  UnknownPtr pointer = UnknownPtr::share(&object);
  EXPECT_EQ(pointer.detach(), &object);
  EXPECT_FALSE(pointer);
  EXPECT_EQ(object.references(), 2U);
  object.Release();
}

TEST(InterfacePtr, ReceiveTakesOverWhatACallStores) {
  objects::Unknown object;
  objects::Unknown old;
  {
    UnknownPtr pointer = UnknownPtr::share(&old);
    EXPECT_EQ(pointer.receive([&](void** out) {
      EXPECT_EQ(*out, nullptr);
      return object.QueryInterface(IID_IUnknown, out);
    }),
              S_OK);
    EXPECT_EQ(pointer.get(), &object);
    EXPECT_EQ(old.references(), 1U);
    EXPECT_EQ(object.references(), 2U);
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(InterfacePtr, APositiveResultIsASuccess) {
  objects::Unknown object;
  UnknownPtr pointer;
  EXPECT_EQ(pointer.receive([&](void** out) {
    object.QueryInterface(IID_IUnknown, out);
    return S_FALSE;
  }),
            S_FALSE);
  EXPECT_EQ(pointer.get(), &object);
}

TEST(InterfacePtr, AFailedCallLeavesItEmptyWhateverItStored) {
  objects::Unknown object;
  UnknownPtr pointer = UnknownPtr::share(&object);
  EXPECT_EQ(pointer.receive([&](void** out) {
    *out = &object;
    return E_FAIL;
  }),
            E_FAIL);
  EXPECT_FALSE(pointer);
  EXPECT_EQ(object.references(), 1U);
}

TEST(InterfacePtr, QueryGivesAnotherInterfaceOrNone) {
  objects::Dispatch dispatch;
  objects::Unknown unknown;
  {
    const UnknownPtr pointer = UnknownPtr::share(&dispatch);
    const auto found = pointer.query<IDispatch>(IID_IDispatch);
    EXPECT_EQ(found.get(), &dispatch);
    EXPECT_EQ(dispatch.references(), 3U);
    const UnknownPtr other = UnknownPtr::share(&unknown);
    EXPECT_FALSE(other.query<IDispatch>(IID_IDispatch));
    EXPECT_FALSE(UnknownPtr().query<IDispatch>(IID_IDispatch));
  }
  EXPECT_EQ(dispatch.references(), 1U);
  EXPECT_EQ(unknown.references(), 1U);
}

// ---------------------------------------------------------------------------
// SafeArrayAccess
// ---------------------------------------------------------------------------

TEST(SafeArrayAccess, HoldsTheLockWhileItLives) {
  const _variant_t array = array_of({_variant_t(7)});
  {
    const SafeArrayAccess access(array.parray);
    EXPECT_EQ(access.result(), S_OK);
    EXPECT_EQ(access.elements<VARIANT>(), array.parray->pvData);
    EXPECT_EQ(array.parray->cLocks, 1U);
  }
  EXPECT_EQ(array.parray->cLocks, 0U);
}

TEST(SafeArrayAccess, ARefusedOneHasNoElementsAndLeavesTheLockToItsHolder) {
  const _variant_t array = array_of({_variant_t(7)});
  const SafeArrayAccess holder(array.parray);
  {
    const SafeArrayAccess refused(array.parray);
    EXPECT_EQ(refused.result(), E_UNEXPECTED);
    EXPECT_EQ(refused.elements<VARIANT>(), nullptr);
  }
  EXPECT_EQ(array.parray->cLocks, 1U);
}

TEST(SafeArrayAccess, NoArrayIsRefused) {
  const SafeArrayAccess access(nullptr);
  EXPECT_EQ(access.result(), E_INVALIDARG);
  EXPECT_EQ(access.elements<BYTE>(), nullptr);
}

TEST(SafeArrayAccess, ALockHasOneHolder) {
  static_assert(!std::is_copy_constructible_v<SafeArrayAccess>);
  static_assert(!std::is_copy_assignable_v<SafeArrayAccess>);
}

}  // namespace
