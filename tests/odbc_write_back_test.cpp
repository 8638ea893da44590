// SPDX-License-Identifier: MIT
//
// What comes back into the caller's parameters after an execution, read from
// the buffers and indicators that the driver left.
//
// Sections: the tables' rows; per C type; NULL; UTF-16 that is none; what stays
// untouched; when it happens, and when not at all.

#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/odbc_parameters.h"
#include "support/scripted_odbc_fixture.h"

namespace {

using namespace odbc_parameters;
using namespace scripted_odbc;
using namespace std::string_literals;

constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();

// Indicators that are neither NULL, SQL_NTS nor a length.
const std::vector<std::int64_t> kNoLengths{
    0, SQL_DATA_AT_EXEC, SQL_NO_TOTAL, SQL_DEFAULT_PARAM, -6, -100, kSmallest};

// ---------------------------------------------------------------------------
// The tables' rows
// ---------------------------------------------------------------------------

/// What the driver writes, and the value that is read from it.
struct Row {
  Raw written;
  ZirdbOdbcValue read;
};

/// A value with something in every payload; text and bytes too long for any
/// buffer inside of the record.
ZirdbOdbcValue loaded(std::int32_t kind) {
  return {static_cast<Kind>(kind),
          true,
          77,
          2.5,
          std::string(100, 't'),
          std::vector<unsigned char>(100, 'b')};
}

/// `before` with the kind of `read` and the one payload field it names; the
/// others stay. Only NULL resets all.
ZirdbOdbcValue after(ZirdbOdbcValue before, const ZirdbOdbcValue& read) {
  before.kind = read.kind;
  switch (read.kind) {
    case Kind::Null:
      return {};
    case Kind::Bool:
      before.bool_value = read.bool_value;
      break;
    case Kind::Int64:
      before.int64_value = read.int64_value;
      break;
    case Kind::Double:
      before.double_value = read.double_value;
      break;
    case Kind::Text:
      before.text_value = read.text_value;
      break;
    case Kind::Binary:
      before.binary_value = read.binary_value;
      break;
  }
  return before;
}

class WriteBack : public ScriptedOdbc {
 protected:
  /// Executes with these parameters; a failure fails the test.
  void execute(Parameters& parameters) {
    if (connection_ == nullptr) connection_ = open();
    ZirdbOdbcResult result;
    EXPECT_TRUE(
        zirdb_odbc_execute(connection_, "{CALL p}", &parameters, &result))
        << result.error;
  }

  /// What the parameter holds after the driver wrote that.
  ZirdbOdbcValue read_back(const ZirdbOdbcParameter& before,
                           const std::optional<Raw>& written = {}) {
    if (written) script().output(1, *written);
    Parameters parameters{before};
    execute(parameters);
    return parameters[0].value;
  }

  void check(const ZirdbOdbcParameter& before, const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      EXPECT_EQ(describe(read_back(before, row.written)),
                describe(after(before.value, row.read)))
          << describe(before) << "\nwritten: " << escaped(row.written.bytes)
          << " and indicator " << testing::PrintToString(row.written.indicator);
    }
  }

 private:
  void* connection_ = nullptr;
};

// ---------------------------------------------------------------------------
// Per C type
// ---------------------------------------------------------------------------

TEST_F(WriteBack, IntegersAreSignExtended) {
  for (const std::int64_t direction : {kInput, kInputOutput, kOutput}) {
    check(parameter(kInteger, direction, 0, loaded(4)),
          {
              {raw(bytes_of<std::int32_t>(5), 4), integer(5)},
              {raw(bytes_of<std::int32_t>(-5), 4), integer(-5)},
              {raw(bytes_of<std::int32_t>(INT32_MIN), 4), integer(INT32_MIN)},
              {raw(bytes_of<std::int32_t>(INT32_MAX), 4), integer(INT32_MAX)},
          });
  }
}

TEST_F(WriteBack, BigIntegersKeepAllTheirBits) {
  for (const ZirdbOdbcParameter& before :
       {parameter(kBigint, kOutput, 0, loaded(4)),
        parameter(kByKind, kOutput, 0, loaded(2))}) {
    check(before, {
                      {raw(bytes_of<std::int64_t>(-5), 8), integer(-5)},
                      {raw(bytes_of(kSmallest), 8), integer(kSmallest)},
                      {raw(bytes_of(kLargest), 8), integer(kLargest)},
                  });
  }
}

TEST_F(WriteBack, DoublesKeepAllTheirBits) {
  check(parameter(kByKind, kInputOutput, 0, loaded(3)),
        {
            {raw(bytes_of(-1.25), 8), real(-1.25)},
            {raw(bytes_of(-0.0), 8), real(-0.0)},
            {raw(bytes_of(HUGE_VAL), 8), real(HUGE_VAL)},
            {raw(bytes_of(std::nan("7")), 8), real(std::nan("7"))},
        });
}

TEST_F(WriteBack, EveryBitButZeroIsTrue) {
  for (const ZirdbOdbcParameter& before :
       {parameter(kBoolean, kOutput, 0, loaded(4)),
        parameter(kBoolean, kInput, 0, loaded(1)),
        parameter(kByKind, kOutput, 0, loaded(1))}) {
    check(before, {
                      {raw(bytes_of<unsigned char>(0), 1), boolean(false)},
                      {raw(bytes_of<unsigned char>(1), 1), boolean(true)},
                      {raw(bytes_of<unsigned char>(2), 1), boolean(true)},
                      {raw(bytes_of<unsigned char>(255), 1), boolean(true)},
                  });
  }
}

// Only NULL matters of what a driver says about the length of a number.
TEST_F(WriteBack, NumbersAreReadWhateverTheirLength) {
  std::vector<std::int64_t> indicators = kNoLengths;
  indicators.insert(indicators.end(), {SQL_NTS, 1, 3, 999, kLargest});
  for (const std::int64_t indicator : indicators) {
    check(parameter(kInteger, kOutput, 0, loaded(0)),
          {{raw(bytes_of<std::int32_t>(-5), indicator), integer(-5)}});
    check(parameter(kBigint, kOutput, 0, loaded(0)),
          {{raw(bytes_of<std::int64_t>(-5), indicator), integer(-5)}});
    check(parameter(kByKind, kOutput, 0, loaded(3)),
          {{raw(bytes_of(-1.25), indicator), real(-1.25)}});
    check(parameter(kBoolean, kOutput, 0, loaded(0)),
          {{raw(bytes_of<unsigned char>(1), indicator), boolean(true)}});
  }
}

// A declared size of 5 makes a buffer of 6 characters and a terminator.
TEST_F(WriteBack, TextEndsAtTheIndicatorOrTheBuffer) {
  std::vector<Row> rows{
      {raw("abcdef", 1), text("a")},
      {raw("abcdef", 3), text("abc")},
      {raw("abcdef", 5), text("abcde")},
      {raw("abcdef", 6), text("abcdef")},
      {raw("abcdef", 7), text("abcdef")},
      {raw("abcdef", 8), text("abcdef")},
      {raw("abcdef", kLargest), text("abcdef")},
      {raw(bytes_in("ab\0cd\0"), 5), text(bytes_in("ab\0cd"))},
      {raw(bytes_in("ab\0\0\0\0"), 100), text(bytes_in("ab\0\0\0\0"))},
      {raw(bytes_in("ab\0cde"), SQL_NTS), text("ab")},
      {raw(bytes_in("\0bcdef"), SQL_NTS), text("")},
      {raw("abcdef", SQL_NTS), text("abcdef")},
      // The driver overwrote the terminator as well.
      {raw("abcdefg", SQL_NTS), text("abcdef")},
      {raw("abcdefg", 7), text("abcdef")},
      // Bytes, not characters: neither checked nor converted.
      {raw("\xFF\xC3\x80\xED\xA0\x80", 4), text("\xFF\xC3\x80\xED")},
  };
  for (const std::int64_t indicator : kNoLengths) {
    rows.push_back({raw("abcdef", indicator), text("")});
  }
  for (const std::int64_t type : {kVarchar, kGuid}) {
    for (const std::int64_t direction : {kOutput, kReturnValue, kInputOutput}) {
      check(parameter(type, direction, 5, loaded(2)), rows);
    }
  }
  // By kind there is a buffer for outputs only where the value is Null.
  check(parameter(kByKind, kOutput, 5, loaded(0)), rows);
  check(parameter(kByKind, kInputOutput, 5, loaded(0)), rows);
}

// Too long for the place inside of a string: whoever looks for a NUL behind the
// buffer reads memory that is not its own.
TEST_F(WriteBack, ALongTextWithoutATerminatorEndsWithItsBuffer) {
  check(parameter(kVarchar, kOutput, 99, loaded(4)),
        {
            {raw(std::string(101, 'x'), SQL_NTS), text(std::string(100, 'x'))},
            {raw(std::string(101, 'x'), 101), text(std::string(100, 'x'))},
        });
  check(parameter(kVarwchar, kOutput, 99, loaded(4)),
        {
            {raw(bytes_of(std::u16string(100, u'x')), SQL_NTS),
             text(std::string(100, 'x'))},
            {raw(bytes_of(std::u16string(100, u'x')), 202),
             text(std::string(100, 'x'))},
        });
}

// Inputs have just their own text, and its terminator, for a buffer.
TEST_F(WriteBack, ATextInputEndsAtItsOwnLength) {
  const ZirdbOdbcParameter before =
      parameter(kVarchar, kInput, 50, text("hello"));
  check(before, {
                    {raw("HE", 2), text("HE")},
                    {raw("HE", 50), text("HEllo")},
                    {raw("HELLO!", SQL_NTS), text("HELLO")},
                    {raw("HELLO!", 6), text("HELLO")},
                    {raw("", SQL_NO_TOTAL), text("")},
                });
  check(parameter(kByKind, kOutput, 50, text("hello")),
        {{raw("HE", 50), text("HEllo")}});
}

// A declared size of 3 makes a buffer of 4 units, the terminator among them.
TEST_F(WriteBack, WideTextEndsAtTheIndicatorOrTheBuffer) {
  std::vector<Row> rows{
      {raw(bytes_of(u"abc\0"s), 1), text("")},
      {raw(bytes_of(u"abc\0"s), 2), text("a")},
      {raw(bytes_of(u"abc\0"s), 3), text("a")},
      {raw(bytes_of(u"abc\0"s), 5), text("ab")},
      {raw(bytes_of(u"abc\0"s), 6), text("abc")},
      {raw(bytes_of(u"abc\0"s), 7), text("abc")},
      {raw(bytes_of(u"abcd"), 8), text("abcd")},
      {raw(bytes_of(u"abcd"), 9), text("abcd")},
      {raw(bytes_of(u"abcd"), 10), text("abcd")},
      // Deliberate: a driver that claims more than it was given brings the
      // terminator into the text.
      {raw(bytes_of(u"abc\0"s), 8), text(bytes_in("abc\0"))},
      {raw(bytes_of(u"abc\0"s), 1000), text(bytes_in("abc\0"))},
      {raw(bytes_of(u"abc\0"s), kLargest), text(bytes_in("abc\0"))},
      {raw(bytes_of(u"a\0b\0"s), 6), text(bytes_in("a\0b"))},
      {raw(bytes_of(u"a\0b\0"s), SQL_NTS), text("a")},
      {raw(bytes_of(u"abc\0"s), SQL_NTS), text("abc")},
      {raw(bytes_of(u"abcd"), SQL_NTS), text("abcd")},
      {raw(bytes_of(u"\0bcd"s), SQL_NTS), text("")},
      // Half a zero is not a terminator.
      {raw(bytes_of(u"a\u0100\u6100\0"s), SQL_NTS),
       text("a\xC4\x80\xE6\x84\x80")},
  };
  for (const std::int64_t indicator : kNoLengths) {
    rows.push_back({raw(bytes_of(u"abcd"), indicator), text("")});
  }
  for (const std::int64_t direction : {kOutput, kReturnValue, kInputOutput}) {
    check(parameter(kVarwchar, direction, 3, loaded(2)), rows);
  }
}

TEST_F(WriteBack, AWideInputHasItsTerminatorInTheBuffer) {
  check(parameter(kVarwchar, kInput, 50, text("hello")),
        {
            {raw(bytes_of(u"HE"), 4), text("HE")},
            {raw(bytes_of(u"HE"), 10), text("HEllo")},
            {raw(bytes_of(u"HE"), 12), text(bytes_in("HEllo\0"))},
            {raw(bytes_of(u"HE"), 500), text(bytes_in("HEllo\0"))},
            {raw(bytes_of(u"HE"), SQL_NTS), text("HEllo")},
        });
}

TEST_F(WriteBack, Utf16UnitsBecomeCodePoints) {
  check(parameter(kVarwchar, kOutput, 3, loaded(4)),
        {
            {raw(bytes_of(u"\u007F"), 2), text("\x7F")},
            {raw(bytes_of(u"\u0080"), 2), text("\xC2\x80")},
            {raw(bytes_of(u"\u07FF"), 2), text("\xDF\xBF")},
            {raw(bytes_of(u"\u0800"), 2), text("\xE0\xA0\x80")},
            {raw(bytes_of(std::u16string{0xD7FF}), 2), text("\xED\x9F\xBF")},
            {raw(bytes_of(std::u16string{0xE000}), 2), text("\xEE\x80\x80")},
            {raw(bytes_of(std::u16string{0xFEFF}), 2), text("\xEF\xBB\xBF")},
            {raw(bytes_of(std::u16string{0xFFFE}), 2), text("\xEF\xBF\xBE")},
            {raw(bytes_of(std::u16string{0xFFFF}), 2), text("\xEF\xBF\xBF")},
            {raw(bytes_of(std::u16string{0xD800, 0xDC00}), 4),
             text("\xF0\x90\x80\x80")},
            {raw(bytes_of(std::u16string{0xD83D, 0xDE00}), 4),
             text("\xF0\x9F\x98\x80")},
            {raw(bytes_of(std::u16string{0xD83D, 0xDE00}), 5),
             text("\xF0\x9F\x98\x80")},
            {raw(bytes_of(std::u16string{0xDBFF, 0xDFFF, 'z', 0}), SQL_NTS),
             text("\xF4\x8F\xBF\xBFz")},
            // What lies behind the end is not looked at.
            {raw(bytes_of(std::u16string{'a', 'b', 0xD800, 0xD800}), 4),
             text("ab")},
            {raw(bytes_of(std::u16string{'a', 0, 0xDC00, 0xDC00}), SQL_NTS),
             text("a")},
        });
}

TEST_F(WriteBack, BytesEndAtTheIndicatorOrTheBuffer) {
  std::vector<Row> rows{
      {raw("abcd", 1), bytes("a")},
      {raw("abcd", 3), bytes("abc")},
      {raw("abcd", 4), bytes("abcd")},
      {raw("abcd", 5), bytes("abcd")},
      {raw("abcd", kLargest), bytes("abcd")},
      {raw(bytes_in("a\0b\0"), 4), bytes(bytes_in("a\0b\0"))},
      {raw("abcd", SQL_NTS), bytes("")},
  };
  for (const std::int64_t indicator : kNoLengths) {
    rows.push_back({raw("abcd", indicator), bytes("")});
  }
  for (const std::int64_t direction : {kOutput, kReturnValue, kInputOutput}) {
    check(parameter(kVarbinary, direction, 4, loaded(2)), rows);
  }
  check(parameter(kByKind, kInput, 0, bytes("wxyz")), rows);
}

// A driver that has nowhere to write can still claim a length.
TEST_F(WriteBack, NothingIsReadFromANullBuffer) {
  for (const std::int64_t indicator : {std::int64_t{5}, kLargest}) {
    check(parameter(kVarchar, kInput, 10, as_kind(4, {})),
          {{raw("", indicator), text("")}});
    check(parameter(kByKind, kInput, 10, null_value()),
          {{raw("", indicator), text("")}});
    check(parameter(kVarbinary, kInput, 10, as_kind(5, {})),
          {{raw("", indicator), bytes("")}});
  }
  check(parameter(kVarchar, kInput, 10, as_kind(4, {})),
        {{raw("", SQL_NTS), text("")}});
}

// ---------------------------------------------------------------------------
// NULL
// ---------------------------------------------------------------------------

const std::vector<ZirdbOdbcParameter>& one_per_c_type() {
  static const std::vector<ZirdbOdbcParameter> table{
      parameter(kInteger, kInputOutput, 5, loaded(2)),
      parameter(kBigint, kInputOutput, 5, loaded(2)),
      parameter(kBoolean, kInputOutput, 5, loaded(1)),
      parameter(kByKind, kInputOutput, 5, loaded(3)),
      parameter(kVarchar, kInputOutput, 5, loaded(4)),
      parameter(kGuid, kInputOutput, 5, loaded(4)),
      parameter(kVarwchar, kInputOutput, 5, loaded(4)),
      parameter(kVarbinary, kInputOutput, 5, loaded(5)),
      parameter(kByKind, kInputOutput, 5, loaded(0)),
      parameter(kByKind, kInputOutput, 5, loaded(1)),
      parameter(kByKind, kInputOutput, 5, loaded(2)),
      parameter(kByKind, kInputOutput, 5, loaded(4)),
      parameter(kByKind, kInputOutput, 5, loaded(5)),
  };
  return table;
}

TEST_F(WriteBack, NullResetsEveryFieldAndReleasesItsStorage) {
  script().output(1, null_cell());
  for (ZirdbOdbcParameter each : one_per_c_type()) {
    for (const std::int64_t direction : {kInput, kInputOutput, kOutput}) {
      each.direction = direction;
      Parameters parameters{each};

      execute(parameters);

      const ZirdbOdbcValue& value = parameters[0].value;
      EXPECT_EQ(describe(value), describe(null_value())) << describe(each);
      EXPECT_EQ(value.text_value.capacity(), std::string().capacity())
          << describe(each);
      EXPECT_EQ(value.binary_value.capacity(), 0U) << describe(each);
    }
  }
}

// ---------------------------------------------------------------------------
// UTF-16 that is none
// ---------------------------------------------------------------------------

/// The text of the range error that leaves the call; else what happened.
template <typename Act>
std::string range_error_of(const Act& act) {
  try {
    act();
  } catch (const std::range_error& error) {
    return error.what();
  }
  return "no error";
}

TEST_F(WriteBack, UnpairedSurrogatesAreARangeError) {
  const struct {
    const char* what;
    std::u16string content;
    std::int64_t indicator;
  } table[] = {
      {"a high one alone", {0xD800}, 2},
      {"a low one alone", {0xDC00}, 2},
      {"the last high one", {0xDBFF}, 2},
      {"the last low one", {0xDFFF}, 2},
      {"a high one at the end", {'a', 0xD83D}, 4},
      {"a high one before a letter", {0xD83D, 'a'}, 4},
      {"a high one before the last unit that is no low one",
       {0xD83D, 0xE000},
       4},
      {"a high one before a high one", {0xD83D, 0xD83D, 0xDE00}, 6},
      {"a low one before a letter", {0xDE00, 'a'}, 4},
      {"a low one behind a letter", {'a', 0xDE00}, 4},
      {"the wrong way round", {0xDE00, 0xD83D}, 4},
      {"a low one behind a pair", {0xD83D, 0xDE00, 0xDE00}, 6},
      {"a pair cut in half", {0xD83D, 0xDE00}, 2},
      {"a pair cut in half by an odd length", {0xD83D, 0xDE00}, 3},
      {"a high one before the terminator", {'a', 0xD83D, 0}, SQL_NTS},
      {"a high one before a zero unit", {0xD83D, 0}, 4},
      {"a high one at the end of the buffer", {'a', 'b', 'c', 0xD83D}, 1000},
  };
  void* const connection = open();
  for (const auto& row : table) {
    script().output(1, raw(bytes_of(row.content), row.indicator));
    Parameters parameters{parameter(kVarwchar, kOutput, 3, null_value())};
    ZirdbOdbcResult result;

    EXPECT_EQ(range_error_of([&] {
                zirdb_odbc_execute(connection, "call", &parameters, &result);
              }),
              "wstring_convert::to_bytes")
        << row.what;
    EXPECT_EQ(script().live("STMT"), 0U) << row.what;
  }
  EXPECT_EQ(describe(read_back(parameter(kVarwchar, kOutput, 3, {}),
                               raw(bytes_of(u"ok"), 4))),
            describe(text("ok")));
}

// The cut of an in/out text can do the same without any help of the driver.
TEST_F(WriteBack, APairCutByTheDeclaredSizeIsARangeError) {
  Parameters parameters{
      parameter(kVarwchar, kInputOutput, 1, text("a\U0001F600"))};
  ZirdbOdbcResult result;
  void* const connection = open();

  EXPECT_EQ(range_error_of([&] {
              zirdb_odbc_execute(connection, "call", &parameters, &result);
            }),
            "wstring_convert::to_bytes");
}

TEST_F(WriteBack, ParametersBeforeABrokenOneAreReadAndThoseBehindItAreNot) {
  const ZirdbOdbcParameter before =
      parameter(kVarwchar, kOutput, 3, text("before"));
  Parameters parameters(3, before);
  script().output(1, raw(bytes_of(u"one"), 6));
  script().output(2, raw(bytes_of(std::u16string{0xDC00}), 2));
  script().output(3, raw(bytes_of(u"two"), 6));
  ZirdbOdbcResult result;
  void* const connection = open();

  EXPECT_THROW(zirdb_odbc_execute(connection, "call", &parameters, &result),
               std::range_error);

  EXPECT_EQ(describe(parameters[0].value), describe(text("one")));
  EXPECT_EQ(describe(parameters[2]), describe(before));
}

// ---------------------------------------------------------------------------
// What stays untouched
// ---------------------------------------------------------------------------

// The driver writes nothing: every value comes from what was bound, which can
// be another kind than the caller's.
TEST_F(WriteBack, InputsAreReadFromTheirOwnBuffers) {
  const struct {
    const char* what = nullptr;
    Type type = kByKind;
    ZirdbOdbcValue before;
    ZirdbOdbcValue read;
  } table[] = {
      {"INTEGER", kInteger, loaded(2), integer(77)},
      {"INTEGER of kind Text", kInteger, loaded(4), integer(77)},
      {"INTEGER beyond 32 bits", kInteger, integer(4294967297), integer(1)},
      {"INTEGER of 2^31", kInteger, integer(2147483648), integer(INT32_MIN)},
      {"INTEGER, NULL", kInteger, loaded(0), null_value()},
      {"BIGINT", kBigint, integer(kSmallest), integer(kSmallest)},
      {"BIGINT of kind Double", kBigint, loaded(3), integer(77)},
      {"BIGINT, NULL", kBigint, loaded(0), null_value()},
      {"BOOLEAN", kBoolean, loaded(1), boolean(true)},
      {"BOOLEAN of kind Int64", kBoolean, loaded(2), boolean(false)},
      {"BOOLEAN, NULL", kBoolean, loaded(0), null_value()},
      {"VARCHAR", kVarchar, text("abc"), text("abc")},
      {"VARCHAR of kind Int64", kVarchar, integer(5), text("")},
      {"VARCHAR of no kind", kVarchar, as_kind(99, text("abc")), text("abc")},
      {"VARCHAR with a NUL", kVarchar, text(bytes_in("a\0b")), text("a")},
      {"VARCHAR, empty", kVarchar, text(""), text("")},
      {"VARCHAR, not UTF-8", kVarchar, text("\xFF"), text("\xFF")},
      {"VARCHAR, NULL", kVarchar, loaded(0), null_value()},
      {"GUID", kGuid, text("{1}"), text("{1}")},
      {"VARWCHAR", kVarwchar, text("\u00E9\U0001F600"),
       text("\u00E9\U0001F600")},
      {"VARWCHAR of kind Double", kVarwchar, as_kind(3, text("abc")),
       text("abc")},
      {"VARWCHAR with a NUL", kVarwchar, text(bytes_in("a\0b")),
       text(bytes_in("a\0b"))},
      {"VARWCHAR, empty", kVarwchar, text(""), text("")},
      {"VARWCHAR, NULL", kVarwchar, loaded(0), null_value()},
      {"VARBINARY", kVarbinary, bytes("abc"), bytes("abc")},
      {"VARBINARY of kind Bool", kVarbinary, as_kind(1, bytes("abc")),
       bytes("abc")},
      {"VARBINARY, empty", kVarbinary, bytes(""), bytes("")},
      {"VARBINARY, NULL", kVarbinary, loaded(0), null_value()},
      {"Null by kind", kByKind, loaded(0), null_value()},
      {"Bool by kind", kByKind, loaded(1), boolean(true)},
      {"Int64 by kind", kByKind, integer(kLargest), integer(kLargest)},
      {"Double by kind", kByKind, loaded(3), real(2.5)},
      {"Text by kind", kByKind, text("abc"), text("abc")},
      {"Text by kind, with a NUL", kByKind, text(bytes_in("a\0b")), text("a")},
      {"Text by kind, empty", kByKind, text(""), text("")},
      {"Binary by kind", kByKind, bytes("abc"), bytes("abc")},
      {"Binary by kind, empty", kByKind, bytes(""), bytes("")},
  };
  for (const auto& row : table) {
    for (const std::int64_t direction : {kInput, kUnknown}) {
      const ZirdbOdbcParameter before =
          parameter(row.type, direction, 0, row.before);
      EXPECT_EQ(describe(read_back(before)),
                describe(after(row.before, row.read)))
          << row.what;
    }
  }
}

TEST_F(WriteBack, OutputsThatNobodyWroteAreWhatWasBound) {
  const struct {
    const char* what = nullptr;
    ZirdbOdbcParameter before;
    ZirdbOdbcValue read;
  } table[] = {
      {"INTEGER", parameter(kInteger, kOutput, 0, loaded(0)), integer(77)},
      {"BIGINT", parameter(kBigint, kOutput, 0, loaded(0)), integer(77)},
      {"BOOLEAN", parameter(kBoolean, kOutput, 0, loaded(0)), boolean(false)},
      {"VARCHAR", parameter(kVarchar, kOutput, 9, loaded(4)), text("")},
      {"VARWCHAR", parameter(kVarwchar, kOutput, 9, loaded(4)), text("")},
      {"VARBINARY", parameter(kVarbinary, kOutput, 9, loaded(5)), bytes("")},
      {"Null by kind", parameter(kByKind, kOutput, 9, loaded(0)), null_value()},
      {"Text by kind", parameter(kByKind, kOutput, 9, text("abc")),
       text("abc")},
      {"INTEGER in/out, NULL", parameter(kInteger, kInputOutput, 0, loaded(0)),
       null_value()},
      {"VARCHAR in/out", parameter(kVarchar, kInputOutput, 9, text("abc")),
       text("abc")},
      {"VARCHAR in/out, cut",
       parameter(kVarchar, kInputOutput, 3, text("abcde")), text("abcd")},
      {"VARWCHAR in/out", parameter(kVarwchar, kInputOutput, 9, text("abc")),
       text("abc")},
      {"VARWCHAR in/out, cut",
       parameter(kVarwchar, kInputOutput, 3, text("abcde")), text("abcd")},
      {"VARBINARY in/out", parameter(kVarbinary, kInputOutput, 9, bytes("abc")),
       bytes("abc")},
      {"VARBINARY in/out, cut",
       parameter(kVarbinary, kInputOutput, 3, bytes("abcde")), bytes("abc")},
  };
  for (const auto& row : table) {
    EXPECT_EQ(describe(read_back(row.before)),
              describe(after(row.before.value, row.read)))
        << row.what;
  }
}

// An untouched indicator is not a written one: the driver filled the buffer
// only.
TEST_F(WriteBack, ABufferWithoutAnIndicatorIsReadByTheBoundOne) {
  check(parameter(kVarchar, kOutput, 5, loaded(4)),
        {{raw("abc", leave_alone), text("")}});
  check(parameter(kVarwchar, kOutput, 5, loaded(4)),
        {{raw(bytes_of(u"abc"), leave_alone), text("")}});
  check(parameter(kVarbinary, kOutput, 5, loaded(5)),
        {{raw("abc", leave_alone), bytes("")}});
  check(parameter(kVarchar, kInputOutput, 5, text("xyz")),
        {{raw(bytes_in("a\0"), leave_alone), text("a")}});
  check(parameter(kByKind, kOutput, 5, loaded(0)),
        {{raw("abc", leave_alone), null_value()}});
}

// ---------------------------------------------------------------------------
// When it happens, and when not at all
// ---------------------------------------------------------------------------

TEST_F(WriteBack, EachParameterIsReadFromItsOwnBuffer) {
  Parameters parameters{
      parameter(kInteger, kOutput, 0, {}),
      parameter(kBigint, kOutput, 0, {}),
      parameter(kBoolean, kReturnValue, 0, {}),
      parameter(kByKind, kOutput, 0, real(0.0)),
      parameter(kVarchar, kOutput, 9, {}),
      parameter(kVarwchar, kOutput, 9, {}),
      parameter(kVarbinary, kOutput, 9, {}),
      parameter(kGuid, kOutput, 9, {}),
      parameter(kVarchar, kOutput, 9, {}),
  };
  script().output(1, cell(1));
  script().output(2, cell(2));
  script().output(3, cell(true));
  script().output(4, cell(4.5));
  script().output(5, cell("five"));
  script().output(6, cell("s\u00EFx"));
  script().output(7, binary("seven"));
  script().output(8, cell("eight"));
  script().output(9, null_cell());

  execute(parameters);

  const ZirdbOdbcValue expected[] = {
      integer(1),     integer(2),    boolean(true),
      real(4.5),      text("five"),  text("s\u00EFx"),
      bytes("seven"), text("eight"), null_value()};
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    EXPECT_EQ(describe(parameters[i].value), describe(expected[i])) << i;
  }
}

TEST_F(WriteBack, TypeDirectionAndSizeAreTheCallers) {
  Parameters parameters{parameter(kVarchar, kReturnValue, -7, text("abc"))};
  execute(parameters);

  EXPECT_EQ(parameters[0].type, kVarchar);
  EXPECT_EQ(parameters[0].direction, kReturnValue);
  EXPECT_EQ(parameters[0].size, -7);
}

TEST_F(WriteBack, HappensBetweenTheRowCountAndTheEndOfTheStatement) {
  Parameters parameters{parameter(kInteger, kOutput, 0, integer(1))};
  script().output(1, cell(2));
  script().columns({{"id", SQL_INTEGER}});
  script().rows(2, {cell(1)});
  std::vector<std::int64_t> seen;
  for (const char* const where :
       {"SQLExecute", "SQLFetch", "SQLRowCount", "SQLFreeHandle(STMT)"}) {
    script().on(where, [&](const Call&) -> std::optional<Reply> {
      seen.push_back(parameters[0].value.int64_value);
      return std::nullopt;
    });
  }

  execute(parameters);

  // One execution, three fetches, the row count; then the release.
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 1, 1, 1, 1, 2}));
}

TEST_F(WriteBack, AFailingRowCountChangesNothing) {
  script().fail("SQLRowCount", SQL_ERROR, {"HY000", 1, "no idea"});
  EXPECT_EQ(describe(read_back(parameter(kInteger, kOutput, 0, {}),
                               raw(bytes_of<std::int32_t>(2), 4))),
            describe(integer(2)));
}

struct Failure {
  const char* where;
  int which;  ///< the call of that name that fails, from 1
  int code;
  bool performed;  ///< only after it did its work, outputs included
};

void PrintTo(const Failure& failure, std::ostream* out) {
  *out << failure.where << " number " << failure.which << " with code "
       << failure.code << (failure.performed ? ", performed" : "");
}

class WriteBackAfterFailure : public WriteBack,
                              public testing::WithParamInterface<Failure> {};

// Deliberate: the driver's outputs may be half done, and a caller that was told
// of a failure keeps what it passed in.
TEST_P(WriteBackAfterFailure, NothingIsReadBack) {
  const Failure& failure = GetParam();
  script().columns({{"id", SQL_INTEGER}, {"name", SQL_VARCHAR}});
  script().rows(3, {cell(1), cell("abc")});
  script().output(1, cell("written"));
  script().output(2, cell(9));
  script().output(3, null_cell());
  int calls = 0;
  script().on(failure.where, [&](const Call&) -> std::optional<Reply> {
    if (++calls != failure.which) return std::nullopt;
    return Reply{failure.performed,
                 static_cast<SQLRETURN>(failure.code),
                 {"HY000", 1, "broken"}};
  });
  const Parameters before{parameter(kVarchar, kInputOutput, 20, loaded(4)),
                          parameter(kInteger, kInput, 0, loaded(4)),
                          parameter(kVarbinary, kOutput, 5, loaded(5))};
  Parameters parameters = before;
  ZirdbOdbcResult result;

  EXPECT_FALSE(zirdb_odbc_execute(open(), "call", &parameters, &result));

  EXPECT_EQ(calls, failure.which);
  EXPECT_EQ(describe(parameters), describe(before));
}

INSTANTIATE_TEST_SUITE_P(
    Each, WriteBackAfterFailure,
    testing::Values(Failure{"SQLAllocHandle(STMT)", 1, SQL_ERROR, false},
                    Failure{"SQLPrepare", 1, SQL_ERROR, false},
                    Failure{"SQLPrepare", 1, SQL_ERROR, true},
                    Failure{"SQLBindParameter(1)", 1, SQL_ERROR, false},
                    Failure{"SQLBindParameter(3)", 1, SQL_ERROR, true},
                    Failure{"SQLExecute", 1, SQL_ERROR, false},
                    Failure{"SQLExecute", 1, SQL_ERROR, true},
                    Failure{"SQLExecute", 1, SQL_NO_DATA, false},
                    Failure{"SQLExecute", 1, SQL_NO_DATA, true},
                    Failure{"SQLNumResultCols", 1, SQL_ERROR, true},
                    Failure{"SQLDescribeCol", 1, SQL_ERROR, true},
                    Failure{"SQLDescribeCol", 2, SQL_ERROR, false},
                    Failure{"SQLFetch", 1, SQL_ERROR, true},
                    Failure{"SQLFetch", 3, SQL_ERROR, true},
                    Failure{"SQLFetch", 4, SQL_ERROR, false},
                    Failure{"SQLGetData(1)", 3, SQL_ERROR, true},
                    Failure{"SQLGetData(2)", 1, SQL_ERROR, false}),
    [](const auto& tested) {
      const Failure& failure = tested.param;
      std::string name;
      for (const char c : std::string(failure.where)) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0) name += c;
      }
      name += "Call" + std::to_string(failure.which);
      name += failure.code == SQL_NO_DATA ? "NoData" : "Error";
      return name + (failure.performed ? "Performed" : "");
    });

}  // namespace
