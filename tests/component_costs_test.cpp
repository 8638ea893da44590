// SPDX-License-Identifier: MIT
//
// What the component asks the allocator for, request by request. A script makes
// a Fields object for every cell that it reads: these costs must not grow with
// the number of columns or with the length of values, moving the cursor must
// cost nothing, and rows no more than what they hold.
//
// How long things take is the business of the benchmarks.
//
// Sections: data; fields; values; the cursor; enumerators; rows.

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using allocator::g_watched;
using allocator::Request;
using allocator::requests_of;
using component::dispatch_of;
using workbench::Blob;
using workbench::Cell;
using workbench::Row;

// ---------------------------------------------------------------------------
// Data
// ---------------------------------------------------------------------------

/// Column i is "column_I".
std::vector<std::string> names(std::size_t columns) {
  std::vector<std::string> all;
  for (std::size_t i = 0; i < columns; ++i) {
    all.push_back("column_" + std::to_string(i));
  }
  return all;
}

/// A recordset of three rows whose values are texts of `bytes` bytes each.
struct Shape {
  std::size_t columns;
  std::size_t bytes;
};

std::ostream& operator<<(std::ostream& stream, const Shape& shape) {
  return stream << shape.columns << " columns of " << shape.bytes << " bytes";
}

constexpr Shape kSmallest = {1, 10};
constexpr Shape kShapes[] = {
    kSmallest,  {10, 10},    {100, 10},    {200, 10},
    {1, 10000}, {10, 10000}, {200, 10000},
};

InterfacePtr<IZIRDBRecordset> recordset(const Shape& shape) {
  const Row row(shape.columns, Cell(std::string(shape.bytes, 'x')));
  return workbench::recordset(names(shape.columns), {row, row, row});
}

InterfacePtr<IZIRDBFields> fields_of(
    const InterfacePtr<IZIRDBRecordset>& recordset) {
  return component::received<IZIRDBFields>(
             [&](IZIRDBFields** out) { return recordset->get_Fields(out); })
      .second;
}

InterfacePtr<IZIRDBField> item(const InterfacePtr<IZIRDBFields>& fields,
                               const _variant_t& index) {
  return component::received<IZIRDBField>(
             [&](IZIRDBField** out) { return fields->Item(index, out); })
      .second;
}

InterfacePtr<IEnumVARIANT> enumerator_of(
    const InterfacePtr<IZIRDBFields>& fields) {
  const component::Answer answer =
      component::get(dispatch_of(fields.get()).get(), DISPID_NEWENUM);
  EXPECT_EQ(answer.result, S_OK);
  return component::query<IEnumVARIANT>(answer.value.punkVal, IID_IEnumVARIANT);
}

/// What was asked for, and how much each time.
struct Cost {
  std::vector<std::size_t> sizes;
  bool operator==(const Cost& other) const { return sizes == other.sizes; }
};

std::ostream& operator<<(std::ostream& stream, const Cost& cost) {
  stream << cost.sizes.size() << " requests:";
  for (const std::size_t size : cost.sizes) stream << ' ' << size;
  return stream;
}

/// Of a call that must succeed.
template <class Call>
Cost cost_of(const Call& call) {
  HRESULT result = E_FAIL;
  Cost cost;
  for (const Request& request : requests_of([&] { result = call(); })) {
    cost.sizes.push_back(request.size);
  }
  EXPECT_EQ(result, S_OK) << std::hex << result;
  return cost;
}

/// The same late-bound, with at most one argument. What comes back is freed.
Cost late_cost(IDispatch* object, DISPID member, WORD flags,
               const _variant_t* argument = nullptr) {
  VARIANT given{};
  DISPPARAMS arguments{};
  if (argument != nullptr) {
    given = *argument;
    arguments.rgvarg = &given;
    arguments.cArgs = 1;
  }
  _variant_t result;
  return cost_of([&] {
    return object->Invoke(member, IID_NULL, 0, flags, &arguments, &result,
                          nullptr, nullptr);
  });
}

const Cost kNothing = {};

// ---------------------------------------------------------------------------
// Fields
// ---------------------------------------------------------------------------

Cost cost_of_fields(const InterfacePtr<IZIRDBRecordset>& recordset) {
  InterfacePtr<IZIRDBFields> kept;
  return cost_of([&] {
    IZIRDBFields* fields = nullptr;
    const HRESULT result = recordset->get_Fields(&fields);
    kept = InterfacePtr<IZIRDBFields>::adopt(fields);
    return result;
  });
}

enum class Where { kFirstRow, kLaterRow, kEnd, kClosed };

InterfacePtr<IZIRDBRecordset> standing(const Shape& shape, Where where) {
  InterfacePtr<IZIRDBRecordset> made = recordset(shape);
  if (where == Where::kLaterRow) {
    EXPECT_EQ(made->MoveNext(), S_OK);
  }
  if (where == Where::kEnd) {
    EXPECT_NE(made->MoveLast(), S_OK);
  }
  if (where == Where::kClosed) {
    EXPECT_EQ(made->Close(), S_OK);
  }
  return made;
}

TEST(Costs, AFieldsObjectIsOneBlockWhateverTheColumnsAndValues) {
  const Cost least = cost_of_fields(recordset(kSmallest));
  EXPECT_EQ(least.sizes.size(), 1U) << least;
  for (const Shape& shape : kShapes) {
    for (const Where where :
         {Where::kFirstRow, Where::kLaterRow, Where::kEnd, Where::kClosed}) {
      EXPECT_EQ(cost_of_fields(standing(shape, where)), least)
          << shape << ", " << static_cast<int>(where);
    }
  }
}

TEST(Costs, AFieldsObjectCostsTheSameEveryTime) {
  const auto rows = recordset({200, 10000});
  const Cost first = cost_of_fields(rows);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(cost_of_fields(rows), first);
}

TEST(Costs, ALateBoundFieldsObjectCostsNoMore) {
  const Cost least = cost_of_fields(recordset(kSmallest));
  for (const Shape& shape : kShapes) {
    const auto rows = recordset(shape);
    EXPECT_EQ(late_cost(dispatch_of(rows.get()).get(),
                        DISPID_ZIRDB_RECORDSET_FIELDS, DISPATCH_PROPERTYGET),
              least)
        << shape;
  }
}

TEST(Costs, AFieldsObjectGoesWithoutAsking) {
  for (const Shape& shape : kShapes) {
    const auto rows = recordset(shape);
    auto fields = fields_of(rows);
    EXPECT_EQ(cost_of([&] {
                fields = {};
                return S_OK;
              }),
              kNothing)
        << shape;
    EXPECT_EQ(g_watched.frees, 1) << shape;
  }
}

Cost cost_of_item(const InterfacePtr<IZIRDBFields>& fields,
                  const _variant_t& index) {
  InterfacePtr<IZIRDBField> kept;
  return cost_of([&] {
    IZIRDBField* field = nullptr;
    const HRESULT result = fields->Item(index, &field);
    kept = InterfacePtr<IZIRDBField>::adopt(field);
    return result;
  });
}

// The value is not copied before somebody asks for it.
TEST(Costs, AFieldIsOneBlockWhateverTheColumnsAndValues) {
  const Cost least = cost_of_item(fields_of(recordset(kSmallest)), 0);
  EXPECT_EQ(least.sizes.size(), 1U) << least;
  for (const Shape& shape : kShapes) {
    const auto fields = fields_of(recordset(shape));
    for (const std::size_t column : {std::size_t{0}, shape.columns - 1}) {
      EXPECT_EQ(cost_of_item(fields, column), least)
          << shape << ", column " << column;
      EXPECT_EQ(late_cost(dispatch_of(fields.get()).get(),
                          DISPID_ZIRDB_FIELDS_ITEM, DISPATCH_PROPERTYGET,
                          std::vector<_variant_t>{_variant_t(column)}.data()),
                least)
          << shape << ", column " << column;
    }
  }
}

_variant_t name_of(std::size_t column) {
  return {(L"COLUMN_" + std::to_wstring(column)).c_str()};
}

// What the first look-up of a spelling leaves behind serves the later ones.
TEST(Costs, AFieldByNameCostsTheSameAsByNumber) {
  for (const Shape& shape : kShapes) {
    const auto rows = recordset(shape);
    const auto fields = fields_of(rows);
    const Cost by_number = cost_of_item(fields, 0);
    for (const std::size_t column : {std::size_t{0}, shape.columns - 1}) {
      const _variant_t name = name_of(column);
      item(fields, name);
      EXPECT_EQ(cost_of_item(fields, name), by_number)
          << shape << ", column " << column;
      EXPECT_EQ(cost_of_item(fields_of(rows), name), by_number)
          << shape << ", column " << column;
    }
  }
}

/// The bytes asked for when each column is looked up for the first time.
std::size_t bytes_of_first_look_ups(std::size_t columns) {
  const auto fields = fields_of(recordset({columns, 10}));
  std::size_t bytes = 0;
  for (std::size_t column = 0; column < columns; ++column) {
    const _variant_t name = name_of(column);
    const Cost by_number = cost_of_item(fields, column);
    for (const std::size_t size : cost_of_item(fields, name).sizes) {
      bytes += size;
    }
    bytes -= by_number.sizes[0];
  }
  return bytes;
}

TEST(Costs, WhatLookUpsByNameLeaveBehindStaysInProportionToTheColumns) {
  // A name of ten characters, where it leads, and the growth of what holds it.
  constexpr std::size_t kMostPerColumn = 512;
  for (const std::size_t columns : {1U, 10U, 100U, 200U}) {
    EXPECT_LE(bytes_of_first_look_ups(columns), kMostPerColumn * columns)
        << columns;
  }
}

// A host may spell each look-up in its own way; that must not fill the memory.
TEST(Costs, EndlessSpellingsAreNotAllKept) {
  const auto fields =
      fields_of(workbench::recordset({std::string(64, 'n')}, {{Cell()}}));
  const long live = g_watched.live;
  constexpr int kSpellings = 3000;
  for (int i = 0; i < kSpellings; ++i) {
    std::wstring spelling(64, L'n');
    for (std::size_t bit = 0; bit < 16; ++bit) {
      if (((i >> bit) & 1) != 0) spelling[bit] = L'N';
    }
    const _variant_t name(spelling.c_str());
    cost_of_item(fields, name);
  }
  EXPECT_LE(g_watched.live - live, kSpellings / 2);
}

// Nobody would see the collection in between: it is not made.
TEST(Costs, ACellReadByOneCallIsOneBlock) {
  for (const Shape& shape : kShapes) {
    const auto rows = recordset(shape);
    const auto fields = fields_of(rows);
    const auto late = dispatch_of(rows.get());
    const std::size_t last = shape.columns - 1;
    item(fields, name_of(last));
    for (const _variant_t& index : {_variant_t(last), name_of(last)}) {
      const Cost field = cost_of_item(fields, index);
      EXPECT_EQ(field.sizes.size(), 1U) << shape;
      for (const DISPID member :
           {DISPID{DISPID_VALUE}, DISPID{DISPID_ZIRDB_RECORDSET_FIELDS}}) {
        EXPECT_EQ(late_cost(late.get(), member,
                            DISPATCH_METHOD | DISPATCH_PROPERTYGET, &index),
                  field)
            << shape << ", member " << member;
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------

Cost cost_of_value(const InterfacePtr<IZIRDBField>& field) {
  _variant_t value;
  return cost_of([&] { return field->get_Value(&value); });
}

/// A string's block: its count, its units, a zero.
Cost string_of(std::size_t units) { return {{8 + 4 * (units + 1)}}; }

TEST(Costs, ATextIsOneBlockOfItsOwnLength) {
  for (const Shape& shape : kShapes) {
    const auto fields = fields_of(recordset(shape));
    const auto field = item(fields, shape.columns - 1);
    EXPECT_EQ(cost_of_value(field), string_of(shape.bytes)) << shape;
    EXPECT_EQ(late_cost(dispatch_of(field.get()).get(),
                        DISPID_ZIRDB_FIELD_VALUE, DISPATCH_PROPERTYGET),
              string_of(shape.bytes))
        << shape;
  }
}

TEST(Costs, ATextThatIsNotAsciiIsOneBlockOfItsCharacters) {
  std::string text;
  for (int i = 0; i < 1000; ++i) text += "\xC3\xA9\xE2\x82\xAC";
  const auto fields = fields_of(workbench::recordset({"a"}, {{Cell(text)}}));
  EXPECT_EQ(cost_of_value(item(fields, 0)), string_of(2000));
}

TEST(Costs, AValueOutlivesItsRowWithoutACopy) {
  const auto rows = recordset({200, 10000});
  const auto field = item(fields_of(rows), 199);
  EXPECT_NE(rows->MoveLast(), S_OK);
  EXPECT_EQ(cost_of_value(field), string_of(10000));
}

TEST(Costs, BytesAreAnArrayOfTheirOwnLength) {
  for (const std::size_t length : {10U, 10000U}) {
    const auto fields =
        fields_of(workbench::recordset({"a"}, {{Cell(Blob(length, 7))}}));
    Cost cost = cost_of_value(item(fields, 0));
    std::sort(cost.sizes.begin(), cost.sizes.end());
    // The descriptor of one dimension, and the bytes.
    Cost expected = {{24 + 2 * sizeof(SAFEARRAYBOUND), length}};
    std::sort(expected.sizes.begin(), expected.sizes.end());
    EXPECT_EQ(cost, expected) << length;
  }
}

TEST(Costs, NumbersAskForNothing) {
  const auto fields = fields_of(workbench::recordset(
      {"null", "bool", "integer", "double"},
      {{Cell(), Cell(true), Cell(std::int64_t{7}), Cell(0.5)}}));
  for (int column = 0; column < 4; ++column) {
    EXPECT_EQ(cost_of_value(item(fields, column)), kNothing) << column;
  }
}

TEST(Costs, ANameIsOneBlock) {
  const auto field = item(fields_of(recordset({200, 10})), 199);
  _bstr_t name;
  EXPECT_EQ(cost_of([&] { return field->get_Name(&name.m_s); }),
            string_of(std::wstring(L"column_199").size()));
}

// ---------------------------------------------------------------------------
// The cursor
// ---------------------------------------------------------------------------

TEST(Costs, MovingAsksForNothing) {
  for (const Shape& shape : kShapes) {
    const auto rows = recordset(shape);
    // Objects that follow the cursor do not make it dearer.
    const auto fields = fields_of(rows);
    const auto field = item(fields, 0);
    const auto enumerator = enumerator_of(fields);
    for (int round = 0; round < 2; ++round) {
      for (int row = 0; row < 3; ++row) {
        EXPECT_EQ(cost_of([&] { return rows->MoveNext(); }), kNothing)
            << shape << ", row " << row;
        EXPECT_EQ(g_watched.frees, 0);
      }
      EXPECT_EQ(cost_of([&] { return rows->MoveFirst(); }), kNothing) << shape;
      EXPECT_EQ(g_watched.frees, 0);
    }
  }
}

TEST(Costs, MovingLateBoundAsksForNothing) {
  const auto rows = recordset({200, 10000});
  const auto late = dispatch_of(rows.get());
  for (int row = 0; row < 3; ++row) {
    EXPECT_EQ(
        late_cost(late.get(), DISPID_ZIRDB_RECORDSET_MOVENEXT, DISPATCH_METHOD),
        kNothing);
  }
  EXPECT_EQ(
      late_cost(late.get(), DISPID_ZIRDB_RECORDSET_MOVEFIRST, DISPATCH_METHOD),
      kNothing);
}

/// A call that fails, and the bytes of its text and source.
template <class Call>
std::size_t bytes_of_failing(const Call& call) {
  HRESULT result = S_OK;
  std::size_t bytes = 0;
  for (const Request& request : requests_of([&] { result = call(); })) {
    bytes += request.size;
  }
  EXPECT_LT(result, 0);
  return bytes;
}

TEST(Costs, MovesThatFailAskForNoMoreThanTheirText) {
  // A text and a source, each with room to grow.
  constexpr std::size_t kMost = 2 * sizeof(wchar_t) * (128 + 32);
  for (const Shape& shape : kShapes) {
    const auto rows = recordset(shape);
    EXPECT_LE(bytes_of_failing([&] { return rows->MovePrevious(); }), kMost);
    EXPECT_LE(bytes_of_failing([&] { return rows->MoveLast(); }), kMost);
    EXPECT_LE(bytes_of_failing([&] { return rows->MoveNext(); }), kMost);
    EXPECT_EQ(cost_of([&] { return rows->MoveFirst(); }), kNothing);
  }
}

// A loop over rows that are not there must not fill the memory.
TEST(Costs, EndlessFailuresKeepOneText) {
  const auto rows = recordset(kSmallest);
  const auto late = dispatch_of(rows.get());
  DISPPARAMS none{};
  // The thread's error record is there, and holds no memory.
  workbench::set_error(E_FAIL, L"", L"");
  const long live = g_watched.live;
  for (int i = 0; i < 1000; ++i) {
    component::Exception exception;
    requests_of([&] {
      late->Invoke(DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS, IID_NULL, 0,
                   DISPATCH_METHOD, &none, nullptr, exception.get(), nullptr);
    });
  }
  // Its source and its text.
  EXPECT_LE(g_watched.live - live, 2);
}

TEST(Costs, LookingAtACursorAsksForNothing) {
  const auto rows = recordset({200, 10000});
  const auto late = dispatch_of(rows.get());
  VARIANT_BOOL flag = 0;
  long number = 0;
  EXPECT_EQ(cost_of([&] { return rows->get_EOF(&flag); }), kNothing);
  EXPECT_EQ(cost_of([&] { return rows->get_BOF(&flag); }), kNothing);
  EXPECT_EQ(cost_of([&] { return rows->get_State(&number); }), kNothing);
  EXPECT_EQ(cost_of([&] { return rows->get_RecordCount(&number); }), kNothing);
  for (const DISPID member :
       {DISPID_ZIRDB_RECORDSET_EOF, DISPID_ZIRDB_RECORDSET_BOF,
        DISPID_ZIRDB_RECORDSET_STATE, DISPID_ZIRDB_RECORDSET_RECORDCOUNT}) {
    EXPECT_EQ(late_cost(late.get(), member, DISPATCH_PROPERTYGET), kNothing);
  }
}

TEST(Costs, LookingUpMembersAsksForNothing) {
  const auto rows = recordset(kSmallest);
  const auto fields = fields_of(rows);
  const auto field = item(fields, 0);
  const InterfacePtr<IDispatch> objects[] = {dispatch_of(rows.get()),
                                             dispatch_of(fields.get()),
                                             dispatch_of(field.get())};
  wchar_t known[][8] = {L"foreach", L"NewEnum", L"NAME"};
  for (std::size_t i = 0; i < std::size(objects); ++i) {
    wchar_t* name = known[i];
    DISPID id = DISPID_UNKNOWN;
    EXPECT_EQ(cost_of([&] {
                return objects[i]->GetIDsOfNames(IID_NULL, &name, 1, 0, &id);
              }),
              kNothing);
  }
}

// ---------------------------------------------------------------------------
// Enumerators
// ---------------------------------------------------------------------------

Cost cost_of_enumerator(const InterfacePtr<IZIRDBFields>& fields) {
  return late_cost(dispatch_of(fields.get()).get(), DISPID_NEWENUM,
                   DISPATCH_PROPERTYGET);
}

Cost cost_of_clone(const InterfacePtr<IEnumVARIANT>& enumerator) {
  InterfacePtr<IEnumVARIANT> kept;
  return cost_of([&] {
    IEnumVARIANT* clone = nullptr;
    const HRESULT result = enumerator->Clone(&clone);
    kept = InterfacePtr<IEnumVARIANT>::adopt(clone);
    return result;
  });
}

Cost cost_of_next(const InterfacePtr<IEnumVARIANT>& enumerator) {
  _variant_t field;
  return cost_of([&] { return enumerator->Next(1, &field, nullptr); });
}

TEST(Costs, EnumeratorsAndClonesAreOneBlockWhateverTheColumnsAndValues) {
  const Cost least = cost_of_enumerator(fields_of(recordset(kSmallest)));
  EXPECT_EQ(least.sizes.size(), 1U) << least;
  for (const Shape& shape : kShapes) {
    const auto fields = fields_of(recordset(shape));
    EXPECT_EQ(cost_of_enumerator(fields), least) << shape;
    EXPECT_EQ(cost_of_clone(enumerator_of(fields)), least) << shape;
  }
}

TEST(Costs, AnEnumeratedFieldIsOneBlockWhateverTheColumnsAndValues) {
  const Cost least =
      cost_of_next(enumerator_of(fields_of(recordset(kSmallest))));
  EXPECT_EQ(least.sizes.size(), 1U) << least;
  for (const Shape& shape : kShapes) {
    const auto enumerator = enumerator_of(fields_of(recordset(shape)));
    for (std::size_t column = 0; column < shape.columns; ++column) {
      EXPECT_EQ(cost_of_next(enumerator), least)
          << shape << ", column " << column;
    }
  }
}

TEST(Costs, SkippingAndBeginningAgainAskForNothing) {
  const auto enumerator = enumerator_of(fields_of(recordset({200, 10000})));
  EXPECT_EQ(cost_of([&] { return enumerator->Skip(150); }), kNothing);
  EXPECT_EQ(cost_of([&] { return enumerator->Reset(); }), kNothing);
}

// ---------------------------------------------------------------------------
// Rows
// ---------------------------------------------------------------------------

/// The bytes that the blocks take that were asked for while `make` ran and are
/// still there.
template <class Make>
std::size_t bytes_kept(const Make& make) {
  const long before = g_watched.live;
  {
    const allocator::Watch watch;
    make();
  }
  std::size_t bytes = 0;
  for (long i = before; i < g_watched.live; ++i) {
    bytes += malloc_usable_size(g_watched.blocks[i]);
  }
  EXPECT_LT(g_watched.live, allocator::kMostRequests) << "too many blocks";
  return bytes;
}

/// A result of `rows` rows whose values take `bytes` besides their cells.
struct Rows {
  const char* name;
  std::size_t columns;
  std::size_t rows;
  Cell (*cell)(std::size_t row, std::size_t column);
  std::size_t bytes;  ///< of each value

  std::size_t values() const { return rows * columns; }
  InterfacePtr<IZIRDBRecordset> recordset() const {
    return workbench::recordset(names(columns), rows, cell);
  }
};

std::ostream& operator<<(std::ostream& stream, const Rows& rows) {
  return stream << rows.rows << " rows of " << rows.name;
}

Cell integer(std::size_t row, std::size_t column) {
  return static_cast<std::int64_t>(row + column);
}
Cell scalar(std::size_t row, std::size_t column) {
  switch ((row + column) % 4) {
    case 0:
      return workbench::Null();
    case 1:
      return true;
    case 2:
      return 0.5;
    default:
      return std::int64_t{7};
  }
}
Cell text_of_12(std::size_t, std::size_t) { return std::string(12, 't'); }
Cell text_of_4000(std::size_t, std::size_t) { return std::string(4000, 't'); }
Cell bytes_of_32(std::size_t, std::size_t) { return Blob(32, 9); }

// Texts are kept with a zero behind them, for the decoder.
constexpr Rows kRows[] = {
    {"no values", 2, 0, integer, 0},
    {"two integers", 2, 1, integer, 0},
    {"two integers", 2, 10, integer, 0},
    {"two integers", 2, 1000, integer, 0},
    {"two integers", 2, 30000, integer, 0},
    {"two integers", 2, 500000, integer, 0},
    {"two integers", 2, 1000000, integer, 0},
    {"200 integers", 200, 1000, integer, 0},
    {"scalars", 4, 20000, scalar, 0},
    {"texts of 12", 4, 100, text_of_12, 13},
    {"texts of 12", 4, 20000, text_of_12, 13},
    {"texts of 4000", 1, 3000, text_of_4000, 4001},
    {"bytes", 4, 20000, bytes_of_32, 32},
};

constexpr std::size_t kCell = 16;

// Of what is there a sixteenth may have been asked for ahead: 17 bytes for a
// number. Of texts as much again may be lost where they did not fit into the
// end of a block. What small results take besides is the objects, the columns
// and a first block for cells and for texts.
TEST(Costs, RowsTakeTheirCellsAndTheirTextsAndHardlyMore) {
  for (const Rows& rows : kRows) {
    InterfacePtr<IZIRDBRecordset> kept;
    const std::size_t bytes = bytes_kept([&] { kept = rows.recordset(); });
    const std::size_t cells = rows.values() * kCell;
    const std::size_t texts = rows.values() * rows.bytes;
    const std::size_t small = 4096 + 128 * rows.columns;
    EXPECT_LE(bytes, cells + cells / 16 + texts + texts / 8 + small) << rows;
    EXPECT_GE(bytes, cells + texts) << rows << ": where are they?";
  }
}

// A result that grows is not moved, so that its peak is what it takes at the
// end.
TEST(Costs, RowsThatGrowAreNotCopied) {
  const Rows rows = {"two integers", 2, 500000, integer, 0};
  InterfacePtr<IZIRDBRecordset> kept;
  {
    const allocator::Watch watch;
    kept = rows.recordset();
  }
  // Blocks are noted up to this number; rows are many more.
  ASSERT_LE(g_watched.requests, allocator::kMostRequests);
  std::size_t bytes = 0;
  for (long i = 0; i < g_watched.requests; ++i) {
    bytes += g_watched.made[i].size;
  }
  const std::size_t cells = rows.values() * kCell;
  // Only the list of blocks is.
  constexpr std::size_t kList = 32768;
  EXPECT_LE(bytes, cells + cells / 16 + kList);
}

/// Many rows, of everything.
InterfacePtr<IZIRDBRecordset> many_rows() {
  constexpr Rows kMany = {"everything", 3, 50000,
                          [](std::size_t row, std::size_t column) {
                            return column == 0   ? scalar(row, column)
                                   : column == 1 ? text_of_12(row, column)
                                                 : bytes_of_32(row, column);
                          },
                          0};
  return kMany.recordset();
}

// Blocks, not rows.
constexpr long kMostFrees = 1000;

TEST(Costs, DroppingManyRowsAsksForNothing) {
  auto rows = many_rows();
  EXPECT_EQ(cost_of([&] {
              rows = {};
              return S_OK;
            }),
            kNothing);
  EXPECT_LE(g_watched.frees, kMostFrees);
}

TEST(Costs, ClosingManyRowsAsksForNothing) {
  const auto rows = many_rows();
  const auto fields = fields_of(rows);
  const auto field = item(fields, 1);
  EXPECT_EQ(cost_of([&] { return rows->Close(); }), kNothing);
  EXPECT_GE(g_watched.frees, 2);
  EXPECT_LE(g_watched.frees, kMostFrees);
}

TEST(Costs, TheLastOneToShareManyRowsDropsThemWithoutAsking) {
  auto rows = many_rows();
  auto enumerator = enumerator_of(fields_of(rows));
  rows = {};
  EXPECT_EQ(cost_of([&] {
              enumerator = {};
              return S_OK;
            }),
            kNothing);
  EXPECT_GE(g_watched.frees, 2);
  EXPECT_LE(g_watched.frees, kMostFrees);
}

TEST(Costs, ManyRowsThatTheConnectionClosesAskForNothing) {
  const auto rows = many_rows();
  EXPECT_EQ(cost_of([&] {
              workbench::close_by_connection(rows.get());
              return S_OK;
            }),
            kNothing);
}

}  // namespace
