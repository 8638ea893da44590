# SPDX-License-Identifier: MIT
"""Records, strings and arrays lie in memory as the headers say."""

import ctypes
import unittest

import zirdb_abi as z
from support import ContractTest

LAYOUTS = [
    (z.GUID, 16, {"Data1": 0, "Data2": 4, "Data3": 6, "Data4": 8}),
    (z.VARIANT, 16, {"vt": 0, "wReserved1": 2, "wReserved2": 4,
                     "wReserved3": 6, "payload": 8}),
    (z.SAFEARRAYBOUND, 16, {"cElements": 0, "lLbound": 8}),
    (z.SAFEARRAY, 40, {"cDims": 0, "fFeatures": 2, "cbElements": 4,
                       "cLocks": 8, "pvData": 16, "rgsabound": 24}),
    (z.EXCEPINFO, 64, {"wCode": 0, "wReserved": 2, "bstrSource": 8,
                       "bstrDescription": 16, "bstrHelpFile": 24,
                       "dwHelpContext": 32, "pvReserved": 40,
                       "pfnDeferredFillIn": 48, "scode": 56}),
    (z.DISPPARAMS, 24, {"rgvarg": 0, "rgdispidNamedArgs": 8, "cArgs": 16,
                        "cNamedArgs": 20}),
    (z.SYSTEMTIME, 16, {"wYear": 0, "wMonth": 2, "wDayOfWeek": 4, "wDay": 6,
                        "wHour": 8, "wMinute": 10, "wSecond": 12,
                        "wMilliseconds": 14}),
    (z.BIND_OPTS, 16, {"cbStruct": 0, "grfFlags": 4, "grfMode": 8,
                       "dwTickCountDeadline": 12}),
]

IDENTIFIERS = [
    "IID_IUnknown", "IID_IClassFactory", "IID_IDispatch", "IID_IEnumVARIANT",
    "IID_NULL", "CLSID_NULL", "CLSID_ZIRDBConnection", "CLSID_ZIRDBCommand",
    "CLSID_ZIRDBRecordset", "IID_IZIRDBConnection", "IID_IZIRDBCommand",
    "IID_IZIRDBRecordset", "IID_IZIRDBFields", "IID_IZIRDBField",
    "IID_IZIRDBParameters", "IID_IZIRDBParameter"
]


class Records(ContractTest):

    def test_sizes_and_offsets_are_the_published_ones(self):
        for record, size, offsets in LAYOUTS:
            with self.subTest(record=record.__name__):
                self.assertEqual(ctypes.sizeof(record), size)
                self.assertEqual(
                    {name: getattr(record, name).offset
                     for name, _ in record._fields_}, offsets)

    def test_initialising_fills_the_record_and_nothing_behind_it(self):
        for record, initialise in ((z.VARIANT, z.VariantInit),
                                   (z.EXCEPINFO, z.ExcepinfoInit)):
            with self.subTest(record=record.__name__):
                size = ctypes.sizeof(record)
                memory = (ctypes.c_uint8 * (size + 8))(*[0xEE] * (size + 8))
                filled = record.from_buffer(memory)
                initialise(z.byref(filled))
                for name, _ in record._fields_:
                    self.assertFalse(getattr(filled, name), name)
                self.assertEqual(bytes(memory[size:]), b"\xee" * 8)

    def test_the_library_exports_the_identifiers(self):
        for name in IDENTIFIERS:
            with self.subTest(name=name):
                exported = z.GUID.in_dll(z.LIBRARY, name)
                self.assertEqual(str(exported), str(getattr(z, name)))

    def test_an_identifier_is_written_in_four_byte_characters(self):
        buffer = (ctypes.c_uint32 * 40)(*[7] * 40)
        clsid = z.CLSID_ZIRDBConnection
        self.assertEqual(z.StringFromGUID2(clsid, buffer, 39), 39)
        self.assertEqual("".join(map(chr, buffer[:38])), str(clsid).lower())
        self.assertEqual(list(buffer[38:]), [0, 7])

    def test_a_four_byte_integer_value_has_eight_bytes_of_payload(self):
        given = z.Value(1 << 40, z.VT_I4)
        value = z.Value()
        self.assertResult(
            z.VariantChangeType(z.byref(value), z.byref(given), 0, z.VT_I8),
            z.S_OK)
        self.assertValue(value, z.VT_I8, 1 << 40)

    def test_a_broken_down_time_is_passed_by_value(self):
        # 2024-01-31 is day 45322.
        time = z.tm(tm_hour=18, tm_mday=31, tm_mon=0, tm_year=124)
        self.assertEqual(z.tm_double(time), 45322.75)
        split = z.tm()
        z.double_tm(45322.75, z.byref(split))
        self.assertEqual((split.tm_year, split.tm_mon, split.tm_mday,
                          split.tm_hour, split.tm_wday), (124, 0, 31, 18, -1))

    def test_a_system_time_is_filled_field_by_field(self):
        time = z.SYSTEMTIME()
        self.assertEqual(z.VariantTimeToSystemTime(45322.75, z.byref(time)), 1)
        self.assertEqual([getattr(time, name) for name, _ in time._fields_],
                         [2024, 1, 0xFFFF, 31, 18, 0, 0, 0])
        date = ctypes.c_double()
        self.assertEqual(
            z.SystemTimeToVariantTime(z.byref(time), z.byref(date)), 1)
        self.assertEqual(date.value, 45322.75)


class Strings(ContractTest):

    def count_in_front(self, string):
        return ctypes.c_uint64.from_address(string - 8).value

    def units(self, string, count):
        return list((ctypes.c_uint32 * count).from_address(string))

    def test_the_count_of_characters_stands_in_the_eight_bytes_in_front(self):
        string = z.SysAllocString("a\u20ac\U0001F600")
        self.assertEqual(self.count_in_front(string), 3)
        self.assertEqual(self.units(string, 4), [0x61, 0x20AC, 0x1F600, 0])
        self.assertEqual(z.SysStringLen(string), 3)
        z.SysFreeString(string)

    def test_zeros_inside_are_counted(self):
        text = z.Text("a\0b")
        self.assertEqual(self.count_in_front(text.pointer), 3)
        self.assertEqual(self.units(text.pointer, 4), [0x61, 0, 0x62, 0])
        self.assertEqual(str(text), "a\0b")

    def test_a_length_in_bytes_is_the_count_and_not_four_times_that(self):
        self.assertEqual(z.SysStringByteLen(z.Text("Hello")), 5)

    def test_a_string_of_bytes_counts_bytes(self):
        string = z.SysAllocStringByteLen(b"abc", 3)
        self.assertEqual(self.count_in_front(string), 3)
        self.assertEqual(ctypes.string_at(string, 3), b"abc")
        self.assertEqual(z.SysStringByteLen(string), 3)
        z.SysFreeString(string)

    def test_null_is_an_empty_string(self):
        self.assertIsNone(z.SysAllocString(None))
        self.assertEqual(z.SysStringLen(None), 0)
        z.SysFreeString(None)

    def test_utf8_becomes_four_byte_characters(self):
        units = (ctypes.c_uint32 * 3)()
        self.assertEqual(z.utf8_utf32(units, 3, b"h\xc3\xa9"), 3)
        self.assertEqual(list(units), [0x68, 0xE9, 0])


class Arrays(ContractTest):

    def test_a_descriptor_tells_the_type_of_its_elements(self):
        for vt, size, features in ((z.VT_VARIANT, 16, 0x0801),
                                   (z.VT_BSTR, 8, 0x0101),
                                   (z.VT_UI1, 1, 0x0001)):
            with self.subTest(vt=vt):
                array = z.SafeArrayCreateVector(vt, -2, 5)
                record = array[0]
                self.assertEqual((record.cDims, record.fFeatures,
                                  record.cbElements, record.cLocks),
                                 (1, features, size, 0))
                self.assertEqual((record.rgsabound[0].cElements,
                                  record.rgsabound[0].lLbound), (5, -2))
                self.assertEqual(z.bounds_of(array), (-2, 2))
                self.assertResult(z.SafeArrayDestroy(array), z.S_OK)

    def test_bounds_stand_in_the_order_of_their_creation_before_a_zero(self):
        bounds = (z.SAFEARRAYBOUND * 2)((3, 10), (4, 20))
        array = z.SafeArrayCreate(z.VT_UI1, 2, bounds)
        stored = (z.SAFEARRAYBOUND * 3).from_address(
            ctypes.addressof(array[0]) + z.SAFEARRAY.rgsabound.offset)
        self.assertEqual([(one.cElements, one.lLbound) for one in stored],
                         [(3, 10), (4, 20), (0, 0)])
        self.assertEqual(z.bounds_of(array, 1), (10, 12))
        self.assertEqual(z.bounds_of(array, 2), (20, 23))
        z.SafeArrayDestroy(array)

    def test_elements_are_locked_while_they_are_accessed(self):
        array = z.array_of_values(["a", 2])
        with z.Elements(array, z.VARIANT) as elements:
            self.assertEqual(array[0].cLocks, 1)
            self.assertEqual(array[0].pvData, ctypes.addressof(elements))
            self.assertEqual([one.vt for one in elements],
                             [z.VT_BSTR, z.VT_I8])
        self.assertEqual(array[0].cLocks, 0)
        z.SafeArrayDestroy(array)

    def test_a_copied_value_has_an_array_of_its_own(self):
        given = z.Value(["a", b"\x00\xff", None, [1]])
        copy = z.Value(given)
        self.assertNotEqual(copy.payload, given.payload)
        given.clear()
        self.assertEqual(copy.python(), ["a", b"\x00\xff", None, [1]])


if __name__ == "__main__":
    unittest.main()
