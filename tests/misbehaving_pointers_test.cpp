// SPDX-License-Identifier: MIT
//
// NULL in every place where a host passes a pointer and may pass NULL, in turn:
// in every function that is exported, in every operation of every object, and
// in every late-bound call of every member.
//
// Some functions are given a record to fill, to clear or to read and have no
// answer for NULL; they must not be called with it, and are not here:
// VariantInit, VariantClear, VariantCopy, VariantChangeType, ExcepinfoInit,
// ExcepinfoClear, ExcepinfoCopy, GetLocalTime, SystemTimeToVariantTime,
// VariantTimeToSystemTime, double_tm.
//
// Sections: exported functions; operations; late-bound calls.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
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
      {"CLSIDFromString text", E_NOTIMPL,
       [&] { return CLSIDFromString(nullptr, &clsid); }},
      {"CLSIDFromString clsid", E_NOTIMPL,
       [&] { return CLSIDFromString(name, nullptr); }},
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

// Without bounds an array has no elements, whatever its dimensions.
TEST(NullPointers, OfBoundsAreNoElements) {
  for (const UINT dimensions : {0U, 1U, 3U}) {
    SAFEARRAY* const array = SafeArrayCreate(VT_BSTR, dimensions, nullptr);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array->cDims, dimensions);
    EXPECT_EQ(SafeArrayDestroy(array), S_OK);
  }
}

/// The library under the names that activation looks for.
class Registry {
 public:
  Registry() {
    Dl_info library{};
    EXPECT_NE(dladdr(reinterpret_cast<void*>(&DllGetClassObject), &library), 0);
    wchar_t id[39];
    EXPECT_EQ(StringFromGUID2(CLSID_ZIRDBConnection, id, 39), 39);
    std::string by_id = scripting::utf8(id);
    for (char& each : by_id) {
      each = static_cast<char>(std::toupper(static_cast<unsigned char>(each)));
    }
    for (const std::string& name : {std::string("ZIRDB"), by_id}) {
      std::filesystem::create_symlink(
          std::filesystem::canonical(library.dli_fname),
          folder_.path() + "/" + name + ".so");
    }
    setenv("REGISTRY", folder_.path().c_str(), 1);
  }
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;
  ~Registry() { unsetenv("REGISTRY"); }

 private:
  zirdb_test::TemporaryFolder folder_;
};

TEST(NullPointers, InPlaceOfTheObjectAreRefusedByActivation) {
  const Registry registry;
  const auto by_id = [](void** object) {
    return CoCreateInstance(CLSID_ZIRDBConnection, nullptr, 1, IID_IUnknown,
                            object);
  };
  const auto by_name = [](void** object) {
    return CoCreateInstanceByName(L"ZIRDB.Connection", nullptr, 1, IID_IUnknown,
                                  object);
  };
  const auto by_moniker = [](void** object) {
    return CoGetObject(L"new:ZIRDB.Connection", nullptr, IID_IUnknown, object);
  };
  EXPECT_EQ(by_id(nullptr), E_INVALIDARG);
  EXPECT_EQ(by_name(nullptr), E_INVALIDARG);
  EXPECT_EQ(by_moniker(nullptr), E_FAIL);
  for (HRESULT (*const made)(void**) : {+by_id, +by_name, +by_moniker}) {
    InterfacePtr<IUnknown> object;
    EXPECT_EQ(object.receive(made), S_OK);
  }
}

TEST(NullPointers, OfTheContextAreRefused) {
  ASSERT_EQ(CoInitializeEx(nullptr, 0), S_OK);
  InterfacePtr<IContextProperties> context;
  ASSERT_EQ(context.receive([](void** out) {
    return CoGetObjectContext(IID_IContextProperties, out);
  }),
            S_OK);
  const VARIANT value = values::plain(VT_I8, 7);
  _variant_t found(1);
  IContextProperties& properties = *context.get();
  EXPECT_EQ(properties.SetProperty(L"name", value), S_OK);
  EXPECT_THROW(properties.SetProperty(nullptr, value), std::logic_error);
  EXPECT_THROW(properties.GetProperty(nullptr, &found), std::logic_error);
  expect_all({
      {"QueryInterface", E_NOTIMPL,
       [&] { return properties.QueryInterface(IID_IUnknown, nullptr); }},
      {"Count", E_NOTIMPL, [&] { return properties.Count(nullptr); }},
      {"GetProperty", E_INVALIDARG,
       [&] { return properties.GetProperty(L"name", nullptr); }},
      {"GetProperty of an unknown name", E_FAIL,
       [&] { return properties.GetProperty(L"none", nullptr); }},
      {"EnumNames", E_NOTIMPL, [&] { return properties.EnumNames(nullptr); }},
      {"RemoveProperty", E_NOTIMPL,
       [&] { return properties.RemoveProperty(nullptr); }},
  });
  EXPECT_EQ(found.llVal, 1);
  EXPECT_EQ(properties.GetProperty(L"name", &found), S_OK);
  EXPECT_EQ(found.llVal, 7);
  CoUninitialize();
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

/// The calls of one class, without arguments, that succeed only when there is a
/// place for their result.
struct CallsForAResult {
  Object Stage::*object;
  DISPID last;  ///< member
  std::vector<std::pair<DISPID, int>> members_and_flags;
};

const std::vector<CallsForAResult>& calls_for_a_result() {
  constexpr int kMethod = DISPATCH_METHOD;
  constexpr int kGet = DISPATCH_PROPERTYGET;
  static const std::vector<CallsForAResult> kCalls = {
      {&Stage::connection, 5, {{1, kGet}, {2, kGet}}},
      {&Stage::rows,
       11,
       {{0, kGet}, {1, kGet}, {2, kGet}, {3, kGet}, {4, kGet}, {7, kGet}}},
      {&Stage::fields,
       1,
       {{DISPID_NEWENUM, kMethod}, {DISPID_NEWENUM, kGet}, {1, kGet}}},
      {&Stage::field, 1, {{0, kGet}, {1, kGet}}},
      {&Stage::command,
       6,
       {{1, kGet},
        {2, kGet},
        {3, kMethod},
        {3, kGet},
        {4, kMethod},
        {5, kGet},
        {6, kGet}}},
      {&Stage::list, 2, {{1, kGet}}},
      {&Stage::parameter,
       4,
       {{0, kGet}, {1, kGet}, {2, kGet}, {3, kGet}, {4, kGet}}},
  };
  return kCalls;
}

// Whoever wants no error record and no argument's number gets the same answer,
// and no parameters are an empty list of them. Only calls for a result mind
// that there is no place for it.
TEST_F(NullPointersOfObjects, ChangeNoLateBoundAnswer) {
  using Outcome = std::pair<HRESULT, HRESULT>;
  for (const CallsForAResult& each : calls_for_a_result()) {
    for (DISPID member = DISPID_NEWENUM; member <= each.last + 1; ++member) {
      if (member > DISPID_NEWENUM && member < DISPID_UNKNOWN) continue;
      for (const int flags :
           {DISPATCH_METHOD, DISPATCH_PROPERTYGET, DISPATCH_PROPERTYPUT}) {
        SCOPED_TRACE(std::to_string(each.last) + " " + std::to_string(member) +
                     " " + std::to_string(flags));
        const auto call = [&](const Given& given) {
          return outcome_of(each.object, member, static_cast<WORD>(flags),
                            given);
        };
        const bool minds =
            std::count(each.members_and_flags.begin(),
                       each.members_and_flags.end(),
                       std::pair<DISPID, int>(member, flags)) != 0;
        const Outcome whole = call({true, true, true, true});
        EXPECT_TRUE(!minds || whole == Outcome(S_OK, S_OK));
        EXPECT_EQ(call({true, true, true, false}), whole);
        EXPECT_EQ(call({false, true, true, true}), whole);
        EXPECT_EQ(call({true, true, false, true}).first, whole.first);
        const Outcome without_result =
            minds ? Outcome(E_INVALIDARG, S_OK) : whole;
        EXPECT_EQ(call({true, false, true, true}), without_result);
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
