// SPDX-License-Identifier: MIT
//
// Late binding, on a recordset without columns and on its fields: which id a
// name has, which calls are refused and with what, what a result and an
// exception record hold afterwards.
//
// Sections: names; type information; call shapes; what is looked at first;
// arguments that are not there; results; exception records.

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "support/objects.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using component::Answer;
using component::Call;
using component::dispatch_of;
using component::expect_exception;
using component::expect_refused;
using component::fields_of;
using component::invoke;
using component::kRecordsetSource;
using component::method;
using component::query;
using component::standalone_recordset;

/// The objects that the tests call. Made anew for every call that may close.
struct Objects {
  explicit Objects(bool closed = false) {
    if (closed) recordset->Close();
  }
  InterfacePtr<IZIRDBRecordset> recordset = standalone_recordset();
  InterfacePtr<IZIRDBFields> fields = fields_of(recordset.get());
  InterfacePtr<IDispatch> of_recordset = dispatch_of(recordset.get());
  InterfacePtr<IDispatch> of_fields = dispatch_of(fields.get());
};

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------

constexpr DISPID kUnwritten = 77;

struct Found {
  HRESULT result;
  std::vector<DISPID> ids;
};

/// Looks names up; a NULL stands for itself.
Found find(IDispatch* object, const std::vector<const wchar_t*>& names,
           REFIID riid = IID_NULL, LCID lcid = 0) {
  std::vector<LPOLESTR> writable;
  for (const wchar_t* const name : names) {
    writable.push_back(const_cast<wchar_t*>(name));
  }
  Found found{S_OK, std::vector<DISPID>(names.size(), kUnwritten)};
  found.result = object->GetIDsOfNames(riid, writable.data(),
                                       static_cast<UINT>(writable.size()), lcid,
                                       found.ids.data());
  return found;
}

TEST(MemberNames, OfARecordsetAreFoundWhateverTheirCase) {
  const struct {
    const wchar_t* name;
    DISPID id;
  } rows[] = {
      {L"Fields", 1},    {L"fields", 1},        {L"FIELDS", 1},
      {L"State", 2},     {L"sTATE", 2},         {L"EOF", 3},
      {L"eof", 3},       {L"BOF", 4},           {L"bof", 4},
      {L"MoveNext", 5},  {L"movenext", 5},      {L"Close", 6},
      {L"CLOSE", 6},     {L"RecordCount", 7},   {L"recordCount", 7},
      {L"MoveFirst", 8}, {L"MOVEFIRST", 8},     {L"MoveLast", 9},
      {L"moveLast", 9},  {L"MovePrevious", 10}, {L"moveprevious", 10},
      {L"forEach", 11},  {L"foreach", 11},      {L"ForEach", 11},
      {L"FOREACH", 11},
  };
  const Objects objects;
  for (const auto& row : rows) {
    const Found found = find(objects.of_recordset.get(), {row.name});
    EXPECT_EQ(found.result, S_OK) << row.name;
    EXPECT_EQ(found.ids[0], row.id) << row.name;
  }
}

TEST(MemberNames, OfFieldsAreFoundWhateverTheirCase) {
  const struct {
    const wchar_t* name;
    DISPID id;
  } rows[] = {
      {L"Item", 0},     {L"ITEM", 0},      {L"item", 0},      {L"Count", 1},
      {L"count", 1},    {L"_NewEnum", -4}, {L"_newenum", -4}, {L"_NEWENUM", -4},
      {L"NewEnum", -4}, {L"newEnum", -4},
  };
  const Objects objects;
  for (const auto& row : rows) {
    const Found found = find(objects.of_fields.get(), {row.name});
    EXPECT_EQ(found.result, S_OK) << row.name;
    EXPECT_EQ(found.ids[0], row.id) << row.name;
  }
}

void expect_unknown(IDispatch* object, const wchar_t* name) {
  const Found found = find(object, {name});
  EXPECT_EQ(found.result, DISP_E_UNKNOWNNAME) << name;
  EXPECT_EQ(found.ids[0], DISPID_UNKNOWN) << name;
}

TEST(MemberNames, AreCompleteWords) {
  const Objects objects;
  for (const wchar_t* const name :
       {L"", L" ", L"Stat", L"States", L" State", L"State ", L"St\u00E4te",
        L"Move", L"MoveTo", L"for each", L"for", L"Field", L"Fields.Item",
        L"get_State"}) {
    expect_unknown(objects.of_recordset.get(), name);
  }
  for (const wchar_t* const name :
       {L"", L"Items", L"Ite", L"__NewEnum", L"_NewEnum_", L"New", L"_Item",
        L"Counts"}) {
    expect_unknown(objects.of_fields.get(), name);
  }
}

TEST(MemberNames, BelongToOneClass) {
  const Objects objects;
  for (const wchar_t* const name :
       {L"Item", L"Count", L"_NewEnum", L"NewEnum", L"Value", L"Name",
        L"ConnectionString", L"Open", L"Execute", L"ActiveConnection",
        L"CommandText", L"CommandType", L"CreateParameter", L"Parameters",
        L"Append", L"Type", L"Direction", L"Size"}) {
    expect_unknown(objects.of_recordset.get(), name);
  }
  for (const wchar_t* const name :
       {L"Fields", L"State", L"EOF", L"BOF", L"RecordCount", L"MoveFirst",
        L"MoveNext", L"Close", L"forEach", L"Value", L"Name", L"Append",
        L"Parameters"}) {
    expect_unknown(objects.of_fields.get(), name);
  }
}

TEST(MemberNames, AreAllLookedUpAsMembers) {
  const Objects objects;
  const Found found =
      find(objects.of_recordset.get(), {L"MoveNext", L"state", L"EOF", L"EOF"});
  EXPECT_EQ(found.result, S_OK);
  EXPECT_EQ(found.ids, (std::vector<DISPID>{5, 2, 3, 3}));
}

TEST(MemberNames, TheFirstUnknownOneEndsTheSearch) {
  const struct {
    std::vector<const wchar_t*> names;
    std::vector<DISPID> ids;
  } rows[] = {
      {{L"STATE", L"nothing"}, {2, -1}},
      {{L"nothing", L"State"}, {-1, kUnwritten}},
      {{L"State", L"nothing", L"EOF", L"nowhere"},
       {2, -1, kUnwritten, kUnwritten}},
      {{nullptr}, {-1}},
      {{nullptr, L"State"}, {-1, kUnwritten}},
      {{L"Close", nullptr, L"State"}, {6, -1, kUnwritten}},
      {{L"Close", L"", nullptr}, {6, -1, kUnwritten}},
  };
  const Objects objects;
  for (const auto& row : rows) {
    const Found found = find(objects.of_recordset.get(), row.names);
    EXPECT_EQ(found.result, DISP_E_UNKNOWNNAME);
    EXPECT_EQ(found.ids, row.ids);
  }
}

TEST(MemberNames, NoneAreFoundAtOnce) {
  const Objects objects;
  for (IDispatch* const object :
       {objects.of_recordset.get(), objects.of_fields.get()}) {
    const wchar_t* const name = L"nothing";
    auto* names = const_cast<wchar_t*>(name);
    DISPID id = kUnwritten;
    EXPECT_EQ(object->GetIDsOfNames(IID_NULL, &names, 0, 0, &id), S_OK);
    EXPECT_EQ(id, kUnwritten);
  }
}

TEST(MemberNames, NeedBothArraysEvenForNone) {
  const Objects objects;
  for (IDispatch* const object :
       {objects.of_recordset.get(), objects.of_fields.get()}) {
    for (const UINT count : {0U, 1U}) {
      const wchar_t* const name = L"nothing";
      auto* names = const_cast<wchar_t*>(name);
      DISPID id = kUnwritten;
      EXPECT_EQ(object->GetIDsOfNames(IID_NULL, nullptr, count, 0, &id),
                E_INVALIDARG);
      EXPECT_EQ(object->GetIDsOfNames(IID_NULL, &names, count, 0, nullptr),
                E_INVALIDARG);
      EXPECT_EQ(object->GetIDsOfNames(IID_NULL, nullptr, count, 0, nullptr),
                E_INVALIDARG);
      EXPECT_EQ(id, kUnwritten);
    }
  }
}

TEST(MemberNames, AreNotLookedUpForAnotherInterface) {
  const Objects objects;
  for (IDispatch* const object :
       {objects.of_recordset.get(), objects.of_fields.get()}) {
    for (const IID* const riid :
         {&IID_IDispatch, &IID_IUnknown, &IID_IZIRDBRecordset}) {
      for (const std::vector<const wchar_t*>& names :
           {std::vector<const wchar_t*>{L"State", L"Count"},
            std::vector<const wchar_t*>{nullptr}}) {
        const Found found = find(object, names, *riid);
        EXPECT_EQ(found.result, E_INVALIDARG);
        EXPECT_EQ(found.ids, std::vector<DISPID>(names.size(), kUnwritten));
      }
    }
  }
}

TEST(MemberNames, AreTheSameInEveryLocale) {
  const Objects objects;
  for (const LCID lcid : {0U, 0x0409U, 0x041FU, 0xFFFFFFFFU}) {
    const Found found =
        find(objects.of_recordset.get(), {L"MOVEFIRST"}, IID_NULL, lcid);
    EXPECT_EQ(found.result, S_OK) << lcid;
    EXPECT_EQ(found.ids[0], 8) << lcid;
  }
}

TEST(MemberNames, AreFoundOnAClosedRecordsetToo) {
  const Objects objects(true);
  EXPECT_EQ(find(objects.of_recordset.get(), {L"EOF"}).ids[0], 3);
  EXPECT_EQ(find(objects.of_fields.get(), {L"Count"}).ids[0], 1);
}

// ---------------------------------------------------------------------------
// Type information
// ---------------------------------------------------------------------------

TEST(TypeInformation, IsCountedAsNone) {
  const Objects objects;
  for (IDispatch* const object :
       {objects.of_recordset.get(), objects.of_fields.get()}) {
    UINT count = 77;
    EXPECT_EQ(object->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(object->GetTypeInfoCount(nullptr), E_INVALIDARG);
  }
}

TEST(TypeInformation, IsNotImplemented) {
  const Objects objects;
  for (IDispatch* const object :
       {objects.of_recordset.get(), objects.of_fields.get()}) {
    for (const UINT index : {0U, 1U, 0xFFFFFFFFU}) {
      void* const mark = const_cast<UINT*>(&index);
      auto* info = static_cast<ITypeInfo*>(mark);
      EXPECT_EQ(object->GetTypeInfo(index, 0x0409, &info), E_NOTIMPL);
      EXPECT_EQ(info, nullptr);
      EXPECT_EQ(object->GetTypeInfo(index, 0, nullptr), E_NOTIMPL);
    }
  }
}

// ---------------------------------------------------------------------------
// Call shapes
//
// A row says what a member answers to a number of arguments, with a place for
// the result or without, by the flags of the call: the letter at position n is
// for the flags n, of which METHOD is 1, PROPERTYGET 2, PROPERTYPUT 4 and
// PROPERTYPUTREF 8.
// ---------------------------------------------------------------------------

//                          flags: 0123456789abcdef
constexpr const char* kProperty = "IIOOIIOOIIOOIIOO";
constexpr const char* kPropertyX = "IIXXIIXXIIXXIIXX";
constexpr const char* kMethod = "MOMOMOMOMOMOMOMO";
constexpr const char* kMethodX = "MXMXMXMXMXMXMXMX";
constexpr const char* kEitherX = "IXXXIXXXIXXXIXXX";
constexpr const char* kInvalid = "IIIIIIIIIIIIIIII";
constexpr const char* kCount = "BBBBBBBBBBBBBBBB";
constexpr const char* kUnknown = "MMMMMMMMMMMMMMMM";
constexpr const char* kMismatch = "MTMTMTMTMTMTMTMT";
constexpr int kFlags = 16;

/// What stands for an exception in a row.
struct Failure {
  HRESULT code;
  const wchar_t* text;
};
constexpr Failure kNoFailure = {};
constexpr Failure kClosed = {component::kClosedCode, component::kClosedText};
constexpr Failure kNoRecord = {component::kNoCurrentRecordCode,
                               component::kNoCurrentRecordText};
constexpr Failure kNotFound = {component::kNotFoundCode,
                               component::kNotFoundText};
constexpr Failure kNotBackward = {component::kNotBackwardCode,
                                  component::kNotBackwardText};
constexpr Failure kNotInThisContext = {component::kNotInThisContextCode,
                                       component::kNotInThisContextText};

struct Shape {
  DISPID member;
  int arguments;
  bool with_result;
  const char* outcomes;
  Failure failure;
};

/// Rows that need no place for a result, with one and without.
void add_both(std::vector<Shape>* rows, DISPID member, int arguments,
              const char* outcomes, const Failure& failure = kNoFailure) {
  for (const bool with_result : {false, true}) {
    rows->push_back({member, arguments, with_result, outcomes, failure});
  }
}

void add_property(std::vector<Shape>* rows, DISPID member,
                  const Failure& failure = kNoFailure) {
  const bool fails = failure.code != 0;
  rows->push_back({member, 0, true, fails ? kPropertyX : kProperty, failure});
  rows->push_back({member, 0, false, kInvalid, kNoFailure});
  for (const int arguments : {1, 2, 3}) {
    add_both(rows, member, arguments, kCount);
  }
}

void add_method(std::vector<Shape>* rows, DISPID member,
                const Failure& failure = kNoFailure) {
  const bool fails = failure.code != 0;
  add_both(rows, member, 0, fails ? kMethodX : kMethod, failure);
  for (const int arguments : {1, 2, 3}) {
    add_both(rows, member, arguments, kCount);
  }
}

/// Item of Fields, which a recordset with arguments is as well.
void add_item(std::vector<Shape>* rows, DISPID member, const Failure& failure) {
  rows->push_back({member, 1, true, kEitherX, failure});
  rows->push_back({member, 1, false, kInvalid, kNoFailure});
  for (const int arguments : {2, 3}) {
    add_both(rows, member, arguments, kCount);
  }
}

std::vector<Shape> shapes_of_recordset(bool closed) {
  const auto unless_closed = [closed](const Failure& failure) {
    return closed ? kClosed : failure;
  };
  std::vector<Shape> rows;
  for (const DISPID member : {0, 1}) {
    rows.push_back({member, 0, true, kProperty, kNoFailure});
    rows.push_back({member, 0, false, kInvalid, kNoFailure});
    add_item(&rows, member, unless_closed(kNotFound));
  }
  add_property(&rows, 2);
  for (const DISPID member : {3, 4, 7}) {
    add_property(&rows, member, unless_closed(kNoFailure));
  }
  add_method(&rows, 5, unless_closed(kNoRecord));
  add_method(&rows, 6, unless_closed(kNoFailure));
  add_method(&rows, 8, unless_closed(kNoRecord));
  add_method(&rows, 9, unless_closed(kNotBackward));
  add_method(&rows, 10, unless_closed(kNotInThisContext));
  // The argument is none that can be called, which is found out before the
  // recordset is looked at.
  add_both(&rows, 11, 0, kCount);
  add_both(&rows, 11, 1, kMismatch);
  add_both(&rows, 11, 2, kCount);
  for (const DISPID member : {-1, -2, -3, -4, -5, 12, 13, 100, 0x10001, INT_MAX,
                              INT_MIN, INT_MIN + 2}) {
    for (const int arguments : {0, 1, 2}) {
      add_both(&rows, member, arguments, kUnknown);
    }
  }
  return rows;
}

std::vector<Shape> shapes_of_fields(bool closed) {
  std::vector<Shape> rows;
  add_both(&rows, 0, 0, kCount);
  add_item(&rows, 0, closed ? kClosed : kNotFound);
  add_property(&rows, 1);
  rows.push_back({-4, 0, true, kEitherX, closed ? kClosed : kNoRecord});
  rows.push_back({-4, 0, false, kInvalid, kNoFailure});
  for (const int arguments : {1, 2}) add_both(&rows, -4, arguments, kCount);
  for (const DISPID member : {-1, -2, -3, -5, -6, 2, 3, 11, 100, 0x10001,
                              INT_MAX, INT_MIN, INT_MIN + 1}) {
    for (const int arguments : {0, 1, 2}) {
      add_both(&rows, member, arguments, kUnknown);
    }
  }
  return rows;
}

HRESULT result_of(char outcome) {
  switch (outcome) {
    case 'O':
      return S_OK;
    case 'I':
      return E_INVALIDARG;
    case 'B':
      return DISP_E_BADPARAMCOUNT;
    case 'M':
      return DISP_E_MEMBERNOTFOUND;
    case 'T':
      return DISP_E_TYPEMISMATCH;
    default:
      return DISP_E_EXCEPTION;
  }
}

void expect_outcome(IDispatch* object, const Call& call, char outcome,
                    const Failure& failure) {
  const Answer answer = invoke(object, call);
  if (outcome == 'O') {
    EXPECT_EQ(answer.result, S_OK);
  } else if (outcome != 'X') {
    expect_refused(answer, result_of(outcome));
  } else if (call.with_exception) {
    expect_exception(answer, failure.code, kRecordsetSource, failure.text);
  } else {
    EXPECT_EQ(answer.result, DISP_E_EXCEPTION);
  }
}

/// Every flag of every row; named as well, which nothing here cares about.
void expect_shapes(const std::vector<Shape>& rows, bool closed,
                   InterfacePtr<IDispatch> Objects::*object) {
  for (const Shape& row : rows) {
    ASSERT_EQ(std::strlen(row.outcomes), kFlags);
    for (WORD flags = 0; flags < kFlags; ++flags) {
      for (const bool named : {false, true}) {
        for (const bool with_exception : {false, true}) {
          Call call;
          call.member = row.member;
          call.flags = flags;
          call.put = named;
          call.with_result = row.with_result;
          call.with_exception = with_exception;
          for (int i = 0; i < row.arguments; ++i) {
            call.arguments.emplace_back(i);
          }
          SCOPED_TRACE(testing::Message()
                       << "member " << row.member << ", flags " << flags
                       << ", arguments " << row.arguments << ", result "
                       << row.with_result << ", named " << named
                       << ", exception " << with_exception);
          const Objects objects(closed);
          expect_outcome((objects.*object).get(), call, row.outcomes[flags],
                         row.failure);
          ASSERT_FALSE(testing::Test::HasFailure());
        }
      }
    }
  }
}

TEST(CallShapes, OfARecordset) {
  expect_shapes(shapes_of_recordset(false), false, &Objects::of_recordset);
}

TEST(CallShapes, OfAClosedRecordset) {
  expect_shapes(shapes_of_recordset(true), true, &Objects::of_recordset);
}

TEST(CallShapes, OfFields) {
  expect_shapes(shapes_of_fields(false), false, &Objects::of_fields);
}

TEST(CallShapes, OfTheFieldsOfAClosedRecordset) {
  expect_shapes(shapes_of_fields(true), true, &Objects::of_fields);
}

TEST(CallShapes, RefusedMethodsDoNothing) {
  const Objects objects;
  Call call;
  call.member = DISPID_ZIRDB_RECORDSET_CLOSE;
  call.flags = DISPATCH_PROPERTYGET | DISPATCH_PROPERTYPUT;
  invoke(objects.of_recordset.get(), call);
  call.flags = DISPATCH_METHOD;
  call.arguments = {1};
  invoke(objects.of_recordset.get(), call);
  call.member = DISPID_ZIRDB_RECORDSET_FOREACH;
  invoke(objects.of_recordset.get(), call);

  long state = 77;
  EXPECT_EQ(objects.recordset->get_State(&state), S_OK);
  EXPECT_EQ(state, ZIRDB_STATE_OPEN);
}

// What forEach takes as a callback, on a recordset that has nothing to call it
// for: it closes.
TEST(CallShapes, ForEachTakesACallableHoweverItIsWrapped) {
  objects::Dispatch callback;
  _variant_t dispatch(static_cast<IDispatch*>(&callback));
  const _variant_t unknown(static_cast<IUnknown*>(&callback));
  const VARIANT once = values::reference_to(&dispatch);
  VARIANT inner = once;
  const VARIANT twice = values::reference_to(&inner);
  for (const VARIANT& argument :
       {VARIANT{dispatch}, VARIANT{unknown}, once, twice}) {
    for (const bool named : {false, true}) {
      const Objects objects;
      Call call;
      call.member = DISPID_ZIRDB_RECORDSET_FOREACH;
      call.arguments = {argument};
      call.put = named;
      EXPECT_EQ(invoke(objects.of_recordset.get(), call).result, S_OK)
          << argument.vt;
      long state = 77;
      EXPECT_EQ(objects.recordset->get_State(&state), S_OK);
      EXPECT_EQ(state, ZIRDB_STATE_CLOSED) << argument.vt;
    }
  }
  EXPECT_EQ(callback.invocations(), 0);
  // The test's own, and those of the two variants.
  EXPECT_EQ(callback.references(), 3U);
}

TEST(CallShapes, ForEachTakesNothingElse) {
  objects::Unknown mute;
  objects::Dispatch callback;
  IDispatch* pointer = &callback;
  VARIANT by_reference{};
  by_reference.vt = VT_BYREF | VT_DISPATCH;
  by_reference.byref = &pointer;
  VARIANT broken = values::reference_to(nullptr);
  const _variant_t unknown(static_cast<IUnknown*>(&mute));
  const _variant_t text(L"callback");
  for (const VARIANT& argument :
       {VARIANT{}, values::plain(VT_NULL, 0), values::plain(VT_I8, 1),
        VARIANT{text}, values::plain(VT_DISPATCH, 0),
        values::plain(VT_UNKNOWN, 0), VARIANT{unknown}, by_reference, broken,
        values::reference_to(&broken)}) {
    for (const bool closed : {false, true}) {
      const Objects objects(closed);
      expect_refused(method(objects.of_recordset.get(),
                            DISPID_ZIRDB_RECORDSET_FOREACH, {argument}),
                     DISP_E_TYPEMISMATCH);
      long state = 77;
      EXPECT_EQ(objects.recordset->get_State(&state), S_OK);
      EXPECT_EQ(state, closed ? ZIRDB_STATE_CLOSED : ZIRDB_STATE_OPEN);
    }
  }
  EXPECT_EQ(mute.references(), 2U);
  EXPECT_EQ(callback.references(), 1U);
}

// ---------------------------------------------------------------------------
// What is looked at first
// ---------------------------------------------------------------------------

// Before the member, the flags, the arguments, and whether it is open.
TEST(InvokeOrder, TheInterfaceIdComesBeforeEverything) {
  for (const IID* const riid :
       {&IID_IDispatch, &IID_IUnknown, &IID_IZIRDBRecordset}) {
    for (const DISPID member : {-5, -4, -1, 0, 1, 2, 5, 6, 11, 12, 100}) {
      for (WORD flags = 0; flags < 5; ++flags) {
        for (const bool closed : {false, true}) {
          const Objects objects(closed);
          Call call;
          call.member = member;
          call.flags = flags;
          call.riid = *riid;
          expect_refused(invoke(objects.of_recordset.get(), call),
                         E_INVALIDARG);
          expect_refused(invoke(objects.of_fields.get(), call), E_INVALIDARG);
          call.arguments = {1, 2, 3};
          expect_refused(invoke(objects.of_recordset.get(), call),
                         E_INVALIDARG);
          expect_refused(invoke(objects.of_fields.get(), call), E_INVALIDARG);
          call.arguments.clear();
          call.with_result = false;
          expect_refused(invoke(objects.of_recordset.get(), call),
                         E_INVALIDARG);
          expect_refused(invoke(objects.of_fields.get(), call), E_INVALIDARG);
        }
      }
    }
  }
}

TEST(InvokeOrder, EveryByteOfTheInterfaceIdCounts) {
  const Objects objects;
  for (std::size_t at = 0; at < sizeof(IID); ++at) {
    Call call;
    call.member = DISPID_ZIRDB_RECORDSET_STATE;
    call.flags = DISPATCH_PROPERTYGET;
    void* const start = &call.riid;
    static_cast<unsigned char*>(start)[at] = 1;
    expect_refused(invoke(objects.of_recordset.get(), call), E_INVALIDARG);
  }
}

TEST(InvokeOrder, TheLocaleIsIgnored) {
  const Objects objects;
  for (const LCID lcid : {0x0409U, 0xFFFFFFFFU}) {
    DISPPARAMS none{};
    _variant_t result;
    EXPECT_EQ(objects.of_recordset->Invoke(DISPID_ZIRDB_RECORDSET_STATE,
                                           IID_NULL, lcid, DISPATCH_PROPERTYGET,
                                           &none, &result, nullptr, nullptr),
              S_OK);
    EXPECT_EQ(result.lVal, 1);
  }
}

// ---------------------------------------------------------------------------
// Arguments that are not there
// ---------------------------------------------------------------------------

struct Absent {
  InterfacePtr<IDispatch> Objects::*object;
  DISPID member;
  WORD flags;
  HRESULT result;
};

constexpr Absent kAbsent[] = {
    {&Objects::of_recordset, 0, DISPATCH_PROPERTYGET, S_OK},
    {&Objects::of_recordset, 1, DISPATCH_PROPERTYGET, S_OK},
    {&Objects::of_recordset, 1, DISPATCH_METHOD, E_INVALIDARG},
    {&Objects::of_recordset, 2, DISPATCH_PROPERTYGET, S_OK},
    {&Objects::of_recordset, 2, DISPATCH_METHOD, E_INVALIDARG},
    {&Objects::of_recordset, 2, DISPATCH_PROPERTYPUT, E_INVALIDARG},
    {&Objects::of_recordset, 5, DISPATCH_METHOD, DISP_E_EXCEPTION},
    {&Objects::of_recordset, 6, DISPATCH_METHOD, S_OK},
    {&Objects::of_recordset, 6, DISPATCH_PROPERTYGET, DISP_E_MEMBERNOTFOUND},
    {&Objects::of_recordset, 11, DISPATCH_METHOD, DISP_E_BADPARAMCOUNT},
    {&Objects::of_recordset, 11, DISPATCH_PROPERTYGET, DISP_E_BADPARAMCOUNT},
    {&Objects::of_recordset, 12, DISPATCH_METHOD, DISP_E_MEMBERNOTFOUND},
    {&Objects::of_fields, 0, DISPATCH_METHOD, DISP_E_BADPARAMCOUNT},
    {&Objects::of_fields, 0, DISPATCH_PROPERTYGET, DISP_E_BADPARAMCOUNT},
    {&Objects::of_fields, 1, DISPATCH_PROPERTYGET, S_OK},
    {&Objects::of_fields, -4, DISPATCH_METHOD, DISP_E_EXCEPTION},
};

void expect_no_arguments(DISPPARAMS* parameters) {
  for (const Absent& row : kAbsent) {
    const Objects objects;
    component::Exception exception;
    _variant_t result;
    EXPECT_EQ((objects.*row.object)
                  ->Invoke(row.member, IID_NULL, 0, row.flags, parameters,
                           &result, exception.get(), nullptr),
              row.result)
        << "member " << row.member << ", flags " << row.flags;
    EXPECT_EQ(exception->scode, row.result == DISP_E_EXCEPTION
                                    ? component::kNoCurrentRecordCode
                                    : 0);
  }
}

TEST(AbsentArguments, NoParametersAreNoArguments) {
  expect_no_arguments(nullptr);
}

TEST(AbsentArguments, ACountWithoutAnArrayIsNoArguments) {
  for (const UINT count : {1U, 2U, 0x80000000U, 0xFFFFFFFFU}) {
    DISPPARAMS parameters{};
    parameters.cArgs = count;
    expect_no_arguments(&parameters);
  }
}

TEST(AbsentArguments, ACountOfNamesWithoutAnArrayDoesNoHarm) {
  DISPPARAMS parameters{};
  parameters.cNamedArgs = 1;
  expect_no_arguments(&parameters);
}

TEST(AbsentArguments, AnArrayWithoutACountIsNotRead) {
  VARIANT garbage{};
  std::memset(&garbage, 0xA5, sizeof garbage);
  DISPPARAMS parameters{};
  parameters.rgvarg = &garbage;
  expect_no_arguments(&parameters);
}

// ---------------------------------------------------------------------------
// Results
// ---------------------------------------------------------------------------

/// 16 bytes that nobody may take for a value, let alone free.
VARIANT garbage(VARTYPE type) {
  VARIANT value{};
  std::memset(&value, 0xA5, sizeof value);
  value.vt = type;
  return value;
}

TEST(InvokeResults, AreInitialisedNotClearedAndThenFilled) {
  const struct {
    InterfacePtr<IDispatch> Objects::*object;
    DISPID member;
    VARIANT expected;
  } rows[] = {
      {&Objects::of_recordset, 2, values::plain(VT_I4, 1)},
      {&Objects::of_recordset, 3, values::plain(VT_BOOL, 0xFFFF)},
      {&Objects::of_recordset, 4, values::plain(VT_BOOL, 0xFFFF)},
      {&Objects::of_recordset, 7, values::plain(VT_I4, UINT64_MAX)},
      {&Objects::of_fields, 1, values::plain(VT_I4, 0)},
  };
  const Objects objects;
  for (const auto& row : rows) {
    for (const VARTYPE on_entry :
         {VT_BSTR, VT_DISPATCH, VT_UNKNOWN, VT_EMPTY}) {
      VARIANT result = garbage(on_entry);
      EXPECT_EQ((objects.*row.object)
                    ->Invoke(row.member, IID_NULL, 0, DISPATCH_PROPERTYGET,
                             nullptr, &result, nullptr, nullptr),
                S_OK);
      EXPECT_TRUE(values::same_bytes(result, row.expected))
          << "member " << row.member << ", on entry " << on_entry;
    }
  }
}

TEST(InvokeResults, ObjectsAreTheirLateBindingWithOneReference) {
  for (const DISPID member : {DISPID_VALUE, DISPID{1}}) {
    for (const WORD flags : {WORD{2}, WORD{3}, WORD{6}, WORD{15}}) {
      const Objects objects;
      VARIANT result = garbage(VT_DISPATCH);
      EXPECT_EQ(
          objects.of_recordset->Invoke(member, IID_NULL, 0, flags, nullptr,
                                       &result, nullptr, nullptr),
          S_OK);
      ASSERT_EQ(result.vt, VT_DISPATCH);
      const auto dispatch = InterfacePtr<IDispatch>::adopt(result.pdispVal);
      EXPECT_EQ(result.wReserved1, 0);
      EXPECT_EQ(component::references_of(dispatch.get()), 1U);
      const auto fields = query<IZIRDBFields>(dispatch.get(), IID_IZIRDBFields);
      ASSERT_TRUE(fields);
      const void* const base = fields.get();
      const void* const late_bound = result.pdispVal;
      EXPECT_EQ(late_bound, static_cast<const char*>(base) + 8);
      EXPECT_NE(fields.get(), objects.fields.get());
    }
  }
}

// Whatever it holds: the value stays the host's to free.
TEST(InvokeResults, AreUntouchedByFailuresAndByMethodsWithoutOne) {
  const struct {
    InterfacePtr<IDispatch> Objects::*object;
    DISPID member;
    WORD flags;
    int arguments;
    HRESULT result;
  } rows[] = {
      {&Objects::of_recordset, 5, DISPATCH_METHOD, 0, DISP_E_EXCEPTION},
      {&Objects::of_recordset, 8, DISPATCH_METHOD, 0, DISP_E_EXCEPTION},
      {&Objects::of_recordset, 9, DISPATCH_METHOD, 0, DISP_E_EXCEPTION},
      {&Objects::of_recordset, 10, DISPATCH_METHOD, 0, DISP_E_EXCEPTION},
      {&Objects::of_recordset, 6, DISPATCH_METHOD, 0, S_OK},
      {&Objects::of_recordset, 0, DISPATCH_METHOD, 1, DISP_E_EXCEPTION},
      {&Objects::of_recordset, 1, DISPATCH_PROPERTYGET, 1, DISP_E_EXCEPTION},
      {&Objects::of_recordset, 1, DISPATCH_METHOD, 0, E_INVALIDARG},
      {&Objects::of_recordset, 1, DISPATCH_METHOD, 2, DISP_E_BADPARAMCOUNT},
      {&Objects::of_recordset, 2, DISPATCH_METHOD, 0, E_INVALIDARG},
      {&Objects::of_recordset, 2, DISPATCH_PROPERTYGET, 1,
       DISP_E_BADPARAMCOUNT},
      {&Objects::of_recordset, 11, DISPATCH_METHOD, 1, DISP_E_TYPEMISMATCH},
      {&Objects::of_recordset, 99, DISPATCH_METHOD, 0, DISP_E_MEMBERNOTFOUND},
      {&Objects::of_fields, 0, DISPATCH_METHOD, 1, DISP_E_EXCEPTION},
      {&Objects::of_fields, -4, DISPATCH_METHOD, 0, DISP_E_EXCEPTION},
      {&Objects::of_fields, 2, DISPATCH_METHOD, 0, DISP_E_MEMBERNOTFOUND},
  };
  for (const auto& row : rows) {
    const Objects objects;
    std::array<VARIANT, 2> arguments = {_variant_t(1), _variant_t(2)};
    DISPPARAMS parameters{};
    parameters.rgvarg = arguments.data();
    parameters.cArgs = static_cast<UINT>(row.arguments);
    VARIANT result = garbage(VT_BSTR);
    EXPECT_EQ((objects.*row.object)
                  ->Invoke(row.member, IID_NULL, 0, row.flags, &parameters,
                           &result, nullptr, nullptr),
              row.result)
        << row.member;
    EXPECT_TRUE(values::same_bytes(result, garbage(VT_BSTR)))
        << "member " << row.member << ", arguments " << row.arguments;
  }
}

TEST(InvokeResults, OfForEachAreUntouchedToo) {
  const Objects objects;
  objects::Dispatch callback;
  VARIANT argument = values::plain(VT_DISPATCH, 0);
  argument.pdispVal = &callback;
  DISPPARAMS parameters{&argument, nullptr, 1, 0};
  VARIANT result = garbage(VT_BSTR);
  EXPECT_EQ(objects.of_recordset->Invoke(
                DISPID_ZIRDB_RECORDSET_FOREACH, IID_NULL, 0, DISPATCH_METHOD,
                &parameters, &result, nullptr, nullptr),
            S_OK);
  EXPECT_TRUE(values::same_bytes(result, garbage(VT_BSTR)));
  EXPECT_EQ(callback.references(), 1U);
}

TEST(InvokeResults, ArgumentsStayTheCallersAndAsTheyAre) {
  const Objects objects;
  _variant_t inner(L"name");
  const VARIANT reference = values::reference_to(&inner);
  for (const VARIANT& argument : {VARIANT{inner}, reference}) {
    VARIANT passed = argument;
    DISPPARAMS parameters{&passed, nullptr, 1, 0};
    _variant_t result;
    EXPECT_EQ(
        objects.of_fields->Invoke(DISPID_VALUE, IID_NULL, 0, DISPATCH_METHOD,
                                  &parameters, &result, nullptr, nullptr),
        DISP_E_EXCEPTION);
    EXPECT_TRUE(values::same_bytes(passed, argument));
    EXPECT_STREQ(inner.bstrVal, L"name");
  }
}

// ---------------------------------------------------------------------------
// Exception records
// ---------------------------------------------------------------------------

HRESULT deferred(EXCEPINFO* /*info*/) { return S_OK; }

/// A record from an earlier failure, every field of which says something.
void fill(EXCEPINFO* info) {
  info->wCode = 1;
  info->wReserved = 2;
  info->bstrSource = SysAllocString(L"earlier source");
  info->bstrDescription = SysAllocString(L"earlier description");
  info->bstrHelpFile = SysAllocString(L"earlier file");
  info->dwHelpContext = 3;
  info->pvReserved = info;
  info->pfnDeferredFillIn = deferred;
  info->scode = E_UNEXPECTED;
}

using ExceptionBytes = std::array<unsigned char, sizeof(EXCEPINFO)>;
ExceptionBytes bytes_of(const EXCEPINFO* info) {
  ExceptionBytes bytes{};
  std::memcpy(bytes.data(), info, bytes.size());
  return bytes;
}

HRESULT invoke_with(IDispatch* object, DISPID member, WORD flags,
                    std::vector<VARIANT> arguments, EXCEPINFO* exception,
                    REFIID riid = IID_NULL) {
  DISPPARAMS parameters{arguments.data(), nullptr,
                        static_cast<UINT>(arguments.size()), 0};
  _variant_t result;
  return object->Invoke(member, riid, 0, flags, &parameters, &result, exception,
                        nullptr);
}

TEST(ExceptionRecord, IsClearedAndFilledByAFailure) {
  const Objects objects;
  component::Exception exception;
  fill(exception.get());

  EXPECT_EQ(invoke_with(objects.of_recordset.get(),
                        DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, DISPATCH_METHOD,
                        {}, exception.get()),
            DISP_E_EXCEPTION);

  EXPECT_EQ(exception->wCode, 0);
  EXPECT_EQ(exception->wReserved, 0);
  EXPECT_STREQ(exception->bstrSource, L"ZIRDB.Recordset");
  EXPECT_EQ(SysStringLen(exception->bstrSource), 15U);
  EXPECT_STREQ(exception->bstrDescription,
               L"Operation is not allowed in this context.");
  EXPECT_EQ(SysStringLen(exception->bstrDescription), 41U);
  EXPECT_EQ(exception->bstrHelpFile, nullptr);
  EXPECT_EQ(exception->dwHelpContext, 0U);
  EXPECT_EQ(exception->pvReserved, nullptr);
  EXPECT_EQ(exception->pfnDeferredFillIn, nullptr);
  EXPECT_EQ(static_cast<std::uint32_t>(exception->scode), 0x800A0C93U);
}

// Item finds out by itself that a reference leads nowhere, and says no more.
TEST(ExceptionRecord, WithoutATextHasTheSourceOfTheClassAndNoDescription) {
  const Objects objects;
  const struct {
    IDispatch* object;
    DISPID member;
  } rows[] = {{objects.of_fields.get(), 0},
              {objects.of_recordset.get(), 0},
              {objects.of_recordset.get(), 1}};
  VARIANT broken = values::reference_to(nullptr);
  for (const auto& row : rows) {
    for (const VARIANT& argument : {broken, values::reference_to(&broken)}) {
      component::Exception exception;
      fill(exception.get());
      EXPECT_EQ(invoke_with(row.object, row.member, DISPATCH_METHOD, {argument},
                            exception.get()),
                DISP_E_EXCEPTION);
      EXPECT_EQ(exception->scode, E_INVALIDARG);
      EXPECT_STREQ(exception->bstrSource, L"ZIRDB.Fields");
      EXPECT_EQ(exception->bstrDescription, nullptr);
      EXPECT_EQ(exception->bstrHelpFile, nullptr);
      EXPECT_EQ(exception->wCode, 0);
    }
  }
}

TEST(ExceptionRecord, HasNothingOfAnEarlierFailure) {
  const Objects objects;
  const VARIANT broken = values::reference_to(nullptr);
  const auto expect_no_text = [&] {
    component::Exception exception;
    EXPECT_EQ(invoke_with(objects.of_fields.get(), 0, DISPATCH_METHOD, {broken},
                          exception.get()),
              DISP_E_EXCEPTION);
    EXPECT_STREQ(exception->bstrSource, L"ZIRDB.Fields");
    EXPECT_EQ(exception->bstrDescription, nullptr);
  };
  // By the operation itself, by its member, and by one that was refused.
  EXPECT_EQ(objects.recordset->MoveNext(), component::kNoCurrentRecordCode);
  expect_no_text();
  EXPECT_EQ(
      invoke_with(objects.of_recordset.get(), DISPID_ZIRDB_RECORDSET_MOVENEXT,
                  DISPATCH_METHOD, {}, nullptr),
      DISP_E_EXCEPTION);
  expect_no_text();
  EXPECT_EQ(objects.recordset->MovePrevious(),
            component::kNotInThisContextCode);
  EXPECT_EQ(
      invoke_with(objects.of_recordset.get(), 99, DISPATCH_METHOD, {}, nullptr),
      DISP_E_MEMBERNOTFOUND);
  expect_no_text();
}

TEST(ExceptionRecord, EachFailureHasItsOwn) {
  const Objects objects;
  component::Exception exception;
  const struct {
    DISPID member;
    HRESULT code;
    const wchar_t* text;
  } rows[] = {
      {DISPID_ZIRDB_RECORDSET_MOVENEXT, component::kNoCurrentRecordCode,
       component::kNoCurrentRecordText},
      {DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, component::kNotInThisContextCode,
       component::kNotInThisContextText},
      {DISPID_ZIRDB_RECORDSET_MOVELAST, component::kNotBackwardCode,
       component::kNotBackwardText},
      {DISPID_ZIRDB_RECORDSET_MOVEFIRST, component::kNoCurrentRecordCode,
       component::kNoCurrentRecordText},
  };
  for (const auto& row : rows) {
    // The same record over and over, as a host's loop does.
    EXPECT_EQ(invoke_with(objects.of_recordset.get(), row.member,
                          DISPATCH_METHOD, {}, exception.get()),
              DISP_E_EXCEPTION);
    EXPECT_EQ(exception->scode, row.code);
    EXPECT_STREQ(exception->bstrSource, kRecordsetSource);
    EXPECT_STREQ(exception->bstrDescription, row.text);
  }
}

TEST(ExceptionRecord, IsUntouchedByRefusalsAndSuccesses) {
  const struct {
    InterfacePtr<IDispatch> Objects::*object;
    DISPID member;
    WORD flags;
    int arguments;
    HRESULT result;
  } rows[] = {
      {&Objects::of_recordset, 99, DISPATCH_METHOD, 0, DISP_E_MEMBERNOTFOUND},
      {&Objects::of_recordset, 11, DISPATCH_METHOD, 1, DISP_E_TYPEMISMATCH},
      {&Objects::of_recordset, 11, DISPATCH_METHOD, 0, DISP_E_BADPARAMCOUNT},
      {&Objects::of_recordset, 11, 0, 1, DISP_E_MEMBERNOTFOUND},
      {&Objects::of_recordset, 5, DISPATCH_METHOD, 1, DISP_E_BADPARAMCOUNT},
      {&Objects::of_recordset, 5, DISPATCH_PROPERTYGET, 0,
       DISP_E_MEMBERNOTFOUND},
      {&Objects::of_recordset, 2, DISPATCH_METHOD, 0, E_INVALIDARG},
      {&Objects::of_recordset, 2, DISPATCH_PROPERTYGET, 1,
       DISP_E_BADPARAMCOUNT},
      {&Objects::of_recordset, 1, DISPATCH_METHOD, 0, E_INVALIDARG},
      {&Objects::of_recordset, 1, 0, 1, E_INVALIDARG},
      {&Objects::of_recordset, 1, DISPATCH_METHOD, 2, DISP_E_BADPARAMCOUNT},
      {&Objects::of_fields, 0, DISPATCH_METHOD, 2, DISP_E_BADPARAMCOUNT},
      {&Objects::of_fields, 0, 0, 1, E_INVALIDARG},
      {&Objects::of_fields, -4, 0, 0, E_INVALIDARG},
      {&Objects::of_fields, -4, DISPATCH_METHOD, 1, DISP_E_BADPARAMCOUNT},
      {&Objects::of_fields, 7, DISPATCH_METHOD, 0, DISP_E_MEMBERNOTFOUND},
      {&Objects::of_recordset, 2, DISPATCH_PROPERTYGET, 0, S_OK},
      {&Objects::of_recordset, 1, DISPATCH_PROPERTYGET, 0, S_OK},
      {&Objects::of_recordset, 6, DISPATCH_METHOD, 0, S_OK},
      {&Objects::of_fields, 1, DISPATCH_PROPERTYGET, 0, S_OK},
  };
  for (const auto& row : rows) {
    const Objects objects;
    component::Exception exception;
    fill(exception.get());
    const ExceptionBytes before = bytes_of(exception.get());
    EXPECT_EQ(
        invoke_with((objects.*row.object).get(), row.member, row.flags,
                    std::vector<VARIANT>(
                        static_cast<std::size_t>(row.arguments), VARIANT{}),
                    exception.get()),
        row.result)
        << row.member;
    EXPECT_EQ(bytes_of(exception.get()), before) << row.member;
    EXPECT_STREQ(exception->bstrDescription, L"earlier description");
    EXPECT_EQ(invoke_with((objects.*row.object).get(), row.member, row.flags,
                          {}, exception.get(), IID_IDispatch),
              E_INVALIDARG);
    EXPECT_EQ(bytes_of(exception.get()), before) << row.member;
  }
}

TEST(ExceptionRecord, IsNotNeeded) {
  const Objects objects(true);
  for (const DISPID member : {5, 6, 8, 9, 10}) {
    EXPECT_EQ(invoke_with(objects.of_recordset.get(), member, DISPATCH_METHOD,
                          {}, nullptr),
              DISP_E_EXCEPTION);
  }
  for (const DISPID member : {3, 4, 7}) {
    EXPECT_EQ(invoke_with(objects.of_recordset.get(), member,
                          DISPATCH_PROPERTYGET, {}, nullptr),
              DISP_E_EXCEPTION);
  }
}

// No member says which argument was wrong, whatever it was.
TEST(ExceptionRecord, ThePlaceOfABadArgumentIsNeverWritten) {
  const Objects objects;
  for (const DISPID member : {0, 1, 5, 11, 99}) {
    for (const UINT count : {0U, 1U, 2U}) {
      std::array<VARIANT, 2> arguments = {values::reference_to(nullptr),
                                          values::reference_to(nullptr)};
      DISPPARAMS parameters{arguments.data(), nullptr, count, 0};
      _variant_t result;
      UINT bad_argument = 0xA5A5A5A5;
      objects.of_recordset->Invoke(member, IID_NULL, 0, 3, &parameters, &result,
                                   nullptr, &bad_argument);
      EXPECT_EQ(bad_argument, 0xA5A5A5A5) << member;
    }
  }
}

}  // namespace
