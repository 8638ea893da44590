// SPDX-License-Identifier: MIT
//
// As much as SQLite takes, through the real driver manager.

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/database.h"
#include "support/load_handles.h"
#include "support/long_form.h"
#include "support/script_journey.h"
#include "support/scripting.h"
#include "support/values.h"

namespace zirdb_test {
namespace {

using scripting::Array;
using scripting::error_of;
using scripting::number;
using scripting::shown;

class LoadSizesSqlite : public ScriptJourney {
 protected:
  void TearDown() override {
    ScriptJourney::TearDown();
    EXPECT_EQ(load::handles_live(), 0U);
  }
};

/// `text`, `count` times, with commas between.
std::string list_of(const std::string& text, std::size_t count) {
  std::string list = text;
  for (std::size_t i = 1; i < count; ++i) list += ", " + text;
  return list;
}

TEST_P(LoadSizesSqlite, TwoThousandColumns) {
  constexpr std::size_t kColumns = 2000;
  std::string columns;
  std::string numbers;
  for (std::size_t i = 0; i < kColumns; ++i) {
    const char* const comma = i == 0 ? "" : ", ";
    columns += comma + ("c" + std::to_string(i)) + " INTEGER";
    numbers += comma + std::to_string(i * i);
  }
  run("CREATE TABLE w (" + columns + ")");
  run("INSERT INTO w VALUES (" + numbers + ")");

  const Object row = run("SELECT * FROM w");

  ASSERT_EQ(Object(row.get("Fields")).get("Count").lVal,
            static_cast<long>(kColumns));
  for (std::size_t i = 0; i < kColumns; ++i) {
    const std::string name = "c" + std::to_string(i);
    ASSERT_EQ(scripting::value_of(row, name.c_str()),
              "I8 " + std::to_string(i * i));
  }
  const scripting::Error error = error_of([&] { run("SELECT *, 1 FROM w"); });
  expect_failed_with_state(error, "HY000");
}

class ManyParameters : public LoadSizesSqlite {
 protected:
#if defined(__SANITIZE_ADDRESS__)
  // The driver makes room for one parameter at a time, and the sanitizer's
  // allocator moves them all each time.
  static constexpr std::size_t kMany = 3000;
#else
  static constexpr std::size_t kMany = 30000;
#endif

  void SetUp() override {
    LoadSizesSqlite::SetUp();
    if (!IsSkipped()) run("CREATE TABLE p (n INTEGER)");
  }

  static std::string insert(std::size_t count) {
    return "INSERT INTO p VALUES " + list_of("(?)", count);
  }
  static std::int64_t sent(std::size_t i) {
    return static_cast<std::int64_t>(i * i);
  }
  void expect_all() const {
    const Object rows = run("SELECT n FROM p ORDER BY rowid");
    std::size_t i = 0;
    for (; rows.get("EOF").boolVal == VARIANT_FALSE; ++i) {
      ASSERT_EQ(Object(rows(0)).get("Value").llVal, sent(i));
      rows.call("MoveNext");
    }
    EXPECT_EQ(i, kMany);
  }
};

TEST_P(ManyParameters, OfACommand) {
  const Object inserting = command(insert(kMany));
  const Object list = inserting.get("Parameters");
  for (std::size_t i = 0; i < kMany; ++i) {
    list.call("Append",
              inserting.call("CreateParameter", "p" + std::to_string(i),
                             ZIRDB_AD_BIGINT, ZIRDB_AD_PARAM_INPUT, 0,
                             number(VT_I8, sent(i))));
  }
  _variant_t count;

  inserting.call("Execute", values::reference_to(&count));

  EXPECT_EQ(shown(count), "I8 " + std::to_string(kMany));
  EXPECT_EQ(shown(list.get("Count")), "I4 " + std::to_string(kMany));
  expect_all();
}

TEST_P(ManyParameters, OfAnArrayThatReceivesThem) {
  std::vector<_variant_t> elements;
  for (std::size_t i = 0; i < kMany; ++i) {
    elements.push_back(number(VT_I4, sent(i)));
  }
  Array arguments(elements);

  command(insert(kMany)).call("Execute", arguments.reference());

  expect_all();
  for (std::size_t i = 0; i < kMany; ++i) {
    ASSERT_EQ(arguments[i].vt, VT_I8);
    ASSERT_EQ(arguments[i].llVal, sent(i));
  }
}

TEST_P(ManyParameters, OfACallWithThatManyArguments) {
  component::Call call;
  call.arguments.push_back(scripting::argument(insert(kMany)));
  for (std::size_t i = 0; i < kMany; ++i) {
    call.arguments.push_back(number(VT_I8, sent(i)));
  }

  EXPECT_EQ(component::invoke(connection().dispatch(), call).result, S_OK);

  expect_all();
}

// The driver measures what is left of a text at every piece: effort that grows
// with the square of the size.
TEST_P(LoadSizesSqlite, ABigTextIsWholeBothWays) {
  const auto size = short_or_long<std::size_t>(1 << 20, 1 << 24);
  std::string text;
  while (text.size() < size)
    text += "\u00E4\u20AC\U0001F600 " + std::to_string(text.size());
  run("CREATE TABLE t (t TEXT)");

  command("INSERT INTO t VALUES (?)",
          {input_of(ZIRDB_AD_VARWCHAR, scripting::argument(text))})
      .call("Execute");

  EXPECT_EQ(value("SELECT length(CAST(t AS BLOB)) FROM t"),
            "I8 " + std::to_string(text.size()));
  const _variant_t read =
      Object(Object(run("SELECT t FROM t"))(0)).get("Value");
  ASSERT_EQ(read.vt, VT_BSTR);
  EXPECT_TRUE(values::text_of(read) == scripting::wide(text));
}

INSTANTIATE_TEST_SUITE_P(, LoadSizesSqlite, testing::Values(&kSqlite),
                         driver_name);
INSTANTIATE_TEST_SUITE_P(, ManyParameters, testing::Values(&kSqlite),
                         driver_name);

}  // namespace
}  // namespace zirdb_test
