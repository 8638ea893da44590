// SPDX-License-Identifier: MIT
//
// Commands on their way to the database: the order in which they are judged,
// the calls that are built for stored procedures, and what comes back.
//
// Sections: the order of the checks; calls of stored procedures; system
// procedures; layouts; values of stored procedures; recordsets; affected rows;
// failures of the database; who keeps whom.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/commands_sent.h"
#include "support/parameters.h"
#include "support/values.h"

namespace {

using namespace commands;
using component::Connection;
using component::kClosedCode;
using component::kClosedText;
using component::kConnectionSource;
using component::kExecuteFailedCode;
using scripted_odbc::cell;
using values::plain;

constexpr long kAllTypes[] = {ZIRDB_AD_CMD_UNSPECIFIED, ZIRDB_AD_CMD_TEXT,
                              ZIRDB_AD_CMD_STORED_PROC, ZIRDB_AD_CMD_UNKNOWN};

class CommandOrder : public SentCommand {};

/// Something that no parameter of this type can send.
void append_bad_value(const Command& command) {
  append(command, _variant_t(L"x"), ZIRDB_AD_INTEGER);
}

// ---------------------------------------------------------------------------
// The order of the checks
// ---------------------------------------------------------------------------

// Each row has everything wrong that is judged later than what it tells.
TEST_F(CommandOrder, WhatIsJudgedFirstIsTold) {
  enum Over { kNobody, kForeign, kClosed, kOpen };
  const struct {
    const char* description;
    Over over;
    const wchar_t* text;
    long type;
    bool bad_value;
    std::vector<long> directions;
    Outcome outcome;
  } kRows[] = {
      {"no connection", kNobody, L"", 4, true, {1, 4}, kNoConnection},
      {"no text", kClosed, L"", 4, true, {1, 4}, kNoText},
      {"no text, foreign", kForeign, L"", 8, true, {1, 4}, kNoText},
      {"bad value", kClosed, L"sp_p", 4, true, {1, 4}, bad_value(E_INVALIDARG)},
      {"bad value of a call as text",
       kClosed,
       L"EXEC p",
       8,
       true,
       {2},
       bad_value(E_INVALIDARG)},
      {"bad value, foreign",
       kForeign,
       L"select",
       1,
       true,
       {2},
       bad_value(E_INVALIDARG)},
      {"system procedure",
       kClosed,
       L"sp_p",
       4,
       false,
       {1, 4, 4},
       kTooManyArguments},
      {"layout", kClosed, L"p", 4, false, {1, 4}, kLayout},
      {"layout, foreign", kForeign, L"p", 4, false, {4, 4}, kLayout},
      {"call as text", kClosed, L"EXEC p", 1, false, {2, 4}, kErrorsOccurred},
      {"call as text, foreign",
       kForeign,
       L"{CALL p(?)}",
       8,
       false,
       {2},
       kErrorsOccurred},
      {"output", kClosed, L"select ?", -1, false, {2}, kNearOutput},
      {"output, foreign", kForeign, L"select ?", 8, false, {4}, kNearOutput},
      {"closed", kClosed, L"select ?", 8, false, {1}, kNoConnection},
      {"closed procedure", kClosed, L"p", 4, false, {4, 2}, kNoConnection},
      {"closed, suppressed",
       kClosed,
       L"{CALL sp_executesql(?)}",
       8,
       false,
       {2},
       kNoConnection},
      {"closed, no parameters",
       kClosed,
       L"EXEC p",
       8,
       false,
       {},
       kNoConnection},
      {"parameters, foreign",
       kForeign,
       L"select ?",
       8,
       false,
       {1},
       commands::kForeign},
      {"procedure, foreign", kForeign, L"p", 4, false, {2}, commands::kForeign},
      {"procedures take outputs and calls as text",
       kOpen,
       L"EXEC p",
       4,
       false,
       {4, 2},
       kDone},
  };
  for (const auto& row : kRows) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message() << row.description << ", " << road);
      ForeignConnection foreign;
      const Connection closed = component::connection();
      const InterfacePtr<IDispatch> over =
          row.over == kNobody ? InterfacePtr<IDispatch>()
          : row.over == kForeign
              ? InterfacePtr<IDispatch>::share(foreign.dispatch())
          : row.over == kClosed ? dispatch_of(closed.get())
                                : dispatch_of(database().get());
      const Command made = command_over(over.get(), row.text, row.type);
      append_directions(made, row.directions);
      if (row.bad_value) append_bad_value(made);
      const Settings before = settings_of(made);
      EXPECT_EQ(run(road, made).outcome, row.outcome);
      if (row.outcome.code != S_OK) {
        EXPECT_EQ(settings_of(made), before);
        EXPECT_EQ(script().count("SQLPrepare"), 0U);
      }
      EXPECT_TRUE(foreign.executed.empty());
    }
  }
}

TEST_F(CommandOrder, AMissingPlaceForTheRecordsetComesBeforeAll) {
  for (const Command& made :
       {component::command(), command(L""), command(L"select")}) {
    EXPECT_EQ(ended([&] { return made->Execute(nullptr, 0, nullptr); }),
              plainly(E_INVALIDARG));
  }
  EXPECT_EQ(statements(), Texts());
}

TEST_F(CommandOrder, TheFirstBadValueIsTold) {
  const auto bytes = [](const Command& made) {
    append(made, _variant_t(L"x"), ZIRDB_AD_VARBINARY);
  };
  const Command made = command(L"select ?, ?, ?");
  append(made, _variant_t(1));
  bytes(made);
  append_bad_value(made);
  EXPECT_EQ(run(Road::kVtable, made).outcome, bad_value(DISP_E_TYPEMISMATCH));
  const Command other = command(L"select ?, ?");
  append_bad_value(other);
  bytes(other);
  EXPECT_EQ(run(Road::kLateBound, other).outcome, bad_value(E_INVALIDARG));
  EXPECT_EQ(statements(), Texts());
}

TEST_F(CommandOrder, AFailureStoresNoRecordset) {
  ForeignConnection nobody_asks;
  const Command made = command_over(nobody_asks.dispatch(), L"");
  auto* out = static_cast<IZIRDBRecordset*>(component::unset());
  EXPECT_EQ(made->Execute(nullptr, 0, &out), component::kNoTextCode);
  EXPECT_EQ(out, nullptr);
}

// ---------------------------------------------------------------------------
// Calls of stored procedures
// ---------------------------------------------------------------------------

class StoredProcedure : public SentCommand {
 protected:
  Command procedure(const wchar_t* text, const std::vector<long>& directions) {
    Command made = command(text, ZIRDB_AD_CMD_STORED_PROC);
    append_directions(made, directions);
    return made;
  }
};

TEST_F(StoredProcedure, IsCalledWithAMarkerForEachParameter) {
  const struct {
    const wchar_t* text;
    std::vector<long> directions;
    const char* sent;
    Texts bound;
  } kRows[] = {
      {L"p", {}, "{CALL p()}", {}},
      {L"p", {1}, "{CALL p(?)}", {"in BIGINT 1"}},
      {L"dbo.GetTotals",
       {1, 1},
       "{CALL dbo.GetTotals(?, ?)}",
       {"in BIGINT 1", "in BIGINT 2"}},
      {L"dbo.GetTotals",
       {4, 1, 2},
       "{? = CALL dbo.GetTotals(?, ?)}",
       {"out BIGINT", "in BIGINT 2", "out BIGINT"}},
      {L"p", {4}, "{? = CALL p()}", {"out BIGINT"}},
      {L"p",
       {2, 3, 0, 7},
       "{CALL p(?, ?, ?, ?)}",
       {"out BIGINT", "inout BIGINT 2", "in BIGINT 3", "in BIGINT 4"}},
      {L"p", {4, 3}, "{? = CALL p(?)}", {"out BIGINT", "inout BIGINT 2"}},
      // The text stands there as it was given.
      {L"  p ", {1}, "{CALL   p (?)}", {"in BIGINT 1"}},
      {L"EXEC p", {1}, "{CALL EXEC p(?)}", {"in BIGINT 1"}},
      {L"{CALL p(?)}", {1}, "{CALL {CALL p(?)}(?)}", {"in BIGINT 1"}},
      {L"{CALL sp_executesql(?)}", {}, "{CALL {CALL sp_executesql(?)}()}", {}},
      {L" ", {}, "{CALL  ()}", {}},
      {L"a\"b;c", {}, "{CALL a\"b;c()}", {}}};
  for (const auto& row : kRows) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message() << row.sent << ", " << road);
      const Command made = procedure(row.text, row.directions);
      EXPECT_EQ(run(road, made).outcome, kDone);
      EXPECT_EQ(text_of(made), row.text);
      if (!row.bound.empty()) {
        EXPECT_EQ(bound(), row.bound);
      }
      EXPECT_EQ(statements(), Texts({row.sent}));
    }
  }
}

TEST_F(StoredProcedure, WithoutParametersIsExecutedAtOnce) {
  EXPECT_EQ(run(Road::kVtable, procedure(L"p", {})).outcome, kDone);
  EXPECT_EQ(script().count("SQLExecDirect"), 1U);
  EXPECT_EQ(script().count("SQLPrepare"), 0U);
}

// ---------------------------------------------------------------------------
// System procedures
// ---------------------------------------------------------------------------

TEST_F(StoredProcedure, OfTheSystemTakesNoParameters) {
  const struct {
    const wchar_t* text;
    bool refused;
  } kRows[] = {{L"sp_who", true},
               {L"SP_WHO", true},
               {L"xp_cmd", true},
               {L"Xp_", true},
               {L"sp_", true},
               {L" \t\r\nsp_who", true},
               {L"master.dbo.xp_cmd", true},
               {L"master..sp_who", true},
               {L"sp_a.sp_b", true},
               // Nothing behind the dot: then it is the whole text.
               {L"sp_who.", true},
               {L" xp_cmd.", true},
               {L"sp_a.b.", true},
               {L".sp_who", true},
               {L"sp_who;1", true},
               {L"p", false},
               {L"sp", false},
               {L"xp-cmd", false},
               {L"spwho", false},
               {L"usp_who", false},
               {L"p_sp_", false},
               {L"sp_a.p", false},
               {L"sp_who.p", false},
               {L"master.dbo.sp_x.p", false},
               {L"dbo.sp_who.", false},
               {L"dbo.", false},
               {L".", false},
               {L"dbo. sp_who", false},
               {L"[sp_who]", false},
               {L"\"sp_who\"", false},
               {L"\vsp_who", false},
               {L"zp_who", false}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(row.text)));
    const Command made = procedure(row.text, {1});
    const Settings before = settings_of(made);
    for (const Road road : kRoads) {
      EXPECT_EQ(run(road, made).outcome,
                row.refused ? kTooManyArguments : kDone);
    }
    if (row.refused) {
      EXPECT_EQ(settings_of(made), before);
    }
    EXPECT_EQ(statements().size(), row.refused ? 0U : 2U);
    EXPECT_EQ(run(Road::kVtable, procedure(row.text, {})).outcome, kDone);
    EXPECT_EQ(statements().size(), 1U);
  }
}

TEST_F(StoredProcedure, OfTheSystemRefusesParametersOfEveryDirection) {
  for (const std::vector<long>& directions : std::vector<std::vector<long>>{
           {0}, {1}, {2}, {3}, {4}, {4, 4}, {1, 4}, {9}}) {
    EXPECT_EQ(run(Road::kVtable, procedure(L"sp_who", directions)).outcome,
              kTooManyArguments);
  }
  EXPECT_EQ(run(Road::kVtable, procedure(L"sp_who", {})).outcome, kDone);
  EXPECT_EQ(statements(), Texts({"{CALL sp_who()}"}));
}

TEST_F(StoredProcedure, OfTheSystemIsAnyNameInAText) {
  for (const long type : {-1L, 1L, 8L}) {
    const Command made = command(L"sp_who ?", type);
    append_directions(made, {1});
    EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  }
}

// ---------------------------------------------------------------------------
// Layouts
// ---------------------------------------------------------------------------

TEST_F(StoredProcedure, HasItsReturnValueInFrontOrNotAtAll) {
  for (const std::vector<long>& directions : std::vector<std::vector<long>>{
           {1, 4}, {4, 4}, {2, 4}, {4, 1, 4}, {1, 2, 4}, {3, 4, 1}}) {
    SCOPED_TRACE(testing::PrintToString(directions));
    const Command made = procedure(L"p", directions);
    const Settings before = settings_of(made);
    for (const Road road : kRoads) {
      EXPECT_EQ(run(road, made).outcome, kLayout);
    }
    EXPECT_EQ(settings_of(made), before);
  }
  EXPECT_EQ(statements(), Texts());
}

// ---------------------------------------------------------------------------
// Values of stored procedures
// ---------------------------------------------------------------------------

// Nothing is read back: outputs are Empty, the rest stays as it was sent.
TEST_F(StoredProcedure, ReturnsNoValues) {
  for (int number = 1; number <= 5; ++number) {
    script().output(number, cell(77));
  }
  for (const Road road : kRoads) {
    const Command made = command(L"p", ZIRDB_AD_CMD_STORED_PROC);
    const VARIANT small = plain(VT_I2, 7);
    for (const long direction : {4L, 1L, 2L, 3L, 0L}) {
      append(made, small, ZIRDB_AD_BIGINT, direction);
    }
    EXPECT_EQ(run(road, made).outcome, kDone);
    EXPECT_EQ(values_in(made),
              described({_variant_t(), small, _variant_t(), small, small}));
  }
}

TEST_F(StoredProcedure, KeepsItsOutputsWhenItFails) {
  script().fail("SQLExecute", SQL_ERROR, {"HY000", 1, "no"});
  const Command made = procedure(L"p", {4, 2});
  EXPECT_EQ(run(Road::kVtable, made).outcome.code, kExecuteFailedCode);
  EXPECT_EQ(values_in(made), described({1, 2}));
}

// ---------------------------------------------------------------------------
// Recordsets
// ---------------------------------------------------------------------------

class CommandResult : public SentCommand {};

TEST_F(CommandResult, WithColumnsIsARecordsetOnItsFirstRow) {
  script().columns({{"id", SQL_INTEGER}, {"name", SQL_VARCHAR}});
  script().row({cell(1), cell("one")}).row({cell(2), cell("two")});
  for (const Road road : kRoads) {
    for (const long type : kAllTypes) {
      const Recordset rows = run(road, command(L"select", type)).recordset;
      ASSERT_TRUE(rows);
      EXPECT_EQ(component::state_of(rows), ZIRDB_STATE_OPEN);
      EXPECT_EQ(parameters::describe(component::value_at(rows, 0)),
                parameters::describe(_variant_t(1)));
      EXPECT_EQ(rows->MoveNext(), S_OK);
      EXPECT_EQ(parameters::describe(component::value_at(rows, 1)),
                parameters::describe(_variant_t(L"two")));
      EXPECT_EQ(rows->MoveNext(), S_OK);
      EXPECT_TRUE(component::at_end(rows));
    }
  }
}

TEST_F(CommandResult, WithColumnsButNoRowsIsOpenAtTheEnd) {
  script().columns({{"id", SQL_INTEGER}});
  const Recordset rows = run(Road::kVtable, command(L"select")).recordset;
  EXPECT_EQ(component::state_of(rows), ZIRDB_STATE_OPEN);
  EXPECT_TRUE(component::at_end(rows));
}

TEST_F(CommandResult, WithoutColumnsIsAClosedRecordsetWithoutFields) {
  for (const Road road : kRoads) {
    for (const long type : kAllTypes) {
      SCOPED_TRACE(testing::Message() << road << ", type " << type);
      const Recordset none = run(road, command(L"update", type)).recordset;
      ASSERT_TRUE(none);
      EXPECT_EQ(component::state_of(none), ZIRDB_STATE_CLOSED);
      const Outcome closed{kClosedCode, component::kRecordsetSource,
                           kClosedText};
      VARIANT_BOOL flag = 77;
      long count = 77;
      EXPECT_EQ(ended([&] { return none->get_EOF(&flag); }), closed);
      EXPECT_EQ(ended([&] { return none->get_BOF(&flag); }), closed);
      EXPECT_EQ(ended([&] { return none->get_RecordCount(&count); }), closed);
      EXPECT_EQ(ended([&] { return none->MoveFirst(); }), closed);
      EXPECT_EQ(ended([&] { return none->MoveNext(); }), closed);
      EXPECT_EQ(ended([&] { return none->MovePrevious(); }), closed);
      EXPECT_EQ(ended([&] { return none->MoveLast(); }), closed);
      EXPECT_EQ(ended([&] { return none->Close(); }), closed);
      EXPECT_EQ(component::fields_of(none.get())->get_Count(&count), S_OK);
      EXPECT_EQ(count, 0);
    }
  }
}

TEST_F(CommandResult, WithoutColumnsDoesNotBelongToTheConnection) {
  const Recordset none = run(Road::kVtable, command(L"update")).recordset;
  EXPECT_EQ(database()->Close(), S_OK);
  long count = 77;
  EXPECT_EQ(component::fields_of(none.get())->get_Count(&count), S_OK);
  EXPECT_EQ(none->MoveNext(), kClosedCode);
}

// ---------------------------------------------------------------------------
// Affected rows
// ---------------------------------------------------------------------------

TEST_F(CommandResult, CountsRowsThroughAReference) {
  script().result_for("update", {{}, {}, 4294967301});
  script().result_for("select", {{{"id", SQL_INTEGER}}, {{cell(1)}}, 9});
  constexpr std::int64_t kBefore = 0x7777777777777777;
  const struct {
    VARTYPE type;
    std::int64_t updated;  ///< low bits first
    std::int64_t selected;
  } kRows[] = {
      {VT_I8, 4294967301, -1},
      {VT_UI8, 4294967301, -1},
      {VT_I4, 4294967301, -1},
      {VT_UI4, 0x7777777700000005, 0x77777777FFFFFFFF},
      {VT_I2, 0x7777777777770005, 0x777777777777FFFF},
      {VT_UI2, 0x7777777777770005, 0x777777777777FFFF},
      {VT_UI1, kBefore, kBefore},
      {VT_R8, kBefore, kBefore},
      {VT_BOOL, kBefore, kBefore},
  };
  for (const auto& row : kRows) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message() << "type " << row.type << ", " << road);
      std::int64_t target = kBefore;
      VARIANT reference = plain(VT_BYREF, 0);
      reference.vt = static_cast<VARTYPE>(reference.vt | row.type);
      reference.byref = &target;
      EXPECT_EQ(run(road, command(L"update"), &reference).outcome, kDone);
      EXPECT_EQ(target, row.updated);
      target = kBefore;
      EXPECT_EQ(run(road, command(L"select"), &reference).outcome, kDone);
      EXPECT_EQ(target, row.selected);
    }
  }
}

TEST_F(CommandResult, CountsRowsInAVariant) {
  script().row_count(3);
  for (const Road road : kRoads) {
    for (const long type : kAllTypes) {
      _variant_t target(L"before");
      VARIANT reference = values::reference_to(&target);
      EXPECT_EQ(run(road, command(L"update", type), &reference).outcome, kDone);
      EXPECT_EQ(parameters::describe(target),
                parameters::describe(_variant_t(3)));
    }
  }
}

TEST_F(CommandResult, CountsNothingThroughReferencesToNothing) {
  script().row_count(3);
  for (const VARTYPE type : {VT_VARIANT, VT_I2, VT_I4, VT_UI8}) {
    VARIANT reference{};
    reference.vt = static_cast<VARTYPE>(VT_BYREF | type);
    for (const Road road : kRoads) {
      EXPECT_EQ(run(road, command(L"update"), &reference).outcome, kDone);
    }
  }
}

TEST_F(CommandResult, CountsNothingIntoAValue) {
  script().row_count(3);
  for (const Road road : kRoads) {
    _variant_t value(L"before");
    EXPECT_EQ(run(road, command(L"update"), &value).outcome, kDone);
    EXPECT_EQ(parameters::describe(value),
              parameters::describe(_variant_t(L"before")));
  }
}

TEST_F(CommandResult, OfAFailureCountsNothing) {
  script().fail("SQLExecDirect", SQL_ERROR, {"42000", 1, "no"});
  for (const wchar_t* text : {L"update", L""}) {
    for (const Road road : kRoads) {
      _variant_t target(L"before");
      VARIANT reference = values::reference_to(&target);
      EXPECT_NE(run(road, command(text), &reference).outcome.code, S_OK);
      EXPECT_EQ(parameters::describe(target),
                parameters::describe(_variant_t(L"before")));
    }
  }
}

// Options mean nothing to a database, however they are written.
TEST_F(CommandResult, IsTheSameForAllOptions) {
  for (const long options : {0L, 1L, -1L, values::kSmallest}) {
    for (const Road road : kRoads) {
      EXPECT_EQ(run(road, command(L"update"), nullptr, options).outcome, kDone);
    }
  }
}

// ---------------------------------------------------------------------------
// Failures of the database
// ---------------------------------------------------------------------------

class CommandFailure : public SentCommand {};

TEST_F(CommandFailure, OfTheDatabaseIsToldInItsWords) {
  const struct {
    const char* call = nullptr;
    int code = 0;
    scripted_odbc::Diagnostics diagnostics;
    const wchar_t* text = nullptr;
  } kRows[] = {
      {"SQLPrepare", SQL_ERROR, {"42000", 7, "syntax"}, L"42000: syntax"},
      {"SQLBindParameter", SQL_ERROR, {"HY105", 7, "type"}, L"HY105: type"},
      {"SQLExecute", SQL_ERROR, {"23000", 7, "key"}, L"23000: key"},
      {"SQLExecute", SQL_NO_DATA, {}, L"ODBC operation failed"},
      {"SQLNumResultCols",
       SQL_ERROR,
       {"HY000", 7, "columns"},
       L"HY000: columns"},
      {"SQLFetch", SQL_ERROR, {"08S01", 7, "gone"}, L"08S01: gone"},
  };
  for (const auto& row : kRows) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message() << row.call << ", " << road);
      script().reset();
      const Connection connection = component::opened(connection_string());
      script().columns({{"id", SQL_INTEGER}});
      script().row({cell(1)});
      script().fail(row.call, row.code, row.diagnostics);
      const Command made = command_over(connection, L"select ?");
      append(made, plain(VT_I2, 7));
      const Settings before = settings_of(made);
      EXPECT_EQ(run(road, made).outcome,
                (Outcome{kExecuteFailedCode, kConnectionSource, row.text}));
      EXPECT_EQ(settings_of(made), before);
    }
  }
}

TEST_F(CommandFailure, LeavesTheCommandUsable) {
  script().fail("SQLExecDirect", scripted_odbc::nth(1), SQL_ERROR,
                {"42000", 7, "syntax"});
  const Command made = command(L"select");
  EXPECT_EQ(run(Road::kVtable, made).outcome.code, kExecuteFailedCode);
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
}

TEST_F(CommandFailure, OfTextThatHasNoUtf16IsToldAndNothingIsSent) {
  const Command made = command(L"select ?");
  append(made, _variant_t(L"a\x7FFFFFFF"), ZIRDB_AD_VARWCHAR);
  const Outcome outcome = run(Road::kVtable, made).outcome;
  EXPECT_EQ(outcome, (Outcome{kExecuteFailedCode, kConnectionSource,
                              L"wstring_convert::from_bytes"}));
  EXPECT_EQ(script().count("SQLExecute"), 0U);
}

// ---------------------------------------------------------------------------
// Who keeps whom
// ---------------------------------------------------------------------------

class CommandLifetime : public SentCommand {};

TEST_F(CommandLifetime, KeepsItsConnectionOpen) {
  Connection connection = component::opened(connection_string());
  Command made = command_over(connection, L"select");
  connection = {};
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  EXPECT_EQ(script().live("DBC"), 1U);
  made = {};
  EXPECT_EQ(script().live("DBC"), 0U);
}

TEST_F(CommandLifetime, LetsItsConnectionGoForAnother) {
  Connection connection = component::opened(connection_string());
  const Command made = command_over(connection, L"select");
  connection = {};
  EXPECT_EQ(made->putref_ActiveConnection(nullptr), S_OK);
  EXPECT_EQ(script().live("DBC"), 0U);
  EXPECT_EQ(run(Road::kVtable, made).outcome, kNoConnection);
}

TEST_F(CommandLifetime, AClosedConnectionServesAgainOnceItIsOpen) {
  script().columns({{"id", SQL_INTEGER}}).row({cell(1)});
  const Connection connection = component::opened(connection_string());
  const Command made = command_over(connection, L"select");
  const Recordset rows = run(Road::kVtable, made).recordset;
  EXPECT_EQ(connection->Close(), S_OK);
  EXPECT_EQ(component::state_of(rows), ZIRDB_STATE_CLOSED);
  for (const Road road : kRoads) {
    EXPECT_EQ(run(road, made).outcome, kNoConnection);
  }
  EXPECT_EQ(connection->Open(nullptr, nullptr, nullptr, 0), S_OK);
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
}

TEST_F(CommandLifetime, RecordsetsOutliveTheCommandButNotItsConnection) {
  script().columns({{"id", SQL_INTEGER}}).row({cell(1)});
  Connection connection = component::opened(connection_string());
  Command made = command_over(connection, L"select");
  const Recordset rows = run(Road::kVtable, made).recordset;
  made = {};
  EXPECT_EQ(parameters::describe(component::value_at(rows, 0)),
            parameters::describe(_variant_t(1)));
  connection = {};
  EXPECT_EQ(component::state_of(rows), ZIRDB_STATE_CLOSED);
}

TEST_F(CommandLifetime, TheCommandMayBeTheLastToHoldTheConnection) {
  script().columns({{"id", SQL_INTEGER}}).row({cell(1)});
  Connection connection = component::opened(connection_string());
  Command made = command_over(connection, L"select");
  connection = {};
  const Recordset rows = run(Road::kVtable, made).recordset;
  EXPECT_EQ(component::state_of(rows), ZIRDB_STATE_OPEN);
  made = {};
  EXPECT_EQ(component::state_of(rows), ZIRDB_STATE_CLOSED);
  EXPECT_EQ(script().live("DBC"), 0U);
}

TEST_F(CommandLifetime, SharesAConnectionWithOthers) {
  const Command one = command(L"one");
  const Command two = command(L"two");
  EXPECT_EQ(run(Road::kVtable, one).outcome, kDone);
  EXPECT_EQ(run(Road::kVtable, two).outcome, kDone);
  EXPECT_EQ(statements(), Texts({"one", "two"}));
}

// While the database is at work the host may let go of everything.
TEST_F(CommandLifetime, LastsUntilItsExecutionIsOver) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    script().reset();
    script().columns({{"id", SQL_INTEGER}}).row({cell(1)});
    Connection connection = component::opened(connection_string());
    Command made = command_over(connection, L"select ?");
    const Parameter parameter = append(made, plain(VT_I2, 7));
    IZIRDBCommand* const by_vtable = made.get();
    InterfacePtr<IDispatch> late;
    if (road == Road::kLateBound) late = dispatch_of(made.get());
    IDispatch* const late_bound = late.get();
    script().on("SQLExecute",
                [&](const scripted_odbc::Call& /*call*/)
                    -> std::optional<scripted_odbc::Reply> {
                  by_vtable->putref_ActiveConnection(nullptr);
                  made = {};
                  late = {};
                  connection = {};
                  return std::nullopt;
                });
    if (road == Road::kVtable) {
      IZIRDBRecordset* rows = nullptr;
      EXPECT_EQ(by_vtable->Execute(nullptr, 0, &rows), S_OK);
      EXPECT_EQ(component::state_of(Recordset::adopt(rows)),
                ZIRDB_STATE_CLOSED);
    } else {
      const Answer answer =
          component::method(late_bound, DISPID_ZIRDB_COMMAND_EXECUTE);
      EXPECT_EQ(answer.result, S_OK);
      EXPECT_EQ(component::state_of(recordset_in(answer)), ZIRDB_STATE_CLOSED);
    }
    EXPECT_EQ(parameters::describe(parameters::value_of(parameter.get())),
              parameters::describe(_variant_t(7)));
    EXPECT_EQ(script().live("DBC"), 0U);
  }
}

}  // namespace
