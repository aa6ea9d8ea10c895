"""A contest: the product and its peers at one job, each measured once a round, in turns. Figures of the same round are
compared with each other, so that a busy computer disturbs all of them alike."""
import dataclasses
import json
import sys
from pathlib import Path


@dataclasses.dataclass
class Contender:
    name: str
    measure: object                  # prepares, measures once and cleans up; returns the contest's unit
    ratio_max: float | None = None   # highest allowed ratio of product to this peer, if it has a goal
    remark: str = ""                 # what explains its figure
    samples: list = dataclasses.field(default_factory=list)


@dataclasses.dataclass
class Contest:
    name: str
    unit: str
    contenders: list            # the product is the first
    limit: float | None = None  # highest allowed figure of the product itself
    every: int = 1              # it takes part in every Nth round
    once: bool = False          # it does not vary: it takes part in the first round only


def measure(contest, turn):
    """Each turn begins with another contender, so that none always has the same one before it."""
    first = turn % len(contest.contenders)
    for contender in contest.contenders[first:] + contest.contenders[:first]:
        contender.samples.append(contender.measure())


def entry_of(contest):
    """What the file of results has of a contest."""
    contenders = [{"name": one.name, "samples": one.samples}
                  | ({} if one.ratio_max is None else {"ratio_max": one.ratio_max})
                  | ({"remark": one.remark} if one.remark else {}) for one in contest.contenders]
    return {"name": contest.name, "unit": contest.unit, "contenders": contenders} | (
        {} if contest.limit is None else {"limit": contest.limit})


def write_results(path, machine, rounds, entries):
    """A line for each contest."""
    head = json.dumps({"machine": machine, "rounds": rounds})[:-1]
    lines = ",\n".join(json.dumps(entry) for entry in entries)
    Path(path).write_text(f'{head}, "contests": [\n{lines}\n]}}\n', encoding="utf-8")


def run_rounds(contests, rounds, results, machine):
    """Runs the rounds. After each of them the file `results` has all samples so far."""
    for turn in range(rounds):
        for contest in contests:
            print(f"round {turn + 1} of {rounds}: {contest.name}", file=sys.stderr)
            if turn == 0 if contest.once else turn % contest.every == 0:
                measure(contest, turn // contest.every)
        write_results(results, machine, turn + 1, map(entry_of, contests))
