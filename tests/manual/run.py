#!/usr/bin/env python3
"""Runs the commands of a page of the manual and compares what they print with what the page shows.

    run.py --program DIRECTORY [--renew] PAGE

Every machine of the page gets a network namespace, files and an installation of its own, so the page shows
addresses, ports and paths as they are. What an author writes:

- A block ```console holds commands behind a prompt, "anna$" or, with all rights, "anna#", and below each what it
  prints, errors included. "> " continues a command. A line "..." stands for any lines, "..." in a line for any text.
- ```console stays: the last command goes on; ```console boris: what the one left at boris prints next. There a line
  "^C" interrupts it, and it has to end.
- A comment <!-- run ... --> holds commands that nobody sees and that have to succeed; <!-- needs: nft --> above a
  block skips it, with a word, where that program is missing; "root" stands for a run by root.
- Times, sizes in time, speeds, process numbers and the like differ from run to run. Keys and digests do as well, but
  one that is shown twice has to be the same twice.
- `abonent ...` within a sentence names a command and options that exist. Below a column "Текст" stands what the
  programs say.

--renew writes what was seen into the page, wherever it is not what the page shows; look at the difference.
Exit code: 0 as shown, 1 not, 77 something could not be tried here.
"""

import argparse
import difflib
import os
import re
import shutil
import signal
import subprocess
import sys
import threading

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts"))
from machines import Failed, Machine, enter, is_alone, make_network  # noqa: E402

PATIENCE = 60  # seconds; only something that hangs takes so long
SETTLE = 2  # seconds of silence that mean, while pages are renewed, that nothing more comes
SKIPPED = 77
PROMPT = re.compile(r"(\w+)([$#]) (.+)")

# What differs from run to run. Of the second group one value shown is always the same value seen.
LOOSE = [r"\d\d:\d\d:\d\d(?:\.\d{3})?", r"\d\d:\d\d\b", r"\d\d\.\d\d\.\d{4}", r"\d{4}[-.]\d\d[-.]\d\d",
         r"[\d.]+ мс\b", r"\d+ сек\.", r"[\d.]+ (?:[КМГ]?[Бб]айт|[КМГ]?бит)/с", r"pid=\d+", r"fd=\d+"]
BOUND = [r"(?:[а-яё]+ ){9}[а-яё]+ \((?:[0-9A-F]{4} ){4}[0-9A-F]{4}\)", r"\b[0-9a-f]{64}\b",
         r"words: (?:[а-яё]+ ){4}[а-яё]+"]
TOKEN = re.compile("|".join(f"({pattern})" for pattern in BOUND + LOOSE))


# The page ------------------------------------------------------------------------------------------

def has(need):
    """Whether a program is there and, where it asks the kernel, whether that answers."""
    if need == "root":
        return not is_alone()
    path = "/usr/sbin:/sbin:/usr/bin:/bin"
    asks = {"nft": ["nft", "list", "ruleset"], "ufw": ["iptables", "-L"]}.get(need)
    return shutil.which(need, path=path) is not None and (
        not asks or subprocess.run(["env", f"PATH={path}", *asks], capture_output=True, check=False).returncode == 0)


class Step:
    """A command and what is shown below it, or (command None) more of a program that has stayed."""

    def __init__(self, line, machine="", rights="$", command=None):
        self.line = line  # number of the line in the page
        self.machine, self.rights, self.command = machine, rights, command
        self.shown = []  # lines
        self.first = line + 1  # number of the first of them
        self.stays = self.is_hidden = False
        self.needs = None


def steps_of(lines):
    """The steps of a page, in order."""
    steps, block, needs, number = [], None, None, 0
    is_hidden = False
    for number, line in enumerate(lines, 1):
        if block is None:
            found = re.match(r"<!-- needs: ([\w ]+) -->$", line)
            needs = found.group(1) if found else needs
            if line == "<!-- run":
                block, is_hidden = ["console"], True
            elif line.startswith("```"):
                block, is_hidden = line[3:].split(), False
                if block not in (["console"], ["text"]) and not (block[:1] == ["console"] and len(block) == 2):
                    raise Failed(f"line {number}: a block is ```console or ```text, not {line}")
                if len(block) == 2 and block[1] != "stays":
                    steps.append(Step(number, block[1]))
                    steps[-1].needs = needs
        elif line in ("```", "-->"):
            if block[-1] == "stays":
                steps[-1].stays = True
            block, needs = None, None
        elif block[0] == "console":
            found = PROMPT.match(line)
            if found:
                steps.append(Step(number, *found.groups()))
                steps[-1].is_hidden, steps[-1].needs = is_hidden, needs
            elif line.startswith("> ") and not steps[-1].shown:
                steps[-1].command += "\n" + line[2:]
                steps[-1].first = number + 1
            else:
                steps[-1].shown.append(line)
    if block is not None:
        raise Failed(f"line {number}: a block has no end")
    return steps


def check_mentions(lines, program):
    """`abonent COMMAND --OPTION` in sentences: both exist. Words in capitals stand for something."""
    helps = {}
    for number, line in enumerate(lines, 1):
        for mention in re.findall(r"`abonent ([a-z][^`]*)`", line):
            verb = mention.split()[0]
            if verb not in helps:
                done = subprocess.run([program, verb, "--help"], capture_output=True, text=True, check=False)
                helps[verb] = done.stdout if done.returncode == 0 else None
            if helps[verb] is None:
                raise Failed(f"line {number}: there is no command: abonent {verb}")
            for option in re.findall(r"--[a-z-]+", mention):
                if option != "--help" and option not in helps[verb]:
                    raise Failed(f"line {number}: abonent {verb} has no option {option}")


def check_texts(lines, directory):
    """Tables whose first column is "Текст" hold what the programs say; N, M and "..." stand for something."""
    said, is_table = b"", False
    for number, line in enumerate(lines, 1):
        is_table = line.startswith("|") and (is_table or line.startswith("| Текст |"))
        if not is_table or line.startswith(("| Текст |", "|---")):
            continue
        if not said:
            for folder in (directory, os.path.join(directory, "channelPlugins")):
                for name in os.listdir(folder):
                    if os.path.isfile(os.path.join(folder, name)):
                        with open(os.path.join(folder, name), "rb") as program:
                            said += program.read()
        for part in re.split(r"'?\.\.\.'?|\b[NM]\b|: ", line.split("|")[1]):
            text = part.strip()
            if len(text) > 4 and text.encode("utf-16-le") not in said and text.encode() not in said:
                raise Failed(f"line {number}: no program says: {text}")


# Comparing -----------------------------------------------------------------------------------------

class Values:
    """Which value seen is which value shown."""

    def __init__(self):
        self.seen_of = {}
        self.shown_of = {}

    def matches(self, shown, seen):
        pattern, bound, at = "", {}, 0
        for token in TOKEN.finditer(shown):
            kind = (BOUND + LOOSE)[token.lastindex - 1]
            name = f"at{token.start()}"
            pattern += literal(shown[at:token.start()]) + f"(?P<{name}>{kind})"
            if token.lastindex <= len(BOUND):
                bound[name] = token.group()
            at = token.end()
        found = re.fullmatch(pattern + literal(shown[at:]), seen)
        pairs = [(value, found[name]) for name, value in bound.items()] if found else []
        if not found or any(self.seen_of.get(value, got) != got or self.shown_of.get(got, value) != value
                            for value, got in pairs):
            return False
        self.seen_of.update(pairs)
        self.shown_of.update((got, value) for value, got in pairs)
        return True

    def as_shown(self, seen):
        """A line seen, with the values that the page has for it."""
        return TOKEN.sub(lambda token: self.shown_of.get(token.group(), token.group()), seen)


def literal(text):
    return ".*".join(re.escape(part) for part in re.split(r"\.{3,}", text))


class Comparison:
    """Takes lines as they come; knows at any time whether they are those shown."""

    def __init__(self, values, shown):
        self.values, self.shown = values, shown
        self.at = 0
        self.seen = []
        self.trouble = None  # (index of the line shown, line seen or None)

    def take(self, line):
        self.seen.append(line)
        if self.trouble:
            return
        at = self.behind_dots()
        if at < len(self.shown) and self.values.matches(self.shown[at], line):
            self.at = at + 1
        elif at == self.at:
            self.trouble = (at, line)

    def behind_dots(self):
        return next((i for i in range(self.at, len(self.shown)) if self.shown[i] != "..."), len(self.shown))

    @property
    def is_through(self):
        """Nothing more has to come, or would help."""
        return self.trouble is not None or self.behind_dots() == len(self.shown)

    def end(self):
        if not self.trouble and not self.is_through:
            self.trouble = (self.behind_dots(), None)

    def renewed(self):
        """What is to be shown instead: where lines are left out, still those that are shown, as they are now."""
        result, left = [], list(self.seen)
        leaves_out = "..." in self.shown
        for shown in self.shown:
            if shown == "...":
                result.append(shown)
                continue
            fits = next((i for i, line in enumerate(left) if self.values.matches(shown, line)), None)
            as_now = [self.values.as_shown(line) for line in left]
            close = difflib.get_close_matches(shown, as_now, 1, 0.5) if fits is None else [shown]
            if not close:
                continue
            at = as_now.index(close[0]) if fits is None else fits
            result += [] if leaves_out else as_now[:at]
            result += close
            del left[:at + 1]
        return result if leaves_out else result + [self.values.as_shown(line) for line in left]


class Running:
    """A program whose output is read as it comes."""

    def __init__(self, command, environment):
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, env=environment, process_group=0)
        self.lines = []
        self.news = threading.Condition()
        self.is_over = False
        self.taken = 0
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            with self.news:
                self.lines.append(line.decode("utf-8", "replace").rstrip("\n"))
                self.news.notify()
        with self.news:
            self.is_over = True
            self.news.notify()

    def feed(self, comparison, until_over, settle):
        """Gives lines to the comparison until the program is over, or until they are all there.

        @param settle seconds of silence after which a program that goes on is taken to have no more to say; 0: the
        lines shown decide
        """
        with self.news:
            while True:
                while self.taken < len(self.lines) and (until_over or settle or not comparison.is_through):
                    comparison.take(self.lines[self.taken])
                    self.taken += 1
                if self.is_over and self.taken == len(self.lines):
                    return
                if not until_over and not settle and comparison.is_through:
                    return
                if not self.news.wait(PATIENCE if until_over or not settle else settle):
                    if settle and not until_over:
                        return
                    raise Failed(f"silent for {PATIENCE} s; it has printed\n" + "\n".join(self.lines))


# The run -------------------------------------------------------------------------------------------

class Run:
    """One page from its first command to its last."""

    def __init__(self, options):
        self.page = options.page
        self.renew = options.renew
        with open(options.page, encoding="utf-8") as page:
            self.lines = page.read().split("\n")
        self.steps = steps_of(self.lines)
        check_mentions(self.lines, os.path.join(options.program, "abonent"))
        check_texts(self.lines, options.program)
        self.values = Values()
        self.missing = set()
        self.changes = []  # (first line, number of lines, lines instead)
        self.machines = {}
        self.staying = {}  # name of a machine -> what still runs there
        self.codes = {}    # name of a machine -> exit code of its last command
        names = {step.machine for step in self.steps}
        if names:
            make_network()
        for name in sorted(names):
            self.machines[name] = Machine(name, options.program)

    def all(self):
        for step in self.steps:
            missing = [need for need in (step.needs or "").split() if not has(need)]
            if missing:
                self.missing.update(missing)
                continue
            try:
                self.one(step)
            except Failed as error:
                raise Failed(f"line {step.line}, {step.command or step.machine}: {error}") from error
        if self.staying:
            raise Failed(f"what was started at {', '.join(self.staying)} has never been ended")
        if self.renew and self.changes:
            for first, count, instead in reversed(self.changes):
                self.lines[first - 1:first - 1 + count] = instead
            with open(self.page, "w", encoding="utf-8") as page:
                page.write("\n".join(self.lines))

    def one(self, step):
        if step.command is None:
            running = self.staying.get(step.machine)
            if not running:
                raise Failed("nothing has stayed there")
            if "^C" in step.shown:
                at = step.shown.index("^C")
                self.compare(step, running, step.shown[:at], step.first, False)
                os.killpg(running.process.pid, signal.SIGINT)
                del self.staying[step.machine]
                rest = step.shown[at - 1:at] if step.shown[:at][-1:] == ["..."] else []
                self.compare(step, running, rest + step.shown[at + 1:], step.first + at + 1 - len(rest), True)
            else:
                self.compare(step, running, step.shown, step.first, False)
            return
        machine = self.machines[step.machine]
        command = f"(exit {self.codes.get(step.machine, 0)}); {step.command}"
        running = Running(machine.command(command, step.rights == "#"), machine.environment)
        if step.stays:
            self.staying[step.machine] = running
        self.compare(step, running, step.shown, step.first, not step.stays)
        if not step.stays:
            code = self.codes[step.machine] = running.process.wait()
            if step.is_hidden and code != 0:
                raise Failed(f"code {code}: " + "\n".join(running.lines))

    def compare(self, step, running, shown, first, until_over):
        comparison = Comparison(self.values, ["..."] if step.is_hidden else shown)
        running.feed(comparison, until_over, SETTLE if self.renew else 0)
        comparison.end()
        if not comparison.trouble:
            return
        if self.renew:
            self.changes.append((first, len(shown), comparison.renewed()))
            return
        index, seen = comparison.trouble
        expected = shown[index] if index < len(shown) else "nothing more"
        raise Failed(f"\n  {self.page}:{first + index}\n  shown: {expected}\n"
                     f"  seen:  {'nothing more' if seen is None else seen}\n  all that was seen:\n    " +
                     "\n    ".join(comparison.seen))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True, help="directory of the program abonent and its channels")
    parser.add_argument("--renew", action="store_true", help="write what was seen into the page")
    parser.add_argument("page")
    options = parser.parse_args()
    obstacle = enter()
    if obstacle:
        print(f"Skipped: {obstacle}")
        return SKIPPED
    try:
        run = Run(options)
        run.all()
    except Failed as error:
        print(f"{options.page}: {error}")
        return 1
    print(f"{len(run.steps)} steps")
    if run.missing:
        print(f"Skipped what needs this, which is missing: {', '.join(sorted(run.missing))}")
        return SKIPPED
    return 0


if __name__ == "__main__":
    sys.exit(main())
