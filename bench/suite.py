#!/usr/bin/env python3
"""Runs the benchmark programs, prints the table and keeps it in results.md.

usage: suite.py BUILD [growth] [--family NAME]... [--repetitions N]

A program runs its contestants' repetitions in random order among one another, so that a change in the machine's mood
meets all of them. Every figure is the median of the repetitions. BUILD is the directory of a build with the preset
"bench". With --family only these are run, and results.md stays as it is.
"""
import argparse
import json
import os
import platform
import re
import shutil
import statistics
import subprocess
import sys
import time
from collections import defaultdict
from dataclasses import dataclass
from pathlib import Path

RESULTS = Path(__file__).parent / "results.md"
REPETITIONS = 9
MIN_TIME = 0.04  # seconds of a repetition
GROWTH_REPETITIONS = 1
LEVEL = 1.1  # what counts as level


# ---- Targets: each says whether it is met, how it reads, and what was reached if the ratios do not tell ----


@dataclass
class OfFloor:
    most: float

    def check(self, row, _rows):
        return row.ours <= self.most * row.floor

    def text(self, _row, _rows):
        return f"≤ {self.most:g} × floor"


@dataclass
class OfPeers:
    """At most `most` times the best of the named peers, or of all."""

    most: float
    text_: str
    names: tuple = ()

    def best(self, row):
        return min(time for name, time in row.peers.items() if not self.names or name in self.names)

    def check(self, row, _rows):
        ratio = row.ours / self.best(row)
        return ratio < 1 if self.most == 1 else ratio <= self.most

    def text(self, row, _rows):
        reached = f" ({row.ours / self.best(row):.2f})" if self.best(row) != row.best_peer()[1] else ""
        return self.text_ + reached


@dataclass
class Against:
    """At most `most` times another figure of ours, which `find` names."""

    most: float
    text_: str
    find: object
    inverse: bool = False

    def check(self, row, rows):
        return row.ours <= self.most * self.find(row, rows)

    def text(self, row, rows):
        ratio = row.ours / self.find(row, rows)
        return f"{self.text_} ({1 / ratio if self.inverse else ratio:.2f})"


def faster(*names):
    return OfPeers(1, "faster than " + (", ".join(names) if names else "the peers"), names)


def times_faster(factor, *names):
    return OfPeers(1 / factor, f"≥ {factor:g} × faster" + (" than " + ", ".join(names) if names else ""), names)


def level(*names):
    return OfPeers(LEVEL, f"level (≤ {LEVEL:g} ×)" + (" with " + ", ".join(names) if names else ""), names)


FAMILIES = {
    "memory": [
        ("memory.pair", "malloc + free, one thread", [OfFloor(1.3)]),
        ("memory.live", "the same among 4,096 live blocks of 16 to 512 bytes", [faster("glibc", "TBB malloc")]),
        ("memory.threads", "two threads, different size classes",
         [Against(1 / 1.8, "≥ 1.8 × one thread", lambda row, _: row.alone, True)]),
    ],
    "hash": [
        ("hash.find", "hash look-up, 100,000 keys", [faster()]),
        ("hash.find2", "hash look-up, two threads", [faster()]),
        ("hash.replace", "hash erase + insert", [faster("TBB", "libcuckoo")]),
        ("hash.insert", "hash insert of new keys, with growth", [faster("TBB", "libcuckoo")]),
        ("hash.unlocked", "hash look-up, unlocked table", [OfPeers(1.2, "≤ 1.2 × unordered_map")]),
    ],
    "tree": [
        ("tree.find", "tree find, 100,000 keys", [faster()]),
        ("tree.insert", "tree insert", [faster()]),
        ("tree.replace", "tree erase + insert", [faster()]),
        ("tree.walk", "tree in-order walk, an entry", [times_faster(1.5)]),
    ],
    "ranges": [
        ("ranges.find", "range look-up, 100,000 ranges", [times_faster(3)]),
        ("ranges.find.few", "range look-up, 1,000 ranges", []),
        ("ranges.find.many", "range look-up, 1,000,000 ranges",
         [Against(1.5, "flat: ≤ 1.5 × among 1,000", lambda _, rows: rows["ranges.find.few"].ours)]),
        ("ranges.wide", "range look-up, 100,000 ranges in a table made for 128 MiB", []),
        ("ranges.replace", "range erase + insert", [faster()]),
    ],
    "sets": [
        ("sets.union", "set union, 20,000 clustered elements each", [times_faster(5)]),
        ("sets.intersection", "set intersection", [times_faster(5)]),
        ("sets.difference", "set difference", [times_faster(5)]),
        ("sets.dense", "set union, clusters close together", []),
        ("sets.contains", "set membership", []),
    ],
    "queue": [
        ("queue.alone", "queue put + take, one thread, empty between", [faster("boost::lockfree")]),
        ("queue.waiting", "queue put + take, one thread, 1,000 waiting", [faster("boost::lockfree")]),
        ("queue.pair", "queue, one producer and one consumer", [faster("boost::lockfree")]),
    ],
    "xml": [
        ("xml.batch", "XML record of five elements, 100 a write", [times_faster(3)]),
        ("xml.flushed", "XML record of five elements, each written at once", []),
    ],
    "log": [
        ("log.record", "log record, flushed", [OfFloor(2), level()]),
        ("log.bytes", "the same, beside a peer that writes as many bytes", [level()]),
    ],
    "strings": [
        ("strings.append", "counted string, append of 8 bytes", [level()]),
        ("strings.build", "the same, the string built and dropped: 1,024 bytes", [level()]),
    ],
    "services": [
        ("annotations.table", "annotation, of 10,000 in a table", []),
        ("annotations.tables", "annotation, each in a table of its own", []),
        ("modules.find", "module of an address, 300 modules", []),
        ("options.parse", "command-line option", []),
        ("vector.increment", "vector increment, 100,000 counters", []),
    ],
    "heap": [
        ("heap.run", "the heap collector on a program with a million heap calls: the whole run", [faster()]),
        ("heap.work", "the same, by the program's own clock", [faster()]),
    ],
}

GROWTH = {
    "memory": [
        ("growth.memory.fill", "malloc, then free, of 48 bytes: blocks alive at the peak"),
        ("growth.memory.apart", "malloc + free on threads with size classes of their own: threads"),
        ("growth.memory.meeting", "malloc + free on threads with one size class: threads"),
    ],
    "hash": [
        ("growth.hash.find", "hash look-up: keys"),
        ("growth.hash.insert", "hash insert: keys"),
        ("growth.hash.threads", "hash look-up among 100,000 keys: threads"),
    ],
    "tree": [
        ("growth.tree.find", "tree find: keys"),
        ("growth.tree.insert", "tree insert: keys"),
    ],
    "ranges": [
        ("growth.ranges.find", "range look-up: ranges"),
        ("growth.ranges.insert", "range insert: ranges"),
    ],
    "sets": [("growth.sets.union", "set union, an element: elements of both sets together")],
    "queue": [("growth.queue", "queue put, then take: values that wait at the peak")],
    "strings": [("growth.strings", "counted string, append of 8 bytes: appends")],
    "services": [("growth.vector", "vector increment: counters")],
}


class Row:
    """Medians of a row's contestants, in nanoseconds an item."""

    def __init__(self, figures):
        self.ours = figures["ours"]
        self.floor = figures["floor"]
        self.alone = figures.get("alone")
        self.peers = {name: time for name, time in figures.items() if name not in ("ours", "floor", "alone")}

    def best_peer(self):
        return min(self.peers.items(), key=lambda peer: peer[1], default=None)


# ---- Running ----


def run_program(program, scratch, growth, repetitions):
    """Medians by row and contestant; a growth row's contestants are paired with a size or a number of threads."""
    out = scratch / "out.json"
    out.unlink(missing_ok=True)
    subprocess.run(
        [program, f"--benchmark_filter={'^growth' if growth else '-^growth'}",
         f"--benchmark_min_time={0.01 if growth else MIN_TIME}", f"--benchmark_repetitions={repetitions}",
         "--benchmark_enable_random_interleaving=true", f"--benchmark_out={out}", "--benchmark_out_format=json"],
        cwd=scratch, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    times = defaultdict(lambda: defaultdict(list))
    for run in json.loads(out.read_text())["benchmarks"]:
        if run["run_type"] != "iteration":
            continue
        if run.get("error_occurred"):
            raise RuntimeError(f"{run['name']}: {run['error_message']}")
        row, contestant, *size = run["run_name"].split("/")
        key = (contestant, next(int(each.removeprefix("threads:")) for each in size
                                if each.removeprefix("threads:").isdigit())) if growth else contestant
        times[row][key].append(1e9 / run["items_per_second"])
    return {row: {key: statistics.median(all_) for key, all_ in contestants.items()}
            for row, contestants in times.items()}


def run_heap_program(build, scratch, repetitions):
    program = build / "bench_heap_program"
    result = scratch / "heap"
    commands = {
        "floor": [program],
        "ours": [build / "veskrun", "-out", f"{result}.xml", "-log", f"{result}.log", "--", program],
        "heaptrack": ["heaptrack", "-o", result, program],
    }
    times = {"heap.run": defaultdict(list), "heap.work": defaultdict(list)}
    for _ in range(repetitions):
        for name, command in commands.items():
            start = time.perf_counter()
            done = subprocess.run(command, cwd=scratch, check=True, capture_output=True, text=True)
            times["heap.run"][name].append((time.perf_counter() - start) * 1e9)
            work = re.search(r"^(\d+\.\d{3})$", done.stdout, re.MULTILINE)
            times["heap.work"][name].append(float(work[1]) * 1e6)
    for written in (Path(f"{result}.xml"), next(iter(scratch.glob("heap.*z*")), None)):
        if written is None or written.stat().st_size == 0:
            raise RuntimeError("a heap profiler has written nothing")
    return {row: {name: statistics.median(all_) for name, all_ in each.items()} for row, each in times.items()}


# ---- The report ----


def show(nanoseconds):
    for unit, size in (("ns", 1), ("µs", 1e3), ("ms", 1e6)):
        value = nanoseconds / size
        if value < 1000 or unit == "ms":
            return f"{value:.{0 if value >= 100 else 1 if value >= 10 else 2}f} {unit}"


def markdown(heads, lines):
    """A table whose columns are as wide as their cells, so that it reads well on a terminal, too."""
    widths = [max(len(line[i]) for line in [heads] + lines) for i in range(len(heads))]
    cells = lambda line: "| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |"
    return "\n".join([cells(heads), "|" + "|".join("-" * (width + 2) for width in widths) + "|"] + [cells(l) for l in lines])


def table(families, figures):
    rows = {name: Row(each) for name, each in figures.items() if name != "u"}
    lines = []
    missed = 0
    for family in families:
        for name, title, targets in FAMILIES[family]:
            row = rows[name]
            peer = row.best_peer()
            met = [target.check(row, rows) for target in targets]
            missed += met.count(False)
            lines.append([
                title, show(row.ours), show(row.floor), f"{peer[0]} {show(peer[1])}" if peer else "",
                f"{row.ours / row.floor:.2f}", f"{row.ours / peer[1]:.2f}" if peer else "",
                "; ".join(target.text(row, rows) for target in targets),
                "" if not targets else "met" if all(met) else "MISSED"])
    heads = ["work", "ours", "floor", "best peer", "ours/floor", "ours/peer", "target", ""]
    return markdown(heads, lines), missed


def growth_tables(families, figures):
    parts = []
    for family in families:
        for name, title in GROWTH.get(family, []):
            what, by = title.rsplit(": ", 1)
            names = list(dict.fromkeys(contestant for contestant, _ in figures[name]))
            sizes = sorted({size for _, size in figures[name]})
            lines = [[f"{size:,}"] + [show(figures[name][each, size]) if (each, size) in figures[name] else ""
                                      for each in names] for size in sizes]
            parts.append(f"### {what[0].upper() + what[1:]}\n\n" + markdown([by] + names, lines))
    return "\n\n".join(parts)


def machine(build):
    cpu = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())[1]
    compiler = re.search(r"CMAKE_CXX_COMPILER:\w+=(.*)", (build / "CMakeCache.txt").read_text())[1]
    version = subprocess.run([compiler, "--version"], check=True, capture_output=True, text=True).stdout
    caches = {index.read_text().strip(): (index.parent / "size").read_text().strip()
              for index in sorted(Path("/sys/devices/system/cpu/cpu0/cache").glob("index*/level"))}
    return (f"{cpu}, {os.cpu_count()} cores, caches of a core "
            + " / ".join(f"L{level} {size}" for level, size in caches.items())
            + f"; Linux {platform.release()}; {version.splitlines()[0]}, -O2; {os.confstr('CS_GNU_LIBC_VERSION')}.")


PEERS = ("libtbb12", "libcuckoo-dev", "libmimalloc2.0", "libboost-dev", "libspdlog-dev", "libxml2", "libroaring0",
         "heaptrack", "libbenchmark-dev")


def peers():
    listed = subprocess.run(["dpkg-query", "-W", "-f=${Package} ${Version}\n", *PEERS], capture_output=True, text=True)
    return "Packages: " + ", ".join(sorted(listed.stdout.split("\n")[:-1])) + "."


TABLE_HEAD = "# Benchmark results"
GROWTH_HEAD = "## Growth"


def save(part, text):
    """Replaces one of the two parts of the results and leaves the other."""
    old = RESULTS.read_text() if RESULTS.exists() else ""
    before, _, after = old.partition("\n" + GROWTH_HEAD)
    table_part = text if part == "table" else before.strip() or f"{TABLE_HEAD}\n\nNot run yet: `./dev bench`."
    growth_part = text if part == "growth" else (GROWTH_HEAD + after).strip()
    growth_part = growth_part if growth_part != GROWTH_HEAD else f"{GROWTH_HEAD}\n\nNot run yet: `./dev bench growth`."
    RESULTS.write_text(f"{table_part}\n\n{growth_part}\n")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("what", nargs="?", choices=["table", "growth"], default="table")
    parser.add_argument("--family", action="append", choices=list(FAMILIES))
    parser.add_argument("--repetitions", type=int)
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    growth = arguments.what == "growth"
    build = arguments.build.resolve()
    scratch = build / "scratch"
    shutil.rmtree(scratch, ignore_errors=True)
    scratch.mkdir()
    families = arguments.family or list(GROWTH if growth else FAMILIES)
    repetitions = arguments.repetitions or (GROWTH_REPETITIONS if growth else REPETITIONS)
    start = time.monotonic()
    figures = {}
    for family in families:
        began = time.monotonic()
        print(f"==> {family} ... ", end="", flush=True)
        if family == "heap":
            figures |= run_heap_program(build, scratch, repetitions)
        else:
            figures |= run_program(build / f"bench_{family}", scratch, growth, repetitions)
        print(f"{time.monotonic() - began:.0f} s", flush=True)
    shutil.rmtree(scratch)

    about = [machine(build), peers()]
    if growth:
        text = growth_tables(families, figures)
        body = "\n\n".join([GROWTH_HEAD, "`./dev bench growth`: time for one item, by the number of elements or threads.",
                            *about, text])
        last = f"{len(text.split('###')) - 1} growth tables"
    else:
        text, missed = table(families, figures)
        unit = f"u, an uncontended lock and unlock by one compare-and-swap and one store: {show(figures['u']['floor'])}." \
            if "u" in figures else ""
        body = "\n\n".join([TABLE_HEAD, f"`./dev bench`: time for one item, medians of {repetitions} repetitions that took "
                            "turns. What floors and targets are: docs/performance.md.", *about, unit, text])
        last = f"{len(text.splitlines()) - 2} rows, {missed} targets missed"
    print(f"\n{body}\n")
    if not arguments.family:
        save(arguments.what, body)
        print(f"==> {last}, in {time.monotonic() - start:.0f} s; kept in {os.path.relpath(RESULTS)}")


if __name__ == "__main__":
    try:
        main()
    except subprocess.CalledProcessError as error:
        print(error.stderr if isinstance(error.stderr, str) else (error.stderr or b"").decode(), file=sys.stderr)
        sys.exit(f"==> FAILED: {error.cmd[0]} ended with status {error.returncode}")
