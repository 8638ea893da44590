// SPDX-License-Identifier: MIT
//
// What the fuzz targets have found (tests/fuzz): one test each.

#include <gtest/gtest.h>

#include <string>

#include "support/component.h"
#include "support/component_host.h"
#include "support/connection_calls.h"
#include "support/connections.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace std::string_literals;

using component::Connection;
using component::value_at;
using connection_calls::Ended;
using connection_calls::execute_by;
using connection_calls::Road;
using scripted_odbc::cell;

class FuzzFinds : public connection_calls::ConnectionTest {};

// No encoder writes a zero in more bytes than one, but a driver may.
TEST_F(FuzzFinds, AZeroOfSeveralBytesKeptTheTextBehindIt) {
  const std::string zeros[] = {"\xC0\x80"s, "\xE0\x80\x80"s,
                               "\xF0\x80\x80\x80"s};
  script().columns({{"c", SQL_VARCHAR}});
  for (const std::string& zero : zeros) {
    script().row({cell("a" + zero + "b")});
    script().row({cell("\xE2\x82\xAC" + zero)});
    script().row({cell(zero + "b")});
  }
  const Connection made = opened();
  Ended ended = execute_by(Road::Vtable, made, L"select");
  ASSERT_TRUE(ended.recordset);
  for (const std::string& zero : zeros) {
    for (const wchar_t* const expected : {L"a", L"\u20AC", L""}) {
      SCOPED_TRACE(testing::Message() << zero.size() << " bytes");
      const _variant_t value = value_at(ended.recordset, 0);
      ASSERT_EQ(value.vt, VT_BSTR);
      EXPECT_EQ(std::wstring(value.bstrVal, SysStringLen(value.bstrVal)),
                expected);
      EXPECT_EQ(ended.recordset->MoveNext(), S_OK);
    }
  }
}

}  // namespace
