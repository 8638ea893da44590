// SPDX-License-Identifier: MIT
//
// For tests of connections and commands: the objects as a host gets them, their
// errors, and what came back, in few words. Works through the shared library.
// What a test did not ask to fail throws.

#ifndef ZIRDB_TESTS_SUPPORT_CONNECTIONS_H
#define ZIRDB_TESTS_SUPPORT_CONNECTIONS_H

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "zir.h"
#include "zirdb.h"

namespace component {

using Connection = InterfacePtr<IZIRDBConnection>;
using Command = InterfacePtr<IZIRDBCommand>;
using Recordset = InterfacePtr<IZIRDBRecordset>;

// ---------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------

constexpr const wchar_t* kConnectionSource = L"ZIRDB.Connection";
constexpr const wchar_t* kCommandSource = L"ZIRDB.Command";

constexpr HRESULT kAlreadyOpenCode = zir_hresult(0x80040711);
constexpr HRESULT kOpenFailedCode = zir_hresult(0x80040710);
constexpr HRESULT kExecuteFailedCode = zir_hresult(0x80040712);
constexpr HRESULT kNoTextCode = zir_hresult(0x80040E0C);
constexpr HRESULT kNoConnectionCode = zir_hresult(0x800A0E7D);
constexpr HRESULT kErrorsInCommandCode = zir_hresult(0x80040E14);
constexpr HRESULT kErrorsOccurredCode = zir_hresult(0x80040E21);
constexpr HRESULT kBadParameterCode = zir_hresult(0x800A0E7C);

constexpr const wchar_t* kAlreadyOpenText = L"Connection is already open";
constexpr const wchar_t* kNoStringText = L"ConnectionString is required";
constexpr const wchar_t* kNoTextText =
    L"Command text was not set for the command object.";
constexpr const wchar_t* kNoConnectionText =
    L"The connection cannot be used to perform this operation. It is either "
    L"closed or invalid in this context.";
constexpr const wchar_t* kTooManyArgumentsText =
    L"Too many arguments were specified for the stored procedure.";
constexpr const wchar_t* kNearOutputText = L"Incorrect syntax near 'OUTPUT'.";
constexpr const wchar_t* kBadParameterText =
    L"Parameter object is improperly defined. Inconsistent or incomplete "
    L"information was provided.";
constexpr const wchar_t* kErrorsOccurredText =
    L"Multiple-step OLE DB operation generated errors. Check each OLE DB "
    L"status value, if available. No work was done.";
constexpr const wchar_t* kLayoutText =
    L"Stored procedure execution is not supported for this parameter layout.";
constexpr const wchar_t* kForeignText =
    L"Parameterized execute requires ZIRDB.Connection.";
constexpr const wchar_t* kValueText =
    L"Parameter value is not compatible with parameter type.";
constexpr const wchar_t* kResultText =
    L"Parameter result is not compatible with ZIRDB.Parameter.Value.";
constexpr const wchar_t* kArrayResultText =
    L"Parameter array cannot receive post-execute values.";
constexpr const wchar_t* kArrayText =
    L"Parameter array is not compatible with command execution.";

// ---------------------------------------------------------------------------
// Objects
// ---------------------------------------------------------------------------

/// A closed one.
inline Connection connection() {
  return obtained<IZIRDBConnection>("connection", [](void** out) {
    return factory_of(CLSID_ZIRDBConnection)
        ->CreateInstance(nullptr, IID_IZIRDBConnection, out);
  });
}

/// An open one.
inline Connection opened(const std::string& connection_string) {
  Connection made = connection();
  const std::wstring text(connection_string.begin(), connection_string.end());
  _bstr_t argument(text.c_str());
  const HRESULT result = made->Open(argument.m_s, nullptr, nullptr, 0);
  if (result != S_OK) {
    throw std::runtime_error("Open answers " + std::to_string(result));
  }
  return made;
}

/// A command without a connection.
inline Command command() {
  return obtained<IZIRDBCommand>("command", [](void** out) {
    return factory_of(CLSID_ZIRDBCommand)
        ->CreateInstance(nullptr, IID_IZIRDBCommand, out);
  });
}

/// A command over a connection, with a text.
inline Command command(const Connection& over, const wchar_t* text) {
  Command made = command();
  _bstr_t argument(text);
  if (made->putref_ActiveConnection(dispatch_of(over.get()).get()) != S_OK ||
      made->put_CommandText(argument.m_s) != S_OK) {
    throw std::runtime_error("the command cannot be set up");
  }
  return made;
}

// ---------------------------------------------------------------------------
// Executing and reading
// ---------------------------------------------------------------------------

/// Through the vtable.
inline std::pair<HRESULT, Recordset> execute(const Connection& connection,
                                             const wchar_t* sql,
                                             VARIANT* affected = nullptr) {
  _bstr_t text(sql);
  return received<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
    return connection->Execute(text.m_s, affected, 0, out);
  });
}
inline std::pair<HRESULT, Recordset> execute(const Command& command,
                                             VARIANT* affected = nullptr) {
  return received<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
    return command->Execute(affected, 0, out);
  });
}

/// A value of the current row, by the column's position.
inline _variant_t value_at(const Recordset& recordset, long column) {
  _variant_t index;
  index.vt = VT_I4;
  index.lVal = column;
  auto [found, field] = received<IZIRDBField>([&](IZIRDBField** out) {
    return fields_of(recordset.get())->Item(index, out);
  });
  _variant_t value;
  if (found != S_OK || field->get_Value(&value) != S_OK) {
    throw std::runtime_error("no value in column " + std::to_string(column));
  }
  return value;
}

inline long state_of(const Recordset& recordset) {
  long state = -1;
  if (recordset->get_State(&state) != S_OK) throw std::runtime_error("State");
  return state;
}
inline bool at_end(const Recordset& recordset) {
  VARIANT_BOOL end = VARIANT_FALSE;
  if (recordset->get_EOF(&end) != S_OK) throw std::runtime_error("EOF");
  return end != VARIANT_FALSE;
}

}  // namespace component

#endif  // ZIRDB_TESTS_SUPPORT_CONNECTIONS_H
