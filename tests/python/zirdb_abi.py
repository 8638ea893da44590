# SPDX-License-Identifier: MIT
"""zirdb without a line of C: its layouts and vtable slots through ctypes.

Tests use this module, and authors of bindings may read it as an example. What
is here stands in src/zir.h and src/zirdb.h in the same order; nothing else of
the library was used.

Sections: base types; result codes; identifiers; records; the library; strings;
values; interfaces; objects made in Python; late binding; activation.

Ideas that carry the rest:

- A method of an interface answers its HRESULT as it is. What it stores goes
  through an out-pointer: `received(IZIRDBFields, recordset.get_Fields)` gives
  the result and the object.
- Whoever receives a string, a value or an object owns it. Here that is Text,
  Value and the interface classes, which let go of it when Python lets go of
  them.
- One table of slots per interface serves both directions: calling an object
  of the library, and making one in Python that the library calls.
"""

import ctypes
import os
import uuid
from ctypes import (CFUNCTYPE, POINTER, Structure, byref, c_char, c_double,
                    c_float, c_int, c_int16, c_int32, c_int64, c_size_t,
                    c_uint8, c_uint16, c_uint32, c_void_p, c_wchar_p, cast,
                    sizeof)

# ---------------------------------------------------------------------------
# Base types
# ---------------------------------------------------------------------------

HRESULT = c_int32
SCODE = c_int32
DISPID = c_int32
BOOL = c_int
LONG = c_int64  # 64 bits here
ULONG = c_uint32
DWORD = c_uint32
UINT = c_uint32
LCID = c_uint32
WORD = c_uint16
VARTYPE = c_uint16
VARIANT_BOOL = c_int16
BSTR = c_void_p  # not c_wchar_p, which would copy the text and lose the string

VARIANT_TRUE = -1
VARIANT_FALSE = 0

# ---------------------------------------------------------------------------
# Result codes
# ---------------------------------------------------------------------------


def hresult(bits):
    """The result code with these 32 bits."""
    return bits - (1 << 32) if bits & 0x80000000 else bits


S_OK = 0
S_FALSE = 1
E_NOTIMPL = hresult(0x80004001)
E_NOINTERFACE = hresult(0x80004002)
E_FAIL = hresult(0x80004005)
E_UNEXPECTED = hresult(0x8000FFFF)
E_OUTOFMEMORY = hresult(0x8007000E)
E_INVALIDARG = hresult(0x80070057)
CLASS_E_NOAGGREGATION = hresult(0x80040110)
CLASS_E_CLASSNOTAVAILABLE = hresult(0x80040111)
CO_E_CLASSSTRING = hresult(0x800401F3)
DISP_E_MEMBERNOTFOUND = hresult(0x80020003)
DISP_E_TYPEMISMATCH = hresult(0x80020005)
DISP_E_UNKNOWNNAME = hresult(0x80020006)
DISP_E_EXCEPTION = hresult(0x80020009)
DISP_E_BADPARAMCOUNT = hresult(0x8002000E)

DISPID_VALUE = 0
DISPID_UNKNOWN = -1
DISPID_PROPERTYPUT = -3
DISPID_NEWENUM = -4

DISPATCH_METHOD = 1
DISPATCH_PROPERTYGET = 2
DISPATCH_PROPERTYPUT = 4

# ---------------------------------------------------------------------------
# Identifiers
# ---------------------------------------------------------------------------


class GUID(Structure):
    _fields_ = [("Data1", c_uint32), ("Data2", c_uint16), ("Data3", c_uint16),
                ("Data4", c_uint8 * 8)]

    @classmethod
    def of(cls, text):
        # Three numbers in the machine's byte order, then bytes.
        return cls.from_buffer_copy(uuid.UUID(text).bytes_le)

    def __str__(self):
        return "{%s}" % str(uuid.UUID(bytes_le=bytes(self))).upper()

    def __eq__(self, other):
        return isinstance(other, GUID) and bytes(self) == bytes(other)

    def __hash__(self):
        return hash(bytes(self))


IID_IUnknown = GUID.of("{00000000-0000-0000-C000-000000000046}")
IID_IClassFactory = GUID.of("{00000001-0000-0000-C000-000000000046}")
IID_IDispatch = GUID.of("{00020400-0000-0000-C000-000000000046}")
IID_IEnumVARIANT = GUID.of("{00020404-0000-0000-C000-000000000046}")
IID_NULL = GUID()
CLSID_NULL = GUID()

CLSID_ZIRDBConnection = GUID.of("{A3B9D97A-3DE2-4287-9A7B-5EF21F449C1E}")
CLSID_ZIRDBCommand = GUID.of("{B250EB07-2332-4C6D-B50D-357641DEAA0D}")
CLSID_ZIRDBRecordset = GUID.of("{8EEDA5E6-0575-4F26-B43A-ED25F95E993B}")

IID_IZIRDBConnection = GUID.of("{42A6B313-5986-4037-AE9D-E90AD9B7BBA4}")
IID_IZIRDBCommand = GUID.of("{8E32A13D-FF0A-410C-80B8-FB517D850222}")
IID_IZIRDBRecordset = GUID.of("{E844F0B5-B612-48B1-BA57-AB0BC2F08DF9}")
IID_IZIRDBFields = GUID.of("{051FBC3E-D6EE-4C23-A4BD-FCB61CC0E093}")
IID_IZIRDBField = GUID.of("{CFC4200C-426C-40D5-8A39-7B96B8D6323F}")
IID_IZIRDBParameters = GUID.of("{9D1D978C-2A6F-459E-8A8F-1BC0D8276B54}")
IID_IZIRDBParameter = GUID.of("{1C1C4279-4D78-47E8-BA57-4E8B8A3C4A11}")

# ---------------------------------------------------------------------------
# Records
# ---------------------------------------------------------------------------

VT_EMPTY = 0
VT_NULL = 1
VT_I2 = 2
VT_I4 = 3
VT_R4 = 4
VT_R8 = 5
VT_DATE = 7
VT_BSTR = 8
VT_DISPATCH = 9
VT_ERROR = 10
VT_BOOL = 11
VT_VARIANT = 12
VT_UNKNOWN = 13
VT_I1 = 16
VT_UI1 = 17
VT_UI2 = 18
VT_UI4 = 19
VT_I8 = 20
VT_UI8 = 21
VT_ARRAY = 0x2000
VT_BYREF = 0x4000


class VARIANT(Structure):
    """A tagged value, by its type and eight bytes.

    The payload is declared as an integer, not as a union: C++ passes the union
    in a general-purpose register too, and ctypes passes no unions by value.
    """
    _fields_ = [("vt", VARTYPE), ("wReserved1", WORD), ("wReserved2", WORD),
                ("wReserved3", WORD), ("payload", c_int64)]

    def payload_as(self, kind):
        """The payload as another ctypes type; writes go to the value."""
        return kind.from_buffer(self, VARIANT.payload.offset)


class SAFEARRAYBOUND(Structure):
    _fields_ = [("cElements", ULONG), ("lLbound", LONG)]


class SAFEARRAY(Structure):
    _fields_ = [("cDims", c_uint16), ("fFeatures", c_uint16),
                ("cbElements", ULONG), ("cLocks", ULONG),
                ("pvData", c_void_p), ("rgsabound", SAFEARRAYBOUND * 1)]


class EXCEPINFO(Structure):
    _fields_ = [("wCode", WORD), ("wReserved", WORD), ("bstrSource", BSTR),
                ("bstrDescription", BSTR), ("bstrHelpFile", BSTR),
                ("dwHelpContext", DWORD), ("pvReserved", c_void_p),
                ("pfnDeferredFillIn", c_void_p), ("scode", SCODE)]


class DISPPARAMS(Structure):
    """Arguments, the last one first."""
    _fields_ = [("rgvarg", POINTER(VARIANT)),
                ("rgdispidNamedArgs", POINTER(DISPID)), ("cArgs", UINT),
                ("cNamedArgs", UINT)]


class SYSTEMTIME(Structure):
    _fields_ = [(name, WORD)
                for name in ("wYear", "wMonth", "wDayOfWeek", "wDay", "wHour",
                             "wMinute", "wSecond", "wMilliseconds")]


class BIND_OPTS(Structure):
    _fields_ = [(name, DWORD) for name in ("cbStruct", "grfFlags", "grfMode",
                                           "dwTickCountDeadline")]


# ---------------------------------------------------------------------------
# The library
# ---------------------------------------------------------------------------

LIBRARY = ctypes.CDLL(os.environ.get("ZIRDB_LIBRARY", "libzirdb.so.0"))


def _function(name, result, *arguments):
    function = getattr(LIBRARY, name)
    function.restype = result
    function.argtypes = arguments
    return function


_REFIID = POINTER(GUID)  # byref() is added to a GUID that is passed
_OUT = POINTER(c_void_p)
_VALUE = POINTER(VARIANT)

SysAllocString = _function("SysAllocString", BSTR, c_wchar_p)
SysAllocStringLen = _function("SysAllocStringLen", BSTR, c_wchar_p, UINT)
SysAllocStringByteLen = _function("SysAllocStringByteLen", BSTR, c_void_p,
                                  UINT)
SysStringLen = _function("SysStringLen", UINT, BSTR)
SysStringByteLen = _function("SysStringByteLen", UINT, BSTR)
SysFreeString = _function("SysFreeString", None, BSTR)
utf8_utf32 = _function("utf8_utf32", c_size_t, c_void_p, c_size_t, c_void_p)

ExcepinfoInit = _function("ExcepinfoInit", None, POINTER(EXCEPINFO))
ExcepinfoClear = _function("ExcepinfoClear", HRESULT, POINTER(EXCEPINFO))

VariantInit = _function("VariantInit", None, _VALUE)
VariantClear = _function("VariantClear", HRESULT, _VALUE)
VariantCopy = _function("VariantCopy", HRESULT, _VALUE, _VALUE)
VariantChangeType = _function("VariantChangeType", HRESULT, _VALUE, _VALUE,
                              c_uint16, VARTYPE)

_ARRAY = POINTER(SAFEARRAY)
SafeArrayCreate = _function("SafeArrayCreate", _ARRAY, VARTYPE, UINT,
                            POINTER(SAFEARRAYBOUND))
SafeArrayCreateVector = _function("SafeArrayCreateVector", _ARRAY, VARTYPE,
                                  LONG, ULONG)
SafeArrayDestroy = _function("SafeArrayDestroy", HRESULT, _ARRAY)
SafeArrayGetLBound = _function("SafeArrayGetLBound", HRESULT, _ARRAY, UINT,
                               POINTER(LONG))
SafeArrayGetUBound = _function("SafeArrayGetUBound", HRESULT, _ARRAY, UINT,
                               POINTER(LONG))
SafeArrayAccessData = _function("SafeArrayAccessData", HRESULT, _ARRAY, _OUT)
SafeArrayUnaccessData = _function("SafeArrayUnaccessData", HRESULT, _ARRAY)



class tm(Structure):
    """What <time.h> calls struct tm."""
    _fields_ = [(name, c_int)
                for name in ("tm_sec", "tm_min", "tm_hour", "tm_mday",
                             "tm_mon", "tm_year", "tm_wday", "tm_yday",
                             "tm_isdst")] + [("tm_gmtoff", ctypes.c_long),
                                             ("tm_zone", c_void_p)]


tm_double = _function("tm_double", c_double, tm)
double_tm = _function("double_tm", None, c_double, POINTER(tm))
VariantTimeToSystemTime = _function("VariantTimeToSystemTime", c_int, c_double,
                                    POINTER(SYSTEMTIME))
SystemTimeToVariantTime = _function("SystemTimeToVariantTime", c_int,
                                    POINTER(SYSTEMTIME), POINTER(c_double))

_CoCreateInstance = _function("CoCreateInstance", HRESULT, _REFIID, c_void_p,
                              DWORD, _REFIID, _OUT)
_CoCreateInstanceByName = _function("CoCreateInstanceByName", HRESULT,
                                    c_wchar_p, c_void_p, DWORD, _REFIID, _OUT)
_CoGetObject = _function("CoGetObject", HRESULT, c_wchar_p, POINTER(BIND_OPTS),
                         _REFIID, _OUT)
CLSIDFromProgID = _function("CLSIDFromProgID", HRESULT, c_wchar_p,
                            POINTER(GUID))
StringFromGUID2 = _function("StringFromGUID2", c_int, POINTER(GUID), c_void_p,
                            c_int)

_DllGetClassObject = _function("DllGetClassObject", HRESULT, _REFIID, _REFIID,
                               _OUT)
DllCanUnloadNow = _function("DllCanUnloadNow", HRESULT)

# ---------------------------------------------------------------------------
# Strings
# ---------------------------------------------------------------------------


class Text:
    """Owns a BSTR. A Python text is none: a BSTR has a count in front."""

    def __init__(self, text=None):
        self.pointer = None  # which is an empty string too
        if text is not None:
            units = ctypes.create_unicode_buffer(text, len(text) + 1)
            self.pointer = SysAllocStringLen(units, len(text))

    @property
    def _as_parameter_(self):
        return c_void_p(self.pointer)

    def __str__(self):
        return text_at(self.pointer)

    def detach(self):
        """The string, which somebody else owns from here on."""
        pointer, self.pointer = self.pointer, None
        return pointer

    def __del__(self):
        SysFreeString(self.pointer)


def text_at(pointer):
    """The text of a BSTR, which stays where it is; NULL reads as ""."""
    if not pointer:
        return ""
    return ctypes.wstring_at(pointer, SysStringLen(pointer))


def received_text(get):
    """Calls `get(BSTR*)`: its result and the text, None where it is NULL."""
    text = Text()
    stored = BSTR()
    result = get(byref(stored))
    text.pointer = stored.value
    return result, None if text.pointer is None else str(text)


# ---------------------------------------------------------------------------
# Values
# ---------------------------------------------------------------------------


class _Empty:
    """What VT_EMPTY is in Python; VT_NULL is None."""

    def __repr__(self):
        return "EMPTY"


EMPTY = _Empty()

_NUMBERS = {
    VT_I2: c_int16,
    VT_I4: c_int64,  # its payload is a LONG
    VT_R4: c_float,
    VT_R8: c_double,
    VT_DATE: c_double,
    VT_ERROR: c_int32,
    VT_I1: ctypes.c_int8,
    VT_UI1: c_uint8,
    VT_UI2: c_uint16,
    VT_UI4: c_uint32,
    VT_I8: c_int64,
    VT_UI8: ctypes.c_uint64,
}


class Value(VARIANT):
    """Owns a VARIANT. Made of a Python value, or empty to receive one.

    bool is VT_BOOL, int VT_I8, float VT_R8, str VT_BSTR, bytes an array of
    VT_UI1, a list one of VT_VARIANT, an object VT_DISPATCH, None VT_NULL; `vt`
    asks for another type of number. VALUE.by_reference() points at a value
    that has to stay where it is as long as the reference is used.
    """

    def __init__(self, value=EMPTY, vt=None):
        super().__init__()
        if vt is not None:
            self.vt = vt
            self.payload_as(_NUMBERS[vt]).value = value
        elif value is not EMPTY:
            self._set(value)

    def _set(self, value):
        if value is None:
            self.vt = VT_NULL
        elif isinstance(value, bool):
            self.vt = VT_BOOL
            self.payload_as(VARIANT_BOOL).value = (VARIANT_TRUE if value else
                                                   VARIANT_FALSE)
        elif isinstance(value, int):
            self.vt = VT_I8
            self.payload = value
        elif isinstance(value, float):
            self.vt = VT_R8
            self.payload_as(c_double).value = value
        elif isinstance(value, str):
            self.vt = VT_BSTR
            self.payload = Text(value).detach()
        elif isinstance(value, bytes):
            self.vt = VT_ARRAY | VT_UI1
            self.payload = _address(array_of_bytes(value))
        elif isinstance(value, list):
            self.vt = VT_ARRAY | VT_VARIANT
            self.payload = _address(array_of_values(value))
        elif isinstance(value, VARIANT):
            VariantCopy(byref(self), byref(value))
        else:
            self.vt = VT_DISPATCH
            self.payload = value.face(IDispatch)
            IDispatch.borrowed(self.payload).AddRef()

    def by_reference(self):
        """VT_BYREF | VT_VARIANT to this value."""
        return reference(VT_VARIANT, self)

    def python(self):
        return python_value(self)

    def clear(self):
        VariantClear(byref(self))

    def __del__(self):
        self.clear()


def reference(vt, target):
    """VT_BYREF to a ctypes object, which is kept."""
    value = Value()
    value.vt = VT_BYREF | vt
    value.payload = ctypes.addressof(target)
    value.kept = target
    return value


def python_value(value):
    """A VARIANT in Python: of objects and arrays a reference or a copy."""
    if value.vt in _NUMBERS:
        return value.payload_as(_NUMBERS[value.vt]).value
    if value.vt == VT_EMPTY:
        return EMPTY
    if value.vt == VT_NULL:
        return None
    if value.vt == VT_BOOL:
        # What is neither was made by somebody who is mistaken.
        truths = {VARIANT_TRUE: True, VARIANT_FALSE: False}
        return truths[value.payload_as(VARIANT_BOOL).value]
    if value.vt == VT_BSTR:
        return text_at(value.payload)
    if value.vt in (VT_DISPATCH, VT_UNKNOWN):
        kind = IDispatch if value.vt == VT_DISPATCH else IUnknown
        return kind.shared(value.payload) if value.payload else None
    if value.vt == VT_ARRAY | VT_UI1:
        with Elements(_array_at(value.payload), c_char) as elements:
            return bytes(elements.raw)
    if value.vt == VT_ARRAY | VT_VARIANT:
        with Elements(_array_at(value.payload), VARIANT) as elements:
            return [python_value(element) for element in elements]
    raise TypeError("a value of type 0x%X" % value.vt)


def _address(array):
    return cast(array, c_void_p).value


def _array_at(address):
    return cast(c_void_p(address), POINTER(SAFEARRAY))


def bounds_of(array, dimension=1):
    """The least and the greatest index."""
    lower, upper = LONG(), LONG()
    SafeArrayGetLBound(array, dimension, byref(lower))
    SafeArrayGetUBound(array, dimension, byref(upper))
    return lower.value, upper.value


class Elements:
    """The elements of an array, which is locked meanwhile."""

    def __init__(self, array, kind):
        self.array = array
        self.kind = kind

    def __enter__(self):
        lower, upper = bounds_of(self.array)
        data = c_void_p()
        result = SafeArrayAccessData(self.array, byref(data))
        if result != S_OK:
            raise OSError("SafeArrayAccessData answers 0x%X" % result)
        count = max(0, upper - lower + 1)
        return (self.kind * count).from_address(data.value or 0)

    def __exit__(self, *exception):
        SafeArrayUnaccessData(self.array)


def array_of_bytes(content):
    array = SafeArrayCreateVector(VT_UI1, 0, len(content))
    with Elements(array, c_char) as elements:
        elements.raw = content
    return array


def array_of_values(values, lower_bound=0):
    """VT_VARIANT elements, copies of the values."""
    array = SafeArrayCreateVector(VT_VARIANT, lower_bound, len(values))
    with Elements(array, VARIANT) as elements:
        for element, value in zip(elements, values):
            VariantCopy(byref(element), byref(Value(value)))
    return array


# ---------------------------------------------------------------------------
# Interfaces
#
# Each row of `slots` is a slot of the vtable behind those of the base: name,
# result, arguments. They become methods.
# ---------------------------------------------------------------------------


class IUnknown:
    """One reference of an object, as the interface of the class.

    Dropped with this, or by release().
    """
    iid = IID_IUnknown
    slots = [
        ("QueryInterface", HRESULT, _REFIID, _OUT),
        ("AddRef", ULONG),
        ("Release", ULONG),
    ]
    owned = True

    def __init__(self, pointer):
        """Takes over the caller's reference."""
        if not pointer:
            raise ValueError("no object")
        self.pointer = pointer

    def __init_subclass__(cls, **arguments):
        super().__init_subclass__(**arguments)
        cls.slots = cls.__base__.slots + cls.__dict__.get("slots", [])
        _add_methods(cls)

    @classmethod
    def shared(cls, pointer):
        """With a reference of its own."""
        made = cls(pointer)
        made.AddRef()
        return made

    @classmethod
    def borrowed(cls, pointer):
        """Without a reference, for as long as somebody else has one."""
        made = cls(pointer)
        made.owned = False
        return made

    @property
    def _as_parameter_(self):
        return c_void_p(self.pointer)

    def query(self, kind):
        """The same object as another interface; None where it has none."""
        return received(kind, self.QueryInterface, kind.iid)[1]

    def face(self, kind):
        """The address of another interface, for who takes a reference."""
        face = self.query(kind)
        if face is None:
            raise TypeError("the object has no " + kind.__name__)
        return face.pointer  # the object lives by this reference

    def release(self):
        """The references that are left, as the object says."""
        if self.pointer is None or not self.owned:
            return None
        left = self.Release()
        self.pointer = None
        return left

    def __del__(self):
        if getattr(self, "pointer", None) is not None:
            self.release()


def _add_methods(cls):
    for index, (name, result, *arguments) in enumerate(cls.slots):
        prototype = CFUNCTYPE(result, c_void_p, *arguments)

        def method(self, *values, _index=index, _prototype=prototype):
            # An object starts with the address of its vtable.
            vtable = c_void_p.from_address(self.pointer).value
            slot = c_void_p.from_address(vtable + _index * sizeof(c_void_p))
            return _prototype(slot.value)(self.pointer, *values)

        method.__name__ = name
        setattr(cls, name, method)


_add_methods(IUnknown)


def received(kind, call, *arguments):
    """Calls `call(*arguments, out)`: its result and the object, or None."""
    out = c_void_p()
    result = call(*arguments, byref(out))
    return result, kind(out.value) if out.value else None


class IClassFactory(IUnknown):
    iid = IID_IClassFactory
    slots = [
        ("CreateInstance", HRESULT, c_void_p, _REFIID, _OUT),
        ("LockServer", HRESULT, BOOL),
    ]


class IDispatch(IUnknown):
    iid = IID_IDispatch
    slots = [
        ("GetTypeInfoCount", HRESULT, POINTER(UINT)),
        ("GetTypeInfo", HRESULT, UINT, LCID, _OUT),
        ("GetIDsOfNames", HRESULT, _REFIID, POINTER(c_wchar_p), UINT, LCID,
         POINTER(DISPID)),
        ("Invoke", HRESULT, DISPID, _REFIID, LCID, WORD, POINTER(DISPPARAMS),
         _VALUE, POINTER(EXCEPINFO), POINTER(UINT)),
    ]


class IEnumVARIANT(IUnknown):
    iid = IID_IEnumVARIANT
    slots = [
        ("Next", HRESULT, ULONG, _VALUE, POINTER(ULONG)),
        ("Skip", HRESULT, ULONG),
        ("Reset", HRESULT),
        ("Clone", HRESULT, _OUT),
    ]


class IZIRDBField(IUnknown):
    iid = IID_IZIRDBField
    slots = [
        ("get_Name", HRESULT, POINTER(BSTR)),
        ("get_Value", HRESULT, _VALUE),
    ]


class IZIRDBFields(IUnknown):
    iid = IID_IZIRDBFields
    slots = [
        ("get_Count", HRESULT, POINTER(LONG)),
        ("Item", HRESULT, VARIANT, _OUT),
    ]


class IZIRDBRecordset(IUnknown):
    iid = IID_IZIRDBRecordset
    slots = [
        ("get_Fields", HRESULT, _OUT),
        ("get_State", HRESULT, POINTER(LONG)),
        ("get_EOF", HRESULT, POINTER(VARIANT_BOOL)),
        ("get_BOF", HRESULT, POINTER(VARIANT_BOOL)),
        ("get_RecordCount", HRESULT, POINTER(LONG)),
        ("MoveFirst", HRESULT),
        ("MoveLast", HRESULT),
        ("MovePrevious", HRESULT),
        ("MoveNext", HRESULT),
        ("Close", HRESULT),
    ]


class IZIRDBParameter(IUnknown):
    iid = IID_IZIRDBParameter
    slots = [
        ("get_Name", HRESULT, POINTER(BSTR)),
        ("put_Name", HRESULT, BSTR),
        ("get_Value", HRESULT, _VALUE),
        ("put_Value", HRESULT, VARIANT),
        ("get_Type", HRESULT, POINTER(LONG)),
        ("put_Type", HRESULT, LONG),
        ("get_Direction", HRESULT, POINTER(LONG)),
        ("put_Direction", HRESULT, LONG),
        ("get_Size", HRESULT, POINTER(LONG)),
        ("put_Size", HRESULT, LONG),
    ]


class IZIRDBParameters(IUnknown):
    iid = IID_IZIRDBParameters
    slots = [
        ("get_Count", HRESULT, POINTER(LONG)),
        ("Item", HRESULT, VARIANT, _OUT),
        ("Append", HRESULT, c_void_p),
    ]


class IZIRDBConnection(IUnknown):
    iid = IID_IZIRDBConnection
    slots = [
        ("get_ConnectionString", HRESULT, POINTER(BSTR)),
        ("put_ConnectionString", HRESULT, BSTR),
        ("get_State", HRESULT, POINTER(LONG)),
        ("Open", HRESULT, BSTR, BSTR, BSTR, LONG),
        ("Close", HRESULT),
        ("Execute", HRESULT, BSTR, _VALUE, LONG, _OUT),
    ]


class IZIRDBCommand(IUnknown):
    iid = IID_IZIRDBCommand
    slots = [
        ("get_ActiveConnection", HRESULT, _OUT),
        ("putref_ActiveConnection", HRESULT, c_void_p),
        ("get_CommandText", HRESULT, POINTER(BSTR)),
        ("put_CommandText", HRESULT, BSTR),
        ("get_CommandType", HRESULT, POINTER(LONG)),
        ("put_CommandType", HRESULT, LONG),
        ("CreateParameter", HRESULT, BSTR, LONG, LONG, LONG, VARIANT, _OUT),
        ("get_Parameters", HRESULT, _OUT),
        ("Execute", HRESULT, _VALUE, LONG, _OUT),
    ]


# ---------------------------------------------------------------------------
# Objects made in Python
# ---------------------------------------------------------------------------


class _Face(Structure):
    """One interface of an object: nothing but the address of its vtable."""
    _fields_ = [("vtable", c_void_p)]


class PythonObject:
    """An object that the library may call and keep.

    A derived class names its interfaces and has a method for each slot behind
    those of IUnknown, which takes the slot's arguments and answers an HRESULT.
    An exception may not leave a callback: it is kept in `errors`, and the
    caller is told E_UNEXPECTED.
    """
    interfaces = (IDispatch,)
    # Those that somebody else holds must not go when Python lets go of them.
    _held = set()

    def __init__(self):
        self.references = 0
        self.errors = []
        self._faces = {}
        self._kept = []
        for interface in self.interfaces:
            functions = [
                CFUNCTYPE(result, c_void_p, *arguments)(self._caught(name))
                for name, result, *arguments in interface.slots
            ]
            # C++ looks for type information in front of a vtable: there is
            # room for it, and there is none.
            addresses = [cast(function, c_void_p) for function in functions]
            vtable = (c_void_p * (2 + len(addresses)))(None, None, *addresses)
            face = _Face(ctypes.addressof(vtable) + 2 * sizeof(c_void_p))
            self._kept += [functions, vtable, face]
            self._faces[interface.iid] = ctypes.addressof(face)
        self._faces[IID_IUnknown] = self._faces[self.interfaces[0].iid]

    def _caught(self, name):

        def call(_this, *arguments):
            try:
                return getattr(self, name)(*arguments)
            except BaseException as error:  # pylint: disable=broad-except
                self.errors.append(error)
                return E_UNEXPECTED

        return call

    def face(self, kind):
        """The address of an interface, for who takes a reference."""
        return self._faces[kind.iid]

    @property
    def _as_parameter_(self):
        return c_void_p(self._faces[IID_IUnknown])

    def QueryInterface(self, iid, out):
        out[0] = face = self._faces.get(iid[0])
        if face is None:
            return E_NOINTERFACE
        self.AddRef()
        return S_OK

    def AddRef(self):
        self.references += 1
        PythonObject._held.add(self)
        return self.references

    def Release(self):
        self.references -= 1
        if self.references == 0:
            PythonObject._held.discard(self)
        return self.references


class PythonDispatch(PythonObject):
    """Late-bound: every Invoke goes to `answer(call)`, see Invoked.

    It answers an HRESULT, or nothing for S_OK.
    """

    def __init__(self, answer):
        super().__init__()
        self.answer = answer
        self.calls = []

    def GetTypeInfoCount(self, count):
        count[0] = 0
        return S_OK

    def GetTypeInfo(self, _index, _lcid, info):
        info[0] = None
        return E_NOTIMPL

    def GetIDsOfNames(self, _iid, _names, _count, _lcid, _ids):
        return DISP_E_UNKNOWNNAME

    def Invoke(self, member, iid, lcid, flags, parameters, result, exception,
               bad_argument):
        call = Invoked(member, iid[0], lcid, flags, parameters[0], result,
                       exception, bad_argument)
        self.calls.append(call)
        try:
            answered = self.answer(call)
        finally:
            call.forget()
        return S_OK if answered is None else answered


class Invoked:
    """One call of a Python object's Invoke."""

    def __init__(self, member, iid, lcid, flags, parameters, result, exception,
                 bad_argument):
        self.member = member
        self.iid = GUID.from_buffer_copy(iid)
        self.lcid = lcid
        self.flags = flags
        # As they were written.
        written = parameters.rgvarg[:parameters.cArgs][::-1]
        self.types = [value.vt for value in written]
        self.arguments = [python_value(value) for value in written]
        self.named = parameters.cNamedArgs
        self.result = result
        self.exception = exception
        self.bad_argument = bad_argument

    def throw(self, code, source, description):
        """Fills the caller's EXCEPINFO; the result to return."""
        if self.exception:
            ExcepinfoClear(self.exception)
            self.exception[0].scode = code
            self.exception[0].bstrSource = Text(source).detach()
            self.exception[0].bstrDescription = Text(description).detach()
        return DISP_E_EXCEPTION

    def forget(self):
        """What was the caller's is no longer there after the call."""
        self.arguments = [
            None if isinstance(one, IUnknown) else one
            for one in self.arguments
        ]


# ---------------------------------------------------------------------------
# Late binding
# ---------------------------------------------------------------------------


class Answer:
    """What a late-bound call came to."""

    def __init__(self, result, value, exception):
        self.result = result
        self.vt = value.vt
        self.value = python_value(value)
        self.scode = exception.scode
        self.source = text_at(exception.bstrSource)
        self.description = (text_at(exception.bstrDescription)
                            if exception.bstrDescription else None)

    def __repr__(self):
        return "result 0x%08X, value %r, scode 0x%08X, %s: %s" % (
            self.result & 0xFFFFFFFF, self.value, self.scode & 0xFFFFFFFF,
            self.source, self.description)


def id_of(target, name):
    """The id of a member; DISPID_UNKNOWN where there is none."""
    names = (c_wchar_p * 1)(name)
    ids = (DISPID * 1)()
    target.GetIDsOfNames(IID_NULL, names, 1, 0, ids)
    return ids[0]


def invoke(target, member, flags, *arguments):
    """A late-bound call by id. Arguments as they are written."""
    values = [
        one if isinstance(one, VARIANT) else Value(one) for one in arguments
    ]
    # Copied byte by byte: they stay the caller's.
    array = (VARIANT * max(1, len(values)))(*reversed(values))
    named = DISPID(DISPID_PROPERTYPUT)
    parameters = DISPPARAMS(array, None, len(values), 0)
    if flags == DISPATCH_PROPERTYPUT:
        parameters.rgdispidNamedArgs = ctypes.pointer(named)
        parameters.cNamedArgs = 1
    result = Value()
    exception = EXCEPINFO()
    try:
        code = target.Invoke(member, IID_NULL, 0, flags, byref(parameters),
                             byref(result), byref(exception), None)
        return Answer(code, result, exception)
    finally:
        ExcepinfoClear(byref(exception))


class ScriptError(Exception):
    """A late-bound call that failed."""

    def __init__(self, answer):
        super().__init__(repr(answer))
        self.answer = answer


class Script:
    """An object as a script sees it: members by name.

    script["State"], script["CommandText"] = "...", script("Open", "...").
    What fails raises ScriptError. Objects come back as Scripts.
    """

    def __init__(self, target):
        """`target` is any interface of an object that has IDispatch."""
        self.target = target.query(IDispatch)

    def face(self, kind):
        return self.target.face(kind)

    def answer(self, flags, name, *arguments):
        return invoke(self.target, id_of(self.target, name), flags, *arguments)

    def _value(self, answer):
        if answer.result != S_OK:
            raise ScriptError(answer)
        if isinstance(answer.value, IDispatch):
            return Script(answer.value)
        return answer.value

    def __getitem__(self, name):
        return self._value(self.answer(DISPATCH_PROPERTYGET, name))

    def __setitem__(self, name, value):
        self._value(self.answer(DISPATCH_PROPERTYPUT, name, value))

    def __call__(self, name, *arguments):
        # As script engines do where a statement may mean either.
        flags = DISPATCH_METHOD | DISPATCH_PROPERTYGET
        return self._value(self.answer(flags, name, *arguments))


# ---------------------------------------------------------------------------
# Activation
# ---------------------------------------------------------------------------


def class_object(clsid, kind=IClassFactory):
    """DllGetClassObject: its result and the factory."""
    return received(kind, _DllGetClassObject, clsid, kind.iid)


def class_object_by_name(name, kind=IClassFactory):
    """The same for CLSID_NULL, where the out-pointer brings the name."""
    buffer = None if name is None else ctypes.create_unicode_buffer(name)
    out = c_void_p(None if buffer is None else ctypes.addressof(buffer))
    result = _DllGetClassObject(CLSID_NULL, kind.iid, byref(out))
    return result, kind(out.value) if out.value else None


def create(clsid, kind):
    """A new object through its factory."""
    result, factory = class_object(clsid)
    if result != S_OK:
        raise OSError("DllGetClassObject answers 0x%X" % result)
    result, made = received(kind, factory.CreateInstance, None, kind.iid)
    if result != S_OK:
        raise OSError("CreateInstance answers 0x%X" % (result & 0xFFFFFFFF))
    return made


def create_instance(clsid, kind):
    """CoCreateInstance, through the folder that REGISTRY names."""
    return received(kind, _CoCreateInstance, clsid, None, 1, kind.iid)


def create_instance_by_name(program_id, kind):
    """CoCreateInstanceByName, "ZIRDB.Connection"."""
    return received(kind, _CoCreateInstanceByName, program_id, None, 1,
                    kind.iid)


def get_object(name, kind):
    """CoGetObject, "new:ZIRDB.Connection"."""
    options = BIND_OPTS(sizeof(BIND_OPTS))
    return received(kind, _CoGetObject, name, byref(options), kind.iid)
