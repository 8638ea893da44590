# SPDX-License-Identifier: MIT
"""What the program says about itself, and about arguments it does not take."""

import os
import unittest

from tool import ToolTest

VERSION = os.environ["ZIRDB_VERSION"]


class Usage(ToolTest):
    def test_help_and_version_go_to_standard_output(self):
        for arguments, text in ((["--help"], "doctor"), (["-h"], "query"),
                                (["query", "--help"], "--format"),
                                (["doctor", "--help"], "CONNECTION"),
                                (["--version"], "zirdb %s\n" % VERSION)):
            with self.subTest(arguments=arguments):
                done = self.run_tool(*arguments)
                self.assertIn(text, done.stdout.decode())
                self.assertEqual((done.returncode, done.stderr), (0, b""))

    def test_wrong_usage_says_what_is_wrong(self):
        for arguments, text in (
                ([], "A subcommand is required"),
                (["ask"], "A subcommand is required"),
                (["query"], "CONNECTION is required"),
                (["query", "DSN=x"], "SQL is required"),
                (["query", "DSN=x", "SELECT 1", "extra"], "extra"),
                (["query", "DSN=x", "SELECT 1", "--format"], "--format"),
                (["query", "DSN=x", "SELECT 1", "--format=xml"], "xml"),
                (["query", "DSN=x", "SELECT 1", "--format=2"], "2"),
                (["query", "DSN=x", "SELECT 1", "--value"], "--value"),
                (["query", "DSN=x", "?", "--value", "a", "b"], "b"),
                (["query", "DSN=x", "SELECT 1", "--colour"], "--colour"),
                (["doctor", "DSN=x", "extra"], "extra"),
                (["--colour"], "")):
            with self.subTest(arguments=arguments):
                done = self.run_tool(*arguments)
                self.assertFails(done, 2, text)
                self.assertRegex(done.stderr.decode(),
                                 r"\Azirdb: .+\ntry: zirdb --help\n\Z")


if __name__ == "__main__":
    unittest.main()
