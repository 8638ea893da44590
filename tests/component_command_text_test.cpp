// SPDX-License-Identifier: MIT
//
// Which texts a command takes for procedure calls, for call escapes and for
// calls whose values do not come back: told by what it does with them.
//
// Sections: procedure calls as text; call escapes with a script's array; texts
// whose outputs are cleared; what the command type changes; no text.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/commands_sent.h"
#include "support/parameters.h"
#include "support/values.h"

namespace {

using namespace commands;
using component::Connection;
using parameters::script_array_of;
using values::plain;

constexpr long kNotProcedures[] = {ZIRDB_AD_CMD_UNSPECIFIED, ZIRDB_AD_CMD_TEXT,
                                   ZIRDB_AD_CMD_UNKNOWN};

/// ASCII only.
std::string narrow(const std::wstring& text) {
  return std::string(text.begin(), text.end());
}

class CommandText : public SentCommand {};

// ---------------------------------------------------------------------------
// Procedure calls as text
// ---------------------------------------------------------------------------

enum Shape { kOther, kExec, kEscape };

struct Text {
  const wchar_t* text;
  Shape shape;
};

const Text kTexts[] = {
    // EXEC, one blank, any name but that of the text executor.
    {L"EXEC p", kExec},
    {L"exec p", kExec},
    {L"ExEc p ?, ?", kExec},
    {L" \t\r\n EXEC p", kExec},
    {L"EXEC \t\r\n p", kExec},
    {L"EXEC ", kExec},
    {L"EXEC dbo.sp_who", kExec},
    {L"EXEC [sp_executesql]", kExec},
    {L"EXEC sp_executesq", kExec},
    {L"EXEC sp_execute", kExec},
    {L"EXEC ?", kExec},
    {L"EXEC sp_executesql", kOther},
    {L"EXEC sp_executesql N'select ?'", kOther},
    {L"exec SP_ExecuteSQL ?", kOther},
    {L"EXEC \t\n\r sp_executesql ?", kOther},
    {L" exec  sp_executesql ?", kOther},
    // Near misses.
    {L"EXEC", kOther},
    {L"EXEC\tp", kOther},
    {L"EXEC\np", kOther},
    {L"EXEC(p)", kOther},
    {L"EXECp", kOther},
    {L"EXECUTE p", kOther},
    {L"EXE p", kOther},
    {L"E XEC p", kOther},
    {L"xEXEC p", kOther},
    {L";EXEC p", kOther},
    {L"-- c\nEXEC p", kOther},
    {L"\vEXEC p", kOther},
    {L"\fEXEC p", kOther},
    {L"CALL p(?)", kOther},
    {L"SELECT ?", kOther},
    {L"?", kOther},
    {L" ", kOther},
    // A brace, perhaps a question mark and an equals sign, CALL and one blank.
    {L"{CALL p(?)}", kEscape},
    {L"{call p(?)}", kEscape},
    {L"{CaLL p", kEscape},
    {L"{CALL ", kEscape},
    {L"{CALL }", kEscape},
    {L" \t\r\n{ \t\r\nCALL \t\r\np(?)}", kEscape},
    {L"{?=CALL p(?)}", kEscape},
    {L"{? = CALL p(?)}", kEscape},
    {L"\n{\t?\r\n=\t CALL p(?)}", kEscape},
    {L"{CALL sp_executesq(?)}", kEscape},
    {L"{CALL dbo.sp_executesql(?)}", kEscape},
    {L"{CALL \"sp_executesql\"(?)}", kEscape},
    {L"{CALL sp_executesql(?)}", kOther},
    {L"{CALL SP_EXECUTESQL(?)}", kOther},
    {L"{CALL  sp_executesql (?)}", kOther},
    {L"{ CALL \t\r\nsp_executesql(?)}", kOther},
    {L"{?=CALL sp_executesql(?)}", kOther},
    // Thirteen characters decide.
    {L"{CALL sp_executesqlx(?)}", kOther},
    {L"{CALL sp_executesql", kOther},
    // Near misses.
    {L"{CALL", kOther},
    {L"{CALL}", kOther},
    {L"{CALLp(?)}", kOther},
    {L"{CALL\tp(?)}", kOther},
    {L"{CALL(?)}", kOther},
    {L"{CAL p(?)}", kOther},
    {L"{CALLS p(?)}", kOther},
    {L"{EXEC p}", kOther},
    {L"{? CALL p(?)}", kOther},
    {L"{= CALL p(?)}", kOther},
    {L"{=? CALL p(?)}", kOther},
    // Two literals, or it is a trigraph.
    {L"{?"
     L"?=CALL p(?)}",
     kOther},
    {L"{?==CALL p(?)}", kOther},
    {L"{{CALL p(?)}}", kOther},
    {L"x{CALL p(?)}", kOther},
    {L"(CALL p(?))", kOther},
    {L"{", kOther},
    {L"{ ", kOther},
    {L"{?", kOther},
    {L"{? ", kOther},
    {L"{?=", kOther},
    {L"{? = ", kOther},
    {L"\v{CALL p(?)}", kOther},
    {L"{\fCALL p(?)}", kOther},
    {L"{\x00A0"
     L"CALL p(?)}",
     kOther},
    {L"{?\v=CALL p(?)}", kOther},
};

TEST_F(CommandText, ThatCallsAProcedureTakesNoParametersOfItsOwn) {
  for (const Text& row : kTexts) {
    for (const long type : kNotProcedures) {
      SCOPED_TRACE(testing::Message() << narrow(row.text) << ", type " << type);
      const Command made = command(row.text, type);
      append(made, _variant_t(5));
      const Ran ran = run(Road::kVtable, made);
      if (row.shape == kOther) {
        EXPECT_EQ(ran.outcome, kDone);
        EXPECT_EQ(script().count("SQLPrepare"), 1U);
        EXPECT_EQ(bound(), Texts({"in BIGINT 5"}));
      } else {
        EXPECT_EQ(ran.outcome, kErrorsOccurred);
        EXPECT_EQ(script().calls().size(), 0U);
      }
      script().clear_log();
    }
  }
}

TEST_F(CommandText, OfEveryShapeIsSentAsItIsWithoutParameters) {
  for (const Text& row : kTexts) {
    for (const long type : kNotProcedures) {
      SCOPED_TRACE(testing::Message() << narrow(row.text) << ", type " << type);
      EXPECT_EQ(run(Road::kVtable, command(row.text, type)).outcome, kDone);
      const Texts sent = statements();
      ASSERT_EQ(sent.size(), 1U);
      // One row is not ASCII.
      if (std::wstring(row.text).find(L'\x00A0') == std::wstring::npos) {
        EXPECT_EQ(sent[0], narrow(row.text));
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Call escapes with a script's array
// ---------------------------------------------------------------------------

// Only a command whose type nobody has set takes values for a call escape.
TEST_F(CommandText, ThatIsACallEscapeTakesAnArrayIfTheTypeIsUnknown) {
  for (const Text& row : kTexts) {
    for (const long type : kNotProcedures) {
      SCOPED_TRACE(testing::Message() << narrow(row.text) << ", type " << type);
      const bool taken = row.shape == kOther ||
                         (row.shape == kEscape && type == ZIRDB_AD_CMD_UNKNOWN);
      const _variant_t array = script_array_of(_variant_t(5));
      const Ran ran = run_with(command(row.text, type), {array});
      EXPECT_EQ(ran.outcome, taken ? kDone : kBadParameter);
      EXPECT_EQ(script().count("SQLExecute"), taken ? 1U : 0U);
      script().clear_log();
    }
  }
}

TEST_F(CommandText, OfEveryShapeTakesAnEmptyArray) {
  for (const Text& row : kTexts) {
    SCOPED_TRACE(narrow(row.text));
    const _variant_t array = script_array_of();
    EXPECT_EQ(run_with(command(row.text), {array}).outcome, kDone);
    EXPECT_EQ(script().count("SQLExecDirect"), 1U);
    script().clear_log();
  }
}

// ---------------------------------------------------------------------------
// Texts whose outputs are cleared
// ---------------------------------------------------------------------------

struct Escape {
  const wchar_t* text;
  bool suppressed;
};

// From the first character, with exactly these blanks, up to the parenthesis.
// None of them is a procedure call in the sense above.
const Escape kEscapes[] = {
    {L"{CALL sp_executesql(?, ?)}", true},
    {L"{call SP_EXECUTESQL(?, ?)}", true},
    {L"{CALL sp_executesql(", true},
    {L"{? = CALL sp_executesql(?)}", true},
    {L"{? = Call Sp_ExecuteSql(?)}", true},
    {L" {CALL sp_executesql(?, ?)}", false},
    {L"\t{CALL sp_executesql(?, ?)}", false},
    {L"{ CALL sp_executesql(?, ?)}", false},
    {L"{CALL  sp_executesql(?, ?)}", false},
    {L"{CALL sp_executesql (?, ?)}", false},
    {L"{CALL sp_executesql", false},
    {L"{CALL sp_executesqlx(?, ?)}", false},
    {L"{?=CALL sp_executesql(?)}", false},
    {L"{? =CALL sp_executesql(?)}", false},
    {L"{?= CALL sp_executesql(?)}", false},
    {L"{ ? = CALL sp_executesql(?)}", false},
    {L"{?  = CALL sp_executesql(?)}", false},
    {L"{? = CALL  sp_executesql(?)}", false},
    {L"{? = CALL sp_executesql (?)}", false},
    {L"{? = CALL sp_executesql", false},
    {L"{? = CALL sp_executesqlx(?)}", false},
    {L"EXEC sp_executesql(?, ?)", false},
    {L"CALL sp_executesql(?, ?)", false},
};

TEST_F(CommandText, ThatIsSuppressedTakesOutputsAndClearsThem) {
  for (const Escape& row : kEscapes) {
    for (const long direction :
         {ZIRDB_AD_PARAM_OUTPUT, ZIRDB_AD_PARAM_RETURN_VALUE}) {
      for (const long type : kNotProcedures) {
        SCOPED_TRACE(testing::Message() << narrow(row.text) << ", direction "
                                        << direction << ", type " << type);
        script().output(1, scripted_odbc::cell(77));
        const Command made = command(row.text, type);
        append(made, _variant_t(5), ZIRDB_AD_BIGINT, direction);
        append(made, _variant_t(L"x"), ZIRDB_AD_VARCHAR);
        const Ran ran = run(Road::kVtable, made);
        EXPECT_EQ(ran.outcome, row.suppressed ? kDone : kNearOutput);
        EXPECT_EQ(
            values_in(made),
            described({row.suppressed ? _variant_t() : _variant_t(5), L"x"}));
        EXPECT_EQ(statements().size(), row.suppressed ? 1U : 0U);
      }
    }
  }
}

TEST_F(CommandText, ThatIsSuppressedLeavesTheOtherValuesAsTheyAre) {
  for (const Escape& row : kEscapes) {
    SCOPED_TRACE(narrow(row.text));
    script().output(2, scripted_odbc::cell(77));
    const Command made = command(row.text);
    const VARIANT small = plain(VT_I2, 7);
    append(made, small);
    append(made, small, ZIRDB_AD_BIGINT, ZIRDB_AD_PARAM_INPUT_OUTPUT);
    append(made, plain(VT_NULL, 0), ZIRDB_AD_BIGINT, ZIRDB_AD_PARAM_UNKNOWN);
    EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
    EXPECT_EQ(bound(),
              Texts({"in BIGINT 7", "inout BIGINT 7", "in BIGINT NULL"}));
    EXPECT_EQ(values_in(made),
              row.suppressed
                  ? described({small, small, plain(VT_NULL, 0)})
                  : described({_variant_t(7), 77, plain(VT_NULL, 0)}));
  }
}

TEST_F(CommandText, ThatIsSuppressedSendsItsOutputs) {
  const Command made = command(L"{? = CALL sp_executesql(?, ?)}");
  append_directions(made, {4, 1, 2});
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  EXPECT_EQ(statements(), Texts({"{? = CALL sp_executesql(?, ?)}"}));
  EXPECT_EQ(bound(), Texts({"out BIGINT", "in BIGINT 2", "out BIGINT"}));
  EXPECT_EQ(values_in(made), described({_variant_t(), 2, _variant_t()}));
}

TEST_F(CommandText, ThatIsSuppressedKeepsItsOutputsWhenTheDatabaseRefusesIt) {
  script().fail("SQLExecute", SQL_ERROR, {"HY000", 1, "no"});
  const Command made = command(L"{CALL sp_executesql(?)}");
  append_directions(made, {2});
  EXPECT_EQ(run(Road::kVtable, made).outcome.code,
            component::kExecuteFailedCode);
  EXPECT_EQ(values_in(made), described({1}));
}

// ---------------------------------------------------------------------------
// What else a text may hold
// ---------------------------------------------------------------------------

TEST_F(CommandText, WithAnOutputIsRefusedUnlessItIsSuppressed) {
  for (const long type : kNotProcedures) {
    for (const std::vector<long>& directions : std::vector<std::vector<long>>{
             {2}, {4}, {1, 2}, {2, 1}, {1, 3, 4}, {0, 99, 2}}) {
      const Command made = command(L"SELECT ?", type);
      append_directions(made, directions);
      const Settings before = settings_of(made);
      for (const Road road : kRoads) {
        EXPECT_EQ(run(road, made).outcome, kNearOutput) << road;
      }
      EXPECT_EQ(settings_of(made), before);
      EXPECT_EQ(statements(), Texts());
    }
  }
}

TEST_F(CommandText, WithAnyOtherDirectionIsSent) {
  for (const long direction : {0L, 1L, 3L, 5L, -1L, 99L}) {
    const Command made = command(L"SELECT ?");
    append_directions(made, {direction});
    EXPECT_EQ(run(Road::kVtable, made).outcome, kDone) << direction;
    EXPECT_EQ(bound(),
              Texts({direction == 3 ? "inout BIGINT 1" : "in BIGINT 1"}));
  }
}

TEST_F(CommandText, BeyondAsciiIsSentAsUtf8) {
  EXPECT_EQ(
      run(Road::kVtable, command(L"SELECT '\u00e9\u20ac\U0001F600'")).outcome,
      kDone);
  EXPECT_EQ(statements(),
            Texts({"SELECT '\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80'"}));
}

TEST_F(CommandText, IsSentByBothRoadsAndEveryCallAnew) {
  const Command made = command(L"one");
  for (const Road road : kRoads) {
    EXPECT_EQ(run(road, made).outcome, kDone);
    _bstr_t other(L"other");
    EXPECT_EQ(made->put_CommandText(other.m_s), S_OK);
  }
  EXPECT_EQ(statements(), Texts({"one", "other"}));
}

TEST_F(CommandText, ThatIsEmptyIsRefused) {
  for (const long type : {-1L, 1L, 4L, 8L}) {
    const Command made = command(L"", type);
    append(made, _variant_t(L"x"), ZIRDB_AD_INTEGER);
    for (const Road road : kRoads) {
      EXPECT_EQ(run(road, made).outcome, kNoText) << road << ", type " << type;
    }
  }
  EXPECT_EQ(statements(), Texts());
}

}  // namespace
