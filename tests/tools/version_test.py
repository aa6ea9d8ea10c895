#!/usr/bin/env python3
"""--version of every tool. The environment names the build folder: QEL_BUILD."""
import os
import pathlib
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = pathlib.Path(os.environ["QEL_BUILD"])
VERSION = (ROOT / "VERSION").read_text().strip()
WITH_COMMIT = {"./check": ROOT / "check", "./run": ROOT / "run", "benchmarks/run.sh": ROOT / "benchmarks/run.sh",
               "qel-factory": BUILD / "factory/qel-factory"}


def version_of(program):
    return subprocess.run([program, "--version"], capture_output=True, text=True, cwd="/", check=True).stdout


class Version(unittest.TestCase):
    def test_is_three_numbers(self):
        self.assertRegex(VERSION, r"^\d+\.\d+\.\d+$")

    def test_is_in_the_changelog(self):
        self.assertIn(f"\n## {VERSION} - ", (ROOT / "CHANGELOG.md").read_text())

    def test_is_printed_by_every_tool_with_the_commit(self):
        for name, program in WITH_COMMIT.items():
            with self.subTest(program=name):
                self.assertRegex(version_of(program), rf"^{name} {VERSION}( \([0-9a-f]{{10,}}(-dirty)?\))?\n$")

    def test_is_printed_alone_by_what_is_installed(self):
        self.assertEqual(version_of(BUILD / "host/qel-host"), f"qel-host {VERSION}\n")
        self.assertEqual(version_of(ROOT / "host/where/qel-where").splitlines()[0], f"qel-where {VERSION}")


if __name__ == "__main__":
    unittest.main()
