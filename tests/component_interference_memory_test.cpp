// SPDX-License-Identifier: MIT
//
// No memory, while a command runs a statement without columns: what a script is
// told to be out of memory has not happened.

#include <gtest/gtest.h>

#include <string>

#include "support/component.h"
#include "support/connections.h"
#include "support/scripted_odbc_fixture.h"
#include "support/session_without_memory.h"
#include "support/without_memory.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace session_without_memory;

class StatementWithoutMemory : public ScriptedOdbc {
 protected:
  void SetUp() override {
    ScriptedOdbc::SetUp();
    script_database();
  }

  static HRESULT execute(Session& s) {
    VARIANT reference = s.rows_affected();
    return s.receive<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
      return s.command->Execute(&reference, 0, out);
    });
  }
  /// Its code is what the EXCEPINFO says.
  static HRESULT execute_late(Session& s) {
    const HRESULT result = s.late(s.command, DISPID_ZIRDB_COMMAND_EXECUTE);
    return result == DISP_E_EXCEPTION ? s.exception->scode : result;
  }

  /// Every statement either was not executed at all or succeeded.
  static void attempt_all(HRESULT (*call)(Session&)) {
    const long failures = everywhere([&](Attempt& attempt) {
      Session s;
      _bstr_t text(kUpdate);
      EXPECT_EQ(s.command->put_CommandText(text.m_s), S_OK);
      s.pass({s.rows_affected()});

      const HRESULT result = attempt.run([&] { return call(s); });

      if (result == S_OK) {
        EXPECT_EQ(script().count("SQLExecDirect"), 1U);
        EXPECT_EQ(s.rows.llVal, 3);
      } else {
        EXPECT_TRUE(attempt.failed());
        EXPECT_EQ(result, E_OUTOFMEMORY) << std::hex << result;
        EXPECT_EQ(script().count("SQLExecDirect"), 0U);
        EXPECT_EQ(shown(s.rows), L"a text of before");
      }
    });
    EXPECT_GT(failures, 0);
  }
};

TEST_F(StatementWithoutMemory, IsNotExecuted) { attempt_all(execute); }

TEST_F(StatementWithoutMemory, IsNotExecutedLateBoundEither) {
  attempt_all(execute_late);
}

}  // namespace
