#!/usr/bin/env python3
"""docs_check.py on a small tree of its own, in which each test makes a fault."""
import pathlib
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent

README = """# A tree

[A page](docs/page.md), [its second part](docs/page.md#the-second-part-a-b) and [this](#a-tree).

    ./tool --fast    # quick
    ./tool --all

What `[code](nowhere.md)` shows is no link, and

    a drawing ./tool
    is no command

```
cmake --version
```
"""
PAGE = "# A page\n\n## The second part: `a`, b\n\n[back](../README.md) and [away](https://example.org/x)\n"
COMMANDS = """# comment

test Suite.Test | ./tool --fast
tier unit | cmake --version
hand nobody has the time | ./tool --all
"""


class DocsCheck(unittest.TestCase):
    def setUp(self):
        self.root = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.root)
        for name, text in {"README.md": README, "docs/page.md": PAGE, "docs/commands.txt": COMMANDS,
                           "tool": "", "check": "tier_unit() { :; }\n", "tests/x.cpp": "TEST(Suite, Test)\n"}.items():
            (self.root / name).parent.mkdir(exist_ok=True)
            (self.root / name).write_text(text)
        (self.root / "tools").mkdir()
        shutil.copy(ROOT / "tools/docs_check.py", self.root / "tools")
        subprocess.run(["git", "init", "-q", self.root], check=True)

    def run_check(self, *words):
        return subprocess.run([self.root / "tools/docs_check.py", *words], capture_output=True, text=True)

    def assert_fault(self, file, old, new, fault):
        path = self.root / file
        self.assertIn(old, path.read_text())
        path.write_text(path.read_text().replace(old, new, 1))
        result = self.run_check()
        self.assertEqual((result.returncode, result.stderr), (1, f"error: {fault}\n"))

    def test_is_content_with_a_good_tree(self):
        result = self.run_check()
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout, "2 documents, 3 commands, 1 of them run by people only; 0 faults\n")

    def test_finds_a_link_to_a_missing_file(self):
        self.assert_fault("docs/page.md", "../README.md", "../READYOU.md",
                          "docs/page.md:5: ../READYOU.md: there is no such file")

    def test_finds_a_link_to_a_missing_heading(self):
        self.assert_fault("README.md", "#the-second-part-a-b", "#the-third-part",
                          "README.md:3: docs/page.md#the-third-part: no heading of that name")

    def test_finds_a_command_that_is_not_listed(self):
        self.assert_fault("README.md", "--all", "--other",
                          "README.md: not in docs/commands.txt: ./tool --other\n"
                          "error: docs/commands.txt:5: in no document: ./tool --all")

    def test_finds_a_test_that_does_not_exist(self):
        self.assert_fault("tests/x.cpp", "Suite, Test", "Suite, Tests",
                          "docs/commands.txt:3: there is no test Suite.Test")

    def test_finds_a_tier_that_does_not_exist(self):
        self.assert_fault("check", "tier_unit", "tier_units", "docs/commands.txt:4: ./check has no tier unit")

    def test_wants_a_reason_for_what_only_people_run(self):
        self.assert_fault("docs/commands.txt", "hand nobody has the time", "hand",
                          "docs/commands.txt:5: say why nothing but people can run this")

    def test_finds_a_command_listed_twice(self):
        self.assert_fault("docs/commands.txt", "# comment", "hand why | ./tool --fast",
                          "docs/commands.txt:1: listed twice: ./tool --fast\n"
                          "error: docs/commands.txt:3: listed twice: ./tool --fast")

    def test_prints_the_commands(self):
        self.assertEqual(self.run_check("--commands").stdout,
                         "README.md: ./tool --fast\nREADME.md: ./tool --all\nREADME.md: cmake --version\n")

    def test_refuses_a_wrong_call(self):
        self.assertEqual(self.run_check("--nonsense").returncode, 2)
        self.assertEqual(self.run_check("--help").returncode, 0)


if __name__ == "__main__":
    unittest.main()
