// SPDX-License-Identifier: MIT
//
// The stand-in face: the test program itself exports the ODBC entry points, so
// that the library under test finds them before those of the driver manager.

#include "support/scripted_odbc_engine.h"
#include "support/scripted_odbc_fixture.h"
#include "support/scripted_odbc_forbidden.h"

namespace scripted_odbc {
Script& this_script() {
  static Script script(Face::kStandIn);
  return script;
}
}  // namespace scripted_odbc

short scripted_odbc_forbidden(const char* name) {
  return scripted_odbc::this_script().engine().forbidden(name);
}

short scripted_odbc_manager_call(const char* name) {
  return scripted_odbc_forbidden(name);
}

scripted_odbc::Face ScriptedOdbc::face() {
  return scripted_odbc::Face::kStandIn;
}

scripted_odbc::Script& ScriptedOdbc::script() {
  return scripted_odbc::this_script();
}

std::string ScriptedOdbc::connection_string() { return "DSN=scripted"; }
