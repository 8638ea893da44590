# SPDX-License-Identifier: MIT
"""What the test files share: results, a database, and a check after each test
that no object is left alive.

By hand, in this folder:
ZIRDB_LIBRARY=../../build/dev/libzirdb.so ZIRDB_REGISTRY=../../build/dev/registry \\
    python3 -m unittest
"""

import gc
import os
import tempfile
import unittest

import zirdb_abi as z

OPEN_FAILED = z.hresult(0x80040710)
ALREADY_OPEN = z.hresult(0x80040711)
EXECUTE_FAILED = z.hresult(0x80040712)
NO_TEXT = z.hresult(0x80040E0C)
ERRORS_IN_COMMAND = z.hresult(0x80040E14)
ERRORS_OCCURRED = z.hresult(0x80040E21)
NOT_BACKWARD = z.hresult(0x80040E24)
BAD_ARGUMENTS = z.hresult(0x800A0BB9)
NO_CURRENT_RECORD = z.hresult(0x800A0BCD)
NOT_IN_THIS_CONTEXT = z.hresult(0x800A0C93)
NOT_FOUND = z.hresult(0x800A0CC1)
NO_FIELD = z.hresult(0x800A0D5C)
BAD_PARAMETER = z.hresult(0x800A0E7C)
NO_CONNECTION = z.hresult(0x800A0E7D)
CLOSED = z.hresult(0x800A0E78)

AD_EMPTY = 0
AD_INTEGER = 3
AD_BOOLEAN = 11
AD_BIGINT = 20
AD_VARCHAR = 200
AD_VARWCHAR = 202
AD_VARBINARY = 204

INPUT = 1
OUTPUT = 2
INPUT_OUTPUT = 3
RETURN_VALUE = 4

CMD_TEXT = 1
CMD_STORED_PROC = 4


class ContractTest(unittest.TestCase):
    """Ends with no object alive and no exception lost in a callback."""

    def tearDown(self):
        gc.collect()
        self.assertEqual(z.DllCanUnloadNow(), z.S_OK, "objects are left")

    def assertResult(self, actual, expected):
        """Compares HRESULTs, which read best as 0x8..."""
        self.assertEqual("0x%08X" % (actual & 0xFFFFFFFF),
                         "0x%08X" % (expected & 0xFFFFFFFF))

    def assertValue(self, value, vt, content):
        """A VARIANT of exactly this type and content."""
        self.assertEqual((value.vt, z.python_value(value)), (vt, content))

    def assertThrew(self, answer, scode, source, description):
        """A late-bound call whose operation failed with these."""
        self.assertResult(answer.result, z.DISP_E_EXCEPTION)
        self.assertResult(answer.scode, scode)
        self.assertEqual((answer.source, answer.description),
                         (source, description))
        self.assertEqual(answer.vt, z.VT_EMPTY)

    def assertRefused(self, answer, result):
        """A late-bound call that said no, and nothing else."""
        self.assertResult(answer.result, result)
        self.assertEqual((answer.vt, answer.scode, answer.source,
                          answer.description), (z.VT_EMPTY, 0, "", None))

    def got(self, kind, call, *arguments):
        """The object that a call stores, which must succeed."""
        result, made = z.received(kind, call, *arguments)
        self.assertResult(result, z.S_OK)
        self.assertIsNotNone(made)
        return made

    def number(self, get, kind=z.LONG):
        """The number that a getter stores, which must succeed."""
        # The neighbours show a number that is stored too wide.
        numbers = (kind * 3)(77, 77, 77)
        second = kind.from_buffer(numbers, z.sizeof(kind))
        self.assertResult(get(z.byref(second)), z.S_OK)
        self.assertEqual((numbers[0], numbers[2]), (77, 77))
        return numbers[1]


class DatabaseTest(ContractTest):
    """Has a SQLite database of three rows, and connections to it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.connection_string = "Driver=SQLite3;Database=%s" % os.path.join(
            folder.name, "test.db")
        self.connection = self.opened()
        self.run_sql("CREATE TABLE people (id INTEGER, name TEXT)")
        self.run_sql("INSERT INTO people VALUES (1, 'Ada'), (2, 'Grace'), "
                     "(3, 'J\u00fcrgen \U0001F600')")

    def tearDown(self):
        self.connection = None
        super().tearDown()

    def opened(self):
        made = z.create(z.CLSID_ZIRDBConnection, z.IZIRDBConnection)
        text = z.Text(self.connection_string)
        self.assertResult(made.Open(text, None, None, 0), z.S_OK)
        return made

    def run_sql(self, sql, affected=None):
        """Through the vtable: the recordset, or None where there is none."""
        result, recordset = z.received(z.IZIRDBRecordset,
                                       self.connection.Execute, z.Text(sql),
                                       affected, 0)
        self.assertResult(result, z.S_OK)
        return recordset

    def script(self):
        """The connection as a script has it."""
        return z.Script(self.connection)

    def command(self, text, command_type=None):
        """A command over the connection."""
        made = z.create(z.CLSID_ZIRDBCommand, z.IZIRDBCommand)
        face = self.connection.query(z.IDispatch)
        self.assertResult(made.putref_ActiveConnection(face), z.S_OK)
        self.assertResult(made.put_CommandText(z.Text(text)), z.S_OK)
        if command_type is not None:
            self.assertResult(made.put_CommandType(command_type), z.S_OK)
        return made

    def cell(self, recordset, column):
        """A value of the current row, through the vtable."""
        fields = self.got(z.IZIRDBFields, recordset.get_Fields)
        field = self.got(z.IZIRDBField, fields.Item, z.Value(column))
        value = z.Value()
        self.assertResult(field.get_Value(z.byref(value)), z.S_OK)
        return value
