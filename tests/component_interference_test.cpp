// SPDX-License-Identifier: MIT
//
// Foreign code that runs while an operation is under way: default members and
// last references of a script's objects, and connections of other programs.
// They let go of what the operation works with, look at it, and fail.
//
// Sections: a script's objects; an array that is let go; what an array frees;
// texts; references that lead nowhere; the arguments of Execute; connections
// that are asked; errors that foreign code leaves behind.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/commands.h"
#include "support/commands_sent.h"
#include "support/component.h"
#include "support/connection_calls.h"
#include "support/connections.h"
#include "support/parameters.h"
#include "support/values.h"

namespace {

using namespace commands;
using component::expect_exception;
using component::expect_refused;
using parameters::describe;
using parameters::null_reference;
using parameters::script_array;
using parameters::script_array_of;
using values::plain;
using values::reference_to;

// ---------------------------------------------------------------------------
// A script's objects
// ---------------------------------------------------------------------------

/// An object of which the script holds nothing but what it passes. Its default
/// member and its end do as they are told. The end comes with the last
/// reference; while the member runs, that is somebody's mistake.
class ScriptObject final : public IDispatch {
 public:
  using Member = std::function<HRESULT(VARIANT* result)>;
  using End = std::function<void()>;

  /// The only reference.
  static _variant_t made(Member member, End end = {}) {
    VARIANT value{};
    value.vt = VT_DISPATCH;
    value.pdispVal = new ScriptObject(std::move(member), std::move(end));
    return values::owned(value);
  }
  static int alive() { return alive_; }

  ScriptObject(const ScriptObject&) = delete;
  ScriptObject& operator=(const ScriptObject&) = delete;

  HRESULT QueryInterface(REFIID /*riid*/, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override {
    const std::uint32_t left = --references_;
    if (left != 0) return left;
    if (end_) end_();
    EXPECT_FALSE(running_) << "the object goes while its member runs";
    if (!running_) delete this;
    return 0;
  }
  HRESULT GetTypeInfoCount(UINT* /*count*/) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT /*index*/, LCID /*lcid*/,
                      ITypeInfo** /*info*/) override {
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID /*riid*/, LPOLESTR* /*names*/, UINT /*count*/,
                        LCID /*lcid*/, DISPID* /*ids*/) override {
    return E_NOTIMPL;
  }
  HRESULT Invoke(DISPID member, REFIID /*riid*/, LCID /*lcid*/, WORD /*flags*/,
                 DISPPARAMS* /*parameters*/, VARIANT* result,
                 EXCEPINFO* /*exception*/, UINT* /*bad_argument*/) override {
    EXPECT_EQ(member, DISPID_VALUE);
    running_ = true;
    const HRESULT code = member_(result);
    running_ = false;
    if (references_ == 0) delete this;
    return code;
  }

 private:
  ScriptObject(Member member, End end)
      : member_(std::move(member)), end_(std::move(end)) {
    ++alive_;
  }
  ~ScriptObject() { --alive_; }

  static inline int alive_ = 0;
  std::uint32_t references_ = 1;
  bool running_ = false;
  Member member_;
  End end_;
};

HRESULT answer(VARIANT* result, _variant_t value) {
  *result = value.Detach();
  return S_OK;
}
HRESULT answer_text(VARIANT* result) { return answer(result, L"text"); }

/// The array that a variable held is gone at once.
void let_go(VARIANT* variable) {
  VARIANT held = std::exchange(*variable, VARIANT());
  EXPECT_EQ(held.vt, VT_ARRAY | VT_VARIANT);
  EXPECT_EQ(SafeArrayDestroy(held.parray), S_OK) << "the array is locked";
}

VARIANT& element_of(const VARIANT& array, std::size_t index) {
  return static_cast<VARIANT*>(array.parray->pvData)[index];
}

class Interference : public SentCommand {
 protected:
  void TearDown() override {
    EXPECT_EQ(ScriptObject::alive(), 0);
    SentCommand::TearDown();
  }
};

// ---------------------------------------------------------------------------
// An array that is let go
// ---------------------------------------------------------------------------

/// The moment at which a script lets its array go, and what it does then.
class ArrayInterference : public Interference {
 protected:
  using Act = std::function<void(VARIANT* variable)>;

  struct Moment {
    const char* description;
    /// Runs a command with the array in `variable`; `act` runs on the way.
    Outcome (ArrayInterference::*run)(VARIANT* variable, const Act& act);
  };
  static const std::vector<Moment>& moments() {
    static const std::vector<Moment> kAll = {
        {"an element's default member", &ArrayInterference::translated},
        {"what RecordsAffected replaces", &ArrayInterference::counted},
        {"what a parameter's new value replaces", &ArrayInterference::written},
    };
    return kAll;
  }

 private:
  Outcome run_array(VARIANT* variable, VARIANT* affected) {
    Outcome outcome = run_with(command(L"select ?, ?"),
                               {reference_to(affected), reference_to(variable)})
                          .outcome;
    EXPECT_EQ(affected->vt, VT_I8);
    EXPECT_EQ(affected->llVal, 3);
    EXPECT_EQ(bound(), Texts({"in VARCHAR(1) \"1\"", "in BIGINT 7"}));
    return outcome;
  }

  Outcome translated(VARIANT* variable, const Act& act) {
    VARIANT affected{};
    *variable = script_array_of(ScriptObject::made([=](VARIANT* result) {
                                  act(variable);
                                  return answer(result, L"1");
                                }),
                                _variant_t(7))
                    .Detach();
    return run_array(variable, &affected);
  }
  Outcome counted(VARIANT* variable, const Act& act) {
    VARIANT affected = ScriptObject::made({}, [=] { act(variable); }).Detach();
    *variable = script_array_of(ScriptObject::made([](VARIANT* result) {
                                  return answer(result, L"1");
                                }),
                                _variant_t(7))
                    .Detach();
    return run_array(variable, &affected);
  }
  // The parameter has the last reference then.
  Outcome written(VARIANT* variable, const Act& act) {
    VARIANT affected{};
    *variable = script_array_of(ScriptObject::made(
                                    [=](VARIANT* result) {
                                      VariantClear(&element_of(*variable, 0));
                                      return answer(result, L"1");
                                    },
                                    [=] { act(variable); }),
                                _variant_t(7))
                    .Detach();
    return run_array(variable, &affected);
  }

  void SetUp() override {
    Interference::SetUp();
    script().row_count(3);
  }
};

TEST_F(ArrayInterference, AnArrayThatIsLetGoOnTheWayGetsNothingBack) {
  for (const Moment& moment : moments()) {
    SCOPED_TRACE(moment.description);
    _variant_t variable;
    int runs = 0;
    const auto act = [&](VARIANT* held) {
      ++runs;
      let_go(held);
    };
    EXPECT_EQ((this->*moment.run)(&variable, act), kDone);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(variable.vt, VT_EMPTY);
  }
}

TEST_F(ArrayInterference, WhatTheVariableHoldsInsteadStaysWhenItIsNoArray) {
  for (const Moment& moment : moments()) {
    SCOPED_TRACE(moment.description);
    _variant_t variable;
    const auto act = [](VARIANT* held) {
      let_go(held);
      *held = _variant_t(L"instead").Detach();
    };
    EXPECT_EQ((this->*moment.run)(&variable, act), kDone);
    EXPECT_EQ(describe(variable), describe(_variant_t(L"instead")));
  }
}

// Values go where the script would look for them.
TEST_F(ArrayInterference, AnotherArrayInTheVariableTakesTheValues) {
  for (const Moment& moment : moments()) {
    SCOPED_TRACE(moment.description);
    _variant_t variable;
    _variant_t old;
    const auto act = [&](VARIANT* held) {
      old.Attach(std::exchange(*held, script_array_of(5, 6, 9).Detach()));
      VariantClear(&element_of(old, 1));
    };
    EXPECT_EQ((this->*moment.run)(&variable, act), kDone);
    EXPECT_EQ(describe(variable), describe(script_array_of(L"1", 7, 9)));
    EXPECT_EQ(element_of(old, 1).vt, VT_EMPTY);
  }
}

// ---------------------------------------------------------------------------
// What an array frees
// ---------------------------------------------------------------------------

/// An array of numbers with an object at one position.
_variant_t numbers_and(std::size_t position, _variant_t object) {
  std::vector<_variant_t> elements(3);
  for (_variant_t& element : elements) element = plain(VT_I2, 5);
  elements[position] = std::move(object);
  return script_array(std::move(elements));
}
_variant_t numbers_and_text(std::size_t position) {
  std::vector<_variant_t> elements(3, _variant_t(5));
  elements[position] = L"text";
  return script_array(std::move(elements));
}

TEST_F(Interference, AnOldElementMayLetTheArrayGo) {
  for (const std::size_t position : {0U, 1U, 2U}) {
    _variant_t variable;
    int ends = 0;
    variable.Attach(numbers_and(position, ScriptObject::made(answer_text,
                                                             [&] {
                                                               ++ends;
                                                               let_go(
                                                                   &variable);
                                                             }))
                        .Detach());
    EXPECT_EQ(run_with(command(L"select"), {reference_to(&variable)}).outcome,
              kDone);
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(variable.vt, VT_EMPTY);
  }
}

TEST_F(Interference, AnOldElementFindsTheArrayUnlockedWithAllNewValues) {
  for (const std::size_t position : {0U, 1U, 2U}) {
    _variant_t variable;
    std::string found;
    variable.Attach(
        numbers_and(position,
                    ScriptObject::made(answer_text,
                                       [&] {
                                         EXPECT_EQ(variable.parray->cLocks, 0U);
                                         found = describe(variable);
                                       }))
            .Detach());
    EXPECT_EQ(run_with(command(L"select"), {variable}).outcome, kDone);
    EXPECT_EQ(found, describe(numbers_and_text(position)));
    EXPECT_EQ(describe(variable), found);
  }
}

// ---------------------------------------------------------------------------
// Texts
// ---------------------------------------------------------------------------

/// What the default member of an object answers, which is the text of an
/// argument, and what becomes of the variable that the argument refers to.
struct Text {
  const char* description;
  HRESULT code;
  const wchar_t* text;  ///< may be NULL
  bool replaces;        ///< the variable by a text; otherwise it is cleared

  friend std::ostream& operator<<(std::ostream& out, const Text& row) {
    return out << row.description;
  }
};
constexpr Text kTexts[] = {
    {"text, cleared", S_OK, L"DSN=scripted", false},
    {"text, replaced", S_OK, L"DSN=scripted", true},
    {"NULL, cleared", S_OK, nullptr, false},
    {"NULL, replaced", S_OK, nullptr, true},
    {"failure, cleared", E_FAIL, nullptr, false},
    {"failure, replaced", E_FAIL, nullptr, true},
};

/// A variable, in memory of its own that goes when the variable is cleared,
/// with an object that does so.
class CarelessVariable {
 public:
  explicit CarelessVariable(const Text& row) {
    const auto member = [this, row](VARIANT* result) {
      ++runs_;
      if (row.replaces) {
        VARIANT old =
            std::exchange(element_of(array_, 0), _variant_t(L"new").Detach());
        VariantClear(&old);
      } else {
        array_ = _variant_t();
      }
      result->vt = VT_BSTR;
      result->bstrVal = SysAllocString(row.text);
      return row.code;
    };
    array_ = script_array_of(ScriptObject::made(member));
    reference_ = reference_to(&element_of(array_, 0));
  }
  CarelessVariable(const CarelessVariable&) = delete;
  CarelessVariable& operator=(const CarelessVariable&) = delete;
  ~CarelessVariable() { EXPECT_EQ(runs_, 1); }

  const VARIANT& argument() const { return reference_; }

 private:
  _variant_t array_;
  VARIANT reference_{};
  int runs_ = 0;
};

class TextInterference : public Interference,
                         public testing::WithParamInterface<Text> {
 protected:
  template <class Interface>
  static Answer call(const InterfacePtr<Interface>& object, DISPID member,
                     const std::vector<VARIANT>& arguments) {
    parameters::RawCall raw;
    raw.member = member;
    raw.arguments = arguments;
    return parameters::invoke_raw(dispatch_of(object.get()).get(), raw);
  }
};
INSTANTIATE_TEST_SUITE_P(Answers, TextInterference, testing::ValuesIn(kTexts));

TEST_P(TextInterference, AStatement) {
  for (const DISPID member :
       {connection_calls::kExecute, connection_calls::kParameterised}) {
    SCOPED_TRACE(member);
    const Connection& connection = database();
    const CarelessVariable variable(GetParam());
    const Answer got = call(connection, member, {variable.argument()});
    if (FAILED(GetParam().code)) {
      expect_refused(got, DISP_E_TYPEMISMATCH);
    } else if (GetParam().text == nullptr) {
      expect_exception(got, component::kNoTextCode,
                       component::kConnectionSource, component::kNoTextText);
    } else {
      EXPECT_EQ(got.result, S_OK);
      EXPECT_EQ(statements(), Texts({"DSN=scripted"}));
    }
  }
}

TEST_P(TextInterference, AConnectionString) {
  const Connection connection = component::connection();
  const CarelessVariable variable(GetParam());
  const Answer got =
      call(connection, connection_calls::kOpen, {variable.argument()});
  if (FAILED(GetParam().code)) {
    expect_refused(got, DISP_E_TYPEMISMATCH);
  } else if (GetParam().text == nullptr) {
    expect_exception(got, E_INVALIDARG, component::kConnectionSource,
                     component::kNoStringText);
  } else {
    EXPECT_EQ(got.result, S_OK);
    EXPECT_EQ(script().call("SQLDriverConnect").bytes("string"),
              "DSN=scripted");
  }
}

TEST_P(TextInterference, TheNameOfAParameter) {
  const Command made = component::command();
  const CarelessVariable variable(GetParam());
  const Answer got =
      call(made, DISPID_ZIRDB_COMMAND_CREATEPARAMETER, {variable.argument()});
  if (FAILED(GetParam().code)) {
    expect_refused(got, DISP_E_TYPEMISMATCH);
    return;
  }
  ASSERT_EQ(got.value.vt, VT_DISPATCH);
  const auto parameter = component::query<IZIRDBParameter>(got.value.pdispVal,
                                                           IID_IZIRDBParameter);
  EXPECT_EQ(parameters::name_of(parameter.get()),
            GetParam().text == nullptr ? L"" : GetParam().text);
}

// ---------------------------------------------------------------------------
// References that lead nowhere
// ---------------------------------------------------------------------------

/// Chains of the caller's variables. What is kept of them must not be one of
/// them: they go sooner than what was made from them.
class ReferencesThatLeadNowhere : public Interference,
                                  public testing::WithParamInterface<int> {
 protected:
  ReferencesThatLeadNowhere() {
    nowhere_ = null_reference();
    second_ = reference_to(&nowhere_);
    circle_[0] = reference_to(&circle_[1]);
    circle_[1] = reference_to(&circle_[0]);
    alone_ = reference_to(&alone_);
  }
  VARIANT argument() {
    switch (GetParam()) {
      case 0:
        return nowhere_;
      case 1:
        return reference_to(&nowhere_);
      case 2:
        return reference_to(&second_);
      case 3:
        return reference_to(&circle_[0]);
      default:
        return reference_to(&alone_);
    }
  }
  /// Nothing of the caller's is referred to, and NULL is sent.
  void expect_nowhere(const Parameter& parameter, const char* sent) {
    const _variant_t kept = parameters::value_of(parameter.get());
    EXPECT_EQ(kept.vt, VT_BYREF | VT_VARIANT);
    EXPECT_EQ(kept.pvarVal, nullptr);
    const Command made = command(L"select ?");
    EXPECT_EQ(parameters_of(made)->Append(parameter.get()), S_OK);
    EXPECT_EQ(run(Road::kVtable, made).outcome, kDone);
    EXPECT_EQ(bound(), Texts({sent}));
  }

 private:
  VARIANT nowhere_{};
  VARIANT second_{};
  VARIANT circle_[2]{};
  VARIANT alone_{};
};
INSTANTIATE_TEST_SUITE_P(Chains, ReferencesThatLeadNowhere,
                         testing::Range(0, 5));

TEST_P(ReferencesThatLeadNowhere, AreKeptByAParameterAsOneThatDoes) {
  const Parameter parameter =
      created(component::command(), _variant_t(5), ZIRDB_AD_BIGINT);
  const Answer got =
      parameters::put_raw(dispatch_of(parameter.get()).get(),
                          DISPID_ZIRDB_PARAMETER_VALUE, argument());
  EXPECT_EQ(got.result, S_OK);
  expect_nowhere(parameter, "in BIGINT NULL");
}

TEST_P(ReferencesThatLeadNowhere, AreKeptByANewParameterAsOneThatDoes) {
  const Command made = component::command();
  const _variant_t name(L"p");
  parameters::RawCall raw;
  raw.member = DISPID_ZIRDB_COMMAND_CREATEPARAMETER;
  raw.arguments = {name, _variant_t(ZIRDB_AD_VARCHAR), _variant_t(1),
                   _variant_t(8), argument()};
  const Answer got = parameters::invoke_raw(dispatch_of(made.get()).get(), raw);
  ASSERT_EQ(got.value.vt, VT_DISPATCH);
  expect_nowhere(component::query<IZIRDBParameter>(got.value.pdispVal,
                                                   IID_IZIRDBParameter),
                 "in VARCHAR(8) NULL");
}

// ---------------------------------------------------------------------------
// The arguments of Execute
// ---------------------------------------------------------------------------

TEST(ArgumentsOfACommandsExecute, OptionsAreTheFirstNumberBehindRowsAffected) {
  const _variant_t array = script_array_of();
  VARIANT missing = plain(VT_ERROR, 0x80020004);
  VARIANT seven = plain(VT_I8, 7);
  VARIANT held = array;
  const VARIANT array_there = reference_to(&held);
  const VARIANT missing_there = reference_to(&missing);
  const VARIANT affected = plain(VT_I2, 1);
  const VARIANT nine = plain(VT_I8, 9);
  const struct {
    const char* description;
    std::vector<VARIANT> arguments;
    long options;
  } kRows[] = {
      {"none", {}, 0},
      {"RA", {affected}, 0},
      {"RA, 7", {affected, seven}, 7},
      {"RA, 7, 9", {affected, seven, nine}, 7},
      {"RA, 7, missing", {affected, seven, missing}, 7},
      {"RA, missing", {affected, missing}, 0},
      {"RA, missing, 9", {affected, missing, nine}, 9},
      {"RA, missing by reference, 9", {affected, missing_there, nine}, 9},
      {"RA, missing, missing", {affected, missing, missing}, 0},
      {"missing, 7, 9", {missing, seven, nine}, 7},
      {"missing, missing, 9", {missing, missing, nine}, 9},
      {"RA, Empty, 9", {affected, VARIANT(), nine}, 0},
      {"RA, 7 by reference, 9", {affected, reference_to(&seven), nine}, 7},
      {"array, RA, 7", {array, affected, seven}, 7},
      {"RA, array, 7", {affected, array, seven}, 7},
      {"RA, 7, array", {affected, seven, array}, 7},
      {"array, RA, missing", {array, affected, missing}, 0},
      {"RA, array by reference, 7", {affected, array_there, seven}, 7},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    ForeignConnection foreign;
    const Command made = command_over(foreign.dispatch(), L"select");
    EXPECT_EQ(run_with(made, row.arguments).outcome, kDone);
    ASSERT_EQ(foreign.executed.size(), 1U);
    EXPECT_EQ(foreign.executed[0].options, row.options);
  }
}

TEST(ArgumentsOfACommandsExecute, BehindOptionsAreNotLookedAt) {
  int asked = 0;
  const _variant_t object = ScriptObject::made([&](VARIANT* /*result*/) {
    ++asked;
    return E_FAIL;
  });
  const _variant_t text(L"x");
  for (const VARIANT& last : std::vector<VARIANT>{text, object}) {
    ForeignConnection foreign;
    const Command made = command_over(foreign.dispatch(), L"select");
    EXPECT_EQ(run_with(made, {plain(VT_I2, 1), plain(VT_I8, 7), last}).outcome,
              kDone);
    ASSERT_EQ(foreign.executed.size(), 1U);
    EXPECT_EQ(foreign.executed[0].options, 7);
  }
  EXPECT_EQ(asked, 0);
}

// ---------------------------------------------------------------------------
// Connections that are asked
// ---------------------------------------------------------------------------

/// Notes what it is asked for, and has nothing.
class AskedInVain final : public IDispatch {
 public:
  std::vector<IID> asked;

  HRESULT QueryInterface(REFIID riid, void** object) override {
    asked.push_back(riid);
    *object = nullptr;
    return E_NOINTERFACE;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }
  std::uint32_t references() const { return references_; }
  HRESULT GetTypeInfoCount(UINT* /*count*/) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT /*index*/, LCID /*lcid*/,
                      ITypeInfo** /*info*/) override {
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID /*riid*/, LPOLESTR* /*names*/, UINT /*count*/,
                        LCID /*lcid*/, DISPID* /*ids*/) override {
    return E_NOTIMPL;
  }
  HRESULT Invoke(DISPID /*member*/, REFIID /*riid*/, LCID /*lcid*/,
                 WORD /*flags*/, DISPPARAMS* /*parameters*/,
                 VARIANT* /*result*/, EXCEPINFO* /*exception*/,
                 UINT* /*bad_argument*/) override {
    ADD_FAILURE() << "it is no value";
    return E_NOTIMPL;
  }

 private:
  std::uint32_t references_ = 1;
};

TEST(ConnectionOfACommand, ThatIsNoneIsAskedForNothingElse) {
  for (const bool as_unknown : {false, true}) {
    AskedInVain object;
    const Command made = component::command();
    const _variant_t argument =
        as_unknown ? _variant_t(static_cast<IUnknown*>(&object))
                   : _variant_t(&object);
    expect_refused(
        component::put(dispatch_of(made.get()).get(),
                       DISPID_ZIRDB_COMMAND_ACTIVECONNECTION, argument),
        DISP_E_TYPEMISMATCH);
    ASSERT_EQ(object.asked.size(), 1U);
    EXPECT_EQ(object.asked[0], IID_IZIRDBConnection);
    EXPECT_EQ(object.references(), 2U) << "one is the argument's";
  }
}

// ---------------------------------------------------------------------------
// Errors that foreign code leaves behind
// ---------------------------------------------------------------------------

/// A recordset that scripts cannot have. Nothing is called.
class RecordsetWithoutDispatch final : public IZIRDBRecordset {
 public:
  HRESULT QueryInterface(REFIID /*riid*/, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  std::uint32_t AddRef() override { return ++references_; }
  std::uint32_t Release() override { return --references_; }
  std::uint32_t references() const { return references_; }
  HRESULT get_Fields(IZIRDBFields** /*fields*/) override { return E_FAIL; }
  HRESULT get_State(long* /*state*/) override { return E_FAIL; }
  HRESULT get_EOF(VARIANT_BOOL* /*end*/) override { return E_FAIL; }
  HRESULT get_BOF(VARIANT_BOOL* /*begin*/) override { return E_FAIL; }
  HRESULT get_RecordCount(long* /*count*/) override { return E_FAIL; }
  HRESULT MoveFirst() override { return E_FAIL; }
  HRESULT MoveLast() override { return E_FAIL; }
  HRESULT MovePrevious() override { return E_FAIL; }
  HRESULT MoveNext() override { return E_FAIL; }
  HRESULT Close() override { return E_FAIL; }

 private:
  std::uint32_t references_ = 1;
};

TEST(ErrorsOfForeignCode, AreNotThoseOfARecordsetThatScriptsCannotHave) {
  RecordsetWithoutDispatch recordset;
  {
    ForeignConnection foreign;
    foreign.recordset = Recordset::share(&recordset);
    foreign.on_execute = leave_an_error;
    const Command made = command_over(foreign.dispatch(), L"select");
    expect_exception(component::method(dispatch_of(made.get()).get(),
                                       DISPID_ZIRDB_COMMAND_EXECUTE),
                     E_NOINTERFACE, component::kCommandSource, nullptr);
  }
  EXPECT_EQ(recordset.references(), 1U);
}

TEST(ErrorsOfForeignCode, AreGoneWhenAForeignConnectionHasSucceeded) {
  for (const Road road : kRoads) {
    ForeignConnection foreign;
    foreign.on_execute = leave_an_error;
    EXPECT_EQ(run(road, command_over(foreign.dispatch(), L"select")).outcome,
              kDone);
  }
}

/// A connection that fails elsewhere when it is asked for itself.
class BusyConnection final : public IDispatch {
 public:
  explicit BusyConnection(ForeignConnection& whole) : whole_(whole) {}
  HRESULT QueryInterface(REFIID riid, void** object) override {
    leave_an_error();
    return whole_.QueryInterface(riid, object);
  }
  std::uint32_t AddRef() override { return whole_.AddRef(); }
  std::uint32_t Release() override { return whole_.Release(); }
  HRESULT GetTypeInfoCount(UINT* /*count*/) override { return E_NOTIMPL; }
  HRESULT GetTypeInfo(UINT /*index*/, LCID /*lcid*/,
                      ITypeInfo** /*info*/) override {
    return E_NOTIMPL;
  }
  HRESULT GetIDsOfNames(REFIID /*riid*/, LPOLESTR* /*names*/, UINT /*count*/,
                        LCID /*lcid*/, DISPID* /*ids*/) override {
    return E_NOTIMPL;
  }
  HRESULT Invoke(DISPID /*member*/, REFIID /*riid*/, LCID /*lcid*/,
                 WORD /*flags*/, DISPPARAMS* /*parameters*/,
                 VARIANT* /*result*/, EXCEPINFO* /*exception*/,
                 UINT* /*bad_argument*/) override {
    return E_NOTIMPL;
  }

 private:
  ForeignConnection& whole_;
};

TEST(ErrorsOfForeignCode, AreGoneWhenAConnectionHasBeenPut) {
  ForeignConnection foreign;
  BusyConnection busy(foreign);
  const Command made = component::command();
  EXPECT_EQ(ended([&] { return made->putref_ActiveConnection(&busy); }), kDone);
  const _variant_t argument(&busy);
  const auto [outcome, got] = answered([&] {
    return parameters::put_raw(dispatch_of(made.get()).get(),
                               DISPID_ZIRDB_COMMAND_ACTIVECONNECTION, argument);
  });
  EXPECT_EQ(outcome, kDone);
}

class ErrorsOfScriptObjects : public Interference {};

TEST_F(ErrorsOfScriptObjects, AreGoneWhenAStatementHasRun) {
  for (const Road road : kRoads) {
    // Connections first, then commands: both replace what is there.
    VARIANT affected = ScriptObject::made({}, leave_an_error).Detach();
    VARIANT reference = reference_to(&affected);
    const Connection& connection = database();
    if (road == Road::kVtable) {
      EXPECT_EQ(
          ended([&] {
            return component::execute(connection, L"select", &reference).first;
          }),
          kDone);
    } else {
      const auto [outcome, got] = answered([&] {
        const _variant_t text(L"select");
        return connection_calls::call(connection, connection_calls::kExecute,
                                      {text, reference});
      });
      EXPECT_EQ(outcome, kDone);
    }
    EXPECT_EQ(affected.vt, VT_I8);

    affected = ScriptObject::made({}, leave_an_error).Detach();
    EXPECT_EQ(run(road, command(L"select"), &reference).outcome, kDone);
    EXPECT_EQ(affected.vt, VT_I8);
  }
}

TEST_F(ErrorsOfScriptObjects, AreGoneWhenValuesHaveBeenWrittenBack) {
  for (const Road road : kRoads) {
    const Command made = command(L"select ?");
    append(made, ScriptObject::made(answer_text, leave_an_error),
           ZIRDB_AD_VARCHAR, ZIRDB_AD_PARAM_INPUT, 8);
    EXPECT_EQ(run(road, made).outcome, kDone);
    EXPECT_EQ(values_in(made), described({L"text"}));
  }
  const _variant_t array =
      script_array_of(ScriptObject::made(answer_text, leave_an_error));
  EXPECT_EQ(run_with(command(L"select ?"), {array}).outcome, kDone);
  EXPECT_EQ(describe(array), describe(script_array_of(L"text")));
}

}  // namespace
