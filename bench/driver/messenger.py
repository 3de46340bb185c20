"""The messenger beside rsync (to a daemon, with --fsync) and NNCP: the same things delivered to the disk of another
installation on this machine. The peers are left out where they are not installed."""

import os
import shutil
import signal
import socket
import subprocess
import time

from programs import Failed

PROJECT = "project"
RSYNC = "rsync --fsync"
NNCP = "NNCP"
PATIENCE = 120  # seconds


def free_port():
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        return free.getsockname()[1]


def run(command, **more):
    """Runs a command to its end. Returns the seconds it took."""
    begin = time.monotonic()
    done = subprocess.run(command, capture_output=True, timeout=PATIENCE, check=False, **more)
    if done.returncode != 0:
        raise Failed(f"{' '.join(command)[:200]}: code {done.returncode}\n{done.stderr[-1000:].decode()}")
    return time.monotonic() - begin


class Installation:
    """One abonent."""

    def __init__(self, place, binaries, name):
        self.program = os.path.join(place, "bin", "abonent")
        self.inbox = os.path.join(place, "data", "0", "messages", "input")
        os.makedirs(os.path.join(place, "bin", "channelPlugins"))
        os.makedirs(os.path.join(place, "settings"))
        shutil.copy(os.path.join(binaries, "abonent"), self.program)
        shutil.copy(os.path.join(binaries, "channelPlugins", "libtransportIp.so"),
                    os.path.join(place, "bin", "channelPlugins"))
        with open(os.path.join(place, "settings", "generalSettings.ini"), "w", encoding="ascii") as settings:
            settings.write("[Contacts]\npolicy=all\n")
        self.port = free_port()
        run([self.program, "settings", "set", f"port={self.port}"])
        self.listener = subprocess.Popen([self.program, "listen", "--name", name], stdout=subprocess.DEVNULL,
                                         stderr=subprocess.DEVNULL)

    def end(self):
        self.listener.send_signal(signal.SIGINT)
        self.listener.wait(PATIENCE)


class Rsync:
    """A daemon that takes files."""

    def __init__(self, place):
        self.place = os.path.join(place, "in")
        os.makedirs(self.place)
        self.port = free_port()
        config = os.path.join(place, "rsyncd.conf")
        identity = "uid = root\ngid = root\n" if os.geteuid() == 0 else ""
        with open(config, "w", encoding="utf-8") as text:
            text.write(f"port = {self.port}\naddress = 127.0.0.1\nuse chroot = no\n[in]\npath = {self.place}\n"
                       f"read only = no\n{identity}")
        self.daemon = subprocess.Popen(["rsync", "--daemon", "--no-detach", f"--config={config}"],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def send(self, path):
        return run(["rsync", "-r", "--fsync", path, f"rsync://127.0.0.1:{self.port}/in/"])

    def end(self):
        self.daemon.terminate()
        self.daemon.wait(PATIENCE)


class Nncp:
    """Two nodes: sending is packing, a call, and the toss at the other side."""

    def __init__(self, place):
        self.port = free_port()
        self.configs = {}
        texts = {}
        for name in ("a", "b"):
            config = os.path.join(place, f"{name}.hjson")
            for directory in ("spool", "in"):
                os.makedirs(os.path.join(place, name, directory))
            texts[name] = subprocess.run(["nncp-cfgnew", "-nocomments"], capture_output=True, text=True,
                                         check=True).stdout
            self.configs[name] = config
        for name, other in (("a", "b"), ("b", "a")):
            keys = self.neighbour(texts[other])
            own = texts[name].replace("/var/spool/nncp/log", os.path.join(place, name, "log"))
            own = own.replace("/var/spool/nncp", os.path.join(place, name, "spool"))
            neighbour = (f"    {other}: {{\n{keys}      incoming: {os.path.join(place, name, 'in')}\n"
                         f"      addrs: {{ main: \"127.0.0.1:{self.port}\" }}\n    }}\n")
            with open(self.configs[name], "w", encoding="utf-8") as config:
                config.write(own.replace("neigh: {", "neigh: {\n" + neighbour, 1))
        self.daemon = subprocess.Popen(["nncp-daemon", "-quiet", "-cfg", self.configs["b"], "-bind",
                                        f"127.0.0.1:{self.port}"],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    @staticmethod
    def neighbour(text):
        """The public keys of a node, from its own entry among its neighbours."""
        inside = text[text.index("self: {", text.index("neigh: {")):]
        lines = [line for line in inside[:inside.index("}")].splitlines() if "pub:" in line or "id:" in line]
        return "".join(f"      {line.strip()}\n" for line in lines)

    def send(self, path):
        begin = time.monotonic()
        for name in ([path] if os.path.isfile(path) else
                     [os.path.join(path, entry) for entry in os.listdir(path)]):
            run(["nncp-file", "-quiet", "-cfg", self.configs["a"], name, "b:"])
        run(["nncp-call", "-quiet", "-onlinedeadline", "1", "-cfg", self.configs["a"], "b"])
        run(["nncp-toss", "-quiet", "-cfg", self.configs["b"]])
        return time.monotonic() - begin

    def end(self):
        self.daemon.terminate()
        self.daemon.wait(PATIENCE)


def wait_for(port):
    """Until somebody listens."""
    for _ in range(200):
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.02)
    raise Failed(f"nobody listens on port {port}")


def messenger(programs, number):
    """One text, 300 files of 4 KiB, one file of 1 GiB; the sender's `send` delivers by itself."""
    place = os.path.join(programs.files, f"messenger.{number}")
    source = os.path.join(programs.files, "messenger.source")
    small = os.path.join(source, "small")
    if not os.path.isdir(source):
        os.makedirs(small)
        for i in range(300):
            with open(os.path.join(small, f"f{i}"), "wb") as file:
                file.write(os.urandom(4096))
        with open(os.path.join(source, "big"), "wb") as file:
            for _ in range(1024):
                file.write(os.urandom(1 << 20))
        with open(os.path.join(source, "text"), "wb") as file:
            file.write(b"A text of no great length.\n")
    os.sync()

    result = {}
    sender = Installation(os.path.join(place, "a"), os.path.join(programs.directory), "A")
    sender.end()
    receiver = Installation(os.path.join(place, "b"), os.path.join(programs.directory), "B")
    ends = [receiver]
    try:
        wait_for(receiver.port)
        run([sender.program, "send", "B", f"127.0.0.1:{receiver.port}", "--text", "first"])
        sending = [sender.program, "send", "B"]
        ours = {"one text": sending + ["--text", "A text of no great length."],
                "300 files of 4 KiB": sending + [os.path.join(small, f"f{i}") for i in range(300)],
                "1 GiB": sending + [os.path.join(source, "big")]}
        theirs = {"one text": os.path.join(source, "text"), "300 files of 4 KiB": small,
                  "1 GiB": os.path.join(source, "big")}
        peers = {}
        for variant, kind, tool in ((RSYNC, Rsync, "rsync"), (NNCP, Nncp, "nncp-call")):
            if shutil.which(tool):
                os.makedirs(os.path.join(place, tool))
                peers[variant] = kind(os.path.join(place, tool))
                ends.append(peers[variant])
                wait_for(peers[variant].port)
        for case, command in ours.items():
            turns = [(PROJECT, lambda command=command: run(command))]
            turns += [(variant, lambda peer=peer, case=case: peer.send(theirs[case]))
                      for variant, peer in peers.items()]
            for step in range(len(turns)):
                variant, turn = turns[(step + number) % len(turns)]
                os.sync()  # what another has left unwritten is not this one's work
                result[case, variant, "ms"] = turn() * 1000
    finally:
        for end in ends:
            end.end()
        remove_large(place)
    return result


def remove_large(place):
    """Makes room. The small files stay until all is measured: a file system may take long to find room for new
    ones soon after many have been removed."""
    for directory, _, names in os.walk(place):
        for name in names:
            path = os.path.join(directory, name)
            if os.lstat(path).st_size > 1 << 24:
                os.remove(path)
