"""Starting the measuring programs and reading what they print."""

import os
import subprocess
import tempfile

QUICK = 20  # seconds that a short run may take at the most
LONG = 120


class Failed(Exception):
    """A program did not do what was asked of it."""


class Programs:
    """The programs of one build and the directory for their files."""

    def __init__(self, build):
        self.directory = os.path.join(os.path.abspath(build), "bin")
        self.files = tempfile.mkdtemp(prefix="bench-files.", dir=os.path.abspath(build))
        listed = self.run(self.peer()).splitlines()
        self.roles = {line.split("\t")[0] for line in listed}

    def project(self, *arguments):
        return [os.path.join(self.directory, "channelbench"), *map(str, arguments)]

    def peer(self, *arguments):
        return [os.path.join(self.directory, "peers"), *map(str, arguments)]

    def of(self, variant, kind, *arguments):
        """The command that plays a role: the project's, or a peer's of the given variant."""
        if variant.startswith("project"):
            return self.project(kind, *arguments)
        return self.peer(kind, variant, *arguments)

    def has(self, kind, variant):
        return variant.startswith("project") or f"{kind} {variant}" in self.roles

    @staticmethod
    def environment(variant):
        environment = dict(os.environ)
        if variant == "project":  # "project, logging" is the other one
            environment["CHANNELBENCH_QUIET"] = "1"
        return environment

    def run(self, command, seconds=QUICK, variant=""):
        """Runs a program to its end. Returns what it printed."""
        try:
            done = subprocess.run(command, capture_output=True, text=True, timeout=seconds,
                                  stdin=subprocess.DEVNULL, env=self.environment(variant), check=False)
        except subprocess.TimeoutExpired as error:
            raise Failed(f"{' '.join(command)}: not done in {seconds} s") from error
        if done.returncode != 0:
            raise Failed(f"{' '.join(command)}: code {done.returncode}\n{done.stderr[-2000:]}")
        return done.stdout

    def values(self, command, seconds=QUICK):
        """Runs a program that prints lines of a metric, a tab and a number."""
        return {metric: float(value) for metric, value in
                (line.split("\t") for line in self.run(command, seconds).splitlines())}

    def rows(self, command, seconds=LONG):
        """Runs a program that prints rows of five fields. Yields (case, variant, metric, value)."""
        for line in self.run(command, seconds).splitlines():
            _, case, variant, metric, value = line.split("\t")
            yield case, variant, metric, float(value)


class Server:
    """A program that prints its port and serves until its input ends."""

    def __init__(self, programs, command, variant=""):
        # The echo of the log goes to nobody: what a host does with that stream is its own affair.
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True, env=programs.environment(variant))
        self.pid = self.process.pid
        word, _, port = self.process.stdout.readline().partition(" ")
        if word != "PORT":
            self.process.kill()
            raise Failed(f"{' '.join(command)}: does not listen")
        self.port = int(port)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        try:
            self.process.wait(QUICK)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()

    def last_words(self, seconds=QUICK):
        """What the server prints before it ends by itself."""
        try:
            return self.process.communicate(timeout=seconds)[0]
        except subprocess.TimeoutExpired as error:
            self.process.kill()
            raise Failed(f"{self.process.args}: does not end") from error
