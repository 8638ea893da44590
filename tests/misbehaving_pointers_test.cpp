// SPDX-License-Identifier: MIT
//
// NULL in every place where a host passes a pointer, in turn: in every function
// that is exported, in every operation of every object, and in every late-bound
// call of every member.
//
// Sections: exported functions; operations; late-bound calls.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/database.h"
#include "support/misbehaving_puppet.h"
#include "support/scripting.h"
#include "zir.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace {

using misbehaving::Stage;
using scripting::Object;

/// A call with one pointer NULL, and what it returns.
struct Case {
  const char* name;
  HRESULT expected;
  std::function<HRESULT()> call;
};

void expect_all(const std::vector<Case>& cases) {
  for (const Case& each : cases) {
    EXPECT_EQ(each.call(), each.expected) << each.name;
  }
}

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

TEST(NullPointers, OfTheRuntimeAreRefused) {
  LONG bound = 0;
  void* data = nullptr;
  SAFEARRAY* copy = nullptr;
  SAFEARRAY* const array = SafeArrayCreateVector(VT_UI1, 0, 1);
  DATE date = 0;
  CLSID clsid{};
  _variant_t value(7);
  _variant_t text(L"a");
  _variant_t truth(true);
  _variant_t result;
  const wchar_t* const name = L"ZIRDB.Connection";
  expect_all({
      {"SafeArrayDestroy", E_INVALIDARG,
       [&] { return SafeArrayDestroy(nullptr); }},
      {"SafeArrayCopy array", E_INVALIDARG,
       [&] { return SafeArrayCopy(nullptr, &copy); }},
      {"SafeArrayCopy copy", E_INVALIDARG,
       [&] { return SafeArrayCopy(array, nullptr); }},
      {"SafeArrayGetUBound array", E_INVALIDARG,
       [&] { return SafeArrayGetUBound(nullptr, 1, &bound); }},
      {"SafeArrayGetUBound bound", E_INVALIDARG,
       [&] { return SafeArrayGetUBound(array, 1, nullptr); }},
      {"SafeArrayGetLBound array", E_INVALIDARG,
       [&] { return SafeArrayGetLBound(nullptr, 1, &bound); }},
      {"SafeArrayGetLBound bound", E_INVALIDARG,
       [&] { return SafeArrayGetLBound(array, 1, nullptr); }},
      {"SafeArrayAccessData array", E_INVALIDARG,
       [&] { return SafeArrayAccessData(nullptr, &data); }},
      {"SafeArrayAccessData data", E_INVALIDARG,
       [&] { return SafeArrayAccessData(array, nullptr); }},
      {"SafeArrayUnaccessData", E_INVALIDARG,
       [&] { return SafeArrayUnaccessData(nullptr); }},
      {"VarDateFromStr text", E_INVALIDARG,
       [&] { return VarDateFromStr(nullptr, 0, 0, &date); }},
      {"VarDateFromStr date", E_INVALIDARG,
       [&] { return VarDateFromStr(L"2024/01/31", 0, 0, nullptr); }},
      {"VarAdd left", E_INVALIDARG,
       [&] { return VarAdd(nullptr, &value, &result); }},
      {"VarAdd right", E_INVALIDARG,
       [&] { return VarAdd(&value, nullptr, &result); }},
      {"VarAdd result", E_INVALIDARG,
       [&] { return VarAdd(&value, &value, nullptr); }},
      {"VarSub left", E_INVALIDARG,
       [&] { return VarSub(nullptr, &value, &result); }},
      {"VarSub right", E_INVALIDARG,
       [&] { return VarSub(&value, nullptr, &result); }},
      {"VarSub result", E_INVALIDARG,
       [&] { return VarSub(&value, &value, nullptr); }},
      {"VarMul left", E_INVALIDARG,
       [&] { return VarMul(nullptr, &value, &result); }},
      {"VarMul right", E_INVALIDARG,
       [&] { return VarMul(&value, nullptr, &result); }},
      {"VarMul result", E_INVALIDARG,
       [&] { return VarMul(&value, &value, nullptr); }},
      {"VarDiv left", E_INVALIDARG,
       [&] { return VarDiv(nullptr, &value, &result); }},
      {"VarDiv right", E_INVALIDARG,
       [&] { return VarDiv(&value, nullptr, &result); }},
      {"VarDiv result", E_INVALIDARG,
       [&] { return VarDiv(&value, &value, nullptr); }},
      {"VarMod left", E_INVALIDARG,
       [&] { return VarMod(nullptr, &value, &result); }},
      {"VarMod right", E_INVALIDARG,
       [&] { return VarMod(&value, nullptr, &result); }},
      {"VarMod result", E_INVALIDARG,
       [&] { return VarMod(&value, &value, nullptr); }},
      {"VarPow left", E_INVALIDARG,
       [&] { return VarPow(nullptr, &value, &result); }},
      {"VarPow right", E_INVALIDARG,
       [&] { return VarPow(&value, nullptr, &result); }},
      {"VarPow result", E_INVALIDARG,
       [&] { return VarPow(&value, &value, nullptr); }},
      {"VarCat left", E_INVALIDARG,
       [&] { return VarCat(nullptr, &text, &result); }},
      {"VarCat right", E_INVALIDARG,
       [&] { return VarCat(&text, nullptr, &result); }},
      {"VarCat result", E_INVALIDARG,
       [&] { return VarCat(&text, &text, nullptr); }},
      {"VarCmp left", E_INVALIDARG,
       [&] { return VarCmp(nullptr, &value, 0, 0); }},
      {"VarCmp right", E_INVALIDARG,
       [&] { return VarCmp(&value, nullptr, 0, 0); }},
      {"VarAnd left", E_INVALIDARG,
       [&] { return VarAnd(nullptr, &truth, &result); }},
      {"VarAnd right", E_INVALIDARG,
       [&] { return VarAnd(&truth, nullptr, &result); }},
      {"VarAnd result", E_INVALIDARG,
       [&] { return VarAnd(&truth, &truth, nullptr); }},
      {"VarOr left", E_INVALIDARG,
       [&] { return VarOr(nullptr, &truth, &result); }},
      {"VarOr right", E_INVALIDARG,
       [&] { return VarOr(&truth, nullptr, &result); }},
      {"VarOr result", E_INVALIDARG,
       [&] { return VarOr(&truth, &truth, nullptr); }},
      {"VarXor left", E_INVALIDARG,
       [&] { return VarXor(nullptr, &truth, &result); }},
      {"VarXor right", E_INVALIDARG,
       [&] { return VarXor(&truth, nullptr, &result); }},
      {"VarXor result", E_INVALIDARG,
       [&] { return VarXor(&truth, &truth, nullptr); }},
      {"VarNot operand", E_INVALIDARG,
       [&] { return VarNot(nullptr, &result); }},
      {"VarNot result", E_INVALIDARG, [&] { return VarNot(&truth, nullptr); }},
      {"VarRound operand", E_INVALIDARG,
       [&] { return VarRound(nullptr, 0, &result); }},
      {"VarRound result", E_INVALIDARG,
       [&] { return VarRound(&value, 0, nullptr); }},
      {"VarInt operand", E_INVALIDARG,
       [&] { return VarInt(nullptr, &result); }},
      {"VarInt result", E_INVALIDARG, [&] { return VarInt(&value, nullptr); }},
      {"VarFix operand", E_INVALIDARG,
       [&] { return VarFix(nullptr, &result); }},
      {"VarFix result", E_INVALIDARG, [&] { return VarFix(&value, nullptr); }},
      {"VarAbs operand", E_INVALIDARG,
       [&] { return VarAbs(nullptr, &result); }},
      {"VarAbs result", E_INVALIDARG, [&] { return VarAbs(&value, nullptr); }},
      {"CoCreateGuid", E_INVALIDARG, [&] { return CoCreateGuid(nullptr); }},
      {"CoCreateInstanceByName name", CO_E_CLASSSTRING,
       [&] {
         return CoCreateInstanceByName(nullptr, nullptr, 1, IID_IUnknown,
                                       &data);
       }},
      {"CoGetObject name", E_FAIL,
       [&] { return CoGetObject(nullptr, nullptr, IID_IUnknown, &data); }},
      {"CLSIDFromProgID name", CO_E_CLASSSTRING,
       [&] { return CLSIDFromProgID(nullptr, &clsid); }},
      {"CLSIDFromProgID clsid", E_INVALIDARG,
       [&] { return CLSIDFromProgID(name, nullptr); }},
      {"CoGetObjectContext without one", E_FAIL,
       [&] { return CoGetObjectContext(IID_IContextProperties, nullptr); }},
      {"CoInitializeEx reserved", S_OK,
       [&] { return CoInitializeEx(nullptr, 0); }},
      {"CoGetObjectContext", E_INVALIDARG,
       [&] { return CoGetObjectContext(IID_IContextProperties, nullptr); }},
      {"SetErrorInfo", S_OK, [&] { return SetErrorInfo(0, nullptr); }},
      {"DllGetClassObject", E_INVALIDARG,
       [&] {
         return DllGetClassObject(CLSID_ZIRDBConnection, IID_IClassFactory,
                                  nullptr);
       }},
  });
  CoUninitialize();
  EXPECT_EQ(result.vt, VT_EMPTY);
  EXPECT_EQ(value.llVal, 7);
  EXPECT_EQ(array->cLocks, 0U);
  SafeArrayDestroy(array);
}

TEST(NullPointers, OfTextsAreEmptyTexts) {
  EXPECT_EQ(SysAllocString(nullptr), nullptr);
  EXPECT_EQ(SysStringLen(nullptr), 0U);
  EXPECT_EQ(SysStringByteLen(nullptr), 0U);
  SysFreeString(nullptr);
  const _bstr_t units(SysAllocStringLen(nullptr, 3), false);
  EXPECT_EQ(SysStringLen(units.m_s), 3U);
  const _bstr_t bytes(SysAllocStringByteLen(nullptr, 3), false);
  EXPECT_EQ(SysStringLen(bytes.m_s), 3U);
  EXPECT_EQ(utf8_utf32(nullptr, 9, nullptr), 1U);
  EXPECT_EQ(utf32_utf8(nullptr, 9, nullptr), 1U);
  EXPECT_EQ(utf16_utf32(nullptr, 9, nullptr), 1U);
  EXPECT_EQ(utf32_utf16(nullptr, 9, nullptr), 1U);
  EXPECT_EQ(LoadLibraryW(nullptr), nullptr);
  EXPECT_NE(GetModuleHandleW(nullptr), nullptr);
  EXPECT_EQ(GetProcAddress(nullptr, nullptr), nullptr);
  EXPECT_EQ(StringFromGUID2(IID_NULL, nullptr, 39), 0);
}

TEST(NullPointers, OfTheOdbcLayerAreRefused) {
  void* const no_handle = nullptr;
  ZirdbOdbcResult result;
  result.error = "kept";
  std::string error = "kept";
  EXPECT_FALSE(zirdb_odbc_open("Driver=/no/driver", nullptr, nullptr));
  EXPECT_FALSE(zirdb_odbc_open("Driver=/no/driver", nullptr, &error));
  void* handle = &error;
  EXPECT_FALSE(zirdb_odbc_open("Driver=/no/driver", &handle, nullptr));
  EXPECT_EQ(handle, nullptr);
  zirdb_odbc_close(nullptr);
  EXPECT_FALSE(zirdb_odbc_execute(no_handle, "SELECT 1", &result));
  EXPECT_FALSE(zirdb_odbc_execute(no_handle, "SELECT 1", nullptr, &result));
  EXPECT_FALSE(
      zirdb_odbc_execute_internal(no_handle, "SELECT 1", nullptr, &result));
  EXPECT_FALSE(
      zirdb_odbc_execute_internal(no_handle, "SELECT 1", nullptr, nullptr));
  EXPECT_EQ(result.error, "kept");
}

// ---------------------------------------------------------------------------
// Operations
// ---------------------------------------------------------------------------

class NullPointersOfObjects : public testing::Test {
 protected:
  void SetUp() override {
    const std::string reason =
        zirdb_test::PrivateDatabase::unavailable(zirdb_test::kSqlite);
    if (!reason.empty()) GTEST_SKIP() << reason;
  }
};

template <class Interface>
InterfacePtr<Interface> as(const Object& object, REFIID riid) {
  return component::query<Interface>(object.dispatch(), riid);
}

TEST_F(NullPointersOfObjects, AreRefusedByEveryOperation) {
  const Stage stage;
  const auto connection =
      as<IZIRDBConnection>(stage.connection, IID_IZIRDBConnection);
  const auto command = as<IZIRDBCommand>(stage.command, IID_IZIRDBCommand);
  const auto rows = as<IZIRDBRecordset>(stage.rows, IID_IZIRDBRecordset);
  const auto fields = as<IZIRDBFields>(stage.fields, IID_IZIRDBFields);
  const auto field = as<IZIRDBField>(stage.field, IID_IZIRDBField);
  const auto list = as<IZIRDBParameters>(stage.list, IID_IZIRDBParameters);
  const auto parameter =
      as<IZIRDBParameter>(stage.parameter, IID_IZIRDBParameter);
  const auto factory = component::factory_of(CLSID_ZIRDBRecordset);
  _bstr_t text(L"SELECT 1");
  const VARIANT index = values::plain(VT_I8, 0);
  std::vector<Case> cases = {
      {"get_ConnectionString", E_INVALIDARG,
       [&] { return connection->get_ConnectionString(nullptr); }},
      {"Connection.get_State", E_INVALIDARG,
       [&] { return connection->get_State(nullptr); }},
      {"put_ConnectionString", component::kAlreadyOpenCode,
       [&] { return connection->put_ConnectionString(nullptr); }},
      {"Open", component::kAlreadyOpenCode,
       [&] { return connection->Open(nullptr, nullptr, nullptr, 0); }},
      {"Connection.Execute recordset", E_INVALIDARG,
       [&] { return connection->Execute(text.m_s, nullptr, 0, nullptr); }},
      {"Connection.Execute text", component::kNoTextCode,
       [&] {
         IZIRDBRecordset* out = rows.get();
         const HRESULT result = connection->Execute(nullptr, nullptr, 0, &out);
         EXPECT_EQ(out, nullptr);
         return result;
       }},
      {"get_ActiveConnection", E_INVALIDARG,
       [&] { return command->get_ActiveConnection(nullptr); }},
      {"putref_ActiveConnection", S_OK,
       [&] { return command->putref_ActiveConnection(nullptr); }},
      {"get_CommandText", E_INVALIDARG,
       [&] { return command->get_CommandText(nullptr); }},
      {"put_CommandText", S_OK,
       [&] { return command->put_CommandText(nullptr); }},
      {"get_CommandType", E_INVALIDARG,
       [&] { return command->get_CommandType(nullptr); }},
      {"CreateParameter", E_INVALIDARG,
       [&] {
         return command->CreateParameter(text.m_s, 0, 0, 0, index, nullptr);
       }},
      {"get_Parameters", E_INVALIDARG,
       [&] { return command->get_Parameters(nullptr); }},
      {"Command.Execute", E_INVALIDARG,
       [&] { return command->Execute(nullptr, 0, nullptr); }},
      {"get_Fields", E_INVALIDARG, [&] { return rows->get_Fields(nullptr); }},
      {"Recordset.get_State", E_INVALIDARG,
       [&] { return rows->get_State(nullptr); }},
      {"get_EOF", E_INVALIDARG, [&] { return rows->get_EOF(nullptr); }},
      {"get_BOF", E_INVALIDARG, [&] { return rows->get_BOF(nullptr); }},
      {"get_RecordCount", E_INVALIDARG,
       [&] { return rows->get_RecordCount(nullptr); }},
      {"Fields.get_Count", E_INVALIDARG,
       [&] { return fields->get_Count(nullptr); }},
      {"Fields.Item", E_INVALIDARG,
       [&] { return fields->Item(index, nullptr); }},
      {"Field.get_Name", E_INVALIDARG,
       [&] { return field->get_Name(nullptr); }},
      {"Field.get_Value", E_INVALIDARG,
       [&] { return field->get_Value(nullptr); }},
      {"Parameters.get_Count", E_INVALIDARG,
       [&] { return list->get_Count(nullptr); }},
      {"Parameters.Item", E_INVALIDARG,
       [&] { return list->Item(index, nullptr); }},
      {"Append", E_INVALIDARG, [&] { return list->Append(nullptr); }},
      {"Parameter.get_Name", E_INVALIDARG,
       [&] { return parameter->get_Name(nullptr); }},
      {"put_Name", S_OK, [&] { return parameter->put_Name(nullptr); }},
      {"Parameter.get_Value", E_INVALIDARG,
       [&] { return parameter->get_Value(nullptr); }},
      {"get_Type", E_INVALIDARG, [&] { return parameter->get_Type(nullptr); }},
      {"get_Direction", E_INVALIDARG,
       [&] { return parameter->get_Direction(nullptr); }},
      {"get_Size", E_INVALIDARG, [&] { return parameter->get_Size(nullptr); }},
      {"Factory.QueryInterface", E_INVALIDARG,
       [&] { return factory->QueryInterface(IID_IUnknown, nullptr); }},
      {"CreateInstance", E_INVALIDARG,
       [&] { return factory->CreateInstance(nullptr, IID_IUnknown, nullptr); }},
  };
  component::Call new_enum;
  new_enum.member = DISPID_NEWENUM;
  const component::Answer made =
      component::invoke(stage.fields.dispatch(), new_enum);
  const auto enumerator = InterfacePtr<IUnknown>::share(made.value.punkVal)
                              .query<IEnumVARIANT>(IID_IEnumVARIANT);
  zir_types::ULONG fetched = 7;
  _variant_t stored;
  cases.push_back({"Next values", E_INVALIDARG,
                   [&] { return enumerator->Next(1, nullptr, &fetched); }});
  cases.push_back({"Next fetched", S_OK,
                   [&] { return enumerator->Next(1, &stored, nullptr); }});
  cases.push_back({"Next fetched of two", E_INVALIDARG,
                   [&] { return enumerator->Next(2, &stored, nullptr); }});
  cases.push_back(
      {"Clone", E_INVALIDARG, [&] { return enumerator->Clone(nullptr); }});
  cases.push_back({"Enumerator.QueryInterface", E_INVALIDARG, [&] {
                     return enumerator->QueryInterface(IID_IUnknown, nullptr);
                   }});
  expect_all(cases);
  EXPECT_EQ(fetched, 7U);
}

TEST_F(NullPointersOfObjects, AreRefusedByWhatAllObjectsHave) {
  const Stage stage;
  for (Object Stage::*each :
       {&Stage::connection, &Stage::rows, &Stage::fields, &Stage::field,
        &Stage::command, &Stage::list, &Stage::parameter}) {
    IDispatch* const object = (stage.*each).dispatch();
    std::wstring known = L"State";
    wchar_t* names[] = {nullptr, known.data()};
    DISPID ids[] = {7, 7};
    ITypeInfo* info = nullptr;
    expect_all({
        {"QueryInterface", E_INVALIDARG,
         [&] { return object->QueryInterface(IID_IUnknown, nullptr); }},
        {"GetTypeInfoCount", E_INVALIDARG,
         [&] { return object->GetTypeInfoCount(nullptr); }},
        {"GetTypeInfo", E_NOTIMPL,
         [&] { return object->GetTypeInfo(0, 0, nullptr); }},
        {"GetTypeInfo with a place", E_NOTIMPL,
         [&] { return object->GetTypeInfo(0, 0, &info); }},
        {"GetIDsOfNames names", E_INVALIDARG,
         [&] { return object->GetIDsOfNames(IID_NULL, nullptr, 1, 0, ids); }},
        {"GetIDsOfNames ids", E_INVALIDARG,
         [&] { return object->GetIDsOfNames(IID_NULL, names, 1, 0, nullptr); }},
        {"GetIDsOfNames a name", DISP_E_UNKNOWNNAME,
         [&] { return object->GetIDsOfNames(IID_NULL, names, 2, 0, ids); }},
    });
    EXPECT_EQ(ids[0], DISPID_UNKNOWN);
    EXPECT_EQ(ids[1], 7);
  }
}

// ---------------------------------------------------------------------------
// Late-bound calls
// ---------------------------------------------------------------------------

/// Which pointers of a call are there.
struct Given {
  bool parameters;
  bool result;
  bool exception;
  bool bad_argument;
};

/// The result of a call on a fresh stage, and the code of its error.
std::pair<HRESULT, HRESULT> outcome_of(Object Stage::*which, DISPID member,
                                       WORD flags, const Given& given) {
  const Stage stage;
  DISPPARAMS none{};
  _variant_t result;
  component::Exception exception;
  UINT bad_argument = 7;
  const HRESULT code =
      (stage.*which)
          .dispatch()
          ->Invoke(member, IID_NULL, 0, flags,
                   given.parameters ? &none : nullptr,
                   given.result ? &result : nullptr,
                   given.exception ? exception.get() : nullptr,
                   given.bad_argument ? &bad_argument : nullptr);
  EXPECT_EQ(bad_argument, 7U);
  return {code, exception->scode};
}

// Whoever wants no error record and no argument's number gets the same answer,
// and no parameters are an empty list of them. Only members with a result can
// mind that there is no place for it.
TEST_F(NullPointersOfObjects, ChangeNoLateBoundAnswer) {
  const std::pair<Object Stage::*, int> classes[] = {
      {&Stage::connection, 5}, {&Stage::rows, 11},   {&Stage::fields, 1},
      {&Stage::field, 1},      {&Stage::command, 6}, {&Stage::list, 2},
      {&Stage::parameter, 4}};
  for (const auto& [which, last] : classes) {
    for (DISPID member = DISPID_NEWENUM; member <= last + 1; ++member) {
      if (member > DISPID_NEWENUM && member < DISPID_UNKNOWN) continue;
      for (const int flags : {1, 2, 4}) {
        SCOPED_TRACE(std::to_string(last) + " " + std::to_string(member) + " " +
                     std::to_string(flags));
        const auto call = [&, object = which](const Given& given) {
          return outcome_of(object, member, static_cast<WORD>(flags), given);
        };
        const auto whole = call({true, true, true, true});
        EXPECT_EQ(call({true, true, true, false}), whole);
        EXPECT_EQ(call({false, true, true, true}), whole);
        EXPECT_EQ(call({true, true, false, true}).first, whole.first);
        const auto without_result = call({true, false, true, true});
        if (without_result.first != E_INVALIDARG) {
          EXPECT_EQ(without_result, whole);
        } else {
          EXPECT_TRUE(SUCCEEDED(whole.first) ||
                      whole.first == DISP_E_EXCEPTION ||
                      whole.first == E_INVALIDARG)
              << std::hex << whole.first;
        }
        EXPECT_EQ(call({false, false, false, false}).first,
                  without_result.first);
      }
    }
  }
}

// Arguments that are counted and not there are none.
TEST_F(NullPointersOfObjects, OfArgumentsAreNoArguments) {
  const Stage stage;
  DISPPARAMS parameters = {nullptr, nullptr, 3, 3};
  _variant_t result;
  component::Exception exception;
  const auto call = [&](const Object& object, DISPID member, WORD flags) {
    return object.dispatch()->Invoke(member, IID_NULL, 0, flags, &parameters,
                                     &result, exception.get(), nullptr);
  };
  EXPECT_EQ(call(stage.connection, 0, DISPATCH_METHOD), DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(call(stage.connection, 5, DISPATCH_METHOD), DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(call(stage.connection, 1, DISPATCH_PROPERTYPUT),
            DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(call(stage.rows, 11, DISPATCH_METHOD), DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(call(stage.fields, 0, DISPATCH_METHOD), DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(call(stage.list, 2, DISPATCH_METHOD), DISP_E_BADPARAMCOUNT);
  EXPECT_EQ(call(stage.rows, 2, DISPATCH_PROPERTYGET), S_OK);
  EXPECT_EQ(result.lVal, 1);
}

// An argument that leads nowhere, for every member that takes one.
TEST_F(NullPointersOfObjects, BehindArgumentsAreRefused) {
  const Stage stage;
  const _variant_t nowhere = values::owned(values::reference_to(nullptr));
  const _variant_t no_object(static_cast<IDispatch*>(nullptr));
  const auto call = [](const Object& object, DISPID member,
                       const _variant_t& argument) {
    return component::method(object.dispatch(), member, {argument}).result;
  };
  for (const _variant_t& argument : {nowhere, no_object}) {
    SCOPED_TRACE(argument.vt);
    EXPECT_EQ(call(stage.connection, 0, argument), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(call(stage.connection, 5, argument), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(call(scripting::new_connection(), 3, argument),
              DISP_E_TYPEMISMATCH);
    EXPECT_EQ(call(stage.rows, 11, argument), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(call(stage.list, 2, argument), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(call(stage.command, 4, argument), DISP_E_TYPEMISMATCH);
    EXPECT_EQ(call(stage.fields, 0, argument), DISP_E_EXCEPTION);
    EXPECT_EQ(call(stage.list, 0, argument), DISP_E_EXCEPTION);
  }
}

}  // namespace
