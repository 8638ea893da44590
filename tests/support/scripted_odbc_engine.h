// SPDX-License-Identifier: MIT
//
// The inside of the scripted database: one operation per ODBC entry point,
// which the two faces forward to, and the state behind Script. Tests use
// scripted_odbc.h only.

#ifndef ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_ENGINE_H
#define ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_ENGINE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "support/scripted_odbc.h"

/// A program that has to tell the work of this database from that of the
/// library under test (whose allocation is this?) defines it; null otherwise.
/// Called with true at the begin of every ODBC call and with false at its end,
/// on the thread of the call.
extern "C" __attribute__((weak, visibility("default"))) void
scripted_odbc_at_work(bool entered);

namespace scripted_odbc {

class Engine {
 public:
  explicit Engine(Face face) : face_(face) {}

  // The fifteen entry points.
  SQLRETURN alloc_handle(SQLSMALLINT type, SQLHANDLE input, SQLHANDLE* output);
  SQLRETURN set_env_attr(SQLHENV env, SQLINTEGER attribute, SQLPOINTER value,
                         SQLINTEGER length);
  SQLRETURN driver_connect(SQLHDBC dbc, SQLHWND window, SQLCHAR* string,
                           SQLSMALLINT length, SQLCHAR* out,
                           SQLSMALLINT out_size, SQLSMALLINT* out_length,
                           SQLUSMALLINT completion);
  SQLRETURN disconnect(SQLHDBC dbc);
  SQLRETURN free_handle(SQLSMALLINT type, SQLHANDLE handle);
  SQLRETURN prepare(SQLHSTMT statement, SQLCHAR* sql, SQLINTEGER length);
  SQLRETURN execute(SQLHSTMT statement);
  SQLRETURN exec_direct(SQLHSTMT statement, SQLCHAR* sql, SQLINTEGER length);
  SQLRETURN bind_parameter(SQLHSTMT statement, SQLUSMALLINT number,
                           SQLSMALLINT direction, SQLSMALLINT c_type,
                           SQLSMALLINT sql_type, SQLULEN column_size,
                           SQLSMALLINT digits, SQLPOINTER buffer,
                           SQLLEN buffer_length, SQLLEN* indicator);
  SQLRETURN num_result_cols(SQLHSTMT statement, SQLSMALLINT* count);
  SQLRETURN describe_col(SQLHSTMT statement, SQLUSMALLINT column, SQLCHAR* name,
                         SQLSMALLINT name_size, SQLSMALLINT* name_length,
                         SQLSMALLINT* type, SQLULEN* size, SQLSMALLINT* digits,
                         SQLSMALLINT* nullable);
  SQLRETURN fetch(SQLHSTMT statement);
  SQLRETURN get_data(SQLHSTMT statement, SQLUSMALLINT column,
                     SQLSMALLINT c_type, SQLPOINTER buffer,
                     SQLLEN buffer_length, SQLLEN* indicator);
  SQLRETURN row_count(SQLHSTMT statement, SQLLEN* count);
  SQLRETURN get_diag_rec(SQLSMALLINT type, SQLHANDLE handle, SQLSMALLINT record,
                         SQLCHAR* state, SQLINTEGER* native, SQLCHAR* message,
                         SQLSMALLINT message_size, SQLSMALLINT* length);

  /// An entry point that the library under test must not use; SQL_ERROR.
  SQLRETURN forbidden(const char* name);
  /// What the driver manager asks on its own behalf: logged, not answered.
  SQLRETURN manager_call(const char* name);

 private:
  friend class Script;

  enum class HandleType { kEnv, kDbc, kStmt };

  struct Bound {
    Sent arguments;
    SQLPOINTER buffer = nullptr;
    SQLLEN* indicator = nullptr;
  };

  struct Handle {
    HandleType type = HandleType::kEnv;
    int number = 0;
    Handle* parent = nullptr;
    bool released = false;
    std::vector<Diagnostic> diagnostics;
    // Connections.
    bool connected = false;
    // Statements. The cursor stands before row `next_row`; `on_row` says
    // whether the row before it can be read; the rest is the place reached in
    // the column that is being read.
    bool prepared = false;
    std::string sql;
    std::map<int, Bound> bound;
    std::shared_ptr<const ResultSet> result;
    std::size_t next_row = 0;
    bool on_row = false;
    int column = 0;
    std::size_t place = 0;
    bool column_done = false;
  };

  using Handler = std::function<std::optional<Reply>(const Call&)>;
  using Output = std::variant<Cell, Raw>;
  using Answer = std::variant<Reply, Handler, DiagReply>;
  using Effect = std::function<SQLRETURN(Handle&)>;
  /// Replaces the number that a call told its caller.
  using Report = std::function<void(SQLLEN)>;

  struct Rule {
    std::string where;
    int which = 0;  // 0: every call
    Answer answer;
    int seen = 0;
  };

  void add_rule(std::string where, int which, Answer answer);
  ResultSet& edit_result();
  void reset();

  int number_of(SQLHANDLE handle) const;
  Handle* find(std::optional<HandleType> type, SQLHANDLE handle,
               const std::string& label);
  SQLRETURN serve(Call call, std::optional<HandleType> type, SQLHANDLE handle,
                  const Effect& effect, const Report& report = nullptr);
  std::variant<Reply, DiagReply> decide(const Call& call,
                                        std::unique_lock<std::mutex>& lock);
  void complain(std::string text) { complaints_.push_back(std::move(text)); }

  SQLRETURN run(Handle& statement);
  SQLRETURN read_cell(Handle& statement, const Cell& cell, SQLSMALLINT c_type,
                      SQLPOINTER buffer, SQLLEN buffer_length,
                      SQLLEN* indicator);
  void write_output(const Bound& bound, const Output& output);
  void release(Handle& handle);

  const Face face_;
  mutable std::mutex mutex_;
  std::map<void*, std::unique_ptr<Handle>> handles_;
  std::vector<Handle*> in_order_;
  std::vector<Rule> rules_;
  std::shared_ptr<ResultSet> result_ = std::make_shared<ResultSet>();
  std::map<std::string, std::shared_ptr<const ResultSet>> results_by_sql_;
  std::map<int, Output> outputs_;
  std::map<std::uint64_t, Call> log_;
  std::uint64_t next_call_ = 0;
  std::vector<Call> manager_log_;
  std::vector<std::vector<Sent>> executions_;
  std::vector<std::string> complaints_;
};

/// For as long as the database serves a call; see scripted_odbc_at_work.
class AtWork {
 public:
  AtWork() { tell(true); }
  ~AtWork() { tell(false); }
  AtWork(const AtWork&) = delete;
  AtWork& operator=(const AtWork&) = delete;

 private:
  static void tell(bool entered) {
    if (scripted_odbc_at_work != nullptr) scripted_odbc_at_work(entered);
  }
};

/// The one engine of this image (program or driver).
Script& this_script();

}  // namespace scripted_odbc

#endif  // ZIRDB_TESTS_SUPPORT_SCRIPTED_ODBC_ENGINE_H
