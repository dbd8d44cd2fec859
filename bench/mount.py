#!/usr/bin/env python3
"""Mounted stores beside other mounted archives and the plain folder, as a table in Markdown.

    mount.py BIN SCRATCH [--quick] [--rounds N] [--document FILE]

BIN holds the built hxcrate and hxcrate-mount. Needs root, to empty the kernel's caches. Every figure is
the median of the rounds, in each of which the engines take turns; "-" stands for what an engine was not
asked. passthrough_ll is the example of libfuse3's package, compiled here.
"""
import argparse
import os
import pathlib
import random
import shutil
import statistics
import subprocess
import sys
import time

from report import replace_tables

arguments = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
arguments.add_argument("bin", type=pathlib.Path)
arguments.add_argument("scratch", type=pathlib.Path)
arguments.add_argument("--quick", action="store_true", help="a tenth of everything, one round")
arguments.add_argument("--rounds", type=int, default=5)
arguments.add_argument("--document", type=pathlib.Path, help="put the table between its lines <!-- mount --> and <!-- /mount -->")
options = arguments.parse_args()
ROUNDS = 1 if options.quick else options.rounds
FOLDERS = 10 if options.quick else 100
LARGE = (100 if options.quick else 1024) << 20  # bytes
READS = 200 if options.quick else 2000
BIN, WORK = options.bin.resolve(), options.scratch.resolve()
MOUNT = WORK / "mount"


def run(*words, **more):
    return subprocess.run([str(word) for word in words], check=True, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, **more)


def seconds(action):
    began = time.perf_counter()
    action()
    return time.perf_counter() - began


def empty_caches():
    os.sync()
    pathlib.Path("/proc/sys/vm/drop_caches").write_text("3")


def make_trees():
    """Many files, one large one that compresses to about half, and headers; by the name of their folder."""
    noise = random.Random(20)
    for folder in range(FOLDERS):
        place = WORK / "many" / f"folder{folder:03}"
        place.mkdir(parents=True)
        for file in range(1000):
            (place / f"file-{file:04}.txt").write_text(f"{folder} {file}\n" * (1 + file % 40))
    (WORK / "large").mkdir()
    with open(WORK / "large" / "item", "wb") as out:
        for _ in range(LARGE >> 20):
            out.write(noise.randbytes(1 << 19).hex().encode())
    versions = sorted(pathlib.Path("/usr/include/c++").iterdir(), key=lambda path: int(path.name))
    shutil.copytree(versions[-1], WORK / "headers")
    (WORK / "unit.cpp").write_text("#include <bits/stdc++.h>\nint main() {}\n")


def pack(tree):
    folder = WORK / tree
    run(BIN / "hxcrate", "pack", WORK / f"{tree}.st", folder)
    run("mksquashfs", folder, WORK / f"{tree}.sq", "-quiet", "-no-progress")
    run("zip", "-q", "-r", "-0" if tree == "large" else "-6", WORK / f"{tree}.zip", ".", cwd=folder)
    run("tar", "-C", folder, "-cf", WORK / f"{tree}.tar", ".")


# How each shows a tree below MOUNT; nothing: the folder itself.
ENGINES = {
    "folder": None,
    "hxcrate": lambda tree: [BIN / "hxcrate", "mount", WORK / f"{tree}.st", MOUNT],
    "passthrough_ll": lambda tree: [WORK / "passthrough_ll", "-o", f"source={WORK / tree},cache=always", MOUNT],
    "squashfuse_ll": lambda tree: ["squashfuse_ll", WORK / f"{tree}.sq", MOUNT],
    "fuse-zip": lambda tree: ["fuse-zip", "-r", WORK / f"{tree}.zip", MOUNT],
    "archivemount": lambda tree: ["archivemount", "-o", "readonly", WORK / f"{tree}.tar", MOUNT],
}

ARCHIVES = {"hxcrate": WORK / "large.st", "squashfuse_ll": WORK / "large.sq"}


class Mounted:
    """A tree as an engine shows it; `ready` is how long that took."""

    def __init__(self, engine, tree):
        self.command, self.place, self.ready = ENGINES[engine], MOUNT, 0.0
        self.words = self.command(tree) if self.command else None
        if not self.command:
            self.place = WORK / tree

    def __enter__(self):
        if self.words:
            self.ready = seconds(lambda: run(*self.words))
        return self

    def __exit__(self, *_):
        if self.words:
            run("umount", MOUNT)


def find(place):
    names = subprocess.run(["find", place], check=True, capture_output=True).stdout
    assert names.count(b"\n") > FOLDERS * 1000, "find sees less than there is"


def compile_headers(place):
    target = next(pathlib.Path("/usr/include").glob("*/c++/*"))
    run("g++", "-fsyntax-only", "-std=c++20", "-nostdinc++", "-isystem", place, "-isystem", target,
        WORK / "unit.cpp")


def read_sequentially(place):
    with open(place / "item", "rb", buffering=0) as item:
        total = 0
        while count := len(item.read(1 << 20)):
            total += count
    assert total == LARGE


def read_at_random(place):
    places = random.Random(64)
    item = os.open(place / "item", os.O_RDONLY)
    os.posix_fadvise(item, 0, 0, os.POSIX_FADV_RANDOM)
    for _ in range(READS):
        assert len(os.pread(item, 65536, places.randrange(LARGE - 65536))) == 65536
    os.close(item)


def resident(engine):
    """Bytes a member, those of the module with them."""
    pid = subprocess.run(["pgrep", "-n", "-f", f"hxcrate-mount {WORK}"], capture_output=True, text=True).stdout
    status = pathlib.Path(f"/proc/{pid.strip()}/status").read_text()
    anonymous = next(line for line in status.splitlines() if line.startswith("RssAnon"))
    return int(anonymous.split()[1]) * 1024 / (FOLDERS * 1001)


def measure(results):
    def note(figure, engine, value):
        results.setdefault(figure, {}).setdefault(engine, []).append(value)

    for engine in ENGINES:
        empty_caches()
        with Mounted(engine, "many") as many:
            note("ready, ms", engine, many.ready * 1e3)
            note("find, first, ms", engine, seconds(lambda: find(many.place)) * 1e3)
            note("find, warm, ms", engine, seconds(lambda: find(many.place)) * 1e3)
            if engine == "hxcrate":
                note("resident, bytes a member, with the module's", engine, resident(engine))
        with Mounted(engine, "many") as many:  # the archive is in the kernel's memory by now
            note("ready, archive cached, ms", engine, many.ready * 1e3)
        with Mounted(engine, "headers") as headers:
            compile_headers(headers.place)
            note("compile, warm, ms", engine, seconds(lambda: compile_headers(headers.place)) * 1e3)
        if engine == "archivemount":
            continue  # goes through the archive from its start for every read: minutes for a GiB
        with Mounted(engine, "large") as large:
            empty_caches()
            note("1 GiB cold, MB/s" if not options.quick else "100 MiB cold, MB/s", engine,
                 LARGE / 1e6 / seconds(lambda: read_sequentially(large.place)))
        if engine == "fuse-zip":
            continue  # reads from the start of the item for every one
        for is_cached in (False, True):  # the archive, by the kernel, but nothing of what is mounted
            with Mounted(engine, "large") as large:
                empty_caches()
                if is_cached:
                    run("dd", f"if={ARCHIVES.get(engine, WORK / 'large/item')}", "of=/dev/null", "bs=1M")
                note("64 KiB at random, " + ("archive cached, us" if is_cached else "cold, us"), engine,
                     seconds(lambda: read_at_random(large.place)) / READS * 1e6)


def main():
    if os.geteuid() != 0:
        sys.exit("mount.py: only root can empty the kernel's caches")
    subprocess.run(["umount", "-l", MOUNT], stderr=subprocess.DEVNULL)
    shutil.rmtree(WORK, ignore_errors=True)
    MOUNT.mkdir(parents=True)
    run("cc", "-O2", "-I/usr/share/doc/libfuse3-dev/examples", "/usr/share/doc/libfuse3-dev/examples/passthrough_ll.c",
        "-I/usr/include/fuse3", "-lfuse3", "-lpthread", "-o", WORK / "passthrough_ll")
    make_trees()
    for tree in ("many", "large", "headers"):
        pack(tree)
    results = {}
    for round_ in range(ROUNDS):
        print(f"round {round_ + 1} of {ROUNDS}", file=sys.stderr)
        measure(results)
    table = "| | " + " | ".join(ENGINES) + " |\n|---|" + "--:|" * len(ENGINES) + "\n"
    for figure, engines in results.items():
        cells = [f"{statistics.median(engines[engine]):.1f}" if engine in engines else "-" for engine in ENGINES]
        table += f"| {figure} | " + " | ".join(cells) + " |\n"
    print(table, end="")
    if options.document:
        replace_tables(options.document, table, "mount")
    shutil.rmtree(WORK)


main()
