// SPDX-License-Identifier: MIT
//
// Real databases for tests (see database.h). Sections: values and parameters;
// connections and folders; drivers; a private corner of a database.

#include "support/database.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <limits>
#include <stdexcept>
#include <utility>

// ---------------------------------------------------------------------------
// Values and parameters
// ---------------------------------------------------------------------------

namespace {

std::uint64_t bits_of(double value) {
  std::uint64_t bits = 0;
  static_assert(sizeof bits == sizeof value);
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

}  // namespace

bool operator==(const ZirdbOdbcValue& left, const ZirdbOdbcValue& right) {
  if (left.kind != right.kind) return false;
  switch (left.kind) {
    case ZirdbOdbcValueKind::Null:
      return true;
    case ZirdbOdbcValueKind::Bool:
      return left.bool_value == right.bool_value;
    case ZirdbOdbcValueKind::Int64:
      return left.int64_value == right.int64_value;
    case ZirdbOdbcValueKind::Double:
      return bits_of(left.double_value) == bits_of(right.double_value);
    case ZirdbOdbcValueKind::Text:
      return left.text_value == right.text_value;
    case ZirdbOdbcValueKind::Binary:
      return left.binary_value == right.binary_value;
  }
  return false;
}

namespace {

// Long values are told apart by their length and their beginning.
template <typename Bytes>
void print_bytes(const Bytes& content, std::ostream& out) {
  constexpr std::size_t kShown = 64;
  out << content.size() << " bytes";
  std::size_t shown = 0;
  for (const auto byte : content) {
    if (shown++ == kShown) {
      out << " ...";
      break;
    }
    const auto code = static_cast<unsigned char>(byte);
    if (code >= 0x20 && code < 0x7F) {
      out << ' ' << static_cast<char>(code);
    } else {
      out << " x" << std::hex << std::uppercase << std::setw(2)
          << std::setfill('0') << unsigned{code} << std::dec;
    }
  }
}

}  // namespace

void PrintTo(const ZirdbOdbcValue& value, std::ostream* out) {
  switch (value.kind) {
    case ZirdbOdbcValueKind::Null:
      *out << "Null";
      return;
    case ZirdbOdbcValueKind::Bool:
      *out << "Bool " << (value.bool_value ? "true" : "false");
      return;
    case ZirdbOdbcValueKind::Int64:
      *out << "Int64 " << value.int64_value;
      return;
    case ZirdbOdbcValueKind::Double:
      *out << "Double "
           << std::setprecision(std::numeric_limits<double>::max_digits10)
           << value.double_value;
      return;
    case ZirdbOdbcValueKind::Text:
      *out << "Text ";
      print_bytes(value.text_value, *out);
      return;
    case ZirdbOdbcValueKind::Binary:
      *out << "Binary ";
      print_bytes(value.binary_value, *out);
      return;
  }
  *out << "kind " << static_cast<int>(value.kind);
}

namespace zirdb_test {
ZirdbOdbcParameter input(DataType type, ZirdbOdbcValue value) {
  return parameter(type, odbc_parameters::kInput, 0, std::move(value));
}

ZirdbOdbcParameter output(DataType type, std::int64_t size,
                          ZirdbOdbcValue value) {
  return parameter(type, odbc_parameters::kOutput, size, std::move(value));
}

ZirdbOdbcParameter input_output(DataType type, std::int64_t size,
                                ZirdbOdbcValue value) {
  return parameter(type, odbc_parameters::kInputOutput, size, std::move(value));
}

ZirdbOdbcParameter return_value(DataType type, std::int64_t size,
                                ZirdbOdbcValue value) {
  return parameter(type, odbc_parameters::kReturnValue, size, std::move(value));
}

// ---------------------------------------------------------------------------
// Connections and folders
// ---------------------------------------------------------------------------

Connection::Connection(const std::string& connection_string) {
  std::string error;
  if (!zirdb_odbc_open(connection_string, &handle_, &error)) {
    throw std::runtime_error(error + " (opening " + connection_string + ")");
  }
}

Connection::Connection(Connection&& other) noexcept
    : handle_(std::exchange(other.handle_, nullptr)) {}

Connection::~Connection() { close(); }

void Connection::close() { zirdb_odbc_close(std::exchange(handle_, nullptr)); }

ZirdbOdbcResult Connection::run(const std::string& sql) {
  ZirdbOdbcResult result;
  if (!zirdb_odbc_execute(handle_, sql, &result)) {
    throw std::runtime_error(result.error + " (running " + sql + ")");
  }
  return result;
}

ZirdbOdbcResult Connection::run(const std::string& sql,
                                Parameters&& parameters) {
  return run(sql, parameters);
}

ZirdbOdbcResult Connection::run(const std::string& sql,
                                Parameters& parameters) {
  ZirdbOdbcResult result;
  if (!zirdb_odbc_execute(handle_, sql, &parameters, &result)) {
    throw std::runtime_error(result.error + " (running " + sql + ")");
  }
  return result;
}

ZirdbOdbcValue Connection::value_of(const std::string& sql,
                                    Parameters parameters) {
  const ZirdbOdbcResult result = run(sql, parameters);
  if (result.rows.size() != 1 || result.rows[0].size() != 1) {
    throw std::runtime_error("not exactly one value (running " + sql + ")");
  }
  return result.rows[0][0];
}

std::string Connection::error_of(const std::string& sql,
                                 Parameters parameters) {
  ZirdbOdbcResult result;
  if (zirdb_odbc_execute(handle_, sql, &parameters, &result)) {
    throw std::runtime_error("no failure (running " + sql + ")");
  }
  return result.error;
}

TemporaryFolder::TemporaryFolder() {
  path_ = (std::filesystem::temp_directory_path() / "zirdb-test.XXXXXX");
  if (mkdtemp(path_.data()) == nullptr) {
    throw std::runtime_error("no temporary folder " + path_);
  }
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

// ---------------------------------------------------------------------------
// Drivers
// ---------------------------------------------------------------------------

// SQLite's driver binds a missing buffer as NULL. It reads doubles through
// SQLite's text form, which has 15 digits, and SQLite itself stores -0.0 as the
// integer 0. Text is kept as bytes, valid or not; a wide text is converted up
// to its first NUL. All of SQLite's own errors come under one SQLSTATE.
const Driver kSqlite = {
    /*name=*/"SQLite",
    /*registered_as=*/"SQLite3",
    /*server=*/nullptr,
    /*quote=*/"\"",
    /*text_type=*/"text",
    /*blob_type=*/"blob",
    /*double_type=*/"double",
    /*boolean_type=*/"boolean",
    /*empty_input=*/EmptyInput::ArrivesAsNull,
    /*shows_booleans_as_text=*/false,
    /*keeps_only_15_digits=*/true,
    /*keeps_negative_zero=*/false,
    /*invalid_utf8_state=*/nullptr,
    /*accepts_surrogates_in_utf8=*/true,
    /*stored_of_a_nul_b=*/1,
    /*no_matching_row_fails=*/true,
    /*counts_only_changed_rows=*/false,
    /*runs_several_statements=*/false,
    /*syntax_error_state=*/"HY000",
    /*duplicate_key_state=*/"HY000",
    /*missing_table_state=*/"HY000",
    /*missing_parameter_state=*/"HY000",
    /*identifiers_hold_emoji=*/true,
    /*longest_column_name=*/255,
    /*unreachable=*/"Driver={SQLite3};Database=/zirdb/no/such/folder/x.db",
    /*unreachable_state=*/"HY000",
};

// PostgreSQL's driver refuses a missing buffer, and by default (BoolsAsChar=1)
// describes booleans as text. The server verifies UTF-8, cuts identifiers at
// 63 bytes and runs a list of statements; the driver answers with the first
// one's result. A wide text is converted up to its first NUL.
const Driver kPostgres = {
    /*name=*/"PostgreSQL",
    /*registered_as=*/"PostgreSQL Unicode",
    /*server=*/"postgres",
    /*quote=*/"\"",
    /*text_type=*/"text",
    /*blob_type=*/"bytea",
    /*double_type=*/"double precision",
    /*boolean_type=*/"boolean",
    /*empty_input=*/EmptyInput::IsRefused,
    /*shows_booleans_as_text=*/true,
    /*keeps_only_15_digits=*/false,
    /*keeps_negative_zero=*/true,
    /*invalid_utf8_state=*/"22021",
    /*accepts_surrogates_in_utf8=*/false,
    /*stored_of_a_nul_b=*/1,
    /*no_matching_row_fails=*/true,
    /*counts_only_changed_rows=*/false,
    /*runs_several_statements=*/true,
    /*syntax_error_state=*/"42601",
    /*duplicate_key_state=*/"23505",
    /*missing_table_state=*/"42P01",
    /*missing_parameter_state=*/"07002",
    /*identifiers_hold_emoji=*/true,
    /*longest_column_name=*/63,
    /*unreachable=*/
    "Driver={PostgreSQL Unicode};Servername=/zirdb/no/such/folder;Port=5432;"
    "Database=postgres;UID=zirdb",
    /*unreachable_state=*/"08001",
};

// MariaDB's driver binds a missing buffer as NULL and takes a count of 0 for a
// success. The server counts the rows an UPDATE changed, not those it matched;
// verifies UTF-8, but lets encoded surrogates pass; keeps identifiers in three
// bytes per character; and before 11 loses the sign of -0.0. Its BOOLEAN is a
// TINYINT, so that BIT(1) is the type with two values.
const Driver kMariadb = {
    /*name=*/"MariaDB",
    /*registered_as=*/"MariaDB Unicode",
    /*server=*/"mariadb",
    /*quote=*/"`",
    /*text_type=*/"longtext",
    /*blob_type=*/"longblob",
    /*double_type=*/"double",
    /*boolean_type=*/"bit(1)",
    /*empty_input=*/EmptyInput::ArrivesAsNull,
    /*shows_booleans_as_text=*/false,
    /*keeps_only_15_digits=*/false,
    /*keeps_negative_zero=*/false,
    /*invalid_utf8_state=*/"22007",
    /*accepts_surrogates_in_utf8=*/true,
    /*stored_of_a_nul_b=*/3,
    /*no_matching_row_fails=*/false,
    /*counts_only_changed_rows=*/true,
    /*runs_several_statements=*/false,
    /*syntax_error_state=*/"42000",
    /*duplicate_key_state=*/"23000",
    /*missing_table_state=*/"42S02",
    /*missing_parameter_state=*/"07002",
    /*identifiers_hold_emoji=*/false,
    /*longest_column_name=*/255,
    /*unreachable=*/
    "Driver={MariaDB Unicode};SOCKET=/zirdb/no/such/socket;UID=zirdb",
    /*unreachable_state=*/"HY000",
};

void PrintTo(const Driver* driver, std::ostream* out) { *out << driver->name; }

std::string driver_name(const testing::TestParamInfo<const Driver*>& info) {
  return info.param->name;
}

// ---------------------------------------------------------------------------
// A private corner of a database
// ---------------------------------------------------------------------------

namespace {

std::string first_line(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string server_file(const Driver& driver, const char* extension) {
  return std::string(ZIRDB_SERVERS_DIR) + "/" + driver.server + extension;
}

std::string unique_name() {
  static std::atomic<int> count = 0;
  return "t" + std::to_string(getpid()) + "_" + std::to_string(++count);
}

}  // namespace

std::string PrivateDatabase::unavailable(const Driver& driver) {
  std::string connection_string = "Driver={SQLite3};Database=:memory:";
  if (driver.server != nullptr) {
    connection_string = first_line(server_file(driver, ".connection"));
  }
  if (connection_string.empty()) {
    const std::string reason = first_line(server_file(driver, ".skip"));
    return reason.empty() ? std::string("no ") + driver.server +
                                " is running; CTest starts one"
                          : reason;
  }
  // The driver manager takes a name it does not know for a library.
  void* handle = nullptr;
  std::string error;
  const bool open = zirdb_odbc_open(connection_string, &handle, &error);
  zirdb_odbc_close(handle);
  const std::string unknown =
      std::string("Can't open lib '") + driver.registered_as + "'";
  return !open && error.find(unknown) != std::string::npos ? error : "";
}

PrivateDatabase::PrivateDatabase(const Driver& driver)
    : driver_(driver), name_(unique_name()) {
  if (driver_.server == nullptr) {
    folder_ = std::make_unique<TemporaryFolder>();
    connection_string_ =
        "Driver={SQLite3};Database=" + folder_->path() + "/test.db";
    return;
  }
  connection_string_ = first_line(server_file(driver_, ".connection"));
  Connection connection(connection_string_);
  if (&driver_ == &kPostgres) {
    connection.run("CREATE SCHEMA " + name_);
  } else {
    connection.run("CREATE DATABASE " + name_);
  }
}

PrivateDatabase::~PrivateDatabase() {
  if (driver_.server == nullptr) return;
  try {
    Connection connection(connection_string_);
    if (&driver_ == &kPostgres) {
      connection.run("DROP SCHEMA " + name_ + " CASCADE");
    } else {
      connection.run("DROP DATABASE " + name_);
    }
  } catch (const std::exception& failure) {
    ADD_FAILURE() << failure.what();
  }
}

Connection PrivateDatabase::connect(const std::string& options) const {
  Connection connection(connection_string_ + options);
  for (const std::string& sql : preparations()) connection.run(sql);
  return connection;
}

std::vector<std::string> PrivateDatabase::preparations() const {
  if (&driver_ == &kPostgres) {
    return {"SET search_path TO " + name_, "SET TimeZone TO 'UTC'"};
  }
  if (&driver_ == &kMariadb) {
    return {"USE " + name_, "SET time_zone = '+00:00'"};
  }
  return {};
}

void Journey::SetUp() {
  const std::string reason = PrivateDatabase::unavailable(driver());
  if (!reason.empty()) GTEST_SKIP() << reason;
  database_ = std::make_unique<PrivateDatabase>(driver());
  db_ = std::make_unique<Connection>(database_->connect());
}

void Journey::TearDown() {
  db_.reset();
  database_.reset();
}

}  // namespace zirdb_test
