#!/usr/bin/env python3
"""Writes FOLDER/style.ninja, in which looking at each source file is a step: ninja takes again what has changed.

usage: tools/style_steps.py FOLDER

FOLDER is a build folder that CMake has configured for clang++ with all parts. The product, the tools, benchmarks
and examples are given to clang-tidy, which has the compiler's warnings among its own; tests to the compiler alone,
without making code. Fails for a source file that no target is made of.
"""
import json
import pathlib
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
# The fuzz targets are compiled by clang++ in the tier fuzz, the other by g++ in the tier i586.
ELSEWHERE = ("tests/fuzz/", "tests/support/fake_kernel_32bit.cpp")
# Built by others than this build folder, or as a part of the tests; looked at as a part of the product.
LIKE_THE_PRODUCT = ("examples/", "src/i586_division.cpp")
PRECOMPILED = "cmake_pch.hxx.cxx"

# What clang-tidy says besides its findings is a number of warnings in the headers of others.
RULES = """\
rule precompile
  command = $flags -MD -MF $out.d -o $out -c $in
  depfile = $out.d
  deps = gcc
  description = clang++ $in
rule compile
  command = $flags -fsyntax-only -MD -MF $out.d -MT $out $in && touch $out
  depfile = $out.d
  deps = gcc
  description = clang++ $in
rule tidy
  command = $flags -M -MF $out.d -MT $out $in && $
    { clang-tidy --quiet $in -- $flags >$out.log 2>&1 || { cat $out.log; false; }; } && touch $out
  depfile = $out.d
  deps = gcc
  description = clang-tidy $in
"""


def flags_of(command):
    """The command without its files."""
    words, kept = iter(shlex.split(command)), []
    for word in words:
        if word in ("-o", "-c"):
            next(words)
        else:
            kept.append(word)
    return kept


def step(folder, source, flags):
    """The lines of one step. A path is relative to the tree, where there is one."""
    name = source.relative_to(ROOT) if source.is_relative_to(ROOT) else source
    needs = [word for word in flags if word.endswith(".pch")]
    output = folder / "style" / f"{name}.done"
    rule = "compile"
    if source.name == PRECOMPILED:
        rule, output = "precompile", source.with_suffix(".pch")
    elif name.parts[0] != "tests":
        rule, needs = "tidy", [".clang-tidy", "src/.clang-tidy"]
    output.parent.mkdir(parents=True, exist_ok=True)
    text = shlex.join(flags).replace("$", "$$")
    return f"build {output}: {rule} {name} | {' '.join(needs)}\n  flags = {text}\n"


def main(words):
    if words == ["--help"]:
        print(__doc__.strip())
        return 0
    if len(words) != 1:
        print("error: name the build folder (--help tells more)", file=sys.stderr)
        return 2
    folder = pathlib.Path(words[0]).resolve()
    commands = {}
    for entry in json.loads((folder / "compile_commands.json").read_text()):
        commands.setdefault(pathlib.Path(entry["file"]), flags_of(entry["command"]))
    product_flags = commands[ROOT / "src/qel_utility/qel_string.cpp"]
    tracked = subprocess.run(["git", "ls-files", "*.cpp"], cwd=ROOT, capture_output=True, text=True, check=True)
    for name in tracked.stdout.split():
        if name.startswith(LIKE_THE_PRODUCT):
            commands[ROOT / name] = product_flags
        elif (ROOT / name).exists() and not name.startswith(ELSEWHERE) and ROOT / name not in commands:
            print(f"error: {name} is in no target; add it to a CMakeLists.txt, or remove it", file=sys.stderr)
            return 1
    steps = [step(folder, source, flags) for source, flags in commands.items()]
    (folder / "style.ninja").write_text(f"builddir = {folder}/style\n{RULES}{''.join(steps)}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
