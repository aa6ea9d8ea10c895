#!/usr/bin/env python3
"""Keeps the tables of docs/failures.md and the places in src/ that stop the loader in step.

usage: tools/failures_table.py --check    compare both, and the numbered places with the unit tests' table
       tools/failures_table.py --missing  print a row for each place that has none
       tools/failures_table.py --places   print all places as tab-separated lines, for qel-where

A place is a check in src/: QEL_ASSERT, QEL_FATAL_ERROR and their forms with a fixed line or text. Every
place has a row in a table of docs/failures.md whose first four columns are

    | code | place | text | function |

and no two rows have the same four. Places that have them in common, checks of the same text in one function,
share a row.

A fixed line stands in code and place; a check without one reports its line in the source, which moves with
the code, so its row has only the letters and the unit. The other columns of a row are written by hand.

Exit code: 0 in step, 1 not, 2 for a wrong call.
"""
import collections
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENT = ROOT / "docs/failures.md"
UNIT_TEST = ROOT / "tests/unit/reported_locations_test.cpp"

# line: as reported; fixed: it stays when code moves; source: where the check stands.
Place = collections.namedtuple("Place", "unit line fixed text function source")
# notes: the hand-written columns, by their headings.
Row = collections.namedtuple("Row", "code place text function notes at")


def letters(unit):
    """The three letters that a stop of this unit reports."""
    total = sum(byte * byte for byte in unit.rsplit("/", 1)[-1].encode()) % 65536
    return "".join(chr(ord("A") + total // 26**i % 26) for i in range(3))


def code_of(place):
    return letters(place.unit) + (str(place.line) if place.fixed else "")


def name_of(place):
    return f"{place.unit}:{place.line}" if place.fixed else place.unit


# ---- Reading the code ----


def unit_of(path):
    """A unit may be several files in a folder of its name; the program's own phases report the program."""
    parts = path.relative_to(ROOT / "src").with_suffix("").parts
    return parts[0] if parts[0] == "qel_application_loader" else "/".join(parts[:2])


def split_arguments(text, start):
    """The arguments of the call whose parenthesis opens at `start`."""
    arguments, depth, begin, position = [], 0, start + 1, start
    while True:
        character = text[position]
        if character == '"' or character == "'":
            position = re.compile(r"(?:\\.|[^\\%s])*%s" % (character, character)).match(text, position + 1).end()
            continue
        if character in "([{":
            depth += 1
        elif character in ")]}":
            depth -= 1
        if depth == 0 or (depth == 1 and character == ","):
            arguments.append(" ".join(text[begin:position].split()))
            begin = position + 1
        if depth == 0:
            return arguments
        position += 1


def literal(argument):
    """The characters of a string literal, which may be written in pieces."""
    pieces = re.findall(r'"((?:\\.|[^\\"])*)"', argument)
    return "".join(pieces).replace('\\"', '"').replace("\\n", "")


class File:
    """One source file: its functions and the calls in them."""

    def __init__(self, path):
        self.path = path
        self.unit = unit_of(path)
        self.text = re.sub(r"//[^\n]*", lambda comment: " " * len(comment[0]), path.read_text())
        signature = re.compile(r"^(?=[^\s#}/])[^;{}]*?\b(\w+)\([^;{}]*\)\n\{", re.M)
        self.functions = [(match.end(), match[1]) for match in signature.finditer(self.text)]

    def function_at(self, position):
        return [name for start, name in self.functions if start <= position][-1]

    def calls(self, name):
        """(position, arguments) of each call of `name` inside a function."""
        for match in re.finditer(r"\b%s\(" % name, self.text):
            if self.functions and match.start() > self.functions[0][0]:
                if not re.match(r"[^;{}]*\)\n\{", self.text[match.end():]):
                    yield match.start(), split_arguments(self.text, match.end() - 1)

    def line_at(self, position):
        return self.text.count("\n", 0, position) + 1


CHECKS = {  # macro: (has a line, text of its arguments)
    "QEL_ASSERT": (False, lambda a: a[0]),
    "QEL_ASSERT_AT": (True, lambda a: a[0]),
    "QEL_ASSERT_TEXT_AT": (True, lambda a: literal(a[0])),
    "QEL_FATAL_ERROR": (False, lambda a: literal(a[0])),
    "QEL_FATAL_ERROR_AT": (True, lambda a: literal(a[0])),
    "QEL_REQUIRE_ABSOLUTE_AT": (True, lambda a: 'Path is not absolute: "%s"'),
    "QEL_REQUIRE_VALID_AT": (True, lambda a: 'Path is not valid: "%s"'),
}


def resolve(files, file, position, line, text):
    """The places of one check. A line that is not a number came into its function from outside: through a
    parameter named line, or as a field of a table of lines; then its callers are the places."""
    function = file.function_at(position)
    source = f"{file.path.relative_to(ROOT)}:{file.line_at(position)}"
    if line.isdigit():
        return [Place(file.unit, int(line), True, text, function, source)]
    if line in ("", "__LINE__"):
        return [Place(file.unit, file.line_at(position), False, text, function, source)]
    if "->" in line:
        return from_tables(file, line.split("->")[1], text, source)
    users = [(user, at, a) for user in files for at, a in user.calls(function)]
    return [place for user, at, a in users for place in resolve(files, user, at, a[-1], text)]


def from_tables(file, field, text, source):
    """A field of the tables that are written `NAME = {.field = LINE}`, each used by one function."""
    tables = re.findall(r"(\w+) = \{[^}]*\.%s = (\d+)" % field, file.text)
    return [Place(file.unit, int(line), True, text,
                  file.function_at(file.text.index("&" + name)), source) for name, line in tables]


def read_code():
    """All places, by unit and line. Raises ValueError for a check that cannot be read."""
    files = [File(path) for path in sorted((ROOT / "src").rglob("*.cpp"))]
    places = []
    for file in files:
        for macro, (has_line, text_of) in CHECKS.items():
            for position, arguments in file.calls(macro):
                line = arguments.pop(0) if has_line else ""
                found = resolve(files, file, position, line, text_of(arguments))
                if not found:
                    raise ValueError(f"{file.path}:{file.line_at(position)}: {macro}: its line is not found")
                places += found
    return sorted(places)


# ---- Reading the document ----


def cells_of(line):
    return [re.sub(r"^`(.*)`$", r"\1", cell.strip().replace("\\|", "|"))
            for cell in re.split(r"(?<!\\)\|", line.strip())[1:-1]]


def read_document():
    """The rows of all tables that begin with the four columns."""
    rows, headings = [], None
    for number, line in enumerate(DOCUMENT.read_text().splitlines(), 1):
        if not line.startswith("|"):
            headings = None
            continue
        cells = cells_of(line)
        if headings is None:
            headings = cells
        elif headings[:4] == ["code", "place", "text", "function"] and not cells[0].startswith("---"):
            rows.append(Row(*cells[:4], dict(zip(headings[4:], cells[4:])), f"docs/failures.md:{number}"))
    return rows


def key_of_place(place):
    return code_of(place), name_of(place), place.text, place.function


def key_of_row(row):
    return row.code, row.place, row.text, row.function


def row_text(key):
    cells = ["`%s`" % cell.replace("|", "\\|") for cell in key]
    return "| " + " | ".join(cells) + " | |"


# ---- The comparisons ----


def compare_with_document(places, rows):
    """What is wrong between code and document, a line each."""
    in_code = {key_of_place(place) for place in places}
    in_document = collections.Counter(key_of_row(row) for row in rows)
    faults = [f"{row.at}: there is no such place in src/: {row_text(key_of_row(row))}"
              for row in rows if key_of_row(row) not in in_code]
    faults += [f"docs/failures.md: a row is missing; put it where it belongs and add its meaning:\n"
               f"    {row_text(key)}" for key in sorted(in_code - set(in_document))]
    faults += [f"docs/failures.md: {count} rows for one place: {row_text(key)}"
               for key, count in in_document.items() if count > 1]
    faults += [f"{row.at}: the column '{name}' is empty" for row in rows
               for name, note in row.notes.items() if not note]
    return faults


def compare_with_unit_test(places):
    """The unit tests provoke every numbered place; what they compare must be what is read here."""
    text = re.sub(r'"\s+"', "", UNIT_TEST.read_text())
    for name, value in re.findall(r"#define (\w+) +(?:\\\n)? *(\".*\")$", text, re.M):
        text = re.sub(r"(?<!#define )\b%s\b" % name, lambda _: value, text)
    tested = {}
    for match in re.finditer(r"\b(assertion|loader_assertion|fatal|impossible)\(\"", text):
        arguments = split_arguments(text, match.end() - 2)
        unit = "qel_application_loader" if match[1].startswith("loader") else "qel_utility/qel_filesystem"
        tested[unit, int(arguments[2])] = literal(arguments[1])
    numbered = {(place.unit, place.line): place.text for place in places if place.fixed}
    faults = [f"{unit}:{line} is in src/ but not in {UNIT_TEST.name}"
              for unit, line in sorted(set(numbered) - set(tested))]
    faults += [f"{unit}:{line} is in {UNIT_TEST.name} but was not found in src/"
               for unit, line in sorted(set(tested) - set(numbered))]
    for place in sorted(set(numbered) & set(tested)):
        pattern = re.escape(numbered[place]).replace("%s", ".*")
        if not re.fullmatch(pattern, tested[place]):
            faults.append(f"{place[0]}:{place[1]}: src/ has the text {numbered[place]!r}, "
                          f"{UNIT_TEST.name} {tested[place]!r}")
    return faults


def check():
    places, rows = read_code(), read_document()
    faults = compare_with_document(places, rows) + compare_with_unit_test(places)
    for fault in faults:
        print(f"error: {fault}", file=sys.stderr)
    numbered = sum(place.fixed for place in places)
    shared = sum(count > 1 for count in collections.Counter(map(key_of_place, places)).values())
    print(f"{len(places)} places that stop the loader, {numbered} of them numbered; "
          f"{len(rows)} rows in docs/failures.md, {shared} of them for more than one place; {len(faults)} faults")
    return 1 if faults else 0


def print_missing():
    documented = {key_of_row(row) for row in read_document()}
    for key in dict.fromkeys(map(key_of_place, read_code())):
        if key not in documented:
            print(row_text(key))
    return 0


def places_with_notes():
    """Each place with the hand-written columns of its row."""
    notes = {key_of_row(row): row.notes for row in read_document()}
    return [(place, notes.get(key_of_place(place), {})) for place in read_code()]


def print_places():
    for place, notes in places_with_notes():
        print(letters(place.unit), *place[:2], int(place.fixed), *place[3:], notes.get("meaning", ""),
              notes.get("what to do", ""), sep="\t")
    return 0


def main(words):
    actions = {"--check": check, "--missing": print_missing, "--places": print_places}
    if words in (["--help"], ["-h"]):
        print(__doc__.strip())
        return 0
    if len(words) != 1 or words[0] not in actions:
        print("error: say --check, --missing or --places (see --help)", file=sys.stderr)
        return 2
    return actions[words[0]]()


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
