#!/usr/bin/env python3
"""Measures the project beside its peers, in rounds, and prints tables.

    run.py --build DIRECTORY [--rounds N] [--bars] [--into FILE] [area...]
"""

import argparse
import datetime
import os
import platform
import resource
import shutil
import sys
import time

import areas
import bars
import report
from programs import Failed, Programs


def machine():
    system = "unknown system"
    try:
        with open("/etc/os-release", encoding="utf-8") as release:
            names = dict(line.rstrip().split("=", 1) for line in release if "=" in line)
        system = names.get("PRETTY_NAME", system).strip('"')
    except OSError:
        pass
    return f"{datetime.date.today()}, {os.cpu_count()} processors, {system}, kernel {platform.release()}"


def raise_descriptor_limit():
    """Thousands of connections take two descriptors each."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def measure(programs, name, rounds):
    """The rounds of one area, with what went wrong told at once."""
    function, usual = areas.AREAS[name]
    done = []
    for number in range(rounds or usual):
        try:
            done.append(function(programs, number))
        except Failed as error:
            print(f"{name}, round {number + 1}: {error}", file=sys.stderr)
    return done


def tables(name, rounds, seconds, bars_only):
    lines = [f"### {name}", "", f"{len(rounds)} round(s), {seconds:.0f} s", ""]
    if name in bars.BARS:
        lines += report.standing(bars.BARS[name], rounds)
    if name not in bars.BARS or not bars_only:
        lines += report.figures(rounds)
    return "\n".join(lines) + "\n"


def put_into(path, text):
    """Replaces everything below the heading of the last run in a document."""
    heading = "## One run\n"
    with open(path, encoding="utf-8") as document:
        above = document.read().partition(heading)[0]
    with open(path, "w", encoding="utf-8") as document:
        document.write(above + heading + "\n" + text.rstrip("\n") + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="directory of the build")
    parser.add_argument("--rounds", type=int, default=0, help="instead of each area's own number")
    parser.add_argument("--bars", action="store_true", help="of the figures behind the bars print none")
    parser.add_argument("--into", metavar="FILE", help="put the tables into this document, under '## One run'")
    parser.add_argument("area", nargs="*", help=", ".join(areas.AREAS))
    options = parser.parse_args()
    unknown = [name for name in options.area if name not in areas.AREAS]
    if unknown:
        parser.error(f"no area {unknown[0]}; there are {', '.join(areas.AREAS)}")

    raise_descriptor_limit()
    programs = Programs(options.build)
    complete = True
    text = f"Measured on {machine()}.\n\n"
    print(text, flush=True)
    try:
        for name in options.area or areas.AREAS:
            begin = time.monotonic()
            rounds = measure(programs, name, options.rounds)
            complete = complete and bool(rounds)
            found = tables(name, rounds, time.monotonic() - begin, options.bars)
            print(found, flush=True)
            text += found + "\n"
    finally:
        shutil.rmtree(programs.files, ignore_errors=True)
    if options.into:
        put_into(options.into, text)
    return 0 if complete else 1


if __name__ == "__main__":
    sys.exit(main())
