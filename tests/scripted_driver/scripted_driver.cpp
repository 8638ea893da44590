// SPDX-License-Identifier: MIT
//
// The driver face: an ODBC driver whose engine a test in the same process
// scripts through scripted_odbc_control. Its entry points are in
// support/scripted_odbc_entry_points.cpp and scripted_odbc_forbidden.cpp.

#include "support/scripted_odbc_engine.h"
#include "support/scripted_odbc_forbidden.h"

namespace scripted_odbc {
Script& this_script() {
  static Script script(Face::kDriver);
  return script;
}
}  // namespace scripted_odbc

short scripted_odbc_forbidden(const char* name) {
  return scripted_odbc::this_script().engine().forbidden(name);
}

short scripted_odbc_manager_call(const char* name) {
  return scripted_odbc::this_script().engine().manager_call(name);
}

/// The script of this driver, for the test program that loaded it.
extern "C" __attribute__((visibility("default"))) scripted_odbc::Script*
scripted_odbc_control() {
  return &scripted_odbc::this_script();
}
