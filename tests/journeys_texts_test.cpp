// SPDX-License-Identifier: MIT
//
// Long text and bytes through a real driver: they are read in chunks of 1024
// bytes (1023 and a terminator for text) and must come back joined without
// loss, wherever a chunk ends.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "support/database.h"

namespace zirdb_test {
namespace {

constexpr std::size_t kLengths[] = {1,    1022, 1023,  1024,  1025,   2045,
                                    2046, 2047, 65535, 65536, 1 << 20};

class JourneyTexts : public Journey {
 protected:
  void SetUp() override {
    Journey::SetUp();
    if (IsSkipped()) return;
    db().run("CREATE TABLE texts (id INTEGER, t " +
             std::string(driver().text_type) + ", x " + driver().blob_type +
             ")");
  }

  void expect_arrival(const char* column, DataType type,
                      const ZirdbOdbcValue& value) {
    const std::string id = std::to_string(++row_);
    Parameters parameters = {input(type, value)};
    db().run("INSERT INTO texts (id, " + std::string(column) + ") VALUES (" +
                 id + ", ?)",
             parameters);
    EXPECT_EQ(parameters[0].value, value) << "type " << type;
    EXPECT_EQ(db().value_of("SELECT " + std::string(column) +
                            " FROM texts WHERE id = " + id),
              value)
        << "type " << type;
  }

 private:
  int row_ = 0;
};

// Every position holds another byte than its neighbours, in the rows of a
// chunk's length too.
std::string varied(std::size_t length, unsigned modulus, unsigned first) {
  std::string content(length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    content[i] = static_cast<char>(first + (i * 7 + i / 1000) % modulus);
  }
  return content;
}

TEST_P(JourneyTexts, TextOfEveryLengthAroundAChunkIsWhole) {
  for (const std::size_t length : kLengths) {
    const ZirdbOdbcValue value = text(varied(length, 26, 'a'));
    expect_arrival("t", kVarchar, value);
    expect_arrival("t", kVarwchar, value);
    expect_arrival("t", kByKind, value);
  }
}

TEST_P(JourneyTexts, BytesOfEveryLengthAroundAChunkAreWhole) {
  for (const std::size_t length : kLengths) {
    const ZirdbOdbcValue value = bytes(varied(length, 256, 0));
    expect_arrival("x", kVarbinary, value);
    expect_arrival("x", kByKind, value);
  }
}

// The character begins at every distance before the end of the first chunk.
TEST_P(JourneyTexts, ACharacterAcrossTheEndOfAChunkIsWhole) {
  for (const std::string character : {"\u00E9", "\u20AC", "\U0001F600"}) {
    for (std::size_t before = 1023 - character.size(); before <= 1024;
         ++before) {
      std::string content(before, 'x');
      content.append(character).append(character).append("end");
      const ZirdbOdbcValue value = text(content);
      expect_arrival("t", kVarchar, value);
      expect_arrival("t", kVarwchar, value);
    }
  }
}

TEST_P(JourneyTexts, TextOfNothingButWideCharactersIsWhole) {
  std::string smiles;
  for (int i = 0; i < 20000; ++i) smiles += "\U0001F600";
  expect_arrival("t", kVarchar, text(smiles));
  expect_arrival("t", kVarwchar, text(smiles));
}

TEST_P(JourneyTexts, ALongLiteralIsWhole) {
  const std::string content = varied(1 << 20, 26, 'a');
  db().run("INSERT INTO texts (id, t) VALUES (1, '" + content + "')");
  EXPECT_EQ(db().value_of("SELECT t FROM texts"), text(content));
}

TEST_P(JourneyTexts, UnicodeInALiteralIsUnchanged) {
  const std::string content = "na\u00EFve \U0001F600 e\u0301 \U0010FFFF";
  EXPECT_EQ(db().value_of("SELECT '" + content + "'"), text(content));
}

TEST_P(JourneyTexts, LongColumnsSideBySideAreNotMixedUp) {
  const std::string first = varied(5000, 26, 'a');
  const std::string second = varied(3000, 26, 'A');
  const std::string third = varied(4000, 256, 0);
  db().run("INSERT INTO texts (id, t, x) VALUES (1, ?, ?)",
           {input(kVarchar, text(first)), input(kVarbinary, bytes(third))});
  db().run("INSERT INTO texts (id, t, x) VALUES (2, ?, NULL)",
           {input(kVarchar, text(second))});

  const ZirdbOdbcResult result =
      db().run("SELECT t, x, t, id FROM texts ORDER BY id");

  ASSERT_EQ(result.rows.size(), 2u);
  ASSERT_EQ(result.rows[0].size(), 4u);
  EXPECT_EQ(result.rows[0][0], text(first));
  EXPECT_EQ(result.rows[0][1], bytes(third));
  EXPECT_EQ(result.rows[0][2], text(first));
  EXPECT_EQ(result.rows[0][3], integer(1));
  EXPECT_EQ(result.rows[1][0], text(second));
  EXPECT_EQ(result.rows[1][1], null_value());
  EXPECT_EQ(result.rows[1][2], text(second));
  EXPECT_EQ(result.rows[1][3], integer(2));
}

ZIRDB_FOR_EVERY_DRIVER(JourneyTexts);

// PostgreSQL's driver converts wide text through the process's locale, which
// these tests run without (journeys.cmake).
class JourneyPostgresInTheCLocale : public Journey {};

TEST_P(JourneyPostgresInTheCLocale, WideTextBeyondAsciiIsRefused) {
  const std::string error = db().error_of(
      "SELECT CAST(? AS text)", {input(kVarwchar, text("h\u00E9llo"))});

  EXPECT_EQ(error.substr(0, 7), "HY000: ") << error;
}

TEST_P(JourneyPostgresInTheCLocale, OtherTextIsNot) {
  EXPECT_EQ(db().value_of("SELECT CAST(? AS text)",
                          {input(kVarwchar, text("hello"))}),
            text("hello"));
  EXPECT_EQ(db().value_of("SELECT CAST(? AS text)",
                          {input(kVarchar, text("h\u00E9llo"))}),
            text("h\u00E9llo"));
}

INSTANTIATE_TEST_SUITE_P(, JourneyPostgresInTheCLocale,
                         testing::Values(&kPostgres), driver_name);

}  // namespace
}  // namespace zirdb_test
