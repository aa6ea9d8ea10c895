#!/usr/bin/env python3
"""Every array of a fixed size in src/ has a row in fixed_buffers.tsv that says what keeps writes inside it, and every
row has its array.

usage: fixed_buffers_test.py [--list]    --list prints the arrays as rows, without the last column

A row has tab-separated columns: file, where it is defined (a function, a struct, "-" for the file), name, size,
what bounds it. Arrays whose initialiser gives the size are not meant: nothing is put into them.
"""
import collections
import pathlib
import re
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
TABLE = HERE / "fixed_buffers.tsv"
COMMENTS_AND_LITERALS = re.compile(r'//[^\n]*|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'')
SCOPE = re.compile(r"^(?:struct (\w+) \{|\S[^;=]*?(\w+)\()")
CONTINUED = re.compile(r"(?<=[\w,])\n[ \t]+(?=[\w\[+])")
# What may stand before the first name with a size: a type, or the end of a struct. No parenthesis but alignas's.
BEFORE = re.compile(r"(?:\}|(?!return\b|else\b)(?:\[\[\w+\]\]|alignas\(\w+\)|[\w:<>,*&\s])*[\w>*&])[\s*&]+"
                    r"(?=\w+\s*\[)")
ARRAY = re.compile(r"(\w+)\s*((?:\[[^\]]+\])+)(?=\s*(?:[,;={]|$))")


def arrays(path):
    code = CONTINUED.sub(" ", COMMENTS_AND_LITERALS.sub(" ", path.read_text()))
    scope = "-"
    for line in code.splitlines():
        found = SCOPE.match(line)
        if found:
            scope = found[1] or found[2]
        for statement in re.split(r"[;{]|(?=\})|(?<!:):(?!:)", line):
            if BEFORE.match(statement.strip()):
                for name, size in ARRAY.findall(statement):
                    yield str(path.relative_to(ROOT / "src")), scope, name, size[1:-1].replace("][", " x ")
        if line.startswith("}"):
            scope = "-"


def main():
    if len(sys.argv) > 2 or (len(sys.argv) == 2 and sys.argv[1] != "--list"):
        print(__doc__)
        return 0 if "--help" in sys.argv else 2
    found = [array for path in sorted((ROOT / "src").rglob("*.*")) if path.suffix in (".cpp", ".h")
             for array in arrays(path)]
    if sys.argv[1:]:
        print("\n".join("\t".join(array) for array in found))
        return 0
    rows = [tuple(line.split("\t")) for line in TABLE.read_text().splitlines()]
    errors = [f"this row wants five columns: {row}" for row in rows if len(row) != 5 or not row[4].strip()]
    listed = [row[:4] for row in rows]
    errors += [f"{array} has no row: what keeps writes inside it?" for array in
               (collections.Counter(found) - collections.Counter(listed))]
    errors += [f"{row} is not in the code any more" for row in
               (collections.Counter(listed) - collections.Counter(found))]
    if len(found) < 50:
        errors.append(f"only {len(found)} arrays found in {ROOT / 'src'}")
    for error in errors:
        print(f"error: {TABLE.name}: {error}")
    return int(bool(errors))


sys.exit(main())
