#!/usr/bin/env python3
"""Checks the documents: links lead somewhere, and all commands are listed with what is known of them.

usage: tools/docs_check.py             check; exit code 0 when all is well, 1 when not, 2 for a wrong call
       tools/docs_check.py --commands  print the commands of the documents

Links: the target of every relative link in a *.md file exists, with the heading that it names.

Commands: a line of a code block that begins with a program (PROGRAMS below, or a file of this tree) is a command.
Each one stands in docs/commands.txt, with what is known of it:

    test NAME | COMMAND    ./check runs it, perhaps with other names and paths, in the test NAME
    tier NAME | COMMAND    ./check runs it itself, in the tier NAME
    hand WHY  | COMMAND    nothing runs it but people

A comment behind a command, after a # or two blanks, does not count.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIST = "docs/commands.txt"
PROGRAMS = ("apt-get cmake ctest ninja export g++ gdb git dd mkdir python3 tshark wireshark "
            "qel-host qel-where qel-factory mandoc man cp sudo").split()


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


# ---- Links ----


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


# ---- Commands ----


def code_lines(name):
    """The lines of the code blocks: fenced, or indented behind an empty line."""
    fenced = indented = False
    before = ""
    for line in (ROOT / name).read_text().splitlines():
        if line.startswith("```"):
            fenced = not fenced
        elif fenced:
            yield line
        else:
            indented = line.startswith("    ") and (indented or not before.strip())
            if indented:
                yield line[4:]
        before = line


def commands_of(name):
    for line in code_lines(name):
        command = re.split(r"\s#\s|\s\s", line.strip())[0].strip()
        words = command.split()
        while words and re.match(r"[A-Z_]+=", words[0]):
            words.pop(0)
        if not words:
            continue
        first = words[0]
        is_file = "/" in first and (ROOT / first).is_file()
        if first in PROGRAMS or is_file or first.startswith(("./", "build/", "$")):
            yield command


def all_commands():
    return {command: name for name in documents() for command in commands_of(name)}


def test_exists(name):
    """NAME is Suite.Test of the C++ tests, or the name of a Python test."""
    suite, _, test = name.partition(".")
    pattern = rf"TEST\w*\(\s*{suite},\s*{test}\b" if test else rf"def {name}\b"
    found = subprocess.run(["git", "grep", "--untracked", "-qE", pattern, "--", "tests"], cwd=ROOT)
    return found.returncode == 0


def tier_exists(name):
    return f"tier_{name}()" in (ROOT / "check").read_text()


def read_list():
    """[(line number, kind, detail, command)]"""
    entries = []
    for number, line in enumerate((ROOT / LIST).read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        match = re.fullmatch(r"(test|tier|hand) +(.*?) *\| (.*)", line)
        if not match:
            raise ValueError(f"{LIST}:{number}: not of the form 'test NAME | COMMAND', tier or hand")
        entries.append((number, match[1], match[2], " ".join(match[3].split())))
    return entries


def check_commands():
    commands, entries = all_commands(), read_list()
    listed = [entry[3] for entry in entries]
    faults = [f"{name}: not in {LIST}: {command}" for command, name in commands.items() if command not in listed]
    for number, kind, detail, command in entries:
        place = f"{LIST}:{number}"
        if command not in commands:
            faults.append(f"{place}: in no document: {command}")
        if listed.count(command) > 1:
            faults.append(f"{place}: listed twice: {command}")
        if kind == "test" and not test_exists(detail):
            faults.append(f"{place}: there is no test {detail}")
        if kind == "tier" and not tier_exists(detail):
            faults.append(f"{place}: ./check has no tier {detail}")
        if kind == "hand" and not detail:
            faults.append(f"{place}: say why nothing but people can run this")
    return faults, entries


def main(words):
    if words in (["--help"], ["-h"]):
        print(__doc__.strip())
        return 0
    if words == ["--commands"]:
        for command, name in all_commands().items():
            print(f"{name}: {command}")
        return 0
    if words:
        print("error: unknown argument (--help tells more)", file=sys.stderr)
        return 2
    try:
        faults, entries = check_commands()
    except ValueError as error:
        faults, entries = [str(error)], []
    names = documents()
    for name in names:
        faults += check_links(name)
    for fault in faults:
        print(f"error: {fault}", file=sys.stderr)
    by_hand = sum(entry[1] == "hand" for entry in entries)
    print(f"{len(names)} documents, {len(entries)} commands, {by_hand} of them run by people only; "
          f"{len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
