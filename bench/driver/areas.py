"""What is measured: one function per area, each doing one round with the project and its peers in turn.

A round is a dictionary: (case, variant, metric) -> value.
"""

import json
import os
import socket
import subprocess

from messenger import messenger
from programs import Failed, Server

PROJECT = "project"
LOGGING = "project, logging"  # with the log categories as they come


def in_turn(programs, kind, variants, number):
    """The variants that can be played, beginning with another one each round."""
    there = [variant for variant in variants if programs.has(kind, variant)]
    start = number % len(there)
    return there[start:] + there[:start]


# Streams -----------------------------------------------------------------------------------------

STREAM_MS = 700


def stream(programs, number):
    result = {}
    for size in (64, 256):
        case = f"one connection, {size} KiB blocks"
        block = size * 1024
        for variant in in_turn(programs, "sink", [PROJECT, "raw", "qt", "asio", "zeromq"], number):
            with Server(programs, programs.of(variant, "sink", block), variant) as sink:
                source = programs.run(programs.of(variant, "source", sink.port, block, STREAM_MS), variant=variant)
                _, received, seconds, sink_cpu = sink.last_words().split()
            source_cpu = float(source.split()[1])
            gigabytes = int(received) / 1e9
            result[case, variant, "MB/s"] = gigabytes * 1e3 / float(seconds)
            result[case, variant, "CPU s/GB, both sides"] = (float(sink_cpu) + source_cpu) / gigabytes
        result.update(iperf3(case, block))
    return result


def iperf3(case, block):
    """Its own pair of programs; nothing when it is not installed."""
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        port = str(free.getsockname()[1])
    try:
        server = subprocess.Popen(["iperf3", "-s", "-1", "-B", "127.0.0.1", "-p", port, "--forceflush"],
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    except FileNotFoundError:
        return {}
    try:
        while "listening" not in server.stdout.readline():
            if server.poll() is not None:
                raise Failed("iperf3: does not listen")
        client = subprocess.run(["iperf3", "-c", "127.0.0.1", "-p", port, "-t", "1", "-l", str(block), "-J"],
                                capture_output=True, text=True, timeout=20, check=True)
        end = json.loads(client.stdout)["end"]
    finally:
        server.terminate()
        server.communicate()
    received = end["sum_received"]
    cpu = end["cpu_utilization_percent"]
    seconds = (cpu["host_total"] + cpu["remote_total"]) / 100 * received["seconds"]
    return {(case, "iperf3", "MB/s"): received["bits_per_second"] / 8e6,
            (case, "iperf3", "CPU s/GB, both sides"): seconds / (received["bytes"] / 1e9)}


# Connections -------------------------------------------------------------------------------------

def roundtrip(programs, number):
    result = {}
    for variant in in_turn(programs, "echo", [PROJECT, "thread", "qt", "asio"], number):
        with Server(programs, programs.of(variant, "echo"), variant) as server:
            values = programs.values(programs.peer("load", "roundtrip", server.port, 700, server.pid))
        for metric, value in values.items():
            result["64 bytes there and back", variant, metric] = value
    return result


def cycles(programs, number):
    result = {}
    for clients in (1, 8):
        for variant in in_turn(programs, "hello", [PROJECT, LOGGING, "thread", "qt", "asio"], number):
            with Server(programs, programs.of(variant, "hello"), variant) as server:
                values = programs.values(
                    programs.peer("load", "cycles", server.port, clients, 800, server.pid))
            if values.pop("failed") > 0:
                raise Failed(f"{variant}: connections failed")
            for metric, value in values.items():
                result[f"cycles, {clients} client(s)", variant, metric] = value
    return result


def burst(programs, number):
    result = {}
    for variant in in_turn(programs, "echo", [PROJECT, "thread", "qt", "asio"], number):
        with Server(programs, programs.of(variant, "echo"), variant) as server:
            values = programs.values(programs.peer("load", "burst", server.port, 200), 90)
        for metric, value in values.items():
            result["200 calls at once", variant, metric] = value
    return result


def live_of(programs, number, counts, variants):
    result = {}
    for count in counts:
        for variant in in_turn(programs, "echo", variants, number):
            with Server(programs, programs.of(variant, "echo"), variant) as server:
                values = programs.values(programs.peer("load", "live", server.port, count, 800, server.pid), 60)
            for metric, value in values.items():
                result[f"{count} connections", variant, metric] = value
    return result


def live(programs, number):
    return live_of(programs, number, (100, 500, 1000, 2000), [PROJECT, "thread", "qt"])


# The runtime -------------------------------------------------------------------------------------

def rows_of(programs, commands, number):
    start = number % len(commands)
    result = {}
    for command in commands[start:] + commands[:start]:
        for case, variant, metric, value in programs.rows(command):
            result[case, variant, metric] = value
    return result


def log(programs, number):
    # As deep in the file system as the project's: a path costs by its length.
    installation = os.path.join(programs.files, "peers.1234")
    logs = os.path.join(installation, "data", "0", "log")
    settings = os.path.join(installation, "settings")
    for directory in (logs, settings):
        os.makedirs(directory, exist_ok=True)
    kinds = ["floor", "statx", "posix", "qt", "spdlog", "log4cxx"]
    peers = [programs.peer("log", kind, logs) for kind in kinds if programs.has("log", kind)]
    peers.append(programs.peer("log", "filtered", settings))
    return rows_of(programs, [programs.project("rows", "d", programs.files), *peers], number)


def saving(programs, number):
    kinds = ["sync", "qsavefile", "renames", "renames-sync"]
    peers = [programs.peer("saving", kind, programs.files) for kind in kinds]
    return rows_of(programs, [programs.project("rows", "e", programs.files), *peers], number)


def small(programs, number):
    return rows_of(programs, [programs.project("rows", "f", programs.files), programs.peer("small", "all")], number)


def growth(programs, number):
    result = live_of(programs, number, (1, 10, 100, 1000, 5000), [PROJECT])
    result.update(rows_of(programs, [programs.project("rows", "g", programs.files)], number))
    return result


# area -> (function, rounds)
AREAS = {
    "stream": (stream, 7),
    "roundtrip": (roundtrip, 7),
    "cycles": (cycles, 5),
    "burst": (burst, 5),
    "live": (live, 5),
    "log": (log, 11),
    "saving": (saving, 11),
    "small": (small, 5),
    "messenger": (messenger, 5),
    "growth": (growth, 1),
}
