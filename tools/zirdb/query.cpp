// SPDX-License-Identifier: MIT
//
// Running one statement. Values are looked at in the type in which they come:
// the runtime prints a line on standard output, among our data, when it is
// asked for a conversion that it does not have.

#include "query.h"

#include <algorithm>

namespace {

using late_bound::Object;
using late_bound::Value;

// A recordset, closed or Empty for a statement without columns.
Value execute(const Object& connection, const std::string& sql,
              const std::vector<std::string>& values, Value& affected) {
  if (values.empty()) {
    return connection.call("Execute", sql, Value::reference_to(affected));
  }
  // The connection's default member takes values, too, but does not count.
  const Object command("ZIRDB.Command");
  command.put("ActiveConnection", connection);
  command.put("CommandText", sql);
  return command.call("Execute", Value::reference_to(affected),
                      std::vector<Value>(values.begin(), values.end()));
}

}  // namespace

std::string text_of(const Value& value) {
  const wchar_t* const text = value.variant().bstrVal;
  std::wstring characters(text == nullptr ? L"" : text);
  std::replace_if(
      characters.begin(), characters.end(),
      [](wchar_t character) {
        const auto code = static_cast<char32_t>(character);
        return code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF);
      },
      L'\uFFFD');
  return late_bound::narrow(characters.c_str());
}

Answer run_query(const std::string& connection_string, const std::string& sql,
                 const std::vector<std::string>& values) {
  const Object connection("ZIRDB.Connection");
  connection.call("Open", connection_string);
  Value affected;
  const Value result = execute(connection, sql, values, affected);

  Answer answer;
  if (!affected.is_nothing()) answer.affected = affected.integer();
  if (result.type() != VT_DISPATCH) return answer;
  const Object rows = result.object();
  const Object fields = rows.get("Fields").object();
  const std::int64_t count = fields.get("Count").integer();
  // Fields follow the cursor, so they are looked up once.
  std::vector<Object> columns;
  for (std::int64_t i = 0; i < count; ++i) {
    columns.push_back(fields(i).object());
    answer.columns.push_back(text_of(columns.back().get("Name")));
  }
  if (count == 0) return answer;
  for (; !rows.get("EOF").truth(); rows.call("MoveNext")) {
    answer.rows.emplace_back();
    for (const Object& column : columns) {
      answer.rows.back().push_back(column.get("Value"));
    }
  }
  return answer;
}
