// SPDX-License-Identifier: MIT
//
// What hosts were compiled against: widths, layouts, constants, identifiers,
// and which operation stands in which slot of a vtable. None of this may change
// without breaking them.
//
// Sections: types; constants; identifiers; vtables; values in registers.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "support/identifiers.h"
#include "support/slots.h"
#include "zir.h"

namespace {

using identifiers::Identifier;
using slots::kFirst;
using slots::Numbered;
using slots::slot;

// ---------------------------------------------------------------------------
// Types
// ---------------------------------------------------------------------------

template <class Type, std::size_t Bits, bool Signed>
constexpr bool kIsInteger =
    std::is_integral_v<Type> &&
    sizeof(Type) * 8 == Bits&& std::is_signed_v<Type> == Signed;

static_assert(kIsInteger<zir_types::ULONG, 32, false>);
static_assert(kIsInteger<DWORD, 32, false>);
static_assert(kIsInteger<UINT, 32, false>);
static_assert(kIsInteger<LONG, 64, true>);
static_assert(kIsInteger<HRESULT, 32, true>);
static_assert(kIsInteger<SCODE, 32, true>);
static_assert(kIsInteger<WORD, 16, false>);
static_assert(kIsInteger<USHORT, 16, false>);
static_assert(kIsInteger<VARTYPE, 16, false>);
static_assert(kIsInteger<BYTE, 8, false>);
static_assert(kIsInteger<VARIANT_BOOL, 16, true>);
static_assert(kIsInteger<BOOL, 32, true>);
static_assert(kIsInteger<LCID, 32, false>);
static_assert(kIsInteger<DISPID, 32, true>);
static_assert(std::is_same_v<DATE, double>);
static_assert(std::is_same_v<OLECHAR, wchar_t> && sizeof(OLECHAR) == 4);
static_assert(std::is_same_v<BSTR, wchar_t*>);

// Neither a constructor nor a destructor may creep in: hosts pass values in
// two registers.
static_assert(std::is_trivial_v<VARIANT>);
static_assert(std::is_standard_layout_v<VARIANT>);
static_assert(std::is_trivial_v<EXCEPINFO> && std::is_trivial_v<DISPPARAMS>);
static_assert(std::is_trivial_v<GUID> && std::is_trivial_v<SAFEARRAY>);

TEST(RuntimeLayout, RecordsHaveTheLayoutHostsWereCompiledAgainst) {
  const struct {
    const char* what;
    std::size_t actual;
    std::size_t expected;
  } rows[] = {
      {"VARIANT", sizeof(VARIANT), 16},
      {"VARIANT alignment", alignof(VARIANT), 8},
      {"VARIANT::vt", offsetof(VARIANT, vt), 0},
      {"VARIANT::wReserved1", offsetof(VARIANT, wReserved1), 2},
      {"VARIANT::wReserved2", offsetof(VARIANT, wReserved2), 4},
      {"VARIANT::wReserved3", offsetof(VARIANT, wReserved3), 6},
      {"VARIANT::llVal", offsetof(VARIANT, llVal), 8},
      {"VARIANT::lVal", offsetof(VARIANT, lVal), 8},
      {"VARIANT::iVal", offsetof(VARIANT, iVal), 8},
      {"VARIANT::bVal", offsetof(VARIANT, bVal), 8},
      {"VARIANT::boolVal", offsetof(VARIANT, boolVal), 8},
      {"VARIANT::scode", offsetof(VARIANT, scode), 8},
      {"VARIANT::dblVal", offsetof(VARIANT, dblVal), 8},
      {"VARIANT::date", offsetof(VARIANT, date), 8},
      {"VARIANT::bstrVal", offsetof(VARIANT, bstrVal), 8},
      {"VARIANT::pszVal", offsetof(VARIANT, pszVal), 8},
      {"VARIANT::punkVal", offsetof(VARIANT, punkVal), 8},
      {"VARIANT::pdispVal", offsetof(VARIANT, pdispVal), 8},
      {"VARIANT::parray", offsetof(VARIANT, parray), 8},
      {"VARIANT::pvarVal", offsetof(VARIANT, pvarVal), 8},
      {"VARIANT::byref", offsetof(VARIANT, byref), 8},
      {"_variant_t", sizeof(_variant_t), 16},
      {"_bstr_t", sizeof(_bstr_t), 8},
      {"_str_t", sizeof(_str_t), 8},
      {"_com_error", sizeof(_com_error), 4},
      {"SAFEARRAYBOUND", sizeof(SAFEARRAYBOUND), 16},
      {"SAFEARRAYBOUND::cElements", offsetof(SAFEARRAYBOUND, cElements), 0},
      {"SAFEARRAYBOUND::lLbound", offsetof(SAFEARRAYBOUND, lLbound), 8},
      {"SAFEARRAY::cDims", offsetof(SAFEARRAY, cDims), 0},
      {"SAFEARRAY::fFeatures", offsetof(SAFEARRAY, fFeatures), 2},
      {"SAFEARRAY::cbElements", offsetof(SAFEARRAY, cbElements), 4},
      {"SAFEARRAY::cLocks", offsetof(SAFEARRAY, cLocks), 8},
      {"SAFEARRAY::pvData", offsetof(SAFEARRAY, pvData), 16},
      {"SAFEARRAY::rgsabound", offsetof(SAFEARRAY, rgsabound), 24},
      {"EXCEPINFO", sizeof(EXCEPINFO), 64},
      {"EXCEPINFO::wCode", offsetof(EXCEPINFO, wCode), 0},
      {"EXCEPINFO::wReserved", offsetof(EXCEPINFO, wReserved), 2},
      {"EXCEPINFO::bstrSource", offsetof(EXCEPINFO, bstrSource), 8},
      {"EXCEPINFO::bstrDescription", offsetof(EXCEPINFO, bstrDescription), 16},
      {"EXCEPINFO::bstrHelpFile", offsetof(EXCEPINFO, bstrHelpFile), 24},
      {"EXCEPINFO::dwHelpContext", offsetof(EXCEPINFO, dwHelpContext), 32},
      {"EXCEPINFO::pvReserved", offsetof(EXCEPINFO, pvReserved), 40},
      {"EXCEPINFO::pfnDeferredFillIn", offsetof(EXCEPINFO, pfnDeferredFillIn),
       48},
      {"EXCEPINFO::scode", offsetof(EXCEPINFO, scode), 56},
      {"DISPPARAMS", sizeof(DISPPARAMS), 24},
      {"DISPPARAMS::rgvarg", offsetof(DISPPARAMS, rgvarg), 0},
      {"DISPPARAMS::rgdispidNamedArgs", offsetof(DISPPARAMS, rgdispidNamedArgs),
       8},
      {"DISPPARAMS::cArgs", offsetof(DISPPARAMS, cArgs), 16},
      {"DISPPARAMS::cNamedArgs", offsetof(DISPPARAMS, cNamedArgs), 20},
      {"GUID", sizeof(GUID), 16},
      {"GUID alignment", alignof(GUID), 4},
      {"GUID::Data1", offsetof(GUID, Data1), 0},
      {"GUID::Data2", offsetof(GUID, Data2), 4},
      {"GUID::Data3", offsetof(GUID, Data3), 6},
      {"GUID::Data4", offsetof(GUID, Data4), 8},
      {"SYSTEMTIME", sizeof(SYSTEMTIME), 16},
      {"SYSTEMTIME::wYear", offsetof(SYSTEMTIME, wYear), 0},
      {"SYSTEMTIME::wMonth", offsetof(SYSTEMTIME, wMonth), 2},
      {"SYSTEMTIME::wDayOfWeek", offsetof(SYSTEMTIME, wDayOfWeek), 4},
      {"SYSTEMTIME::wDay", offsetof(SYSTEMTIME, wDay), 6},
      {"SYSTEMTIME::wHour", offsetof(SYSTEMTIME, wHour), 8},
      {"SYSTEMTIME::wMinute", offsetof(SYSTEMTIME, wMinute), 10},
      {"SYSTEMTIME::wSecond", offsetof(SYSTEMTIME, wSecond), 12},
      {"SYSTEMTIME::wMilliseconds", offsetof(SYSTEMTIME, wMilliseconds), 14},
      {"BIND_OPTS", sizeof(BIND_OPTS), 16},
      {"BIND_OPTS::cbStruct", offsetof(BIND_OPTS, cbStruct), 0},
      {"BIND_OPTS::grfFlags", offsetof(BIND_OPTS, grfFlags), 4},
      {"BIND_OPTS::grfMode", offsetof(BIND_OPTS, grfMode), 8},
      {"BIND_OPTS::dwTickCountDeadline",
       offsetof(BIND_OPTS, dwTickCountDeadline), 12},
      {"an interface", sizeof(IUnknown), 8},
  };
  for (const auto& row : rows) EXPECT_EQ(row.actual, row.expected) << row.what;
}

TEST(RuntimeLayout, PayloadMembersHaveTheirWidths) {
  static_assert(sizeof(VARIANT::lVal) == 8 && sizeof(VARIANT::llVal) == 8);
  static_assert(sizeof(VARIANT::ullVal) == 8 && sizeof(VARIANT::ulVal) == 4);
  static_assert(sizeof(VARIANT::iVal) == 2 && sizeof(VARIANT::uiVal) == 2);
  static_assert(sizeof(VARIANT::cVal) == 1 && sizeof(VARIANT::bVal) == 1);
  static_assert(sizeof(VARIANT::boolVal) == 2 && sizeof(VARIANT::scode) == 4);
  static_assert(sizeof(VARIANT::fltVal) == 4 && sizeof(VARIANT::dblVal) == 8);
}

// ---------------------------------------------------------------------------
// Constants
// ---------------------------------------------------------------------------

TEST(RuntimeConstants, TypesHaveTheirPublishedNumbers) {
  const struct {
    VARENUM type;
    int number;
  } rows[] = {{VT_EMPTY, 0},      {VT_NULL, 1},         {VT_I2, 2},
              {VT_I4, 3},         {VT_R4, 4},           {VT_R8, 5},
              {VT_CY, 6},         {VT_DATE, 7},         {VT_BSTR, 8},
              {VT_DISPATCH, 9},   {VT_ERROR, 10},       {VT_BOOL, 11},
              {VT_VARIANT, 12},   {VT_UNKNOWN, 13},     {VT_DECIMAL, 14},
              {VT_I1, 16},        {VT_UI1, 17},         {VT_UI2, 18},
              {VT_UI4, 19},       {VT_I8, 20},          {VT_UI8, 21},
              {VT_PTR, 26},       {VT_LPSTR, 30},       {VT_ARRAY, 0x2000},
              {VT_BYREF, 0x4000}, {VT_TYPEMASK, 0x0FFF}};
  for (const auto& row : rows) EXPECT_EQ(row.type, row.number);
}

TEST(RuntimeConstants, ResultsHaveTheirPublishedBits) {
  const struct {
    HRESULT result;
    std::uint32_t bits;
  } rows[] = {
      {S_OK, 0},
      {S_FALSE, 1},
      {E_NOTIMPL, 0x80004001},
      {E_NOINTERFACE, 0x80004002},
      {E_FAIL, 0x80004005},
      {E_UNEXPECTED, 0x8000FFFF},
      {E_INVALIDARG, 0x80070057},
      {E_OUTOFMEMORY, 0x8007000E},
      {CLASS_E_NOAGGREGATION, 0x80040110},
      {CLASS_E_CLASSNOTAVAILABLE, 0x80040111},
      {CO_E_CLASSSTRING, 0x800401F3},
      {DISP_E_MEMBERNOTFOUND, 0x80020003},
      {DISP_E_TYPEMISMATCH, 0x80020005},
      {DISP_E_UNKNOWNNAME, 0x80020006},
      {DISP_E_EXCEPTION, 0x80020009},
      {DISP_E_BADINDEX, 0x8002000B},
      {DISP_E_ARRAYISLOCKED, 0x8002000D},
      {DISP_E_BADPARAMCOUNT, 0x8002000E},
      {DISP_E_DIVBYZERO, 0x80020012},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(static_cast<std::uint32_t>(row.result), row.bits);
    EXPECT_EQ(FAILED(row.result), row.bits > 0x7FFFFFFF) << row.bits;
    EXPECT_EQ(SUCCEEDED(row.result), row.bits <= 0x7FFFFFFF) << row.bits;
  }
}

TEST(RuntimeConstants, FlagsAndIdsHaveTheirPublishedNumbers) {
  EXPECT_EQ(VARIANT_TRUE, -1);
  EXPECT_EQ(VARIANT_FALSE, 0);
  EXPECT_EQ(FADF_AUTO, 0x0001);
  EXPECT_EQ(FADF_BSTR, 0x0100);
  EXPECT_EQ(FADF_VARIANT, 0x0800);
  EXPECT_EQ(DISPID_VALUE, 0);
  EXPECT_EQ(DISPID_UNKNOWN, -1);
  EXPECT_EQ(DISPID_PROPERTYPUT, -3);
  EXPECT_EQ(DISPID_NEWENUM, -4);
  EXPECT_EQ(DISPATCH_METHOD, 1);
  EXPECT_EQ(DISPATCH_PROPERTYGET, 2);
  EXPECT_EQ(DISPATCH_PROPERTYPUT, 4);
  EXPECT_EQ(DISPATCH_PROPERTYPUTREF, 8);
  EXPECT_EQ(VARCMP_LT, 0);
  EXPECT_EQ(VARCMP_EQ, 1);
  EXPECT_EQ(VARCMP_GT, 2);
}

// ---------------------------------------------------------------------------
// Identifiers
// ---------------------------------------------------------------------------

const std::vector<Identifier>& published_identifiers() {
  static const std::vector<Identifier> rows = {
      {"IID_IUnknown", IID_IUnknown, "00000000-0000-0000-C000-000000000046"},
      {"IID_IClassFactory", IID_IClassFactory,
       "00000001-0000-0000-C000-000000000046"},
      {"IID_IDispatch", IID_IDispatch, "00020400-0000-0000-C000-000000000046"},
      {"IID_IEnumVARIANT", IID_IEnumVARIANT,
       "00020404-0000-0000-C000-000000000046"},
      {"IID_IErrorInfo", IID_IErrorInfo,
       "1CF2B120-547D-101B-8E65-08002B2BD119"},
      {"IID_IContextProperties", IID_IContextProperties,
       "D396DA85-BF8F-11D1-BBAE-00C04FC2FA5F"},
      {"IID_IGetContextProperties", IID_IGetContextProperties,
       "51372AF4-CAE7-11CF-BE81-00AA00A2FA25"},
      {"IID_NULL", IID_NULL, "00000000-0000-0000-0000-000000000000"},
      {"CLSID_NULL", CLSID_NULL, "00000000-0000-0000-0000-000000000000"},
  };
  return rows;
}

TEST(RuntimeIdentifiers, EveryByteIsThePublishedOne) {
  identifiers::expect_published(published_identifiers());
}

TEST(RuntimeIdentifiers, TheLibraryExportsThem) {
  identifiers::expect_exported(published_identifiers());
}

TEST(RuntimeIdentifiers, EqualityTakesAll16Bytes) {
  EXPECT_TRUE(IID_NULL == CLSID_NULL);
  EXPECT_FALSE(IID_NULL != CLSID_NULL);
  for (std::size_t at = 0; at < 16; ++at) {
    GUID other = IID_IErrorInfo;
    void* const start = &other;
    static_cast<unsigned char*>(start)[at] ^= 1;
    EXPECT_FALSE(other == IID_IErrorInfo) << at;
    EXPECT_TRUE(other != IID_IErrorInfo) << at;
  }
}

// ---------------------------------------------------------------------------
// Vtables
//
// Each operation says its number; each slot is called without the compiler's
// knowledge of the interface.
// ---------------------------------------------------------------------------

struct Unknown final : IUnknown {
  HRESULT QueryInterface(REFIID, void**) override { return kFirst; }
  zir_types::ULONG AddRef() override { return kFirst + 1; }
  zir_types::ULONG Release() override { return kFirst + 2; }
};

struct Dispatch final : Numbered<IDispatch> {
  HRESULT GetTypeInfoCount(UINT*) override { return kFirst + 3; }
  HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return kFirst + 4; }
  HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return kFirst + 5;
  }
  HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                 UINT*) override {
    return kFirst + 6;
  }
};

struct Factory final : Numbered<IClassFactory> {
  HRESULT CreateInstance(IUnknown*, REFIID, void**) override {
    return kFirst + 3;
  }
  HRESULT LockServer(BOOL) override { return kFirst + 4; }
};

struct Enumerator final : Numbered<IEnumVARIANT> {
  HRESULT Next(zir_types::ULONG, VARIANT*, zir_types::ULONG*) override {
    return kFirst + 3;
  }
  HRESULT Skip(zir_types::ULONG) override { return kFirst + 4; }
  HRESULT Reset() override { return kFirst + 5; }
  HRESULT Clone(IEnumVARIANT**) override { return kFirst + 6; }
};

struct ErrorInfo final : Numbered<IErrorInfo> {
  HRESULT GetGUID(GUID*) override { return kFirst + 3; }
  HRESULT GetSource(BSTR*) override { return kFirst + 4; }
  HRESULT GetDescription(BSTR*) override { return kFirst + 5; }
  HRESULT GetHelpFile(BSTR*) override { return kFirst + 6; }
  HRESULT GetHelpContext(DWORD*) override { return kFirst + 7; }
};

struct ContextProperties final : Numbered<IContextProperties> {
  HRESULT Count(LONG*) override { return kFirst + 3; }
  HRESULT GetProperty(const wchar_t*, VARIANT*) override { return kFirst + 4; }
  HRESULT EnumNames(IEnumContextProps**) override { return kFirst + 5; }
  HRESULT SetProperty(const wchar_t* name, VARIANT value) override {
    received_name = name;
    received_value = value;
    return kFirst + 6;
  }
  HRESULT RemoveProperty(const wchar_t*) override { return kFirst + 7; }

  const wchar_t* received_name = nullptr;
  VARIANT received_value = {};
};

struct GetContextProperties final : Numbered<IGetContextProperties> {
  HRESULT Count(LONG*) override { return kFirst + 3; }
  HRESULT GetProperty(const wchar_t*, VARIANT*) override { return kFirst + 4; }
  HRESULT EnumNames(IEnumContextProps**) override { return kFirst + 5; }
};

TEST(RuntimeVtables, EverySlotReachesTheOperationOfItsNumber) {
  Unknown unknown;
  Dispatch dispatch;
  Factory factory;
  Enumerator enumerator;
  ErrorInfo error;
  ContextProperties context;
  GetContextProperties reading;
  slots::expect_in_order<IUnknown>(&unknown, 3);
  slots::expect_in_order<IDispatch>(&dispatch, 7);
  slots::expect_in_order<IClassFactory>(&factory, 5);
  slots::expect_in_order<IEnumVARIANT>(&enumerator, 7);
  slots::expect_in_order<IErrorInfo>(&error, 8);
  slots::expect_in_order<IContextProperties>(&context, 8);
  slots::expect_in_order<IGetContextProperties>(&reading, 6);
}

TEST(RuntimeVtables, InterfacesHaveNoVirtualDestructor) {
  EXPECT_FALSE(std::has_virtual_destructor_v<IUnknown>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IDispatch>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IClassFactory>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IEnumVARIANT>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IErrorInfo>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IContextProperties>);
  EXPECT_FALSE(std::has_virtual_destructor_v<IGetContextProperties>);
}

// ---------------------------------------------------------------------------
// Values in registers
// ---------------------------------------------------------------------------

TEST(RuntimeLayout, AVariantByValueTravelsInTwoRegisters) {
  ContextProperties context;
  const wchar_t name[] = L"name";
  const void* const name_pointer = name;
  std::uint64_t name_bits = 0;
  std::memcpy(&name_bits, &name_pointer, sizeof name_bits);
  IContextProperties* const object = &context;
  constexpr std::uint64_t kTagAndWords = 0x3333222211110014;
  using SetProperty =
      HRESULT (*)(void* object, std::uint64_t name, std::uint64_t tag_and_words,
                  std::uint64_t payload);
  const HRESULT result = slot<SetProperty>(object, 6)(
      object, name_bits, kTagAndWords, 0x0123456789ABCDEF);
  EXPECT_EQ(result, kFirst + 6);
  EXPECT_EQ(context.received_name, name);
  EXPECT_EQ(context.received_value.vt, VT_I8);
  EXPECT_EQ(context.received_value.wReserved1, 0x1111);
  EXPECT_EQ(context.received_value.wReserved2, 0x2222);
  EXPECT_EQ(context.received_value.wReserved3, 0x3333);
  EXPECT_EQ(context.received_value.llVal, 0x0123456789ABCDEF);
}

}  // namespace
