// SPDX-License-Identifier: MIT
//
// The thread's error record after every public operation of recordsets, fields
// and enumerators: empty after a success and after a failure that a code says
// in full, whatever was in it before; otherwise code, source and text.
//
// Sections: operations that succeed; operations that fail; failures that the
// code says in full; what clears nothing; forEach.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/objects.h"
#include "support/recordsets.h"

namespace {

using component::dispatch_of;
using component::kClosedCode;
using component::kNoCurrentRecordCode;
using component::kNoFieldCode;
using component::kNotBackwardCode;
using component::kNotFoundCode;
using component::kNotInThisContextCode;
using recordsets::failure;
using recordsets::Field;
using recordsets::Fields;
using recordsets::fields_of;
using recordsets::item_of;
using recordsets::numbered;
using recordsets::Outcome;
using recordsets::Recordset;

/// A recordset with everything that can be had from its first row.
struct Objects {
  explicit Objects(int rows = 3)
      : recordset(numbered(rows)), fields(fields_of(recordset)) {
    field = item_of(fields, _variant_t(0)).second;
    enumerator =
        rows > 0 ? recordsets::enumerator_of(fields) : recordsets::Enumerator();
    if (enumerator) detached = recordsets::next_of(enumerator);
  }

  Recordset recordset;
  Fields fields;
  Field field;
  recordsets::Enumerator enumerator;
  Field detached;
};

struct Operation {
  const char* name;
  std::function<HRESULT(Objects&)> run;
  HRESULT result = S_OK;
  HRESULT code = S_OK;  ///< that is recorded
};

HRESULT call(IUnknown* object, DISPID member, int flags,
             const std::vector<_variant_t>& arguments = {}) {
  component::Call call;
  call.member = member;
  call.flags = static_cast<WORD>(flags);
  call.arguments = arguments;
  return component::invoke(component::dispatch_of(object).get(), call).result;
}

template <class Interface, class Call>
HRESULT result_of(Call call) {
  return component::received<Interface>(call).first;
}

/// Runs each operation behind an error that another one left.
void expect_records(const std::vector<Operation>& operations,
                    const std::function<void(Objects&)>& prepare = {}) {
  for (const Operation& operation : operations) {
    SCOPED_TRACE(operation.name);
    Objects objects;
    if (prepare) prepare(objects);
    workbench::set_error(E_UNEXPECTED, L"somebody", L"something");
    EXPECT_EQ(operation.run(objects), operation.result);
    const workbench::Error error = workbench::last_error();
    const Outcome expected =
        operation.code == S_OK ? Outcome() : failure(operation.code);
    EXPECT_EQ(error.code, operation.code) << std::hex << error.code;
    EXPECT_EQ(error.source, expected.source);
    EXPECT_EQ(error.description, expected.text);
  }
}

// ---------------------------------------------------------------------------
// Operations that succeed
// ---------------------------------------------------------------------------

HRESULT item(Objects& objects, const _variant_t& index) {
  return result_of<IZIRDBField>(
      [&](IZIRDBField** out) { return objects.fields->Item(index, out); });
}

TEST(ErrorRecord, IsEmptyAfterASuccessThroughTheVtable) {
  long number = 0;
  VARIANT_BOOL flag = 0;
  expect_records({
      {"State", [&](Objects& o) { return o.recordset->get_State(&number); }},
      {"EOF", [&](Objects& o) { return o.recordset->get_EOF(&flag); }},
      {"BOF", [&](Objects& o) { return o.recordset->get_BOF(&flag); }},
      {"RecordCount",
       [&](Objects& o) { return o.recordset->get_RecordCount(&number); }},
      {"Fields",
       [](Objects& o) {
         return result_of<IZIRDBFields>(
             [&](IZIRDBFields** out) { return o.recordset->get_Fields(out); });
       }},
      {"MoveFirst", [](Objects& o) { return o.recordset->MoveFirst(); }},
      {"MoveNext", [](Objects& o) { return o.recordset->MoveNext(); }},
      {"Close", [](Objects& o) { return o.recordset->Close(); }},
      {"Count", [&](Objects& o) { return o.fields->get_Count(&number); }},
      {"Item", [](Objects& o) { return item(o, L"TEXT"); }},
      {"Item by number", [](Objects& o) { return item(o, 1); }},
      {"Name",
       [](Objects& o) {
         _bstr_t name;
         return o.field->get_Name(&name.m_s);
       }},
      {"Value",
       [](Objects& o) {
         _variant_t value;
         return o.field->get_Value(&value);
       }},
      {"Name, detached",
       [](Objects& o) {
         _bstr_t name;
         return o.detached->get_Name(&name.m_s);
       }},
      {"Value, detached",
       [](Objects& o) {
         _variant_t value;
         return o.detached->get_Value(&value);
       }},
      {"Next",
       [](Objects& o) {
         _variant_t element;
         return o.enumerator->Next(1, &element, nullptr);
       }},
      {"Skip", [](Objects& o) { return o.enumerator->Skip(1); }},
      {"Reset", [](Objects& o) { return o.enumerator->Reset(); }},
      {"Clone",
       [](Objects& o) {
         return result_of<IEnumVARIANT>(
             [&](IEnumVARIANT** out) { return o.enumerator->Clone(out); });
       }},
  });
}

TEST(ErrorRecord, IsEmptyAfterASuccessLateBound) {
  expect_records({
      {"default", [](Objects& o) { return call(o.recordset.get(), 0, 2); }},
      {"default with a name",
       [](Objects& o) { return call(o.recordset.get(), 0, 1, {L"text"}); }},
      {"Fields", [](Objects& o) { return call(o.recordset.get(), 1, 2); }},
      {"State", [](Objects& o) { return call(o.recordset.get(), 2, 2); }},
      {"EOF", [](Objects& o) { return call(o.recordset.get(), 3, 2); }},
      {"BOF", [](Objects& o) { return call(o.recordset.get(), 4, 2); }},
      {"MoveNext", [](Objects& o) { return call(o.recordset.get(), 5, 1); }},
      {"Close", [](Objects& o) { return call(o.recordset.get(), 6, 1); }},
      {"RecordCount", [](Objects& o) { return call(o.recordset.get(), 7, 2); }},
      {"MoveFirst", [](Objects& o) { return call(o.recordset.get(), 8, 1); }},
      {"Item", [](Objects& o) { return call(o.fields.get(), 0, 1, {0}); }},
      {"Count", [](Objects& o) { return call(o.fields.get(), 1, 2); }},
      {"_NewEnum", [](Objects& o) { return call(o.fields.get(), -4, 2); }},
      {"Value", [](Objects& o) { return call(o.field.get(), 0, 2); }},
      {"Name", [](Objects& o) { return call(o.field.get(), 1, 2); }},
      {"Value, detached",
       [](Objects& o) { return call(o.detached.get(), 0, 2); }},
      {"Name, detached",
       [](Objects& o) { return call(o.detached.get(), 1, 2); }},
  });
}

TEST(ErrorRecord, IsEmptyWhereACapturedValueStandsIn) {
  expect_records(
      {
          {"Item", [](Objects& o) { return item(o, 0); }},
          {"Item, late-bound",
           [](Objects& o) { return call(o.fields.get(), 0, 1, {0}); }},
          {"Value",
           [](Objects& o) {
             _variant_t value;
             return o.field->get_Value(&value);
           }},
          {"Value, late-bound",
           [](Objects& o) { return call(o.field.get(), 0, 2); }},
      },
      [](Objects& o) {
        while (o.recordset->MoveNext() == S_OK) {
        }
      });
}

TEST(ErrorRecord, IsEmptyWhereFieldsFromTheEndFindAnItem) {
  expect_records(
      {{"Item", [](Objects& o) { return item(o, 0); }},
       {"Item, late-bound",
        [](Objects& o) { return call(o.fields.get(), 0, 1, {0}); }},
       {"default with a name",
        [](Objects& o) { return call(o.recordset.get(), 0, 1, {L"text"}); }},
       {"Fields, late-bound",
        [](Objects& o) { return call(o.recordset.get(), 1, 2); }}},
      [](Objects& o) {
        while (o.recordset->MoveNext() == S_OK) {
        }
        o.fields = fields_of(o.recordset);
      });
}

// ---------------------------------------------------------------------------
// Operations that fail
// ---------------------------------------------------------------------------

TEST(ErrorRecord, SaysWhatFailedOnARow) {
  expect_records({
      {"MoveLast", [](Objects& o) { return o.recordset->MoveLast(); },
       kNotBackwardCode, kNotBackwardCode},
      {"MovePrevious", [](Objects& o) { return o.recordset->MovePrevious(); },
       kNotInThisContextCode, kNotInThisContextCode},
      {"Item", [](Objects& o) { return item(o, L"none"); }, kNotFoundCode,
       kNotFoundCode},
      {"MoveLast, late-bound",
       [](Objects& o) { return call(o.recordset.get(), 9, 1); },
       DISP_E_EXCEPTION, kNotBackwardCode},
      {"MovePrevious, late-bound",
       [](Objects& o) { return call(o.recordset.get(), 10, 1); },
       DISP_E_EXCEPTION, kNotInThisContextCode},
      {"Item, late-bound",
       [](Objects& o) { return call(o.fields.get(), 0, 1, {2}); },
       DISP_E_EXCEPTION, kNotFoundCode},
      {"default with a name",
       [](Objects& o) { return call(o.recordset.get(), 0, 2, {L"none"}); },
       DISP_E_EXCEPTION, kNotFoundCode},
  });
}

TEST(ErrorRecord, SaysWhatFailedAtTheEnd) {
  expect_records(
      {
          {"MoveNext", [](Objects& o) { return o.recordset->MoveNext(); },
           kNoCurrentRecordCode, kNoCurrentRecordCode},
          {"MoveNext, late-bound",
           [](Objects& o) { return call(o.recordset.get(), 5, 1); },
           DISP_E_EXCEPTION, kNoCurrentRecordCode},
          {"Value",
           [](Objects& o) {
             _variant_t value;
             return o.field->get_Value(&value);
           },
           kNoCurrentRecordCode, kNoCurrentRecordCode},
          {"Value, late-bound",
           [](Objects& o) { return call(o.field.get(), 0, 2); },
           DISP_E_EXCEPTION, kNoCurrentRecordCode},
          {"_NewEnum", [](Objects& o) { return call(o.fields.get(), -4, 1); },
           DISP_E_EXCEPTION, kNoCurrentRecordCode},
      },
      [](Objects& o) {
        while (o.recordset->MoveNext() == S_OK) {
        }
        o.fields = fields_of(o.recordset);
        o.field = item_of(o.fields, _variant_t(0)).second;
      });
}

TEST(ErrorRecord, SaysWhatFailedWhenClosed) {
  VARIANT_BOOL flag = 0;
  expect_records(
      {
          {"EOF", [&](Objects& o) { return o.recordset->get_EOF(&flag); },
           kClosedCode, kClosedCode},
          {"Close", [](Objects& o) { return o.recordset->Close(); },
           kClosedCode, kClosedCode},
          {"Item", [](Objects& o) { return item(o, 0); }, kClosedCode,
           kClosedCode},
          {"EOF, late-bound",
           [](Objects& o) { return call(o.recordset.get(), 3, 2); },
           DISP_E_EXCEPTION, kClosedCode},
          {"_NewEnum", [](Objects& o) { return call(o.fields.get(), -4, 2); },
           DISP_E_EXCEPTION, kClosedCode},
          {"Value",
           [](Objects& o) {
             _variant_t value;
             return o.field->get_Value(&value);
           },
           kNoFieldCode, kNoFieldCode},
          {"Name, late-bound",
           [](Objects& o) { return call(o.field.get(), 1, 2); },
           DISP_E_EXCEPTION, kNoFieldCode},
      },
      [](Objects& o) { EXPECT_EQ(o.recordset->Close(), S_OK); });
}

TEST(ErrorRecord, SaysWhatFailedAfterTheConnectionClosed) {
  expect_records(
      {
          {"MoveFirst", [](Objects& o) { return o.recordset->MoveFirst(); },
           kClosedCode, kClosedCode},
          {"Item", [](Objects& o) { return item(o, 0); }, E_FAIL, E_FAIL},
          {"Item, late-bound",
           [](Objects& o) { return call(o.fields.get(), 0, 1, {0}); },
           DISP_E_EXCEPTION, E_FAIL},
          {"default with a name",
           [](Objects& o) { return call(o.recordset.get(), 0, 1, {L"text"}); },
           DISP_E_EXCEPTION, kNotFoundCode},
          {"Value, late-bound",
           [](Objects& o) { return call(o.field.get(), 0, 2); },
           DISP_E_EXCEPTION, kNoFieldCode},
          {"Count", [](Objects& o) { return call(o.fields.get(), 1, 2); }},
          {"_NewEnum", [](Objects& o) { return call(o.fields.get(), -4, 2); }},
          {"Fields", [](Objects& o) { return call(o.recordset.get(), 1, 2); }},
          {"State", [](Objects& o) { return call(o.recordset.get(), 2, 2); }},
      },
      [](Objects& o) { workbench::close_by_connection(o.recordset.get()); });
}

// ---------------------------------------------------------------------------
// Failures that the code says in full
// ---------------------------------------------------------------------------

TEST(ErrorRecord, IsEmptyAfterAPlainFailureThroughTheVtable) {
  const _variant_t missing = values::owned(values::reference_to(nullptr));
  expect_records({
      {"State", [](Objects& o) { return o.recordset->get_State(nullptr); },
       E_INVALIDARG},
      {"EOF", [](Objects& o) { return o.recordset->get_EOF(nullptr); },
       E_INVALIDARG},
      {"BOF", [](Objects& o) { return o.recordset->get_BOF(nullptr); },
       E_INVALIDARG},
      {"RecordCount",
       [](Objects& o) { return o.recordset->get_RecordCount(nullptr); },
       E_INVALIDARG},
      {"Fields", [](Objects& o) { return o.recordset->get_Fields(nullptr); },
       E_INVALIDARG},
      {"Count", [](Objects& o) { return o.fields->get_Count(nullptr); },
       E_INVALIDARG},
      {"Item",
       [](Objects& o) { return o.fields->Item(_variant_t(0), nullptr); },
       E_INVALIDARG},
      {"Item behind a missing link",
       [&](Objects& o) { return item(o, missing); }, E_INVALIDARG},
      {"Item behind a missing link, late-bound",
       [&](Objects& o) { return call(o.fields.get(), 0, 1, {missing}); },
       DISP_E_EXCEPTION},
      {"Name", [](Objects& o) { return o.field->get_Name(nullptr); },
       E_INVALIDARG},
      {"Value", [](Objects& o) { return o.field->get_Value(nullptr); },
       E_INVALIDARG},
      {"Next",
       [](Objects& o) { return o.enumerator->Next(1, nullptr, nullptr); },
       E_INVALIDARG},
      {"Clone", [](Objects& o) { return o.enumerator->Clone(nullptr); },
       E_INVALIDARG},
      {"Skip past the end", [](Objects& o) { return o.enumerator->Skip(9); },
       S_FALSE},
  });
}

TEST(ErrorRecord, IsEmptyAfterARefusedLateBoundCall) {
  component::Call wrong;
  wrong.riid = IID_IUnknown;
  const auto with_wrong_id = [&wrong](IUnknown* object) {
    return component::invoke(dispatch_of(object).get(), wrong).result;
  };
  expect_records({
      {"wrong interface id, recordset",
       [&](Objects& o) { return with_wrong_id(o.recordset.get()); },
       E_INVALIDARG},
      {"wrong interface id, fields",
       [&](Objects& o) { return with_wrong_id(o.fields.get()); }, E_INVALIDARG},
      {"wrong interface id, field",
       [&](Objects& o) { return with_wrong_id(o.field.get()); }, E_INVALIDARG},
      {"unknown member, recordset",
       [](Objects& o) { return call(o.recordset.get(), 12, 2); },
       DISP_E_MEMBERNOTFOUND},
      {"unknown member, fields",
       [](Objects& o) { return call(o.fields.get(), 2, 2); },
       DISP_E_MEMBERNOTFOUND},
      {"unknown member, field",
       [](Objects& o) { return call(o.field.get(), 2, 2); },
       DISP_E_MEMBERNOTFOUND},
      {"default as a method",
       [](Objects& o) { return call(o.recordset.get(), 0, 1); }, E_INVALIDARG},
      {"default with two",
       [](Objects& o) {
         return call(o.recordset.get(), 0, 1, {0, 1});
       },
       DISP_E_BADPARAMCOUNT},
      {"MoveNext as a get",
       [](Objects& o) { return call(o.recordset.get(), 5, 2); },
       DISP_E_MEMBERNOTFOUND},
      {"EOF with an argument",
       [](Objects& o) { return call(o.recordset.get(), 3, 2, {0}); },
       DISP_E_BADPARAMCOUNT},
      {"Item without an index",
       [](Objects& o) { return call(o.fields.get(), 0, 2); },
       DISP_E_BADPARAMCOUNT},
      {"Value as a put",
       [](Objects& o) { return call(o.field.get(), 0, 4, {0}); },
       DISP_E_BADPARAMCOUNT},
      {"forEach of a number",
       [](Objects& o) { return call(o.recordset.get(), 11, 1, {0}); },
       DISP_E_TYPEMISMATCH},
      {"forEach of nothing",
       [](Objects& o) { return call(o.recordset.get(), 11, 1); },
       DISP_E_BADPARAMCOUNT},
  });
}

// ---------------------------------------------------------------------------
// What clears nothing
// ---------------------------------------------------------------------------

// A host releases what it holds between a failure and asking for its text.
TEST(ErrorRecord, OutlivesReferencesAndInterfaces) {
  {
    Objects objects;
    workbench::set_error(E_UNEXPECTED, L"somebody", L"something");
    dispatch_of(objects.recordset.get());
    dispatch_of(objects.fields.get());
    dispatch_of(objects.field.get());
    component::query<IUnknown>(objects.enumerator.get(), IID_IDispatch);
  }
  const workbench::Error error = workbench::last_error();
  EXPECT_EQ(error.code, E_UNEXPECTED);
  EXPECT_EQ(error.source, L"somebody");
  EXPECT_EQ(error.description, L"something");
}

// ---------------------------------------------------------------------------
// forEach
// ---------------------------------------------------------------------------

TEST(ErrorRecord, IsEmptyAfterAWalkWhateverItsCallbackLeft) {
  for (const int rows : {0, 1, 3}) {
    const Recordset recordset = numbered(rows);
    objects::Dispatch callback([&](const objects::Dispatch::Call&) {
      EXPECT_EQ(recordset->MovePrevious(), kNotInThisContextCode);
      return S_OK;
    });
    workbench::set_error(E_UNEXPECTED, L"somebody", L"something");
    EXPECT_EQ(call(recordset.get(), 11, 1,
                   {_variant_t(static_cast<IDispatch*>(&callback))}),
              S_OK);
    const workbench::Error error = workbench::last_error();
    EXPECT_EQ(error.code, S_OK);
    EXPECT_EQ(error.source, L"");
    EXPECT_EQ(error.description, L"");
  }
}

TEST(ErrorRecord, IsClearedBeforeTheCallbackIsCalled) {
  const Recordset recordset = numbered(1);
  objects::Dispatch callback([&](const objects::Dispatch::Call&) {
    EXPECT_EQ(workbench::last_error().code, S_OK);
    return S_OK;
  });
  workbench::set_error(E_UNEXPECTED, L"somebody", L"something");
  call(recordset.get(), 11, 1,
       {_variant_t(static_cast<IDispatch*>(&callback))});
  EXPECT_EQ(callback.invocations(), 1);
}

TEST(ErrorRecord, SaysWhatFailedAWalk) {
  const Recordset recordset = numbered(2);
  objects::Dispatch callback([&](const objects::Dispatch::Call&) {
    EXPECT_EQ(recordset->Close(), S_OK);
    return S_OK;
  });
  EXPECT_EQ(call(recordset.get(), 11, 1,
                 {_variant_t(static_cast<IDispatch*>(&callback))}),
            DISP_E_EXCEPTION);
  const workbench::Error error = workbench::last_error();
  EXPECT_EQ(error.code, kClosedCode);
  EXPECT_EQ(error.source, recordsets::kSource);
  EXPECT_EQ(error.description, component::kClosedText);
}

}  // namespace
