// SPDX-License-Identifier: MIT
//
// Stored procedures and functions from scripts: the call that a command builds,
// calls written by hand with an array, and plain CALL statements. The drivers
// differ so much that each has tests of its own.
//
// Nothing is read back for a call that a command builds: a script reads the
// outputs from the row that the databases answer besides.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/script_journey.h"
#include "support/scripting.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace zirdb_test {
namespace {

using scripting::argument;
using scripting::Array;
using scripting::bytes;
using scripting::error_of;
using scripting::expect_error;
using scripting::number;
using scripting::only_value;
using scripting::row_of;
using scripting::rows_of;
using scripting::shown;

using Row = std::vector<std::string>;

class ScriptProcedures : public ScriptJourney {
 protected:
  // A command that builds the call.
  Object procedure(const std::string& name,
                   const std::vector<ScriptParameter>& parameters = {}) const {
    Object calling = command(name, parameters);
    calling.put("CommandType", ZIRDB_AD_CMD_STORED_PROC);
    return calling;
  }
};

// ---------------------------------------------------------------------------
// Without a database's help
// ---------------------------------------------------------------------------

TEST_P(ScriptProcedures, ACallByHandWithAppendedParametersIsRefused) {
  const Object calling = command("{CALL p(?)}", {input_of(ZIRDB_AD_BIGINT, 1)});
  for (const long type : {ZIRDB_AD_CMD_UNKNOWN, ZIRDB_AD_CMD_TEXT}) {
    calling.put("CommandType", type);
    expect_error(error_of([&] { calling.call("Execute"); }),
                 component::kErrorsOccurredCode, "ZIRDB.Command",
                 component::kErrorsOccurredText);
  }
}

TEST_P(ScriptProcedures, ACallByHandAsTextWithAnArrayIsRefused) {
  Array arguments = Array::of(6);
  const Object calling = command("{CALL p(?)}");
  calling.put("CommandType", ZIRDB_AD_CMD_TEXT);

  expect_error(
      error_of([&] { calling.call("Execute", arguments.reference()); }),
      component::kBadParameterCode, "ZIRDB.Command",
      component::kBadParameterText);
}

TEST_P(ScriptProcedures, SystemProceduresTakeNoParameters) {
  const Object calling = procedure("x.sp_who", {input_of(ZIRDB_AD_BIGINT, 1)});
  expect_error(error_of([&] { calling.call("Execute"); }),
               component::kErrorsInCommandCode, "ZIRDB.Command",
               component::kTooManyArgumentsText);
}

TEST_P(ScriptProcedures, AMissingProcedureIsTheDatabasesError) {
  const auto error =
      error_of([&] { procedure("nothing_here").call("Execute"); });
  expect_failed_with_state(error, on(kSqlite)     ? "HY000"
                                  : on(kPostgres) ? "42883"
                                                  : "42000");
}

ZIRDB_FOR_EVERY_DRIVER(ScriptProcedures);

// ---------------------------------------------------------------------------
// SQLite: none
// ---------------------------------------------------------------------------

class ScriptSqliteProcedures : public ScriptProcedures {};

TEST_P(ScriptSqliteProcedures, EveryCallIsASyntaxError) {
  Array arguments = Array::of(6, _variant_t());
  expect_failed_with_state(
      error_of([&] {
        procedure("p", {input_of(ZIRDB_AD_BIGINT, 1)}).call("Execute");
      }),
      "HY000");
  expect_failed_with_state(
      error_of([&] {
        command("{CALL p(?, ?)}").call("Execute", arguments.reference());
      }),
      "HY000");
  EXPECT_EQ(shown(arguments[1]), "EMPTY");
}

INSTANTIATE_TEST_SUITE_P(, ScriptSqliteProcedures, testing::Values(&kSqlite),
                         driver_name);

// ---------------------------------------------------------------------------
// PostgreSQL: calls are made of functions; procedures in the server's words
// ---------------------------------------------------------------------------

class ScriptPostgresProcedures : public ScriptProcedures {
 protected:
  void SetUp() override {
    ScriptProcedures::SetUp();
    if (IsSkipped()) return;
    create_function("product(a bigint, b bigint) RETURNS bigint",
                    "SELECT a * b");
    create_function("five() RETURNS bigint", "SELECT 5::bigint");
    create_function("outs(a bigint, OUT b bigint, OUT c text)",
                    "SELECT a * 2, 'h\u00E9'");
    create_function("inouts(a bigint, INOUT b bigint)",
                    "SELECT a * 2 + coalesce(b, 1000)");
    run("CREATE PROCEDURE proc(a bigint, INOUT b bigint) LANGUAGE plpgsql AS"
        " $$ BEGIN b := a * 2 + coalesce(b, 1000); END $$");
  }
  void create_function(const std::string& head, const std::string& body) const {
    run("CREATE FUNCTION " + head + " LANGUAGE sql AS $$ " + body + " $$");
  }
};

TEST_P(ScriptPostgresProcedures, ABuiltCallGivesTheFunctionsRow) {
  const Object calling =
      procedure("product", {input_of(ZIRDB_AD_BIGINT, number(VT_I2, 6)),
                            input_of(ZIRDB_AD_INTEGER, argument("7"))});

  EXPECT_EQ(only_value(calling.call("Execute")), "I8 42");

  // Not even the inputs are read back.
  EXPECT_EQ(parameter_of(calling, 0), "type 2");
  EXPECT_EQ(parameter_of(calling, 1), "BSTR 7");
}

TEST_P(ScriptPostgresProcedures, ABuiltCallNeedsNoParameters) {
  EXPECT_EQ(only_value(procedure("five").call("Execute")), "I8 5");
}

TEST_P(ScriptPostgresProcedures, ABuiltCallEmptiesItsOutputs) {
  const Object calling = procedure(
      "outs", {input_of(ZIRDB_AD_BIGINT, 6), output_of(ZIRDB_AD_BIGINT),
               output_of(ZIRDB_AD_VARCHAR, 20)});
  Object(Object(calling.get("Parameters"))(1)).put("Value", 99);

  const Object rows = calling.call("Execute");

  EXPECT_EQ(row_of(rows), (Row{"I8 12", "BSTR h\u00E9"}));
  EXPECT_EQ(parameter_of(calling, 0), "I8 6");
  EXPECT_EQ(parameter_of(calling, 1), "EMPTY");
  EXPECT_EQ(parameter_of(calling, 2), "EMPTY");
}

TEST_P(ScriptPostgresProcedures, ABuiltCallEmptiesItsReturnValue) {
  const Object calling = procedure(
      "product", {return_value_of(ZIRDB_AD_BIGINT),
                  input_of(ZIRDB_AD_BIGINT, 6), input_of(ZIRDB_AD_BIGINT, 7)});

  calling.call("Execute");

  EXPECT_EQ(parameter_of(calling, 0), "EMPTY");
  EXPECT_EQ(parameter_of(calling, 1), "I8 6");
}

TEST_P(ScriptPostgresProcedures, ABuiltCallLeavesItsInputOutputs) {
  const Object calling = procedure(
      "inouts",
      {input_of(ZIRDB_AD_BIGINT, 6), input_output_of(ZIRDB_AD_BIGINT, 0, 3)});

  EXPECT_EQ(only_value(calling.call("Execute")), "I8 15");
  EXPECT_EQ(parameter_of(calling, 1), "I8 3");
}

TEST_P(ScriptPostgresProcedures, ABuiltCallOfAnArrayLeavesItsEmptySlots) {
  Array arguments = Array::of(6, _variant_t());

  const Object rows =
      procedure("inouts").call("Execute", arguments.reference());

  EXPECT_EQ(only_value(rows), "I8 1012");
  EXPECT_EQ(shown(arguments[0]), "I8 6");
  EXPECT_EQ(shown(arguments[1]), "EMPTY");
}

// The driver turns the escape into a SELECT, which the server does not accept
// for procedures.
TEST_P(ScriptPostgresProcedures, ABuiltCallOfAProcedureIsTheServersError) {
  const Object calling = procedure(
      "proc",
      {input_of(ZIRDB_AD_BIGINT, 6), input_output_of(ZIRDB_AD_BIGINT, 0, 3)});
  expect_failed_with_state(error_of([&] { calling.call("Execute"); }), "42809");
}

TEST_P(ScriptPostgresProcedures, ACallByHandFillsTheEmptySlots) {
  Array arguments = Array::of(number(VT_I4, 6), _variant_t());

  const Object rows =
      command("{CALL inouts(?, ?)}").call("Execute", arguments.reference());

  EXPECT_EQ(shown(arguments[0]), "I8 6");
  EXPECT_EQ(shown(arguments[1]), "I8 1012");
  EXPECT_EQ(only_value(rows), "I8 1012");
}

TEST_P(ScriptPostgresProcedures, ACallByHandFillsTheReturnValueAlone) {
  Array slot = Array::of(_variant_t());
  Array with_arguments = Array::of(_variant_t(), 6, 7);

  command("{? = CALL five()}").call("Execute", slot.reference());
  const auto error = error_of([&] {
    command("{? = CALL product(?, ?)}")
        .call("Execute", with_arguments.reference());
  });

  EXPECT_EQ(shown(slot[0]), "I8 5");
  // The driver takes an in/out slot for no return value beside arguments.
  expect_failed_with_state(error, "HY000");
  EXPECT_EQ(shown(with_arguments[0]), "EMPTY");
}

// A slot of an array goes in and out, and the server counts it as an argument.
TEST_P(ScriptPostgresProcedures, ACallByHandCannotReachPlainOutputs) {
  Array arguments = Array::of(6, _variant_t(), _variant_t());
  expect_failed_with_state(
      error_of([&] {
        command("{CALL outs(?, ?, ?)}").call("Execute", arguments.reference());
      }),
      "42883");
}

TEST_P(ScriptPostgresProcedures, AProcedureIsCalledInTheServersWords) {
  Array arguments = Array::of(6, _variant_t());
  const Object calling = command(
      "CALL proc(?, ?)",
      {input_of(ZIRDB_AD_BIGINT, 6), input_output_of(ZIRDB_AD_BIGINT, 0, 3)});

  EXPECT_EQ(only_value(calling.call("Execute")), "I8 15");
  calling.call("Execute", arguments.reference());

  EXPECT_EQ(parameter_of(calling, 1), "I8 15");
  EXPECT_EQ(shown(arguments[1]), "I8 1012");
  EXPECT_EQ(value("CALL proc(?, ?)", 6, 4), "I8 16");
}

TEST_P(ScriptPostgresProcedures, InputOutputsOfEveryTypeComeBack) {
  run("CREATE PROCEDURE p(INOUT a integer, INOUT b bigint, INOUT c boolean,"
      " INOUT d text, INOUT e text, INOUT f bytea, INOUT g uuid,"
      " INOUT h double precision, INOUT i text) LANGUAGE plpgsql AS $$ BEGIN"
      " a := -a; b := b - 1; c := NOT c; d := d || '!'; e := e || '!';"
      " f := f || '\\x00'::bytea; g := '00112233-4455-6677-8899-aabbccddeeff';"
      " h := h / 2; i := NULL; END $$");
  const Object calling = command(
      "CALL p(?, ?, ?, ?, ?, ?, ?, ?, ?)",
      {input_output_of(ZIRDB_AD_INTEGER, 0, 7),
       input_output_of(ZIRDB_AD_BIGINT, 0, values::kLargest),
       input_output_of(ZIRDB_AD_BOOLEAN, 0, false),
       input_output_of(ZIRDB_AD_VARCHAR, 20, argument("h\u00E9")),
       input_output_of(ZIRDB_AD_VARWCHAR, 20, argument("\U0001F600")),
       input_output_of(ZIRDB_AD_VARBINARY, 20, bytes("\xFF")),
       input_output_of(ZIRDB_AD_GUID, 40,
                       argument("00000000-0000-0000-0000-000000000000")),
       input_output_of(ZIRDB_AD_EMPTY, 0, 0.25),
       input_output_of(ZIRDB_AD_VARCHAR, 20, argument("gone"))});

  calling.call("Execute");

  const char* const expected[] = {"I4 -7",
                                  "I8 9223372036854775806",
                                  "BOOL -1",
                                  "BSTR h\u00E9!",
                                  "BSTR \U0001F600!",
                                  "bytes FF 00",
                                  "BSTR 00112233-4455-6677-8899-AABBCCDDEEFF",
                                  "R8 0.125",
                                  "NULL"};
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(parameter_of(calling, i), expected[i]) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(, ScriptPostgresProcedures,
                         testing::Values(&kPostgres), driver_name);

// ---------------------------------------------------------------------------
// MariaDB: procedures
// ---------------------------------------------------------------------------

class ScriptMariadbProcedures : public ScriptProcedures {
 protected:
  void SetUp() override {
    ScriptProcedures::SetUp();
    if (IsSkipped()) return;
    run("CREATE TABLE calls (n BIGINT)");
    run("CREATE PROCEDURE note() INSERT INTO calls VALUES (1)");
    run("CREATE PROCEDURE outs(IN a BIGINT, OUT b BIGINT, OUT c VARCHAR(20))"
        " BEGIN SET b = a * 2; SET c = 'h\u00E9'; END");
    run("CREATE PROCEDURE inouts(IN a BIGINT, INOUT b BIGINT)"
        " SET b = a * 2 + coalesce(b, 1000)");
    run("CREATE PROCEDURE pairs(a BIGINT) BEGIN SELECT a AS n, 'x' AS t"
        " UNION ALL SELECT a + 1, 'y'; SELECT 'second'; END");
  }
};

TEST_P(ScriptMariadbProcedures, ABuiltCallNeedsNoParameters) {
  _variant_t count;
  const Object nothing =
      procedure("note").call("Execute", values::reference_to(&count));

  EXPECT_EQ(shown(nothing.get("State")), "I4 0");
  EXPECT_EQ(shown(count), "I8 1");
  EXPECT_EQ(value("SELECT COUNT(*) FROM calls"), "I8 1");
}

TEST_P(ScriptMariadbProcedures, ABuiltCallEmptiesItsOutputs) {
  const Object calling = procedure(
      "outs", {input_of(ZIRDB_AD_BIGINT, number(VT_I2, 6)),
               output_of(ZIRDB_AD_BIGINT), output_of(ZIRDB_AD_VARCHAR, 20)});
  Object(Object(calling.get("Parameters"))(1)).put("Value", 99);

  const Object rows = calling.call("Execute");

  EXPECT_EQ(row_of(rows), (Row{"I8 12", "BSTR h\u00E9"}));
  EXPECT_EQ(parameter_of(calling, 0), "type 2");
  EXPECT_EQ(parameter_of(calling, 1), "EMPTY");
  EXPECT_EQ(parameter_of(calling, 2), "EMPTY");
}

TEST_P(ScriptMariadbProcedures, ABuiltCallLeavesItsInputOutputs) {
  const Object calling = procedure(
      "inouts",
      {input_of(ZIRDB_AD_BIGINT, 6), input_output_of(ZIRDB_AD_BIGINT, 0, 3)});

  EXPECT_EQ(only_value(calling.call("Execute")), "I8 15");
  EXPECT_EQ(parameter_of(calling, 1), "I8 3");
}

TEST_P(ScriptMariadbProcedures, ABuiltCallOfAnArrayLeavesItsEmptySlots) {
  Array arguments = Array::of(6, _variant_t(), 1);

  const Object rows = procedure("outs").call("Execute", arguments.reference());

  EXPECT_EQ(row_of(rows), (Row{"I8 12", "BSTR h\u00E9"}));
  EXPECT_EQ(shown(arguments[0]), "I8 6");
  EXPECT_EQ(shown(arguments[1]), "EMPTY");
}

TEST_P(ScriptMariadbProcedures, TheFirstResultOfAProcedureAnswers) {
  const Object rows =
      procedure("pairs", {input_of(ZIRDB_AD_BIGINT, 5)}).call("Execute");

  const std::vector<Row> expected = {{"I8 5", "BSTR x"}, {"I8 6", "BSTR y"}};
  EXPECT_EQ(rows_of(rows), expected);
  // The rest of the answer does not disturb the next statement.
  EXPECT_EQ(value("SELECT 'next'"), "BSTR next");
}

TEST_P(ScriptMariadbProcedures, ACallByHandGivesTheOutputsAsARow) {
  Array arguments = Array::of(number(VT_I4, 6), 3);

  const Object rows =
      command("{CALL inouts(?, ?)}").call("Execute", arguments.reference());

  EXPECT_EQ(only_value(rows), "I8 15");
  // A slot with a value goes in only.
  EXPECT_EQ(shown(arguments[0]), "I8 6");
  EXPECT_EQ(shown(arguments[1]), "I8 3");
}

// What is bound as NULL the driver reads back as text, whatever its type: the
// slot holds the digits "1012", first digit lowest.
TEST_P(ScriptMariadbProcedures, ACallByHandFillsEmptySlotsWithDigits) {
  Array arguments = Array::of(6, _variant_t());

  const Object rows =
      command("{CALL inouts(?, ?)}").call("Execute", arguments.reference());

  EXPECT_EQ(only_value(rows), "I8 1012");
  EXPECT_EQ(shown(arguments[1]),
            "I8 " + std::to_string('1' | '0' << 8 | '1' << 16 | '2' << 24));
}

TEST_P(ScriptMariadbProcedures, InputOutputsOfEveryTypeComeBack) {
  run("CREATE PROCEDURE p(INOUT a INTEGER, INOUT b BIGINT, INOUT c BIT(1),"
      " INOUT d VARCHAR(20), INOUT e VARBINARY(20), INOUT f UUID,"
      " INOUT g DOUBLE) BEGIN SET a = -a; SET b = b - 1; SET c = NOT c;"
      " SET d = CONCAT(d, '!'); SET e = CONCAT(e, x'00');"
      " SET f = '00112233-4455-6677-8899-aabbccddeeff'; SET g = g / 2; END");
  const Object calling = command(
      "CALL p(?, ?, ?, ?, ?, ?, ?)",
      {input_output_of(ZIRDB_AD_INTEGER, 0, 7),
       input_output_of(ZIRDB_AD_BIGINT, 0, values::kLargest),
       input_output_of(ZIRDB_AD_BOOLEAN, 0, false),
       input_output_of(ZIRDB_AD_VARCHAR, 20, argument("h\u00E9")),
       input_output_of(ZIRDB_AD_VARBINARY, 20, bytes("\xFF")),
       input_output_of(ZIRDB_AD_GUID, 40,
                       argument("00000000-0000-0000-0000-000000000000")),
       input_output_of(ZIRDB_AD_EMPTY, 0, 0.25)});

  calling.call("Execute");

  const char* const expected[] = {
      "I4 -7",       "I8 9223372036854775806",
      "BOOL -1",     "BSTR h\u00E9!",
      "bytes FF 00", "BSTR 00112233-4455-6677-8899-aabbccddeeff",
      "R8 0.125"};
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(parameter_of(calling, i), expected[i]) << i;
  }
}

// The driver does not tell a NULL output: the number stays as it was sent.
TEST_P(ScriptMariadbProcedures, ANullOutputIsNotToldFromNothing) {
  run("CREATE PROCEDURE p(INOUT a BIGINT) SET a = NULL");
  const Object calling =
      command("CALL p(?)", {input_output_of(ZIRDB_AD_BIGINT, 0, 5)});

  EXPECT_EQ(only_value(calling.call("Execute")), "NULL");
  EXPECT_EQ(parameter_of(calling, 0), "I8 5");
}

// The driver writes UTF-8 where UTF-16 was asked for: the second byte, D8,
// makes half of a surrogate pair.
TEST_P(ScriptMariadbProcedures, AWideOutputThatIsNoUtf16Fails) {
  run("CREATE PROCEDURE p(INOUT a VARCHAR(20)) SET a = 'a\u0600'");
  const Object calling =
      command("CALL p(?)", {input_output_of(ZIRDB_AD_VARWCHAR, 20, L"x")});

  expect_error(error_of([&] { calling.call("Execute"); }),
               component::kExecuteFailedCode, "ZIRDB.Connection",
               L"wstring_convert::to_bytes");

  EXPECT_EQ(parameter_of(calling, 0), "BSTR x");
  EXPECT_EQ(value("SELECT 1"), "I8 1");
}

INSTANTIATE_TEST_SUITE_P(, ScriptMariadbProcedures, testing::Values(&kMariadb),
                         driver_name);

}  // namespace
}  // namespace zirdb_test
