#!/usr/bin/env python3
"""Runs the session's benchmark several times and prints the medians beside the bars.

session_bench.py BUILD [--runs N] [--document]: BUILD is a release build with the benchmarks;
--document puts the table into docs/performance.md.
"""

import argparse
import json
import pathlib
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
CONTENDERS = ("session", "ZeroMQ", "nng")
BARS = {  # at most, or at least
    "there and back, median, ms": ("≤", 0.25),
    "there and back, 99 %, ms": ("≤", 4),
    "one way, one by one, connections: 1, messages/s": ("≥", 40000),
    "one way, one by one, connections: 100, messages/s": ("≥", 40000),
    "one way, together, connections: 1, messages/s": ("≥", 80000),
    "one way, together, connections: 100, messages/s": ("≥", 80000),
    "idle, % of a core": ("≤", 0.3),
}


def measure(program, runs):
    """Every figure of every run, by what it is and whose."""
    found = {}
    for run in range(runs):
        print(f"run {run + 1} of {runs}", file=sys.stderr)
        output = subprocess.run([program], check=True, capture_output=True, text=True).stdout
        for line in output.splitlines():
            one = json.loads(line)
            found.setdefault((one["what"], one["contender"]), []).append(one["value"])
    return found


def figure(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:.2g}"


def table(found):
    lines = [("Measured", *CONTENDERS, "Bar", "Reached"), ("---",) * (len(CONTENDERS) + 3)]
    for what, (relation, bar) in BARS.items():
        medians = [statistics.median(found[what, who]) if (what, who) in found else None
                   for who in CONTENDERS]
        reached = medians[0] <= bar if relation == "≤" else medians[0] >= bar
        lines.append((what, *("" if each is None else figure(each) for each in medians),
                      f"{relation} {bar:,}", "yes" if reached else "**no**"))
    return "".join("| " + " | ".join(line) + " |\n" for line in lines)


def write_document(text):
    path = ROOT / "docs" / "performance.md"
    before, rest = path.read_text(encoding="utf-8").split("<!-- session -->\n", 1)
    after = rest.split("<!-- end of session -->\n", 1)[1]
    path.write_text(f"{before}<!-- session -->\n{text}<!-- end of session -->\n{after}",
                    encoding="utf-8")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--runs", type=int, default=4)
    parser.add_argument("--document", action="store_true")
    options = parser.parse_args()
    text = table(measure(options.build / "benchmarks" / "benchsession", options.runs))
    print(text)
    if options.document:
        write_document(text)


if __name__ == "__main__":
    main()
