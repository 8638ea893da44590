// SPDX-License-Identifier: MIT
//
// zirdb_bench_direct.node: what the host for Node.js does for a script, done in
// C++ inside the same process, with nothing around the objects' own calls. Each
// pass makes its calls `count` times and returns the sum of what it read, so
// that both forms can be compared with what was stored.
//
// Sections: calls; the callback; passes; clocks; what is exported.
//
// Ids are looked up before, and texts that go in are made once: a host can do
// with no less than one Invoke per member, a value for the result and an
// initialised EXCEPINFO.

#include <node_api.h>
#include <sys/resource.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string>

#include "late_bound.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using late_bound::Object;

// ---------------------------------------------------------------------------
// Calls
// ---------------------------------------------------------------------------

class Exception {
 public:
  Exception() { ExcepinfoInit(&info_); }
  Exception(const Exception&) = delete;
  Exception& operator=(const Exception&) = delete;
  ~Exception() { ExcepinfoClear(&info_); }

  EXCEPINFO* get() { return &info_; }

 private:
  EXCEPINFO info_ = {};
};

void invoke(IDispatch* object, DISPID id, WORD kind, DISPPARAMS* parameters,
            VARIANT* result) {
  Exception exception;
  const HRESULT code = object->Invoke(id, IID_NULL, 0, kind, parameters, result,
                                      exception.get(), nullptr);
  if (FAILED(code)) {
    throw std::runtime_error("a direct call failed with code " +
                             std::to_string(code));
  }
}

_variant_t get(IDispatch* object, DISPID id) {
  _variant_t result;
  DISPPARAMS none = {nullptr, nullptr, 0, 0};
  invoke(object, id, DISPATCH_PROPERTYGET, &none, &result);
  return result;
}

void call(IDispatch* object, DISPID id) {
  _variant_t result;
  DISPPARAMS none = {nullptr, nullptr, 0, 0};
  invoke(object, id, DISPATCH_METHOD, &none, &result);
}

_variant_t item(IDispatch* object, VARIANT* name) {
  _variant_t result;
  DISPPARAMS parameters = {name, nullptr, 1, 0};
  invoke(object, DISPID_VALUE, DISPATCH_METHOD | DISPATCH_PROPERTYGET,
         &parameters, &result);
  if (result.vt != VT_DISPATCH) throw std::runtime_error("that is no object");
  return result;
}

// Of every value, a number that is easy to sum up on both sides.
double weight(const VARIANT& value) {
  switch (value.vt) {
    case VT_I4:
      return static_cast<double>(value.lVal);
    case VT_I8:
      return static_cast<double>(value.llVal);
    case VT_BOOL:
      return value.boolVal == VARIANT_FALSE ? 0 : 1;
    case VT_BSTR:
      return SysStringLen(value.bstrVal);
    default:
      throw std::runtime_error("a value of an unexpected type");
  }
}

double weight_of_value(IDispatch* field) {
  return weight(get(field, DISPID_ZIRDB_FIELD_VALUE));
}

// ---------------------------------------------------------------------------
// The callback
// ---------------------------------------------------------------------------

/// Adds up one column of the rows that it is called for; without a column it
/// counts them.
class Adder final : public IDispatch {
 public:
  Adder(double* sum, VARIANT* column) : sum_(sum), column_(column) {}
  Adder(const Adder&) = delete;
  Adder& operator=(const Adder&) = delete;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    if (object == nullptr) return E_INVALIDARG;
    *object = nullptr;
    if (riid != IID_IUnknown && riid != IID_IDispatch) return E_NOINTERFACE;
    *object = static_cast<IDispatch*>(this);
    AddRef();
    return S_OK;
  }
  zir_types::ULONG AddRef() override { return ++references_; }
  zir_types::ULONG Release() override {
    const zir_types::ULONG left = --references_;
    if (left == 0) delete this;
    return left;
  }

  HRESULT GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_INVALIDARG;
    *count = 0;
    return S_OK;
  }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    if (info != nullptr) *info = nullptr;
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS* parameters, VARIANT*,
                 EXCEPINFO*, UINT*) override {
    if (parameters->cArgs != 1 || parameters->rgvarg[0].vt != VT_DISPATCH) {
      return DISP_E_TYPEMISMATCH;
    }
    try {
      if (column_ == nullptr) {
        *sum_ += 1;
      } else {
        *sum_ += weight_of_value(
            item(parameters->rgvarg[0].pdispVal, column_).pdispVal);
      }
      return S_OK;
    } catch (const std::exception&) {
      return E_FAIL;
    }
  }

 private:
  ~Adder() = default;

  zir_types::ULONG references_ = 1;
  double* sum_;
  VARIANT* column_;
};

// ---------------------------------------------------------------------------
// Passes
// ---------------------------------------------------------------------------

Object g_connection;
Object g_rows;

Object execute(const std::string& sql) {
  return g_connection.call("Execute", sql).object();
}

_variant_t text(const char* utf8) { return {late_bound::wide(utf8).c_str()}; }

double read_states(std::uint32_t count) {
  double sum = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    sum += weight(get(g_rows.dispatch(), DISPID_ZIRDB_RECORDSET_STATE));
  }
  return sum;
}

// Says where the recordset was left: on its first row.
double move_first(std::uint32_t count) {
  call(g_rows.dispatch(), DISPID_ZIRDB_RECORDSET_MOVENEXT);
  for (std::uint32_t i = 0; i < count; ++i) {
    call(g_rows.dispatch(), DISPID_ZIRDB_RECORDSET_MOVEFIRST);
  }
  _variant_t name = text("id");
  return weight_of_value(item(g_rows.dispatch(), &name).pdispVal);
}

double read_values(const char* column, std::uint32_t count) {
  _variant_t name = text(column);
  const _variant_t field = item(g_rows.dispatch(), &name);
  double sum = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    sum += weight_of_value(field.pdispVal);
  }
  return sum;
}

double read_integers(std::uint32_t count) { return read_values("id", count); }
double read_texts(std::uint32_t count) { return read_values("name", count); }

double read_by_name(std::uint32_t count) {
  _variant_t name = text("id");
  double sum = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    sum += weight_of_value(item(g_rows.dispatch(), &name).pdispVal);
  }
  return sum;
}

double for_each(VARIANT* column) {
  double sum = 0;
  _variant_t callback;
  callback.pdispVal = new Adder(&sum, column);
  callback.vt = VT_DISPATCH;
  DISPPARAMS parameters = {&callback, nullptr, 1, 0};
  _variant_t result;
  invoke(g_rows.dispatch(), DISPID_ZIRDB_RECORDSET_FOREACH, DISPATCH_METHOD,
         &parameters, &result);
  return sum;
}

double for_each_counting(std::uint32_t) { return for_each(nullptr); }

double for_each_reading(std::uint32_t) {
  _variant_t name = text("id");
  return for_each(&name);
}

// What a loop over rows comes to: the end, every column, one row further.
double walk(std::uint32_t) {
  _variant_t names[] = {text("id"), text("name")};
  const _variant_t fields[] = {item(g_rows.dispatch(), &names[0]),
                               item(g_rows.dispatch(), &names[1])};
  double sum = 0;
  while (weight(get(g_rows.dispatch(), DISPID_ZIRDB_RECORDSET_EOF)) == 0) {
    for (const _variant_t& field : fields) {
      sum += weight_of_value(field.pdispVal);
    }
    call(g_rows.dispatch(), DISPID_ZIRDB_RECORDSET_MOVENEXT);
  }
  return sum;
}

double execute_one_row(std::uint32_t count) {
  _variant_t sql = text("SELECT 7 AS id");
  DISPPARAMS parameters = {&sql, nullptr, 1, 0};
  double sum = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    _variant_t rows;
    invoke(g_connection.dispatch(), DISPID_ZIRDB_CONNECTION_EXECUTE,
           DISPATCH_METHOD, &parameters, &rows);
    if (rows.vt != VT_DISPATCH) throw std::runtime_error("there are no rows");
    sum += weight(get(rows.pdispVal, DISPID_ZIRDB_RECORDSET_STATE));
  }
  return sum;
}

// ---------------------------------------------------------------------------
// Clocks
// ---------------------------------------------------------------------------

// Of all threads of the process: what V8's helpers do is the host's, too.
double cpu_nanoseconds() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 +
         static_cast<double>(now.tv_nsec);
}

// Of all processes that were started here and have ended.
double children_nanoseconds() {
  rusage usage = {};
  getrusage(RUSAGE_CHILDREN, &usage);
  const auto nanoseconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e9 +
           static_cast<double>(time.tv_usec) * 1e3;
  };
  return nanoseconds(usage.ru_utime) + nanoseconds(usage.ru_stime);
}

// ---------------------------------------------------------------------------
// What is exported
// ---------------------------------------------------------------------------

// Runs `function(env, argument or NULL)`, which returns a number.
template <double (*function)(napi_env, napi_value)>
napi_value entry(napi_env env, napi_callback_info info) {
  std::size_t count = 1;
  napi_value argument = nullptr;
  napi_value result = nullptr;
  try {
    napi_get_cb_info(env, info, &count, &argument, nullptr, nullptr);
    napi_create_double(env, function(env, argument), &result);
  } catch (const std::exception& error) {
    napi_throw_error(env, nullptr, error.what());
  }
  return result;
}

std::string utf8(napi_env env, napi_value value) {
  std::size_t count = 0;
  if (napi_get_value_string_utf8(env, value, nullptr, 0, &count) != napi_ok) {
    throw std::invalid_argument("a text is expected");
  }
  std::string result(count, '\0');
  napi_get_value_string_utf8(env, value, result.data(), count + 1, &count);
  return result;
}

template <double (*pass)(std::uint32_t)>
double counted(napi_env env, napi_value argument) {
  std::uint32_t count = 0;
  if (napi_get_value_uint32(env, argument, &count) != napi_ok) {
    throw std::invalid_argument("a count is expected");
  }
  return pass(count);
}

double open(napi_env env, napi_value argument) {
  g_connection = Object("ZIRDB.Connection");
  g_connection.call("Open", utf8(env, argument));
  return 0;
}

double run(napi_env env, napi_value argument) {
  g_connection.call("Execute", utf8(env, argument));
  return 0;
}

double select(napi_env env, napi_value argument) {
  g_rows = execute(utf8(env, argument));
  return 0;
}

double close(napi_env, napi_value) {
  g_rows = Object();
  g_connection = Object();
  return 0;
}

double cpu(napi_env, napi_value) { return cpu_nanoseconds(); }
double children(napi_env, napi_value) { return children_nanoseconds(); }

void add(napi_env env, napi_value exports, const char* name,
         napi_callback function) {
  napi_value value = nullptr;
  napi_create_function(env, name, NAPI_AUTO_LENGTH, function, nullptr, &value);
  napi_set_named_property(env, exports, name, value);
}

}  // namespace

NAPI_MODULE_INIT() {
  add(env, exports, "open", entry<open>);
  add(env, exports, "run", entry<run>);
  add(env, exports, "select", entry<select>);
  add(env, exports, "close", entry<close>);
  add(env, exports, "cpu", entry<cpu>);
  add(env, exports, "children", entry<children>);
  add(env, exports, "readStates", entry<counted<read_states>>);
  add(env, exports, "moveFirst", entry<counted<move_first>>);
  add(env, exports, "readIntegers", entry<counted<read_integers>>);
  add(env, exports, "readTexts", entry<counted<read_texts>>);
  add(env, exports, "readByName", entry<counted<read_by_name>>);
  add(env, exports, "forEachCounting", entry<counted<for_each_counting>>);
  add(env, exports, "forEachReading", entry<counted<for_each_reading>>);
  add(env, exports, "walk", entry<counted<walk>>);
  add(env, exports, "executeOneRow", entry<counted<execute_one_row>>);
  return exports;
}
