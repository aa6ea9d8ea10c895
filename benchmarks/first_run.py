#!/usr/bin/env python3
"""Times the first and the second ./run of a fresh clone, with an empty cache but with the packages installed.

usage: first_run.py [RESULTS]

Prints a line for each part as it ends: seconds, and what ./run said that it was doing. With RESULTS, adds the parts to
that file of results (benchmarks/run.sh). Takes as long as the kernel takes to build.
"""
import json
import os
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from contest import write_results

PROJECT = Path(__file__).resolve().parent.parent
LOADER = "QEL Loader..."
LIMITS_S = {"first ./run: all, to the loader's first line": 300, "second ./run: all, to the loader's first line": 4}


def parts_of_run(name, clone, environment):
    """Yields name and seconds of each part of one ./run, up to the loader's first line, and of the whole."""
    with subprocess.Popen(["./run", "--plain", "--seconds", "5"], cwd=clone, env=environment, text=True,
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as run:
        start = began = time.monotonic()
        part = "checking what is there"
        for line in run.stdout:
            now = time.monotonic()
            yield f"{name}: {part}", now - began
            part, began = re.sub(r", in /\S+", "", line).strip().rstrip(".").strip(), now
            if LOADER in line:
                yield f"{name}: all, to the loader's first line", now - start
                break
        else:
            sys.exit(f"error: {name} did not show the loader; its last line was: {part}")
        run.stdout.read()


def main(words):
    if words == ["--help"]:
        print(__doc__.strip())
        return 0
    if len(words) > 1 or not all(Path(word).is_file() for word in words):
        print("error: RESULTS must be one existing file of results; first_run.py --help shows how", file=sys.stderr)
        return 2
    contests = []
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["git", "clone", "-q", PROJECT, f"{folder}/clone"], check=True)
        environment = os.environ | {"HOME": folder, "XDG_CACHE_HOME": f"{folder}/cache"}
        for name in "first ./run", "second ./run":
            for part, seconds in parts_of_run(name, f"{folder}/clone", environment):
                print(f"{seconds:7.1f} s  {part}", flush=True)
                limit = {"limit": LIMITS_S[part]} if part in LIMITS_S else {}
                contests.append({"name": part, "unit": "s",
                                 "contenders": [{"name": "product", "samples": [seconds]}]} | limit)
    if words:
        results = json.loads(Path(words[0]).read_text(encoding="utf-8"))
        kept = [contest for contest in results["contests"] if " ./run: " not in contest["name"]]
        write_results(words[0], results["machine"], results["rounds"], kept + contests)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
