#!/usr/bin/env python3
"""Prints the coverage that llvm-cov exported and compares what is uncovered with the list of exceptions.

An exception is a line of tools/coverage_exceptions.txt: a file, a colon, a blank, and the text of the source
line, without the blanks at its ends. No other line of that file may have this text: it would be excused with
it. The lines after it that begin with a blank say why.
"""

import argparse
import collections
import json
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
EXCEPTIONS = ROOT / "tools/coverage_exceptions.txt"


def exceptions():
    if not EXCEPTIONS.exists():
        return set()
    return {line for line in EXCEPTIONS.read_text().splitlines() if line and line[0] not in "# \t"}


def is_ambiguous(exception):
    """Whether the text stands in the file more than once. A file that is gone is found as covered."""
    name, text = exception.split(": ", 1)
    path = ROOT / name
    lines = path.read_text().splitlines() if path.exists() else []
    return [line.strip() for line in lines].count(text) > 1


def uncovered_lines(file):
    """Numbers of lines in which a region was never entered."""
    lines = set()
    segments = file["segments"]
    for (line, _, count, has_count, _, is_gap), following in zip(segments, segments[1:]):
        if has_count and count == 0 and not is_gap:
            lines.update(range(line, following[0] + (1 if following[1] > 1 else 0)))
    return lines


def branches_of(data):
    """For every branch in a file of src/: how often it was taken, and how often not, over all functions."""
    counts = collections.defaultdict(lambda: [0, 0])
    for function in data["functions"]:
        names = function["filenames"]
        for branch in function.get("branches", []):
            line, column, _, _, taken, not_taken, file_id = branch[:7]
            place = (names[file_id], line, column)
            counts[place][0] += taken
            counts[place][1] += not_taken
    return counts


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("export", help="what `llvm-cov export` wrote")
    data = json.loads(Path(parser.parse_args().export).read_text())["data"][0]

    known = {Path(file["filename"]) for file in data["files"]}
    missing = sorted(path for path in (ROOT / "src").rglob("*.cpp") if path not in known)
    for path in missing:
        print("not in the export:", path.relative_to(ROOT))

    branches = branches_of(data)
    allowed, used, new = exceptions(), set(), []
    totals = collections.Counter()
    print(f"{'file':<52} {'lines':>12} {'branches':>12}")
    for file in sorted(data["files"], key=lambda f: f["filename"]):
        path = Path(file["filename"])
        name = str(path.relative_to(ROOT))
        source = path.read_text().splitlines()
        gaps = {(line, "line") for line in uncovered_lines(file)}
        ends = [(place[1], counts) for place, counts in branches.items() if place[0] == file["filename"]]
        for line, (taken, not_taken) in ends:
            gaps |= {(line, "branch, taken")} if not taken else set()
            gaps |= {(line, "branch, not taken")} if not not_taken else set()
        for line, what in sorted(gaps):
            key = f"{name}: {source[line - 1].strip()}"
            (used.add(key) if key in allowed else new.append(f"{name}:{line}: {what}: {source[line - 1].strip()}"))
        lines = file["summary"]["lines"]
        covered = sum((counts[0] > 0) + (counts[1] > 0) for _, counts in ends)
        print(f"{name:<52} {lines['covered']:>5} /{lines['count']:>5} {covered:>5} /{2 * len(ends):>5}")
        totals.update(lines=lines["count"], lines_covered=lines["covered"],
                      branches=2 * len(ends), branches_covered=covered)
    print(f"{'all':<52} {totals['lines_covered']:>5} /{totals['lines']:>5} "
          f"{totals['branches_covered']:>5} /{totals['branches']:>5}")

    for line in new:
        print("uncovered:", line)
    for key in sorted(allowed - used):
        print("covered, but an exception:", key)
    ambiguous = sorted(filter(is_ambiguous, allowed))
    for key in ambiguous:
        print("an exception for more than one line; change the text of one of them:", key)
    print(f"exceptions: {len(used)}, uncovered besides: {len(new)}")
    return 1 if new or allowed - used or ambiguous or missing else 0


if __name__ == "__main__":
    sys.exit(main())
