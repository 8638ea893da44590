# SPDX-License-Identifier: MIT
"""Commands and their parameters through their slots and late-bound."""

import unittest

import zirdb_abi as z
from support import (AD_BIGINT, AD_BOOLEAN, AD_EMPTY, AD_INTEGER, AD_VARBINARY,
                     AD_VARCHAR, AD_VARWCHAR, BAD_ARGUMENTS, BAD_PARAMETER,
                     CMD_STORED_PROC, CMD_TEXT, CLOSED, ERRORS_IN_COMMAND,
                     ERRORS_OCCURRED, INPUT, NO_CONNECTION,
                     NO_TEXT, NOT_FOUND, OUTPUT, RETURN_VALUE, ContractTest,
                     DatabaseTest)

NO_CONNECTION_TEXT = (
    "The connection cannot be used to perform this operation. It is either "
    "closed or invalid in this context.")
NOT_COMPATIBLE = "Parameter value is not compatible with parameter type."

MEMBERS = {
    "Command": [("ActiveConnection", 1), ("CommandText", 2), ("Execute", 3),
                ("CreateParameter", 4), ("Parameters", 5),
                ("CommandType", 6)],
    "Parameters": [("Item", 0), ("Count", 1), ("Append", 2)],
    "Parameter": [("Value", 0), ("Name", 1), ("Type", 2), ("Direction", 3),
                  ("Size", 4)],
}


class Alone(ContractTest):

    def setUp(self):
        self.command = z.create(z.CLSID_ZIRDBCommand, z.IZIRDBCommand)

    def tearDown(self):
        self.command = None
        super().tearDown()

    def created(self, name, kind, direction, size, value):
        return self.got(z.IZIRDBParameter, self.command.CreateParameter,
                        z.Text(name), kind, direction, size, value)

    def test_members_have_the_published_ids(self):
        command = z.Script(self.command)
        for target, members in (
            (command, MEMBERS["Command"]),
            (command["Parameters"], MEMBERS["Parameters"]),
            (command("CreateParameter"), MEMBERS["Parameter"]),
        ):
            for name, member in members:
                with self.subTest(name=name):
                    self.assertEqual(z.id_of(target.target, name.swapcase()),
                                     member)

    def test_a_new_one_has_nothing(self):
        self.assertEqual(self.number(self.command.get_CommandType), 8)
        result, text = z.received_text(self.command.get_CommandText)
        self.assertEqual((result, text or ""), (z.S_OK, ""))
        self.assertEqual(
            z.received(z.IDispatch, self.command.get_ActiveConnection),
            (z.S_OK, None))
        parameters = self.got(z.IZIRDBParameters, self.command.get_Parameters)
        self.assertEqual(self.number(parameters.get_Count), 0)
        answer = z.Script(self.command).answer(z.DISPATCH_PROPERTYGET,
                                               "ActiveConnection")
        self.assertEqual((answer.vt, answer.value), (z.VT_DISPATCH, None))

    def test_text_and_type_go_in_and_out(self):
        command = z.Script(self.command)
        command["CommandText"] = "SELECT '\u20ac\U0001F600'"
        self.assertEqual(z.received_text(self.command.get_CommandText),
                         (z.S_OK, "SELECT '\u20ac\U0001F600'"))
        for kind, result in ((-1, z.S_OK), (1, z.S_OK), (4, z.S_OK),
                             (8, z.S_OK), (2, z.E_INVALIDARG),
                             ((1 << 32) + 1, z.E_INVALIDARG)):
            with self.subTest(kind=kind):
                self.assertResult(self.command.put_CommandType(kind), result)
        self.assertEqual(command["CommandType"], 8)

    # The value does not fit into the registers that are left, the pointer
    # behind it does.
    def test_a_parameters_value_is_passed_by_value_among_other_arguments(self):
        big = (1 << 40) + 7
        one = self.created("p\u20ac", big, -big, big + 1, z.Value(-big))
        self.assertEqual(z.received_text(one.get_Name), (z.S_OK, "p\u20ac"))
        self.assertEqual(self.number(one.get_Type), big)
        self.assertEqual(self.number(one.get_Direction), -big)
        self.assertEqual(self.number(one.get_Size), big + 1)
        value = z.Value()
        self.assertResult(one.get_Value(z.byref(value)), z.S_OK)
        self.assertValue(value, z.VT_I8, -big)

    def test_values_of_every_kind_are_copied_by_value(self):
        one = self.created("p", 0, INPUT, 0, z.Value())
        for vt, content in ((z.VT_R8, -1.5), (z.VT_BSTR, "a\u20ac"),
                            (z.VT_BOOL, True), (z.VT_NULL, None),
                            (z.VT_EMPTY, z.EMPTY),
                            (z.VT_ARRAY | z.VT_UI1, b"\x00\x01"),
                            (z.VT_ARRAY | z.VT_VARIANT, ["x", [2]])):
            with self.subTest(vt=vt):
                given = z.Value(content)
                self.assertResult(one.put_Value(given), z.S_OK)
                self.assertEqual(given.vt, vt)  # and is still the caller's
                value = z.Value()
                one.get_Value(z.byref(value))
                self.assertValue(value, vt, content)
                if vt & z.VT_ARRAY or vt == z.VT_BSTR:
                    self.assertNotEqual(value.payload, given.payload)

    def test_a_null_is_empty_where_nothing_is_sent(self):
        for direction, vt in ((INPUT, z.VT_NULL), (OUTPUT, z.VT_EMPTY),
                              (RETURN_VALUE, z.VT_EMPTY)):
            with self.subTest(direction=direction):
                one = self.created("p", 0, direction, 0, z.Value(None))
                value = z.Value()
                one.get_Value(z.byref(value))
                self.assertEqual(value.vt, vt)

    def test_an_object_as_a_value_is_the_same_object(self):
        other = z.create(z.CLSID_ZIRDBRecordset, z.IDispatch)
        one = self.created("p", 0, INPUT, 0, z.Value(other))
        value = z.Value()
        one.get_Value(z.byref(value))
        self.assertEqual(value.python().pointer, other.pointer)

    def test_numbers_outside_of_their_lists_are_refused(self):
        one = self.created("p", AD_VARCHAR, INPUT, 0, z.Value())
        self.assertResult(one.put_Type(201), BAD_ARGUMENTS)
        self.assertResult(one.put_Type((1 << 32) + AD_BIGINT), BAD_ARGUMENTS)
        self.assertResult(one.put_Direction(5), BAD_ARGUMENTS)
        self.assertResult(one.put_Direction(-1), BAD_ARGUMENTS)
        self.assertThrew(
            z.Script(one).answer(z.DISPATCH_PROPERTYPUT, "Type", 201),
            BAD_ARGUMENTS, "ZIRDB.Command",
            "Arguments are of the wrong type, are out of acceptable range, or "
            "are in conflict with one another.")
        self.assertEqual(self.number(one.get_Type), AD_VARCHAR)
        self.assertEqual(self.number(one.get_Direction), INPUT)
        self.assertResult(one.put_Size(-(1 << 40)), z.S_OK)
        self.assertEqual(self.number(one.get_Size), -(1 << 40))

    def test_parameters_are_found_by_name_and_by_position(self):
        parameters = self.got(z.IZIRDBParameters, self.command.get_Parameters)
        for name in ("First", "Second", "first"):
            one = self.created(name, 0, INPUT, 0, z.Value())
            self.assertResult(parameters.Append(one), z.S_OK)
        self.assertEqual(self.number(parameters.get_Count), 3)
        for index, name in ((z.Value("FIRST"), "First"),
                            (z.Value(1), "Second"),
                            (z.Value("second").by_reference(), "Second"),
                            (z.Value(2.9), "first")):
            found = self.got(z.IZIRDBParameter, parameters.Item, index)
            self.assertEqual(z.received_text(found.get_Name), (z.S_OK, name))
        for index in (z.Value("third"), z.Value(3), z.Value(-1)):
            result, found = z.received(z.IZIRDBParameter, parameters.Item,
                                       index)
            self.assertResult(result, NOT_FOUND)
            self.assertIsNone(found)

    def test_a_parameter_outlives_its_command(self):
        one = z.Script(self.command)("CreateParameter", "p", AD_BIGINT)
        z.Script(self.command)["Parameters"]("Append", one)
        self.assertEqual(self.command.release(), 0)
        one["Value"] = 5
        self.assertEqual(one["Value"], 5)

    def test_without_a_connection_nothing_is_executed(self):
        result, recordset = z.received(z.IZIRDBRecordset,
                                       self.command.Execute, None, 0)
        self.assertResult(result, NO_CONNECTION)
        self.assertIsNone(recordset)
        self.assertThrew(
            z.Script(self.command).answer(z.DISPATCH_METHOD, "Execute"),
            NO_CONNECTION, "ZIRDB.Command", NO_CONNECTION_TEXT)


class OverADatabase(DatabaseTest):

    def with_parameters(self, text, *rows, command_type=None):
        """A command with parameters of (type, direction, value)."""
        made = z.Script(self.command(text, command_type))
        for kind, direction, value in rows:
            one = made("CreateParameter", "p", kind, direction, 40, value)
            made["Parameters"]("Append", one)
        return made

    def test_the_active_connection_is_the_one_that_was_set(self):
        command = self.command("SELECT 1")
        held = self.got(z.IDispatch, command.get_ActiveConnection)
        self.assertEqual(held.pointer,
                         self.connection.query(z.IDispatch).pointer)
        # The test's, the command's two, and the one of this line.
        self.assertEqual(held.release(), 3)
        self.assertResult(command.putref_ActiveConnection(None), z.S_OK)
        self.assertEqual(self.connection.AddRef(), 2)
        self.connection.Release()

    def test_parameters_fill_the_markers_in_their_order(self):
        recordset = self.with_parameters(
            "SELECT id FROM people WHERE name LIKE ? AND id < ?",
            (AD_VARWCHAR, INPUT, "%a%"), (AD_BIGINT, INPUT, 2))("Execute")
        self.assertEqual(recordset("Fields", 0)["Value"], 1)
        recordset("MoveNext")
        self.assertTrue(recordset["EOF"])

    def test_values_change_what_is_sent_without_another_append(self):
        command = self.with_parameters("SELECT name FROM people WHERE id = ?",
                                       (AD_BIGINT, INPUT, 1))
        one = command["Parameters"]("Item", "p")
        one["Value"] = "3"
        self.assertEqual(command("Execute")("Fields", 0)["Value"],
                         "J\u00fcrgen \U0001F600")

    def test_inputs_come_back_in_the_type_that_was_sent(self):
        sent = [
            (AD_INTEGER, z.Value(5), z.VT_I4, 5),
            (AD_BIGINT, z.Value(5, z.VT_I4), z.VT_I8, 5),
            (AD_BIGINT, z.Value("6"), z.VT_I8, 6),
            (AD_EMPTY, z.Value(7, z.VT_I2), z.VT_I8, 7),
            (AD_EMPTY, z.Value(1.5), z.VT_R8, 1.5),
            (AD_BOOLEAN, z.Value(True), z.VT_BOOL, True),
            (AD_VARCHAR, z.Value(8), z.VT_BSTR, "8"),
            (AD_VARBINARY, z.Value(b"\x00\xff"), z.VT_ARRAY | z.VT_UI1,
             b"\x00\xff"),
            (AD_BIGINT, z.Value(None), z.VT_NULL, None),
        ]
        command = self.with_parameters(
            "SELECT " + ", ".join("?" * len(sent)),
            *((kind, INPUT, value) for kind, value, _, _ in sent))
        command("Execute")
        for i, (kind, _, vt, content) in enumerate(sent):
            with self.subTest(kind=kind, content=content):
                one = command["Parameters"]("Item", i)
                answer = one.answer(z.DISPATCH_PROPERTYGET, "Value")
                self.assertEqual((answer.vt, answer.value), (vt, content))

    def test_a_statement_without_columns_gives_a_closed_recordset(self):
        rows = z.LONG()
        command = self.command("UPDATE people SET name = 'x' WHERE id > 1")
        affected = z.reference(z.VT_I4, rows)
        recordset = self.got(z.IZIRDBRecordset, command.Execute,
                             z.byref(affected), 0)
        self.assertEqual(rows.value, 2)
        self.assertEqual(self.number(recordset.get_State), 0)
        self.assertResult(recordset.MoveNext(), CLOSED)

    def test_what_a_command_refuses_it_says_in_its_own_words(self):
        one = (AD_BIGINT, INPUT, 1)
        for text, command_type, rows, code, description in (
            ("", CMD_TEXT, [], NO_TEXT,
             "Command text was not set for the command object."),
            ("SELECT ?", CMD_TEXT, [(AD_BIGINT, OUTPUT, None)],
             ERRORS_IN_COMMAND, "Incorrect syntax near 'OUTPUT'."),
            ("EXEC p", CMD_TEXT, [one], ERRORS_OCCURRED,
             "Multiple-step OLE DB operation generated errors. Check each OLE "
             "DB status value, if available. No work was done."),
            ("sp_who", CMD_STORED_PROC, [one], ERRORS_IN_COMMAND,
             "Too many arguments were specified for the stored procedure."),
            ("p", CMD_STORED_PROC, [one, (AD_BIGINT, RETURN_VALUE, None)],
             z.E_NOTIMPL, "Stored procedure execution is not supported for "
             "this parameter layout."),
            ("SELECT ?", CMD_TEXT, [(AD_BIGINT, INPUT, "x")], z.E_INVALIDARG,
             NOT_COMPATIBLE),
            ("SELECT ?", CMD_TEXT, [(AD_VARBINARY, INPUT, "x")],
             z.DISP_E_TYPEMISMATCH, NOT_COMPATIBLE),
        ):
            with self.subTest(text=text, description=description):
                command = self.with_parameters(text, *rows,
                                               command_type=command_type)
                self.assertThrew(command.answer(z.DISPATCH_METHOD, "Execute"),
                                 code, "ZIRDB.Command", description)

    def test_a_closed_connection_cannot_be_used(self):
        command = z.Script(self.command("SELECT 1"))
        self.connection.Close()
        self.assertThrew(command.answer(z.DISPATCH_METHOD, "Execute"),
                         NO_CONNECTION, "ZIRDB.Command", NO_CONNECTION_TEXT)

    def test_anything_but_a_connection_is_refused(self):
        command = z.create(z.CLSID_ZIRDBCommand, z.IZIRDBCommand)
        other = z.create(z.CLSID_ZIRDBRecordset, z.IDispatch)
        self.assertResult(command.putref_ActiveConnection(other),
                          NO_CONNECTION)
        for value in (other, 5, "DSN=x"):
            self.assertRefused(
                z.Script(command).answer(z.DISPATCH_PROPERTYPUT,
                                         "ActiveConnection", value),
                z.DISP_E_TYPEMISMATCH)


class WithArrays(DatabaseTest):
    """A script's array of values, which receives them as well."""

    def array(self, values, lower_bound=0):
        value = z.Value()
        value.vt = z.VT_ARRAY | z.VT_VARIANT
        made = z.array_of_values(values, lower_bound)
        value.payload = z.cast(made, z.c_void_p).value
        return value

    def execute(self, text, *arguments, command_type=None):
        command = z.Script(self.command(text, command_type))
        return command.answer(z.DISPATCH_METHOD, "Execute", *arguments)

    def test_its_elements_are_the_parameters(self):
        for lower_bound in (0, -3):
            with self.subTest(lower_bound=lower_bound):
                values = self.array(["%a%", 1], lower_bound)
                answer = self.execute(
                    "SELECT id FROM people WHERE name LIKE ? AND id > ?",
                    z.EMPTY, values)
                self.assertResult(answer.result, z.S_OK)
                self.assertEqual(
                    z.Script(answer.value)("Fields", 0)["Value"], 2)

    def test_it_receives_the_values_as_they_were_sent(self):
        values = self.array([z.Value(5, z.VT_I4), "a\u20ac", True, 1.5, None,
                             b"\x01"])
        answer = self.execute("SELECT ?, ?, ?, ?, ?, ?", z.EMPTY, values)
        self.assertResult(answer.result, z.S_OK)
        array = z.cast(z.c_void_p(values.payload), z.POINTER(z.SAFEARRAY))
        self.assertEqual(array[0].cLocks, 0)
        with z.Elements(array, z.VARIANT) as elements:
            self.assertEqual(
                [(one.vt, z.python_value(one)) for one in elements],
                [(z.VT_I8, 5), (z.VT_BSTR, "a\u20ac"), (z.VT_BOOL, True),
                 (z.VT_R8, 1.5), (z.VT_NULL, None),
                 (z.VT_ARRAY | z.VT_UI1, b"\x01")])

    # Nothing fills the placeholder here: SQLite has no outputs.
    def test_an_empty_element_is_a_placeholder_that_is_sent_as_null(self):
        values = self.array([5, z.EMPTY])
        answer = self.execute("SELECT ?, ? IS NULL", z.EMPTY, values)
        recordset = z.Script(answer.value)
        self.assertEqual(recordset("Fields", 1)["Value"], 1)
        self.assertEqual(values.python(), [5, None])

    def test_it_may_stand_first_and_the_number_of_rows_behind_it(self):
        rows = z.Value()
        values = self.array([1])
        answer = self.execute("DELETE FROM people WHERE id > ?", values,
                              rows.by_reference())
        self.assertResult(answer.result, z.S_OK)
        self.assertValue(rows, z.VT_I8, 2)

    def test_two_of_them_are_refused(self):
        self.assertRefused(self.execute("SELECT ?", [1], [2]),
                           z.DISP_E_TYPEMISMATCH)

    def test_one_that_is_accessed_is_refused(self):
        values = self.array([1])
        array = z.cast(z.c_void_p(values.payload), z.POINTER(z.SAFEARRAY))
        with z.Elements(array, z.VARIANT):
            self.assertThrew(
                self.execute("SELECT ?", values), z.E_UNEXPECTED,
                "ZIRDB.Command",
                "Parameter array is not compatible with command execution.")

    def test_a_call_of_a_procedure_takes_none(self):
        self.assertThrew(
            self.execute("EXEC p", [1], command_type=CMD_TEXT),
            BAD_PARAMETER, "ZIRDB.Command",
            "Parameter object is improperly defined. Inconsistent or "
            "incomplete information was provided.")


if __name__ == "__main__":
    unittest.main()
