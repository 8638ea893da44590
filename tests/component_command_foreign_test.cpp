// SPDX-License-Identifier: MIT
//
// Commands over connections that other programs implement.
//
// Sections: what a foreign connection is asked; what becomes of its answer;
// parameters; arrays; wrappers; connections that interfere.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/commands.h"
#include "support/parameters.h"
#include "support/values.h"

namespace {

using namespace commands;
using namespace std::string_literals;
using component::kClosedCode;
using component::standalone_recordset;
using component::state_of;
using parameters::script_array;
using parameters::script_array_of;
using values::plain;
using values::reference_to;

/// The recordset for a statement without columns, and no other.
void expect_none(const Recordset& recordset) {
  ASSERT_TRUE(recordset);
  EXPECT_EQ(state_of(recordset), ZIRDB_STATE_CLOSED);
  EXPECT_EQ(recordset->MoveNext(), kClosedCode);
  long count = 77;
  EXPECT_EQ(component::fields_of(recordset.get())->get_Count(&count), S_OK);
  EXPECT_EQ(count, 0);
}

// ---------------------------------------------------------------------------
// What a foreign connection is asked
// ---------------------------------------------------------------------------

TEST(CommandOverForeignConnection, ReceivesTheTextOfTheCommand) {
  const struct {
    std::wstring text;
    long type;
    std::wstring received;
  } kRows[] = {{L"select", 8, L"select"},
               {L"select", 1, L"select"},
               {L"select", -1, L"select"},
               {L" EXEC p ", 8, L" EXEC p "},
               {L"{CALL sp_executesql()}", 1, L"{CALL sp_executesql()}"},
               {L"a\0b"s, 8, L"a\0b"s},
               {L"\u00e9\U0001F600", 8, L"\u00e9\U0001F600"},
               {L"p", 4, L"{CALL p()}"},
               {L"sp_who", 4, L"{CALL sp_who()}"}};
  for (const auto& row : kRows) {
    for (const Road road : kRoads) {
      ForeignConnection foreign;
      const Command made = command_over(foreign.dispatch(), L"", row.type);
      const _variant_t text = values::text_value(row.text);
      EXPECT_EQ(made->put_CommandText(text.bstrVal), S_OK);
      EXPECT_EQ(run(road, made).outcome, kDone);
      ASSERT_EQ(foreign.executed.size(), 1U);
      EXPECT_EQ(foreign.executed[0].text, row.received);
      EXPECT_TRUE(foreign.executed[0].out_was_null);
      EXPECT_EQ(text_of(made), row.text);
    }
  }
}

TEST(CommandOverForeignConnection, ReceivesRowsAffectedAndOptions) {
  for (const long options : {0L, 7L, -1L, values::kSmallest}) {
    _variant_t target(L"before");
    std::int64_t number = 5;
    VARIANT by_reference = plain(VT_BYREF | VT_I4, 0);
    by_reference.byref = &number;
    for (VARIANT affected :
         {static_cast<VARIANT>(target), reference_to(&target), by_reference}) {
      for (const Road road : kRoads) {
        ForeignConnection foreign;
        const Command made = command_over(foreign.dispatch(), L"select");
        EXPECT_EQ(run(road, made, &affected, options).outcome, kDone);
        ASSERT_EQ(foreign.executed.size(), 1U);
        EXPECT_EQ(foreign.executed[0].options, options);
        ASSERT_NE(foreign.executed[0].affected_at, nullptr);
        EXPECT_TRUE(values::same_bytes(foreign.executed[0].affected, affected));
        if (road == Road::kVtable) {
          EXPECT_EQ(foreign.executed[0].affected_at, &affected);
        }
      }
    }
    EXPECT_EQ(number, 5);
  }
}

TEST(CommandOverForeignConnection, ReceivesNoTargetWhereThereIsNone) {
  for (const Road road : kRoads) {
    ForeignConnection foreign;
    EXPECT_EQ(run(road, command_over(foreign.dispatch(), L"select")).outcome,
              kDone);
    ASSERT_EQ(foreign.executed.size(), 1U);
    EXPECT_EQ(foreign.executed[0].affected.vt, VT_EMPTY);
    EXPECT_EQ(foreign.executed[0].options, 0);
  }
}

TEST(CommandOverForeignConnection, WritesRowsAffectedWhereTheScriptWantsThem) {
  ForeignConnection foreign;
  _variant_t target;
  foreign.on_execute = [&] {
    ASSERT_EQ(foreign.executed.back().affected.vt, VT_BYREF | VT_VARIANT);
    *foreign.executed.back().affected.pvarVal = _variant_t(3);
  };
  const Command made = command_over(foreign.dispatch(), L"select");
  EXPECT_EQ(run_with(made, {reference_to(&target)}).outcome, kDone);
  EXPECT_EQ(target.llVal, 3);
}

// ---------------------------------------------------------------------------
// What becomes of its answer
// ---------------------------------------------------------------------------

TEST(CommandOverForeignConnection, HandsItsRecordsetThrough) {
  for (const HRESULT result : {S_OK, S_FALSE, HRESULT{7}}) {
    for (const Road road : kRoads) {
      ForeignConnection foreign;
      foreign.result = result;
      foreign.recordset = standalone_recordset();
      {
        const Ran ran = run(road, command_over(foreign.dispatch(), L"select"));
        EXPECT_GE(ran.outcome.code, 0);
        EXPECT_EQ(ran.recordset.get(), foreign.recordset.get());
        EXPECT_EQ(component::references_of(foreign.recordset.get()), 2U);
      }
      EXPECT_EQ(component::references_of(foreign.recordset.get()), 1U);
      EXPECT_EQ(state_of(foreign.recordset), ZIRDB_STATE_OPEN);
    }
  }
}

TEST(CommandOverForeignConnection, WithoutARecordsetGivesAClosedOne) {
  for (const HRESULT result : {S_OK, S_FALSE}) {
    for (const Road road : kRoads) {
      ForeignConnection foreign;
      foreign.result = result;
      const Ran ran = run(road, command_over(foreign.dispatch(), L"select"));
      EXPECT_GE(ran.outcome.code, 0);
      expect_none(ran.recordset);
    }
  }
}

/// Has no late binding, which recordsets of this library have.
class EarlyRecordset final : public IZIRDBRecordset {
 public:
  EarlyRecordset() = default;
  EarlyRecordset(const EarlyRecordset&) = delete;
  EarlyRecordset& operator=(const EarlyRecordset&) = delete;
  // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall)
  virtual ~EarlyRecordset() { EXPECT_EQ(references_, 1U); }

  HRESULT QueryInterface(REFIID riid, void** object) override {
    *object = nullptr;
    if (riid != IID_IUnknown && riid != IID_IZIRDBRecordset) {
      return E_NOINTERFACE;
    }
    *object = static_cast<IZIRDBRecordset*>(this);
    AddRef();
    return S_OK;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }
  HRESULT get_Fields(IZIRDBFields** /*fields*/) override { return E_NOTIMPL; }
  HRESULT get_State(long* /*state*/) override { return E_NOTIMPL; }
  HRESULT get_EOF(VARIANT_BOOL* /*at_end*/) override { return E_NOTIMPL; }
  HRESULT get_BOF(VARIANT_BOOL* /*at_start*/) override { return E_NOTIMPL; }
  HRESULT get_RecordCount(long* /*count*/) override { return E_NOTIMPL; }
  HRESULT MoveFirst() override { return E_NOTIMPL; }
  HRESULT MoveLast() override { return E_NOTIMPL; }
  HRESULT MovePrevious() override { return E_NOTIMPL; }
  HRESULT MoveNext() override { return E_NOTIMPL; }
  HRESULT Close() override { return E_NOTIMPL; }

 private:
  std::uint32_t references_ = 1;
};

TEST(CommandOverForeignConnection, MayHaveARecordsetThatScriptsCannotUse) {
  EarlyRecordset early;
  ForeignConnection foreign;
  foreign.recordset = Recordset::share(&early);
  const Command made = command_over(foreign.dispatch(), L"select");
  EXPECT_EQ(run(Road::kVtable, made).recordset.get(), &early);
  EXPECT_EQ(run(Road::kLateBound, made).outcome, plainly(E_NOINTERFACE));
}

TEST(CommandOverForeignConnection, MayStoreAnythingWhenItFails) {
  for (const HRESULT result : {E_FAIL, kClosedCode}) {
    for (const Road road : kRoads) {
      ForeignConnection foreign;
      foreign.result = result;
      foreign.stored = static_cast<IZIRDBRecordset*>(component::unset());
      const Ran ran = run(road, command_over(foreign.dispatch(), L"select"));
      EXPECT_LT(ran.outcome.code, 0);
      EXPECT_FALSE(ran.recordset);
    }
  }
}

TEST(CommandOverForeignConnection, FailsWithItsOwnCode) {
  for (const HRESULT result :
       {E_FAIL, E_NOTIMPL, DISP_E_TYPEMISMATCH, component::kNoTextCode,
        zir_hresult(0x80040999)}) {
    for (const Road road : kRoads) {
      ForeignConnection foreign;
      foreign.result = result;
      const Command made = command_over(foreign.dispatch(), L"select");
      const Settings before = settings_of(made);
      EXPECT_EQ(run(road, made).outcome, plainly(result));
      EXPECT_EQ(settings_of(made), before);
    }
  }
}

// It may have used this library itself.
TEST(CommandOverForeignConnection, FailsInTheWordsThatAreRecorded) {
  for (const Road road : kRoads) {
    ForeignConnection foreign;
    foreign.result = E_FAIL;
    foreign.on_execute = [] {
      EXPECT_EQ(component::execute(component::connection(), L"select").first,
                kClosedCode);
    };
    EXPECT_EQ(run(road, command_over(foreign.dispatch(), L"select")).outcome,
              (Outcome{E_FAIL, component::kConnectionSource,
                       component::kClosedText}));
  }
}

TEST(CommandOverForeignConnection, ThatSaysThatItIsClosedIsOfNoUse) {
  for (const Road road : kRoads) {
    ForeignConnection foreign;
    foreign.result = kClosedCode;
    const Command made = command_over(foreign.dispatch(), L"select");
    EXPECT_EQ(run(road, made).outcome, kNoConnection);
    foreign.on_execute = [] { leave_an_error(); };
    EXPECT_EQ(run(road, made).outcome, kNoConnection);
  }
}

TEST(CommandOverForeignConnection, LeavesNoErrorBehindItsSuccess) {
  ForeignConnection foreign;
  foreign.on_execute = [] { leave_an_error(); };
  const Command made = command_over(foreign.dispatch(), L"select");
  for (const Road road : kRoads) {
    EXPECT_EQ(run(road, made).outcome, kDone) << road;
  }
}

// ---------------------------------------------------------------------------
// Parameters
// ---------------------------------------------------------------------------

TEST(CommandOverForeignConnection, IsNotAskedWithParameters) {
  for (const long type : {-1L, 1L, 4L, 8L}) {
    for (const Road road : kRoads) {
      ForeignConnection foreign;
      const Command made = command_over(foreign.dispatch(), L"select ?", type);
      append(made, plain(VT_I2, 7), 0, ZIRDB_AD_PARAM_INPUT_OUTPUT);
      const Settings before = settings_of(made);
      EXPECT_EQ(run(road, made).outcome, kForeign);
      EXPECT_EQ(settings_of(made), before);
      EXPECT_TRUE(foreign.executed.empty());
    }
  }
}

TEST(CommandOverForeignConnection, IsNotAskedForASuppressedTextWithOutputs) {
  ForeignConnection foreign;
  const Command made =
      command_over(foreign.dispatch(), L"{CALL sp_executesql(?)}");
  append(made, plain(VT_I4, 7), 0, ZIRDB_AD_PARAM_OUTPUT);
  EXPECT_EQ(run(Road::kVtable, made).outcome, kForeign);
  EXPECT_EQ(values_in(made), described({plain(VT_I4, 7)}));
}

// ---------------------------------------------------------------------------
// Arrays
// ---------------------------------------------------------------------------

TEST(CommandOverForeignConnection, IsNotAskedWithAnArrayOfValues) {
  ForeignConnection foreign;
  const Command made = command_over(foreign.dispatch(), L"select ?");
  const _variant_t array = script_array_of(_variant_t(), plain(VT_I2, 7));
  const std::string before = parameters::describe(array);
  EXPECT_EQ(run_with(made, {array}).outcome, kForeign);
  EXPECT_EQ(parameters::describe(array), before);
  EXPECT_TRUE(foreign.executed.empty());
}

TEST(CommandOverForeignConnection, IsAskedWithAnEmptyArray) {
  for (std::size_t position = 0; position < 3; ++position) {
    ForeignConnection foreign;
    const Command made = command_over(foreign.dispatch(), L"EXEC p");
    append(made, plain(VT_I2, 7));
    _variant_t target;
    const _variant_t array = script_array({}, 3);
    std::vector<VARIANT> arguments{reference_to(&target), _variant_t(9)};
    arguments.insert(arguments.begin() + static_cast<std::ptrdiff_t>(position),
                     array);
    const Ran ran = run_with(made, arguments);
    EXPECT_EQ(ran.outcome, kDone);
    expect_none(ran.recordset);
    ASSERT_EQ(foreign.executed.size(), 1U);
    EXPECT_TRUE(values::same_bytes(foreign.executed[0].affected,
                                   reference_to(&target)));
    EXPECT_EQ(foreign.executed[0].options, 9);
    EXPECT_EQ(parameters::describe(array),
              parameters::describe(script_array({}, 3)));
  }
}

// ---------------------------------------------------------------------------
// Wrappers
// ---------------------------------------------------------------------------

/// Answers with the interfaces of another object, as a proxy does.
class Wrapper final : public IUnknown {
 public:
  explicit Wrapper(IUnknown* inner) : inner_(inner) {}
  Wrapper(const Wrapper&) = delete;
  Wrapper& operator=(const Wrapper&) = delete;
  // NOLINTNEXTLINE(clang-analyzer-optin.cplusplus.VirtualCall)
  virtual ~Wrapper() { EXPECT_EQ(references_, 1U); }

  HRESULT QueryInterface(REFIID riid, void** object) override {
    return inner_->QueryInterface(riid, object);
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }

 private:
  IUnknown* inner_;
  std::uint32_t references_ = 1;
};

TEST(CommandOverForeignConnection, MayStandBehindAWrapper) {
  ForeignConnection foreign;
  Wrapper wrapper(foreign.unknown());
  const Command made = component::command();
  EXPECT_EQ(component::put(dispatch_of(made.get()).get(),
                           DISPID_ZIRDB_COMMAND_ACTIVECONNECTION,
                           _variant_t(static_cast<IUnknown*>(&wrapper)))
                .result,
            S_OK);
  EXPECT_EQ(connection_of(made).get(), foreign.dispatch());
  _bstr_t text(L"select");
  EXPECT_EQ(made->put_CommandText(text.m_s), S_OK);
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  EXPECT_EQ(foreign.executed.size(), 1U);
}

// The object that answers decides, not what it was passed as: the closed
// connection of this library judges a command with parameters.
TEST(CommandOverForeignConnection, IsNotWhatAWrapperHoldsOfThisLibrary) {
  const component::Connection own = component::connection();
  Wrapper wrapper(own.get());
  const Command made = component::command();
  EXPECT_EQ(component::put(dispatch_of(made.get()).get(),
                           DISPID_ZIRDB_COMMAND_ACTIVECONNECTION,
                           _variant_t(static_cast<IUnknown*>(&wrapper)))
                .result,
            S_OK);
  _bstr_t text(L"select ?");
  EXPECT_EQ(made->put_CommandText(text.m_s), S_OK);
  append(made, plain(VT_I4, 7));
  EXPECT_EQ(run(Road::kVtable, made).outcome, kNoConnection);
}

// ---------------------------------------------------------------------------
// Connections that interfere
// ---------------------------------------------------------------------------

TEST(CommandOverForeignConnection, IsHeldWhileItExecutes) {
  for (const Road road : kRoads) {
    ForeignConnection foreign;
    const Command made = command_over(foreign.dispatch(), L"select");
    foreign.on_execute = [&] {
      EXPECT_EQ(made->putref_ActiveConnection(nullptr), S_OK);
      EXPECT_GT(foreign.references(), 1U);
    };
    const Ran ran = run(road, made);
    EXPECT_EQ(ran.outcome, kDone);
    expect_none(ran.recordset);
    EXPECT_EQ(foreign.references(), 1U);
    EXPECT_EQ(connection_of(made).get(), nullptr);
  }
}

TEST(CommandOverForeignConnection, MayReplaceItself) {
  ForeignConnection other;
  ForeignConnection foreign;
  const Command made = command_over(foreign.dispatch(), L"select");
  foreign.on_execute = [&] {
    EXPECT_EQ(made->putref_ActiveConnection(other.dispatch()), S_OK);
  };
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  EXPECT_TRUE(other.executed.empty());
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  EXPECT_EQ(other.executed.size(), 1U);
}

TEST(CommandOverForeignConnection, MayLetTheCommandGo) {
  for (const HRESULT result : {S_OK, S_FALSE, E_FAIL, kClosedCode}) {
    for (const Road road : kRoads) {
      ForeignConnection foreign;
      foreign.result = result;
      Command made = command_over(foreign.dispatch(), L"select");
      IZIRDBCommand* const by_vtable = made.get();
      InterfacePtr<IDispatch> late;
      if (road == Road::kLateBound) late = dispatch_of(made.get());
      IDispatch* const late_bound = late.get();
      foreign.on_execute = [&] {
        made = {};
        late = {};
      };
      if (road == Road::kVtable) {
        const auto [code, recordset] =
            component::received<IZIRDBRecordset>([&](IZIRDBRecordset** out) {
              return by_vtable->Execute(nullptr, 0, out);
            });
        EXPECT_EQ(SUCCEEDED(code), SUCCEEDED(result));
        EXPECT_EQ(static_cast<bool>(recordset), SUCCEEDED(result));
      } else {
        const Answer answer =
            component::method(late_bound, DISPID_ZIRDB_COMMAND_EXECUTE);
        EXPECT_EQ(SUCCEEDED(answer.result), SUCCEEDED(result));
        EXPECT_EQ(static_cast<bool>(recordset_in(answer)), SUCCEEDED(result));
      }
    }
  }
}

TEST(CommandOverForeignConnection, MayExecuteTheCommandAgain) {
  ForeignConnection foreign;
  const Command made = command_over(foreign.dispatch(), L"first");
  foreign.on_execute = [&] {
    if (foreign.executed.size() > 1) return;
    _bstr_t text(L"second");
    EXPECT_EQ(made->put_CommandText(text.m_s), S_OK);
    EXPECT_EQ(component::execute(made).first, S_OK);
  };
  EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
  ASSERT_EQ(foreign.executed.size(), 2U);
  EXPECT_EQ(foreign.executed[0].text, L"first");
  EXPECT_EQ(foreign.executed[1].text, L"second");
}

/// Runs an action with its last reference.
class Farewell final : public IUnknown {
 public:
  explicit Farewell(std::function<void()> act) : act_(std::move(act)) {}
  HRESULT QueryInterface(REFIID /*riid*/, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override {
    if (--references_ == 0) act_();
    return references_;
  }

 private:
  std::function<void()> act_;
  std::uint32_t references_ = 0;
};

// What is let go with a command's parameters may still use other commands.
TEST(CommandOverForeignConnection, MayBeUsedWhileACommandIsDestroyed) {
  ForeignConnection foreign;
  const Command other = command_over(foreign.dispatch(), L"other");
  Farewell farewell([&] { EXPECT_EQ(component::execute(other).first, S_OK); });
  {
    const Command made = command_over(foreign.dispatch(), L"select");
    append(made, _variant_t(static_cast<IUnknown*>(&farewell)));
    EXPECT_TRUE(foreign.executed.empty());
  }
  EXPECT_EQ(foreign.executed.size(), 1U);
}

}  // namespace
