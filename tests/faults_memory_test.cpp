// SPDX-License-Identifier: MIT
//
// No memory, at every single place, where nobody thought of it: every
// late-bound call that a host can make of every member of every class, and
// whole journeys from the factory to the last release. The tests named
// component_allocation_* say what becomes of each operation; here nothing is
// left out.
//
// Sections: a scene with every object; every call of every member; journeys.

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <iostream>
#include <iterator>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/connections.h"
#include "support/objects.h"
#include "support/printed.h"
#include "support/scripted_odbc_fixture.h"
#include "support/session_without_memory.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace session_without_memory;
using without_memory::Unwatched;

class WithoutMemory : public ScriptedOdbc {
 protected:
  // Little of everything: it is made again for every request that fails.
  void SetUp() override {
    ScriptedOdbc::SetUp();
    script().columns({{"the number of the row", SQL_BIGINT},
                      {"the text of the row", SQL_VARCHAR},
                      {"the bytes of the row", SQL_VARBINARY}});
    for (const int number : {1, 2}) {
      script().row({scripted_odbc::cell(number),
                    scripted_odbc::cell(std::string(40, 't')),
                    scripted_odbc::binary(std::string(40, 'b'))});
    }
    scripted_odbc::ResultSet updated;
    updated.row_count = 3;
    script().result_for("update what has no columns", updated);
  }
};

// ---------------------------------------------------------------------------
// A scene with every object
// ---------------------------------------------------------------------------

/// A host's object, which outlives all that may hold it.
struct Callback {
  objects::Dispatch callback{
      [](const objects::Dispatch::Call&) { return S_OK; }};
};

/// One object of every class, each in a state in which most can be asked of it.
struct Scene : Callback, Session {
  Scene() {
    append(ZIRDB_AD_VARCHAR, ZIRDB_AD_PARAM_INPUT_OUTPUT,
           _variant_t(L"a value of the parameter"));
    parameter =
        component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
          return parameters->Item(_variant_t(0), out);
        }).second;
    spare = workbench::parameter(L"a parameter of nobody", ZIRDB_AD_BIGINT,
                                 ZIRDB_AD_PARAM_INPUT, 0, _variant_t(7));
    recordset = component::execute(connection, kText).second;
    fields = component::fields_of(recordset.get());
    field = without_memory::item(fields.get(), _variant_t(1));
    blob = without_memory::item(fields.get(), _variant_t(2));
  }

  IDispatch* target(int which) {
    IUnknown* const all[] = {
        connection.get(), closed.get(),     command.get(),
        recordset.get(),  fields.get(),     field.get(),
        blob.get(),       parameters.get(), parameter.get()};
    dispatch = component::query<IDispatch>(all[which], IID_IDispatch);
    return dispatch.get();
  }
  static constexpr int kTargets = 9;

  /// What can be observed of all of them.
  std::wstring whole_state() const {
    std::wstring all =
        state() + L" | " + without_memory::shown(parameters.get()) + L" | ";
    if (component::state_of(recordset) == ZIRDB_STATE_CLOSED) {
      return all + L"closed";
    }
    if (component::at_end(recordset)) return all + L"end";
    return all + shown(component::value_at(recordset, 0));
  }

  InterfacePtr<IZIRDBParameter> parameter;
  InterfacePtr<IZIRDBParameter> spare;
  component::Recordset recordset;
  InterfacePtr<IZIRDBFields> fields;
  InterfacePtr<IZIRDBField> field;
  InterfacePtr<IZIRDBField> blob;
  InterfacePtr<IDispatch> dispatch;
};

// ---------------------------------------------------------------------------
// Every call of every member
// ---------------------------------------------------------------------------

struct Arguments {
  const char* name = nullptr;
  std::vector<_variant_t> (*make)(Scene&) = nullptr;
  /// Whether one of them has to be converted where a text is needed.
  bool converted = false;
};

const Arguments kArguments[] = {
    {"nothing", [](Scene&) { return std::vector<_variant_t>(); }},
    {"a number", [](Scene&) { return std::vector<_variant_t>{0}; }, true},
    {"a long number",
     [](Scene&) { return std::vector<_variant_t>{1234567890123456789}; }, true},
    {"a text",
     [](Scene&) {
       return std::vector<_variant_t>{_variant_t(L"the text of the row")};
     }},
    {"bytes",
     [](Scene&) {
       return std::vector<_variant_t>{
           without_memory::bytes_value(Blob(40, 'y'))};
     }},
    {"a callback",
     [](Scene& s) { return std::vector<_variant_t>{_variant_t(&s.callback)}; },
     true},
    {"a connection",
     [](Scene& s) {
       return std::vector<_variant_t>{
           _variant_t(dispatch_of(s.connection.get()).get())};
     },
     true},
    {"a parameter",
     [](Scene& s) {
       return std::vector<_variant_t>{
           _variant_t(dispatch_of(s.spare.get()).get())};
     },
     true},
    {"an array and a place for the rows",
     [](Scene& s) {
       return std::vector<_variant_t>{script_array(values_of_every_kind()),
                                      s.rows_affected()};
     }},
    {"a text and an array",
     [](Scene&) {
       return std::vector<_variant_t>{_variant_t(kUpdate),
                                      script_array(values_of_every_kind())};
     }},
    {"two texts",
     [](Scene&) {
       return std::vector<_variant_t>{_variant_t(L"DSN=the first of two texts"),
                                      _variant_t(L"the second of two texts")};
     }},
    {"a text and a place for the rows",
     [](Scene& s) {
       return std::vector<_variant_t>{_variant_t(kText), s.rows_affected()};
     }},
    {"the five of a parameter",
     [](Scene&) {
       return std::vector<_variant_t>{
           _variant_t(L"a name that is long"), _variant_t(200), _variant_t(3),
           _variant_t(40), _variant_t(L"a value that is long")};
     }},
};

/// One call, as a host can make it.
struct Made {
  int target;
  DISPID member;
  WORD flags;
  const Arguments* arguments;

  friend std::ostream& operator<<(std::ostream& out, const Made& made) {
    return out << "object " << made.target << ", member " << made.member
               << ", flags " << made.flags << ", " << made.arguments->name;
  }
};

/// How it ended.
struct Said {
  HRESULT result = S_OK;
  HRESULT code = S_OK;
  std::wstring source;
  std::wstring text;
  std::wstring value;
  std::wstring state;

  friend bool operator==(const Said& left, const Said& right) {
    return left.result == right.result && left.code == right.code &&
           left.source == right.source && left.text == right.text &&
           left.value == right.value && left.state == right.state;
  }
  friend std::ostream& operator<<(std::ostream& out, const Said& said) {
    return out << std::hex << said.result << ' ' << said.code << std::dec << ' '
               << testing::PrintToString(said.source) << ' '
               << testing::PrintToString(said.text) << ' '
               << testing::PrintToString(said.value) << " in "
               << testing::PrintToString(said.state);
  }
};

/// The call in a new scene.
class Try {
 public:
  explicit Try(const Made& made)
      : made_(made),
        target_(scene_.target(made.target)),
        written_(made.arguments->make(scene_)) {
    passed_.assign(written_.rbegin(), written_.rend());
    list_.rgvarg = passed_.data();
    list_.cArgs = static_cast<UINT>(passed_.size());
    if (made_.flags == kPut) {
      list_.rgdispidNamedArgs = &named_;
      list_.cNamedArgs = 1;
    }
    before_ = scene_.whole_state();
  }

  HRESULT invoke() {
    return target_->Invoke(made_.member, IID_NULL, 0, made_.flags, &list_,
                           &scene_.value, scene_.exception.get(), nullptr);
  }
  /// What came of it, and room for another one.
  Said said(HRESULT result) {
    Said said;
    said.result = result;
    said.code = scene_.exception->scode;
    said.source = without_memory::shown(scene_.exception->bstrSource);
    said.text = without_memory::shown(scene_.exception->bstrDescription);
    said.value = scene_.got();
    scene_.forget();
    said.state = scene_.whole_state();
    return said;
  }
  const std::wstring& before() const { return before_; }

 private:
  const Made& made_;
  Scene scene_;
  IDispatch* target_;
  std::vector<_variant_t> written_;
  std::vector<VARIANT> passed_;
  DISPID named_ = DISPID_PROPERTYPUT;
  DISPPARAMS list_ = {};
  std::wstring before_;
};

/// Members that store a value as it is copied: with its text or without.
bool copies_values(const Made& made) {
  constexpr int kParameter = 8;
  return made.target == kParameter &&
         made.member == DISPID_ZIRDB_PARAMETER_VALUE;
}

/// A command writes values back when its statement has run already.
bool writes_back(const Made& made) {
  constexpr int kCommand = 2;
  return made.target == kCommand && made.member == DISPID_ZIRDB_COMMAND_EXECUTE;
}

/// The call said that it had no memory, or what it says anyway with as much of
/// its text as there was memory for.
void expect_lack(const Made& made, const Said& honest, const Said& said,
                 const std::wstring& before) {
  if (said.result == DISP_E_EXCEPTION && said.code == E_OUTOFMEMORY) {
    EXPECT_EQ(said.value, L"nothing");
    return;
  }
  if (said.result == DISP_E_EXCEPTION && said.code == E_INVALIDARG &&
      said.text == component::kValueText) {
    // A value that is converted to a text: the runtime's own code.
    EXPECT_EQ(said.value, L"nothing");
    return;
  }
  if (said.result == DISP_E_TYPEMISMATCH && honest.result != said.result) {
    // An argument could not be made the text that it stands for.
    EXPECT_EQ(said.code, 0);
    EXPECT_EQ(said.value, L"nothing");
    EXPECT_EQ(said.state, before);
    EXPECT_TRUE(made.arguments->converted);
    return;
  }
  EXPECT_EQ(said.result, honest.result) << std::hex << said.result;
  EXPECT_EQ(said.code, honest.code) << std::hex << said.code;
  if (honest.result == DISP_E_EXCEPTION) {
    EXPECT_TRUE(said.source == honest.source || said.source == L"-");
    EXPECT_TRUE(said.text == honest.text || said.text == L"-");
    EXPECT_EQ(said.value, honest.value);
    EXPECT_EQ(said.state, honest.state);
    return;
  }
  // A refusal asks for memory to be one, and does without.
  EXPECT_TRUE(said == honest || copies_values(made)) << "succeeds";
  EXPECT_TRUE(FAILED(honest.result) || copies_values(made)) << "succeeds";
}

void attempt_call(const Made& made, const Said& honest, Attempt& attempt) {
  SCOPED_TRACE(made);
  Try tried(made);
  const std::uint32_t alive = workbench::objects_alive();

  const HRESULT result = attempt.run([&] { return tried.invoke(); });

  EXPECT_NE(result, without_memory::kThrown);
  const Said said = tried.said(result);
  EXPECT_EQ(script().live("STMT"), 0U);
  if (!attempt.failed()) {
    EXPECT_EQ(said, honest);
    return;
  }
  expect_lack(made, honest, said, tried.before());
  if (FAILED(result)) {
    EXPECT_EQ(workbench::objects_alive(), alive);
    // A call that is refused anyway may have done what goes with that.
    const bool may_change = said.code != E_OUTOFMEMORY || writes_back(made) ||
                            FAILED(honest.result);
    EXPECT_TRUE(said.state == tried.before() ||
                (may_change && said.state == honest.state))
        << said;
    EXPECT_EQ(tried.said(tried.invoke()).result, honest.result);
  }
}

/// The members of an object, from the first to the last, and those that have
/// numbers of their own.
struct Members {
  const char* name;
  DISPID first;
  DISPID last;
};
constexpr Members kMembers[] = {
    {"Connection", 0, DISPID_ZIRDB_CONNECTION_EXECUTE},
    {"ClosedConnection", 0, DISPID_ZIRDB_CONNECTION_EXECUTE},
    {"Command", 0, DISPID_ZIRDB_COMMAND_COMMANDTYPE},
    {"Recordset", 0, DISPID_ZIRDB_RECORDSET_FOREACH},
    {"Fields", 0, DISPID_ZIRDB_FIELDS_COUNT},
    {"Field", 0, DISPID_ZIRDB_FIELD_NAME},
    {"BlobField", 0, DISPID_ZIRDB_FIELD_NAME},
    {"Parameters", 0, DISPID_ZIRDB_PARAMETERS_APPEND},
    {"Parameter", 0, DISPID_ZIRDB_PARAMETER_SIZE},
};

std::vector<Made> calls_of(int target) {
  std::vector<DISPID> members = {DISPID_NEWENUM};
  for (DISPID id = kMembers[target].first; id <= kMembers[target].last; ++id) {
    members.push_back(id);
  }
  std::vector<Made> all;
  for (const DISPID member : members) {
    for (const WORD flags : {kMethod, kGet, kPut}) {
      for (const Arguments& arguments : kArguments) {
        all.push_back({target, member, flags, &arguments});
      }
    }
  }
  return all;
}

class EveryCallOf : public WithoutMemory,
                    public testing::WithParamInterface<int> {};

TEST_P(EveryCallOf, AnObjectWorksOrSaysThatItLacksMemory) {
  long swept = 0;
  std::set<std::tuple<DISPID, HRESULT, HRESULT, std::wstring, std::wstring,
                      std::wstring, std::size_t>>
      known;
  // Conversions that there are not say so. A test that fails says so too.
  printed::Capture printed;
  for (const Made& made : calls_of(GetParam())) {
    Said honest;
    std::size_t requests = 0;
    {
      Try tried(made);
      HRESULT result = S_OK;
      requests =
          allocator::requests_of([&] { result = tried.invoke(); }).size();
      honest = tried.said(result);
    }
    if (requests == 0) continue;
    // The same way through the library is taken once.
    if (!known
             .insert({made.member, honest.result, honest.code, honest.text,
                      honest.value, honest.state, requests})
             .second) {
      continue;
    }
    ++swept;
    everywhere([&](Attempt& attempt) { attempt_call(made, honest, attempt); });
    if (HasFailure()) {
      std::cerr << printed.text();
      return;
    }
  }
  EXPECT_GT(swept, 0);
}

INSTANTIATE_TEST_SUITE_P(Kind, EveryCallOf, testing::Range(0, Scene::kTargets),
                         [](const auto& tested) {
                           return std::string(kMembers[tested.param].name);
                         });

// ---------------------------------------------------------------------------
// Journeys
// ---------------------------------------------------------------------------

/// A host on its way from the factories to the last release. It holds what it
/// got and stops at the first thing that fails.
class Host {
 public:
  /// Arguments are the host's own affair.
  explicit Host(bool late_bound) : late_bound_(late_bound) {
    values_ = {_variant_t(L"an argument that is sent as a text"), _variant_t(2),
               without_memory::bytes_value(Blob(30, 'x')),
               allocator::scalar(VT_NULL, 0)};
    written_ = {_variant_t(L"select with values")};
    written_.insert(written_.end(), values_.begin(), values_.end());
    array_ = script_array(values_);
  }

  HRESULT travel() {
    for (HRESULT (Host::*const step)() :
         {&Host::connect, &Host::prepare, &Host::execute, &Host::walk,
          &Host::fill, &Host::call, &Host::close}) {
      const HRESULT result = (this->*step)();
      if (FAILED(result)) {
        let_go();
        return result;
      }
    }
    let_go();
    return S_OK;
  }

  const std::wstring& seen() const { return seen_; }

 private:
  template <class Interface, class Make>
  static HRESULT get(InterfacePtr<Interface>& object, const Make& make) {
    Interface* made = nullptr;
    const HRESULT result = make(&made);
    object = InterfacePtr<Interface>::adopt(made);
    return result;
  }
  template <class Interface>
  static HRESULT create(REFCLSID clsid, REFIID riid,
                        InterfacePtr<Interface>& object) {
    InterfacePtr<IClassFactory> factory;
    HRESULT result = factory.receive([&](void** out) {
      return DllGetClassObject(clsid, IID_IClassFactory, out);
    });
    if (FAILED(result)) return result;
    return object.receive([&](void** out) {
      return factory->CreateInstance(nullptr, riid, out);
    });
  }

  /// With the code of the operation, whichever way it came.
  template <class Interface>
  HRESULT invoke(const InterfacePtr<Interface>& target, DISPID member,
                 WORD flags, std::vector<VARIANT>& arguments) {
    const auto object = target.template query<IDispatch>(IID_IDispatch);
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS list = {arguments.data(), nullptr,
                       static_cast<UINT>(arguments.size()), 0};
    if (flags == kPut) {
      list.rgdispidNamedArgs = &named;
      list.cNamedArgs = 1;
    }
    VariantClear(&value_);
    const HRESULT result = object->Invoke(member, IID_NULL, 0, flags, &list,
                                          &value_, exception_.get(), nullptr);
    return result == DISP_E_EXCEPTION ? exception_->scode : result;
  }
  std::vector<VARIANT>& pass(std::initializer_list<VARIANT> as_written) {
    const Unwatched unwatched;
    passed_.assign(std::rbegin(as_written), std::rend(as_written));
    return passed_;
  }

  HRESULT connect() {
    const HRESULT made =
        create(CLSID_ZIRDBConnection, IID_IZIRDBConnection, connection_);
    if (FAILED(made)) return made;
    if (!late_bound_) {
      return connection_->Open(string_.bstrVal, user_.bstrVal, nullptr, 0);
    }
    const HRESULT put =
        invoke(connection_, DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING, kPut,
               pass({string_}));
    if (FAILED(put)) return put;
    return invoke(connection_, DISPID_ZIRDB_CONNECTION_OPEN, kMethod,
                  pass({string_, user_}));
  }

  HRESULT prepare() {
    HRESULT result = create(CLSID_ZIRDBCommand, IID_IZIRDBCommand, command_);
    if (FAILED(result)) return result;
    const auto dispatch = connection_.query<IDispatch>(IID_IDispatch);
    result = command_->putref_ActiveConnection(dispatch.get());
    if (FAILED(result)) return result;
    result = late_bound_ ? invoke(command_, DISPID_ZIRDB_COMMAND_COMMANDTEXT,
                                  kPut, pass({text_}))
                         : command_->put_CommandText(text_.bstrVal);
    if (FAILED(result)) return result;
    result = get(parameters_, [&](IZIRDBParameters** out) {
      return command_->get_Parameters(out);
    });
    for (const _variant_t& value : values_) {
      if (FAILED(result)) return result;
      InterfacePtr<IZIRDBParameter> parameter;
      result = get(parameter, [&](IZIRDBParameter** out) {
        return command_->CreateParameter(name_.bstrVal, ZIRDB_AD_EMPTY,
                                         ZIRDB_AD_PARAM_INPUT, 0, value, out);
      });
      if (SUCCEEDED(result)) result = parameters_->Append(parameter.get());
    }
    return result;
  }

  HRESULT execute() {
    if (!late_bound_) {
      return get(recordset_, [&](IZIRDBRecordset** out) {
        return command_->Execute(&affected_, 0, out);
      });
    }
    const HRESULT result = invoke(command_, DISPID_ZIRDB_COMMAND_EXECUTE,
                                  kMethod, pass({affected_}));
    if (FAILED(result)) return result;
    const auto object = InterfacePtr<IDispatch>::share(value_.pdispVal);
    recordset_ = object.query<IZIRDBRecordset>(IID_IZIRDBRecordset);
    return S_OK;
  }

  HRESULT walk() {
    InterfacePtr<IZIRDBFields> fields;
    HRESULT result = get(fields, [&](IZIRDBFields** out) {
      return recordset_->get_Fields(out);
    });
    VARIANT_BOOL end = VARIANT_FALSE;
    while (SUCCEEDED(result) && recordset_->get_EOF(&end) == S_OK &&
           end == VARIANT_FALSE) {
      InterfacePtr<IZIRDBField> field;
      result = get(
          field, [&](IZIRDBField** out) { return fields->Item(column_, out); });
      _variant_t content;
      if (SUCCEEDED(result)) result = field->get_Value(&content);
      if (SUCCEEDED(result)) note(content);
      if (SUCCEEDED(result)) result = recordset_->MoveNext();
    }
    return result;
  }

  /// The connection itself, and a recordset that is walked by a callback.
  HRESULT fill() {
    if (!late_bound_) return S_OK;
    {
      const Unwatched unwatched;
      passed_.assign(written_.rbegin(), written_.rend());
    }
    HRESULT result = invoke(connection_, DISPID_VALUE, kMethod, passed_);
    if (FAILED(result)) return result;
    const auto rows = InterfacePtr<IDispatch>::share(value_.pdispVal);
    result = invoke(rows, DISPID_ZIRDB_RECORDSET_FOREACH, kMethod,
                    pass({late_callback_}));
    if (SUCCEEDED(result)) note(_variant_t(callback_.invocations()));
    return result;
  }

  /// A command with an array of values, which it fills in.
  HRESULT call() {
    if (!late_bound_) return S_OK;
    return invoke(command_, DISPID_ZIRDB_COMMAND_EXECUTE, kGet, pass({array_}));
  }

  HRESULT close() { return connection_->Close(); }

  void let_go() {
    VariantClear(&value_);
    recordset_ = {};
    parameters_ = {};
    command_ = {};
    connection_ = {};
  }

  void note(const VARIANT& value) {
    const Unwatched unwatched;
    seen_ += session_without_memory::shown(value) + L"; ";
  }

  const bool late_bound_;
  std::vector<_variant_t> values_;
  std::vector<_variant_t> written_;
  _variant_t array_;
  _variant_t string_{L"DSN=scripted;LONG=with a long text"};
  _variant_t user_{L"a user of a long name"};
  _variant_t text_{L"select the text of the command"};
  _variant_t name_{L"a parameter of a long name"};
  _variant_t column_{L"The Text Of The Row"};
  _variant_t rows_{L"a text of before"};
  VARIANT affected_ = values::reference_to(&rows_);
  objects::Dispatch callback_{
      [](const objects::Dispatch::Call&) { return S_OK; }};
  _variant_t late_callback_{static_cast<IDispatch*>(&callback_)};
  std::vector<VARIANT> passed_;
  component::Connection connection_;
  component::Command command_;
  InterfacePtr<IZIRDBParameters> parameters_;
  component::Recordset recordset_;
  _variant_t value_;
  component::Exception exception_;
  std::wstring seen_;
};

class Journey : public WithoutMemory,
                public testing::WithParamInterface<bool> {};

TEST_P(Journey, EndsWhereMemoryDoesAndTheNextOneArrives) {
  const std::wstring texts = std::wstring(40, L't') + L"; ";
  const std::wstring seen = texts + texts + (GetParam() ? L"2; " : L"");
  const long requests = everywhere([&](Attempt& attempt) {
    Host host(GetParam());
    HRESULT result = attempt.run([&] { return host.travel(); });
    EXPECT_EQ(script().live("ENV"), 0U);
    EXPECT_EQ(script().live("DBC"), 0U);
    EXPECT_EQ(script().live("STMT"), 0U);
    EXPECT_EQ(workbench::objects_alive(), 0U);
    if (attempt.failed()) {
      EXPECT_EQ(result, E_OUTOFMEMORY) << std::hex << result;
      Host next(GetParam());
      EXPECT_EQ(next.travel(), S_OK);
      EXPECT_EQ(next.seen(), seen);
    } else {
      EXPECT_EQ(result, S_OK) << std::hex << result;
      EXPECT_EQ(host.seen(), seen);
    }
    script().clear_log();
  });
  EXPECT_GT(requests, 50);
}

INSTANTIATE_TEST_SUITE_P(Of, Journey, testing::Bool(), [](const auto& tested) {
  return std::string(tested.param ? "AScript" : "AProgram");
});

}  // namespace
