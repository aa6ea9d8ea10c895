#!/usr/bin/env python3
"""qel-where and failures_table.py as people call them, in the source tree and in copies with a fault."""
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent

ROW = "ABC\tqel_utility/qel_old\t7\t0\tx > 0\told\tsrc/old.cpp:7\tAn old check.\tNothing.\n"


def run(*words, root=ROOT):
    return subprocess.run([str(word) for word in words], cwd=root, capture_output=True, text=True)


def where(*words):
    return run("host/where/qel-where", *words)


class Where(unittest.TestCase):
    def test_explains_a_place_by_unit_and_line(self):
        result = where("qel_utility/qel_filesystem:1964")
        self.assertEqual(result.returncode, 0)
        self.assertIn("ERROR KCW1964\n  check     !err\n  function  qel_mount, src/", result.stdout)
        self.assertIn("means     A mount of", result.stdout)
        self.assertIn("to do ", result.stdout)

    def test_explains_the_same_by_letters_by_the_last_name_and_by_a_console_line(self):
        expected = where("qel_utility/qel_filesystem:400").stdout
        self.assertIn("qel_fopen", expected)
        line = ('2024-03-05 07:08:09 - ERROR - qel_utility/qel_filesystem:400 - qel_fopen() - '
                'Path is not absolute: "etc"')
        for words in (["KCW400"], ["ERROR", "KCW400"], ["qel_filesystem:400"], [line], line.split()):
            self.assertEqual(where(*words).stdout, expected, words)

    def test_says_of_a_line_that_moves_that_it_does(self):
        moving = next(line.split()[1] for line in where("--list").stdout.splitlines() if "qel_string:" in line)
        self.assertIn("in this release only", where(moving).stdout)
        self.assertNotIn("in this release only", where("KCW400", "VYS189").stdout)

    def test_prints_links_and_names_as_plain_text(self):
        printed = where("KCW2117", "VYS197").stdout
        self.assertIn("The console shows which one: docs/installing.md#for-the-field-technician.", printed)
        self.assertIn("A partial file may be left on /storage, which", printed)

    def test_finds_lines_that_come_from_outside_the_checking_function(self):
        functions = {"KCW2101": "qel_exec_wait_checked", "KCW1731": "qel_wine_exec_capture",
                     "KCW2017": "_mount_usb_disk", "KCW1914": "qel_make_lpc_node"}
        printed = re.findall(r"ERROR (\w+)\n.*\n  function  (\w+),", where(*functions).stdout)
        self.assertEqual(dict(printed), functions)

    def test_has_the_letters_that_the_loader_forms(self):
        # The squares of "qel_string" sum up to 117070 = 65536 + 51534;
        # 51534 mod 26 = 2, 1982 mod 26 = 6, 76 mod 26 = 24
        self.assertRegex(where("--list").stdout, r"(?m)^CGY\d+ +qel_utility/qel_string:")

    def test_lists_every_place_once(self):
        lines = where("--list").stdout.splitlines()
        self.assertEqual(len(lines), len(set(lines)))
        self.assertEqual(sum(" qel_utility/qel_filesystem:" in line for line in lines), 117)
        self.assertEqual(sum(" qel_application_loader:" in line for line in lines), 4)

    def test_does_not_know_other_places(self):
        for place in ("HDC407", "KCW401", "qel_utility/qel_nothing:1"):
            result = where(place)
            self.assertEqual(result.returncode, 1, place)
            self.assertIn("no check of this release reports this", result.stdout)
        self.assertEqual(where("KCW400", "KCW401").returncode, 1)

    def test_refuses_a_wrong_call(self):
        for words in ([], ["nonsense"], ["--nonsense"], ["--table"], ["--table", "/missing", "KCW400"],
                      ["--table", "/dev/null", "KCW400"], ["--list", "KCW400"], ["--loader"]):
            result = where(*words)
            self.assertEqual(result.returncode, 2, words)
            self.assertIn("error: ", result.stderr)
        self.assertEqual(where("--help").returncode, 0)

    def table(self, text):
        file = tempfile.NamedTemporaryFile("w", suffix=".tsv")
        self.addCleanup(file.close)
        file.write(text)
        file.flush()
        return file

    def test_refuses_a_table_without_its_head(self):
        result = where("--table", self.table(ROW).name, "ABC7")
        self.assertEqual(result.returncode, 2)
        self.assertIn("is not a table of places", result.stderr)

    def test_prints_the_release_and_the_loaders_of_the_table(self):
        table = self.table("# QEL loader\t0.4.2\t0011 aaff\n" + ROW)
        self.assertEqual(where("--table", table.name, "--version").stdout,
                         "qel-where 0.4.2\nloader 0011\nloader aaff\n")

    def test_explains_a_line_that_moves_only_for_a_loader_that_the_table_lists(self):
        for build_id, known in (("00112233445566778899aabbccddeeff00112233", True), ("00" * 20, False)):
            loader = tempfile.NamedTemporaryFile()
            self.addCleanup(loader.close)
            subprocess.run(["gcc", "-nostdlib", "-static", "-x", "assembler", "/dev/null", "-o", loader.name, "-Wl,-e0",
                            "-Wl,--build-id=0x" + build_id], check=True)
            table = self.table("# QEL loader\t0.4.2\tff00 00112233445566778899aabbccddeeff00112233\n" + ROW +
                               ROW.replace("\t7\t0", "\t8\t1"))
            result = where("--table", table.name, "--loader", loader.name, "ABC7")
            self.assertEqual(result.returncode, 0 if known else 1)
            self.assertEqual("check     x > 0" in result.stdout, known)
            self.assertEqual("the table is of another release" in result.stdout, not known)
            self.assertEqual(f"(build id {build_id}) is not listed in the table of release 0.4.2" in result.stderr,
                             not known)
            self.assertEqual(where("--table", table.name, "--loader", loader.name, "ABC8").returncode, 0)

    def test_refuses_a_loader_without_a_build_id(self):
        for file in ("/missing", "/dev/null"):
            self.assertEqual(where("--loader", file, "KCW400").returncode, 2)

    def test_the_table_lists_the_build_ids_of_the_loaders_that_are_named(self):
        head = run("host/where/make_table.sh", "1.2.3", "/bin/true").stdout.splitlines()[0]
        self.assertRegex(head, r"^# QEL loader\t1\.2\.3\t[0-9a-f]{40}$")
        self.assertIn(head[-40:], run("readelf", "-n", "/bin/true").stdout)

    def test_reads_the_places_of_another_release(self):
        with tempfile.NamedTemporaryFile("w", suffix=".tsv") as table:
            table.write("# QEL loader\t0.4.2\t\n" + ROW + ROW.replace("x > 0", "y > 0"))
            table.flush()
            result = where("--table", table.name, "ABC7")
            self.assertEqual(result.returncode, 0)
            self.assertIn("check     x > 0", result.stdout)
            self.assertIn("check     y > 0", result.stdout)
            collisions = where("--table", table.name, "--collisions")
            self.assertEqual(collisions.returncode, 1)
            self.assertIn("2 places, 1 reports that mean more than one", collisions.stdout)

    def test_collisions_are_counted_for_this_release(self):
        result = where("--collisions")
        self.assertRegex(result.stdout, r"\d+ places, \d+ reports")
        self.assertEqual(result.returncode, 0 if ", 0 reports" in result.stdout else 1)


class FailuresTable(unittest.TestCase):
    """Works on a copy, in which a test makes a fault."""

    def setUp(self):
        self.root = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.root)
        for name in ("src", "docs", "tools", "tests/unit"):
            shutil.copytree(ROOT / name, self.root / name)

    def edit(self, name, old, new):
        path = self.root / name
        text = path.read_text()
        self.assertIn(old, text)
        path.write_text(text.replace(old, new, 1))

    def check(self):
        return run("tools/failures_table.py", "--check", root=self.root)

    def assert_fault(self, *words):
        result = self.check()
        self.assertEqual(result.returncode, 1, result.stdout)
        for word in words:
            self.assertIn(word, result.stderr)

    def test_is_in_step(self):
        result = self.check()
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def test_wants_a_row_for_a_new_check(self):
        self.edit("src/qel_utility/qel_string.cpp", "QEL_ASSERT(s);", "QEL_ASSERT(s);\n    QEL_ASSERT(s[0]);")
        self.assert_fault("a row is missing", "`s[0]` | `qel_str_is_blank`")

    def test_refuses_a_row_without_a_check(self):
        self.edit("src/qel_utility/qel_string.cpp", "QEL_ASSERT(pattern);", "")
        self.assert_fault("there is no such place in src/", "`pattern` | `qel_str_replace`")

    def test_refuses_a_number_that_moved_in_the_code_alone(self):
        self.edit("src/qel_utility/qel_filesystem/mounts.cpp", "1964", "1965")
        self.assert_fault("KCW1965", "KCW1964", "qel_filesystem:1965 is in src/ but not in reported_locations",
                          "qel_filesystem:1964 is in reported_locations_test.cpp but was not found")

    def test_follows_numbers_through_helpers_and_tables(self):
        self.edit("src/qel_utility/qel_filesystem/processes.cpp", ".exec = 2101", ".exec = 2100")
        self.edit("src/qel_utility/qel_filesystem/device_nodes.cpp", ", 2288)", ", 2289)")
        self.assert_fault("KCW2100", "KCW2289")

    def test_refuses_a_changed_text(self):
        self.edit("src/qel_application_loader/application.cpp", '"*app_file"', '"*app_name"')
        self.assert_fault("`*app_name`", "reported_locations_test.cpp '*app_file'")

    def test_refuses_two_rows_for_one_place_and_an_empty_meaning(self):
        row = next(line for line in (self.root / "docs/failures.md").read_text().splitlines() if "KCW1072" in line)
        self.edit("docs/failures.md", row, row + "\n" + row.rsplit("| ", 1)[0] + "| |")
        self.assert_fault("2 rows for one place", "the column 'meaning' is empty")

    def test_prints_the_rows_that_are_missing(self):
        row = next(line for line in (self.root / "docs/failures.md").read_text().splitlines() if "KCW1072" in line)
        self.edit("docs/failures.md", row + "\n", "")
        result = run("tools/failures_table.py", "--missing", root=self.root)
        self.assertEqual(result.stdout.splitlines(), [row[:row.rindex("`") + 1] + " | |"])

    def test_refuses_a_wrong_call(self):
        self.assertEqual(run("tools/failures_table.py").returncode, 2)
        self.assertEqual(run("tools/failures_table.py", "--help").returncode, 0)


if __name__ == "__main__":
    unittest.main()
