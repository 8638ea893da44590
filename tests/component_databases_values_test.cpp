// SPDX-License-Identifier: MIT
//
// Scripts send values to real databases and get them back: parameters of every
// type and direction, plain arguments, arrays with empty slots, text beyond
// ASCII, long text and bytes.
//
// Sections: parameters of a command; arguments of a connection that is called;
// arrays; text and bytes.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
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
using scripting::null;
using scripting::number;
using scripting::only_value;
using scripting::shown;
using values::kLargest;
using values::kSmallest;

constexpr char kGuidText[] = "{00112233-4455-6677-8899-aabbccddeeff}";
// Beyond U+FFFF, and a letter with a combining accent.
constexpr char kUnicode[] = "na\u00EFve \U0001F600 e\u0301 \U0010FFFF";

// Noon of the second of January 2024, in days since the 30th of December 1899.
constexpr double kDate = 45293.5;

// ---------------------------------------------------------------------------
// Parameters of a command
// ---------------------------------------------------------------------------

/// What is sent in which column, what the parameter holds afterwards, and what
/// the column holds; `shown`.
struct Sent {
  const char* column;
  long type;
  _variant_t value;
  std::string read_back;
  std::string arrived;
};

// A table with one column per kind of value.
class ScriptValues : public ScriptJourney {
 protected:
  void SetUp() override {
    ScriptJourney::SetUp();
    if (IsSkipped()) return;
    run("CREATE TABLE v (id INTEGER, n INTEGER, b BIGINT, f " +
        std::string(driver().boolean_type) + ", d " + driver().double_type +
        ", t " + driver().text_type + ", x " + driver().blob_type + ")");
  }

  // A statement that puts its parameter into `column` of a new row.
  std::string insert(const std::string& column) {
    return "INSERT INTO v (id, " + column + ") VALUES (" +
           std::to_string(++row_) + ", ?)";
  }
  // The newest row's `column`.
  Object newest(const std::string& column) const {
    return run("SELECT " + column +
               " FROM v WHERE id = " + std::to_string(row_));
  }
  std::string stored(const std::string& column) const {
    return only_value(newest(column));
  }

  void expect_arrival(const Sent& sent, long direction = 1, long size = 0) {
    SCOPED_TRACE("type " + std::to_string(sent.type) + ", direction " +
                 std::to_string(direction) + ", " + shown(sent.value));
    const Object inserting = command(
        insert(sent.column), {{sent.type, direction, size, sent.value}});

    inserting.call("Execute");

    EXPECT_EQ(parameter_of(inserting, 0), sent.read_back);
    EXPECT_EQ(stored(sent.column), sent.arrived);
  }

  std::vector<Sent> of_every_type() const {
    const std::string bits = shown_boolean(true);
    return {
        {"n", ZIRDB_AD_INTEGER, number(VT_I4, INT32_MIN), "I4 -2147483648",
         "I8 -2147483648"},
        {"n", ZIRDB_AD_INTEGER, number(VT_I2, 7), "I4 7", "I8 7"},
        {"n", ZIRDB_AD_INTEGER, argument("42"), "I4 42", "I8 42"},
        {"b", ZIRDB_AD_BIGINT, kSmallest, "I8 -9223372036854775808",
         "I8 -9223372036854775808"},
        {"b", ZIRDB_AD_BIGINT, kLargest, "I8 9223372036854775807",
         "I8 9223372036854775807"},
        {"b", ZIRDB_AD_BIGINT, number(VT_I4, 7), "I8 7", "I8 7"},
        {"f", ZIRDB_AD_BOOLEAN, true, "BOOL -1", bits},
        {"f", ZIRDB_AD_BOOLEAN, false, "BOOL 0", shown_boolean(false)},
        {"t", ZIRDB_AD_GUID, argument(kGuidText),
         "BSTR " + std::string(kGuidText), "BSTR " + std::string(kGuidText)},
        {"t", ZIRDB_AD_VARCHAR, argument(kUnicode),
         "BSTR " + std::string(kUnicode), "BSTR " + std::string(kUnicode)},
        {"t", ZIRDB_AD_VARWCHAR, argument(kUnicode),
         "BSTR " + std::string(kUnicode), "BSTR " + std::string(kUnicode)},
        {"t", ZIRDB_AD_GUID, 5, "BSTR 5", "BSTR 5"},
        {"t", ZIRDB_AD_VARCHAR, number(VT_I4, 5), "BSTR 5", "BSTR 5"},
        {"t", ZIRDB_AD_VARWCHAR, 5, "BSTR 5", "BSTR 5"},
        {"x", ZIRDB_AD_VARBINARY, bytes(std::string("\0\x01\xFF'\\", 5)),
         "bytes 00 01 FF 27 5C", "bytes 00 01 FF 27 5C"},
        // Without a type the value's own decides.
        {"b", ZIRDB_AD_EMPTY, number(VT_I4, 7), "I8 7", "I8 7"},
        {"d", ZIRDB_AD_EMPTY, 0.1, "R8 0.1", "R8 0.1"},
        {"f", ZIRDB_AD_EMPTY, true, "BOOL -1", bits},
        {"t", ZIRDB_AD_EMPTY, argument(kUnicode),
         "BSTR " + std::string(kUnicode), "BSTR " + std::string(kUnicode)},
        {"x", ZIRDB_AD_EMPTY, bytes("\x7F"), "bytes 7F", "bytes 7F"},
        {"t", ZIRDB_AD_EMPTY, null(), "NULL", "NULL"},
        {"t", ZIRDB_AD_EMPTY, _variant_t(), "NULL", "NULL"},
    };
  }

 private:
  int row_ = 0;
};

TEST_P(ScriptValues, InputsOfEveryTypeArriveInAColumnOfTheirType) {
  for (const Sent& sent : of_every_type()) {
    expect_arrival(sent, ZIRDB_AD_PARAM_INPUT);
    expect_arrival(sent, ZIRDB_AD_PARAM_UNKNOWN);
  }
}

// A statement that is no call has nothing to send back: the drivers leave what
// was sent.
TEST_P(ScriptValues, InputOutputsOfAStatementArriveLikeInputs) {
  for (const Sent& sent : of_every_type()) {
    expect_arrival(sent, ZIRDB_AD_PARAM_INPUT_OUTPUT, 0);
    expect_arrival(sent, ZIRDB_AD_PARAM_INPUT_OUTPUT, 100);
  }
}

TEST_P(ScriptValues, ANullOfEveryTypeArrivesAsNull) {
  const struct {
    const char* column;
    long type;
  } kRows[] = {{"n", ZIRDB_AD_INTEGER},   {"b", ZIRDB_AD_BIGINT},
               {"f", ZIRDB_AD_BOOLEAN},   {"t", ZIRDB_AD_GUID},
               {"t", ZIRDB_AD_VARCHAR},   {"t", ZIRDB_AD_VARWCHAR},
               {"x", ZIRDB_AD_VARBINARY}, {"d", ZIRDB_AD_EMPTY}};
  for (const auto& row : kRows) {
    expect_arrival({row.column, row.type, null(), "NULL", "NULL"});
    expect_arrival({row.column, row.type, _variant_t(), "NULL", "NULL"});
    expect_arrival({row.column, row.type, null(), "NULL", "NULL"},
                   ZIRDB_AD_PARAM_INPUT_OUTPUT, 10);
  }
}

TEST_P(ScriptValues, ADateTravelsAsText) {
  _variant_t date;
  date.vt = VT_DATE;
  date.dblVal = kDate;
  const std::string text = "BSTR 2024/01/02 12:00:00";
  expect_arrival({"t", ZIRDB_AD_EMPTY, date, text, text});
  expect_arrival({"t", ZIRDB_AD_VARWCHAR, date, text, text});
}

TEST_P(ScriptValues, OutputsOfAStatementAreRefusedBeforeItRuns) {
  for (const ScriptParameter& parameter :
       {output_of(ZIRDB_AD_INTEGER), return_value_of(ZIRDB_AD_INTEGER)}) {
    const Object inserting = command(insert("n"), {parameter});
    expect_error(error_of([&] { inserting.call("Execute"); }),
                 component::kErrorsInCommandCode, "ZIRDB.Command",
                 component::kNearOutputText);
  }
  EXPECT_EQ(value("SELECT COUNT(*) FROM v"), "I8 0");
}

TEST_P(ScriptValues, AValueThatDoesNotFitItsTypeIsNotSent) {
  const Object inserting =
      command(insert("n"), {input_of(ZIRDB_AD_INTEGER, argument("seven"))});

  const auto error = error_of([&] { inserting.call("Execute"); });

  EXPECT_EQ(error.source(), "ZIRDB.Command");
  EXPECT_EQ(error.text(), scripting::utf8(component::kValueText));
  EXPECT_EQ(value("SELECT COUNT(*) FROM v"), "I8 0");
}

TEST_P(ScriptValues, ACommandRunsAgainWithWhatItsParametersHold) {
  const Object inserting =
      command("INSERT INTO v (id, t) VALUES (?, ?)",
              {input_of(ZIRDB_AD_INTEGER, 1),
               input_of(ZIRDB_AD_VARWCHAR, argument("first"))});
  const Object list = inserting.get("Parameters");
  const Object id = list(0);
  const Object text = list(1);

  inserting.call("Execute");
  id.put("Value", 2);
  text.put("Value", "second");
  inserting.call("Execute");

  const std::vector<std::vector<std::string>> expected = {
      {"I8 1", "BSTR first"}, {"I8 2", "BSTR second"}};
  EXPECT_EQ(scripting::rows_of(run("SELECT id, t FROM v ORDER BY id")),
            expected);
}

TEST_P(ScriptValues, ParametersSelectRows) {
  run("INSERT INTO v (id, n, t) VALUES (1, 10, 'ten')");
  run("INSERT INTO v (id, n, t) VALUES (2, 20, 'twenty')");

  const Object rows = command("SELECT id FROM v WHERE n > ? AND t = ?",
                              {input_of(ZIRDB_AD_INTEGER, 15),
                               input_of(ZIRDB_AD_VARCHAR, argument("twenty"))})
                          .call("Execute");

  EXPECT_EQ(only_value(rows), "I8 2");
}

// ---------------------------------------------------------------------------
// Arguments of a connection that is called
// ---------------------------------------------------------------------------

TEST_P(ScriptValues, ArgumentsAreSentByTheirOwnTypes) {
  const Sent rows[] = {
      {"b", 0, number(VT_I2, -7), "", "I8 -7"},
      {"b", 0, number(VT_I4, 7), "", "I8 7"},
      {"b", 0, number(VT_UI1, 255), "", "I8 255"},
      {"b", 0, kLargest, "", "I8 9223372036854775807"},
      {"d", 0, 0.5, "", "R8 0.5"},
      {"f", 0, true, "", shown_boolean(true)},
      {"f", 0, false, "", shown_boolean(false)},
      {"t", 0, argument(kUnicode), "", "BSTR " + std::string(kUnicode)},
      {"t", 0, argument(""), "", "BSTR "},
      {"x", 0, bytes(std::string("\0\xFF", 2)), "", "bytes 00 FF"},
      {"t", 0, null(), "", "NULL"},
      {"b", 0, null(), "", "NULL"},
      // Deliberate: an omitted argument is sent as the number 0.
      {"b", 0, _variant_t(), "", "I8 0"},
  };
  for (const Sent& row : rows) {
    SCOPED_TRACE(shown(row.value));

    const _variant_t nothing = run(insert(row.column), row.value);

    EXPECT_EQ(shown(nothing), "EMPTY");
    EXPECT_EQ(stored(row.column), row.arrived);
  }
}

TEST_P(ScriptValues, SeveralArgumentsFollowTheMarkers) {
  run("INSERT INTO v (id, n, t, x) VALUES (?, ?, ?, ?)", 1, number(VT_I4, 7),
      "seven", bytes("7"));

  const std::vector<std::string> expected = {"I8 1", "I8 7", "BSTR seven",
                                             "bytes 37"};
  EXPECT_EQ(scripting::row_of(run(
                "SELECT id, n, t, x FROM v WHERE n = ? AND t = ?", 7, "seven")),
            expected);
}

TEST_P(ScriptValues, AnArgumentIsNeverWrittenTo) {
  _variant_t slot;

  run(insert("b"), values::reference_to(&slot));

  EXPECT_EQ(shown(slot), "EMPTY");
  EXPECT_EQ(stored("b"), "I8 0");
}

TEST_P(ScriptValues, AProcedureCallWithArgumentsIsRefused) {
  for (const char* sql : {"{CALL p(?)}", "EXEC p ?", "{? = CALL p()}"}) {
    expect_error(error_of([&] { run(sql, 1); }), component::kErrorsOccurredCode,
                 "ZIRDB.Connection", component::kErrorsOccurredText);
  }
}

// ---------------------------------------------------------------------------
// Arrays
// ---------------------------------------------------------------------------

TEST_P(ScriptValues, AnArrayHoldsTheArgumentsOfAConnection) {
  Array arguments = Array::of(1, number(VT_I4, 7), "seven", null());

  run("INSERT INTO v (id, n, t, x) VALUES (?, ?, ?, ?)", arguments.reference());

  const std::vector<std::string> expected = {"I8 1", "I8 7", "BSTR seven",
                                             "NULL"};
  EXPECT_EQ(scripting::row_of(run("SELECT id, n, t, x FROM v")), expected);
}

// Deliberate: as an argument of its own, an omitted value is the number 0.
TEST_P(ScriptValues, AnEmptySlotOfAnArrayIsSentAsNull) {
  Array arguments = Array::of(1, _variant_t());

  run("INSERT INTO v (id, b) VALUES (?, ?)", arguments.reference());

  EXPECT_EQ(value("SELECT b FROM v"), "NULL");
}

TEST_P(ScriptValues, AnArrayOfACommandReceivesWhatWasSent) {
  Array arguments = Array::of(number(VT_I2, 1), number(VT_I4, 7), "seven", true,
                              0.5, bytes("7"), null(), _variant_t());
  const Object inserting = command(
      "INSERT INTO v (id, n, t, f, d, x, t2, b) VALUES (?, ?, ?, ?, ?, ?, ?, "
      "?)");
  run("ALTER TABLE v ADD COLUMN t2 VARCHAR(20)");

  inserting.call("Execute", arguments.reference());

  const char* const expected[] = {"I8 1",   "I8 7",     "BSTR seven", "BOOL -1",
                                  "R8 0.5", "bytes 37", "NULL",       "NULL"};
  for (std::size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(shown(arguments[i]), expected[i]) << i;
  }
  const std::vector<std::string> stored = {
      "I8 1",   "I8 7",     "BSTR seven", shown_boolean(true),
      "R8 0.5", "bytes 37", "NULL",       "NULL"};
  EXPECT_EQ(scripting::row_of(run("SELECT id, n, t, f, d, x, t2, b FROM v")),
            stored);
  EXPECT_EQ(inserting.get("Parameters").vt, VT_DISPATCH);
  EXPECT_EQ(shown(Object(inserting.get("Parameters")).get("Count")), "I4 0");
}

TEST_P(ScriptValues, AnArrayFromOneServesLikeOneFromZero) {
  Array arguments({1, argument("first")}, 1);

  command("INSERT INTO v (id, t) VALUES (?, ?)")
      .call("Execute", arguments.reference());

  EXPECT_EQ(value("SELECT t FROM v WHERE id = 1"), "BSTR first");
  EXPECT_EQ(shown(arguments[1]), "BSTR first");
}

TEST_P(ScriptValues, TheArrayIsFoundBesideTheCountOfRows) {
  Array arguments = Array::of(5, 9);
  _variant_t count;
  run("INSERT INTO v (id, n) VALUES (1, 9), (2, 9), (3, 7)");

  command("UPDATE v SET b = ? WHERE n = ?")
      .call("Execute", values::reference_to(&count), arguments.reference());

  EXPECT_EQ(shown(count), "I8 2");
  EXPECT_EQ(value("SELECT COUNT(*) FROM v WHERE b = 5"), "I8 2");
}

// ---------------------------------------------------------------------------
// Text and bytes
// ---------------------------------------------------------------------------

TEST_P(ScriptValues, UnicodeIsUnchangedInStatementsAndNames) {
  const std::string column = "sp\u00E4lte \u20AC";
  const Object row =
      run("SELECT '" + std::string(kUnicode) + "' AS " + quoted(column));

  EXPECT_EQ(scripting::value_of(row, column.c_str()),
            "BSTR " + std::string(kUnicode));
  EXPECT_EQ(shown(Object(row(0)).get("Name")), "BSTR " + column);
}

TEST_P(ScriptValues, UnicodeIsUnchangedInErrors) {
  const auto error =
      error_of([&] { run("SELECT * FROM " + quoted("t\u00E4fel \u20AC")); });

  expect_failed_with_state(error, driver().missing_table_state);
  EXPECT_NE(error.text().find("t\u00E4fel \u20AC"), std::string::npos)
      << error.text();
}

TEST_P(ScriptValues, EmptyTextInAWideParameterIsNotNull) {
  expect_arrival({"t", ZIRDB_AD_VARWCHAR, argument(""), "BSTR ", "BSTR "});
}

// Every position holds another byte than its neighbours.
std::string varied(std::size_t length, unsigned modulus, unsigned first) {
  std::string content(length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    content[i] = static_cast<char>(first + (i * 7 + i / 1000) % modulus);
  }
  return content;
}

// Long values are compared without being printed.
bool same(const VARIANT& left, const VARIANT& right) {
  if (left.vt != right.vt) return false;
  if (left.vt == VT_BSTR) {
    return values::text_of(left) == values::text_of(right);
  }
  const SafeArrayAccess left_access(left.parray);
  const SafeArrayAccess right_access(right.parray);
  const std::size_t length = left.parray->rgsabound[0].cElements;
  return length == right.parray->rgsabound[0].cElements &&
         std::memcmp(left_access.elements<BYTE>(),
                     right_access.elements<BYTE>(), length) == 0;
}
void expect_same(const _variant_t& value, const _variant_t& expected) {
  EXPECT_TRUE(same(value, expected)) << "type " << value.vt;
}

TEST_P(ScriptValues, LongTextAndBytesAreWhole) {
  constexpr std::size_t kLength = 1 << 20;
  std::string smiles;
  while (smiles.size() < kLength) smiles += "\U0001F600 e\u0301";
  const struct {
    const char* column;
    long type;
    _variant_t value;
  } kRows[] = {
      {"t", ZIRDB_AD_VARCHAR, argument(varied(kLength, 26, 'a'))},
      {"t", ZIRDB_AD_VARWCHAR, argument(varied(kLength, 26, 'a'))},
      {"t", ZIRDB_AD_VARWCHAR, argument(smiles)},
      {"t", ZIRDB_AD_EMPTY, argument(smiles)},
      {"x", ZIRDB_AD_VARBINARY, bytes(varied(kLength, 256, 0))},
      {"x", ZIRDB_AD_EMPTY, bytes(varied(kLength, 256, 0))},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.type);
    const Object inserting =
        command(insert(row.column), {input_of(row.type, row.value)});

    inserting.call("Execute");
    const Object rows = newest(row.column);

    expect_same(Object(Object(inserting.get("Parameters"))(0)).get("Value"),
                row.value);
    expect_same(Object(rows(0)).get("Value"), row.value);
  }
}

TEST_P(ScriptValues, ALongLiteralIsWhole) {
  const std::string content = varied(1 << 20, 26, 'a');
  run("INSERT INTO v (id, t) VALUES (1, '" + content + "')");

  expect_same(Object(Object(run("SELECT t FROM v"))(0)).get("Value"),
              argument(content));
}

TEST_P(ScriptValues, LongArgumentsOfAConnectionAreWhole) {
  const _variant_t text = argument(varied(1 << 20, 26, 'a'));
  const _variant_t content = bytes(varied(1 << 20, 256, 0));

  run("INSERT INTO v (t, x) VALUES (?, ?)", text, content);

  const Object rows = run("SELECT t, x FROM v");
  expect_same(Object(rows(0)).get("Value"), text);
  expect_same(Object(rows(1)).get("Value"), content);
}

ZIRDB_FOR_EVERY_DRIVER(ScriptValues);

// PostgreSQL's driver converts wide text through the process's locale, which
// these tests run without (component_databases.cmake). A script's text is sent
// wide.
class ScriptPostgresInTheCLocale : public ScriptJourney {};

TEST_P(ScriptPostgresInTheCLocale, TextArgumentsBeyondAsciiAreRefused) {
  expect_failed_with_state(
      error_of([&] { run("SELECT CAST(? AS text)", "h\u00E9llo"); }), "HY000");
  EXPECT_EQ(value("SELECT CAST(? AS text)", "hello"), "BSTR hello");
}

TEST_P(ScriptPostgresInTheCLocale, OtherTextIsNot) {
  const char* const text = "h\u00E9llo \U0001F600";
  const Object selecting = command(
      "SELECT CAST(? AS text)", {input_of(ZIRDB_AD_VARCHAR, argument(text))});
  EXPECT_EQ(only_value(selecting.call("Execute")), "BSTR " + std::string(text));
  EXPECT_EQ(value("SELECT '" + std::string(text) + "'"),
            "BSTR " + std::string(text));
}

INSTANTIATE_TEST_SUITE_P(, ScriptPostgresInTheCLocale,
                         testing::Values(&kPostgres), driver_name);

}  // namespace
}  // namespace zirdb_test
