// SPDX-License-Identifier: MIT
//
// The properties of a command and the parameters it makes, by both roads.
//
// Sections: a new command; its text; its type; its connection; parameters that
// it creates; its list of parameters.

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/commands.h"
#include "support/objects.h"
#include "support/parameters.h"
#include "support/printed.h"
#include "support/values.h"

namespace {

using namespace commands;
using namespace std::string_literals;
using component::command;
using component::connection;
using component::expect_refused;
using component::references_of;
using parameters::Record;
using parameters::record_of;
using values::plain;
using values::reference_to;
using values::text_value;

constexpr DISPID kConnection = DISPID_ZIRDB_COMMAND_ACTIVECONNECTION;
constexpr DISPID kText = DISPID_ZIRDB_COMMAND_COMMANDTEXT;
constexpr DISPID kType = DISPID_ZIRDB_COMMAND_COMMANDTYPE;
constexpr DISPID kCreate = DISPID_ZIRDB_COMMAND_CREATEPARAMETER;
constexpr DISPID kParameters = DISPID_ZIRDB_COMMAND_PARAMETERS;

/// Late-bound calls that keep what the arguments are.
std::pair<Outcome, Answer> late_get(const Command& made, DISPID member) {
  return answered(
      [&] { return component::get(dispatch_of(made.get()).get(), member); });
}
std::pair<Outcome, Answer> late_put(const Command& made, DISPID member,
                                    const VARIANT& value) {
  return answered([&] {
    return parameters::put_raw(dispatch_of(made.get()).get(), member, value);
  });
}

// ---------------------------------------------------------------------------
// A new command
// ---------------------------------------------------------------------------

TEST(NewCommand, IsEmptyAtFirst) {
  const Command made = command();
  EXPECT_EQ(settings_of(made),
            (Settings{L"", ZIRDB_AD_CMD_UNKNOWN, nullptr, {}}));
  EXPECT_EQ(references_of(made.get()), 1U);
}

TEST(NewCommand, IsEmptyAtFirstForScripts) {
  const Command made = command();
  const Answer text = late_get(made, kText).second;
  EXPECT_EQ(text.value.vt, VT_BSTR);
  EXPECT_EQ(values::text_of(text.value), L"");
  const Answer type = late_get(made, kType).second;
  EXPECT_EQ(type.value.vt, VT_I4);
  EXPECT_EQ(type.value.lVal, 8);
  const Answer over = late_get(made, kConnection).second;
  EXPECT_EQ(over.value.vt, VT_DISPATCH);
  EXPECT_EQ(over.value.pdispVal, nullptr);
}

TEST(NewCommand, HasThreeInterfaces) {
  const Command made = command();
  const auto unknown = component::query<IUnknown>(made.get(), IID_IUnknown);
  EXPECT_EQ(static_cast<void*>(unknown.get()), static_cast<void*>(made.get()));
  const auto late = dispatch_of(made.get());
  ASSERT_TRUE(late);
  EXPECT_EQ(late.query<IZIRDBCommand>(IID_IZIRDBCommand).get(), made.get());
  EXPECT_EQ(late.query<IUnknown>(IID_IUnknown).get(), unknown.get());
  for (const IID* other :
       {&IID_IZIRDBConnection, &IID_IZIRDBRecordset, &IID_IZIRDBParameters,
        &IID_IZIRDBParameter, &IID_IEnumVARIANT, &IID_NULL}) {
    component::Out out;
    EXPECT_EQ(made->QueryInterface(*other, out.address()), E_NOINTERFACE);
    EXPECT_EQ(out.object(), nullptr);
  }
  EXPECT_EQ(made->QueryInterface(IID_IUnknown, nullptr), E_INVALIDARG);
}

TEST(NewCommand, NeedsAPlaceForEachResult) {
  const Command made = command();
  EXPECT_EQ(ended([&] { return made->get_CommandText(nullptr); }),
            plainly(E_INVALIDARG));
  EXPECT_EQ(ended([&] { return made->get_CommandType(nullptr); }),
            plainly(E_INVALIDARG));
  EXPECT_EQ(ended([&] { return made->get_ActiveConnection(nullptr); }),
            plainly(E_INVALIDARG));
  EXPECT_EQ(ended([&] { return made->get_Parameters(nullptr); }),
            plainly(E_INVALIDARG));
  EXPECT_EQ(ended([&] {
              return made->CreateParameter(nullptr, 0, 0, 0, VARIANT(),
                                           nullptr);
            }),
            plainly(E_INVALIDARG));
  EXPECT_EQ(ended([&] { return made->Execute(nullptr, 0, nullptr); }),
            plainly(E_INVALIDARG));
}

TEST(NewCommand, TakesAwayOldErrorsWhateverItIsAsked) {
  const Command made = command();
  _bstr_t text(L"text");
  _bstr_t read;
  long type = 0;
  EXPECT_EQ(ended([&] { return made->put_CommandText(text.m_s); }), kDone);
  EXPECT_EQ(ended([&] { return made->get_CommandText(&read.m_s); }), kDone);
  EXPECT_EQ(ended([&] { return made->put_CommandType(1); }), kDone);
  EXPECT_EQ(ended([&] { return made->get_CommandType(&type); }), kDone);
  EXPECT_EQ(ended([&] { return made->putref_ActiveConnection(nullptr); }),
            kDone);
  EXPECT_EQ(ended([&] {
              IDispatch* out = nullptr;
              return made->get_ActiveConnection(&out);
            }),
            kDone);
  EXPECT_EQ(ended([&] {
              IZIRDBParameters* out = nullptr;
              const HRESULT result = made->get_Parameters(&out);
              return Parameters::adopt(out) ? result : E_FAIL;
            }),
            kDone);
  EXPECT_EQ(ended([&] {
              IZIRDBParameter* out = nullptr;
              const HRESULT result =
                  made->CreateParameter(nullptr, 0, 0, 0, VARIANT(), &out);
              return Parameter::adopt(out) ? result : E_FAIL;
            }),
            kDone);
}

// ---------------------------------------------------------------------------
// Its text
// ---------------------------------------------------------------------------

TEST(CommandTextProperty, IsKeptAsItIsGiven) {
  for (const std::wstring& text :
       {L"select"s, L""s, L" \r\n "s, L"a\0b"s, L"\u00e9\U0001F600"s,
        std::wstring(100000, L'x')}) {
    for (const Road road : kRoads) {
      const Command made = command();
      _variant_t argument = text_value(text);
      if (road == Road::kVtable) {
        EXPECT_EQ(made->put_CommandText(argument.bstrVal), S_OK);
      } else {
        const auto [outcome, answer] = late_put(made, kText, argument);
        EXPECT_EQ(outcome, kDone);
        EXPECT_EQ(answer.value.vt, VT_EMPTY);
      }
      argument = _variant_t();
      EXPECT_EQ(text_of(made), text);
      const Answer read = late_get(made, kText).second;
      EXPECT_EQ(read.value.vt, VT_BSTR);
      EXPECT_EQ(values::text_of(read.value), text);
    }
  }
}

TEST(CommandTextProperty, IsEmptiedByANullString) {
  const Command made = command();
  for (const Road road : kRoads) {
    _bstr_t text(L"text");
    EXPECT_EQ(made->put_CommandText(text.m_s), S_OK);
    if (road == Road::kVtable) {
      EXPECT_EQ(made->put_CommandText(nullptr), S_OK);
    } else {
      EXPECT_EQ(late_put(made, kText, plain(VT_BSTR, 0)).first, kDone);
    }
    EXPECT_EQ(text_of(made), L"");
  }
}

TEST(CommandTextProperty, TakesNothingButATextFromScripts) {
  _variant_t text(L"new");
  VARIANT by_reference = plain(VT_BYREF | VT_BSTR, 0);
  by_reference.byref = &text.bstrVal;
  const struct {
    const char* description;
    _variant_t value;
    bool taken;
  } kRows[] = {{"text", text, true},
               {"reference to text", reference_to(&text), true},
               {"text by reference", by_reference, false},
               {"null link", parameters::null_reference(), false},
               {"empty", {}, false},
               {"null", plain(VT_NULL, 0), false},
               {"integer", 5, false},
               {"8-bit text", values::lpstr_value("new"), false}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    ForeignConnection foreign;
    const Command made = command_over(foreign.dispatch(), L"old");
    const auto [outcome, answer] = late_put(made, kText, row.value);
    expect_refused(answer, row.taken ? S_OK : DISP_E_TYPEMISMATCH);
    EXPECT_EQ(text_of(made), row.taken ? L"new" : L"old");
  }
}

// ---------------------------------------------------------------------------
// Its type
// ---------------------------------------------------------------------------

TEST(CommandType, IsOneOfFour) {
  for (const long type : {-1L, 1L, 4L, 8L}) {
    for (const Road road : kRoads) {
      const Command made = command();
      EXPECT_EQ(made->put_CommandType(type == 1 ? 4 : 1), S_OK);
      if (road == Road::kVtable) {
        EXPECT_EQ(made->put_CommandType(type), S_OK);
      } else {
        EXPECT_EQ(late_put(made, kType, _variant_t(type)).first, kDone);
      }
      EXPECT_EQ(type_of(made), type);
      const Answer read = late_get(made, kType).second;
      EXPECT_EQ(read.value.vt, VT_I4);
      EXPECT_EQ(read.value.lVal, type);
    }
  }
}

TEST(CommandType, IsNothingElse) {
  for (const long type : {0L,
                          2L,
                          3L,
                          5L,
                          6L,
                          7L,
                          9L,
                          12L,
                          16L,
                          256L,
                          512L,
                          -2L,
                          -4L,
                          -8L,
                          parameters::kTwoTo32,
                          parameters::kTwoTo32 + 4,
                          4 - parameters::kTwoTo32,
                          parameters::kTwoTo32 - 1,
                          values::kSmallest,
                          values::kLargest}) {
    const Command made = command();
    EXPECT_EQ(made->put_CommandType(4), S_OK);
    EXPECT_EQ(ended([&] { return made->put_CommandType(type); }),
              plainly(E_INVALIDARG))
        << type;
    const Answer answer = late_put(made, kType, _variant_t(type)).second;
    component::expect_exception(answer, E_INVALIDARG, L"ZIRDB.Command",
                                nullptr);
    EXPECT_EQ(type_of(made), 4);
  }
}

TEST(CommandType, OfScriptsIsConverted) {
  _variant_t four(4);
  const struct {
    const char* description;
    _variant_t value;
    Outcome outcome;
    std::string printed;
  } kRows[] = {
      {"text", L"4", kDone, ""},
      {"text with something behind", L" 4x", kDone, ""},
      {"double", 4.9, kDone, ""},
      {"VT_I4", plain(VT_I4, 4), kDone, ""},
      {"VT_UI1", plain(VT_UI1, 4), kDone, ""},
      {"reference", reference_to(&four), kDone, ""},
      {"empty", {}, plainly(E_INVALIDARG), ""},
      {"no number", L"x", plainly(DISP_E_TYPEMISMATCH), ""},
      {"null link", parameters::null_reference(), plainly(DISP_E_TYPEMISMATCH),
       ""},
      {"null", plain(VT_NULL, 0), plainly(DISP_E_TYPEMISMATCH),
       parameters::conversion_stub(VT_NULL, VT_I8)},
      {"VT_I2", plain(VT_I2, 4), plainly(DISP_E_TYPEMISMATCH),
       parameters::conversion_stub(VT_I2, VT_I8)},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.description);
    const Command made = command();
    Outcome outcome;
    EXPECT_EQ(
        printed::by([&] { outcome = late_put(made, kType, row.value).first; }),
        row.printed);
    EXPECT_EQ(outcome, row.outcome);
    EXPECT_EQ(type_of(made), row.outcome == kDone ? 4 : 8);
  }
}

// ---------------------------------------------------------------------------
// Its connection
// ---------------------------------------------------------------------------

TEST(CommandConnection, IsTheOneThatWasSet) {
  const Connection one = connection();
  const Connection two = connection();
  const auto late_one = dispatch_of(one.get());
  const auto late_two = dispatch_of(two.get());
  {
    const Command made = command();
    for (const Road road : kRoads) {
      for (IDispatch* over : {late_one.get(), late_two.get(), late_two.get()}) {
        if (road == Road::kVtable) {
          EXPECT_EQ(made->putref_ActiveConnection(over), S_OK);
        } else {
          EXPECT_EQ(late_put(made, kConnection, _variant_t(over)).first, kDone);
        }
        EXPECT_EQ(connection_of(made).get(), over);
        const Answer read = late_get(made, kConnection).second;
        EXPECT_EQ(read.value.vt, VT_DISPATCH);
        EXPECT_EQ(read.value.pdispVal, over);
      }
      EXPECT_EQ(references_of(one.get()), 2U);
    }
    EXPECT_GT(references_of(two.get()), 2U);
  }
  EXPECT_EQ(references_of(one.get()), 2U);
  EXPECT_EQ(references_of(two.get()), 2U);
}

TEST(CommandConnection, IsHeldAndLetGoInBalance) {
  ForeignConnection foreign;
  {
    const Command made = command();
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(made->putref_ActiveConnection(foreign.dispatch()), S_OK);
      EXPECT_EQ(foreign.references(), 3U);
      EXPECT_EQ(
          late_put(made, kConnection, _variant_t(foreign.dispatch())).first,
          kDone);
      EXPECT_EQ(foreign.references(), 3U);
      { const auto read = connection_of(made); }
      { const Answer read = late_get(made, kConnection).second; }
      EXPECT_EQ(foreign.references(), 3U);
    }
    EXPECT_EQ(made->putref_ActiveConnection(nullptr), S_OK);
    EXPECT_EQ(foreign.references(), 1U);
    EXPECT_EQ(made->putref_ActiveConnection(foreign.dispatch()), S_OK);
  }
  EXPECT_EQ(foreign.references(), 1U);
}

TEST(CommandConnection, IsTakenAwayByNothing) {
  ForeignConnection foreign;
  const Command made = command();
  VARIANT no_object = plain(VT_UNKNOWN, 0);
  const VARIANT kNothings[] = {VARIANT(), plain(VT_NULL, 0),
                               plain(VT_DISPATCH, 0), plain(VT_UNKNOWN, 0),
                               reference_to(&no_object)};
  for (const VARIANT& nothing : kNothings) {
    EXPECT_EQ(made->putref_ActiveConnection(foreign.dispatch()), S_OK);
    EXPECT_EQ(late_put(made, kConnection, nothing).first, kDone) << nothing.vt;
    EXPECT_EQ(connection_of(made).get(), nullptr);
  }
  EXPECT_EQ(made->putref_ActiveConnection(foreign.dispatch()), S_OK);
  EXPECT_EQ(ended([&] { return made->putref_ActiveConnection(nullptr); }),
            kDone);
  EXPECT_EQ(connection_of(made).get(), nullptr);
  EXPECT_EQ(ended([&] { return made->putref_ActiveConnection(nullptr); }),
            kDone);
}

TEST(CommandConnection, MayComeFromScriptsInAnyWrapping) {
  ForeignConnection foreign;
  {
    _variant_t late(foreign.dispatch());
    _variant_t unknown(foreign.unknown());
    const parameters::Chain chain(&late, 3);
    for (const VARIANT& value :
         std::vector<VARIANT>{late, unknown, reference_to(&late),
                              reference_to(&unknown), chain.front()}) {
      const Command made = command();
      EXPECT_EQ(late_put(made, kConnection, value).first, kDone) << value.vt;
      EXPECT_EQ(connection_of(made).get(), foreign.dispatch());
    }
  }
  EXPECT_EQ(foreign.references(), 1U);
}

// One refusal, two answers: deliberate.
TEST(CommandConnection, ThatIsNoneIsRefusedAndTheOldOneKept) {
  ForeignConnection old;
  const auto recordset = component::standalone_recordset();
  objects::Dispatch stranger;
  ForeignConnection no_connection;
  no_connection.is_connection = false;
  const Command made = command_over(old.dispatch(), L"");
  for (IDispatch* object :
       {dispatch_of(recordset.get()).get(), dispatch_of(made.get()).get(),
        static_cast<IDispatch*>(&stranger), no_connection.dispatch()}) {
    EXPECT_EQ(ended([&] { return made->putref_ActiveConnection(object); }),
              kNoConnection);
    expect_refused(late_put(made, kConnection, _variant_t(object)).second,
                   DISP_E_TYPEMISMATCH);
    expect_refused(
        late_put(made, kConnection, _variant_t(static_cast<IUnknown*>(object)))
            .second,
        DISP_E_TYPEMISMATCH);
    EXPECT_EQ(connection_of(made).get(), old.dispatch());
  }
  EXPECT_EQ(stranger.references(), 1U);
  EXPECT_EQ(old.references(), 3U);
}

TEST(CommandConnection, WithoutLateBindingIsRefusedAndLetGo) {
  ForeignConnection old;
  ForeignConnection early_only;
  early_only.has_dispatch = false;
  const Command made = command_over(old.dispatch(), L"");
  expect_refused(
      late_put(made, kConnection, _variant_t(early_only.unknown())).second,
      DISP_E_TYPEMISMATCH);
  EXPECT_EQ(connection_of(made).get(), old.dispatch());
  EXPECT_EQ(early_only.references(), 1U);
  EXPECT_EQ(old.references(), 3U);
}

TEST(CommandConnection, OfNoKindOfObjectIsRefused) {
  ForeignConnection old;
  IDispatch* pointer = old.dispatch();
  VARIANT by_reference = plain(VT_BYREF | VT_DISPATCH, 0);
  by_reference.byref = &pointer;
  const Command made = command_over(old.dispatch(), L"");
  const VARIANT kRefused[] = {plain(VT_I4, 0),
                              plain(VT_I8, 1),
                              plain(VT_BOOL, 0),
                              plain(VT_BSTR, 0),
                              plain(VT_ERROR, 0x80020004),
                              plain(VT_ARRAY | VT_VARIANT, 0),
                              parameters::null_reference(),
                              by_reference};
  for (const VARIANT& refused : kRefused) {
    expect_refused(late_put(made, kConnection, refused).second,
                   DISP_E_TYPEMISMATCH);
    EXPECT_EQ(connection_of(made).get(), old.dispatch());
  }
}

// ---------------------------------------------------------------------------
// Parameters that it creates
// ---------------------------------------------------------------------------

Parameter parameter_in(const Answer& answer) {
  if (answer.value.vt != VT_DISPATCH || answer.value.pdispVal == nullptr) {
    throw std::runtime_error("no parameter");
  }
  return component::query<IZIRDBParameter>(answer.value.pdispVal,
                                           IID_IZIRDBParameter);
}

std::string described_value(const VARIANT& value) {
  return parameters::describe(value);
}

/// By either road, with all five arguments.
Parameter create(Road road, const Command& made, const std::wstring& name,
                 long type, long direction, long size, const VARIANT& value) {
  const _variant_t text = text_value(name);
  if (road == Road::kVtable) {
    auto [result, parameter] =
        component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
          return made->CreateParameter(text.bstrVal, type, direction, size,
                                       value, out);
        });
    EXPECT_EQ(result, S_OK);
    return parameter;
  }
  const auto [outcome, answer] = answered([&] {
    parameters::RawCall call;
    call.member = kCreate;
    call.arguments = {text, _variant_t(type), _variant_t(direction),
                      _variant_t(size), value};
    return parameters::invoke_raw(dispatch_of(made.get()).get(), call);
  });
  EXPECT_EQ(outcome, kDone);
  return parameter_in(answer);
}

TEST(CreateParameter, StoresWhatItIsGivenWithoutAQuestion) {
  const _variant_t bytes = parameters::bytes_value({1, 2}, 3);
  const struct {
    std::wstring name;
    long type;
    long direction;
    long size;
    _variant_t value;
  } kRows[] = {
      {L"", 0, 0, 0, {}},
      {L"name", 202, 1, 50, L"text"},
      {L"other", 9999, -7, -1, plain(VT_ERROR, 3)},
      {L"bytes", 204, 3, values::kLargest, bytes},
      {L"odd", values::kSmallest, parameters::kTwoTo32 + 2, 7, 5},
      {L"mismatch", 3, 1, 0, L"x"},
  };
  for (const auto& row : kRows) {
    for (const Road road : kRoads) {
      const Command made = command();
      const Parameter parameter = create(road, made, row.name, row.type,
                                         row.direction, row.size, row.value);
      EXPECT_EQ(record_of(parameter.get()),
                (Record{row.name, row.type, row.direction, row.size,
                        described_value(row.value)}));
      EXPECT_EQ(references_of(parameter.get()), 1U);
      EXPECT_EQ(parameters::count_of(parameters_of(made)), 0);
    }
  }
}

TEST(CreateParameter, MakesAnOutputsNullEmpty) {
  for (long direction = -1; direction <= 6; ++direction) {
    const bool output = direction == ZIRDB_AD_PARAM_OUTPUT ||
                        direction == ZIRDB_AD_PARAM_RETURN_VALUE;
    for (const Road road : kRoads) {
      const auto value_of_new = [&](const VARIANT& value) {
        return record_of(
                   create(road, command(), L"p", 20, direction, 0, value).get())
            .value;
      };
      EXPECT_EQ(value_of_new(plain(VT_NULL, 0)),
                described_value(output ? VARIANT() : plain(VT_NULL, 0)))
          << direction;
      EXPECT_EQ(value_of_new(VARIANT()), described_value(VARIANT()));
      EXPECT_EQ(value_of_new(plain(VT_I4, 7)),
                described_value(plain(VT_I4, 7)));
      EXPECT_EQ(value_of_new(_variant_t(L"")),
                described_value(_variant_t(L"")));
    }
  }
}

// A link kept from a script's call would soon lead nowhere.
TEST(CreateParameter, FollowsReferencesOfScriptsOnly) {
  _variant_t null = plain(VT_NULL, 0);
  const parameters::Chain chain(&null, 2);
  const auto value_by = [&](Road road, const VARIANT& value, long direction) {
    return record_of(
               create(road, command(), L"p", 0, direction, 0, value).get())
        .value;
  };
  EXPECT_EQ(value_by(Road::kVtable, chain.front(), 2),
            described_value(chain.front()));
  EXPECT_EQ(value_by(Road::kLateBound, chain.front(), 1),
            described_value(null));
  EXPECT_EQ(value_by(Road::kLateBound, chain.front(), 2),
            described_value(VARIANT()));
}

TEST(CreateParameter, CopiesItsValue) {
  objects::Dispatch object;
  {
    _variant_t value(static_cast<IDispatch*>(&object));
    const Command made = command();
    const Parameter parameter =
        create(Road::kVtable, made, L"", 0, 1, 0, value);
    EXPECT_EQ(object.references(), 3U);
    _variant_t text(L"before");
    const Parameter other = create(Road::kVtable, made, L"", 0, 1, 0, text);
    text.bstrVal[0] = L'X';
    EXPECT_EQ(record_of(other.get()).value,
              described_value(_variant_t(L"before")));
  }
  EXPECT_EQ(object.references(), 1U);
}

TEST(CreateParameter, KeepsTheWholeNameThatAProgramGives) {
  EXPECT_EQ(
      record_of(
          create(Road::kVtable, command(), L"a\0b"s, 0, 0, 0, VARIANT()).get())
          .name,
      L"a\0b"s);
  const Command made = command();
  const auto [result, unnamed] =
      component::received<IZIRDBParameter>([&](IZIRDBParameter** out) {
        return made->CreateParameter(nullptr, 0, 0, 0, VARIANT(), out);
      });
  EXPECT_EQ(result, S_OK);
  EXPECT_EQ(record_of(unnamed.get()).name, L"");
}

TEST(CreateParameter, OfScriptsMayLackItsLastArguments) {
  const Command made = command();
  const std::vector<_variant_t> all{L"n", 202, 3, 50, L"v"};
  const std::vector<Record> expected{
      {L"", 0, 0, 0, described_value(VARIANT())},
      {L"n", 0, 0, 0, described_value(VARIANT())},
      {L"n", 202, 0, 0, described_value(VARIANT())},
      {L"n", 202, 3, 0, described_value(VARIANT())},
      {L"n", 202, 3, 50, described_value(VARIANT())},
      {L"n", 202, 3, 50, described_value(_variant_t(L"v"))}};
  for (std::size_t count = 0; count <= all.size(); ++count) {
    const Answer answer = component::method(
        dispatch_of(made.get()).get(), kCreate,
        {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count)});
    EXPECT_EQ(record_of(parameter_in(answer).get()), expected[count]);
  }
}

TEST(CreateParameter, OfScriptsConvertsNameAndNumbers) {
  _variant_t two(2);
  const Answer answer =
      component::method(dispatch_of(command().get()).get(), kCreate,
                        {7, L"20", reference_to(&two), 9.9, plain(VT_I2, 7)});
  EXPECT_EQ(record_of(parameter_in(answer).get()),
            (Record{L"7", 20, 2, 9, described_value(plain(VT_I2, 7))}));
}

TEST(CreateParameter, OfScriptsRefusesWhatItCannotConvert) {
  const Command made = command();
  const VARIANT nothing = parameters::null_reference();
  for (const std::vector<_variant_t>& arguments :
       std::vector<std::vector<_variant_t>>{{nothing},
                                            {L"n", L"x"},
                                            {L"n", 1, L"x"},
                                            {L"n", 1, 1, L"x"},
                                            {L"n", nothing},
                                            {L"n", 1, nothing, 1, 1},
                                            {L"n", 1, 1, nothing, 1}}) {
    expect_refused(answered([&] {
                     return component::method(dispatch_of(made.get()).get(),
                                              kCreate, arguments);
                   }).second,
                   DISP_E_TYPEMISMATCH);
  }
}

// The conversions stop at the first that fails.
TEST(CreateParameter, OfScriptsConvertsInOrder) {
  const VARIANT bad[] = {plain(VT_R4, 0), plain(VT_I2, 0), plain(VT_UI2, 0),
                         plain(VT_UI4, 0)};
  const std::string lines[] = {parameters::conversion_stub(VT_R4, VT_BSTR),
                               parameters::conversion_stub(VT_I2, VT_I8),
                               parameters::conversion_stub(VT_UI2, VT_I8),
                               parameters::conversion_stub(VT_UI4, VT_I8)};
  for (std::size_t first = 0; first < 4; ++first) {
    std::vector<_variant_t> arguments(first, _variant_t(1));
    arguments.insert(arguments.end(), bad + first, bad + 4);
    EXPECT_EQ(printed::by([&] {
                expect_refused(
                    component::method(dispatch_of(command().get()).get(),
                                      kCreate, arguments),
                    DISP_E_TYPEMISMATCH);
              }),
              lines[first]);
  }
}

// A name may be an object, whose default member may let the command go.
TEST(CreateParameter, OfScriptsOutlivesACommandThatIsLetGoMeanwhile) {
  InterfacePtr<IDispatch> late = dispatch_of(command().get());
  IDispatch* const called = late.get();
  objects::Dispatch name([&](const objects::Dispatch::Call& call) {
    late = {};
    *call.result = _variant_t(L"name").Detach();
    return S_OK;
  });
  const Answer answer = component::method(
      called, kCreate, {_variant_t(static_cast<IDispatch*>(&name)), 20});
  EXPECT_EQ(record_of(parameter_in(answer).get()),
            (Record{L"name", 20, 0, 0, described_value(VARIANT())}));
  EXPECT_EQ(name.references(), 1U);
}

TEST(CreateParameter, MakesParametersThatOutliveTheCommand) {
  Command made = command();
  const Parameter parameter = append(made, plain(VT_I4, 7));
  const Parameters list = parameters_of(made);
  made = {};
  EXPECT_EQ(parameter->put_Value(plain(VT_I4, 8)), S_OK);
  EXPECT_EQ(record_of(parameters::item(list, 0).get()).value,
            described_value(plain(VT_I4, 8)));
}

// ---------------------------------------------------------------------------
// Its list of parameters
// ---------------------------------------------------------------------------

TEST(CommandParameters, AreOneListBehindNewObjects) {
  const Command made = command();
  const Parameters one = parameters_of(made);
  const Parameters two = parameters_of(made);
  EXPECT_NE(one.get(), two.get());
  EXPECT_EQ(references_of(one.get()), 1U);
  const Answer late = late_get(made, kParameters).second;
  ASSERT_EQ(late.value.vt, VT_DISPATCH);
  const auto three = component::query<IZIRDBParameters>(late.value.pdispVal,
                                                        IID_IZIRDBParameters);
  EXPECT_EQ(one->Append(created(made, plain(VT_I4, 7)).get()), S_OK);
  EXPECT_EQ(three->Append(created(made, plain(VT_I4, 8)).get()), S_OK);
  const std::vector<std::string> both =
      described({plain(VT_I4, 7), plain(VT_I4, 8)});
  for (const Parameters& list : {one, two, three, parameters_of(made)}) {
    EXPECT_EQ(parameters::values_of(list), both);
  }
}

TEST(CommandParameters, BelongToTheirCommandAlone) {
  const Command made = command();
  append(made, plain(VT_I4, 7));
  EXPECT_EQ(values_in(command()), std::vector<std::string>());
}

TEST(CommandParameters, KeepTheirRecordsButNotTheCommand) {
  Command made = command();
  const Parameters list = parameters_of(made);
  EXPECT_EQ(references_of(made.get()), 1U);
  append(made, plain(VT_I4, 7));
  made = {};
  EXPECT_EQ(parameters::values_of(list), described({plain(VT_I4, 7)}));
}

}  // namespace
