#!/usr/bin/python3
"""Drives the full screen of one abonent in a pseudo-terminal while another abonent listens.

  drivescreen.py ABONENT CHANNEL      the built program and channel library
"""
import errno, fcntl, os, pty, select, shutil, signal, socket, struct, subprocess, sys, tempfile, termios, threading, time
import pyte

PATIENCE = 60  # seconds; what is waited for comes at once on an idle machine
F3, F5, F7, CTRL_Z, ESCAPE = "\033OR", "\033[15~", "\033[18~", "\x1a", "\033"


def installation(place, name):
    """@return the program of a new installation, and its port"""
    plugins = os.path.join(place, name, "bin", "channelPlugins")
    os.makedirs(plugins)
    shutil.copy(sys.argv[2], plugins)
    program = shutil.copy(sys.argv[1], os.path.join(place, name, "bin"))
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    subprocess.run([program, "settings", "set", f"port={port}", f"Abonent/name={name}"], check=True,
                   stdout=subprocess.DEVNULL)
    return program, port


def run_as_shell(program, go, tell):
    """Runs a program in a group of its own, as shells do: only with a parent in the session can it be stopped."""
    os.read(go, 1)
    child = os.fork()
    if child == 0:
        os.setpgid(0, 0)
        signal.signal(signal.SIGTTOU, signal.SIG_IGN)
        os.tcsetpgrp(0, os.getpid())
        signal.signal(signal.SIGTTOU, signal.SIG_DFL)
        os.write(tell, str(os.getpid()).encode())
        environment = dict(os.environ, TERM="screen", LC_ALL="C")  # UTF-8 also where no locale says so
        os.execve(program, [program], environment)
    os._exit(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) & 0xff)


class Cells(pyte.Screen):
    """With scrolling, which the terminal type offers and pyte does not have."""

    def scrolled(self, move, count):
        row, column = self.cursor.y, self.cursor.x
        self.cursor.y = self.margins.top if self.margins else 0
        move(count)
        self.cursor.y, self.cursor.x = row, column

    def scroll_up(self, count=1):
        self.scrolled(self.delete_lines, count)

    def scroll_down(self, count=1):
        self.scrolled(self.insert_lines, count)


pyte.Stream.csi = dict(pyte.Stream.csi, S="scroll_up", T="scroll_down")


class Terminal:
    """A program in a terminal of its own, and what it shows."""

    def __init__(self, program, columns, rows):
        self.cells = Cells(columns, rows)
        self.stream = pyte.ByteStream(self.cells)
        (told, tell), (go, start) = os.pipe(), os.pipe()
        self.shell, self.master = pty.fork()
        if self.shell == 0:
            run_as_shell(program, go, tell)
        self.resize(columns, rows)
        self.before = termios.tcgetattr(self.master)
        os.write(start, b"!")
        self.child = int(os.read(told, 20))
        for descriptor in (told, tell, go, start):
            os.close(descriptor)

    def resize(self, columns, rows):
        self.cells.resize(rows, columns)
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def type(self, text):
        os.write(self.master, text.encode())

    def read(self, seconds):
        if select.select([self.master], [], [], seconds)[0]:
            try:
                self.stream.feed(os.read(self.master, 65536))
            except OSError as error:  # the program has ended
                if error.errno != errno.EIO:
                    raise

    def shows(self, *texts):
        """Waits until all texts are on the screen."""
        deadline = time.monotonic() + PATIENCE
        while not all(text in "\n".join(self.cells.display) for text in texts):
            if time.monotonic() > deadline:
                raise AssertionError(f"not shown: {texts}\n" + "\n".join(self.cells.display))
            self.read(0.1)

    def state(self, *states):
        """Waits until /proc shows the program in one of the states."""
        deadline = time.monotonic() + PATIENCE
        while open(f"/proc/{self.child}/stat").read().rsplit(")", 1)[1].split()[0] not in states:
            assert time.monotonic() < deadline, f"not in {states}"
            self.read(0.1)

    def is_as_found(self):
        return termios.tcgetattr(self.master)[:4] == self.before[:4]

    def end(self):
        """@return exit code, or minus the signal's number, as eight bits"""
        while True:
            done, status = os.waitpid(self.shell, os.WNOHANG)
            if done:
                return os.waitstatus_to_exitcode(status)
            self.read(0.1)


def talk(anna, place, boris):
    anna.shows("Борис", "прием не запущен", "F5", "? все")
    anna.type("\rПривет из окна\r")
    anna.shows("Вы: Привет из окна [ждет]")
    anna.type(F5)
    anna.shows("Привет из окна [доставлено]", "прием идет")

    # An answer appears by itself, harmless; one that comes while another conversation is open is counted.
    subprocess.run([boris, "send", "Анна", "--text", "Ответ\n日本 e\u0301 \033[2J конец"], check=True,
                   stdout=subprocess.DEVNULL)
    anna.shows("Борис:", "Ответ", "\\u001B[2J конец")
    anna.type("\t")
    anna.shows("Enter писать")
    subprocess.run([boris, "send", "Анна", "--text", "Еще"], check=True, stdout=subprocess.DEVNULL)
    anna.shows("1 нов", "(новое): Еще")

    with open(os.path.join(place, "отчет.txt"), "w") as file:
        file.write("годовой")
    anna.type(F7 + place + "/от\t")
    anna.shows("отчет.txt")
    anna.type("\r")
    anna.shows("файл отчет.txt, 14 байт [доставлено]")
    anna.type(F3)
    anna.shows("Все передано")
    anna.type(ESCAPE)
    anna.shows("Tab контакты")
    stop_and_go_on(anna)


def stop_and_go_on(anna):
    anna.resize(40, 12)
    anna.shows("Анна | Разговор             прием идет", "F1 все  Enter отправить  Tab контакты")
    anna.type("черновик" + CTRL_Z)
    anna.state("T")
    assert anna.is_as_found(), "the terminal was not given back for the stop"
    anna.resize(60, 12)
    os.killpg(anna.child, signal.SIGCONT)
    anna.shows("> черновик", "F7 файл")
    anna.type("\x03")
    anna.shows("еще раз")
    anna.type("\x03")
    assert anna.end() == 0
    assert anna.is_as_found(), "the terminal was not given back at the end"


def ended_by_signals(program):
    """The resident goes on without the screen, and what was sent is remembered."""
    for number, code in ((signal.SIGTERM, 128 + signal.SIGTERM), (signal.SIGSEGV, -signal.SIGSEGV)):
        terminal = Terminal(program, 80, 24)
        terminal.shows("прием идет", "Привет из окна [доставлено]", "файл отчет.txt")
        if number == signal.SIGSEGV:
            terminal.type(F5 + F5)
            terminal.shows("прием не запущен")
        os.kill(terminal.child, number)
        assert terminal.end() == code & 0xff
        assert terminal.is_as_found(), f"the terminal was not given back after signal {number}"


def processes_in(place):
    """All that run a program of ours: what was started in the background as well."""
    found = []
    for process in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{process}/exe").startswith(place):
                found.append(int(process))
        except OSError:
            pass
    return found


place = os.path.realpath(tempfile.mkdtemp(prefix="drivescreen-"))
try:
    anna_program, anna_port = installation(place, "Анна")
    boris_program, boris_port = installation(place, "Борис")
    for program, name, port in ((anna_program, "Борис", boris_port), (boris_program, "Анна", anna_port)):
        subprocess.run([program, "contact", "add", name, f"127.0.0.1:{port}"], check=True, stdout=subprocess.DEVNULL)
    listener = subprocess.Popen([boris_program, "listen"], stdout=subprocess.PIPE, text=True)
    while "успешно запущен" not in listener.stdout.readline():
        assert listener.poll() is None
    threading.Thread(target=listener.stdout.read, daemon=True).start()
    talk(Terminal(anna_program, 80, 24), place, boris_program)
    ended_by_signals(anna_program)
finally:
    for process in processes_in(place):
        os.kill(process, signal.SIGKILL)
    shutil.rmtree(place, ignore_errors=True)
