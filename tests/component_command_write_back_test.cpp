// SPDX-License-Identifier: MIT
//
// The values of a command's parameters on their way to a database and back.
//
// Sections: what is sent and comes back; what a database returns; values that
// cannot be sent; who sees it; failures behind the execution; changes while the
// database is at work.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "support/commands_sent.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"

namespace {

using namespace commands;
using namespace std::string_literals;
using component::kConnectionSource;
using component::kExecuteFailedCode;
using parameters::bytes_value;
using parameters::conversion_stub;
using parameters::value_of;
using scripted_odbc::bytes_of;
using scripted_odbc::cell;
using scripted_odbc::null_cell;
using scripted_odbc::raw;
using values::plain;
using values::text_value;

class CommandValues : public SentCommand {};

VARIANT truth(bool value) { return plain(VT_BOOL, value ? 0xFFFF : 0); }
VARIANT null() { return plain(VT_NULL, 0); }
VARIANT date(double days) { return plain(VT_DATE, values::bits_of(days)); }

// ---------------------------------------------------------------------------
// What is sent and comes back
// ---------------------------------------------------------------------------

// Deliberate: inputs too come back in the type that the database works with.
TEST_F(CommandValues, OfInputsAreSentByTypeAndComeBackByIt) {
  _variant_t nine(9);
  const parameters::Chain chain(&nine, 2);
  const struct {
    const char* description;
    long type;
    long size;
    _variant_t value;
    const char* bound;
    _variant_t after;
  } kRows[] = {
      // Not declared: by the type of the value.
      {"empty", 0, 0, {}, "in VARCHAR(1) NULL", null()},
      {"null", 0, 0, null(), "in VARCHAR(1) NULL", null()},
      {"null of a size", 0, 7, null(), "in VARCHAR(7) NULL", null()},
      {"null link", 0, 0, parameters::null_reference(), "in VARCHAR(1) NULL",
       null()},
      {"chain", 0, 0, chain.front(), "in BIGINT 9", 9},
      {"VT_I2", 0, 0, plain(VT_I2, 0xFFF9), "in BIGINT -7", -7},
      {"VT_I1", 0, 0, plain(VT_I1, 0xF9), "in BIGINT -7", -7},
      {"VT_UI1", 0, 0, plain(VT_UI1, 0xF9), "in BIGINT 249", 249},
      {"VT_UI2", 0, 0, plain(VT_UI2, 0xFFF9), "in BIGINT 65529", 65529},
      {"VT_UI4", 0, 0, plain(VT_UI4, 0xFFFFFFF9), "in BIGINT 4294967289",
       4294967289},
      {"VT_UI8", 0, 0, plain(VT_UI8, 7), "in BIGINT 7", 7},
      {"VT_I4", 0, 0, plain(VT_I4, 7), "in BIGINT 7", 7},
      {"VT_I8", 0, 0, -7, "in BIGINT -7", -7},
      {"VT_R8", 0, 0, 1.5, "in DOUBLE 1.5", 1.5},
      {"true", 0, 0, truth(true), "in BIT 1", truth(true)},
      {"false", 0, 0, truth(false), "in BIT 0", truth(false)},
      {"a true that is not -1", 0, 0, plain(VT_BOOL, 1), "in BIT 0",
       truth(false)},
      {"text", 0, 0, L"abc", "in VARCHAR(3) \"abc\"", L"abc"},
      {"text of a size", 0, 9, L"abc", "in VARCHAR(9) \"abc\"", L"abc"},
      {"empty text", 0, 0, L"", "in VARCHAR(0) \"\"", L""},
      {"bytes", 0, 0, bytes_value({0, 1, 255}, 4), "in VARBINARY(3) x0001FF",
       bytes_value({0, 1, 255})},
      {"no bytes", 0, 0, bytes_value({}), "in VARBINARY(0) x", bytes_value({})},
      {"date", 0, 0, date(45292), "in VARCHAR(10) \"2024/01/01\"",
       L"2024/01/01"},
      {"unlisted number", 999, 0, plain(VT_I2, 7), "in BIGINT 7", 7},
      {"unlisted negative number", -3, 0, L"abc", "in VARCHAR(3) \"abc\"",
       L"abc"},
      // Integers.
      {"integer", 3, 0, 7, "in INTEGER 7", plain(VT_I4, 7)},
      {"negative integer", 3, 0, -1, "in INTEGER -1",
       plain(VT_I4, ~std::uint64_t{0})},
      {"integer of more than 32 bits", 3, 0, 4294967297, "in INTEGER 1",
       plain(VT_I4, 1)},
      {"integer from text", 3, 0, L"42", "in INTEGER 42", plain(VT_I4, 42)},
      {"integer from a truth value", 3, 0, truth(true), "in INTEGER -1",
       plain(VT_I4, ~std::uint64_t{0})},
      {"integer null", 3, 0, null(), "in INTEGER NULL", null()},
      {"integer empty", 3, 0, {}, "in INTEGER NULL", null()},
      {"big integer", 20, 0, plain(VT_I4, 7), "in BIGINT 7", 7},
      {"big integer from text", 20, 0, L" 42x", "in BIGINT 42", 42},
      {"big integer from a double", 20, 0, -2.9, "in BIGINT -2", -2},
      {"big integer null", 20, 0, null(), "in BIGINT NULL", null()},
      // Truth values.
      {"boolean", 11, 0, truth(true), "in BIT 1", truth(true)},
      {"boolean from text", 11, 0, L"TRUE", "in BIT 1", truth(true)},
      {"boolean from an integer", 11, 0, 5, "in BIT 1", truth(true)},
      {"boolean that is not -1", 11, 0, plain(VT_BOOL, 1), "in BIT 0",
       truth(false)},
      {"boolean null", 11, 0, null(), "in BIT NULL", null()},
      // Text.
      {"varchar", 200, 0, L"\u00e9", "in VARCHAR(2) \"\xC3\xA9\"", L"\u00e9"},
      {"varchar of a size", 200, 50, L"abc", "in VARCHAR(50) \"abc\"", L"abc"},
      {"empty varchar", 200, 0, L"", "in VARCHAR(1) \"\"", L""},
      {"varchar from an integer", 200, 0, 5, "in VARCHAR(1) \"5\"", L"5"},
      {"varchar from a date", 200, 0, date(45292.75),
       "in VARCHAR(19) \"2024/01/01 18:00:00\"", L"2024/01/01 18:00:00"},
      {"varchar null", 200, 9, null(), "in VARCHAR(9) NULL", null()},
      {"wide", 202, 0, L"a\U0001F600", "in WVARCHAR(3) u\"aD83D DE00 \"",
       L"a\U0001F600"},
      {"wide of a size", 202, 50, L"ab", "in WVARCHAR(50) u\"ab\"", L"ab"},
      {"empty wide", 202, 0, L"", "in WVARCHAR(0) u\"\"", L""},
      {"wide from a truth value", 202, 0, truth(true), "in WVARCHAR(2) u\"-1\"",
       L"-1"},
      {"wide null", 202, 0, null(), "in WVARCHAR(0) NULL", null()},
      {"guid", 72, 0, L"{a-b}", "in VARCHAR(5) \"{a-b}\"", L"{a-b}"},
      // Bytes.
      {"varbinary", 204, 0, bytes_value({1, 2}), "in VARBINARY(2) x0102",
       bytes_value({1, 2})},
      {"varbinary of a size", 204, 9, bytes_value({1, 2}, -1),
       "in VARBINARY(9) x0102", bytes_value({1, 2})},
      {"empty varbinary", 204, 0, bytes_value({}), "in VARBINARY(1) x",
       bytes_value({})},
      {"varbinary null", 204, 0, null(), "in VARBINARY(1) NULL", null()},
      {"varbinary empty", 204, 0, {}, "in VARBINARY(1) NULL", null()},
  };
  for (const auto& row : kRows) {
    for (const long direction :
         {ZIRDB_AD_PARAM_INPUT, ZIRDB_AD_PARAM_UNKNOWN}) {
      SCOPED_TRACE(row.description);
      const Command made = command(L"select ?");
      append(made, row.value, row.type, direction, row.size);
      Ran ran;
      EXPECT_EQ(printed::by([&] { ran = run(Road::kVtable, made); }), "");
      EXPECT_EQ(ran.outcome, kDone);
      EXPECT_EQ(bound(), Texts({row.bound}));
      EXPECT_EQ(values_in(made), described({row.after}));
      statements();
    }
  }
  EXPECT_EQ(nine.llVal, 9);
}

// What it brought back is what it sends next.
TEST_F(CommandValues, OfInputsAreSentAgainAsTheyCameBack) {
  const Command made = command(L"select ?");
  const Parameter parameter = append(made, plain(VT_I2, 7), ZIRDB_AD_INTEGER);
  for (const Road road : kRoads) {
    EXPECT_EQ(run(road, made).outcome, kDone);
    EXPECT_EQ(bound(), Texts({"in INTEGER 7"}));
  }
  EXPECT_EQ(parameter->put_Value(text_value(L"8")), S_OK);
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  EXPECT_EQ(bound(), Texts({"in INTEGER 8"}));
}

// ---------------------------------------------------------------------------
// What a database returns
// ---------------------------------------------------------------------------

using Output =
    std::variant<std::monostate, scripted_odbc::Cell, scripted_odbc::Raw>;
constexpr std::monostate kUntouched;

TEST_F(CommandValues, OfInOutParametersAreThoseOfTheDatabase) {
  const struct {
    const char* description;
    long type;
    long size;
    _variant_t value;
    const char* bound;
    Output output;
    _variant_t after;
  } kRows[] = {
      {"integer", 3, 0, 7, "inout INTEGER 7", cell(8), plain(VT_I4, 8)},
      {"negative integer", 3, 0, 7, "inout INTEGER 7", cell(-2),
       plain(VT_I4, static_cast<std::uint64_t>(-2))},
      {"integer of NULL",
       3,
       0,
       {},
       "inout INTEGER NULL",
       cell(8),
       plain(VT_I4, 8)},
      {"integer to NULL", 3, 0, 7, "inout INTEGER 7", null_cell(), null()},
      {"integer untouched", 3, 0, 7, "inout INTEGER 7", kUntouched,
       plain(VT_I4, 7)},
      {"NULL untouched", 3, 0, {}, "inout INTEGER NULL", kUntouched, null()},
      {"big integer",
       20,
       0,
       {},
       "inout BIGINT NULL",
       cell(std::int64_t{1} << 40),
       std::int64_t{1} << 40},
      {"boolean", 11, 0, truth(false), "inout BIT 0", cell(true), truth(true)},
      {"boolean to false", 11, 0, truth(true), "inout BIT 1", cell(false),
       truth(false)},
      {"varchar", 200, 10, L"abc", "inout VARCHAR(10) \"abc\"", cell("hello"),
       L"hello"},
      {"varchar beyond ASCII", 200, 10, null(), "inout VARCHAR(10) NULL",
       cell("\xE2\x82\xAC"), L"\u20ac"},
      {"varchar that is no UTF-8", 200, 10, L"", "inout VARCHAR(10) \"\"",
       cell("a\xFF"), L""},
      {"varchar with a zero", 200, 10, L"", "inout VARCHAR(10) \"\"",
       raw("a\0b"s, 3), L"a"},
      {"varchar without characters", 200, 10, L"abc",
       "inout VARCHAR(10) \"abc\"", raw("", 0), L""},
      {"varchar of unknown length", 200, 10, L"abc",
       "inout VARCHAR(10) \"abc\"", raw("xyz", SQL_NO_TOTAL), L""},
      {"varchar longer than its buffer", 200, 3, L"abc",
       "inout VARCHAR(3) \"abc\"", raw("wxy\0"s, SQL_NTS), L"wxy"},
      {"varchar cut to its size", 200, 3, L"abcdef",
       "inout VARCHAR(3) \"abcd\"", kUntouched, L"abcd"},
      {"varchar to NULL", 200, 3, L"abc", "inout VARCHAR(3) \"abc\"",
       null_cell(), null()},
      {"wide", 202, 5, L"ab", "inout WVARCHAR(5) u\"ab\"",
       raw(bytes_of(u"\xD83D\xDE00x\0"s), 6), L"\U0001F600x"},
      {"wide of NULL", 202, 5, null(), "inout WVARCHAR(5) NULL",
       raw(bytes_of(u"hi\0"s), SQL_NTS), L"hi"},
      {"wide untouched", 202, 5, L"ab", "inout WVARCHAR(5) u\"ab\"", kUntouched,
       L"ab"},
      {"guid", 72, 5, null(), "inout VARCHAR(5) NULL", cell("{x-y}"), L"{x-y}"},
      {"varbinary", 204, 4, bytes_value({1, 2}), "inout VARBINARY(4) x0102",
       scripted_odbc::binary("\x00\xFF\x07"s), bytes_value({0, 255, 7})},
      {"varbinary without bytes", 204, 4, bytes_value({1, 2}),
       "inout VARBINARY(4) x0102", raw("", 0), bytes_value({})},
      {"varbinary to NULL", 204, 4, bytes_value({1, 2}),
       "inout VARBINARY(4) x0102", null_cell(), null()},
      {"undeclared NULL", 0, 5, null(), "inout VARCHAR(5) NULL", cell("hi"),
       L"hi"},
      {"undeclared integer", 0, 0, plain(VT_I2, 7), "inout BIGINT 7", cell(8),
       8},
      {"undeclared double", 0, 0, 1.5, "inout DOUBLE 1.5", cell(2.5), 2.5},
      {"undeclared boolean", 0, 0, truth(false), "inout BIT 0", cell(true),
       truth(true)},
  };
  for (const auto& row : kRows) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message() << row.description << ", " << road);
      const Connection connection = [&] {
        script().reset();
        return component::opened(connection_string());
      }();
      if (const auto* honest = std::get_if<scripted_odbc::Cell>(&row.output)) {
        script().output(1, *honest);
      } else if (const auto* bytes =
                     std::get_if<scripted_odbc::Raw>(&row.output)) {
        script().output(1, *bytes);
      }
      const Command made = command_over(connection, L"select ?");
      append(made, row.value, row.type, ZIRDB_AD_PARAM_INPUT_OUTPUT, row.size);
      EXPECT_EQ(run(road, made).outcome, kDone);
      EXPECT_EQ(bound(), Texts({row.bound}));
      EXPECT_EQ(values_in(made), described({row.after}));
    }
  }
}

TEST_F(CommandValues, ComeBackInTheirPlaces) {
  script().output(1, cell(10)).output(3, cell("three"));
  const Command made = command(L"select ?, ?, ?, ?");
  append(made, _variant_t(1), 20, 3);
  append(made, _variant_t(2), 3, 1);
  append(made, null(), 200, 3, 9);
  append(made, _variant_t(L"4"), 3, 0);
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  EXPECT_EQ(bound(), Texts({"inout BIGINT 1", "in INTEGER 2",
                            "inout VARCHAR(9) NULL", "in INTEGER 4"}));
  EXPECT_EQ(values_in(made),
            described({10, plain(VT_I4, 2), L"three", plain(VT_I4, 4)}));
}

TEST_F(CommandValues, ComeBackWithARecordsetToo) {
  script().columns({{"id", SQL_INTEGER}}).row({cell(1)}).output(1, cell(8));
  const Command made = command(L"select ?");
  append(made, _variant_t(7), 20, 3);
  EXPECT_EQ(component::state_of(run(Road::kVtable, made).recordset),
            ZIRDB_STATE_OPEN);
  EXPECT_EQ(values_in(made), described({8}));
}

TEST_F(CommandValues, AreAllThatChangesInAParameter) {
  const Command made = command(L"select ?");
  append(made, plain(VT_I2, 7), 3, 3, 44);
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  EXPECT_EQ(parameters::records_of(parameters_of(made)),
            (std::vector<parameters::Record>{
                {L"p", 3, 3, 44, parameters::describe(plain(VT_I4, 7))}}));
}

TEST_F(CommandValues, OfOneParameterInTwoPlacesEndWithTheLast) {
  script().output(1, cell(10)).output(2, cell(20));
  const Command made = command(L"select ?, ?");
  const Parameter parameter = append(made, _variant_t(1), 20, 3);
  EXPECT_EQ(parameters_of(made)->Append(parameter.get()), S_OK);
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  EXPECT_EQ(bound(), Texts({"inout BIGINT 1", "inout BIGINT 1"}));
  EXPECT_EQ(values_in(made), described({20, 20}));
}

// ---------------------------------------------------------------------------
// Values that cannot be sent
// ---------------------------------------------------------------------------

TEST_F(CommandValues, ThatDoNotFitTheirTypeAreRefusedBeforeAnythingIsSent) {
  objects::Dispatch object;
  const _variant_t silent(static_cast<IDispatch*>(&object));
  const struct {
    const char* description;
    long type;
    _variant_t value;
    HRESULT code;
    int line_to;  ///< the type that cannot be converted to; 0: no line
  } kRows[] = {
      {"text as integer", 3, L"x", E_INVALIDARG, 0},
      {"text as big integer", 20, L"", E_INVALIDARG, 0},
      {"date as integer", 3, date(1), E_INVALIDARG, VT_I8},
      {"text as boolean", 11, L"yes", E_INVALIDARG, 0},
      {"VT_I4 as boolean", 11, plain(VT_I4, 1), E_INVALIDARG, VT_BOOL},
      {"text as varbinary", 204, L"x", DISP_E_TYPEMISMATCH, 0},
      {"integer as varbinary", 204, 1, DISP_E_TYPEMISMATCH, 0},
      {"script array as varbinary", 204,
       parameters::script_array_of(_variant_t(1)), DISP_E_TYPEMISMATCH, 0},
      {"bytes as integer", 3, bytes_value({1}), E_INVALIDARG, VT_I8},
      {"VT_R4 as varchar", 200, plain(VT_R4, 0), E_INVALIDARG, VT_BSTR},
      {"VT_UI2 as wide", 202, plain(VT_UI2, 1), E_INVALIDARG, VT_BSTR},
      {"error as guid", 72, plain(VT_ERROR, 1), E_INVALIDARG, VT_BSTR},
      {"undeclared VT_R4", 0, plain(VT_R4, 0), E_INVALIDARG, VT_R8},
      {"undeclared VT_CY", 0, plain(VT_CY, 1), E_INVALIDARG, VT_BSTR},
      {"undeclared error", 0, plain(VT_ERROR, 1), E_INVALIDARG, VT_BSTR},
      {"object without a default member", 0, silent, DISP_E_MEMBERNOTFOUND, 0},
  };
  for (const auto& row : kRows) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message() << row.description << ", " << road);
      const Command made = command(L"select ?, ?");
      append(made, plain(VT_I2, 7));
      append(made, row.value, row.type);
      const Settings before = settings_of(made);
      Ran ran;
      const std::string lines = printed::by([&] { ran = run(road, made); });
      EXPECT_EQ(ran.outcome, bad_value(row.code));
      EXPECT_EQ(lines, row.line_to == 0
                           ? std::string()
                           : conversion_stub(row.value.vt, row.line_to));
      EXPECT_EQ(settings_of(made), before);
    }
  }
  EXPECT_EQ(statements(), Texts());
}

// Also where no value would come back.
TEST_F(CommandValues, OfOutputsMustFitTheirTypeToo) {
  for (const long direction : {2L, 4L}) {
    const Command made = command(L"p", ZIRDB_AD_CMD_STORED_PROC);
    append(made, _variant_t(L"x"), 3, direction);
    EXPECT_EQ(run(Road::kVtable, made).outcome, bad_value(E_INVALIDARG));
    EXPECT_EQ(values_in(made), described({L"x"}));
  }
}

TEST_F(CommandValues, OfObjectsAreThoseOfTheirDefaultMember) {
  objects::Dispatch object([](const objects::Dispatch::Call& call) {
    *call.result = _variant_t(L"answer").Detach();
    return S_OK;
  });
  {
    const Command made = command(L"select ?");
    append(made, _variant_t(static_cast<IDispatch*>(&object)));
    EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
    EXPECT_EQ(bound(), Texts({"in VARCHAR(6) \"answer\""}));
    EXPECT_EQ(values_in(made), described({L"answer"}));
  }
  EXPECT_EQ(object.references(), 1U);
}

// ---------------------------------------------------------------------------
// Who sees it
// ---------------------------------------------------------------------------

TEST_F(CommandValues, AreSeenThroughEveryObjectOverTheParameter) {
  script().output(1, cell(8));
  Command made = command(L"select ?");
  const Parameter created_one = append(made, _variant_t(7), 20, 3);
  const Parameters list = parameters_of(made);
  const Parameter by_position = parameters::item(list, 0);
  const Parameter by_name = parameters::item(parameters_of(made), L"P");
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  made = {};
  for (const Parameter& each :
       {created_one, by_position, by_name, parameters::item(list, 0)}) {
    EXPECT_EQ(parameters::describe(value_of(each.get())),
              parameters::describe(_variant_t(8)));
  }
}

TEST_F(CommandValues, AreSharedByTheCommandsThatShareAParameter) {
  script().output(1, cell(8));
  const Command one = command(L"one ?");
  const Command two = command(L"two ?");
  const Parameter parameter = append(one, _variant_t(7), 20, 3);
  EXPECT_EQ(parameters_of(two)->Append(parameter.get()), S_OK);
  EXPECT_EQ(run(Road::kVtable, one).outcome, kDone);
  EXPECT_EQ(run(Road::kVtable, two).outcome, kDone);
  EXPECT_EQ(bound(), Texts({"inout BIGINT 8"}));
}

// ---------------------------------------------------------------------------
// Failures behind the execution
// ---------------------------------------------------------------------------

// The statement has done its work by then; nothing of it can be told.
TEST_F(CommandValues, ThatAreNoUtf16AreAFailureAndNoneComesBack) {
  script().output(1, cell(10));
  script().output(2, raw(bytes_of(u"\xD800y\0"s), 4));
  script().columns({{"id", SQL_INTEGER}}).row({cell(1)}).row_count(3);
  for (const Road road : kRoads) {
    const Command made = command(L"select ?, ?");
    append(made, _variant_t(1), 3, 3);
    append(made, _variant_t(L"two"), 202, 3, 9);
    const Settings before = settings_of(made);
    _variant_t affected(L"before");
    VARIANT reference = values::reference_to(&affected);
    EXPECT_EQ(run(road, made, &reference).outcome,
              (Outcome{kExecuteFailedCode, kConnectionSource,
                       L"wstring_convert::to_bytes"}));
    EXPECT_EQ(settings_of(made), before);
    EXPECT_EQ(affected.vt, VT_BSTR);
    EXPECT_EQ(statements().size(), 1U);
  }
}

// ---------------------------------------------------------------------------
// Changes while the database is at work
// ---------------------------------------------------------------------------

class CommandInterference : public SentCommand {
 protected:
  /// Runs a command with one in-out parameter of 7, for which the database
  /// returns 8, and in between what the test does.
  Ran run_with_in_between(const Command& made,
                          const std::function<void()>& in_between) {
    script().output(1, cell(8));
    script().on("SQLExecute",
                [&](const scripted_odbc::Call& /*call*/)
                    -> std::optional<scripted_odbc::Reply> {
                  in_between();
                  return std::nullopt;
                });
    return run(Road::kVtable, made);
  }
};

TEST_F(CommandInterference, AppendedParametersWaitForTheNextExecution) {
  const Command made = command(L"select ?");
  append(made, _variant_t(7), 20, 3);
  const Ran ran =
      run_with_in_between(made, [&] { append(made, plain(VT_I2, 5), 20, 3); });
  EXPECT_EQ(ran.outcome, kDone);
  EXPECT_EQ(bound(), Texts({"inout BIGINT 7"}));
  EXPECT_EQ(values_in(made), described({8, plain(VT_I2, 5)}));
}

TEST_F(CommandInterference, ANewValueIsReplacedByTheOneThatComesBack) {
  const Command made = command(L"select ?");
  const Parameter parameter = append(made, _variant_t(7), 20, 3);
  const Ran ran = run_with_in_between(made, [&] {
    EXPECT_EQ(parameter->put_Value(text_value(L"meanwhile")), S_OK);
    EXPECT_EQ(parameter->put_Type(ZIRDB_AD_INTEGER), S_OK);
  });
  EXPECT_EQ(ran.outcome, kDone);
  // As a big integer, which it was when it was sent.
  EXPECT_EQ(values_in(made), described({8}));
}

// What was sent decides whether its values come back.
TEST_F(CommandInterference, ATextThatIsSuppressedByThenChangesNothing) {
  const Command made = command(L"select ?");
  append(made, _variant_t(7), 20, 3);
  const Ran ran = run_with_in_between(made, [&] {
    _bstr_t text(L"{CALL sp_executesql(?)}");
    EXPECT_EQ(made->put_CommandText(text.m_s), S_OK);
    EXPECT_EQ(made->put_CommandType(ZIRDB_AD_CMD_STORED_PROC), S_OK);
  });
  EXPECT_EQ(ran.outcome, kDone);
  EXPECT_EQ(values_in(made), described({8}));
}

// A value's default member may do anything, even let the command go.
TEST_F(CommandInterference, AValueMayLetTheCommandGo) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    Command made;
    InterfacePtr<IDispatch> late;
    objects::Dispatch value([&](const objects::Dispatch::Call& call) {
      if (made) made->putref_ActiveConnection(nullptr);
      made = {};
      late = {};
      *call.result = _variant_t(L"answer").Detach();
      return S_OK;
    });
    {
      made = command(L"select ?");
      append(made, _variant_t(static_cast<IDispatch*>(&value)));
      IZIRDBCommand* const by_vtable = made.get();
      if (road == Road::kLateBound) late = dispatch_of(made.get());
      IDispatch* const late_bound = late.get();
      if (road == Road::kVtable) {
        const auto [code, recordset] =
            component::received<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
              return by_vtable->Execute(nullptr, 0, out);
            });
        EXPECT_EQ(code, S_OK);
        EXPECT_TRUE(recordset);
      } else {
        EXPECT_EQ(
            component::method(late_bound, DISPID_ZIRDB_COMMAND_EXECUTE).result,
            S_OK);
      }
      EXPECT_EQ(bound(), Texts({"in VARCHAR(6) \"answer\""}));
    }
    EXPECT_EQ(value.references(), 1U);
  }
}

TEST_F(CommandInterference, ANewTextIsForTheNextExecution) {
  const Command made = command(L"select ?");
  append(made, _variant_t(7), 20, 3);
  const Ran ran = run_with_in_between(made, [&] {
    _bstr_t text(L"other ?");
    EXPECT_EQ(made->put_CommandText(text.m_s), S_OK);
  });
  EXPECT_EQ(ran.outcome, kDone);
  EXPECT_EQ(values_in(made), described({8}));
  EXPECT_EQ(statements(), Texts({"select ?"}));
}

}  // namespace
