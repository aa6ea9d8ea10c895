#!/usr/bin/env python3
"""What bash completes after qel-factory. The environment names the build folder: QEL_BUILD."""
import os
import pathlib
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
FACTORY = pathlib.Path(os.environ["QEL_BUILD"]) / "factory/qel-factory"
COMPLETE = """
. factory/qel-factory.bash
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_qel_factory
printf '%s\\n' "${COMPREPLY[@]}"
"""


def completed(*words):
    return set(subprocess.run(["bash", "-uc", COMPLETE, "bash", FACTORY, *words], cwd=ROOT, capture_output=True,
                              text=True, check=True).stdout.split())


class Completion(unittest.TestCase):
    def test_of_the_first_word_is_a_command(self):
        self.assertEqual(completed("make-s"), {"make-stick", "make-system-image"})
        self.assertTrue({"install", "make-stick", "check-disk", "--help"} <= completed(""))

    def test_behind_a_command_has_its_options(self):
        self.assertEqual(completed("make-stick", "stick.img", "--disk"), {"--disk-size"})
        self.assertIn("--kernel", completed("check-disk", "--"))
        self.assertNotIn("--disk-size", completed("check-disk", "--"))

    def test_leaves_what_it_does_not_know_to_file_names(self):
        self.assertEqual(completed("check-disk", "disk."), set())


if __name__ == "__main__":
    unittest.main()
