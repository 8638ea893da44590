// SPDX-License-Identifier: MIT
//
// zir: the Automation runtime. Strings, variants, arrays, coercion, operators,
// dates, activation and object context for Linux, under their standard names
// and with C linkage, so that a host links this library and has them all.
//
// Sections: base types; result codes; identifiers; strings; records;
// interfaces; variants and arrays; coercion and dates; operators; activation;
// object context; owners.
//
// Ideas that carry the rest:
//  - wchar_t is 32 bits and holds UTF-32. LONG is 64 bits, so a VT_I4 carries a
//    64-bit value; ULONG, DWORD, UINT, DISPID and HRESULT are 32 bits.
//  - Whoever receives a string, an array or an interface through a result or an
//    out-parameter owns it. Strings and arrays live in malloc's memory.
//  - Functions fail by result. What the runtime leaves unimplemented on purpose
//    also says so, one line on standard output, called a stub line below:
//      ###FUNCTION: Implement here 'zir' line N. (DETAIL)
//    FUNCTION, N and DETAIL are fixed per case. Input that is merely bad prints
//    nothing.
//  - Nothing is locked. A value, array or object belongs to one thread at a
//    time; the object context and the error object are kept per thread.
//
// This header may be included before or after the ODBC headers.

#ifndef ZIR_H
#define ZIR_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <type_traits>
#include <utility>

#ifndef ZIRDB_API
#define ZIRDB_API __attribute__((visibility("default")))
#endif
#ifndef ZIRDB_INTERNAL
#define ZIRDB_INTERNAL __attribute__((visibility("hidden")))
#endif

// ---------------------------------------------------------------------------
// Base types
// ---------------------------------------------------------------------------

using BYTE = unsigned char;
using WORD = std::uint16_t;
using USHORT = std::uint16_t;
using UINT = std::uint32_t;
using DWORD = std::uint32_t;
using LONG = std::int64_t;
using LCID = std::uint32_t;   ///< locale id; ignored throughout
using DISPID = std::int32_t;  ///< member id of IDispatch
using HRESULT = std::int32_t;
using SCODE = std::int32_t;
using VARTYPE = std::uint16_t;  ///< a VARENUM value with its flags
using VARIANT_BOOL = std::int16_t;
using DATE = double;  ///< days since 1899-12-30 00:00, linear below 0 too
using OLECHAR = wchar_t;
using LPOLESTR = wchar_t*;
using LPCOLESTR = const wchar_t*;
using BSTR = wchar_t*;
using HMODULE = void*;

#ifndef BOOL  // the ODBC headers make it a macro for int
using BOOL = int;
#endif

/// The ODBC headers have a ULONG too, of 64 bits. Include both, and the plain
/// name is ambiguous, so that the compiler asks which one is meant instead of
/// the order of two lines deciding it: say zir_types::ULONG or std::uint32_t.
namespace zir_types {
using ULONG = std::uint32_t;
}
using namespace zir_types;

static_assert(sizeof(wchar_t) == 4 && sizeof(void*) == 8, "Linux on x86-64");
static_assert(sizeof(LONG) == 8 && sizeof(DISPID) == 4 && sizeof(BOOL) == 4);

constexpr VARIANT_BOOL VARIANT_TRUE = -1;
constexpr VARIANT_BOOL VARIANT_FALSE = 0;

// ---------------------------------------------------------------------------
// Result codes
// ---------------------------------------------------------------------------

constexpr HRESULT S_OK = 0;
constexpr HRESULT S_FALSE = 1;

/// The result code with these 32 bits.
constexpr HRESULT zir_hresult(std::uint32_t bits) {
  return static_cast<HRESULT>(bits);
}

constexpr HRESULT E_NOTIMPL = zir_hresult(0x80004001);
constexpr HRESULT E_NOINTERFACE = zir_hresult(0x80004002);
constexpr HRESULT E_FAIL = zir_hresult(0x80004005);
constexpr HRESULT E_UNEXPECTED = zir_hresult(0x8000FFFF);
constexpr HRESULT E_OUTOFMEMORY = zir_hresult(0x8007000E);
constexpr HRESULT E_INVALIDARG = zir_hresult(0x80070057);
constexpr HRESULT CLASS_E_NOAGGREGATION = zir_hresult(0x80040110);
constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = zir_hresult(0x80040111);
constexpr HRESULT CO_E_CLASSSTRING = zir_hresult(0x800401F3);
constexpr HRESULT DISP_E_MEMBERNOTFOUND = zir_hresult(0x80020003);
constexpr HRESULT DISP_E_TYPEMISMATCH = zir_hresult(0x80020005);
constexpr HRESULT DISP_E_UNKNOWNNAME = zir_hresult(0x80020006);
constexpr HRESULT DISP_E_EXCEPTION = zir_hresult(0x80020009);
constexpr HRESULT DISP_E_BADINDEX = zir_hresult(0x8002000B);
constexpr HRESULT DISP_E_ARRAYISLOCKED = zir_hresult(0x8002000D);
constexpr HRESULT DISP_E_BADPARAMCOUNT = zir_hresult(0x8002000E);
constexpr HRESULT DISP_E_DIVBYZERO = zir_hresult(0x80020012);

constexpr bool SUCCEEDED(HRESULT result) { return result >= 0; }
constexpr bool FAILED(HRESULT result) { return result < 0; }

// ---------------------------------------------------------------------------
// Identifiers
// ---------------------------------------------------------------------------

struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};
static_assert(sizeof(GUID) == 16 && alignof(GUID) == 4);

using CLSID = GUID;
using IID = GUID;
using REFGUID = const GUID&;
using REFCLSID = const CLSID&;
using REFIID = const IID&;

inline bool operator==(REFGUID left, REFGUID right) noexcept {
  return std::memcmp(&left, &right, sizeof(GUID)) == 0;
}
inline bool operator!=(REFGUID left, REFGUID right) noexcept {
  return !(left == right);
}

extern "C" {
/// {00000000-0000-0000-C000-000000000046}
extern ZIRDB_API const IID IID_IUnknown;
/// {00000001-0000-0000-C000-000000000046}
extern ZIRDB_API const IID IID_IClassFactory;
/// {00020400-0000-0000-C000-000000000046}
extern ZIRDB_API const IID IID_IDispatch;
/// {00020404-0000-0000-C000-000000000046}
extern ZIRDB_API const IID IID_IEnumVARIANT;
/// {1CF2B120-547D-101B-8E65-08002B2BD119}
extern ZIRDB_API const IID IID_IErrorInfo;
/// {D396DA85-BF8F-11D1-BBAE-00C04FC2FA5F}
extern ZIRDB_API const IID IID_IContextProperties;
/// {51372AF4-CAE7-11CF-BE81-00AA00A2FA25}
extern ZIRDB_API const IID IID_IGetContextProperties;
/// All zero.
extern ZIRDB_API const IID IID_NULL;
/// All zero; asks DllGetClassObject for a class by name.
extern ZIRDB_API const CLSID CLSID_NULL;
}

// ---------------------------------------------------------------------------
// Strings
//
// A BSTR points at the first character of a malloc block; the 8 bytes in front
// hold the count of characters, behind the last one stands a zero. Zeros may
// stand inside. NULL is a valid empty string.
// ---------------------------------------------------------------------------

extern "C" {

/// A copy of a zero-terminated text. NULL for NULL, and without memory. The
/// caller frees it with SysFreeString.
ZIRDB_API BSTR SysAllocString(const wchar_t* text);

/// A copy of `count` units, zeros included. With a NULL `units` only the first
/// unit and the terminator are written (as zeros). NULL without memory and for
/// the count 0xFFFFFFFF.
ZIRDB_API BSTR SysAllocStringLen(const wchar_t* units, UINT count);

/// A string of `count` bytes: its stored count is that of the bytes, and there
/// is NO terminator, so it must not go where a text is read. With a NULL
/// `bytes` they are left unwritten. NULL without memory.
ZIRDB_API BSTR SysAllocStringByteLen(const char* bytes, UINT count);

/// The stored count (its low 32 bits): characters, or bytes for a string made
/// by SysAllocStringByteLen. 0 for NULL.
ZIRDB_API unsigned int SysStringLen(BSTR string);

/// The same number as SysStringLen. Deliberate: it is not multiplied by the
/// size of a character.
ZIRDB_API unsigned int SysStringByteLen(BSTR string);

/// Frees a string of these allocators; NULL is ignored.
ZIRDB_API void SysFreeString(BSTR string);

// The converters. Sources are zero-terminated, NULL reads as "". A capacity of
// 0 or a NULL destination measures: nothing is written.

/// UTF-8 to UTF-32: units with the terminator. A text that does not fit is cut,
/// terminated in the last unit, and the capacity is returned; what lies behind
/// the cut is not judged. 0 for a missing or stray continuation byte or a byte
/// F8 to FF; what was written before it stays, unterminated. Overlong forms,
/// encoded surrogates and values up to 1FFFFF pass.
ZIRDB_API std::size_t utf8_utf32(wchar_t* destination, std::size_t capacity,
                                 const char* source);

/// UTF-32 to UTF-8: always the bytes that the whole text needs, with the
/// terminator. Characters are written while they fit in front of a terminator;
/// on a cut the last byte of the buffer becomes zero and those between are left
/// unwritten. No value is rejected: surrogates take three bytes, values above
/// FFFF four.
ZIRDB_API std::size_t utf32_utf8(char* destination, std::size_t capacity,
                                 const wchar_t* source);

/// UTF-16 to UTF-32, unit by unit, cut and counted as by utf8_utf32. 0 at a
/// high surrogate (D800 to DBFF): pairs are not combined. A low one is copied.
ZIRDB_API std::size_t utf16_utf32(wchar_t* destination, std::size_t capacity,
                                  const std::uint16_t* source);

/// UTF-32 to UTF-16, unit by unit, cut and counted as by utf8_utf32. 0 at a
/// unit above 7FFF. Deliberate: the range ends there, and no pairs are made.
ZIRDB_API std::size_t utf32_utf16(std::uint16_t* destination,
                                  std::size_t capacity, const wchar_t* source);

}  // extern "C"

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------

struct IUnknown;
struct IDispatch;
struct SAFEARRAY;

/// Type of a VARIANT's payload, and the flags that go with it.
enum VARENUM : VARTYPE {
  VT_EMPTY = 0,
  VT_NULL = 1,
  VT_I2 = 2,
  VT_I4 = 3,
  VT_R4 = 4,
  VT_R8 = 5,
  VT_CY = 6,
  VT_DATE = 7,
  VT_BSTR = 8,
  VT_DISPATCH = 9,
  VT_ERROR = 10,
  VT_BOOL = 11,
  VT_VARIANT = 12,
  VT_UNKNOWN = 13,
  VT_DECIMAL = 14,
  VT_I1 = 16,
  VT_UI1 = 17,
  VT_UI2 = 18,
  VT_UI4 = 19,
  VT_I8 = 20,
  VT_UI8 = 21,
  VT_PTR = 26,
  VT_LPSTR = 30,
  VT_ARRAY = 0x2000,
  VT_BYREF = 0x4000,
  VT_TYPEMASK = 0x0FFF
};

/// One tagged value. Owns, by its exact `vt`: a BSTR; a malloc'ed VT_LPSTR; one
/// reference of a VT_DISPATCH or VT_UNKNOWN; the SAFEARRAY of any type with
/// VT_ARRAY. Anything else owns nothing. Must begin as VT_EMPTY (VariantInit)
/// and end in VariantClear. Trivial, so that it is passed by value in two
/// registers.
struct VARIANT {
  VARTYPE vt;
  WORD wReserved1;
  WORD wReserved2;
  WORD wReserved3;
  union {
    std::int64_t llVal;    ///< VT_I8; also the whole payload as an integer
    LONG lVal;             ///< VT_I4: all 64 bits
    std::uint64_t ullVal;  ///< VT_UI8
    std::uint32_t ulVal;   ///< VT_UI4
    std::int16_t iVal;     ///< VT_I2
    std::uint16_t uiVal;   ///< VT_UI2
    std::int8_t cVal;      ///< VT_I1
    BYTE bVal;             ///< VT_UI1
    VARIANT_BOOL boolVal;
    SCODE scode;  ///< VT_ERROR
    float fltVal;
    double dblVal;
    DATE date;
    BSTR bstrVal;
    char* pszVal;  ///< VT_LPSTR: UTF-8
    IUnknown* punkVal;
    IDispatch* pdispVal;
    SAFEARRAY* parray;
    VARIANT* pvarVal;  ///< VT_BYREF | VT_VARIANT
    void* byref;       ///< VT_BYREF with another type
  };
};
using VARIANTARG = VARIANT;
static_assert(sizeof(VARIANT) == 16 && offsetof(VARIANT, llVal) == 8);
static_assert(offsetof(VARIANT, wReserved1) == 2 &&
              offsetof(VARIANT, wReserved3) == 6);
static_assert(std::is_trivial_v<VARIANT>);

/// One dimension of an array.
struct SAFEARRAYBOUND {
  zir_types::ULONG cElements;
  LONG lLbound;
};
static_assert(sizeof(SAFEARRAYBOUND) == 16 &&
              offsetof(SAFEARRAYBOUND, lLbound) == 8);

constexpr USHORT FADF_AUTO = 0x0001;  ///< freed whole by SafeArrayDestroy
constexpr USHORT FADF_BSTR = 0x0100;
constexpr USHORT FADF_VARIANT = 0x0800;

/// An array. `rgsabound` goes on behind the struct: cDims bounds in the order
/// of their creation (not reversed), then one of zeros.
struct SAFEARRAY {
  USHORT cDims;
  USHORT fFeatures;
  zir_types::ULONG cbElements;  ///< bytes of one element
  zir_types::ULONG cLocks;      ///< 1 while its data are accessed, else 0
  void* pvData;
  SAFEARRAYBOUND rgsabound[1];
};
static_assert(sizeof(SAFEARRAY) == 40 && offsetof(SAFEARRAY, fFeatures) == 2 &&
              offsetof(SAFEARRAY, cbElements) == 4 &&
              offsetof(SAFEARRAY, cLocks) == 8 &&
              offsetof(SAFEARRAY, pvData) == 16 &&
              offsetof(SAFEARRAY, rgsabound) == 24);

/// What a failed IDispatch::Invoke says. Owns its three strings.
struct EXCEPINFO {
  WORD wCode;  ///< 0 when scode is used
  WORD wReserved;
  BSTR bstrSource;
  BSTR bstrDescription;
  BSTR bstrHelpFile;
  DWORD dwHelpContext;
  void* pvReserved;
  HRESULT (*pfnDeferredFillIn)(EXCEPINFO*);  ///< never called by the runtime
  SCODE scode;
};
static_assert(sizeof(EXCEPINFO) == 64 && offsetof(EXCEPINFO, wReserved) == 2 &&
              offsetof(EXCEPINFO, bstrSource) == 8 &&
              offsetof(EXCEPINFO, bstrDescription) == 16 &&
              offsetof(EXCEPINFO, bstrHelpFile) == 24 &&
              offsetof(EXCEPINFO, dwHelpContext) == 32 &&
              offsetof(EXCEPINFO, pvReserved) == 40 &&
              offsetof(EXCEPINFO, pfnDeferredFillIn) == 48 &&
              offsetof(EXCEPINFO, scode) == 56);

extern "C" {

/// Zeroes every field and frees nothing: for a fresh record.
ZIRDB_API void ExcepinfoInit(EXCEPINFO* info);

/// Frees the three strings and zeroes every field. The record must have been
/// initialised. Always S_OK.
ZIRDB_API HRESULT ExcepinfoClear(EXCEPINFO* info);

/// Clears `destination`, then copies `source`, its strings up to their first
/// zero; a string for which there is no memory becomes NULL. Copying a record
/// onto itself clears it. Always S_OK.
ZIRDB_API HRESULT ExcepinfoCopy(EXCEPINFO* destination, EXCEPINFO* source);

}  // extern "C"

/// Arguments of IDispatch::Invoke, last one first: the first that the caller
/// wrote is rgvarg[cArgs - 1].
struct DISPPARAMS {
  VARIANT* rgvarg;
  DISPID* rgdispidNamedArgs;
  UINT cArgs;
  UINT cNamedArgs;
};
static_assert(sizeof(DISPPARAMS) == 24 &&
              offsetof(DISPPARAMS, rgdispidNamedArgs) == 8 &&
              offsetof(DISPPARAMS, cArgs) == 16 &&
              offsetof(DISPPARAMS, cNamedArgs) == 20);

constexpr DISPID DISPID_VALUE = 0;  ///< the default member
constexpr DISPID DISPID_UNKNOWN = -1;
constexpr DISPID DISPID_PROPERTYPUT = -3;
constexpr DISPID DISPID_NEWENUM = -4;

constexpr WORD DISPATCH_METHOD = 1;
constexpr WORD DISPATCH_PROPERTYGET = 2;
constexpr WORD DISPATCH_PROPERTYPUT = 4;
constexpr WORD DISPATCH_PROPERTYPUTREF = 8;

struct SYSTEMTIME {
  WORD wYear;
  WORD wMonth;      ///< 1 to 12
  WORD wDayOfWeek;  ///< 0 is Sunday
  WORD wDay;
  WORD wHour;
  WORD wMinute;
  WORD wSecond;
  WORD wMilliseconds;
};
static_assert(sizeof(SYSTEMTIME) == 16);

/// Accepted and ignored by CoGetObject.
struct BIND_OPTS {
  DWORD cbStruct;
  DWORD grfFlags;
  DWORD grfMode;
  DWORD dwTickCountDeadline;
};
static_assert(sizeof(BIND_OPTS) == 16);

// ---------------------------------------------------------------------------
// Interfaces
//
// The order of the operations is that of the vtable slots. Destructors are
// protected and not virtual, so that they take no slot: an object is let go by
// Release alone.
// ---------------------------------------------------------------------------

struct ITypeInfo;          // never handed out
struct IEnumContextProps;  // never handed out

/// What every object answers.
struct IUnknown {
  /// Stores the interface `riid` through `object`, with one reference for the
  /// caller, and returns S_OK; otherwise stores NULL and returns E_NOINTERFACE.
  virtual HRESULT QueryInterface(REFIID riid, void** object) = 0;
  /// Takes one reference; the new count.
  virtual zir_types::ULONG AddRef() = 0;
  /// Drops one reference, the last of which destroys the object; the new count.
  virtual zir_types::ULONG Release() = 0;

 protected:
  ~IUnknown() = default;
};

/// Late binding: names to ids, ids to operations.
struct IDispatch : IUnknown {
  /// Stores 1 when there is type information and 0 otherwise.
  virtual HRESULT GetTypeInfoCount(UINT* count) = 0;
  /// Stores type information for the caller to release; NULL and E_NOTIMPL from
  /// an object that has none.
  virtual HRESULT GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) = 0;
  /// Stores the id of each of `count` member names; DISP_E_UNKNOWNNAME, with
  /// DISPID_UNKNOWN in its place, for one that is not known. `riid` must be
  /// IID_NULL.
  virtual HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count,
                                LCID lcid, DISPID* ids) = 0;
  /// Calls a member. `flags` is one or more of DISPATCH_*. The arguments stay
  /// the caller's, and so does what comes back: `result` (initialised by the
  /// callee) and, after DISP_E_EXCEPTION, the strings of `exception`.
  /// `exception` and `bad_argument` may be NULL, and `result` where nothing is
  /// read; an `exception` comes initialised, because it may be cleared first.
  virtual HRESULT Invoke(DISPID member, REFIID riid, LCID lcid, WORD flags,
                         DISPPARAMS* parameters, VARIANT* result,
                         EXCEPINFO* exception, UINT* bad_argument) = 0;

 protected:
  ~IDispatch() = default;
};

/// Makes objects of one class.
struct IClassFactory : IUnknown {
  /// Makes an object and stores its interface `riid` through `object`, with one
  /// reference for the caller. CLASS_E_NOAGGREGATION with an `outer` that the
  /// class does not take.
  virtual HRESULT CreateInstance(IUnknown* outer, REFIID riid,
                                 void** object) = 0;
  /// Keeps the component in use while locked; not zero locks, zero unlocks.
  virtual HRESULT LockServer(BOOL lock) = 0;

 protected:
  ~IClassFactory() = default;
};

/// Walks a collection.
struct IEnumVARIANT : IUnknown {
  /// Stores up to `count` values, which become the caller's, and, unless it is
  /// NULL, their number. S_OK for all of them, S_FALSE for fewer.
  virtual HRESULT Next(zir_types::ULONG count, VARIANT* values,
                       zir_types::ULONG* fetched) = 0;
  /// Goes past `count` values: S_OK, or S_FALSE when there were fewer.
  virtual HRESULT Skip(zir_types::ULONG count) = 0;
  /// Begins again.
  virtual HRESULT Reset() = 0;
  /// Stores another enumerator at the same place, with one reference for the
  /// caller.
  virtual HRESULT Clone(IEnumVARIANT** clone) = 0;

 protected:
  ~IEnumVARIANT() = default;
};

/// An error object, as SetErrorInfo keeps it; the runtime never calls these.
/// Strings that they store become the caller's.
struct IErrorInfo : IUnknown {
  /// The interface in which the error arose.
  virtual HRESULT GetGUID(GUID* interface_id) = 0;
  /// The class that raised it.
  virtual HRESULT GetSource(BSTR* source) = 0;
  /// What went wrong, for people.
  virtual HRESULT GetDescription(BSTR* description) = 0;
  /// Where there is help, and which page of it.
  virtual HRESULT GetHelpFile(BSTR* help_file) = 0;
  virtual HRESULT GetHelpContext(DWORD* help_context) = 0;

 protected:
  ~IErrorInfo() = default;
};

/// The named values of a thread's object context. Names are compared exactly.
/// A NULL name raises std::logic_error, a lack of memory std::bad_alloc.
/// Deliberate: QueryInterface answers E_NOTIMPL and stores nothing;
/// CoGetObjectContext is the way to this interface.
struct IContextProperties : IUnknown {
  /// Not implemented: a stub line (285, no detail) and E_NOTIMPL.
  virtual HRESULT Count(LONG* count) = 0;
  /// Clears `value`, which must have been initialised, and copies the property
  /// into it. E_FAIL for an unknown name, with `value` untouched.
  virtual HRESULT GetProperty(const wchar_t* name, VARIANT* value) = 0;
  /// Not implemented: a stub line (296, no detail) and E_NOTIMPL.
  virtual HRESULT EnumNames(IEnumContextProps** names) = 0;
  /// Adds or replaces a property by a copy (VariantCopy's) of `value`, which
  /// stays the caller's. Always S_OK.
  virtual HRESULT SetProperty(const wchar_t* name, VARIANT value) = 0;
  /// Not implemented: a stub line (303, the name) and E_NOTIMPL.
  virtual HRESULT RemoveProperty(const wchar_t* name) = 0;

 protected:
  ~IContextProperties() = default;
};

/// The reading half of IContextProperties, under the same contracts. A context
/// is handed out as one pointer for both; C++ callers hold it as the larger
/// interface.
struct IGetContextProperties : IUnknown {
  virtual HRESULT Count(LONG* count) = 0;
  virtual HRESULT GetProperty(const wchar_t* name, VARIANT* value) = 0;
  virtual HRESULT EnumNames(IEnumContextProps** names) = 0;

 protected:
  ~IGetContextProperties() = default;
};

// ---------------------------------------------------------------------------
// Variants and arrays
// ---------------------------------------------------------------------------

extern "C" {

/// Zeroes all 16 bytes, so that the value is VT_EMPTY; frees nothing.
ZIRDB_API void VariantInit(VARIANT* value);

/// Frees what the value owns and makes it VT_EMPTY; its payload bytes stay.
/// Always S_OK, also for a locked array, which is left to whoever accesses it.
/// Deliberate: the VT_ARRAY bit decides alone, so VT_BYREF | VT_ARRAY frees its
/// payload as an array.
ZIRDB_API HRESULT VariantClear(VARIANT* value);

/// Clears `destination` and makes it a deep copy of `source`: texts up to their
/// first zero, interfaces with a reference of their own, arrays with all
/// elements; by-reference values keep their pointer. A value copied onto itself
/// ends as VT_EMPTY; `source` must not be something that `destination` owns.
/// Always S_OK; without memory the payload is NULL.
ZIRDB_API HRESULT VariantCopy(VARIANT* destination, const VARIANT* source);

/// A new, unlocked array of `dimensions` bounds. `type` is VT_VARIANT (elements
/// VT_EMPTY), VT_BSTR (all NULL) or VT_UI1 (not initialised); NULL for any
/// other, for more than 65535 dimensions and without memory. NULL `bounds` or
/// no dimensions make an array without elements. The caller destroys it.
ZIRDB_API SAFEARRAY* SafeArrayCreate(VARTYPE type, UINT dimensions,
                                     SAFEARRAYBOUND* bounds);

/// The same with one dimension.
ZIRDB_API SAFEARRAY* SafeArrayCreateVector(VARTYPE type, LONG lower_bound,
                                           zir_types::ULONG count);

/// Frees the elements and, with FADF_AUTO, data and descriptor. E_INVALIDARG
/// for NULL; DISP_E_ARRAYISLOCKED, with nothing freed, while it is accessed.
ZIRDB_API HRESULT SafeArrayDestroy(SAFEARRAY* array);

/// Stores a deep, unlocked copy, which the caller destroys. E_OUTOFMEMORY, with
/// NULL stored, when there is no memory for its blocks; E_INVALIDARG for a NULL
/// pointer. Arrays in it may nest as deep as memory goes; one that holds itself
/// is NULL where it comes up again, and so is one for which there is no memory.
ZIRDB_API HRESULT SafeArrayCopy(SAFEARRAY* array, SAFEARRAY** copy);

/// The bound of a dimension, 1 being the first passed at creation. An empty
/// dimension's upper bound is its lower bound - 1. E_INVALIDARG for a NULL
/// pointer, DISP_E_BADINDEX for a dimension that is not there.
ZIRDB_API HRESULT SafeArrayGetUBound(SAFEARRAY* array, UINT dimension,
                                     LONG* bound);
ZIRDB_API HRESULT SafeArrayGetLBound(SAFEARRAY* array, UINT dimension,
                                     LONG* bound);

/// Locks the array and stores the address of its elements, which lie one behind
/// the other. One holder at a time: E_UNEXPECTED while it is locked.
/// E_INVALIDARG for a NULL pointer.
ZIRDB_API HRESULT SafeArrayAccessData(SAFEARRAY* array, void** data);

/// Unlocks. E_INVALIDARG for NULL, E_UNEXPECTED when it is not locked.
ZIRDB_API HRESULT SafeArrayUnaccessData(SAFEARRAY* array);

}  // extern "C"

// ---------------------------------------------------------------------------
// Coercion and dates
// ---------------------------------------------------------------------------

extern "C" {

/// Converts `source` to `type` into `destination`, which is cleared first; the
/// two may be the same value, which is then replaced on success only. A source
/// that is VT_BYREF | VT_VARIANT stands for the value it points at (one level;
/// in place that value is converted). `flags` is ignored.
///
/// The same type copies. Otherwise the targets and their sources are:
///   VT_I2    VT_EMPTY, VT_BSTR, VT_I4, VT_I8 (low bits)
///   VT_I4    VT_EMPTY, VT_BSTR, VT_I8
///   VT_I8    VT_EMPTY, VT_BSTR, VT_I4, VT_R8 (truncated), VT_BOOL, VT_UI1
///   VT_UI1   VT_EMPTY, VT_I8 (low bits)
///   VT_R8    VT_EMPTY, VT_BSTR, VT_I8, VT_BOOL
///   VT_DATE  VT_EMPTY, VT_BSTR (VarDateFromStr), VT_I8
///   VT_BOOL  VT_EMPTY, VT_BSTR ("true", "false" in any case), VT_I8
///   VT_BSTR  VT_EMPTY, VT_NULL, VT_I2, VT_I4, VT_I8, VT_UI1, VT_UI8, VT_R8,
///            VT_BOOL, VT_DATE, VT_LPSTR, VT_DISPATCH (its default member)
///   VT_LPSTR VT_BSTR
/// Numbers read from a text may have white space in front and anything behind.
/// A pair that is not listed prints a stub line ("vt:SOURCE->TARGET") and gives
/// E_INVALIDARG; a text that cannot be read gives E_INVALIDARG. A default
/// member's own failure is returned as it is; after 64 members that answer with
/// an object it is E_INVALIDARG, and so it is without memory. `source` must not
/// be something that `destination` owns.
ZIRDB_API HRESULT VariantChangeType(VARIANT* destination, const VARIANT* source,
                                    USHORT flags, VARTYPE type);

/// Reads "2024/01/31 18:00:00", "2024/01/31 18:00", "2024/01/31", the same with
/// "-", or "18:00:00", from the start of the text. E_INVALIDARG for any other,
/// with `date` untouched. `lcid` and `flags` are ignored.
ZIRDB_API HRESULT VarDateFromStr(const wchar_t* text, LCID lcid,
                                 zir_types::ULONG flags, DATE* date);

/// The date of a broken-down time (tm_wday and the fields behind are ignored;
/// seconds, minutes and hours outside their range add up).
ZIRDB_API DATE tm_double(struct tm time);

/// Splits a date, rounded to the second but never into the next day. tm_wday,
/// tm_yday and tm_isdst become -1. Values beyond the range of a year are
/// clamped.
ZIRDB_API void double_tm(DATE date, struct tm* time);

/// Always 1. wDayOfWeek and wMilliseconds are ignored, nothing is validated.
ZIRDB_API int SystemTimeToVariantTime(SYSTEMTIME* time, double* date);

/// Always 1. wDayOfWeek becomes 0xFFFF (not computed), wMilliseconds 0.
ZIRDB_API int VariantTimeToSystemTime(double date, SYSTEMTIME* time);

/// The local time, all fields.
ZIRDB_API void GetLocalTime(SYSTEMTIME* time);

}  // extern "C"

// ---------------------------------------------------------------------------
// Operators
//
// On VT_I8, VT_R8, VT_BOOL and VT_BSTR. `result` is overwritten without being
// cleared, and only on success; it may be one of the operands. Operands of the
// binary operators and of VarNot may be VT_BYREF | VT_VARIANT. Unsupported
// operands print a stub line and give E_INVALIDARG; NULL pointers give it
// without one.
// ---------------------------------------------------------------------------

/// What VarCmp returns, besides errors.
constexpr HRESULT VARCMP_LT = 0;
constexpr HRESULT VARCMP_EQ = 1;
constexpr HRESULT VARCMP_GT = 2;

extern "C" {

/// Sum; with a VT_I8 on the right the left becomes VT_I8, with a VT_R8 on the
/// right VT_R8; otherwise the left decides. Integers wrap around. Two texts are
/// concatenated.
ZIRDB_API HRESULT VarAdd(VARIANT* left, VARIANT* right, VARIANT* result);
/// Difference. A VT_R8 on either side makes both doubles; two VT_I8 wrap
/// around.
ZIRDB_API HRESULT VarSub(VARIANT* left, VARIANT* right, VARIANT* result);
/// Product, likewise; a VT_BOOL counts as the VT_I8 -1 or 0.
ZIRDB_API HRESULT VarMul(VARIANT* left, VARIANT* right, VARIANT* result);
/// Quotient, always VT_R8. DISP_E_DIVBYZERO for a zero divisor.
ZIRDB_API HRESULT VarDiv(VARIANT* left, VARIANT* right, VARIANT* result);
/// Remainder of two VT_I8, with the sign of the dividend. DISP_E_DIVBYZERO.
ZIRDB_API HRESULT VarMod(VARIANT* left, VARIANT* right, VARIANT* result);
/// Power; VT_I8 of two VT_I8 (truncated), otherwise VT_R8.
ZIRDB_API HRESULT VarPow(VARIANT* left, VARIANT* right, VARIANT* result);
/// Both operands as text, one behind the other; VT_NULL counts as no text, two
/// of them give VT_NULL. E_OUTOFMEMORY.
ZIRDB_API HRESULT VarCat(VARIANT* left, VARIANT* right, VARIANT* result);
/// VARCMP_LT, VARCMP_EQ or VARCMP_GT. Texts compare by code point, VT_BOOL true
/// is less than false, a NaN equals everything. `lcid` and `flags` are ignored.
ZIRDB_API HRESULT VarCmp(VARIANT* left, VARIANT* right, LCID lcid,
                         zir_types::ULONG flags);
/// Bitwise on two VT_BOOL.
ZIRDB_API HRESULT VarAnd(VARIANT* left, VARIANT* right, VARIANT* result);
ZIRDB_API HRESULT VarOr(VARIANT* left, VARIANT* right, VARIANT* result);
ZIRDB_API HRESULT VarXor(VARIANT* left, VARIANT* right, VARIANT* result);
/// Bitwise complement of a VT_BOOL.
ZIRDB_API HRESULT VarNot(VARIANT* operand, VARIANT* result);
/// A VT_R8 rounded half up to `decimals` (0 for negative ones); a VT_I8 as it
/// is. Deliberate: rounds through an unsigned integer, so -0.5 and less become
/// values near 1.8e19.
ZIRDB_API HRESULT VarRound(VARIANT* operand, int decimals, VARIANT* result);
/// A VT_R8 truncated and, when negative, less 1 (-2.0 gives -3.0); a VT_I8 as
/// it is.
ZIRDB_API HRESULT VarInt(VARIANT* operand, VARIANT* result);
/// A VT_R8 truncated to a VT_I8; a VT_I8 as it is.
ZIRDB_API HRESULT VarFix(VARIANT* operand, VARIANT* result);
/// Absolute value of a VT_R8 or VT_I8; the least VT_I8 stays as it is.
ZIRDB_API HRESULT VarAbs(VARIANT* operand, VARIANT* result);

}  // extern "C"

// ---------------------------------------------------------------------------
// Activation
//
// "ZIRDB.Connection" names the class "Connection" of the library ZIRDB.so.
// Libraries are looked for in the directory that the environment variable
// "REGISTRY" names, then where the loader looks; they stay loaded. That
// directory may also hold ZIRDB.CONNECTION.clsid with one class id in braces.
// ---------------------------------------------------------------------------

/// What a component library exports as "DllGetClassObject": stores the factory
/// of a class through `object`. For CLSID_NULL the class is the wide text that
/// *object points at on entry (NULL without one).
using LPFNGETCLASSOBJECT = HRESULT (*)(REFCLSID clsid, REFIID riid,
                                       void** object);

constexpr DWORD CLSCTX_INPROC_SERVER = 1;

extern "C" {

/// Loads a library: by path when `name` has a "/" or a backslash, otherwise
/// "name.so" from "REGISTRY" or the loader's search. NULL when there is none,
/// and for names of more than 254 bytes in UTF-8. Never unloaded.
ZIRDB_API HMODULE LoadLibraryW(const wchar_t* name);

/// The main program's handle for NULL, NULL for any name.
ZIRDB_API HMODULE GetModuleHandleW(const wchar_t* name);

/// The address of a symbol, or NULL. A NULL `module` searches the whole
/// program.
ZIRDB_API void* GetProcAddress(HMODULE module, const char* name);

/// Makes an object by class id, from the library "{CLSID}.so" (upper case), and
/// stores its interface `riid`, owned by the caller. E_FAIL without library or
/// factory; otherwise what the factory's CreateInstance returns. On E_FAIL
/// `object` is untouched. `context` is ignored.
ZIRDB_API HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer,
                                   DWORD context, REFIID riid, void** object);

/// The same by name, "ZIRDB.Connection"; the part before the first dot is
/// upper-cased. CO_E_CLASSSTRING in place of E_FAIL. Names are cut behind 255
/// characters.
ZIRDB_API HRESULT CoCreateInstanceByName(const wchar_t* program_id,
                                         IUnknown* outer, DWORD context,
                                         REFIID riid, void** object);

/// The same by "new:ZIRDB.Connection". E_FAIL for every failure.
ZIRDB_API HRESULT CoGetObject(const wchar_t* name, BIND_OPTS* options,
                              REFIID riid, void** object);

/// Reads the ".clsid" file of a program id, which is cut behind 255 bytes of
/// UTF-8. CO_E_CLASSSTRING without "REGISTRY" or file; E_FAIL for a malformed
/// file, of which the fields read so far have been stored; E_INVALIDARG for a
/// NULL `clsid`; E_OUTOFMEMORY.
ZIRDB_API HRESULT CLSIDFromProgID(const wchar_t* program_id, CLSID* clsid);

/// Not implemented: a stub line (176, the text) and E_NOTIMPL.
ZIRDB_API HRESULT CLSIDFromString(const wchar_t* text, CLSID* clsid);

/// A new, unique id. E_INVALIDARG for NULL.
ZIRDB_API HRESULT CoCreateGuid(GUID* guid);

/// Writes "{01234567-89ab-...}" and its terminator, lower case; 39, or 0 when
/// `size` units are too few.
ZIRDB_API int StringFromGUID2(REFGUID guid, wchar_t* buffer, int size);

/// Gives the thread an object context: S_OK, S_FALSE when it has one,
/// E_OUTOFMEMORY. Calls are not counted. Activation does not need it.
ZIRDB_API HRESULT CoInitializeEx(void* reserved, DWORD flags);

/// Releases the thread's object context and error object.
ZIRDB_API void CoUninitialize();

// ---------------------------------------------------------------------------
// Object context
// ---------------------------------------------------------------------------

/// The thread's context, an IContextProperties for IID_IContextProperties and
/// for IID_IGetContextProperties, with one reference for the caller. E_FAIL
/// without CoInitializeEx, E_NOINTERFACE for any other id. Not for other
/// threads.
ZIRDB_API HRESULT CoGetObjectContext(REFIID riid, void** object);

/// Makes `error` the thread's error object and holds a reference on it until
/// the next call or CoUninitialize; NULL lets go of the present one. S_FALSE
/// when there was one, otherwise S_OK.
ZIRDB_API HRESULT SetErrorInfo(DWORD reserved, IErrorInfo* error);

}  // extern "C"

// ---------------------------------------------------------------------------
// Owners
//
// They free what they hold. Out-parameters take the address of the public
// member of an empty one.
// ---------------------------------------------------------------------------

/// Owns a BSTR. Throws std::bad_alloc when a copy has no memory.
class _bstr_t {
 public:
  _bstr_t() noexcept = default;
  /// A copy of a zero-terminated text; NULL stays NULL.
  // NOLINTNEXTLINE(google-explicit-constructor): texts are passed as texts
  _bstr_t(const wchar_t* text) : m_s(checked(SysAllocString(text), text)) {}
  /// A copy with every counted unit, or, without `copy`, `string` itself.
  _bstr_t(BSTR string, bool copy) : m_s(copy ? duplicate(string) : string) {}
  _bstr_t(const _bstr_t& other) : m_s(duplicate(other.m_s)) {}
  _bstr_t(_bstr_t&& other) noexcept : m_s(other.Detach()) {}
  ~_bstr_t() { SysFreeString(m_s); }

  _bstr_t& operator=(const wchar_t* text) { return *this = _bstr_t(text); }
  _bstr_t& operator=(const _bstr_t& other) { return *this = _bstr_t(other); }
  _bstr_t& operator=(_bstr_t&& other) noexcept {
    _bstr_t taken(std::move(other));
    std::swap(m_s, taken.m_s);
    return *this;
  }

  // NOLINTNEXTLINE(google-explicit-constructor): reads as the text it holds
  operator const wchar_t*() const noexcept { return m_s; }

  /// The string, which the caller owns from here on.
  BSTR Detach() noexcept { return std::exchange(m_s, nullptr); }

  BSTR m_s = nullptr;

 private:
  static BSTR checked(BSTR copy, const wchar_t* source) {
    if (copy == nullptr && source != nullptr) throw std::bad_alloc();
    return copy;
  }
  static BSTR duplicate(BSTR string) {
    if (string == nullptr) return nullptr;
    return checked(SysAllocStringLen(string, SysStringLen(string)), string);
  }
};
static_assert(sizeof(_bstr_t) == 8);

/// Owns a malloc'ed, zero-terminated 8-bit text, such as a VT_LPSTR. Throws
/// std::bad_alloc when a copy has no memory.
class _str_t {
 public:
  _str_t() noexcept = default;
  /// A copy; NULL stays NULL.
  // NOLINTNEXTLINE(google-explicit-constructor): texts are passed as texts
  _str_t(const char* text) : m_s(duplicate(text)) {}
  /// A copy, or, without `copy`, `text` itself.
  _str_t(char* text, bool copy) : m_s(copy ? duplicate(text) : text) {}
  _str_t(const _str_t& other) : m_s(duplicate(other.m_s)) {}
  _str_t(_str_t&& other) noexcept : m_s(other.Detach()) {}
  ~_str_t() { std::free(m_s); }

  _str_t& operator=(const char* text) { return *this = _str_t(text); }
  _str_t& operator=(const _str_t& other) { return *this = _str_t(other); }
  _str_t& operator=(_str_t&& other) noexcept {
    _str_t taken(std::move(other));
    std::swap(m_s, taken.m_s);
    return *this;
  }

  // NOLINTNEXTLINE(google-explicit-constructor): reads as the text it holds
  operator const char*() const noexcept { return m_s; }

  /// The text, which the caller frees from here on.
  char* Detach() noexcept { return std::exchange(m_s, nullptr); }

  char* m_s = nullptr;

 private:
  static char* duplicate(const char* text) {
    if (text == nullptr) return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    void* const copy = std::malloc(size);
    if (copy == nullptr) throw std::bad_alloc();
    return static_cast<char*>(std::memcpy(copy, text, size));
  }
};
static_assert(sizeof(_str_t) == 8);

/// Owns a VARIANT's payload. Copies are those of VariantCopy: texts end at
/// their first zero.
class _variant_t : public VARIANT {
  template <class T>
  static constexpr bool is_character =
      std::is_same_v<T, wchar_t> || std::is_same_v<T, char16_t> ||
      std::is_same_v<T, char32_t>;
  // Plain enumerations convert, scoped ones do not.
  template <class T>
  using if_integer =
      std::enable_if_t<!std::is_floating_point_v<T> && !std::is_pointer_v<T> &&
                           !std::is_class_v<T> && !std::is_same_v<T, bool> &&
                           !is_character<T> &&
                           std::is_convertible_v<T, std::int64_t>,
                       int>;
  template <class T>
  using if_floating = std::enable_if_t<std::is_floating_point_v<T>, int>;
  template <class T>
  using if_bool = std::enable_if_t<std::is_same_v<T, bool>, int>;

 public:
  _variant_t() noexcept : VARIANT() {}
  // NOLINTBEGIN(google-explicit-constructor): values are passed as values
  _variant_t(const VARIANT& other) : VARIANT() { VariantCopy(this, &other); }
  // NOLINTNEXTLINE(bugprone-copy-constructor-init): copied by VariantCopy
  _variant_t(const _variant_t& other) : VARIANT() { VariantCopy(this, &other); }
  _variant_t(_variant_t&& other) noexcept : VARIANT(other.Detach()) {}
  /// VT_BSTR with a copy of the text. Throws std::bad_alloc.
  _variant_t(const wchar_t* text) : VARIANT() {
    bstrVal = _bstr_t(text).Detach();
    vt = VT_BSTR;
  }
  /// VT_I8, of integers and plain enumerations; characters are neither.
  template <class Integer, if_integer<Integer> = 0>
  _variant_t(Integer value) noexcept : VARIANT() {
    vt = VT_I8;
    llVal = static_cast<std::int64_t>(value);
  }
  /// VT_R8.
  template <class Floating, if_floating<Floating> = 0>
  _variant_t(Floating value) noexcept : VARIANT() {
    vt = VT_R8;
    dblVal = static_cast<double>(value);
  }
  /// VT_BOOL. Nothing but a bool: a pointer is not a truth value.
  template <class Bool, if_bool<Bool> = 0>
  _variant_t(Bool value) noexcept : VARIANT() {
    vt = VT_BOOL;
    boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
  }
  /// VT_DISPATCH with a reference of its own; NULL is allowed.
  _variant_t(IDispatch* object) : VARIANT() {
    vt = VT_DISPATCH;
    pdispVal = object;
    if (object != nullptr) object->AddRef();
  }
  /// VT_UNKNOWN likewise.
  _variant_t(IUnknown* object) : VARIANT() {
    vt = VT_UNKNOWN;
    punkVal = object;
    if (object != nullptr) object->AddRef();
  }
  // NOLINTEND(google-explicit-constructor)
  ~_variant_t() { VariantClear(this); }

  _variant_t& operator=(const VARIANT& other) {
    return *this = _variant_t(other);
  }
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): copied, then moved
  _variant_t& operator=(const _variant_t& other) {
    return *this = _variant_t(other);
  }
  _variant_t& operator=(_variant_t&& other) noexcept {
    if (this != &other) Attach(other.Detach());
    return *this;
  }
  _variant_t& operator=(const wchar_t* text) {
    return *this = _variant_t(text);
  }
  template <class Integer, if_integer<Integer> = 0>
  _variant_t& operator=(Integer value) noexcept {
    return *this = _variant_t(value);
  }
  template <class Floating, if_floating<Floating> = 0>
  _variant_t& operator=(Floating value) noexcept {
    return *this = _variant_t(value);
  }
  template <class Bool, if_bool<Bool> = 0>
  _variant_t& operator=(Bool value) noexcept {
    return *this = _variant_t(value);
  }
  _variant_t& operator=(IDispatch* object) {
    return *this = _variant_t(object);
  }

  /// Takes over what `value`, another one, owns; what was held is freed.
  void Attach(const VARIANT& value) noexcept {
    const VARIANT taken = value;
    VariantClear(this);
    static_cast<VARIANT&>(*this) = taken;
  }

  /// The value, which the caller clears from here on; VT_EMPTY stays behind.
  VARIANT Detach() noexcept {
    const VARIANT value = *this;
    VariantInit(this);
    return value;
  }

  /// Whether VariantChangeType makes VT_BOOL true of it; false where it cannot,
  /// after the stub line that says so.
  explicit operator bool() const {
    if (vt == VT_BOOL) return boolVal != VARIANT_FALSE;
    _variant_t truth;
    return SUCCEEDED(VariantChangeType(&truth, this, 0, VT_BOOL)) &&
           truth.boolVal != VARIANT_FALSE;
  }
};
static_assert(sizeof(_variant_t) == 16);

/// Whether VarCmp calls the left less; an error counts as false, after VarCmp's
/// stub line.
inline bool operator<(const _variant_t& left, const _variant_t& right) {
  return VarCmp(const_cast<_variant_t*>(&left), const_cast<_variant_t*>(&right),
                0, 0) == VARCMP_LT;
}

/// A failed result as an exception, for C++ callers.
class _com_error {
 public:
  explicit _com_error(HRESULT result) noexcept : m_hr(result) {}
  HRESULT Error() const noexcept { return m_hr; }

  HRESULT m_hr;
};
static_assert(sizeof(_com_error) == 4);

/// Owns one reference of an interface.
template <class Interface>
class InterfacePtr {
 public:
  InterfacePtr() noexcept = default;
  InterfacePtr(const InterfacePtr& other)
      : InterfacePtr(share(other.object_)) {}
  InterfacePtr(InterfacePtr&& other) noexcept : object_(other.detach()) {}
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): shared, then moved
  InterfacePtr& operator=(const InterfacePtr& other) {
    *this = share(other.object_);
    return *this;
  }
  InterfacePtr& operator=(InterfacePtr&& other) noexcept {
    InterfacePtr taken(std::move(other));
    std::swap(object_, taken.object_);
    return *this;
  }
  ~InterfacePtr() {
    // The analyser takes every Release for the last one.
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete)
    if (object_ != nullptr) object_->Release();
  }

  /// Takes over the caller's reference.
  static InterfacePtr adopt(Interface* object) noexcept {
    InterfacePtr pointer;
    pointer.object_ = object;
    return pointer;
  }
  /// Takes a reference of its own.
  static InterfacePtr share(Interface* object) {
    if (object != nullptr) object->AddRef();
    return adopt(object);
  }

  /// Calls `call(void** out)` and takes over what it stores; its result. On
  /// failure the pointer is empty.
  template <class Call>
  HRESULT receive(Call call) {
    void* object = nullptr;
    const HRESULT result = call(&object);
    *this =
        adopt(SUCCEEDED(result) ? static_cast<Interface*>(object) : nullptr);
    return result;
  }

  /// Another interface of the object; empty when it has none.
  template <class Other>
  InterfacePtr<Other> query(REFIID riid) const {
    InterfacePtr<Other> other;
    if (object_ != nullptr) {
      other.receive(
          [&](void** out) { return object_->QueryInterface(riid, out); });
    }
    return other;
  }

  Interface* get() const noexcept { return object_; }
  Interface* operator->() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  /// The pointer, whose reference is the caller's from here on.
  Interface* detach() noexcept { return std::exchange(object_, nullptr); }

 private:
  Interface* object_ = nullptr;
};

/// Holds the lock of an array's data.
class SafeArrayAccess {
 public:
  /// Locks `array`, which must outlive this; result() says whether it could.
  explicit SafeArrayAccess(SAFEARRAY* array)
      : array_(array), result_(SafeArrayAccessData(array, &data_)) {}
  SafeArrayAccess(const SafeArrayAccess&) = delete;
  SafeArrayAccess& operator=(const SafeArrayAccess&) = delete;
  ~SafeArrayAccess() {
    if (SUCCEEDED(result_)) SafeArrayUnaccessData(array_);
  }

  HRESULT result() const noexcept { return result_; }

  /// The elements, NULL when the array was not locked. The caller knows their
  /// type: VARIANT, BSTR or BYTE.
  template <class Element>
  Element* elements() const noexcept {
    return static_cast<Element*>(data_);
  }

 private:
  SAFEARRAY* array_;
  void* data_ = nullptr;
  HRESULT result_;
};

#endif  // ZIR_H
