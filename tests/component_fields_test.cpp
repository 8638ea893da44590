// SPDX-License-Identifier: MIT
//
// Fields and Field objects: what they answer on a row, past the end and on a
// closed recordset, wherever the cursor stood when they were made.
//
// Sections: made here, read there; captured values; order of checks.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/recordsets.h"

namespace {

using component::Answer;
using component::dispatch_of;
using component::expect_exception;
using component::kClosedCode;
using component::kNoCurrentRecordCode;
using component::kNoFieldCode;
using component::kNotFoundCode;
using recordsets::count_of;
using recordsets::failure;
using recordsets::Field;
using recordsets::Fields;
using recordsets::fields_of;
using recordsets::go;
using recordsets::item_of;
using recordsets::kDone;
using recordsets::kRoads;
using recordsets::kSource;
using recordsets::name_of;
using recordsets::numbered;
using recordsets::object_in;
using recordsets::outcome;
using recordsets::Outcome;
using recordsets::plain;
using recordsets::Recordset;
using recordsets::references;
using recordsets::Road;
using recordsets::value_of;

// ---------------------------------------------------------------------------
// Made here, read there
// ---------------------------------------------------------------------------

/// A number that is read, or why it cannot be.
struct Reading {
  HRESULT code;
  std::int64_t number = 0;
};

struct Case {
  int rows;
  std::string before;  ///< the Fields object is made behind these
  std::string then;    ///< and read behind these
  long count;
  HRESULT item;
  Reading fresh;  ///< through a Field that is made last
  Reading early;  ///< through a Field that was made with the Fields object
  HRESULT enumeration;
  std::vector<std::int64_t> enumerated;  ///< per column; 0 is NULL
};

constexpr Reading kNone = {1};  ///< there is no such Field
constexpr Reading kNoRow = {kNoCurrentRecordCode};
constexpr Reading kGone = {kNoFieldCode};

const Case kCases[] = {
    // Made on the second of three rows.
    {3, "n", "", 2, S_OK, {S_OK, 2}, {S_OK, 2}, S_OK, {2, 2}},
    {3, "n", "n", 2, S_OK, {S_OK, 3}, {S_OK, 3}, S_OK, {2, 2}},
    {3, "n", "e", 2, S_OK, {S_OK, 2}, {S_OK, 2}, S_OK, {2, 2}},
    {3, "n", "l", 2, S_OK, {S_OK, 2}, {S_OK, 2}, S_OK, {2, 2}},
    {3, "n", "f", 2, S_OK, {S_OK, 1}, {S_OK, 1}, S_OK, {2, 2}},
    {3, "n", "ef", 2, S_OK, {S_OK, 1}, {S_OK, 1}, S_OK, {2, 2}},
    {3, "n", "lf", 2, S_OK, {S_OK, 1}, {S_OK, 1}, S_OK, {2, 2}},
    {3, "n", "efe", 2, S_OK, {S_OK, 2}, {S_OK, 2}, S_OK, {2, 2}},
    {3, "n", "c", 2, kClosedCode, kNone, kGone, kClosedCode, {}},
    {3, "n", "ec", 2, kClosedCode, kNone, kGone, kClosedCode, {}},
    {3, "n", "d", 0, E_FAIL, kNone, kGone, S_OK, {}},
    {3, "n", "ed", 0, E_FAIL, kNone, kGone, S_OK, {}},
    {3, "n", "cd", 0, E_FAIL, kNone, kGone, S_OK, {}},
    {3, "n", "dC", 0, E_FAIL, kNone, kGone, S_OK, {}},
    // Made at the end.
    {3, "e", "", 2, S_OK, kNoRow, kNoRow, kNoCurrentRecordCode, {}},
    {3, "e", "l", 2, S_OK, kNoRow, kNoRow, kNoCurrentRecordCode, {}},
    {3, "e", "f", 2, S_OK, {S_OK, 1}, {S_OK, 1}, kNoCurrentRecordCode, {}},
    {3, "e", "fn", 2, S_OK, {S_OK, 2}, {S_OK, 2}, kNoCurrentRecordCode, {}},
    {3, "e", "fe", 2, S_OK, kNoRow, kNoRow, kNoCurrentRecordCode, {}},
    {3, "e", "c", 2, kClosedCode, kNone, kGone, kClosedCode, {}},
    {3, "e", "fc", 2, kClosedCode, kNone, kGone, kClosedCode, {}},
    {3, "e", "d", 0, E_FAIL, kNone, kGone, S_OK, {}},
    {3, "e", "cd", 0, E_FAIL, kNone, kGone, S_OK, {}},
    {3, "e", "dC", 0, E_FAIL, kNone, kGone, S_OK, {}},
    // Made behind a refused MoveLast.
    {3, "l", "", 2, S_OK, kNoRow, kNoRow, kNoCurrentRecordCode, {}},
    {3, "nl", "f", 2, S_OK, {S_OK, 1}, {S_OK, 1}, kNoCurrentRecordCode, {}},
    {3, "nl", "fl", 2, S_OK, kNoRow, kNoRow, kNoCurrentRecordCode, {}},
    {3, "l", "c", 2, kClosedCode, kNone, kGone, kClosedCode, {}},
    {3, "l", "d", 0, E_FAIL, kNone, kGone, S_OK, {}},
    // Made without rows.
    {0, "", "", 2, S_OK, kNoRow, kNoRow, kNoCurrentRecordCode, {}},
    {0, "", "l", 2, S_OK, kNoRow, kNoRow, kNoCurrentRecordCode, {}},
    {0, "", "c", 2, kClosedCode, kNone, kGone, kClosedCode, {}},
    {0, "", "d", 0, E_FAIL, kNone, kGone, S_OK, {}},
    {0, "", "cd", 0, E_FAIL, kNone, kGone, S_OK, {}},
    // Made on a recordset that was closed.
    {3, "c", "", 2, kClosedCode, kNone, kNone, kClosedCode, {}},
    {3, "c", "C", 2, kClosedCode, kNone, kNone, kClosedCode, {}},
    {3, "ec", "", 2, kClosedCode, kNone, kNone, kClosedCode, {}},
    {0, "c", "", 2, kClosedCode, kNone, kNone, kClosedCode, {}},
    {3, "c", "d", 0, E_FAIL, kNone, kNone, S_OK, {}},
    // Made when the connection had closed it.
    {3, "d", "", 0, kNotFoundCode, kNone, kNone, S_OK, {}},
    {3, "d", "C", 0, kNotFoundCode, kNone, kNone, S_OK, {}},
    {3, "d", "d", 0, kNotFoundCode, kNone, kNone, S_OK, {}},
    {3, "ed", "", 0, kNotFoundCode, kNone, kNone, S_OK, {}},
    {3, "cd", "", 0, kNotFoundCode, kNone, kNone, S_OK, {}},
    {0, "d", "", 0, kNotFoundCode, kNone, kNone, S_OK, {}},
};

struct Made {
  Recordset recordset;
  Fields fields;
  Field early;  ///< of the first column; empty where Item is refused
};

Made make(const Case& row) {
  Made made;
  made.recordset = numbered(row.rows);
  go(made.recordset, row.before);
  made.fields = fields_of(made.recordset);
  made.early = item_of(made.fields, _variant_t(0)).second;
  go(made.recordset, row.then);
  return made;
}

/// Runs `check(road, row, made)` for each row of the table by each road.
template <class Check>
void in_every_case(const Check& check) {
  for (const Road road : kRoads) {
    for (const Case& row : kCases) {
      SCOPED_TRACE(testing::Message()
                   << row.rows << " rows, made after \"" << row.before
                   << "\", read after \"" << row.then << "\", " << road);
      check(road, row, make(row));
    }
  }
}

std::pair<Outcome, Field> item(Road road, const Fields& fields,
                               const _variant_t& index) {
  if (road == Road::Vtable) {
    auto [result, field] = item_of(fields, index);
    return {outcome(result), field};
  }
  const Answer answer =
      component::method(dispatch_of(fields.get()).get(), 0, {index});
  const Outcome end = outcome(answer);
  if (answer.result != S_OK) {
    EXPECT_EQ(answer.value.vt, VT_EMPTY);
    return {end, {}};
  }
  return {end, object_in<IZIRDBField>(answer, VT_DISPATCH, IID_IZIRDBField)};
}

std::pair<Outcome, _variant_t> value(Road road, const Field& field) {
  if (road == Road::Vtable) {
    _variant_t read;
    const Outcome end = outcome(field->get_Value(&read));
    return {end, read};
  }
  const Answer answer = component::get(dispatch_of(field.get()).get(), 0);
  return {outcome(answer), answer.value};
}

std::pair<Outcome, std::wstring> name(Road road, const Field& field) {
  if (road == Road::Vtable) {
    _bstr_t read;
    const Outcome end = outcome(field->get_Name(&read.m_s));
    return {end, read.m_s == nullptr ? L"" : read.m_s};
  }
  const Answer answer = component::get(dispatch_of(field.get()).get(), 1);
  const Outcome end = outcome(answer);
  if (answer.result != S_OK) {
    EXPECT_EQ(answer.value.vt, VT_EMPTY);
    return {end, L""};
  }
  EXPECT_EQ(answer.value.vt, VT_BSTR);
  return {end, values::text_of(answer.value)};
}

void expect_reading(Road road, const Field& field, const Reading& expected) {
  ASSERT_EQ(static_cast<bool>(field), expected.code != kNone.code);
  if (!field) return;
  const auto [end, read] = value(road, field);
  EXPECT_EQ(end, failure(expected.code));
  if (expected.code == S_OK) {
    EXPECT_EQ(read.vt, VT_I8);
    EXPECT_EQ(read.llVal, expected.number);
  } else {
    EXPECT_EQ(read.vt, VT_EMPTY);
  }
}

void expect_name(Road road, const Field& field, const Reading& expected,
                 const std::wstring& text) {
  if (!field) return;
  const auto [end, read] = name(road, field);
  const bool gone = expected.code == kGone.code;
  EXPECT_EQ(end, gone ? failure(kNoFieldCode) : kDone);
  EXPECT_EQ(read, gone ? L"" : text);
}

TEST(FieldsMadeHereReadThere, CountTheColumns) {
  in_every_case([](Road road, const Case& row, const Made& made) {
    if (road == Road::Vtable) {
      long count = -77;
      EXPECT_EQ(outcome(made.fields->get_Count(&count)), kDone);
      EXPECT_EQ(count, row.count);
      return;
    }
    const Answer answer =
        component::get(dispatch_of(made.fields.get()).get(), 1);
    EXPECT_EQ(outcome(answer), kDone);
    EXPECT_EQ(answer.value.vt, VT_I4);
    EXPECT_EQ(answer.value.lVal, row.count);
  });
}

TEST(FieldsMadeHereReadThere, FindAnItemOrSayWhyNot) {
  in_every_case([](Road road, const Case& row, const Made& made) {
    for (const _variant_t& index :
         {_variant_t(0), _variant_t(L"number"), _variant_t(L"NUMBER")}) {
      const auto [end, field] = item(road, made.fields, index);
      EXPECT_EQ(end, failure(row.item));
      EXPECT_EQ(static_cast<bool>(field), row.item == S_OK);
    }
  });
}

TEST(FieldsMadeHereReadThere, ReportAnUnknownItemOnlyWhenNotClosed) {
  in_every_case([](Road road, const Case& row, const Made& made) {
    const HRESULT expected = row.item == S_OK ? kNotFoundCode : row.item;
    for (const _variant_t& index :
         {_variant_t(2), _variant_t(-1), _variant_t(L"none")}) {
      EXPECT_EQ(item(road, made.fields, index).first, failure(expected));
    }
  });
}

TEST(FieldsMadeHereReadThere, GiveItemsThatReadTheRow) {
  in_every_case([](Road road, const Case& row, const Made& made) {
    const auto [end, field] = item(road, made.fields, _variant_t(0));
    expect_reading(road, field, row.fresh);
    expect_name(road, field, row.fresh, L"number");
  });
}

TEST(FieldsMadeHereReadThere, GiveItemsOfTheSecondColumnToo) {
  in_every_case([](Road road, const Case& row, const Made& made) {
    const auto [end, field] = item(road, made.fields, _variant_t(L"text"));
    if (row.fresh.code != S_OK) return;
    ASSERT_TRUE(field);
    const auto [read_end, read] = value(road, field);
    EXPECT_EQ(read_end, kDone);
    EXPECT_EQ(read.vt, VT_BSTR);
    EXPECT_EQ(values::text_of(read),
              L"row " + std::to_wstring(row.fresh.number));
  });
}

TEST(FieldsMadeHereReadThere, GaveItemsThatStillReadTheRow) {
  in_every_case([](Road road, const Case& row, const Made& made) {
    expect_reading(road, made.early, row.early);
    expect_name(road, made.early, row.early, L"number");
  });
}

TEST(FieldsMadeHereReadThere, EnumerateTheRowWhereTheyWereMade) {
  in_every_case([](Road, const Case& row, const Made& made) {
    const Answer answer = recordsets::new_enum(made.fields);
    EXPECT_EQ(outcome(answer), failure(row.enumeration));
    if (row.enumeration != S_OK) {
      EXPECT_EQ(answer.value.vt, VT_EMPTY);
      return;
    }
    const auto enumerator =
        object_in<IEnumVARIANT>(answer, VT_UNKNOWN, IID_IEnumVARIANT);
    ASSERT_TRUE(enumerator);
    std::vector<std::int64_t> rows;
    while (const Field field = recordsets::next_of(enumerator)) {
      const _variant_t read = value_of(field).second;
      rows.push_back(read.vt == VT_I8
                         ? read.llVal
                         : std::stoll(values::text_of(read).substr(4)));
    }
    EXPECT_EQ(rows, row.enumerated);
  });
}

TEST(FieldsMadeHereReadThere, MoveNothingWhenTheyAreRead) {
  in_every_case([](Road road, const Case&, const Made& made) {
    const std::string before = recordsets::where(made.recordset);
    count_of(made.fields);
    item(road, made.fields, _variant_t(0));
    if (made.early) value(road, made.early);
    recordsets::new_enum(made.fields);
    EXPECT_EQ(recordsets::where(made.recordset), before);
  });
}

TEST(FieldsOfAResultWithoutColumns, CountNoneAndAreThoseOfAClosedRecordset) {
  const Recordset recordset = workbench::recordset_without_columns();
  const Fields fields = fields_of(recordset);
  EXPECT_EQ(count_of(fields), 0);
  for (const Road road : kRoads) {
    EXPECT_EQ(item(road, fields, _variant_t(0)).first, failure(kClosedCode));
  }
  EXPECT_EQ(outcome(recordsets::new_enum(fields)), failure(kClosedCode));
  EXPECT_EQ(references(recordset.get()), 2U) << "they hold it";
}

TEST(FieldsOfAResultWithoutColumns, AreEmptyOnceTheConnectionClosed) {
  const Recordset recordset = workbench::recordset_without_columns();
  const Fields before = fields_of(recordset);
  go(recordset, "d");
  const Fields after = fields_of(recordset);
  for (const Road road : kRoads) {
    EXPECT_EQ(item(road, before, _variant_t(0)).first, failure(E_FAIL));
    EXPECT_EQ(item(road, after, _variant_t(0)).first, failure(kNotFoundCode));
  }
  EXPECT_EQ(count_of(before), 0);
  EXPECT_EQ(count_of(after), 0);
  EXPECT_TRUE(recordsets::enumerator_of(before));
  EXPECT_TRUE(recordsets::enumerator_of(after));
}

// ---------------------------------------------------------------------------
// Captured values
// ---------------------------------------------------------------------------

std::int64_t number_in(const Field& field) {
  const auto [result, read] = value_of(field);
  EXPECT_EQ(result, S_OK);
  EXPECT_EQ(read.vt, VT_I8);
  return read.llVal;
}

TEST(FieldCaptures, TheValueThatWasCurrentWhenItWasMade) {
  const Recordset recordset = numbered(3);
  const Fields fields = fields_of(recordset);
  const Field on_first = item_of(fields, _variant_t(0)).second;
  go(recordset, "n");
  const Field on_second = item_of(fields, _variant_t(0)).second;
  go(recordset, "e");
  const Field at_end = item_of(fields, _variant_t(0)).second;
  EXPECT_EQ(number_in(on_first), 1);
  EXPECT_EQ(number_in(on_second), 2);
  EXPECT_EQ(number_in(at_end), 1);
}

TEST(FieldCaptures, NothingForGood) {
  const Recordset recordset = numbered(3);
  const Field field = recordsets::field_of(recordset, _variant_t(0));
  go(recordset, "e");
  EXPECT_EQ(number_in(field), 1);
  go(recordset, "fn");
  EXPECT_EQ(number_in(field), 2);
  go(recordset, "e");
  EXPECT_EQ(number_in(field), 1);
}

TEST(FieldCaptures, NothingToFallBackOnWhenItsFieldsWereMadeAtTheEnd) {
  const Recordset recordset = numbered(3);
  go(recordset, "e");
  const Fields fields = fields_of(recordset);
  go(recordset, "f");
  const Field field = item_of(fields, _variant_t(0)).second;
  EXPECT_EQ(number_in(field), 1);
  go(recordset, "e");
  EXPECT_EQ(value_of(field).first, kNoCurrentRecordCode);
}

TEST(FieldCaptures, EachColumnsOwnValue) {
  const Recordset recordset = workbench::recordset(
      {"a", "b", "c"},
      {{std::string("left"), workbench::Null{}, workbench::Blob{7}},
       {std::string("right"), 2.5, true}});
  const Fields fields = fields_of(recordset);
  go(recordset, "e");
  const _variant_t a =
      value_of(item_of(fields, _variant_t(L"a")).second).second;
  EXPECT_EQ(values::text_of(a), L"left");
  EXPECT_EQ(value_of(item_of(fields, _variant_t(1)).second).second.vt, VT_NULL);
  EXPECT_EQ(value_of(item_of(fields, _variant_t(L"C")).second).second.vt,
            VT_ARRAY | VT_UI1);
}

TEST(FieldCaptures, TheSameThroughTheRecordsetsDefaultMember) {
  for (const DISPID member : {0, 1}) {
    const Recordset recordset = numbered(3);
    go(recordset, "n");
    const Answer answer = component::method(dispatch_of(recordset.get()).get(),
                                            member, {L"number"});
    const Field field =
        object_in<IZIRDBField>(answer, VT_DISPATCH, IID_IZIRDBField);
    EXPECT_EQ(number_in(field), 2);
    go(recordset, "n");
    EXPECT_EQ(number_in(field), 3);
    go(recordset, "e");
    EXPECT_EQ(number_in(field), 2);
    go(recordset, "c");
    EXPECT_EQ(value_of(field).first, kNoFieldCode);
  }
}

TEST(FieldCaptures, NothingThroughTheRecordsetsDefaultMemberAtTheEnd) {
  for (const DISPID member : {0, 1}) {
    const Recordset recordset = numbered(3);
    go(recordset, "e");
    const Answer answer = component::method(dispatch_of(recordset.get()).get(),
                                            member, {L"number"});
    const Field field =
        object_in<IZIRDBField>(answer, VT_DISPATCH, IID_IZIRDBField);
    ASSERT_TRUE(field);
    EXPECT_EQ(name_of(field).second, L"number");
    _variant_t read;
    EXPECT_EQ(outcome(field->get_Value(&read)), failure(kNoCurrentRecordCode));
  }
}

// ---------------------------------------------------------------------------
// Order of checks
// ---------------------------------------------------------------------------

TEST(FieldsNullPointers, AreRefusedBeforeAnythingIsLookedAt) {
  in_every_case([](Road, const Case&, const Made& made) {
    EXPECT_EQ(outcome(made.fields->get_Count(nullptr)), plain(E_INVALIDARG));
    EXPECT_EQ(outcome(made.fields->Item(_variant_t(L"none"), nullptr)),
              plain(E_INVALIDARG));
    if (made.early) {
      EXPECT_EQ(outcome(made.early->get_Value(nullptr)), plain(E_INVALIDARG));
      EXPECT_EQ(outcome(made.early->get_Name(nullptr)), plain(E_INVALIDARG));
    }
  });
}

TEST(FieldsMissingIndex, IsRefusedUnlessTheRecordsetIsClosed) {
  in_every_case([](Road, const Case& row, const Made& made) {
    const bool closed = row.item == kClosedCode || row.item == E_FAIL;
    const auto [result, field] =
        item_of(made.fields, values::reference_to(nullptr));
    EXPECT_EQ(outcome(result),
              closed ? failure(row.item) : plain(E_INVALIDARG));
    EXPECT_FALSE(field);
  });
}

TEST(FieldsMissingIndex, LateBoundCarriesTheFieldsOwnSource) {
  const Recordset recordset = numbered(1);
  const Fields fields = fields_of(recordset);
  VARIANT link = values::reference_to(nullptr);
  const _variant_t missing = values::owned(values::reference_to(&link));
  expect_exception(
      component::method(dispatch_of(fields.get()).get(), 0, {missing}),
      E_INVALIDARG, L"ZIRDB.Fields", nullptr);
  expect_exception(component::method(dispatch_of(fields.get()).get(), 0, {9}),
                   kNotFoundCode, kSource, component::kNotFoundText);
}

}  // namespace
