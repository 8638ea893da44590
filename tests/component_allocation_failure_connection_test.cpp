// SPDX-License-Identifier: MIT
//
// No memory, at every single place where a connection asks for some.
//
// Sections: operations; operations that fail anyway; what needs
// no memory.

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
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace session_without_memory;

constexpr const wchar_t* kSource = component::kConnectionSource;

class NoMemoryForAConnection : public ScriptedOdbc,
                               public testing::WithParamInterface<Operation> {
 protected:
  void SetUp() override {
    ScriptedOdbc::SetUp();
    script_database();
  }
};

// ---------------------------------------------------------------------------
// Operations
// ---------------------------------------------------------------------------

HRESULT open(Session& s, const wchar_t* text, const wchar_t* user,
             const wchar_t* password) {
  // Made by the test, before anything is watched.
  s.pass({_variant_t(text), _variant_t(user), _variant_t(password)});
  return S_OK;
}

HRESULT open_passed(Session& s) {
  return s.closed->Open(s.passed[2].bstrVal, s.passed[1].bstrVal,
                        s.passed[0].bstrVal, 0);
}

HRESULT execute(Session& s, VARIANT* rows_affected) {
  return s.receive<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
    return s.connection->Execute(s.passed.back().bstrVal, rows_affected, 0,
                                 out);
  });
}

std::vector<Operation> operations() {
  using S = Session&;
  const std::vector<const wchar_t*> values = {component::kValueText};
  return {
      {"CreateInstance",
       [](S s) { s.factory = component::factory_of(CLSID_ZIRDBConnection); },
       [](S s) {
         return s.receive<IUnknown>([&](IUnknown** out) {
           void* stored = *out;
           const HRESULT result = s.factory->CreateInstance(
               nullptr, IID_IZIRDBConnection, &stored);
           *out = static_cast<IUnknown*>(stored);
           return result;
         });
       },
       nullptr, L"connection"},
      {"GetConnectionString", nothing,
       [](S s) {
         return s.receive_text(
             [&](BSTR* out) { return s.closed->get_ConnectionString(out); });
       },
       nullptr, kStoredString},
      {"ConnectionStringGetLateBound", nothing,
       [](S s) {
         return s.late(s.closed, DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING,
                       kGet);
       },
       kSource, kStoredString},
      {"PutConnectionString",
       [](S s) { s.pass({_variant_t(L"DSN=another string that is long")}); },
       [](S s) { return s.closed->put_ConnectionString(s.passed[0].bstrVal); },
       nullptr, L"nothing", kStoredString, L"DSN=another string that is long"},
      {"ConnectionStringPutLateBound",
       [](S s) { s.pass({_variant_t(L"DSN=another string that is long")}); },
       [](S s) {
         return s.late(s.closed, DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING,
                       kPut);
       },
       kSource, L"nothing", kStoredString, L"DSN=another string that is long"},

      // Opening.
      {"Open",
       [](S s) {
         open(s, L"DSN=a given one that is long", L"a user of a long name",
              L"a password of some length");
       },
       open_passed, nullptr, L"nothing",
       L"closed DSN=scripted;LONG=with a long text",
       L"open DSN=a given one that is long;UID=a user of a long name;PWD=a "
       L"password of some length;"},
      {"OpenWithTheStoredString", [](S s) { open(s, L"", L"", L""); },
       open_passed, nullptr, L"nothing",
       L"closed DSN=scripted;LONG=with a long text",
       L"open DSN=scripted;LONG=with a long text"},
      {"OpenLateBound",
       [](S s) {
         s.pass({_variant_t(L"DSN=a given one that is long"),
                 _variant_t(L"a user of a long name"), _variant_t(L"p"),
                 _variant_t(0)});
       },
       [](S s) { return s.late(s.closed, DISPID_ZIRDB_CONNECTION_OPEN); },
       kSource, L"nothing", L"closed DSN=scripted;LONG=with a long text",
       L"open DSN=a given one that is long;UID=a user of a long name;PWD=p;"},
      {"OpenLateBoundWithANumberAsTheUser",
       [](S s) {
         s.pass({_variant_t(), _variant_t(1234567890123456789)});
       },
       [](S s) { return s.late(s.closed, DISPID_ZIRDB_CONNECTION_OPEN); },
       kSource,
       L"nothing",
       L"closed DSN=scripted;LONG=with a long text",
       L"open DSN=scripted;LONG=with a long text;UID=1234567890123456789;",
       {},
       true},

      // Executing.
      {"ExecuteWithoutColumns", [](S s) { s.pass({_variant_t(kUpdate)}); },
       [](S s) {
         VARIANT reference = s.rows_affected();
         return execute(s, &reference);
       },
       nullptr, L"nothing", L"a text of before", L"3"},
      {"ExecuteWithoutColumnsLateBound",
       [](S s) {
         s.pass({_variant_t(kUpdate), s.rows_affected()});
       },
       [](S s) {
         return s.late(s.connection, DISPID_ZIRDB_CONNECTION_EXECUTE);
       },
       kSource, L"nothing", L"a text of before", L"3"},
      {"ExecuteForRows", [](S s) { s.pass({_variant_t(kText)}); },
       [](S s) {
         VARIANT reference = s.rows_affected();
         return execute(s, &reference);
       },
       nullptr, kRows.c_str(), L"a text of before", L"-1"},
      {"ExecuteForRowsLateBound",
       [](S s) {
         s.pass({_variant_t(kText), s.rows_affected(), _variant_t(0)});
       },
       [](S s) {
         return s.late(s.connection, DISPID_ZIRDB_CONNECTION_EXECUTE);
       },
       kSource, kRows.c_str(), L"a text of before", L"-1"},
      {"ExecuteOfANumber",
       [](S s) { s.pass({_variant_t(1234567890123456789)}); },
       [](S s) {
         return s.late(s.connection, DISPID_ZIRDB_CONNECTION_EXECUTE);
       },
       kSource,
       kRows.c_str(),
       L"",
       L"",
       {},
       true},

      // Executing with values.
      {"ATextAlone", [](S s) { s.pass({_variant_t(kText)}); },
       [](S s) { return s.late(s.connection, DISPID_VALUE); }, kSource,
       kRows.c_str()},
      {"ValuesOfEveryKind",
       [](S s) {
         std::vector<_variant_t> written = values_of_every_kind();
         written.insert(written.begin(), _variant_t(kText));
         s.pass(written);
       },
       [](S s) { return s.late(s.connection, DISPID_VALUE); }, kSource,
       kRows.c_str(), L"", L"", values, true},
      {"AnArrayOfValues",
       [](S s) {
         s.pass({_variant_t(kText), script_array(values_of_every_kind())});
       },
       [](S s) { return s.late(s.connection, DISPID_VALUE); }, kSource,
       kRows.c_str(), L"", L"", values, true},
  };
}

TEST_P(NoMemoryForAConnection, AnOperationFailsAndChangesNothing) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              attempt_operation(GetParam(), attempt);
            }),
            1);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryForAConnection,
                         testing::ValuesIn(operations()),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// ---------------------------------------------------------------------------
// Operations that fail anyway
// ---------------------------------------------------------------------------

HRESULT execute_late(Session& s) {
  return s.late(s.connection, DISPID_ZIRDB_CONNECTION_EXECUTE);
}

const Failing kFailing[] = {
    {"PutConnectionStringWhileOpen",
     [](Session& s) { s.pass({_variant_t(kStoredString)}); },
     [](Session& s) {
       return s.connection->put_ConnectionString(s.passed[0].bstrVal);
     },
     [](Session& s) {
       return s.late(s.connection, DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING,
                     kPut);
     },
     component::kAlreadyOpenCode, kSource, component::kAlreadyOpenText,
     kSource},
    {"OpenWhileOpen", nothing,
     [](Session& s) {
       return s.connection->Open(nullptr, nullptr, nullptr, 0);
     },
     [](Session& s) {
       return s.late(s.connection, DISPID_ZIRDB_CONNECTION_OPEN);
     },
     component::kAlreadyOpenCode, kSource, component::kAlreadyOpenText,
     kSource},
    {"OpenWithoutAnyString",
     [](Session& s) { s.closed->put_ConnectionString(nullptr); },
     [](Session& s) { return s.closed->Open(nullptr, nullptr, nullptr, 0); },
     [](Session& s) { return s.late(s.closed, DISPID_ZIRDB_CONNECTION_OPEN); },
     E_INVALIDARG, kSource, component::kNoStringText, kSource},
    {"OpenThatIsRefused",
     [](Session& s) { s.pass({_variant_t(kRefusedString)}); },
     [](Session& s) {
       return s.closed->Open(s.passed[0].bstrVal, nullptr, nullptr, 0);
     },
     [](Session& s) { return s.late(s.closed, DISPID_ZIRDB_CONNECTION_OPEN); },
     component::kOpenFailedCode, kSource, kConnectionRefusal, kSource},
    {"ExecuteOnAClosedConnection",
     [](Session& s) {
       s.pass({_variant_t(kUpdate)});
       std::swap(s.connection, s.closed);
     },
     [](Session& s) { return execute(s, nullptr); }, execute_late,
     component::kClosedCode, kSource, component::kClosedText, kSource},
    {"ExecuteOfAnEmptyText", [](Session& s) { s.pass({_variant_t(L"")}); },
     [](Session& s) { return execute(s, nullptr); }, execute_late,
     component::kNoTextCode, kSource, component::kNoTextText, kSource},
    {"ExecuteThatIsRefused",
     [](Session& s) {
       s.pass({_variant_t(kRefused), s.rows_affected()});
     },
     [](Session& s) {
       VARIANT reference = s.rows_affected();
       return execute(s, &reference);
     },
     execute_late, component::kExecuteFailedCode, kSource, kStatementRefusal,
     kSource},
    {"ExecuteWithValuesThatIsRefused",
     [](Session& s) {
       s.pass({_variant_t(kRefused), _variant_t(1), _variant_t(L"another")});
     },
     nullptr,
     [](Session& s) { return s.late(s.connection, DISPID_VALUE); },
     component::kExecuteFailedCode,
     kSource,
     kStatementRefusal,
     kSource,
     {component::kValueText}},
    {"AProcedureCallWithValues",
     [](Session& s) {
       s.pass({_variant_t(L"EXEC a_procedure_of_a_long_name"), _variant_t(1)});
     },
     nullptr,
     [](Session& s) { return s.late(s.connection, DISPID_VALUE); },
     component::kErrorsOccurredCode,
     kSource,
     component::kErrorsOccurredText,
     kSource,
     {component::kValueText}},
};

class NoMemoryForAConnectionsError
    : public ScriptedOdbc,
      public testing::WithParamInterface<Failing> {
 protected:
  void SetUp() override {
    ScriptedOdbc::SetUp();
    script_database();
  }
};

TEST_P(NoMemoryForAConnectionsError, ItsRecordIsWholeOrThereIsNone) {
  if (GetParam().call == nullptr) return;
  EXPECT_GE(everywhere(
                [](Attempt& attempt) { attempt_failing(GetParam(), attempt); }),
            1);
}

TEST_P(NoMemoryForAConnectionsError, ItsLateBoundCallLosesTextsButNotItsCode) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              attempt_failing_late(GetParam(), attempt);
            }),
            2);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryForAConnectionsError,
                         testing::ValuesIn(kFailing), [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// ---------------------------------------------------------------------------
// What needs no memory
// ---------------------------------------------------------------------------

class ConnectionWithoutMemory : public ScriptedOdbc {
 protected:
  void SetUp() override {
    ScriptedOdbc::SetUp();
    script_database();
  }
};

/// Recordsets and what they hold must go, and their connection be closed, above
/// all where memory is short.
TEST_F(ConnectionWithoutMemory, ClosingAConnectionWithRecordsetsNeedsNone) {
  EXPECT_EQ(everywhere([](Attempt& attempt) {
              Session s;
              const auto [result, recordset] =
                  component::execute(s.connection, kText);
              ASSERT_EQ(result, S_OK);
              EXPECT_EQ(attempt.run([&] { return s.connection->Close(); }),
                        S_OK);
              EXPECT_EQ(component::state_of(recordset), ZIRDB_STATE_CLOSED);
              EXPECT_EQ(script().live("DBC"), 0U);
            }),
            0);
}

TEST_F(ConnectionWithoutMemory,
       LettingAnOpenConnectionAndItsRecordsetsGoNeedsNone) {
  EXPECT_EQ(everywhere([](Attempt& attempt) {
              Session s;
              auto first = component::execute(s.connection, kText).second;
              auto second = component::execute(s.connection, kText).second;
              ASSERT_TRUE(first && second);
              long state = 77;
              attempt.run([&] {
                first = {};
                s.command = {};
                s.connection = {};
                const HRESULT asked = second->get_State(&state);
                second = {};
                s.parameters = {};
                s.closed = {};
                return asked;
              });
              EXPECT_EQ(state, ZIRDB_STATE_CLOSED);
              EXPECT_EQ(script().live("DBC"), 0U);
              EXPECT_EQ(workbench::objects_alive(), 0U);
            }),
            0);
}

TEST_F(ConnectionWithoutMemory, AskingAConnectionNeedsNone) {
  EXPECT_EQ(
      everywhere([](Attempt& attempt) {
        const Session s;
        const auto late = dispatch_of(s.connection.get());
        std::wstring names[] = {L"state", L"CONNECTIONSTRING", L"nothing"};
        LPOLESTR pointers[] = {names[0].data(), names[1].data(),
                               names[2].data()};
        DISPID ids[] = {77, 77, 77};
        long state = 77;
        void* out = nullptr;
        HRESULT looked_up = S_OK;
        HRESULT asked = E_FAIL;
        const HRESULT queried = attempt.run([&] {
          looked_up = late->GetIDsOfNames(IID_NULL, pointers, 3, 0, ids);
          asked = s.connection->get_State(&state);
          return s.connection->QueryInterface(IID_IDispatch, &out);
        });
        EXPECT_EQ(looked_up, DISP_E_UNKNOWNNAME);
        EXPECT_EQ(ids[0], DISPID_ZIRDB_CONNECTION_STATE);
        EXPECT_EQ(ids[1], DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING);
        EXPECT_EQ(ids[2], DISPID_UNKNOWN);
        EXPECT_EQ(asked, S_OK);
        EXPECT_EQ(state, ZIRDB_STATE_OPEN);
        ASSERT_EQ(queried, S_OK);
        static_cast<IDispatch*>(out)->Release();
      }),
      0);
}

}  // namespace
