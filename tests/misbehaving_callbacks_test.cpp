// SPDX-License-Identifier: MIT
//
// A host's objects that misbehave when the library calls them: that throw, let
// go of everything, close everything, and call every member of every object
// again; in every place in which the library calls a host's object.
//
// Sections: the places; what is thrown; what is called; walks within walks.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/database.h"
#include "support/long_form.h"
#include "support/misbehaving_puppet.h"
#include "support/objects.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using component::Answer;
using misbehaving::answer_text;
using misbehaving::Puppet;
using misbehaving::Stage;
using scripting::Array;
using scripting::error_of;
using scripting::Object;
using scripting::only_value;
using scripting::shown;

// ---------------------------------------------------------------------------
// The places
// ---------------------------------------------------------------------------

using Act = std::function<void()>;

/// An operation in the middle of which the library calls a host's object, which
/// then acts.
struct Place {
  const char* name;
  Answer (*run)(Stage& stage, const Act& act);
};

void PrintTo(const Place& place, std::ostream* out) { *out << place.name; }

/// The object that acts when it is asked for its text.
_variant_t acting_text(const Act& act, const wchar_t* text = L"SELECT 1") {
  return Puppet::made({[act, text](VARIANT* result) {
    act();
    return answer_text(result, text);
  }});
}
/// The object that acts at its end, and is no text.
_variant_t acting_end(const Act& act) {
  Puppet::Strings strings;
  strings.on_end = act;
  return Puppet::made(std::move(strings));
}

Answer method(const Object& object, DISPID member,
              std::vector<_variant_t> arguments) {
  return component::method(object.dispatch(), member, std::move(arguments));
}

Answer put(const Object& object, DISPID member, const _variant_t& value) {
  return component::put(object.dispatch(), member, value);
}

const Place kInvokePlaces[] = {
    {"CallbackOfAWalk",
     [](Stage& stage, const Act& act) {
       return method(stage.rows, DISPID_ZIRDB_RECORDSET_FOREACH,
                     {Puppet::made({[act](VARIANT* /*result*/) {
                       act();
                       return S_OK;
                     }})});
     }},
    {"TextOfTheDefaultMember",
     [](Stage& stage, const Act& act) {
       return method(stage.connection, DISPID_VALUE, {acting_text(act), 7});
     }},
    {"TextOfExecute",
     [](Stage& stage, const Act& act) {
       return method(stage.connection, DISPID_ZIRDB_CONNECTION_EXECUTE,
                     {acting_text(act)});
     }},
    {"ValueOfTheDefaultMember",
     [](Stage& stage, const Act& act) {
       return method(stage.connection, DISPID_VALUE,
                     {L"SELECT ? AS n", acting_text(act)});
     }},
    {"ElementOfAnArray",
     [](Stage& stage, const Act& act) {
       Array array({acting_text(act)});
       component::Call call;
       call.member = DISPID_ZIRDB_COMMAND_EXECUTE;
       call.arguments = {values::owned(array.reference())};
       return component::invoke(stage.command.dispatch(), call);
     }},
    {"ConnectionString",
     [](Stage& stage, const Act& act) {
       stage.connection.call("Close");
       return method(stage.connection, DISPID_ZIRDB_CONNECTION_OPEN,
                     {acting_text(act, L"Driver={SQLite3};Database=:memory:"),
                      acting_text([] {}, L"user")});
     }},
    {"NameOfAParameter",
     [](Stage& stage, const Act& act) {
       return method(stage.command, DISPID_ZIRDB_COMMAND_CREATEPARAMETER,
                     {acting_text(act), 3});
     }},
    {"ValueOfAParameter",
     [](Stage& stage, const Act& act) {
       stage.parameter.put("Value", acting_text(act));
       return method(stage.command, DISPID_ZIRDB_COMMAND_EXECUTE, {});
     }},
};

const Place kQueryPlaces[] = {
    {"ConnectionOfACommand",
     [](Stage& stage, const Act& act) {
       Puppet::Strings strings;
       strings.on_query = act;
       strings.stands_for =
           InterfacePtr<IDispatch>::share(stage.connection.dispatch());
       return put(stage.command, DISPID_ZIRDB_COMMAND_ACTIVECONNECTION,
                  Puppet::made(std::move(strings)));
     }},
    {"ParameterThatIsAppended",
     [](Stage& stage, const Act& act) {
       Puppet::Strings strings;
       strings.on_query = act;
       strings.stands_for = InterfacePtr<IDispatch>::share(
           Object(stage.command.call("CreateParameter", "other")).dispatch());
       return method(stage.list, DISPID_ZIRDB_PARAMETERS_APPEND,
                     {Puppet::made(std::move(strings))});
     }},
    {"CallbackThatIsAsked",
     [](Stage& stage, const Act& act) {
       Puppet::Strings strings;
       strings.on_query = act;
       const _variant_t object = Puppet::made(std::move(strings));
       return method(stage.rows, DISPID_ZIRDB_RECORDSET_FOREACH,
                     {_variant_t(static_cast<IUnknown*>(object.pdispVal))});
     }},
};

const Place kEndPlaces[] = {
    {"OldValueOfAParameter",
     [](Stage& stage, const Act& act) {
       stage.parameter.put("Value", acting_end(act));
       return put(stage.parameter, DISPID_ZIRDB_PARAMETER_VALUE, L"new");
     }},
    {"OldValueThatIsWrittenBack",
     [](Stage& stage, const Act& act) {
       Puppet::Strings strings;
       strings.on_invoke = [](VARIANT* result) {
         return answer_text(result, L"sent");
       };
       strings.on_end = act;
       stage.parameter.put("Value", Puppet::made(std::move(strings)));
       return method(stage.command, DISPID_ZIRDB_COMMAND_EXECUTE, {});
     }},
    {"OldNumberOfRows",
     [](Stage& stage, const Act& act) {
       _variant_t count = acting_end(act);
       return method(
           stage.connection, DISPID_ZIRDB_CONNECTION_EXECUTE,
           {L"DELETE FROM s", values::owned(values::reference_to(&count))});
     }},
    {"OldElementOfAnArray",
     [](Stage& stage, const Act& act) {
       Puppet::Strings strings;
       strings.on_invoke = [](VARIANT* result) {
         return answer_text(result, L"sent");
       };
       strings.on_end = act;
       Array array({Puppet::made(std::move(strings))});
       component::Call call;
       call.member = DISPID_ZIRDB_COMMAND_EXECUTE;
       call.arguments = {values::owned(array.reference())};
       return component::invoke(stage.command.dispatch(), call);
     }},
    {"ResultOfACallback",
     [](Stage& stage, const Act& act) {
       return method(stage.rows, DISPID_ZIRDB_RECORDSET_FOREACH,
                     {Puppet::made({[act](VARIANT* result) {
                       *result = acting_end(act).Detach();
                       return S_OK;
                     }})});
     }},
};

std::vector<Place> places(bool with_ends) {
  std::vector<Place> all(std::begin(kInvokePlaces), std::end(kInvokePlaces));
  all.insert(all.end(), std::begin(kQueryPlaces), std::end(kQueryPlaces));
  if (with_ends) {
    all.insert(all.end(), std::begin(kEndPlaces), std::end(kEndPlaces));
  }
  return all;
}

std::string place_name(const testing::TestParamInfo<Place>& place) {
  return place.param.name;
}

class Callbacks : public testing::TestWithParam<Place> {
 protected:
  void SetUp() override {
    const std::string reason =
        zirdb_test::PrivateDatabase::unavailable(zirdb_test::kSqlite);
    if (!reason.empty()) GTEST_SKIP() << reason;
  }
  /// Runs the operation. What acts later, when the test lets go of its objects,
  /// does not count.
  static Answer run(Stage& stage, const Act& act) {
    const auto running = std::make_shared<bool>(true);
    Answer answer = GetParam().run(stage, [running, act] {
      if (*running) act();
    });
    *running = false;
    return answer;
  }
  void TearDown() override {
    EXPECT_EQ(Puppet::alive(), 0) << "a reference too many is held";
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
  }
};

/// What an operation did not touch works as before.
void expect_usable(const Stage& stage) {
  if (shown(stage.connection.get("State")) == "I4 0") {
    stage.connection.call("Open", "Driver={SQLite3};Database=:memory:");
  }
  EXPECT_EQ(only_value(stage.connection("SELECT 7")), "I8 7");
  stage.parameter.put("Value", "again");
  stage.command.put("ActiveConnection", stage.connection);
  stage.command.put("CommandText", "SELECT ? AS n");
  stage.parameter.put("Direction", ZIRDB_AD_PARAM_INPUT);
  EXPECT_EQ(only_value(stage.command.call("Execute")), "BSTR again");
}

// ---------------------------------------------------------------------------
// What is thrown
// ---------------------------------------------------------------------------

struct Foreign {
  std::string text;
};

/// What a host may throw, and what it becomes: DISP_E_EXCEPTION with a code in
/// the EXCEPINFO, or, without one, the call's own result.
struct Thrown {
  const char* name;
  Act raise;
  HRESULT result;
  HRESULT code;
};

const Thrown kThrown[] = {
    {"a number", [] { throw 7; }, DISP_E_EXCEPTION, E_FAIL},
    {"a text", [] { throw "text"; }, DISP_E_EXCEPTION, E_FAIL},
    {"an exception", [] { throw std::runtime_error("text"); }, DISP_E_EXCEPTION,
     E_FAIL},
    {"an object", [] { throw Foreign{"text"}; }, DISP_E_EXCEPTION, E_FAIL},
    {"no memory", [] { throw std::bad_alloc(); }, DISP_E_EXCEPTION,
     E_OUTOFMEMORY},
    {"too long", [] { throw std::length_error("text"); }, DISP_E_EXCEPTION,
     E_OUTOFMEMORY},
    {"a code", [] { throw _com_error(E_NOTIMPL); }, E_NOTIMPL, 0},
    {"a code about arguments", [] { throw _com_error(E_INVALIDARG); },
     DISP_E_BADPARAMCOUNT, 0},
};

class ThrowingCallbacks : public Callbacks {};

TEST_P(ThrowingCallbacks, FailTheCallAndNothingElse) {
  for (const Thrown& thrown : kThrown) {
    SCOPED_TRACE(thrown.name);
    Stage stage;
    int calls = 0;

    const Answer answer = run(stage, [&] {
      ++calls;
      thrown.raise();
    });

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(answer.result, thrown.result) << std::hex << answer.result;
    EXPECT_EQ(answer.code, thrown.code) << std::hex << answer.code;
    EXPECT_EQ(answer.value.vt, VT_EMPTY);
    expect_usable(stage);
  }
}

INSTANTIATE_TEST_SUITE_P(, ThrowingCallbacks, testing::ValuesIn(places(false)),
                         place_name);

// Counting a reference of an object that throws then.
class ThrowingReferences : public Callbacks {};

TEST_P(ThrowingReferences, FailTheCallAndNothingElse) {
  for (int which = 1; which <= 6; ++which) {
    SCOPED_TRACE(which);
    Stage stage;
    int references = 0;
    bool armed = false;
    Puppet::Strings strings;
    strings.on_add_ref = [&] {
      if (armed && ++references == which) throw 7;
    };
    strings.on_invoke = [](VARIANT* result) {
      return answer_text(result, L"SELECT 1");
    };
    const _variant_t object = Puppet::made(std::move(strings));
    // Passed by reference: the test itself takes none.
    VARIANT held = object;
    const _variant_t argument = values::owned(values::reference_to(&held));
    const auto attempt = [&](const Object& target, DISPID member, bool put) {
      component::Call call;
      call.member = member;
      call.put = put;
      call.flags = put ? DISPATCH_PROPERTYPUT : DISPATCH_METHOD;
      call.arguments = {argument};
      references = 0;
      armed = true;
      const Answer answer = component::invoke(target.dispatch(), call);
      armed = false;
      if (references >= which) {
        EXPECT_EQ(answer.result, DISP_E_EXCEPTION);
        EXPECT_EQ(answer.code, E_FAIL);
      }
    };
    attempt(stage.rows, DISPID_ZIRDB_RECORDSET_FOREACH, false);
    attempt(stage.connection, DISPID_VALUE, false);
    attempt(stage.connection, DISPID_ZIRDB_CONNECTION_EXECUTE, false);
    attempt(stage.command, DISPID_ZIRDB_COMMAND_ACTIVECONNECTION, true);
    attempt(stage.command, DISPID_ZIRDB_COMMAND_CREATEPARAMETER, false);
    attempt(stage.list, DISPID_ZIRDB_PARAMETERS_APPEND, false);
    attempt(stage.parameter, DISPID_ZIRDB_PARAMETER_VALUE, true);
    expect_usable(stage);
  }
}

INSTANTIATE_TEST_SUITE_P(, ThrowingReferences,
                         testing::Values(kInvokePlaces[0]), place_name);

// ---------------------------------------------------------------------------
// What is called
// ---------------------------------------------------------------------------

/// One call of a member, as a script makes it.
struct MemberCall {
  std::string name;
  Object Stage::*object;
  component::Call call;
};

std::vector<MemberCall> every_member() {
  std::vector<MemberCall> calls;
  const auto add = [&](const std::string& name, Object Stage::*object,
                       DISPID member, std::vector<_variant_t> arguments = {}) {
    component::Call call;
    call.member = member;
    call.flags = DISPATCH_METHOD | DISPATCH_PROPERTYGET;
    call.arguments = std::move(arguments);
    calls.push_back({name, object, call});
  };
  const auto add_put = [&](const std::string& name, Object Stage::*object,
                           DISPID member, const _variant_t& value) {
    component::Call call;
    call.member = member;
    call.flags = DISPATCH_PROPERTYPUT;
    call.arguments = {value};
    call.put = true;
    calls.push_back({name + " =", object, call});
  };
  const wchar_t* const memory = L"Driver={SQLite3};Database=:memory:";
  add("ConnectionString", &Stage::connection, 1);
  add_put("ConnectionString", &Stage::connection, 1, memory);
  add("Connection.State", &Stage::connection, 2);
  add("Open", &Stage::connection, 3, {memory});
  add("Connection.Close", &Stage::connection, 4);
  add("Connection.Execute", &Stage::connection, 5, {L"SELECT 5"});
  add("Connection()", &Stage::connection, 0, {L"SELECT ?", 5});
  add("ActiveConnection", &Stage::command, 1);
  add_put("ActiveConnection", &Stage::command, 1, _variant_t());
  add("CommandText", &Stage::command, 2);
  add_put("CommandText", &Stage::command, 2, L"SELECT 5");
  add("Command.Execute", &Stage::command, 3);
  add("CreateParameter", &Stage::command, 4, {L"q", 3});
  add("Parameters", &Stage::command, 5);
  add("CommandType", &Stage::command, 6);
  add_put("CommandType", &Stage::command, 6, ZIRDB_AD_CMD_STORED_PROC);
  for (DISPID member = 0; member <= 10; ++member) {
    add("Recordset." + std::to_string(member), &Stage::rows, member);
  }
  add("forEach", &Stage::rows, 11,
      {Puppet::made({[](VARIANT* /*result*/) { return S_OK; }})});
  add("Fields.Item", &Stage::fields, 0, {0});
  add("Fields.Count", &Stage::fields, 1);
  add("_NewEnum", &Stage::fields, DISPID_NEWENUM);
  add("Field.Value", &Stage::field, 0);
  add("Field.Name", &Stage::field, 1);
  add("Parameters.Item", &Stage::list, 0, {L"p"});
  add("Parameters.Count", &Stage::list, 1);
  for (DISPID member = 0; member <= 4; ++member) {
    const std::string name = "Parameter." + std::to_string(member);
    add(name, &Stage::parameter, member);
    add_put(name, &Stage::parameter, member, member == 1 ? L"q" : L"3");
  }
  return calls;
}

class ReenteringCallbacks : public Callbacks {};

// Each member in its turn: while the script holds all objects, and while it
// lets go of them in the same breath; the short form takes turns. Whatever the
// call then answers, it answers once, and leaves nothing behind.
TEST_P(ReenteringCallbacks, CallEveryMember) {
  for (const bool let_go : {false, true}) {
    const std::vector<MemberCall> members = every_member();
    const std::size_t step = zirdb_test::short_or_long<std::size_t>(2, 1);
    for (std::size_t i = let_go ? step - 1 : 0; i < members.size(); i += step) {
      const MemberCall& member = members[i];
      SCOPED_TRACE(member.name + (let_go ? ", and let go" : ""));
      Stage stage;
      int calls = 0;

      const Answer answer = run(stage, [&] {
        if (++calls > 1) return;
        const Answer inner =
            component::invoke((stage.*member.object).dispatch(), member.call);
        EXPECT_TRUE(SUCCEEDED(inner.result) || inner.result == DISP_E_EXCEPTION)
            << std::hex << inner.result;
        if (let_go) stage.let_go();
      });

      EXPECT_GE(calls, 1);
      EXPECT_EQ(answer.result == DISP_E_EXCEPTION, answer.code != 0);
      EXPECT_EQ(answer.description.has_value(), answer.code != 0)
          << std::hex << answer.code;
    }
  }
}

// A parameter is added to the list that is being worked on.
TEST_P(ReenteringCallbacks, AddParameters) {
  Stage stage;
  int calls = 0;
  run(stage, [&] {
    if (++calls > 1) return;
    for (int i = 0; i < 50; ++i) {
      stage.list.call("Append", stage.command.call("CreateParameter", "more"));
    }
  });
  EXPECT_EQ(shown(Object(stage.list(50)).get("Name")), "BSTR more");
}

TEST_P(ReenteringCallbacks, DoTheSameAgain) {
  Stage stage;
  int depth = 0;
  Act act = [&] {
    if (++depth < 20) run(stage, act);
  };
  run(stage, act);
  EXPECT_GE(depth, 20);
}

INSTANTIATE_TEST_SUITE_P(, ReenteringCallbacks, testing::ValuesIn(places(true)),
                         place_name);

// ---------------------------------------------------------------------------
// Walks within walks
// ---------------------------------------------------------------------------

TEST_F(Callbacks, WalkTwoHundredRecordsetsWithinOneAnother) {
  constexpr int kDepth = 200;
  const Object connection = Stage::opened();
  int depth = 0;
  int deepest = 0;
  std::function<HRESULT()> walk = [&]() -> HRESULT {
    deepest = std::max(deepest, ++depth);
    if (depth < kDepth) {
      const Object rows = connection("SELECT 1 UNION SELECT 2");
      // Only the first row goes deeper.
      bool first = true;
      rows.call("forEach", Puppet::made({[&](VARIANT* /*result*/) {
                  return std::exchange(first, false) ? walk() : S_OK;
                }}));
    }
    --depth;
    return S_OK;
  };
  EXPECT_EQ(walk(), S_OK);
  EXPECT_EQ(deepest, kDepth);
  EXPECT_EQ(only_value(connection("SELECT 7")), "I8 7");
}

TEST_F(Callbacks, FailAtTheBottomOfTwoHundredWalks) {
  constexpr int kDepth = 200;
  const Object connection = Stage::opened();
  int depth = 0;
  std::function<HRESULT()> walk = [&]() -> HRESULT {
    if (++depth == kDepth) throw 7;
    component::Call call;
    call.member = DISPID_ZIRDB_RECORDSET_FOREACH;
    call.arguments = {
        Puppet::made({[&](VARIANT* /*result*/) { return walk(); }})};
    const Object rows = connection("SELECT 1");
    return component::invoke(rows.dispatch(), call).result;
  };
  EXPECT_EQ(walk(), DISP_E_EXCEPTION);
  EXPECT_EQ(depth, kDepth);
  EXPECT_EQ(only_value(connection("SELECT 7")), "I8 7");
}

}  // namespace
