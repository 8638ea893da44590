# SPDX-License-Identifier: MIT
"""Running the program, and folders for it to look into.

By hand, in this folder:
ZIRDB_TOOL=../../build/dev/zirdb ZIRDB_LIBRARY=../../build/dev/libzirdb.so \\
    ZIRDB_SAMPLES=../../build/dev/tests python3 -m unittest
"""

import os
import subprocess
import tempfile
import unittest

PROGRAM = os.path.abspath(os.environ["ZIRDB_TOOL"])
LIBRARY = os.path.realpath(os.environ["ZIRDB_LIBRARY"])
SAMPLES = os.path.abspath(os.environ["ZIRDB_SAMPLES"])
MEMORY = "Driver=SQLite3;Database=:memory:"


class ToolTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = os.path.realpath(folder.name)

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def write(self, name, text):
        path = self.path(name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def run_tool(self, *arguments, environment=None, **options):
        """The finished process, its outputs as bytes. A variable that is None
        is taken away."""
        variables = dict(os.environ)
        for name, value in (environment or {}).items():
            variables.pop(name, None)
            if value is not None:
                variables[name] = value
        options.setdefault("stdin", subprocess.DEVNULL)
        if "input" in options:
            del options["stdin"]
        options.setdefault("stdout", subprocess.PIPE)
        return subprocess.run([PROGRAM, *arguments], stderr=subprocess.PIPE,
                              env=variables, timeout=100, check=False,
                              **options)

    def assertFails(self, done, status, text):
        """The status, the text on standard error, and nothing on standard
        output."""
        self.assertIn(text, done.stderr.decode())
        self.assertEqual(done.returncode, status)
        self.assertEqual(done.stdout or b"", b"")
