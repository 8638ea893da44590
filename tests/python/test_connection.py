# SPDX-License-Identifier: MIT
"""Connections through their slots and late-bound."""

import ctypes
import unittest

import zirdb_abi as z
from support import (ALREADY_OPEN, CLOSED, ERRORS_OCCURRED, EXECUTE_FAILED,
                     NO_TEXT, OPEN_FAILED, ContractTest, DatabaseTest)

CLOSED_TEXT = "Operation is not allowed when the object is closed."
OPEN_TEXT = "Connection is already open"
NO_COMMAND_TEXT = "Command text was not set for the command object."
NO_WORK_TEXT = ("Multiple-step OLE DB operation generated errors. Check each "
                "OLE DB status value, if available. No work was done.")

MEMBERS = [("ConnectionString", 1), ("State", 2), ("Open", 3), ("Close", 4),
           ("Execute", 5)]


class Unopened(ContractTest):

    def setUp(self):
        self.connection = z.create(z.CLSID_ZIRDBConnection,
                                   z.IZIRDBConnection)

    def tearDown(self):
        self.connection = None
        super().tearDown()

    def test_members_have_the_published_ids(self):
        late = self.connection.query(z.IDispatch)
        for name, member in MEMBERS:
            with self.subTest(name=name):
                self.assertEqual(z.id_of(late, name.swapcase()), member)

    def test_a_new_one_is_closed_and_has_no_string(self):
        self.assertEqual(self.number(self.connection.get_State), 0)
        result, text = z.received_text(self.connection.get_ConnectionString)
        self.assertResult(result, z.S_OK)
        self.assertEqual(text or "", "")

    def test_a_string_goes_in_and_out_with_every_character(self):
        given = "DSN=\u20ac\U0001F600\0behind"
        self.assertResult(
            self.connection.put_ConnectionString(z.Text(given)), z.S_OK)
        self.assertEqual(
            z.received_text(self.connection.get_ConnectionString),
            (z.S_OK, given))

    def test_without_any_string_it_does_not_open(self):
        self.assertResult(self.connection.Open(None, None, None, 0),
                          z.E_INVALIDARG)
        self.assertThrew(
            z.Script(self.connection).answer(z.DISPATCH_METHOD, "Open"),
            z.E_INVALIDARG, "ZIRDB.Connection",
            "ConnectionString is required")

    def test_a_driver_that_is_not_there_is_told_in_the_managers_words(self):
        answer = z.Script(self.connection).answer(
            z.DISPATCH_METHOD, "Open", "Driver=/no/such/driver.so")
        self.assertThrew(answer, OPEN_FAILED, "ZIRDB.Connection",
                         answer.description)
        self.assertRegex(answer.description, "^01000: .*/no/such/driver.so")
        self.assertEqual(self.number(self.connection.get_State), 0)

    def test_a_closed_one_executes_nothing_but_can_be_closed(self):
        result, recordset = z.received(z.IZIRDBRecordset,
                                       self.connection.Execute,
                                       z.Text("SELECT 1"), None, 0)
        self.assertResult(result, CLOSED)
        self.assertIsNone(recordset)
        self.assertThrew(
            z.Script(self.connection).answer(z.DISPATCH_METHOD, "Execute",
                                             "SELECT 1"), CLOSED,
            "ZIRDB.Connection", CLOSED_TEXT)
        self.assertResult(self.connection.Close(), z.S_OK)

    def test_null_out_pointers_are_refused(self):
        for name in ("get_ConnectionString", "get_State"):
            with self.subTest(name=name):
                self.assertResult(getattr(self.connection, name)(None),
                                  z.E_INVALIDARG)


class Opened(DatabaseTest):

    def test_state_and_string_are_those_of_the_open_connection(self):
        self.assertEqual(self.number(self.connection.get_State), 1)
        self.assertEqual(
            z.received_text(self.connection.get_ConnectionString),
            (z.S_OK, self.connection_string))

    def test_user_and_password_are_appended_to_the_string(self):
        other = z.Script(z.create(z.CLSID_ZIRDBConnection,
                                  z.IZIRDBConnection))
        other("Open", self.connection_string, "u", "p")
        self.assertEqual(other["ConnectionString"],
                         self.connection_string + ";UID=u;PWD=p;")

    def test_an_open_one_refuses_another_string_and_another_open(self):
        script = self.script()
        self.assertResult(
            self.connection.put_ConnectionString(z.Text("x")), ALREADY_OPEN)
        self.assertThrew(
            script.answer(z.DISPATCH_PROPERTYPUT, "ConnectionString", "x"),
            ALREADY_OPEN, "ZIRDB.Connection", OPEN_TEXT)
        self.assertThrew(script.answer(z.DISPATCH_METHOD, "Open"),
                         ALREADY_OPEN, "ZIRDB.Connection", OPEN_TEXT)

    def test_it_closes_and_opens_again_with_the_string_it_has(self):
        script = self.script()
        script("Close")
        self.assertEqual(script["State"], 0)
        script("Open")
        self.assertEqual(script["State"], 1)
        self.assertEqual(script("Execute", "SELECT 7")("Fields", 0)["Value"],
                         7)

    def test_a_statement_with_columns_gives_a_recordset(self):
        recordset = self.run_sql("SELECT id FROM people")
        self.assertEqual(self.number(recordset.get_State), 1)

    def test_a_statement_without_columns_gives_none(self):
        self.assertIsNone(self.run_sql("DELETE FROM people WHERE id > 1"))
        answer = self.script().answer(z.DISPATCH_METHOD, "Execute",
                                      "DELETE FROM people")
        self.assertResult(answer.result, z.S_OK)
        self.assertEqual(answer.vt, z.VT_EMPTY)

    def test_what_the_database_refuses_is_told_in_its_words(self):
        for sql, code, text in (
            ("SELECT nonsense", EXECUTE_FAILED,
             "HY000: [SQLite]no such column: nonsense (1)"),
            ("", NO_TEXT, NO_COMMAND_TEXT),
        ):
            with self.subTest(sql=sql):
                self.assertThrew(
                    self.script().answer(z.DISPATCH_METHOD, "Execute", sql),
                    code, "ZIRDB.Connection", text)
        result, recordset = z.received(z.IZIRDBRecordset,
                                       self.connection.Execute,
                                       z.Text("nonsense"), None, 0)
        self.assertResult(result, EXECUTE_FAILED)
        self.assertIsNone(recordset)

    def test_an_error_without_a_record_for_it_is_an_error_all_the_same(self):
        late = self.connection.query(z.IDispatch)
        argument = z.Value("nonsense")
        arguments = (z.VARIANT * 1)(argument)
        parameters = z.DISPPARAMS(arguments, None, 1, 0)
        value = z.Value()
        self.assertResult(
            late.Invoke(5, z.IID_NULL, 0, z.DISPATCH_METHOD,
                        z.byref(parameters), z.byref(value), None, None),
            z.DISP_E_EXCEPTION)
        self.assertEqual(value.vt, z.VT_EMPTY)

    def test_calls_of_the_wrong_shape_are_refused(self):
        script = self.script()
        method, get = z.DISPATCH_METHOD, z.DISPATCH_PROPERTYGET
        put = z.DISPATCH_PROPERTYPUT
        for flags, name, arguments, result in (
            (method, "Execute", (), z.DISP_E_BADPARAMCOUNT),
            (method, "Execute", ("", 0, 0, 0), z.DISP_E_BADPARAMCOUNT),
            (method, "Execute", ("", "many"), z.DISP_E_TYPEMISMATCH),
            (get, "Execute", ("",), z.DISP_E_MEMBERNOTFOUND),
            (method, "Open", ("",) * 5, z.DISP_E_BADPARAMCOUNT),
            (method, "Close", (1,), z.DISP_E_BADPARAMCOUNT),
            (get, "State", (1,), z.DISP_E_BADPARAMCOUNT),
            (method, "State", (), z.E_INVALIDARG),
            (put, "ConnectionString", (5,), z.DISP_E_TYPEMISMATCH),
            (method, "ConnectionString", (), z.DISP_E_MEMBERNOTFOUND),
        ):
            with self.subTest(name=name, arguments=arguments, flags=flags):
                self.assertRefused(script.answer(flags, name, *arguments),
                                   result)

    def test_a_recordset_outlives_its_connection_closed(self):
        recordset = self.run_sql("SELECT id FROM people")
        self.assertEqual(self.connection.release(), 0)
        self.assertEqual(self.number(recordset.get_State), 0)
        self.assertResult(recordset.MoveNext(), CLOSED)


class RowsAffected(DatabaseTest):
    """The number of rows goes through a reference, as wide as its type."""

    UPDATE = "UPDATE people SET name = 'x' WHERE id < 3"

    # Of eight bytes that were all ones.
    WIDTHS = [
        (z.VT_I2, 2), (z.VT_UI2, 2), (z.VT_UI4, 4), (z.VT_I4, 8),
        (z.VT_I8, 8), (z.VT_UI8, 8), (z.VT_R8, 0), (z.VT_UI1, 0),
        (z.VT_I1, 0), (z.VT_BOOL, 0),
    ]

    def written(self, number, width):
        size = 8 * width
        ones = (1 << 64) - 1
        return ones if width == 0 else (ones >> size << size) | number

    def test_through_the_slot(self):
        for vt, width in self.WIDTHS:
            with self.subTest(vt=vt):
                target = ctypes.c_uint64(-1)
                affected = z.reference(vt, target)
                self.run_sql(self.UPDATE, z.byref(affected))
                self.assertEqual(target.value, self.written(2, width))

    def test_late_bound(self):
        for vt, width in self.WIDTHS:
            with self.subTest(vt=vt):
                target = ctypes.c_uint64(-1)
                answer = self.script().answer(z.DISPATCH_METHOD, "Execute",
                                              self.UPDATE,
                                              z.reference(vt, target), 0)
                # What is no target has to be a number, and none of these is.
                self.assertResult(answer.result,
                                  z.S_OK if width else z.DISP_E_TYPEMISMATCH)
                self.assertEqual(target.value, self.written(2, width))

    def test_through_a_variant_whatever_it_held(self):
        target = z.Value("text that is freed")
        self.run_sql(self.UPDATE, z.byref(target.by_reference()))
        self.assertValue(target, z.VT_I8, 2)

    def test_is_unknown_with_columns(self):
        target = z.Value()
        self.script()("Execute", "SELECT 1", target.by_reference())
        self.assertValue(target, z.VT_I8, -1)

    def test_is_not_written_when_the_statement_fails(self):
        target = z.Value(77)
        answer = self.script().answer(z.DISPATCH_METHOD, "Execute", "nonsense",
                                      target.by_reference())
        self.assertResult(answer.scode, EXECUTE_FAILED)
        self.assertValue(target, z.VT_I8, 77)


class WithValues(DatabaseTest):
    """The default member takes the values of the statement's markers."""

    def values(self, *arguments):
        return z.invoke(self.connection.query(z.IDispatch), z.DISPID_VALUE,
                        z.DISPATCH_METHOD, *arguments)

    def answered(self, *arguments):
        answer = self.values(*arguments)
        self.assertResult(answer.result, z.S_OK)
        recordset = z.Script(answer.value)
        answer.value = None
        return [recordset("Fields", i)["Value"]
                for i in range(recordset["Fields"]["Count"])]

    def test_in_the_order_of_the_markers(self):
        self.assertEqual(
            self.answered(
                "SELECT name FROM people WHERE id = ? OR name = ? ORDER BY id",
                5, "Grace"), ["Grace"])

    def test_or_one_array_of_them(self):
        self.assertEqual(
            self.answered("SELECT id FROM people WHERE name LIKE ? AND id > ?",
                          ["%a%", 1]), [2])

    def test_arguments_by_reference_are_read(self):
        link = z.Value(1).by_reference()
        self.assertEqual(
            self.answered("SELECT name FROM people WHERE id = ?",
                          link.by_reference()), ["Ada"])

    def test_bytes_and_nulls_arrive(self):
        self.run_sql("CREATE TABLE things (content BLOB, note TEXT)")
        self.values("INSERT INTO things VALUES (?, ?)", b"\x00\xff", None)
        self.assertEqual(
            self.answered("SELECT content, note FROM things"),
            [b"\x00\xff", None])

    def test_a_procedure_call_takes_none(self):
        self.assertThrew(self.values("EXEC p", 1), ERRORS_OCCURRED,
                         "ZIRDB.Connection", NO_WORK_TEXT)


if __name__ == "__main__":
    unittest.main()
