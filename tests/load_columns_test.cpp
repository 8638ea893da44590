// SPDX-License-Identifier: MIT
//
// A row of ten thousand columns, as the driver manager hands it on.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/component.h"
#include "support/scripted_odbc_fixture.h"
#include "support/scripting.h"

namespace {

using scripted_odbc::cell;
using scripting::Object;

class LoadColumns : public ScriptedOdbc {};

TEST_F(LoadColumns, TenThousandOfThem) {
  constexpr std::size_t kColumns = 10000;
  std::vector<scripted_odbc::Column> columns;
  std::vector<scripted_odbc::Cell> cells;
  for (std::size_t i = 0; i < kColumns; ++i) {
    columns.push_back(
        {"column " + std::to_string(i), i % 2 == 0 ? SQL_BIGINT : SQL_VARCHAR});
    cells.push_back(i % 2 == 0 ? cell(i) : cell("text " + std::to_string(i)));
  }
  script().columns(columns).row(cells);
  const Object connection = scripting::new_connection();
  connection.call("Open", connection_string());

  const Object row = connection("select");

  const Object fields = row.get("Fields");
  ASSERT_EQ(fields.get("Count").lVal, static_cast<long>(kColumns));
  for (std::size_t i = 0; i < kColumns; ++i) {
    const std::string position = std::to_string(i);
    const Object field = fields(
        i % 2 == 0 ? scripting::argument("COLUMN " + position)
                   : scripting::number(VT_I8, static_cast<std::int64_t>(i)));
    ASSERT_EQ(scripting::shown(field.get("Name")), "BSTR column " + position);
    ASSERT_EQ(scripting::shown(field.get("Value")),
              (i % 2 == 0 ? "I8 " : "BSTR text ") + position);
  }
  EXPECT_EQ(script().count("SQLGetData"), kColumns);
}

}  // namespace
