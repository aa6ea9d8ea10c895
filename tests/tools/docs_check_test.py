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

    ./tool --fast    # [no link](nowhere.md)

What `[code](nowhere.md)` shows is not a link, and

```
[nor here](nowhere.md)
```
"""
PAGE = "# A page\n\n## The second part: `a`, b\n\n[back](../README.md) and [away](https://example.org/x)\n"


class DocsCheck(unittest.TestCase):
    def setUp(self):
        self.root = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.root)
        for name, text in {"README.md": README, "docs/page.md": PAGE, "tool": ""}.items():
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
        self.assertEqual(result.stdout, "2 documents, 0 faults\n")

    def test_finds_a_link_to_a_missing_file(self):
        self.assert_fault("docs/page.md", "../README.md", "../READYOU.md",
                          "docs/page.md:5: ../READYOU.md: there is no such file")

    def test_finds_a_link_to_a_missing_heading(self):
        self.assert_fault("README.md", "#the-second-part-a-b", "#the-third-part",
                          "README.md:3: docs/page.md#the-third-part: no heading of that name")

    def test_refuses_a_wrong_call(self):
        self.assertEqual(self.run_check("--nonsense").returncode, 2)
        self.assertEqual(self.run_check("--help").returncode, 0)


if __name__ == "__main__":
    unittest.main()
