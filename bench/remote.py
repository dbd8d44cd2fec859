#!/usr/bin/env python3
"""Reads one tree from nginx through a proxy that delays, in several formats, and prints tables.

    bench/remote.py [--build DIR] [--items N] [--large MIB] [--delay MS] [--rounds N] [--disk]
                    [--document FILE]

Needs nginx-light, curl, python3-fsspec, python3-aiohttp, python3-h5py and python3-apsw; what is missing
is left out. Each run is a process of its own, and nothing is kept between them. Requests and bytes are
those of nginx's log. The large item is read without the proxy as well. --disk, as root: the files are also
opened from the disk, with all caches dropped before each run. --document: what is printed takes the place of
what stands between the marks "<!-- remote -->" and "<!-- /remote -->" of a file.
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
    if url.startswith("/"):
        return open(url, "rb")
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


OURS = ("hxcrate", "reading")  # the latter is made by copy --for reading
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
        items["large"] = b"".join(numbers.randbytes(1 << 20) for _ in range(options.large))
    for name, data in items.items():
        (tree / name).write_bytes(data)
    (www / "large").write_bytes(items.get("large", b""))
    for name, only in ("tree", []), ("alone", ["--include", "large"]):
        pack = www / f"{name}.hxcrate"
        subprocess.run([hxcrate, "pack", *only, pack, tree], check=True)
        subprocess.run([hxcrate, "copy", "--for", "reading", pack, pack.with_suffix(".reading")], check=True)
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


LONGEST = 60  # seconds, after which a run is given up


def measure(words, log):
    before = len(log.read_text().splitlines())
    environment = {**os.environ, "no_proxy": "127.0.0.1"}
    # What is read goes nowhere, as curl's does.
    output = subprocess.PIPE if words[0] == sys.executable else subprocess.DEVNULL
    began = time.monotonic()
    try:
        done = subprocess.run(words, stdout=output, stderr=subprocess.DEVNULL, env=environment, check=False,
                              timeout=LONGEST)
    except subprocess.TimeoutExpired:
        done = None
    seconds = time.monotonic() - began
    if done and done.returncode:
        return None
    if done and words[0] == sys.executable:
        seconds = float(done.stdout.split()[0])
    time.sleep(0.2)
    lines = log.read_text().splitlines()[before:]
    return seconds, len(lines), sum(int(line.split('"')[2].split()[1]) for line in lines)


def commands(engine, hxcrate, url, item, tree):
    if engine == "curl":
        return None if item != "large" else ["curl", "-s", "-o", "/dev/null", url + "/large"]
    if engine in OURS:
        words = [f"{url}/{tree}.{engine}", *([item] if item else [])]
        return [hxcrate, "cat" if item else "ls", *(["--no-cache"] if "://" in url else []), *words]
    return [sys.executable, __file__, "--worker", engine, f"{url}/tree.{engine}", item or ""]


class Bench:
    def __init__(self, options, scratch):
        self.options, self.scratch = options, scratch
        self.hxcrate = options.build.resolve() / "hxcrate"
        self.told = []

    def tell(self, line):
        print(line, flush=True)
        self.told.append(line + "\n")

    # Takes turns; tells medians, and of times the least as well.
    def compare(self, case, url, item, engines, before=lambda: None, tree="tree"):
        words = {engine: commands(engine, self.hxcrate, url, item, tree) for engine in engines}
        runs = {engine: [] for engine in engines if words[engine]}
        for _ in range(self.options.rounds):
            for engine, done in runs.items():
                if done and (not done[-1] or done[-1][0] >= LONGEST):
                    continue
                before()
                done.append(measure(words[engine], self.scratch / "access.log"))
        for engine, done in runs.items():
            if not all(done):
                continue
            seconds, requests, size = (statistics.median(column) for column in zip(*done))
            more = "over " if seconds >= LONGEST else ""
            self.tell(f"| {case} | {engine} | {more}{seconds * 1000:.0f} | {min(done)[0] * 1000:.0f} | {requests:.0f} "
                      f"| {size:.0f} |")

    # What was loaded to measure with is loaded again, but for the files.
    def drop_caches(self):
        os.sync()
        Path("/proc/sys/vm/drop_caches").write_text("3")
        for words in ((self.hxcrate, "--version"), (sys.executable, "-c", "import zipfile, fsspec, aiohttp")):
            subprocess.run(words, stdout=subprocess.DEVNULL, check=False)

    def run(self):
        www, large = self.scratch / "www", f"{self.options.large} MiB"
        make_files(www, self.options, self.hxcrate)
        port = free_port()
        nginx = start_nginx(self.scratch, port)
        try:
            near = f"http://127.0.0.1:{port}"
            far = f"http://127.0.0.1:{Delay(port, self.options.delay / 1000).port}"
            time.sleep(1)
            self.tell(f"{self.options.items} items, {self.options.delay} ms each way, {self.options.rounds} rounds, "
                      f"load {os.getloadavg()[0]:.1f} at the start.\n\n| what | with | ms | least | requests | bytes |"
                      "\n|---|---|--:|--:|--:|--:|")
            self.compare("open and list", far, None, (*OURS, *ENGINES))
            self.compare("open and 64 KiB", far, "item", (*OURS, *ENGINES))
            if self.options.large:
                self.compare(f"open and {large}", far, "large", (*OURS, "curl", *ENGINES))
                self.compare(f"{large} alone, no delay", near, "large", (*OURS, "curl"), tree="alone")
            if self.options.disk:
                self.compare("open and list, cold disk", str(www), None, (*OURS, "zip"), self.drop_caches)
                self.compare("open and 64 KiB, cold disk", str(www), "item", (*OURS, "zip"), self.drop_caches)
        finally:
            nginx.terminate()
            nginx.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=Path("build/release"))
    parser.add_argument("--disk", action="store_true")
    parser.add_argument("--document", type=Path)
    for name, value in (("--items", 100000), ("--large", 256), ("--delay", 20), ("--rounds", 5)):
        parser.add_argument(name, type=int, default=value)
    with tempfile.TemporaryDirectory(dir="/var/tmp") as folder:
        scratch = Path(folder)
        scratch.chmod(0o755)
        (scratch / "www").mkdir()
        options = parser.parse_args()
        bench = Bench(options, scratch)
        bench.run()
    if options.document:
        from report import replace_tables
        replace_tables(options.document, "".join(bench.told), "remote")


if sys.argv[1:2] == ["--worker"]:
    be_worker(*sys.argv[2:])
else:
    main()
