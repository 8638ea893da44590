// SPDX-License-Identifier: MIT
//
// The doctor: versions; unixODBC's files; drivers; data sources; REGISTRY; a
// trial connection. Each is a function that reports what it sees. What may
// crash or hang is done in a child process.

#include "doctor.h"

#include <dlfcn.h>
#include <link.h>
#include <odbcinst.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <utility>
#include <vector>

#include "child.h"
#include "connection_string.h"
#include "late_bound.h"
#include "output.h"
#include "zirdb.h"

// Where unixODBC looks for its files, in buffers of FILENAME_MAX + 1 bytes. Its
// headers keep these two to themselves.
extern "C" {
char* odbcinst_system_file_path(char* buffer);
char* odbcinst_system_file_name(char* buffer);
}

namespace {

using late_bound::Object;

constexpr std::chrono::seconds kLoadLimit(5);
constexpr std::chrono::seconds kConnectLimit(60);

// ---------------------------------------------------------------------------
// The report
// ---------------------------------------------------------------------------

class Report {
 public:
  void section(const char* title) {
    std::cout << (first_ ? "" : "\n") << title << '\n';
    first_ = false;
  }
  void line(const std::string& text) {
    std::cout << "  " << visible(text) << '\n';
  }
  void line(std::string name, const std::string& text) {
    constexpr std::size_t kNames = 22;
    if (name.size() < kNames) name.resize(kNames, ' ');
    line(name + ' ' + text);
  }
  // At the beginning of a line, where a search finds them.
  void problem(const std::string& text) {
    ++problems_;
    std::cout << "problem: " << visible(text) << '\n';
  }
  // What is wrong and harms nobody.
  void note(const std::string& text) {
    std::cout << "note: " << visible(text) << '\n';
  }
  void hint(const std::string& text) {
    if (!text.empty()) std::cout << "hint: " << visible(text) << '\n';
  }

  int problems() const { return problems_; }

 private:
  bool first_ = true;
  int problems_ = 0;
};

std::string in_quotes(const std::string& text) { return '"' + text + '"'; }

// NULL when it is not set.
const char* environment(const char* name) {
  return std::getenv(name);  // NOLINT(concurrency-mt-unsafe): no threads
}

// ---------------------------------------------------------------------------
// What unixODBC says
// ---------------------------------------------------------------------------

constexpr char kDriversFile[] = "odbcinst.ini";
constexpr char kSourcesFile[] = "odbc.ini";

// Names as unixODBC returns them: each ends in a zero, and the list in another.
// Two sections of its files are nobody's names.
std::vector<std::string> names_in(const std::vector<char>& list) {
  std::vector<std::string> names;
  for (const char* at = list.data(); *at != '\0'; at += std::strlen(at) + 1) {
    if (strcasecmp(at, "ODBC") != 0 &&
        strcasecmp(at, "ODBC Data Sources") != 0) {
      names.emplace_back(at);
    }
  }
  return names;
}

std::string profile(const std::string& section, const char* key,
                    const char* file) {
  char value[FILENAME_MAX] = {};
  SQLGetPrivateProfileString(section.c_str(), key, "", value, sizeof value,
                             file);
  return value;
}

struct Driver {
  std::string name;
  std::string library;
};

std::vector<Driver> registered_drivers() {
  std::vector<char> list(0xFFFF);
  SQLGetInstalledDrivers(list.data(), 0xFFFE, nullptr);
  std::vector<Driver> drivers;
  for (const std::string& name : names_in(list)) {
    // In the driver manager's order.
    std::string library = profile(name, "Driver64", kDriversFile);
    if (library.empty()) library = profile(name, "Driver", kDriversFile);
    drivers.push_back({name, library});
  }
  return drivers;
}

std::string library_of(const std::vector<Driver>& drivers,
                       const std::string& name) {
  for (const Driver& driver : drivers) {
    if (strcasecmp(driver.name.c_str(), name.c_str()) == 0) {
      return driver.library;
    }
  }
  return "";
}

std::string manager_file() {
  void* const address = dlsym(RTLD_DEFAULT, "SQLDriverConnect");
  return address == nullptr ? "" : file_of(address);
}

// ---------------------------------------------------------------------------
// Versions, files
// ---------------------------------------------------------------------------

// The driver manager tells its version to nobody but its own program.
std::string unixodbc_version() {
  struct Close {
    void operator()(FILE* stream) const { pclose(stream); }
  };
  const std::unique_ptr<FILE, Close> program(
      // NOLINTNEXTLINE(cert-env33-c): the same command always
      popen("odbcinst --version 2>/dev/null", "re"));
  char text[64] = {};
  if (!program || std::fgets(text, sizeof text, program.get()) == nullptr) {
    return "version not known without the program odbcinst";
  }
  text[std::strcspn(text, "\r\n")] = '\0';
  return text;
}

void report_versions(Report& report) {
  report.section("Versions");
  report.line("zirdb", ZIRDB_VERSION);
  report.line("library", library_file());
  report.line("driver manager", manager_file());
  report.line("", unixodbc_version());
}

enum class Need { kRequired, kNamed, kOptional };

void report_file(Report& report, const char* what, const std::string& path,
                 Need need) {
  struct stat status = {};
  std::string state = "readable";
  bool wrong = true;
  if (stat(path.c_str(), &status) != 0) {
    state = errno == ENOENT ? "does not exist" : std::strerror(errno);
    wrong = errno != ENOENT || need != Need::kOptional;
  } else if (!S_ISREG(status.st_mode)) {
    state = "is not a file";
  } else if (access(path.c_str(), R_OK) != 0) {
    state = std::strerror(errno);
  } else {
    wrong = false;
  }
  report.line(what, path + ": " + state);
  if (wrong) report.problem(path + ": " + state);
}

std::string home() {
  // As unixODBC does: HOME does not count.
  const passwd* const user = getpwuid(getuid());  // NOLINT(*-mt-unsafe)
  return user == nullptr ? "" : user->pw_dir;
}

std::string system_folder() {
  char buffer[FILENAME_MAX + 1] = {};
  return odbcinst_system_file_path(buffer);
}

std::string user_sources() {
  const char* const named = environment("ODBCINI");
  return named != nullptr ? named : home() + "/.odbc.ini";
}

void report_files(Report& report) {
  report.section("unixODBC's files");
  char name[FILENAME_MAX + 1] = {};
  const std::string folder = system_folder();
  report_file(report, "drivers", folder + '/' + odbcinst_system_file_name(name),
              Need::kRequired);
  report_file(report, "user's drivers", home() + "/.odbcinst.ini",
              Need::kOptional);
  report_file(report, "data sources", folder + "/odbc.ini", Need::kOptional);
  report_file(
      report, "user's data sources", user_sources(),
      environment("ODBCINI") != nullptr ? Need::kNamed : Need::kOptional);
  for (const char* const variable : {"ODBCSYSINI", "ODBCINSTINI", "ODBCINI"}) {
    const char* const value = environment(variable);
    report.line(variable, value == nullptr ? "not set" : value);
  }
}

// ---------------------------------------------------------------------------
// Drivers, data sources
// ---------------------------------------------------------------------------

constexpr char kPackages[] =
    "Debian's drivers are in libsqliteodbc (SQLite3), odbc-postgresql"
    " (PostgreSQL Unicode) and odbc-mariadb (MariaDB Unicode)";

// Debian's package registers two drivers and ships the library of one. That is
// no problem of the machine: it is so wherever the package is installed.
constexpr char kWithoutLibrary[] = "libsqliteodbc.so";
constexpr char kWithoutLibraryHint[] =
    "Debian registers SQLite, for version 2, without its library: use SQLite3;"
    " odbcinst -u -d -n SQLite takes the entry away";

// Loads a driver as the driver manager does, and tells which file it was.
Outcome load(const std::string& library) {
  std::string path = library;
  if (library.find('/') == std::string::npos) {
    const std::string own = folder_of(manager_file()) + "/odbc/" + library;
    if (access(own.c_str(), R_OK) == 0) path = own;
  }
  void* const handle = dlopen(path.c_str(), RTLD_LAZY);
  if (handle == nullptr) {
    const char* const error = dlerror();  // NOLINT(concurrency-mt-unsafe)
    return {false, std::string("does not load: ") + error};
  }
  const link_map* map = nullptr;
  if (dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0) path = map->l_name;
  for (const char* const name :
       {"SQLDriverConnect", "SQLDriverConnectW", "SQLConnect", "SQLConnectW"}) {
    if (dlsym(handle, name) != nullptr) return {true, path};
  }
  return {false, path + " is no driver: it has no SQLDriverConnect"};
}

Outcome load_in_child(const std::string& library) {
  return in_child(kLoadLimit, [&library] { return load(library); });
}

void report_drivers(Report& report, const std::vector<Driver>& drivers) {
  report.section("Drivers");
  if (drivers.empty()) {
    report.problem("no driver is registered");
    report.hint(kPackages);
  }
  for (const Driver& driver : drivers) {
    if (driver.library.empty()) {
      report.line(driver.name, "");
      report.problem("driver " + in_quotes(driver.name) + " names no library");
      continue;
    }
    const Outcome outcome = load_in_child(driver.library);
    report.line(driver.name, outcome.ok ? outcome.text : driver.library);
    if (outcome.ok) continue;
    const std::string what =
        "driver " + in_quotes(driver.name) + ": " + outcome.text;
    if (driver.library == kWithoutLibrary) {
      report.note(what);
      report.hint(kWithoutLibraryHint);
    } else {
      report.problem(what);
    }
  }
}

void report_source(Report& report, const std::string& name,
                   const std::vector<Driver>& drivers) {
  const std::string driver = profile(name, "Driver", kSourcesFile);
  report.line(name, driver);
  const std::string source = "data source " + in_quotes(name);
  if (driver.empty()) {
    report.problem(source + " names no driver");
  } else if (library_of(drivers, driver).empty()) {
    // What is not registered is taken for the library itself.
    const Outcome outcome = load_in_child(driver);
    if (outcome.ok) return;
    report.problem(source + ": driver " + in_quotes(driver) +
                   " is not registered, and as a library it " + outcome.text);
  }
}

void report_sources(Report& report, const std::vector<Driver>& drivers) {
  report.section("Data sources");
  bool any = false;
  constexpr UWORD kModes[] = {ODBC_USER_DSN, ODBC_SYSTEM_DSN};
  for (const UWORD mode : kModes) {
    // unixODBC would make a user's file that is not there.
    if (mode == ODBC_USER_DSN && access(user_sources().c_str(), R_OK) != 0) {
      continue;
    }
    SQLSetConfigMode(mode);
    std::vector<char> list(0xFFFF);
    SQLGetPrivateProfileString(nullptr, nullptr, "", list.data(), 0xFFFE,
                               kSourcesFile);
    for (const std::string& name : names_in(list)) {
      report_source(report, name, drivers);
      any = true;
    }
  }
  SQLSetConfigMode(ODBC_BOTH_DSN);
  if (!any) report.line("none");
}

// ---------------------------------------------------------------------------
// REGISTRY
// ---------------------------------------------------------------------------

struct Class {
  const char* program_id;  // in capitals, as it is looked up
  const char* clsid;
};

constexpr Class kClasses[] = {
    {"ZIRDB.CONNECTION", "{A3B9D97A-3DE2-4287-9A7B-5EF21F449C1E}"},
    {"ZIRDB.COMMAND", "{B250EB07-2332-4C6D-B50D-357641DEAA0D}"},
    {"ZIRDB.RECORDSET", "{8EEDA5E6-0575-4F26-B43A-ED25F95E993B}"}};

bool same_file(const std::string& one, const std::string& other) {
  struct stat first = {};
  struct stat second = {};
  return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

void report_link(Report& report, const std::string& folder,
                 const std::string& name) {
  const std::string path = folder + '/' + name;
  char target[FILENAME_MAX + 1] = {};
  const bool is_link = readlink(path.c_str(), target, FILENAME_MAX) > 0;
  report.line(name, is_link ? std::string("-> ") + target : "");
  if (access(path.c_str(), R_OK) != 0) {
    report.problem(is_link ? path + " leads nowhere: " + target
                           : path + ": " + std::strerror(errno));
  } else if (!same_file(path, library_file())) {
    report.line("", "another library than this program's");
  }
}

void report_program_id(Report& report, const std::string& folder,
                       const Class& entry) {
  const std::string name = std::string(entry.program_id) + ".clsid";
  std::string clsid;
  std::getline(std::ifstream(folder + '/' + name), clsid);
  report.line(name, clsid);
  if (clsid.rfind(entry.clsid, 0) != 0) {
    report.problem(folder + '/' + name + ": does not say " + entry.clsid);
  }
}

void report_folder(Report& report, const std::string& folder) {
  struct stat status = {};
  if (stat(folder.c_str(), &status) != 0) {
    report.problem("REGISTRY: " + folder + ": " + std::strerror(errno));
  } else if (!S_ISDIR(status.st_mode)) {
    report.problem("REGISTRY: " + folder + " is not a folder");
  } else {
    report_link(report, folder, "ZIRDB.so");
    for (const Class& each : kClasses) {
      report_link(report, folder, std::string(each.clsid) + ".so");
    }
    for (const Class& each : kClasses) {
      report_program_id(report, folder, each);
    }
  }
}

// Which library makes the objects.
Outcome created_by_name() {
  const Object connection("ZIRDB.Connection");
  void* first_operation = nullptr;
  std::memcpy(&first_operation,
              *reinterpret_cast<void* const* const*>(connection.dispatch()),
              sizeof first_operation);
  return {true, "made by " + file_of(first_operation)};
}

void report_registry(Report& report, Registry origin) {
  report.section("REGISTRY");
  const char* const value = environment("REGISTRY");
  if (value == nullptr || *value == '\0') {
    report.line("value", value == nullptr ? "not set" : "empty");
  } else {
    report.line("value",
                std::string(value) + (origin == Registry::kByDefault
                                          ? " (by default)"
                                          : " (from the environment)"));
    report_folder(report, value);
  }
  const Outcome outcome = in_child(kLoadLimit, created_by_name);
  report.line("ZIRDB.Connection", outcome.ok ? outcome.text : "not made");
  if (!outcome.ok) report.problem("ZIRDB.Connection: " + outcome.text);
}

// ---------------------------------------------------------------------------
// A trial connection
// ---------------------------------------------------------------------------

// A connection of the library that this program is linked with, so that
// REGISTRY has no part in it.
Object linked_connection() {
  InterfacePtr<IClassFactory> factory;
  late_bound::check(factory.receive([](void** out) {
    return DllGetClassObject(CLSID_ZIRDBConnection, IID_IClassFactory, out);
  }),
                    "asking for the class");
  InterfacePtr<IDispatch> connection;
  late_bound::check(connection.receive([&](void** out) {
    return factory->CreateInstance(nullptr, IID_IDispatch, out);
  }),
                    "making a connection");
  return Object(std::move(connection));
}

void report_trial(Report& report, const std::string& connection_string) {
  report.section("Trial connection");
  const MaskedString shown = masked(connection_string);
  report.line(shown.text);
  std::cout.flush();  // it may take a while
  const Outcome outcome = in_child(kConnectLimit, [&connection_string] {
    linked_connection().call("Open", connection_string);
    return Outcome{true, "connected"};
  });
  if (outcome.ok) {
    report.line(outcome.text);
    return;
  }
  report.problem("no connection: " + without(shown.secrets, outcome.text));
  report.hint(without(shown.secrets, driver_hint(outcome.text)));
}

}  // namespace

std::string driver_hint(const std::string& error) {
  const bool nothing_found = error.rfind("IM002", 0) == 0;
  const bool not_loaded = error.find("Can't open lib") != std::string::npos;
  if (!nothing_found && !not_loaded) return "";
  std::string names;
  for (const Driver& driver : registered_drivers()) {
    names += (names.empty() ? "" : ", ") + driver.name;
  }
  return "the string needs DRIVER= with a registered driver, or DSN= with a "
         "data source. Registered: " +
         (names.empty() ? "none" : names) + ". " + kPackages;
}

int run_doctor(Registry registry, const std::string* connection_string) {
  Report report;
  report_versions(report);
  report_files(report);
  const std::vector<Driver> drivers = registered_drivers();
  report_drivers(report, drivers);
  report_sources(report, drivers);
  report_registry(report, registry);
  if (connection_string != nullptr) report_trial(report, *connection_string);
  const int problems = report.problems();
  std::cout << '\n'
            << (problems == 0 ? "No problems found.\n"
                              : std::to_string(problems) +
                                    (problems == 1 ? " problem found.\n"
                                                   : " problems found.\n"));
  return problems;
}
