// SPDX-License-Identifier: MIT
//
// Connection.Execute: its refusals and their order, the statement that reaches
// the driver, and where the number of affected rows goes.

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "support/connection_calls.h"
#include "support/connections.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace std::string_literals;

using component::Connection;
using component::connection;
using component::expect_refused;
using component::kClosedCode;
using component::kClosedText;
using component::kExecuteFailedCode;
using component::kNoTextCode;
using component::kNoTextText;
using connection_calls::bstr;
using connection_calls::call;
using connection_calls::ended;
using connection_calls::Ended;
using connection_calls::execute_by;
using connection_calls::expect_done;
using connection_calls::expect_failed;
using connection_calls::kExecute;
using connection_calls::kRoads;
using connection_calls::Road;
using connection_calls::state_of;
using scripted_odbc::cell;
using scripted_odbc::nth;
using scripted_odbc::ResultSet;
using values::plain;
using values::reference_to;

class ConnectionExecute : public connection_calls::ConnectionTest {
 protected:
  /// A statement with a column and rows, and one without either.
  static void script_statements() {
    script().result_for(
        "select", ResultSet{{{"n", SQL_INTEGER}}, {{cell(1)}, {cell(2)}}});
    script().result_for("update", ResultSet{{}, {}, 5});
  }
};
class RowsAffected : public ConnectionExecute {};

// ---------------------------------------------------------------------------
// Refusals
// ---------------------------------------------------------------------------

TEST_F(ConnectionExecute, OnAClosedConnectionIsRefusedWhateverTheText) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    const Connection made = connection();
    const Connection closed = opened();
    ASSERT_EQ(closed->Close(), S_OK);
    for (const wchar_t* sql : {L"select", L""}) {
      expect_failed(execute_by(road, made, sql), kClosedCode, kClosedText);
      expect_failed(execute_by(road, closed, sql), kClosedCode, kClosedText);
    }
  }
  EXPECT_EQ(executions(), 0U);
}

TEST_F(ConnectionExecute, WithoutATextIsRefused) {
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    const Connection made = opened();
    expect_failed(execute_by(road, made, L""), kNoTextCode, kNoTextText);
    expect_failed(execute_by(road, made, L"\0select"s), kNoTextCode,
                  kNoTextText);
    EXPECT_EQ(state_of(road, made), 1);
  }
  const Connection made = opened();
  auto [code, recordset] =
      component::received<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
        return made->Execute(nullptr, nullptr, 0, out);
      });
  EXPECT_EQ(code, kNoTextCode);
  for (const VARTYPE type : {VT_EMPTY, VT_NULL}) {
    expect_failed(ended(call(made, kExecute, {plain(type, 0)})), kNoTextCode,
                  kNoTextText);
  }
  EXPECT_EQ(script().count("SQLAllocHandle(STMT)"), 0U);
}

TEST_F(ConnectionExecute, BlanksAreATextForTheDriverToJudge) {
  expect_done(execute_by(Road::LateBound, opened(), L" "));
  EXPECT_EQ(sql_sent(), " ");
}

TEST_F(ConnectionExecute, WithoutAPlaceForTheRecordsetIsRefusedFirst) {
  EXPECT_EQ(connection()->Execute(bstr(L"select").m_s, nullptr, 0, nullptr),
            E_INVALIDARG);
  EXPECT_EQ(opened()->Execute(nullptr, nullptr, 0, nullptr), E_INVALIDARG);
  EXPECT_EQ(opened()->Execute(bstr(L"select").m_s, nullptr, 0, nullptr),
            E_INVALIDARG);
  EXPECT_EQ(script().count("SQLAllocHandle(STMT)"), 0U);
}

TEST_F(ConnectionExecute, StoresNullWhereverNoRecordsetComesOfIt) {
  script_statements();
  script().result_for("fails", ResultSet{});
  script().on("SQLExecDirect", [](const scripted_odbc::Call& asked) {
    if (asked.bytes("sql") != "fails") {
      return std::optional<scripted_odbc::Reply>();
    }
    return std::optional<scripted_odbc::Reply>({false, SQL_ERROR, {}});
  });
  const Connection made = opened();
  const auto leaves = [&](const Connection& on, const wchar_t* sql) {
    static IZIRDBRecordset* const kGarbage =
        static_cast<IZIRDBRecordset*>(component::unset());
    IZIRDBRecordset* out = kGarbage;
    on->Execute(bstr(sql).m_s, nullptr, 0, &out);
    return out;
  };
  EXPECT_EQ(leaves(connection(), L"select"), nullptr);
  EXPECT_EQ(leaves(made, L""), nullptr);
  EXPECT_EQ(leaves(made, L"fails"), nullptr);
  EXPECT_EQ(leaves(made, L"update"), nullptr);
}

struct Broken {
  const char* where;
  int which;
  const char* text;  ///< null: what the driver says
};

TEST_F(ConnectionExecute, AFailureOfTheDriverIsReportedAndLeavesItOpen) {
  const std::vector<Broken> rows{
      {"SQLAllocHandle(STMT)", 1, "Unable to allocate ODBC statement"},
      {"SQLExecDirect", 1, nullptr},
      {"SQLNumResultCols", 1, nullptr},
      {"SQLDescribeCol", 1, nullptr},
      {"SQLFetch", 1, nullptr},
      {"SQLFetch", 2, nullptr},
      {"SQLGetData", 2, nullptr}};
  for (const Broken& row : rows) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message()
                   << row.where << " " << row.which << ", " << road);
      script().reset();
      script_statements();
      const Connection made = opened();
      script().fail(row.where, nth(row.which), SQL_ERROR,
                    {"HY000", 7, "broken \xC3\xA9"});
      std::int64_t affected = 77;
      VARIANT target = plain(VT_BYREF | VT_I8, 0);
      target.byref = &affected;

      const Ended failed = execute_by(road, made, L"select", &target);

      expect_failed(
          failed, kExecuteFailedCode,
          row.text != nullptr
              ? std::wstring(row.text, row.text + std::strlen(row.text)).c_str()
              : L"HY000: broken \u00e9");
      EXPECT_EQ(affected, 77) << "not written";
      EXPECT_EQ(state_of(road, made), 1);
      EXPECT_TRUE(execute_by(road, made, L"select").recordset);
    }
  }
}

TEST_F(ConnectionExecute, AFailureWithoutADiagnosticHasATextToo) {
  const Connection made = opened();
  script().returns("SQLExecDirect", SQL_NO_DATA);
  expect_failed(execute_by(Road::LateBound, made, L"delete"),
                kExecuteFailedCode, L"ODBC operation failed");
}

TEST_F(ConnectionExecute, ATextOfTheDriverThatIsNotUtf8IsLeftOut) {
  const Connection made = opened();
  script().fail("SQLExecDirect", SQL_ERROR, {"HY000", 7, "b\xE9se"});
  expect_failed(execute_by(Road::LateBound, made, L"select"),
                kExecuteFailedCode, static_cast<const wchar_t*>(nullptr));
}

// ---------------------------------------------------------------------------
// The statement
// ---------------------------------------------------------------------------

TEST_F(ConnectionExecute, SendsTheTextAsUtf8UpToItsFirstZero) {
  const std::string long_text(100000, 'x');
  const std::vector<std::pair<std::wstring, std::string>> texts{
      {L"select 1", "select 1"},
      {L"  select\t1;\n", "  select\t1;\n"},
      {L"\u00e9\u20ac\U0001F600", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {L"select\0 from"s, "select"},
      {L"EXEC p ?", "EXEC p ?"},
      {L"{CALL p(?)}", "{CALL p(?)}"},
      {std::wstring(long_text.begin(), long_text.end()), long_text}};
  for (const auto& [text, sent] : texts) {
    for (const Road road : kRoads) {
      const Connection made = opened();
      expect_done(execute_by(road, made, text));
      EXPECT_EQ(sql_sent(), sent);
      EXPECT_EQ(script().count("SQLPrepare"), 0U);
      EXPECT_EQ(script().count("SQLBindParameter"), 0U);
    }
  }
}

TEST_F(ConnectionExecute, TurnsALateBoundTextArgumentIntoAText) {
  const VARIANT number = plain(VT_I8, 42);
  VARIANT link = reference_to(const_cast<VARIANT*>(&number));
  objects::Dispatch object([](const objects::Dispatch::Call& asked) {
    *asked.result = _variant_t(L"from an object").Detach();
    return S_OK;
  });
  const _variant_t argument(static_cast<IDispatch*>(&object));
  const std::vector<std::pair<VARIANT, std::string>> rows{
      {number, "42"},
      {reference_to(&link), "42"},
      {plain(VT_BOOL, 0xFFFF), "-1"},
      {argument, "from an object"}};
  for (const auto& [text, sent] : rows) {
    const Connection made = opened();
    expect_done(ended(call(made, kExecute, {text})));
    EXPECT_EQ(sql_sent(), sent);
  }
}

TEST_F(ConnectionExecute, OptionsMeanNothing) {
  script_statements();
  const Connection made = opened();
  for (const long options : {0L, -1L, 1L, 128L, values::kLargest}) {
    IZIRDBRecordset* out = nullptr;
    EXPECT_EQ(made->Execute(bstr(L"select").m_s, nullptr, options, &out), S_OK);
    EXPECT_NE(out, nullptr);
    if (out == nullptr) continue;
    EXPECT_EQ(out->Release(), 0U) << "the one reference";
  }
  const _variant_t sql(L"update");
  const _variant_t text(L"7");
  const VARIANT accepted[] = {plain(VT_EMPTY, 0), plain(VT_I4, 7),
                              plain(VT_I8, 7),    plain(VT_UI1, 7),
                              plain(VT_BOOL, 1),  text};
  for (const VARIANT& options : accepted) {
    expect_done(ended(call(made, kExecute, {sql, options})));
    expect_done(ended(call(made, kExecute, {sql, options, options})));
  }
}

// What is given in place of the number of rows or the options must at least be
// a number.
TEST_F(ConnectionExecute, RefusesSecondAndThirdArgumentsThatAreNoNumbers) {
  const _variant_t sql(L"update");
  const _variant_t good(1);
  const _variant_t text(L"x");
  std::int64_t target = 77;
  const auto by_reference = [&target](VARTYPE type) {
    VARIANT value = plain(static_cast<VARTYPE>(VT_BYREF | type), 0);
    value.byref = &target;
    return value;
  };
  const std::vector<VARIANT> bad{
      plain(VT_NULL, 0),     plain(VT_ERROR, 0x80020004),
      plain(VT_I2, 1),       plain(VT_UI2, 1),
      plain(VT_UI4, 1),      plain(VT_UI8, 1),
      plain(VT_I1, 1),       plain(VT_R4, 0),
      plain(VT_CY, 0),       plain(VT_DATE, 0),
      plain(VT_UNKNOWN, 0),  plain(VT_DISPATCH, 0),
      plain(VT_DECIMAL, 0),  text,
      by_reference(VT_R8),   by_reference(VT_BOOL),
      by_reference(VT_UI1),  by_reference(VT_I1),
      by_reference(VT_BSTR), by_reference(VT_DATE)};
  const Connection made = opened();
  for (const VARIANT& value : bad) {
    SCOPED_TRACE(value.vt);
    expect_refused(call(made, kExecute, {sql, value}), DISP_E_TYPEMISMATCH);
    expect_refused(call(made, kExecute, {sql, value, good}),
                   DISP_E_TYPEMISMATCH);
    expect_refused(call(made, kExecute, {sql, good, value}),
                   DISP_E_TYPEMISMATCH);
  }
  // By reference, the first place takes what the second does not.
  for (const VARTYPE type : {VT_I2, VT_I4, VT_UI2, VT_UI4, VT_I8, VT_UI8}) {
    expect_refused(call(made, kExecute, {sql, good, by_reference(type)}),
                   DISP_E_TYPEMISMATCH);
  }
  expect_refused(call(made, kExecute, {sql, good, reference_to(nullptr)}),
                 DISP_E_TYPEMISMATCH);
  EXPECT_EQ(executions(), 0U);
  EXPECT_EQ(target, 77);
}

TEST_F(ConnectionExecute, ConvertsInOrderAndStopsAtTheFirstThatFails) {
  std::vector<int> asked;
  std::array<HRESULT, 4> results{};
  const auto object = [&](std::size_t number) {
    return objects::Dispatch([&, number](const objects::Dispatch::Call& seen) {
      asked.push_back(static_cast<int>(number));
      if (results.at(number) == S_OK) *seen.result = _variant_t(1).Detach();
      return results.at(number);
    });
  };
  objects::Dispatch sql = object(1);
  const _variant_t argument(static_cast<IDispatch*>(&sql));
  const _variant_t bad(L"x");
  const Connection made = connection();
  results[1] = E_FAIL;
  expect_refused(call(made, kExecute, {argument, bad, bad}),
                 DISP_E_TYPEMISMATCH);
  results[1] = S_OK;
  expect_refused(call(made, kExecute, {argument, bad, bad}),
                 DISP_E_TYPEMISMATCH);
  const _variant_t good(1);
  expect_refused(call(made, kExecute, {argument, good, bad}),
                 DISP_E_TYPEMISMATCH);
  // Only then is it found that the connection is closed.
  expect_failed(ended(call(made, kExecute, {argument, good, good})),
                kClosedCode, kClosedText);
  EXPECT_EQ(asked, std::vector<int>({1, 1, 1, 1}));
}

// ---------------------------------------------------------------------------
// The number of affected rows
// ---------------------------------------------------------------------------

/// Bytes around and behind a target, so that one too many shows. The target is
/// misaligned, as a packed structure of a host may have it.
using Place = std::array<unsigned char, 32>;
constexpr std::size_t kAt = 9;

Place untouched_place() {
  Place place{};
  place.fill(0xA5);
  return place;
}
Place place_with(std::int64_t count, std::size_t width) {
  Place place = untouched_place();
  std::memcpy(place.data() + kAt, &count, width);
  return place;
}

struct Width {
  const char* name;
  VARTYPE type;
  std::size_t bytes;  ///< 0: not written
};
const std::vector<Width>& widths() {
  static const std::vector<Width> rows{
      {"VT_I2", VT_I2, 2},
      {"VT_UI2", VT_UI2, 2},
      {"VT_UI4", VT_UI4, 4},
      {"VT_I4", VT_I4, 8},
      {"VT_I8", VT_I8, 8},
      {"VT_UI8", VT_UI8, 8},
      {"VT_EMPTY", VT_EMPTY, 0},
      {"VT_NULL", VT_NULL, 0},
      {"VT_R4", VT_R4, 0},
      {"VT_R8", VT_R8, 0},
      {"VT_CY", VT_CY, 0},
      {"VT_DATE", VT_DATE, 0},
      {"VT_BSTR", VT_BSTR, 0},
      {"VT_DISPATCH", VT_DISPATCH, 0},
      {"VT_ERROR", VT_ERROR, 0},
      {"VT_BOOL", VT_BOOL, 0},
      {"VT_UNKNOWN", VT_UNKNOWN, 0},
      {"VT_DECIMAL", VT_DECIMAL, 0},
      {"VT_I1", VT_I1, 0},
      {"VT_UI1", VT_UI1, 0},
      {"22", 22, 0},
      {"23", 23, 0},
      {"VT_PTR", VT_PTR, 0},
      {"VT_LPSTR", VT_LPSTR, 0},
      {"array of VT_I4", VT_ARRAY | VT_I4, 0},
      {"array of VT_VARIANT", VT_ARRAY | VT_VARIANT, 0}};
  return rows;
}

TEST_F(RowsAffected, GoThroughAReferenceWithTheWidthOfItsType) {
  const std::int64_t counts[] = {
      0, 1, 5, 70000, 5000000000, 0x0102030405060708, 0x8000, values::kLargest};
  for (const Width& row : widths()) {
    for (const std::int64_t count : counts) {
      for (const Road road : kRoads) {
        if (road == Road::LateBound && row.bytes == 0) continue;  // refused
        SCOPED_TRACE(testing::Message()
                     << row.name << ", " << count << ", " << road);
        script().reset();
        script().row_count(count);
        const Connection made = opened();
        Place place = untouched_place();
        VARIANT target = plain(static_cast<VARTYPE>(VT_BYREF | row.type), 0);
        target.byref = place.data() + kAt;
        const VARIANT before = target;

        expect_done(execute_by(road, made, L"update", &target));

        EXPECT_EQ(place, row.bytes == 0 ? untouched_place()
                                        : place_with(count, row.bytes));
        EXPECT_TRUE(values::same_bytes(target, before));
      }
    }
  }
}

TEST_F(RowsAffected, AreMinusOneWithColumns) {
  script_statements();
  const Connection made = opened();
  for (const Width& row : widths()) {
    for (const Road road : kRoads) {
      if (row.bytes == 0) continue;
      SCOPED_TRACE(testing::Message() << row.name << ", " << road);
      Place place = untouched_place();
      VARIANT target = plain(static_cast<VARTYPE>(VT_BYREF | row.type), 0);
      target.byref = place.data() + kAt;

      EXPECT_TRUE(execute_by(road, made, L"select", &target).recordset);

      EXPECT_EQ(place, place_with(-1, row.bytes));
    }
  }
}

TEST_F(RowsAffected, AreZeroWhereTheDriverDoesNotKnow) {
  for (const SQLLEN reported : {0, -1, -5}) {
    script().reset();
    script().row_count(reported);
    std::int64_t affected = 77;
    VARIANT target = plain(VT_BYREF | VT_I8, 0);
    target.byref = &affected;
    expect_done(execute_by(Road::Vtable, opened(), L"update", &target));
    EXPECT_EQ(affected, 0);
  }
}

TEST_F(RowsAffected, AreNotWrittenToAValue) {
  script_statements();
  const Connection made = opened();
  const _variant_t text(L"before");
  const VARIANT values[] = {plain(VT_EMPTY, 0xA5),
                            plain(VT_I4, 77),
                            plain(VT_I8, 77),
                            plain(VT_VARIANT, 77),
                            plain(VT_UI2, 77),
                            plain(VT_NULL, 77),
                            text,
                            plain(VT_BYREF, 77),
                            plain(VT_BYREF | 12 | 0x8000, 77),
                            plain(VT_ARRAY | VT_I4, 0)};
  for (const VARIANT& value : values) {
    SCOPED_TRACE(value.vt);
    for (const wchar_t* sql : {L"select", L"update"}) {
      VARIANT target = value;
      EXPECT_EQ(component::execute(made, sql, &target).first, S_OK);
      EXPECT_TRUE(values::same_bytes(target, value));
    }
  }
}

TEST_F(RowsAffected, MayHaveNowhereToGo) {
  script_statements();
  const Connection made = opened();
  EXPECT_EQ(component::execute(made, L"update", nullptr).first, S_OK);
  const VARTYPE types[] = {VT_I2,  VT_I4, VT_VARIANT, VT_UI2,
                           VT_UI4, VT_I8, VT_UI8};
  for (const VARTYPE type : types) {
    for (const Road road : kRoads) {
      SCOPED_TRACE(testing::Message() << type << ", " << road);
      VARIANT target = plain(static_cast<VARTYPE>(VT_BYREF | type), 0);
      expect_done(execute_by(road, made, L"update", &target));
      EXPECT_TRUE(execute_by(road, made, L"select", &target).recordset);
    }
  }
}

TEST_F(RowsAffected, ReplaceWhatAReferencedVariantHeld) {
  script_statements();
  const Connection made = opened();
  objects::Unknown object;
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    std::vector<_variant_t> held;
    held.emplace_back();
    held.emplace_back(L"a text");
    held.emplace_back(1.5);
    held.emplace_back(true);
    held.emplace_back(&object);
    held.push_back(parameters::bytes_value({1, 2, 3}));
    held.push_back(
        parameters::script_array_of(_variant_t(L"a"), _variant_t(1)));
    held.push_back(values::lpstr_value("a text"));
    for (_variant_t& variant : held) {
      VARIANT target = reference_to(&variant);
      expect_done(execute_by(road, made, L"update", &target));
      EXPECT_EQ(variant.vt, VT_I8);
      EXPECT_EQ(variant.llVal, 5);
      EXPECT_EQ(target.pvarVal, &variant);

      EXPECT_TRUE(execute_by(road, made, L"select", &target).recordset);
      EXPECT_EQ(variant.vt, VT_I8);
      EXPECT_EQ(variant.llVal, -1);
    }
    EXPECT_EQ(object.references(), 1U);
  }
}

// The first variable is replaced, not the one that it refers to.
TEST_F(RowsAffected, FollowOneReferenceOnly) {
  script_statements();
  const Connection made = opened();
  for (const Road road : kRoads) {
    SCOPED_TRACE(road);
    std::int64_t number = 77;
    VARIANT variant = plain(VT_BYREF | VT_I4, 0);
    variant.byref = &number;
    VARIANT target = reference_to(&variant);
    expect_done(execute_by(road, made, L"update", &target));
    EXPECT_EQ(number, 77);
    EXPECT_EQ(variant.vt, VT_I8);
    EXPECT_EQ(variant.llVal, 5);

    _variant_t last(L"last");
    VARIANT link = reference_to(&last);
    target = reference_to(&link);
    expect_done(execute_by(road, made, L"update", &target));
    EXPECT_EQ(link.vt, VT_I8);
    EXPECT_EQ(link.llVal, 5);
    EXPECT_EQ(values::text_of(last), L"last");
  }
}

TEST_F(RowsAffected, AVariantKeepsWhatItHoldsWhenTheStatementFails) {
  const Connection made = opened();
  script().fail("SQLExecDirect", SQL_ERROR, {"HY000", 7, "broken"});
  for (const Road road : kRoads) {
    _variant_t variant(L"before");
    VARIANT target = reference_to(&variant);
    expect_failed(execute_by(road, made, L"update", &target),
                  kExecuteFailedCode, error_text("HY000", "broken"));
    expect_failed(execute_by(road, made, L"", &target), kNoTextCode,
                  kNoTextText);
    expect_failed(execute_by(road, connection(), L"update", &target),
                  kClosedCode, kClosedText);
    EXPECT_EQ(variant.vt, VT_BSTR);
    EXPECT_EQ(values::text_of(variant), L"before");
  }
}

TEST_F(RowsAffected, GoThroughTheSecondLateBoundArgumentAlsoBesideOptions) {
  script_statements();
  const Connection made = opened();
  const _variant_t sql(L"update");
  std::int64_t affected = 77;
  VARIANT target = plain(VT_BYREF | VT_I4, 0);
  target.byref = &affected;
  expect_done(ended(call(made, kExecute, {sql, target, plain(VT_I4, 1)})));
  EXPECT_EQ(affected, 5);
  affected = 77;
  expect_refused(call(made, kExecute, {sql, target, plain(VT_NULL, 0)}),
                 DISP_E_TYPEMISMATCH);
  EXPECT_EQ(affected, 77);
}

}  // namespace
