// SPDX-License-Identifier: MIT
//
// Scripts walk the rows of real databases: with MoveNext, with forEach, with an
// enumerator; while they write; and they close what they walk.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/script_journey.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace zirdb_test {
namespace {

using scripting::Callback;
using scripting::error_of;
using scripting::expect_error;
using scripting::rows_of;
using scripting::shown;

using Row = std::vector<std::string>;

constexpr int kRows = 200;
constexpr int kThird = 3;

// Rows 1 to 200 with a text each, every tenth of which is NULL.
class ScriptWalks : public ScriptJourney {
 protected:
  void SetUp() override {
    ScriptJourney::SetUp();
    if (IsSkipped()) return;
    run("CREATE TABLE w (id INTEGER, t VARCHAR(20))");
    run("CREATE TABLE copied (id INTEGER)");
    std::string sql = "INSERT INTO w VALUES ";
    for (int i = 1; i <= kRows; ++i) {
      sql += (i == 1 ? "(" : ", (") + std::to_string(i) +
             (i % 10 == 0 ? ", NULL)" : ", 'row " + std::to_string(i) + "')");
    }
    run(sql);
  }

  Object all() const { return run("SELECT id, t FROM w ORDER BY id"); }
  static Row expected(int i) {
    return {"I8 " + std::to_string(i),
            i % 10 == 0 ? "NULL" : "BSTR row " + std::to_string(i)};
  }
  static std::vector<Row> expected_from(int first) {
    std::vector<Row> rows;
    for (int i = first; i <= kRows; ++i) rows.push_back(expected(i));
    return rows;
  }
  // What the callback's argument, the fields, shows.
  static Row row_of(const Object& fields) {
    return {shown(Object(fields("id")).get("Value")),
            shown(Object(fields(1)).get("Value"))};
  }
};

TEST_P(ScriptWalks, MoveNextVisitsEveryRowAndMoveFirstBeginsAgain) {
  const Object rows = all();
  for (int walk = 0; walk < 2; ++walk) {
    EXPECT_EQ(rows_of(rows), expected_from(1));
    EXPECT_EQ(shown(rows.get("BOF")), "BOOL 0");
    expect_error(error_of([&] { rows.call("MoveNext"); }),
                 component::kNoCurrentRecordCode, "ZIRDB.Recordset",
                 component::kNoCurrentRecordText);
    rows.call("MoveFirst");
  }
  EXPECT_EQ(shown(rows.get("RecordCount")), "I4 -1");
}

TEST_P(ScriptWalks, FieldsTakenOnceFollowTheRows) {
  const Object rows = all();
  const Object text = rows.call("Fields", "t");
  for (int i = 1; i <= kRows; ++i) {
    EXPECT_EQ(shown(text.get("Value")), expected(i)[1]);
    rows.call("MoveNext");
  }
}

TEST_P(ScriptWalks, AnEnumeratorVisitsTheFieldsOfItsRow) {
  const Object rows = all();
  const _variant_t enumerator =
      component::method(Object(rows.get("Fields")).dispatch(), DISPID_NEWENUM)
          .value;
  ASSERT_EQ(enumerator.vt, VT_UNKNOWN);
  const auto fields =
      component::query<IEnumVARIANT>(enumerator.punkVal, IID_IEnumVARIANT);
  rows.call("Close");
  Row seen;
  for (;;) {
    _variant_t field;
    if (fields->Next(1, &field, nullptr) != S_OK) break;
    seen.push_back(shown(Object(field).get("Value")));
  }
  EXPECT_EQ(seen, expected(1));
}

TEST_P(ScriptWalks, ForEachVisitsEveryRowAndCloses) {
  std::vector<Row> seen;
  Callback callback([&](const Object& fields) {
    seen.push_back(row_of(fields));
    return S_OK;
  });
  const Object rows = all();

  rows.call("forEach", callback.argument());

  EXPECT_EQ(seen, expected_from(1));
  EXPECT_EQ(shown(rows.get("State")), "I4 0");
}

TEST_P(ScriptWalks, ForEachBeginsWhereTheRecordsetStands) {
  std::vector<Row> seen;
  Callback callback([&](const Object& fields) {
    seen.push_back(row_of(fields));
    return S_OK;
  });
  const Object rows = all();
  rows.call("MoveNext");
  rows.call("MoveNext");

  rows.call("forEach", callback.argument());

  EXPECT_EQ(seen, expected_from(kThird));
}

TEST_P(ScriptWalks, ForEachOfNoRowsCallsNobody) {
  Callback callback([](const Object& /*fields*/) { return S_OK; });
  const Object rows = run("SELECT id FROM w WHERE id < 0");

  rows.call("forEach", callback.argument());

  EXPECT_EQ(callback.calls(), 0);
  EXPECT_EQ(shown(rows.get("State")), "I4 0");
}

// All rows are in memory: no cursor of the database is in the way.
TEST_P(ScriptWalks, TheConnectionWritesWhileItsRowsAreWalked) {
  const Object copying =
      command("INSERT INTO copied VALUES (?)", {input_of(ZIRDB_AD_INTEGER, 0)});
  const Object list = copying.get("Parameters");
  const Object id = list(0);
  Callback callback([&](const Object& fields) {
    id.put("Value", Object(fields("id")).get("Value"));
    copying.call("Execute");
    run("DELETE FROM w WHERE id = ?", Object(fields("id")).get("Value"));
    return S_OK;
  });

  all().call("forEach", callback.argument());

  EXPECT_EQ(value("SELECT COUNT(*) FROM w"), "I8 0");
  EXPECT_EQ(value("SELECT COUNT(DISTINCT id) FROM copied"), "I8 200");
}

TEST_P(ScriptWalks, TheTableIsDroppedWhileItsRowsAreWalked) {
  const Object rows = all();
  run("DROP TABLE w");
  EXPECT_EQ(rows_of(rows), expected_from(1));
}

TEST_P(ScriptWalks, ACallbackThatFailsEndsTheWalkOnItsRow) {
  int calls = 0;
  Callback callback([&](const Object& /*fields*/) {
    return ++calls == kThird ? E_NOTIMPL : S_OK;
  });
  const Object rows = all();

  EXPECT_EQ(error_of([&] { rows.call("forEach", callback.argument()); }).code(),
            E_NOTIMPL);

  EXPECT_EQ(rows_of(rows), expected_from(kThird));
}

TEST_P(ScriptWalks, ClosingTheRecordsetInACallbackFailsTheWalk) {
  const Object rows = all();
  Callback callback([&](const Object& /*fields*/) {
    rows.call("Close");
    return S_OK;
  });

  expect_error(error_of([&] { rows.call("forEach", callback.argument()); }),
               component::kClosedCode, "ZIRDB.Recordset",
               component::kClosedText);

  EXPECT_EQ(callback.calls(), 1);
  EXPECT_EQ(value("SELECT COUNT(*) FROM w"), "I8 200");
}

TEST_P(ScriptWalks, ClosingTheConnectionInACallbackFailsTheWalk) {
  const Object rows = all();
  Callback callback([&](const Object& fields) {
    if (row_of(fields) == expected(kThird)) connection().call("Close");
    return S_OK;
  });

  expect_error(error_of([&] { rows.call("forEach", callback.argument()); }),
               component::kClosedCode, "ZIRDB.Recordset",
               component::kClosedText);

  EXPECT_EQ(callback.calls(), kThird);
  open_again(connection());
  EXPECT_EQ(value("SELECT COUNT(*) FROM w"), "I8 200");
}

TEST_P(ScriptWalks, LettingGoOfEverythingInACallbackDoesNotEndTheWalk) {
  Object other = open();
  Object rows = other("SELECT id, t FROM w ORDER BY id");
  Callback callback([&](const Object& /*fields*/) {
    rows.release();
    return S_OK;
  });

  const component::Answer answer = component::method(
      rows.dispatch(), DISPID_ZIRDB_RECORDSET_FOREACH, {callback.argument()});

  EXPECT_EQ(answer.result, S_OK);
  EXPECT_EQ(callback.calls(), kRows);
}

TEST_P(ScriptWalks, ARecordsetWalksWithinAnother) {
  int inner = 0;
  Callback count([&](const Object& /*fields*/) {
    ++inner;
    return S_OK;
  });
  Callback callback([&](const Object& fields) {
    Object(
        run("SELECT id FROM w WHERE id <= ?", Object(fields(0)).get("Value")))
        .call("forEach", count.argument());
    return S_OK;
  });

  Object(run("SELECT id FROM w WHERE id <= 20"))
      .call("forEach", callback.argument());

  EXPECT_EQ(callback.calls(), 20);
  EXPECT_EQ(inner, 20 * 21 / 2);
}

ZIRDB_FOR_EVERY_DRIVER(ScriptWalks);

}  // namespace
}  // namespace zirdb_test
