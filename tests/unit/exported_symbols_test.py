#!/usr/bin/env python3
"""The installed libraries export what their public headers declare and nothing else, under names that C and C++ share;
the headers have no macros of the libraries' own but those of qel_log.h. What several files of a unit share is hidden.

usage: exported_symbols_test.py ARCHIVE...
"""
import pathlib
import re
import subprocess
import sys

SOURCES = pathlib.Path(__file__).resolve().parent.parent.parent / "src"
PUBLIC = [path for folder in ("qel_utility", "qel_tolbrin") for path in (SOURCES / folder).rglob("*.h")
          if path.name not in ("internal.h", "build.h")]
MACROS = {"QEL_ASSERT", "QEL_ASSERT_AT", "QEL_ASSERT_TEXT_AT", "QEL_FATAL_ERROR", "QEL_FATAL_ERROR_AT", "QEL_NORETURN"}


def exported(archives):
    """The names of functions and variables that other modules see."""
    table = subprocess.run(["readelf", "--symbols", "--wide", *archives], capture_output=True, text=True, check=True)
    rows = [line.split() for line in table.stdout.splitlines()]
    return {row[7] for row in rows if len(row) == 8 and row[4] in ("GLOBAL", "WEAK") and row[5] == "DEFAULT"
            and row[6] != "UND" and row[3] != "FILE"}


def main():
    if len(sys.argv) < 2 or "--help" in sys.argv:
        print(__doc__)
        return 0 if "--help" in sys.argv else 2
    symbols = exported(sys.argv[1:])
    text = "\n".join(re.sub(r"//.*", "", path.read_text()) for path in PUBLIC)
    declared = set(re.findall(r"\b(_?qel_\w+|find_file_no_case)(?=\(|;|\[\]|\)\(void\);)", text))
    errors = [f"{name} is exported, but no public header declares it" for name in sorted(symbols - declared)]
    errors += [f"{name} is defined in a public header" for name in
               sorted(set(re.findall(r"^#define (\w+)", text, re.M)) - MACROS)]
    if len(symbols) < 150:
        errors.append(f"only {len(symbols)} symbols found in {sys.argv[1:]}")
    for error in errors:
        print("error:", error)
    return int(bool(errors))


sys.exit(main())
