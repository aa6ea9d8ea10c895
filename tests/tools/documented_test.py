#!/usr/bin/env python3
"""Runs the commands of the documents that can be run as they are written: each indented block that follows the line
<!-- ./check runs this -->."""
import pathlib
import re
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
MARK = r"<!-- \./check runs this -->\n\n((?: {4,}.*\n)+)"


class Documented(unittest.TestCase):
    def test_marked_blocks_run_as_written(self):
        names = subprocess.run(["git", "ls-files", "*.md"], cwd=ROOT, capture_output=True, text=True, check=True)
        blocks = [(name, block) for name in names.stdout.split() for block in re.findall(MARK, (ROOT / name).read_text())]
        self.assertGreaterEqual(len(blocks), 3)
        for name, block in blocks:
            with self.subTest(name=name, block=block):
                print(name, block, sep=":\n", flush=True)
                result = subprocess.run(["bash", "-euc", block], cwd=ROOT, capture_output=True, text=True)
                self.assertEqual(result.returncode, 0, result.stdout + result.stderr)


if __name__ == "__main__":
    unittest.main()
