#!/usr/bin/python3
"""Plays a session between two machines in terminals and draws their screens: record.py BINARIES SVG

Started by record.sh, which installs and builds what this needs.
"""

import fcntl
import html
import os
import pty
import select
import struct
import subprocess
import sys
import termios
import time

import pyte

from machines import Failed, Machine, enter, make_network

COLUMNS = 104
ROWS = 40  # more than are used: nothing scrolls away, empty ones are not drawn
PATIENCE = 60  # seconds
SETTLED = 0.5  # seconds of silence after which a program that goes on has said everything

# Pixels, and colours that stand on a light page as on a dark one.
CELL, LINE, MARGIN, TITLE = 7.83, 17, 14, 26
BACK, BAR, TEXT, FAINT, PROMPT = "#20242b", "#333a45", "#d5d9e0", "#9aa4b2", "#7fc28b"
ANSI = {"red": "#e06c75", "green": "#98c379", "brown": "#e5c07b", "blue": "#61afef", "magenta": "#c678dd",
        "cyan": "#56b6c2", "white": "#ffffff", "black": "#5c6370"}


class Terminal:
    """A screen of one machine, and the program that writes to it."""

    def __init__(self, title, machine):
        self.title, self.machine = title, machine
        self.screen = pyte.Screen(COLUMNS, ROWS)
        self.stream = pyte.ByteStream(self.screen)
        self.process = self.master = None

    def start(self, command):
        self.stream.feed(f"\r\x1b[32m{self.machine.name}$\x1b[0m {command}\r\n".encode())
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
        environment = dict(self.machine.environment, TERM="xterm-256color")
        self.process = subprocess.Popen(self.machine.command(command), stdin=slave, stdout=slave, stderr=slave,
                                        env=environment, start_new_session=True)
        os.close(slave)

    def follow(self, enough=lambda: False):
        """Shows what the program prints until it ends, or until that is enough and it falls silent."""
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            if not select.select([self.master], [], [], SETTLED)[0]:
                if enough():
                    return
                continue
            try:
                self.stream.feed(os.read(self.master, 65536))
            except OSError:  # the program is gone, and with it the other end
                self.process.wait()
                return
        raise Failed(f"{self.title}: not done in {PATIENCE} s:\n" + "\n".join(self.screen.display))

    def run(self, command):
        self.start(command)
        self.follow()

    def shows(self, text):
        return any(text in line for line in self.screen.display)

    def rows(self):
        """Runs of cells alike, row by row: lists of (column, text, colour, bold)."""
        rows = []
        for y in range(self.screen.lines):
            row = []
            for x in range(COLUMNS):
                cell = self.screen.buffer[y][x]
                colour = ANSI.get(cell.fg, TEXT)
                if row and row[-1][2:] == [colour, cell.bold]:
                    row[-1][1] += cell.data
                else:
                    row.append([x, cell.data, colour, cell.bold])
            rows.append([part for part in row if part[1].strip()])
        while rows and not rows[-1]:
            rows.pop()
        return rows


def drawn(terminals):
    width = 2 * MARGIN + COLUMNS * CELL
    top, parts = 0.0, []
    for terminal in terminals:
        rows = terminal.rows()
        height = TITLE + 2 * MARGIN + len(rows) * LINE
        parts.append(f'<rect y="{top:g}" width="{width:g}" height="{height:g}" rx="8" fill="{BACK}"/>'
                     f'<path d="M0 {top + TITLE:g}V{top + 8:g}q0-8 8-8H{width - 8:g}q8 0 8 8V{top + TITLE:g}z" fill="{BAR}"/>'
                     f'<text x="{width / 2:g}" y="{top + 18:g}" text-anchor="middle" fill="{FAINT}">'
                     f'{html.escape(terminal.title, quote=False)}</text>')
        for number, row in enumerate(rows):
            y = top + TITLE + MARGIN + number * LINE + 12
            for column, text, colour, bold in row:
                lead = len(text) - len(text.lstrip())
                text = text.strip()
                weight = ' font-weight="bold"' if bold else ""
                fill = f' fill="{colour}"' if colour != TEXT else ""
                parts.append(f'<text x="{MARGIN + (column + lead) * CELL:g}" y="{y:g}" textLength="{len(text) * CELL:g}"'
                             f'{weight}{fill}>{html.escape(text, quote=False)}</text>')
        top += height + MARGIN
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:g} {top - MARGIN:g}" width="{width:g}" '
            f'height="{top - MARGIN:g}" font-family="\'DejaVu Sans Mono\',\'Liberation Mono\',Menlo,Consolas,monospace" '
            f'font-size="13" fill="{TEXT}" xml:space="preserve">\n<title>Сеанс: Анна и Борис обмениваются текстами и '
            'файлом</title>\n' + "\n".join(parts) + "\n</svg>\n")


def play(binaries):
    make_network()
    anna = Terminal("Анна, 10.0.0.1", Machine("anna", binaries))
    boris = Terminal("Борис, 10.0.0.2", Machine("boris", binaries))
    for name, terminal in (("Анна", anna), ("Борис", boris)):
        subprocess.run(terminal.machine.command(f"abonent settings set Abonent/name={name}"), check=True,
                       env=terminal.machine.environment, stdout=subprocess.DEVNULL)
    subprocess.run(anna.machine.command("head -c 100000000 /dev/zero > отчет.pdf"), check=True,
                   env=anna.machine.environment)

    anna.run("abonent contact add Борис 10.0.0.2")
    anna.run("abonent send Борис --text 'Борис, прочтешь, когда появишься.'")
    boris.run("abonent contact add Анна 10.0.0.1")
    boris.start("abonent listen")
    boris.follow(lambda: boris.shows("успешно запущен"))
    anna.run("abonent send Борис --text 'Привет, Борис! Файл следом.' отчет.pdf")
    boris.follow(lambda: boris.shows("отчет.pdf"))
    return [anna, boris]


def main():
    obstacle = enter()
    if obstacle:
        print(obstacle, file=sys.stderr)
        return 1
    binaries, target = sys.argv[1:]
    try:
        picture = drawn(play(binaries))
    except Failed as error:
        print(error, file=sys.stderr)
        return 1
    with open(target, "w", encoding="utf-8") as file:
        file.write(picture)
    print(f"{target}: {len(picture.encode())} bytes")
    return 0


if __name__ == "__main__":
    sys.exit(main())
