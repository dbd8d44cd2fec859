#!/usr/bin/env python3
"""Types into a real interactive bash, presses Tab, and looks at what the command is given: names that
strangers chose arrive as they are, and none of them runs anything.

    completion_test.py COMPLETION HXCRATE SCRATCH
"""
import os
import pty
import select
import shutil
import subprocess
import sys
from pathlib import Path

completion, command, scratch = (Path(argument).resolve() for argument in sys.argv[1:])
PROMPT = b"<ready>"

# Each begins with a character of its own, which is all that is typed of it.
NAMES = [
    "a$(touch pwned)", "b`touch pwned`", "c${x:-$(touch pwned)}", 'd"e', "e'f", "f g", "g\nh", "h!!",
    "i*", "j\\k", "k;touch pwned", "l:m=n@o", "m\tn\x01", "n\u00fc", "o>pwned", "p${PWD}", "q$'r",
    "u\u202e1", "v\u200b2", "w\u2066\u061c3", "~", "*", "!", "#",
]
DIRECTORIES = ["r$(touch pwned) s", "t\"'!"]  # each holds "inner"
BARE, QUOTES = {"~": "\\~", "*": "\\*", "!": "\\!", "#": "\\#"}, ["", '"', "'", "$'"]


def make_world():
    shutil.rmtree(scratch, ignore_errors=True)
    tree, home, bin_ = (scratch / name for name in ("tree", "home", "bin"))
    for directory in (tree, home, bin_):
        directory.mkdir(parents=True)
    for name in NAMES + ["-v"]:
        (tree / name).write_text("")
    for name in DIRECTORIES:
        (tree / name).mkdir()
        (tree / name / "inner").write_text("")
    (tree / "same $(touch pwned) 1").write_text("")
    (tree / "same $(touch pwned)\n2").write_text("")
    subprocess.run([command, "pack", "s.st", "tree"], cwd=scratch, check=True)
    shutil.copy(scratch / "s.st", home / "x y.st")
    (scratch / "p$(touch pwned)").mkdir()
    shutil.copy(scratch / "s.st", scratch / "p$(touch pwned)" / "q.st")
    # Stands for the command: what the line would run is only noted.
    (bin_ / "hxcrate").write_text(
        f'#!/bin/bash\nif [ "$2" = -0 ]; then exec "{command}" "$@"; fi\n'
        f'printf "%s\\0" "$@" > "{scratch}/given"\n')
    (bin_ / "hxcrate").chmod(0o755)


class Shell:
    showed_deceptive = False

    def __init__(self):
        pid, self.terminal = pty.fork()
        if pid == 0:
            os.chdir(scratch)
            os.execvpe("bash", ["bash", "--noprofile", "--norc", "-i"], {
                "HOME": str(scratch / "home"), "PATH": f"{scratch}/bin:{os.environ['PATH']}",
                "PS1": PROMPT.decode(), "TERM": "dumb", "LC_ALL": "C.UTF-8", "HISTFILE": "",
                "INPUTRC": "/dev/null", "STORE": "home/x y.st", "store": "s.st"})
        self.await_prompt()
        self.run(f"bind 'set bell-style none'; source '{completion}'")

    def await_prompt(self):
        said = b""
        while not said.endswith(PROMPT):
            if not select.select([self.terminal], [], [], 10)[0]:
                os.write(self.terminal, b"\x03")  # the line isn't at its end
            said += os.read(self.terminal, 65536)
        self.showed_deceptive |= any(raw.encode() in said for raw in "\u061c\u200b\u202e\u2066")

    def run(self, line):
        os.write(self.terminal, line.encode() + b"\r")
        self.await_prompt()

    def complete(self, line):
        """What the command is given when Tab is pressed behind the line, and Enter."""
        (scratch / "given").unlink(missing_ok=True)
        self.run(f"hxcrate {line}\t")
        if not (scratch / "given").exists():
            return []
        return os.fsdecode((scratch / "given").read_bytes()).split("\0")[:-1]


def cases():
    """Lines, and the last word that they complete to."""
    for name in NAMES:
        for quote in QUOTES:
            first = name[0] if quote else BARE.get(name[0], name[0])
            yield f"cat s.st {quote}{first}", name
    for name in DIRECTORIES:
        for quote in QUOTES:
            yield f"cat s.st {quote}{name[0]}\ti", f"{name}/inner"
    yield "cat s.st l:m", "l:m=n@o"
    yield "cat s.st l\\:m=", "l:m=n@o"
    yield "cat s.st -- -", "-v"
    yield "cat s.st sa\t\\ 1", "same $(touch pwned) 1"
    yield "cat s.st sa\t$'\\n", "same $(touch pwned)\n2"
    for store in ("~/x\\ y.st", "$HOME/x\\ y.st", '"$HOME/x y.st"', "${HOME}/'x y.st'", '"$STORE"',
                  "home/x\\ y.st"):
        yield f"cat {store} f", "f g"
    for typed in ("~/x", "$HOME/x", '"$HOME/x', "${HOME}/'x", "$HOME/x\\ "):
        yield f"cat {typed}", str(scratch / "home" / "x y.st")
    yield "cat \"$store\" f", "f g"
    yield "cat p\tq", "p$(touch pwned)/q.st"
    yield "cat 'p$(touch pwned)/q.st' f", "f g"
    yield "--ver", "--version"
    yield "ls --js", "--json"
    # What is not understood stays as it is.
    yield "cat s.st -z", "-z"
    yield "cat $(echo\\ x) f", "f"


def main():
    make_world()
    shell = Shell()
    wrong = 0
    for line, expected in cases():
        given = shell.complete(line)
        if given[-1:] != [expected]:
            wrong += 1
            print(f"{line!r} gives {given!r}, not {expected!r}")
    if (scratch / "pwned").exists():
        wrong += 1
        print("a name was run as a command")
    if shell.showed_deceptive:
        wrong += 1
        print("characters that are not seen were shown")
    return 1 if wrong else 0


sys.exit(main())
