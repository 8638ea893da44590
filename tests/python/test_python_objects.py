# SPDX-License-Identifier: MIT
"""The library calls objects that are made in Python: callbacks, parameters,
connections."""

import unittest

import zirdb_abi as z
from support import (AD_BIGINT, CLOSED, INPUT, NO_CONNECTION,
                     DatabaseTest)


class PythonObjectTest(DatabaseTest):
    """Ends with no exception lost in a callback and no reference kept."""

    def setUp(self):
        super().setUp()
        self.made = []

    def tearDown(self):
        for one in self.made:
            self.assertEqual(one.errors, [])
            self.assertEqual(one.references, 0)
        self.made = None
        super().tearDown()

    def noted(self, made):
        self.made.append(made)
        return made

    def callback(self, answer=lambda call: z.S_OK):
        return self.noted(z.PythonDispatch(answer))


class ForEach(PythonObjectTest):

    def setUp(self):
        super().setUp()
        self.recordset = self.run_sql("SELECT id, name FROM people")

    def tearDown(self):
        self.recordset = None
        super().tearDown()

    def for_each(self, callback):
        return z.Script(self.recordset).answer(z.DISPATCH_METHOD, "forEach",
                                               callback)

    def state(self):
        return self.number(self.recordset.get_State)

    def test_calls_back_once_per_row_and_closes(self):
        seen = []

        def row(call):
            fields = z.Script(call.arguments[0])
            seen.append((fields("Item", 0)["Value"],
                         fields("Item", "name")["Value"]))

        answer = self.for_each(self.callback(row))
        self.assertRefused(answer, z.S_OK)  # which gives nothing either
        self.assertEqual(seen, [(1, "Ada"), (2, "Grace"),
                                (3, "J\u00fcrgen \U0001F600")])
        self.assertEqual(self.state(), 0)

    def test_calls_the_default_member_as_a_method(self):
        seen = []

        def row(call):
            seen.append((call.member, str(call.iid), call.lcid, call.flags,
                         call.types, call.named, bool(call.result),
                         bool(call.exception), bool(call.bad_argument)))

        self.for_each(self.callback(row))
        self.assertEqual(seen, [(0, str(z.IID_NULL), 0, z.DISPATCH_METHOD,
                                 [z.VT_DISPATCH], 0, True, True, False)] * 3)

    def test_clears_what_the_callback_answers(self):
        given = self.callback()

        def row(call):
            call.result[0].payload = z.Text("discarded").detach()
            call.result[0].vt = z.VT_BSTR
            if len(callback.calls) == 2:
                call.result[0].payload = given.face(z.IDispatch)
                call.result[0].vt = z.VT_DISPATCH
                given.AddRef()

        callback = self.callback(row)
        self.assertRefused(self.for_each(callback), z.S_OK)

    def test_a_callback_that_fails_ends_it_with_its_own_code(self):
        code = z.hresult(0x80041234)
        callback = self.callback(
            lambda call: code if len(callback.calls) == 2 else z.S_OK)
        self.assertRefused(self.for_each(callback), code)
        self.assertEqual(self.state(), 1)
        self.assertEqual(self.cell(self.recordset, 0).python(), 2)

    def test_other_successes_of_a_callback_count_as_success(self):
        callback = self.callback(lambda call: z.S_FALSE)
        self.assertRefused(self.for_each(callback), z.S_OK)
        self.assertEqual(len(callback.calls), 3)

    def test_a_callbacks_own_exception_record_reaches_the_host(self):
        code = z.hresult(0x80041235)
        callback = self.callback(
            lambda call: call.throw(code, "Python", "I do not like \u20ac"))
        self.assertThrew(self.for_each(callback), code, "Python",
                         "I do not like \u20ac")
        self.assertEqual(len(callback.calls), 1)

    def test_a_python_exception_is_an_unexpected_failure(self):

        def row(_call):
            raise KeyError("row")

        callback = self.callback(row)
        self.assertRefused(self.for_each(callback), z.E_UNEXPECTED)
        self.assertEqual([repr(one) for one in callback.errors],
                         ["KeyError('row')"])
        callback.errors.clear()

    def test_a_callback_may_close_the_recordset(self):
        callback = self.callback(lambda call: self.recordset.Close())
        answer = self.for_each(callback)
        self.assertEqual(len(callback.calls), 1)
        self.assertResult(answer.scode, CLOSED)

    def test_a_callback_may_let_the_last_reference_go(self):
        script = z.Script(self.recordset)
        late = script.target

        def row(_call):
            if self.recordset is not None:
                self.recordset.release()
                self.recordset = None

        answer = script.answer(z.DISPATCH_METHOD, "forEach",
                               self.callback(row))
        self.assertRefused(answer, z.S_OK)
        self.assertEqual(late.release(), 0)

    def test_a_callback_is_found_behind_references_and_unknowns(self):
        callback = self.callback(lambda call: z.S_OK)
        unknown = z.Value()
        unknown.vt = z.VT_UNKNOWN
        unknown.payload = callback.face(z.IDispatch)
        callback.AddRef()
        link = unknown.by_reference()
        self.assertRefused(self.for_each(link.by_reference()), z.S_OK)
        self.assertEqual(len(callback.calls), 3)

    def test_what_cannot_be_called_is_refused(self):

        class Silent(z.PythonObject):
            interfaces = (z.IUnknown,)

        silent = self.noted(Silent())
        unknown = z.Value()
        unknown.vt = z.VT_UNKNOWN
        unknown.payload = silent.face(z.IUnknown)
        silent.AddRef()
        for argument in (unknown, z.Value(5), z.Value("f"), z.Value()):
            with self.subTest(vt=argument.vt):
                self.assertRefused(self.for_each(argument),
                                   z.DISP_E_TYPEMISMATCH)
        self.assertEqual(self.state(), 1)


class Parameter(z.PythonObject):
    """A parameter of a host's own, with late binding."""

    interfaces = (z.IZIRDBParameter, z.IDispatch)

    def __init__(self, name, value, kind=AD_BIGINT, failing=None):
        super().__init__()
        self.name = name
        self.value = value
        self.kind = kind
        self.failing = failing
        self.asked = []

    def _answer(self, getter):
        self.asked.append(getter)
        return z.hresult(0x80041236) if getter == self.failing else z.S_OK

    def get_Name(self, name):
        name[0] = z.Text(self.name).detach()
        return self._answer("Name")

    def get_Value(self, value):
        z.VariantCopy(value, z.byref(z.Value(self.value)))
        return self._answer("Value")

    def get_Type(self, kind):
        kind[0] = self.kind
        return self._answer("Type")

    def get_Direction(self, direction):
        direction[0] = INPUT
        return self._answer("Direction")

    def get_Size(self, size):
        size[0] = (1 << 40) + 5
        return self._answer("Size")


GETTERS = ["Name", "Value", "Type", "Direction", "Size"]


class Appended(PythonObjectTest):

    def setUp(self):
        super().setUp()
        self.subject = self.command("SELECT name FROM people WHERE id = ?")
        self.parameters = self.got(z.IZIRDBParameters,
                                   self.subject.get_Parameters)

    def tearDown(self):
        self.subject = None
        self.parameters = None
        super().tearDown()

    def test_its_getters_are_asked_in_their_order_and_it_is_let_go(self):
        foreign = self.noted(Parameter("p\u20ac", 2))
        self.assertResult(self.parameters.Append(foreign), z.S_OK)
        self.assertEqual(foreign.asked, GETTERS)
        self.assertEqual(foreign.references, 0)
        copy = self.got(z.IZIRDBParameter, self.parameters.Item, z.Value(0))
        self.assertEqual(z.received_text(copy.get_Name), (z.S_OK, "p\u20ac"))
        self.assertEqual(self.number(copy.get_Type), AD_BIGINT)
        self.assertEqual(self.number(copy.get_Direction), INPUT)
        self.assertEqual(self.number(copy.get_Size), (1 << 40) + 5)

    def test_its_value_is_what_the_command_sends(self):
        self.parameters.Append(self.noted(Parameter("p", 2)))
        recordset = self.got(z.IZIRDBRecordset, self.subject.Execute, None, 0)
        self.assertEqual(self.cell(recordset, 0).python(), "Grace")

    def test_late_bound_it_is_asked_for_its_interface(self):
        foreign = self.noted(Parameter("p", 3))
        self.assertRefused(
            z.Script(self.parameters).answer(z.DISPATCH_METHOD, "Append",
                                             foreign), z.S_OK)
        self.assertEqual(foreign.asked, GETTERS)
        self.assertEqual(self.number(self.parameters.get_Count), 1)

    def test_the_first_getter_that_fails_decides(self):
        for i, failing in enumerate(GETTERS):
            with self.subTest(failing=failing):
                foreign = self.noted(Parameter("p", "v", failing=failing))
                self.assertResult(self.parameters.Append(foreign),
                                  z.hresult(0x80041236))
                self.assertEqual(foreign.asked, GETTERS[:i + 1])
                self.assertThrew(
                    z.Script(self.parameters).answer(z.DISPATCH_METHOD,
                                                     "Append", foreign),
                    z.hresult(0x80041236), "ZIRDB.Parameters", None)
        self.assertEqual(self.number(self.parameters.get_Count), 0)

    def test_late_bound_what_is_no_parameter_is_refused(self):
        for one in (self.callback(), 5, None):
            with self.subTest(one=one):
                self.assertRefused(
                    z.Script(self.parameters).answer(z.DISPATCH_METHOD,
                                                     "Append", one),
                    z.DISP_E_TYPEMISMATCH)


class Connection(z.PythonObject):
    """A connection of a host's own."""

    interfaces = (z.IZIRDBConnection, z.IDispatch)

    def __init__(self, result):
        super().__init__()
        self.result = result
        self.executed = []

    def Execute(self, text, affected, options, recordset):
        self.executed.append((z.text_at(text), options))
        if affected:
            target = z.cast(z.c_void_p(affected[0].payload),
                            z.POINTER(z.LONG))
            target[0] = 42
        recordset[0] = None
        return self.result


class ForeignConnection(PythonObjectTest):

    def setUp(self):
        super().setUp()
        self.subject = z.create(z.CLSID_ZIRDBCommand, z.IZIRDBCommand)
        self.subject.put_CommandText(z.Text("anything \u20ac"))

    def tearDown(self):
        self.subject = None
        super().tearDown()

    def test_gets_the_text_and_the_options_and_gives_the_number_of_rows(self):
        foreign = self.noted(Connection(z.S_OK))
        self.assertResult(self.subject.putref_ActiveConnection(
            z.c_void_p(foreign.face(z.IDispatch))), z.S_OK)
        rows = z.LONG(0)
        affected = z.reference(z.VT_I4, rows)
        recordset = self.got(z.IZIRDBRecordset, self.subject.Execute,
                             z.byref(affected), 1 << 40)
        self.assertEqual(foreign.executed, [("anything \u20ac", 1 << 40)])
        self.assertEqual(rows.value, 42)
        self.assertEqual(self.number(recordset.get_State), 0)
        self.assertResult(self.subject.putref_ActiveConnection(None), z.S_OK)
        self.assertEqual(foreign.references, 0)

    def test_that_is_closed_cannot_be_used(self):
        foreign = self.noted(Connection(CLOSED))
        script = z.Script(self.subject)
        script["ActiveConnection"] = foreign
        answer = script.answer(z.DISPATCH_METHOD, "Execute")
        self.assertResult(answer.scode, NO_CONNECTION)
        script["ActiveConnection"] = None

    def test_takes_no_parameters(self):
        foreign = self.noted(Connection(z.S_OK))
        script = z.Script(self.subject)
        script["ActiveConnection"] = foreign
        script["Parameters"]("Append", script("CreateParameter"))
        self.assertThrew(
            script.answer(z.DISPATCH_METHOD, "Execute"), z.E_NOTIMPL,
            "ZIRDB.Command",
            "Parameterized execute requires ZIRDB.Connection.")
        self.assertEqual(foreign.executed, [])
        script["ActiveConnection"] = z.EMPTY

    def test_what_is_no_connection_is_refused(self):
        other = self.callback()
        self.assertResult(self.subject.putref_ActiveConnection(other),
                          NO_CONNECTION)
        self.assertRefused(
            z.Script(self.subject).answer(z.DISPATCH_PROPERTYPUT,
                                          "ActiveConnection", other),
            z.DISP_E_TYPEMISMATCH)


if __name__ == "__main__":
    unittest.main()
