// SPDX-License-Identifier: MIT
//
// No memory, at every single place where a command asks for some.
//
// Sections: operations; arrays of scripts; operations that fail anyway; what
// needs no memory.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/connections.h"
#include "support/scripted_odbc_fixture.h"
#include "support/session_without_memory.h"
#include "support/without_memory.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace session_without_memory;
using scripted_odbc::binary;
using scripted_odbc::cell;
using scripted_odbc::null_cell;

constexpr const wchar_t* kSource = component::kCommandSource;

class CommandWithoutMemory : public ScriptedOdbc {
 protected:
  void SetUp() override {
    ScriptedOdbc::SetUp();
    script_database();
  }
};

// ---------------------------------------------------------------------------
// Operations
// ---------------------------------------------------------------------------

void set_text(Session& s, const wchar_t* text, long type) {
  _bstr_t string(text);
  EXPECT_EQ(s.command->put_CommandText(string.m_s), S_OK);
  EXPECT_EQ(s.command->put_CommandType(type), S_OK);
}

HRESULT execute(Session& s) {
  VARIANT reference = s.rows_affected();
  return s.receive<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
    return s.command->Execute(&reference, 0, out);
  });
}
HRESULT execute_late(Session& s) {
  return s.late(s.command, DISPID_ZIRDB_COMMAND_EXECUTE);
}

/// In/out parameters of every type, and what the database answers.
void append_in_outs(Session& s) {
  const _variant_t text(L"a text that goes there");
  for (const long type : {ZIRDB_AD_INTEGER, ZIRDB_AD_BIGINT}) {
    s.append(type, ZIRDB_AD_PARAM_INPUT_OUTPUT, _variant_t(1));
  }
  s.append(ZIRDB_AD_BOOLEAN, ZIRDB_AD_PARAM_INPUT_OUTPUT, _variant_t(true));
  for (const long type : {ZIRDB_AD_VARCHAR, ZIRDB_AD_GUID, ZIRDB_AD_VARWCHAR}) {
    s.append(type, ZIRDB_AD_PARAM_INPUT_OUTPUT, text);
  }
  s.append(ZIRDB_AD_VARBINARY, ZIRDB_AD_PARAM_INPUT_OUTPUT,
           without_memory::bytes_value(Blob(30, 'x')));
  s.append(ZIRDB_AD_VARCHAR, ZIRDB_AD_PARAM_INPUT_OUTPUT, text);
  s.append(ZIRDB_AD_VARWCHAR, ZIRDB_AD_PARAM_INPUT, text);

  script().output(1, cell(7));
  script().output(2, cell(8));
  script().output(3, cell(false));
  script().output(4, cell("a text that comes back"));
  script().output(5, cell("{a GUID that comes back}"));
  script().output(6, cell("a wide text that comes back"));
  script().output(7, binary(std::string(40, 'y')));
  script().output(8, null_cell());
}
const std::vector<std::wstring> kInOutsAfter = {L"7",
                                                L"8",
                                                L"false",
                                                L"a text that comes back",
                                                L"{a GUID that comes back}",
                                                L"a wide text that comes back",
                                                std::wstring(40, L'y'),
                                                L"null",
                                                L"a text that goes there"};

/// Inputs of which some are made texts by the runtime.
void append_inputs(Session& s) {
  s.append(ZIRDB_AD_VARCHAR, ZIRDB_AD_PARAM_INPUT,
           _variant_t(1234567890123456789));
  s.append(ZIRDB_AD_EMPTY, ZIRDB_AD_PARAM_INPUT, allocator::date(45292.75));
  s.append(ZIRDB_AD_EMPTY, ZIRDB_AD_PARAM_INPUT,
           _variant_t(L"a text that goes there"));
  s.append(ZIRDB_AD_EMPTY, ZIRDB_AD_PARAM_INPUT,
           without_memory::bytes_value(Blob(30, 'x')));
}
const std::vector<std::wstring> kInputsAfter = {
    L"1234567890123456789", L"2024/01/01 18:00:00", L"a text that goes there",
    std::wstring(30, L'x')};

/// A return value in front of an input and an output.
void append_for_a_call(Session& s) {
  s.append(ZIRDB_AD_INTEGER, ZIRDB_AD_PARAM_RETURN_VALUE, _variant_t());
  s.append(ZIRDB_AD_VARWCHAR, ZIRDB_AD_PARAM_INPUT,
           _variant_t(L"a text that goes there"));
  s.append(ZIRDB_AD_VARWCHAR, ZIRDB_AD_PARAM_OUTPUT,
           _variant_t(L"a text of before"));
}
const std::vector<std::wstring> kCallAfter = {
    L"empty", L"a text that goes there", L"empty"};

constexpr const wchar_t* kNewParameter =
    L"the name of the new one = its value is long too (200, 1, 40)";

void pass_new_parameter(Session& s) {
  s.pass({_variant_t(L"the name of the new one"), _variant_t(200),
          _variant_t(1), _variant_t(40), _variant_t(L"its value is long too")});
}

HRESULT create_parameter(Session& s) {
  return s.receive<IZIRDBParameter>([&](IZIRDBParameter** out) {
    return s.command->CreateParameter(s.passed[4].bstrVal, 200, 1, 40,
                                      s.passed[0], out);
  });
}
HRESULT create_parameter_late(Session& s) {
  return s.late(s.command, DISPID_ZIRDB_COMMAND_CREATEPARAMETER);
}

std::vector<Operation> operations() {
  using S = Session&;
  const std::vector<const wchar_t*> values = {component::kValueText,
                                              component::kResultText};
  return {
      {"CreateInstance",
       [](S s) { s.factory = component::factory_of(CLSID_ZIRDBCommand); },
       [](S s) {
         return s.receive<IUnknown>([&](IUnknown** out) {
           void* stored = *out;
           const HRESULT result =
               s.factory->CreateInstance(nullptr, IID_IZIRDBCommand, &stored);
           *out = static_cast<IUnknown*>(stored);
           return result;
         });
       },
       nullptr, L"command"},

      // Properties.
      {"GetCommandText", nothing,
       [](S s) {
         return s.receive_text(
             [&](BSTR* out) { return s.command->get_CommandText(out); });
       },
       nullptr, kText},
      {"CommandTextGetLateBound", nothing,
       [](S s) {
         return s.late(s.command, DISPID_ZIRDB_COMMAND_COMMANDTEXT, kGet);
       },
       kSource, kText},
      {"PutCommandText",
       [](S s) { s.pass({_variant_t(L"another text that is long")}); },
       [](S s) { return s.command->put_CommandText(s.passed[0].bstrVal); },
       nullptr, L"nothing", kText, L"another text that is long"},
      {"CommandTextPutLateBound",
       [](S s) { s.pass({_variant_t(L"another text that is long")}); },
       [](S s) {
         return s.late(s.command, DISPID_ZIRDB_COMMAND_COMMANDTEXT, kPut);
       },
       kSource, L"nothing", kText, L"another text that is long"},
      {"GetParameters", append_for_a_call,
       [](S s) {
         return s.receive<IZIRDBParameters>([&](IZIRDBParameters** out) {
           return s.command->get_Parameters(out);
         });
       },
       nullptr,
       L"parameters: a parameter of the command = empty (3, 4, 80); a "
       L"parameter of the command = a text that goes there (202, 1, 80); a "
       L"parameter of the command = a text of before (202, 2, 80); "},
      {"ParametersLateBound", nothing,
       [](S s) {
         return s.late(s.command, DISPID_ZIRDB_COMMAND_PARAMETERS, kGet);
       },
       kSource, L"parameters: "},

      // Parameters.
      {"CreateParameter", pass_new_parameter, create_parameter, nullptr,
       kNewParameter},
      {"CreateParameterLateBound", pass_new_parameter, create_parameter_late,
       kSource, kNewParameter},
      {"CreateParameterOfBytes",
       [](S s) {
         s.pass({_variant_t(L"the name of the new one"), _variant_t(200),
                 _variant_t(1), _variant_t(40),
                 without_memory::bytes_value(Blob(30, 'x'))});
       },
       create_parameter, nullptr,
       L"the name of the new one = xxxxxxxxxxxxxxxxxxxxxxxxxxxxxx (200, 1, "
       L"40)"},
      {"CreateParameterWithANumberAsItsName",
       [](S s) { s.pass({_variant_t(1234567890123456789)}); },
       create_parameter_late,
       kSource,
       L"1234567890123456789 = empty (0, 0, 0)",
       L"",
       L"",
       {},
       true},
      {"AppendOfACreatedOne",
       pass_new_parameter,
       [](S s) {
         InterfacePtr<IZIRDBParameter> created;
         const HRESULT result = [&] {
           const without_memory::Unwatched unwatched;
           const HRESULT made = create_parameter(s);
           created = component::query<IZIRDBParameter>(s.object.get(),
                                                       IID_IZIRDBParameter);
           s.forget();
           return made;
         }();
         return result == S_OK ? s.parameters->Append(created.get()) : result;
       },
       nullptr,
       L"nothing",
       L"",
       L"",
       {},
       false,
       {L"its value is long too"}},

      // Execution.
      {"ExecuteForRows", nothing, execute, nullptr, kRows.c_str(),
       L"a text of before", L"-1"},
      {"ExecuteForRowsLateBound", [](S s) { s.pass({s.rows_affected()}); },
       execute_late, kSource, kRows.c_str(), L"a text of before", L"-1"},
      {"ExecuteWithoutColumns",
       [](S s) { set_text(s, kUpdate, ZIRDB_AD_CMD_TEXT); },
       execute,
       nullptr,
       L"closed recordset",
       L"a text of before",
       L"3",
       {},
       false,
       {},
       true},
      {"ExecuteWithInputs",
       [](S s) {
         set_text(s, kText, ZIRDB_AD_CMD_TEXT);
         append_inputs(s);
       },
       execute, nullptr, kRows.c_str(), L"a text of before", L"-1", values,
       true, kInputsAfter, true},
      {"ExecuteWithInputsLateBound",
       [](S s) {
         set_text(s, kText, ZIRDB_AD_CMD_TEXT);
         append_inputs(s);
         s.pass({s.rows_affected(), _variant_t(0)});
       },
       execute_late, kSource, kRows.c_str(), L"a text of before", L"-1", values,
       true, kInputsAfter, true},
      {"ExecuteWithInOuts",
       [](S s) {
         set_text(s, kUpdate, ZIRDB_AD_CMD_TEXT);
         append_in_outs(s);
       },
       execute, nullptr, L"closed recordset", L"a text of before", L"3", values,
       false, kInOutsAfter, true},
      {"ExecuteWithInOutsLateBound",
       [](S s) {
         set_text(s, kUpdate, ZIRDB_AD_CMD_TEXT);
         append_in_outs(s);
         s.pass({s.rows_affected()});
       },
       execute_late, kSource, L"closed recordset", L"a text of before", L"3",
       values, false, kInOutsAfter, true},
      {"ExecuteOfAProcedure",
       [](S s) {
         set_text(s, L"a_procedure_of_a_long_name", ZIRDB_AD_CMD_STORED_PROC);
         append_for_a_call(s);
       },
       execute, nullptr, kRows.c_str(), L"a text of before", L"-1", values,
       false, kCallAfter, true},
      {"ExecuteOfAProcedureWithoutParameters",
       [](S s) {
         set_text(s, L"a_procedure_of_a_long_name", ZIRDB_AD_CMD_STORED_PROC);
       },
       execute, nullptr, kRows.c_str(), L"a text of before", L"-1"},
      {"ExecuteOfATextWhoseOutputsAreNotRead",
       [](S s) {
         set_text(s, L"{? = CALL sp_executesql(?, ?)}", ZIRDB_AD_CMD_TEXT);
         append_for_a_call(s);
       },
       execute, nullptr, kRows.c_str(), L"a text of before", L"-1", values,
       false, kCallAfter, true},
  };
}

class NoMemoryForACommand : public CommandWithoutMemory,
                            public testing::WithParamInterface<Operation> {};

TEST_P(NoMemoryForACommand, AnOperationFailsAndChangesNothing) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              attempt_operation(GetParam(), attempt);
            }),
            1);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryForACommand,
                         testing::ValuesIn(operations()),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// ---------------------------------------------------------------------------
// Arrays of scripts
// ---------------------------------------------------------------------------

std::vector<std::wstring> elements_of(const _variant_t& array) {
  std::vector<std::wstring> all;
  const SafeArrayAccess access(array.parray);
  EXPECT_EQ(access.result(), S_OK);
  for (std::uint32_t i = 0; i < array.parray->rgsabound[0].cElements; ++i) {
    all.push_back(shown(access.elements<VARIANT>()[i]));
  }
  return all;
}

/// Elements that were refreshed stand in front, the one that lacked memory may
/// have been cleared, those behind it are as they were.
void expect_refreshed_in_order(const std::vector<std::wstring>& now,
                               const std::vector<std::wstring>& before,
                               const std::vector<std::wstring>& after) {
  ASSERT_EQ(now.size(), before.size());
  std::size_t at = 0;
  while (at < now.size() && now[at] == after[at]) ++at;
  if (at < now.size()) {
    EXPECT_TRUE(now[at] == before[at] || now[at] == L"empty") << at;
  }
  for (++at; at < now.size(); ++at) EXPECT_EQ(now[at], before[at]) << at;
}

struct ArrayCall {
  const char* name;
  const wchar_t* text;
  long type;
  std::vector<std::wstring> after;
  std::vector<const wchar_t*> texts = {
      component::kArrayText, component::kValueText, component::kResultText,
      component::kArrayResultText};
};

/// Array("a text of a script", Empty, 1.5, bytes, "another text of a script")
_variant_t array_of_a_script() {
  return script_array({_variant_t(L"a text of a script"), _variant_t(),
                       _variant_t(1.5),
                       without_memory::bytes_value(Blob(30, 'x')),
                       _variant_t(L"another text of a script")});
}

class NoMemoryForAnArray : public CommandWithoutMemory,
                           public testing::WithParamInterface<ArrayCall> {};

TEST_P(NoMemoryForAnArray, ItIsRefreshedUpToTheElementThatLackedMemory) {
  const ArrayCall& tested = GetParam();
  script().output(2, cell(9));
  EXPECT_GE(everywhere([&](Attempt& attempt) {
              Session s;
              set_text(s, tested.text, tested.type);
              const _variant_t array = array_of_a_script();
              const std::vector<std::wstring> before = elements_of(array);
              // The argument is the script's own array, not a copy of it.
              s.passed = {array};
              const std::uint32_t alive = workbench::objects_alive();

              HRESULT result = attempt.run([&] { return execute_late(s); });

              EXPECT_EQ(array.parray->cLocks, 0U);
              EXPECT_EQ(script().live("STMT"), 0U);
              if (attempt.failed()) {
                EXPECT_EQ(result, DISP_E_EXCEPTION) << std::hex << result;
                EXPECT_EQ(s.exception->scode, E_OUTOFMEMORY)
                    << std::hex << s.exception->scode;
                const wchar_t* const text = s.exception->bstrDescription;
                EXPECT_TRUE(may_say(tested, text != nullptr ? text : L""));
                EXPECT_EQ(s.got(), L"nothing");
                EXPECT_EQ(workbench::objects_alive(), alive);
                expect_refreshed_in_order(elements_of(array), before,
                                          tested.after);
                s.forget();
                const _variant_t again = array_of_a_script();
                s.passed = {again};
                result = execute_late(s);
                EXPECT_EQ(elements_of(again), tested.after);
              } else {
                EXPECT_EQ(elements_of(array), tested.after);
              }
              EXPECT_EQ(result, S_OK) << std::hex << result;
              EXPECT_EQ(s.got(), kRows);
              EXPECT_EQ(s.parameter_values(), std::vector<std::wstring>());
            }),
            10);
}

INSTANTIATE_TEST_SUITE_P(
    Of, NoMemoryForAnArray,
    testing::Values(
        ArrayCall{"AText",
                  kText,
                  ZIRDB_AD_CMD_TEXT,
                  {L"a text of a script", L"9", L"1.500000",
                   std::wstring(30, L'x'), L"another text of a script"}},
        ArrayCall{"ACallEscape",
                  L"{CALL a_procedure(?, ?, ?, ?, ?)}",
                  ZIRDB_AD_CMD_UNKNOWN,
                  {L"a text of a script", L"9", L"1.500000",
                   std::wstring(30, L'x'), L"another text of a script"}},
        ArrayCall{"AProcedure",
                  L"a_procedure_of_a_long_name",
                  ZIRDB_AD_CMD_STORED_PROC,
                  {L"a text of a script", L"empty", L"1.500000",
                   std::wstring(30, L'x'), L"another text of a script"}}),
    [](const auto& tested) { return std::string(tested.param.name); });

// ---------------------------------------------------------------------------
// Operations that fail anyway
// ---------------------------------------------------------------------------

void append_an_input(Session& s) {
  s.append(ZIRDB_AD_VARWCHAR, ZIRDB_AD_PARAM_INPUT,
           _variant_t(L"a text that goes there"));
}
void without_a_connection(Session& s) {
  EXPECT_EQ(s.command->putref_ActiveConnection(nullptr), S_OK);
}

constexpr const wchar_t* kConnection = component::kConnectionSource;

const Failing kFailing[] = {
    {"ExecuteWithoutAConnection", without_a_connection, execute, execute_late,
     component::kNoConnectionCode, kSource, component::kNoConnectionText,
     kSource},
    {"ExecuteOnAClosedConnection", [](Session& s) { s.connection->Close(); },
     execute, execute_late, component::kNoConnectionCode, kSource,
     component::kNoConnectionText, kSource},
    {"ExecuteWithoutAText",
     [](Session& s) { s.command->put_CommandText(nullptr); }, execute,
     execute_late, component::kNoTextCode, kSource, component::kNoTextText,
     kSource},
    {"ExecuteWithAValueThatDoesNotFit",
     [](Session& s) {
       s.append(ZIRDB_AD_VARBINARY, ZIRDB_AD_PARAM_INPUT, _variant_t(5));
     },
     execute, execute_late, DISP_E_TYPEMISMATCH, kSource, component::kValueText,
     kSource},
    {"ExecuteOfATextWithAnOutput",
     append_for_a_call,
     execute,
     execute_late,
     component::kErrorsInCommandCode,
     kSource,
     component::kNearOutputText,
     kSource,
     {component::kValueText}},
    {"ExecuteOfAHandwrittenCall",
     [](Session& s) {
       set_text(s, L"EXEC a_procedure_of_a_long_name", ZIRDB_AD_CMD_TEXT);
       append_an_input(s);
     },
     execute,
     execute_late,
     component::kErrorsOccurredCode,
     kSource,
     component::kErrorsOccurredText,
     kSource,
     {component::kValueText}},
    {"ExecuteOfASystemProcedure",
     [](Session& s) {
       set_text(s, L"sp_of_a_long_name_too", ZIRDB_AD_CMD_STORED_PROC);
       append_an_input(s);
     },
     execute,
     execute_late,
     component::kErrorsInCommandCode,
     kSource,
     component::kTooManyArgumentsText,
     kSource,
     {component::kValueText}},
    {"ExecuteWithALateReturnValue",
     [](Session& s) {
       set_text(s, L"a_procedure_of_a_long_name", ZIRDB_AD_CMD_STORED_PROC);
       append_an_input(s);
       append_for_a_call(s);
     },
     execute,
     execute_late,
     E_NOTIMPL,
     kSource,
     component::kLayoutText,
     kSource,
     {component::kValueText}},
    {"ExecuteThatIsRefused",
     [](Session& s) {
       set_text(s, kRefused, ZIRDB_AD_CMD_TEXT);
       append_an_input(s);
     },
     execute,
     execute_late,
     component::kExecuteFailedCode,
     kConnection,
     kStatementRefusal,
     kSource,
     {component::kValueText}},
    {"AHandwrittenCallWithAnArray",
     [](Session& s) {
       set_text(s, L"EXEC a_procedure_of_a_long_name", ZIRDB_AD_CMD_TEXT);
       s.pass({script_array({_variant_t(L"a text of a script")})});
     },
     nullptr,
     execute_late,
     component::kBadParameterCode,
     kSource,
     component::kBadParameterText,
     kSource,
     {component::kArrayText, component::kValueText}},
};

class NoMemoryForACommandsError : public CommandWithoutMemory,
                                  public testing::WithParamInterface<Failing> {
};

TEST_P(NoMemoryForACommandsError, ItsRecordIsWholeOrThereIsNone) {
  if (GetParam().call == nullptr) return;
  EXPECT_GE(everywhere(
                [](Attempt& attempt) { attempt_failing(GetParam(), attempt); }),
            1);
}

TEST_P(NoMemoryForACommandsError, ItsLateBoundCallLosesTextsButNotItsCode) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              attempt_failing_late(GetParam(), attempt);
            }),
            2);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryForACommandsError,
                         testing::ValuesIn(kFailing), [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// ---------------------------------------------------------------------------
// What needs no memory
// ---------------------------------------------------------------------------

TEST_F(CommandWithoutMemory, SettingAndGettingItsConnectionNeedsNone) {
  EXPECT_EQ(everywhere([](Attempt& attempt) {
              Session s;
              s.pass({_variant_t(dispatch_of(s.closed.get()).get())});
              InterfacePtr<IDispatch> got;
              HRESULT put = E_FAIL;
              HRESULT asked = E_FAIL;
              const HRESULT cleared = attempt.run([&] {
                put = s.late(s.command, DISPID_ZIRDB_COMMAND_ACTIVECONNECTION,
                             kPut);
                IDispatch* stored = nullptr;
                asked = s.command->get_ActiveConnection(&stored);
                got = InterfacePtr<IDispatch>::adopt(stored);
                return s.command->putref_ActiveConnection(nullptr);
              });
              EXPECT_EQ(put, S_OK);
              EXPECT_EQ(asked, S_OK);
              EXPECT_EQ(got.get(), s.passed[0].pdispVal);
              EXPECT_EQ(cleared, S_OK);
            }),
            0);
}

TEST_F(CommandWithoutMemory, ItsTypeAndItsNamesNeedNone) {
  EXPECT_EQ(everywhere([](Attempt& attempt) {
              const Session s;
              const auto late = dispatch_of(s.command.get());
              std::wstring name = L"COMMANDTYPE";
              LPOLESTR pointer = name.data();
              DISPID id = 77;
              HRESULT looked_up = E_FAIL;
              const HRESULT refused = attempt.run([&] {
                looked_up = late->GetIDsOfNames(IID_NULL, &pointer, 1, 0, &id);
                return s.command->put_CommandType(2);
              });
              EXPECT_EQ(looked_up, S_OK);
              EXPECT_EQ(id, DISPID_ZIRDB_COMMAND_COMMANDTYPE);
              EXPECT_EQ(refused, E_INVALIDARG);
            }),
            0);
}

}  // namespace
