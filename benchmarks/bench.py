#!/usr/bin/env python3
"""Measures all contenders in turns and writes every sample to a file. Needs root, and what benchmarks/run.sh builds."""
import argparse
import os
import re
import sys

import report
from contest import run_rounds
from contests import part_contests
from loader_contests import loader_contests
from processes import make_scratch
from start_up_calls import print_start_up_calls


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=21, help="how often everything is measured (21)")
    parser.add_argument("--only", default="", metavar="REGEX", help="only what has a name that this finds")
    parser.add_argument("--results", required=True, help="the file of samples, as JSON")
    parser.add_argument("--calls", action="store_true",
                        help="instead, print the system calls of a start-up and compare them with their list")
    parser.add_argument("--limits", action="store_true",
                        help="one round of what is the same at every speed: size, memory, system calls")
    options = parser.parse_args()
    machine = report.machine()
    rounds = 1 if options.limits else options.rounds
    os.setpriority(os.PRIO_PROCESS, 0, -20)
    make_scratch()
    if options.calls:
        return print_start_up_calls()
    chosen = [contest for contest in loader_contests() + part_contests(rounds)
              if re.search(options.only, contest.name, re.IGNORECASE)
              and (not options.limits or contest.unit in ("bytes", "kB", "calls"))]
    if not chosen:
        sys.exit(f"error: no contest has a name that matches {options.only}")
    run_rounds(chosen, rounds, options.results, machine)
    return 0


if __name__ == "__main__":
    sys.exit(main())
