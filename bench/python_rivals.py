#!/usr/bin/env python3
"""Measures the package beside lmdb, h5py, zipfile and sqlite3, and prints a table of what came out.

    ./dev python --bench [--items N] [--megabytes N] [--rounds N] [--folder DIR] [--document FILE]

Each figure is the median of the rounds; in each the engines take turns, on fresh openings of files
that are in the system's cache. An engine that can't do a thing has no figure there.
"""

import argparse
import os
import pathlib
import random
import shutil
import sqlite3
import statistics
import subprocess
import tempfile
import threading
import time
import zipfile

import h5py
import lmdb
import numpy

import hxcrate
from report import replace_tables

ITEM = os.urandom(100)
SMALL_STORES = 1000


class Hxcrate:
    options: dict = {}
    page_size = 256

    def __init__(self, folder, names, large):
        self.path = os.path.join(folder, type(self).__name__)
        self.large = self.path + "-large"
        with hxcrate.open(self.path, "w", page_size=self.page_size) as store:
            for name in names:
                store[name] = ITEM
        with hxcrate.open(self.large, "w", page_size=65536) as store:
            store["large"] = large

    def open(self):
        return hxcrate.open(self.path, **self.options)

    def get_all(self, names):
        with self.open() as store:
            for name in names:
                store.get(name)

    def list_all(self):
        with self.open() as store:
            return len(list(store))

    def read_large(self, buffer):
        with hxcrate.open(self.large, **self.options) as store:
            return store.read_into("large", buffer)

    def read_parts(self, buffer, threads):
        with hxcrate.open(self.large, **self.options) as store, store.view("large") as view:
            split(buffer, threads, view.read_into)


class HxcrateMapped(Hxcrate):
    options = {"mapped": True}


class Lmdb:
    def __init__(self, folder, names, large):
        self.path = os.path.join(folder, "lmdb")
        environment = lmdb.open(self.path, map_size=1 << 34, subdir=False)
        with environment.begin(write=True) as transaction:
            for name in names:
                transaction.put(name.encode(), ITEM)
            transaction.put(b"large", large)
        environment.close()

    def open(self):
        return lmdb.open(self.path, map_size=1 << 34, subdir=False, readonly=True)

    def get_all(self, names):
        with self.open() as environment, environment.begin() as transaction:
            for name in names:
                transaction.get(name.encode())

    def list_all(self):
        with self.open() as environment, environment.begin() as transaction:
            return len([key.decode() for key in transaction.cursor().iternext(values=False)]) - 1

    def read_large(self, buffer):
        with self.open() as environment, environment.begin(buffers=True) as transaction:
            buffer[:] = transaction.get(b"large")
            return len(buffer)


class H5py:
    def __init__(self, folder, names, large):
        self.path = os.path.join(folder, "h5py")
        with h5py.File(self.path, "w", libver="latest") as file:
            for name in names:
                file[name] = numpy.frombuffer(ITEM, "u1")
            file["large"] = numpy.frombuffer(large, "u1")

    def open(self):
        return h5py.File(self.path)

    def get_all(self, names):
        with self.open() as file:
            for name in names:
                file[name][()]

    def list_all(self):
        with self.open() as file:
            return len(list(file)) - 1

    def read_large(self, buffer):
        with self.open() as file:
            file["large"].read_direct(numpy.frombuffer(buffer, "u1"))
            return len(buffer)


class Zipfile:
    def __init__(self, folder, names, large):
        self.path = os.path.join(folder, "zipfile")
        with zipfile.ZipFile(self.path, "w") as archive:
            for name in names:
                archive.writestr(name, ITEM)
            archive.writestr("large", large)

    def open(self):
        return zipfile.ZipFile(self.path)

    def get_all(self, names):
        with self.open() as archive:
            for name in names:
                archive.read(name)

    def list_all(self):
        with self.open() as archive:
            return len(archive.namelist()) - 1

    def read_large(self, buffer):
        with self.open() as archive, archive.open("large") as file:
            return file.readinto(buffer)


class Sqlite:
    def __init__(self, folder, names, large):
        self.path = os.path.join(folder, "sqlite")
        connection = sqlite3.connect(self.path)
        connection.execute("create table items (name text primary key, data blob) without rowid")
        connection.execute("create table large (data blob)")
        connection.executemany("insert into items values (?, ?)", ((n, ITEM) for n in names))
        connection.execute("insert into large values (?)", (large,))
        connection.commit()
        connection.close()

    def open(self):
        return sqlite3.connect(self.path)

    def get_all(self, names):
        connection = self.open()
        for name in names:
            connection.execute("select data from items where name = ?", (name,)).fetchone()
        connection.close()

    def list_all(self):
        connection = self.open()
        names = [row[0] for row in connection.execute("select name from items")]
        connection.close()
        return len(names)

    def read_large(self, buffer):
        connection = self.open()
        with connection.blobopen("large", "data", 1, readonly=True) as blob:
            buffer[:] = blob.read()
        connection.close()
        return len(buffer)


def split(buffer, count, read_into):
    """Lets threads fill parts of the buffer, in pieces of a megabyte."""
    view = memoryview(buffer)
    part = len(view) // count

    def work(start):
        for offset in range(start, start + part, 1 << 20):
            read_into(view[offset:min(offset + (1 << 20), start + part)], offset)

    threads = [threading.Thread(target=work, args=(n * part,)) for n in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def open_small(folder):
    """Opens small stores, each with one item that is read."""
    for number in range(SMALL_STORES):
        with hxcrate.open(os.path.join(folder, f"small-{number}")) as store:
            store["item"]


def seconds(call, *arguments):
    began = time.perf_counter()
    call(*arguments)
    return time.perf_counter() - began


def cpp_seconds(program, path):
    """What the C++ API takes for the same, in a process of its own that measures itself."""
    said = subprocess.run([program, path], check=True, capture_output=True, text=True)
    return float(said.stdout)


CPP = """#include <chrono>
#include <hxcrate/crate.hpp>
#include <iostream>
#include <span>
int main(int, char** arguments) {
  hxcrate::Session session;
  std::vector<std::byte> buffer(static_cast<std::size_t>(session.open(arguments[1]).stat("large").size));
  const auto began = std::chrono::steady_clock::now();
  hxcrate::Store store = session.open(arguments[1]);
  store.get("large", std::span(buffer));
  store.close();
  std::cout << std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}
"""


def build_cpp(folder):
    """None where the libraries are not beside the package, as in the build folder."""
    source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    libraries = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(hxcrate.__file__))))
    program = os.path.join(folder, "read_large")
    with open(program + ".cpp", "w") as file:
        file.write(CPP)
    command = ["c++", "-std=c++20", "-O2", program + ".cpp", "-o", program, f"-I{source}/api",
               f"-L{libraries}", "-lhxhost", f"-Wl,-rpath,{libraries}"]
    return program if subprocess.run(command).returncode == 0 else None


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--items", type=int, default=100_000)
    parser.add_argument("--megabytes", type=int, default=256)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--folder", help="where the files go; a temporary one unless told")
    parser.add_argument("--document", type=pathlib.Path,
                        help="put the table between its lines <!-- python --> and <!-- /python -->")
    arguments = parser.parse_args()
    folder = tempfile.mkdtemp(dir=arguments.folder)
    try:
        report(measure(folder, arguments), arguments)
    finally:
        shutil.rmtree(folder)


def measure(folder, arguments):
    names = [f"item-{number:06}" for number in range(arguments.items)]
    large = os.urandom(1 << 20) * arguments.megabytes
    engines = [kind(folder, names, large) for kind in (Hxcrate, HxcrateMapped, Lmdb, H5py, Zipfile, Sqlite)]
    for number in range(SMALL_STORES):
        with hxcrate.open(os.path.join(folder, f"small-{number}"), "w", durable=False) as store:
            store["item"] = ITEM
    program = build_cpp(folder)
    random.shuffle(names)
    buffer = bytearray(len(large))
    taken = {}

    def note(what, engine, call, *parts):
        taken.setdefault(what, {}).setdefault(engine, []).append(seconds(call, *parts))

    for _ in range(arguments.rounds):
        for engine in engines:
            kind = type(engine).__name__
            note("random get", kind, engine.get_all, names)
            assert engine.list_all() == len(names)
            note("names listed", kind, engine.list_all)
            buffer[:1] = buffer[-1:] = b"\0"
            note("large item", kind, engine.read_large, buffer)
            assert buffer[:64] == large[:64] and buffer[-64:] == large[-64:]
            if hasattr(engine, "read_parts"):
                note("one thread", kind, engine.read_parts, buffer, 1)
                note("two threads", kind, engine.read_parts, buffer, 2)
        if program:
            taken.setdefault("large item", {}).setdefault("C++", []).append(
                cpp_seconds(program, engines[0].large))
        note("1,000 small stores", "Hxcrate", open_small, folder)
    return taken


def report(taken, arguments):
    units = {"random get": (arguments.items / 1e6, "M/s"), "names listed": (arguments.items / 1e6, "M/s"),
             "large item": (arguments.megabytes / 1024, "GiB/s"),
             "one thread": (arguments.megabytes / 1024, "GiB/s"),
             "two threads": (arguments.megabytes / 1024, "GiB/s"),
             "1,000 small stores": (SMALL_STORES / 1e3, "k/s")}
    kinds = ["Hxcrate", "HxcrateMapped", "Lmdb", "H5py", "Zipfile", "Sqlite", "C++"]
    table = "| | " + " | ".join(kinds) + " |\n|---" + "|--:" * len(kinds) + "|\n"
    for what, engines in taken.items():
        amount, unit = units[what]
        cells = [f"{amount / statistics.median(engines[kind]):.3g}" if kind in engines else ""
                 for kind in kinds]
        table += f"| {what}, {unit} | " + " | ".join(cells) + " |\n"
    print(table, end="")
    if arguments.document:
        replace_tables(arguments.document, table, "python")


if __name__ == "__main__":
    main()
