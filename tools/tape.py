#!/usr/bin/env python3
"""The goldens of the tapes (tests/tapes/*.tape): see how one differs from what the product does, and accept it.

usage: tape.py show NAME [--program FILE]     the tape as it is now
       tape.py accept NAME [--program FILE]   show the difference, then put it into the golden

NAME is FILE.SCENARIO, as in copying.CopyFile. One at a time: read the difference, and say in the commit which
behaviour has changed. Comments of the golden stay with the line below them. Not under CI.
"""
import difflib
import os
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
FOLDER = ROOT / "tests/tapes"
PROGRAM = ROOT / "build/test/tests/unit_tests"


def found_tape(name, program):
    """The lines of the tape as the product makes it now."""
    file, scenario = name.split(".")
    filter_ = f"--gtest_filter={file}/Tape.*/{scenario}"
    shown = subprocess.run([program, filter_, "--gtest_brief=1"], capture_output=True, text=True,
                           env={**os.environ, "QEL_SHOW_TAPES": "1"}).stdout
    begin, end = f"== {name}\n", "\n== end\n"
    if begin not in shown or end not in shown:
        sys.exit(f"error: {program} has no tape {name}: build it, and see --gtest_list_tests for the names")
    return shown.split(begin, 1)[1].split(end, 1)[0].split("\n")


def blocks_of(text):
    """The head of a file, and its blocks: [scenario, lines]."""
    head, blocks = [], []
    for line in text.splitlines():
        if line.startswith("== "):
            blocks.append([line[3:], []])
        else:
            (blocks[-1][1] if blocks else head).append(line)
    return head, blocks


def merged(old, new):
    """The new lines with the old ones' comments: each before the line that it stood before, or where that was."""
    lines, comments = [], {}
    for line in old:
        if line.startswith("#") or not line:
            comments.setdefault(len(lines), []).append(line)
        else:
            lines.append(line)
    result = []
    for tag, old_from, old_to, new_from, new_to in difflib.SequenceMatcher(None, lines, new, False).get_opcodes():
        if tag == "equal":
            for offset in range(old_to - old_from):
                result += comments.pop(old_from + offset, []) + [new[new_from + offset]]
        else:
            for at in range(old_from, old_to):
                result += comments.pop(at, [])
            result += new[new_from:new_to]
    return result + [line for at in sorted(comments) for line in comments[at]]


def accept(name, new):
    file, scenario = name.split(".")
    path = FOLDER / f"{file}.tape"
    head, blocks = blocks_of(path.read_text() if path.exists() else "")
    old = next((lines for block, lines in blocks if block == scenario), None)
    if old is None:
        old = []
        blocks.append([scenario, old])
    bare = [line for line in old if line and not line.startswith("#")]
    difference = list(difflib.unified_diff(bare, new, "golden", "now", lineterm=""))
    if not difference:
        print(f"{name} is as its golden")
        return
    print("\n".join(difference))
    old[:] = [line for line in merged(old, new)]
    while old and not old[-1]:
        old.pop()
    text = "\n".join(head).rstrip() + "\n"
    for block, lines in blocks:
        text += f"\n== {block}\n" + "\n".join(lines).strip("\n") + "\n"
    path.write_text(text)
    print(f"accepted into {path.relative_to(ROOT)}; a sentence must stand below \"== {scenario}\"")


def main():
    words = sys.argv[1:]
    if "--help" in words or "-h" in words:
        print(__doc__)
        return 0
    program = PROGRAM
    if "--program" in words[:-1]:
        at = words.index("--program")
        program = Path(words[at + 1])
        del words[at:at + 2]
    if len(words) != 2 or words[0] not in ("show", "accept") or words[1].count(".") != 1 or "*" in words[1]:
        print(__doc__, file=sys.stderr)
        return 2
    if words[0] == "accept" and os.environ.get("CI"):
        sys.exit("error: goldens are accepted by a person, not under CI")
    tape = found_tape(words[1], program)
    if words[0] == "show":
        print("\n".join(tape))
    else:
        accept(words[1], tape)
    return 0


sys.exit(main())
