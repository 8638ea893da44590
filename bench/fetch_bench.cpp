// SPDX-License-Identifier: MIT
//
// fetch_bench: what it costs to bring a whole result into memory, and to read
// it from there as a script does, against the bare ODBC calls that no reader
// can do without.
//
// Every repetition of every way runs in a fresh process, the ways in turn, so
// that a busy machine disturbs them alike and only their ratio counts. Time is
// the process's CPU time, user and system.
//
// Sections: cases and ways; what a child measures; the floor; the layer; the
// objects; running children; the report; the command line.

#include <sql.h>
#include <sqlext.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "bench_data.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

using bench::Column;
using bench::DataSet;
using bench::Kind;

// ---------------------------------------------------------------------------
// Cases and ways
// ---------------------------------------------------------------------------

enum class Driver { kNull, kSqlite };

struct Case {
  const char* name;
  Driver driver;
  const char* data;
  std::int64_t rows;  ///< of one execution
  std::int64_t executions;
  std::int64_t quick;  ///< rows, or executions of one row, of a smoke run
};

constexpr Case kCases[] = {
    {"sqlite/mixed", Driver::kSqlite, "mixed", 200000, 1, 200},
    {"sqlite/narrow", Driver::kSqlite, "narrow", 1000000, 1, 1000},
    {"sqlite/ascii", Driver::kSqlite, "ascii", 200000, 1, 200},
    {"sqlite/wide", Driver::kSqlite, "wide", 20000, 1, 20},
    {"null/mixed", Driver::kNull, "mixed", 200000, 1, 200},
    {"null/narrow", Driver::kNull, "narrow", 1000000, 1, 1000},
    {"null/ascii", Driver::kNull, "ascii", 200000, 1, 200},
    {"null/wide", Driver::kNull, "wide", 20000, 1, 20},
    {"null/one-row", Driver::kNull, "mixed", 1, 100000, 100},
};

/// What the ratio to the floor should stay below.
struct Target {
  std::string_view which;
  std::string_view way;
  double ratio;
};

constexpr Target kTargets[] = {
    {"sqlite/mixed", "layer", 1.38},     {"null/mixed", "layer", 4.1},
    {"sqlite/mixed", "recordset", 1.15}, {"sqlite/narrow", "recordset", 1.08},
    {"sqlite/ascii", "recordset", 1.25}, {"sqlite/wide", "recordset", 2.3},
    {"null/mixed", "recordset", 2.2},    {"null/one-row", "recordset", 1.5},
    {"sqlite/mixed", "read", 0.28},      {"sqlite/mixed", "whole", 1.4},
};

/// A case as a child runs it.
struct Job {
  const DataSet* data = nullptr;
  Driver driver = Driver::kNull;
  std::int64_t rows = 0;
  std::int64_t executions = 1;
  std::string connection;

  std::string sql() const {
    return driver == Driver::kNull ? data->name + " " + std::to_string(rows)
                                   : "SELECT * FROM " + data->name;
  }
  std::int64_t cells() const {
    return rows * executions * static_cast<std::int64_t>(data->columns.size());
  }
};

/// What a child reports.
struct Measurement {
  std::int64_t cpu_ns = 0;
  std::int64_t release_ns = 0;  ///< freeing the result; 0 where that is part of
                                ///< cpu_ns or of nothing
  std::int64_t peak_bytes = 0;  ///< the resident set's growth to its peak, 0
                                ///< where nothing is brought into memory
};

// ---------------------------------------------------------------------------
// What a child measures
// ---------------------------------------------------------------------------

std::int64_t cpu_now() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return std::int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

/// The peak of the resident set. Not getrusage's, which a child inherits.
std::int64_t peak_resident_bytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    std::int64_t kilobytes = 0;
    if (std::sscanf(line.c_str(), "VmHWM: %" SCNd64, &kilobytes) == 1) {
      return kilobytes * 1024;
    }
  }
  throw std::runtime_error("no VmHWM in /proc/self/status");
}

void require(bool condition, std::string_view what) {
  if (!condition) {
    throw std::runtime_error(std::string(what));
  }
}

// ---------------------------------------------------------------------------
// The floor: the calls the layer must make, and nothing kept
// ---------------------------------------------------------------------------

bool succeeded(SQLRETURN code) {
  return code == SQL_SUCCESS || code == SQL_SUCCESS_WITH_INFO;
}

SQLCHAR* odbc_text(const std::string& text) {
  return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text.c_str()));
}

/// The driver of a case is not on this machine: nothing can be said about it.
struct DriverMissing : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Owns one ODBC handle; its users fail by exception.
class Handle {
 public:
  Handle(SQLSMALLINT type, SQLHANDLE parent) : type_(type) {
    require(succeeded(SQLAllocHandle(type, parent, &handle_)),
            "cannot allocate an ODBC handle");
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { SQLFreeHandle(type_, handle_); }

  SQLHANDLE get() const { return handle_; }

  void check(SQLRETURN code, const char* call) const {
    if (!succeeded(code)) {
      throw std::runtime_error(std::string(call) + ": " + diagnostic());
    }
  }

  std::string diagnostic() const {
    SQLCHAR state[SQL_SQLSTATE_SIZE + 1] = {};
    SQLCHAR text[512] = {};
    SQLINTEGER native = 0;
    SQLSMALLINT length = 0;
    SQLGetDiagRec(type_, handle_, 1, state, &native, text, sizeof text,
                  &length);
    return std::string(reinterpret_cast<char*>(state)) + " " +
           reinterpret_cast<char*>(text);
  }

 private:
  SQLSMALLINT type_;
  SQLHANDLE handle_ = SQL_NULL_HANDLE;
};

class OdbcConnection {
 public:
  explicit OdbcConnection(const std::string& connection)
      : env_(SQL_HANDLE_ENV, SQL_NULL_HANDLE) {
    env_.check(SQLSetEnvAttr(env_.get(), SQL_ATTR_ODBC_VERSION,
                             reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3), 0),
               "SQLSetEnvAttr");
    dbc_.emplace(SQL_HANDLE_DBC, env_.get());
    const SQLRETURN code =
        SQLDriverConnect(dbc_->get(), nullptr, odbc_text(connection), SQL_NTS,
                         nullptr, 0, nullptr, SQL_DRIVER_NOPROMPT);
    if (!succeeded(code)) {
      const std::string why = dbc_->diagnostic();
      // The manager's words for a name it does not know and for a library that
      // is not there.
      if (why.rfind("IM002", 0) == 0 || why.rfind("01000", 0) == 0) {
        throw DriverMissing(why);
      }
      throw std::runtime_error("SQLDriverConnect: " + why);
    }
  }
  OdbcConnection(const OdbcConnection&) = delete;
  OdbcConnection& operator=(const OdbcConnection&) = delete;
  ~OdbcConnection() { SQLDisconnect(dbc_->get()); }

  SQLHANDLE get() const { return dbc_->get(); }

  void run(const std::string& sql) const {
    const Handle statement(SQL_HANDLE_STMT, get());
    statement.check(SQLExecDirect(statement.get(), odbc_text(sql), SQL_NTS),
                    "SQLExecDirect");
  }

 private:
  Handle env_;
  std::optional<Handle> dbc_;
};

/// The C type a column is read as, by its SQL type.
SQLSMALLINT c_type_of(SQLSMALLINT sql_type) {
  switch (sql_type) {
    case SQL_NUMERIC:
    case SQL_DECIMAL:
    case SQL_FLOAT:
    case SQL_REAL:
    case SQL_DOUBLE:
      return SQL_C_DOUBLE;
    case SQL_SMALLINT:
    case SQL_INTEGER:
    case SQL_TINYINT:
    case SQL_BIGINT:
      return SQL_C_SBIGINT;
    case SQL_BINARY:
    case SQL_VARBINARY:
    case SQL_LONGVARBINARY:
      return SQL_C_BINARY;
    default:
      return SQL_C_CHAR;
  }
}

struct Totals {
  std::int64_t rows = 0;
  std::int64_t checksum = 0;
};

/// One text or blob in pieces; its length in bytes, -1 for NULL.
std::int64_t read_bytes(const Handle& statement, SQLUSMALLINT number,
                        SQLSMALLINT c_type, char (&buffer)[1024]) {
  const std::int64_t piece =
      c_type == SQL_C_CHAR ? sizeof buffer - 1 : sizeof buffer;
  std::int64_t size = 0;
  SQLLEN indicator = 0;
  for (;;) {
    const SQLRETURN code = SQLGetData(statement.get(), number, c_type, buffer,
                                      sizeof buffer, &indicator);
    if (indicator == SQL_NULL_DATA) {
      return -1;
    }
    if (code == SQL_SUCCESS) {
      return size + indicator;
    }
    statement.check(code, "SQLGetData");
    size += piece;
  }
}

/// Every cell of the current row; what each adds to the checksum.
std::int64_t read_row(const Handle& statement,
                      const std::vector<SQLSMALLINT>& c_types,
                      char (&buffer)[1024]) {
  std::int64_t sum = 0;
  for (std::size_t index = 0; index < c_types.size(); ++index) {
    const auto number = static_cast<SQLUSMALLINT>(index + 1);
    SQLLEN indicator = 0;
    if (c_types[index] == SQL_C_SBIGINT) {
      std::int64_t value = 0;
      const SQLRETURN code = SQLGetData(statement.get(), number, SQL_C_SBIGINT,
                                        &value, sizeof value, &indicator);
      statement.check(code, "SQLGetData");
      sum += indicator == SQL_NULL_DATA ? 1 : value;
    } else if (c_types[index] == SQL_C_DOUBLE) {
      double value = 0;
      const SQLRETURN code = SQLGetData(statement.get(), number, SQL_C_DOUBLE,
                                        &value, sizeof value, &indicator);
      statement.check(code, "SQLGetData");
      sum += indicator == SQL_NULL_DATA ? 1 : static_cast<std::int64_t>(value);
    } else {
      const std::int64_t size =
          read_bytes(statement, number, c_types[index], buffer);
      sum += size < 0 ? 1 : size;
    }
  }
  return sum;
}

Totals execute_floor(SQLHDBC connection, const std::string& sql) {
  const Handle statement(SQL_HANDLE_STMT, connection);
  statement.check(SQLExecDirect(statement.get(), odbc_text(sql), SQL_NTS),
                  "SQLExecDirect");
  SQLSMALLINT count = 0;
  statement.check(SQLNumResultCols(statement.get(), &count),
                  "SQLNumResultCols");
  std::vector<SQLSMALLINT> c_types(static_cast<std::size_t>(count));
  for (std::size_t index = 0; index < c_types.size(); ++index) {
    SQLCHAR name[256];
    SQLSMALLINT name_length = 0;
    SQLSMALLINT sql_type = 0;
    SQLULEN size = 0;
    SQLSMALLINT digits = 0;
    SQLSMALLINT nullability = 0;
    statement.check(
        SQLDescribeCol(statement.get(), static_cast<SQLUSMALLINT>(index + 1),
                       name, sizeof name, &name_length, &sql_type, &size,
                       &digits, &nullability),
        "SQLDescribeCol");
    c_types[index] = c_type_of(sql_type);
  }
  Totals totals;
  char buffer[1024];
  for (;;) {
    const SQLRETURN code = SQLFetch(statement.get());
    if (code == SQL_NO_DATA) {
      break;
    }
    statement.check(code, "SQLFetch");
    ++totals.rows;
    totals.checksum += read_row(statement, c_types, buffer);
  }
  SQLLEN affected = 0;
  SQLRowCount(statement.get(), &affected);
  return totals;
}

Measurement measure_floor(const Job& job) {
  const OdbcConnection connection(job.connection);
  const std::string sql = job.sql();
  const std::int64_t expected = bench::checksum(*job.data, job.rows);
  Measurement measured;
  const std::int64_t resident = peak_resident_bytes();
  bool correct = true;
  const std::int64_t start = cpu_now();
  for (std::int64_t run = 0; run < job.executions; ++run) {
    const Totals totals = execute_floor(connection.get(), sql);
    correct &= totals.rows == job.rows && totals.checksum == expected;
  }
  measured.cpu_ns = cpu_now() - start;
  measured.peak_bytes = peak_resident_bytes() - resident;
  require(correct, "the floor read wrong data");
  return measured;
}

// ---------------------------------------------------------------------------
// The layer: zirdb_odbc_execute into records
// ---------------------------------------------------------------------------

class LayerConnection {
 public:
  explicit LayerConnection(const std::string& connection) {
    std::string error;
    require(zirdb_odbc_open(connection, &handle_, &error), error);
  }
  LayerConnection(const LayerConnection&) = delete;
  LayerConnection& operator=(const LayerConnection&) = delete;
  ~LayerConnection() { zirdb_odbc_close(handle_); }

  void* get() const { return handle_; }

 private:
  void* handle_ = nullptr;
};

bool holds(const ZirdbOdbcValue& value, const Column& column,
           std::int64_t row) {
  if (column.is_null(row)) {
    return value.kind == ZirdbOdbcValueKind::Null;
  }
  switch (column.kind) {
    case Kind::kInteger:
      return value.kind == ZirdbOdbcValueKind::Int64 &&
             value.int64_value == column.integer(row);
    case Kind::kDouble:
      return value.kind == ZirdbOdbcValueKind::Double &&
             std::equal_to<>()(value.double_value, column.number(row));
    case Kind::kText:
      return value.kind == ZirdbOdbcValueKind::Text &&
             value.text_value == column.bytes(row);
    case Kind::kBlob:
      return value.kind == ZirdbOdbcValueKind::Binary &&
             std::equal(value.binary_value.begin(), value.binary_value.end(),
                        column.bytes(row).begin(), column.bytes(row).end(),
                        [](unsigned char byte, char expected) {
                          return byte == static_cast<unsigned char>(expected);
                        });
  }
  return false;
}

void verify(const ZirdbOdbcResult& result, const Job& job) {
  const std::vector<Column>& columns = job.data->columns;
  require(result.columns.size() == columns.size(), "wrong number of columns");
  require(result.rows.size() == static_cast<std::size_t>(job.rows),
          "wrong number of rows");
  require(result.rows_affected == job.rows, "wrong count of affected rows");
  for (std::size_t row = 0; row < result.rows.size(); ++row) {
    require(result.rows[row].size() == columns.size(), "a row of wrong width");
    for (std::size_t index = 0; index < columns.size(); ++index) {
      if (!holds(result.rows[row][index], columns[index],
                 static_cast<std::int64_t>(row))) {
        throw std::runtime_error("wrong value in row " + std::to_string(row) +
                                 ", column " + columns[index].name);
      }
    }
  }
}

Measurement measure_layer_once(const Job& job) {
  const LayerConnection connection(job.connection);
  const std::string sql = job.sql();
  auto result = std::make_unique<ZirdbOdbcResult>();
  Measurement measured;
  const std::int64_t resident = peak_resident_bytes();
  const std::int64_t start = cpu_now();
  const bool done = zirdb_odbc_execute(connection.get(), sql, result.get());
  measured.cpu_ns = cpu_now() - start;
  measured.peak_bytes = peak_resident_bytes() - resident;
  require(done, "zirdb_odbc_execute: " + result->error);
  verify(*result, job);
  const std::int64_t release = cpu_now();
  result.reset();
  measured.release_ns = cpu_now() - release;
  return measured;
}

Measurement measure_layer_often(const Job& job) {
  const LayerConnection connection(job.connection);
  const std::string sql = job.sql();
  Measurement measured;
  const std::int64_t resident = peak_resident_bytes();
  const std::int64_t start = cpu_now();
  for (std::int64_t run = 0; run < job.executions; ++run) {
    ZirdbOdbcResult result;
    if (!zirdb_odbc_execute(connection.get(), sql, &result)) {
      throw std::runtime_error("zirdb_odbc_execute: " + result.error);
    }
    if (run == 0 || run == job.executions - 1) {
      verify(result, job);
    }
  }
  measured.cpu_ns = cpu_now() - start;
  measured.peak_bytes = peak_resident_bytes() - resident;
  return measured;
}

Measurement measure_layer(const Job& job) {
  return job.executions == 1 ? measure_layer_once(job)
                             : measure_layer_often(job);
}

// ---------------------------------------------------------------------------
// The objects: Connection.Execute to a recordset, read late-bound
// ---------------------------------------------------------------------------

using Recordset = InterfacePtr<IZIRDBRecordset>;

void succeed(HRESULT result, const char* what) {
  if (FAILED(result)) {
    throw std::runtime_error(std::string(what) + ": code " +
                             std::to_string(result));
  }
}

_bstr_t bstr(const std::string& ascii) {
  return {std::wstring(ascii.begin(), ascii.end()).c_str()};
}

class ObjectConnection {
 public:
  explicit ObjectConnection(const std::string& connection) {
    InterfacePtr<IClassFactory> factory;
    succeed(factory.receive([](void** out) {
      return DllGetClassObject(CLSID_ZIRDBConnection, IID_IClassFactory, out);
    }),
            "DllGetClassObject");
    succeed(object_.receive([&](void** out) {
      return factory->CreateInstance(nullptr, IID_IZIRDBConnection, out);
    }),
            "CreateInstance");
    succeed(object_->Open(bstr(connection).m_s, nullptr, nullptr, 0), "Open");
  }

  Recordset execute(const _bstr_t& sql) const {
    IZIRDBRecordset* recordset = nullptr;
    succeed(object_->Execute(sql.m_s, nullptr, 0, &recordset), "Execute");
    require(recordset != nullptr, "no recordset");
    return Recordset::adopt(recordset);
  }

 private:
  InterfacePtr<IZIRDBConnection> object_;
};

/// Late-bound calls as a script engine makes them, by ids that it looked up.
_variant_t invoke(IDispatch* object, DISPID member, WORD flags,
                  VARIANT* argument) {
  DISPPARAMS parameters = {argument, nullptr, argument != nullptr ? 1U : 0U, 0};
  _variant_t result;
  succeed(object->Invoke(member, IID_NULL, 0, flags, &parameters, &result,
                         nullptr, nullptr),
          "Invoke");
  return result;
}

/// recordset(name).Value
_variant_t read_cell(IDispatch* recordset, _variant_t& name) {
  const _variant_t field = invoke(
      recordset, DISPID_VALUE, DISPATCH_METHOD | DISPATCH_PROPERTYGET, &name);
  return invoke(field.pdispVal, DISPID_ZIRDB_FIELD_VALUE,
                DISPATCH_METHOD | DISPATCH_PROPERTYGET, nullptr);
}

std::string utf8_of(const wchar_t* text) {
  std::string utf8(utf32_utf8(nullptr, 0, text), '\0');
  utf32_utf8(utf8.data(), utf8.size(), text);
  utf8.pop_back();
  return utf8;
}

bool holds(const VARIANT& value, const Column& column, std::int64_t row) {
  if (column.is_null(row)) return value.vt == VT_NULL;
  switch (column.kind) {
    case Kind::kInteger:
      return value.vt == VT_I8 && value.llVal == column.integer(row);
    case Kind::kDouble:
      return value.vt == VT_R8 &&
             std::equal_to<>()(value.dblVal, column.number(row));
    case Kind::kText:
      return value.vt == VT_BSTR && utf8_of(value.bstrVal) == column.bytes(row);
    case Kind::kBlob: {
      if (value.vt != (VT_ARRAY | VT_UI1)) return false;
      const std::string& expected = column.bytes(row);
      LONG last = 0;
      SafeArrayGetUBound(value.parray, 1, &last);
      return last + 1 == static_cast<LONG>(expected.size()) &&
             std::memcmp(value.parray->pvData, expected.data(),
                         expected.size()) == 0;
    }
  }
  return false;
}

using Names = std::vector<_variant_t>;

Names names_of(const DataSet& data) {
  Names names;
  for (const Column& column : data.columns) {
    names.emplace_back(static_cast<const wchar_t*>(bstr(column.name)));
  }
  return names;
}

/// Walks the rows once, from the current one to the end, and hands every cell
/// to `use(value, row, column)`; the number of rows.
template <class Use>
std::int64_t read_all_cells(const Recordset& recordset, Names& names, Use use) {
  const auto dispatch = recordset.query<IDispatch>(IID_IDispatch);
  std::int64_t row = 0;
  while (invoke(dispatch.get(), DISPID_ZIRDB_RECORDSET_EOF,
                DISPATCH_PROPERTYGET, nullptr)
             .boolVal == VARIANT_FALSE) {
    for (std::size_t i = 0; i < names.size(); ++i) {
      use(read_cell(dispatch.get(), names[i]), row, i);
    }
    ++row;
    invoke(dispatch.get(), DISPID_ZIRDB_RECORDSET_MOVENEXT, DISPATCH_METHOD,
           nullptr);
  }
  return row;
}

/// What a value adds to a reader's sum: as bench::checksum, but texts count by
/// their characters.
std::int64_t addend(const VARIANT& value) {
  switch (value.vt) {
    case VT_I8:
      return value.llVal;
    case VT_R8:
      return static_cast<std::int64_t>(value.dblVal);
    case VT_BSTR:
      return SysStringLen(value.bstrVal);
    case VT_ARRAY | VT_UI1:
      return value.parray->rgsabound[0].cElements;
    default:
      return 1;
  }
}

/// Reads every cell and lets it go.
Totals read_rows(const Recordset& recordset, Names& names) {
  Totals totals;
  totals.rows = read_all_cells(
      recordset, names,
      [&](const VARIANT& value, std::int64_t /*row*/, std::size_t /*column*/) {
        totals.checksum += addend(value);
      });
  return totals;
}

/// Compares every cell of a recordset with the data set. What a measured pass
/// over the same rows must come to.
Totals verified(const Recordset& recordset, const Job& job, Names& names) {
  Totals totals;
  totals.rows = read_all_cells(
      recordset, names,
      [&](const VARIANT& value, std::int64_t row, std::size_t column) {
        const Column& expected = job.data->columns[column];
        if (!holds(value, expected, row)) {
          throw std::runtime_error("wrong value in row " + std::to_string(row) +
                                   ", column " + expected.name);
        }
        totals.checksum += addend(value);
      });
  require(totals.rows == job.rows, "wrong number of rows");
  return totals;
}

/// Executions of one row are released each, and that is part of their time.
Measurement measure_recordset(const Job& job) {
  const ObjectConnection connection(job.connection);
  const _bstr_t sql = bstr(job.sql());
  Measurement measured;
  Recordset recordset;
  const std::int64_t resident = peak_resident_bytes();
  const std::int64_t start = cpu_now();
  for (std::int64_t run = 0; run < job.executions; ++run) {
    recordset = connection.execute(sql);
  }
  measured.cpu_ns = cpu_now() - start;
  measured.peak_bytes = peak_resident_bytes() - resident;
  Names names = names_of(*job.data);
  verified(recordset, job, names);
  const std::int64_t release = cpu_now();
  recordset = {};
  if (job.executions == 1) measured.release_ns = cpu_now() - release;
  return measured;
}

/// Every cell of a recordset that is there already, as often as there are
/// executions: names are looked up for the first time once.
Measurement measure_read(const Job& job) {
  const ObjectConnection connection(job.connection);
  const Recordset recordset = connection.execute(bstr(job.sql()));
  Names names = names_of(*job.data);
  Totals totals;
  Measurement measured;
  const std::int64_t start = cpu_now();
  for (std::int64_t run = 0; run < job.executions; ++run) {
    const Totals one = read_rows(recordset, names);
    totals.rows += one.rows;
    totals.checksum += one.checksum;
    succeed(recordset->MoveFirst(), "MoveFirst");
  }
  measured.cpu_ns = cpu_now() - start;
  const Totals expected = verified(recordset, job, names);
  require(totals.rows == job.executions * expected.rows &&
              totals.checksum == job.executions * expected.checksum,
          "reading gave wrong data");
  return measured;
}

/// What a script does: executes, reads every cell once, releases.
Measurement measure_whole(const Job& job) {
  const ObjectConnection connection(job.connection);
  const _bstr_t sql = bstr(job.sql());
  Names names = names_of(*job.data);
  Totals totals;
  Measurement measured;
  const std::int64_t resident = peak_resident_bytes();
  const std::int64_t start = cpu_now();
  for (std::int64_t run = 0; run < job.executions; ++run) {
    const Totals one = read_rows(connection.execute(sql), names);
    totals.rows += one.rows;
    totals.checksum += one.checksum;
  }
  measured.cpu_ns = cpu_now() - start;
  measured.peak_bytes = peak_resident_bytes() - resident;
  const Totals expected = verified(connection.execute(sql), job, names);
  require(totals.rows == job.executions * expected.rows &&
              totals.checksum == job.executions * expected.checksum,
          "reading gave wrong data");
  return measured;
}

/// Not a way to read: makes the table the others read.
Measurement create_table(const Job& job) {
  const OdbcConnection connection(job.connection);
  connection.run("PRAGMA journal_mode = OFF");
  connection.run("PRAGMA synchronous = OFF");
  connection.run(bench::create_statement(*job.data));
  connection.run(bench::fill_statement(*job.data, job.rows));
  return {};
}

struct Way {
  const char* name;
  Measurement (*measure)(const Job&);
};

// The floor comes first: the others are divided by it.
constexpr Way kWays[] = {
    {"floor", measure_floor},         {"layer", measure_layer},
    {"recordset", measure_recordset}, {"read", measure_read},
    {"whole", measure_whole},
};
constexpr std::size_t kWayCount = std::size(kWays);
constexpr Way kCreate = {"create", create_table};

// ---------------------------------------------------------------------------
// Running children
// ---------------------------------------------------------------------------

constexpr const char* kChildOption = "--child";
constexpr int kSkipped = 77;

std::string errno_text(const char* what) {
  return std::string(what) + ": " + std::generic_category().message(errno);
}

/// A folder of its own, gone with everything in it at the end.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string path =
        (std::filesystem::temp_directory_path() / "zirdb-bench-XXXXXX");
    require(mkdtemp(path.data()) != nullptr, errno_text("mkdtemp"));
    path_ = path;
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

class File {
 public:
  explicit File(int descriptor) : descriptor_(descriptor) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { close(); }

  int get() const { return descriptor_; }
  void close() {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
      descriptor_ = -1;
    }
  }

 private:
  int descriptor_;
};

std::string read_all(int descriptor) {
  std::string text;
  std::array<char, 256> piece{};
  for (;;) {
    const ssize_t count = read(descriptor, piece.data(), piece.size());
    if (count > 0) {
      text.append(piece.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return text;
    }
  }
}

int wait_for(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    require(errno == EINTR, errno_text("waitpid"));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Runs one way of one case in a fresh process of this same program.
Measurement run_child(const Way& way, const Case& which, const Job& job) {
  int ends[2];
  require(pipe(ends) == 0, errno_text("pipe"));
  File reading(ends[0]);
  File writing(ends[1]);
  const std::string rows = std::to_string(job.rows);
  const std::string executions = std::to_string(job.executions);
  const char* const arguments[] = {"fetch_bench",
                                   kChildOption,
                                   way.name,
                                   which.name,
                                   rows.c_str(),
                                   executions.c_str(),
                                   job.connection.c_str(),
                                   nullptr};
  const pid_t child = fork();
  require(child >= 0, errno_text("fork"));
  if (child == 0) {
    dup2(writing.get(), STDOUT_FILENO);
    reading.close();
    writing.close();
    execv("/proc/self/exe", const_cast<char* const*>(arguments));
    _exit(126);
  }
  writing.close();
  const std::string output = read_all(reading.get());
  const int status = wait_for(child);
  if (status == kSkipped) {
    throw DriverMissing("no driver for " + std::string(which.name));
  }
  Measurement measured;
  const int fields =
      std::sscanf(output.c_str(), "%" SCNd64 " %" SCNd64 " %" SCNd64,
                  &measured.cpu_ns, &measured.release_ns, &measured.peak_bytes);
  require(status == 0 && fields == 3,
          std::string(which.name) + ", " + way.name + ": the process ended " +
              "with status " + std::to_string(status));
  return measured;
}

std::optional<std::int64_t> parse_number(std::string_view text,
                                         std::int64_t least,
                                         std::int64_t most) {
  std::int64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end || value < least || value > most) {
    return std::nullopt;
  }
  return value;
}

int child_main(const std::vector<std::string>& arguments) {
  require(arguments.size() == 6, "a child takes five arguments");
  const auto* way =
      std::find_if(std::begin(kWays), std::end(kWays),
                   [&](const Way& one) { return arguments[1] == one.name; });
  if (way == std::end(kWays)) {
    require(arguments[1] == kCreate.name, "no such way: " + arguments[1]);
    way = &kCreate;
  }
  const auto* which =
      std::find_if(std::begin(kCases), std::end(kCases),
                   [&](const Case& one) { return arguments[2] == one.name; });
  require(which != std::end(kCases), "no such case: " + arguments[2]);
  const auto rows = parse_number(arguments[3], 1, INT32_MAX);
  const auto executions = parse_number(arguments[4], 1, INT32_MAX);
  require(rows && executions, "a count out of range");

  const Job job{bench::find_data_set(which->data), which->driver, *rows,
                *executions, arguments[5]};
  const Measurement measured = way->measure(job);
  std::printf("%" PRId64 " %" PRId64 " %" PRId64 "\n", measured.cpu_ns,
              measured.release_ns, measured.peak_bytes);
  return EXIT_SUCCESS;
}

// ---------------------------------------------------------------------------
// The report
// ---------------------------------------------------------------------------

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle]
                                : (values[middle - 1] + values[middle]) / 2;
}

void print_heading(std::int64_t repetitions) {
  std::printf(
      "CPU time against the bare ODBC loop, %" PRId64
      " repetitions in turn, each in a fresh process\n\n"
      "case           way             ns   ratio     min     max  release"
      "  peak B   own B  target\n",
      repetitions);
}

/// Nanoseconds are per cell, or per execution where one row is executed often;
/// bytes are per cell of one execution.
void print_rows(
    const Case& which, const Job& job,
    const std::array<std::vector<Measurement>, kWayCount>& measured) {
  const bool often = job.executions > 1;
  const auto units = static_cast<double>(often ? job.executions : job.cells());
  const auto cells =
      static_cast<double>(job.cells()) / static_cast<double>(job.executions);
  double floor_bytes = 0;
  for (std::size_t way = 0; way < kWayCount; ++way) {
    std::vector<double> times;
    std::vector<double> ratios;
    std::vector<double> releases;
    std::vector<double> bytes;
    for (std::size_t i = 0; i < measured[way].size(); ++i) {
      const Measurement& one = measured[way][i];
      const auto floor_ns = static_cast<double>(measured[0][i].cpu_ns);
      times.push_back(static_cast<double>(one.cpu_ns) / units);
      ratios.push_back(static_cast<double>(one.cpu_ns) / floor_ns);
      releases.push_back(static_cast<double>(one.release_ns) / floor_ns);
      bytes.push_back(static_cast<double>(one.peak_bytes) / cells);
    }
    std::printf("%-14s %-9s %8.1f", which.name, kWays[way].name, median(times));
    if (way == 0) {
      floor_bytes = median(bytes);
      std::printf("%8.2f       -       -        -", 1.0);
    } else {
      std::printf("%8.2f%8.2f%8.2f", median(ratios),
                  *std::min_element(ratios.begin(), ratios.end()),
                  *std::max_element(ratios.begin(), ratios.end()));
      if (median(releases) <= 0) {
        std::printf("        -");
      } else {
        std::printf("%9.2f", median(releases));
      }
    }
    if (often || median(bytes) <= 0) {
      std::printf("       -       -");
    } else if (way == 0) {
      std::printf("%8.1f       -", median(bytes));
    } else {
      std::printf("%8.1f%8.1f", median(bytes), median(bytes) - floor_bytes);
    }
    const auto* const target = std::find_if(
        std::begin(kTargets), std::end(kTargets), [&](const Target& one) {
          return one.which == which.name && one.way == kWays[way].name;
        });
    if (target != std::end(kTargets)) {
      std::printf("%8.2f\n", target->ratio);
    } else {
      std::printf("       -\n");
    }
  }
  std::fflush(stdout);
}

void print_legend() {
  std::printf(
      "\nns: per cell, for one-row per execution. ratio: to the floor of the "
      "same\nrepetition, median, least and most. release: freeing the result, "
      "as a ratio to\nthe floor; of one-row and whole it is part of the time. "
      "peak B: growth of the\nresident set per cell; own B: without what the "
      "floor's process needed, the\ndriver's own copy of the result.\n");
}

// ---------------------------------------------------------------------------
// The command line
// ---------------------------------------------------------------------------

struct Options {
  std::int64_t repetitions = 5;
  bool quick = false;
  std::string filter;
};

constexpr const char* kUsage =
    "usage: fetch_bench [--repetitions N] [--quick] [--case TEXT]\n"
    "Compares reading whole results with the bare ODBC calls it takes.\n"
    "  --repetitions N  1 to 1000; 5 unless given\n"
    "  --quick          tiny data and one repetition: shows that it works\n"
    "  --case TEXT      only cases whose name contains TEXT\n";

/// Nothing, and a message, for arguments that make no sense.
std::optional<Options> parse(const std::vector<std::string>& arguments) {
  Options options;
  bool repetitions_given = false;
  const auto refuse = [](const std::string& why) {
    std::fprintf(stderr, "fetch_bench: %s\n%s", why.c_str(), kUsage);
    return std::nullopt;
  };
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    const std::string& argument = arguments[index];
    if (argument == "--quick") {
      options.quick = true;
      continue;
    }
    if (argument != "--repetitions" && argument != "--case") {
      return refuse("unknown argument " + argument);
    }
    if (++index == arguments.size()) {
      return refuse(argument + " needs a value");
    }
    if (argument == "--case") {
      options.filter = arguments[index];
      continue;
    }
    const auto count = parse_number(arguments[index], 1, 1000);
    if (!count) {
      return refuse("--repetitions takes a number from 1 to 1000");
    }
    options.repetitions = *count;
    repetitions_given = true;
  }
  if (options.quick && !repetitions_given) {
    options.repetitions = 1;
  }
  return options;
}

Job make_job(const Case& which, bool quick,
             const std::filesystem::path& folder) {
  Job job;
  job.data = bench::find_data_set(which.data);
  job.driver = which.driver;
  const bool often = which.executions > 1;
  job.rows = quick && !often ? which.quick : which.rows;
  job.executions = quick && often ? which.quick : which.executions;
  job.connection =
      which.driver == Driver::kNull
          ? "DRIVER=" ZIRDB_BENCH_NULL_DRIVER
          : "DRIVER=SQLite3;DATABASE=" + (folder / which.data).string() + ".db";
  return job;
}

void run_case(const Case& which, const Options& options,
              const TemporaryFolder& folder) {
  const Job job = make_job(which, options.quick, folder.path());
  if (which.driver == Driver::kSqlite) {
    run_child(kCreate, which, job);
  }
  std::array<std::vector<Measurement>, kWayCount> measured;
  for (std::int64_t run = 0; run < options.repetitions; ++run) {
    for (std::size_t way = 0; way < kWayCount; ++way) {
      measured[way].push_back(run_child(kWays[way], which, job));
    }
  }
  print_rows(which, job, measured);
}

int bench_main(const Options& options) {
  const TemporaryFolder folder;
  int selected = 0;
  int missing = 0;
  print_heading(options.repetitions);
  for (const Case& which : kCases) {
    if (std::string_view(which.name).find(options.filter) ==
        std::string_view::npos) {
      continue;
    }
    ++selected;
    try {
      run_case(which, options, folder);
    } catch (const DriverMissing& error) {
      ++missing;
      std::fprintf(stderr, "fetch_bench: skipped: %s\n", error.what());
    }
  }
  require(selected > 0, "no case contains \"" + options.filter + "\"");
  print_legend();
  return missing == 0 ? EXIT_SUCCESS : kSkipped;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (!arguments.empty() && arguments.front() == kChildOption) {
      return child_main(arguments);
    }
    if (!arguments.empty() && arguments.front() == "--help") {
      std::fputs(kUsage, stdout);
      return EXIT_SUCCESS;
    }
    const std::optional<Options> options = parse(arguments);
    return options ? bench_main(*options) : EXIT_FAILURE;
  } catch (const DriverMissing& error) {
    std::fprintf(stderr, "fetch_bench: %s\n", error.what());
    return kSkipped;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "fetch_bench: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
