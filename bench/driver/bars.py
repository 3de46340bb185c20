"""The bars: what the project has to reach beside its peers, and what it aims at."""

from dataclasses import dataclass
from typing import Optional

from areas import LOGGING, PROJECT
from messenger import RSYNC

AT_LEAST = ">="
AT_MOST = "<="


@dataclass(frozen=True)
class Bar:
    """One ratio of the project to a peer, or (peer None) one figure of the project itself."""
    case: str
    metric: str
    peer: Optional[str]
    sense: str
    must: Optional[float]
    aim: Optional[float] = None
    variant: str = PROJECT

    def reached(self, value, limit):
        # A hair's breadth belongs to the rounding of what is printed.
        return value >= limit - 0.005 if self.sense == AT_LEAST else value <= limit + 0.005


def stream():
    small, large = "one connection, 64 KiB blocks", "one connection, 256 KiB blocks"
    yield Bar(small, "MB/s", "qt", AT_LEAST, 1.0)
    yield Bar(small, "MB/s", "asio", AT_LEAST, 1.0)
    yield Bar(small, "CPU s/GB, both sides", "qt", AT_MOST, 1.05)
    yield Bar(small, "MB/s", "raw", AT_LEAST, None, 1.1)
    yield Bar(small, "MB/s", "zeromq", AT_LEAST, None, 1.0)
    yield Bar(large, "MB/s", "raw", AT_LEAST, 0.8, 1.1)
    yield Bar(large, "MB/s", "qt", AT_LEAST, 1.0)


def roundtrip():
    case = "64 bytes there and back"
    yield Bar(case, "p50 us", "thread", AT_MOST, 1.2, 1.1)
    yield Bar(case, "p99 us", "thread", AT_MOST, 1.2, 1.1)
    yield Bar(case, "idle CPU %", None, AT_MOST, 0.0)


def cycles():
    yield Bar("cycles, 8 client(s)", "cycles/s", "thread", AT_LEAST, 0.9, 1.1)
    yield Bar("cycles, 8 client(s)", "cycles/s", "qt", AT_LEAST, 1.25)
    yield Bar("cycles, 1 client(s)", "cycles/s", "thread", AT_LEAST, 0.7, 0.9)
    yield Bar("cycles, 1 client(s)", "cycles/s", "qt", AT_LEAST, 1.0)
    for clients in (8, 1):
        yield Bar(f"cycles, {clients} client(s)", "cycles/s", PROJECT, AT_LEAST, 0.8, 0.9, LOGGING)


def burst():
    yield Bar("200 calls at once", "first, ms", "thread", AT_MOST, 4, 2.5)
    yield Bar("200 calls at once", "first, ms", None, AT_MOST, 100)


def live():
    for count in (500, 1000, 2000):
        yield Bar(f"{count} connections", "private KiB each", None, AT_MOST, 30, 24)
    yield Bar("2000 connections", "descriptors each", None, AT_MOST, 2)
    yield Bar("2000 connections", "idle CPU %", None, AT_MOST, 0.04)
    for count in (100, 500, 1000, 2000):
        case = f"{count} connections"
        yield Bar(case, "CPU us/echo", "thread", AT_MOST, 1.6, 1.4)
        yield Bar(case, "p50 us", "thread", AT_MOST, 1.5, 1.2)
        yield Bar(case, "p99 us", "thread", AT_MOST, 1.5, 1.2)


def log():
    for threads in (1, 4, 8):
        case = f"write, {threads} thread(s)"
        yield Bar(case, "CPU us/record", "open-append-close, POSIX", AT_MOST, 0.85, 0.6)
        yield Bar(case, "CPU us/record", "open-append-close, Qt", AT_MOST, 1 / 4)
        yield Bar(case, "CPU us/record", "log4cxx", AT_MOST, 1 / 2)
        yield Bar(case, "CPU us/record", "write only", AT_MOST, None, 2)
    yield Bar("filtered-out call", "ns/call", "two stat()", AT_MOST, 1.15, 0.35)


def saving():
    for case, must, aim in (("4 KiB", 1.5, 1.3), ("1 MiB", 1.15, 1.0), ("64 MiB", 1.15, 1.0)):
        yield Bar(case, "ms/save (median)", "write+fsync+rename+fsync(dir)", AT_MOST, 1.1, 1.0)
        yield Bar(case, "ms/save (median)", "QSaveFile", AT_MOST, must, aim)


def small():
    yield Bar("name filter, 32 characters", "ns/call", "table scan", AT_MOST, 2, 1.2)
    yield Bar("encode record", "ns/call", "QDataStream", AT_MOST, 1.0, 0.3)
    yield Bar("decode record", "ns/call", "QDataStream", AT_MOST, 1.0, 0.3)
    yield Bar("level directory path", "ns/call", "QDir chain", AT_MOST, 0.3, 0.1)
    yield Bar("time stamp hh:mm:ss.zzz", "ns/call", "cached second", AT_MOST, 3, 1.5)


def messenger():
    for case, must in (("one text", 0.7), ("300 files of 4 KiB", 1.0), ("1 GiB", 1.0)):
        yield Bar(case, "ms", RSYNC, AT_MOST, must)


BARS = {function.__name__: list(function())
        for function in (stream, roundtrip, cycles, burst, live, log, saving, small, messenger)}
