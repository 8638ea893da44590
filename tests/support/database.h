// SPDX-License-Identifier: MIT
//
// Real databases for tests: values and parameters in few words, an owner for a
// connection, the three drivers with what is peculiar to each, and a private
// corner of a database for every test.
//
// Helpers throw std::runtime_error with the driver's text where a test did not
// ask for a failure, so that arranging needs no assertions.

#ifndef ZIRDB_TESTS_SUPPORT_DATABASE_H
#define ZIRDB_TESTS_SUPPORT_DATABASE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/odbc_parameters.h"
#include "zirdb_odbc.h"

// Compares the kind and the payload it names; doubles by their bits, so that
// -0.0 is not 0.0.
bool operator==(const ZirdbOdbcValue& left, const ZirdbOdbcValue& right);
void PrintTo(const ZirdbOdbcValue& value, std::ostream* out);

namespace zirdb_test {

// ---------------------------------------------------------------------------
// Values and parameters
// ---------------------------------------------------------------------------

using odbc_parameters::Parameters;
using DataType = odbc_parameters::Type;
using odbc_parameters::kBigint;
using odbc_parameters::kBoolean;
using odbc_parameters::kByKind;
using odbc_parameters::kGuid;
using odbc_parameters::kInteger;
using odbc_parameters::kVarbinary;
using odbc_parameters::kVarchar;
using odbc_parameters::kVarwchar;

using odbc_parameters::boolean;
using odbc_parameters::bytes;
using odbc_parameters::integer;
using odbc_parameters::null_value;
using odbc_parameters::parameter;
using odbc_parameters::real;
using odbc_parameters::text;

ZirdbOdbcParameter input(DataType type, ZirdbOdbcValue value);
ZirdbOdbcParameter output(DataType type, std::int64_t size = 0,
                          ZirdbOdbcValue value = {});
ZirdbOdbcParameter input_output(DataType type, std::int64_t size,
                                ZirdbOdbcValue value);
ZirdbOdbcParameter return_value(DataType type, std::int64_t size = 0,
                                ZirdbOdbcValue value = {});

// ---------------------------------------------------------------------------
// Connections and folders
// ---------------------------------------------------------------------------

/// Owns one open connection.
class Connection {
 public:
  /// Throws when it cannot be opened.
  explicit Connection(const std::string& connection_string);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  Connection(Connection&& other) noexcept;
  Connection& operator=(Connection&&) = delete;
  ~Connection();

  void* handle() const { return handle_; }
  void close();

  /// Throws the driver's text when the statement fails.
  ZirdbOdbcResult run(const std::string& sql);
  ZirdbOdbcResult run(const std::string& sql, Parameters&& parameters);
  /// The same, and `parameters` holds what was read back.
  ZirdbOdbcResult run(const std::string& sql, Parameters& parameters);

  /// The only value of a result that must have one row and one column.
  ZirdbOdbcValue value_of(const std::string& sql, Parameters parameters = {});

  /// The text of a failure; throws when the statement succeeds.
  std::string error_of(const std::string& sql, Parameters parameters = {});

 private:
  void* handle_ = nullptr;
};

/// A folder of its own under the system's temporary folder, removed at the end
/// with all it holds.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// ---------------------------------------------------------------------------
// Drivers
// ---------------------------------------------------------------------------

/// What a driver makes of an input without text or bytes. It is bound without
/// a buffer, which can be read as "no value" or as "nothing in it".
enum class EmptyInput { ArrivesAsNull, IsRefused };

/// One ODBC driver and its database: how its SQL names things, and the facts
/// in which it differs from the others. What each fact is due to is told where
/// the drivers are defined.
struct Driver {
  const char* name;           ///< in test names
  const char* registered_as;  ///< in odbcinst.ini
  const char* server;         ///< as servers.sh calls it; null: embedded

  // Its SQL.
  const char* quote;
  const char* text_type;
  const char* blob_type;
  const char* double_type;
  const char* boolean_type;

  // Facts about values.
  EmptyInput empty_input;
  bool shows_booleans_as_text;
  bool keeps_only_15_digits;
  bool keeps_negative_zero;        ///< MariaDB: before version 11
  const char* invalid_utf8_state;  ///< null: the bytes are kept
  bool accepts_surrogates_in_utf8;
  int stored_of_a_nul_b;  ///< bytes kept of the wide text "a", NUL, "b"

  // Facts about statements.
  bool no_matching_row_fails;
  bool counts_only_changed_rows;
  bool runs_several_statements;
  const char* syntax_error_state;
  const char* duplicate_key_state;
  const char* missing_table_state;
  const char* missing_parameter_state;

  // Facts about names.
  bool identifiers_hold_emoji;
  std::size_t longest_column_name;  ///< bytes, of what the layer can show

  // Facts about connections.
  const char* unreachable;  ///< connection string of a server that is not there
  const char* unreachable_state;
};

extern const Driver kSqlite;
extern const Driver kPostgres;
extern const Driver kMariadb;

void PrintTo(const Driver* driver, std::ostream* out);

// ---------------------------------------------------------------------------
// A private corner of a database
// ---------------------------------------------------------------------------

/// A database file, schema or database that no other test uses, so that tests
/// can run side by side with plain table names. Dropped at the end.
class PrivateDatabase {
 public:
  explicit PrivateDatabase(const Driver& driver);
  PrivateDatabase(const PrivateDatabase&) = delete;
  PrivateDatabase& operator=(const PrivateDatabase&) = delete;
  ~PrivateDatabase();

  /// Why this driver cannot be tested here; empty when it can.
  static std::string unavailable(const Driver& driver);

  /// `options` are appended to the connection string.
  Connection connect(const std::string& options = "") const;

  /// For who connects by other means: what opens the database, and what to run
  /// then, so that plain table names mean those of this corner.
  const std::string& connection_string() const { return connection_string_; }
  std::vector<std::string> preparations() const;

 private:
  const Driver& driver_;
  std::string name_;
  std::string connection_string_;
  std::unique_ptr<TemporaryFolder> folder_;
};

/// A test with one driver and a private database. Skipped, with the reason,
/// where the server or the driver is missing.
class Journey : public testing::TestWithParam<const Driver*> {
 protected:
  void SetUp() override;
  void TearDown() override;

  const Driver& driver() const { return *GetParam(); }
  const PrivateDatabase& database() const { return *database_; }
  /// The connection every test has.
  Connection& db() { return *db_; }
  /// A further one to the same private database.
  Connection connect(const std::string& options = "") const {
    return database_->connect(options);
  }
  std::string quoted(const std::string& identifier) const {
    return driver().quote + identifier + driver().quote;
  }

 private:
  std::unique_ptr<PrivateDatabase> database_;
  std::unique_ptr<Connection> db_;
};

/// The last part of a test's name.
std::string driver_name(const testing::TestParamInfo<const Driver*>& info);

// The suite's tests for each of the three databases.
#define ZIRDB_FOR_EVERY_DRIVER(suite)                                   \
  INSTANTIATE_TEST_SUITE_P(                                             \
      , suite,                                                          \
      testing::Values(&::zirdb_test::kSqlite, &::zirdb_test::kPostgres, \
                      &::zirdb_test::kMariadb),                         \
      ::zirdb_test::driver_name)

}  // namespace zirdb_test

#endif  // ZIRDB_TESTS_SUPPORT_DATABASE_H
