# SPDX-License-Identifier: MIT
"""Objects come by class id and by name, through the entry point and through
the folder that REGISTRY names."""

import os
import unittest

import zirdb_abi as z
from support import ContractTest

CLASSES = [
    ("Connection", z.CLSID_ZIRDBConnection, z.IZIRDBConnection),
    ("Command", z.CLSID_ZIRDBCommand, z.IZIRDBCommand),
    ("Recordset", z.CLSID_ZIRDBRecordset, z.IZIRDBRecordset),
]


class Factories(ContractTest):

    def made_by(self, factory, kind):
        made = self.got(kind, factory.CreateInstance, None, kind.iid)
        self.assertResult(z.DllCanUnloadNow(), z.S_FALSE)
        return made

    def test_each_class_has_one_by_its_id(self):
        for name, clsid, kind in CLASSES:
            with self.subTest(name=name):
                result, factory = z.class_object(clsid)
                self.assertResult(result, z.S_OK)
                self.made_by(factory, kind)

    def test_each_class_has_one_by_its_name_in_any_case(self):
        for name, _, kind in CLASSES:
            for spelling in (name, name.upper(), name.lower()):
                with self.subTest(name=spelling):
                    result, factory = z.class_object_by_name(spelling)
                    self.assertResult(result, z.S_OK)
                    self.made_by(factory, kind)

    def test_unknown_classes_have_none(self):
        for name in ("Fields", "", None):
            with self.subTest(name=name):
                result, factory = z.class_object_by_name(name)
                self.assertResult(result, z.CLASS_E_CLASSNOTAVAILABLE)
                self.assertIsNone(factory)
        result, factory = z.class_object(z.IID_IZIRDBConnection)
        self.assertResult(result, z.CLASS_E_CLASSNOTAVAILABLE)
        self.assertIsNone(factory)

    def test_another_interface_of_a_factory_is_refused(self):
        result, factory = z.class_object(z.CLSID_ZIRDBCommand, z.IDispatch)
        self.assertResult(result, z.E_NOINTERFACE)
        self.assertIsNone(factory)

    def test_no_class_can_be_aggregated(self):
        _, factory = z.class_object(z.CLSID_ZIRDBRecordset)
        outer = z.create(z.CLSID_ZIRDBRecordset, z.IUnknown)
        result, made = z.received(z.IUnknown, factory.CreateInstance, outer,
                                  z.IID_IUnknown)
        self.assertResult(result, z.CLASS_E_NOAGGREGATION)
        self.assertIsNone(made)

    def test_a_factory_alone_does_not_keep_the_library_but_its_lock_does(self):
        _, factory = z.class_object(z.CLSID_ZIRDBRecordset)
        self.assertResult(z.DllCanUnloadNow(), z.S_OK)
        self.assertResult(factory.LockServer(1), z.S_OK)
        self.assertResult(z.DllCanUnloadNow(), z.S_FALSE)
        self.assertResult(factory.LockServer(0), z.S_OK)
        self.assertResult(z.DllCanUnloadNow(), z.S_OK)

    def test_release_says_how_many_references_are_left(self):
        made = z.create(z.CLSID_ZIRDBCommand, z.IZIRDBCommand)
        self.assertEqual(made.AddRef(), 2)
        self.assertEqual(made.Release(), 1)
        self.assertEqual(made.release(), 0)
        self.assertResult(z.DllCanUnloadNow(), z.S_OK)


class Faces(ContractTest):

    def test_late_binding_is_the_second_base(self):
        for name, clsid, kind in CLASSES:
            with self.subTest(name=name):
                made = z.create(clsid, kind)
                late = made.query(z.IDispatch)
                self.assertEqual(late.pointer, made.pointer + 8)
                self.assertEqual(made.query(z.IUnknown).pointer, made.pointer)
                self.assertEqual(late.query(kind).pointer, made.pointer)
                self.assertEqual(late.query(z.IUnknown).pointer, made.pointer)

    def test_both_faces_count_the_same_references(self):
        made = z.create(z.CLSID_ZIRDBRecordset, z.IZIRDBRecordset)
        late = made.query(z.IDispatch)
        self.assertEqual(late.AddRef(), 3)
        self.assertEqual(made.Release(), 2)

    def test_another_interface_is_refused_and_null_is_stored(self):
        made = z.create(z.CLSID_ZIRDBConnection, z.IZIRDBConnection)
        out = z.c_void_p(77)
        self.assertResult(made.QueryInterface(z.IID_IZIRDBCommand,
                                              z.byref(out)), z.E_NOINTERFACE)
        self.assertIsNone(out.value)

    def test_there_is_no_type_information(self):
        late = z.create(z.CLSID_ZIRDBConnection, z.IDispatch)
        self.assertEqual(self.number(late.GetTypeInfoCount, z.UINT), 0)
        out = z.c_void_p(77)
        self.assertResult(late.GetTypeInfo(0, 0, z.byref(out)), z.E_NOTIMPL)
        self.assertIsNone(out.value)

    def test_names_are_looked_up_until_one_is_unknown(self):
        late = z.create(z.CLSID_ZIRDBConnection, z.IDispatch)
        names = (z.c_wchar_p * 3)("STATE", "what?", "Open")
        ids = (z.DISPID * 3)(77, 77, 77)
        self.assertResult(late.GetIDsOfNames(z.IID_NULL, names, 3, 0, ids),
                          z.DISP_E_UNKNOWNNAME)
        self.assertEqual(list(ids), [2, z.DISPID_UNKNOWN, 77])


class Registry(ContractTest):

    def setUp(self):
        before = os.environ.get("REGISTRY")

        def restore():
            if before is None:
                os.environ.pop("REGISTRY", None)
            else:
                os.environ["REGISTRY"] = before

        self.addCleanup(restore)
        os.environ["REGISTRY"] = os.environ["ZIRDB_REGISTRY"]

    def assertMade(self, answer):
        result, made = answer
        self.assertResult(result, z.S_OK)
        self.assertIsNotNone(made)
        # This very library made it, and not a second one under another name.
        self.assertResult(z.DllCanUnloadNow(), z.S_FALSE)

    def test_objects_are_made_by_class_id(self):
        for name, clsid, kind in CLASSES:
            with self.subTest(name=name):
                self.assertMade(z.create_instance(clsid, kind))

    def test_objects_are_made_by_name(self):
        for name, _, kind in CLASSES:
            for spelling in ("ZIRDB." + name, "zirdb." + name.lower()):
                with self.subTest(name=spelling):
                    self.assertMade(z.create_instance_by_name(spelling, kind))

    def test_objects_are_made_by_moniker(self):
        for name, _, kind in CLASSES:
            with self.subTest(name=name):
                self.assertMade(z.get_object("new:ZIRDB." + name, kind))

    def test_program_ids_have_their_class_ids(self):
        for name, clsid, _ in CLASSES:
            with self.subTest(name=name):
                found = z.GUID()
                self.assertResult(
                    z.CLSIDFromProgID("ZIRDB." + name, z.byref(found)), z.S_OK)
                self.assertEqual(str(found), str(clsid))

    def test_what_is_not_there_is_told_by_the_way_it_was_asked_for(self):
        found = z.GUID()
        self.assertResult(z.CLSIDFromProgID("ZIRDB.Fields", z.byref(found)),
                          z.CO_E_CLASSSTRING)
        for name in ("ZIRDB.Fields", "ZIRDB", "NOBODY.Connection"):
            with self.subTest(name=name):
                result, made = z.create_instance_by_name(name, z.IUnknown)
                self.assertResult(result, z.CO_E_CLASSSTRING)
        result, made = z.create_instance(z.IID_IZIRDBFields, z.IUnknown)
        self.assertResult(result, z.E_FAIL)
        self.assertIsNone(made)
        result, made = z.get_object("ZIRDB.Connection", z.IUnknown)
        self.assertResult(result, z.E_FAIL)
        self.assertIsNone(made)

    def test_without_the_folder_nothing_is_found(self):
        del os.environ["REGISTRY"]
        result, _ = z.create_instance_by_name("ZIRDB.Connection", z.IUnknown)
        self.assertResult(result, z.CO_E_CLASSSTRING)
        result, _ = z.create_instance(z.CLSID_ZIRDBConnection, z.IUnknown)
        self.assertResult(result, z.E_FAIL)
        self.assertResult(z.CLSIDFromProgID("ZIRDB.Connection",
                                            z.byref(z.GUID())),
                          z.CO_E_CLASSSTRING)


if __name__ == "__main__":
    unittest.main()
