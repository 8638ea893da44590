// SPDX-License-Identifier: MIT
//
// The cursor of a recordset with rows, through the vtable and late-bound: what
// every operation answers in every state, and where it leaves the cursor.
//
// Sections: every operation in every state; walking; many rows; the end on the
// last row.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/objects.h"
#include "support/recordsets.h"

namespace {

using component::dispatch_of;
using component::kClosedCode;
using component::kNoCurrentRecordCode;
using component::kNotBackwardCode;
using component::kNotInThisContextCode;
using recordsets::failure;
using recordsets::Fields;
using recordsets::kDone;
using recordsets::kRoads;
using recordsets::numbered;
using recordsets::Outcome;
using recordsets::outcome;
using recordsets::Recordset;
using recordsets::Road;
using recordsets::where;

// ---------------------------------------------------------------------------
// Every operation in every state
// ---------------------------------------------------------------------------

struct Move {
  const char* name;
  DISPID member;
  HRESULT (IZIRDBRecordset::*operation)();
};
constexpr Move kMoveFirst = {"MoveFirst", 8, &IZIRDBRecordset::MoveFirst};
constexpr Move kMoveLast = {"MoveLast", 9, &IZIRDBRecordset::MoveLast};
constexpr Move kMovePrevious = {"MovePrevious", 10,
                                &IZIRDBRecordset::MovePrevious};
constexpr Move kMoveNext = {"MoveNext", 5, &IZIRDBRecordset::MoveNext};
constexpr Move kClose = {"Close", 6, &IZIRDBRecordset::Close};

Outcome run(Road road, const Recordset& recordset, const Move& move) {
  if (road == Road::Vtable)
    return outcome((recordset.get()->*move.operation)());
  return outcome(
      component::method(dispatch_of(recordset.get()).get(), move.member));
}

/// A property, as the number that both roads have to tell.
struct Read {
  Outcome end;
  std::int64_t number = -77;
};

template <class Number>
Read read_directly(const Recordset& recordset,
                   HRESULT (IZIRDBRecordset::*get)(Number*)) {
  Number number = -77;
  const HRESULT result = (recordset.get()->*get)(&number);
  return {outcome(result), number};
}

Read read_late_bound(const Recordset& recordset, DISPID member, VARTYPE type) {
  const component::Answer answer =
      component::get(dispatch_of(recordset.get()).get(), member);
  Read read;
  read.end = outcome(answer);
  if (answer.result != S_OK) {
    EXPECT_EQ(answer.value.vt, VT_EMPTY);
    return read;
  }
  EXPECT_EQ(answer.value.vt, type);
  read.number = type == VT_BOOL ? answer.value.boolVal : answer.value.lVal;
  return read;
}

enum class Property { State, Eof, Bof, RecordCount };

Read read(Road road, const Recordset& recordset, Property property) {
  const bool vtable = road == Road::Vtable;
  switch (property) {
    case Property::State:
      return vtable ? read_directly(recordset, &IZIRDBRecordset::get_State)
                    : read_late_bound(recordset, 2, VT_I4);
    case Property::Eof:
      return vtable ? read_directly(recordset, &IZIRDBRecordset::get_EOF)
                    : read_late_bound(recordset, 3, VT_BOOL);
    case Property::Bof:
      return vtable ? read_directly(recordset, &IZIRDBRecordset::get_BOF)
                    : read_late_bound(recordset, 4, VT_BOOL);
    default:
      return vtable
                 ? read_directly(recordset, &IZIRDBRecordset::get_RecordCount)
                 : read_late_bound(recordset, 7, VT_I4);
  }
}

Recordset after(Recordset recordset, std::initializer_list<Move> moves) {
  for (const Move& move : moves) {
    EXPECT_TRUE(run(Road::Vtable, recordset, move) == kDone) << move.name;
  }
  return recordset;
}

Recordset refused_move_last(Recordset recordset) {
  EXPECT_EQ(recordset->MoveLast(), kNotBackwardCode);
  return recordset;
}

Recordset closed_by_connection(Recordset recordset) {
  workbench::close_by_connection(recordset.get());
  return recordset;
}

constexpr bool kOpen = true;
constexpr bool kClosed = false;

/// What each operation answers, and the place where those that change it leave
/// the cursor; the others leave it in `place`.
struct State {
  const char* name;
  Recordset (*make)();
  bool open;
  const char* place;
  int eof, bof;  ///< of an open recordset
  HRESULT next;
  const char* place_after_next;
  HRESULT first;
  const char* place_after_first;
  HRESULT last;
  const char* place_after_last;
  HRESULT previous;
  HRESULT close;
};

const State kStates[] = {
    // On a row.
    {"first of five rows", [] { return numbered(5); }, kOpen, "row 1", 0, 0,
     S_OK, "row 2", S_OK, "row 1", kNotBackwardCode, "bof eof",
     kNotInThisContextCode, S_OK},
    {"third of five rows",
     [] {
       return after(numbered(5), {kMoveNext, kMoveNext});
     },
     kOpen, "row 3", 0, 0, S_OK, "row 4", S_OK, "row 1", kNotBackwardCode,
     "bof eof", kNotInThisContextCode, S_OK},
    {"last of three rows",
     [] {
       return after(numbered(3), {kMoveNext, kMoveNext});
     },
     kOpen, "row 3", 0, 0, S_OK, "eof", S_OK, "row 1", kNotBackwardCode,
     "bof eof", kNotInThisContextCode, S_OK},
    {"the only row", [] { return numbered(1); }, kOpen, "row 1", 0, 0, S_OK,
     "eof", S_OK, "row 1", kNotBackwardCode, "bof eof", kNotInThisContextCode,
     S_OK},
    {"rewound after MoveLast",
     [] { return after(refused_move_last(numbered(3)), {kMoveFirst}); }, kOpen,
     "row 1", 0, 0, S_OK, "row 2", S_OK, "row 1", kNotBackwardCode, "bof eof",
     kNotInThisContextCode, S_OK},
    {"rewound from the end",
     [] {
       return after(numbered(2), {kMoveNext, kMoveNext, kMoveFirst});
     },
     kOpen, "row 1", 0, 0, S_OK, "row 2", S_OK, "row 1", kNotBackwardCode,
     "bof eof", kNotInThisContextCode, S_OK},
    // At the end.
    {"walked to the end",
     [] {
       return after(numbered(3), {kMoveNext, kMoveNext, kMoveNext});
     },
     kOpen, "eof", -1, 0, kNoCurrentRecordCode, "eof", S_OK, "row 1",
     kNotBackwardCode, "bof eof", kNotInThisContextCode, S_OK},
    {"past its only row", [] { return after(numbered(1), {kMoveNext}); }, kOpen,
     "eof", -1, 0, kNoCurrentRecordCode, "eof", S_OK, "row 1", kNotBackwardCode,
     "bof eof", kNotInThisContextCode, S_OK},
    {"refused MoveLast", [] { return refused_move_last(numbered(3)); }, kOpen,
     "bof eof", -1, -1, kNoCurrentRecordCode, "bof eof", S_OK, "row 1",
     kNotBackwardCode, "bof eof", kNotInThisContextCode, S_OK},
    {"refused MoveLast at the end",
     [] { return refused_move_last(after(numbered(1), {kMoveNext})); }, kOpen,
     "bof eof", -1, -1, kNoCurrentRecordCode, "bof eof", S_OK, "row 1",
     kNotBackwardCode, "bof eof", kNotInThisContextCode, S_OK},
    // Without rows.
    {"no rows", [] { return numbered(0); }, kOpen, "bof eof", -1, -1,
     kNoCurrentRecordCode, "bof eof", kNoCurrentRecordCode, "bof eof",
     kNotBackwardCode, "bof eof", kNotInThisContextCode, S_OK},
    {"no rows after MoveLast", [] { return refused_move_last(numbered(0)); },
     kOpen, "bof eof", -1, -1, kNoCurrentRecordCode, "bof eof",
     kNoCurrentRecordCode, "bof eof", kNotBackwardCode, "bof eof",
     kNotInThisContextCode, S_OK},
    // Closed.
    {"closed", [] { return after(numbered(3), {kClose}); }, kClosed, "closed",
     0, 0, kClosedCode, "closed", kClosedCode, "closed", kClosedCode, "closed",
     kClosedCode, kClosedCode},
    {"closed at the end",
     [] {
       return after(numbered(1), {kMoveNext, kClose});
     },
     kClosed, "closed", 0, 0, kClosedCode, "closed", kClosedCode, "closed",
     kClosedCode, "closed", kClosedCode, kClosedCode},
    {"closed without rows", [] { return after(numbered(0), {kClose}); },
     kClosed, "closed", 0, 0, kClosedCode, "closed", kClosedCode, "closed",
     kClosedCode, "closed", kClosedCode, kClosedCode},
    {"closed by its connection",
     [] { return closed_by_connection(numbered(3)); }, kClosed, "closed", 0, 0,
     kClosedCode, "closed", kClosedCode, "closed", kClosedCode, "closed",
     kClosedCode, kClosedCode},
    {"closed, then by its connection",
     [] { return closed_by_connection(after(numbered(3), {kClose})); }, kClosed,
     "closed", 0, 0, kClosedCode, "closed", kClosedCode, "closed", kClosedCode,
     "closed", kClosedCode, kClosedCode},
    {"closed by its connection, then refused to close",
     [] {
       Recordset recordset = closed_by_connection(numbered(3));
       EXPECT_EQ(recordset->Close(), kClosedCode);
       return recordset;
     },
     kClosed, "closed", 0, 0, kClosedCode, "closed", kClosedCode, "closed",
     kClosedCode, "closed", kClosedCode, kClosedCode},
    {"made without columns",
     [] { return workbench::recordset_without_columns(); }, kClosed, "closed",
     0, 0, kClosedCode, "closed", kClosedCode, "closed", kClosedCode, "closed",
     kClosedCode, kClosedCode},
};

/// Runs `check(road, state, recordset)` for each state by each road.
template <class Check>
void in_every_state(const Check& check) {
  for (const Road road : kRoads) {
    for (const State& state : kStates) {
      SCOPED_TRACE(testing::Message() << state.name << ", " << road);
      const Recordset recordset = state.make();
      check(road, state, recordset);
    }
  }
}

TEST(RecordsetStates, AreWhereTheTableSays) {
  in_every_state([](Road, const State& state, const Recordset& recordset) {
    EXPECT_EQ(where(recordset), state.place);
  });
}

TEST(RecordsetStates, StateNeverFails) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    const Read told = read(road, recordset, Property::State);
    EXPECT_EQ(told.end, kDone);
    EXPECT_EQ(told.number, state.open ? 1 : 0);
  });
}

TEST(RecordsetStates, EofIsRefusedOnlyWhenClosed) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    const Read told = read(road, recordset, Property::Eof);
    EXPECT_EQ(told.end, state.open ? kDone : failure(kClosedCode));
    EXPECT_EQ(told.number, state.open ? state.eof : -77);
  });
}

TEST(RecordsetStates, BofIsRefusedOnlyWhenClosed) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    const Read told = read(road, recordset, Property::Bof);
    EXPECT_EQ(told.end, state.open ? kDone : failure(kClosedCode));
    EXPECT_EQ(told.number, state.open ? state.bof : -77);
  });
}

TEST(RecordsetStates, TheRecordCountIsUnknownWhateverTheNumberOfRows) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    const Read told = read(road, recordset, Property::RecordCount);
    EXPECT_EQ(told.end, state.open ? kDone : failure(kClosedCode));
    EXPECT_EQ(told.number, state.open ? -1 : -77);
  });
}

TEST(RecordsetStates, ReadingAPropertyMovesNothing) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    for (const Property property : {Property::State, Property::Eof,
                                    Property::Bof, Property::RecordCount}) {
      read(road, recordset, property);
    }
    EXPECT_EQ(where(recordset), state.place);
  });
}

TEST(RecordsetStates, MoveNextGoesToTheNextRowOrTheEnd) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    EXPECT_EQ(run(road, recordset, kMoveNext), failure(state.next));
    EXPECT_EQ(where(recordset), state.place_after_next);
  });
}

TEST(RecordsetStates, MoveFirstGoesToTheFirstRow) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    EXPECT_EQ(run(road, recordset, kMoveFirst), failure(state.first));
    EXPECT_EQ(where(recordset), state.place_after_first);
  });
}

TEST(RecordsetStates, ARefusedMoveLastLeavesTheCursorPastTheEnd) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    EXPECT_EQ(run(road, recordset, kMoveLast), failure(state.last));
    EXPECT_EQ(where(recordset), state.place_after_last);
  });
}

TEST(RecordsetStates, MovePreviousIsRefusedAndMovesNothing) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    EXPECT_EQ(run(road, recordset, kMovePrevious), failure(state.previous));
    EXPECT_EQ(where(recordset), state.place);
  });
}

TEST(RecordsetStates, CloseSucceedsOnce) {
  in_every_state([](Road road, const State& state, const Recordset& recordset) {
    EXPECT_EQ(run(road, recordset, kClose), failure(state.close));
    EXPECT_EQ(where(recordset), "closed");
    EXPECT_EQ(run(road, recordset, kClose), failure(kClosedCode));
  });
}

TEST(RecordsetStates, NullPointersAreRefusedBeforeTheStateIsLookedAt) {
  in_every_state([](Road, const State& state, const Recordset& recordset) {
    const Outcome refused = recordsets::plain(E_INVALIDARG);
    EXPECT_EQ(outcome(recordset->get_State(nullptr)), refused);
    EXPECT_EQ(outcome(recordset->get_EOF(nullptr)), refused);
    EXPECT_EQ(outcome(recordset->get_BOF(nullptr)), refused);
    EXPECT_EQ(outcome(recordset->get_RecordCount(nullptr)), refused);
    EXPECT_EQ(outcome(recordset->get_Fields(nullptr)), refused);
    EXPECT_EQ(where(recordset), state.place);
  });
}

// ---------------------------------------------------------------------------
// Walking
// ---------------------------------------------------------------------------

class RecordsetWalk : public testing::TestWithParam<Road> {};

INSTANTIATE_TEST_SUITE_P(Roads, RecordsetWalk, testing::ValuesIn(kRoads),
                         [](const auto& road) {
                           return road.param == Road::Vtable ? "Vtable"
                                                             : "LateBound";
                         });

/// The places where MoveNext leaves the cursor, until it is refused.
std::vector<std::string> walk(Road road, const Recordset& recordset) {
  std::vector<std::string> places = {where(recordset)};
  while (run(road, recordset, kMoveNext) == kDone) {
    places.push_back(where(recordset));
  }
  return places;
}

using Places = std::vector<std::string>;

TEST_P(RecordsetWalk, VisitsEveryRowInOrderAndThenTheEnd) {
  EXPECT_EQ(walk(GetParam(), numbered(0)), Places({"bof eof"}));
  EXPECT_EQ(walk(GetParam(), numbered(1)), Places({"row 1", "eof"}));
  EXPECT_EQ(walk(GetParam(), numbered(3)),
            Places({"row 1", "row 2", "row 3", "eof"}));
  EXPECT_EQ(walk(GetParam(), numbered(5)),
            Places({"row 1", "row 2", "row 3", "row 4", "row 5", "eof"}));
}

TEST_P(RecordsetWalk, BeginsAgainAfterMoveFirst) {
  const Recordset recordset = numbered(3);
  const Places places = {"row 1", "row 2", "row 3", "eof"};
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(walk(GetParam(), recordset), places);
    EXPECT_EQ(run(GetParam(), recordset, kMoveFirst), kDone);
  }
}

TEST_P(RecordsetWalk, StaysAtTheEndHoweverOftenItIsPushed) {
  const Recordset recordset = numbered(2);
  walk(GetParam(), recordset);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(run(GetParam(), recordset, kMoveNext),
              failure(kNoCurrentRecordCode));
    EXPECT_EQ(where(recordset), "eof");
  }
}

TEST_P(RecordsetWalk, GoesOnFromTheFirstRowAfterARefusedMoveLast) {
  const Recordset recordset = after(numbered(4), {kMoveNext, kMoveNext});
  run(GetParam(), recordset, kMoveLast);
  EXPECT_EQ(run(GetParam(), recordset, kMoveFirst), kDone);
  EXPECT_EQ(walk(GetParam(), recordset),
            Places({"row 1", "row 2", "row 3", "row 4", "eof"}));
}

// ---------------------------------------------------------------------------
// Many rows
// ---------------------------------------------------------------------------

constexpr std::size_t kManyRows = 10000;

workbench::Cell cell_of_many(std::size_t row, std::size_t column) {
  switch (column) {
    case 0:
      return static_cast<std::int64_t>(row * 1000003);
    case 1:
      return "row \xC3\xA9 " + std::string(row % 97, 'x') + std::to_string(row);
    default:
      if (row % 5 == 0) return workbench::Null{};
      return static_cast<double>(row) / 8;
  }
}

/// What the row has to hold, by its number alone.
bool holds_row(const Fields& fields, std::size_t row) {
  const auto read = [&](int column) {
    const auto [found, field] = recordsets::item_of(fields, _variant_t(column));
    return found == S_OK ? recordsets::value_of(field).second : _variant_t();
  };
  const _variant_t number = read(0);
  const _variant_t text = read(1);
  const _variant_t share = read(2);
  const bool share_is_right =
      row % 5 == 0 ? share.vt == VT_NULL
                   : share.vt == VT_R8 &&
                         values::bits_of(share.dblVal) ==
                             values::bits_of(static_cast<double>(row) / 8);
  return number.vt == VT_I8 &&
         number.llVal == static_cast<std::int64_t>(row * 1000003) &&
         text.vt == VT_BSTR &&
         values::text_of(text) == L"row \u00E9 " +
                                      std::wstring(row % 97, L'x') +
                                      std::to_wstring(row) &&
         share_is_right;
}

TEST_P(RecordsetWalk, FindsEachOfManyRowsTwice) {
  const Recordset recordset = workbench::recordset({"number", "text", "share"},
                                                   kManyRows, cell_of_many);
  for (int round = 0; round < 2; ++round) {
    std::size_t row = 0;
    for (; row < kManyRows; ++row) {
      ASSERT_EQ(read(GetParam(), recordset, Property::Eof).number, 0) << row;
      ASSERT_TRUE(holds_row(recordsets::fields_of(recordset), row)) << row;
      ASSERT_EQ(run(GetParam(), recordset, kMoveNext), kDone) << row;
    }
    EXPECT_EQ(read(GetParam(), recordset, Property::Eof).number, -1);
    EXPECT_EQ(run(GetParam(), recordset, kMoveFirst), kDone);
  }
}

TEST_P(RecordsetWalk, IsFollowedByOneFieldsObjectAllTheWay) {
  const Recordset recordset = workbench::recordset({"number", "text", "share"},
                                                   kManyRows, cell_of_many);
  const Fields fields = recordsets::fields_of(recordset);
  for (std::size_t row = 0; row < kManyRows; ++row) {
    ASSERT_TRUE(holds_row(fields, row)) << row;
    ASSERT_EQ(run(GetParam(), recordset, kMoveNext), kDone) << row;
  }
}

// ---------------------------------------------------------------------------
// The end on the last row
// ---------------------------------------------------------------------------

Recordset ending_on_the_last_row(int rows) {
  Recordset recordset = numbered(rows);
  workbench::set_eof_on_last_row(recordset.get());
  if (rows > 0) {
    EXPECT_EQ(recordset->MoveFirst(), S_OK);
  }
  return recordset;
}

TEST_P(RecordsetWalk, TellsTheEndOnTheLastRowAlreadyWhereSoSet) {
  EXPECT_EQ(walk(GetParam(), ending_on_the_last_row(3)),
            Places({"row 1", "row 2", "row 3 eof", "eof"}));
  EXPECT_EQ(walk(GetParam(), ending_on_the_last_row(2)),
            Places({"row 1", "row 2 eof", "eof"}));
}

TEST_P(RecordsetWalk, TellsTheEndOfASingleRowWhenRewoundWhereSoSet) {
  const Recordset recordset = ending_on_the_last_row(1);
  EXPECT_EQ(where(recordset), "row 1 eof");
  EXPECT_EQ(walk(GetParam(), recordset), Places({"row 1 eof", "eof"}));
  EXPECT_EQ(run(GetParam(), recordset, kMoveFirst), kDone);
  EXPECT_EQ(where(recordset), "row 1 eof");
}

TEST_P(RecordsetWalk, RewindsToARowThatIsNotTheLastWhereSoSet) {
  const Recordset recordset =
      after(ending_on_the_last_row(2), {kMoveNext, kMoveFirst});
  EXPECT_EQ(where(recordset), "row 1");
}

TEST_P(RecordsetWalk, IsRefusedWithoutRowsWhereSoSet) {
  const Recordset recordset = ending_on_the_last_row(0);
  EXPECT_EQ(run(GetParam(), recordset, kMoveFirst),
            failure(kNoCurrentRecordCode));
  EXPECT_EQ(where(recordset), "bof eof");
}

TEST(RecordsetEndingOnItsLastRow, StillHasThatRow) {
  const Recordset recordset = after(ending_on_the_last_row(2), {kMoveNext});
  const Fields fields = recordsets::fields_of(recordset);
  const auto [found, field] = recordsets::item_of(fields, _variant_t(L"text"));
  ASSERT_EQ(found, S_OK);
  EXPECT_EQ(values::text_of(recordsets::value_of(field).second), L"row 2");
  EXPECT_TRUE(recordsets::enumerator_of(fields));
}

}  // namespace
