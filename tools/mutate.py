#!/usr/bin/env python3
"""Changes the product in one small place after another and sees whether the unit tests notice.

Every change (a mutant) is compiled as the product is, optimised. One that gives the same objects is no change; any
other is linked with the tests and meets those that run its function, the quickest first, until one fails, crashes or
never ends. A mutant of a header meets tests that were built with it, where they use what it changes. Mutants that
survive are code that no test looks at, or changes that make no difference. tools/mutants.tsv has them all, each with
a verdict and its reason, and is exact: a survivor that it lacks, an entry that is killed now, and one whose mutant is
gone fail the run.
"""

import argparse
import bisect
import collections
import concurrent.futures
import hashlib
import itertools
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build/mutate"
JUDGED = ROOT / "tools/mutants.tsv"
VERDICTS = ("equivalent", "speed only", "unreachable", "hole")
# The malloc that tests let fail stays one, also before a memset.
OPTIMISED = ("-O2", "-fno-builtin-malloc")
QUICK_TESTS_S = 0.3  # of tests that run before the slower ones
BLOCKED_S = 30  # and a minute for each second of the tests: for ends that never come without using the processor

# ---- The text: tokens, functions, statements ----

TOKEN = re.compile(r"""
    (?P<skip>static_assert\([^;]*;|//[^\n]*|/\*.*?\*/|extern\ "C"(\s*\{)?|\\\n|^[ \t]*\#define[ \t]+\w+(?:\([^)]*\))?
     |^[ \t]*\#(?!define)(?:[^\n]*\\\n)*[^\n]*)
  | (?P<text>"(?:\\.|[^"\\])*") | (?P<character>'(?:\\.|[^'\\])+')
  | (?P<number>\b(?:0[xX][0-9a-fA-F]+|\d+)[uUlL]*\b) | (?P<word>[A-Za-z_]\w*)
  | (?P<operator>->|\+\+|--|<<=|>>=|<<|>>|[<>=!+\-*/%&|^]=|&&|\|\||\.\.\.|\#|[-+*/%&|^<>=!~?:;,.(){}\[\]])
""", re.VERBOSE | re.MULTILINE | re.DOTALL)
DEFINITION = re.compile(r"^[ \t]*#define[ \t]+(\w+)(?:[^\n]*\\\n)*[^\n]*", re.MULTILINE)
Token = collections.namedtuple("Token", "kind text start end macro")
Function = collections.namedtuple("Function", "name first last start end")  # lines, and the body's tokens
CLOSING = {"(": ")", "{": "}", "[": "]"}
JUMPS = {"return", "break", "continue", "goto"}
KEYWORDS = JUMPS | set("if while for do switch case default else sizeof static const auto struct enum extern typedef "
                       "unsigned int char void alignof".split())


class Source:
    """A file of src/ as its mutants see it. What has no function of its own is outside: tables, constants, macros."""

    def __init__(self, path):
        self.name, self.text = str(path.relative_to(ROOT)), path.read_text()
        self.line_starts = [0] + [m.end() for m in re.finditer("\n", self.text)]
        macros = list(DEFINITION.finditer(self.text))
        self.tokens = [Token(m.lastgroup, m[m.lastgroup], m.start(), m.end(),
                             next((d[1] for d in macros if d.start() <= m.start() < d.end()), None))
                       for m in TOKEN.finditer(self.text) if not m["skip"]]
        self.match, self.functions, self.enumerators, self.blocks, self.simple, self.ifs = {}, [], [], [], [], []
        self.match_brackets()
        self.scan()

    def line(self, position):
        return bisect.bisect_right(self.line_starts, position)

    def match_brackets(self):
        open_ones = []
        for i, token in enumerate(self.tokens):
            if token.text in CLOSING:
                open_ones.append(i)
            elif open_ones and token.text == CLOSING[self.tokens[open_ones[-1]].text]:
                self.match[open_ones[-1]] = i
                self.match[i] = open_ones.pop()

    def scan(self):
        """Finds the functions and what they consist of, and the constants of each enum."""
        i = 0
        while i < len(self.tokens):
            if self.tokens[i].text == "{" and not self.tokens[i].macro and i in self.match:
                end = self.match[i]
                if self.tokens[i - 1].text == ")":
                    name = self.tokens[self.match[i - 1] - 1]
                    lines = self.line(name.start), self.line(self.tokens[end].start)
                    self.functions.append(Function(name.text, *lines, i, end))
                    self.read_block(i + 1)
                elif "enum" in [t.text for t in self.tokens[max(i - 4, 0):i]]:
                    self.enumerators.append([t.text for before, t in zip(self.tokens[i:end], self.tokens[i + 1:end])
                                             if before.text in "{," and t.kind == "word"])
                i = end
            i += 1

    def read_block(self, i):
        statements = []
        while self.tokens[i].text != "}":
            end = self.end_of_statement(i)
            statements.append((i, end))
            i = end
        self.blocks.append(statements)
        return i + 1

    def end_of_statement(self, i):
        first, word = i, self.tokens[i].text
        if word == "{":
            return self.read_block(i + 1)
        if word in ("if", "while", "for", "switch"):
            end = self.end_of_statement(self.match[i + 1] + 1)
            if word == "if" and self.tokens[end].text == "else":
                return self.end_of_statement(end + 1)
            if word == "if":
                self.ifs.append((first, end))
            return end
        if word == "do":
            i = self.end_of_statement(i + 1)
        while self.tokens[i].text != (":" if word in ("case", "default") else ";"):
            i = self.match[i] + 1 if self.tokens[i].text in CLOSING else i + 1
        if word not in ("do", "case", "default"):
            self.simple.append((first, i))
        return i + 1

    def is_call(self, i):
        return self.tokens[i].kind == "word" and self.tokens[i + 1].text == "(" and self.tokens[i].text not in KEYWORDS

    def function_at(self, i):
        return next((f for f in self.functions if f.start <= i <= f.end), None)

    def segment_at(self, i):
        """The tokens from one ";", "{" or "}" to the next."""
        first = last = i
        macro = self.tokens[i].macro
        while first > 0 and self.tokens[first - 1].text not in ";{}" and self.tokens[first - 1].macro == macro:
            first -= 1
        while last + 1 < len(self.tokens) and self.tokens[last].text not in ";{}":
            last += 1
        return first, last

    def is_declared_twice(self, i):
        """Is in the declaration of a function that others see: its types stand in a header and in a file."""
        first, last = self.segment_at(i)
        words = [t.text for t in self.tokens[first:last]]
        return not self.function_at(i) and "(" in words and "static" not in words

    def between(self, first, last):
        return self.text[self.tokens[first].start:self.tokens[last - 1].end]

    def swapped(self, one, two):
        """Two stretches of tokens, each in the other's place."""
        gap = self.text[self.tokens[one[1] - 1].end:self.tokens[two[0]].start]
        return one[0], two[1], self.between(*two) + gap + self.between(*one)


# ---- What is changed: each yields first token, behind the last one, replacement, operator ----

OTHER = dict(pair.split() for pair in "== !=,!= ==,&& ||,|| &&,+ -,- +,* /,/ *,% *,<< >>,>> <<,& |,| &,^ |,+= -=,-= +=,"
             "|= &=,^= |=,<<= >>=,++ --,-- ++".split(","))
BOUNDARY = {"<": ("<=", "+ 1 <"), "<=": ("<", "- 1 <="), ">": (">=", "- 1 >"), ">=": (">", "+ 1 >=")}
NEED_BLANKS = set("+-*/%&|^<>") | {"<<", ">>"}
TYPES = {"uint8_t": "int8_t uint16_t", "uint16_t": "int16_t uint32_t", "uint32_t": "int32_t uint16_t",
         "uint64_t": "int64_t uint32_t", "int8_t": "uint8_t", "int32_t": "uint32_t int16_t",
         "int64_t": "uint64_t int32_t", "ssize_t": "size_t int", "time_t": "int", "unsigned": "int", "long": "int",
         "ptrdiff_t": "unsigned"}
TYPE_WORDS = set(TYPES) | set("int size_t char const struct signed void short".split())
ALIKE = """stdout stderr|STDIN_FILENO STDOUT_FILENO STDERR_FILENO|O_RDONLY O_WRONLY O_RDWR|S_IFCHR S_IFBLK
SHUT_RDWR SHUT_RD|R_OK W_OK|EEXIST ENOENT EACCES|EAGAIN EIO|EINTR ECHILD|DT_DIR DT_REG|MS_RDONLY MS_NOSUID
SOCK_STREAM SOCK_DGRAM|strchr strrchr|strcmp strcasecmp|stat lstat|unlink rmdir|qel_unlink qel_rmdir|mount_rw mount_ro
qel_remount_storage_rw qel_remount_storage_ro qel_mount_storage|qel_exec_wait qel_exec_wait_checked|sleep usleep
qel_exists qel_file_is_dir|exit _exit|tv_sec tv_usec|f_bavail f_bfree|UINT8_MAX INT8_MAX|INT64_MAX INT32_MAX
qel_dos_path_is_root_dir qel_unix_path_is_root_dir|dos_flavour unix_flavour|memmove memset|fork vfork"""
COMMUTATIVE = {"strcmp", "strcasecmp", "calloc"}


def token_mutants(source, alike):
    tokens = source.tokens
    for i, (kind, text, start, end, _) in enumerate(tokens):
        before, after = tokens[i - 1].text if i else "", tokens[i + 1].text if i + 1 < len(tokens) else ""
        apart = source.text[start - 1] in " \n" and source.text[end] in " \n\\"
        others, operator, first, last = [], None, i, i + 1
        if kind == "number":
            others, operator = [other_number(text)], "number"
        elif kind in ("text", "character"):
            cut = text.removesuffix('\\n"') + '"' if text.endswith('\\n"') else text
            others, operator = [t for t in (other_text(text), cut) if t != text][:1], "text"
        elif text in BOUNDARY and apart:
            others, operator = BOUNDARY[text], "boundary"
        elif text == "!":
            others, operator = [""], "not"
        elif text == "-" and not apart and (before in "(=,?:<>|&" or before in KEYWORDS):
            others, operator = [""], "sign"
        elif text in OTHER and (apart or text not in NEED_BLANKS):
            others, operator = [OTHER[text]], "operator"
        elif text in TYPES and before not in ("signed", "unsigned", "long") and after not in ("char", "long") and (
                not source.is_declared_twice(i)):
            others, operator = TYPES[text].split(), "type"
        elif text in alike and after != "=":
            others, operator = [alike[text]], "name"
        elif text == "while" and i and after == "(":
            others, operator = ["if"], "once"
            closed = source.match[i + 1]
            if tokens[closed + 1].text == ";" and before not in (";", ")"):
                others, first, last = ["0"], i + 2, closed
        elif text == "static" and source.function_at(i):
            others, operator = [""], "static"
        elif text == "(" and is_cast(source, i):
            others, operator, last = [""], "cast", source.match[i] + 1
        for other in others:
            yield first, last, other, operator


def other_number(text):
    """n + 1; of 1 it is 0, because 2 is as true as 1. An octal number keeps its 0."""
    digits = re.match(r"0[xX][0-9a-fA-F]+|\d+", text).group()
    is_hex = digits[:2].lower() == "0x"
    value = int(digits, 16 if is_hex else 10)
    value = 0 if value == 1 else value + 1
    spelled = hex(value) if is_hex else "0" * (len(digits) > 1 and digits[0] == "0") + str(value)
    return spelled + text[len(digits):]


def other_text(text):
    """Another letter or digit in the middle, not of a conversion; else another last character."""
    places = [m.start(1) for m in re.finditer(r"%[0-9.l]*[a-z]|\\.|([A-Za-z0-9])", text) if m[1]]
    if places:
        at = places[len(places) // 2]
        return text[:at] + chr(ord(text[at]) ^ 1 if text[at] not in "09AZaz@" else ord(text[at]) + 2) + text[at + 1:]
    if text[-3:-1] in ("\\0", "\\n", "\\t", "\\r"):
        return text[:-3] + {"0": "\\1", "n": "\\r", "t": "\\n", "r": "\\n"}[text[-2]] + text[-1]
    return text[:-2] + chr(ord(text[-2]) ^ 1) + text[-1] if len(text) > 2 and "%" not in text[-3:] else text


def is_cast(source, i):
    inside = [t.text for t in source.tokens[i + 1:source.match[i]]]
    before, after = source.tokens[i - 1], source.tokens[source.match[i] + 1]
    return (bool(inside) and all(w in TYPE_WORDS or w == "*" or w.endswith("_t") for w in inside)
            and (before.kind != "word" or before.text == "return")
            and (after.kind in ("word", "number") or after.text in "(*-&"))


def list_mutants(source):
    """Neighbours swapped in calls and initialisers; what stands on a side of "|", "&&" or "||" dropped."""
    tokens = source.tokens
    for i, token in enumerate(tokens):
        before = tokens[i - 1] if i else token
        is_call = source.is_call(i - 1) and before.text not in COMMUTATIVE and (token.macro or source.function_at(i))
        if is_call or token.text == "{" and before.text in ("=", ",", "{"):
            for one, two in itertools.pairwise(split_list(source, i)):
                if source.between(*one) != source.between(*two):
                    yield *source.swapped(one, two), "arguments"
        elif token.text == "|" and before.kind == "word" and tokens[i + 1].kind == "word":
            yield i - 1, i + 1, "", "flag"
            yield i, i + 2, "", "flag"
        elif token.text in ("&&", "||") and not token.macro:
            first, last = i - 1, i + 1
            while tokens[first].text not in ("&&", "||", "(", "=", "return", ";", ",", "?", ":", "{"):
                first = source.match[first] - 1 if tokens[first].text in (")", "]") else first - 1
                if tokens[first].text == "(" and tokens[first - 1].kind != "word":
                    break
            while tokens[last].text not in ("&&", "||", ")", ";", ",", "?", ":"):
                last = source.match[last] + 1 if tokens[last].text in CLOSING else last + 1
            yield first + 1, i + 1, "", "condition"
            yield i, last, "", "condition"


def split_list(source, i):
    first = j = i + 1
    while j < source.match[i]:
        j = source.match[j] + 1 if source.tokens[j].text in CLOSING else j + 1
        if source.tokens[j].text == "," or j == source.match[i]:
            if j > first:
                yield first, j
            first = j = j + 1


def statement_mutants(source):
    """Statements dropped, swapped with the next one, and early ends of a function or a round that do not come."""
    tokens = source.tokens
    for first, last in source.simple:
        if is_droppable(tokens[first:last]):
            yield first, last + 1, ";", "drop"
    for first, end in source.ifs:
        body = source.match[first + 1] + 1
        last = max((s for s in source.simple if body <= s[0] < end), default=None)
        if last and tokens[last[0]].text in JUMPS:
            yield first, end, ";", "early end"
    for one, two in itertools.chain.from_iterable(map(itertools.pairwise, source.blocks)):
        has_calls = all(any(source.is_call(i) for i in range(*statement)) for statement in (one, two))
        if has_calls and not {tokens[one[0]].text, tokens[two[0]].text} & (JUMPS | {"case", "default"}):
            yield *source.swapped(one, two), "order"


def is_droppable(statement):
    words = [t.text for t in statement]
    if words in (["break"], ["continue"], ["return"]):
        return True
    if len(words) < 2 or words[0] in KEYWORDS or words[0] not in ("*", "(", "++", "--") and statement[0].kind != "word":
        return False
    if statement[0].kind == "word" and (statement[1].kind == "word" or words[1] == "*"):
        return False  # a declaration
    return bool({"=", "+=", "-=", "|=", "^=", "<<=", "++", "--", "("} & set(words))


# ---- The mutants ----

class Mutant:
    def __init__(self, source, first, last, replacement, operator, seen):
        tokens = source.tokens
        self.file, self.function = source.name, source.function_at(first)
        start, end = tokens[first].start, tokens[last - 1].end
        old = source.text[start:end]
        self.lines = range(source.line(start), source.line(end) + 1)
        where = self.function.name if self.function else tokens[first].macro or "(outside)"
        # Lines keep their numbers.
        self.changed = source.text[:start] + replacement + "\n" * (old.count("\n") - replacement.count("\n")) + (
            source.text[end:])
        segment, segment_end = source.segment_at(first)
        previous = source.segment_at(max(segment - 1, 0))[0]
        following = source.segment_at(min(segment_end + 1, len(tokens) - 1))[1]
        context = [*tokens[previous:first], "@", replacement, *tokens[last:following]]
        place = f"{source.name.removeprefix('src/')}:{where}"
        operator = f"{operator}: {short(old)} -> {short(replacement)}"
        name = f"{place} {operator} {' '.join(t if isinstance(t, str) else t.text for t in context)}"
        seen[name] += 1
        self.key = place, operator, hashlib.sha1(f"{name} {seen[name]}".encode()).hexdigest()[:10]
        self.shown = "\t".join(self.key) + f"\t# {self.file}:{self.lines[0]}"
        # What of a header a user of it would name.
        words = [t for t in tokens[segment:segment_end] if t.kind == "word" and t.text not in TYPE_WORDS | KEYWORDS]
        if "enum" in [t.text for t in tokens[max(segment - 4, 0):segment]]:
            words = [t for t in words if t.start <= start][-1:]
        self.names = {where} if self.function or tokens[first].macro else {t.text for t in words}


def short(text):
    text = " ".join(text.split())
    return text if len(text) <= 60 else text[:40] + " ... " + text[-15:]


def all_mutants():
    sources = [Source(path) for path in sorted((ROOT / "src").rglob("*")) if path.suffix in (".cpp", ".h")]
    alike = {}
    for group in [g.split() for g in re.split(r"[|\n]", ALIKE)] + [e for s in sources for e in s.enumerators]:
        alike.update({name: other for name, other in zip(group, group[1:] + group[:1]) if name != other})
    mutants, seen = [], collections.Counter()
    for source in sources:
        changes = {(source.tokens[c[0]].start, source.tokens[c[1] - 1].end, c[2]): c for c in itertools.chain(
            token_mutants(source, alike), list_mutants(source), statement_mutants(source))}
        mutants += [Mutant(source, *changes[change], seen) for change in sorted(changes)]
    return mutants


# ---- Building ----

def run(command, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    if done.returncode:
        sys.exit(f"error: {' '.join(map(str, command))} failed:\n{done.stdout[-3000:]}{done.stderr[-3000:]}")
    return done.stdout


class Build:
    """The unit tests, ready to be linked with other objects in place of the product's."""

    def __init__(self):
        if not (BUILD / "build.ninja").exists():
            run(["cmake", "--preset", "test", "-B", BUILD, "-DCMAKE_BUILD_TYPE=None", "-DQEL_TOOLS=OFF"], cwd=ROOT)
        print("building the unit tests ...", flush=True)
        run(["ninja", "-C", BUILD, "unit_tests"])
        link = next(shlex.split(line) for line in run(["ninja", "-C", BUILD, "-t", "commands", "unit_tests"])
                    .splitlines() if " -o tests/unit_tests " in line)
        self.options = [w for w in link if w.startswith("-Wl,--wrap") or w.endswith(".a") and not w.startswith("src/")]
        self.commands, self.tests, objects = {}, {}, {}
        for command in json.loads((BUILD / "compile_commands.json").read_text()):
            name, words = os.path.relpath(command["file"], ROOT), shlex.split(command["command"])
            words = words[next(i for i, word in enumerate(words) if word.endswith("++")):]
            made = words[words.index("-o") + 1]
            # main.cpp is compiled once for the loader and once for the tests.
            if made in link or name.startswith("src/") and name not in self.commands:
                self.commands[name], objects[made] = words, name
            if made in link and not name.startswith("src/"):
                self.tests[name] = BUILD / made
        self.included, name = collections.defaultdict(set), None  # of each file, the headers of this project
        for line in run(["ninja", "-C", BUILD, "-t", "deps"]).splitlines():
            if line[:1].strip():
                name = objects.get(line.split(":")[0])
            elif name and line.strip():
                self.included[name].add(os.path.relpath(os.path.join(BUILD, line.strip()), ROOT))
        self.temporary = tempfile.TemporaryDirectory(dir=BUILD, prefix="work-")
        self.work = Path(self.temporary.name)
        self.product = {n: self.compile(n, self.work / n) for n in self.commands if n.startswith("src/")}
        self.plain = {name: made.read_bytes() for name, made in self.product.items()}
        self.rest = self.work / "rest.o"
        run(["ld", "-r", "--strip-debug", "-o", self.rest, *self.tests.values()], cwd=BUILD)

    def compile(self, name, folder, text=None, headers=None, options=OPTIMISED):
        """Compiles a file, or `text` in its place, in a folder of its own. Returns the object, the product's with its
        variables in the sections that the tests put back; None when it has errors."""
        folder.mkdir(parents=True)
        source, made = ROOT / name, folder / f"{Path(name).stem}.o"
        words = [w for w in self.commands[name] if not w.startswith(("-W", "-g", "-O", "-fdebug"))]
        if text is not None:
            source = folder / Path(name).name
            source.write_text(text)
            words = [w.replace(str(ROOT / name), str(source)) for w in words]
        for option in ("-o", "-MF", "-MT"):
            if option in words:
                words[words.index(option) + 1] = str(made.with_suffix(".d" if option == "-MF" else ".o"))
        words[1:1] = ["-I", str(headers)] if headers else []
        if subprocess.run([*words, "-w", "-g0", *options], cwd=BUILD, capture_output=True).returncode:
            return None
        if name.startswith("src/"):
            run(["objcopy", "--rename-section", ".data=product_data", "--rename-section", ".bss=product_bss", made])
        return made

    def link(self, program, replaced, more=()):
        rest = [replaced.get(n, m) for n, m in self.tests.items()] if set(replaced) & set(self.tests) else [self.rest]
        product = [replaced.get(name, made) for name, made in self.product.items()]
        run(["c++", "-fuse-ld=lld", "-Wl,--threads=1", "-o", program, *product, *rest, *more, *self.options], cwd=BUILD)
        return program

    def product_with(self, mutant, folder):
        """{file: object} of what is another for a mutant; a text when that is nothing."""
        header = folder / mutant.file.removeprefix("src/")
        header.parent.mkdir(parents=True)
        header.write_text(mutant.changed)
        replaced = {}
        for name in self.product:
            if name == mutant.file or mutant.file in self.included[name]:
                text = mutant.changed if name == mutant.file else None
                made = self.compile(name, folder / "product" / name, text, headers=folder)
                if not made:
                    return "invalid"
                if made.read_bytes() != self.plain[name]:
                    replaced[name] = made
        return replaced or "same"

    def tests_using(self, mutant):
        """The files of tests that name what a header's mutant changes."""
        names = re.compile(r"\b(?:" + "|".join(map(re.escape, mutant.names)) + r")\b")
        return [name for name in self.tests if mutant.file in self.included[name] and any(
            names.search((ROOT / p).read_text()) for p in [name, *self.included[name]] if p.startswith("tests/"))]


# ---- Running tests ----

class Tests:
    """Which tests run a function, and how long each takes."""

    def __init__(self, build):
        digest = hashlib.sha1(b"".join(p.read_bytes() for p in [build.rest, *build.product.values()])).hexdigest()
        kept = BUILD / "coverage.json"
        of, rows = json.loads(kept.read_text()) if kept.exists() else (None, None)
        if of != digest:
            rows = self.look(build)
            kept.write_text(json.dumps([digest, rows]))
        self.seconds, self.file, self.of_function = collections.Counter(), {}, collections.defaultdict(set)
        for test, file, seconds, functions in rows:
            self.seconds[test] += seconds
            self.file[test] = os.path.relpath(os.path.join(BUILD, file), ROOT)
            for function in functions:
                self.of_function[function].add(test)

    @staticmethod
    def look(build):
        """Runs every test. Returns [test, file, seconds, names of functions] of each, several times for one that has a
        process of its own."""
        folder, options = build.work / "coverage", ("-O0", "-fstack-reuse=none", "-fsanitize-coverage=trace-pc")
        product = {name: build.compile(name, folder / name, options=options) for name in build.product}
        listener, program, table = folder / "listener.o", folder / "unit_tests", folder / "table"
        run(["c++", "-std=c++20", "-O1", "-c", ROOT / "tools/mutate_coverage.cpp", "-o", listener])
        build.link(program, product, [listener])
        print("looking which test runs what ...", flush=True)
        if run_tests(program, "*", 3600, {"QEL_MUTATE_TABLE": str(table)}, ()) != "survived":
            sys.exit("error: the tests fail without any change; make ./check unit pass first")
        symbols = [line.split(" ", 2) for line in run(["nm", "-nC", "--defined-only", program]).splitlines()]
        begin = next(int(address, 16) for address, _, name in symbols if name == "__executable_start")
        starts, names = zip(*((int(address, 16) - begin, name.split("(")[0]) for address, _, name in symbols))
        rows = [row.split("\t") for row in table.read_text().splitlines()]
        return [(test, file, float(seconds), sorted({names[bisect.bisect(starts, int(o)) - 1] for o in found.split()}))
                for test, file, seconds, found in rows]

    def run(self, program, tests):
        """Runs tests, the quickest first, until one fails."""
        waiting = sorted(tests, key=lambda test: self.seconds[test])
        used = itertools.accumulate(self.seconds[test] for test in waiting)
        quick = bisect.bisect(list(used), QUICK_TESTS_S)
        outcomes = (run_tests(program, ":".join(part), sum(self.seconds[test] for test in part))
                    for part in (waiting[:quick], waiting[quick:]) if part)
        return next((outcome for outcome in outcomes if outcome != "survived"), "survived")


def shelter():
    """What mutants may do to this machine, they do to a read-only copy with a /tmp of its own."""
    if os.geteuid() != 0:
        return []
    # The project itself may lie in /tmp.
    script = ("mount --make-rprivate / && mount -o bind,ro \"$0\" /mnt && mount -t tmpfs tmpfs /tmp && "
              "mkdir -p \"$0\" && mount --bind /mnt \"$0\" && mount -o bind,remount,ro / && cd /tmp && exec \"$@\"")
    return ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "sh", "-c", script, str(ROOT)]


def run_tests(program, test_filter, seconds, variables=(), inside=None):
    """What becomes of a mutant: "survived" or "killed"."""
    environment = dict(os.environ, GTEST_FAIL_FAST="1", GTEST_BRIEF="1", GTEST_FILTER=test_filter, **dict(variables))
    limits = ["prlimit", f"--cpu={int(3 * seconds + 2)}", f"--as={4 << 30}", "--core=0"]
    process = subprocess.Popen([*limits, *(shelter() if inside is None else inside), str(program)], env=environment,
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               start_new_session=True)
    try:
        return "killed" if process.wait(BLOCKED_S + 60 * seconds) else "survived"
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        return "killed"


def outcome_of(build, tests, mutant):
    """Of a change outside all functions of a file, the tests come first that it leaves alone."""
    with tempfile.TemporaryDirectory(dir=build.work) as name:
        folder = Path(name)
        replaced = build.product_with(mutant, folder)
        if isinstance(replaced, str):
            return replaced
        using = build.tests_using(mutant)
        theirs = {test for test in tests.seconds if "/support/" in "".join(using) or tests.file[test] in using}
        concerned = set(tests.seconds)
        if mutant.function and mutant.file in build.product:
            name = mutant.function.name
            concerned = tests.of_function["qel_loader_main" if name == "main" else name]
        outcome = tests.run(build.link(folder / "unit_tests", replaced), concerned - theirs)
        if outcome != "survived" or not theirs:
            return outcome
        for name in using:
            replaced[name] = build.compile(name, folder / "tests" / name, headers=folder, options=("-O0",))
            if not replaced[name]:
                return "killed"
        return tests.run(build.link(folder / "unit_tests", replaced), theirs)


# ---- Verdicts ----

def judged():
    """The verdicts of tools/mutants.tsv: {(place, operator, hash): verdict}."""
    rows = [line.split("\t") for line in JUDGED.read_text().splitlines()[1:]]
    for row in rows:
        if len(row) != 5 or row[3] not in VERDICTS or len(row[4]) < 10:
            sys.exit(f"error: {JUDGED.name}: not function, operator, hash, verdict and reason: {row}")
    if rows != sorted(rows):
        sys.exit(f"error: {JUDGED.name} is not sorted: LC_ALL=C sort all lines but the first")
    return {tuple(row[:3]): row[3] for row in rows}


def report(mutants, everything, outcomes):
    verdicts, complaints = judged(), []
    files = collections.defaultdict(collections.Counter)
    for mutant in mutants:
        outcome, verdict = outcomes[mutant.key], verdicts.get(mutant.key)
        is_valid = outcome not in ("invalid", "same")
        for name in (mutant.file, "all") if is_valid else ():
            files[name].update(["valid", verdict or "unlisted" if outcome == "survived" else "killed"])
        if verdict and outcome != "survived":
            complaints.append(f"listed, but {'killed' if is_valid else 'no change of the program'}: {mutant.shown}")
        elif outcome == "survived" and not verdict:
            complaints.append(f"survived, but not listed: {mutant.shown}")
    gone = set(verdicts) - {mutant.key for mutant in everything}
    complaints += [f"listed, but not there any more: {' '.join(key)}" for key in sorted(gone)]
    print("\n".join(complaints))
    kinds = ("valid", "killed", *VERDICTS, "unlisted")
    print("  ".join(kinds), "    %  file", sep="  ")
    for name, count in sorted(files.items(), key=lambda item: (item[0] == "all", item[0])):
        print(*(f"{count[kind]:{len(kind)}}" for kind in kinds), f"{100 * count['killed'] / count['valid']:5.1f}", name,
              sep="  ")
    return 1 if complaints else 0


# ---- The command ----

def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog="Exit code: 0 when tools/mutants.tsv is exact for what was run, else 1.")
    parser.add_argument("--file", metavar="REGEX", default="", help="only files whose names match")
    parser.add_argument("--since", metavar="REV", help="only lines that have changed since that commit")
    parser.add_argument("--list", action="store_true", help="list the mutants and end")
    parser.add_argument("--resume", metavar="FILE", help="keep outcomes in FILE, and leave out what it holds")
    return parser.parse_args()


def changed_lines(revision):
    """{file: lines} of what git shows as changed."""
    lines, name = collections.defaultdict(set), None
    for line in run(["git", "diff", "-U0", revision, "--", "src"], cwd=ROOT).splitlines():
        if line.startswith("+++ b/"):
            name = line.removeprefix("+++ b/")
        elif found := re.match(r"@@ .*\+(\d+)(?:,(\d+))? @@", line):
            lines[name] |= set(range(int(found[1]), int(found[1]) + int(found[2] or 1)))
    return lines


def run_all(mutants, kept):
    """{key: outcome}, with those that an earlier run has kept. The tests may have changed since."""
    outcomes = {}
    if kept and os.path.exists(kept):
        with open(kept) as lines:
            outcomes = {tuple(key): outcome for key, outcome in map(json.loads, lines)}
    waiting = [m for m in mutants if m.key not in outcomes]
    if not waiting:
        return outcomes
    build = Build()
    tests = Tests(build)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        running = {pool.submit(outcome_of, build, tests, mutant): mutant.key for mutant in waiting}
        for done, future in enumerate(concurrent.futures.as_completed(running), 1):
            outcomes[running[future]] = future.result()
            if kept:
                with open(kept, "a") as file:
                    file.write(json.dumps([running[future], future.result()]) + "\n")
            if done % 100 == 0:
                print(f"{done} of {len(waiting)}", flush=True)
    return outcomes


def main():
    arguments = parse_arguments()
    everything = all_mutants()
    mutants = [m for m in everything if re.search(arguments.file, m.file)]
    if arguments.since:
        changed = changed_lines(arguments.since)
        mutants = [m for m in mutants if changed[m.file] & set(m.lines)]
    if arguments.list or not mutants:
        print("\n".join(m.shown for m in mutants) or "nothing to change (--list shows what there is)")
        return 0
    return report(mutants, everything, run_all(mutants, arguments.resume))


if __name__ == "__main__":
    sys.exit(main())
