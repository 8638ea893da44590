# SPDX-License-Identifier: MIT
"""`zirdb doctor` without a connection: what is wrong is found, and nothing else
is."""

import ctypes
import os
import shutil
import unittest

from doctor import LOADS, DoctorTest
from tool import LIBRARY, SAMPLES

PR_CAPBSET_DROP = 24
CAP_DAC_OVERRIDE = 1
CAP_DAC_READ_SEARCH = 2


def read_what_is_allowed():
    """Lets a program that root starts respect the permissions of files."""
    for capability in (CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH):
        ctypes.CDLL(None).prctl(PR_CAPBSET_DROP, capability, 0, 0, 0)


CONNECTION = "{A3B9D97A-3DE2-4287-9A7B-5EF21F449C1E}"


class Files(DoctorTest):
    def test_a_healthy_machine_has_no_problems(self):
        text = self.assertWell()
        for part in ("zirdb ", os.environ["ZIRDB_VERSION"], LIBRARY, "libodbc",
                     self.path("odbcinst.ini") + ": readable",
                     self.path("odbc.ini") + ": does not exist",
                     self.path("user.ini") + ": readable",
                     "ODBCINSTINI            not set", LOADS):
            self.assertIn(part, text)

    def test_a_missing_list_of_drivers_is_a_problem(self):
        os.remove(self.path("odbcinst.ini"))
        text = self.assertProblems(["odbcinst.ini: does not exist"],
                                   ["no driver is registered"])
        self.assertIn("libsqliteodbc", "".join(self.found(text, "hint")))

    def test_a_folder_is_no_list_of_drivers(self):
        os.remove(self.path("odbcinst.ini"))
        os.mkdir(self.path("odbcinst.ini"))
        self.assertProblems(["odbcinst.ini: is not a file"],
                            ["no driver is registered"])

    def test_a_file_that_may_not_be_read_is_a_problem(self):
        self.write("odbc.ini", "")
        os.chmod(self.path("odbc.ini"), 0)
        self.options["preexec_fn"] = read_what_is_allowed
        self.assertProblems(["odbc.ini: Permission denied"])

    def test_a_named_file_that_is_missing_is_a_problem_and_is_not_made(self):
        self.environment["ODBCINI"] = self.path("missing.ini")
        self.assertProblems([self.path("missing.ini") + ": does not exist"])
        self.assertFalse(os.path.exists(self.path("missing.ini")))

    def test_another_name_for_the_list_of_drivers_counts(self):
        os.rename(self.path("odbcinst.ini"), self.path("other.ini"))
        self.environment["ODBCINSTINI"] = "other.ini"
        text = self.assertWell()
        self.assertIn(self.path("other.ini") + ": readable", text)
        self.assertIn("Good ", text)


class Drivers(DoctorTest):
    def test_a_driver_is_found_by_either_key(self):
        self.write("odbcinst.ini", "[Both]\nDriver=/none.so\nDriver64=%s\n\n"
                                   "[A driver]\nDriver64=%s\n" % (LOADS, LOADS))
        self.assertWell()

    def test_what_does_not_load_is_told_with_the_reason(self):
        text_file = self.write("text.so", "no library\n")
        for library, parts in (
                ("/nowhere/gone.so", ["/nowhere/gone.so",
                                      "No such file or directory"]),
                ("gone-without-folder.so", ["gone-without-folder.so",
                                            "cannot open shared object"]),
                (text_file, [text_file, "file too short"]),
                (os.path.join(SAMPLES, "crashes.so"), ["crashed: Aborted"]),
                ("", ["names no library"])):
            with self.subTest(library=library):
                self.drivers(Good=LOADS, Bad=library)
                self.assertProblems(['driver "Bad"', *parts])

    def test_a_library_that_is_no_driver_is_told(self):
        # The mathematical library is there wherever the program runs.
        self.drivers(Bad="libm.so.6")
        self.assertProblems(['driver "Bad"', "libm.so.6 is no driver"])

    def test_a_driver_that_hangs_is_given_up(self):
        self.drivers(Bad=os.path.join(SAMPLES, "hangs.so"))
        self.assertProblems(['driver "Bad"', "nothing after 5 seconds"])

    def test_the_driver_that_debian_registers_in_vain_is_explained(self):
        self.drivers(SQLite="libsqliteodbc.so")
        text = self.assertWell()
        (note,) = self.found(text, "note")
        self.assertIn('driver "SQLite": does not load: ', note)
        (hint,) = self.found(text, "hint")
        self.assertIn("use SQLite3", hint)

    def test_each_bad_driver_is_a_problem_of_its_own(self):
        self.drivers(One="/one.so", Good=LOADS, Two="/two.so")
        self.assertProblems(['"One"'], ['"Two"'])

    def test_names_do_not_act_on_the_terminal(self):
        self.write("odbcinst.ini", "[a\x1b[1mb]\nDriver=%s\n" % LOADS)
        self.assertIn("a\\u001b[1mb", self.assertWell())


class Sources(DoctorTest):
    def test_sources_of_the_system_and_of_the_user_are_listed(self):
        self.write("odbc.ini", "[ODBC Data Sources]\nshop=x\n"
                               "[ODBC]\nTrace=no\n[shop]\nDriver=Good\n")
        self.write("user.ini", "[mine]\nDriver=good\n")
        text = self.assertWell()
        sources = text[text.index("Data sources"):text.index("REGISTRY")]
        self.assertEqual(
            [line.split() for line in sources.splitlines()[1:] if line],
            [["mine", "good"], ["shop", "Good"]])

    def test_a_source_may_name_the_library_itself(self):
        self.write("odbc.ini", "[shop]\nDriver=%s\n" % LOADS)
        self.assertWell()

    def test_a_source_without_a_registered_driver_is_a_problem(self):
        self.write("odbc.ini", "[shop]\nDriver=Unknown\n[bare]\nServer=x\n")
        self.assertProblems(['"shop"', '"Unknown" is not registered'],
                            ['"bare"', "names no driver"])


class Registry(DoctorTest):
    def setUp(self):
        super().setUp()
        self.registry = self.path("registry")
        # A folder as the build makes it, here to be broken.
        shutil.copytree(os.path.join(os.path.dirname(LIBRARY), "registry"),
                        self.registry, symlinks=True)
        for name in os.listdir(self.registry):
            path = os.path.join(self.registry, name)
            if os.path.islink(path):
                os.remove(path)
                os.symlink(LIBRARY, path)
        self.environment["REGISTRY"] = self.registry

    def entry(self, name):
        return os.path.join(self.registry, name)

    def test_the_default_is_the_librarys_folder(self):
        self.environment["REGISTRY"] = None
        text = self.assertWell()
        self.assertIn(os.path.join(os.path.dirname(LIBRARY), "registry") +
                      " (by default)", text)

    def test_a_users_folder_is_looked_into(self):
        text = self.assertWell()
        self.assertIn(self.registry + " (from the environment)", text)
        self.assertIn("made by " + LIBRARY, text)
        self.assertIn("ZIRDB.so               -> " + LIBRARY, text)

    def test_a_folder_that_is_missing_is_a_problem(self):
        self.environment["REGISTRY"] = self.path("nowhere")
        self.assertProblems(["nowhere: No such file or directory"],
                            ["ZIRDB.Connection"])

    def test_a_file_is_no_folder(self):
        self.environment["REGISTRY"] = self.path("odbcinst.ini")
        self.assertProblems(["odbcinst.ini is not a folder"],
                            ["ZIRDB.Connection"])

    def test_an_empty_value_is_kept_and_makes_no_objects(self):
        self.environment["REGISTRY"] = ""
        self.assertIn("empty", self.assertProblems(["ZIRDB.Connection"]))

    def test_a_link_that_leads_nowhere_is_a_problem(self):
        os.remove(self.entry("ZIRDB.so"))
        os.symlink("../gone.so", self.entry("ZIRDB.so"))
        self.assertProblems(["ZIRDB.so leads nowhere: ../gone.so"],
                            ["ZIRDB.Connection"])

    def test_missing_and_wrong_entries_are_problems(self):
        os.remove(self.entry(CONNECTION + ".so"))
        os.remove(self.entry("ZIRDB.COMMAND.clsid"))
        with open(self.entry("ZIRDB.RECORDSET.clsid"), "w") as file:
            file.write(CONNECTION + "\n")
        self.assertProblems([CONNECTION + ".so: No such file"],
                            ["ZIRDB.COMMAND.clsid: does not say {B250EB07-"],
                            ["ZIRDB.RECORDSET.clsid: does not say {8EEDA5E6-"])

    def test_another_copy_of_the_library_is_told(self):
        os.remove(self.entry("ZIRDB.so"))
        shutil.copy(LIBRARY, self.entry("ZIRDB.so"))
        text = self.assertWell()
        self.assertIn("another library than this program's", text)
        self.assertIn("made by " + self.entry("ZIRDB.so"), text)


class Output(DoctorTest):
    def test_output_that_cannot_be_written_is_an_error(self):
        with open("/dev/full", "wb") as full:
            done = self.run_tool("doctor", environment=self.environment,
                                 stdout=full)
        self.assertFails(done, 1, "cannot write the output")


if __name__ == "__main__":
    unittest.main()
