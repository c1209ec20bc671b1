#!/usr/bin/env python3
"""Measures the session beside other messaging libraries, and prints each row beside its bar.

session_bench.py BUILD [--runs N] [--only tls | [--document] [--smoke]]: BUILD is a release build with the
benchmarks; --only tls takes what is protected alone; --document puts the table into
docs/performance.md; --smoke takes short runs, whose figures mean nothing, to try all of this.
"""

import argparse
import collections
import json
import os
import pathlib
import platform
import re
import resource
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
INCLUDES = ("KLVBase/ProtectedInterfaces", "KLVBase/Containers",
            "KLVMsgCommServices/ProtectedInterfaces", "KLVMsgKit/ProtectedInterfaces")

SESSION, TOGETHER = "session", "session, together"

# One line of the table. A figure is had by what it is and whose. Without `against` the bar is for the
# figure itself, and the other contenders' stand beside it; otherwise for its ratio to that one's.
Row = collections.namedtuple("Row", "title what who against relation bar unit words")


def rate(title, what, who, against, bar=None):
    return Row(title, what, who, against, "≥", bar, "{:,.0f}/s", "of the rate")


def time(title, what, who, against, bar=None, unit="{:.1f} µs"):
    return Row(title, what, who, against, "≤", bar, unit, "of the time")


def itself(title, what, bar, unit):
    return Row(title, what, SESSION, None, "≤", bar, unit, "")


def short_rows():
    for connections, bar_one, bar_all in ((1, 1.3, 1.5), (100, 1.0, 1.1)):
        what = f"one way, 16 B, connections: {connections}"
        for title, who, bar in (("one by one", SESSION, bar_one), ("together", TOGETHER, bar_all)):
            yield rate(f"{what}, {title}", what, who, "ZeroMQ", bar)
            yield rate(f"{what}, {title}", what, who, "nng")
    what = "one way, 16 B, MTU 1,500"
    for option, suffix, bar in (("on", "", 0.5), ("off", ", wholeHeaders off", 1.0)):
        for title, who in (("one by one", SESSION), ("together", TOGETHER)):
            full = f"{what}, `wholeHeaders` {option}, {title}"
            yield rate(full, what, who + suffix, "ZeroMQ", bar)
            yield rate(full, what, who + suffix, "nng")


def long_rows():
    for kibibytes in (1, 64, 1024):
        what = f"one way, {kibibytes} KiB"
        for against, bar in (("ZeroMQ", 1.0), ("nng", 1.0), ("by hand", 0.9)):
            if kibibytes >= 64 or against != "by hand":
                yield rate(what, what, SESSION, against, bar)


def trip_rows():
    median, high = "there and back, 16 B, median", "there and back, 16 B, 99 %"
    yield time(median, median, SESSION, "ZeroMQ", 0.85)
    yield time(median, median, SESSION, "nng")
    yield time(high, high, SESSION, "ZeroMQ", 1.0)
    yield time(high, high, SESSION, "nng")
    for idle in (1000, 5000):
        who = f"session, idle connections: {idle}"
        yield time(f"{median}, beside {idle:,} idle connections", median, who, SESSION, 1.1)
    waiting = "256 threads waiting"
    yield time(f"{median}, beside {waiting}", median, f"session, {waiting}", SESSION, 1.2)


def asking_rows():
    median, many = "asking, 16 B, median", "asking, 16 B, 64 askers"
    for against in ("ZeroMQ", "nng"):
        yield time(median, median, SESSION, against, 0.85)
        yield rate(many, many, SESSION, against, 1.5)


def tls_rows():
    for size in ("16 B", "64 KiB"):
        what = f"one way over TLS, {size}"
        yield rate(f"{what}, one by one", what, SESSION, "by hand", 0.9)
        yield rate(f"{what}, together", what, TOGETHER, "by hand", 0.9)
        yield rate(f"{what}, together", what, TOGETHER, "session, plain")
    what = "there and back over TLS, 16 B, median"
    yield time(what, what, SESSION, "session, plain", 1.15)


ROWS = [
    *short_rows(),
    rate("one way, 16 B, 16 threads posting to one peer", "one way, 16 B, connections: 1",
         "session, together, 16 threads", TOGETHER, 0.8),
    *long_rows(),
    *trip_rows(),
    *asking_rows(),
    *tls_rows(),
    itself("memory of an idle connection", "memory of an idle connection", 2048, "{:,.0f} B"),
    itself("memory of a session", "memory of a session", 1 << 20, "{:,.0f} B"),
    itself("idle, of a core", "idle", 0.01, "{:.4f} %"),
    time("first program, compile time", "compile time", SESSION, "bare interface", 2, "{:.2f} s"),
    itself("first program, stripped", "size", 30000, "{:,.0f} B"),
]


def run_program(program, argument=None):
    """What a benchmark prints: each turn's figure of everybody, in order."""
    arguments = [program] + ([argument] if argument else [])
    output = subprocess.run(arguments, check=True, stdout=subprocess.PIPE, text=True).stdout
    for line in output.splitlines():
        one = json.loads(line)
        yield one["what"], one["who"], one["value"]


def first_programs():
    """The README's first program, and the guide's, which is the same on the bare interface."""
    def program(page, header):
        blocks = re.findall(r"```cpp\n(.*?)\n```", (ROOT / page).read_text(encoding="utf-8"), re.S)
        return next(b for b in blocks if f"#include <{header}>" in b and "int main(" in b) + "\n"
    return {SESSION: program("README.md", "KLVMsgSession.h"),
            "bare interface": program("docs/bare-first.md", "KLVMsgCommModules.h")}


def cpu_time(command):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(command, check=True)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def compiler_of(build):
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    return re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", cache, re.M).group(1)


def compile_programs(build, smoke):
    compiler = [compiler_of(build), "-std=c++17", "-O2"]
    includes = [f"-I{ROOT / folder}" for folder in INCLUDES]
    with tempfile.TemporaryDirectory() as folder:
        for turn in range(1 if smoke else 5):
            for number, (who, text) in enumerate(first_programs().items()):
                source = pathlib.Path(folder, f"{number}.cpp")
                source.write_text(text, encoding="utf-8")
                command = [*compiler, *includes, "-c", source, "-o", source.with_suffix(".o")]
                yield "compile time", who, cpu_time(command)
        libraries = [next(build.rglob(f"lib{name}.so"))
                     for name in ("KLVMsgKit", "KLVMsgCommModules", "KLVBase")]
        linked = pathlib.Path(folder, "first")
        subprocess.run([*compiler, "-s", pathlib.Path(folder, "0.o"), *libraries, "-o", linked],
                       check=True)
        yield "size", SESSION, os.path.getsize(linked)


def measure(build, smoke, only=None):
    """All figures of one run: a list of turns for each."""
    found = collections.defaultdict(list)
    programs = build / "benchmarks"
    argument = "--smoke" if smoke else None
    sources = [run_program(programs / "benchsession", only or argument)]
    if only is None:
        sources += [run_program(programs / "benchsessionmemory", argument),
                    compile_programs(build, smoke)]
    for source in sources:
        for what, who, value in source:
            found[what, who].append(value)
    return found


def result_of(row, run):
    """What a run has for the bar: the figure, or the median ratio of the turns. None: left out."""
    own, other = run.get((row.what, row.who)), run.get((row.what, row.against))
    if own is None or row.against and other is None:
        return None
    if row.against is None:
        return statistics.median(own)
    return statistics.median(mine / yours for mine, yours in zip(own, other))


def figure(row, who, runs):
    values = [statistics.median(run[row.what, who]) for run in runs if (row.what, who) in run]
    return row.unit.format(statistics.median(values)) if values else ""


def beside(row, runs):
    """Whose figure, and what it is: of the one it is compared with, or of all others."""
    if row.against is not None:
        name = {SESSION: "alone", TOGETHER: "one thread"}.get(row.against, row.against)
        return f"{name}: {figure(row, row.against, runs)}"
    others = sorted({who for run in runs for what, who in run if what == row.what} - {row.who})
    return ", ".join(f"{who}: {figure(row, who, runs)}" for who in others)


def held(row, results):
    if row.bar is None:
        return ""
    good = sum(r <= row.bar if row.relation == "≤" else r >= row.bar for r in results)
    return "yes" if good == len(results) else f"**in {good} of {len(results)}**"


def line(row, runs):
    results = [result for run in runs if (result := result_of(row, run)) is not None]
    if not results:
        return (row.title, "left out", "", "", "", "", "")
    unit = "{:.2f}" if row.against else row.unit
    median, low, high = (unit.format(f(results)) for f in (statistics.median, min, max))
    bar = "" if row.bar is None else f"{row.relation} {unit.format(row.bar)}"
    return (row.title, figure(row, row.who, runs), beside(row, runs), f"{median} {row.words}".strip(),
            f"{low} to {high}", bar, held(row, results))


def table(build, runs, smoke, rows):
    version = subprocess.run([compiler_of(build), "--version"], check=True, capture_output=True,
                             text=True).stdout.splitlines()[0]
    kind = "short runs, whose figures mean nothing" if smoke else "runs"
    lines = [("Row", "Session", "Beside", "Result", "Runs", "Bar", "Held"), ("---",) * 7]
    lines += [line(row, runs) for row in rows]
    return (f"Measured in {len(runs)} {kind}, on {os.cpu_count()} cores ({platform.machine()}), "
            f"Linux {'.'.join(platform.release().split('.')[:2])}, {version}.\n\n" +
            "".join("| " + " | ".join(each) + " |\n" for each in lines))


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
    parser.add_argument("--only", choices=["tls"])
    parser.add_argument("--document", action="store_true")
    parser.add_argument("--smoke", action="store_true")
    options = parser.parse_args()
    if options.only and (options.smoke or options.document):
        parser.error("--only is for runs of full length whose rows are printed")  # the page has all rows
    runs = []
    for run in range(options.runs):
        print(f"session, run {run + 1} of {options.runs}", file=sys.stderr)
        runs.append(measure(options.build, options.smoke, options.only))
    rows = list(tls_rows()) if options.only else ROWS
    text = table(options.build, runs, options.smoke, rows)
    print(text)
    if options.document:
        write_document(text)


if __name__ == "__main__":
    main()
