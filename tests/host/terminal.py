#!/usr/bin/env python3
"""Looks at `abonent` as its users do: on terminals of several widths, through pipes, by its exit codes.

terminal.py ABONENT CHANNEL   (the program, libtransportIp.so)
"""
import fcntl
import json
import os
import pty
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import time
import unittest

import pyte

PATIENCE = 40  # seconds for what has to happen; nothing is judged by the time it takes
WIDE_NAME = "報告書-第三四半期-家族の写真と資料まとめ最終版-очень длинное имя.tar.gz"
JOINER = "\u200d".encode()  # the model of a terminal does not know it
TEXT = "Привет 👨‍👩‍👧!\n\tвторая \x1b[2Jстрока"
ENVIRONMENT = {**os.environ, "LC_ALL": "C", "TERM": "xterm"}


def wait_for(condition, what):
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.05)
    raise AssertionError(f"never: {what() if callable(what) else what}")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Abonent:
    """An installation of its own."""

    def __init__(self, name):
        self.name, self.port = name, free_port()
        self.place = tempfile.mkdtemp(prefix="terminal")
        self.program = os.path.join(self.place, "bin", "abonent")
        os.makedirs(os.path.join(self.place, "bin", "channelPlugins"))
        for file, place in ((sys.argv[1], self.program),
                            (sys.argv[2], os.path.join(self.place, "bin", "channelPlugins", "libtransportIp.so"))):
            try:
                os.link(file, place)  # a place of its own
            except OSError:
                shutil.copy(file, place)
        self.run("settings", "set", f"port={self.port}", f"Abonent/name={name}")

    def run(self, *words, **options):
        return subprocess.run([self.program, *words], env=ENVIRONMENT, capture_output=True, text=True,
                              timeout=PATIENCE, check=False, **options)

    def json(self, *words):
        """The exit code and the objects of standard output: every line has to be one."""
        done = self.run(*words, "--json")
        return done.returncode, [json.loads(line) for line in done.stdout.splitlines()]

    def key(self):
        return os.path.join(self.place, "settings", "identity.pem")


class Terminal:
    """A program on a terminal, and what is on its screen whenever it rests."""

    def __init__(self, columns, *words):
        self.columns, self.seen, self.raw = columns, [], b""
        self.screen = pyte.HistoryScreen(columns, 40, history=1000)
        self.stream = pyte.ByteStream(self.screen)
        self.child, self.master = pty.fork()
        if self.child == 0:
            os.execve(words[0], words, ENVIRONMENT)
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", 40, columns, 0, 0))
        self.code = None

    def look(self):
        """Takes what has been written. @return the lines on the screen, without blanks behind them"""
        while self.code is None and select.select([self.master], [], [], 0.1)[0]:
            try:
                data = os.read(self.master, 65536)
            except OSError:  # the program has gone
                data = b""
            if not data:
                self.code = os.waitstatus_to_exitcode(os.waitpid(self.child, 0)[1])
            self.raw += data
            self.stream.feed(data.replace(JOINER, b""))
        lines = [line.rstrip() for line in self.screen.display]
        if not self.seen or self.seen[-1] != lines:
            self.seen.append(lines)
        return [line for line in lines if line]

    def rows(self):
        """The live rows of transfers, each as percent and the rest."""
        return [(int(row[1]), row[2]) for row in map(re.compile(r"^ *(\d+) %(.*)").match, self.look()) if row]

    def whole(self):
        """All of the screen as one text, as if it were endlessly wide."""
        return re.sub(r"\s+", "", "".join(self.look()))

    def sees(self, text):
        wait_for(lambda: re.sub(r"\s+", "", text) in self.whole(), lambda: f"{text}\n" + "\n".join(self.look()))

    def end(self):
        if self.code is None:
            os.kill(self.child, signal.SIGINT)
            wait_for(lambda: self.look() is not None and self.code is not None, "the end of the program")


class Relay:
    """Passes connections on: a number of bytes at once, then few, so that nobody gives it up, until it is told."""

    QUEUED = 256 * 1024  # bytes on each of its sides; the system may queue more than a whole file

    def __init__(self, target, hold):
        self.target, self.hold, self.go, self.ends = target, hold, threading.Event(), []
        self.server = socket.create_server(("127.0.0.1", 0))
        self.server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, self.QUEUED)
        self.port = self.server.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        try:
            while True:
                near = self.server.accept()[0]
                far = socket.create_connection(("127.0.0.1", self.target))
                far.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, self.QUEUED)
                self.ends += [near, far]
                for source, sink, held in ((near, far, True), (far, near, False)):
                    threading.Thread(target=self.pump, args=(source, sink, held), daemon=True).start()
        except OSError:
            pass

    def pump(self, source, sink, is_held):
        passed = 0
        try:
            while data := source.recv(65536):
                passed += len(data)
                if is_held and passed > self.hold:
                    self.go.wait(len(data) / 200_000)
                sink.sendall(data)
            sink.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def cut(self):
        for end in (self.server, *self.ends):  # the server as well: closing alone does not wake who accepts
            end.shutdown(socket.SHUT_RDWR)
        self.server.close()
        self.go.set()


class TestTerminal(unittest.TestCase):
    def setUp(self):
        self.anna, self.boris = self.abonent("Анна"), self.abonent("Борис")
        for one, other in ((self.anna, self.boris), (self.boris, self.anna)):
            one.run("contact", "add", other.name, f"127.0.0.1:{other.port}")
        self.files = [os.path.join(self.anna.place, name) for name in ("big.bin", WIDE_NAME)]
        for file in self.files:
            with open(file, "wb") as out:
                out.truncate(30_000_000)

    def abonent(self, name):
        abonent = Abonent(name)
        self.addCleanup(shutil.rmtree, abonent.place)
        return abonent

    def terminal(self, columns, *words):
        terminal = Terminal(columns, *words)
        self.addCleanup(terminal.end)
        return terminal

    def listen(self, columns):
        boris = self.terminal(columns, self.boris.program, "listen")
        boris.sees("успешно запущен")
        return boris

    def start(self, abonent, *options, **streams):
        """`listen` without a terminal, when it answers."""
        process = subprocess.Popen([abonent.program, "listen", *options], env=ENVIRONMENT, **streams)
        self.addCleanup(process.wait, PATIENCE)
        self.addCleanup(process.terminate)

        def is_open():
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", abonent.port)) == 0

        wait_for(is_open, "an open port")
        return process

    def look_at_rows(self, terminal):
        """Every row that was ever there fits, and says what it has to in its order."""
        for row in (line for lines in terminal.seen for line in lines if re.match(r"^ *\d+ %", line)):
            cells = sum(max(pyte.screens.wcwidth(character), 0) for character in row)
            self.assertLess(cells, terminal.columns, row)
            self.assertRegex(row, r"^ *\d+ % +(еще )?(\d+:\d\d)? +(передается|принимается|ждем ответа|сохраняется|стоит"
                                  r"|всего) *([\d.]+ \S+/с)? ")

    def check_width(self, columns):
        relay = Relay(self.boris.port, 15_000_000)
        boris = self.listen(columns)
        anna = self.terminal(columns, self.anna.program, "send", "Борис", f"127.0.0.1:{relay.port}", *reversed(self.files),
                             "--text", TEXT, "--text", "да")
        for terminal in (anna, boris):  # both stand still at the same place
            wait_for(lambda: any(20 < percent < 60 for percent, _ in terminal.rows()), terminal.look)
        self.assertEqual(anna.rows()[-1][1].split()[-3:], ["2", "из", "4"])
        relay.go.set()
        anna.sees("Передано и подтверждено: 4 сообщения")
        boris.sees("00000004" if columns == 40 else "Потеряно соединение")
        wait_for(lambda: anna.code == 0 or anna.look() is None, anna.look)
        for terminal in (anna, boris):
            wait_for(lambda: not terminal.rows(), terminal.look)  # nothing is left of what was live
            self.look_at_rows(terminal)
            self.assertNotIn("SHA-256", terminal.whole())
        screen = boris.look()
        first = next(i for i, line in enumerate(screen) if "Привет" in line)
        self.assertEqual([line.strip() for line in screen[first:first + 2]],
                         ["Привет 👨👩👧!", "вторая \\u001B[2Jстрока"])
        self.assertIn("Привет 👨‍👩‍👧!".encode(), boris.raw)
        shown = [row for lines in anna.seen for row in lines if re.match(r"^ *\d+ %.*….*\.gz$", row)]
        self.assertTrue(shown or columns == 120, "the name was not shortened in its middle")

    def test_rows_fit_40_columns(self):
        self.check_width(40)

    def test_rows_fit_80_columns(self):
        self.check_width(80)

    def test_rows_fit_120_columns(self):
        self.check_width(120)

    def test_a_broken_reception_leaves_a_line_and_no_row(self):
        relay = Relay(self.boris.port, 15_000_000)
        boris = self.listen(80)
        anna = self.terminal(80, self.anna.program, "send", "Борис", f"127.0.0.1:{relay.port}", self.files[0], "--retry")
        for terminal in (anna, boris):
            wait_for(terminal.rows, terminal.look)
        relay.cut()
        boris.sees("прервано Анна файл 'big.bin', принято")
        anna.sees("не отвечает, 127.0.0.1:%d: в соединении отказано" % relay.port)
        for terminal in (anna, boris):
            wait_for(lambda: not terminal.rows(), terminal.look)

    def test_without_a_terminal_each_event_is_a_line_once(self):
        for style in ([], ["--json"], ["--quiet"]):
            with self.subTest(style=style):
                with tempfile.TemporaryFile() as heard:
                    boris = self.start(self.boris, *style, stdout=heard, stderr=subprocess.STDOUT)
                    code, said = self.anna.json("send", "Борис", "--text", TEXT, self.files[0])
                    boris.terminate()
                    boris.wait(PATIENCE)
                    heard.seek(0)
                    output = heard.read().decode()
                self.assertEqual(code, 0)
                self.assertEqual([each["event"] for each in said if each["event"] in ("accepted", "delivered", "finished")],
                                 ["accepted", "delivered", "delivered", "finished"])
                self.assertNotIn("\x1b", output)
                lines = output.splitlines()
                if style == ["--quiet"]:
                    self.assertEqual(lines, [])
                elif style:
                    events = [json.loads(line) for line in lines]
                    received = [each for each in events if each["event"] == "received"]
                    self.assertEqual([(each["kind"], each["size"]) for each in received],
                                     [("text", len(TEXT.encode())), ("file", 30_000_000)])
                    self.assertTrue(all(os.path.isdir(each["directory"]) for each in received))
                    self.assertEqual(sum(each["event"] == "listening" for each in events), 1)
                else:
                    self.assertEqual(len([line for line in lines if "принято" in line]), 2, output)
                    self.assertEqual(len([line for line in lines if "успешно запущен" in line]), 1, output)

    def test_every_kind_of_failure_has_its_code(self):
        old = socket.create_server(("127.0.0.1", 0))  # answers as version 1 did

        def answer():
            while True:
                with old.accept()[0] as caller:
                    caller.sendall(bytes([8, 0, 0, 0, 0, 0, 0, 1, 0]))
                    caller.recv(100)

        threading.Thread(target=answer, daemon=True).start()
        boris = self.start(self.boris, "--quiet", stderr=subprocess.DEVNULL)
        there, eva = f"127.0.0.1:{self.boris.port}", self.abonent("Ева")
        blocked, taken = self.abonent("Блок"), self.abonent("Анна")
        blocked.run("ping", "Борис", there)
        self.boris.run("contact", "block", "Блок")
        self.anna.run("ping", "Борис")
        eva.run("contact", "add", "Борис", there)
        eva.run("ping", "Борис")
        words = ["send", "Борис", "--now", "--text", "x"]
        cases = [(eva, ["ping", "Ева2", f"127.0.0.1:{free_port()}"], 3, "no-answer"),
                 (eva, ["send", "Ева2", f"127.0.0.1:{free_port()}", "--now", "--text", "x"], 3, "no-answer"),
                 (eva, ["ping", "Гость", there], 4, "somebody-else"),
                 (blocked, words[:2] + [there] + words[2:], 9, "refused"),
                 (taken, words[:2] + [there] + words[2:], 11, "name-taken"),
                 (eva, ["send", "Старый", f"127.0.0.1:{old.getsockname()[1]}", "--now", "--text", "x"], 12,
                  "other-version"),
                 (eva, ["settings", "set", "port=0"], 6, "bad-value"),
                 (eva, ["contact", "fly"], 2, "usage"),
                 (eva, ["contact", "remove", "Никто"], 1, "installation")]
        for abonent, command, code, word in cases:
            with self.subTest(command=command, code=code):
                seen, objects = abonent.json(*command)
                self.assertEqual((seen, objects[-1].get("code")), (code, word), objects)
        boris.terminate()
        boris.wait(PATIENCE)
        os.remove(self.boris.key())  # another key under the same name
        self.start(self.boris, "--quiet", stderr=subprocess.DEVNULL)
        self.assertEqual(eva.json(*words)[0], 8)

    @unittest.skipIf(os.geteuid() != 0, "only root can be somebody else")
    def test_missing_rights_are_said_once(self):
        place = self.abonent("Рут")
        shutil.rmtree(os.path.join(place.place, "data"))
        shutil.rmtree(os.path.join(place.place, "settings"))
        os.chmod(place.place, 0o755)
        for command in (["listen"], ["send", "А", "1.2.3.4", "--text", "x"], ["ping", "А", "1.2.3.4"]):
            done = place.run(*command, user=65534, group=65534, extra_groups=[])
            self.assertEqual(done.returncode, 1)
            self.assertEqual(done.stdout, "")
            self.assertRegex(done.stderr, r"\AПользователь \S+ не может .*%s принадлежит root:root, права rwxr-xr-x.*\n\Z"
                             % re.escape(place.place))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
