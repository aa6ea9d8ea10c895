#!/usr/bin/env python3
"""Reads the results of a run (benchmarks/run.sh) and makes tables of medians and ratios from them.

usage: report.py RESULTS                 print every figure as a Markdown table; exit code 1 when a goal is missed
       report.py RESULTS --into DOCUMENT replace the document's table by one line for each goal
"""
import datetime
import json
import os
import platform
import re
import statistics
import sys
from pathlib import Path

MARKS = ("<!-- results: made by benchmarks/report.py -->\n", "<!-- end of results -->\n")


def machine():
    """What the results say about this computer."""
    def first(path, pattern):
        return re.search(pattern, Path(path).read_text(encoding="utf-8"))[1]
    return {"date": datetime.date.today().isoformat(),
            "processor": f"{os.cpu_count()} x " + first("/proc/cpuinfo", r"model name\s*: (.*)"),
            "memory": first("/proc/meminfo", r"MemTotal:\s*(.*)"),
            "system": first("/etc/os-release", r'PRETTY_NAME="(.*)"') + ", Linux " + platform.release().split("-")[0],
            "load average at the start": round(os.getloadavg()[0], 2)}


def number(value):
    """Three significant digits."""
    return f"{value:.0f}" if abs(value) >= 1000 else f"{value:#.3g}".rstrip(".") if value else "0"


def ratios(contest, peer):
    """Quartiles of product over peer, round by round."""
    values = [a / b for a, b in zip(contest["contenders"][0]["samples"], peer["samples"])]
    return statistics.quantiles(values, n=4, method="inclusive") if len(values) > 1 else values * 3


def rows(contest):
    """A row for the product and each peer: what, figure, peer, its figure, ratio, middle half, goal, met, remark."""
    product, *peers = contest["contenders"]
    if not product["samples"]:
        return
    median, unit = statistics.median(product["samples"]), contest["unit"]
    limit = contest.get("limit")
    if limit is not None or not peers:
        yield (contest["name"], f"{number(median)} {unit}", "", "", "", "",
               "" if limit is None else f"at most {number(limit)} {unit}", limit is None or median <= limit, "")
    for peer in peers:
        low, middle, high = ratios(contest, peer)
        goal = peer.get("ratio_max")
        yield (contest["name"], f"{number(median)} {unit}", peer["name"],
               f"{number(statistics.median(peer['samples']))} {unit}", number(middle), f"{number(low)} to {number(high)}",
               "" if goal is None else f"at most {number(goal)}", goal is None or middle <= goal, peer.get("remark", ""))


def table(results, goals_only):
    """Markdown, with a head that describes the computer."""
    lines = [f"- {key}: {value}" for key, value in results["machine"].items()] + [f"- rounds: {results['rounds']}", ""]
    lines += ["| what | product | compared with | its figure | ratio | middle half | goal | |", "|---|---|---|---|---|---|---|---|"]
    for contest in results["contests"]:
        for *cells, goal, met, remark in rows(contest):
            if goal or not goals_only:
                verdict = "" if not goal else "met" if met else "**missed**"
                lines.append("| " + " | ".join([*cells, goal, "; ".join(filter(None, [verdict, remark]))]) + " |")
    return "\n".join(lines) + "\n"


def main(words):
    if len(words) not in (1, 3) or words[0].startswith("-") or words[1:2] not in ([], ["--into"]):
        print(__doc__.strip(), file=sys.stdout if words == ["--help"] else sys.stderr)
        return 0 if words == ["--help"] else 2
    results = json.loads(Path(words[0]).read_text(encoding="utf-8"))
    if len(words) == 3:
        document = Path(words[2])
        before, rest = document.read_text(encoding="utf-8").split(MARKS[0])
        document.write_text(before + MARKS[0] + "\n" + table(results, True) + "\n" + MARKS[1] + rest.split(MARKS[1])[1],
                            encoding="utf-8")
        return 0
    print(table(results, False))
    missed = [row for contest in results["contests"] for row in rows(contest) if not row[7]]
    for row in missed:
        print(f"error: goal missed: {row[0]}, {row[6]}", file=sys.stderr)
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
