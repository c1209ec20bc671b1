"""Turns runs of the benchmark programs into one JSON file, a Markdown table and SVG plots.

A figure is the median of the runs, and beside it stand the lowest and the highest of them. A bar is
held when every run holds it.
"""

import argparse
import json
import math
import os
import platform
import statistics
import subprocess

SIZES = (16, 1024, 65536, 1048576)
PEERS = ("bare", "Asio", "ZeroMQ", "nng")
NAMES = {"bare": "the bare loop"}
KEYS = ("random_int", "ascending_int", "text")
COUNTS = (100, 10000, 1000000)
CHANGES = ("insert", "hit", "miss", "remove")

ONE_WAY_BARS = dict(zip(SIZES, (0.80, 0.86, 0.97, 0.97)))  # of the bare rate
WAIT_BARS = {"all_ready": 1.18, "one_in_ten_ready": 1.25}  # of the bare time, with 450 connections
INSTRUCTION_BARS = {"send": 275, "receive": 975,
                    "queue_and_transmit": 515, "wait_and_receive": 1650}
FOR_THE_RULES = 1.03  # what the rules of numbers that come back may add to these


def counters(folder):
    """The median aggregate of every benchmark by its name, single runs as they are."""
    found = {}
    for name in sorted(os.listdir(folder)):
        if name.endswith(".json"):
            with open(os.path.join(folder, name), encoding="utf-8") as file:
                for run in json.load(file)["benchmarks"]:
                    if run.get("aggregate_name", "median") == "median":
                        found[run["run_name"].split("/iterations")[0]] = run
    with open(os.path.join(folder, "instructions.txt"), encoding="utf-8") as file:
        for path, count in map(str.split, file):
            found["instructions/" + path] = {"count": int(count)}
    return found


class Runs:
    def __init__(self, folders):
        self.all = [counters(folder) for folder in folders]

    def has(self, name, counter):
        return all(counter in run.get(name, ()) for run in self.all)

    def each(self, name, counter):
        return [run[name][counter] for run in self.all]

    def median(self, name, counter):
        return statistics.median(self.each(name, counter))

    def time(self, name, counter):
        return duration(self.median(name, counter))


def duration(nanoseconds):
    for unit, size in (("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def inverse(values):
    return [1 / value for value in values]


def mean(values):
    """The geometric one."""
    return math.exp(sum(map(math.log, values)) / len(values))


class Table:
    HEAD = ("Row", "Measured", "Library", "Result", "Runs", "Bar", "Held")

    def __init__(self):
        self.rows = []

    def add(self, row, what, own, values, unit, form=".2f", least=None, most=None):
        """`values` has one of each run."""
        held = [(least is None or value >= least) and (most is None or value <= most)
                for value in values]
        bar = verdict = ""
        if least is not None or most is not None:
            bar = f"≥ {least:{form}}" if most is None else f"≤ {most:{form}}"
            verdict = "yes" if all(held) else f"**in {sum(held)} of {len(held)}**"
        middle = format(statistics.median(values), form)
        spread = f"{min(values):{form}} to {max(values):{form}}" if len(values) > 1 else ""
        self.rows.append((row, what, own, f"{middle} {unit}", spread, bar, verdict))

    def text(self):
        lines = [self.HEAD, tuple("---" for _ in self.HEAD), *self.rows]
        return "".join("| " + " | ".join(line) + " |\n" for line in lines)


def add_one_way(table, runs):
    for size in SIZES:
        name = f"one_way/{size}"
        own = runs.time(name, "ns:message:library")
        for peer in PEERS:
            if not runs.has(name, f"ratio:message:{peer}"):
                continue
            ahead = 1 if size >= 65536 and peer in ("ZeroMQ", "nng") else None
            table.add("one way", f"{size} B against {NAMES.get(peer, peer)}", own,
                      runs.each(name, f"ratio:message:{peer}"), "of its rate",
                      least=ONE_WAY_BARS[size] if peer == "bare" else ahead)


def add_there_and_back(table, runs):
    for form, tuned in (("there_and_back", ""), ("there_and_back_marked", ", low-water mark")):
        for size in SIZES[:2]:
            name = f"{form}/{size}"
            own = (f"{runs.time(name, 'ns:median:library')}, "
                   f"99 %: {runs.time(name, 'ns:p99:library')}")
            for peer in PEERS:
                if runs.has(name, f"ratio:median:{peer}"):
                    table.add("there and back",
                              f"{size} B against {NAMES.get(peer, peer)}{tuned}", own,
                              inverse(runs.each(name, f"ratio:median:{peer}")), "of its time",
                              most={"bare": 1.08, "ZeroMQ": 1, "nng": 1}.get(peer))


def add_cycle(table, runs):
    for ready, bar in WAIT_BARS.items():
        for count in (1, 10, 100, 450):
            name = f"cycle/{ready}/{count}"
            table.add("cycle", f"{count} connections, {ready.replace('_', ' ')}, each",
                      runs.time(name, "ns:connection:library"),
                      inverse(runs.each(name, "ratio:connection:bare")), "of the bare time",
                      most=bar if count == 450 else None)
    table.add("cycle", "a connection of 450 against one of 10",
              runs.time("cycle/growth", "ns:connection:of 450"),
              runs.each("cycle/growth", "ratio:connection:of 450"), "of its time", most=1.5)


def map_ratios(run, operations, keys=KEYS, counts=COUNTS):
    return [run[f"map/{key}/{count}"][f"ratio:{operation}:std::map"]
            for key in keys for count in counts for operation in operations]


def add_map(table, runs):
    def add(what, own, ratios, **bar):
        table.add("map", what, own, [ratios(run) for run in runs.all], "of the speed of std::map",
                  **bar)

    for key in KEYS:
        for count in COUNTS:
            name = f"map/{key}/{count}"
            height = f"height {runs.median(name, 'height'):.0f}"
            optimum = f"{runs.median(name, 'optimum'):.0f} at best"
            add(f"{count} {key.replace('_', ' ')} keys", f"{height}, {optimum}",
                lambda run, key=key, count=count: mean(map_ratios(run, CHANGES, [key], [count])))
    add("all of these", "", lambda run: mean(map_ratios(run, CHANGES)), least=1.1)
    add("the slowest operation, of every kind and number of keys", "",
        lambda run: min(map_ratios(run, CHANGES)), least=0.7)
    add("a walk", "", lambda run: mean(map_ratios(run, ["walk"])))


def add_lock(table, runs):
    counts = (16, 64, 256, 500)
    for count in counts:
        name = f"lock/threads_send_once/{count}"
        own, standard = (runs.each(name, f"switches:{kind}") for kind in ("library", "std::mutex"))
        table.add("lock", f"{count} threads that each send once, each",
                  f"{statistics.median(own):.1f} context switches",
                  [ours / theirs for ours, theirs in zip(own, standard)],
                  "of those of std::mutex", most=4)
    few, many = (runs.each(f"lock/threads_send_once/{count}", "ns:processor:library")
                 for count in (counts[0], counts[-1]))
    table.add("lock", f"a thread of {counts[-1]} against one of {counts[0]}",
              duration(statistics.median(many)),
              [large / small for large, small in zip(many, few)], "of its processor time", most=2)


def add_rest(table, runs):
    for name, what in (("inbox/retrieve_half", "inbox: retrieving half"),
                       ("queue/query_all", "pending queue: asking for all")):
        table.add("inbox, queue", f"{what}, a record of 100,000 against one of 1,000",
                  runs.time(name, "ns:record:100000"), runs.each(name, "ratio:record:100000"),
                  "of its time", most=2)
    for path, count in INSTRUCTION_BARS.items():
        if runs.has(f"instructions/{path}", "count"):
            table.add("one message", path.replace("_", " "), "",
                      runs.each(f"instructions/{path}", "count"), "instructions", ".0f",
                      most=math.floor(count * FOR_THE_RULES))
    late = [measured - implied for measured, implied in zip(
        runs.each("task/latency", "ms:measured:99"), runs.each("task/latency", "ms:implied:99"))]
    table.add("message task", "queue to inbox, 99 %",
              f"{runs.median('task/latency', 'ms:measured:99'):.0f} ms", late,
              "ms later than implied", ".1f", most=5)
    table.add("message task", "idle", "", runs.each("task/idle", "percent:idle"), "% of a core",
              ".3f", most=0.2)


PLOT = """set terminal svg size 760,420 font 'sans-serif,12' background 'white'
set output '{path}'
set title '{title}'
set ylabel '{ylabel}'
set grid ytics
set key outside top center horizontal Left reverse
{setup}
plot {curves}
"""


def plot(folder, name, title, ylabel, setup, columns, rows):
    """A curve for each column after the first; rows are lists of texts."""
    data = os.path.join(folder, name + ".dat")
    with open(data, "w", encoding="utf-8") as file:
        file.writelines(" ".join(row) + "\n" for row in rows)
    style = "" if "histogram" in setup else "with linespoints"
    using = "{0}:xtic(1)" if "histogram" in setup else "1:{0}"
    curves = ", ".join(f"'{data}' using {using.format(i + 2)} {style} title '{column}'"
                       for i, column in enumerate(columns))
    path = os.path.join(folder, name + ".svg")
    script = PLOT.format(path=path, title=title, ylabel=ylabel, setup=setup, curves=curves)
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


BARS = "set style data histogram\nset style fill solid\nset boxwidth 0.9"


def plot_all(folder, runs):
    peers = [peer for peer in ("library",) + PEERS
             if runs.has("one_way/16", f"ns:message:{peer}")]
    plot(folder, "one_way", "One message, one way", "microseconds", BARS + "\nset logscale y",
         peers, [[f'"{size} B"'] + [str(runs.median(f"one_way/{size}", f"ns:message:{peer}") / 1e3)
                                     for peer in peers] for size in SIZES])
    plot(folder, "cycle", "A cycle, all connections ready", "microseconds a connection",
         "set logscale x\nset yrange [0:]\nset xlabel 'connections'",
         ("library", "bare"),
         [[str(count)] + [str(runs.median(f"cycle/all_ready/{count}", f"ns:connection:{who}") / 1e3)
                          for who in ("library", "bare")] for count in (1, 10, 100, 450)])
    operations = CHANGES + ("walk",)
    plot(folder, "map", "The ordered map beside std::map", "speed, std::map = 1",
         BARS + "\nset xtics rotate by -30\nset yrange [0:]", operations,
         [[f'"{key.replace("_", " ")} {count}"'] +
          [str(runs.median(f"map/{key}/{count}", f"ratio:{operation}:std::map"))
           for operation in operations]
          for key in KEYS for count in COUNTS])
    plot(folder, "task", "From queue to inbox", "milliseconds", "set xlabel 'per cent of messages'",
         ("measured", "implied by waits and sleeps"),
         [[counter[-2:], str(runs.median("task/latency", counter)),
           str(runs.median("task/latency", counter.replace("measured", "implied")))]
          for counter in sorted(runs.all[0]["task/latency"]) if counter.startswith("ms:measured:")])


def machine():
    compiler = subprocess.run(["g++", "-dumpfullversion"], capture_output=True, text=True,
                              check=True).stdout.strip()
    return (f"{os.cpu_count()} cores ({platform.machine()}), Linux "
            f"{'.'.join(platform.release().split('.')[:2])}, g++ {compiler}")


def write_document(root, plots, text):
    path = os.path.join(root, "docs", "performance.md")
    with open(path, encoding="utf-8") as file:
        before, rest = file.read().split("<!-- results -->\n", 1)
        after = rest.split("<!-- end of results -->\n", 1)[1]
    with open(path, "w", encoding="utf-8") as file:
        file.write(f"{before}<!-- results -->\n{text}<!-- end of results -->\n{after}")
    for name in ("one_way", "cycle", "map", "task"):
        with open(os.path.join(plots, name + ".svg"), encoding="utf-8") as source:
            with open(os.path.join(root, "docs", "images", name + ".svg"), "w",
                      encoding="utf-8") as target:
                target.write(source.read())


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--input", required=True, nargs="+", help="a folder for each run")
    for name in ("--output", "--plots", "--root"):
        parser.add_argument(name, required=True)
    parser.add_argument("--document", action="store_true")
    options = parser.parse_args()

    runs = Runs(options.input)
    table = Table()
    for add in (add_one_way, add_there_and_back, add_cycle, add_map, add_lock, add_rest):
        add(table, runs)
    plot_all(options.plots, runs)
    count = len(runs.all)
    times = "once" if count == 1 else f"in {count} runs"
    text = f"Measured {times} on {machine()}.\n\n{table.text()}"

    with open(options.output, "w", encoding="utf-8") as file:
        json.dump({"machine": machine(), "runs": runs.all}, file, indent=1)
    with open(os.path.splitext(options.output)[0] + ".md", "w", encoding="utf-8") as file:
        file.write(text)
    if options.document:
        write_document(options.root, options.plots, text)
    print(text)
    print(f"Written: {options.output}, the table beside it, plots in {options.plots}")


if __name__ == "__main__":
    main()
