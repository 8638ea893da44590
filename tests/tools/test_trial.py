# SPDX-License-Identifier: MIT
"""`zirdb doctor CONNECTION`: the trial connection, and what it never shows."""

import subprocess
import unittest

from doctor import DoctorTest


class Trial(DoctorTest):
    def setUp(self):
        super().setUp()
        registered = subprocess.run(["odbcinst", "-q", "-d", "-n", "SQLite3"],
                                    stdout=subprocess.PIPE, check=True)
        self.write("odbcinst.ini", registered.stdout.decode())

    def test_a_connection_that_works_is_told(self):
        text = self.assertWell("Driver=SQLite3;Database=:memory:")
        self.assertIn("  Driver=SQLite3;Database=:memory:\n  connected\n", text)

    def test_a_data_source_works(self):
        self.write("odbc.ini",
                   "[shop]\nDriver=SQLite3\nDatabase=:memory:\n")
        self.assertWell("DSN=shop")

    def test_a_driver_that_is_not_there_comes_with_a_hint(self):
        for connection, state in (("Driver=Oak", "01000"),
                                  ("DSN=no such source", "IM002")):
            text = self.assertProblems([state], arguments=[connection])
            (hint,) = self.found(text, "hint")
            for part in ("Registered: SQLite3.", "libsqliteodbc",
                         "odbc-postgresql", "odbc-mariadb"):
                self.assertIn(part, hint)

    def test_other_errors_come_without_one(self):
        text = self.assertProblems(
            ["no connection"],
            arguments=["Driver=SQLite3;Database=/nowhere/x.db"])
        self.assertEqual(self.found(text, "hint"), [])

    def test_a_broken_registry_does_not_stop_it(self):
        self.environment["REGISTRY"] = self.path("nowhere")
        text = self.assertProblems(
            ["REGISTRY"], ["ZIRDB.Connection"],
            arguments=["Driver=SQLite3;Database=:memory:"])
        self.assertIn("  connected\n", text)

    def test_passwords_are_not_shown(self):
        for secret in ("PWD=geheim;", "pwd = geheim", "Password={geheim};",
                       "PassWord={geheim;geheim}", "PWD={a}};x=geheim};",
                       "PWD=a;geheim", "PWD={geheim", "TLSKEYPWD=geheim;",
                       "sslpassword=geheim", "AccessToken=geheim;",
                       "PWD={a}geheim;", "PWD= {a;geheim} ;"):
            with self.subTest(secret=secret):
                for driver in ("SQLite3;Database=:memory:", "Oak"):
                    _, text = self.examine("UID=sa;" + secret + ";Driver=" +
                                           driver)
                    self.assertNotIn("geheim", text)
                    self.assertIn("  UID=sa;", text)

    def test_what_is_no_password_is_shown(self):
        _, text = self.examine("Driver=SQLite3;UID=sa;PWD=x;Database={a;b}")
        self.assertIn("  Driver=SQLite3;UID=sa;PWD=***;Database={a;b}\n", text)

    def test_an_error_that_repeats_the_password_does_not_show_it(self):
        # The driver is the password: the driver manager names what it tried.
        text = self.assertProblems(
            ["Can't open lib '***'"],
            arguments=["Driver=geheim;PWD=geheim;Database=x"])
        self.assertNotIn("geheim", "".join(self.found(text, "problem")))
        self.assertEqual(len(self.found(text, "hint")), 1)


if __name__ == "__main__":
    unittest.main()
