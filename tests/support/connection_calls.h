// SPDX-License-Identifier: MIT
//
// For tests of connections over the scripted database: every operation by
// either road, how it ended, and what reached the driver.

#ifndef ZIRDB_TESTS_SUPPORT_CONNECTION_CALLS_H
#define ZIRDB_TESTS_SUPPORT_CONNECTION_CALLS_H

#include <gtest/gtest.h>

#include <ios>
#include <iterator>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/connections.h"
#include "support/parameters.h"
#include "support/scripted_odbc_fixture.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace connection_calls {

using component::Answer;
using component::Connection;
using component::Recordset;

/// A data source that both faces of the scripted database know.
constexpr const wchar_t* kSource = L"DSN=scripted";

enum class Road { Vtable, LateBound };
constexpr Road kRoads[] = {Road::Vtable, Road::LateBound};

inline std::ostream& operator<<(std::ostream& out, Road road) {
  return out << (road == Road::Vtable ? "vtable" : "late-bound");
}

/// Tests read better with the member's name.
constexpr DISPID kConnectionString = 1;
constexpr DISPID kState = 2;
constexpr DISPID kOpen = 3;
constexpr DISPID kClose = 4;
constexpr DISPID kExecute = 5;
constexpr DISPID kParameterised = 0;

// ---------------------------------------------------------------------------
// How an operation ended
// ---------------------------------------------------------------------------

/// Only the late-bound road tells source and text.
struct Ended {
  Road road = Road::Vtable;
  HRESULT code = S_OK;
  std::wstring source = {};
  std::optional<std::wstring> text = {};
  Recordset recordset = {};  ///< that an execution handed out
};

inline Ended ended(const Answer& answer) {
  Ended ended{Road::LateBound, answer.result};
  if (answer.result == DISP_E_EXCEPTION) {
    ended.code = answer.code;
    ended.source = answer.source;
    ended.text = answer.description;
  } else {
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.source, L"");
    EXPECT_FALSE(answer.description.has_value());
  }
  if (answer.value.vt == VT_DISPATCH && answer.value.pdispVal != nullptr) {
    ended.recordset = component::query<IZIRDBRecordset>(answer.value.pdispVal,
                                                        IID_IZIRDBRecordset);
    EXPECT_TRUE(ended.recordset);
  } else {
    EXPECT_EQ(answer.value.vt, VT_EMPTY);
  }
  return ended;
}

inline void expect_done(const Ended& ended) {
  EXPECT_EQ(ended.code, S_OK) << std::hex << ended.code;
  EXPECT_EQ(ended.source, L"");
  EXPECT_FALSE(ended.text.has_value());
}

/// A NULL `text` means that there must be none.
inline void expect_failed(const Ended& ended, HRESULT code,
                          const wchar_t* text) {
  EXPECT_EQ(ended.code, code) << std::hex << ended.code;
  EXPECT_FALSE(ended.recordset);
  if (ended.road == Road::Vtable) return;
  EXPECT_EQ(ended.source, component::kConnectionSource);
  EXPECT_EQ(ended.text.has_value(), text != nullptr);
  if (ended.text && text != nullptr) {
    EXPECT_EQ(*ended.text, text);
  }
}
inline void expect_failed(const Ended& ended, HRESULT code,
                          const std::string& ascii) {
  expect_failed(ended, code, std::wstring(ascii.begin(), ascii.end()).c_str());
}

// ---------------------------------------------------------------------------
// Operations
// ---------------------------------------------------------------------------

/// With all its characters, zeros included.
inline _bstr_t bstr(const std::wstring& text) {
  return {SysAllocStringLen(text.data(), static_cast<UINT>(text.size())),
          false};
}

inline InterfacePtr<IDispatch> dispatch_of(const Connection& connection) {
  return component::dispatch_of(connection.get());
}

/// A late-bound method; the arguments keep the zeros in their texts and stay
/// the caller's.
inline Answer call(const Connection& connection, DISPID member,
                   const std::vector<VARIANT>& arguments) {
  parameters::RawCall raw;
  raw.member = member;
  raw.arguments = arguments;
  return parameters::invoke_raw(dispatch_of(connection).get(), raw);
}

inline Ended open_by(Road road, const Connection& connection,
                     const std::wstring& string, const std::wstring& user = L"",
                     const std::wstring& password = L"") {
  if (road == Road::Vtable) {
    return {road, connection->Open(bstr(string).m_s, bstr(user).m_s,
                                   bstr(password).m_s, 0)};
  }
  const _variant_t arguments[] = {values::text_value(string),
                                  values::text_value(user),
                                  values::text_value(password)};
  return ended(
      call(connection, kOpen, {std::begin(arguments), std::end(arguments)}));
}

inline Ended close_by(Road road, const Connection& connection) {
  if (road == Road::Vtable) return {road, connection->Close()};
  return ended(call(connection, kClose, {}));
}

inline Ended execute_by(Road road, const Connection& connection,
                        const std::wstring& sql, VARIANT* affected = nullptr) {
  if (road == Road::Vtable) {
    const _bstr_t text = bstr(sql);
    auto [code, recordset] =
        component::received<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
          return connection->Execute(text.m_s, affected, 0, out);
        });
    return {road, code, {}, {}, std::move(recordset)};
  }
  const _variant_t text = values::text_value(sql);
  std::vector<VARIANT> arguments{text};
  if (affected != nullptr) arguments.push_back(*affected);
  return ended(call(connection, kExecute, arguments));
}

inline Ended put_string(Road road, const Connection& connection,
                        const std::wstring& string) {
  if (road == Road::Vtable) {
    return {road, connection->put_ConnectionString(bstr(string).m_s)};
  }
  return ended(parameters::put_raw(dispatch_of(connection).get(),
                                   kConnectionString,
                                   values::text_value(string)));
}

inline std::wstring string_of(Road road, const Connection& connection) {
  if (road == Road::Vtable) {
    _bstr_t string;
    EXPECT_EQ(connection->get_ConnectionString(&string.m_s), S_OK);
    if (string.m_s == nullptr) return {};
    return {string.m_s, SysStringLen(string.m_s)};
  }
  const Answer answer =
      component::get(dispatch_of(connection).get(), kConnectionString);
  EXPECT_EQ(answer.result, S_OK);
  EXPECT_EQ(answer.value.vt, VT_BSTR);
  return answer.value.vt == VT_BSTR ? values::text_of(answer.value)
                                    : std::wstring();
}

inline long state_of(Road road, const Connection& connection) {
  if (road == Road::Vtable) {
    long state = -77;
    EXPECT_EQ(connection->get_State(&state), S_OK);
    return state;
  }
  const Answer answer = component::get(dispatch_of(connection).get(), kState);
  EXPECT_EQ(answer.result, S_OK);
  EXPECT_EQ(answer.value.vt, VT_I4);
  return answer.value.lVal;
}

// ---------------------------------------------------------------------------
// The fixture
// ---------------------------------------------------------------------------

class ConnectionTest : public ScriptedOdbc {
 protected:
  /// An open connection, with a log in which only what follows is written.
  static Connection opened() {
    Connection made = component::opened("DSN=scripted");
    script().clear_log();
    return made;
  }

  /// The string that reached the driver, the n-th time one was opened.
  static std::string string_sent(int which = 1) {
    return script()
        .call("SQLDriverConnect", scripted_odbc::nth(which))
        .bytes("string");
  }

  /// The statement that reached the driver.
  static std::string sql_sent() {
    return script().call("SQLExecDirect").bytes("sql");
  }

  static std::size_t executions() {
    return script().count("SQLExecDirect") + script().count("SQLExecute");
  }
};

}  // namespace connection_calls

#endif  // ZIRDB_TESTS_SUPPORT_CONNECTION_CALLS_H
