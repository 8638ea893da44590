// SPDX-License-Identifier: MIT
//
// Stored procedures and functions, and what their output parameters hold
// afterwards. The drivers differ so much that each has tests of its own.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/database.h"

namespace zirdb_test {
namespace {

constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();

// ---------------------------------------------------------------------------
// PostgreSQL: functions, and procedures called in the server's own words
// ---------------------------------------------------------------------------

class JourneyPostgresProcedures : public Journey {
 protected:
  void create_function(const std::string& head, const std::string& body) {
    db().run("CREATE FUNCTION " + head + " LANGUAGE sql AS $$ " + body + " $$");
  }
};

TEST_P(JourneyPostgresProcedures, AReturnValueOfEveryTypeIsReadBack) {
  const struct {
    const char* sql_type = nullptr;
    const char* expression = nullptr;
    ZirdbOdbcParameter parameter;
    ZirdbOdbcValue expected;
  } rows[] = {
      {"integer", "-7", return_value(kInteger), integer(-7)},
      {"bigint", "'-9223372036854775808'::bigint", return_value(kBigint),
       integer(kSmallest)},
      {"boolean", "true", return_value(kBoolean), boolean(true)},
      {"double precision", "0.1::double precision",
       return_value(kByKind, 0, real(0.0)), real(0.1)},
      {"text", "'h\u00E9llo'", return_value(kVarchar, 20), text("h\u00E9llo")},
      {"text", "'h\u00E9llo \U0001F600'", return_value(kVarwchar, 20),
       text("h\u00E9llo \U0001F600")},
      {"uuid", "'00112233-4455-6677-8899-aabbccddeeff'::uuid",
       return_value(kGuid, 40), text("00112233-4455-6677-8899-AABBCCDDEEFF")},
      {"bytea", "'\\x00ff'::bytea", return_value(kVarbinary, 20),
       bytes(std::string("\0\xFF", 2))},
      {"text", "NULL::text", return_value(kVarchar, 20), null_value()},
      {"integer", "NULL::integer", return_value(kInteger), null_value()},
      {"bytea", "NULL::bytea", return_value(kVarbinary, 20), null_value()},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.expression);
    create_function("f() RETURNS " + std::string(row.sql_type),
                    "SELECT " + std::string(row.expression));
    Parameters parameters = {row.parameter};

    db().run("{? = CALL f()}", parameters);

    EXPECT_EQ(parameters[0].value, row.expected);
    db().run("DROP FUNCTION f");
  }
}

TEST_P(JourneyPostgresProcedures, AReturnValueComesBesideArguments) {
  create_function("product(a integer, b integer) RETURNS integer",
                  "SELECT a * b");
  Parameters parameters = {return_value(kInteger), input(kInteger, integer(6)),
                           input(kInteger, integer(7))};

  const ZirdbOdbcResult result =
      db().run("{? = CALL product(?, ?)}", parameters);

  EXPECT_EQ(parameters[0].value, integer(42));
  EXPECT_EQ(parameters[1].value, integer(6));
  EXPECT_TRUE(result.rows.empty());
}

// The driver loses an only argument when it has the server prepare the call.
TEST_P(JourneyPostgresProcedures, AnOnlyArgumentBesideAReturnValueIsLost) {
  create_function("triple(a integer) RETURNS integer", "SELECT a * 3");
  Parameters parameters = {return_value(kInteger), input(kInteger, integer(5))};

  EXPECT_EQ(db().error_of("{? = CALL triple(?)}", parameters).substr(0, 7),
            "42883: ");

  Connection unprepared = connect(";UseServerSidePrepare=0");
  unprepared.run("{? = CALL triple(?)}", parameters);
  EXPECT_EQ(parameters[0].value, integer(15));
}

TEST_P(JourneyPostgresProcedures, OutputArgumentsAreReadBack) {
  create_function("f(a integer, OUT b integer, OUT c text, OUT d text)",
                  "SELECT a * 2, 'h\u00E9llo', NULL::text");
  Parameters parameters = {input(kInteger, integer(21)), output(kInteger),
                           output(kVarchar, 20), output(kVarchar, 20)};

  const ZirdbOdbcResult result = db().run("{CALL f(?, ?, ?, ?)}", parameters);

  EXPECT_EQ(parameters[0].value, integer(21));
  EXPECT_EQ(parameters[1].value, integer(42));
  EXPECT_EQ(parameters[2].value, text("h\u00E9llo"));
  EXPECT_EQ(parameters[3].value, null_value());
  // The same values are a row, too.
  ASSERT_EQ(result.rows.size(), 1u);
  EXPECT_EQ(result.rows[0][0], integer(42));
  EXPECT_EQ(result.rows[0][1], text("h\u00E9llo"));
}

TEST_P(JourneyPostgresProcedures, AnOutputLongerThanItsSizeIsCut) {
  create_function("f() RETURNS text", "SELECT 'abcdefghij'");
  Parameters parameters = {return_value(kVarchar, 4)};

  db().run("{? = CALL f()}", parameters);

  // Deliberate: the buffer has one character more than the declared size, and
  // the terminator is not counted in it.
  EXPECT_EQ(parameters[0].value, text("abcde"));
}

TEST_P(JourneyPostgresProcedures, AFunctionWithoutOutputsGivesARow) {
  create_function("triple(a integer) RETURNS integer", "SELECT a * 3");
  EXPECT_EQ(db().value_of("{CALL triple(?)}", {input(kInteger, integer(5))}),
            integer(15));
}

// The driver turns the escape into a SELECT, which the server does not accept
// for procedures.
TEST_P(JourneyPostgresProcedures, AProcedureIsCalledWithoutTheEscape) {
  db().run(
      "CREATE PROCEDURE p(a integer, INOUT b integer, INOUT c text)"
      " LANGUAGE plpgsql AS $$ BEGIN b := a * 2; c := c || '!'; END $$");
  Parameters parameters = {input(kInteger, integer(21)),
                           input_output(kInteger, 0, integer(1)),
                           input_output(kVarchar, 20, text("h\u00E9"))};

  EXPECT_EQ(db().error_of("{CALL p(?, ?, ?)}", parameters).substr(0, 7),
            "42809: ");
  db().run("CALL p(?, ?, ?)", parameters);

  EXPECT_EQ(parameters[0].value, integer(21));
  EXPECT_EQ(parameters[1].value, integer(42));
  EXPECT_EQ(parameters[2].value, text("h\u00E9!"));
}

INSTANTIATE_TEST_SUITE_P(, JourneyPostgresProcedures,
                         testing::Values(&kPostgres), driver_name);

// ---------------------------------------------------------------------------
// MariaDB: procedures
// ---------------------------------------------------------------------------

class JourneyMariadbProcedures : public Journey {};

TEST_P(JourneyMariadbProcedures, OutputsOfEveryTypeAreReadBack) {
  db().run(
      "CREATE PROCEDURE p(OUT a INTEGER, OUT b BIGINT, OUT c DOUBLE,"
      " OUT d BIT(1), OUT e VARCHAR(20), OUT f VARBINARY(20), OUT g UUID)"
      " BEGIN SET a = -7; SET b = -9223372036854775808; SET c = 0.1;"
      " SET d = 1; SET e = 'h\u00E9llo \U0001F600'; SET f = x'00FF';"
      " SET g = '00112233-4455-6677-8899-aabbccddeeff'; END");
  Parameters parameters = {
      output(kInteger), output(kBigint),      output(kByKind, 0, real(0.0)),
      output(kBoolean), output(kVarchar, 40), output(kVarbinary, 20),
      output(kGuid, 40)};

  db().run("{CALL p(?, ?, ?, ?, ?, ?, ?)}", parameters);

  EXPECT_EQ(parameters[0].value, integer(-7));
  EXPECT_EQ(parameters[1].value, integer(kSmallest));
  EXPECT_EQ(parameters[2].value, real(0.1));
  EXPECT_EQ(parameters[3].value, boolean(true));
  EXPECT_EQ(parameters[4].value, text("h\u00E9llo \U0001F600"));
  EXPECT_EQ(parameters[5].value, bytes(std::string("\0\xFF", 2)));
  EXPECT_EQ(parameters[6].value, text("00112233-4455-6677-8899-aabbccddeeff"));
}

TEST_P(JourneyMariadbProcedures, InputOutputsCarryBothWays) {
  db().run(
      "CREATE PROCEDURE p(IN a INTEGER, INOUT b INTEGER, INOUT c VARCHAR(20))"
      " BEGIN SET b = a * b; SET c = CONCAT(c, '!'); END");
  Parameters parameters = {input(kInteger, integer(6)),
                           input_output(kInteger, 0, integer(7)),
                           input_output(kVarchar, 20, text("h\u00E9"))};

  const ZirdbOdbcResult result = db().run("CALL p(?, ?, ?)", parameters);

  EXPECT_EQ(parameters[0].value, integer(6));
  EXPECT_EQ(parameters[1].value, integer(42));
  EXPECT_EQ(parameters[2].value, text("h\u00E9!"));
  // The outputs are a row, too.
  ASSERT_EQ(result.rows.size(), 1u);
  EXPECT_EQ(result.rows[0][0], integer(42));
  EXPECT_EQ(result.rows[0][1], text("h\u00E9!"));
}

// The driver does not tell a NULL output: the text stays empty, the number as
// it was sent.
TEST_P(JourneyMariadbProcedures, ANullOutputIsNotToldFromNothing) {
  db().run(
      "CREATE PROCEDURE p(OUT a VARCHAR(20), OUT b INTEGER)"
      " BEGIN SET a = NULL; SET b = NULL; END");
  Parameters parameters = {output(kVarchar, 20),
                           output(kInteger, 0, integer(5))};

  const ZirdbOdbcResult result = db().run("{CALL p(?, ?)}", parameters);

  EXPECT_EQ(parameters[0].value, text(""));
  EXPECT_EQ(parameters[1].value, integer(5));
  ASSERT_EQ(result.rows.size(), 1u);
  EXPECT_EQ(result.rows[0][0], null_value());
  EXPECT_EQ(result.rows[0][1], null_value());
}

// The driver writes UTF-8 into a wide output: two bytes make one unit. VARCHAR
// is the type to use.
TEST_P(JourneyMariadbProcedures, AWideOutputIsNotConverted) {
  db().run("CREATE PROCEDURE p(OUT a VARCHAR(20)) SET a = 'hey!'");
  Parameters parameters = {output(kVarwchar, 20)};

  db().run("{CALL p(?)}", parameters);

  EXPECT_EQ(parameters[0].value, text("\u6568\u2179"));
}

TEST_P(JourneyMariadbProcedures, AWideOutputThatIsNoUtf16Throws) {
  // The second byte, D8, makes half of a surrogate pair.
  db().run("CREATE PROCEDURE p(OUT a VARCHAR(20)) SET a = 'a\u0600'");

  EXPECT_THROW(db().run("{CALL p(?)}", {output(kVarwchar, 20)}),
               std::range_error);
  EXPECT_EQ(db().value_of("SELECT 1"), integer(1));
}

TEST_P(JourneyMariadbProcedures, TheFirstResultSetOfAProcedureAnswers) {
  db().run(
      "CREATE PROCEDURE p(a INTEGER) BEGIN"
      " SELECT a AS n UNION ALL SELECT a + 1; SELECT 'second'; END");

  const ZirdbOdbcResult result =
      db().run("{CALL p(?)}", {input(kInteger, integer(5))});

  ASSERT_EQ(result.rows.size(), 2u);
  EXPECT_EQ(result.columns[0].name, "n");
  EXPECT_EQ(result.rows[0][0], integer(5));
  EXPECT_EQ(result.rows[1][0], integer(6));
  // The rest of the answer does not disturb the next statement.
  EXPECT_EQ(db().value_of("SELECT 'next'"), text("next"));
}

TEST_P(JourneyMariadbProcedures, AFunctionIsSelectedAndNotCalled) {
  db().run(
      "CREATE FUNCTION triple(a INTEGER) RETURNS INTEGER DETERMINISTIC"
      " RETURN a * 3");

  EXPECT_EQ(db().value_of("SELECT triple(?)", {input(kInteger, integer(5))}),
            integer(15));
  EXPECT_EQ(db().error_of("{? = CALL triple(?)}",
                          {return_value(kInteger), input(kInteger, integer(5))})
                .substr(0, 7),
            "42000: ");
}

INSTANTIATE_TEST_SUITE_P(, JourneyMariadbProcedures, testing::Values(&kMariadb),
                         driver_name);

// ---------------------------------------------------------------------------
// SQLite: none
// ---------------------------------------------------------------------------

class JourneySqliteProcedures : public Journey {};

TEST_P(JourneySqliteProcedures, ACallIsASyntaxError) {
  EXPECT_EQ(db().error_of("{CALL p(?)}", {output(kInteger)}).substr(0, 7),
            "HY000: ");
}

INSTANTIATE_TEST_SUITE_P(, JourneySqliteProcedures, testing::Values(&kSqlite),
                         driver_name);

}  // namespace
}  // namespace zirdb_test
