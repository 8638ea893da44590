// SPDX-License-Identifier: MIT
//
// For tests of commands: both roads to every member, how an operation ended
// together with what the calling thread knows of it, and a connection of
// somebody else's that does as it is told. Works through the shared library.
//
// The thread's error record is hidden there. What shows it is a foreign
// connection: it fails plainly, and the command that called it reports the
// record as it was left.
//
// Sections: outcomes; a foreign connection; what the record holds; executing;
// parameters; what must not change.

#ifndef ZIRDB_TESTS_SUPPORT_COMMANDS_H
#define ZIRDB_TESTS_SUPPORT_COMMANDS_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <ios>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "support/connections.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace commands {

using component::Answer;
using component::Command;
using component::Connection;
using component::dispatch_of;
using component::Recordset;
using Parameter = InterfacePtr<IZIRDBParameter>;
using Parameters = InterfacePtr<IZIRDBParameters>;

// ---------------------------------------------------------------------------
// Outcomes
// ---------------------------------------------------------------------------

/// How an operation ended, and what a script could be told about it.
struct Outcome {
  HRESULT code = S_OK;
  std::wstring source;
  std::wstring text;

  friend bool operator==(const Outcome& left, const Outcome& right) {
    return left.code == right.code && left.source == right.source &&
           left.text == right.text;
  }
  friend std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << "0x" << std::hex << outcome.code << std::dec << ", "
               << std::string(outcome.source.begin(), outcome.source.end())
               << ", \""
               << std::string(outcome.text.begin(), outcome.text.end()) << "\"";
  }
};

/// Nothing was recorded: a command stands in for the missing source.
inline Outcome plainly(HRESULT code) {
  return {code, component::kCommandSource, L""};
}
inline const Outcome kDone = plainly(S_OK);

/// A failure with a text, recorded by the command.
inline Outcome failure(HRESULT code, const wchar_t* text) {
  return {code, component::kCommandSource, text};
}
inline const Outcome kNoConnection =
    failure(component::kNoConnectionCode, component::kNoConnectionText);
inline const Outcome kNoText =
    failure(component::kNoTextCode, component::kNoTextText);
inline const Outcome kTooManyArguments =
    failure(component::kErrorsInCommandCode, component::kTooManyArgumentsText);
inline const Outcome kNearOutput =
    failure(component::kErrorsInCommandCode, component::kNearOutputText);
inline const Outcome kBadParameter =
    failure(component::kBadParameterCode, component::kBadParameterText);
inline const Outcome kErrorsOccurred =
    failure(component::kErrorsOccurredCode, component::kErrorsOccurredText);
inline const Outcome kLayout = failure(E_NOTIMPL, component::kLayoutText);
inline const Outcome kForeign = failure(E_NOTIMPL, component::kForeignText);
inline Outcome bad_value(HRESULT code) {
  return failure(code, component::kValueText);
}

/// Of a late-bound call.
inline Outcome outcome_of(const Answer& answer) {
  if (answer.result == DISP_E_EXCEPTION) {
    EXPECT_FALSE(answer.description && answer.description->empty());
    return {answer.code, answer.source, answer.description.value_or(L"")};
  }
  EXPECT_EQ(answer.code, 0);
  EXPECT_EQ(answer.source, L"");
  EXPECT_FALSE(answer.description.has_value());
  return plainly(answer.result);
}

enum class Road { kVtable, kLateBound };
constexpr Road kRoads[] = {Road::kVtable, Road::kLateBound};

inline std::ostream& operator<<(std::ostream& out, Road road) {
  return out << (road == Road::kVtable ? "vtable" : "late-bound");
}

// ---------------------------------------------------------------------------
// A foreign connection
// ---------------------------------------------------------------------------

/// Answers Execute as told and notes how it was called; nothing else of a
/// connection is called by a command. Lives as long as the test's scope, at the
/// end of which nobody else may hold it.
class ForeignConnection final : public objects::NeverInvoked<IZIRDBConnection> {
 public:
  struct Executed {
    std::wstring text;
    VARIANT* affected_at;
    VARIANT affected;  ///< as it was, not owned
    long options;
    bool out_was_null;  ///< what `*recordset` held
  };

  HRESULT result = S_OK;
  Recordset recordset;                ///< handed out, if any
  IZIRDBRecordset* stored = nullptr;  ///< stored as it is, if any: no object
  std::function<void()> on_execute;   ///< runs inside of Execute
  bool is_connection = true;          ///< answers IID_IZIRDBConnection
  bool has_dispatch = true;           ///< answers IID_IDispatch
  std::vector<Executed> executed;

  ForeignConnection() = default;
  ForeignConnection(const ForeignConnection&) = delete;
  ForeignConnection& operator=(const ForeignConnection&) = delete;
  // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall)
  virtual ~ForeignConnection() { EXPECT_EQ(references_, 1U); }

  IDispatch* dispatch() { return this; }
  IUnknown* unknown() { return static_cast<IZIRDBConnection*>(this); }
  std::uint32_t references() const { return references_; }

  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (riid == IID_IUnknown ||
        (riid == IID_IZIRDBConnection && is_connection)) {
      *object = static_cast<IZIRDBConnection*>(this);
    } else if (riid == IID_IDispatch && has_dispatch) {
      *object = static_cast<IDispatch*>(this);
    } else {
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }

  HRESULT Execute(BSTR text, VARIANT* affected, long options,
                  IZIRDBRecordset** out) override {
    executed.push_back({text == nullptr
                            ? std::wstring()
                            : std::wstring(text, SysStringLen(text)),
                        affected, affected == nullptr ? VARIANT() : *affected,
                        options, *out == nullptr});
    if (on_execute) on_execute();
    if (recordset) {
      recordset->AddRef();
      *out = recordset.get();
    }
    if (stored != nullptr) *out = stored;
    return result;
  }

  HRESULT get_ConnectionString(BSTR* /*out*/) override { return unwanted(); }
  HRESULT put_ConnectionString(BSTR /*value*/) override { return unwanted(); }
  HRESULT get_State(long* /*state*/) override { return unwanted(); }
  HRESULT Open(BSTR /*string*/, BSTR /*user*/, BSTR /*password*/,
               long /*options*/) override {
    return unwanted();
  }
  HRESULT Close() override { return unwanted(); }

 private:
  std::uint32_t references_ = 1;
};

/// A command over a connection of any kind.
inline Command command_over(IDispatch* connection, const wchar_t* text,
                            long type = ZIRDB_AD_CMD_UNKNOWN) {
  Command made = component::command();
  _bstr_t argument(text);
  EXPECT_EQ(made->putref_ActiveConnection(connection), S_OK);
  EXPECT_EQ(made->put_CommandText(argument.m_s), S_OK);
  EXPECT_EQ(made->put_CommandType(type), S_OK);
  return made;
}
inline Command command_over(const Connection& connection, const wchar_t* text,
                            long type = ZIRDB_AD_CMD_UNKNOWN) {
  return command_over(dispatch_of(connection.get()).get(), text, type);
}

// ---------------------------------------------------------------------------
// What the record holds
// ---------------------------------------------------------------------------

/// Something that the next operation must take away or replace.
inline void leave_an_error() {
  Recordset recordset;
  recordset.receive([](void** out) {
    return component::factory_of(CLSID_ZIRDBRecordset)
        ->CreateInstance(nullptr, IID_IZIRDBRecordset, out);
  });
  EXPECT_EQ(recordset->MovePrevious(), component::kNotInThisContextCode);
}

/// Calls `act`, which returns a result code, in a thread with an old error.
/// What it returned, and the source and text that are recorded afterwards.
template <class Act>
Outcome ended(Act act) {
  Outcome outcome;
  ForeignConnection witness;
  witness.result = E_FAIL;
  witness.on_execute = [&] {
    leave_an_error();
    outcome.code = act();
  };
  const Answer answer =
      component::method(dispatch_of(command_over(&witness, L"any").get()).get(),
                        DISPID_ZIRDB_COMMAND_EXECUTE);
  EXPECT_EQ(answer.result, DISP_E_EXCEPTION);
  EXPECT_EQ(answer.code, E_FAIL);
  outcome.source = answer.source;
  outcome.text = answer.description.value_or(L"");
  return outcome;
}

/// The same for a late-bound call that `act` makes and returns the answer of.
template <class Act>
std::pair<Outcome, Answer> answered(Act act) {
  Answer answer;
  const Outcome seen = ended([&] {
    answer = act();
    return answer.result;
  });
  const Outcome outcome = outcome_of(answer);
  if (answer.result != DISP_E_EXCEPTION) {
    EXPECT_EQ(seen, outcome) << "an error is left in the thread";
  }
  return {outcome, std::move(answer)};
}

// ---------------------------------------------------------------------------
// Executing
// ---------------------------------------------------------------------------

struct Ran {
  Outcome outcome;
  Recordset recordset;
};

inline Recordset recordset_in(const Answer& answer) {
  if (answer.value.vt != VT_DISPATCH) return {};
  return component::query<IZIRDBRecordset>(answer.value.pdispVal,
                                           IID_IZIRDBRecordset);
}

/// Late-bound, with the arguments as a script writes them: neither owned nor
/// changed, except through their references.
inline Ran run_with(const Command& command,
                    const std::vector<VARIANT>& arguments,
                    WORD flags = DISPATCH_METHOD) {
  auto [outcome, answer] = answered([&] {
    parameters::RawCall call;
    call.member = DISPID_ZIRDB_COMMAND_EXECUTE;
    call.flags = flags;
    call.arguments = arguments;
    return parameters::invoke_raw(dispatch_of(command.get()).get(), call);
  });
  EXPECT_EQ(answer.value.vt, SUCCEEDED(outcome.code) ? VT_DISPATCH : VT_EMPTY);
  Ran ran{outcome, recordset_in(answer)};
  EXPECT_EQ(static_cast<bool>(ran.recordset), SUCCEEDED(outcome.code));
  return ran;
}

inline Ran run(Road road, const Command& command, VARIANT* affected = nullptr,
               long options = 0) {
  if (road == Road::kLateBound) {
    std::vector<VARIANT> arguments;
    if (affected != nullptr || options != 0) {
      arguments = {affected == nullptr ? VARIANT() : *affected,
                   _variant_t(options)};
    }
    return run_with(command, arguments);
  }
  Ran ran;
  ran.outcome = ended([&] {
    IZIRDBRecordset* out = nullptr;
    const HRESULT result = command->Execute(affected, options, &out);
    ran.recordset = Recordset::adopt(out);
    return result;
  });
  EXPECT_EQ(static_cast<bool>(ran.recordset), SUCCEEDED(ran.outcome.code));
  return ran;
}

// ---------------------------------------------------------------------------
// Parameters
// ---------------------------------------------------------------------------

inline Parameters parameters_of(const Command& command) {
  auto [result, list] = component::received<IZIRDBParameters>(
      [&](IZIRDBParameters** out) { return command->get_Parameters(out); });
  EXPECT_EQ(result, S_OK);
  return list;
}

/// A parameter that belongs to nothing yet.
inline Parameter created(const Command& command, const VARIANT& value,
                         long type = ZIRDB_AD_EMPTY,
                         long direction = ZIRDB_AD_PARAM_INPUT, long size = 0,
                         const wchar_t* name = L"p") {
  _bstr_t text(name);
  auto [result, parameter] =
      component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
        return command->CreateParameter(text.m_s, type, direction, size, value,
                                        out);
      });
  EXPECT_EQ(result, S_OK);
  return parameter;
}

inline Parameter append(const Command& command, const VARIANT& value,
                        long type = ZIRDB_AD_EMPTY,
                        long direction = ZIRDB_AD_PARAM_INPUT, long size = 0) {
  Parameter parameter = created(command, value, type, direction, size);
  EXPECT_EQ(parameters_of(command)->Append(parameter.get()), S_OK);
  return parameter;
}

/// Parameters that hold 1, 2, 3 and so on in these directions.
inline void append_directions(const Command& command,
                              const std::vector<long>& directions) {
  std::int64_t value = 0;
  for (const long direction : directions) {
    append(command, _variant_t(++value), ZIRDB_AD_BIGINT, direction);
  }
}

/// The values of a command's parameters, described.
inline std::vector<std::string> values_in(const Command& command) {
  return parameters::values_of(parameters_of(command));
}
inline std::vector<std::string> described(
    const std::vector<_variant_t>& contents) {
  std::vector<std::string> all;
  for (const _variant_t& content : contents) {
    all.push_back(parameters::describe(content));
  }
  return all;
}

// ---------------------------------------------------------------------------
// What must not change
// ---------------------------------------------------------------------------

/// All of a command that a host can read.
struct Settings {
  std::wstring text;
  long type = 0;
  IDispatch* connection = nullptr;  ///< not owned
  std::vector<parameters::Record> records;

  friend bool operator==(const Settings& left, const Settings& right) {
    return left.text == right.text && left.type == right.type &&
           left.connection == right.connection && left.records == right.records;
  }
  friend std::ostream& operator<<(std::ostream& out, const Settings& settings) {
    return out << testing::PrintToString(settings.text) << ", type "
               << settings.type << ", connection " << settings.connection
               << ", " << testing::PrintToString(settings.records);
  }
};

inline std::wstring text_of(const Command& command) {
  _bstr_t text;
  EXPECT_EQ(command->get_CommandText(&text.m_s), S_OK);
  return text.m_s == nullptr ? std::wstring()
                             : std::wstring(text.m_s, SysStringLen(text.m_s));
}
inline long type_of(const Command& command) {
  long type = -99;
  EXPECT_EQ(command->get_CommandType(&type), S_OK);
  return type;
}
inline InterfacePtr<IDispatch> connection_of(const Command& command) {
  auto [result, connection] = component::received<IDispatch>(
      [&](IDispatch** out) { return command->get_ActiveConnection(out); });
  EXPECT_EQ(result, S_OK);
  return connection;
}

inline Settings settings_of(const Command& command) {
  return {text_of(command), type_of(command), connection_of(command).get(),
          parameters::records_of(parameters_of(command))};
}

}  // namespace commands

#endif  // ZIRDB_TESTS_SUPPORT_COMMANDS_H
