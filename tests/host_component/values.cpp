// SPDX-License-Identifier: MIT
//
// The values. Integers are written through the member that is as wide as the
// type, with ones behind it: who reads more than the type has sees them.

#include "values.h"

#include <array>
#include <cstdio>
#include <cwchar>
#include <iterator>
#include <limits>

namespace echo {
namespace {

VARIANT typed(VARTYPE type) {
  VARIANT value = {};
  value.vt = type;
  value.ullVal = std::numeric_limits<std::uint64_t>::max();
  return value;
}

template <class Payload>
VARIANT with(VARTYPE type, Payload VARIANT::*member, Payload payload) {
  VARIANT value = typed(type);
  value.*member = payload;
  return value;
}

VARIANT text(const wchar_t* units, UINT count) {
  VARIANT value = {};
  value.bstrVal = SysAllocStringLen(units, count);
  value.vt = VT_BSTR;
  return value;
}

VARIANT narrow(const char* bytes) {
  VARIANT value = {};
  value.pszVal = _str_t(bytes).Detach();
  value.vt = VT_LPSTR;
  return value;
}

template <class Target>
VARIANT by_reference(VARTYPE type, Target* target) {
  VARIANT value = {};
  value.vt = static_cast<VARTYPE>(VT_BYREF | type);
  value.byref = target;
  return value;
}

VARIANT reference_to(VARIANT* target) {
  VARIANT value = {};
  value.vt = VT_BYREF | VT_VARIANT;
  value.pvarVal = target;
  return value;
}

VARIANT of_array(VARTYPE type, SAFEARRAY* array) {
  VARIANT value = {};
  value.parray = array;
  value.vt = static_cast<VARTYPE>(VT_ARRAY | type);
  return value;
}

// 7, a text, Null, Empty, true and an array of one Null inside.
VARIANT variants() {
  SAFEARRAY* const array = SafeArrayCreateVector(VT_VARIANT, -3, 6);
  const SafeArrayAccess access(array);
  auto* const element = access.elements<VARIANT>();
  element[0] = with(VT_I2, &VARIANT::iVal, std::int16_t{7});
  element[1] = text(L"in", 2);
  element[2].vt = VT_NULL;
  element[4] = with(VT_BOOL, &VARIANT::boolVal, VARIANT_TRUE);
  SAFEARRAY* const inner = SafeArrayCreateVector(VT_VARIANT, 1, 1);
  {
    const SafeArrayAccess inside(inner);
    inside.elements<VARIANT>()->vt = VT_NULL;
  }
  element[5] = of_array(VT_VARIANT, inner);
  return of_array(VT_VARIANT, array);
}

VARIANT texts() {
  SAFEARRAY* const array = SafeArrayCreateVector(VT_BSTR, 0, 3);
  const SafeArrayAccess access(array);
  access.elements<BSTR>()[0] = SysAllocString(L"a");
  access.elements<BSTR>()[2] = SysAllocStringLen(L"b\0c", 3);
  return of_array(VT_BSTR, array);
}

VARIANT bytes() {
  SAFEARRAY* const array = SafeArrayCreateVector(VT_UI1, 5, 3);
  const SafeArrayAccess access(array);
  std::memcpy(access.elements<char>(), "\x01\x00\xFF", 3);
  return of_array(VT_UI1, array);
}

VARIANT two_dimensions() {
  std::array<SAFEARRAYBOUND, 2> bounds = {{{2, 0}, {3, 0}}};
  return of_array(VT_VARIANT, SafeArrayCreate(VT_VARIANT, 2, bounds.data()));
}

VARIANT array_of_refused() {
  SAFEARRAY* const array = SafeArrayCreateVector(VT_VARIANT, 0, 2);
  const SafeArrayAccess access(array);
  access.elements<VARIANT>()[1].vt = VT_DECIMAL;
  return of_array(VT_VARIANT, array);
}

// Where references lead.
std::int8_t g_i1 = -5;
std::int16_t g_i2 = -6;
LONG g_i4 = -(LONG{7} << 40);
std::int64_t g_i8 = -8;
BYTE g_ui1 = 250;
std::uint16_t g_ui2 = 65000;
std::uint32_t g_ui4 = 4000000000;
std::uint64_t g_ui8 = 9;
float g_r4 = 0.5F;
double g_r8 = -0.25;
VARIANT_BOOL g_bool = VARIANT_TRUE;
DATE g_date = 25570.5;
std::int64_t g_cy = 25000;
_bstr_t g_text(L"led to");
IDispatch* g_nobody = nullptr;
std::array<std::uint64_t, 2> g_decimal = {};
_variant_t g_variant(L"held");
std::array<VARIANT, 3> g_chain = {};
std::array<VARIANT, 1> g_ring = {};

VARIANT chain() {
  g_chain[2] = by_reference(VT_I2, &g_i2);
  g_chain[1] = reference_to(&g_chain[2]);
  g_chain[0] = reference_to(&g_chain[1]);
  return reference_to(&g_chain[0]);
}

VARIANT ring() {
  g_ring[0] = reference_to(&g_ring[0]);
  return reference_to(&g_ring[0]);
}

constexpr std::int64_t kTwoTo53 = std::int64_t{1} << 53;

struct Kind {
  const wchar_t* name;
  VARIANT (*make)();
};

// Beyond the last character there is none.
const std::array<wchar_t, 3> kNoCharacter = {L'a', wchar_t{0x110000}, L'b'};
const std::array<wchar_t, 3> kLoneSurrogate = {L'a', wchar_t{0xD83D}, L'b'};
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();

#define KIND(name, value)         \
  {                               \
    L##name, [] { return value; } \
  }
const Kind kKinds[] = {
    KIND("Empty", VARIANT{}),
    KIND("Null", typed(VT_NULL)),
    KIND("I1", with(VT_I1, &VARIANT::cVal, std::int8_t{-128})),
    KIND("I2", with(VT_I2, &VARIANT::iVal, std::int16_t{-32768})),
    KIND("I4", with(VT_I4, &VARIANT::lVal, LONG{-2})),
    KIND("I4Wide", with(VT_I4, &VARIANT::lVal, LONG{1} << 40)),
    KIND("UI1", with(VT_UI1, &VARIANT::bVal, BYTE{200})),
    KIND("UI2", with(VT_UI2, &VARIANT::uiVal, std::uint16_t{60000})),
    KIND("UI4", with(VT_UI4, &VARIANT::ulVal, std::uint32_t{4294967295})),
    KIND("UI8", with(VT_UI8, &VARIANT::ullVal, std::uint64_t{12})),
    KIND("UI8Large",
         with(VT_UI8, &VARIANT::ullVal, (std::uint64_t{1} << 63) + 1)),
    KIND("I8Least", with(VT_I8, &VARIANT::llVal,
                         std::numeric_limits<std::int64_t>::min())),
    KIND("I8Safe", with(VT_I8, &VARIANT::llVal, kTwoTo53 - 1)),
    KIND("I8Large", with(VT_I8, &VARIANT::llVal, kTwoTo53)),
    KIND("I8NegativeSafe", with(VT_I8, &VARIANT::llVal, 1 - kTwoTo53)),
    KIND("I8NegativeLarge", with(VT_I8, &VARIANT::llVal, -1 - kTwoTo53)),
    KIND("R4", with(VT_R4, &VARIANT::fltVal, 0.1F)),
    KIND("R8", with(VT_R8, &VARIANT::dblVal, 0.1)),
    KIND("R8Infinite", with(VT_R8, &VARIANT::dblVal,
                            -std::numeric_limits<double>::infinity())),
    KIND("CY", with(VT_CY, &VARIANT::llVal, std::int64_t{-12345})),
    KIND("True", with(VT_BOOL, &VARIANT::boolVal, VARIANT_TRUE)),
    KIND("TrueOne", with(VT_BOOL, &VARIANT::boolVal, VARIANT_BOOL{1})),
    KIND("False", with(VT_BOOL, &VARIANT::boolVal, VARIANT_FALSE)),
    KIND("Date", with(VT_DATE, &VARIANT::date, 25569.75)),
    KIND("DateZero", with(VT_DATE, &VARIANT::date, 0.0)),
    KIND("DateNegative", with(VT_DATE, &VARIANT::date, -1.25)),
    // A third of a second behind 2000-01-01 00:00.
    KIND("DateFraction",
         with(VT_DATE, &VARIANT::date, 36526.0 + 1.0 / 3 / 86400)),
    KIND("DateInvalid", with(VT_DATE, &VARIANT::date, kNotANumber)),
    KIND("Error", with(VT_ERROR, &VARIANT::scode, zir_hresult(0x80020004))),
    KIND("LPSTR", narrow("h\xC3\xA9 \xF0\x9F\x98\x80")),
    KIND("LPSTRNull", narrow(nullptr)),
    KIND("BSTR", text(L"text", 4)),
    KIND("BSTRNull", with(VT_BSTR, &VARIANT::bstrVal, BSTR{nullptr})),
    KIND("BSTRLatin", text(L"\u00E9\u00FF", 2)),
    KIND("BSTRZero", text(L"a\0b\0", 4)),
    KIND("BSTRAstral", text(L"\U0001F600\U0010FFFF\uFFFF", 3)),
    KIND("BSTRNoCharacter", text(kNoCharacter.data(), 3)),
    KIND("BSTRLoneSurrogate", text(kLoneSurrogate.data(), 3)),
    KIND("NullDispatch", with(VT_DISPATCH, &VARIANT::pdispVal, g_nobody)),
    KIND("NullUnknown",
         with(VT_UNKNOWN, &VARIANT::punkVal, static_cast<IUnknown*>(nullptr))),
    KIND("Texts", texts()),
    KIND("Variants", variants()),
    KIND("Bytes", bytes()),
    KIND("NoElements",
         of_array(VT_VARIANT, SafeArrayCreateVector(VT_VARIANT, 0, 0))),
    KIND("NoBytes", of_array(VT_UI1, SafeArrayCreateVector(VT_UI1, 0, 0))),
    KIND("TwoDimensions", two_dimensions()),
    KIND("ArrayOfRefused", array_of_refused()),
    KIND("RefI1", by_reference(VT_I1, &g_i1)),
    KIND("RefI2", by_reference(VT_I2, &g_i2)),
    KIND("RefI4", by_reference(VT_I4, &g_i4)),
    KIND("RefI8", by_reference(VT_I8, &g_i8)),
    KIND("RefUI1", by_reference(VT_UI1, &g_ui1)),
    KIND("RefUI2", by_reference(VT_UI2, &g_ui2)),
    KIND("RefUI4", by_reference(VT_UI4, &g_ui4)),
    KIND("RefUI8", by_reference(VT_UI8, &g_ui8)),
    KIND("RefR4", by_reference(VT_R4, &g_r4)),
    KIND("RefR8", by_reference(VT_R8, &g_r8)),
    KIND("RefBool", by_reference(VT_BOOL, &g_bool)),
    KIND("RefDate", by_reference(VT_DATE, &g_date)),
    KIND("RefCY", by_reference(VT_CY, &g_cy)),
    KIND("RefBSTR", by_reference(VT_BSTR, &g_text.m_s)),
    KIND("RefDispatch", by_reference(VT_DISPATCH, &g_nobody)),
    KIND("RefVariant", reference_to(&g_variant)),
    KIND("RefChain", chain()),
    KIND("RefRing", ring()),
    KIND("RefNowhere", by_reference(VT_I8, static_cast<void*>(nullptr))),
    KIND("RefVariantNowhere", reference_to(nullptr)),
    KIND("RefDecimal", by_reference(VT_DECIMAL, g_decimal.data())),
    KIND("Decimal", typed(VT_DECIMAL)),
    KIND("Variant", typed(VT_VARIANT)),
    KIND("Pointer", typed(VT_PTR)),
    KIND("Unheard", typed(15)),
};
#undef KIND

std::wstring hexadecimal(const wchar_t* format, std::uint32_t number) {
  std::array<wchar_t, 16> buffer = {};
  std::swprintf(buffer.data(), buffer.size(), format, number);
  return buffer.data();
}

std::wstring type_name(VARTYPE type) {
  switch (type) {
    case VT_EMPTY:
      return L"VT_EMPTY";
    case VT_NULL:
      return L"VT_NULL";
    case VT_I8:
      return L"VT_I8";
    case VT_R8:
      return L"VT_R8";
    case VT_BOOL:
      return L"VT_BOOL";
    case VT_DATE:
      return L"VT_DATE";
    case VT_BSTR:
      return L"VT_BSTR";
    case VT_DISPATCH:
      return L"VT_DISPATCH";
    case VT_UNKNOWN:
      return L"VT_UNKNOWN";
    case VT_VARIANT:
      return L"VT_VARIANT";
    case VT_UI1:
      return L"VT_UI1";
    default:
      return L"type " + std::to_wstring(type);
  }
}

std::wstring number(double value) {
  std::array<wchar_t, 40> buffer = {};
  std::swprintf(buffer.data(), buffer.size(), L" %.17g", value);
  return buffer.data();
}

std::wstring described_array(const VARIANT& value) {
  const auto type = static_cast<VARTYPE>(value.vt & VT_TYPEMASK);
  std::wstring words = L"VT_ARRAY|" + type_name(type);
  SAFEARRAY* const array = value.parray;
  if (array == nullptr) return words + L" NULL";
  if (array->cDims != 1) return words + L" of several dimensions";
  words += L" from " + std::to_wstring(array->rgsabound[0].lLbound);
  const SafeArrayAccess access(array);
  if (FAILED(access.result())) return words + L" locked";
  for (std::uint32_t i = 0; i < array->rgsabound[0].cElements; ++i) {
    if (type == VT_UI1) {
      words += hexadecimal(L" %02X", access.elements<BYTE>()[i]);
    } else if (type == VT_VARIANT) {
      words += L" {" + described(access.elements<VARIANT>()[i]) + L"}";
    }
  }
  return words;
}

}  // namespace

std::wstring code_text(HRESULT code) {
  return hexadecimal(L"0x%08X", static_cast<std::uint32_t>(code));
}

int kind_of(const wchar_t* name) {
  int place = 0;
  for (const Kind& kind : kKinds) {
    if (std::wcscmp(kind.name, name) == 0) return place;
    ++place;
  }
  return -1;
}

VARIANT make_value(int kind) { return kKinds[kind].make(); }

std::wstring described(const VARIANT& value) {
  if (value.vt == (VT_BYREF | VT_VARIANT)) {
    return L"VT_BYREF|VT_VARIANT -> " + described(*value.pvarVal);
  }
  if ((value.vt & VT_ARRAY) != 0) return described_array(value);
  std::wstring words = type_name(value.vt);
  switch (value.vt) {
    case VT_I8:
      return words + L" " + std::to_wstring(value.llVal);
    case VT_R8:
      return words + number(value.dblVal);
    case VT_DATE:
      return words + number(value.date);
    case VT_BOOL:
      return words + L" " + std::to_wstring(value.boolVal);
    case VT_BSTR:
      if (value.bstrVal == nullptr) return words + L" NULL";
      for (UINT i = 0; i < SysStringLen(value.bstrVal); ++i) {
        words += hexadecimal(L" U+%04X",
                             static_cast<std::uint32_t>(value.bstrVal[i]));
      }
      return words;
    default:
      return words;
  }
}

}  // namespace echo
