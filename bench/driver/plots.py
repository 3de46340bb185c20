#!/usr/bin/env python3
"""How cost grows, as pictures: short runs over block sizes, connections and files, drawn by gnuplot.

    plots.py --build DIRECTORY --into DIRECTORY [--rounds N]

Writes plots.csv (sweep, variant, x, metric, median, min, max) and plot-SWEEP.svg into the directory.
"""

import argparse
import csv
import os
import re
import shutil
import subprocess
import sys
from statistics import median

import areas
import messenger
import run
from programs import Failed, Programs, Server

PROJECT = areas.PROJECT
STREAM_MS = 400


def stream(programs, number):
    """One connection over the size of the blocks, KiB."""
    for size in (1, 4, 16, 64, 256, 1024):
        for variant in areas.in_turn(programs, "sink", [PROJECT, "raw", "qt"], number):
            with Server(programs, programs.of(variant, "sink", size * 1024), variant) as sink:
                source = programs.run(programs.of(variant, "source", sink.port, size * 1024, STREAM_MS),
                                      variant=variant)
                _, received, seconds, sink_cpu = sink.last_words().split()
            gigabytes = int(received) / 1e9
            yield variant, size, "MB/s", gigabytes * 1e3 / float(seconds)
            yield variant, size, "CPU s/GB", (float(sink_cpu) + float(source.split()[1])) / gigabytes


def connections(programs, number):
    """Connections held, with echoes over all of them."""
    for count in (1, 10, 100, 1000, 5000):
        values = areas.live_of(programs, number, (count,), [PROJECT, "thread"])
        for (_, variant, metric), value in values.items():
            if metric in ("private KiB each", "CPU us/echo", "p50 us", "p99 us"):
                yield variant, count, metric, value


def files(programs, number):
    """Files delivered to the disk of another installation: by number, of 4 KiB each; one of them, by size in MiB."""
    place = os.path.join(programs.files, f"files.{number}")
    source = os.path.join(place, "source")
    os.makedirs(source)

    def make(name, size):
        path = os.path.join(source, name)
        with open(path, "wb") as file:
            for _ in range(max(size >> 20, 1)):
                file.write(os.urandom(min(size, 1 << 20)))
        return path

    sender = messenger.Installation(os.path.join(place, "a"), programs.directory, "A")
    sender.end()
    receiver = messenger.Installation(os.path.join(place, "b"), programs.directory, "B")
    ends = [receiver]
    try:
        messenger.wait_for(receiver.port)
        messenger.run([sender.program, "send", "B", f"127.0.0.1:{receiver.port}", "--text", "first"])
        rsync = None
        if shutil.which("rsync"):
            os.makedirs(os.path.join(place, "rsync"))
            rsync = messenger.Rsync(os.path.join(place, "rsync"))
            ends.append(rsync)
            messenger.wait_for(rsync.port)
        for count in (1, 3, 10, 30, 100, 300):
            folder = os.path.join(source, str(count))
            os.makedirs(folder)
            paths = [make(f"{count}/f{i}", 4096) for i in range(count)]
            yield PROJECT, count, "ms per file", messenger.run([sender.program, "send", "B", *paths]) * 1e3 / count
            if rsync:
                yield messenger.RSYNC, count, "ms per file", rsync.send(folder) * 1e3 / count
        for size in (1, 4, 16, 64, 256):
            path = make(f"big{size}", size << 20)
            megabytes = (size << 20) / 1e6
            yield PROJECT, size, "MB/s", megabytes / messenger.run([sender.program, "send", "B", path])
            if rsync:
                yield messenger.RSYNC, size, "MB/s", megabytes / rsync.send(path)
    finally:
        for end in ends:
            end.end()
        messenger.remove_large(place)


SWEEPS = {"stream": stream, "connections": connections, "files": files}

# sweep -> panels: (title, name of x, logarithmic y, metrics)
PANELS = {
    "stream": [("Speed of one connection, MB/s", "block, KiB", False, ["MB/s"]),
               ("Processor time of both sides, s/GB", "block, KiB", True, ["CPU s/GB"])],
    "connections": [("Memory of each connection, KiB", "connections", False, ["private KiB each"]),
                    ("Processor time of an echo, us", "connections", False, ["CPU us/echo"]),
                    ("Time of an echo, us", "connections", True, ["p50 us", "p99 us"])],
    "files": [("Time for each of several files of 4 KiB, ms", "files in one message", True, ["ms per file"]),
              ("Speed of one file, MB/s", "size, MiB", False, ["MB/s"])],
}


def measure(programs, rounds):
    """-> {(sweep, variant, metric): {x: [values]}}, with what went wrong told at once."""
    found = {}
    for name, sweep in SWEEPS.items():
        for number in range(rounds):
            try:
                for variant, x, metric, value in sweep(programs, number):
                    found.setdefault((name, variant, metric), {}).setdefault(x, []).append(value)
            except Failed as error:
                print(f"{name}, round {number + 1}: {error}", file=sys.stderr)
    return found


def write_table(path, found):
    with open(path, "w", encoding="utf-8", newline="") as file:
        table = csv.writer(file, lineterminator="\n")
        table.writerow(["sweep", "variant", "x", "metric", "median", "min", "max"])
        for (sweep, variant, metric), series in found.items():
            for x, values in sorted(series.items()):
                table.writerow([sweep, variant, x, metric,
                                *(f"{value:.4g}" for value in (median(values), min(values), max(values)))])


def draw(sweep, found, path):
    """One picture, a panel beside the other: the medians as lines, the smallest and largest as bars."""
    panels = PANELS[sweep]
    script = [f'set terminal svg size {430 * len(panels)},330 font "sans-serif,12" background "white"',
              f"set output '{path}'", f"set multiplot layout 1,{len(panels)}", "set grid", "set key below",
              "set bars small", "set logscale x"]
    for title, x_name, is_logarithmic, metrics in panels:
        lines, data = [], []
        variants = list(dict.fromkeys(variant for one, variant, metric in found if one == sweep and metric in metrics))
        for variant in variants:
            for metric in metrics:
                series = found.get((sweep, variant, metric), {})
                label = f"{variant}, {metric.split()[0]}" if len(metrics) > 1 else variant
                style = f"lc {variants.index(variant) + 1} pt {6 + metrics.index(metric)}"
                lines += [f"'-' using 1:2:3:4 with yerrorbars ps 0.5 {style} notitle",
                          f"'-' using 1:2 with lines {style.split(' pt')[0]} dt {1 + metrics.index(metric)} title '{label}'"]
                rows = [f"{x} {median(values):g} {min(values):g} {max(values):g}" for x, values in sorted(series.items())]
                data += [*rows, "e"] * 2
        xs = sorted({x for (one, _, metric), series in found.items() if one == sweep and metric in metrics for x in series})
        script += [f"set title '{title}'", f"set xlabel '{x_name}'",
                   "set xtics (" + ", ".join(str(x) for x in xs) + ")",
                   f"set xrange [{xs[0] * 0.8:g}:{xs[-1] * 1.25:g}]",
                   *(["set logscale y", "set yrange [*:*]"] if is_logarithmic else ["unset logscale y", "set yrange [0:*]"]),
                   "plot " + ", ".join(lines), *data]
    subprocess.run(["gnuplot"], input="\n".join(script + ["unset multiplot", ""]), text=True, check=True)
    with open(path, encoding="utf-8") as file:
        picture = file.read()
    with open(path, "w", encoding="utf-8") as file:
        file.write(re.sub(r"<g fill=[^>]*>\s*</g>\n", "", picture))  # most of what gnuplot writes is empty


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="directory of the build")
    parser.add_argument("--into", required=True, help="directory of the pictures")
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    run.raise_descriptor_limit()
    programs = Programs(options.build)
    try:
        found = measure(programs, options.rounds)
    finally:
        shutil.rmtree(programs.files, ignore_errors=True)
    if {sweep for sweep, _, _ in found} != set(SWEEPS):
        return 1
    os.makedirs(options.into, exist_ok=True)
    write_table(os.path.join(options.into, "plots.csv"), found)
    for sweep in SWEEPS:
        draw(sweep, found, os.path.join(options.into, f"plot-{sweep}.svg"))
    print(f"Measured on {run.machine()}; {options.rounds} rounds. Pictures are in {options.into}.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
