// SPDX-License-Identifier: MIT
//
// How long the objects of a script live on a real database: each outlives the
// others, in every order of letting go.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "support/script_journey.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace zirdb_test {
namespace {

using scripting::error_of;
using scripting::expect_error;
using scripting::only_value;
using scripting::rows_of;
using scripting::shown;

class ScriptLifetimes : public ScriptJourney {
 protected:
  void SetUp() override {
    ScriptJourney::SetUp();
    if (IsSkipped()) return;
    run("CREATE TABLE l (id INTEGER, t VARCHAR(20))");
    run("INSERT INTO l VALUES (1, 'one'), (2, 'two')");
  }

  static void expect_closed(const scripting::Error& error) {
    expect_error(error, component::kClosedCode, "ZIRDB.Recordset",
                 component::kClosedText);
  }
};

// ---------------------------------------------------------------------------
// One outlives another
// ---------------------------------------------------------------------------

TEST_P(ScriptLifetimes, ARecordsetOutlivesItsConnectionAndIsClosed) {
  Object other = open();
  const Object rows = other("SELECT id, t FROM l ORDER BY id");
  const Object fields = rows.get("Fields");
  const Object field = rows("t");

  other.release();

  EXPECT_EQ(shown(rows.get("State")), "I4 0");
  EXPECT_EQ(shown(Object(rows.get("Fields")).get("Count")), "I4 0");
  EXPECT_EQ(shown(fields.get("Count")), "I4 0");
  for (const char* member : {"EOF", "BOF", "RecordCount"}) {
    expect_closed(error_of([&] { rows.get(member); }));
  }
  for (const char* member :
       {"MoveFirst", "MoveLast", "MoveNext", "MovePrevious", "Close"}) {
    expect_closed(error_of([&] { rows.call(member); }));
  }
  expect_error(error_of([&] { fields(0); }), E_FAIL, "ZIRDB.Recordset",
               component::kNoFieldText);
  expect_error(error_of([&] { field.get("Value"); }), component::kNoFieldCode,
               "ZIRDB.Recordset", component::kNoFieldText);
}

TEST_P(ScriptLifetimes, ClosingAConnectionClosesEveryRecordsetOfIt) {
  std::vector<Object> recordsets;
  for (int i = 0; i < 20; ++i) {
    recordsets.emplace_back(run("SELECT id FROM l"));
    if (i % 3 == 0) recordsets.erase(recordsets.begin());
  }
  recordsets.emplace_back(
      command("SELECT ?", {input_of(ZIRDB_AD_BIGINT, 1)}).call("Execute"));
  const Object others = open();
  const Object of_another = others("SELECT id FROM l ORDER BY id");

  connection().call("Close");

  for (const Object& recordset : recordsets) {
    EXPECT_EQ(shown(recordset.get("State")), "I4 0");
  }
  EXPECT_EQ(shown(of_another.get("State")), "I4 1");
  EXPECT_EQ(rows_of(of_another).size(), 2U);
}

// Closing the connection reaches a recordset that a script has closed before,
// and none that a script has let go of.
TEST_P(ScriptLifetimes, ClosedAndReleasedRecordsetsDoNotDisturbTheClosing) {
  const Object closed = run("SELECT id FROM l");
  closed.call("Close");
  Object(run("SELECT id FROM l")).call("Close");
  EXPECT_EQ(shown(Object(closed.get("Fields")).get("Count")), "I4 1");

  connection().call("Close");

  EXPECT_EQ(shown(Object(closed.get("Fields")).get("Count")), "I4 0");
  expect_closed(error_of([&] { closed.get("EOF"); }));
}

// Each subset of four recordsets goes in each order before the connection
// closes the rest.
TEST_P(ScriptLifetimes, RecordsetsGoInEveryOrder) {
  std::array<std::size_t, 4> order = {0, 1, 2, 3};
  do {
    for (std::size_t released = 0; released <= order.size(); ++released) {
      std::array<Object, 4> recordsets;
      for (Object& recordset : recordsets) recordset = run("SELECT id FROM l");
      for (std::size_t i = 0; i < released; ++i) {
        recordsets[order[i]].release();
      }

      connection().call("Close");

      for (const Object& recordset : recordsets) {
        if (!recordset) continue;
        EXPECT_EQ(shown(recordset.get("State")), "I4 0");
      }
      open_again(connection());
    }
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_P(ScriptLifetimes, ARecordsetFromBeforeStaysClosedWhenOpenedAgain) {
  const Object before = run("SELECT id FROM l");
  connection().call("Close");
  open_again(connection());

  const Object after = run("SELECT id FROM l");

  EXPECT_EQ(shown(before.get("State")), "I4 0");
  EXPECT_EQ(shown(after.get("State")), "I4 1");
}

TEST_P(ScriptLifetimes, AConnectionOutlivesItsCommands) {
  for (int i = 0; i < 3; ++i) {
    Object counting = command("SELECT COUNT(*) FROM l");
    EXPECT_EQ(only_value(counting.call("Execute")), "I8 2");
    counting.release();
    EXPECT_EQ(value("SELECT COUNT(*) FROM l"), "I8 2");
  }
}

TEST_P(ScriptLifetimes, ACommandKeepsItsConnection) {
  Object other = open();
  const Object selecting = command_on(other, "SELECT t FROM l WHERE id = ?",
                                      {input_of(ZIRDB_AD_INTEGER, 2)});
  other.release();

  EXPECT_EQ(only_value(selecting.call("Execute")), "BSTR two");
  EXPECT_EQ(only_value(Object(selecting.get("ActiveConnection"))("SELECT 3")),
            "I8 3");
}

TEST_P(ScriptLifetimes, ACommandLetsGoOfItsConnectionWhenGivenAnother) {
  Object other = open();
  const Object selecting = command_on(other, "SELECT t FROM l WHERE id = 2");
  const Object rows = selecting.call("Execute");
  other.release();
  EXPECT_EQ(shown(rows.get("State")), "I4 1");

  selecting.put("ActiveConnection", connection());

  EXPECT_EQ(shown(rows.get("State")), "I4 0");
  EXPECT_EQ(only_value(selecting.call("Execute")), "BSTR two");
}

TEST_P(ScriptLifetimes, OneCommandServesSeveralConnections) {
  const Object other = open();
  const Object counting = command("SELECT COUNT(*) FROM l");
  run("BEGIN");
  run("DELETE FROM l WHERE id = 1");

  const std::string inside = only_value(counting.call("Execute"));
  counting.put("ActiveConnection", other);
  const std::string outside = only_value(counting.call("Execute"));
  run("ROLLBACK");

  EXPECT_EQ(inside, "I8 1");
  EXPECT_EQ(outside, "I8 2");
}

TEST_P(ScriptLifetimes, ACommandAndItsParametersOutliveEverything) {
  Object other = open();
  const Object selecting = command_on(other, "SELECT t FROM l WHERE id = ?",
                                      {input_of(ZIRDB_AD_INTEGER, 2)});
  Object rows = selecting.call("Execute");
  selecting.put("ActiveConnection", _variant_t());
  rows.release();
  other.release();

  EXPECT_EQ(shown(selecting.get("CommandText")),
            "BSTR SELECT t FROM l WHERE id = ?");
  EXPECT_EQ(parameter_of(selecting, 0), "I4 2");
  expect_error(error_of([&] { selecting.call("Execute"); }),
               component::kNoConnectionCode, "ZIRDB.Command",
               component::kNoConnectionText);

  selecting.put("ActiveConnection", connection());
  EXPECT_EQ(only_value(selecting.call("Execute")), "BSTR two");
}

TEST_P(ScriptLifetimes, AFieldKeepsItsRows) {
  Object rows = run("SELECT t FROM l ORDER BY id");
  const Object field = rows(0);
  rows.release();
  EXPECT_EQ(shown(field.get("Value")), "BSTR one");
  EXPECT_EQ(shown(field.get("Name")), "BSTR t");
}

// ---------------------------------------------------------------------------
// Every order of letting go
// ---------------------------------------------------------------------------

enum Part : std::size_t {
  kConnection,
  kCommand,
  kParameter,
  kRecordset,
  kFields,
  kField,
  kParts
};
constexpr const char* kPartNames[] = {"connection", "command", "parameter",
                                      "recordset",  "fields",  "field"};
using Order = std::array<std::size_t, kParts>;

std::string told(const Order& order) {
  std::string all;
  for (const std::size_t part : order) {
    all += std::string(" ") + kPartNames[part];
  }
  return all;
}

using Parts = std::array<Object, kParts>;

// What those that are left answer. The command keeps the connection, and with
// it the rows stay open.
void expect_consistent(const Parts& parts) {
  const bool connected = parts[kConnection] || parts[kCommand];
  if (parts[kConnection]) {
    EXPECT_EQ(shown(parts[kConnection].get("State")), "I4 1");
  }
  if (parts[kCommand]) {
    EXPECT_EQ(parameter_of(parts[kCommand], 0), "I4 2");
    EXPECT_EQ(only_value(parts[kCommand].call("Execute")), "BSTR two");
  }
  if (parts[kParameter]) {
    EXPECT_EQ(shown(parts[kParameter].get("Value")), "I4 2");
  }
  if (parts[kRecordset]) {
    EXPECT_EQ(shown(parts[kRecordset].get("State")),
              connected ? "I4 1" : "I4 0");
    if (connected) {
      parts[kRecordset].call("MoveFirst");
      EXPECT_EQ(scripting::value_of(parts[kRecordset], "t"), "BSTR two");
    }
  }
  if (parts[kFields]) {
    EXPECT_EQ(shown(parts[kFields].get("Count")), connected ? "I4 1" : "I4 0");
  }
  if (parts[kField]) {
    if (connected) {
      EXPECT_EQ(shown(parts[kField].get("Value")), "BSTR two");
    } else {
      EXPECT_EQ(error_of([&] { parts[kField].get("Value"); }).code(),
                component::kNoFieldCode);
    }
  }
}

TEST_P(ScriptLifetimes, EveryOrderOfLettingGoLeavesTheRestAtWork) {
  Order order = {kConnection, kCommand, kParameter,
                 kRecordset,  kFields,  kField};
  int orders = 0;
  do {
    Parts parts;
    parts[kConnection] = open();
    parts[kCommand] =
        command_on(parts[kConnection], "SELECT t FROM l WHERE id = ?",
                   {input_of(ZIRDB_AD_INTEGER, 2)});
    parts[kParameter] = Object(parts[kCommand].get("Parameters"))(0);
    parts[kRecordset] = parts[kCommand].call("Execute");
    parts[kFields] = parts[kRecordset].get("Fields");
    parts[kField] = parts[kFields](0);

    for (const std::size_t part : order) {
      parts[part].release();
      expect_consistent(parts);
    }

    ASSERT_FALSE(HasFailure()) << "letting go of" << told(order);
    ++orders;
  } while (std::next_permutation(order.begin(), order.end()));
  EXPECT_EQ(orders, 720);
}

ZIRDB_FOR_EVERY_DRIVER(ScriptLifetimes);

}  // namespace
}  // namespace zirdb_test
