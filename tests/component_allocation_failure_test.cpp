// SPDX-License-Identifier: MIT
//
// No memory, at every single place where the component asks for some: the
// operations of its objects.
//
// Sections: operations; rows; values that are copied; several fields at once.

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>

#include "runtime_allocator.h"
#include "support/component.h"
#include "support/component_workbench.h"
#include "support/values.h"
#include "support/without_memory.h"
#include "zir.h"
#include "zirdb.h"

namespace {

using namespace without_memory;

// ---------------------------------------------------------------------------
// Operations
// ---------------------------------------------------------------------------

/// An operation that says E_OUTOFMEMORY.
struct Operation {
  const char* name;
  void (*arrange)(World&);
  HRESULT (*call)(World&);
  /// Of a late-bound call: the class that its EXCEPINFO names. Else NULL.
  const wchar_t* source;
  /// What it gives, and what it changes (NULL: nothing), when there is memory.
  const wchar_t* gives;
  std::wstring (*changes)(const std::wstring& state) = nullptr;
  /// Whether it may do its work in spite of a request that failed.
  bool may_do_without = false;
};

void argument_number(World& w) { w.argument = _variant_t(1); }
void argument_name(World& w) { w.argument = _variant_t(kWrittenOtherwise); }
void argument_exact_name(World& w) { w.argument = _variant_t(kWideTextColumn); }
void argument_name_found_before(World& w) {
  argument_name(w);
  EXPECT_TRUE(item(w.fields.get(), w.argument));
}
void argument_new_name(World& w) {
  w.argument = _variant_t(L"a new name for the first parameter");
}

std::wstring renamed(const std::wstring& state) {
  return replaced(state, L"the first parameter =",
                  L"a new name for the first parameter =");
}
std::wstring third_appended(const std::wstring& state) {
  return state + L"the third parameter = empty (0, 0, 0); ";
}
std::wstring foreign_appended(const std::wstring& state) {
  return state + L"the foreign parameter = the foreign value (77, 8, 9); ";
}
std::wstring walked(const std::wstring& state) {
  return replaced(state, L"row 0 after 0", L"closed after 3");
}

constexpr const wchar_t* kFirstParameter =
    L"the first parameter = the first value (200, 1, 40)";

HRESULT class_object(World& w, REFCLSID clsid) {
  return w.receive_or_null<IUnknown>([&](IUnknown** out) {
    void* stored = *out;
    const HRESULT result = DllGetClassObject(clsid, IID_IClassFactory, &stored);
    *out = static_cast<IUnknown*>(stored);
    return result;
  });
}

HRESULT create(World& w, REFIID riid) {
  return w.receive_or_null<IUnknown>([&](IUnknown** out) {
    void* stored = *out;
    const HRESULT result = w.factory->CreateInstance(nullptr, riid, &stored);
    *out = static_cast<IUnknown*>(stored);
    return result;
  });
}

HRESULT late_append(World& w) {
  return w.late(dispatch_of(w.parameters.get()), DISPID_ZIRDB_PARAMETERS_APPEND,
                kMethod, &w.argument);
}

const Operation kOperations[] = {
    // Class objects and objects.
    {"DllGetClassObjectByClassId", nothing,
     [](World& w) { return class_object(w, CLSID_ZIRDBRecordset); }, nullptr,
     L"factory"},
    {"DllGetClassObjectByName", nothing,
     [](World& w) {
       return w.receive_or_null<IUnknown>([](IUnknown** out) {
         wchar_t name[] = L"recordset";
         void* stored = name;
         const HRESULT result =
             DllGetClassObject(CLSID_NULL, IID_IUnknown, &stored);
         if (stored != name) *out = static_cast<IUnknown*>(stored);
         return result;
       });
     },
     nullptr, L"factory"},
    {"CreateInstance", nothing,
     [](World& w) { return create(w, IID_IZIRDBRecordset); }, nullptr,
     L"recordset"},

    // Recordsets.
    {"GetFields", nothing,
     [](World& w) {
       return w.receive<IZIRDBFields>(
           [&](IZIRDBFields** out) { return w.recordset->get_Fields(out); });
     },
     nullptr, L"3 fields"},
    {"GetFieldsAtTheEnd", to_the_end,
     [](World& w) {
       return w.receive<IZIRDBFields>(
           [&](IZIRDBFields** out) { return w.recordset->get_Fields(out); });
     },
     nullptr, L"3 fields"},
    {"GetFieldsClosed", [](World& w) { w.recordset->Close(); },
     [](World& w) {
       return w.receive<IZIRDBFields>(
           [&](IZIRDBFields** out) { return w.recordset->get_Fields(out); });
     },
     nullptr, L"3 fields"},
    {"GetFieldsClosedByTheConnection",
     [](World& w) { workbench::close_by_connection(w.recordset.get()); },
     [](World& w) {
       return w.receive<IZIRDBFields>(
           [&](IZIRDBFields** out) { return w.recordset->get_Fields(out); });
     },
     nullptr, L"0 fields"},
    {"FieldsLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_FIELDS, kGet);
     },
     kRecordset, L"3 fields"},
    {"FieldsLateBoundAsTheDefaultMember", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()), DISPID_VALUE, kGet);
     },
     kRecordset, L"3 fields"},
    {"ForEach", [](World& w) { w.argument = _variant_t(&w.callback); },
     [](World& w) {
       return w.late(dispatch_of(w.recordset.get()),
                     DISPID_ZIRDB_RECORDSET_FOREACH, kMethod, &w.argument);
     },
     kRecordset, L"nothing", walked},

    // Fields.
    {"FieldsItemByNumber", argument_number, fields_item, nullptr, kTextField},
    {"FieldsItemByNumberLateBound", argument_number, late_fields_item, kFields,
     kTextField},
    {"FieldsItemByName", argument_name, fields_item, nullptr, kTextField,
     nullptr, true},
    {"FieldsItemByNameLateBound", argument_name, late_fields_item, kFields,
     kTextField, nullptr, true},
    {"FieldsItemByItsOwnName", argument_exact_name, fields_item, nullptr,
     kTextField, nullptr, true},
    {"FieldsItemByANameFoundBefore", argument_name_found_before, fields_item,
     nullptr, kTextField, nullptr, true},
    {"NewEnum", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.fields.get()), DISPID_NEWENUM, kGet);
     },
     kFields,
     L"enumerator of field the number of the row = 0; field the text of the "
     L"row = a text that fills row 0; field the bytes of the row = "
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa; "},
    {"NewEnumClosedByTheConnection",
     [](World& w) { workbench::close_by_connection(w.recordset.get()); },
     [](World& w) {
       return w.late(dispatch_of(w.fields.get()), DISPID_NEWENUM, kMethod);
     },
     kFields, L"enumerator of "},
    {"Clone", [](World& w) { w.enumerator->Skip(1); },
     [](World& w) {
       return w.receive<IEnumVARIANT>(
           [&](IEnumVARIANT** out) { return w.enumerator->Clone(out); });
     },
     nullptr,
     L"enumerator of field the text of the row = a text that fills row 0; "
     L"field the bytes of the row = "
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa; "},

    // One field.
    {"FieldGetName", nothing,
     [](World& w) {
       return w.receive_text(
           [&](BSTR* out) { return w.text_field->get_Name(out); });
     },
     nullptr, kWideTextColumn},
    {"FieldNameLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.text_field.get()), DISPID_ZIRDB_FIELD_NAME,
                     kGet);
     },
     kField, kWideTextColumn},
    {"FieldGetValueOfAText", nothing,
     [](World& w) { return w.text_field->get_Value(&w.value); }, nullptr,
     L"a text that fills row 0"},
    {"FieldValueOfATextLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.text_field.get()), DISPID_ZIRDB_FIELD_VALUE,
                     kGet);
     },
     kField, L"a text that fills row 0"},
    {"FieldGetValueOfBytes", nothing,
     [](World& w) { return w.blob_field->get_Value(&w.value); }, nullptr,
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
    {"FieldValueOfBytesLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.blob_field.get()), DISPID_ZIRDB_FIELD_VALUE,
                     kGet);
     },
     kField, L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
    {"FieldGetValueOfATextOfBeforeTheEnd", to_the_end,
     [](World& w) { return w.text_field->get_Value(&w.value); }, nullptr,
     L"a text that fills row 0"},
    {"FieldGetValueOfBytesOfBeforeTheEnd", to_the_end,
     [](World& w) { return w.blob_field->get_Value(&w.value); }, nullptr,
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},
    {"AnEnumeratedFieldsGetName",
     [](World& w) {
       _variant_t field;
       w.enumerator->Next(1, &field, nullptr);
       w.text_field =
           component::query<IZIRDBField>(field.punkVal, IID_IZIRDBField);
     },
     [](World& w) {
       return w.receive_text(
           [&](BSTR* out) { return w.text_field->get_Name(out); });
     },
     nullptr, L"the number of the row"},
    {"AnEnumeratedFieldsGetValue",
     [](World& w) {
       _variant_t field;
       w.enumerator->Skip(2);
       w.enumerator->Next(1, &field, nullptr);
       w.blob_field =
           component::query<IZIRDBField>(field.punkVal, IID_IZIRDBField);
     },
     [](World& w) { return w.blob_field->get_Value(&w.value); }, nullptr,
     L"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"},

    // Parameters.
    {"ParametersItemByNumber", [](World& w) { w.argument = _variant_t(0); },
     parameters_item, nullptr, kFirstParameter},
    {"ParametersItemByNumberLateBound",
     [](World& w) { w.argument = _variant_t(0); }, late_parameters_item,
     kParameters, kFirstParameter},
    {"ParametersItemByName",
     [](World& w) { w.argument = _variant_t(L"The First PARAMETER"); },
     parameters_item, nullptr, kFirstParameter},
    {"ParametersItemByNameLateBound",
     [](World& w) { w.argument = _variant_t(L"The First PARAMETER"); },
     late_parameters_item, kParameters, kFirstParameter},
    {"Append", nothing,
     [](World& w) { return w.parameters->Append(w.third.get()); }, nullptr,
     L"nothing", third_appended},
    {"AppendLateBound",
     [](World& w) {
       w.argument = _variant_t(dispatch_of(w.third.get()).get());
     },
     late_append, kParameters, L"nothing", third_appended},
    {"AppendOfAForeignOne", nothing,
     [](World& w) { return w.parameters->Append(&w.foreign); }, nullptr,
     L"nothing", foreign_appended},
    {"AppendOfAForeignOneLateBound",
     [](World& w) { w.argument = _variant_t(w.foreign.late_bound()); },
     late_append, kParameters, L"nothing", foreign_appended},

    // One parameter.
    {"ParameterGetName", nothing,
     [](World& w) {
       return w.receive_text([&](BSTR* out) { return w.first->get_Name(out); });
     },
     nullptr, L"the first parameter"},
    {"ParameterNameLateBound", nothing,
     [](World& w) {
       return w.late(dispatch_of(w.first.get()), DISPID_ZIRDB_PARAMETER_NAME,
                     kGet);
     },
     kParameter, L"the first parameter"},
    {"ParameterPutName", argument_new_name,
     [](World& w) { return w.first->put_Name(w.argument.bstrVal); }, nullptr,
     L"nothing", renamed},
    {"ParameterNamePutLateBound", argument_new_name,
     [](World& w) {
       return w.late(dispatch_of(w.first.get()), DISPID_ZIRDB_PARAMETER_NAME,
                     kPut, &w.argument);
     },
     kParameter, L"nothing", renamed},
};

/// The operation said that it lacked memory, and said nothing else.
void expect_out_of_memory(const Operation& operation, World& w, HRESULT result,
                          bool strings_too) {
  EXPECT_EQ(workbench::last_error().description, L"");
  if (operation.source == nullptr) {
    EXPECT_EQ(result, E_OUTOFMEMORY) << std::hex << result;
    return;
  }
  EXPECT_EQ(result, DISP_E_EXCEPTION) << std::hex << result;
  EXPECT_EQ(w.exception->scode, E_OUTOFMEMORY)
      << std::hex << w.exception->scode;
  EXPECT_EQ(w.exception->bstrDescription, nullptr);
  if (strings_too) {
    // There was none for the source either.
    EXPECT_EQ(w.exception->bstrSource, nullptr);
  } else {
    EXPECT_STREQ(w.exception->bstrSource, operation.source);
  }
}

void attempt_operation(const Operation& operation, Attempt& attempt) {
  World w;
  operation.arrange(w);
  const std::wstring before = w.state();
  const std::wstring after =
      operation.changes != nullptr ? operation.changes(before) : before;
  const std::uint32_t alive = workbench::objects_alive();

  HRESULT result = attempt.run([&] { return operation.call(w); });

  if (attempt.failed() && !(operation.may_do_without && result == S_OK)) {
    expect_out_of_memory(operation, w, result, !attempt.one());
    EXPECT_EQ(workbench::objects_alive(), alive);
    EXPECT_EQ(w.got(), L"nothing");
    EXPECT_EQ(w.state(), before);
    w.forget();
    result = operation.call(w);
  }
  EXPECT_EQ(result, S_OK) << std::hex << result;
  EXPECT_EQ(w.got(), operation.gives);
  EXPECT_EQ(w.state(), after);
  w.argument = _variant_t();
  EXPECT_EQ(w.callback.references(), 1U);
  EXPECT_EQ(w.foreign.references(), 1U);
}

std::ostream& operator<<(std::ostream& stream, const Operation& operation) {
  return stream << operation.name;
}

class NoMemoryFor : public testing::TestWithParam<Operation> {};

TEST_P(NoMemoryFor, AnOperationItFailsAndChangesNothing) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              attempt_operation(GetParam(), attempt);
            }),
            1);
}

INSTANTIATE_TEST_SUITE_P(Of, NoMemoryFor, testing::ValuesIn(kOperations),
                         [](const auto& tested) {
                           return std::string(tested.param.name);
                         });

// recordset(key) may go by way of a Fields object or not: the class that its
// failure names depends on that.
TEST(NoMemory, AFieldOfARecordsetFailsAndChangesNothing) {
  for (const DISPID member :
       {DISPID{DISPID_VALUE}, DISPID{DISPID_ZIRDB_RECORDSET_FIELDS}}) {
    for (const auto arrange : {argument_number, argument_name}) {
      EXPECT_GE(everywhere([&](Attempt& attempt) {
                  World w;
                  arrange(w);
                  const std::wstring before = w.state();
                  const auto call = [&] {
                    return w.late(dispatch_of(w.recordset.get()), member,
                                  kMethod | kGet, &w.argument);
                  };

                  HRESULT result = attempt.run(call);

                  if (result != S_OK) {
                    EXPECT_TRUE(attempt.failed());
                    EXPECT_EQ(result, DISP_E_EXCEPTION);
                    EXPECT_EQ(w.exception->scode, E_OUTOFMEMORY);
                    EXPECT_EQ(w.exception->bstrDescription, nullptr);
                    EXPECT_EQ(w.got(), L"nothing");
                    EXPECT_EQ(w.state(), before);
                    w.forget();
                    result = call();
                  }
                  EXPECT_EQ(result, S_OK);
                  EXPECT_EQ(w.got(), kTextField);
                  EXPECT_EQ(w.state(), before);
                }),
                1);
    }
  }
}

// The list grows by doubling, so that not every append needs memory.
TEST(NoMemory, AnAppendThatNeedsNoneSucceeds) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              const auto parameters = workbench::parameters();
              const auto parameter =
                  workbench::parameter(L"a parameter", 0, 0, 0, _variant_t());
              constexpr long kAppends = 20;
              long appended = 0;
              const HRESULT result = attempt.run([&]() -> HRESULT {
                for (; appended < kAppends; ++appended) {
                  const HRESULT one = parameters->Append(parameter.get());
                  if (FAILED(one)) return one;
                }
                return S_OK;
              });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(appended == kAppends, !attempt.failed());
              long count = 0;
              EXPECT_EQ(parameters->get_Count(&count), S_OK);
              EXPECT_EQ(count, appended);
            }),
            2);
}

TEST(NoMemory, AChainOfParametersIsLetGoHoweverLongItIs) {
  const std::uint32_t before = workbench::objects_alive();
  auto last = workbench::parameter(L"p", 0, 0, 0, _variant_t());
  for (int i = 0; i < 100'000; ++i) {
    const auto object = component::query<IDispatch>(last.get(), IID_IDispatch);
    last = workbench::parameter(L"p", 0, 0, 0, _variant_t(object.get()));
  }
  {
    const allocator::Watch watch(allocator::Fail::AllFromThere, 1);
    last = {};
  }
  EXPECT_EQ(workbench::objects_alive(), before);
}

// ---------------------------------------------------------------------------
// Rows
// ---------------------------------------------------------------------------

TEST(NoMemory, RowsAreBuiltOrNothingIsLeftOfThem) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              InterfacePtr<IZIRDBRecordset> recordset;
              const HRESULT result = attempt.run_inner([&] {
                recordset = workbench::recordset(
                    {kNumberColumn, kTextColumn, kBlobColumn}, 60, cell);
                return S_OK;
              });
              EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
              EXPECT_EQ(static_cast<bool>(recordset), !attempt.failed());
            }),
            5);
}

// ---------------------------------------------------------------------------
// Values that are copied: copies of values do not fail, their texts and arrays
// do
// ---------------------------------------------------------------------------

_variant_t valued(bool text) {
  return text ? _variant_t(L"the given value") : bytes_value(Blob(15, 'x'));
}

TEST(NoMemory, AParametersValueIsReadWithoutItsText) {
  for (const bool text : {true, false}) {
    for (const bool late : {true, false}) {
      EXPECT_GE(everywhere([&](Attempt& attempt) {
                  World w;
                  w.first->put_Value(valued(text));
                  const std::wstring before = w.state();
                  const HRESULT result = attempt.run([&] {
                    return late ? w.late(dispatch_of(w.first.get()),
                                         DISPID_ZIRDB_PARAMETER_VALUE, kGet)
                                : w.first->get_Value(&w.value);
                  });
                  EXPECT_EQ(result, S_OK);
                  EXPECT_EQ(w.value.vt, text ? VT_BSTR : VT_ARRAY | VT_UI1);
                  EXPECT_EQ(w.got() == L"-", attempt.failed());
                  EXPECT_EQ(w.state(), before);
                }),
                1);
    }
  }
}

TEST(NoMemory, AParametersValueIsSetWithoutItsText) {
  for (const bool text : {true, false}) {
    for (const bool late : {true, false}) {
      EXPECT_GE(everywhere([&](Attempt& attempt) {
                  World w;
                  w.argument = valued(text);
                  const auto call = [&] {
                    return late ? w.late(dispatch_of(w.first.get()),
                                         DISPID_ZIRDB_PARAMETER_VALUE, kPut,
                                         &w.argument)
                                : w.first->put_Value(w.argument);
                  };
                  const auto set = [&] {
                    _variant_t value;
                    EXPECT_EQ(w.first->get_Value(&value), S_OK);
                    EXPECT_EQ(value.vt, w.argument.vt);
                    return shown(value);
                  };
                  EXPECT_EQ(attempt.run(call), S_OK);
                  EXPECT_EQ(set(), attempt.failed() ? L"-" : shown(w.argument));
                  EXPECT_EQ(w.got(), L"nothing");
                  EXPECT_EQ(call(), S_OK);
                  EXPECT_EQ(set(), shown(w.argument));
                }),
                1);
    }
  }
}

// ---------------------------------------------------------------------------
// Several fields at once
// ---------------------------------------------------------------------------

// Those that were made are the caller's, and the enumerator stands behind them.
TEST(NoMemory, AnEnumeratorGivesTheFieldsThatItCouldMake) {
  constexpr const wchar_t* kNames[] = {L"the number of the row",
                                       L"the text of the row",
                                       L"the bytes of the row"};
  EXPECT_GE(
      everywhere([&](Attempt& attempt) {
        World w;
        const std::uint32_t alive = workbench::objects_alive();
        _variant_t got[3];
        std::uint32_t fetched = 77;

        const HRESULT result =
            attempt.run([&] { return w.enumerator->Next(3, got, &fetched); });

        EXPECT_EQ(result, attempt.failed() ? E_OUTOFMEMORY : S_OK);
        EXPECT_EQ(fetched < 3, attempt.failed());
        ASSERT_LE(fetched, 3U);
        EXPECT_EQ(workbench::objects_alive(), alive + fetched);
        for (std::uint32_t i = 0; i < 3; ++i) {
          if (i >= fetched) {
            EXPECT_EQ(got[i].vt, VT_EMPTY);
            EXPECT_EQ(w.enumerator->Next(1, &got[i], nullptr), S_OK);
          }
          ASSERT_EQ(got[i].vt, VT_DISPATCH);
          EXPECT_EQ(shown(got[i]).find(std::wstring(L"field ") + kNames[i]),
                    0U);
        }
        EXPECT_EQ(w.enumerator->Next(1, &w.value, nullptr), S_FALSE);
      }),
      3);
}

TEST(NoMemory, AnEnumeratorThatGivesOneFieldOnlyStaysWhereItWas) {
  EXPECT_GE(everywhere([](Attempt& attempt) {
              World w;
              const std::wstring before = w.state();
              HRESULT result = attempt.run(
                  [&] { return w.enumerator->Next(1, &w.value, nullptr); });
              if (attempt.failed()) {
                EXPECT_EQ(result, E_OUTOFMEMORY);
                EXPECT_EQ(w.got(), L"nothing");
                EXPECT_EQ(w.state(), before);
                result = w.enumerator->Next(1, &w.value, nullptr);
              }
              EXPECT_EQ(result, S_OK);
              EXPECT_EQ(w.got(), L"field the number of the row = 0");
            }),
            1);
}

}  // namespace
