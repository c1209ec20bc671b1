"""Turns what the benchmark programs wrote into one JSON file, a Markdown table and SVG plots."""

import argparse
import json
import math
import os
import platform
import subprocess

SIZES = (16, 1024, 65536, 1048576)
PEERS = ("bare", "Asio", "ZeroMQ", "nng")


def medians(folder):
    """The median aggregate of every benchmark by its name, single runs as they are."""
    found = {}
    for name in sorted(os.listdir(folder)):
        if name.endswith(".json"):
            with open(os.path.join(folder, name), encoding="utf-8") as file:
                for run in json.load(file)["benchmarks"]:
                    if run.get("aggregate_name", "median") == "median":
                        found[run["run_name"].split("/iterations")[0]] = run
    return found


def duration(nanoseconds):
    for unit, size in (("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


class Table:
    def __init__(self):
        self.rows = []

    def add(self, row, what, value, against, bar="", met=None):
        verdict = "" if met is None else "yes" if met else "**no**"
        self.rows.append((row, what, value, against, bar, verdict))

    def text(self):
        head = ("Row", "Measured", "Library", "Result", "Bar", "Reached")
        lines = [head, tuple("---" for _ in head), *self.rows]
        return "".join("| " + " | ".join(line) + " |\n" for line in lines)


def add_exchange(table, runs):
    for size in SIZES:
        run = runs[f"one_way/{size}"]
        own = duration(run["ns:message:library"])
        ratio = run["ratio:message:bare"]
        table.add("one way", f"{size} B against the bare loop", own, f"{ratio:.2f} of its rate",
                  "0.92", ratio >= 0.92)
        for peer in PEERS[1:]:
            if f"ratio:message:{peer}" in run:
                ratio = run[f"ratio:message:{peer}"]
                bound = run["ns:message:bare"] < run[f"ns:message:{peer}"]
                table.add("one way", f"{size} B against {peer}", own, f"{ratio:.2f} of its rate",
                          "ahead" if bound else "", ratio > 1 if bound else None)
    for name, tuned in (("there_and_back", ""), ("there_and_back_marked", ", low-water mark")):
        for size in SIZES[:2]:
            run = runs[f"{name}/{size}"]
            p99 = duration(run["ns:p99:library"])
            for peer in PEERS:
                if f"ratio:median:{peer}" not in run:
                    continue
                ratio = 1 / run[f"ratio:median:{peer}"]
                bar = {"bare": 1.08, "ZeroMQ": 1, "nng": 1}.get(peer)
                table.add("there and back", f"{size} B against {peer}{tuned}",
                          duration(run["ns:median:library"]) + f", 99 %: {p99}",
                          f"{ratio:.2f} of its time", "" if bar is None else f"{bar}",
                          None if bar is None else ratio <= bar)


def add_cycle(table, runs):
    for ready in ("all_ready", "one_in_ten_ready"):
        for count in (1, 10, 100, 450):
            run = runs[f"cycle/{ready}/{count}"]
            ratio = 1 / run["ratio:connection:bare"]
            bound = ready == "all_ready" and count == 450
            table.add("cycle", f"{count} connections, {ready.replace('_', ' ')}, each",
                      duration(run["ns:connection:library"]), f"{ratio:.2f} of the bare time",
                      "1.3" if bound else "", ratio <= 1.3 if bound else None)
    growth = runs["cycle/growth"]["ratio:connection:of 450"]
    table.add("cycle", "a connection of 450 against one of 10",
              duration(runs["cycle/growth"]["ns:connection:of 450"]), f"{growth:.2f} of its time",
              "1.5", growth <= 1.5)


def add_map(table, runs):
    ratios = []
    for keys in ("random_int", "ascending_int", "text"):
        for count in (100, 10000, 1000000):
            run = runs[f"map/{keys}/{count}"]
            for operation in ("insert", "hit", "miss", "remove", "walk"):
                ratio = run[f"ratio:{operation}:std::map"]
                bound = operation != "walk"
                if bound:
                    ratios.append(ratio)
                table.add("map", f"{operation}, {count} {keys.replace('_', ' ')} keys, each",
                          duration(run[f"ns:{operation}:library"]),
                          f"{ratio:.2f} of the speed of std::map", "0.7" if bound else "",
                          ratio >= 0.7 if bound else None)
            table.add("map", f"height with {count} {keys.replace('_', ' ')} keys",
                      f"{run['height']:.0f}", f"optimum {run['optimum']:.0f}")
    mean = math.exp(sum(map(math.log, ratios)) / len(ratios))
    table.add("map", "geometric mean of insert, find and remove", "",
              f"{mean:.2f} of the speed of std::map", "1.1", mean >= 1.1)


def add_lock(table, runs):
    counts = (16, 64, 256, 500)
    for count in counts:
        run = runs[f"lock/threads_send_once/{count}"]
        own = run["switches:library"]
        ratio = own / run["switches:std::mutex"]
        table.add("lock", f"{count} threads that each send once, each",
                  f"{own:.1f} context switches", f"{ratio:.2f} of those of std::mutex", "4",
                  ratio <= 4)
    few, many = (runs[f"lock/threads_send_once/{count}"]["ns:processor:library"]
                 for count in (counts[0], counts[-1]))
    table.add("lock", f"a thread of {counts[-1]} against one of {counts[0]}", duration(many),
              f"{many / few:.2f} of its processor time", "2", many / few <= 2)


def add_rest(table, runs, instructions):
    for name, what in (("inbox/retrieve_half", "inbox: retrieving half"),
                       ("queue/query_all", "pending queue: asking for all")):
        run = runs[name]
        ratio = run["ratio:record:100000"]
        table.add("inbox, queue", f"{what}, a record of 100,000 against one of 1,000",
                  duration(run["ns:record:100000"]), f"{ratio:.2f} of its time", "2", ratio <= 2)
    for path, count in instructions.items():
        table.add("one message", path.replace("_", " "), f"{count} instructions", "")
    task = runs["task/latency"]
    late = task["ms:measured:99"] - task["ms:implied:99"]
    table.add("message task", "queue to inbox, 99 %", f"{task['ms:measured:99']:.0f} ms",
              f"{late:+.1f} ms from the implied one", "5 ms", late <= 5)
    idle = runs["task/idle"]["percent:idle"]
    table.add("message task", "idle, of one core", f"{idle:.3f} %", "", "0.2 %", idle < 0.2)


PLOT = """set terminal svg size 760,420 font 'sans-serif,12' background 'white'
set output '{path}'
set title '{title}'
set ylabel '{ylabel}'
set grid ytics
set key outside right
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
             if f"ns:message:{peer}" in runs["one_way/16"]]
    plot(folder, "one_way", "One message, one way", "microseconds", BARS + "\nset logscale y",
         peers, [[f'"{size} B"'] + [str(runs[f"one_way/{size}"][f"ns:message:{peer}"] / 1e3)
                                     for peer in peers] for size in SIZES])
    counts = (1, 10, 100, 450)
    plot(folder, "cycle", "A cycle, all connections ready", "microseconds a connection",
         "set logscale x\nset yrange [0:]\nset xlabel 'connections'", ("library", "bare"),
         [[str(count)] + [str(runs[f"cycle/all_ready/{count}"][f"ns:connection:{who}"] / 1e3)
                          for who in ("library", "bare")] for count in counts])
    operations = ("insert", "hit", "miss", "remove", "walk")
    plot(folder, "map", "The ordered map beside std::map", "speed, std::map = 1",
         BARS + "\nset xtics rotate by -30\nset yrange [0:]", operations,
         [[f'"{keys.replace("_", " ")} {count}"'] +
          [str(runs[f"map/{keys}/{count}"][f"ratio:{operation}:std::map"])
           for operation in operations]
          for keys in ("random_int", "ascending_int", "text") for count in (100, 10000, 1000000)])
    task = runs["task/latency"]
    plot(folder, "task", "From queue to inbox", "milliseconds", "set xlabel 'per cent of messages'",
         ("measured", "implied by waits and sleeps"),
         [[key[-2:], str(task[key]), str(task[key.replace("measured", "implied")])]
          for key in sorted(task) if key.startswith("ms:measured:")])


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
    for name in ("--input", "--output", "--plots", "--root"):
        parser.add_argument(name, required=True)
    parser.add_argument("--document", action="store_true")
    options = parser.parse_args()

    runs = medians(options.input)
    with open(os.path.join(options.input, "instructions.txt"), encoding="utf-8") as file:
        instructions = {path: int(count) for path, count in map(str.split, file)}
    table = Table()
    add_exchange(table, runs)
    add_cycle(table, runs)
    add_map(table, runs)
    add_lock(table, runs)
    add_rest(table, runs, instructions)
    plot_all(options.plots, runs)
    text = f"Measured on {machine()}.\n\n{table.text()}"

    with open(options.output, "w", encoding="utf-8") as file:
        json.dump({"machine": machine(), "instructions": instructions, "benchmarks": runs}, file,
                  indent=1)
    with open(os.path.splitext(options.output)[0] + ".md", "w", encoding="utf-8") as file:
        file.write(text)
    if options.document:
        write_document(options.root, options.plots, text)
    print(text)
    print(f"Written: {options.output}, the table beside it, plots in {options.plots}")


if __name__ == "__main__":
    main()
