#!/usr/bin/env python3
"""Reads one tree from nginx through a proxy that delays, in several formats, and prints a table.

    bench/remote.py [--build DIR] [--items N] [--large MIB] [--delay MS] [--rounds N]

Needs nginx-light, curl, python3-fsspec, python3-aiohttp, python3-h5py and python3-apsw; what is missing
is left out. Each run is a process of its own, and nothing is kept between them. Requests and bytes are
those of nginx's log.
"""
import argparse
import asyncio
import os
import random
import shutil
import socket
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import zipfile
from pathlib import Path

# ---- what the runs of other formats do, each in a process of its own


def open_remote(url):
    import fsspec
    return fsspec.filesystem("http").open(url)


def run_zip(url, item):
    archive = zipfile.ZipFile(open_remote(url))
    return len(archive.namelist()) if item is None else len(archive.read(item))


def run_sqlite(url, item):
    import apsw
    remote = open_remote(url)

    class File:
        def xRead(self, amount, offset):
            remote.seek(offset)
            return remote.read(amount)

        def xFileSize(self):
            return remote.size

        def xClose(self):
            pass

        def xLock(self, level):
            pass

        def xUnlock(self, level):
            pass

        def xCheckReservedLock(self):
            return False

        def xFileControl(self, *_):
            return False

        def xSectorSize(self):
            return 4096

        def xDeviceCharacteristics(self):
            return 0

    class Remote(apsw.VFS):
        def __init__(self):
            super().__init__("remote", "")

        def xOpen(self, name, flags):
            return File()

        def xAccess(self, name, flags):
            return False

        def xFullPathname(self, name):
            return name

    keep = Remote()  # noqa: F841
    database = apsw.Connection("x", flags=apsw.SQLITE_OPEN_READONLY, vfs="remote")
    if item is None:
        return sum(1 for _ in database.cursor().execute("select path from items"))
    return len(next(database.cursor().execute("select data from items where path = ?", (item,)))[0])


def run_hdf5(url, item):
    import h5py
    file = h5py.File(open_remote(url), "r")
    return len(list(file.keys())) if item is None else len(file[item][()])


ENGINES = {"zip": (run_zip, "fsspec"), "sqlite": (run_sqlite, "apsw"), "hdf5": (run_hdf5, "h5py")}


def be_worker(engine, url, item):
    run, module = ENGINES[engine]
    __import__("fsspec"), __import__("aiohttp"), __import__(module)
    began = time.monotonic()
    count = run(url, item or None)
    print(time.monotonic() - began, count)


# ---- the files


def make_files(www, options, hxcrate):
    numbers = random.Random(1)
    tree = www.parent / "tree"
    tree.mkdir()
    items = {f"{n:06}": numbers.randbytes(numbers.randrange(100)) for n in range(options.items)}
    items["item"] = numbers.randbytes(65536)
    if options.large:
        items["large"] = numbers.randbytes(options.large << 20)
    for name, data in items.items():
        (tree / name).write_bytes(data)
    subprocess.run([hxcrate, "pack", www / "tree.hxcrate", tree], check=True)
    shutil.rmtree(tree)
    with zipfile.ZipFile(www / "tree.zip", "w") as archive:
        for name, data in items.items():
            archive.writestr(name, data)
    database = sqlite3.connect(www / "tree.sqlite")
    database.execute("create table items (path text primary key, data blob) without rowid"
                     if not options.large else "create table items (path text primary key, data blob)")
    database.executemany("insert into items values (?, ?)", items.items())
    database.commit()
    database.close()
    try:
        import h5py
        import numpy
        with h5py.File(www / "tree.hdf5", "w", libver="latest") as file:
            for name, data in items.items():
                file.create_dataset(name, data=numpy.frombuffer(data, numpy.uint8))
    except ImportError:
        pass


# ---- server and proxy


def free_port():
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        return free.getsockname()[1]


class Delay(threading.Thread):
    """Passes connections on and every byte on its way later, both ways."""

    def __init__(self, target, delay):
        super().__init__(daemon=True)
        self.target, self.delay, self.port = target, delay, free_port()
        self.start()

    def run(self):
        asyncio.run(self.serve())

    async def serve(self):
        server = await asyncio.start_server(self.connect, "127.0.0.1", self.port, limit=1 << 22)
        await server.serve_forever()

    async def connect(self, reader, writer):
        await asyncio.sleep(self.delay)  # of the handshake, which the system has answered at once
        there = await asyncio.open_connection("127.0.0.1", self.target, limit=1 << 22)
        await asyncio.gather(self.carry(reader, there[1]), self.carry(there[0], writer))

    async def carry(self, reader, writer):
        loop, queue = asyncio.get_running_loop(), asyncio.Queue(256)

        async def deliver():
            while (entry := await queue.get())[1]:
                await asyncio.sleep(max(0, entry[0] - loop.time()))
                writer.write(entry[1])
                await writer.drain()
            writer.close()

        delivery = asyncio.create_task(deliver())
        try:
            while data := await reader.read(1 << 20):
                await queue.put((loop.time() + self.delay, data))
            await queue.put((0, b""))
            await delivery
        except OSError:
            delivery.cancel()
            writer.close()


def start_nginx(scratch, port):
    paths = "".join(f"{kind}_temp_path {scratch}/t;" for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    (scratch / "nginx.conf").write_text(
        f"daemon off; pid {scratch}/pid; error_log {scratch}/error.log; events {{}}\n"
        f"http {{ access_log {scratch}/access.log; sendfile on; keepalive_requests 1000000; {paths}\n"
        f"server {{ listen 127.0.0.1:{port}; root {scratch}/www; }} }}\n")
    program = shutil.which("nginx") or "/usr/sbin/nginx"
    return subprocess.Popen([program, "-c", scratch / "nginx.conf"], stderr=subprocess.DEVNULL)


# ---- the runs


def measure(words, log):
    before = len(log.read_text().splitlines())
    environment = {**os.environ, "no_proxy": "127.0.0.1"}
    began = time.monotonic()
    done = subprocess.run(words, capture_output=True, env=environment, check=False)
    seconds = time.monotonic() - began
    if done.returncode:
        return None
    if words[0] == sys.executable:
        seconds = float(done.stdout.split()[0])
    time.sleep(0.2)
    lines = log.read_text().splitlines()[before:]
    return seconds, len(lines), sum(int(line.split('"')[2].split()[1]) for line in lines)


def commands(engine, hxcrate, url, item):
    if engine == "curl":
        return None if item != "large" else ["curl", "-s", "-o", "/dev/null", url + "/large"]
    if engine == "hxcrate":
        words = ["ls", url + "/tree.hxcrate"] if item is None else ["cat", url + "/tree.hxcrate", item]
        return [hxcrate, words[0], "--no-cache", *words[1:]]
    return [sys.executable, __file__, "--worker", engine, f"{url}/tree.{engine}", item or ""]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/release"))
    for name, value in (("--items", 100000), ("--large", 256), ("--delay", 20), ("--rounds", 5)):
        parser.add_argument(name, type=int, default=value)
    options = parser.parse_args()
    hxcrate = options.build.resolve() / "hxcrate"
    with tempfile.TemporaryDirectory() as folder:
        scratch = Path(folder)
        scratch.chmod(0o755)
        (scratch / "www").mkdir()
        make_files(scratch / "www", options, hxcrate)
        with open(scratch / "www" / "large", "wb") as large:
            large.write(random.randbytes(options.large << 20))
        port = free_port()
        nginx = start_nginx(scratch, port)
        try:
            url = f"http://127.0.0.1:{Delay(port, options.delay / 1000).port}"
            time.sleep(1)
            print(f"{options.items} items, {options.delay} ms each way, medians of {options.rounds} runs\n\n"
                  "| what | with | ms | requests | bytes |\n|---|---|---|---|---|")
            cases = {"open and list": None, "open and 64 KiB": "item", f"open and {options.large} MiB": "large"}
            for case, item in list(cases.items())[:3 if options.large else 2]:
                for engine in ("hxcrate", "curl", *ENGINES):
                    words = commands(engine, hxcrate, url, item)
                    runs = [words and measure(words, scratch / "access.log") for _ in range(options.rounds)]
                    if not all(runs):
                        continue
                    seconds, requests, size = (statistics.median(column) for column in zip(*runs))
                    print(f"| {case} | {engine} | {seconds * 1000:.0f} | {requests:.0f} | {size:.0f} |", flush=True)
        finally:
            nginx.terminate()
            nginx.wait()


if sys.argv[1:2] == ["--worker"]:
    be_worker(*sys.argv[2:])
else:
    main()
