// SPDX-License-Identifier: MIT
//
// What somebody writes who has the installed library and nothing else: creates
// a connection by name, which REGISTRY must lead to, and prints what SQLite
// answers.

#include <iostream>

#include "zirdb.h"

int main() {
  InterfacePtr<IZIRDBConnection> connection;
  connection.receive([](void** out) {
    return CoCreateInstanceByName(L"ZIRDB.Connection", nullptr, 0,
                                  IID_IZIRDBConnection, out);
  });
  if (!connection) {
    std::cerr << "no ZIRDB.Connection\n";
    return 1;
  }
  const _bstr_t database(L"Driver=SQLite3;Database=:memory:");
  if (FAILED(connection->Open(database.m_s, nullptr, nullptr, 0))) {
    std::cerr << "no SQLite\n";
    return 1;
  }

  const _bstr_t sql(L"SELECT 'forty-two' AS answer");
  IZIRDBRecordset* received = nullptr;
  connection->Execute(sql.m_s, nullptr, 0, &received);
  const auto rows = InterfacePtr<IZIRDBRecordset>::adopt(received);
  IZIRDBFields* columns = nullptr;
  rows->get_Fields(&columns);
  const auto fields = InterfacePtr<IZIRDBFields>::adopt(columns);
  const _variant_t name(L"answer");
  IZIRDBField* column = nullptr;
  fields->Item(name, &column);
  const auto field = InterfacePtr<IZIRDBField>::adopt(column);
  _variant_t value;
  field->get_Value(&value);
  char text[32] = {};
  utf32_utf8(text, sizeof text, value.bstrVal);
  std::cout << "answer = " << text << '\n';
}
