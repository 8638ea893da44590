// SPDX-License-Identifier: MIT
//
// Parameters that cannot be bound, and calls that fail while there are
// parameters: text that is not UTF-8, absurd sizes, unknown kinds, refusals.
// Whatever happens, the statement is released, the caller's parameters stay,
// and the connection goes on.
//
// Sections: what is the same after every failure; text that is not UTF-8;
// declared sizes; kinds; refused calls.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/odbc_parameters.h"
#include "support/scripted_odbc_fixture.h"

namespace {

using namespace odbc_parameters;
using namespace scripted_odbc;
using Labels = std::vector<std::string>;

constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();

// ---------------------------------------------------------------------------
// What is the same after every failure
// ---------------------------------------------------------------------------

class HostileInput : public ScriptedOdbc {
 protected:
  void SetUp() override {
    ScriptedOdbc::SetUp();
    connect();
  }

  /// Another connection and an empty script, which otherwise grows, and slows
  /// down, with every execution.
  void start_over() {
    close(connection_);
    script().reset();
    connect();
  }

  /// Executes with these parameters: "ok", the error text, or the exception
  /// that left the call.
  std::string outcome(Parameters& parameters) {
    ZirdbOdbcResult result;
    try {
      return zirdb_odbc_execute(connection_, "insert", &parameters, &result)
                 ? "ok"
                 : result.error;
    } catch (const std::range_error& error) {
      return "range error: " + std::string(error.what());
    } catch (const std::length_error&) {
      return "length error";
    } catch (const std::bad_alloc&) {
      return "no memory";
    }
  }

  /// The outcome, having checked that the failure left nothing behind.
  std::string failure(const Parameters& given) {
    Parameters parameters = given;
    std::string text = outcome(parameters);
    EXPECT_EQ(describe(parameters), describe(given));
    EXPECT_EQ(script().live("STMT"), 0U);
    return text;
  }

  /// The connection still serves a statement with a parameter.
  bool connection_works() {
    Parameters parameters{parameter(kVarwchar, kInput, 0, text("fine"))};
    return outcome(parameters) == "ok" &&
           script().sent(1).value() == bytes_of(u"fine");
  }

 private:
  void connect() {
    connection_ = open();
    script().clear_log();
  }

  void* connection_ = nullptr;
};

// ---------------------------------------------------------------------------
// Text that is not UTF-8
// ---------------------------------------------------------------------------

constexpr char kNotUtf8[] = "range error: wstring_convert::from_bytes";

TEST_F(HostileInput, InvalidUtf8InWideTextIsARangeError) {
  const char* const table[] = {
      // Continuation bytes that continue nothing.
      "\x80",
      "\xBF",
      "\xC3\xA9\xA9",
      // A sequence that ends too early.
      "\xC3",
      "\xDF",
      "\xE2\x82",
      "\xE2",
      "\xF0\x9F\x98",
      "\xF0\x9F",
      "\xF0",
      // The second byte begins something else.
      "\xC3(",
      "\xE2(\xA1",
      "\xE2\x82(",
      "\xF0\x9F\x98(",
      "\xC3\xC3\xA9",
      // More bytes than the code point needs.
      "\xC0\x80",
      "\xC1\xBF",
      "\xE0\x80\x80",
      "\xE0\x9F\xBF",
      "\xF0\x80\x80\x80",
      "\xF0\x8F\xBF\xBF",
      // Surrogates, which only UTF-16 has.
      "\xED\xA0\x80",
      "\xED\xAF\xBF",
      "\xED\xB0\x80",
      "\xED\xBF\xBF",
      "\xED\xA0\x80\xED\xB0\x80",
      "\xED\xAF\xBF\xED\xBF\xBF",
      // Beyond U+10FFFF.
      "\xF4\x90\x80\x80",
      "\xF4\xBF\xBF\xBF",
      "\xF5\x80\x80\x80",
      "\xF7\xBF\xBF\xBF",
      // No UTF-8 has these bytes.
      "\xF8\x88\x80\x80\x80",
      "\xFC\x84\x80\x80\x80\x80",
      "\xFE",
      "\xFF",
  };
  for (const std::string bad : table) {
    for (const std::string& utf8 :
         {bad, "ab" + bad, bad + "ab", "\u00E9" + bad + "\U0001F600",
          bytes_in("a\0b") + bad}) {
      EXPECT_EQ(failure({parameter(kVarwchar, kInput, 0, text(utf8))}),
                kNotUtf8)
          << escaped(utf8);
    }
  }
  EXPECT_EQ(script().count("SQLExecute"), 0U);
  EXPECT_TRUE(connection_works());
}

/// The well-formed sequences: bytes that can follow a lead byte, which need
/// `more` bytes in all behind them.
struct Lead {
  unsigned first;
  unsigned last;
  unsigned second_first;
  unsigned second_last;
  std::size_t more;
};
constexpr Lead kLeads[] = {
    {0xC2, 0xDF, 0x80, 0xBF, 1}, {0xE0, 0xE0, 0xA0, 0xBF, 2},
    {0xE1, 0xEC, 0x80, 0xBF, 2}, {0xED, 0xED, 0x80, 0x9F, 2},
    {0xEE, 0xEF, 0x80, 0xBF, 2}, {0xF0, 0xF0, 0x90, 0xBF, 3},
    {0xF1, 0xF3, 0x80, 0xBF, 3}, {0xF4, 0xF4, 0x80, 0x8F, 3},
};

std::size_t bytes_behind(unsigned lead) {
  for (const Lead& each : kLeads) {
    if (lead >= each.first && lead <= each.last) return each.more;
  }
  // As the bit pattern of the lead byte claims.
  return lead < 0xC0 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
}

bool can_follow(unsigned lead, unsigned second) {
  for (const Lead& each : kLeads) {
    if (lead >= each.first && lead <= each.last) {
      return second >= each.second_first && second <= each.second_last;
    }
  }
  return false;
}

TEST_F(HostileInput, EveryLeadByteTakesOnlyItsOwnSecondBytes) {
  for (unsigned lead = 0x80; lead <= 0xFF; ++lead) {
    start_over();
    for (unsigned second = 0; second <= 0xFF; ++second) {
      std::string utf8{static_cast<char>(lead), static_cast<char>(second)};
      const std::size_t behind = bytes_behind(lead);
      if (behind > 1) utf8 += std::string(behind - 1, '\x80');
      Parameters parameters{parameter(kVarwchar, kInput, 0, text(utf8))};
      ASSERT_EQ(outcome(parameters), can_follow(lead, second) ? "ok" : kNotUtf8)
          << escaped(utf8);
    }
  }
}

TEST_F(HostileInput, EveryLaterByteMustContinue) {
  for (const std::string good : {"\xE0\xA0\x80", "\xEF\xBF\xBF",
                                 "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    for (std::size_t place = 2; place < good.size(); ++place) {
      for (unsigned byte = 0; byte <= 0xFF; ++byte) {
        std::string utf8 = good;
        utf8[place] = static_cast<char>(byte);
        Parameters parameters{parameter(kVarwchar, kInput, 0, text(utf8))};
        EXPECT_EQ(outcome(parameters),
                  byte >= 0x80 && byte <= 0xBF ? "ok" : kNotUtf8)
            << escaped(utf8);
      }
    }
  }
}

void append_utf8(std::string& utf8, char32_t point) {
  const auto push = [&](char32_t byte) {
    utf8.push_back(static_cast<char>(static_cast<unsigned char>(byte)));
  };
  if (point < 0x80) return push(point);
  if (point < 0x800) {
    push(0xC0 | point >> 6);
  } else {
    if (point < 0x10000) {
      push(0xE0 | point >> 12);
    } else {
      push(0xF0 | point >> 18);
      push(0x80 | (point >> 12 & 0x3F));
    }
    push(0x80 | (point >> 6 & 0x3F));
  }
  push(0x80 | (point & 0x3F));
}

void append_utf16(std::u16string& utf16, char32_t point) {
  if (point >= 0x10000) {
    utf16.push_back(static_cast<char16_t>(0xD7C0 + (point >> 10)));
    point = 0xDC00 | (point & 0x3FF);
  }
  utf16.push_back(static_cast<char16_t>(point));
}

TEST_F(HostileInput, EveryCodePointGoesThereAndBack) {
  std::string utf8;
  std::u16string utf16;
  for (char32_t point = 0; point <= 0x10FFFF; ++point) {
    if (point >= 0xD800 && point <= 0xDFFF) continue;
    append_utf8(utf8, point);
    append_utf16(utf16, point);
  }
  Parameters parameters{parameter(kVarwchar, kInput, 0, text(utf8))};
  ASSERT_EQ(outcome(parameters), "ok");

  // Not compared by EXPECT_EQ, which would print millions of bytes.
  EXPECT_TRUE(script().sent(1).value() == bytes_of(utf16));
  EXPECT_TRUE(parameters[0].value.text_value == utf8);
}

// Deliberate: the text is converted to know its length, whether or not it is
// going to be sent.
TEST_F(HostileInput, WideTextIsConvertedWhateverTheKindAndTheDirection) {
  for (std::int32_t kind = -1; kind <= 6; ++kind) {
    for (const std::int64_t direction :
         {kUnknown, kInput, kOutput, kInputOutput, kReturnValue}) {
      for (const std::int64_t size : {0, 1, 10}) {
        EXPECT_EQ(failure({parameter(kVarwchar, direction, size,
                                     as_kind(kind, text("ab\xFF")))}),
                  kNotUtf8)
            << kind << " " << direction << " " << size;
      }
    }
  }
}

TEST_F(HostileInput, ParametersBeforeInvalidUtf8AreBoundAndNoneBehindIt) {
  EXPECT_EQ(failure({parameter(kInteger, kInput, 0, integer(1)),
                     parameter(kVarwchar, kInput, 0, text("\xFF")),
                     parameter(kInteger, kInput, 0, integer(3))}),
            kNotUtf8);

  EXPECT_EQ(script().labels(),
            (Labels{"SQLAllocHandle(STMT)", "SQLPrepare", "SQLBindParameter(1)",
                    "SQLFreeHandle(STMT)"}));
  EXPECT_TRUE(connection_works());
}

// ---------------------------------------------------------------------------
// Declared sizes
// ---------------------------------------------------------------------------

// Sizes that no string or vector can have, with room for the terminator. What
// could exist but not be had is a matter of memory (and of its own test).
TEST_F(HostileInput, ADeclaredSizeBeyondAllTextIsALengthError) {
  const struct {
    Type type = kByKind;
    std::int64_t size = 0;
    ZirdbOdbcValue value;
  } table[] = {
      {kVarchar, kLargest, text("abc")},
      {kVarchar, kLargest - 1, text("abc")},
      {kVarchar, kLargest, null_value()},
      {kGuid, kLargest, text("abc")},
      {kGuid, kLargest - 1, null_value()},
      {kVarwchar, kLargest, text("abc")},
      {kVarwchar, kLargest - 1, text("abc")},
      {kVarwchar, kLargest - 2, null_value()},
      {kVarwchar, kLargest / 2 + 1, text("abc")},
      {kByKind, kLargest, null_value()},
      {kByKind, kLargest - 1, null_value()},
  };
  for (const auto& row : table) {
    for (const std::int64_t direction : {kOutput, kInputOutput, kReturnValue}) {
      EXPECT_EQ(failure({parameter(row.type, direction, row.size, row.value)}),
                "length error")
          << row.type << " " << direction << " " << row.size;
    }
  }
  EXPECT_EQ(script().count("SQLBindParameter"), 0U);
  EXPECT_TRUE(connection_works());
}

// ---------------------------------------------------------------------------
// Kinds
// ---------------------------------------------------------------------------

TEST_F(HostileInput, AnUnknownKindIsUnsupportedWhereTheKindDecides) {
  for (const std::int32_t kind : {6, 7, 99, -1, 256, INT32_MAX, INT32_MIN}) {
    for (const std::int64_t type : {0, 1, 203, -1}) {
      for (const std::int64_t direction :
           {kUnknown, kInput, kOutput, kInputOutput, kReturnValue}) {
        EXPECT_EQ(
            failure({parameter(type, direction, 5, as_kind(kind, text("a")))}),
            "unsupported parameter type")
            << kind << " " << type << " " << direction;
      }
    }
  }
  EXPECT_TRUE(connection_works());
}

TEST_F(HostileInput, AnUnknownKindFailsAfterTheParametersBeforeItAreBound) {
  script().output(1, cell(9));
  EXPECT_EQ(failure({parameter(kInteger, kOutput, 0, integer(1)),
                     parameter(kByKind, kInput, 0, as_kind(6, text("a"))),
                     parameter(kInteger, kInput, 0, integer(3))}),
            "unsupported parameter type");

  EXPECT_EQ(script().labels(),
            (Labels{"SQLAllocHandle(STMT)", "SQLPrepare", "SQLBindParameter(1)",
                    "SQLFreeHandle(STMT)"}));
}

TEST_F(HostileInput, ATypeCodeTakesAnyKind) {
  for (const std::int32_t kind : {6, 99, -1}) {
    for (const std::int64_t type : {kInteger, kBigint, kBoolean, kVarchar,
                                    kGuid, kVarwchar, kVarbinary}) {
      Parameters parameters{
          parameter(type, kInput, 0, as_kind(kind, text("abc")))};
      EXPECT_EQ(outcome(parameters), "ok") << kind << " " << type;
    }
  }
}

// ---------------------------------------------------------------------------
// Refused calls
// ---------------------------------------------------------------------------

Parameters five_parameters() {
  return {parameter(kInteger, kInputOutput, 0, integer(1)),
          parameter(kVarchar, kOutput, 10, text("two")),
          parameter(kVarwchar, kInput, 0, text("three")),
          parameter(kVarbinary, kInput, 0, bytes("four")),
          parameter(kByKind, kInput, 0, real(5.5))};
}

/// The calls of an execution with diagnostics, up to its last one.
Labels failed_after(Labels calls) {
  calls.insert(calls.begin(), "SQLAllocHandle(STMT)");
  // The driver manager asks for the diagnostics itself.
  if (!ScriptedOdbc::is_driver()) calls.emplace_back("SQLGetDiagRec(1)");
  calls.emplace_back("SQLFreeHandle(STMT)");
  return calls;
}

class RefusedBind : public HostileInput,
                    public testing::WithParamInterface<int> {};

TEST_P(RefusedBind, EndsTheExecutionWithItsDiagnostics) {
  const std::string where =
      "SQLBindParameter(" + std::to_string(GetParam()) + ")";
  script().output(1, cell(9));
  script().fail(where, nth(1), SQL_ERROR,
                {{"07006", 7, "refused"}, {"HY000", 8, "more"}});

  EXPECT_EQ(failure(five_parameters()), error_text("07006", "refused"));

  Labels calls{"SQLPrepare"};
  for (int i = 1; i <= GetParam(); ++i) {
    calls.push_back("SQLBindParameter(" + std::to_string(i) + ")");
  }
  EXPECT_EQ(script().labels(), failed_after(calls));
  EXPECT_TRUE(connection_works());
}

INSTANTIATE_TEST_SUITE_P(OfFive, RefusedBind, testing::Range(1, 6),
                         [](const auto& tested) {
                           return "Number" + std::to_string(tested.param);
                         });

// The manager does not release statements after the two that are left out.
TEST_F(HostileInput, EveryCodeButASuccessRefusesABind) {
  std::vector<int> codes{SQL_ERROR, SQL_INVALID_HANDLE, SQL_NO_DATA, -7};
  if (!is_driver()) {
    codes.insert(codes.end(), {SQL_NEED_DATA, SQL_STILL_EXECUTING});
  }
  for (const int code : codes) {
    script().clear_log();
    script().fail("SQLBindParameter(2)", nth(1), code);
    EXPECT_EQ(failure(five_parameters()), "ODBC operation failed") << code;
    EXPECT_EQ(script().count("SQLBindParameter"), 2U) << code;
    EXPECT_EQ(script().count("SQLExecute"), 0U) << code;
  }
  EXPECT_TRUE(connection_works());
}

TEST_F(HostileInput, ABindWithANoteIsASuccess) {
  script().returns("SQLBindParameter", SQL_SUCCESS_WITH_INFO,
                   {"01000", 1, "note"});
  Parameters parameters = five_parameters();

  EXPECT_EQ(outcome(parameters), "ok");

  EXPECT_EQ(script().sent().size(), 5U);
}

TEST_F(HostileInput, ARefusedPrepareBindsNothing) {
  script().fail("SQLPrepare", nth(1), SQL_ERROR, {"42000", 7, "syntax"});

  EXPECT_EQ(failure(five_parameters()), error_text("42000", "syntax"));

  EXPECT_EQ(script().labels(), failed_after({"SQLPrepare"}));
  EXPECT_TRUE(connection_works());
}

TEST_F(HostileInput, ARefusedExecutionLeavesTheParameters) {
  script().output(1, cell(9));
  script().returns("SQLExecute", nth(1), SQL_ERROR, {"23000", 7, "duplicate"});

  EXPECT_EQ(failure(five_parameters()), error_text("23000", "duplicate"));

  EXPECT_EQ(
      script().labels(),
      failed_after({"SQLPrepare", "SQLBindParameter(1)", "SQLBindParameter(2)",
                    "SQLBindParameter(3)", "SQLBindParameter(4)",
                    "SQLBindParameter(5)", "SQLExecute"}));
  EXPECT_TRUE(connection_works());
}

}  // namespace
