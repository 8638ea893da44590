// SPDX-License-Identifier: MIT
//
// without_memory.h for connections and commands: what they work on, and tables
// of operations that lack memory. The database is the scripted one in place of
// the driver manager, so that all that fails is the library's.
//
// Sections: the session; operations; operations that fail anyway.

#ifndef ZIRDB_TESTS_SUPPORT_SESSION_WITHOUT_MEMORY_H
#define ZIRDB_TESTS_SUPPORT_SESSION_WITHOUT_MEMORY_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/connections.h"
#include "support/scripted_odbc_fixture.h"
#include "support/values.h"
#include "support/without_memory.h"
#include "zir.h"
#include "zirdb.h"

namespace session_without_memory {

using component::dispatch_of;
using without_memory::Attempt;
using without_memory::everywhere;
using without_memory::kGet;
using without_memory::kMethod;
using without_memory::kPut;
using workbench::Blob;

inline scripted_odbc::Script& script() { return ScriptedOdbc::script(); }

// ---------------------------------------------------------------------------
// The session
// ---------------------------------------------------------------------------

inline std::wstring shown(const VARIANT& value) {
  if (value.vt == VT_R8) return std::to_wstring(value.dblVal);
  if (value.vt == VT_BOOL) return value.boolVal != 0 ? L"true" : L"false";
  return without_memory::shown(value);
}

/// Every cell of every row, and where the recordset stood is where it stands.
inline std::wstring shown(const component::Recordset& recordset) {
  if (component::state_of(recordset) == ZIRDB_STATE_CLOSED) {
    return L"closed recordset";
  }
  const auto fields = component::fields_of(recordset.get());
  long count = 0;
  EXPECT_EQ(fields->get_Count(&count), S_OK);
  std::wstring all;
  while (!component::at_end(recordset)) {
    for (long i = 0; i < count; ++i) {
      const auto field = without_memory::item(fields.get(), _variant_t(i));
      _bstr_t name;
      EXPECT_EQ(field->get_Name(&name.m_s), S_OK);
      all += std::wstring(name) + L" = " +
             shown(component::value_at(recordset, i)) + L"; ";
    }
    EXPECT_EQ(recordset->MoveNext(), S_OK);
  }
  EXPECT_EQ(recordset->MoveFirst(), S_OK);
  return all;
}

inline std::wstring shown(IUnknown* object) {
  if (const auto recordset =
          component::query<IZIRDBRecordset>(object, IID_IZIRDBRecordset)) {
    return shown(recordset);
  }
  if (component::query<IZIRDBConnection>(object, IID_IZIRDBConnection)) {
    return L"connection";
  }
  if (component::query<IZIRDBCommand>(object, IID_IZIRDBCommand)) {
    return L"command";
  }
  if (const auto parameters =
          component::query<IZIRDBParameters>(object, IID_IZIRDBParameters)) {
    return L"parameters: " + without_memory::shown(parameters.get());
  }
  return without_memory::shown(object);
}

// Texts are longer than what a string keeps inside of itself.
constexpr const wchar_t* kStoredString = L"DSN=scripted;LONG=with a long text";
constexpr const wchar_t* kText = L"select the text of the command";

/// Everything that an operation works on, new for every attempt, and what the
/// operation gave.
struct Session {
  Session() {
    script().clear_log();
    parameters =
        component::received<IZIRDBParameters>([&](IZIRDBParameters** out) {
          return command->get_Parameters(out);
        }).second;
    _bstr_t stored(kStoredString);
    EXPECT_EQ(closed->put_ConnectionString(stored.m_s), S_OK);
  }

  /// Calls `call(Interface** out)`, which must store NULL when it fails.
  template <class Interface, class Call>
  HRESULT receive(const Call& call) {
    auto* const untouched = reinterpret_cast<Interface*>(this);
    Interface* stored = untouched;
    const HRESULT result = call(&stored);
    left_untouched = stored == untouched;
    if (!left_untouched) object = InterfacePtr<IUnknown>::adopt(stored);
    return result;
  }
  /// Calls `call(BSTR* out)`, likewise.
  template <class Call>
  HRESULT receive_text(const Call& call) {
    auto* const untouched = reinterpret_cast<BSTR>(this);
    BSTR stored = untouched;
    const HRESULT result = call(&stored);
    left_untouched = stored == untouched;
    if (!left_untouched && stored != nullptr) {
      value.bstrVal = stored;
      value.vt = VT_BSTR;
    }
    return result;
  }

  /// The arguments of a late-bound call, as a script writes them.
  void pass(std::vector<_variant_t> written) {
    arguments = std::move(written);
    passed.assign(arguments.rbegin(), arguments.rend());
  }
  /// A late-bound call with them.
  template <class Interface>
  HRESULT late(const InterfacePtr<Interface>& target, DISPID member,
               WORD flags = kMethod) {
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS list{};
    list.rgvarg = passed.data();
    list.cArgs = static_cast<UINT>(passed.size());
    if (flags == kPut) {
      list.rgdispidNamedArgs = &named;
      list.cNamedArgs = 1;
    }
    return dispatch_of(target.get())
        ->Invoke(member, IID_NULL, 0, flags, &list, &value, exception.get(),
                 nullptr);
  }

  /// Puts a parameter behind the others of the command.
  void append(long type, long direction, const _variant_t& content) {
    const auto parameter = workbench::parameter(L"a parameter of the command",
                                                type, direction, 80, content);
    EXPECT_EQ(parameters->Append(parameter.get()), S_OK);
  }

  /// By reference to what receives the number of rows.
  _variant_t rows_affected() {
    _variant_t reference;
    reference.vt = VT_BYREF | VT_VARIANT;
    reference.pvarVal = &rows;
    return reference;
  }

  /// What the operation stored.
  std::wstring got() const {
    if (left_untouched) return L"a pointer that was not set";
    if (object) return shown(object.get());
    if (value.vt == VT_EMPTY) return L"nothing";
    if (value.vt == VT_DISPATCH) return shown(value.punkVal);
    return shown(value);
  }

  /// Makes room for another call.
  void forget() {
    object = {};
    value = _variant_t();
    left_untouched = false;
    ExcepinfoClear(exception.get());
  }

  /// What can be observed of the objects, but for the parameters.
  std::wstring state() const {
    return state_of(closed) + L" | " + state_of(connection) + L" | " +
           text_of([&](BSTR* out) { return command->get_CommandText(out); }) +
           L" | " + shown(rows);
  }
  std::vector<std::wstring> parameter_values() const {
    long count = 0;
    EXPECT_EQ(parameters->get_Count(&count), S_OK);
    std::vector<std::wstring> all;
    for (long i = 0; i < count; ++i) {
      const auto parameter =
          component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
            return parameters->Item(_variant_t(i), out);
          }).second;
      _variant_t content;
      EXPECT_EQ(parameter->get_Value(&content), S_OK);
      all.push_back(shown(content));
    }
    return all;
  }

  component::Connection closed = component::connection();
  component::Connection connection =
      component::opened(ScriptedOdbc::connection_string());
  component::Command command = component::command(connection, kText);
  InterfacePtr<IZIRDBParameters> parameters;
  InterfacePtr<IClassFactory> factory;
  _variant_t rows{L"a text of before"};
  std::vector<_variant_t> arguments;
  std::vector<VARIANT> passed;

  InterfacePtr<IUnknown> object;
  _variant_t value;
  component::Exception exception;
  bool left_untouched = false;

 private:
  template <class Get>
  static std::wstring text_of(const Get& get) {
    _bstr_t text;
    EXPECT_EQ(get(&text.m_s), S_OK);
    return without_memory::shown(text.m_s);
  }
  static std::wstring state_of(const component::Connection& connection) {
    long state = -1;
    EXPECT_EQ(connection->get_State(&state), S_OK);
    return (state == ZIRDB_STATE_OPEN ? L"open " : L"closed ") +
           text_of([&](BSTR* out) {
             return connection->get_ConnectionString(out);
           });
  }
};

inline void nothing(Session&) {}

/// What a script writes as Array(...).
inline _variant_t script_array(const std::vector<_variant_t>& values) {
  SAFEARRAY* const array = SafeArrayCreateVector(
      VT_VARIANT, 0, static_cast<std::uint32_t>(values.size()));
  {
    const SafeArrayAccess access(array);
    for (std::size_t i = 0; i < values.size(); ++i) {
      VariantCopy(&access.elements<VARIANT>()[i], &values[i]);
    }
  }
  return allocator::array_of(array, VT_VARIANT);
}

constexpr const wchar_t* kUpdate = L"update what has no columns";
constexpr const wchar_t* kRefused = L"a statement that is refused";
constexpr const wchar_t* kRefusedString = L"DSN=scripted;LONG=is refused";
constexpr const char* kRefusal = "a refusal that is longer than a short text";
constexpr const wchar_t* kStatementRefusal =
    L"HY000: a refusal that is longer than a short text";
constexpr const wchar_t* kConnectionRefusal =
    L"08001: a refusal that is longer than a short text";

/// Refuses `kRefused` and `kRefusedString`, answers `kUpdate` without columns
/// and every other statement with columns and cells of every kind: kRows.
inline void script_database() {
  using scripted_odbc::cell;
  script().columns({{"the number of the row", SQL_BIGINT},
                    {"the fraction of the row", SQL_DOUBLE},
                    {"the truth of the row", SQL_BIT},
                    {"the text of the row", SQL_VARCHAR},
                    {"the wide text of the row", SQL_WVARCHAR},
                    {"the bytes of the row", SQL_VARBINARY},
                    {"what the row lacks", SQL_VARCHAR}});
  for (const int number : {1, 2}) {
    script().row({cell(number), cell(0.5), cell(true),
                  cell("a text that is not a short one"),
                  cell(std::string(1500, 't')),
                  scripted_odbc::binary(std::string(30, 'b')),
                  scripted_odbc::null_cell()});
  }
  scripted_odbc::ResultSet updated;
  updated.row_count = 3;
  script().result_for("update what has no columns", updated);
  using scripted_odbc::Call;
  using scripted_odbc::Reply;
  const auto refuse = [](const char* where, const char* what,
                         const std::string& state) {
    script().on(where, [what, state](const Call& call) {
      std::optional<Reply> refused;
      if (call.bytes(what).find("is refused") != std::string::npos) {
        refused = {false, SQL_ERROR, {state, 7, kRefusal}};
      }
      return refused;
    });
  };
  refuse("SQLExecDirect", "sql", "HY000");
  refuse("SQLPrepare", "sql", "HY000");
  refuse("SQLDriverConnect", "string", "08001");
}

inline std::wstring row_shown(int number) {
  return L"the number of the row = " + std::to_wstring(number) +
         L"; the fraction of the row = 0.500000; the truth of the row = true; "
         L"the text of the row = a text that is not a short one; the wide text "
         L"of the row = " +
         std::wstring(1500, L't') + L"; the bytes of the row = " +
         std::wstring(30, L'b') + L"; what the row lacks = null; ";
}
inline const std::wstring kRows = row_shown(1) + row_shown(2);

/// A value of each kind of parameter; texts and bytes are longer than short.
inline std::vector<_variant_t> values_of_every_kind() {
  return {_variant_t(L"an argument that is sent as a text"),
          allocator::scalar(VT_I2, 2),
          _variant_t(1.5),
          _variant_t(true),
          without_memory::bytes_value(Blob(30, 'x')),
          allocator::scalar(VT_NULL, 0),
          _variant_t(),
          allocator::date(45292.75)};
}

// ---------------------------------------------------------------------------
// Operations
// ---------------------------------------------------------------------------

/// An operation that says E_OUTOFMEMORY.
struct Operation {
  const char* name;
  void (*arrange)(Session&);
  HRESULT (*call)(Session&);
  /// Of a late-bound call: the class that its EXCEPINFO names. Else NULL.
  const wchar_t* source;
  /// What it gives when there is memory.
  const wchar_t* gives;
  /// What it changes: a part of the state, and what that becomes.
  const wchar_t* replaces = L"";
  const wchar_t* by = L"";
  /// The texts that may go with the code, for the steps that have one.
  std::vector<const wchar_t*> texts = {};
  /// Whether a value is converted to text by the runtime, which says
  /// E_INVALIDARG when it lacks memory.
  bool converts = false;
  /// What the parameters hold in the end, if it writes into them.
  std::vector<std::wstring> written_back = {};
  /// Whether it may fail when the statement has run already, so that the number
  /// of rows has been stored.
  bool fails_afterwards = false;
};

inline std::ostream& operator<<(std::ostream& stream,
                                const Operation& operation) {
  return stream << operation.name;
}

/// Whether a lack of memory may come with this text.
template <class Tested>
bool may_say(const Tested& tested, const std::wstring& text) {
  return text.empty() ||
         std::any_of(tested.texts.begin(), tested.texts.end(),
                     [&](const wchar_t* known) { return text == known; });
}

/// A result that says that there was no memory.
inline bool is_lack(const Operation& operation, HRESULT code,
                    const std::wstring& text) {
  return code == E_OUTOFMEMORY || (operation.converts && code == E_INVALIDARG &&
                                   text == component::kValueText);
}

/// The class itself, or the connection through which a command works.
inline void expect_source(Session& s, const wchar_t* own) {
  const std::wstring source = without_memory::shown(s.exception->bstrSource);
  EXPECT_TRUE(source == own || source == component::kConnectionSource)
      << testing::PrintToString(source);
}

/// The operation said that it lacked memory, and nothing that is not so.
inline void expect_lack(const Operation& operation, Session& s, HRESULT result,
                        bool one) {
  if (operation.source == nullptr) {
    const workbench::Error error = workbench::last_error();
    EXPECT_TRUE(is_lack(operation, result, error.description))
        << std::hex << result;
    EXPECT_TRUE(may_say(operation, error.description));
    return;
  }
  if (operation.converts && result == DISP_E_TYPEMISMATCH) {
    // An argument could not be made the text that it stands for.
    EXPECT_EQ(s.exception->scode, 0);
    return;
  }
  EXPECT_EQ(result, DISP_E_EXCEPTION) << std::hex << result;
  const std::wstring text = s.exception->bstrDescription != nullptr
                                ? s.exception->bstrDescription
                                : L"";
  EXPECT_TRUE(is_lack(operation, s.exception->scode, text))
      << std::hex << s.exception->scode;
  EXPECT_TRUE(may_say(operation, text));
  if (one) {
    expect_source(s, operation.source);
  } else {
    EXPECT_EQ(s.exception->bstrSource, nullptr);
    EXPECT_EQ(s.exception->bstrDescription, nullptr);
  }
}

/// The first parameters have their new values, those behind one that lacked
/// memory their old ones.
inline void expect_written_in_order(const std::vector<std::wstring>& now,
                                    const std::vector<std::wstring>& before,
                                    const std::vector<std::wstring>& after) {
  ASSERT_EQ(now.size(), before.size());
  std::size_t at = 0;
  while (at < now.size() && now[at] == after[at]) ++at;
  for (; at < now.size(); ++at) EXPECT_EQ(now[at], before[at]) << at;
}

inline void attempt_operation(const Operation& operation, Attempt& attempt) {
  Session s;
  operation.arrange(s);
  const std::wstring before = s.state();
  const std::wstring after =
      without_memory::replaced(before, operation.replaces, operation.by);
  const auto values_before = s.parameter_values();
  const auto values_after =
      operation.written_back.empty() ? values_before : operation.written_back;
  const std::uint32_t alive = workbench::objects_alive();
  const std::size_t connections = script().live("DBC");

  HRESULT result = attempt.run([&] { return operation.call(s); });

  EXPECT_EQ(script().live("STMT"), 0U);
  if (attempt.failed()) {
    expect_lack(operation, s, result, attempt.one());
    EXPECT_EQ(workbench::objects_alive(), alive);
    EXPECT_EQ(script().live("DBC"), connections);
    EXPECT_EQ(script().live("ENV"), connections);
    EXPECT_EQ(s.got(), L"nothing");
    const auto values = s.parameter_values();
    if (values == values_before) {
      EXPECT_TRUE(s.state() == before ||
                  (operation.fails_afterwards && s.state() == after));
    } else {
      EXPECT_EQ(s.state(), after);
      expect_written_in_order(values, values_before, values_after);
    }
    s.forget();
    result = operation.call(s);
  }
  EXPECT_EQ(result, S_OK) << std::hex << result;
  EXPECT_EQ(s.got(), operation.gives);
  EXPECT_EQ(s.state(), after);
  EXPECT_EQ(s.parameter_values(), values_after);
}

// ---------------------------------------------------------------------------
// Operations that fail anyway
// ---------------------------------------------------------------------------

struct Failing {
  const char* name;
  void (*arrange)(Session&);
  HRESULT (*call)(Session&);  ///< NULL when there is only the late-bound one
  HRESULT (*late_call)(Session&);
  HRESULT code;
  const wchar_t* source;
  const wchar_t* text;
  /// The class that the late-bound call belongs to.
  const wchar_t* own_source;
  /// The texts that may go with a lack of memory, for the steps that have one.
  std::vector<const wchar_t*> texts = {};
};

inline std::ostream& operator<<(std::ostream& stream, const Failing& failing) {
  return stream << failing.name;
}

/// What nothing that fails may change.
struct Unchanged {
  explicit Unchanged(const Session& session)
      : state(session.state()), values(session.parameter_values()) {}
  void expect(const Session& s) const {
    EXPECT_EQ(s.got(), L"nothing");
    EXPECT_EQ(s.state(), state);
    EXPECT_EQ(s.parameter_values(), values);
    EXPECT_EQ(workbench::objects_alive(), alive);
    EXPECT_EQ(script().live("STMT"), 0U);
    EXPECT_EQ(script().live("DBC"), connections);
    EXPECT_EQ(script().live("ENV"), connections);
  }
  std::wstring state;
  std::vector<std::wstring> values;
  std::uint32_t alive = workbench::objects_alive();
  std::size_t connections = script().live("DBC");
};

/// With its own code and the whole record or, when there was no memory for the
/// record, with the code that says so and none of it.
inline void attempt_failing(const Failing& failing, Attempt& attempt) {
  Session s;
  failing.arrange(s);
  const Unchanged unchanged(s);

  HRESULT result = attempt.run([&] { return failing.call(s); });

  if (attempt.failed()) {
    EXPECT_EQ(result, E_OUTOFMEMORY) << std::hex << result;
    EXPECT_TRUE(may_say(failing, workbench::last_error().description));
    unchanged.expect(s);
    s.forget();
    result = failing.call(s);
  }
  EXPECT_EQ(result, failing.code) << std::hex << result;
  EXPECT_EQ(workbench::last_error().code, failing.code);
  EXPECT_EQ(workbench::last_error().source, failing.source);
  EXPECT_EQ(workbench::last_error().description, failing.text);
  unchanged.expect(s);
}

/// Late-bound it keeps its code and loses texts, those that there is no memory
/// for.
inline void attempt_failing_late(const Failing& failing, Attempt& attempt) {
  Session s;
  failing.arrange(s);
  const Unchanged unchanged(s);

  HRESULT result = attempt.run([&] { return failing.late_call(s); });

  EXPECT_EQ(result, DISP_E_EXCEPTION) << std::hex << result;
  const std::wstring texts =
      without_memory::shown(s.exception->bstrSource) + L": " +
      without_memory::shown(s.exception->bstrDescription);
  const std::wstring source(failing.source);
  const std::wstring whole = source + L": " + failing.text;
  if (!attempt.failed()) {
    EXPECT_EQ(s.exception->scode, failing.code);
    EXPECT_EQ(texts, whole);
  } else if (s.exception->scode == E_OUTOFMEMORY) {
    // The operation had none.
    if (attempt.one()) {
      expect_source(s, failing.own_source);
      const wchar_t* const text = s.exception->bstrDescription;
      EXPECT_TRUE(may_say(failing, text != nullptr ? text : L""));
    } else {
      EXPECT_EQ(texts, L"-: -");
    }
  } else {
    EXPECT_EQ(s.exception->scode, failing.code)
        << std::hex << s.exception->scode;
    EXPECT_NE(texts, whole);
    EXPECT_TRUE(
        texts == source + L": -" ||
        (attempt.one() && texts == std::wstring(L"-: ") + failing.text) ||
        (!attempt.one() && texts == L"-: -"))
        << testing::PrintToString(texts);
  }
  unchanged.expect(s);

  s.forget();
  result = failing.late_call(s);
  EXPECT_EQ(result, DISP_E_EXCEPTION);
  EXPECT_EQ(s.exception->scode, failing.code);
  EXPECT_EQ(without_memory::shown(s.exception->bstrSource), source);
  EXPECT_EQ(without_memory::shown(s.exception->bstrDescription), failing.text);
}

}  // namespace session_without_memory

#endif  // ZIRDB_TESTS_SUPPORT_SESSION_WITHOUT_MEMORY_H
