// SPDX-License-Identifier: MIT
//
// Every ODBC call of a journey spoilt, one after the other, in every way that a
// call can go wrong. Each time the caller sees what the library promises for
// that call and that fault, no more and no fewer calls are made than it needs,
// nothing is left behind, and the same statement on the same connection
// succeeds right afterwards.
//
// Sections: a journey on its way; statements; what the driver writes into
// parameters; diagnostics; opening; closing.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/commands.h"
#include "support/connections.h"
#include "support/faults.h"
#include "support/parameters.h"
#include "support/scripted_odbc_fixture.h"
#include "support/scripting.h"
#include "support/values.h"
#include "zir.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

using namespace faults;
using commands::Command;
using component::Connection;
using component::dispatch_of;
using component::Recordset;

// ---------------------------------------------------------------------------
// A journey on its way
// ---------------------------------------------------------------------------

/// A connection and what goes along it, ready to be executed any number of
/// times.
class Traveller {
 public:
  Traveller(const Traveller&) = delete;
  Traveller& operator=(const Traveller&) = delete;
  virtual ~Traveller() = default;
  virtual Seen execute() = 0;
  virtual void close() = 0;

 protected:
  Traveller() = default;
};

/// By way of the objects.
class ObjectTraveller final : public Traveller {
 public:
  ObjectTraveller(const Journey& journey, Road road)
      : journey_(journey), road_(road) {
    if (journey.kind == Kind::kText || journey.kind == Kind::kProcedure ||
        journey.kind == Kind::kArray) {
      command_ = commands::command_over(connection_, journey.sql,
                                        journey.kind == Kind::kProcedure
                                            ? long{ZIRDB_AD_CMD_STORED_PROC}
                                            : long{ZIRDB_AD_CMD_UNKNOWN});
    }
    if (journey.kind == Kind::kText || journey.kind == Kind::kProcedure) {
      for (const Sending& each : journey.sendings) {
        commands::append(command_, each.before, each.type, each.direction,
                         each.size);
      }
    }
  }

  Seen execute() override {
    Seen seen;
    _variant_t affected(kUnwritten);
    VARIANT reference = values::reference_to(&affected);
    Recordset recordset;
    if (road_ == Road::kVtable) {
      seen.outcome = commands::ended([&] {
        IZIRDBRecordset* out = nullptr;
        const _bstr_t sql(journey_.sql);
        const HRESULT result =
            command_ ? command_->Execute(&reference, 0, &out)
                     : connection_->Execute(sql.m_s, &reference, 0, &out);
        recordset = Recordset::adopt(out);
        return result;
      });
      if (command_) seen.values = shown_parameters();
    } else {
      std::vector<_variant_t> written;
      for (const Sending& each : journey_.sendings) {
        written.push_back(each.before);
      }
      scripting::Array array(written);
      const auto [outcome, answer] =
          late(reference, written, array.reference());
      seen.outcome = outcome;
      EXPECT_TRUE(SUCCEEDED(outcome.code) || answer.value.vt == VT_EMPTY);
      recordset = commands::recordset_in(answer);
      if (journey_.kind == Kind::kValues) {
        for (const _variant_t& each : written) {
          seen.values.push_back(faults::shown(each));
        }
      } else if (journey_.kind == Kind::kArray) {
        for (std::size_t i = 0; i < written.size(); ++i) {
          seen.values.push_back(faults::shown(array[i]));
        }
      } else if (command_) {
        seen.values = shown_parameters();
      }
    }
    seen.affected = scripting::shown(affected);
    if (FAILED(seen.outcome.code)) {
      EXPECT_FALSE(recordset) << "a failure gave a recordset";
      return seen;
    }
    // A command gives a recordset in any case: a closed one without columns.
    EXPECT_TRUE(recordset || !command_);
    if (recordset && component::state_of(recordset) == ZIRDB_STATE_OPEN) {
      seen.has_result = true;
      read(recordset, seen);
      last_ = recordset;
    }
    return seen;
  }

  void close() override {
    EXPECT_EQ(connection_->Close(), S_OK);
    long state = -1;
    EXPECT_EQ(connection_->get_State(&state), S_OK);
    EXPECT_EQ(state, ZIRDB_STATE_CLOSED);
    // What it gave is closed with it.
    if (last_) {
      EXPECT_EQ(component::state_of(last_), ZIRDB_STATE_CLOSED);
    }
  }

 private:
  std::pair<Outcome, component::Answer> late(
      const VARIANT& affected, const std::vector<_variant_t>& written,
      const VARIANT& array) {
    parameters::RawCall call;
    const _variant_t sql(journey_.sql);
    InterfacePtr<IDispatch> target;
    if (command_) {
      target = dispatch_of(command_.get());
      call.member = DISPID_ZIRDB_COMMAND_EXECUTE;
      call.arguments = {affected};
      if (journey_.kind == Kind::kArray) call.arguments.push_back(array);
    } else {
      target = dispatch_of(connection_.get());
      call.member = journey_.kind == Kind::kValues
                        ? DISPID_VALUE
                        : DISPID{DISPID_ZIRDB_CONNECTION_EXECUTE};
      call.arguments = {sql};
      if (journey_.kind == Kind::kPlain) call.arguments.push_back(affected);
      if (journey_.kind == Kind::kValues) {
        call.arguments.insert(call.arguments.end(), written.begin(),
                              written.end());
      }
    }
    return commands::answered(
        [&] { return parameters::invoke_raw(target.get(), call); });
  }

  Texts shown_parameters() {
    Texts all;
    const commands::Parameters list = commands::parameters_of(command_);
    for (std::size_t i = 0; i < journey_.sendings.size(); ++i) {
      const auto parameter =
          component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
            return list->Item(_variant_t(static_cast<long>(i)), out);
          }).second;
      _variant_t value;
      EXPECT_EQ(parameter->get_Value(&value), S_OK);
      all.push_back(faults::shown(value));
    }
    return all;
  }

  static void read(const Recordset& recordset, Seen& seen) {
    const auto fields = component::fields_of(recordset.get());
    long count = 0;
    EXPECT_EQ(fields->get_Count(&count), S_OK);
    std::vector<InterfacePtr<IZIRDBField>> all;
    for (long i = 0; i < count; ++i) {
      all.push_back(component::received<IZIRDBField>([&](IZIRDBField** out) {
                      return fields->Item(_variant_t(i), out);
                    }).second);
      _bstr_t name;
      EXPECT_EQ(all.back()->get_Name(&name.m_s), S_OK);
      seen.names.push_back(scripting::utf8(name.m_s));
    }
    while (!component::at_end(recordset)) {
      Texts row;
      for (long i = 0; i < count; ++i) {
        row.push_back(faults::shown(component::value_at(recordset, i)));
      }
      seen.rows.push_back(std::move(row));
      EXPECT_EQ(recordset->MoveNext(), S_OK);
    }
  }

  const Journey& journey_;
  const Road road_;
  Connection connection_ = component::opened(ScriptedOdbc::connection_string());
  Command command_;
  Recordset last_;
};

/// Below the objects.
class LayerTraveller final : public Traveller {
 public:
  explicit LayerTraveller(const Journey& journey) : journey_(journey) {
    std::string error;
    EXPECT_TRUE(
        zirdb_odbc_open(ScriptedOdbc::connection_string(), &handle_, &error))
        << error;
    for (const Sending& each : journey.sendings) {
      parameters_.push_back(
          {each.type, each.direction, each.size, value_of(each.before)});
    }
    // What an earlier execution would have left.
    result_.columns = {{"old", 1}};
    result_.rows = {{ZirdbOdbcValue()}};
    result_.rows_affected = 99;
    result_.error = "old";
  }
  LayerTraveller(const LayerTraveller&) = delete;
  LayerTraveller& operator=(const LayerTraveller&) = delete;
  ~LayerTraveller() override { zirdb_odbc_close(handle_); }

  Seen execute() override {
    const std::string sql = scripting::utf8(journey_.sql);
    const bool done =
        parameters_.empty()
            ? zirdb_odbc_execute(handle_, sql, &result_)
            : zirdb_odbc_execute(handle_, sql, &parameters_, &result_);
    Seen seen;
    if (!done) {
      seen.outcome = {component::kExecuteFailedCode,
                      component::kConnectionSource,
                      scripting::wide(result_.error)};
    } else {
      EXPECT_EQ(result_.error, "");
      seen.has_result = !result_.columns.empty();
    }
    for (const ZirdbOdbcColumn& column : result_.columns) {
      seen.names.push_back(column.name);
    }
    for (const std::vector<ZirdbOdbcValue>& row : result_.rows) {
      seen.rows.push_back(shown(row));
    }
    seen.affected = shown_number(result_.rows_affected);
    for (const ZirdbOdbcParameter& each : parameters_) {
      seen.values.push_back(shown(each.value));
    }
    return seen;
  }

  void close() override { zirdb_odbc_close(std::exchange(handle_, nullptr)); }

 private:
  static ZirdbOdbcValue value_of(const VARIANT& value) {
    ZirdbOdbcValue made;
    switch (value.vt) {
      case VT_EMPTY:
      case VT_NULL:
        break;
      case VT_BOOL:
        made.kind = ZirdbOdbcValueKind::Bool;
        made.bool_value = value.boolVal != 0;
        break;
      case VT_R8:
        made.kind = ZirdbOdbcValueKind::Double;
        made.double_value = value.dblVal;
        break;
      case VT_BSTR:
        made.kind = ZirdbOdbcValueKind::Text;
        made.text_value = scripting::utf8(values::text_of(value));
        break;
      case VT_ARRAY | VT_UI1: {
        made.kind = ZirdbOdbcValueKind::Binary;
        const SafeArrayAccess access(value.parray);
        const auto* const bytes = access.elements<BYTE>();
        made.binary_value.assign(bytes,
                                 bytes + value.parray->rgsabound[0].cElements);
        break;
      }
      default:
        made.kind = ZirdbOdbcValueKind::Int64;
        made.int64_value = value.llVal;
    }
    return made;
  }

  static std::string shown(const ZirdbOdbcValue& value) {
    switch (value.kind) {
      case ZirdbOdbcValueKind::Null:
        return "NULL";
      case ZirdbOdbcValueKind::Bool:
        return value.bool_value ? "BOOL -1" : "BOOL 0";
      case ZirdbOdbcValueKind::Int64:
        return shown_number(value.int64_value);
      case ZirdbOdbcValueKind::Double:
        return scripting::shown(_variant_t(value.double_value));
      case ZirdbOdbcValueKind::Text:
        return shown_text(value.text_value);
      case ZirdbOdbcValueKind::Binary:
        return shown_bytes(
            {value.binary_value.begin(), value.binary_value.end()});
    }
    return "no kind";
  }
  static Texts shown(const std::vector<ZirdbOdbcValue>& row) {
    Texts all;
    for (const ZirdbOdbcValue& value : row) all.push_back(shown(value));
    return all;
  }

  const Journey& journey_;
  void* handle_ = nullptr;
  std::vector<ZirdbOdbcParameter> parameters_;
  ZirdbOdbcResult result_;
};

std::unique_ptr<Traveller> traveller(const Journey& journey, Road road) {
  if (road == Road::kLayer) return std::make_unique<LayerTraveller>(journey);
  return std::make_unique<ObjectTraveller>(journey, road);
}

// ---------------------------------------------------------------------------
// Statements
// ---------------------------------------------------------------------------

using Passage = std::tuple<Journey, Road>;

std::string name_of(const testing::TestParamInfo<Passage>& info) {
  const Road road = std::get<Road>(info.param);
  return std::string(std::get<Journey>(info.param).name) +
         (road == Road::kLateBound ? "LateBound"
          : road == Road::kVtable  ? "ByVtable"
                                   : "BelowTheObjects");
}

/// Every road in place of the driver manager. Through it the longest: what it
/// makes of a call does not depend on who calls.
std::vector<Passage> passages() {
  std::vector<Passage> all;
  for (const Journey& journey : journeys()) {
    all.emplace_back(journey, Road::kLateBound);
    if (ScriptedOdbc::is_driver()) continue;
    all.emplace_back(journey, Road::kLayer);
    if (can_take(Road::kVtable, journey)) {
      all.emplace_back(journey, Road::kVtable);
    }
  }
  return all;
}

/// The vtable's road is the late-bound one without its last step.
std::vector<Passage> passages_of_their_own() {
  std::vector<Passage> all;
  for (const Passage& passage : passages()) {
    if (std::get<Road>(passage) != Road::kVtable) all.push_back(passage);
  }
  return all;
}

class EveryCallOf : public ScriptedOdbc,
                    public testing::WithParamInterface<Passage> {
 protected:
  const Journey& journey() const { return std::get<Journey>(GetParam()); }
  Road road() const { return std::get<Road>(GetParam()); }

  /// What nothing may be left of after a journey.
  static void expect_nothing_left() {
    EXPECT_EQ(script().take_complaints(), Texts());
    EXPECT_EQ(script().take_unreleased(), Texts());
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
  }

  /// The journey with one change to the script, which the model knows of, and
  /// the journey again unharmed, on one connection.
  template <class Change>
  void travel(const Model& model, const Change& change) {
    script().reset();
    script_journey(script(), journey());
    {
      const auto on_the_way = traveller(journey(), road());
      script().clear_log();
      change();
      EXPECT_EQ(on_the_way->execute(), model.seen());
      EXPECT_EQ(script().labels(), model.labels());
      EXPECT_EQ(script().live("STMT"), 0U);

      for (std::size_t i = 0; i < journey().sendings.size(); ++i) {
        const Sending& each = journey().sendings[i];
        if (each.output.null) continue;
        script().output(static_cast<int>(i + 1),
                        scripted(each.output, each.as));
      }
      EXPECT_EQ(on_the_way->execute(), unharmed());
      on_the_way->close();
    }
    expect_nothing_left();
  }

  void spoil(int at, const Fault& fault) {
    SCOPED_TRACE("call " + std::to_string(at) + ", " + label(at) + ", " +
                 fault.name);
    const Model model(journey(), road(), face(), at, &fault);
    travel(model, [&] {
      script().answers(scripted_odbc::any_call, scripted_odbc::nth(at),
                       fault.reply);
    });
  }

  const Seen& unharmed() const { return unharmed_.seen(); }
  int count() const { return static_cast<int>(unharmed_.labels().size()); }
  /// Of the n-th call, from 1.
  const std::string& label(int at) const {
    return unharmed_.labels().at(static_cast<std::size_t>(at) - 1);
  }

  /// The driver manager lets these through from everything but allocations and
  /// releases, and keeps the statement after two of them.
  static bool can_answer(const std::string& label, const Fault& fault) {
    const int code = fault.reply.code.value_or(SQL_SUCCESS);
    if (label == "SQLAllocHandle(STMT)" && fault.reply.perform) {
      // A driver that allocates and says that it did not keeps what it has.
      return code == SQL_SUCCESS_WITH_INFO;
    }
    if (!is_driver()) return true;
    if (label == "SQLFreeHandle(STMT)") return code == SQL_SUCCESS_WITH_INFO;
    return code != SQL_NEED_DATA && code != SQL_STILL_EXECUTING;
  }

 private:
  const Model unharmed_{journey(), road(), face()};
};

TEST_P(EveryCallOf, AJourneyIsOneOfTheModels) {
  travel(Model(journey(), road(), face()), [] {});
}

TEST_P(EveryCallOf, AJourneyFailsInItsOwnWayAndTheNextSucceeds) {
  for (int at = 1; at <= count(); ++at) {
    for (const Fault& fault : code_faults()) {
      // One is enough: the rest is what the late-bound road shows.
      if (road() == Road::kVtable && fault.reply.code != SQL_ERROR) continue;
      if (can_answer(label(at), fault)) spoil(at, fault);
      if (HasFailure()) return;
    }
  }
}

class EveryNumberOf : public EveryCallOf {};

TEST_P(EveryNumberOf, AJourneySurvivesAWrongNumber) {
  for (int at = 1; at <= count(); ++at) {
    for (const Fault& fault : number_faults(label(at))) {
      spoil(at, fault);
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Of, EveryCallOf, testing::ValuesIn(passages()),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Of, EveryNumberOf,
                         testing::ValuesIn(passages_of_their_own()), name_of);

// ---------------------------------------------------------------------------
// What the driver writes into parameters
// ---------------------------------------------------------------------------

class EveryOutputOf : public EveryCallOf {};

std::vector<Passage> passages_with_outputs() {
  std::vector<Passage> all;
  for (const Passage& passage : passages()) {
    for (const Sending& each : std::get<Journey>(passage).sendings) {
      if (each.output.null) continue;
      all.push_back(passage);
      break;
    }
  }
  return all;
}

constexpr SQLLEN kIndicators[] = {SQL_NULL_DATA,
                                  -2,
                                  SQL_NTS,
                                  SQL_NO_TOTAL,
                                  0,
                                  1,
                                  5,
                                  19,
                                  20,
                                  21,
                                  22,
                                  40,
                                  42,
                                  43,
                                  4096,
                                  INT32_MIN,
                                  INT64_MIN,
                                  INT64_MAX};

TEST_P(EveryOutputOf, AJourneySurvivesAWrongIndicator) {
  for (std::size_t i = 0; i < journey().sendings.size(); ++i) {
    if (journey().sendings[i].output.null) continue;
    for (const SQLLEN indicator : kIndicators) {
      SCOPED_TRACE("parameter " + std::to_string(i + 1) + " with indicator " +
                   std::to_string(indicator));
      Bound bound = executed(journey().sendings[i]);
      const std::string written = bound.buffer;
      bound.indicator = indicator;
      Model model(journey(), road(), face());
      model.replace_bound(i, bound);
      travel(model, [&] {
        script().output(static_cast<int>(i + 1),
                        scripted_odbc::raw(written, indicator));
      });
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Of, EveryOutputOf,
                         testing::ValuesIn(passages_with_outputs()), name_of);

// ---------------------------------------------------------------------------
// Diagnostics
// ---------------------------------------------------------------------------

/// What a driver manager says about the call that failed, and what becomes of
/// it.
struct Record {
  const char* name;
  scripted_odbc::DiagReply reply;
  std::string text;
};

std::vector<Record> records() {
  const std::string cut(1023, 'm');
  const std::string padded = "short" + std::string(1018, '\0');
  return {
      {"fails", {SQL_ERROR, "HY000", "m", 1}, kNoDiagnostic},
      {"has no data", {SQL_NO_DATA, "HY000", "m", 1}, kNoDiagnostic},
      {"has no handle", {SQL_INVALID_HANDLE, "HY000", "m", 1}, kNoDiagnostic},
      {"answers an unknown code", {4711, "HY000", "m", 1}, kNoDiagnostic},
      {"was cut", {SQL_SUCCESS_WITH_INFO, "HY000", cut, 2000}, "HY000: " + cut},
      {"claims the most",
       {SQL_SUCCESS, "HY000", "short", INT16_MAX},
       "HY000: " + padded},
      {"claims the whole buffer",
       {SQL_SUCCESS, "HY000", "short", 1024},
       "HY000: " + padded},
      {"claims less", {SQL_SUCCESS, "HY000", "text", 2}, "HY000: te"},
      {"claims nothing", {SQL_SUCCESS, "HY000", "text", 0}, "HY000: "},
      {"claims less than nothing",
       {SQL_SUCCESS, "HY000", "text", -1},
       "HY000: "},
      {"claims the least",
       {SQL_SUCCESS, "HY000", "text", INT16_MIN},
       "HY000: "},
      {"has no state", {SQL_SUCCESS, "", "text", 4}, "text"},
      {"writes nothing", {SQL_SUCCESS, {}, {}, {}}, ""},
  };
}

class EveryRecordOf : public EveryCallOf {};
// The driver manager asks for records itself.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(EveryRecordOf);

std::vector<Passage> passages_with_records() {
  if (ScriptedOdbc::is_driver()) return {};
  return passages_of_their_own();
}

TEST_P(EveryRecordOf, AFailureIsToldAsFarAsItsRecordIsOne) {
  const Fault failing = instead("fails", SQL_ERROR);
  // A name stands for all of its calls.
  std::set<std::string> told = {"SQLAllocHandle", "SQLRowCount",
                                "SQLFreeHandle"};
  for (int at = 1; at <= count(); ++at) {
    const std::string entry = label(at).substr(0, label(at).find('('));
    if (!told.insert(entry).second) continue;
    for (const Record& record : records()) {
      SCOPED_TRACE(label(at) + ", whose record " + record.name);
      Model model(journey(), road(), face(), at, &failing);
      model.replace_record(record.text);
      travel(model, [&] {
        script().answers(scripted_odbc::any_call, scripted_odbc::nth(at),
                         failing.reply);
        script().diag_reply(record.reply);
      });
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Of, EveryRecordOf,
                         testing::ValuesIn(passages_with_records()), name_of);

// ---------------------------------------------------------------------------
// Opening
// ---------------------------------------------------------------------------

constexpr const wchar_t* kStoredString = L"DSN=of before";

/// A connection to be opened and closed by one of the roads.
class Door {
 public:
  explicit Door(Road road) : road_(road) {
    if (road == Road::kLayer) return;
    connection_ = component::connection();
    _bstr_t stored(kStoredString);
    EXPECT_EQ(connection_->put_ConnectionString(stored.m_s), S_OK);
  }
  Door(const Door&) = delete;
  Door& operator=(const Door&) = delete;
  ~Door() { zirdb_odbc_close(handle_); }

  Outcome open() {
    const std::string text = ScriptedOdbc::connection_string();
    _bstr_t argument(scripting::wide(text).c_str());
    if (road_ == Road::kLayer) {
      std::string error = "untouched";
      handle_ = this;
      if (zirdb_odbc_open(text, &handle_, &error)) {
        EXPECT_EQ(error, "untouched");
        return commands::kDone;
      }
      EXPECT_EQ(handle_, nullptr);
      return {component::kOpenFailedCode, component::kConnectionSource,
              scripting::wide(error)};
    }
    Outcome outcome;
    if (road_ == Road::kVtable) {
      outcome = commands::ended(
          [&] { return connection_->Open(argument.m_s, nullptr, nullptr, 0); });
    } else {
      outcome = commands::answered([&] {
                  return component::method(dispatch_of(connection_.get()).get(),
                                           DISPID_ZIRDB_CONNECTION_OPEN,
                                           {_variant_t(argument.m_s)});
                }).first;
    }
    const bool opened = SUCCEEDED(outcome.code);
    EXPECT_EQ(is_open(), opened);
    EXPECT_EQ(stored(), opened ? argument.m_s : kStoredString);
    return outcome;
  }

  /// Works.
  void expect_usable() {
    if (road_ == Road::kLayer) {
      ZirdbOdbcResult result;
      EXPECT_TRUE(zirdb_odbc_execute(handle_, "update", &result));
    } else {
      EXPECT_EQ(component::execute(connection_, L"update").first, S_OK);
    }
  }

  void close() {
    if (road_ == Road::kLayer) {
      zirdb_odbc_close(std::exchange(handle_, nullptr));
    } else if (road_ == Road::kVtable) {
      EXPECT_EQ(commands::ended([&] { return connection_->Close(); }).code,
                S_OK);
      EXPECT_FALSE(is_open());
    } else {
      const Outcome outcome =
          commands::answered([&] {
            return component::method(dispatch_of(connection_.get()).get(),
                                     DISPID_ZIRDB_CONNECTION_CLOSE);
          }).first;
      EXPECT_EQ(outcome, commands::kDone);
      EXPECT_FALSE(is_open());
    }
  }

  /// Lets the connection go, open as it is.
  void let_go() {
    if (road_ == Road::kLayer) close();
    connection_ = {};
  }

 private:
  bool is_open() const {
    long state = -1;
    EXPECT_EQ(connection_->get_State(&state), S_OK);
    return state == ZIRDB_STATE_OPEN;
  }
  std::wstring stored() const {
    _bstr_t text;
    EXPECT_EQ(connection_->get_ConnectionString(&text.m_s), S_OK);
    return text.m_s;
  }

  const Road road_;
  Connection connection_;
  void* handle_ = nullptr;
};

class EveryCallOfADoor : public ScriptedOdbc,
                         public testing::WithParamInterface<Road> {
 protected:
  static void expect_nothing_left() {
    EXPECT_EQ(script().take_complaints(), Texts());
    EXPECT_EQ(script().take_unreleased(), Texts());
  }
  static void spoil(int at, const Fault& fault) {
    script().answers(scripted_odbc::any_call, scripted_odbc::nth(at),
                     fault.reply);
  }
};

/// A step of opening: what a failure is called there, and what it takes along.
struct Step {
  const char* label;
  const char* text;  ///< NULL: that of the record
  Texts afterwards;
};

const std::vector<Step>& steps() {
  static const std::vector<Step> kSteps = {
      {"SQLAllocHandle(ENV)", "Unable to allocate ODBC environment", {}},
      {"SQLSetEnvAttr", nullptr, {"SQLGetDiagRec(1)", "SQLFreeHandle(ENV)"}},
      {"SQLAllocHandle(DBC)",
       "Unable to allocate ODBC connection",
       {"SQLFreeHandle(ENV)"}},
      {"SQLDriverConnect",
       nullptr,
       {"SQLGetDiagRec(1)", "SQLFreeHandle(DBC)", "SQLFreeHandle(ENV)"}},
  };
  return kSteps;
}

/// What the driver manager says of a step that it takes on its own behalf,
/// while it connects.
const char* manager_text(const Step& step) {
  const std::string label = step.label;
  if (label == "SQLAllocHandle(ENV)")
    return "IM004: [unixODBC][Driver Manager]";
  if (label == "SQLAllocHandle(DBC)")
    return "IM005: [unixODBC][Driver Manager]";
  return nullptr;
}

TEST_P(EveryCallOfADoor, OpeningFailsInItsOwnWayAndLeavesTheDoorClosed) {
  for (std::size_t i = 0; i < steps().size(); ++i) {
    const Step& step = steps()[i];
    for (const Fault& fault : code_faults()) {
      // A driver that does its work and says that it did not keeps what it has.
      const bool failing = fault.reply.code != SQL_SUCCESS_WITH_INFO;
      if (failing && fault.reply.perform) continue;
      // The manager takes these steps on its own behalf, and differently: it is
      // asked for errors only, and for all that concerns the connection itself.
      const bool own_step = std::string(step.label) != "SQLDriverConnect";
      if (is_driver() && own_step && fault.reply.code != SQL_ERROR) continue;
      SCOPED_TRACE(std::string(step.label) + ", " + fault.name);
      script().reset();
      {
        Door door(GetParam());
        spoil(static_cast<int>(i + 1), fault);

        const Outcome outcome = door.open();

        if (!failing || (is_driver() && i == 1)) {
          EXPECT_EQ(outcome, commands::kDone);
        } else {
          const std::string recorded = fault.reply.diagnostics.records().empty()
                                           ? kNoDiagnostic
                                           : kBroken;
          const std::string text =
              step.text != nullptr ? std::string(step.text) : recorded;
          EXPECT_EQ(outcome.code, component::kOpenFailedCode);
          EXPECT_EQ(outcome.source, component::kConnectionSource);
          if (is_driver() && manager_text(step) != nullptr) {
            EXPECT_EQ(
                scripting::utf8(outcome.text).rfind(manager_text(step), 0), 0U)
                << scripting::utf8(outcome.text);
          } else {
            EXPECT_EQ(scripting::utf8(outcome.text), text);
          }
          if (!is_driver()) {
            Texts labels;
            for (std::size_t k = 0; k <= i; ++k) {
              labels.emplace_back(steps()[k].label);
            }
            labels.insert(labels.end(), step.afterwards.begin(),
                          step.afterwards.end());
            EXPECT_EQ(script().labels(), labels);
          }
          expect_nothing_left();
          EXPECT_EQ(door.open(), commands::kDone);
        }
        door.expect_usable();
        door.close();
      }
      expect_nothing_left();
      EXPECT_EQ(DllCanUnloadNow(), S_OK);
      if (HasFailure()) return;
    }
  }
}

// ---------------------------------------------------------------------------
// Closing
// ---------------------------------------------------------------------------

class EveryCallOfAClosingDoor : public EveryCallOfADoor {};
// The driver manager keeps a connection that does not disconnect.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(EveryCallOfAClosingDoor);

TEST_P(EveryCallOfAClosingDoor, ClosingSucceedsWhateverTheDriverSays) {
  const Texts labels = {"SQLDisconnect", "SQLFreeHandle(DBC)",
                        "SQLFreeHandle(ENV)"};
  for (std::size_t at = 1; at <= labels.size(); ++at) {
    for (const Fault& fault : code_faults()) {
      SCOPED_TRACE(labels[at - 1] + ", " + fault.name);
      for (const bool let_go : {false, true}) {
        script().reset();
        {
          Door door(GetParam());
          EXPECT_EQ(door.open(), commands::kDone);
          script().clear_log();
          spoil(static_cast<int>(at), fault);

          if (let_go) {
            door.let_go();
          } else {
            door.close();
          }

          EXPECT_EQ(script().labels(), labels);
          expect_nothing_left();
          if (!let_go) {
            EXPECT_EQ(door.open(), commands::kDone);
            door.expect_usable();
            door.close();
          }
        }
        expect_nothing_left();
        EXPECT_EQ(DllCanUnloadNow(), S_OK);
        if (HasFailure()) return;
      }
    }
  }
}

const std::vector<Road> kRoads = {Road::kLateBound, Road::kVtable,
                                  Road::kLayer};

std::string name_of_road(const testing::TestParamInfo<Road>& info) {
  return info.param == Road::kLateBound ? "LateBinding"
         : info.param == Road::kVtable  ? "Vtable"
                                        : "Layer";
}

INSTANTIATE_TEST_SUITE_P(By, EveryCallOfADoor, testing::ValuesIn(kRoads),
                         name_of_road);
INSTANTIATE_TEST_SUITE_P(By, EveryCallOfAClosingDoor,
                         testing::ValuesIn(ScriptedOdbc::is_driver()
                                               ? std::vector<Road>()
                                               : kRoads),
                         name_of_road);

}  // namespace
