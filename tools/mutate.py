#!/usr/bin/env python3
"""Changes the product in one small place after another and sees whether the unit tests notice.

Every change (a mutant) is compiled as the product is, optimised. One that gives the same object is no change; any
other is linked with the tests and meets those that run its function, the quickest first, until one fails,
crashes or never ends. Mutants that survive are code that no test looks at, or changes that make no difference.
tools/mutants.tsv has them all, each with a verdict and its reason, and is exact: a survivor that it lacks, an entry
that is killed now, and one whose mutant there is not any more fail the run. A mutant of a header meets tests that
were built with it, where they use what it changes.
"""

import argparse
import bisect
import collections
import concurrent.futures
import hashlib
import itertools
import json
import os
import random
import re
import shlex
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
JUDGED = ROOT / "tools/mutants.tsv"
VERDICTS = ("equivalent", "speed only", "unreachable", "hole")
MAIN = "src/qel_application_loader/main.cpp"
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
ORIGINAL = 90000  # numbers of the functions as they are, behind those of all mutants
CLOSING = {"(": ")", "{": "}", "[": "]"}


class Source:
    """A file of src/ as its mutants see it. What has no function of its own is outside: tables, constants, macros."""

    def __init__(self, path):
        self.name, self.text = str(path.relative_to(ROOT)), path.read_text()
        self.line_starts = [0] + [m.end() for m in re.finditer("\n", self.text)]
        self.macros = [(m.start(), m.end(), m.group(1)) for m in DEFINITION.finditer(self.text)]
        self.tokens = [Token(m.lastgroup, m[m.lastgroup], m.start(), m.end(), self.macro_at(m.start()))
                       for m in TOKEN.finditer(self.text) if not m["skip"]]
        self.match = self.matching_brackets()
        self.functions, self.enumerators, self.blocks, self.simple, self.ifs = [], [], [], [], []
        self.scan()

    def macro_at(self, position):
        return next((name for start, end, name in self.macros if start <= position < end), None)

    def line(self, position):
        return bisect.bisect_right(self.line_starts, position)

    def matching_brackets(self):
        match, open_ones = {}, []
        for i, token in enumerate(self.tokens):
            if token.text in CLOSING:
                open_ones.append(i)
            elif token.text in CLOSING.values() and open_ones and CLOSING[self.tokens[open_ones[-1]].text] == token.text:
                match[open_ones[-1]] = i
                match[i] = open_ones.pop()
        return match

    def scan(self):
        """Finds the functions and what they consist of, and the constants of each enum."""
        i = 0
        while i < len(self.tokens):
            if self.tokens[i].text == "{" and not self.tokens[i].macro and i in self.match:
                end = self.match[i]
                if self.tokens[i - 1].text == ")":
                    name = self.tokens[self.match[i - 1] - 1]
                    self.functions.append(Function(name.text, self.line(name.start), self.line(self.tokens[end].start),
                                                   i, end))
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
            body = self.match[i + 1] + 1
            end = self.end_of_statement(body)
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
        while first > 0 and self.tokens[first - 1].text not in ";{}" and self.tokens[first - 1].macro == self.tokens[i].macro:
            first -= 1
        while last + 1 < len(self.tokens) and self.tokens[last].text not in ";{}":
            last += 1
        return first, last

    def is_declared_twice(self, i):
        """Is in the declaration of a function that others see: its types stand in a header and in a file."""
        first, last = self.segment_at(i)
        words = [t.text for t in self.tokens[first:last]]
        return not self.function_at(i) and "(" in words and "static" not in words


# ---- What is changed: each yields (first token, behind the last token, replacement, operator) ----

OTHER = {"==": "!=", "!=": "==", "&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "<<": ">>",
         ">>": "<<", "&": "|", "|": "&", "^": "|", "+=": "-=", "-=": "+=", "|=": "&=", "^=": "|=", "<<=": ">>=",
         "++": "--", "--": "++"}
BOUNDARY = {"<": ("<=", "+ 1 <"), "<=": ("<", "- 1 <="), ">": (">=", "- 1 >"), ">=": (">", "+ 1 >=")}
NEED_BLANKS = set("+-*/%&|^<>") | {"<<", ">>"}
TYPES = {"uint8_t": "int8_t uint16_t", "uint16_t": "int16_t uint32_t", "uint32_t": "int32_t uint16_t",
         "uint64_t": "int64_t uint32_t", "int8_t": "uint8_t", "int32_t": "uint32_t int16_t",
         "int64_t": "uint64_t int32_t", "ssize_t": "size_t int", "time_t": "int", "unsigned": "int", "long": "int",
         "ptrdiff_t": "unsigned"}
TYPE_WORDS = set(TYPES) | {"int", "size_t", "char", "const", "struct", "signed", "void", "short"}
ALIKE = """stdout stderr|STDIN_FILENO STDOUT_FILENO STDERR_FILENO|O_RDONLY O_WRONLY O_RDWR|S_IFCHR S_IFBLK
SHUT_RDWR SHUT_RD|R_OK W_OK|EEXIST ENOENT EACCES|EAGAIN EIO|EINTR ECHILD|DT_DIR DT_REG|MS_RDONLY MS_NOSUID
SOCK_STREAM SOCK_DGRAM|strchr strrchr|strcmp strcasecmp|stat lstat|unlink rmdir|qel_unlink qel_rmdir|mount_rw mount_ro
qel_remount_storage_rw qel_remount_storage_ro qel_mount_storage|qel_exec_wait qel_exec_wait_checked|sleep usleep
qel_exists qel_file_is_dir|exit _exit|tv_sec tv_usec|f_bavail f_bfree|UINT8_MAX INT8_MAX|INT64_MAX INT32_MAX
qel_dos_path_is_root_dir qel_unix_path_is_root_dir|dos_flavour unix_flavour|memmove memset|fork vfork"""
COMMUTATIVE = {"strcmp", "strcasecmp", "calloc"}
JUMPS = {"return", "break", "continue", "goto"}
KEYWORDS = JUMPS | {"if", "while", "for", "do", "switch", "case", "default", "else", "sizeof", "static", "const", "auto",
                    "struct", "enum", "extern", "typedef", "unsigned", "int", "char", "void", "alignof"}


def token_mutants(source, alike):
    tokens = source.tokens
    for i, (kind, text, start, end, _) in enumerate(tokens):
        before, after = tokens[i - 1].text if i else "", tokens[i + 1].text if i + 1 < len(tokens) else ""
        apart = source.text[start - 1] in " \n" and source.text[end] in " \n\\"
        if kind == "number":
            yield i, i + 1, other_number(text), "number"
        elif kind in ("text", "character") and other_text(text) != text:
            yield i, i + 1, other_text(text), "text"
        elif kind == "text" and text.endswith('\\n"'):
            yield i, i + 1, text[:-3] + '"', "text"
        elif text in BOUNDARY and apart:
            for other in BOUNDARY[text]:
                yield i, i + 1, other, "boundary"
        elif text == "!":
            yield i, i + 1, "", "not"
        elif text == "-" and not apart and (before in "(=,?:<>|&" or before in KEYWORDS):
            yield i, i + 1, "", "sign"
        elif text in OTHER and (apart or text not in NEED_BLANKS):
            yield i, i + 1, OTHER[text], "operator"
        elif text in TYPES and before not in ("signed", "unsigned", "long") and after not in ("char", "long") and (
                not source.is_declared_twice(i)):
            for other in TYPES[text].split():
                yield i, i + 1, other, "type"
        elif text in alike and after != "=":
            yield i, i + 1, alike[text], "name"
        elif text == "while" and i and tokens[i + 1].text == "(":
            closed = source.match[i + 1]
            if tokens[closed + 1].text == ";" and before != ";" and before != ")":
                yield i + 2, closed, "0", "once"
            else:
                yield i, i + 1, "if", "once"
        elif text == "static" and source.function_at(i):
            yield i, i + 1, "", "static"
        elif text == "(" and is_cast(source, i):
            yield i, source.match[i] + 1, "", "cast"


def other_number(text):
    """n + 1; of 1 it is 0, because 2 is as true as 1."""
    digits = re.match(r"0[xX][0-9a-fA-F]+|\d+", text).group()
    value = int(digits, 16 if digits[:2].lower() == "0x" else 10)
    value = 0 if value == 1 else value + 1
    # An octal number keeps its 0.
    spelled = hex(value) if digits[:2].lower() == "0x" else "0" * (len(digits) > 1 and digits[0] == "0") + str(value)
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
            items = list(split_list(source, i))
            for (a, b), (c, d) in zip(items, items[1:]):
                one, two = source.text[tokens[a].start:tokens[b - 1].end], source.text[tokens[c].start:tokens[d - 1].end]
                if one != two:
                    yield a, d, two + source.text[tokens[b - 1].end:tokens[c].start] + one, "arguments"
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
    for block in source.blocks:
        for (a, b), (c, d) in zip(block, block[1:]):
            has_calls = all(any(source.is_call(i) for i in range(*statement)) for statement in ((a, b), (c, d)))
            if has_calls and not {tokens[a].text, tokens[c].text} & (JUMPS | {"case", "default"}):
                between = source.text[tokens[b - 1].end:tokens[c].start]
                yield a, d, (source.text[tokens[c].start:tokens[d - 1].end] + between +
                             source.text[tokens[a].start:tokens[b - 1].end]), "order"


def is_droppable(statement):
    words = [t.text for t in statement]
    if words in (["break"], ["continue"], ["return"]):
        return True
    # "type name = ..." and "type *name = ..." are declarations.
    if len(words) < 2 or words[0] in KEYWORDS or words[0] not in ("*", "(") and statement[0].kind != "word" and (
            words[0] not in ("++", "--")):
        return False
    if statement[0].kind == "word" and (statement[1].kind == "word" or words[1] == "*"):
        return False
    return words[1] == "(" or bool({"=", "+=", "-=", "|=", "^=", "<<=", "++", "--"} & set(words)) or "(" in words


# ---- The mutants ----

class Mutant:
    def __init__(self, source, first, last, replacement, operator):
        tokens, function = source.tokens, source.function_at(first)
        self.file, self.function = source.name, function
        self.start = tokens[first].start
        self.end = tokens[last - 1].end
        old = source.text[self.start:self.end]
        self.replacement = replacement + "\n" * (old.count("\n") - replacement.count("\n"))
        self.line, self.last_line = source.line(self.start), source.line(self.end)
        where = function.name if function else tokens[first].macro or "(outside)"
        self.place = f"{source.name.removeprefix('src/')}:{where}"
        self.operator = f"{operator}: {short(old)} -> {short(replacement)}"
        self.changed = source.text[:self.start] + self.replacement + source.text[self.end:]
        segment, end = source.segment_at(first)
        previous, following = source.segment_at(max(segment - 1, 0))[0], source.segment_at(min(end + 1, len(tokens) - 1))[1]
        context = [t.text for t in tokens[previous:first]] + ["@", replacement] + [t.text for t in tokens[last:following]]
        self.context = " ".join(context)
        # What of a header a user of it would name.
        words = [t for t in tokens[segment:end] if t.kind == "word" and t.text not in TYPE_WORDS | KEYWORDS]
        if "enum" in [t.text for t in tokens[max(segment - 4, 0):segment]]:
            words = [t for t in words if t.start <= self.start][-1:]
        self.names = {where} if function or tokens[first].macro else {t.text for t in words}

    def key(self):
        return self.place, self.operator, self.hash

    def shown(self):
        return "\t".join(self.key()) + f"\t# {self.file}:{self.line}"


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
        changes = {(source.tokens[c[0]].start, source.tokens[c[1] - 1].end, c[2]): c for operators in (
            token_mutants(source, alike), list_mutants(source), statement_mutants(source)) for c in operators}
        for change in sorted(changes):
            mutant = Mutant(source, *changes[change])
            name = f"{mutant.place} {mutant.operator} {mutant.context}"
            seen[name] += 1
            mutant.hash = hashlib.sha1(f"{name} {seen[name]}".encode()).hexdigest()[:10]
            mutant.number = len(mutants) + 1
            mutants.append(mutant)
    return sources, mutants


# ---- Variants: a file with all mutants of its functions in it ----

def variant_text(source, mutants, symbols, is_for_errors):
    """The file with a function for each mutant, and in the place of the mutated ones a jump to the one that
    QEL_MUTANT asks for. With `is_for_errors`, lines go by the number of the mutant."""
    by_function = collections.defaultdict(list)
    for mutant in mutants:
        by_function[mutant.function].append(mutant)
    text, table, at = "#include <stdlib.h>\n#line 1\n", "", 0
    for index, function in enumerate(source.functions):
        if function not in by_function:
            continue
        first = source.segment_at(function.start)[0]
        start, body, end = (source.tokens[i].start for i in (first, function.start, function.end))
        header, name = source.text[start:body], function.name
        is_static = "static" in header
        slot = f"slot_{re.sub(r'[^a-z0-9]', '_', source.name)}_{index}"
        symbol = slot + "_jump" if is_static else symbols[name]
        text += source.text[at:start]
        if is_static:
            text += re.sub(r"\b(static|inline)\b", "", header) + f'__asm__("{symbol}");\n'
        text += f'#define __func__ "{name}"\n'
        for mutant in [None] + by_function[function]:
            number = mutant.number if mutant else ORIGINAL + index
            file = f' "{number}"' if is_for_errors else ""
            content = (source.text if not mutant else mutant.changed)[start:][:end + 1 - start + (
                len(mutant.changed) - len(source.text) if mutant else 0)]
            text += f"\n#line {source.line(start)}{file}\n" + ("" if is_static else "static ") + re.sub(
                rf"\b{name}\b", f"{name}__{number:05}", content[:body - start], count=1) + content[body - start:] + "\n"
            if mutant:
                table += f"{{{number}, &{slot}, (void *){name}__{number:05}}},\n"
        text += (f'#undef __func__\nextern "C" {{ extern void *{slot}; __attribute__((section("mutant_slots"))) void *'
                 f'{slot} = (void *){name}__{ORIGINAL + index}; }}\n__asm__(".text\\n.globl {symbol}\\n.type {symbol}, '
                 f'@function\\n{symbol}: jmp *{slot}(%rip)\\n");\n#line {source.line(end)}\n')
        at = end + 1
    return text + source.text[at:] + """
static const struct { int number; void **slot; void *function; } mutant_table[] = {""" + table + """};
__attribute__((constructor)) static void mutant_choose()
{
    const char *text = getenv("QEL_MUTANT");
    for (auto &entry : mutant_table) {
        if (text && entry.number == atoi(text))
            *entry.slot = entry.function;
    }
}
"""


def bodies_of(assembly):
    """What each numbered function is compiled to, without what only its own name and place make different."""
    code, data, into, is_code = collections.defaultdict(list), {}, None, True
    for line in assembly.splitlines():
        label = re.match(r"([.\w$]+):", line)
        if re.match(r"\t\.(text|section|data|bss|rodata)", line):
            is_code = ".text" in line
            into = None if not is_code else into
        elif label and not is_code:
            into = data.setdefault(label[1], [])
        elif label and (number := re.search(r"__(\d{5})", label[1])):
            into = code[number[1]]
        elif label and into is not None:
            into.append(label[1] + ":")
        elif into is not None and not re.match(r"\t\.(cfi|loc|size|type|globl|align|p2align|local)|\s*#", line):
            into.append(line)

    def normal(lines, own, places, inside=()):
        def shown(found):
            name = found[0]
            if name in inside:
                return "here"
            if name in data and (name.startswith((".L", "C.", "CSWTCH")) or "__" + own in name):
                return "{" + normal(data[name], own, places, (*inside, name)) + "}"
            if name.startswith(".L"):
                return places.setdefault(name, f"L{len(places)}")
            return name.replace("__" + own, "")
        return "\n".join(re.sub(r"(?<![\w%$])[._A-Za-z][\w.$]*", shown, line) for line in lines)
    return {int(number): normal(lines, number, {}) for number, lines in code.items()}


# ---- Building ----

def run(command, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    if done.returncode:
        sys.exit(f"error: {' '.join(map(str, command))} failed:\n{done.stdout[-3000:]}{done.stderr[-3000:]}")
    return done.stdout


class Build:
    """The unit tests, ready to be linked with another object in place of one of the product's."""

    def __init__(self, folder, sources, jobs):
        self.folder, self.sources = folder, {s.name: s for s in sources}
        if not (folder / "build.ninja").exists():
            run(["cmake", "--preset", "test", "-B", folder, "-DCMAKE_BUILD_TYPE=None", "-DQEL_TOOLS=OFF"], cwd=ROOT)
        print("building the unit tests ...", flush=True)
        run(["ninja", "-C", folder, "-j", str(jobs), "unit_tests"])
        link = next(shlex.split(line) for line in run(["ninja", "-C", folder, "-t", "commands", "unit_tests"])
                    .splitlines() if " -o tests/unit_tests " in line)
        self.options = [w for w in link if w.startswith(("-Wl,--wrap", "-fsanitize")) or w == "-m32"]
        self.options += [w for w in link if w.endswith(".a") and not w.startswith("src/")]
        self.commands, self.tests = {}, {}
        for command in json.loads((folder / "compile_commands.json").read_text()):
            name, words = os.path.relpath(command["file"], ROOT), shlex.split(command["command"])
            words = words[words.index(next(w for w in words if w.endswith("c++") or w.endswith("g++"))):]
            made = words[words.index("-o") + 1]
            if name.startswith("src/") and (name != MAIN or "-Dmain=qel_loader_main" in words):
                self.commands[name] = words
            elif made in link:
                self.commands[name] = words
                self.tests[name] = folder / made
        self.included = self.read_dependencies()
        self.temporary = tempfile.TemporaryDirectory(dir=folder, prefix="work-")
        self.work = Path(self.temporary.name)
        self.product, self.plain = {}, {}
        for name in [n for n in self.commands if n.startswith("src/")]:
            self.product[name], self.plain[name] = self.compile(name, self.work / name)
        self.rest = self.work / "rest.o"
        run(["ld", "-r", "--strip-debug", "-o", self.rest] + list(self.tests.values()), cwd=folder)

    def read_dependencies(self):
        """Of each file, the headers of this project that it reads."""
        objects = {words[words.index("-o") + 1]: name for name, words in self.commands.items()}
        included, name = collections.defaultdict(set), None
        for line in run(["ninja", "-C", self.folder, "-t", "deps"]).splitlines():
            if line[:1].strip():
                name = objects.get(line.split(":")[0])
            elif name and line.strip():
                path = os.path.relpath(os.path.join(self.folder, line.strip()), ROOT)
                included[name] |= {path} - {name} if path.startswith(("src/", "tests/")) else set()
        return included

    def compile(self, name, folder, text=None, headers=None, options=OPTIMISED):
        """Compiles a file in a folder of its own. Returns where the object is, with the product's variables in the
        sections that the tests put back, and what it was before that; without an object, the errors."""
        folder.mkdir(parents=True)
        made = folder / "unit.o"
        words = [w for w in self.commands[name] if not w.startswith(("-W", "-g", "-O", "-fdebug", "-fmacro"))]
        source = ROOT / name
        if name.startswith("src/"):
            source = folder / "unit.cpp"
            source.write_text(text if text is not None else self.sources[name].text)
        words[words.index("-o") + 1], words[words.index("-c") + 1] = str(made), str(source)
        for option in ("-MF", "-MT"):
            if option in words:
                words[words.index(option) + 1] = str(made.with_suffix(".d"))
        words += ["-w", "-g0", *options, f"-fmacro-prefix-map={source}={unit_of(name)}"]
        words[1:1] = ["-I", str(headers)] if headers else []
        done = subprocess.run(words, cwd=self.folder, capture_output=True, text=True)
        if done.returncode or "-fsyntax-only" in options:
            return None, done.stderr
        content = made.read_bytes()
        if name.startswith("src/") and "-S" not in options and content != self.plain.get(name):
            make_resettable(made)
        return made, content

    def link(self, program, replaced, more=()):
        tests = [replaced.get(name, made) for name, made in self.tests.items()] if set(replaced) & set(self.tests) else [
            self.rest]
        run(["c++", "-fuse-ld=lld", "-Wl,--threads=1", "-o", program, *(
            replaced.get(name, made) for name, made in self.product.items()), *tests, *more, *self.options],
            cwd=self.folder)
        return program

    def symbols(self, name):
        """The functions of a file that others see: {name: symbol}."""
        symbols = [line.split()[2] for line in run(["nm", self.product[name]]).splitlines() if " T " in line]
        return {shown.split("(")[0]: symbol for symbol, shown in zip(symbols, run(["c++filt", *symbols]).split("\n"))}

    def make_variants(self, name, mutants):
        """The object with all variants of a file's functions, and {mutant: outcome} of what is no mutant."""
        folder, symbols = self.work / "variants" / name, self.symbols(name)
        folder.mkdir(parents=True)
        outcomes, errors = {}, True
        while errors:
            mutants = [m for m in mutants if m not in outcomes]
            text = variant_text(self.sources[name], mutants, symbols, True)
            errors = self.compile(name, folder / f"errors{len(outcomes)}", text, options=["-fsyntax-only", "-fmax-errors=0"])[1]
            numbers = set(re.findall(r"^(\d+):(?:\d+:\d+: error| In function)", errors or "", re.MULTILINE))
            outcomes.update((m, "invalid") for m in mutants if str(m.number) in numbers)
            if errors and not numbers:
                sys.exit(f"error: the variants of {name} do not compile:\n{errors[-2000:]}")
        text = variant_text(self.sources[name], mutants, symbols, False)
        assembly, _ = self.compile(name, folder / "assembly", text, options=[*OPTIMISED, "-fno-ipa-icf", "-fno-ipa-cp", "-S"])
        bodies = bodies_of(assembly.read_text())
        for mutant in mutants:
            if bodies[mutant.number] == bodies[ORIGINAL + self.sources[name].functions.index(mutant.function)]:
                outcomes[mutant] = "same"
        made = folder / "unit.o"
        run(["c++", "-c", "-x", "assembler", assembly, "-o", made])
        make_resettable(made)
        return made, outcomes

    def product_with(self, mutant, folder):
        """{file: object} of what is another for a mutant outside all functions; a text when that is nothing."""
        if mutant.file in self.product:
            made, content = self.compile(mutant.file, folder / "own", mutant.changed)
            return {mutant.file: made} if made and content != self.plain[mutant.file] else "same" if made else "invalid"
        self.write_header(mutant, folder)
        replaced = {}
        for name in [n for n in self.product if mutant.file in self.included[n]]:
            made, content = self.compile(name, folder / name, headers=folder / "headers")
            if not made:
                return "invalid"
            if content != self.plain[name]:
                replaced[name] = made
        return replaced or "same"

    @staticmethod
    def write_header(mutant, folder):
        header = folder / "headers" / mutant.file.removeprefix("src/")
        header.parent.mkdir(parents=True)
        header.write_text(mutant.changed)

    def tests_using(self, mutant):
        """The files of tests that name what a header's mutant changes."""
        names = re.compile(r"\b(?:" + "|".join(map(re.escape, mutant.names)) + r")\b")
        return [name for name in self.tests if mutant.file in self.included[name] and any(
            names.search((ROOT / path).read_text()) for path in [name, *self.included[name]] if path.startswith("tests/"))]


def make_resettable(made):
    """Puts the variables into the sections that the tests put back, as tests/CMakeLists.txt names them."""
    run(["objcopy", "--rename-section", ".data=product_data", "--rename-section", ".bss=product_bss", made])


def unit_of(name):
    """The unit that a file reports: its own name, or its folder's, when that is a unit."""
    path = Path(name).relative_to("src") if name.startswith("src/") else Path(name)
    return "qel_application_loader" if path.parts[0] == "qel_application_loader" else str(
        path.parent if len(path.parts) > 2 else path.with_suffix(""))


# ---- Running tests ----

class Tests:
    """Which tests run a function, and how long each takes."""

    def __init__(self, build):
        digest = hashlib.sha1(b"".join(p.read_bytes() for p in [build.rest, *build.product.values()])).hexdigest()
        kept = build.folder / f"coverage-{digest}.json"  # of these very tests, by an earlier run
        if not kept.exists():
            for old in build.folder.glob("coverage-*.json"):
                old.unlink()
            kept.write_text(json.dumps(self.look(build)))
        self.seconds, self.of_function = collections.Counter(), collections.defaultdict(set)
        self.file = {}
        for test, file, seconds, functions in json.loads(kept.read_text()):
            self.seconds[test] += seconds
            self.file[test] = os.path.relpath(os.path.join(build.folder, file), ROOT)
            for function in functions:
                self.of_function[function].add(test)

    @staticmethod
    def look(build):
        """Runs every test. Returns [test, file, seconds, functions] of each, several times for one that has a process of
        its own."""
        folder = build.work / "coverage"
        options = ("-O0", "-fstack-reuse=none", "-g1", "-fsanitize-coverage=trace-pc", f"-fdebug-prefix-map={folder}/=")
        product = {name: build.compile(name, folder / name, options=options)[0] for name in build.product}
        listener, program, table = folder / "listener.o", folder / "unit_tests", folder / "table"
        run(["c++", "-std=c++20", "-O1", "-c", ROOT / "tools/mutate_coverage.cpp", "-o", listener])
        build.link(program, product, [listener])
        print("looking which test runs what ...", flush=True)
        if run_tests(program, "*", 3600, {"QEL_MUTATE_TABLE": str(table)}, ()) != "passed":
            sys.exit("error: the tests fail without any change; make ./check unit pass first")
        rows = [row.split("\t") for row in table.read_text().splitlines()]
        offsets = sorted({offset for row in rows for offset in row[3].split()})
        begin = int(next(line for line in run(["nm", program]).splitlines() if "__executable_start" in line)[:16], 16)
        # Each is where a call returns to: a byte before that is still of the place.
        lines = run(["addr2line", "-e", program], input="\n".join(hex(begin + int(o) - 1) for o in offsets)).splitlines()
        functions = {}
        for offset, place in zip(offsets, lines):
            name, line = place.split(" ")[0].rsplit(":", 1)
            source = build.sources.get(name[name.find("src/"):].removesuffix("/unit.cpp"))
            functions[offset] = next((f"{source.name}:{f.name}" for f in source.functions if f.first <= int(line)
                                      <= f.last), "") if source and line.isdigit() else ""
        return [(test, file, float(seconds), sorted({functions[offset] for offset in found.split()}))
                for test, file, seconds, found in rows]

    def of(self, functions):
        """The tests that run one of these functions."""
        return set().union(*(self.of_function[f"{m.file}:{m.function.name}"] for m in functions))

    def run(self, program, tests, number=0):
        """Runs tests, the quickest first, until one fails. Returns "passed", "failed" or "never ends"."""
        waiting = sorted(tests, key=lambda test: self.seconds[test])
        used = list(itertools.accumulate(self.seconds[test] for test in waiting))
        quick = bisect.bisect(used, QUICK_TESTS_S)
        for part in (waiting[:quick], waiting[quick:]):
            outcome = run_tests(program, ":".join(part), sum(self.seconds[test] for test in part),
                                {"QEL_MUTANT": str(number)}) if part else "passed"
            if outcome != "passed":
                return outcome
        return "passed"


def shelter():
    """What mutants may do to this machine, they do to a read-only copy with a /tmp of its own."""
    if os.geteuid() != 0:
        return []
    # The project itself may lie in /tmp.
    script = ("mount --make-rprivate / && mount -o bind,ro \"$0\" /mnt && mount -t tmpfs tmpfs /tmp && "
              "mkdir -p \"$0\" && mount --bind /mnt \"$0\" && mount -o bind,remount,ro / && "
              "cd /tmp && exec \"$@\"")
    return ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "sh", "-c", script, str(ROOT)]


def run_tests(program, test_filter, seconds, variables=(), inside=None):
    """Runs tests. Returns "passed", "failed" or "never ends"."""
    environment = dict(os.environ, GTEST_FAIL_FAST="1", GTEST_BRIEF="1", GTEST_FILTER=test_filter, **dict(variables))
    limits = ["prlimit", f"--cpu={int(3 * seconds + 2)}", f"--as={4 << 30}", "--core=0"]
    process = subprocess.Popen(limits + (shelter() if inside is None else list(inside)) + [str(program)], env=environment, stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
    try:
        return "passed" if process.wait(BLOCKED_S + 60 * seconds) == 0 else "failed"
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        return "never ends"


def outcome_outside(build, tests, mutant):
    """What becomes of a mutant that is in no function of a file. First come the tests that a change of a header
    leaves alone."""
    with tempfile.TemporaryDirectory(dir=build.work) as name:
        folder, everything = Path(name), set(tests.seconds)
        replaced = build.product_with(mutant, folder)
        if isinstance(replaced, str):
            return replaced
        using = build.tests_using(mutant)
        theirs = {test for test in everything if tests.file[test] in using}
        theirs = everything if any("/support/" in name for name in using) else theirs
        outcome = tests.run(build.link(folder / "unit_tests", replaced), everything - theirs)
        if outcome == "passed" and theirs:
            for name in using:
                replaced[name], _ = build.compile(name, folder / name, headers=folder / "headers", options=("-O0",))
                if not replaced[name]:
                    return "failed"
            outcome = tests.run(build.link(folder / "unit_tests", replaced), theirs)
        return outcome


# ---- Verdicts ----

def judged():
    """The verdicts of tools/mutants.tsv: {(place, operator, hash): verdict}."""
    rows = [line.split("\t") for line in JUDGED.read_text().splitlines()[1:]] if JUDGED.exists() else []
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
        outcome, verdict = outcomes[mutant.key()], verdicts.get(mutant.key())
        if outcome in ("invalid", "same"):
            if verdict:
                complaints.append(f"listed, but no change of the program: {mutant.shown()}")
            continue
        files[mutant.file]["valid"] += 1
        if outcome == "survived":
            files[mutant.file][verdict or "unlisted"] += 1
        if outcome == "survived" and not verdict:
            complaints.append(f"survived, but not listed: {mutant.shown()}")
        elif outcome != "survived" and verdict:
            complaints.append(f"listed, but killed: {mutant.shown()}")
    gone = set(verdicts) - {mutant.key() for mutant in everything}
    complaints += [f"listed, but not there any more: {' '.join(key)}" for key in sorted(gone)]
    kinds = VERDICTS + ("unlisted",)
    print("\n".join(complaints))
    print("  ".join(["valid", "killed", "    %", *kinds, "file"]))
    for name, count in sorted(files.items()) + [("all", sum(files.values(), collections.Counter()))]:
        killed = count["valid"] - sum(count[kind] for kind in kinds)
        share = 100 * killed / max(count["valid"], 1)
        print(f"{count['valid']:5}  {killed:6}  {share:5.1f}", *(f"{count[kind]:{len(kind)}}" for kind in kinds), name,
              sep="  ")
    return 1 if complaints else 0


# ---- The command ----

def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog="Exit code: 0 when tools/mutants.tsv is exact for what was run, else 1.")
    parser.add_argument("--file", metavar="REGEX", default="", help="only files whose names match")
    parser.add_argument("--since", metavar="REV", help="only lines that have changed since that commit")
    parser.add_argument("--sample", metavar="N", type=int, help="only N mutants")
    parser.add_argument("--seed", metavar="N", type=int, default=1, help="which sample (1)")
    parser.add_argument("--jobs", metavar="N", type=int, default=2, help="mutants at the same time (2)")
    parser.add_argument("--list", action="store_true", help="list the mutants and end")
    parser.add_argument("--resume", metavar="FILE", help="keep outcomes in FILE, and leave out what it holds")
    parser.add_argument("--build", metavar="FOLDER", type=Path, default=ROOT / "build/mutate",
                        help="where the unit tests are built (build/mutate)")
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


def selected(mutants, arguments):
    mutants = [m for m in mutants if re.search(arguments.file, m.file)]
    if arguments.since:
        changed = changed_lines(arguments.since)
        mutants = [m for m in mutants if changed[m.file] & set(range(m.line, m.last_line + 1))]
    random.Random(arguments.seed).shuffle(mutants)  # so that what an interrupted run has done is a sample, too
    return mutants[:arguments.sample]


def known_outcomes(path):
    """The outcomes of an earlier run; the tests may have changed since."""
    if not path or not os.path.exists(path):
        return {}
    with open(path) as lines:
        return {tuple(key): outcome for key, outcome in map(json.loads, lines)}


def run_all(sources, mutants, arguments):
    outcomes = known_outcomes(arguments.resume)
    waiting = [m for m in mutants if m.key() not in outcomes]
    if not waiting:
        return outcomes
    build = Build(arguments.build.resolve(), sources, arguments.jobs)
    tests = Tests(build)
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        note = Notes(outcomes, len(waiting), arguments.resume)
        inside = [m for m in waiting if m.function and m.file in build.product and m.function.name != "main"]
        print("compiling the variants ...", flush=True)
        by_file = {m.file: [n for n in inside if n.file == m.file] for m in inside}
        made = dict(zip(by_file, pool.map(build.make_variants, by_file, by_file.values())))
        program = build.link(build.work / "unit_tests", {name: found[0] for name, found in made.items()})
        if tests.run(program, tests.of(inside)) != "passed":
            sys.exit("error: the tests fail without any change; make ./check unit pass first")
        done = {m: outcome for _, found in made.values() for m, outcome in found.items()}
        for mutant, outcome in done.items():
            note(mutant, outcome)
        running = {pool.submit(tests.run, program, tests.of([m]), m.number): m for m in inside if m not in done}
        running.update((pool.submit(outcome_outside, build, tests, m), m) for m in waiting if m not in inside)
        for future in concurrent.futures.as_completed(running):
            note(running[future], future.result())
    return outcomes


class Notes:
    """Keeps outcomes, and shows how far the run is."""

    def __init__(self, outcomes, total, path):
        self.outcomes, self.total, self.path = outcomes, total, path
        self.done, self.started = 0, time.monotonic()

    def __call__(self, mutant, outcome):
        outcome = "survived" if outcome == "passed" else outcome
        self.outcomes[mutant.key()] = outcome
        self.done += 1
        if self.path:
            with open(self.path, "a") as file:
                file.write(json.dumps([mutant.key(), outcome]) + "\n")
        if self.done % 100 == 0:
            print(f"{self.done} of {self.total}, {time.monotonic() - self.started:.0f} s", flush=True)


def main():
    arguments = parse_arguments()
    sources, everything = all_mutants()
    mutants = selected(everything, arguments)
    if not mutants:
        print("nothing to change (--list shows what there is)")
        return 0
    if arguments.list:
        print("\n".join(m.shown() for m in sorted(mutants, key=lambda m: (m.file, m.start))))
        return 0
    return report(mutants, everything, run_all(sources, mutants, arguments))


if __name__ == "__main__":
    sys.exit(main())
