#!/usr/bin/env python3
"""Changes the product in one small place after another and sees whether the unit tests notice.

Every change (a mutant) is compiled into the unit tests in place of the file it was made in. A mutant is
killed when a test fails, crashes or never ends; one that survives is code that no test looks at, or a change
that makes no difference. Those that were judged stand in tools/mutants_survived.txt. Tests count as never ending
when they take longer than a limit within which, straight afterwards, the unchanged product passes them.
"""

import argparse
import collections
import concurrent.futures
import json
import os
import random
import re
import resource
import shlex
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
JUDGED = ROOT / "tools/mutants_survived.txt"
MAIN = "src/qel_application_loader/main.cpp"
CPU_SECONDS = 60  # of one process; the whole of the unit tests takes 10 to 20
WALL_SECONDS = 8  # of a room's own tests; twice as much when the unchanged ones need more
MEMORY_BYTES = 4 << 30

# ---- Finding places ----

TOKEN = re.compile(r"""
    (?P<skip>static_assert\([^;]*;|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*|"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*')
  | (?P<number>\b(?:0[xX][0-9a-fA-F]+|\d+)[uUlL]*\b)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<operator>->|\+\+|--|<<=|>>=|<<|>>|[<>=!+\-*/%&|^]=|&&|\|\||[-+*/%&|^<>=!~?:;,.(){}\[\]])
""", re.VERBOSE | re.MULTILINE | re.DOTALL)

SWAPS = {
    "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "<<": ">>", ">>": "<<", "&": "|", "|": "&", "^": "|",
    "+=": "-=", "-=": "+=", "|=": "&=", "^=": "|=", "++": "--", "--": "++",
}
NEED_BLANKS = {"<", ">", "+", "-", "*", "/", "%", "&", "|", "^", "<<", ">>"}
NO_STATEMENT = {"return", "if", "while", "for", "do", "switch", "case", "default", "else", "break", "continue",
                "goto", "static", "const", "auto", "struct", "enum", "extern", "typedef",
                "using", "unsigned", "int", "char", "void"}


def tokens_of(text):
    return [(m.lastgroup, m.group(), m.start(), m.end()) for m in TOKEN.finditer(text) if m.lastgroup != "skip"]


def other_number(text):
    """n + 1; of 1 it is 0, because 2 is as true as 1."""
    digits = re.match(r"0[xX][0-9a-fA-F]+|\d+", text).group()
    value = int(digits, 16 if digits[:2].lower() == "0x" else 10)
    value = 0 if value == 1 else value + 1
    # An octal number keeps its 0.
    spelled = hex(value) if digits[:2].lower() == "0x" else "0" * (len(digits) > 1 and digits[0] == "0") + str(value)
    return spelled + text[len(digits):]


def operator_mutants(text, tokens):
    for kind, token, start, end in tokens:
        if kind == "number":
            yield start, end, other_number(token)
        elif kind == "operator" and token == "!":
            yield start, end, ""
        elif kind == "operator" and token in SWAPS:
            blanks = text[start - 1] in " \n" and text[end] in " \n"
            if token not in NEED_BLANKS or blanks:
                yield start, end, SWAPS[token]


def statement_mutants(text, tokens):
    """Calls and assignments that are statements of their own, dropped."""
    depth, first = 0, None  # `first` is the token at which the statement starts
    before = None
    for i, (kind, token, start, end) in enumerate(tokens):
        starts = before in (None, ";", "{", "}", "else", "do", ":") or (before == ")" and first == "condition")
        if depth == 0 and starts:
            first = i
        if token in ("if", "while", "for", "switch") and first == i:
            first = "header"
        if token == "(":
            depth += 1
        elif token == ")":
            depth -= 1
            if depth == 0 and first == "header":
                first = "condition"
        elif token == ";" and depth == 0:
            if isinstance(first, int) and is_droppable(tokens[first:i]):
                yield tokens[first][2], end, ";"
            first = None
        before = token


def is_droppable(statement):
    if len(statement) < 3 or statement[0][0] != "word" and statement[0][1] != "*":
        return False
    words = [t[1] for t in statement]
    if words[0] in NO_STATEMENT:
        return False
    # "type name = ..." and "type *name = ..." are declarations.
    if statement[1][0] == "word" or (words[1] == "*" and words[0] != "*" and words[0][0].isalpha()):
        return False
    is_call = words[1] == "(" or (words[1] == "->" and "(" in words)
    is_assignment = any(w in ("=", "+=", "-=", "|=", "^=") for w in words)
    return is_call or is_assignment


def mutants_of(path):
    text = path.read_text()
    tokens = tokens_of(text)
    found = sorted(set(operator_mutants(text, tokens)) | set(statement_mutants(text, tokens)))
    for start, end, replacement in found:
        line_start = text.rfind("\n", 0, start) + 1
        line_end = text.find("\n", end)
        yield {
            "file": str(path.relative_to(ROOT)),
            "line": text.count("\n", 0, start) + 1,
            "before": " ".join(text[line_start:line_end].split()),
            "after": " ".join((text[line_start:start] + replacement + text[end:line_end]).split()),
            "start": start, "end": end, "replacement": replacement,
        }


def all_mutants():
    mutants = []
    for path in sorted((ROOT / "src").rglob("*.cpp")):
        mutants.extend(mutants_of(path))
    for number, mutant in enumerate(mutants, 1):
        mutant["number"] = number
    return mutants


def shown(mutant):
    return f"#{mutant['number']} {mutant['file']}:{mutant['line']}: {mutant['before']}  ->  {mutant['after']}"


# ---- Judged survivors ----

def judged_survivors():
    """How often (file, before, after) is judged: an entry has three lines and a reason, entries are apart by a
    blank line, and of equal changes each has its own."""
    judged = collections.Counter()
    if JUDGED.exists():
        for entry in JUDGED.read_text().split("\n\n"):
            lines = [line for line in entry.splitlines() if line and not line.startswith("#")]
            if len(lines) >= 3:
                judged[lines[0], lines[1].removeprefix("- "), lines[2].removeprefix("+ ")] += 1
    return judged


def key_of(mutant):
    return mutant["file"], mutant["before"], mutant["after"]


# ---- Building ----

class Build:
    """The unit tests, ready to be linked with another object in place of one of the product's."""

    def __init__(self, folder):
        self.folder = folder
        if not (folder / "build.ninja").exists():
            self.run(["cmake", "--preset", "test", "-B", str(folder), "-DCMAKE_BUILD_TYPE=None", "-DQEL_TOOLS=OFF"])
        print("building the unit tests ...", flush=True)
        self.run(["ninja", "-C", str(folder), "unit_tests"])
        commands = json.loads((folder / "compile_commands.json").read_text())
        self.commands, self.objects = {}, {}
        for command in commands:
            name = os.path.relpath(command["file"], ROOT)
            is_main = name == MAIN and "main=qel_loader_main" in command["command"]
            if name.startswith("src/") and (name != MAIN or is_main):
                words = shlex.split(command["command"])
                self.objects[name] = folder / words[words.index("-o") + 1]
                self.commands[name] = words
        self.prelink()

    @staticmethod
    def run(command):
        done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
        if done.returncode:
            sys.exit(f"error: {' '.join(command)} failed:\n{done.stdout[-3000:]}{done.stderr[-3000:]}")

    def prelink(self):
        """Everything but the product, in one object, without debug information."""
        line = next(text for text in subprocess.run(
            ["ninja", "-C", str(self.folder), "-t", "commands", "unit_tests"],
            capture_output=True, text=True, check=True).stdout.splitlines() if " -o tests/unit_tests " in text)
        words = shlex.split(line)
        self.wraps = [w for w in words if w.startswith("-Wl,--wrap")]
        sanitizers = [w for w in words if w.startswith("-fsanitize") or w == "-m32"]
        product = {str(path.relative_to(self.folder)) for path in self.objects.values()}
        rest = [w for w in words if w.endswith(".o") and w not in product]
        self.libraries = sanitizers + [w for w in words if w.endswith(".a") and not w.startswith("src/")]
        self.rest = self.folder / "mutate_rest.o"
        self.run(["ld", "-r", "--strip-debug", "-o", str(self.rest)] + [str(self.folder / w) for w in rest])
        self.ready = {name: self.resettable(path) for name, path in self.objects.items()}

    def resettable(self, made):
        """The object with its variables in the sections that the tests put back, as tests/CMakeLists.txt names them."""
        renamed = f"{made}.resettable"
        self.run(["objcopy", "--rename-section", ".data=product_data", "--rename-section", ".bss=product_bss",
                  str(made), renamed])
        return renamed

    def compile(self, mutant, text, folder):
        """Returns the object, or None when the mutant is no valid program."""
        name = mutant["file"]
        source, made = folder / "mutant.cpp", folder / "mutant.o"
        source.write_text(text)
        words = [w for w in self.commands[name] if not w.startswith(("-W", "-g", "-f", "-O")) and "ccache" not in w]
        unit = next((w.rsplit("=", 1)[1] for w in self.commands[name] if w.startswith("-fmacro-prefix-map")),
                    None) or unit_of(name)
        words[words.index("-o") + 1] = str(made)
        words[words.index("-c") + 1] = str(source)
        words += ["-w", "-O0", "-g0", f"-fmacro-prefix-map={source}={unit}"]
        if "-MF" in words:
            words[words.index("-MF") + 1] = str(folder / "mutant.d")
        done = subprocess.run(words, cwd=self.folder, capture_output=True)
        return made if done.returncode == 0 else None

    def link(self, name, made, program):
        objects = [self.resettable(made) if other == name else path for other, path in self.ready.items()]
        self.run(["c++", "-fuse-ld=lld", "-Wl,--strip-debug", "-o", str(program), str(self.rest)] + objects +
                 self.wraps + self.libraries)


def unit_of(name):
    """The unit that a file reports: its own name, or its folder's, when that is a unit."""
    path = Path(name).relative_to("src")
    return "qel_application_loader" if path.parts[0] == "qel_application_loader" else str(
        path.parent if len(path.parts) > 2 else path.with_suffix(""))


# ---- Running tests ----

def suites_of(name):
    """The test suites of a file's room: those of tests/unit/<file or unit>*_test.cpp."""
    path = Path(name)
    stems = [path.stem] + ([path.parent.name] if path.parent.name.startswith("qel_") else [])
    if path.parent.name in ("qel_filesystem", "qel_application_loader", "qel_log"):
        stems = [path.stem]
    suites = set()
    for stem in stems:
        for test in (ROOT / "tests/unit").glob(f"{stem}*_test.cpp"):
            suites |= set(re.findall(r"^TEST(?:_F)?\((\w+),", test.read_text(), re.MULTILINE))
    return sorted(suites)


def limits():
    resource.setrlimit(resource.RLIMIT_CPU, (CPU_SECONDS, CPU_SECONDS))
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_BYTES, MEMORY_BYTES))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def shelter():
    """What mutants may do to this machine, they do to a read-only copy with a /tmp of its own."""
    if os.geteuid() != 0:
        return []
    # The project itself may lie in /tmp.
    script = ("mount --make-rprivate / && mount -o bind,ro \"$0\" /mnt && mount -t tmpfs tmpfs /tmp && "
              "mkdir -p \"$0\" && mount --bind /mnt \"$0\" && mount -o bind,remount,ro / && "
              "cd /tmp && exec \"$@\"")
    return ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "sh", "-c", script, str(ROOT)]


def passes(program, test_filter, wall_seconds):
    """Runs tests. Returns "passed", "failed" or "timeout"."""
    environment = dict(os.environ, GTEST_FAIL_FAST="1", GTEST_BRIEF="1")
    process = subprocess.Popen(shelter() + [str(program), f"--gtest_filter={test_filter}"], env=environment,
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               preexec_fn=limits, start_new_session=True)
    try:
        return "passed" if process.wait(wall_seconds) == 0 else "failed"
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        return "timeout"


def test_filters(name, skipped):
    """From the room's own tests to those that take longest."""
    room = [f"{suite}.*" for suite in suites_of(name)]
    sweeps = ["*/Tape.*", "Sweep.*"]
    filters = [":".join(room)] if room else []
    filters.append("-" + ":".join(room + sweeps))
    filters.append(":".join(sweeps))
    separators = [":" if f.startswith("-") else "-" for f in filters]
    return [f + s + skipped if skipped else f for f, s in zip(filters, separators)]


def program_of(build, mutant, text, folder):
    """The unit tests with this text for the mutant's file, or None."""
    made = build.compile(mutant, text, folder)
    if made is None:
        return None
    program = folder / "unit_tests"
    build.link(mutant["file"], made, program)
    return program


def is_slow_machine(build, mutant, text, test_filter, seconds):
    """True when the unchanged product does not pass these tests in that time, now."""
    with tempfile.TemporaryDirectory(dir=build.folder, prefix="mutant-") as folder:
        outcome = passes(program_of(build, mutant, text, Path(folder)), test_filter, seconds)
    if outcome == "failed":
        sys.exit(f"error: the tests fail without any change of {mutant['file']} (filter {test_filter}); "
                 "make ./check unit pass first")
    return outcome == "timeout"


def outcome_of(build, mutant, skipped):
    text = (ROOT / mutant["file"]).read_text()
    changed = text[:mutant["start"]] + mutant["replacement"] + text[mutant["end"]:]
    with tempfile.TemporaryDirectory(dir=build.folder, prefix="mutant-") as folder:
        program = program_of(build, mutant, changed, Path(folder))
        if program is None:
            return "invalid"
        for test_filter in test_filters(mutant["file"], skipped):
            slow = test_filter.startswith(("-", "*"))
            seconds = WALL_SECONDS + (build.unchanged_seconds if slow else 0)
            outcome = passes(program, test_filter, seconds)
            while outcome == "timeout" and is_slow_machine(build, mutant, text, test_filter, seconds):
                seconds *= 2
                outcome = passes(program, test_filter, seconds)
            if outcome != "passed":
                return "killed" if outcome == "failed" else "timeout"
    return "survived"


def check_unchanged(build, names, skipped):
    """Every file, compiled as its mutants are but unchanged, must pass its room's tests, and one of them all
    tests; how long these take is kept."""
    for index, name in enumerate(names):
        started = time.monotonic()
        with tempfile.TemporaryDirectory(dir=build.folder, prefix="mutant-") as folder:
            program = program_of(build, {"file": name}, (ROOT / name).read_text(), Path(folder))
            if program is None:
                sys.exit(f"error: {name} does not compile as its mutants would")
            filters = test_filters(name, skipped)
            for test_filter in filters if index == 0 else filters[:-2]:
                if passes(program, test_filter, 3600) != "passed":
                    sys.exit(f"error: the tests fail without any change of {name} (filter {test_filter}); "
                             "make ./check unit pass first")
        if index == 0:
            build.unchanged_seconds = 2 * (time.monotonic() - started)


# ---- The command ----

def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog="Exit code: 0 when every survivor has been judged, 1 otherwise.")
    parser.add_argument("--file", metavar="REGEX", default="", help="only files whose names match")
    parser.add_argument("--sample", metavar="N", type=int, help="only N mutants, always the same ones")
    parser.add_argument("--number", metavar="N", type=int, action="append", help="only the mutant of this number")
    parser.add_argument("--jobs", metavar="N", type=int, default=1, help="mutants at the same time (1)")
    parser.add_argument("--list", action="store_true", help="list the mutants and end")
    parser.add_argument("--resume", metavar="FILE", help="keep outcomes in FILE, and leave out what it holds")
    parser.add_argument("--skip", metavar="FILTER", default="", help="tests to leave out, as --gtest_filter has them")
    parser.add_argument("--build", metavar="FOLDER", type=Path, default=ROOT / "build/mutate",
                        help="where the unit tests are built (build/mutate)")
    return parser.parse_args()


def selected(arguments):
    mutants = [m for m in all_mutants() if re.search(arguments.file, m["file"])]
    if arguments.number:
        mutants = [m for m in mutants if m["number"] in arguments.number]
    if arguments.sample:
        random.Random(1).shuffle(mutants)  # so that what an interrupted run has done is a sample, too
        mutants = mutants[:arguments.sample]
    return mutants


def known_outcomes(path):
    """The outcomes of an earlier run, by what was changed; the tests may have changed since."""
    if not path or not os.path.exists(path):
        return {}
    with open(path) as lines:
        return {tuple(entry[:4]): entry[4] for entry in map(json.loads, lines)}


def run_all(build, mutants, arguments):
    outcomes = known_outcomes(arguments.resume)
    identity = {m["number"]: (m["file"], m["start"], m["before"], m["after"]) for m in mutants}
    waiting = [m for m in mutants if identity[m["number"]] not in outcomes]
    started = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        running = {pool.submit(outcome_of, build, m, arguments.skip): m for m in waiting}
        for done, future in enumerate(concurrent.futures.as_completed(running), 1):
            mutant = running[future]
            outcomes[identity[mutant["number"]]] = future.result()
            if arguments.resume:
                with open(arguments.resume, "a") as file:
                    file.write(json.dumps(list(identity[mutant["number"]]) + [future.result()]) + "\n")
            if future.result() == "survived":
                print("survived", shown(mutant), flush=True)
            if done % 20 == 0:
                print(f"{done} of {len(waiting)}, {time.monotonic() - started:.0f} s", flush=True)
    return {m["number"]: outcomes[identity[m["number"]]] for m in mutants}


def report(mutants, outcomes):
    judged = judged_survivors()
    survivors = [m for m in mutants if outcomes[m["number"]] == "survived"]
    new = []
    for mutant in survivors:
        if judged[key_of(mutant)] <= 0:
            new.append(mutant)
        judged[key_of(mutant)] -= 1
    possible = collections.Counter(key_of(m) for m in mutants)
    for key, left in judged.items():
        if left > 0 and possible[key]:
            print("judged, but killed:", ": ".join([key[0], "  ->  ".join(key[1:])]))
    killed = sum(o in ("killed", "timeout") for o in outcomes.values())
    valid = sum(o != "invalid" for o in outcomes.values())
    for mutant in new:
        print("new survivor", shown(mutant))
    print(f"mutants: {valid}, killed: {killed} ({100 * killed / max(valid, 1):.1f} %), "
          f"of these by a limit: {sum(o == 'timeout' for o in outcomes.values())}, "
          f"survived: {len(survivors)}, judged before: {len(survivors) - len(new)}")
    print(f"new survivors: {len(new)}")
    return 1 if new else 0


def main():
    arguments = parse_arguments()
    mutants = selected(arguments)
    if not mutants:
        sys.exit("error: no file matches (--list shows what there is)")
    if arguments.list:
        print("\n".join(map(shown, mutants)))
        return 0
    build = Build(arguments.build.resolve())
    check_unchanged(build, sorted({m["file"] for m in mutants}), arguments.skip)
    return report(mutants, run_all(build, mutants, arguments))


if __name__ == "__main__":
    sys.exit(main())
