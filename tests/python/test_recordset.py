# SPDX-License-Identifier: MIT
"""Rows, fields and enumerators through their slots and late-bound."""

import unittest

import zirdb_abi as z
from support import (CLOSED, NO_CURRENT_RECORD, NO_FIELD, NOT_BACKWARD,
                     NOT_FOUND, NOT_IN_THIS_CONTEXT, ContractTest,
                     DatabaseTest)

NO_CURRENT_RECORD_TEXT = (
    "Either BOF or EOF is True, or the current record has been deleted. "
    "Requested operation requires a current record.")
NOT_FOUND_TEXT = ("Item cannot be found in the collection corresponding to "
                  "the requested name or ordinal.")

MEMBERS = {
    "Recordset": [("Fields", 1), ("State", 2), ("EOF", 3), ("BOF", 4),
                  ("RecordCount", 7), ("MoveFirst", 8), ("MoveLast", 9),
                  ("MovePrevious", 10), ("MoveNext", 5), ("Close", 6),
                  ("forEach", 11)],
    "Fields": [("Item", 0), ("Count", 1), ("_NewEnum", -4), ("NewEnum", -4)],
    "Field": [("Value", 0), ("Name", 1)],
}

NAMES = ["Ada", "Grace", "J\u00fcrgen \U0001F600"]


class Standalone(ContractTest):

    def test_is_open_at_both_ends_and_has_no_fields(self):
        recordset = z.create(z.CLSID_ZIRDBRecordset, z.IZIRDBRecordset)
        self.assertEqual(self.number(recordset.get_State), 1)
        self.assertEqual(self.number(recordset.get_EOF, z.VARIANT_BOOL), -1)
        self.assertEqual(self.number(recordset.get_BOF, z.VARIANT_BOOL), -1)
        self.assertEqual(self.number(recordset.get_RecordCount), -1)
        fields = self.got(z.IZIRDBFields, recordset.get_Fields)
        self.assertEqual(self.number(fields.get_Count), 0)
        self.assertResult(recordset.MoveFirst(), NO_CURRENT_RECORD)


class Rows(DatabaseTest):

    def setUp(self):
        super().setUp()
        self.recordset = self.run_sql("SELECT id, name FROM people")

    def tearDown(self):
        self.recordset = None
        super().tearDown()

    def test_members_have_the_published_ids(self):
        recordset = z.Script(self.recordset)
        for target, members in (
            (recordset, MEMBERS["Recordset"]),
            (recordset["Fields"], MEMBERS["Fields"]),
            (recordset("Fields", 0), MEMBERS["Field"]),
        ):
            for name, member in members:
                with self.subTest(name=name):
                    self.assertEqual(z.id_of(target.target, name.swapcase()),
                                     member)

    def test_are_walked_through_the_slots(self):
        seen = []
        while self.number(self.recordset.get_EOF, z.VARIANT_BOOL) == 0:
            seen.append((self.cell(self.recordset, 0).python(),
                         self.cell(self.recordset, 1).python()))
            self.assertResult(self.recordset.MoveNext(), z.S_OK)
        self.assertEqual(seen, list(enumerate(NAMES, 1)))
        self.assertEqual(self.number(self.recordset.get_BOF, z.VARIANT_BOOL),
                         0)
        self.assertResult(self.recordset.MoveNext(), NO_CURRENT_RECORD)

    def test_are_walked_late_bound(self):
        recordset = z.Script(self.recordset)
        seen = []
        while not recordset["EOF"]:
            seen.append(recordset("Fields", "NAME")["Value"])
            recordset("MoveNext")
        self.assertEqual(seen, NAMES)
        recordset("MoveFirst")
        self.assertEqual(recordset("Fields", "id")["Value"], 1)

    def test_fields_are_found_by_name_and_by_position(self):
        fields = self.got(z.IZIRDBFields, self.recordset.get_Fields)
        self.assertEqual(self.number(fields.get_Count), 2)
        for index in (z.Value("name"), z.Value("NaMe"), z.Value(1),
                      z.Value(1, z.VT_I4), z.Value(1.9),
                      z.Value("name").by_reference()):
            with self.subTest(index=index.vt):
                field = self.got(z.IZIRDBField, fields.Item, index)
                self.assertEqual(z.received_text(field.get_Name),
                                 (z.S_OK, "name"))
                value = z.Value()
                self.assertResult(field.get_Value(z.byref(value)), z.S_OK)
                self.assertValue(value, z.VT_BSTR, "Ada")

    def test_fields_that_are_not_there_are_not_found(self):
        fields = self.got(z.IZIRDBFields, self.recordset.get_Fields)
        for index in ("names", "", 2, -1, None):
            with self.subTest(index=index):
                result, field = z.received(z.IZIRDBField, fields.Item,
                                           z.Value(index))
                self.assertResult(result, NOT_FOUND)
                self.assertIsNone(field)
                self.assertThrew(
                    z.Script(fields).answer(z.DISPATCH_METHOD, "Item", index),
                    NOT_FOUND, "ZIRDB.Recordset", NOT_FOUND_TEXT)

    def test_a_field_follows_the_cursor(self):
        field = z.Script(self.recordset)("Fields", "name")
        self.recordset.MoveNext()
        self.assertEqual(field["Value"], "Grace")

    def test_a_field_keeps_its_recordset_alive(self):
        field = z.Script(self.recordset)("Fields", "name")
        self.recordset.release()
        self.assertEqual(field["Value"], "Ada")

    def test_moves_that_are_refused_say_why(self):
        recordset = z.Script(self.recordset)
        for name, code, text in (
            ("MovePrevious", NOT_IN_THIS_CONTEXT,
             "Operation is not allowed in this context."),
            ("MoveLast", NOT_BACKWARD,
             "Rowset does not support fetching backward."),
            ("MoveNext", NO_CURRENT_RECORD, NO_CURRENT_RECORD_TEXT),
        ):
            with self.subTest(name=name):
                self.assertThrew(recordset.answer(z.DISPATCH_METHOD, name),
                                 code, "ZIRDB.Recordset", text)

    def test_a_closed_one_counts_its_fields_and_nothing_else(self):
        field = z.Script(self.recordset)("Fields", 0)
        self.assertResult(self.recordset.Close(), z.S_OK)
        self.assertEqual(self.number(self.recordset.get_State), 0)
        fields = self.got(z.IZIRDBFields, self.recordset.get_Fields)
        self.assertEqual(self.number(fields.get_Count), 2)
        result, _ = z.received(z.IZIRDBField, fields.Item, z.Value(0))
        self.assertResult(result, CLOSED)
        self.assertResult(self.recordset.Close(), CLOSED)
        self.assertThrew(field.answer(z.DISPATCH_PROPERTYGET, "Value"),
                         NO_FIELD, "ZIRDB.Recordset",
                         "Field object is not available.")


class Columns(DatabaseTest):

    def test_arrive_in_the_types_of_their_kind(self):
        for declared, literal, vt, content in (
            ("INTEGER", "-2147483648", z.VT_I8, -(1 << 31)),
            ("BIGINT", "9223372036854775807", z.VT_I8, (1 << 63) - 1),
            ("DOUBLE", "0.1", z.VT_R8, 0.1),
            ("BOOLEAN", "1", z.VT_BOOL, True),
            ("BOOLEAN", "0", z.VT_BOOL, False),
            ("TEXT", "'\u20ac\U0001F600'", z.VT_BSTR, "\u20ac\U0001F600"),
            ("TEXT", "''", z.VT_BSTR, ""),
            ("BLOB", "x'00FF'", z.VT_ARRAY | z.VT_UI1, b"\x00\xff"),
            ("TEXT", "NULL", z.VT_NULL, None),
        ):
            with self.subTest(declared=declared, literal=literal):
                self.run_sql("CREATE TABLE one (c %s)" % declared)
                self.run_sql("INSERT INTO one VALUES (%s)" % literal)
                value = self.cell(self.run_sql("SELECT c FROM one"), 0)
                self.assertValue(value, vt, content)
                self.run_sql("DROP TABLE one")

    def test_true_is_minus_one_in_sixteen_bits(self):
        self.run_sql("CREATE TABLE one (c BOOLEAN)")
        self.run_sql("INSERT INTO one VALUES (1)")
        value = self.cell(self.run_sql("SELECT c FROM one"), 0)
        self.assertEqual(value.payload & 0xFFFF, 0xFFFF)

    def test_bytes_come_in_an_array_from_zero(self):
        value = self.cell(self.run_sql("SELECT x'010203'"), 0)
        array = z.cast(z.c_void_p(value.payload), z.POINTER(z.SAFEARRAY))
        self.assertEqual(z.bounds_of(array), (0, 2))
        self.assertEqual((array[0].cDims, array[0].cbElements), (1, 1))


class Enumerator(DatabaseTest):

    def setUp(self):
        super().setUp()
        fields = z.Script(self.run_sql("SELECT id, name FROM people"))
        answer = z.invoke(fields["Fields"].target, z.DISPID_NEWENUM,
                          z.DISPATCH_PROPERTYGET)
        self.assertEqual((answer.result, answer.vt), (z.S_OK, z.VT_UNKNOWN))
        self.enumerator = answer.value.query(z.IEnumVARIANT)

    def tearDown(self):
        self.enumerator = None
        super().tearDown()

    def next(self, count):
        """The result and the fields that it stored, by name."""
        values = (z.VARIANT * count)()
        fetched = z.ULONG(77)
        result = self.enumerator.Next(count, values, z.byref(fetched))
        names = []
        for value in values[:fetched.value]:
            self.assertEqual(value.vt, z.VT_DISPATCH)
            names.append(z.Script(z.python_value(value))["Name"])
            z.VariantClear(z.byref(value))
        return result, names

    def test_gives_as_many_fields_as_there_are(self):
        self.assertEqual(self.next(5), (z.S_FALSE, ["id", "name"]))
        self.assertEqual(self.next(1), (z.S_FALSE, []))
        self.assertResult(self.enumerator.Reset(), z.S_OK)
        self.assertEqual(self.next(2), (z.S_OK, ["id", "name"]))

    def test_skips_and_is_cloned_where_it_stands(self):
        self.assertResult(self.enumerator.Skip(1), z.S_OK)
        clone = self.got(z.IEnumVARIANT, self.enumerator.Clone)
        self.assertEqual(self.next(2), (z.S_FALSE, ["name"]))
        self.assertResult(clone.Skip(1), z.S_OK)
        self.assertResult(clone.Skip(1), z.S_FALSE)

    def test_its_fields_keep_their_values_without_the_database(self):
        self.connection.release()
        value = z.Value()
        self.assertResult(
            self.enumerator.Next(1, z.byref(value), None), z.S_OK)
        self.assertEqual(z.Script(value.python())["Value"], 1)


if __name__ == "__main__":
    unittest.main()
