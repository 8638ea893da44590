// SPDX-License-Identifier: MIT
//
// The driver face: the driver manager loads the scripted driver from its file,
// and the test program reaches the same instance by loading the same file.

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>

#include "support/scripted_odbc_fixture.h"

namespace {

/// Keeps the driver loaded, and with it the script, between connections.
class Driver {
 public:
  Driver() {
    // Only the generated driver table is to be seen, not this machine's.
    ::setenv("ODBCSYSINI", SCRIPTED_ODBC_INI_FOLDER, 1);
    ::setenv("ODBCINI", SCRIPTED_ODBC_INI_FOLDER "/odbc.ini", 1);
    if (library_ == nullptr) throw std::runtime_error(::dlerror());
    using Control = scripted_odbc::Script*();
    auto* const control =
        reinterpret_cast<Control*>(::dlsym(library_, "scripted_odbc_control"));
    if (control == nullptr) throw std::runtime_error(::dlerror());
    script_ = control();
  }
  ~Driver() {
    if (library_ != nullptr) ::dlclose(library_);
  }
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  scripted_odbc::Script& script() { return *script_; }

 private:
  // RTLD_LOCAL: the driver's entry points must not be found in place of the
  // driver manager's.
  void* const library_ = ::dlopen(SCRIPTED_ODBC_DRIVER, RTLD_NOW | RTLD_LOCAL);
  scripted_odbc::Script* script_ = nullptr;
};

}  // namespace

scripted_odbc::Face ScriptedOdbc::face() {
  return scripted_odbc::Face::kDriver;
}

scripted_odbc::Script& ScriptedOdbc::script() {
  static Driver driver;
  return driver.script();
}

std::string ScriptedOdbc::connection_string() {
  return "DRIVER=" SCRIPTED_ODBC_DRIVER ";";
}
