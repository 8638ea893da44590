// SPDX-License-Identifier: MIT
//
// A connection and the recordsets it made: who closes whom, in every order of
// letting go, and what happens when a host's own code, called in the middle of
// an operation, closes or releases one of them.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/component.h"
#include "support/component_host.h"
#include "support/connection_calls.h"
#include "support/connections.h"
#include "support/for_each.h"
#include "support/objects.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using component::Connection;
using component::expect_exception;
using component::expect_refused;
using component::fields_of;
using component::kClosedCode;
using component::kClosedText;
using component::kConnectionSource;
using component::kRecordsetSource;
using component::Recordset;
using component::state_of;
using component::value_at;
using connection_calls::bstr;
using connection_calls::dispatch_of;
using connection_calls::execute_by;
using connection_calls::kExecute;
using connection_calls::kParameterised;
using connection_calls::kSource;
using connection_calls::Road;
using objects::Dispatch;
using recordsets::for_each;
using recordsets::Rows;
using recordsets::Seen;
using recordsets::Visitor;
using scripted_odbc::cell;
using scripted_odbc::ResultSet;
using values::plain;
using values::reference_to;

class ConnectionRegistry : public connection_calls::ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    script().result_for("select", ResultSet{{{"number", SQL_INTEGER}},
                                            {{cell(1)}, {cell(2)}, {cell(3)}}});
    script().result_for("update", ResultSet{{}, {}, 5});
  }

  static Recordset select(const Connection& connection) {
    auto [code, recordset] = component::execute(connection, L"select");
    EXPECT_EQ(code, S_OK);
    return std::move(recordset);
  }
};
class ConnectionReentrancy : public ConnectionRegistry {};

long columns_of(const Recordset& recordset) {
  long count = -77;
  EXPECT_EQ(fields_of(recordset.get())->get_Count(&count), S_OK);
  return count;
}

/// Closed by its connection: nothing works any more, and no column is left.
void expect_orphan(const Recordset& recordset) {
  EXPECT_EQ(state_of(recordset), 0);
  VARIANT_BOOL flag = 77;
  long count = 77;
  EXPECT_EQ(recordset->get_BOF(&flag), kClosedCode);
  EXPECT_EQ(recordset->get_EOF(&flag), kClosedCode);
  EXPECT_EQ(recordset->get_RecordCount(&count), kClosedCode);
  EXPECT_EQ(recordset->MoveFirst(), kClosedCode);
  EXPECT_EQ(recordset->MoveNext(), kClosedCode);
  EXPECT_EQ(recordset->MovePrevious(), kClosedCode);
  EXPECT_EQ(recordset->MoveLast(), kClosedCode);
  EXPECT_EQ(recordset->Close(), kClosedCode);
  EXPECT_EQ(columns_of(recordset), 0);
  expect_exception(
      component::method(component::dispatch_of(recordset.get()).get(),
                        DISPID_ZIRDB_RECORDSET_MOVENEXT),
      kClosedCode, kRecordsetSource, kClosedText);
}

/// Closed by itself: the columns are still known.
void expect_closed(const Recordset& recordset) {
  EXPECT_EQ(state_of(recordset), 0);
  EXPECT_EQ(recordset->MoveNext(), kClosedCode);
  EXPECT_EQ(columns_of(recordset), 1);
}

void expect_on_row(const Recordset& recordset, std::int64_t row) {
  EXPECT_EQ(state_of(recordset), 1);
  EXPECT_EQ(value_at(recordset, 0).llVal, row);
}

// ---------------------------------------------------------------------------
// Closing
// ---------------------------------------------------------------------------

TEST_F(ConnectionRegistry, ClosingTheConnectionClosesAllItsRecordsets) {
  for (const bool by_release : {false, true}) {
    Connection made = opened();
    const Recordset first = select(made);
    const Recordset moved = select(made);
    EXPECT_EQ(moved->MoveNext(), S_OK);
    const Recordset at_end = select(made);
    while (at_end->MoveNext() == S_OK) {
    }
    expect_on_row(first, 1);
    expect_on_row(moved, 2);

    if (by_release) {
      made = {};
    } else {
      EXPECT_EQ(made->Close(), S_OK);
    }

    for (const Recordset& recordset : {first, moved, at_end}) {
      expect_orphan(recordset);
    }
  }
}

TEST_F(ConnectionRegistry, ClosingItClosesNoRecordsetOfAnother) {
  const Connection one = opened();
  const Connection two = opened();
  const Recordset of_one = select(one);
  const Recordset of_two = select(two);
  EXPECT_EQ(one->Close(), S_OK);
  expect_orphan(of_one);
  expect_on_row(of_two, 1);
}

TEST_F(ConnectionRegistry, ClosingARecordsetLeavesTheOthersAndTheConnection) {
  const Connection made = opened();
  const Recordset one = select(made);
  const Recordset two = select(made);
  EXPECT_EQ(one->Close(), S_OK);
  expect_closed(one);
  expect_on_row(two, 1);
  EXPECT_EQ(connection_calls::state_of(Road::Vtable, made), 1);
}

// A recordset that closed itself still belongs to the connection.
TEST_F(ConnectionRegistry, TheConnectionAlsoClosesWhatClosedItself) {
  for (const bool by_release : {false, true}) {
    for (const bool walked : {false, true}) {
      Connection made = opened();
      const Recordset recordset = select(made);
      if (walked) {
        Visitor visitor;
        expect_refused(for_each(recordset, visitor), S_OK);
      } else {
        EXPECT_EQ(recordset->Close(), S_OK);
      }
      expect_closed(recordset);

      if (by_release) {
        made = {};
      } else {
        EXPECT_EQ(made->Close(), S_OK);
      }

      expect_orphan(recordset);
    }
  }
}

TEST_F(ConnectionRegistry, ReopeningBringsNoRecordsetBack) {
  const Connection made = opened();
  const Recordset before = select(made);
  EXPECT_EQ(made->Close(), S_OK);
  EXPECT_EQ(made->Open(nullptr, nullptr, nullptr, 0), S_OK);
  const Recordset after = select(made);
  expect_orphan(before);
  expect_on_row(after, 1);
  EXPECT_EQ(made->Close(), S_OK);
  expect_orphan(after);
}

TEST_F(ConnectionRegistry, WhatWasClosedIsNoLongerKnownAfterReopening) {
  const Connection made = opened();
  std::vector<Recordset> before;
  for (int i = 0; i < 3; ++i) before.push_back(select(made));
  EXPECT_EQ(made->Close(), S_OK);
  EXPECT_EQ(made->Open(nullptr, nullptr, nullptr, 0), S_OK);
  std::vector<Recordset> after;
  for (Recordset& each : before) {
    after.push_back(select(made));
    each = {};
    after.push_back(select(made));
  }
  for (const Recordset& each : after) expect_on_row(each, 1);
  EXPECT_EQ(made->Close(), S_OK);
  for (const Recordset& each : after) expect_orphan(each);
}

TEST_F(ConnectionRegistry, WhatWasReleasedIsNotClosed) {
  for (const bool closed_first : {false, true}) {
    for (const bool by_release : {false, true}) {
      Connection made = opened();
      const Recordset kept = select(made);
      for (int i = 0; i < 3; ++i) {
        const Recordset released = select(made);
        if (closed_first) {
          EXPECT_EQ(released->Close(), S_OK);
        }
      }
      if (by_release) {
        made = {};
      } else {
        EXPECT_EQ(made->Close(), S_OK);
      }
      expect_orphan(kept);
    }
  }
}

// Whatever a field keeps alive is closed with the rest.
TEST_F(ConnectionRegistry, FieldsOutliveTheConnectionToo) {
  Connection made = opened();
  Recordset recordset = select(made);
  const auto fields = fields_of(recordset.get());
  auto [found, field] = component::received<IZIRDBField>(
      [&](IZIRDBField** out) { return fields->Item(plain(VT_I4, 0), out); });
  ASSERT_EQ(found, S_OK);
  recordset = {};
  _variant_t value;
  EXPECT_EQ(field->get_Value(&value), S_OK);
  EXPECT_EQ(value.llVal, 1);

  made = {};

  EXPECT_EQ(field->get_Value(&value), component::kNoFieldCode);
  long count = 77;
  EXPECT_EQ(fields->get_Count(&count), S_OK);
  EXPECT_EQ(count, 0);
}

// ---------------------------------------------------------------------------
// Every order of letting go
// ---------------------------------------------------------------------------

/// What happens to a recordset before the letting go.
enum class Before { Nothing, Closed, Walked };
constexpr Before kBefore[] = {Before::Nothing, Before::Closed, Before::Walked};

void prepare(const Recordset& recordset, Before what) {
  if (what == Before::Closed) {
    EXPECT_EQ(recordset->Close(), S_OK);
  } else if (what == Before::Walked) {
    Visitor visitor;
    expect_refused(for_each(recordset, visitor), S_OK);
  }
}

TEST_F(ConnectionRegistry, EveryOrderOfReleaseIsSafe) {
  constexpr int kRecordsets = 3;
  constexpr int kConnection = kRecordsets;  // the last of four objects
  for (const Before of_first : kBefore) {
    for (const Before of_second : kBefore) {
      std::vector<int> order{0, 1, 2, kConnection};
      do {
        Connection made = opened();
        std::vector<Recordset> recordsets;
        for (int i = 0; i < kRecordsets; ++i)
          recordsets.push_back(select(made));
        prepare(recordsets[0], of_first);
        prepare(recordsets[1], of_second);
        for (const int each : order) {
          if (each == kConnection) {
            made = {};
            for (const Recordset& left : recordsets) {
              if (left) expect_orphan(left);
            }
          } else {
            recordsets[static_cast<std::size_t>(each)] = {};
          }
        }
        ASSERT_EQ(DllCanUnloadNow(), S_OK);
      } while (std::next_permutation(order.begin(), order.end()));
    }
  }
}

// What is done to one of many recordsets must be done to that one.
TEST_F(ConnectionRegistry, ALongHistoryKeepsTrackOfWhatIsLeft) {
  const Connection made = opened();
  std::vector<Recordset> alive;
  std::uint32_t random = 12345;
  const auto below = [&random](std::size_t count) {
    random = random * 1664525U + 1013904223U;
    return static_cast<std::size_t>(random >> 8U) % count;
  };
  for (int step = 0; step < 2000; ++step) {
    const std::size_t what = below(8);
    if (alive.empty() || what < 4) {
      alive.push_back(select(made));
    } else if (what < 6) {
      const auto at =
          alive.begin() + static_cast<std::ptrdiff_t>(below(alive.size()));
      alive.erase(at);
    } else if (what == 6) {
      const Recordset& one = alive[below(alive.size())];
      const HRESULT expected = state_of(one) == 1 ? S_OK : kClosedCode;
      EXPECT_EQ(one->Close(), expected);
    } else if (below(100) == 0) {
      EXPECT_EQ(made->Close(), S_OK);
      for (const Recordset& each : alive) expect_orphan(each);
      EXPECT_EQ(made->Open(nullptr, nullptr, nullptr, 0), S_OK);
      alive.clear();
    }
  }
  EXPECT_FALSE(alive.empty());
  EXPECT_EQ(made->Close(), S_OK);
  for (const Recordset& each : alive) expect_orphan(each);
}

// ---------------------------------------------------------------------------
// Callbacks of forEach
// ---------------------------------------------------------------------------

TEST_F(ConnectionReentrancy, ACallbackThatClosesTheConnectionEndsTheWalk) {
  const Connection made = opened();
  const Recordset recordset = select(made);
  Visitor visitor([&](std::int64_t row, const Seen&) {
    return row == 2 ? made->Close() : S_OK;
  });
  expect_exception(for_each(recordset, visitor), kClosedCode, kRecordsetSource,
                   kClosedText);
  EXPECT_EQ(visitor.rows(), Rows({1, 2}));
  expect_orphan(recordset);
}

TEST_F(ConnectionReentrancy, ACallbackThatReopensTheConnectionEndsTheWalkToo) {
  const Connection made = opened();
  const Recordset recordset = select(made);
  Visitor visitor([&](std::int64_t, const Seen&) {
    EXPECT_EQ(made->Close(), S_OK);
    return made->Open(nullptr, nullptr, nullptr, 0);
  });
  expect_exception(for_each(recordset, visitor), kClosedCode, kRecordsetSource,
                   kClosedText);
  EXPECT_EQ(visitor.rows(), Rows({1}));
}

TEST_F(ConnectionReentrancy, ACallbackThatReleasesTheConnectionEndsTheWalk) {
  Connection made = opened();
  const Recordset recordset = select(made);
  Visitor visitor([&](std::int64_t, const Seen&) {
    made = {};
    return S_OK;
  });
  expect_exception(for_each(recordset, visitor), kClosedCode, kRecordsetSource,
                   kClosedText);
  EXPECT_EQ(script().count("SQLDisconnect"), 1U);
  expect_orphan(recordset);
}

TEST_F(ConnectionReentrancy, ACallbackThatReleasesTheRecordsetDoesNotEndIt) {
  for (const bool connection_too : {false, true}) {
    Connection made = opened();
    Recordset recordset = select(made);
    int calls = 0;
    Dispatch callback([&](const Dispatch::Call&) {
      ++calls;
      recordset = {};
      if (connection_too) made = {};
      return S_OK;
    });
    _variant_t argument(static_cast<IDispatch*>(&callback));
    DISPPARAMS parameters{&argument, nullptr, 1, 0};
    // Without a reference of its own, unlike other calls of these tests.
    IDispatch* const bare = component::dispatch_of(recordset.get()).get();
    EXPECT_EQ(
        bare->Invoke(DISPID_ZIRDB_RECORDSET_FOREACH, IID_NULL, 0,
                     DISPATCH_METHOD, &parameters, nullptr, nullptr, nullptr),
        connection_too ? DISP_E_EXCEPTION : S_OK);
    EXPECT_EQ(calls, connection_too ? 1 : 3);
    EXPECT_EQ(static_cast<bool>(made), !connection_too);
  }
}

TEST_F(ConnectionReentrancy, ACallbackThatClosesTheRecordsetEndsTheWalk) {
  for (const bool connection_too : {false, true}) {
    const Connection made = opened();
    const Recordset recordset = select(made);
    Visitor visitor([&](std::int64_t, const Seen&) {
      EXPECT_EQ(recordset->Close(), S_OK);
      return connection_too ? made->Close() : S_OK;
    });
    expect_exception(for_each(recordset, visitor), kClosedCode,
                     kRecordsetSource, kClosedText);
    EXPECT_EQ(visitor.rows(), Rows({1}));
    EXPECT_EQ(columns_of(recordset), connection_too ? 0 : 1);
    EXPECT_EQ(made->Close(), S_OK);
    expect_orphan(recordset);
  }
}

TEST_F(ConnectionReentrancy, ACallbackMayExecuteOnTheSameConnection) {
  const Connection made = opened();
  const Recordset recordset = select(made);
  std::vector<Recordset> more;
  Visitor visitor([&](std::int64_t, const Seen&) {
    more.push_back(select(made));
    return component::execute(made, L"update").first;
  });
  expect_refused(for_each(recordset, visitor), S_OK);
  ASSERT_EQ(more.size(), 3U);
  for (const Recordset& each : more) expect_on_row(each, 1);
  EXPECT_EQ(made->Close(), S_OK);
  for (const Recordset& each : more) expect_orphan(each);
}

// ---------------------------------------------------------------------------
// Default members, called while arguments are converted
// ---------------------------------------------------------------------------

/// An argument that runs `act` when its text is asked for, and answers `text`.
class Acting {
 public:
  Acting(const wchar_t* text, std::function<void()> act)
      : act_(std::move(act)), object_([this, text](const Dispatch::Call& call) {
          act_();
          *call.result = _variant_t(text).Detach();
          return S_OK;
        }) {}
  Acting(const Acting&) = delete;
  Acting& operator=(const Acting&) = delete;
  ~Acting() = default;

  _variant_t argument() {
    return _variant_t(static_cast<IDispatch*>(&object_));
  }

 private:
  std::function<void()> act_;
  Dispatch object_;
};

/// Calls without a reference of its own, unlike component::invoke.
component::Answer invoke_bare(IDispatch* connection, DISPID member,
                              std::vector<_variant_t> arguments) {
  std::reverse(arguments.begin(), arguments.end());
  DISPPARAMS parameters{arguments.data(), nullptr,
                        static_cast<UINT>(arguments.size()), 0};
  component::Exception exception;
  component::Answer answer;
  answer.result =
      connection->Invoke(member, IID_NULL, 0, DISPATCH_METHOD, &parameters,
                         &answer.value, exception.get(), nullptr);
  answer.code = exception->scode;
  if (exception->bstrSource != nullptr) answer.source = exception->bstrSource;
  if (exception->bstrDescription != nullptr) {
    answer.description = exception->bstrDescription;
  }
  return answer;
}

TEST_F(ConnectionReentrancy, AnArgumentThatClosesTheConnectionIsSeen) {
  const Connection made = opened();
  Acting closing(L"select", [&] { EXPECT_EQ(made->Close(), S_OK); });
  for (const DISPID member : {kExecute, kParameterised}) {
    const auto late = dispatch_of(made);
    expect_exception(
        component::method(late.get(), member, {closing.argument()}),
        kClosedCode, kConnectionSource, kClosedText);
    expect_exception(component::method(late.get(), kParameterised,
                                       {L"select", closing.argument()}),
                     kClosedCode, kConnectionSource, kClosedText);
    EXPECT_EQ(made->Open(nullptr, nullptr, nullptr, 0), S_OK);
  }
  EXPECT_EQ(executions(), 0U);
}

TEST_F(ConnectionReentrancy, AnArgumentThatOpensTheConnectionIsSeen) {
  const Connection made = component::connection();
  Acting opening(L"select", [&] {
    EXPECT_EQ(made->Open(bstr(kSource).m_s, nullptr, nullptr, 0), S_OK);
  });
  for (const DISPID member : {kExecute, kParameterised}) {
    const component::Answer answer = component::method(
        dispatch_of(made).get(), member, {opening.argument()});
    EXPECT_EQ(answer.result, S_OK);
    EXPECT_EQ(answer.value.vt, VT_DISPATCH);
    EXPECT_EQ(made->Close(), S_OK);
  }
}

TEST_F(ConnectionReentrancy, AnArgumentThatReleasesTheConnectionIsOutlived) {
  for (const DISPID member : {kExecute, kParameterised}) {
    for (const bool in_second : {false, true}) {
      SCOPED_TRACE(testing::Message() << member << ", " << in_second);
      script().clear_log();
      Connection made = opened();
      Acting releasing(in_second ? L"1" : L"select", [&] { made = {}; });
      std::vector<_variant_t> arguments;
      if (in_second) {
        if (member == kExecute) continue;  // asks for no text there
        arguments.emplace_back(L"select");
      }
      arguments.push_back(releasing.argument());

      IDispatch* const bare = dispatch_of(made).get();
      component::Answer answer = invoke_bare(bare, member, arguments);

      EXPECT_EQ(answer.result, S_OK);
      ASSERT_EQ(answer.value.vt, VT_DISPATCH);
      EXPECT_EQ(script().count("SQLDisconnect"), 1U);
      expect_orphan(component::query<IZIRDBRecordset>(answer.value.pdispVal,
                                                      IID_IZIRDBRecordset));
    }
  }
}

TEST_F(ConnectionReentrancy, AnArgumentMayExecuteOnTheSameConnection) {
  const Connection made = opened();
  Recordset inner;
  Acting executing(L"select", [&] { inner = select(made); });
  const component::Answer answer = component::method(
      dispatch_of(made).get(), kExecute, {executing.argument()});
  ASSERT_EQ(answer.value.vt, VT_DISPATCH);
  expect_on_row(inner, 1);
  EXPECT_EQ(made->Close(), S_OK);
  expect_orphan(inner);
  expect_orphan(component::query<IZIRDBRecordset>(answer.value.pdispVal,
                                                  IID_IZIRDBRecordset));
}

// ---------------------------------------------------------------------------
// What a RecordsAffected variant held, being released
// ---------------------------------------------------------------------------

/// A variant whose clearing runs `act`, once.
class Releasing {
 public:
  explicit Releasing(std::function<void()> act) {
    variant_ = &object_;
    object_.on_release = [this, act = std::move(act)] {
      if (!std::exchange(released_, true)) act();
    };
  }
  Releasing(const Releasing&) = delete;
  Releasing& operator=(const Releasing&) = delete;
  ~Releasing() { released_ = true; }

  VARIANT reference() { return reference_to(&variant_); }
  const _variant_t& variant() const { return variant_; }

 private:
  bool released_ = false;
  objects::Unknown object_;
  _variant_t variant_;
};

void expect_count(const Releasing& target, std::int64_t count) {
  EXPECT_EQ(target.variant().vt, VT_I8);
  EXPECT_EQ(target.variant().llVal, count);
}

TEST_F(ConnectionReentrancy, ACountThatClosesTheConnectionClosesTheRecordset) {
  for (const Road road : connection_calls::kRoads) {
    SCOPED_TRACE(road);
    const Connection made = opened();
    Releasing target([&] { EXPECT_EQ(made->Close(), S_OK); });
    VARIANT affected = target.reference();
    const auto done = execute_by(road, made, L"select", &affected);
    EXPECT_EQ(done.code, S_OK);
    expect_count(target, -1);
    ASSERT_TRUE(done.recordset);
    expect_orphan(done.recordset);
    EXPECT_EQ(connection_calls::state_of(road, made), 0);
  }
}

TEST_F(ConnectionReentrancy, ACountMayReleaseTheConnectionsLastReference) {
  for (const wchar_t* sql : {L"select", L"update"}) {
    for (const Road road : connection_calls::kRoads) {
      SCOPED_TRACE(testing::Message() << sql << ", " << road);
      script().clear_log();
      Connection made = opened();
      Releasing target([&] { made = {}; });
      VARIANT affected = target.reference();
      Recordset recordset;
      if (road == Road::Vtable) {
        IZIRDBConnection* const bare = made.get();
        auto [code, stored] =
            component::received<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
              return bare->Execute(bstr(sql).m_s, &affected, 0, out);
            });
        EXPECT_EQ(code, S_OK);
        recordset = std::move(stored);
      } else {
        IDispatch* const bare = dispatch_of(made).get();
        component::Answer answer =
            invoke_bare(bare, kExecute, {_variant_t(sql), affected});
        EXPECT_EQ(answer.result, S_OK);
        if (answer.value.vt == VT_DISPATCH) {
          recordset = component::query<IZIRDBRecordset>(answer.value.pdispVal,
                                                        IID_IZIRDBRecordset);
        }
      }
      expect_count(target, recordset ? -1 : 5);
      EXPECT_EQ(static_cast<bool>(recordset), std::wstring(sql) == L"select");
      EXPECT_EQ(script().count("SQLDisconnect"), 1U);
      if (recordset) expect_orphan(recordset);
    }
  }
}

// The variable may be the one that holds the connection.
TEST_F(ConnectionReentrancy, ACountMayReplaceTheConnectionItself) {
  for (const wchar_t* sql : {L"select", L"update"}) {
    Connection made = opened();
    IZIRDBConnection* const bare = made.get();
    _variant_t variable(dispatch_of(made).get());
    made = {};
    VARIANT affected = reference_to(&variable);
    auto [code, recordset] =
        component::received<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
          return bare->Execute(bstr(sql).m_s, &affected, 0, out);
        });
    EXPECT_EQ(code, S_OK);
    EXPECT_EQ(variable.vt, VT_I8);
    if (recordset) expect_orphan(recordset);
  }
}

TEST_F(ConnectionReentrancy, ACountMayExecuteOnTheSameConnection) {
  const Connection made = opened();
  Recordset inner;
  Releasing target([&] { inner = select(made); });
  VARIANT affected = target.reference();
  auto [code, outer] = component::execute(made, L"select", &affected);
  EXPECT_EQ(code, S_OK);
  expect_count(target, -1);
  expect_on_row(inner, 1);
  expect_on_row(outer, 1);
  EXPECT_EQ(made->Close(), S_OK);
  expect_orphan(inner);
  expect_orphan(outer);
}

TEST_F(ConnectionReentrancy, ACountThatFailsSomethingDoesNotFailTheExecution) {
  const Connection made = opened();
  Releasing target([&] {
    EXPECT_EQ(component::execute(made, L"").first, component::kNoTextCode);
  });
  VARIANT affected = target.reference();
  const auto done = execute_by(Road::LateBound, made, L"select", &affected);
  connection_calls::expect_done(done);
  ASSERT_TRUE(done.recordset);
  expect_on_row(done.recordset, 1);
}

// A recordset may be what is replaced by the next number of rows.
TEST_F(ConnectionReentrancy, ACountMayReplaceARecordset) {
  const Connection made = opened();
  component::Answer first =
      component::method(dispatch_of(made).get(), kExecute, {L"select"});
  ASSERT_EQ(first.value.vt, VT_DISPATCH);
  VARIANT affected = reference_to(&first.value);
  auto [code, second] = component::execute(made, L"select", &affected);
  EXPECT_EQ(code, S_OK);
  EXPECT_EQ(first.value.vt, VT_I8);
  EXPECT_EQ(first.value.llVal, -1);
  EXPECT_EQ(made->Close(), S_OK);
  expect_orphan(second);
}

}  // namespace
