#!/usr/bin/env python3
"""Runs the command under a pseudo-terminal and looks at what it shows there.

    terminal_test.py HXCRATE SCRATCH
"""
import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import sys
import termios
import time
from pathlib import Path

command, scratch = (Path(argument).resolve() for argument in sys.argv[1:])
WIDTH = 12


def progress_of_a_slow_pipe():
    """All lines that `put` shows while its input comes in bits, until it has shown some."""
    master, terminal = pty.openpty()
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 25, WIDTH, 0, 0))
    put = subprocess.Popen([command, "put", scratch / "s.st", "a"], stdin=subprocess.PIPE, stderr=terminal)
    os.close(terminal)
    shown, deadline = b"", time.monotonic() + 60
    while shown.count(b"reading") < 2 and time.monotonic() < deadline:
        put.stdin.write(b"x" * 1234)
        put.stdin.flush()
        if select.select([master], [], [], 0.02)[0]:
            shown += os.read(master, 65536)
    put.stdin.close()
    assert put.wait() == 0
    while select.select([master], [], [], 0)[0]:
        try:
            shown += os.read(master, 65536)
        except OSError:  # the other side is closed
            break
    return shown.decode()


def main():
    scratch.mkdir(exist_ok=True)
    (scratch / "s.st").unlink(missing_ok=True)
    shown = progress_of_a_slow_pipe()
    *progress, last = (line for line in shown.split("\r") if line.strip())
    drawn = [line for line in progress if "hxcrate" not in line]
    assert len(drawn) > 1 and all(re.match(r"reading  \d", line) for line in drawn), shown
    assert all(len(line) == WIDTH - 1 for line in drawn), shown
    assert "a new store was made" in shown and "reading" not in last, shown


main()
