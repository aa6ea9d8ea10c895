#!/usr/bin/env python3
"""Checks the documents: every relative link in a *.md file leads to a file, and to a heading where it names one.

usage: tools/docs_check.py

Exit code: 0 when all is well, 1 when not, 2 for a wrong call.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent


def documents():
    """All *.md files that are, or are about to be, part of this tree."""
    names = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "*.md"], cwd=ROOT,
                           capture_output=True, text=True, check=True).stdout.split()
    return [name for name in sorted(set(names)) if (ROOT / name).exists()]


def without_code(text):
    """The text with code blocks and code spans blanked, line by line."""
    text = re.sub(r"^```.*?^```$", lambda block: re.sub(r"[^\n]", " ", block[0]), text, flags=re.M | re.S)
    text = re.sub(r"^ {4}.*$", "", text, flags=re.M)
    return re.sub(r"`[^`\n]*`", "", text)


def anchors(path):
    """What headings are called in links."""
    headings = re.findall(r"^#+ +(.*)$", re.sub(r"^```.*?^```$", "", path.read_text(), flags=re.M | re.S), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def check_links(name):
    faults = []
    for number, line in enumerate(without_code((ROOT / name).read_text()).splitlines(), 1):
        for target in re.findall(r"\]\(([^)\s]+)\)", line):
            if re.match(r"[a-z]+:", target):
                continue
            file, _, anchor = target.partition("#")
            path = (ROOT / name).parent / file if file else ROOT / name
            if not path.exists():
                faults.append(f"{name}:{number}: {target}: there is no such file")
            elif anchor and anchor not in anchors(path):
                faults.append(f"{name}:{number}: {target}: no heading of that name")
    return faults


def main(words):
    if words in (["--help"], ["-h"]):
        print(__doc__.strip())
        return 0
    if words:
        print("error: unknown argument (--help lists what there is)", file=sys.stderr)
        return 2
    names = documents()
    faults = [fault for name in names for fault in check_links(name)]
    for fault in faults:
        print(f"error: {fault}", file=sys.stderr)
    print(f"{len(names)} documents, {len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
