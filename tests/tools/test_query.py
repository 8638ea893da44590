# SPDX-License-Identifier: MIT
"""`zirdb query`: the formats, judged by other people's readers, and the ways to
fail."""

import csv
import io
import json
import os
import shutil
import subprocess
import time
import unittest

from tool import LIBRARY, MEMORY, PROGRAM, ToolTest


class QueryTest(ToolTest):
    def query(self, sql, *options, connection=MEMORY, **more):
        done = self.run_tool("query", connection, sql, *options, **more)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done

    def json(self, sql, *options, **more):
        """The rows as lists of pairs, so that a key that is there twice shows."""
        done = self.query(sql, "--format", "json", *options, **more)
        return json.loads(done.stdout.decode("utf-8"), object_pairs_hook=list)

    def value(self, expression):
        ((_, value),) = self.json("SELECT " + expression + " AS v")[0]
        return value

    def csv(self, sql, **more):
        done = self.query(sql, "--format", "csv", **more)
        return list(csv.reader(io.StringIO(done.stdout.decode(), newline=""),
                               strict=True))

    def table(self, sql, *options, **more):
        return self.query(sql, *options, **more).stdout.decode().split("\n")


# Characters as SQLite makes them, so that no shell or driver is in between.
def characters(*codes):
    return "||".join("char(%d)" % code for code in codes)


class Json(QueryTest):
    def test_values_have_json_types(self):
        for expression, expected in (
                ("1", 1),
                ("9223372036854775807", 9223372036854775807),
                ("-9223372036854775808", -9223372036854775808),
                ("9007199254740993", 9007199254740993),
                ("NULL", None),
                ("''", ""),
                ("'saw'", "saw"),
                ("x'00FF10'", "00ff10"),
                ("0.1", 0.1),
                ("-2.5e-300", -2.5e-300),
                ("1e300", 1e300),
                ("123456789.25", 123456789.25),
                ("9e999", "Infinity"),
                ("-9e999", "-Infinity")):
            with self.subTest(expression=expression):
                value = self.value(expression)
                self.assertEqual(value, expected)
                self.assertIs(type(value), type(expected))

    def test_booleans_are_json_booleans(self):
        rows = self.json("SELECT * FROM flags", connection=self.flags())
        self.assertEqual(rows, [[("yes", True), ("no", False)]])

    def test_numbers_are_the_shortest_that_read_back(self):
        for expression, text in (("0.1", "0.1"), ("100000.0", "100000"),
                                 ("1e16", "10000000000000000"),
                                 ("1e17", "1e+17"), ("0.00001", "0.00001"),
                                 ("1e-7", "1e-07"), ("5e-324", "5e-324"),
                                 ("0.0", "0")):
            done = self.query("SELECT " + expression + " AS v",
                              "--format=json")
            self.assertEqual(done.stdout.decode(),
                             '[\n{"v": ' + text + "}\n]\n")

    def test_texts_come_back_as_they_are(self):
        for codes in ([0x22, 0x5C, 0x2F], list(range(1, 32)), [0x7F],
                      list(range(0x80, 0xA1)), [0xE9, 0x65E5, 0x672C],
                      [0x2027, 0x2028, 0x2029, 0x202A], [0x1F600],
                      [0xD7FF, 0xE000, 0xFFFD, 0xFFFF, 0x10FFFF]):
            with self.subTest(codes=codes):
                self.assertEqual(self.value(characters(*codes)),
                                 "".join(map(chr, codes)))

    def test_nothing_that_ends_lines_or_controls_terminals_is_bare(self):
        codes = [*range(1, 32), *range(0x7F, 0xA0), 0x2028, 0x2029]
        done = self.query("SELECT " + characters(*codes) + " AS v",
                          "--format=json")
        self.assertEqual(set(done.stdout.decode()) & set(map(chr, codes)),
                         {"\n"})

    def test_other_characters_stay_readable(self):
        done = self.query("SELECT " + characters(0xE9, 0x65E5) + " AS v",
                          "--format=json")
        self.assertIn("\u00e9\u65e5", done.stdout.decode())

    def test_what_is_no_character_is_replaced(self):
        self.assertEqual(self.value("CAST(x'EDA080' AS TEXT)"), "\uFFFD")

    def test_keys_keep_their_order_and_are_never_there_twice(self):
        for columns, keys in (
                ("1 b, 2 a", ["b", "a"]),
                ("1 a, 2 a, 3 a", ["a", "a_2", "a_3"]),
                ("1 a, 2 a, 3 a_2", ["a", "a_3", "a_2"]),
                ("1 a_2, 2 a, 3 a", ["a_2", "a", "a_3"]),
                ("1 a, 2 A", ["a", "A"]),
                ("1 '', 2 ''", ["", "_2"]),
                ("1 'x\"\\y', 2 '\u00e9\n'", ['x"\\y', "\u00e9\n"])):
            with self.subTest(columns=columns):
                (row,) = self.json("SELECT " + columns)
                self.assertEqual([key for key, _ in row], keys)
                self.assertEqual([value for _, value in row],
                                 list(range(1, len(keys) + 1)))

    def test_no_rows_are_an_empty_array(self):
        self.assertEqual(self.json("SELECT 1 AS v WHERE 0"), [])

    def test_a_statement_without_a_result_is_an_empty_array(self):
        self.assertEqual(self.json("CREATE TABLE t (a)"), [])

    def test_rows_stand_one_to_a_line(self):
        done = self.query("SELECT 1 AS a, 2 AS b UNION ALL SELECT 3, NULL",
                          "--format=json")
        self.assertEqual(done.stdout, b'[\n{"a": 1, "b": 2},\n'
                                      b'{"a": 3, "b": null}\n]\n')
        self.assertEqual(done.stderr, b"")

    def flags(self):
        database = "Driver=SQLite3;Database=" + self.path("flags.db")
        self.query("CREATE TABLE flags (yes BIT, no BIT)", connection=database)
        self.query("INSERT INTO flags VALUES (1, 0)", connection=database)
        return database


class Csv(QueryTest):
    def test_a_csv_reader_gets_the_values_back(self):
        for text in ("plain", "a,b", 'say "x"', "two\nlines", "cr\rlf\r\n",
                     " blank", "blank ", "\ttab", "\u00e9\u65e5", '"', ","):
            with self.subTest(text=text):
                sql = "SELECT %s AS v, 7 AS w" % characters(*map(ord, text))
                self.assertEqual(self.csv(sql), [["v", "w"], [text, "7"]])

    def test_fields_are_quoted_where_readers_need_it(self):
        for expression, field in (
                ("NULL", ""), ("''", '""'), ("'a b'", "a b"),
                ("' a'", '" a"'), ("'a '", '"a "'), ("'a,b'", '"a,b"'),
                ("'a\"b'", '"a""b"'), ("'a;b'", "a;b"), ("x'00fF'", "00ff"),
                ("9223372036854775807", "9223372036854775807"),
                ("0.5", "0.5")):
            with self.subTest(expression=expression):
                done = self.query("SELECT %s AS v, 1 AS w" % expression,
                                  "--format=csv")
                self.assertEqual(done.stdout.decode(), "v,w\n%s,1\n" % field)
                self.assertEqual(done.stderr, b"")

    def test_names_are_quoted_and_kept_when_they_repeat(self):
        self.assertEqual(self.csv("SELECT 1 'a,b', 2 '', 3 'x', 4 'x'"),
                         [["a,b", "", "x", "x"], ["1", "2", "3", "4"]])

    def test_no_rows_leave_the_header(self):
        self.assertEqual(self.csv("SELECT 1 AS v WHERE 0"), [["v"]])

    def test_a_statement_without_a_result_prints_nothing(self):
        done = self.query("CREATE TABLE t (a)", "--format=csv")
        self.assertEqual(done.stdout, b"")


class Table(QueryTest):
    def test_columns_are_aligned_and_numbers_are_to_the_right(self):
        self.assertEqual(
            self.table("SELECT 7 AS n, 'saw' AS name, 0.5 AS price, 'm' AS m "
                       "UNION ALL SELECT -120, 'a', NULL, 'x'"),
            ["   n  name  price  m",
             "----  ----  -----  -",
             "   7  saw     0.5  m",
             "-120  a      NULL  x",
             ""])

    def test_characters_count_by_their_width_in_any_locale(self):
        combined = "e\u0301"
        sql = "SELECT '%s' AS a, 1 AS b UNION ALL SELECT '%s', 2" % (
            "\u65e5\u672c", combined)
        for locale in ("C", "C.UTF-8"):
            self.assertEqual(self.table(sql, environment={"LC_ALL": locale}),
                             ["a     b", "----  -", "\u65e5\u672c  1",
                              combined + "     2", ""])

    def test_what_could_act_on_a_terminal_is_shown(self):
        for codes, shown in (([9], "\\t"), ([10], "\\n"), ([13], "\\r"),
                             ([27, 91, 109], "\\u001b[m"), ([7], "\\u0007"),
                             ([0x7F], "\\u007f"), ([0x9B], "\\u009b"),
                             ([0x202E], "\\u202e"), ([0x2028], "\\u2028"),
                             ([0x2066], "\\u2066"), ([0x61C], "\\u061c"),
                             ([0x10FFFF], "\\U0010ffff"), ([0x5C], "\\")):
            with self.subTest(codes=codes):
                lines = self.table("SELECT %s AS v" % characters(*codes))
                self.assertEqual(lines[2:], [shown, ""])
                self.assertEqual(lines[1], "-" * len(shown))

    def test_names_are_shown_in_the_same_way(self):
        self.assertEqual(self.table("SELECT 1 AS 'a\tb', 2 AS ''")[0],
                         "a\\tb   ")

    def test_values_without_a_text_are_shown(self):
        self.assertEqual(self.table("SELECT NULL AS a, x'00ff' AS b, '' AS c"),
                         ["a     b       c", "----  ------  -",
                          "NULL  0x00ff  ", ""])

    def test_rows_are_counted_on_standard_error(self):
        for sql, count in (("SELECT 1 WHERE 0", b"(0 rows)\n"),
                           ("SELECT 1", b"(1 row)\n"),
                           ("SELECT 1 UNION SELECT 2", b"(2 rows)\n")):
            self.assertEqual(self.query(sql).stderr, count)

    def test_it_is_the_default(self):
        self.assertEqual(self.query("SELECT 1 AS v").stdout,
                         self.query("SELECT 1 AS v", "--format=table").stdout)


class Statements(QueryTest):
    def test_affected_rows_are_counted_on_standard_error(self):
        database = "Driver=SQLite3;Database=" + self.path("t.db")
        for sql, count in (
                ("CREATE TABLE t (a)", b"0 rows affected\n"),
                ("INSERT INTO t VALUES (1)", b"1 row affected\n"),
                ("INSERT INTO t VALUES (1), (2)", b"2 rows affected\n"),
                ("DELETE FROM t WHERE a = 1", b"2 rows affected\n")):
            done = self.query(sql, connection=database)
            self.assertEqual((done.stdout, done.stderr), (b"", count))
        done = self.query("INSERT INTO t VALUES (?)", "--value=x",
                          connection=database)
        self.assertEqual(done.stderr, b"1 row affected\n")

    def test_values_are_texts_for_the_markers(self):
        rows = self.json("SELECT ? AS a, ? AS b, ? AS c", "--value", "-5",
                         "--value", "", "--value=\u65e5 ';")
        self.assertEqual(rows,
                         [[("a", "-5"), ("b", ""), ("c", "\u65e5 ';")]])

    def test_sql_comes_from_standard_input(self):
        done = self.query("-", "--format=csv",
                          input=b"SELECT\n  7 AS v -- seven\n")
        self.assertEqual(done.stdout, b"v\n7\n")

    def test_sql_that_begins_with_a_comment_stands_behind_two_dashes(self):
        done = self.run_tool("query", "--format=csv", "--", MEMORY,
                             "-- seven\nSELECT 7 AS v")
        self.assertEqual(done.stdout, b"v\n7\n")

    def test_many_rows_arrive_whole(self):
        sql = ("WITH RECURSIVE n(v) AS (SELECT 1 UNION ALL SELECT v + 1 FROM n"
               " WHERE v < 20000) SELECT v FROM n")
        rows = self.csv(sql)
        self.assertEqual(rows[1:], [[str(i)] for i in range(1, 20001)])


class Failures(QueryTest):
    def test_the_error_is_told_with_source_and_code(self):
        self.assertFails(
            self.run_tool("query", MEMORY, "SELEC"), 1,
            'zirdb: ZIRDB.Connection: HY000: [SQLite]near "SELEC":')
        self.assertFails(self.run_tool("query", MEMORY, "SELEC"), 1,
                         "(0x80040712)\n")
        self.assertFails(self.run_tool("query", MEMORY, ""), 1,
                         "ZIRDB.Connection: Command text was not set for the"
                         " command object. (0x80040E0C)")

    def test_nothing_is_printed_in_any_format(self):
        for form in ("table", "csv", "json"):
            # The first row is good, the second is not.
            done = self.run_tool("query", MEMORY, "--format", form,
                                 "SELECT 1 AS v UNION ALL"
                                 " SELECT abs(-9223372036854775807 - 1)")
            self.assertFails(done, 1, "integer overflow")

    def test_a_missing_driver_comes_with_a_hint(self):
        done = self.run_tool("query", "Driver=no such driver", "SELECT 1")
        self.assertFails(done, 1, "(0x80040710)")
        self.assertFails(done, 1, "hint: ")
        self.assertFails(done, 1, "SQLite3")
        done = self.run_tool("query", "DSN=no such source", "SELECT 1")
        self.assertFails(done, 1, "hint: ")

    def test_a_change_without_a_row_is_explained(self):
        database = "Driver=SQLite3;Database=" + self.path("t.db")
        self.query("CREATE TABLE t (a)", connection=database)
        done = self.run_tool("query", database, "DELETE FROM t")
        self.assertFails(done, 1, "ODBC operation failed (0x80040712)\n"
                         "hint: the driver gave no reason; some drivers say so"
                         " when a change matches no row\n")

    def test_other_errors_have_no_hint(self):
        done = self.run_tool("query", MEMORY, "SELEC")
        self.assertNotIn(b"hint", done.stderr)

    def test_errors_do_not_act_on_the_terminal(self):
        done = self.run_tool("query", MEMORY, "SELECT * FROM \"a\x1bb\"")
        self.assertFails(done, 1, "a\\u001bb")

    def test_texts_that_cannot_be_sent_are_refused(self):
        self.assertFails(self.run_tool("query", MEMORY, b"SELECT '\xff'"), 1,
                         "a text is not UTF-8")
        done = self.run_tool("query", MEMORY, "-", input=b"SELECT 1\0")
        self.assertFails(done, 1, "a text holds a zero")

    def test_output_that_cannot_be_written_is_an_error(self):
        for form in ("table", "csv", "json"):
            with open("/dev/full", "wb") as full:
                done = self.run_tool("query", MEMORY, "SELECT 1",
                                     "--format", form, stdout=full)
            self.assertFails(done, 1, "cannot write the output: No space left")
        for arguments in (["--help"], ["--version"], ["query", "--help"]):
            with open("/dev/full", "wb") as full:
                done = self.run_tool(*arguments, stdout=full)
            self.assertFails(done, 1, "cannot write the output")

    def test_a_reader_that_went_away_is_an_error(self):
        reading, writing = os.pipe()
        os.close(reading)
        with os.fdopen(writing, "wb") as pipe:
            done = self.run_tool("query", MEMORY, "SELECT 1", stdout=pipe)
        self.assertFails(done, 1, "cannot write the output: Broken pipe")

    def test_a_closed_standard_output_is_an_error_and_hits_no_file(self):
        database = self.path("t.db")
        self.query("CREATE TABLE t (a)",
                   connection="Driver=SQLite3;Database=" + database)
        done = self.run_tool(
            "query", "Driver=SQLite3;Database=" + database,
            "SELECT 'x' FROM sqlite_master", stdout=None,
            preexec_fn=lambda: os.close(1))
        self.assertFails(done, 1, "cannot write the output: Bad file")
        with open(database, "rb") as file:
            self.assertTrue(file.read().startswith(b"SQLite format 3\0"))

    def test_no_file_takes_the_place_of_a_closed_standard_output(self):
        # It waits for its statement while we look.
        with subprocess.Popen([PROGRAM, "query", MEMORY, "-"],
                              stdin=subprocess.PIPE, stderr=subprocess.PIPE,
                              preexec_fn=lambda: os.close(1)) as process:
            output = "/proc/%d/fd/1" % process.pid
            end = time.monotonic() + 20
            while not os.path.lexists(output) and time.monotonic() < end:
                time.sleep(0.01)
            self.assertEqual(os.readlink(output), "/dev/null")
            _, errors = process.communicate(b"SELECT 1", timeout=60)
        self.assertIn(b"cannot write the output", errors)
        self.assertEqual(process.returncode, 1)

    def test_standard_input_that_cannot_be_read_is_an_error(self):
        folder = os.open("/", os.O_RDONLY)
        self.addCleanup(os.close, folder)
        done = self.run_tool("query", MEMORY, "-", stdin=folder)
        self.assertFails(done, 1, "cannot read standard input")


class Registry(QueryTest):
    def test_it_is_found_beside_the_library(self):
        self.query("SELECT 1", environment={"REGISTRY": None})

    def test_the_installed_folder_is_found_too(self):
        folder = self.path("lib")
        os.makedirs(os.path.join(folder, "zirdb", "registry"))
        library = os.path.join(folder, "libzirdb.so.0")
        shutil.copy(LIBRARY, library)
        os.symlink("../../libzirdb.so.0",
                   os.path.join(folder, "zirdb", "registry", "ZIRDB.so"))
        environment = {"REGISTRY": None, "LD_LIBRARY_PATH": folder}
        self.query("SELECT 1", environment=environment)
        os.remove(os.path.join(folder, "zirdb", "registry", "ZIRDB.so"))
        done = self.run_tool("query", MEMORY, "SELECT 1",
                             environment=environment)
        self.assertFails(done, 1, "REGISTRY")

    def test_a_users_value_is_kept(self):
        for value in (self.folder, ""):
            done = self.run_tool("query", MEMORY, "SELECT 1",
                                 environment={"REGISTRY": value})
            self.assertFails(done, 1, "creating ZIRDB.Connection")


if __name__ == "__main__":
    unittest.main()
