// SPDX-License-Identifier: MIT
//
// Commands executed with a script's array of values, which takes the values
// that come back.
//
// Sections: where the array stands; what its elements become; what comes back
// into it; arrays that are refused; with every command type; while the database
// is at work.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/commands_sent.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"

namespace {

using namespace commands;
using namespace std::string_literals;
using component::expect_refused;
using parameters::array_value;
using parameters::bytes_value;
using parameters::conversion_stub;
using parameters::null_reference;
using parameters::script_array;
using parameters::script_array_of;
using parameters::script_matrix;
using scripted_odbc::cell;
using values::plain;
using values::reference_to;

class CommandArray : public SentCommand {
 protected:
  /// Executes with these arguments; what became of it.
  Outcome run_text(const wchar_t* text, const std::vector<VARIANT>& arguments,
                   long type = ZIRDB_AD_CMD_UNKNOWN) {
    return run_with(command(text, type), arguments).outcome;
  }
};

const Outcome kBadArray = failure(E_UNEXPECTED, component::kArrayText);
const Outcome kArrayResult = failure(E_UNEXPECTED, component::kArrayResultText);

VARIANT truth(bool value) { return plain(VT_BOOL, value ? 0xFFFF : 0); }
VARIANT null() { return plain(VT_NULL, 0); }

/// As a host has it: the array's address and the type's flag.
VARIANT array_by_reference(VARIANT* array) {
  VARIANT reference = plain(VT_BYREF | VT_ARRAY | VT_VARIANT, 0);
  reference.byref = &array->parray;
  return reference;
}

// ---------------------------------------------------------------------------
// Where the array stands
// ---------------------------------------------------------------------------

TEST_F(CommandArray, MayStandAnywhere) {
  script().row_count(3);
  for (const WORD flags : std::vector<WORD>{1, 2, 3}) {
    for (std::size_t position = 0; position < 3; ++position) {
      SCOPED_TRACE(testing::Message() << position << ", flags " << flags);
      const _variant_t array = script_array_of(_variant_t(5));
      _variant_t affected;
      std::vector<VARIANT> arguments{reference_to(&affected), _variant_t(1)};
      arguments.insert(
          arguments.begin() + static_cast<std::ptrdiff_t>(position), array);
      EXPECT_EQ(run_with(command(L"select ?"), arguments, flags).outcome,
                kDone);
      EXPECT_EQ(bound(), Texts({"in BIGINT 5"}));
      EXPECT_EQ(parameters::describe(affected),
                parameters::describe(_variant_t(3)));
    }
  }
}

TEST_F(CommandArray, MayStandBehindReferences) {
  _variant_t array = script_array_of(_variant_t(5), _variant_t());
  for (const std::size_t depth : {1U, 2U, 5U}) {
    const parameters::Chain chain(&array, depth);
    EXPECT_EQ(run_text(L"select ?, ?", {chain.front()}), kDone);
    EXPECT_EQ(bound()[0], "in BIGINT 5");
  }
  EXPECT_EQ(parameters::describe(array),
            parameters::describe(script_array_of(_variant_t(5), null())));
}

TEST_F(CommandArray, TakesThePlaceOfTheCommandsOwnParameters) {
  const Command made = command(L"select ?");
  append(made, plain(VT_I2, 7));
  const Settings before = settings_of(made);
  const _variant_t array = script_array_of(_variant_t(L"text"));
  EXPECT_EQ(run_with(made, {array}).outcome, kDone);
  EXPECT_EQ(bound(), Texts({"in WVARCHAR(4) u\"text\""}));
  EXPECT_EQ(settings_of(made), before);
}

TEST_F(CommandArray, IsRefusedBesideAnother) {
  const Command made = command(L"select ?");
  _variant_t one = script_array_of(_variant_t(1));
  const _variant_t two = script_array_of();
  const VARIANT reference = reference_to(&one);
  for (const std::vector<VARIANT>& arguments :
       std::vector<std::vector<VARIANT>>{{one, two},
                                         {two, one},
                                         {one, VARIANT(), two},
                                         {VARIANT(), one, two},
                                         {reference, reference},
                                         {one, two, one}}) {
    const auto [outcome, answer] = answered([&] {
      parameters::RawCall call;
      call.member = DISPID_ZIRDB_COMMAND_EXECUTE;
      call.arguments = arguments;
      return parameters::invoke_raw(dispatch_of(made.get()).get(), call);
    });
    expect_refused(answer, DISP_E_TYPEMISMATCH);
  }
  EXPECT_EQ(statements(), Texts());
}

// What is no array of variants with one dimension is an argument like others:
// here the number of affected rows, which goes nowhere.
TEST_F(CommandArray, OfAnotherKindIsNoneAndTheOwnParametersAreSent) {
  _variant_t script_values = script_array_of(_variant_t(1));
  const struct {
    const char* description;
    _variant_t argument;
  } kRows[] = {
      {"two dimensions", script_matrix(2, 2)},
      {"null", array_value(VT_VARIANT, nullptr)},
      {"bytes", bytes_value({1})},
      {"texts", array_value(VT_BSTR, SafeArrayCreateVector(VT_BSTR, 0, 1))},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    const Command made = command(L"select ?");
    append(made, _variant_t(7));
    const std::string before = parameters::describe(row.argument);
    EXPECT_EQ(run_with(made, {row.argument}).outcome, kDone);
    EXPECT_EQ(bound(), Texts({"in BIGINT 7"}));
    EXPECT_EQ(parameters::describe(row.argument), before);
  }
  const Command made = command(L"select ?");
  append(made, _variant_t(7));
  EXPECT_EQ(run_with(made, {array_by_reference(&script_values)}).outcome,
            kDone);
  EXPECT_EQ(bound(), Texts({"in BIGINT 7"}));
}

// ---------------------------------------------------------------------------
// What its elements become
// ---------------------------------------------------------------------------

struct Element {
  const char* description;
  _variant_t value;
  const char* bound;
  _variant_t after;
};

std::vector<Element> elements() {
  static _variant_t five(5);
  static _variant_t nothing;
  static const parameters::Chain chain(&five, 2);
  return {
      {"empty", {}, "inout BIGINT NULL", null()},
      {"null link", null_reference(), "inout BIGINT NULL", null()},
      {"reference to empty", reference_to(&nothing), "inout BIGINT NULL",
       null()},
      {"null", null(), "in VARCHAR(1) NULL", null()},
      {"VT_I2", plain(VT_I2, 0xFFF9), "in BIGINT -7", -7},
      {"VT_I4", plain(VT_I4, 7), "in BIGINT 7", 7},
      {"VT_I1", plain(VT_I1, 0xF9), "in BIGINT -7", -7},
      {"VT_UI1", plain(VT_UI1, 0xF9), "in BIGINT 249", 249},
      {"VT_UI2", plain(VT_UI2, 0xFFF9), "in BIGINT 65529", 65529},
      {"VT_UI4", plain(VT_UI4, 7), "in BIGINT 7", 7},
      {"VT_I8", _variant_t(7), "in BIGINT 7", 7},
      {"VT_UI8", plain(VT_UI8, 7), "in BIGINT 7", 7},
      {"reference", chain.front(), "in BIGINT 5", 5},
      {"text", L"ab", "in WVARCHAR(2) u\"ab\"", L"ab"},
      // Each character of the text counts as one, also one of two units.
      {"text beyond 16 bits", L"\U0001F600", "in WVARCHAR(1) u\"D83D DE00 \"",
       L"\U0001F600"},
      {"empty text", L"", "in WVARCHAR(0) u\"\"", L""},
      {"true", truth(true), "in BIT 1", truth(true)},
      {"bytes", bytes_value({1, 2}, 3), "in VARBINARY(2) x0102",
       bytes_value({1, 2})},
      {"no bytes", bytes_value({}), "in VARBINARY(1) x", bytes_value({})},
      {"VT_R8", _variant_t(1.5), "in DOUBLE 1.5", 1.5},
      {"date", plain(VT_DATE, values::bits_of(45292)),
       "in VARCHAR(10) \"2024/01/01\"", L"2024/01/01"},
  };
}

TEST_F(CommandArray, SendsItsElementsByTheirTypeAndTakesWhatComesBack) {
  for (const Element& row : elements()) {
    SCOPED_TRACE(row.description);
    const _variant_t array = script_array_of(row.value);
    Outcome outcome;
    EXPECT_EQ(printed::by([&] { outcome = run_text(L"select ?", {array}); }),
              "");
    EXPECT_EQ(outcome, kDone);
    EXPECT_EQ(bound(), Texts({row.bound}));
    EXPECT_EQ(parameters::describe(array),
              parameters::describe(script_array_of(row.after)));
  }
}

TEST_F(CommandArray, SendsItsElementsInOrderWhateverItsBounds) {
  for (const LONG lower :
       std::vector<LONG>{0, 1, -3, 1000, values::kSmallest, 0x100000000}) {
    SCOPED_TRACE(lower);
    std::vector<_variant_t> contents;
    Texts expected;
    std::vector<_variant_t> after;
    for (const Element& row : elements()) {
      contents.push_back(row.value);
      expected.emplace_back(row.bound);
      after.push_back(row.after);
    }
    const _variant_t array = script_array(std::move(contents), lower);
    EXPECT_EQ(run_text(L"select", {array}), kDone);
    EXPECT_EQ(bound(), expected);
    EXPECT_EQ(parameters::describe(array),
              parameters::describe(script_array(std::move(after), lower)));
  }
}

TEST_F(CommandArray, WithoutElementsSendsNoParameters) {
  for (const LONG lower : {0, 5, -5}) {
    const _variant_t array = script_array({}, lower);
    EXPECT_EQ(run_text(L"select", {array}), kDone);
    EXPECT_EQ(script().count("SQLExecDirect"), 1U);
    EXPECT_EQ(statements(), Texts({"select"}));
  }
}

// ---------------------------------------------------------------------------
// What comes back into it
// ---------------------------------------------------------------------------

TEST_F(CommandArray, TakesOutputsInItsEmptySlots) {
  script().output(1, cell(10)).output(3, cell(std::int64_t{1} << 40));
  const _variant_t array =
      script_array({_variant_t(), L"two", _variant_t(), _variant_t()}, 1);
  EXPECT_EQ(run_text(L"select", {array}), kDone);
  EXPECT_EQ(parameters::describe(array),
            parameters::describe(script_array(
                {_variant_t(10), L"two", std::int64_t{1} << 40, null()}, 1)));
}

// Deliberate: the element itself is replaced, not what it refers to.
TEST_F(CommandArray, LosesItsReferences) {
  script().output(1, cell(10));
  _variant_t slot;
  _variant_t text(L"text");
  const _variant_t array = script_array_of(_variant_t(reference_to(&slot)),
                                           _variant_t(reference_to(&text)));
  EXPECT_EQ(run_text(L"select", {array}), kDone);
  EXPECT_EQ(parameters::describe(array),
            parameters::describe(
                script_array_of(_variant_t(10), _variant_t(L"text"))));
  EXPECT_EQ(slot.vt, VT_EMPTY);
  EXPECT_EQ(parameters::describe(text),
            parameters::describe(_variant_t(L"text")));
}

TEST_F(CommandArray, IsSentAgainAsItCameBack) {
  script().output(1, cell(10));
  const _variant_t array = script_array_of(_variant_t(), plain(VT_I2, 7));
  EXPECT_EQ(run_text(L"select", {array}), kDone);
  EXPECT_EQ(run_text(L"select", {array}), kDone);
  EXPECT_EQ(bound(), Texts({"in BIGINT 10", "in BIGINT 7"}));
}

TEST_F(CommandArray, IsUnlockedAndUntouchedAfterAFailureOfTheDatabase) {
  script().fail("SQLExecute", SQL_ERROR, {"42000", 1, "no"});
  const _variant_t array = script_array_of(_variant_t(), plain(VT_I2, 7));
  const std::string before = parameters::describe(array);
  EXPECT_EQ(run_text(L"select", {array}).code, component::kExecuteFailedCode);
  EXPECT_EQ(parameters::describe(array), before);
}

// ---------------------------------------------------------------------------
// Arrays that are refused
// ---------------------------------------------------------------------------

TEST_F(CommandArray, ThatIsLockedIsRefusedBeforeAnythingElseIsJudged) {
  const _variant_t array = script_array_of(_variant_t(5));
  const SafeArrayAccess held(array.parray);
  for (const Command& made : {component::command(), command(L""),
                              command(L"EXEC p"), command(L"select ?")}) {
    const Settings before = settings_of(made);
    EXPECT_EQ(run_with(made, {array}).outcome, kBadArray);
    EXPECT_EQ(settings_of(made), before);
  }
  EXPECT_EQ(statements(), Texts());
  EXPECT_EQ(array.parray->cLocks, 1U);
}

TEST_F(CommandArray, WithAValueThatCannotBeSentIsRefused) {
  const struct {
    VARTYPE type;
    int line_to;
  } kRows[] = {{VT_R4, VT_R8},
               {VT_DECIMAL, VT_R8},
               {VT_CY, VT_BSTR},
               {VT_ERROR, VT_BSTR},
               {VT_BYREF | VT_I4, VT_BSTR}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.type);
    std::int64_t target = 5;
    VARIANT bad = plain(row.type, 1);
    if ((row.type & VT_BYREF) != 0) bad.byref = &target;
    const _variant_t array = script_array_of(plain(VT_I2, 7), bad);
    const std::string before = parameters::describe(array);
    Outcome outcome;
    EXPECT_EQ(printed::by([&] { outcome = run_text(L"select", {array}); }),
              conversion_stub(row.type, row.line_to));
    EXPECT_EQ(outcome, bad_value(E_INVALIDARG));
    EXPECT_EQ(parameters::describe(array), before);
  }
  EXPECT_EQ(statements(), Texts());
}

TEST_F(CommandArray, IsJudgedLikeTheCommandsOwnParameters) {
  const component::Connection closed = component::connection();
  const struct {
    const char* description;
    Command command;
    Outcome outcome;
  } kRows[] = {
      {"no connection", component::command(), kNoConnection},
      {"no text", command(L""), kNoText},
      {"system procedure", command(L"sp_p", 4), kTooManyArguments},
      {"call as text", command(L"EXEC p"), kBadParameter},
      {"call as text, closed", command_over(closed, L"EXEC p"), kBadParameter},
      {"call escape as text", command(L"{CALL p(?)}", 1), kBadParameter},
      {"closed", command_over(closed, L"select"), kNoConnection},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    const _variant_t array = script_array_of(_variant_t(), null());
    const std::string before = parameters::describe(array);
    EXPECT_EQ(run_with(row.command, {array}).outcome, row.outcome);
    EXPECT_EQ(parameters::describe(array), before);
  }
  EXPECT_EQ(statements(), Texts());
}

// ---------------------------------------------------------------------------
// With every command type
// ---------------------------------------------------------------------------

TEST_F(CommandArray, IsSentToACallEscape) {
  script().output(2, cell(77));
  const _variant_t array = script_array_of(_variant_t(5), _variant_t());
  EXPECT_EQ(run_text(L"{CALL p(?, ?)}", {array}), kDone);
  EXPECT_EQ(statements(), Texts({"{CALL p(?, ?)}"}));
  EXPECT_EQ(bound(), Texts({"in BIGINT 5", "inout BIGINT NULL"}));
  EXPECT_EQ(parameters::describe(array), parameters::describe(script_array_of(
                                             _variant_t(5), _variant_t(77))));
}

// Nothing is read back there, so placeholders stay what they are; references
// are replaced by what was sent for them.
TEST_F(CommandArray, IsSentToAStoredProcedureAndGetsNothingBack) {
  script().output(2, cell(77));
  _variant_t small = plain(VT_I2, 7);
  const _variant_t array = script_array_of(plain(VT_I2, 5), _variant_t(),
                                           _variant_t(reference_to(&small)));
  EXPECT_EQ(run_text(L"p", {array}, ZIRDB_AD_CMD_STORED_PROC), kDone);
  EXPECT_EQ(statements(), Texts({"{CALL p(?, ?, ?)}"}));
  EXPECT_EQ(bound(),
            Texts({"in BIGINT 5", "inout BIGINT NULL", "in BIGINT 7"}));
  EXPECT_EQ(parameters::describe(array),
            parameters::describe(script_array_of(plain(VT_I2, 5), _variant_t(),
                                                 plain(VT_I2, 7))));
}

TEST_F(CommandArray, IsSentToASuppressedTextAndGetsNothingBack) {
  script().output(1, cell(77));
  const _variant_t array = script_array_of(_variant_t(), plain(VT_I2, 5));
  const std::string before = parameters::describe(array);
  EXPECT_EQ(run_text(L"{CALL sp_executesql(?, ?)}", {array}), kDone);
  EXPECT_EQ(bound(), Texts({"inout BIGINT NULL", "in BIGINT 5"}));
  EXPECT_EQ(parameters::describe(array), before);
}

TEST_F(CommandArray, IsSentToTheTextExecutor) {
  const _variant_t array = script_array_of(_variant_t(5));
  EXPECT_EQ(run_text(L"EXEC sp_executesql ?", {array}), kDone);
  EXPECT_EQ(statements(), Texts({"EXEC sp_executesql ?"}));
}

// ---------------------------------------------------------------------------
// While the database is at work
// ---------------------------------------------------------------------------

class CommandArrayInterference : public CommandArray {
 protected:
  void in_between(const std::function<void()>& act) {
    script().output(1, cell(77));
    script().on("SQLExecute",
                [act](const scripted_odbc::Call& /*call*/)
                    -> std::optional<scripted_odbc::Reply> {
                  act();
                  return std::nullopt;
                });
  }
};

TEST_F(CommandArrayInterference, TheArrayIsNotLocked) {
  const _variant_t array = script_array_of(_variant_t());
  in_between([&] { EXPECT_EQ(array.parray->cLocks, 0U); });
  EXPECT_EQ(run_text(L"select", {array}), kDone);
  EXPECT_EQ(array.parray->cLocks, 0U);
}

// The statement's effects stand, but there is no place for its values.
TEST_F(CommandArrayInterference, AnArrayLockedByThenIsAFailure) {
  script().columns({{"id", SQL_INTEGER}}).row({cell(1)});
  const _variant_t array = script_array_of(_variant_t(), plain(VT_I2, 5));
  std::optional<SafeArrayAccess> held;
  in_between([&] { held.emplace(array.parray); });
  const Ran ran = run_with(command(L"select"), {array});
  EXPECT_EQ(ran.outcome, kArrayResult);
  held.reset();
  EXPECT_EQ(parameters::describe(array), parameters::describe(script_array_of(
                                             _variant_t(), plain(VT_I2, 5))));
  EXPECT_EQ(statements().size(), 1U);
}

TEST_F(CommandArrayInterference, NewElementsAreReplaced) {
  const _variant_t array = script_array_of(_variant_t(), plain(VT_I2, 5));
  in_between([&] {
    const SafeArrayAccess access(array.parray);
    VARIANT* const at = access.elements<VARIANT>();
    VariantClear(&at[0]);
    at[0] = _variant_t(L"meanwhile").Detach();
  });
  EXPECT_EQ(run_text(L"select", {array}), kDone);
  EXPECT_EQ(parameters::describe(array), parameters::describe(script_array_of(
                                             _variant_t(77), _variant_t(5))));
}

// Elements that are let go may do anything, even to the command itself.
TEST_F(CommandArrayInterference, ElementsThatCallBackWhenTheyAreReplaced) {
  const _variant_t array = script_array_of(_variant_t(), _variant_t(L"two"));
  Command made = command(L"select");
  int released = 0;
  objects::Unknown element;
  element.on_release = [&] {
    ++released;
    made->putref_ActiveConnection(nullptr);
    _bstr_t text(L"other");
    made->put_CommandText(text.m_s);
  };
  in_between([&] {
    const SafeArrayAccess access(array.parray);
    VARIANT* const at = access.elements<VARIANT>();
    at[0] = _variant_t(static_cast<IUnknown*>(&element)).Detach();
  });
  EXPECT_EQ(run_with(made, {array}).outcome, kDone);
  EXPECT_EQ(released, 1);
  EXPECT_EQ(element.references(), 1U);
  EXPECT_EQ(parameters::describe(array),
            parameters::describe(
                script_array_of(_variant_t(77), _variant_t(L"two"))));
  EXPECT_EQ(text_of(made), L"other");
}

}  // namespace
