"""Makes a table and a picture of the ratios that pairs.csv asks for.

report.py PAIRS RESULTS TABLE PICTURE: RESULTS is a folder with PROGRAM.json from each benchmark
program, and in "load" what /proc/loadavg said before. Columns of PAIRS: program; what; ours; name
of a peer; its time; name of the limit; its time; what is asked for. A time is

    NAME           the real time of a benchmark
    NAME@COUNTER   one of its counters, with ":us" or another unit behind it a time to be shown
    1/...          the inverse of that
    =...           not a time but already ours divided by it, measured turn by turn
    ?...           in the column of ours: may be missing, because it is there only beside its peer
                   or the machine does not allow it

NAME is without what Google Benchmark appends ("/manual_time" and the like). Cells may be empty; a
peer that was not installed is left out.
"""

import csv
import datetime
import json
import os
import platform
import re
import subprocess
import sys

NS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(path):
    """The benchmarks of one program by name: medians where it was repeated."""
    found = {}
    with open(path, encoding="utf-8") as file:
        for entry in json.load(file)["benchmarks"]:
            name = re.sub(r"(/(iterations:\d+|repeats:\d+|manual_time|real_time|process_time"
                          r"|threads:\d+|min_time:[\d.]+))+$", "", entry["run_name"])
            if entry.get("aggregate_name", "median") == "median" and "error_message" not in entry:
                found[name] = entry
    return found


def value(cell, benchmarks):
    """A number, or None when there is no such benchmark."""
    inverse = cell.startswith("1/")
    name, _, counter = cell.removeprefix("1/").partition("@")
    entry = benchmarks.get(name)
    if entry is None:
        return None
    counter, _, unit = counter.partition(":")
    number = entry.get(counter) if counter else entry["real_time"] * NS[entry["time_unit"]]
    if number and unit:
        number *= NS[unit]
    return 1 / number if inverse and number else number


def ratio(ours, cell, benchmarks):
    if cell.startswith("="):
        return value(cell[1:], benchmarks)
    other = value(cell, benchmarks) if cell else None
    return ours / other if other else None


def measured(pairs, folder):
    rows = []
    for row in pairs:
        program, what, ours_cell, peer, peer_cell, limit, limit_cell, asked = row
        benchmarks = load(os.path.join(folder, program + ".json"))
        ours = value(ours_cell.removeprefix("?"), benchmarks)
        if ours is None and ours_cell.startswith("?"):
            print(f"left out, not in this run: {what}, {peer}", file=sys.stderr)
            continue
        if ours is None:
            sys.exit(f"pairs.csv: {program} has no {ours_cell}")
        by_peer = ratio(ours, peer_cell, benchmarks)
        by_limit = ratio(ours, limit_cell, benchmarks)
        if by_peer is None and by_limit is None:
            print(f"left out, its peer is not installed: {what}, {peer}", file=sys.stderr)
            continue
        is_time = "@" not in ours_cell or ":" in ours_cell
        rows.append((what, ours if is_time else None, peer, by_peer, limit, by_limit, asked))
    return rows


def duration(ns):
    if ns is None:
        return ""
    for unit in ("s", "ms", "us", "ns"):
        if ns >= NS[unit] or unit == "ns":
            return f"{ns / NS[unit]:.3g} {unit}"


def machine(folder):
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    with open("/proc/meminfo", encoding="utf-8") as file:
        gib = int(re.search(r"MemTotal:\s*(\d+)", file.read())[1]) / 2**20
    compiler = subprocess.run(["g++", "--version"], capture_output=True, text=True, check=True)
    commit = subprocess.run(["git", "rev-parse", "--short=12", "HEAD"], capture_output=True,
                            text=True, check=False).stdout.strip() or "none"
    with open(os.path.join(folder, "load"), encoding="utf-8") as file:
        load_average = file.read().split()[0]
    return [f"{model[1] if model else platform.machine()}, {os.cpu_count()} CPUs, "
            f"{gib:.0f} GiB of memory, Linux {platform.release()}",
            compiler.stdout.splitlines()[0],
            f"{datetime.date.today().isoformat()}, commit {commit}, "
            f"load {load_average} at the beginning"]


def cell(number):
    if number is None:
        return ""
    text = f"{number:.2g}" if number < 0.1 else f"{number:.2f}" if number < 10 else f"{number:.0f}"
    return f"**{text}**" if number > 1.05 else text


def write_table(path, rows, about, picture):
    with open(path, "w", encoding="utf-8") as out:
        out.write("# Benchmarks\n\nWritten by `scripts/bench` in one run; nothing here is edited by "
                  "hand. A ratio below 1 means that ours\ntakes less time; what takes over 5 % more "
                  "is bold. The limit is the same work with nothing around\nit. Each program runs "
                  "ours and the others in turn or in random order on the same machine:\n\n")
        out.writelines(f"- {line}\n" for line in about)
        out.write(f"\n![Ratios]({picture})\n\n| what | ours | peer | ours : peer | limit "
                  "| ours : limit | asked for |\n|---|--:|---|--:|---|--:|---|\n")
        for what, ours, peer, by_peer, limit, by_limit, asked in rows:
            out.write(f"| {what} | {duration(ours)} | {peer if by_peer else ''} | {cell(by_peer)} "
                      f"| {limit if by_limit else ''} | {cell(by_limit)} | {asked} |\n")
        lost = [row for row in rows if (row[3] or 0) > 1.05]
        out.write("\n## Where a peer is faster\n\n")
        for what, _, peer, by_peer, *_ in lost:
            out.write(f"- {what}: {by_peer:.2f} times the time of {peer}.\n")
        if not lost:
            out.write("Nowhere in this run.\n")


def write_picture(path, rows, about):
    """Horizontal bars on a logarithmic axis, by gnuplot."""
    bars = []
    for what, _, peer, by_peer, limit, by_limit, _ in rows:
        if by_peer:
            bars.append((f"{what} : {peer}", by_peer, 1))
        limit_bar = (f"{what} : {limit}", by_limit, 2)
        if by_limit and limit_bar not in bars:
            bars.append(limit_bar)
    bars.reverse()
    labels = ", ".join(f'"{name}" {place}' for place, (name, _, _) in enumerate(bars))
    low = min([0.5] + [number for _, number, _ in bars]) / 1.5
    high = max([2.0] + [number for _, number, _ in bars]) * 1.5

    def boxes(kind):
        return "".join(f"1 {place} {min(1, number)} {max(1, number)} {place - 0.35} {place + 0.35}\n"
                       for place, (_, number, bar_kind) in enumerate(bars)
                       if bar_kind == kind) + "e\n"

    height = 110 + 18 * len(bars)
    script = f"""set terminal svg noenhanced size 1000,{height} font "sans-serif,11" background "white"
set output "{path}"
set title "Time of ours divided by theirs; left of 1 ours is faster\\n{about[0]}"
set logscale x 10
set xrange [{low}:{high}]
set yrange [-1:{len(bars)}]
set ytics ({labels})
set grid x
set style fill solid 0.8 noborder
set arrow from 1, graph 0 to 1, graph 1 nohead lw 2
set key outside bottom center horizontal
plot "-" using 1:2:3:4:5:6 with boxxyerror lc rgb "#2060a0" title "ours : peer", \\
     "-" using 1:2:3:4:5:6 with boxxyerror lc rgb "#b0b0b0" title "ours : limit"
{boxes(1)}{boxes(2)}"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def main():
    pairs_path, folder, table, picture = sys.argv[1:]
    with open(pairs_path, encoding="utf-8", newline="") as file:
        pairs = list(csv.reader(file, delimiter=";"))[1:]
    rows = measured(pairs, folder)
    about = machine(folder)
    write_table(table, rows, about, os.path.basename(picture))
    write_picture(picture, rows, about)


main()
