# SPDX-License-Identifier: MIT
"""Folders with unixODBC's files, and what the doctor says of them."""

import os

from tool import SAMPLES, ToolTest

LOADS = os.path.join(SAMPLES, "loads.so")


class DoctorTest(ToolTest):
    """Looks into self.folder, where one driver is registered that loads."""

    def setUp(self):
        super().setUp()
        self.environment = {"ODBCSYSINI": self.folder, "ODBCINSTINI": None,
                            "ODBCINI": self.write("user.ini", ""),
                            "REGISTRY": None}
        self.options = {}
        self.drivers(Good=LOADS)

    def drivers(self, **libraries):
        self.write("odbcinst.ini", "".join(
            "[%s]\nDriver=%s\n\n" % each for each in libraries.items()))

    def examine(self, *arguments):
        """The finished process and its output."""
        done = self.run_tool("doctor", *arguments,
                             environment=self.environment, **self.options)
        self.assertEqual(done.stderr, b"")
        return done, done.stdout.decode()

    def assertWell(self, *arguments):
        done, text = self.examine(*arguments)
        self.assertEqual((done.returncode, self.found(text, "problem")),
                         (0, []), text)
        self.assertTrue(text.endswith("\nNo problems found.\n"), text)
        return text

    def assertProblems(self, *expected, arguments=()):
        """Exactly these problems, each given by parts of its line."""
        done, text = self.examine(*arguments)
        problems = self.found(text, "problem")
        self.assertEqual(len(problems), len(expected), text)
        for line, parts in zip(problems, expected):
            for part in parts:
                self.assertIn(part, line)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(text, r"\n%d problems? found\.\n\Z" % len(expected))
        return text

    @staticmethod
    def found(text, kind):
        return [line for line in text.splitlines()
                if line.startswith(kind + ": ")]
